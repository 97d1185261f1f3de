// sysfs discovery: host lists, virtual-port ids, the driver version, and a
// discovery run over a fake tree mounted at /sys.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "test_core_sysfs_tree.h"
#include "vx_sysfs.h"

std::string run_with_private_sys(const std::string& root, const std::function<std::string()>& fn, bool* skipped) {
    *skipped = true;
    FILE* result = tmpfile();  // shared with the child, which writes "R" and what fn returned
    if (!result)
        return "";
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        // Private before anything is mounted, so nothing reaches the host.
        if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
            mount(root.c_str(), "/sys", nullptr, MS_BIND | MS_REC, nullptr) == 0 &&
            mount("tmpfs", "/tmp", "tmpfs", 0, "size=1m") == 0) {
            const std::string out = "R" + fn();
            fwrite(out.data(), 1, out.size(), result);
            fflush(result);
        }
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    std::string out;
    rewind(result);
    for (int c; (c = fgetc(result)) != EOF;)
        out += static_cast<char>(c);
    fclose(result);
    *skipped = out.empty() || out[0] != 'R';
    return *skipped ? "" : out.substr(1);
}

namespace {

std::string scsi_attr(uint32_t host, const char* name) { return "class/scsi_host/host" + std::to_string(host) + "/" + name; }
std::string fc_attr(uint32_t host, const char* name) { return "class/fc_host/host" + std::to_string(host) + "/" + name; }

class SysfsDisc : public testing::Test {
protected:
    void TearDown() override {
        if (host_no_list) {
            dlist_destroy(host_no_list);
            host_no_list = nullptr;
        }
    }
    sysfs_tree tree;
};

TEST_F(SysfsDisc, HostListIsAscendingByNumber) {
    for (const char* name : {"host7", "host5", "host12", "host10"})
        vxsysfs_add_hostno_in_host_no_list(name);
    std::vector<uint32_t> hosts;
    vx_dlist_each<uint32_t>(host_no_list, [&](uint32_t* n) { return hosts.push_back(*n), true; });
    EXPECT_EQ(hosts, (std::vector<uint32_t>{5, 7, 10, 12}));  // numeric, not by name
}

// Names that only look like hosts are skipped, not turned into ghost ports
// (host 0, a wrapped -5, 4294967298 cut to 2) nor allowed to end the scan.
TEST_F(SysfsDisc, OddHostNamesAreSkipped) {
    for (const char* name : {"hostABC", "host-5", "host4294967298", "host", "host3x"}) {
        EXPECT_FALSE(vxsysfs_parse_host_name(name, nullptr)) << name;
        EXPECT_EQ(vxsysfs_add_hostno_in_host_no_list(name), 0u) << name;
    }
    EXPECT_EQ(host_no_list, nullptr);
    for (const char* name : {"hostABC", "host-5", "host4294967298", "host3"})
        tree.dir(std::string("pci/") + name);
    tree.dir("pci/host3/vport-3:0-0/host9");
    tree.dir("pci/host3/vport-3:0-0/host-1");
    sysfs_device dev{};
    snprintf(dev.path, sizeof dev.path, "%s", tree.path("pci").c_str());
    EXPECT_EQ(vxsysfs_collect_hostno_list_from_devices_path(&dev), 0);
    std::vector<uint32_t> hosts;
    vx_dlist_each<uint32_t>(host_no_list, [&](uint32_t* n) { return hosts.push_back(*n), true; });
    EXPECT_EQ(hosts, (std::vector<uint32_t>{3, 9}));
    uint32_t n = 0;
    EXPECT_TRUE(vxsysfs_parse_host_name("host4294967295", &n));
    EXPECT_EQ(n, 4294967295u);
}

// A class directory holds links; a real directory among them hides none.
TEST_F(SysfsDisc, ClassEntriesAreDirectoriesAndLinksAlike) {
    mnt_path_override mnt(tree.root());
    tree.file("devices/h3/rport-3:0-0/fc_remote_ports/rport-3:0-0/port_name", "0x5000000000000010\n");
    tree.link("class/fc_remote_ports/rport-3:0-0", "devices/h3/rport-3:0-0/fc_remote_ports/rport-3:0-0");
    tree.file("class/fc_remote_ports/rport-3:0-1/port_name", "0x5000000000000011\n");  // a real directory
    std::set<std::string> names;
    vxsysfs_list_hold list(vxsysfs_open_entry_list(tree.path("class/fc_remote_ports").c_str()));
    vx_dlist_each<char>(list.get(), [&](char* name) { return names.insert(name), true; });
    EXPECT_EQ(names, (std::set<std::string>{"rport-3:0-0", "rport-3:0-1"}));
    // The fc_host class likewise, with an odd name among the hosts.
    tree.file("devices/h4/fc_host/host4/port_name", "0x210000000000000b\n");
    tree.link("class/fc_host/host4", "devices/h4/fc_host/host4");
    tree.file("class/fc_host/hostABC/port_name", "0x210000000000000b\n");
    const uint8_t wwpn[8] = {0x21, 0, 0, 0, 0, 0, 0, 0x0B};
    EXPECT_EQ(vxsysfs_get_vport_host_no(wwpn), 4u);
}

TEST(SysfsVport, BitmapAllocatesTheFirstFreeId) {
    vxapi_phy_info phy{};
    phy.vp_map[0] = 0xFF;
    phy.vp_map[1] = 0x01;
    EXPECT_EQ(vxsysfs_get_set_vport_id(&phy), 10u);
    EXPECT_EQ(phy.vp_map[1], 0x03);
    vxsysfs_clear_vport_id(&phy, 3);
    EXPECT_EQ(vxsysfs_get_set_vport_id(&phy), 3u);
    vxsysfs_clear_vport_id(&phy, 0);    // out of range: ignored
    vxsysfs_clear_vport_id(&phy, 513);  // likewise
    EXPECT_EQ(phy.vp_map[0], 0xFF);

    memset(phy.vp_map, 0xFF, sizeof phy.vp_map);
    EXPECT_EQ(vxsysfs_get_set_vport_id(&phy), 0u);  // all 512 in use
    vxsysfs_clear_vport_id(&phy, 512);
    EXPECT_EQ(phy.vp_map[63], 0x7F);
    EXPECT_EQ(vxsysfs_get_set_vport_id(&phy), 512u);
}

TEST_F(SysfsDisc, VportIdComesFromTheAttributeBeforeTheBitmap) {
    mnt_path_override mnt(tree.root());
    tree.file("class/scsi_host/host7/vport_id", "1f\n");  // hexadecimal text
    vxapi_phy_info phy{};
    EXPECT_EQ(vxsysfs_get_vport_id(&phy, 7), 0x1Fu);
    EXPECT_EQ(phy.vp_map[0], 0);  // the bitmap is not touched (its ids are tested end to end)
}

TEST_F(SysfsDisc, VportHostByWwpnFallsBackToTheLastHostSeen) {
    mnt_path_override mnt(tree.root());
    const uint8_t wwpn[8] = {0x21, 0, 0, 0, 0, 0, 0, 0x0A}, other[8] = {0x21};
    EXPECT_EQ(vxsysfs_get_vport_host_no(wwpn), 0u);  // no fc_host class at all
    tree.file("devices/h3/fc_host/host3/port_name", "0x210000000000000a\n");
    tree.file("devices/h4/fc_host/host4/port_name", "0x210000000000000b\n");
    tree.link("class/fc_host/host3", "devices/h3/fc_host/host3");
    tree.link("class/fc_host/host4", "devices/h4/fc_host/host4");
    EXPECT_EQ(vxsysfs_get_vport_host_no(wwpn), 3u);
    EXPECT_EQ(vxsysfs_get_vport_host_no(other), 4u);  // the last seen; callers check the WWPN again
}

TEST_F(SysfsDisc, DriverVersionAsNumbers) {
    mnt_path_override mnt(tree.root());
    const struct {
        const char* text;
        std::vector<uint8_t> version;  // major, minor, patch, beta
    } cases[] = {
        {"10.02.09.200-k", {10, 2, 9, 0}}, {"8.01.07b3", {8, 1, 7, 3}}, {"7.3", {7, 3, 0, 0}}, {"k-1.0", {0, 0, 0, 0}},
    };
    vxapi_priv_database inst{};
    for (const auto& c : cases) {
        tree.file(scsi_attr(++inst.host_no, "driver_version"), std::string(c.text) + "\n");
        _EXT_LN_DRIVER_DATA data;
        memset(&data, 0xEE, sizeof data);
        uint32_t stat = 99;
        EXPECT_EQ(vxsysfs_get_driver_specifics(0, &inst, &data, &stat), 0);
        EXPECT_EQ(stat, 0u);
        const uint8_t* v = &data.DrvVer.Major;
        EXPECT_EQ(std::vector<uint8_t>(v, v + 4), c.version) << c.text;
        EXPECT_EQ(data.Flags, EXT_DRIVER_FLAG_CAP4);
        EXPECT_EQ(data.Reserved[12], 0u);  // the whole record was cleared
    }
}

// What simulated hosts do not vary: the driver-name order (vxfcdrb first), a PCI
// domain and function, the NPIV limit's second source (deliberately scsi_host).
TEST_F(SysfsDisc, DriverOrderPciLocationAndNpivLimit) {
    const struct {
        const char* driver;
        const char* bus_id;
        const char* device_id;
        uint32_t host;
    } functions[] = {{"vxfcdrv", "0000:03:00.0", "0x2031\n", 5}, {"vxfcdrb", "0001:82:1f.6", "0x1050\n", 2}};
    for (const auto& f : functions) {
        const std::string dev = std::string("devices/pci0000:00/") + f.bus_id, host = "host" + std::to_string(f.host);
        tree.file(dev + "/device", f.device_id);
        tree.link(std::string("bus/pci/devices/") + f.bus_id, dev);
        tree.link(std::string("bus/pci/drivers/") + f.driver + "/" + f.bus_id, dev);
        tree.link(dev + "/driver", std::string("bus/pci/drivers/") + f.driver);
        for (const char* cls : {"scsi_host", "fc_host"}) {
            tree.dir(dev + "/" + host + "/" + cls + "/" + host);
            tree.link(std::string("class/") + cls + "/" + host, dev + "/" + host + "/" + cls + "/" + host);
        }
    }
    tree.file(scsi_attr(5, "max_npiv_vports"), "254\n");
    tree.file(fc_attr(5, "max_npiv_vports"), "0\n");

    bool skipped = false;
    const std::string out = run_with_private_sys(
        tree.root(),
        [] {
            vxsysfs_init();
            uint32_t count = 0;
            vxsysfs_supported_driver_exist(&count);
            std::string r = std::to_string(count);
            vx_dlist_each<vxapi_priv_database>(api_priv_database, [&](vxapi_priv_database* p) {
                const vxapi_phy_info* phy = p->phy_info;
                r += ";host" + std::to_string(p->host_no) + " " + std::to_string(phy->pci_domain) + ":" +
                     std::to_string(phy->pci_bus) + ":" + std::to_string(phy->pci_dev_func) + " max " +
                     std::to_string(phy->max_vports) + " " + reinterpret_cast<const char*>(p->phys_path);
                return true;
            });
            return r;
        },
        &skipped);
    VX_SKIP_WITHOUT_MOUNT_NS(skipped);
    EXPECT_EQ(out, "2;host2 1:130:254 max 0 /sys/bus/pci/drivers/vxfcdrb/0001:82:1f.6"
                   ";host5 0:3:0 max 254 /sys/bus/pci/drivers/vxfcdrv/0000:03:00.0");
}

}  // namespace
