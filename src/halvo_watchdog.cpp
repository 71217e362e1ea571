#include "halvo_watchdog.h"

#include <fcntl.h>
#include <linux/watchdog.h>
#include <sys/ioctl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>

#include "halvo_log.h"
#include "halvo_utils.h"

static constexpr const char* WATCHDOG_DEV = "/dev/watchdog";

static std::mutex device_lock;

// Read and written with halvo_load() and halvo_store() or in one atomic step.
static unsigned arm_count;          // how often the device was armed
static unsigned failover_requests;  // how often a failover was asked for
static int switching_on;            // 1: failover is on, the device not yet armed

// What disarming gave, to be logged once the device lock is released.
enum class disarm_result { NOT_OPEN, DISARMED, WRITE_FAILED };

// Device lock held. Leaves the write's errno.
static disarm_result disarm_and_close(halvo_vm_info_st* vm_info)
{
    if (vm_info->wd_dev_fd == -1) {
        return disarm_result::NOT_OPEN;
    }
    const bool disarmed = write(vm_info->wd_dev_fd, "V", 1) == 1;
    const int write_errno = errno;
    close(vm_info->wd_dev_fd);
    vm_info->wd_dev_fd = -1;
    errno = write_errno;
    return disarmed ? disarm_result::DISARMED : disarm_result::WRITE_FAILED;
}

static int log_disarm(disarm_result result)
{
    switch (result) {
        case disarm_result::NOT_OPEN:
            halvo_log(LOG_ERR, "halvo_close_watchdog_dev already closed\n");
            return -1;
        case disarm_result::WRITE_FAILED:
            halvo_log(LOG_ERR, "%s disarm write error\n", WATCHDOG_DEV);
            halvo_log_errno(LOG_ERR);
            return 0;
        case disarm_result::DISARMED:
            break;
    }
    halvo_log(LOG_INFO, "%s disarmed\n", WATCHDOG_DEV);
    return 0;
}

int halvo_close_watchdog_dev(halvo_vm_info_st* vm_info)
{
    device_lock.lock();
    const disarm_result result = disarm_and_close(vm_info);
    device_lock.unlock();
    return log_disarm(result);
}

// Close-on-exec: a script's copy would keep the device armed beyond our close.
static int halvo_open_watchdog_dev(halvo_vm_info_st* vm_info)
{
    device_lock.lock();
    vm_info->wd_dev_fd = open(WATCHDOG_DEV, O_WRONLY | O_CLOEXEC);
    const int dev_fd = vm_info->wd_dev_fd;
    device_lock.unlock();
    if (dev_fd == -1) {
        halvo_log(LOG_ERR, "no %s; load a watchdog driver\n", WATCHDOG_DEV);
        halvo_log_errno(LOG_ERR);
        halvo_log(LOG_ERR, "Not able to open %s\n", WATCHDOG_DEV);
        return -1;
    }
    return 0;
}

// How far the programming of the timeout came, and the seconds that the driver spoke of.
struct timeout_st {
    enum { TAKEN, SET_FAILED, REPORT_FAILED, DIFFERS } result;
    int set;
    int reported;
};

// Asks for the timeout and makes sure that the driver really took it. Logs nothing: the countdown runs.
static timeout_st program_timeout(const halvo_vm_info_st* vm_info)
{
    const int wanted = halvo_load(vm_info->wd_timeout);
    timeout_st timeout = {.result = timeout_st::TAKEN, .set = wanted, .reported = wanted};
    const std::lock_guard guard(device_lock);
    if (ioctl(vm_info->wd_dev_fd, WDIOC_SETTIMEOUT, &timeout.set) == -1) {
        timeout.result = timeout_st::SET_FAILED;
        return timeout;
    }
    timeout.reported = timeout.set;
    if (ioctl(vm_info->wd_dev_fd, WDIOC_GETTIMEOUT, &timeout.reported) == -1) {
        timeout.result = timeout_st::REPORT_FAILED;
    } else if (timeout.reported != wanted) {
        timeout.result = timeout_st::DIFFERS;
    }
    return timeout;
}

static void log_timeout(const timeout_st& timeout)
{
    if (timeout.result == timeout_st::SET_FAILED) {
        halvo_log(LOG_ERR, "%s failed to set timeout\n", WATCHDOG_DEV);
        return;
    }
    halvo_log(LOG_INFO, "Set watchdog interval to %d\n", timeout.set);
    if (timeout.result == timeout_st::REPORT_FAILED) {
        halvo_log(LOG_ERR, "%s failed to report timeout\n", WATCHDOG_DEV);
        return;
    }
    halvo_log(LOG_INFO, "Current watchdog interval is %d\n", timeout.reported);
    if (timeout.result == timeout_st::DIFFERS) {
        halvo_log(LOG_ERR, "%s failed to set timeout mentioned in config file\n", WATCHDOG_DEV);
    }
}

int halvo_watchdog_init(halvo_vm_info_st* vm_info)
{
    device_lock.lock();
    vm_info->wd_dev_fd = -1;
    device_lock.unlock();
    if (halvo_load(vm_info->vm_failover_flag) == DISABLE) {
        return 0;
    }
    if (halvo_open_watchdog_dev(vm_info) != 0) {
        return -1;
    }
    const timeout_st timeout = program_timeout(vm_info);
    if (timeout.result == timeout_st::TAKEN) {
        halvo_store(vm_info->wd_tick_flag, 1);
        halvo_store(arm_count, arm_count + 1);
        log_timeout(timeout);
        return 0;
    }
    device_lock.lock();
    const disarm_result disarmed = disarm_and_close(vm_info);
    device_lock.unlock();
    log_timeout(timeout);
    log_disarm(disarmed);
    return -1;
}

// A process may be lost as soon as the switch is on: the device armed after that must not be tickled.
int halvo_switch_failover_on(halvo_vm_info_st* vm_info)
{
    const unsigned requests = halvo_load(failover_requests);
    halvo_store(switching_on, 1);
    halvo_store(vm_info->vm_failover_flag, ENABLE);
    const int result = halvo_watchdog_init(vm_info);
    if (result == 0 && halvo_load(failover_requests) != requests) {
        halvo_store(vm_info->wd_tick_flag, 0);
    }
    halvo_store(switching_on, 0);
    return result;
}

void halvo_request_failover(halvo_vm_info_st* vm_info)
{
    __atomic_add_fetch(&failover_requests, 1, __ATOMIC_SEQ_CST);
    halvo_store(vm_info->wd_tick_flag, 0);
}

int halvo_watchdog_stop(halvo_vm_info_st* vm_info)
{
    halvo_store(vm_info->wd_tick_flag, 0);
    if (halvo_close_watchdog_dev(vm_info) != 0) {
        halvo_log(LOG_ERR, "Not able to close watchdog device\n");
        return -1;
    }
    return 0;
}

enum class tickle_result { STOPPED, NOT_OPEN, TICKLED, FAILED };

// One keepalive. A failed one disarms and closes the device under the same hold of the lock, so that no
// device opened meanwhile can be the one that is closed. The flag is read again under the lock: a stop
// clears it before it closes the device.
static tickle_result send_keepalive(halvo_vm_info_st* vm_info, disarm_result* disarmed)
{
    int unused = 0;
    const std::lock_guard guard(device_lock);
    if (halvo_load(vm_info->wd_tick_flag) != 1) {
        return tickle_result::STOPPED;
    }
    if (vm_info->wd_dev_fd <= 0) {
        return tickle_result::NOT_OPEN;
    }
    if (ioctl(vm_info->wd_dev_fd, WDIOC_KEEPALIVE, &unused) == -1) {
        if (halvo_load(vm_info->wd_tick_flag) != 1) {
            return tickle_result::STOPPED;  // a failover asked for just now needs the device armed
        }
        *disarmed = disarm_and_close(vm_info);
        return tickle_result::FAILED;
    }
    vm_info->wd_last_keepalive = time(nullptr);
    return tickle_result::TICKLED;
}

static int halvo_tickle_watchdog(halvo_vm_info_st* vm_info)
{
    auto disarmed = disarm_result::NOT_OPEN;
    switch (send_keepalive(vm_info, &disarmed)) {
        case tickle_result::NOT_OPEN:
            halvo_log(LOG_ERR, "Watchdog device is not opened\n");
            return 0;
        case tickle_result::FAILED:
            halvo_log(LOG_ERR, "%s failed to set keepalive\n", WATCHDOG_DEV);
            log_disarm(disarmed);
            return -1;
        case tickle_result::TICKLED:
            if (halvo_load(halvo_debug_mode_g) == ENABLE) {  // else not even halvo_ctime's lock is taken
                halvo_log(LOG_DEBUG, "Watchdog tickle: Last keepalive %s\n",
                          halvo_ctime(vm_info->wd_last_keepalive).data());
            }
            return 0;
        case tickle_result::STOPPED:
            break;
    }
    return 0;
}

// In steps of a second, and ended when the device was armed since: its timeout may be shorter than what is
// left of this sleep.
static void sleep_until_next_tick(int seconds, unsigned seen_arm_count)
{
    for (int slept = 0; slept < seconds && halvo_load(arm_count) == seen_arm_count; ++slept) {
        sleep(1);
    }
}

// The device is not tickled: on purpose, unless failover is just being switched on or was so since the flag
// was looked at.
static bool is_failover_due(const halvo_vm_info_st* vm_info, unsigned seen_arm_count)
{
    return halvo_load(vm_info->vm_failover_flag) == ENABLE && halvo_load(switching_on) == 0 &&
           halvo_load(arm_count) == seen_arm_count;
}

void* halvo_watchdog_thread(void* thread_arg)
{
    auto* vm_info = static_cast<halvo_vm_info_st*>(thread_arg);
    int sleep_seconds = halvo_load(vm_info->wd_tick_intvl);
    halvo_be_punctual();
    halvo_log(LOG_DEBUG, "halvo_watchdog_thread: Thread started\n");
    while (true) {
        const unsigned seen_arm_count = halvo_load(arm_count);
        if (halvo_load(vm_info->wd_tick_flag) == 1) {
            if (halvo_tickle_watchdog(vm_info) != 0) {
                halvo_log(LOG_CRIT, "Watchdog tickling failed\n");
            }
            sleep_seconds = halvo_load(vm_info->wd_tick_intvl);
        } else if (is_failover_due(vm_info, seen_arm_count)) {
            halvo_log(LOG_CRIT, "Process manager disabled the watchdog tickling. VM is going to failover.\n");
            sleep_seconds = halvo_load(vm_info->wd_timeout);
        }
        sleep_until_next_tick(sleep_seconds, seen_arm_count);
    }
}
