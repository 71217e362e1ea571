// A command line, and the file that it may name: words are words, and lie in the copy.

#include <cstring>

#include "halvo_command.h"
#include "halvo_params.h"
#include "halvo_utils.h"
#include "world.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static halvo_command_st split;
    static halvo_child_proc_info_st entry;
    const int index = 0;
    next_files = cut(data, size);
    const std::string command = next_files.front().c_str();
    next_files.erase(next_files.begin());

    halvo_split_command(command.c_str(), &split);
    size_t word = 1;
    for (; split.args.at(word) != nullptr; ++word) {
        const char* text = split.args.at(word);
        require(text >= split.copy.data() && text < split.copy.data() + split.copy.size(),
                "a word of the copy");
        require(text[strcspn(text, " \t#")] == '\0', "a single word");
    }
    require(split.args[0] == split.args[1] && word <= 99, "98 words");

    halvo_init_proc_info_table(&entry, &index, "p");
    halvo_copy_text(entry.start_cmd, CMD_SIZE, command.c_str());
    halvo_check_script_exists(command.c_str());
    halvo_check_file_exists(&entry);
    require(strnlen(entry.start_cmd, CMD_SIZE) < CMD_SIZE, "a terminated command");
    require(strnlen(entry.start_cmd_filename, CMD_SIZE) < CMD_SIZE, "a terminated file name");
    return 0;
}
