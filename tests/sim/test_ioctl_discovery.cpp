// Extended-ioctl discovery in simulated hosts, through the exported API:
// which ports each record generation finds, the records as the driver saw
// them (the journal), the order in which the channels are tried, and how
// driver statuses and failed requests come back from property calls.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "libtest.h"
#include "root.h"
#include "vsdmgt.h"

namespace {

namespace st = vxsim::test;
using nlohmann::json;

// Errors and the core trace (the trace names each discovered port).
void trace_on() { setenv("VX_FCAPI_DEBUG", "6", 1); }

// A field of the requests whose number ends in `command` (a command byte or a
// whole number): all of them (answered -1), those answered (1) or refused (0).
std::vector<uint32_t> requests_of(const char* command, const char* field, int answered = -1) {
    std::vector<uint32_t> out;
    for (const json& j : st::journal("ioctl"))
        if (j.value("request", std::string()).ends_with(command) &&
            (answered < 0 || (j.value("status", 0u) == 0) == (answered == 1)))
            out.push_back(j.value(field, 0u));
    return out;
}

// One request as "<command byte>[/<sub-code>]:<instance>:<response length>".
std::string request_text(const json& j) {
    const std::string number = j.value("request", std::string());
    std::string s = number.size() >= 2 ? number.substr(number.size() - 2) : number;
    if (s == "00" || s == "06")
        s += "/" + std::to_string(j.value("subcode", 0));
    return s + ":" + std::to_string(j.value("instance", 0)) + ":" + std::to_string(j.value("response_len", 0));
}

// The shipped host on either generation, as discovery traces it: the
// Egret's host 7, the Swift's hosts 2 and 3 and the NPIV port 8 of the first,
// in the driver's order. Their 10.02 drivers report flag 0x04. Of each port
// discovery asks the count (selecting the index in HbaSelect), the selection
// of the index, the driver data, then the node, port and chip queries (no
// VPD: these boards are not of the newer families).
void expect_discovery(const std::string& fn, const std::string& features) {
    std::vector<std::string> added, asked;
    for (const char* port : {"host_no=7 instance=0 drvr_inst=0 interface_type=1",
                             "host_no=2 instance=1 drvr_inst=1 interface_type=1",
                             "host_no=8 instance=2 drvr_inst=2 interface_type=3",
                             "host_no=3 instance=3 drvr_inst=3 interface_type=1"})
        added.push_back(std::string(port) + " features=" + features);
    EXPECT_EQ(st::trace_lines(fn + ": added "), added);
    EXPECT_EQ(st::trace_lines(fn + ": adapter "),
              (std::vector<std::string>{"device_id=1040h port_number=1 serial_num=E40117",
                                        "device_id=1051h port_number=1 serial_num=VXS10510042",
                                        "device_id=1051h port_number=2 serial_num=VXS10510042"}));
    for (int i = 0; i < 4; ++i)
        asked.insert(asked.end(), {"ff:0:0", "fe:" + std::to_string(i) + ":0", "fc:0:64", "00/1:0:696", "00/2:0:56",
                                   "00/8:0:84"});
    std::vector<std::string> sent;
    for (const json& j : st::journal("ioctl")) {
        const std::string text = request_text(j);
        for (const char* prefix : {"ff:", "fe:", "fc:", "00/1:", "00/2:", "00/8:"})  // not the flash steps'
            if (text.starts_with(prefix))
                sent.push_back(text);
    }
    EXPECT_EQ(sent, asked);
    EXPECT_EQ(requests_of("ff", "hba_select"), (std::vector<uint32_t>{0, 1, 2, 3}));
}

// Descriptors of this process open on `path`.
int open_descriptors_of(const std::string& path) {
    int n = 0;
    std::error_code ec;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd", ec))
        n += std::filesystem::read_symlink(fd.path(), ec) == path;
    return n;
}

std::string hex_of(const std::string& bytes_hex, size_t offset, size_t len) {
    return bytes_hex.size() >= 2 * (offset + len) ? bytes_hex.substr(2 * offset, 2 * len) : std::string();
}

// The framing every record of a generation carries, on each request so far
// (VendorSpecificData 2 whatever the command).
void expect_record_frames(bool newer) {
    const std::vector<json> requests = st::journal("ioctl");
    ASSERT_FALSE(requests.empty());
    for (const json& j : requests) {
        const std::string bytes = j.value("bytes", std::string());
        const std::string what = request_text(j);
        EXPECT_TRUE(j.value("request", std::string()).starts_with(newer ? "0xc07479" : "0xc00479")) << what;
        if (newer) {
            ASSERT_EQ(bytes.size(), 2u * 116) << what;
            EXPECT_EQ(hex_of(bytes, 0, 8), "5641524e45580000") << what;  // "VARNEX" and two zero bytes
            EXPECT_EQ(hex_of(bytes, 8, 4), "01000700") << what;          // AddrMode 1, Version 7
            EXPECT_EQ(hex_of(bytes, 76, 8), "0200000000000000") << what;
        } else {
            ASSERT_EQ(bytes.size(), 2u * 68) << what;
            EXPECT_EQ(hex_of(bytes, 0, 4), "5641524e") << what;  // "VARN", no terminator:
            EXPECT_EQ(hex_of(bytes, 4, 4), "01000500") << what;  // AddrMode follows at once, Version 5
            EXPECT_EQ(hex_of(bytes, 64, 4), "02000000") << what;
        }
    }
}

// Which discovery routines ran (their drivers, in order) and which one kept
// the ports; the newer routine always runs first.
void expect_channel_order(const std::vector<std::string>& tried, const std::string& winner, size_t ports) {
    trace_on();
    ASSERT_EQ(SDGetNumberOfAdapters(), ports);
    std::vector<std::string> entered;
    for (const char* fn : {"vxapi_find_all_instances_n", "vxapi_find_all_instances_o"})
        for (const std::string& line : st::trace_lines(std::string(fn) + ": entered. driver="))
            entered.push_back(line);
    EXPECT_EQ(entered, tried);
    EXPECT_EQ(st::trace_lines("vxapi_find_all_instances_n: added ").size(), winner == "newer" ? ports : 0u);
    EXPECT_EQ(st::trace_lines("vxapi_find_all_instances_o: added ").size(), winner == "older" ? ports : 0u);
    EXPECT_EQ(st::trace_lines("vxsysfs_get_driver_devices: >> added ").size(), winner == "sysfs" ? ports : 0u);
}

// One dual-port Swift with an NPIV port, bound to an older driver.
std::string swift_host(const char* driver) {
    return std::string(R"({"name": "swift", "adapters": [{"id": "swift0", "device_id": "0x1051",
        "serial_number": "VXS10510001", "channel": "legacy", "driver_name": ")") + driver + R"(",
        "functions": [
          {"pci_address": "0000:07:00.0", "port": {"host_no": 4, "wwpn": "21:00:00:1d:5a:10:51:04"},
           "vports": [{"host_no": 9, "wwpn": "21:00:00:1d:5a:10:51:09"}]},
          {"pci_address": "0000:07:00.1", "port": {"host_no": 5, "wwpn": "21:00:00:1d:5a:10:51:05"}}]}]})";
}
const std::string SWIFT_ON_C = swift_host("vxfcdrc");
const std::string SWIFT_ON_B = swift_host("vxfcdrb");

}  // namespace

SIM_TEST(IoctlDiscovery, NewerGenerationFindsEveryPort, "ioctl") {
    expect_channel_order({"vxfcdrv"}, "newer", 4);
    expect_discovery("vxapi_find_all_instances_n", "47h");

    // The node is made from the driver's numbers, old encoding, mode 0600.
    struct stat st {};
    ASSERT_EQ(lstat("/dev/vxfcdrv", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(st.st_rdev, dev_t{vxsim::root::MAJOR_IOCTL * 256});
    EXPECT_EQ(st.st_mode & 07777, 0600u);

    // Discovery leaves no node open; the first open of a port opens one.
    EXPECT_EQ(open_descriptors_of("/dev/vxfcdrv"), 0);
    int handle = 0;
    ASSERT_EQ(SDOpenDevice(0, &handle), 0u);
    EXPECT_EQ(open_descriptors_of("/dev/vxfcdrv"), 1);
    EXPECT_EQ(SDCloseDevice(handle), 0u);
    EXPECT_EQ(open_descriptors_of("/dev/vxfcdrv"), 0);
}

SIM_TEST(IoctlDiscovery, OlderGenerationFindsEveryPort, "legacy") {
    expect_channel_order({"vxfcdrv", "vxfcdra"}, "older", 4);
    // The older driver data carries no capability flags: properties read, nothing more.
    expect_discovery("vxapi_find_all_instances_o", "5");
    for (const json& j : st::journal("ioctl")) {
        EXPECT_EQ(j.value("node", std::string()), "legacy");
        EXPECT_EQ(j.value("driver", std::string()), "vxfcdra");
    }
}

// The older driver lists only the ports it drives: a board that the newer
// generation also serves is kept whatever its family.
const char* const OLDER_PLOVER = R"({"name": "older-plover", "adapters": [{"id": "p1", "device_id": "0x2050",
  "serial_number": "VXP20500001", "channel": "legacy", "driver_name": "vxfcdra", "functions": [
  {"pci_address": "0000:01:00.0", "port": {"host_no": 1}}]}]})";

SIM_TEST(IoctlDiscovery, OlderGenerationKeepsEveryBoardItLists, OLDER_PLOVER) {
    trace_on();
    ASSERT_EQ(SDGetNumberOfAdapters(), 1u);
    EXPECT_EQ(st::trace_lines("vxapi_find_all_instances_o: added "),
              (std::vector<std::string>{"host_no=1 instance=0 drvr_inst=0 interface_type=1 features=5"}));
}

// A Swift whose VPD cannot be read: its serial number is computed from the
// node record's bytes with six bits of the first (V72688 has bit 5 set there).
const char* const SWIFT_NO_VPD = R"({"name": "swift-no-vpd", "adapters": [{"id": "s1", "device_id": "0x1051",
  "serial_number": "V72688", "channel": "ioctl", "functions": [{"pci_address": "0000:01:00.0", "port": {"host_no": 1}}]}],
  "faults": [{"endpoint": "ioctl", "match": "0xc0747911", "action": "status:9", "count": -1}]})";

SIM_TEST(IoctlDiscovery, NewerBoardWithoutVpdComputesItsSerialNumber, SWIFT_NO_VPD) {
    trace_on();
    ASSERT_EQ(SDGetNumberOfAdapters(), 1u);
    EXPECT_EQ(st::trace_lines("vxapi_find_all_instances_n: adapter "),
              (std::vector<std::string>{"device_id=1051h port_number=1 serial_num=V72688"}));
}

SIM_TEST(ChannelOrder, EachOlderDriverInTurn, SWIFT_ON_C.c_str()) {
    expect_channel_order({"vxfcdrv", "vxfcdra", "vxfcdrb", "vxfcdrc"}, "older", 3);
}

SIM_TEST(ChannelOrder, SysfsWhenNoNodeAnswers, "default") {
    expect_channel_order({"vxfcdrv", "vxfcdra", "vxfcdrb", "vxfcdrc"}, "sysfs", 4);
}

// The service console has only the first older driver; the others' boards
// are then found through sysfs.
SIM_TEST(ChannelOrder, ServiceConsoleTriesOneOlderDriver, SWIFT_ON_B.c_str()) {
    FILE* marker = fopen("/etc/vmware-release", "we");  // the simulated host's own /etc
    ASSERT_NE(marker, nullptr);
    fputs("VMware ESX 4.1\n", marker);
    fclose(marker);
    expect_channel_order({"vxfcdrv", "vxfcdra"}, "sysfs", 3);
}

// ---- Ports the driver counts but discovery does not keep ----

namespace {

std::string plover(const char* id, const char* device_id, uint32_t host, bool missing) {
    const std::string n = std::to_string(host);
    return std::string(R"({"id": ")") + id + R"(", "device_id": ")" + device_id + R"(", "serial_number": "VXP2050000)" +
           n + R"(", "channel": "ioctl", "functions": [{"pci_address": "0000:0)" + n + R"(:00.0", "ioctl_missing": )" +
           (missing ? "true" : "false") + R"(, "port": {"host_no": )" + n + R"(, "wwpn": "21:00:00:1d:5a:02:50:0)" + n +
           R"("}}]})";
}
const std::string MISSING_INDEX = R"({"name": "missing-index", "adapters": [)" + plover("p1", "0x2050", 1, false) +
                                  "," + plover("p2", "0x2050", 2, true) + "," + plover("p3", "0x2050", 3, false) + "]}";
const std::string UNSUPPORTED_ID = R"({"name": "unsupported-id", "adapters": [)" + plover("p1", "0x2050", 1, false) +
                                   "," + plover("odd", "0x9999", 2, false) + "," + plover("p3", "0x2050", 3, false) +
                                   "]}";

}  // namespace

SIM_TEST(IoctlDiscovery, MissingAdapterIndexIsSkipped, MISSING_INDEX.c_str()) {
    trace_on();
    ASSERT_EQ(SDGetNumberOfAdapters(), 2u);
    EXPECT_EQ(st::trace_lines("vxapi_find_all_instances_n: added "),
              (std::vector<std::string>{"host_no=1 instance=0 drvr_inst=0 interface_type=1 features=47h",
                                        "host_no=3 instance=1 drvr_inst=2 interface_type=1 features=47h"}));
    const std::vector<uint32_t> refused = requests_of("fe", "instance", 0);
    ASSERT_FALSE(refused.empty());
    EXPECT_EQ(refused.front(), 1u);
    EXPECT_EQ(requests_of("fe", "instance", 1), (std::vector<uint32_t>{0, 2}));
}

SIM_TEST(IoctlDiscovery, UnsupportedDeviceIdIsDroppedAndUncounted, UNSUPPORTED_ID.c_str()) {
    trace_on();
    ASSERT_EQ(SDGetNumberOfAdapters(), 2u);
    EXPECT_EQ(st::trace_lines("vxapi_find_all_instances_n: adapter "),
              (std::vector<std::string>{"device_id=2050h port_number=1 serial_num=VXP20500001",
                                        "device_id=2050h port_number=1 serial_num=VXP20500003"}));
    // With the count lowered the walk ends after the third index: no fourth
    // count request, no selection past the driver's ports.
    EXPECT_EQ(requests_of("ff", "hba_select"), (std::vector<uint32_t>{0, 1, 2}));
    EXPECT_EQ(requests_of("fe", "instance", 1), (std::vector<uint32_t>{0, 1, 2}));
    EXPECT_TRUE(requests_of("fe", "instance", 0).empty());
}

// ---- Driver statuses and failed requests through the property calls ----

namespace {

// Statuses 7 and 8 of the node and port queries come back as overrun and
// underrun with the caller's record filled; another status, or a failed
// ioctl (its errno), leaves it as it was. Then the port database: its
// number, 0xC0747906, as the driver generation receives it, and the framing
// of every record of the session.
void expect_statuses(const char* query_number, const char* data_number, bool newer) {
    const struct {
        int subcode;  // 1 node, 2 port
        const char* action;
        uint32_t expected;
        bool filled;
    } cases[] = {
        {1, "status:7", SDM_STATUS_DATA_OVERRUN, true},      {1, "status:8", SDM_STATUS_DATA_UNDERRUN, true},
        {2, "status:7", SDM_STATUS_DATA_OVERRUN, true},      {2, "status:8", SDM_STATUS_DATA_UNDERRUN, true},
        {1, "status:9", SDM_STATUS_DEVICE_NOT_FOUND, false}, {1, "eio", 5, false},
        {2, "enosys", 38, false},
    };
    int handle = 0;
    ASSERT_EQ(SDOpenDevice(0, &handle), 0u);
    const vxsim::HostPort& first = st::scenario().adapters.at(0).functions.at(0).port;
    for (const auto& c : cases) {
        st::arm_fault("ioctl", std::string(query_number) + "/" + std::to_string(c.subcode), c.action);
        DEVICENODEPROPERTY node;
        DEVICEPORTPROPERTY port;
        memset(&node, 0xA5, sizeof node);
        memset(&port, 0xA5, sizeof port);
        const bool is_node = c.subcode == 1;
        const uint32_t status =
            is_node ? SDGetHbaDeviceNodeProperty(handle, &node) : SDGetHbaDevicePortProperty(handle, 0, &port);
        uint64_t wwn = 0;
        for (uint8_t b : is_node ? node.WWN : port.WWN)
            wwn = wwn << 8 | b;
        EXPECT_EQ(status, c.expected) << "sub-code " << c.subcode << " " << c.action;
        EXPECT_EQ(wwn == (is_node ? first.wwnn : first.wwpn), c.filled) << "sub-code " << c.subcode << " " << c.action;
    }

    std::vector<uint8_t> buf(8 + 16 * sizeof(DEVICEINFOENTRY));
    EXPECT_EQ(SDGetPortDatabase(handle, 0x1000, reinterpret_cast<DEVICEINFO*>(buf.data()),
                                static_cast<SD_UINT32>(buf.size())),
              0u);
    EXPECT_EQ(requests_of(data_number, "subcode"), std::vector<uint32_t>{106});  // the port summary, once
    expect_record_frames(newer);
    EXPECT_EQ(SDCloseDevice(handle), 0u);
}

}  // namespace

SIM_TEST(IoctlStatus, NewerDriverStatusesAndErrors, "ioctl") { expect_statuses("0xc0747900", "0xc0747906", true); }

SIM_TEST(IoctlStatus, OlderDriverStatusesAndErrors, "legacy") { expect_statuses("0xc0047900", "0xc0047906", false); }

// A query that fails once during discovery is asked again; one that keeps
// failing loses the port, with a trace line saying so. Both generations.
static void expect_retried_once(const char* port_query, const char* lost_line) {
    const uint32_t all = static_cast<uint32_t>(st::run_children(1, [](int) {
        return static_cast<int>(SDGetNumberOfAdapters());
    }).at(0));
    ASSERT_GT(all, 1u);
    const struct {
        const char* name;
        int failures;
        uint32_t count;
    } cases[] = {{"once", 1, all}, {"twice", 2, all - 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        st::arm_fault("ioctl", port_query, "eio", c.failures);
        const std::vector<int> counts = st::run_children(1, [](int) {
            setenv("VX_FCAPI_DEBUG", "2", 1);
            return static_cast<int>(SDGetNumberOfAdapters());
        });
        EXPECT_EQ(counts, std::vector<int>{static_cast<int>(c.count)});
        EXPECT_EQ(st::trace_lines(lost_line).size(), c.failures == 2 ? 1u : 0u);
    }
}

SIM_TEST(IoctlDiscovery, TransientQueryErrorIsRetriedOnce, "ioctl") {
    expect_retried_once("0xc0747900/2", "vxapi_find_all_instances_n: inst 0 index 0: port lost");
}

SIM_TEST(IoctlDiscovery, OlderDriverTransientQueryErrorIsRetriedOnce, "legacy") {
    expect_retried_once("0xc0047900/2", "vxapi_find_all_instances_o: inst 0 index 0: port lost");
}
