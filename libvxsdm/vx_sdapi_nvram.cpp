// SD management interface: a port's whole NVRAM image and its VPD. The
// families with a flash layout table keep both in flash regions chosen by
// the port's PCI function; the others hand them over through the driver's
// own NVRAM and VPD requests.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "vsdmgt.h"
#include "vx_adapters.h"
#include "vx_core.h"
#include "vx_sdapi.h"
#include "vx_sysfs.h"

using namespace vxsd;

namespace {

struct free_deleter {
    void operator()(void* p) const { free(p); }
};

uint16_t device_of(const vxapi_priv_database* inst) { return inst->phy_info ? inst->phy_info->device_id : 0; }
uint32_t function_of(const vxapi_priv_database* inst) { return inst->phy_info ? inst->phy_info->pci_dev_func & 7 : 0; }
bool flt_family(const vxapi_priv_database* inst) { return vx_adapter_has(device_of(inst), VX_MARK_FLT); }
bool is_vport(const vxapi_priv_database* inst) { return inst->interface_type == VX_IFTYPE_VIRTUAL; }

uint32_t refuse_vport(const char* name, int Device) {
    vxdbg_named(SD_ERROR, name, ": Not supported for vport. handle=", static_cast<uint32_t>(Device), VXDBG_DEC);
    return SDM_STATUS_NOT_SUPPORTED;
}

// A request larger than the family's image moves the image and no more.
uint32_t clamp_nvram(const char* name, const vxapi_priv_database* inst, uint32_t size) {
    const uint32_t image = vxapi_nvram_size(device_of(inst));
    if (size <= image)
        return size;
    if (vxdbg_on(SD_TRACE)) {
        vxdbg_print(name, 0, VXDBG_NONE, 0);
        vxdbg_print(image == VX_NVRAM_SWIFT_SIZE ? ": resizing SWIFT request from=" : ": resizing request from=",
                    size, VXDBG_DEC, 0);
        vxdbg_print(" to=", image, VXDBG_DEC, 1);
    }
    return image;
}

// The status of one leaf request. The status word is taken by reference so
// that it is read after the request that fills it, in any argument order.
uint32_t request_status(int32_t rc, const uint32_t& ext_stat) {
    return rc == 0 && ext_stat == EXT_STATUS_OK ? SDM_STATUS_SUCCESS : failure_status(rc, ext_stat);
}

// Publishes the port's layout (the region look-ups use the current one),
// then writes `size` bytes at the start of `region`, never past its end.
uint32_t write_region(int Device, vxapi_priv_database* inst, uint8_t* buf, uint32_t size, uint32_t region) {
    const uint32_t status = SDGetOptionRomLayout(Device, 0, nullptr);
    if (status != SDM_STATUS_SUCCESS)
        return status;
    uint32_t beg = 0, region_size = 0;
    if (vxsysfs_map_region(inst, region, &beg, &region_size) == 0 && region_size < size)
        size = region_size;
    uint32_t ext_stat = EXT_STATUS_OK;
    return request_status(vxapi_update_optrom(inst->oshandle, inst, buf, size, region, 0, &ext_stat), ext_stat);
}

}  // namespace

// ---- NVRAM ----

extern "C" VXSD_API SD_UINT32 SDGetNVRam(int Device, SD_UINT16 HbaDevPortNum, SD_UINT32 Mode, SD_UINT8* pBuffer,
                                         SD_UINT32 BufferSize) {
    static constexpr const char* name = "SDGetNVRam";
    (void)HbaDevPortNum;
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!pBuffer || BufferSize == 0)
        return null_record(name, Device);
    trace_call(SD_TRACE, name, Device, "): mode=", Mode, VXDBG_DEC);
    BufferSize = clamp_nvram(name, inst, BufferSize);
    // A virtual port's settings are its physical port's.
    vxapi_priv_database* port = flash_port(inst);
    uint32_t status = SDM_STATUS_SUCCESS;
    uint32_t ext_stat = EXT_STATUS_OK;
    if (flt_family(port)) {
        status = SDGetOptionRomLayout(Device, 0, nullptr);
        if (status == SDM_STATUS_SUCCESS) {
            const uint32_t region = vxapi_nvram_region(device_of(port), function_of(port));
            trace_call(SD_TRACE, name, Device, "): region=", region, VXDBG_HEX);
            status = request_status(
                vxapi_read_optrom(port->oshandle, port, pBuffer, BufferSize, region, 0, &ext_stat), ext_stat);
        }
    } else {
        status = request_status(vxapi_get_nvram(port->oshandle, port, pBuffer, BufferSize, &ext_stat), ext_stat);
    }
    trace_exit(name, Device, status);
    return status;
}

extern "C" VXSD_API SD_UINT32 SDUpdateNVRam(int Device, SD_UINT32 DisableReset, SD_UINT32 Mode, SD_UINT8* pBuffer,
                                            SD_UINT32 BufferSize) {
    static constexpr const char* name = "SDUpdateNVRam";
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (is_vport(inst))
        return refuse_vport(name, Device);
    if (!pBuffer)
        return null_record(name, Device);
    trace_call(SD_TRACE, name, Device, "): mode=", Mode, VXDBG_DEC);
    BufferSize = clamp_nvram(name, inst, BufferSize);
    // A part image would put its checksum over a setting and leave the
    // firmware a mix of old and new settings: only whole images are written.
    if (BufferSize < vxapi_nvram_size(device_of(inst))) {
        trace_call(SD_ERROR, name, Device, "): not a whole image. size=", BufferSize, VXDBG_DEC);
        return SDM_STATUS_INVALID_PARAMETER;
    }
    uint32_t status = SDM_STATUS_SUCCESS;
    if (!flt_family(inst)) {
        uint32_t ext_stat = EXT_STATUS_OK;
        status = request_status(vxapi_set_nvram(inst->oshandle, inst, pBuffer, BufferSize, &ext_stat), ext_stat);
    } else {
        const uint32_t region = vxapi_nvram_region(device_of(inst), function_of(inst));
        vxapi_nvram_set_checksum(pBuffer, BufferSize, true);
        status = write_region(Device, inst, pBuffer, BufferSize, region);
        if (status == SDM_STATUS_SUCCESS && DisableReset == 0) {
            // The ports take the new settings only when they reload them.
            status = vxapi_reset_region(static_cast<uint32_t>(Device), inst, region);
        } else if (status == SDM_STATUS_SUCCESS) {
            vxdbg_num(SD_TRACE, "SDUpdateNVRam: Reset disabled by App for NVRAM ret=", status, VXDBG_HEX, 1);
        }
    }
    trace_exit(name, Device, status);
    return status;
}

// ---- VPD ----

extern "C" VXSD_API SD_UINT32 SDGetVpd(int Device, SD_UINT16 HbaDevPortNum, SD_UINT8* pBuffer,
                                       SD_UINT32* pBufferSize) {
    static constexpr const char* name = "SDGetVpd";
    (void)HbaDevPortNum;
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!pBuffer || !pBufferSize)
        return null_record(name, Device);
    const uint32_t need = vxapi_get_vpd_size(device_of(inst));
    if (*pBufferSize < need) {
        trace_call(SD_ERROR, name, Device, "): buffer too small. need=", need, VXDBG_DEC);
        *pBufferSize = need;
        return SDM_STATUS_BUFFER_TOO_SMALL;
    }
    // Read aside: a failed read leaves the caller's buffer as it was.
    std::unique_ptr<uint8_t, free_deleter> vpd(static_cast<uint8_t*>(calloc(need, 1)));
    if (!vpd)
        return SDM_STATUS_OUT_OF_MEMORY;
    vxapi_priv_database* port = flash_port(inst);
    uint32_t ext_stat = EXT_STATUS_OK;
    const uint32_t status =
        request_status(vxapi_get_vpd(port->oshandle, port, vpd.get(), need, &ext_stat), ext_stat);
    if (status == SDM_STATUS_SUCCESS) {
        memcpy(pBuffer, vpd.get(), need);
        *pBufferSize = need;
    }
    trace_exit(name, Device, status);
    return status;
}

extern "C" VXSD_API SD_UINT32 SDUpdateVpd(int Device, SD_UINT16 HbaDevPortNum, SD_UINT8* pBuffer,
                                          SD_UINT32* pBufferSize) {
    static constexpr const char* name = "SDUpdateVpd";
    (void)HbaDevPortNum;
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (is_vport(inst))
        return refuse_vport(name, Device);
    if (flt_family(inst)) {
        vxdbg_line(SD_ERROR, "SDUpdateVpd: Adapter not supported.");
        return SDM_STATUS_NOT_SUPPORTED;
    }
    if (!pBuffer || !pBufferSize || *pBufferSize == 0)
        return null_record(name, Device);
    const uint32_t need = vxapi_get_vpd_size(device_of(inst));
    const uint32_t size = *pBufferSize < need ? *pBufferSize : need;
    uint32_t ext_stat = EXT_STATUS_OK;
    const uint32_t status = request_status(vxapi_set_vpd(inst->oshandle, inst, pBuffer, size, &ext_stat), ext_stat);
    trace_exit(name, Device, status);
    return status;
}

extern "C" VXSD_API SD_UINT32 SDSwiftSaveVpd(int Device, SD_UINT8* pvpd, SD_UINT32 buf_size) {
    static constexpr const char* name = "SDSwiftSaveVpd";
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (is_vport(inst))
        return refuse_vport(name, Device);
    if (!pvpd || buf_size == 0)
        return null_record(name, Device);
    const uint32_t need = vxapi_get_vpd_size(device_of(inst));
    const uint32_t size = buf_size < need ? buf_size : need;
    const bool flt = flt_family(inst);

    // Both ports of the board carry the same VPD: this one, then its partner.
    uint32_t status = SDM_STATUS_SUCCESS;
    if (flt) {
        status = write_region(Device, inst, pvpd, size, VX_REGION_VPD_PORT0);
    } else {
        uint32_t ext_stat = EXT_STATUS_OK;
        status = request_status(vxapi_set_vpd(inst->oshandle, inst, pvpd, size, &ext_stat), ext_stat);
    }
    vxapi_priv_database* other = status == SDM_STATUS_SUCCESS ? vxapi_get_board_port(inst, function_of(inst) ^ 1)
                                                              : nullptr;
    if (other) {
        const vxapi_port_use use(other);
        if (!use.ok()) {
            trace_call(SD_ERROR, name, Device, "): 2nd port open failed.");
            status = SDM_STATUS_REGION_RESET_FAILED;
        } else {
            uint32_t ext_stat = EXT_STATUS_OK;
            const int32_t rc =
                flt ? vxapi_update_optrom(other->oshandle, other, pvpd, size, VX_REGION_VPD_PORT1, 0, &ext_stat)
                    : vxapi_set_vpd(other->oshandle, other, pvpd, size, &ext_stat);
            status = request_status(rc, ext_stat);
        }
    } else if (status == SDM_STATUS_SUCCESS) {
        trace_call(SD_TRACE, name, Device, "): 2nd port not found.");
    }
    trace_exit(name, Device, status);
    return status;
}
