// The screen for a person: the verdict and its reasons first, then the VM, then a table of the processes. On
// a terminal no line is longer than 80 columns. Elsewhere nothing is cut, because a file is searched for
// whole names.

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <iterator>
#include <numeric>

#include "status_forms.h"
#include "status_text.h"

static constexpr size_t WIDTH = 80;         // columns
static constexpr size_t SHORTEST_NAME = 4;  // columns that a name keeps

static constexpr const char* PLAIN = "\033[0m";
static constexpr const char* BOLD = "\033[1m";
static constexpr const char* DIM = "\033[2m";
static constexpr const char* RED = "\033[1;31m";
static constexpr const char* GREEN = "\033[1;32m";
static constexpr const char* YELLOW = "\033[1;33m";
static constexpr const char* CHANGED = "\033[7m";  // not a colour, so NO_COLOR leaves it

// A screen that is being made: its style, the texts of the screen before it, and its own texts.
struct canvas_st {
    status_style_st style;
    const status_shown* before;  // null: nothing is marked
    status_shown now{};
    std::string text{};
};

// In UTF-8 every byte of a character but its first is 10xxxxxx in binary, see utf-8(7).
static bool is_later_byte(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80U;
}

// Returns the width in columns: one for each byte that begins a character. Wide and combining characters are
// not known here, so a name that holds some is off by a few columns, as it is in most programs.
static size_t width_of(const std::string& text)
{
    return text.size() - static_cast<size_t>(std::count_if(text.begin(), text.end(), is_later_byte));
}

// Cuts a text that is too wide and puts an ellipsis in its last column. The loop ends only when the first
// byte of a character is gone, so it never leaves half of one.
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

// Returns true when that place showed another text before, or none. The first screen has nothing to differ
// from.
static bool has_changed(const canvas_st& canvas, const std::string& place, const std::string& text)
{
    return canvas.style.is_terminal && canvas.before != nullptr && !canvas.before->empty() &&
           std::find(canvas.before->begin(), canvas.before->end(), std::pair(place, text)) ==
               canvas.before->end();
}

// Adds a text, in colour and marked as changed as far as the style allows. The place is a name for this
// spot. It stays the same from screen to screen, although lines above it come and go.
static void put(canvas_st* canvas, const std::string& place, const std::string& text, const char* colour = "")
{
    const bool is_marked = has_changed(*canvas, place, text);
    const bool is_coloured = canvas->style.has_colour && *colour != '\0';
    canvas->now.emplace_back(place, text);
    canvas->text.append(is_coloured ? colour : "").append(is_marked ? CHANGED : "").append(text);
    canvas->text.append(is_coloured || is_marked ? PLAIN : "");
}

// Adds a text that is never marked: a label never changes, and the clock always does.
static void put_dim(canvas_st* canvas, const std::string& text)
{
    const bool is_coloured = canvas->style.has_colour;
    canvas->text.append(is_coloured ? DIM : "").append(text).append(is_coloured ? PLAIN : "");
}

// Returns the blanks from one column to another, none if the text before them has already passed it.
static std::string blanks(size_t from, size_t to)
{
    return std::string(to > from ? to - from : 0, ' ');
}

static const char* severity_colour(status_severity_en severity)
{
    return std::array{GREEN, YELLOW, RED, RED}.at(static_cast<size_t>(severity));
}

// Returns the present time in the form of the daemon's own dates, "Mon Nov 23 21:14:07 2026", so that
// short_date() can compare the two.
static std::string clock_text()
{
    const time_t now = time(nullptr);
    std::array<char, 32> text{};
    return ctime_r(&now, text.data()) == nullptr ? "" : std::string(text.data(), strcspn(text.data(), "\n"));
}

// Breaks a text into lines of at most `columns` columns, at a blank if the line has one.
static std::vector<std::string> wrap(std::string text, size_t columns)
{
    std::vector<std::string> lines;
    while (width_of(text) > columns) {
        size_t end = text.rfind(' ', columns);
        if (end == 0 || end == std::string::npos) {
            for (end = columns; is_later_byte(text[end]); --end) {  // not within a character
            }
        }
        lines.push_back(cut(text.substr(0, end), columns));
        text.erase(0, std::min(text.find_first_not_of(' ', end), text.size()));
    }
    lines.push_back(text);
    return lines;
}

// A problem may take several lines. The place of each line is its code and text, so that a problem is not
// marked when another one pushes it down.
static void put_problem(canvas_st* canvas, const status_problem_st& problem)
{
    static constexpr size_t CODE_COLUMN = 10;  // columns after which the code and the text begin
    static constexpr size_t TEXT_COLUMN = 27;
    const bool is_allowed = problem.severity == STATUS_OK;
    const std::string severity = is_allowed ? "allowed" : status_severity_word(problem.severity);
    const std::string text = status_to_plain(problem.text);
    std::string head = severity + blanks(severity.size(), CODE_COLUMN) + problem.code;
    head += blanks(head.size(), TEXT_COLUMN);
    canvas->text += "  ";
    put(canvas, head, head, is_allowed ? DIM : severity_colour(problem.severity));
    for (const std::string& line :
         wrap(text, canvas->style.is_terminal ? WIDTH - TEXT_COLUMN - 2 : text.size())) {
        canvas->text += canvas->text.ends_with('\n') ? blanks(0, TEXT_COLUMN + 2) : "";
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

// Adds one line with one fact. With the limits that a figure may have, two facts would not fit into 80
// columns.
static void put_fact(canvas_st* canvas, const std::string& label, const std::string& text,
                     const char* colour = "")
{
    static constexpr size_t LABEL_WIDTH = 11;  // columns
    put_dim(canvas, label + blanks(label.size(), LABEL_WIDTH));
    put(canvas, label, text, colour);
    canvas->text += "\n";
}

// Returns the text after a figure: ", limit 80%" for a high limit, ", at least 1 GB" for a low one, both, or
// none.
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
static constexpr size_t STATE = 2;  // the index of that column
static constexpr std::array<const char*, COLUMNS> TITLES = {"NAME", "TYPE", "STATE",  "PID",   "STARTS",
                                                            "LAST", "CPU",  "MEMORY", "ACTION"};

using row_st = std::array<std::string, COLUMNS>;
using widths_st = std::array<size_t, COLUMNS>;

// Returns "264k" instead of "264 kB": a cell is narrow.
static std::string show_size(int64_t kilobytes)
{
    std::string text = status_show_kilobytes(kilobytes);
    text.pop_back();
    return text.erase(text.size() - 2, 1);
}

// Returns a figure and its limit in few columns: "12.3%/80%", or "264k/≥1M" if the only limit is a low one.
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

// Shortens "Mon Nov 23 21:14:07 2026" to "21:14:07" if that is today, else to "Nov 23". A text of another
// length is not a date of ctime(3), and is only cut.
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

// Only the name and the state are coloured: with more colours the one red cell would not stand out.
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
        const bool is_figure = column > STATE && column + 1 < COLUMNS;  // set flush right
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

// Returns the width of each column's widest cell. If a row is too wide for a terminal, the gap between two
// columns gives way first, then the name, since each other column has a bound.
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
        widths[0] = std::min(widths[0], WIDTH - std::min(others, WIDTH - SHORTEST_NAME));
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
