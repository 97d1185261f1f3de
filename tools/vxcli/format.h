// Texts of the values the SD records carry.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace vxcli {

// "21:00:00:1d:5a:02:51:42"
std::string wwn_text(const uint8_t* wwn);
std::string wwn_text(uint64_t wwn);
// "0x010200" from the three address bytes
std::string port_id_text(const uint8_t* id);
// A text field that need not be terminated.
std::string field_text(const char* text, size_t size);
inline std::string field_text(const uint8_t* text, size_t size) {
    return field_text(reinterpret_cast<const char*>(text), size);
}
// "8.05.63" from `n` binary version numbers.
std::string version_text(const uint8_t* numbers, size_t n);
// "0x1d5a"
std::string hex_text(uint64_t value, int digits = 0);
// The driver's speed code ("16 Gbit"); "unknown" for 0.
std::string speed_text(uint32_t code);
// The same in Gbit/s; empty for 0 and unknown codes.
std::optional<unsigned> speed_gbps(uint32_t code);
// "online", "unknown", "link down" (DEVICEPORTPROPERTY::PortState).
std::string port_state_text(uint8_t state);
// "physical", "virtual" (InterfaceType).
std::string interface_text(uint16_t type);
// "point-to-point", "loop" (ConnectionMode).
std::string connection_text(uint8_t mode);
// PCIe link register value: "8.0 GT/s x8"; its rate (empty when the code is
// unknown) and width.
std::string pcie_link_text(uint16_t link);
std::optional<double> pcie_link_gts(uint16_t link);
unsigned pcie_link_width(uint16_t link);
// "00:1d:5a:01:40:17"
std::string mac_text(const uint8_t* mac);

}  // namespace vxcli
