// Supported adapters: one table, one place. Every family test in the library
// and in the simulator goes through vx_adapter_lookup(); no scattered ids.
// The table is documented row by row in docs/adapters.md.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr uint16_t VX_PCI_VENDOR_ID = 0x1D5A;
inline constexpr uint16_t VX_HP_PCI_VENDOR_ID = 0x103C;

enum class vx_family : uint8_t {
    Unknown,
    Finch,
    Hp,  // a Finch-class board sold under the HP subsystem ids; chosen by subsystem, never by device id
    Robin,
    Heron,
    Egret,
    Swift,
    Kite,
    Lark,
    Wren,
    Ibis,
    Plover,
    Tern,
    Crane,
};

// Marks the library needs per device id. Membership counts are fixed by the
// product line (noted per mark); a unit test pins every count.
enum vx_adapter_mark : uint32_t {
    VX_MARK_NEWER = 1u << 0,            // Swift generation onward: serial number from VPD (18 ids)
    VX_MARK_FLT = 1u << 1,              // flash layout table in flash, option-ROM layout set-up (13 ids)
    VX_MARK_CNA = 1u << 2,              // converged port data accepted (6 ids)
    VX_MARK_ADAPTER_VERSIONS = 1u << 3, // adapter-versions query at discovery (4 ids)
    VX_MARK_MPI_EDC = 1u << 4,          // separate management processor: MPI/EDC + NIC boot code (1 id)
    VX_MARK_ACTIVE_IMAGE = 1u << 5,     // two flash image sets (3 ids)
    VX_MARK_FLASH_BI_REFRESH = 1u << 6, // node boot-image fields refreshed from flash; vports lack
                                        // boot-code attributes (3 ids)
    VX_MARK_MPI_PEP = 1u << 7,          // multi-processor converged family: MPI/PEP versions (3 ids)
    VX_MARK_OLD_VPD_IMAGE = 1u << 8,    // VPD kept inside the 128 KiB boot image (4 ids)
    VX_MARK_IOCTL_O = 1u << 9,          // served by the older ioctl driver generation
    VX_MARK_VPD_MODEL = 1u << 10,       // the VPD identifier string is the board's model description:
                                        // the seven families after Swift (13 ids)
};

// Port speed codes as the driver reports them (the 16 and 32 Gbit codes read
// as decimal digits in hexadecimal, 10 Gbit is 0x10).
inline constexpr uint8_t VX_SPEED_1G = 0x01;
inline constexpr uint8_t VX_SPEED_2G = 0x02;
inline constexpr uint8_t VX_SPEED_4G = 0x04;
inline constexpr uint8_t VX_SPEED_8G = 0x08;
inline constexpr uint8_t VX_SPEED_10G = 0x10;
inline constexpr uint8_t VX_SPEED_16G = 0x16;
inline constexpr uint8_t VX_SPEED_32G = 0x32;

struct vx_adapter_type {
    uint16_t device_id;
    vx_family family;
    uint32_t marks;
    const char* model;          // model name the driver reports for the board
    uint8_t supported_speeds;   // PortSupportedSpeed: the code of the fastest speed the board runs at
    uint32_t flash_size;        // bytes of flash on the board
    uint8_t ports;              // PCI functions (physical ports) per board
};

namespace vx_detail {
inline constexpr uint32_t NEW = VX_MARK_NEWER;
inline constexpr uint32_t FLT = VX_MARK_NEWER | VX_MARK_FLT | VX_MARK_VPD_MODEL;
inline constexpr uint32_t OLD = VX_MARK_IOCTL_O;
}  // namespace vx_detail

inline constexpr std::array<vx_adapter_type, 26> vx_adapter_table{{
    // Older single-function generation.
    {0x1010, vx_family::Finch, vx_detail::OLD | VX_MARK_OLD_VPD_IMAGE, "VXF1010", 0x02, 0x20000, 1},
    {0x1011, vx_family::Finch, vx_detail::OLD | VX_MARK_OLD_VPD_IMAGE, "VXF1011", 0x02, 0x20000, 1},
    {0x1020, vx_family::Robin, vx_detail::OLD | VX_MARK_OLD_VPD_IMAGE, "VXR1020", 0x02, 0x100000, 1},
    {0x1021, vx_family::Robin, vx_detail::OLD | VX_MARK_OLD_VPD_IMAGE, "VXR1021", 0x02, 0x100000, 2},
    {0x1030, vx_family::Heron, vx_detail::OLD, "VXH1030", 0x02, 0x20000, 1},
    {0x1031, vx_family::Heron, vx_detail::OLD, "VXH1031", 0x02, 0x20000, 2},
    {0x1040, vx_family::Egret, vx_detail::OLD, "VXE1040", 0x04, 0x100000, 1},
    {0x1041, vx_family::Egret, vx_detail::OLD, "VXE1041", 0x04, 0x100000, 2},
    // Swift generation: fixed layout, 512-byte NVRAM, VPD serial numbers.
    {0x1050, vx_family::Swift, vx_detail::NEW | vx_detail::OLD, "VXS1050", 0x04, 0x100000, 1},
    {0x1051, vx_family::Swift, vx_detail::NEW | vx_detail::OLD, "VXS1051", 0x04, 0x100000, 2},
    {0x1052, vx_family::Swift, vx_detail::NEW, "VXS1052", 0x04, 0x100000, 1},
    {0x1053, vx_family::Swift, vx_detail::NEW, "VXS1053", 0x04, 0x100000, 2},
    {0x1054, vx_family::Swift, vx_detail::NEW, "VXS1054", 0x04, 0x100000, 4},
    // Converged (FCoE) families with a flash layout table.
    {0x2010, vx_family::Kite, vx_detail::FLT | VX_MARK_CNA | VX_MARK_FLASH_BI_REFRESH, "VXK2010", 0x10, 0x200000, 2},
    {0x2011, vx_family::Kite, vx_detail::FLT | VX_MARK_CNA | VX_MARK_FLASH_BI_REFRESH, "VXK2011", 0x10, 0x200000, 2},
    {0x2020, vx_family::Lark,
     vx_detail::FLT | VX_MARK_CNA | VX_MARK_FLASH_BI_REFRESH | VX_MARK_ADAPTER_VERSIONS | VX_MARK_MPI_EDC,
     "VXL2020", 0x10, 0x400000, 2},
    // Fibre Channel families with a flash layout table.
    {0x2030, vx_family::Wren, vx_detail::FLT, "VXW2030", 0x08, 0x800000, 1},
    {0x2031, vx_family::Wren, vx_detail::FLT, "VXW2031", 0x08, 0x800000, 2},
    {0x2040, vx_family::Ibis, vx_detail::FLT | VX_MARK_ACTIVE_IMAGE, "VXI2040", 0x08, 0x1000000, 2},
    {0x2050, vx_family::Plover, vx_detail::FLT, "VXP2050", 0x16, 0x400000, 1},
    {0x2051, vx_family::Plover, vx_detail::FLT, "VXP2051", 0x16, 0x400000, 2},
    {0x2060, vx_family::Tern, vx_detail::FLT | VX_MARK_ACTIVE_IMAGE, "VXT2060", 0x32, 0x800000, 1},
    {0x2061, vx_family::Tern, vx_detail::FLT | VX_MARK_ACTIVE_IMAGE, "VXT2061", 0x32, 0x800000, 2},
    {0x2070, vx_family::Crane,
     vx_detail::FLT | VX_MARK_CNA | VX_MARK_ADAPTER_VERSIONS | VX_MARK_MPI_PEP, "VXC2070", 0x32,
     0x1000000, 2},
    {0x2071, vx_family::Crane,
     vx_detail::FLT | VX_MARK_CNA | VX_MARK_ADAPTER_VERSIONS | VX_MARK_MPI_PEP, "VXC2071", 0x32,
     0x1000000, 2},
    {0x2072, vx_family::Crane,
     vx_detail::FLT | VX_MARK_CNA | VX_MARK_ADAPTER_VERSIONS | VX_MARK_MPI_PEP, "VXC2072", 0x32,
     0x1000000, 4},
}};

// Subsystem ids that select the HP board variant (fixed Finch-class layout
// named Hp, one-byte identifier length in VPD, serial number from the node
// record's reserved bytes on the ioctl channel).
inline constexpr std::array<uint16_t, 4> vx_hp_subsystem_ids{0x7101, 0x7102, 0x7103, 0x7104};
// The maker's own subsystem id that behaves as the HP variant and carries FRU
// records and the alternative NVRAM read.
inline constexpr uint16_t VX_SPECIAL_SUBSYSTEM_ID = 0x0F00;

constexpr const vx_adapter_type* vx_adapter_lookup(uint16_t device_id) {
    for (const auto& row : vx_adapter_table)
        if (row.device_id == device_id)
            return &row;
    return nullptr;
}

constexpr vx_family vx_adapter_family(uint16_t device_id) {
    const vx_adapter_type* row = vx_adapter_lookup(device_id);
    return row ? row->family : vx_family::Unknown;
}

constexpr bool vx_adapter_has(uint16_t device_id, uint32_t mark) {
    const vx_adapter_type* row = vx_adapter_lookup(device_id);
    return row && (row->marks & mark) == mark;
}

constexpr bool vx_is_hp_variant(uint16_t ssvendor_id, uint16_t ssdevice_id) {
    if (ssvendor_id == VX_PCI_VENDOR_ID)
        return ssdevice_id == VX_SPECIAL_SUBSYSTEM_ID;
    if (ssvendor_id != VX_HP_PCI_VENDOR_ID)
        return false;
    for (uint16_t id : vx_hp_subsystem_ids)
        if (id == ssdevice_id)
            return true;
    return false;
}

// Only the four HP subsystem ids proper (not the maker's own id).
constexpr bool vx_is_hp_subsystem(uint16_t ssvendor_id, uint16_t ssdevice_id) {
    return ssvendor_id == VX_HP_PCI_VENDOR_ID && vx_is_hp_variant(ssvendor_id, ssdevice_id);
}

constexpr const char* vx_family_name(vx_family family) {
    switch (family) {
    case vx_family::Finch: return "Finch";
    case vx_family::Hp: return "Hp";
    case vx_family::Robin: return "Robin";
    case vx_family::Heron: return "Heron";
    case vx_family::Egret: return "Egret";
    case vx_family::Swift: return "Swift";
    case vx_family::Kite: return "Kite";
    case vx_family::Lark: return "Lark";
    case vx_family::Wren: return "Wren";
    case vx_family::Ibis: return "Ibis";
    case vx_family::Plover: return "Plover";
    case vx_family::Tern: return "Tern";
    case vx_family::Crane: return "Crane";
    case vx_family::Unknown: break;
    }
    return "Unknown";
}
