#include "halvo_command.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "halvo_log.h"
#include "halvo_text.h"
#include "halvo_utils.h"

// The number of notes. While all are taken, a further failure shows only as exit status 1.
static constexpr size_t EXEC_FAILURE_NUM = 64;

// The notes that children leave when they cannot run their programs. A child must not log: another thread
// may have held one of the C library's locks at the fork, and nothing in the child would ever release it.
// The pids lie together, so that a search touches only one page.
struct exec_failures_st {
    pid_t pids[EXEC_FAILURE_NUM];  // 0: free; negative: still being written
    int errors[EXEC_FAILURE_NUM];
    char commands[EXEC_FAILURE_NUM][CMD_SIZE];
};

// Returns memory that stays shared with every child, see mmap(2), or null when there is none.
static exec_failures_st* map_exec_failures() noexcept
{
    void* memory =
        mmap(nullptr, sizeof(exec_failures_st), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<exec_failures_st*>(memory);
}

// Mapped before main, so that no child can be forked without it.
static exec_failures_st* const exec_failures = map_exec_failures();

// Called in the child. Several children may come here at once, so each claims a free note by its pid.
static void note_exec_failure(const char* command, int error)
{
    for (size_t i = 0; exec_failures != nullptr && i < EXEC_FAILURE_NUM; ++i) {
        pid_t free = 0;
        if (__atomic_compare_exchange_n(&exec_failures->pids[i], &free, -getpid(), false, __ATOMIC_SEQ_CST,
                                        __ATOMIC_SEQ_CST)) {
            exec_failures->errors[i] = error;
            halvo_copy_text(exec_failures->commands[i], CMD_SIZE, command);
            halvo_store(exec_failures->pids[i], getpid());
            return;
        }
    }
}

void halvo_log_exec_failure(pid_t pid)
{
    for (size_t i = 0; exec_failures != nullptr && i < EXEC_FAILURE_NUM; ++i) {
        if (halvo_load(exec_failures->pids[i]) == pid) {
            const int error = exec_failures->errors[i];
            halvo_log_as(pid, LOG_ERR, "[%s]: execvp failed\n", exec_failures->commands[i]);
            halvo_log_as(pid, LOG_ERR, "%s [errno: %d]\n", strerror(error), error);
            halvo_store(exec_failures->pids[i], 0);
            return;
        }
    }
}

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
    // Not vfork(2) or posix_spawn(3): the parent, which may hold the table lock, would wait until the
    // kernel has read the program from a disk that may hang.
    const pid_t pid = fork();
    if (pid == -1) {
        halvo_log(LOG_CRIT, "[%s]: Fork failed \n", command);
        pthread_sigmask(SIG_SETMASK, kept_mask, nullptr);
    }
    return pid;
}

// A handler, and not SIG_IGN: execve(2) resets a handled signal to its default, but an ignored one stays
// ignored.
static void ignore_signal(int)
{
}

void halvo_exec_command(const halvo_command_st* split, const char* command)
{
    // Until the exec the child still has the daemon's name, so a "pkill -USR1 halvo" hits the child too.
    // There the daemon's handler would wait for ever for a lock that another thread held at the fork.
    signal(SIGCHLD, ignore_signal);
    signal(SIGUSR1, ignore_signal);
    // exec resets handled signals to their defaults. Signals that the operator ignored stay ignored, which
    // nohup(1) relies on. SIGPIPE is the exception, because few programs expect it to be ignored.
    signal(SIGPIPE, SIG_DFL);
    pthread_sigmask(SIG_SETMASK, &start_signal_mask_g, nullptr);
    errno = ENOENT;
    if (split->args[1] != nullptr) {  // glibc's execvp crashes on a null file
        execvp(split->args[1], &split->args[1]);
    }
    note_exec_failure(command, errno);
    // Not exit(3): it would write out the child's copy of the daemon's stream buffers.
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

// Waits for a script's end. The signal thread may reap the child first, so ECHILD means that the script has
// ended too. That thread logs a failed exec before it releases the table lock. Taking the lock here makes
// those lines precede the line about the script's end in both cases.
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
    const std::lock_guard guard(halvo_table_lock_g);
    halvo_log_exec_failure(pid);
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

// A file edited on another system may end its lines with "\r\n".
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

// Takes the entry's start command from the first line of the named file. An empty file changes nothing. The
// file is read only together with the configuration, so a change in it takes effect with the next update.
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

// Returns the word in slot 1, or an empty word if the command has none.
static std::string_view first_word(const halvo_command_st& split)
{
    return split.args[1] == nullptr ? std::string_view() : split.args[1];
}

// A command passes if any of its words names a file. The first word alone would not do: execvp(3) looks it
// up in PATH, and this check does not.
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
        // The daemon has no command to restart such a process with.
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
