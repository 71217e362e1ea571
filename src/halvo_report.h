// The two reports, built line by line into a reply or, without one, into the log.
//
// Each holds the table lock from its first line to its last: no ring is freed under its walk, and what
// changes under one hold of the lock is shown whole.

#pragma once

#include "halvo_private.h"

// The words for a process type, or null for a value that is none.
const char* halvo_proc_type_text(process_type_en proc_type);

// The effective configuration and the live state. msg_buffer holds MSG_BUFFER_SIZE bytes, or is null: then
// every line is logged at LOG_INFO. Control and signal thread, without the table lock.
void halvo_display_config_details(char* msg_buffer);
void halvo_display_status_info(char* msg_buffer);

// The spawn times of one process, oldest first. Table lock held.
void halvo_display_recur_fail_info(const halvo_recur_fail_list_st* recur_fail_list, char* msg_buffer);
