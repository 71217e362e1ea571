// The files of /proc, one after the other: any text, any order, any figures.

#include "halvo_process.h"
#include "halvo_res_monitor.h"
#include "world.h"

static void check_percentages(std::initializer_list<float> figures)
{
    for (const float figure : figures) {
        require(figure >= 0 && figure <= 200, "a percentage, or the sum of two");  // and no NaN
    }
}

// The name counts where it stands in the first line, or what is read of it.
static void check_name()
{
    const std::string status = next_files.empty() ? "" : next_files.front().substr(0, 99);
    const std::string line = status.substr(0, status.find_first_of(std::string("\n\0", 2)));
    const int expected = line.find("lunet") == std::string::npos ? -1 : 7;
    require(halvo_confirm_held_pid("lunet", 7) == expected, "the name in the first line");
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    halvo_child_proc_info_st entry{};
    uint64_t total = 0;
    vm_info_g = {};
    entry.pid = 4711;
    next_files = cut(data, size);
    for (int pass = 0; pass < 3; ++pass) {
        halvo_system_memory_usage(&vm_info_g);
        halvo_system_cpu_usage(&total, &vm_info_g);
        halvo_process_cpu_usage(total, &entry, 0);
        halvo_process_memory_usage(&entry);
        check_name();
        check_percentages({vm_info_g.cpu_kernel, vm_info_g.cpu_user, vm_info_g.cpu_idle,
                           vm_info_g.cpu_tot_usage, entry.proc_cpu_kernel, entry.proc_cpu_user,
                           entry.proc_cpu_tot_usage});
    }
    return 0;
}
