// The exchange with the daemon: two requests, two texts. Everything about the control record is used in this
// module's source alone.
//
// The other end is not trusted: it may belong to a stranger, say nothing, half a record or junk. No call
// lasts longer than the deadline.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

using status_clock = std::chrono::steady_clock;

// Room of a report; a line that no longer fits is dropped by the daemon, a later, shorter one may still fit.
constexpr size_t STATUS_REPORT_SIZE = 8192;  // bytes, the terminator included
constexpr size_t STATUS_LINE_SIZE = 1024;    // bytes of the longest line, the terminator included

// NO_DAEMON: nothing listens. NO_ANSWER: a server listens and sent no whole record in time. NO_RIGHT: the
// socket is closed to this user, or belongs to another one.
enum class status_answer { WHOLE, NO_DAEMON, NO_ANSWER, NO_RIGHT };

struct status_exchange_st {
    status_answer answer = status_answer::NO_DAEMON;
    std::string reason;  // why there is no whole answer; for people
    pid_t pid = 0;       // of the process that listens, 0 = not known
    std::string status;  // the texts of the two reports, as far as they came
    std::string config;
};

// Asks for both reports until the deadline, one connection each, and stops at the first that does not come.
// Without a daemon, or the right to it, the pid and both texts are empty.
void status_ask(status_clock::time_point deadline, status_exchange_st* exchange);
