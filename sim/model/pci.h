// PCI facts of a simulated function that the scenario does not describe:
// its BARs, its PCIe link and the flash's erase block. Plausible fixed values
// derived from the PCI address and the device id, shared by the sysfs tree
// and the driver's ioctl answers so that both channels tell the same story.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

#include "vx_adapters.h"

namespace vxsim {

// Boards whose driver reports which image set runs: the two-image-set
// families, and the newest family, whose online update reloads it.
inline bool reports_image_set(uint16_t device_id) {
    return vx_adapter_has(device_id, VX_MARK_ACTIVE_IMAGE) || vx_adapter_family(device_id) == vx_family::Crane;
}

// One line of a PCI function's "resource" attribute.
struct PciBar {
    uint64_t start = 0;
    uint64_t end = 0;
    uint64_t flags = 0;
};

inline constexpr uint64_t PCI_BAR_IO_FLAGS = 0x40101;   // I/O ports
inline constexpr uint64_t PCI_BAR_MEM_FLAGS = 0x40200;  // 32-bit memory
inline constexpr size_t PCI_RESOURCE_LINES = 13;        // BARs, ROM, bridge windows
inline constexpr uint64_t PCI_IO_LEN = 0x100;
inline constexpr uint64_t PCI_MEM_LEN = 0x4000;
inline constexpr uint32_t FLASH_BLOCK_SIZE = 0x10000;  // scsi_host flash_block_size

// BAR 0: 256 I/O ports, BAR 1: 16 KiB of registers; every other line empty.
inline std::array<PciBar, PCI_RESOURCE_LINES> pci_bars(const std::string& pci_address) {
    unsigned domain = 0, bus = 0, dev = 0, fn = 0;
    std::sscanf(pci_address.c_str(), "%x:%x:%x.%x", &domain, &bus, &dev, &fn);
    std::array<PciBar, PCI_RESOURCE_LINES> bars{};
    const uint64_t io = 0x2000 + ((bus * 8 + fn) % 0xE0) * PCI_IO_LEN;
    const uint64_t mem = 0xC0000000u + (static_cast<uint64_t>(bus & 0xFF) << 22) + (((dev & 0x1F) << 3 | (fn & 7)) << 14);
    bars[0] = {io, io + PCI_IO_LEN - 1, PCI_BAR_IO_FLAGS};
    bars[1] = {mem, mem + PCI_MEM_LEN - 1, PCI_BAR_MEM_FLAGS};
    return bars;
}

struct PcieLink {
    const char* speed;  // kernel text, "8.0 GT/s PCIe"
    unsigned width;
};

// The link each family's boards train to (maximum and current alike).
inline PcieLink pcie_link(uint16_t device_id) {
    switch (vx_adapter_family(device_id)) {
    case vx_family::Kite:
    case vx_family::Lark:
    case vx_family::Wren:
    case vx_family::Ibis: return {"5.0 GT/s PCIe", 8};
    case vx_family::Plover:
    case vx_family::Tern: return {"8.0 GT/s PCIe", 8};
    case vx_family::Crane: return {"16.0 GT/s PCIe", 8};
    default: return {"2.5 GT/s PCIe", 4};
    }
}

}  // namespace vxsim
