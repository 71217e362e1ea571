// The configuration file: whatever it holds, what is stored is within its row's bounds.

#include <cstring>
#include <span>

#include "halvo_params.h"
#include "halvo_utils.h"
#include "world.h"

static void check_record(const void* record, std::span<const halvo_config_param_st> rows)
{
    for (const halvo_config_param_st& row : rows) {
        const char* field = static_cast<const char*>(record) + row.offset;
        uint32_t value = 0;
        memcpy(&value, field, sizeof(value));
        if (row.param_type == PARAM_STRING) {
            require(strnlen(field, CMD_SIZE) < CMD_SIZE, "a terminated text");
        } else if (row.param_type == PARAM_NUMBER) {
            require(value == row.dfl_value || (value >= row.min_value && value <= row.max_value),
                    row.param_name);
        } else {
            require(value >= 1 && value <= 3, row.param_name);
        }
    }
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static halvo_vm_info_st vm_info;
    static std::array<halvo_child_proc_info_st, MAX_PROC_NUM> table;
    vm_info = {};
    table = {};
    next_files = {{reinterpret_cast<const char*>(data), size}};
    if (halvo_read_confile(&vm_info, table.data()) != 0) {
        return 0;
    }
    require(vm_info.mon_proc_num >= 0 && vm_info.mon_proc_num <= MAX_PROC_NUM, "a number of processes");
    check_record(&vm_info, vm_conf_param_dfl_g);
    for (int i = 0; i < vm_info.mon_proc_num; ++i) {
        const halvo_child_proc_info_st& entry = table.at(static_cast<size_t>(i));
        check_record(&entry, proc_conf_param_dfl_g);
        require(strnlen(entry.proc_name, PROC_NAME_SIZE) < PROC_NAME_SIZE, "a terminated name");
    }
    return 0;
}
