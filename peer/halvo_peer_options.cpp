#include "halvo_peer_options.h"

#include <arpa/inet.h>
#include <getopt.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>

static constexpr int64_t SECOND = 1000 * HALVO_PEER_MS;

static constexpr const char* USAGE =
    "usage: halvo-peer [--from ADDRESS] [--listen ADDRESS] [--lost MS] [--back COUNT] [--textfile FILE]\n"
    "                  [--for SECONDS] [COMMAND [ARG]...]\n"
    "       halvo-peer --help | --version\n";

static constexpr const char* HELP =
    "Hears the other VM's heartbeat on UDP port 54321. Lost is not dead: see halvo-peer(8).\n"
    "  --from ADDRESS    believe this sender only\n"
    "  --listen ADDRESS  accept only datagrams to this address of this VM\n"
    "  --lost MS         lost after this many milliseconds of silence, 100 to 3600000 (500)\n"
    "  --back COUNT      up after this many heartbeats without a gap, 1 to 1000000 (20)\n"
    "  --textfile FILE   rewrite FILE every second, for a node exporter\n"
    "  --for SECONDS     measure for 1 to 86400 seconds, print one line and exit:\n"
    "                    0 nothing missing, 1 gaps, 2 lost or nothing came, 3 not measured\n"
    "  COMMAND [ARG]...  run at each change, with \"up\" or \"lost\" as the last argument\n";

static const std::array<option, 9> long_options = {{{"from", required_argument, nullptr, 'f'},
                                                    {"listen", required_argument, nullptr, 'i'},
                                                    {"lost", required_argument, nullptr, 'l'},
                                                    {"back", required_argument, nullptr, 'b'},
                                                    {"textfile", required_argument, nullptr, 't'},
                                                    {"for", required_argument, nullptr, 's'},
                                                    {"help", no_argument, nullptr, 'h'},
                                                    {"version", no_argument, nullptr, 'v'},
                                                    {}}};

// Returns false with a message. inet_pton(3) refuses short forms such as "10.1", which are mostly slips.
static bool parse_address(const char* text, in_addr* address)
{
    if (inet_pton(AF_INET, text, address) == 1) {
        return true;
    }
    fprintf(stderr, "halvo-peer: %s is not a numeric IPv4 address\n", text);
    return false;
}

// Stores a whole number from low to high, multiplied by `unit`, which turns seconds into nanoseconds.
// Returns false with a message.
template <typename Number>
static bool parse_number(const char* text, Number low, Number high, Number unit, Number* value)
{
    Number number = 0;
    const char* end = text + strlen(text);
    const auto [rest, error] = std::from_chars(text, end, number);
    if (error != std::errc() || rest != end || number < low || number > high) {
        fprintf(stderr, "halvo-peer: %s is not a whole number from %s to %s\n", text,
                std::to_string(low).c_str(), std::to_string(high).c_str());
        return false;
    }
    *value = number * unit;
    return true;
}

static bool take_option(int letter, halvo_peer_options_st* options)
{
    switch (letter) {
        case 'f':
            return parse_address(optarg, &options->from);
        case 'i':
            return parse_address(optarg, &options->listen);
        case 'l':
            return parse_number<int64_t>(optarg, 100, 3'600'000, HALVO_PEER_MS, &options->lost_after);
        case 'b':
            return parse_number<uint64_t>(optarg, 1, 1'000'000, 1, &options->up_after);
        case 's':
            return parse_number<int64_t>(optarg, 1, 86'400, SECOND, &options->duration);
        case 't':
            options->textfile = optarg;
            return true;
        default:
            return false;
    }
}

int halvo_peer_parse(int argc, char** argv, halvo_peer_options_st* options)
{
    int letter = 0;
    // "+" ends the options at COMMAND: those that follow are the command's own. See getopt_long(3).
    while ((letter = getopt_long(argc, argv, "+", long_options.data(), nullptr)) != -1) {
        if (letter == 'h') {
            printf("%s%s", USAGE, HELP);
            return 0;
        }
        if (letter == 'v') {
            printf("halvo-peer %s\n", HALVO_VERSION);
            return 0;
        }
        if (!take_option(letter, options)) {
            fprintf(stderr, "%s", USAGE);
            return HALVO_PEER_UNKNOWN;
        }
    }
    options->command.assign(argv + optind, argv + argc);
    if (options->duration != 0 && !options->command.empty()) {
        fprintf(stderr, "halvo-peer: --for takes no command\n%s", USAGE);
        return HALVO_PEER_UNKNOWN;
    }
    return -1;
}
