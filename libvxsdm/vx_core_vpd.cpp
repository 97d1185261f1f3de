// Vital product data: buffer sizes, reading a port's VPD, and the item walk
// that extracts one field.
#include <cstring>

#include "vx_adapters.h"
#include "vx_channel.h"
#include "vx_core.h"
#include "vx_sddbg.h"
#include "vx_sysfs.h"

namespace {

constexpr uint32_t TRC = VXDBG_TRACE;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_TRACE;

constexpr uint32_t VPD_SERIAL_LEN = 32;  // the "SN" field kept, at most

constexpr uint8_t VPD_TAG_ID_STRING = 0x82;
constexpr uint8_t VPD_TAG_READ_ONLY = 0x90;
constexpr uint8_t VPD_TAG_READ_WRITE = 0x91;
constexpr uint8_t VPD_TAG_END = 0x78;

bool all_blanks(const uint8_t* value, uint32_t len) {
    for (uint32_t i = 0; i < len; ++i)
        if (value[i] != ' ')
            return false;
    return true;
}

}  // namespace

uint32_t vxapi_get_vpd_size(uint16_t device_id) {
    switch (vx_adapter_family(device_id)) {
    case vx_family::Wren:
    case vx_family::Tern:
    case vx_family::Ibis:
        return VX_VPD_SIZE_LARGE;
    default:
        return VX_VPD_SIZE;
    }
}

int vxapi_get_field_from_vpd(const uint8_t* vpd, const char* key, int mode, uint8_t* dst, uint32_t dst_len) {
    if (!dst)
        return 1;
    memset(dst, 0, dst_len);
    if (!vpd || mode == 0 || (mode == 2 && (!key || strlen(key) < 2)))
        return 1;

    // Every byte looked at, item heads and values alike, lies below the limit.
    constexpr uint32_t limit = VX_VPD_WALK_LIMIT;
    uint32_t pos = 0;
    while (pos < limit) {
        const uint8_t tag = vpd[pos];
        if (tag == VPD_TAG_END)
            break;
        if (tag == VPD_TAG_READ_ONLY || tag == VPD_TAG_READ_WRITE) {
            pos += 3;  // section headers are stepped over; their keywords are items of their own
            continue;
        }
        if (pos + 3 > limit)
            break;
        uint32_t len = 0;
        bool match = false;
        if (tag == VPD_TAG_ID_STRING) {
            len = static_cast<uint32_t>(vpd[pos + 1]) | static_cast<uint32_t>(vpd[pos + 2]) << 8;
            match = mode == 1;
        } else {
            len = vpd[pos + 2];
            match = mode == 2 && vpd[pos] == static_cast<uint8_t>(key[0]) && vpd[pos + 1] == static_cast<uint8_t>(key[1]);
        }
        const uint32_t data = pos + 3;
        if (match) {
            // The first match ends the walk, copied or not.
            const uint32_t avail = len < limit - data ? len : limit - data;
            if (all_blanks(vpd + data, avail))
                return 1;
            strncpy(reinterpret_cast<char*>(dst), reinterpret_cast<const char*>(vpd + data),
                    avail < dst_len ? avail : dst_len);
            vxdbg_line(TRC, "vxapi_get_field_from_vpd: field found.");
            return 0;
        }
        pos = data + len;
    }
    return 1;
}

int32_t vxapi_ioctl_get_vpd(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t buf_sz,
                            uint32_t* pext_stat) {
    return vxapi_send_ext_ioctl(handle, inst, EXT_CC_GET_VPD, 0, 0, nullptr, 0, buf, buf_sz, pext_stat, nullptr);
}

int vxapi_get_vpd(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t buf_sz, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_get_vpd", inst, buf, pext_stat))
        return 1;
    return inst->channel->get_vpd(handle, inst, buf, buf_sz, pext_stat);
}

int vxapi_get_vpd_serialnum(int handle, vxapi_priv_database* inst) {
    if (!inst || !inst->phy_info)
        return 1;
    vxapi_phy_info* phy = inst->phy_info;
    // Only the Swift generation onward keeps the serial number in the VPD.
    if (!vx_adapter_has(phy->device_id, VX_MARK_NEWER))
        return 1;
    uint8_t vpd[VX_VPD_SIZE_LARGE] = {};
    uint32_t stat = 0;
    if (vxapi_get_vpd(handle, inst, vpd, vxapi_get_vpd_size(phy->device_id), &stat) != 0 || stat != 0) {
        vxdbg_num(ERR, "vxapi_get_vpd_serialnum: get vpd failed. stat=", stat, VXDBG_DEC, 1);
        return 1;
    }
    uint8_t serial[VPD_SERIAL_LEN];
    if (vxapi_get_field_from_vpd(vpd, "SN", 2, serial, sizeof serial) != 0)
        return 1;
    memset(phy->serial_num, 0, sizeof phy->serial_num);
    memcpy(phy->serial_num, serial, sizeof serial);
    vxdbg_line(TRC, "vxapi_get_vpd_serialnum: serial number read.");
    return 0;
}
