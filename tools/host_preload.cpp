// Preloaded into the daemon, so that a test can give it a host and faults.
//
// "/dev/watchdog" becomes a connection to the simulated device of host.h. The descriptor is a real one, so
// write, close-on-exec and inheritance work without help. While the device is open, a second descriptor shows
// its path in /proc/PID/fd. Every fork fails while a file /tmp/no_fork exists, and the clock is an hour slow
// while a file /tmp/clock_set_back exists. The daemon leaves through _exit, before LeakSanitizer would look
// for leaks. So this library makes the search; it writes the result, 0 or 1, to /var/leaks.

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/watchdog.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "watchdog_wire.h"

// The programs that the daemon starts must see the environment of a daemon without this library.
__attribute__((constructor)) static void forget_preload()
{
    unsetenv("LD_PRELOAD");
}

static int receive_answer(int fd, watchdog_wire_st& message)
{
    if (recv(fd, &message, sizeof message, 0) != sizeof message) {
        message.error = EIO;
    }
    errno = message.error;
    return message.error == 0 ? 0 : -1;
}

static std::atomic<int> device_fd{-1};
static std::atomic<int> path_fd{-1};

static int connect_device(int flags)
{
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | ((flags & O_CLOEXEC) != 0 ? SOCK_CLOEXEC : 0), 0);
    const sockaddr_un address{AF_UNIX, "/dev/watchdog"};
    watchdog_wire_st answer{};
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        receive_answer(fd, answer) == 0) {
        path_fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/dev/watchdog", O_PATH | O_CLOEXEC));
        device_fd = fd;
        return fd;
    }
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

// One function serves the whole family: callers pass their arguments in registers, and a mode that was not
// passed is not read. It is named by its symbol, because the headers' inline versions occupy the C names.
extern "C" int preload_open(const char* path, int flags, mode_t mode) __asm__("open");
extern "C" int preload_ioctl(int fd, unsigned long request, int* value) __asm__("ioctl");

extern "C" int preload_open(const char* path, int flags, mode_t mode)
{
    static const auto next = reinterpret_cast<decltype(&preload_open)>(dlsym(RTLD_NEXT, "open"));
    return strcmp(path, "/dev/watchdog") == 0 ? connect_device(flags) : next(path, flags, mode);
}

__asm__(".globl open64, __open_2, __open64_2\n.set open64, open\n.set __open_2, open\n.set __open64_2, open");

extern "C" int close(int fd)
{
    int device = fd;
    if (fd != -1 && device_fd.compare_exchange_strong(device, -1)) {
        syscall(SYS_close, path_fd.exchange(-1));
    }
    return static_cast<int>(syscall(SYS_close, fd));
}

extern "C" pid_t fork()
{
    if (access("/tmp/no_fork", F_OK) != 0) {
        return reinterpret_cast<decltype(&fork)>(dlsym(RTLD_NEXT, "fork"))();
    }
    errno = EAGAIN;
    return -1;
}

extern "C" time_t time(time_t* timer)
{
    timespec clock{};
    clock_gettime(CLOCK_REALTIME, &clock);
    clock.tv_sec -= access("/tmp/clock_set_back", F_OK) == 0 ? 3600 : 0;
    if (timer != nullptr) {
        *timer = clock.tv_sec;
    }
    return clock.tv_sec;
}

extern "C" int preload_ioctl(int fd, unsigned long request, int* value)
{
    static const auto next = reinterpret_cast<decltype(&preload_ioctl)>(dlsym(RTLD_NEXT, "ioctl"));
    if (_IOC_TYPE(request) != WATCHDOG_IOCTL_BASE) {
        return next(fd, request, value);
    }
    watchdog_wire_st message{WATCHDOG_WIRE_MAGIC, static_cast<uint32_t>(request), 0, 0};
    int unused = 0;  // the kernel leaves a keepalive's argument alone
    int& argument = request == WDIOC_KEEPALIVE ? unused : *value;
    message.value = argument;
    if (send(fd, &message, sizeof message, MSG_NOSIGNAL) < 0 || receive_answer(fd, message) != 0) {
        return -1;
    }
    argument = message.value;
    return 0;
}

static const pid_t daemon_pid = getpid();  // its forked children call _exit too

extern "C" void _exit(int status)
{
    const auto find_leaks =
        reinterpret_cast<int (*)()>(dlsym(RTLD_DEFAULT, "__lsan_do_recoverable_leak_check"));
    if (find_leaks != nullptr && getpid() == daemon_pid) {
        const int found = find_leaks();
        FILE* file = fopen("/var/leaks", "w");
        fprintf(file, "%d\n", found);
        fclose(file);
    }
    while (true) {
        syscall(SYS_exit_group, status);
    }
}

// ThreadSanitizer does not see the lock that tzset(3) takes inside the C library.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the sanitizer's name
extern "C" const char* __tsan_default_suppressions()
{
    return "race:tzset_internal\n";
}
