// The control channel's server: one thread that serves one connection after the other, each with one
// request and one reply.
//
// Requests never overlap, so an update needs no lock against another one. A silent client delays the next
// by 5 seconds at most. The thread repeats a failed bind, listen or accept every second for as long as the
// daemon runs: without the channel no operator could switch failover off.

#pragma once

#include "halvo_ctrl_record.h"

// Switches VM failover off and disarms the watchdog. The acknowledgement goes to ack_msg, ACK_MSG_SIZE
// bytes, or to the log if ack_msg is null. Returns 0 when failover is off afterwards, or -1 with a message
// when the watchdog could not be stopped. Control thread, without the table lock.
int halvo_disable_vm_failover(char* ack_msg);

// Carries out the request in a received record and builds the reply in it. An unknown type gets a reply
// that says so. Returns the line to log if the reply cannot be sent. Control thread, without the table
// lock.
const char* halvo_answer_request(halvo_ctrl_handler_st* record);

// The service thread "halvo_ctrl_handler"; its argument is not used. Never returns. See unix(7).
void* halvo_ctrl_handler_thread(void* arg);
