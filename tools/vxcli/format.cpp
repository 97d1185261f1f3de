#include "format.h"

#include <fmt/format.h>

#include <cstring>

namespace vxcli {

namespace {

struct Speed {
    uint32_t code;
    unsigned gbps;
};
// The codes read as decimal digits in hexadecimal for 16 and 32 Gbit.
constexpr Speed SPEEDS[] = {{0x01, 1}, {0x02, 2}, {0x04, 4}, {0x08, 8}, {0x10, 10}, {0x16, 16}, {0x32, 32}};

constexpr double PCIE_RATES[] = {2.5, 5.0, 8.0, 16.0, 32.0};  // link speed codes 1 to 5

}  // namespace

std::string wwn_text(const uint8_t* w) {
    return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", w[0], w[1], w[2], w[3], w[4], w[5],
                       w[6], w[7]);
}

std::string wwn_text(uint64_t wwn) {
    uint8_t bytes[8];
    for (int i = 7; i >= 0; --i, wwn >>= 8)
        bytes[i] = static_cast<uint8_t>(wwn);
    return wwn_text(bytes);
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

std::optional<unsigned> speed_gbps(uint32_t code) {
    for (const Speed& s : SPEEDS)
        if (s.code == code)
            return s.gbps;
    return std::nullopt;
}

std::string speed_text(uint32_t code) {
    if (code == 0)
        return "unknown";
    const auto gbps = speed_gbps(code);
    return gbps ? fmt::format("{} Gbit", *gbps) : hex_text(code);
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

std::optional<double> pcie_link_gts(uint16_t link) {
    const unsigned code = link & 0xF;
    if (code == 0 || code > std::size(PCIE_RATES))
        return std::nullopt;
    return PCIE_RATES[code - 1];
}

unsigned pcie_link_width(uint16_t link) { return (link >> 4) & 0x3F; }

std::string pcie_link_text(uint16_t link) {
    const auto gts = pcie_link_gts(link);
    const unsigned width = pcie_link_width(link);
    if ((link & 0xF) == 0 && width == 0)
        return "unknown";
    return fmt::format("{} GT/s x{}", gts ? fmt::format("{:.1f}", *gts) : "?", width);
}

std::string mac_text(const uint8_t* m) {
    return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", m[0], m[1], m[2], m[3], m[4], m[5]);
}

}  // namespace vxcli
