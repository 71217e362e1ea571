// Command lines cut into words, and the forms of a start command.

#include <sys/stat.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "halvo_command.h"
#include "halvo_params.h"
#include "halvo_utils.h"
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
    using words = std::vector<std::string>;
    EXPECT_EQ(words_of("/bin/echo  a\tb"), (words{"/bin/echo", "a", "b"}));
    EXPECT_EQ(words_of("\t prog \"a b\" "), (words{"prog", "\"a", "b\""}));
    EXPECT_EQ(words_of("prog -v #x y"), (words{"prog", "-v", ""}));
    EXPECT_EQ(words_of("prog -v#x y"), (words{"prog", "-v"}));
    EXPECT_EQ(words_of(" \t "), words{});
    EXPECT_EQ(words_of(""), words{});
    std::string many;
    for (int i = 0; i < 120; ++i) {
        many += "w ";
    }
    EXPECT_EQ(words_of(many).size(), 98U);
    EXPECT_EQ(words_of(std::string(1500, 'x')).at(0).size(), 1023U);
}

// What a start command comes to: the result, the type, the command and the text kept as its file name.
struct start_command {
    std::string text;
    int action;
    int result;
    process_type_en proc_type;
    std::string start_cmd;
    std::string start_cmd_filename;
    std::string alert;
};

TEST_F(CommandSandbox, StartCommandsAreCheckedAndResolved)
{
    write_file("/tmp/cmd", "/bin/sleep 9\r\nsecond line\n");
    write_file("/tmp/empty", "");
    ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
    const std::vector<start_command> cases = {
        {"/bin/sleep 9", NOP, 0, NORMAL, "/bin/sleep 9", INVALID_CMD, ""},
        {"tool /tmp/cmd", NOP, 0, NORMAL, "tool /tmp/cmd", INVALID_CMD, ""},
        {"SYSTEM x", VM_FAILOVER, 0, SYSTEM, "SYSTEM x", INVALID_CMD, ""},
        {"SYSTEM", PROC_RESTART, -1, SYSTEM, "SYSTEM", INVALID_CMD,
         "action [process restart] is not valid for system spawned process\n"},
        {"START_CMD_FILE /tmp/cmd", NOP, 0, NORMAL, "/bin/sleep 9", "START_CMD_FILE /tmp/cmd", ""},
        {"START_CMD_FILE /tmp/empty", NOP, 0, NORMAL, "START_CMD_FILE /tmp/empty", INVALID_CMD, ""},
        {"START_CMD_FILE /tmp/fifo", NOP, 0, NORMAL, "START_CMD_FILE /tmp/fifo", INVALID_CMD, ""},
        {"START_CMD_FILE /no", NOP, -1, NORMAL, "START_CMD_FILE /no", INVALID_CMD,
         "[START_CMD_FILE /no]: The start command file [/no] doesn't exist\n"},
        {"START_CMD_FILE", NOP, -1, NORMAL, "START_CMD_FILE", INVALID_CMD,
         "[START_CMD_FILE]: The start command file [] doesn't exist\n"},
        {"sleep#x", NOP, -1, NORMAL, "sleep#x", INVALID_CMD,
         "[sleep#x]: The executable mentioned in start command doesn't exist\n"},
        {"  ", NOP, -1, NORMAL, "  ", INVALID_CMD,
         "[  ]: The executable mentioned in start command doesn't exist\n"},
    };
    for (const start_command& wanted : cases) {
        halvo_child_proc_info_st entry{};
        const int index = 0;
        const size_t before = vm->count(HOST_ANY, "*");
        halvo_init_proc_info_table(&entry, &index, "p");
        halvo_copy_text(entry.start_cmd, CMD_SIZE, wanted.text.c_str());
        entry.proc_type = NORMAL;
        entry.action = wanted.action;
        EXPECT_EQ(halvo_check_file_exists(&entry), wanted.result) << wanted.text;
        EXPECT_EQ(entry.proc_type, wanted.proc_type) << wanted.text;
        EXPECT_EQ(entry.start_cmd, wanted.start_cmd);
        EXPECT_EQ(entry.start_cmd_filename, wanted.start_cmd_filename);
        if (!wanted.alert.empty()) {
            vm->wait_for(LOG_ALERT, wanted.alert, std::chrono::seconds(5), before);
        }
    }
}

TEST_F(CommandSandbox, ScriptsAreWaitedForWhateverTheirEnd)
{
    EXPECT_EQ(halvo_check_script_exists("/nonexistent/x arg"), -1);
    vm->wait_for(LOG_ALERT, "[/nonexistent/x arg]: The script file doesn't exist\n", std::chrono::seconds(5));
    vm->wait_for(LOG_ERR, "No such file or directory [errno: 2]\n", std::chrono::seconds(5));
    EXPECT_EQ(halvo_check_script_exists(" "), -1);

    write_file("/tmp/fails", "#!/bin/sh\ntouch /tmp/done\nexit 3\n", 0755);
    EXPECT_EQ(halvo_execute_script("/tmp/fails"), 0);
    EXPECT_EQ(access("/tmp/done", F_OK), 0);
    EXPECT_EQ(halvo_execute_script("/nonexistent/x"), 0);
    EXPECT_EQ(halvo_execute_script(" "), 0);  // execvp of a null file would crash the child
    vm->wait_for(LOG_ERR, "[ ]: execvp failed\n", std::chrono::seconds(5));
    vm->wait_for(LOG_INFO, "Script [ ] executed successfully\n", std::chrono::seconds(5));
}
