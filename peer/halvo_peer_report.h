// The output of halvo-peer: lines on standard error with the priority before them that sd-daemon(3)
// describes, the line of a monitoring plugin, the status that systemd shows, and the text file for a node
// exporter. One thread.

#pragma once

#include <string>

#include "halvo_peer_count.h"

// "up" or "lost", the state as the command is told it.
const char* halvo_peer_word(halvo_peer_state_en state);

// A line on standard error; the priority is one of SD_EMERG to SD_DEBUG without its brackets, e.g. "<4>".
[[gnu::format(printf, 2, 3)]] void halvo_peer_say(const char* priority, const char* format, ...);

// A line about the state that the peer has just got. Systemd is told the same.
void halvo_peer_say_change(const halvo_peer_count_st& count, int64_t now);

// Tells systemd the state and the figures, as "systemctl status" shows them.
void halvo_peer_say_status(const halvo_peer_count_st& count, int64_t now);

// Prints the plugin's line on standard output. Returns the exit status that belongs to it: 0, 1 or 2.
int halvo_peer_print_line(const halvo_peer_count_st& count, int64_t now);

// The text file: a new one beside it, then a rename, so that a reader sees one or the other. A failure is
// logged once; `failing` remembers it from call to call.
void halvo_peer_write_file(const std::string& path, const halvo_peer_count_st& count, int64_t now,
                           bool* failing);
