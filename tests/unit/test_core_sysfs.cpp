// sysfs transport basics: path builders, attribute readers, remote-port
// look-ups, SCSI addresses, raw files, byte helpers and bsg nodes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "test_core_sysfs_tree.h"
#include "vx_sysfs.h"

namespace {

using bytes = std::vector<uint8_t>;

TEST(SysfsPaths, BuildersSpellPathsAndEndAtTheirNul) {
    mnt_path_override mnt("/sys");
    vxapi_priv_database inst{};
    snprintf(reinterpret_cast<char*>(inst.phys_path), sizeof inst.phys_path, "/sys/bus/pci/drivers/vxfcdrv/0000:03:00.0");
    inst.host_no = 65536 + 5;  // only the low 16 bits are printed

    vxsysfs_path_t p[7];
    const std::pair<char*, std::string> cases[] = {
        {vxsysfs_get_scsi_host_path(p[0], 5), "/sys/class/scsi_host/host5/"},
        {vxsysfs_get_fc_host_path(p[1], static_cast<uint16_t>(70000)), "/sys/class/fc_host/host4464/"},
        {vxsysfs_get_fc_rport_path(p[2], nullptr), "/sys/class/fc_remote_ports/"},
        {vxsysfs_get_fc_rport_path(p[3], "rport-5:0-2"), "/sys/class/fc_remote_ports/rport-5:0-2/"},
        {vxsysfs_get_scsi_dev_path(p[4], "5:0:1:3"), "/sys/class/scsi_device/5:0:1:3"},
        {vxsysfs_get_device_path(p[5], &inst), "/sys/bus/pci/drivers/vxfcdrv/0000:03:00.0/host5/"},
        {vxsysfs_get_bsg_device_path(p[6], &inst), "/sys/class/bsg/fc_host5/"},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_EQ(std::string(p[i]), cases[i].second);
        EXPECT_EQ(cases[i].first, p[i] + cases[i].second.size()) << cases[i].second;
    }
}

TEST(SysfsPaths, OverlongPathsAreCutAtTheBuffer) {
    mnt_path_override mnt(std::string(250, 'm'));
    vxsysfs_path_t p;
    char* end = vxsysfs_get_scsi_host_path(p, 12345);
    EXPECT_EQ(end, p + VXSYSFS_PATH_LEN - 1);
    EXPECT_EQ(*end, '\0');
    end = vxsysfs_path_append(p, end, "link_state");  // no room left: nothing is written past the buffer
    EXPECT_EQ(end, p + VXSYSFS_PATH_LEN - 1);
    EXPECT_EQ(strlen(p), VXSYSFS_PATH_LEN - 1);
}

TEST(SysfsBytes, HexTextToBytes) {
    const struct {
        const char* text;
        uint32_t size;
        bytes expected;
    } cases[] = {
        {"0x2100001b32", 8, {0x21, 0x00, 0x00, 0x1b, 0x32, 0, 0, 0}}, {"0x2100001b32", 3, {0x21, 0x00, 0x00}},
        {"0X21ab", 2, {0x21, 0xab}}, {"123", 2, {0x12, 0x00}},  // the odd last digit is ignored
        {"", 2, {0, 0}}, {nullptr, 4, {0, 0, 0, 0}},
    };
    for (const auto& c : cases) {
        bytes out(c.size + 1, 0xAA);
        vxsysfs_to_array_hex(out.data(), c.text, c.size);
        EXPECT_EQ(bytes(out.begin(), out.begin() + c.size), c.expected) << (c.text ? c.text : "null");
        EXPECT_EQ(out[c.size], 0xAA) << "wrote past the size";
    }
}

// Partial widths and copies in place (whole numbers are converted end to end).
TEST(SysfsBytes, EndianHelpers) {
    const uint8_t src[4] = {0x01, 0x02, 0x03, 0x04};
    EXPECT_EQ(vxsysfs_bendian(src, 2), 0x0102u);
    uint8_t le[3], be[3], buf[5] = {1, 2, 3, 4, 5};
    vxsysfs_lendian_buf(le, 0x11223344, 3);
    vxsysfs_bendian_buf(be, 0x11223344, 3);
    EXPECT_EQ(bytes(le, le + 3), (bytes{0x44, 0x33, 0x22}));
    EXPECT_EQ(bytes(be, be + 3), (bytes{0x22, 0x33, 0x44}));
    vxsysfs_revcpy(buf, buf, 5);  // in place
    EXPECT_EQ(bytes(buf, buf + 5), (bytes{5, 4, 3, 2, 1}));
    const uint8_t sum_bytes[] = {0xFF, 0x02, 0x80, 0x80};
    EXPECT_EQ(vxsysfs_memsum(sum_bytes, 4), 0x01);
}

TEST(SysfsBytes, MemstrSearchesOnlyWhileTheTextFits) {
    const uint8_t buf[] = {'x', 'x', 'A', 'B', 'C', 'y', 'y'};
    const struct {
        const char* str;
        uint32_t size;
        int offset;  // -1: not found
    } cases[] = {{"ABC", 7, 2}, {"yy", 7, 5}, {"yyz", 7, -1}, {"ABC", 4, -1}, {"ABC", 5, 2}, {"", 7, 0}, {nullptr, 7, -1}};
    for (const auto& c : cases) {
        const uint8_t* at = vxsysfs_memstr(buf, c.str, c.size);
        EXPECT_EQ(at ? at - buf : -1, c.offset) << (c.str ? c.str : "null") << " in " << c.size;
    }
}

TEST(SysfsAddress, TargetAndLunFromDeviceNames) {
    const struct {
        const char* name;
        uint16_t target, lun;
    } cases[] = {{"5:0:1:3", 1, 3}, {"12 : 0 : 511 : 255", 511, 255}, {"5:0:7", 7, 65535}, {"garbage", 65535, 65535},
                 {nullptr, 65535, 65535}};
    for (const auto& c : cases) {
        EXPECT_EQ(vxsysfs_get_target_id(c.name), c.target) << (c.name ? c.name : "null");
        EXPECT_EQ(vxsysfs_get_lun_no(c.name), c.lun) << (c.name ? c.name : "null");
    }
}

class SysfsTree : public testing::Test {
protected:
    sysfs_tree tree;
};

TEST_F(SysfsTree, AttributeReadersAndTheirFallbacks) {
    tree.file("str", "hello\n\n");
    tree.file("wwn", "0x2100001b32aabbcc\n");
    tree.file("long", "ffffffffff\n");
    const std::string missing = tree.path("missing");

    char small[4 + 1] = {'z', 'z', 'z', 'z', 'G'};
    EXPECT_EQ(vxsysfs_get_str_attr(tree.path("str").c_str(), small, 4), 0);
    EXPECT_STREQ(small, "hel");  // cut and terminated within the size
    EXPECT_EQ(small[4], 'G');
    EXPECT_EQ(vxsysfs_get_str_attr(missing.c_str(), small, 4), 1);
    EXPECT_EQ(small[0], '\0');

    uint8_t wwn[8];
    EXPECT_EQ(vxsysfs_get_hex_attr(tree.path("wwn").c_str(), wwn, 8), 0);
    EXPECT_EQ(bytes(wwn, wwn + 8), (bytes{0x21, 0x00, 0x00, 0x1b, 0x32, 0xaa, 0xbb, 0xcc}));
    memset(wwn, 0xEE, sizeof wwn);
    EXPECT_EQ(vxsysfs_get_hex_attr(missing.c_str(), wwn, 8), 1);
    EXPECT_EQ(bytes(wwn, wwn + 8), bytes(8, 0));

    EXPECT_EQ(vxsysfs_get_int_attr(missing.c_str()), 0u);
    EXPECT_EQ(vxsysfs_get_long_attr(tree.path("long").c_str()), 0xffffffffffull);
    EXPECT_EQ(vxsysfs_get_long_attr(missing.c_str()), UINT64_MAX);
}

// Remote-port names are matched on their whole host prefix: rport-15 and
// rport-11 are not ports of host 1. (Roles and states are tested end to end.)
TEST_F(SysfsTree, RemotePortLookupsMatchOnlyTheirHost) {
    mnt_path_override mnt(tree.root());
    const struct {
        const char* name;
        const char* wwpn;
        const char* tid;
    } ports[] = {{"rport-15:0-1", "0x5000000000000001", "3"}, {"rport-11:0-0", "0x5000000000000002", "4"},
                 {"rport-1:0-2", "0x5000000000000003", "3"}, {"rport-1:0-3", "0x5000000000000001", "4"}};
    for (const auto& r : ports) {
        const uint32_t host = static_cast<uint32_t>(std::stoul(std::string(r.name).substr(6)));
        tree.rport(host, r.name, {{"port_name", r.wwpn}, {"scsi_target_id", r.tid}});
    }
    const std::string base = tree.path("class/fc_remote_ports/");
    const uint8_t wwpn1[8] = {0x50, 0, 0, 0, 0, 0, 0, 0x01}, wwpn2[8] = {0x50, 0, 0, 0, 0, 0, 0, 0x02};

    vxsysfs_path_t rpath;
    EXPECT_EQ(vxsysfs_find_rport_by_wwpn(rpath, 1, wwpn1), 1);
    EXPECT_EQ(std::string(rpath), base + "rport-1:0-3/");
    EXPECT_EQ(vxsysfs_find_rport_by_tid(rpath, 1, 3), 1);
    EXPECT_EQ(std::string(rpath), base + "rport-1:0-2/");
    EXPECT_EQ(vxsysfs_find_rport_by_wwpn(rpath, 1, wwpn2), 0);
    EXPECT_STREQ(rpath, "");
    EXPECT_EQ(vxsysfs_find_rport_by_tid(rpath, 1, 9), 0);
    EXPECT_STREQ(rpath, "");

    vxapi_priv_database inst{};
    inst.host_no = 1;
    vxsysfs_path_t bsg;
    const std::string expected = tree.root() + "/class/bsg/rport-1:0-3";
    EXPECT_EQ(vxsysfs_get_bsg_rport_path(bsg, &inst, wwpn1), bsg + expected.size());
    EXPECT_EQ(std::string(bsg), expected);
    EXPECT_EQ(vxsysfs_get_bsg_rport_path(bsg, &inst, wwpn2), nullptr);
    EXPECT_STREQ(bsg, "");
}

TEST_F(SysfsTree, BsgSupportHasTheInvertedSense) {
    mnt_path_override mnt(tree.root());
    tree.dir("devices/x/host5/bsg/fc_host5");
    tree.link("class/bsg/fc_host5", "devices/x/host5/bsg/fc_host5");
    EXPECT_EQ(vxsysfs_is_bsg_supported(5), 0);
    EXPECT_EQ(vxsysfs_is_bsg_supported(6), 1);
}

TEST_F(SysfsTree, RawFileHelpersReportOppositeSenses) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    std::string big(page * 2 + 100, '\0');
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>(i * 7);
    tree.file("bin/big", big);
    tree.file("bin/short", "0123456789");
    const std::string missing = tree.path("nodir/file");

    std::vector<uint8_t> buf(big.size());
    EXPECT_EQ(vxsysfs_read_file(tree.path("bin/big").c_str(), buf.data(), static_cast<uint32_t>(buf.size())), 0u);
    EXPECT_EQ(std::string(buf.begin(), buf.end()), big);
    EXPECT_EQ(vxsysfs_read_file(tree.path("bin/short").c_str(), buf.data(), 16), 6u);
    EXPECT_EQ(vxsysfs_read_file(missing.c_str(), buf.data(), 16), 16u);
    EXPECT_EQ(vxsysfs_read_data(tree.path("bin/big").c_str(), buf.data(), static_cast<uint32_t>(buf.size())),
              static_cast<int>(page));
    EXPECT_EQ(vxsysfs_read_data(missing.c_str(), buf.data(), 16), 0);

    const std::string out = tree.path("bin/out");
    tree.file("bin/out", "");
    EXPECT_EQ(vxsysfs_write_file(out.c_str(), reinterpret_cast<const uint8_t*>(big.data()), big.size()), 0u);
    EXPECT_EQ(read_file(out), big);
    EXPECT_EQ(vxsysfs_write_file(missing.c_str(), buf.data(), 16), 16u);
    EXPECT_EQ(vxsysfs_write_data(out.c_str(), buf.data(), static_cast<uint32_t>(buf.size())), static_cast<int>(page));
}

TEST_F(SysfsTree, BsgNodeOpenRefusesAnythingButRootCharDevices) {
    tree.file("plain", "x");
    std::filesystem::create_symlink("/dev/null", tree.path("link-to-null"));
    EXPECT_EQ(vxsysfs_open_bsg_node(tree.path("plain").c_str(), O_WRONLY), -1);
    EXPECT_EQ(vxsysfs_open_bsg_node(tree.path("link-to-null").c_str(), O_WRONLY), -1);
    if (geteuid() == 0) {
        const int fd = vxsysfs_open_bsg_node("/dev/null", O_WRONLY);
        EXPECT_GE(fd, 0);
        close(fd);
    }
}

TEST_F(SysfsTree, BsgNodesAreMadeUnderPrivateNames) {
    tree.file("class/bsg/fc_host5/dev", "250:7\n");
    tree.file("class/bsg/rport-5:0-2/dev", "251:3\n");
    tree.file("alt/class/bsg/fc_host5/dev", "252:1\n");  // another sysfs root
    bool skipped = false;
    const std::string out = run_with_private_sys(
        tree.root(),
        [] {
            std::string r;
            mnt_path_override sys("/sys");
            char host[] = "/sys/class/bsg/fc_host5/";
            char node[64];
            struct stat st {};
            if (vxsysfs_open_bsg_dev(host, node, sizeof node) == 0 && stat(node, &st) == 0 && S_ISCHR(st.st_mode)) {
                char line[64];
                snprintf(line, sizeof line, "%.7s %u:%u %o;", node, major(st.st_rdev), minor(st.st_rdev),
                         st.st_mode & 0777);
                r += line;
            }
            char rport[] = "/sys/class/bsg/rport-5:0-2";
            if (vxsysfs_open_bsg_dev(rport, node, sizeof node) == 0)
                r += std::string(node).substr(0, 10) + ";";
            // A name that does not fit is refused before anything is made.
            char tiny[8] = "x";
            char again[] = "/sys/class/bsg/fc_host5";
            r += std::to_string(vxsysfs_open_bsg_dev(again, tiny, sizeof tiny)) + tiny + ";";
            char absent[] = "/sys/class/bsg/fc_host9/";
            r += std::to_string(vxsysfs_open_bsg_dev(absent, node, sizeof node)) + node + ";";
            {
                // The numbers come from the library's sysfs root, wherever it is.
                mnt_path_override alt("/sys/alt");
                char other[] = "/sys/alt/class/bsg/fc_host5";
                if (vxsysfs_open_bsg_dev(other, node, sizeof node) == 0 && stat(node, &st) == 0) {
                    r += std::to_string(major(st.st_rdev)) + ":" + std::to_string(minor(st.st_rdev)) + ";";
                    unlink(node);
                }
            }
            size_t nodes = 0;
            for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/tmp"))
                ++nodes;
            return r + std::to_string(nodes);
        },
        &skipped);
    VX_SKIP_WITHOUT_MOUNT_NS(skipped);
    EXPECT_EQ(out, "/tmp/t5 250:7 644;/tmp/5:0-2;1;1;252:1;2");
}

TEST_F(SysfsTree, BsgNodeIsAlwaysUnlinked) {
    tree.file("class/bsg/fc_host5/dev", "250:7\n");
    bool skipped = false;
    const std::string out = run_with_private_sys(
        tree.root(),
        [] {
            std::string r;
            mnt_path_override sys("/sys");
            auto tmp_entries = [] {
                size_t n = 0;
                for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/tmp"))
                    ++n;
                return std::to_string(n);
            };
            {
                // No driver behind these numbers: made, not opened, the request refused.
                char host[] = "/sys/class/bsg/fc_host5/";
                vxsysfs_bsg_node node(host);
                sg_io_v4 hdr{};
                errno = 0;
                const int rc = node.sg_io(&hdr);
                const bool ebadf = errno == EBADF;
                r += std::to_string(node.made()) + std::to_string(node.opened()) + std::to_string(rc) +
                     (ebadf ? "EBADF" : "?") + tmp_entries() + ";";
            }
            r += tmp_entries() + ";";
            char absent[] = "/sys/class/bsg/fc_host9";
            vxsysfs_bsg_node none(absent);
            return r + std::to_string(none.made()) + tmp_entries();
        },
        &skipped);
    VX_SKIP_WITHOUT_MOUNT_NS(skipped);
    EXPECT_EQ(out, "10-1EBADF1;0;00");
}

}  // namespace
