// The accounting of the other VM's heartbeat: the state of that VM, and the figures since the start.
//
// Heartbeats carry no number, so a late one and a lost one look alike: both leave a silence, and the figures
// count silences. Every time is in nanoseconds on the monotonic clock. The caller passes it in, so that a
// test can pass any time. No function fails or waits. One thread.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// All of these are in nanoseconds.
constexpr int64_t HALVO_PEER_MS = 1'000'000;
constexpr int64_t HALVO_PEER_INTERVAL = 50'000'000;  // between two heartbeats, as sent
constexpr int64_t HALVO_PEER_GAP = 100'000'000;      // a longer silence is a gap
constexpr int64_t HALVO_PEER_JITTER_STEP = 10'000;   // the resolution of the percentiles

// Steps from 0 to 50 ms, both included: an interval that is not a gap deviates by no more.
constexpr size_t HALVO_PEER_JITTER_STEPS = 50 * 100 + 1;

// UNDECIDED until enough heartbeats have come in a row, or the silence since the start has been too long.
enum halvo_peer_state_en : uint8_t { PEER_UNDECIDED, PEER_UP, PEER_LOST };

struct halvo_peer_count_st {
    int64_t lost_after;  // nanoseconds of silence
    uint64_t up_after;   // heartbeats in a row
    halvo_peer_state_en state;
    int64_t last;       // when the last heartbeat came; before the first one, the start
    bool measurable;    // `last` is a heartbeat's time, so the time until the next one is an interval
    uint64_t in_a_row;  // heartbeats since the last gap
    uint64_t received;
    uint64_t missing;
    uint64_t gaps;
    uint64_t foreign;  // datagrams that are not heartbeats of the other VM; the caller counts them
    int64_t longest;   // the longest interval or gap
    int64_t jitter_sum;
    int64_t jitter_max;
    uint64_t intervals;                                      // those that are not gaps
    std::array<uint64_t, HALVO_PEER_JITTER_STEPS> jittered;  // [n]: the intervals that were n steps off
};

// The figures of a report. A silence that still lasts counts up to the moment of the report. Times are in
// nanoseconds.
struct halvo_peer_figures_st {
    uint64_t missing;
    uint64_t gaps;
    int64_t longest;
    int64_t jitter_p50;
    int64_t jitter_p99;
};

// Resets all figures and starts to count. lost_after is in nanoseconds, up_after at least 1.
void halvo_peer_start(halvo_peer_count_st* count, int64_t lost_after, uint64_t up_after, int64_t now);

// Judges the silence up to `now`. Returns true once, when it has become so long that the peer is lost. Call
// it with the arrival of each heartbeat too, before that heartbeat is counted: the silence before it may
// have been that long.
bool halvo_peer_judge(halvo_peer_count_st* count, int64_t now);

// Returns the first moment at which halvo_peer_judge() can return true, or INT64_MAX when the peer is lost
// already.
int64_t halvo_peer_deadline(const halvo_peer_count_st& count);

// Counts a heartbeat. Returns true once, when the heartbeats in a row have become enough for the peer to be
// up.
bool halvo_peer_hear(halvo_peer_count_st* count, int64_t arrival);

// Lets the silence begin at `now`. For a time in which heartbeats may have been missed through our own
// fault.
void halvo_peer_forgive(halvo_peer_count_st* count, int64_t now);

// Returns the figures up to `now`. Changes nothing, so it may be called at any time.
halvo_peer_figures_st halvo_peer_figures(const halvo_peer_count_st& count, int64_t now);
