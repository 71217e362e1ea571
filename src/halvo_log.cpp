#include "halvo_log.h"

#include <fcntl.h>
#include <paths.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string_view>
#include <tuple>

#include "halvo_private.h"

static std::mutex log_lock;
static bool log_opened;  // by the daemon; the client logs without
static bool log_closed;
static bool log_stuck;  // it has kept somebody waiting in vain
static int log_fd = -1;
static unsigned lost_lines;
static thread_local bool in_a_hurry;

static constexpr std::chrono::milliseconds PATIENCE{1000};      // that a log daemon may keep us waiting
static constexpr std::chrono::milliseconds SHORT_PATIENCE{10};  // once it has, or for a thread in a hurry
static constexpr size_t LINE_SIZE = 4096;                       // bytes, the terminator included

// Keeps the descriptor where it can: poll(2) does not wake up a thread that waits for another's successor.
// Log lock held.
static int connect_log()
{
    const sockaddr_un address = {AF_UNIX, _PATH_LOG};
    const auto connect_socket = [&] {
        return connect(log_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    };
    int result = connect_socket();
    if (result != 0 && errno == EBADF) {  // not made yet, or in a child that has closed every descriptor
        log_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        result = connect_socket();
    }
    return result;
}

// Log lock held.
static void disconnect_log()
{
    close(log_fd);
    log_fd = -1;
}

void halvo_log_open()
{
    halvo_ctime(time(nullptr));  // the first date takes the heap
    const std::lock_guard guard(log_lock);
    log_opened = true;
    log_closed = false;
    connect_log();
}

void halvo_log_close()
{
    const std::lock_guard guard(log_lock);
    log_closed = true;
    disconnect_log();
}

void halvo_log_hurry()
{
    in_a_hurry = true;
}

// See console(4). It may be a serial line that nobody reads.
static void write_console(std::string_view line)
{
    const int fd = open(_PATH_CONSOLE, O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    for (const std::string_view part : {line, std::string_view("\r\n")}) {
        std::ignore = write(fd, part.data(), part.size());  // dprintf(3) takes a lock of stdio's
    }
    close(fd);
}

// Returns false when the log is full. Log lock held. Not through syslog(3), which waits until it is not, and
// takes the heap for a long line.
static bool send_line(int priority, const char* text)
{
    static std::array<char, LINE_SIZE> line;
    const time_t now = time(nullptr);
    tm local{};
    auto head = static_cast<size_t>(snprintf(line.data(), line.size(), "<%d>", LOG_USER | priority));
    head += strftime(&line.at(head), line.size() - head, "%b %e %T ", localtime_r(&now, &local));
    char* message = &line.at(head);
    const size_t room = line.size() - head;
    const int length = log_opened ? snprintf(message, room, "halvo[%d]: %s", getpid(), text)
                                  : snprintf(message, room, "%s: %s", program_invocation_short_name, text);
    const size_t message_size = std::min(static_cast<size_t>(length), room - 1);
    const auto try_to_send = [&] {
        return send(log_fd, line.data(), head + message_size, MSG_NOSIGNAL) >= 0;
    };
    if (try_to_send() || (connect_log() == 0 && try_to_send())) {
        return true;
    }
    if (errno == EAGAIN) {
        return false;
    }
    if (log_opened) {
        write_console({message, message_size});
    }
    return true;
}

// Returns false when the log is full. Log lock held.
static bool send_lines(int priority, const char* text)
{
    if (log_closed) {
        return true;
    }
    if (lost_lines > 0) {
        std::array<char, 64> notice;
        snprintf(notice.data(), notice.size(), "%u lines were lost: the log did not take them\n", lost_lines);
        if (!send_line(LOG_ERR, notice.data())) {
            return false;
        }
        lost_lines = 0;
    }
    if (!send_line(priority, text)) {
        return false;
    }
    log_stuck = false;
    return true;
}

// A log daemon that has stopped reading would hold up for good whoever logs, and with him the locks that he
// holds: nothing would be restarted or failed over any more.
void halvo_vlog(int priority, const char* format, va_list args)
{
    using namespace std::chrono;
    const int saved_errno = errno;
    if (priority != LOG_DEBUG || halvo_load(halvo_debug_mode_g) == ENABLE) {
        std::array<char, LINE_SIZE> text;
        vsnprintf(text.data(), text.size(), format, args);
        std::unique_lock lock(log_lock);
        const auto deadline = steady_clock::now() + (in_a_hurry || log_stuck ? SHORT_PATIENCE : PATIENCE);
        while (!send_lines(priority, text.data())) {
            const auto left = duration_cast<milliseconds>(deadline - steady_clock::now());
            if (left.count() <= 0) {
                ++lost_lines;
                if (!in_a_hurry) {
                    log_stuck = true;
                    disconnect_log();  // its buffer may be full of lines for a log daemon that was replaced
                }
                break;
            }
            pollfd log = {.fd = log_fd, .events = POLLOUT, .revents = 0};
            lock.unlock();  // a thread in a hurry does not wait as long as we do
            poll(&log, 1, static_cast<int>(left.count()));
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

pid_t halvo_fork()
{
    const std::lock_guard guard(log_lock);
    // fork() makes the heap fit for use in the child, page by page, and a restart takes a tenth longer.
    const pid_t pid = _Fork();
    if (pid == 0) {
        lost_lines = 0;  // the daemon tells of them
    }
    return pid;
}
