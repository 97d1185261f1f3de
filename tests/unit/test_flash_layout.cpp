// Option ROM layouts: the fixed tables per family, the flash layout table
// read from simulator-built flash, its rejections and fallbacks, and the
// process-wide current layout.
#include <array>
#include <cstring>

#include "flash_support.h"
#include "vx_sysfs.h"

namespace {

class Layout : public ::testing::Test {
protected:
    void SetUp() override {
        reset_current_layout();
        g_flash = FakeFlash{};
    }
};

using Rows = std::vector<std::array<uint32_t, 4>>;

Rows regions_of(const INT_OPT_ROM_LAYOUT& l) {
    Rows out(l.NoOfRegions);
    for (uint32_t i = 0; i < l.NoOfRegions; ++i)
        out[i] = {l.Region[i].Region, l.Region[i].Size, l.Region[i].Beg, l.Region[i].End};
    return out;
}

// The simulator's region table of a board (flag bits dropped, whole flash first).
Rows sim_fixed_rows(const vxsim::Adapter& a) {
    const std::vector<vxsim::Region> regions = vxsim::flash_regions(a);
    const uint32_t flash = vxapi_flash_size(a.device_id);
    const size_t whole = regions.empty() || regions[0].word != 0xFF ? 1 : 0;
    Rows out(regions.size() + whole);
    if (whole)
        out[0] = {0xFF, flash, 0, flash - 1};
    for (size_t i = 0; i < regions.size(); ++i)
        out[whole + i] = {regions[i].word & 0xFF, regions[i].size, regions[i].beg, regions[i].end};
    return out;
}

TEST_F(Layout, FixedTablesAgreeWithTheSimulatorPerFamily) {
    struct Row {
        uint16_t id, ssvid, ssdid;
        uint32_t regions;
        const char* table;
    };
    const Row rows[] = {
        {0x1010, 0x1D5A, 0x0101, 2, "Finch"}, {0x1011, 0x103C, 0x7102, 2, "Hp"},   {0x1011, 0x1D5A, 0x0F00, 2, "Hp"},
        {0x1021, 0x1D5A, 0x0101, 2, "Robin"}, {0x1030, 0x1D5A, 0x0101, 2, "Heron"}, {0x1041, 0x1D5A, 0x0101, 2, "Egret"},
        {0x1054, 0x1D5A, 0x0101, 7, "Swift"}, {0x2011, 0x1D5A, 0x0101, 18, "Kite"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.table);
        Port port(r.id, r.ssvid, r.ssdid);
        INT_OPT_ROM_LAYOUT out;
        std::memset(&out, 0xAB, sizeof out);
        uint32_t stat = 99;
        ASSERT_EQ(vxsysfs_get_optrom_layout(1, &port.inst, reinterpret_cast<uint8_t*>(&out), sizeof out, &stat), 0);
        EXPECT_EQ(stat, 0u);
        ASSERT_EQ(out.NoOfRegions, r.regions);
        EXPECT_EQ(out.Size, out.Region[0].Size);
        EXPECT_EQ(out.Region[r.regions].Region, 0xABABABABu) << "written past the table";
        const auto want = sim_fixed_rows(sim_adapter(r.id, r.ssvid, r.ssdid));
        EXPECT_EQ(regions_of(out), want);
        EXPECT_EQ(pGlobalOptRomLayout, &gOptRomLayout);
        EXPECT_EQ(std::memcmp(&gOptRomLayout, &out, sizeof out), 0);
    }
}

TEST_F(Layout, KiteKeepsItsOverlappingSlices) {
    const INT_OPT_ROM_REGION& whole = LayoutKite[9];
    ASSERT_EQ(whole.Region, 0x08u);
    for (int i = 10; i < 14; ++i) {
        EXPECT_EQ(LayoutKite[i].Region, uint32_t(0x14 + i - 10));
        EXPECT_EQ(LayoutKite[i].Beg, whole.Beg + uint32_t(i - 10) * 0x200);
        EXPECT_LE(LayoutKite[i].End, whole.End);
    }
}

TEST_F(Layout, TooSmallBufferIsLeftAlone) {
    Port swift(0x1052);
    uint8_t buf[100];
    std::memset(buf, 0x5C, sizeof buf);
    uint32_t stat = 0;
    EXPECT_EQ(vxsysfs_get_optrom_layout(1, &swift.inst, buf, sizeof buf, &stat), 0);
    EXPECT_EQ(stat, 16u);
    for (uint8_t b : buf)
        ASSERT_EQ(b, 0x5C);
    EXPECT_EQ(pGlobalOptRomLayout, nullptr);
    // Exactly the table's size is enough; one byte less is not.
    Port finch(0x1010);
    uint8_t small[48];
    EXPECT_EQ(vxsysfs_get_optrom_layout(1, &finch.inst, small, 47, &stat), 0);
    EXPECT_EQ(stat, 16u);
    EXPECT_EQ(vxsysfs_get_optrom_layout(1, &finch.inst, small, 48, &stat), 0);
    EXPECT_EQ(stat, 0u);
    EXPECT_EQ(gOptRomLayout.NoOfRegions, 2u);
}

// Every FLT family reads the table the simulator put into its flash.
class FltFamily : public Layout, public ::testing::WithParamInterface<uint16_t> {};

TEST_P(FltFamily, LayoutComesFromTheFlash) {
    const uint16_t id = GetParam();
    const vxsim::Adapter a = sim_adapter(id);
    g_flash.bytes = vxsim::build_flash(a);
    Port port(id);
    ASSERT_EQ(vxapi_set_option_rom_layout(0, &port.inst), 0);
    ASSERT_NE(port.phy.pflt_layout, nullptr);
    const std::vector<vxsim::Region> regions = vxsim::flash_regions(a);
    Rows want(regions.size());
    for (size_t i = 0; i < regions.size(); ++i)
        want[i] = {regions[i].word, regions[i].size, regions[i].beg, regions[i].end};
    EXPECT_EQ(regions_of(*port.phy.pflt_layout), want);
    EXPECT_EQ(port.phy.pflt_layout->Size, 0u);
    EXPECT_EQ(pGlobalOptRomLayout, &gOptRomLayout);
    EXPECT_EQ(std::memcmp(&gOptRomLayout, port.phy.pflt_layout, sizeof gOptRomLayout), 0);
    EXPECT_EQ(g_flash.reads.front().first, vxapi_flt_default_address(id));
}

INSTANTIATE_TEST_SUITE_P(Families, FltFamily,
                         ::testing::Values(0x2010, 0x2020, 0x2030, 0x2040, 0x2050, 0x2060, 0x2072),
                         [](const auto& p) { return std::string(vx_family_name(vx_adapter_family(p.param))); });

// A broken table at the default address: only Lark finds another one
// through the boot-image scan; Kite's scan never yields, Wren's stops.
TEST_F(Layout, BrokenTableFallsBackToTheScan) {
    struct Row {
        const char* name;
        uint16_t id;
        void (*spoil)(Bytes&, uint32_t at);
        bool lark_moved;  // a good copy elsewhere, named by the locator
        int result;
    };
    auto version2 = [](Bytes& f, uint32_t at) { put16_at(f, at, 2); put16_at(f, at + 4, uint16_t(le16_at(f, at + 4) - 1)); };
    auto sum1 = [](Bytes& f, uint32_t at) { put16_at(f, at + 4, uint16_t(le16_at(f, at + 4) + 1)); };
    auto overlong = [](Bytes& f, uint32_t at) { put16_at(f, at + 2, 0xFFF0); };
    auto erased = [](Bytes& f, uint32_t at) { std::memset(f.data() + at, 0xFF, 4096); };
    const Row rows[] = {
        {"lark version 2", 0x2020, version2, true, 0},  {"lark sum 1", 0x2020, sum1, true, 0},
        {"lark overlong", 0x2020, overlong, true, 0},  {"lark no copy", 0x2020, sum1, false, 1},
        {"kite erased", 0x2010, erased, false, 1},     {"wren sum 1", 0x2031, sum1, false, 1},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        g_flash = FakeFlash{};
        g_flash.bytes = vxsim::build_flash(sim_adapter(r.id));
        const uint32_t at = vxapi_flt_default_address(r.id);
        const uint32_t moved = 0x3FF000;
        if (r.lark_moved) {
            std::memcpy(g_flash.bytes.data() + moved, g_flash.bytes.data() + at, 4096);
            const uint32_t loc = 0x200 + 0x14000;  // past the directory and the three boot images
            ASSERT_EQ(std::memcmp(g_flash.bytes.data() + loc, "QFLT", 4), 0);
            put16_at(g_flash.bytes, loc + 4, uint16_t(moved));
            put16_at(g_flash.bytes, loc + 6, uint16_t(moved >> 16));
            put16_at(g_flash.bytes, loc + 14, 0);
            uint16_t sum = 0;
            for (int i = 0; i < 8; ++i)
                sum = uint16_t(sum + le16_at(g_flash.bytes, loc + 2 * i));
            put16_at(g_flash.bytes, loc + 14, uint16_t(-sum));
        }
        r.spoil(g_flash.bytes, at);
        gOptRomLayout.NoOfRegions = 77;  // a failed build leaves the current layout alone
        Port port(r.id);
        EXPECT_EQ(vxapi_set_option_rom_layout(0, &port.inst), r.result);
        EXPECT_EQ(port.phy.pflt_layout != nullptr, r.result == 0);
        if (r.result == 0) {
            EXPECT_EQ(port.phy.pflt_layout->NoOfRegions, vxsim::flash_regions(sim_adapter(r.id)).size());
        } else {
            EXPECT_EQ(gOptRomLayout.NoOfRegions, 77u);
        }
        reset_current_layout();
    }
}

TEST_F(Layout, ScanRefusesWhatItCannotTrust) {
    struct Row {
        const char* name;
        uint16_t id;
        void (*spoil)(Bytes&);
    };
    const Row rows[] = {
        {"kite never yields", 0x2010, [](Bytes&) {}},
        {"locator checksum", 0x2020, [](Bytes& f) { f[0x200 + 0x14000 + 9] ^= 1; }},
        {"locator past the flash", 0x2020,
         [](Bytes& f) {
             const size_t l = 0x200 + 0x14000;
             put16_at(f, l + 6, 0x40);  // 0x40xxxx on a 4 MiB part
             put16_at(f, l + 14, uint16_t(le16_at(f, l + 14) - 0x0A));  // 0x36 -> 0x40, the sum kept
         }},
        {"first image erased", 0x2020, [](Bytes& f) { std::memset(f.data() + 0x200, 0xFF, 2); }},
        {"zero length image", 0x2020, [](Bytes& f) { put16_at(f, 0x200 + 0x40 + 16, 0); }},
        {"all erased", 0x2020, [](Bytes& f) { std::memset(f.data(), 0xFF, f.size()); }},
        {"wren", 0x2030, [](Bytes&) {}},
        {"crane does not scan", 0x2070, [](Bytes&) {}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        g_flash = FakeFlash{};
        g_flash.bytes = vxsim::build_flash(sim_adapter(r.id));
        r.spoil(g_flash.bytes);
        Port port(r.id);
        port.phy.pflt_layout = static_cast<INT_OPT_ROM_LAYOUT*>(calloc(1, sizeof(INT_OPT_ROM_LAYOUT)));
        uint32_t address = 0;
        const int found = vxapi_get_flt_address(0, &port.inst, &address);
        EXPECT_TRUE(found != 0 || vxapi_get_flt_data(0, &port.inst, address) != 0);
    }
}

// Lark walks a second bank when the first holds no last image; finding it
// there is past the family's bound, so the scan still fails.
TEST_F(Layout, LarkWalksTheSecondBank) {
    g_flash.bytes = vxsim::build_flash(sim_adapter(0x2020));
    Bytes& f = g_flash.bytes;
    const size_t efi_pcir = 0x200 + 0xC000 + 0x40;
    f[efi_pcir + 21] = 0;  // the EFI image is no longer last
    Port port(0x2020);
    uint32_t address = 0;
    EXPECT_NE(vxapi_get_flt_address(0, &port.inst, &address), 0);
    ASSERT_EQ(g_flash.reads.size(), 2u);
    EXPECT_EQ(g_flash.reads[1], std::make_pair(0x200000u, 0x80000u));

    g_flash.reads.clear();
    f[efi_pcir + 21] = 0x80;
    EXPECT_EQ(vxapi_get_flt_address(0, &port.inst, &address), 0);
    EXPECT_EQ(address, 0x361000u);
    EXPECT_EQ(g_flash.reads.size(), 1u);
}

TEST_F(Layout, ReadFailureAndDriverStatusFail) {
    g_flash.bytes = vxsim::build_flash(sim_adapter(0x2050));
    g_flash.status = 2;
    Port port(0x2050);
    EXPECT_EQ(vxapi_set_option_rom_layout(0, &port.inst), 1);
    EXPECT_EQ(port.phy.pflt_layout, nullptr);
    EXPECT_EQ(pGlobalOptRomLayout, nullptr);
    Port old(0x1010);
    EXPECT_EQ(vxapi_set_option_rom_layout(0, &old.inst), 1) << "no layout table on an older family";
}

TEST_F(Layout, CurrentLayoutIsProcessWide) {
    Port kite(0x2010), finch(0x1010);
    uint8_t a[VX_OPTROM_LAYOUT_SIZE], b[VX_OPTROM_LAYOUT_SIZE];
    uint32_t stat = 0;
    vxsysfs_get_optrom_layout(1, &kite.inst, a, sizeof a, &stat);
    EXPECT_EQ(vxapi_check_region(0x14), 1);
    vxsysfs_get_optrom_layout(2, &finch.inst, b, sizeof b, &stat);
    EXPECT_EQ(vxapi_check_region(0x14), 0) << "the last adapter asked about wins";
    EXPECT_EQ(vxapi_check_region(0x02), 1);

    // Whole region words are compared: 0x10029 is not 0x29.
    INT_OPT_ROM_LAYOUT l{};
    l.NoOfRegions = 1;
    l.Region[0] = {0x10029, 0x4000, 0, 0x3FFF};
    vxapi_publish_optrom_layout(&l, sizeof l);
    EXPECT_EQ(vxapi_check_region(0x10029), 1);
    EXPECT_EQ(vxapi_check_region(0x29), 0);

    // The fallback replaces it with the adapter's fixed table; boards
    // outside the fixed families take the Finch table.
    Port crane(0x2070);
    EXPECT_EQ(vxapi_override_flt(0, &crane.inst), 0u);
    EXPECT_EQ(gOptRomLayout.NoOfRegions, 2u);
    EXPECT_EQ(gOptRomLayout.Region[1].Region, 0x02u);
}

TEST_F(Layout, RegionLookUp) {
    Port lark(0x2020);
    uint32_t off = 1, size = 1;
    EXPECT_EQ(vxsysfs_map_region(&lark.inst, 0xFF, &off, &size), 0) << "before any layout";
    EXPECT_EQ(off, 0u);
    EXPECT_EQ(size, 0x400000u);
    EXPECT_EQ(vxsysfs_map_region(&lark.inst, 0x07, &off, &size), 1);
    EXPECT_EQ(size, 0u);

    g_flash.bytes = vxsim::build_flash(sim_adapter(0x2020));
    ASSERT_EQ(vxapi_set_option_rom_layout(0, &lark.inst), 0);
    EXPECT_EQ(vxsysfs_map_region(&lark.inst, 0x45, &off, &size), 0) << "looked up by code, flags aside";
    EXPECT_EQ(off, 0x200000u);
    EXPECT_EQ(size, 0x10000u);
    EXPECT_EQ(vxsysfs_map_region(&lark.inst, 0xFF, &off, &size), 0) << "a table without a whole-flash row";
    EXPECT_EQ(size, 0x400000u);
    EXPECT_EQ(vxsysfs_map_region(&lark.inst, 0x66, &off, &size), 1);
    EXPECT_EQ(off | size, 0u);
}

TEST(FltParse, EntriesAreLittleEndianAndBounded) {
    Bytes t(8 + 32, 0);
    put16_at(t, 0, 1);
    put16_at(t, 2, 32);
    const uint32_t words[8] = {0x10029, 0x4000, 0x180000, 0x183FFF, 0x20001, 0x100000, 0x80000, 0x17FFFF};
    for (int i = 0; i < 8; ++i)
        put32_at(t, 8 + 4 * size_t(i), words[i]);
    uint16_t sum = 0;
    for (size_t i = 0; i < t.size(); i += 2)
        sum = uint16_t(sum + le16_at(t, i));
    put16_at(t, 4, uint16_t(-sum));
    INT_OPT_ROM_LAYOUT l{};
    l.Size = 123;
    ASSERT_EQ(vxapi_parse_flt(t.data(), uint32_t(t.size()), &l), 0);
    EXPECT_EQ(l.Size, 123u) << "the table leaves Size alone";
    ASSERT_EQ(l.NoOfRegions, 2u);
    EXPECT_EQ(l.Region[0].Region, 0x10029u);
    EXPECT_EQ(l.Region[1].End, 0x17FFFFu);
    EXPECT_EQ(vxapi_parse_flt(t.data(), uint32_t(t.size() - 1), &l), 2) << "one byte short of the entries";
    EXPECT_EQ(vxapi_parse_flt(t.data(), 7, &l), 2);
}

TEST(FdtParse, BlockSizeAndRefusals) {
    const vxsim::Adapter a = sim_adapter(0x2030);
    const Bytes f = vxsim::build_flash(a);
    const uint32_t at = vxapi_fdt_address(0x2030);
    ASSERT_EQ(at, *vxsim::fdt_address(a));
    uint32_t block = 0;
    EXPECT_EQ(vxapi_parse_fdt(f.data() + at, 128, &block), 0);
    EXPECT_EQ(block, 0x10000u);
    Bytes bad(f.begin() + at, f.begin() + at + 128);
    bad[50] ^= 1;
    EXPECT_EQ(vxapi_parse_fdt(bad.data(), 128, &block), 2);
    bad[0] = 'Q';
    EXPECT_EQ(vxapi_parse_fdt(bad.data(), 128, &block), 1);
    EXPECT_EQ(vxapi_parse_fdt(f.data() + at, 127, &block), 1);
}

}  // namespace
