// The samplers compared with figures calculated by hand, and the effects of crossing a limit.

#include <sys/mount.h>
#include <syslog.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "halvo_process.h"
#include "halvo_res_monitor.h"
#include "halvo_text.h"
#include "halvo_watermark.h"
#include "sandbox.h"

using SamplingSandbox = Sandbox;

static halvo_vm_info_st& record = vm_info_g;
static halvo_child_proc_info_st& entry = child_proc_table_g[0];

// Runs one pass over the files and returns all results and figures in one line.
static std::string sample(uint64_t* ticks)
{
    const std::array results{halvo_system_memory_usage(&record), halvo_system_cpu_usage(ticks, &record),
                             halvo_process_cpu_usage(*ticks, &entry, MAX_PROC_NUM - 1),
                             halvo_process_memory_usage(&entry)};
    std::array<char, 300> line;
    snprintf(line.data(), line.size(),
             "%d %d %d %d; %u %u %u; %lu; %.9g %.9g %.9g %.9g; %.9g %.9g %.9g; %u %u", results[0], results[1],
             results[2], results[3], record.total_memory, record.free_memory, record.used_memory, *ticks,
             record.cpu_user, record.cpu_kernel, record.cpu_idle, record.cpu_tot_usage,
             entry.proc_cpu_tot_usage, entry.proc_cpu_user, entry.proc_cpu_kernel, entry.kbytes_used,
             entry.max_kbytes_used);
    return line.data();
}

TEST_F(SamplingSandbox, FiguresAreThoseWorkedOutByHand)
{
    std::map<std::string, std::string> files = {{"meminfo", "/proc/meminfo"},
                                                {"stat", "/proc/stat"},
                                                {"pidstat", "/proc/7/stat"},
                                                {"pidstatus", "/proc/7/status"}};
    std::ifstream passes(HALVO_DATA "sampling.txt");
    uint64_t ticks = 77;
    int passes_made = 0;
    entry.pid = 7;
    std::filesystem::create_directories("/tmp/proc/7");
    ASSERT_EQ(mount("/tmp/proc", "/proc", nullptr, MS_BIND, nullptr), 0);
    for (std::string line; getline(passes, line);) {
        const std::string key = line.substr(0, line.find(' '));
        const std::string text = line.substr(std::min(line.size(), key.size() + 1));
        if (key == "gives") {
            ++passes_made;
            EXPECT_EQ(sample(&ticks), text) << "pass " << passes_made;
        } else if (files.count(key) != 0) {
            std::ofstream file(files[key]);
            for (const char c : text) {
                file << (c == '~' ? std::string(4084, 'x') : std::string(1, c == ';' ? '\n' : c));
            }
        }
    }
    EXPECT_EQ(passes_made, 7);
    std::filesystem::remove_all("/proc/7");  // the process has vanished
    EXPECT_EQ(halvo_process_cpu_usage(ticks, &entry, 0), -1);
    EXPECT_EQ(halvo_process_memory_usage(&entry), -1);
    ASSERT_EQ(umount("/proc"), 0);
}

// Checks limits of 80.0 % and 4294967294 kB, with all usage figures beyond them by `digits` in the last
// digit.
static int check_beyond(int digits, int action)
{
    record.cpu_tot_usage = entry.proc_cpu_tot_usage = 80.0F + 0.1F * static_cast<float>(digits);
    record.used_memory = entry.kbytes_used = 4294967294U + static_cast<unsigned>(digits);
    entry.action = action;
    return halvo_check_high_low_watermark();
}

static int act(int action, pid_t pid, halvo_child_proc_info_st* proc_info)
{
    const std::lock_guard guard(halvo_table_lock_g);
    entry.pid = pid;
    return halvo_take_watermarK_recovery_action(action, proc_info);
}

// A kill of pid 0, -1 or a stranger would end this program.
TEST_F(SamplingSandbox, CrossingsActInTheirOrderAndNeverOnAStranger)
{
    record.mon_proc_num = 1;
    record.vm_failover_flag = ENABLE;
    halvo_copy_text(entry.proc_name, PROC_NAME_SIZE, "w");
    entry.proc_state = ACTIVE;
    entry.cpu_usage_data_init = TRUE;
    EXPECT_EQ(check_beyond(1, NOP), 0);  // a limit of 0 is none
    record.cpu_tot_high_water = record.cpu_tot_low_water = 80;
    entry.proc_cpu_tot_high_water = entry.proc_cpu_tot_low_water = 80;
    record.mem_high_water = record.mem_low_water = 4294967294;
    entry.proc_mem_high_water = entry.proc_mem_low_water = 4294967294;
    EXPECT_EQ(check_beyond(0, NOP), 0);
    EXPECT_EQ(check_beyond(1, PROC_RESTART), -1);  // pid 0
    EXPECT_EQ(check_beyond(-1, NOP), 0);
    record.vm_failover_flag = DISABLE;
    entry.proc_type = DAEMON;
    EXPECT_EQ(act(VM_FAILOVER, 0, &entry), 0);
    EXPECT_EQ(act(PROC_RESTART, -1, &entry), -1);
    EXPECT_EQ(act(PROC_RESTART, getpid(), &entry), -1);  // this process has another name
    EXPECT_EQ(act(7, 0, &entry) + act(NOP, 0, nullptr), 0);
    EXPECT_EQ(act(PROC_RESTART, 0, nullptr), -1);
    std::ifstream crossings(HALVO_DATA "crossings.txt");
    size_t seen = 0;
    for (std::string line; getline(crossings, line); ++seen) {
        EXPECT_EQ(vm->wait_for(line[0] - '0', line.substr(2) + "\n", seen).number, seen + 1);
    }
    EXPECT_EQ(seen, 29U);
}
