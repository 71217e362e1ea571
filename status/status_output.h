// Where a look's text goes: standard output, a file, or a terminal that is drawn again and again.

#pragma once

#include <string>

#include "status_forms.h"

// How this process's standard output is to be drawn on.
status_style_st status_find_style();

// Writes a text to standard output. Returns 0, or -1 with a message.
int status_print(const std::string& text);

// Puts a text in a new file of mode 0644 beside the path and renames it over it: a reader sees the old text
// or the new one. Returns 0, or -1 with a message and the old file as it was.
int status_write_file(const std::string& path, const std::string& text);

// Takes standard output for a screen that is drawn again and again, until a signal ends this process: it
// leaves a terminal as it was, with status 0 on SIGINT, by the signal on SIGTERM, SIGHUP and SIGQUIT.
// Single-threaded.
void status_take_output(bool is_terminal);

// Draws a screen over the last one on a terminal; lines below its last row are left out. Returns 0, or -1
// with a message.
int status_draw(const std::string& screen);
