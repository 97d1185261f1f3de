// PCI expansion-ROM images of simulator-built boot code: the structures
// refused before a write, the preservation rules byte by byte, the doubled
// Kite boot code, sector alignment, the VPD version refresh and the region
// reset table.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <tuple>

#include "flash_support.h"
#include "vx_sysfs.h"

namespace {

constexpr uint32_t FCODE_AT = 0x8000, EFI_AT = 0xC000, BOOT_LEN = 0x14000;

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
    vxapi_rom_image efi{};
    ASSERT_EQ(vxapi_find_rom_image(good.data(), uint32_t(good.size()), VX_CODE_TYPE_EFI, &efi), 0);
    EXPECT_EQ(std::make_tuple(efi.offset, efi.code_revision, efi.length, efi.last), std::make_tuple(EFI_AT, uint16_t(0x0601), 0x8000u, true));
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
    Bytes broken = boot;
    broken[0] = 0;
    using R = vxapi_update_refusal;
    const INT_OPT_ROM_REGION boot_region{0x07, 0x80000, 0, 0x7FFFF}, fw{0x20001, 0x100000, 0x80000, 0x17FFFF},
        ro{0x10029, 0x4000, 0x180000, 0x183FFF}, small{0x07, BOOT_LEN - 1, 0, BOOT_LEN - 2};
    const std::tuple<const INT_OPT_ROM_REGION*, const Bytes*, R> rows[] = {
        {&boot_region, &boot, R::none},          {&fw, &firmware, R::none} /* firmware is not walked */,
        {nullptr, &boot, R::unknown_region},     {&ro, &firmware, R::read_only},
        {&small, &boot, R::too_large},           {&boot_region, &broken, R::bad_structure},
    };
    for (const auto& [region, image, want] : rows)
        EXPECT_EQ(vxapi_check_update(region, image->data(), uint32_t(image->size()), nullptr), want);
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

TEST(KiteBoot, BootCodeStandsTwice) {
    for (uint32_t size : {0x1000u, 0x40000u, 0x80000u, 0x90000u}) {
        SCOPED_TRACE(size);
        const bool in_place = size >= VX_KITE_WRITE_LEN;
        std::unique_ptr<uint8_t[]> img(new uint8_t[size]);  // exact size: no read past it
        for (uint32_t i = 0; i < size; ++i)
            img[i] = uint8_t(i * 31 + 7);
        uint8_t* made = nullptr;
        uint32_t len = 0;
        uint8_t* out = vxapi_kite_double_boot(img.get(), size, &made, &len);
        ASSERT_NE(out, nullptr);
        EXPECT_EQ(std::make_tuple(out == img.get(), made == out, len),
                  std::make_tuple(in_place, !in_place, in_place ? size : VX_KITE_WRITE_LEN));
        EXPECT_EQ(std::memcmp(out + VX_KITE_BOOT_LEN, out, std::min(size, VX_KITE_BOOT_LEN)), 0);
        EXPECT_EQ(out[VX_KITE_WRITE_LEN - 1], size < VX_KITE_BOOT_LEN ? 0 : uint8_t(0x3FFFF * 31 + 7));
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
    // Start of offset 0x1810 aligned: the driver's 4 KiB, the description's
    // 2 KiB, 64 KiB when the description is broken or on Swift.
    const Bytes wren = g_flash.bytes;
    Bytes small_blocks = wren;
    put32_at(small_blocks, 0x3F0000 + 40, 0x800);
    put16_at(small_blocks, 0x3F0000 + 8, uint16_t(le16_at(small_blocks, 0x3F0000 + 8) - 0x7FF));  // the sum kept
    Bytes broken = wren;
    broken[0x3F0000 + 40] ^= 1;
    const std::tuple<uint16_t, uint32_t, const Bytes*, uint32_t> rows[] = {
        {0x2030, 0x1000, &wren, 0x1000}, {0x2030, 0, &small_blocks, 0x1800}, {0x2030, 0, &broken, 0}, {0x1052, 0x1000, &wren, 0}};
    for (const auto& [id, driver_sector, flash, start] : rows) {
        g_flash.bytes = *flash;
        g_flash.sector = driver_sector;
        Port port(id);
        uint8_t data[0x10] = {}, *db = nullptr;
        uint32_t offset = 0x1810, size = 0x10;
        ASSERT_EQ(vxapi_sector_align(-1, &port.inst, &db, data, &offset, &size), 0u);
        EXPECT_EQ(offset, start) << id << " " << driver_sector;
        free(db);
    }
    Port old(0x1030);
    uint8_t data[4] = {}, *db = nullptr;
    uint32_t offset = 1, size = 4;
    EXPECT_EQ(vxapi_sector_align(-1, &old.inst, &db, data, &offset, &size), 1u) << "no sector rule for the family";
}

// The VPD keywords follow the new image; "RV" is made good again.
class VpdRefresh : public ::testing::Test {
protected:
    void SetUp() override { reset_current_layout(); }
    static bool rv_good(const Bytes& v) {  // the simulator's "RV" has one data byte
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
    EXPECT_EQ(std::make_tuple(keyword(vpd, "V4"), keyword(vpd, "V5"), keyword(vpd, "V1"), keyword(vpd, "V3")),
              std::make_tuple("100.05", " 4.03", " 6.01", "9.01.02"));
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

TEST(ResetTable, PerFamily) {
    // Families without region reset send nothing but the version refresh;
    // a region of another family's table is invalid.
    using A = vxapi_reset_action;
    const std::tuple<uint16_t, uint32_t, A, uint16_t> rows[] = {
        {0x2040, 0xAA, A::send, 0x0105},    {0x2030, 0xAA, A::invalid, 0},  {0x2050, 0x07, A::invalid, 0},
        {0x2010, 0x01, A::nothing, 0},      {0x1052, 0x20261, A::send, 0x0261}, {0x1052, 0x2025C, A::nothing, 0},
        {0x2050, 0x20262, A::invalid, 0},   {0x2030, 0x101, A::invalid, 0},
    };
    for (const auto& [id, region, want, code] : rows) {
        uint16_t got = 0;
        EXPECT_EQ(vxapi_reset_code(id, region, &got), want) << std::hex << id << " " << region;
        EXPECT_EQ(got, code);
    }
}

}  // namespace
