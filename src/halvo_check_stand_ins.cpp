#include <syslog.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "halvo_check_log.h"
#include "halvo_ctrl_handler.h"
#include "halvo_log.h"
#include "halvo_params.h"
#include "halvo_watchdog.h"

static bool line_open;  // the last message's: an error text may still belong to it

void halvo_log_close()
{
    if (std::exchange(line_open, false)) {
        fputc('\n', stderr);
    }
}

void halvo_log_hurry()
{
}

void halvo_vlog(int priority, const char* format, va_list args)
{
    if (priority > LOG_WARNING || halvo_check_silent_g) {
        return;
    }
    const int saved_errno = errno;
    std::array<char, 8192> buffer;
    vsnprintf(buffer.data(), buffer.size(), format, args);
    // A message that names its line begins with "FILE[line:N]: ".
    char* text = buffer.data();
    std::string place = halvo_config_file_g;
    if (strncmp(text, (place + "[line:").c_str(), place.size() + 6) == 0) {
        place += ":" + std::to_string(strtol(text + place.size() + 6, &text, 10));
        text += strlen("]: ");
    } else if (halvo_check_line_g != 0) {
        place += ":" + std::to_string(halvo_check_line_g);
    }
    text[std::string_view(text).find_last_not_of(" \n") + 1] = '\0';
    // A value from the file may hold what a terminal obeys.
    std::replace_if(
        text, text + strlen(text), [](unsigned char letter) { return iscntrl(letter) != 0; }, '?');
    halvo_log_close();
    fprintf(stderr, "%s: %s: %s", place.c_str(), priority == LOG_WARNING ? "warning" : "error", text);
    halvo_check_status_g = std::max(halvo_check_status_g, priority == LOG_WARNING ? 1 : 2);
    line_open = true;
    errno = saved_errno;
}

void halvo_log_errno(int)
{
    if (line_open && !halvo_check_silent_g) {
        fprintf(stderr, ": %s", strerror(errno));
    }
}

halvo_ctime_text halvo_ctime(time_t)
{
    return {};
}

pid_t halvo_fork()
{
    errno = ENOSYS;
    return -1;
}

// What is appended to an answer has been logged as well.
void halvo_append_msg(char*, size_t, const char*, ...)
{
}
void halvo_vappend_msg(char*, size_t, const char*, va_list)
{
}

int halvo_switch_failover_on(halvo_vm_info_st*)
{
    return -1;
}

int halvo_watchdog_stop(halvo_vm_info_st*)
{
    return -1;
}

void halvo_request_failover(halvo_vm_info_st*)
{
}
