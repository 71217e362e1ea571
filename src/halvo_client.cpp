#include "halvo_client.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "halvo_ctrl_record.h"
#include "halvo_log.h"
#include "halvo_private.h"

void halvo_help()
{
    puts("Process Manager (Server)");
    printf("Usage: %s\n", program);
    puts("Note: only 1 instance is possible");
    puts("Config file path: /etc/config/halvo.conf");
    puts("\nProcess Manager (Client)");
    printf("Usage: %s [options]\n", program);
    puts("Options are as follows:");
    puts(" -c          Displays all config details of halvo");
    puts(" -s          Displays complete status related to halvo");
    puts(" -r          Read config file on the fly & update existing configuration");
    puts(" -w          Disable VM failover (Stop watchdog device)");
    puts(" -h          Print this text");
    puts("Note: there can be N number of instances possible for client");
    puts("For this to work, you need server process to run");
}

// Tells the log and the operator that a system call failed, and why.
static void report_failure(const char* message)
{
    const int error = errno;
    halvo_log(LOG_ERR, "%s\n", message);
    halvo_log_errno(LOG_ERR);
    puts(message);
    printf("%s [errno: %d]\n", strerror(error), error);
}

// Everybody may create files in the socket's directory, so a stranger's server must not pass for the daemon.
static bool is_trusted(uid_t owner)
{
    return owner == 0 || owner == geteuid();
}

static int connect_to_server(int sockfd)
{
    const sockaddr_un address = halvo_socket_address();
    return connect(sockfd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

// Stores the server's user and pid. Returns 0, or -1 with errno when they cannot be read or the user is not
// trusted. A server cannot forge them: the kernel recorded them at its listen(2), see SO_PEERCRED in
// unix(7).
static int check_peer(int sockfd, ucred* peer)
{
    socklen_t length = sizeof(*peer);
    if (getsockopt(sockfd, SOL_SOCKET, SO_PEERCRED, peer, &length) != 0) {
        return -1;
    }
    if (!is_trusted(peer->uid)) {
        errno = EPERM;
        return -1;
    }
    return 0;
}

int create_socket_and_connect()
{
    ucred peer{};
    const int sockfd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (sockfd == -1) {
        report_failure("Unable to create socket");
        return -1;
    }
    if (connect_to_server(sockfd) == -1 || check_peer(sockfd, &peer) != 0) {
        report_failure("Unable to connect to sockfd");
        close(sockfd);
        return -1;
    }
    return sockfd;
}

// lstat(2) does not follow a symbolic link. A stranger's link could lead to one of root's services that
// never answers.
static bool is_trusted_socket()
{
    struct stat status {};
    return lstat(HALVO_SOCKET, &status) == 0 && S_ISSOCK(status.st_mode) && is_trusted(status.st_uid);
}

// True when the server answers, or is alive but does not answer in time. Asks for the configuration,
// because that request changes nothing.
static bool is_served(int sockfd)
{
    halvo_ctrl_handler_st record{};
    ucred peer{};
    record.msg_type = GET_ALL_CONFIG;
    if (check_peer(sockfd, &peer) != 0 || send(sockfd, &record, sizeof(record), MSG_NOSIGNAL) == -1) {
        return false;
    }
    // A daemon that is stopped or stuck still has its processes, so one that is merely silent counts as
    // running.
    const ssize_t length = read(sockfd, &record, sizeof(record));
    return length > 0 || (length == -1 && errno == EAGAIN && kill(peer.pid, 0) == 0);
}

bool halvo_is_daemon_running()
{
    if (!is_trusted_socket()) {
        return false;
    }
    // A silent client can hold the server up for 5 seconds, so this wait is longer.
    const timeval patience = {.tv_sec = 10, .tv_usec = 0};
    const int sockfd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(sockfd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    setsockopt(sockfd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    // EAGAIN: the daemon's queue of connections stayed full. See SO_SNDTIMEO in socket(7).
    const bool running = connect_to_server(sockfd) == 0 ? is_served(sockfd) : errno == EAGAIN;
    close(sockfd);
    return running;
}

// Returns the request that the options ask for: the last one if there are several, INVALID_MSG if there is
// none. getopt(3) permutes the argument vector.
static ctrl_handler_msg_type_en parse_options(int argc, char** argv)
{
    auto msg_type = INVALID_MSG;
    for (int option = 0; (option = getopt(argc, argv, "rcswh")) != -1;) {
        switch (option) {
            case 'c':
                msg_type = GET_ALL_CONFIG;
                break;
            case 's':
                msg_type = GET_ALL_STATUS;
                break;
            case 'r':
                msg_type = UPDATE_CONFIG;
                break;
            case 'w':
                msg_type = DISABLE_VM_FAILOVER;
                break;
            case 'h':
                halvo_help();
                exit(0);
            default:
                break;
        }
    }
    return msg_type;
}

// Reports a failure and goes on: after a failed read the record still holds the request, whose text is
// empty.
static void exchange(int sockfd, halvo_ctrl_handler_st* ctrl_handler_data_p)
{
    if (send(sockfd, ctrl_handler_data_p, sizeof(*ctrl_handler_data_p), MSG_NOSIGNAL) == -1) {
        report_failure("Unable to write to sockfd");
    }
    if (read(sockfd, ctrl_handler_data_p, sizeof(*ctrl_handler_data_p)) <= 0) {
        report_failure("Unable to read from sockfd");
    }
}

static void print_reply(halvo_ctrl_handler_st* ctrl_handler_data_p)
{
    char* text = ctrl_handler_data_p->message.get_info.msg_buffer;
    // A record cut short, or the request itself after a failed read, need not hold a terminator.
    text[MSG_BUFFER_SIZE - 1] = '\0';
    switch (ctrl_handler_data_p->msg_type) {
        case GET_ALL_CONFIG:
        case GET_ALL_STATUS:
        case UPDATE_CONFIG:
        case DISABLE_VM_FAILOVER:
            puts(text);  // both members of the payload's union begin at its first byte
            break;
        case INVALID_MSG:
        case GET_VERSION:
            break;
    }
}

void halvo_handle_options(int argc, char** argv)
{
    auto ctrl_handler_data_p =
        std::unique_ptr<halvo_ctrl_handler_st>(new (std::nothrow) halvo_ctrl_handler_st{});
    if (ctrl_handler_data_p == nullptr) {
        halvo_log(LOG_ERR, "Unable to allocate memory for control handler structure\n");
        puts("Unable to allocate memory for control handler structure");
        exit(1);
    }
    // The client must not be killed when the reader of its output goes away. It starts no process that
    // would inherit the ignored signal.
    signal(SIGPIPE, SIG_IGN);
    // Saved now: getopt(3) moves the arguments.
    const char* first_argument = argv[1];
    ctrl_handler_data_p->msg_type = parse_options(argc, argv);
    if (ctrl_handler_data_p->msg_type == INVALID_MSG) {
        printf("%s: invalid option -- %s  (-h will show valid options)\n", program, first_argument);
        exit(1);
    }
    const int sockfd = create_socket_and_connect();
    if (sockfd == -1) {
        exit(1);
    }
    exchange(sockfd, ctrl_handler_data_p.get());
    print_reply(ctrl_handler_data_p.get());
    close(sockfd);
    ctrl_handler_data_p.reset();
    exit(0);
}
