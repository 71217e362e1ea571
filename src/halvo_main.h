// The signal side of the server's spine, for the rooms and tests that need more of it than main itself.

#pragma once

// Blocks the signals of signal_tbl_g in the calling thread, and so in every thread it starts later,
// installs the handler and starts the thread that waits for them. Returns 0, or -1 with a message. Main
// thread, before any other thread exists.
int halvo_signal_init();

// Calls the callbacks of a signal's rows, one after the other. Runs as a plain function on the signal
// thread, never asynchronously: callbacks lock, allocate, fork and wait.
void halvo_signal_handler(int signo);

// Writes both reports to the log. Signal thread.
void halvo_sigusr1_cb();
