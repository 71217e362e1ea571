// The parameters of the configuration file: two constant tables with one row per parameter, and the
// functions that store a value under the rules of its row.
//
// The reader of the file calls them on the main thread at start-up and on the control thread later. They
// keep no state and take no lock: the caller alone owns the records that it passes.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "halvo_private.h"

constexpr const char* HALVO_CONFIG_FILE = "/etc/config/halvo.conf";

// The path of the file that is read and that messages name. The daemon never changes it; halvo-check does.
inline const char* halvo_config_file_g = HALVO_CONFIG_FILE;

constexpr int PARAM_NUMBER = 1;  // with a range
constexpr int PARAM_STRING = 2;  // in double quotes
constexpr int PARAM_MODE = 3;    // one of the parameter's words

// One parameter of the configuration file.
struct halvo_config_param_st {
    char param_name[50];
    int param_type;
    uint32_t min_value;          // numbers only
    uint32_t max_value;          // numbers only
    uint32_t dfl_value;          // stored when a number is out of its range
    halvo_bool_en is_mandatory;  // every process section must set it
    halvo_bool_en dfl_enabled;   // not used
    int offset;                  // of the field in halvo_vm_info_st or halvo_child_proc_info_st
};

constexpr int VM_PARAM_NUM = 10;
constexpr int PROC_PARAM_NUM = 14;
extern const std::array<halvo_config_param_st, VM_PARAM_NUM> vm_conf_param_dfl_g;
extern const std::array<halvo_config_param_st, PROC_PARAM_NUM> proc_conf_param_dfl_g;

// Returns the index of the row with that name, or -1. Any thread.
int halvo_find_param(std::span<const halvo_config_param_st> table, std::string_view param_name);

// Store one value under the rules of row *conf_param_index of their table, in the VM record or in entry
// *proc_table_index of the process table. A number out of its range and an unknown mode word are replaced
// by the default, with a warning; an unknown process type has none and is refused. *line_num is for the
// messages. Return 0, or -1 with a message when nothing was stored.
int halvo_update_vm_info_table(halvo_vm_info_st* vm_info, const int* conf_param_index, const char* param_name,
                               const char* param_value, const int* line_num);
int halvo_update_proc_info_table(halvo_child_proc_info_st* proc_table, const int* proc_table_index,
                                 const char* param_name, const char* param_value, const int* conf_param_index,
                                 const int* line_num);

// Write the initial values of all parameters and of the state, and, for a process, its name. Return 0.
int halvo_init_vm_info_table(halvo_vm_info_st* vm_info);
int halvo_init_proc_info_table(halvo_child_proc_info_st* proc_table, const int* proc_table_index,
                               const char* proc_name);

// Returns -1, with a message, when an entry in use lacks a mandatory parameter; else 0.
int halvo_verify_mandatory_param(const halvo_vm_info_st* vm_info, const halvo_child_proc_info_st* proc_table);
