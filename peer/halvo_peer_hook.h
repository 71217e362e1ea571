// The operator's command, which is told each change of the state: "up" or "lost" is its last argument.
//
// It runs once at a time. A change while it runs waits for its end; of several the newest counts, and none
// when that is the state it was told last. One thread, the one that waits for SIGCHLD.

#pragma once

#include <sys/types.h>

#include <csignal>
#include <vector>

#include "halvo_peer_count.h"

struct halvo_peer_hook_st {
    std::vector<char*> command;  // ends with two nulls, the first being the place of the state; empty: none
    sigset_t mask;               // the signals it starts with blocked
    pid_t pid;                   // 0 while it does not run
    halvo_peer_state_en told;
};

// Runs the command with the state unless it runs, or knows. Failures are logged; the state counts as told.
void halvo_peer_tell(halvo_peer_hook_st* hook, halvo_peer_state_en state);

// Reaps the command after a SIGCHLD, and logs a failure. A signal for another child does nothing.
void halvo_peer_reap(halvo_peer_hook_st* hook);
