// The forms that a look is written in. All but the screen are interfaces: halvo-status(8) documents them
// field by field, and a name that is written there is not changed.

#pragma once

#include <string>
#include <utility>
#include <vector>

#include "status_verdict.h"

// One line of a monitoring plugin, its figures after the bar.
std::string status_make_line(const status_look_st& look);

// One object of JSON, on one line. A figure that is not known is null.
std::string status_make_json(const status_look_st& look);

// Metrics in Prometheus's text format. A figure that is not known has no sample.
std::string status_make_metrics(const status_look_st& look);

// How a screen is shown. Without a terminal nothing is cut, coloured or marked. NO_COLOR leaves the marks.
struct status_style_st {
    bool is_terminal = false;
    bool has_colour = false;
};

// The texts of a screen, each with the place where it stood. The next screen marks a text that is new at its
// place. Empty: there was no screen before, and nothing is marked.
using status_shown = std::vector<std::pair<std::string, std::string>>;

// The screen, at most 80 columns on a terminal, in lines that end with a line feed. `shown` holds the last
// screen's texts and takes this one's; null: nothing is marked.
std::string status_make_screen(const status_look_st& look, const status_style_st& style, status_shown* shown);
