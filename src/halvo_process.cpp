#include "halvo_process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "halvo_command.h"
#include "halvo_log.h"
#include "halvo_recur_fail.h"
#include "halvo_utils.h"
#include "halvo_watchdog.h"

static constexpr int MAX_FIND_ATTEMPTS = 3;  // a second apart

static void count_spawn(halvo_child_proc_info_st* proc_info)
{
    time_t now = 0;
    if (halvo_read_clock(&now) == 0) {
        proc_info->last_spawn_time = now;
    }
    ++proc_info->spawn_count;
    if (halvo_counts_recur_fail(proc_info) && proc_info->recur_fail_list != nullptr) {
        halvo_insert_recur_fail_info(proc_info->recur_fail_list, proc_info->proc_name,
                                     proc_info->recur_fail_intvl, proc_info->last_spawn_time,
                                     proc_info->recur_fail_restart_cnt);
    }
}

// One by one takes minutes where the limit is large: only where the kernel knows no close_range(2).
static void close_descriptors()
{
    if (close_range(0, std::numeric_limits<unsigned>::max(), 0) != 0) {
        for (int fd = getdtablesize(); fd >= 0; --fd) {
            close(fd);
        }
    }
}

int halvo_spawn_process(halvo_child_proc_info_st* proc_info)
{
    halvo_command_st split;
    sigset_t kept_mask;
    const std::lock_guard guard(halvo_table_lock_g);

    proc_info->pid = -1;
    halvo_log(LOG_DEBUG, "Going to spawn process: %s\n", proc_info->start_cmd);
    halvo_split_command(proc_info->start_cmd, &split);
    const pid_t pid = halvo_fork_command(proc_info->start_cmd, &kept_mask);
    if (pid == -1) {
        return -1;
    }
    if (pid == 0) {
        close_descriptors();
        halvo_exec_command(&split, proc_info->start_cmd);
    }
    proc_info->pid = pid;
    proc_info->proc_state = INIT;
    pthread_sigmask(SIG_SETMASK, &kept_mask, nullptr);
    halvo_log(LOG_INFO, "Process '%s' started; start cmd [%s]\n", proc_info->proc_name, proc_info->start_cmd);
    count_spawn(proc_info);
    return 0;
}

// A live update may change a command at any time: scripts are run from a copy.
static std::array<char, CMD_SIZE> copy_command(const char* command)
{
    std::array<char, CMD_SIZE> copy;
    const std::lock_guard guard(halvo_table_lock_g);
    halvo_copy_text(copy.data(), copy.size(), command);
    return copy;
}

int halvo_start_process(halvo_child_proc_info_st* proc_info)
{
    const auto pre_start_cmd = copy_command(proc_info->pre_start_cmd);
    if (halvo_has_command(pre_start_cmd.data()) && halvo_execute_script(pre_start_cmd.data()) != 0) {
        halvo_log(LOG_ALERT, "Unable to execute pre-start script [%s] of  process '%s'\n",
                  pre_start_cmd.data(), proc_info->proc_name);
        return -1;
    }
    if (halvo_spawn_process(proc_info) != 0) {
        halvo_log(LOG_ALERT, "Unable to spawn  process '%s'; start_cmd[%s]\n", proc_info->proc_name,
                  copy_command(proc_info->start_cmd).data());
        return -1;
    }
    const auto post_start_cmd = copy_command(proc_info->post_start_cmd);
    if (halvo_has_command(post_start_cmd.data()) && halvo_execute_script(post_start_cmd.data()) != 0) {
        halvo_log(LOG_ALERT, "Unable to execute post-start script [%s] of  process '%s'\n",
                  post_start_cmd.data(), proc_info->proc_name);
        return -1;
    }
    return 0;
}

// An entry of another type may hold the same pid, of a program that two entries name or of one long gone.
static halvo_child_proc_info_st* find_normal_by_pid(pid_t pid)
{
    for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
        halvo_child_proc_info_st* proc_info = &child_proc_table_g[i];
        if (proc_info->pid == pid && proc_info->proc_type == NORMAL) {
            return proc_info;
        }
    }
    return nullptr;
}

// A lost process and what is to be done about it, as it stood when the loss was noticed.
struct loss_st {
    halvo_child_proc_info_st* proc_info;
    int action;
    int failover;   // vm_failover_flag
    bool reported;  // by an earlier pass
};

// Table lock held. A failover begins here, before anything is logged.
static loss_st take_loss(halvo_child_proc_info_st* proc_info)
{
    const loss_st loss = {.proc_info = proc_info,
                          .action = proc_info->action,
                          .failover = halvo_load(vm_info_g.vm_failover_flag),
                          .reported = proc_info->notify_crash == TRUE};
    halvo_store(vm_info_g.stop_heartbeat, 1);
    if (loss.action == VM_FAILOVER && loss.failover == ENABLE) {
        halvo_request_failover(&vm_info_g);
    }
    return loss;
}

static void log_spawn_count(halvo_child_proc_info_st* proc_info)
{
    const std::lock_guard guard(halvo_table_lock_g);
    halvo_log(LOG_CRIT, "No: of times spawned by process manager [%d]\n", proc_info->spawn_count);
}

static void log_critical_loss(const loss_st& loss)
{
    const char* proc_name = loss.proc_info->proc_name;
    if (loss.failover == ENABLE) {
        halvo_log(LOG_ALERT, "Critical  process '%s' is terminated; VM failover is triggered\n", proc_name);
    } else if (loss.failover == DISABLE) {
        halvo_log(LOG_ALERT, "Critical  process '%s' is terminated\n", proc_name);
        halvo_log(LOG_ALERT, FAILOVER_DISABLED_LINE);
    }
}

// Reaps one exited child. Returns false when it was no NORMAL process or there was none.
static bool reap_normal_process(loss_st* loss)
{
    int status = 0;
    const std::lock_guard guard(halvo_table_lock_g);
    const pid_t pid = waitpid(-1, &status, WNOHANG);
    halvo_child_proc_info_st* proc_info = pid > 0 ? find_normal_by_pid(pid) : nullptr;
    if (proc_info == nullptr) {
        return false;
    }
    *loss = take_loss(proc_info);
    halvo_log(LOG_ALERT, "Process '%s' terminated; pid [%d]; exit code [%d]\n", proc_info->proc_name, pid,
              WEXITSTATUS(status));
    halvo_log(LOG_ALERT, "heartbeat flag %d\n", halvo_load(vm_info_g.stop_heartbeat));
    proc_info->proc_state = TERMINATED;
    proc_info->pid = 0;
    return true;
}

static void recover_from_exit(const loss_st& loss)
{
    halvo_child_proc_info_st* proc_info = loss.proc_info;
    switch (loss.action) {
        case PROC_RESTART:
            if (halvo_start_process(proc_info) != 0) {
                halvo_fatal_exit("Unable to start [%s]. Process manager is exiting\n",
                                 copy_command(proc_info->start_cmd).data());
            }
            log_spawn_count(proc_info);
            break;
        case VM_FAILOVER:
            log_critical_loss(loss);
            break;
        case NOP:
            halvo_log(LOG_INFO, " No recovery action is executed for  process '%s'\n", proc_info->proc_name);
            break;
        default:
            halvo_log(LOG_ERR, "Invalid recovery action for process: %s \n", proc_info->proc_name);
    }
}

void halvo_sigchld_cb()
{
    loss_st loss{};
    while (reap_normal_process(&loss)) {
        recover_from_exit(loss);
    }
}

int halvo_check_status_name(int status_fd, const char* path, const char* name)
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

// Holds a name of which every character needs quoting.
using pidof_command = std::array<char, 4 * PROC_NAME_SIZE + 16>;

// The command goes through a shell: a name that is not plain text to it is quoted.
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

// Takes the pid from the first line that pidof prints. Returns 1 when there was a line, 0 when there was
// none, -1 when pidof could not be run.
static int ask_pidof(const char* proc_name, int* pid)
{
    std::array<char, 100> line;
    const pidof_command command = build_pidof_command(proc_name);
    // Not every stream: that would wait for one that another thread is blocked in reading.
    fflush(stdout);
    FILE* stream = popen(command.data(), "re");
    if (stream == nullptr) {
        halvo_log(LOG_ERR, " Failed to open popen: %s\n", command.data());
        return -1;
    }
    const bool answered = fgets(line.data(), line.size(), stream) != nullptr;
    pclose(stream);  // its result means nothing: the signal thread may have reaped the shell first
    if (answered) {
        const long number = strtol(line.data(), nullptr, 10);
        *pid = std::in_range<int>(number) ? static_cast<int>(number) : -1;
    }
    return answered ? 1 : 0;
}

int halvo_open_status_file(pid_t pid, halvo_status_path* path)
{
    snprintf(path->data(), path->size(), "/proc/%d/status", pid);
    return open(path->data(), O_RDONLY | O_CLOEXEC);
}

// Returns the pid that pidof found when /proc knows it under the name, else -1.
static int confirm_found_pid(const char* proc_name, pid_t pid)
{
    halvo_status_path path;
    const int status_fd = halvo_open_status_file(pid, &path);
    if (status_fd == -1) {
        halvo_log(LOG_ERR, "Not able to open file: %s\n", path.data());
        return -1;
    }
    return halvo_check_status_name(status_fd, path.data(), proc_name) == 0 ? pid : -1;
}

int halvo_confirm_held_pid(const char* proc_name, pid_t pid)
{
    halvo_status_path path;
    const int status_fd = halvo_open_status_file(pid, &path);
    if (status_fd == -1) {
        halvo_log(LOG_DEBUG, "Not able to open status file: %s;  process '%s' is terminated\n", path.data(),
                  proc_name);
        return -1;
    }
    return halvo_check_status_name(status_fd, path.data(), proc_name) == 0 ? pid : -1;
}

pid_t halvo_held_pid(const halvo_child_proc_info_st* proc_info)
{
    const std::lock_guard guard(halvo_table_lock_g);
    return proc_info->pid;
}

int halvo_check_process_pid_status(halvo_child_proc_info_st* proc_info)
{
    int pid = -1;
    switch (ask_pidof(proc_info->proc_name, &pid)) {
        case 1:
            if (pid > 0) {
                return confirm_found_pid(proc_info->proc_name, pid);
            }
            halvo_log(LOG_DEBUG, "pid [%d] returned for  process '%s' is not valid\n", pid,
                      proc_info->proc_name);
            return -1;
        case 0:
            return halvo_confirm_held_pid(proc_info->proc_name, halvo_held_pid(proc_info));
        default:
            return -1;
    }
}

// Records that the process runs under this pid.
static void mark_found(halvo_child_proc_info_st* proc_info, int pid)
{
    const std::lock_guard guard(halvo_table_lock_g);
    proc_info->pid = pid;
    proc_info->proc_state = ACTIVE;
    proc_info->notify_crash = FALSE;
}

// Records the loss. A process that was never found stays UNKNOWN.
static loss_st mark_lost(halvo_child_proc_info_st* proc_info)
{
    const std::lock_guard guard(halvo_table_lock_g);
    const loss_st loss = take_loss(proc_info);
    if (!loss.reported && proc_info->proc_state == UNKNOWN) {
        halvo_log(LOG_ALERT, "Process '%s' is not started\n", proc_info->proc_name);
    } else if (!loss.reported) {
        halvo_log(LOG_ALERT, "Process '%s' is terminated\n", proc_info->proc_name);
    }
    if (proc_info->proc_state != UNKNOWN) {
        proc_info->proc_state = TERMINATED;
        proc_info->pid = 0;
    }
    if (loss.action == VM_FAILOVER || loss.action == NOP) {
        proc_info->notify_crash = TRUE;
    }
    return loss;
}

static int recover_from_loss(const loss_st& loss)
{
    halvo_child_proc_info_st* proc_info = loss.proc_info;
    switch (loss.action) {
        case PROC_RESTART:
            if (halvo_start_process(proc_info) != 0) {
                halvo_log(LOG_ALERT, "Unable to start [%s]\n", copy_command(proc_info->start_cmd).data());
                return -1;
            }
            log_spawn_count(proc_info);
            return 0;
        case VM_FAILOVER:
            if (!loss.reported) {
                log_critical_loss(loss);
            }
            return 0;
        case NOP:
            if (!loss.reported) {
                halvo_log(LOG_INFO, " No recovery action is executed for  process '%s'\n",
                          proc_info->proc_name);
            }
            return 0;
        default:
            halvo_log(LOG_ERR, "Invalid recovery action for process: %s \n", proc_info->proc_name);
            return 0;
    }
}

int halvo_monitor_process_crash(halvo_child_proc_info_st* proc_info)
{
    for (int attempt = 0; attempt < MAX_FIND_ATTEMPTS; ++attempt) {
        const int pid = halvo_check_process_pid_status(proc_info);
        if (pid > 0) {
            mark_found(proc_info, pid);
            return 0;
        }
        sleep(1);
    }
    return recover_from_loss(mark_lost(proc_info));
}
