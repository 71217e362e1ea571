#include "halvo_report.h"

#include <syslog.h>

#include <cstdarg>
#include <ctime>

#include "halvo_ctrl_record.h"
#include "halvo_log.h"
#include "halvo_recur_fail.h"
#include "halvo_text.h"

// Adds one line to a report; the only place that knows its capacity.
static void say(char* msg_buffer, const char* format, ...) __attribute__((format(printf, 2, 3)));

static void say(char* msg_buffer, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    halvo_vappend_msg(msg_buffer, MSG_BUFFER_SIZE, format, args);
    va_end(args);
}

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

// Operators' scripts read these lines: their words and their order are fixed.
static void display_global_config(char* msg_buffer)
{
    say(msg_buffer, "Global: Config details:\n");
    say(msg_buffer, "\tConfig file version no: %d\n", vm_info_g.version);
    say(msg_buffer, "\tResource monitoring interval: %d sec\n", vm_info_g.res_mon_intvl);
    say(msg_buffer, "\tWatchdog tickling interval: %d sec\n", halvo_load(vm_info_g.wd_tick_intvl));
    say(msg_buffer, "\tWatchdog timeout: %d sec\n", halvo_load(vm_info_g.wd_timeout));
    say(msg_buffer, "%s", failover_line(halvo_load(vm_info_g.vm_failover_flag)));
    say(msg_buffer, "%s", debug_line(vm_info_g.debug_mode_flag));
    if (vm_info_g.mem_high_water != 0 || vm_info_g.mem_low_water != 0) {
        say(msg_buffer, "\tVM virtual data memory high_water/low_water: %u kB/%u kB\n",
            vm_info_g.mem_high_water, vm_info_g.mem_low_water);
    }
    if (vm_info_g.cpu_tot_high_water != 0 || vm_info_g.cpu_tot_low_water != 0) {
        say(msg_buffer, "\tVM CPU high_water/low_water: %d%%/%d%%\n", vm_info_g.cpu_tot_high_water,
            vm_info_g.cpu_tot_low_water);
    }
}

static void display_commands(const halvo_child_proc_info_st& proc, char* msg_buffer)
{
    if (halvo_has_command(proc.pre_start_cmd)) {
        say(msg_buffer, "\tPre-start command: %s\n", proc.pre_start_cmd);
    }
    if (halvo_has_command(proc.start_cmd_filename)) {
        say(msg_buffer, "\tStart command filename: %s\n", proc.start_cmd_filename);
    }
    if (halvo_has_command(proc.start_cmd)) {
        say(msg_buffer, "\tStart command: %s\n", proc.start_cmd);
    }
    if (halvo_has_command(proc.post_start_cmd)) {
        say(msg_buffer, "\tPost-start command: %s\n", proc.post_start_cmd);
    }
    if (halvo_has_command(proc.stop_cmd)) {
        say(msg_buffer, "\tStop command: %s.\n", proc.stop_cmd);  // operators' scripts expect the full stop
    }
}

static void display_proc_limits(const halvo_child_proc_info_st& proc, char* msg_buffer)
{
    if (proc.proc_cpu_tot_high_water != 0 || proc.proc_cpu_tot_low_water != 0) {
        say(msg_buffer, "\tProcess CPU high_water/low_water: %d%%/%d%%\n", proc.proc_cpu_tot_high_water,
            proc.proc_cpu_tot_low_water);
        if (proc.cpu_grace_time != 0) {
            say(msg_buffer, "\tCPU grace period: %d times crossing the limit\n", proc.cpu_grace_time);
        }
    }
    if (proc.proc_mem_high_water != 0 || proc.proc_mem_low_water != 0) {
        say(msg_buffer, "\tProcess virtual data memory high_water/low_water: %u kB/%u kB\n",
            proc.proc_mem_high_water, proc.proc_mem_low_water);
        if (proc.mem_grace_time != 0) {
            say(msg_buffer, "\tMemory grace period: %d times crossing the limit\n", proc.mem_grace_time);
        }
    }
}

static void display_proc_config(const halvo_child_proc_info_st& proc, int number, char* msg_buffer)
{
    const char* type_text = halvo_proc_type_text(proc.proc_type);
    say(msg_buffer, "Process[%d]: Config details:\n", number);
    say(msg_buffer, "\tProcess name: %s\n", proc.proc_name);
    if (type_text != nullptr) {
        say(msg_buffer, "\tProcess type: %s\n", type_text);
    } else {
        say(msg_buffer, "\tInvalid process type\n");
    }
    display_commands(proc, msg_buffer);
    say(msg_buffer, "%s", action_line(proc.action));
    display_proc_limits(proc, msg_buffer);
    if (halvo_counts_recur_fail(&proc)) {
        say(msg_buffer, "\tRecurring failure: Max [%d] process restart allowed in [%d] sec\n",
            proc.recur_fail_restart_cnt, proc.recur_fail_intvl);
    } else {
        say(msg_buffer, "\tRecurring failure management is not enabled\n");
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
    say(msg_buffer, "Halvo: Status:\n");
    say(msg_buffer, "\tProcess manager pid: %d\n", vm_info_g.halvo_pid);
    say(msg_buffer, "\tCurrently monitored processes: %d\n", vm_info_g.mon_proc_num);
    say(msg_buffer, "\tVM CPU kernel usage: %.1f%%\n", static_cast<double>(vm_info_g.cpu_kernel));
    say(msg_buffer, "\tVM CPU user usage: %.1f%%\n", static_cast<double>(vm_info_g.cpu_user));
    say(msg_buffer, "\tVM CPU total(kernel+user) usage: %.1f%%\n",
        static_cast<double>(vm_info_g.cpu_tot_usage));
    say(msg_buffer, "\tVM total memory: %u kB\n", vm_info_g.total_memory);
    say(msg_buffer, "\tVM used memory: %u kB\n", vm_info_g.used_memory);
    say(msg_buffer, "\tVM free memory: %u kB\n", vm_info_g.free_memory);
}

static void display_proc_usage(const halvo_child_proc_info_st& proc, char* msg_buffer)
{
    say(msg_buffer, "\tProcess pid: %d\n", proc.pid);
    say(msg_buffer, "\tProcess CPU kernel usage: %.1f%%\n", static_cast<double>(proc.proc_cpu_kernel));
    say(msg_buffer, "\tProcess CPU user usage: %.1f%%\n", static_cast<double>(proc.proc_cpu_user));
    say(msg_buffer, "\tProcess CPU total(kernel+user) usage: %.1f%%\n",
        static_cast<double>(proc.proc_cpu_tot_usage));
    say(msg_buffer, "\tProcess virtual data memory used: %u kB\n", proc.kbytes_used);
    say(msg_buffer, "\tProcess virtual data peak memory used: %u kB\n", proc.max_kbytes_used);
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
        say(msg_buffer, "\t%d: %s", number++, halvo_ctime(node->proc_spawn_time).data());
        node = node->next;
    } while (node != recur_fail_list->head);
}

static void display_proc_status(const halvo_child_proc_info_st& proc, char* msg_buffer)
{
    say(msg_buffer, "Process '%s': Status:\n", proc.proc_name);
    say(msg_buffer, "%s", state_line(proc.proc_state));
    if (proc.proc_state == UNKNOWN) {
        return;
    }
    if (proc.proc_state == ACTIVE) {
        display_proc_usage(proc, msg_buffer);
    }
    // The process was found by its name and never started by the daemon.
    if (proc.spawn_count == 0) {
        say(msg_buffer, "\tProcess is spawned by system\n");
    }
    if (proc.spawn_count < 1) {
        return;
    }
    say(msg_buffer, "\tNo: of times spawned by process manager: %d\n", proc.spawn_count);
    say(msg_buffer, "\tLast spawn time: %s", halvo_ctime(proc.last_spawn_time).data());
    if (halvo_counts_recur_fail(&proc)) {
        say(msg_buffer, "\tProcess spawn history:\n");
        halvo_display_recur_fail_info(proc.recur_fail_list, msg_buffer);
    }
}

void halvo_display_status_info(char* msg_buffer)
{
    tzset();  // the zone may have changed since the last report
    const std::lock_guard guard(halvo_table_lock_g);
    display_global_status(msg_buffer);
    for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
        display_proc_status(child_proc_table_g[i], msg_buffer);
    }
}
