#include "vpd.h"

#include <fmt/format.h>

#include <algorithm>

namespace vxcli {

namespace {

constexpr uint8_t TAG_IDENTIFIER = 0x82, TAG_READ_ONLY = 0x90, TAG_READ_WRITE = 0x91, TAG_END = 0x78;
constexpr uint8_t ERASED = 0xFF;
constexpr size_t WALK_LIMIT = 512;

bool is_checksum(const VpdItem& item) { return item.keyword == "RV" || item.keyword == "RW"; }

// Text ends at its first zero byte, as on the adapter's own displays.
std::string text_of(const std::string& data) { return data.substr(0, data.find('\0')); }

}  // namespace

VpdWalk walk_vpd(const uint8_t* vpd, size_t size, bool short_identifier) {
    VpdWalk walk;
    const size_t limit = std::min(size, WALK_LIMIT);
    uint8_t sum = 0;
    size_t pos = 0;
    while (pos < limit) {
        const uint8_t* at = vpd + pos;
        VpdItem item;
        item.tag = at[0];
        if (item.tag == ERASED)
            break;  // erased flash: a VPD cut short, not items of 255 bytes of 0xFF
        if (item.tag == TAG_END) {
            walk.items.push_back(item);
            walk.complete = true;
            break;
        }
        if (item.tag == TAG_READ_ONLY || item.tag == TAG_READ_WRITE) {
            walk.items.push_back(item);
            pos += 3;
            continue;
        }
        const size_t head = item.tag == TAG_IDENTIFIER && short_identifier ? 2 : 3;
        if (limit - pos < head)
            break;  // a header cut by the end of the walk
        size_t len = at[2];
        if (item.tag == TAG_IDENTIFIER)
            len = short_identifier ? at[1] : size_t(at[1]) | size_t(at[2]) << 8;
        else
            item.keyword.assign(reinterpret_cast<const char*>(at), 2);
        const size_t data = pos + head;
        if (is_checksum(item) && data == limit)
            break;  // its checksum byte would lie past the walk
        item.data.assign(reinterpret_cast<const char*>(vpd + data), std::min(len, limit - data));
        if (item.keyword == "RV" && !walk.has_checksum) {
            walk.has_checksum = true;
            for (size_t i = 0; i <= data; ++i)
                sum = static_cast<uint8_t>(sum + vpd[i]);
            walk.checksum_valid = sum == 0;
        }
        walk.items.push_back(std::move(item));
        pos = data + len;
    }
    return walk;
}

std::string vpd_text(const VpdWalk& walk) {
    std::string out;
    for (const VpdItem& item : walk.items) {
        if (item.tag == TAG_IDENTIFIER)
            out += fmt::format(" 0x{:02X}  \"{}\"\n", item.tag, text_of(item.data));
        else if (item.keyword.empty())
            out += fmt::format(" 0x{:02X}\n", item.tag);
        else if (is_checksum(item))
            out += fmt::format(" \"{}\"  {:02X}\n", item.keyword, item.data.empty() ? 0u : unsigned(uint8_t(item.data[0])));
        else
            out += fmt::format(" \"{}\"  \"{}\"\n", item.keyword, text_of(item.data));
    }
    return out;
}

const char* vpd_keyword_name(const std::string& keyword) {
    static constexpr std::pair<const char*, const char*> names[] = {
        {"PN", "Part number"},         {"EC", "Engineering change"}, {"SN", "Serial number"},
        {"MN", "Manufacturer"},        {"RV", "Checksum"},           {"RW", "Read-write area"},
        {"V1", "EFI version"},         {"V3", "Firmware version"},   {"V4", "BIOS version"},
        {"V5", "FCode version"},       {"YA", "Asset tag"},
    };
    for (const auto& [key, name] : names)
        if (keyword == key)
            return name;
    return "";
}

}  // namespace vxcli
