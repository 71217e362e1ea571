// The heartbeat: a 4-byte UDP datagram to the peer every 50 ms for as long as the data-plane process
// "lunet" is alive and no supervised process has been lost. Once stopped it stays stopped.
//
// All functions run on the heartbeat thread. That thread alone touches the heartbeat fields of the VM
// record, except for stop_heartbeat, which other threads set. It takes no lock but the log's. A healthy
// wake-up makes six system calls and allocates nothing. The timer uses the monotonic clock, so that setting
// the wall clock neither delays nor hastens a beat.

#pragma once

#include <cstdint>

#include "halvo_private.h"

// The datagram: the bytes AB BA DC FE, in this order on every host.
struct halvo_heartbeat_payload_t {
    uint32_t magic_number;
};

// Creates the timer descriptor, see timerfd_create(2). Returns 0, or -1 with a message.
int halvo_heartbeat_init_timer(halvo_vm_info_st* vm_info);

// Makes the timer expire every 50 ms, for the first time 50 ms from now. Returns 0, or -1 with a message.
int halvo_heartbeat_start_timer(halvo_vm_info_st* vm_info);

// Reads both addresses from the address file. If the file cannot be opened, both keep their values; if a
// line is faulty, both get their defaults. Returns 0.
int halvo_heartbeat_ip_init(halvo_vm_info_st* vm_info);

// Converts the token at *hbuf into an address in network byte order, see inet_aton(3). Moves *hbuf past the
// token and the character after it, but never past the end of the text. Returns 0, or -1 when the token is
// not an address; *hbuf and *ipaddr then keep their values.
int halvo_read_str_to_ip(const char** hbuf, uint32_t* ipaddr);

// Creates the UDP socket, see udp(7). Returns 0, or -1 with a message.
int halvo_socket_init(halvo_vm_info_st* vm_info);

// Fills the send buffer and the destination address. The heartbeat's addresses must have been read.
void halvo_init_heartbeat_payload(halvo_vm_info_st* vm_info);

// Sends one datagram unless stop_heartbeat is set. A failure is logged; the next wake-up tries again.
void halvo_send_keepalive(halvo_vm_info_st* vm_info);

// Asks pidof(8) for the pid of "lunet" and stores it, or 0 when there is none. Returns 0, or -1 with a
// message when pidof cannot be run.
int halvo_init_lunet_pid(halvo_vm_info_st* vm_info);

// Returns 0 while the stored pid still belongs to "lunet", else -1.
int halvo_check_lunet_pid_status(halvo_vm_info_st* vm_info);

// The service thread "halvo_heartbeat_cp"; thread_arg is the VM record. Never returns.
void* halvo_heartbeat_thread(void* thread_arg);
