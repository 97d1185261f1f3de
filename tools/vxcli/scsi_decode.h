// Decoding what targets and the fabric answer to pass-through requests:
// INQUIRY, READ CAPACITY and REPORT LUNS data, and name-server CT replies.
// Every decoder reads only the bytes it is given, whatever lengths the data
// claim.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vxcli::scsi {

struct Inquiry {
    uint8_t qualifier = 0;    // 0 connected, 1 not connected, 3 no such LUN
    uint8_t device_type = 0;  // 0 disk, 1 tape, 5 CD/DVD, 0x1F unknown
    uint8_t version = 0;
    std::string vendor, product, revision;  // trailing blanks removed
};
// Standard INQUIRY data; none when not even the first byte came.
std::optional<Inquiry> decode_inquiry(const uint8_t* data, size_t size);
// "disk", "tape", ..., or the type in hexadecimal.
std::string device_type_name(uint8_t type);

struct Capacity {
    uint64_t blocks = 0;  // last block address + 1
    uint32_t block_size = 0;
};
// READ CAPACITY(10) data (8 bytes).
std::optional<Capacity> decode_read_capacity(const uint8_t* data, size_t size);

struct Lun {
    uint8_t bytes[8] = {};
    uint32_t number = 0;  // by its addressing method; UINT32_MAX for extended addressing
};
struct LunList {
    uint32_t length = 0;     // the list length the data give, in bytes
    std::vector<Lun> luns;   // the entries that both the length and the data cover
};
// REPORT LUNS data; none when the 8-byte head did not come.
std::optional<LunList> decode_report_luns(const uint8_t* data, size_t size);

struct Sense {
    uint8_t key = 0, asc = 0, ascq = 0;
};
// Fixed-format sense data (response code 0x70 or 0x71); none for another
// format or when the bytes up to the qualifier did not come.
std::optional<Sense> decode_sense(const uint8_t* data, size_t size);
// "ILLEGAL REQUEST", "NOT READY", ...
std::string sense_key_name(uint8_t key);

// ---- Name server (FC-GS CT_IU) ----
inline constexpr uint16_t CT_GA_NXT = 0x0100;
inline constexpr uint16_t CT_GPN_ID = 0x0112;
inline constexpr uint16_t CT_GNN_ID = 0x0113;
inline constexpr uint16_t CT_GID_FT = 0x0171;
inline constexpr uint16_t CT_ACCEPT = 0x8002;
inline constexpr uint16_t CT_REJECT = 0x8001;
inline constexpr size_t CT_HEADER = 16;

// A name-server request: the CT_IU header, then one word of argument.
std::vector<uint8_t> ct_request(uint16_t command, uint32_t argument);

struct CtReply {
    uint16_t code = 0;  // CT_ACCEPT or CT_REJECT
    uint8_t reason = 0, explanation = 0;
    const uint8_t* payload = nullptr;
    size_t payload_size = 0;
};
std::optional<CtReply> decode_ct(const uint8_t* data, size_t size);
// GID_FT accept: the port ids up to the one marked last (or the end of the data).
std::vector<uint32_t> decode_port_ids(const CtReply& reply);
// GPN_ID / GNN_ID accept: the name; none when it did not come whole.
std::optional<uint64_t> decode_name(const CtReply& reply);

}  // namespace vxcli::scsi
