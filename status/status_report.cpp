#include "status_report.h"

#include <array>
#include <charconv>
#include <cstring>
#include <span>

#include "halvo_private.h"  // the codes of types, states and actions
#include "status_exchange.h"

// The form of a line, with four symbols. '#' is a whole number. '@' is a number with one decimal, and '~' a
// whole number; both are stored in tenths. '*' is the rest of the line. Any other character stands for
// itself.
template <typename Record>
struct line_st {
    const char* form;
    status_figure Record::*first = nullptr;   // takes the first number, or `value` if the form has none
    status_figure Record::*second = nullptr;  // takes the second number
    int64_t value = 0;
    std::string Record::*text = nullptr;  // takes the rest
};

using report = status_report_st;
using process = status_process_st;

// The lines of both reports, in the daemon's words. A form without a member belongs to a line that is not
// used here but known: a line in none of the forms proves that the report is damaged.

static constexpr auto status_lines = std::to_array<line_st<report>>({
    {"\tProcess manager pid: #", &report::pid},
    {"\tCurrently monitored processes: #", &report::monitored},
    {"\tVM CPU kernel usage: @%"},
    {"\tVM CPU user usage: @%"},
    {"\tVM CPU total(kernel+user) usage: @%", &report::cpu},
    {"\tVM total memory: # kB", &report::memory_total},
    {"\tVM used memory: # kB", &report::memory_used},
    {"\tVM free memory: # kB", &report::memory_free},
});

static constexpr auto config_lines = std::to_array<line_st<report>>({
    {"\tConfig file version no: #", &report::version},
    {"\tResource monitoring interval: # sec", &report::monitor_interval},
    {"\tWatchdog tickling interval: # sec", &report::tick_interval},
    {"\tWatchdog timeout: # sec", &report::watchdog_timeout},
    {"\tVM failover enabled", &report::failover, nullptr, 1},
    {"\tVM failover disabled; For debug purpose", &report::failover, nullptr, 0},
    {"\tDebug prints enabled"},
    {"\tDebug prints disabled"},
    {"\tVM virtual data memory high_water/low_water: # kB/# kB", &report::memory_high, &report::memory_low},
    {"\tVM CPU high_water/low_water: ~%/~%", &report::cpu_high, &report::cpu_low},
});

static constexpr auto process_status_lines = std::to_array<line_st<process>>({
    {"\tProcess state: Process not started", &process::state, nullptr, UNKNOWN},
    {"\tProcess state: Initializing", &process::state, nullptr, INIT},
    {"\tProcess state: Active", &process::state, nullptr, ACTIVE},
    {"\tProcess state: Terminated", &process::state, nullptr, TERMINATED},
    {"\tProcess pid: #", &process::pid},
    {"\tProcess CPU kernel usage: @%"},
    {"\tProcess CPU user usage: @%"},
    {"\tProcess CPU total(kernel+user) usage: @%", &process::cpu},
    {"\tProcess virtual data memory used: # kB", &process::memory},
    {"\tProcess virtual data peak memory used: # kB", &process::memory_peak},
    {"\tProcess is spawned by system", &process::starts, nullptr, 0},
    {"\tNo: of times spawned by process manager: #", &process::starts},
    {"\tLast spawn time: *", nullptr, nullptr, 0, &process::last_start},
    {"\tProcess spawn history:"},
    {"\t#: *"},
});

static constexpr auto process_config_lines = std::to_array<line_st<process>>({
    {"\tProcess name: *", nullptr, nullptr, 0, &process::name},
    {"\tProcess type: Normal process", &process::type, nullptr, NORMAL},
    {"\tProcess type: Daemon process", &process::type, nullptr, DAEMON},
    {"\tProcess type: System spawned process", &process::type, nullptr, SYSTEM},
    {"\tPre-start command: *"},
    {"\tStart command filename: *"},
    {"\tStart command: *", nullptr, nullptr, 0, &process::start_command},
    {"\tPost-start command: *"},
    {"\tStop command: *"},
    {"\tRecovery action: No operation", &process::action, nullptr, NOP},
    {"\tRecovery action: Process restart", &process::action, nullptr, PROC_RESTART},
    {"\tRecovery action: VM Failover", &process::action, nullptr, VM_FAILOVER},
    {"\tProcess CPU high_water/low_water: ~%/~%", &process::cpu_high, &process::cpu_low},
    {"\tCPU grace period: # times crossing the limit"},
    {"\tProcess virtual data memory high_water/low_water: # kB/# kB", &process::memory_high,
     &process::memory_low},
    {"\tMemory grace period: # times crossing the limit"},
    {"\tRecurring failure: Max [#] process restart allowed in [#] sec"},
    {"\tRecurring failure management is not enabled"},
});

// The longest header of a block is "Process '...': Status:" with a name of 50 characters, 70 bytes. Beyond
// the last certain line a header may have been dropped, so a line there may belong to another process.
static constexpr size_t LONGEST_HEADER = 80;
static constexpr size_t LAST_CERTAIN_LINE = STATUS_REPORT_SIZE - LONGEST_HEADER;

// A report beyond this length had no room for a line of the longest kind, so one may have been dropped.
static constexpr size_t LONGEST_WHOLE_REPORT = STATUS_REPORT_SIZE - STATUS_LINE_SIZE;

// Takes the number of a form's symbol off the front of the line. Returns false when the line has no such
// number there. The bounds are those of the daemon's own types, so that no sum or product of two figures can
// overflow later.
static bool take_number(std::string_view* line, char symbol, int64_t* value)
{
    const char* end = line->data() + line->size();
    auto result = std::from_chars(line->data(), end, *value);
    if (result.ec != std::errc() || *value > UINT32_MAX || *value < INT32_MIN) {
        return false;
    }
    *value *= symbol == '#' ? 1 : 10;
    if (symbol == '@') {
        if (end - result.ptr < 2 || *result.ptr != '.' || result.ptr[1] < '0' || result.ptr[1] > '9') {
            return false;
        }
        *value += result.ptr[1] - '0';
        result.ptr += 2;
    }
    line->remove_prefix(static_cast<size_t>(result.ptr - line->data()));
    return true;
}

// The parts of a line that a form leaves open.
struct match_st {
    std::array<int64_t, 2> numbers{};
    size_t count = 0;
    std::string_view rest;
};

// Returns true when the whole line is in the form. A form has at most two numbers, and a rest only at its
// end.
static bool match_line(const char* form, std::string_view line, match_st* match)
{
    for (; *form != '\0'; ++form) {
        if (*form == '*') {
            match->rest = line;
            return true;
        }
        if (strchr("#@~", *form) != nullptr) {
            if (!take_number(&line, *form, &match->numbers.at(match->count++))) {
                return false;
            }
        } else if (line.empty() || line.front() != *form) {
            return false;
        } else {
            line.remove_prefix(1);
        }
    }
    return line.empty();
}

// Stores a line's figures. Returns 0, or -1 for a line that is in none of the forms.
template <typename Record>
static int read_line(std::span<const line_st<Record>> forms, std::string_view line, Record* record)
{
    for (const line_st<Record>& form : forms) {
        match_st match;
        if (!match_line(form.form, line, &match)) {
            continue;
        }
        if (form.first != nullptr) {
            record->*form.first = match.count == 0 ? form.value : match.numbers[0];
        }
        if (form.second != nullptr) {
            record->*form.second = match.numbers[1];
        }
        if (form.text != nullptr) {
            (record->*form.text).assign(match.rest);
        }
        return 0;
    }
    return -1;
}

// The differences between the two reports. A block of the status has the process's name in its header; a
// block of the configuration has it in its first line.
struct grammar_st {
    std::string_view first_line, header_begin, header_end;
    bool header_has_name;
    std::span<const line_st<report>> global_lines;
    std::span<const line_st<process>> process_lines;
};

static constexpr grammar_st status_grammar = {"Halvo: Status:\n", "Process '",         "': Status:", true,
                                              status_lines,       process_status_lines};
static constexpr grammar_st config_grammar = {
    "Global: Config details:\n", "Process[", "]: Config details:", false, config_lines, process_config_lines};

// Reads a text into the record's global figures and a list of blocks, in the text's order. Returns true when
// lines of the text are missing or damaged.
static bool read_blocks(const grammar_st& grammar, std::string_view text, report* into,
                        std::vector<process>* blocks)
{
    // The daemon drops only whole lines, so a text that ends within a line is damaged.
    bool cut = text.size() > LONGEST_WHOLE_REPORT || text.back() != '\n';
    for (size_t at = grammar.first_line.size(); at < text.size();) {
        const std::string_view line = text.substr(at, text.find('\n', at) - at);
        const bool is_certain = at < LAST_CERTAIN_LINE;
        at += line.size() + 1;
        if (line.starts_with(grammar.header_begin) && line.ends_with(grammar.header_end) &&
            line.size() > grammar.header_begin.size() + grammar.header_end.size()) {
            process& block = blocks->emplace_back();
            if (grammar.header_has_name) {
                block.name =
                    line.substr(grammar.header_begin.size(),
                                line.size() - grammar.header_begin.size() - grammar.header_end.size());
            }
        } else if (is_certain) {
            cut |= (blocks->empty() ? read_line(grammar.global_lines, line, into)
                                    : read_line(grammar.process_lines, line, &blocks->back())) != 0;
        }
    }
    return cut;
}

// Copies the members that only the configuration has. The status has filled in the others.
static void merge_config(const process& block, process* known)
{
    known->type = block.type;
    known->action = block.action;
    known->start_command = block.start_command;
    known->cpu_high = block.cpu_high;
    known->cpu_low = block.cpu_low;
    known->memory_high = block.memory_high;
    known->memory_low = block.memory_low;
}

// The number of blocks is compared with the daemon's own count, because a header that was dropped leaves no
// other trace.
int status_read_status(std::string_view text, status_report_st* into)
{
    if (!text.starts_with(status_grammar.first_line)) {
        return -1;
    }
    std::vector<process>& blocks = into->processes;
    into->status_cut = read_blocks(status_grammar, text, into, &blocks) ||
                       into->monitored != static_cast<int64_t>(blocks.size());
    for (process& block : blocks) {
        into->status_cut |= !block.state.has_value();
        if (block.state == UNKNOWN) {
            block.starts = 0;  // the daemon reports nothing else about such a process
        }
    }
    return 0;
}

int status_read_config(std::string_view text, status_report_st* into)
{
    if (!text.starts_with(config_grammar.first_line)) {
        return -1;
    }
    std::vector<process> blocks;
    into->has_config = true;
    into->config_cut = read_blocks(config_grammar, text, into, &blocks) ||
                       static_cast<int64_t>(blocks.size()) < into->monitored.value_or(0);
    // Blocks are matched by name: a block that is missing in one report would otherwise shift every process
    // after it.
    std::vector<bool> is_merged(into->processes.size());
    for (const process& block : blocks) {
        size_t at = 0;  // of several processes with one name, the first is the first in both reports
        while (at < is_merged.size() && (is_merged[at] || into->processes[at].name != block.name)) {
            ++at;
        }
        if (block.name.empty()) {
            into->config_cut = true;
        } else if (at < is_merged.size()) {
            is_merged[at] = true;
            merge_config(block, &into->processes[at]);
        } else {
            into->processes.push_back(block);
        }
    }
    return 0;
}

// Returns the word of a figure, counted from the lowest one. The figures come only from the tables above, so
// each has a word.
static const char* find_word(const status_figure& figure, int64_t lowest,
                             std::initializer_list<const char*> words)
{
    return figure.has_value() ? *(words.begin() + (*figure - lowest)) : "";
}

const char* status_type_word(const status_figure& type)
{
    return find_word(type, NORMAL, {"normal", "daemon", "system"});
}

const char* status_action_word(const status_figure& action)
{
    return find_word(action, NOP, {"none", "restart", "failover"});
}

const char* status_state_word(const status_figure& state)
{
    return find_word(state, UNKNOWN, {"unknown", "initializing", "active", "terminated"});
}
