// Vital product data: buffer sizes and the item walk that extracts one field.
#include <cstring>

#include "vx_adapters.h"
#include "vx_core.h"
#include "vx_sddbg.h"

namespace {

constexpr uint32_t TRC = VXDBG_TRACE;

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
