#include "halvo_log.h"

#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "halvo_private.h"

static std::mutex log_lock;
static bool log_closed;  // closelog() forgets the identity: a line after it would come from nobody

void halvo_log_open()
{
    const std::lock_guard guard(log_lock);
    openlog("halvo", LOG_PID | LOG_CONS | LOG_NDELAY, LOG_USER);
    log_closed = false;
}

void halvo_log_close()
{
    const std::lock_guard guard(log_lock);
    closelog();
    log_closed = true;
}

void halvo_vlog(int priority, const char* format, va_list args)
{
    const int saved_errno = errno;
    if (priority != LOG_DEBUG || halvo_load(halvo_debug_mode_g) == ENABLE) {
        const std::lock_guard guard(log_lock);
        if (!log_closed) {
            vsyslog(priority, format, args);
        }
    }
    errno = saved_errno;
}

void halvo_log(int priority, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    halvo_vlog(priority, format, args);
    va_end(args);
}

const char* halvo_error_text(int error)
{
    return strerror(error);  // glibc keeps an unnamed number's text per thread
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

pid_t halvo_fork()
{
    const std::lock_guard guard(log_lock);
    return fork();
}
