#include "halvo_check_reports.h"

#include <syslog.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>

#include "halvo_command.h"
#include "halvo_ctrl_record.h"
#include "halvo_log.h"
#include "halvo_recur_fail.h"

static constexpr pid_t WIDEST_PID = 4194304;     // the kernel gives no higher one, see proc(5)
static constexpr size_t MAX_LINE_LENGTH = 1023;  // the rest of a report's line is cut off

static halvo_report_size_st measured;

// The sink while the tables are filled: the messages of those checks have been printed before.
static void ignore_line(pid_t, int, const char*)
{
}

// A report without a buffer is logged line by line, which gives its length. A report into a buffer raises an
// alert for each line that does not fit, which gives the number of lines left out.
static void measure_line(pid_t, int priority, const char* line)
{
    if (priority == LOG_INFO) {
        measured.length += std::min(strlen(line), MAX_LINE_LENGTH);
    } else if (priority == LOG_ALERT) {
        ++measured.lines_left_out;
    }
}

// Gives each field of the report its widest value.
static void fill_process(halvo_child_proc_info_st* proc)
{
    halvo_check_file_exists(proc);  // for the command of a START_CMD_FILE
    proc->proc_state = ACTIVE;
    proc->pid = WIDEST_PID;
    proc->spawn_count = INT_MAX;
    proc->proc_cpu_kernel = 100;
    proc->proc_cpu_user = 100;
    proc->proc_cpu_tot_usage = 100;
    proc->kbytes_used = UINT32_MAX;
    proc->max_kbytes_used = UINT32_MAX;
    if (halvo_counts_recur_fail(proc)) {
        // No more spawns than fill the list: a further one could count as a recurring failure.
        proc->recur_fail_list = halvo_create_recur_fail_list();
        for (int spawn = 0; spawn < proc->recur_fail_restart_cnt; ++spawn) {
            halvo_insert_recur_fail_info(proc->recur_fail_list, proc->proc_name, proc->recur_fail_intvl,
                                         spawn, proc->recur_fail_restart_cnt);
        }
    }
}

static void fill_tables(const halvo_vm_info_st& vm_info, const halvo_child_proc_info_st* proc_table)
{
    vm_info_g = vm_info;
    vm_info_g.halvo_pid = WIDEST_PID;
    vm_info_g.cpu_kernel = 100;
    vm_info_g.cpu_user = 100;
    vm_info_g.cpu_tot_usage = 100;
    vm_info_g.total_memory = UINT32_MAX;
    vm_info_g.used_memory = UINT32_MAX;
    vm_info_g.free_memory = UINT32_MAX;
    for (int i = 0; i < vm_info.mon_proc_num; ++i) {
        child_proc_table_g[i] = proc_table[i];
        fill_process(&child_proc_table_g[i]);
    }
}

static void clear_tables()
{
    for (halvo_child_proc_info_st& proc : child_proc_table_g) {
        if (proc.recur_fail_list != nullptr) {
            halvo_delete_recur_fail_list(proc.recur_fail_list);
        }
        proc = {};
    }
    vm_info_g = {};
}

halvo_report_size_st halvo_measure_report(const halvo_vm_info_st& vm_info,
                                          const halvo_child_proc_info_st* proc_table,
                                          void (*display)(char* msg_buffer))
{
    halvo_log_sink* const sink = halvo_log_sink_g;
    std::string buffer(MSG_BUFFER_SIZE, '\0');
    measured = {};
    halvo_log_sink_g = ignore_line;
    fill_tables(vm_info, proc_table);
    halvo_log_sink_g = measure_line;
    display(nullptr);
    display(buffer.data());
    halvo_log_sink_g = sink;
    clear_tables();
    return measured;
}
