// The configuration file. Its text also serves as a start command, and the rest of the input as the file that
// the command names.

#include "halvo_command.h"
#include "halvo_params.h"
#include "halvo_text.h"
#include "halvo_utils.h"
#include "world.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static halvo_vm_info_st vm_info;
    static std::array<halvo_child_proc_info_st, MAX_PROC_NUM> table;
    static halvo_child_proc_info_st entry;
    static halvo_command_st split;
    const int index = 0;
    vm_info = {};
    table = {};
    next_files = cut(data, size);
    const std::string text = next_files.front();
    halvo_read_confile(&vm_info, table.data());
    halvo_init_proc_info_table(&entry, &index, "p");
    halvo_copy_text(entry.start_cmd, CMD_SIZE, text.c_str());
    halvo_split_command(text.c_str(), &split);
    halvo_check_script_exists(text.c_str());
    halvo_check_file_exists(&entry);
    return 0;
}
