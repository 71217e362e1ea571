// The heartbeat's address file: what it gives depends on nothing but its content.

#include <arpa/inet.h>

#include "halvo_heartbeat.h"
#include "world.h"

// Behind whatever content, a valid line wins, unless a fault ended the reading before it.
static void check_last_line(const std::string& text)
{
    static halvo_vm_info_st last;
    next_files = {text + "\neth8_0 10.1.1.2 10.1.1.1"};
    halvo_heartbeat_ip_init(&last);
    const bool faulty = last.heartbeat_remote_ip == inet_addr("192.168.2.1");
    require(faulty || last.heartbeat_remote_ip == inet_addr("10.1.1.2"), "the last remote address");
    require(last.heartbeat_local_ip == inet_addr(faulty ? "192.168.2.2" : "10.1.1.1"),
            "the last local address");
}

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
    check_last_line({reinterpret_cast<const char*>(data), size});
    return 0;
}
