// VPD field extraction: the item walk (reading the attribute is tested end to end).
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "vx_core.h"

namespace {

// VPD items as bytes.
std::string id(const std::string& text) {
    return std::string(1, '\x82') + static_cast<char>(text.size()) + static_cast<char>(text.size() >> 8) + text;
}
std::string kw(const char* key, const std::string& value) {
    return std::string(key, 2) + static_cast<char>(value.size()) + value;
}
const std::string read_only("\x90\0\0", 3), read_write("\x91\0\0", 3), end_tag("\x78");

std::vector<uint8_t> image(std::string items, size_t size = 512) {
    items.resize(std::max(size, items.size()), '\0');
    return std::vector<uint8_t>(items.begin(), items.end());
}

struct field_result {
    int rc;
    std::string value;
};

field_result get_field(const std::vector<uint8_t>& vpd, const char* key, int mode, uint32_t dst_len = 64) {
    std::vector<uint8_t> dst(dst_len + 1, 0xEE);
    const int rc = vxapi_get_field_from_vpd(vpd.data(), key, mode, dst.data(), dst_len);
    EXPECT_EQ(dst[dst_len], 0xEE) << "wrote past dst_len";
    size_t n = 0;
    while (n < dst_len && dst[n] != 0)
        ++n;
    EXPECT_EQ(std::vector<uint8_t>(dst.begin() + static_cast<long>(n), dst.begin() + dst_len),
              std::vector<uint8_t>(dst_len - n, 0))
        << "dst not cleared";
    return {rc, std::string(dst.begin(), dst.begin() + static_cast<long>(n))};
}

TEST(VpdField, WalkFindsIdentifierAndKeywords) {
    const auto vpd = image(id("VXW2031 adapter") + read_only + kw("PN", "P123") + kw("SN", "        ") +
                           kw("EC", "  A ") + read_write + kw("V1", "3.18") + kw("PN", "second") + kw("SN", "REAL") + end_tag +
                           kw("MN", "after-end"));
    const struct {
        const char* key;
        int mode;
        uint32_t dst_len;
        int rc;
        const char* value;
    } cases[] = {
        {"SN", 1, 64, 0, "VXW2031 adapter"},  // mode 1 ignores the key
        {"PN", 2, 64, 0, "P123"},             // the first of two wins
        {"V1", 2, 64, 0, "3.18"},             // inside the read-write section
        {"EC", 2, 64, 0, "  A "},             // blanks around text are kept
        {"SN", 2, 64, 1, ""},                 // all blanks: nothing copied, and the walk ends there
        {"MN", 2, 64, 1, ""},                 // behind the end tag
        {"PN", 2, 2, 0, "P1"},                // cut to the destination
        {"ZZ", 2, 64, 1, ""}, {"PN", 0, 64, 1, ""}, {"P", 2, 64, 1, ""},
    };
    for (const auto& c : cases) {
        const field_result r = get_field(vpd, c.key, c.mode, c.dst_len);
        EXPECT_EQ(r.rc, c.rc) << c.key << " mode " << c.mode;
        EXPECT_EQ(r.value, c.value) << c.key << " mode " << c.mode;
    }
}

TEST(VpdField, WalkStopsAtAnEndTagFirstAndAt512BytesOfALargerBuffer) {
    const auto ends_first = image(end_tag + id("ID") + kw("SN", "X"));
    EXPECT_EQ(get_field(ends_first, "SN", 2).rc, 1);
    EXPECT_EQ(get_field(ends_first, "SN", 1).rc, 1);

    // Filler items up to offset 506, then one keyword at 512 of a 1024-byte VPD.
    const std::string filler = kw("Y0", std::string(250, 'f')) + kw("Y1", std::string(250, 'f'));
    std::string beyond = filler + kw("Z1", "");
    beyond.resize(512, '\0');
    EXPECT_EQ(get_field(image(beyond + kw("SN", "FAR") + end_tag, 1024), "SN", 2).rc, 1);

    // A value that starts below the limit is cut at it.
    const field_result r = get_field(image(filler + kw("SN", "ABCDEFGH") + end_tag, 1024), "SN", 2);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.value, "ABC");
}

}  // namespace
