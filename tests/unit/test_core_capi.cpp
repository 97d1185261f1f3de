// The Common HBA API layer over an in-process channel: the entry-point
// tables, the status mapping, the handlers' checks, and the copies of the
// driver's records into the standard's attributes.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "mock_channel.h"
#include "vx_capi.h"
#include "vx_sysfs.h"

namespace {

using vxmock::slot;

constexpr uint32_t IOCTL_PORT = VX_FEAT_IOCTL_NODE | VX_FEAT_NEW_IOCTL;
constexpr uint16_t SWIFT = 0x1051;   // newer, VPD without the model description
constexpr uint16_t CRANE = 0x2070;   // newer, converged, the VPD names the model
constexpr uint16_t EGRET = 0x1040;   // older: the hardware version lives in NVRAM

TEST(CapiTables, EverySlotFilledInTheWrappersOrder) {
    HBA_ENTRYPOINTSV2 v2;
    memset(&v2, 0, sizeof v2);
    ASSERT_EQ(HBA_RegisterLibraryV2(&v2), HBA_STATUS_OK);
    void* slots[VXHBA_SLOTS_V2];
    memcpy(slots, &v2, sizeof slots);
    for (size_t i = 0; i < VXHBA_SLOTS_V2; ++i)
        EXPECT_NE(slots[i], nullptr) << "slot " << i;

    HBA_ENTRYPOINTS v1;
    memset(&v1, 0, sizeof v1);
    ASSERT_EQ(HBA_RegisterLibrary(&v1), HBA_STATUS_OK);
    // The first 24 slots are the same handlers in both versions.
    EXPECT_EQ(memcmp(&v1, &v2, sizeof v1), 0);

    // Spot checks of the order, where a shifted slot would still type-check.
    EXPECT_EQ(v2.GetAdapterPortAttributesHandler, &vxhba_GetAdapterPortAttributes);
    EXPECT_EQ(v2.GetPortStatisticsHandler, &vxhba_GetPortStatistics);
    EXPECT_EQ(v2.ReadCapacityHandler, &vxhba_SendReadCapacity);
    EXPECT_EQ(v2.SendRNIDV2Handler, &vxhba_SendRNIDV2);
    EXPECT_EQ(v2.SendRPSHandler, &vxhba_SendRPS);

    EXPECT_EQ(HBA_RegisterLibrary(nullptr), HBA_STATUS_ERROR_ARG);
    EXPECT_EQ(HBA_RegisterLibraryV2(nullptr), HBA_STATUS_ERROR_ARG);
    EXPECT_EQ(vxhba_GetVersion(), 2u);
}

TEST(CapiStatus, DriverStatusTranslation) {
    const struct {
        uint32_t stat, dstat;
        HBA_STATUS want;
    } rows[] = {
        {0, 0, 0},   {3, 0, 0},   {5, 0, 0},   {7, 0, 0},    {8, 0, 0},   {2, 0, 10},  {4, 0, 10},
        {23, 0, 10}, {6, 0, 4},   {9, 0, 6},   {12, 0, 2},   {20, 0, 2},  {16, 0, 7},  {21, 0, 30},
        {22, 0, 12}, {1, 0, 1},   {10, 0, 1},  {11, 0, 1},   {13, 0, 1},  {14, 0, 1},  {17, 0, 1},
        {18, 0, 1},  {19, 0, 1},  {24, 0, 1},  {25, 0, 1},   {0xFFFFFFFF, 0, 1},
        // SCSI status in the low byte of the detail status only.
        {15, 0x00, 0}, {15, 0x100, 0}, {15, 0x02, 9}, {15, 0x302, 9}, {15, 0x08, 10}, {15, 0x18, 10},
        {15, 0x28, 1}, {15, 0x04, 1},
    };
    for (const auto& r : rows)
        EXPECT_EQ(vxapi_translate_to_capi_status(r.stat, r.dstat), r.want) << r.stat << "/" << std::hex << r.dstat;
}

// Handlers that answer "not supported" do so whatever they are given, and
// the library attributes call leaves the caller's record alone.
TEST(CapiTables, NotSupportedHandlersLookAtNothing) {
    HBA_WWN wwn{};
    EXPECT_EQ(vxhba_OpenAdapterByWWN(nullptr, wwn), HBA_STATUS_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(vxhba_GetPersistentBindingV2(0, wwn, nullptr), HBA_STATUS_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(vxhba_SendRNIDV2(0, wwn, wwn, 0, 0, nullptr, nullptr), HBA_STATUS_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(vxhba_RegisterForLinkEvents(nullptr, nullptr, nullptr, 0, 0, nullptr), HBA_STATUS_ERROR_NOT_SUPPORTED);
    HBA_LIBRARYATTRIBUTES attrs;
    memset(&attrs, 0x5A, sizeof attrs);
    EXPECT_EQ(vxhba_GetVendorLibraryAttributes(&attrs), 2u);
    EXPECT_EQ(attrs.VName[0], 0x5A);
}

TEST(CapiLoad, CallsBeforeTheLoadAnswerEmpty) {
    ASSERT_FALSE(vxapi_lib_valid());
    EXPECT_EQ(vxhba_GetNumberOfAdapters(), 0u);
    char name[256] = "untouched";
    EXPECT_EQ(vxhba_GetAdapterName(0, name), HBA_STATUS_ERROR);
    EXPECT_STREQ(name, "untouched");
    char wanted[] = "varnex-VXS1051-0";
    EXPECT_EQ(vxhba_OpenAdapter(wanted), HBA_HANDLE_INVALID);
    EXPECT_EQ(vxhba_OpenAdapter(nullptr), HBA_HANDLE_INVALID);
    vxhba_CloseAdapter(1);  // nothing to close: no effect, no crash
}

TEST(CapiNames, AdapterNameHasModelAndPosition) {
    vxmock::registry reg;
    vxapi_priv_database* rec = reg.port(IOCTL_PORT, SWIFT);
    ASSERT_NE(rec, nullptr);
    memcpy(rec->phy_info->model, "ABC", 4);
    char name[256];
    vxapi_adapter_name(rec, 1, name, sizeof name);
    EXPECT_STREQ(name, "varnex-ABC-1");
    // A model filling its whole field is not terminated there.
    memcpy(rec->phy_info->model, "0123456789ABCDEF", 16);
    vxapi_adapter_name(rec, 0, name, sizeof name);
    EXPECT_STREQ(name, "varnex-0123456789ABCDEF-0");
    EXPECT_EQ(vxapi_get_api_priv_inst_from_adaptername("varnex-0123456789ABCDEF-0"), rec);
    EXPECT_EQ(vxapi_get_api_priv_inst_from_adaptername("varnex-0123456789ABCDEF-1"), nullptr);
}

class Capi : public testing::Test {
protected:
    vxmock::registry reg;
    vxmock::channel mock;
    vxapi_priv_database* port = nullptr;
    HBA_HANDLE h = 0;

    void make(uint32_t features, uint16_t device_id) {
        port = reg.port(features, device_id);
        ASSERT_NE(port, nullptr);
        mock.install(port);
        h = static_cast<HBA_HANDLE>(vxmock::registry::handle(port));
        port->host_no = 5;
        memcpy(port->wwnn, "\x20\x00\x00\x1d\x5a\x00\x00\x01", 8);
        memcpy(port->wwpn, "\x21\x00\x00\x1d\x5a\x00\x00\x01", 8);
        memcpy(port->phy_info->model, "VXS1051", 8);
        snprintf(reinterpret_cast<char*>(port->phy_info->serial_num), sizeof port->phy_info->serial_num, "%s",
                 "SERIAL-0123456789-0123456789-0123456789");
    }
    void SetUp() override { make(IOCTL_PORT, SWIFT); }

    static EXT_HBA_NODE node_record() {
        EXT_HBA_NODE node{};
        snprintf(reinterpret_cast<char*>(node.Manufacturer), sizeof node.Manufacturer, "Varnex Corporation");
        snprintf(reinterpret_cast<char*>(node.Model), sizeof node.Model, "VXS1051");
        snprintf(reinterpret_cast<char*>(node.DriverVersion), sizeof node.DriverVersion, "10.02.00.103-k");
        snprintf(reinterpret_cast<char*>(node.FWVersion), sizeof node.FWVersion, "8.05.63");
        snprintf(reinterpret_cast<char*>(node.OptRomVersion), sizeof node.OptRomVersion, "3.18");
        return node;
    }

    // Identifier "VXK2010 CNA", then "MN" "REV-B2" inside a read-only section.
    static std::vector<uint8_t> vpd_with_model() {
        std::vector<uint8_t> v = {0x82, 11, 0};
        for (char c : std::string("VXK2010 CNA"))
            v.push_back(static_cast<uint8_t>(c));
        v.insert(v.end(), {0x90, 0, 0, 'M', 'N', 6, 'R', 'E', 'V', '-', 'B', '2', 0x78});
        return v;
    }
};

TEST_F(Capi, BadHandlesAndNullRecords) {
    HBA_ADAPTERATTRIBUTES aa;
    HBA_PORTATTRIBUTES pa;
    HBA_WWN wwn{};
    for (HBA_HANDLE bad : {HBA_HANDLE{0}, h + 1}) {
        EXPECT_EQ(vxhba_GetAdapterAttributes(bad, &aa), HBA_STATUS_ERROR_INVALID_HANDLE);
        EXPECT_EQ(vxhba_GetAdapterPortAttributes(bad, 0, &pa), HBA_STATUS_ERROR_INVALID_HANDLE);
        EXPECT_EQ(vxhba_GetDiscoveredPortAttributes(bad, 0, 0, &pa), HBA_STATUS_ERROR_INVALID_HANDLE);
        EXPECT_EQ(vxhba_GetPortAttributesByWWN(bad, wwn, &pa), HBA_STATUS_ERROR_INVALID_HANDLE);
        EXPECT_EQ(vxhba_GetFcpTargetMapping(bad, nullptr), HBA_STATUS_ERROR_INVALID_HANDLE);
    }
    EXPECT_EQ(vxhba_GetAdapterAttributes(h, nullptr), HBA_STATUS_ERROR_ARG);
    EXPECT_EQ(vxhba_GetAdapterPortAttributes(h, 0, nullptr), HBA_STATUS_ERROR_ARG);
    EXPECT_EQ(vxhba_GetDiscoveredPortAttributes(h, 0, 0, nullptr), HBA_STATUS_ERROR_ARG);
    EXPECT_EQ(vxhba_GetPortAttributesByWWN(h, wwn, nullptr), HBA_STATUS_ERROR_ARG);
    EXPECT_EQ(vxhba_GetFcpTargetMapping(h, nullptr), HBA_STATUS_ERROR_ARG);
    // One port per handle: no other port index, and no driver request for it.
    EXPECT_EQ(vxhba_GetAdapterPortAttributes(h, 1, &pa), HBA_STATUS_ERROR_ILLEGAL_INDEX);
    EXPECT_EQ(vxhba_GetDiscoveredPortAttributes(h, 1, 0, &pa), HBA_STATUS_ERROR_ILLEGAL_INDEX);
}

// What the driver answers and what the handler makes of it: overrun and
// underrun still copy, a failure without driver status is an error.
TEST_F(Capi, QueryStatusRule) {
    const struct {
        uint32_t stat;
        int32_t rc;
        HBA_STATUS want;
        bool copied;
    } rows[] = {
        {EXT_STATUS_OK, 0, HBA_STATUS_OK, true},
        {EXT_STATUS_DATA_OVERRUN, 0, HBA_STATUS_OK, true},
        {EXT_STATUS_DATA_UNDERRUN, 0, HBA_STATUS_OK, true},
        {EXT_STATUS_BUSY, 0, HBA_STATUS_ERROR_BUSY, false},
        {EXT_STATUS_DEV_NOT_FOUND, 0, HBA_STATUS_ERROR_ILLEGAL_INDEX, false},
        {EXT_STATUS_OK, -1, HBA_STATUS_ERROR, false},
        {EXT_STATUS_OK, 1, HBA_STATUS_ERROR, false},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message() << r.stat << "/" << r.rc);
        EXT_HBA_PORT hp{};
        hp.Id[1] = 0x01;
        mock.expect(slot::query_hbaport).answer(hp).status(r.stat).fails(r.rc, 0);
        HBA_PORTATTRIBUTES pa;
        memset(&pa, 0xEE, sizeof pa);
        EXPECT_EQ(vxhba_GetAdapterPortAttributes(h, 0, &pa), r.want);
        EXPECT_EQ(pa.PortFcId, r.copied ? 0x010000u : 0xEEEEEEEEu);

        EXT_DISC_PORT dp{};
        dp.Id[3] = 0x07;
        mock.expect(slot::query_discport).answer(dp).status(r.stat).fails(r.rc, 0);
        memset(&pa, 0xEE, sizeof pa);
        EXPECT_EQ(vxhba_GetDiscoveredPortAttributes(h, 0, 0, &pa), r.want);
        EXPECT_EQ(pa.PortFcId, r.copied ? 0x07u : 0xEEEEEEEEu);
    }
}

TEST_F(Capi, PortSpeedsStatesAndTypes) {
    const struct {
        uint8_t code;
        HBA_PORTSPEED supported, current;
    } speeds[] = {
        {0x01, 0x01, 0x01}, {0x02, 0x03, 0x02}, {0x04, 0x0B, 0x08}, {0x08, 0x1B, 0x10},
        {0x10, 0x04, 0x04}, {0x16, 0x38, 0x20}, {0x32, 0x70, 0x40}, {0x06, 0, 0}, {0x00, 0, 0},
    };
    for (const auto& s : speeds) {
        EXPECT_EQ(vxcapi_supported_speed(s.code), s.supported) << int{s.code};
        EXPECT_EQ(vxcapi_port_speed(s.code), s.current) << int{s.code};
    }
    const struct {
        uint16_t state, mode;
        HBA_PORTSTATE want_state;
        HBA_PORTTYPE want_type;
    } rows[] = {
        {0, 1, HBA_PORTSTATE_ONLINE, HBA_PORTTYPE_NPORT},   {1, 2, HBA_PORTSTATE_OFFLINE, HBA_PORTTYPE_NLPORT},
        {2, 0, HBA_PORTSTATE_LINKDOWN, HBA_PORTTYPE_NLPORT}, {5, 1, HBA_PORTSTATE_UNKNOWN, HBA_PORTTYPE_NPORT},
    };
    for (const auto& r : rows) {
        EXT_HBA_PORT hp{};
        hp.State = r.state;
        hp.Mode = r.mode;
        hp.PortSupportedSpeed = 0x16;
        hp.PortSpeed = 0x16;
        HBA_PORTATTRIBUTES pa;
        vxcapi_copy_hbaport_attributes(port, &hp, &pa);
        EXPECT_EQ(pa.PortState, r.want_state) << r.state;
        EXPECT_EQ(pa.PortType, r.want_type) << r.mode;
        EXPECT_EQ(pa.PortSupportedSpeed, 56u);
        EXPECT_EQ(pa.PortSpeed, 32u);
    }
}

TEST_F(Capi, LocalPortCopyOnTheIoctlChannel) {
    EXT_HBA_PORT hp{};
    memcpy(hp.WWPN, port->wwpn, 8);
    hp.Id[0] = 0xFF;  // unused byte: never part of the address
    hp.Id[1] = 0x01;
    hp.Id[2] = 0x02;
    hp.PortSupportedFC4Types = 0x3;
    hp.PortActiveFC4Types = 0x1;
    memset(hp.FabricName, 0x10, sizeof hp.FabricName);
    hp.DiscPortCount = 12;
    HBA_PORTATTRIBUTES pa;
    memset(&pa, 0xEE, sizeof pa);
    vxcapi_copy_hbaport_attributes(port, &hp, &pa);
    EXPECT_EQ(pa.PortFcId, 0x010200u);
    EXPECT_EQ(memcmp(pa.NodeWWN.wwn, port->wwnn, 8), 0);
    EXPECT_EQ(pa.PortSupportedClassofService, 0u);
    EXPECT_EQ(pa.PortSupportedFc4Types.bits[0], 0x02);
    EXPECT_EQ(pa.PortSupportedFc4Types.bits[1], 0x01);
    EXPECT_EQ(pa.PortSupportedFc4Types.bits[2], 0x00);
    EXPECT_EQ(pa.PortActiveFc4Types.bits[0], 0x00);
    EXPECT_EQ(pa.PortActiveFc4Types.bits[1], 0x01);
    EXPECT_EQ(pa.PortSymbolicName[0], '\0');
    EXPECT_STREQ(pa.OSDeviceName, "/proc/scsi/VXS1051/5");
    EXPECT_EQ(pa.PortMaxFrameSize, 2048u);
    const uint8_t zero[8] = {};
    EXPECT_EQ(memcmp(pa.FabricName.wwn, zero, 8), 0);  // the ioctl driver's fabric name is not passed on
    EXPECT_EQ(pa.NumberofDiscoveredPorts, 12u);

    // Over sysfs: the host's class path, and the fabric name passed on.
    port->features = VX_FEAT_SYSFS;
    snprintf(sysfs_mnt_path, sizeof sysfs_mnt_path, "/sys");
    vxcapi_copy_hbaport_attributes(port, &hp, &pa);
    EXPECT_STREQ(pa.OSDeviceName, "/sys/class/scsi_host/host5");
    EXPECT_EQ(pa.FabricName.wwn[7], 0x10);
}

// A remote port's type, state and speed are fixed, and only the first byte
// of the fabric name is written: the rest keeps what the caller had.
TEST_F(Capi, DiscoveredPortCopyKeepsItsQuirks) {
    EXT_DISC_PORT dp{};
    memset(dp.WWNN, 0x50, 8);
    memset(dp.WWPN, 0x51, 8);
    dp.Id[1] = 0x0a;
    dp.Id[2] = 0x02;
    dp.Type = 2;
    dp.Status = 0x0F;
    dp.TargetId = 4000;  // no such target on this host
    HBA_PORTATTRIBUTES pa;
    memset(&pa, 0xEE, sizeof pa);
    vxcapi_copy_discport_attributes(port, &dp, &pa);
    EXPECT_EQ(pa.PortFcId, 0x0a0200u);
    EXPECT_EQ(pa.PortWWN.wwn[0], 0x51);
    EXPECT_EQ(pa.PortType, HBA_PORTTYPE_UNKNOWN);
    EXPECT_EQ(pa.PortState, HBA_PORTSTATE_UNKNOWN);
    EXPECT_EQ(pa.PortSupportedSpeed, 0u);
    EXPECT_EQ(pa.PortSpeed, 1u);
    EXPECT_EQ(pa.PortMaxFrameSize, 2048u);
    EXPECT_EQ(pa.PortSupportedFc4Types.bits[31], 0);
    EXPECT_EQ(pa.FabricName.wwn[0], 0);
    EXPECT_EQ(pa.FabricName.wwn[1], 0xEE);
    EXPECT_EQ(pa.FabricName.wwn[7], 0xEE);
    EXPECT_EQ(pa.NumberofDiscoveredPorts, 0u);
    EXPECT_STREQ(pa.OSDeviceName, "");
}

TEST_F(Capi, DiscoveredPortIndexIsSixteenBitsWide) {
    mock.expect(slot::query_discport).with_arg(1);
    HBA_PORTATTRIBUTES pa;
    EXPECT_EQ(vxhba_GetDiscoveredPortAttributes(h, 0, 0x10001, &pa), HBA_STATUS_OK);
}

TEST_F(Capi, PortByWwnLocalThenDiscovered) {
    HBA_WWN own;
    memcpy(own.wwn, port->wwpn, 8);
    EXT_HBA_PORT hp{};
    hp.Id[3] = 0x01;
    mock.expect(slot::query_hbaport).answer(hp);
    HBA_PORTATTRIBUTES pa;
    ASSERT_EQ(vxhba_GetPortAttributesByWWN(h, own, &pa), HBA_STATUS_OK);
    EXPECT_EQ(pa.PortFcId, 1u);

    EXT_DISC_PORT first{}, second{};
    memset(first.WWPN, 0x51, 8);
    memset(second.WWPN, 0x52, 8);
    second.Id[3] = 0x42;
    HBA_WWN wanted;
    memset(wanted.wwn, 0x52, 8);
    mock.expect(slot::query_discport).with_arg(0).answer(first);
    mock.expect(slot::query_discport).with_arg(1).answer(second);
    ASSERT_EQ(vxhba_GetPortAttributesByWWN(h, wanted, &pa), HBA_STATUS_OK);
    EXPECT_EQ(pa.PortFcId, 0x42u);

    // The list ends (driver status 9) before the name turns up.
    memset(wanted.wwn, 0x53, 8);
    mock.expect(slot::query_discport).with_arg(0).answer(first);
    mock.expect(slot::query_discport).with_arg(1).status(EXT_STATUS_DEV_NOT_FOUND);
    EXPECT_EQ(vxhba_GetDiscPortAttrByWWN(h, wanted, &pa), HBA_STATUS_ERROR_ILLEGAL_WWN);
    // Any other failure is the driver's answer.
    mock.expect(slot::query_discport).with_arg(0).status(EXT_STATUS_BUSY);
    EXPECT_EQ(vxhba_GetDiscPortAttrByWWN(h, wanted, &pa), HBA_STATUS_ERROR_BUSY);
}

TEST_F(Capi, NodeCopyFieldByField) {
    EXT_HBA_NODE node = node_record();
    memset(node.Manufacturer, 'M', sizeof node.Manufacturer);  // no terminator within 64 bytes
    mock.expect(slot::query_hbanode).answer(node);
    mock.expect(slot::get_vpd).with_size(512).answer_bytes(vpd_with_model());
    HBA_ADAPTERATTRIBUTES aa;
    memset(&aa, 0xEE, sizeof aa);
    ASSERT_EQ(vxhba_GetAdapterAttributes(h, &aa), HBA_STATUS_OK);
    EXPECT_EQ(std::string(aa.Manufacturer, sizeof aa.Manufacturer), std::string(64, 'M'));
    EXPECT_STREQ(aa.SerialNumber, "SERIAL-0123456789-0123456789-01");  // 31 characters and the NUL
    EXPECT_EQ(static_cast<uint8_t>(aa.SerialNumber[32]), 0xEE);
    EXPECT_STREQ(aa.Model, "VXS1051");
    EXPECT_STREQ(aa.ModelDescription, "Varnex VXS1051");  // Swift: not from the VPD
    EXPECT_STREQ(aa.NodeSymbolicName, "VXS1051 HBA Driver");
    EXPECT_STREQ(aa.HardwareVersion, "REV-B2");
    EXPECT_EQ(aa.HardwareVersion[255], 0);
    EXPECT_STREQ(aa.DriverVersion, "v.10.02.00.103-k");
    EXPECT_STREQ(aa.OptionROMVersion, "v.3.18");
    EXPECT_STREQ(aa.FirmwareVersion, "v.8.05.63");
    EXPECT_EQ(aa.VendorSpecificID, 0u);
    EXPECT_EQ(aa.NumberOfPorts, 1u);
    EXPECT_STREQ(aa.DriverName, "VXS1051");
    EXPECT_EQ(memcmp(aa.NodeWWN.wwn, port->wwnn, 8), 0);
}

TEST_F(Capi, NodeCopyTakesTheModelDescriptionFromTheNewestFamiliesVpd) {
    port->phy_info->device_id = CRANE;
    EXT_HBA_NODE node = node_record();
    // Converged boards get the larger VPD buffer.
    mock.expect(slot::query_hbanode).answer(node);
    mock.expect(slot::get_vpd).with_size(1024).answer_bytes(vpd_with_model());
    HBA_ADAPTERATTRIBUTES aa;
    ASSERT_EQ(vxhba_GetAdapterAttributes(h, &aa), HBA_STATUS_OK);
    EXPECT_STREQ(aa.ModelDescription, "VXK2010 CNA");
    EXPECT_STREQ(aa.HardwareVersion, "REV-B2");

    // No identifier string: the description made from the model stays;
    // a failed read leaves the hardware version empty.
    mock.expect(slot::query_hbanode).answer(node);
    mock.expect(slot::get_vpd).status(EXT_STATUS_ERR);
    memset(&aa, 0xEE, sizeof aa);
    ASSERT_EQ(vxhba_GetAdapterAttributes(h, &aa), HBA_STATUS_OK);
    EXPECT_STREQ(aa.ModelDescription, "Varnex VXS1051");
    EXPECT_EQ(std::string(aa.HardwareVersion, 256), std::string(256, '\0'));
}

// Older families keep the board revision in NVRAM: 16 bytes at offset 112.
TEST_F(Capi, NodeCopyTakesTheOlderFamiliesHardwareVersionFromNvram) {
    port->phy_info->device_id = EGRET;
    std::vector<uint8_t> nvram(256, 0);
    memset(nvram.data() + 112, 'H', 16);
    nvram[128] = 'X';  // past the field: never copied
    mock.expect(slot::query_hbanode).answer(node_record());
    mock.expect(slot::get_nvram).with_size(256).answer_bytes(nvram);
    HBA_ADAPTERATTRIBUTES aa;
    memset(&aa, 0xEE, sizeof aa);
    ASSERT_EQ(vxhba_GetAdapterAttributes(h, &aa), HBA_STATUS_OK);
    EXPECT_EQ(std::string(aa.HardwareVersion), std::string(16, 'H'));
    EXPECT_EQ(aa.HardwareVersion[255], 0);

    mock.expect(slot::query_hbanode).answer(node_record());
    mock.expect(slot::get_nvram).fails(-1, EIO);
    ASSERT_EQ(vxhba_GetAdapterAttributes(h, &aa), HBA_STATUS_OK);
    EXPECT_EQ(aa.HardwareVersion[0], 0);
}

TEST_F(Capi, NodeCopyOfALongModel) {
    EXT_HBA_NODE node = node_record();
    memset(node.Model, 'X', sizeof node.Model);  // 128 characters, no terminator
    memset(port->phy_info->model, 'Y', sizeof port->phy_info->model);
    mock.expect(slot::query_hbanode).answer(node);
    mock.expect(slot::get_vpd).status(EXT_STATUS_ERR);
    HBA_ADAPTERATTRIBUTES aa;
    memset(&aa, 0xEE, sizeof aa);
    ASSERT_EQ(vxhba_GetAdapterAttributes(h, &aa), HBA_STATUS_OK);
    EXPECT_EQ(std::string(aa.Model, 128), std::string(128, 'X'));
    EXPECT_EQ(static_cast<uint8_t>(aa.Model[128]), 0xEE);  // the rest of the caller's field stays
    EXPECT_EQ(std::string(aa.ModelDescription), "Varnex " + std::string(128, 'X'));
    EXPECT_EQ(std::string(aa.DriverName), std::string(15, 'Y'));
}


// ---- Statistics ----

TEST_F(Capi, PortStatisticsByFamily) {
    EXT_HBA_PORT_STAT st{};
    st.TotalLipResets = 5;
    st.TotalLinkFailures = 7;
    st.TotalLossOfSync = 8;
    st.TotalLossOfSignals = 9;
    st.PrimitiveSeqProtocolErrorCount = 10;
    st.InvalidTransmissionWordCount = 11;
    st.InvalidCRCCount = 0xFFFFFFFF;  // widened, not sign-extended
    st.TxFrames = 20;
    st.RxFrames = 21;
    st.NosCount = 22;
    st.DumpedFrames = 23;
    constexpr HBA_INT64 UNKEPT = -1;
    const struct {
        uint16_t device_id;
        bool frames;
    } rows[] = {{SWIFT, true}, {CRANE, true}, {EGRET, false}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.device_id);
        port->phy_info->device_id = r.device_id;
        mock.expect(slot::get_statistics).answer(st);
        HBA_PORTSTATISTICS ps;
        memset(&ps, 0, sizeof ps);
        // The port index does not choose a port.
        ASSERT_EQ(vxhba_GetPortStatistics(h, 3, &ps), HBA_STATUS_OK);
        EXPECT_EQ(ps.SecondsSinceLastReset, UNKEPT);
        EXPECT_EQ(ps.TxWords, UNKEPT);
        EXPECT_EQ(ps.RxWords, UNKEPT);
        EXPECT_EQ(ps.TxFrames, r.frames ? 20 : UNKEPT);
        EXPECT_EQ(ps.RxFrames, r.frames ? 21 : UNKEPT);
        EXPECT_EQ(ps.NOSCount, r.frames ? 22 : UNKEPT);
        EXPECT_EQ(ps.DumpedFrames, r.frames ? 23 : UNKEPT);
        EXPECT_EQ(ps.LIPCount, 5);
        EXPECT_EQ(ps.ErrorFrames, 7);
        EXPECT_EQ(ps.LinkFailureCount, 7);
        EXPECT_EQ(ps.LossOfSyncCount, 8);
        EXPECT_EQ(ps.LossOfSignalCount, 9);
        EXPECT_EQ(ps.PrimitiveSeqProtocolErrCount, 10);
        EXPECT_EQ(ps.InvalidTxWordCount, 11);
        EXPECT_EQ(ps.InvalidCRCCount, 0xFFFFFFFFLL);
    }
}

TEST_F(Capi, StatisticsStatusAndArguments) {
    const struct {
        uint32_t stat, detail;
        int32_t rc;
        HBA_STATUS want;
    } rows[] = {
        {EXT_STATUS_BUSY, 0, 0, HBA_STATUS_ERROR_BUSY},
        {EXT_STATUS_SCSI_STATUS, 0x02, 0, HBA_STATUS_SCSI_CHECK_CONDITION},
        {EXT_STATUS_BUSY, 0, -1, HBA_STATUS_ERROR_BUSY},  // the driver's status first
        {EXT_STATUS_OK, 0, 1, HBA_STATUS_ERROR},
        {EXT_STATUS_DATA_UNDERRUN, 0, 0, HBA_STATUS_OK},  // delivered: the record is written
    };
    HBA_WWN own;
    memcpy(own.wwn, port->wwpn, 8);
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message() << r.stat << "/" << r.rc);
        mock.expect(slot::get_statistics).status(r.stat, r.detail).fails(r.rc, 0);
        HBA_PORTSTATISTICS ps;
        memset(&ps, 0, sizeof ps);
        EXPECT_EQ(vxhba_GetPortStatistics(h, 0, &ps), r.want);
        EXPECT_EQ(ps.TxWords, r.want == HBA_STATUS_OK ? -1 : 0);  // untouched on failure
        mock.expect(slot::get_statistics).status(r.stat, r.detail).fails(r.rc, 0);
        HBA_FC4STATISTICS fs;
        memset(&fs, 0, sizeof fs);
        EXPECT_EQ(vxhba_GetFC4Statistics(h, own, VX_FC4_TYPE_FCP, &fs), r.want);
    }
    HBA_PORTSTATISTICS ps;
    HBA_FC4STATISTICS fs;
    EXPECT_EQ(vxhba_GetPortStatistics(h + 1, 0, &ps), HBA_STATUS_ERROR_INVALID_HANDLE);
    EXPECT_EQ(vxhba_GetPortStatistics(h, 0, nullptr), HBA_STATUS_ERROR_ARG);
    EXPECT_EQ(vxhba_GetFC4Statistics(h + 1, own, VX_FC4_TYPE_FCP, &fs), HBA_STATUS_ERROR_INVALID_HANDLE);
    EXPECT_EQ(vxhba_GetFC4Statistics(h, own, VX_FC4_TYPE_FCP, nullptr), HBA_STATUS_ERROR_ARG);
    // Neither another port nor another FC-4 type reaches the driver.
    HBA_WWN other = own;
    other.wwn[7] ^= 1;
    EXPECT_EQ(vxhba_GetFC4Statistics(h, other, VX_FC4_TYPE_FCP, &fs), HBA_STATUS_ERROR_ILLEGAL_WWN);
    EXPECT_EQ(vxhba_GetFC4Statistics(h, own, 0x20, &fs), HBA_STATUS_ERROR_UNSUPPORTED_FC4);
}

TEST_F(Capi, FC4StatisticsAreTheFcpCounters) {
    EXT_HBA_PORT_STAT st{};
    st.InputRequestCount = 0x100000001ULL;
    st.OutputRequestCount = 2;
    st.ControlRequestCount = 3;
    st.InputMBytes = 4;
    st.OutputMBytes = 5;
    mock.expect(slot::get_statistics).answer(st);
    HBA_WWN own;
    memcpy(own.wwn, port->wwpn, 8);
    HBA_FC4STATISTICS fs;
    memset(&fs, 0xEE, sizeof fs);
    ASSERT_EQ(vxhba_GetFC4Statistics(h, own, VX_FC4_TYPE_FCP, &fs), HBA_STATUS_OK);
    EXPECT_EQ(fs.InputRequests, 0x100000001LL);
    EXPECT_EQ(fs.OutputRequests, 2);
    EXPECT_EQ(fs.ControlRequests, 3);
    EXPECT_EQ(fs.InputMegabytes, 4);
    EXPECT_EQ(fs.OutputMegabytes, 5);
}

// ---- SCSI commands and CT pass-through ----

// Each command reaches the driver with the LUN of the FCP LUN's first two
// bytes and a response size the command can use.
TEST_F(Capi, ScsiCommandsAddressLunAndSize) {
    HBA_WWN own, target{};
    memcpy(own.wwn, port->wwpn, 8);
    target.wwn[0] = 0x50;
    uint8_t rsp[600];
    uint8_t sense[32];
    HBA_UINT32 size = 0, sense_size = 0;
    HBA_UINT8 scsi = 0xEE;
    const struct {
        const char* what;
        uint32_t lun, size;
        std::function<HBA_STATUS()> call;
    } rows[] = {
        {"inquiry", 5, 255, [&] { return vxhba_SendScsiInquiry(h, target, 0x0005000000000000ULL, 1, 0x83, rsp, 300, sense, 32); }},
        {"inquiry v2", 0x105, 36, [&] {
             size = 36;
             return vxhba_ScsiInquiryV2(h, own, target, 0x0105000000000000ULL, 0, 0, rsp, &size, &scsi, sense, &sense_size);
         }},
        {"read capacity, flat space", 261, 8, [&] { return vxhba_SendReadCapacity(h, target, 0x4105000000000000ULL, rsp, 8, nullptr, 0); }},
        {"read capacity v2", 0, 8, [&] {
             size = 8;
             return vxhba_ScsiReadCapacityV2(h, own, target, 0, rsp, &size, &scsi, nullptr, nullptr);
         }},
        {"report luns", 0, 512, [&] { return vxhba_SendReportLUNs(h, target, rsp, 512, sense, 32); }},
        {"report luns v2", 0, 600, [&] {
             size = 600;
             return vxhba_ScsiReportLUNsV2(h, own, target, rsp, &size, &scsi, sense, &sense_size);
         }},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        mock.expect(slot::send_fc_scsipt).with_arg(r.lun).with_size(r.size).answer_bytes({0x00, 0x11, 0x22});
        memset(rsp, 0, sizeof rsp);
        scsi = 0xEE;
        sense_size = 32;
        EXPECT_EQ(r.call(), HBA_STATUS_OK);
        EXPECT_EQ(rsp[2], 0x22);
        if (scsi != 0xEE) {
            EXPECT_EQ(scsi, 0);  // the V2 forms report the status byte
        }
    }
    EXPECT_EQ(sense_size, 0u);  // no check condition, no sense
}

TEST_F(Capi, ScsiStatusAndSense) {
    HBA_WWN own, target{};
    memcpy(own.wwn, port->wwpn, 8);
    std::vector<uint8_t> fixed(18, 0);
    fixed[0] = 0x70;
    fixed[2] = 0x05;
    fixed[12] = 0x25;
    const struct {
        uint32_t stat, dstat;
        int32_t rc;
        HBA_STATUS want;
        uint8_t scsi;
        uint32_t sense_len;
    } rows[] = {
        {EXT_STATUS_SCSI_STATUS, 0x02, 0, HBA_STATUS_SCSI_CHECK_CONDITION, 0x02, 8},  // cut to the room
        {EXT_STATUS_SCSI_STATUS, 0x18, 0, HBA_STATUS_ERROR_BUSY, 0x18, 0},
        {EXT_STATUS_DATA_UNDERRUN, 0, 0, HBA_STATUS_OK, 0, 0},
        {EXT_STATUS_DEV_NOT_FOUND, 0, 1, HBA_STATUS_ERROR_ILLEGAL_INDEX, 0, 0},
        {EXT_STATUS_OK, 0, -1, HBA_STATUS_ERROR, 0, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message() << r.stat << "/" << r.dstat << "/" << r.rc);
        mock.expect(slot::send_fc_scsipt).status(r.stat, r.dstat).fails(r.rc, EIO).with_sense(fixed);
        uint8_t rsp[36];
        uint8_t sense[16];
        memset(sense, 0xEE, sizeof sense);
        HBA_UINT32 size = sizeof rsp, sense_size = 8;
        HBA_UINT8 scsi = 0xEE;
        EXPECT_EQ(vxhba_ScsiInquiryV2(h, own, target, 0, 0, 0, rsp, &size, &scsi, sense, &sense_size), r.want);
        EXPECT_EQ(scsi, r.scsi);
        EXPECT_EQ(sense_size, r.sense_len);
        EXPECT_EQ(sense[8], 0xEE);  // nothing past the room given
        if (r.sense_len) {
            EXPECT_EQ(sense[2], 0x05);
        }
    }
    // The first form: the same answer, sense in the caller's room.
    mock.expect(slot::send_fc_scsipt).status(EXT_STATUS_SCSI_STATUS, 0x02).with_sense(fixed);
    uint8_t rsp[8];
    uint8_t sense[32] = {};
    EXPECT_EQ(vxhba_SendReadCapacity(h, target, 0, rsp, sizeof rsp, sense, sizeof sense),
              HBA_STATUS_SCSI_CHECK_CONDITION);
    EXPECT_EQ(sense[12], 0x25);
}

// Refused before the driver is asked (the mock fails on any request).
TEST_F(Capi, PassThroughBadInput) {
    HBA_WWN own, other, target{};
    memcpy(own.wwn, port->wwpn, 8);
    other = own;
    other.wwn[7] ^= 1;
    uint8_t rsp[64], req[64] = {}, sense[16];
    HBA_UINT32 size = sizeof rsp, sense_size = sizeof sense, zero = 0;
    HBA_UINT8 scsi = 0;
    const struct {
        const char* what;
        HBA_STATUS want;
        std::function<HBA_STATUS()> call;
    } rows[] = {
        {"bad handle", 3, [&] { return vxhba_SendReportLUNs(h + 1, target, rsp, 64, sense, 16); }},
        {"bad handle v2", 3, [&] { return vxhba_ScsiReportLUNsV2(h + 1, own, target, rsp, &size, &scsi, sense, &sense_size); }},
        {"no response", 4, [&] { return vxhba_SendScsiInquiry(h, target, 0, 0, 0, nullptr, 64, sense, 16); }},
        {"empty response", 4, [&] { return vxhba_SendReadCapacity(h, target, 0, rsp, 0, sense, 16); }},
        {"empty response v2", 4, [&] { return vxhba_ScsiReportLUNsV2(h, own, target, rsp, &zero, &scsi, sense, &sense_size); }},
        {"no size", 4, [&] { return vxhba_ScsiReadCapacityV2(h, own, target, 0, rsp, nullptr, &scsi, sense, &sense_size); }},
        {"no status", 4, [&] { return vxhba_ScsiInquiryV2(h, own, target, 0, 0, 0, rsp, &size, nullptr, sense, &sense_size); }},
        {"sense without size", 4, [&] { return vxhba_ScsiInquiryV2(h, own, target, 0, 0, 0, rsp, &size, &scsi, sense, nullptr); }},
        {"another port", 5, [&] { return vxhba_ScsiInquiryV2(h, other, target, 0, 0, 0, rsp, &size, &scsi, sense, &sense_size); }},
        {"extended LUN", HBA_STATUS_ERROR_INVALID_LUN, [&] { return vxhba_SendReadCapacity(h, target, 0xC000000000000000ULL, rsp, 8, sense, 16); }},
        {"ct bad handle", 3, [&] { return vxhba_SendCTPassThru(h + 1, req, 64, rsp, 64); }},
        {"ct no request", 4, [&] { return vxhba_SendCTPassThru(h, nullptr, 64, rsp, 64); }},
        {"ct short request", 4, [&] { return vxhba_SendCTPassThru(h, req, 15, rsp, 64); }},
        {"ct no response", 4, [&] { return vxhba_SendCTPassThruV2(h, own, req, 64, rsp, nullptr); }},
        {"ct another port", 5, [&] { return vxhba_SendCTPassThruV2(h, other, req, 64, rsp, &size); }},
    };
    for (const auto& r : rows)
        EXPECT_EQ(r.call(), r.want) << r.what;
}

TEST_F(Capi, CtPassThroughStatus) {
    HBA_WWN own;
    memcpy(own.wwn, port->wwpn, 8);
    uint8_t req[16] = {0x01};
    port->topology = VX_TOPOLOGY_F_PORT;
    const struct {
        uint32_t stat;
        int32_t rc;
        HBA_STATUS want;
    } rows[] = {
        {EXT_STATUS_OK, 0, HBA_STATUS_OK},
        {EXT_STATUS_DATA_OVERRUN, 0, HBA_STATUS_OK},
        {EXT_STATUS_BUSY, 1, HBA_STATUS_ERROR_BUSY},
        {EXT_STATUS_OK, 1, HBA_STATUS_ERROR},  // failed without a driver status
    };
    for (const auto& r : rows) {
        mock.expect(slot::send_ct_passthru).with_size(256).status(r.stat).fails(r.rc, 0).answer_bytes({0x01, 0x00, 0x80, 0x02});
        uint8_t rsp[256] = {};
        HBA_UINT32 size = sizeof rsp;
        EXPECT_EQ(vxhba_SendCTPassThruV2(h, own, req, sizeof req, rsp, &size), r.want) << r.stat << "/" << r.rc;
        EXPECT_EQ(size, sizeof rsp);
    }
    mock.expect(slot::send_ct_passthru).with_size(64);
    uint8_t rsp[64];
    EXPECT_EQ(vxhba_SendCTPassThru(h, req, sizeof req, rsp, sizeof rsp), HBA_STATUS_OK);
    // Off a fabric the request is refused without reaching the driver.
    port->topology = 0;
    EXPECT_EQ(vxhba_SendCTPassThru(h, req, sizeof req, rsp, sizeof rsp), HBA_STATUS_ERROR);
}

// ---- Link services ----

// A discovered port the link-service handlers find at index 0.
EXT_DISC_PORT els_target() {
    EXT_DISC_PORT d{};
    memcpy(d.WWNN, "\x50\x06\x01\x60\x88\x60\x1a\x00", 8);
    memcpy(d.WWPN, "\x50\x06\x01\x60\x08\x60\x1a\x00", 8);
    d.Id[1] = 0x01;
    d.Id[2] = 0x04;
    d.Id[3] = 0x00;
    return d;
}

std::string hex_of(const std::vector<uint8_t>& b, size_t from, size_t n) {
    std::string out;
    char two[3];
    for (size_t i = from; i < from + n && i < b.size(); ++i) {
        snprintf(two, sizeof two, "%02x", b[i]);
        out += two;
    }
    return out;
}

// What each handler hands the ELS leaf: the head naming the destination by
// all three of its names, then the command with its flags and selection.
TEST_F(Capi, LinkServiceRequests) {
    HBA_WWN own, target, node, none{};
    memcpy(own.wwn, port->wwpn, 8);
    const EXT_DISC_PORT d = els_target();
    memcpy(target.wwn, d.WWPN, 8);
    memcpy(node.wwn, d.WWNN, 8);
    HBA_WWN object = target;
    object.wwn[7] = 0x77;
    uint8_t rsp[64];
    HBA_UINT32 size = 0;
    const struct {
        const char* what;
        std::function<HBA_STATUS()> call;
        std::string payload;
    } rows[] = {
        {"rls", [&] { return vxhba_SendRLS(h, own, target, rsp, &size); }, "0f00000000010400"},
        {"rnid by port", [&] { return vxhba_SendRNID(h, target, PORT_WWN, rsp, &size); }, "78000000df000000"},
        {"rnid by node", [&] { return vxhba_SendRNID(h, node, NODE_WWN, rsp, &size); }, "78000000df000000"},
        {"rps by name", [&] { return vxhba_SendRPS(h, own, target, 0, object, 9, rsp, &size); },
         "5600000000000002500601600860" "1a77"},
        {"rps by number", [&] { return vxhba_SendRPS(h, own, target, 0, none, 0x0102, rsp, &size); },
         "56000000000000010000000000000102"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        mock.expect(slot::query_discport).with_arg(0).answer(d);
        mock.expect(slot::send_els_passthru).answer_bytes({0x02, 0, 0, 0});
        size = sizeof rsp;
        ASSERT_EQ(r.call(), HBA_STATUS_OK);
        const std::vector<uint8_t>& sent = mock.written();
        ASSERT_EQ(sent.size(), sizeof(EXT_ELS_PT_REQ) + r.payload.size() / 2);
        EXT_ELS_PT_REQ head;
        memcpy(&head, sent.data(), sizeof head);
        EXPECT_EQ(memcmp(head.WWPN, d.WWPN, 8), 0);
        EXPECT_EQ(memcmp(head.WWNN, d.WWNN, 8), 0);
        EXPECT_EQ(memcmp(head.Id, d.Id, 4), 0);
        EXPECT_EQ(head.ValidMask, EXT_DEF_ELS_VALID_WWNN | EXT_DEF_ELS_VALID_WWPN | EXT_DEF_ELS_VALID_PORTID);
        EXPECT_EQ(hex_of(sent, sizeof head, sent.size()), r.payload);
    }
}

// How an answer becomes a status and what reaches the caller's buffer:
// an LS_RJT is a reject with its payload, a driver failure leaves the
// buffer and size as they were, so does an answer that is neither.
TEST_F(Capi, LinkServiceAnswers) {
    HBA_WWN own, target;
    memcpy(own.wwn, port->wwpn, 8);
    const EXT_DISC_PORT d = els_target();
    memcpy(target.wwn, d.WWPN, 8);
    std::vector<uint8_t> acc(28, 0);
    acc[0] = 0x02;
    acc[27] = 0x31;
    const std::vector<uint8_t> rjt{0x01, 0, 0, 0, 0, 0x0B, 0, 0};
    const struct {
        const char* what;
        std::vector<uint8_t> answer;
        uint32_t stat;
        int32_t rc;
        HBA_STATUS want;
        HBA_UINT32 size;  // back in *rsp_size; 99: left as it was
    } rows[] = {
        {"accept", acc, EXT_STATUS_OK, 0, HBA_STATUS_OK, 28},
        {"reject", rjt, EXT_STATUS_OK, 0, HBA_STATUS_ERROR_ELS_REJECT, 8},
        {"busy", acc, EXT_STATUS_BUSY, 0, HBA_STATUS_ERROR_BUSY, 99},
        {"gone", acc, EXT_STATUS_DEV_NOT_FOUND, 0, HBA_STATUS_ERROR_ILLEGAL_INDEX, 99},
        {"no driver status", acc, EXT_STATUS_OK, 1, HBA_STATUS_ERROR, 99},
        {"no answer", {}, EXT_STATUS_OK, 0, HBA_STATUS_ERROR, 99},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        mock.expect(slot::query_discport).with_arg(0).answer(d);
        mock.expect(slot::send_els_passthru).answer_bytes(r.answer).status(r.stat).fails(r.rc, 0);
        uint8_t rsp[99];
        memset(rsp, 0xEE, sizeof rsp);
        HBA_UINT32 size = sizeof rsp;
        EXPECT_EQ(vxhba_SendRLS(h, own, target, rsp, &size), r.want);
        EXPECT_EQ(size, r.size);
        if (r.size != 99)
            EXPECT_EQ(memcmp(rsp, r.answer.data(), r.size), 0);
        else
            EXPECT_EQ(rsp[0], 0xEE);
        EXPECT_EQ(rsp[r.size == 99 ? 0 : r.size], 0xEE) << "nothing past the answer";
    }
}

// Before any Set the record comes from the port: a failed query leaves
// the caller's record alone.
TEST_F(Capi, RnidManagementDataFromAFailedQuery) {
    mock.expect(slot::query_hbaport).status(EXT_STATUS_BUSY);
    HBA_MGMTINFO info;
    memset(&info, 0xEE, sizeof info);
    EXPECT_EQ(vxhba_GetRNIDMgmtInfo(h, &info), HBA_STATUS_ERROR_BUSY);
    EXPECT_EQ(info.unittype, 0xEEEEEEEEu);
}

}  // namespace
