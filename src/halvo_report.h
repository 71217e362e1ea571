// The two reports, built line by line into a reply or, without one, into the log.
//
// Each report holds the table lock from its first line to its last. So no list is freed while the report
// walks it, and a change made under one hold of the lock is shown completely or not at all. The module
// keeps no state.

#pragma once

#include "halvo_private.h"

// Returns the words for a process type, or null for an invalid value. Any thread.
const char* halvo_proc_type_text(process_type_en proc_type);

// Build the report of the effective configuration and that of the live state. msg_buffer is a text of
// MSG_BUFFER_SIZE bytes to append to; if it is null, every line is logged at LOG_INFO. Control and signal
// thread, without the table lock.
void halvo_display_config_details(char* msg_buffer);
void halvo_display_status_info(char* msg_buffer);

// Appends the spawn times of one process, oldest first; recur_fail_list may be null. msg_buffer as above.
// Any thread, table lock held.
void halvo_display_recur_fail_info(const halvo_recur_fail_list_st* recur_fail_list, char* msg_buffer);
