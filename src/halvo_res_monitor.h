// The samplers: memory and CPU use of the VM and of one process, from the kernel's text files, see proc(5).
//
// The CPU samplers keep the previous counters and report differences over one monitoring interval. Each
// file takes one open, one read and one close; nothing is allocated. A sample that fails changes nothing.
// The pid is read and the figures are stored under the table lock; the files are read outside it, so that
// no client or restart waits for the kernel. All functions belong to the main thread and are called without
// the table lock.

#pragma once

#include <cstdint>

#include "halvo_private.h"

// The counters of the "cpu" line of /proc/stat, in its order; clock ticks over all CPUs.
struct sys_cpu_usage_info_st {
    uint64_t user_time;
    uint64_t nice_time;
    uint64_t kernel_time;
    uint64_t idle_time;
    uint64_t io_time;
    uint64_t x_time;  // irq
    uint64_t y_time;  // softirq
    uint64_t z_time;  // steal
};

// The counters of one process; times are in clock ticks.
struct proc_cpu_usage_info_st {
    char proc_name[PROC_NAME_SIZE];  // not used
    int prio;                        // not used
    uint64_t utime;
    uint64_t stime;
    uint64_t start_time;  // since the boot; not used
};

// Fills total_memory, free_memory and used_memory (kB), with zeros when the file is empty. Returns 0, or -1
// with a message when the file cannot be opened.
int halvo_system_memory_usage(halvo_vm_info_st* vm_info);

// Fills kbytes_used and max_kbytes_used (kB) of an entry, with zeros when the file is empty. Returns 0, or
// -1 with a message when the file cannot be opened.
int halvo_process_memory_usage(halvo_child_proc_info_st* proc_info);

// Fills the VM's CPU percentages and *tot_cpu_usage_in_mon_intvl, the clock ticks of all CPUs since the
// last sample. The first sample sets that total to 0 and computes no percentage. Returns 0, or -1 when the
// file cannot be read or is not in the kernel's form.
int halvo_system_cpu_usage(uint64_t* tot_cpu_usage_in_mon_intvl, halvo_vm_info_st* vm_info);

// Fills an entry's CPU percentages, measured against that total; a total of 0 leaves them alone. index, 0
// to MAX_PROC_NUM - 1, selects the snapshot to compare with. Returns 0, or -1 when the file cannot be read
// or is not in the kernel's form.
int halvo_process_cpu_usage(uint64_t tot_cpu_usage_in_mon_intvl, halvo_child_proc_info_st* proc_info,
                            int index);

// Token routines. White space is as isspace(3) defines it. Except in skip_ws(), a null argument gives a null
// result. Any thread.
void skip_ws(const char** p);                 // moves *p over white space
const char* skip_white(const char* ptr);      // first other character; null at the end or at a "#"
const char* skip_not_white(const char* ptr);  // white space after the token; null at the end
const char* skiptoken(const char* ptr);       // start of the next token; null when there is none
