#include "status_exchange.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "halvo_ctrl_record.h"

static_assert(STATUS_REPORT_SIZE == MSG_BUFFER_SIZE);

// Limits the next call on the socket to the time until the deadline. `option` is SO_SNDTIMEO or SO_RCVTIMEO,
// see socket(7). Returns 0, or -1 with errno. Without any time left the errno is that of a time-out: the
// kernel would take a limit of zero for no limit.
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

// Stores the kind of failure and the reason for it. Always returns false, which the caller returns in turn.
static bool refuse(status_exchange_st* exchange, status_answer answer, const std::string& reason)
{
    exchange->answer = answer;
    exchange->reason = reason;
    return false;
}

// Like refuse(), with the kind and the reason taken from errno. `otherwise` is the kind of an error that is
// neither a time-out nor a missing permission.
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

// Refuses a server of another user, unless that user is root, and stores the server's pid. The socket lies
// where every user can create files, so a stranger's server must not answer for the daemon. The kernel
// recorded the user and the pid at listen(2), see SO_PEERCRED in unix(7): no server can forge them.
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

// The kernel queues the connections that a stopped daemon does not accept. Once that queue is full,
// connect(2) waits, so it gets a limit: SO_SNDTIMEO holds for it too, see socket(7). If a signal interrupts
// the call, it is repeated with the time that is left.
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

// Only a whole record is an answer. The limit is set again for each piece, because a server that sends a byte
// now and then would otherwise never time out.
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
    // The record fits into a socket's buffer, so it is sent whole, or not at all. The limit that connect(2)
    // was given still holds. MSG_NOSIGNAL: a daemon that is gone must not end this program with SIGPIPE.
    if (send(fd, &record, sizeof(record), MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof(record))) {
        return refuse_by_errno(exchange, status_answer::NO_ANSWER);
    }
    if (!receive_record(fd, deadline, &record, exchange)) {
        return false;
    }
    const char* buffer = record.message.get_info.msg_buffer;
    const size_t length = strnlen(buffer, MSG_BUFFER_SIZE);
    // The daemon always leaves room for the terminator, so a text without one is not the daemon's.
    if (record.msg_type != type || length == MSG_BUFFER_SIZE) {
        return refuse(exchange, status_answer::NO_ANSWER, "the daemon's answer is not a report");
    }
    text->assign(buffer, length);
    return true;
}

// Each request has a connection of its own, because the daemon closes the connection after one answer.
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

// The status comes first: without it the configuration says little.
void status_ask(status_clock::time_point deadline, status_exchange_st* exchange)
{
    if (request(GET_ALL_STATUS, deadline, exchange, &exchange->status) &&
        request(GET_ALL_CONFIG, deadline, exchange, &exchange->config)) {
        exchange->answer = status_answer::WHOLE;
    } else if (exchange->answer != status_answer::NO_ANSWER) {
        // Nobody listens any longer, or another user does. A first answer that did come describes a daemon
        // that is gone.
        exchange->pid = 0;
        exchange->status.clear();
    }
}
