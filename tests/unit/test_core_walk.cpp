// Reading one host's subtree directly: its remote-port names, attributes by
// one read, targets through the SCSI bus, LUN maps, and the indexed walk's
// snapshot on its own clock. (The walk seen through the interface, with the
// tree changing under it, is tested end to end.)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "test_core_sysfs_tree.h"
#include "vx_sysfs.h"

namespace {

std::atomic<uint64_t> fake_now{5'000'000'000};
uint64_t fake_clock() { return fake_now.load(); }

class Walk : public testing::Test {
protected:
    sysfs_tree tree;
    mnt_path_override mnt{tree.root()};

    void SetUp() override {
        vxsysfs_walk_reset();
        vxsysfs_walk_clock = fake_clock;
    }
    void TearDown() override {
        vxsysfs_walk_reset();
        vxsysfs_walk_clock = saved_clock;
    }

    // An online FCP target unless told otherwise.
    void port(uint32_t host, const std::string& name, const std::string& state = "Online",
              const std::string& roles = "FCP Target") {
        tree.rport(host, name, {{"port_state", state}, {"roles", roles}});
    }

private:
    vxsysfs_clock_fn saved_clock = vxsysfs_walk_clock.load();
};

TEST(RportName, HostChannelAndNumber) {
    const struct {
        const char* name;
        bool ok;
        uint32_t host, channel, number;
    } rows[] = {{"rport-3:0-12", true, 3, 0, 12},        {"rport-4294967295:2-0", true, 4294967295u, 2, 0},
                {"rport-3:0-12x", false, 0, 0, 0},       {"rport-3:0", false, 0, 0, 0},
                {"target3:0:1", false, 0, 0, 0},        {nullptr, false, 0, 0, 0}};
    for (const auto& r : rows) {
        uint32_t h = 0, c = 0, n = 0;
        EXPECT_EQ(vxsysfs_parse_rport_name(r.name, &h, &c, &n), r.ok) << (r.name ? r.name : "null");
        if (r.ok) {
            EXPECT_EQ((std::vector<uint32_t>{h, c, n}), (std::vector<uint32_t>{r.host, r.channel, r.number}));
        }
    }
}

// Names come in name order, only the host's own directories, whatever the
// order they were made in; the host's channels are remembered from them.
TEST_F(Walk, HostListsItsOwnRemotePortsInNameOrder) {
    for (const char* n : {"rport-3:0-10", "rport-3:0-2", "rport-3:2-1", "rport-3:0-1"})
        port(3, n);
    port(30, "rport-30:0-1");
    tree.rport(3, "rport-3:0-5", {});
    tree.file(tree.host(3) + "/rport-3:0-9", "not a directory\n");
    const vxsysfs_host_dir host(3);
    ASSERT_TRUE(host.ok());
    vxsysfs_rport_names names;
    ASSERT_TRUE(names.list(host.fd(), 3));
    std::vector<std::string> got;
    for (size_t i = 0; i < names.size(); ++i)
        got.emplace_back(names[i]);
    EXPECT_EQ(got, (std::vector<std::string>{"rport-3:0-1", "rport-3:0-10", "rport-3:0-2", "rport-3:0-5", "rport-3:2-1"}));
    EXPECT_EQ(vxsysfs_host_channels(host), uint64_t{0x5});
    EXPECT_EQ(vxsysfs_host_channels(vxsysfs_host_dir(9)), uint64_t{0x1}) << "channel 0 on a host without ports";

    const vxsysfs_host_dir missing(4);
    EXPECT_FALSE(missing.ok());
    EXPECT_FALSE(names.list(missing.fd(), 4));
    EXPECT_EQ(names.size(), 0u);
}

TEST_F(Walk, OneReadOfAnAttribute) {
    tree.file("a/text", "Online\n\n");
    tree.file("a/long", std::string(300, 'x'));
    const int dir = open(tree.path("a").c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(dir, 0);
    char small[8] = "zzzzzzz";
    EXPECT_TRUE(vxsysfs_read_at(dir, "text", small, sizeof small));
    EXPECT_STREQ(small, "Online");
    char cut[5];
    EXPECT_TRUE(vxsysfs_read_at(dir, "long", cut, sizeof cut));
    EXPECT_STREQ(cut, "xxxx");
    EXPECT_FALSE(vxsysfs_read_at(dir, "missing", small, sizeof small));
    EXPECT_STREQ(small, "");
    EXPECT_FALSE(vxsysfs_read_at(-1, "text", small, sizeof small));
    EXPECT_FALSE(vxsysfs_read_at(dir, "text", small, 0));
    close(dir);
}

// A later index answers from the snapshot of index 0 until it is a second
// old or its port stops qualifying; an index with no snapshot takes one.
TEST_F(Walk, SnapshotIsReusedUntilItAgesOrItsPortFails) {
    for (const char* n : {"rport-2:0-1", "rport-2:0-3", "rport-2:0-5"})
        port(2, n);
    const vxsysfs_host_dir host(2);
    char name[VXSYSFS_RPORT_NAME_LEN];
    const auto at = [&](uint16_t i) { return vxsysfs_walk_port(host, i, name, sizeof name) ? std::string(name) : ""; };

    EXPECT_EQ(at(1), "rport-2:0-3") << "no snapshot yet: one is taken";
    port(2, "rport-2:0-2");
    EXPECT_EQ(at(1), "rport-2:0-3") << "young snapshot";
    EXPECT_EQ(at(3), "") << "past the snapshot's end";
    fake_now += VXSYSFS_WALK_MAX_AGE_NS - 1;
    EXPECT_EQ(at(1), "rport-2:0-3") << "not yet a second";
    fake_now += 1;
    EXPECT_EQ(at(1), "rport-2:0-2") << "a second old";
    EXPECT_EQ(at(3), "rport-2:0-5");

    tree.file(tree.host(2) + "/rport-2:0-3/fc_remote_ports/rport-2:0-3/port_state", "Linkdown\n");
    EXPECT_EQ(at(2), "rport-2:0-5") << "the indexed port failed: answered from a new snapshot";
    EXPECT_EQ(at(3), "");
    EXPECT_FALSE(vxsysfs_walk_port(host, 0, name, 0));
}

// A target is found by its name on the SCSI bus; the port that holds it is
// the directory above it, and only a port of the same host counts.
TEST_F(Walk, TargetsAndTheirPorts) {
    const std::string h3 = tree.host(3);
    port(3, "rport-3:0-2");
    tree.dir(h3 + "/rport-3:0-2/target3:0:5/3:0:5:0");
    tree.dir(h3 + "/rport-3:0-2/target3:0:5/3:0:5:16385");  // flat addressing: LUN 1
    tree.dir(h3 + "/rport-3:0-2/target3:0:5/3:0:5:32770");  // logical unit addressing: LUN 2
    tree.dir(h3 + "/rport-3:0-2/target3:0:5/3:0:5:300");    // peripheral: 300 & 0xFF = 44
    tree.dir(h3 + "/rport-3:0-2/target3:0:5/power");
    tree.link("bus/scsi/devices/target3:0:5", h3 + "/rport-3:0-2/target3:0:5");
    tree.dir(h3 + "/target3:0:6/3:0:6:0");  // not under a remote port
    tree.link("bus/scsi/devices/target3:0:6", h3 + "/target3:0:6");

    char name[VXSYSFS_RPORT_NAME_LEN];
    EXPECT_TRUE(vxsysfs_target_rport(3, 0, 5, name, sizeof name));
    EXPECT_STREQ(name, "rport-3:0-2");
    EXPECT_FALSE(vxsysfs_target_rport(3, 0, 6, name, sizeof name));
    EXPECT_FALSE(vxsysfs_target_rport(3, 0, 7, name, sizeof name));
    EXPECT_FALSE(vxsysfs_target_rport(3, 0, 5, name, 5)) << "a name that does not fit";

    const int fd = vxsysfs_open_target(3, 0, 5);
    ASSERT_GE(fd, 0);
    uint8_t map[40] = {};
    EXPECT_EQ(vxsysfs_count_target_luns(fd, map, sizeof map), 4u) << "LUN 44 is counted, not marked";
    std::vector<int> marked;
    for (size_t i = 0; i < sizeof map; ++i)
        if (map[i])
            marked.push_back(static_cast<int>(i));
    EXPECT_EQ(marked, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(vxsysfs_count_target_luns(fd, nullptr, 0), 4u) << "a second count of the same directory";
    close(fd);
    EXPECT_LT(vxsysfs_open_target(3, 0, 7), 0);
}

}  // namespace
