// vxcli's per-port commands on the default simulated host, read back through
// their JSON output.
#include <unistd.h>

#include <string>

#include "libtest.h"

namespace {

namespace st = vxsim::test;
using nlohmann::json;

// Runs vxcli with --json; its parsed output, once its exit status is checked.
json vxcli(const std::vector<std::string>& args, int want_status = 0) {
    std::vector<std::string> argv = {st::vxcli_binary(), "--json"};
    argv.insert(argv.end(), args.begin(), args.end());
    const st::Output out = st::run(argv);
    EXPECT_EQ(out.status, want_status) << args[0] << ":\n" << out.text;
    return json::parse(out.text, nullptr, false);
}

}  // namespace

SIM_TEST(Vxcli, PortCommandsOnTheDefaultHost, "default.json") {
    if (access(st::vxcli_binary().c_str(), X_OK) != 0)
        GTEST_SKIP() << "vxcli is not built";
    // Instance 1 is the Swift's first port: two online targets, the large
    // LUNs decoded from their flat-space names.
    json luns = vxcli({"luns", "1"});
    ASSERT_TRUE(luns.contains("targets")) << luns.dump();
    EXPECT_EQ(luns["targets"], json::parse(R"([
        {"target": 0, "wwpn": "50:06:01:60:08:60:1a:00", "luns": [0, 1, 2, 256, 1025]},
        {"target": 1, "wwpn": "50:06:01:68:08:60:1a:01", "luns": [0, 5]}])"));

    json targets = vxcli({"targets", "1"});
    ASSERT_EQ(targets["targets"].size(), 2u) << targets.dump();
    EXPECT_EQ(targets["targets"][0]["port_id"], "0x010400");
    EXPECT_EQ(targets["targets"][0]["state"], "online");
    EXPECT_EQ(targets["targets"][0]["luns"], 5);
    EXPECT_EQ(targets["targets"][1]["luns"], 2);

    json show = vxcli({"show", "3"});
    EXPECT_EQ(show["node"]["serial"], "VXS10510042");
    EXPECT_EQ(show["node"]["interface"], "physical");
    EXPECT_EQ(show["port"]["speed"], "4 Gbit");
    EXPECT_EQ(show["port"]["discovered_targets"], 1);
    EXPECT_EQ(show["chip"]["pci_location"], "0000:05:00.1");
    EXPECT_EQ(show["chip"]["port_number"], 2);
    EXPECT_EQ(show["firmware"]["version"], "8.05.63");
    EXPECT_FALSE(show.contains("cna")) << "not a converged board";

    json list = vxcli({"list"});
    ASSERT_EQ(list["ports"].size(), 4u);
    EXPECT_EQ(list["ports"][2]["type"], "virtual");
    EXPECT_EQ(list["ports"][2]["wwpn"], "21:01:00:1d:5a:02:51:42");
    // Host numbers by port name, not in instance order: the NPIV port is host 8.
    EXPECT_EQ(list["ports"][0]["host"], 7);
    EXPECT_EQ(list["ports"][2]["host"], 8);

    vxcli({"show", "4"}, 2);  // no port 4
}
