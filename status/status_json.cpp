// The object of --json. Each key is written on every path, with null for an unknown figure, so that a reader
// can tell "not known" from "not supported by this version".

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "status_forms.h"
#include "status_text.h"

using writer = rapidjson::Writer<rapidjson::StringBuffer>;

// Writes a text, or null for an empty one, which stands for a text that is not known. JSON must be valid
// UTF-8; a name from the configuration need not be.
static void put_text(writer* json, const char* key, const std::string& text)
{
    const std::string valid = status_to_utf8(text);
    json->Key(key);
    valid.empty() ? json->Null() : json->String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
}

// Writes a figure multiplied by `factor`: 1024 turns kB into bytes.
static void put_number(writer* json, const char* key, const status_figure& figure, int64_t factor = 1)
{
    json->Key(key);
    figure.has_value() ? json->Int64(*figure * factor) : json->Null();
}

// Writes a figure, in tenths of a percent, as a ratio. It is passed as a text with fixed decimals, because
// the writer's own code for a double would make the executable larger.
static void put_ratio(writer* json, const char* key, const status_figure& figure)
{
    const std::string ratio = status_show_ratio(figure.value_or(0));
    json->Key(key);
    figure.has_value() ? json->RawValue(ratio.data(), ratio.size(), rapidjson::kNumberType) : json->Null();
}

// Writes true for a figure of 1, and false for 0.
static void put_truth(writer* json, const char* key, const status_figure& figure)
{
    json->Key(key);
    figure.has_value() ? json->Bool(*figure == 1) : json->Null();
}

static void open_object(writer* json, const char* key)
{
    json->Key(key);
    json->StartObject();
}

// The daemon reports a limit that is not set as 0, which becomes an unknown figure here.
static status_figure if_set(const status_figure& limit)
{
    return limit.value_or(0) > 0 ? limit : std::nullopt;
}

// The VM and a process have the same four limits.
template <typename Record>
static void put_limits(writer* json, const Record& record)
{
    put_ratio(json, "cpu_high_ratio", if_set(record.cpu_high));
    put_ratio(json, "cpu_low_ratio", if_set(record.cpu_low));
    put_number(json, "memory_high_bytes", if_set(record.memory_high), 1024);
    put_number(json, "memory_low_bytes", if_set(record.memory_low), 1024);
}

static void put_problems(writer* json, const status_look_st& look)
{
    json->Key("problems");
    json->StartArray();
    for (const status_problem_st& problem : look.problems) {
        json->StartObject();
        put_text(json, "severity", status_severity_word(problem.severity));
        put_text(json, "code", problem.code);
        put_text(json, "text", problem.text);
        json->EndObject();
    }
    json->EndArray();
}

static void put_daemon_and_vm(writer* json, const status_look_st& look)
{
    const status_report_st& report = look.report;
    const pid_t pid = look.exchange.pid;
    open_object(json, "daemon");
    put_truth(json, "up", status_is_up(look));
    put_number(json, "pid", pid == 0 ? std::nullopt : status_figure(pid));
    put_truth(json, "replaced", look.kernel.replaced);
    json->EndObject();
    open_object(json, "vm");
    put_ratio(json, "cpu_ratio", report.cpu);
    put_number(json, "memory_total_bytes", report.memory_total, 1024);
    put_number(json, "memory_used_bytes", report.memory_used, 1024);
    put_number(json, "memory_free_bytes", report.memory_free, 1024);
    put_limits(json, report);
    json->EndObject();
}

static void put_config(writer* json, const status_report_st& report)
{
    open_object(json, "config");
    put_number(json, "version", report.version);
    put_truth(json, "vm_failover", report.failover);
    put_number(json, "res_monit_interval_seconds", report.monitor_interval);
    put_number(json, "wd_tick_interval_seconds", report.tick_interval);
    put_number(json, "wd_timeout_seconds", report.watchdog_timeout);
    json->EndObject();
}

static void put_kernel(writer* json, const status_look_st& look)
{
    open_object(json, "watchdog");
    put_truth(json, "armed", look.kernel.armed);
    put_text(json, "identity", look.kernel.identity);
    put_number(json, "timeout_seconds", look.kernel.timeout);
    put_number(json, "bootstatus", look.kernel.bootstatus);
    json->EndObject();
    open_object(json, "heartbeat");
    put_truth(json, "ended", look.heartbeat_ended);
    json->EndObject();
    json->Key("held_up");
    json->StartArray();
    for (const status_child_st& child : look.held_up) {
        json->StartObject();
        put_number(json, "pid", child.pid);
        put_text(json, "command", child.command);
        put_number(json, "age_seconds", child.age);
        json->EndObject();
    }
    json->EndArray();
}

static void put_process(writer* json, const status_process_st& process)
{
    json->StartObject();
    put_text(json, "name", process.name);
    put_text(json, "type", status_type_word(process.type));
    put_text(json, "action", status_action_word(process.action));
    put_text(json, "state", status_state_word(process.state));
    put_number(json, "pid", process.pid);
    put_number(json, "starts", process.starts);
    put_text(json, "last_start", process.last_start);
    put_ratio(json, "cpu_ratio", process.cpu);
    put_number(json, "memory_bytes", process.memory, 1024);
    put_number(json, "memory_peak_bytes", process.memory_peak, 1024);
    put_limits(json, process);
    json->EndObject();
}

std::string status_make_json(const status_look_st& look)
{
    rapidjson::StringBuffer buffer;
    writer json(buffer);
    json.StartObject();
    put_number(&json, "schema", 1);  // raised when the meaning of a field changes; a new field leaves it
    put_text(&json, "status", status_severity_word(look.status));
    put_number(&json, "code", look.status);
    put_problems(&json, look);
    put_daemon_and_vm(&json, look);
    put_config(&json, look.report);
    put_kernel(&json, look);
    json.Key("processes");
    json.StartArray();
    for (const status_process_st& process : look.report.processes) {
        put_process(&json, process);
    }
    json.EndArray();
    json.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
}
