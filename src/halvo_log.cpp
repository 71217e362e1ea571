#include "halvo_log.h"

#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include "halvo_private.h"

static constexpr size_t LINE_SIZE = 4096;       // bytes, the terminator included
static constexpr size_t RING_SIZE = 1U << 20U;  // bytes; some 10,000 lines
static constexpr size_t RING_RESERVE = 8192;    // bytes of the ring, for the last lines of a fatal exit
static constexpr time_t EXIT_PATIENCE = 1;      // seconds
static constexpr auto SEND_DELAY = std::chrono::milliseconds(1);
static constexpr int LOG_OPTIONS = LOG_CONS | LOG_NDELAY;

// The start of a line in the ring; its text follows.
struct line_head_st {
    pid_t pid;
    int priority;
    size_t length;  // of the text, without a terminator
};

static std::mutex ring_lock;
static pthread_cond_t ring_changed = PTHREAD_COND_INITIALIZER;
static std::array<char, RING_SIZE> ring;
// Both keep counting past the ring's size, so that their difference is the number of bytes in use. Both
// return to 0 when the ring is empty, so that only as many of its pages are touched as the longest queue
// needed.
static size_t ring_begin;
static size_t ring_end;
static size_t ring_limit = RING_SIZE - RING_RESERVE;
static unsigned lost_lines;
// False during start-up, when a fatal exit must see to the queued lines itself.
static bool log_thread_started;

// The sink once the log is closed: a thread that still runs may log, and syslog(3) would open the log again.
static void drop_line(pid_t, int, const char*)
{
}

static void open_syslog()
{
    openlog("halvo", LOG_OPTIONS | LOG_PID, LOG_USER);
}

void halvo_syslog_line(pid_t pid, int priority, const char* text)
{
    if (pid == 0) {
        syslog(priority, "%s", text);
        return;
    }
    std::array<char, 32> ident;
    // This ident without LOG_PID gives the same bytes as a line that the process logged itself. openlog(3)
    // keeps the pointer, so the second call must come before ident goes away.
    snprintf(ident.data(), ident.size(), "halvo[%d]", pid);
    openlog(ident.data(), LOG_OPTIONS, LOG_USER);
    syslog(priority, "%s", text);
    open_syslog();
}

static bool is_empty()
{
    return ring_begin == ring_end;
}

// Ring lock held.
static void put(const void* data, size_t size)
{
    for (size_t i = 0; i < size; ++i) {
        ring.at(ring_end++ % RING_SIZE) = static_cast<const char*>(data)[i];
    }
}

// Returns the position of the byte after the copied ones. Ring lock held.
static size_t copy_from(size_t position, void* data, size_t size)
{
    for (size_t i = 0; i < size; ++i) {
        static_cast<char*>(data)[i] = ring.at(position++ % RING_SIZE);
    }
    return position;
}

// Returns false when the ring has no space for the line. Ring lock held.
static bool put_line(pid_t pid, int priority, const char* text)
{
    const line_head_st head = {.pid = pid, .priority = priority, .length = strlen(text)};
    if (sizeof(head) + head.length > ring_limit - (ring_end - ring_begin)) {
        return false;
    }
    put(&head, sizeof(head));
    put(text, head.length);
    return true;
}

// The sink of the daemon. Never waits for anything but the ring lock, which is held only for one copy.
static void queue_line(pid_t pid, int priority, const char* text)
{
    {
        const std::lock_guard guard(ring_lock);
        // Once a line is lost, so is every later one until the notice stands in the ring: the notice marks
        // the gap.
        if (lost_lines > 0 || !put_line(pid, priority, text)) {
            ++lost_lines;
        }
    }
    pthread_cond_broadcast(&ring_changed);
}

// Ring lock held.
static void put_lost_lines()
{
    std::array<char, 64> notice;
    snprintf(notice.data(), notice.size(), "%u lines were lost: the log did not take them\n", lost_lines);
    if (put_line(0, LOG_ERR, notice.data())) {
        lost_lines = 0;
    }
}

// A full ring must not lose the line that says why the daemon ends. A configuration file with thousands of
// faults, for example, fills it.
static void open_reserve()
{
    const std::lock_guard guard(ring_lock);
    ring_limit = RING_SIZE;
    if (lost_lines > 0) {
        put_lost_lines();
    }
}

// Sends one line without the lock, since syslog(3) may hang. The line leaves the ring only afterwards, so
// that an empty ring means that every line was sent.
static void send_oldest_line(std::unique_lock<std::mutex>* lock)
{
    std::array<char, LINE_SIZE> text;
    line_head_st head{};
    size_t next = copy_from(ring_begin, &head, sizeof(head));
    next = copy_from(next, text.data(), head.length);
    text.at(head.length) = '\0';
    lock->unlock();
    halvo_syslog_line(head.pid, head.priority, text.data());
    lock->lock();
    ring_begin = next;
    if (lost_lines > 0) {
        put_lost_lines();
    }
    if (is_empty()) {
        ring_begin = 0;
        ring_end = 0;
        pthread_cond_broadcast(&ring_changed);
    }
}

static void* halvo_log_thread(void*)
{
    // Not on the main thread: openlog(3) hangs while the log daemon accepts no connection on a stream
    // socket.
    open_syslog();
    std::unique_lock lock(ring_lock);
    while (true) {
        while (is_empty()) {
            pthread_cond_wait(&ring_changed, ring_lock.native_handle());
        }
        // A restart logs its first lines before it forks. Sent at once, they would compete with the fork and
        // with the new process for the processors.
        lock.unlock();
        std::this_thread::sleep_for(SEND_DELAY);
        lock.lock();
        while (!is_empty()) {
            send_oldest_line(&lock);
        }
    }
}

void halvo_log_use_ring()
{
    halvo_store(halvo_log_sink_g, queue_line);
}

int halvo_log_start()
{
    pthread_t tid{};
    if (pthread_create(&tid, nullptr, halvo_log_thread, nullptr) != 0) {
        return -1;
    }
    log_thread_started = true;
    return pthread_detach(tid) == 0 ? 0 : -1;
}

void halvo_log_close()
{
    // A fatal exit during start-up comes before the log thread exists. If the thread cannot be started even
    // now, this thread sends the lines itself.
    if (!log_thread_started && halvo_log_start() != 0) {
        open_syslog();
    }
    std::unique_lock lock(ring_lock);
    while (!log_thread_started && !is_empty()) {
        send_oldest_line(&lock);
    }
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += EXIT_PATIENCE;
    int result = 0;
    while (!is_empty() && result == 0) {
        result = pthread_cond_clockwait(&ring_changed, ring_lock.native_handle(), CLOCK_MONOTONIC, &deadline);
    }
    halvo_store(halvo_log_sink_g, drop_line);
    if (is_empty()) {  // if not, a syslog(3) hangs, and closelog(3) would wait for its lock
        closelog();
    }
}

__attribute__((format(printf, 3, 0))) static void vlog_as(pid_t pid, int priority, const char* format,
                                                          va_list args)
{
    if (priority == LOG_DEBUG && halvo_load(halvo_debug_mode_g) != ENABLE) {
        return;
    }
    const int saved_errno = errno;
    std::array<char, LINE_SIZE> text;
    text.front() = '\0';  // an empty line if vsnprintf fails
    vsnprintf(text.data(), text.size(), format, args);
    halvo_load(halvo_log_sink_g)(pid, priority, text.data());
    errno = saved_errno;
}

void halvo_vlog(int priority, const char* format, va_list args)
{
    vlog_as(0, priority, format, args);
}

void halvo_log(int priority, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vlog_as(0, priority, format, args);
    va_end(args);
}

void halvo_log_as(pid_t pid, int priority, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vlog_as(pid, priority, format, args);
    va_end(args);
}

void halvo_log_errno(int priority)
{
    const int error = errno;
    halvo_log(priority, "%s [errno: %d]\n", strerror(error), error);
}

void halvo_fatal_exit(const char* format, ...)
{
    // Never unlocked: if two threads fail at once, the second waits here until the first has ended the
    // process.
    static std::mutex exiting;
    exiting.lock();
    open_reserve();
    va_list args;
    va_start(args, format);
    halvo_vlog(LOG_ALERT, format, args);
    va_end(args);
    halvo_log_close();
    // Not exit(3): other threads still use the objects that it would destroy.
    _exit(1);
}

halvo_ctime_text halvo_ctime(time_t when)
{
    halvo_ctime_text text{};
    if (ctime_r(&when, text.data()) == nullptr) {
        text = {"time out of range\n"};
    }
    return text;
}
