// The recurring-failure list: a process's last spawn times, oldest first, and the rule that turns too many
// restarts in too short a time into a VM failover.
//
// A list belongs to one table entry and never grows beyond that entry's limit. All functions are called
// with the table lock held.

#pragma once

#include <ctime>

#include "halvo_private.h"

// Returns true when the entry's settings ask for recurring-failure accounting.
bool halvo_counts_recur_fail(const halvo_child_proc_info_st* proc_info);

// Create an empty list or a node that points to itself; return null when memory runs out. Deletion frees
// the list with its nodes.
halvo_recur_fail_list_st* halvo_create_recur_fail_list();
halvo_recur_fail_node_st* halvo_create_recur_fail_node(time_t spawn_time);
void halvo_delete_recur_fail_list(halvo_recur_fail_list_st* recur_fail_list);

// Records one spawn at spawn_time, in seconds since the epoch. The first `limit` spawns only fill the list.
// A later one is a recurring failure if it and the limit - 1 spawns before it fell within less than
// recur_fail_intrvl seconds. Then the VM fails over, and the list is deleted and set to null; if failover
// is disabled, that is only logged.
void halvo_insert_recur_fail_info(halvo_recur_fail_list_st*& recur_fail_list, const char* proc_name,
                                  int recur_fail_intrvl, time_t spawn_time, int limit);
