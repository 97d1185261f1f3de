// The extended-ioctl commands in-process: instance space, dispatcher, and
// what the library cannot tell from another channel. The records' contents
// are compared with the sysfs channel's through the library, end to end.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ioctl.h"

using namespace vxsim;
using namespace vxsim::drv;

namespace {

// Egret (0x1040) and HP (0x1011) boards on the newer node, a converged board
// on an older node with a missing function, a sysfs board that no node serves.
const char* const MODEL = R"({"adapters": [
  {"id": "egret", "device_id": "0x1040", "serial_number": "E40117", "channel": "ioctl",
   "functions": [{"pci_address": "0000:03:00.0", "port": {"host_no": 7, "remote_ports": [
     {"number": 0, "wwpn": "0x500000000000000a", "scsi_target_id": 4, "luns": [{"lun": 0}]},
     {"number": 1, "wwpn": "0x500000000000000b", "roles": "FCP Initiator"}]},
     "vports": [{"host_no": 8}]}]},
  {"id": "sysfs", "device_id": "0x2050", "functions": [{"pci_address": "0000:04:00.0", "port": {"host_no": 9}}]},
  {"id": "hp", "device_id": "0x1011", "subsystem_vendor_id": "0x103c", "subsystem_device_id": "0x7101",
   "serial_number": "HP1234567890", "channel": "ioctl",
   "functions": [{"pci_address": "0001:0a:1f.3", "port": {"host_no": 3}}]},
  {"id": "cna", "device_id": "0x2070", "channel": "legacy", "driver_name": "vxfcdrb",
   "functions": [{"pci_address": "0000:05:00.0", "ioctl_missing": true, "port": {"host_no": 5}},
                 {"pci_address": "0000:05:00.1", "port": {"host_no": 6, "vlan_id": 12}}]}
]})";

class Ioctl : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(parse_scenario(MODEL, scenario_, error)) << error;
        sim_ = std::make_unique<Sim>("/nonexistent", scenario_, std::map<std::pair<unsigned, unsigned>, DeviceEntry>{});
        ports_ = ioctl_ports(scenario_, NodeKind::Ioctl, "");
        ASSERT_EQ(ports_.size(), 3u);
    }
    const IoctlPort& egret() const { return ports_[0]; }

    Scenario scenario_;
    std::unique_ptr<Sim> sim_;
    std::vector<IoctlPort> ports_;
};

std::vector<uint32_t> hosts(const std::vector<IoctlPort>& ports) {
    std::vector<uint32_t> out;
    for (const IoctlPort& p : ports)
        out.push_back(p.host->host_no + (p.missing ? 1000 : 0));
    return out;
}

TEST_F(Ioctl, EachNodeServesItsPortsAndSelectsInstances) {
    std::vector<IoctlPort> old = ioctl_ports(scenario_, NodeKind::Legacy, "vxfcdrb");
    EXPECT_EQ(hosts(ports_), (std::vector<uint32_t>{7, 8, 3}));
    EXPECT_EQ(hosts(old), (std::vector<uint32_t>{1005, 6}));
    EXPECT_TRUE(ioctl_ports(scenario_, NodeKind::Legacy, "vxfcdra").empty());
    struct Case {
        const char* what;
        const std::vector<IoctlPort>* ports;
        int32_t selected;
        uint8_t command;
        uint16_t subcode, instance, hba_select;
        size_t request;
        uint32_t status;
        int port;  // -1: none
        uint16_t instance_out, hba_select_out;
    };
    const Case cases[] = {
        {"count with a hole", &old, -1, EXT_CC_GET_HBA_CNT, 0, 9, 0, 0, 0, -1, 2, 0},
        {"select gives the host", &ports_, -1, EXT_CC_SET_INSTANCE, 0, 2, 0, 0, 0, 2, 2, 3},
        {"select past the count", &ports_, -1, EXT_CC_SET_INSTANCE, 0, 3, 0, 0, 9, -1, 3, 0},
        {"select a missing one", &old, -1, EXT_CC_SET_INSTANCE, 0, 0, 0, 0, 9, -1, 0, 0},
        {"unselected: HbaSelect names it", &ports_, -1, EXT_CC_QUERY, 1, 0, 1, 0, 0, 1, 0, 1},
        {"selected wins", &ports_, 0, EXT_CC_QUERY, 1, 0, 1, 0, 0, 0, 0, 1},
        {"HbaSelect names a missing one", &old, -1, EXT_CC_QUERY, 1, 0, 0, 0, 9, -1, 0, 0},
        {"commands it lacks", &ports_, 0, EXT_CC_LOOPBACK, 0, 0, 0, 0, 20, -1, 0, 0},
        {"converged data of an FC port", &ports_, 0, EXT_CC_QUERY, 9, 0, 0, 0, 12, 0, 0, 0},
        {"converged data", &old, 1, EXT_CC_QUERY, 9, 0, 0, 0, 0, 1, 0, 0},
        {"summary without its mask", &ports_, 0, EXT_CC_GET_DATA, 106, 0, 0, 3, 6, 0, 0, 0},
        {"discovered port past the list", &ports_, 0, EXT_CC_QUERY, 3, 2, 0, 0, 9, 0, 2, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        IoctlRequest req{c.command, c.subcode, c.instance, c.hba_select, std::vector<uint8_t>(c.request), 4096};
        IoctlAnswer a = ioctl_dispatch(*sim_, *c.ports, c.selected, req);
        EXPECT_EQ(a.status, c.status);
        EXPECT_EQ(a.port ? static_cast<int>(*a.port) : -1, c.port);
        EXPECT_EQ(a.instance, c.instance_out);
        EXPECT_EQ(a.hba_select, c.hba_select_out);
        EXPECT_EQ(a.select.has_value(), c.command == EXT_CC_SET_INSTANCE && c.status == 0);
        EXPECT_EQ(a.response.empty(), c.status != 0 || c.command != EXT_CC_QUERY);
    }
}

TEST_F(Ioctl, FixedRecordsAreCutAtTheResponseLengthAsAnOverrun) {
    const std::pair<uint16_t, size_t> queries[] = {{1, 696}, {2, 56}, {6, 200}, {7, 200}, {8, 84}};
    for (auto [subcode, size] : queries)
        for (uint32_t room : {uint32_t(size + 100), uint32_t(size), uint32_t(size - 1), 0u}) {
            IoctlAnswer a = ioctl_dispatch(*sim_, ports_, 0, {EXT_CC_QUERY, subcode, 0, 0, {}, room});
            EXPECT_EQ(a.response.size(), std::min<size_t>(size, room)) << subcode << " " << room;
            EXPECT_EQ(a.status, room < size ? 7u : 0u) << subcode << " " << room;
        }
}

TEST_F(Ioctl, MalformedSerialNumbersHaveNoSerialBytes) {
    ASSERT_TRUE(serial_bytes("E40117"));
    for (const char* text : {"", "E4011", "E401170", "e40117", "E4011x", "VXE10400117", "540117"})
        EXPECT_FALSE(serial_bytes(text)) << text;
}

// The LUN map's size follows the driver's capability 0x04: LUN 4095 fits
// only the large one. (The addressing methods are compared with the sysfs
// channel through the library.)
TEST_F(Ioctl, LunMapSizeFollowsTheDriversCapability) {
    Adapter a = *egret().adapter;
    HostPort h;
    h.remote_ports.emplace_back().scsi_target_id = 3;
    h.remote_ports[0].luns.resize(2);
    h.remote_ports[0].luns[0].lun = 7;
    h.remote_ports[0].luns[1].lun = 0x4FFF;
    for (uint32_t flags : {0x04u, 0x00u}) {
        a.driver_flags = flags;
        const size_t size = 32 + 32 + (flags ? 4096 : 2048);  // header, entry, map
        IoctlPort p{&a, 0, &h, true, false};
        ListAnswer list = ioctl_tgt_lun_list(p, static_cast<uint32_t>(size));
        ASSERT_EQ(list.bytes.size(), size) << flags;
        EXPECT_EQ(std::count(list.bytes.begin() + 64, list.bytes.end(), 0x80), flags ? 2 : 1) << flags;
        EXPECT_EQ(list.bytes[64 + 7], 0x80);
        EXPECT_EQ(ioctl_tgt_lun_list(p, static_cast<uint32_t>(size - 1)).status, 6u) << "no entry fits";
    }
}

}  // namespace
