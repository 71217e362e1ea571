// The watchdog device that the hypervisor emulates, and the thread that tickles it.
//
// Opening the device arms it. From then on the hypervisor takes the VM down unless a keepalive arrives
// within the timeout. Four events disarm it: a stop, a close, a failed keepalive and a failed set-up. A
// daemon that dies leaves it armed, so that the VM fails over.
//
// The module's own lock guards wd_dev_fd and every call on it. It is never held while logging or sleeping.
// Two flags of the VM record steer the thread: wd_tick_flag permits keepalives, and vm_failover_flag
// decides whether their absence is meant as a failover. The kernel's watchdog-api text describes the
// device.

#pragma once

#include "halvo_private.h"

// Opens the device, programs wd_timeout (seconds) and permits keepalives. Returns 0, also when
// vm_failover_flag is DISABLE and nothing is opened, or -1 with a message, the device then disarmed and
// closed. Main thread, once, at start-up.
int halvo_watchdog_init(halvo_vm_info_st* vm_info);

// Arms the device like halvo_watchdog_init(), whatever vm_failover_flag says, and then sets that flag to
// ENABLE, even after a failure. Returns 0, or -1 with a message. Control thread, without the table lock;
// never while the device is open.
int halvo_switch_failover_on(halvo_vm_info_st* vm_info);

// Stops the keepalives, then disarms and closes the device. Returns 0, or -1 with a message when it was not
// open. Any thread.
int halvo_watchdog_stop(halvo_vm_info_st* vm_info);

// Stops the keepalives and leaves the device armed, so that the VM fails over within wd_timeout. The caller
// has seen that vm_failover_flag is ENABLE. Any thread; takes no lock, so that nothing can delay it.
void halvo_request_failover(halvo_vm_info_st* vm_info);

// Disarms and closes the device. Returns 0, or -1 with a message when it was not open. A failed disarming
// is logged and returns 0, since the device is closed. Any thread.
int halvo_close_watchdog_dev(halvo_vm_info_st* vm_info);

// The service thread "halvo_watchdog"; thread_arg is the VM record. Sends a keepalive every wd_tick_intvl
// seconds while wd_tick_flag is set. Never returns.
void* halvo_watchdog_thread(void* thread_arg);
