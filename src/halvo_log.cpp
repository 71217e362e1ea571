#include "halvo_log.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>

#include "halvo_private.h"

static std::mutex log_lock;
static bool log_closed;  // closelog() forgets the identity: a line after it would come from nobody
static bool log_there;   // when it was last looked at
static bool log_stuck;   // it has kept somebody waiting in vain
static bool heap_lost;   // in a child of _Fork(): perhaps locked for ever
static int probe_fd = -1;
static unsigned lost_lines;
static thread_local bool in_a_hurry;

static constexpr std::chrono::milliseconds PATIENCE{1000};      // that a syslog daemon may keep us waiting
static constexpr std::chrono::milliseconds SHORT_PATIENCE{10};  // once it has, or for a thread in a hurry
static constexpr size_t SHORT_TEXT = 900;  // characters, for which syslog() does without the heap

void halvo_log_open()
{
    const std::lock_guard guard(log_lock);
    tzset();  // the first date takes the heap
    openlog("halvo", LOG_PID | LOG_CONS | LOG_NDELAY, LOG_USER);
    log_closed = false;
}

void halvo_log_close()
{
    const std::lock_guard guard(log_lock);
    closelog();
    log_closed = true;
}

void halvo_log_hurry()
{
    in_a_hurry = true;
}

// Looked at through a socket of our own, since the one of syslog() is out of reach. Log lock held.
static bool log_is_full()
{
    const sockaddr_un address = {AF_UNIX, _PATH_LOG};
    const auto connect_probe = [&] {
        return connect(probe_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    };
    log_there = connect_probe();
    if (!log_there && errno == EBADF) {  // not made yet, or in a child that has closed every descriptor
        probe_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        log_there = connect_probe();
    }
    pollfd probe = {.fd = probe_fd, .events = POLLOUT, .revents = 0};
    return log_there && poll(&probe, 1, 0) == 0;
}

// Returns false when the log is full. Log lock held.
__attribute__((format(printf, 2, 0))) static bool send_line(int priority, const char* format, va_list args)
{
    if (log_closed) {
        return true;
    }
    if (log_is_full()) {
        return false;
    }
    if (heap_lost && !log_there) {
        return true;  // it would go to the console, which takes the heap
    }
    if (lost_lines > 0) {
        syslog(LOG_ERR, "%u lines were lost: the log did not take them\n", lost_lines);
        lost_lines = 0;
    }
    vsyslog(priority, format, args);
    log_stuck = false;
    return true;
}

// A syslog daemon that has stopped reading would hold up for good whoever logs, and with him the locks that
// he holds: nothing would be restarted or failed over any more.
void halvo_vlog(int priority, const char* format, va_list args)
{
    using namespace std::chrono;
    const int saved_errno = errno;
    if (priority != LOG_DEBUG || halvo_load(halvo_debug_mode_g) == ENABLE) {
        std::unique_lock lock(log_lock);
        const auto deadline = steady_clock::now() + (in_a_hurry || log_stuck ? SHORT_PATIENCE : PATIENCE);
        while (!send_line(priority, format, args)) {
            const auto left = duration_cast<milliseconds>(deadline - steady_clock::now());
            if (left.count() <= 0) {
                ++lost_lines;
                log_stuck = log_stuck || !in_a_hurry;
                break;
            }
            pollfd probe = {.fd = probe_fd, .events = POLLOUT, .revents = 0};
            lock.unlock();  // a thread in a hurry does not wait as long as we do
            poll(&probe, 1, static_cast<int>(left.count()));
            lock.lock();
        }
    }
    errno = saved_errno;
}

const char* halvo_error_text(int error)
{
    static thread_local std::array<char, 64> unnamed;  // strerror(3) would take the heap for that
    return strerror_r(error, unnamed.data(), unnamed.size());
}

void halvo_log_errno(int priority)
{
    const int error = errno;
    halvo_log(priority, "%s [errno: %d]\n", halvo_error_text(error), error);
}

void halvo_fatal_exit(const char* format, ...)
{
    // Two threads may fail at once: the second lets the first one say its line and end the process.
    static std::mutex exiting;
    exiting.lock();
    va_list args;
    va_start(args, format);
    halvo_vlog(LOG_ALERT, format, args);
    va_end(args);
    halvo_log_close();
    _exit(1);
}

halvo_ctime_text halvo_ctime(time_t when)
{
    halvo_ctime_text text{};
    const std::lock_guard guard(log_lock);
    if (ctime_r(&when, text.data()) == nullptr) {
        text = {"time out of range\n"};
    }
    return text;
}

pid_t halvo_fork(size_t text_length)
{
    const std::lock_guard guard(log_lock);
    if (!log_there || text_length > SHORT_TEXT) {
        return fork();
    }
    // fork() makes the heap fit for use in the child, page by page, and a restart takes a tenth longer.
    const pid_t pid = _Fork();
    heap_lost = pid == 0;
    return pid;
}
