// Flash content of a simulated adapter, built from the model: boot images with
// PCI expansion-ROM headers, firmware-type images, the flash layout table and
// its locator, the flash description, NVRAM and VPD. The bytes follow the
// formats the management library parses; docs/simulator.md ("Flash content")
// describes every record and the region tables per family.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "model.h"
#include "vx_adapters.h"

namespace vxsim {

// The adapter's family as its flash sees it: a Finch board with HP subsystem
// ids carries the HP layout. Unknown device ids give vx_family::Unknown.
vx_family flash_family(const Adapter& a);

// Whole flash image, as large as the adapter table says. Empty for a device id
// the table does not know.
std::vector<uint8_t> build_flash(const Adapter& a);

// NVRAM image of physical port fn (its PCI function number): 512 bytes for
// the Swift generation and the FLT families, 256 bytes for the older ones.
// Port and node names come from the function with that number (zero when the
// scenario has none). Empty for an unknown device id.
std::vector<uint8_t> build_nvram(const Adapter& a, size_t fn);

// Stores the checksum of an NVRAM image of `size` bytes: the 512-byte
// layout's last little-endian word makes the 128 words sum to 0, the
// 256-byte layout's last byte makes the bytes sum to 0 modulo 256. Shorter
// images are left alone.
void set_nvram_checksum(uint8_t* image, size_t size);

// VPD image of physical port fn: 512 bytes, 1024 on Wren, Tern and Ibis,
// with the adapter's VpdContent.
std::vector<uint8_t> build_vpd(const Adapter& a, size_t fn);

struct FlashRange {
    uint32_t offset;
    uint32_t size;
};

// Where port fn's NVRAM / VPD lives inside the flash, or nullopt when the
// driver keeps it outside the flash (the simulator then keeps it in its own
// state file, see root.h nvram()/vpd()).
std::optional<FlashRange> nvram_in_flash(const Adapter& a, size_t fn);
std::optional<FlashRange> vpd_in_flash(const Adapter& a, size_t fn);

// The region table the adapter's flash carries (FLT families, without a
// whole-flash row) or the fixed table of its family (others, whole-flash row
// 0xFF first).
struct Region {
    uint32_t word;  // bits 0-7 region code, bit 16 read-only, bits 17-18 reset needed
    uint32_t size;
    uint32_t beg;
    uint32_t end;   // inclusive
};
std::vector<Region> flash_regions(const Adapter& a);

// Where the flash layout table and the flash description sit (FLT families),
// or nullopt.
std::optional<uint32_t> flt_address(const Adapter& a);
std::optional<uint32_t> fdt_address(const Adapter& a);

// "3.18" (parts 2) or "8.05.63" (parts 3): decimal numbers 0-255 separated by
// dots. Writes the numbers to out when it is not null.
bool parse_version(const std::string& text, size_t parts, uint32_t* out);

// PCI CodeRevision of a boot-image version: "3.18" -> 0x0312. 0 when malformed.
uint16_t code_revision(const std::string& version);

}  // namespace vxsim
