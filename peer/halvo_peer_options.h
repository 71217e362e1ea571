// The command line of halvo-peer.

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <vector>

#include "halvo_peer_count.h"

constexpr int HALVO_PEER_UNKNOWN = 3;  // exit status: wrong usage, or no socket to hear with

struct halvo_peer_options_st {
    in_addr from = {INADDR_ANY};  // INADDR_ANY: anybody is believed
    in_addr listen = {INADDR_ANY};
    int64_t lost_after = 500 * HALVO_PEER_MS;
    uint64_t up_after = 20;
    std::string textfile;  // empty: none
    int64_t duration = 0;  // nanoseconds to measure for, 0: without end
    std::vector<char*> command;
};

// Returns -1 to go on, or the status to exit with: the help, the version or an error was printed.
int halvo_peer_parse(int argc, char** argv, halvo_peer_options_st* options);
