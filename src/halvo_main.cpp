// The server: the choice between server and client, the start-up with its threads, and the endless
// monitoring loop.

#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "halvo_client.h"
#include "halvo_command.h"
#include "halvo_ctrl_handler.h"
#include "halvo_heartbeat.h"
#include "halvo_log.h"
#include "halvo_process.h"
#include "halvo_recur_fail.h"
#include "halvo_res_monitor.h"
#include "halvo_signal.h"
#include "halvo_text.h"
#include "halvo_utils.h"
#include "halvo_watchdog.h"
#include "halvo_watermark.h"

static constexpr time_t INIT_TIME = 10;  // seconds a process must have run to count as started

static std::array<halvo_service_st, 3> halvo_services_g = {{
    {"halvo_ctrl_handler", halvo_ctrl_handler_thread, {}},
    {"halvo_watchdog", halvo_watchdog_thread, {}},
    {"halvo_heartbeat_cp", halvo_heartbeat_thread, {}},
}};

// Opens descriptors 0 to 2 where they are closed. The watchdog device must not get descriptor 0, which
// counts as not open.
static void open_standard_descriptors()
{
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR);
    }
    if (fd > STDERR_FILENO) {
        close(fd);
    }
}

static void validate_commands(halvo_child_proc_info_st* proc_info)
{
    if (halvo_check_file_exists(proc_info) != 0) {
        halvo_fatal_exit(
            "File mentioned in  process '%s' start command doesn't exist. Process manager is exiting\n",
            proc_info->proc_name);
    }
    if (halvo_has_command(proc_info->pre_start_cmd) &&
        halvo_check_script_exists(proc_info->pre_start_cmd) != 0) {
        halvo_fatal_exit(
            "Script mentioned in  process '%s' pre-start command doesn't exist. Process manager is exiting\n",
            proc_info->proc_name);
    }
    if (halvo_has_command(proc_info->post_start_cmd) &&
        halvo_check_script_exists(proc_info->post_start_cmd) != 0) {
        halvo_fatal_exit(
            "Script mentioned in  process '%s' post-start command doesn't exist. Process manager is "
            "exiting\n",
            proc_info->proc_name);
    }
}

static void start_services()
{
    for (halvo_service_st& service : halvo_services_g) {
        if (pthread_create(&service.tid, nullptr, service.entry_function, &vm_info_g) != 0) {
            halvo_fatal_exit("Unable to start [%s] thread. Process manager is exiting\n", service.name);
        }
        if (pthread_detach(service.tid) != 0) {
            halvo_fatal_exit("Unable to detach [%s] thread. Process manager is exiting\n", service.name);
        }
    }
    // The daemon's own two threads come last: when no thread can be created, the message must name the
    // first service.
    if (halvo_log_start() != 0) {
        halvo_fatal_exit("Unable to start [%s] thread. Process manager is exiting\n", "halvo_log");
    }
    if (halvo_signal_start() != 0) {
        halvo_fatal_exit("Unable to start [%s] thread. Process manager is exiting\n", "halvo_signal");
    }
}

// Fills the tables under one hold of the table lock: a signal or a client that arrives meanwhile waits
// until they are complete. The device is armed only after the configuration and every command have passed
// their checks, because a fatal exit after that takes the VM down.
static void load_tables()
{
    const std::lock_guard guard(halvo_table_lock_g);
    std::ranges::fill(child_proc_table_g, halvo_child_proc_info_st{});
    vm_info_g = halvo_vm_info_st{};
    if (halvo_read_confile(&vm_info_g, child_proc_table_g) != 0) {
        halvo_fatal_exit("Error in reading config file. Process manager is exiting\n");
    }
    halvo_store(halvo_debug_mode_g, vm_info_g.debug_mode_flag);
    for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
        validate_commands(&child_proc_table_g[i]);
    }
    if (halvo_watchdog_init(&vm_info_g) != 0) {
        halvo_fatal_exit("Not able to initialize the libvirt watch dog device.Process manager is exiting\n");
    }
    start_services();
    for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
        halvo_child_proc_info_st* proc_info = &child_proc_table_g[i];
        proc_info->recur_fail_list =
            halvo_counts_recur_fail(proc_info) ? halvo_create_recur_fail_list() : nullptr;
    }
}

// DAEMON processes are left to the crash monitor, which may find them already running. A restarted
// supervisor must not start them twice.
static void start_normal_processes()
{
    for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
        halvo_child_proc_info_st* proc_info = &child_proc_table_g[i];
        if (proc_info->proc_type == NORMAL && halvo_start_process(proc_info) != 0) {
            const std::lock_guard guard(halvo_table_lock_g);
            halvo_fatal_exit("Unable to start  process '%s'. Process manager is exiting\n",
                             proc_info->start_cmd);
        }
    }
}

// Does everything up to the main loop and returns the loop's period in seconds.
static unsigned start_server()
{
    mallopt(M_ARENA_MAX, 1);  // with one heap per thread, every fork would copy them all
    open_standard_descriptors();
    halvo_log_use_ring();
    if (halvo_is_daemon_running()) {  // a second daemon would start every process again
        halvo_fatal_exit("Process manager is already running. Process manager is exiting\n");
    }
    if (halvo_signal_init() != 0) {
        halvo_fatal_exit("Signal initialization failed. Process manager is exiting\n");
    }
    load_tables();
    // Best effort, see mlockall(2): under memory pressure, keepalives would wait until the daemon's own
    // pages are read back in. Called once every thread has its stack. MCL_ONFAULT locks only pages in use.
    // The programs started later do not inherit the locks.
    mlockall(MCL_CURRENT | MCL_ONFAULT);
    start_normal_processes();
    halvo_log(LOG_INFO, "Process manager started: pid [%d]\n", vm_info_g.halvo_pid);
    halvo_log(LOG_INFO, "To log process manager details; use command: kill -SIGUSR1 %d\n",
              vm_info_g.halvo_pid);
    const std::lock_guard guard(halvo_table_lock_g);
    return static_cast<unsigned>(vm_info_g.res_mon_intvl);
}

// The time that INIT_TIME is counted from: the spawn, or an earlier time if the clock was set back, so that
// the promotion does not wait for the clock to catch up.
struct start_st {
    int spawn_count;  // of the entry; another count is another start
    time_t time;
};

// Promotes an entry that has run long enough. Returns true when the crash monitor has to look at it. The
// state is checked and set under one hold of the lock: an entry that died in between would otherwise stay
// ACTIVE with pid 0.
static bool promote_entry(halvo_child_proc_info_st* proc_info, start_st* start)
{
    const std::lock_guard guard(halvo_table_lock_g);
    time_t now = 0;
    if (proc_info->proc_state == INIT) {
        // The signal thread logs a failed exec when it reaps the child, but a script may hold that thread
        // up.
        halvo_log_exec_failure(proc_info->pid);
    }
    if (halvo_read_clock(&now) == 0 && proc_info->proc_state == INIT) {
        if (start->spawn_count != proc_info->spawn_count) {
            *start = {.spawn_count = proc_info->spawn_count, .time = proc_info->last_spawn_time};
        }
        start->time = std::min(start->time, now);
        if (start->time + INIT_TIME < now) {
            proc_info->proc_state = ACTIVE;
        }
    }
    if (proc_info->proc_type == DAEMON) {
        // Not in INIT: a program that detaches itself is missing for a moment.
        return proc_info->proc_state == UNKNOWN || proc_info->proc_state == ACTIVE;
    }
    return proc_info->proc_type == SYSTEM;
}

static void watch_processes()
{
    // Kept from pass to pass; used by the main thread only.
    static std::array<start_st, MAX_PROC_NUM> starts;
    for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
        halvo_child_proc_info_st* proc_info = &child_proc_table_g[i];
        if (promote_entry(proc_info, &starts.at(static_cast<size_t>(i))) &&
            halvo_monitor_process_crash(proc_info) != 0) {
            const std::lock_guard guard(halvo_table_lock_g);
            halvo_fatal_exit("Unable to monitor  process '%s'. Process manager is exiting\n",
                             proc_info->start_cmd);
        }
    }
}

static bool is_active(const halvo_child_proc_info_st* proc_info)
{
    const std::lock_guard guard(halvo_table_lock_g);
    return proc_info->proc_state == ACTIVE;
}

// If the VM's sample fails, *tot_cpu_usage keeps the last interval's value, and the processes are measured
// against that.
static void sample_usage(uint64_t* tot_cpu_usage)
{
    if (halvo_system_memory_usage(&vm_info_g) != 0) {
        halvo_log(LOG_ALERT, "Unable to calculate system memory usage\n");
    }
    if (halvo_system_cpu_usage(tot_cpu_usage, &vm_info_g) != 0) {
        halvo_log(LOG_ALERT, "Unable to calculate cpu usage for system\n");
    }
    for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
        halvo_child_proc_info_st* proc_info = &child_proc_table_g[i];
        // Only an ACTIVE entry's pid is known to be that of the process.
        if (!is_active(proc_info)) {
            continue;
        }
        if (halvo_process_cpu_usage(*tot_cpu_usage, proc_info, i) != 0) {
            halvo_log(LOG_ALERT, "Unable to calculate cpu utilization of  process '%s'\n",
                      proc_info->proc_name);
        }
        if (halvo_process_memory_usage(proc_info) != 0) {
            halvo_log(LOG_ALERT, "Unable to calculate process memory usage of  process '%s'\n",
                      proc_info->proc_name);
        }
    }
}

[[noreturn]] static void monitor_for_ever(unsigned period)
{
    uint64_t tot_cpu_usage = 0;  // clock ticks of the last interval
    while (true) {
        watch_processes();
        sample_usage(&tot_cpu_usage);
        if (halvo_check_high_low_watermark() != 0) {
            halvo_log(LOG_ALERT, "Error in checking high/low watermark\n");
        }
        // No child's end wakes this sleep: every pass runs pidof, whose own end would start the next pass.
        sleep(period);
    }
}

int main(int argc, char** argv)
{
    program = file_basename(argv[0]);
    if (argc >= 2) {
        halvo_handle_options(argc, argv);
    }
    monitor_for_ever(start_server());
}
