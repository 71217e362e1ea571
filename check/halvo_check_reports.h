// How long the daemon's two reports can become with the tables of a checked file.
//
// The daemon's own report builders run on vm_info_g and child_proc_table_g, which are left as they are found
// at start: zeroed. One thread.

#pragma once

#include <cstddef>

#include "halvo_private.h"

// A report with every figure at its widest and every ring of starts full.
struct halvo_report_size_st {
    size_t length;       // characters, those that are left out included
    int lines_left_out;  // since the reply has no room for them
};

// Builds a report of that configuration with halvo_display_config_details() or halvo_display_status_info().
halvo_report_size_st halvo_measure_report(const halvo_vm_info_st& vm_info,
                                          const halvo_child_proc_info_st* proc_table,
                                          void (*display)(char* msg_buffer));
