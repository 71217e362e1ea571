#include "halvo_peer_socket.h"

#include <linux/sock_diag.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

static constexpr int64_t SECOND = 1'000'000'000;
static constexpr int64_t TOGETHER = 20'000;        // ns between two readings that count as one moment
static constexpr int64_t ON_ITS_WAY = 20'000'000;  // ns from the stamp into the queue, on a busy machine
static constexpr int QUEUE_SIZE = 1 << 20;         // bytes asked for; the kernel grants net.core.rmem_max
static constexpr size_t BATCH = 32;                // datagrams of one read
static constexpr std::array<unsigned char, 4> HEARTBEAT = {0xAB, 0xBA, 0xDC, 0xFE};

// The place for one datagram. It has one byte more than a heartbeat, so that a longer datagram is not cut to
// the length of one.
struct slot_st {
    std::array<unsigned char, HEARTBEAT.size() + 1> bytes;
    sockaddr_in sender;
    iovec vector;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(timespec))> control;
};

static int64_t nanoseconds(const timespec& time)
{
    return time.tv_sec * SECOND + time.tv_nsec;
}

static int64_t read_clock(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return nanoseconds(time);
}

int64_t halvo_peer_now()
{
    return read_clock(CLOCK_MONOTONIC);
}

// Returns how far the wall clock is ahead of the monotonic one. Takes the best of a few looks, because the
// kernel may stop this program between the readings of the two clocks.
static int64_t clock_distance()
{
    int64_t distance = 0;
    int64_t apart = INT64_MAX;
    for (int look = 0; look < 5 && apart > TOGETHER; ++look) {
        const int64_t before = halvo_peer_now();
        const int64_t wall = read_clock(CLOCK_REALTIME);
        const int64_t after = halvo_peer_now();
        if (after - before < apart) {
            apart = after - before;
            distance = wall - before - apart / 2;
        }
    }
    return distance;
}

int halvo_peer_open(halvo_peer_socket_st* peer_socket, in_addr listen)
{
    const sockaddr_in address = {
        .sin_family = AF_INET, .sin_port = htons(HALVO_PEER_PORT), .sin_addr = listen, .sin_zero = {}};
    const int on = 1;
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_UDP);
    if (fd == -1) {
        return -1;
    }
    // A smaller queue than asked for is not a failure. See socket(7).
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &QUEUE_SIZE, sizeof(QUEUE_SIZE));
    *peer_socket = {.fd = fd, .distance = clock_distance(), .emptied = halvo_peer_now(), .dropped = 0};
    if (setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on)) == -1 ||
        bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1) {
        const int failure = errno;
        close(fd);
        errno = failure;
        return -1;
    }
    return 0;
}

// Returns the kernel's stamp, in nanoseconds on the wall clock, or 0 without one. See SO_TIMESTAMPNS and
// cmsg(3).
static int64_t stamp_of(msghdr* message)
{
    for (cmsghdr* part = CMSG_FIRSTHDR(message); part != nullptr; part = CMSG_NXTHDR(message, part)) {
        if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_TIMESTAMPNS) {
            timespec stamp{};
            memcpy(&stamp, CMSG_DATA(part), sizeof(stamp));
            return nanoseconds(stamp);
        }
    }
    return 0;
}

// Converts a stamp to the monotonic clock, by the attempts that the header describes. The two allowances are
// for readings of the clocks that are right but not simultaneous.
static int64_t arrival_of(const halvo_peer_socket_st& peer_socket, int64_t stamp, int64_t distance,
                          int64_t now)
{
    for (const int64_t candidate : {distance, peer_socket.distance}) {
        const int64_t arrival = stamp - candidate;
        if (arrival >= peer_socket.emptied - ON_ITS_WAY && arrival <= now + TOGETHER) {
            return arrival;
        }
    }
    return now;
}

// Points each message at its slot, as recvmmsg(2) needs it.
static void prepare(std::span<slot_st> slots, std::span<mmsghdr> messages)
{
    for (size_t i = 0; i < slots.size(); ++i) {
        slot_st& slot = slots[i];
        slot.vector = {.iov_base = slot.bytes.data(), .iov_len = slot.bytes.size()};
        messages[i] = {};
        messages[i].msg_hdr.msg_name = &slot.sender;
        messages[i].msg_hdr.msg_namelen = sizeof(slot.sender);
        messages[i].msg_hdr.msg_iov = &slot.vector;
        messages[i].msg_hdr.msg_iovlen = 1;
        messages[i].msg_hdr.msg_control = slot.control.data();
        messages[i].msg_hdr.msg_controllen = slot.control.size();
    }
}

int halvo_peer_receive(halvo_peer_socket_st* peer_socket, std::span<halvo_peer_datagram_st> datagrams)
{
    std::array<slot_st, BATCH> slots;
    std::array<mmsghdr, BATCH> messages;
    const size_t wanted = std::min(datagrams.size(), slots.size());
    prepare(std::span(slots).first(wanted), messages);
    // Taken before the read: whatever a later read finds in an emptied queue has arrived after this time.
    const int64_t before = halvo_peer_now();
    const int got =
        recvmmsg(peer_socket->fd, messages.data(), static_cast<unsigned>(wanted), MSG_DONTWAIT, nullptr);
    if (got == -1 && errno != EAGAIN && errno != EINTR) {
        return -1;
    }
    const auto length = static_cast<size_t>(std::max(got, 0));
    const int64_t distance = clock_distance();
    const int64_t now = halvo_peer_now();
    for (size_t i = 0; i < length; ++i) {
        const slot_st& slot = slots.at(i);
        const int64_t stamp = stamp_of(&messages.at(i).msg_hdr);
        datagrams[i] = {.arrival = arrival_of(*peer_socket, stamp, distance, now),
                        .sender = slot.sender.sin_addr,
                        .is_heartbeat = messages.at(i).msg_len == HEARTBEAT.size() &&
                                        memcmp(slot.bytes.data(), HEARTBEAT.data(), HEARTBEAT.size()) == 0};
    }
    if (length < wanted) {
        peer_socket->emptied = before;
        peer_socket->distance = distance;
    }
    return static_cast<int>(length);
}

uint32_t halvo_peer_dropped(halvo_peer_socket_st* peer_socket)
{
    std::array<uint32_t, SK_MEMINFO_VARS> info{};
    socklen_t size = sizeof(info);
    if (getsockopt(peer_socket->fd, SOL_SOCKET, SO_MEMINFO, info.data(), &size) == -1) {
        return 0;
    }
    // Unsigned, so that the difference is right even after the kernel's counter has wrapped around.
    return info[SK_MEMINFO_DROPS] - std::exchange(peer_socket->dropped, info[SK_MEMINFO_DROPS]);
}
