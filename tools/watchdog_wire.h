// The protocol between the preloaded library and the host on the simulated device's socket. The host answers
// an open with one record; each ioctl is one record to the host and one back. Anything else is data that the
// daemon itself wrote to the device.

#pragma once

#include <cstdint>

constexpr uint32_t WATCHDOG_WIRE_MAGIC = 0x57444f47;  // nobody writes this to a watchdog by chance

struct watchdog_wire_st {
    uint32_t magic;
    uint32_t request;
    int32_t value;
    int32_t error;  // errno of the answer, 0 = success
};
