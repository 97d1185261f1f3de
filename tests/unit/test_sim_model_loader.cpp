// Scenario loader: strictness, error lines, spellings, round trip, generated
// hosts.
#include <filesystem>
#include <vector>

#include <gtest/gtest.h>

#include "model.h"

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

Scenario parse(const std::string& text) {
    Scenario s;
    std::string err;
    EXPECT_TRUE(parse_scenario(text, s, err)) << err;
    return s;
}

// A minimal valid document with one placeholder to break.
std::string doc(const std::string& adapter_extra, const std::string& port_extra = "",
                const std::string& top_extra = "") {
    return R"({"name":"t",)" + top_extra + R"("adapters":[{"id":"a","device_id":"0x2031",)" + adapter_extra +
           R"("functions":[{"pci_address":"0000:05:00.0","port":{"host_no":2)" + port_extra + "}}]}]}";
}

TEST(sim_model_loader, rejects_bad_documents_with_one_line_naming_the_path) {
    const std::string fn = R"("functions":[{"pci_address":"0000:05:00.0","port":{"host_no":)";
    const std::pair<std::string, const char*> cases[] = {  // the document, what the error must contain
        {R"({"adapters": [,]})", "invalid JSON: parse error at line 1"},
        {doc("", "", R"("adaptors":[],)"), R"($: unknown key "adaptors")"},
        {doc("", R"(,"remote_ports":[{"luns":[{"lun":1,"blocs":5}]}])"),
         R"($.adapters[0].functions[0].port.remote_ports[0].luns[0]: unknown key "blocs")"},
        {doc(R"("serial_in_sysfs":"yes",)"), "$.adapters[0].serial_in_sysfs: expected true or false"},
        {doc("", R"(,"wwpn":"21:00:00:1b")"), "$.adapters[0].functions[0].port.wwpn: expected a WWN"},
        {R"({"adapters":[{"id":"a","functions":[]}]})", R"($.adapters[0]: missing key "device_id")"},
        {R"({"adapters":[{"id":"a","device_id":1,"functions":[{"pci_address":"05:00.0"}]}]})",
         "functions[0].pci_address: expected \"dddd:bb:dd.f\""},
        {doc(R"("channel":"sysf",)"), R"($.adapters[0].channel: expected "sysfs")"},
        {R"({"adapters":[{"id":"../x","device_id":1,"functions":[]}]})", "$.adapters[0].id: expected"},
        {R"({"adapters":[{"id":"a","device_id":1,"functions":[{"pci_address":"0000:05:00.0",)"
         R"("port":{"host_no":2},"vports":[{"host_no":2}]}]}]})",
         "functions[0].vports[0].host_no: host 2 is used twice"},
        {R"({"adapters":[{"id":"a","device_id":1,)" + fn + R"(1}}]},{"id":"a","device_id":1,)" + fn + "2}}]}]}",
         "$.adapters[1].id: adapter id \"a\" is used twice"},
        {R"({"adapters":[{"id":"a","device_id":1,)" + fn + R"(1}}]},{"id":"b","device_id":1,)" + fn + "2}}]}]}",
         "$.adapters[1].functions[0].pci_address: 0000:05:00.0 is used twice"},
        {R"({"generate":{"adapters":200,"device_id":"0x2031"}})", "$.generate: at most 256"},
        {doc("", R"(,"remote_ports":[{"target_kind":"sleepy"}])"),
         R"(remote_ports[0].target_kind: expected "normal", "rejects_report_luns")"},
        {doc("", R"(,"remote_ports":[{"fc4_types":[8,256]}])"), "remote_ports[0].fc4_types[1]: expected"},
        {doc("", "", R"("faults":[{"endpoint":"flash","action":"eio"}],)"),
         R"($.faults[0].endpoint: unknown fault endpoint "flash" (optrom_ctl, optrom, nvram,)"},
    };
    Scenario s;
    std::string err;
    for (const auto& [text, expected] : cases) {
        err.clear();
        EXPECT_FALSE(parse_scenario(text, s, err)) << expected;
        EXPECT_NE(err.find(expected), std::string::npos) << err;
        EXPECT_EQ(err.find('\n'), std::string::npos) << err;
    }
    EXPECT_FALSE(load_scenario((kScenarios / "no-such.json").string(), s, err));
    EXPECT_NE(err.find("no-such.json: cannot open"), std::string::npos) << err;
}

TEST(sim_model_loader, number_and_name_spellings) {
    const Scenario s = parse(doc(R"("subsystem_device_id":"0x0F00",)",
                                 R"(,"wwpn":"21:00:00:1B:32:00:00:01","wwnn":"0x2000001b32000001",)"
                                 R"("port_id":66048,"fabric_name":1234,"vn_port_mac":"0e:FC:00:01:02:03")"));
    const HostPort& h = s.adapters.at(0).functions.at(0).port;
    EXPECT_EQ(s.adapters[0].subsystem_device_id, 0x0F00);
    EXPECT_EQ((std::vector<uint64_t>{h.wwpn, h.wwnn, h.port_id, h.fabric_name, h.vn_port_mac[1], h.vn_port_mac[5]}),
              (std::vector<uint64_t>{0x2100001b32000001, 0x2000001b32000001, 0x010200, 1234, 0xFC, 0x03}));
    EXPECT_EQ(wwn_hex(0x1), "0x0000000000000001");  // the texts are zero-padded
    EXPECT_EQ(port_id_hex(0xff), "0x0000ff");
    const std::pair<const char*, int> fns[] = {{"0000:03:00.1", 1}, {"0000:81:00.7", 7}, {"garbage", 0},
                                               {"0000:03:00.", 0}};
    for (auto [addr, fn] : fns)
        EXPECT_EQ(pci_function_number(addr), fn) << addr;
}

TEST(sim_model_loader, written_json_reads_back_to_the_same_model) {
    for (const char* name : {"default.json", "families.json", "single.json"}) {
        const std::string once = scenario_to_json(load(name));
        EXPECT_EQ(scenario_to_json(parse(once)), once) << name;
    }
    const std::string scsi = scenario_to_json(parse(doc("", R"(,"remote_ports":[{"target_kind":"busy",)"
                                                               R"("fc4_types":[],"luns":[{"lun":1,"serial":"S1"}]}])")));
    EXPECT_EQ(scenario_to_json(parse(scsi)), scsi);
    EXPECT_NE(scsi.find(R"("fc4_types": [])"), std::string::npos) << "an empty list is not the default";
    EXPECT_EQ(load("large.json").name, "large");  // a scenario without a name takes the file's stem
}

TEST(sim_model_loader, generated_hosts_follow_explicit_ones) {
    const Scenario g =
        parse(doc("", "", R"("generate":{"adapters":2,"device_id":"0x2050","remote_ports_per_port":3},)"));
    ASSERT_EQ(g.adapters.size(), 3u);
    const HostPort &one = g.adapters[1].functions.at(0).port, &two = g.adapters[2].functions.at(0).port;
    EXPECT_EQ(std::make_pair(one.host_no, two.host_no), std::make_pair(3u, 4u));  // the explicit adapter holds host 2
    EXPECT_EQ(two.remote_ports.size(), 3u);
    EXPECT_NE(one.wwpn, two.wwpn);
}

}  // namespace
