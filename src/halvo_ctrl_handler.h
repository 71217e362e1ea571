// The control channel: the record that client and server exchange, and the server's end of it.
//
// The record travels as raw memory between two runs of the same executable on the same machine. One
// connection carries one request and one reply; connections are served one after the other. What arrives
// is not trusted: any type, any length, no terminator.

#pragma once

#include <sys/un.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "halvo_private.h"

constexpr const char* HALVO_SOCKET = "/tmp/halvo_socket";
constexpr size_t MSG_BUFFER_SIZE = 8192;  // bytes of a report, the terminator included
constexpr size_t ACK_MSG_SIZE = 4096;     // bytes of an acknowledgement, the terminator included

enum ctrl_handler_msg_type_en : int32_t {
    INVALID_MSG = 0,
    GET_ALL_CONFIG = 1,
    GET_ALL_STATUS = 2,
    GET_VERSION = 3,  // declared only; nobody sends or serves it
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

static_assert(sizeof(halvo_ctrl_handler_st) == 8196);
static_assert(offsetof(halvo_ctrl_handler_st, message) == 4);

// The server's address, the whole structure to be given to bind(2) and connect(2).
sockaddr_un halvo_socket_address();

// Appends one line to a reply text of that capacity in bytes. A line that does not fit is dropped with a
// message, one over 1023 characters is cut and keeps its line end. Without a text the line goes to the
// log at LOG_INFO. Any thread; the text must be the caller's alone.
void halvo_append_msg(char* text, size_t capacity, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void halvo_vappend_msg(char* text, size_t capacity, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

// Switches VM failover off and disarms the watchdog; the acknowledgement goes to ack_msg, ACK_MSG_SIZE
// bytes, or to the log when it is null. Returns 0 when failover is off afterwards, -1 when the watchdog
// could not be stopped. Control thread.
int halvo_disable_vm_failover(char* ack_msg);

// Carries out the request in a received record and builds the reply in it. Returns the line to be logged when
// the reply cannot be sent. Control thread.
const char* halvo_answer_request(halvo_ctrl_handler_st* record);

// The service thread "halvo_ctrl_handler"; arg is not used. Never returns.
void* halvo_ctrl_handler_thread(void* arg);
