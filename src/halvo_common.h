// Definitions that every module uses: the two-valued type, the codes for the configuration's words, and the
// accessors for the whole-int flags that threads share without a lock. No state.

#pragma once

#include <cstdint>

// A 32-bit truth value with a fixed layout for the records.
enum halvo_bool_en : int32_t { FALSE = 0, TRUE = 1 };

// Field `action`: the reaction to a lost process or a crossed limit.
constexpr int NOP = 1;
constexpr int PROC_RESTART = 2;
constexpr int VM_FAILOVER = 3;

// Fields `vm_failover_flag` and `debug_mode_flag`.
constexpr int ENABLE = 1;
constexpr int DISABLE = 2;

// Logged wherever a failover is due but switched off.
constexpr char FAILOVER_DISABLED_LINE[] =
    "VM failover will not happen since vm_failover is disabled in halvo config file\n";

// Read and write a flag that several threads share, with sequential consistency. Some protocols depend on
// the order of two flags, see halvo_watchdog_thread(). A volatile int without them is a data race. Any
// thread, no lock.
template <typename T>
inline T halvo_load(const volatile T& flag)
{
    return __atomic_load_n(&flag, __ATOMIC_SEQ_CST);
}

template <typename T>
inline void halvo_store(volatile T& flag, T value)
{
    __atomic_store_n(&flag, value, __ATOMIC_SEQ_CST);
}
