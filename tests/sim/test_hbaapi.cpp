// The library as a Common HBA API vendor library, loaded by the real SNIA
// wrapper (libHBAAPI) from the simulated host's /etc/hba.conf. This program
// calls the standard API only: it is not linked with the library.
//
// The differential cases load the peer vendor library Debian ships
// (libhbalinux) beside it over the same simulated host: what both derive
// from the same sysfs data must agree, and each field that differs by our
// rules is listed below with its reason.
#include <dlfcn.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <hbaapi.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "simtest.h"
#include "stats.h"

namespace {

namespace st = vxsim::test;

constexpr const char* PEER_LIB = "/usr/lib/libhbalinux.so.2";
constexpr const char* OUR_PREFIX = "varnex-";

std::string our_conf_line() { return std::string("com.varnex-vxsdm ") + VXSDM_LIB + "\n"; }

void write_conf(const std::string& text) {
    FILE* f = fopen("/etc/hba.conf", "w");
    ASSERT_NE(f, nullptr);
    fputs(text.c_str(), f);
    fclose(f);
}

uint64_t wwn_value(const HBA_WWN& w) {
    uint64_t v = 0;
    for (uint8_t b : w.wwn)
        v = v << 8 | b;
    return v;
}

bool has_role(const vxsim::RemotePort& r, const char* role) { return r.roles.find(role) != std::string::npos; }
bool is_target(const vxsim::RemotePort& r) { return has_role(r, "FCP Target"); }
bool online_target(const vxsim::RemotePort& r) { return is_target(r) && r.state == "Online"; }

// The scenario's port (physical or virtual) of this port name.
const vxsim::HostPort* scenario_port(uint64_t wwpn, const vxsim::Adapter** adapter = nullptr) {
    for (const auto& a : st::scenario().adapters)
        for (const auto& f : a.functions) {
            std::vector<const vxsim::HostPort*> ports{&f.port};
            for (const auto& v : f.vports)
                ports.push_back(&v);
            for (const vxsim::HostPort* p : ports)
                if (p->wwpn == wwpn) {
                    if (adapter)
                        *adapter = &a;
                    return p;
                }
        }
    return nullptr;
}

size_t scenario_port_count() {
    size_t n = 0;
    for (const auto& a : st::scenario().adapters)
        for (const auto& f : a.functions)
            n += 1 + f.vports.size();
    return n;
}

HBA_PORTSPEED speed_bits(const std::string& text) {
    static const std::map<std::string, HBA_PORTSPEED> bits = {
        {"1 Gbit", 0x1}, {"2 Gbit", 0x2}, {"4 Gbit", 0x8}, {"8 Gbit", 0x10},
        {"10 Gbit", 0x4}, {"16 Gbit", 0x20}, {"32 Gbit", 0x40},
    };
    auto it = bits.find(text);
    return it == bits.end() ? 0 : it->second;
}

struct mapping_entry {
    std::string os_name;
    HBA_UINT32 bus, target, os_lun, fcid;
    uint64_t node, port;
    HBA_UINT64 fcp_lun;
};

// Everything one adapter of the wrapper's list tells about itself.
struct adapter_view {
    std::string name;
    HBA_HANDLE handle = 0;
    HBA_ADAPTERATTRIBUTES attrs{};
    HBA_PORTATTRIBUTES port{};
    std::vector<HBA_PORTATTRIBUTES> disc;  // by index until the first failure
    HBA_STATUS disc_end = HBA_STATUS_OK;   // the status that ended the walk
    std::vector<mapping_entry> mapping;
    HBA_STATUS mapping_status = HBA_STATUS_OK;
};

std::vector<mapping_entry> read_mapping(HBA_HANDLE h, HBA_STATUS* status) {
    std::vector<mapping_entry> out;
    // First with room for one entry: the count of all comes back.
    HBA_FCPTARGETMAPPING probe{};
    probe.NumberOfEntries = 1;
    HBA_STATUS s = HBA_GetFcpTargetMapping(h, &probe);
    const HBA_UINT32 n = probe.NumberOfEntries;
    if (s != HBA_STATUS_OK && s != HBA_STATUS_ERROR_MORE_DATA) {
        *status = s;
        return out;
    }
    std::vector<uint8_t> buf(sizeof(HBA_FCPTARGETMAPPING) + n * sizeof(HBA_FCPSCSIENTRY));
    auto* m = reinterpret_cast<HBA_FCPTARGETMAPPING*>(buf.data());
    m->NumberOfEntries = n;
    *status = HBA_GetFcpTargetMapping(h, m);
    for (HBA_UINT32 i = 0; i < std::min(n, m->NumberOfEntries); ++i) {
        const HBA_FCPSCSIENTRY& e = *(m->entry + i);
        out.push_back({e.ScsiId.OSDeviceName, e.ScsiId.ScsiBusNumber, e.ScsiId.ScsiTargetNumber, e.ScsiId.ScsiOSLun,
                       e.FcpId.FcId, wwn_value(e.FcpId.NodeWWN), wwn_value(e.FcpId.PortWWN), e.FcpId.FcpLun});
    }
    return out;
}

// Lists, opens and reads every adapter of the wrapper; `prefix` keeps those
// of one vendor library.
std::vector<adapter_view> read_all(const std::string& prefix) {
    std::vector<adapter_view> views;
    const HBA_UINT32 n = HBA_GetNumberOfAdapters();
    for (HBA_UINT32 i = 0; i < n; ++i) {
        adapter_view v;
        char name[256] = {};
        EXPECT_EQ(HBA_GetAdapterName(i, name), HBA_STATUS_OK) << i;
        v.name = name;
        if (v.name.rfind(prefix, 0) != 0)
            continue;
        v.handle = HBA_OpenAdapter(name);
        EXPECT_NE(v.handle, 0u) << name;
        if (v.handle == 0)
            continue;
        EXPECT_EQ(HBA_GetAdapterAttributes(v.handle, &v.attrs), HBA_STATUS_OK) << name;
        EXPECT_EQ(HBA_GetAdapterPortAttributes(v.handle, 0, &v.port), HBA_STATUS_OK) << name;
        for (HBA_UINT32 d = 0; d < 4096; ++d) {
            HBA_PORTATTRIBUTES p;
            memset(&p, 0xA5, sizeof p);
            v.disc_end = HBA_GetDiscoveredPortAttributes(v.handle, 0, d, &p);
            if (v.disc_end != HBA_STATUS_OK)
                break;
            v.disc.push_back(p);
        }
        v.mapping = read_mapping(v.handle, &v.mapping_status);
        views.push_back(v);
    }
    return views;
}

// The adapter of this port name among those read, or end().
std::vector<adapter_view>::const_iterator view_of(const std::vector<adapter_view>& views, uint64_t wwpn) {
    return std::find_if(views.begin(), views.end(),
                        [wwpn](const adapter_view& a) { return wwn_value(a.port.PortWWN) == wwpn; });
}

void close_all(const std::vector<adapter_view>& views) {
    for (const auto& v : views)
        HBA_CloseAdapter(v.handle);
}

// Every adapter, port and discovered port against the scenario.
void check_against_scenario(bool sysfs) {
    write_conf(our_conf_line());
    ASSERT_EQ(HBA_LoadLibrary(), HBA_STATUS_OK);
    const std::vector<adapter_view> views = read_all(OUR_PREFIX);
    ASSERT_EQ(views.size(), scenario_port_count());
    std::set<uint64_t> seen;
    for (size_t i = 0; i < views.size(); ++i) {
        const adapter_view& v = views[i];
        SCOPED_TRACE(v.name);
        const vxsim::Adapter* adapter = nullptr;
        const uint64_t wwpn = wwn_value(v.port.PortWWN);
        const vxsim::HostPort* p = scenario_port(wwpn, &adapter);
        ASSERT_NE(p, nullptr);
        EXPECT_TRUE(seen.insert(wwpn).second);
        EXPECT_EQ(v.name.substr(v.name.rfind('-')), "-" + std::to_string(i));

        EXPECT_EQ(wwn_value(v.attrs.NodeWWN), p->wwnn);
        EXPECT_EQ(wwn_value(v.port.NodeWWN), p->wwnn);
        EXPECT_STREQ(v.attrs.SerialNumber, adapter->serial_number.c_str());
        EXPECT_EQ(std::string(v.attrs.DriverVersion), "v." + adapter->driver_version);
        EXPECT_EQ(v.attrs.NumberOfPorts, 1u);
        EXPECT_EQ(v.port.PortFcId, p->port_id);
        EXPECT_EQ(v.port.PortState, HBA_PORTSTATE_ONLINE);
        EXPECT_EQ(v.port.PortSpeed, speed_bits(p->speed));
        EXPECT_EQ(v.port.PortMaxFrameSize, 2048u);
        const std::string host = "host" + std::to_string(p->host_no);
        EXPECT_EQ(std::string(v.port.OSDeviceName),
                  sysfs ? "/sys/class/scsi_host/" + host : "/proc/scsi/" + v.name.substr(7, v.name.rfind('-') - 7) +
                                                               "/" + std::to_string(p->host_no));
        EXPECT_EQ(wwn_value(v.port.FabricName), sysfs ? p->fabric_name : 0u);

        const auto targets = std::count_if(p->remote_ports.begin(), p->remote_ports.end(), is_target);
        EXPECT_EQ(v.port.NumberofDiscoveredPorts, static_cast<HBA_UINT32>(targets));
        // The walk ends on an index past the list: over sysfs the online
        // targets, over the ioctl the driver's whole list of remote ports.
        std::set<uint64_t> wanted, listed;
        for (const auto& r : p->remote_ports)
            if (!sysfs || online_target(r))
                wanted.insert(r.wwpn);
        for (const auto& d : v.disc) {
            listed.insert(wwn_value(d.PortWWN));
            const auto r = std::find_if(p->remote_ports.begin(), p->remote_ports.end(),
                                        [&](const vxsim::RemotePort& rp) { return rp.wwpn == wwn_value(d.PortWWN); });
            ASSERT_NE(r, p->remote_ports.end());
            EXPECT_EQ(wwn_value(d.NodeWWN), r->wwnn);
            EXPECT_EQ(d.PortFcId, r->port_id);
            EXPECT_EQ(d.PortSpeed, HBA_PORTSPEED_1GBIT);
            EXPECT_EQ(d.PortState, HBA_PORTSTATE_UNKNOWN);
            EXPECT_EQ(d.FabricName.wwn[1], 0xA5);  // only the first byte is written
            // The SCSI target's name, where the midlayer has one.
            EXPECT_EQ(std::string(d.OSDeviceName),
                      r->luns.empty() ? std::string()
                                      : "target" + std::to_string(p->host_no) + ":0:" + std::to_string(r->scsi_target_id));
        }
        EXPECT_EQ(listed, wanted);
        EXPECT_EQ(v.disc_end, HBA_STATUS_ERROR_ILLEGAL_INDEX);

        // Every LUN of every target, with its device.
        EXPECT_EQ(v.mapping_status, HBA_STATUS_OK);
        std::set<std::pair<uint32_t, uint32_t>> luns, mapped;
        for (const auto& r : p->remote_ports)
            if (is_target(r))
                for (const auto& l : r.luns)
                    luns.insert({static_cast<uint32_t>(r.scsi_target_id), l.lun});
        for (const auto& m : v.mapping) {
            mapped.insert({m.target, m.os_lun});
            EXPECT_EQ(m.bus, p->host_no);
            EXPECT_EQ(m.os_name.rfind("/dev/", 0), 0u) << m.os_name;
            const auto r = std::find_if(p->remote_ports.begin(), p->remote_ports.end(), [&](const vxsim::RemotePort& rp) {
                return rp.scsi_target_id == static_cast<int>(m.target);
            });
            ASSERT_NE(r, p->remote_ports.end());
            EXPECT_EQ(m.port, r->wwpn);
            EXPECT_EQ(m.fcid, r->port_id);
            // The FCP LUN's eight bytes, most significant first: the
            // midlayer number's first level in the top 16 bits.
            EXPECT_EQ(static_cast<uint64_t>(m.fcp_lun) >> 48, m.os_lun & 0xFFFF);
        }
        EXPECT_EQ(mapped, luns);
    }
    // A closed handle is refused.
    close_all(views);
    HBA_ADAPTERATTRIBUTES a;
    EXPECT_EQ(HBA_GetAdapterAttributes(views.front().handle, &a), HBA_STATUS_ERROR_INVALID_HANDLE);
    EXPECT_EQ(HBA_FreeLibrary(), HBA_STATUS_OK);
}

SIM_TEST(HbaApiWrapper, SysfsHostMatchesTheScenario, "default.json") { check_against_scenario(true); }

SIM_TEST(HbaApiWrapper, IoctlHostMatchesTheScenario, "ioctl.json") { check_against_scenario(false); }

SIM_TEST(HbaApiWrapper, OlderIoctlHostMatchesTheScenario, "legacy.json") { check_against_scenario(false); }

// The same enumeration twice, with a free in between, and two clients at once.
SIM_TEST(HbaApiWrapper, FreeAndLoadAgainAndTwoClients, "default.json") {
    write_conf(our_conf_line());
    const auto names = [] {
        std::vector<std::string> out;
        for (const auto& v : read_all(OUR_PREFIX)) {
            out.push_back(v.name + " " + std::to_string(wwn_value(v.port.PortWWN)) + " " +
                          std::to_string(v.disc.size()) + " " + std::to_string(v.mapping.size()));
            HBA_CloseAdapter(v.handle);
        }
        return out;
    };
    ASSERT_EQ(HBA_LoadLibrary(), HBA_STATUS_OK);
    const std::vector<std::string> first = names();
    EXPECT_EQ(first.size(), scenario_port_count());
    EXPECT_EQ(HBA_FreeLibrary(), HBA_STATUS_OK);
    ASSERT_EQ(HBA_LoadLibrary(), HBA_STATUS_OK);
    EXPECT_EQ(names(), first);
    EXPECT_EQ(HBA_FreeLibrary(), HBA_STATUS_OK);

    // Each child enumerates several times while the other does.
    const std::vector<int> results = st::run_children(2, [&first, &names](int) {
        alarm(60);
        for (int round = 0; round < 5; ++round) {
            if (HBA_LoadLibrary() != HBA_STATUS_OK)
                return 1;
            if (names() != first)
                return 2;
            if (HBA_FreeLibrary() != HBA_STATUS_OK)
                return 3;
        }
        return 0;
    });
    EXPECT_EQ(results, (std::vector<int>{0, 0}));
}

// What `make install` adds to the wrapper's configuration, seen through
// the wrapper's own client; removing it leaves the file as it was.
SIM_TEST(HbaApiInstall, ConfigurationLineAddsAndRemoves, "default.json") {
    const std::string before = "# vendor libraries\nother.vendor-lib /nonexistent/libother.so";  // no final newline
    write_conf(before);
    const std::string script = std::string(VX_SCRIPTS_DIR) + "/hbaconf";
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(st::run({script, "add", VXSDM_LIB}).status, 0);
    EXPECT_EQ(st::read_text("/etc/hba.conf"), before + "\n" + our_conf_line());

    st::Output list = st::run({VXHBALIST_BIN});
    ASSERT_EQ(list.status, 0) << list.text;
    EXPECT_NE(list.text.find(std::to_string(scenario_port_count()) + " adapter(s)"), std::string::npos) << list.text;
    size_t listed = 0;
    for (size_t at = list.text.find("\nvarnex-"); at != std::string::npos; at = list.text.find("\nvarnex-", at + 1))
        ++listed;
    EXPECT_EQ(listed, scenario_port_count()) << list.text;
    EXPECT_NE(list.text.find("port 21:00:00:1d:5a:01:40:17  id 0x0a0100  online"), std::string::npos) << list.text;

    ASSERT_EQ(st::run({script, "remove", VXSDM_LIB}).status, 0);
    EXPECT_EQ(st::read_text("/etc/hba.conf"), before + "\n");
    list = st::run({VXHBALIST_BIN});
    EXPECT_EQ(list.text.find("varnex-"), std::string::npos) << list.text;
}

// The peer library over the same host. Fields both derive from the same
// sysfs data agree; the others differ by these rules of ours:
//  - PortSupportedClassofService: ours 0; the peer reads supported_classes.
//  - PortSupportedFc4Types/PortActiveFc4Types: ours map the driver's FC-4
//    bits to bytes 0 and 1; the peer copies the kernel's type map.
//  - PortSymbolicName: ours empty; the peer reads symbolic_name.
//  - OSDeviceName: ours the scsi_host class path of the host, the peer its
//    last component; a discovered port ours "targetH:0:T", the peer the
//    remote port's class path.
//  - Local speeds: ours from the driver's speed codes through the table of
//    the standard's bits; the peer has no bit for 4 Gbit and reads the text.
//  - NumberofDiscoveredPorts: ours counts FCP targets (offline ones too),
//    the peer every remote port; our walk lists online FCP targets only.
//  - Discovered ports' type, state, speed, class and fabric name: ours are
//    fixed (unknown, 1 Gbit, only the first fabric-name byte written).
//  - FcpLun: ours the eight FCP LUN bytes as one number, most significant
//    first; the peer the midlayer's LUN number.
//  - Adapter texts (manufacturer, serial number, model, versions, driver
//    name): ours from the driver's records, the peer from PCI ids.
SIM_TEST(HbaApiPeer, AgreesWithThePeerLibrary, "peer.json") {
    if (access(PEER_LIB, R_OK) != 0) {
        ADD_FAILURE() << "libhbalinux2 is not installed (scripts/bootstrap installs it)";
        return;
    }
    // Kept mapped when the wrapper unloads it, so that a leak report names
    // the library it comes from (scripts/test suppresses the peer's own).
    if (!dlopen(PEER_LIB, RTLD_NOW | RTLD_NODELETE))
        ADD_FAILURE() << dlerror();
    write_conf(our_conf_line() + "org.open-fcoe.libhbalinux " + PEER_LIB + "\n");
    ASSERT_EQ(HBA_LoadLibrary(), HBA_STATUS_OK);
    const std::vector<adapter_view> ours = read_all(OUR_PREFIX);
    const std::vector<adapter_view> peers = read_all("");
    ASSERT_EQ(ours.size(), scenario_port_count());
    for (const adapter_view& v : ours) {
        SCOPED_TRACE(v.name);
        const auto peer = std::find_if(peers.begin(), peers.end(), [&](const adapter_view& p) {
            return p.name.rfind(OUR_PREFIX, 0) != 0 && wwn_value(p.port.PortWWN) == wwn_value(v.port.PortWWN);
        });
        ASSERT_NE(peer, peers.end()) << "the peer library does not list this port";
        const vxsim::HostPort* sp = scenario_port(wwn_value(v.port.PortWWN));
        ASSERT_NE(sp, nullptr);

        EXPECT_EQ(wwn_value(v.attrs.NodeWWN), wwn_value(peer->attrs.NodeWWN));
        EXPECT_EQ(v.attrs.NumberOfPorts, peer->attrs.NumberOfPorts);
        EXPECT_EQ(wwn_value(v.port.NodeWWN), wwn_value(peer->port.NodeWWN));
        EXPECT_EQ(v.port.PortFcId, peer->port.PortFcId);
        EXPECT_EQ(v.port.PortType, peer->port.PortType);
        EXPECT_EQ(v.port.PortState, peer->port.PortState);
        EXPECT_EQ(v.port.PortMaxFrameSize, peer->port.PortMaxFrameSize);
        EXPECT_EQ(wwn_value(v.port.FabricName), wwn_value(peer->port.FabricName));
        const std::string os(v.port.OSDeviceName);
        EXPECT_EQ(os.substr(os.rfind('/') + 1), std::string(peer->port.OSDeviceName));
        // Ours: FCP targets; the peer: every remote port.
        EXPECT_EQ(peer->port.NumberofDiscoveredPorts, sp->remote_ports.size());

        // Each port of our walk is one of the peer's, with the same names and address.
        for (const auto& d : v.disc) {
            const auto pd = std::find_if(peer->disc.begin(), peer->disc.end(), [&](const HBA_PORTATTRIBUTES& x) {
                return wwn_value(x.PortWWN) == wwn_value(d.PortWWN);
            });
            ASSERT_NE(pd, peer->disc.end());
            EXPECT_EQ(wwn_value(d.NodeWWN), wwn_value(pd->NodeWWN));
            EXPECT_EQ(d.PortFcId, pd->PortFcId);
            EXPECT_EQ(d.PortMaxFrameSize, pd->PortMaxFrameSize);
        }
        // What the peer lists beyond ours is what ours leaves out by rule.
        for (const auto& pd : peer->disc) {
            const bool ours_too = std::any_of(v.disc.begin(), v.disc.end(), [&](const HBA_PORTATTRIBUTES& x) {
                return wwn_value(x.PortWWN) == wwn_value(pd.PortWWN);
            });
            const auto r = std::find_if(sp->remote_ports.begin(), sp->remote_ports.end(),
                                        [&](const vxsim::RemotePort& rp) { return rp.wwpn == wwn_value(pd.PortWWN); });
            ASSERT_NE(r, sp->remote_ports.end());
            EXPECT_EQ(ours_too, online_target(*r)) << r->roles << " " << r->state;
        }
        // Every device the peer maps, ours maps alike (the peer leaves out
        // LUNs without a disk; ours names their SCSI generic node).
        for (const auto& pm : peer->mapping) {
            if (pm.os_name.empty())
                continue;
            const auto m = std::find_if(v.mapping.begin(), v.mapping.end(),
                                        [&](const mapping_entry& e) { return e.os_name == pm.os_name; });
            ASSERT_NE(m, v.mapping.end()) << pm.os_name;
            EXPECT_EQ(m->bus, pm.bus);
            EXPECT_EQ(m->target, pm.target);
            EXPECT_EQ(m->os_lun, pm.os_lun);
            EXPECT_EQ(m->fcid, pm.fcid);
            EXPECT_EQ(m->node, pm.node);
            EXPECT_EQ(m->port, pm.port);
            EXPECT_EQ(static_cast<uint64_t>(pm.fcp_lun), pm.os_lun);
        }
    }
    close_all(ours);
    close_all(peers);
    EXPECT_EQ(HBA_FreeLibrary(), HBA_STATUS_OK);
}

// ---- Statistics and events ----

// The simulated host shortens sleeps; waiting for the event thread needs real time.
void real_sleep(int ms) { poll(nullptr, 0, ms); }

// The families before Swift keep no frame or NOS counters.
bool keeps_frame_counters(const vxsim::Adapter& a) { return a.device_id >= 0x1050; }

SIM_TEST(HbaApiWrapper, PortStatisticsMatchTheScenario, "default.json") {
    write_conf(our_conf_line());
    ASSERT_EQ(HBA_LoadLibrary(), HBA_STATUS_OK);
    const std::vector<adapter_view> views = read_all(OUR_PREFIX);
    ASSERT_EQ(views.size(), scenario_port_count());
    constexpr HBA_INT64 UNKEPT = -1;
    for (const adapter_view& v : views) {
        SCOPED_TRACE(v.name);
        const vxsim::Adapter* adapter = nullptr;
        const vxsim::HostPort* p = scenario_port(wwn_value(v.port.PortWWN), &adapter);
        ASSERT_NE(p, nullptr);
        const auto value = [p](const char* name) -> HBA_INT64 {
            const auto it = p->stats.values.find(name);
            return it == p->stats.values.end() ? 0 : static_cast<HBA_INT64>(it->second);
        };
        HBA_PORTSTATISTICS ps;
        memset(&ps, 0, sizeof ps);
        ASSERT_EQ(HBA_GetPortStatistics(v.handle, 0, &ps), HBA_STATUS_OK);
        EXPECT_EQ(ps.SecondsSinceLastReset, UNKEPT);
        EXPECT_EQ(ps.TxWords, UNKEPT);
        EXPECT_EQ(ps.LinkFailureCount, value("link_failure_count"));
        EXPECT_EQ(ps.ErrorFrames, ps.LinkFailureCount);
        EXPECT_EQ(ps.LossOfSyncCount, value("loss_of_sync_count"));
        EXPECT_EQ(ps.LIPCount, value("lip_count"));
        const bool frames = keeps_frame_counters(*adapter);
        EXPECT_EQ(ps.TxFrames, frames ? value("tx_frames") : UNKEPT);
        EXPECT_EQ(ps.RxFrames, frames ? value("rx_frames") : UNKEPT);
        EXPECT_EQ(ps.NOSCount, frames ? value("nos_count") : UNKEPT);

        HBA_FC4STATISTICS fs;
        EXPECT_EQ(HBA_GetFC4Statistics(v.handle, v.port.PortWWN, 0x08, &fs), HBA_STATUS_OK);
        EXPECT_EQ(fs.InputRequests, value("fcp_input_requests"));
        EXPECT_EQ(HBA_GetFC4Statistics(v.handle, v.port.PortWWN, 0x20, &fs), HBA_STATUS_ERROR_UNSUPPORTED_FC4);
    }
    close_all(views);
    EXPECT_EQ(HBA_FreeLibrary(), HBA_STATUS_OK);
}

struct event_log {
    std::atomic<int> calls{0};
    std::atomic<HBA_UINT32> type{0};
    std::atomic<uint64_t> wwpn{0};
};

void on_port_event(void* data, HBA_WWN wwn, HBA_UINT32 type, HBA_UINT32) {
    auto* log = static_cast<event_log*>(data);
    log->type = type;
    log->wwpn = wwn_value(wwn);
    log->calls.fetch_add(1);
}

// Link down on host 2: the callback of its port hears it once; after the
// removal the next one waits in the queue for a poll instead.
SIM_TEST(HbaApiWrapper, PortEventReachesTheCallbackOnce, "default.json") {
    write_conf(our_conf_line());
    ASSERT_EQ(HBA_LoadLibrary(), HBA_STATUS_OK);
    const std::vector<adapter_view> views = read_all(OUR_PREFIX);
    const auto v = std::find_if(views.begin(), views.end(), [](const adapter_view& a) {
        const vxsim::HostPort* p = scenario_port(wwn_value(a.port.PortWWN));
        return p && p->host_no == 2;
    });
    ASSERT_NE(v, views.end());
    event_log log;
    HBA_CALLBACKHANDLE cbh = nullptr;
    HBA_WWN other = v->port.PortWWN;
    other.wwn[7] ^= 0xFF;
    EXPECT_EQ(HBA_RegisterForAdapterPortEvents(on_port_event, &log, v->handle, other, &cbh),
              HBA_STATUS_ERROR_ILLEGAL_WWN);
    ASSERT_EQ(HBA_RegisterForAdapterPortEvents(on_port_event, &log, v->handle, v->port.PortWWN, &cbh), HBA_STATUS_OK);

    ASSERT_EQ(st::run_vxsim({"event", "--type", "linkdown", "--host", "2"}).status, 0);
    for (int waited = 0; waited < 1500 && log.calls == 0; waited += 10)
        real_sleep(10);
    real_sleep(300);  // many more passes: no second call
    EXPECT_EQ(log.calls.load(), 1);
    EXPECT_EQ(log.type.load(), static_cast<HBA_UINT32>(HBA_EVENT_PORT_OFFLINE));
    EXPECT_EQ(log.wwpn.load(), wwn_value(v->port.PortWWN));

    ASSERT_EQ(HBA_RemoveCallback(cbh), HBA_STATUS_OK);
    ASSERT_EQ(st::run_vxsim({"event", "--type", "linkdown", "--host", "2"}).status, 0);
    HBA_EVENTINFO info[8];
    HBA_UINT32 count = 0;
    for (int waited = 0; waited < 1500 && count == 0; waited += 10) {
        real_sleep(10);
        count = 8;
        ASSERT_EQ(HBA_GetEventBuffer(v->handle, info, &count), HBA_STATUS_OK);
    }
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(info[0].EventCode, static_cast<HBA_UINT32>(HBA_EVENT_PORT_OFFLINE));
    EXPECT_EQ(log.calls.load(), 1);
    close_all(views);
    EXPECT_EQ(HBA_FreeLibrary(), HBA_STATUS_OK);
}

// ---- SCSI commands and CT pass-through ----

constexpr uint64_t HOST2 = 0x2100001d5a025142;  // the Swift's first port
constexpr uint64_t DISKS = 0x5006016008601a00;  // target 0 behind it: disks
constexpr uint64_t TAPE = 0x5006016808601a01;   // target 1: LUN 0 is a tape

HBA_WWN wwn_of(uint64_t v) {
    HBA_WWN w;
    for (int i = 7; i >= 0; --i, v >>= 8)
        w.wwn[i] = static_cast<uint8_t>(v);
    return w;
}

using st::be;

using st::hex;

// The FCP LUN of a single-level midlayer LUN number: its two bytes first.
HBA_UINT64 fcp_lun(uint16_t lun) { return static_cast<HBA_UINT64>(lun) << 48; }

SIM_TEST(HbaApiWrapper, ScsiCommandsMatchTheScenario, "default.json") {
    write_conf(our_conf_line());
    ASSERT_EQ(HBA_LoadLibrary(), HBA_STATUS_OK);
    const std::vector<adapter_view> views = read_all(OUR_PREFIX);
    const auto v = view_of(views, HOST2);
    ASSERT_NE(v, views.end());
    const HBA_WWN own = v->port.PortWWN;

    std::vector<uint8_t> inq(256, 0xEE);
    uint8_t sense[32];
    ASSERT_EQ(HBA_SendScsiInquiry(v->handle, wwn_of(DISKS), fcp_lun(0), 0, 0, inq.data(), 255, sense, sizeof sense),
              HBA_STATUS_OK);
    EXPECT_EQ(std::string(inq.begin() + 8, inq.begin() + 36), "VARNEX  SIMDISK         0001");
    EXPECT_EQ(inq[255], 0xEE);

    // LUN 2 has 41943040 blocks, flat-space LUN 256 (0x4100 on the midlayer) 4194304.
    for (auto [lun, last] : {std::pair<HBA_UINT64, uint32_t>{fcp_lun(2), 41943039}, {fcp_lun(0x4100), 4194303}}) {
        uint8_t cap[8];
        HBA_UINT32 size = sizeof cap, sense_size = sizeof sense;
        HBA_UINT8 scsi = 0xEE;
        EXPECT_EQ(HBA_ScsiReadCapacityV2(v->handle, own, wwn_of(DISKS), lun, cap, &size, &scsi, sense, &sense_size),
                  HBA_STATUS_OK);
        EXPECT_EQ(be(cap, 8), uint64_t(last) << 32 | 512) << std::hex << lun;
        EXPECT_EQ(scsi, 0);
        EXPECT_EQ(sense_size, 0u);
    }

    uint8_t luns[64];
    HBA_UINT32 size = sizeof luns, sense_size = sizeof sense;
    HBA_UINT8 scsi = 0xEE;
    ASSERT_EQ(HBA_ScsiReportLUNsV2(v->handle, own, wwn_of(DISKS), luns, &size, &scsi, sense, &sense_size),
              HBA_STATUS_OK);
    EXPECT_EQ(hex(luns, 48), "000000280000000000000000000000000001000000000000000200000000000041000000000000004401"
                             "000000000000");

    // READ CAPACITY of a tape: ILLEGAL REQUEST, INVALID COMMAND OPERATION CODE.
    uint8_t cap[8];
    size = sizeof cap;
    sense_size = sizeof sense;
    EXPECT_EQ(HBA_ScsiReadCapacityV2(v->handle, own, wwn_of(TAPE), 0, cap, &size, &scsi, sense, &sense_size),
              HBA_STATUS_SCSI_CHECK_CONDITION);
    EXPECT_EQ(scsi, 0x02);
    ASSERT_EQ(sense_size, 18u);
    EXPECT_EQ(hex(sense, 18), "700005000000000a00000000200000000000");
    memset(sense, 0, sizeof sense);
    EXPECT_EQ(HBA_SendReadCapacity(v->handle, wwn_of(TAPE), 0, cap, sizeof cap, sense, sizeof sense),
              HBA_STATUS_SCSI_CHECK_CONDITION);
    EXPECT_EQ(sense[2], 0x05);

    // The name server's FCP ports (GID_FT): every one is a port of the scenario.
    uint8_t gid_ft[20] = {1, 0, 0, 0, 0xFC, 0x02, 0, 0, 0x01, 0x71};
    gid_ft[19] = 8;
    std::vector<uint8_t> resp(1024);
    HBA_UINT32 resp_size = static_cast<HBA_UINT32>(resp.size());
    ASSERT_EQ(HBA_SendCTPassThruV2(v->handle, own, gid_ft, sizeof gid_ft, resp.data(), &resp_size), HBA_STATUS_OK);
    ASSERT_EQ(be(resp.data() + 8, 2), 0x8002u) << "accept";
    std::set<uint32_t> known;
    for (const auto& a : st::scenario().adapters)
        for (const auto& f : a.functions) {
            std::vector<const vxsim::HostPort*> ports{&f.port};
            for (const auto& vp : f.vports)
                ports.push_back(&vp);
            for (const vxsim::HostPort* p : ports) {
                known.insert(p->port_id);
                for (const auto& r : p->remote_ports)
                    known.insert(r.port_id);
            }
        }
    size_t listed = 0;
    for (size_t at = 16; at + 4 <= resp.size(); at += 4) {
        EXPECT_TRUE(known.count(static_cast<uint32_t>(be(&resp[at + 1], 3)))) << at;
        ++listed;
        if (resp[at] & 0x80)  // the last entry
            break;
    }
    EXPECT_GT(listed, 1u);
    HBA_WWN other = own;
    other.wwn[7] ^= 0xFF;
    EXPECT_EQ(HBA_SendCTPassThruV2(v->handle, other, gid_ft, sizeof gid_ft, resp.data(), &resp_size),
              HBA_STATUS_ERROR_ILLEGAL_WWN);
    close_all(views);
    EXPECT_EQ(HBA_FreeLibrary(), HBA_STATUS_OK);
}

// ---- Link services ----

// The link error status block the scenario's remote port reports, as it
// travels: six big-endian counters.
std::string link_error_block(const vxsim::RemotePort& r) {
    uint8_t block[24];
    size_t at = 0;
    for (uint32_t c : vxsim::remote_link_errors(r))
        for (int shift = 24; shift >= 0; shift -= 8)
            block[at++] = static_cast<uint8_t>(c >> shift);
    return hex(block, sizeof block);
}

void check_link_services() {
    write_conf(our_conf_line());
    ASSERT_EQ(HBA_LoadLibrary(), HBA_STATUS_OK);
    const std::vector<adapter_view> views = read_all(OUR_PREFIX);
    const auto v = view_of(views, HOST2);
    ASSERT_NE(v, views.end());
    const HBA_HANDLE h = v->handle;
    const HBA_WWN own = v->port.PortWWN;
    const vxsim::HostPort* host = scenario_port(HOST2);
    ASSERT_NE(host, nullptr);
    const auto disks = std::find_if(host->remote_ports.begin(), host->remote_ports.end(),
                                    [](const vxsim::RemotePort& r) { return r.wwpn == DISKS; });
    ASSERT_NE(disks, host->remote_ports.end());
    const std::string block = link_error_block(*disks);
    HBA_WWN unknown = wwn_of(DISKS);
    unknown.wwn[7] ^= 0x5A;
    const HBA_WWN none{};

    // RLS: the LS_ACC and the destination's block.
    uint8_t rsp[128];
    HBA_UINT32 size = sizeof rsp;
    ASSERT_EQ(HBA_SendRLS(h, own, wwn_of(DISKS), rsp, &size), HBA_STATUS_OK);
    ASSERT_EQ(size, 28u);
    EXPECT_EQ(hex(rsp, 28), "02000000" + block);

    // A short buffer: as much as fits, nothing past it, the whole length back.
    memset(rsp, 0xEE, sizeof rsp);
    size = 10;
    EXPECT_EQ(HBA_SendRLS(h, own, wwn_of(DISKS), rsp, &size), HBA_STATUS_OK);
    EXPECT_EQ(size, 28u);
    EXPECT_EQ(hex(rsp, 10), ("02000000" + block).substr(0, 20));
    EXPECT_EQ(rsp[10], 0xEE);

    // RPS: the agent answers for the object, named by port name or by port
    // number; the flags come back, then the port status (an N_Port on a
    // fabric) and the block.
    size = sizeof rsp;
    ASSERT_EQ(HBA_SendRPS(h, own, wwn_of(DISKS), 0, wwn_of(DISKS), 0, rsp, &size), HBA_STATUS_OK);
    ASSERT_EQ(size, 36u);
    EXPECT_EQ(hex(rsp, 36), "020000000000000200000014" + block);
    size = sizeof rsp;
    ASSERT_EQ(HBA_SendRPS(h, own, wwn_of(DISKS), 0, none, disks->number, rsp, &size), HBA_STATUS_OK);
    EXPECT_EQ(hex(rsp, 12), "020000000000000100000014");
    // An object the agent does not know: its LS_RJT (unable to perform).
    memset(rsp, 0xEE, sizeof rsp);
    size = sizeof rsp;
    EXPECT_EQ(HBA_SendRPS(h, own, wwn_of(DISKS), 0, none, disks->number + 100, rsp, &size),
              HBA_STATUS_ERROR_ELS_REJECT);
    EXPECT_EQ(size, 8u);
    EXPECT_EQ(hex(rsp, 9), "0100000000090000ee");
    // A switch agent named by its domain is not served.
    size = sizeof rsp;
    EXPECT_EQ(HBA_SendRPS(h, own, none, 1, wwn_of(DISKS), 0, rsp, &size), HBA_STATUS_ERROR_NOT_SUPPORTED);

    // RNID, topology discovery format, by port name and by node name.
    for (HBA_WWNTYPE type : {PORT_WWN, NODE_WWN}) {
        SCOPED_TRACE(type);
        size = sizeof rsp;
        ASSERT_EQ(HBA_SendRNID(h, wwn_of(type == PORT_WWN ? disks->wwpn : disks->wwnn), type, rsp, &size),
                  HBA_STATUS_OK);
        ASSERT_EQ(size, 76u);
        EXPECT_EQ(hex(rsp, 8), "02000000df100034");
        EXPECT_EQ(be(rsp + 8, 8), disks->wwpn);
        EXPECT_EQ(be(rsp + 16, 8), disks->wwnn);
    }
    EXPECT_EQ(HBA_SendRNID(h, wwn_of(DISKS), static_cast<HBA_WWNTYPE>(2), rsp, &size), HBA_STATUS_ERROR_ARG);

    // Names nobody has, and the adapter's port named wrongly.
    size = sizeof rsp;
    EXPECT_EQ(HBA_SendRLS(h, own, unknown, rsp, &size), HBA_STATUS_ERROR_ILLEGAL_WWN);
    EXPECT_EQ(HBA_SendRPS(h, own, unknown, 0, wwn_of(DISKS), 0, rsp, &size), HBA_STATUS_ERROR_ILLEGAL_WWN);
    EXPECT_EQ(HBA_SendRNID(h, unknown, PORT_WWN, rsp, &size), HBA_STATUS_ERROR_ILLEGAL_WWN);
    EXPECT_EQ(HBA_SendRNID(h, wwn_of(DISKS), NODE_WWN, rsp, &size), HBA_STATUS_ERROR_ILLEGAL_WWN) << "not a node name";
    EXPECT_EQ(HBA_SendRLS(h, wwn_of(DISKS), wwn_of(DISKS), rsp, &size), HBA_STATUS_ERROR_ILLEGAL_WWN);
    EXPECT_EQ(HBA_SendRLS(h, own, wwn_of(DISKS), rsp, nullptr), HBA_STATUS_ERROR_ARG);
    size = 0;
    EXPECT_EQ(HBA_SendRLS(h, own, wwn_of(DISKS), rsp, &size), HBA_STATUS_ERROR_ARG);

    // RNID management data: the port's own until set, then what was set.
    HBA_MGMTINFO info;
    memset(&info, 0xEE, sizeof info);
    ASSERT_EQ(HBA_GetRNIDMgmtInfo(h, &info), HBA_STATUS_OK);
    EXPECT_EQ(wwn_value(info.wwn), wwn_value(v->attrs.NodeWWN));
    EXPECT_EQ(info.unittype, 0x0Au);
    EXPECT_EQ(info.PortId, v->port.PortFcId);
    EXPECT_EQ(info.NumberOfAttachedNodes, v->port.NumberofDiscoveredPorts);
    EXPECT_EQ(info.IPVersion, 0);
    EXPECT_EQ(info.TopologyDiscoveryFlags, 0);
    HBA_MGMTINFO set;
    memset(&set, 0, sizeof set);
    set.wwn = wwn_of(0x2000001d5a7777ull);
    set.unittype = 0x07;
    set.PortId = 0x123456;
    set.NumberOfAttachedNodes = 3;
    set.IPVersion = 4;
    set.UDPPort = 161;
    memcpy(set.IPAddress, "\xc0\xa8\x01\x02", 4);
    set.TopologyDiscoveryFlags = 0x8000;
    ASSERT_EQ(HBA_SetRNIDMgmtInfo(h, &set), HBA_STATUS_OK);
    memset(&info, 0xEE, sizeof info);
    ASSERT_EQ(HBA_GetRNIDMgmtInfo(h, &info), HBA_STATUS_OK);
    EXPECT_EQ(memcmp(&info, &set, sizeof set), 0);
    // Another port keeps its own.
    const auto other = std::find_if(views.begin(), views.end(), [&](const adapter_view& a) { return a.handle != h; });
    ASSERT_NE(other, views.end());
    ASSERT_EQ(HBA_GetRNIDMgmtInfo(other->handle, &info), HBA_STATUS_OK);
    EXPECT_EQ(wwn_value(info.wwn), wwn_value(other->attrs.NodeWWN));
    EXPECT_EQ(HBA_GetRNIDMgmtInfo(h, nullptr), HBA_STATUS_ERROR_ARG);
    EXPECT_EQ(HBA_SetRNIDMgmtInfo(h, nullptr), HBA_STATUS_ERROR_ARG);

    // A closed handle is refused by every one of them.
    close_all(views);
    size = sizeof rsp;
    EXPECT_EQ(HBA_SendRLS(h, own, wwn_of(DISKS), rsp, &size), HBA_STATUS_ERROR_INVALID_HANDLE);
    EXPECT_EQ(HBA_SendRPS(h, own, wwn_of(DISKS), 0, none, 0, rsp, &size), HBA_STATUS_ERROR_INVALID_HANDLE);
    EXPECT_EQ(HBA_SendRNID(h, wwn_of(DISKS), PORT_WWN, rsp, &size), HBA_STATUS_ERROR_INVALID_HANDLE);
    EXPECT_EQ(HBA_GetRNIDMgmtInfo(h, &info), HBA_STATUS_ERROR_INVALID_HANDLE);
    EXPECT_EQ(HBA_SetRNIDMgmtInfo(h, &set), HBA_STATUS_ERROR_INVALID_HANDLE);
    EXPECT_EQ(HBA_FreeLibrary(), HBA_STATUS_OK);
}

SIM_TEST(HbaApiWrapper, SysfsLinkServices, "default.json") { check_link_services(); }

SIM_TEST(HbaApiWrapper, IoctlLinkServices, "ioctl.json") { check_link_services(); }

}  // namespace
