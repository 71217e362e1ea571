// The metrics of --prometheus, in the text format for a textfile collector. They have no timestamps, because
// the collector refuses a file with any.

#include <algorithm>
#include <vector>

#include "halvo_private.h"
#include "status_forms.h"
#include "status_text.h"

// Returns a label's value. The format has these three escapes and takes any other UTF-8 as it is.
static std::string escape(const std::string& text)
{
    std::string escaped;
    for (const char character : status_to_utf8(text)) {
        if (character == '\n') {
            escaped += "\\n";
            continue;
        }
        if (character == '\\' || character == '"') {
            escaped += '\\';
        }
        escaped += character;
    }
    return escaped;
}

static std::string label(const char* name, const std::string& value)
{
    return std::string(name) + "=\"" + escape(value) + "\"";
}

// Returns a sample's value, empty when the figure is unknown. A factor of 1024 turns kB into bytes.
static std::string whole(const status_figure& figure, int64_t factor = 1)
{
    return figure.has_value() ? std::to_string(*figure * factor) : "";
}

static std::string ratio(const status_figure& tenths)
{
    return tenths.has_value() ? status_show_ratio(*tenths) : "";
}

struct sample_st {
    std::string labels;
    std::string value;
};

// Adds a metric: HELP and TYPE once, then its samples. A metric without any known figure is left out: an
// alert can look for an absent metric, but a zero would pass for a figure.
static void put(std::string* text, const std::string& name, const char* help,
                const std::vector<sample_st>& samples)
{
    std::string lines;
    for (const sample_st& sample : samples) {
        const std::string labels = sample.labels.empty() ? "" : "{" + sample.labels + "}";
        lines += sample.value.empty() ? "" : name + labels + " " + sample.value + "\n";
    }
    if (!lines.empty()) {
        *text += "# HELP " + name + " " + help + "\n# TYPE " + name +
                 (name.ends_with("_total") ? " counter\n" : " gauge\n") + lines;
    }
}

// Notes the text and returns how often it has come so far, this time included.
static std::ptrdiff_t count_text(const std::string& text, std::vector<std::string>* seen)
{
    seen->push_back(text);
    return std::count(seen->begin(), seen->end(), text);
}

// Lists each code once. Two processes may be lost, but the collector refuses a whole file with two equal
// samples.
static std::vector<sample_st> list_problems(const status_look_st& look)
{
    std::vector<sample_st> samples;
    std::vector<std::string> seen;
    for (const status_problem_st& problem : look.problems) {
        std::string severity = status_severity_word(problem.severity);
        std::transform(severity.begin(), severity.end(), severity.begin(), tolower);
        if (count_text(problem.code, &seen) == 1) {
            samples.push_back({label("code", problem.code) + "," + label("severity", severity), "1"});
        }
    }
    return samples;
}

static void put_vm(const status_look_st& look, std::string* text)
{
    const status_report_st& report = look.report;
    put(text, "halvo_failover_enabled", "1 when VM failover is switched on.", {{"", whole(report.failover)}});
    put(text, "halvo_watchdog_armed", "1 when the daemon holds the watchdog device.",
        {{"", whole(look.kernel.armed)}});
    put(text, "halvo_watchdog_timeout_seconds", "Timeout of the watchdog device.",
        {{"", whole(look.kernel.timeout)}});
    put(text, "halvo_heartbeat_ended",
        "1 when the heartbeat has ended for certain; 0 is no proof that it goes on.",
        {{"", whole(look.heartbeat_ended)}});
    put(text, "halvo_vm_cpu_ratio", "CPU usage of the VM over the last monitoring interval.",
        {{"", ratio(report.cpu)}});
    put(text, "halvo_vm_memory_used_bytes", "Memory of the VM in use.",
        {{"", whole(report.memory_used, 1024)}});
    put(text, "halvo_vm_memory_total_bytes", "Memory of the VM.", {{"", whole(report.memory_total, 1024)}});
}

static void put_processes(const status_report_st& report, std::string* text)
{
    std::vector<sample_st> states, starts, cpus, memories;
    std::vector<std::string> seen;
    for (const status_process_st& process : report.processes) {
        // Two processes may have one name, but not two samples: the second process is "name#2".
        const std::ptrdiff_t number = count_text(status_to_utf8(process.name), &seen);
        const std::string name =
            label("name", process.name + (number == 1 ? "" : "#" + std::to_string(number)));
        for (int64_t state = UNKNOWN; process.state.has_value() && state <= TERMINATED; ++state) {
            states.push_back(
                {name + "," + label("state", status_state_word(state)), process.state == state ? "1" : "0"});
        }
        starts.push_back({name, whole(process.starts)});
        cpus.push_back({name, ratio(process.cpu)});
        memories.push_back({name, whole(process.memory, 1024)});
    }
    put(text, "halvo_process_state", "1 for the state that the process is in.", states);
    put(text, "halvo_process_starts_total", "Starts by the daemon since its own start.", starts);
    put(text, "halvo_process_cpu_ratio", "CPU usage over the last interval, of the whole VM's.", cpus);
    put(text, "halvo_process_memory_bytes", "Data memory in use.", memories);
}

std::string status_make_metrics(const status_look_st& look)
{
    std::string text;
    put(&text, "halvo_up", "1 when a daemon is there.", {{"", whole(status_is_up(look))}});
    put(&text, "halvo_status", "The verdict: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN.",
        {{"", whole(look.status)}});
    put(&text, "halvo_problem", "1 for each problem there is, see halvo-status(8).", list_problems(look));
    // Without a daemon all that is known is the device's timeout, and the heartbeat's end, which follows
    // from halvo_up.
    if (look.exchange.answer != status_answer::NO_DAEMON) {
        put_vm(look, &text);
        put_processes(look.report, &text);
    }
    return text;
}
