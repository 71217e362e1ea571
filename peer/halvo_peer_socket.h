// The socket that hears the heartbeat, and when each datagram came.
//
// The kernel stamps a datagram on its arrival, so that it does not matter when this program gets to read it.
// The stamp is of the wall clock, which may be set at any time; everything else here is on the monotonic
// clock. Each batch is therefore converted by the distance between the two clocks as it is right after the
// read. A stamp that this puts where it cannot be, before the queue was last seen empty or into the future,
// was made before the clock was set: it gets the distance of the read before, or, failing that, counts as of
// now. Not seen is a step that is shorter than the time between two reads and falls between a stamp and its
// read.
//
// The queue holds at least 9 seconds of heartbeats; beyond that the kernel drops datagrams. Their number is
// asked for with SO_MEMINFO: SO_RXQ_OVFL would tell only with the next datagram, which may never come. One
// thread.

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <span>

constexpr uint16_t HALVO_PEER_PORT = 54321;

struct halvo_peer_socket_st {
    int fd;
    int64_t distance;  // of the wall clock from the monotonic one at the last read, in nanoseconds
    int64_t emptied;   // when the queue was last seen empty, on the monotonic clock
    uint32_t dropped;  // datagrams that the kernel has dropped
};

struct halvo_peer_datagram_st {
    int64_t arrival;  // nanoseconds on the monotonic clock
    in_addr sender;
    bool shaped;  // like a heartbeat
};

// Now, in nanoseconds on the monotonic clock.
int64_t halvo_peer_now();

// Opens the socket at that address. Returns 0 or -1 with errno; EADDRINUSE: another program has the port.
int halvo_peer_open(halvo_peer_socket_st* peer_socket, in_addr listen);

// Reads the queue in the order of arrival, without waiting. Returns how many datagrams, 0 when there
// is none, or -1 with errno. Fewer than the span holds: the queue was empty after them.
int halvo_peer_receive(halvo_peer_socket_st* peer_socket, std::span<halvo_peer_datagram_st> datagrams);

// How many datagrams the kernel has dropped since the last call.
uint32_t halvo_peer_dropped(halvo_peer_socket_st* peer_socket);
