// The live update: takes over those settings of a changed configuration file that may change while
// processes run.
//
// It compares and applies entry by entry, stops at the first mismatch and undoes nothing: the settings
// before the reported fault are in force, and those after it are not. Control thread only, without the
// table lock. Files are checked outside the table lock, because a disk may hang; each entry's stores happen
// under one hold of it.

#pragma once

#include <array>

#include "halvo_private.h"

// Re-reads the configuration and applies it. Every line for the operator goes to the log and to ack_msg,
// ACK_MSG_SIZE bytes, or twice to the log if ack_msg is null. Returns 0 when the whole new configuration
// was taken over, or -1 when the update stopped.
int halvo_update_config(char* ack_msg);

// The conditions that an update sets for the new configuration; halvo-check tests them too. Each function
// returns 0, or -1 with its lines reported as above. The first function compares vm_info_g with
// new_vm_info_g; the others compare a running entry with the new one. Control thread, without the table
// lock: only this thread writes the fields that they read.
int halvo_compare_proc_num(char* ack_msg);
int halvo_compare_identity(const halvo_child_proc_info_st& running, const halvo_child_proc_info_st& fresh,
                           char* ack_msg);
int halvo_compare_recur_fail(const halvo_child_proc_info_st& running, const halvo_child_proc_info_st& fresh,
                             char* ack_msg);

// A command field, the parameter that sets it, and the check that a changed command must pass. The check
// returns 0, or -1 with its lines reported as above. The rows stand in the order in which an update takes
// the commands over.
struct halvo_command_check_st {
    const char* param_name;
    char (halvo_child_proc_info_st::*field)[CMD_SIZE];
    int (*check)(halvo_child_proc_info_st* fresh, char* ack_msg);
};
extern const std::array<halvo_command_check_st, 5> halvo_command_checks_g;
