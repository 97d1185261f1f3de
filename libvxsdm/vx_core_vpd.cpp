// Vital product data: buffer sizes, reading a port's VPD, and the item walks
// that extract one field, check and recompute the "RV" checksum, and render
// the items as text.
#include <cstdarg>
#include <cstdio>
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

uint32_t le16(const uint8_t* p) { return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8; }

bool is_key(const uint8_t* item, char c0, char c1) {
    return item[0] == static_cast<uint8_t>(c0) && item[1] == static_cast<uint8_t>(c1);
}

// Sums the items up to the "RV" keyword, its keyword and length bytes
// included. True, with the position of its data byte, when that byte lies
// below `size`; an end tag, an item running past `size` or a missing data
// byte give false.
bool sum_to_rv(const uint8_t* vpd, uint32_t size, uint32_t* rv_data, uint8_t* sum) {
    if (!vpd)
        return false;
    uint8_t total = 0;
    uint32_t pos = 0;
    while (pos < size) {
        const uint8_t tag = vpd[pos];
        if (tag == VPD_TAG_END || size - pos < 3)
            return false;
        uint32_t len = 0;
        if (tag == VPD_TAG_READ_ONLY || tag == VPD_TAG_READ_WRITE) {
            len = 0;  // the section's length is not stepped over: its keywords are items
        } else if (tag == VPD_TAG_ID_STRING) {
            len = le16(vpd + pos + 1);
        } else {
            len = vpd[pos + 2];
            if (is_key(vpd + pos, 'R', 'V')) {
                if (size - pos == 3)
                    return false;
                *sum = static_cast<uint8_t>(total + 'R' + 'V' + len);
                *rv_data = pos + 3;
                return true;
            }
        }
        if (len > size - pos - 3)
            return false;
        for (uint32_t i = 0; i < len + 3; ++i)
            total = static_cast<uint8_t>(total + vpd[pos + i]);
        pos += len + 3;
    }
    return false;
}

// Appends to a VX_VPD_TEXT_SIZE-byte text, never past its end.
__attribute__((format(printf, 2, 3))) void append(char* text, const char* format, ...) {
    const size_t used = strnlen(text, VX_VPD_TEXT_SIZE);
    if (used + 1 >= VX_VPD_TEXT_SIZE)
        return;
    va_list args;
    va_start(args, format);
    vsnprintf(text + used, VX_VPD_TEXT_SIZE - used, format, args);
    va_end(args);
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

int32_t vxapi_ioctl_set_vpd(int handle, vxapi_priv_database* inst, const uint8_t* buf, uint32_t buf_sz,
                            uint32_t* pext_stat) {
    return vxapi_send_ext_ioctl(handle, inst, EXT_CC_SET_VPD, 0, 0, buf, buf_sz, nullptr, 0, pext_stat, nullptr);
}

int vxapi_get_vpd(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t buf_sz, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_get_vpd", inst, buf, pext_stat))
        return 1;
    return inst->channel->get_vpd(handle, inst, buf, buf_sz, pext_stat);
}

int vxapi_set_vpd(int handle, vxapi_priv_database* inst, const uint8_t* buf, uint32_t buf_sz, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_set_vpd", inst, buf && buf_sz, pext_stat))
        return 1;
    vxdbg_num(TRC, "vxapi_set_vpd: entered. size=", buf_sz, VXDBG_DEC, 1);
    const int rc = inst->channel->set_vpd(handle, inst, buf, buf_sz, pext_stat);
    vxdbg_num(rc ? ERR : TRC, "vxapi_set_vpd: exiting. ret=", static_cast<uint32_t>(rc), VXDBG_INT, 1);
    return rc;
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

int vxapi_verify_vpd_checksum(const uint8_t* vpd, uint32_t size) {
    uint32_t rv = 0;
    uint8_t sum = 0;
    if (!sum_to_rv(vpd, size, &rv, &sum)) {
        vxdbg_line(ERR, "vxapi_verify_vpd_checksum: no checksum field.");
        return 1;
    }
    sum = static_cast<uint8_t>(sum + vpd[rv]);
    if (sum != 0) {
        vxdbg_num(ERR, "vxapi_verify_vpd_checksum: bad checksum. sum=", sum, VXDBG_HEX, 1);
        return 1;
    }
    return 0;
}

int vxapi_verify_hp_vpd_checksum(const uint8_t* vpd, uint32_t size) {
    if (!vpd)
        return 1;
    uint8_t sum = 0;
    for (uint32_t pos = 0; pos < size && vpd[pos] != VPD_TAG_END; ++pos) {
        if (size - pos >= 2 && is_key(vpd + pos, 'R', 'V')) {
            if (size - pos < 4)
                break;  // the checksum byte would lie past the buffer
            sum = static_cast<uint8_t>(sum + 'R' + 'V' + vpd[pos + 2] + vpd[pos + 3]);
            if (sum != 0)
                vxdbg_num(ERR, "vxapi_verify_hp_vpd_checksum: bad checksum. sum=", sum, VXDBG_HEX, 1);
            return sum == 0 ? 0 : 1;
        }
        sum = static_cast<uint8_t>(sum + vpd[pos]);
    }
    vxdbg_line(ERR, "vxapi_verify_hp_vpd_checksum: no checksum field.");
    return 1;
}

int vxapi_vpd_set_checksum(uint8_t* vpd, uint32_t size) {
    uint32_t rv = 0;
    uint8_t sum = 0;
    if (!sum_to_rv(vpd, size, &rv, &sum)) {
        vxdbg_line(ERR, "vxapi_vpd_set_checksum: no checksum field.");
        return 1;
    }
    vpd[rv] = static_cast<uint8_t>(0u - sum);
    vxdbg_num(TRC, "vxapi_vpd_set_checksum: checksum=", vpd[rv], VXDBG_HEX, 1);
    return 0;
}

void PrintField(const uint8_t* opcode, const uint8_t* value, uint32_t len_value, char* resultText) {
    if (!opcode || !resultText)
        return;
    const auto* text = reinterpret_cast<const char*>(value ? value : reinterpret_cast<const uint8_t*>(""));
    const int len = value ? static_cast<int>(len_value) : 0;
    const uint8_t tag = opcode[0];
    if (tag == VPD_TAG_ID_STRING)
        append(resultText, " 0x%02X  \"%.*s\"\n", tag, len, text);
    else if (tag == VPD_TAG_READ_ONLY || tag == VPD_TAG_READ_WRITE || tag == VPD_TAG_END)
        append(resultText, " 0x%02X\n", tag);
    else if (is_key(opcode, 'R', 'V') || is_key(opcode, 'R', 'W'))
        append(resultText, " \"%2.2s\"  %02X\n", reinterpret_cast<const char*>(opcode), value ? value[0] : 0);
    else
        append(resultText, " \"%2.2s\"  \"%.*s\"\n", reinterpret_cast<const char*>(opcode), len, text);
}

int PrintVpd(const uint8_t* vpd, char* resultText, const vxapi_priv_database* api_priv_data_inst) {
    if (!vpd || !resultText) {
        vxdbg_line(ERR, "PrintVpd: invalid parameter.");
        return 1;
    }
    const vxapi_phy_info* phy = api_priv_data_inst ? api_priv_data_inst->phy_info : nullptr;
    const bool hp = phy && vx_is_hp_variant(phy->ssvendor_id, phy->ssdevice_id);
    // Only the first 512 bytes are walked; a value running past them is cut.
    constexpr uint32_t limit = VX_VPD_WALK_LIMIT;
    uint32_t pos = 0;
    while (pos < limit) {
        const uint8_t* item = vpd + pos;
        if (item[0] == VPD_TAG_END) {
            PrintField(item, nullptr, 0, resultText);
            return 0;
        }
        if (item[0] == VPD_TAG_READ_ONLY || item[0] == VPD_TAG_READ_WRITE) {
            PrintField(item, nullptr, 0, resultText);
            pos += 3;
            continue;
        }
        const uint32_t head = item[0] == VPD_TAG_ID_STRING && hp ? 2 : 3;
        if (limit - pos < head)
            break;
        const uint32_t len = item[0] != VPD_TAG_ID_STRING ? item[2] : hp ? item[1] : le16(item + 1);
        const uint32_t data = pos + head;
        if (data == limit && item[0] != VPD_TAG_ID_STRING && (is_key(item, 'R', 'V') || is_key(item, 'R', 'W')))
            break;  // its checksum byte would lie past the walk
        PrintField(item, vpd + data, len < limit - data ? len : limit - data, resultText);
        pos = data + len;
    }
    vxdbg_line(ERR, "PrintVpd: no end tag.");
    return 1;
}
