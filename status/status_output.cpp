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
static constexpr std::string_view HOME = "\033[H";
static constexpr std::string_view CLEAR_LINE = "\033[K";
static constexpr std::string_view CLEAR_REST = "\033[J";

// The sequences that the signal handlers write, empty where there is no terminal. They are set before the
// handlers are, and never again.
static std::string_view take_g;
static std::string_view leave_g;

static int complain(const std::string& what)
{
    fprintf(stderr, "halvo-status: %s: %s\n", what.c_str(), strerror(errno));
    return -1;
}

// An empty NO_COLOR does not count, by the convention of that variable.
status_style_st status_find_style()
{
    const char* no_color = getenv("NO_COLOR");
    const bool is_terminal = isatty(STDOUT_FILENO) == 1;
    return {is_terminal, is_terminal && (no_color == nullptr || *no_color == '\0')};
}

// Returns 0, or -1 with errno. Safe in a signal handler.
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
    std::string beside = path + ".XXXXXX";
    const int fd = mkstemp(beside.data());
    if (fd == -1) {
        return complain(path);
    }
    // mkstemp(3) gives the owner alone the right to read, and a collector runs as another user.
    bool written = fchmod(fd, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH) == 0 && write_whole(fd, text) == 0;
    written = close(fd) == 0 && written;  // a full disk may show here only
    if (written && rename(beside.c_str(), path.c_str()) == 0) {
        return 0;
    }
    complain(path);
    unlink(beside.c_str());
    return -1;
}

// In a signal handler: only write(2), and a kill that takes effect when the handler returns.
static void leave_terminal(int signal_number)
{
    write_whole(STDOUT_FILENO, leave_g);
    if (signal_number == SIGINT) {
        _exit(0);
    }
    signal(signal_number, SIG_DFL);
    raise(signal_number);
}

// Ctrl-Z: the shell gets its screen for as long as this process is stopped.
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
    sigfillset(&action.sa_mask);  // the terminal is left once
    for (const int signal_number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        sigaction(signal_number, &action, nullptr);
    }
    action.sa_handler = pause_terminal;
    sigaction(SIGTSTP, &action, nullptr);
    write_whole(STDOUT_FILENO, take_g);
}

// Overwrites the old frame instead of clearing it first, which would flicker, in one write. No line goes
// below the last row: the terminal would scroll.
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
