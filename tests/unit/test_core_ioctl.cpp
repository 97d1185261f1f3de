// Extended-ioctl discovery, its pure steps: serial numbers from the node
// record, the driver-version thresholds for capability bits, and the
// character node (its wanted numbers and how it is kept or made).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>

#include "exioctln.h"
#include "unit_support.h"
#include "vx_core.h"
#include "vx_sysfs.h"

namespace {

std::string calc(uint8_t s0, uint8_t s1, uint8_t s2, uint8_t mask) {
    const uint8_t serial[4] = {s0, s1, s2, 0};
    char out[32];
    vxapi_calc_serialnum(serial, mask, out, sizeof out);
    return out;
}

TEST(IoctlSerial, ComputedFromNodeBytes) {
    struct Case {
        uint8_t s0, s1, s2, mask;
        const char* text;
    };
    // n = (s0 & mask) * 65536 + s2 * 256 + s1; letter 'A' + n / 100000.
    const Case cases[] = {
        {0x00, 0x00, 0x00, 0x1F, "A00000"},
        {0x00, 0x01, 0x00, 0x1F, "A00001"},  // s1 is the low byte
        {0x00, 0x00, 0x01, 0x1F, "A00256"},  // s2 the middle one
        {0x01, 0x40, 0xE2, 0x1F, "B23456"},  // 123456
        {0xE1, 0x40, 0xE2, 0x1F, "B23456"},  // bits above the mask ignored
        {0xE1, 0x40, 0xE2, 0x3F, "W20608"},  // ... but bit 5 counts with 0x3F: 2220608
        {0xFF, 0xFF, 0xFF, 0x1F, "U97151"},  // largest with 0x1F: 2097151
        {0xFF, 0xFF, 0xFF, 0x3F, "j94303"},  // largest with 0x3F runs past 'Z'
    };
    for (const Case& c : cases)
        EXPECT_EQ(calc(c.s0, c.s1, c.s2, c.mask), c.text) << c.text;

    char small[4];
    const uint8_t serial[3] = {0x01, 0x40, 0xE2};
    vxapi_calc_serialnum(serial, 0x1F, small, sizeof small);
    EXPECT_STREQ(small, "B23");
}

// The sysfs channel encodes its serial-number text into the node record the
// way this computation reads it back, so both channels report one text.
TEST(IoctlSerial, RoundTripWithTheSysfsEncoding) {
    const struct {
        const char* text;
        uint8_t mask;
    } cases[] = {{"A00000", 0x1F}, {"E40117", 0x1F}, {"U97151", 0x1F}, {"Z99999", 0x3F}, {"V00000", 0x3F}};
    for (const auto& c : cases) {
        uint8_t bytes[4];
        vxsysfs_serial_to_bytes(c.text, bytes);
        char out[32];
        vxapi_calc_serialnum(bytes, c.mask, out, sizeof out);
        EXPECT_STREQ(out, c.text);
    }
    // Past 'U' the narrower mask of the older families cannot carry the number.
    uint8_t bytes[4];
    vxsysfs_serial_to_bytes("V00000", bytes);
    char out[32];
    vxapi_calc_serialnum(bytes, 0x1F, out, sizeof out);
    EXPECT_STRNE(out, "V00000");
}

TEST(IoctlSerial, HpBoardsTakeTheReservedText) {
    struct Case {
        uint16_t ssvendor, ssdevice;
        const char* reserved;  // 8 bytes
        const char* text;
    };
    const Case cases[] = {
        {0x103C, 0x7101, "HP12345X", "HP12345X"},  // all 8 bytes, no terminator
        {0x103C, 0x7104, "ABC\0\0\0\0\0", "ABC"},
        {0x103C, 0x1234, "HP12345X", "A00001"},   // another HP board: computed
        {0x1D5A, 0x0F00, "HP12345X", "A00001"},   // the maker's variant id is not an HP subsystem
    };
    for (const Case& c : cases) {
        EXT_HBA_NODE node{};
        node.SerialNum[1] = 0x01;
        memcpy(node.Reserved, c.reserved, sizeof node.Reserved);
        char out[32];
        memset(out, 'Z', sizeof out);
        vxapi_node_serialnum(&node, c.ssvendor, c.ssdevice, out, sizeof out);
        EXPECT_STREQ(out, c.text) << std::hex << c.ssvendor << ":" << c.ssdevice;
    }
}

TEST(IoctlDriverCaps, VersionThresholds) {
    struct Case {
        uint8_t major, minor, patch;
        bool usable;
    };
    const Case cases[] = {
        {8, 0, 0, false},  {8, 0, 99, false}, {8, 1, 6, false}, {8, 1, 7, true},  {8, 2, 0, true},
        {7, 0, 0, false},  {7, 6, 99, false}, {7, 7, 5, false}, {7, 7, 6, true},  {7, 8, 0, true},
        {6, 99, 99, false}, {0, 0, 0, false}, {9, 0, 0, true},  {10, 2, 0, true}, {255, 0, 0, true},
    };
    for (const Case& c : cases)
        EXPECT_EQ(vxapi_driver_caps_usable(c.major, c.minor, c.patch), c.usable)
            << int(c.major) << "." << int(c.minor) << "." << int(c.patch);
}

TEST(IoctlDriverCaps, FeaturesMirrorTheFlagsOnlyWhenTaken) {
    struct Case {
        uint8_t major;
        uint8_t vioctlmod;
        uint32_t flags, before, after;
    };
    constexpr uint32_t BASE = VX_FEAT_IOCTL_NODE | VX_FEAT_NEW_IOCTL;
    constexpr uint32_t BOTH = VX_FEAT_DRV_CAP4 | VX_FEAT_DRV_CAP8;
    const Case cases[] = {
        {10, 0, 0x04, BASE, BASE | VX_FEAT_DRV_CAP4},
        {10, 0, 0x08, BASE | VX_FEAT_DRV_CAP4, BASE | VX_FEAT_DRV_CAP8},  // mirrored: cleared too
        {10, 0, 0x0C | 0x03, BASE, BASE | BOTH},                         // other flag bits carry nothing
        {10, 0, 0x00, BASE | BOTH, BASE},
        {6, 0, 0x00, BASE | BOTH, BASE | BOTH},   // too old: left alone
        {10, 1, 0x00, BASE | BOTH, BASE | BOTH},  // helper module in use: left alone
        {10, 1, 0x0C, BASE, BASE},
    };
    const uint8_t saved = is_vioctlmod_loaded;
    for (const Case& c : cases) {
        is_vioctlmod_loaded = c.vioctlmod;
        vxapi_priv_database rec{};
        rec.features = c.before;
        EXT_LN_DRIVER_DATA data{};
        data.DrvVer.Major = c.major;
        data.Flags = c.flags;
        vxapi_apply_driver_caps(&rec, &data);
        EXPECT_EQ(rec.features, c.after) << "major " << int(c.major) << " flags " << c.flags;
    }
    is_vioctlmod_loaded = saved;
}

class CharNode : public testing::Test {
protected:
    void SetUp() override {
        dir_ = make_temp_dir();
        ASSERT_FALSE(dir_.empty());
    }
    void TearDown() override { remove_tree(dir_); }

    std::string file(const std::string& name, const std::string& text) {
        const std::string path = dir_ + "/" + name;
        std::ofstream(path) << text;
        return path;
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

    // Nodes of real, always-present devices, so the made node opens.
    static constexpr uint32_t MEM_MAJOR = 1, NULL_MINOR = 3, ZERO_MINOR = 5;

    bool can_make_nodes() {
        const std::string probe = path("probe");
        if (mknod(probe.c_str(), S_IFCHR | 0600, makedev(MEM_MAJOR, NULL_MINOR)) != 0)
            return false;
        unlink(probe.c_str());
        return true;
    }

    std::string dir_;
};

TEST_F(CharNode, WantedNumbers) {
    const std::string proc = file("devices", "Character devices:\n  1 mem\n 60 vxfcdrv\n 10 misc\n 62 vxfcdrv\n");
    struct Case {
        const char* dev_text;  // nullptr: no dev attribute
        const char* proc;      // nullptr: no /proc/devices
        int result;
        uint32_t major_no, minor_no;
    };
    const Case cases[] = {
        {"60:1\n", proc.c_str(), 0, 60, 1},
        {"60\n", proc.c_str(), 1, 0, 0},     // present but unparsable: no fallback
        {"", proc.c_str(), 1, 0, 0},          // short read
        {nullptr, proc.c_str(), 0, 62, 0},    // the last line naming the driver
        {nullptr, nullptr, 2, 0, 0},
    };
    for (const Case& c : cases) {
        const std::string dev = c.dev_text ? file("dev", c.dev_text) : path("absent");
        uint32_t major_no = 0, minor_no = 0;
        const std::string proc_path = c.proc ? c.proc : path("no-devices");
        EXPECT_EQ(vxapi_charnode_numbers(dev.c_str(), proc_path.c_str(), "vxfcdrv", &major_no, &minor_no), c.result)
            << (c.dev_text ? c.dev_text : "(none)");
        if (c.result == 0) {
            EXPECT_EQ(major_no, c.major_no);
            EXPECT_EQ(minor_no, c.minor_no);
        }
        unlink(dev.c_str());
    }
    const std::string other = file("other", "Character devices:\n  1 mem\n");
    uint32_t major_no = 0, minor_no = 0;
    EXPECT_EQ(vxapi_charnode_numbers(path("absent").c_str(), other.c_str(), "vxfcdrv", &major_no, &minor_no), 1);
}

TEST_F(CharNode, KeptMadeOrReplaced) {
    if (!can_make_nodes())
        GTEST_SKIP() << "device nodes cannot be made here";
    const std::string node = path("vxfcdrv");
    auto rdev_of = [&](struct stat* st) { return lstat(node.c_str(), st) == 0 && S_ISCHR(st->st_mode); };

    // Missing: made with mode 0600 and the old encoding of the numbers.
    ASSERT_EQ(vxapi_charnode_make(node.c_str(), MEM_MAJOR, NULL_MINOR), 0);
    struct stat st {};
    ASSERT_TRUE(rdev_of(&st));
    EXPECT_EQ(st.st_rdev, dev_t{MEM_MAJOR * 256 + NULL_MINOR});
    EXPECT_EQ(st.st_mode & 07777, 0600u);

    // Matching: kept as it is (its mode shows it was not made again).
    ASSERT_EQ(chmod(node.c_str(), 0640), 0);
    ASSERT_EQ(vxapi_charnode_make(node.c_str(), MEM_MAJOR, NULL_MINOR), 0);
    ASSERT_TRUE(rdev_of(&st));
    EXPECT_EQ(st.st_mode & 07777, 0640u);

    // Other numbers: replaced.
    ASSERT_EQ(vxapi_charnode_make(node.c_str(), MEM_MAJOR, ZERO_MINOR), 0);
    ASSERT_TRUE(rdev_of(&st));
    EXPECT_EQ(minor(st.st_rdev), ZERO_MINOR);

    // A link is removed, not followed: its target stays as it was.
    unlink(node.c_str());
    const std::string target = file("target", "keep me");
    ASSERT_EQ(symlink(target.c_str(), node.c_str()), 0);
    ASSERT_EQ(vxapi_charnode_make(node.c_str(), MEM_MAJOR, NULL_MINOR), 0);
    EXPECT_TRUE(rdev_of(&st));
    EXPECT_EQ(read_file(target), "keep me");

    // A link to a node with the wanted numbers is not taken for the node.
    unlink(node.c_str());
    const std::string real = path("real");
    ASSERT_EQ(mknod(real.c_str(), S_IFCHR | 0600, makedev(MEM_MAJOR, NULL_MINOR)), 0);
    ASSERT_EQ(symlink(real.c_str(), node.c_str()), 0);
    ASSERT_EQ(vxapi_charnode_make(node.c_str(), MEM_MAJOR, NULL_MINOR), 0);
    EXPECT_TRUE(rdev_of(&st));

    // Numbers 0:0 cannot be made; the stale file is gone all the same.
    unlink(node.c_str());
    file("vxfcdrv", "stale");
    EXPECT_NE(vxapi_charnode_make(node.c_str(), 0, 0), 0);
    EXPECT_NE(access(node.c_str(), F_OK), 0);
}

}  // namespace
