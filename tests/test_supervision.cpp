// Starting, losing and restarting processes: the daemon's functions called in this process where a test must
// force the timing, and the real executable where the whole path counts.

#include <sys/wait.h>
#include <syslog.h>

#include <string>
#include <thread>
#include <vector>

#include "halvo_command.h"
#include "halvo_log.h"
#include "halvo_params.h"
#include "halvo_pid_lookup.h"
#include "halvo_process.h"
#include "halvo_recur_fail.h"
#include "halvo_signal.h"
#include "halvo_text.h"
#include "sandbox.h"

using SupervisionSandbox = Sandbox;

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

// Signals coalesce, and the callback stops at a stranger: the death that follows two of those must not be
// missed.
TEST_F(SupervisionSandbox, NoExitIsLostAfterTwoOfStrangers)
{
    place_probe("/tmp/worker");
    halvo_child_proc_info_st* entry = add_process("w", "/tmp/worker run", PROC_RESTART);
    ASSERT_EQ(halvo_signal_init() + halvo_signal_start(), 0);
    std::vector<pid_t> children = {start("sleep 1000"), start("sleep 1000")};
    ASSERT_EQ(halvo_start_process(entry), 0);
    {
        const std::lock_guard guard(halvo_table_lock_g);
        children.push_back(entry->pid);
        for (const pid_t pid : children) {  // reaped in this order
            siginfo_t info{};
            ASSERT_TRUE(kill(pid, SIGKILL) == 0 &&
                        waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) == 0);
        }
    }
    vm->wait_for(LOG_CRIT, "No: of times spawned by process manager [2]\n");
    {
        const std::lock_guard guard(halvo_table_lock_g);
        entry->action = NOP;
        ASSERT_EQ(kill(entry->pid, SIGKILL), 0);
    }
    vm->wait_for(LOG_INFO, " No recovery action is executed for  process 'w'\n");
    const std::lock_guard guard(halvo_table_lock_g);
    EXPECT_TRUE(entry->pid == 0 && entry->proc_state == TERMINATED);
}

// A child forked while the log's or the heap's lock is held would hang before its exec and look alive. A
// program that it cannot execute is logged under its pid, before its end.
TEST_F(SupervisionSandbox, AChildNeverHangsBeforeItsExec)
{
    halvo_child_proc_info_st* entry = add_process("w", "/nonexistent/program", NOP);
    ASSERT_EQ(halvo_signal_init() + halvo_signal_start(), 0);
    const auto chatter = [](const std::stop_token& stop) {
        for (size_t i = 0; !stop.stop_requested(); ++i) {
            halvo_log(LOG_INFO, "chatter %zu\n", std::string(i % 5000, 'x').size());
        }
    };
    const std::jthread first(chatter);
    const std::jthread second(chatter);
    vm->wait_for(LOG_INFO, "chatter *");
    for (int start = 0; start < 200; ++start) {
        const size_t before = vm->count(HOST_ANY, "*");
        ASSERT_EQ(halvo_spawn_process(entry), 0);
        const auto failure = vm->wait_for(LOG_ERR, "[/nonexistent/program]: execvp failed\n", before);
        const auto why = vm->wait_for(LOG_ERR, "No such file or directory [errno: 2]\n", before);
        EXPECT_EQ(failure.pid, why.pid);
        vm->wait_for(LOG_ALERT,
                     "Process 'w' terminated; pid [" + std::to_string(failure.pid) + "]; exit code [1]\n",
                     why.number);
    }
}

TEST_F(SupervisionSandbox, AFullRingComparesWithTheOldestSpawnKept)
{
    auto* list = halvo_create_recur_fail_list();
    halvo_store(vm_info_g.vm_failover_flag, DISABLE);
    for (const time_t spawned : {0, 100, 130, 160, 155}) {  // the clock is set back before the last one
        halvo_insert_recur_fail_info(list, "p", 60, spawned, 3);
    }
    // Spans 60 and 25: only the last is below 60.
    EXPECT_EQ(vm->wait_for(LOG_CRIT, "Process 'p' respawned [4] times in [25] seconds; *").number, 1U);
    halvo_insert_recur_fail_info(list, "p", 60, 100, 3);
    EXPECT_EQ(list->head->proc_spawn_time, 160);
    halvo_delete_recur_fail_list(list);

    list = halvo_create_recur_fail_list();
    vm_info_g.vm_failover_flag = ENABLE;
    vm_info_g.wd_tick_flag = 1;
    halvo_insert_recur_fail_info(list, "q", 2, 5, 1);
    EXPECT_EQ(vm_info_g.wd_tick_flag, 1);
    halvo_insert_recur_fail_info(list, "q", 2, 5, 1);
    vm->wait_for(LOG_CRIT, "Process 'q' respawned [2] times in [0] seconds; VM failover is triggered\n");
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(vm_info_g.wd_tick_flag, 0);
}

TEST_F(SupervisionSandbox, AStartedProgramGetsTheMaskOfTheStartAndNothingElse)
{
    place_probe("/tmp/worker");
    write_config("global vm_failover DISABLE\n" + section("w", "NORMAL", "NOP", "/tmp/worker report"));
    start_daemon("--ignore-signal=PIPE --ignore-signal=HUP --block-signal=USR2");
    EXPECT_EQ(vm->wait_for(LOG_INFO, "SigPnd:*").text,
              "SigPnd:\t0000000000000000 SigBlk:\t0000000000000800 SigIgn:\t0000000000000001 "
              "SigCgt:\t0000000000000000 fds:");
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
    entry->pid = 0;
    write_file("/tmp/answer", "echo >>/tmp/looks\n");
    EXPECT_EQ(halvo_monitor_process_crash(entry), 0);
    EXPECT_EQ(read_file("/tmp/looks"), "\n\n\n");  // only a process missed three times is lost
}

// The whole chain of events from the loss to what the operator configured, for the processes found by name,
// at first while a script holds the signal thread up.
TEST_F(SupervisionSandbox, DaemonsAreStartedFoundAndStartedAgain)
{
    place_probe("/tmp/agent1");
    place_probe("/tmp/worker");
    write_file("/tmp/script", "#!/bin/sh\n[ ! -e /tmp/started ] || exec sleep 99\n", 0755);
    write_config("global res_monit_interval 2\nglobal vm_failover DISABLE\n" +
                 section("w", "NORMAL", "PROC_RESTART", "/tmp/worker run") +
                 "w pre_start_cmd \"/tmp/script\"\n" +
                 section("absent1", "DAEMON", "PROC_RESTART", "/nonexistent /tmp/agent1") +
                 section("agent1", "DAEMON", "PROC_RESTART", "/tmp/agent1 daemonize") +
                 section("nobody1", "SYSTEM", "NOP", "SYSTEM"));
    start_daemon();
    const pid_t worker = find_process("worker");
    write_file("/tmp/started", "");
    ASSERT_EQ(kill(worker, SIGKILL), 0);
    size_t step = vm->wait_in_order(0, {{LOG_ALERT, "Process 'agent1' is not started\n"},
                                        {LOG_INFO, "Process 'agent1' started; *"},
                                        {LOG_CRIT, "No: of times spawned by process manager [1]\n"}});
    write_file("/tmp/clock_set_back", "");  // which must not delay the watching
    step = vm->wait_for(LOG_INFO, " No recovery action is executed for  process 'nobody1'\n", step).number;
    vm->wait_for(LOG_ERR, "[/nonexistent /tmp/agent1]: execvp failed\n", step);
    ASSERT_EQ(kill(find_process("sleep"), SIGKILL), 0);
    // The first process of a DAEMON ends at once; what counts is the one found by name after 10 seconds.
    ASSERT_EQ(kill(find_process("agent1"), SIGKILL), 0);
    vm->wait_in_order(step, {{LOG_ALERT, "Process 'agent1' is terminated\n"},
                             {LOG_CRIT, "No: of times spawned by process manager [2]\n"}});
    EXPECT_EQ(vm->count(LOG_ALERT, "Process 'nobody1' is not started\n"), 1U);
    EXPECT_EQ(vm->count(LOG_ALERT, "Process 'agent1' terminated;*"), 0U);
}
