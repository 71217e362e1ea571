// halvo-status: reads the command line, looks at the daemon once or again and again, and writes out each
// look.
//
// The exit status is the verdict in every form, so that a script can ignore the text. A wrong command line
// and an output that cannot be written end with 3: a monitoring system must not read either as a verdict on
// the daemon. Single-threaded.

#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "status_forms.h"
#include "status_output.h"

static constexpr auto REDRAW = std::chrono::seconds(2);
static constexpr auto ASK_AGAIN = std::chrono::milliseconds(50);  // while waiting for a start
static constexpr double LONGEST_TIME = 1000000;                   // the clock can hold 9e9 seconds

enum option_en : int { SCREEN, CHECK, JSON, PROMETHEUS, WATCH, OUTPUT, ALLOW, TIMEOUT, WAIT, HELP, VERSION };

static constexpr option long_options[] = {{"check", no_argument, nullptr, CHECK},
                                          {"json", no_argument, nullptr, JSON},
                                          {"prometheus", no_argument, nullptr, PROMETHEUS},
                                          {"watch", no_argument, nullptr, WATCH},
                                          {"output", required_argument, nullptr, OUTPUT},
                                          {"allow", required_argument, nullptr, ALLOW},
                                          {"timeout", required_argument, nullptr, TIMEOUT},
                                          {"wait", required_argument, nullptr, WAIT},
                                          {"help", no_argument, nullptr, HELP},
                                          {"version", no_argument, nullptr, VERSION},
                                          {nullptr, 0, nullptr, 0}};

struct command_st {
    option_en form = SCREEN;
    std::string output;  // empty: standard output
    std::vector<std::string> allowed;
    double timeout = 5;  // seconds
    double wait = 0;     // seconds, 0 = do not wait
};

static void print_help(FILE* stream)
{
    fputs(
        "Usage: halvo-status [--check | --json | --prometheus | --watch] [--output FILE]\n"
        "                    [--allow CODE[,CODE]...] [--timeout S]\n"
        "       halvo-status --wait S [--timeout S]\n"
        "       halvo-status --help | --version\n"
        "Shows the state of halvo, on one screen unless another form is asked for:\n"
        " --check        one line of a monitoring plugin\n"
        " --json         one object of JSON\n"
        " --prometheus   metrics\n"
        " --watch        draw the screen every 2 seconds until Ctrl-C\n"
        " --output FILE  write to a new file, renamed to FILE when it is complete\n"
        " --allow CODES  count these problems as OK\n"
        " --timeout S    wait at most S seconds for an answer, 5 by default\n"
        " --wait S       return when halvo answers and has started every NORMAL process, or after S seconds\n"
        "Exit status: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN or wrong usage\n",
        stream);
}

// Ends the program with a message, the usage and status 3.
[[noreturn]] static void refuse(const std::string& why)
{
    fprintf(stderr, "halvo-status: %s\n", why.c_str());
    print_help(stderr);
    exit(STATUS_UNKNOWN);
}

// Returns the text's number of seconds, which may have a fraction. strtod(3) also takes "inf" and "nan",
// with which no clock can count.
static double to_seconds(const char* name, const char* text)
{
    char* end = nullptr;
    const double seconds = strtod(text, &end);
    if (end == text || *end != '\0' || !std::isfinite(seconds) || seconds <= 0 || seconds > LONGEST_TIME) {
        refuse(std::string("--") + name + " wants a number of seconds above 0, at most 1000000, not '" +
               text + "'");
    }
    return seconds;
}

// Adds the codes of a list with commas between. An empty code is refused like an unknown one: a list such as
// "replaced," may lack the code that the operator meant.
static void allow(const std::string& list, std::vector<std::string>* allowed)
{
    for (size_t start = 0, comma = 0; comma != std::string::npos; start = comma + 1) {
        comma = list.find(',', start);
        allowed->push_back(list.substr(start, comma - start));
        if (!status_is_code(allowed->back())) {
            refuse("'" + allowed->back() + "' is not the code of a problem that can be allowed");
        }
    }
}

// Naming the same form twice is harmless; two different forms contradict each other.
static void set_form(command_st* command, option_en form)
{
    if (command->form != SCREEN && command->form != form) {
        refuse("only one form can be asked for");
    }
    command->form = form;
}

static void take_option(int option, command_st* command)
{
    switch (option) {
        case CHECK:
        case JSON:
        case PROMETHEUS:
        case WATCH:
            set_form(command, static_cast<option_en>(option));
            break;
        case OUTPUT:
            command->output = optarg;
            break;
        case ALLOW:
            allow(optarg, &command->allowed);
            break;
        case TIMEOUT:
            command->timeout = to_seconds("timeout", optarg);
            break;
        case WAIT:
            command->wait = to_seconds("wait", optarg);
            break;
        case HELP:
            print_help(stdout);
            exit(STATUS_OK);
        case VERSION:
            puts("halvo-status " HALVO_VERSION);
            exit(STATUS_OK);
        default:
            exit((print_help(stderr), STATUS_UNKNOWN));  // getopt has said why
    }
}

// Checks the combinations only after all options are read, so that their order does not matter.
static command_st parse_options(int argc, char** argv)
{
    command_st command;
    for (int option = 0; (option = getopt_long(argc, argv, "", long_options, nullptr)) != -1;) {
        take_option(option, &command);
    }
    if (optind < argc) {
        refuse(std::string("'") + argv[optind] + "' is not an option");
    }
    if (command.form == WATCH && !command.output.empty()) {
        refuse("--watch draws on a terminal and takes no --output");
    }
    if (command.wait > 0 && (command.form != SCREEN || !command.output.empty())) {
        refuse("--wait shows nothing, so it takes neither a form nor --output");
    }
    return command;
}

static status_clock::duration to_duration(double seconds)
{
    return std::chrono::duration_cast<status_clock::duration>(std::chrono::duration<double>(seconds));
}

// The text of one look in the form asked for. --watch draws its own screens and never comes here.
static std::string make_text(const command_st& command, const status_look_st& look)
{
    switch (command.form) {
        case CHECK:
            return status_make_line(look);
        case JSON:
            return status_make_json(look);
        case PROMETHEUS:
            return status_make_metrics(look);
        default:
            return status_make_screen(look, command.output.empty() ? status_find_style() : status_style_st{},
                                      nullptr);
    }
}

// Returns the exit status: the verdict, or 3 when the text could not be written.
static int show(const command_st& command)
{
    const status_look_st look = status_take_look(to_duration(command.timeout), command.allowed);
    const std::string text = make_text(command, look);
    const int result = command.output.empty() ? status_print(text) : status_write_file(command.output, text);
    return result == 0 ? look.status : STATUS_UNKNOWN;
}

// Goes on until a signal ends the program, see status_take_output(). Returns only when the output is gone.
static int watch(const command_st& command)
{
    const status_style_st style = status_find_style();
    status_shown shown;
    status_take_output(style.is_terminal);
    while (true) {
        const status_look_st look = status_take_look(to_duration(command.timeout), command.allowed);
        const std::string screen = status_make_screen(look, style, &shown);
        if ((style.is_terminal ? status_draw(screen) : status_print(screen + "\n")) != 0) {
            return STATUS_UNKNOWN;  // the reader is gone
        }
        std::this_thread::sleep_for(REDRAW);
    }
}

// Asks again and again, because the daemon announces its start to no other program. A look gets at most the
// rest of the time, so that a daemon that hangs cannot stretch the wait.
static int wait_for_start(const command_st& command)
{
    const auto deadline = status_clock::now() + to_duration(command.wait);
    std::string reason = "halvo did not answer in time";
    for (auto left = to_duration(command.wait); left.count() > 0; left = deadline - status_clock::now()) {
        const status_look_st look =
            status_take_look(std::min(left, to_duration(command.timeout)), command.allowed);
        if (status_has_started(look)) {
            return STATUS_OK;
        }
        // Printed if this look turns out to be the last one.
        reason = look.exchange.answer == status_answer::WHOLE
                     ? "halvo has not started every NORMAL process in time"
                     : look.exchange.reason;
        std::this_thread::sleep_for(
            std::min<status_clock::duration>(ASK_AGAIN, deadline - status_clock::now()));
    }
    fprintf(stderr, "halvo-status: %s\n", reason.c_str());
    return STATUS_CRITICAL;
}

int main(int argc, char** argv)
{
    const command_st command = parse_options(argc, argv);
    if (command.wait > 0) {
        return wait_for_start(command);
    }
    return command.form == WATCH ? watch(command) : show(command);
}
