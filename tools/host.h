// What surrounds the daemon in a VM, for tests and demonstrations: the syslog daemon behind /dev/log and the
// hypervisor's watchdog behind /dev/watchdog. One background thread serves both and writes everything down
// as numbered events; the order of two events from different sources within a moment is not promised.

#pragma once

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using host_clock = std::chrono::steady_clock;

constexpr int HOST_DEVICE = -1;  // the "priority" of what happened at the device
constexpr int HOST_ANY = -2;     // any priority, when looking for an event

// A line of the log, or what happened at the device: "open", "settimeout 8", "gettimeout 8", "keepalive"
// (each with " failed" after it when refused), "magic", "write", "close", "disarmed", "expired".
struct host_event {
    size_t number;  // from 1 on, in the order of arrival
    host_clock::time_point when;
    int priority;  // LOG_ALERT to LOG_DEBUG, or HOST_DEVICE
    pid_t pid;     // the sender's own word; 0 for the device
    std::string identity;
    std::string text;  // to the byte, line end included
};

// How the watchdog's driver is to behave; as it stands here it does what it is asked.
struct watchdog_rules {
    int open_errno = 0;
    int settimeout_errno = 0;
    int gettimeout_errno = 0;
    int taken_timeout = 0;       // seconds that a settimeout sets instead, 0 = those asked for
    int reported_timeout = 0;    // seconds that a gettimeout reports instead, 0 = those set
    int keepalive_failures = 0;  // the next so many keepalives fail with EIO
};

struct host_fd {
    int fd = -1;
    ~host_fd()
    {
        close(fd);
    }
};

class host {
public:
    host();  // throws std::system_error where /dev/log or /dev/watchdog is taken
    ~host();

    void behave(const watchdog_rules& rules);

    // The first event of that priority and text numbered above `after`; waits for it. The text is the whole
    // text to the byte, but "*" stands for anything. Throws std::runtime_error that names what it waited for
    // and shows the events so far when it does not come in time.
    host_event wait_for(int priority, const std::string& text, std::chrono::seconds patience,
                        size_t after = 0);

    // How many such events there were, of those numbered above `after` and below `before`.
    size_t count(int priority, const std::string& text, size_t after = 0, size_t before = SIZE_MAX);

    // The texts of the events numbered above `after` and below `before`, one behind the other.
    std::string text_between(size_t after, size_t before);

    // One line for people: "+12.345 ALERT   text".
    std::string describe(const host_event& event) const;

private:
    void serve();
    void record(const std::string& text, int priority = HOST_DEVICE, pid_t pid = 0,
                const char* identity = "");
    void take_log_line();
    void take_device_message();
    void accept_device();
    void close_device();
    std::string answer(uint32_t request, int& value, int& error);

    const host_clock::time_point start_ = host_clock::now();
    std::mutex lock_;  // guards all that is not a descriptor
    std::condition_variable changed_;
    std::vector<host_event> events_;
    watchdog_rules rules_;
    bool armed_ = false;
    bool magic_ = false;
    std::chrono::seconds timeout_{30};  // what the device counts until it is told otherwise
    host_clock::time_point last_ping_;  // what restarted the countdown last
    host_fd wake_, log_, listener_, device_;
    std::thread thread_;
};
