// A request, complete or not, and the configuration that an update finds.

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
    halvo_read_confile(&vm_info_g, child_proc_table_g);
    child_proc_table_g[0].recur_fail_list = halvo_create_recur_fail_list();
    for (const time_t when : {1, 2, 3, 4}) {
        halvo_insert_recur_fail_info(child_proc_table_g[0].recur_fail_list, "a", 2, when, 3);
    }
}

// The first piece of the input is the configuration that an update finds, the rest is the request.
int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto* end = std::find(data, data + size, 0xff);
    const std::string config(data, end);
    auto record = std::make_unique<halvo_ctrl_handler_st>();
    load_tables();
    if (end != data + size) {
        memcpy(record.get(), end + 1, std::min(static_cast<size_t>(data + size - end - 1), sizeof(*record)));
    }
    next_files = {config.empty() ? CONFIG : config, config};
    halvo_answer_request(record.get());
    if (child_proc_table_g[0].recur_fail_list != nullptr) {
        halvo_delete_recur_fail_list(child_proc_table_g[0].recur_fail_list);
    }
    return 0;
}
