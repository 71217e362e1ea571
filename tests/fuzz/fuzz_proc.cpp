// The files of /proc, one after the other: any text, any order, any figures. The whole input also serves as
// an address file.

#include "halvo_heartbeat.h"
#include "halvo_pid_lookup.h"
#include "halvo_res_monitor.h"
#include "world.h"

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
        halvo_confirm_held_pid("lunet", 7);
    }
    next_files = {{reinterpret_cast<const char*>(data), size}};
    halvo_heartbeat_ip_init(&vm_info_g);
    return 0;
}
