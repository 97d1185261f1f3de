// Fibre Channel and SCSI fields are big-endian on the wire, whatever the host.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vxsim::drv {

inline void put_be(uint8_t* p, uint64_t v, size_t n) {
    for (size_t i = 0; i < n; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * (n - 1 - i)));
}

inline uint64_t get_be(const uint8_t* p, size_t n) {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i)
        v = (v << 8) | p[i];
    return v;
}

}  // namespace vxsim::drv
