// Command lines: splitting them into words, starting programs from them, running scripts, and checking that
// a start command can be run.
//
// No command goes through a shell. Blanks and tabs separate its words, "#" ends it, and there is no
// quoting. The first word is looked up in PATH.
//
// The module keeps no state but the notes of children whose exec failed. Between fork and exec, a child
// takes no lock and does not log: another thread may have held any lock of the C library at the fork, and
// nothing in the child would release it.

#pragma once

#include <sys/types.h>

#include <array>
#include <csignal>

#include "halvo_private.h"

constexpr int CMD_COPY_SIZE = 1024;  // bytes of the working copy, the terminator included
constexpr int MAX_CMD_WORDS = 98;    // in slots 1 to 98; slot 99 is left for the null

// A command split into words. Slot 0 repeats the program of slot 1, and a null follows the last word.
struct halvo_command_st {
    std::array<char, CMD_COPY_SIZE> copy;
    std::array<char*, MAX_CMD_WORDS + 2> args;  // into copy
};

// Splits the first CMD_COPY_SIZE - 1 characters of the command into at most MAX_CMD_WORDS words; the rest
// is ignored. Any thread; the command must not change meanwhile.
void halvo_split_command(const char* command, halvo_command_st* split);

// Forks with SIGCHLD blocked in the calling thread, so that no callback in this thread can meet the child
// before its pid is stored. Returns the result of fork(2). In the parent, the caller restores *kept_mask
// once it has stored or reaped the child. The child goes on to halvo_exec_command(), which sets its mask.
// After -1, which is logged, the mask is already restored. Any thread.
pid_t halvo_fork_command(const char* command, sigset_t* kept_mask);

// The child's last step: restores SIGPIPE's default action and the signal mask that the daemon was started
// with, then executes the program. If that fails, leaves the reason for halvo_log_exec_failure() and ends
// the child with status 1. See execvp(3), signal-safety(7).
[[noreturn]] void halvo_exec_command(const halvo_command_st* split, const char* command);

// Logs why a child could not run its program, under that child's pid. Does nothing if the program runs or
// ran, or if another thread has already logged the reason. Any thread, table lock held.
void halvo_log_exec_failure(pid_t pid);

// Returns 0 when the script's first word names an existing file, else -1 with a message. PATH is not
// searched. See stat(2). Any thread; without the table lock, except at start-up.
int halvo_check_script_exists(const char* script_start_cmd);

// Runs a script and waits for its end, however long it takes. Returns 0 whatever the script's exit status,
// or -1 with a message when it could not be started or waited for. Main and signal thread, without the
// table lock.
int halvo_execute_script(const char* script_start_cmd);

// Checks that an entry's start command can be run and resolves its keywords. "SYSTEM" makes the entry a
// SYSTEM process. "START_CMD_FILE FILE" replaces the command by the file's first line and keeps the
// configured text in start_cmd_filename. Returns 0, or -1 with a message; changes already made to the entry
// stay. The caller makes sure that no other thread reaches the entry meanwhile.
int halvo_check_file_exists(halvo_child_proc_info_st* proc_info);
