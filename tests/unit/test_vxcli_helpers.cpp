// vxcli's helpers that later commands build on: PORT arguments, tables,
// value texts, progress, confirmation, hex dumps, output files, and the man
// page against the command table. The commands themselves run in simulated
// hosts (tests/sim/test_vxcli.cpp).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "cli.h"
#include "counters.h"
#include "dump.h"
#include "format.h"
#include "ports.h"
#include "table.h"
#include "terminal.h"

namespace {

using namespace vxcli;
namespace fs = std::filesystem;

// Everything written to a FILE*, as a string.
class Capture {
public:
    Capture() : file_(open_memstream(&buf_, &size_)) {}
    ~Capture() {
        std::fclose(file_);
        std::free(buf_);
    }
    FILE* file() { return file_; }
    std::string text() {
        std::fflush(file_);
        return std::string(buf_, size_);
    }

private:
    char* buf_ = nullptr;
    size_t size_ = 0;
    FILE* file_;
};

TEST(VxcliPorts, ArgumentForms) {
    using K = PortSelector::Kind;
    const struct {
        const char* text;
        bool ok;
        K kind;
        uint64_t value;
    } cases[] = {
        {"0", true, K::Instance, 0},
        {"17", true, K::Instance, 17},
        {"4294967295", true, K::Instance, 4294967295u},
        {"4294967296", false, K::Instance, 0},
        {"host7", true, K::Host, 7},
        {"21:00:00:1d:5a:01:40:17", true, K::Wwpn, 0x2100001d5a014017},
        {"21:00:00:1D:5A:01:40:17", true, K::Wwpn, 0x2100001d5a014017},
        {"0x2100001d5a014017", true, K::Wwpn, 0x2100001d5a014017},
        {"0X2100001D5A014017", true, K::Wwpn, 0x2100001d5a014017},
        {"0x1d5a014017", false, K::Wwpn, 0},              // a WWPN has 16 digits
        {"0x21000x1d5a014017", false, K::Wwpn, 0},
        {"2100001d5a014017", false, K::Wwpn, 0},          // bare digits would read as an instance
        {"21:00:00:1d:5a:01:40", false, K::Wwpn, 0},
        {"21-00-00-1d-5a-01-40-17", false, K::Wwpn, 0},
        {"21:00:00:1d:5a:01:40:1g", false, K::Wwpn, 0},
        {"2:100:00:1d:5a:01:40:17", false, K::Wwpn, 0},
        {"host", false, K::Host, 0},
        {"hostx", false, K::Host, 0},
        {"Host7", false, K::Host, 0},
        {"host-1", false, K::Host, 0},
        {"-1", false, K::Instance, 0},
        {" 1", false, K::Instance, 0},
        {"", false, K::Instance, 0},
    };
    for (const auto& c : cases) {
        const auto s = parse_port(c.text);
        ASSERT_EQ(s.has_value(), c.ok) << c.text;
        if (s) {
            EXPECT_EQ(s->kind, c.kind) << c.text;
            EXPECT_EQ(s->value, c.value) << c.text;
        }
    }
}

TEST(VxcliTable, ColumnsRowsAndSelection) {
    const std::vector<TableColumn> columns = {
        {"INSTANCE", "instance", true},
        {"PORT ID", "port_id"},
        {"SPEED", "speed_code", false, [](const json& row) { return speed_text(row["speed_code"].get<uint32_t>()); }},
        {"LUNS", "luns"},
    };
    const std::vector<json> rows = {
        json{{"instance", 0}, {"port_id", "0x010200"}, {"speed_code", 0x16}, {"luns", {0, 1, 256}}},
        json{{"instance", 12}, {"port_id", nullptr}, {"speed_code", nullptr}, {"luns", json::array()}},
        json{{"instance", 3}},  // keys missing: a port whose query failed
    };
    std::string unknown;
    const auto all = select_columns(columns, {}, unknown);
    ASSERT_TRUE(all);
    EXPECT_EQ(render_table(columns, *all, rows),
              "INSTANCE  PORT ID   SPEED    LUNS\n"
              "       0  0x010200  16 Gbit  0,1,256\n"
              "      12  -         -        -\n"
              "       3  -         -        -\n");

    const auto some = select_columns(columns, {"luns", "instance"}, unknown);
    ASSERT_TRUE(some);
    EXPECT_EQ(render_table(columns, *some, {rows[0]}), "LUNS     INSTANCE\n0,1,256         0\n");
    EXPECT_TRUE(select_columns(columns, {"port_id"}, unknown));
    EXPECT_FALSE(select_columns(columns, {"instance", "PORT ID"}, unknown));
    EXPECT_EQ(unknown, "PORT ID");
}

TEST(VxcliFormat, SpeedsAndPcieLinks) {
    // The 16 and 32 Gbit codes read as decimal digits in hexadecimal.
    const struct {
        uint32_t code;
        std::optional<unsigned> gbps;
        const char* text;
    } speeds[] = {{0x01, 1, "1 Gbit"},   {0x04, 4, "4 Gbit"},   {0x08, 8, "8 Gbit"},
                  {0x10, 10, "10 Gbit"}, {0x16, 16, "16 Gbit"}, {0x32, 32, "32 Gbit"},
                  {0x00, {}, "unknown"}, {0x20, {}, "0x20"}};
    for (const auto& s : speeds) {
        EXPECT_EQ(speed_gbps(s.code), s.gbps) << s.code;
        EXPECT_EQ(speed_text(s.code), s.text) << s.code;
    }
    EXPECT_EQ(pcie_link_text(0x0081), "2.5 GT/s x8");
    EXPECT_EQ(pcie_link_gts(0x0043), 8.0);
    EXPECT_EQ(pcie_link_width(0x0043), 4u);
    EXPECT_EQ(pcie_link_gts(0x0047), std::nullopt);
    EXPECT_EQ(pcie_link_text(0x0047), "? GT/s x4");
    EXPECT_EQ(pcie_link_text(0), "unknown");
    EXPECT_EQ(wwn_text(0x2100001d5a014017), "21:00:00:1d:5a:01:40:17");
}

TEST(VxcliProgress, PlainLinesAtEachTenth) {
    Capture out;
    {
        Progress p("Reading", 1000, out.file(), false);
        p.update(50);
        p.update(100);
        p.update(550);  // a jump shows only where it landed
        p.update(599);
        p.update(1000);
        p.update(1000);
    }
    EXPECT_EQ(out.text(), "Reading: 0%\nReading: 10%\nReading: 50%\nReading: 100%\n");
}

TEST(VxcliProgress, OneLineRedrawnOnATerminal) {
    Capture out;
    {
        Progress p("Writing", 200, out.file(), true);
        p.update(1);  // still 0%: nothing redrawn
        p.update(100);
        p.finish();
        p.update(200);  // after finish: nothing
    }  // the destructor does not close the line twice
    EXPECT_EQ(out.text(), "\rWriting [------------------------------]   0%"
                          "\rWriting [###############---------------]  50%\n");
    EXPECT_EQ(progress_bar("x", 1, 3, 10), "x [###-------]  33%");
    EXPECT_EQ(progress_bar("x", 0, 0, 4), "x [####] 100%");  // nothing to do is done
}

TEST(VxcliConfirm, AnswersAndNoTerminal) {
    const struct {
        const char* input;
        Answer answer;
    } cases[] = {{"y\n", Answer::Yes},  {"YES\n", Answer::Yes}, {" yes \r\n", Answer::Yes}, {"n\n", Answer::No},
                 {"\n", Answer::No},    {"", Answer::No},       {"yess\n", Answer::No},     {"no\ny\n", Answer::No}};
    for (const auto& c : cases) {
        std::string text = c.input;
        FILE* in = fmemopen(text.data(), text.size() + 1, "r");  // +1: fmemopen refuses size 0
        ASSERT_NE(in, nullptr);
        Capture out;
        EXPECT_EQ(ask("Erase the flash?", in, out.file(), true), c.answer) << c.input;
        EXPECT_EQ(out.text(), "Erase the flash? [y/N] ");
        std::fclose(in);
    }
    // Without a terminal nothing is asked and no input is taken as an answer.
    std::string text = "y\n";
    FILE* in = fmemopen(text.data(), text.size(), "r");
    Capture out;
    EXPECT_EQ(ask("Erase the flash?", in, out.file(), false), Answer::NoTerminal);
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(std::fgetc(in), 'y');
    std::fclose(in);
}

TEST(VxcliDump, AsHexdumpShowsIt) {
    const std::string text("abc\0\x01\x7f\xffhello world!!", 20);
    EXPECT_EQ(hex_dump(reinterpret_cast<const uint8_t*>(text.data()), text.size()),
              "00000000  61 62 63 00 01 7f ff 68  65 6c 6c 6f 20 77 6f 72  |abc....hello wor|\n"
              "00000010  6c 64 21 21                                       |ld!!|\n"
              "00000014\n");
    // Runs of equal lines fold into one "*"; a line after the run shows again.
    std::vector<uint8_t> flash(80, 0xff);
    flash[48] = 0x55;
    flash[49] = 0xaa;
    EXPECT_EQ(hex_dump(flash.data(), flash.size(), 0x20000),
              "00020000  ff ff ff ff ff ff ff ff  ff ff ff ff ff ff ff ff  |................|\n"
              "*\n"
              "00020030  55 aa ff ff ff ff ff ff  ff ff ff ff ff ff ff ff  |U...............|\n"
              "00020040  ff ff ff ff ff ff ff ff  ff ff ff ff ff ff ff ff  |................|\n"
              "00020050\n");
    EXPECT_EQ(hex_dump(flash.data(), 0), "");
}

class VxcliOutputFile : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/vxcli-out-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        old_mask_ = umask(022);
    }
    void TearDown() override {
        umask(old_mask_);
        fs::remove_all(dir_);
    }
    std::string read(const fs::path& p) {
        std::ifstream in(p);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    size_t entries(const fs::path& p) { return static_cast<size_t>(std::distance(fs::directory_iterator(p), {})); }

    fs::path dir_;
    mode_t old_mask_ = 0;
};

TEST_F(VxcliOutputFile, WholeOrNotAtAll) {
    const fs::path file = dir_ / "nvram.bin";
    EXPECT_EQ(write_output(file, "first", 5), "");
    EXPECT_EQ(read(file), "first");
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0644));  // as the umask says, not mkstemp's 0600
    EXPECT_EQ(write_output(file, "second", 6), "");
    EXPECT_EQ(read(file), "second");
    EXPECT_EQ(entries(dir_), 1u) << "no temporary file left";

    // A write that cannot land leaves what was there, and nothing beside it.
    const fs::path taken = dir_ / "taken";
    fs::create_directory(taken);
    std::ofstream(taken / "keep") << "kept";
    const std::string error = write_output(taken, "x", 1);
    EXPECT_NE(error.find(taken.string() + ": "), std::string::npos) << error;
    EXPECT_EQ(read(taken / "keep"), "kept");
    EXPECT_EQ(entries(dir_), 2u) << "no temporary file left";
    EXPECT_NE(write_output(dir_ / "missing" / "x.bin", "x", 1), "");
}

TEST(VxcliMetrics, LabelValuesAreEscaped) {
    const struct {
        const char* in;
        const char* out;
    } rows[] = {{"VXS1051", "VXS1051"}, {"a\"b", "a\\\"b"}, {"c:\\d", "c:\\\\d"}, {"two\nlines", "two\\nlines"}, {"", ""}};
    for (const auto& r : rows)
        EXPECT_EQ(metric_label(r.in), r.out) << r.in;
}

// The man page is written by hand: every command and every shared option
// must be in it.
TEST(VxcliManPage, DescribesEveryCommandAndOption) {
    std::ifstream in(std::string(VXCLI_SOURCE_DIR) + "/vxcli.1");
    std::stringstream page;
    page << in.rdbuf();
    const std::string text = page.str();
    ASSERT_FALSE(text.empty());
    const auto entry = [&](const std::string& name) {
        return text.find(".TP\n.B " + name) != std::string::npos || text.find(".TP\n.BR " + name) != std::string::npos ||
               text.find(".TP\n.BI " + name) != std::string::npos;
    };
    // The --columns entry names the commands that offer it.
    const size_t columns = text.find(".BI \\-\\-columns");
    ASSERT_NE(columns, std::string::npos);
    const std::string columns_entry = text.substr(columns, text.find(".TP", columns + 1) - columns);
    for (const Command& c : commands()) {
        EXPECT_TRUE(entry(c.name)) << c.name << " is not in vxcli.1";
        const std::regex named("\\.BR? " + std::string(c.name) + "\\b");
        EXPECT_EQ(c.table != nullptr, std::regex_search(columns_entry, named)) << c.name;
    }
    EXPECT_TRUE(entry("help"));
    for (const char* option : {"\\-\\-json", "\\-\\-version", "\\-\\-help"})
        EXPECT_NE(text.find(option), std::string::npos) << option;
}

}  // namespace
