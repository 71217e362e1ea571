// Preloaded into the daemon: "/dev/watchdog" becomes a connection to the simulated device of host.h.
// The descriptor is a real one, so write, close, close-on-exec and inheritance need no help from here.
// Besides, no fork succeeds while there is a file /tmp/no_fork, and the clock is an hour back while there is
// a file /tmp/clock_set_back.

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/watchdog.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "watchdog_wire.h"

// The programs that the daemon starts are to see the environment of a daemon without this library.
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

static int connect_device(int flags)
{
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | ((flags & O_CLOEXEC) != 0 ? SOCK_CLOEXEC : 0), 0);
    const sockaddr_un address{AF_UNIX, "/dev/watchdog"};
    watchdog_wire_st answer{};
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        receive_answer(fd, answer) == 0) {
        return fd;
    }
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

// One function stands for the whole family: callers pass what they have in registers, and a mode that
// was not passed is not looked at. Named by symbol, as the headers' inline versions keep the C names.
extern "C" int preload_open(const char* path, int flags, mode_t mode) __asm__("open");
extern "C" int preload_ioctl(int fd, unsigned long request, int* value) __asm__("ioctl");

extern "C" int preload_open(const char* path, int flags, mode_t mode)
{
    static const auto next = reinterpret_cast<decltype(&preload_open)>(dlsym(RTLD_NEXT, "open"));
    return strcmp(path, "/dev/watchdog") == 0 ? connect_device(flags) : next(path, flags, mode);
}

__asm__(".globl open64, __open_2, __open64_2\n.set open64, open\n.set __open_2, open\n.set __open64_2, open");

static pid_t fork_by(const char* name)
{
    if (access("/tmp/no_fork", F_OK) != 0) {
        return reinterpret_cast<decltype(&fork)>(dlsym(RTLD_NEXT, name))();
    }
    errno = EAGAIN;
    return -1;
}

extern "C" pid_t fork()
{
    return fork_by("fork");
}

extern "C" pid_t _Fork()
{
    return fork_by("_Fork");
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
