// Measures how long the daemon's two reports can become with the tables of a checked file.
//
// The daemon's own report builders run on vm_info_g and child_proc_table_g. Those must not hold anything
// else meanwhile, and are zeroed afterwards. Single-threaded, since the log's sink is replaced meanwhile.

#pragma once

#include <cstddef>

#include "halvo_private.h"

// The size of a report with every figure at its widest and every recurring-failure list full.
struct halvo_report_size_st {
    size_t length;       // characters, those of the lines left out included
    int lines_left_out;  // for which a reply of MSG_BUFFER_SIZE bytes has no room
};

// Builds a report of that configuration with `display`, halvo_display_config_details() or
// halvo_display_status_info(), and returns its size. Opens the file of each START_CMD_FILE. Logs nothing and
// cannot fail: a file that is missing leaves its command as configured.
halvo_report_size_st halvo_measure_report(const halvo_vm_info_st& vm_info,
                                          const halvo_child_proc_info_st* proc_table,
                                          void (*display)(char* msg_buffer));
