// The verdict: finds the problems in the two reports and in the facts of the kernel, and derives the exit
// status from them. No state; one thread.

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "status_exchange.h"
#include "status_kernel.h"
#include "status_report.h"

// The severity of a problem, the verdict, and the exit status, in the numbers of monitoring plugins.
enum status_severity_en : int { STATUS_OK = 0, STATUS_WARNING = 1, STATUS_CRITICAL = 2, STATUS_UNKNOWN = 3 };

struct status_problem_st {
    status_severity_en severity;  // STATUS_OK when the problem is allowed
    const char* code;             // its name in halvo-status(8)
    std::string text;             // for people; may hold bytes from the configuration
};

// One look at the daemon and all that follows from it.
struct status_look_st {
    status_exchange_st exchange;
    status_report_st report;
    status_kernel_st kernel;
    std::vector<status_problem_st> problems;  // the worst first
    std::vector<status_child_st> held_up;     // the scripts and pidof that the daemon waits for
    status_figure heartbeat_ended;            // 0: no sign of an end, which is no proof that it goes on
    status_severity_en status = STATUS_OK;
};

// Returns true for a code that --allow takes: every code but "no-right".
bool status_is_code(std::string_view code);

// Derives the last four members of *look, which must be empty, from the first three. A problem whose code is
// allowed stays in the list and counts as OK.
void status_judge(const std::vector<std::string>& allowed, status_look_st* look);

// Takes one whole look: asks the daemon, for at most `timeout`, reads its reports, looks at the kernel's
// facts, and judges. Never fails: a figure that is not known is left empty, and the reason is one of the
// problems.
status_look_st status_take_look(status_clock::duration timeout, const std::vector<std::string>& allowed);

// Returns 1 when a daemon listens, 0 when none does, and unknown without the right to its socket.
status_figure status_is_up(const status_look_st& look);

// Returns true when the daemon answered and has started every NORMAL process.
bool status_has_started(const status_look_st& look);

// Returns "OK", "WARNING", "CRITICAL" or "UNKNOWN".
const char* status_severity_word(status_severity_en severity);

// Returns "armed", "off", "not armed" or "unknown", the last when /proc/PID/fd may not be read or nothing
// answered.
const char* status_failover_word(const status_look_st& look);
