// The SD layer over an in-process channel: status rules and the conversions
// that depend on what the driver answered. (Bad handles and missing records
// are checked end to end.)
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "mock_channel.h"
#include "vsdmgt.h"

namespace {

using vxmock::slot;

constexpr uint32_t IOCTL_PORT = VX_FEAT_IOCTL_NODE | VX_FEAT_NEW_IOCTL;
constexpr uint16_t FC_BOARD = 0x1051;   // Swift: no flash steps in the node call
constexpr uint16_t CNA_BOARD = 0x2070;  // converged, MPI/PEP versions

// The table follows the features whenever they are set again: sysfs wins,
// then the record generation.
TEST(Channel, FeaturesChooseTheTable) {
    const struct {
        uint32_t features;
        const vxapi_channel_ops* table;
    } rows[] = {
        {VX_FEAT_SYSFS | VX_FEAT_BSG, &vxapi_sysfs_channel},
        {VX_FEAT_SYSFS | VX_FEAT_NEW_IOCTL, &vxapi_sysfs_channel},
        {VX_FEAT_IOCTL_NODE | VX_FEAT_NEW_IOCTL | VX_FEAT_DRV_CAP4, &vxapi_ioctl_channel},
        {VX_FEAT_IOCTL_NODE | VX_FEAT_PROPS_READ, &vxapi_ioctl_o_channel},
        {0, &vxapi_ioctl_o_channel},
    };
    vxapi_priv_database rec{};
    for (const auto& r : rows) {
        rec.features = r.features;
        vxapi_set_channel(&rec);
        EXPECT_EQ(rec.channel, r.table) << std::hex << r.features;
    }
    // A record without a table is refused by every leaf, with status 9.
    rec.channel = nullptr;
    EXT_HBA_NODE node{};
    uint32_t stat = 0;
    EXPECT_EQ(vxapi_query_hbanode(-1, &rec, &node, &stat), 1);
    EXPECT_EQ(stat, EXT_STATUS_DEV_NOT_FOUND);
}

class SdLayer : public testing::Test {
protected:
    vxmock::registry reg;
    vxmock::channel mock;
    vxapi_priv_database* port = nullptr;
    int h = 0;

    void SetUp() override {
        port = reg.port(IOCTL_PORT, FC_BOARD);
        ASSERT_NE(port, nullptr);
        mock.install(port);
        h = vxmock::registry::handle(port);
    }
};

// What the driver answers and what the call makes of it.
struct answer_row {
    uint32_t ext_stat;
    int32_t rc;
    int err;
    uint32_t status;
    bool filled;
};

// Node and port: overrun and underrun still fill the record.
TEST_F(SdLayer, NodeAndPortDeliverTheRecordOnOverrunAndUnderrun) {
    const answer_row rows[] = {
        {EXT_STATUS_OK, 0, 0, 0, true},
        {EXT_STATUS_DATA_OVERRUN, 0, 0, SDM_STATUS_DATA_OVERRUN, true},
        {EXT_STATUS_DATA_UNDERRUN, 0, 0, SDM_STATUS_DATA_UNDERRUN, true},
        {EXT_STATUS_BUSY, 0, 0, SDM_STATUS_DEVICE_BUSY, false},
        {33, 0, 0, 0x20000110, false},  // translated, though it has no text
        {EXT_STATUS_OK, -1, EIO, EIO, false},
        {EXT_STATUS_OK, -1, 0, SDM_STATUS_UNKNOWN_ERROR, false},  // failed without errno
        {EXT_STATUS_OK, 1, 0, SDM_STATUS_UNKNOWN_ERROR, false},   // not framed
    };
    for (const auto& r : rows) {
        EXT_HBA_NODE node{};
        node.WWNN[0] = 0x20;
        node.InterfaceType = VX_IFTYPE_PHYSICAL;
        mock.expect(slot::query_hbanode).answer(node).status(r.ext_stat).fails(r.rc, r.err);
        DEVICENODEPROPERTY np;
        memset(&np, 0xEE, sizeof np);
        EXPECT_EQ(SDGetHbaDeviceNodeProperty(h, &np), r.status) << r.ext_stat << "/" << r.rc;
        EXPECT_EQ(np.WWN[0], r.filled ? 0x20 : 0xEE) << r.ext_stat << "/" << r.rc;

        EXT_HBA_PORT hp{};
        hp.Id[1] = 0x01;
        hp.Id[3] = 0x03;
        mock.expect(slot::query_hbaport).answer(hp).status(r.ext_stat).fails(r.rc, r.err);
        DEVICEPORTPROPERTY pp;
        memset(&pp, 0xEE, sizeof pp);
        EXPECT_EQ(SDGetHbaDevicePortProperty(h, 0, &pp), r.status) << r.ext_stat << "/" << r.rc;
        EXPECT_EQ(pp.PortID[0], r.filled ? 0x01 : 0xEE);
        EXPECT_EQ(pp.PortID[2], r.filled ? 0x03 : 0xEE);
    }
}

// Chip, driver and firmware convert only a clean answer.
TEST_F(SdLayer, ChipDriverAndFirmwareNeedACleanAnswer) {
    const answer_row rows[] = {
        {EXT_STATUS_OK, 0, 0, 0, true},
        {EXT_STATUS_DATA_OVERRUN, 0, 0, SDM_STATUS_DATA_OVERRUN, false},
        {EXT_STATUS_DATA_UNDERRUN, 0, 0, SDM_STATUS_DATA_UNDERRUN, false},
        {EXT_STATUS_OK, -1, ENODEV, ENODEV, false},
        {EXT_STATUS_OK, 1, 0, SDM_STATUS_UNKNOWN_ERROR, false},
    };
    for (const auto& r : rows) {
        EXT_CHIP chip{};
        chip.DeviceId = FC_BOARD;
        mock.expect(slot::query_chip).answer(chip).status(r.ext_stat).fails(r.rc, r.err);
        CHIPPROPERTY cp;
        memset(&cp, 0xEE, sizeof cp);
        EXPECT_EQ(SDGetHbaDeviceChipProperty(h, &cp), r.status) << r.ext_stat << "/" << r.rc;
        EXPECT_EQ(cp.DeviceID, r.filled ? FC_BOARD : 0xEEEE);

        EXT_DRIVER drv{};
        drv.LunsPerTarget = 4096;
        mock.expect(slot::query_driver).answer(drv).status(r.ext_stat).fails(r.rc, r.err);
        DRIVERPROPERTY dp;
        memset(&dp, 0xEE, sizeof dp);
        EXPECT_EQ(SDGetHbaDeviceDriverProperty(h, &dp), r.status);
        EXPECT_EQ(dp.LunsPerTarget, r.filled ? 4096 : 0xEEEE);

        EXT_FW fw{};
        fw.Version[0] = 9;
        mock.expect(slot::query_fw).answer(fw).status(r.ext_stat).fails(r.rc, r.err);
        FIRMWAREPROPERTY fp;
        memset(&fp, 0xEE, sizeof fp);
        EXPECT_EQ(SDGetHbaDeviceFirmwareProperty(h, &fp), r.status);
        EXPECT_EQ(fp.Version[0], r.filled ? 9 : 0xEE);
    }
}

TEST_F(SdLayer, DiscoveredPortAndTargetConversions) {
    EXT_DISC_PORT dp{};
    dp.Type = 3;  // not a type the call maps: the caller's byte stays
    dp.Status = 0x0106;
    dp.TargetId = 300;
    mock.expect(slot::query_discport).with_arg(3).answer(dp);
    DISCPORTPROPERTY p;
    memset(&p, 0xEE, sizeof p);
    ASSERT_EQ(SDGetDiscPortProperty(h, 0, 0x10003, 0, &p), 0u);  // the index is 16 bits wide
    EXPECT_EQ(p.PortType, 0xEE);
    EXPECT_EQ(p.PortState, 0x06);
    EXPECT_EQ(p.TargetID, 300);
    EXPECT_EQ(p.Local, 0xEE);

    EXT_DISC_TARGET tgt{};
    tgt.Type = 3;  // copied raw here
    tgt.Status = 0x3;
    mock.expect(slot::query_disctgt).with_arg(5).answer(tgt);
    DISCTARGETPROPERTY t;
    memset(&t, 0xEE, sizeof t);
    ASSERT_EQ(SDGetDiscTargetProperty(h, 0, 5, 0, &t), 0u);
    EXPECT_EQ(t.PortType, 3);

    tgt.Status = 0x1;  // gone: nothing copied
    mock.expect(slot::query_disctgt).with_arg(6).answer(tgt);
    memset(&t, 0xEE, sizeof t);
    EXPECT_EQ(SDGetDiscTargetProperty(h, 0, 6, 0, &t), SDM_STATUS_DEVICE_NOT_FOUND);
    EXPECT_EQ(t.PortType, 0xEE);
}

// The driver sees only the mask bits it knows; a failure's detail status is
// translated with it (the property calls pass none).
TEST_F(SdLayer, PortDatabaseMaskAndDetailStatus) {
    mock.expect(slot::get_port_summary).with_arg(0x1001).status(EXT_STATUS_SCSI_STATUS, 0x18);
    std::vector<uint8_t> buf(300, 0xEE);
    EXPECT_EQ(SDGetPortDatabase(h, 0x1021, reinterpret_cast<DEVICEINFO*>(buf.data()), 300),
              SDM_STATUS_SCSI_RESERVATION_CONFLICT);
    EXPECT_EQ(buf, std::vector<uint8_t>(300, 0xEE));
}

// The LUN list: target ids past the entry's byte are refused without a
// request; LUNs past the map make the answer incomplete, and say so.
TEST_F(SdLayer, TargetLunListRefusesWhatTheListCannotName) {
    SD_UINT16 luns[8];
    SD_UINT32 count = 8;
    EXPECT_EQ(SDGetTargetLunList(h, 300, luns, &count), SDM_STATUS_NOT_SUPPORTED);

    const size_t map = TGT_LUN_MAP_SMALL;  // the port has no large-map capability
    std::vector<uint8_t> list(TGT_LUN_DATA_LIST_HEADER + 2 * (TGT_LUN_DATA_ENTRY_HEADER + map), 0);
    const uint16_t two = 2;
    memcpy(list.data() + 2, &two, 2);
    auto entry = [&](size_t i) { return list.data() + TGT_LUN_DATA_LIST_HEADER + i * (TGT_LUN_DATA_ENTRY_HEADER + map); };
    entry(0)[19] = 44;  // another target
    entry(0)[TGT_LUN_DATA_ENTRY_HEADER + 9] = EXT_DEF_LUN_PRESENT;
    entry(1)[19] = 45;
    const uint16_t lun_count = 3;  // LUNs 1, 2047 and one past the map
    memcpy(entry(1) + 16, &lun_count, 2);
    entry(1)[TGT_LUN_DATA_ENTRY_HEADER + 1] = EXT_DEF_LUN_PRESENT;
    entry(1)[TGT_LUN_DATA_ENTRY_HEADER + 2047] = EXT_DEF_LUN_PRESENT;
    mock.expect(slot::get_tgt_lun_data_list).answer_bytes(list);
    count = 8;
    EXPECT_EQ(SDGetTargetLunList(h, 45, luns, &count), SDM_STATUS_DATA_OVERRUN);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(luns[0], 1);
    EXPECT_EQ(luns[1], 2047);
}

// DCBX parameters: at most the work buffer, written back as the size.
TEST_F(SdLayer, DcbxParametersOfAConvergedPort) {
    vxapi_priv_database* cna = reg.port(IOCTL_PORT, CNA_BOARD, 2);
    mock.install(cna);
    const int c = vxmock::registry::handle(cna);
    EXT_DCBX_PARAM dcbx{};
    dcbx.Version = EXT_DCBX_VERSION;
    dcbx.FcoePriority = 3;
    const struct {
        uint32_t size, size_after;
    } rows[] = {{64, 64}, {100, 100}, {5000, 4096}};
    for (const auto& r : rows) {
        mock.expect(slot::get_dcbx_param).with_size(4096).answer(dcbx);
        std::vector<uint8_t> buf(r.size, 0xEE);
        SD_UINT32 size = r.size;
        ASSERT_EQ(SDGetCnaPortData(c, 0, SDM_CNA_DCBX_PARAMS, buf.data(), &size), 0u) << r.size;
        EXPECT_EQ(size, r.size_after);
        EXPECT_EQ(buf[offsetof(EXT_DCBX_PARAM, FcoePriority)], 3);
        EXPECT_EQ(buf[r.size_after - 1], 0) << "the zeroed work buffer, not the caller's bytes";
    }
    // A driver without the request: not supported.
    mock.expect(slot::get_dcbx_param).status(EXT_STATUS_INVALID_REQUEST);
    SD_UINT32 size = 64;
    std::vector<uint8_t> buf(64, 0xEE);
    EXPECT_EQ(SDGetCnaPortData(c, 0, SDM_CNA_DCBX_PARAMS, buf.data(), &size), SDM_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(buf[0], 0xEE);
}

// A converged board of the layout-table families without its layout fails
// the node call after the fields it had written, with the SD layer's code.
TEST_F(SdLayer, NodeOfABoardWithoutItsLayout) {
    vxapi_priv_database* cna = reg.port(IOCTL_PORT, CNA_BOARD, 2);
    mock.install(cna);
    EXT_HBA_NODE node{};
    node.WWNN[0] = 0x20;
    node.BIMpiFwVersion[0] = 7;
    mock.expect(slot::query_hbanode).answer(node);
    DEVICENODEPROPERTY np;
    memset(&np, 0xEE, sizeof np);
    EXPECT_EQ(SDGetHbaDeviceNodeProperty(vxmock::registry::handle(cna), &np), SDM_STATUS_UNKNOWN_ERROR);
    EXPECT_EQ(np.WWN[0], 0x20);
    EXPECT_EQ(np.MpiFwVersion[0], 7);
}

}  // namespace
