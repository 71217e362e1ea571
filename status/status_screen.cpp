// The screen for a person: the verdict and its reasons first, then the VM, then a table of the processes. On
// a terminal no line is longer than 80 columns; elsewhere nothing is cut, since a file can be searched.

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <iterator>
#include <numeric>

#include "status_forms.h"
#include "status_text.h"

static constexpr size_t WIDTH = 80;    // columns
static constexpr size_t SHORTEST = 4;  // columns that a name keeps

static constexpr const char* PLAIN = "\033[0m";
static constexpr const char* BOLD = "\033[1m";
static constexpr const char* DIM = "\033[2m";
static constexpr const char* RED = "\033[1;31m";
static constexpr const char* GREEN = "\033[1;32m";
static constexpr const char* YELLOW = "\033[1;33m";
static constexpr const char* CHANGED = "\033[7m";  // not a colour: it is left with NO_COLOR

// One screen in the making: its style, the texts of the screen before, and its own.
struct canvas_st {
    status_style_st style;
    const status_shown* before;  // null: nothing is marked
    status_shown now{};
    std::string text{};
};

static bool is_later_byte(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80U;
}

// Columns: every byte but the later ones of a character. Wide and combining characters are not known here; a
// name with some is off by a few columns, as it is in most programs.
static size_t width_of(const std::string& text)
{
    return text.size() - static_cast<size_t>(std::count_if(text.begin(), text.end(), is_later_byte));
}

// Cuts a text that is too wide, with an ellipsis in its last column. The width falls only with the first byte
// of a character, so that no half of one is left.
static std::string cut(const std::string& text, size_t columns)
{
    if (width_of(text) <= columns) {
        return text;
    }
    std::string shorter = text;
    while (width_of(shorter) >= columns) {
        shorter.pop_back();
    }
    return shorter + "…";
}

// Whether that place showed something else before, or nothing. The first screen has nothing to differ from.
static bool has_changed(const canvas_st& canvas, const std::string& place, const std::string& text)
{
    return canvas.style.is_terminal && canvas.before != nullptr && !canvas.before->empty() &&
           std::find(canvas.before->begin(), canvas.before->end(), std::pair(place, text)) ==
               canvas.before->end();
}

// Adds a text, in colour and marked as changed where the style has that. The place is a name for this spot
// that stays the same from screen to screen, though lines above it come and go.
static void put(canvas_st* canvas, const std::string& place, const std::string& text, const char* colour = "")
{
    const bool is_marked = has_changed(*canvas, place, text);
    const bool is_coloured = canvas->style.has_colour && *colour != '\0';
    canvas->now.emplace_back(place, text);
    canvas->text.append(is_coloured ? colour : "").append(is_marked ? CHANGED : "").append(text);
    canvas->text.append(is_coloured || is_marked ? PLAIN : "");
}

// Adds a text that is never marked: labels are always the same, and the clock never is.
static void put_dim(canvas_st* canvas, const std::string& text)
{
    const bool is_coloured = canvas->style.has_colour;
    canvas->text.append(is_coloured ? DIM : "").append(text).append(is_coloured ? PLAIN : "");
}

static std::string blanks(size_t from, size_t to)
{
    return std::string(to > from ? to - from : 0, ' ');
}

static const char* severity_colour(status_severity_en severity)
{
    return std::array{GREEN, YELLOW, RED, RED}.at(static_cast<size_t>(severity));
}

// Now, in the form of the daemon's own dates: "Mon Nov 23 21:14:07 2026".
static std::string clock_text()
{
    const time_t now = time(nullptr);
    std::array<char, 32> text{};
    return ctime_r(&now, text.data()) == nullptr ? "" : std::string(text.data(), strcspn(text.data(), "\n"));
}

// A text in lines of so many columns at most, broken at blanks where there are any.
static std::vector<std::string> wrap(std::string text, size_t columns)
{
    std::vector<std::string> lines;
    while (width_of(text) > columns) {
        size_t end = text.rfind(' ', columns);
        if (end == 0 || end == std::string::npos) {
            for (end = columns; is_later_byte(text[end]); --end) {  // no half of a character
            }
        }
        lines.push_back(cut(text.substr(0, end), columns));
        text.erase(0, std::min(text.find_first_not_of(' ', end), text.size()));
    }
    lines.push_back(text);
    return lines;
}

// A problem may take several lines. The place of each is its code and text: the same problem is not marked
// when another one pushes it down.
static void put_problem(canvas_st* canvas, const status_problem_st& problem)
{
    static constexpr size_t CODE = 10;  // columns after which the code and the text begin
    static constexpr size_t TEXT = 27;
    const bool is_allowed = problem.severity == STATUS_OK;
    const std::string severity = is_allowed ? "allowed" : status_severity_word(problem.severity);
    const std::string text = status_to_plain(problem.text);
    std::string head = severity + blanks(severity.size(), CODE) + problem.code;
    head += blanks(head.size(), TEXT);
    canvas->text += "  ";
    put(canvas, head, head, is_allowed ? DIM : severity_colour(problem.severity));
    for (const std::string& line : wrap(text, canvas->style.is_terminal ? WIDTH - TEXT - 2 : text.size())) {
        canvas->text += canvas->text.ends_with('\n') ? blanks(0, TEXT + 2) : "";
        put(canvas, head + line, line);
        canvas->text += "\n";
    }
}

static void put_verdict(canvas_st* canvas, const status_look_st& look)
{
    const std::string verdict = std::string("HALVO ") + status_severity_word(look.status);
    const std::string when = clock_text();
    std::string facts = look.exchange.pid == 0 ? "" : "   daemon " + std::to_string(look.exchange.pid);
    if (look.report.version.has_value()) {
        facts += ", configuration " + std::to_string(*look.report.version);
    }
    put(canvas, "verdict", verdict, severity_colour(look.status));
    canvas->text += facts + blanks(verdict.size() + facts.size(), WIDTH - when.size());
    put_dim(canvas, when);
    canvas->text += "\n";
    for (const status_problem_st& problem : look.problems) {
        put_problem(canvas, problem);
    }
    canvas->text += "\n";
}

// One line with one fact: two would not fit in 80 columns beside the limits that a figure may have.
static void put_fact(canvas_st* canvas, const std::string& label, const std::string& text,
                     const char* colour = "")
{
    static constexpr size_t LABEL = 11;  // columns
    put_dim(canvas, label + blanks(label.size(), LABEL));
    put(canvas, label, text, colour);
    canvas->text += "\n";
}

// ", limit 80%" after a figure, ", at least 1 GB" for one that must not fall below its limit.
static std::string describe_limits(const status_figure& high, const status_figure& low,
                                   std::string (*show)(int64_t))
{
    const std::string text = high.value_or(0) > 0 ? ", limit " + show(*high) : "";
    return text + (low.value_or(0) > 0 ? ", at least " + show(*low) : "");
}

static void put_vm(canvas_st* canvas, const status_look_st& look)
{
    const status_report_st& report = look.report;
    const status_figure& device = look.kernel.timeout;
    const std::string failover = status_failover_word(look);
    const char* heartbeat = !look.heartbeat_ended.has_value() ? "unknown"
                            : look.heartbeat_ended == 1       ? "ended for good"
                                                              : "no sign of an end";
    put_fact(canvas, "failover",
             failover + (device.has_value() ? ", device " + std::to_string(*device) + " s" : ""),
             failover == "armed" ? GREEN : (failover == "not armed" ? RED : YELLOW));
    put_fact(canvas, "heartbeat", heartbeat, look.heartbeat_ended == 1 ? RED : "");
    put_fact(canvas, "VM CPU",
             report.cpu.has_value()
                 ? status_show_percent(*report.cpu) +
                       describe_limits(report.cpu_high, report.cpu_low, status_show_percent)
                 : "unknown");
    put_fact(canvas, "VM memory",
             report.memory_used.has_value() && report.memory_total.has_value()
                 ? status_show_kilobytes(*report.memory_used) + " of " +
                       status_show_kilobytes(*report.memory_total) +
                       describe_limits(report.memory_high, report.memory_low, status_show_kilobytes)
                 : "unknown");
}

static constexpr size_t COLUMNS = 9;
static constexpr size_t STATE = 2;  // the column
static constexpr std::array<const char*, COLUMNS> TITLES = {"NAME", "TYPE", "STATE",  "PID",   "STARTS",
                                                            "LAST", "CPU",  "MEMORY", "ACTION"};

using row_st = std::array<std::string, COLUMNS>;
using widths_st = std::array<size_t, COLUMNS>;

// "264k" instead of "264 kB".
static std::string show_size(int64_t kilobytes)
{
    std::string text = status_show_kilobytes(kilobytes);
    text.pop_back();
    return text.erase(text.size() - 2, 1);
}

// A figure and its limit in few columns: "12.3%/80%", or "264k/≥1M" where the only limit is a low one.
static std::string beside_limit(const status_figure& figure, const status_figure& high,
                                const status_figure& low, std::string (*show)(int64_t))
{
    if (!figure.has_value()) {
        return "-";
    }
    if (high.value_or(0) > 0) {
        return show(*figure) + "/" + show(*high);
    }
    return show(*figure) + (low.value_or(0) > 0 ? "/≥" + show(*low) : "");
}

// "Mon Nov 23 21:14:07 2026" becomes the time of today, or the day and month.
static std::string short_date(const std::string& date, const std::string& today)
{
    if (date.size() != 24 || today.size() != 24) {
        return date.empty() ? "-" : date.substr(0, 8);
    }
    const bool is_today = date.substr(0, 10) == today.substr(0, 10) && date.substr(20) == today.substr(20);
    return is_today ? date.substr(11, 8) : date.substr(4, 6);
}

static std::string word_or_dash(const std::string& word)
{
    return word.empty() ? "-" : word;
}

static std::string number_or_dash(const status_figure& figure)
{
    return figure.has_value() ? std::to_string(*figure) : "-";
}

static row_st make_row(const status_process_st& process, const std::string& today)
{
    return {status_to_plain(process.name),
            word_or_dash(status_type_word(process.type)),
            word_or_dash(status_state_word(process.state)),
            number_or_dash(process.pid),
            number_or_dash(process.starts),
            status_to_plain(short_date(process.last_start, today)),
            beside_limit(process.cpu, process.cpu_high, process.cpu_low, status_show_percent),
            beside_limit(process.memory, process.memory_high, process.memory_low, show_size),
            word_or_dash(status_action_word(process.action))};
}

// Only the name and the state have a colour: more of them would hide the one that is red.
static const char* cell_colour(size_t column, const std::string& text)
{
    if (text == TITLES.at(column)) {
        return DIM;
    }
    if (column != STATE) {
        return column == 0 ? BOLD : "";
    }
    return text == "active" ? GREEN : (text == "terminated" ? RED : YELLOW);
}

static void put_row(canvas_st* canvas, const row_st& row, const widths_st& widths, size_t gap)
{
    for (size_t column = 0; column < COLUMNS; ++column) {
        const bool is_figure = column > STATE && column + 1 < COLUMNS;  // on the right of its column
        const std::string text =
            canvas->style.is_terminal ? cut(row.at(column), widths.at(column)) : row.at(column);
        const std::string rest = blanks(width_of(text), widths.at(column));
        canvas->text += is_figure ? rest : "";
        put(canvas, row[0] + "/" + TITLES.at(column), text, cell_colour(column, text));
        if (column + 1 < COLUMNS) {
            canvas->text += (is_figure ? "" : rest) + std::string(gap, ' ');
        }
    }
    canvas->text += "\n";
}

// The widest cell of each column. On a terminal the gap between two columns gives way first, then the name:
// each other column has a bound.
static widths_st find_widths(const std::vector<row_st>& rows, bool is_terminal, size_t* gap)
{
    widths_st widths{};
    for (const row_st& row : rows) {
        for (size_t column = 0; column < COLUMNS; ++column) {
            widths.at(column) = std::max(widths.at(column), width_of(row.at(column)));
        }
    }
    const size_t cells = std::accumulate(widths.begin(), widths.end(), size_t{0});
    *gap = !is_terminal || cells + 2 * (COLUMNS - 1) <= WIDTH ? 2 : 1;
    if (is_terminal) {
        const size_t others = cells - widths[0] + *gap * (COLUMNS - 1);
        widths[0] = std::min(widths[0], WIDTH - std::min(others, WIDTH - SHORTEST));
    }
    return widths;
}

static void put_processes(canvas_st* canvas, const status_report_st& report)
{
    const std::string today = clock_text();
    std::vector<row_st> rows(1);
    size_t gap = 0;
    std::copy(TITLES.begin(), TITLES.end(), rows[0].begin());
    std::transform(report.processes.begin(), report.processes.end(), std::back_inserter(rows),
                   [&](const status_process_st& process) { return make_row(process, today); });
    const widths_st widths = find_widths(rows, canvas->style.is_terminal, &gap);
    canvas->text += "\n";
    for (const row_st& row : rows) {
        put_row(canvas, row, widths, gap);
    }
}

std::string status_make_screen(const status_look_st& look, const status_style_st& style, status_shown* shown)
{
    canvas_st canvas = {style, shown};
    put_verdict(&canvas, look);
    put_vm(&canvas, look);
    if (!look.report.processes.empty()) {
        put_processes(&canvas, look.report);
    }
    if (shown != nullptr) {
        *shown = canvas.now;
    }
    return canvas.text;
}
