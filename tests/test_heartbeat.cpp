// The heartbeat as its peer hears it, and the file that names the peer.

#include <arpa/inet.h>
#include <poll.h>

#include <algorithm>
#include <sstream>

#include "halvo_heartbeat.h"
#include "sandbox.h"

using HeartbeatSandbox = Sandbox;
using namespace std::chrono_literals;

// In a row ";" is a line feed, a first "~" 5000 letters; the addresses that hold afterwards stand behind "=".
TEST_F(HeartbeatSandbox, ALineGivesBothAddressesAndAFaultyOneBothDefaults)
{
    halvo_vm_info_st record{};
    halvo_heartbeat_ip_init(&record);  // no file yet
    std::istringstream table(R"(=0.0.0.0 0.0.0.0/ eth8_0 10.1.1.2 10.1.1.1; =10.1.1.2 10.1.1.1/
;	 eth4_0	1.0.0.1	1.0.0.2=1.0.0.1 1.0.0.2/ eth4_0 1.0.0.1 x;eth8_0 1.0.0.3 1.0.0.4;=192.168.2.1 192.168.2.2/
eth4_0 1.0.0.1 1.0.0.2;~;eth8_0 1.0.0.3 1.0.0.4 x;=1.0.0.3 1.0.0.4/ eth8_0=192.168.2.1 192.168.2.2/
~ eth8_0 9.9.9.9 9.9.9.9;eth8_0 1.0.0.1 1.0.0.2;eth8 x;eth8_00 x;ETH8_0 x;#eth8_0;x eth8_0 x;=1.0.0.1 1.0.0.2/
eth8_0  10.1.1.2 10.1.1.1;=192.168.2.1 192.168.2.2/ eth8_0 1.2.3.4 5.6.7.8~=192.168.2.1 192.168.2.2/)");
    for (std::string row, pair; getline(table >> std::ws, row, '=') && getline(table, pair, '/');) {
        std::replace(row.begin(), row.end(), ';', '\n');
        write_file("/var/heartbeat_info", std::string(row.starts_with('~') ? 5000 : 0, 'x') + row);
        halvo_heartbeat_ip_init(&record);
        const std::string remote = inet_ntoa({record.heartbeat_remote_ip});
        EXPECT_EQ(remote + " " + inet_ntoa({record.heartbeat_local_ip}), pair) << row;
    }
}

TEST_F(HeartbeatSandbox, BeatsEvery50MsUntilAProcessIsLost)
{
    const host_fd peer{socket(AF_INET, SOCK_DGRAM, 0)};
    const sockaddr_in address{AF_INET, htons(54321), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(bind(peer.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const auto hears = [&peer](int patience) {
        pollfd ready{peer.fd, POLLIN, 0};
        std::string text(poll(&ready, 1, patience) == 1 ? 4 : 0, '\0');
        return !text.empty() && recv(peer.fd, text.data(), 4, MSG_TRUNC) == 4 && text == "\xAB\xBA\xDC\xFE";
    };
    place_probe("/tmp/lunet");
    write_config(
        "process name w\nw process_type NORMAL\nw action PROC_RESTART\nw start_cmd \"/bin/sleep 1000\"\n");
    start("/tmp/lunet run");
    for (const auto& [name, line] : {std::pair("lunet", "Stop*"), std::pair("sleep", "No: of times*[2]*")}) {
        std::vector<host_clock::time_point> beats;
        write_file("/var/heartbeat_info", "eth8_0 127.0.0.1 10.0.0.1\n");
        find_process("lunet");
        const pid_t daemon = start_daemon();
        do {  // a loaded machine is given the time for 40 beats in 2 s
            ASSERT_TRUE(hears(20000) && beats.size() < 2000);
            beats.push_back(host_clock::now());
        } while (beats.size() < 41 || std::chrono::abs(beats.back() - *(beats.end() - 41) - 2s) > 100ms);
        const pid_t killed = find_process(name);
        ASSERT_EQ(kill(killed, SIGKILL), 0);
        waitpid(killed, nullptr, 0);  // does nothing where it is the daemon's
        vm->wait_for(HOST_ANY, line, 20s);
        start("/tmp/lunet run");  // comes too late
        while (hears(0)) {
        }
        EXPECT_FALSE(hears(1000) && hears(1000));
        ASSERT_TRUE(kill(daemon, SIGKILL) == 0 && wait_exit(daemon, 20s) == 128 + SIGKILL);
        kill(find_process("sleep"), SIGKILL);
    }
}
