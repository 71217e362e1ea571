// The device under the real executable: the events that arm it, keep it alive, and may disarm it.

#include <syslog.h>

#include <csignal>
#include <sstream>
#include <string>

#include "sandbox.h"

using WatchdogSandbox = Sandbox;

static const std::string quick =
    "global wd_tick_interval 1\nglobal wd_timeout 2\nglobal res_monit_interval 2\n";

// The table: the driver's answers to open, settimeout and gettimeout, and the timeout that it takes; then the
// log lines of the start-up, each with its priority.
TEST_F(WatchdogSandbox, AFaultyDriverEndsTheStart)
{
    write_config("");
    for (const auto& row : read_table("faulty_drivers.txt", 2)) {
        const size_t before = vm->count(HOST_ANY, "*");
        watchdog_rules rules;
        std::istringstream(row[0]) >> rules.open_errno >> rules.settimeout_errno >> rules.gettimeout_errno >>
            rules.taken_timeout;
        vm->behave(rules);
        EXPECT_EQ(wait_exit(start_daemon()), 1);
        size_t step = before;
        std::istringstream lines(row[1]);
        for (std::string line; getline(lines, line);) {
            step = vm->wait_for(line[0] - '0', line.substr(2) + "\n", step).number;
        }
        vm->wait_for(HOST_DEVICE, rules.open_errno != 0 ? "open failed" : "disarmed", before);
    }
}

// A daemon that is gone must fail the VM over, however it went.
TEST_F(WatchdogSandbox, ADeadDaemonLeavesTheDeviceArmed)
{
    write_config(quick + section("w", "NORMAL", "NOP", "/bin/sleep 1000"));
    const pid_t daemon = start_daemon();
    vm->wait_for(LOG_INFO, "Process manager started: pid [*]\n");
    ASSERT_EQ(kill(daemon, SIGTERM), 0);
    EXPECT_EQ(wait_exit(daemon), 128 + SIGTERM);
    ASSERT_EQ(kill(find_process("sleep"), SIGKILL), 0);  // outlives its supervisor
    size_t step = vm->wait_for(HOST_DEVICE, "expired").number;

    // A fatal exit: the restart's fork fails.
    write_config(quick + section("w", "NORMAL", "PROC_RESTART", "/bin/sleep 1000"));
    const pid_t second = start_daemon();
    step = vm->wait_for(LOG_INFO, "Process manager started: pid [*]\n", step).number;
    write_file("/tmp/no_fork", "");
    ASSERT_EQ(kill(find_process("sleep"), SIGKILL), 0);
    step = vm->wait_in_order(
        step, {{LOG_CRIT, "[/bin/sleep 1000]: Fork failed \n"},
               {LOG_ALERT, "Unable to spawn  process 'w'; start_cmd[/bin/sleep 1000]\n"},
               {LOG_ALERT, "Unable to start [/bin/sleep 1000]. Process manager is exiting\n"}});
    EXPECT_EQ(wait_exit(second), 1);
    vm->wait_for(HOST_DEVICE, "expired", step);
    EXPECT_EQ(vm->count(HOST_DEVICE, "magic"), 0U);
}

TEST_F(WatchdogSandbox, AFailedKeepaliveDisarmsTheDevice)
{
    write_config(quick);
    start_daemon();
    const size_t step = vm->wait_for(HOST_DEVICE, "keepalive").number;
    vm->behave({.keepalive_failures = 1});
    vm->wait_in_order(step, {{LOG_ERR, "/dev/watchdog failed to set keepalive\n"},
                             {LOG_INFO, "/dev/watchdog disarmed\n"},
                             {LOG_CRIT, "Watchdog tickling failed\n"},
                             {LOG_ERR, "Watchdog device is not opened\n"},
                             {LOG_ERR, "Watchdog device is not opened\n"},
                             {LOG_ERR, "Watchdog device is not opened\n"}});
    EXPECT_EQ(vm->count(HOST_DEVICE, "expired"), 0U);
}

// Lost and reported once, failed over on every pass.
TEST_F(WatchdogSandbox, ALostCriticalProcessFailsTheVmOver)
{
    write_config(quick + "global vm_mem_low_water 2147483640\n" +  // crossed on every pass
                 section("gone1", "SYSTEM", "VM_FAILOVER", "SYSTEM") +
                 section("w", "NORMAL", "VM_FAILOVER", "/bin/sleep 1000"));
    start_daemon();
    const size_t lost = vm->wait_in_order(
        0, {{LOG_ALERT, "Process 'gone1' is not started\n"},
            {LOG_ALERT, "Critical  process 'gone1' is terminated; VM failover is triggered\n"}});
    const size_t expired = vm->wait_for(HOST_DEVICE, "expired", lost).number;
    EXPECT_EQ(vm->count(HOST_DEVICE, "keepalive", lost, expired), 0U);

    ASSERT_EQ(kill(find_process("sleep"), SIGKILL), 0);
    vm->wait_for(LOG_ALERT, "Critical  process 'w' is terminated; VM failover is triggered\n");
    vm->wait_for(LOG_ALERT, "heartbeat flag 1\n");
    const std::pair<int, std::string> pass(LOG_ALERT, "VM memory usage[*; No recovery action executed\n");
    vm->wait_in_order(lost, {pass, pass});
    EXPECT_EQ(vm->count(LOG_ALERT, "Process 'gone1' is not started\n"), 1U);
}
