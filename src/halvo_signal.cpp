#include "halvo_signal.h"

#include <sys/wait.h>
#include <syslog.h>

#include <array>
#include <csignal>

#include "halvo_log.h"
#include "halvo_private.h"
#include "halvo_process.h"
#include "halvo_report.h"

static const std::array<halvo_sig_tbl_st, 2> signal_tbl_g = {{
    {SIGCHLD, halvo_sigchld_cb},
    {SIGUSR1, halvo_sigusr1_cb},
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

// WNOWAIT leaves the child for the callback, which reaps it under the table lock. See waitid(2).
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

// Signals coalesce, and the SIGCHLD callback stops at the first child that is not a NORMAL process. So the
// callback is repeated until no exited child is left; otherwise a NORMAL death that coincides with a
// script's would be missed.
static void* halvo_signal_thread(void*)
{
    const sigset_t signals = table_signals();
    while (true) {
        const int signo = sigwaitinfo(&signals, nullptr);
        // EINTR: the thread was stopped and continued, for example by a debugger. See signal(7).
        if (signo == -1) {
            continue;
        }
        halvo_signal_handler(signo);
        while (signo == SIGCHLD && has_exited_child()) {
            halvo_signal_handler(SIGCHLD);
        }
    }
}

int halvo_signal_init()
{
    const sigset_t signals = table_signals();
    // The previous mask is kept for the programs that the daemon starts.
    pthread_sigmask(SIG_BLOCK, &signals, &start_signal_mask_g);
    for (const halvo_sig_tbl_st& row : signal_tbl_g) {
        struct sigaction action {};
        // Never runs as a handler, but must be installed: with an inherited SIG_IGN for SIGCHLD, the kernel
        // would reap the children itself and raise no signal.
        action.sa_handler = halvo_signal_handler;
        sigemptyset(&action.sa_mask);
        if (sigaction(row.signo, &action, nullptr) != 0) {
            halvo_log(LOG_ERR, "Failed in setting up signal handler for signal [%d]\n", row.signo);
            return -1;
        }
    }
    return 0;
}

int halvo_signal_start()
{
    pthread_t tid{};
    if (pthread_create(&tid, nullptr, halvo_signal_thread, nullptr) != 0) {
        return -1;
    }
    return pthread_detach(tid) == 0 ? 0 : -1;
}
