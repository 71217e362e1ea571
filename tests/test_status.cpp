// halvo-status: the verdict that a report and the kernel lead to, and the output for a real daemon, a dead
// one, a silent one and a stranger.

#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <tuple>

#include "halvo_ctrl_record.h"
#include "sandbox.h"
#include "status_forms.h"

struct StatusSandbox : Sandbox {
    static run_result check(const std::string& options = "")
    {
        return run(HALVO_STATUS " --check " + options);
    }

    // Evaluates Python code on the object `d` in /tmp/json.
    static std::string print_json(const std::string& figures)
    {
        write_file("/tmp/show", "import json; d = json.load(open('/tmp/json')); print(" + figures + ")");
        return run("/usr/bin/python3 /tmp/show").output;
    }
};

static void replace_all(std::string& text, const std::string& from, const std::string& to)
{
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
}

// A report as the daemon sends it: without the lines that no longer fit.
static std::string send_report(const std::string& text)
{
    std::string message(MSG_BUFFER_SIZE, '\0');
    std::istringstream lines(text);
    for (std::string line; getline(lines, line);) {
        halvo_append_msg(message.data(), message.size(), "%s\n", line.c_str());
    }
    return message.c_str();
}

// Returns the look that the text describes: lines with the kernel's facts, then the two reports.
static status_look_st look_at(const std::string& text)
{
    static const std::map<std::string, status_figure status_kernel_st::*> figures = {
        {"armed", &status_kernel_st::armed},     {"replaced", &status_kernel_st::replaced},
        {"age", &status_kernel_st::age},         {"lunet", &status_kernel_st::lunet},
        {"timeout", &status_kernel_st::timeout}, {"bootstatus", &status_kernel_st::bootstatus}};
    status_look_st look;
    const size_t config = text.find("Global:");
    const size_t status = text.find("Halvo:");
    std::istringstream kernel(text.substr(0, config));
    for (std::string key, value; kernel >> key && getline(kernel >> std::ws, value);) {
        if (key == "child") {
            look.kernel.children.push_back({7, 8, value});
        } else {
            look.kernel.*figures.at(key) = std::stoi(value);
        }
    }
    look.exchange.answer = status_answer::WHOLE;
    EXPECT_EQ(status_read_status(send_report(text.substr(status)), &look.report), 0);
    EXPECT_EQ(status_read_config(send_report(text.substr(config, status - config)), &look.report), 0);
    status_judge({}, &look);
    return look;
}

// The table: what is replaced in the base, one change per line ("^" is a line end, "@" 1000 characters), or
// "*" for a report with all lines that the daemon has; the codes of the problems.
TEST_F(StatusSandbox, EverySituationHasItsCodes)
{
    const std::string base = read_file(HALVO_DATA "healthy_look.txt");
    for (const auto& row : read_table("situations.txt", 2)) {
        std::string text = row[0] == "*" ? "age 11\n" + read_file(HALVO_DATA "full_report.txt") : base;
        std::istringstream changes(row[0]);
        for (std::string change; row[0] != "*" && getline(changes, change);) {
            replace_all(change, "^", "\n");
            replace_all(change, "@", std::string(1000, 'x'));
            const size_t arrow = change.find(" => ");
            ASSERT_NE(text.find(change.substr(0, arrow)), std::string::npos) << change;
            text.replace(text.find(change.substr(0, arrow)), arrow, change.substr(arrow + 4));
        }
        const status_look_st look = look_at(text);
        std::string codes;
        for (const status_problem_st& problem : look.problems) {
            codes += std::string(" ") + problem.code;
        }
        EXPECT_EQ(codes, row[1]) << row[0] << status_make_screen(look, {}, nullptr);
    }
}

TEST_F(StatusSandbox, NoNameBreaksAForm)
{
    const std::string n(21, 'n');
    const std::string name = R"(a'b"c|d:e\f': Status:)" + std::string("\x1b[2J\xff\xc3\xa9") + n;
    std::string text = read_file(HALVO_DATA "healthy_look.txt");
    for (const std::string old : {"a", "b"}) {
        replace_all(text, "'" + old + "'", "'" + name + "'");
        replace_all(text, "name: " + old, "name: " + name);
    }
    text.replace(text.find("Active"), 6, "Terminated");
    const status_look_st look = look_at(text);
    const std::string line = status_make_line(look);
    EXPECT_NE(line.find(R"(process 'a'b"c/d:e\f': Status:?[2J)"), std::string::npos) << line;
    EXPECT_EQ(std::count(line.begin(), line.end(), '|'), 1);
    const std::string metrics = status_make_metrics(look);
    for (const char* const end : {"\",state=\"terminated\"} 1\n", "#2\",state=\"active\"} 1\n"}) {
        const std::string sample = R"(halvo_process_state{name="a'b\"c|d:e\\f': Status:)" +
                                   std::string("\x1b[2J\xef\xbf\xbd\xc3\xa9") + n + end;
        EXPECT_NE(metrics.find(sample), std::string::npos) << metrics;
    }
    EXPECT_EQ(status_make_screen(look, {true, false}, nullptr).find("\x1b[2J"), std::string::npos);
    write_file("/tmp/json", status_make_json(look));
    const std::string parsed = print_json("ascii(d['processes'][1]['name'])");
    EXPECT_NE(parsed.find(R"("c|d:e\\f\': Status:\x1b[2J\ufffd\xe9n)"), std::string::npos) << parsed;
}

TEST_F(StatusSandbox, ARealDaemonIsSeenInEachOfItsStates)
{
    EXPECT_EQ(check().output,
              "HALVO CRITICAL - no daemon listens at /tmp/halvo_socket: No such file or directory\n");
    place_probe("/tmp/lunet");
    place_probe("/tmp/worker");
    start("/tmp/lunet run");
    write_config(section("w", "NORMAL", "NOP", "/tmp/worker run"));
    const pid_t daemon = start_daemon();
    EXPECT_EQ(run(HALVO_STATUS " --wait 20").status, 0);
    const run_result healthy = check();
    EXPECT_EQ(healthy.status, 0);
    EXPECT_TRUE(
        healthy.output.starts_with("HALVO OK - 1 process, failover armed|processes=1 starts=1c vm_cpu="))
        << healthy.output;
    EXPECT_EQ(run("sh -c '" HALVO_STATUS " --json --output /tmp/json; stat -c %a /tmp/json'").output,
              "644\n");
    EXPECT_EQ(
        print_json("d['status'], d['watchdog']['armed'], d['processes'][0]['type'], d['daemon']['pid']"),
        "OK True normal " + std::to_string(daemon) + "\n");
    // With the daemon's descriptors hidden: their links first, then their directory too.
    chmod(HALVO_SOCKET, 0666);
    for (const std::string rights : {"--bounding-set=-sys_ptrace", "--reuid=65534 --clear-groups"}) {
        const run_result poor = run("setpriv " + rights + " " HALVO_STATUS " --check");
        EXPECT_TRUE(poor.status == 0 && poor.output.find("s, failover unknown|") != std::string::npos)
            << poor.output;
    }

    kill(find_process("worker"), SIGKILL);
    vm->wait_for(LOG_ALERT, "Process 'w' terminated; *");
    EXPECT_TRUE(check().output.starts_with("HALVO CRITICAL - process 'w' is terminated; the heartbeat has"));
    EXPECT_EQ(check("--allow process-lost,heartbeat-ended").status, 0);
    EXPECT_EQ(check("--allow no-right").status, 3);
    kill(daemon, SIGSTOP);
    EXPECT_EQ(check("--timeout 0.2").output, "HALVO CRITICAL - the daemon did not answer in time\n");
}

TEST_F(StatusSandbox, WhoeverListensTheAnswerIsKnown)
{
    std::string last_words = "Halvo: Status:\n\tCurrently monitored processes: 1\n";
    last_words.resize(MSG_BUFFER_SIZE);
    const std::vector<std::tuple<int, std::string, std::string>> answers = {
        {1, last_words, "Connection refused\n"},  // and no process of a daemon that has ended
        {1, "", "closed the connection without an answer"},
        {1, "Halvo: Status:\n", "in the middle"},
        {1, std::string(8192, 'x'), "is not a report"},
        {1, std::string(8196, '\0'), "is not a report"},
        {2, "junk\n" + std::string(8187, '\0'), "is not a report"}};
    for (auto [requests, answer, reason] : answers) {
        const host_fd listener{listen_as(0)};
        const pid_t pid = start(HALVO_STATUS " --check >/tmp/out");
        for (; requests > 0; --requests) {
            const host_fd client{accept(listener.fd, nullptr, nullptr)};
            std::string request(8196, '\0');
            recv(client.fd, request.data(), request.size(), MSG_WAITALL);
            const std::string reply =
                request.substr(0, answer.empty() || answer.size() > 8192 ? 0 : 4) + answer;
            if (requests == 1) {
                shutdown(listener.fd, SHUT_RDWR);
            }
            send(client.fd, reply.data(), reply.size(), MSG_NOSIGNAL);
        }
        EXPECT_EQ(wait_exit(pid), 2);
        EXPECT_NE(read_file("/tmp/out").find(reason), std::string::npos) << read_file("/tmp/out");
    }
    const host_fd stranger{listen_as(65534)};
    EXPECT_EQ(check().status, 3);
}

TEST_F(StatusSandbox, ATerminalIsLeftAsItWas)
{
    for (const auto& [signal_number, status] : {std::pair(SIGINT, 0), {SIGTERM, 128 + SIGTERM}}) {
        write_file("/tmp/shown", "");
        const pid_t terminal = start(
            "unshare --mount sh -c 'mkdir -p /dev/pts; mount -t devpts -o ptmxmode=0666 devpts /dev/pts;"
            "ln -sf pts/ptmx /dev; script -qefc \"exec " HALVO_STATUS " --watch\" /dev/null' >/tmp/shown");
        wait_until("a screen", [] { return read_file("/tmp/shown").find("no-daemon") != std::string::npos; });
        kill(find_process("halvo-status"), signal_number);
        EXPECT_EQ(wait_exit(terminal), status);
        EXPECT_TRUE(read_file("/tmp/shown").starts_with("\x1b[?1049h"));
        EXPECT_TRUE(read_file("/tmp/shown").ends_with("\x1b[?1049l"))
            << testing::PrintToString(read_file("/tmp/shown"));
    }
}
