// Whole NVRAM images and VPD through the SD layer, over an in-process
// channel: which request each family gets (the driver's, or a flash region
// by PCI function), the size it asks for, how a failure becomes a status,
// and what is refused before any request.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mock_channel.h"
#include "unit_support.h"
#include "vsdmgt.h"
#include "vsdnvram.h"
#include "vx_adapters.h"
#include "vx_core_flash.h"
#include "vx_sddbg.h"

namespace {

using vxmock::slot;
using bytes = std::vector<uint8_t>;

constexpr uint32_t SYSFS_PORT = VX_FEAT_SYSFS | VX_FEAT_BSG;
constexpr uint32_t IOCTL_PORT = VX_FEAT_IOCTL_NODE | VX_FEAT_NEW_IOCTL;
constexpr uint16_t FINCH = 0x1010, SWIFT = 0x1053, KITE = 0x2010, LARK = 0x2020, WREN = 0x2031, IBIS = 0x2040,
                   TERN = 0x2061, CRANE = 0x2072;

bytes pattern(size_t n, uint8_t seed) {
    bytes b(n);
    for (size_t i = 0; i < n; ++i)
        b[i] = static_cast<uint8_t>(seed + i * 7);
    return b;
}

class SdNvram : public testing::Test {
protected:
    vxmock::registry reg;
    vxmock::channel mock;

    void TearDown() override { vx_debug = VXDBG_DEFAULT; }

    // A port of the board of this device id (one board per id, each on a
    // PCI bus of its own); the layout-table families get the table discovery
    // would have read (their NVRAM and VPD regions).
    vxapi_priv_database* port(uint16_t device_id, uint16_t function = 0, uint32_t features = SYSFS_PORT) {
        vxapi_priv_database* p = reg.port(features, device_id, device_id % 251, function);
        if (!p || !p->phy_info) {
            ADD_FAILURE() << "no port record";
            return p;
        }
        mock.install(p);
        if (vx_adapter_has(device_id, VX_MARK_FLT)) {
            auto* flt = static_cast<INT_OPT_ROM_LAYOUT*>(calloc(1, sizeof(INT_OPT_ROM_LAYOUT)));
            const uint32_t codes[] = {0x14, 0x15, 0x16, 0x17, 0xAA, 0xAC, 0xD5, 0xD7};
            for (uint32_t i = 0; i < std::size(codes); ++i) {
                const uint32_t size = codes[i] == 0x14 || codes[i] == 0x16 ? vxapi_get_vpd_size(device_id) : 0x200;
                flt->Region[i] = {codes[i] | (1u << 18), size, 0x3E0000 + 0x1000 * i, 0x3E0000 + 0x1000 * i + size - 1};
            }
            flt->NoOfRegions = std::size(codes);
            p->phy_info->pflt_layout = flt;
        }
        return p;
    }
    static int handle(const vxapi_priv_database* p) { return vxmock::registry::handle(p); }
};

// ---- NVRAM ----

TEST_F(SdNvram, ReadsTakeTheFamilysRequestAndSize) {
    const struct {
        uint16_t device_id;
        uint16_t function;
        uint32_t asked;
        slot request;
        uint32_t region;  // read_optrom only
        uint32_t sent;
        const char* trace;  // the clamping line, or "" for none
    } rows[] = {
        {FINCH, 0, 1024, slot::get_nvram, 0, 256, "SDGetNVRam: resizing request from=1024 to=256"},
        {FINCH, 0, 100, slot::get_nvram, 0, 100, ""},
        {SWIFT, 1, 1024, slot::get_nvram, 0, 512, "SDGetNVRam: resizing SWIFT request from=1024 to=512"},
        {KITE, 1, 512, slot::read_optrom, 0x17, 512, ""},
        {LARK, 0, 4096, slot::read_optrom, 0x15, 512, "SDGetNVRam: resizing SWIFT request from=4096 to=512"},
        {WREN, 1, 512, slot::read_optrom, 0x17, 512, ""},
        {IBIS, 0, 512, slot::read_optrom, 0xAA, 512, ""},
        {TERN, 1, 512, slot::read_optrom, 0xAC, 512, ""},
        {CRANE, 2, 512, slot::read_optrom, 0xD5, 512, ""},
        {CRANE, 3, 512, slot::read_optrom, 0xD7, 512, ""},
        {CRANE, 5, 512, slot::read_optrom, 0x15, 512, ""},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message() << std::hex << r.device_id << " function " << r.function);
        const int h = handle(port(r.device_id, r.function));
        auto& e = mock.expect(r.request).with_size(r.sent).answer_bytes(pattern(r.sent, 1));
        if (r.request == slot::read_optrom)
            e.with_arg(r.region).with_offset(0);
        // The image and no more reaches the caller's buffer.
        bytes buf(r.asked + 8, 0xA5);
        vx_debug = VXDBG_ERROR | VXDBG_TRACE | VXDBG_SDAPI;
        uint32_t status = 0;
        const std::string out =
            capture_stderr([&] { status = SDGetNVRam(h, 0, 0, buf.data(), r.asked); });
        EXPECT_EQ(status, 0u);
        EXPECT_EQ(bytes(buf.begin(), buf.begin() + r.sent), pattern(r.sent, 1));
        EXPECT_EQ(bytes(buf.begin() + r.sent, buf.end()), bytes(buf.size() - r.sent, 0xA5));
        if (*r.trace)
            EXPECT_NE(out.find(r.trace), std::string::npos) << out;
        else
            EXPECT_EQ(out.find("resizing"), std::string::npos) << out;
    }
}

TEST_F(SdNvram, FailedRequestsBecomeStatuses) {
    const int finch = handle(port(FINCH));
    const int lark = handle(port(LARK, 1));
    const struct {
        uint32_t ext_stat;
        int32_t rc;
        int err;
        uint32_t status;
    } rows[] = {
        {EXT_STATUS_BUSY, 0, 0, SDM_STATUS_DEVICE_BUSY},
        {EXT_STATUS_DEV_NOT_FOUND, 1, 0, SDM_STATUS_DEVICE_NOT_FOUND},
        {EXT_STATUS_INVALID_REQUEST, 0, 0, SDM_STATUS_NOT_SUPPORTED},
        {EXT_STATUS_OK, -1, EIO, EIO},
        {EXT_STATUS_OK, 1, 0, SDM_STATUS_UNKNOWN_ERROR},
    };
    bytes buf(512);
    for (const auto& r : rows) {
        mock.expect(slot::get_nvram).status(r.ext_stat).fails(r.rc, r.err);
        EXPECT_EQ(SDGetNVRam(finch, 0, 0, buf.data(), 256), r.status) << r.ext_stat << " " << r.rc;
        mock.expect(slot::read_optrom).with_arg(0x17).status(r.ext_stat).fails(r.rc, r.err);
        EXPECT_EQ(SDGetNVRam(lark, 0, 0, buf.data(), 512), r.status) << r.ext_stat << " " << r.rc;
    }
    // Refused before any request.
    EXPECT_EQ(SDGetNVRam(lark + 10, 0, 0, buf.data(), 512), SDM_STATUS_INVALID_HANDLE);
    EXPECT_EQ(SDGetNVRam(finch, 0, 0, nullptr, 256), SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SDGetNVRam(finch, 0, 0, buf.data(), 0), SDM_STATUS_INVALID_PARAMETER);
    // A layout-table board whose table was never read has no region to read.
    vxapi_priv_database* bare = port(WREN);
    free(bare->phy_info->pflt_layout);
    bare->phy_info->pflt_layout = nullptr;
    EXPECT_EQ(SDGetNVRam(handle(bare), 0, 0, buf.data(), 512), SDM_STATUS_UNKNOWN_ERROR);
}

TEST_F(SdNvram, UpdatesWriteWholeImagesAndReloadTheSettings) {
    vxapi_priv_database* first = port(LARK, 0);
    vxapi_priv_database* second = port(LARK, 1);
    const int h = handle(second);
    uint16_t reload = 0;
    ASSERT_EQ(vxapi_reset_code(LARK, 0x17, &reload), vxapi_reset_action::send);

    // The driver's families: the caller's image as it stands.
    const int finch = handle(port(FINCH));
    bytes image = pattern(300, 3);
    mock.expect(slot::set_nvram).with_size(256);
    ASSERT_EQ(SDUpdateNVRam(finch, 0, 0, image.data(), 300), 0u);
    EXPECT_EQ(mock.written(), bytes(image.begin(), image.begin() + 256));

    // A layout-table board: the checksum goes into the image, the region is
    // the port's, and both ports reload their settings.
    image = pattern(512, 9);
    mock.expect(slot::update_optrom).with_arg(0x17).with_offset(0).with_size(512);
    mock.expect(slot::activate_region).with_arg(reload);
    mock.expect(slot::activate_region).with_arg(reload);
    ASSERT_EQ(SDUpdateNVRam(h, 0, 0, image.data(), 512), 0u);
    EXPECT_EQ(vxapi_nvram_verify_checksum(mock.written().data(), 512, true), 0);
    EXPECT_EQ(mock.written(), image) << "the caller's image carries the checksum written";
    EXPECT_EQ(VXSDNVR_GetVariableValue_swift(reinterpret_cast<nvram_swift*>(image.data()), NVRAMVarFramePayloadSize),
              VXSDNVR_GetVariableValue_swift(reinterpret_cast<const nvram_swift*>(pattern(512, 9).data()),
                                             NVRAMVarFramePayloadSize))
        << "settings untouched";

    // Kept from reloading: traced, nothing activated.
    mock.expect(slot::update_optrom).with_arg(0x15);
    vx_debug = VXDBG_ERROR | VXDBG_SDAPI | VXDBG_TRACE;
    uint32_t status = 1;
    const std::string out = capture_stderr([&] { status = SDUpdateNVRam(handle(first), 1, 0, image.data(), 512); });
    EXPECT_EQ(status, 0u);
    EXPECT_NE(out.find("SDUpdateNVRam: Reset disabled by App for NVRAM ret=0"), std::string::npos) << out;

    // A failed write activates nothing; a failed activation is the status.
    mock.expect(slot::update_optrom).status(EXT_STATUS_BUSY);
    EXPECT_EQ(SDUpdateNVRam(h, 0, 0, image.data(), 512), SDM_STATUS_DEVICE_BUSY);
    mock.expect(slot::update_optrom);
    mock.expect(slot::activate_region).status(EXT_STATUS_ERR);
    EXPECT_EQ(SDUpdateNVRam(h, 0, 0, image.data(), 512), SDM_STATUS_REGION_RESET_FAILED);

    // Families without a region reset write and stop.
    mock.expect(slot::update_optrom).with_arg(0x15);
    EXPECT_EQ(SDUpdateNVRam(handle(port(KITE, 0)), 0, 0, image.data(), 512), 0u);
}

TEST_F(SdNvram, UpdatesRefusedBeforeAnyRequest) {
    vxapi_priv_database* lark = port(LARK);
    const int finch = handle(port(FINCH));
    bytes image(512, 0);
    const struct {
        int handle;
        uint8_t* buf;
        uint32_t size;
        uint32_t status;
    } rows[] = {
        {handle(reg.vport(lark)), image.data(), 512, SDM_STATUS_NOT_SUPPORTED},
        {99, image.data(), 512, SDM_STATUS_INVALID_HANDLE},
        {finch, nullptr, 256, SDM_STATUS_INVALID_PARAMETER},
        {finch, image.data(), 255, SDM_STATUS_INVALID_PARAMETER},  // a part image
        {handle(lark), image.data(), 508, SDM_STATUS_INVALID_PARAMETER},
        {handle(lark), image.data(), 0, SDM_STATUS_INVALID_PARAMETER},
    };
    for (const auto& r : rows)
        EXPECT_EQ(SDUpdateNVRam(r.handle, 0, 0, r.buf, r.size), r.status) << r.handle << " " << r.size;
    EXPECT_EQ(image, bytes(512, 0)) << "no checksum stored into a refused image";
}

// ---- VPD ----

TEST_F(SdNvram, VpdReadsNeedTheWholeVpd) {
    const struct {
        uint16_t device_id;
        uint32_t need;
    } rows[] = {{FINCH, 512}, {SWIFT, 512}, {LARK, 512}, {WREN, 1024}, {IBIS, 1024}, {TERN, 1024}};
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message() << std::hex << r.device_id);
        const int h = handle(port(r.device_id));
        bytes buf(r.need + 8, 0xA5);
        uint32_t size = r.need - 1;
        EXPECT_EQ(SDGetVpd(h, 0, buf.data(), &size), SDM_STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(size, r.need) << "the caller learns the size";

        size = r.need + 8;
        mock.expect(slot::get_vpd).with_size(r.need).answer_bytes(pattern(r.need, 5));
        ASSERT_EQ(SDGetVpd(h, 0, buf.data(), &size), 0u);
        EXPECT_EQ(size, r.need);
        EXPECT_EQ(bytes(buf.begin(), buf.begin() + r.need), pattern(r.need, 5));
        EXPECT_EQ(bytes(buf.begin() + r.need, buf.end()), bytes(8, 0xA5));

        // A failed read leaves the caller's buffer as it was.
        const bytes before = buf;
        mock.expect(slot::get_vpd).answer_bytes(pattern(r.need, 6)).status(EXT_STATUS_ERR);
        EXPECT_EQ(SDGetVpd(h, 0, buf.data(), &size), SDM_STATUS_UNKNOWN_ERROR);
        EXPECT_EQ(buf, before);
    }
    uint32_t size = 512;
    EXPECT_EQ(SDGetVpd(handle(port(SWIFT)), 0, nullptr, &size), SDM_STATUS_INVALID_PARAMETER);
    bytes buf(512);
    EXPECT_EQ(SDGetVpd(handle(port(SWIFT)), 0, buf.data(), nullptr), SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SDGetVpd(77, 0, buf.data(), &size), SDM_STATUS_INVALID_HANDLE);
}

TEST_F(SdNvram, VpdUpdatesOnlyWhereTheDriverTakesThem) {
    vxapi_priv_database* swift = port(SWIFT);
    bytes vpd = pattern(600, 2);
    uint32_t size = 600;
    mock.expect(slot::set_vpd).with_size(512);
    ASSERT_EQ(SDUpdateVpd(handle(swift), 0, vpd.data(), &size), 0u);
    EXPECT_EQ(mock.written(), bytes(vpd.begin(), vpd.begin() + 512));
    size = 100;
    mock.expect(slot::set_vpd).with_size(100).status(EXT_STATUS_BUSY);
    EXPECT_EQ(SDUpdateVpd(handle(swift), 0, vpd.data(), &size), SDM_STATUS_DEVICE_BUSY);

    size = 512;
    uint32_t empty = 0;
    EXPECT_EQ(SDUpdateVpd(handle(port(LARK)), 0, vpd.data(), &size), SDM_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(SDUpdateVpd(handle(reg.vport(swift)), 0, vpd.data(), &size), SDM_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(SDUpdateVpd(handle(swift), 0, nullptr, &size), SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SDUpdateVpd(handle(swift), 0, vpd.data(), nullptr), SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SDUpdateVpd(handle(swift), 0, vpd.data(), &empty), SDM_STATUS_INVALID_PARAMETER);
}

TEST_F(SdNvram, SavedVpdReachesBothPortsOfThePair) {
    const bytes vpd = pattern(512, 4);
    bytes buf = vpd;

    // The driver's families: this port, then the other of its pair.
    vxapi_priv_database* s1 = port(SWIFT, 1);
    port(SWIFT, 0);
    mock.expect(slot::set_vpd).with_size(512);
    mock.expect(slot::set_vpd).with_size(512);
    EXPECT_EQ(SDSwiftSaveVpd(handle(s1), buf.data(), 2048), 0u);
    EXPECT_EQ(mock.written(), vpd);

    // A board of one port writes once; a failed first write stops there.
    const int single = handle(port(0x1052));
    mock.expect(slot::set_vpd);
    EXPECT_EQ(SDSwiftSaveVpd(single, buf.data(), 512), 0u);
    mock.expect(slot::set_vpd).status(EXT_STATUS_BUSY);
    EXPECT_EQ(SDSwiftSaveVpd(handle(s1), buf.data(), 512), SDM_STATUS_DEVICE_BUSY);

    // The other port's node cannot be opened.
    vxapi_priv_database* a = port(0x1051, 0, IOCTL_PORT);
    vxapi_priv_database* b = port(0x1051, 1, IOCTL_PORT);
    b->open_cnt = 0;
    snprintf(reinterpret_cast<char*>(b->phys_path), sizeof b->phys_path, "/nonexistent/vxfcdrv");
    mock.expect(slot::set_vpd);
    EXPECT_EQ(SDSwiftSaveVpd(handle(a), buf.data(), 512), SDM_STATUS_REGION_RESET_FAILED);

    EXPECT_EQ(SDSwiftSaveVpd(handle(reg.vport(s1)), buf.data(), 512), SDM_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(SDSwiftSaveVpd(handle(s1), nullptr, 512), SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(buf, vpd) << "the caller's VPD is never changed";
}

}  // namespace
