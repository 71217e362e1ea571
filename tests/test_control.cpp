// The operator's channel: what the reports say to the byte, what a live update leaves in force, and what
// the socket's other end can do to the server.

#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "halvo_command.h"
#include "halvo_ctrl_handler.h"
#include "halvo_main.h"
#include "halvo_process.h"
#include "halvo_recur_fail.h"
#include "halvo_report.h"
#include "halvo_update.h"
#include "halvo_utils.h"
#include "sandbox.h"

using ControlSandbox = Sandbox;
using std::chrono::seconds;

// Fills the running tables from a configuration as start-up does.
static void load(const std::string& text)
{
    std::ofstream("/etc/config/halvo.conf") << text;
    memset(child_proc_table_g, 0, sizeof(child_proc_table_g));
    vm_info_g = {};
    ASSERT_EQ(halvo_read_confile(&vm_info_g, child_proc_table_g), 0);
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

// An update: what is changed in the base configuration, its answer, and what is in force afterwards.
struct update {
    std::string from;
    std::string to;
    std::string answer;
    std::function<bool()> in_force;
};

TEST_F(ControlSandbox, AnUpdateLeavesInForceWhatCameBeforeItsFault)
{
    static halvo_child_proc_info_st& a = child_proc_table_g[0];
    static halvo_child_proc_info_st& b = child_proc_table_g[1];
    const std::string done = "Configuration updated successfully\n";
    const std::vector<update> updates = {
        {"", "", done, [] { return a.proc_state == TERMINATED; }},
        {"global",
         "global version 9\nglobal wd_tick_interval 7\nglobal wd_timeout 9\nglobal res_monit_interval 8\n"
         "global vm_mem_high_water 4\nglobal debug_mode ENABLE\nglobal",
         done,
         [] {
             return vm_info_g.version == 9 && vm_info_g.wd_tick_intvl == 7 && vm_info_g.wd_timeout == 9 &&
                    vm_info_g.res_mon_intvl == 8 && vm_info_g.mem_high_water == 4 &&
                    halvo_debug_mode_g == ENABLE;
         }},
        {"process name b", "b",
         "Error in reading config file\nFor detailed info, use command: cat /usr/admin/log/messages\n",
         [] { return vm_info_g.version == 1; }},
        {"process name b",
         "process name c\nc start_cmd \"/bin/sleep 3\"\nc process_type SYSTEM\nprocess name b",
         "The no: of processes which are monitored cannot be changed on the fly\n"
         "In existing config, no: of process [2]; the new config shows [3] processes\n",
         [] { return vm_info_g.mon_proc_num == 2; }},
        {"process name a\na process_type NORMAL", "global version 5\nprocess name a\na process_type DAEMON",
         "Process 'a': process type cannot be changed on the fly\nExisting Process type: Normal process\n"
         "New Process type: Daemon process\n",
         [] { return vm_info_g.version == 5; }},
        {"sleep 1\"",
         "sleep 4\"\na pre_start_cmd \"/bin/true\"\na post_start_cmd \"/none x\"\na proc_mem_high_water 4",
         "Process 'a': Script mentioned in post-start command [/none x] doesn't exist\n",
         [] {
             return std::string(a.start_cmd) == "/bin/sleep 4" &&
                    std::string(a.pre_start_cmd) == "/bin/true" && !halvo_has_command(a.post_start_cmd) &&
                    a.proc_mem_high_water == 0;
         }},
        {"/bin/sleep 1", "/none 1", "File mentioned in  process 'a' start command doesn't exist\n",
         [] { return std::string(a.start_cmd) == "/bin/sleep 1"; }},
        {"/bin/sleep 1", "START_CMD_FILE /tmp/cmd", done,
         [] {
             return std::string(a.start_cmd) == "/bin/sleep 1 x" &&
                    std::string(a.start_cmd_filename) == "START_CMD_FILE /tmp/cmd";
         }},
        {"a action NOP", "a action VM_FAILOVER\na proc_cpu_total_high_water 3", done,
         [] { return a.action == VM_FAILOVER && a.proc_state == UNKNOWN && a.proc_cpu_tot_high_water == 3; }},
        {"proc_cpu_grace_time 1", "proc_cpu_grace_time 2", done, [] { return a.cpu_grace_time == 1; }},
        {"b recur_fail_interval 60",
         "b recur_fail_interval 61\nb proc_mem_low_water 6\nb stop_cmd \"/bin/true\"",
         "Recurring failure management parameters cannot be changed on the fly\n",
         [] {
             return b.recur_fail_intvl == 60 && b.proc_mem_low_water == 6 && halvo_has_command(b.stop_cmd);
         }},
    };
    const std::string base_config = read_file(HALVO_DATA "update_base.conf");
    write_file("/tmp/cmd", "/bin/sleep 1 x\n");
    for (const update& change : updates) {
        load(base_config);
        a.proc_state = TERMINATED;
        std::string text = base_config;
        write_config(text.replace(text.find(change.from), change.from.size(), change.to));
        std::string answer(ACK_MSG_SIZE, '\0');
        EXPECT_EQ(halvo_update_config(answer.data()), change.answer == done ? 0 : -1);
        EXPECT_EQ(std::string(answer.c_str()), change.answer) << change.to;
        EXPECT_TRUE(change.in_force()) << change.to;
        delete b.recur_fail_list;
    }
    load(base_config);
    std::string answer(ACK_MSG_SIZE, '\0');
    write_config(
        "process name b\nb process_type NORMAL\nb start_cmd \"x\"\nprocess name a\na process_type NORMAL\n"
        "a start_cmd \"x\"\nglobal vm_failover DISABLE\n");
    EXPECT_EQ(halvo_update_config(answer.data()), -1);
    EXPECT_STREQ(answer.c_str(), "process name is not matching; existing name [a]; new name [b]\n");
    delete b.recur_fail_list;
}

// Only whole commands are started and no report is torn while processes die, rings turn, trigger and are
// freed, and updates store other commands. ThreadSanitizer watches.
TEST_F(ControlSandbox, UpdatesAndReportsStandAStorm)
{
    place_probe("/tmp/worker");
    std::string config = "global vm_failover ENABLE\n";
    for (const std::string name : {"p", "q", "r"}) {
        config += "process name " + name + "\n" + name + " process_type NORMAL\n" + name +
                  " action PROC_RESTART\n" + name + " recur_fail_interval 86400\n" + name +
                  " recur_fail_restart_count " + (name == "p" ? "60" : "9") + "\n" + name +
                  " start_cmd \"/tmp/worker run LONG\"\n";
    }
    const auto with_command = [&](char letter) {
        std::string text = config;
        for (size_t at = 0; (at = text.find("LONG")) != std::string::npos;) {
            text.replace(at, 4, std::string(900, letter));
        }
        return text;
    };
    load(with_command('a'));
    ASSERT_EQ(halvo_signal_init(), 0);
    for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
        ASSERT_EQ(halvo_start_process(&child_proc_table_g[i]), 0);
    }
    const std::jthread killer([&](const std::stop_token& stop) {
        for (size_t seen = 0; !stop.stop_requested();) {
            seen = vm->wait_for(LOG_INFO, "Process 'p' started; *", seconds(20), seen).number;
            const std::lock_guard guard(halvo_table_lock_g);
            for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
                if (child_proc_table_g[i].pid > 1) {
                    kill(child_proc_table_g[i].pid, SIGKILL);
                }
            }
        }
    });
    const auto starts = [] {
        const std::lock_guard guard(halvo_table_lock_g);
        return child_proc_table_g[0].spawn_count;
    };
    for (int round = 0; round < 1000 || starts() < 100; ++round) {
        std::string text(MSG_BUFFER_SIZE, '\0');
        if (round % 5 == 0) {
            write_config(with_command(round % 2 == 0 ? 'b' : 'a'));
            ASSERT_EQ(halvo_update_config(text.data()), 0) << text;
            text.assign(MSG_BUFFER_SIZE, '\0');
        }
        halvo_display_status_info(text.data());
        ASSERT_NE(text.find("Process 'r': Status:\n"), std::string::npos);
    }
    const size_t end = vm->count(HOST_ANY, "*");
    const std::string started = "Process '*' started; start cmd [/tmp/worker run ";
    const size_t whole = vm->count(LOG_INFO, started + std::string(900, 'a') + "]\n", 0, end) +
                         vm->count(LOG_INFO, started + std::string(900, 'b') + "]\n", 0, end);
    EXPECT_GT(whole, 100U);
    EXPECT_EQ(whole, vm->count(LOG_INFO, started + "*", 0, end));
}

static int connect_client()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = halvo_socket_address();
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    return fd;
}

// At rest: the daemon may be reading a file, or be about to close the last client's connection.
static std::ptrdiff_t count_descriptors(pid_t pid)
{
    auto fewest = std::numeric_limits<std::ptrdiff_t>::max();
    for (int look = 0; look < 1000; ++look) {
        const std::filesystem::directory_iterator entries("/proc/" + std::to_string(pid) + "/fd");
        fewest = std::min(fewest, std::distance(begin(entries), end(entries)));
    }
    return fewest;
}

TEST_F(ControlSandbox, WhateverArrivesTheNextClientIsServed)
{
    write_config("global vm_failover DISABLE\n");
    umask(0);
    const pid_t daemon = start_daemon();
    vm->wait_for(LOG_INFO, "lunet pid 0", seconds(20));  // pidof's pipe is closed
    EXPECT_EQ(run_halvo("-s", seconds(20)).status, 0);
    struct stat status {};
    ASSERT_EQ(stat(HALVO_SOCKET, &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    const auto descriptors = count_descriptors(daemon);

    const std::string text_request("\x02\0\0\0", 4);
    const std::vector<std::string> requests = {"",
                                               "x",
                                               text_request,
                                               std::string(8196, '\xff'),
                                               text_request + std::string(8192, 'x'),
                                               std::string(20000, '\x01'),
                                               std::string("\x05\0\0\0", 4) + std::string(4096, 'x')};
    for (const std::string& request : requests) {
        for (const bool reads : {true, false}) {
            const host_fd client{connect_client()};
            send(client.fd, request.data(), request.size(), MSG_NOSIGNAL);
            shutdown(client.fd, SHUT_WR);
            halvo_ctrl_handler_st reply{};
            if (reads && !request.empty()) {
                EXPECT_EQ(recv(client.fd, &reply, sizeof(reply), MSG_WAITALL), 8196) << request.size();
            }
        }
        EXPECT_NE(run_halvo("-s", seconds(20)).output.find("Halvo: Status:\n"), std::string::npos);
    }
    for (int request = 0; request < 10000; ++request) {
        const host_fd client{connect_client()};
        halvo_ctrl_handler_st record{};
        record.msg_type = GET_ALL_STATUS;
        ASSERT_EQ(send(client.fd, &record, sizeof(record), MSG_NOSIGNAL), 8196);
        ASSERT_EQ(recv(client.fd, &record, sizeof(record), MSG_WAITALL), 8196);
    }
    const host_fd silent{connect_client()};  // holds the next one up, but not for ever
    EXPECT_EQ(run_halvo("-c", seconds(20)).status, 0);
    EXPECT_EQ(count_descriptors(daemon), descriptors);
}

TEST_F(ControlSandbox, OptionsAreTakenInTheirOrder)
{
    const std::string refusal = "Unable to connect to sockfd\nNo such file or directory [errno: 2]\n";
    EXPECT_EQ(run_halvo("-s", seconds(20)).output, refusal);
    EXPECT_EQ(run_halvo("word", seconds(20)).output,
              "halvo: invalid option -- word  (-h will show valid options)\n");
    const run_result help = run_halvo("-c -h -x", seconds(20));
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.output, read_file(HALVO_DATA "help.txt"));

    write_config("global vm_failover DISABLE\n");
    start_daemon();
    vm->wait_for(LOG_INFO, "Initialized heartbeat payload\n", seconds(20));
    EXPECT_EQ(
        run_halvo("-s -cx", seconds(20)).output.find("/mnt/halvo: invalid option -- 'x'\nGlobal: Config"),
        0U);
    EXPECT_EQ(run_halvo("-c -w", seconds(20)).output, "VM failover is already disabled\n\n");
    const run_result stranger =
        run("setpriv --reuid=65534 --clear-groups " HALVO_EXECUTABLE " -s", seconds(20));
    EXPECT_EQ(stranger.status, 1);
    EXPECT_EQ(stranger.output, "Unable to connect to sockfd\nPermission denied [errno: 13]\n");
    // A pipe that nobody reads any more.
    EXPECT_EQ(run("bash -c 'exec 3> >(:); wait $!; " HALVO_EXECUTABLE " -c >&3'", seconds(20)).status, 0);
}

TEST_F(ControlSandbox, NobodyComesBetweenTheOperatorAndTheOneDaemon)
{
    const sockaddr_un address = halvo_socket_address();
    const host_fd stranger{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    ASSERT_EQ(seteuid(65534), 0);
    ASSERT_EQ(bind(stranger.fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(stranger.fd, 1), 0);
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(run_halvo("-w", seconds(20)).output,
              "Unable to connect to sockfd\nOperation not permitted [errno: 1]\n");
    ASSERT_EQ(unlink(HALVO_SOCKET), 0);
    ASSERT_EQ(symlink("/nowhere", HALVO_SOCKET), 0);

    write_config(
        "global vm_failover DISABLE\nprocess name w\nw process_type NORMAL\nw action PROC_RESTART\n"
        "w start_cmd \"/bin/sleep 1000\"\n");
    start_daemon();
    vm->wait_for(LOG_INFO, "Process manager started: pid [*]\n", seconds(20));
    EXPECT_EQ(run_halvo("", seconds(20)).status, 1);
    vm->wait_for(LOG_ALERT, "Process manager is already running. Process manager is exiting\n", seconds(5));
    EXPECT_EQ(run_halvo("-w", seconds(20)).output, "VM failover is already disabled\n\n");
    EXPECT_EQ(vm->count(LOG_INFO, "Process 'w' started; *"), 1U);

    ASSERT_EQ(unlink(HALVO_SOCKET), 0);
    vm->wait_for(LOG_ERR, "halvo_socket is gone. Binding it again\n", seconds(20));
    const auto deadline = host_clock::now() + seconds(10);
    while (run_halvo("-s", seconds(20)).status != 0) {
        ASSERT_LT(host_clock::now(), deadline);
    }
}

// Disarmed at once though a script runs, which holds copies of the daemon's descriptors; armed again before
// the sleep ends that began with a longer interval.
TEST_F(ControlSandbox, FailoverIsSwitchedOffAndOnWhileAScriptRuns)
{
    const std::string worker =
        "process name w\nw process_type NORMAL\nw start_cmd \"/bin/sleep 99\"\n"
        "w post_start_cmd \"/bin/sleep 88\"\n";
    write_config("global wd_tick_interval 60\nglobal wd_timeout 60\n" + worker);
    start_daemon();
    vm->wait_for(LOG_INFO, "Executing script [/bin/sleep 88]\n", seconds(20));
    const size_t ticking = vm->wait_for(HOST_DEVICE, "keepalive", seconds(20)).number;
    EXPECT_EQ(run_halvo("-w", seconds(20)).output, "VM failover is disabled\n\n");
    const size_t off = vm->wait_for(HOST_DEVICE, "disarmed", seconds(5), ticking).number;
    EXPECT_EQ(run_halvo("-w", seconds(20)).output, "VM failover is already disabled\n\n");
    write_config("global wd_tick_interval 1\nglobal wd_timeout 2\n" + worker);
    EXPECT_EQ(run_halvo("-r", seconds(20)).output, "Configuration updated successfully\n\n");
    size_t step = vm->wait_for(HOST_DEVICE, "settimeout 2", seconds(5), off).number;
    for (int i = 0; i < 4; ++i) {
        step = vm->wait_for(HOST_DEVICE, "keepalive", seconds(20), step).number;
    }
    EXPECT_EQ(vm->count(HOST_DEVICE, "expired"), 0U);
}
