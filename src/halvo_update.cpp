#include "halvo_update.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstring>

#include "halvo_command.h"
#include "halvo_ctrl_record.h"
#include "halvo_log.h"
#include "halvo_report.h"
#include "halvo_text.h"
#include "halvo_utils.h"
#include "halvo_watchdog.h"

// Logs a line and appends it to the acknowledgement.
static void report(int priority, char* ack_msg, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

static void report(int priority, char* ack_msg, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    halvo_vlog(priority, format, args);
    va_end(args);
    va_start(args, format);
    halvo_vappend_msg(ack_msg, ACK_MSG_SIZE, format, args);
    va_end(args);
}

int halvo_compare_proc_num(char* ack_msg)
{
    if (new_vm_info_g.mon_proc_num == vm_info_g.mon_proc_num) {
        return 0;
    }
    report(LOG_ERR, ack_msg, "The no: of processes which are monitored cannot be changed on the fly\n");
    report(LOG_ERR, ack_msg, "In existing config, no: of process [%d]; the new config shows [%d] processes\n",
           vm_info_g.mon_proc_num, new_vm_info_g.mon_proc_num);
    return -1;
}

static int read_new_config(char* ack_msg)
{
    // The reader expects zeroed records, and these still hold the previous update.
    std::ranges::fill(new_child_proc_table_g, halvo_child_proc_info_st{});
    new_vm_info_g = halvo_vm_info_st{};
    if (halvo_read_confile(&new_vm_info_g, new_child_proc_table_g) != 0) {
        halvo_log(LOG_ALERT, "Error in reading config file\n");
        halvo_append_msg(ack_msg, ACK_MSG_SIZE, "Error in reading config file\n");
        halvo_append_msg(ack_msg, ACK_MSG_SIZE,
                         "For detailed info, use command: cat /usr/admin/log/messages\n");
        return -1;
    }
    return halvo_compare_proc_num(ack_msg);
}

static void take_over_intervals()
{
    const std::lock_guard guard(halvo_table_lock_g);
    vm_info_g.version = new_vm_info_g.version;
    vm_info_g.res_mon_intvl = new_vm_info_g.res_mon_intvl;
    halvo_store(vm_info_g.wd_tick_intvl, new_vm_info_g.wd_tick_intvl);
    halvo_store(vm_info_g.wd_timeout, new_vm_info_g.wd_timeout);
}

// Starts or stops the watchdog if the failover switch has changed. The switch keeps its new value even if
// that fails. Without the table lock: the driver may take its time.
static int take_over_failover(char* ack_msg)
{
    const int failover = new_vm_info_g.vm_failover_flag;
    if (failover == halvo_load(vm_info_g.vm_failover_flag)) {
        return 0;
    }
    if (failover == ENABLE && halvo_switch_failover_on(&vm_info_g) != 0) {
        report(LOG_ALERT, ack_msg, "Not able to initialize the watch dog device\n");
        return -1;
    }
    if (failover == DISABLE) {
        // Before the keepalives stop: the watchdog thread must not take their end for a failover.
        halvo_store(vm_info_g.vm_failover_flag, failover);
        if (halvo_watchdog_stop(&vm_info_g) != 0) {
            report(LOG_ALERT, ack_msg, "Not able to stop watch dog device\n");
            return -1;
        }
    }
    return 0;
}

static void take_over_vm_limits()
{
    const std::lock_guard guard(halvo_table_lock_g);
    vm_info_g.debug_mode_flag = new_vm_info_g.debug_mode_flag;
    vm_info_g.mem_high_water = new_vm_info_g.mem_high_water;
    vm_info_g.mem_low_water = new_vm_info_g.mem_low_water;
    vm_info_g.cpu_tot_high_water = new_vm_info_g.cpu_tot_high_water;
    vm_info_g.cpu_tot_low_water = new_vm_info_g.cpu_tot_low_water;
    halvo_store(halvo_debug_mode_g, new_vm_info_g.debug_mode_flag);
}

static void report_type(char* ack_msg, const char* which, process_type_en proc_type)
{
    const char* text = halvo_proc_type_text(proc_type);
    if (text == nullptr) {
        report(LOG_ERR, ack_msg, "%s process type is invalid\n", which);
    } else {
        report(LOG_ERR, ack_msg, "%s Process type: %s\n", which, text);
    }
}

// Name and type identify a process and may not change: the table's entries are matched by position.
int halvo_compare_identity(const halvo_child_proc_info_st& running, const halvo_child_proc_info_st& fresh,
                           char* ack_msg)
{
    if (strcmp(running.proc_name, fresh.proc_name) != 0) {
        report(LOG_ERR, ack_msg, "process name is not matching; existing name [%s]; new name [%s]\n",
               running.proc_name, fresh.proc_name);
        return -1;
    }
    if (running.proc_type != fresh.proc_type) {
        report(LOG_ERR, ack_msg, "Process '%s': process type cannot be changed on the fly\n",
               running.proc_name);
        report_type(ack_msg, "Existing", running.proc_type);
        report_type(ack_msg, "New", fresh.proc_type);
        return -1;
    }
    return 0;
}

static int check_script(const halvo_child_proc_info_st& fresh, const char* command, const char* which,
                        char* ack_msg)
{
    if (halvo_has_command(command) && halvo_check_script_exists(command) != 0) {
        report(LOG_ERR, ack_msg, "Process '%s': Script mentioned in %s command [%s] doesn't exist\n",
               fresh.proc_name, which, command);
        return -1;
    }
    return 0;
}

static int check_pre_start(halvo_child_proc_info_st* fresh, char* ack_msg)
{
    return check_script(*fresh, fresh->pre_start_cmd, "pre-start", ack_msg);
}

static int check_start(halvo_child_proc_info_st* fresh, char* ack_msg)
{
    if (halvo_check_file_exists(fresh) != 0) {
        report(LOG_ERR, ack_msg, "File mentioned in  process '%s' start command doesn't exist\n",
               fresh->proc_name);
        return -1;
    }
    return 0;
}

// start_cmd_filename has no check of its own: the check of start_cmd has already read the file.
static int check_nothing(halvo_child_proc_info_st*, char*)
{
    return 0;
}

static int check_post_start(halvo_child_proc_info_st* fresh, char* ack_msg)
{
    return check_script(*fresh, fresh->post_start_cmd, "post-start", ack_msg);
}

static int check_stop(halvo_child_proc_info_st* fresh, char* ack_msg)
{
    return check_script(*fresh, fresh->stop_cmd, "stop", ack_msg);
}

constexpr std::array<halvo_command_check_st, 5> halvo_command_checks_g = {{
    {"pre_start_cmd", &halvo_child_proc_info_st::pre_start_cmd, check_pre_start},
    {"start_cmd", &halvo_child_proc_info_st::start_cmd, check_start},
    {"start_cmd", &halvo_child_proc_info_st::start_cmd_filename, check_nothing},
    {"post_start_cmd", &halvo_child_proc_info_st::post_start_cmd, check_post_start},
    {"stop_cmd", &halvo_child_proc_info_st::stop_cmd, check_stop},
}};

// Checks the commands that changed. Returns how many, from the first on, may be taken over: all of them, or
// those before the faulty one. Reads the running fields without the lock, since only this thread writes
// them.
static size_t check_commands(const halvo_child_proc_info_st& running, halvo_child_proc_info_st* fresh,
                             char* ack_msg)
{
    size_t accepted = 0;
    for (const halvo_command_check_st& command : halvo_command_checks_g) {
        const bool changed = strcmp(running.*command.field, fresh->*command.field) != 0;
        if (changed && command.check(fresh, ack_msg) != 0) {
            break;
        }
        ++accepted;
    }
    return accepted;
}

static void take_over_action(halvo_child_proc_info_st* running, const halvo_child_proc_info_st& fresh)
{
    if (running->action == fresh.action) {
        return;
    }
    running->action = fresh.action;
    // The crash monitor skips a TERMINATED DAEMON, so it would never look for the process that the new
    // action is for.
    if (running->proc_state == TERMINATED && (fresh.action == PROC_RESTART || fresh.action == VM_FAILOVER)) {
        running->proc_state = UNKNOWN;
    }
}

// Takes over the accepted commands and, if no command was refused, the rest of the entry. One hold of the
// lock: no restart or report sees half of it.
static int take_over_entry(halvo_child_proc_info_st* running, const halvo_child_proc_info_st& fresh,
                           size_t accepted)
{
    const std::lock_guard guard(halvo_table_lock_g);
    for (size_t i = 0; i < accepted; ++i) {
        halvo_copy_text(running->*halvo_command_checks_g.at(i).field, CMD_SIZE,
                        fresh.*halvo_command_checks_g.at(i).field);
    }
    if (accepted < halvo_command_checks_g.size()) {
        return -1;
    }
    take_over_action(running, fresh);
    running->proc_cpu_tot_high_water = fresh.proc_cpu_tot_high_water;
    running->proc_cpu_tot_low_water = fresh.proc_cpu_tot_low_water;
    running->proc_mem_high_water = fresh.proc_mem_high_water;
    running->proc_mem_low_water = fresh.proc_mem_low_water;
    return 0;
}

int halvo_compare_recur_fail(const halvo_child_proc_info_st& running, const halvo_child_proc_info_st& fresh,
                             char* ack_msg)
{
    if (running.recur_fail_restart_cnt != fresh.recur_fail_restart_cnt ||
        running.recur_fail_intvl != fresh.recur_fail_intvl) {
        report(LOG_ERR, ack_msg, "Recurring failure management parameters cannot be changed on the fly\n");
        return -1;
    }
    return 0;
}

static int update_entry(halvo_child_proc_info_st* running, halvo_child_proc_info_st* fresh, char* ack_msg)
{
    if (halvo_compare_identity(*running, *fresh, ack_msg) != 0) {
        return -1;
    }
    if (take_over_entry(running, *fresh, check_commands(*running, fresh, ack_msg)) != 0) {
        return -1;
    }
    return halvo_compare_recur_fail(*running, *fresh, ack_msg);
}

int halvo_update_config(char* ack_msg)
{
    if (read_new_config(ack_msg) != 0) {
        return -1;
    }
    // First, because a device that the next step arms takes the new timeout.
    take_over_intervals();
    if (take_over_failover(ack_msg) != 0) {
        return -1;
    }
    take_over_vm_limits();
    for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
        if (update_entry(&child_proc_table_g[i], &new_child_proc_table_g[i], ack_msg) != 0) {
            return -1;
        }
    }
    halvo_log(LOG_INFO, "Updated the configuration on the fly using the CLI\n");
    halvo_append_msg(ack_msg, ACK_MSG_SIZE, "Configuration updated successfully\n");
    return 0;
}
