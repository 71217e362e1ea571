#include "halvo_process.h"

#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <limits>

#include "halvo_command.h"
#include "halvo_log.h"
#include "halvo_pid_lookup.h"
#include "halvo_recur_fail.h"
#include "halvo_text.h"
#include "halvo_utils.h"
#include "halvo_watchdog.h"

// One miss is not yet a loss: pidof itself may have failed.
static constexpr int MAX_FIND_ATTEMPTS = 3;  // a second apart

static void count_spawn(halvo_child_proc_info_st* proc_info)
{
    time_t now = 0;
    // If the clock cannot be read, the time of the previous spawn stays.
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

// Closes every descriptor. The loop is only for kernels without close_range(2): it takes minutes where the
// limit of open files is large.
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
    // Held until the spawn is counted: a live update never shows half a command, and in the log "started"
    // always precedes "terminated".
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

// Returns a copy of a command, to be run without the lock: a live update may change the original at any
// time.
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
    // Copied only now, so that an update made during the steps above already counts.
    const auto post_start_cmd = copy_command(proc_info->post_start_cmd);
    if (halvo_has_command(post_start_cmd.data()) && halvo_execute_script(post_start_cmd.data()) != 0) {
        halvo_log(LOG_ALERT, "Unable to execute post-start script [%s] of  process '%s'\n",
                  post_start_cmd.data(), proc_info->proc_name);
        return -1;
    }
    return 0;
}

// Only a NORMAL entry counts. An entry of another type may hold the same pid, because it names the same
// program, or because its own process ended long ago and the kernel has reused the pid.
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

// A lost process and the reaction to it, as they stood when the loss was noticed: a live update may change
// them before the reaction.
struct loss_st {
    halvo_child_proc_info_st* proc_info;
    int action;
    int failover;   // vm_failover_flag
    bool reported;  // by an earlier pass; never for a NORMAL process
};

// Called with the table lock held. Requests a failover before anything is logged, so that nothing can delay
// it.
static loss_st take_loss(halvo_child_proc_info_st* proc_info)
{
    const loss_st loss = {.proc_info = proc_info,
                          .action = proc_info->action,
                          .failover = halvo_load(vm_info_g.vm_failover_flag),
                          .reported = false};
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

// Reaps one exited child. Returns false when there was none, or when it was not a NORMAL process. Reaping
// and finding the entry share one hold of the lock: a reaped pid may be reused at once.
static bool reap_normal_process(loss_st* loss)
{
    int status = 0;
    const std::lock_guard guard(halvo_table_lock_g);
    const pid_t pid = waitpid(-1, &status, WNOHANG);
    if (pid < 1) {
        return false;
    }
    halvo_log_exec_failure(pid);
    halvo_child_proc_info_st* proc_info = find_normal_by_pid(pid);
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

// Carries out the reaction to a loss. Called without the table lock, because a restart runs scripts. Returns
// 0, or -1 when a needed restart failed.
static int recover(const loss_st& loss)
{
    halvo_child_proc_info_st* proc_info = loss.proc_info;
    switch (loss.action) {
        case PROC_RESTART:
            if (halvo_start_process(proc_info) != 0) {
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

void halvo_sigchld_cb()
{
    loss_st loss{};
    while (reap_normal_process(&loss)) {
        if (recover(loss) != 0) {
            // A supervisor that cannot restart a process is of no use. Its end leaves the device armed, and
            // the VM fails over.
            halvo_fatal_exit("Unable to start [%s]. Process manager is exiting\n",
                             copy_command(loss.proc_info->start_cmd).data());
        }
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

// Records the loss and returns it. A process that was never found stays UNKNOWN.
static loss_st mark_lost(halvo_child_proc_info_st* proc_info)
{
    const std::lock_guard guard(halvo_table_lock_g);
    loss_st loss = take_loss(proc_info);
    loss.reported = proc_info->notify_crash == TRUE;
    if (!loss.reported && proc_info->proc_state == UNKNOWN) {
        halvo_log(LOG_ALERT, "Process '%s' is not started\n", proc_info->proc_name);
    } else if (!loss.reported) {
        halvo_log(LOG_ALERT, "Process '%s' is terminated\n", proc_info->proc_name);
    }
    if (proc_info->proc_state != UNKNOWN) {
        proc_info->proc_state = TERMINATED;
        proc_info->pid = 0;
    }
    // Without a restart every later pass sees the same loss; it is reported once.
    if (loss.action == VM_FAILOVER || loss.action == NOP) {
        proc_info->notify_crash = TRUE;
    }
    return loss;
}

int halvo_monitor_process_crash(halvo_child_proc_info_st* proc_info)
{
    for (int attempt = 0; attempt < MAX_FIND_ATTEMPTS; ++attempt) {
        const int pid = halvo_check_process_pid_status(proc_info);
        if (pid > 0) {
            mark_found(proc_info, pid);
            return 0;
        }
        sleep(1);  // after the last miss too, so a missing process costs every pass 3 seconds
    }
    if (recover(mark_lost(proc_info)) != 0) {
        halvo_log(LOG_ALERT, "Unable to start [%s]\n", copy_command(proc_info->start_cmd).data());
        return -1;
    }
    return 0;
}
