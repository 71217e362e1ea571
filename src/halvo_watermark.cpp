#include "halvo_watermark.h"

#include <syslog.h>

#include <cerrno>
#include <csignal>

#include "halvo_log.h"
#include "halvo_pid_lookup.h"
#include "halvo_watchdog.h"

// Kills a process that is not our child. Its pid may have been reused, so the name is checked first. For the
// kill to hit a stranger, the kernel would have to hand out every other pid in the microseconds after the
// check. Not pidfd_open(2), which older kernels and seccomp filters refuse.
static int kill_by_name(pid_t pid, const char* proc_name)
{
    if (halvo_confirm_held_pid(proc_name, pid) == -1) {
        errno = ESRCH;
        return -1;
    }
    return kill(pid, SIGKILL);
}

// A NORMAL process is our child and keeps its pid until it is reaped under the lock held here. The pid
// field may also hold 0 and -1, with which kill(2) would hit our own group and every process of the VM.
static int kill_process(const halvo_child_proc_info_st* proc_info)
{
    if (proc_info->pid < 1) {
        errno = ESRCH;
        return -1;
    }
    return proc_info->proc_type == NORMAL ? kill(proc_info->pid, SIGKILL)
                                          : kill_by_name(proc_info->pid, proc_info->proc_name);
}

// Only kills the process: the loss is noticed like any other and leads to the restart.
static int restart_process(const halvo_child_proc_info_st* proc_info)
{
    if (proc_info == nullptr) {
        halvo_log(LOG_ERR, "halvo_take_watermarK_recovery_action(): Invalid pointer\n");
        return -1;
    }
    halvo_log(LOG_ALERT, "Executing recovery action[process restart] for process '%s'\n",
              proc_info->proc_name);
    if (kill_process(proc_info) != 0) {
        halvo_log(LOG_ALERT, "Unable to kill  process '%s' by halvo\n", proc_info->proc_name);
        halvo_log_errno(LOG_ERR);
        return -1;
    }
    halvo_log(LOG_CRIT, "The  process '%s' is killed by halvo\n", proc_info->proc_name);
    return 0;
}

static void fail_vm_over(const halvo_child_proc_info_st* proc_info)
{
    if (proc_info == nullptr) {
        halvo_log(LOG_ALERT, "Executing recovery action[VM failover]\n");
    } else {
        halvo_log(LOG_ALERT, "Executing recovery action[VM failover] for process '%s'\n",
                  proc_info->proc_name);
    }
    switch (halvo_load(vm_info_g.vm_failover_flag)) {
        case ENABLE:
            halvo_request_failover(&vm_info_g);
            halvo_log(LOG_ALERT, "VM failover is triggered\n");
            break;
        case DISABLE:
            halvo_log(LOG_ALERT, FAILOVER_DISABLED_LINE);
            break;
        default:
            break;
    }
}

int halvo_take_watermarK_recovery_action(int action, halvo_child_proc_info_st* proc_info)
{
    switch (action) {
        case PROC_RESTART:
            return restart_process(proc_info);
        case VM_FAILOVER:
            fail_vm_over(proc_info);
            return 0;
        case NOP:
            if (proc_info == nullptr) {
                halvo_log(LOG_INFO, "Recovery action is 'NOP'; No action is executed\n");
            } else {
                halvo_log(LOG_INFO, "Recovery action is 'NOP'; No action is executed for process '%s'\n",
                          proc_info->proc_name);
            }
            return 0;
        default:
            halvo_log(LOG_ERR, "Invalid recovery action for high/low watermark\n");
            return 0;
    }
}

// A limit is compared in the type of its usage: float for CPU, an integer for memory. A limit of 0 is not
// set.
template <typename Usage>
static bool is_above(Usage usage, auto limit)
{
    return limit != 0 && usage > static_cast<Usage>(limit);
}

template <typename Usage>
static bool is_below(Usage usage, auto limit)
{
    return limit != 0 && usage < static_cast<Usage>(limit);
}

// A limit of the VM has no configured action: crossing it always asks for a failover.
static int act_on_vm()
{
    if (halvo_take_watermarK_recovery_action(VM_FAILOVER, nullptr) != 0) {
        halvo_log(LOG_ALERT, "Error in executing recovery action[VM_FAILOVER]\n");
        return -1;
    }
    return 0;
}

static int act_on_process(halvo_child_proc_info_st* proc_info)
{
    if (halvo_take_watermarK_recovery_action(proc_info->action, proc_info) != 0) {
        halvo_log(LOG_ALERT, "Error in executing recovery action\n");
        return -1;
    }
    return 0;
}

static int check_vm(const halvo_vm_info_st& vm)
{
    const auto cpu_usage = static_cast<double>(vm.cpu_tot_usage);
    if (is_above(vm.cpu_tot_usage, vm.cpu_tot_high_water)) {
        halvo_log(LOG_ALERT, "VM CPU usage[%.1f%%] is higher than high_water limit[%d%%]\n", cpu_usage,
                  vm.cpu_tot_high_water);
        if (act_on_vm() != 0) {
            return -1;
        }
    }
    if (is_below(vm.cpu_tot_usage, vm.cpu_tot_low_water)) {
        halvo_log(LOG_ALERT,
                  "VM CPU usage[%.1f%%] is less than low_water limit[%d%%]; No recovery action executed\n",
                  cpu_usage, vm.cpu_tot_low_water);
    }
    if (is_above(vm.used_memory, vm.mem_high_water)) {
        halvo_log(LOG_ALERT, "VM memory usage[%u kB] is higher than high_water limit[%u kB]\n",
                  vm.used_memory, vm.mem_high_water);
        if (act_on_vm() != 0) {
            return -1;
        }
    }
    if (is_below(vm.used_memory, vm.mem_low_water)) {
        halvo_log(LOG_ALERT,
                  "VM memory usage[%u kB] is less than low_water limit[%u kB]; No recovery action executed\n",
                  vm.used_memory, vm.mem_low_water);
    }
    return 0;
}

static int check_process_cpu(halvo_child_proc_info_st* proc)
{
    const auto usage = static_cast<double>(proc->proc_cpu_tot_usage);
    if (is_above(proc->proc_cpu_tot_usage, proc->proc_cpu_tot_high_water)) {
        halvo_log(LOG_ALERT, "Process '%s' CPU usage[%.1f%%] is higher than high_water limit[%d%%]\n",
                  proc->proc_name, usage, proc->proc_cpu_tot_high_water);
        if (act_on_process(proc) != 0) {
            return -1;
        }
    }
    if (is_below(proc->proc_cpu_tot_usage, proc->proc_cpu_tot_low_water)) {
        halvo_log(LOG_ALERT, "Process '%s' CPU usage[%.1f%%] is less than low_water limit[%d%%]\n",
                  proc->proc_name, usage, proc->proc_cpu_tot_low_water);
        return act_on_process(proc);
    }
    return 0;
}

static int check_process_memory(halvo_child_proc_info_st* proc)
{
    if (is_above(proc->kbytes_used, proc->proc_mem_high_water)) {
        halvo_log(LOG_ALERT, "Process '%s' memory usage[%u kB] is higher than high_water limit[%u kB]\n",
                  proc->proc_name, proc->kbytes_used, proc->proc_mem_high_water);
        if (act_on_process(proc) != 0) {
            return -1;
        }
    }
    if (is_below(proc->kbytes_used, proc->proc_mem_low_water)) {
        halvo_log(LOG_ALERT, "Process '%s' memory usage[%u kB] is less than low_water limit[%u kB]\n",
                  proc->proc_name, proc->kbytes_used, proc->proc_mem_low_water);
        return act_on_process(proc);
    }
    return 0;
}

static int check_process(halvo_child_proc_info_st* proc)
{
    const std::lock_guard guard(halvo_table_lock_g);
    // Before its first sample a process's usage counts as 0, which would be below any low limit.
    if (proc->proc_state != ACTIVE || proc->cpu_usage_data_init == FALSE) {
        return 0;
    }
    return check_process_cpu(proc) != 0 || check_process_memory(proc) != 0 ? -1 : 0;
}

int halvo_check_high_low_watermark()
{
    {
        const std::lock_guard guard(halvo_table_lock_g);
        if (check_vm(vm_info_g) != 0) {
            return -1;
        }
    }
    for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
        if (check_process(&child_proc_table_g[i]) != 0) {
            return -1;
        }
    }
    return 0;
}
