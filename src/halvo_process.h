// Supervision of the processes: starting them, counting their restarts, noticing their loss and
// recovering from it.
//
// An entry's pid, state and spawn fields change only under the table lock. A NORMAL entry is reaped and
// looked up under the same hold of the lock that the spawner keeps from before its fork until the pid is
// stored, so that no exit is missed, however early. Scripts run without the lock.

#pragma once

#include <sys/types.h>

#include <array>

#include "halvo_private.h"

// Runs the pre-start script, spawns the process, runs the post-start script. Returns 0, or -1 with a
// message. Main and signal thread, without the table lock.
int halvo_start_process(halvo_child_proc_info_st* proc_info);

// Spawns the process without descriptors and does the accounting. Returns 0 when the fork succeeded: a
// program that can not be run is met as an exit with status 1. Takes the table lock.
int halvo_spawn_process(halvo_child_proc_info_st* proc_info);

// Reaps one exited child after the other and recovers from the loss of NORMAL processes; stops at the
// first child that is none. Ends the daemon when a restart fails. Signal thread.
void halvo_sigchld_cb();

// Returns the pid of the running process of the entry's name, or -1. Asks pidof(8), then looks at the
// name line of /proc/PID/status, see proc(5). Main thread, without the table lock.
int halvo_check_process_pid_status(halvo_child_proc_info_st* proc_info);

// Returns the pid field of an entry. Any thread, without the table lock.
pid_t halvo_held_pid(const halvo_child_proc_info_st* proc_info);

// The path of a status file, and opening it. Returns a descriptor or -1. Any thread.
using halvo_status_path = std::array<char, 50>;
int halvo_open_status_file(pid_t pid, halvo_status_path* path);

// Returns the pid when /proc still knows it under the name, else -1. Three system calls, nothing allocated.
// Any thread.
int halvo_confirm_held_pid(const char* proc_name, pid_t pid);

// Compares the name line of an open /proc/PID/status with a name and closes the descriptor. Returns 0
// when the name occurs in it, else -1 with a message. Any thread.
int halvo_check_status_name(int status_fd, const char* path, const char* name);

// Looks for a DAEMON or SYSTEM process and recovers from its loss. Takes up to 3 seconds. Returns 0, or -1
// when a needed restart failed. Main thread, without the table lock.
int halvo_monitor_process_crash(halvo_child_proc_info_st* proc_info);
