#include "romimage.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace vxcli {

namespace {

constexpr size_t MAX_IMAGES = 16;
constexpr size_t SETTINGS_SPAN = 2 + 512;  // from "MEISP " on: the block starts two bytes in

uint16_t le16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }

}  // namespace

std::string rom_images(const uint8_t* data, size_t size, std::vector<RomImage>* images) {
    size_t pos = 0;
    if (size >= 8 && std::memcmp(data, "QFIM", 4) == 0) {
        uint16_t skip;
        std::memcpy(&skip, data + 6, sizeof skip);  // the directory keeps its length in host order
        pos = skip;
    }
    for (size_t n = 0; n < MAX_IMAGES; ++n) {
        if (pos + 26 > size || data[pos] != 0x55 || data[pos + 1] != 0xAA)
            return fmt::format("no 0x55 0xAA image signature at offset {:#x}", pos);
        const size_t pcir = pos + le16(data + pos + 24);
        if (pcir + 24 > size || std::memcmp(data + pcir, "PCIR", 4) != 0)
            return fmt::format("no PCIR data structure for the image at offset {:#x}", pos);
        const size_t len = size_t(le16(data + pcir + 16)) * 512;
        if (len == 0 || len > size - pos)
            return fmt::format("the image at offset {:#x} has a length of {:#x}, outside the file", pos, len);
        if (images)
            images->push_back({pos, len, data[pcir + 20]});
        if (data[pcir + 21] & 0x80)
            return "";
        pos += len;
    }
    return fmt::format("no last image among the first {} images", MAX_IMAGES);
}

bool differs_only_in_kept_bytes(const uint8_t* a, const uint8_t* b, size_t size) {
    std::vector<RomImage> images;
    rom_images(a, size, &images);
    std::vector<bool> kept(size, false);
    for (const RomImage& img : images) {
        if (img.code_type != 0)
            continue;
        for (size_t i : {img.at + 32, img.at + 33, img.at + img.len - 1})
            kept[i] = true;
        const uint8_t* end = a + img.at + img.len;
        const uint8_t* m = std::search(a + img.at, end, "MEISP ", "MEISP " + 6);
        for (size_t i = size_t(m - a); m != end && i < size_t(m - a) + SETTINGS_SPAN && i < img.at + img.len; ++i)
            kept[i] = true;
    }
    for (size_t i = 0; i < size; ++i)
        if (a[i] != b[i] && !kept[i])
            return false;
    return true;
}

}  // namespace vxcli
