// Device properties, discovered ports and targets, the port database and
// target LUN lists, through the exported interface in simulated hosts.
// Caller records are filled with a pattern first, so that every byte a call
// must not write is seen to stay as it was.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "libtest.h"
#include "vsdmgt.h"

namespace {

namespace st = vxsim::test;

constexpr uint8_t PATTERN = 0xA5;
using Numbers = std::vector<unsigned>;

template <typename T>
T patterned() {
    T record;
    memset(&record, PATTERN, sizeof record);
    return record;
}

bool untouched(const void* p, size_t n) {
    const auto* b = static_cast<const uint8_t*>(p);
    return std::all_of(b, b + n, [](uint8_t v) { return v == PATTERN; });
}

// Opens the host's n ports; handle of instance i at [i] (0, never a handle,
// where a port is missing or does not open).
std::vector<int> open_all(uint32_t n) {
    EXPECT_EQ(SDGetNumberOfAdapters(), n);
    std::vector<int> handles(n);
    for (uint32_t i = 0; i < n; ++i)
        EXPECT_EQ(SDOpenDevice(i, &handles[i]), 0u) << i;
    return handles;
}

std::vector<uint8_t> bytes(const void* p, size_t n) {
    const auto* b = static_cast<const uint8_t*>(p);
    return std::vector<uint8_t>(b, b + n);
}
std::vector<uint8_t> wwn(uint64_t v) {
    std::vector<uint8_t> out(8);
    for (int i = 7; i >= 0; --i, v >>= 8)
        out[static_cast<size_t>(i)] = static_cast<uint8_t>(v);
    return out;
}
std::string text(const void* p, size_t n) {
    return std::string(static_cast<const char*>(p), strnlen(static_cast<const char*>(p), n));
}

// One Wren board: function 0x1c.3 with a virtual port, function 0x1c.4; a
// 20-character model name, versions from VPD (no boot-code attributes).
const char* const NODE = R"json({"name": "node", "adapters": [
  {"id": "wren0", "device_id": "0x2031", "serial_number": "K12345", "model_name": "VXW2031-EXTENDED-NAM",
   "optrom_attrs": false, "fw_version": "8.05.63 (d0d5)", "driver_version": "10.02.00.103-k",
   "flash": {"bios": "3.18", "fcode": "4.02", "efi": "6.01", "firmware": "8.05.63"},
   "functions": [
     {"pci_address": "0000:0a:1c.3", "sg_tablesize": 256,
      "port": {"host_no": 4, "wwnn": "20:00:00:1d:5a:20:31:04", "wwpn": "21:00:00:1d:5a:20:31:04"},
      "vports": [{"host_no": 6, "wwnn": "20:01:00:1d:5a:20:31:04", "wwpn": "21:01:00:1d:5a:20:31:04", "vport_id": 1}]},
     {"pci_address": "0000:0a:1c.4",
      "port": {"host_no": 5, "wwnn": "20:00:00:1d:5a:20:31:05", "wwpn": "21:00:00:1d:5a:20:31:05"}}]}]})json";

// One Plover board with eight functions, one link text and speed each.
const char* const LINKS = R"json({"name": "links", "adapters": [
  {"id": "plover0", "device_id": "0x2051", "serial_number": "VXP20510001", "functions": [
    {"pci_address": "0000:03:00.0", "port": {"host_no": 10, "link_state": "Link Down", "speed": "1 Gbit",
     "fw_state": [1, 2, 3, 4, 5, 6]}},
    {"pci_address": "0000:03:00.1", "port": {"host_no": 11, "link_state": "Unknown Link State", "speed": "2 Gbit"}},
    {"pci_address": "0000:03:00.2", "port": {"host_no": 12, "link_state": "Link Up - Loop", "speed": "4 Gbit"}},
    {"pci_address": "0000:03:00.3", "port": {"host_no": 13, "link_state": "Link Up - FL_Port", "speed": "8 Gbit"}},
    {"pci_address": "0000:03:00.4",
     "port": {"host_no": 14, "link_state": "Link Up - N_Port to N_Port", "speed": "10 Gbit"}},
    {"pci_address": "0000:03:00.5", "port": {"host_no": 15, "link_state": "Link Up - F_Port", "speed": "16 Gbit"}},
    {"pci_address": "0000:03:00.6", "port": {"host_no": 16, "link_state": "Link Up - Fabric", "speed": "32 Gbit"}},
    {"pci_address": "0000:03:00.7",
     "port": {"host_no": 17, "has_link_state": false, "link_state": "Link Up - Loop", "speed": "unknown"}}]}]})json";

// One port that has discovered every kind of remote port: FCP targets
// (online, blocked, also an initiator), an initiator, a fabric service and
// an IP port on channel 2 (listed last: remote ports come in name order).
// Target 0's LUNs use every address method.
const char* const DISCOVERED = R"json({"name": "discovered", "adapters": [
  {"id": "tern0", "device_id": "0x2061", "serial_number": "VXT20610001", "functions": [
    {"pci_address": "0000:07:00.0", "port": {"host_no": 1, "wwpn": "21:00:00:1d:5a:20:61:01", "port_id": "0x020100",
     "remote_ports": [
       {"number": 0, "wwnn": "50:00:00:00:00:00:00:00", "wwpn": "50:00:00:00:00:00:00:10", "port_id": "0x020400",
        "scsi_target_id": 0, "luns": [{"lun": 0}, {"lun": 5}, {"lun": 16640}, {"lun": 17409}, {"lun": 32775}]},
       {"number": 1, "wwpn": "50:00:00:00:00:00:01:10", "port_id": "0x020500", "roles": "FCP Initiator"},
       {"number": 2, "wwpn": "50:00:00:00:00:00:02:10", "port_id": "0x020600", "state": "Blocked",
        "scsi_target_id": 2, "luns": [{"lun": 0}]},
       {"number": 3, "wwpn": "21:fc:00:00:00:00:00:00", "port_id": "0xfffffc", "roles": "unknown"},
       {"number": 4, "channel": 2, "wwpn": "50:00:00:00:00:00:04:10", "port_id": "0x020800", "roles": "IP Port"},
       {"number": 5, "wwpn": "50:00:00:00:00:00:05:10", "port_id": "0x020900",
        "roles": "FCP Target, FCP Initiator", "scsi_target_id": 3, "luns": [{"lun": 0}, {"lun": 1}]}]}}]}]})json";

// Converged boards: a Kite pair (FCF available on one port only) and a Crane
// of the multi-processor family.
const char* const CONVERGED = R"json({"name": "converged", "adapters": [
  {"id": "kite0", "device_id": "0x2010", "serial_number": "VXK20100001", "functions": [
    {"pci_address": "0000:04:00.0", "port": {"host_no": 1, "vlan_id": 1002, "vn_port_mac": "0e:fc:00:01:02:03",
     "fabric_param": 0}},
    {"pci_address": "0000:04:00.1", "port": {"host_no": 2, "vlan_id": 7, "vn_port_mac": "0e:fc:00:0a:0b:0c",
     "fabric_param": 512}}]},
  {"id": "crane0", "device_id": "0x2070", "serial_number": "VXC20700001", "mpi_version": "2.1.4",
   "pep_version": "1.0.9", "flash": {"mpi": "2.2.0", "pep": "1.1.3"},
   "functions": [{"pci_address": "0000:06:00.0", "port": {"host_no": 3}}]}]})json";

// A Plover on the newer ioctl node whose remote ports carry what only that
// channel reports: loop ids, initiators and other port types, a gone target.
const char* const IOCTL_LOOP = R"json({"name": "ioctl-loop", "adapters": [
  {"id": "plover0", "device_id": "0x2051", "serial_number": "VXP20510001", "channel": "ioctl", "functions": [
    {"pci_address": "0000:05:00.0", "port": {"host_no": 1, "port_id": "0x010200", "remote_ports": [
      {"number": 0, "wwpn": "50:00:00:00:00:00:00:10", "port_id": "0x000000", "loop_id": 0, "scsi_target_id": 0,
       "luns": [{"lun": 0}]},
      {"number": 1, "wwpn": "50:00:00:00:00:00:01:10", "port_id": "0x000000", "loop_id": 127, "scsi_target_id": 1},
      {"number": 2, "wwpn": "50:00:00:00:00:00:02:10", "port_id": "0x010600", "roles": "FCP Initiator"},
      {"number": 3, "wwpn": "50:00:00:00:00:00:03:10", "port_id": "0x010700", "state": "Blocked",
       "scsi_target_id": 2, "luns": [{"lun": 0}]},
      {"number": 4, "wwpn": "21:fc:00:00:00:00:00:00", "port_id": "0xfffffc", "roles": "unknown"}]}}]}]})json";

// A call on a handle and a record of type R, for a table of calls.
template <typename R, typename F>
std::function<uint32_t(int, void*)> on(F f) {
    return [f](int d, void* r) { return f(d, static_cast<R*>(r)); };
}

// The port database in a patterned buffer of `size` bytes, with room to
// spare behind it so that a write past `size` shows.
struct Database {
    std::vector<uint8_t> buf;
    uint32_t status = 0;
    Database(int handle, uint16_t mode, uint32_t size) : buf(size + 4 * sizeof(DEVICEINFOENTRY), PATTERN) {
        status = SDGetPortDatabase(handle, mode, info(), size);
    }
    DEVICEINFO* info() { return reinterpret_cast<DEVICEINFO*>(buf.data()); }
    DEVICEINFOENTRY* entry(size_t i) {
        return reinterpret_cast<DEVICEINFOENTRY*>(buf.data() + 8 + i * sizeof(DEVICEINFOENTRY));
    }
};

}  // namespace

SIM_TEST(Queries, NodeConversion, NODE) {
    const std::vector<int> h = open_all(3);  // host 4, its vport 6, host 5
    for (size_t i = 0; i < h.size(); ++i) {
        SCOPED_TRACE(i);
        auto n = patterned<DEVICENODEPROPERTY>();
        n.BIValid = 0x100;
        ASSERT_EQ(SDGetHbaDeviceNodeProperty(h[i], &n), 0u);
        // At most 15 characters of the model, the rest of the field is the caller's.
        EXPECT_EQ(text(n.Model, 16), "VXW2031-EXTENDE");
        EXPECT_TRUE(untouched(n.Model + 16, sizeof n.Model - 16));
        EXPECT_EQ(text(n.Manufacturer, sizeof n.Manufacturer), "Varnex Corporation");
        EXPECT_EQ(text(n.SerialNumber, sizeof n.SerialNumber), "K12345");
        EXPECT_EQ(text(n.FirmwareVersion, sizeof n.FirmwareVersion), "8.05.63 (d0d5)");
        EXPECT_NE(text(n.OptionRomVersion, sizeof n.OptionRomVersion).find("3.18"), std::string::npos) << "from VPD";
        EXPECT_EQ(n.BIValid, 0x107u) << "the validity bits are added to the caller's";
        EXPECT_EQ(bytes(n.BIFwVersion, 12), (std::vector<uint8_t>{8, 5, 63, 0, 6, 1, 0, 0, 4, 2, 0, 0}));
        // Not a multi-processor board: its fields stay the caller's.
        EXPECT_TRUE(untouched(n.MpiFwVersion, 16));
        EXPECT_TRUE(untouched(n.Reserved, sizeof n.Reserved));
        EXPECT_EQ(n.InterfaceType, i == 1 ? 3 : 1);
        EXPECT_EQ(n.NumberOfPorts, i == 1 ? 2 : 1) << "a physical port counts one, a virtual one its board's";
        EXPECT_EQ(bytes(n.WWN, 8), wwn(i == 1 ? 0x2001001d5a203104 : i == 0 ? 0x2000001d5a203104 : 0x2000001d5a203105));
    }
}

SIM_TEST(Queries, MultiProcessorBoardReportsRunningAndFlashVersions, CONVERGED) {
    const std::vector<int> h = open_all(3);
    auto n = patterned<DEVICENODEPROPERTY>();
    ASSERT_EQ(SDGetHbaDeviceNodeProperty(h[2], &n), 0u);
    // The running versions go to the plain fields, the copies in flash to the BI ones.
    EXPECT_EQ(bytes(n.MpiFwVersion, 3), (std::vector<uint8_t>{2, 1, 4}));
    EXPECT_EQ(bytes(n.PepFwVersion, 3), (std::vector<uint8_t>{1, 0, 9}));
    EXPECT_EQ(bytes(n.BIMpiFwVersion, 3), (std::vector<uint8_t>{2, 2, 0}));
    EXPECT_EQ(bytes(n.BIPepFwVersion, 3), (std::vector<uint8_t>{1, 1, 3}));
    EXPECT_EQ(n.BIValid & 0xFF, 0xE7u);

    // The running versions read at discovery are the board's FCoE component versions.
    SD_UINT32 size = 8;
    std::vector<uint8_t> buf(8 + 2 * sizeof(REGIONVERSION), PATTERN);
    EXPECT_EQ(SDGetCnaPortData(h[2], 0, SDM_CNA_FCOE_VERSIONS, buf.data(), &size), SDM_STATUS_BUFFER_TOO_SMALL);
    ASSERT_EQ(size, buf.size());
    ASSERT_EQ(SDGetCnaPortData(h[2], 0, SDM_CNA_FCOE_VERSIONS, buf.data(), &size), 0u);
    const auto* v = reinterpret_cast<const ADAPTERREGIONVERSION*>(buf.data());
    EXPECT_EQ(v->Length, 2u);
    REGIONVERSION r[2];
    memcpy(r, buf.data() + 8, sizeof r);
    EXPECT_EQ((Numbers{r[0].Region, r[0].Location, r[0].VersionLength, r[1].Region}), (Numbers{0x02, 0, 3, 0x09}));
    EXPECT_EQ(bytes(r[1].Version, 3), (std::vector<uint8_t>{1, 0, 9}));
}

SIM_TEST(Queries, PortLinkStateAndSpeedTables, LINKS) {
    struct Row {
        uint8_t state;
        int mode;  // -1: the caller's byte stays
        uint32_t speed;
    };
    const Row rows[] = {
        {3, -1, 0x01}, {2, -1, 0x02}, {1, 2, 0x04}, {1, 2, 0x08},  // down, unknown, loop, FL_Port
        {1, 1, 0x10},  {1, 1, 0x16},  {3, -1, 0x32}, {1, 2, 0x00},  // N_Port, F_Port, fabric, loop in "state"
    };
    const std::vector<int> h = open_all(8);
    for (size_t i = 0; i < h.size(); ++i) {
        SCOPED_TRACE(i);
        auto p = patterned<DEVICEPORTPROPERTY>();
        ASSERT_EQ(SDGetHbaDevicePortProperty(h[i], 0, &p), 0u);
        EXPECT_EQ(p.PortState, rows[i].state);
        EXPECT_EQ(p.ConnectionMode, rows[i].mode < 0 ? PATTERN : rows[i].mode);
        EXPECT_EQ(p.PortSpeed, rows[i].speed);
        EXPECT_EQ(p.PortType, 1);
        EXPECT_TRUE(untouched(p.DeviceName, sizeof p.DeviceName));
        EXPECT_TRUE(untouched(p.Reserved, sizeof p.Reserved));
    }
    auto p = patterned<DEVICEPORTPROPERTY>();
    ASSERT_EQ(SDGetHbaDevicePortProperty(h[0], 0, &p), 0u);
    EXPECT_EQ((Numbers{p.LinkState1, p.LinkState2, p.LinkState3, p.LinkState6}), (Numbers{1, 2, 3, 6}));
}

SIM_TEST(Queries, DiscoveredPortsAndTargets, DISCOVERED) {
    const std::vector<int> h = open_all(1);
    auto p = patterned<DEVICEPORTPROPERTY>();
    ASSERT_EQ(SDGetHbaDevicePortProperty(h[0], 0, &p), 0u);
    EXPECT_EQ(bytes(p.WWN, 11), (std::vector<uint8_t>{0x21, 0, 0, 0x1d, 0x5a, 0x20, 0x61, 0x01, 0x02, 0x01, 0x00}));
    // Counted: ports whose roles are exactly "FCP Target", online or not;
    // targets: the distinct target ids that have LUNs.
    EXPECT_EQ(p.DiscPortCount, 2);
    EXPECT_EQ(p.DiscTargetCount, 3);

    // The indexed list holds the online exact targets only: fewer than counted.
    auto d = patterned<DISCPORTPROPERTY>();
    ASSERT_EQ(SDGetDiscPortProperty(h[0], 0, 0, 0, &d), 0u);
    EXPECT_EQ(bytes(d.NodeWWN, 19), (std::vector<uint8_t>{0x50, 0, 0, 0, 0, 0, 0, 0, 0x50, 0, 0, 0, 0, 0, 0, 0x10, 0x02,
                                                          0x04, 0x00}));
    EXPECT_EQ(d.PortType, 2);
    EXPECT_EQ(d.TargetID, 0);
    EXPECT_EQ(d.LoopID, 0xFFFF);
    EXPECT_EQ(d.Local, PATTERN);
    EXPECT_TRUE(untouched(d.Reserved, sizeof d.Reserved));
    d = patterned<DISCPORTPROPERTY>();
    EXPECT_EQ(SDGetDiscPortProperty(h[0], 0, 1, 0, &d), SDM_STATUS_DEVICE_NOT_FOUND);
    EXPECT_TRUE(untouched(&d, sizeof d));
    EXPECT_EQ(SDGetDiscPortProperty(h[0], 0, 0x10000, 0, &d), 0u) << "the index is 16 bits wide";

    // By target id, a blocked target and one that is also an initiator are targets.
    for (const auto& [tid, wwpn] : {std::pair<uint32_t, uint64_t>{0, 0x5000000000000010}, {2, 0x5000000000000210},
                                    {3, 0x5000000000000510}, {1, 0}, {9, 0}}) {
        SCOPED_TRACE(tid);
        auto t = patterned<DISCTARGETPROPERTY>();
        ASSERT_EQ(SDGetDiscTargetProperty(h[0], 0, tid, 0, &t), wwpn ? 0u : SDM_STATUS_DEVICE_NOT_FOUND);
        if (!wwpn) {
            EXPECT_TRUE(untouched(&t, sizeof t));
            continue;
        }
        EXPECT_EQ(bytes(t.PortWWN, 8), wwn(wwpn));
        EXPECT_EQ(t.TargetID, tid);
        EXPECT_EQ(t.PortType, 2);
        EXPECT_EQ(t.LoopID, 0);
        EXPECT_EQ(t.Local, PATTERN);
    }
}

SIM_TEST(Queries, PortDatabaseTypeMaskAndCapacity, DISCOVERED) {
    const std::vector<int> h = open_all(1);
    const uint64_t t0 = 0x5000000000000010, init = 0x5000000000000110, blocked = 0x5000000000000210,
                   fabric = 0x21fc000000000000, ip = 0x5000000000000410, dual = 0x5000000000000510;
    const std::pair<uint16_t, std::vector<uint64_t>> rows[] = {
        {0x0001, {t0, dual}},  {0x0011, {t0, blocked, dual}},
        {0x0002, {init}},      {0x0004, {fabric}},
        {0x0008, {ip}},        {0x000F, {t0, init, fabric, dual, ip}},
        {0x0020, {}},  // not a mask bit: nothing is selected
        {0x1000, {t0, init, blocked, fabric, dual, ip}},
    };
    for (const auto& [mode, wwpns] : rows) {
        SCOPED_TRACE(mode);
        Database db(h[0], mode, 4096);
        ASSERT_EQ(db.status, 0u);
        ASSERT_EQ(db.info()->TotalDevices, wwpns.size());
        ASSERT_EQ(db.info()->ReturnListEntryCount, wwpns.size());
        for (size_t i = 0; i < wwpns.size(); ++i)
            EXPECT_EQ(bytes(db.entry(i)->PortWWN, 8), wwn(wwpns[i])) << i;
    }

    struct Row {
        uint32_t size, status, written;  // of the three online and blocked targets (mode 0x11)
    };
    for (const Row& r : {Row{300, SDM_STATUS_BUFFER_TOO_SMALL, 1}, Row{591, SDM_STATUS_BUFFER_TOO_SMALL, 1},
                         Row{592, SDM_STATUS_BUFFER_TOO_SMALL, 2}, Row{884, 0, 3},
                         Row{299, SDM_STATUS_BUFFER_TOO_SMALL, 0}}) {  // room for the header alone
        SCOPED_TRACE(r.size);
        Database db(h[0], 0x11, r.size);
        ASSERT_EQ(db.status, r.status);
        EXPECT_EQ(db.info()->TotalDevices, 3u);
        EXPECT_EQ(db.info()->ReturnListEntryCount, r.written);
        // Nothing past the entries written, never past the size given.
        const size_t end = 8 + r.written * sizeof(DEVICEINFOENTRY);
        EXPECT_LE(end, r.size);
        EXPECT_TRUE(untouched(db.buf.data() + end, db.buf.size() - end));
    }
    Database db(h[0], 0x11, 7);  // not even the header fits: nothing is written
    EXPECT_EQ(db.status, SDM_STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(untouched(db.buf.data(), db.buf.size()));
}

SIM_TEST(Queries, TargetLunListDecodesAddressMethods, DISCOVERED) {
    const std::vector<int> h = open_all(1);
    // 16640 and 17409 are flat-space LUNs 256 and 1025, 32775 logical unit 7.
    std::vector<SD_UINT16> luns(6, 0xA5A5);
    SD_UINT32 count = 6;
    ASSERT_EQ(SDGetTargetLunList(h[0], 0, luns.data(), &count), 0u);
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(luns, (std::vector<SD_UINT16>{0, 5, 7, 256, 1025, 0xA5A5}));

    // Too small: the true count and the first LUNs.
    luns.assign(4, 0xA5A5);
    count = 2;
    ASSERT_EQ(SDGetTargetLunList(h[0], 0, luns.data(), &count), SDM_STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(luns, (std::vector<SD_UINT16>{0, 5, 0xA5A5, 0xA5A5}));
    count = 0;
    ASSERT_EQ(SDGetTargetLunList(h[0], 0, nullptr, &count), SDM_STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 5u);

    // Only online ports whose roles are exactly "FCP Target" (not the blocked
    // target 2, nor target 3, also an initiator); ids above 255 cannot be asked.
    for (uint16_t tid : {2, 3, 1, 9}) {
        count = 4;
        EXPECT_EQ(SDGetTargetLunList(h[0], tid, luns.data(), &count), SDM_STATUS_DEVICE_NOT_FOUND) << tid;
    }
    count = 4;
    EXPECT_EQ(SDGetTargetLunList(h[0], 256, luns.data(), &count), SDM_STATUS_NOT_SUPPORTED);
    count = 4;
    EXPECT_EQ(SDGetTargetLunList(h[0], 0, nullptr, &count), SDM_STATUS_INVALID_PARAMETER);
}

namespace {

// Targets whose ids or LUNs do not fit the LUN list's record: target 300
// (whose low byte is target 44's id) and flat LUN 4100 (20484) past every
// map, beside LUN 3 of the same target.
std::string wide_targets(const char* channel) {
    return std::string(R"json({"name": "wide", "adapters": [
  {"id": "tern0", "device_id": "0x2061", "serial_number": "VXT20610001", "channel": ")json") +
           channel + R"json(", "functions": [
    {"pci_address": "0000:07:00.0", "port": {"host_no": 1, "wwpn": "21:00:00:1d:5a:20:61:01", "remote_ports": [
       {"number": 0, "wwpn": "50:00:00:00:00:00:00:10", "scsi_target_id": 300, "luns": [{"lun": 2}]},
       {"number": 1, "wwpn": "50:00:00:00:00:00:01:10", "scsi_target_id": 44, "luns": [{"lun": 1}]},
       {"number": 2, "wwpn": "50:00:00:00:00:00:02:10", "scsi_target_id": 45,
        "luns": [{"lun": 3}, {"lun": 20484}]}]}}]}]})json";
}
const std::string WIDE_SYSFS = wide_targets("sysfs");
const std::string WIDE_IOCTL = wide_targets("ioctl");

void expect_wide_targets() {
    const std::vector<int> h = open_all(1);
    std::vector<SD_UINT16> luns(4, 0xA5A5);
    SD_UINT32 count = 4;
    EXPECT_EQ(SDGetTargetLunList(h[0], 300, luns.data(), &count), SDM_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(count, 4u);
    ASSERT_EQ(SDGetTargetLunList(h[0], 44, luns.data(), &count), 0u);  // its own LUN, not target 300's
    EXPECT_EQ(std::vector<SD_UINT16>(luns.begin(), luns.begin() + count), std::vector<SD_UINT16>{1});
    count = 4;
    EXPECT_EQ(SDGetTargetLunList(h[0], 45, luns.data(), &count), SDM_STATUS_DATA_OVERRUN);  // 4100 not folded
    EXPECT_EQ(std::vector<SD_UINT16>(luns.begin(), luns.begin() + count), std::vector<SD_UINT16>{3});
}

}  // namespace

SIM_TEST(Queries, TargetLunListOfWideTargetsOverSysfs, WIDE_SYSFS.c_str()) { expect_wide_targets(); }
SIM_TEST(Queries, TargetLunListOfWideTargetsOverIoctl, WIDE_IOCTL.c_str()) { expect_wide_targets(); }

SIM_TEST(Queries, ChipDriverAndFirmware, NODE) {
    const std::vector<int> h = open_all(3);
    const std::string pci = "/sys/bus/pci/devices/0000:0a:1c.3/";
    unsigned long long io = 0, io_end = 0, mem = 0, mem_end = 0, flags = 0;
    ASSERT_EQ(sscanf(st::read_text(pci + "resource").c_str(), "%llx %llx %llx %llx %llx", &io, &io_end, &flags, &mem,
                     &mem_end),
              5);
    for (size_t i : {0, 1, 2}) {
        SCOPED_TRACE(i);
        auto c = patterned<CHIPPROPERTY>();
        ASSERT_EQ(SDGetHbaDeviceChipProperty(h[i], &c), 0u);
        EXPECT_EQ((Numbers{c.VendorID, c.DeviceID, c.ChipType, c.SubVendorID, c.PciBusNumber, c.DomainNr}),
                  (Numbers{0x1D5A, 0x2031, 0x2031, 0x1D5A, 0x0A, 0}));
        // Device and function, not the slot alone.
        EXPECT_EQ(c.PciSlotNumber, i == 2 ? (0x1C << 3 | 4) : (0x1C << 3 | 3));
        EXPECT_EQ(c.PortNumber, i == 2 ? 2 : 1);
        // Wren boards train to 5.0 GT/s x8 (speed code 2, width in bits 9:4).
        EXPECT_EQ((Numbers{c.PcieLinkCap, c.PcieLinkStat}), (Numbers{0x82, 0x82}));
        EXPECT_EQ(bytes(c.OutMbx, sizeof c.OutMbx), std::vector<uint8_t>(sizeof c.OutMbx));
        EXPECT_TRUE(untouched(c.Reserved, sizeof c.Reserved));
        EXPECT_EQ(c.Reserved1, PATTERN);
        if (i == 0) {
            EXPECT_EQ((std::vector<unsigned long long>{c.IoAddress, c.IoAddressLength, c.MemoryAddress,
                                                       c.MemoryAddressLength, c.InterruptLevel}),
                      (std::vector<unsigned long long>{io, io_end - io + 1, mem, mem_end - mem + 1,
                                                       std::stoull(st::read_text(pci + "irq"))}));
        }
    }

    auto d = patterned<DRIVERPROPERTY>();
    ASSERT_EQ(SDGetHbaDeviceDriverProperty(h[0], &d), 0u);
    EXPECT_EQ(text(d.Version, sizeof d.Version), "10.02.00.103-k");
    EXPECT_EQ((Numbers{d.NumberOfBus, d.TargetsPerBus, d.LunsPerTarget, d.MaximumDataSegments}),
              (Numbers{1, 512, 256, 256}));
    EXPECT_EQ(d.MaximumTransferLen, 0xFFFFFFFFu);
    EXPECT_TRUE(untouched(d.Reserved, sizeof d.Reserved));

    auto f = patterned<FIRMWAREPROPERTY>();
    ASSERT_EQ(SDGetHbaDeviceFirmwareProperty(h[0], &f), 0u);
    // Binary major, minor, subminor; the rest of the text field stays the caller's.
    EXPECT_EQ(bytes(f.Version, 3), (std::vector<uint8_t>{8, 5, 63}));
    EXPECT_TRUE(untouched(f.Version + 3, sizeof f.Version - 3));
    // From the adapter's running firmware attributes (none reported here).
    EXPECT_EQ((Numbers{f.Attributes, f.AttributesExtended}), (Numbers{0, 0}));
    EXPECT_TRUE(untouched(f.Reserved, sizeof f.Reserved));
}

SIM_TEST(Queries, ConvergedPortData, CONVERGED) {
    const std::vector<int> h = open_all(3);
    struct Row {
        int handle;
        uint16_t vlan;
        std::vector<uint8_t> mac;
        uint16_t fabric_param;
    };
    // The driver's parameter is never passed on: only "no FCF" (0x8000) is.
    for (const Row& r : {Row{h[0], 1002, {0x0e, 0xfc, 0, 1, 2, 3}, 0x8000},
                         Row{h[1], 7, {0x0e, 0xfc, 0, 0x0a, 0x0b, 0x0c}, 0xA5A5}}) {
        auto c = patterned<CNAPORTPROPERTY>();
        SD_UINT32 size = sizeof c;
        ASSERT_EQ(SDGetCnaPortData(r.handle, 0, SDM_CNA_PORT_DATA, reinterpret_cast<SD_UINT8*>(&c), &size), 0u);
        EXPECT_EQ(c.VLanId, r.vlan);
        EXPECT_EQ(bytes(c.VNPortMACAddress, 6), r.mac);
        EXPECT_EQ(c.FabricParam, r.fabric_param);
        EXPECT_TRUE(untouched(&c.Reserved0, sizeof c.Reserved0 + sizeof c.Reserved));
        EXPECT_EQ(size, sizeof c);
    }
    struct Call {
        uint32_t op, size, status, size_after;
    };
    for (const Call& c : {Call{SDM_CNA_PORT_DATA, 127, SDM_STATUS_INVALID_PARAMETER, 127},
                          Call{SDM_CNA_PORT_DATA, 129, SDM_STATUS_INVALID_PARAMETER, 129},
                          Call{SDM_CNA_DCBX_PARAMS, 10, SDM_STATUS_BUFFER_TOO_SMALL, 64},
                          Call{4, 128, SDM_STATUS_INVALID_PARAMETER, 128}}) {
        SCOPED_TRACE(c.op * 1000 + c.size);
        std::vector<uint8_t> buf(256, PATTERN);
        SD_UINT32 size = c.size;
        EXPECT_EQ(SDGetCnaPortData(h[0], 0, c.op, buf.data(), &size), c.status);
        EXPECT_EQ(size, c.size_after);
        EXPECT_TRUE(untouched(buf.data(), buf.size()));
    }
}

namespace {

// One converged port on either channel, for its DCBX parameters.
std::string kite_on(const char* channel) {
    return std::string(R"json({"name": "kite", "adapters": [
  {"id": "kite0", "device_id": "0x2010", "serial_number": "VXK20100001", "channel": ")json") +
           channel + R"json(", "functions": [
    {"pci_address": "0000:04:00.0", "port": {"host_no": 1, "vn_port_mac": "0e:fc:00:01:02:03"}}]}]})json";
}
const std::string KITE_SYSFS = kite_on("sysfs");
const std::string KITE_IOCTL = kite_on("ioctl");

// The link's DCBX record, then the zeroed rest of the caller's size.
void expect_dcbx() {
    const std::vector<int> h = open_all(1);
    std::vector<uint8_t> buf(100, PATTERN);
    SD_UINT32 size = static_cast<SD_UINT32>(buf.size());
    ASSERT_EQ(SDGetCnaPortData(h[0], 0, SDM_CNA_DCBX_PARAMS, buf.data(), &size), 0u);
    EXPECT_EQ(size, 100u);
    std::vector<uint8_t> want(100, 0);
    const std::vector<uint8_t> head = {1, 0, 0, 0, 1, 1, 3, 0x08,          // version, no TLVs, operational, willing,
                                       0, 0, 0, 1, 0, 0, 0, 0,              // FCoE on priority 3 with PFC, in group 1
                                       50, 50, 0, 0, 0, 0, 0, 0,            // half the link each
                                       0x0e, 0xfc, 0x00, 0x01, 0x02, 0xfc};  // the peer's MAC
    std::copy(head.begin(), head.end(), want.begin());
    EXPECT_EQ(buf, want);
}

}  // namespace

SIM_TEST(Queries, DcbxParametersOverSysfs, KITE_SYSFS.c_str()) { expect_dcbx(); }
SIM_TEST(Queries, DcbxParametersOverIoctl, KITE_IOCTL.c_str()) { expect_dcbx(); }

// Two boards without serial numbers: a virtual port counts the functions of
// its own board only.
const char* const NO_SERIALS = R"json({"name": "no-serials", "adapters": [
  {"id": "swift0", "device_id": "0x1051", "serial_number": "", "functions": [
    {"pci_address": "0000:03:00.0", "port": {"host_no": 2}, "vports": [{"host_no": 8}]},
    {"pci_address": "0000:03:00.1", "port": {"host_no": 3}}]},
  {"id": "egret0", "device_id": "0x1040", "serial_number": "", "functions": [
    {"pci_address": "0000:05:00.0", "port": {"host_no": 5}}]}]})json";

SIM_TEST(Queries, VirtualPortCountsThePortsOfItsOwnBoard, NO_SERIALS) {
    const std::vector<int> h = open_all(4);  // hosts 2, 8, 3, 5
    auto n = patterned<DEVICENODEPROPERTY>();
    ASSERT_EQ(SDGetHbaDeviceNodeProperty(h[1], &n), 0u);
    EXPECT_EQ(n.InterfaceType, 3);
    EXPECT_EQ(n.NumberOfPorts, 2);
}

// The port id is read on every query: a port whose link comes up after the
// library loaded reports its new address.
SIM_TEST(Queries, PortIdIsReadLive, DISCOVERED) {
    const std::vector<int> h = open_all(1);
    {
        FILE* fp = fopen("/sys/class/fc_host/host1/port_id", "w");
        ASSERT_NE(fp, nullptr);
        fputs("0x0a0b0c\n", fp);
        fclose(fp);
    }
    auto p = patterned<DEVICEPORTPROPERTY>();
    ASSERT_EQ(SDGetHbaDevicePortProperty(h[0], 0, &p), 0u);
    EXPECT_EQ(bytes(p.PortID, 3), (std::vector<uint8_t>{0x0a, 0x0b, 0x0c}));
}

SIM_TEST(Queries, BadHandlesAndNullRecordsLeaveTheCallerAlone, "default.json") {
    const std::vector<int> h = open_all(4);
    SD_UINT32 size = 128, count = 8;
    const std::pair<const char*, std::function<uint32_t(int, void*)>> calls[] = {
        {"node", on<DEVICENODEPROPERTY>(SDGetHbaDeviceNodeProperty)},
        {"port", on<DEVICEPORTPROPERTY>([](int d, auto* r) { return SDGetHbaDevicePortProperty(d, 0, r); })},
        {"chip", on<CHIPPROPERTY>(SDGetHbaDeviceChipProperty)},
        {"driver", on<DRIVERPROPERTY>(SDGetHbaDeviceDriverProperty)},
        {"firmware", on<FIRMWAREPROPERTY>(SDGetHbaDeviceFirmwareProperty)},
        {"cna", on<SD_UINT8>([&](int d, auto* r) { return SDGetCnaPortData(d, 0, 1, r, &size); })},
        {"discport", on<DISCPORTPROPERTY>([](int d, auto* r) { return SDGetDiscPortProperty(d, 0, 0, 0, r); })},
        {"disctarget", on<DISCTARGETPROPERTY>([](int d, auto* r) { return SDGetDiscTargetProperty(d, 0, 0, 0, r); })},
        {"portdb", on<DEVICEINFO>([](int d, auto* r) { return SDGetPortDatabase(d, 0x1000, r, 2048); })},
        {"luns", on<SD_UINT16>([&](int d, auto* r) { return SDGetTargetLunList(d, 0, r, &count); })},
    };
    for (const auto& [name, call] : calls) {
        SCOPED_TRACE(name);
        for (int bad : {0, -1, h.back() + 1, 0x10000 + h[0]}) {
            std::vector<uint8_t> rec(2048, PATTERN);
            EXPECT_EQ(call(bad, rec.data()), SDM_STATUS_INVALID_HANDLE) << bad;
            EXPECT_TRUE(untouched(rec.data(), rec.size())) << bad;
            // The bad handle is named before the missing record, but for the
            // converged-port call, which refuses its missing buffer first.
            EXPECT_EQ(call(bad, nullptr), name == std::string("cna") ? SDM_STATUS_INVALID_PARAMETER
                                                                     : SDM_STATUS_INVALID_HANDLE)
                << bad;
        }
        EXPECT_EQ(call(h[0], nullptr), SDM_STATUS_INVALID_PARAMETER);
    }
    EXPECT_EQ(size, 128u);
    EXPECT_EQ(count, 8u);
}

// The SD layer's trace: entry and exit, a bad handle, the firmware version
// in hexadecimal, and the exit traces that name the chip and firmware calls
// otherwise.
SIM_TEST(Queries, TraceLinesOfTheCalls, NODE) {
    setenv("VX_FCAPI_DEBUG", "22", 1);  // errors and the SD layer
    const std::vector<int> h = open_all(3);
    DEVICENODEPROPERTY n{};
    CHIPPROPERTY c{};
    FIRMWAREPROPERTY f{};
    EXPECT_EQ(SDGetHbaDeviceNodeProperty(h[0], &n), 0u);
    EXPECT_EQ(SDGetHbaDeviceNodeProperty(9, &n), SDM_STATUS_INVALID_HANDLE);
    EXPECT_EQ(SDGetHbaDeviceChipProperty(h[0], &c), 0u);
    EXPECT_EQ(SDGetHbaDeviceFirmwareProperty(h[0], &f), 0u);
    EXPECT_EQ(st::trace_lines("SDGetHba", false),
              (std::vector<std::string>{
                  "SDGetHbaDeviceNodeProperty(1): entered.", "SDGetHbaDeviceNodeProperty(1): exiting. ret=0",
                  "SDGetHbaDeviceNodeProperty(9): entered.",
                  "SDGetHbaDeviceNodeProperty: check_handle failed. handle=9",
                  "SDGetHbaDeviceChipProperty(1): entered.", "SDGetHbaChipProperty exiting. ret=0",
                  "SDGetHbaDeviceFirmwareProperty(1): entered.", "SDGetHbaFirmwareProperty: fw version=8 5 3Fh",
                  "SDGetHbaFirmwareProperty exiting. ret=0"}));
}

SIM_TEST(Queries, IoctlLoopAddressesTypesAndGoneTargets, IOCTL_LOOP) {
    const std::vector<int> h = open_all(1);
    // A loop device without a fabric address is reported by its AL_PA.
    Database db(h[0], 0x1000, 4096);
    ASSERT_EQ(db.status, 0u);
    ASSERT_EQ(db.info()->ReturnListEntryCount, 5u);
    EXPECT_EQ(bytes(db.entry(0)->PortID, 3), (std::vector<uint8_t>{0, 0, 0xEF}));
    EXPECT_EQ(db.entry(0)->LoopID, 0);
    EXPECT_EQ(bytes(db.entry(1)->PortID, 3), (std::vector<uint8_t>{0, 0, 0})) << "loop id 127 has no AL_PA";
    EXPECT_EQ(bytes(db.entry(2)->PortID, 3), (std::vector<uint8_t>{0x01, 0x06, 0x00}));

    // Discovered ports of every kind: only types 1 and 2 are passed on.
    for (const auto& [index, type] : {std::pair<uint32_t, uint8_t>{0, 2}, {2, 1}, {4, PATTERN}}) {
        auto d = patterned<DISCPORTPROPERTY>();
        ASSERT_EQ(SDGetDiscPortProperty(h[0], 0, index, 0, &d), 0u) << index;
        EXPECT_EQ(d.PortType, type) << index;
    }

    // A target the driver marks as gone is not found, and nothing is written.
    auto t = patterned<DISCTARGETPROPERTY>();
    EXPECT_EQ(SDGetDiscTargetProperty(h[0], 0, 2, 0, &t), SDM_STATUS_DEVICE_NOT_FOUND);
    EXPECT_TRUE(untouched(&t, sizeof t));
    ASSERT_EQ(SDGetDiscTargetProperty(h[0], 0, 0, 0, &t), 0u);
    EXPECT_EQ(bytes(t.PortWWN, 8), wwn(0x5000000000000010));
}
