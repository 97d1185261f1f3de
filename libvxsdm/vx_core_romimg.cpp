// PCI expansion-ROM images inside flash content: the one walker that the
// layout-table scan, the update checks and preservation, the VPD version
// refresh and the flash version reads all use. Flash bytes come from the
// adapter or from a file a user chose: no length or pointer in them is
// trusted, and nothing outside the buffer is ever looked at.
#include <cstring>

#include "vx_core_flash.h"

namespace {

constexpr uint32_t ROM_UNIT = 512;
constexpr uint32_t PCIR_OFFSET_AT = 24;
constexpr uint32_t ROM_HEADER_LEN = 26;
constexpr uint32_t PCIR_LEN = sizeof(INT_PCI_DATA_STRUCT);

bool fits(uint32_t len, uint64_t at, uint64_t n) { return at <= len && n <= len - at; }

}  // namespace

vxapi_rom_status vxapi_rom_image_at(const uint8_t* buf, uint32_t len, uint32_t pos, vxapi_rom_image* img) {
    if (!buf || !img || !fits(len, pos, ROM_HEADER_LEN) || buf[pos] != 0x55 || buf[pos + 1] != 0xAA)
        return vxapi_rom_status::no_signature;
    const uint64_t pcir = uint64_t(pos) + vxapi_le16(buf + pos + PCIR_OFFSET_AT);
    if (!fits(len, pcir, PCIR_LEN) || memcmp(buf + pcir, "PCIR", 4) != 0)
        return vxapi_rom_status::no_pcir;
    const uint8_t* p = buf + pcir;
    img->offset = pos;
    img->pcir = static_cast<uint32_t>(pcir);
    img->length = uint32_t(vxapi_le16(p + offsetof(INT_PCI_DATA_STRUCT, ImageLength))) * ROM_UNIT;
    img->header_length = uint32_t(buf[pos + 2]) * ROM_UNIT;
    img->vendor_id = vxapi_le16(p + offsetof(INT_PCI_DATA_STRUCT, VendorId));
    img->device_id = vxapi_le16(p + offsetof(INT_PCI_DATA_STRUCT, DeviceId));
    img->code_revision = vxapi_le16(p + offsetof(INT_PCI_DATA_STRUCT, CodeRevision));
    img->code_type = p[offsetof(INT_PCI_DATA_STRUCT, CodeType)];
    img->last = (p[offsetof(INT_PCI_DATA_STRUCT, Indicator)] & VX_ROM_LAST_IMAGE) != 0;
    return vxapi_rom_status::ok;
}

uint32_t vxapi_rom_skip_directory(const uint8_t* buf, uint32_t len, uint32_t pos) {
    if (!buf || !fits(len, pos, sizeof(QFIM_HEADER)) || memcmp(buf + pos, "QFIM", 4) != 0)
        return pos;
    // The one flash field kept in the host's byte order.
    uint16_t skip;
    memcpy(&skip, buf + pos + offsetof(QFIM_HEADER, length), sizeof skip);
    return pos + skip;
}

vxapi_rom_walk::vxapi_rom_walk(const uint8_t* buf, uint32_t len, uint32_t start, uint32_t max_images, uint32_t limit)
    : buf_(buf), len_(len), pos_(start), left_(max_images), limit_(limit) {}

bool vxapi_rom_walk::next(vxapi_rom_image* img) {
    if (done_ || !img)
        return false;
    if (left_ == 0 || pos_ >= limit_) {
        done_ = true;
        status_ = vxapi_rom_status::no_last;
        return false;
    }
    status_ = vxapi_rom_image_at(buf_, len_, pos_, img);
    if (status_ != vxapi_rom_status::ok) {
        done_ = true;
        return false;
    }
    --left_;
    const uint64_t next = uint64_t(pos_) + img->length;
    pos_ = next > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(next);
    if (img->last) {
        last_ = true;
        done_ = true;
    } else if (img->length == 0) {
        // The chain would stand still; the image itself is still handed out.
        status_ = vxapi_rom_status::zero_length;
        done_ = true;
    }
    return true;
}

int vxapi_find_rom_image(const uint8_t* buf, uint32_t len, uint8_t code_type, vxapi_rom_image* img) {
    if (!buf || !img)
        return 1;
    vxapi_rom_walk walk(buf, len, vxapi_rom_skip_directory(buf, len, 0), VX_ROM_MAX_IMAGES, len);
    vxapi_rom_image cur;
    while (walk.next(&cur)) {
        if (cur.code_type == code_type) {
            *img = cur;
            return 0;
        }
    }
    return 1;
}

vxapi_rom_status vxapi_check_rom_images(const uint8_t* buf, uint32_t len, uint32_t* count) {
    uint32_t seen = 0;
    vxapi_rom_status result = vxapi_rom_status::no_last;
    vxapi_rom_walk walk(buf, len, vxapi_rom_skip_directory(buf, len, 0), VX_ROM_MAX_IMAGES, len);
    vxapi_rom_image img;
    while (walk.next(&img)) {
        ++seen;
        if (img.length == 0) {
            result = vxapi_rom_status::zero_length;
            break;
        }
        if (!fits(len, img.offset, img.length)) {
            result = vxapi_rom_status::past_end;
            break;
        }
        if (img.last) {
            result = vxapi_rom_status::ok;
            break;
        }
    }
    if (result == vxapi_rom_status::no_last && walk.status() != vxapi_rom_status::no_last)
        result = walk.status();
    if (count)
        *count = seen;
    return result;
}

const char* vxapi_rom_status_text(vxapi_rom_status status) {
    switch (status) {
    case vxapi_rom_status::ok: return "valid";
    case vxapi_rom_status::no_signature: return "no 0x55AA signature";
    case vxapi_rom_status::no_pcir: return "no PCI data structure";
    case vxapi_rom_status::zero_length: return "image length 0";
    case vxapi_rom_status::past_end: return "image runs past the end";
    case vxapi_rom_status::no_last: return "no last image";
    }
    return "unknown";
}
