// halvo-check: what it says to the byte, and its exit status, of faulty files and of an update that would
// fail.

#include <string>

#include "sandbox.h"

using CheckSandbox = Sandbox;
using std::chrono::seconds;

#define SECTION "process name a\na process_type NORMAL\na start_cmd \"/bin/true\"\n"

static const char* const faulty_files[][2] = {
    {"global version\n", "f:1: error: missing field\n2\n"},
    {"global nope 1\nglobal vm_mem_high_water 3GB\nglobal vm_mem_low_water 9\n",
     "f:1: error: Invalid VM param name found: nope\n"
     "f:2: warning: vm_mem_high_water [3GB] is read as 3; write digits only\n"
     "f:3: warning: vm_mem_low_water [9] is above the high one [3]: one is always crossed; lower it\n2\n"},
    {"global version 99\n",
     "f:1: warning: version value[99] is not in valid range[0 - 10]. Considering default value: 1\n1\n"},
    {"process name a\na process_type NORMAL\n",
     "f: error: Mandatory param [start_cmd] of  process 'a' not found in config file\n"
     "f: error: Error in verifying the mandatory param\n2\n"},
    {SECTION "a stop_cmd \"/none \x1b\"\n",
     "f:4: error: [/none ?]: The script file doesn't exist: No such file or directory\n"
     "f:4: error: Process 'a': Script mentioned in stop command [/none ?] doesn't exist\n2\n"},
    {"global wd_timeout 5",
     "f:1: warning: a keepalive a second late takes the VM down; raise wd_timeout\n1\n"},
    {SECTION "a action PROC_RESTART\na proc_mem_low_water 5\na pre_start_cmd \"/bin/true\"\n",
     "f:4: warning: 'a' is restarted without end; set recur_fail_restart_count and recur_fail_interval\n"
     "f:6: warning: pre_start_cmd has no time limit; put \"/usr/bin/timeout SECONDS\" before it\n"
     "f:5: warning: usage below proc_mem_low_water carries out the action too; set it to 0\n1\n"},
    {"global vm_failover DISABLE\n" SECTION "a start_cmd \"SYSTEM\"\na action VM_FAILOVER\n",
     "f:5: warning: start_cmd is set again: line 4 does not count; remove one\n"
     "f:3: warning: start_cmd makes 'a' a SYSTEM process and every halvo -r fail; set process_type SYSTEM\n"
     "f:6: warning: the loss of 'a' is only logged; set vm_failover ENABLE\n1\n"},
    {"process name a\na process_type SYSTEM\na start_cmd \"/bin/true\"\n",
     "f:2: warning: SYSTEM 'a' is never started; set start_cmd \"SYSTEM\" or another type\n1\n"},
    {"process name sixteen-letters-\nsixteen-letters- process_type DAEMON\nsixteen-letters- start_cmd "
     "\"/\"\n",
     "f:2: warning: DAEMON 'sixteen-letters-' is only started with action PROC_RESTART\n"
     "f:1: warning: 'sixteen-letters-' is never found: the kernel keeps 15 characters of a name\n1\n"},
};

TEST_F(CheckSandbox, FaultsAndTrapsAreNamedWithTheirLines)
{
    const auto check = [](const std::string& files) {
        return run("sh -c 'cd /tmp; " HALVO_CHECK " " + files + " >/dev/full; echo $?'", seconds(20)).output;
    };
    for (const auto& [text, said] : faulty_files) {
        write_file("/tmp/f", text);
        EXPECT_EQ(check("f"), said);
    }
    write_file("/tmp/old", "global wd_timeout 4\nglobal wd_tick_interval 2\n" SECTION SECTION);
    write_file("/tmp/f",
               "process name a\na process_type SYSTEM\na start_cmd \"SYSTEM\"\na recur_fail_interval 9\n"
               "process name b\nb process_type NORMAL\nb start_cmd \"/\"\n");
    EXPECT_EQ(check("--against old f"),
              "f: warning: wd_timeout stays 4 until failover is switched on again; halvo -w before halvo -r\n"
              "f: error: halvo -r takes the VM down: the device keeps wd_timeout 4; halvo -w before it\n"
              "f:2: error: Process 'a': process type cannot be changed on the fly\n"
              "f:2: error: Existing Process type: Normal process\n"
              "f:2: error: New Process type: System spawned process\n"
              "f:4: error: Recurring failure management parameters cannot be changed on the fly\n"
              "f:5: error: process name is not matching; existing name [a]; new name [b]\n2\n");
    write_config(read_file(HALVO_DATA "halvo.conf"));
    EXPECT_EQ(check(""), "0\n");
}
