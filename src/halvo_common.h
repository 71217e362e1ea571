// Definitions that every room uses: the two-valued type, the codes that the configuration's words stand
// for, and the accessors for the whole-int flags that threads share without a lock.

#pragma once

#include <cstdint>

// A 32-bit truth value with a fixed layout for the records.
enum halvo_bool_en : int32_t { FALSE = 0, TRUE = 1 };

// Field `action`: what is done when a process is lost or crosses a limit.
constexpr int NOP = 1;
constexpr int PROC_RESTART = 2;
constexpr int VM_FAILOVER = 3;

// Fields `vm_failover_flag` and `debug_mode_flag`.
constexpr int ENABLE = 1;
constexpr int DISABLE = 2;

// What is logged wherever a failover would be due but is switched off.
constexpr char FAILOVER_DISABLED_LINE[] =
    "VM failover will not happen since vm_failover is disabled in halvo config file\n";

// Reads and writes a flag that other threads read and write too. A volatile int alone is a data race.
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
