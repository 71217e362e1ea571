#include "halvo_client.h"

#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "halvo_ctrl_handler.h"
#include "halvo_log.h"

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

// Says to the log and to the operator that a system call failed, and why.
static void report_failure(const char* message)
{
    const int error = errno;
    halvo_log(LOG_ERR, "%s\n", message);
    halvo_log_errno(LOG_ERR);
    puts(message);
    printf("%s [errno: %d]\n", halvo_error_text(error), error);
}

// The socket lies where everybody can create files: whoever was there first must not answer for the daemon.
static int check_peer(int sockfd)
{
    ucred peer{};
    socklen_t length = sizeof(peer);
    if (getsockopt(sockfd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        return -1;
    }
    if (peer.uid != 0 && peer.uid != geteuid()) {
        errno = EPERM;
        return -1;
    }
    return 0;
}

int create_socket_and_connect()
{
    const sockaddr_un address = halvo_socket_address();
    const int sockfd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (sockfd == -1) {
        report_failure("Unable to create socket");
        return -1;
    }
    if (connect(sockfd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1 ||
        check_peer(sockfd) != 0) {
        report_failure("Unable to connect to sockfd");
        close(sockfd);
        return -1;
    }
    return sockfd;
}

// Returns the request that the options ask for, the last one where there are several. The argument vector
// is permuted.
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
    text[MSG_BUFFER_SIZE - 1] = '\0';
    switch (ctrl_handler_data_p->msg_type) {
        case GET_ALL_CONFIG:
        case GET_ALL_STATUS:
        case UPDATE_CONFIG:
        case DISABLE_VM_FAILOVER:
            puts(text);  // both views of the payload begin at its first byte
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
    // A reader of our output that went away must not end us; the client starts no process to inherit this.
    signal(SIGPIPE, SIG_IGN);
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
