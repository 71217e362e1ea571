// Texts that several outputs need, and the making harmless of texts from outside.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// The words of a command line as the daemon splits it, with one blank between: '#' ends it, nothing is
// quoted.
std::string status_join_words(std::string_view command);

// Makes a text valid UTF-8: each byte that is not becomes U+FFFD.
std::string status_to_utf8(std::string_view text);

// The same, and each control character becomes a question mark: a name must not move the cursor of a
// terminal, and a plugin line must stay one line.
std::string status_to_plain(std::string_view text);

// "12.3%" of 123 tenths of a percent; "9.5 MB" or "646 MB" of kB, with a decimal below 10.
std::string status_show_percent(int64_t tenths);
std::string status_show_kilobytes(int64_t kilobytes);

// "0.123" of 123 tenths of a percent.
std::string status_show_ratio(int64_t tenths);
