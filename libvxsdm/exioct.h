// Extended-ioctl records: the requests and answers that cross the kernel
// boundary to the driver. Native byte order, natural alignment; every size
// and offset is pinned below.
#pragma once

#include <cstddef>
#include <cstdint>

// One asynchronous event entry (driver queue, shared event queues).
struct EXT_ASYNC_EVENT {
    uint32_t AsyncEventCode;  // 0: empty entry
    union {
        uint8_t Bytes[12];
        uint32_t Words[3];  // Words[1] (entry offset 8): host number of port events
    } Payload;
};
using _EXT_ASYNC_EVENT = EXT_ASYNC_EVENT;
static_assert(sizeof(EXT_ASYNC_EVENT) == 16);
static_assert(offsetof(EXT_ASYNC_EVENT, Payload) == 4);
