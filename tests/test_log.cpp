// The log: nothing waits for it, and no line that its ring could hold is lost.

#include <poll.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <string>

#include "halvo_log.h"
#include "sandbox.h"

using LogSandbox = Sandbox;

static constexpr sockaddr_un LOG_ADDRESS{AF_UNIX, "/dev/log"};

// Replaces the host's log with a socket that nobody reads. Its queue holds 11 lines, as without an init
// system, or one connection.
static int take_over_log(int type)
{
    std::ofstream("/proc/sys/net/unix/max_dgram_qlen") << 10;
    const int log = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    EXPECT_EQ(rename("/dev/log", "/dev/log.host"), 0);
    EXPECT_EQ(bind(log, reinterpret_cast<const sockaddr*>(&LOG_ADDRESS), sizeof(LOG_ADDRESS)), 0);
    listen(log, 0);
    return log;
}

// Nobody even accepts a connection to the log. Even so, processes are restarted, keepalives are sent, clients
// are answered, a second daemon ends, and the VM fails over when a program can no longer be executed.
TEST_F(LogSandbox, AStuckLogStopsNothing)
{
    place_probe("/tmp/critical");
    const host_fd log{take_over_log(SOCK_STREAM)};
    const host_fd other{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    ASSERT_EQ(connect(other.fd, reinterpret_cast<const sockaddr*>(&LOG_ADDRESS), sizeof(LOG_ADDRESS)), 0);
    write_config("global wd_tick_interval 1\nglobal wd_timeout 4\n" +
                 section("w", "NORMAL", "PROC_RESTART", "/bin/sleep 1000") +
                 section("c", "NORMAL", "PROC_RESTART", "/tmp/critical run") +
                 "c recur_fail_interval 60\nc recur_fail_restart_count 2\n");
    start_daemon();
    for (int kills = 0; kills < 20; ++kills) {
        const pid_t pid = find_process("sleep");
        ASSERT_EQ(kill(pid, SIGKILL), 0);
        wait_until("its end", [&] { return kill(pid, 0) != 0; });
    }
    EXPECT_EQ(run_halvo("-s").status, 0);
    EXPECT_EQ(run_halvo("").status, 1);
    EXPECT_EQ(vm->count(HOST_DEVICE, "expired"), 0U);
    ASSERT_EQ(chmod("/tmp/critical", 0600), 0);
    ASSERT_EQ(kill(find_process("critical"), SIGKILL), 0);
    vm->wait_for(HOST_DEVICE, "expired");
    EXPECT_EQ(vm->count(HOST_DEVICE, "magic"), 0U);
}

// The text of the next datagram, without the head of a line; empty when none comes.
static std::string take_line(const host_fd& log)
{
    std::array<char, 4096> line{};
    pollfd ready{log.fd, POLLIN, 0};
    poll(&ready, 1, 20000);
    const ssize_t size = read(log.fd, line.data(), line.size());
    const std::string text(line.data(), static_cast<size_t>(std::max<ssize_t>(size, 0)));
    return text.substr(text.find("]: ") + 3);
}

TEST_F(LogSandbox, AStalledLogGetsEveryLineInOrder)
{
    constexpr int logged = 60000;  // more than the ring holds
    const host_fd log{take_over_log(SOCK_DGRAM)};
    closelog();  // the one that the fixture has opened
    halvo_log_use_ring();
    ASSERT_EQ(halvo_log_start(), 0);
    for (int line = 0; line < logged; ++line) {
        halvo_log(LOG_INFO, "line %d\n", line);
    }
    int line = 0;
    std::string text;
    while ((text = take_line(log)) == "line " + std::to_string(line) + "\n") {
        ++line;
    }
    EXPECT_GT(line, 4000);
    EXPECT_EQ(text, std::to_string(logged - line) + " lines were lost: the log did not take them\n");
}
