// The command line of halvo-peer, see halvo-peer(8). One thread.

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <vector>

#include "halvo_peer_count.h"

constexpr int HALVO_PEER_UNKNOWN = 3;  // exit status: wrong usage, or no socket to hear with

struct halvo_peer_options_st {
    in_addr from = {INADDR_ANY};               // INADDR_ANY: any sender is believed
    in_addr listen = {INADDR_ANY};             // INADDR_ANY: any address of this VM
    int64_t lost_after = 500 * HALVO_PEER_MS;  // nanoseconds of silence
    uint64_t up_after = 20;                    // heartbeats in a row
    std::string textfile;                      // empty: none
    int64_t duration = 0;                      // nanoseconds to measure for; 0: no measurement
    std::vector<char*> command;                // points into argv; empty: none
};

// Fills *options, whose defaults must still stand. Returns -1 to go on, or the status to exit with after the
// help, the version or an error was printed: 0 or HALVO_PEER_UNKNOWN. getopt_long(3) keeps state, so call it
// once.
int halvo_peer_parse(int argc, char** argv, halvo_peer_options_st* options);
