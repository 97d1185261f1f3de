// Debug trace: byte-exact lines, numbers, splitting, dumps, mask gating.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <string>

#include "unit_support.h"
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
        {0, VXDBG_HEX, "0"},
        {9, VXDBG_HEX, "9"},
        {10, VXDBG_HEX, "Ah"},
        {255, VXDBG_HEX, "FFh"},
        {0x1234ABCD, VXDBG_HEX, "1234ABCDh"},
        {0xFFFFFFFFFFFFFFFEull, VXDBG_HEX, "FFFFFFFFFFFFFFFEh"},
        {0, VXDBG_DEC, "0"},
        {255, VXDBG_DEC, "255"},
        {18446744073709551614ull, VXDBG_DEC, "18446744073709551614"},
        {0xFFFFFFFF, VXDBG_INT, "-1"},
        {0x1FFFFFFFFull, VXDBG_INT, "-1"},   // low 32 bits only
        {0x80000000, VXDBG_INT, "-2147483648"},
        {42, VXDBG_INT, "42"},
        {UINT64_MAX, VXDBG_HEX, ""},          // all ones prints nothing, in every radix
        {UINT64_MAX, VXDBG_DEC, ""},
        {UINT64_MAX, VXDBG_INT, ""},
        {5, 2, ""},                           // unknown radix prints nothing
        {5, 8, ""},
        {5, VXDBG_NONE, ""},
    };
    for (const Case& c : cases) {
        const std::string out = echoed([&] { vxdbg_print("n=", c.number, c.radix, 1); });
        EXPECT_EQ(out, std::string("n=") + c.text + "\n") << c.number << " radix " << int(c.radix);
    }
}

TEST_F(Trace, PiecesMakeOneLine) {
    const std::string out = echoed([] {
        vxdbg_print("SDOpenDevice(", 3, VXDBG_DEC, 0);
        vxdbg_print("): entered.", 0, VXDBG_NONE, 1);
        vxdbg_print("x=", 10, VXDBG_HEX, 1);
    });
    EXPECT_EQ(out, "SDOpenDevice(3): entered.\nx=Ah\n");
}

TEST_F(Trace, LongMessageIsSplitIntoLines) {
    const std::string message(300, 'a');
    const std::string out = echoed([&] { vxdbg_print(message.c_str(), 0, VXDBG_NONE, 1); });
    EXPECT_EQ(out, std::string(251, 'a') + "\n" + std::string(49, 'a') + "\n");

    // Exactly 250 characters plus the line end fit one line.
    const std::string fits(250, 'b');
    EXPECT_EQ(echoed([&] { vxdbg_print(fits.c_str(), 0, VXDBG_NONE, 1); }), fits + "\n");
}

TEST_F(Trace, PercentSignsAreText) {
    EXPECT_EQ(echoed([] { vxdbg_print("100% %s %n done", 0, VXDBG_NONE, 1); }), "100% %s %n done\n");
}

TEST_F(Trace, LogFileLinesCarryAStampAndTheFileIsClosedAfterEachCall) {
    vx_debug = VXDBG_DEFAULT;  // file only, no echo
    const std::string err = capture_stderr([] {
        vxdbg_print("first ", 1, VXDBG_DEC, 0);
        EXPECT_EQ(vxdbg_fp, nullptr);
        vxdbg_print("second", 0, VXDBG_NONE, 1);
        vxdbg_print("x=", 10, VXDBG_HEX, 1);
    });
    EXPECT_EQ(err, "");
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
        {0x407, true, true},
        {0x400, false, true},
        {0x001, true, true},
        {0x000, false, false}, // nothing at all
    };
    for (const Case& c : cases) {
        unlink(log_.c_str());
        vx_debug = c.mask;
        const std::string err = capture_stderr([] { vxdbg_print("line", 0, VXDBG_NONE, 1); });
        EXPECT_EQ(err.empty(), !c.to_stderr) << std::hex << c.mask;
        EXPECT_EQ(read_file(log_).find("line") != std::string::npos, c.to_file) << std::hex << c.mask;
    }
}

TEST_F(Trace, DefaultLogPathIsUsedWhenNoneIsSet) {
    // The default log lies in /usr/lib: look at it in a child with a private,
    // empty /usr/lib so the host's is never touched.
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/usr/lib", "tmpfs", 0, nullptr) != 0)
            _exit(77);
        vxdbglog_path[0] = '\0';
        vx_debug = VXDBG_DEFAULT;
        vxdbg_print("critical line", 0, VXDBG_NONE, 1);
        const bool named = strcmp(vxdbglog_path, "/usr/lib/libvxsdm.log") == 0;
        const bool written = read_file("/usr/lib/libvxsdm.log").find("critical line\n") != std::string::npos;
        _exit(named && written ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) {
        if (getenv("VXSIM_REQUIRE"))
            FAIL() << "needs a private mount namespace (run as root)";
        GTEST_SKIP() << "needs a private mount namespace (run as root)";
    }
    EXPECT_EQ(WEXITSTATUS(status), 0);
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
    if (api_dbg_sem_id != -1) {
        // With the semaphore, lines are still written whole.
        vx_debug = 0x006;
        EXPECT_EQ(capture_stderr([] { vxdbg_print("held", 0, VXDBG_NONE, 1); }), "held\n");
        vxapi_sem_del(api_dbg_sem_id);
        api_dbg_sem_id = -1;
    }
}

TEST_F(Trace, Dump8Bit) {
    const uint8_t bytes[] = {0, 1, 9, 10, 15, 16, 0x7F, 0xFF, 2, 3, 4, 5, 6, 7, 8, 0xAB, 0x0C, 0x99};
    const std::string out = echoed([&] { vxdbg_dump("bytes:", bytes, 8, sizeof bytes); });
    const std::string expected =
        "bytes:\n"
        " 0    1    2    3    4    5    6    7    8    9    Ah   Bh   Ch   Dh   Eh   Fh\n" +
        dashes(78) + "\n" +
        " 0   " " 1   " " 9   " " Ah  " " Fh  " "10h  " "7Fh  " "FFh  "
        " 2   " " 3   " " 4   " " 5   " " 6   " " 7   " " 8   " "ABh\n"
        " Ch  " "99h  " "\n" +
        dashes(78) + "\n";
    EXPECT_EQ(out, expected);
}

TEST_F(Trace, Dump16Bit) {
    const uint16_t words[] = {0x0, 0x9, 0xA, 0xFF, 0x100, 0xFFF, 0x1000, 0xFFFF, 0x12};
    const std::string out =
        echoed([&] { vxdbg_dump("", reinterpret_cast<const uint8_t*>(words), 16, std::size(words)); });
    const std::string expected =
        "   0      2      4      6      8      Ah     Ch     Eh\n" + dashes(54) + "\n" +
        "   0   " "   9   " "   Ah  " "  FFh  " " 100h  " " FFFh  " "1000h  " "FFFFh\n"
        "  12h  " "\n" +
        dashes(54) + "\n";
    EXPECT_EQ(out, expected);
}

TEST_F(Trace, Dump32Bit) {
    const uint32_t words[] = {0x7, 0x1234, 0x10000000, 0xFFFFFFFF, 0xABCDE};
    const std::string out =
        echoed([&] { vxdbg_dump("w", reinterpret_cast<const uint8_t*>(words), 32, std::size(words)); });
    const std::string expected =
        "w\n"
        "       0          4          8          Ch\n" + dashes(42) + "\n" +
        "       7   " "    1234h  " "10000000h  " "FFFFFFFFh\n"
        "   ABCDEh  " "\n" +
        dashes(42) + "\n";
    EXPECT_EQ(out, expected);
}

TEST_F(Trace, Dump64Bit) {
    const uint64_t words[] = {0x5, 0xFFFFFFF, 0x123456789ull};
    const std::string out =
        echoed([&] { vxdbg_dump("", reinterpret_cast<const uint8_t*>(words), 64, std::size(words)); });
    // Values of eight or more digits get no padding: the step table ends there.
    const std::string expected =
        "               0                  4\n" + dashes(35) + "\n" +
        "               5   " "         FFFFFFFh\n"
        "123456789h  " "\n" +
        dashes(35) + "\n";
    EXPECT_EQ(out, expected);
}

TEST_F(Trace, DumpOfFullRowsAndOfNothing) {
    const uint8_t bytes[16] = {};
    std::string row;
    for (int i = 0; i < 15; ++i)
        row += " 0   ";
    row += " 0\n";
    const std::string header =
        " 0    1    2    3    4    5    6    7    8    9    Ah   Bh   Ch   Dh   Eh   Fh\n" + dashes(78) + "\n";
    EXPECT_EQ(echoed([&] { vxdbg_dump("", bytes, 8, 16); }), header + row + dashes(78) + "\n");
    EXPECT_EQ(echoed([&] { vxdbg_dump("", bytes, 8, 0); }), header + dashes(78) + "\n");
}

TEST_F(Trace, DumpOfUnknownUnitSizePrintsOnlyTheTitle) {
    const uint8_t bytes[4] = {1, 2, 3, 4};
    EXPECT_EQ(echoed([&] { vxdbg_dump("title", bytes, 12, 4); }), "title\n");
    EXPECT_EQ(echoed([&] { vxdbg_dump("", bytes, 0, 4); }), "");
}

}  // namespace
