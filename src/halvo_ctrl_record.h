// The control channel's record: the form of requests and replies, the socket's address, and the functions
// that build a reply line by line. No state.
//
// The record travels as raw memory between two runs of the same executable on the same machine. One
// connection carries one request and one reply. The receiver trusts nothing: the type may be any number,
// the record may be short, and the text may lack its terminator.

#pragma once

#include <sys/un.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>

constexpr const char* HALVO_SOCKET = "/tmp/halvo_socket";
constexpr size_t MSG_BUFFER_SIZE = 8192;  // bytes of a report, the terminator included
constexpr size_t ACK_MSG_SIZE = 4096;     // bytes of an acknowledgement, the terminator included

enum ctrl_handler_msg_type_en : int32_t {
    INVALID_MSG = 0,
    GET_ALL_CONFIG = 1,
    GET_ALL_STATUS = 2,
    GET_VERSION = 3,  // declared only; neither sent nor served
    UPDATE_CONFIG = 4,
    DISABLE_VM_FAILOVER = 5
};

struct halvo_get_config_status_info_st {
    char msg_buffer[MSG_BUFFER_SIZE];
};

struct halvo_update_config_st {
    char ack_msg[ACK_MSG_SIZE];
};

union halvo_ch_message_un {
    halvo_get_config_status_info_st get_info;
    halvo_update_config_st update_config;
};

struct halvo_ctrl_handler_st {
    ctrl_handler_msg_type_en msg_type;
    halvo_ch_message_un message;
};

// The layout is fixed: after an upgrade, a new client may talk to an old daemon.
static_assert(sizeof(halvo_ctrl_handler_st) == 8196);
static_assert(offsetof(halvo_ctrl_handler_st, message) == 4);

// Returns the server's address, for bind(2) and connect(2) with its whole size. Any thread.
sockaddr_un halvo_socket_address();

// Append one line to `text`, a reply of `capacity` bytes. A line that does not fit is dropped, and a
// message logged; a later, shorter line may still fit. A line over 1023 characters is cut but keeps its
// line end. If text is null, the line is logged at LOG_INFO instead. Any thread, provided that no other
// thread uses the text.
void halvo_append_msg(char* text, size_t capacity, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void halvo_vappend_msg(char* text, size_t capacity, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));
