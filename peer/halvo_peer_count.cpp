#include "halvo_peer_count.h"

#include <algorithm>
#include <cstdlib>

void halvo_peer_start(halvo_peer_count_st* count, int64_t lost_after, uint64_t up_after, int64_t now)
{
    *count = {};
    count->lost_after = lost_after;
    count->up_after = up_after;
    count->last = now;
}

// Returns the heartbeats missing in a silence: its intervals, rounded, less the one heartbeat that ends it.
static uint64_t missing_in(int64_t silence)
{
    return static_cast<uint64_t>((silence + HALVO_PEER_INTERVAL / 2) / HALVO_PEER_INTERVAL - 1);
}

bool halvo_peer_judge(halvo_peer_count_st* count, int64_t now)
{
    if (now < halvo_peer_deadline(*count)) {
        return false;
    }
    count->state = PEER_LOST;
    count->in_a_row = 0;
    return true;
}

int64_t halvo_peer_deadline(const halvo_peer_count_st& count)
{
    return count.state == PEER_LOST ? INT64_MAX : count.last + count.lost_after;
}

static void count_interval(halvo_peer_count_st* count, int64_t interval)
{
    const int64_t jitter = std::abs(interval - HALVO_PEER_INTERVAL);
    ++count->intervals;
    count->jitter_sum += jitter;
    count->jitter_max = std::max(count->jitter_max, jitter);
    // Within the array: an interval that is not a gap is at most 100 ms, and so at most 50 ms off.
    const auto steps = static_cast<size_t>((jitter + HALVO_PEER_JITTER_STEP / 2) / HALVO_PEER_JITTER_STEP);
    ++count->jittered.at(steps);
}

bool halvo_peer_hear(halvo_peer_count_st* count, int64_t arrival)
{
    // Two processors may queue two datagrams in the wrong order. The later arrival stays the last one.
    const int64_t silence = std::max<int64_t>(arrival - count->last, 0);
    if (silence > HALVO_PEER_GAP) {
        ++count->gaps;
        count->missing += missing_in(silence);
        count->in_a_row = 0;
        count->longest = std::max(count->longest, silence);
    } else if (count->measurable) {
        count_interval(count, silence);
        count->longest = std::max(count->longest, silence);
    }
    count->last += silence;
    count->measurable = true;
    ++count->received;
    ++count->in_a_row;
    if (count->state == PEER_UP || count->in_a_row < count->up_after) {
        return false;
    }
    count->state = PEER_UP;
    return true;
}

void halvo_peer_forgive(halvo_peer_count_st* count, int64_t now)
{
    count->last = std::max(count->last, now);
    count->measurable = false;
    count->in_a_row = 0;
}

// Returns the jitter, in nanoseconds, that `percent` of the intervals do not exceed, or 0 without intervals.
static int64_t percentile(const halvo_peer_count_st& count, uint64_t percent)
{
    const uint64_t wanted = (count.intervals * percent + 99) / 100;
    uint64_t passed = 0;
    size_t steps = 0;
    while (steps + 1 < count.jittered.size() && (passed += count.jittered.at(steps)) < wanted) {
        ++steps;
    }
    return static_cast<int64_t>(steps) * HALVO_PEER_JITTER_STEP;
}

halvo_peer_figures_st halvo_peer_figures(const halvo_peer_count_st& count, int64_t now)
{
    halvo_peer_figures_st figures = {.missing = count.missing,
                                     .gaps = count.gaps,
                                     .longest = count.longest,
                                     .jitter_p50 = percentile(count, 50),
                                     .jitter_p99 = percentile(count, 99)};
    // A silence that still lasts is not in the counters yet.
    const int64_t silence = now - count.last;
    if (silence > HALVO_PEER_GAP) {
        ++figures.gaps;
        figures.missing += missing_in(silence);
        figures.longest = std::max(figures.longest, silence);
    }
    return figures;
}
