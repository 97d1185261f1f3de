// Pure pieces of the queries: LUN addresses, the AL_PA table, serial-number
// bytes, PCIe speed codes; device names and WWPN look-ups over fake sysfs
// trees; the converged-port size rules that are settled before any request.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "test_core_sysfs_tree.h"
#include "vsdmgt.h"
#include "vx_core.h"
#include "vx_sysfs.h"

namespace {

TEST(LunAddress, AddressMethodInTheTopTwoBits) {
    struct Row {
        uint8_t b0, b1;
        uint32_t lun;
    };
    for (const Row& r : {Row{0x00, 0x07, 7}, Row{0x3F, 0x07, 7},  // peripheral: bus bits ignored
                         Row{0x40, 0x05, 5}, Row{0x41, 0x05, 261}, Row{0x7F, 0xFF, 0x3FFF},  // flat space
                         Row{0x80, 0x25, 5}, Row{0xBF, 0xFF, 0x1F},  // logical unit
                         Row{0xC0, 0x00, 0xFFFFFFFF}, Row{0xD2, 0x34, 0xFFFFFFFF}}) {  // extended
        const uint8_t lun[8] = {r.b0, r.b1, 0xEE, 0xEE};
        EXPECT_EQ(vxapi_get_lun_addr(lun), r.lun) << std::hex << int(r.b0) << " " << int(r.b1);
    }
}

TEST(LunAddress, AlpaTableRunsFromEFDownToZero) {
    EXPECT_EQ(alpa_table[0], 0xEF);
    EXPECT_EQ(alpa_table[126], 0x00);
    // Loop ids count down the arbitrated-loop addresses: no value twice.
    for (size_t i = 1; i < 127; ++i)
        EXPECT_LT(alpa_table[i], alpa_table[i - 1]) << i;
}

TEST(SerialBytes, InverseOfTheComputedSerialText) {
    for (const char* text : {"A00000", "A00001", "B12345", "K65535", "K65536", "U97151", "Z99999"}) {
        uint8_t serial[4];
        memset(serial, 0xEE, sizeof serial);
        vxsysfs_serial_to_bytes(text, serial);
        EXPECT_EQ(serial[3], 0) << text;
        char back[16] = {};
        vxapi_calc_serialnum(serial, 0x3F, back, sizeof back);
        EXPECT_STREQ(back, text);
    }
}

TEST(SerialBytes, OtherTextsGiveZeros) {
    for (const char* text : {"", "VXE10400117", "A1234", "A123456", "a12345", "A1234Z", "112345", "A 2345"}) {
        uint8_t serial[4];
        memset(serial, 0xEE, sizeof serial);
        vxsysfs_serial_to_bytes(text, serial);
        EXPECT_EQ(std::vector<uint8_t>(serial, serial + 4), std::vector<uint8_t>(4, 0)) << text;
    }
}

TEST(PcieLink, SpeedCodesOfTheLinkRegister) {
    struct Row {
        const char* text;
        uint32_t code;
    };
    for (const Row& r : {Row{"2.5 GT/s PCIe", 1}, Row{"5.0 GT/s PCIe", 2}, Row{"5 GT/s", 2}, Row{"8.0 GT/s PCIe", 3},
                         Row{"16.0 GT/s PCIe", 4}, Row{"32.0 GT/s PCIe", 5}, Row{"Unknown", 0}, Row{"", 0},
                         Row{"64.0 GT/s PCIe", 0}}) {
        EXPECT_EQ(vxsysfs_pcie_speed_code(r.text), r.code) << r.text;
    }
    EXPECT_EQ(vxsysfs_pcie_speed_code(nullptr), 0u);
}

class QueryTree : public testing::Test {
protected:
    sysfs_tree tree;
    mnt_path_override mnt{tree.root()};

    void lun(const std::string& name, const char* kind, const char* node) {
        tree.dir("bus/scsi/devices/" + name + "/" + kind + "/" + node);
    }
    void rport(const std::string& name, const std::string& wwpn, int target) {
        const std::string c = "class/fc_remote_ports/" + name + "/";
        tree.file(c + "port_name", wwpn + "\n");
        tree.file(c + "scsi_target_id", std::to_string(target) + "\n");
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
    struct Row {
        uint64_t wwpn;
        uint32_t status;
        uint16_t bus, target;
    };
    for (const Row& r : {Row{0x5000000000000010, 0, 0, 4}, Row{0x5000000000000110, 0, 2, 7},
                         Row{0x5000000000000210, 9, 0xEEEE, 0xEEEE}}) {
        uint8_t wwpn[8];
        for (int i = 0; i < 8; ++i)
            wwpn[i] = static_cast<uint8_t>(r.wwpn >> (56 - 8 * i));
        EXT_SCSI_ADDR addr;
        memset(&addr, 0xEE, sizeof addr);
        uint32_t stat = 0;
        EXPECT_EQ(vxapi_wwpn_to_scsiaddr(-1, &inst, wwpn, sizeof wwpn, &addr, &stat), 0);
        EXPECT_EQ(stat, r.status) << std::hex << r.wwpn;
        EXPECT_EQ(addr.Bus, r.bus);
        EXPECT_EQ(addr.Target, r.target);
        EXPECT_EQ(addr.Lun, r.status == 0 ? 0 : 0xEEEE);
    }
    uint8_t wwpn[8] = {};
    EXT_SCSI_ADDR addr{};
    uint32_t stat = 0;
    EXPECT_EQ(vxapi_wwpn_to_scsiaddr(-1, &inst, wwpn, 4, &addr, &stat), 1);  // not a whole WWPN
    EXPECT_EQ(stat, 6u);
}

// A converged port record, open under handle 1; the calls below are
// decided before any request reaches the driver.
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

TEST_F(ConvergedSizes, NeededSizesAreReportedBack) {
    struct Row {
        uint32_t op, size, status, size_after;
    };
    for (const Row& r : {Row{SDM_CNA_FCOE_VERSIONS, 79, SDM_STATUS_BUFFER_TOO_SMALL, 80},
                         Row{SDM_CNA_FCOE_VERSIONS, 0, SDM_STATUS_BUFFER_TOO_SMALL, 80},
                         Row{SDM_CNA_DCBX_PARAMS, 10, SDM_STATUS_BUFFER_TOO_SMALL, 64},
                         Row{SDM_CNA_DCBX_PARAMS, 63, SDM_STATUS_BUFFER_TOO_SMALL, 64},
                         Row{SDM_CNA_PORT_DATA, 127, SDM_STATUS_INVALID_PARAMETER, 127},
                         Row{SDM_CNA_PORT_DATA, 129, SDM_STATUS_INVALID_PARAMETER, 129},
                         Row{0, 128, SDM_STATUS_INVALID_PARAMETER, 128}}) {
        std::vector<uint8_t> buf(256, 0xEE);
        SD_UINT32 size = r.size;
        EXPECT_EQ(SDGetCnaPortData(1, 0, r.op, buf.data(), &size), r.status) << r.op << "/" << r.size;
        EXPECT_EQ(size, r.size_after) << r.op << "/" << r.size;
        EXPECT_EQ(buf, std::vector<uint8_t>(256, 0xEE));
    }
    // Enough room: every byte of the caller's size is written.
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
