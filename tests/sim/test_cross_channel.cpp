// One host, two channels: the same scenario served through sysfs and through
// each extended-ioctl generation must give the same SD results wherever the
// library derives them from the same data. Each variant of a scenario runs
// in a simulated host of its own, which prints a snapshot of every SD result
// and of what `vxcli list` shows; the snapshots are then compared record by
// record, byte by byte.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "libtest.h"
#include "vsdmgt.h"

namespace {

namespace st = vxsim::test;
using nlohmann::json;

constexpr const char* SNAPSHOT_ENV = "VXSDM_SNAPSHOT";
constexpr const char* BEGIN = "@@snapshot-begin@@";
constexpr const char* END = "@@snapshot-end@@";

using st::hex;

// ---- The snapshot of one host (taken inside it) ----

// A call's status and the whole record it filled (zeroed before).
template <typename R>
json result(uint32_t status, const R& record) {
    return {status, hex(&record, sizeof record)};
}

// Every SD result of a port: its properties, discovered ports by WWPN and
// targets by target id (the channels number them differently), the port
// database under each type mask and the LUN lists of target ids 0-7. Fields
// that differ by channel for a reason are zeroed before they are kept.
json port_snapshot(int h) {
    DEVICENODEPROPERTY n{};
    DEVICEPORTPROPERTY p{};
    CHIPPROPERTY c{};
    DRIVERPROPERTY d{};
    FIRMWAREPROPERTY f{};
    CNAPORTPROPERTY a{};
    SD_UINT32 size = sizeof a;
    json j{{"node", result(SDGetHbaDeviceNodeProperty(h, &n), n)},
           {"port", result(SDGetHbaDevicePortProperty(h, 0, &p), p)},
           {"chip", result(SDGetHbaDeviceChipProperty(h, &c), c)},
           {"firmware", result(SDGetHbaDeviceFirmwareProperty(h, &f), f)},
           {"cna", result(SDGetCnaPortData(h, 0, SDM_CNA_PORT_DATA, reinterpret_cast<SD_UINT8*>(&a), &size), a)},
           {"disc_ports", json::object()},
           {"targets", json::object()}};
    const uint32_t driver = SDGetHbaDeviceDriverProperty(h, &d);
    d.LunsPerTarget = 0;  // from the capability bits of the ioctl driver's data; sysfs ports keep the smaller count
    j["driver"] = result(driver, d);
    // The sysfs twins leave the state bits and a target's LoopID 0; the driver reports them.
    for (uint32_t i = 0; i < 64; ++i) {
        DISCPORTPROPERTY dp{};
        if (SDGetDiscPortProperty(h, 0, i, 0, &dp) != 0)
            break;
        dp.PortState = 0;
        j["disc_ports"][hex(dp.PortWWN, 8)] = hex(&dp, sizeof dp);
    }
    for (uint32_t i = 0; i < 64; ++i) {
        DISCTARGETPROPERTY t{};
        if (SDGetDiscTargetProperty(h, 0, i, 0, &t) != 0)
            continue;
        t.PortState = 0;
        t.LoopID = 0;
        j["targets"][std::to_string(t.TargetID)] = hex(&t, sizeof t);
    }
    for (uint16_t mask : {0x0001, 0x0002, 0x0004, 0x0008, 0x0011, 0x001F, 0x1000}) {
        std::vector<uint8_t> buf(8 + 64 * sizeof(DEVICEINFOENTRY));
        auto* info = reinterpret_cast<DEVICEINFO*>(buf.data());
        const uint32_t db = SDGetPortDatabase(h, mask, info, static_cast<SD_UINT32>(buf.size()));
        buf.resize(8 + std::min<size_t>(info->ReturnListEntryCount, 64) * sizeof(DEVICEINFOENTRY));
        j["port_database"][std::to_string(mask)] = {db, hex(buf.data(), buf.size())};
    }
    for (uint16_t tid = 0; tid < 8; ++tid) {
        std::vector<SD_UINT16> luns(512, 0xFFFF);
        SD_UINT32 count = 512;
        const uint32_t status = SDGetTargetLunList(h, tid, luns.data(), &count);
        const bool listed = status == 0 || status == SDM_STATUS_BUFFER_TOO_SMALL;
        luns.resize(std::min<SD_UINT32>(count, 512));
        j["luns"][std::to_string(tid)] = listed ? json{status, count, luns} : json(status);
    }
    return j;
}

// In a host started by the comparison (below), print the snapshot and end
// before any test runs: every port's results (ports are closed at the end,
// so that the library stays loaded throughout), then what `vxcli list` shows.
[[maybe_unused]] const bool snapshot_mode = [] {
    if (!getenv(SNAPSHOT_ENV) || !st::inside())
        return false;
    json snapshot{{"ports", json::array()}};
    const uint32_t n = SDGetNumberOfAdapters();
    for (uint32_t i = 0; i < n; ++i) {
        int h = 0;
        const uint32_t open = SDOpenDevice(i, &h);
        snapshot["ports"].push_back(open == 0 ? port_snapshot(h) : json(open));
    }
    for (uint32_t i = 0; i < n; ++i)
        SDCloseDevice(static_cast<int>(i) + 1);
    if (access(st::vxcli_binary().c_str(), X_OK) == 0) {  // its warnings (stderr) come before its JSON
        const std::string text = st::run({st::vxcli_binary(), "--json", "list"}).text;
        const size_t at = std::min(text.find('{'), text.size());
        const json list = json::parse(text.substr(at), nullptr, false);
        snapshot["vxcli"] = {{"warnings", text.substr(0, at)}, {"list", list.is_discarded() ? json(text) : list}};
    }
    const std::string out = std::string(BEGIN) + snapshot.dump() + END + "\n";
    fwrite(out.data(), 1, out.size(), stdout);
    fflush(stdout);
    _exit(0);
}();

// ---- Running hosts from the outside ----

// The snapshot of a host built from `scenario`; null when none was taken
// (the test then failed, or was skipped where the simulator cannot run).
json host_snapshot(const json& scenario, const std::string& label) {
    struct Memfd {  // an anonymous file that vxsim inherits, named by /proc/self/fd/N
        int fd = memfd_create("cross-channel", 0);
        ~Memfd() {
            if (fd >= 0)
                close(fd);
        }
    } file;
    const std::string text = scenario.dump();
    char self[4096] = {};
    if (file.fd < 0 || write(file.fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        readlink("/proc/self/exe", self, sizeof self - 1) <= 0) {
        ADD_FAILURE() << "cannot hand the scenario to vxsim";
        return nullptr;
    }
    const st::Output out = st::run_vxsim({"run", "--scenario", "/proc/self/fd/" + std::to_string(file.fd), "--", "env",
                                          std::string(SNAPSHOT_ENV) + "=1", self});
    if (out.status == 2 && out.text.find("vxsim: needs root and mount namespaces") != std::string::npos) {
        const char* require = getenv("VXSIM_REQUIRE");
        if (require && std::string(require) == "1")
            ADD_FAILURE() << "VXSIM_REQUIRE=1 but the simulator cannot run here:\n" << out.text;
        else
            []() { GTEST_SKIP() << "the simulator cannot run here"; }();
        return nullptr;
    }
    const size_t begin = out.text.find(BEGIN), end = out.text.find(END);
    if (out.status != 0 || begin == std::string::npos || end == std::string::npos || end < begin) {
        ADD_FAILURE() << label << ": no snapshot (status " << out.status << "):\n" << out.text;
        return nullptr;
    }
    const size_t from = begin + strlen(BEGIN);
    const json snapshot = json::parse(out.text.substr(from, end - from), nullptr, false);
    if (snapshot.is_object())
        return snapshot;
    ADD_FAILURE() << label << ": unreadable snapshot:\n" << out.text;
    return nullptr;
}

// The scenario with every adapter on one channel, bound to a driver that channel serves.
json on_channel(json scenario, const std::string& channel) {
    for (json& a : scenario["adapters"]) {
        a["channel"] = channel;
        a["driver_name"] = channel == "legacy" ? "vxfcdra" : "vxfcdrv";
    }
    return scenario;
}

// ---- Comparing snapshots ----

// Where the two snapshots differ, down to single values ("path: sysfs vs
// ioctl"); for records in hex, from the first byte that differs.
void differences(const json& a, const json& b, const std::string& path, std::vector<std::string>& out) {
    if (a.is_object() && b.is_object()) {
        for (const auto& [k, v] : a.items())
            differences(v, b.contains(k) ? b[k] : json(), path + "/" + k, out);
        for (const auto& [k, v] : b.items())
            if (!a.contains(k))
                differences(json(), v, path + "/" + k, out);
    } else if (a.is_array() && b.is_array() && a.size() == b.size()) {
        for (size_t i = 0; i < a.size(); ++i)
            differences(a[i], b[i], path + "/" + std::to_string(i), out);
    } else if (a != b && a.is_string() && b.is_string() && a.dump().size() == b.dump().size() &&
               a.dump().size() > 32) {
        const std::string &x = a.get_ref<const std::string&>(), &y = b.get_ref<const std::string&>();
        const size_t at = static_cast<size_t>(std::mismatch(x.begin(), x.end(), y.begin()).first - x.begin()) / 2 * 2;
        out.push_back(path + " from byte " + std::to_string(at / 2) + ": " + x.substr(at, 16) + " vs " +
                      y.substr(at, 16));
    } else if (a != b) {
        out.push_back(path + ": " + a.dump() + " vs " + b.dump());
    }
}

// Entries that only one channel has, and why.
const char* const ALLOWED[] = {
    // The sysfs twin lists the online FCP target ports only; the driver lists every remote port.
    R"(^/ports/\d+/disc_ports/[0-9a-f]{16}: null vs )",
    // The sysfs twin finds a target by its LUN entries whatever its state; the driver reports a
    // target that is not online as gone (device not found).
    R"(^/ports/\d+/targets/\d+: "[0-9a-f]+" vs null$)",
};

std::string unexpected_differences(const json& sysfs, const json& ioctl) {
    std::vector<std::string> all;
    differences(sysfs, ioctl, "", all);
    std::string left;
    for (const std::string& d : all)
        if (std::none_of(std::begin(ALLOWED), std::end(ALLOWED),
                         [&](const char* re) { return std::regex_search(d, std::regex(re)); }))
            left += "  " + d + "\n";
    return left;
}

// Link states, speeds, converged data, remote ports of every kind, LUNs
// addressed by peripheral and flat (256 and 1025 as the midlayer names them),
// an HP board, a serial number kept only in the VPD, a virtual port.
const char* const EDGES = R"({"name": "edges", "adapters": [
  {"id": "plover0", "device_id": "0x2051", "serial_number": "VXP20510007", "functions": [
    {"pci_address": "0000:05:00.0",
     "port": {"host_no": 2, "wwnn": "20:00:00:1d:5a:02:51:07", "wwpn": "21:00:00:1d:5a:02:51:07",
              "port_id": "0x010200", "link_state": "Link Up - FL_Port", "speed": "16 Gbit",
              "fw_state": [3, 1, 2, 3, 4, 5], "fabric_name": "10:00:00:05:1e:34:00:b0", "remote_ports": [
        {"number": 0, "wwnn": "50:06:01:60:88:60:1a:00", "wwpn": "50:06:01:60:08:60:1a:00", "port_id": "0x010400",
         "scsi_target_id": 0, "luns": [{"lun": 0}, {"lun": 5}, {"lun": 16640}, {"lun": 17409}]},
        {"number": 1, "wwnn": "50:06:01:60:88:60:1a:01", "wwpn": "50:06:01:60:08:60:1a:01", "port_id": "0x010500",
         "scsi_target_id": 1, "state": "Blocked", "luns": [{"lun": 0}]},
        {"number": 2, "wwnn": "20:00:00:1d:5a:99:00:02", "wwpn": "21:00:00:1d:5a:99:00:02", "port_id": "0x010600",
         "roles": "FCP Initiator"},
        {"number": 3, "wwnn": "50:06:01:60:88:60:1a:03", "wwpn": "50:06:01:60:08:60:1a:03", "port_id": "0x010700",
         "scsi_target_id": 2, "roles": "FCP Target, FCP Initiator", "luns": [{"lun": 1}]},
        {"number": 4, "wwnn": "10:00:00:05:1e:34:00:b0", "wwpn": "20:fc:00:05:1e:34:00:b0", "port_id": "0xfffc01",
         "roles": "Fabric"}]}},
    {"pci_address": "0000:05:00.1",
     "port": {"host_no": 3, "wwnn": "20:00:00:1d:5a:02:51:17", "wwpn": "21:00:00:1d:5a:02:51:17",
              "has_link_state": false, "link_state": "Link Down", "speed": "unknown"}}]},
  {"id": "kite0", "device_id": "0x2010", "serial_number": "VXK20100003", "functions": [{"pci_address": "0000:06:00.0",
    "port": {"host_no": 4, "wwnn": "20:00:00:1d:5a:20:10:04", "wwpn": "21:00:00:1d:5a:20:10:04",
             "link_state": "Link Up - Loop", "speed": "10 Gbit", "vlan_id": 1002, "vn_port_mac": "0e:fc:00:01:02:03",
             "fabric_param": 512}}]},
  {"id": "wren0", "device_id": "0x2031", "serial_number": "VXW20310009", "serial_in_sysfs": false,
   "functions": [{"pci_address": "0000:07:00.0",
    "port": {"host_no": 6, "wwnn": "20:00:00:1d:5a:20:31:06", "wwpn": "21:00:00:1d:5a:20:31:06",
             "link_state": "Link Up - N_Port to N_Port", "speed": "8 Gbit", "max_npiv_vports": 64},
    "vports": [{"host_no": 10, "wwnn": "20:00:00:1d:5a:20:31:0a", "wwpn": "21:00:00:1d:5a:20:31:0a"}]}]},
  {"id": "crane0", "device_id": "0x2070", "serial_number": "VXC20700001", "mpi_version": "2.1.4",
   "pep_version": "1.0.9", "functions": [{"pci_address": "0000:08:00.0",
    "port": {"host_no": 11, "wwnn": "20:00:00:1d:5a:20:70:0b", "wwpn": "21:00:00:1d:5a:20:70:0b"}}]},
  {"id": "hp0", "device_id": "0x1011", "subsystem_vendor_id": "0x103c", "subsystem_device_id": "0x7101",
   "serial_number": "HPX12345", "functions": [{"pci_address": "0000:09:00.0",
    "port": {"host_no": 12, "wwnn": "20:00:00:1d:5a:10:11:0c", "wwpn": "21:00:00:1d:5a:10:11:0c"}}]}]})";

}  // namespace

TEST(CrossChannel, SameResultsOnEveryChannel) {
    // The shipped host, whose boards every generation serves, and the edge
    // host, whose newer boards the older generation does not.
    const struct {
        const char* name;
        json scenario;
        std::vector<std::string> channels;
    } hosts[] = {{"default", json::parse(st::read_text(st::scenario_dir() + "/default.json")), {"ioctl", "legacy"}},
                 {"edges", json::parse(EDGES), {"ioctl"}}};
    for (const auto& [name, scenario, channels] : hosts) {
        const json sysfs = host_snapshot(on_channel(scenario, "sysfs"), std::string(name) + "/sysfs");
        if (IsSkipped() || sysfs.is_null())
            return;
        ASSERT_FALSE(sysfs["ports"].empty()) << name << ": the sysfs host shows no port";
        ASSERT_TRUE(sysfs.contains("vxcli") && sysfs["vxcli"]["list"].is_object()) << name << ": no vxcli list";
        for (const std::string& channel : channels) {
            const json other = host_snapshot(on_channel(scenario, channel), std::string(name) + "/" + channel);
            if (!other.is_null()) {
                EXPECT_EQ(unexpected_differences(sysfs, other), "") << name << ": sysfs and " << channel << " differ";
            }
        }
    }
}
