// One host, two channels: the same scenario served through sysfs and through
// each extended-ioctl generation must give the same SD results wherever the
// library derives them from the same data. Each variant of a scenario runs
// in a simulated host of its own, which prints a snapshot of every SD result
// (properties, discovered ports and targets, port databases, LUN lists);
// the snapshots are then compared field by field. Also `vxcli list` of the
// shipped hosts, whose adapters are the same on every channel.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "simtest.h"
#include "vsdmgt.h"
#include "vx_adapters.h"

namespace {

namespace st = vxsim::test;
using nlohmann::json;

constexpr const char* SNAPSHOT_ENV = "VXSDM_SNAPSHOT";
constexpr const char* BEGIN = "@@snapshot-begin@@";
constexpr const char* END = "@@snapshot-end@@";

std::string hex(const void* p, size_t n) {
    std::string s;
    char buf[3];
    for (size_t i = 0; i < n; ++i) {
        snprintf(buf, sizeof buf, "%02x", static_cast<const uint8_t*>(p)[i]);
        s += buf;
    }
    return s;
}

template <size_t N>
std::string text(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

std::string status_hex(uint32_t status) {
    char buf[16];
    snprintf(buf, sizeof buf, "0x%08x", status);
    return buf;
}

// ---- The snapshot of one host (runs inside it) ----

// Fields grouped as the records group them; a difference names the group
// and the position in it.
json node_json(int h) {
    DEVICENODEPROPERTY p{};
    const uint32_t status = SDGetHbaDeviceNodeProperty(h, &p);
    return {{"status", status_hex(status)},
            {"WWN", hex(p.WWN, 8)},
            {"texts",
             {text(p.Manufacturer), text(p.Model), text(reinterpret_cast<const char(&)[32]>(p.SerialNumber)),
              text(p.DriverVersion), text(p.FirmwareVersion), text(p.OptionRomVersion)}},
            {"numbers", {p.NumberOfPorts, p.InterfaceType, p.DriverAttributes, p.FirmwareAttributes, p.BIValid}},
            {"versions", hex(reinterpret_cast<const uint8_t*>(&p) + offsetof(DEVICENODEPROPERTY, BIFwVersion), 7 * 4)}};
}

json port_json(int h) {
    DEVICEPORTPROPERTY p{};
    const uint32_t status = SDGetHbaDevicePortProperty(h, 0, &p);
    return {{"status", status_hex(status)},
            {"WWN", hex(p.WWN, 8)},
            {"PortID", hex(p.PortID, 3)},
            {"type_state_mode", {p.PortType, p.PortState, p.ConnectionMode}},
            {"counts", {p.DiscPortCount, p.DiscTargetCount}},
            {"PortSpeed", p.PortSpeed},
            {"LinkState", {p.LinkState1, p.LinkState2, p.LinkState3, p.LinkState6}}};
}

json chip_json(int h) {
    CHIPPROPERTY p{};
    const uint32_t status = SDGetHbaDeviceChipProperty(h, &p);
    return {{"status", status_hex(status)},
            {"ids", {p.VendorID, p.DeviceID, p.SubVendorID, p.SubSystemID}},
            {"location", {p.DomainNr, p.PciBusNumber, p.PciSlotNumber, p.PortNumber}},
            {"resources", {p.IoAddress, p.IoAddressLength, p.MemoryAddress, p.MemoryAddressLength, p.InterruptLevel}},
            {"ChipType", p.ChipType},
            {"OutMbx", hex(p.OutMbx, sizeof p.OutMbx)},
            {"PcieLink", {p.PcieLinkCap, p.PcieLinkStat}}};
}

json driver_json(int h) {
    DRIVERPROPERTY p{};
    const uint32_t status = SDGetHbaDeviceDriverProperty(h, &p);
    return {{"status", status_hex(status)},
            {"Version", text(reinterpret_cast<const char(&)[32]>(p.Version))},
            {"LunsPerTarget", p.LunsPerTarget},
            {"limits", {p.NumberOfBus, p.TargetsPerBus, p.MaximumTransferLen, p.MaximumDataSegments}},
            {"kind", {p.DmaBitAddresses, p.IoMapType, p.Attributes}},
            {"InternalFlags", hex(p.InternalFlags, sizeof p.InternalFlags)}};
}

json firmware_json(int h) {
    FIRMWAREPROPERTY p{};
    const uint32_t status = SDGetHbaDeviceFirmwareProperty(h, &p);
    return {{"status", status_hex(status)}, {"Version", hex(p.Version, 3)}, {"Attributes", {p.Attributes, p.AttributesExtended}}};
}

json cna_json(int h) {
    CNAPORTPROPERTY p{};
    SD_UINT32 size = sizeof p;
    const uint32_t status = SDGetCnaPortData(h, 0, SDM_CNA_PORT_DATA, reinterpret_cast<SD_UINT8*>(&p), &size);
    return {{"status", status_hex(status)}, {"values", {p.VLanId, hex(p.VNPortMACAddress, 6), p.FabricParam}}};
}

json disc_json(const DISCPORTPROPERTY& p) {
    return {{"NodeWWN", hex(p.NodeWWN, 8)}, {"PortID", hex(p.PortID, 3)}, {"BusNumber", p.BusNumber},
            {"TargetID", p.TargetID},       {"PortType", p.PortType},     {"PortState", p.PortState},
            {"LoopID", p.LoopID}};
}

constexpr uint32_t DISC_LIMIT = 64;

// Discovered ports by WWPN, targets by target id: the channels number them
// differently (see the comparison below).
json disc_ports_json(int h) {
    json ports = json::object();
    for (uint32_t i = 0; i < DISC_LIMIT; ++i) {
        DISCPORTPROPERTY p{};
        if (SDGetDiscPortProperty(h, 0, i, 0, &p) != 0)
            break;
        ports[hex(p.PortWWN, 8)] = disc_json(p);
    }
    return ports;
}

json targets_json(int h) {
    json targets = json::object();
    for (uint32_t i = 0; i < DISC_LIMIT; ++i) {
        DISCTARGETPROPERTY p{};
        if (SDGetDiscTargetProperty(h, 0, i, 0, &p) != 0)
            continue;
        json t = disc_json(p);
        t["PortWWN"] = hex(p.PortWWN, 8);
        targets[std::to_string(p.TargetID)] = t;
    }
    return targets;
}

json port_database_json(int h) {
    json out = json::object();
    for (uint16_t mask : {0x0001, 0x0002, 0x0004, 0x0008, 0x0011, 0x001F, 0x1000}) {
        std::vector<uint8_t> buf(8 + 64 * sizeof(DEVICEINFOENTRY));
        auto* info = reinterpret_cast<DEVICEINFO*>(buf.data());
        const uint32_t status = SDGetPortDatabase(h, mask, info, static_cast<SD_UINT32>(buf.size()));
        json j{{"status", status_hex(status)}, {"TotalDevices", info->TotalDevices}};
        json entries = json::array();
        for (uint32_t i = 0; i < info->ReturnListEntryCount && i < 64; ++i) {
            const DEVICEINFOENTRY& e = info->EntryList[i];
            entries.push_back({{"NodeWWN", hex(e.NodeWWN, 8)},
                               {"PortWWN", hex(e.PortWWN, 8)},
                               {"PortID", hex(e.PortID, 3)},
                               {"ControlFlags", e.ControlFlags},
                               {"Target", {e.TargetAddress.BusNumber, e.TargetAddress.TargetID, e.TargetAddress.LUN}},
                               {"DeviceFlags", e.DeviceFlags},
                               {"LoopID", e.LoopID},
                               {"BaseLunNumber", e.BaseLunNumber}});
        }
        j["entries"] = entries;
        char key[8];
        snprintf(key, sizeof key, "%04x", mask);
        out[key] = j;
    }
    return out;
}

// Target ids 0..LUN_TARGETS-1, found or not.
constexpr uint16_t LUN_TARGETS = 8;
constexpr uint32_t LUN_ROOM = 512;

json luns_json(int h) {
    json out = json::object();
    for (uint16_t tid = 0; tid < LUN_TARGETS; ++tid) {
        std::vector<SD_UINT16> luns(LUN_ROOM, 0xFFFF);
        SD_UINT32 count = LUN_ROOM;
        const uint32_t status = SDGetTargetLunList(h, tid, luns.data(), &count);
        json j{{"status", status_hex(status)}};
        if (status == 0 || status == SDM_STATUS_BUFFER_TOO_SMALL) {
            j["count"] = count;
            luns.resize(count < LUN_ROOM ? count : LUN_ROOM);
            j["luns"] = luns;
        }
        out[std::to_string(tid)] = j;
    }
    return out;
}

json snapshot() {
    json ports = json::array();
    const uint32_t n = SDGetNumberOfAdapters();
    for (uint32_t i = 0; i < n; ++i) {
        int handle = 0;
        const uint32_t open = SDOpenDevice(i, &handle);
        json port{{"open", status_hex(open)}};
        if (open == 0) {
            const int h = static_cast<int>(handle);
            port["node"] = node_json(h);
            port["port"] = port_json(h);
            port["chip"] = chip_json(h);
            port["driver"] = driver_json(h);
            port["firmware"] = firmware_json(h);
            port["cna"] = cna_json(h);
            port["disc_ports"] = disc_ports_json(h);
            port["targets"] = targets_json(h);
            port["port_database"] = port_database_json(h);
            port["luns"] = luns_json(h);
        }
        ports.push_back(port);
    }
    // Closed at the end, so that the library stays loaded throughout.
    for (uint32_t i = 0; i < n; ++i)
        SDCloseDevice(i + 1);
    return ports;
}

// In a host started by the comparison (below), print the snapshot and end
// before any test runs.
[[maybe_unused]] const bool snapshot_mode = [] {
    if (!getenv(SNAPSHOT_ENV) || !st::inside())
        return false;
    const std::string out = std::string(BEGIN) + snapshot().dump() + END + "\n";
    fwrite(out.data(), 1, out.size(), stdout);
    fflush(stdout);
    _exit(0);
}();

// ---- Running hosts from the outside ----

// An anonymous file that vxsim inherits, named by /proc/self/fd/N.
class ScenarioFile {
public:
    explicit ScenarioFile(const std::string& text) : fd_(memfd_create("cross-channel", 0)) {
        if (fd_ >= 0 && write(fd_, text.data(), text.size()) == static_cast<ssize_t>(text.size()))
            path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    ~ScenarioFile() {
        if (fd_ >= 0)
            close(fd_);
    }
    ScenarioFile(const ScenarioFile&) = delete;
    ScenarioFile& operator=(const ScenarioFile&) = delete;
    const std::string& path() const { return path_; }

private:
    int fd_;
    std::string path_;
};

void skip_test(const std::string& why) { GTEST_SKIP() << why; }

// False (with the test skipped or failed) when the simulator cannot run here.
bool simulator_ran(const st::Output& out) {
    if (out.status == 2 && out.text.find("vxsim: needs root and mount namespaces") != std::string::npos) {
        const char* require = getenv("VXSIM_REQUIRE");
        if (require && std::string(require) == "1")
            ADD_FAILURE() << "VXSIM_REQUIRE=1 but the simulator cannot run here:\n" << out.text;
        else
            skip_test("the simulator cannot run here");
        return false;
    }
    return true;
}

std::string self_path() {
    char buf[4096];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

// The snapshot of a host built from `scenario`; null when it could not be taken.
json host_snapshot(const json& scenario, const std::string& label) {
    ScenarioFile file(scenario.dump());
    if (file.path().empty()) {
        ADD_FAILURE() << "cannot hand the scenario to vxsim";
        return nullptr;
    }
    const st::Output out = st::run_vxsim(
        {"run", "--scenario", file.path(), "--", "env", std::string(SNAPSHOT_ENV) + "=1", self_path()});
    if (!simulator_ran(out))
        return nullptr;
    const size_t begin = out.text.find(BEGIN);
    const size_t end = out.text.find(END);
    if (out.status != 0 || begin == std::string::npos || end == std::string::npos || end < begin) {
        ADD_FAILURE() << label << ": no snapshot (status " << out.status << "):\n" << out.text;
        return nullptr;
    }
    const size_t from = begin + strlen(BEGIN);
    return json::parse(out.text.substr(from, end - from), nullptr, false);
}

json load_scenario(const std::string& name) {
    std::ifstream in(st::scenario_dir() + "/" + name + ".json");
    return json::parse(in, nullptr, false);
}

// The scenario with every adapter on one channel, bound to a driver that
// channel serves.
json on_channel(json scenario, const std::string& channel) {
    for (json& a : scenario["adapters"]) {
        a["channel"] = channel;
        a["driver_name"] = channel == "legacy" ? "vxfcdra" : "vxfcdrv";
    }
    return scenario;
}

bool older_generation_serves(const json& scenario) {
    for (const json& a : scenario["adapters"])
        if (!vx_adapter_has(static_cast<uint16_t>(std::stoul(a["device_id"].get<std::string>(), nullptr, 16)),
                            VX_MARK_IOCTL_O))
            return false;
    return true;
}

// ---- Comparing snapshots ----

struct Difference {
    std::string path;  // JSON pointer
    json sysfs, ioctl;
};

// Where the two snapshots differ, down to single values.
void differences(const json& a, const json& b, const std::string& path, std::vector<Difference>& out) {
    if (a.is_object() && b.is_object()) {
        for (const auto& [k, v] : a.items())
            differences(v, b.contains(k) ? b[k] : json(), path + "/" + k, out);
        for (const auto& [k, v] : b.items())
            if (!a.contains(k))
                differences(json(), v, path + "/" + k, out);
        return;
    }
    if (a.is_array() && b.is_array() && a.size() == b.size() && !a.empty() && a[0].is_structured()) {
        for (size_t i = 0; i < a.size(); ++i)
            differences(a[i], b[i], path + "/" + std::to_string(i), out);
        return;
    }
    if (a != b)
        out.push_back({path, a, b});
}

// What legitimately differs between sysfs and the extended ioctl, and why.
enum class Side { either, only_sysfs, only_ioctl };  // whole entries present on one side only
struct Allowed {
    const char* path;  // regular expression over the difference's path
    Side side;
    const char* why;
};

const Allowed ALLOWED[] = {
    {R"(^/\d+/driver/LunsPerTarget$)", Side::either,
     "the driver-capability bits (features 0x40/0x100) are taken from the ioctl driver's data at discovery; "
     "sysfs discovery has no such step, so its ports keep the smaller LUN count"},
    {R"(^/\d+/disc_ports/[0-9a-f]{16}$)", Side::only_ioctl,
     "the sysfs twin lists the online FCP target ports only; the driver lists every remote port"},
    {R"(^/\d+/targets/\d+$)", Side::only_sysfs,
     "the sysfs twin finds a target by its LUN entries whatever its state; the driver reports a target that is "
     "not online as gone (device not found)"},
    {R"(^/\d+/(disc_ports/[0-9a-f]{16}|targets/\d+)/PortState$)", Side::either,
     "the sysfs twins leave the state bits 0; the driver reports them (0x2 online)"},
    {R"(^/\d+/targets/\d+/LoopID$)", Side::either,
     "the sysfs target twin leaves LoopID 0; the driver reports the loop id (0xFFFF off a loop)"},
};

bool allowed(const Difference& d) {
    for (const Allowed& a : ALLOWED) {
        if (!std::regex_search(d.path, std::regex(a.path)))
            continue;
        if (a.side == Side::either || (a.side == Side::only_sysfs && d.ioctl.is_null()) ||
            (a.side == Side::only_ioctl && d.sysfs.is_null()))
            return true;
    }
    return false;
}

std::vector<std::string> unexpected_differences(const json& sysfs, const json& ioctl) {
    std::vector<Difference> all;
    differences(sysfs, ioctl, "", all);
    std::vector<std::string> left;
    for (const Difference& d : all)
        if (!allowed(d))
            left.push_back(d.path + ": " + d.sysfs.dump() + " vs " + d.ioctl.dump());
    return left;
}

// ---- The hosts compared ----

// Link states, speeds, converged data, remote ports of every kind, LUNs
// addressed by peripheral and flat (256 and 1025 as the midlayer names them),
// an HP board, a serial number kept only in the VPD, a virtual port.
const char* const EDGES = R"({"name": "edges", "adapters": [
  {"id": "plover0", "device_id": "0x2051", "serial_number": "VXP20510007",
   "functions": [
     {"pci_address": "0000:05:00.0",
      "port": {"host_no": 2, "wwnn": "20:00:00:1d:5a:02:51:07", "wwpn": "21:00:00:1d:5a:02:51:07",
               "port_id": "0x010200", "link_state": "Link Up - FL_Port", "speed": "16 Gbit",
               "fw_state": [3, 1, 2, 3, 4, 5], "fabric_name": "10:00:00:05:1e:34:00:b0",
               "remote_ports": [
                 {"number": 0, "wwnn": "50:06:01:60:88:60:1a:00", "wwpn": "50:06:01:60:08:60:1a:00",
                  "port_id": "0x010400", "scsi_target_id": 0,
                  "luns": [{"lun": 0}, {"lun": 5}, {"lun": 16640}, {"lun": 17409}]},
                 {"number": 1, "wwnn": "50:06:01:60:88:60:1a:01", "wwpn": "50:06:01:60:08:60:1a:01",
                  "port_id": "0x010500", "scsi_target_id": 1, "state": "Blocked", "luns": [{"lun": 0}]},
                 {"number": 2, "wwnn": "20:00:00:1d:5a:99:00:02", "wwpn": "21:00:00:1d:5a:99:00:02",
                  "port_id": "0x010600", "roles": "FCP Initiator"},
                 {"number": 3, "wwnn": "50:06:01:60:88:60:1a:03", "wwpn": "50:06:01:60:08:60:1a:03",
                  "port_id": "0x010700", "scsi_target_id": 2, "roles": "FCP Target, FCP Initiator",
                  "luns": [{"lun": 1}]},
                 {"number": 4, "wwnn": "10:00:00:05:1e:34:00:b0", "wwpn": "20:fc:00:05:1e:34:00:b0",
                  "port_id": "0xfffc01", "roles": "Fabric"}]}},
     {"pci_address": "0000:05:00.1",
      "port": {"host_no": 3, "wwnn": "20:00:00:1d:5a:02:51:17", "wwpn": "21:00:00:1d:5a:02:51:17",
               "has_link_state": false, "link_state": "Link Down", "speed": "unknown"}}]},
  {"id": "kite0", "device_id": "0x2010", "serial_number": "VXK20100003",
   "functions": [{"pci_address": "0000:06:00.0",
     "port": {"host_no": 4, "wwnn": "20:00:00:1d:5a:20:10:04", "wwpn": "21:00:00:1d:5a:20:10:04",
              "link_state": "Link Up - Loop", "speed": "10 Gbit", "vlan_id": 1002,
              "vn_port_mac": "0e:fc:00:01:02:03", "fabric_param": 512}}]},
  {"id": "wren0", "device_id": "0x2031", "serial_number": "VXW20310009", "serial_in_sysfs": false,
   "functions": [{"pci_address": "0000:07:00.0",
     "port": {"host_no": 6, "wwnn": "20:00:00:1d:5a:20:31:06", "wwpn": "21:00:00:1d:5a:20:31:06",
              "link_state": "Link Up - N_Port to N_Port", "speed": "8 Gbit", "max_npiv_vports": 64},
     "vports": [{"host_no": 10, "wwnn": "20:00:00:1d:5a:20:31:0a", "wwpn": "21:00:00:1d:5a:20:31:0a"}]}]},
  {"id": "crane0", "device_id": "0x2070", "serial_number": "VXC20700001", "mpi_version": "2.1.4",
   "pep_version": "1.0.9",
   "functions": [{"pci_address": "0000:08:00.0",
     "port": {"host_no": 11, "wwnn": "20:00:00:1d:5a:20:70:0b", "wwpn": "21:00:00:1d:5a:20:70:0b"}}]},
  {"id": "hp0", "device_id": "0x1011", "subsystem_vendor_id": "0x103c", "subsystem_device_id": "0x7101",
   "serial_number": "HPX12345",
   "functions": [{"pci_address": "0000:09:00.0",
     "port": {"host_no": 12, "wwnn": "20:00:00:1d:5a:10:11:0c", "wwpn": "21:00:00:1d:5a:10:11:0c"}}]}]})";

struct HostCase {
    const char* name;
    json scenario;
};

std::vector<HostCase> host_cases() {
    return {{"ioctl", load_scenario("ioctl")}, {"legacy", load_scenario("legacy")},
            {"edges", json::parse(EDGES)}};
}

}  // namespace

TEST(CrossChannel, SameResultsOnEveryChannel) {
    for (const HostCase& c : host_cases()) {
        ASSERT_TRUE(c.scenario.is_object()) << c.name;
        const json sysfs = host_snapshot(on_channel(c.scenario, "sysfs"), std::string(c.name) + "/sysfs");
        if (IsSkipped() || sysfs.is_null())
            return;
        ASSERT_FALSE(sysfs.empty()) << c.name << ": the sysfs host shows no port";
        std::vector<std::string> channels{"ioctl"};
        if (older_generation_serves(c.scenario))
            channels.push_back("legacy");
        for (const std::string& channel : channels) {
            const json other = host_snapshot(on_channel(c.scenario, channel), std::string(c.name) + "/" + channel);
            if (other.is_null())
                continue;
            const std::vector<std::string> diff = unexpected_differences(sysfs, other);
            std::string listing;
            for (const std::string& d : diff)
                listing += "  " + d + "\n";
            EXPECT_TRUE(diff.empty()) << c.name << ": sysfs and " << channel << " differ:\n" << listing;
        }
    }
}

// `vxcli list` shows the same adapters, column for column, on the shipped
// hosts of each channel (the same host on three channels).
TEST(CrossChannel, VxcliListsTheSameAdapters) {
    const std::string vxcli = std::string(st::vxsim_binary()).replace(st::vxsim_binary().rfind("/sim/vxsim"),
                                                                      std::string("/sim/vxsim").size(),
                                                                      "/tools/vxcli/vxcli");
    if (access(vxcli.c_str(), X_OK) != 0)
        GTEST_SKIP() << "vxcli is not built";
    auto list = [&](const char* scenario) {
        const st::Output out = st::run_vxsim({"run", "--scenario", st::scenario_dir() + "/" + scenario + ".json",
                                              "--", vxcli, "list", "--json"});
        if (!simulator_ran(out))
            return json();
        EXPECT_EQ(out.status, 0) << scenario << ":\n" << out.text;
        json j = json::parse(out.text, nullptr, false);
        EXPECT_FALSE(j.is_discarded()) << scenario << ":\n" << out.text;
        return j;
    };
    const json sysfs = list("default");
    if (IsSkipped() || !sysfs.is_object())
        return;
    ASSERT_TRUE(sysfs.contains("ports") && sysfs["ports"].is_array() && !sysfs["ports"].empty());
    for (const char* scenario : {"ioctl", "legacy"}) {
        const json other = list(scenario);
        ASSERT_TRUE(other.is_object() && other.contains("ports") && other.contains("count")) << scenario;
        EXPECT_EQ(other["count"], sysfs["count"]) << scenario;
        const json& rows = other["ports"];
        ASSERT_EQ(rows.size(), sysfs["ports"].size()) << scenario;
        for (size_t i = 0; i < rows.size(); ++i)
            for (const auto& [key, value] : sysfs["ports"][i].items())
                EXPECT_EQ(rows[i].value(key, json()), value) << scenario << " row " << i << " column " << key;
    }
}
