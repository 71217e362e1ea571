// The socket that receives the heartbeat, and the arrival time of each datagram.
//
// The kernel stamps a datagram on its arrival, so that it does not matter how late this program reads it.
// The stamp is on the wall clock, which may be set at any time; everything else here is on the monotonic
// clock. So each stamp is converted by the distance between the two clocks right after the read.
//
// If the wall clock was set between the stamp and the read, that distance is wrong. The arrival then lies
// before the time when the queue was last seen empty, or in the future. In that case the distance of the
// previous read is tried, and if that fails too, the arrival counts as now. One step of the clock goes
// unnoticed: one that is shorter than the time between two reads and falls between a stamp and its read.
//
// The queue holds at least 9 seconds of heartbeats; beyond that the kernel drops datagrams. Their number is
// read with SO_MEMINFO, because SO_RXQ_OVFL would report it only with the next datagram, which may never
// come. No call waits. One thread.

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <span>

constexpr uint16_t HALVO_PEER_PORT = 54321;

struct halvo_peer_socket_st {
    int fd;
    int64_t distance;  // nanoseconds that the wall clock was ahead of the monotonic one at the last read
    int64_t emptied;   // when the queue was last seen empty, in nanoseconds on the monotonic clock
    uint32_t dropped;  // the kernel's count of dropped datagrams at the last look
};

struct halvo_peer_datagram_st {
    int64_t arrival;  // nanoseconds on the monotonic clock
    in_addr sender;
    bool is_heartbeat;  // it has exactly the bytes of a heartbeat
};

// Returns the present time, in nanoseconds on the monotonic clock.
int64_t halvo_peer_now();

// Opens the socket on HALVO_PEER_PORT at that address of this VM. Returns 0, or -1 with errno; EADDRINUSE
// means that another program has the port. See udp(7).
int halvo_peer_open(halvo_peer_socket_st* peer_socket, in_addr listen);

// Reads datagrams from the queue, in its order, without waiting. Returns their number, 0 when there is none,
// or -1 with errno. Fewer than the span holds mean that the queue was empty after them. The span may hold 32
// at most. See recvmmsg(2).
int halvo_peer_receive(halvo_peer_socket_st* peer_socket, std::span<halvo_peer_datagram_st> datagrams);

// Returns how many datagrams the kernel has dropped since the last call; 0 if it does not tell. See
// socket(7).
uint32_t halvo_peer_dropped(halvo_peer_socket_st* peer_socket);
