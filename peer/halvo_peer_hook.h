// The operator's command, which is told each change of the state: its last argument is "up" or "lost".
//
// Only one instance runs at a time, so that two never contradict each other. Changes wait until it has
// ended. Then the command runs with the newest state, unless that is the state of its last run. One thread,
// the one that waits for SIGCHLD.

#pragma once

#include <sys/types.h>

#include <csignal>
#include <vector>

#include "halvo_peer_count.h"

struct halvo_peer_hook_st {
    // Empty, or the words and two nulls: the place of the state, and the end that execvp(3) expects.
    std::vector<char*> command;
    sigset_t mask;             // the signals that the command starts with blocked
    pid_t pid;                 // 0 while the command does not run
    halvo_peer_state_en told;  // the state of its last run
};

// Starts the command with the state, and does not wait for its end. Does nothing while the command runs, if
// it has been told this state already, or if the state is PEER_UNDECIDED. A failure is logged, and the state
// counts as told.
void halvo_peer_tell(halvo_peer_hook_st* hook, halvo_peer_state_en state);

// Reaps the command after a SIGCHLD, and logs it if the command failed. Does nothing after the SIGCHLD of
// another child. See wait(2).
void halvo_peer_reap(halvo_peer_hook_st* hook);
