// The operator's channel: the exact reports, the settings that a live update leaves in force, and the harm
// that a client can do to the server.

#include <syslog.h>

#include <fstream>
#include <sstream>
#include <string>

#include "halvo_command.h"
#include "halvo_ctrl_handler.h"
#include "halvo_pid_lookup.h"
#include "halvo_process.h"
#include "halvo_recur_fail.h"
#include "halvo_report.h"
#include "halvo_signal.h"
#include "halvo_update.h"
#include "halvo_utils.h"
#include "halvo_watermark.h"
#include "sandbox.h"

using ControlSandbox = Sandbox;

// Fills the running tables from a configuration as start-up does.
static void load(const std::string& text)
{
    std::ofstream("/etc/config/halvo.conf") << text;
    for (halvo_child_proc_info_st& entry : child_proc_table_g) {
        delete entry.recur_fail_list;
        entry = {};
    }
    vm_info_g = {};
    ASSERT_EQ(halvo_read_confile(&vm_info_g, child_proc_table_g), 0);
    halvo_debug_mode_g = vm_info_g.debug_mode_flag;
    for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
        ASSERT_EQ(halvo_check_file_exists(&child_proc_table_g[i]), 0);
        if (halvo_counts_recur_fail(&child_proc_table_g[i])) {
            child_proc_table_g[i].recur_fail_list = halvo_create_recur_fail_list();
        }
    }
}

TEST_F(ControlSandbox, ReportsAreExactInTheReplyAndInTheLog)
{
    write_file("/tmp/cmd", "/bin/sleep 1\n");
    setenv("TZ", "UTC", 1);
    load(read_file(HALVO_DATA "full.conf"));
    halvo_child_proc_info_st& a = child_proc_table_g[0];
    vm_info_g.vm_failover_flag = DISABLE;
    vm_info_g.halvo_pid = 4711;
    vm_info_g.cpu_user = 12.34F;
    vm_info_g.total_memory = 30;
    vm_info_g.used_memory = 20;
    vm_info_g.free_memory = 10;
    a.proc_state = ACTIVE;
    a.pid = 123;
    a.proc_cpu_kernel = 1;
    a.proc_cpu_user = 2;
    a.proc_cpu_tot_usage = 3;
    a.kbytes_used = 4;
    a.max_kbytes_used = 5;
    a.spawn_count = 2;
    a.last_spawn_time = 101;
    halvo_insert_recur_fail_info(a.recur_fail_list, "a", 60, 100, 3);
    halvo_insert_recur_fail_info(a.recur_fail_list, "a", 60, 101, 3);
    child_proc_table_g[2].proc_state = TERMINATED;

    std::string config(MSG_BUFFER_SIZE, '\0');
    std::string status(MSG_BUFFER_SIZE, '\0');
    halvo_display_config_details(config.data());
    halvo_display_status_info(status.data());
    const std::string full_report = read_file(HALVO_DATA "full_report.txt");
    EXPECT_EQ(std::string(config.c_str()) + status.c_str(), full_report);
    new_log();
    halvo_sigusr1_cb();
    EXPECT_EQ(new_log(), full_report);
    EXPECT_EQ(vm->count(HOST_ANY, "*"), vm->count(LOG_INFO, "*"));
}

TEST_F(ControlSandbox, AFullReplyTakesWhatStillFits)
{
    std::string text(8, '\0');
    halvo_append_msg(text.data(), text.size(), "%s", "1234\n");
    halvo_append_msg(text.data(), text.size(), "%s", "678");
    halvo_append_msg(text.data(), text.size(), "%s", "67");
    EXPECT_STREQ(text.c_str(), "1234\n67");
    EXPECT_EQ(new_log(), "Control handler message buffer is full\n");
    std::string unterminated(8, 'x');
    halvo_append_msg(unterminated.data(), 8, "%s", "");
    EXPECT_EQ(unterminated, "xxxxxxxx");
    std::string line(MSG_BUFFER_SIZE, '\0');
    halvo_append_msg(line.data(), line.size(), "%s\n", std::string(2000, 'l').c_str());
    EXPECT_EQ(std::string(line.c_str()), std::string(1022, 'l') + "\n");
}

// The table: what is replaced in the base configuration, "*" for all of it; by what; the answer; the lines
// that both reports have then and did not have before.
TEST_F(ControlSandbox, AnUpdateLeavesInForceWhatCameBeforeItsFault)
{
    const std::string base = read_file(HALVO_DATA "update_base.conf");
    const auto report = [] {
        std::string text(MSG_BUFFER_SIZE, '\0');
        halvo_display_config_details(text.data());
        halvo_display_status_info(text.data());
        return std::string(text.c_str()) + "Debug mode: " + std::to_string(halvo_debug_mode_g) + "\n";
    };
    write_file("/tmp/cmd", "/bin/sleep 1 x\n");
    for (const auto& row : read_table("updates.txt", 4)) {
        load(base);
        child_proc_table_g[0].proc_state = child_proc_table_g[1].proc_state = TERMINATED;
        const std::string before = report();
        std::string text = base;
        write_config(row[0] == "*" ? row[1] : text.replace(text.find(row[0]), row[0].size(), row[1]));
        std::string answer(ACK_MSG_SIZE, '\0');
        EXPECT_EQ(halvo_update_config(answer.data()), row[2].ends_with("successfully\n") ? 0 : -1);
        EXPECT_EQ(answer.c_str(), row[2]) << row[1];
        std::string added;
        std::istringstream after(report());
        for (std::string line; getline(after, line);) {
            added += before.find(line + "\n") == std::string::npos ? line + "\n" : "";
        }
        EXPECT_EQ(added, row[3]) << row[1];
    }
}

// A process dies as soon as it is started; its ring turns, triggers and is freed. ThreadSanitizer watches: it
// sees an access without the lock only when no other hold of it comes between, hence the many rounds.
TEST_F(ControlSandbox, UpdatesReportsAndLimitsHoldTheLock)
{
    const auto config = [](int argument) {
        return section("p", "NORMAL", "PROC_RESTART", "/bin/false " + std::to_string(argument)) +
               "p recur_fail_interval 86400\np recur_fail_restart_count 9\n";
    };
    load(config(0));
    ASSERT_EQ(halvo_signal_init() + halvo_signal_start(), 0);
    ASSERT_EQ(halvo_start_process(&child_proc_table_g[0]), 0);
    for (int round = 1; round <= 500; ++round) {
        std::string text(MSG_BUFFER_SIZE, '\0');
        write_config(config(round));
        ASSERT_EQ(halvo_update_config(text.data()), 0);
        halvo_display_config_details(text.data());
        halvo_display_status_info(text.data());
        halvo_check_high_low_watermark();
    }
    vm->wait_for(LOG_INFO, "Process 'p' started; *", vm->count(HOST_ANY, "*"));
}

TEST_F(ControlSandbox, OptionsAreTakenInTheirOrder)
{
    const std::string refusal = "Unable to connect to sockfd\nNo such file or directory [errno: 2]\n";
    EXPECT_EQ(run_halvo("-s").output, refusal);
    EXPECT_EQ(run_halvo("word").output, "halvo: invalid option -- word  (-h will show valid options)\n");
    const run_result help = run_halvo("-c -h -x");
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.output, read_file(HALVO_DATA "help.txt"));

    write_config("global vm_failover DISABLE\n");
    start_daemon();
    vm->wait_for(LOG_INFO, "Initialized heartbeat payload\n");
    EXPECT_EQ(run_halvo("-s -cx").output.find("/mnt/halvo: invalid option -- 'x'\nGlobal: Config"), 0U);
    EXPECT_EQ(run_halvo("-c -w").output, "VM failover is already disabled\n\n");
    const run_result stranger = run("setpriv --reuid=65534 --clear-groups " HALVO_EXECUTABLE " -s");
    EXPECT_EQ(stranger.status, 1);
    EXPECT_EQ(stranger.output, "Unable to connect to sockfd\nPermission denied [errno: 13]\n");
    // A pipe whose reader is gone.
    EXPECT_EQ(run("bash -c 'exec 3> >(:); wait $!; " HALVO_EXECUTABLE " -c >&3'").status, 0);
}

TEST_F(ControlSandbox, NobodyComesBetweenTheOperatorAndTheOneDaemon)
{
    const host_fd stranger{listen_as(65534)};
    EXPECT_EQ(run_halvo("-w").output, "Unable to connect to sockfd\nOperation not permitted [errno: 1]\n");
    close(connect_daemon());  // its queue of connections is full now

    // A script that outlives its daemon is no daemon, nor is the stranger.
    const std::string config =
        "global vm_failover DISABLE\n" + section("w", "NORMAL", "PROC_RESTART", "/bin/sleep 1000");
    write_config(config + "w post_start_cmd \"/bin/sleep 2000\"\n");
    const pid_t dead = start_daemon();
    vm->wait_for(LOG_INFO, "Executing script [/bin/sleep 2000]\n");
    ASSERT_TRUE(kill(dead, SIGKILL) == 0 && wait_exit(dead) == 128 + SIGKILL);
    write_config(config);
    const pid_t daemon = start_daemon();
    vm->wait_for(LOG_INFO, "Process manager started: pid [*]\n");
    EXPECT_EQ(run_halvo("").status, 1);
    const std::string running = "Process manager is already running. Process manager is exiting\n";
    const size_t refused = vm->wait_for(LOG_ALERT, running).number;
    EXPECT_EQ(run_halvo("-w").output, "VM failover is already disabled\n\n");
    // A stopped daemon queues six connections: one second daemon is not answered, the other not queued.
    ASSERT_TRUE(kill(daemon, SIGSTOP) == 0 && waitpid(daemon, nullptr, WUNTRACED) == daemon);
    for (int i = 0; i < 5; ++i) {
        close(connect_daemon());
    }
    const pid_t second = start(HALVO_EXECUTABLE);
    EXPECT_EQ(run_halvo("").status, 1);
    EXPECT_EQ(wait_exit(second), 1);
    vm->wait_in_order(refused, {{LOG_ALERT, running}, {LOG_ALERT, running}});
    ASSERT_EQ(kill(daemon, SIGCONT), 0);
    EXPECT_EQ(vm->count(LOG_INFO, "Process 'w' started; *"), 2U);

    ASSERT_EQ(unlink(HALVO_SOCKET), 0);
    vm->wait_for(LOG_ERR, "halvo_socket is gone. Binding it again\n");
    wait_until("an answer", [] { return run_halvo("-s").status == 0; });
}

// Disarmed at once while a script runs, which must not hold a copy of the device's descriptor; armed again
// during a sleep that began with a longer interval, and kept alive at once.
TEST_F(ControlSandbox, FailoverIsSwitchedOffAndOnWhileAScriptRuns)
{
    const std::string worker =
        section("w", "NORMAL", "NOP", "/bin/sleep 99") + "w post_start_cmd \"/bin/sleep 88\"\n";
    write_config("global wd_tick_interval 60\nglobal wd_timeout 60\n" + worker);
    start_daemon();
    vm->wait_for(LOG_INFO, "Executing script [/bin/sleep 88]\n");
    const size_t ticking = vm->wait_for(HOST_DEVICE, "keepalive").number;
    EXPECT_EQ(run_halvo("-w").output, "VM failover is disabled\n\n");
    const size_t off = vm->wait_for(HOST_DEVICE, "disarmed", ticking).number;
    EXPECT_EQ(ask(DISABLE_VM_FAILOVER), "VM failover is already disabled\n");
    write_config("global wd_tick_interval 1\nglobal wd_timeout 2\n" + worker);
    EXPECT_EQ(run_halvo("-r").output, "Configuration updated successfully\n\n");
    const std::pair<int, std::string> tick(HOST_DEVICE, "keepalive");
    vm->wait_in_order(off, {{HOST_DEVICE, "settimeout 2"}, tick, tick, tick, tick});
    EXPECT_EQ(vm->count(HOST_DEVICE, "expired"), 0U);
}
