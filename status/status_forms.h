// The forms that a look is written in. All but the screen are interfaces: halvo-status(8) documents them
// field by field, and a name that stands there never changes.
//
// The functions make texts and read nothing but the clock. They cannot fail. Any thread.

#pragma once

#include <string>
#include <utility>
#include <vector>

#include "status_verdict.h"

// Returns the line of a monitoring plugin, with the figures after a bar and a line feed at its end. A figure
// that is not known is left out.
std::string status_make_line(const status_look_st& look);

// Returns one object of JSON, on one line. A figure that is not known is null. Memory is in bytes, CPU a
// ratio from 0 to 1.
std::string status_make_json(const status_look_st& look);

// Returns metrics in Prometheus's text format, in the same units. A figure that is not known has no sample.
std::string status_make_metrics(const status_look_st& look);

// How a screen is shown. Without a terminal nothing is cut, coloured or marked. NO_COLOR switches off the
// colours, but not the marks.
struct status_style_st {
    bool is_terminal = false;
    bool has_colour = false;
};

// The texts of a screen, each after the name of the place where it stood. The next screen marks a text that
// is new at its place. Empty: there was no screen before, and nothing is marked.
using status_shown = std::vector<std::pair<std::string, std::string>>;

// Returns the screen, at most 80 columns wide on a terminal, in lines that end with a line feed. `shown`
// holds the last screen's texts and is given this one's. If it is null, nothing is marked.
std::string status_make_screen(const status_look_st& look, const status_style_st& style, status_shown* shown);
