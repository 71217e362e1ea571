#include "halvo_recur_fail.h"

#include <syslog.h>

#include <new>

#include "halvo_log.h"
#include "halvo_watchdog.h"

halvo_recur_fail_list_st* halvo_create_recur_fail_list()
{
    return new (std::nothrow) halvo_recur_fail_list_st{.head = nullptr, .node_count = 0};
}

halvo_recur_fail_node_st* halvo_create_recur_fail_node(time_t spawn_time)
{
    auto* node = new (std::nothrow) halvo_recur_fail_node_st{.proc_spawn_time = spawn_time, .next = nullptr};
    if (node != nullptr) {
        node->next = node;
    }
    return node;
}

void halvo_delete_recur_fail_list(halvo_recur_fail_list_st* recur_fail_list)
{
    halvo_recur_fail_node_st* head = recur_fail_list->head;
    if (head != nullptr) {
        for (halvo_recur_fail_node_st* node = head->next; node != head;) {
            halvo_recur_fail_node_st* next = node->next;
            delete node;
            node = next;
        }
        delete head;
    }
    delete recur_fail_list;
}

// When memory runs out, the spawn goes unrecorded: failing to start a process would be worse than missing a
// recurring failure.
static void append_recur_fail_node(halvo_recur_fail_list_st* recur_fail_list, time_t spawn_time)
{
    halvo_recur_fail_node_st* node = halvo_create_recur_fail_node(spawn_time);
    if (node == nullptr) {
        return;
    }
    if (recur_fail_list->head == nullptr) {
        recur_fail_list->head = node;
    } else {
        halvo_recur_fail_node_st* newest = recur_fail_list->head;
        while (newest->next != recur_fail_list->head) {
            newest = newest->next;
        }
        node->next = recur_fail_list->head;
        newest->next = node;
    }
    ++recur_fail_list->node_count;
}

void halvo_insert_recur_fail_info(halvo_recur_fail_list_st*& recur_fail_list, const char* proc_name,
                                  int recur_fail_intrvl, time_t spawn_time, int limit)
{
    if (recur_fail_list->node_count < static_cast<uint32_t>(limit)) {
        append_recur_fail_node(recur_fail_list, spawn_time);
        return;
    }
    // The list is full: its oldest node takes the new time and becomes the newest, so nothing is allocated.
    recur_fail_list->head->proc_spawn_time = spawn_time;
    recur_fail_list->head = recur_fail_list->head->next;

    // Saved now, because the list may be deleted before the last line. If the clock was set back, the span
    // is negative and does not count as a recurring failure.
    const int count = static_cast<int>(recur_fail_list->node_count) + 1;
    const time_t span = spawn_time - recur_fail_list->head->proc_spawn_time;
    const auto seconds = static_cast<unsigned long>(span);
    const int failover = halvo_load(vm_info_g.vm_failover_flag);
    if (span >= 0 && span < recur_fail_intrvl && (failover == ENABLE || failover == DISABLE)) {
        halvo_log(LOG_CRIT, "Process '%s' respawned [%d] times in [%lu] seconds; VM failover is triggered\n",
                  proc_name, count, seconds);
        if (failover == ENABLE) {
            halvo_request_failover(&vm_info_g);
            halvo_delete_recur_fail_list(recur_fail_list);
            recur_fail_list = nullptr;
        } else {
            halvo_log(LOG_ALERT, FAILOVER_DISABLED_LINE);
        }
    }
    halvo_log(LOG_DEBUG, "Process '%s' respawned [%d] times in [%lu] seconds\n", proc_name, count, seconds);
}

bool halvo_counts_recur_fail(const halvo_child_proc_info_st* proc_info)
{
    return proc_info->action == PROC_RESTART && proc_info->recur_fail_restart_cnt >= 1 &&
           proc_info->recur_fail_intvl >= 2;
}
