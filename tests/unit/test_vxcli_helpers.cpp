// vxcli's helpers that later commands build on: PORT arguments, tables,
// value texts, progress, confirmation, hex dumps, output files, the decoders
// of pass-through replies, and the man page against the command table. The commands themselves run in simulated
// hosts (tests/sim/test_vxcli.cpp).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include <fmt/format.h>

#include "cli.h"
#include "dump.h"
#include "format.h"
#include "ports.h"
#include "romimage.h"
#include "scsi_decode.h"
#include "table.h"
#include "terminal.h"
#include "vpd.h"

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

// The VPD walk over good and damaged contents: it never reads past the
// bytes given (the vectors are exactly their size, so ASan sees any overrun).
TEST(VxcliVpd, WalkAndLines) {
    using B = std::vector<uint8_t>;
    // Identifier "AB", read-only section, SN "X1", checksum, end.
    B good{0x82, 2, 0, 'A', 'B', 0x90, 0, 0, 'S', 'N', 2, 'X', '1', 'R', 'V', 1, 0, 0x78};
    uint8_t sum = 0;
    for (size_t i = 0; i < 16; ++i)
        sum = static_cast<uint8_t>(sum + good[i]);
    good[16] = static_cast<uint8_t>(0u - sum);
    B bad = good;
    ++bad[16];
    const struct {
        const char* what;
        B vpd;
        bool short_identifier;
        size_t items;
        bool complete, has_checksum, valid;
        std::string lines;
    } cases[] = {
        {"valid", good, false, 5, true, true, true,
         fmt::format(" 0x82  \"AB\"\n 0x90\n \"SN\"  \"X1\"\n \"RV\"  {:02X}\n 0x78\n", good[16])},
        {"checksum one off", bad, false, 5, true, true, false, ""},
        {"no checksum", B{0x82, 1, 0, 'A', 0x78}, false, 2, true, false, false, " 0x82  \"A\"\n 0x78\n"},
        {"no end tag", B{0x82, 1, 0, 'A', 'S', 'N', 1, 'Z'}, false, 2, false, false, false, ""},
        {"length past the buffer", B{0x82, 1, 0, 'A', 'S', 'N', 200, 'Z'}, false, 2, false, false, false,
         " 0x82  \"A\"\n \"SN\"  \"Z\"\n"},
        {"checksum byte past the end", B{0x82, 0, 0, 'R', 'V', 1}, false, 1, false, false, false, ""},
        {"header cut", B{0x82, 5}, false, 0, false, false, false, ""},
        {"all erased", B(512, 0xFF), false, 0, false, false, false, ""},
        {"erased after the serial", B{0x90, 0, 0, 'S', 'N', 1, 'Q', 0xFF, 0xFF}, false, 2, false, false, false, ""},
        {"one-byte identifier length", B{0x82, 2, 'H', 'P', 0x78}, true, 2, true, false, false,
         " 0x82  \"HP\"\n 0x78\n"},
        {"text ends at a zero byte", B{'V', '1', 4, ' ', '4', 0, 'x', 0x78}, false, 2, true, false, false,
         " \"V1\"  \" 4\"\n 0x78\n"},
    };
    for (const auto& c : cases) {
        const VpdWalk w = walk_vpd(c.vpd.data(), c.vpd.size(), c.short_identifier);
        EXPECT_EQ(w.items.size(), c.items) << c.what;
        EXPECT_EQ(w.complete, c.complete) << c.what;
        EXPECT_EQ(w.has_checksum, c.has_checksum) << c.what;
        EXPECT_EQ(w.checksum_valid, c.valid) << c.what;
        if (!c.lines.empty()) {
            EXPECT_EQ(vpd_text(w), c.lines) << c.what;
        }
    }
    // Only the first 512 bytes are walked, even in a 1024-byte VPD.
    B large(1024, 0);
    large[0] = 0x82;
    large[1] = 0xFD;
    large[2] = 0x01;  // an identifier of 509 bytes fills the walk
    large[512] = 0x78;
    const VpdWalk w = walk_vpd(large.data(), large.size(), false);
    EXPECT_EQ(w.items.size(), 1u);
    EXPECT_FALSE(w.complete);
}

// The man page is written by hand: every command and every shared option
// must be in it.
// Replies cut short anywhere: nothing read past the bytes given, and what
// needs whole fields is refused rather than guessed.
TEST(VxcliScsiDecode, ShortRepliesAndLengthsThatLie) {
    const uint8_t inquiry[36] = {0x60, 0, 6, 2, 31, 0, 0, 0, 'V', 'A', 'R', 'N', 'E', 'X', ' ', ' ',
                                 'S', 'I', 'M', 'T', 'A', 'P', 'E', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
                                 '0', '0', '0', '1'};
    auto q = scsi::decode_inquiry(inquiry, sizeof inquiry);
    ASSERT_TRUE(q);
    EXPECT_EQ(q->qualifier, 3);
    EXPECT_EQ(q->device_type, 0);
    EXPECT_EQ(q->vendor, "VARNEX");
    EXPECT_EQ(q->product, "SIMTAPE");
    EXPECT_EQ(q->revision, "0001");
    q = scsi::decode_inquiry(inquiry, 11);
    ASSERT_TRUE(q);
    EXPECT_EQ(q->vendor, "VAR");
    EXPECT_EQ(q->product, "");
    EXPECT_FALSE(scsi::decode_inquiry(inquiry, 0));
    EXPECT_EQ(scsi::device_type_name(1), "tape");
    EXPECT_EQ(scsi::device_type_name(0x1F), "0x1f");

    const uint8_t cap[8] = {0x02, 0x7F, 0xFF, 0xFF, 0, 0, 0x10, 0};
    const auto c = scsi::decode_read_capacity(cap, sizeof cap);
    ASSERT_TRUE(c);
    EXPECT_EQ(c->blocks, 0x2800000u);
    EXPECT_EQ(c->block_size, 4096u);
    EXPECT_FALSE(scsi::decode_read_capacity(cap, 7));

    // Four entries, one per addressing method; the head claims five.
    const uint8_t luns[40] = {0, 0, 0, 40, 0, 0, 0, 0, 0x00, 0x07, 0, 0, 0, 0, 0, 0, 0x44, 0x01, 0, 0, 0, 0, 0, 0,
                              0x80, 0x23, 0, 0, 0, 0, 0, 0, 0xC2, 0x01, 0, 0, 0, 0, 0, 0};
    const struct {
        size_t size;
        std::vector<uint32_t> numbers;
    } cuts[] = {{40, {7, 1025, 3, UINT32_MAX}}, {39, {7, 1025, 3}}, {16, {7}}, {8, {}}};
    for (const auto& cut : cuts) {
        const auto list = scsi::decode_report_luns(luns, cut.size);
        ASSERT_TRUE(list) << cut.size;
        EXPECT_EQ(list->length, 40u);
        std::vector<uint32_t> numbers;
        for (const auto& l : list->luns)
            numbers.push_back(l.number);
        EXPECT_EQ(numbers, cut.numbers) << cut.size;
    }
    EXPECT_FALSE(scsi::decode_report_luns(luns, 7));
    uint8_t shorter[40];
    std::copy(luns, luns + 40, shorter);
    shorter[3] = 12;  // a length that ends inside the second entry
    EXPECT_EQ(scsi::decode_report_luns(shorter, sizeof shorter)->luns.size(), 1u);
}

TEST(VxcliScsiDecode, SenseFormats) {
    uint8_t sense[18] = {0xF0, 0, 0x05, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x24, 0x01, 0, 0, 0, 0};
    auto s = scsi::decode_sense(sense, sizeof sense);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->key, 5);
    EXPECT_EQ(s->asc, 0x24);
    EXPECT_EQ(s->ascq, 1);
    EXPECT_EQ(scsi::sense_key_name(s->key), "ILLEGAL REQUEST");
    sense[0] = 0x71;  // deferred, same layout
    EXPECT_TRUE(scsi::decode_sense(sense, sizeof sense));
    EXPECT_FALSE(scsi::decode_sense(sense, 13));
    sense[0] = 0x72;  // descriptor format is not read as fixed
    EXPECT_FALSE(scsi::decode_sense(sense, sizeof sense));
    EXPECT_FALSE(scsi::decode_sense(nullptr, 18));
}

TEST(VxcliScsiDecode, NameServerReplies) {
    const std::vector<uint8_t> req = scsi::ct_request(scsi::CT_GPN_ID, 0x010400);
    ASSERT_EQ(req.size(), scsi::CT_HEADER + 4);
    EXPECT_EQ(std::vector<uint8_t>(req.begin() + 4, req.begin() + 10), (std::vector<uint8_t>{0xFC, 2, 0, 0, 1, 0x12}));
    EXPECT_EQ(std::vector<uint8_t>(req.end() - 4, req.end()), (std::vector<uint8_t>{0, 1, 4, 0}));

    // A GID_FT accept of two ports, the second marked last, and room after it.
    std::vector<uint8_t> reply(scsi::CT_HEADER + 16, 0);
    reply[8] = 0x80;
    reply[9] = 0x02;
    const uint8_t ids[] = {0x00, 0x01, 0x02, 0x00, 0x80, 0x01, 0x04, 0x00, 0x00, 0x09, 0x09, 0x09};
    std::copy(std::begin(ids), std::end(ids), reply.begin() + scsi::CT_HEADER);
    auto ct = scsi::decode_ct(reply.data(), reply.size());
    ASSERT_TRUE(ct);
    EXPECT_EQ(scsi::decode_port_ids(*ct), (std::vector<uint32_t>{0x010200, 0x010400}));
    // Without the last mark, up to the end of the whole entries given.
    ct = scsi::decode_ct(reply.data(), scsi::CT_HEADER + 7);
    EXPECT_EQ(scsi::decode_port_ids(*ct), (std::vector<uint32_t>{0x010200}));
    EXPECT_FALSE(scsi::decode_name(*ct));

    // A reject: its reason and explanation, and no ids or name from it.
    reply[9] = 0x01;
    reply[13] = 0x09;
    reply[14] = 0x07;
    ct = scsi::decode_ct(reply.data(), reply.size());
    EXPECT_EQ(ct->code, scsi::CT_REJECT);
    EXPECT_EQ(ct->reason, 9);
    EXPECT_EQ(ct->explanation, 7);
    EXPECT_TRUE(scsi::decode_port_ids(*ct).empty());
    EXPECT_FALSE(scsi::decode_name(*ct));
    EXPECT_FALSE(scsi::decode_ct(reply.data(), scsi::CT_HEADER - 1));
}

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

// Boot images as `flash write` checks them: every broken chain is named and
// nothing outside the buffer is read (the vectors are exactly the file).
TEST(VxcliRomImages, ChainsAreCheckedInsideTheFile) {
    // One x86 image of `len` bytes at `at`: signature, PCIR at 0x40, length, last flag.
    const auto image = [](std::vector<uint8_t>& b, size_t at, size_t len, bool last) {
        b[at] = 0x55;
        b[at + 1] = 0xAA;
        b[at + 2] = uint8_t(len / 512);
        b[at + 24] = 0x40;
        std::memcpy(&b[at + 0x40], "PCIR", 4);
        b[at + 0x40 + 16] = uint8_t(len / 512);
        b[at + 0x40 + 21] = last ? 0x80 : 0;
    };
    std::vector<uint8_t> good(0x1000);
    image(good, 0, 0x800, false);
    image(good, 0x800, 0x800, true);
    std::vector<RomImage> images;
    EXPECT_EQ(rom_images(good.data(), good.size(), &images), "");
    ASSERT_EQ(images.size(), 2u);
    EXPECT_EQ(images[1].at, 0x800u);

    struct Row {
        const char* what;
        std::function<void(std::vector<uint8_t>&)> spoil;
        const char* message;
    };
    const Row rows[] = {
        {"no signature", [](auto& b) { b[0x801] = 0; }, "no 0x55 0xAA image signature at offset 0x800"},
        {"PCIR pointer past the end", [](auto& b) { b[0x800 + 25] = 0xFF; }, "no PCIR data structure"},
        {"zero length", [](auto& b) { b[0x40 + 16] = 0; }, "the image at offset 0x0 has a length of 0x0"},
        {"length past the end", [](auto& b) { b[0x800 + 0x40 + 16] = 8; },
         "the image at offset 0x800 has a length of 0x1000, outside"},
        {"no last image", [](auto& b) { b[0x800 + 0x40 + 21] = 0; }, "no 0x55 0xAA image signature at offset 0x1000"},
    };
    for (const Row& r : rows) {
        std::vector<uint8_t> b = good;
        r.spoil(b);
        EXPECT_TRUE(rom_images(b.data(), b.size(), nullptr).starts_with(r.message)) << r.what;
    }
    // Images that never end within 16 are refused, however short.
    std::vector<uint8_t> many(17 * 0x200);
    for (size_t i = 0; i < 17; ++i)
        image(many, i * 0x200, 0x200, false);
    EXPECT_EQ(rom_images(many.data(), many.size(), nullptr), "no last image among the first 16 images");

    // The read-back may differ in the settings block, SVID and checksum of an x86 image, nowhere else.
    std::memcpy(&good[0x100], "MEISP ", 6);
    for (size_t at : {size_t(0x108), size_t(32), size_t(0x7FF)}) {
        std::vector<uint8_t> back = good;
        back[at] ^= 0xFF;
        EXPECT_TRUE(differs_only_in_kept_bytes(good.data(), back.data(), good.size())) << at;
    }
    std::vector<uint8_t> back = good;
    back[0x900] ^= 0xFF;
    EXPECT_FALSE(differs_only_in_kept_bytes(good.data(), back.data(), good.size()));
}

}  // namespace
