// SD management interface: the flash layout, option ROM reads (whole image,
// one region, a raw range) and updates, with the preservation of the
// adapter's own settings across a boot-code update and the region reset
// that makes new content live.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "vsdmgt.h"
#include "vx_adapters.h"
#include "vx_core.h"
#include "vx_core_flash.h"
#include "vx_sdapi.h"

using namespace vxsd;

namespace {

constexpr uint32_t MIN_IMAGE = 0x20000;  // whole-image calls move at least the 128 KiB boot image
constexpr uint32_t VPD_LEN = 512;

struct free_deleter {
    void operator()(void* p) const { free(p); }
};
using malloc_ptr = std::unique_ptr<uint8_t, free_deleter>;

uint16_t device_of(const vxapi_priv_database* inst) { return inst->phy_info ? inst->phy_info->device_id : 0; }
vx_family family_of(const vxapi_priv_database* inst) { return vx_adapter_family(device_of(inst)); }

bool is_vport(const vxapi_priv_database* inst) { return inst->interface_type == VX_IFTYPE_VIRTUAL; }

void trace_text(uint32_t guard, const char* fn, const char* text, uint64_t number = 0, uint8_t radix = VXDBG_NONE) {
    if (!vxdbg_on(guard))
        return;
    vxdbg_print(fn, 0, VXDBG_NONE, 0);
    vxdbg_print(text, number, radix, 1);
}

// The adapter's layout into `work` (a whole layout buffer), published as
// the current layout.
uint32_t load_layout(int Device, vxapi_priv_database* inst, INT_OPT_ROM_LAYOUT* work) {
    const uint16_t id = device_of(inst);
    const vxapi_phy_info* phy = inst->phy_info;
    if (vx_adapter_has(id, VX_MARK_FLT) && phy && phy->pflt_layout) {
        memcpy(work, phy->pflt_layout, sizeof *work);
    } else if (vx_adapter_has(id, VX_MARK_FLT) && vx_adapter_family(id) != vx_family::Kite) {
        trace_text(SD_ERROR, "SDGetOptionRomLayout", ": no flash layout table read for the adapter.");
        return SDM_STATUS_UNKNOWN_ERROR;
    } else {
        uint32_t ext_stat = EXT_STATUS_OK;
        const int rc = vxapi_get_optrom_layout(static_cast<uint32_t>(Device), inst, reinterpret_cast<uint8_t*>(work),
                                               sizeof *work, &ext_stat);
        if (rc != 0 || ext_stat != EXT_STATUS_OK) {
            trace_text(SD_ERROR, "SDGetOptionRomLayout", ": layout request failed. ext status=", ext_stat, VXDBG_DEC);
            return failure_status(rc, ext_stat);
        }
    }
    vxapi_publish_optrom_layout(work, sizeof *work);
    return SDM_STATUS_SUCCESS;
}

uint32_t publish_layout(int Device, vxapi_priv_database* inst) {
    std::unique_ptr<INT_OPT_ROM_LAYOUT> work(new (std::nothrow) INT_OPT_ROM_LAYOUT);
    if (!work)
        return SDM_STATUS_OUT_OF_MEMORY;
    return load_layout(Device, inst, work.get());
}

// A boot-code image whose expansion-ROM chain is broken would leave the
// adapter without boot code: refused before anything is written.
bool boot_code_broken(const char* fn, uint32_t region, const uint8_t* image, uint32_t size) {
    if (!vxapi_region_holds_boot_code(region))
        return false;
    const uint32_t start = vxapi_rom_skip_directory(image, size, 0);
    const vxapi_rom_status st = vxapi_check_rom_images(image + start, size - start, nullptr);
    if (st == vxapi_rom_status::ok)
        return false;
    if (vxdbg_on(SD_ERROR)) {
        vxdbg_print(fn, 0, VXDBG_NONE, 0);
        vxdbg_print(": image refused: ", 0, VXDBG_NONE, 0);
        vxdbg_print(vxapi_rom_status_text(st), 0, VXDBG_NONE, 1);
    }
    return true;
}

// Handle, virtual port and whole-image family checks shared by the update
// front ends; 0 when the call may go on.
uint32_t update_checks(const char* fn, int Device, vxapi_priv_database** pinst, bool whole_image_families) {
    vxapi_priv_database* inst = resolve(fn, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (is_vport(inst)) {
        trace_text(SD_ERROR, fn, ": Not supported for vport. handle=", static_cast<uint32_t>(Device), VXDBG_DEC);
        return SDM_STATUS_NOT_SUPPORTED;
    }
    const vx_family family = family_of(inst);
    if (whole_image_families && (family == vx_family::Wren || family == vx_family::Ibis)) {
        trace_text(SD_ERROR, fn, ": Not supported for Wren. handle=", static_cast<uint32_t>(Device), VXDBG_DEC);
        return SDM_STATUS_NOT_SUPPORTED;
    }
    *pinst = inst;
    return SDM_STATUS_SUCCESS;
}

}  // namespace

const INT_OPT_ROM_REGION* vxsd::current_region(uint32_t code) {
    const INT_OPT_ROM_LAYOUT* layout = pGlobalOptRomLayout;
    if (!layout)
        return nullptr;
    const uint32_t n = layout->NoOfRegions < VX_OPTROM_MAX_REGIONS ? layout->NoOfRegions : VX_OPTROM_MAX_REGIONS;
    for (uint32_t i = 0; i < n; ++i)
        if ((layout->Region[i].Region & VX_REGION_CODE_MASK) == code)
            return &layout->Region[i];
    return nullptr;
}

// ---- The two write paths ----

uint32_t SDUpdateOptionRomCommonEx2(int Device, uint8_t* pBuffer, uint32_t BufferSize, uint32_t region,
                                    uint32_t region_index, vxapi_priv_database* inst) {
    (void)Device;
    (void)region_index;
    if (!pBuffer || !inst)
        return SDM_STATUS_INVALID_PARAMETER;
    uint32_t ext_stat = EXT_STATUS_OK;
    const int32_t rc = vxapi_update_optrom(inst->oshandle, inst, pBuffer, BufferSize, region, 0, &ext_stat);
    if (rc != 0 || ext_stat != EXT_STATUS_OK) {
        vxdbg_num(SD_ERROR, "SDUpdateOptionRomCommonEx2: UpdateOptionRom ioctl failed. ext status=", ext_stat,
                  VXDBG_DEC, 1);
        return failure_status(rc, ext_stat);
    }
    return SDM_STATUS_SUCCESS;
}

uint32_t SDUpdateOptionRomCommon(int Device, uint8_t* pBuffer, uint32_t BufferSize, uint32_t region,
                                 uint32_t region_index, vxapi_priv_database* inst) {
    (void)region_index;
    if (!pBuffer || !inst)
        return SDM_STATUS_INVALID_PARAMETER;
    const uint16_t id = device_of(inst);
    const vx_family family = vx_adapter_family(id);
    const bool swift = family == vx_family::Swift;
    malloc_ptr current(static_cast<uint8_t*>(malloc(BufferSize)));
    if (!current)
        return SDM_STATUS_OUT_OF_MEMORY;

    uint32_t ext_stat = EXT_STATUS_OK;
    int32_t rc = vxapi_read_optrom(inst->oshandle, inst, current.get(), BufferSize, region, 0, &ext_stat);
    if (rc != 0 || ext_stat != EXT_STATUS_OK) {
        vxdbg_num(SD_ERROR, "SDUpdateOptionRom: ReadOptionRom ioctl failed. ext status=", ext_stat, VXDBG_DEC, 1);
        return failure_status(rc, ext_stat);
    }

    // The adapter's BIOS settings and subsystem vendor survive a boot-code update.
    vxapi_rom_image first;
    const uint32_t first_at = vxapi_rom_skip_directory(current.get(), BufferSize, 0);
    if (vxapi_rom_image_at(current.get(), BufferSize, first_at, &first) == vxapi_rom_status::ok &&
        first.code_type == VX_CODE_TYPE_X86) {
        const uint32_t changed = vxapi_preserve_settings(current.get(), BufferSize, pBuffer, BufferSize,
                                                         swift ? VX_SETTINGS_LEN_SWIFT : VX_SETTINGS_LEN);
        vxdbg_num(VXDBG_TRACE, "SDUpdateOptionRomCommon: images preserved=", changed, VXDBG_DEC, 1);
    } else {
        vxdbg_line(VXDBG_TRACE, "SDUpdateOptionRomCommon: BIOS not found, nothing to preserve.");
    }

    if (vx_adapter_has(id, VX_MARK_OLD_VPD_IMAGE)) {
        if (const uint8_t* vpd = vxapi_find_vpd_image(current.get(), BufferSize)) {
            vxdbg_num(VXDBG_TRACE, "SDUpdateOptionRomCommon: preserve the VPD region=", region, VXDBG_HEX, 1);
            uint8_t copy[VPD_LEN];
            memcpy(copy, vpd, sizeof copy);
            vxapi_add_vpd_image(pBuffer, BufferSize, copy);
        } else {
            vxdbg_line(VXDBG_TRACE, "SDUpdateOptionRomCommon: VPD does not exist.");
        }
    }

    uint8_t* write = pBuffer;
    uint32_t write_len = BufferSize;
    malloc_ptr doubled;
    if (family == vx_family::Kite && (region == VX_REGION_WHOLE_FLASH || region == 0x07)) {
        // The boot code stands twice on these boards.
        uint8_t* made = nullptr;
        write = vxapi_kite_double_boot(pBuffer, BufferSize, &made, &write_len);
        doubled.reset(made);
        if (!write)
            return SDM_STATUS_OUT_OF_MEMORY;
    }

    rc = vxapi_update_optrom(inst->oshandle, inst, write, write_len, region, 0, &ext_stat);
    if (rc != 0 || ext_stat != EXT_STATUS_OK) {
        vxdbg_num(SD_ERROR, "SDUpdateOptionRom: UpdateOptionRom ioctl failed. ext status=", ext_stat, VXDBG_DEC, 1);
        return failure_status(rc, ext_stat);
    }

    if (swift) {
        // The VPD's version keywords follow the new image, on both ports.
        uint8_t vpd[VPD_LEN] = {};
        uint32_t vpd_len = sizeof vpd;
        if (SDGetVpd(Device, 0, vpd, &vpd_len) != SDM_STATUS_SUCCESS ||
            vxapi_update_nv_vpd_version(write, write_len, vpd, sizeof vpd, region) != 0) {
            vxdbg_line(SD_ERROR, "SDUpdateOptionRomCommon: Update Swift VPD version fields failed");
            return SDM_STATUS_VPD_VERSION_FAILED;
        }
        return SDSwiftSaveVpd(Device, vpd, sizeof vpd);
    }
    return SDM_STATUS_SUCCESS;
}

// ---- Layout ----

extern "C" VXSD_API SD_UINT32 SDGetOptionRomLayout(int Device, SD_UINT16 HbaDevPortNum, SDM_OPT_ROM_LAYOUT* pLayout) {
    static constexpr const char* name = "SDGetOptionRomLayout";
    (void)HbaDevPortNum;
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    std::unique_ptr<INT_OPT_ROM_LAYOUT> work(new (std::nothrow) INT_OPT_ROM_LAYOUT);
    if (!work)
        return SDM_STATUS_OUT_OF_MEMORY;
    uint32_t status = load_layout(Device, inst, work.get());
    if (status == SDM_STATUS_SUCCESS && pLayout) {
        const uint32_t count =
            work->NoOfRegions < VX_OPTROM_MAX_REGIONS ? work->NoOfRegions : VX_OPTROM_MAX_REGIONS;
        if (pLayout->NoOfRegions < count) {
            pLayout->NoOfRegions = count;
            status = SDM_STATUS_BUFFER_TOO_SMALL;
        } else {
            pLayout->Size = work->Size;
            pLayout->NoOfRegions = count;
            // Region[] is as long as the caller made it: written entry by entry.
            auto* regions = reinterpret_cast<uint8_t*>(pLayout) + offsetof(SDM_OPT_ROM_LAYOUT, Region);
            for (uint32_t i = 0; i < count; ++i) {
                const SDM_OPT_ROM_REGION r{work->Region[i].Region & VX_REGION_CODE_MASK, work->Region[i].Size};
                memcpy(regions + i * sizeof r, &r, sizeof r);
            }
        }
    }
    trace_exit(name, Device, status);
    return status;
}

// ---- Reads ----

namespace {

// The read calls share one frame: handle and buffer checks, the layout when
// a region is named, one read through the physical port.
uint32_t read_call(const char* name, int Device, SD_UINT8* pBuffer, SD_UINT32 BufferSize, uint32_t region,
                   uint32_t offset, uint32_t minimum) {
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!pBuffer || BufferSize == 0)
        return null_record(name, Device);
    if (BufferSize < minimum) {
        if (vxdbg_on(SD_ERROR)) {
            vxdbg_print(name, 0, VXDBG_NONE, 0);
            vxdbg_print(": ERROR BufferSize=", BufferSize, VXDBG_DEC, 0);
            vxdbg_print(" expecting minimum size=", minimum, VXDBG_DEC, 1);
        }
        return SDM_STATUS_INVALID_PARAMETER;
    }
    uint32_t status = region == VX_REGION_RAW ? SDM_STATUS_SUCCESS : publish_layout(Device, inst);
    if (status == SDM_STATUS_SUCCESS) {
        vxapi_priv_database* port = flash_port(inst);
        uint32_t ext_stat = EXT_STATUS_OK;
        int32_t rc = vxapi_read_optrom(port->oshandle, port, pBuffer, BufferSize, region, offset, &ext_stat);
        const vxapi_phy_info* phy = port->phy_info;
        if ((rc != 0 || ext_stat != EXT_STATUS_OK) && (port->features & VX_FEAT_SYSFS) && phy &&
            phy->ssvendor_id == VX_PCI_VENDOR_ID && phy->ssdevice_id == VX_SPECIAL_SUBSYSTEM_ID && region == 0x18) {
            trace_text(SD_TRACE, name, ": trying the alternative read.");
            rc = vxapi_read_nvram_exp_edc(port->oshandle, port, pBuffer, BufferSize, region, 0, &ext_stat);
        }
        if (rc != 0 || ext_stat != EXT_STATUS_OK)
            status = failure_status(rc, ext_stat);
    }
    trace_exit(name, Device, status);
    return status;
}

}  // namespace

extern "C" VXSD_API SD_UINT32 SDGetOptionRom(int Device, SD_UINT16 HbaDevPortNum, SD_UINT8* pBuffer,
                                             SD_UINT32 BufferSize) {
    (void)HbaDevPortNum;
    return read_call("SDGetOptionRom", Device, pBuffer, BufferSize, 0, 0, MIN_IMAGE);
}

extern "C" VXSD_API SD_UINT32 SDGetOptionRomEx(int Device, SD_UINT16 HbaDevPortNum, SD_UINT8* pBuffer,
                                               SD_UINT32 BufferSize, SD_UINT32 Region) {
    (void)HbaDevPortNum;
    return read_call("SDGetOptionRomEx", Device, pBuffer, BufferSize, Region, 0, 0);
}

extern "C" VXSD_API SD_UINT32 SDGetOptionRomOffset(int Device, SD_UINT16 HbaDevPortNum, SD_UINT8* pBuffer,
                                                   SD_UINT32 BufferSize, SD_UINT32 Offset) {
    (void)HbaDevPortNum;
    return read_call("SDGetOptionRomOffset", Device, pBuffer, BufferSize, VX_REGION_RAW, Offset, 0);
}

// ---- Updates ----

extern "C" VXSD_API SD_UINT32 SDUpdateOptionRomOffset(int Device, SD_UINT16 HbaDevPortNum, SD_UINT8* pBuffer,
                                                      SD_UINT32 BufferSize, SD_UINT32 Offset) {
    static constexpr const char* name = "SDUpdateOptionRomOffset";
    (void)HbaDevPortNum;
    trace_entry(name, Device);
    vxapi_priv_database* inst = nullptr;
    uint32_t status = update_checks(name, Device, &inst, false);
    if (status != SDM_STATUS_SUCCESS)
        return status;
    if (!pBuffer || BufferSize == 0)
        return null_record(name, Device);
    uint32_t ext_stat = EXT_STATUS_OK;
    const int32_t rc = vxapi_update_optrom(inst->oshandle, inst, pBuffer, BufferSize, VX_REGION_RAW, Offset, &ext_stat);
    status = rc != 0 || ext_stat != EXT_STATUS_OK ? failure_status(rc, ext_stat) : SDM_STATUS_SUCCESS;
    trace_exit(name, Device, status);
    return status;
}

extern "C" VXSD_API SD_UINT32 SDUpdateOptionRom(int Device, SD_UINT16 HbaDevPortNum, SD_UINT8* pBuffer,
                                                SD_UINT32 BufferSize) {
    static constexpr const char* name = "SDUpdateOptionRom";
    (void)HbaDevPortNum;
    trace_entry(name, Device);
    vxapi_priv_database* inst = nullptr;
    uint32_t status = update_checks(name, Device, &inst, true);
    if (status != SDM_STATUS_SUCCESS)
        return status;
    if (!pBuffer || BufferSize < MIN_IMAGE)
        return null_record(name, Device);
    status = publish_layout(Device, inst);
    if (status == SDM_STATUS_SUCCESS) {
        if (boot_code_broken(name, 0, pBuffer, BufferSize))
            status = SDM_STATUS_INVALID_PARAMETER;
        else
            status = SDUpdateOptionRomCommon(Device, pBuffer, BufferSize, 0, 0, inst);
    }
    trace_exit(name, Device, status);
    return status;
}

namespace {

// Region codes whose update keeps the adapter's settings (boot code and the
// older single-region images), and those written as they are.
bool preserved_region(uint32_t code) { return (code >= 0x01 && code <= 0x07) || code == VX_REGION_WHOLE_FLASH; }
bool plain_region(uint32_t code) {
    return code == 0x13 || (code >= 0x29 && code <= 0x2E) || code == 0x40 || code == 0x41 ||
           (code >= 0x45 && code <= 0x47);
}

// Regions whose rewrite the driver learns of through the versions reset
// when the application keeps the adapter from resetting.
bool versions_region(uint32_t code, bool ex2) {
    if (!ex2)
        return code == 0x01 || code == 0x07;
    switch (code) {
    case 0x01: case 0x02: case 0x07: case 0x09: case 0x74: case 0x97: case 0xA2: case 0xA4: return true;
    default: return false;
    }
}

// Regions of the newest family written in online mode only under a token:
// the firmware images and the boot code.
bool token_region(uint32_t code) {
    switch (code) {
    case 0x01: case 0x02: case 0x07: case 0x09: case 0x66: case 0x67:
    case 0x9E: case 0x9F: case 0xD1: case 0xD3: case 0xF0: case 0xF1: return true;
    default: return false;
    }
}

bool resets_after_write(vx_family family, bool ex2) {
    if (!ex2)
        return family == vx_family::Lark;
    switch (family) {
    case vx_family::Plover: case vx_family::Tern: case vx_family::Lark: case vx_family::Wren: case vx_family::Ibis:
        return true;
    case vx_family::Crane: return !ofu_enabled;
    default: return false;
    }
}

// Versions the library keeps for the adapter follow a rewrite of their image.
void refresh_versions(vxapi_priv_database* inst, uint32_t code) {
    uint32_t ext_stat = 0;
    if (code == 0x2E)
        vxapi_get_nic_bootcode_version(0, inst, &ext_stat);
    if (code == 0x40 || code == 0x45) {
        vxapi_query_adapter_versions(0, inst, &ext_stat);
        vxapi_get_flash_mpi_edc_versions(0, inst, &ext_stat);
    }
}

uint32_t update_region(const char* name, int Device, SD_UINT32 DisableReset, SD_UINT8* pBuffer,
                       SD_UINT32 BufferSize, SD_UINT32 Region, bool ex2) {
    vxapi_priv_database* inst = nullptr;
    uint32_t status = update_checks(name, Device, &inst, true);
    if (status != SDM_STATUS_SUCCESS)
        return status;
    if (ex2 && (Region == 0 || Region == 0xFFFFFFFFu))
        return SDM_STATUS_INVALID_REGION;
    if (!pBuffer || BufferSize == 0)
        return null_record(name, Device);
    status = publish_layout(Device, inst);
    if (status != SDM_STATUS_SUCCESS)
        return status;
    const INT_OPT_ROM_REGION* region = current_region(Region);
    if (!region) {
        trace_text(SD_ERROR, name, ": Region not in layout = ", Region, VXDBG_HEX);
        return SDM_STATUS_INVALID_PARAMETER;
    }
    const uint32_t word = region->Region;
    const uint32_t code = word & VX_REGION_CODE_MASK;
    if (word & VX_REGION_READ_ONLY) {
        trace_text(SD_ERROR, name, ": Read only Region, can't do write operation");
        return SDM_STATUS_NOT_SUPPORTED;
    }
    if (BufferSize > region->Size)
        return SDM_STATUS_IMAGE_EXCEEDS_REGION;
    if (code == 0)
        return SDM_STATUS_INVALID_REGION;
    if (boot_code_broken(name, code, pBuffer, BufferSize))
        return SDM_STATUS_INVALID_PARAMETER;
    const vx_family family = family_of(inst);
    if (ex2 && family == vx_family::Crane && ofu_enabled && token_region(code) && vxapi_is_fut_exist(inst) != 0) {
        trace_text(SD_ERROR, name, ": Flash update token not set");
        return SDM_STATUS_FLASH_TOKEN_NOT_SET;
    }
    if (ex2) {
        status = SDUpdateOptionRomCommonEx2(Device, pBuffer, BufferSize, code, 0, inst);
    } else if (preserved_region(code)) {
        status = SDUpdateOptionRomCommon(Device, pBuffer, BufferSize, code, 0, inst);
    } else if (plain_region(code)) {
        status = SDUpdateOptionRomCommonEx2(Device, pBuffer, BufferSize, code, 0, inst);
    } else {
        trace_text(SD_ERROR, name, ": Invalid Region = ", Region, VXDBG_HEX);
        return SDM_STATUS_INVALID_PARAMETER;
    }
    if (DisableReset == 0) {
        if (status == SDM_STATUS_SUCCESS && (word & VX_REGION_RESET_MASK) && resets_after_write(family, ex2)) {
            status = vxapi_reset_region(static_cast<uint32_t>(Device), inst, code);
            if (status != SDM_STATUS_SUCCESS)
                return status;
        }
        if (status == SDM_STATUS_SUCCESS && (!ex2 || family == vx_family::Lark))
            refresh_versions(inst, code);
    } else {
        if (versions_region(code, ex2)) {
            trace_text(SD_TRACE, name, ": Updating versions in driver database, Region=", code, VXDBG_HEX);
            vxapi_reset_region(static_cast<uint32_t>(Device), inst, VX_RESET_SPECIAL_VERSIONS);
        }
        trace_text(SD_TRACE, name, ": Reset disabled by App for Region=", code, VXDBG_HEX);
    }
    return status;
}

}  // namespace

extern "C" VXSD_API SD_UINT32 SDUpdateOptionRomEx(int Device, SD_UINT32 DisableReset, SD_UINT8* pBuffer,
                                                  SD_UINT32 BufferSize, SD_UINT32 Region) {
    static constexpr const char* name = "SDUpdateOptionRomEx";
    trace_entry(name, Device);
    const uint32_t status = update_region(name, Device, DisableReset, pBuffer, BufferSize, Region, false);
    trace_exit(name, Device, status);
    return status;
}

extern "C" VXSD_API SD_UINT32 SDUpdateOptionRomEx2(int Device, SD_UINT32 DisableReset, SD_UINT8* pBuffer,
                                                   SD_UINT32 BufferSize, SD_UINT32 Region) {
    static constexpr const char* name = "SDUpdateOptionRomEx2";
    trace_entry(name, Device);
    const uint32_t status = update_region(name, Device, DisableReset, pBuffer, BufferSize, Region, true);
    trace_exit(name, Device, status);
    return status;
}
