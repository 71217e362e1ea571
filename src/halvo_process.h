// Supervision of the processes: starting them, counting their restarts, noticing their loss and recovering
// from it.
//
// An entry's pid, state and spawn fields change only under the table lock. The spawner holds the lock from
// before its fork until the pid is stored; the callback reaps a child and looks up its entry under one
// hold. So no exit is missed, however early it comes. Scripts run without the lock, because they may hang.

#pragma once

#include "halvo_private.h"

// Runs the pre-start script, spawns the process, then runs the post-start script. Returns 0, or -1 with a
// message. Main and signal thread, without the table lock.
int halvo_start_process(halvo_child_proc_info_st* proc_info);

// Starts the process with all descriptors closed, and counts the spawn. Returns 0 when the fork succeeded,
// else -1 with a message. A program that cannot be run counts as started; its exit with status 1 follows.
// Main and signal thread; takes the table lock.
int halvo_spawn_process(halvo_child_proc_info_st* proc_info);

// Reaps one exited child after the other and recovers from the loss of each NORMAL process. Stops at the
// first child that is not a NORMAL process. Ends the daemon when a restart fails. Signal thread, without
// the table lock.
void halvo_sigchld_cb();

// Looks for a DAEMON or SYSTEM process and, after three misses, recovers from its loss. Takes up to 3
// seconds, and longer if pidof or a script does. Returns 0, or -1 with a message when a needed restart
// failed. Main thread, without the table lock.
int halvo_monitor_process_crash(halvo_child_proc_info_st* proc_info);
