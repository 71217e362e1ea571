// The configuration reader, and the text routines that several rooms need.
//
// The reader goes on after a faulty line, logs each fault with its line number and fails at the end, so
// that an operator sees every fault of a file at once. It fills the records it is given and nothing else,
// and it does not look at the commands themselves. It is never run twice at once: by the main thread at
// start-up, later by the control thread alone.

#pragma once

#include <cstddef>
#include <cstdio>
#include <ctime>
#include <memory>

#include "halvo_private.h"

// Checks one complete line and stores its value. proc_name, PROC_NAME_SIZE bytes, is the section that the
// line stands in and is changed by a line that opens one. Returns -1 for an error of the line.
int halvo_verify_conf_param(const char* keyword, const char* param_name, const char* param_value,
                            char* proc_name, halvo_vm_info_st* vm_info, halvo_child_proc_info_st* proc_table,
                            const int* line_num);

// Reads the configuration file into a VM record whose mon_proc_num is 0 and a process table of
// MAX_PROC_NUM zeroed entries; each complete line goes through verify_line. Returns 0 when every line was
// accepted and every process has its mandatory parameters, else -1; the records are then not to be used.
int halvo_read_confile(halvo_vm_info_st* vm_info, halvo_child_proc_info_st* proc_table,
                       decltype(halvo_verify_conf_param)* verify_line = halvo_verify_conf_param);

// Points behind the last SEPARATOR_CHAR of the path; a null or empty path is returned as it is.
const char* file_basename(const char* path);

// Copies a text into a field of the given size in bytes, cut where it does not fit, always terminated.
void halvo_copy_text(char* field, size_t size, const char* text);

// Opens a file for reading, or returns null with errno. A FIFO without a writer is empty: waiting for one
// would stop the calling thread for good. See open(2).
using halvo_file = std::unique_ptr<FILE, int (*)(FILE*)>;
halvo_file halvo_open_file(const char* path);

// Reads the wall clock, seconds since the epoch. Returns 0, or -1 with messages. See time(2).
int halvo_read_clock(time_t* now);

// For the two threads whose punctuality keeps a healthy VM alive: the calling thread waits no longer for the
// log than halvo_log_hurry() says, and gets the lowest real-time priority, see sched(7), where the daemon has
// the right to it; what it forks gets none.
void halvo_be_punctual();

// True unless the command field holds the marker for no command.
bool halvo_has_command(const char* command);
