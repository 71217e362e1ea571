// The facts that the kernel knows about the daemon and the watchdog device, from /proc and /sys, see
// proc(5).
//
// The device itself is never opened, because that would arm it. A file that cannot be read leaves its figure
// unknown; no call fails. The module keeps no state. One thread.

#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "status_report.h"

// A child of the daemon that stands in no line of the report.
struct status_child_st {
    pid_t pid;
    int64_t age;          // seconds
    std::string command;  // its words with one blank between
};

struct status_kernel_st {
    status_figure armed;                    // 1: the daemon holds the watchdog device
    status_figure replaced;                 // 1: the daemon's executable was replaced or removed
    status_figure age;                      // of the daemon, seconds
    status_figure lunet;                    // 1: a process of that name runs
    std::string identity;                   // of the device, empty = not known
    status_figure timeout, bootstatus;      // of the device; seconds, bits of WDIOC_GETBOOTSTATUS
    std::vector<status_child_st> children;  // those older than STATUS_HELD_UP_AGE
};

// Longer than a pidof or an ordinary script takes, even on a busy VM.
constexpr int64_t STATUS_HELD_UP_AGE = 5;  // seconds

// Fills *kernel, which must be new. Looks at the device, and at the daemon unless its pid is 0, which stands
// for no known daemon. The report tells which children are known processes. A daemon that ends meanwhile
// leaves figures unknown.
void status_look(pid_t daemon, const status_report_st& report, status_kernel_st* kernel);
