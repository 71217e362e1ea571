// halvo-peer: listens for the heartbeat of the other VM's daemon, tells when it is lost and when it is back,
// and measures it. It is a program of its own: it neither needs nor touches a daemon on this VM.
//
// One thread and one loop. A turn reads the clock, then empties the socket, and judges the silence by that
// reading of the clock. By then every datagram that came before the reading has been counted, however long
// this program was stopped, and at whatever point. All times are in nanoseconds on the monotonic clock.

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "halvo_peer_count.h"
#include "halvo_peer_hook.h"
#include "halvo_peer_options.h"
#include "halvo_peer_report.h"
#include "halvo_peer_socket.h"

static constexpr int64_t SECOND = 1000 * HALVO_PEER_MS;
static constexpr int STATUS_EVERY = 10;  // seconds between two reports to systemd, changes aside

struct peer_st {
    halvo_peer_options_st options;
    halvo_peer_socket_st socket;
    halvo_peer_count_st count;
    halvo_peer_hook_st hook;
    int signal_fd;
    int64_t now;          // the clock's reading of this turn; every datagram before it was counted
    int64_t end;          // when a measurement ends; INT64_MAX without one
    int64_t next_second;  // when the text file is due
    int seconds;          // those served so far
    bool ended;           // by a signal, or because the measurement is over
    bool file_failing;    // the text file's last write failed, and this has been logged
};

static bool is_measurement(const peer_st& peer)
{
    return peer.options.duration != 0;
}

// A measurement reports no changes: it prints one line, at its end.
static void say_change(const peer_st& peer, int64_t now)
{
    if (!is_measurement(peer)) {
        halvo_peer_say_change(peer.count, now);
    }
}

// Opens descriptors 0 to 2 where they are closed. Otherwise the socket could become standard output or
// standard error, and the lines would be sent through it.
static void keep_standard_descriptors()
{
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    close(fd);
}

// Signals come through a descriptor, so that one ppoll(2) waits for them and for datagrams. See signalfd(2).
// Returns 0, or -1 with errno.
static int open_signals(peer_st* peer)
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal_number : {SIGCHLD, SIGINT, SIGTERM, SIGUSR1}) {
        sigaddset(&signals, signal_number);
    }
    // The loss of the reader of our lines must not end this program.
    signal(SIGPIPE, SIG_IGN);
    // A parent may leave SIGCHLD ignored. The kernel would then reap the command itself, see wait(2).
    signal(SIGCHLD, SIG_DFL);
    sigprocmask(SIG_BLOCK, &signals, &peer->hook.mask);
    peer->signal_fd = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
    return peer->signal_fd == -1 ? -1 : 0;
}

// The caller of a measurement reads its verdict on standard output, an operator the log.
static void say_failure(const peer_st& peer, const std::string& text)
{
    if (is_measurement(peer)) {
        printf("HEARTBEAT UNKNOWN - %s\n", text.c_str());
    } else {
        halvo_peer_say(SD_ERR, "%s", text.c_str());
    }
}

// Returns 0, or -1 after a message.
static int start(peer_st* peer)
{
    keep_standard_descriptors();
    if (open_signals(peer) == -1) {
        say_failure(*peer, std::string("no descriptor for signals: ") + strerror(errno));
        return -1;
    }
    if (halvo_peer_open(&peer->socket, peer->options.listen) == -1) {
        const std::string port = "UDP port " + std::to_string(HALVO_PEER_PORT);
        say_failure(*peer, errno == EADDRINUSE ? port + " is taken by another program"
                                               : port + " cannot be opened: " + strerror(errno));
        return -1;
    }
    const int64_t now = peer->now = halvo_peer_now();
    halvo_peer_start(&peer->count, peer->options.lost_after, peer->options.up_after, now);
    peer->end = is_measurement(*peer) ? now + peer->options.duration : INT64_MAX;
    peer->next_second = now + SECOND;
    peer->hook.command = peer->options.command;
    if (!peer->hook.command.empty()) {
        // The place of the state and the final null, see halvo_peer_hook_st.
        peer->hook.command.insert(peer->hook.command.end(), 2, nullptr);
    }
    sd_notify(0, "READY=1\nSTATUS=nothing heard yet");
    return 0;
}

// Waits for a descriptor, but no longer than until the next thing is due, and returns when that is. If the
// clock shows a much later time afterwards, this program was held up.
static int64_t wait_for_event(const peer_st& peer)
{
    const int64_t until = std::min({halvo_peer_deadline(peer.count), peer.next_second, peer.end});
    const int64_t patience = std::max<int64_t>(until - halvo_peer_now(), 0);
    const timespec timeout = {.tv_sec = patience / SECOND, .tv_nsec = patience % SECOND};
    std::array<pollfd, 2> sources = {{{peer.socket.fd, POLLIN, 0}, {peer.signal_fd, POLLIN, 0}}};
    // The result does not matter: the turn looks at everything anyway, and neither descriptor blocks.
    ppoll(sources.data(), sources.size(), &timeout, nullptr);
    return until;
}

// The silence before a datagram is judged before the datagram is counted. Several may come in one batch, and
// a loss between two of them would otherwise be missed.
static void take_datagram(peer_st* peer, const halvo_peer_datagram_st& datagram)
{
    const in_addr_t from = peer->options.from.s_addr;
    if (!datagram.is_heartbeat || (from != INADDR_ANY && from != datagram.sender.s_addr)) {
        ++peer->count.foreign;
        return;
    }
    if (halvo_peer_judge(&peer->count, datagram.arrival)) {
        say_change(*peer, datagram.arrival);
    }
    if (halvo_peer_hear(&peer->count, datagram.arrival)) {
        say_change(*peer, datagram.arrival);
    }
}

// Takes every datagram that came before `now`, and then stops: under a flood the queue would never be empty.
// Returns 0, or -1 with a message.
static int take_datagrams(peer_st* peer, int64_t now)
{
    std::array<halvo_peer_datagram_st, 32> datagrams;
    int length = 0;
    do {
        length = halvo_peer_receive(&peer->socket, datagrams);
        if (length == -1) {
            say_failure(*peer, std::string("the socket cannot be read: ") + strerror(errno));
            return -1;
        }
        for (int i = 0; i < length; ++i) {
            take_datagram(peer, datagrams.at(static_cast<size_t>(i)));
        }
    } while (length == static_cast<int>(datagrams.size()) && datagrams.back().arrival < now);
    return 0;
}

// Reports datagrams that the kernel dropped since the last call. `late`: this program was held up until its
// queue was full, so the silence in that time says nothing about the other VM.
static void look_for_overflow(peer_st* peer, int64_t now, bool late)
{
    const uint32_t dropped = halvo_peer_dropped(&peer->socket);
    if (dropped == 0) {
        return;
    }
    if (late) {
        halvo_peer_forgive(&peer->count, now);
    }
    halvo_peer_say(SD_WARNING, "the queue was full, %u datagrams were dropped: %s", dropped,
                   late ? "this program was held up and counts the silence from now on"
                        : "this program may have caused the gaps of this moment itself");
}

// SIGINT and SIGTERM end the loop after this turn, so that a measurement still prints its line.
static void serve_signals(peer_st* peer, int64_t now)
{
    signalfd_siginfo info{};
    while (read(peer->signal_fd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
        if (info.ssi_signo == SIGCHLD) {
            halvo_peer_reap(&peer->hook);
        } else if (info.ssi_signo == SIGUSR1) {
            halvo_peer_print_line(peer->count, now);
        } else {
            peer->ended = true;
        }
    }
}

// The next second is counted from the planned one, not from now, so that the writes do not drift. Seconds
// that were slept through are skipped.
static void serve_second(peer_st* peer, int64_t now)
{
    peer->next_second = now + SECOND - (now - peer->next_second) % SECOND;
    look_for_overflow(peer, now, false);
    if (!peer->options.textfile.empty()) {
        halvo_peer_write_file(peer->options.textfile, peer->count, now, &peer->file_failing);
    }
    if (++peer->seconds % STATUS_EVERY == 0) {
        halvo_peer_say_status(peer->count, now);
    }
}

// One turn of the loop. Returns 0, or -1 with a message when the socket cannot be read.
static int take_turn(peer_st* peer)
{
    const int64_t planned = wait_for_event(*peer);
    const int64_t now = peer->now = halvo_peer_now();
    if (take_datagrams(peer, now) == -1) {
        return -1;
    }
    // Before the silence is judged: a loss that this program caused itself must not be reported.
    if (now - planned > HALVO_PEER_GAP) {
        look_for_overflow(peer, now, true);
    }
    const bool lost = halvo_peer_judge(&peer->count, now);
    serve_signals(peer, now);
    halvo_peer_tell(&peer->hook, peer->count.state);  // before the line, which a stuck reader may hold up
    if (lost) {
        say_change(*peer, now);
    }
    if (now >= peer->next_second) {
        serve_second(peer, now);
    }
    peer->ended = peer->ended || now >= peer->end;
    return 0;
}

int main(int argc, char** argv)
{
    static peer_st peer;
    int status = halvo_peer_parse(argc, argv, &peer.options);
    if (status != -1) {
        return status;
    }
    status = start(&peer);
    while (status == 0 && !peer.ended) {
        status = take_turn(&peer);
    }
    if (status == -1) {
        return HALVO_PEER_UNKNOWN;
    }
    sd_notify(0, "STOPPING=1");
    if (!peer.options.textfile.empty()) {
        // Figures that are no longer renewed would pass for fresh ones.
        unlink(peer.options.textfile.c_str());
    }
    return is_measurement(peer) ? halvo_peer_print_line(peer.count, peer.now) : 0;
}
