// The world that a fuzzing target's code sees: files with a given content, and a log that costs nothing.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// The contents that the next calls of open(2) give, whatever the path. After the last one, open(2) fails.
inline std::vector<std::string> next_files;

// The input, cut at its bytes 0xff.
std::vector<std::string> cut(const uint8_t* data, size_t size);

// Ends the run as a failure.
void require(bool condition, const char* what);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
