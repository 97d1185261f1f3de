// Internal records: option ROM regions and layouts, and the records that
// live in adapter flash (layout table locator and header, image directory,
// flash-part description, PCI expansion-ROM headers, firmware image header).
//
// Flash records are little-endian whatever the host; they are never
// overlaid on flash bytes but read field by field (vxapi_le16/vxapi_le32).
// The structs give names, sizes and offsets only.
#pragma once

#include <cstddef>
#include <cstdint>

// One region of an option ROM layout.
struct INT_OPT_ROM_REGION {
    uint32_t Region;  // bits 0-7 code, bit 16 read-only, bits 17-18 reset needed after a write
    uint32_t Size;
    uint32_t Beg;
    uint32_t End;     // inclusive
};
static_assert(sizeof(INT_OPT_ROM_REGION) == 16);
static_assert(offsetof(INT_OPT_ROM_REGION, Beg) == 8);

using OPT_ROM_TABLE = INT_OPT_ROM_REGION;

inline constexpr uint32_t VX_OPTROM_MAX_REGIONS = 255;

// A layout buffer: always 4088 bytes.
struct INT_OPT_ROM_LAYOUT {
    uint32_t Size;  // whole flash in bytes (0 for layouts read from the flash layout table)
    uint32_t NoOfRegions;
    INT_OPT_ROM_REGION Region[VX_OPTROM_MAX_REGIONS];
};
static_assert(sizeof(INT_OPT_ROM_LAYOUT) == 4088);
static_assert(offsetof(INT_OPT_ROM_LAYOUT, Region) == 8);

inline constexpr uint32_t VX_OPTROM_LAYOUT_SIZE = sizeof(INT_OPT_ROM_LAYOUT);

// Region word bits.
inline constexpr uint32_t VX_REGION_CODE_MASK = 0xFF;
inline constexpr uint32_t VX_REGION_READ_ONLY = 1u << 16;
inline constexpr uint32_t VX_REGION_RESET_MASK = 3u << 17;

inline constexpr uint32_t VX_REGION_WHOLE_FLASH = 0xFF;
inline constexpr uint32_t VX_REGION_RAW = 0xFFFF;  // offset and size are flash byte addresses

// Pointer to the flash layout table, stored just past the last boot image.
struct FLT_LOCATION {
    uint8_t sig[4];  // "QFLT"
    uint16_t start_lo;
    uint16_t start_hi;
    uint8_t version;
    uint8_t reserved[5];
    uint16_t checksum;  // the eight 16-bit words sum to 0
};
static_assert(sizeof(FLT_LOCATION) == 16);
static_assert(offsetof(FLT_LOCATION, start_hi) == 6);
static_assert(offsetof(FLT_LOCATION, version) == 8);
static_assert(offsetof(FLT_LOCATION, checksum) == 14);

// Flash layout table header, followed by length / 16 region entries.
struct FLT_HEADER {
    uint16_t version;  // 1
    uint16_t length;   // bytes of entries
    uint16_t checksum; // header and entries sum to 0 as 16-bit words
    uint16_t unused;
};
static_assert(sizeof(FLT_HEADER) == 8);
static_assert(offsetof(FLT_HEADER, checksum) == 4);

inline constexpr uint32_t VX_FLT_ENTRY_SIZE = 16;

// Image directory that may stand before the first boot image. Only
// `length` is used, and it is stored in the host's byte order.
struct QFIM_HEADER {
    uint8_t signature[4];  // "QFIM"
    uint16_t table_version;
    uint16_t length;
    uint16_t checksum;
    uint16_t no_of_entries;
    uint8_t card_type_list;
    uint8_t version[3];
    uint8_t reserved[16];
};
static_assert(sizeof(QFIM_HEADER) == 32);
static_assert(offsetof(QFIM_HEADER, length) == 6);
static_assert(offsetof(QFIM_HEADER, card_type_list) == 12);

// Flash-part description.
struct FDT_LAYOUT {
    uint8_t sig[4];  // "VXID"
    uint16_t version;
    uint16_t len;
    uint16_t checksum;  // the 64 16-bit words sum to 0
    uint8_t unused1[2];
    uint8_t model[16];
    uint16_t man_id;
    uint16_t id;
    uint8_t flags;
    uint8_t erase_cmd;
    uint8_t alt_erase_cmd;
    uint8_t wrt_enable_cmd;
    uint8_t wrt_enable_bits;
    uint8_t wrt_sts_reg_cmd;
    uint8_t unprotect_sec_cmd;
    uint8_t read_man_id_cmd;
    uint32_t block_size;
    uint32_t alt_block_size;
    uint32_t flash_size;
    uint32_t wrt_enable_data;
    uint8_t read_id_addr_len;
    uint8_t wrt_disable_bits;
    uint8_t read_dev_id_len;
    uint8_t chip_erase_cmd;
    uint16_t read_timeout;
    uint8_t protect_sec_cmd;
    uint8_t unused2[65];
};
static_assert(sizeof(FDT_LAYOUT) == 128);
static_assert(offsetof(FDT_LAYOUT, model) == 12);
static_assert(offsetof(FDT_LAYOUT, man_id) == 28);
static_assert(offsetof(FDT_LAYOUT, flags) == 32);
static_assert(offsetof(FDT_LAYOUT, read_man_id_cmd) == 39);
static_assert(offsetof(FDT_LAYOUT, block_size) == 40);
static_assert(offsetof(FDT_LAYOUT, flash_size) == 48);
static_assert(offsetof(FDT_LAYOUT, read_id_addr_len) == 56);
static_assert(offsetof(FDT_LAYOUT, read_timeout) == 60);
static_assert(offsetof(FDT_LAYOUT, protect_sec_cmd) == 62);
static_assert(offsetof(FDT_LAYOUT, unused2) == 63);

// PCI expansion-ROM image header.
#pragma pack(push, 1)
struct INT_PCI_ROM_HEADER {
    uint16_t Signature;    // bytes 0x55 0xAA
    uint8_t Reserved[22];  // byte 2 (Reserved[0]): image length in 512-byte units
    uint16_t PcirOffset;
};
#pragma pack(pop)
static_assert(sizeof(INT_PCI_ROM_HEADER) == 26);
static_assert(offsetof(INT_PCI_ROM_HEADER, PcirOffset) == 24);

// PCI data structure of an expansion-ROM image.
#pragma pack(push, 1)
struct INT_PCI_DATA_STRUCT {
    uint8_t Signature[4];  // "PCIR"
    uint16_t VendorId;
    uint16_t DeviceId;
    uint16_t Reserved0;
    uint16_t Length;
    uint8_t Revision;
    uint8_t ClassCode[3];
    uint16_t ImageLength;  // 512-byte units
    uint16_t CodeRevision;
    uint8_t CodeType;      // 0 x86 BIOS, 1 FCode, 3 EFI
    uint8_t Indicator;     // bit 7: last image
    uint16_t Reserved1;
};
#pragma pack(pop)
static_assert(sizeof(INT_PCI_DATA_STRUCT) == 24);
static_assert(offsetof(INT_PCI_DATA_STRUCT, ClassCode) == 13);
static_assert(offsetof(INT_PCI_DATA_STRUCT, ImageLength) == 16);
static_assert(offsetof(INT_PCI_DATA_STRUCT, CodeRevision) == 18);
static_assert(offsetof(INT_PCI_DATA_STRUCT, CodeType) == 20);
static_assert(offsetof(INT_PCI_DATA_STRUCT, Indicator) == 21);

inline constexpr uint8_t VX_CODE_TYPE_X86 = 0;
inline constexpr uint8_t VX_CODE_TYPE_FCODE = 1;
inline constexpr uint8_t VX_CODE_TYPE_EFI = 3;
inline constexpr uint8_t VX_ROM_LAST_IMAGE = 0x80;

// Header at the start of a firmware-type image (firmware, MPI, PEP, EDC,
// NIC boot code); documented with the simulator's flash content.
struct INT_FW_IMAGE_HEADER {
    uint8_t tag[4];  // "VXFW", "VXMP", "VXPE", "VXED", "VXNB"
    uint32_t major;
    uint32_t minor;
    uint32_t subminor;
    uint32_t length;  // bytes, header included
    uint32_t attributes;
    uint32_t reserved;
    uint32_t checksum;  // the image's 32-bit words sum to 0
};
static_assert(sizeof(INT_FW_IMAGE_HEADER) == 32);
static_assert(offsetof(INT_FW_IMAGE_HEADER, length) == 16);

// Little-endian reads of flash fields; the caller guarantees the bytes.
constexpr uint16_t vxapi_le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
constexpr uint32_t vxapi_le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}
