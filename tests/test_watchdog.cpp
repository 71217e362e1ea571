// The device under the real executable: what arms it, what keeps it quiet, and what alone may disarm it.

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "halvo_log.h"
#include "sandbox.h"

using WatchdogSandbox = Sandbox;
using std::chrono::seconds;

static const std::string quick =
    "global wd_tick_interval 1\nglobal wd_timeout 2\nglobal res_monit_interval 2\n";

static std::string worker(const std::string& action)
{
    return "process name w\nw process_type NORMAL\nw start_cmd \"/bin/sleep 1000\"\nw action " + action +
           "\n";
}

// A driver that does not do what it is asked, and what start-up makes of it.
struct faulty_driver {
    watchdog_rules rules;
    std::vector<std::string> lines;
    const char* last_at_device;
};

TEST_F(WatchdogSandbox, AFaultyDriverEndsTheStart)
{
    watchdog_rules busy;
    busy.open_errno = EBUSY;
    watchdog_rules refuses;
    refuses.settimeout_errno = EINVAL;
    watchdog_rules silent;
    silent.gettimeout_errno = EOPNOTSUPP;
    watchdog_rules rounds;
    rounds.taken_timeout = 10;
    const std::vector<faulty_driver> drivers = {
        {busy,
         {"no /dev/watchdog; load a watchdog driver\n", "Device or resource busy [errno: 16]\n",
          "Not able to open /dev/watchdog\n"},
         "open failed"},
        {refuses, {"/dev/watchdog failed to set timeout\n", "/dev/watchdog disarmed\n"}, "disarmed"},
        {silent,
         {"Set watchdog interval to 8\n", "/dev/watchdog failed to report timeout\n",
          "/dev/watchdog disarmed\n"},
         "disarmed"},
        {rounds,
         {"Set watchdog interval to 10\n", "Current watchdog interval is 10\n",
          "/dev/watchdog failed to set timeout mentioned in config file\n", "/dev/watchdog disarmed\n"},
         "disarmed"},
    };
    write_config("");
    for (const faulty_driver& driver : drivers) {
        size_t step = vm->count(HOST_ANY, "*");
        vm->behave(driver.rules);
        const size_t before = step;
        EXPECT_EQ(wait_exit(start_daemon(), seconds(20)), 1);
        for (const std::string& line : driver.lines) {
            step = vm->wait_for(HOST_ANY, line, seconds(5), step).number;
        }
        vm->wait_for(LOG_ALERT,
                     "Not able to initialize the libvirt watch dog device.Process manager is exiting\n",
                     seconds(5), step);
        vm->wait_for(HOST_DEVICE, driver.last_at_device, seconds(5), before);
    }
}

TEST_F(WatchdogSandbox, AStormFailsTheVmOver)
{
    write_config(quick + worker("PROC_RESTART") + "w recur_fail_interval 60\nw recur_fail_restart_count 2\n");
    start_daemon();
    size_t step = vm->wait_for(LOG_INFO, "Process manager started: pid [*]\n", seconds(20)).number;
    for (int kills = 0; kills < 2; ++kills) {
        const pid_t pid = find_process("sleep");
        ASSERT_EQ(kill(pid, SIGKILL), 0);
        step = vm->wait_for(LOG_ALERT,
                            "Process 'w' terminated; pid [" + std::to_string(pid) + "]; exit code [0]\n",
                            seconds(20), step)
                   .number;
        step = vm->wait_for(LOG_INFO, "Process 'w' started; *", seconds(20), step).number;
    }
    step =
        vm->wait_for(LOG_CRIT, "Process 'w' respawned [3] times in [*] seconds; VM failover is triggered\n",
                     seconds(20), step)
            .number;
    vm->wait_for(LOG_CRIT, "Process manager disabled the watchdog tickling. VM is going to failover.\n",
                 seconds(20), step);
    vm->wait_for(HOST_DEVICE, "expired", seconds(20), step);
    EXPECT_EQ(vm->count(HOST_DEVICE, "magic"), 0U);
}

// A daemon that is gone must fail the VM over, however it went.
TEST_F(WatchdogSandbox, ADeadDaemonLeavesTheDeviceArmed)
{
    write_config(quick + worker("NOP"));
    const pid_t daemon = start_daemon();
    vm->wait_for(LOG_INFO, "Process manager started: pid [*]\n", seconds(20));
    ASSERT_EQ(kill(daemon, SIGTERM), 0);
    EXPECT_EQ(wait_exit(daemon, seconds(20)), 128 + SIGTERM);
    ASSERT_EQ(kill(find_process("sleep"), SIGKILL), 0);  // outlives its supervisor
    vm->wait_for(HOST_DEVICE, "expired", seconds(20));

    // A fatal exit: the restart's fork fails.
    size_t step = vm->count(HOST_ANY, "*");
    write_config(quick + worker("PROC_RESTART"));
    const pid_t second = start_daemon();
    step = vm->wait_for(LOG_INFO, "Process manager started: pid [*]\n", seconds(20), step).number;
    write_file("/tmp/no_fork", "");
    ASSERT_EQ(kill(find_process("sleep"), SIGKILL), 0);
    step = vm->wait_for(LOG_CRIT, "[/bin/sleep 1000]: Fork failed \n", seconds(20), step).number;
    step = vm->wait_for(LOG_ALERT, "Unable to spawn  process 'w'; start_cmd[/bin/sleep 1000]\n", seconds(20),
                        step)
               .number;
    vm->wait_for(LOG_ALERT, "Unable to start [/bin/sleep 1000]. Process manager is exiting\n", seconds(20),
                 step);
    EXPECT_EQ(wait_exit(second, seconds(20)), 1);
    vm->wait_for(HOST_DEVICE, "expired", seconds(20), step);
    EXPECT_EQ(vm->count(HOST_DEVICE, "magic"), 0U);
}

TEST_F(WatchdogSandbox, AFailedKeepaliveDisarmsTheDevice)
{
    write_config(quick);
    start_daemon();
    size_t step = vm->wait_for(HOST_DEVICE, "keepalive", seconds(20)).number;
    watchdog_rules fails;
    fails.keepalive_failures = 1;
    vm->behave(fails);
    step = vm->wait_for(LOG_ERR, "/dev/watchdog failed to set keepalive\n", seconds(20), step).number;
    step = vm->wait_for(LOG_INFO, "/dev/watchdog disarmed\n", seconds(20), step).number;
    step = vm->wait_for(LOG_CRIT, "Watchdog tickling failed\n", seconds(20), step).number;
    for (int i = 0; i < 3; ++i) {
        step = vm->wait_for(LOG_ERR, "Watchdog device is not opened\n", seconds(20), step).number;
    }
    EXPECT_EQ(vm->count(HOST_DEVICE, "expired"), 0U);
}

// From the first line on nobody reads the log: processes are started again, keepalives are sent, clients are
// answered, and the VM fails over all the same when a program cannot be executed any more.
TEST_F(WatchdogSandbox, AStuckLogStopsNothing)
{
    place_probe("/tmp/critical");
    const host_fd log{take_over_log()};
    write_config("global wd_tick_interval 1\nglobal wd_timeout 4\n" + worker("PROC_RESTART") +
                 "process name c\nc process_type NORMAL\nc start_cmd \"/tmp/critical run\"\n"
                 "c action PROC_RESTART\nc recur_fail_interval 60\nc recur_fail_restart_count 2\n");
    start_daemon();
    for (int kills = 0; kills < 5; ++kills) {
        const pid_t pid = find_process("sleep");
        ASSERT_EQ(kill(pid, SIGKILL), 0);
        while (kill(pid, 0) == 0) {
            sched_yield();
        }
    }
    EXPECT_EQ(run_halvo("-s", seconds(20)).status, 0);
    EXPECT_EQ(vm->count(HOST_DEVICE, "expired"), 0U);
    ASSERT_EQ(chmod("/tmp/critical", 0600), 0);
    ASSERT_EQ(kill(find_process("critical"), SIGKILL), 0);
    vm->wait_for(HOST_DEVICE, "expired", seconds(20));
    EXPECT_EQ(vm->count(HOST_DEVICE, "magic"), 0U);
}

// The texts of the lines that lie in `fd`, a pipe or a socket, without their heads.
static std::vector<std::string> take_lines(int fd, size_t at_most = SIZE_MAX)
{
    std::vector<std::string> lines;
    std::array<char, 1024> line{};
    for (ssize_t size = 0; lines.size() < at_most && (size = read(fd, line.data(), line.size())) > 0;) {
        const std::string text(line.data(), static_cast<size_t>(size));
        lines.push_back(text.substr(text.find("]: ") + 3));
    }
    return lines;
}

// How many lines these account for.
static int count_lines(const std::vector<std::string>& lines)
{
    int count = 0;
    for (const std::string& line : lines) {
        const bool is_notice = line.ends_with(" lines were lost: the log did not take them\n");
        count += is_notice ? std::stoi(line) : 1;
    }
    return count;
}

// The log's queue may be shorter than a sender's buffer, as the kernel has it, or longer, as init systems set
// it: a line waits for neither for long, nor for a place behind the notice of those lost before it.
TEST_F(WatchdogSandbox, NoLineWaitsForAFullLog)
{
    for (const int queue : {10, 512}) {
        const host_fd hung{take_over_log(queue)};
        halvo_log_close();
        halvo_log_open();
        for (int sent = 0; sent < queue + 20; ++sent) {
            halvo_log(LOG_INFO, "unread\n");
        }
        int taken = count_lines(take_lines(hung.fd, 1));
        halvo_log(LOG_INFO, "one too many\n");
        taken += count_lines(take_lines(hung.fd));
        halvo_log(LOG_INFO, "read again\n");
        taken += count_lines(take_lines(hung.fd));
        EXPECT_EQ(taken, queue + 22);
        for (int sent = 0; sent < queue + 20; ++sent) {
            halvo_log(LOG_INFO, "unread\n");
        }
        const host_fd successor{take_over_log()};
        halvo_log(LOG_INFO, "lost with the old one, or the first\n");
        halvo_log(LOG_INFO, "read again\n");
        EXPECT_EQ(take_lines(successor.fd).back(), "read again\n");
    }
    ASSERT_TRUE(unlink("/dev/log") == 0 && mkfifo("/dev/console", 0600) == 0);
    halvo_log(LOG_INFO, "nobody there\n");
    const host_fd console{open("/dev/console", O_RDONLY | O_NONBLOCK)};
    for (int sent = 0; sent < 10000; ++sent) {  // more than the FIFO takes
        halvo_log(LOG_INFO, "last resort\n");
    }
    EXPECT_EQ(take_lines(console.fd, 1).at(0).find("last resort\n\r\n"), 0U);
}

// Lost and reported once, failed over on every pass.
TEST_F(WatchdogSandbox, ALostCriticalProcessFailsTheVmOver)
{
    write_config(quick +
                 "process name gone1\ngone1 process_type SYSTEM\ngone1 start_cmd \"SYSTEM\"\n"
                 "gone1 action VM_FAILOVER\n" +
                 worker("VM_FAILOVER"));
    start_daemon();
    const size_t step = vm->wait_for(LOG_ALERT, "Process 'gone1' is not started\n", seconds(20)).number;
    vm->wait_for(LOG_ALERT, "Critical  process 'gone1' is terminated; VM failover is triggered\n",
                 seconds(20), step);
    const size_t expired = vm->wait_for(HOST_DEVICE, "expired", seconds(20), step).number;
    EXPECT_EQ(vm->count(HOST_DEVICE, "keepalive", step, expired), 0U);

    ASSERT_EQ(kill(find_process("sleep"), SIGKILL), 0);
    vm->wait_for(LOG_ALERT, "Critical  process 'w' is terminated; VM failover is triggered\n", seconds(20));
    vm->wait_for(LOG_ALERT, "heartbeat flag 1\n", seconds(5));
    EXPECT_EQ(vm->count(LOG_ALERT, "Process 'gone1' is not started\n"), 1U);
}
