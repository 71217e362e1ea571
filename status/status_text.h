// Text routines that several outputs need, and two that make texts from outside harmless. No state; any
// thread.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Returns the words of a command line as the daemon splits it, with one blank between each two. A '#' ends
// the command, and nothing is quoted.
std::string status_join_words(std::string_view command);

// Returns the text as valid UTF-8: each byte that belongs to no valid character becomes U+FFFD.
std::string status_to_utf8(std::string_view text);

// Returns the text as valid UTF-8 in which each control character is a question mark. A name must not move a
// terminal's cursor, and a plugin's line must stay one line.
std::string status_to_plain(std::string_view text);

// Return "12.3%" for 123 tenths of a percent, and "9.5 MB" or "646 MB" for a number of kB, with one decimal
// below 10.
std::string status_show_percent(int64_t tenths);
std::string status_show_kilobytes(int64_t kilobytes);

// Returns "0.123" for 123 tenths of a percent.
std::string status_show_ratio(int64_t tenths);
