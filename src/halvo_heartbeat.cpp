#include "halvo_heartbeat.h"

#include <arpa/inet.h>
#include <endian.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "halvo_log.h"
#include "halvo_pid_lookup.h"
#include "halvo_utils.h"

static constexpr const char* ADDRESS_FILE = "/var/heartbeat_info";
static constexpr const char* DATA_PLANE_NAME = "lunet";
static constexpr const char* WHITE_SPACE = " \t\n\v\f\r";
static constexpr uint32_t DEFAULT_REMOTE_IP = 0xC0A80201;  // 192.168.2.1
static constexpr uint32_t DEFAULT_LOCAL_IP = 0xC0A80202;   // 192.168.2.2
static constexpr uint16_t PEER_PORT = 54321;
static constexpr uint32_t MAGIC_NUMBER = 0xFEDCBAAB;  // sent least significant byte first
static constexpr long INTERVAL_NS = 50'000'000;
static constexpr long SECOND_NS = 1'000'000'000;
static constexpr int LOG_EVERY = 12000;    // wake-ups: 10 minutes
static constexpr size_t TOKEN_SIZE = 128;  // bytes, the terminator included
static constexpr size_t LINE_SIZE = 2048;  // bytes, the terminator included

// The watch on the address file, see inotify(7). Both descriptors are positive while the file is watched.
struct file_watch_st {
    int notify_fd;
    int watch;
};

static bool is_watched(const file_watch_st& file_watch)
{
    return file_watch.notify_fd > 0 && file_watch.watch > 0;
}

static void set_default_addresses(halvo_vm_info_st* vm_info)
{
    vm_info->heartbeat_remote_ip = htonl(DEFAULT_REMOTE_IP);
    vm_info->heartbeat_local_ip = htonl(DEFAULT_LOCAL_IP);
}

int halvo_heartbeat_init_timer(halvo_vm_info_st* vm_info)
{
    vm_info->keepalive_interval_fd = timerfd_create(CLOCK_MONOTONIC, 0);
    if (vm_info->keepalive_interval_fd == -1) {
        halvo_log(LOG_DEBUG, "timer_create returns %d\n", vm_info->keepalive_interval_fd);
        return -1;
    }
    halvo_log(LOG_INFO, "\nkeepalive_interval_fd timerfd_create returns %d\n",
              vm_info->keepalive_interval_fd);
    return 0;
}

int halvo_heartbeat_start_timer(halvo_vm_info_st* vm_info)
{
    itimerspec setting{};
    if (timerfd_gettime(vm_info->keepalive_interval_fd, &setting) == -1) {
        halvo_log(LOG_ERR, "error in getting clock %d\n", errno);
        return -1;
    }
    // A new timer reads as zero, so the first beat is due one interval from now. tv_nsec must stay below one
    // second, see timerfd_settime(2).
    setting.it_value.tv_nsec += INTERVAL_NS;
    setting.it_value.tv_sec += setting.it_value.tv_nsec / SECOND_NS;
    setting.it_value.tv_nsec %= SECOND_NS;
    setting.it_interval = {.tv_sec = 0, .tv_nsec = INTERVAL_NS};
    if (timerfd_settime(vm_info->keepalive_interval_fd, 0, &setting, nullptr) == -1) {
        halvo_log(LOG_ERR, "Err on keepalive_interval_fd %d\n", errno);
        return -1;
    }
    halvo_log(LOG_INFO, "Starting periodic timer at 50 ms..\n");
    return 0;
}

int halvo_read_str_to_ip(const char** hbuf, uint32_t* ipaddr)
{
    std::array<char, TOKEN_SIZE> token{};
    const size_t length = std::min(strcspn(*hbuf, WHITE_SPACE), token.size() - 1);
    memcpy(token.data(), *hbuf, length);
    // inet_aton(3) takes short forms such as "10.1", which inet_pton(3) refuses.
    in_addr address{};
    const int result = inet_aton(token.data(), &address);
    if (result == 0) {
        halvo_log(LOG_DEBUG, "\n Address is invalid %s. inet_aton returns %d\n", *hbuf, result);
        return -1;
    }
    *ipaddr = address.s_addr;
    *hbuf += length;
    if (**hbuf != '\0') {
        ++*hbuf;
    }
    return 0;
}

// Takes the addresses from an address line: "eth8_0 REMOTE LOCAL" or "eth4_0 REMOTE LOCAL". Any other line
// is skipped. Returns 0, or -1 with a message when an address is faulty.
static int parse_address_line(const char* line, halvo_vm_info_st* vm_info)
{
    const char* cursor = line + strspn(line, WHITE_SPACE);
    const std::string_view key(cursor, strcspn(cursor, WHITE_SPACE));
    if (key != "eth8_0" && key != "eth4_0") {
        return 0;
    }
    cursor += key.size();
    if (*cursor != '\0') {
        ++cursor;
    }
    if (halvo_read_str_to_ip(&cursor, &vm_info->heartbeat_remote_ip) != 0) {
        halvo_log(LOG_DEBUG, "Error in reading remote string");
        return -1;
    }
    if (halvo_read_str_to_ip(&cursor, &vm_info->heartbeat_local_ip) != 0) {
        halvo_log(LOG_DEBUG, "Error in reading local string");
        return -1;
    }
    return 0;
}

int halvo_heartbeat_ip_init(halvo_vm_info_st* vm_info)
{
    std::array<char, LINE_SIZE> line;
    const halvo_file file = halvo_open_file(ADDRESS_FILE);
    if (file == nullptr) {
        halvo_log(LOG_INFO, "\nUnable to open %s file. Assuming default IP - 192.168.2.2\n", ADDRESS_FILE);
        return 0;
    }
    while (fgets(line.data(), line.size(), file.get()) != nullptr) {
        line.at(strcspn(line.data(), "\n")) = '\0';
        if (parse_address_line(line.data(), vm_info) != 0) {
            // Both addresses are reset, so that the two never come from different versions of the file.
            set_default_addresses(vm_info);
            break;
        }
    }
    halvo_log(LOG_INFO, "remote ip 0x%x local 0x%x\n", ntohl(vm_info->heartbeat_remote_ip),
              ntohl(vm_info->heartbeat_local_ip));
    return 0;
}

int halvo_socket_init(halvo_vm_info_st* vm_info)
{
    vm_info->keepalive_sd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (vm_info->keepalive_sd == -1) {
        halvo_log(LOG_ERR, " Failed socket() call, reason: %s", strerror(errno));
        return -1;
    }
    halvo_log(LOG_INFO, "Socket Init. socket fd %d\n", vm_info->keepalive_sd);
    return 0;
}

void halvo_init_heartbeat_payload(halvo_vm_info_st* vm_info)
{
    const halvo_heartbeat_payload_t payload = {.magic_number = htole32(MAGIC_NUMBER)};
    memset(vm_info->heartbeat_send_buf, 0, sizeof(vm_info->heartbeat_send_buf));
    memcpy(vm_info->heartbeat_send_buf, &payload, sizeof(payload));
    vm_info->dp_ka_cpaddr = {};
    vm_info->dp_ka_cpaddr.sin_family = AF_INET;
    vm_info->dp_ka_cpaddr.sin_port = htons(PEER_PORT);
    vm_info->dp_ka_cpaddr.sin_addr.s_addr = vm_info->heartbeat_remote_ip;
    vm_info->dp_ka_cpaddrlen = sizeof(vm_info->dp_ka_cpaddr);
    halvo_log(LOG_INFO, "Initialized heartbeat payload\n");
}

void halvo_send_keepalive(halvo_vm_info_st* vm_info)
{
    if (halvo_load(vm_info->stop_heartbeat) != 0) {
        return;
    }
    const ssize_t sent =
        sendto(vm_info->keepalive_sd, vm_info->heartbeat_send_buf, sizeof(halvo_heartbeat_payload_t), 0,
               reinterpret_cast<const sockaddr*>(&vm_info->dp_ka_cpaddr), vm_info->dp_ka_cpaddrlen);
    const int send_errno = errno;
    if (vm_info->keepalive_send_cnt % LOG_EVERY == 0) {
        halvo_log(LOG_INFO, "Sending KEEPALIVE %d\n", vm_info->keepalive_send_cnt);
    }
    if (sent == -1) {
        halvo_log(LOG_ERR, "sendto() error, reason: %s", strerror(send_errno));
    }
}

int halvo_init_lunet_pid(halvo_vm_info_st* vm_info)
{
    vm_info->lunet_pid = 0;
    const int answered = halvo_ask_pidof(DATA_PLANE_NAME, &vm_info->lunet_pid);
    if (answered == -1) {
        return -1;
    }
    // A pid that was found is logged twice. Both lines stay: operators' scripts read them.
    if (answered == 1) {
        halvo_log(LOG_INFO, "lunet pid %d", vm_info->lunet_pid);
    }
    halvo_log(LOG_INFO, "lunet pid %d", vm_info->lunet_pid);
    return 0;
}

int halvo_check_lunet_pid_status(halvo_vm_info_st* vm_info)
{
    return halvo_confirm_held_pid(DATA_PLANE_NAME, vm_info->lunet_pid) == -1 ? -1 : 0;
}

static file_watch_st watch_address_file()
{
    file_watch_st file_watch = {.notify_fd = inotify_init(), .watch = -1};
    if (file_watch.notify_fd == -1) {
        halvo_log(LOG_INFO, "inotify_init returns error. %s is not monitored for changes\n", ADDRESS_FILE);
        return file_watch;
    }
    // A watch needs an existing file: a file that is created later goes unnoticed.
    file_watch.watch = inotify_add_watch(file_watch.notify_fd, ADDRESS_FILE, IN_CLOSE_WRITE);
    if (file_watch.watch == -1) {
        halvo_log(LOG_INFO, "inotify_add_watch returns error. %s is not monitored for changes\n",
                  ADDRESS_FILE);
        close(file_watch.notify_fd);
        file_watch.notify_fd = -1;
    }
    if (is_watched(file_watch)) {
        halvo_log(LOG_INFO, "notify_fd %d wd %d max_fd %d\n", file_watch.notify_fd, file_watch.watch, 0);
    }
    return file_watch;
}

static void start_heartbeat(halvo_vm_info_st* vm_info, file_watch_st* file_watch)
{
    set_default_addresses(vm_info);
    vm_info->keepalive_interval_fd = -1;
    halvo_log(LOG_INFO, "Starting heartbeat thread..Default remote ip 0x%x local ip 0x%x\n",
              DEFAULT_REMOTE_IP, DEFAULT_LOCAL_IP);
    halvo_heartbeat_init_timer(vm_info);
    halvo_heartbeat_ip_init(vm_info);
    halvo_socket_init(vm_info);
    halvo_init_heartbeat_payload(vm_info);
    *file_watch = watch_address_file();
    if (vm_info->keepalive_interval_fd > 0) {
        halvo_heartbeat_start_timer(vm_info);
    }
    halvo_log(LOG_INFO, "Getting into select loop keepalive %d max_fd %d\n", vm_info->keepalive_interval_fd,
              0);
    // Looked up only once: a lunet that starts or returns later does not bring the heartbeat back.
    halvo_init_lunet_pid(vm_info);
}

// Serves a wake-up of the timer. It may stand for several expirations, but sends at most one datagram: a
// burst of late ones would tell the peer nothing.
static void serve_timer(halvo_vm_info_st* vm_info)
{
    uint64_t expirations = 0;
    const ssize_t length = read(vm_info->keepalive_interval_fd, &expirations, sizeof(expirations));
    if (length != static_cast<ssize_t>(sizeof(expirations))) {
        halvo_log(LOG_ERR, "Read error on interval fd: read bytes %d", static_cast<int>(length));
        return;
    }
    if (expirations == 0) {
        return;
    }
    // The counter passes INT_MAX after three years, and a signed overflow is undefined.
    vm_info->keepalive_send_cnt = static_cast<int>(static_cast<unsigned>(vm_info->keepalive_send_cnt) + 1U);
    // Checked before every datagram: none may vouch for a data plane that is gone.
    if (halvo_check_lunet_pid_status(vm_info) != 0) {
        halvo_log(LOG_INFO, "Stopping heartbeat..");
        halvo_store(vm_info->stop_heartbeat, 1);
        return;
    }
    halvo_send_keepalive(vm_info);
}

// Reads the addresses again once a writer has closed the file, so that it never reads half of them. A file
// that is replaced by rename(2) is another inode, which the watch does not see.
static void serve_file_watch(halvo_vm_info_st* vm_info, const file_watch_st& file_watch)
{
    // The kernel fills the buffer with records of this type, see inotify(7).
    alignas(inotify_event) std::array<char, 2048> events{};
    const ssize_t length = read(file_watch.notify_fd, events.data(), events.size());
    for (ssize_t offset = 0; offset + static_cast<ssize_t>(sizeof(inotify_event)) <= length;) {
        const auto* event = reinterpret_cast<const inotify_event*>(events.data() + offset);
        halvo_log(LOG_INFO, "ptr:0x%x len %d event->len %d\n",
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(event)), static_cast<int>(length),
                  static_cast<int>(event->len));
        if ((event->mask & IN_CLOSE_WRITE) != 0 && event->wd == file_watch.watch) {
            halvo_log(LOG_INFO, "File %s has changed. Reinitializing the IPs.\n", ADDRESS_FILE);
            halvo_heartbeat_ip_init(vm_info);
            halvo_init_heartbeat_payload(vm_info);
        }
        offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
}

// Waits for the next event and serves it. poll(2) skips a descriptor of -1 and waits for ever if both are.
// Not select(2): a daemon that inherits many open files may get a descriptor of 1024 or more, which does
// not fit into its set.
static void serve_next_event(halvo_vm_info_st* vm_info, const file_watch_st& file_watch)
{
    const int timer_fd = vm_info->keepalive_interval_fd > 0 ? vm_info->keepalive_interval_fd : -1;
    const int notify_fd = is_watched(file_watch) ? file_watch.notify_fd : -1;
    std::array<pollfd, 2> fds = {{{.fd = timer_fd, .events = POLLIN, .revents = 0},
                                  {.fd = notify_fd, .events = POLLIN, .revents = 0}}};
    if (poll(fds.data(), fds.size(), -1) == -1) {
        return;
    }
    if (fds[0].revents != 0) {
        serve_timer(vm_info);
    }
    if (fds[1].revents != 0) {
        serve_file_watch(vm_info, file_watch);
    }
}

void* halvo_heartbeat_thread(void* thread_arg)
{
    auto* vm_info = static_cast<halvo_vm_info_st*>(thread_arg);
    file_watch_st file_watch{};
    // Called only after the set-up, which forks for pidof: at that priority it would take the processor from
    // the processes that start at the same time.
    start_heartbeat(vm_info, &file_watch);
    halvo_be_punctual();
    while (true) {
        serve_next_event(vm_info, file_watch);
    }
}
