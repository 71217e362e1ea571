#include "halvo_pid_lookup.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "halvo_log.h"

using status_path = std::array<char, 50>;

static int open_status_file(pid_t pid, status_path* path)
{
    snprintf(path->data(), path->size(), "/proc/%d/status", pid);
    return open(path->data(), O_RDONLY | O_CLOEXEC);
}

// Closes the file. Returns 0 when the name occurs anywhere in the file's first line, the name line, else -1
// with a message. That line fits into the buffer, since the kernel cuts a name after 15 characters.
static int check_status_name(int status_fd, const char* path, const char* name)
{
    std::array<char, 100> line;
    const ssize_t length = read(status_fd, line.data(), line.size() - 1);
    close(status_fd);
    if (length <= 0) {
        halvo_log(LOG_ERR, "No valid status found in file: %s\n", path);
        return -1;
    }
    line.at(static_cast<size_t>(length)) = '\0';
    line.at(strcspn(line.data(), "\n")) = '\0';
    if (strstr(line.data(), name) == nullptr) {
        halvo_log(LOG_ERR, "Process name [%s] not found in file: %s\n", name, path);
        return -1;
    }
    return 0;
}

// Large enough for a name in which every character needs quoting.
using pidof_command = std::array<char, 4 * PROC_NAME_SIZE + 16>;

// popen(3) gives the command to a shell, so a name that holds any other than these plain characters is
// quoted.
static pidof_command build_pidof_command(const char* proc_name)
{
    static constexpr const char* plain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.+:@%,/=-";
    pidof_command command;
    if (proc_name[strspn(proc_name, plain)] == '\0') {
        snprintf(command.data(), command.size(), "pidof %s", proc_name);
        return command;
    }
    char* end = stpcpy(command.data(), "pidof '");
    for (const char* letter = proc_name; *letter != '\0'; ++letter) {
        if (*letter == '\'') {
            end = stpcpy(end, "'\\''");
        } else {
            *end++ = *letter;
        }
    }
    stpcpy(end, "'");
    return command;
}

int halvo_ask_pidof(const char* proc_name, int* pid)
{
    std::array<char, 100> line;
    const pidof_command command = build_pidof_command(proc_name);
    // Only stdout, the one stream on which the daemon could have unwritten output. fflush(nullptr) would
    // block on a stream that another thread is reading.
    fflush(stdout);
    // "e", close-on-exec: a program started meanwhile by another thread must not keep the pipe open.
    FILE* stream = popen(command.data(), "re");
    if (stream == nullptr) {
        halvo_log(LOG_ERR, " Failed to open popen: %s\n", command.data());
        return -1;
    }
    const bool answered = fgets(line.data(), line.size(), stream) != nullptr;
    pclose(stream);  // its result tells nothing: the signal thread may have reaped the shell first
    if (answered) {
        const long number = strtol(line.data(), nullptr, 10);
        *pid = std::in_range<int>(number) ? static_cast<int>(number) : -1;
    }
    return answered ? 1 : 0;
}

// Confirms a pid that pidof has just printed: if it is gone already, that is logged as an error.
static int confirm_found_pid(const char* proc_name, pid_t pid)
{
    status_path path;
    const int status_fd = open_status_file(pid, &path);
    if (status_fd == -1) {
        halvo_log(LOG_ERR, "Not able to open file: %s\n", path.data());
        return -1;
    }
    return check_status_name(status_fd, path.data(), proc_name) == 0 ? pid : -1;
}

int halvo_confirm_held_pid(const char* proc_name, pid_t pid)
{
    status_path path;
    const int status_fd = open_status_file(pid, &path);
    if (status_fd == -1) {
        halvo_log(LOG_DEBUG, "Not able to open status file: %s;  process '%s' is terminated\n", path.data(),
                  proc_name);
        return -1;
    }
    return check_status_name(status_fd, path.data(), proc_name) == 0 ? pid : -1;
}

pid_t halvo_held_pid(const halvo_child_proc_info_st* proc_info)
{
    const std::lock_guard guard(halvo_table_lock_g);
    return proc_info->pid;
}

int halvo_check_process_pid_status(halvo_child_proc_info_st* proc_info)
{
    int pid = -1;
    switch (halvo_ask_pidof(proc_info->proc_name, &pid)) {
        case 1:
            if (pid > 0) {
                return confirm_found_pid(proc_info->proc_name, pid);
            }
            halvo_log(LOG_DEBUG, "pid [%d] returned for  process '%s' is not valid\n", pid,
                      proc_info->proc_name);
            return -1;
        case 0:
            // pidof(8) skips a process in uninterruptible sleep, so the held pid gets a check of its own.
            return halvo_confirm_held_pid(proc_info->proc_name, halvo_held_pid(proc_info));
        default:
            return -1;
    }
}
