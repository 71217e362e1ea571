// The reader of the daemon's two reports.
//
// A report is made for people and may lack lines: the daemon drops each line that does not fit into 8191
// characters. A figure that is not there or cannot be read is unknown, never zero, and a report is called
// cut off when its own text proves that lines are or may be missing. Any text may come, so a line counts
// only in the exact form that the daemon writes. No state; any thread.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// A figure, or nothing where it is not known.
using status_figure = std::optional<int64_t>;

// One process, from both reports. CPU usage and its limits are in tenths of a percent; memory and its limits
// are in kB.
struct status_process_st {
    std::string name;
    status_figure type;    // process_type_en
    status_figure action;  // NOP, PROC_RESTART or VM_FAILOVER
    status_figure state;   // process_state_en
    status_figure pid, starts, cpu, memory, memory_peak;
    status_figure cpu_high, cpu_low, memory_high, memory_low;  // 0 = not set
    std::string last_start;                                    // the daemon's own text, empty = none
    std::string start_command;                                 // empty = not known
};

// Both reports. The units are those of a process.
struct status_report_st {
    status_figure pid, monitored, cpu, memory_total, memory_used, memory_free;
    status_figure version, monitor_interval, tick_interval, watchdog_timeout;  // the last three in seconds
    status_figure failover;                                                    // 1: enabled
    status_figure cpu_high, cpu_low, memory_high, memory_low;                  // 0 = not set
    std::vector<status_process_st> processes;  // in the status's order, then those of the configuration alone
    bool status_cut = false;                   // lines of the status are or may be missing
    bool config_cut = false;                   // lines of the configuration are or may be missing
    bool has_config = false;                   // a configuration was read, cut off or not
};

// Read one text into the record. Call them in this order, on a new record: the configuration is merged into
// the processes of the status. Return 0, or -1 and leave the record as it is when the text does not begin
// like such a report.
int status_read_status(std::string_view text, status_report_st* into);
int status_read_config(std::string_view text, status_report_st* into);

// Return the outputs' word for a code, empty for an unknown figure. The figure must come from the functions
// above.
const char* status_type_word(const status_figure& type);
const char* status_action_word(const status_figure& action);
const char* status_state_word(const status_figure& state);
