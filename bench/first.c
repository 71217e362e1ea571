// "first FIFO": writes its pid and the time of its first instruction (CLOCK_MONOTONIC, in nanoseconds) to
// FIFO, eight bytes each, then stays. It has no C library, so no start-up of its own lies between exec and
// the stamp. For x86-64 only.

#include <asm/unistd.h>
#include <fcntl.h>
#include <time.h>

static long call(long number, long first, long second, long third)
{
    long result;
    __asm__ volatile("syscall"
                     : "=a"(result)
                     : "a"(number), "D"(first), "S"(second), "d"(third)
                     : "rcx", "r11", "memory");
    return result;
}

__asm__(".globl _start\n_start: mov %rsp, %rdi\n and $-16, %rsp\n call tell\n");

// The stack of a new process: argc, then the arguments. A write this short is never torn.
__attribute__((used, noreturn)) void tell(long* stack)
{
    struct timespec now;
    call(__NR_clock_gettime, CLOCK_MONOTONIC, (long)&now, 0);
    const long stamp[2] = {call(__NR_getpid, 0, 0, 0), now.tv_sec * 1000000000 + now.tv_nsec};
    const long fifo = call(__NR_open, stack[2], O_WRONLY | O_CLOEXEC, 0);
    const long sent = call(__NR_write, fifo, (long)stamp, sizeof stamp);
    for (;;) {
        call(sent == sizeof stamp ? __NR_pause : __NR_exit_group, 1, 0, 0);
    }
}
