// Option ROM layouts: the fixed tables per family, the flash layout table
// read from simulator-built flash, its rejections and fallbacks, and the
// process-wide current layout.
#include <array>
#include <cstring>
#include <tuple>

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
    // Finch, both HP boards, Robin, Heron, Egret, Swift, Kite (its 0x14-0x17 inside 0x08).
    const std::tuple<uint16_t, uint16_t, uint16_t> boards[] = {
        {0x1010, 0x1D5A, 0x0101}, {0x1011, 0x103C, 0x7102}, {0x1011, 0x1D5A, 0x0F00}, {0x1021, 0x1D5A, 0x0101},
        {0x1030, 0x1D5A, 0x0101}, {0x1041, 0x1D5A, 0x0101}, {0x1054, 0x1D5A, 0x0101}, {0x2011, 0x1D5A, 0x0101},
    };
    for (const auto& [id, ssvid, ssdid] : boards) {
        SCOPED_TRACE(::testing::Message() << std::hex << id << " " << ssvid);
        Port port(id, ssvid, ssdid);
        INT_OPT_ROM_LAYOUT out;
        std::memset(&out, 0xAB, sizeof out);
        uint32_t stat = 99;
        ASSERT_EQ(vxsysfs_get_optrom_layout(1, &port.inst, reinterpret_cast<uint8_t*>(&out), sizeof out, &stat), 0);
        EXPECT_EQ(stat, 0u);
        EXPECT_EQ(regions_of(out), sim_fixed_rows(sim_adapter(id, ssvid, ssdid)));
        EXPECT_EQ(out.Size, out.Region[0].Size);
        EXPECT_EQ(out.Region[out.NoOfRegions].Region, 0xABABABABu) << "written past the table";
        EXPECT_EQ(pGlobalOptRomLayout, &gOptRomLayout);
        EXPECT_EQ(std::memcmp(&gOptRomLayout, &out, sizeof out), 0);
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
    EXPECT_EQ(vxsysfs_get_optrom_layout(1, &swift.inst, buf, 127, &stat), 0);
    EXPECT_EQ(stat, 16u) << "one byte short of the table";
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

constexpr uint32_t LARK_LOCATOR = 0x200 + 0x14000;  // past the directory and three boot images

void spoil_sum(Bytes& f, uint32_t at, int delta = 1) { put16_at(f, at + 4, uint16_t(le16_at(f, at + 4) + delta)); }

// Points Lark's locator elsewhere, its checksum made good.
void point_locator(Bytes& f, uint32_t address) {
    put32_at(f, LARK_LOCATOR + 4, address);
    put16_at(f, LARK_LOCATOR + 14, 0);
    uint16_t sum = 0;
    for (int i = 0; i < 8; ++i)
        sum = uint16_t(sum + le16_at(f, LARK_LOCATOR + 2 * size_t(i)));
    put16_at(f, LARK_LOCATOR + 14, uint16_t(-sum));
}

// A good copy of Lark's table at 0x3FF000, named by its locator.
void move_lark_table(Bytes& f) {
    std::memcpy(f.data() + 0x3FF000, f.data() + 0x361000, 4096);
    point_locator(f, 0x3FF000);
}

// A broken table at the default address: only Lark may find another one
// through the boot-image scan; Kite's scan never yields, Wren's gives up,
// Crane does not scan.
TEST_F(Layout, BrokenTableFallsBackToTheScan) {
    struct Row {
        const char* name;
        uint16_t id;
        void (*spoil)(Bytes&);
        int result;
    };
    const Row rows[] = {
        {"version 2", 0x2020, [](Bytes& f) { move_lark_table(f); put16_at(f, 0x361000, 2); spoil_sum(f, 0x361000, -1); }, 0},
        {"sum 1", 0x2020, [](Bytes& f) { move_lark_table(f); spoil_sum(f, 0x361000); }, 0},
        {"entries past the read", 0x2020, [](Bytes& f) { move_lark_table(f); put16_at(f, 0x361002, 0xFFF0); }, 0},
        {"no other copy", 0x2020, [](Bytes& f) { spoil_sum(f, 0x361000); }, 1},
        {"locator checksum", 0x2020, [](Bytes& f) { move_lark_table(f); spoil_sum(f, 0x361000); f[LARK_LOCATOR + 9] ^= 1; }, 1},
        {"locator past the flash", 0x2020,
[](Bytes& f) { spoil_sum(f, 0x361000); point_locator(f, 0x401000); }, 1},
        {"first image erased", 0x2020, [](Bytes& f) { spoil_sum(f, 0x361000); std::memset(f.data() + 0x200, 0xFF, 2); }, 1},
        {"zero length image", 0x2020, [](Bytes& f) { spoil_sum(f, 0x361000); put16_at(f, 0x200 + 0x40 + 16, 0); }, 1},
        {"all erased", 0x2020, [](Bytes& f) { std::memset(f.data(), 0xFF, f.size()); }, 1},
        {"kite", 0x2010, [](Bytes& f) { spoil_sum(f, 0x141000); }, 1},
        {"wren", 0x2031, [](Bytes& f) { spoil_sum(f, 0x3F1000); }, 1},
        {"crane", 0x2070, [](Bytes& f) { spoil_sum(f, 0x3F1000); }, 1},
        {"driver busy", 0x2050, [](Bytes&) { g_flash.status = 2; }, 1},
        {"older family", 0x1010, [](Bytes&) {}, 1},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        g_flash = FakeFlash{};
        g_flash.bytes = vxsim::build_flash(sim_adapter(r.id));
        r.spoil(g_flash.bytes);
        gOptRomLayout.NoOfRegions = 77;  // a failed build leaves the current layout alone
        Port port(r.id);
        EXPECT_EQ(vxapi_set_option_rom_layout(0, &port.inst), r.result);
        EXPECT_EQ(port.phy.pflt_layout != nullptr, r.result == 0);
        EXPECT_EQ(gOptRomLayout.NoOfRegions, r.result == 0 ? vxsim::flash_regions(sim_adapter(r.id)).size() : 77u);
        reset_current_layout();
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
    auto map = [&lark](uint32_t region) {
        uint32_t off = 1, size = 1;
        const int rc = vxsysfs_map_region(&lark.inst, region, &off, &size);
        return std::make_tuple(rc, off, size);
    };
    EXPECT_EQ(map(0xFF), std::make_tuple(0, 0u, 0x400000u)) << "before any layout";
    EXPECT_EQ(map(0x07), std::make_tuple(1, 0u, 0u));
    g_flash.bytes = vxsim::build_flash(sim_adapter(0x2020));
    ASSERT_EQ(vxapi_set_option_rom_layout(0, &lark.inst), 0);
    EXPECT_EQ(map(0x45), std::make_tuple(0, 0x200000u, 0x10000u)) << "looked up by code, flags aside";
    EXPECT_EQ(map(0xFF), std::make_tuple(0, 0u, 0x400000u)) << "a table without a whole-flash row";
    EXPECT_EQ(map(0x66), std::make_tuple(1, 0u, 0u));
}

TEST(FltParse, EntriesMustLieInsideTheRead) {
    const Bytes f = vxsim::build_flash(sim_adapter(0x2070));
    const uint8_t* t = f.data() + 0x3F1000;
    const uint32_t len = 8 + le16_at(f, 0x3F1002);
    INT_OPT_ROM_LAYOUT l{};
    l.Size = 123;
    EXPECT_EQ(vxapi_parse_flt(t, len, &l), 0);
    EXPECT_EQ(l.Size, 123u) << "the table leaves Size alone";
    EXPECT_EQ(vxapi_parse_flt(t, len - 1, &l), 2) << "one byte short of the entries";
}

}  // namespace
