// The configuration reader, fed with files as operators write them, break them and mistype them.

#include <syslog.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "halvo_log.h"
#include "halvo_utils.h"
#include "sandbox.h"

using ConfigSandbox = Sandbox;
using namespace std::string_literals;

static int read_config()
{
    memset(child_proc_table_g, 0, sizeof(child_proc_table_g));
    vm_info_g = {};
    return halvo_read_confile(&vm_info_g, child_proc_table_g);
}

TEST_F(ConfigSandbox, TheExampleIsAcceptedWithoutAWord)
{
    write_config(read_file(HALVO_DATA "halvo.conf"));
    EXPECT_EQ(read_config(), 0);
    EXPECT_EQ(vm_info_g.mon_proc_num, 2);
    EXPECT_EQ(vm->count(HOST_ANY, "*"), 0U);
}

// What a file is answered with: the result and the whole log, to the byte; "@" stands for the path and what
// follows it.
struct faulty_file {
    std::string text;
    int result;
    const char* log;
};

#define REFUSED "Error in verifying the field strings and values in config file\n"
#define UNQUOTED "The string arguments of [start_cmd] should be within double quotes\n"
#define NAME_51 "123456789012345678901234567890123456789012345678901"

static const std::vector<faulty_file> faulty_files = {
    {"# a comment\n \t\n", 0, ""},
    {"global version\n\nglobal version 99\np start_cmd x\n", -1, "@1]: missing field\n@4]: " UNQUOTED},
    {"process name a\n\0a action NOP\nglobal\0 version 1\nglobal\n"s, -1,
     "@2]: A zero byte in the line\n@3]: A zero byte in the line\n@3]: missing field\n@4]: missing field\n"},
    {"global start_cmd x\n", -1, "@1]: " UNQUOTED},
    {"global nope 5\n", 0, "@1]: Invalid VM param name found: nope \n"},
    {"sampled action NOP\n", -1, "@1]: Invalid keyword found: sampled \n" REFUSED},
    {"process nam a\na action NOP\n", -1,
     "@1]: Invalid process name entry found: nam \n" REFUSED "@2]: Invalid keyword found: a \n" REFUSED},
    {"process name a\na nope 1\n", -1, "@2]: Invalid process param name found: nope \n" REFUSED},
    {"process name a\na process_type daemon\n", -1,
     "@2]: process_type [daemon] is not valid\nUpdating process related data to process table is "
     "failed\n" REFUSED},
    {"process name " NAME_51 "\n", -1,
     "@1]: Process name is longer than 50 characters: " NAME_51 " \n" REFUSED},
    {"global wd_timeout -1\nglobal vm_failover On\nglobal debug_mode enable\n", 0,
     "@1]: wd_timeout value[4294967295] is not in valid range[2 - 60]. Considering default value: 8\n"
     "@2]: [On] mode is not valid. Considering default mode: ENABLE\n"
     "@3]: [enable] mode is not valid. Considering default mode: DISABLE\n"},
    {"process name a\na start_cmd \"x\"\na process_type NORMAL\na action restart\n", 0,
     "@4]: action [restart] is not valid. Considering default mode: NOP\n"},
    {"process name a\na process_type NORMAL\n", -1,
     "Mandatory param [start_cmd] of  process 'a' not found in config file\n"
     "Error in verifying the mandatory param\n"},
    {"process name a\na start_cmd \"x\"\n", -1,
     "Mandatory param [process_type] of  process 'a' not found in config file\n"
     "Error in verifying the mandatory param\n"},
};

TEST_F(ConfigSandbox, EveryFaultIsNamedWithItsLine)
{
    const auto expect_log = [&](std::string wanted) {
        for (size_t at = 0; (at = wanted.find('@')) != std::string::npos;) {
            wanted.replace(at, 1, "/etc/config/halvo.conf[line:");
        }
        EXPECT_EQ(new_log(), wanted);
    };
    EXPECT_EQ(read_config(), -1);
    expect_log("Config file: /etc/config/halvo.conf not found\n");
    for (const faulty_file& file : faulty_files) {
        write_config(file.text);
        EXPECT_EQ(read_config(), file.result) << file.text;
        expect_log(file.log);
    }
    std::string eleven;
    for (int i = 0; i < 11; ++i) {
        eleven += "process name p\np start_cmd \"x\"\np process_type SYSTEM\n";
    }
    write_config(eleven);
    EXPECT_EQ(read_config(), -1);
    EXPECT_EQ(vm_info_g.mon_proc_num, 10);
    expect_log("No: of process entry in config file is more than max process limit [10]\n" REFUSED
               "@32]: Invalid keyword found: p \n" REFUSED "@33]: Invalid keyword found: p \n" REFUSED);
}

TEST_F(ConfigSandbox, ValuesEndUpInTheirFields)
{
    write_config(
        "global version 3 extra words\nglobal res_monit_interval 5#x\nglobal vm_mem_high_water 2147483640\n"
        "process name a\n a \t start_cmd \"\"/a b\" trailing\r\na process_type DAEMON\na action VM_FAILOVER\n"
        "a recur_fail_interval 1\na stop_cmd \"no end\nglobal debug_mode ENABLE\n"
        "a proc_cpu_total_high_water 7\na proc_cpu_total_high_water 8\na pre_start_cmd \"" +
        std::string(1100, 'x') + "\"\n# the cut line goes on as the next one\n");
    EXPECT_EQ(read_config(), -1);  // for the remainder of the long line
    const halvo_child_proc_info_st& a = child_proc_table_g[0];
    EXPECT_EQ(vm_info_g.version, 3);
    EXPECT_EQ(vm_info_g.res_mon_intvl, 5);
    EXPECT_EQ(vm_info_g.mem_high_water, 2147483640U);
    EXPECT_EQ(vm_info_g.debug_mode_flag, ENABLE);
    EXPECT_STREQ(a.start_cmd, "/a b");
    EXPECT_STREQ(a.stop_cmd, "no end\n");
    EXPECT_STREQ(a.post_start_cmd, INVALID_CMD);
    EXPECT_EQ(a.proc_type, DAEMON);
    EXPECT_EQ(a.action, VM_FAILOVER);
    EXPECT_EQ(a.recur_fail_intvl, 0);
    EXPECT_EQ(a.proc_cpu_tot_high_water, 8);
    EXPECT_EQ(strlen(a.pre_start_cmd), 1023 - strlen("a pre_start_cmd \""));
}
