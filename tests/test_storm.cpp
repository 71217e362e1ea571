// Everything at once around the real daemon: kills, requests, live updates, junk on its socket, signals and a
// rewritten address file. None of these may cost the daemon a process, a keepalive, an answer, a descriptor
// or its life.
//
// scripts/soak runs the storm for longer, with HALVO_STORM_SECONDS; HALVO_STORM_SEED repeats its choices. The
// first failure ends the storm.

#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <stop_token>
#include <thread>

#include "sandbox.h"

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using dice = std::mt19937;

// The processes of storm.conf; true: a NORMAL one.
static const std::map<std::string, bool> names = {{"plain", true}, {"pre", true},     {"post", true},
                                                  {"both", true},  {"agent1", false}, {"agent2", false},
                                                  {"lunet", false}};

static const std::string longer = "/tmp/pre run " + std::string(900, 'x');
static constexpr std::array addresses{"eth8_0 127.0.0.1 127.0.0.2\n", "eth8_0  \n", "", "eth8_0 300.1 x"};

// The storm gives no cause for log lines with these texts.
static constexpr std::array forbidden{"expired",          "is exiting",      "Fork failed",
                                      "execvp failed",    "is triggered",    "going to failover",
                                      "Watchdog device ", "tickling failed", "not able to stop",
                                      "Not able to init", "already closed",  "set timeout"};

struct StormSandbox : Sandbox {
    pid_t daemon = 0;
    std::stop_source over;
    std::map<std::string, size_t> kills;

    // Calls act() again and again, with pauses of up to `pause` milliseconds.
    void rage(unsigned seed, unsigned pause, void (StormSandbox::*act)(dice&))
    {
        try {
            for (dice roll(seed); !over.stop_requested() && !HasFailure();
                 rest(milliseconds(roll() % pause))) {
                (this->*act)(roll);
            }
        } catch (const std::exception& failure) {
            ADD_FAILURE() << failure.what();
        }
        over.request_stop();
    }

    void rest(milliseconds time) const
    {
        std::mutex own;
        std::unique_lock guard(own);
        std::condition_variable_any().wait_for(guard, over.get_token(), time, [] { return false; });
    }

    // A process that detaches itself counts once it has done so; until then its parent is not pid 1.
    std::set<pid_t> running(const std::string& name) const
    {
        std::set<pid_t> found;
        for (const process& one : processes()) {
            if (one.name == name && one.state != 'Z' && one.parent == (names.at(name) ? daemon : 1)) {
                found.insert(one.pid);
            }
        }
        return found;
    }

    // Returns true once the process is dead, or false when there was none to kill.
    bool kill_one(const std::string& name)
    {
        const auto own = running(name);
        if (own.empty() || kill(*own.begin(), SIGKILL) != 0) {
            return false;
        }
        ++kills[name];
        wait_until("end of " + name, [&] { return !running(name).contains(*own.begin()); });
        return true;
    }

    void kill_some(dice& roll)
    {
        const unsigned chance = roll() % 5 == 0 ? 100 : 20;  // in 100; now and then all at once
        for (const auto& [name, is_normal] : names) {
            if (roll() % 100 >= (is_normal ? chance : 2) || !kill_one(name)) {
                continue;
            }
            if (is_normal && roll() % 3 == 0) {  // its successor, the younger the better
                wait_until("restart", [&, &key = name] { return kill_one(key) || over.stop_requested(); });
            } else if (name == "lunet") {
                run("/tmp/lunet daemonize");
            }
        }
    }

    void ask_something(dice& roll)
    {
        static const std::vector<std::pair<ctrl_handler_msg_type_en, std::string>> requests = {
            {GET_ALL_CONFIG, "Global: Config details:"},
            {GET_ALL_STATUS, "Halvo: Status:"},
            {DISABLE_VM_FAILOVER, "VM failover is "},
            {ctrl_handler_msg_type_en{77}, "Invalid message type"}};
        const auto& [type, answer] = requests.at(roll() % requests.size());
        EXPECT_NE(ask(type).find(answer), std::string::npos) << "no " << answer;
    }

    // The table: what is replaced in storm.conf, by what, and the answer.
    void update_something(dice& roll)
    {
        static const auto updates = read_table("storm_updates.txt", 3);
        const auto& row = updates.at(roll() % updates.size());
        std::string text = read_file(HALVO_DATA "storm.conf");
        write_config(text.replace(text.find(row[0]), row[0].size(), row[1] == "LONGER" ? longer : row[1]));
        const std::string reply = ask(UPDATE_CONFIG);
        EXPECT_NE(reply.find(row[2]), std::string::npos) << row[1] << ": " << reply;
    }

    void send_junk(dice& roll)
    {
        static constexpr std::array<size_t, 7> sizes{0, 1, 3, 4, 8196, 8196, 30000};
        const int type = static_cast<int>(roll() % 20) - 9;
        std::string request(30000, static_cast<char>(roll()));
        memcpy(request.data(), &type, sizeof(type));
        request.resize(type == UPDATE_CONFIG ? 0 : sizes.at(roll() % sizes.size()));
        const bool waits = roll() % 2 == 0;
        EXPECT_EQ(exchange(request, waits).size(),
                  waits && !request.empty() ? sizeof(halvo_ctrl_handler_st) : 0);
    }

    void disturb(dice& roll)
    {
        kill(daemon, SIGUSR1);
        write_file("/var/heartbeat_info", addresses.at(roll() % addresses.size()));
    }

    // Looks for zombies that stay, and whether the daemon is there.
    void watch(host_clock::time_point until, std::chrono::seconds zombie_limit)
    {
        std::map<pid_t, host_clock::time_point> zombies;  // since when
        for (auto now = host_clock::now(); now < until && !over.stop_requested(); now = host_clock::now()) {
            ASSERT_EQ(waitpid(daemon, nullptr, WNOHANG), 0) << "the daemon has ended";
            std::map<pid_t, host_clock::time_point> seen;
            for (const process& one : processes()) {
                if (one.state == 'Z') {
                    seen[one.pid] = zombies.contains(one.pid) ? zombies[one.pid] : now;
                    ASSERT_LT(now - seen[one.pid], zombie_limit) << "a zombie stays: " << one.name;
                }
            }
            zombies.swap(seen);
            rest(100ms);
        }
    }

    size_t count_memory() const  // kB
    {
        const std::string status = read_file("/proc/" + std::to_string(daemon) + "/status");
        return std::stoul(&status[status.find("VmData:") + 7]);
    }

    // A NORMAL process runs, once, and was started once more than it died; each start is in the report, and
    // none came without a kill.
    void check_accounts(const std::string& name, bool is_normal)
    {
        const std::string start = "Process '" + name + "' started; *";
        const std::string death = "Process '" + name + "' terminated; *";
        wait_until("one " + name, [&] {
            const size_t count = running(name).size();
            return is_normal ? count == 1 && vm->count(LOG_INFO, start) == vm->count(LOG_ALERT, death) + 1
                             : count <= 1;
        });
        const size_t started = vm->count(LOG_INFO, start);
        const std::string status = ask(GET_ALL_STATUS);
        const size_t begin = status.find("Process '" + name + "': Status:");
        const std::string own = status.substr(begin, status.find("\nProcess '", begin) - begin);
        const std::string spawned = "spawned by process manager: " + std::to_string(started) + "\n";
        EXPECT_TRUE(started == 0 || own.find(spawned) != std::string::npos) << own << spawned;
        const size_t by_halvo = vm->count(LOG_CRIT, "The  process '" + name + "' is killed by halvo\n");
        EXPECT_LE(started, kills[name] + by_halvo + (is_normal ? 1 : 0)) << name;
    }

    // Between two keepalives: wd_tick_interval and one more, or half of wd_timeout where everything is slow.
    void check_log(std::chrono::seconds gap_limit)
    {
        for (const char* const text : forbidden) {
            EXPECT_EQ(vm->count(HOST_ANY, "*" + std::string(text) + "*"), 0U) << text;
        }
        const std::string pre = "Process 'pre' started; start cmd [";
        EXPECT_EQ(vm->count(LOG_INFO, pre + "*"),
                  vm->count(LOG_INFO, pre + "/tmp/pre run]\n") + vm->count(LOG_INFO, pre + longer + "]\n"));
        host_event last = vm->wait_for(HOST_DEVICE, "*");
        for (size_t left = vm->count(HOST_DEVICE, "*", last.number); left > 0; --left) {
            const host_event event = vm->wait_for(HOST_DEVICE, "*", last.number);
            EXPECT_TRUE(last.text == "disarmed" || event.when - last.when < gap_limit) << vm->describe(event);
            last = event;
        }
    }
};

TEST_F(StormSandbox, CostsNothing)
{
    const char* const length = getenv("HALVO_STORM_SECONDS");
    const char* const chosen = getenv("HALVO_STORM_SEED");
    const unsigned seed =
        chosen != nullptr ? static_cast<unsigned>(std::stoul(chosen)) : std::random_device{}();
    printf("HALVO_STORM_SEED=%u\n", seed);
    for (const auto& [name, is_normal] : names) {
        place_probe("/tmp/" + name);
        ASSERT_TRUE(is_normal || run("/tmp/" + name + " daemonize").status == 0);
    }
    write_config(read_file(HALVO_DATA "storm.conf"));
    write_file("/var/heartbeat_info", addresses[0]);
    umask(0);
    daemon = start_daemon();
    vm->wait_for(LOG_INFO, "Process manager started: *");
    vm->wait_in_order(0, {{LOG_INFO, "lunet pid *"}, {LOG_INFO, "lunet pid *"}});  // pidof's pipe is closed
    const bool sanitized =
        read_file("/proc/" + std::to_string(daemon) + "/maps").find("san.so") != std::string::npos;
    const auto descriptors = count_descriptors(daemon);
    const size_t memory = count_memory();
    EXPECT_EQ(std::filesystem::status(HALVO_SOCKET).permissions(), std::filesystem::perms(0600));
    {
        using storm = StormSandbox;
        std::vector<std::jthread> threads;
        for (const auto& [pause, act] :
             {std::pair(1000U, &storm::kill_some), std::pair(500U, &storm::update_something),
              std::pair(200U, &storm::ask_something), std::pair(200U, &storm::ask_something),
              std::pair(500U, &storm::send_junk), std::pair(2000U, &storm::disturb)}) {
            threads.emplace_back(&storm::rage, this, seed + static_cast<unsigned>(threads.size()), pause,
                                 act);
        }
        watch(host_clock::now() + std::chrono::seconds(length != nullptr ? std::stoi(length) : 10),
              sanitized ? 5s : 3s);
        over.request_stop();
    }
    ASSERT_FALSE(HasFailure());
    write_config(read_file(HALVO_DATA "storm.conf"));
    EXPECT_EQ(ask(UPDATE_CONFIG), "Configuration updated successfully\n");
    const size_t quiet = vm->count(HOST_ANY, "*");  // the device stays armed from now on
    const host_fd silent{connect_daemon()};         // holds the next one up, but not for ever
    for (const auto& [name, is_normal] : names) {
        check_accounts(name, is_normal);
    }
    vm->wait_in_order(quiet, std::vector(6, std::pair<int, std::string>(HOST_DEVICE, "keepalive")));
    check_log(4s);
    // Its program always ends at once, so it must still be restarted.
    vm->wait_for(LOG_INFO, "Process 'brief' started; *", vm->count(HOST_ANY, "*"));
    EXPECT_EQ(count_descriptors(daemon), descriptors);
    EXPECT_TRUE(sanitized || count_memory() < memory + 3072) << memory << " kB, then " << count_memory();
    write_file("/tmp/no_fork", "");  // the daemon ends itself, and looks for leaks first
    ASSERT_TRUE(kill_one("plain"));
    EXPECT_EQ(wait_exit(daemon), 1);
    EXPECT_NE(read_file("/var/leaks"), "1\n");
}
