// The least code that does what halvo does, one role for each baseline, and the parts of the measuring that
// must be in C.

#define _GNU_SOURCE
#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { RECORD_SIZE = 8196, GET_ALL_STATUS = 2 };  // of the control channel

static char record[RECORD_SIZE];
static struct sockaddr_un address = {.sun_family = AF_UNIX};  // of the control channel's server

static long now_ns(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000 + now.tv_nsec;
}

static void check(int succeeded, const char* what)
{
    if (!succeeded) {
        perror(what);
        exit(1);
    }
}

static void start(char** command)
{
    const pid_t pid = fork();
    check(pid != -1, "fork");
    if (pid == 0) {
        close_range(0, ~0U, 0);
        execvp(command[0], command);
        _exit(1);
    }
}

// restart COUNT COMMAND...: keeps COUNT processes of COMMAND alive.
static void restart(char** args)
{
    for (int left = atoi(args[0]); left > 0; --left) {
        start(args + 1);
    }
    while (waitpid(-1, NULL, 0) > 0) {
        start(args + 1);
    }
}

__attribute__((noinline)) static void send_beat(int timer, int port, const struct sockaddr_in* peer)
{
    static const unsigned char magic[] = {0xAB, 0xBA, 0xDC, 0xFE};
    uint64_t expirations;
    check(read(timer, &expirations, sizeof expirations) == sizeof expirations, "read");
    check(sendto(port, magic, sizeof magic, 0, (const struct sockaddr*)peer, sizeof *peer) == sizeof magic,
          "sendto");
}

// beat ADDRESS PORT: a datagram every 50 ms, at halvo's priority.
static void beat(char** args)
{
    const struct sched_param priority = {.sched_priority = 1};
    const struct timespec period = {.tv_nsec = 50000000};
    const struct itimerspec setting = {period, period};
    struct sockaddr_in peer = {.sin_family = AF_INET, .sin_port = htons((uint16_t)atoi(args[1]))};
    const int timer = timerfd_create(CLOCK_MONOTONIC, 0);
    const int port = socket(AF_INET, SOCK_DGRAM, 0);
    inet_aton(args[0], &peer.sin_addr);
    sched_setscheduler(0, SCHED_RR, &priority);
    check(timerfd_settime(timer, 0, &setting, NULL) == 0, "timerfd_settime");
    for (;;) {
        send_beat(timer, port, &peer);
    }
}

__attribute__((noinline)) static void read_proc(const char* folder, const char* name)
{
    char path[128];
    char text[4096];
    snprintf(path, sizeof path, "/proc/%s/%s", folder, name);
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    check(file != -1 && read(file, text, sizeof text) > 0, path);
    close(file);
}

// pass SECONDS PID...: reads what a pass over these processes reads.
static void pass(char** args)
{
    for (;;) {
        read_proc(".", "meminfo");
        read_proc(".", "stat");
        for (char** pid = args + 1; *pid != NULL; ++pid) {
            read_proc(*pid, "stat");
            read_proc(*pid, "status");
        }
        sleep((unsigned)atoi(args[0]));
    }
}

static int open_server(int type, const char* path)
{
    const int server = socket(AF_UNIX, type, 0);
    strcpy(address.sun_path, path);
    check(bind(server, (const struct sockaddr*)&address, sizeof address) == 0, path);
    return server;
}

// log SOCKET: a system log that reads lines and discards them.
static void take_lines(char** args)
{
    const int server = open_server(SOCK_DGRAM, args[0]);
    for (;;) {
        check(read(server, record, sizeof record) > 0, "read");
    }
}

// serve SOCKET: takes each record and sends it back.
static void serve(char** args)
{
    const int server = open_server(SOCK_STREAM, args[0]);
    check(listen(server, 5) == 0, "listen");
    for (;;) {
        const int client = accept(server, NULL, NULL);
        check(read(client, record, sizeof record) == sizeof record, "read");
        check(write(client, record, sizeof record) == sizeof record, "write");
        close(client);
    }
}

static void exchange(const char* path)
{
    const int server = socket(AF_UNIX, SOCK_STREAM, 0);
    strcpy(address.sun_path, path);
    check(connect(server, (const struct sockaddr*)&address, sizeof address) == 0, path);
    memset(record, 0, sizeof record);  // halvo appends to the text in the record
    record[0] = GET_ALL_STATUS;
    check(write(server, record, sizeof record) == sizeof record, "write");
    check(read(server, record, sizeof record) == sizeof record, "read");
    close(server);
}

// client SOCKET: halvo -s.
static void client(char** args)
{
    exchange(args[0]);
    puts(record + sizeof(int));
}

// requests COUNT SOCKET: prints the nanoseconds of each exchange.
static void requests(char** args)
{
    for (int left = atoi(args[0]); left > 0; --left) {
        const long before = now_ns();
        exchange(args[1]);
        printf("%ld\n", now_ns() - before);
    }
}

// run COUNT COMMAND...: prints the nanoseconds from exec to exit and the peak memory in kB of each run. Done
// in this small program, because a child counts the peak of the process that forked it as its own.
static void run(char** args)
{
    const int null = open("/dev/null", O_RDWR);
    for (int left = atoi(args[0]); left > 0; --left) {
        struct rusage usage;
        int status;
        const long before = now_ns();
        const pid_t pid = vfork();
        if (pid == 0) {
            dup2(null, STDOUT_FILENO);
            execvp(args[1], args + 1);
            _exit(127);
        }
        check(wait4(pid, &status, 0, &usage) == pid && status == 0, args[1]);
        printf("%ld %ld\n", now_ns() - before, usage.ru_maxrss);
    }
}

// crowd COUNT: a process that only sleeps, and COUNT more that end with it. Prints a line when all of them
// run.
static void crowd(char** args)
{
    for (int left = atoi(args[0]); left > 0; --left) {
        const pid_t pid = fork();
        check(pid != -1, "fork");
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            pause();
        }
    }
    check(write(STDOUT_FILENO, "ready\n", 6) == 6, "write");
    pause();
}

int main(int argc, char** argv)
{
    static const struct {
        const char* name;
        void (*play)(char** args);
    } roles[] = {{"restart", restart},   {"beat", beat},   {"pass", pass},
                 {"log", take_lines},    {"serve", serve}, {"client", client},
                 {"requests", requests}, {"run", run},     {"crowd", crowd}};
    for (size_t i = 0; argc > 2 && i < sizeof roles / sizeof *roles; ++i) {
        if (strcmp(argv[1], roles[i].name) == 0) {
            roles[i].play(argv + 2);
        }
    }
}
