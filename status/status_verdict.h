// The verdict: which problems there are, by the two reports and the kernel's knowledge, and the exit status.

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "status_exchange.h"
#include "status_kernel.h"
#include "status_report.h"

// Also the exit status, as monitoring plugins have it.
enum status_severity_en : int { STATUS_OK = 0, STATUS_WARNING = 1, STATUS_CRITICAL = 2, STATUS_UNKNOWN = 3 };

struct status_problem_st {
    status_severity_en severity;  // STATUS_OK where it is allowed
    const char* code;
    std::string text;
};

// One look at the daemon and all that follows from it.
struct status_look_st {
    status_exchange_st exchange;
    status_report_st report;
    status_kernel_st kernel;
    std::vector<status_problem_st> problems;  // the worst first
    std::vector<status_child_st> held_up;     // the children that are the daemon's scripts or pidof
    status_figure heartbeat_ended;            // 0: no sign of it, which is no proof that it goes on
    status_severity_en status = STATUS_OK;
};

// True for a code that --allow takes: every one but "no-right".
bool status_is_code(std::string_view code);

// Fills in the problems, the children that hold the daemon up, the heartbeat and the status from the other
// members. A problem whose code is allowed stays in the list and counts as OK.
void status_judge(const std::vector<std::string>& allowed, status_look_st* look);

// One whole look: asks the daemon, for so long at most, reads its reports, looks at the kernel, and judges.
// Never fails: an unknown figure is left empty, and the reason is one of the problems.
status_look_st status_take_look(status_clock::duration timeout, const std::vector<std::string>& allowed);

// 1 when a daemon listens, 0 when none does, unknown without the right to its socket.
status_figure status_is_up(const status_look_st& look);

// True when the daemon answered and has started every NORMAL process.
bool status_has_started(const status_look_st& look);

// "OK" to "UNKNOWN".
const char* status_severity_word(status_severity_en severity);

// "armed", "off", "not armed" or "unknown": the last where /proc/PID/fd may not be read, or nothing answered.
const char* status_failover_word(const status_look_st& look);
