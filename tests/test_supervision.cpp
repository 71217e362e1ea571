// Starting, losing and restarting processes: the daemon's objects called in this process where the timing
// must be provoked, the real executable where its whole road counts.

#include <syslog.h>

#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "halvo_command.h"
#include "halvo_log.h"
#include "halvo_main.h"
#include "halvo_params.h"
#include "halvo_process.h"
#include "halvo_recur_fail.h"
#include "halvo_utils.h"
#include "sandbox.h"

using SupervisionSandbox = Sandbox;
using std::chrono::seconds;

// Prepares an entry of the running table as start-up would, failover switched off.
static halvo_child_proc_info_st* add_process(const std::string& name, const std::string& start_cmd,
                                             int action)
{
    const int index = vm_info_g.mon_proc_num++;
    halvo_init_proc_info_table(child_proc_table_g, &index, name.c_str());
    halvo_child_proc_info_st* entry = &child_proc_table_g[index];
    halvo_copy_text(entry->start_cmd, CMD_SIZE, start_cmd.c_str());
    entry->proc_type = NORMAL;
    entry->action = action;
    vm_info_g.vm_failover_flag = DISABLE;
    return entry;
}

static std::string section(const std::string& name, const std::string& type, const std::string& action,
                           const std::string& start_cmd)
{
    return "process name " + name + "\n" + name + " process_type " + type + "\n" + name + " action " +
           action + "\n" + name + " start_cmd \"" + start_cmd + "\"\n";
}

// Signals coalesce and the callback stops at a script's child: a death beside those must not be missed.
TEST_F(SupervisionSandbox, NoExitIsLostBesideScriptsAndPidof)
{
    constexpr int rounds = 200;
    place_probe("/tmp/worker");
    for (int i = 0; i < MAX_PROC_NUM; ++i) {
        add_process("w" + std::to_string(i), "/tmp/worker run", PROC_RESTART);
    }
    ASSERT_EQ(halvo_signal_init(), 0);
    for (halvo_child_proc_info_st& entry : child_proc_table_g) {
        ASSERT_EQ(halvo_start_process(&entry), 0);
    }
    // A line that is still on its way must not pass for a restart.
    vm->wait_for(LOG_INFO, "Process 'w9' started; *", seconds(20));
    const std::jthread scripts([](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            halvo_execute_script("/bin/true");
        }
    });
    const std::jthread pidofs([](const std::stop_token& stop) {
        static halvo_child_proc_info_st nobody{};
        halvo_copy_text(nobody.proc_name, PROC_NAME_SIZE, "nobody");
        while (!stop.stop_requested()) {
            halvo_check_process_pid_status(&nobody);
        }
    });
    std::chrono::microseconds slowest{};
    for (int round = 0; round < rounds; ++round) {
        const size_t before = vm->count(HOST_ANY, "*");
        const auto killed = host_clock::now();
        {
            const std::lock_guard guard(halvo_table_lock_g);
            for (const halvo_child_proc_info_st& entry : child_proc_table_g) {
                ASSERT_EQ(kill(entry.pid, SIGKILL), 0);
            }
        }
        for (const halvo_child_proc_info_st& entry : child_proc_table_g) {
            const std::string line = "Process '" + std::string(entry.proc_name) + "' started; *";
            const auto restarted = vm->wait_for(LOG_INFO, line, seconds(20), before).when;
            slowest = std::max(slowest, duration_cast<std::chrono::microseconds>(restarted - killed));
        }
    }
    const std::lock_guard guard(halvo_table_lock_g);
    for (const halvo_child_proc_info_st& entry : child_proc_table_g) {
        EXPECT_EQ(entry.spawn_count, rounds + 1);
        EXPECT_EQ(entry.proc_state, INIT);
    }
    RecordProperty("slowest_restart_us", std::to_string(slowest.count()));
}

// Of the sanitizers, where there is one; see their allocator_interface.h.
extern "C" __attribute__((weak)) int __sanitizer_install_malloc_and_free_hooks(
    void (*malloc_hook)(const volatile void*, size_t), void (*free_hook)(const volatile void*));

static void hang_in_child(const volatile void*, size_t)
{
    static const pid_t parent_pid = getpid();
    while (getpid() != parent_pid) {
        pause();
    }
}

// A child that inherits a lock held, the log's or the heap's, would hang before its exec and look alive.
TEST_F(SupervisionSandbox, AChildNeverHangsBeforeItsExec)
{
    halvo_child_proc_info_st* entry = add_process("w", "/nonexistent/program", NOP);
    const std::string longer = "/nonexistent/" + std::string(887, 'x');
    ASSERT_EQ(halvo_signal_init(), 0);
    if (__sanitizer_install_malloc_and_free_hooks != nullptr) {
        ASSERT_GT(__sanitizer_install_malloc_and_free_hooks(hang_in_child, [](const volatile void*) {}), 0);
    }
    const auto chatter = [](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            halvo_log(LOG_INFO, "chatter\n");
        }
    };
    const std::jthread first(chatter);
    const std::jthread second(chatter);
    vm->wait_for(LOG_INFO, "chatter\n", seconds(20));
    for (int start = 0; start < 200; ++start) {
        const size_t before = vm->count(HOST_ANY, "*");
        if (start == 100) {
            halvo_copy_text(entry->start_cmd, CMD_SIZE, longer.c_str());
        }
        ASSERT_EQ(halvo_spawn_process(entry), 0);
        const std::string failure = "[" + std::string(entry->start_cmd) + "]: execvp failed\n";
        vm->wait_for(LOG_ERR, failure, seconds(20), before);
        vm->wait_for(LOG_ALERT, "Process 'w' terminated; pid [*]; exit code [1]\n", seconds(20), before);
    }
}

TEST_F(SupervisionSandbox, AFullRingComparesWithTheOldestSpawnKept)
{
    auto* list = halvo_create_recur_fail_list();
    halvo_store(vm_info_g.vm_failover_flag, DISABLE);
    for (const time_t spawned : {0, 100, 130, 170, 165}) {  // the clock is set back before the last one
        halvo_insert_recur_fail_info(list, "p", 60, spawned, 3);
    }
    // Spans 70 and 35: only the last is below 60.
    EXPECT_EQ(
        vm->wait_for(LOG_CRIT, "Process 'p' respawned [4] times in [35] seconds; VM failover is triggered\n",
                     seconds(5))
            .number,
        1U);
    halvo_insert_recur_fail_info(list, "p", 60, 100, 3);
    EXPECT_EQ(list->head->proc_spawn_time, 170);
    halvo_delete_recur_fail_list(list);

    list = halvo_create_recur_fail_list();
    vm_info_g.vm_failover_flag = ENABLE;
    vm_info_g.wd_tick_flag = 1;
    halvo_insert_recur_fail_info(list, "q", 2, 5, 1);
    EXPECT_EQ(vm_info_g.wd_tick_flag, 1);
    halvo_insert_recur_fail_info(list, "q", 2, 5, 1);
    vm->wait_for(LOG_CRIT, "Process 'q' respawned [2] times in [0] seconds; VM failover is triggered\n",
                 seconds(5));
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(vm_info_g.wd_tick_flag, 0);
}

TEST_F(SupervisionSandbox, AStartedProgramGetsTheMaskOfTheStartAndNothingElse)
{
    place_probe("/tmp/worker");
    write_config("global vm_failover DISABLE\n" + section("w", "NORMAL", "NOP", "/tmp/worker report"));
    start_daemon("--ignore-signal=PIPE --block-signal=USR2");
    EXPECT_EQ(vm->wait_for(LOG_INFO, "SigPnd:*", seconds(20)).text,
              "SigPnd:\t0000000000000000 SigBlk:\t0000000000000800 SigIgn:\t0000000000000000 "
              "SigCgt:\t0000000000000000 fds:");
}

// Whatever happens when: the reports are written, the script's end is waited for, nobody ends.
TEST_F(SupervisionSandbox, ASignalDuringAScriptDisturbsNothing)
{
    write_file("/tmp/slow", "#!/bin/sh\nmkfifo /tmp/gate\nread line </tmp/gate\n", 0755);
    write_config("global vm_failover DISABLE\n" + section("w", "NORMAL", "NOP", "/bin/sleep 100") +
                 "w pre_start_cmd \"/tmp/slow\"\n");
    const pid_t daemon = start_daemon();
    vm->wait_for(LOG_INFO, "Executing script [/tmp/slow]\n", seconds(20));
    for (int i = 0; i < 3; ++i) {
        const size_t before = vm->count(HOST_ANY, "*");
        ASSERT_EQ(kill(daemon, SIGUSR1), 0);
        vm->wait_for(LOG_INFO, "Global: Config details:\n", seconds(20), before);
        vm->wait_for(LOG_INFO, "\tProcess state: Process not started\n", seconds(20), before);
    }
    EXPECT_EQ(vm->count(LOG_INFO, "Script [/tmp/slow] executed successfully\n"), 0U);
    write_file("/tmp/gate", "\n");
    const size_t script =
        vm->wait_for(LOG_INFO, "Script [/tmp/slow] executed successfully\n", seconds(20)).number;
    vm->wait_for(LOG_INFO, "Process 'w' started; start cmd [/bin/sleep 100]\n", seconds(20), script);
}

// Whatever pidof prints, only a pid that bears the name counts; nothing at all leaves the held pid.
TEST_F(SupervisionSandbox, JunkFromPidofFindsNothing)
{
    place_probe("/tmp/agent1");
    const pid_t agent = start("/tmp/agent1 run");
    ASSERT_EQ(find_process("agent1"), agent);
    const std::string pid = std::to_string(agent);
    halvo_child_proc_info_st* entry = add_process("agent1", "SYSTEM", NOP);
    entry->pid = agent;
    write_file("/tmp/pidof", "#!/bin/sh\n. /tmp/answer\n", 0755);
    setenv("PATH", "/tmp:/usr/bin:/bin", 1);
    const std::string beyond_int = std::to_string(agent + (1L << 32));
    const std::vector<std::string> good = {"echo " + pid + " 1", "printf " + pid, "exit 1", "kill -9 $$"};
    const std::vector<std::string> junk = {"echo agent1",
                                           "echo 1 " + pid,
                                           "echo -" + pid,
                                           "echo " + beyond_int,
                                           "head -c 5000 /dev/zero | tr '\\0' 7",
                                           "exec yes 1"};
    for (const auto& [answers, found] : {std::pair(good, agent), std::pair(junk, -1)}) {
        for (const std::string& answer : answers) {
            write_file("/tmp/answer", answer + "\n");
            EXPECT_EQ(halvo_check_process_pid_status(entry), found) << answer;
        }
    }
}

// The whole line of events from the loss to what the operator configured, for the processes found by name.
TEST_F(SupervisionSandbox, DaemonsAreStartedFoundAndStartedAgain)
{
    place_probe("/tmp/agent1");
    write_config("global res_monit_interval 2\nglobal vm_failover DISABLE\n" +
                 section("agent1", "DAEMON", "PROC_RESTART", "/tmp/agent1 daemonize") +
                 section("nobody1", "SYSTEM", "NOP", "SYSTEM"));
    start_daemon();
    size_t step = vm->wait_for(LOG_ALERT, "Process 'agent1' is not started\n", seconds(20)).number;
    step = vm->wait_for(LOG_INFO, "Process 'agent1' started; *", seconds(20), step).number;
    step = vm->wait_for(LOG_CRIT, "No: of times spawned by process manager [1]\n", seconds(20), step).number;
    write_file("/tmp/clock_set_back", "");  // which must not put off the watching
    step =
        vm->wait_for(LOG_INFO, " No recovery action is executed for  process 'nobody1'\n", seconds(20), step)
            .number;
    // The first process of a DAEMON ends at once; what counts is the one found by name after 10 seconds.
    ASSERT_EQ(
        wait_exit(start("sh -c 'until /bin/pidof agent1; do :; done; kill -9 $(pidof agent1)'"), seconds(20)),
        0);
    step = vm->wait_for(LOG_ALERT, "Process 'agent1' is terminated\n", seconds(60), step).number;
    vm->wait_for(LOG_CRIT, "No: of times spawned by process manager [2]\n", seconds(20), step);
    EXPECT_EQ(vm->count(LOG_ALERT, "Process 'nobody1' is not started\n"), 1U);
    EXPECT_EQ(vm->count(LOG_ALERT, "Process 'agent1' terminated;*"), 0U);
}
