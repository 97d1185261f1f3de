// Extended-ioctl discovery, its pure steps: serial numbers, the driver-version
// thresholds for capability bits, and the character node's numbers and making.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "exioctln.h"
#include "unit_support.h"
#include "vx_core.h"
#include "vx_sysfs.h"

namespace {

// n = (s0 & mask) * 65536 + s2 * 256 + s1; letter 'A' + n / 100000.
TEST(IoctlSerial, ComputedFromNodeBytes) {
    const struct {
        uint8_t serial[3], mask;
        size_t out_len;
        const char* text;
    } cases[] = {
        {{0x01, 0x40, 0xE2}, 0x1F, 32, "B23456"},  // 0x01E240: s0 high, s2 middle, s1 low
        {{0xE1, 0x40, 0xE2}, 0x1F, 32, "B23456"},  // bits above the mask ignored
        {{0xE1, 0x40, 0xE2}, 0x3F, 32, "W20608"},  // ... but bit 5 counts with 0x3F: 2220608
        {{0xFF, 0xFF, 0xFF}, 0x1F, 32, "U97151"},  // largest with 0x1F: 2097151
        {{0xFF, 0xFF, 0xFF}, 0x3F, 32, "j94303"},  // largest with 0x3F runs past 'Z'
        {{0x01, 0x40, 0xE2}, 0x1F, 4, "B23"},      // cut to the caller's buffer
    };
    for (const auto& c : cases) {
        char out[32];
        memset(out, 'Z', sizeof out);
        vxapi_calc_serialnum(c.serial, c.mask, out, c.out_len);
        EXPECT_STREQ(out, c.text);
    }
}

// The sysfs channel encodes its serial text as the computation above reads it
// back, so both channels report one text; texts of another form give zeros.
TEST(IoctlSerial, SysfsEncodingRoundTrips) {
    const struct {
        const char* text;
        uint8_t mask;
        bool same;
    } cases[] = {
        {"A00000", 0x1F, true}, {"K65536", 0x1F, true}, {"U97151", 0x1F, true}, {"Z99999", 0x3F, true},
        {"V00000", 0x1F, false},  // past 'U' the older families' narrower mask cannot carry the number
    };
    for (const auto& c : cases) {
        uint8_t bytes[4];
        memset(bytes, 0xEE, sizeof bytes);
        vxsysfs_serial_to_bytes(c.text, bytes);
        EXPECT_EQ(bytes[3], 0) << c.text;
        char out[32];
        vxapi_calc_serialnum(bytes, c.mask, out, sizeof out);
        EXPECT_EQ(std::string(out) == c.text, c.same) << c.text << " came back as " << out;
    }
    for (const char* text : {"", "VXE10400117", "A1234", "A123456", "a12345", "A1234Z", "112345", "A 2345"}) {
        uint8_t bytes[4];
        memset(bytes, 0xEE, sizeof bytes);
        vxsysfs_serial_to_bytes(text, bytes);
        EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 4), std::vector<uint8_t>(4, 0)) << text;
    }
}

TEST(IoctlSerial, HpBoardsTakeTheReservedText) {
    const struct {
        uint16_t ssvendor, ssdevice;
        const char* reserved;  // 8 bytes
        const char* text;
    } cases[] = {
        {0x103C, 0x7101, "HP12345X", "HP12345X"},  // all 8 bytes, no terminator
        {0x103C, 0x7104, "ABC\0\0\0\0\0", "ABC"},
        {0x103C, 0x7105, "HP12345X", "A00001"},   // another HP board: computed
        {0x1D5A, 0x0F00, "HP12345X", "A00001"},   // the maker's variant id is not an HP subsystem
    };
    for (const auto& c : cases) {
        EXT_HBA_NODE node{};
        node.SerialNum[1] = 0x01;
        memcpy(node.Reserved, c.reserved, sizeof node.Reserved);
        char out[32];
        memset(out, 'Z', sizeof out);
        vxapi_node_serialnum(&node, c.ssvendor, c.ssdevice, out, sizeof out);
        EXPECT_STREQ(out, c.text) << std::hex << c.ssvendor << ":" << c.ssdevice;
    }
}

// Usable from 7.7.6 within 7, from 8.1.7 within 8, and every 9 or later.
TEST(IoctlDriverCaps, VersionThresholds) {
    const struct {
        uint8_t major, minor, patch;
        bool usable;
    } cases[] = {
        {6, 99, 99, false}, {7, 6, 99, false}, {7, 7, 5, false}, {7, 7, 6, true}, {7, 8, 0, true},
        {8, 0, 99, false},  {8, 1, 6, false},  {8, 1, 7, true},  {8, 2, 0, true}, {9, 0, 0, true},
    };
    for (const auto& c : cases)
        EXPECT_EQ(vxapi_driver_caps_usable(c.major, c.minor, c.patch), c.usable)
            << int(c.major) << "." << int(c.minor) << "." << int(c.patch);
}

TEST(IoctlDriverCaps, FeaturesMirrorTheFlagsOnlyWhenTaken) {
    constexpr uint32_t BASE = VX_FEAT_IOCTL_NODE | VX_FEAT_NEW_IOCTL;
    constexpr uint32_t BOTH = VX_FEAT_DRV_CAP4 | VX_FEAT_DRV_CAP8;
    const struct {
        uint8_t major, vioctlmod;
        uint32_t flags, before, after;
    } cases[] = {
        {10, 0, 0x08, BASE | VX_FEAT_DRV_CAP4, BASE | VX_FEAT_DRV_CAP8},  // mirrored: cleared too
        {10, 0, 0x0C | 0x03, BASE, BASE | BOTH},                         // other flag bits carry nothing
        {10, 0, 0x00, BASE | BOTH, BASE},
        {6, 0, 0x00, BASE | BOTH, BASE | BOTH},   // too old: left alone
        {10, 1, 0x04, BASE | VX_FEAT_DRV_CAP8, BASE | VX_FEAT_DRV_CAP8},  // helper module in use: left alone
    };
    const uint8_t saved = is_vioctlmod_loaded;
    for (const auto& c : cases) {
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
    void TearDown() override { remove_tree(dir_); }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    std::string file(const std::string& name, const std::string& text) const {
        std::ofstream(path(name)) << text;
        return path(name);
    }
    std::string dir_ = make_temp_dir();
};

TEST_F(CharNode, WantedNumbers) {
    const std::string proc = file("devices", "Character devices:\n  1 mem\n 60 vxfcdrv\n 10 misc\n 62 vxfcdrv\n");
    const std::string other = file("other", "Character devices:\n  1 mem\n");
    const struct {
        const char* dev_text;  // nullptr: no dev attribute
        std::string proc;
        int result;
        uint32_t major_no, minor_no;
    } cases[] = {
        {"60:1\n", proc, 0, 60, 1},
        {"60\n", proc, 1, 0, 0},  // present but unparsable: no fallback
        {"", proc, 1, 0, 0},       // short read
        {nullptr, proc, 0, 62, 0}, // the last line naming the driver
        {nullptr, other, 1, 0, 0},
        {nullptr, path("no-devices"), 2, 0, 0},
    };
    for (const auto& c : cases) {
        const std::string dev = c.dev_text ? file("dev", c.dev_text) : path("absent");
        uint32_t major_no = 0, minor_no = 0;
        EXPECT_EQ(vxapi_charnode_numbers(dev.c_str(), c.proc.c_str(), "vxfcdrv", &major_no, &minor_no), c.result)
            << (c.dev_text ? c.dev_text : "(none)") << " " << c.proc;
        EXPECT_EQ(major_no, c.major_no);
        EXPECT_EQ(minor_no, c.minor_no);
        unlink(dev.c_str());
    }
}

// Old encoding of the numbers; 1:3 and 1:5 are /dev/null and /dev/zero.
TEST_F(CharNode, KeptMadeOrReplacedButNeverFollowed) {
    const std::string node = path("vxfcdrv"), real = path("real"), target = file("target", "keep me");
    if (mknod(real.c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0)
        GTEST_SKIP() << "device nodes cannot be made here";
    struct stat st {};
    auto made = [&](uint32_t major_no, uint32_t minor_no) {
        return vxapi_charnode_make(node.c_str(), major_no, minor_no) == 0 && lstat(node.c_str(), &st) == 0 &&
               S_ISCHR(st.st_mode) && st.st_rdev == dev_t{major_no * 256 + minor_no};
    };
    ASSERT_TRUE(made(1, 3));
    ASSERT_EQ(chmod(node.c_str(), 0640), 0);
    ASSERT_TRUE(made(1, 3));
    EXPECT_EQ(st.st_mode & 07777, 0640u);  // matching: kept, not made again
    EXPECT_TRUE(made(1, 5));               // other numbers: replaced
    EXPECT_EQ(st.st_mode & 07777, 0600u);

    // Links are removed, not followed, even to a node with the wanted numbers.
    for (const std::string& to : {target, real}) {
        unlink(node.c_str());
        ASSERT_EQ(symlink(to.c_str(), node.c_str()), 0);
        EXPECT_TRUE(made(1, 3)) << to;
    }
    EXPECT_EQ(read_file(target), "keep me");

    // Numbers 0:0 cannot be made; the stale file is gone all the same.
    unlink(node.c_str());
    file("vxfcdrv", "stale");
    EXPECT_NE(vxapi_charnode_make(node.c_str(), 0, 0), 0);
    EXPECT_NE(access(node.c_str(), F_OK), 0);
}

}  // namespace
