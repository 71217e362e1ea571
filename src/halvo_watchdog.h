// The watchdog device that the hypervisor emulates, and the thread that tickles it.
//
// Opening the device arms it. From then on the hypervisor takes the VM down unless a keepalive arrives
// within the timeout. Only halvo_close_watchdog_dev()
// disarms the device: a daemon that dies by any other way leaves it armed.
//
// The room's own lock guards wd_dev_fd and every call on it. It is never held while logging or sleeping,
// so that a stuck log daemon can not keep the keepalives from the device. For the device's interface see
// the kernel's watchdog-api text.

#pragma once

#include "halvo_private.h"

// Opens the device, programs wd_timeout (seconds) and lets the thread tickle. Returns 0, also when
// vm_failover_flag is DISABLE and nothing is opened, or -1 with a message, the device disarmed and closed.
// Main thread at start-up, control thread later; never while the device is open.
int halvo_watchdog_init(halvo_vm_info_st* vm_info);

// Sets vm_failover_flag to ENABLE, where it stays, and does the same. Control thread.
int halvo_switch_failover_on(halvo_vm_info_st* vm_info);

// Stops the keepalives, then disarms and closes the device. Returns -1 when it was not open. Any thread.
int halvo_watchdog_stop(halvo_vm_info_st* vm_info);

// Stops the keepalives and leaves the device armed, so that the VM fails over. Called where vm_failover_flag
// is ENABLE, before the first line about it is logged: a stuck log daemon must not hold a failover back. Any
// thread, takes no lock.
void halvo_request_failover(halvo_vm_info_st* vm_info);

// Disarms and closes the device. Returns -1 when it was not open. Any thread.
int halvo_close_watchdog_dev(halvo_vm_info_st* vm_info);

// The service thread "halvo_watchdog"; thread_arg is the VM record. Never returns.
void* halvo_watchdog_thread(void* thread_arg);
