// Prints the events at the host and at the heartbeat's peer as they happen: "halvo_host
// [--color=always|auto]".

#include <netinet/in.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "host.h"

// By priority, beginning with the device's. Events that end the VM or a process are red.
static constexpr std::array COLOURS{"\033[36m", "\033[1;31m", "\033[1;31m", "\033[1;31m", "\033[31m",
                                    "\033[33m", "",           "",           "\033[2m"};

// Prints every 20th datagram, beginning with the first, and the last one when none has come for a second.
static void receive_heartbeat(const host& surroundings, int port)
{
    host_event event{0, {}, HOST_DEVICE, 0, "", ""};
    for (uint32_t count = 0, magic = 0;;) {
        const bool came = recv(port, &magic, 4, MSG_TRUNC) == 4 && magic == htole32(0xFEDCBAAB);
        event.when = came ? host_clock::now() : event.when;
        event.text = "heartbeat " + std::to_string(came ? ++count : count) + (came ? "" : " was the last");
        if (came ? count % 20 == 1 : count > 0) {
            std::string line = surroundings.describe(event);
            puts(line.replace(line.find("DEVICE"), 6, "PEER  ").c_str());
        }
        count = came ? count : 0;
    }
}

int main(int argc, char** argv)
try {
    const bool coloured = isatty(STDOUT_FILENO) != 0 || (argc > 1 && strcmp(argv[1], "--color=always") == 0);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    host surroundings;
    const int port = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in address{AF_INET, htons(54321), {htonl(INADDR_LOOPBACK)}, {}};
    const timeval silence{1, 0};
    setsockopt(port, SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence);
    if (bind(port, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::system_error(errno, std::generic_category(), "bind");
    }
    std::thread(receive_heartbeat, std::cref(surroundings), port).detach();
    // Lets a reader match the times that follow with another clock.
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    printf("+00.000 DEVICE  ready at %.6f\n", now.count());
    for (size_t seen = 0;; ++seen) {
        host_event event = surroundings.wait_for(HOST_ANY, "*", std::chrono::hours(24 * 365), seen);
        const bool lost = event.priority == HOST_DEVICE && event.text == "expired";
        event.text = lost ? "EXPIRED: the hypervisor takes the VM down" : event.text;
        const char* colour = lost ? "\033[1;37;41m" : COLOURS.at(static_cast<size_t>(event.priority) + 1);
        printf("%s%s%s\n", coloured ? colour : "", surroundings.describe(event).c_str(),
               coloured ? "\033[0m" : "");
    }
} catch (const std::exception& failure) {
    fprintf(stderr, "halvo_host: %s\n", failure.what());
    return 1;
}
