// The optrom_ctl/optrom state machine and the nvram/vpd windows, in-process
// against state files in a temporary directory. Whole and partial transfers
// through the attribute files are tested end to end.
#include <cerrno>
#include <string>
#include <tuple>
#include <vector>

#include "optrom.h"
#include "test_sim_driver_support.h"

using namespace vxsim::drv;

namespace {

constexpr size_t FLASH = 0x10000;

class Optrom : public vxsim_test::TempDir {
protected:
    void SetUp() override {
        TempDir::SetUp();
        flash_ = pattern(FLASH, 1);
        write_bytes(path("flash.bin"), flash_);
    }
    OptromDevice device(bool partial = true) { return OptromDevice(path("optrom"), "a1", path("flash.bin"), partial); }
    std::vector<uint8_t> flash_;
};

TEST_F(Optrom, CommandsFollowTheStateTheRangeAndTheAdapter) {
    struct Case {
        bool partial;
        std::vector<const char*> setup;  // commands that set the state up
        const char* cmd;
        int want;
    };
    const Case cases[] = {
        {true, {}, "3", -EINVAL},                    // nothing to commit
        {true, {"1"}, "3", -EINVAL},                 // a read cannot be committed
        {true, {"2"}, "1", -EBUSY},                  // a write is pending
        {true, {"1"}, "2", 0},                       // a read may turn into a write
        {true, {"1"}, "1:10:10", 0},                 // and be replaced by another read
        {true, {}, "0", 0},                          // closing when idle is harmless
        {true, {}, "1\n", 0},                        // as a shell's echo writes it
        {true, {}, "1:fff0:10", 0},                  // the last bytes
        {true, {}, "", -EINVAL},
        {true, {}, "10", -EINVAL},
        {true, {}, "1:zz:10", -EINVAL},
        {true, {}, "3:0:10", -EINVAL},               // only reads and writes take a range
        {true, {}, "1:0:0", -EINVAL},                // empty range
        {true, {}, "1:0:10001", -EINVAL},            // past the end of the flash
        {true, {}, "1:ffffffffffffffff:2", -EINVAL}, // offset + size wraps
        {true, {}, "2:1:ffffffffffffffff", -EINVAL},
        // The probe: a driver that takes partial commands rejects it; one
        // that does not accepts it and takes a range only for the whole flash.
        {true, {}, "4", -EINVAL},
        {false, {}, "4", 0},
        {false, {}, "1:100:100", -EINVAL},
        {false, {}, "2:0:100", -EINVAL},
        {false, {}, "1:0:10000", 0},
        {false, {}, "2", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.partial ? "partial" : "whole only") + ", " + std::to_string(c.setup.size()) +
                     " setup command(s): \"" + c.cmd + "\"");
        OptromDevice d = device(c.partial);
        ASSERT_EQ(d.control("0"), 0);
        for (const char* s : c.setup)
            ASSERT_EQ(d.control(s), 0) << s;
        EXPECT_EQ(d.control(c.cmd), c.want);
    }
    for (bool partial : {true, false}) {  // the probe never changes the state
        OptromDevice d = device(partial);
        ASSERT_EQ(d.control("0"), 0);
        ASSERT_EQ(d.control("1:0:10000"), 0);
        d.control("4");
        std::optional<OptromStatus> st = d.status();
        ASSERT_TRUE(st);
        EXPECT_EQ(st->state, OptromState::Read);
        EXPECT_EQ(st->size, FLASH);
        ASSERT_EQ(d.control("0"), 0);
    }
    EXPECT_EQ(read_bytes(path("flash.bin")), flash_);
}

TEST_F(Optrom, TransfersStayInsideTheStagedRangeAndState) {
    OptromDevice d = device();
    uint8_t buf[0x80];
    const std::vector<uint8_t> data(0x80, 0xAB);
    EXPECT_EQ(d.read(0, buf, sizeof buf), 0);  // never used: no state file yet
    EXPECT_EQ(d.write(0, data.data(), data.size()), -EINVAL);

    ASSERT_EQ(d.control("1:1000:100"), 0);
    ASSERT_EQ(d.read(0xC0, buf, sizeof buf), 0x40);  // clipped at the staged size
    EXPECT_TRUE(std::equal(buf, buf + 0x40, flash_.begin() + 0x10C0));
    EXPECT_EQ(d.read(0x100, buf, sizeof buf), 0);
    EXPECT_EQ(d.read(0x10000000, buf, sizeof buf), 0);
    EXPECT_EQ(d.write(0, data.data(), data.size()), -EINVAL);

    // Written: [0, 80h) and [C0h, 100h) clipped; the gap commits as zeros.
    ASSERT_EQ(d.control("2:100:100"), 0);
    EXPECT_EQ(d.read(0, buf, sizeof buf), 0);
    ASSERT_EQ(d.write(0, data.data(), data.size()), 0x80);
    ASSERT_EQ(d.write(0xC0, data.data(), data.size()), 0x40);
    EXPECT_EQ(d.write(0x100, data.data(), data.size()), -EFBIG);
    ASSERT_EQ(d.control("3"), 0);
    std::vector<uint8_t> want = flash_;
    std::fill(want.begin() + 0x100, want.begin() + 0x200, 0xAB);
    std::fill(want.begin() + 0x180, want.begin() + 0x1C0, 0x00);
    EXPECT_EQ(read_bytes(path("flash.bin")), want);

    // Closing discards a pending write.
    ASSERT_EQ(d.control("0"), 0);
    ASSERT_EQ(d.control("2:0:100"), 0);
    ASSERT_EQ(d.write(0, data.data(), data.size()), 0x80);
    ASSERT_EQ(d.control("0"), 0);
    EXPECT_EQ(d.write(0, data.data(), data.size()), -EINVAL);
    EXPECT_EQ(d.control("3"), -EINVAL);
    EXPECT_EQ(read_bytes(path("flash.bin")), want);
}

TEST(OptromCommand, ParsesWhatTheLibraryWrites) {
    std::optional<OptromCommand> c = parse_optrom_command(std::string("1:3f0000:10000") + '\0');
    ASSERT_TRUE(c);
    EXPECT_EQ(std::tuple(c->op, c->ranged, c->offset, c->size),
              std::tuple(OptromCommand::Read, true, 0x3F0000ul, 0x10000ul));
    c = parse_optrom_command("2:0x10:0X20");
    ASSERT_TRUE(c);
    EXPECT_EQ(std::tuple(c->op, c->offset, c->size), std::tuple(OptromCommand::Write, 0x10ul, 0x20ul));
    EXPECT_EQ(optrom_command_text(std::string("3\n") + '\0' + '\0'), "3");
}

class Image : public vxsim_test::TempDir {};

TEST_F(Image, WholeFileWindowNeverGrowsAndBadWindowsFail) {
    write_bytes(path("nvram.bin"), pattern(0x100, 0));
    uint8_t b[4] = {};
    EXPECT_EQ(image_write(ImageWindow{path("nvram.bin"), 0, 0}, 0x100, b, 1), -EFBIG);
    EXPECT_EQ(read_bytes(path("nvram.bin")).size(), 0x100u);
    EXPECT_EQ(image_read(ImageWindow{path("nvram.bin"), 0x80, 0x100}, 0, b, sizeof b), -EIO);  // past its file
    EXPECT_EQ(image_read(ImageWindow{path("missing.bin"), 0, 0}, 0, b, sizeof b), -ENOENT);
}

}  // namespace
