// Scenario loader: strictness, error lines, defaults, round trip, and the
// shipped scenarios' promises that other tests rely on.
#include <algorithm>
#include <filesystem>
#include <set>

#include <gtest/gtest.h>

#include "model.h"
#include "vx_adapters.h"

namespace {

using namespace vxsim;

const std::filesystem::path kScenarios =
    std::filesystem::path(__FILE__).parent_path().parent_path().parent_path() / "sim" / "scenarios";

Scenario load(const std::string& name) {
    Scenario s;
    std::string err;
    EXPECT_TRUE(load_scenario((kScenarios / name).string(), s, err)) << err;
    return s;
}

// A minimal valid document with one placeholder to break.
std::string doc(const std::string& adapter_extra, const std::string& port_extra = "",
                const std::string& top_extra = "") {
    return R"({"name":"t",)" + top_extra + R"("adapters":[{"id":"a","device_id":"0x2031",)" + adapter_extra +
           R"("functions":[{"pci_address":"0000:05:00.0","port":{"host_no":2)" + port_extra + "}}]}]}";
}

struct BadCase {
    const char* what;
    std::string text;
    const char* expected;  // the error must contain this
};

TEST(sim_model_loader, rejects_bad_documents_with_one_line_naming_the_path) {
    const BadCase cases[] = {
        {"syntax", R"({"adapters": [,]})", "invalid JSON: parse error at line 1"},
        {"top-level typo", doc("", "", R"("adaptors":[],)"), R"($: unknown key "adaptors")"},
        {"port typo", doc("", R"(,"wwpm":"0x1")"), R"($.adapters[0].functions[0].port: unknown key "wwpm")"},
        {"lun typo", doc("", R"(,"remote_ports":[{"luns":[{"lun":1,"blocs":5}]}])"),
         R"($.adapters[0].functions[0].port.remote_ports[0].luns[0]: unknown key "blocs")"},
        {"bool type", doc(R"("serial_in_sysfs":"yes",)"), "$.adapters[0].serial_in_sysfs: expected true or false"},
        {"short wwn", doc("", R"(,"wwpn":"21:00:00:1b")"), "$.adapters[0].functions[0].port.wwpn: expected a WWN"},
        {"wwn too long", doc("", R"(,"wwnn":"0x12345678901234567")"), "port.wwnn: expected a WWN"},
        {"port id range", doc("", R"(,"port_id":"0x1000000")"), "port.port_id: expected an unsigned number"},
        {"negative", doc("", R"(,"max_npiv_vports":-1)"), "port.max_npiv_vports: expected an unsigned"},
        {"lun range", doc("", R"(,"remote_ports":[{"luns":[{"lun":65536}]}])"), "luns[0].lun: expected"},
        {"target id", doc("", R"(,"remote_ports":[{"scsi_target_id":-2}])"), "scsi_target_id: expected an integer"},
        {"missing device", R"({"adapters":[{"id":"a","functions":[]}]})", R"($.adapters[0]: missing key "device_id")"},
        {"no functions", R"({"adapters":[{"id":"a","device_id":1,"functions":[]}]})", "at least one PCI function"},
        {"pci address", R"({"adapters":[{"id":"a","device_id":1,"functions":[{"pci_address":"05:00.0"}]}]})",
         "functions[0].pci_address: expected \"dddd:bb:dd.f\""},
        {"channel", doc(R"("channel":"sysf",)"), R"($.adapters[0].channel: expected "sysfs")"},
        {"bios version", doc(R"("flash":{"bios":"3.x"},)"), "$.adapters[0].flash.bios: expected \"major.minor\""},
        {"fw version", doc(R"("flash":{"firmware":"8.05"},)"), "flash.firmware: expected \"major.minor.sub\""},
        {"unsafe id", R"({"adapters":[{"id":"../x","device_id":1,"functions":[]}]})", "$.adapters[0].id: expected"},
        {"fw_state", doc("", R"(,"fw_state":[1,2])"), "port.fw_state: expected an array of six"},
        {"mac", doc("", R"(,"vn_port_mac":"0e:fc:00")"), "port.vn_port_mac: expected a MAC"},
        {"duplicate host",
         R"({"adapters":[{"id":"a","device_id":1,"functions":[{"pci_address":"0000:05:00.0",)"
         R"("port":{"host_no":2},"vports":[{"host_no":2}]}]}]})",
         "functions[0].vports[0].host_no: host 2 is used twice"},
        {"fault", R"({"faults":[{"endpoint":"ioctl"}]})", R"($.faults[0]: missing key "action")"},
        {"generate size", R"({"generate":{"adapters":200,"device_id":"0x2031"}})", "$.generate: at most 256"},
    };
    for (const BadCase& c : cases) {
        Scenario s;
        std::string err;
        EXPECT_FALSE(parse_scenario(c.text, s, err)) << c.what;
        EXPECT_NE(err.find(c.expected), std::string::npos) << c.what << ": " << err;
        EXPECT_EQ(err.find('\n'), std::string::npos) << c.what << ": " << err;
    }
}

TEST(sim_model_loader, duplicate_adapter_ids_and_pci_addresses_are_errors) {
    const std::string fn = R"("functions":[{"pci_address":"0000:05:00.0","port":{"host_no":)";
    Scenario s;
    std::string err;
    EXPECT_FALSE(parse_scenario(R"({"adapters":[{"id":"a","device_id":1,)" + fn + R"(1}}]},{"id":"a","device_id":1,)" +
                                    fn + "2}}]}]}",
                                s, err));
    EXPECT_NE(err.find("$.adapters[1].id: adapter id \"a\" is used twice"), std::string::npos) << err;
    EXPECT_FALSE(parse_scenario(R"({"adapters":[{"id":"a","device_id":1,)" + fn + R"(1}}]},{"id":"b","device_id":1,)" +
                                    fn + "2}}]}]}",
                                s, err));
    EXPECT_NE(err.find("$.adapters[1].functions[0].pci_address: 0000:05:00.0 is used twice"), std::string::npos)
        << err;
}

TEST(sim_model_loader, absent_keys_keep_the_model_defaults) {
    Scenario s;
    std::string err;
    ASSERT_TRUE(parse_scenario(doc("", R"(,"remote_ports":[{"luns":[{"lun":3}]}])"), s, err)) << err;
    const Adapter& a = s.adapters.at(0);
    const Adapter def;
    EXPECT_EQ(a.vendor_id, def.vendor_id);
    EXPECT_EQ(a.driver_name, def.driver_name);
    EXPECT_EQ(a.partial_flash, def.partial_flash);
    EXPECT_EQ(a.channel, def.channel);
    EXPECT_EQ(a.flash.bios, def.flash.bios);
    const HostPort& h = a.functions.at(0).port;
    EXPECT_EQ(h.fw_state, HostPort{}.fw_state);
    EXPECT_EQ(h.link_state, HostPort{}.link_state);
    EXPECT_EQ(h.vport_id, HostPort{}.vport_id);
    const RemotePort& r = h.remote_ports.at(0);
    EXPECT_EQ(r.roles, RemotePort{}.roles);
    EXPECT_EQ(r.scsi_target_id, RemotePort{}.scsi_target_id);
    EXPECT_EQ(r.luns.at(0).lun, 3);
    EXPECT_EQ(r.luns.at(0).blocks, Lun{}.blocks);
    EXPECT_EQ(a.functions.at(0).sg_tablesize, PciFunction{}.sg_tablesize);
}

TEST(sim_model_loader, number_and_name_spellings) {
    Scenario s;
    std::string err;
    ASSERT_TRUE(parse_scenario(doc(R"("subsystem_device_id":"0x0F00",)",
                                   R"(,"wwpn":"21:00:00:1B:32:00:00:01","wwnn":"0x2000001b32000001",)"
                                   R"("port_id":66048,"fabric_name":1234,"vn_port_mac":"0e:FC:00:01:02:03")"),
                               s, err))
        << err;
    const HostPort& h = s.adapters[0].functions[0].port;
    EXPECT_EQ(s.adapters[0].subsystem_device_id, 0x0F00);
    EXPECT_EQ(h.wwpn, 0x2100001b32000001ull);
    EXPECT_EQ(h.wwnn, 0x2000001b32000001ull);
    EXPECT_EQ(h.port_id, 0x010200u);
    EXPECT_EQ(h.fabric_name, 1234u);
    EXPECT_EQ(h.vn_port_mac[1], 0xFC);
    EXPECT_EQ(h.vn_port_mac[5], 0x03);
}

TEST(sim_model_loader, text_helpers) {
    EXPECT_EQ(wwn_hex(0x2100001b32000001ull), "0x2100001b32000001");
    EXPECT_EQ(wwn_hex(0x1), "0x0000000000000001");
    EXPECT_EQ(port_id_hex(0x010200), "0x010200");
    EXPECT_EQ(port_id_hex(0xff), "0x0000ff");
    const std::pair<const char*, int> fns[] = {
        {"0000:03:00.0", 0}, {"0000:03:00.1", 1}, {"0000:81:00.7", 7}, {"garbage", 0}, {"0000:03:00.", 0}};
    for (auto [addr, fn] : fns)
        EXPECT_EQ(pci_function_number(addr), fn) << addr;
}

TEST(sim_model_loader, written_json_reads_back_to_the_same_model) {
    for (const char* name : {"default.json", "families.json", "single.json"}) {
        const Scenario a = load(name);
        const std::string once = scenario_to_json(a);
        Scenario b;
        std::string err;
        ASSERT_TRUE(parse_scenario(once, b, err)) << name << ": " << err;
        EXPECT_EQ(scenario_to_json(b), once) << name;
    }
}

TEST(sim_model_loader, missing_file_and_unnamed_scenario) {
    Scenario s;
    std::string err;
    EXPECT_FALSE(load_scenario((kScenarios / "no-such.json").string(), s, err));
    EXPECT_NE(err.find("no-such.json: cannot open"), std::string::npos) << err;
    // A scenario without a name takes the file's stem.
    EXPECT_EQ(load("large.json").name, "large");
}

TEST(sim_model_loader, large_scenario_expands_to_64_ports_and_4096_remote_ports) {
    const Scenario s = load("large.json");
    size_t ports = 0, rports = 0, with_luns = 0;
    std::set<uint32_t> hosts;
    std::set<uint64_t> wwpns;
    std::set<std::string> pci;
    for (const Adapter& a : s.adapters) {
        EXPECT_NE(vx_adapter_lookup(a.device_id), nullptr);
        for (const PciFunction& f : a.functions) {
            ++ports;
            hosts.insert(f.port.host_no);
            wwpns.insert(f.port.wwpn);
            pci.insert(f.pci_address);
            EXPECT_EQ(f.port.remote_ports.size(), 64u);
            for (const RemotePort& r : f.port.remote_ports) {
                ++rports;
                wwpns.insert(r.wwpn);
                with_luns += !r.luns.empty();
            }
        }
    }
    EXPECT_EQ(ports, 64u);
    EXPECT_EQ(rports, 4096u);
    EXPECT_EQ(hosts.size(), ports);
    EXPECT_EQ(pci.size(), ports);
    EXPECT_EQ(wwpns.size(), ports + rports);
    EXPECT_GT(with_luns, 0u);
    EXPECT_LT(with_luns, rports);
}

TEST(sim_model_loader, generated_hosts_follow_explicit_ones) {
    Scenario s;
    std::string err;
    ASSERT_TRUE(parse_scenario(doc("", "", R"("generate":{"adapters":2,"device_id":"0x2050","remote_ports_per_port":3},)"),
                               s, err))
        << err;
    ASSERT_EQ(s.adapters.size(), 3u);
    EXPECT_EQ(s.adapters[1].functions[0].port.host_no, 3u);  // explicit adapter holds host 2
    EXPECT_EQ(s.adapters[2].functions[0].port.host_no, 4u);
    EXPECT_EQ(s.adapters[2].functions[0].port.remote_ports.size(), 3u);
}

// Other tests and the demo rely on these properties of the default host.
TEST(sim_model_loader, default_scenario_covers_what_the_demo_shows) {
    const Scenario s = load("default.json");
    ASSERT_EQ(s.adapters.size(), 2u);
    EXPECT_NE(vx_adapter_family(s.adapters[0].device_id), vx_adapter_family(s.adapters[1].device_id));
    bool dual = false, vport = false, flat_lun = false, initiator_only = false, blocked = false;
    std::vector<std::pair<std::string, uint32_t>> by_address;
    for (const Adapter& a : s.adapters) {
        EXPECT_EQ(a.channel, Channel::Sysfs);
        dual |= a.functions.size() == 2;
        for (const PciFunction& f : a.functions) {
            by_address.emplace_back(f.pci_address, f.port.host_no);
            vport |= !f.vports.empty();
            for (const RemotePort& r : f.port.remote_ports) {
                initiator_only |= r.scsi_target_id < 0 && r.roles == "FCP Initiator";
                blocked |= r.state == "Blocked" && r.scsi_target_id >= 0;
                for (const Lun& l : r.luns)
                    flat_lun |= l.lun >= 256;
            }
        }
    }
    EXPECT_TRUE(dual && vport && flat_lun && initiator_only && blocked);
    std::sort(by_address.begin(), by_address.end());
    EXPECT_FALSE(std::is_sorted(by_address.begin(), by_address.end(),
                                [](const auto& x, const auto& y) { return x.second < y.second; }))
        << "host numbers should not follow the PCI directory order";
}

}  // namespace
