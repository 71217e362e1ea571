// halvo-check: says before the daemon does what is wrong with a configuration file, and what is right by the
// daemon's rules but not what an operator wants.
//
// The file goes through the daemon's own reader and checks; see halvo_check_log.h for what stands in for the
// daemon's log and device. new_vm_info_g and new_child_proc_table_g hold the file, vm_info_g and
// child_proc_table_g what runs, where the two are to be compared. One thread.

#include <getopt.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <span>
#include <string>
#include <utility>

#include "halvo_check_log.h"
#include "halvo_command.h"
#include "halvo_log.h"
#include "halvo_params.h"
#include "halvo_recur_fail.h"
#include "halvo_update.h"
#include "halvo_utils.h"

static constexpr int VM_SECTION = -1;             // the others are numbered like the table's entries
static constexpr size_t KERNEL_NAME_LENGTH = 15;  // of a process, without the terminator

// Where each parameter was set last, by section; "" is the line that opened the section.
static std::map<std::pair<int, std::string>, int> lines;

// 0: not in the file.
static int line_of(int section, const char* param_name)
{
    const auto found = lines.find({section, param_name});
    return found == lines.end() ? lines[{section, ""}] : found->second;
}

// Warns at the parameter's line where the condition holds.
[[gnu::format(printf, 4, 5)]] static void advise(bool condition, int section, const char* param_name,
                                                 const char* format, ...)
{
    va_list args;
    va_start(args, format);
    halvo_check_line_g = line_of(section, param_name);
    if (condition) {
        halvo_vlog(LOG_WARNING, format, args);
    }
    halvo_check_line_g = 0;
    va_end(args);
}

static void note_param(int section, std::span<const halvo_config_param_st> rows, const char* param_name,
                       const char* param_value, int line)
{
    const auto row = static_cast<size_t>(halvo_find_param(rows, param_name));
    const int noted = std::exchange(lines[{section, param_name}], line);
    advise(noted != 0, section, param_name, "%s is set again: line %d does not count; remove one", param_name,
           noted);
    if (row < rows.size() && rows[row].param_type == PARAM_NUMBER) {
        // The reader stops at the first other character, and cuts to 32 bits.
        char* end = nullptr;
        const long number = strtol(param_value, &end, 10);
        advise(*end != '\0' || number > UINT32_MAX || number < INT32_MIN, section, param_name,
               "%s [%s] is read as %u; write digits only", param_name, param_value,
               static_cast<uint32_t>(number));
    }
}

// The daemon's check of a line, with a note of where the line stood.
static int verify_and_note(const char* keyword, const char* param_name, const char* param_value,
                           char* proc_name, halvo_vm_info_st* vm_info, halvo_child_proc_info_st* proc_table,
                           const int* line_num)
{
    const int entries = vm_info->mon_proc_num;
    const int result =
        halvo_verify_conf_param(keyword, param_name, param_value, proc_name, vm_info, proc_table, line_num);
    if (vm_info->mon_proc_num != entries) {
        lines[{entries, ""}] = *line_num;
    } else if (result == 0 && strcmp(keyword, "global") == 0) {
        note_param(VM_SECTION, vm_conf_param_dfl_g, param_name, param_value, *line_num);
    } else if (result == 0) {
        note_param(entries - 1, proc_conf_param_dfl_g, param_name, param_value, *line_num);
    }
    return result;
}

// acts: a crossing does more than a line in the log.
static void advise_on_limits(int section, const char* low_name, int64_t low, int64_t high, bool acts = false)
{
    advise(acts && low != 0, section, low_name, "usage below %s carries out the action too; set it to 0",
           low_name);
    advise(high != 0 && low > high, section, low_name,
           "%s [%ld] is above the high one [%ld]: one is always crossed; lower it", low_name, low, high);
}

static void advise_on_vm(const halvo_vm_info_st& vm)
{
    const int slack = vm.wd_timeout - vm.wd_tick_intvl;
    const bool tick_set = lines.contains({VM_SECTION, "wd_tick_interval"});
    advise(slack < 2, VM_SECTION, tick_set ? "wd_tick_interval" : "wd_timeout", "%s takes the VM down; %s",
           slack < 1 ? "the wait for a keepalive" : "a keepalive a second late",
           tick_set ? "lower wd_tick_interval" : "raise wd_timeout");
    advise_on_limits(VM_SECTION, "vm_mem_low_water", vm.mem_low_water, vm.mem_high_water);
    advise_on_limits(VM_SECTION, "vm_cpu_total_low_water", vm.cpu_tot_low_water, vm.cpu_tot_high_water);
}

// by_command: the start command makes it a SYSTEM process, whatever its type.
static void advise_on_type(int entry, const halvo_child_proc_info_st& proc, bool by_command)
{
    const char* name = proc.proc_name;
    const bool restart = proc.action == PROC_RESTART;
    advise(by_command && proc.proc_type != SYSTEM, entry, "process_type",
           "start_cmd makes '%s' a SYSTEM process and every halvo -r fail; set process_type SYSTEM", name);
    advise(!by_command && proc.proc_type == SYSTEM, entry, "process_type", "SYSTEM '%s' is %s", name,
           restart ? "started like a DAEMON; set process_type DAEMON"
                   : "never started; set start_cmd \"SYSTEM\" or another type");
    advise(!by_command && proc.proc_type == DAEMON && !restart, entry, "process_type",
           "DAEMON '%s' is only started with action PROC_RESTART", name);
    advise((by_command || proc.proc_type != NORMAL) && strlen(name) > KERNEL_NAME_LENGTH, entry, "",
           "'%s' is never found: the kernel keeps %zu characters of a name", name, KERNEL_NAME_LENGTH);
}

static void advise_on_script(int entry, const char* param_name, const char* script)
{
    halvo_command_st split;
    halvo_split_command(script, &split);
    const bool limited = split.args[1] != nullptr && strcmp(file_basename(split.args[1]), "timeout") == 0;
    advise(halvo_has_command(script) && !limited, entry, param_name,
           "%s has no time limit; put \"/usr/bin/timeout SECONDS\" before it", param_name);
}

static void advise_on_action(int entry, const halvo_child_proc_info_st& proc)
{
    advise(proc.action == PROC_RESTART && !halvo_counts_recur_fail(&proc), entry, "action",
           "'%s' is restarted without end; set recur_fail_restart_count and recur_fail_interval",
           proc.proc_name);
    advise(proc.action == VM_FAILOVER && new_vm_info_g.vm_failover_flag == DISABLE, entry, "action",
           "the loss of '%s' is only logged; set vm_failover ENABLE", proc.proc_name);
    if (proc.action != NOP && proc.proc_type != SYSTEM) {
        advise_on_script(entry, "pre_start_cmd", proc.pre_start_cmd);
        advise_on_script(entry, "post_start_cmd", proc.post_start_cmd);
    }
    advise_on_limits(entry, "proc_mem_low_water", proc.proc_mem_low_water, proc.proc_mem_high_water,
                     proc.action != NOP);
    advise_on_limits(entry, "proc_cpu_total_low_water", proc.proc_cpu_tot_low_water,
                     proc.proc_cpu_tot_high_water, proc.action != NOP);
}

// Runs the checks of all commands, not only up to the first faulty one. Returns true when the start command
// makes a SYSTEM process.
static bool check_commands(int entry, halvo_child_proc_info_st proc)
{
    proc.proc_type = process_type_en{};
    for (const halvo_command_check_st& command : halvo_command_checks_g) {
        halvo_check_line_g = line_of(entry, command.param_name);
        if (halvo_has_command(proc.*command.field)) {
            command.check(&proc, nullptr);
        }
    }
    return proc.proc_type == SYSTEM;
}

// Fills the running tables as the daemon did at start-up. What is to be said about the file was said then.
static int read_running(const char* path)
{
    const char* config_file = std::exchange(halvo_config_file_g, path);
    halvo_check_silent_g = true;
    const int result = halvo_read_confile(&vm_info_g, child_proc_table_g);
    for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
        halvo_check_file_exists(&child_proc_table_g[i]);
    }
    halvo_check_silent_g = false;
    if (result != 0) {
        halvo_log(LOG_ERR, "no daemon runs with this file; check it by itself\n");
    }
    halvo_config_file_g = config_file;
    return result;
}

static void compare_vm(const halvo_vm_info_st& running, const halvo_vm_info_st& fresh)
{
    const bool armed = running.vm_failover_flag == ENABLE && fresh.vm_failover_flag == ENABLE;
    halvo_compare_proc_num(nullptr);
    advise(fresh.res_mon_intvl != running.res_mon_intvl, VM_SECTION, "res_monit_interval",
           "res_monit_interval stays %d until halvo is started again", running.res_mon_intvl);
    advise(armed && fresh.wd_timeout != running.wd_timeout, VM_SECTION, "wd_timeout",
           "wd_timeout stays %d until failover is switched on again; halvo -w before halvo -r",
           running.wd_timeout);
    if (armed && fresh.wd_tick_intvl >= running.wd_timeout) {
        halvo_check_line_g = line_of(VM_SECTION, "wd_tick_interval");
        halvo_log(LOG_ERR, "halvo -r takes the VM down: the device keeps wd_timeout %d; halvo -w before it\n",
                  running.wd_timeout);
    }
}

static void compare_process(int entry, const halvo_child_proc_info_st& running,
                            const halvo_child_proc_info_st& fresh)
{
    const bool same_name = strcmp(running.proc_name, fresh.proc_name) == 0;
    halvo_check_line_g = line_of(entry, same_name ? "process_type" : "");
    halvo_compare_identity(running, fresh, nullptr);
    if (!same_name) {
        return;
    }
    halvo_check_line_g = line_of(entry, "recur_fail_interval");
    halvo_compare_recur_fail(running, fresh, nullptr);
    advise(halvo_counts_recur_fail(&fresh) && !halvo_counts_recur_fail(&running), entry, "action",
           "restarts of '%s' are not counted until halvo is started again", fresh.proc_name);
    advise(fresh.cpu_grace_time != running.cpu_grace_time || fresh.mem_grace_time != running.mem_grace_time,
           entry, "", "the grace times of '%s' stay until halvo is started again", fresh.proc_name);
}

static void check_file(const char* running_file)
{
    if (halvo_read_confile(&new_vm_info_g, new_child_proc_table_g, verify_and_note) != 0) {
        return;
    }
    advise_on_vm(new_vm_info_g);
    for (int i = 0; i < new_vm_info_g.mon_proc_num; ++i) {
        const halvo_child_proc_info_st& proc = new_child_proc_table_g[i];
        advise_on_type(i, proc, check_commands(i, proc));
        advise_on_action(i, proc);
    }
    if (running_file != nullptr && read_running(running_file) == 0) {
        compare_vm(vm_info_g, new_vm_info_g);
        for (int i = 0; i < std::min(vm_info_g.mon_proc_num, new_vm_info_g.mon_proc_num); ++i) {
            compare_process(i, child_proc_table_g[i], new_child_proc_table_g[i]);
        }
    }
}

int main(int argc, char** argv)
{
    static constexpr std::array<option, 3> options = {
        {{"against", required_argument, nullptr, 'a'}, {"help", no_argument, nullptr, 'h'}, {}}};
    const char* running_file = nullptr;
    int letter = 0;
    while ((letter = getopt_long(argc, argv, "h", options.data(), nullptr)) == 'a') {
        running_file = optarg;
    }
    if (letter != -1 || argc - optind > 1) {
        fprintf(stderr, "usage: halvo-check [--against OLD] [FILE]\n");
        return letter == 'h' ? 0 : 2;
    }
    halvo_config_file_g = optind < argc ? argv[optind] : HALVO_CONFIG_FILE;
    check_file(running_file);
    halvo_log_close();
    return halvo_check_status_g;
}
