// The exchange with the daemon: two requests, two texts. Only this module knows the control record.
//
// The other end is not trusted: it may belong to a stranger, stay silent, or send half a record or junk. No
// call waits beyond the deadline. The module keeps no state and changes nothing in the daemon. One thread.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

// Monotonic, so that setting the wall clock neither shortens nor stretches a deadline.
using status_clock = std::chrono::steady_clock;

// The room for a report. The daemon drops a line that no longer fits; a later, shorter line may still fit.
constexpr size_t STATUS_REPORT_SIZE = 8192;  // bytes, the terminator included
constexpr size_t STATUS_LINE_SIZE = 1024;    // bytes of the longest line, the terminator included

// WHOLE: both reports came. NO_DAEMON: nothing listens. NO_ANSWER: a server listens, but did not send two
// whole records in time. NO_RIGHT: this user may not connect to the socket, or a user who is neither root
// nor this one listens there.
enum class status_answer { WHOLE, NO_DAEMON, NO_ANSWER, NO_RIGHT };

struct status_exchange_st {
    status_answer answer = status_answer::NO_DAEMON;
    std::string reason;  // why there is no whole answer; for people
    pid_t pid = 0;       // of the process that listens, 0 = not known
    std::string status;  // the texts of the two reports, as far as they came
    std::string config;
};

// Asks for the status and then for the configuration, on one connection each, until the deadline. Stops at
// the first report that does not come. *exchange must be new. The outcome is in its `answer`; without a
// daemon, or without the right to ask it, the pid is 0 and both texts are empty. See unix(7).
void status_ask(status_clock::time_point deadline, status_exchange_st* exchange);
