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

TEST_F(SysfsDisc, HostsOfVirtualPortsAreFoundOneLevelDeeper) {
    const std::string dev = "devices/pci0000:00/0000:03:00.0";
    tree.dir(dev + "/host5/scsi_host/host5");
    tree.dir(dev + "/host5/vport-5:0-0/host7/scsi_host/host7");
    tree.dir(dev + "/host5/vport-5:0-1/host3/scsi_host/host3");
    tree.dir(dev + "/host5/vport-15:0-0/host9/scsi_host/host9");  // another host's vport: not ours
    tree.dir(dev + "/power");
    sysfs_device device{};
    snprintf(device.path, sizeof device.path, "%s", tree.path(dev).c_str());
    EXPECT_EQ(vxsysfs_collect_hostno_list_from_devices_path(&device), 0);
    EXPECT_EQ(host_list(), (std::vector<uint32_t>{3, 5, 7}));
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
    const uint8_t wwpn_a[8] = {0x21, 0, 0, 0, 0, 0, 0, 0x0A};
    const uint8_t wwpn_b[8] = {0x21, 0, 0, 0, 0, 0, 0, 0x0B};
    const uint8_t other[8] = {0x21, 0, 0, 0, 0, 0, 0, 0x0C};
    EXPECT_EQ(vxsysfs_get_vport_host_no(wwpn_a), 0u);  // no fc_host class at all
    tree.file("devices/h3/fc_host/host3/port_name", "0x210000000000000a\n");
    tree.file("devices/h4/fc_host/host4/port_name", "0x210000000000000b\n");
    tree.link("class/fc_host/host3", "devices/h3/fc_host/host3");
    tree.link("class/fc_host/host4", "devices/h4/fc_host/host4");
    EXPECT_EQ(vxsysfs_get_vport_host_no(wwpn_b), 4u);
    EXPECT_EQ(vxsysfs_is_vhost_no_wwpn_match(3, wwpn_a), 0);
    EXPECT_NE(vxsysfs_is_vhost_no_wwpn_match(3, wwpn_b), 0);
    const uint32_t fallback = vxsysfs_get_vport_host_no(other);
    EXPECT_TRUE(fallback == 3 || fallback == 4);  // whichever the listing gave last; callers recheck
}

TEST_F(SysfsDisc, ChunkingProbeFlagsDriversThatRejectCode4) {
    const struct {
        const char* what;
        int kind;  // 0 writable file, 1 read-only file, 2 directory, 3 missing
        bool chunked;
    } cases[] = {{"accepted", 0, false}, {"read-only", 1, true}, {"directory", 2, true}, {"missing", 3, false}};
    for (const auto& c : cases) {
        const std::string dev = std::string("dev-") + c.what;
        if (c.kind == 0)
            tree.file(dev + "/host4/optrom_ctl", "");
        if (c.kind == 1)
            tree.file(dev + "/host4/optrom_ctl", "", 0444);
        if (c.kind == 2)
            tree.dir(dev + "/host4/optrom_ctl");
        if (c.kind == 3)
            tree.dir(dev + "/host4");
        sysfs_device device{};
        snprintf(device.path, sizeof device.path, "%s", tree.path(dev).c_str());
        vxapi_priv_database inst{};
        inst.host_no = 4;
        inst.features = VX_FEAT_SYSFS;
        vxsysfs_is_chunking_supported(&device, &inst);
        EXPECT_EQ(inst.features, VX_FEAT_SYSFS | (c.chunked ? VX_FEAT_PARTIAL_FLASH : 0)) << c.what;
        if (c.kind == 0) {
            EXPECT_EQ(read_file(tree.path(dev + "/host4/optrom_ctl")), std::string("4\0", 2));
        }
    }
}

TEST_F(SysfsDisc, DriverVersionAsNumbers) {
    mnt_path_override mnt(tree.root());
    const struct {
        const char* text;
        uint8_t major, minor, patch, beta;
    } cases[] = {
        {"10.02.09.200-k", 10, 2, 9, 0}, {"8.01.07b3", 8, 1, 7, 3}, {"7.3", 7, 3, 0, 0}, {"k-1.0", 0, 0, 0, 0},
    };
    uint32_t host = 1;
    for (const auto& c : cases) {
        tree.file("class/scsi_host/host" + std::to_string(host) + "/driver_version", std::string(c.text) + "\n");
        tree.file("class/scsi_host/host" + std::to_string(host) + "/sg_tablesize", "128\n");
        vxapi_priv_database inst{};
        inst.host_no = host++;
        inst.features = VX_FEAT_SYSFS | VX_FEAT_DRV_CAP4;
        _EXT_LN_DRIVER_DATA data;
        memset(&data, 0xEE, sizeof data);
        uint32_t stat = 99;
        EXPECT_EQ(vxsysfs_get_driver_specifics(0, &inst, &data, &stat), 0);
        EXPECT_EQ(stat, 0u);
        EXPECT_EQ(data.DrvVer.Major, c.major) << c.text;
        EXPECT_EQ(data.DrvVer.Minor, c.minor) << c.text;
        EXPECT_EQ(data.DrvVer.Patch, c.patch) << c.text;
        EXPECT_EQ(data.DrvVer.Beta, c.beta) << c.text;
        EXPECT_EQ(data.Flags, EXT_DRIVER_FLAG_CAP4);
        EXPECT_EQ(data.Reserved[12], 0u);

        _EXT_DRIVER drv{};
        drv.DmaBitAddresses = 64;  // fields the query does not own stay as passed
        EXPECT_EQ(vxsysfs_query_driver(0, &inst, &drv, &stat), 0);
        EXPECT_STREQ(reinterpret_cast<const char*>(drv.Version), c.text);
        EXPECT_EQ(drv.MaxDataSegments, 128u);
        EXPECT_EQ(drv.LunsPerTarget, 4096);
        EXPECT_EQ(drv.TargetsPerBus, 512);
        EXPECT_EQ(drv.MaxTransferLen, 0xFFFFFFFFu);
        EXPECT_EQ(drv.DmaBitAddresses, 64);
    }
}

// ---- Whole discovery runs ----

// What a discovery run left in one port record, as the child reports it.
struct seen_port {
    uint32_t host_no, interface_type, features, vp_idx, drvr_inst, parent_host;
    uint16_t topology, state, device_id, pci_domain, pci_bus, pci_dev_func, max_vports;
    uint8_t port_id[4];
    uint8_t port_number;
    char model[17];
    char serial[33];
    char phys_path[256];
};

struct discovery_run {
    bool skipped = false;
    uint32_t count = 0;
    bool list_made = false;
    std::vector<seen_port> ports;
};

discovery_run discover(const std::string& root, uint32_t start) {
    discovery_run run;
    const std::string out = run_with_private_sys(
        root,
        [start] {
            vxsysfs_init();
            uint32_t count = start;
            vxsysfs_supported_driver_exist(&count);
            std::string r(reinterpret_cast<const char*>(&count), sizeof count);
            r += api_priv_database ? '1' : '0';
            vx_dlist_each<vxapi_priv_database>(api_priv_database, [&](vxapi_priv_database* p) {
                seen_port s{};
                s.host_no = p->host_no;
                s.interface_type = p->interface_type;
                s.features = p->features;
                s.vp_idx = p->vp_idx;
                s.drvr_inst = p->drvr_inst;
                s.parent_host = p->parent ? p->parent->host_no : UINT32_MAX;
                s.topology = p->topology;
                s.state = p->state;
                memcpy(s.port_id, p->port_id, 4);
                if (const vxapi_phy_info* phy = p->phy_info) {
                    s.device_id = phy->device_id;
                    s.pci_domain = phy->pci_domain;
                    s.pci_bus = phy->pci_bus;
                    s.pci_dev_func = phy->pci_dev_func;
                    s.max_vports = phy->max_vports;
                    s.port_number = phy->port_number;
                    memcpy(s.model, phy->model, 16);
                    memcpy(s.serial, phy->serial_num, 32);
                }
                memcpy(s.phys_path, p->phys_path, sizeof s.phys_path);
                s.phys_path[sizeof s.phys_path - 1] = '\0';
                r.append(reinterpret_cast<const char*>(&s), sizeof s);
                return true;
            });
            return r;
        },
        &run.skipped);
    if (run.skipped || out.size() < sizeof run.count + 1)
        return run;
    memcpy(&run.count, out.data(), sizeof run.count);
    run.list_made = out[sizeof run.count] == '1';
    for (size_t at = sizeof run.count + 1; at + sizeof(seen_port) <= out.size(); at += sizeof(seen_port)) {
        seen_port s;
        memcpy(&s, out.data() + at, sizeof s);
        run.ports.push_back(s);
    }
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
        tree.host(dir, n);
        return dir;
    }
};

std::string scsi_attr(uint32_t host, const char* name) { return "class/scsi_host/host" + std::to_string(host) + "/" + name; }
std::string fc_attr(uint32_t host, const char* name) { return "class/fc_host/host" + std::to_string(host) + "/" + name; }

const seen_port* find_host(const discovery_run& run, uint32_t host) {
    for (const seen_port& p : run.ports)
        if (p.host_no == host)
            return &p;
    return nullptr;
}

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
    ASSERT_EQ(run.count, 5u);
    ASSERT_EQ(run.ports.size(), 5u);
    EXPECT_EQ(find_host(run, 9), nullptr);
    EXPECT_EQ(run.ports[0].host_no, 2u);  // driver names are searched in their fixed order
    for (size_t i = 0; i < run.ports.size(); ++i)
        EXPECT_EQ(run.ports[i].drvr_inst, i);

    constexpr uint32_t none = UINT32_MAX;
    const struct {
        uint32_t host, iftype;
        uint16_t topology;
        uint32_t features, vp_idx, parent;
    } expected[] = {
        {2, VX_IFTYPE_PHYSICAL, 4, VX_FEAT_SYSFS, 0, none},
        {5, VX_IFTYPE_PHYSICAL, 8, VX_FEAT_SYSFS | VX_FEAT_BSG, 0, none},
        {7, VX_IFTYPE_VIRTUAL, 1, VX_FEAT_SYSFS, 1, 5},
        {8, VX_IFTYPE_VIRTUAL, 0, VX_FEAT_SYSFS, 2, 5},  // "Link Down" leaves the topology alone
        {3, VX_IFTYPE_PHYSICAL, 2, VX_FEAT_SYSFS | VX_FEAT_PARTIAL_FLASH, 0, none},
    };
    for (const auto& e : expected) {
        const seen_port* p = find_host(run, e.host);
        ASSERT_NE(p, nullptr) << e.host;
        EXPECT_EQ(p->interface_type, e.iftype) << e.host;
        EXPECT_EQ(p->topology, e.topology) << e.host;
        EXPECT_EQ(p->state, 0) << e.host;
        EXPECT_EQ(p->features, e.features) << e.host;
        EXPECT_EQ(p->vp_idx, e.vp_idx) << e.host;
        EXPECT_EQ(p->parent_host, e.parent) << e.host;
    }
    const seen_port* p5 = find_host(run, 5);
    EXPECT_STREQ(p5->phys_path, "/sys/bus/pci/drivers/vxfcdrv/0000:03:00.0");
    EXPECT_EQ(std::vector<uint8_t>(p5->port_id, p5->port_id + 4), (std::vector<uint8_t>{0, 1, 2, 0}));
    EXPECT_STREQ(p5->serial, "SER5");
    EXPECT_STREQ(p5->model, "vxfcdrv");
    EXPECT_EQ(p5->max_vports, 254);
    EXPECT_EQ(p5->port_number, 1);
    EXPECT_EQ(find_host(run, 7)->device_id, 0x2031);  // shares its adapter's record

    const seen_port* p3 = find_host(run, 3);
    EXPECT_STREQ(p3->serial, "VPDSN3");
    EXPECT_EQ(p3->pci_domain, 1);
    EXPECT_EQ(p3->pci_bus, 0x82);
    EXPECT_EQ(p3->pci_dev_func, (0x1f << 3) | 6);
    EXPECT_STREQ(find_host(run, 2)->model, "vxfcdrb");
}

TEST_F(SysfsDisc, WithoutPciBusNothingIsAdded) {
    tree.dir("class/fc_host");
    const discovery_run run = discover(tree.root(), 3);
    VX_SKIP_WITHOUT_MOUNT_NS(run.skipped);
    EXPECT_EQ(run.count, 3u);
    EXPECT_FALSE(run.list_made);
}

}  // namespace
