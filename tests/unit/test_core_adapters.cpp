// The supported-adapter table: group sizes the product line fixes, and the
// look-ups every family decision goes through.
#include <gtest/gtest.h>

#include <set>

#include "vx_adapters.h"

namespace {

size_t count_marked(uint32_t mark) {
    size_t n = 0;
    for (const vx_adapter_type& row : vx_adapter_table)
        if ((row.marks & mark) == mark)
            ++n;
    return n;
}

size_t count_family(vx_family family) {
    size_t n = 0;
    for (const vx_adapter_type& row : vx_adapter_table)
        if (row.family == family)
            ++n;
    return n;
}

TEST(AdapterTable, IdsAreDistinctAndOfTheMaker) {
    std::set<uint16_t> ids;
    for (const vx_adapter_type& row : vx_adapter_table) {
        EXPECT_TRUE(ids.insert(row.device_id).second) << std::hex << row.device_id;
        EXPECT_NE(row.family, vx_family::Unknown);
        EXPECT_NE(row.family, vx_family::Hp);  // chosen by subsystem, never by device id
        EXPECT_GE(row.ports, 1);
        EXPECT_GE(row.flash_size, 0x20000u);
    }
    EXPECT_EQ(ids.size(), 26u);
}

TEST(AdapterTable, GroupSizes) {
    const std::pair<uint32_t, size_t> marks[] = {
        {VX_MARK_NEWER, 18}, {VX_MARK_FLT, 13},       {VX_MARK_CNA, 6},
        {VX_MARK_ADAPTER_VERSIONS, 4}, {VX_MARK_MPI_EDC, 1}, {VX_MARK_ACTIVE_IMAGE, 3},
        {VX_MARK_FLASH_BI_REFRESH, 3}, {VX_MARK_MPI_PEP, 3}, {VX_MARK_OLD_VPD_IMAGE, 4},
    };
    for (const auto& [mark, size] : marks)
        EXPECT_EQ(count_marked(mark), size) << "mark " << std::hex << mark;
    const std::pair<vx_family, size_t> families[] = {
        {vx_family::Swift, 5}, {vx_family::Kite, 2}, {vx_family::Lark, 1}, {vx_family::Wren, 2},
        {vx_family::Ibis, 1},  {vx_family::Plover, 2}, {vx_family::Tern, 2}, {vx_family::Crane, 3},
    };
    for (const auto& [family, size] : families)
        EXPECT_EQ(count_family(family), size) << vx_family_name(family);
}

TEST(AdapterTable, FamilyMarksAreConsistent) {
    for (const vx_adapter_type& row : vx_adapter_table) {
        const bool flt_family = row.family == vx_family::Kite || row.family == vx_family::Lark ||
                                row.family == vx_family::Wren || row.family == vx_family::Ibis ||
                                row.family == vx_family::Plover || row.family == vx_family::Tern ||
                                row.family == vx_family::Crane;
        EXPECT_EQ((row.marks & VX_MARK_FLT) != 0, flt_family) << row.model;
        // Every FLT family is of the newer generation.
        if (flt_family || row.family == vx_family::Swift) {
            EXPECT_NE(row.marks & VX_MARK_NEWER, 0u) << row.model;
        }
        // The MPI/PEP ids and the boot-image refresh ids are different sets of converged ids.
        if (row.marks & (VX_MARK_MPI_PEP | VX_MARK_FLASH_BI_REFRESH)) {
            EXPECT_NE(row.marks & VX_MARK_CNA, 0u) << row.model;
        }
        EXPECT_FALSE((row.marks & VX_MARK_MPI_PEP) && (row.marks & VX_MARK_FLASH_BI_REFRESH)) << row.model;
    }
}

TEST(AdapterTable, Lookups) {
    EXPECT_EQ(vx_adapter_family(0x2031), vx_family::Wren);
    EXPECT_EQ(vx_adapter_family(0x1234), vx_family::Unknown);
    EXPECT_EQ(vx_adapter_lookup(0xFFFF), nullptr);
    EXPECT_TRUE(vx_adapter_has(0x2070, VX_MARK_CNA | VX_MARK_MPI_PEP));
    EXPECT_FALSE(vx_adapter_has(0x2070, VX_MARK_CNA | VX_MARK_MPI_EDC));
    EXPECT_FALSE(vx_adapter_has(0x9999, 0));  // unknown ids have no marks at all

    EXPECT_TRUE(vx_is_hp_variant(0x103C, 0x7101));
    EXPECT_TRUE(vx_is_hp_variant(0x103C, 0x7104));
    EXPECT_FALSE(vx_is_hp_variant(0x103C, 0x7105));
    EXPECT_TRUE(vx_is_hp_variant(0x1D5A, VX_SPECIAL_SUBSYSTEM_ID));
    EXPECT_FALSE(vx_is_hp_variant(0x1D5A, 0x7101));
    EXPECT_FALSE(vx_is_hp_subsystem(0x1D5A, VX_SPECIAL_SUBSYSTEM_ID));
    EXPECT_TRUE(vx_is_hp_subsystem(0x103C, 0x7102));
}

}  // namespace
