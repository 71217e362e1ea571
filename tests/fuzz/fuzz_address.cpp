// The heartbeat's address file: what it gives depends on nothing but its content.

#include "halvo_heartbeat.h"
#include "world.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static halvo_vm_info_st first;
    static halvo_vm_info_st second;
    for (halvo_vm_info_st* vm_info : {&first, &second}) {
        vm_info->heartbeat_remote_ip = 1;
        vm_info->heartbeat_local_ip = 2;
        next_files = {{reinterpret_cast<const char*>(data), size}};
        require(halvo_heartbeat_ip_init(vm_info) == 0, "a result");
        halvo_init_heartbeat_payload(vm_info);
    }
    require(first.heartbeat_remote_ip == second.heartbeat_remote_ip, "the same remote address");
    require(first.heartbeat_local_ip == second.heartbeat_local_ip, "the same local address");
    require(first.dp_ka_cpaddr.sin_addr.s_addr == first.heartbeat_remote_ip, "the address that is sent to");
    return 0;
}
