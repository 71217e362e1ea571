#include "halvo_res_monitor.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "halvo_log.h"
#include "halvo_pid_lookup.h"

// The counters of the previous samples, those of the processes by their index in the table. Main thread
// only.
static sys_cpu_usage_info_st sys_cpu_usage;
static std::array<proc_cpu_usage_info_st, MAX_PROC_NUM> proc_cpu_usage;

using proc_text = std::array<char, 4096>;
using proc_path = std::array<char, 128>;

// Reads a file's first 4095 bytes as a text; the values needed stand near the start of each file. Returns
// the number of bytes, 0 when there are none, or -1 when the file cannot be opened.
static ssize_t read_proc_file(const char* path, proc_text* text)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        return -1;
    }
    const ssize_t length = read(fd, text->data(), text->size() - 1);
    close(fd);
    text->at(length > 0 ? static_cast<size_t>(length) : 0) = '\0';
    return length > 0 ? length : 0;
}

static bool is_space(char letter)
{
    // isspace(3) is undefined for a negative char.
    return isspace(static_cast<unsigned char>(letter)) != 0;
}

void skip_ws(const char** p)
{
    while (is_space(**p)) {
        ++*p;
    }
}

const char* skip_white(const char* ptr)
{
    if (ptr == nullptr) {
        return nullptr;
    }
    skip_ws(&ptr);
    return *ptr == '\0' || *ptr == '#' ? nullptr : ptr;
}

const char* skip_not_white(const char* ptr)
{
    if (ptr == nullptr) {
        return nullptr;
    }
    while (*ptr != '\0' && !is_space(*ptr)) {
        ++ptr;
    }
    return *ptr == '\0' ? nullptr : ptr;
}

const char* skiptoken(const char* ptr)
{
    return skip_white(skip_not_white(skip_white(ptr)));
}

// Needs no test between the steps: each passes a null on.
static const char* skiptokens(const char* ptr, int count)
{
    for (int i = 0; i < count; ++i) {
        ptr = skiptoken(ptr);
    }
    return ptr;
}

static bool begins_with(const char* text, const char* key)
{
    return strncmp(text, key, strlen(key)) == 0;
}

// Parses the number at *cursor and moves the cursor past it.
static uint64_t take_number(const char** cursor)
{
    char* end = nullptr;
    const uint64_t number = strtoul(*cursor, &end, 10);
    *cursor = end;
    return number;
}

// Parses the token after the key at *cursor and moves the cursor past it. Without such a token, returns 0
// and leaves the cursor.
static uint64_t take_value(const char** cursor)
{
    const char* value = skiptoken(*cursor);
    if (value == nullptr) {
        return 0;
    }
    *cursor = value;
    return take_number(cursor);
}

int halvo_system_memory_usage(halvo_vm_info_st* vm_info)
{
    proc_text text;
    uint64_t total = 0;
    uint64_t free = 0;
    if (read_proc_file("/proc/meminfo", &text) == -1) {
        halvo_log(LOG_ERR, "unable to open /proc/meminfo\n");
        return -1;
    }
    // One forward scan: both lines stand before "Cached:".
    for (const char* cursor = text.data(); *cursor != '\0' && !begins_with(cursor, "Cached:");) {
        const char* before = cursor;
        if (begins_with(cursor, "MemTotal:")) {
            total = take_value(&cursor);
        } else if (begins_with(cursor, "MemFree:")) {
            free = take_value(&cursor);
        }
        if (cursor == before) {
            ++cursor;
        }
    }
    const std::lock_guard guard(halvo_table_lock_g);
    vm_info->total_memory = static_cast<uint32_t>(total);
    vm_info->free_memory = static_cast<uint32_t>(free);
    vm_info->used_memory = static_cast<uint32_t>(total - free);
    return 0;
}

int halvo_process_memory_usage(halvo_child_proc_info_st* proc_info)
{
    proc_text text;
    proc_path path;
    uint64_t data = 0;
    uint64_t peak = 0;
    const pid_t pid = halvo_held_pid(proc_info);
    snprintf(path.data(), path.size(), "/proc/%d/status", pid);
    if (read_proc_file(path.data(), &text) == -1) {
        halvo_log(LOG_ERR, "unable to open /proc/%d/status", pid);
        return -1;
    }
    for (const char* cursor = text.data(); cursor != nullptr && *cursor != '\0';) {
        if (begins_with(cursor, "VmData:")) {
            data = take_value(&cursor);
        } else if (begins_with(cursor, "VmPeak:")) {
            peak = take_value(&cursor);
        }
        const char* line_end = strchr(cursor, '\n');
        cursor = line_end == nullptr ? nullptr : line_end + 1;
    }
    const std::lock_guard guard(halvo_table_lock_g);
    proc_info->kbytes_used = static_cast<uint32_t>(data);
    proc_info->max_kbytes_used = static_cast<uint32_t>(peak);
    return 0;
}

// Stores a share in percent. If a counter went back, as after a snapshot of another process, the unsigned
// difference wraps around and the share is far above 100. The field then keeps its value.
static void store_percent(float* field, uint64_t ticks, float total)
{
    const float percent = static_cast<float>(ticks * 100) / total;
    if (percent >= 0.0F && percent <= 100.0F) {
        *field = percent;
    }
}

// Returns 0, or -1 when the text is not that of /proc/stat.
static int parse_system_cpu(const char* text, sys_cpu_usage_info_st* usage)
{
    const char* cursor = skiptoken(text);
    if (cursor == nullptr) {
        return -1;
    }
    for (uint64_t* counter : {&usage->user_time, &usage->nice_time, &usage->kernel_time, &usage->idle_time,
                              &usage->io_time, &usage->x_time, &usage->y_time, &usage->z_time}) {
        *counter = take_number(&cursor);
    }
    return 0;
}

static uint64_t sum_of(const sys_cpu_usage_info_st& usage)
{
    return usage.user_time + usage.nice_time + usage.kernel_time + usage.idle_time + usage.io_time +
           usage.x_time + usage.y_time + usage.z_time;
}

int halvo_system_cpu_usage(uint64_t* tot_cpu_usage_in_mon_intvl, halvo_vm_info_st* vm_info)
{
    proc_text text;
    sys_cpu_usage_info_st usage{};
    const ssize_t length = read_proc_file("/proc/stat", &text);
    if (length == -1) {
        halvo_log(LOG_ERR, "unable to open /proc/stat");
    }
    if (length <= 0 || parse_system_cpu(text.data(), &usage) != 0) {
        return -1;
    }
    const std::lock_guard guard(halvo_table_lock_g);
    const uint64_t interval = sum_of(usage) - sum_of(sys_cpu_usage);
    if (vm_info->cpu_usage_data_init == FALSE) {
        *tot_cpu_usage_in_mon_intvl = 0;
        vm_info->cpu_usage_data_init = TRUE;
    } else {
        *tot_cpu_usage_in_mon_intvl = interval;
        // Two samples within one clock tick have no share to compute.
        if (interval != 0) {
            const uint64_t user = usage.user_time - sys_cpu_usage.user_time;
            const uint64_t kernel = usage.kernel_time - sys_cpu_usage.kernel_time;
            const auto total = static_cast<float>(interval);
            store_percent(&vm_info->cpu_user, user, total);
            store_percent(&vm_info->cpu_kernel, kernel, total);
            store_percent(&vm_info->cpu_idle, usage.idle_time - sys_cpu_usage.idle_time, total);
            store_percent(&vm_info->cpu_tot_usage, kernel + user, total);
        }
    }
    sys_cpu_usage = usage;
    return 0;
}

// Returns 0, or -1 when the text is not that of /proc/PID/stat. The name in it may hold blanks and
// parentheses, so the fields are counted from its last ")".
static int parse_process_cpu(const char* text, proc_cpu_usage_info_st* usage)
{
    const char* name = strchr(text, '(');
    const char* cursor = name == nullptr ? nullptr : strrchr(name, ')');
    if (cursor == nullptr) {
        halvo_log(LOG_ERR, "Could not get proc name\n");
        return -1;
    }
    ++cursor;
    skip_ws(&cursor);
    if (*cursor != '\0') {
        ++cursor;  // the state, field 3
    }
    cursor = skiptokens(cursor, 10);
    if (cursor == nullptr) {
        return -1;
    }
    usage->utime = take_number(&cursor);  // field 14
    usage->stime = take_number(&cursor);
    cursor = skiptokens(cursor, 2);
    if (cursor == nullptr) {
        return -1;
    }
    char* end = nullptr;
    usage->prio = static_cast<int>(strtol(cursor, &end, 10));  // field 18
    cursor = skiptokens(end, 3);
    if (cursor == nullptr) {
        return -1;
    }
    usage->start_time = strtoull(cursor, nullptr, 10);  // field 22
    return 0;
}

int halvo_process_cpu_usage(uint64_t tot_cpu_usage_in_mon_intvl, halvo_child_proc_info_st* proc_info,
                            int index)
{
    proc_text text;
    proc_path path;
    proc_cpu_usage_info_st usage{};
    const pid_t pid = halvo_held_pid(proc_info);
    snprintf(path.data(), path.size(), "/proc/%d/stat", pid);
    const ssize_t length = read_proc_file(path.data(), &text);
    if (length == -1) {
        halvo_log(LOG_ERR, "unable to open /proc/%d/stat", pid);
    }
    if (length <= 0 || parse_process_cpu(text.data(), &usage) != 0) {
        return -1;
    }
    proc_cpu_usage_info_st& last = proc_cpu_usage.at(static_cast<size_t>(index));
    const std::lock_guard guard(halvo_table_lock_g);
    const bool first_sample = proc_info->cpu_usage_data_init == FALSE;
    if (!first_sample && tot_cpu_usage_in_mon_intvl != 0) {
        const uint64_t user = usage.utime - last.utime;
        const uint64_t kernel = usage.stime - last.stime;
        const auto total = static_cast<float>(tot_cpu_usage_in_mon_intvl);
        store_percent(&proc_info->proc_cpu_tot_usage, user + kernel, total);
        store_percent(&proc_info->proc_cpu_user, user, total);
        store_percent(&proc_info->proc_cpu_kernel, kernel, total);
    }
    proc_info->cpu_usage_data_init = TRUE;
    last = usage;
    if (!first_sample) {
        halvo_log(LOG_DEBUG, "Total CPU usage (kernel+user) of process '%s' = %.1f%%\n", proc_info->proc_name,
                  static_cast<double>(proc_info->proc_cpu_tot_usage));
    }
    return 0;
}
