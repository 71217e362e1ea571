#include "status_exchange.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "halvo_ctrl_record.h"

static_assert(STATUS_REPORT_SIZE == MSG_BUFFER_SIZE);

// Limits the next call on the socket, SO_SNDTIMEO or SO_RCVTIMEO, to the time until the deadline. Returns -1
// when no time is left: the kernel would take a zero for no limit.
static int limit_call(int fd, int option, status_clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - status_clock::now());
    if (left.count() <= 0) {
        errno = EAGAIN;
        return -1;
    }
    timeval limit{};
    limit.tv_sec = static_cast<time_t>(left.count() / 1000000);
    limit.tv_usec = static_cast<suseconds_t>(left.count() % 1000000);
    return setsockopt(fd, SOL_SOCKET, option, &limit, sizeof(limit));
}

// Stores why there is no answer. Returns false, for the caller to pass on.
static bool refuse(status_exchange_st* exchange, status_answer answer, const std::string& reason)
{
    exchange->answer = answer;
    exchange->reason = reason;
    return false;
}

// The same by errno, with `otherwise` for an error that has no meaning of its own.
static bool refuse_by_errno(status_exchange_st* exchange, status_answer otherwise)
{
    const int error = errno;
    const std::string place = HALVO_SOCKET;
    if (error == EAGAIN) {
        return refuse(exchange, status_answer::NO_ANSWER, "the daemon did not answer in time");
    }
    if (error == EACCES || error == EPERM) {
        return refuse(exchange, status_answer::NO_RIGHT, "no right to " + place + ": " + strerror(error));
    }
    return otherwise == status_answer::NO_DAEMON
               ? refuse(exchange, otherwise, "no daemon listens at " + place + ": " + strerror(error))
               : refuse(exchange, otherwise, std::string("the daemon did not answer: ") + strerror(error));
}

// The socket lies where every user can create files: a stranger's server must not answer for the daemon. The
// kernel keeps the user and the pid of the process that called listen(2), which no server can forge.
static bool check_peer(int fd, status_exchange_st* exchange)
{
    ucred peer{};
    socklen_t length = sizeof(peer);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        return refuse_by_errno(exchange, status_answer::NO_DAEMON);
    }
    if (peer.uid != 0 && peer.uid != geteuid()) {
        return refuse(exchange, status_answer::NO_RIGHT,
                      std::string(HALVO_SOCKET) + " belongs to another user, " + std::to_string(peer.uid));
    }
    exchange->pid = peer.pid;
    return true;
}

// A stopped daemon accepts no connection, but its queue does, and connect(2) waits when that is full: hence
// the limit. After a signal the call is made again with the time that is left.
static bool connect_to_daemon(int fd, status_clock::time_point deadline, status_exchange_st* exchange)
{
    const sockaddr_un address = halvo_socket_address();
    int result = limit_call(fd, SO_SNDTIMEO, deadline);
    while (result == 0 &&
           (result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address))) != 0 &&
           errno == EINTR) {
        result = limit_call(fd, SO_SNDTIMEO, deadline);
    }
    return result == 0 ? check_peer(fd, exchange) : refuse_by_errno(exchange, status_answer::NO_DAEMON);
}

// Only a whole record is an answer. The limit is set before each piece: a server that sends a byte now and
// then would otherwise never time out.
static bool receive_record(int fd, status_clock::time_point deadline, halvo_ctrl_handler_st* record,
                           status_exchange_st* exchange)
{
    char* bytes = reinterpret_cast<char*>(record);
    for (size_t received = 0; received < sizeof(*record);) {
        if (limit_call(fd, SO_RCVTIMEO, deadline) != 0) {
            return refuse_by_errno(exchange, status_answer::NO_ANSWER);
        }
        const ssize_t count = recv(fd, bytes + received, sizeof(*record) - received, 0);
        if (count == 0) {
            return refuse(exchange, status_answer::NO_ANSWER,
                          received == 0 ? "the daemon closed the connection without an answer"
                                        : "the daemon closed the connection in the middle of its answer");
        }
        if (count < 0 && errno != EINTR) {
            return refuse_by_errno(exchange, status_answer::NO_ANSWER);
        }
        received += count > 0 ? static_cast<size_t>(count) : 0;
    }
    return true;
}

static bool exchange_record(int fd, ctrl_handler_msg_type_en type, status_clock::time_point deadline,
                            status_exchange_st* exchange, std::string* text)
{
    halvo_ctrl_handler_st record{};
    record.msg_type = type;
    if (!connect_to_daemon(fd, deadline, exchange)) {
        return false;
    }
    // The record fits in any socket's buffer: it is sent at once and whole.
    if (send(fd, &record, sizeof(record), MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof(record))) {
        return refuse_by_errno(exchange, status_answer::NO_ANSWER);
    }
    if (!receive_record(fd, deadline, &record, exchange)) {
        return false;
    }
    const char* buffer = record.message.get_info.msg_buffer;
    const size_t length = strnlen(buffer, MSG_BUFFER_SIZE);
    // A text without its terminator is no text of the daemon's, which always leaves room for one.
    if (record.msg_type != type || length == MSG_BUFFER_SIZE) {
        return refuse(exchange, status_answer::NO_ANSWER, "the daemon's answer is no report");
    }
    text->assign(buffer, length);
    return true;
}

// A connection of its own for each request: the daemon closes it after one answer.
static bool request(ctrl_handler_msg_type_en type, status_clock::time_point deadline,
                    status_exchange_st* exchange, std::string* text)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        return refuse_by_errno(exchange, status_answer::NO_DAEMON);
    }
    const bool answered = exchange_record(fd, type, deadline, exchange, text);
    close(fd);
    return answered;
}

// The status first: without it the configuration says little.
void status_ask(status_clock::time_point deadline, status_exchange_st* exchange)
{
    if (request(GET_ALL_STATUS, deadline, exchange, &exchange->status) &&
        request(GET_ALL_CONFIG, deadline, exchange, &exchange->config)) {
        exchange->answer = status_answer::WHOLE;
    } else if (exchange->answer != status_answer::NO_ANSWER) {
        // The daemon ended between the two requests: its first answer describes a daemon that is gone.
        exchange->pid = 0;
        exchange->status.clear();
    }
}
