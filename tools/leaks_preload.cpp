// Preloaded into the daemon's AddressSanitizer build for the soak: the daemon leaves through _exit, past the
// look for leaks that LeakSanitizer takes at an ordinary exit, so it is taken here, and what it found, 0 or
// 1, is written to /var/leaks. A program without LeakSanitizer just ends.

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>

static const pid_t daemon_pid = getpid();  // its forked children leave the same way

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
