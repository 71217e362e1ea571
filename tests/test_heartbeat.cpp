// The heartbeat as its peer receives it, and the file that names the peer.

#include <arpa/inet.h>
#include <poll.h>
#include <syslog.h>

#include <algorithm>
#include <fstream>

#include "halvo_heartbeat.h"
#include "sandbox.h"

using HeartbeatSandbox = Sandbox;
using namespace std::chrono_literals;

static constexpr const char* info = "/var/heartbeat_info";

TEST_F(HeartbeatSandbox, ALineGivesBothAddressesAndAFaultyOneBothDefaults)
{
    halvo_vm_info_st record{};
    halvo_heartbeat_ip_init(&record);  // no file yet
    EXPECT_EQ(record.heartbeat_remote_ip, 0U);
    std::ifstream table(HALVO_DATA "addresses.txt");
    for (std::string line; getline(table, line);) {
        if (line.starts_with('#')) {
            continue;
        }
        std::replace(line.begin(), line.end(), ';', '\n');
        const std::string text = line.substr(0, line.find("= "));
        write_file(info, text.starts_with('~') ? std::string(5000, 'x') + text.substr(1) : text);
        halvo_heartbeat_ip_init(&record);
        const std::string remote = inet_ntoa({record.heartbeat_remote_ip});
        EXPECT_EQ(remote + " " + inet_ntoa({record.heartbeat_local_ip}), line.substr(text.size() + 2))
            << text;
    }
}

static bool hears_beat(const host_fd& peer, int patience)
{
    pollfd ready{peer.fd, POLLIN, 0};
    std::string text(poll(&ready, 1, patience) == 1 ? 4 : 0, '\0');
    return !text.empty() && recv(peer.fd, text.data(), 4, MSG_TRUNC) == 4 && text == "\xAB\xBA\xDC\xFE";
}

TEST_F(HeartbeatSandbox, BeatsEvery50MsUntilAProcessIsLost)
{
    const host_fd peer{socket(AF_INET, SOCK_DGRAM, 0)};
    const sockaddr_in address{AF_INET, htons(54321), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(bind(peer.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    place_probe("/tmp/lunet");
    write_config(section("w", "NORMAL", "PROC_RESTART", "/bin/sleep 1000"));
    start("/tmp/lunet run");
    size_t seen = 0;
    for (const auto& [name, line] : {std::pair("lunet", "Stop*"), std::pair("sleep", "No: of times*[2]*")}) {
        std::vector<host_clock::time_point> beats;
        write_file(info, "");
        find_process("lunet");
        const pid_t daemon = start_daemon();
        seen = vm->wait_for(LOG_INFO, "notify_fd *", seen).number;
        write_file(info, "eth8_0 127.0.0.1 10.0.0.1\n");
        do {  // a loaded machine gets more time for 40 beats in 2 s
            ASSERT_TRUE(hears_beat(peer, 20000) && beats.size() < 2000);
            beats.push_back(host_clock::now());
        } while (beats.size() < 41 || std::chrono::abs(beats.back() - *(beats.end() - 41) - 2s) > 100ms);
        const pid_t killed = find_process(name);
        ASSERT_EQ(kill(killed, SIGKILL), 0);
        waitpid(killed, nullptr, 0);  // fails if the process is the daemon's child
        vm->wait_for(HOST_ANY, line);
        // A lunet that comes back is too late, even with the pid of the lost process.
        start("sh -c 'echo " + std::to_string(killed - 1) +
              " >/proc/sys/kernel/ns_last_pid; /tmp/lunet run & wait'");
        wait_until("silence", [&] { return !hears_beat(peer, 0); });
        EXPECT_FALSE(hears_beat(peer, 1000) && hears_beat(peer, 1000));
        ASSERT_TRUE(kill(daemon, SIGKILL) == 0 && wait_exit(daemon) == 128 + SIGKILL);
        kill(find_process("sleep"), SIGKILL);
    }
}
