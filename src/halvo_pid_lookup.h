// Looking a process up by its name: with pidof(8), and in the name line of /proc/PID/status, see proc(5).
//
// The kernel keeps 15 characters of a name. A pid is believed only if /proc shows the name under it, since
// the process may be gone and its pid reused. The module keeps no state.

#pragma once

#include <sys/types.h>

#include "halvo_private.h"

// Stores the first pid that "pidof NAME" prints in *pid, or -1 for a number out of range. Returns 1 when
// pidof printed a line, 0 when it printed none, or -1 with a message when it could not be run. Waits for
// pidof, however long it takes. Main and heartbeat thread, without the table lock.
int halvo_ask_pidof(const char* proc_name, int* pid);

// Returns the pid if the name occurs in its name line in /proc, else -1 with a message. Makes three system
// calls and allocates nothing. Any thread, with or without the table lock.
int halvo_confirm_held_pid(const char* proc_name, pid_t pid);

// Returns the pid field of an entry. Any thread; takes the table lock.
pid_t halvo_held_pid(const halvo_child_proc_info_st* proc_info);

// Returns the pid of the running process with the entry's name, or -1. That is the pid that pidof finds or,
// when it finds none, the pid that the entry holds; either counts only if /proc shows the name under it.
// Main thread, without the table lock.
int halvo_check_process_pid_status(halvo_child_proc_info_st* proc_info);
