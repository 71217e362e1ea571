#include "halvo_command.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "halvo_log.h"
#include "halvo_utils.h"

void halvo_split_command(const char* command, halvo_command_st* split)
{
    char* cursor = split->copy.data();
    size_t word = 1;

    halvo_log(LOG_DEBUG, "[%s]: Extracting command line\n", command);
    halvo_copy_text(split->copy.data(), split->copy.size(), command);
    while (true) {
        cursor += strspn(cursor, " \t");
        split->args.at(word) = cursor;
        if (*cursor == '\0') {
            break;
        }
        cursor += strcspn(cursor, " \t#");
        const char end = *cursor;
        *cursor = '\0';
        if (end == '\0' || end == '#') {
            ++word;
            break;
        }
        halvo_log(LOG_DEBUG, "[%s]: argument %zu: [%s]\n", command, word, split->args.at(word));
        if (++word > MAX_CMD_WORDS) {
            break;
        }
        ++cursor;
    }
    split->args.at(word) = nullptr;
    split->args[0] = split->args[1];
}

pid_t halvo_fork_command(const char* command, sigset_t* kept_mask)
{
    sigset_t block;
    halvo_log(LOG_DEBUG, "[%s]: Blocking signals\n", command);
    sigemptyset(&block);
    sigaddset(&block, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &block, kept_mask);
    halvo_log(LOG_DEBUG, "[%s]: Forking\n", command);
    const pid_t pid = halvo_fork();
    if (pid == -1) {
        halvo_log(LOG_CRIT, "[%s]: Fork failed \n", command);
        pthread_sigmask(SIG_SETMASK, kept_mask, nullptr);
    }
    return pid;
}

void halvo_exec_command(const halvo_command_st* split, const char* command)
{
    // What was ignored when the daemon was started would stay ignored through the exec.
    for (int signo = 1; signo < NSIG; ++signo) {
        if (sigismember(&reset_signals_g, signo) == 1) {
            signal(signo, SIG_DFL);
        }
    }
    pthread_sigmask(SIG_SETMASK, &start_signal_mask_g, nullptr);
    errno = ENOENT;
    if (split->args[1] != nullptr) {  // execvp crashes on a null file
        execvp(split->args[1], &split->args[1]);
    }
    halvo_log(LOG_ERR, "[%s]: execvp failed\n", command);
    halvo_log_errno(LOG_ERR);
    _exit(1);
}

// A missing word counts as a missing file.
static bool file_exists(const char* path)
{
    struct stat status {};
    return stat(path == nullptr ? "" : path, &status) == 0;
}

int halvo_check_script_exists(const char* script_start_cmd)
{
    halvo_command_st split;
    halvo_log(LOG_DEBUG, "Going to check whether script: %s exists\n", script_start_cmd);
    halvo_split_command(script_start_cmd, &split);
    if (file_exists(split.args[1])) {
        return 0;
    }
    halvo_log(LOG_ALERT, "[%s]: The script file doesn't exist\n", script_start_cmd);
    halvo_log_errno(LOG_ERR);
    return -1;
}

// Waits for a script's end. The signal thread may reap the child first: ECHILD is the end as well.
static int wait_for_script(pid_t pid)
{
    int status = 0;
    pid_t reaped = 0;
    do {
        reaped = waitpid(pid, &status, 0);
    } while (reaped == -1 && errno == EINTR);
    if (reaped == -1 && errno != ECHILD) {
        halvo_log(LOG_ERR, "Error returned in waitpid(); exit code [%d]\n", WEXITSTATUS(status));
        halvo_log_errno(LOG_ERR);
        return -1;
    }
    return 0;
}

int halvo_execute_script(const char* script_start_cmd)
{
    halvo_command_st split;
    sigset_t kept_mask;
    halvo_log(LOG_DEBUG, "Going to executing the script: %s\n", script_start_cmd);
    halvo_split_command(script_start_cmd, &split);
    const pid_t pid = halvo_fork_command(script_start_cmd, &kept_mask);
    if (pid == -1) {
        return -1;
    }
    if (pid == 0) {
        halvo_exec_command(&split, script_start_cmd);
    }
    halvo_log(LOG_INFO, "Executing script [%s]\n", script_start_cmd);
    const int result = wait_for_script(pid);
    pthread_sigmask(SIG_SETMASK, &kept_mask, nullptr);
    if (result == 0) {
        halvo_log(LOG_INFO, "Script [%s] executed successfully\n", script_start_cmd);
    }
    return result;
}

static void remove_line_end(char* line)
{
    for (const char end : {'\n', '\r'}) {
        const size_t length = strlen(line);
        if (length > 0 && line[length - 1] == end) {
            line[length - 1] = '\0';
        }
    }
}

static void log_unreadable_start_cmd_file(const char* file_name)
{
    halvo_log(LOG_ALERT, "Start cmd file: %s not found\n", file_name);
    halvo_log_errno(LOG_ERR);
}

// Takes the entry's start command from the first line of the named file. An empty file changes nothing.
static int read_start_cmd_file(halvo_child_proc_info_st* proc_info, const char* file_name)
{
    if (!file_exists(file_name)) {
        halvo_log(LOG_ALERT, "[%s]: The start command file [%s] doesn't exist\n", proc_info->start_cmd,
                  file_name == nullptr ? "" : file_name);
        halvo_log_errno(LOG_ERR);
        return -1;
    }
    const halvo_file file = halvo_open_file(file_name);
    if (file == nullptr) {
        log_unreadable_start_cmd_file(file_name);
        return -1;
    }
    std::array<char, CMD_COPY_SIZE> line;
    if (fgets(line.data(), line.size(), file.get()) != nullptr) {
        remove_line_end(line.data());
        halvo_copy_text(proc_info->start_cmd_filename, CMD_SIZE, proc_info->start_cmd);
        halvo_copy_text(proc_info->start_cmd, CMD_SIZE, line.data());
    } else if (ferror(file.get()) != 0) {
        log_unreadable_start_cmd_file(file_name);
        return -1;
    }
    return 0;
}

// Returns slot 1, or an empty word where the command has none.
static std::string_view first_word(const halvo_command_st& split)
{
    return split.args[1] == nullptr ? std::string_view() : split.args[1];
}

static bool any_word_exists(const halvo_command_st& split)
{
    for (size_t word = 1; split.args.at(word) != nullptr; ++word) {
        if (file_exists(split.args.at(word))) {
            return true;
        }
    }
    return false;
}

int halvo_check_file_exists(halvo_child_proc_info_st* proc_info)
{
    halvo_command_st split;
    halvo_log(LOG_DEBUG, "Checking the existence of file in : %s\n", proc_info->start_cmd);
    halvo_split_command(proc_info->start_cmd, &split);
    if (first_word(split) == "SYSTEM") {
        proc_info->proc_type = SYSTEM;
        if (proc_info->action == PROC_RESTART) {
            halvo_log(LOG_ALERT, "action [process restart] is not valid for system spawned process\n");
            return -1;
        }
    } else if (first_word(split) == "START_CMD_FILE") {
        if (read_start_cmd_file(proc_info, split.args[2]) != 0) {
            return -1;
        }
        halvo_split_command(proc_info->start_cmd, &split);
    }
    if (first_word(split) != "SYSTEM" && !any_word_exists(split)) {
        halvo_log(LOG_ALERT, "[%s]: The executable mentioned in start command doesn't exist\n",
                  proc_info->start_cmd);
        return -1;
    }
    return 0;
}
