// The heartbeat as its peer hears it, and the file that names the peer.

#include <arpa/inet.h>
#include <poll.h>
#include <syslog.h>

#include <algorithm>
#include <filesystem>
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

// Whatever moment a rewrite is met at, both addresses are of one line or both are the defaults.
TEST_F(HeartbeatSandbox, RewritesNeverLeaveAMixOrADescriptor)
{
    write_file(info, "eth8_0 10.0.0.1 10.0.0.2\n");
    write_config("global vm_failover DISABLE\n");
    const pid_t daemon = start_daemon();
    vm->wait_for(LOG_INFO, "lunet pid 0", 20s);
    const std::string open_files = "/proc/" + std::to_string(daemon) + "/fd";
    const auto descriptors = [&] {
        return std::distance(std::filesystem::directory_iterator(open_files), {});
    };
    const auto before = descriptors();
    const std::string defaults = "remote ip 0xc0a80201 local 0xc0a80202\n";
    for (int rewrite = 0; rewrite < 1000 || vm->count(LOG_INFO, defaults) == 0; ++rewrite) {
        write_file(info, rewrite % 2 == 0 ? "eth8_0 10.0.0.1 x\n" : "eth4_0 10.0.0.1 10.0.0.2\n");
    }
    write_file(info, "eth8_0 10.0.0.9 10.0.0.8\n");
    vm->wait_for(LOG_INFO, "remote ip 0xa000009 local 0xa000008\n", 20s);
    EXPECT_EQ(vm->count(LOG_INFO, "remote ip *"),
              vm->count(LOG_INFO, "remote ip 0xa000001 local 0xa000002\n") + vm->count(LOG_INFO, defaults) +
                  vm->count(LOG_INFO, "remote ip 0xa000009 local 0xa000008\n"));
    EXPECT_EQ(descriptors(), before);
}

static int open_peer()
{
    const int peer = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in address{AF_INET, htons(54321), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(bind(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return peer;
}

static bool hears_beat(const host_fd& peer, int patience)
{
    pollfd ready{peer.fd, POLLIN, 0};
    std::string text(poll(&ready, 1, patience) == 1 ? 4 : 0, '\0');
    return !text.empty() && recv(peer.fd, text.data(), 4, MSG_TRUNC) == 4 && text == "\xAB\xBA\xDC\xFE";
}

TEST_F(HeartbeatSandbox, BeatsEvery50MsUntilAProcessIsLost)
{
    const host_fd peer{open_peer()};
    place_probe("/tmp/lunet");
    write_config(
        "process name w\nw process_type NORMAL\nw action PROC_RESTART\nw start_cmd \"/bin/sleep 1000\"\n");
    start("/tmp/lunet run");
    for (const auto& [name, line] : {std::pair("lunet", "Stop*"), std::pair("sleep", "No: of times*[2]*")}) {
        std::vector<host_clock::time_point> beats;
        write_file(info, "eth8_0 127.0.0.1 10.0.0.1\n");
        find_process("lunet");
        const pid_t daemon = start_daemon();
        do {  // a loaded machine is given the time for 40 beats in 2 s
            ASSERT_TRUE(hears_beat(peer, 20000) && beats.size() < 2000);
            beats.push_back(host_clock::now());
        } while (beats.size() < 41 || std::chrono::abs(beats.back() - *(beats.end() - 41) - 2s) > 100ms);
        const pid_t killed = find_process(name);
        ASSERT_EQ(kill(killed, SIGKILL), 0);
        waitpid(killed, nullptr, 0);  // does nothing where it is the daemon's
        vm->wait_for(HOST_ANY, line, 20s);
        // A lunet that comes back, even under the pid of the lost process, comes too late.
        start("sh -c 'echo " + std::to_string(killed - 1) +
              " >/proc/sys/kernel/ns_last_pid; /tmp/lunet run & wait'");
        while (hears_beat(peer, 0)) {
        }
        EXPECT_FALSE(hears_beat(peer, 1000) && hears_beat(peer, 1000));
        ASSERT_TRUE(kill(daemon, SIGKILL) == 0 && wait_exit(daemon, 20s) == 128 + SIGKILL);
        kill(find_process("sleep"), SIGKILL);
    }
}

// The change of the address is the first line that nobody reads.
TEST_F(HeartbeatSandbox, AStuckLogHoldsUpNoBeat)
{
    const host_fd peer{open_peer()};
    place_probe("/tmp/lunet");
    start("/tmp/lunet run");
    find_process("lunet");
    write_file(info, "eth8_0 127.0.0.1 10.0.0.1\n");
    write_config("global vm_failover DISABLE\n");
    const host_fd log{take_over_log(100)};  // enough for the start
    start_daemon();
    ASSERT_TRUE(hears_beat(peer, 20000));
    const auto* address = reinterpret_cast<const sockaddr*>(&log_address);
    while (sendto(log.fd, "x", 1, MSG_DONTWAIT, address, sizeof(log_address)) == 1) {
    }
    write_file(info, "eth8_0 127.0.0.1 10.0.0.2\n");
    for (int beat = 0; beat < 40; ++beat) {
        ASSERT_TRUE(hears_beat(peer, 900)) << beat;
    }
}
