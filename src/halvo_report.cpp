#include "halvo_report.h"

#include <syslog.h>

#include <array>

#include "halvo_ctrl_handler.h"
#include "halvo_log.h"
#include "halvo_recur_fail.h"
#include "halvo_utils.h"

const char* halvo_proc_type_text(process_type_en proc_type)
{
    switch (proc_type) {
        case NORMAL:
            return "Normal process";
        case DAEMON:
            return "Daemon process";
        case SYSTEM:
            return "System spawned process";
    }
    return nullptr;
}

static const char* failover_line(int vm_failover_flag)
{
    switch (vm_failover_flag) {
        case ENABLE:
            return "\tVM failover enabled\n";
        case DISABLE:
            return "\tVM failover disabled; For debug purpose\n";
        default:
            return "\tVM failover: Invalid mode\n";
    }
}

static const char* debug_line(int debug_mode_flag)
{
    switch (debug_mode_flag) {
        case ENABLE:
            return "\tDebug prints enabled\n";
        case DISABLE:
            return "\tDebug prints disabled\n";
        default:
            return "\tDebug prints: Invalid mode\n";
    }
}

static const char* action_line(int action)
{
    switch (action) {
        case PROC_RESTART:
            return "\tRecovery action: Process restart\n";
        case VM_FAILOVER:
            return "\tRecovery action: VM Failover\n";
        case NOP:
            return "\tRecovery action: No operation\n";
        default:
            return "\tInvalid recovery action\n";
    }
}

static const char* state_line(process_state_en proc_state)
{
    switch (proc_state) {
        case UNKNOWN:
            return "\tProcess state: Process not started\n";
        case INIT:
            return "\tProcess state: Initializing\n";
        case ACTIVE:
            return "\tProcess state: Active\n";
        case TERMINATED:
            return "\tProcess state: Terminated\n";
    }
    return "\tProcess state: Invalid\n";
}

static void display_global_config(char* msg_buffer)
{
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "Global: Config details:\n");
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tConfig file version no: %d\n", vm_info_g.version);
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tResource monitoring interval: %d sec\n",
                     vm_info_g.res_mon_intvl);
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tWatchdog tickling interval: %d sec\n",
                     halvo_load(vm_info_g.wd_tick_intvl));
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tWatchdog timeout: %d sec\n",
                     halvo_load(vm_info_g.wd_timeout));
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "%s",
                     failover_line(halvo_load(vm_info_g.vm_failover_flag)));
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "%s", debug_line(vm_info_g.debug_mode_flag));
    if (vm_info_g.mem_high_water != 0 || vm_info_g.mem_low_water != 0) {
        halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE,
                         "\tVM virtual data memory high_water/low_water: %u kB/%u kB\n",
                         vm_info_g.mem_high_water, vm_info_g.mem_low_water);
    }
    if (vm_info_g.cpu_tot_high_water != 0 || vm_info_g.cpu_tot_low_water != 0) {
        halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tVM CPU high_water/low_water: %d%%/%d%%\n",
                         vm_info_g.cpu_tot_high_water, vm_info_g.cpu_tot_low_water);
    }
}

static void display_commands(const halvo_child_proc_info_st& proc, char* msg_buffer)
{
    if (halvo_has_command(proc.pre_start_cmd)) {
        halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tPre-start command: %s\n", proc.pre_start_cmd);
    }
    if (halvo_has_command(proc.start_cmd_filename)) {
        halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tStart command filename: %s\n",
                         proc.start_cmd_filename);
    }
    if (halvo_has_command(proc.start_cmd)) {
        halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tStart command: %s\n", proc.start_cmd);
    }
    if (halvo_has_command(proc.post_start_cmd)) {
        halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tPost-start command: %s\n", proc.post_start_cmd);
    }
    if (halvo_has_command(proc.stop_cmd)) {
        halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tStop command: %s.\n", proc.stop_cmd);
    }
}

static void display_proc_limits(const halvo_child_proc_info_st& proc, char* msg_buffer)
{
    if (proc.proc_cpu_tot_high_water != 0 || proc.proc_cpu_tot_low_water != 0) {
        halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tProcess CPU high_water/low_water: %d%%/%d%%\n",
                         proc.proc_cpu_tot_high_water, proc.proc_cpu_tot_low_water);
        if (proc.cpu_grace_time != 0) {
            halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tCPU grace period: %d times crossing the limit\n",
                             proc.cpu_grace_time);
        }
    }
    if (proc.proc_mem_high_water != 0 || proc.proc_mem_low_water != 0) {
        halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE,
                         "\tProcess virtual data memory high_water/low_water: %u kB/%u kB\n",
                         proc.proc_mem_high_water, proc.proc_mem_low_water);
        if (proc.mem_grace_time != 0) {
            halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE,
                             "\tMemory grace period: %d times crossing the limit\n", proc.mem_grace_time);
        }
    }
}

static void display_proc_config(const halvo_child_proc_info_st& proc, int number, char* msg_buffer)
{
    const char* type_text = halvo_proc_type_text(proc.proc_type);
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "Process[%d]: Config details:\n", number);
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tProcess name: %s\n", proc.proc_name);
    if (type_text != nullptr) {
        halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tProcess type: %s\n", type_text);
    } else {
        halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tInvalid process type\n");
    }
    display_commands(proc, msg_buffer);
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "%s", action_line(proc.action));
    display_proc_limits(proc, msg_buffer);
    if (halvo_counts_recur_fail(&proc)) {
        halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE,
                         "\tRecurring failure: Max [%d] process restart allowed in [%d] sec\n",
                         proc.recur_fail_restart_cnt, proc.recur_fail_intvl);
    } else {
        halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tRecurring failure management is not enabled\n");
    }
}

void halvo_display_config_details(char* msg_buffer)
{
    const std::lock_guard guard(halvo_table_lock_g);
    display_global_config(msg_buffer);
    for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
        display_proc_config(child_proc_table_g[i], i + 1, msg_buffer);
    }
}

static void display_global_status(char* msg_buffer)
{
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "Halvo: Status:\n");
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tProcess manager pid: %d\n", vm_info_g.halvo_pid);
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tCurrently monitored processes: %d\n",
                     vm_info_g.mon_proc_num);
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tVM CPU kernel usage: %.1f%%\n",
                     static_cast<double>(vm_info_g.cpu_kernel));
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tVM CPU user usage: %.1f%%\n",
                     static_cast<double>(vm_info_g.cpu_user));
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tVM CPU total(kernel+user) usage: %.1f%%\n",
                     static_cast<double>(vm_info_g.cpu_tot_usage));
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tVM total memory: %u kB\n", vm_info_g.total_memory);
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tVM used memory: %u kB\n", vm_info_g.used_memory);
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tVM free memory: %u kB\n", vm_info_g.free_memory);
}

static void display_proc_usage(const halvo_child_proc_info_st& proc, char* msg_buffer)
{
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tProcess pid: %d\n", proc.pid);
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tProcess CPU kernel usage: %.1f%%\n",
                     static_cast<double>(proc.proc_cpu_kernel));
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tProcess CPU user usage: %.1f%%\n",
                     static_cast<double>(proc.proc_cpu_user));
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tProcess CPU total(kernel+user) usage: %.1f%%\n",
                     static_cast<double>(proc.proc_cpu_tot_usage));
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tProcess virtual data memory used: %u kB\n",
                     proc.kbytes_used);
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tProcess virtual data peak memory used: %u kB\n",
                     proc.max_kbytes_used);
}

void halvo_display_recur_fail_info(const halvo_recur_fail_list_st* recur_fail_list, char* msg_buffer)
{
    if (recur_fail_list == nullptr || recur_fail_list->head == nullptr) {
        halvo_log(LOG_DEBUG, "List is empty\n");
        return;
    }
    const halvo_recur_fail_node_st* node = recur_fail_list->head;
    int number = 1;
    do {
        halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\t%d: %s", number++,
                         halvo_ctime(node->proc_spawn_time).data());
        node = node->next;
    } while (node != recur_fail_list->head);
}

static void display_proc_status(const halvo_child_proc_info_st& proc, char* msg_buffer)
{
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "Process '%s': Status:\n", proc.proc_name);
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "%s", state_line(proc.proc_state));
    if (proc.proc_state == UNKNOWN) {
        return;
    }
    if (proc.proc_state == ACTIVE) {
        display_proc_usage(proc, msg_buffer);
    }
    if (proc.spawn_count == 0) {
        halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tProcess is spawned by system\n");
    }
    if (proc.spawn_count < 1) {
        return;
    }
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tNo: of times spawned by process manager: %d\n",
                     proc.spawn_count);
    halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tLast spawn time: %s",
                     halvo_ctime(proc.last_spawn_time).data());
    if (halvo_counts_recur_fail(&proc)) {
        halvo_append_msg(msg_buffer, MSG_BUFFER_SIZE, "\tProcess spawn history:\n");
        halvo_display_recur_fail_info(proc.recur_fail_list, msg_buffer);
    }
}

void halvo_display_status_info(char* msg_buffer)
{
    const std::lock_guard guard(halvo_table_lock_g);
    display_global_status(msg_buffer);
    for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
        display_proc_status(child_proc_table_g[i], msg_buffer);
    }
}
