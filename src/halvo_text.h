// The text routines that several modules need. No state, no lock; any thread.

#pragma once

#include <cstddef>

// Returns the part of the path after its last SEPARATOR_CHAR; a null path or one without a separator is
// returned as it is.
const char* file_basename(const char* path);

// Copies a text into a field of the given size in bytes, at least 1. A text that does not fit is cut; the
// field is always terminated. The two must not overlap. Async-signal-safe: children use it between fork and
// exec.
void halvo_copy_text(char* field, size_t size, const char* text);

// Returns true unless the command field holds INVALID_CMD, which stands for a command that was never set.
bool halvo_has_command(const char* command);
