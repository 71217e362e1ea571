// The configuration reader, and the few system calls that several modules make in the same way.
//
// The reader goes on after a faulty line, logs each fault with its line number and fails at the end, so
// that an operator sees all faults of a file at once. It fills only the records that it is given, and does
// not look for the programs that the commands name. Only one thread runs it at a time: the main thread at
// start-up, the control thread later.

#pragma once

#include <cstddef>
#include <cstdio>
#include <ctime>
#include <memory>

#include "halvo_private.h"

// Checks one complete line and stores its value. proc_name, PROC_NAME_SIZE bytes, names the section that
// the line stands in; a line that opens a section changes it. Returns 0, or -1 with a message for an error
// of the line. The caller owns the records.
int halvo_verify_conf_param(const char* keyword, const char* param_name, const char* param_value,
                            char* proc_name, halvo_vm_info_st* vm_info, halvo_child_proc_info_st* proc_table,
                            const int* line_num);

// Reads the configuration file into a VM record whose mon_proc_num is 0 and a process table of MAX_PROC_NUM
// zeroed entries. Each complete line goes through verify_line. Returns 0 when every line was accepted and
// every process has its mandatory parameters; else -1 with messages, and the records must not be used.
int halvo_read_confile(halvo_vm_info_st* vm_info, halvo_child_proc_info_st* proc_table,
                       decltype(halvo_verify_conf_param)* verify_line = halvo_verify_conf_param);

// Opens a file for reading, close-on-exec, or returns null with errno. Never waits for a FIFO's writer,
// which may never come: such a FIFO reads as empty. See open(2). Any thread.
using halvo_file = std::unique_ptr<FILE, int (*)(FILE*)>;
halvo_file halvo_open_file(const char* path);

// Reads the wall clock, in seconds since the epoch. Returns 0, or -1 with messages. See time(2). Any
// thread.
int halvo_read_clock(time_t* now);

// Gives the calling thread the lowest real-time priority, if the daemon has the right to it, see sched(7).
// For the watchdog and heartbeat threads: a late keepalive would take a healthy VM down. The processes that
// the thread forks do not inherit the priority. A failure is ignored: it only makes delays more likely.
void halvo_be_punctual();
