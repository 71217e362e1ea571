// The live update: takes over from a changed configuration file what may change while processes run.
//
// It compares entry by entry and applies step by step; nothing is undone when it stops at a mismatch, so
// that an operator finds in force what the acknowledgement's order implies. Control thread only. Files are
// checked outside the table lock; each entry's stores happen under one hold of it.

#pragma once

#include <array>

#include "halvo_private.h"

// Re-reads the configuration and applies it. Every line reported to the operator goes to the log and to
// ack_msg, ACK_MSG_SIZE bytes, or twice to the log when ack_msg is null. Returns 0 when the whole new
// configuration was taken over, -1 when the update stopped.
int halvo_update_config(char* ack_msg);

// What an update asks of the new configuration, for halvo-check too. Each returns 0, or -1 with its lines
// reported as above. The first compares vm_info_g with new_vm_info_g, the others a running entry with the
// new one.
int halvo_compare_proc_num(char* ack_msg);
int halvo_compare_identity(const halvo_child_proc_info_st& running, const halvo_child_proc_info_st& fresh,
                           char* ack_msg);
int halvo_compare_recur_fail(const halvo_child_proc_info_st& running, const halvo_child_proc_info_st& fresh,
                             char* ack_msg);

// A command field, the parameter that sets it, and the check that a changed one must pass, in the order of
// taking over.
struct halvo_command_check_st {
    const char* param_name;
    char (halvo_child_proc_info_st::*field)[CMD_SIZE];
    int (*check)(halvo_child_proc_info_st* fresh, char* ack_msg);
};
extern const std::array<halvo_command_check_st, 5> halvo_command_checks_g;
