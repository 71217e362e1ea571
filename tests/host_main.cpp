// Prints live what the host of tests/host sees: "halvo_host [--color=always|auto]".

#include <array>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "host.h"

// By priority, from the device's on: what ends the VM or a process is red.
static constexpr std::array COLOURS{"\033[36m", "\033[1;31m", "\033[1;31m", "\033[1;31m", "\033[31m",
                                    "\033[33m", "",           "",           "\033[2m"};

int main(int argc, char** argv)
try {
    const bool coloured = isatty(STDOUT_FILENO) != 0 || (argc > 1 && strcmp(argv[1], "--color=always") == 0);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    host surroundings;
    // Lets a reader lay his own clock beside the times that follow.
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    printf("+00.000 DEVICE  ready at %.6f\n", now.count());
    for (size_t seen = 0;; ++seen) {
        host_event event = surroundings.wait_for(HOST_ANY, "*", std::chrono::hours(24 * 365), seen);
        const bool lost = event.priority == HOST_DEVICE && event.text == "expired";
        event.text = lost ? "EXPIRED: the hypervisor takes the VM down" : event.text;
        const char* colour = lost ? "\033[1;37;41m" : COLOURS.at(static_cast<size_t>(event.priority + 1));
        printf("%s%s%s\n", coloured ? colour : "", surroundings.describe(event).c_str(),
               coloured ? "\033[0m" : "");
    }
} catch (const std::exception& failure) {
    fprintf(stderr, "halvo_host: %s\n", failure.what());
    return 1;
}
