// sysfs discovery: host lists, virtual-port ids, the chunking probe, the
// driver version, and whole discovery runs over fake trees mounted at /sys.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "test_core_sysfs_tree.h"
#include "vx_sysfs.h"

std::string run_with_private_sys(const std::string& root, const std::function<std::string()>& fn, bool* skipped) {
    *skipped = false;
    int fds[2];
    if (pipe(fds) != 0)
        return "";
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        std::string out = "S";
        // Private before anything is mounted, so nothing reaches the host.
        if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
            mount(root.c_str(), "/sys", nullptr, MS_BIND | MS_REC, nullptr) == 0 &&
            mount("tmpfs", "/tmp", "tmpfs", 0, "size=1m") == 0)
            out = "R" + fn();
        for (size_t done = 0; done < out.size();) {
            const ssize_t n = write(fds[1], out.data() + done, out.size() - done);
            if (n <= 0)
                break;
            done += static_cast<size_t>(n);
        }
        _exit(0);
    }
    close(fds[1]);
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (out.empty() || out[0] != 'R') {
        *skipped = true;
        return "";
    }
    return out.substr(1);
}

namespace {

std::vector<uint32_t> host_list() {
    std::vector<uint32_t> hosts;
    vx_dlist_each<uint32_t>(host_no_list, [&](uint32_t* n) {
        hosts.push_back(*n);
        return true;
    });
    return hosts;
}

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
    EXPECT_EQ(host_list(), (std::vector<uint32_t>{5, 7, 10, 12}));  // numeric, not by name
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
    tree.dir("class/scsi_host/host8");
    vxapi_phy_info phy{};
    EXPECT_EQ(vxsysfs_get_vport_id(&phy, 7), 0x1Fu);
    EXPECT_EQ(phy.vp_map[0], 0);  // the bitmap is not touched
    EXPECT_EQ(vxsysfs_get_vport_id(&phy, 8), 1u);
    EXPECT_EQ(phy.vp_map[0], 0x01);
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

// ---- Whole discovery runs ----

// One line per port record, in list order, as the child saw them.
struct discovery_run {
    bool skipped = false;
    std::string count;  // the caller's count after the run, and whether a port list exists
    std::vector<std::string> ports;
};

discovery_run discover(const std::string& root, uint32_t start) {
    discovery_run run;
    const std::string out = run_with_private_sys(
        root,
        [start] {
            vxsysfs_init();
            uint32_t count = start;
            vxsysfs_supported_driver_exist(&count);
            std::string r = std::to_string(count) + (api_priv_database ? " list\n" : " none\n");
            vx_dlist_each<vxapi_priv_database>(api_priv_database, [&](vxapi_priv_database* p) {
                const vxapi_phy_info* phy = p->phy_info;
                char line[512];
                snprintf(line, sizeof line,
                         "host=%u inst=%u if=%u topo=%u st=%u feat=%x vp=%u parent=%d id=%02x%02x%02x dev=%x "
                         "pci=%x:%x:%x model=%.16s sn=%.32s max=%u port=%u %s\n",
                         p->host_no, p->drvr_inst, p->interface_type, p->topology, p->state, p->features, p->vp_idx,
                         p->parent ? static_cast<int>(p->parent->host_no) : -1, p->port_id[1], p->port_id[2],
                         p->port_id[3], phy->device_id, phy->pci_domain, phy->pci_bus, phy->pci_dev_func,
                         reinterpret_cast<const char*>(phy->model), reinterpret_cast<const char*>(phy->serial_num),
                         phy->max_vports, phy->port_number, reinterpret_cast<const char*>(p->phys_path));
                r += line;
                return true;
            });
            return r;
        },
        &run.skipped);
    size_t at = out.find('\n');
    if (at == std::string::npos)
        return run;
    run.count = out.substr(0, at);
    for (size_t next; (next = out.find('\n', at + 1)) != std::string::npos; at = next)
        run.ports.push_back(out.substr(at + 1, next - at - 1));
    return run;
}

// One PCI function bound to `driver`, with its SCSI hosts; the caller adds
// the hosts' attributes through the class links.
struct fake_function {
    const sysfs_tree& tree;
    std::string bus_id;

    fake_function(const sysfs_tree& t, const std::string& driver, const std::string& id, uint16_t device_id)
        : tree(t), bus_id(id) {
        const std::string dev = device();
        char hex[16];
        snprintf(hex, sizeof hex, "0x%04x\n", device_id);
        tree.file(dev + "/device", hex);
        tree.file(dev + "/vendor", "0x1d5a\n");
        tree.file(dev + "/subsystem_vendor", "0x1d5a\n");
        tree.file(dev + "/subsystem_device", "0x0001\n");
        tree.link("bus/pci/devices/" + id, dev);
        tree.link("bus/pci/drivers/" + driver + "/" + id, dev);
        tree.link(dev + "/driver", "bus/pci/drivers/" + driver);
        tree.link(dev + "/subsystem", "bus/pci");
    }
    std::string device() const { return "devices/pci0000:00/" + bus_id; }

    // A host directly on the function (physical) or inside a vport of `parent`.
    std::string add_host(uint32_t n, uint32_t parent = 0, int vport = 0) const {
        std::string dir = device() + "/host" + std::to_string(parent ? parent : n);
        if (parent)
            dir += "/vport-" + std::to_string(parent) + ":0-" + std::to_string(vport) + "/host" + std::to_string(n);
        const std::string name = "host" + std::to_string(n);
        for (const char* cls : {"scsi_host", "fc_host"}) {
            tree.dir(dir + "/" + cls + "/" + name);
            tree.link(std::string("class/") + cls + "/" + name, dir + "/" + cls + "/" + name);
        }
        return dir;
    }
};


TEST_F(SysfsDisc, DiscoveryBuildsOneRecordPerHost) {
    // vxfcdrv 0000:03:00.0 (Wren): host 5 physical, hosts 7 and 8 virtual;
    // vxfcdrv 0001:82:1f.6 (Tern): host 3, serial number only in VPD;
    // vxfcdrv 0000:05:00.0: an unsupported device id (host 9);
    // vxfcdrb 0000:06:00.0 (Swift): host 2, found first (driver order).
    fake_function wren(tree, "vxfcdrv", "0000:03:00.0", 0x2031);
    const std::string h5 = wren.add_host(5);
    wren.add_host(7, 5, 0);
    wren.add_host(8, 5, 1);
    tree.file(h5 + "/optrom_ctl", "");  // accepts code 4
    tree.dir(h5 + "/bsg/fc_host5");
    tree.link("class/bsg/fc_host5", h5 + "/bsg/fc_host5");
    tree.file(scsi_attr(5, "link_state"), "Link Up - F_Port\n");
    tree.file(scsi_attr(5, "serial_num"), "SER5\n");
    tree.file(scsi_attr(5, "max_npiv_vports"), "254\n");  // the second source
    tree.file(fc_attr(5, "max_npiv_vports"), "0\n");
    tree.file(fc_attr(5, "port_name"), "0x2100001b32aabb05\n");
    tree.file(fc_attr(5, "port_id"), "0x010200\n");
    tree.file(scsi_attr(7, "link_state"), "\n");
    tree.file(scsi_attr(7, "state"), "Link Up - Loop\n");  // the fallback
    tree.file(scsi_attr(8, "link_state"), "Link Down\n");

    fake_function tern(tree, "vxfcdrv", "0001:82:1f.6", 0x2060);
    const std::string h3 = tern.add_host(3);
    tree.file(h3 + "/optrom_ctl", "", 0444);  // rejects code 4
    tree.file(scsi_attr(3, "link_state"), "Link Up - N_Port to N_Port\n");
    tree.file(scsi_attr(3, "serial_num"), "\n");
    std::string vpd = std::string("\x82\x04\x00VXT6\x90\x00\x00SN\x06VPDSN3\x78", 19);
    vpd.resize(1024, '\0');
    tree.file(h3 + "/vpd", vpd);

    fake_function odd(tree, "vxfcdrv", "0000:05:00.0", 0x9999);
    odd.add_host(9);

    fake_function swift(tree, "vxfcdrb", "0000:06:00.0", 0x1050);
    swift.add_host(2);
    tree.file(scsi_attr(2, "link_state"), "Link Up - FL_Port\n");

    const discovery_run run = discover(tree.root(), 0);
    VX_SKIP_WITHOUT_MOUNT_NS(run.skipped);
    EXPECT_EQ(run.count, "5 list");  // host 9 is dropped
    // Driver names in their fixed order, hosts ascending within a function,
    // virtual ports sharing their physical port's adapter record. Topology:
    // FL_Port 4, F_Port 8, Loop 1 (from "state"), N_Port to N_Port 2;
    // "Link Down" leaves it alone. Host 5 has bsg (1000), host 3 rejects
    // chunking code 4 (80); virtual ports have no control attribute.
    const std::string drv = "/sys/bus/pci/drivers/";
    const std::vector<std::string> expected = {
        "host=2 inst=0 if=1 topo=4 st=0 feat=20 vp=0 parent=-1 id=000000 dev=1050 pci=0:6:0 model=vxfcdrb sn= max=0 "
        "port=1 " + drv + "vxfcdrb/0000:06:00.0",
        "host=5 inst=1 if=1 topo=8 st=0 feat=1020 vp=0 parent=-1 id=010200 dev=2031 pci=0:3:0 model=vxfcdrv sn=SER5 "
        "max=254 port=1 " + drv + "vxfcdrv/0000:03:00.0",
        "host=7 inst=2 if=3 topo=1 st=0 feat=20 vp=1 parent=5 id=000000 dev=2031 pci=0:3:0 model=vxfcdrv sn=SER5 "
        "max=254 port=1 " + drv + "vxfcdrv/0000:03:00.0",
        "host=8 inst=3 if=3 topo=0 st=0 feat=20 vp=2 parent=5 id=000000 dev=2031 pci=0:3:0 model=vxfcdrv sn=SER5 "
        "max=254 port=1 " + drv + "vxfcdrv/0000:03:00.0",
        "host=3 inst=4 if=1 topo=2 st=0 feat=a0 vp=0 parent=-1 id=000000 dev=2060 pci=1:82:fe model=vxfcdrv "
        "sn=VPDSN3 max=0 port=1 " + drv + "vxfcdrv/0001:82:1f.6",
    };
    EXPECT_EQ(run.ports, expected);
}

TEST_F(SysfsDisc, WithoutPciBusNothingIsAdded) {
    tree.dir("class/fc_host");
    const discovery_run run = discover(tree.root(), 3);
    VX_SKIP_WITHOUT_MOUNT_NS(run.skipped);
    EXPECT_EQ(run.count, "3 none");
}

}  // namespace
