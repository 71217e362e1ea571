#include "halvo_ctrl_handler.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "halvo_log.h"
#include "halvo_report.h"
#include "halvo_update.h"
#include "halvo_utils.h"
#include "halvo_watchdog.h"

static constexpr int LISTEN_BACKLOG = 5;
static constexpr timeval RECEIVE_TIMEOUT = {.tv_sec = 5,
                                            .tv_usec = 0};  // what a silent client costs the next
static constexpr timeval ACCEPT_TIMEOUT = {.tv_sec = 10, .tv_usec = 0};
static constexpr unsigned MAX_PAUSE = 60;  // seconds between failing attempts

static halvo_ctrl_handler_st ctrl_handler_data_g;

sockaddr_un halvo_socket_address()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    halvo_copy_text(address.sun_path, sizeof(address.sun_path), HALVO_SOCKET);
    return address;
}

void halvo_vappend_msg(char* text, size_t capacity, const char* format, va_list args)
{
    if (text == nullptr) {
        halvo_vlog(LOG_INFO, format, args);
        return;
    }
    std::array<char, 1024> per_msg_buf;
    per_msg_buf.front() = '\0';  // what a failing vsnprintf leaves
    if (vsnprintf(per_msg_buf.data(), per_msg_buf.size(), format, args) >=
        static_cast<int>(per_msg_buf.size())) {
        per_msg_buf[per_msg_buf.size() - 2] = '\n';
    }
    // A text without a terminator has the whole capacity for its length and takes nothing more.
    const size_t text_length = strnlen(text, capacity);
    const size_t line_length = strlen(per_msg_buf.data());
    if (text_length + line_length >= capacity) {
        halvo_log(LOG_ALERT, "Control handler message buffer is full\n");
        return;
    }
    memcpy(text + text_length, per_msg_buf.data(), line_length + 1);
}

void halvo_append_msg(char* text, size_t capacity, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    halvo_vappend_msg(text, capacity, format, args);
    va_end(args);
}

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
    // Before the lines: until then the watchdog thread takes the stopped tickling for a failover.
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

// How a request type is served, and what is logged when its reply can not be sent.
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

// One request, one reply. A vanished client must yield a failed write, not a SIGPIPE.
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

// Pauses after a failure, longer each time, so that a lasting one does not flood the log.
static void pause_after_failure(unsigned* pause_seconds)
{
    sleep(*pause_seconds);
    *pause_seconds = std::min(*pause_seconds * 2, MAX_PAUSE);
}

static void remove_old_socket()
{
    struct stat status {};
    if (lstat(HALVO_SOCKET, &status) == 0 && unlink(HALVO_SOCKET) != 0) {
        halvo_log(LOG_ERR, "Unable to unlink halvo_socket\n");
    }
}

// The listening socket, and the file that it was bound to.
struct server_socket_st {
    int fd;
    struct stat file;
};

// Returns 0, or -1 with messages. The socket's file is the owner's alone from the start: the mode
// is the socket's own before it has a name, since a umask would be inherited by every process we start.
static int open_server_socket(server_socket_st* server)
{
    const sockaddr_un server_address = halvo_socket_address();
    const int server_sockfd = socket(AF_UNIX, SOCK_STREAM, 0);
    setsockopt(server_sockfd, SOL_SOCKET, SO_RCVTIMEO, &ACCEPT_TIMEOUT, sizeof(ACCEPT_TIMEOUT));
    fchmod(server_sockfd, S_IRUSR | S_IWUSR);
    const bool bound =
        bind(server_sockfd, reinterpret_cast<const sockaddr*>(&server_address), sizeof(server_address)) == 0;
    if (!bound) {
        halvo_log(LOG_ERR, "Unable to bind server_sockfd\n");
    }
    const bool listening = listen(server_sockfd, LISTEN_BACKLOG) == 0;
    if (!listening) {
        halvo_log(LOG_ERR, "Unable to listen server_sockfd\n");
        halvo_log_errno(LOG_ERR);
    }
    server->fd = server_sockfd;
    if (bound && listening && stat(HALVO_SOCKET, &server->file) == 0) {
        return 0;
    }
    close(server_sockfd);
    return -1;
}

// A file of ours stays what it was, its number too, for as long as the socket is open.
static bool is_reachable(const server_socket_st& server)
{
    struct stat file {};
    return stat(HALVO_SOCKET, &file) == 0 && file.st_dev == server.file.st_dev &&
           file.st_ino == server.file.st_ino;
}

// Serves one connection after the other. Returns when the socket's file was removed or replaced, which is
// looked for when nobody came for a while: nobody could switch failover off any more.
static void serve_clients(const server_socket_st& server)
{
    unsigned pause_seconds = 1;
    while (true) {
        sockaddr_un client_address;
        socklen_t client_len = sizeof(client_address);
        ctrl_handler_data_g = {};
        const int client_sockfd =
            accept(server.fd, reinterpret_cast<sockaddr*>(&client_address), &client_len);
        if (client_sockfd == -1) {
            if (errno == EAGAIN) {
                if (!is_reachable(server)) {
                    return;
                }
            } else if (errno != EINTR) {
                halvo_log(LOG_ERR, "Unable to accept server_sockfd\n");
                halvo_log_errno(LOG_ERR);
                pause_after_failure(&pause_seconds);
            }
            continue;
        }
        pause_seconds = 1;
        serve_connection(client_sockfd);
        // A script started meanwhile holds a copy of the connection: the client must see its end anyway.
        shutdown(client_sockfd, SHUT_RDWR);
        close(client_sockfd);
    }
}

void* halvo_ctrl_handler_thread(void*)
{
    server_socket_st server{};
    unsigned pause_seconds = 1;
    remove_old_socket();
    halvo_log(LOG_DEBUG, "halvo_ctrl_handler_thread: Thread started\n");
    while (true) {
        if (open_server_socket(&server) == 0) {
            pause_seconds = 1;
            serve_clients(server);
            halvo_log(LOG_ERR, "halvo_socket is gone. Binding it again\n");
            close(server.fd);
        } else {
            pause_after_failure(&pause_seconds);
        }
        remove_old_socket();
    }
}
