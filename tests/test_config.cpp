// The configuration reader, given files as operators write, break and mistype them.

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "halvo_params.h"
#include "halvo_utils.h"
#include "sandbox.h"

using ConfigSandbox = Sandbox;

static int read_config()
{
    memset(child_proc_table_g, 0, sizeof(child_proc_table_g));
    vm_info_g = {};
    return halvo_read_confile(&vm_info_g, child_proc_table_g);
}

// In the table "~" stands for a zero byte, and "@" for the path with the text that follows it.
TEST_F(ConfigSandbox, EveryFaultIsNamedWithItsLine)
{
    const auto expand = [](std::string text, char mark, const std::string& meaning) {
        for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at += meaning.size()) {
            text.replace(at, 1, meaning);
        }
        return text;
    };
    const auto read_config_log = [&] {
        const std::string result = std::to_string(read_config());
        return result + "|" + new_log();
    };
    EXPECT_EQ(read_config_log(), "-1|Config file: /etc/config/halvo.conf not found\n");
    ASSERT_EQ(mkfifo("/etc/config/halvo.conf", 0600), 0);
    EXPECT_EQ(read_config_log(), "-1|Config file: /etc/config/halvo.conf cannot be read\n");
    ASSERT_EQ(unlink("/etc/config/halvo.conf"), 0);
    auto rows = read_table("faulty_files.txt", 3);
    std::string eleven;
    for (int i = 0; i < 11; ++i) {
        eleven += "process name p\np start_cmd \"x\"\np process_type SYSTEM\n";
    }
    rows.front()[0] += eleven;
    for (const auto& row : rows) {
        write_config(expand(row[0], '~', std::string(1, '\0')));
        EXPECT_EQ(read_config_log(), row[1] + "|" + expand(row[2], '@', "/etc/config/halvo.conf[line:"))
            << row[0];
    }
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
    const halvo_vm_info_st& vm_info = vm_info_g;
    const halvo_child_proc_info_st& a = child_proc_table_g[0];
    EXPECT_EQ(vm_info.mem_high_water, 2147483640U);
    EXPECT_EQ((std::vector<std::string>{a.start_cmd, a.stop_cmd, a.post_start_cmd}),
              (std::vector<std::string>{"/a b", "no end\n", INVALID_CMD}));
    EXPECT_EQ((std::vector<int>{vm_info.version, vm_info.res_mon_intvl, vm_info.debug_mode_flag, a.proc_type,
                                a.action, a.recur_fail_intvl, a.proc_cpu_tot_high_water}),
              (std::vector<int>{3, 5, ENABLE, DAEMON, VM_FAILOVER, 0, 8}));
    EXPECT_EQ(strlen(a.pre_start_cmd), 1023 - strlen("a pre_start_cmd \""));
}

TEST_F(ConfigSandbox, TheManualHasEachParameterWithItsBoundsAndDefault)
{
    const std::string page = read_file(HALVO_DATA "halvo.conf.5");
    const std::map<std::string, std::pair<uint32_t, std::string>> modes = {
        {"vm_failover", {ENABLE, "ENABLE or DISABLE, default ENABLE."}},
        {"debug_mode", {DISABLE, "ENABLE or DISABLE, default DISABLE."}},
        {"action", {NOP, "PROC_RESTART, VM_FAILOVER or NOP, default NOP."}},
        {"process_type", {0, "NORMAL, DAEMON or SYSTEM, required."}}};
    const auto expect_rows = [&](std::span<const halvo_config_param_st> rows, const void* unset_record) {
        for (const halvo_config_param_st& row : rows) {
            uint32_t unset = 0;
            memcpy(&unset, static_cast<const char*>(unset_record) + row.offset, sizeof(unset));
            std::string text = row.is_mandatory == TRUE ? "Text in double quotes, required."
                                                        : "Text in double quotes, default none.";
            if (row.param_type == PARAM_NUMBER) {
                EXPECT_EQ(unset, row.dfl_value) << row.param_name;
                text = std::to_string(row.min_value) + " to " + std::to_string(row.max_value) + ", default " +
                       std::to_string(unset) + ".";
            } else if (row.param_type == PARAM_MODE) {
                EXPECT_EQ(unset, modes.at(row.param_name).first) << row.param_name;
                text = modes.at(row.param_name).second;
            }
            const size_t item = page.find("\n.It Ic " + std::string(row.param_name) + " ") + 1;
            EXPECT_EQ(page.find("\n" + text + "\n", item), page.find('\n', item)) << row.param_name;
        }
    };
    write_config("process name a\n");
    read_config();
    expect_rows(vm_conf_param_dfl_g, &vm_info_g);
    expect_rows(proc_conf_param_dfl_g, &child_proc_table_g[0]);
}
