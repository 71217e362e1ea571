#include "status_output.h"

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

static constexpr std::string_view TAKE = "\033[?1049h\033[?25l";   // the alternate screen, no cursor
static constexpr std::string_view LEAVE = "\033[?25h\033[?1049l";  // the screen as it was
// The sequences of console_codes(4) that a frame is drawn with.
static constexpr std::string_view HOME = "\033[H";
static constexpr std::string_view CLEAR_LINE = "\033[K";
static constexpr std::string_view CLEAR_REST = "\033[J";

// The sequences that the signal handlers write, empty without a terminal. They are set once, before the
// handlers are installed, so that no handler meets a half-written one.
static std::string_view take_g;
static std::string_view leave_g;

// Prints errno's text with the thing that failed. Returns -1, which the caller returns in turn.
static int complain(const std::string& subject)
{
    fprintf(stderr, "halvo-status: %s: %s\n", subject.c_str(), strerror(errno));
    return -1;
}

// By the convention of the variable NO_COLOR, an empty value does not count.
status_style_st status_find_style()
{
    const char* no_color = getenv("NO_COLOR");
    const bool is_terminal = isatty(STDOUT_FILENO) == 1;
    return {is_terminal, is_terminal && (no_color == nullptr || *no_color == '\0')};
}

// Returns 0, or -1 with errno. Safe in a signal handler, since it calls only write(2), see signal-safety(7).
static int write_whole(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count < 0 && errno != EINTR) {
            return -1;
        }
        text.remove_prefix(count > 0 ? static_cast<size_t>(count) : 0);
    }
    return 0;
}

int status_print(const std::string& text)
{
    return write_whole(STDOUT_FILENO, text) == 0 ? 0 : complain("standard output");
}

int status_write_file(const std::string& path, const std::string& text)
{
    // In the same directory, because rename(2) cannot move a file to another file system.
    std::string new_path = path + ".XXXXXX";
    const int fd = mkstemp(new_path.data());
    if (fd == -1) {
        return complain(path);
    }
    // mkstemp(3) lets only the owner read the file, and a collector runs as another user.
    bool written = fchmod(fd, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH) == 0 && write_whole(fd, text) == 0;
    written = close(fd) == 0 && written;  // a full disk may show only here, see close(2)
    if (written && rename(new_path.c_str(), path.c_str()) == 0) {
        return 0;
    }
    complain(path);
    unlink(new_path.c_str());
    return -1;
}

// A signal handler, so it calls only functions of signal-safety(7). The raised signal is blocked here, and
// ends the process when the handler returns. SIGINT is the ordinary way out of --watch and no failure.
static void leave_terminal(int signal_number)
{
    write_whole(STDOUT_FILENO, leave_g);
    if (signal_number == SIGINT) {
        _exit(0);
    }
    signal(signal_number, SIG_DFL);
    raise(signal_number);
}

// The signal handler of Ctrl-Z: the shell has its screen back for as long as this process is stopped.
static void pause_terminal(int)
{
    const int error = errno;
    write_whole(STDOUT_FILENO, leave_g);
    kill(getpid(), SIGSTOP);
    write_whole(STDOUT_FILENO, take_g);
    errno = error;
}

void status_take_output(bool is_terminal)
{
    take_g = is_terminal ? TAKE : "";
    leave_g = is_terminal ? LEAVE : "";
    struct sigaction action {};
    action.sa_flags = SA_RESTART;
    action.sa_handler = leave_terminal;
    sigfillset(&action.sa_mask);  // no second signal while a handler writes to the terminal
    for (const int signal_number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        sigaction(signal_number, &action, nullptr);
    }
    action.sa_handler = pause_terminal;
    sigaction(SIGTSTP, &action, nullptr);
    write_whole(STDOUT_FILENO, take_g);
}

// Overwrites the old frame in one write. Clearing it first would flicker. No line may go below the last row,
// because the terminal would scroll. Without a known size every line is drawn, see ioctl_tty(2).
int status_draw(const std::string& screen)
{
    winsize size{};
    int rows = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 ? size.ws_row : INT_MAX;
    std::string frame(HOME);
    for (const char character : screen) {
        if (character != '\n') {
            frame += character;
        } else if (--rows > 0) {
            frame.append(CLEAR_LINE).append("\r\n");
        } else {
            break;
        }
    }
    return status_print(frame.append(CLEAR_REST));
}
