// The watermark checks: compare the latest usage figures with the configured limits and carry out the
// recovery action of each crossing. They keep no state: a condition that persists acts in every interval.
//
// One entry's four checks run under one hold of the table lock, the kill included: two crossings hit one
// process, and never its successor. Main thread only.

#pragma once

#include "halvo_private.h"

// Runs all checks on the running tables, without the table lock. Returns 0, or -1 at the first action that
// fails; the rest of the interval's checks are then skipped.
int halvo_check_high_low_watermark();

// Carries out one action for one crossing, of a process or, with a null proc_info, of the VM. Returns -1
// when a process could not be killed, else 0. Table lock held.
int halvo_take_watermarK_recovery_action(int action, halvo_child_proc_info_st* proc_info);
