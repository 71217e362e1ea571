#include "status_kernel.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <ctime>
#include <memory>

static constexpr std::string_view DEVICE = "/dev/watchdog";  // "/dev/watchdog0" is the same device
// The kernel writes this after the path of a file that was removed or replaced, see proc(5).
static constexpr std::string_view REPLACED = " (deleted)";
static constexpr const char* HEARTBEAT_PROCESS = "lunet";  // without it the daemon sends no heartbeat

using directory = std::unique_ptr<DIR, int (*)(DIR*)>;

static directory open_directory(const std::string& path)
{
    return {opendir(path.c_str()), closedir};
}

// Returns the first 4096 bytes of a file in /proc or /sys, or an empty text when the file cannot be read.
// One read(2) is enough, because the kernel fills the buffer as far as the file goes.
static std::string read_file(const std::string& path)
{
    std::array<char, 4096> buffer;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        return "";
    }
    const ssize_t length = read(fd, buffer.data(), buffer.size());
    close(fd);
    return length > 0 ? std::string(buffer.data(), static_cast<size_t>(length)) : "";
}

// Returns the number that a text begins with, or an unknown figure when the text begins with something else.
static status_figure to_number(std::string_view text)
{
    int64_t value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc() ? status_figure(value) : std::nullopt;
}

// Returns the target of a link, or an empty text with errno when the link cannot be read.
static std::string read_link(const std::string& path)
{
    std::array<char, PATH_MAX> target;
    const ssize_t length = readlink(path.c_str(), target.data(), target.size());
    return length < 0 ? "" : std::string(target.data(), static_cast<size_t>(length));
}

// Splits a text at single blanks. The words are views into the text, which has to outlive them.
static std::vector<std::string_view> split(std::string_view text)
{
    std::vector<std::string_view> words;
    while (!text.empty()) {
        const size_t end = std::min(text.find(' '), text.size());
        words.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return words;
}

// Returns the seconds since a process was started, or an unknown figure for a process that has ended, even
// if it is not reaped yet. The kernel counts from the boot on, through a suspension too, hence
// CLOCK_BOOTTIME. See /proc/PID/stat in proc(5).
static status_figure read_age(const std::string& process)
{
    static constexpr size_t STATE = 1;  // fields, counted from the parenthesis that ends the name
    static constexpr size_t START_TIME = 20;
    const std::string text = read_file(process + "/stat");
    // A name may hold blanks and parentheses itself: only the last parenthesis is certain to end it.
    const std::vector<std::string_view> fields =
        split(std::string_view(text).substr(std::min(text.rfind(')'), text.size())));
    timespec now{};
    if (fields.size() <= START_TIME || fields[STATE] == "Z" || clock_gettime(CLOCK_BOOTTIME, &now) != 0) {
        return std::nullopt;
    }
    const status_figure start = to_number(fields[START_TIME]);
    return start.has_value() ? status_figure(now.tv_sec - *start / sysconf(_SC_CLK_TCK)) : std::nullopt;
}

// Returns 1 when one of the daemon's descriptors leads to the device, else 0. Only root and the daemon's own
// user may read the directory. For any other user the answer is unknown, which does not mean "not armed".
static status_figure holds_device(const std::string& daemon)
{
    const directory descriptors = open_directory(daemon + "/fd");
    if (descriptors == nullptr) {
        return std::nullopt;
    }
    while (const dirent* entry = readdir(descriptors.get())) {
        const std::string target = read_link(daemon + "/fd/" + entry->d_name);
        if (target.starts_with(DEVICE)) {
            return 1;
        }
        // The owner may list the directory, but reading its links takes the right to trace the daemon, see
        // ptrace(2).
        if (target.empty() && errno == EACCES) {
            return std::nullopt;
        }
    }
    return 0;
}

// Returns 1 when the daemon's executable has lost its name. A package manager renames the new file over the
// old one, and the daemon goes on running the old one.
static status_figure was_replaced(const std::string& daemon)
{
    const std::string executable = read_link(daemon + "/exe");
    return executable.empty() ? std::nullopt : status_figure(executable.ends_with(REPLACED) ? 1 : 0);
}

// Returns a process's command line with one blank between its words. The kernel ends each word with a zero
// byte.
static std::string read_command(const std::string& process)
{
    std::string command = read_file(process + "/cmdline");
    command.resize(std::min(command.find_last_not_of('\0') + 1, command.size()));
    std::replace(command.begin(), command.end(), '\0', ' ');
    return command;
}

// Keeps a child that is old and stands in no line of the report. status_judge() decides later whether the
// daemon waits for that child.
static void add_child(pid_t pid, const status_report_st& report, status_kernel_st* kernel)
{
    const std::string child = "/proc/" + std::to_string(pid);
    const bool is_reported =
        std::any_of(report.processes.begin(), report.processes.end(),
                    [&](const status_process_st& process) { return process.pid == pid; });
    if (is_reported) {
        return;
    }
    const status_figure age = read_age(child);
    if (age.has_value() && *age > STATUS_HELD_UP_AGE) {
        kernel->children.push_back({pid, *age, read_command(child)});
    }
}

// The kernel lists a child with the thread that forked it, so every thread is asked: the main thread starts
// programs, and the signal thread restarts them. A kernel built without CONFIG_PROC_CHILDREN lists none. See
// proc(5).
static void find_children(const std::string& daemon, const status_report_st& report, status_kernel_st* kernel)
{
    const directory threads = open_directory(daemon + "/task");
    while (const dirent* thread = threads == nullptr ? nullptr : readdir(threads.get())) {
        const std::string list = read_file(daemon + "/task/" + thread->d_name + "/children");
        for (const std::string_view word : split(list)) {
            add_child(static_cast<pid_t>(to_number(word).value_or(0)), report, kernel);
        }
    }
}

// In ascending order, as the kernel lists them.
static std::vector<pid_t> list_processes()
{
    std::vector<pid_t> pids;
    const directory processes = open_directory("/proc");
    while (const dirent* entry = processes == nullptr ? nullptr : readdir(processes.get())) {
        const status_figure pid = to_number(entry->d_name);
        if (pid.has_value()) {
            pids.push_back(static_cast<pid_t>(*pid));
        }
    }
    return pids;
}

// Looks for lunet as the daemon does, by its name in /proc. The daemon looks only once, at its start, so
// lunet is older and most likely has one of the pids just below. The search therefore goes down from the
// daemon's pid, and only then down from the highest pid. In this order it seldom reads the hundreds of
// kernel threads, which have the lowest pids.
static status_figure lunet_runs(pid_t daemon)
{
    std::vector<pid_t> pids = list_processes();
    if (pids.empty()) {
        return std::nullopt;
    }
    std::rotate(pids.begin(), std::upper_bound(pids.begin(), pids.end(), daemon), pids.end());
    const bool runs = std::any_of(pids.rbegin(), pids.rend(), [](pid_t pid) {
        return read_file("/proc/" + std::to_string(pid) + "/comm").find(HEARTBEAT_PROCESS) !=
               std::string::npos;
    });
    return runs ? 1 : 0;
}

// Without a driver there is no such directory, and a kernel built without CONFIG_WATCHDOG_SYSFS has no such
// files. The daemon opens /dev/watchdog, which is always device 0.
static void look_at_device(status_kernel_st* kernel)
{
    const std::string device = "/sys/class/watchdog/watchdog0/";
    kernel->identity = read_file(device + "identity");
    kernel->identity.resize(std::min(kernel->identity.find('\n'), kernel->identity.size()));
    kernel->timeout = to_number(read_file(device + "timeout"));
    kernel->bootstatus = to_number(read_file(device + "bootstatus"));
}

void status_look(pid_t daemon, const status_report_st& report, status_kernel_st* kernel)
{
    look_at_device(kernel);
    if (daemon == 0) {
        return;
    }
    const std::string process = "/proc/" + std::to_string(daemon);
    kernel->armed = holds_device(process);
    kernel->replaced = was_replaced(process);
    kernel->age = read_age(process);
    kernel->lunet = lunet_runs(daemon);
    find_children(process, report, kernel);
}
