#include "status_verdict.h"

#include <linux/watchdog.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "halvo_private.h"
#include "status_text.h"

// Seconds. A daemon that has run for one monitoring interval and this much longer counts as having looked
// for every process. Each process that is not found costs the daemon 3 seconds.
static constexpr int64_t LOOKING_TIME = 5;

// Characters. A start command of this length fills its line in the configuration report, so its end may have
// been cut off. The line has a line feed and a terminator too.
static constexpr size_t CUT_COMMAND = STATUS_LINE_SIZE - 2 - std::string_view("\tStart command: ").size();

// Every problem with its severity. The names are an interface: see halvo-status(8).
struct code_st {
    const char* code;
    status_severity_en severity;
};

static constexpr auto codes = std::to_array<code_st>({
    {"no-right", STATUS_UNKNOWN},
    {"no-daemon", STATUS_CRITICAL},
    {"no-answer", STATUS_CRITICAL},
    {"process-lost", STATUS_CRITICAL},
    {"not-armed", STATUS_CRITICAL},
    {"held-up", STATUS_CRITICAL},
    {"limit-crossed", STATUS_CRITICAL},
    {"heartbeat-ended", STATUS_CRITICAL},
    {"failover-off", STATUS_WARNING},
    {"watchdog-boot", STATUS_WARNING},
    {"timeout-differs", STATUS_WARNING},
    {"replaced", STATUS_WARNING},
    {"cut-off", STATUS_WARNING},
});

static const code_st* find_code(std::string_view code)
{
    const auto* found =
        std::find_if(codes.begin(), codes.end(), [&](const code_st& known) { return known.code == code; });
    return found == codes.end() ? nullptr : found;
}

// UNKNOWN cannot be allowed: without an answer there is nothing to call OK.
bool status_is_code(std::string_view code)
{
    const code_st* known = find_code(code);
    return known != nullptr && known->severity != STATUS_UNKNOWN;
}

// The code must stand in the table above.
static void add(status_look_st* look, const char* code, const std::string& text)
{
    look->problems.push_back({find_code(code)->severity, code, text});
}

static std::string in_quotes(const std::string& name)
{
    return "process '" + name + "'";
}

// The daemon samples only after its start-up, and until then a NORMAL process may still be waiting for its
// start. A total of 0 means that no sample was taken yet.
static bool is_started_up(const status_report_st& report)
{
    return report.memory_total.value_or(0) > 0;
}

// A process that was never found is lost only when the daemon has had the time to look for it. During the
// start-up its type must be known too: a NORMAL process may still wait for the scripts of those before it.
static bool is_lost(const status_look_st& look, const status_process_st& process)
{
    if (process.state != UNKNOWN) {
        return process.state == TERMINATED;
    }
    const status_report_st& report = look.report;
    const bool had_time = report.monitor_interval.has_value() && look.kernel.age.has_value() &&
                          *look.kernel.age >= *report.monitor_interval + LOOKING_TIME;
    return had_time && (process.type.value_or(NORMAL) != NORMAL || is_started_up(report));
}

static void judge_processes(status_look_st* look)
{
    for (const status_process_st& process : look->report.processes) {
        if (is_lost(*look, process)) {
            add(look, "process-lost",
                in_quotes(process.name) +
                    (process.state == TERMINATED ? " is terminated" : " was never found running"));
        }
    }
}

// Only the descriptor proves that the VM is guarded. After a failed keepalive the device is closed, but the
// configuration report still says that failover is enabled. An unknown descriptor is no proof of the
// opposite.
static void judge_failover(status_look_st* look)
{
    const status_kernel_st& kernel = look->kernel;
    if (look->report.failover == 0) {
        add(look, "failover-off", "VM failover is switched off");
    } else if (look->report.failover == 1 && kernel.armed == 0) {
        add(look, "not-armed", "VM failover is on but the daemon does not hold the watchdog device");
    }
    if ((kernel.bootstatus.value_or(0) & WDIOF_CARDRESET) != 0) {
        add(look, "watchdog-boot", "the watchdog has reset this VM");
    }
    const status_figure& configured = look->report.watchdog_timeout;
    if (kernel.armed == 1 && kernel.timeout.has_value() && configured.has_value() &&
        kernel.timeout != configured) {
        add(look, "timeout-differs",
            "the device's timeout is " + std::to_string(*kernel.timeout) + " s, the configured one " +
                std::to_string(*configured) + " s");
    }
    if (kernel.replaced == 1) {
        add(look, "replaced", "the daemon's executable was replaced since its start");
    }
    if (look->report.status_cut || look->report.config_cut) {
        add(look, "cut-off",
            look->report.status_cut ? "lines are missing from the status report"
                                    : "lines are missing from the configuration report");
    }
}

// Returns true when a child's command line is the configured command, or ends with it. For a script the
// kernel puts the interpreter in front, and replaces the script's name by the path at which it was found, see
// execve(2).
static bool runs_command(const std::string& child, const std::string& configured)
{
    const std::string command = status_join_words(configured);
    if (command.empty()) {
        return false;
    }
    if (configured.size() >= CUT_COMMAND) {  // the command's end may be missing
        return child.find(command) != std::string::npos;
    }
    return child == command || child.ends_with(" " + command) || child.ends_with("/" + command);
}

// The daemon runs pidof(8) through popen(3). The shell either execs pidof or waits for it, and newer C
// libraries pass "--" before the command.
static bool is_pidof(const std::string& command)
{
    return command.starts_with("pidof ") || command.starts_with("sh -c pidof ") ||
           command.starts_with("sh -c -- pidof ");
}

// A process has no pid in the report in its first 10 seconds, so it is recognised by its start command. Any
// other child this old is a script or a pidof, and one of the daemon's threads stands still until that child
// ends. Unless all start commands are known, only a pidof is certain to be none of the processes.
static void judge_children(status_look_st* look)
{
    const status_report_st& report = look->report;
    const bool knows_commands = report.has_config && !report.config_cut;
    for (const status_child_st& child : look->kernel.children) {
        const bool is_process = std::any_of(report.processes.begin(), report.processes.end(),
                                            [&](const status_process_st& process) {
                                                return runs_command(child.command, process.start_command);
                                            });
        if (!is_pidof(child.command) && (is_process || !knows_commands)) {
            continue;
        }
        look->held_up.push_back(child);
        add(look, "held-up",
            "the daemon has waited " + std::to_string(child.age) + " s for '" + child.command + "' (pid " +
                std::to_string(child.pid) + ")");
    }
}

// A limit of 0 is not set. Both limits can be crossed only if the low one is above the high one; then the
// high one is reported.
static void judge_limit(status_look_st* look, const std::string& subject, const status_figure& figure,
                        const status_figure& high, const status_figure& low, std::string (*show)(int64_t))
{
    if (!figure.has_value()) {
        return;
    }
    const std::string fact = subject + " " + show(*figure);
    if (high.value_or(0) > 0 && *figure > *high) {
        add(look, "limit-crossed", fact + ", above the limit of " + show(*high));
    } else if (low.value_or(0) > 0 && *figure < *low) {
        add(look, "limit-crossed", fact + ", below the limit of " + show(*low));
    }
}

// Before the first sample the figures are zeros, which would be below any low limit. A low limit of CPU is
// never judged, because the first sample after a start gives 0.0 %.
static void judge_limits(status_look_st* look)
{
    const status_report_st& report = look->report;
    judge_limit(look, "the VM's CPU usage is", report.cpu, report.cpu_high, std::nullopt,
                status_show_percent);
    if (is_started_up(report)) {
        judge_limit(look, "the VM's memory usage is", report.memory_used, report.memory_high,
                    report.memory_low, status_show_kilobytes);
    }
    for (const status_process_st& process : report.processes) {
        if (process.state != ACTIVE) {
            continue;
        }
        judge_limit(look, in_quotes(process.name) + " has a CPU usage of", process.cpu, process.cpu_high,
                    std::nullopt, status_show_percent);
        if (process.memory_peak != 0) {  // 0: not sampled yet
            judge_limit(look, in_quotes(process.name) + " has a memory usage of", process.memory,
                        process.memory_high, process.memory_low, status_show_kilobytes);
        }
    }
}

// Returns the proof that the heartbeat has ended, or an empty text without one. The first loss that the
// daemon notices ends the heartbeat for good, and each of these signs shows a loss. No process, of known type
// or not, is started twice without a loss, and a DAEMON process not even once.
static std::string find_heartbeat_end(const status_look_st& look)
{
    for (const status_process_st& process : look.report.processes) {
        const int64_t starts = process.starts.value_or(0);
        if (process.state == TERMINATED) {
            return in_quotes(process.name) + " is terminated";
        }
        if (starts >= (process.type == DAEMON ? 1 : 2)) {
            return in_quotes(process.name) + " was lost and started again";
        }
    }
    return look.kernel.lunet == 0 ? "lunet is not running" : "";
}

static void judge_heartbeat(status_look_st* look)
{
    if (look->exchange.answer == status_answer::NO_DAEMON) {
        look->heartbeat_ended = 1;  // there is no sender, but the missing daemon is already a problem
    } else if (look->exchange.answer != status_answer::NO_RIGHT) {
        const std::string end = find_heartbeat_end(*look);
        if (!end.empty()) {
            look->heartbeat_ended = 1;
            add(look, "heartbeat-ended", "the heartbeat has ended for good: " + end);
        } else if (look->exchange.answer == status_answer::WHOLE) {
            look->heartbeat_ended = 0;
        }
    }
}

static void judge_answer(status_look_st* look)
{
    static constexpr std::array CODES = {"", "no-daemon", "no-answer", "no-right"};  // as in status_answer
    if (look->exchange.answer != status_answer::WHOLE) {
        add(look, CODES.at(static_cast<size_t>(look->exchange.answer)), look->exchange.reason);
    }
}

void status_judge(const std::vector<std::string>& allowed, status_look_st* look)
{
    judge_answer(look);
    judge_processes(look);
    judge_children(look);
    judge_limits(look);
    judge_failover(look);
    judge_heartbeat(look);
    // The worst problems come first; those of one severity keep their order.
    std::vector<status_problem_st> found;
    found.swap(look->problems);
    for (status_problem_st& problem : found) {
        if (std::find(allowed.begin(), allowed.end(), problem.code) != allowed.end()) {
            problem.severity = STATUS_OK;
        }
        look->status = std::max(look->status, problem.severity);
    }
    // Not std::stable_sort, which makes the executable 5 kB larger.
    for (int severity = STATUS_UNKNOWN; severity >= STATUS_OK; --severity) {
        std::copy_if(found.begin(), found.end(), std::back_inserter(look->problems),
                     [&](const status_problem_st& problem) { return problem.severity == severity; });
    }
}

// A whole record may still hold something other than a report.
static void read_reports(status_look_st* look)
{
    status_exchange_st& exchange = look->exchange;
    const bool has_status =
        !exchange.status.empty() && status_read_status(exchange.status, &look->report) == 0;
    const bool has_config =
        !exchange.config.empty() && status_read_config(exchange.config, &look->report) == 0;
    if (exchange.answer == status_answer::WHOLE && !(has_status && has_config)) {
        exchange.answer = status_answer::NO_ANSWER;
        exchange.reason = "the daemon's answer is not a report";
    }
}

status_look_st status_take_look(status_clock::duration timeout, const std::vector<std::string>& allowed)
{
    status_look_st look;
    status_ask(status_clock::now() + timeout, &look.exchange);
    read_reports(&look);
    status_look(look.exchange.pid, look.report, &look.kernel);
    status_judge(allowed, &look);
    return look;
}

// A daemon that samples has left its start-up, even if lines of its report are missing. The first sample may
// come seconds after the last start, so until then the starts of the processes are looked at.
bool status_has_started(const status_look_st& look)
{
    const auto& processes = look.report.processes;
    return look.exchange.answer == status_answer::WHOLE &&
           (is_started_up(look.report) ||
            std::all_of(processes.begin(), processes.end(), [](const status_process_st& process) {
                return process.starts.value_or(0) > 0 || process.type == DAEMON || process.type == SYSTEM;
            }));
}

status_figure status_is_up(const status_look_st& look)
{
    const status_answer answer = look.exchange.answer;
    return answer == status_answer::NO_RIGHT ? std::nullopt
                                             : status_figure(answer == status_answer::NO_DAEMON ? 0 : 1);
}

const char* status_severity_word(status_severity_en severity)
{
    return std::array{"OK", "WARNING", "CRITICAL", "UNKNOWN"}.at(static_cast<size_t>(severity));
}

const char* status_failover_word(const status_look_st& look)
{
    if (look.report.failover == 0) {
        return "off";
    }
    if (look.report.failover != 1 || !look.kernel.armed.has_value()) {
        return "unknown";
    }
    return look.kernel.armed == 1 ? "armed" : "not armed";
}
