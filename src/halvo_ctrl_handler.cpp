#include "halvo_ctrl_handler.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>

#include "halvo_ctrl_record.h"
#include "halvo_log.h"
#include "halvo_private.h"
#include "halvo_report.h"
#include "halvo_update.h"
#include "halvo_watchdog.h"

static constexpr int LISTEN_BACKLOG = 5;
// The longest time that a silent client can delay the next one.
static constexpr timeval RECEIVE_TIMEOUT = {.tv_sec = 5, .tv_usec = 0};
// The longest time that a lost socket file goes unnoticed.
static constexpr timeval ACCEPT_TIMEOUT = {.tv_sec = 10, .tv_usec = 0};

// One record is enough, since requests are served one at a time. Control thread only.
static halvo_ctrl_handler_st ctrl_handler_data_g;

int halvo_disable_vm_failover(char* ack_msg)
{
    if (halvo_load(vm_info_g.vm_failover_flag) != ENABLE) {
        halvo_log(LOG_INFO, "VM failover is already disabled\n");
        halvo_append_msg(ack_msg, ACK_MSG_SIZE, "VM failover is already disabled\n");
        return 0;
    }
    if (halvo_watchdog_stop(&vm_info_g) != 0) {
        halvo_log(LOG_ALERT, "Not able to stop watch dog device\n");
        halvo_append_msg(ack_msg, ACK_MSG_SIZE, "Not able to stop watch dog device\n");
        return -1;
    }
    // Stored before anything is logged: until then the watchdog thread takes the stopped tickling for a
    // failover.
    halvo_store(vm_info_g.vm_failover_flag, DISABLE);
    halvo_log(LOG_INFO, "VM failover is disabled using CLI\n");
    halvo_append_msg(ack_msg, ACK_MSG_SIZE, "VM failover is disabled\n");
    return 0;
}

static void serve_config_report(halvo_ch_message_un* message)
{
    halvo_display_config_details(message->get_info.msg_buffer);
}

static void serve_status_report(halvo_ch_message_un* message)
{
    halvo_display_status_info(message->get_info.msg_buffer);
}

static void serve_update(halvo_ch_message_un* message)
{
    if (halvo_update_config(message->update_config.ack_msg) != 0) {
        halvo_log(LOG_ERR, "Error in updating the configuration on the fly\n");
    }
}

static void serve_disable(halvo_ch_message_un* message)
{
    if (halvo_disable_vm_failover(message->update_config.ack_msg) != 0) {
        halvo_log(LOG_ALERT, "Error in disabling VM failover\n");
    }
}

static void serve_unknown(halvo_ch_message_un* message)
{
    halvo_log(LOG_ERR, "Invalid message type received from control handler client\n");
    halvo_append_msg(message->get_info.msg_buffer, MSG_BUFFER_SIZE, "Invalid message type\n");
}

// One type of request: the function that serves it, and the line logged when its reply cannot be sent.
struct request_st {
    ctrl_handler_msg_type_en msg_type;
    void (*serve)(halvo_ch_message_un*);
    const char* write_failure;
};

static constexpr std::array<request_st, 4> requests = {{
    {GET_ALL_CONFIG, serve_config_report, "Unable to write to client_sockfd during display config details\n"},
    {GET_ALL_STATUS, serve_status_report, "Unable to write to client_sockfd during display status info\n"},
    {UPDATE_CONFIG, serve_update,
     "Unable to write to client_sockfd during configuration update on the fly\n"},
    {DISABLE_VM_FAILOVER, serve_disable, "Unable to write to client_sockfd during disable VM failover\n"},
}};

static constexpr request_st unknown_request = {INVALID_MSG, serve_unknown,
                                               "Unable to write to client_sockfd in default case\n"};

const char* halvo_answer_request(halvo_ctrl_handler_st* record)
{
    const auto* row = std::find_if(requests.begin(), requests.end(), [&](const request_st& request) {
        return request.msg_type == record->msg_type;
    });
    const request_st& request = row == requests.end() ? unknown_request : *row;
    request.serve(&record->message);
    return request.write_failure;
}

// Serves one request and sends one reply. A short record is served as if the rest were zeros, since the
// caller has cleared it. MSG_NOSIGNAL: if the client is gone, the call must fail instead of raising
// SIGPIPE.
static void serve_connection(int client_sockfd)
{
    setsockopt(client_sockfd, SOL_SOCKET, SO_RCVTIMEO, &RECEIVE_TIMEOUT, sizeof(RECEIVE_TIMEOUT));
    if (read(client_sockfd, &ctrl_handler_data_g, sizeof(ctrl_handler_data_g)) <= 0) {
        halvo_log(LOG_ERR, "Unable to read from client_sockfd\n");
        halvo_log_errno(LOG_ERR);
        return;
    }
    const char* write_failure = halvo_answer_request(&ctrl_handler_data_g);
    if (send(client_sockfd, &ctrl_handler_data_g, sizeof(ctrl_handler_data_g), MSG_NOSIGNAL) == -1) {
        halvo_log(LOG_ERR, "%s", write_failure);
        halvo_log_errno(LOG_ERR);
    }
}

// lstat(2) does not follow a symbolic link: a link that points nowhere must be found too, since it makes
// bind(2) fail.
static bool socket_exists()
{
    struct stat status {};
    return lstat(HALVO_SOCKET, &status) == 0;
}

// The socket file of a dead daemon stays, and it makes bind(2) fail with EADDRINUSE. See unix(7).
static void remove_old_socket()
{
    if (socket_exists() && unlink(HALVO_SOCKET) != 0) {
        halvo_log(LOG_ERR, "Unable to unlink halvo_socket\n");
    }
}

// A failing attempt is repeated every second. Only the 1st, 2nd, 4th, 8th, ... failure in a row is logged,
// so that the log does not fill.
static bool is_logged(unsigned attempt)
{
    return std::has_single_bit(attempt);
}

// Returns the listening socket, or -1 with messages. fchmod(2) before bind(2) makes the socket file the
// owner's alone from its first moment. A umask would do that too, but every process started meanwhile would
// inherit it. The socket is close-on-exec: a script's copy would outlive a dead daemon, and clients would
// wait there for an answer.
static int open_server_socket(unsigned attempt)
{
    const sockaddr_un server_address = halvo_socket_address();
    // A failed socket(2) needs no message of its own: bind(2) then fails on descriptor -1.
    const int server_sockfd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(server_sockfd, SOL_SOCKET, SO_RCVTIMEO, &ACCEPT_TIMEOUT, sizeof(ACCEPT_TIMEOUT));
    fchmod(server_sockfd, S_IRUSR | S_IWUSR);
    const bool bound =
        bind(server_sockfd, reinterpret_cast<const sockaddr*>(&server_address), sizeof(server_address)) == 0;
    if (!bound && is_logged(attempt)) {
        halvo_log(LOG_ERR, "Unable to bind server_sockfd\n");
    }
    const bool listening = listen(server_sockfd, LISTEN_BACKLOG) == 0;
    if (!listening && is_logged(attempt)) {
        halvo_log(LOG_ERR, "Unable to listen server_sockfd\n");
        halvo_log_errno(LOG_ERR);
    }
    if (bound && listening) {
        return server_sockfd;
    }
    if (bound) {
        // The file is our own by now, and the next attempt could not bind over it.
        remove_old_socket();
    }
    close(server_sockfd);
    return -1;
}

// Serves one connection after the other. Returns when the socket file is gone, because no operator could
// then switch failover off. Looks for the file whenever accept(2) times out.
static void serve_clients(int server_sockfd)
{
    unsigned failures = 0;
    while (true) {
        sockaddr_un client_address;
        socklen_t client_len = sizeof(client_address);
        // A reply is appended to the text in the record, which must not be that of the previous client.
        ctrl_handler_data_g = {};
        const int client_sockfd =
            accept4(server_sockfd, reinterpret_cast<sockaddr*>(&client_address), &client_len, SOCK_CLOEXEC);
        if (client_sockfd != -1) {
            failures = 0;
            serve_connection(client_sockfd);
            close(client_sockfd);
        } else if (errno == EAGAIN && !socket_exists()) {
            return;
        } else if (errno != EAGAIN && errno != EINTR) {
            if (is_logged(++failures)) {
                halvo_log(LOG_ERR, "Unable to accept server_sockfd\n");
                halvo_log_errno(LOG_ERR);
            }
            sleep(1);
        }
    }
}

void* halvo_ctrl_handler_thread(void*)
{
    remove_old_socket();
    halvo_log(LOG_DEBUG, "halvo_ctrl_handler_thread: Thread started\n");
    unsigned attempt = 0;
    while (true) {
        const int server_sockfd = open_server_socket(++attempt);
        if (server_sockfd == -1) {
            sleep(1);
            continue;
        }
        attempt = 0;
        serve_clients(server_sockfd);
        halvo_log(LOG_ERR, "halvo_socket is gone. Binding it again\n");
        close(server_sockfd);
    }
}
