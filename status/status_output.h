// The ways out for a look's text: standard output, a file, or a terminal that is drawn again and again.
//
// Messages go to standard error and begin with "halvo-status: ". The signal handlers write to the terminal,
// so all functions belong to one thread.

#pragma once

#include <string>

#include "status_forms.h"

// Returns whether standard output is a terminal, see isatty(3), and whether colours are wanted on it.
status_style_st status_find_style();

// Writes a text to standard output. Returns 0, or -1 with a message.
int status_print(const std::string& text);

// Writes a text to a new file of mode 0644 in the directory of `path`, and renames the new file to `path`.
// So a reader sees the old text or the new one, never half of it. Returns 0, or -1 with a message and the
// old file as it was. See rename(2).
int status_write_file(const std::string& path, const std::string& text);

// Takes standard output over for screens that are drawn again and again, until a signal ends this process.
// The process then leaves a terminal as it found it. It ends with status 0 on SIGINT, and by the signal on
// SIGTERM, SIGHUP and SIGQUIT. Call it once, before status_draw().
void status_take_output(bool is_terminal);

// Draws a screen over the last one on a terminal. Lines for which the terminal has no row are left out.
// Returns 0, or -1 with a message.
int status_draw(const std::string& screen);
