// The accounting of the other VM's heartbeat: the state that it is in, and the figures since the start.
//
// Heartbeats carry no number. One that comes late and one that was lost look alike: both leave a silence, and
// the figures count silences. Every time is in nanoseconds on the monotonic clock and comes from the caller,
// so that nothing here depends on when it is called. One thread.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

constexpr int64_t HALVO_PEER_MS = 1'000'000;         // in nanoseconds
constexpr int64_t HALVO_PEER_INTERVAL = 50'000'000;  // between two heartbeats, as sent
constexpr int64_t HALVO_PEER_GAP = 100'000'000;      // a longer silence is a gap
constexpr int64_t HALVO_PEER_JITTER_STEP = 10'000;   // the resolution of the percentiles
constexpr size_t HALVO_PEER_JITTER_STEPS =
    50 * 100 + 1;  // 0 to 50 ms: an interval that is no gap is no further off

enum halvo_peer_state_en : uint8_t { PEER_UNDECIDED, PEER_UP, PEER_LOST };

struct halvo_peer_count_st {
    int64_t lost_after;  // nanoseconds of silence
    uint64_t up_after;   // heartbeats in a row
    halvo_peer_state_en state;
    int64_t last;     // when the last heartbeat came; before the first, the start
    bool measurable;  // `last` is a heartbeat's: the time until the next one is an interval
    uint64_t row;     // heartbeats since the last gap
    uint64_t received;
    uint64_t missing;
    uint64_t gaps;
    uint64_t foreign;  // datagrams that are no heartbeat of the other VM; the caller counts them
    int64_t longest;   // the longest interval or gap
    int64_t jitter_sum;
    int64_t jitter_max;
    uint64_t intervals;                                      // those that are no gap
    std::array<uint64_t, HALVO_PEER_JITTER_STEPS> jittered;  // how many of them were so many steps off
};

// The reported figures. A silence that still lasts counts up to the moment of the report.
struct halvo_peer_figures_st {
    uint64_t missing;
    uint64_t gaps;
    int64_t longest;
    int64_t jitter_p50;
    int64_t jitter_p99;
};

// Starts to count. lost_after in nanoseconds, up_after at least 1.
void halvo_peer_start(halvo_peer_count_st* count, int64_t lost_after, uint64_t up_after, int64_t now);

// Looks at the silence up to `now`. Returns true when the peer is lost with that, once. To be called before
// each heartbeat with its arrival too: the silence before it may have been that long.
bool halvo_peer_judge(halvo_peer_count_st* count, int64_t now);

// The first moment at which halvo_peer_judge() can return true, INT64_MAX when the peer is lost already.
int64_t halvo_peer_deadline(const halvo_peer_count_st& count);

// Counts a heartbeat. Returns true when the peer is up with it.
bool halvo_peer_hear(halvo_peer_count_st* count, int64_t arrival);

// Lets the silence begin at `now`, after heartbeats may have been missed through our own fault.
void halvo_peer_forgive(halvo_peer_count_st* count, int64_t now);

// The figures up to `now`. Nothing is changed, so that they can be asked for at any time.
halvo_peer_figures_st halvo_peer_figures(const halvo_peer_count_st& count, int64_t now);
