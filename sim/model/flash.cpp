// Flash images of simulated adapters. Every multi-byte field is written
// little-endian byte by byte, whatever the host, except the image-directory
// length, which adapters store in the host's order.
#include "flash.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>

namespace vxsim {

namespace {

void put16(uint8_t* p, uint16_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
}

void put32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        p[i] = uint8_t(v >> (8 * i));
}

uint16_t get16(const uint8_t* p) { return uint16_t(p[0] | (p[1] << 8)); }

uint32_t get32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

void put_text(uint8_t* p, const char* s) { std::memcpy(p, s, std::strlen(s)); }

// Big-endian byte array of a world-wide name, as NVRAM and the driver keep it.
void put_wwn(uint8_t* p, uint64_t wwn) {
    for (int i = 0; i < 8; ++i)
        p[i] = uint8_t(wwn >> (56 - 8 * i));
}

// Filler for image bodies: an arithmetic run with step 13 cannot contain any
// of the signatures the library searches for ("MEISP ", "PCIR", "QFLT", ...).
void fill_pattern(uint8_t* p, size_t n, uint8_t seed) {
    for (size_t i = 0; i < n; ++i)
        p[i] = uint8_t(seed + i * 13);
}

// ---- Region tables ---------------------------------------------------------

struct Row {
    uint32_t word;
    uint32_t size;
    uint32_t beg;
};

constexpr uint32_t RO = 1u << 16;     // read-only
constexpr uint32_t RESET = 1u << 17;  // region reset after a write
constexpr uint32_t RESET2 = 1u << 18; // NVRAM: settings take effect after a reset

constexpr Row kFinch[] = {{0xFF, 0x20000, 0}, {0x02, 0x20000, 0}};
constexpr Row kHp[] = {{0xFF, 0x20000, 0}, {0x03, 0x20000, 0}};
constexpr Row kRobin[] = {{0xFF, 0x100000, 0}, {0x05, 0x100000, 0}};
constexpr Row kHeron[] = {{0xFF, 0x20000, 0}, {0x04, 0x20000, 0}};
constexpr Row kEgret[] = {{0xFF, 0x100000, 0}, {0x06, 0x100000, 0}};
constexpr Row kSwift[] = {{0xFF, 0x100000, 0},   {0x07, 0x40000, 0},      {0x87, 0x8000, 0x40000},
                          {0x88, 0x8000, 0x48000}, {0x29, 0x4000, 0x58000}, {0x2A, 0x4000, 0x5C000},
                          {0x01, 0x80000, 0x80000}};

// The FLT that Kite boards carry repeats their fixed table (the VPD and NVRAM
// slices 0x14-0x17 lie inside 0x08 on purpose); it only adds the flag bits.
constexpr Row kKite[] = {
    {0x07, 0x40000, 0x000000},  {0x11, 0x40000, 0x040000},  {0x01 | RESET, 0x40000, 0x080000},
    {0x12, 0x20000, 0x0C0000},  {0xA0 | RO, 0x400, 0x0E0000}, {0x87, 0x8000, 0x0F0000},
    {0x88, 0x8000, 0x0F8000},   {0x13, 0x10000, 0x100000},  {0x08, 0x10000, 0x120000},
    {0x14, 0x200, 0x120000},    {0x15, 0x200, 0x120200},    {0x16, 0x200, 0x120400},
    {0x17, 0x200, 0x120600},    {0x19, 0x10000, 0x130000},  {0x2B, 0x8000, 0x148000},
    {0x29, 0x4000, 0x170000},   {0x2A, 0x4000, 0x174000},
};

constexpr Row kLark[] = {
    {0x07, 0x80000, 0x000000},          {0x01 | RESET, 0x100000, 0x080000}, {0x2E, 0x40000, 0x180000},
    {0x40, 0x40000, 0x1C0000},          {0x45 | RESET, 0x10000, 0x200000},  {0x29 | RO, 0x4000, 0x210000},
    {0x2A, 0x4000, 0x214000},           {0x14, 0x200, 0x340000},            {0x15 | RESET2, 0x200, 0x341000},
    {0x16, 0x200, 0x342000},            {0x17 | RESET2, 0x200, 0x343000},
};

constexpr Row kPlover[] = {
    {0x07, 0x80000, 0x000000},  {0x01 | RESET, 0x100000, 0x080000}, {0x29 | RO, 0x4000, 0x180000},
    {0x2A, 0x4000, 0x184000},   {0x14, 0x200, 0x3E0000},            {0x15 | RESET2, 0x200, 0x3E1000},
    {0x16, 0x200, 0x3E2000},    {0x17 | RESET2, 0x200, 0x3E3000},
};

constexpr Row kWren[] = {
    {0x07, 0x80000, 0x000000},  {0x01 | RESET, 0x100000, 0x080000}, {0x29 | RO, 0x4000, 0x180000},
    {0x2A, 0x4000, 0x184000},   {0x14, 0x400, 0x3E0000},            {0x15 | RESET2, 0x200, 0x3E1000},
    {0x16, 0x400, 0x3E2000},    {0x17 | RESET2, 0x200, 0x3E3000},
};

// Ibis and Tern keep a second image set; 0x74 is its firmware.
constexpr Row kIbisTern[] = {
    {0x07, 0x80000, 0x000000},  {0x01 | RESET, 0x100000, 0x080000}, {0x29 | RO, 0x4000, 0x180000},
    {0x2A, 0x4000, 0x184000},   {0x14, 0x400, 0x3E0000},            {0xAA | RESET2, 0x200, 0x3E1000},
    {0x16, 0x400, 0x3E2000},    {0xAC | RESET2, 0x200, 0x3E3000},   {0x74 | RESET, 0x100000, 0x400000},
};

// Crane: FC firmware, MPI (0x02) and PEP (0x09) processors, the auxiliary
// areas its update paths name, and VPD/NVRAM for up to four functions.
constexpr Row kCrane[] = {
    {0x07, 0x80000, 0x000000},  {0x01 | RESET, 0x100000, 0x080000}, {0x02 | RESET, 0x80000, 0x180000},
    {0x09, 0x80000, 0x200000},  {0x29 | RO, 0x4000, 0x280000},      {0x2A, 0x4000, 0x284000},
    {0x66, 0x10000, 0x290000},  {0x67, 0x10000, 0x2A0000},          {0x9E, 0x10000, 0x2B0000},
    {0x9F, 0x10000, 0x2C0000},  {0xD1, 0x10000, 0x2D0000},          {0xD3, 0x10000, 0x2E0000},
    {0xF0, 0x10000, 0x2F0000},  {0xF1, 0x10000, 0x300000},          {0x14, 0x200, 0x3E0000},
    {0x15 | RESET2, 0x200, 0x3E1000}, {0x16, 0x200, 0x3E2000},      {0x17 | RESET2, 0x200, 0x3E3000},
    {0xD4, 0x200, 0x3E4000},    {0xD5 | RESET2, 0x200, 0x3E5000},   {0xD6, 0x200, 0x3E6000},
    {0xD7 | RESET2, 0x200, 0x3E7000},
};

std::span<const Row> rows_of(vx_family f) {
    switch (f) {
    case vx_family::Finch: return kFinch;
    case vx_family::Hp: return kHp;
    case vx_family::Robin: return kRobin;
    case vx_family::Heron: return kHeron;
    case vx_family::Egret: return kEgret;
    case vx_family::Swift: return kSwift;
    case vx_family::Kite: return kKite;
    case vx_family::Lark: return kLark;
    case vx_family::Wren: return kWren;
    case vx_family::Ibis:
    case vx_family::Tern: return kIbisTern;
    case vx_family::Plover: return kPlover;
    case vx_family::Crane: return kCrane;
    case vx_family::Unknown: break;
    }
    return {};
}

const Row* find_row(vx_family f, uint8_t code) {
    for (const Row& r : rows_of(f))
        if ((r.word & 0xFF) == code)
            return &r;
    return nullptr;
}

bool is_flt(const Adapter& a) { return vx_adapter_has(a.device_id, VX_MARK_FLT); }

bool is_newer_nvram(vx_family f) {
    return f == vx_family::Swift || f == vx_family::Kite || f == vx_family::Lark || f == vx_family::Wren ||
           f == vx_family::Ibis || f == vx_family::Plover || f == vx_family::Tern || f == vx_family::Crane;
}

bool is_converged(const Adapter& a) { return vx_adapter_has(a.device_id, VX_MARK_CNA); }

std::string model_of(const Adapter& a) {
    if (!a.model_name.empty())
        return a.model_name;
    const vx_adapter_type* row = vx_adapter_lookup(a.device_id);
    return row ? row->model : "";
}

const PciFunction* function_of(const Adapter& a, size_t fn) {
    for (const PciFunction& f : a.functions)
        if (pci_function_number(f.pci_address) == fn)
            return &f;
    return nullptr;
}

// ---- Boot images -----------------------------------------------------------

constexpr uint8_t CODE_X86 = 0;
constexpr uint8_t CODE_FCODE = 1;
constexpr uint8_t CODE_EFI = 3;
constexpr uint32_t PCIR_AT = 0x40;
constexpr uint32_t SETTINGS_AT = 0x200;  // "MEISP " in the BIOS image

// One PCI expansion-ROM image. Its bytes sum to 0 (8-bit) with the byte at
// len-2 left 0, so summing all bytes or all but len-2 gives the same check.
std::vector<uint8_t> rom_image(const Adapter& a, uint8_t code_type, uint16_t revision, uint32_t len, bool last) {
    if (len < 0x1000 || len % 512 || len / 512 > 255)
        return {};  // byte 2 holds the length in 512-byte units
    std::vector<uint8_t> img(len);
    uint8_t* p = img.data();
    fill_pattern(p, len, uint8_t(0x21 + code_type * 0x50));
    std::memset(p, 0, PCIR_AT + 0x20);
    p[0] = 0x55;
    p[1] = 0xAA;
    p[2] = uint8_t(len / 512);
    put16(p + 24, uint16_t(PCIR_AT));
    if (code_type == CODE_X86) {
        p[3] = 0xEB;  // short jump over the header to the entry code
        p[4] = 0x5E;
        put_text(p + 28, "SVID");
        put16(p + 32, a.subsystem_vendor_id);
        // BIOS settings: the block starts two bytes into the marker and is
        // kept across boot-code updates (256 bytes, 512 on Swift).
        const size_t block = flash_family(a) == vx_family::Swift ? 512 : 256;
        std::memset(p + SETTINGS_AT, 0, 2 + block);
        put_text(p + SETTINGS_AT, "MEISP ");
        p[SETTINGS_AT + 6] = 1;  // settings version
        p[SETTINGS_AT + 7] = 1;  // BIOS enabled
    } else if (code_type == CODE_EFI) {
        put16(p + 4, uint16_t(len / 512));  // initialization size
        put32(p + 6, 0x0EF1);                // EFI signature
        put16(p + 10, 0x0B);                 // boot-service driver
        put16(p + 12, 0x8664);               // x64
        put16(p + 22, uint16_t(PCIR_AT + 0x20));
        p[PCIR_AT + 0x20] = 'M';
        p[PCIR_AT + 0x21] = 'Z';
    }
    uint8_t* pcir = p + PCIR_AT;
    put_text(pcir, "PCIR");
    put16(pcir + 4, a.vendor_id);
    put16(pcir + 6, a.device_id);
    put16(pcir + 10, 24);  // structure length
    pcir[12] = 0;          // structure revision
    pcir[13] = 0x00;       // class code 0x0C0400: Fibre Channel controller
    pcir[14] = 0x04;
    pcir[15] = 0x0C;
    put16(pcir + 16, uint16_t(len / 512));
    put16(pcir + 18, revision);
    pcir[20] = code_type;
    pcir[21] = last ? 0x80 : 0x00;

    p[len - 2] = 0;
    uint8_t sum = 0;
    for (uint32_t i = 0; i < len - 1; ++i)
        sum = uint8_t(sum + p[i]);
    p[len - 1] = uint8_t(-sum);
    return img;
}

// x86 BIOS, FCode, EFI: the boot images every family carries, in that order.
std::vector<uint8_t> boot_images(const Adapter& a) {
    std::vector<uint8_t> out;
    const struct {
        uint8_t type;
        const std::string& version;
        uint32_t len;
    } images[] = {{CODE_X86, a.flash.bios, 0x8000}, {CODE_FCODE, a.flash.fcode, 0x4000}, {CODE_EFI, a.flash.efi, 0x8000}};
    for (size_t i = 0; i < std::size(images); ++i) {
        auto img = rom_image(a, images[i].type, code_revision(images[i].version), images[i].len,
                             i + 1 == std::size(images));
        out.insert(out.end(), img.begin(), img.end());
    }
    return out;
}

// ---- Firmware-type images --------------------------------------------------
//
// Header (32 bytes, little-endian) at the start of the image's region:
//    0  tag[4]   "VXFW" firmware, "VXMP" MPI, "VXPE" PEP, "VXED" EDC, "VXNB" NIC boot code
//    4  u32      major
//    8  u32      minor
//   12  u32      subminor
//   16  u32      length of the image in bytes, header included (multiple of 4)
//   20  u32      attributes (0)
//   24  u32      reserved (0)
//   28  u32      checksum: the image's little-endian u32 words sum to 0
// The rest of the region past the image is erased (0xFF).

void put_fw_image(std::vector<uint8_t>& flash, uint32_t at, uint32_t region_size, const char* tag,
                  const std::string& version, uint32_t len) {
    len = std::min(len, region_size) & ~3u;
    if (len < 32 || uint64_t(at) + len > flash.size())
        return;
    uint32_t v[3] = {0, 0, 0};
    parse_version(version, 3, v);
    uint8_t* p = flash.data() + at;
    fill_pattern(p, len, uint8_t(tag[2] + tag[3]));
    std::memset(p, 0, 32);
    put_text(p, tag);
    put32(p + 4, v[0]);
    put32(p + 8, v[1]);
    put32(p + 12, v[2]);
    put32(p + 16, len);
    uint32_t sum = 0;
    for (uint32_t i = 0; i < len; i += 4)
        sum += get32(p + i);
    put32(p + 28, uint32_t(0) - sum);
}

void put_fw_region(std::vector<uint8_t>& flash, vx_family f, uint8_t code, const char* tag,
                   const std::string& version, uint32_t len) {
    if (const Row* r = find_row(f, code))
        put_fw_image(flash, r->beg, r->size, tag, version, len);
}

// ---- Layout records --------------------------------------------------------

struct FltPlace {
    uint32_t fdt;
    uint32_t flt;
};

std::optional<FltPlace> flt_place(vx_family f) {
    switch (f) {
    case vx_family::Kite: return FltPlace{0x140000, 0x141000};
    case vx_family::Lark: return FltPlace{0x360000, 0x361000};
    case vx_family::Wren:
    case vx_family::Ibis:
    case vx_family::Plover:
    case vx_family::Tern:
    case vx_family::Crane: return FltPlace{0x3F0000, 0x3F1000};
    default: return std::nullopt;
    }
}

// Locator found just past the last boot image: "QFLT", FLT address, version,
// and a checksum that makes its eight 16-bit words sum to 0.
void put_flt_locator(uint8_t* p, uint32_t flt) {
    std::memset(p, 0, 16);
    put_text(p, "QFLT");
    put16(p + 4, uint16_t(flt));
    put16(p + 6, uint16_t(flt >> 16));
    p[8] = 1;
    uint16_t sum = 0;
    for (int i = 0; i < 7; ++i)
        sum = uint16_t(sum + get16(p + 2 * i));
    put16(p + 14, uint16_t(-sum));
}

// Header (version 1, length of the entries, checksum over header and
// entries as 16-bit words), then 16-byte entries.
void put_flt(std::vector<uint8_t>& flash, uint32_t at, std::span<const Row> rows) {
    const uint32_t length = uint32_t(rows.size() * 16);
    uint8_t* p = flash.data() + at;
    std::memset(p, 0, 8 + length);
    put16(p, 1);
    put16(p + 2, uint16_t(length));
    for (size_t i = 0; i < rows.size(); ++i) {
        uint8_t* e = p + 8 + 16 * i;
        put32(e, rows[i].word);
        put32(e + 4, rows[i].size);
        put32(e + 8, rows[i].beg);
        put32(e + 12, rows[i].beg + rows[i].size - 1);
    }
    uint16_t sum = 0;
    for (uint32_t i = 0; i < (length + 8) / 2; ++i)
        sum = uint16_t(sum + get16(p + 2 * i));
    put16(p + 4, uint16_t(-sum));
}

// Flash-part description: a 64 KiB-sector serial flash of the board's size.
void put_fdt(std::vector<uint8_t>& flash, uint32_t at) {
    uint8_t* p = flash.data() + at;
    std::memset(p, 0, 128);
    put_text(p, "VXID");
    put16(p + 4, 1);      // version
    put16(p + 6, 128);    // len
    put_text(p + 12, "VXSF25Q");
    put16(p + 28, 0x00EF);  // manufacturer
    put16(p + 30, 0x4018);  // part id
    p[32] = 0;              // flags
    p[33] = 0xD8;           // erase (64 KiB sector)
    p[34] = 0x20;           // alternative erase (4 KiB)
    p[35] = 0x06;           // write enable
    p[36] = 0x1C;           // write-enable bits
    p[37] = 0x01;           // write status register
    p[38] = 0x39;           // unprotect sector
    p[39] = 0x9F;           // read manufacturer id
    put32(p + 40, 0x10000);  // block_size
    put32(p + 44, 0x1000);   // alt_block_size
    put32(p + 48, uint32_t(flash.size()));
    put32(p + 52, 0);
    p[56] = 0;
    p[57] = 0x9C;  // write-disable bits
    p[58] = 3;     // device id length
    p[59] = 0xC7;  // chip erase
    put16(p + 60, 100);
    p[62] = 0x36;  // protect sector
    uint16_t sum = 0;
    for (int i = 0; i < 64; ++i)
        sum = uint16_t(sum + get16(p + 2 * i));
    put16(p + 8, uint16_t(-sum));
}

// Image directory in front of the first boot image (Lark). Only its length
// is read by the library, in host byte order; the directory area it covers
// lists no entries.
constexpr uint16_t QFIM_LENGTH = 0x200;

void put_qfim(uint8_t* p) {
    std::memset(p, 0, QFIM_LENGTH);
    put_text(p, "QFIM");
    put16(p + 4, 1);  // table_version
    std::memcpy(p + 6, &QFIM_LENGTH, 2);  // host order, as the boards store it
    put16(p + 10, 0);  // no_of_entries
    p[12] = 0;
    p[13] = 1;  // directory version 1.0.0
    uint16_t sum = 0;
    for (int i = 0; i < 16; ++i)
        sum = uint16_t(sum + get16(p + 2 * i));
    put16(p + 8, uint16_t(-sum));
}

// ---- VPD -------------------------------------------------------------------

std::string boot_version_text(const std::string& v) {
    const uint16_t rev = code_revision(v);
    const int major = rev >> 8, minor = rev & 0xFF;
    char buf[16];
    std::snprintf(buf, sizeof buf, major > 99 ? "%.2d.%.2d" : "%2d.%.2d", major, minor);
    return buf;
}

std::string fw_version_text(const std::string& v) {
    uint32_t n[3] = {0, 0, 0};
    parse_version(v, 3, n);
    char buf[40];
    std::snprintf(buf, sizeof buf, "%u.%.2u.%.2u", n[0], n[1], n[2]);
    return buf;
}

class VpdWriter {
public:
    explicit VpdWriter(std::vector<uint8_t>& b) : b_(b) {}
    size_t pos() const { return pos_; }
    void u8(uint8_t v) {
        if (pos_ < b_.size())
            b_[pos_] = v;
        ++pos_;
    }
    void u16(uint16_t v) {
        u8(uint8_t(v));
        u8(uint8_t(v >> 8));
    }
    void text(const std::string& s, size_t width) {
        for (size_t i = 0; i < width; ++i)
            u8(i < s.size() ? uint8_t(s[i]) : 0);
    }
    // Keyword item; width pads the value with NULs so that later version
    // refreshes have room ("100.05" replacing " 3.18").
    void keyword(const char* kw, const std::string& value, size_t width = 0) {
        const size_t n = std::min<size_t>(std::max(width, value.size()), 255);
        u8(uint8_t(kw[0]));
        u8(uint8_t(kw[1]));
        u8(uint8_t(n));
        text(value, n);
    }
    void patch16(size_t at, uint16_t v) {
        if (at + 1 < b_.size())
            put16(b_.data() + at, v);
    }

private:
    std::vector<uint8_t>& b_;
    size_t pos_ = 0;
};

}  // namespace

// ---- Public ----------------------------------------------------------------

bool parse_version(const std::string& text, size_t parts, uint32_t* out) {
    if (parts == 0 || parts > 3)
        return false;
    uint32_t v[3] = {0, 0, 0};
    size_t part = 0, digits = 0;
    for (char c : text) {
        if (c == '.') {
            if (digits == 0 || ++part >= parts)
                return false;
            digits = 0;
        } else if (c >= '0' && c <= '9') {
            v[part] = v[part] * 10 + uint32_t(c - '0');
            if (++digits > 3 || v[part] > 255)
                return false;
        } else {
            return false;
        }
    }
    if (digits == 0 || part + 1 != parts)
        return false;
    if (out)
        std::copy(v, v + parts, out);
    return true;
}

uint16_t code_revision(const std::string& version) {
    uint32_t v[2];
    if (!parse_version(version, 2, v))
        return 0;
    return uint16_t(v[0] << 8 | v[1]);
}

vx_family flash_family(const Adapter& a) {
    const vx_family f = vx_adapter_family(a.device_id);
    if (f == vx_family::Finch && vx_is_hp_variant(a.subsystem_vendor_id, a.subsystem_device_id))
        return vx_family::Hp;
    return f;
}

std::vector<Region> flash_regions(const Adapter& a) {
    std::vector<Region> out;
    for (const Row& r : rows_of(flash_family(a)))
        out.push_back({r.word, r.size, r.beg, r.beg + r.size - 1});
    return out;
}

std::optional<uint32_t> flt_address(const Adapter& a) {
    if (auto p = flt_place(flash_family(a)))
        return p->flt;
    return std::nullopt;
}

std::optional<uint32_t> fdt_address(const Adapter& a) {
    if (auto p = flt_place(flash_family(a)))
        return p->fdt;
    return std::nullopt;
}

std::optional<FlashRange> nvram_in_flash(const Adapter& a, size_t fn) {
    const vx_family f = flash_family(a);
    if (!is_flt(a))
        return std::nullopt;
    uint8_t code;
    switch (f) {
    case vx_family::Tern:
    case vx_family::Ibis: code = fn % 2 ? 0xAC : 0xAA; break;
    case vx_family::Crane: {
        static constexpr uint8_t crane[] = {0x15, 0x17, 0xD5, 0xD7};
        code = fn < 4 ? crane[fn] : 0x15;
        break;
    }
    default: code = fn % 2 ? 0x17 : 0x15; break;
    }
    const Row* r = find_row(f, code);
    if (!r)
        return std::nullopt;
    return FlashRange{r->beg, r->size};
}

std::optional<FlashRange> vpd_in_flash(const Adapter& a, size_t fn) {
    const vx_family f = flash_family(a);
    if (vx_adapter_has(a.device_id, VX_MARK_OLD_VPD_IMAGE))
        return FlashRange{0x1FE00, 0x200};
    if (!is_flt(a))
        return std::nullopt;
    uint8_t code;
    if (f == vx_family::Crane) {
        static constexpr uint8_t crane[] = {0x14, 0x16, 0xD4, 0xD6};
        code = fn < 4 ? crane[fn] : 0x14;
    } else {
        code = fn % 2 ? 0x16 : 0x14;
    }
    const Row* r = find_row(f, code);
    if (!r)
        return std::nullopt;
    return FlashRange{r->beg, r->size};
}

std::vector<uint8_t> build_nvram(const Adapter& a, size_t fn) {
    const vx_family f = flash_family(a);
    if (f == vx_family::Unknown)
        return {};
    const PciFunction* pf = function_of(a, fn);
    const uint64_t wwpn = pf ? pf->port.wwpn : 0;
    const uint64_t wwnn = pf ? pf->port.wwnn : 0;

    if (is_newer_nvram(f)) {
        std::vector<uint8_t> n(512, 0);
        uint8_t* p = n.data();
        put_text(p, "VXNV");
        put16(p + 4, 1);     // nvram_version
        put16(p + 8, 1);     // version
        put16(p + 12, 2048);  // frame_payload_size
        put16(p + 14, 128);   // execution_throttle
        put16(p + 16, 0);     // exchange_count: firmware default
        put16(p + 18, 0);     // hard_address
        put_wwn(p + 20, wwpn);
        put_wwn(p + 28, wwnn);
        put16(p + 36, 8);   // login_retry_count
        put16(p + 38, 0);   // link_down_on_nos
        put16(p + 40, 0);   // interrupt_delay_timer
        put16(p + 42, 0);   // login_timeout: firmware default
        put32(p + 44, 0x00002002);  // firmware_options_1: fairness, node name option
        put32(p + 48, 0x00000020);  // firmware_options_2: point-to-point preferred
        put32(p + 52, 0x00004000);  // firmware_options_3: data rate auto
        put32(p + 256, 0x00000C00);  // host_p: LIP full login, target reset
        p[328] = 5;                  // reset_delay
        put16(p + 336, 128);         // max_luns_per_target
        put16(p + 340, 30);          // port_down_retry_count
        put16(p + 342, 30);          // link_down_timeout
        const std::string model = model_of(a);
        std::memcpy(p + 480, model.data(), std::min<size_t>(model.size(), 16));
        put16(p + 504, a.subsystem_vendor_id);
        put16(p + 506, a.subsystem_device_id);
        // Setup tools take the adapter class from word 126 of the older
        // layout, in this one too: the reserved word there repeats the id.
        put16(p + 252, a.subsystem_device_id);
        set_nvram_checksum(p, n.size());
        return n;
    }

    // The older word-addressed layout.
    std::vector<uint8_t> n(256, 0);
    uint8_t* p = n.data();
    auto word = [p](size_t w, uint16_t v) { put16(p + 2 * w, v); };
    put_text(p, "VXNV");
    word(2, 1);            // version
    word(4, 0x200A);       // fairness, fast posting, full login after LIP
    word(5, 2048);         // frame payload size
    word(6, 256);          // max IOCB allocation
    word(7, 16);           // execution throttle
    word(8, 0x0108);       // retry count 8, retry delay 1
    put_wwn(p + 18, wwpn);  // words 9-12
    word(14, 0x0400);      // login timeout 4
    put_wwn(p + 30, wwnn);  // words 15-18
    word(19, 0x0020);      // connection mode: point-to-point preferred
    word(21, 0x8000);      // data rate auto
    word(35, 0x0C00);      // LIP full login, target reset
    word(40, 0x0500);      // reset delay 5
    word(41, 30);          // port down retry count
    word(42, 256);         // maximum LUNs per target
    word(122, a.subsystem_vendor_id);
    word(124, a.subsystem_device_id);
    word(125, a.subsystem_vendor_id);
    word(126, a.subsystem_device_id);
    set_nvram_checksum(p, n.size());
    return n;
}

void set_nvram_checksum(uint8_t* image, size_t size) {
    if (size >= 512) {
        // 32-bit little-endian words summing to 0; the last one is the checksum.
        uint32_t sum = 0;
        for (size_t i = 0; i < 127; ++i)
            sum += get32(image + 4 * i);
        put32(image + 508, uint32_t(0) - sum);
    } else if (size >= 256) {
        // The older layout's check byte is word 127 bits 8-15 (byte 255): it
        // makes the 8-bit sum of all 256 bytes 0.
        uint8_t sum = 0;
        for (size_t i = 0; i < 255; ++i)
            sum = uint8_t(sum + image[i]);
        image[255] = uint8_t(-sum);
    }
}

std::vector<uint8_t> build_vpd(const Adapter& a, size_t /*fn*/) {
    const vx_family f = flash_family(a);
    if (f == vx_family::Unknown)
        return {};
    const size_t size = (f == vx_family::Wren || f == vx_family::Tern || f == vx_family::Ibis) ? 1024 : 512;
    std::vector<uint8_t> v(size, 0);
    VpdWriter w(v);

    const std::string model = model_of(a).substr(0, 32);
    const std::string ident =
        "Varnex " + model + (is_converged(a) ? " Converged Network Adapter" : " Fibre Channel Adapter");
    w.u8(0x82);
    if (vx_is_hp_variant(a.subsystem_vendor_id, a.subsystem_device_id))
        w.u8(uint8_t(ident.size()));  // HP boards: one-byte identifier length
    else
        w.u16(uint16_t(ident.size()));
    w.text(ident, ident.size());

    const size_t ro = w.pos();
    w.u8(0x90);
    w.u16(0);
    w.keyword("PN", (model + "-01").substr(0, 24));
    w.keyword("EC", "A01");
    w.keyword("SN", a.serial_number.substr(0, 32));
    if (a.vpd == VpdContent::Truncated) {
        // An erased part after a write that stopped here.
        std::fill(v.begin() + long(std::min(w.pos(), v.size())), v.end(), 0xFF);
        return v;
    }
    char mn[8];
    std::snprintf(mn, sizeof mn, "%04X", a.vendor_id);
    w.keyword("MN", mn);
    w.keyword("V1", boot_version_text(a.flash.efi), 8);
    w.keyword("V3", fw_version_text(a.flash.firmware), 12);
    w.keyword("V4", boot_version_text(a.flash.bios), 8);
    w.keyword("V5", boot_version_text(a.flash.fcode), 8);
    w.keyword("RV", std::string(1, '\0'));
    const size_t rv = w.pos() - 1;
    w.patch16(ro + 1, uint16_t(w.pos() - ro - 3));

    const size_t rw = w.pos();
    w.u8(0x91);
    w.u16(0);
    w.keyword("YA", std::string(16, ' '));  // asset tag, unset
    w.keyword("RW", std::string(32, '\0'));
    w.patch16(rw + 1, uint16_t(w.pos() - rw - 3));
    w.u8(0x78);

    // "RV": the bytes from the start through its first data byte sum to 0.
    uint8_t sum = 0;
    for (size_t i = 0; i < rv; ++i)
        sum = uint8_t(sum + v[i]);
    v[rv] = uint8_t(-sum + (a.vpd == VpdContent::BadChecksum ? 1 : 0));
    return v;
}

std::vector<uint8_t> build_flash(const Adapter& a) {
    const vx_adapter_type* type = vx_adapter_lookup(a.device_id);
    if (!type)
        return {};
    const vx_family f = flash_family(a);
    std::vector<uint8_t> flash(type->flash_size, 0xFF);

    // Boot code at the start; Lark boards put their image directory first.
    uint32_t pos = 0;
    if (f == vx_family::Lark) {
        put_qfim(flash.data());
        pos = QFIM_LENGTH;
    }
    const std::vector<uint8_t> boot = boot_images(a);
    std::copy(boot.begin(), boot.end(), flash.begin() + pos);
    pos += uint32_t(boot.size());

    const std::optional<FltPlace> place = flt_place(f);
    if (place) {
        put_flt_locator(flash.data() + pos, place->flt);
        put_fdt(flash, place->fdt);
        put_flt(flash, place->flt, rows_of(f));
    }
    if (f == vx_family::Kite)  // the boot code stands twice (0x07 and 0x11)
        std::copy_n(flash.begin(), 0x40000, flash.begin() + 0x40000);

    if (vx_adapter_has(a.device_id, VX_MARK_OLD_VPD_IMAGE)) {
        const auto vpd = build_vpd(a, 0);
        std::copy(vpd.begin(), vpd.end(), flash.begin() + 0x1FE00);
    }

    // Firmware-type images.
    if (f == vx_family::Robin || f == vx_family::Egret)  // 1 MiB parts: upper half, as on Swift
        put_fw_image(flash, 0x80000, 0x80000, "VXFW", a.flash.firmware, 0x10000);
    put_fw_region(flash, f, 0x01, "VXFW", a.flash.firmware, 0x10000);
    put_fw_region(flash, f, 0x74, "VXFW", a.flash.firmware, 0x10000);
    if (f == vx_family::Lark) {
        put_fw_region(flash, f, 0x40, "VXMP", a.flash.mpi, 0x8000);
        put_fw_region(flash, f, 0x45, "VXED", a.flash.edc, 0x8000);
        put_fw_region(flash, f, 0x2E, "VXNB", a.flash.nic, 0x8000);
    } else if (f == vx_family::Crane) {
        put_fw_region(flash, f, 0x02, "VXMP", a.flash.mpi, 0x8000);
        put_fw_region(flash, f, 0x09, "VXPE", a.flash.pep, 0x8000);
    }

    // Per-port NVRAM and VPD inside the flash.
    for (size_t fn = 0; fn < type->ports; ++fn) {
        if (auto r = nvram_in_flash(a, fn)) {
            const auto n = build_nvram(a, fn);
            std::copy_n(n.begin(), std::min<size_t>(n.size(), r->size), flash.begin() + r->offset);
        }
        if (is_flt(a)) {
            if (auto r = vpd_in_flash(a, fn)) {
                const auto v = build_vpd(a, fn);
                std::copy_n(v.begin(), std::min<size_t>(v.size(), r->size), flash.begin() + r->offset);
            }
        }
    }
    return flash;
}

}  // namespace vxsim
