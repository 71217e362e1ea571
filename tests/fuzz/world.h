// What a fuzzing target's code sees of the world: files with a given content, and a log that costs nothing.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What the next calls of open(2) give, whatever the path; when they are used up it fails.
inline std::vector<std::string> next_files;

// The input, cut at its bytes 0xff.
std::vector<std::string> cut(const uint8_t* data, size_t size);

// Ends the run as a finding.
void require(bool condition, const char* what);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
