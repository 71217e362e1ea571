// The fixture of every test that runs the daemon, or calls its code where that touches the system. The whole
// test program runs inside scripts/in-vm; each test gets an empty /tmp, /var and /etc/config and a host (see
// host.h) of its own, and leaves no process behind.
//
// The suites' names end in "Sandbox" (using WatchdogSandbox = Sandbox): CTest labels them by that.

#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <memory>
#include <string>

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
    static std::string read_file(const std::string& path);

    // Puts a socket that nobody reads, with a queue of so many lines and one more, in the place of the host's
    // log, and returns it.
    static constexpr sockaddr_un log_address{AF_UNIX, "/dev/log"};
    static int take_over_log(int queue_length = 10);

    // Puts the probe (see probe.cpp) under a name that pidof can find it by.
    static void place_probe(const std::string& path);

    // Starts one command of the shell; the pid is that of the program it names.
    static pid_t start(const std::string& command);

    // Waits until a process of that name, as /proc/PID/comm has it, runs, and returns its pid.
    static pid_t find_process(const std::string& name);

    // The daemon, its device connected to the host; `environment` is what env(1) takes. What the daemon
    // says outside the log is looked through for sanitizers' findings when the test ends.
    static pid_t start_daemon(const std::string& environment = "");

    // A command to its end, and the executable with arguments.
    static run_result run(const std::string& command, std::chrono::seconds patience);
    static run_result run_halvo(const std::string& arguments, std::chrono::seconds patience);

    // Exit status, or 128 + signal. Throws std::runtime_error when the process is still there.
    static int wait_exit(pid_t pid, std::chrono::seconds patience);

    // What this process has logged since the last call, all lines in one text.
    std::string new_log();

    std::unique_ptr<host> vm;

private:
    size_t log_mark_ = 0;
};
