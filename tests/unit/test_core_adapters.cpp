// The supported-adapter table: group sizes the product line fixes, and the
// look-ups every family decision goes through.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>

#include "vx_adapters.h"

namespace {

size_t count_rows(const std::function<bool(const vx_adapter_type&)>& pred) {
    return static_cast<size_t>(std::count_if(std::begin(vx_adapter_table), std::end(vx_adapter_table), pred));
}

TEST(AdapterTable, IdsAreDistinctAndFamilyMarksConsistent) {
    using F = vx_family;
    const std::set<vx_family> flt_families = {F::Kite, F::Lark, F::Wren, F::Ibis, F::Plover, F::Tern, F::Crane};
    std::set<uint16_t> ids;
    for (const vx_adapter_type& row : vx_adapter_table) {
        EXPECT_TRUE(ids.insert(row.device_id).second) << std::hex << row.device_id;
        EXPECT_NE(row.family, F::Unknown);
        EXPECT_NE(row.family, F::Hp);  // chosen by subsystem, never by device id
        EXPECT_GE(row.ports, 1);
        EXPECT_GE(row.flash_size, 0x20000u);
        const bool flt = flt_families.count(row.family) == 1;
        EXPECT_EQ((row.marks & VX_MARK_FLT) != 0, flt) << row.model;
        EXPECT_TRUE(!(flt || row.family == F::Swift) || (row.marks & VX_MARK_NEWER)) << row.model;
        // The MPI/PEP ids and the boot-image refresh ids are different sets of converged ids.
        EXPECT_TRUE(!(row.marks & (VX_MARK_MPI_PEP | VX_MARK_FLASH_BI_REFRESH)) || (row.marks & VX_MARK_CNA)) << row.model;
        EXPECT_FALSE((row.marks & VX_MARK_MPI_PEP) && (row.marks & VX_MARK_FLASH_BI_REFRESH)) << row.model;
    }
    EXPECT_EQ(ids.size(), 26u);
}

TEST(AdapterTable, GroupSizes) {
    const std::pair<uint32_t, size_t> marks[] = {
        {VX_MARK_NEWER, 18}, {VX_MARK_FLT, 13},       {VX_MARK_CNA, 6},
        {VX_MARK_ADAPTER_VERSIONS, 4}, {VX_MARK_MPI_EDC, 1}, {VX_MARK_ACTIVE_IMAGE, 3},
        {VX_MARK_FLASH_BI_REFRESH, 3}, {VX_MARK_MPI_PEP, 3}, {VX_MARK_OLD_VPD_IMAGE, 4},
        {VX_MARK_VPD_MODEL, 13},
    };
    for (const auto& [mark, size] : marks)
        EXPECT_EQ(count_rows([m = mark](const vx_adapter_type& r) { return (r.marks & m) == m; }), size)
            << "mark " << std::hex << mark;
    const std::pair<vx_family, size_t> families[] = {
        {vx_family::Swift, 5}, {vx_family::Kite, 2}, {vx_family::Lark, 1}, {vx_family::Wren, 2},
        {vx_family::Ibis, 1},  {vx_family::Plover, 2}, {vx_family::Tern, 2}, {vx_family::Crane, 3},
    };
    for (const auto& [family, size] : families)
        EXPECT_EQ(count_rows([f = family](const vx_adapter_type& r) { return r.family == f; }), size)
            << vx_family_name(family);
}

TEST(AdapterTable, Lookups) {
    EXPECT_EQ(vx_adapter_family(0x2031), vx_family::Wren);
    EXPECT_EQ(vx_adapter_family(0x1234), vx_family::Unknown);
    EXPECT_TRUE(vx_adapter_has(0x2070, VX_MARK_CNA | VX_MARK_MPI_PEP));
    EXPECT_FALSE(vx_adapter_has(0x2070, VX_MARK_CNA | VX_MARK_MPI_EDC));
    EXPECT_FALSE(vx_adapter_has(0x9999, 0));  // unknown ids have no marks at all

    // An HP variant but no HP subsystem (those are checked with the serials they choose).
    EXPECT_TRUE(vx_is_hp_variant(0x1D5A, VX_SPECIAL_SUBSYSTEM_ID));
    EXPECT_FALSE(vx_is_hp_variant(0x1D5A, 0x7101));
}

}  // namespace
