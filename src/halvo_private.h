// The state of the supervisor: the process table, the VM record and a few globals.
//
// All of it is static storage that lives as long as the process and has no destructor that does anything: a
// fatal exit may leave other threads running. halvo_table_lock_g guards the mutable fields of the table,
// the recurring-failure lists, and the sampled and reported fields of the VM record. A field whose comment
// names halvo_load() is read with it and written with halvo_store() instead, so that the watchdog and
// heartbeat threads never wait for a lock. wd_dev_fd belongs to the watchdog module's own lock, and the
// heartbeat fields belong to the heartbeat thread.

#pragma once

#include <netinet/in.h>
#include <pthread.h>
#include <sys/types.h>

#include <csignal>
#include <cstdint>
#include <ctime>
#include <mutex>

#include "halvo_common.h"

constexpr int MAX_PROC_NUM = 10;               // entries of the process table
constexpr int PROC_NAME_SIZE = 51;             // bytes, the terminator included
constexpr int CMD_SIZE = 1025;                 // bytes of a command field, the terminator included
constexpr int HEARTBEAT_SEND_BUF_SIZE = 2048;  // bytes

constexpr const char* INVALID_CMD = "INVALID_CMD";  // the text of a command field without a command
constexpr char SEPARATOR_CHAR = '/';

enum process_state_en : int32_t {
    UNKNOWN = 0,    // not started by the supervisor and not yet found running
    INIT = 1,       // just spawned; not watched for a crash until it has run more than 10 seconds
    ACTIVE = 2,     // running and watched; its usage is sampled
    TERMINATED = 3  // has exited or was found gone
};

enum process_type_en : int32_t {
    NORMAL = 1,  // started by the supervisor; its exit arrives as SIGCHLD
    DAEMON = 2,  // detaches itself; started when found missing, then found by name
    SYSTEM = 3   // started by somebody else; only watched by name
};

// One spawn time; the newest node of a list points back to its head.
struct halvo_recur_fail_node_st {
    time_t proc_spawn_time;  // seconds since the epoch
    halvo_recur_fail_node_st* next;
};

// The times of a process's last spawns, a ring from the oldest on.
struct halvo_recur_fail_list_st {
    halvo_recur_fail_node_st* head;  // oldest node, null when empty
    uint32_t node_count;
};

// One entry of the process table. The parameter table reaches its fields by offset: the field of a number
// or a mode is 32 bits wide, and that of a command has CMD_SIZE bytes.
struct halvo_child_proc_info_st {
    pid_t pid;   // -1 while a spawn is under way or after its fork failed; 0 when terminated
    pid_t ppid;  // not used
    char proc_name[PROC_NAME_SIZE];
    process_state_en proc_state;
    process_type_en proc_type;          // 0 until the configuration has set it
    halvo_bool_en notify_crash;         // the loss has been reported; not again until the process is back
    char start_cmd_filename[CMD_SIZE];  // the configured text when start_cmd was read from a file
    char start_cmd[CMD_SIZE];
    char pre_start_cmd[CMD_SIZE];
    char post_start_cmd[CMD_SIZE];
    char stop_cmd[CMD_SIZE];            // reported only; nothing runs it
    uint32_t kbytes_used;               // data memory, kB
    uint32_t max_kbytes_used;           // peak virtual memory, kB
    uint32_t proc_mem_high_water;       // kB, 0 = not set
    uint32_t proc_mem_low_water;        // kB, 0 = not set
    halvo_bool_en cpu_usage_data_init;  // the sampler holds a first CPU snapshot
    float proc_cpu_kernel;              // percent of the VM over the last interval
    float proc_cpu_user;
    float proc_cpu_tot_usage;
    int proc_cpu_tot_high_water;                // percent, 0 = not set
    int proc_cpu_tot_low_water;                 // percent, 0 = not set
    time_t uptime;                              // not used
    int action;                                 // NOP, PROC_RESTART or VM_FAILOVER
    int cpu_grace_time;                         // reported only
    int mem_grace_time;                         // reported only
    time_t last_spawn_time;                     // seconds since the epoch, 0 before the first spawn
    int spawn_count;                            // successful spawns since the daemon started
    int respawn_attempts;                       // not used
    int respawn_fail_count;                     // not used
    int recur_fail_intvl;                       // seconds
    int recur_fail_restart_cnt;                 // spawns
    halvo_recur_fail_list_st* recur_fail_list;  // null when the process has none
};

// The VM-wide settings, the VM's usage, and the state of the watchdog and the heartbeat. The parameter
// table reaches the settings by offset; each is 32 bits wide.
struct halvo_vm_info_st {
    pid_t halvo_pid;
    int halvo_state;  // not used
    int version;
    int mon_proc_num;           // entries of the process table in use; fixed once the configuration is read
    int act_proc_num;           // not used
    int vm_failover_flag;       // ENABLE or DISABLE; halvo_load()
    int debug_mode_flag;        // ENABLE or DISABLE
    volatile int wd_tick_flag;  // 1: keepalives are permitted; 0: none is sent; halvo_load()
    int wd_dev_fd;              // -1 when closed
    time_t wd_last_keepalive;   // seconds since the epoch
    int res_mon_intvl;          // seconds
    int wd_tick_intvl;          // seconds; halvo_load()
    int wd_timeout;             // seconds; halvo_load()
    uint32_t total_memory;      // kB
    uint32_t free_memory;       // kB
    uint32_t used_memory;       // kB
    uint32_t mem_high_water;    // kB, 0 = not set
    uint32_t mem_low_water;     // kB, 0 = not set
    halvo_bool_en cpu_usage_data_init;  // the sampler holds a first CPU snapshot
    float cpu_kernel;                   // percent over the last interval
    float cpu_user;
    float cpu_idle;
    float cpu_tot_usage;
    int cpu_tot_high_water;        // percent, 0 = not set
    int cpu_tot_low_water;         // percent, 0 = not set
    uint32_t heartbeat_remote_ip;  // network byte order
    uint32_t heartbeat_local_ip;   // network byte order
    int keepalive_interval_fd;
    int keepalive_sd;
    sockaddr_in dp_ka_cpaddr;
    socklen_t dp_ka_cpaddrlen;
    char heartbeat_send_buf[HEARTBEAT_SEND_BUF_SIZE];
    int keepalive_send_cnt;  // timer wake-ups since start
    int stop_heartbeat;      // 1: the heartbeat has ended; never reset; halvo_load()
    pid_t lunet_pid;
};

// One row of signal_tbl_g.
struct halvo_sig_tbl_st {
    int signo;
    void (*sig_handle)();
};

// One row of halvo_services_g.
struct halvo_service_st {
    const char* name;
    void* (*entry_function)(void*);
    pthread_t tid;
};

inline halvo_child_proc_info_st child_proc_table_g[MAX_PROC_NUM];
inline halvo_vm_info_st vm_info_g;

// Filled by a live update only, on the control thread. halvo-check fills them with the file that it checks.
inline halvo_child_proc_info_st new_child_proc_table_g[MAX_PROC_NUM];
inline halvo_vm_info_st new_vm_info_g;

inline int halvo_debug_mode_g;        // ENABLE: debug lines are logged; halvo_load()
inline const char* program;           // the last component of argv[0]
inline sigset_t start_signal_mask_g;  // the mask that the daemon was started with; its programs get it

// The table lock. Taken by the main, signal and control threads, never by the watchdog, heartbeat and log
// threads. It is taken first: no thread that holds the watchdog module's lock or the log's may wait for it.
//
// Never held across a script's run, popen(3) to pclose(3), a sleep, socket I/O, the opening of commands'
// files, or the set-up and stop of the watchdog: each may take long or hang. Only start-up holds it across
// some of these, while it fills the tables.
inline std::mutex halvo_table_lock_g;
