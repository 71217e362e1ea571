// halvo-check: finds the faults of a configuration file before the daemon does, and warns of lines that are
// valid but rarely intended.
//
// The file goes through the daemon's own reader and checks, so that halvo-check never disagrees with the
// daemon. The messages of both go to standard error, one per line, in the form "FILE:LINE: error: TEXT" that
// editors and compilers know.
//
// new_vm_info_g and new_child_proc_table_g hold the checked file. With --against, vm_info_g and
// child_proc_table_g hold the file that the daemon runs with. Single-threaded.

#include <getopt.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <span>
#include <string>
#include <utility>

#include "halvo_check_reports.h"
#include "halvo_command.h"
#include "halvo_ctrl_record.h"
#include "halvo_log.h"
#include "halvo_params.h"
#include "halvo_recur_fail.h"
#include "halvo_report.h"
#include "halvo_text.h"
#include "halvo_update.h"
#include "halvo_utils.h"

static constexpr int VM_SECTION = -1;  // the other sections have the numbers of the table's entries
static constexpr size_t KERNEL_NAME_LENGTH = 15;  // characters; TASK_COMM_LEN without the terminator

static int check_line;     // printed with a message that does not name its line itself; 0: no line
static bool check_silent;  // messages are neither printed nor counted
static bool errors_only;   // warnings are neither printed nor counted
static int exit_status;    // 0 clean, 1 warnings, 2 errors

// The line that last set each parameter, by section and name. The name "" stands for the line that opened
// the section.
static std::map<std::pair<int, std::string>, int> param_lines;

// The log's sink: prints a line that the daemon would log as a warning or worse. A lower priority is news of
// the daemon's work, which says nothing about the file.
static void print_line(pid_t, int priority, const char* line)
{
    if (priority > (errors_only ? LOG_ERR : LOG_WARNING) || check_silent) {
        return;
    }
    // A message that names its line begins with "FILE[line:N]: ".
    const std::string start = std::string(halvo_config_file_g) + "[line:";
    std::string place = halvo_config_file_g;
    std::string text = line;
    if (text.starts_with(start)) {
        const size_t end = text.find("]: ", start.size());
        place += ":" + text.substr(start.size(), end - start.size());
        text.erase(0, end + 3);
    } else if (check_line != 0) {
        place += ":" + std::to_string(check_line);
    }
    text.erase(text.find_last_not_of(" \n") + 1);
    // A value from the file may hold control bytes that the terminal would obey.
    std::ranges::replace_if(
        text, [](unsigned char letter) { return iscntrl(letter) != 0; }, '?');
    const bool warns = priority == LOG_WARNING;
    fprintf(stderr, "%s: %s: %s\n", place.c_str(), warns ? "warning" : "error", text.c_str());
    exit_status = std::max(exit_status, warns ? 1 : 2);
}

// Returns the line that sets the parameter. If no line does, returns the line that opens its section, or 0
// for a parameter of the VM.
static int line_of(int section, const char* param_name)
{
    const auto found = param_lines.find({section, param_name});
    return found == param_lines.end() ? param_lines[{section, ""}] : found->second;
}

// Warns at the parameter's line if the condition holds. The condition is an argument, so that each piece of
// advice is one statement.
[[gnu::format(printf, 4, 5)]] static void advise(bool condition, int section, const char* param_name,
                                                 const char* format, ...)
{
    va_list args;
    va_start(args, format);
    check_line = line_of(section, param_name);
    if (condition) {
        halvo_vlog(LOG_WARNING, format, args);
    }
    check_line = 0;
    va_end(args);
}

// Notes the line of a setting that the daemon accepts, and warns if the setting is probably not the intended
// one.
static void note_param(int section, std::span<const halvo_config_param_st> rows, const char* param_name,
                       const char* param_value, int line)
{
    // The reader accepts an unknown parameter of the VM: its -1 becomes an index beyond the table.
    const auto row = static_cast<size_t>(halvo_find_param(rows, param_name));
    // The last setting counts, so the warning names the line that has no effect.
    const int noted = std::exchange(param_lines[{section, param_name}], line);
    advise(noted != 0, section, param_name, "%s is set twice: this line counts, line %d does not; remove one",
           param_name, noted);
    if (row < rows.size() && rows[row].param_type == PARAM_NUMBER) {
        // The reader stops at the first character that is not a digit, and cuts the number to 32 bits.
        char* end = nullptr;
        const long number = strtol(param_value, &end, 10);
        advise(*end != '\0' || number > UINT32_MAX || number < INT32_MIN, section, param_name,
               "%s [%s] is read as %u; write digits only", param_name, param_value,
               static_cast<uint32_t>(number));
    }
}

// The reader's callback: the daemon's check of a line, then a note of the line's number.
static int verify_and_note(const char* keyword, const char* param_name, const char* param_value,
                           char* proc_name, halvo_vm_info_st* vm_info, halvo_child_proc_info_st* proc_table,
                           const int* line_num)
{
    const int entries = vm_info->mon_proc_num;
    const int result =
        halvo_verify_conf_param(keyword, param_name, param_value, proc_name, vm_info, proc_table, line_num);
    // A new entry can only come from the line that opened its section.
    if (vm_info->mon_proc_num != entries) {
        param_lines[{entries, ""}] = *line_num;
    } else if (result == 0 && strcmp(keyword, "global") == 0) {
        note_param(VM_SECTION, vm_conf_param_dfl_g, param_name, param_value, *line_num);
    } else if (result == 0) {
        note_param(entries - 1, proc_conf_param_dfl_g, param_name, param_value, *line_num);
    }
    return result;
}

// Limits are in kB or percent. With `acts`, a usage below the low limit carries out the process's action;
// without it, as for the VM, such a usage is only logged.
static void advise_on_limits(int section, const char* low_name, int64_t low, int64_t high, bool acts = false)
{
    advise(acts && low != 0, section, low_name,
           "a usage below %s triggers the action too; set this limit to 0", low_name);
    advise(high != 0 && low > high, section, low_name,
           "%s [%ld] is above the high limit [%ld], so one of the two is always crossed; lower %s", low_name,
           low, high, low_name);
}

static void advise_on_vm(const halvo_vm_info_st& vm)
{
    // The delay of a keepalive, in seconds, that takes the VM down. One second is too little, since a busy
    // host may cause it. A whole interval is the rule of halvo.conf(5): the timeout is then at least two
    // intervals.
    const int slack = vm.wd_timeout - vm.wd_tick_intvl;
    // The advice names the line that the operator wrote; either value can be the wrong one.
    const bool tick_set = param_lines.contains({VM_SECTION, "wd_tick_interval"});
    const char* at_line = tick_set ? "wd_tick_interval" : "wd_timeout";
    const char* remedy = tick_set ? "lower wd_tick_interval" : "raise wd_timeout";
    advise(slack < 1, VM_SECTION, at_line,
           "wd_tick_interval %d is not below wd_timeout %d: the watchdog expires between two keepalives; %s",
           vm.wd_tick_intvl, vm.wd_timeout, remedy);
    advise(
        slack >= 1 && (slack < 2 || slack < vm.wd_tick_intvl), VM_SECTION, at_line,
        "with wd_tick_interval %d and wd_timeout %d a keepalive that comes %d s late takes the VM down; %s",
        vm.wd_tick_intvl, vm.wd_timeout, slack, remedy);
    advise_on_limits(VM_SECTION, "vm_mem_low_water", vm.mem_low_water, vm.mem_high_water);
    advise_on_limits(VM_SECTION, "vm_cpu_total_low_water", vm.cpu_tot_low_water, vm.cpu_tot_high_water);
}

// With `by_command`, the start command makes the entry a SYSTEM process, whatever its process_type says.
static void advise_on_type(int entry, const halvo_child_proc_info_st& proc, bool by_command)
{
    const char* name = proc.proc_name;
    const bool restart = proc.action == PROC_RESTART;
    advise(by_command && proc.proc_type != SYSTEM, entry, "process_type",
           "start_cmd makes '%s' a SYSTEM process, and then every halvo -r fails; set process_type SYSTEM",
           name);
    advise(!by_command && proc.proc_type == SYSTEM, entry, "process_type", "SYSTEM '%s' is %s", name,
           restart ? "started like a DAEMON; set process_type DAEMON"
                   : "never started; set start_cmd \"SYSTEM\" or another type");
    advise(!by_command && proc.proc_type == DAEMON && !restart, entry, "process_type",
           "DAEMON '%s' is started only if its action is PROC_RESTART", name);
    advise((by_command || proc.proc_type != NORMAL) && strlen(name) > KERNEL_NAME_LENGTH, entry, "",
           "'%s' is never found: the kernel keeps only %zu characters of a name; shorten the name", name,
           KERNEL_NAME_LENGTH);
}

// The daemon waits for a script without a limit, and the waiting thread handles no other loss meanwhile.
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
           "nothing limits the restarts of '%s'; set recur_fail_restart_count and recur_fail_interval",
           proc.proc_name);
    advise(proc.action == VM_FAILOVER && new_vm_info_g.vm_failover_flag == DISABLE, entry, "action",
           "the loss of '%s' is only logged while vm_failover is DISABLE; set it to ENABLE", proc.proc_name);
    if (proc.action != NOP && proc.proc_type != SYSTEM) {
        advise_on_script(entry, "pre_start_cmd", proc.pre_start_cmd);
        advise_on_script(entry, "post_start_cmd", proc.post_start_cmd);
    }
    advise_on_limits(entry, "proc_mem_low_water", proc.proc_mem_low_water, proc.proc_mem_high_water,
                     proc.action != NOP);
    advise_on_limits(entry, "proc_cpu_total_low_water", proc.proc_cpu_tot_low_water,
                     proc.proc_cpu_tot_high_water, proc.action != NOP);
}

// Runs the checks of all commands, where an update stops at the first faulty one. Works on a copy of the
// entry, because the checks change it. Returns true when the start command makes the entry a SYSTEM process.
static bool check_commands(int entry, halvo_child_proc_info_st proc)
{
    // Cleared, so that SYSTEM afterwards can only come from the start command.
    proc.proc_type = process_type_en{};
    for (const halvo_command_check_st& command : halvo_command_checks_g) {
        // The check's messages name no line, so they get the parameter's line.
        check_line = line_of(entry, command.param_name);
        if (halvo_has_command(proc.*command.field)) {
            command.check(&proc, nullptr);
        }
    }
    return proc.proc_type == SYSTEM;
}

// Warns of a section that can be taken for another one, by the reader or by the daemon's look-up of
// processes.
static void advise_on_names(int entry, const halvo_child_proc_info_st& proc)
{
    for (int i = 0; i < new_vm_info_g.mon_proc_num; ++i) {
        const halvo_child_proc_info_st& other = new_child_proc_table_g[i];
        const bool same = strcmp(proc.proc_name, other.proc_name) == 0;
        advise(
            i < entry && same, entry, "",
            "two sections are named '%s': the lines after this one belong to it, not to line %d; rename one",
            proc.proc_name, line_of(i, ""));
        // A process that is found by name counts as running while its pid belongs to any process whose name
        // contains the configured name.
        advise(!same && proc.proc_type != NORMAL && strstr(other.proc_name, proc.proc_name) != nullptr, entry,
               "",
               "'%s' is part of the name '%s': the loss of '%s' is missed if the other process gets its pid; "
               "rename one",
               proc.proc_name, other.proc_name, proc.proc_name);
    }
}

static void advise_on_report(const char* option, void (*display)(char*), const char* remedy)
{
    // A report has no line in the file, so the warning is given without one.
    const halvo_report_size_st size = halvo_measure_report(new_vm_info_g, new_child_proc_table_g, display);
    advise(size.lines_left_out > 0, VM_SECTION, "",
           "halvo %s shows %zu of up to %zu characters, so it leaves out %d lines; %s", option,
           MSG_BUFFER_SIZE - 1, size.length, size.lines_left_out, remedy);
}

// Fills the running tables as the daemon did at start-up. Silent: the daemon's start has already reported
// the faults of this file.
static int read_running(const char* path)
{
    // The running file is read under its own name, so that its lines do not pass for those of the checked
    // file.
    const char* config_file = std::exchange(halvo_config_file_g, path);
    check_silent = true;
    const int result = halvo_read_confile(&vm_info_g, child_proc_table_g);
    // Resolves the keywords of the start commands, which can change an entry's type, as at start-up.
    for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
        halvo_check_file_exists(&child_proc_table_g[i]);
    }
    check_silent = false;
    if (result != 0) {
        halvo_log(LOG_ERR, "no daemon can have started with this file; check it on its own\n");
    }
    halvo_config_file_g = config_file;
    return result;
}

// Lists the settings of the VM that a live update would not put into force, or that would endanger the VM.
static void compare_vm(const halvo_vm_info_st& running, const halvo_vm_info_st& fresh)
{
    // A device that stays open keeps its timeout: only arming it again programs a new one.
    const bool armed = running.vm_failover_flag == ENABLE && fresh.vm_failover_flag == ENABLE;
    halvo_compare_proc_num(nullptr);
    advise(fresh.res_mon_intvl != running.res_mon_intvl, VM_SECTION, "res_monit_interval",
           "res_monit_interval stays %d until halvo is restarted", running.res_mon_intvl);
    advise(armed && fresh.wd_timeout != running.wd_timeout, VM_SECTION, "wd_timeout",
           "the device keeps wd_timeout %d until failover is switched on again; run halvo -w before halvo -r",
           running.wd_timeout);
    if (armed && fresh.wd_tick_intvl >= running.wd_timeout) {
        check_line = line_of(VM_SECTION, "wd_tick_interval");
        halvo_log(
            LOG_ERR,
            "halvo -r would take the VM down: the device keeps wd_timeout %d, and wd_tick_interval %d is "
            "not below it; run halvo -w first\n",
            running.wd_timeout, fresh.wd_tick_intvl);
    }
}

static void compare_process(int entry, const halvo_child_proc_info_st& running,
                            const halvo_child_proc_info_st& fresh)
{
    const bool same_name = strcmp(running.proc_name, fresh.proc_name) == 0;
    check_line = line_of(entry, same_name ? "process_type" : "");
    halvo_compare_identity(running, fresh, nullptr);
    // Under another name it is another process, and a comparison of the rest would say nothing.
    if (!same_name) {
        return;
    }
    check_line = line_of(entry, "recur_fail_interval");
    halvo_compare_recur_fail(running, fresh, nullptr);
    advise(halvo_counts_recur_fail(&fresh) && !halvo_counts_recur_fail(&running), entry, "action",
           "restarts of '%s' are not counted until halvo is restarted", fresh.proc_name);
    advise(fresh.cpu_grace_time != running.cpu_grace_time || fresh.mem_grace_time != running.mem_grace_time,
           entry, "", "the grace times of '%s' stay as they are until halvo is restarted", fresh.proc_name);
}

// Further checks of a file that the reader refuses would only report its faults a second time.
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
        advise_on_names(i, proc);
    }
    advise_on_report("-s", halvo_display_status_info, "lower recur_fail_restart_count");
    advise_on_report("-c", halvo_display_config_details, "shorten the commands");
    if (running_file != nullptr && read_running(running_file) == 0) {
        compare_vm(vm_info_g, new_vm_info_g);
        // Entry by entry, as the update does it; with different numbers only the common part can be
        // compared.
        for (int i = 0; i < std::min(vm_info_g.mon_proc_num, new_vm_info_g.mon_proc_num); ++i) {
            compare_process(i, child_proc_table_g[i], new_child_proc_table_g[i]);
        }
    }
}

int main(int argc, char** argv)
{
    static constexpr std::array<option, 5> options = {{{"against", required_argument, nullptr, 'a'},
                                                       {"errors-only", no_argument, nullptr, 'e'},
                                                       {"help", no_argument, nullptr, 'h'},
                                                       {"version", no_argument, nullptr, 'v'},
                                                       {}}};
    const char* running_file = nullptr;
    int letter = 0;
    // The loop ends at --help, --version or a wrong option too: nothing after one of these counts.
    while ((letter = getopt_long(argc, argv, "h", options.data(), nullptr)) == 'a' || letter == 'e') {
        running_file = letter == 'a' ? optarg : running_file;
        errors_only = errors_only || letter == 'e';
    }
    if (letter == 'v') {
        puts("halvo-check " HALVO_VERSION);
        return 0;
    }
    if (letter != -1 || argc - optind > 1) {
        fprintf(letter == 'h' ? stdout : stderr,
                "usage: halvo-check [--errors-only] [--against OLD] [FILE]\n       halvo-check --help | "
                "--version\n");
        return letter == 'h' ? 0 : 2;
    }
    halvo_config_file_g = optind < argc ? argv[optind] : HALVO_CONFIG_FILE;
    // From here on the shared code's messages are printed instead of logged.
    halvo_log_sink_g = print_line;
    check_file(running_file);
    return exit_status;
}
