// The two signals of the daemon: their table, the thread that waits for them, and the callback of SIGUSR1.
//
// Every thread blocks the two signals, so they never interrupt a call, and no code runs in a signal
// handler. The callbacks run one after the other on the signal thread, so that two recoveries from SIGCHLD
// never overlap.

#pragma once

// Blocks the signals of signal_tbl_g in the calling thread, and so in every thread that it starts later,
// and installs the handler with sigaction(2). Returns 0, or -1 with a message. Main thread, before any
// other thread exists.
int halvo_signal_init();

// Starts the thread that waits for the signals; until then they stay pending. Returns 0 or -1, not logged.
// Main thread, once.
int halvo_signal_start();

// Calls the callbacks of a signal's rows, one after the other. Runs as a plain function on the signal
// thread, never asynchronously: callbacks lock, allocate, fork and wait.
void halvo_signal_handler(int signo);

// Writes both reports to the log. Signal thread.
void halvo_sigusr1_cb();
