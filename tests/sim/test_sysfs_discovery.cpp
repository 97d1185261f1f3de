// sysfs discovery in simulated hosts, through the exported interface: what
// each discovered port became is read from the library's own sysfs trace
// (one line per accepted port) and from the driver's request journal.
#include <cstdlib>
#include <string>
#include <vector>

#include "libtest.h"
#include "vsdmgt.h"

namespace {

namespace st = vxsim::test;

// Wren function 0000:03:00.0: physical host 5 (link only in "state", serial
// only in VPD, a driver that rejects control code 4) with virtual hosts 7 and
// 6, in that directory order; Plover 0000:04:00.0: host 3 without bsg, a
// driver that accepts code 4; an unsupported device id on 0000:05:00.0.
const char* const DISCOVERY = R"({"name": "discovery", "adapters": [
  {"id": "wren0", "device_id": "0x2031", "serial_number": "VXW20310001", "serial_in_sysfs": false,
   "partial_flash": true,
   "functions": [{"pci_address": "0000:03:00.0", "bsg": true,
     "port": {"host_no": 5, "wwnn": "20:00:00:1d:5a:20:31:05", "wwpn": "21:00:00:1d:5a:20:31:05",
              "port_id": "0x010500", "has_link_state": false, "link_state": "Link Up - Loop"},
     "vports": [{"host_no": 7, "wwnn": "20:00:00:1d:5a:20:31:07", "wwpn": "21:00:00:1d:5a:20:31:07"},
                {"host_no": 6, "wwnn": "20:00:00:1d:5a:20:31:06", "wwpn": "21:00:00:1d:5a:20:31:06"}]}]},
  {"id": "plover0", "device_id": "0x2050", "serial_number": "VXP20500001", "partial_flash": false,
   "functions": [{"pci_address": "0000:04:00.0", "bsg": false,
     "port": {"host_no": 3, "wwnn": "20:00:00:1d:5a:20:50:03", "wwpn": "21:00:00:1d:5a:20:50:03",
              "port_id": "0x010300", "link_state": "Link Up - N_Port to N_Port"}}]},
  {"id": "odd0", "device_id": "0x9999", "serial_number": "ODD0001",
   "functions": [{"pci_address": "0000:05:00.0",
     "port": {"host_no": 9, "wwnn": "20:00:00:1d:5a:99:99:09", "wwpn": "21:00:00:1d:5a:99:99:09"}}]}]})";

const char* const NO_PCI_BUS = R"({"name": "no-pci-bus", "options": {"pci_bus": false}, "adapters": [
  {"id": "plover0", "device_id": "0x2050", "serial_number": "VXP20500001",
   "functions": [{"pci_address": "0000:04:00.0",
     "port": {"host_no": 1, "wwnn": "20:00:00:1d:5a:02:50:01", "wwpn": "21:00:00:1d:5a:02:50:01"}}]}]})";

// The journal's requests of one endpoint on one host, as "<command or op>:<ok|errno>".
std::vector<std::string> requests(const std::string& endpoint, uint32_t host) {
    std::vector<std::string> out;
    for (const nlohmann::json& j : st::journal(endpoint)) {
        if (j.value("host", 0u) != host)
            continue;
        const std::string what = j.contains("cmd") ? j["cmd"].get<std::string>() : j.value("op", std::string());
        out.push_back(what + ":" + (j.contains("errno") ? j["errno"].get<std::string>() : std::string("ok")));
    }
    return out;
}

// Errors, core trace and the sysfs layer.
void trace_discovery() { setenv("VX_FCAPI_DEBUG", "206", 1); }

}  // namespace

SIM_TEST(SysfsDiscovery, PortsInHostOrderWithTheirFlags, DISCOVERY) {
    trace_discovery();
    ASSERT_EQ(SDGetNumberOfAdapters(), 4u);  // the unsupported function contributes nothing

    // Hosts ascending within a function whatever the directory order: 5 is
    // the physical port, 6 and 7 virtual with ids from the bitmap in host
    // order. Host 5: bsg (1000h), chunked flash (80h), topology 1 from
    // "state"; the virtual ports have no control attribute of their own.
    const std::vector<std::string> expected = {
        "host_no=5 instance=0 interface_type=1 features=10A0h topology=1 vp_idx=0",
        "host_no=6 instance=1 interface_type=3 features=1020h topology=8 vp_idx=1",
        "host_no=7 instance=2 interface_type=3 features=1020h topology=8 vp_idx=2",
        "host_no=3 instance=3 interface_type=1 features=20h topology=2 vp_idx=0",
    };
    EXPECT_EQ(st::trace_lines("vxsysfs_get_driver_devices: >> added "), expected);
    EXPECT_EQ(st::trace_lines("vxsysfs_get_driver_devices: >> adapter "),
              (std::vector<std::string>{"device_id=2031h serial_num=VXW20310001",
                                        "device_id=2050h serial_num=VXP20500001"}));

    // The chunking probe writes control code 4 once per physical port; only
    // the port whose serial number is missing from sysfs reads its VPD. The
    // layout table of host 3's board is read through the attribute pair
    // (no bsg there), as the whole flash: its driver takes no partial commands.
    EXPECT_EQ(requests("optrom_ctl", 5), (std::vector<std::string>{"4:EINVAL"}));
    EXPECT_EQ(requests("optrom_ctl", 3), (std::vector<std::string>{"4:ok", "1:ok", "0:ok"}));
    EXPECT_FALSE(requests("vpd", 5).empty());
    EXPECT_TRUE(requests("vpd", 3).empty());
}

SIM_TEST(SysfsDiscovery, NoPciBusFindsNothing, NO_PCI_BUS) {
    trace_discovery();
    EXPECT_EQ(SDGetNumberOfAdapters(), 0u);
    EXPECT_EQ(st::trace_lines("vxsysfs_supported_driver_exist: > no pci bus").size(), 1u);
}
