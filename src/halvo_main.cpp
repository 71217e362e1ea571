// The server's spine: the choice between server and client, start-up, the signals and the threads, and the
// endless monitoring loop.

#include "halvo_main.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "halvo_client.h"
#include "halvo_command.h"
#include "halvo_ctrl_handler.h"
#include "halvo_heartbeat.h"
#include "halvo_log.h"
#include "halvo_process.h"
#include "halvo_recur_fail.h"
#include "halvo_report.h"
#include "halvo_res_monitor.h"
#include "halvo_utils.h"
#include "halvo_watchdog.h"
#include "halvo_watermark.h"

static constexpr const char* LOCK_FILE = "/run/halvo.lock";
static constexpr time_t INIT_TIME = 10;  // seconds a process must have run to count as started

static const std::array<halvo_sig_tbl_st, 2> signal_tbl_g = {{
    {SIGCHLD, halvo_sigchld_cb},
    {SIGUSR1, halvo_sigusr1_cb},
}};

static std::array<halvo_service_st, 3> halvo_services_g = {{
    {"halvo_ctrl_handler", halvo_ctrl_handler_thread, {}},
    {"halvo_watchdog", halvo_watchdog_thread, {}},
    {"halvo_heartbeat_cp", halvo_heartbeat_thread, {}},
}};

void halvo_sigusr1_cb()
{
    halvo_display_config_details(nullptr);
    halvo_display_status_info(nullptr);
}

void halvo_signal_handler(int signo)
{
    for (const halvo_sig_tbl_st& row : signal_tbl_g) {
        if (row.signo == signo) {
            row.sig_handle();
        }
    }
}

static bool has_exited_child()
{
    siginfo_t info{};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
}

static sigset_t table_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const halvo_sig_tbl_st& row : signal_tbl_g) {
        sigaddset(&signals, row.signo);
    }
    return signals;
}

// Signals coalesce and the SIGCHLD callback stops at the first child that is no NORMAL process: it is
// called until no exited child is left, or a death beside a script's would be missed.
static void* halvo_signal_thread(void*)
{
    const sigset_t signals = table_signals();
    while (true) {
        const int signo = sigwaitinfo(&signals, nullptr);
        if (signo == -1) {
            continue;
        }
        halvo_signal_handler(signo);
        while (signo == SIGCHLD && has_exited_child()) {
            halvo_signal_handler(SIGCHLD);
        }
    }
}

// To reset each signal in each child would cost every start some 60 system calls.
static void note_changed_signals()
{
    for (int signo = 1; signo < NSIG; ++signo) {
        struct sigaction action {};
        if (sigaction(signo, nullptr, &action) == 0 && action.sa_handler != SIG_DFL) {
            sigaddset(&reset_signals_g, signo);
        }
    }
}

int halvo_signal_init()
{
    const sigset_t signals = table_signals();
    pthread_sigmask(SIG_BLOCK, &signals, &start_signal_mask_g);
    for (const halvo_sig_tbl_st& row : signal_tbl_g) {
        struct sigaction action {};
        action.sa_handler = halvo_signal_handler;
        sigemptyset(&action.sa_mask);
        if (sigaction(row.signo, &action, nullptr) != 0) {
            halvo_log(LOG_ERR, "Failed in setting up signal handler for signal [%d]\n", row.signo);
            return -1;
        }
    }
    note_changed_signals();
    pthread_t tid{};
    if (pthread_create(&tid, nullptr, halvo_signal_thread, nullptr) != 0) {
        halvo_log(LOG_ERR, "Unable to start the signal thread\n");
        return -1;
    }
    pthread_detach(tid);
    return 0;
}

// The device must not get descriptor 0, which counts as not open.
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

// A second daemon would start every process once more and take over the control socket. The kernel lets go of
// the lock when the process ends, however it ends, and no fork passes it on. See fcntl_locking(2).
static void lock_instance()
{
    const int fd = open(LOCK_FILE, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    struct flock whole {};
    whole.l_type = F_WRLCK;
    if (fd != -1 && fcntl(fd, F_SETLK, &whole) == 0) {
        return;
    }
    if (fd != -1 && (errno == EACCES || errno == EAGAIN)) {
        halvo_fatal_exit("Process manager is already running. Process manager is exiting\n");
    }
    halvo_log(LOG_ERR, "Unable to lock %s\n", LOCK_FILE);
    halvo_log_errno(LOG_ERR);
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
}

// From zeroing the tables until they are whole, under one hold of the table lock: a signal or a client that
// arrives meanwhile waits.
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

// Everything up to the main loop. Returns the loop's period in seconds.
static unsigned start_server()
{
    mallopt(M_ARENA_MAX, 1);  // each fork would copy a heap for each thread
    open_standard_descriptors();
    halvo_log_open();
    lock_instance();
    if (halvo_signal_init() != 0) {
        halvo_fatal_exit("Signal initialization failed. Process manager is exiting\n");
    }
    load_tables();
    // Best effort, once every thread has its stack: under memory pressure the keepalives would wait for our
    // own pages to be read in again. Only what is in use is locked, and no program we start inherits it.
    mlockall(MCL_CURRENT | MCL_ONFAULT);
    start_normal_processes();
    halvo_log(LOG_INFO, "Process manager started: pid [%d]\n", vm_info_g.halvo_pid);
    halvo_log(LOG_INFO, "To log process manager details; use command: kill -SIGUSR1 %d\n",
              vm_info_g.halvo_pid);
    const std::lock_guard guard(halvo_table_lock_g);
    return static_cast<unsigned>(vm_info_g.res_mon_intvl);
}

// Promotes an entry that has run long enough. Returns true when the crash monitor has to look at it.
static bool promote_entry(halvo_child_proc_info_st* proc_info)
{
    const std::lock_guard guard(halvo_table_lock_g);
    time_t now = 0;
    if (halvo_read_clock(&now) == 0 && proc_info->proc_state == INIT) {
        // After the clock was set back it would take until the old time comes again.
        proc_info->last_spawn_time = std::min(proc_info->last_spawn_time, now);
        if (proc_info->last_spawn_time + INIT_TIME < now) {
            proc_info->proc_state = ACTIVE;
        }
    }
    if (proc_info->proc_type == DAEMON) {
        return proc_info->proc_state == UNKNOWN || proc_info->proc_state == ACTIVE;
    }
    return proc_info->proc_type == SYSTEM;
}

static void watch_processes()
{
    for (int i = 0; i < vm_info_g.mon_proc_num; ++i) {
        halvo_child_proc_info_st* proc_info = &child_proc_table_g[i];
        if (promote_entry(proc_info) && halvo_monitor_process_crash(proc_info) != 0) {
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

// *tot_cpu_usage keeps its last value when the VM's sample fails.
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
