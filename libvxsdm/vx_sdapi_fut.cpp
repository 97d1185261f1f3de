// SD management interface: online flash update of the newest family (the
// token that keeps two processes from updating one adapter at once, the
// firmware attributes the driver checks, the online start of new
// firmware) and the driver's module parameters.
#include <cstring>

#include "vsdmgt.h"
#include "vx_adapters.h"
#include "vx_core.h"
#include "vx_core_flash.h"
#include "vx_sdapi.h"

using namespace vxsd;

static_assert(sizeof(SDM_FLASH_UPDATE_CAPS) == sizeof(EXT_FLASH_UPDATE_CAPS));
static_assert(offsetof(SDM_FLASH_UPDATE_CAPS, OutageDuration) == offsetof(EXT_FLASH_UPDATE_CAPS, OutageDuration));

namespace {

bool is_crane(const vxapi_priv_database* inst) {
    return inst->phy_info && vx_adapter_family(inst->phy_info->device_id) == vx_family::Crane;
}

// Handle, family and port checks of the token calls; 0 when the call may go on.
uint32_t token_checks(const char* name, int Device, vxapi_priv_database** pinst) {
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!is_crane(inst)) {
        trace_call(SD_ERROR, name, Device, "): Card not supported.");
        return SDM_STATUS_NOT_SUPPORTED;
    }
    if (inst->interface_type != VX_IFTYPE_PHYSICAL) {
        trace_call(SD_ERROR, name, Device, "): Not supported for vport.");
        return SDM_STATUS_NOT_SUPPORTED;
    }
    *pinst = inst;
    return SDM_STATUS_SUCCESS;
}

uint32_t finish(const char* name, int Device, uint32_t status) {
    trace_exit(name, Device, status);
    return status;
}

// The entry of the token calls: the checks above, then `record` must not be
// null. 0 when the call may go on.
uint32_t token_entry(const char* name, int Device, const void* record, vxapi_priv_database** pinst) {
    trace_entry(name, Device);
    const uint32_t status = token_checks(name, Device, pinst);
    if (status != SDM_STATUS_SUCCESS)
        return status;
    return record ? SDM_STATUS_SUCCESS : null_record(name, Device);
}

// The capabilities request: `set` sends `caps` to the driver, else reads.
uint32_t caps_request(const char* name, vxapi_priv_database* inst, EXT_FLASH_UPDATE_CAPS* caps, uint8_t set) {
    uint32_t ext_stat = EXT_STATUS_OK;
    const int rc = vxapi_flash_update_capabilities(0, inst, reinterpret_cast<uint8_t*>(caps), sizeof *caps, set,
                                                   &ext_stat);
    if (rc == 0 && ext_stat == EXT_STATUS_OK)
        return SDM_STATUS_SUCCESS;
    trace_call(SD_ERROR, name, static_cast<int>(inst->apihandle), "): capabilities request failed. ext status=",
               ext_stat, VXDBG_DEC);
    if (ext_stat != EXT_STATUS_OK)
        return SDXlateSDMErr(ext_stat, 0);
    return rc < 0 ? errno_status() : SDM_STATUS_UNKNOWN_ERROR;
}

// What the driver is asked to check before an online start: the attributes
// the application sent for the new firmware, else the running firmware's
// (new firmware of the same kind).
EXT_FLASH_UPDATE_CAPS pending_attributes(const vxapi_phy_info* phy) {
    EXT_FLASH_UPDATE_CAPS caps{};
    caps.Capabilities = phy->new_fw_attributes ? phy->new_fw_attributes : phy->running_fw_attributes;
    caps.OutageDuration = phy->outage;
    return caps;
}

}  // namespace

extern "C" VXSD_API SD_UINT32 SDStartFlashUpdate(int Device, SD_UINT16 HbaDevPortNum, SD_UINT32* pToken) {
    static constexpr const char* name = "SDStartFlashUpdate";
    (void)HbaDevPortNum;
    vxapi_priv_database* inst = nullptr;
    uint32_t status = token_entry(name, Device, pToken, &inst);
    if (status != SDM_STATUS_SUCCESS)
        return finish(name, Device, status);
    int32_t token = 0;
    switch (vxapi_take_fut(inst, &token)) {
    case vxapi_fut_take_result::taken:
        *pToken = static_cast<SD_UINT32>(token);
        ofu_enabled = 1;
        status = SDM_STATUS_SUCCESS;
        break;
    case vxapi_fut_take_result::held:
        trace_call(SD_ERROR, name, Device, "): flash update token already taken.");
        status = SDM_STATUS_FLASH_TOKEN_HELD;
        break;
    case vxapi_fut_take_result::failed: status = SDM_STATUS_UNKNOWN_ERROR; break;
    }
    return finish(name, Device, status);
}

extern "C" VXSD_API SD_UINT32 SDEndFlashUpdate(int Device, SD_UINT16 HbaDevPortNum, SD_UINT32 Token) {
    static constexpr const char* name = "SDEndFlashUpdate";
    vxapi_priv_database* inst = nullptr;
    uint32_t status = token_entry(name, Device, &Token, &inst);
    if (status != SDM_STATUS_SUCCESS)
        return finish(name, Device, status);
    if (vxapi_is_fut_expired(inst, static_cast<int32_t>(Token)) == 0) {
        trace_call(SD_ERROR, name, Device, "): flash update token expired.");
        return finish(name, Device, SDM_STATUS_FLASH_TOKEN_EXPIRED);
    }
    status = vxapi_clear_fut(inst, static_cast<int32_t>(Token)) == 0 ? SDM_STATUS_SUCCESS : SDM_STATUS_UNKNOWN_ERROR;
    ofu_enabled = 0;
    // New images are read afresh: their layout and the image set that runs.
    const uint32_t layout = SDGetOptionRomLayout(Device, HbaDevPortNum, nullptr);
    if (layout != SDM_STATUS_SUCCESS)
        vxdbg_num(SD_ERROR, "SDEndFlashUpdate: GetOptionRomLayout failed. rval=", layout, VXDBG_HEX, 1);
    uint32_t ext_stat = 0;
    vxapi_get_active_image_set(static_cast<uint32_t>(Device), inst, &ext_stat);
    return finish(name, Device, status);
}

extern "C" VXSD_API SD_UINT32 SDOnlineActivateFlashUpdate(int Device, SD_UINT16 HbaDevPortNum) {
    static constexpr const char* name = "SDOnlineActivateFlashUpdate";
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return finish(name, Device, SDM_STATUS_INVALID_HANDLE);
    if (!is_crane(inst)) {
        trace_call(SD_ERROR, name, Device, "): Card not supported.");
        return finish(name, Device, SDM_STATUS_NOT_SUPPORTED);
    }
    if (inst->interface_type == VX_IFTYPE_VIRTUAL) {
        vxdbg_num(SD_ERROR, "SDOnlineActivateFlashUpdate: Not supported for vport. handle=",
                  static_cast<uint32_t>(Device), VXDBG_DEC, 1);
        return finish(name, Device, SDM_STATUS_NOT_SUPPORTED);
    }
    const uint32_t status = SDM_STATUS_REGION_RESET_FAILED;
    EXT_FLASH_UPDATE_CAPS caps = pending_attributes(inst->phy_info);
    uint32_t ext_stat = EXT_STATUS_OK;
    if (vxapi_flash_update_capabilities(0, inst, reinterpret_cast<uint8_t*>(&caps), sizeof caps, 1, &ext_stat) != 0 ||
        ext_stat != EXT_STATUS_OK) {
        vxdbg_num(SD_ERROR, "SDOnlineActivateFlashUpdate: FW attributes not matching, reset disallowed. handle=",
                  static_cast<uint32_t>(Device), VXDBG_DEC, 1);
        return finish(name, Device, status);
    }
    const uint32_t layout = SDGetOptionRomLayout(Device, HbaDevPortNum, nullptr);
    if (layout != SDM_STATUS_SUCCESS)
        return finish(name, Device, layout);
    const INT_OPT_ROM_REGION* region = current_region(0x01);
    if (!region) {
        vxdbg_num(SD_ERROR, "SDOnlineActivateFlashUpdate: No region to activate. ret=", status, VXDBG_HEX, 1);
        return finish(name, Device, status);
    }
    if (!(region->Region & VX_REGION_RESET_MASK))
        return finish(name, Device, status);
    return finish(name, Device, vxapi_reset_region(static_cast<uint32_t>(Device), inst, 0x01));
}

extern "C" VXSD_API SD_UINT32 SDGetFlashUpdateTokenHolder(int Device, SD_UINT16 HbaDevPortNum, SD_UINT32* pHolder,
                                                          SD_UINT32* pSecondsLeft) {
    static constexpr const char* name = "SDGetFlashUpdateTokenHolder";
    (void)HbaDevPortNum;
    vxapi_priv_database* inst = nullptr;
    const uint32_t status = token_entry(name, Device, pHolder && pSecondsLeft ? pHolder : nullptr, &inst);
    if (status != SDM_STATUS_SUCCESS)
        return finish(name, Device, status);
    int32_t holder = 0;
    int64_t left = 0;
    if (vxapi_fut_holder(inst, &holder, &left) != 0)
        return finish(name, Device, SDM_STATUS_DEVICE_NOT_FOUND);
    *pHolder = static_cast<SD_UINT32>(holder);
    *pSecondsLeft = static_cast<SD_UINT32>(left);
    return finish(name, Device, SDM_STATUS_SUCCESS);
}

extern "C" VXSD_API SD_UINT32 SDGetFlashUpdateCapabilities(int Device, SD_UINT16 HbaDevPortNum,
                                                           SDM_FLASH_UPDATE_CAPS* pCaps) {
    static constexpr const char* name = "SDGetFlashUpdateCapabilities";
    (void)HbaDevPortNum;
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return finish(name, Device, SDM_STATUS_INVALID_HANDLE);
    if (!pCaps)
        return finish(name, Device, null_record(name, Device));
    // A virtual port runs its physical port's firmware.
    vxapi_priv_database* port = inst->interface_type == VX_IFTYPE_VIRTUAL && inst->parent ? inst->parent : inst;
    EXT_FLASH_UPDATE_CAPS caps{};
    const uint32_t status = caps_request(name, port, &caps, 0);
    if (status == SDM_STATUS_SUCCESS) {
        if (vxapi_phy_info* phy = port->phy_info) {
            phy->running_fw_attributes = caps.Capabilities;
            phy->outage = caps.OutageDuration;
        }
        pCaps->Capabilities = caps.Capabilities;
        pCaps->OutageDuration = caps.OutageDuration;
    }
    return finish(name, Device, status);
}

extern "C" VXSD_API SD_UINT32 SDSendFlashUpdateFWAttributes(int Device, SD_UINT16 HbaDevPortNum,
                                                            const SDM_FLASH_UPDATE_CAPS* pCaps) {
    static constexpr const char* name = "SDSendFlashUpdateFWAttributes";
    (void)HbaDevPortNum;
    vxapi_priv_database* inst = nullptr;
    uint32_t status = token_entry(name, Device, pCaps, &inst);
    if (status != SDM_STATUS_SUCCESS)
        return finish(name, Device, status);
    EXT_FLASH_UPDATE_CAPS caps{};
    caps.Capabilities = pCaps->Capabilities;
    caps.OutageDuration = pCaps->OutageDuration;
    status = caps_request(name, inst, &caps, 1);
    // Kept for the online start only once the driver has accepted them.
    if (status == SDM_STATUS_SUCCESS && inst->phy_info) {
        inst->phy_info->new_fw_attributes = pCaps->Capabilities;
        inst->phy_info->outage = pCaps->OutageDuration;
    }
    return finish(name, Device, status);
}

// ---- Driver module parameters ----

namespace {

uint32_t param_status(int32_t rc, uint32_t ext_stat) {
    if (rc == 0)
        return SDM_STATUS_SUCCESS;
    return ext_stat == EXT_STATUS_ERR ? SDM_STATUS_UNKNOWN_ERROR : SDXlateSDMErr(ext_stat, 0);
}

}  // namespace

extern "C" VXSD_API SD_UINT32 SDGetDriverModuleParam(const char* pName, SD_UINT32* pValue) {
    vxapi_set_debug_level();
    vxdbg_line(SD_TRACE, "SDGetDriverModuleParam: entered.");
    if (!pName || !pValue) {
        vxdbg_line(SD_ERROR, "SDGetDriverModuleParam: null parameter.");
        return SDM_STATUS_INVALID_PARAMETER;
    }
    uint32_t ext_stat = EXT_STATUS_OK, value = 0;
    const int32_t rc = vxapi_get_driver_module_param(pName, &value, &ext_stat);
    const uint32_t status = param_status(rc, ext_stat);
    if (status == SDM_STATUS_SUCCESS)
        *pValue = value;
    vxdbg_num(SD_TRACE, "SDGetDriverModuleParam: exiting. ret=", status, VXDBG_HEX, 1);
    return status;
}

extern "C" VXSD_API SD_UINT32 SDSetDriverModuleParam(const char* pName, SD_UINT32 Value, SD_UINT32 Persist) {
    vxapi_set_debug_level();
    vxdbg_num(SD_TRACE, "SDSetDriverModuleParam: entered. value=", Value, VXDBG_DEC, 1);
    if (!pName) {
        vxdbg_line(SD_ERROR, "SDSetDriverModuleParam: null parameter.");
        return SDM_STATUS_INVALID_PARAMETER;
    }
    uint32_t ext_stat = EXT_STATUS_OK;
    int32_t rc = vxapi_set_driver_module_param(pName, Value, &ext_stat);
    uint32_t status = param_status(rc, ext_stat);
    // Only a parameter the driver has goes into its options: an unknown one
    // would keep the module from loading.
    if (status == SDM_STATUS_SUCCESS && Persist) {
        rc = vxapi_set_driver_module_param_conf(pName, Value, &ext_stat);
        status = param_status(rc, ext_stat);
    }
    vxdbg_num(SD_TRACE, "SDSetDriverModuleParam: exiting. ret=", status, VXDBG_HEX, 1);
    return status;
}
