#include "format.h"

#include <fmt/format.h>

#include <cstring>

namespace vxcli {

std::string wwn_text(const uint8_t* w) {
    return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", w[0], w[1], w[2], w[3], w[4], w[5],
                       w[6], w[7]);
}

std::string port_id_text(const uint8_t* id) { return fmt::format("0x{:02x}{:02x}{:02x}", id[0], id[1], id[2]); }

std::string field_text(const char* text, size_t size) { return std::string(text, strnlen(text, size)); }

std::string version_text(const uint8_t* numbers, size_t n) {
    // As the version texts are written: "8.05.63", "4.02".
    std::string out;
    for (size_t i = 0; i < n; ++i)
        out += i == 0 ? std::to_string(numbers[i]) : fmt::format(".{:02}", numbers[i]);
    return out;
}

std::string hex_text(uint64_t value, int digits) { return fmt::format("0x{:0{}x}", value, digits); }

std::string speed_text(uint32_t code) {
    // The codes read as decimal digits in hexadecimal for 16 and 32 Gbit.
    switch (code) {
    case 0x01: return "1 Gbit";
    case 0x02: return "2 Gbit";
    case 0x04: return "4 Gbit";
    case 0x08: return "8 Gbit";
    case 0x10: return "10 Gbit";
    case 0x16: return "16 Gbit";
    case 0x32: return "32 Gbit";
    case 0: return "unknown";
    default: return hex_text(code);
    }
}

std::string port_state_text(uint8_t state) {
    switch (state) {
    case 1: return "online";
    case 3: return "link down";
    default: return "unknown";
    }
}

std::string interface_text(uint16_t type) {
    switch (type) {
    case 1: return "physical";
    case 3: return "virtual";
    default: return std::to_string(type);
    }
}

std::string connection_text(uint8_t mode) {
    switch (mode) {
    case 1: return "point-to-point";
    case 2: return "loop";
    default: return "unknown";
    }
}

std::string pcie_link_text(uint16_t link) {
    static constexpr const char* speeds[] = {"?", "2.5", "5.0", "8.0", "16.0", "32.0"};
    const unsigned speed = link & 0xF;
    const unsigned width = (link >> 4) & 0x3F;
    if (speed == 0 && width == 0)
        return "unknown";
    return fmt::format("{} GT/s x{}", speed < 6 ? speeds[speed] : "?", width);
}

}  // namespace vxcli
