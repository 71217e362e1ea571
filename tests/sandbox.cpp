#include "sandbox.h"

#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <system_error>

extern "C" {
#include <sys/pidfd.h>  // glibc 2.36's header lacks an extern "C"
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

void Sandbox::SetUp()
{
    for (const char* const place : OWN_PLACES) {
        check(mount("tmpfs", place, "tmpfs", 0, nullptr) == 0, place);
    }
    vm = std::make_unique<host>();
    openlog("halvo", LOG_PID | LOG_CONS | LOG_NDELAY, LOG_USER);  // for tests that call the daemon's code
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
    const size_t end = vm->wait_for(LOG_INFO, "end of log\n", log_mark_).number;
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

std::string Sandbox::section(const std::string& name, const std::string& type, const std::string& action,
                             const std::string& start_cmd)
{
    return "process name " + name + "\n" + name + " process_type " + type + "\n" + name + " action " +
           action + "\n" + name + " start_cmd \"" + start_cmd + "\"\n";
}

std::string Sandbox::read_file(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

std::vector<std::vector<std::string>> Sandbox::read_table(const std::string& name, size_t columns)
{
    std::ifstream file(HALVO_DATA + name);
    std::vector<std::vector<std::string>> rows;
    for (std::string cell; getline(file, cell, '|') && !file.eof(); rows.back().push_back(cell)) {
        if (rows.empty() || rows.back().size() == columns) {
            cell.erase(0, rows.empty() ? 0 : 1);
            rows.emplace_back();
        }
    }
    return rows;
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

std::vector<Sandbox::process> Sandbox::processes()
{
    std::vector<process> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        process one{};
        std::ifstream stat(entry.path() / "stat");
        if (stat >> one.pid && getline(stat.ignore(2), one.name, ')') && stat >> one.state >> one.parent) {
            found.push_back(one);
        }
    }
    return found;
}

pid_t Sandbox::find_process(const std::string& name)
{
    pid_t pid = 0;
    wait_until("process " + name, [&] {
        for (const process& one : processes()) {
            pid = one.name == name && one.state != 'Z' ? one.pid : pid;
        }
        return pid != 0;
    });
    return pid;
}

void Sandbox::wait_until(const std::string& what, const std::function<bool()>& holds)
{
    for (const auto deadline = host_clock::now() + PATIENCE; !holds(); sched_yield()) {
        if (host_clock::now() > deadline) {
            throw std::runtime_error("not in time: " + what);
        }
    }
}

std::ptrdiff_t Sandbox::count_descriptors(pid_t pid)
{
    auto fewest = std::numeric_limits<std::ptrdiff_t>::max();
    for (int look = 0; look < 1000; ++look) {
        const fs::directory_iterator entries("/proc/" + std::to_string(pid) + "/fd");
        fewest = std::min(fewest, std::distance(begin(entries), end(entries)));
    }
    return fewest;
}

static constexpr timeval patience{PATIENCE.count(), 0};
static const sockaddr_un address = halvo_socket_address();

int Sandbox::connect_daemon()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    check(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, HALVO_SOCKET);
    return fd;
}

int Sandbox::listen_as(uid_t user)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    unlink(HALVO_SOCKET);
    check(seteuid(user) == 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
              listen(fd, 1) == 0 && seteuid(0) == 0,
          HALVO_SOCKET);
    return fd;
}

std::string Sandbox::exchange(const std::string& request, bool waits)
{
    const host_fd client{connect_daemon()};
    std::string reply(waits ? sizeof(halvo_ctrl_handler_st) : 0, '\0');
    send(client.fd, request.data(), request.size(), MSG_NOSIGNAL);
    shutdown(client.fd, SHUT_WR);
    const ssize_t size = recv(client.fd, reply.data(), reply.size(), MSG_WAITALL);
    check(size >= 0 || errno == ECONNRESET, "the daemon's reply");
    return reply.substr(0, static_cast<size_t>(std::max<ssize_t>(size, 0)));
}

std::string Sandbox::ask(ctrl_handler_msg_type_en type)
{
    std::string request(sizeof(halvo_ctrl_handler_st), '\0');
    memcpy(request.data(), &type, sizeof(type));
    const std::string reply = exchange(request);
    return reply.size() == request.size() ? reply.c_str() + offsetof(halvo_ctrl_handler_st, message) : "";
}

pid_t Sandbox::start_daemon(const std::string& environment)
{
    return start("env " + environment +
                 " ASAN_OPTIONS=verify_asan_link_order=0 LD_PRELOAD=" HALVO_PRELOAD " " HALVO_EXECUTABLE
                 " </dev/null >>/var/daemon.out 2>&1");
}

Sandbox::run_result Sandbox::run_halvo(const std::string& arguments)
{
    return run(HALVO_EXECUTABLE " " + arguments);
}

Sandbox::run_result Sandbox::run(const std::string& command)
{
    const pid_t pid = start(command + " </dev/null >/var/client.out 2>&1");
    const int status = wait_exit(pid);
    return {status, read_file("/var/client.out")};
}

int Sandbox::wait_exit(pid_t pid)
{
    const host_fd process{pidfd_open(pid, 0)};
    pollfd ready{process.fd, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(PATIENCE).count())) != 1) {
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
