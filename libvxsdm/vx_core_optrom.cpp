// Option ROM leaves: flash read and update, region activation and reset,
// the flash sector size, the flash-update capabilities and the image-set
// and processor-version queries. Each leaf dispatches through the port's
// channel table; the extended-ioctl side of each slot lives here, the
// sysfs side in vx_sysfs_optrom.cpp.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "vsdmgt.h"
#include "vx_adapters.h"
#include "vx_channel.h"
#include "vx_core_flash.h"
#include "vx_sddbg.h"
#include "vx_sysfs.h"

uint8_t ofu_enabled = 0;

namespace {

constexpr uint32_t TRC = VXDBG_TRACE;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_TRACE;

struct free_deleter {
    void operator()(void* p) const { free(p); }
};

uint16_t device_of(const vxapi_priv_database* inst) { return inst && inst->phy_info ? inst->phy_info->device_id : 0; }

void trace_named(uint32_t guard, const char* fn, const char* text, uint64_t number = 0, uint8_t radix = VXDBG_NONE) {
    if (!vxdbg_on(guard))
        return;
    vxdbg_print(fn, 0, VXDBG_NONE, 0);
    vxdbg_print(text, number, radix, 1);
}

// The ioctl driver of these families does not know their layout: the
// library looks the region up and sends a raw range.
bool library_resolves(const vxapi_priv_database* inst, bool update) {
    const uint16_t id = device_of(inst);
    return vx_adapter_has(id, VX_MARK_FLT) || (update && vx_adapter_family(id) == vx_family::Swift);
}

// One option-ROM request with the busy retries: the driver's flash lock
// held by another agent is waited out twice.
int32_t send_optrom(const char* fn, int handle, vxapi_priv_database* inst, uint8_t command, uint16_t region,
                    const vxapi_optrom_span& span, uint8_t* buf, uint32_t* pext_stat) {
    const bool read = command == EXT_CC_READ_OPTROM;
    for (uint32_t sends = 1;; ++sends) {
        uint32_t ext_stat = EXT_STATUS_DEV_NOT_FOUND;
        const int rc = vxapi_send_ext_ioctl(handle, inst, command, region, 0, read ? nullptr : buf,
                                            read ? 0 : span.size, read ? buf : nullptr, read ? span.size : 0,
                                            &ext_stat, nullptr, nullptr, span.offset);
        *pext_stat = ext_stat;
        if (rc == 1)
            trace_named(ERR, fn, ": init_ext_ioctl error ");
        if (rc != 0 || ext_stat != EXT_STATUS_BUSY || sends >= VX_OPTROM_SENDS)
            return rc;
        trace_named(ERR, fn, ": driver busy, retrying");
        sleep(VX_OPTROM_BUSY_SLEEP);
    }
}

}  // namespace

int vxapi_resolve_optrom_span(const char* fn, const vxapi_priv_database* inst, uint32_t region, uint32_t offset,
                              uint32_t size, bool update, vxapi_optrom_span* span) {
    vxapi_optrom_span s{offset, size};
    if (region != VX_REGION_RAW) {
        uint32_t beg = 0, region_size = 0;
        vxsysfs_map_region(inst, region, &beg, &region_size);
        if (region_size == 0) {
            trace_named(ERR, fn, ": Zero sized unknown region");
            return 1;
        }
        s.offset = beg;
        // A read never fills more than the caller's buffer holds.
        if (!update && region_size < size)
            s.size = region_size;
    }
    const uint32_t flash = vxapi_flash_size(device_of(inst));
    if (s.size == 0 || (flash != 0 && (s.offset > flash || s.size > flash - s.offset))) {
        trace_named(ERR, fn, ": range outside the flash. offset=", s.offset, VXDBG_HEX);
        return 1;
    }
    *span = s;
    return 0;
}

// ---- Extended-ioctl side ----

int32_t vxapi_ioctl_read_optrom(int handle, vxapi_priv_database* inst, uint8_t* poptrom, uint32_t optrom_size,
                                uint32_t region, uint32_t offset, uint32_t* pext_stat) {
    static constexpr const char* fn = "vxapi_read_optrom";
    *pext_stat = EXT_STATUS_DEV_NOT_FOUND;
    vxapi_optrom_span span{offset, optrom_size};
    uint16_t sent = static_cast<uint16_t>(region);
    if (library_resolves(inst, false) && region != VX_REGION_RAW) {
        // The whole image of these boards is the whole flash.
        const uint32_t code = region == 0 ? VX_REGION_WHOLE_FLASH : region;
        if (vxapi_resolve_optrom_span(fn, inst, code, offset, optrom_size, false, &span) != 0)
            return 1;
        sent = EXT_SC_OPTROM_RAW;
    }
    return send_optrom(fn, handle, inst, EXT_CC_READ_OPTROM, sent, span, poptrom, pext_stat);
}

int32_t vxapi_ioctl_update_optrom(int handle, vxapi_priv_database* inst, uint8_t* poptrom, uint32_t optrom_size,
                                  uint32_t region, uint32_t offset, uint32_t* pext_stat) {
    static constexpr const char* fn = "vxapi_update_optrom";
    *pext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (!library_resolves(inst, true)) {
        const vxapi_optrom_span span{offset, optrom_size};
        return send_optrom(fn, handle, inst, EXT_CC_UPDATE_OPTROM, static_cast<uint16_t>(region), span, poptrom,
                           pext_stat);
    }
    vxapi_optrom_span span{};
    const uint32_t code = region == 0 ? VX_REGION_WHOLE_FLASH : region;
    if (vxapi_resolve_optrom_span(fn, inst, code, offset, optrom_size, true, &span) != 0)
        return 1;
    uint8_t* made = nullptr;
    const uint32_t aligned = vxapi_sector_align(handle, inst, &made, poptrom, &span.offset, &span.size);
    std::unique_ptr<uint8_t, free_deleter> hold(made);
    if (aligned != 0) {
        *pext_stat = aligned;
        trace_named(ERR, fn, ": sector alignment failed, can't proceed further");
        return 1;
    }
    return send_optrom(fn, handle, inst, EXT_CC_UPDATE_OPTROM, EXT_SC_OPTROM_RAW, span, made ? made : poptrom,
                       pext_stat);
}

int32_t vxapi_ioctl_activate_region(int handle, vxapi_priv_database* inst, uint32_t reset_code, uint32_t* pext_stat) {
    return vxapi_send_ext_ioctl(handle, inst, EXT_CC_ACTIVATE_REGION, static_cast<uint16_t>(reset_code), 0, nullptr,
                                0, nullptr, 0, pext_stat, nullptr);
}

uint32_t vxapi_ioctl_get_flash_sector_size(int handle, vxapi_priv_database* inst, uint32_t* psize) {
    EXT_CHIP chip{};
    uint32_t ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (vxapi_query_chip(handle, inst, &chip, &ext_stat) != 0 || ext_stat != EXT_STATUS_OK) {
        vxdbg_num(ERR, "vxapi_get_flash_sector_size: chip query failed. ext status=", ext_stat, VXDBG_DEC, 1);
        return 1;
    }
    *psize = chip.FlashBlockSize;
    return 0;
}

int32_t vxapi_ioctl_flash_update_caps(int handle, vxapi_priv_database* inst, uint8_t* caps, uint32_t caps_len,
                                      uint8_t set, uint32_t* pext_stat) {
    return vxapi_send_ext_ioctl(handle, inst, EXT_CC_FLASH_UPDATE_CAPS,
                                set ? EXT_SC_FLASH_CAPS_SET : EXT_SC_FLASH_CAPS_GET, 0, caps, caps_len, caps,
                                caps_len, pext_stat, nullptr);
}

int32_t vxapi_ioctl_query_adapter_versions(int handle, vxapi_priv_database* inst, EXT_ADAPTER_VERSIONS* ver,
                                           uint32_t* pext_stat) {
    return vxapi_send_ext_ioctl(handle, inst, EXT_CC_QUERY, EXT_SC_QUERY_ADAPTER_VERSIONS, 0, nullptr, 0, ver,
                                sizeof *ver, pext_stat, nullptr);
}

int32_t vxapi_ioctl_get_active_image_set(int handle, vxapi_priv_database* inst, uint32_t* image,
                                         uint32_t* pext_stat) {
    return vxapi_send_ext_ioctl(handle, inst, EXT_CC_GET_DATA, EXT_SC_GET_ACTIVE_IMAGE, 0, nullptr, 0, image,
                                sizeof *image, pext_stat, nullptr);
}

// ---- Leaves ----

namespace {

int32_t optrom_leaf(const char* fn, bool update, int handle, vxapi_priv_database* inst, uint8_t* poptrom,
                    uint32_t optrom_size, uint32_t region, uint32_t offset, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready(fn, inst, poptrom && optrom_size && pext_stat, pext_stat))
        return 1;
    if (vxdbg_on(TRC)) {
        vxdbg_print(fn, 0, VXDBG_NONE, 0);
        vxdbg_print(": region=", region, VXDBG_HEX, 0);
        vxdbg_print(" offset=", offset, VXDBG_HEX, 0);
        vxdbg_print(" size=", optrom_size, VXDBG_HEX, 1);
    }
    const auto slot = update ? inst->channel->update_optrom : inst->channel->read_optrom;
    const int32_t rc = slot(handle, inst, poptrom, optrom_size, region, offset, pext_stat);
    trace_named(rc ? ERR : TRC, fn, ": exiting. ext status=", *pext_stat, VXDBG_DEC);
    return rc;
}

}  // namespace

int32_t vxapi_read_optrom(int handle, vxapi_priv_database* inst, uint8_t* poptrom, uint32_t optrom_size,
                          uint32_t region, uint32_t offset, uint32_t* pext_stat) {
    return optrom_leaf("vxapi_read_optrom", false, handle, inst, poptrom, optrom_size, region, offset, pext_stat);
}

int32_t vxapi_update_optrom(int handle, vxapi_priv_database* inst, uint8_t* poptrom, uint32_t optrom_size,
                            uint32_t region, uint32_t offset, uint32_t* pext_stat) {
    return optrom_leaf("vxapi_update_optrom", true, handle, inst, poptrom, optrom_size, region, offset, pext_stat);
}

int32_t vxapi_read_nvram_exp_edc(int handle, vxapi_priv_database* inst, uint8_t* poptrom, uint32_t optrom_size,
                                 uint32_t region, uint32_t offset, uint32_t* pext_stat) {
    (void)handle;
    (void)region;
    (void)offset;
    if (!vxapi_leaf_ready("vxapi_read_nvram_exp_edc", inst, poptrom && optrom_size && pext_stat, pext_stat))
        return 1;
    if (!(inst->features & VX_FEAT_SYSFS)) {
        *pext_stat = EXT_STATUS_INVALID_REQUEST;
        vxdbg_line(ERR, "vxapi_read_nvram_exp_edc: sysfs ports only.");
        return 1;
    }
    vxsysfs_path_t path;
    vxsysfs_path_append(path, vxsysfs_get_device_path(path, inst), "nvram");
    memset(poptrom, 0, optrom_size);
    // The image is shorter than most buffers: what it holds is the answer.
    const uint32_t missing = vxsysfs_read_file(path, poptrom, optrom_size);
    *pext_stat = missing == optrom_size ? EXT_STATUS_ERR : EXT_STATUS_OK;
    vxdbg_num(TRC, "vxapi_read_nvram_exp_edc: exiting. ext status=", *pext_stat, VXDBG_DEC, 1);
    return *pext_stat == EXT_STATUS_OK ? 0 : 1;
}

int vxapi_flash_read_at(int handle, vxapi_priv_database* inst, uint32_t offset, uint8_t* buf, uint32_t len,
                        uint32_t* pext_stat) {
    return vxapi_read_optrom(handle, inst, buf, len, VX_REGION_RAW, offset, pext_stat);
}

int32_t vxapi_activate_region(int handle, vxapi_priv_database* inst, uint32_t reset_code, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_activate_region", inst, pext_stat, pext_stat))
        return 1;
    vxdbg_num(TRC, "vxapi_activate_region: code=", reset_code, VXDBG_HEX, 1);
    return inst->channel->activate_region(handle, inst, reset_code, pext_stat);
}

uint32_t vxapi_get_flash_sector_size(int handle, vxapi_priv_database* inst, uint32_t* pflash_sector_size) {
    if (!vxapi_leaf_ready("vxapi_get_flash_sector_size", inst, pflash_sector_size, nullptr))
        return 1;
    const uint32_t rc = inst->channel->get_flash_sector_size(handle, inst, pflash_sector_size);
    if (rc == 0)
        vxdbg_num(TRC, "vxapi_get_flash_sector_size: size=", *pflash_sector_size, VXDBG_HEX, 1);
    return rc;
}

int vxapi_flash_update_capabilities(uint32_t handle, vxapi_priv_database* inst, uint8_t* caps, uint32_t caps_len,
                                    uint8_t set, uint32_t* pext_stat) {
    (void)handle;
    if (!vxapi_leaf_ready("vxapi_flash_update_capabilities", inst, caps && caps_len >= EXT_FLASH_CAPS_LEN,
                          pext_stat))
        return 1;
    uint32_t local = 0;
    return inst->channel->flash_update_caps(inst->oshandle, inst, caps, EXT_FLASH_CAPS_LEN, set,
                                            pext_stat ? pext_stat : &local);
}

// ---- Region reset ----

vxapi_priv_database* vxapi_get_board_port(const vxapi_priv_database* inst, uint32_t function) {
    if (!inst || !inst->phy_info)
        return nullptr;
    const vxapi_phy_info* self = inst->phy_info;
    vxapi_priv_database* found = nullptr;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&](vxapi_priv_database* rec) {
        const vxapi_phy_info* phy = rec->phy_info;
        if (rec->interface_type == VX_IFTYPE_PHYSICAL && phy && phy->pci_domain == self->pci_domain &&
            phy->pci_bus == self->pci_bus && (phy->pci_dev_func >> 3) == (self->pci_dev_func >> 3) &&
            (phy->pci_dev_func & 7) == function) {
            found = rec;
            return false;
        }
        return true;
    });
    return found;
}

namespace {

// Activates `code` on a sibling port, opening its ioctl node for the request when needed.
bool activate_sibling(vxapi_priv_database* rec, uint16_t code, uint32_t* ext_stat) {
    const vxapi_port_use use(rec);
    return use.ok() && vxapi_activate_region(rec->oshandle, rec, code, ext_stat) == 0 && *ext_stat == EXT_STATUS_OK;
}

}  // namespace

uint32_t vxapi_reset_region(uint32_t Device, vxapi_priv_database* inst, uint32_t Region) {
    vxdbg_num(TRC, "vxapi_reset_region: entered. handle=", Device, VXDBG_DEC, 0);
    vxdbg_num(TRC, " Region=", Region, VXDBG_HEX, 1);
    if (!inst || !inst->phy_info) {
        vxdbg_line(ERR, "vxapi_reset_region: invalid parameter.");
        return SDM_STATUS_INVALID_PARAMETER;
    }
    const uint16_t id = inst->phy_info->device_id;
    uint16_t code = 0;
    switch (vxapi_reset_code(id, Region, &code)) {
    case vxapi_reset_action::nothing:
        vxdbg_line(TRC, "vxapi_reset_region: no region reset on this family.");
        return SDM_STATUS_SUCCESS;
    case vxapi_reset_action::invalid:
        vxdbg_num(ERR, "vxapi_reset_region: Invalid Region for reset, Region=", Region, VXDBG_HEX, 1);
        return SDM_STATUS_INVALID_PARAMETER;
    case vxapi_reset_action::send: break;
    }
    vxdbg_num(TRC, "vxapi_reset_region: Performing Region reset, code=", code, VXDBG_HEX, 1);
    uint32_t ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (vxapi_activate_region(inst->oshandle, inst, code, &ext_stat) != 0 || ext_stat != EXT_STATUS_OK) {
        vxdbg_num(ERR, "vxapi_reset_region: activation ioctl failed. ext status=", ext_stat, VXDBG_DEC, 1);
        return SDM_STATUS_REGION_RESET_FAILED;
    }
    // The other ports of the board run the same flash: they reload too.
    const vx_adapter_type* type = vx_adapter_lookup(id);
    const uint32_t ports = type ? type->ports : 1;
    const uint32_t walk = vx_adapter_family(id) == vx_family::Crane && ports == 4 ? 4 : (ports > 1 ? 2 : 1);
    const uint32_t self = inst->phy_info->pci_dev_func & 7;
    for (uint32_t function = 0; function < walk; ++function) {
        if (function == self)
            continue;
        vxapi_priv_database* sibling = vxapi_get_board_port(inst, function);
        if (!sibling) {
            vxdbg_num(TRC, "vxapi_reset_region: 2nd port not found. function=", function, VXDBG_DEC, 1);
            break;
        }
        ext_stat = EXT_STATUS_DEV_NOT_FOUND;
        if (!activate_sibling(sibling, code, &ext_stat)) {
            vxdbg_num(ERR, "vxapi_reset_region: activation ioctl failed for 2nd port ext status=", ext_stat,
                      VXDBG_DEC, 1);
            return SDM_STATUS_REGION_RESET_FAILED;
        }
    }
    vxdbg_line(TRC, "vxapi_reset_region: exiting.");
    return SDM_STATUS_SUCCESS;
}
