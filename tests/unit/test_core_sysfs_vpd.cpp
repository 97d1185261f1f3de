// VPD field extraction: the item walk, and the port's "vpd" attribute.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "test_core_sysfs_tree.h"
#include "vx_core.h"
#include "vx_sysfs.h"

namespace {

// Builds a VPD image item by item, padded to `size` bytes.
class vpd_image {
public:
    vpd_image& id(const std::string& text) {
        bytes_.push_back(0x82);
        bytes_.push_back(static_cast<uint8_t>(text.size()));
        bytes_.push_back(static_cast<uint8_t>(text.size() >> 8));
        bytes_.insert(bytes_.end(), text.begin(), text.end());
        return *this;
    }
    vpd_image& section(uint8_t tag) {
        bytes_.insert(bytes_.end(), {tag, 0x00, 0x00});
        return *this;
    }
    vpd_image& field(const char* key, const std::string& value) {
        bytes_.insert(bytes_.end(), {static_cast<uint8_t>(key[0]), static_cast<uint8_t>(key[1])});
        bytes_.push_back(static_cast<uint8_t>(value.size()));
        bytes_.insert(bytes_.end(), value.begin(), value.end());
        return *this;
    }
    vpd_image& end() {
        bytes_.push_back(0x78);
        return *this;
    }
    vpd_image& pad_to(size_t at) {
        bytes_.resize(at, 0);
        return *this;
    }
    std::vector<uint8_t> image(size_t size = 512) const {
        std::vector<uint8_t> out = bytes_;
        out.resize(std::max(size, out.size()), 0);
        return out;
    }

private:
    std::vector<uint8_t> bytes_;
};

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
    const auto vpd = vpd_image()
                         .id("VXW2031 adapter")
                         .section(0x90)
                         .field("PN", "P123")
                         .field("SN", "        ")
                         .field("EC", "  A ")
                         .section(0x91)
                         .field("V1", "3.18")
                         .field("PN", "second")
                         .end()
                         .field("MN", "after-end")
                         .image();
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
        {"SN", 2, 64, 1, ""},                 // all blanks: nothing copied
        {"MN", 2, 64, 1, ""},                 // behind the end tag
        {"ZZ", 2, 64, 1, ""},
        {"PN", 0, 64, 1, ""},
        {"PN", 2, 2, 0, "P1"},  // cut to the destination
        {"P", 2, 64, 1, ""},
    };
    for (const auto& c : cases) {
        const field_result r = get_field(vpd, c.key, c.mode, c.dst_len);
        EXPECT_EQ(r.rc, c.rc) << c.key << " mode " << c.mode;
        EXPECT_EQ(r.value, c.value) << c.key << " mode " << c.mode;
    }
}

TEST(VpdField, FirstMatchEndsTheWalkEvenWhenBlank) {
    const auto vpd = vpd_image().field("SN", "   ").field("SN", "REAL").end().image();
    EXPECT_EQ(get_field(vpd, "SN", 2).rc, 1);
}

TEST(VpdField, EndTagFirstFindsNothing) {
    const auto vpd = vpd_image().end().id("ID").field("SN", "X").image();
    EXPECT_EQ(get_field(vpd, "SN", 2).rc, 1);
    EXPECT_EQ(get_field(vpd, "SN", 1).rc, 1);
}

TEST(VpdField, WalkStopsAt512BytesOfALargerBuffer) {
    // Filler items up to offset 509, then a keyword at 512 of a 1024-byte VPD.
    vpd_image img;
    img.field("Y0", std::string(250, 'f')).field("Y1", std::string(250, 'f'));  // 506 bytes
    auto beyond = img;
    beyond.field("Z1", "").pad_to(512).field("SN", "FAR").end();
    EXPECT_EQ(get_field(beyond.image(1024), "SN", 2).rc, 1);

    // A value that starts below the limit is cut at it.
    auto straddling = img;
    straddling.field("SN", "ABCDEFGH").end();
    const field_result r = get_field(straddling.image(1024), "SN", 2);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.value, "ABC");
}

TEST(VpdField, LargeFamiliesReadTwiceTheBuffer) {
    EXPECT_EQ(vxapi_get_vpd_size(0x2031), 1024u);  // Wren
    EXPECT_EQ(vxapi_get_vpd_size(0x2060), 1024u);  // Tern
    EXPECT_EQ(vxapi_get_vpd_size(0x2040), 1024u);  // Ibis
    EXPECT_EQ(vxapi_get_vpd_size(0x2050), 512u);   // Plover
    EXPECT_EQ(vxapi_get_vpd_size(0x1050), 512u);   // Swift
}

TEST(VpdField, ReadFromThePortsVpdAttribute) {
    sysfs_tree tree;
    vxapi_phy_info phy{};
    phy.device_id = 0x2060;
    vxapi_priv_database inst{};
    inst.host_no = 3;
    inst.phy_info = &phy;
    snprintf(reinterpret_cast<char*>(inst.phys_path), sizeof inst.phys_path, "%s", tree.path("fn").c_str());

    uint8_t sn[16];
    EXPECT_EQ(vxsysfs_get_field_from_vpd(&inst, "SN", 2, sn, sizeof sn), 1);  // no attribute

    const auto vpd = vpd_image().id("VXT6").section(0x90).field("SN", "VPDSN3").end().image(1024);
    tree.file("fn/host3/vpd", std::string(vpd.begin(), vpd.end()));
    memset(sn, 0xEE, sizeof sn);
    EXPECT_EQ(vxsysfs_get_field_from_vpd(&inst, "SN", 2, sn, sizeof sn), 0);
    EXPECT_STREQ(reinterpret_cast<const char*>(sn), "VPDSN3");
}

}  // namespace
