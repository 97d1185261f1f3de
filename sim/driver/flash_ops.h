// The driver's flash requests, shared by the bsg vendor commands and the
// extended-ioctl commands: raw reads and writes of the adapter's flash file,
// the region table the driver knows, the flash-update capabilities and the
// running processor versions. Results follow the kernel's convention.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "exioct.h"
#include "flash.h"
#include "model.h"
#include "sim.h"

namespace vxsim::drv {

// Bytes of the adapter's flash file; 0 when it cannot be read.
uint64_t flash_bytes(const Sim& sim, const Adapter& a);

// [offset, offset + len) of the flash into `out`. -EINVAL when the range
// leaves the flash.
long flash_read(const Sim& sim, const Adapter& a, uint64_t offset, size_t len, std::vector<uint8_t>& out);
// `len` bytes at `offset`. `partial`: only the first half reaches the flash
// and the write fails with EIO, as when the part dies mid-programming.
long flash_write(const Sim& sim, const Adapter& a, uint64_t offset, const uint8_t* data, size_t len, bool partial);

// Where a region code lies for the driver: 0 and 0xFF the whole flash, any
// other code its row of the adapter's region table.
std::optional<FlashRange> driver_region(const Adapter& a, uint32_t code, uint64_t flash_size);

// The 32-byte capabilities record (EXT_FLASH_UPDATE_CAPS): the running
// firmware's attribute bits and the outage of an online start; only the
// boards with online activation have any, the others answer zeros.
std::array<uint8_t, EXT_FLASH_CAPS_LEN> flash_caps(const Adapter& a);
inline constexpr uint64_t RUNNING_FW_ATTRIBUTES = 0x0000000100000003ull;
inline constexpr uint32_t ONLINE_OUTAGE_SECONDS = 2;
// The answer to a set: the driver status for the new firmware's attributes
// in `caps` (`len` bytes). 0 when they can start online: the running
// firmware and the new one both start online and share the interface
// generation; else 6 (invalid parameter).
uint32_t check_new_attributes(const Adapter& a, const uint8_t* caps, size_t len);

// Running processor versions (MPI, and EDC or PEP) of the boards that have them.
EXT_ADAPTER_VERSIONS adapter_versions(const Adapter& a);
// The running EDC version the tree shows ("" for boards without one).
std::string running_edc_version(const Adapter& a);

}  // namespace vxsim::drv
