#include "halvo_ctrl_record.h"

#include <sys/socket.h>
#include <syslog.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "halvo_log.h"
#include "halvo_text.h"

sockaddr_un halvo_socket_address()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    halvo_copy_text(address.sun_path, sizeof(address.sun_path), HALVO_SOCKET);
    return address;
}

void halvo_vappend_msg(char* text, size_t capacity, const char* format, va_list args)
{
    if (text == nullptr) {
        halvo_vlog(LOG_INFO, format, args);
        return;
    }
    std::array<char, 1024> per_msg_buf;
    per_msg_buf.front() = '\0';  // an empty line if vsnprintf fails
    if (vsnprintf(per_msg_buf.data(), per_msg_buf.size(), format, args) >=
        static_cast<int>(per_msg_buf.size())) {
        // Without its line end, the next line would continue the cut one.
        per_msg_buf[per_msg_buf.size() - 2] = '\n';
    }
    // strnlen(3): a text that arrived without a terminator counts as full.
    const size_t text_length = strnlen(text, capacity);
    const size_t line_length = strlen(per_msg_buf.data());
    if (text_length + line_length >= capacity) {
        halvo_log(LOG_ALERT, "Control handler message buffer is full\n");
        return;
    }
    memcpy(text + text_length, per_msg_buf.data(), line_length + 1);
}

void halvo_append_msg(char* text, size_t capacity, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    halvo_vappend_msg(text, capacity, format, args);
    va_end(args);
}
