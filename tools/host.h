// A fake of the daemon's surroundings in a VM, for tests and demonstrations: the syslog daemon on /dev/log
// and the hypervisor's watchdog on /dev/watchdog. One background thread serves both and records each
// message as a numbered event. Two events that come from different sources at almost the same time may be
// recorded in either order.

#pragma once

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using host_clock = std::chrono::steady_clock;

constexpr std::chrono::seconds PATIENCE{
    60};  // for an event that is due; generous, since a machine may be loaded

constexpr int HOST_DEVICE = -1;  // the "priority" of a device event
constexpr int HOST_ANY = -2;     // any priority, when looking for an event

// A line of the log, or a device event: "open", "settimeout 8", "gettimeout 8", "keepalive" (each followed by
// " failed" when refused), "magic", "write", "close", "disarmed", "expired".
struct host_event {
    size_t number;  // from 1 on, in the order of arrival
    host_clock::time_point when;
    int priority;  // LOG_ALERT to LOG_DEBUG, or HOST_DEVICE
    pid_t pid;     // as the sender states it; 0 for the device
    std::string identity;
    std::string text;  // to the byte, line end included
};

// The behaviour of the watchdog's driver. With these defaults it does as it is asked.
struct watchdog_rules {
    int open_errno = 0;
    int settimeout_errno = 0;
    int gettimeout_errno = 0;
    int taken_timeout = 0;       // seconds that a settimeout sets instead, 0 = those asked for
    int reported_timeout = 0;    // seconds that a gettimeout reports instead, 0 = those set
    int keepalive_failures = 0;  // number of keepalives, from the next on, that fail with EIO
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

    // Waits for the first event with that priority and text numbered above `after`, and returns it. The
    // text is the whole text to the byte, but "*" stands for any characters. If the event does not come in
    // time, throws std::runtime_error with the expected event and all events so far.
    host_event wait_for(int priority, const std::string& text, std::chrono::seconds patience,
                        size_t after = 0);
    host_event wait_for(int priority, const std::string& text, size_t after = 0);

    // Waits for several events, each numbered above the one before it. Returns the number of the last.
    size_t wait_in_order(size_t after, const std::vector<std::pair<int, std::string>>& events);

    // Returns the number of such events numbered above `after` and below `before`.
    size_t count(int priority, const std::string& text, size_t after = 0, size_t before = SIZE_MAX);

    // Returns the texts of the events numbered above `after` and below `before`, one after the other.
    std::string text_between(size_t after, size_t before);

    // Returns one line for people: "+12.345 ALERT   text".
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
    std::mutex lock_;  // guards all members that are not descriptors
    std::condition_variable changed_;
    std::vector<host_event> events_;
    watchdog_rules rules_;
    bool armed_ = false;
    bool magic_ = false;
    std::chrono::seconds timeout_{30};  // the driver's default
    host_clock::time_point last_ping_;  // the last restart of the countdown
    host_fd wake_, log_, listener_, device_;
    std::thread thread_;
};
