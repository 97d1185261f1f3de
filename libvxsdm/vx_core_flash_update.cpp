// The pure steps of an option ROM update: the checks made before anything
// is written, the preservation of the adapter's own settings, subsystem
// vendor bytes and VPD across a boot-code update, the doubled Kite boot
// code, and the refresh of the VPD version keywords from a new image.
// Every step works on buffers only; the caller reads and writes flash.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vx_core_flash.h"
#include "vx_sddbg.h"

namespace {

constexpr uint32_t TRC = VXDBG_TRACE;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_TRACE;

constexpr uint32_t SVID_AT = 28;
constexpr uint32_t SVID_VALUE_AT = 32;
constexpr uint32_t SETTINGS_MARK_LEN = 6;  // "MEISP "
constexpr uint32_t SETTINGS_SKIP = 2;      // the block starts two bytes into the marker

bool fits(uint32_t len, uint64_t at, uint64_t n) { return at <= len && n <= len - at; }

void trace_hex(uint32_t guard, const char* format, uint32_t value) {
    if (!vxdbg_on(guard))
        return;
    char text[128];
    snprintf(text, sizeof text, format, value);
    vxdbg_print(text, 0, VXDBG_NONE, 1);
}

}  // namespace

// ---- Checks ----

bool vxapi_region_holds_boot_code(uint32_t code) {
    code &= VX_REGION_CODE_MASK;
    // Whole flash, the older families' single regions, boot code and Kite's second copy.
    return code == 0x00 || (code >= 0x02 && code <= 0x07) || code == 0x11 || code == VX_REGION_WHOLE_FLASH;
}

vxapi_update_refusal vxapi_check_update(const INT_OPT_ROM_REGION* region, const uint8_t* image, uint32_t size,
                                        vxapi_rom_status* structure) {
    if (structure)
        *structure = vxapi_rom_status::ok;
    if (!region) {
        vxdbg_line(ERR, "vxapi_check_update: unknown region.");
        return vxapi_update_refusal::unknown_region;
    }
    if (region->Region & VX_REGION_READ_ONLY) {
        vxdbg_num(ERR, "vxapi_check_update: read-only region=", region->Region, VXDBG_HEX, 1);
        return vxapi_update_refusal::read_only;
    }
    if (size > region->Size) {
        vxdbg_num(ERR, "vxapi_check_update: image larger than the region. size=", size, VXDBG_HEX, 1);
        return vxapi_update_refusal::too_large;
    }
    if (vxapi_region_holds_boot_code(region->Region)) {
        const vxapi_rom_status st = image ? vxapi_check_rom_images(image, size, nullptr) : vxapi_rom_status::no_signature;
        if (structure)
            *structure = st;
        if (st != vxapi_rom_status::ok) {
            vxdbg_text(ERR, "vxapi_check_update: boot code refused: ");
            vxdbg_line(ERR, vxapi_rom_status_text(st));
            return vxapi_update_refusal::bad_structure;
        }
    }
    return vxapi_update_refusal::none;
}

// ---- Preservation ----

int64_t vxapi_find_settings_block(const uint8_t* buf, uint32_t len, uint32_t from, uint32_t block_len) {
    if (!buf)
        return -1;
    for (uint64_t p = from; p <= uint64_t(from) + VX_SETTINGS_SEARCH_END && fits(len, p, SETTINGS_MARK_LEN); ++p) {
        if (memcmp(buf + p, "MEISP ", SETTINGS_MARK_LEN) == 0)
            return fits(len, p + SETTINGS_SKIP, block_len) ? static_cast<int64_t>(p + SETTINGS_SKIP) : -1;
    }
    return -1;
}

int vxapi_rom_checksum(uint8_t* buf, uint32_t len, uint32_t image) {
    if (!buf || !fits(len, image, 3))
        return 1;
    const uint32_t span = uint32_t(buf[image + 2]) * 512;
    if (span < 3 || !fits(len, image, span)) {
        vxdbg_num(ERR, "vxapi_rom_checksum: image length outside the buffer=", span, VXDBG_HEX, 1);
        return 1;
    }
    // The byte at span-2 is left out of the sum, as the adapters' own tools do.
    uint8_t sum = 0;
    for (uint32_t i = 0; i <= span - 3; ++i)
        sum = static_cast<uint8_t>(sum + buf[image + i]);
    buf[image + span - 1] = static_cast<uint8_t>(-sum);
    return 0;
}

uint32_t vxapi_preserve_settings(const uint8_t* current, uint32_t current_len, uint8_t* image, uint32_t image_len,
                                 uint32_t settings_len) {
    if (!current || !image)
        return 0;
    // An image directory in front of the boot code is stepped over on both
    // sides, or boards that carry one would lose their settings.
    const uint32_t cur_first = vxapi_rom_skip_directory(current, current_len, 0);
    vxapi_rom_image cur;
    if (vxapi_rom_image_at(current, current_len, cur_first, &cur) != vxapi_rom_status::ok ||
        cur.code_type != VX_CODE_TYPE_X86) {
        vxdbg_line(TRC, "SDUpdateOptionRomCommon: BIOS not found, nothing to preserve.");
        return 0;
    }
    const int64_t cur_settings = vxapi_find_settings_block(current, current_len, cur_first, settings_len);
    const bool cur_svid = fits(current_len, cur_first + SVID_AT, 6) && memcmp(current + cur_first + SVID_AT, "SVID", 4) == 0;

    uint32_t changed_images = 0;
    vxapi_rom_walk walk(image, image_len, vxapi_rom_skip_directory(image, image_len, 0), VX_PRESERVE_MAX_IMAGES,
                        image_len);
    vxapi_rom_image img;
    while (walk.next(&img)) {
        if (img.code_type != VX_CODE_TYPE_X86)
            continue;
        bool changed = false;
        const uint32_t svid = img.offset + SVID_AT;
        if (cur_svid && fits(image_len, svid, 6) && memcmp(image + svid, "SVID", 4) == 0 &&
            memcmp(image + svid + 4, current + cur_first + SVID_VALUE_AT, 2) != 0) {
            memcpy(image + svid + 4, current + cur_first + SVID_VALUE_AT, 2);
            changed = true;
        }
        const int64_t settings = vxapi_find_settings_block(image, image_len, img.offset, settings_len);
        if (cur_settings >= 0 && settings >= 0) {
            memcpy(image + settings, current + cur_settings, settings_len);
            changed = true;
        }
        if (changed) {
            vxapi_rom_checksum(image, image_len, img.offset);
            ++changed_images;
        }
    }
    if (walk.status() == vxapi_rom_status::no_signature)
        vxdbg_num(ERR, "SDUpdateOptionRomCommon: No Valid Sig.ret=", walk.position(), VXDBG_HEX, 1);
    else if (walk.status() == vxapi_rom_status::no_pcir)
        trace_hex(ERR, "SDUpdateOptionRomCommon: PCI data struct not foundpcir_adr=%x",
                  walk.position() + vxapi_le16(image + walk.position() + 24));
    vxdbg_num(TRC, "vxapi_preserve_settings: images changed=", changed_images, VXDBG_DEC, 1);
    return changed_images;
}

uint8_t* vxapi_kite_double_boot(uint8_t* image, uint32_t size, uint8_t** made, uint32_t* write_len) {
    if (!image || !made || !write_len)
        return nullptr;
    *made = nullptr;
    uint8_t* out = image;
    if (size < VX_KITE_WRITE_LEN) {
        out = static_cast<uint8_t*>(calloc(1, VX_KITE_WRITE_LEN));
        if (!out) {
            vxdbg_line(ERR, "vxapi_kite_double_boot: mem alloc failed.");
            return nullptr;
        }
        memcpy(out, image, size);
        *made = out;
        *write_len = VX_KITE_WRITE_LEN;
    } else {
        *write_len = size;
    }
    // A boot image shorter than the boot region is copied as far as it goes.
    memcpy(out + VX_KITE_BOOT_LEN, image, size < VX_KITE_BOOT_LEN ? size : VX_KITE_BOOT_LEN);
    vxdbg_num(TRC, "vxapi_kite_double_boot: write size=", *write_len, VXDBG_HEX, 1);
    return out;
}

// ---- VPD inside images ----

void vxapi_format_code_revision(uint16_t revision, char* out, uint32_t out_len) {
    if (!out || out_len == 0)
        return;
    const int major = revision >> 8;
    const int minor = revision & 0xFF;
    // Blank-padded below 100 on purpose: " 3.18".
    snprintf(out, out_len, major > 99 ? "%.2d.%.2d" : "%2d.%.2d", major, minor);
}

namespace {

constexpr uint8_t VPD_TAG_ID_STRING = 0x82;
constexpr uint8_t VPD_TAG_READ_ONLY = 0x90;
constexpr uint8_t VPD_TAG_READ_WRITE = 0x91;
constexpr uint8_t VPD_TAG_END = 0x78;
constexpr uint32_t FW_AT_NONE = UINT32_MAX;

bool is_keyword(const uint8_t* item, const char* kw) { return item[0] == uint8_t(kw[0]) && item[1] == uint8_t(kw[1]); }

// The firmware version text of the firmware image header at `at`, or false.
bool firmware_text(const uint8_t* buf, uint32_t len, uint32_t at, char* out, uint32_t out_len) {
    if (at == FW_AT_NONE || !fits(len, at, sizeof(INT_FW_IMAGE_HEADER)) || memcmp(buf + at, "VXFW", 4) != 0)
        return false;
    snprintf(out, out_len, "%u.%.2u.%.2u", vxapi_le32(buf + at + 4), vxapi_le32(buf + at + 8),
             vxapi_le32(buf + at + 12));
    return true;
}

// One version keyword's new text from the image, or false (traced by the caller's name).
bool version_text(const char* fn, const uint8_t* buf, uint32_t len, uint32_t fw_at, const uint8_t* item, char* out,
                  uint32_t out_len) {
    struct boot_kw {
        const char* kw;
        uint8_t type;
        const char* missing;
    };
    static constexpr boot_kw boot[] = {
        {"V1", VX_CODE_TYPE_EFI, "efi image not found."},
        {"V4", VX_CODE_TYPE_X86, "bios image not found."},
        {"V5", VX_CODE_TYPE_FCODE, "fcode image not found."},
    };
    for (const boot_kw& b : boot) {
        if (!is_keyword(item, b.kw))
            continue;
        vxapi_rom_image img;
        if (vxapi_find_rom_image(buf, len, b.type, &img) != 0) {
            if (vxdbg_on(TRC)) {
                vxdbg_print(fn, 0, VXDBG_NONE, 0);
                vxdbg_print(": ", 0, VXDBG_NONE, 0);
                vxdbg_print(b.missing, 0, VXDBG_NONE, 1);
            }
            return false;
        }
        vxapi_format_code_revision(img.code_revision, out, out_len);
        return true;
    }
    if (is_keyword(item, "V3")) {
        if (firmware_text(buf, len, fw_at, out, out_len))
            return true;
        if (vxdbg_on(TRC)) {
            vxdbg_print(fn, 0, VXDBG_NONE, 0);
            vxdbg_print(": firmware image not found.", 0, VXDBG_NONE, 1);
        }
    }
    return false;
}

void trace_exceeding(const char* fn, const char* what, uint32_t bidx) {
    if (!vxdbg_on(ERR))
        return;
    vxdbg_print(fn, 0, VXDBG_NONE, 0);
    vxdbg_print(what, bidx, VXDBG_DEC, 1);
}

// Refreshes the version keywords of `vpd` from the images of `buf` and
// recomputes "RV". Every item must lie inside `vpdsize`.
int refresh_vpd_versions(const char* fn, const uint8_t* buf, uint32_t len, uint32_t fw_at, uint8_t* vpd,
                         uint32_t vpdsize) {
    uint32_t pos = 0;
    while (pos < vpdsize && vpd[pos] != VPD_TAG_END) {
        const uint8_t tag = vpd[pos];
        if (tag == VPD_TAG_READ_ONLY || tag == VPD_TAG_READ_WRITE) {
            pos += 3;
            continue;
        }
        if (!fits(vpdsize, pos, 3)) {
            trace_exceeding(fn, ": exceeding vpd buf size. bidx=", pos);
            return 1;
        }
        const uint32_t item_len = tag == VPD_TAG_ID_STRING ? vxapi_le16(vpd + pos + 1) : vpd[pos + 2];
        if (!fits(vpdsize, pos + 3, item_len)) {
            trace_exceeding(fn, ": exceeding vpd buf size. bidx=", pos);
            return 1;
        }
        char text[40];
        if (tag != VPD_TAG_ID_STRING && version_text(fn, buf, len, fw_at, vpd + pos, text, sizeof text))
            strncpy(reinterpret_cast<char*>(vpd + pos + 3), text, item_len);  // the keyword keeps its length
        pos += 3 + item_len;
    }

    // "RV": the bytes before its first data byte and that byte sum to 0.
    uint8_t sum = 0;
    pos = 0;
    while (true) {
        if (pos >= vpdsize || (vpd[pos] != VPD_TAG_READ_ONLY && vpd[pos] != VPD_TAG_READ_WRITE &&
                               !fits(vpdsize, pos, 3))) {
            trace_exceeding(fn, ": exceeding vpd buf size during chksum. bidx=", pos);
            return 1;
        }
        const uint8_t tag = vpd[pos];
        if (tag == VPD_TAG_END) {
            if (vxdbg_on(ERR)) {
                vxdbg_print(fn, 0, VXDBG_NONE, 0);
                vxdbg_print(": no RV keyword.", 0, VXDBG_NONE, 1);
            }
            return 1;
        }
        uint32_t item = 3;
        if (tag == VPD_TAG_ID_STRING)
            item += vxapi_le16(vpd + pos + 1);
        else if (tag != VPD_TAG_READ_ONLY && tag != VPD_TAG_READ_WRITE)
            item += vpd[pos + 2];
        if (tag != VPD_TAG_READ_ONLY && tag != VPD_TAG_READ_WRITE && tag != VPD_TAG_ID_STRING &&
            is_keyword(vpd + pos, "RV")) {
            if (vpd[pos + 2] == 0 || !fits(vpdsize, pos, 4)) {
                trace_exceeding(fn, ": exceeding vpd buf size during chksum. bidx=", pos);
                return 1;
            }
            sum = static_cast<uint8_t>(sum + 'R' + 'V' + vpd[pos + 2]);
            vpd[pos + 3] = static_cast<uint8_t>(-sum);
            return 0;
        }
        if (!fits(vpdsize, pos, item)) {
            trace_exceeding(fn, ": exceeding vpd buf size during chksum. bidx=", pos);
            return 1;
        }
        for (uint32_t i = 0; i < item; ++i)
            sum = static_cast<uint8_t>(sum + vpd[pos + i]);
        pos += item;
    }
}

// Where the firmware image of a flash image written to `region` starts.
uint32_t firmware_offset(uint32_t region) {
    region &= VX_REGION_CODE_MASK;
    if (region == 0x01)
        return 0;
    if (region != 0x00 && region != VX_REGION_WHOLE_FLASH)
        return FW_AT_NONE;
    const INT_OPT_ROM_LAYOUT* layout = pGlobalOptRomLayout;
    if (!layout)
        return FW_AT_NONE;
    const uint32_t n = layout->NoOfRegions < VX_OPTROM_MAX_REGIONS ? layout->NoOfRegions : VX_OPTROM_MAX_REGIONS;
    for (uint32_t i = 0; i < n; ++i)
        if ((layout->Region[i].Region & VX_REGION_CODE_MASK) == 0x01)
            return layout->Region[i].Beg;
    return FW_AT_NONE;
}

}  // namespace

int vxapi_update_nv_vpd_version(const uint8_t* buffer, uint32_t buffer_sz, uint8_t* vpdbuf, uint32_t vpdsize,
                                uint32_t region) {
    vxdbg_num(TRC, "vxapi_update_nv_vpd_version: entered. region=", region, VXDBG_HEX, 1);
    if (!buffer || !vpdbuf) {
        vxdbg_line(ERR, "vxapi_update_nv_vpd_version: invalid parameter.");
        return 1;
    }
    return refresh_vpd_versions("vxapi_update_nv_vpd_version", buffer, buffer_sz, firmware_offset(region), vpdbuf,
                                vpdsize);
}

const uint8_t* vxapi_find_vpd_image(const uint8_t* image, uint32_t len) {
    if (!image || !fits(len, VX_OLD_VPD_OFFSET, VX_VPD_SIZE) || image[VX_OLD_VPD_OFFSET] != VPD_TAG_ID_STRING) {
        vxdbg_line(TRC, "vxapi_find_vpd_image: no vpd in image.");
        return nullptr;
    }
    return image + VX_OLD_VPD_OFFSET;
}

int vxapi_update_vpd_version_field(uint8_t* buffer, uint32_t len, uint8_t* vpd) {
    if (!buffer || !vpd) {
        vxdbg_line(ERR, "vxapi_update_vpd_version_field: invalid parameter.");
        return 1;
    }
    // The older boards' boot image holds boot code only (no firmware), and
    // the VPD itself is no part of the image walk.
    const uint32_t boot = len < VX_OLD_VPD_OFFSET ? len : VX_OLD_VPD_OFFSET;
    return refresh_vpd_versions("vxapi_update_vpd_version_field", buffer, boot, FW_AT_NONE, vpd, VX_VPD_SIZE);
}

int vxapi_add_vpd_image(uint8_t* buffer, uint32_t len, const uint8_t* vpd) {
    if (!buffer || !vpd || !fits(len, VX_OLD_VPD_OFFSET, VX_VPD_SIZE)) {
        vxdbg_line(ERR, "vxapi_add_vpd_image: image too short for the vpd.");
        return 1;
    }
    uint8_t* place = buffer + VX_OLD_VPD_OFFSET;
    memmove(place, vpd, VX_VPD_SIZE);
    // The adapter's VPD is kept even when its versions cannot be refreshed.
    if (vxapi_update_vpd_version_field(buffer, len, place) != 0)
        vxdbg_line(ERR, "vxapi_add_vpd_image: version fields not refreshed.");
    vxdbg_line(TRC, "vxapi_add_vpd_image: vpd added.");
    return 0;
}
