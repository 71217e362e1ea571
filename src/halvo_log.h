// The log: the only module that calls openlog(3), syslog(3) and closelog(3), and the one way out of the
// daemon.
//
// A caller may hold any lock, so it never waits for the log daemon: it formats its line into a ring in
// static storage and goes on. One thread takes the lines in order and gives them to syslog(3), which may
// hang for as long as the log daemon does. When the ring is full, lines are dropped and counted; their
// number is logged once there is space. A process without that thread, such as the client, calls syslog(3)
// directly.
//
// Every function may be called from any thread unless its comment says otherwise. Those that log leave
// errno as they found it. The ring's lock is the innermost one. It is held for one copy, never across
// syslog(3).

#pragma once

#include <sys/types.h>

#include <array>
#include <cstdarg>
#include <ctime>

// The text of ctime(3): 24 characters, a line feed and the terminator.
using halvo_ctime_text = std::array<char, 26>;

// A function that takes a formatted line: the pid to log it under (0: our own), its LOG_ priority, its
// text.
using halvo_log_sink = void(pid_t pid, int priority, const char* text);

// Gives the line to syslog(3) and waits for that call, however long it takes.
halvo_log_sink halvo_syslog_line;

// The function that takes every line; read with halvo_load(). A program that is not the daemon may set
// another one before it starts a thread.
inline halvo_log_sink* halvo_log_sink_g = halvo_syslog_line;

// Lets every line go to the ring from now on. Main thread, before any other thread exists.
void halvo_log_use_ring();

// Starts the thread that opens the log as "halvo", LOG_USER, with LOG_PID, LOG_CONS and LOG_NDELAY, see
// openlog(3), and empties the ring. Returns 0 or -1, not logged. Main thread, once.
int halvo_log_start();

// Gives the ring one second to empty, then closes the log. Later lines are dropped. Only for a process that
// is about to end.
void halvo_log_close();

// Log one line of up to 4095 characters at a LOG_ priority of syslog(3); a longer line is cut. LOG_DEBUG
// lines are dropped unless halvo_debug_mode_g is ENABLE. No line feed is added.
void halvo_vlog(int priority, const char* format, va_list args) __attribute__((format(printf, 2, 0)));
void halvo_log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Logs one line, as halvo_log() does, under another process's pid, as if that process had logged it.
void halvo_log_as(pid_t pid, int priority, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Logs errno's text and number as "%s [errno: %d]\n". This line follows the one about a failed system call.
void halvo_log_errno(int priority);

// Logs the line at LOG_ALERT, closes the log and ends the daemon with status 1, within about a second. The
// watchdog device is left armed: without its supervisor, the VM must fail over.
[[noreturn]] void halvo_fatal_exit(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Returns the local time as ctime(3) writes it, line feed included, in the time zone that the last tzset(3)
// found. A tzset(3) for each date would double the time of a report. A time that ctime(3) refuses gives a
// text that says so.
halvo_ctime_text halvo_ctime(time_t when);
