// Command lines split into words, and the forms of a start command.

#include <sys/stat.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "halvo_command.h"
#include "halvo_params.h"
#include "halvo_text.h"
#include "sandbox.h"

using CommandSandbox = Sandbox;

static std::vector<std::string> words_of(const std::string& command)
{
    halvo_command_st split;
    halvo_split_command(command.c_str(), &split);
    EXPECT_EQ(split.args[0], split.args[1]);
    std::vector<std::string> words;
    for (size_t i = 1; split.args.at(i) != nullptr; ++i) {
        words.emplace_back(split.args.at(i));
    }
    return words;
}

TEST(Command, IsCutAtBlanksTabsAndHash)
{
    const std::vector<std::pair<std::string, std::vector<std::string>>> commands = {
        {"/bin/echo  a\tb", {"/bin/echo", "a", "b"}},
        {"\t prog \"a b\" ", {"prog", "\"a", "b\""}},
        {"prog -v #x y", {"prog", "-v", ""}},
        {"prog -v#x y", {"prog", "-v"}},
        {" \t ", {}},
        {"", {}},
        {std::string(1500, 'x'), {std::string(1023, 'x')}}};
    for (const auto& [command, words] : commands) {
        EXPECT_EQ(words_of(command), words);
    }
    std::string many;
    while (many.size() < 240) {
        many += "w ";
    }
    EXPECT_EQ(words_of(many).size(), 98U);
}

// The table: command, action; result, type, command, the text kept as its file name; the log.
TEST_F(CommandSandbox, StartCommandsAreCheckedAndResolved)
{
    write_file("/tmp/cmd", "/bin/sleep 9\r\nsecond line\n");
    write_file("/tmp/empty", "");
    ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
    for (const auto& row : read_table("start_commands.txt", 4)) {
        halvo_child_proc_info_st entry{};
        const int index = 0;
        halvo_init_proc_info_table(&entry, &index, "p");
        halvo_copy_text(entry.start_cmd, CMD_SIZE, row[0].c_str());
        entry.proc_type = NORMAL;
        entry.action = std::stoi(row[1]);
        const int result = halvo_check_file_exists(&entry);
        EXPECT_EQ(std::to_string(result) + " " + std::to_string(entry.proc_type) + " " + entry.start_cmd +
                      "; " + entry.start_cmd_filename,
                  row[2]);
        EXPECT_EQ(new_log(), row[3]);
    }
}

TEST_F(CommandSandbox, ScriptsAreWaitedForWhateverTheirEnd)
{
    EXPECT_EQ(halvo_check_script_exists("/nonexistent/x arg"), -1);
    vm->wait_in_order(0, {{LOG_ALERT, "[/nonexistent/x arg]: The script file doesn't exist\n"},
                          {LOG_ERR, "No such file or directory [errno: 2]\n"}});
    EXPECT_EQ(halvo_check_script_exists(" "), -1);

    write_file("/tmp/fails", "#!/bin/sh\ntouch /tmp/done\nexit 3\n", 0755);
    EXPECT_EQ(halvo_execute_script("/tmp/fails"), 0);
    EXPECT_EQ(access("/tmp/done", F_OK), 0);
    EXPECT_EQ(halvo_execute_script("/nonexistent/x"), 0);
    EXPECT_EQ(halvo_execute_script(" "), 0);  // execvp of a null file would crash the child
    vm->wait_in_order(0,
                      {{LOG_ERR, "[ ]: execvp failed\n"}, {LOG_INFO, "Script [ ] executed successfully\n"}});
}
