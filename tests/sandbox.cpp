#include "sandbox.h"

#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

extern "C" {
#include <sys/pidfd.h>  // glibc 2.36 does not say itself that this is C
}

#include "halvo_log.h"
#include "halvo_private.h"

namespace fs = std::filesystem;

static constexpr std::array OWN_PLACES{"/tmp", "/var", "/etc/config"};

static void check(bool success, const std::string& what)
{
    if (!success) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

// Datagrams that wait unread at a socket made from now on, and one more; 10 unless an init system sets it.
static void set_queue_length(int datagrams)
{
    std::ofstream("/proc/sys/net/unix/max_dgram_qlen") << datagrams;
}

void Sandbox::SetUp()
{
    for (const char* const place : OWN_PLACES) {
        check(mount("tmpfs", place, "tmpfs", 0, nullptr) == 0, place);
    }
    set_queue_length(512);  // where the host is slow, no line of a thread in a hurry must be lost
    vm = std::make_unique<host>();
    halvo_log_open();  // for tests that call the daemon's code themselves
}

// Where a test runs the daemon's signal thread in this process, it must not start again what is killed here.
static void stop_restarts()
{
    const std::lock_guard guard(halvo_table_lock_g);
    for (halvo_child_proc_info_st& entry : child_proc_table_g) {
        entry.action = NOP;
    }
}

void Sandbox::TearDown()
{
    stop_restarts();
    while (kill(-1, SIGKILL) == 0) {  // orphans are reaped by the first process, and only it knows when
        if (waitpid(-1, nullptr, 0) < 0) {
            sched_yield();
        }
    }
    const std::string output = read_file("/var/daemon.out");
    EXPECT_EQ(output.find("Sanitizer"), std::string::npos) << output;
    EXPECT_EQ(output.find("runtime error"), std::string::npos) << output;
    vm.reset();
    for (const char* const place : OWN_PLACES) {
        check(umount2(place, MNT_DETACH) == 0, place);
    }
}

std::string Sandbox::new_log()
{
    halvo_log(LOG_INFO, "end of log\n");
    const size_t end = vm->wait_for(LOG_INFO, "end of log\n", std::chrono::seconds(20), log_mark_).number;
    const std::string text = vm->text_between(log_mark_, end);
    log_mark_ = end;
    return text;
}

void Sandbox::write_file(const std::string& path, const std::string& text, mode_t mode)
{
    std::ofstream(path) << text;
    check(chmod(path.c_str(), mode) == 0, path);
}

void Sandbox::write_config(const std::string& text)
{
    write_file("/etc/config/halvo.conf", text);
}

std::string Sandbox::read_file(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

int Sandbox::take_over_log(int queue_length)
{
    set_queue_length(queue_length);
    const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    check(rename("/dev/log", "/dev/log.host") == 0, "/dev/log");
    check(bind(log, reinterpret_cast<const sockaddr*>(&log_address), sizeof(log_address)) == 0, "/dev/log");
    return log;
}

void Sandbox::place_probe(const std::string& path)
{
    fs::copy_file(HALVO_PROBE, path);
}

pid_t Sandbox::start(const std::string& command)
{
    const std::string line = "exec " + command;
    const pid_t pid = fork();  // posix_spawn would leave a signal of glibc's own ignored in the program
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
        _exit(127);
    }
    check(pid > 0, command);
    return pid;
}

pid_t Sandbox::find_process(const std::string& name)
{
    const auto deadline = host_clock::now() + std::chrono::seconds(20);
    while (host_clock::now() < deadline) {
        for (const auto& entry : fs::directory_iterator("/proc")) {
            const std::string pid = entry.path().filename();
            if (isdigit(pid[0]) != 0 && read_file(entry.path() / "comm") == name + "\n") {
                return std::stoi(pid);
            }
        }
    }
    throw std::runtime_error("no process " + name);
}

pid_t Sandbox::start_daemon(const std::string& environment)
{
    return start("env " + environment +
                 " ASAN_OPTIONS=verify_asan_link_order=0 LD_PRELOAD=" HALVO_PRELOAD " " HALVO_EXECUTABLE
                 " </dev/null >>/var/daemon.out 2>&1");
}

Sandbox::run_result Sandbox::run_halvo(const std::string& arguments, std::chrono::seconds patience)
{
    return run(HALVO_EXECUTABLE " " + arguments, patience);
}

Sandbox::run_result Sandbox::run(const std::string& command, std::chrono::seconds patience)
{
    const pid_t pid = start(command + " </dev/null >/var/client.out 2>&1");
    const int status = wait_exit(pid, patience);
    return {status, read_file("/var/client.out")};
}

int Sandbox::wait_exit(pid_t pid, std::chrono::seconds patience)
{
    const host_fd process{pidfd_open(pid, 0)};
    pollfd ready{process.fd, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(patience).count())) != 1) {
        throw std::runtime_error("still there: pid " + std::to_string(pid));
    }
    int status = 0;
    check(waitpid(pid, &status, 0) == pid, "pid " + std::to_string(pid));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int main(int argc, char** argv)
{
    std::vector<char*> again(argv, argv + argc + 1);  // the closing null included; gtest takes its own away
    testing::InitGoogleTest(&argc, argv);
    if (testing::GTEST_FLAG(list_tests) || getenv("HALVO_IN_VM") != nullptr) {
        return RUN_ALL_TESTS();
    }
    std::string script = HALVO_SOURCE_DIR "/scripts/in-vm";
    std::string place = HALVO_BUILD_DIR;
    std::string self = HALVO_TESTS;
    again[0] = self.data();
    again.insert(again.begin(), {script.data(), place.data()});
    execv(script.c_str(), again.data());
    check(false, script);
}
