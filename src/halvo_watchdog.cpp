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

// Guards wd_dev_fd and every call on it. Taken after the table lock where a thread holds both.
static std::mutex device_lock;

static unsigned arm_count;  // how often the device was armed; a change ends the thread's sleep; halvo_load()

// The outcome of disarming, to be logged after the device lock is released.
enum class disarm_result { NOT_OPEN, DISARMED, WRITE_FAILED };

// Called with the device lock held; keeps the write's errno. Without the "V" the device stays armed after
// the close.
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

// Close-on-exec: a script's copy of the descriptor would keep the device armed after our close.
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

// Holds the lock for one call only, so that nothing is logged under it.
static int request_device(const halvo_vm_info_st* vm_info, unsigned long request, int* value)
{
    const std::lock_guard guard(device_lock);
    return ioctl(vm_info->wd_dev_fd, request, value);
}

// Sets the timeout and reads it back, because a driver may round it. Returns 0, or -1 with a message.
static int program_timeout(const halvo_vm_info_st* vm_info)
{
    const int wanted = halvo_load(vm_info->wd_timeout);
    int timeout = wanted;
    if (request_device(vm_info, WDIOC_SETTIMEOUT, &timeout) == -1) {
        halvo_log(LOG_ERR, "%s failed to set timeout\n", WATCHDOG_DEV);
        return -1;
    }
    halvo_log(LOG_INFO, "Set watchdog interval to %d\n", timeout);
    if (request_device(vm_info, WDIOC_GETTIMEOUT, &timeout) == -1) {
        halvo_log(LOG_ERR, "%s failed to report timeout\n", WATCHDOG_DEV);
        return -1;
    }
    halvo_log(LOG_INFO, "Current watchdog interval is %d\n", timeout);
    if (timeout != wanted) {
        halvo_log(LOG_ERR, "%s failed to set timeout mentioned in config file\n", WATCHDOG_DEV);
        return -1;
    }
    return 0;
}

// Opens and programs the device. Returns 0, or -1 with the device closed.
static int arm_device(halvo_vm_info_st* vm_info)
{
    if (halvo_open_watchdog_dev(vm_info) != 0) {
        return -1;
    }
    if (program_timeout(vm_info) != 0) {
        halvo_close_watchdog_dev(vm_info);
        return -1;
    }
    // The countdown is already running, and the thread sends no keepalive before this.
    halvo_store(vm_info->wd_tick_flag, 1);
    halvo_store(arm_count, arm_count + 1);
    return 0;
}

int halvo_watchdog_init(halvo_vm_info_st* vm_info)
{
    device_lock.lock();
    // A zeroed record would name descriptor 0.
    vm_info->wd_dev_fd = -1;
    device_lock.unlock();
    return halvo_load(vm_info->vm_failover_flag) == DISABLE ? 0 : arm_device(vm_info);
}

// vm_failover_flag is set last. A loss that finds it ENABLE clears wd_tick_flag to fail the VM over, and
// arming must not set wd_tick_flag again after that.
int halvo_switch_failover_on(halvo_vm_info_st* vm_info)
{
    const int result = arm_device(vm_info);
    halvo_store(vm_info->vm_failover_flag, ENABLE);
    return result;
}

void halvo_request_failover(halvo_vm_info_st* vm_info)
{
    halvo_store(vm_info->wd_tick_flag, 0);
}

int halvo_watchdog_stop(halvo_vm_info_st* vm_info)
{
    halvo_store(vm_info->wd_tick_flag, 0);
    // The flag was cleared first, so that no keepalive finds the device closed and logs an error.
    if (halvo_close_watchdog_dev(vm_info) != 0) {
        halvo_log(LOG_ERR, "Not able to close watchdog device\n");
        return -1;
    }
    return 0;
}

// Sends one keepalive. A failed one disarms and closes the device under the same hold of the lock;
// otherwise a device opened in between could be the one closed. wd_tick_flag is read under the lock,
// because a stop clears it before it closes the device.
static int halvo_tickle_watchdog(halvo_vm_info_st* vm_info)
{
    int unused = 0;
    std::unique_lock lock(device_lock);
    if (halvo_load(vm_info->wd_tick_flag) != 1) {
        return 0;
    }
    if (vm_info->wd_dev_fd <= 0) {
        lock.unlock();
        halvo_log(LOG_ERR, "Watchdog device is not opened\n");
        return 0;
    }
    if (ioctl(vm_info->wd_dev_fd, WDIOC_KEEPALIVE, &unused) == -1) {
        if (halvo_load(vm_info->wd_tick_flag) != 1) {
            return 0;  // a failover requested meanwhile needs the device armed
        }
        const disarm_result disarmed = disarm_and_close(vm_info);
        lock.unlock();
        halvo_log(LOG_ERR, "%s failed to set keepalive\n", WATCHDOG_DEV);
        log_disarm(disarmed);
        return -1;
    }
    vm_info->wd_last_keepalive = time(nullptr);
    lock.unlock();
    if (halvo_load(halvo_debug_mode_g) == ENABLE) {
        tzset();
        halvo_log(LOG_DEBUG, "Watchdog tickle: Last keepalive %s\n",
                  halvo_ctime(vm_info->wd_last_keepalive).data());
    }
    return 0;
}

// Sleeps in one-second steps and returns early if the device was re-armed, because the new timeout may be
// shorter than the rest of this sleep.
static void sleep_until_next_tick(int seconds, unsigned seen_arm_count)
{
    for (int slept = 0; slept < seconds && halvo_load(arm_count) == seen_arm_count; ++slept) {
        sleep(1);
    }
}

void* halvo_watchdog_thread(void* thread_arg)
{
    auto* vm_info = static_cast<halvo_vm_info_st*>(thread_arg);
    int sleep_seconds = halvo_load(vm_info->wd_tick_intvl);
    halvo_be_punctual();
    halvo_log(LOG_DEBUG, "halvo_watchdog_thread: Thread started\n");
    while (true) {
        // Read before both flags: a device armed after this line ends the sleep below.
        const unsigned seen_arm_count = halvo_load(arm_count);
        // Read before wd_tick_flag: halvo_switch_failover_on() sets this flag last, so if it is seen
        // ENABLE, the other is seen set. In the other order, arming could be taken for a failover.
        const bool enabled = halvo_load(vm_info->vm_failover_flag) == ENABLE;
        if (halvo_load(vm_info->wd_tick_flag) == 1) {
            if (halvo_tickle_watchdog(vm_info) != 0) {
                halvo_log(LOG_CRIT, "Watchdog tickling failed\n");
            }
            sleep_seconds = halvo_load(vm_info->wd_tick_intvl);
        } else if (enabled) {
            halvo_log(LOG_CRIT, "Process manager disabled the watchdog tickling. VM is going to failover.\n");
            // The device expires within this time.
            sleep_seconds = halvo_load(vm_info->wd_timeout);
        }
        sleep_until_next_tick(sleep_seconds, seen_arm_count);
    }
}
