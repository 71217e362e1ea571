// The watermark checks: compare the latest usage figures with the configured limits and carry out the
// recovery action of each crossing. They keep no state: a limit that stays crossed acts in every interval.
//
// One entry's four checks run under one hold of the table lock, the kill included. So two crossings hit one
// process and never its successor. Main thread only.

#pragma once

#include "halvo_private.h"

// Runs all checks on the running tables. Returns 0, or -1 with a message at the first action that fails;
// the remaining checks of this interval are then skipped. Without the table lock.
int halvo_check_high_low_watermark();

// Carries out one action, a code of halvo_common.h, for one crossing of a process's limit or, if proc_info
// is null, of the VM's. Returns -1 with a message when a process could not be killed, else 0. The killed
// process is restarted later, when its loss is noticed. Table lock held.
int halvo_take_watermarK_recovery_action(int action, halvo_child_proc_info_st* proc_info);
