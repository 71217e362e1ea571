// The heartbeat: a 4-byte UDP datagram to the peer every 50 ms for as long as the data-plane process
// "lunet" is alive and no supervised NORMAL process has been lost. Once stopped it stays stopped.
//
// Everything here runs on the heartbeat thread, which alone touches the heartbeat fields of the VM record;
// only stop_heartbeat is set from elsewhere. No lock but the log's is taken, and a healthy wake-up costs six
// system calls and allocates nothing. The timer runs on the monotonic clock.

#pragma once

#include <cstdint>

#include "halvo_private.h"

// What is sent: the bytes AB BA DC FE, whatever the host's byte order.
struct halvo_heartbeat_payload_t {
    uint32_t magic_number;
};

// Creates the timer descriptor, see timerfd_create(2). Returns 0 or -1.
int halvo_heartbeat_init_timer(halvo_vm_info_st* vm_info);

// Arms it at 50 ms. Returns 0 or -1.
int halvo_heartbeat_start_timer(halvo_vm_info_st* vm_info);

// Reads both addresses from the address file; where it cannot be opened they keep their values, where a line
// is faulty both get their defaults. Returns 0.
int halvo_heartbeat_ip_init(halvo_vm_info_st* vm_info);

// Converts the token at *hbuf into an address in network byte order, see inet_aton(3), and moves *hbuf one
// character past it, though never past the text's end. Returns -1 when it is none; *hbuf then stays.
int halvo_read_str_to_ip(const char** hbuf, uint32_t* ipaddr);

// Creates the UDP socket. Returns 0 or -1.
int halvo_socket_init(halvo_vm_info_st* vm_info);

// Fills the send buffer and the destination address.
void halvo_init_heartbeat_payload(halvo_vm_info_st* vm_info);

// Sends one datagram unless stop_heartbeat is set.
void halvo_send_keepalive(halvo_vm_info_st* vm_info);

// Finds the pid of "lunet", 0 when there is none. Returns -1 when pidof(8) cannot be run.
int halvo_init_lunet_pid(halvo_vm_info_st* vm_info);

// Returns 0 while that pid still belongs to "lunet", else -1.
int halvo_check_lunet_pid_status(halvo_vm_info_st* vm_info);

// The service thread "halvo_heartbeat_cp"; thread_arg is the VM record. Never returns.
void* halvo_heartbeat_thread(void* thread_arg);
