#include "host.h"

#include <fnmatch.h>
#include <linux/watchdog.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syslog.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <system_error>
#include <utility>

#include "watchdog_wire.h"

static int bound_socket(int type, const std::string& path)
{
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        throw std::system_error(errno, std::generic_category(), path);
    }
    listen(fd, SOMAXCONN);  // fails on the log's datagram socket, which does not need it
    return fd;
}

static bool matches(const host_event& event, int priority, const std::string& text)
{
    std::string pattern;
    for (const char c : text) {  // only "*" is a pattern: texts are full of brackets
        pattern += std::strchr("[?\\", c) != nullptr ? std::string("\\") + c : std::string(1, c);
    }
    return (priority == HOST_ANY || priority == event.priority) &&
           fnmatch(pattern.c_str(), event.text.c_str(), 0) == 0;
}

// Starts a thread with all signals blocked: in a test that runs the daemon's code, its signals must not be
// delivered to this thread.
static std::thread start_blocked(host* self, void (host::*serve)())
{
    sigset_t all;
    sigset_t kept;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &kept);
    std::thread thread(serve, self);
    pthread_sigmask(SIG_SETMASK, &kept, nullptr);
    return thread;
}

host::host()
    : wake_{eventfd(0, EFD_CLOEXEC)},
      log_{bound_socket(SOCK_DGRAM, "/dev/log")},
      listener_{bound_socket(SOCK_SEQPACKET, "/dev/watchdog")},
      thread_(start_blocked(this, &host::serve))
{
}

host::~host()
{
    eventfd_write(wake_.fd, 1);
    thread_.join();
    unlink("/dev/log");
    unlink("/dev/watchdog");
}

void host::behave(const watchdog_rules& rules)
{
    const std::lock_guard guard(lock_);
    rules_ = rules;
}

host_event host::wait_for(int priority, const std::string& text, std::chrono::seconds patience, size_t after)
{
    const auto deadline = host_clock::now() + patience;
    std::unique_lock guard(lock_);
    while (changed_.wait_until(guard, deadline, [&] { return events_.size() > after; })) {
        if (matches(events_[after++], priority, text)) {
            return events_[after - 1];
        }
    }
    std::string message = "not seen within " + std::to_string(patience.count()) + " s: <" +
                          std::to_string(priority) + ">" + text;
    for (const host_event& event : events_) {
        if (event.text != "Stopping heartbeat..") {  // logged 20 times a second
            message += "\n    " + describe(event);
        }
    }
    throw std::runtime_error(message);
}

host_event host::wait_for(int priority, const std::string& text, size_t after)
{
    return wait_for(priority, text, PATIENCE, after);
}

size_t host::wait_in_order(size_t after, const std::vector<std::pair<int, std::string>>& events)
{
    for (const auto& [priority, text] : events) {
        after = wait_for(priority, text, after).number;
    }
    return after;
}

size_t host::count(int priority, const std::string& text, size_t after, size_t before)
{
    const std::lock_guard guard(lock_);
    return static_cast<size_t>(std::count_if(events_.begin(), events_.end(), [&](const host_event& event) {
        return event.number > after && event.number < before && matches(event, priority, text);
    }));
}

std::string host::text_between(size_t after, size_t before)
{
    const std::lock_guard guard(lock_);
    std::string text;
    for (size_t i = after; i + 1 < before; ++i) {
        text += events_[i].text;
    }
    return text;
}

std::string host::describe(const host_event& event) const
{
    static constexpr std::array words{"DEVICE",  "EMERG",  "ALERT", "CRIT", "ERR",
                                      "WARNING", "NOTICE", "INFO",  "DEBUG"};
    const std::chrono::duration<double> since_start = event.when - start_;
    std::array<char, 64> head;
    snprintf(head.data(), head.size(), "+%06.3f %-8s", since_start.count(),
             words.at(static_cast<size_t>(event.priority) + 1));
    std::string text = event.text.substr(0, event.text.size() - (event.text.ends_with('\n') ? 1 : 0));
    for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos;) {
        text.replace(at, 1, "\\n");
    }
    return head.data() + text;
}

void host::serve()
{
    std::unique_lock guard(lock_);
    for (;;) {
        std::array<pollfd, 4> ready{{{wake_.fd, POLLIN, 0},
                                     {log_.fd, POLLIN, 0},
                                     {device_.fd, POLLIN, 0},
                                     {listener_.fd, POLLIN, 0}}};
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(last_ping_ + timeout_ - host_clock::now());
        const int patience = armed_ ? std::max(0, static_cast<int>(left.count())) : -1;
        guard.unlock();
        poll(ready.data(), ready.size(), patience);
        guard.lock();
        if (ready[0].revents != 0) {
            return;
        }
        if (ready[1].revents != 0) {
            take_log_line();
        }
        if (ready[2].revents != 0) {
            take_device_message();
        }
        if (ready[3].revents != 0) {
            accept_device();
        }
        if (armed_ && host_clock::now() >= last_ping_ + timeout_) {
            armed_ = false;
            record("expired");
        }
    }
}

void host::record(const std::string& text, int priority, pid_t pid, const char* identity)
{
    events_.push_back({events_.size() + 1, host_clock::now(), priority, pid, identity, text});
    changed_.notify_all();
}

void host::take_log_line()
{
    std::array<char, 65536> line{};
    const ssize_t size = recv(log_.fd, line.data(), line.size() - 1, MSG_DONTWAIT);
    int facility_priority = LOG_EMERG;
    std::array<char, 64> identity{};
    pid_t pid = 0;
    int head = -1;  // a line in another form is kept whole
    // NOLINTNEXTLINE(cert-err34-c): a number out of range is not the log daemon's to judge
    sscanf(line.data(), "<%d>%*15c %63[^[][%d]:%n", &facility_priority, identity.data(), &pid, &head);
    record({line.data() + head + 1, line.data() + size}, LOG_PRI(facility_priority), pid, identity.data());
}

void host::accept_device()
{
    // The messages of the last owner come first, even if they are read only now: a real device is free once
    // close(2) returns.
    for (pollfd last{device_.fd, POLLIN, 0}; last.fd >= 0 && poll(&last, 1, 0) > 0; last.fd = device_.fd) {
        take_device_message();
    }
    const int fd = accept4(listener_.fd, nullptr, nullptr, SOCK_CLOEXEC);
    const int error = device_.fd >= 0 ? EBUSY : rules_.open_errno;
    const watchdog_wire_st message{WATCHDOG_WIRE_MAGIC, 0, 0, error};
    record(error == 0 ? "open" : "open failed");
    send(fd, &message, sizeof message, MSG_NOSIGNAL);
    if (error != 0) {
        close(fd);
        return;
    }
    device_.fd = fd;
    armed_ = true;
    magic_ = false;
    last_ping_ = host_clock::now();
}

void host::take_device_message()
{
    std::array<char, 4096> buffer;
    watchdog_wire_st message{};
    const ssize_t size = recv(device_.fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size <= 0) {
        return close_device();
    }
    memcpy(&message, buffer.data(), sizeof message);
    if (size == sizeof message && message.magic == WATCHDOG_WIRE_MAGIC) {
        record(answer(message.request, message.value, message.error));
        send(device_.fd, &message, sizeof message, MSG_NOSIGNAL);
        return;
    }
    magic_ = memchr(buffer.data(), 'V', static_cast<size_t>(size)) != nullptr;
    last_ping_ = host_clock::now();
    record(magic_ ? "magic" : "write");
}

std::string host::answer(uint32_t request, int& value, int& error)
{
    std::string what = "keepalive";
    if (request == WDIOC_SETTIMEOUT) {
        what = "settimeout " + std::to_string(value);
        error = rules_.settimeout_errno;
        value = rules_.taken_timeout != 0 ? rules_.taken_timeout : value;
        timeout_ = error == 0 ? std::chrono::seconds(value) : timeout_;
    } else if (request == WDIOC_GETTIMEOUT) {
        error = rules_.gettimeout_errno;
        value = rules_.reported_timeout != 0 ? rules_.reported_timeout : static_cast<int>(timeout_.count());
        what = "gettimeout " + std::to_string(value);
    } else {
        error = request != WDIOC_KEEPALIVE ? ENOTTY : rules_.keepalive_failures-- > 0 ? EIO : 0;
    }
    if (error == 0 && request != WDIOC_GETTIMEOUT) {
        last_ping_ = host_clock::now();
    }
    return what + (error != 0 ? " failed" : "");
}

// After a close without "V", the timeout runs once more, as in the kernel; then the VM is lost.
void host::close_device()
{
    close(std::exchange(device_.fd, -1));
    last_ping_ = host_clock::now();
    record("close");
    if (magic_) {
        armed_ = false;
        record("disarmed");
    }
}
