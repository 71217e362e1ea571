// The log: the only room that talks to the log daemon, with the lines of syslog(3), and forks.
//
// Every function may be called from any thread; those that log leave errno as they found it. One plain mutex
// guards the connection, the date and fork together: a child forked while another thread is inside of one of
// the two others would inherit their locks held and hang before its exec. A log daemon that does not take a
// line within a second loses it, and is told the number of lost lines later. The lock is not held while it is
// waited for. Where there is no log daemon, the daemon's lines go to the console.

#pragma once

#include <sys/types.h>

#include <array>
#include <cstdarg>
#include <ctime>

// The text of ctime(3): 24 characters, a line feed and the terminator.
using halvo_ctime_text = std::array<char, 26>;

// Connects to the system log, a datagram socket at /dev/log, as "halvo", LOG_USER, with the pid in each line,
// as openlog(3) does with LOG_PID, LOG_CONS and LOG_NDELAY. Whoever logs without does so under the program's
// name.
void halvo_log_open();

// Closes the connection. Lines logged afterwards are dropped.
void halvo_log_close();

// From now on the calling thread waits 10 milliseconds for a log daemon that does not take its line, no
// longer.
void halvo_log_hurry();

// Logs one line of up to 4000 bytes at a LOG_ priority of syslog(3); what is longer is cut. LOG_DEBUG lines
// are dropped unless halvo_debug_mode_g is ENABLE. The text brings its own line feed. Takes nothing from the
// heap.
void halvo_vlog(int priority, const char* format, va_list args) __attribute__((format(printf, 2, 0)));
__attribute__((format(printf, 2, 3))) inline void halvo_log(int priority, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    halvo_vlog(priority, format, args);
    va_end(args);
}

// The text of an error number, see strerror(3). Good until the calling thread asks again.
const char* halvo_error_text(int error);

// Logs "%s [errno: %d]\n" with errno's text and number, the line that follows a failed system call's.
void halvo_log_errno(int priority);

// Logs the line at LOG_ALERT, closes the log and ends the daemon with status 1. The watchdog device is
// left armed: a supervisor that is gone must fail the VM over.
[[noreturn]] void halvo_fatal_exit(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The local time as ctime(3) writes it, line feed included.
halvo_ctime_text halvo_ctime(time_t when);

// fork(2) with the log's lock held across it and free on both sides, for a child that may find the heap and
// stdio locked for ever: it closes descriptors, execs or, when it can not, logs, and exits. Returns what fork
// returns.
pid_t halvo_fork();
