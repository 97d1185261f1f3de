// The optrom_ctl/optrom state machine and the nvram/vpd windows, in-process
// against state files in a temporary directory.
#include <cerrno>
#include <string>
#include <vector>

#include "optrom.h"
#include "test_sim_driver_support.h"

using namespace vxsim::drv;

namespace {

constexpr size_t FLASH = 0x10000;
constexpr size_t PAGE = 4096;

class Optrom : public vxsim_test::TempDir {
protected:
    void SetUp() override {
        TempDir::SetUp();
        flash_ = pattern(FLASH, 1);
        write_bytes(path("flash.bin"), flash_);
    }
    OptromDevice device(bool partial = true) {
        return OptromDevice(path("optrom"), "a1", path("flash.bin"), partial);
    }
    // Reads page by page from position 0 until the driver says end of file.
    static std::vector<uint8_t> read_all(OptromDevice& d) {
        std::vector<uint8_t> out;
        uint8_t page[PAGE];
        for (;;) {
            ssize_t r = d.read(out.size(), page, sizeof page);
            EXPECT_GE(r, 0);
            if (r <= 0)
                return out;
            out.insert(out.end(), page, page + r);
        }
    }
    static void write_all(OptromDevice& d, const std::vector<uint8_t>& data) {
        for (size_t pos = 0; pos < data.size();) {
            size_t n = std::min(PAGE, data.size() - pos);
            ssize_t r = d.write(pos, data.data() + pos, n);
            ASSERT_EQ(r, static_cast<ssize_t>(n));
            pos += n;
        }
    }
    std::vector<uint8_t> flash_;
};

TEST_F(Optrom, WholeAndPartialReadsReturnTheStagedBytes) {
    struct Case {
        const char* cmd;
        size_t offset, size;
    };
    const Case cases[] = {
        {"1", 0, FLASH},
        {"1:0:10000", 0, FLASH},
        {"1:100:200", 0x100, 0x200},
        {"1:fff0:10", 0xFFF0, 0x10},  // the last bytes
        {"1:1234:1", 0x1234, 1},
        {"1\n", 0, FLASH},  // as a shell's echo writes it
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.cmd);
        OptromDevice d = device();
        ASSERT_EQ(d.control(std::string(c.cmd) + '\0'), 0);
        std::vector<uint8_t> want(flash_.begin() + c.offset, flash_.begin() + c.offset + c.size);
        EXPECT_EQ(read_all(d), want);
        ASSERT_EQ(d.control("0"), 0);
    }
}

TEST_F(Optrom, ReadsAtAnyPositionAndPastTheEnd) {
    OptromDevice d = device();
    ASSERT_EQ(d.control("1:1000:100"), 0);
    uint8_t buf[0x80];
    ASSERT_EQ(d.read(0xC0, buf, sizeof buf), 0x40);  // clipped at the staged size
    EXPECT_TRUE(std::equal(buf, buf + 0x40, flash_.begin() + 0x10C0));
    EXPECT_EQ(d.read(0x100, buf, sizeof buf), 0);
    EXPECT_EQ(d.read(0x10000000, buf, sizeof buf), 0);
}

TEST_F(Optrom, ReadsOutsideTheReadStateAreEmpty) {
    OptromDevice d = device();
    uint8_t buf[16];
    EXPECT_EQ(d.read(0, buf, sizeof buf), 0);  // never used: no state file yet
    ASSERT_EQ(d.control("2"), 0);
    EXPECT_EQ(d.read(0, buf, sizeof buf), 0);
    ASSERT_EQ(d.control("0"), 0);
    EXPECT_EQ(d.read(0, buf, sizeof buf), 0);
}

TEST_F(Optrom, WritesReachTheFlashOnlyOnCommit) {
    struct Case {
        const char* cmd;
        size_t offset, size;
    };
    const Case cases[] = {{"2", 0, FLASH}, {"2:0:10000", 0, FLASH}, {"2:3000:1800", 0x3000, 0x1800}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.cmd);
        write_bytes(path("flash.bin"), flash_);
        OptromDevice d = device();
        std::vector<uint8_t> data = pattern(c.size, 99);
        ASSERT_EQ(d.control(c.cmd), 0);
        write_all(d, data);
        EXPECT_EQ(read_bytes(path("flash.bin")), flash_) << "flash changed before the commit";
        ASSERT_EQ(d.control("3"), 0);
        std::vector<uint8_t> want = flash_;
        std::copy(data.begin(), data.end(), want.begin() + c.offset);
        EXPECT_EQ(read_bytes(path("flash.bin")), want);
        ASSERT_EQ(d.control("0"), 0);
        EXPECT_EQ(d.status()->state, OptromState::Idle);
    }
}

TEST_F(Optrom, CloseDiscardsAPendingWrite) {
    OptromDevice d = device();
    ASSERT_EQ(d.control("2:0:1000"), 0);
    write_all(d, pattern(0x1000, 5));
    ASSERT_EQ(d.control("0"), 0);
    EXPECT_EQ(d.control("3"), -EINVAL);
    EXPECT_EQ(read_bytes(path("flash.bin")), flash_);
}

TEST_F(Optrom, UnfilledPartOfAWriteBufferIsZero) {
    OptromDevice d = device();
    ASSERT_EQ(d.control("2:100:100"), 0);
    std::vector<uint8_t> half(0x80, 0xAB);
    ASSERT_EQ(d.write(0, half.data(), half.size()), 0x80);
    ASSERT_EQ(d.control("3"), 0);
    std::vector<uint8_t> want = flash_;
    std::fill(want.begin() + 0x100, want.begin() + 0x180, 0xAB);
    std::fill(want.begin() + 0x180, want.begin() + 0x200, 0x00);
    EXPECT_EQ(read_bytes(path("flash.bin")), want);
}

TEST_F(Optrom, WritesAreClippedToTheBufferAndRefusedPastIt) {
    OptromDevice d = device();
    ASSERT_EQ(d.control("2:0:100"), 0);
    std::vector<uint8_t> data(0x80, 1);
    EXPECT_EQ(d.write(0xC0, data.data(), data.size()), 0x40);
    EXPECT_EQ(d.write(0x100, data.data(), data.size()), -EFBIG);
}

TEST_F(Optrom, CommandsInTheWrongStateOrMalformedAreRefused) {
    // Each case: commands that set the state up, then the one under test.
    struct Case {
        std::vector<const char*> setup;
        const char* cmd;
        int want;
    };
    const Case cases[] = {
        {{}, "3", -EINVAL},                    // nothing to commit
        {{"1"}, "3", -EINVAL},                 // a read cannot be committed
        {{"2"}, "1", -EBUSY},                  // a write is pending
        {{"2"}, "1:0:10", -EBUSY},
        {{"2:0:10"}, "2", -EBUSY},
        {{"1"}, "2", 0},                       // a read may turn into a write
        {{"1"}, "1:10:10", 0},                 // and be replaced by another read
        {{"2"}, "0", 0},
        {{}, "0", 0},                          // closing when idle is harmless
        {{}, "", -EINVAL},
        {{}, "5", -EINVAL},
        {{}, "x", -EINVAL},
        {{}, "10", -EINVAL},
        {{}, "1:", -EINVAL},
        {{}, "1:0", -EINVAL},
        {{}, "1:0:", -EINVAL},
        {{}, "1:zz:10", -EINVAL},
        {{}, "1:0:10:5", -EINVAL},
        {{}, "3:0:10", -EINVAL},               // only reads and writes take a range
        {{}, "0:0:10", -EINVAL},
        {{}, "1:0:0", -EINVAL},                // empty range
        {{}, "1:0:10001", -EINVAL},            // past the end of the flash
        {{}, "2:10000:1", -EINVAL},
        {{}, "1:ffff:2", -EINVAL},
        {{}, "1:ffffffffffffffff:2", -EINVAL}, // offset + size wraps
        {{}, "2:1:ffffffffffffffff", -EINVAL},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string("after ") + std::to_string(c.setup.size()) + " setup command(s): \"" + c.cmd + "\"");
        OptromDevice d = device();
        ASSERT_EQ(d.control("0"), 0);
        for (const char* s : c.setup)
            ASSERT_EQ(d.control(s), 0) << s;
        EXPECT_EQ(d.control(c.cmd), c.want);
    }
    EXPECT_EQ(read_bytes(path("flash.bin")), flash_);
}

TEST_F(Optrom, WritesOutsideTheWriteStateAreRefused) {
    OptromDevice d = device();
    uint8_t b[4] = {1, 2, 3, 4};
    EXPECT_EQ(d.write(0, b, sizeof b), -EINVAL);  // never used
    ASSERT_EQ(d.control("1"), 0);
    EXPECT_EQ(d.write(0, b, sizeof b), -EINVAL);
    ASSERT_EQ(d.control("0"), 0);
    EXPECT_EQ(d.write(0, b, sizeof b), -EINVAL);
}

TEST_F(Optrom, ProbeAndPartialCommandsFollowTheAdaptersFlag) {
    // A driver that takes partial commands rejects the probe; one that does
    // not accepts the probe and takes a range only when it is the whole flash.
    struct Case {
        bool partial;
        const char* cmd;
        int want;
    };
    const Case cases[] = {
        {true, "4", -EINVAL},       {false, "4", 0},
        {true, "1:100:100", 0},     {false, "1:100:100", -EINVAL},
        {true, "2:0:100", 0},       {false, "2:0:100", -EINVAL},
        {false, "1:0:10000", 0},    {false, "2:0:10000", 0},
        {false, "1", 0},            {false, "2", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.cmd) + (c.partial ? " (partial)" : " (whole only)"));
        OptromDevice d = device(c.partial);
        ASSERT_EQ(d.control("0"), 0);
        EXPECT_EQ(d.control(c.cmd), c.want);
    }
}

TEST_F(Optrom, ProbeLeavesTheStateAlone) {
    for (bool partial : {true, false}) {
        OptromDevice d = device(partial);
        ASSERT_EQ(d.control("1:0:10000"), 0);
        d.control("4");
        std::optional<OptromStatus> st = d.status();
        ASSERT_TRUE(st);
        EXPECT_EQ(st->state, OptromState::Read);
        EXPECT_EQ(st->size, FLASH);
        ASSERT_EQ(d.control("0"), 0);
    }
}

TEST_F(Optrom, TwoDevicesOverOneStateDirectoryShareTheMachine) {
    // What two processes of one simulated host do: one stages, the other reads.
    OptromDevice a = device(), b = device();
    ASSERT_EQ(a.control("1:200:100"), 0);
    EXPECT_EQ(read_all(b), std::vector<uint8_t>(flash_.begin() + 0x200, flash_.begin() + 0x300));
    ASSERT_EQ(b.control("2:0:100"), 0);
    EXPECT_EQ(a.control("1"), -EBUSY);
    std::vector<uint8_t> data = pattern(0x100, 42);
    write_all(a, data);
    ASSERT_EQ(b.control("3"), 0);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), read_bytes(path("flash.bin")).begin()));
}

TEST_F(Optrom, BrokenStateFilesFailWithEio) {
    OptromDevice d = device();
    ASSERT_EQ(d.control("0"), 0);
    for (const char* text : {"garbage", "{\"state\":\"read\"}", "{\"state\":\"sideways\",\"offset\":0,\"size\":1}"}) {
        SCOPED_TRACE(text);
        write_text(d.state_path(), text);
        EXPECT_EQ(d.control("1"), -EIO);
        uint8_t b[4];
        EXPECT_EQ(d.read(0, b, sizeof b), -EIO);
    }
    write_text(d.state_path(), "");  // an empty file is a fresh, idle machine
    EXPECT_EQ(d.control("1"), 0);
}

TEST_F(Optrom, MissingFlashFailsWithEio) {
    OptromDevice d(path("optrom"), "a1", path("nope.bin"), true);
    EXPECT_EQ(d.control("1"), -EIO);
    EXPECT_EQ(d.control("0"), 0);
}

TEST(OptromCommand, ParsesWhatTheLibraryWrites) {
    std::optional<OptromCommand> c = parse_optrom_command(std::string("1:3f0000:10000") + '\0');
    ASSERT_TRUE(c);
    EXPECT_EQ(c->op, OptromCommand::Read);
    EXPECT_TRUE(c->ranged);
    EXPECT_EQ(c->offset, 0x3F0000u);
    EXPECT_EQ(c->size, 0x10000u);
    c = parse_optrom_command("2:0x10:0X20");
    ASSERT_TRUE(c);
    EXPECT_EQ(c->offset, 0x10u);
    EXPECT_EQ(c->size, 0x20u);
    EXPECT_EQ(optrom_command_text(std::string("3\n") + '\0' + '\0'), "3");
}

// ---- nvram / vpd windows ---------------------------------------------------

class Image : public vxsim_test::TempDir {};

TEST_F(Image, WindowInsideAFileReadsAndWritesOnlyItsBytes) {
    std::vector<uint8_t> file = pattern(0x1000, 3);
    write_bytes(path("flash.bin"), file);
    ImageWindow w{path("flash.bin"), 0x400, 0x200};

    uint8_t buf[0x300];
    ASSERT_EQ(image_read(w, 0, buf, 0x100), 0x100);
    EXPECT_TRUE(std::equal(buf, buf + 0x100, file.begin() + 0x400));
    ASSERT_EQ(image_read(w, 0x180, buf, 0x300), 0x80);  // clipped at the window's end
    EXPECT_TRUE(std::equal(buf, buf + 0x80, file.begin() + 0x580));
    EXPECT_EQ(image_read(w, 0x200, buf, 1), 0);

    std::vector<uint8_t> data(0x100, 0xEE);
    ASSERT_EQ(image_write(w, 0x180, data.data(), data.size()), 0x80);
    EXPECT_EQ(image_write(w, 0x200, data.data(), 1), -EFBIG);
    std::vector<uint8_t> want = file;
    std::fill(want.begin() + 0x580, want.begin() + 0x600, 0xEE);
    EXPECT_EQ(read_bytes(path("flash.bin")), want);
}

TEST_F(Image, WholeFileWindowFollowsTheFileSize) {
    std::vector<uint8_t> file = pattern(512, 9);
    write_bytes(path("nvram.bin"), file);
    ImageWindow w{path("nvram.bin"), 0, 0};
    std::vector<uint8_t> buf(1024);
    ASSERT_EQ(image_read(w, 0, buf.data(), buf.size()), 512);
    EXPECT_TRUE(std::equal(file.begin(), file.end(), buf.begin()));
    EXPECT_EQ(image_write(w, 512, buf.data(), 1), -EFBIG);  // never grows the image
    EXPECT_EQ(read_bytes(path("nvram.bin")).size(), 512u);
}

TEST_F(Image, WindowPastItsFileOrMissingFileFails) {
    write_bytes(path("short.bin"), pattern(0x100, 0));
    uint8_t b[4];
    EXPECT_EQ(image_read(ImageWindow{path("short.bin"), 0x80, 0x100}, 0, b, sizeof b), -EIO);
    EXPECT_EQ(image_read(ImageWindow{path("missing.bin"), 0, 0}, 0, b, sizeof b), -ENOENT);
}

}  // namespace
