// PCI expansion-ROM images: the walk over simulator-built boot code, the
// structures refused before a write, the preservation rules byte by byte,
// the doubled Kite boot code, sector alignment, the VPD version refresh and
// the region reset table.
#include <cstdlib>
#include <cstring>

#include "flash_support.h"
#include "vx_sysfs.h"

namespace {

constexpr uint32_t BIOS_AT = 0, FCODE_AT = 0x8000, EFI_AT = 0xC000, BOOT_LEN = 0x14000;

// The three boot images of a board (x86 BIOS, FCode, EFI) as its flash
// starts, with Lark's image directory in front (`base` says where they start).
Bytes boot_code(const vxsim::Adapter& a, size_t* base = nullptr) {
    const Bytes f = vxsim::build_flash(a);
    const size_t at = a.device_id == 0x2020 ? 0x200 : 0;
    if (base)
        *base = at;
    return Bytes(f.begin(), f.begin() + long(at + BOOT_LEN));
}

uint8_t sum8(const Bytes& b, size_t from, size_t to) {
    uint8_t s = 0;
    for (size_t i = from; i < to; ++i)
        s = uint8_t(s + b[i]);
    return s;
}

TEST(RomImage, WalkFindsEveryImageOfSimulatedBoards) {
    for (uint16_t id : {0x1010, 0x1052, 0x2010, 0x2020, 0x2072}) {
        SCOPED_TRACE(id);
        const Bytes f = vxsim::build_flash(sim_adapter(id));
        struct Want {
            uint8_t type;
            const char* version;
        };
        for (const Want& w : {Want{VX_CODE_TYPE_X86, "3.18"}, Want{VX_CODE_TYPE_FCODE, "4.02"}, Want{VX_CODE_TYPE_EFI, "6.01"}}) {
            vxapi_rom_image img{};
            ASSERT_EQ(vxapi_find_rom_image(f.data(), uint32_t(f.size()), w.type, &img), 0);
            EXPECT_EQ(img.code_revision, vxsim::code_revision(w.version));
            EXPECT_EQ(img.vendor_id, 0x1D5A);
            EXPECT_EQ(img.device_id, id);
            EXPECT_EQ(img.length, img.header_length);
            EXPECT_EQ(img.last, w.type == VX_CODE_TYPE_EFI);
        }
        uint32_t count = 0;
        EXPECT_EQ(vxapi_check_rom_images(f.data(), uint32_t(f.size()), &count), vxapi_rom_status::ok);
        EXPECT_EQ(count, 3u);
    }
}

TEST(RomImage, BrokenStructuresAreRefused) {
    const Bytes good = boot_code(sim_adapter(0x2030));
    struct Row {
        const char* name;
        void (*spoil)(Bytes&);
        uint32_t len;  // 0: the whole buffer
        vxapi_rom_status want;
    };
    const Row rows[] = {
        {"good", [](Bytes&) {}, 0, vxapi_rom_status::ok},
        {"no 0x55AA", [](Bytes& b) { b[1] = 0xAB; }, 0, vxapi_rom_status::no_signature},
        {"second image without signature", [](Bytes& b) { b[FCODE_AT] = 0; }, 0, vxapi_rom_status::no_signature},
        {"PCIR pointer past the buffer", [](Bytes& b) { put16_at(b, 24, 0xFFF0); }, 0, vxapi_rom_status::no_pcir},
        {"PCIR signature", [](Bytes& b) { b[0x40 + 3] = 'X'; }, 0, vxapi_rom_status::no_pcir},
        {"length 0", [](Bytes& b) { put16_at(b, 0x40 + 16, 0); }, 0, vxapi_rom_status::zero_length},
        {"length past the buffer", [](Bytes& b) { put16_at(b, EFI_AT + 0x40 + 16, 0x41); }, 0, vxapi_rom_status::past_end},
        {"cut one byte short", [](Bytes&) {}, BOOT_LEN - 1, vxapi_rom_status::past_end},
        {"no last image", [](Bytes& b) { b[EFI_AT + 0x40 + 21] = 0; }, 0, vxapi_rom_status::no_last},
        {"erased", [](Bytes& b) { std::memset(b.data(), 0xFF, b.size()); }, 0, vxapi_rom_status::no_signature},
        {"header cut", [](Bytes&) {}, 25, vxapi_rom_status::no_signature},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        Bytes b = good;
        r.spoil(b);
        // An exact-size heap copy, so a look past the end is caught.
        const uint32_t len = r.len ? r.len : uint32_t(b.size());
        std::unique_ptr<uint8_t[]> exact(new uint8_t[len]);
        std::memcpy(exact.get(), b.data(), len);
        EXPECT_EQ(vxapi_check_rom_images(exact.get(), len, nullptr), r.want);
    }
    // A chain of one-unit images that never ends stops at the image limit.
    Bytes chain(512 * (VX_ROM_MAX_IMAGES + 2), 0);
    for (size_t i = 0; i < VX_ROM_MAX_IMAGES + 2; ++i) {
        uint8_t* p = chain.data() + 512 * i;
        p[0] = 0x55, p[1] = 0xAA, p[2] = 1, p[24] = 0x40;
        std::memcpy(p + 0x40, "PCIR", 4);
        p[0x40 + 16] = 1;
    }
    uint32_t count = 0;
    EXPECT_EQ(vxapi_check_rom_images(chain.data(), uint32_t(chain.size()), &count), vxapi_rom_status::no_last);
    EXPECT_EQ(count, VX_ROM_MAX_IMAGES);
}

TEST(UpdateCheck, RegionFitReadOnlyAndStructure) {
    const Bytes boot = boot_code(sim_adapter(0x2030));
    const Bytes firmware(0x1000, 0x11);
    const INT_OPT_ROM_REGION boot_region{0x07, 0x80000, 0, 0x7FFFF};
    const INT_OPT_ROM_REGION fw_region{0x20001, 0x100000, 0x80000, 0x17FFFF};
    const INT_OPT_ROM_REGION ro_region{0x10029, 0x4000, 0x180000, 0x183FFF};
    const INT_OPT_ROM_REGION small{0x07, BOOT_LEN - 1, 0, BOOT_LEN - 2};
    Bytes broken = boot;
    broken[0] = 0;
    struct Row {
        const char* name;
        const INT_OPT_ROM_REGION* region;
        const Bytes* image;
        vxapi_update_refusal want;
    };
    const Row rows[] = {
        {"boot code", &boot_region, &boot, vxapi_update_refusal::none},
        {"firmware is not walked", &fw_region, &firmware, vxapi_update_refusal::none},
        {"unknown region", nullptr, &boot, vxapi_update_refusal::unknown_region},
        {"read-only", &ro_region, &firmware, vxapi_update_refusal::read_only},
        {"one byte too large", &small, &boot, vxapi_update_refusal::too_large},
        {"broken boot code", &boot_region, &broken, vxapi_update_refusal::bad_structure},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(vxapi_check_update(r.region, r.image->data(), uint32_t(r.image->size()), nullptr), r.want);
    }
}

// The adapter's settings and subsystem vendor survive a boot-code update;
// each changed image gets the checksum that skips the byte before it.
TEST(Preserve, SettingsSvidAndChecksumByteByByte) {
    for (uint16_t id : {0x1010, 0x1052, 0x2020}) {
        SCOPED_TRACE(id);
        const uint32_t block = vx_adapter_family(id) == vx_family::Swift ? 512 : 256;
        size_t b = 0;
        Bytes current = boot_code(sim_adapter(id, 0x103C, 0x7101), &b);
        const size_t settings_at = b + 0x202, end = b + 0x8000;
        for (uint32_t i = 4; i < block; ++i)  // the block starts inside its marker
            current[settings_at + i] = uint8_t(i * 7 + 1);  // the adapter's own settings
        vxsim::Adapter newer = sim_adapter(id);
        newer.flash.bios = "3.20";
        Bytes image = boot_code(newer);
        image[end - 2] = 0x5A;  // the skipped byte: its value must not count
        const Bytes before = image;

        EXPECT_EQ(vxapi_preserve_settings(current.data(), uint32_t(current.size()), image.data(), uint32_t(image.size()), block), 1u);
        EXPECT_EQ(std::memcmp(image.data() + settings_at, current.data() + settings_at, block), 0);
        EXPECT_EQ(le16_at(image, b + 32), 0x103C);
        EXPECT_EQ(uint8_t(sum8(image, b, end - 2) + image[end - 1]), 0);
        EXPECT_EQ(image[end - 2], 0x5A);
        // Nothing else moved: the rest of the BIOS image and the other images.
        for (size_t i = 0; i < image.size(); ++i) {
            const bool settings = i >= settings_at && i < settings_at + block;
            if (!settings && i != b + 32 && i != b + 33 && i != end - 1) {
                ASSERT_EQ(image[i], before[i]) << "byte " << i;
            }
        }
    }
}

TEST(Preserve, StopsAfterTheLastImageAndNeedsABiosFirst) {
    const Bytes current = [] {
        Bytes c = boot_code(sim_adapter(0x2030));
        c[0x210] = 0xEE;
        return c;
    }();
    // Three images, the second marked last, the third an x86 image again.
    Bytes image = boot_code(sim_adapter(0x2030));
    std::memcpy(image.data() + EFI_AT, image.data(), 0x8000);
    image[FCODE_AT + 0x40 + 21] = 0x80;
    const Bytes before = image;
    EXPECT_EQ(vxapi_preserve_settings(current.data(), uint32_t(current.size()), image.data(), uint32_t(image.size()), 256), 1u);
    EXPECT_EQ(image[0x210], 0xEE);
    EXPECT_TRUE(std::equal(image.begin() + EFI_AT, image.end(), before.begin() + EFI_AT));

    // Current flash that starts with an FCode image: nothing to preserve.
    Bytes fcode_first(current.begin() + FCODE_AT, current.end());
    image = before;
    EXPECT_EQ(vxapi_preserve_settings(fcode_first.data(), uint32_t(fcode_first.size()), image.data(), uint32_t(image.size()), 256), 0u);
    EXPECT_EQ(image, before);
}

TEST(Checksum, SpanMustLieInsideTheBuffer) {
    Bytes b(1024, 1);
    b[2] = 2;  // 1024 bytes
    EXPECT_EQ(vxapi_rom_checksum(b.data(), 1024, 0), 0);
    EXPECT_EQ(b[1023], uint8_t(-(1022 - 1 + 2)));  // bytes 0..1021: 1021 ones and the length byte
    b[2] = 3;
    EXPECT_EQ(vxapi_rom_checksum(b.data(), 1024, 0), 1);
    b[2] = 0;
    EXPECT_EQ(vxapi_rom_checksum(b.data(), 1024, 0), 1);
    EXPECT_EQ(vxapi_rom_checksum(b.data(), 1024, 1022), 1);
}

TEST(KiteBoot, BootCodeStandsTwice) {
    struct Row {
        uint32_t size;
        bool in_place;
    };
    for (const Row& r : {Row{0x40000, false}, Row{0x1000, false}, Row{0x80000, true}, Row{0x90000, true}}) {
        SCOPED_TRACE(r.size);
        std::unique_ptr<uint8_t[]> img(new uint8_t[r.size]);
        for (uint32_t i = 0; i < r.size; ++i)
            img[i] = uint8_t(i * 31 + 7);
        uint8_t* made = nullptr;
        uint32_t len = 0;
        uint8_t* out = vxapi_kite_double_boot(img.get(), r.size, &made, &len);
        ASSERT_NE(out, nullptr);
        EXPECT_EQ(out == img.get(), r.in_place);
        EXPECT_EQ(len, r.in_place ? r.size : VX_KITE_WRITE_LEN);
        const uint32_t copied = r.size < VX_KITE_BOOT_LEN ? r.size : VX_KITE_BOOT_LEN;
        EXPECT_EQ(std::memcmp(out + VX_KITE_BOOT_LEN, out, copied), 0);
        if (!r.in_place) {
            EXPECT_EQ(made, out);
        }
        if (r.size < VX_KITE_BOOT_LEN) {
            EXPECT_EQ(out[VX_KITE_WRITE_LEN - 1], 0) << "the new buffer starts zeroed";
        }
        free(made);
    }
}

class Align : public ::testing::Test {
protected:
    void SetUp() override {
        g_flash = FakeFlash{};
        g_flash.bytes = vxsim::build_flash(sim_adapter(0x2030));
        for (size_t i = 0; i < 0x100000; ++i)
            g_flash.bytes[i] = uint8_t(i >> 4);
    }
};

TEST_F(Align, BothSidesOfASector) {
    struct Row {
        uint32_t offset, size, start, len;
    };
    const Row rows[] = {
        {0x10010, 0x20, 0x10000, 0x10000},   // inside one sector
        {0x20000, 0x10000, 0x20000, 0x10000}, // already whole
        {0x1FFF0, 0x20, 0x10000, 0x20000},   // across the boundary
        {0x1FFFF, 1, 0x10000, 0x10000},      // last byte of a sector
        {0x20000, 1, 0x20000, 0x10000},      // first byte of the next
    };
    Port port(0x2030);
    const Bytes data(0x10000, 0xC3);
    for (const Row& r : rows) {
        SCOPED_TRACE(r.offset);
        g_flash.reads.clear();
        uint8_t* db = nullptr;
        uint32_t offset = r.offset, size = r.size;
        ASSERT_EQ(vxapi_sector_align(-1, &port.inst, &db, data.data(), &offset, &size), 0u);
        EXPECT_EQ(offset, r.start);
        EXPECT_EQ(size, r.len);
        if (r.start == r.offset && r.len == r.size) {
            EXPECT_EQ(db, nullptr) << "the caller's buffer goes as it is";
            continue;
        }
        ASSERT_NE(db, nullptr);
        const uint32_t at = r.offset - r.start;
        for (uint32_t i = 0; i < r.len; ++i) {
            const bool mine = i >= at && i < at + r.size;
            ASSERT_EQ(db[i], mine ? 0xC3 : g_flash.bytes[r.start + i]) << i;
        }
        free(db);
    }
}

TEST_F(Align, SectorSizeSources) {
    struct Row {
        const char* name;
        uint16_t id;
        uint32_t driver_sector;
        void (*spoil)(Bytes&);
        uint32_t want_start;  // of offset 0x1810, size 0x10
        bool fdt_read;
    };
    const Row rows[] = {
        {"driver", 0x2030, 0x1000, [](Bytes&) {}, 0x1000, false},
        {"description", 0x2030, 0,
         [](Bytes& f) {
             put32_at(f, 0x3F0000 + 40, 0x800);
             put16_at(f, 0x3F0000 + 8, uint16_t(le16_at(f, 0x3F0000 + 8) - 0x7FF));  // the sum kept
         },
         0x1800, true},
        {"description checksum", 0x2030, 0, [](Bytes& f) { f[0x3F0000 + 40] ^= 1; }, 0, true},
        {"no description", 0x2030, 0, [](Bytes& f) { f[0x3F0000] = 0; }, 0, true},
        {"Swift fixed", 0x1052, 0x1000, [](Bytes&) {}, 0, false},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        g_flash.bytes = vxsim::build_flash(sim_adapter(0x2030));
        g_flash.sector = r.driver_sector;
        g_flash.reads.clear();
        r.spoil(g_flash.bytes);
        Port port(r.id);
        uint8_t data[0x10] = {};
        uint8_t* db = nullptr;
        uint32_t offset = 0x1810, size = 0x10;
        ASSERT_EQ(vxapi_sector_align(-1, &port.inst, &db, data, &offset, &size), 0u);
        EXPECT_EQ(offset, r.want_start);
        const bool fdt = !g_flash.reads.empty() && g_flash.reads.front().first == 0x3F0000;
        EXPECT_EQ(fdt, r.fdt_read);
        free(db);
    }
    Port old(0x1030);
    uint8_t data[4] = {};
    uint8_t* db = nullptr;
    uint32_t offset = 1, size = 4;
    EXPECT_EQ(vxapi_sector_align(-1, &old.inst, &db, data, &offset, &size), 1u);
    EXPECT_EQ(db, nullptr);
}

// The VPD keywords follow the new image; "RV" is made good again.
class VpdRefresh : public ::testing::Test {
protected:
    void SetUp() override { reset_current_layout(); }
    // The simulator writes "RV" with one data byte.
    static bool rv_good(const Bytes& v) {
        for (size_t i = 0; i + 3 < v.size(); ++i)
            if (v[i] == 'R' && v[i + 1] == 'V' && v[i + 2] == 1)
                return sum8(v, 0, i + 4) == 0;
        return false;
    }
    static std::string keyword(const Bytes& v, const char* kw) {
        char out[33] = {};
        return vxapi_get_field_from_vpd(v.data(), kw, 2, reinterpret_cast<uint8_t*>(out), 32) == 0 ? out : "?";
    }
};

TEST_F(VpdRefresh, SwiftWholeImage) {
    vxsim::Adapter old_board = sim_adapter(0x1052);
    Bytes vpd = vxsim::build_vpd(old_board, 0);
    vxsim::Adapter board = sim_adapter(0x1052);
    board.flash = {"100.5", "4.03", "", "9.01.02", "", "", "", ""};
    Bytes image = vxsim::build_flash(board);
    // No EFI image in this one: its keyword stays.
    image[FCODE_AT + 0x40 + 21] = 0x80;
    Port swift(0x1052);
    uint8_t layout[VX_OPTROM_LAYOUT_SIZE];
    uint32_t stat = 0;
    vxsysfs_get_optrom_layout(1, &swift.inst, layout, sizeof layout, &stat);  // firmware at 0x80000

    ASSERT_EQ(vxapi_update_nv_vpd_version(image.data(), uint32_t(image.size()), vpd.data(), uint32_t(vpd.size()), 0xFF), 0);
    EXPECT_EQ(keyword(vpd, "V4"), "100.05");
    EXPECT_EQ(keyword(vpd, "V5"), " 4.03");
    EXPECT_EQ(keyword(vpd, "V1"), " 6.01");
    EXPECT_EQ(keyword(vpd, "V3"), "9.01.02");
    EXPECT_TRUE(rv_good(vpd));

    // Boot code alone carries no firmware: V3 stays.
    Bytes boot(image.begin(), image.begin() + 0x40000);
    vpd = vxsim::build_vpd(old_board, 0);
    ASSERT_EQ(vxapi_update_nv_vpd_version(boot.data(), uint32_t(boot.size()), vpd.data(), uint32_t(vpd.size()), 0x07), 0);
    EXPECT_EQ(keyword(vpd, "V3"), "8.05.63");
    EXPECT_TRUE(rv_good(vpd));

    // A VPD cut inside its items fails instead of reading on.
    vpd = vxsim::build_vpd(old_board, 0);
    EXPECT_NE(vxapi_update_nv_vpd_version(image.data(), uint32_t(image.size()), vpd.data(), 60, 0xFF), 0);
}

TEST_F(VpdRefresh, OlderBoardKeepsItsVpdAcrossABootUpdate) {
    const Bytes current = vxsim::build_flash(sim_adapter(0x1020));
    const uint8_t* vpd = vxapi_find_vpd_image(current.data(), uint32_t(current.size()));
    ASSERT_NE(vpd, nullptr);
    EXPECT_EQ(vpd, current.data() + 0x1FE00);
    EXPECT_EQ(vxapi_find_vpd_image(current.data(), 0x1FFFF), nullptr) << "one byte short of the VPD";

    vxsim::Adapter newer = sim_adapter(0x1020);
    newer.flash.bios = "3.21";
    Bytes image = vxsim::build_flash(newer);
    image.resize(0x20000);
    std::memset(image.data() + 0x1FE00, 0xFF, 0x200);
    ASSERT_EQ(vxapi_add_vpd_image(image.data(), uint32_t(image.size()), vpd), 0);
    const Bytes added(image.begin() + 0x1FE00, image.end());
    EXPECT_EQ(keyword(added, "SN"), "VXT0001");
    EXPECT_EQ(keyword(added, "V4"), " 3.21");
    EXPECT_TRUE(rv_good(added));
    EXPECT_EQ(vxapi_add_vpd_image(image.data(), 0x1FFFF, vpd), 1);
}

TEST(VpdText, CodeRevisionFormats) {
    char t[16];
    vxapi_format_code_revision(0x0312, t, sizeof t);
    EXPECT_STREQ(t, " 3.18");
    vxapi_format_code_revision(0x6405, t, sizeof t);
    EXPECT_STREQ(t, "100.05");
    vxapi_format_code_revision(0x6300, t, sizeof t);
    EXPECT_STREQ(t, "99.00");
}

TEST(ResetTable, PerFamily) {
    struct Row {
        uint16_t id;
        uint32_t region;
        vxapi_reset_action want;
        uint16_t code;
    };
    const Row rows[] = {
        {0x2020, 0x01, vxapi_reset_action::send, 0x0101},   {0x2020, 0x45, vxapi_reset_action::send, 0x0103},
        {0x2040, 0xAA, vxapi_reset_action::send, 0x0105},   {0x2030, 0xAA, vxapi_reset_action::invalid, 0},
        {0x2072, 0xDB, vxapi_reset_action::send, 0x0106},   {0x2072, 0x02, vxapi_reset_action::send, 0x0102},
        {0x2050, 0x07, vxapi_reset_action::invalid, 0},     {0x2010, 0x01, vxapi_reset_action::nothing, 0},
        {0x1052, 0x20261, vxapi_reset_action::send, 0x0261}, {0x1052, 0x2025C, vxapi_reset_action::nothing, 0},
        {0x2060, 0x20262, vxapi_reset_action::send, 0x0262}, {0x2050, 0x20262, vxapi_reset_action::invalid, 0},
        {0x2030, 0x101, vxapi_reset_action::invalid, 0},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(::testing::Message() << std::hex << r.id << " " << r.region);
        uint16_t code = 0;
        EXPECT_EQ(vxapi_reset_code(r.id, r.region, &code), r.want);
        if (r.want == vxapi_reset_action::send) {
            EXPECT_EQ(code, r.code);
        }
    }
}

}  // namespace
