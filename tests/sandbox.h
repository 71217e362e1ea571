// The fixture of every test that runs the daemon, or calls those of its functions that touch the system. The
// whole test program runs inside scripts/in-vm; each test gets an empty /tmp, /var and /etc/config and a host
// (see host.h) of its own, and leaves no process running.
//
// The suites' names end in "Sandbox" (using WatchdogSandbox = Sandbox): CTest labels them by this ending.

#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "halvo_ctrl_handler.h"
#include "host.h"

class Sandbox : public testing::Test {
protected:
    struct run_result {
        int status;          // exit status, or 128 + signal
        std::string output;  // standard output and error
    };

    void SetUp() override;
    void TearDown() override;

    static void write_file(const std::string& path, const std::string& text, mode_t mode = 0644);
    static void write_config(const std::string& text);
    static std::string section(const std::string& name, const std::string& type, const std::string& action,
                               const std::string& start_cmd);
    static std::string read_file(const std::string& path);

    // The rows of a file below data/, each of `columns` cells; a "|" ends each cell, a line end each row.
    static std::vector<std::vector<std::string>> read_table(const std::string& name, size_t columns);

    // Puts the probe (see probe.cpp) under a name that pidof can find it by.
    static void place_probe(const std::string& path);

    // Starts one command of the shell; the pid is that of the program it names.
    static pid_t start(const std::string& command);

    // A process as /proc/PID/stat has it, see proc(5).
    struct process {
        pid_t pid;
        std::string name;
        char state;
        pid_t parent;
    };

    // All processes, zombies too; and the pid of a running one with that name, as soon as there is one.
    static std::vector<process> processes();
    static pid_t find_process(const std::string& name);

    // Returns as soon as the condition holds. If it does not hold in time, throws std::runtime_error with
    // the text `what`.
    static void wait_until(const std::string& what, const std::function<bool()>& holds);

    // The fewest descriptors that the process has at any of many looks: those it has at rest.
    static std::ptrdiff_t count_descriptors(pid_t pid);

    // Starts the daemon with its device connected to the host; `environment` is for env(1). When the test
    // ends, the daemon's output outside the log is searched for sanitizers' findings.
    static pid_t start_daemon(const std::string& environment = "");

    // Run a command, or halvo with arguments, to its end.
    static run_result run(const std::string& command);
    static run_result run_halvo(const std::string& arguments);

    // A client's connection to the daemon; it waits no longer than PATIENCE.
    static int connect_daemon();

    // A listening socket of that user in the daemon's place; its accept(2) waits no longer than PATIENCE.
    static int listen_as(uid_t user);

    // The daemon's reply to the request, at most one record; empty without `waits`.
    static std::string exchange(const std::string& request, bool waits = true);

    // The text of the daemon's reply to a request of that type.
    static std::string ask(ctrl_handler_msg_type_en type);

    // Exit status, or 128 + signal. Throws std::runtime_error when the process is still there.
    static int wait_exit(pid_t pid);

    // What this process has logged since the last call, all lines in one text.
    std::string new_log();

    std::unique_ptr<host> vm;

private:
    size_t log_mark_ = 0;
};
