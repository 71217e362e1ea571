// The output of halvo-peer: lines on standard error, each after a priority as in sd-daemon(3); the line of a
// monitoring plugin; the status that systemd shows; and the text file for a node exporter.
//
// `now` is in nanoseconds on the monotonic clock, see halvo_peer_now(). A failed write of a line is ignored,
// since there is no other place to report it. Such a write may wait for a reader that is stuck. One thread.

#pragma once

#include <string>

#include "halvo_peer_count.h"

// Returns "up" or "lost", the state as the command is told it, or "undecided".
const char* halvo_peer_word(halvo_peer_state_en state);

// Writes a line to standard error. The priority is one of the texts SD_EMERG to SD_DEBUG, "<0>" to "<7>".
// The line end is added.
[[gnu::format(printf, 2, 3)]] void halvo_peer_say(const char* priority, const char* format, ...);

// Writes a line about the state that the peer has just changed to, and tells systemd the same.
void halvo_peer_say_change(const halvo_peer_count_st& count, int64_t now);

// Tells systemd the state and the figures, which "systemctl status" shows. Does nothing when systemd did not
// start this program, see sd_notify(3).
void halvo_peer_say_status(const halvo_peer_count_st& count, int64_t now);

// Prints the plugin's line on standard output. Returns the exit status that belongs to the line: 0 nothing
// missing, 1 gaps, 2 lost or never heard.
int halvo_peer_print_line(const halvo_peer_count_st& count, int64_t now);

// Writes a new text file beside `path` and renames it to `path`, so that a reader sees the old text or the
// new one. A failure is logged only once: *failing keeps it from call to call and must be false before the
// first one.
void halvo_peer_write_file(const std::string& path, const halvo_peer_count_st& count, int64_t now,
                           bool* failing);
