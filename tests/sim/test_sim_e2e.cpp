// The simulator itself, end to end: what programs see inside a simulated
// host (tools, libsysfs, the tree's layout and texts, device numbers, state
// files, the subcommands) and what the real host sees afterwards (nothing).
#include <dirent.h>
#include <ftw.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sysfs/libsysfs.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>

#include "flash.h"
#include "fsutil.h"
#include "root.h"
#include "simtest.h"
#include "vx_adapters.h"

namespace {

using namespace vxsim;
using namespace vxsim::test;

// ---------------------------------------------------------------- helpers

using Attrs = std::map<std::string, std::string>;

// systool -v output: the attributes of each class device, keyed by the last
// component of its path ("host5", "rport-5:0-2").
std::map<std::string, Attrs> parse_systool(const std::string& text) {
    std::map<std::string, Attrs> out;
    std::string current;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        line.erase(0, line.find_first_not_of(' '));
        auto value_of = [&](const std::string& l) {
            size_t q = l.find('"');
            return q == std::string::npos ? std::string() : l.substr(q + 1, l.rfind('"') - q - 1);
        };
        if (line.starts_with("Class Device path = ")) {
            std::string path = value_of(line);
            current = path.substr(path.find_last_of('/') + 1);
            out[current];
        } else if (line.starts_with("Device = ") || line.starts_with("Class Device = ")) {
            current.clear();  // the parent device's attributes follow
        } else if (!current.empty() && line.find(" = ") != std::string::npos) {
            std::string key = line.substr(0, line.find(' '));
            out[current][key] = value_of(line);
        }
    }
    return out;
}

uint64_t hex(const std::string& s) { return std::strtoull(s.c_str(), nullptr, 16); }

std::string chomp(std::string s) {
    while (!s.empty() && s.back() == '\n')
        s.pop_back();
    return s;
}

std::string sys_text(const std::string& path) { return chomp(read_text("/sys/" + path)); }

// The library's hex attribute conversion: pairs of digits after "0x", left
// to right, into `size` bytes.
std::vector<uint8_t> hex_bytes(const std::string& text, size_t size) {
    std::vector<uint8_t> out(size, 0);
    std::string digits = text.starts_with("0x") ? text.substr(2) : text;
    for (size_t i = 0; i < size && 2 * i + 1 < digits.size(); ++i)
        out[i] = static_cast<uint8_t>(std::stoul(digits.substr(2 * i, 2), nullptr, 16));
    return out;
}

std::vector<uint8_t> big_endian(uint64_t v, size_t size) {
    std::vector<uint8_t> out(size);
    for (size_t i = 0; i < size; ++i)
        out[size - 1 - i] = static_cast<uint8_t>(v >> (8 * i));
    return out;
}

struct HostRef {
    const Adapter* adapter;
    const PciFunction* function;
    const HostPort* port;
    int vport_index;  // -1 for the physical port
};

std::vector<HostRef> hosts_of(const Scenario& s) {
    std::vector<HostRef> out;
    for (const Adapter& a : s.adapters)
        for (const PciFunction& f : a.functions) {
            out.push_back({&a, &f, &f.port, -1});
            for (size_t i = 0; i < f.vports.size(); ++i)
                out.push_back({&a, &f, &f.vports[i], static_cast<int>(i)});
        }
    return out;
}

std::string rport_name(uint32_t host, const RemotePort& r) {
    return "rport-" + std::to_string(host) + ":" + std::to_string(r.channel) + "-" + std::to_string(r.number);
}

std::set<std::string> list_dir(const std::string& dir) {
    std::set<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d))
            if (e->d_name[0] != '.')
                names.insert(e->d_name);
        ::closedir(d);
    }
    return names;
}

// Outside tests need what `vxsim run` needs.
bool simulator_usable() {
    if (::geteuid() == 0)
        return true;
    const char* require = std::getenv("VXSIM_REQUIRE");
    if (require && std::string(require) == "1")
        ADD_FAILURE() << "VXSIM_REQUIRE=1 but not running as root";
    return false;
}

// ---------------------------------------------------------------- tools inside the host

SIM_TEST(SimTools, SystoolShowsEveryFcHost, "default.json") {
    Output out = run({"systool", "-c", "fc_host", "-v"});
    ASSERT_EQ(out.status, 0) << out.text;
    auto devices = parse_systool(out.text);
    std::vector<HostRef> hosts = hosts_of(scenario());
    ASSERT_EQ(hosts.size(), 4u);
    EXPECT_EQ(devices.size(), hosts.size());
    for (const HostRef& h : hosts) {
        std::string name = "host" + std::to_string(h.port->host_no);
        ASSERT_TRUE(devices.count(name)) << name << " missing in:\n" << out.text;
        Attrs& a = devices[name];
        EXPECT_EQ(hex(a["port_name"]), h.port->wwpn) << name;
        EXPECT_EQ(hex(a["node_name"]), h.port->wwnn) << name;
        EXPECT_EQ(hex(a["port_id"]), h.port->port_id) << name;
        EXPECT_EQ(hex(a["fabric_name"]), h.port->fabric_name) << name;
        EXPECT_EQ(a["speed"], h.port->speed) << name;
        EXPECT_EQ(a["port_state"], h.port->port_state) << name;
        EXPECT_EQ(a["port_type"], h.port->port_type) << name;
    }
}

SIM_TEST(SimTools, SystoolShowsRemotePorts, "default.json") {
    Output out = run({"systool", "-c", "fc_remote_ports", "-v"});
    ASSERT_EQ(out.status, 0) << out.text;
    auto devices = parse_systool(out.text);
    size_t expected = 0;
    for (const HostRef& h : hosts_of(scenario()))
        for (const RemotePort& r : h.port->remote_ports) {
            ++expected;
            std::string name = rport_name(h.port->host_no, r);
            ASSERT_TRUE(devices.count(name)) << name << " missing in:\n" << out.text;
            Attrs& a = devices[name];
            EXPECT_EQ(hex(a["port_name"]), r.wwpn) << name;
            EXPECT_EQ(hex(a["node_name"]), r.wwnn) << name;
            EXPECT_EQ(hex(a["port_id"]), r.port_id) << name;
            EXPECT_EQ(a["roles"], r.roles) << name;
            EXPECT_EQ(a["port_state"], r.state) << name;
            EXPECT_EQ(std::atoi(a["scsi_target_id"].c_str()), r.scsi_target_id) << name;
        }
    EXPECT_EQ(devices.size(), expected);
    // The scenario covers what the library distinguishes.
    std::set<std::string> roles, states;
    for (auto& [name, a] : devices) {
        roles.insert(a["roles"]);
        states.insert(a["port_state"]);
    }
    EXPECT_TRUE(roles.count("FCP Initiator") && roles.count("FCP Target"));
    EXPECT_TRUE(states.count("Blocked") && states.count("Online"));
}

SIM_TEST(SimTools, SystoolListsTheDriversPciFunctions, "default.json") {
    Output out = run({"systool", "-b", "pci", "-D"});
    ASSERT_EQ(out.status, 0) << out.text;
    EXPECT_NE(out.text.find("Driver = \"vxfcdrv\""), std::string::npos) << out.text;
    for (const HostRef& h : hosts_of(scenario()))
        EXPECT_NE(out.text.find(h.function->pci_address), std::string::npos) << h.function->pci_address;
}

SIM_TEST(SimTools, LibsysfsFindsAdaptersThroughTheirDriver, "default.json") {
    char mnt[256] = {};
    ASSERT_EQ(sysfs_get_mnt_path(mnt, sizeof mnt), 0);
    EXPECT_STREQ(mnt, "/sys");

    sysfs_bus* bus = sysfs_open_bus("pci");
    ASSERT_NE(bus, nullptr);
    sysfs_driver* drv = sysfs_get_bus_driver(bus, "vxfcdrv");
    ASSERT_NE(drv, nullptr);
    dlist* devs = sysfs_get_driver_devices(drv);
    ASSERT_NE(devs, nullptr);

    std::map<std::string, const Adapter*> expected;
    for (const Adapter& a : scenario().adapters)
        for (const PciFunction& f : a.functions)
            expected[f.pci_address] = &a;
    std::set<std::string> found;
    sysfs_device* dev = nullptr;
    dlist_for_each_data(devs, dev, sysfs_device) {
        found.insert(dev->bus_id);
        ASSERT_TRUE(expected.count(dev->bus_id)) << dev->bus_id;
        const Adapter& a = *expected[dev->bus_id];
        const std::pair<const char*, uint16_t> ids[] = {{"vendor", a.vendor_id},
                                                        {"device", a.device_id},
                                                        {"subsystem_vendor", a.subsystem_vendor_id},
                                                        {"subsystem_device", a.subsystem_device_id}};
        for (const auto& [attr, want] : ids) {
            sysfs_attribute* at = sysfs_get_device_attr(dev, attr);
            ASSERT_NE(at, nullptr) << dev->bus_id << " " << attr;
            EXPECT_EQ(std::strtoul(at->value, nullptr, 16), want) << dev->bus_id << " " << attr;
        }
    }
    EXPECT_EQ(found.size(), expected.size());
    sysfs_close_bus(bus);
}

// ---------------------------------------------------------------- layout and texts

// The library's own walk: from the PCI function's directory, "host*" entries,
// and in each the hosts under its "vport-H:" entries.
SIM_TEST(SimTree, HostWalkFindsPhysicalAndVirtualHosts, "default.json") {
    for (const Adapter& a : scenario().adapters)
        for (const PciFunction& f : a.functions) {
            std::string dev = "/sys/bus/pci/drivers/" + a.driver_name + "/" + f.pci_address;
            std::set<uint32_t> found;
            for (const std::string& h : list_dir(dev)) {
                if (!h.starts_with("host"))
                    continue;
                uint32_t n = static_cast<uint32_t>(std::stoul(h.substr(4)));
                found.insert(n);
                std::string vprefix = "vport-" + std::to_string(n) + ":";
                for (const std::string& v : list_dir(dev + "/" + h))
                    if (v.starts_with(vprefix))
                        for (const std::string& vh : list_dir(dev + "/" + h + "/" + v))
                            if (vh.starts_with("host"))
                                found.insert(static_cast<uint32_t>(std::stoul(vh.substr(4))));
            }
            std::set<uint32_t> expected{f.port.host_no};
            for (const HostPort& v : f.vports)
                expected.insert(v.host_no);
            EXPECT_EQ(found, expected) << f.pci_address;
        }
}

std::vector<std::string> g_bad_links;
size_t g_links = 0;

int check_link(const char* path, const struct stat*, int type, struct FTW*) {
    if (type != FTW_SL && type != FTW_SLN)
        return 0;
    ++g_links;
    char target[4096];
    ssize_t n = ::readlink(path, target, sizeof target - 1);
    std::string t(target, n > 0 ? static_cast<size_t>(n) : 0);
    std::string real = fs::real_path(path);
    if (t.empty() || t[0] == '/' || real.empty() || !real.starts_with("/sys/"))
        g_bad_links.push_back(std::string(path) + " -> " + t);
    return 0;
}

SIM_TEST(SimTree, EveryLinkIsRelativeAndResolvesInsideSys, "default.json") {
    ASSERT_EQ(::nftw("/sys", check_link, 64, FTW_PHYS), 0);
    EXPECT_GT(g_links, 50u);
    EXPECT_TRUE(g_bad_links.empty()) << g_bad_links.size() << " bad links, first: " << g_bad_links.front();
}

// Class entries lead into the device hierarchy exactly where the kernel puts
// them: hosts under their PCI function (NPIV hosts under their vport),
// remote ports under their host, LUNs under their target.
SIM_TEST(SimTree, ClassLinksLeadIntoTheOwningDevice, "default.json") {
    std::set<std::string> luns;
    for (const HostRef& h : hosts_of(scenario())) {
        const std::string n = "host" + std::to_string(h.port->host_no);
        std::string host_dir = fs::real_path("/sys/bus/pci/devices/" + h.function->pci_address);
        ASSERT_FALSE(host_dir.empty()) << h.function->pci_address;
        host_dir += "/host" + std::to_string(h.function->port.host_no);
        if (h.vport_index >= 0)
            host_dir += "/vport-" + std::to_string(h.function->port.host_no) + ":0-" +
                        std::to_string(h.vport_index) + "/" + n;
        EXPECT_EQ(fs::real_path("/sys/class/fc_host/" + n), host_dir + "/fc_host/" + n);
        EXPECT_EQ(fs::real_path("/sys/class/scsi_host/" + n), host_dir + "/scsi_host/" + n);
        EXPECT_EQ(fs::real_path("/sys/class/scsi_host/" + n + "/device"), host_dir);
        EXPECT_EQ(fs::real_path("/sys/class/bsg/fc_" + n), host_dir + "/bsg/fc_" + n);
        for (const RemotePort& r : h.port->remote_ports) {
            const std::string rn = rport_name(h.port->host_no, r);
            const std::string rdir = host_dir + "/" + rn;
            EXPECT_EQ(fs::real_path("/sys/class/fc_remote_ports/" + rn), rdir + "/fc_remote_ports/" + rn);
            for (const Lun& l : r.luns) {
                std::string hct = std::to_string(h.port->host_no) + ":" + std::to_string(r.channel) + ":" +
                                  std::to_string(r.scsi_target_id);
                std::string name = hct + ":" + std::to_string(l.lun);
                luns.insert(name);
                EXPECT_EQ(fs::real_path("/sys/class/scsi_device/" + name),
                          rdir + "/target" + hct + "/" + name + "/scsi_device/" + name);
                // INQUIRY texts, blank-padded to their field widths.
                EXPECT_EQ(read_text("/sys/class/scsi_device/" + name + "/device/vendor"),
                          (l.vendor + "        ").substr(0, 8) + "\n");
            }
        }
    }
    EXPECT_EQ(list_dir("/sys/class/scsi_device"), luns);
    // Functions are bound to their driver through bus/pci and back.
    for (const Adapter& a : scenario().adapters)
        for (const PciFunction& f : a.functions)
            EXPECT_EQ(fs::real_path("/sys/bus/pci/devices/" + f.pci_address + "/driver"),
                      fs::real_path("/sys/bus/pci/drivers/" + a.driver_name));
}

SIM_TEST(SimTree, AttributesReadAsTheLibraryParsesThem, "default.json") {
    for (const HostRef& h : hosts_of(scenario())) {
        const HostPort& p = *h.port;
        const std::string n = std::to_string(p.host_no);
        const std::string sh = "class/scsi_host/host" + n + "/";
        const std::string fh = "class/fc_host/host" + n + "/";
        SCOPED_TRACE("host" + n);
        EXPECT_EQ(hex_bytes(sys_text(fh + "node_name"), 8), big_endian(p.wwnn, 8));
        EXPECT_EQ(hex_bytes(sys_text(fh + "port_name"), 8), big_endian(p.wwpn, 8));
        EXPECT_EQ(hex_bytes(sys_text(fh + "port_id"), 3), big_endian(p.port_id, 3));
        EXPECT_EQ(std::strtoul(sys_text(fh + "max_npiv_vports").c_str(), nullptr, 10), p.max_npiv_vports);
        EXPECT_EQ(std::strtoul(sys_text(sh + "max_npiv_vports").c_str(), nullptr, 10), p.max_npiv_vports);

        unsigned short w[4] = {};
        ASSERT_EQ(std::sscanf(sys_text(sh + "fw_state").c_str(), "0x%hx 0x%hx 0x%hx 0x%*x 0x%*x 0x%hx", &w[0], &w[1],
                              &w[2], &w[3]),
                  4);
        EXPECT_EQ(std::vector<unsigned short>(w, w + 4),
                  (std::vector<unsigned short>{p.fw_state[0], p.fw_state[1], p.fw_state[2], p.fw_state[5]}));

        std::string link = p.has_link_state ? sys_text(sh + "link_state") : sys_text(sh + "state");
        EXPECT_EQ(link, p.link_state);
        EXPECT_EQ(sys_text(sh + "driver_version"), h.adapter->driver_version);
        EXPECT_EQ(sys_text(sh + "fw_version"), h.adapter->fw_version);
        EXPECT_EQ(sys_text(sh + "serial_num"), h.adapter->serial_number);
        EXPECT_EQ(std::strtoul(sys_text(sh + "sg_tablesize").c_str(), nullptr, 10), h.function->sg_tablesize);
        const vx_adapter_type* t = vx_adapter_lookup(h.adapter->device_id);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(sys_text(sh + "model_name"), h.adapter->model_name.empty() ? t->model : h.adapter->model_name);
        if (p.vport_id >= 0)
            EXPECT_EQ(std::strtol(sys_text(sh + "vport_id").c_str(), nullptr, 16), p.vport_id);
        else
            EXPECT_FALSE(fs::exists("/sys/" + sh + "vport_id"));
        for (const auto& [counter, value] : p.stats.values)
            EXPECT_EQ(hex(sys_text(fh + "statistics/" + counter)), value) << counter;
    }
}

// Every bsg entry has a device number in the simulator's reserved majors,
// distinct, in the old 8-bit-minor range, and the devices map says which
// endpoint it is.
SIM_TEST(SimTree, BsgNodesAreNumberedAndMapped, "default.json") {
    nlohmann::json devices = nlohmann::json::parse(read_text(root::devices(sim_root())));
    std::set<std::string> numbers;
    for (const std::string& name : list_dir("/sys/class/bsg")) {
        std::string dev = sys_text("class/bsg/" + name + "/dev");
        unsigned major = 0, minor = 0;
        ASSERT_EQ(std::sscanf(dev.c_str(), "%u:%u", &major, &minor), 2) << name;
        EXPECT_GE(major, root::MAJOR_BSG_FIRST) << name;
        EXPECT_LE(major, root::MAJOR_BSG_LAST) << name;
        EXPECT_LT(minor, 256u) << name;
        EXPECT_TRUE(numbers.insert(dev).second) << "number used twice: " << dev;
        ASSERT_TRUE(devices.contains(dev)) << dev;
        const nlohmann::json& d = devices[dev];
        if (name.starts_with("fc_host")) {
            EXPECT_EQ(d["kind"], "bsg_host");
            EXPECT_EQ(d["host"], std::stoul(name.substr(7)));
        } else {
            EXPECT_EQ(d["kind"], "bsg_rport");
            EXPECT_EQ(d["rport"], name);
            EXPECT_EQ(d["host"], std::stoul(name.substr(6)));
        }
    }
    size_t bsg_entries = 0, expected = 0;
    for (auto& [key, d] : devices.items())
        bsg_entries += d["kind"].get<std::string>().starts_with("bsg_");
    for (const HostRef& h : hosts_of(scenario()))
        expected += 1 + h.port->remote_ports.size();
    EXPECT_EQ(bsg_entries, numbers.size());
    EXPECT_EQ(numbers.size(), expected);
}

constexpr const char* OPTIONS_A = R"({
  "name": "options-a",
  "options": { "vioctlmod": true, "control_node": false, "euid": 500 },
  "adapters": [
    { "id": "old", "device_id": "0x1041", "serial_number": "VXE0000001", "channel": "ioctl",
      "serial_in_sysfs": false, "optrom_attrs": false,
      "functions": [ { "pci_address": "0000:00:07.0", "bsg": false,
                       "port": { "host_no": 4, "wwnn": "0x2000001d5a000004", "wwpn": "0x2100001d5a000004",
                                 "has_link_state": false, "link_state": "Link Up - Loop" } } ] },
    { "id": "cna", "device_id": "0x2070", "serial_number": "VXC0000002",
      "functions": [ { "pci_address": "0001:0a:00.1",
                       "port": { "host_no": 9, "wwnn": "0x2000001d5a000009", "wwpn": "0x2100001d5a000009",
                                 "vlan_id": 1002, "vn_port_mac": "0e:fc:00:01:02:03", "fabric_param": 7 } } ] }
  ],
  "faults": [ { "endpoint": "optrom_ctl", "match": "1*", "action": "ebusy", "count": 2 } ],
  "events": [ { "host_no": 9, "code": 3, "data": 17 }, { "host_no": 4, "code": 1 } ]
})";

constexpr const char* OPTIONS_B = R"({
  "name": "options-b",
  "options": { "pci_bus": false },
  "adapters": [
    { "id": "one", "device_id": "0x2050", "serial_number": "VXP0000003",
      "functions": [ { "pci_address": "0000:04:00.0",
                       "port": { "host_no": 1, "wwnn": "0x2000001d5a000001", "wwpn": "0x2100001d5a000001" } } ] }
  ]
})";

// Scenario switches, both ways round, between the two small hosts above.
SIM_TEST(SimOptions, SwitchesShapeTheTreeA, OPTIONS_A) {
    EXPECT_TRUE(fs::is_dir("/sys/module/vioctlmod"));
    EXPECT_FALSE(fs::exists("/sys/class/vxfcapidev"));
    EXPECT_EQ(sys_text("class/vxfcdrv/vxfcdrv/dev"), "60:0");  // an ioctl-channel adapter
    EXPECT_TRUE(fs::is_dir("/sys/bus/pci/drivers/vxfcdrv"));

    // The ioctl adapter's port: link in "state", hidden serial, no boot versions, no bsg.
    EXPECT_FALSE(fs::exists("/sys/class/scsi_host/host4/link_state"));
    EXPECT_EQ(sys_text("class/scsi_host/host4/state"), "Link Up - Loop");
    EXPECT_EQ(sys_text("class/scsi_host/host4/serial_num"), "");
    EXPECT_FALSE(fs::exists("/sys/class/scsi_host/host4/optrom_bios_version"));
    EXPECT_FALSE(fs::exists("/sys/class/bsg/fc_host4"));
    // The converged port on another PCI domain.
    EXPECT_EQ(sys_text("class/scsi_host/host9/link_state"), "Link Up - F_Port");
    EXPECT_EQ(sys_text("class/scsi_host/host9/state"), "running");
    EXPECT_EQ(sys_text("class/scsi_host/host9/vlan_id"), "1002");
    EXPECT_EQ(sys_text("class/scsi_host/host9/vn_port_mac_address"), "0e:fc:00:01:02:03");
    EXPECT_TRUE(fs::exists("/sys/class/scsi_host/host9/optrom_bios_version"));
    EXPECT_TRUE(fs::real_path("/sys/class/fc_host/host9").starts_with("/sys/devices/pci0001:00/"));

    nlohmann::json devices = nlohmann::json::parse(read_text(root::devices(sim_root())));
    EXPECT_EQ(devices["60:0"]["kind"], "ioctl");
    EXPECT_FALSE(devices.contains("61:0"));

    // Faults and events of the scenario wait in the state files, in order.
    Output faults = run_vxsim({"fault", "list", "--json"});
    ASSERT_EQ(faults.status, 0) << faults.text;
    EXPECT_EQ(nlohmann::json::parse(faults.text),
              nlohmann::json::parse(R"([{"endpoint":"optrom_ctl","match":"1*","action":"ebusy","count":2}])"));
    std::vector<std::string> spool;
    for (const std::string& e : list_dir(root::events(sim_root())))
        spool.push_back(chomp(read_text(root::events(sim_root()) + "/" + e)));
    ASSERT_EQ(spool.size(), 2u);
    EXPECT_EQ(nlohmann::json::parse(spool[0]),
              nlohmann::json::parse(R"({"host_no":9,"code":3,"data":17,"kind":"fc"})"));
    EXPECT_EQ(nlohmann::json::parse(spool[1])["host_no"], 4);

    const char* euid = std::getenv("VXSIM_EUID");
    EXPECT_STREQ(euid ? euid : "(unset)", "500");
}

SIM_TEST(SimOptions, SwitchesShapeTheTreeB, OPTIONS_B) {
    EXPECT_FALSE(fs::exists("/sys/bus/pci"));
    EXPECT_FALSE(fs::exists("/sys/module/vioctlmod"));
    EXPECT_FALSE(fs::exists("/sys/class/vxfcdrv"));
    EXPECT_EQ(sys_text("class/vxfcapidev/vxfcapidev/dev"), "61:0");
    EXPECT_EQ(sys_text("class/fc_host/host1/port_name"), "0x2100001d5a000001");
    EXPECT_TRUE(fs::exists("/sys/module/vxfcdrv/parameters/vxfcsmartsan"));
    EXPECT_EQ(std::getenv("VXSIM_EUID"), nullptr);
    EXPECT_TRUE(fs::is_empty_dir(root::events(sim_root())));
}

// Flash images are the table's size; NVRAM and VPD state files exist exactly
// for the ports whose images the family keeps outside the flash.
// Every family once: NVRAM and VPD inside the flash or in state files of their own.
SIM_TEST(SimState, ImagesExistWhereTheDriverKeepsThem, "families.json") {
    for (const Adapter& a : scenario().adapters) {
        const vx_adapter_type* t = vx_adapter_lookup(a.device_id);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(flash_image(a.id).size(), t->flash_size) << a.id;
        for (const PciFunction& f : a.functions) {
            size_t fn = pci_function_number(f.pci_address);
            EXPECT_EQ(fs::exists(root::nvram(sim_root(), f.port.host_no)), !nvram_in_flash(a, fn).has_value()) << a.id;
            EXPECT_EQ(fs::exists(root::vpd(sim_root(), f.port.host_no)), !vpd_in_flash(a, fn).has_value()) << a.id;
        }
    }
    EXPECT_TRUE(journal().empty());
}

SIM_TEST(SimTree, LargeHostKeepsEveryPortAndBsgNumbersLast, "large.json") {
    size_t rports = 0;
    for (const HostRef& h : hosts_of(scenario()))
        rports += h.port->remote_ports.size();
    EXPECT_EQ(list_dir("/sys/class/fc_host").size(), 64u);
    EXPECT_EQ(list_dir("/sys/class/fc_remote_ports").size(), rports);
    std::set<std::string> bsg = list_dir("/sys/class/bsg");
    EXPECT_EQ(bsg.size(), size_t{(root::MAJOR_BSG_LAST - root::MAJOR_BSG_FIRST + 1) * 256});
    for (const HostRef& h : hosts_of(scenario()))  // hosts come first
        EXPECT_TRUE(bsg.count("fc_host" + std::to_string(h.port->host_no)));
}

// ---------------------------------------------------------------- the runner, inside

SIM_TEST(SimRunner, CommandGetsAPrivateHost, "single.json") {
    // Files the library creates land in the root, not on the real host.
    const std::pair<std::string, std::string> writes[] = {
        {"/etc/hba.conf", root::etc_upper(sim_root()) + "/hba.conf"},
        {"/etc/modprobe.d/vxfcdrv.conf", root::etc_upper(sim_root()) + "/modprobe.d/vxfcdrv.conf"},
        {"/usr/lib/libvxsdm.log", root::usrlib_upper(sim_root()) + "/libvxsdm.log"},
    };
    for (const auto& [path, upper] : writes) {
        std::string error;
        ASSERT_TRUE(fs::make_dirs(path.substr(0, path.rfind('/')), error)) << error;
        ASSERT_TRUE(fs::write_file(path, "x\n", 0644, error)) << error;
        EXPECT_EQ(read_text(upper), "x\n") << path;
    }
    // Fresh /tmp (holding only the root when it lives there) and /dev.
    std::set<std::string> tmp = list_dir("/tmp");
    if (sim_root().starts_with("/tmp/")) {
        EXPECT_EQ(tmp, std::set<std::string>{sim_root().substr(5)});
    }
    for (const char* node : {"null", "zero", "urandom"})
        EXPECT_TRUE(fs::exists(std::string("/dev/") + node)) << node;
    EXPECT_FALSE(fs::exists("/dev/sda"));
    EXPECT_TRUE(fs::is_dir("/dev/shm"));
    // Fixed System V keys are free: the IPC namespace is the host's own.
    int id = ::semget(829, 1, IPC_CREAT | IPC_EXCL | 0600);
    EXPECT_GE(id, 0);
    if (id >= 0)
        ::semctl(id, 0, IPC_RMID);

    std::string preload = std::getenv("LD_PRELOAD") ? std::getenv("LD_PRELOAD") : "";
    EXPECT_TRUE(preload.ends_with("/libvxsim_driver.so")) << preload;
    EXPECT_STREQ(std::getenv("VXSIM_SLEEP_SCALE"), "0.01");
}

// ---------------------------------------------------------------- subcommands and harness helpers

SIM_TEST(SimCommands, EventsFromManyProcessesGetDistinctSequenceNumbers, "single.json") {
    std::vector<int> statuses = run_children(4, [](int i) {
        Output o = run_vxsim({"event", "--host", std::to_string(i), "--code", "0x3", "--data", std::to_string(10 + i)});
        return o.status;
    });
    EXPECT_EQ(statuses, std::vector<int>(4, 0));
    EXPECT_EQ(run_vxsim({"event", "--host", "1", "--code", "5", "--kind", "aen"}).text, "0000000005\n");
    EXPECT_NE(run_vxsim({"event", "--host", "1", "--code", "5", "--kind", "rscn"}).status, 0);
    EXPECT_NE(run_vxsim({"event", "--host", "x", "--code", "5"}).status, 0);

    std::vector<std::string> names;
    std::set<uint32_t> hosts;
    for (const std::string& n : list_dir(root::events(sim_root()))) {
        names.push_back(n);
        nlohmann::json e = nlohmann::json::parse(read_text(root::events(sim_root()) + "/" + n));
        hosts.insert(e["host_no"].get<uint32_t>());
        if (e["kind"] == "fc") {
            EXPECT_EQ(e["code"], 3);
            EXPECT_EQ(e["data"], 10 + e["host_no"].get<int>());
        }
    }
    EXPECT_EQ(names, (std::vector<std::string>{"0000000001", "0000000002", "0000000003", "0000000004",
                                               "0000000005"}));
    EXPECT_EQ(hosts, (std::set<uint32_t>{0, 1, 2, 3}));
}

SIM_TEST(SimCommands, FaultsAreArmedListedAndCleared, "single.json") {
    struct Case {
        std::vector<std::string> args;
        bool ok;
    };
    const Case cases[] = {
        {{"--endpoint", "optrom_ctl", "--action", "ebusy", "--count", "2"}, true},
        {{"--endpoint", "ioctl", "--match", "0xc0747900", "--action", "status:0x1d", "--count", "-1"}, true},
        {{"--endpoint", "bsg", "--action", "enosys"}, true},
        {{"--endpoint", "bsg", "--action", "explode"}, false},
        {{"--endpoint", "bsg", "--action", "status:"}, false},
        {{"--endpoint", "bsg", "--action", "eio", "--count", "0"}, false},
        {{"--action", "eio"}, false},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args{"fault", "add"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        Output o = run_vxsim(args);
        EXPECT_EQ(o.status == 0, c.ok) << c.args[1] << " " << o.text;
    }
    arm_fault("vpd", "", "short");
    Output list = run_vxsim({"fault", "list", "--json"});
    ASSERT_EQ(list.status, 0) << list.text;
    nlohmann::json faults = nlohmann::json::parse(list.text);
    ASSERT_EQ(faults.size(), 4u);
    EXPECT_EQ(faults[0]["count"], 2);
    EXPECT_EQ(faults[1]["match"], "0xc0747900");
    EXPECT_EQ(faults[1]["count"], -1);
    EXPECT_EQ(faults[2]["count"], 1);
    EXPECT_EQ(faults[3]["endpoint"], "vpd");
    EXPECT_NE(run_vxsim({"fault", "list"}).text.find("always"), std::string::npos);

    ASSERT_EQ(run_vxsim({"fault", "clear"}).status, 0);
    EXPECT_EQ(nlohmann::json::parse(run_vxsim({"fault", "list", "--json"}).text), nlohmann::json::array());
}

SIM_TEST(SimCommands, JournalIsPrintedWholeOrByEndpoint, "single.json") {
    std::string lines =
        R"({"seq":1,"pid":10,"ep":"optrom_ctl","cmd":"1:0:1000"})"
        "\n"
        R"({"seq":2,"pid":10,"ep":"optrom","op":"read","offset":0,"length":4096})"
        "\n"
        R"({"seq":3,"pid":11,"ep":"optrom_ctl","cmd":"0"})"
        "\n";
    std::string error;
    ASSERT_TRUE(fs::write_file(root::journal(sim_root()), lines, 0644, error)) << error;

    Output raw = run_vxsim({"journal", "--endpoint", "optrom_ctl", "--json"});
    ASSERT_EQ(raw.status, 0) << raw.text;
    std::istringstream in(raw.text);
    std::vector<int> seqs;
    for (std::string l; std::getline(in, l);)
        seqs.push_back(nlohmann::json::parse(l)["seq"].get<int>());
    EXPECT_EQ(seqs, (std::vector<int>{1, 3}));

    Output table = run_vxsim({"journal"});
    ASSERT_EQ(table.status, 0) << table.text;
    EXPECT_NE(table.text.find("length=4096"), std::string::npos) << table.text;
    EXPECT_NE(table.text.find("cmd=\"1:0:1000\""), std::string::npos) << table.text;

    EXPECT_EQ(journal("optrom").size(), 1u);
    EXPECT_EQ(journal().size(), 3u);
}

// ---------------------------------------------------------------- the runner, from outside

TEST(SimRunnerOutside, RefusesClearlyWithoutRoot) {
    if (::geteuid() != 0 || !fs::exists("/usr/bin/setpriv"))
        GTEST_SKIP() << "needs root and setpriv to drop it";
    Output o = run({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--", vxsim_binary(), "run",
                    "--scenario", scenario_dir() + "/single.json", "--", "true"});
    EXPECT_EQ(o.status, 2) << o.text;
    EXPECT_TRUE(o.text.starts_with("vxsim: needs root and mount namespaces: ")) << o.text;
    EXPECT_EQ(std::count(o.text.begin(), o.text.end(), '\n'), 1) << o.text;
}

TEST(SimRunnerOutside, ExitStatusOfTheCommandComesBack) {
    if (!simulator_usable())
        GTEST_SKIP() << "needs root";
    struct Case {
        std::vector<std::string> command;
        int status;
        std::string says;
    };
    const Case cases[] = {
        {{"true"}, 0, ""},
        {{"sh", "-c", "exit 7"}, 7, ""},
        {{"sh", "-c", "kill -TERM $$"}, 128 + 15, ""},
        {{"/nonexistent/program"}, 127, "vxsim: cannot run /nonexistent/program"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args{"run", "--scenario", "single", "--"};
        args.insert(args.end(), c.command.begin(), c.command.end());
        Output o = run_vxsim(args);
        EXPECT_EQ(o.status, c.status) << c.command.back() << ": " << o.text;
        EXPECT_NE(o.text.find(c.says), std::string::npos) << o.text;
    }
    Output bad = run_vxsim({"run", "--scenario", "no-such-scenario", "--", "true"});
    EXPECT_EQ(bad.status, 2);
    EXPECT_TRUE(bad.text.starts_with("vxsim: ")) << bad.text;
}

TEST(SimRunnerOutside, CommandEnvironmentCarriesTheEmulation) {
    if (!simulator_usable())
        GTEST_SKIP() << "needs root";
    const std::string other = fs::real_path("/usr/lib/x86_64-linux-gnu/libsysfs.so.2");
    if (other.empty())
        GTEST_SKIP() << "no library to preload";
    // vxsim itself may carry a sanitizer runtime that would object to a
    // preload ahead of it.
    const std::string asan = "ASAN_OPTIONS=verify_asan_link_order=0";
    struct Case {
        std::vector<std::string> env;   // set for vxsim
        std::vector<std::string> args;  // vxsim run options
        std::vector<std::string> want;  // lines of `env` inside
        std::vector<std::string> absent;
    };
    const Case cases[] = {
        {{"ASAN_OPTIONS=", "LD_PRELOAD=", "VXSIM_SLEEP_SCALE="},
         {},
         {"VXSIM_SLEEP_SCALE=0.01", "ASAN_OPTIONS=verify_asan_link_order=0"},
         {"VXSIM_EUID="}},
        {{"ASAN_OPTIONS=detect_leaks=1"}, {"--real-sleep", "--euid", "42"},
         {"ASAN_OPTIONS=detect_leaks=1:verify_asan_link_order=0", "VXSIM_EUID=42"}, {"VXSIM_SLEEP_SCALE="}},
        {{asan, "LD_PRELOAD=" + other}, {}, {"LD_PRELOAD=" + other + ":"}, {}},
        {{asan, "VXSIM_PRELOAD_FIRST=" + other, "LD_PRELOAD="}, {}, {"LD_PRELOAD=" + other + ":"}, {}},
    };
    for (const Case& c : cases) {
        std::vector<std::string> argv{"env"};
        argv.insert(argv.end(), c.env.begin(), c.env.end());
        argv.insert(argv.end(), {vxsim_binary(), "run", "--scenario", "single"});
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        argv.insert(argv.end(), {"--", "env"});
        Output o = run(argv);
        ASSERT_EQ(o.status, 0) << o.text;
        std::vector<std::string> lines;
        std::istringstream in(o.text);
        for (std::string l; std::getline(in, l);)
            lines.push_back(l);
        auto has_prefix = [&](const std::string& p) {
            return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.starts_with(p); });
        };
        for (const std::string& w : c.want)
            EXPECT_TRUE(has_prefix(w)) << w << " in:\n" << o.text;
        for (const std::string& a : c.absent)
            EXPECT_FALSE(has_prefix(a)) << a << " in:\n" << o.text;
        for (const std::string& l : lines)
            if (l.starts_with("LD_PRELOAD=")) {
                EXPECT_TRUE(l.ends_with("/libvxsim_driver.so")) << l;
            }
        EXPECT_TRUE(has_prefix("VXSIM_ROOT=/"));
    }
}

std::set<std::string> mount_points() {
    std::set<std::string> out;
    std::istringstream in(read_text("/proc/self/mountinfo"));
    for (std::string l; std::getline(in, l);) {
        std::istringstream f(l);
        std::string id, parent, devno, root_, point;
        f >> id >> parent >> devno >> root_ >> point;
        out.insert(point);
    }
    return out;
}

std::set<long> semaphore_keys() {
    std::set<long> keys;
    std::istringstream in(read_text("/proc/sysvipc/sem"));
    std::string header;
    std::getline(in, header);
    for (long key; in >> key;) {
        keys.insert(key);
        std::string rest;
        std::getline(in, rest);
    }
    return keys;
}

// Whatever the command does, the real host stays as it was: no files in
// /tmp, /dev, /etc, /usr/lib, no semaphores, no mounts, no sim root.
TEST(SimRunnerOutside, LeavesTheRealHostUnchanged) {
    if (!simulator_usable())
        GTEST_SKIP() << "needs root";
    const std::string tag = "vxsim-e2e-" + std::to_string(::getpid());
    const std::vector<std::string> paths{"/tmp/" + tag, "/dev/" + tag, "/dev/shm/" + tag, "/etc/" + tag,
                                         "/usr/lib/" + tag};
    for (const std::string& p : paths)
        ASSERT_FALSE(fs::exists(p)) << p;
    std::set<std::string> mounts = mount_points();
    std::set<long> sems = semaphore_keys();

    std::string script = "echo ROOT=$VXSIM_ROOT; ipcmk -S 1 >/dev/null && cat /proc/sysvipc/sem";
    for (const std::string& p : paths)
        script += " && touch " + p;
    script += " && mount -t tmpfs none /mnt";
    Output o = run_vxsim({"run", "--scenario", "single", "--", "sh", "-c", script});
    ASSERT_EQ(o.status, 0) << o.text;

    for (const std::string& p : paths)
        EXPECT_FALSE(fs::exists(p)) << p;
    size_t at = o.text.find("ROOT=");
    ASSERT_NE(at, std::string::npos);
    std::string root_path = o.text.substr(at + 5, o.text.find('\n', at) - at - 5);
    EXPECT_FALSE(fs::exists(root_path)) << root_path;
    EXPECT_EQ(mount_points(), mounts);
    // The semaphore made inside: its key must not exist out here.
    size_t table = o.text.find("semid");
    ASSERT_NE(table, std::string::npos) << o.text;
    std::istringstream in(o.text.substr(o.text.rfind('\n', table) + 1));
    std::string header;
    std::getline(in, header);
    long key = 0;
    ASSERT_TRUE(in >> key) << o.text;
    EXPECT_EQ(semaphore_keys().count(key), sems.count(key));
}

// Hosts whose mounts propagate (systemd makes / shared) must not see the
// simulated host's mounts either; reproduced in a throwaway namespace.
TEST(SimRunnerOutside, MountsDoNotPropagateFromASharedRoot) {
    if (!simulator_usable())
        GTEST_SKIP() << "needs root";
    const std::string list = "cut -d' ' -f5 /proc/self/mountinfo | sort";
    Output o = run({"unshare", "-m", "--propagation", "unchanged", "sh", "-c",
                    "mount --make-rshared / && a=$(" + list + ") && " + vxsim_binary() +
                        " run --scenario single -- true && b=$(" + list +
                        ") && if [ \"$a\" = \"$b\" ]; then echo same; else echo \"$b\"; fi"});
    ASSERT_EQ(o.status, 0) << o.text;
    EXPECT_EQ(o.text, "same\n");
}

// A root built with `vxsim tree` is kept and reused by `vxsim run --root`,
// and the subcommands act on it from outside.
TEST(SimRunnerOutside, BuiltRootIsReusedAndKept) {
    if (!simulator_usable())
        GTEST_SKIP() << "needs root";
    std::string tmpl = ::testing::TempDir() + "vxsim-e2e-XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
    const std::string dir = tmpl, r = dir + "/root";
    // Removed however the test ends.
    struct remove_at_end {
        std::string path;
        ~remove_at_end() {
            std::string ignored;
            fs::remove_tree(path, ignored);
        }
    } cleanup{dir};

    Output built = run_vxsim({"tree", "--scenario", "single", "--root", r});
    ASSERT_EQ(built.status, 0) << built.text;
    EXPECT_NE(built.text.find("1 hosts, 1 remote ports"), std::string::npos) << built.text;
    EXPECT_NE(run_vxsim({"tree", "--scenario", "single", "--root", r}).status, 0);  // not over an existing root
    ASSERT_EQ(run_vxsim({"event", "--root", r, "--host", "1", "--code", "2"}).status, 0);
    ASSERT_EQ(run_vxsim({"fault", "--root", r, "add", "--endpoint", "nvram", "--action", "eio"}).status, 0);

    Output o = run_vxsim({"run", "--root", r, "--", "sh", "-c",
                      "cat /sys/class/fc_host/host1/port_name; ls $VXSIM_ROOT/state/events; touch /etc/vxsim-e2e"});
    ASSERT_EQ(o.status, 0) << o.text;
    EXPECT_NE(o.text.find("0x2100001d5a025001"), std::string::npos) << o.text;
    EXPECT_NE(o.text.find("0000000001"), std::string::npos) << o.text;
    EXPECT_TRUE(fs::exists(r + "/etc/vxsim-e2e"));
    EXPECT_FALSE(fs::exists("/etc/vxsim-e2e"));
    EXPECT_NE(run_vxsim({"fault", "--root", r, "list"}).text.find("nvram"), std::string::npos);
    // A root named for run alone is built there and kept too.
    EXPECT_EQ(run_vxsim({"run", "--root", dir + "/fresh", "--scenario", "single", "--", "true"}).status, 0);
    EXPECT_TRUE(fs::exists(dir + "/fresh/sys/class/fc_host/host1"));
}

}  // namespace
