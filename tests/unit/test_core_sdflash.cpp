// The SD flash calls over an in-process channel: the layout a caller sees,
// how a failed flash request becomes a status, which requests an update
// makes (read, write, activation) and what is refused before any.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "mock_channel.h"
#include "vsdmgt.h"
#include "vx_core_flash.h"

namespace {

using vxmock::slot;

constexpr uint32_t SYSFS_PORT = VX_FEAT_SYSFS | VX_FEAT_BSG;
constexpr uint16_t KITE = 0x2010, SWIFT = 0x1052, LARK = 0x2020;
constexpr uint32_t RESET = 1u << 17;

// A caller's layout with room for `n` regions.
struct CallerLayout {
    std::vector<uint8_t> raw;
    explicit CallerLayout(uint32_t n) : raw(8 + 8 * n, 0xEE) { layout()->NoOfRegions = n; }
    SDM_OPT_ROM_LAYOUT* layout() { return reinterpret_cast<SDM_OPT_ROM_LAYOUT*>(raw.data()); }
    SDM_OPT_ROM_REGION region(uint32_t i) const {
        SDM_OPT_ROM_REGION r;
        memcpy(&r, raw.data() + 8 + 8 * i, sizeof r);
        return r;
    }
};

class SdFlash : public testing::Test {
protected:
    vxmock::registry reg;
    vxmock::channel mock;

    vxapi_priv_database* port(uint16_t device_id, uint16_t function = 0) {
        vxapi_priv_database* p = reg.port(SYSFS_PORT, device_id, 3, function);
        mock.install(p);
        return p;
    }
    // A layout table as discovery leaves it for a Lark board.
    vxapi_priv_database* lark(uint16_t function = 0) {
        vxapi_priv_database* p = port(LARK, function);
        if (!p || !p->phy_info) {
            ADD_FAILURE() << "no port record";
            return p;
        }
        auto* flt = static_cast<INT_OPT_ROM_LAYOUT*>(calloc(1, sizeof(INT_OPT_ROM_LAYOUT)));
        const INT_OPT_ROM_REGION rows[] = {{0x07, 0x80000, 0, 0x7FFFF},
                                           {0x01 | RESET, 0x100000, 0x80000, 0x17FFFF},
                                           {0x10029, 0x4000, 0x210000, 0x213FFF},
                                           {0x13, 0x10000, 0x220000, 0x22FFFF}};
        flt->NoOfRegions = 4;
        memcpy(flt->Region, rows, sizeof rows);
        p->phy_info->pflt_layout = flt;
        return p;
    }
};

TEST_F(SdFlash, LayoutAsTheCallerSeesIt) {
    // The fixed Kite table has 18 regions: a smaller capacity learns the count.
    const int kite = vxmock::registry::handle(port(KITE));
    CallerLayout one(1);
    EXPECT_EQ(SDGetOptionRomLayout(kite, 0, one.layout()), SDM_STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(one.layout()->NoOfRegions, 18u);
    EXPECT_EQ(one.region(0).Region, 0xEEEEEEEEu) << "nothing else written";

    CallerLayout swift(7);
    ASSERT_EQ(SDGetOptionRomLayout(vxmock::registry::handle(port(SWIFT)), 0, swift.layout()), 0u);
    EXPECT_EQ(swift.layout()->NoOfRegions, 7u);
    EXPECT_EQ(swift.layout()->Size, 0x100000u);
    EXPECT_EQ(swift.region(0).Region, 0xFFu);
    EXPECT_EQ(swift.region(0).Size, 0x100000u);

    // A layout table: no flash size, codes without their flag bits.
    CallerLayout flt(8);
    ASSERT_EQ(SDGetOptionRomLayout(vxmock::registry::handle(lark()), 0, flt.layout()), 0u);
    EXPECT_EQ(flt.layout()->Size, 0u);
    EXPECT_EQ(flt.layout()->NoOfRegions, 4u);
    EXPECT_EQ(flt.region(2).Region, 0x29u);
    EXPECT_EQ(flt.region(4).Region, 0xEEEEEEEEu) << "nothing past the count";
    EXPECT_EQ(vxapi_check_region(0x10029), 1) << "the whole word stays in the current layout";

    // A layout-table board whose table was never read has no layout.
    EXPECT_EQ(SDGetOptionRomLayout(vxmock::registry::handle(port(LARK, 1)), 0, nullptr), SDM_STATUS_UNKNOWN_ERROR);
}

TEST_F(SdFlash, FailedReadsBecomeStatuses) {
    const int h = vxmock::registry::handle(port(SWIFT));
    const struct {
        uint32_t ext_stat;
        int32_t rc;
        int err;
        uint32_t status;
    } rows[] = {
        {EXT_STATUS_OK, 0, 0, SDM_STATUS_SUCCESS},
        {EXT_STATUS_BUSY, 0, 0, SDM_STATUS_DEVICE_BUSY},
        {EXT_STATUS_INVALID_REQUEST, 0, 0, SDM_STATUS_NOT_SUPPORTED},
        {EXT_STATUS_OK, -1, EIO, EIO},
        {EXT_STATUS_OK, 1, 0, SDM_STATUS_UNKNOWN_ERROR},
    };
    for (const auto& r : rows) {
        mock.expect(slot::read_optrom).with_arg(VX_REGION_RAW).with_offset(0x1234).with_size(0x40).status(r.ext_stat).fails(r.rc, r.err);
        std::vector<uint8_t> buf(0x40);
        EXPECT_EQ(SDGetOptionRomOffset(h, 0, buf.data(), 0x40, 0x1234), r.status) << r.ext_stat << " " << r.rc;
    }
}

TEST_F(SdFlash, RegionUpdatesAndTheirReset) {
    vxapi_priv_database* first = lark(0);
    lark(1);  // the board's second port takes the same reset
    const int h = vxmock::registry::handle(first);
    std::vector<uint8_t> fw(0x1000, 0x42);

    // A firmware region with reset bits: the current content is read (for the
    // settings an x86 image would carry), the new one written, then both
    // ports activated.
    mock.expect(slot::read_optrom).with_arg(0x01).with_size(0x1000);
    mock.expect(slot::update_optrom).with_arg(0x01).with_offset(0).with_size(0x1000);
    mock.expect(slot::activate_region).with_arg(0x0101);
    mock.expect(slot::activate_region).with_arg(0x0101);
    EXPECT_EQ(SDUpdateOptionRomEx(h, 0, fw.data(), uint32_t(fw.size()), 0x01), 0u);
    EXPECT_EQ(mock.written(), fw);

    // The application keeps the adapter from resetting: the driver only re-reads versions.
    mock.expect(slot::read_optrom).with_arg(0x01);
    mock.expect(slot::update_optrom).with_arg(0x01);
    mock.expect(slot::activate_region).with_arg(VX_RESET_SPECIAL_VERSIONS & 0xFFFF);
    mock.expect(slot::activate_region).with_arg(VX_RESET_SPECIAL_VERSIONS & 0xFFFF);
    EXPECT_EQ(SDUpdateOptionRomEx(h, 1, fw.data(), uint32_t(fw.size()), 0x01), 0u);

    // A failed activation is the call's failure.
    mock.expect(slot::read_optrom).with_arg(0x01);
    mock.expect(slot::update_optrom).with_arg(0x01);
    mock.expect(slot::activate_region).status(EXT_STATUS_ERR);
    EXPECT_EQ(SDUpdateOptionRomEx(h, 0, fw.data(), uint32_t(fw.size()), 0x01), SDM_STATUS_REGION_RESET_FAILED);

    // (Regions refused before any request are checked end to end.) A virtual
    // port shares the flash but never writes it.
    const int vport = vxmock::registry::handle(reg.vport(first));
    EXPECT_EQ(SDUpdateOptionRomOffset(vport, 0, fw.data(), uint32_t(fw.size()), 0), SDM_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(SDUpdateOptionRomEx2(vport, 0, fw.data(), uint32_t(fw.size()), 0x13), SDM_STATUS_NOT_SUPPORTED);
}

TEST_F(SdFlash, AFailedWriteIsNeverSuccess) {
    const int h = vxmock::registry::handle(lark());
    std::vector<uint8_t> fw(0x1000, 0x42);
    mock.expect(slot::update_optrom).with_arg(0x13).status(EXT_STATUS_ERR);
    EXPECT_EQ(SDUpdateOptionRomEx(h, 0, fw.data(), uint32_t(fw.size()), 0x13), SDM_STATUS_UNKNOWN_ERROR);
    mock.expect(slot::update_optrom).with_arg(VX_REGION_RAW).fails(-1, EIO);
    EXPECT_EQ(SDUpdateOptionRomOffset(h, 0, fw.data(), uint32_t(fw.size()), 0x10000), static_cast<uint32_t>(EIO));
}

}  // namespace
