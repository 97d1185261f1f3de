// VPD item walks: field extraction, the "RV" checksum and the text rendering
// (reading the attribute is tested end to end).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "vx_adapters.h"
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

// A buffer of exactly these bytes, so that ASan sees any read past it.
std::vector<uint8_t> exact(const std::string& items) { return std::vector<uint8_t>(items.begin(), items.end()); }

std::vector<uint8_t> with_checksum(std::string items) {
    std::vector<uint8_t> vpd = exact(items);
    EXPECT_EQ(vxapi_vpd_set_checksum(vpd.data(), static_cast<uint32_t>(vpd.size())), 0);
    return vpd;
}

uint32_t size_of(const std::vector<uint8_t>& v) { return static_cast<uint32_t>(v.size()); }

TEST(VpdChecksum, RecomputedByteVerifiesAndAnyOtherFails) {
    const std::string body = id("VXW2031") + read_only + kw("SN", "X1") + kw("RV", std::string(1, '\0'));
    std::vector<uint8_t> vpd = with_checksum(body + read_write + kw("V1", "") + end_tag);
    uint8_t sum = 0;
    for (size_t i = 0; i < body.size(); ++i)
        sum = static_cast<uint8_t>(sum + vpd[i]);
    EXPECT_EQ(sum, 0);  // every byte through the checksum byte
    EXPECT_EQ(vxapi_verify_vpd_checksum(vpd.data(), size_of(vpd)), 0);
    EXPECT_EQ(vxapi_verify_hp_vpd_checksum(vpd.data(), size_of(vpd)), 0);
    vpd[body.size() - 1] = static_cast<uint8_t>(vpd[body.size() - 1] + 1);  // the sum is now 1
    EXPECT_EQ(vxapi_verify_vpd_checksum(vpd.data(), size_of(vpd)), 1);
    EXPECT_EQ(vxapi_verify_hp_vpd_checksum(vpd.data(), size_of(vpd)), 1);

    // The HP identifier's length is one byte: the plain byte scan still verifies it.
    std::vector<uint8_t> hp = exact(std::string("\x82\x03HPQ", 5) + kw("RV", std::string(1, '\0')) + end_tag);
    uint8_t hp_sum = 0;
    for (size_t i = 0; i + 2 < hp.size(); ++i)
        hp_sum = static_cast<uint8_t>(hp_sum + hp[i]);
    hp[hp.size() - 2] = static_cast<uint8_t>(0u - hp_sum);
    EXPECT_EQ(vxapi_verify_hp_vpd_checksum(hp.data(), size_of(hp)), 0);

    // A byte 0x78 before "RV" ends the HP scan as the end tag would.
    const std::vector<uint8_t> x = with_checksum(id("x") + kw("RV", std::string(1, '\0')) + end_tag);
    EXPECT_EQ(vxapi_verify_vpd_checksum(x.data(), size_of(x)), 0);
    EXPECT_EQ(vxapi_verify_hp_vpd_checksum(x.data(), size_of(x)), 1);
}

TEST(VpdChecksum, MalformedVpdIsInvalidAndNeverReadPast) {
    const std::string sn = kw("SN", "X1");
    const struct {
        const char* what;
        std::string bytes;
    } cases[] = {
        {"no RV, end tag", id("AB") + sn + end_tag},
        {"no end tag, no RV", id("AB") + sn},
        {"RV behind the end tag", id("AB") + end_tag + kw("RV", "\x01")},
        {"identifier length past the end", std::string("\x82\xFF\x00", 3) + "AB" + kw("RV", "\x01")},
        {"keyword length past the end", kw("SN", "X") + "PN\x40" + "abc"},
        {"RV at the very end", id("AB") + "RV\x01"},
        {"RV cut in its head", id("AB") + "RV"},
        {"all 0xFF", std::string(512, '\xFF')},
        {"all zero", std::string(512, '\0')},
        {"section header at the end", id("AB") + std::string("\x90\x00", 2)},
    };
    for (const auto& c : cases) {
        std::vector<uint8_t> vpd = exact(c.bytes);
        const std::vector<uint8_t> before = vpd;
        EXPECT_EQ(vxapi_verify_vpd_checksum(vpd.data(), size_of(vpd)), 1) << c.what;
        EXPECT_EQ(vxapi_verify_hp_vpd_checksum(vpd.data(), size_of(vpd)), 1) << c.what;
        EXPECT_EQ(vxapi_vpd_set_checksum(vpd.data(), size_of(vpd)), 1) << c.what;
        EXPECT_EQ(vpd, before) << c.what;
    }
    EXPECT_EQ(vxapi_verify_vpd_checksum(nullptr, 512), 1);
    EXPECT_EQ(vxapi_verify_hp_vpd_checksum(nullptr, 512), 1);
    EXPECT_EQ(vxapi_vpd_set_checksum(nullptr, 512), 1);
}

std::string print_vpd(const std::vector<uint8_t>& vpd, const vxapi_priv_database* inst, int* rc = nullptr) {
    std::vector<char> text(VX_VPD_TEXT_SIZE, '\0');
    const int r = PrintVpd(vpd.data(), text.data(), inst);
    if (rc)
        *rc = r;
    return text.data();
}

TEST(VpdText, OneLinePerItemInTheFixedFormats) {
    EXPECT_EQ(print_vpd(image(id("AB") + end_tag), nullptr), " 0x82  \"AB\"\n 0x78\n");

    int rc = 1;
    const auto vpd = image(id("VXW2031 FC") + read_only + kw("SN", "X123") + kw("RV", "\xA5\x00") + read_write +
                           kw("RW", std::string("\x07", 1) + "xyz") + kw("V1", "") + end_tag + kw("PN", "after"));
    EXPECT_EQ(print_vpd(vpd, nullptr, &rc),
              " 0x82  \"VXW2031 FC\"\n 0x90\n \"SN\"  \"X123\"\n \"RV\"  A5\n"
              " 0x91\n \"RW\"  07\n \"V1\"  \"\"\n 0x78\n");
    EXPECT_EQ(rc, 0);

    // HP boards: one length byte, the data from +2.
    vxapi_phy_info phy{};
    vxapi_priv_database inst{};
    inst.phy_info = &phy;
    phy.ssvendor_id = VX_HP_PCI_VENDOR_ID;
    phy.ssdevice_id = vx_hp_subsystem_ids[0];
    const auto hp = image(std::string("\x82\x03HPQ", 5) + kw("SN", "7") + end_tag);
    EXPECT_EQ(print_vpd(hp, &inst), " 0x82  \"HPQ\"\n \"SN\"  \"7\"\n 0x78\n");
    phy.ssvendor_id = VX_PCI_VENDOR_ID;
    phy.ssdevice_id = 0x0001;  // not the variant: the same bytes read as a two-byte length
    EXPECT_NE(print_vpd(hp, &inst), " 0x82  \"HPQ\"\n \"SN\"  \"7\"\n 0x78\n");
}

TEST(VpdText, WalkAndTextStayInsideTheirBuffers) {
    // Values are cut at 512 bytes; an "RV" whose byte would lie past them ends the walk.
    const std::string filler = kw("Y0", std::string(250, 'f')) + kw("Y1", std::string(250, 'f'));  // 506 bytes
    int rc = 0;
    const std::string cut = print_vpd(image(filler + kw("SN", "ABCDEFGH"), 1024), nullptr, &rc);
    EXPECT_EQ(rc, 1);  // no end tag inside the walk
    EXPECT_NE(cut.find(" \"SN\"  \"ABC\"\n"), std::string::npos);
    std::string rv_last = filler + "Z9";
    rv_last += '\x00';
    rv_last += "RV\x01";  // its byte would be byte 512
    EXPECT_EQ(print_vpd(image(rv_last, 1024), nullptr).find("\"RV\""), std::string::npos);

    // The text is appended and cut at VX_VPD_TEXT_SIZE bytes; guard bytes after it stay untouched.
    const auto vpd = image(std::string(510, '\0') + end_tag);  // 170 empty keywords
    std::vector<char> text(VX_VPD_TEXT_SIZE + 16, 'G');
    std::fill(text.begin(), text.begin() + VX_VPD_TEXT_SIZE - 100, 'p');
    text[VX_VPD_TEXT_SIZE - 100] = '\0';
    EXPECT_EQ(PrintVpd(vpd.data(), text.data(), nullptr), 0);
    EXPECT_EQ(text[VX_VPD_TEXT_SIZE - 1], '\0');
    EXPECT_EQ(strlen(text.data()), VX_VPD_TEXT_SIZE - 1);
    // "%2.2s" pads an empty keyword to two blanks.
    EXPECT_EQ(std::string(text.data() + VX_VPD_TEXT_SIZE - 100, 11), " \"  \"  \"\"\n ");
    EXPECT_EQ(std::string(text.end() - 16, text.end()), std::string(16, 'G'));
    // A text with no terminator inside the buffer gets nothing.
    std::vector<char> full(VX_VPD_TEXT_SIZE, 'q');
    PrintVpd(vpd.data(), full.data(), nullptr);
    EXPECT_EQ(std::string(full.begin(), full.end()), std::string(VX_VPD_TEXT_SIZE, 'q'));

    EXPECT_EQ(PrintVpd(nullptr, text.data(), nullptr), 1);
    EXPECT_EQ(PrintVpd(vpd.data(), nullptr, nullptr), 1);
}

}  // namespace
