// The recurring-failure list: a process's last spawn times, oldest first, and the rule that turns too many
// restarts in too short a time into a VM failover.
//
// A list belongs to its table entry. Everything here is called with the table lock held.

#pragma once

#include <ctime>

#include "halvo_private.h"

// True when the entry's settings ask for recurring-failure accounting.
bool halvo_counts_recur_fail(const halvo_child_proc_info_st* proc_info);

// The recurring-failure list. Creation returns null when memory runs out.
halvo_recur_fail_list_st* halvo_create_recur_fail_list();
halvo_recur_fail_node_st* halvo_create_recur_fail_node(time_t spawn_time);
void halvo_delete_recur_fail_list(halvo_recur_fail_list_st* recur_fail_list);

// Records one spawn. When it and the limit - 1 spawns before it fell within less than recur_fail_intrvl
// seconds, fails the VM over, and then deletes the list and sets it to null; where failover is disabled,
// only says so.
void halvo_insert_recur_fail_info(halvo_recur_fail_list_st*& recur_fail_list, const char* proc_name,
                                  int recur_fail_intrvl, time_t spawn_time, int limit);
