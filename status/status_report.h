// The reader of the daemon's two reports.
//
// A report is made for people and may lack lines: each line that does not fit in its 8191 characters is
// dropped. A figure that is not there or cannot be read is unknown, never zero, and a report is called cut
// off when its own text proves it. Any text may come: a line counts only in the exact form that the daemon
// writes. One thread.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

using status_figure = std::optional<int64_t>;

// One process, from both reports. CPU is in tenths of a percent and memory in kB, limits too.
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

struct status_report_st {
    status_figure pid, monitored, cpu, memory_total, memory_used, memory_free;
    status_figure version, monitor_interval, tick_interval, watchdog_timeout;  // seconds
    status_figure failover;                                                    // 1: enabled
    status_figure cpu_high, cpu_low, memory_high, memory_low;                  // 0 = not set
    std::vector<status_process_st> processes;  // in the status's order, then those of the configuration alone
    bool status_cut = false;                   // lines are missing, certainly
    bool config_cut = false;
    bool has_config = false;
};

// Each reads one text into the record, the status before the configuration. Returns -1, and leaves the record
// alone, for a text that is no such report at all.
int status_read_status(std::string_view text, status_report_st* into);
int status_read_config(std::string_view text, status_report_st* into);

// The words that the outputs use, empty for an unknown figure.
const char* status_type_word(const status_figure& type);
const char* status_action_word(const status_figure& action);
const char* status_state_word(const status_figure& state);
