// The SCSI targets behind the remote ports: one engine that every path
// (extended-ioctl pass-through, SCSI generic and disk nodes) hands its CDBs
// to. It answers as a target does, whatever the transport: a status byte,
// the data-in it would send (already cut to the CDB's allocation length) and
// fixed-format sense with CHECK CONDITION. The transports fit the data into
// their caller's buffer and report what did not fit in their own way.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "model.h"

namespace vxsim::drv {

// Sense keys and additional sense codes the targets report.
enum : uint8_t {
    SENSE_NO_SENSE = 0x0,
    SENSE_NOT_READY = 0x2,
    SENSE_ILLEGAL_REQUEST = 0x5,
};
struct SenseCode {
    uint8_t key, asc, ascq;
};
inline constexpr SenseCode INVALID_COMMAND_OPERATION_CODE{SENSE_ILLEGAL_REQUEST, 0x20, 0x00};
inline constexpr SenseCode INVALID_FIELD_IN_CDB{SENSE_ILLEGAL_REQUEST, 0x24, 0x00};
inline constexpr SenseCode LOGICAL_UNIT_NOT_SUPPORTED{SENSE_ILLEGAL_REQUEST, 0x25, 0x00};
inline constexpr SenseCode MEDIUM_NOT_PRESENT{SENSE_NOT_READY, 0x3A, 0x00};

// Fixed-format sense data (response code 0x70), 18 bytes.
std::vector<uint8_t> fixed_sense(SenseCode code);

struct ScsiOutcome {
    uint8_t status = 0;          // SCSI status byte (EXT_SCSI_STATUS_*)
    std::vector<uint8_t> data;   // data-in the target sends
    std::vector<uint8_t> sense;  // with CHECK CONDITION
};

// The LUN a request names: the number as the SCSI midlayer has it (16640 for
// flat LUN 256), or else the number it decodes to (256). Null when absent.
const Lun* find_lun(const RemotePort& target, uint32_t lun);

// The 8-byte SCSI LUN of a midlayer number (peripheral below 256, flat
// addressing as the number's top bits say).
std::array<uint8_t, 8> scsi_lun_bytes(uint16_t lun);

// Unit serial number (VPD page 0x80): the scenario's, or one made from the
// port name and the LUN.
std::string lun_serial(const RemotePort& target, const Lun& lun);

// Runs one command on `target`; `lun` null means the command addressed a
// LUN the target does not have. Commands: TEST UNIT READY, REQUEST SENSE,
// INQUIRY (standard data; EVPD pages 0x00, 0x80, 0x83), READ CAPACITY(10),
// READ CAPACITY(16), REPORT LUNS. `cdb_len` is at least 1; bytes past it
// read as zero, as in an FCP command.
ScsiOutcome scsi_execute(const RemotePort& target, const Lun* lun, const uint8_t* cdb, size_t cdb_len);

}  // namespace vxsim::drv
