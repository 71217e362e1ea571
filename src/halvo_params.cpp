#include "halvo_params.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "halvo_log.h"
#include "halvo_text.h"

static constexpr uint32_t MAX_MEMORY_LIMIT = 2147483640;  // kB

#define VM_FIELD(field) static_cast<int>(offsetof(halvo_vm_info_st, field))
#define PROC_FIELD(field) static_cast<int>(offsetof(halvo_child_proc_info_st, field))

// clang-format off
const std::array<halvo_config_param_st, VM_PARAM_NUM> vm_conf_param_dfl_g = {{
    {"version",                 PARAM_NUMBER, 0, 10,               1, FALSE, FALSE, VM_FIELD(version)},
    {"res_monit_interval",      PARAM_NUMBER, 2, 60,               6, FALSE, TRUE,  VM_FIELD(res_mon_intvl)},
    {"wd_tick_interval",        PARAM_NUMBER, 1, 60,               4, FALSE, TRUE,  VM_FIELD(wd_tick_intvl)},
    {"wd_timeout",              PARAM_NUMBER, 2, 60,               8, FALSE, TRUE,  VM_FIELD(wd_timeout)},
    {"vm_failover",             PARAM_MODE,   0, 0,                0, FALSE, TRUE,  VM_FIELD(vm_failover_flag)},
    {"vm_mem_high_water",       PARAM_NUMBER, 0, MAX_MEMORY_LIMIT, 0, FALSE, FALSE, VM_FIELD(mem_high_water)},
    {"vm_mem_low_water",        PARAM_NUMBER, 0, MAX_MEMORY_LIMIT, 0, FALSE, FALSE, VM_FIELD(mem_low_water)},
    {"vm_cpu_total_high_water", PARAM_NUMBER, 0, 100,              0, FALSE, FALSE, VM_FIELD(cpu_tot_high_water)},
    {"vm_cpu_total_low_water",  PARAM_NUMBER, 0, 100,              0, FALSE, FALSE, VM_FIELD(cpu_tot_low_water)},
    {"debug_mode",              PARAM_MODE,   0, 0,                0, FALSE, TRUE,  VM_FIELD(debug_mode_flag)},
}};

const std::array<halvo_config_param_st, PROC_PARAM_NUM> proc_conf_param_dfl_g = {{
    {"pre_start_cmd",             PARAM_STRING, 0, 0,                0, FALSE, FALSE, PROC_FIELD(pre_start_cmd)},
    {"start_cmd",                 PARAM_STRING, 0, 0,                0, TRUE,  FALSE, PROC_FIELD(start_cmd)},
    {"post_start_cmd",            PARAM_STRING, 0, 0,                0, FALSE, FALSE, PROC_FIELD(post_start_cmd)},
    {"stop_cmd",                  PARAM_STRING, 0, 0,                0, FALSE, FALSE, PROC_FIELD(stop_cmd)},
    {"proc_mem_high_water",       PARAM_NUMBER, 0, MAX_MEMORY_LIMIT, 0, FALSE, FALSE, PROC_FIELD(proc_mem_high_water)},
    {"proc_mem_low_water",        PARAM_NUMBER, 0, MAX_MEMORY_LIMIT, 0, FALSE, FALSE, PROC_FIELD(proc_mem_low_water)},
    {"proc_cpu_total_high_water", PARAM_NUMBER, 0, 100,              0, FALSE, FALSE, PROC_FIELD(proc_cpu_tot_high_water)},
    {"proc_cpu_total_low_water",  PARAM_NUMBER, 0, 100,              0, FALSE, FALSE, PROC_FIELD(proc_cpu_tot_low_water)},
    {"action",                    PARAM_MODE,   0, 0,                0, TRUE,  FALSE, PROC_FIELD(action)},
    {"proc_cpu_grace_time",       PARAM_NUMBER, 0, 10,               0, FALSE, FALSE, PROC_FIELD(cpu_grace_time)},
    {"proc_mem_grace_time",       PARAM_NUMBER, 0, 10,               0, FALSE, FALSE, PROC_FIELD(mem_grace_time)},
    {"process_type",              PARAM_MODE,   0, 0,                0, TRUE,  FALSE, PROC_FIELD(proc_type)},
    {"recur_fail_interval",       PARAM_NUMBER, 2, 86400,            0, FALSE, FALSE, PROC_FIELD(recur_fail_intvl)},
    {"recur_fail_restart_count",  PARAM_NUMBER, 1, 60,               0, FALSE, FALSE, PROC_FIELD(recur_fail_restart_cnt)},
}};
// clang-format on

#undef VM_FIELD
#undef PROC_FIELD

// The words of each mode parameter, and the codes that are stored for them. No code is 0, which stands for
// a word not found.
struct mode_word_st {
    std::string_view param_name;
    std::string_view word;
    int32_t code;
};

static constexpr std::array<mode_word_st, 10> mode_words = {{
    {"vm_failover", "ENABLE", ENABLE},
    {"vm_failover", "DISABLE", DISABLE},
    {"debug_mode", "ENABLE", ENABLE},
    {"debug_mode", "DISABLE", DISABLE},
    {"action", "PROC_RESTART", PROC_RESTART},
    {"action", "VM_FAILOVER", VM_FAILOVER},
    {"action", "NOP", NOP},
    {"process_type", "NORMAL", NORMAL},
    {"process_type", "DAEMON", DAEMON},
    {"process_type", "SYSTEM", SYSTEM},
}};

int halvo_find_param(std::span<const halvo_config_param_st> table, std::string_view param_name)
{
    const auto row = std::find_if(table.begin(), table.end(),
                                  [&](const auto& candidate) { return param_name == candidate.param_name; });
    return row == table.end() ? -1 : static_cast<int>(row - table.begin());
}

// Returns the code of a parameter's word, or 0 when it has no such word.
static int32_t find_mode_code(std::string_view param_name, std::string_view word)
{
    for (const mode_word_st& row : mode_words) {
        if (row.param_name == param_name && row.word == word) {
            return row.code;
        }
    }
    return 0;
}

// Stores a value at its row's offset. memcpy(), because a write through a cast pointer would break the
// aliasing rules.
static void store_word(void* record, const halvo_config_param_st& row, uint32_t value)
{
    memcpy(static_cast<char*>(record) + row.offset, &value, sizeof(value));
}

static void store_number(void* record, const halvo_config_param_st& row, const char* param_value,
                         int line_num)
{
    // Cut to 32 bits and compared unsigned, so that a negative number is above every maximum.
    auto value = static_cast<uint32_t>(strtol(param_value, nullptr, 10));
    if (value < row.min_value || value > row.max_value) {
        halvo_log(LOG_WARNING,
                  "%s[line:%d]: %s value[%u] is not in valid range[%u - %u]. Considering default value: %u\n",
                  halvo_config_file_g, line_num, row.param_name, value, row.min_value, row.max_value,
                  row.dfl_value);
        value = row.dfl_value;
    }
    store_word(record, row, value);
}

static int store_vm_mode(halvo_vm_info_st* vm_info, const halvo_config_param_st& row, const char* word,
                         int line_num)
{
    // The defaults stand here because the table has no column for words. A typing error must not switch
    // failover off.
    const char* fallback = nullptr;
    if (strcmp(row.param_name, "vm_failover") == 0) {
        fallback = "ENABLE";
    } else if (strcmp(row.param_name, "debug_mode") == 0) {
        fallback = "DISABLE";
    } else {
        halvo_log(LOG_ERR, "Invalid param name found: %s\n", row.param_name);
        return -1;
    }
    int32_t code = find_mode_code(row.param_name, word);
    if (code == 0) {
        halvo_log(LOG_WARNING, "%s[line:%d]: [%s] mode is not valid. Considering default mode: %s\n",
                  halvo_config_file_g, line_num, word, fallback);
        code = find_mode_code(row.param_name, fallback);
    }
    store_word(vm_info, row, static_cast<uint32_t>(code));
    return 0;
}

static int store_proc_mode(halvo_child_proc_info_st* proc_info, const halvo_config_param_st& row,
                           const char* word, int line_num)
{
    int32_t code = find_mode_code(row.param_name, word);
    if (strcmp(row.param_name, "action") == 0) {
        if (code == 0) {
            halvo_log(LOG_WARNING, "%s[line:%d]: %s [%s] is not valid. Considering default mode: %s\n",
                      halvo_config_file_g, line_num, row.param_name, word, "NOP");
            code = NOP;
        }
    } else if (strcmp(row.param_name, "process_type") == 0) {
        if (code == 0) {
            halvo_log(LOG_ERR, "%s[line:%d]: %s [%s] is not valid\n", halvo_config_file_g, line_num,
                      row.param_name, word);
            return -1;
        }
    } else {
        halvo_log(LOG_ERR, "Invalid param name found: %s\n", row.param_name);
        return -1;
    }
    store_word(proc_info, row, static_cast<uint32_t>(code));
    return 0;
}

int halvo_update_vm_info_table(halvo_vm_info_st* vm_info, const int* conf_param_index, const char* param_name,
                               const char* param_value, const int* line_num)
{
    const halvo_config_param_st& row = vm_conf_param_dfl_g.at(static_cast<size_t>(*conf_param_index));
    switch (row.param_type) {
        case PARAM_NUMBER:
            store_number(vm_info, row, param_value, *line_num);
            return 0;
        case PARAM_MODE:
            return store_vm_mode(vm_info, row, param_value, *line_num);
        default:  // the VM record has no field for a string
            halvo_log(LOG_ERR, "Invalid param type for %s\n", param_name);
            return -1;
    }
}

int halvo_update_proc_info_table(halvo_child_proc_info_st* proc_table, const int* proc_table_index,
                                 const char* param_name, const char* param_value, const int* conf_param_index,
                                 const int* line_num)
{
    const halvo_config_param_st& row = proc_conf_param_dfl_g.at(static_cast<size_t>(*conf_param_index));
    halvo_child_proc_info_st* proc_info = &proc_table[*proc_table_index];
    switch (row.param_type) {
        case PARAM_NUMBER:
            store_number(proc_info, row, param_value, *line_num);
            return 0;
        case PARAM_STRING:
            halvo_copy_text(reinterpret_cast<char*>(proc_info) + row.offset, CMD_SIZE, param_value);
            return 0;
        case PARAM_MODE:
            return store_proc_mode(proc_info, row, param_value, *line_num);
        default:
            halvo_log(LOG_ERR, "Invalid param type for %s\n", param_name);
            return -1;
    }
}

int halvo_init_vm_info_table(halvo_vm_info_st* vm_info)
{
    // These values must agree with the defaults in the table, which replace numbers out of range.
    vm_info->halvo_pid = getpid();
    vm_info->version = 1;
    vm_info->res_mon_intvl = 6;
    vm_info->wd_tick_intvl = 4;
    vm_info->wd_timeout = 8;
    vm_info->vm_failover_flag = ENABLE;
    vm_info->debug_mode_flag = DISABLE;
    vm_info->mem_high_water = 0;
    vm_info->mem_low_water = 0;
    vm_info->cpu_usage_data_init = FALSE;
    vm_info->cpu_tot_high_water = 0;
    vm_info->cpu_tot_low_water = 0;
    return 0;
}

int halvo_init_proc_info_table(halvo_child_proc_info_st* proc_table, const int* proc_table_index,
                               const char* proc_name)
{
    halvo_child_proc_info_st* proc_info = &proc_table[*proc_table_index];
    halvo_copy_text(proc_info->proc_name, PROC_NAME_SIZE, proc_name);
    for (char* command : {proc_info->pre_start_cmd, proc_info->start_cmd, proc_info->start_cmd_filename,
                          proc_info->post_start_cmd, proc_info->stop_cmd}) {
        halvo_copy_text(command, CMD_SIZE, INVALID_CMD);
    }
    proc_info->proc_mem_high_water = 0;
    proc_info->proc_mem_low_water = 0;
    proc_info->action = NOP;
    proc_info->notify_crash = FALSE;
    proc_info->proc_state = UNKNOWN;
    // None yet: halvo_verify_mandatory_param() looks for entries whose type was never set.
    proc_info->proc_type = process_type_en{};
    proc_info->spawn_count = 0;
    proc_info->last_spawn_time = 0;
    proc_info->cpu_usage_data_init = FALSE;
    proc_info->proc_cpu_tot_high_water = 0;
    proc_info->proc_cpu_tot_low_water = 0;
    proc_info->cpu_grace_time = 0;
    proc_info->mem_grace_time = 0;
    proc_info->recur_fail_intvl = 0;
    proc_info->recur_fail_restart_cnt = 0;
    return 0;
}

// A parameter that was never set still has its initial value. `action` is never missing, because it starts
// as NOP.
static bool is_param_missing(const halvo_child_proc_info_st& proc_info, const halvo_config_param_st& row)
{
    const char* field = reinterpret_cast<const char*>(&proc_info) + row.offset;
    if (row.param_type == PARAM_STRING) {
        return !halvo_has_command(field);
    }
    int32_t value = 0;
    memcpy(&value, field, sizeof(value));
    return value == 0;
}

int halvo_verify_mandatory_param(const halvo_vm_info_st* vm_info, const halvo_child_proc_info_st* proc_table)
{
    halvo_log(LOG_DEBUG, "Verifying mandatory param for process\n");
    for (int i = 0; i < vm_info->mon_proc_num; ++i) {
        for (const halvo_config_param_st& row : proc_conf_param_dfl_g) {
            if (row.is_mandatory == FALSE) {
                continue;
            }
            halvo_log(LOG_DEBUG, "[%s] is mandatory param for process\n", row.param_name);
            if (is_param_missing(proc_table[i], row)) {
                halvo_log(LOG_ALERT, "Mandatory param [%s] of  process '%s' not found in config file\n",
                          row.param_name, proc_table[i].proc_name);
                return -1;
            }
        }
    }
    return 0;
}
