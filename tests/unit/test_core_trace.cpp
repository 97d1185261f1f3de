// Debug trace: byte-exact lines, numbers, splitting, dumps, mask gating.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <regex>
#include <string>

#include "test_core_sysfs_tree.h"
#include "vsdmgt.h"
#include "vx_channel.h"
#include "vx_core.h"
#include "vx_sddbg.h"

namespace {

class Trace : public testing::Test {
protected:
    void SetUp() override {
        dir_ = make_temp_dir();
        ASSERT_FALSE(dir_.empty());
        log_ = dir_ + "/trace.log";
        snprintf(vxdbglog_path, sizeof vxdbglog_path, "%s", log_.c_str());
        saved_mask_ = vx_debug;
    }
    void TearDown() override {
        vx_debug = saved_mask_;
        vxdbglog_path[0] = '\0';
        remove_tree(dir_);
    }
    // What one trace action writes to standard error with the file bit off.
    static std::string echoed(const std::function<void()>& fn) {
        vx_debug = 0x006;
        return capture_stderr(fn);
    }
    std::string dir_;
    std::string log_;
    uint32_t saved_mask_ = 0;
};

std::string dashes(size_t n) { return std::string(n, '-'); }

TEST_F(Trace, NumberRadices) {
    struct Case {
        uint64_t number;
        uint8_t radix;
        const char* text;
    } cases[] = {
        {0, VXDBG_HEX, "0"}, {9, VXDBG_HEX, "9"}, {10, VXDBG_HEX, "Ah"}, {0x1234ABCD, VXDBG_HEX, "1234ABCDh"},
        {0xFFFFFFFFFFFFFFFEull, VXDBG_HEX, "FFFFFFFFFFFFFFFEh"},
        {255, VXDBG_DEC, "255"}, {18446744073709551614ull, VXDBG_DEC, "18446744073709551614"},
        {0xFFFFFFFF, VXDBG_INT, "-1"}, {0x1FFFFFFFFull, VXDBG_INT, "-1"},  // low 32 bits only
        {0x80000000, VXDBG_INT, "-2147483648"}, {42, VXDBG_INT, "42"},
        // All ones prints nothing, in every radix; so does an unknown radix.
        {UINT64_MAX, VXDBG_HEX, ""}, {UINT64_MAX, VXDBG_DEC, ""}, {UINT64_MAX, VXDBG_INT, ""},
        {5, 8, ""}, {5, VXDBG_NONE, ""},
    };
    for (const Case& c : cases) {
        const std::string out = echoed([&] { vxdbg_print("n=", c.number, c.radix, 1); });
        EXPECT_EQ(out, std::string("n=") + c.text + "\n") << c.number << " radix " << int(c.radix);
    }
}

// (Pieces of one line, as the SD calls trace them, are checked end to end.)
TEST_F(Trace, LongLinesAreSplitAndPercentSignsAreText) {
    const std::string long_message(300, 'a'), fits(250, 'b');
    const struct {
        std::function<void()> trace;
        std::string expected;
    } cases[] = {
        {[&] { vxdbg_print(long_message.c_str(), 0, VXDBG_NONE, 1); },
         std::string(251, 'a') + "\n" + std::string(49, 'a') + "\n"},
        {[&] { vxdbg_print(fits.c_str(), 0, VXDBG_NONE, 1); }, fits + "\n"},  // 250 and the line end fit
        // A full buffer ends its line; the message's own line end adds no empty one.
        {[&] { vxdbg_print(long_message.substr(0, 251).c_str(), 0, VXDBG_NONE, 1); }, std::string(251, 'a') + "\n"},
        {[&] { vxdbg_print((long_message + long_message).substr(0, 502).c_str(), 0, VXDBG_NONE, 1); },
         std::string(251, 'a') + "\n" + std::string(251, 'a') + "\n"},
        {[] { vxdbg_print("100% %s %n done", 0, VXDBG_NONE, 1); }, "100% %s %n done\n"},  // text, not a format
    };
    for (const auto& c : cases)
        EXPECT_EQ(echoed(c.trace), c.expected);
}

TEST_F(Trace, LogFileLinesCarryAStampAndTheFileIsClosedAfterEachCall) {
    vx_debug = VXDBG_DEFAULT;
    vxdbg_print("first ", 1, VXDBG_DEC, 0);
    EXPECT_EQ(vxdbg_fp, nullptr);
    vxdbg_print("second", 0, VXDBG_NONE, 1);
    vxdbg_print("x=", 10, VXDBG_HEX, 1);
    EXPECT_EQ(vxdbg_fp, nullptr);
    const std::string log = read_file(log_);
    const std::regex expected("[A-Z][a-z]{2} [0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}: first 1second\n"
                              "[A-Z][a-z]{2} [0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}: x=Ah\n");
    EXPECT_TRUE(std::regex_match(log, expected)) << log;
}

TEST_F(Trace, MaskGatesFileAndEcho) {
    struct Case {
        uint32_t mask;
        bool to_file;
        bool to_stderr;
    } cases[] = {
        {0x401, true, false},  // the default: critical messages to the file only
        {0x407, true, true}, {0x400, false, true}, {0x001, true, true}, {0x000, false, false},
    };
    for (const Case& c : cases) {
        unlink(log_.c_str());
        vx_debug = c.mask;
        const std::string err = capture_stderr([] { vxdbg_print("line", 0, VXDBG_NONE, 1); });
        EXPECT_EQ(err.empty(), !c.to_stderr) << std::hex << c.mask;
        EXPECT_EQ(read_file(log_).find("line") != std::string::npos, c.to_file) << std::hex << c.mask;
    }
}

// In a private mount namespace with an empty /usr/lib: the host's log is never touched.
TEST_F(Trace, DefaultLogPathIsUsedWhenNoneIsSet) {
    bool skipped = false;
    const std::string out = run_with_private_sys(
        dir_,
        [] {
            if (mount("tmpfs", "/usr/lib", "tmpfs", 0, nullptr) != 0)
                return std::string("no private /usr/lib");
            vxdbglog_path[0] = '\0';
            vx_debug = VXDBG_DEFAULT;
            vxdbg_print("critical line", 0, VXDBG_NONE, 1);
            return std::string(vxdbglog_path) + "|" + read_file("/usr/lib/libvxsdm.log");
        },
        &skipped);
    VX_SKIP_WITHOUT_MOUNT_NS(skipped);
    EXPECT_TRUE(std::regex_match(out, std::regex("/usr/lib/libvxsdm.log\\|[A-Z][a-z]{2} [0-9]{2} "
                                                 "[0-9]{2}:[0-9]{2}:[0-9]{2}: critical line\n")))
        << out;
}

TEST_F(Trace, DebugLevelFromEnvironment) {
    VX_REQUIRE_PRIVATE_IPC();
    struct Case {
        const char* value;  // null: unset
        uint32_t mask;
        bool semaphore;
    } cases[] = {
        {nullptr, 0x401, false}, {"0", 0x401, false}, {"6", 0x407, true},
        {"zz", 0x401, false},    {"0x20", 0x421, true}, {"FFFF", 0xFFFF, true},
    };
    for (const Case& c : cases) {
        if (api_dbg_sem_id != -1) {
            vxapi_sem_del(api_dbg_sem_id);
            api_dbg_sem_id = -1;
        }
        if (c.value)
            setenv("VX_FCAPI_DEBUG", c.value, 1);
        else
            unsetenv("VX_FCAPI_DEBUG");
        vxapi_set_debug_level();
        EXPECT_EQ(vx_debug.load(), c.mask) << (c.value ? c.value : "(unset)");
        EXPECT_EQ(api_dbg_sem_id != -1, c.semaphore) << (c.value ? c.value : "(unset)");
    }
    unsetenv("VX_FCAPI_DEBUG");
    if (api_dbg_sem_id != -1)
        vxapi_sem_del(api_dbg_sem_id);
    api_dbg_sem_id = -1;
}

// VX_FCAPI_LOG names the log when it is set and fits the path buffer; the
// first line fixes the path for the process. A link is never followed.
TEST_F(Trace, LogPathFromEnvironment) {
    const std::string custom = dir_ + "/custom.log";
    struct Case {
        std::string value;  // "-": unset
        std::string path;
    } cases[] = {
        {"-", VXDBG_DEFAULT_LOG},
        {"", VXDBG_DEFAULT_LOG},
        {std::string(600, 'x'), VXDBG_DEFAULT_LOG},
        {custom, custom},
    };
    for (const Case& c : cases) {
        vxdbglog_path[0] = '\0';
        if (c.value == "-")
            unsetenv("VX_FCAPI_LOG");
        else
            setenv("VX_FCAPI_LOG", c.value.c_str(), 1);
        vxdbg_set_log_path();
        EXPECT_EQ(std::string(vxdbglog_path), c.path) << c.value.size();
    }

    // Named before the first line: set at the entry point, written there.
    vxdbglog_path[0] = '\0';
    setenv("VX_FCAPI_LOG", custom.c_str(), 1);
    vxapi_set_debug_level();
    EXPECT_EQ(std::string(vxdbglog_path), custom);
    vxdbg_print("to the named log", 0, VXDBG_NONE, 1);
    EXPECT_NE(read_file(custom).find(": to the named log\n"), std::string::npos);

    // Set once: a later value does not move the log.
    setenv("VX_FCAPI_LOG", (dir_ + "/other.log").c_str(), 1);
    vxapi_set_debug_level();
    EXPECT_EQ(std::string(vxdbglog_path), custom);
    unsetenv("VX_FCAPI_LOG");

    // A link planted at the path is not written through.
    const std::string target = dir_ + "/target";
    ASSERT_EQ(symlink(target.c_str(), (dir_ + "/link.log").c_str()), 0);
    snprintf(vxdbglog_path, sizeof vxdbglog_path, "%s/link.log", dir_.c_str());
    vxdbg_print("not through a link", 0, VXDBG_NONE, 1);
    EXPECT_EQ(access(target.c_str(), F_OK), -1);
}

// Callers trace a failure before they hand its errno on: the trace keeps it,
// also when the log cannot be opened.
TEST_F(Trace, ErrnoSurvivesATraceLine) {
    snprintf(vxdbglog_path, sizeof vxdbglog_path, "%s", (dir_ + "/no/such/dir/log").c_str());
    vx_debug = VXDBG_DEFAULT;
    errno = EBUSY;
    vxdbg_print("line", 0, VXDBG_NONE, 1);
    EXPECT_EQ(errno, EBUSY);
}

// The raw file helpers' lines under the sysfs bit: what was asked, and why
// a transfer stopped short.
TEST_F(Trace, RawFileHelperLines) {
    const std::string file = dir_ + "/attr", missing = dir_ + "/none";
    {
        FILE* fp = fopen(file.c_str(), "w");
        ASSERT_NE(fp, nullptr);
        fputs("abcd", fp);
        fclose(fp);
    }
    uint8_t buf[16];
    vx_debug = VXDBG_SYSFS;
    std::string out = capture_stderr([&] { EXPECT_EQ(vxsysfs_read_file(missing.c_str(), buf, 16), 16u); });
    EXPECT_EQ(out, "vxsysfs_read_file: > size==16\nvxsysfs_read_file: > path==" + missing +
                       "\nvxsysfs_read_file: > Failed open\n");
    out = capture_stderr([&] { EXPECT_EQ(vxsysfs_read_file(file.c_str(), buf, 16), 12u); });
    EXPECT_EQ(out, "vxsysfs_read_file: > size==16\nvxsysfs_read_file: > path==" + file +
                       "\nvxsysfs_read_file: > n==0\nvxsysfs_read_file: > residual==12\n");
    // A directory opens read-only but fails the read: -1 prints as -1.
    out = capture_stderr([&] { EXPECT_EQ(vxsysfs_read_data(dir_.c_str(), buf, 16), -1); });
    EXPECT_EQ(out, "vxsysfs_read_data: > size==16\nvxsysfs_read_data: > path==" + dir_ +
                       "\nvxsysfs_read_data: > Failed read\nvxsysfs_read_data: > n==-1\n"
                       "vxsysfs_read_data: > residual==16\n");
    vx_debug = VXDBG_TRACE;  // not the sysfs bit: silent
    EXPECT_EQ(capture_stderr([&] { vxsysfs_read_file(missing.c_str(), buf, 16); }), "");
}

// A query names its sub-code apart from the function, and a failed ioctl's
// result prints as -1.
TEST_F(Trace, QueryLinesOfAFailedIoctl) {
    vxapi_priv_database rec{};
    rec.features = VX_FEAT_IOCTL_NODE | VX_FEAT_NEW_IOCTL;
    vxapi_set_channel(&rec);
    EXT_HBA_NODE node{};
    uint32_t stat = 0;
    const std::string out = echoed([&] { EXPECT_EQ(vxapi_query_hbanode(-1, &rec, &node, &stat), -1); });
    EXPECT_EQ(out, "vxapi_query_hbanode: entered. subcode=1\nvxapi_query_hbanode: exiting. ret=-1 stat=0\n");
}

// The open and close entry points trace under the trace bit too.
TEST_F(Trace, OpenAndCloseHonourTheTraceBit) {
    VX_REQUIRE_PRIVATE_IPC();
    setenv("VX_FCAPI_DEBUG", "4", 1);
    const std::string out = capture_stderr([] {
        EXPECT_EQ(SDOpenDevice(3, nullptr), SDM_STATUS_INVALID_PARAMETER);
        EXPECT_EQ(SDCloseDevice(5), SDM_STATUS_SUCCESS);  // nothing open
    });
    unsetenv("VX_FCAPI_DEBUG");
    if (api_dbg_sem_id != -1)
        vxapi_sem_del(api_dbg_sem_id);
    api_dbg_sem_id = -1;
    EXPECT_EQ(out, "SDOpenDevice(3): entered.\nSDCloseDevice: entered. handle=5\n");
}

// Without a sysfs mount the library says so under the error bit.
TEST_F(Trace, SysfsNotMounted) {
    bool skipped = false;
    const std::string out = run_with_private_sys(
        dir_,
        [] {
            unsetenv("SYSFS_PATH");
            // The bind over /sys, then the sysfs below it.
            while (umount2("/sys", MNT_DETACH) == 0) {
            }
            vx_debug = VXDBG_ERROR;
            std::string err = capture_stderr([] { vxsysfs_init(); });
            return err;
        },
        &skipped);
    VX_SKIP_WITHOUT_MOUNT_NS(skipped);
    EXPECT_EQ(out, "vxsysfs_init: > sysfs not mounted\n");
}

TEST_F(Trace, DumpLayouts) {
    const uint8_t bytes[] = {0, 1, 9, 10, 15, 16, 0x7F, 0xFF, 2, 3, 4, 5, 6, 7, 8, 0xAB, 0x0C, 0x99};
    const uint8_t zeros[16] = {};
    const uint16_t words16[] = {0x0, 0x9, 0xA, 0xFF, 0x100, 0xFFF, 0x1000, 0xFFFF, 0x12};
    const uint32_t words32[] = {0x7, 0x1234, 0x10000000, 0xFFFFFFFF, 0xABCDE};
    const uint64_t words64[] = {0x5, 0xFFFFFFF, 0x123456789ull};
    const std::string header8 =
        " 0    1    2    3    4    5    6    7    8    9    Ah   Bh   Ch   Dh   Eh   Fh\n" + dashes(78) + "\n";
    std::string zero_row;
    for (int i = 0; i < 15; ++i)
        zero_row += " 0   ";
    const struct {
        const char* title;
        const void* data;
        uint8_t unit;
        uint64_t count;
        std::string expected;
    } cases[] = {
        {"bytes:", bytes, 8, sizeof bytes,
         "bytes:\n" + header8 +
             " 0   " " 1   " " 9   " " Ah  " " Fh  " "10h  " "7Fh  " "FFh  "
             " 2   " " 3   " " 4   " " 5   " " 6   " " 7   " " 8   " "ABh\n"
             " Ch  " "99h  " "\n" + dashes(78) + "\n"},
        {"", zeros, 8, 16, header8 + zero_row + " 0\n" + dashes(78) + "\n"},  // a full row
        {"", zeros, 8, 0, header8 + dashes(78) + "\n"},
        {"", words16, 16, 9,
         "   0      2      4      6      8      Ah     Ch     Eh\n" + dashes(54) + "\n" +
             "   0   " "   9   " "   Ah  " "  FFh  " " 100h  " " FFFh  " "1000h  " "FFFFh\n"
             "  12h  " "\n" + dashes(54) + "\n"},
        {"w", words32, 32, 5,
         "w\n       0          4          8          Ch\n" + dashes(42) + "\n" +
             "       7   " "    1234h  " "10000000h  " "FFFFFFFFh\n"
             "   ABCDEh  " "\n" + dashes(42) + "\n"},
        // Values of eight or more digits get no padding: the step table ends there.
        {"", words64, 64, 3,
         "               0                  4\n" + dashes(35) + "\n" +
             "               5   " "         FFFFFFFh\n"
             "123456789h  " "\n" + dashes(35) + "\n"},
        {"title", bytes, 12, 4, "title\n"},  // unknown unit size: only the title
    };
    for (const auto& c : cases)
        EXPECT_EQ(echoed([&] { vxdbg_dump(c.title, static_cast<const uint8_t*>(c.data), c.unit, c.count); }),
                  c.expected)
            << c.unit << " x " << c.count;
}

}  // namespace
