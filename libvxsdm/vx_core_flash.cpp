// Flash: option ROM layouts (the fixed tables, the flash layout table and
// the process-wide current layout), sector alignment, the region reset
// table, and the image-version and update-capability queries that
// discovery calls for each adapter.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "vsdmgt.h"
#include "vx_adapters.h"
#include "vx_channel.h"
#include "vx_core_flash.h"
#include "vx_sddbg.h"
#include "vx_sysfs.h"

namespace {

constexpr uint32_t TRC = VXDBG_TRACE;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_TRACE;

void set_status(uint32_t* pext_stat, uint32_t status) {
    if (pext_stat)
        *pext_stat = status;
}

struct free_deleter {
    void operator()(void* p) const { free(p); }
};
using malloc_ptr = std::unique_ptr<uint8_t, free_deleter>;

vx_family family_of(const vxapi_priv_database* inst) {
    return inst && inst->phy_info ? vx_adapter_family(inst->phy_info->device_id) : vx_family::Unknown;
}

uint16_t device_of(const vxapi_priv_database* inst) {
    return inst && inst->phy_info ? inst->phy_info->device_id : 0;
}

// Flash is read through the port's own descriptor: discovery has no API handle yet.
int read_flash(vxapi_priv_database* inst, uint32_t offset, uint8_t* buf, uint32_t len, uint32_t* ext_stat) {
    *ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    return vxapi_flash_read_at(inst->oshandle, inst, offset, buf, len, ext_stat);
}

uint16_t sum16_le(const uint8_t* p, uint32_t words) {
    uint16_t sum = 0;
    for (uint32_t i = 0; i < words; ++i)
        sum = static_cast<uint16_t>(sum + vxapi_le16(p + 2 * i));
    return sum;
}

constexpr OPT_ROM_TABLE row(uint32_t code, uint32_t size, uint32_t beg) { return {code, size, beg, beg + size - 1}; }
constexpr OPT_ROM_TABLE END_ROW{0, 0, 0, 0};

}  // namespace

// ---- Fixed tables ----

const OPT_ROM_TABLE LayoutFinch[3] = {row(0xFF, 0x20000, 0), row(0x02, 0x20000, 0), END_ROW};
const OPT_ROM_TABLE LayoutHp[3] = {row(0xFF, 0x20000, 0), row(0x03, 0x20000, 0), END_ROW};
const OPT_ROM_TABLE LayoutRobin[3] = {row(0xFF, 0x100000, 0), row(0x05, 0x100000, 0), END_ROW};
const OPT_ROM_TABLE LayoutHeron[3] = {row(0xFF, 0x20000, 0), row(0x04, 0x20000, 0), END_ROW};
const OPT_ROM_TABLE LayoutEgret[3] = {row(0xFF, 0x100000, 0), row(0x06, 0x100000, 0), END_ROW};
const OPT_ROM_TABLE LayoutSwift[8] = {
    row(0xFF, 0x100000, 0x00000), row(0x07, 0x40000, 0x00000), row(0x87, 0x8000, 0x40000),
    row(0x88, 0x8000, 0x48000),   row(0x29, 0x4000, 0x58000),  row(0x2A, 0x4000, 0x5C000),
    row(0x01, 0x80000, 0x80000),  END_ROW,
};
// Regions 0x14-0x17 are four 512-byte slices at the start of 0x08, on purpose.
const OPT_ROM_TABLE LayoutKite[19] = {
    row(0xFF, 0x200000, 0x000000), row(0x07, 0x40000, 0x000000), row(0x11, 0x40000, 0x040000),
    row(0x01, 0x40000, 0x080000),  row(0x12, 0x20000, 0x0C0000), row(0xA0, 0x400, 0x0E0000),
    row(0x87, 0x8000, 0x0F0000),   row(0x88, 0x8000, 0x0F8000),  row(0x13, 0x10000, 0x100000),
    row(0x08, 0x10000, 0x120000),  row(0x14, 0x200, 0x120000),   row(0x15, 0x200, 0x120200),
    row(0x16, 0x200, 0x120400),    row(0x17, 0x200, 0x120600),   row(0x19, 0x10000, 0x130000),
    row(0x2B, 0x8000, 0x148000),   row(0x29, 0x4000, 0x170000),  row(0x2A, 0x4000, 0x174000),
    END_ROW,
};
static_assert(sizeof LayoutFinch == 48 && sizeof LayoutHp == 48 && sizeof LayoutRobin == 48);
static_assert(sizeof LayoutHeron == 48 && sizeof LayoutEgret == 48);
static_assert(sizeof LayoutSwift == 128);
static_assert(sizeof LayoutKite == 304);

const OPT_ROM_TABLE* vxapi_fixed_layout(uint16_t device_id, uint16_t ssvendor_id, uint16_t ssdevice_id,
                                        uint32_t* needed) {
    const vx_family family = vx_adapter_family(device_id);
    const OPT_ROM_TABLE* table = nullptr;
    uint32_t size = sizeof LayoutFinch;
    switch (family) {
    case vx_family::Kite: table = LayoutKite; size = sizeof LayoutKite; break;
    case vx_family::Swift: table = LayoutSwift; size = sizeof LayoutSwift; break;
    case vx_family::Egret: table = LayoutEgret; break;
    case vx_family::Heron: table = LayoutHeron; break;
    case vx_family::Robin: table = LayoutRobin; break;
    default:
        // Every other board, the FLT families included, by its subsystem.
        table = vx_is_hp_variant(ssvendor_id, ssdevice_id) ? LayoutHp : LayoutFinch;
        break;
    }
    if (needed)
        *needed = size;
    return table;
}

uint32_t vxapi_flt_default_address(uint16_t device_id) {
    switch (vx_adapter_family(device_id)) {
    case vx_family::Kite: return 0x141000;
    case vx_family::Lark: return 0x361000;
    case vx_family::Wren:
    case vx_family::Ibis:
    case vx_family::Plover:
    case vx_family::Tern:
    case vx_family::Crane: return 0x3F1000;
    default: return 0;
    }
}

uint32_t vxapi_flt_scan_bound(uint16_t device_id) {
    switch (vx_adapter_family(device_id)) {
    case vx_family::Kite: return 0x200000;
    case vx_family::Lark: return 0x400000;
    case vx_family::Wren: return 0x800000;
    case vx_family::Ibis: return 0x1000000;
    default: return 0;
    }
}

uint32_t vxapi_fdt_address(uint16_t device_id) {
    switch (vx_adapter_family(device_id)) {
    case vx_family::Kite: return 0x140000;
    case vx_family::Lark: return 0x360000;
    case vx_family::Wren:
    case vx_family::Ibis:
    case vx_family::Plover:
    case vx_family::Tern:
    case vx_family::Crane: return 0x3F0000;
    default: return 0;
    }
}

uint32_t vxapi_flash_size(uint16_t device_id) {
    const vx_adapter_type* type = vx_adapter_lookup(device_id);
    return type ? type->flash_size : 0;
}

// ---- The current layout ----

INT_OPT_ROM_LAYOUT gOptRomLayout;
INT_OPT_ROM_LAYOUT* pGlobalOptRomLayout = nullptr;

void vxapi_publish_optrom_layout(const void* layout, uint32_t len) {
    pGlobalOptRomLayout = &gOptRomLayout;
    memset(&gOptRomLayout, 0, sizeof gOptRomLayout);
    // A layout buffer is 4088 bytes; a shorter one is copied as far as it goes.
    if (layout)
        memcpy(&gOptRomLayout, layout, len < sizeof gOptRomLayout ? len : sizeof gOptRomLayout);
    vxdbg_num(TRC, "vxapi_publish_optrom_layout: regions=", gOptRomLayout.NoOfRegions, VXDBG_DEC, 1);
}

int vxapi_check_region(uint32_t region) {
    const INT_OPT_ROM_LAYOUT* layout = pGlobalOptRomLayout;
    if (!layout)
        return 0;
    const uint32_t n = layout->NoOfRegions < VX_OPTROM_MAX_REGIONS ? layout->NoOfRegions : VX_OPTROM_MAX_REGIONS;
    for (uint32_t i = 0; i < n; ++i)
        if (layout->Region[i].Region == region)
            return 1;
    vxdbg_num(TRC, "vxapi_check_region: region not in layout. region=", region, VXDBG_HEX, 1);
    return 0;
}

// ---- Parsers ----

int vxapi_parse_flt(const uint8_t* buf, uint32_t len, INT_OPT_ROM_LAYOUT* layout) {
    if (!buf || !layout || len < sizeof(FLT_HEADER))
        return 2;
    const uint16_t version = vxapi_le16(buf + offsetof(FLT_HEADER, version));
    const uint32_t length = vxapi_le16(buf + offsetof(FLT_HEADER, length));
    if (version != 1) {
        vxdbg_num(ERR, "vxapi_parse_flt: bad version=", version, VXDBG_DEC, 1);
        return 1;
    }
    if (length + sizeof(FLT_HEADER) > len) {
        vxdbg_num(ERR, "vxapi_parse_flt: entries run past the table. length=", length, VXDBG_HEX, 1);
        return 2;
    }
    if (sum16_le(buf, (length + sizeof(FLT_HEADER)) / 2) != 0) {
        vxdbg_line(ERR, "vxapi_parse_flt: checksum failed.");
        return 3;
    }
    // At most 4088 bytes of entries fit in a 4096-byte read, so at most 255.
    uint32_t count = length / VX_FLT_ENTRY_SIZE;
    if (count > VX_OPTROM_MAX_REGIONS)
        count = VX_OPTROM_MAX_REGIONS;
    layout->NoOfRegions = count;
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t* e = buf + sizeof(FLT_HEADER) + i * VX_FLT_ENTRY_SIZE;
        INT_OPT_ROM_REGION& r = layout->Region[i];
        r.Region = vxapi_le32(e);
        r.Size = vxapi_le32(e + 4);
        r.Beg = vxapi_le32(e + 8);
        r.End = vxapi_le32(e + 12);
    }
    return 0;
}

int vxapi_parse_flt_locator(const uint8_t* buf, uint32_t len, uint32_t* address) {
    if (!buf || !address || len < sizeof(FLT_LOCATION))
        return 1;
    if (memcmp(buf, "QFLT", 4) != 0 || sum16_le(buf, sizeof(FLT_LOCATION) / 2) != 0)
        return 1;
    *address = uint32_t(vxapi_le16(buf + offsetof(FLT_LOCATION, start_hi))) << 16 |
               vxapi_le16(buf + offsetof(FLT_LOCATION, start_lo));
    return 0;
}

int vxapi_parse_fdt(const uint8_t* buf, uint32_t len, uint32_t* block_size) {
    if (!buf || !block_size || len < sizeof(FDT_LAYOUT) || memcmp(buf, "VXID", 4) != 0)
        return 1;
    if (sum16_le(buf, sizeof(FDT_LAYOUT) / 2) != 0)
        return 2;
    *block_size = vxapi_le32(buf + offsetof(FDT_LAYOUT, block_size));
    return 0;
}

// ---- Layout operations ----

int vxapi_get_flt_data(uint32_t handle, vxapi_priv_database* inst, uint32_t flt_address) {
    (void)handle;
    vxdbg_num(TRC, "vxapi_get_flt_data: entered. address=", flt_address, VXDBG_HEX, 1);
    if (!inst || !inst->phy_info || !inst->phy_info->pflt_layout) {
        vxdbg_line(ERR, "vxapi_get_flt_data: invalid parameter.");
        return 1;
    }
    constexpr uint32_t READ_LEN = 4096;
    // A table near the end of the flash is read as far as the flash goes;
    // an address past it is a broken locator.
    const uint32_t flash = vxapi_flash_size(device_of(inst));
    if (flt_address >= flash) {
        vxdbg_num(ERR, "vxapi_get_flt_data: address outside flash=", flt_address, VXDBG_HEX, 1);
        return 1;
    }
    const uint32_t len = flash - flt_address < READ_LEN ? flash - flt_address : READ_LEN;
    malloc_ptr buf(static_cast<uint8_t*>(malloc(READ_LEN)));
    if (!buf) {
        vxdbg_line(ERR, "vxapi_get_flt_data: mem allocation failed.");
        return 1;
    }
    uint32_t ext_stat = 0;
    if (read_flash(inst, flt_address, buf.get(), len, &ext_stat) != 0 || ext_stat != 0) {
        vxdbg_num(ERR, "vxapi_get_flt_data: ReadOptionRom ioctl failed. ext status=", ext_stat, VXDBG_DEC, 1);
        return 1;
    }
    if (vxapi_parse_flt(buf.get(), len, inst->phy_info->pflt_layout) != 0) {
        vxdbg_line(ERR, "vxapi_get_flt_data: invalid flt.");
        return 1;
    }
    vxdbg_num(TRC, "vxapi_get_flt_data: exiting. regions=", inst->phy_info->pflt_layout->NoOfRegions, VXDBG_DEC, 1);
    return 0;
}

int vxapi_get_flt_address(uint32_t handle, vxapi_priv_database* inst, uint32_t* address) {
    (void)handle;
    vxdbg_line(TRC, "vxapi_get_flt_address: entered.");
    const vx_family family = family_of(inst);
    if (!address || (family != vx_family::Kite && family != vx_family::Lark && family != vx_family::Wren &&
                     family != vx_family::Ibis)) {
        vxdbg_line(ERR, "vxapi_get_flt_address: device id not supported.");
        return 1;
    }
    constexpr uint32_t SCAN_LEN = 0x80000;
    constexpr uint32_t BANK = 0x200000;
    const uint32_t bound = vxapi_flt_scan_bound(device_of(inst));
    malloc_ptr buf(static_cast<uint8_t*>(malloc(SCAN_LEN)));
    if (!buf) {
        vxdbg_line(ERR, "vxapi_get_flt_address: mem allocation failed.");
        return 1;
    }
    uint32_t bank = 0;
    uint32_t pos = 0;
    bool last = false;
    do {
        uint32_t ext_stat = 0;
        if (read_flash(inst, bank, buf.get(), SCAN_LEN, &ext_stat) != 0 || ext_stat != 0) {
            vxdbg_num(ERR, "vxapi_get_flt_address: ReadOptionRom ioctl failed. ext status=", ext_stat, VXDBG_DEC, 1);
            return 1;
        }
        vxapi_rom_walk walk(buf.get(), SCAN_LEN, vxapi_rom_skip_directory(buf.get(), SCAN_LEN, 0), UINT32_MAX,
                            SCAN_LEN);
        vxapi_rom_image img;
        while (walk.next(&img)) {
        }
        if (walk.status() == vxapi_rom_status::no_signature) {
            vxdbg_num(ERR, "vxapi_get_flt_address: No Valid Sig.ret=", walk.position(), VXDBG_HEX, 1);
        } else if (walk.status() == vxapi_rom_status::no_pcir && vxdbg_on(ERR)) {
            const uint32_t at = walk.position();
            char text[96];
            snprintf(text, sizeof text, "vxapi_get_flt_address: PCI data struct not found pcir_adr=%x",
                     at + vxapi_le16(buf.get() + at + 24));  // the signature was there, so the header is too
            vxdbg_print(text, 0, VXDBG_NONE, 1);
        }
        pos = walk.position();
        last = walk.found_last();
        // The bank counter moves on before the test below, so a Kite board
        // (one bank, bound 0x200000) never passes it: it relies on its
        // table at the default address.
        bank += BANK;
    } while (family == vx_family::Lark && !last && bank < bound);

    if (family == vx_family::Wren || family == vx_family::Ibis || bank >= bound) {
        vxdbg_line(ERR, "vxapi_get_flt_address: flt locator not found.");
        return 1;
    }
    if (pos > SCAN_LEN - sizeof(FLT_LOCATION) || vxapi_parse_flt_locator(buf.get() + pos, SCAN_LEN - pos, address) != 0) {
        vxdbg_num(ERR, "vxapi_get_flt_address: invalid flt locator at=", pos, VXDBG_HEX, 1);
        return 1;
    }
    vxdbg_num(TRC, "vxapi_get_flt_address: exiting. address=", *address, VXDBG_HEX, 1);
    return 0;
}

int vxapi_set_option_rom_layout(uint32_t handle, vxapi_priv_database* inst) {
    vxdbg_line(TRC, "vxapi_set_option_rom_layout: entered.");
    if (!inst || !inst->phy_info) {
        vxdbg_line(ERR, "vxapi_set_option_rom_layout: invalid parameter.");
        return 1;
    }
    vxapi_phy_info* phy = inst->phy_info;
    free(phy->pflt_layout);  // a second discovery of the adapter builds it afresh
    phy->pflt_layout = static_cast<INT_OPT_ROM_LAYOUT*>(calloc(1, sizeof(INT_OPT_ROM_LAYOUT)));
    if (!phy->pflt_layout) {
        vxdbg_line(ERR, "vxapi_set_option_rom_layout: mem alloc failed.");
        return 1;
    }
    auto give_up = [phy] {
        free(phy->pflt_layout);
        phy->pflt_layout = nullptr;
        return 1;
    };
    const uint32_t address = vxapi_flt_default_address(phy->device_id);
    if (address == 0) {
        vxdbg_line(ERR, "vxapi_set_option_rom_layout: device id not supported.");
        return give_up();
    }
    if (vxapi_get_flt_data(handle, inst, address) != 0) {
        uint32_t found = 0;
        if (vxapi_get_flt_address(handle, inst, &found) != 0) {
            vxdbg_line(ERR, "vxapi_set_option_rom_layout: flt address read failed.");
            return give_up();
        }
        if (vxapi_get_flt_data(handle, inst, found) != 0) {
            vxdbg_line(ERR, "vxapi_set_option_rom_layout: flt data read failed.");
            return give_up();
        }
    }
    vxapi_publish_optrom_layout(phy->pflt_layout, sizeof(INT_OPT_ROM_LAYOUT));
    vxdbg_line(TRC, "vxapi_set_option_rom_layout: exiting.");
    return 0;
}

int vxapi_get_optrom_layout(uint32_t handle, vxapi_priv_database* inst, uint8_t* buffer, uint32_t buffer_size,
                            uint32_t* pext_status) {
    vxdbg_line(TRC, "vxapi_get_optrom_layout: entered.");
    if (!inst || !inst->phy_info || !buffer) {
        set_status(pext_status, EXT_STATUS_INVALID_PARAM);
        vxdbg_line(ERR, "vxapi_get_optrom_layout: invalid parameter.");
        return 1;
    }
    const vx_family family = family_of(inst);
    if ((inst->features & VX_FEAT_SYSFS) || family == vx_family::Swift || family == vx_family::Kite)
        return vxsysfs_get_optrom_layout(handle, inst, buffer, buffer_size, pext_status);
    uint32_t ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    const int rc = vxapi_send_ext_ioctl(inst->oshandle, inst, EXT_CC_GET_OPTROM_LAYOUT, 0, 0, nullptr, 0, buffer,
                                        buffer_size, &ext_stat, nullptr);
    set_status(pext_status, ext_stat);
    if (rc != 0)
        vxdbg_num(ERR, "vxapi_get_optrom_layout: request failed. ext status=", ext_stat, VXDBG_DEC, 1);
    return rc;
}

uint32_t vxapi_override_flt(uint32_t handle, vxapi_priv_database* inst) {
    vxdbg_line(TRC, "vxapi_override_flt: entered.");
    malloc_ptr buf(static_cast<uint8_t*>(malloc(VX_OPTROM_LAYOUT_SIZE)));
    if (!buf) {
        vxdbg_line(ERR, "vxapi_override_flt: mem alloc failed.");
        return 1;
    }
    memset(&gOptRomLayout, 0, sizeof gOptRomLayout);
    uint32_t ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    vxsysfs_get_optrom_layout(handle, inst, buf.get(), VX_OPTROM_LAYOUT_SIZE, &ext_stat);
    vxdbg_num(TRC, "vxapi_override_flt: exiting. ext status=", ext_stat, VXDBG_DEC, 1);
    return ext_stat;
}

// ---- Sector alignment ----

int vxapi_sector_span(uint32_t offset, uint32_t size, uint32_t sector, uint32_t* start, uint32_t* len) {
    if (sector == 0 || (sector & (sector - 1)) != 0 || !start || !len)
        return 1;
    const uint64_t mask = ~uint64_t(sector - 1);
    const uint64_t first = offset & mask;
    const uint64_t end = (uint64_t(offset) + size + sector - 1) & mask;
    if (end - first > UINT32_MAX)
        return 1;
    *start = static_cast<uint32_t>(first);
    *len = static_cast<uint32_t>(end - first);
    return 0;
}

namespace {

constexpr uint32_t DEFAULT_SECTOR = 0x10000;
constexpr uint32_t MAX_SECTOR = 0x1000000;

// Sector size from the flash-part description; the default when it cannot be read.
uint32_t fdt_sector_size(vxapi_priv_database* inst) {
    uint8_t fdt[sizeof(FDT_LAYOUT)];
    uint32_t ext_stat = 0;
    if (read_flash(inst, vxapi_fdt_address(device_of(inst)), fdt, sizeof fdt, &ext_stat) != 0 || ext_stat != 0) {
        vxdbg_line(ERR, "vxapi_sector_align: Read fdt failed");
        return DEFAULT_SECTOR;
    }
    uint32_t block = 0;
    switch (vxapi_parse_fdt(fdt, sizeof fdt, &block)) {
    case 0: break;
    case 1: vxdbg_line(ERR, "vxapi_sector_align: FDT not present"); return DEFAULT_SECTOR;
    default: vxdbg_line(ERR, "vxapi_sector_align: FDT checksum failed"); return DEFAULT_SECTOR;
    }
    // A block size that is no power of two would make the arithmetic meaningless.
    if (block == 0 || (block & (block - 1)) != 0 || block > MAX_SECTOR) {
        vxdbg_num(ERR, "vxapi_sector_align: FDT block size unusable=", block, VXDBG_HEX, 1);
        return DEFAULT_SECTOR;
    }
    return block;
}

}  // namespace

uint32_t vxapi_sector_align(int handle, vxapi_priv_database* inst, uint8_t** db, const uint8_t* poptrom,
                            uint32_t* offset, uint32_t* size) {
    vxdbg_line(TRC, "vxapi_sector_align: entered.");
    if (!inst || !db || !poptrom || !offset || !size) {
        vxdbg_line(ERR, "vxapi_sector_align: invalid parameter.");
        return 1;
    }
    *db = nullptr;
    const uint16_t id = device_of(inst);
    uint32_t sector = 0;
    if (vx_adapter_family(id) == vx_family::Swift) {
        sector = DEFAULT_SECTOR;
    } else if (vx_adapter_has(id, VX_MARK_FLT)) {
        if (vxapi_get_flash_sector_size(handle, inst, &sector) != 0 || sector == 0)
            sector = fdt_sector_size(inst);
    } else {
        vxdbg_line(ERR, "vxapi_setor_align: device id not supported.");
        return 1;
    }
    uint32_t start = 0, len = 0;
    if (vxapi_sector_span(*offset, *size, sector, &start, &len) != 0) {
        vxdbg_num(ERR, "vxapi_sector_align: sector size unusable=", sector, VXDBG_HEX, 1);
        return 1;
    }
    if (start == *offset && len == *size) {
        vxdbg_line(TRC, "vxapi_sector_align: exiting, aligned.");
        return 0;
    }
    malloc_ptr buf(static_cast<uint8_t*>(calloc(1, len)));
    if (!buf) {
        vxdbg_line(ERR, "vxapi_sector_align: Unable to allocate memory for db");
        return 1;
    }
    uint32_t ext_stat = 0;
    if (read_flash(inst, start, buf.get(), len, &ext_stat) != 0 || ext_stat != 0) {
        vxdbg_num(ERR, "vxapi_sector_align: Sector size read failed. ext status=", ext_stat, VXDBG_DEC, 1);
        return 1;
    }
    memcpy(buf.get() + (*offset - start), poptrom, *size);
    *db = buf.release();
    *offset = start;
    *size = len;
    vxdbg_num(TRC, "vxapi_sector_align: exiting. size=", len, VXDBG_HEX, 1);
    return 0;
}

// ---- Region reset ----

namespace {

// Reset codes of the activate request (ours; docs/adapters.md).
constexpr uint16_t RESET_FIRMWARE = 0x0101;   // FC firmware restarts
constexpr uint16_t RESET_MPI = 0x0102;        // management processor firmware restarts
constexpr uint16_t RESET_EDC = 0x0103;        // EDC firmware restarts
constexpr uint16_t RESET_PEP = 0x0104;        // PEP firmware restarts
constexpr uint16_t RESET_NVRAM = 0x0105;      // the ports reload their NVRAM
constexpr uint16_t RESET_FCOE = 0x0106;       // the converged ports reload their FCoE parameters
constexpr uint16_t RESET_OTHER_SET = 0x0107;  // the image set not running is checked and made ready

enum family_bit : uint8_t {
    LARK = 1 << 0,
    WREN = 1 << 1,
    IBIS = 1 << 2,
    PLOVER = 1 << 3,
    TERN = 1 << 4,
    CRANE = 1 << 5,
};

struct reset_row {
    uint8_t region;
    uint8_t families;
    uint16_t code;
};

constexpr reset_row reset_table[] = {
    {0x01, LARK | WREN | IBIS | PLOVER | TERN | CRANE, RESET_FIRMWARE},
    {0x02, CRANE, RESET_MPI},
    {0x09, CRANE, RESET_PEP},
    {0x45, LARK, RESET_EDC},
    {0x15, LARK | WREN | PLOVER | CRANE, RESET_NVRAM},
    {0x17, LARK | WREN | PLOVER | CRANE, RESET_NVRAM},
    {0xD5, CRANE, RESET_NVRAM},
    {0xD7, CRANE, RESET_NVRAM},
    {0xAA, IBIS | TERN, RESET_NVRAM},
    {0xAC, IBIS | TERN, RESET_NVRAM},
    {0x51, LARK | CRANE, RESET_FCOE},
    {0x53, LARK | CRANE, RESET_FCOE},
    {0xD9, CRANE, RESET_FCOE},
    {0xDB, CRANE, RESET_FCOE},
    {0x74, IBIS | TERN, RESET_OTHER_SET},
    {0x97, IBIS | TERN, RESET_OTHER_SET},
    {0xA4, IBIS | TERN, RESET_OTHER_SET},
};

uint8_t family_bit_of(vx_family family) {
    switch (family) {
    case vx_family::Lark: return LARK;
    case vx_family::Wren: return WREN;
    case vx_family::Ibis: return IBIS;
    case vx_family::Plover: return PLOVER;
    case vx_family::Tern: return TERN;
    case vx_family::Crane: return CRANE;
    default: return 0;
    }
}

}  // namespace

vxapi_reset_action vxapi_reset_code(uint16_t device_id, uint32_t region, uint16_t* code) {
    const uint8_t bit = family_bit_of(vx_adapter_family(device_id));
    vxapi_reset_action action = vxapi_reset_action::invalid;
    uint16_t found = static_cast<uint16_t>(region);
    if (region == VX_RESET_SPECIAL_VERSIONS) {
        // The one reset every family takes: the driver re-reads the versions.
        action = vxapi_reset_action::send;
    } else if (!bit) {
        action = vxapi_reset_action::nothing;
    } else if (region == VX_RESET_SPECIAL_FULL) {
        action = vxapi_reset_action::send;
    } else if (region == VX_RESET_SPECIAL_IMAGE_SET) {
        if (vx_adapter_has(device_id, VX_MARK_ACTIVE_IMAGE))
            action = vxapi_reset_action::send;
    } else if (region <= VX_REGION_CODE_MASK) {
        for (const reset_row& r : reset_table) {
            if (r.region == region && (r.families & bit)) {
                found = r.code;
                action = vxapi_reset_action::send;
                break;
            }
        }
    }
    if (action == vxapi_reset_action::send && code)
        *code = found;
    if (action == vxapi_reset_action::invalid)
        vxdbg_num(ERR, "vxapi_reset_code: no reset for region=", region, VXDBG_HEX, 1);
    return action;
}

// ---- Image versions kept in flash and run by the adapter's processors ----

namespace {

// fcoe_valid: one bit per component version read (docs/adapters.md).
enum fcoe_bit : uint32_t {
    FCOE_MPI_RUNNING = 1u << 0,
    FCOE_EDC_RUNNING = 1u << 1,  // the PEP processor on boards that have one
    FCOE_MPI_FLASH = 1u << 2,
    FCOE_EDC_FLASH = 1u << 3,
    FCOE_NIC_BOOT = 1u << 4,
};

// Region codes of the processor images, per family.
constexpr uint8_t REGION_FW = 0x01;
constexpr uint8_t REGION_BOOT = 0x07;
constexpr uint8_t REGION_NIC_BOOT = 0x2E;
constexpr uint8_t REGION_LARK_MPI = 0x40;
constexpr uint8_t REGION_LARK_EDC = 0x45;
constexpr uint8_t REGION_CRANE_MPI = 0x02;
constexpr uint8_t REGION_CRANE_PEP = 0x09;

// Start of a region code in the adapter's own layout table, else in the
// current layout. 1 when neither has it.
int region_start(const vxapi_priv_database* inst, uint8_t code, uint32_t* beg, uint32_t* size) {
    const INT_OPT_ROM_LAYOUT* layout = inst->phy_info ? inst->phy_info->pflt_layout : nullptr;
    if (layout) {
        const uint32_t n = layout->NoOfRegions < VX_OPTROM_MAX_REGIONS ? layout->NoOfRegions : VX_OPTROM_MAX_REGIONS;
        for (uint32_t i = 0; i < n; ++i) {
            if ((layout->Region[i].Region & VX_REGION_CODE_MASK) == code) {
                *beg = layout->Region[i].Beg;
                *size = layout->Region[i].Size;
                return 0;
            }
        }
    }
    return vxsysfs_map_region(inst, code, beg, size);
}

// Major, minor and subminor of the firmware-type image heading a region
// whose header carries `tag`. 0 when found.
int image_version(vxapi_priv_database* inst, uint8_t code, const char* tag, uint8_t ver[3]) {
    uint32_t beg = 0, size = 0;
    if (region_start(inst, code, &beg, &size) != 0 || size < sizeof(INT_FW_IMAGE_HEADER))
        return 1;
    uint8_t head[sizeof(INT_FW_IMAGE_HEADER)];
    uint32_t ext_stat = 0;
    if (read_flash(inst, beg, head, sizeof head, &ext_stat) != 0 || ext_stat != 0 || memcmp(head, tag, 4) != 0) {
        vxdbg_num(ERR, "vxapi_image_version: no image in region=", code, VXDBG_HEX, 1);
        return 1;
    }
    ver[0] = static_cast<uint8_t>(vxapi_le32(head + offsetof(INT_FW_IMAGE_HEADER, major)));
    ver[1] = static_cast<uint8_t>(vxapi_le32(head + offsetof(INT_FW_IMAGE_HEADER, minor)));
    ver[2] = static_cast<uint8_t>(vxapi_le32(head + offsetof(INT_FW_IMAGE_HEADER, subminor)));
    return 0;
}

// Reads one flash version into `dst` and marks it valid; 1 when it is not there.
int flash_version(vxapi_priv_database* inst, uint8_t code, const char* tag, uint8_t* dst, uint32_t bit) {
    uint8_t ver[3];
    if (image_version(inst, code, tag, ver) != 0)
        return 1;
    memcpy(dst, ver, sizeof ver);
    inst->phy_info->fcoe_valid |= bit;
    return 0;
}

bool version_set(const uint8_t* v) { return v[0] || v[1] || v[2]; }

}  // namespace

int vxapi_query_adapter_versions(uint32_t handle, vxapi_priv_database* inst, uint32_t* pext_stat) {
    (void)handle;
    uint32_t local = 0;
    pext_stat = pext_stat ? pext_stat : &local;
    if (!vxapi_leaf_ready("vxapi_query_adapter_versions", inst, inst && inst->phy_info, pext_stat))
        return 1;
    EXT_ADAPTER_VERSIONS ver{};
    const int32_t rc = inst->channel->query_adapter_versions(inst->oshandle, inst, &ver, pext_stat);
    if (rc != 0 || *pext_stat != EXT_STATUS_OK) {
        vxdbg_num(ERR, "vxapi_query_adapter_versions: request failed. ext status=", *pext_stat, VXDBG_DEC, 1);
        return rc != 0 ? rc : 1;
    }
    vxapi_phy_info* phy = inst->phy_info;
    memcpy(phy->mpi_running_ver, ver.MpiVersion, 3);
    memcpy(phy->edc_running_ver, ver.EdcVersion, 3);
    if (version_set(ver.MpiVersion))
        phy->fcoe_valid |= FCOE_MPI_RUNNING;
    if (version_set(ver.EdcVersion))
        phy->fcoe_valid |= FCOE_EDC_RUNNING;
    vxdbg_num(TRC, "vxapi_query_adapter_versions: exiting. valid=", phy->fcoe_valid, VXDBG_HEX, 1);
    return 0;
}

int vxapi_get_flash_mpi_edc_versions(uint32_t handle, vxapi_priv_database* inst, uint32_t* pext_stat) {
    (void)handle;
    set_status(pext_stat, EXT_STATUS_DEV_NOT_FOUND);
    if (!inst || !inst->phy_info) {
        vxdbg_line(ERR, "vxapi_get_flash_mpi_edc_versions: invalid parameter.");
        return 1;
    }
    const int mpi = flash_version(inst, REGION_LARK_MPI, "VXMP", inst->phy_info->mpi_flash_ver, FCOE_MPI_FLASH);
    const int edc = flash_version(inst, REGION_LARK_EDC, "VXED", inst->phy_info->edc_flash_ver, FCOE_EDC_FLASH);
    if (mpi || edc) {
        vxdbg_line(ERR, "vxapi_get_flash_mpi_edc_versions: no versions found.");
        return 1;
    }
    set_status(pext_stat, EXT_STATUS_OK);
    return 0;
}

int vxapi_get_nic_bootcode_version(uint32_t handle, vxapi_priv_database* inst, uint32_t* pext_stat) {
    (void)handle;
    set_status(pext_stat, EXT_STATUS_DEV_NOT_FOUND);
    if (!inst || !inst->phy_info ||
        flash_version(inst, REGION_NIC_BOOT, "VXNB", inst->phy_info->nic_bios_ver, FCOE_NIC_BOOT) != 0) {
        vxdbg_line(ERR, "vxapi_get_nic_bootcode_version: no versions found.");
        return 1;
    }
    set_status(pext_stat, EXT_STATUS_OK);
    return 0;
}

int vxapi_get_active_image_set(uint32_t handle, vxapi_priv_database* inst, uint32_t* pext_stat) {
    (void)handle;
    uint32_t local = 0;
    pext_stat = pext_stat ? pext_stat : &local;
    if (!vxapi_leaf_ready("vxapi_get_active_image_set", inst, inst && inst->phy_info, pext_stat))
        return 1;
    uint32_t image = 0;
    const int32_t rc = inst->channel->get_active_image_set(inst->oshandle, inst, &image, pext_stat);
    if (rc != 0 || *pext_stat != EXT_STATUS_OK) {
        vxdbg_num(ERR, "vxapi_get_active_image_set: request failed. ext status=", *pext_stat, VXDBG_DEC, 1);
        return rc != 0 ? rc : 1;
    }
    inst->phy_info->active_image = static_cast<uint8_t>(image);
    vxdbg_num(TRC, "vxapi_get_active_image_set: exiting. image=", image, VXDBG_DEC, 1);
    return 0;
}

int vxapi_read_flash_versions(int handle, vxapi_priv_database* inst, EXT_HBA_NODE* node, uint32_t* pext_stat) {
    (void)handle;
    set_status(pext_stat, EXT_STATUS_DEV_NOT_FOUND);
    if (!inst || !inst->phy_info || !node) {
        vxdbg_line(ERR, "vxapi_read_flash_versions: invalid parameter.");
        return 1;
    }
    // The boot images stand at the start of the boot-code region (the
    // flash itself on boards without one).
    constexpr uint32_t BOOT_READ_MAX = 0x80000;
    uint32_t beg = 0, size = 0;
    if (region_start(inst, REGION_BOOT, &beg, &size) != 0 || size == 0)
        size = vxapi_flash_size(device_of(inst));
    size = size < BOOT_READ_MAX ? size : BOOT_READ_MAX;
    malloc_ptr buf(static_cast<uint8_t*>(malloc(size ? size : 1)));
    uint32_t ext_stat = 0;
    if (!buf || size == 0 || read_flash(inst, beg, buf.get(), size, &ext_stat) != 0 || ext_stat != 0) {
        vxdbg_num(ERR, "vxapi_read_flash_versions: flash read failed. ext status=", ext_stat, VXDBG_DEC, 1);
        return 1;
    }
    vxapi_rom_image img;
    if (vxapi_find_rom_image(buf.get(), size, VX_CODE_TYPE_EFI, &img) == 0) {
        node->BIEfiVersion[0] = static_cast<uint8_t>(img.code_revision >> 8);
        node->BIEfiVersion[1] = static_cast<uint8_t>(img.code_revision);
    }
    if (vxapi_find_rom_image(buf.get(), size, VX_CODE_TYPE_FCODE, &img) == 0) {
        node->BIFCodeVersion[0] = static_cast<uint8_t>(img.code_revision >> 8);
        node->BIFCodeVersion[1] = static_cast<uint8_t>(img.code_revision);
    }
    if (vxapi_find_rom_image(buf.get(), size, VX_CODE_TYPE_X86, &img) == 0)
        snprintf(reinterpret_cast<char*>(node->OptRomVersion), sizeof node->OptRomVersion, "%u.%02u",
                 img.code_revision >> 8, img.code_revision & 0xFFu);
    uint8_t fw[3];
    if (image_version(inst, REGION_FW, "VXFW", fw) == 0)
        memcpy(node->BIFwVersion, fw, sizeof fw);
    set_status(pext_stat, EXT_STATUS_OK);
    vxdbg_line(TRC, "vxapi_read_flash_versions: exiting.");
    return 0;
}

int vxapi_get_flash_mpi_pep_versions(uint32_t handle, vxapi_priv_database* inst, uint8_t* mpi_ver, uint8_t* pep_ver) {
    (void)handle;
    if (!inst || !inst->phy_info || !mpi_ver || !pep_ver) {
        vxdbg_line(ERR, "vxapi_get_flash_mpi_pep_versions: invalid parameter.");
        return 1;
    }
    uint8_t mpi[3], pep[3];
    if (image_version(inst, REGION_CRANE_MPI, "VXMP", mpi) != 0 ||
        image_version(inst, REGION_CRANE_PEP, "VXPE", pep) != 0) {
        vxdbg_line(ERR, "vxapi_get_flash_mpi_pep_versions: no versions found.");
        return 1;
    }
    memcpy(mpi_ver, mpi, sizeof mpi);
    memcpy(pep_ver, pep, sizeof pep);
    return 0;
}

namespace {

// What each fcoe_valid bit reports: the region, where the version lives
// (0 running, 1 flash) and the bytes of the adapter record.
struct fcoe_row {
    uint32_t bit;
    uint16_t location;
    uint8_t lark_region;
    uint8_t crane_region;
    size_t field;
};

constexpr fcoe_row fcoe_rows[] = {
    {FCOE_MPI_RUNNING, 0, REGION_LARK_MPI, REGION_CRANE_MPI, offsetof(vxapi_phy_info, mpi_running_ver)},
    {FCOE_EDC_RUNNING, 0, REGION_LARK_EDC, REGION_CRANE_PEP, offsetof(vxapi_phy_info, edc_running_ver)},
    {FCOE_MPI_FLASH, 1, REGION_LARK_MPI, REGION_CRANE_MPI, offsetof(vxapi_phy_info, mpi_flash_ver)},
    {FCOE_EDC_FLASH, 1, REGION_LARK_EDC, REGION_CRANE_PEP, offsetof(vxapi_phy_info, edc_flash_ver)},
    {FCOE_NIC_BOOT, 1, REGION_NIC_BOOT, REGION_NIC_BOOT, offsetof(vxapi_phy_info, nic_bios_ver)},
};

}  // namespace

int vxapi_copy_fcoe_versions(vxapi_priv_database* inst, uint8_t* buf, uint32_t size) {
    constexpr uint32_t HEAD = offsetof(ADAPTERREGIONVERSION, RegionVersion);
    if (!inst || !inst->phy_info || !buf || size < HEAD)
        return 1;
    const vxapi_phy_info* phy = inst->phy_info;
    const bool crane = vx_adapter_family(phy->device_id) == vx_family::Crane;
    uint32_t count = 0;
    for (const fcoe_row& row : fcoe_rows) {
        if (!(phy->fcoe_valid & row.bit))
            continue;
        // Entries past the caller's buffer are left out, never written.
        if (HEAD + (count + 1) * sizeof(REGIONVERSION) > size)
            break;
        REGIONVERSION entry{};
        entry.Region = crane ? row.crane_region : row.lark_region;
        entry.Location = row.location;
        entry.VersionLength = 3;
        memcpy(entry.Version, reinterpret_cast<const uint8_t*>(phy) + row.field, 3);
        memcpy(buf + HEAD + count * sizeof(REGIONVERSION), &entry, sizeof entry);
        ++count;
    }
    memcpy(buf + offsetof(ADAPTERREGIONVERSION, Length), &count, sizeof count);
    return 0;
}
