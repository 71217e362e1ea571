// The line of a monitoring plugin: the verdict, the problems, and after a bar the figures that a monitoring
// system draws curves of. A figure that is not known is left out, because a zero would be a point of the
// curve.

#include <algorithm>
#include <array>
#include <cstdio>

#include "status_forms.h"
#include "status_text.h"

// In a plugin's line the first bar begins the figures, so the texts before them may hold none.
static std::string without_bars(const std::string& text)
{
    std::string plain = status_to_plain(text);
    std::replace(plain.begin(), plain.end(), '|', '/');
    return plain;
}

static std::string describe_problems(const status_look_st& look)
{
    std::string text;
    for (const status_problem_st& problem : look.problems) {
        text += (problem.severity == STATUS_OK ? "allowed: " : "") + without_bars(problem.text) + "; ";
    }
    return text;
}

// Returns the starts of all processes. Unknown as soon as those of one process are, because a smaller sum
// would look like a restart of the daemon.
static status_figure count_starts(const status_report_st& report)
{
    int64_t starts = 0;
    for (const status_process_st& process : report.processes) {
        if (!process.starts.has_value()) {
            return std::nullopt;
        }
        starts += *process.starts;
    }
    return report.monitored.has_value() ? status_figure(starts) : std::nullopt;
}

// Returns "label=value unit;warning;critical;min;max" for each known figure, without the blank. There is no
// warning limit, and the critical limit is the daemon's high limit. "c" marks a counter, from which the
// monitoring system computes a rate.
static std::string describe_figures(const status_look_st& look)
{
    const status_report_st& report = look.report;
    const status_figure starts = count_starts(report);
    std::string text;
    if (report.monitored.has_value()) {
        text += " processes=" + std::to_string(*report.monitored);
    }
    if (starts.has_value()) {
        text += " starts=" + std::to_string(*starts) + "c";
    }
    if (report.cpu.has_value()) {
        std::array<char, 64> value;
        snprintf(value.data(), value.size(), " vm_cpu=%.1f%%;;", static_cast<double>(*report.cpu) / 10);
        text += value.data();
        text += (report.cpu_high.value_or(0) > 0 ? std::to_string(*report.cpu_high / 10) : "") + ";0;100";
    }
    if (report.memory_used.has_value()) {
        text += " vm_memory=" + std::to_string(*report.memory_used * 1024) + "B";
        if (report.memory_high.value_or(0) > 0) {
            text += ";;" + std::to_string(*report.memory_high * 1024);
        }
    }
    return text.substr(std::min<size_t>(1, text.size()));  // without the first blank
}

// The problems come first, because a pager may show only the first words.
std::string status_make_line(const status_look_st& look)
{
    std::string line =
        std::string("HALVO ") + status_severity_word(look.status) + " - " + describe_problems(look);
    if (look.report.monitored.has_value()) {
        line += std::to_string(*look.report.monitored) +
                (look.report.monitored == 1 ? " process, failover " : " processes, failover ") +
                status_failover_word(look);
    } else {
        line.resize(line.size() - 2);  // without a report there is a problem, whose separator is cut off
    }
    const std::string figures = describe_figures(look);
    return line + (figures.empty() ? "" : "|" + figures) + "\n";
}
