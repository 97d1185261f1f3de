// Pure pieces of the queries: LUN addresses, AL_PA table, PCIe speeds; device names
// and WWPN look-ups over fake trees; converged-port sizes settled before any request.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "test_core_sysfs_tree.h"
#include "vsdmgt.h"
#include "vx_channel.h"
#include "vx_core.h"
#include "vx_sysfs.h"

namespace {

// The bounds of each method (usual LUNs are decoded end to end).
TEST(LunAddress, AddressMethodInTheTopTwoBits) {
    const struct {
        uint8_t b0, b1;
        uint32_t lun;
    } rows[] = {
        {0x3F, 0x07, 7}, {0x41, 0x05, 261}, {0x7F, 0xFF, 0x3FFF},  // peripheral (bus bits ignored), flat
        {0x80, 0x25, 5},          {0xBF, 0xFF, 0x1F},        // logical unit
        {0xC0, 0x00, 0xFFFFFFFF}, {0xD2, 0x34, 0xFFFFFFFF},  // extended: none
    };
    for (const auto& r : rows) {
        const uint8_t lun[8] = {r.b0, r.b1, 0xEE, 0xEE};
        EXPECT_EQ(vxapi_get_lun_addr(lun), r.lun) << std::hex << int(r.b0) << " " << int(r.b1);
    }
}

TEST(LunAddress, AlpaTableRunsFromEFDownToZero) {
    EXPECT_EQ(alpa_table[0], 0xEF);
    EXPECT_EQ(alpa_table[126], 0x00);
    for (size_t i = 1; i < 127; ++i)  // no value twice
        EXPECT_LT(alpa_table[i], alpa_table[i - 1]) << i;
}

TEST(PcieLink, SpeedCodesOfTheLinkRegister) {
    const std::pair<const char*, uint32_t> rows[] = {
        {"2.5 GT/s PCIe", 1}, {"5.0 GT/s PCIe", 2}, {"5 GT/s", 2}, {"8.0 GT/s PCIe", 3}, {"16.0 GT/s PCIe", 4},
        {"32.0 GT/s PCIe", 5}, {"Unknown", 0},     {"", 0},        {"64.0 GT/s PCIe", 0}, {nullptr, 0},
    };
    for (const auto& [text, code] : rows)
        EXPECT_EQ(vxsysfs_pcie_speed_code(text), code) << (text ? text : "null");
}

class QueryTree : public testing::Test {
protected:
    sysfs_tree tree;
    mnt_path_override mnt{tree.root()};

    void lun(const std::string& name, const char* kind, const char* node) {
        tree.dir("bus/scsi/devices/" + name + "/" + kind + "/" + node);
    }
    void rport(const std::string& name, const std::string& wwpn, int target) {
        const uint32_t host = static_cast<uint32_t>(std::stoul(name.substr(6)));
        tree.rport(host, name, {{"port_name", wwpn}, {"scsi_target_id", std::to_string(target)}});
    }
};

TEST_F(QueryTree, DeviceNameOfADiskOrItsGenericNode) {
    lun("3:0:1:2", "block", "sdc");
    lun("3:0:1:2", "scsi_generic", "sg4");
    lun("3:0:2:0", "scsi_generic", "sg5");  // a tape: no block device
    char name[16];
    ASSERT_EQ(vxsysfs_get_devname(3, 0, 1, 2, name, sizeof name), 0);
    EXPECT_STREQ(name, "sdc");
    ASSERT_EQ(vxsysfs_get_devname(3, 0, 2, 0, name, sizeof name), 0);
    EXPECT_STREQ(name, "sg5");
    EXPECT_EQ(vxsysfs_get_devname(3, 0, 9, 0, name, sizeof name), 1);
    EXPECT_STREQ(name, "");
    // A name that does not fit is not cut.
    EXPECT_EQ(vxsysfs_get_devname(3, 0, 1, 2, name, 3), 1);
}

TEST_F(QueryTree, WwpnToScsiAddressOfThisHostsPort) {
    rport("rport-3:0-0", "0x5000000000000010", 4);
    rport("rport-3:2-1", "0x5000000000000110", 7);
    rport("rport-13:0-0", "0x5000000000000210", 1);  // another host
    vxapi_priv_database inst{};
    inst.host_no = 3;
    inst.features = VX_FEAT_SYSFS;
    vxapi_set_channel(&inst);
    const struct {
        uint8_t last;  // of the WWPN 50:00:00:00:00:00:0x:10
        uint32_t size;
        int rc;
        uint32_t status;
        uint16_t bus, target, lun;
    } rows[] = {{0x00, 8, 0, 0, 0, 4, 0}, {0x01, 8, 0, 0, 2, 7, 0}, {0x02, 8, 0, 9, 0xEEEE, 0xEEEE, 0xEEEE},
                {0x00, 4, 1, 6, 0xEEEE, 0xEEEE, 0xEEEE}};  // not a whole WWPN
    for (const auto& r : rows) {
        const uint8_t wwpn[8] = {0x50, 0, 0, 0, 0, 0, r.last, 0x10};
        EXT_SCSI_ADDR addr;
        memset(&addr, 0xEE, sizeof addr);
        uint32_t stat = 0;
        EXPECT_EQ(vxapi_wwpn_to_scsiaddr(-1, &inst, wwpn, r.size, &addr, &stat), r.rc);
        EXPECT_EQ(stat, r.status) << int(r.last) << "/" << r.size;
        EXPECT_EQ((std::vector<uint16_t>{addr.Bus, addr.Target, addr.Lun}), (std::vector<uint16_t>{r.bus, r.target, r.lun}));
    }
}

// A converged port record, open under handle 1.
class ConvergedSizes : public testing::Test {
protected:
    void SetUp() override {
        uint32_t err = 0;
        ASSERT_EQ(vxapi_alloc_api_priv_data_mem(&err), 0);
        ASSERT_EQ(vxapi_alloc_api_phy_info_mem(&err), 0);
        current_priv_inst->phy_info = current_phy_info_inst;
        current_priv_inst->features = VX_FEAT_SYSFS;
        current_priv_inst->apihandle = 1;
        current_phy_info_inst->device_id = 0x2070;
        current_phy_info_inst->fcoe_valid = 0x8000'0005;  // three components
    }
    void TearDown() override {
        vxapi_free_api_priv_data_mem();
        vxapi_free_api_phy_info_mem();
    }
};

// Three FCoE components need 3 * 24 + 8 bytes (other sizes are checked end to end).
TEST_F(ConvergedSizes, NeededSizesAreReportedBack) {
    const struct {
        uint32_t op, size, size_after;
    } rows[] = {{SDM_CNA_FCOE_VERSIONS, 79, 80}, {SDM_CNA_FCOE_VERSIONS, 0, 80}, {SDM_CNA_DCBX_PARAMS, 63, 64}};
    for (const auto& r : rows) {
        std::vector<uint8_t> buf(256, 0xEE);
        SD_UINT32 size = r.size;
        EXPECT_EQ(SDGetCnaPortData(1, 0, r.op, buf.data(), &size), SDM_STATUS_BUFFER_TOO_SMALL) << r.op << "/" << r.size;
        EXPECT_EQ(size, r.size_after) << r.op << "/" << r.size;
        EXPECT_EQ(buf, std::vector<uint8_t>(256, 0xEE));
    }
    // Enough room: every byte of the caller's size is written, no more.
    std::vector<uint8_t> buf(96, 0xEE);
    SD_UINT32 size = 90;
    ASSERT_EQ(SDGetCnaPortData(1, 0, SDM_CNA_FCOE_VERSIONS, buf.data(), &size), 0u);
    EXPECT_EQ(size, 90u);
    EXPECT_EQ(std::vector<uint8_t>(buf.begin() + 90, buf.end()), std::vector<uint8_t>(6, 0xEE));
}

TEST_F(ConvergedSizes, OtherBoardsAreRefused) {
    current_phy_info_inst->device_id = 0x2031;
    CNAPORTPROPERTY c;
    memset(&c, 0xEE, sizeof c);
    SD_UINT32 size = sizeof c;
    EXPECT_EQ(SDGetCnaPortData(1, 0, SDM_CNA_PORT_DATA, reinterpret_cast<SD_UINT8*>(&c), &size),
              SDM_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(c.VLanId, 0xEEEE);
}

}  // namespace
