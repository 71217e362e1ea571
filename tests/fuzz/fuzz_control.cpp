// A request, whole or not: its reply stays within its record, an acknowledgement within its part of it.

#include <algorithm>
#include <cstring>
#include <memory>

#include "halvo_ctrl_handler.h"
#include "halvo_recur_fail.h"
#include "halvo_utils.h"
#include "world.h"

static constexpr const char* CONFIG =
    "global vm_failover DISABLE\nprocess name a\na process_type NORMAL\na action PROC_RESTART\n"
    "a start_cmd \"/bin/true\"\na recur_fail_interval 9\na recur_fail_restart_count 3\n"
    "process name b\nb process_type SYSTEM\nb action NOP\nb start_cmd \"SYSTEM\"\n";

static void load_tables()
{
    next_files = {CONFIG};
    vm_info_g = {};
    std::ranges::fill(child_proc_table_g, halvo_child_proc_info_st{});
    require(halvo_read_confile(&vm_info_g, child_proc_table_g) == 0, "a configuration");
    child_proc_table_g[0].recur_fail_list = halvo_create_recur_fail_list();
    for (const time_t when : {1, 2, 3, 4}) {
        halvo_insert_recur_fail_info(child_proc_table_g[0].recur_fail_list, "a", 2, when, 3);
    }
}

// The reply follows what the request held, within its capacity, and ends unless that did not end either.
static void check_text(const halvo_ctrl_handler_st& request, const halvo_ctrl_handler_st& reply)
{
    const bool is_ack = request.msg_type == UPDATE_CONFIG || request.msg_type == DISABLE_VM_FAILOVER;
    const size_t capacity = is_ack ? ACK_MSG_SIZE : MSG_BUFFER_SIZE;
    const char* before = request.message.get_info.msg_buffer;
    const char* after = reply.message.get_info.msg_buffer;
    const size_t length = strnlen(before, capacity);
    require(memcmp(before, after, length) == 0, "what the request held");
    require(length == capacity || strnlen(after, capacity) < capacity, "a terminated reply");
    require(memcmp(before + capacity, after + capacity, MSG_BUFFER_SIZE - capacity) == 0,
            "an acknowledgement within its capacity");
}

// The first piece of the input is the configuration that an update finds, the rest is what arrived.
int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto* end = std::find(data, data + size, 0xff);
    const std::string config(data, end);
    auto record = std::make_unique<halvo_ctrl_handler_st>();
    load_tables();
    if (end != data + size) {
        memcpy(record.get(), end + 1, std::min(static_cast<size_t>(data + size - end - 1), sizeof(*record)));
    }
    const auto before = *record;
    next_files = {config.empty() ? CONFIG : config, config};
    require(halvo_answer_request(record.get()) != nullptr, "a line for the log");
    require(record->msg_type == before.msg_type, "the type as it came");
    check_text(before, *record);
    if (child_proc_table_g[0].recur_fail_list != nullptr) {
        halvo_delete_recur_fail_list(child_proc_table_g[0].recur_fail_list);
    }
    return 0;
}
