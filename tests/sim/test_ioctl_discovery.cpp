// Extended-ioctl discovery in simulated hosts, through the exported API:
// which ports each record generation finds, the records as the driver saw
// them (the journal), the order in which the channels are tried, and how
// driver statuses and failed requests come back from property calls.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "root.h"
#include "simtest.h"
#include "vsdmgt.h"
#include "vx_adapters.h"

namespace {

namespace st = vxsim::test;
using nlohmann::json;

// Errors and the core trace (the trace names each discovered port).
void trace_on() { setenv("VX_FCAPI_DEBUG", "6", 1); }

// Trace lines of the log (without their time stamps) that contain `marker`,
// from the marker's end on.
std::vector<std::string> trace_lines(const std::string& marker) {
    std::vector<std::string> lines;
    FILE* fp = fopen("/usr/lib/libvxsdm.log", "re");
    if (!fp)
        return lines;
    char buf[512];
    while (fgets(buf, sizeof buf, fp)) {
        std::string line(buf);
        const size_t at = line.find(marker);
        if (at == std::string::npos)
            continue;
        if (!line.empty() && line.back() == '\n')
            line.pop_back();
        lines.push_back(line.substr(at + marker.size()));
    }
    fclose(fp);
    return lines;
}

std::string hex_of(const std::string& bytes_hex, size_t offset, size_t len) {
    return bytes_hex.size() >= 2 * (offset + len) ? bytes_hex.substr(2 * offset, 2 * len) : std::string();
}

std::string le_hex(uint64_t value, size_t len) {
    std::string s;
    char buf[3];
    for (size_t i = 0; i < len; ++i) {
        snprintf(buf, sizeof buf, "%02x", static_cast<unsigned>((value >> (8 * i)) & 0xFF));
        s += buf;
    }
    return s;
}

std::string zeros(size_t len) { return std::string(2 * len, '0'); }

// One request as "<command byte>[/<sub-code>]:<instance>:<response length>".
std::string request_text(const json& j) {
    const std::string number = j.value("request", std::string());
    std::string s = number.size() >= 2 ? number.substr(number.size() - 2) : number;
    if (s == "00" || s == "06")
        s += "/" + std::to_string(j.value("subcode", 0));
    return s + ":" + std::to_string(j.value("instance", 0)) + ":" + std::to_string(j.value("response_len", 0));
}

struct Port {
    uint32_t host_no;
    bool physical;
    uint32_t function;  // position of its PCI function on the board
    const vxsim::Adapter* adapter;
};

// The ports of a scenario in the driver's instance order: each function's
// physical port, then its virtual ports, function by function.
std::vector<Port> scenario_ports() {
    std::vector<Port> ports;
    for (const vxsim::Adapter& a : st::scenario().adapters)
        for (size_t f = 0; f < a.functions.size(); ++f) {
            ports.push_back({a.functions[f].port.host_no, true, static_cast<uint32_t>(f), &a});
            for (const vxsim::HostPort& v : a.functions[f].vports)
                ports.push_back({v.host_no, false, static_cast<uint32_t>(f), &a});
        }
    return ports;
}

std::string hex_id(uint32_t value) {
    char buf[16];
    snprintf(buf, sizeof buf, "%Xh", value);
    return buf;
}

// Every port kept, as discovery traces it, with the features the record
// generation gives: its own node, properties read, and the capability bits
// of a driver new enough to report them (the scenarios' 10.02 drivers with
// flag 0x04).
void expect_ports_found(const char* fn, uint32_t generation_features) {
    std::vector<std::string> added, adapters;
    uint32_t inst = 0;
    for (const Port& p : scenario_ports()) {
        const uint32_t features = generation_features | 0x01 | 0x04 | 0x40;
        added.push_back("host_no=" + std::to_string(p.host_no) + " instance=" + std::to_string(inst) +
                        " drvr_inst=" + std::to_string(inst) + " interface_type=" + (p.physical ? "1" : "3") +
                        " features=" + hex_id(features));
        if (p.physical)
            adapters.push_back("device_id=" + hex_id(p.adapter->device_id) + " port_number=" +
                               std::to_string(p.function + 1) + " serial_num=" + p.adapter->serial_number);
        ++inst;
    }
    EXPECT_EQ(trace_lines(std::string(fn) + ": added "), added);
    EXPECT_EQ(trace_lines(std::string(fn) + ": adapter "), adapters);
}

// What discovery asks of each port: the count, the selection of its index,
// the driver data, the node, port and chip queries, and the VPD of the
// newer families' physical ports (their serial number).
std::vector<std::string> expected_discovery_requests() {
    std::vector<std::string> out;
    uint32_t index = 0;
    for (const Port& p : scenario_ports()) {
        out.push_back("ff:0:0");
        out.push_back("fe:" + std::to_string(index) + ":0");
        out.push_back("fc:0:64");
        out.push_back("00/1:0:696");
        out.push_back("00/2:0:56");
        out.push_back("00/8:0:84");
        const uint16_t id = p.adapter->device_id;
        if (p.physical && vx_adapter_has(id, VX_MARK_NEWER))
            out.push_back("11:0:" + std::string(vx_adapter_family(id) == vx_family::Wren ||
                                                         vx_adapter_family(id) == vx_family::Tern ||
                                                         vx_adapter_family(id) == vx_family::Ibis
                                                     ? "1024"
                                                     : "512"));
        ++index;
    }
    return out;
}

std::vector<std::string> discovery_requests() {
    std::vector<std::string> out;
    for (const json& j : st::journal("ioctl")) {
        const std::string text = request_text(j);
        // Only what discovery itself sends (the flash steps may add more).
        for (const char* prefix : {"ff:", "fe:", "fc:", "00/1:", "00/2:", "00/8:", "11:"})
            if (text.starts_with(prefix))
                out.push_back(text);
    }
    return out;
}

// Descriptors of this process open on `path` (emulated nodes are handles of the node itself).
int open_descriptors_of(const std::string& path) {
    int n = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (!dir)
        return -1;
    while (dirent* e = readdir(dir)) {
        char link[PATH_MAX] = {};
        const std::string fd = std::string("/proc/self/fd/") + e->d_name;
        if (readlink(fd.c_str(), link, sizeof link - 1) > 0 && path == link)
            ++n;
    }
    closedir(dir);
    return n;
}

// The fields every record of a generation carries, checked on each request.
void expect_record_frames(bool newer) {
    const std::vector<json> requests = st::journal("ioctl");
    ASSERT_FALSE(requests.empty());
    for (const json& j : requests) {
        const std::string bytes = j.value("bytes", std::string());
        const std::string what = request_text(j);
        EXPECT_EQ(j.value("generation", std::string()), newer ? "new" : "old") << what;
        EXPECT_EQ(j.value("record", std::string()), newer ? "EXT_IOCTL" : "EXT_IOCTL_O") << what;
        EXPECT_TRUE(j.value("request", std::string()).starts_with(newer ? "0xc07479" : "0xc00479")) << what;
        if (newer) {
            ASSERT_EQ(bytes.size(), 2u * 116) << what;
            EXPECT_EQ(hex_of(bytes, 0, 8), "5641524e45580000") << what;  // "VARNEX" and two zero bytes
            EXPECT_EQ(hex_of(bytes, 8, 4), "01000700") << what;          // AddrMode 1, Version 7
            EXPECT_EQ(hex_of(bytes, 76, 8), le_hex(2, 8)) << what;       // VendorSpecificData
        } else {
            ASSERT_EQ(bytes.size(), 2u * 68) << what;
            EXPECT_EQ(hex_of(bytes, 0, 4), "5641524e") << what;  // "VARN", no terminator:
            EXPECT_EQ(hex_of(bytes, 4, 4), "01000500") << what;  // AddrMode follows at once, Version 5
            EXPECT_EQ(hex_of(bytes, 64, 4), le_hex(2, 4)) << what;
        }
    }
}

// The count request of driver index `index`, byte for byte.
std::string count_record(bool newer, uint32_t index) {
    if (newer)
        return "5641524e45580000" + le_hex(1, 2) + le_hex(7, 2) + zeros(2 + 2) + zeros(4 * 5) + zeros(8 * 2) +
               le_hex(index, 2) + zeros(22) + le_hex(2, 8) + zeros(32);
    return "5641524e" + le_hex(1, 2) + le_hex(5, 2) + zeros(2 + 2) + zeros(4 * 5) + zeros(4 * 2) + le_hex(index, 2) +
           zeros(22) + le_hex(2, 4);
}

std::vector<std::string> count_records() {
    std::vector<std::string> out;
    for (const json& j : st::journal("ioctl"))
        if (j.value("request", std::string()).ends_with("ff"))
            out.push_back(j.value("bytes", std::string()));
    return out;
}

uint32_t open_first_port() {
    int handle = 0;
    EXPECT_EQ(SDOpenDevice(0, &handle), 0u);
    return handle;
}

}  // namespace

SIM_TEST(IoctlDiscovery, NewerGenerationFindsEveryPort, "ioctl") {
    trace_on();
    ASSERT_EQ(SDGetNumberOfAdapters(), scenario_ports().size());
    expect_ports_found("vxapi_find_all_instances_n", 0x02);
    EXPECT_EQ(discovery_requests(), expected_discovery_requests());
    expect_record_frames(true);
    std::vector<std::string> expected_counts;
    for (uint32_t i = 0; i < scenario_ports().size(); ++i)
        expected_counts.push_back(count_record(true, i));
    EXPECT_EQ(count_records(), expected_counts);

    // The node is made from the driver's numbers, old encoding, mode 0600.
    struct stat st {};
    ASSERT_EQ(lstat("/dev/vxfcdrv", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(st.st_rdev, dev_t{vxsim::root::MAJOR_IOCTL * 256});
    EXPECT_EQ(st.st_mode & 07777, 0600u);

    // Discovery leaves no node open; the first open of a port opens one.
    EXPECT_EQ(open_descriptors_of("/dev/vxfcdrv"), 0);
    const uint32_t handle = open_first_port();
    EXPECT_EQ(open_descriptors_of("/dev/vxfcdrv"), 1);
    EXPECT_EQ(SDCloseDevice(handle), 0u);
    EXPECT_EQ(open_descriptors_of("/dev/vxfcdrv"), 0);
}

SIM_TEST(IoctlDiscovery, OlderGenerationFindsEveryPort, "legacy") {
    trace_on();
    ASSERT_EQ(SDGetNumberOfAdapters(), scenario_ports().size());
    expect_ports_found("vxapi_find_all_instances_o", 0);
    EXPECT_EQ(discovery_requests(), expected_discovery_requests());
    expect_record_frames(false);
    std::vector<std::string> expected_counts;
    for (uint32_t i = 0; i < scenario_ports().size(); ++i)
        expected_counts.push_back(count_record(false, i));
    EXPECT_EQ(count_records(), expected_counts);
    for (const json& j : st::journal("ioctl")) {
        EXPECT_EQ(j.value("node", std::string()), "legacy");
        EXPECT_EQ(j.value("driver", std::string()), "vxfcdra");
    }
}

// ---- The order in which the channels are tried ----

namespace {

// Which discovery routines ran (their drivers, in order) and which one kept the ports.
void expect_channel_order(const std::vector<std::string>& tried, const std::string& winner) {
    trace_on();
    ASSERT_EQ(SDGetNumberOfAdapters(), scenario_ports().size());
    std::vector<std::string> entered;
    for (const char* fn : {"vxapi_find_all_instances_n", "vxapi_find_all_instances_o"})
        for (const std::string& line : trace_lines(std::string(fn) + ": entered. driver="))
            entered.push_back(line);
    // The newer routine always runs first; its lines come before the others'.
    EXPECT_EQ(entered, tried);
    const size_t kept_n = trace_lines("vxapi_find_all_instances_n: added ").size();
    const size_t kept_o = trace_lines("vxapi_find_all_instances_o: added ").size();
    const size_t kept_sysfs = trace_lines("vxsysfs_get_driver_devices: >> added ").size();
    EXPECT_EQ(kept_n, winner == "newer" ? scenario_ports().size() : 0u);
    EXPECT_EQ(kept_o, winner == "older" ? scenario_ports().size() : 0u);
    EXPECT_EQ(kept_sysfs, winner == "sysfs" ? scenario_ports().size() : 0u);
}

// One dual-port Swift with an NPIV port, on the channel and driver given.
std::string swift_host(const char* channel, const char* driver) {
    return std::string(R"({"name": "swift", "adapters": [{"id": "swift0", "device_id": "0x1051",
        "serial_number": "VXS10510001", "channel": ")") + channel + R"(", "driver_name": ")" + driver + R"(",
        "functions": [
          {"pci_address": "0000:07:00.0", "port": {"host_no": 4, "wwpn": "21:00:00:1d:5a:10:51:04"},
           "vports": [{"host_no": 9, "wwpn": "21:00:00:1d:5a:10:51:09"}]},
          {"pci_address": "0000:07:00.1", "port": {"host_no": 5, "wwpn": "21:00:00:1d:5a:10:51:05"}}]}]})";
}

const std::string SWIFT_ON_C = swift_host("legacy", "vxfcdrc");
const std::string SWIFT_ON_B = swift_host("legacy", "vxfcdrb");

}  // namespace

SIM_TEST(ChannelOrder, NewerNodeWins, "ioctl") { expect_channel_order({"vxfcdrv"}, "newer"); }

SIM_TEST(ChannelOrder, OlderNodeAfterTheNewer, "legacy") { expect_channel_order({"vxfcdrv", "vxfcdra"}, "older"); }

SIM_TEST(ChannelOrder, EachOlderDriverInTurn, SWIFT_ON_C.c_str()) {
    expect_channel_order({"vxfcdrv", "vxfcdra", "vxfcdrb", "vxfcdrc"}, "older");
}

SIM_TEST(ChannelOrder, SysfsWhenNoNodeAnswers, "default") {
    expect_channel_order({"vxfcdrv", "vxfcdra", "vxfcdrb", "vxfcdrc"}, "sysfs");
}

// The service console has only the first older driver; the others' boards
// are then found through sysfs.
SIM_TEST(ChannelOrder, ServiceConsoleTriesOneOlderDriver, SWIFT_ON_B.c_str()) {
    // The simulated host's /etc is its own: mark it as the service console.
    FILE* marker = fopen("/etc/vmware-release", "we");
    ASSERT_NE(marker, nullptr);
    fputs("VMware ESX 4.1\n", marker);
    fclose(marker);
    expect_channel_order({"vxfcdrv", "vxfcdra"}, "sysfs");
}

// ---- Ports the driver counts but discovery does not keep ----

namespace {

std::string plover(const char* id, const char* device_id, const char* bdf, uint32_t host, bool missing) {
    return std::string(R"({"id": ")") + id + R"(", "device_id": ")" + device_id +
           R"(", "serial_number": "VXP2050000)" + std::to_string(host) + R"(", "channel": "ioctl",
        "functions": [{"pci_address": ")" + bdf + R"(", "ioctl_missing": )" + (missing ? "true" : "false") +
           R"(, "port": {"host_no": )" + std::to_string(host) + R"(, "wwpn": "21:00:00:1d:5a:02:50:0)" +
           std::to_string(host) + R"("}}]})";
}

const std::string MISSING_INDEX = R"({"name": "missing-index", "adapters": [)" +
                                  plover("p1", "0x2050", "0000:04:00.0", 1, false) + "," +
                                  plover("p2", "0x2050", "0000:05:00.0", 2, true) + "," +
                                  plover("p3", "0x2050", "0000:06:00.0", 3, false) + "]}";

const std::string UNSUPPORTED_ID = R"({"name": "unsupported-id", "adapters": [)" +
                                   plover("p1", "0x2050", "0000:04:00.0", 1, false) + "," +
                                   plover("odd", "0x9999", "0000:05:00.0", 2, false) + "," +
                                   plover("p3", "0x2050", "0000:06:00.0", 3, false) + "]}";

std::vector<uint32_t> selections(bool answered) {
    std::vector<uint32_t> out;
    for (const json& j : st::journal("ioctl"))
        if (j.value("request", std::string()).ends_with("fe") && (j.value("status", 0u) == 0) == answered)
            out.push_back(j.value("instance", 0u));
    return out;
}

}  // namespace

SIM_TEST(IoctlDiscovery, MissingAdapterIndexIsSkipped, MISSING_INDEX.c_str()) {
    trace_on();
    ASSERT_EQ(SDGetNumberOfAdapters(), 2u);
    EXPECT_EQ(trace_lines("vxapi_find_all_instances_n: added "),
              (std::vector<std::string>{"host_no=1 instance=0 drvr_inst=0 interface_type=1 features=47h",
                                        "host_no=3 instance=1 drvr_inst=2 interface_type=1 features=47h"}));
    const std::vector<uint32_t> refused = selections(false);
    ASSERT_FALSE(refused.empty());
    EXPECT_EQ(refused.front(), 1u);
    EXPECT_EQ(selections(true), (std::vector<uint32_t>{0, 2}));
}

SIM_TEST(IoctlDiscovery, UnsupportedDeviceIdIsDroppedAndUncounted, UNSUPPORTED_ID.c_str()) {
    trace_on();
    ASSERT_EQ(SDGetNumberOfAdapters(), 2u);
    EXPECT_EQ(trace_lines("vxapi_find_all_instances_n: adapter "),
              (std::vector<std::string>{"device_id=2050h port_number=1 serial_num=VXP20500001",
                                        "device_id=2050h port_number=1 serial_num=VXP20500003"}));
    // With the count lowered the walk ends after the third index: no
    // fourth count request, no selection past the driver's ports.
    EXPECT_EQ(count_records().size(), 3u);
    EXPECT_EQ(selections(true), (std::vector<uint32_t>{0, 1, 2}));
    EXPECT_TRUE(selections(false).empty());
}

// ---- Driver statuses and failed requests through the property calls ----

namespace {

struct StatusCase {
    uint16_t subcode;   // 1 node, 2 port
    const char* action;
    uint32_t expected;  // SD status
    bool filled;        // the caller's record converted
};

constexpr StatusCase STATUS_CASES[] = {
    {1, "status:7", SDM_STATUS_DATA_OVERRUN, true},   {1, "status:8", SDM_STATUS_DATA_UNDERRUN, true},
    {2, "status:7", SDM_STATUS_DATA_OVERRUN, true},   {2, "status:8", SDM_STATUS_DATA_UNDERRUN, true},
    {1, "status:9", SDM_STATUS_DEVICE_NOT_FOUND, false}, {1, "eio", 5, false},
    {2, "enosys", 38, false},
};

// Statuses 7 and 8 of the node and port queries come back as overrun and
// underrun with the caller's record filled; another status, or a failed
// ioctl (its errno), leaves it as it was. Then the port database: its
// number, 0xC0747906, as the driver generation receives it, and every
// record of the session framed as the generation's (VendorSpecificData 2
// whatever the command).
void expect_statuses(const char* query_number, const char* data_number, bool newer) {
    const uint32_t handle = open_first_port();
    const vxsim::HostPort& first = st::scenario().adapters.at(0).functions.at(0).port;
    for (const StatusCase& c : STATUS_CASES) {
        st::arm_fault("ioctl", std::string(query_number) + "/" + std::to_string(c.subcode), c.action);
        uint32_t status = 0;
        uint64_t wwn = 0;
        if (c.subcode == 1) {
            DEVICENODEPROPERTY prop;
            memset(&prop, 0xA5, sizeof prop);
            status = SDGetHbaDeviceNodeProperty(static_cast<int>(handle), &prop);
            for (uint8_t b : prop.WWN)
                wwn = wwn << 8 | b;
            EXPECT_EQ(wwn == first.wwnn, c.filled) << c.action;
        } else {
            DEVICEPORTPROPERTY prop;
            memset(&prop, 0xA5, sizeof prop);
            status = SDGetHbaDevicePortProperty(static_cast<int>(handle), 0, &prop);
            for (uint8_t b : prop.WWN)
                wwn = wwn << 8 | b;
            EXPECT_EQ(wwn == first.wwpn, c.filled) << c.action;
        }
        EXPECT_EQ(status, c.expected) << "sub-code " << c.subcode << " " << c.action;
    }

    std::vector<uint8_t> buf(8 + 16 * sizeof(DEVICEINFOENTRY));
    EXPECT_EQ(SDGetPortDatabase(static_cast<int>(handle), 0x1000, reinterpret_cast<DEVICEINFO*>(buf.data()),
                                static_cast<SD_UINT32>(buf.size())),
              0u);
    int seen = 0;
    for (const json& j : st::journal("ioctl"))
        seen += j.value("request", std::string()) == data_number;
    EXPECT_EQ(seen, 1);
    expect_record_frames(newer);
    EXPECT_EQ(SDCloseDevice(handle), 0u);
}

}  // namespace

SIM_TEST(IoctlStatus, NewerDriverStatusesAndErrors, "ioctl") { expect_statuses("0xc0747900", "0xc0747906", true); }

SIM_TEST(IoctlStatus, OlderDriverStatusesAndErrors, "legacy") {
    expect_statuses("0xc0047900", "0xc0047906", false);
}
