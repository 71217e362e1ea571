// Command lines: cutting them into words, starting programs from them, scripts, and the check that a
// start command can be run.
//
// A command is never given to a shell. Its words are separated by blanks and tabs, "#" ends it, there is
// no quoting; the first word is run with a search of PATH.

#pragma once

#include <sys/types.h>

#include <array>
#include <csignal>

#include "halvo_private.h"

constexpr int CMD_COPY_SIZE = 1024;  // bytes of the working copy, the terminator included
constexpr int MAX_CMD_WORDS = 98;    // stored in slots 1 to 98; the null behind them needs a slot too

// A command cut into words. Slot 0 repeats the program of slot 1, and a null follows the last word.
struct halvo_command_st {
    std::array<char, CMD_COPY_SIZE> copy;
    std::array<char*, MAX_CMD_WORDS + 2> args;  // into copy
};

// Cuts at most the first CMD_COPY_SIZE - 1 characters of the command into words. Any thread.
void halvo_split_command(const char* command, halvo_command_st* split);

// Forks with SIGCHLD blocked in the calling thread, so that a callback in this thread can not meet the
// child before it is known. Returns what fork(2) returns; after 0 or a pid the caller sets kept_mask back
// when it has stored or reaped the child; after -1, which is logged, the mask is back already.
pid_t halvo_fork_command(const char* command, sigset_t* kept_mask);

// The child's last step: default signal dispositions and the mask the daemon was started with, then the
// program. Where there is none to run, logs why and ends the child with status 1.
[[noreturn]] void halvo_exec_command(const halvo_command_st* split, const char* command);

// Returns 0 when the script's first word names an existing file, else -1 with a message. See stat(2).
int halvo_check_script_exists(const char* script_start_cmd);

// Runs a script and waits for its end, however long it takes; its exit status does not matter. Returns 0,
// or -1 when it could not be started or waited for. Any thread, without the table lock.
int halvo_execute_script(const char* script_start_cmd);

// Checks that an entry's start command can be run and resolves its keywords: "SYSTEM" makes the entry a
// SYSTEM process, "START_CMD_FILE FILE" replaces the command by the file's first line and keeps the
// configured text in start_cmd_filename. Returns 0, or -1 with a message; what was changed stays changed.
// The entry must be out of other threads' reach.
int halvo_check_file_exists(halvo_child_proc_info_st* proc_info);
