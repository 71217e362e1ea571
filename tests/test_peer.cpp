// halvo-peer: the counting of silences, and the executable's reaction to a sender.

#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <sstream>

#include "halvo_peer_count.h"
#include "sandbox.h"

using PeerSandbox = Sandbox;

// Runs of heartbeats, each with its length and the microseconds before each heartbeat. Then the expected
// result if a silence of 500 ms is a loss and 20 heartbeats in a row are a recovery: the changes with their
// milliseconds, heartbeats, missing/gaps, the longest silence in milliseconds, and the jitter's p50, p99 and
// maximum in microseconds.
static const std::pair<std::vector<std::pair<int, int64_t>>, const char*> cases[] = {
    {{{1, 50000}, {99, 50020}, {1, 57000}}, " up@1000 101 0/0 57 20 20 7000"},
    {{{1, 50000}, {98, 50020}, {2, 40000}}, " up@1000 101 0/0 50 20 10000 10000"},
    {{{1, 20000}, {1, 50000}, {1, 100000}, {1, 0}},
     " 4 0/0 100 50000 50000 50000"},                                // the first heartbeat ends no interval
    {{{10, 50000}, {1, 100001}, {18, 50000}}, " 29 1/1 100 0 0 0"},  // too few in a row
    {{{1, 50000}, {1, 124900}, {1, 125000}, {1, 499000}}, " 4 12/3 499 0 0 0"},
    {{{1, 5000000}, {19, 50000}, {1, 500000}}, " lost@500 up@5950 lost@6450 21 108/2 5000 0 0 0"},
};

TEST(PeerCount, SilencesOver100MsAreGapsAndOf500MsALoss)
{
    for (const auto& [runs, expected] : cases) {
        std::ostringstream said;
        halvo_peer_count_st count;
        int64_t now = 0;
        halvo_peer_start(&count, 500 * HALVO_PEER_MS, 20, 0);
        for (auto [heartbeats, interval] : runs) {
            for (; heartbeats > 0; --heartbeats) {
                const int64_t look = std::min(halvo_peer_deadline(count), now += interval * 1000);
                said << (halvo_peer_judge(&count, look) ? " lost@" + std::to_string(look / 1000000) : "");
                said << (halvo_peer_hear(&count, now) ? " up@" + std::to_string(now / 1000000) : "");
            }
        }
        const halvo_peer_figures_st sum = halvo_peer_figures(count, now + 100 * HALVO_PEER_MS);
        said << ' ' << count.received << ' ' << sum.missing << '/' << sum.gaps << ' ' << sum.longest / 1000000
             << ' ' << sum.jitter_p50 / 1000 << ' ' << sum.jitter_p99 / 1000 << ' '
             << count.jitter_max / 1000;
        EXPECT_EQ(said.str(), expected);
        EXPECT_EQ(halvo_peer_figures(count, now + 224 * HALVO_PEER_MS).missing, sum.missing + 3);
    }
}

TEST_F(PeerSandbox, TellsChangesInOrderAndBelievesOnlyTheOtherVm)
{
    pid_t sender = 0;
    const auto beat = [&](const std::string& pause) {
        sender = start(R"(bash -c 'while printf "\xAB\xBA\xDC\xFE" >/dev/udp/127.0.0.1/54321; do sleep )" +
                       pause + "; done'");
    };
    const auto wait_for = [](const char* path, const std::string& text) {
        wait_until(text, [&] { return read_file(path).find(text) != std::string::npos; });
    };
    const auto measure = [] { return run("sh -c '" HALVO_PEER " --for 1; echo $?'").output; };
    write_file("/tmp/hook", "#!/bin/sh\necho $* >>/tmp/told; until [ -e /tmp/end ]; do sleep .1; done", 0755);
    mkfifo("/tmp/f.new", 0600);  // by a stranger whose directory it is; nobody reads it
    const pid_t peer = start(HALVO_PEER " --from 127.0.0.1 --textfile /tmp/f /tmp/hook a 2>/tmp/err");
    wait_for("/tmp/err", "/tmp/f cannot be written");
    remove("/tmp/f.new");
    wait_for("/tmp/f", "halvo_peer_up 0\n");
    beat(".05");
    wait_for("/tmp/f", "halvo_peer_up 1\n");
    kill(sender, SIGKILL);
    wait_for("/tmp/f", "halvo_peer_up 0\n");
    beat(".05");
    wait_for("/tmp/f", "halvo_peer_up 1\n");
    EXPECT_EQ(read_file("/tmp/told"), "a lost\n");  // it still runs
    write_file("/tmp/end", "");
    wait_for("/tmp/told", "a lost\na up\n");

    const std::string before = read_file("/tmp/err");
    kill(peer, SIGSTOP);
    run(R"(bash -c 'ip address add 10.0.0.9 dev lo; printf "\xAB\xBA\xDC\xFE" >/dev/udp/10.0.0.9/54321
        for bytes in "\xAB\xBA\xDC\xFF" "\xAB\xBA\xDC" "\xAB\xBA\xDC\xFE."; do
            printf "$bytes" >/dev/udp/127.0.0.1/54321; done; sleep 1.2')");
    kill(peer, SIGCONT);
    wait_for("/tmp/f", "halvo_peer_foreign_total 4\n");
    EXPECT_EQ(read_file("/tmp/err"), before);
    EXPECT_EQ(run("stat -c %a /tmp/f").output, "644\n");
    EXPECT_EQ(measure(), "HEARTBEAT UNKNOWN - UDP port 54321 is taken by another program\n3\n");
    kill(sender, SIGKILL);
    wait_for("/tmp/told", "a lost\na up\na lost\n");
    kill(peer, SIGTERM);
    EXPECT_EQ(wait_exit(peer), 0);
    EXPECT_EQ(read_file("/tmp/f"), "") << "old figures look like news";

    EXPECT_TRUE(measure().ends_with("\n2\n"));
    beat(".05; (( ++i % 10 )) || sleep .3");
    EXPECT_TRUE(measure().ends_with("\n1\n"));
    kill(sender, SIGKILL);
    beat(".05");
    std::string sound;  // on a loaded machine the sender may be late too
    for (int turn = 0; turn < 10 && !sound.ends_with("\n0\n"); ++turn, sound = measure()) {
    }
    EXPECT_TRUE(sound.starts_with("HEARTBEAT OK - ")) << sound;
}
