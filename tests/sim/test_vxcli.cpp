// vxcli in simulated hosts: its conventions (help, errors, exit codes, port
// selection, JSON), the report against the per-port commands, the bash
// completion, partial failures from injected driver faults, and each command.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "libtest.h"
#include "vsdmgt.h"

namespace {

namespace st = vxsim::test;
using nlohmann::json;

struct Run {
    int status = -1;
    std::string out, err;
    json doc;  // standard output parsed, when it was JSON
};

std::string read_fd(int fd) {
    std::string text;
    char buf[4096];
    for (off_t at = 0;;) {
        const ssize_t n = pread(fd, buf, sizeof buf, at);
        if (n <= 0)
            return text;
        text.append(buf, static_cast<size_t>(n));
        at += n;
    }
}

// Runs vxcli with standard output and standard error apart, `env` added
// ("NAME=value").
Run vxcli(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) {
    Run r;
    const std::string binary = st::vxcli_binary();
    const int out = memfd_create("vxcli-out", MFD_CLOEXEC), err = memfd_create("vxcli-err", MFD_CLOEXEC);
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out, 1);
        dup2(err, 2);
        for (const std::string& e : env)
            putenv(const_cast<char*>(e.c_str()));
        std::vector<char*> argv{const_cast<char*>(binary.c_str())};
        for (const std::string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int ws = 0;
    if (pid > 0 && waitpid(pid, &ws, 0) == pid && WIFEXITED(ws))
        r.status = WEXITSTATUS(ws);
    r.out = read_fd(out);
    r.err = read_fd(err);
    close(out);
    close(err);
    r.doc = json::parse(r.out, nullptr, false);
    return r;
}

std::string joined(const std::vector<std::string>& args) {
    std::string s;
    for (const std::string& a : args)
        s += " " + a;
    return s;
}

// `vxcli --json ARGS`, which must succeed; its document.
json doc_of(const std::vector<std::string>& args) {
    std::vector<std::string> argv{"--json"};
    argv.insert(argv.end(), args.begin(), args.end());
    Run r = vxcli(argv);
    EXPECT_EQ(r.status, 0) << joined(args) << "\n" << r.err;
    EXPECT_EQ(r.err, "") << joined(args);
    EXPECT_TRUE(r.out.starts_with("{\n  \"schema\": 1,\n")) << joined(args) << ": " << r.out;
    return r.doc;
}

// The failure seen both ways: one "vxcli:" line on standard error, and with
// The time a flash-update token has left may tick between two runs.
std::string steady(const std::string& text) {
    return std::regex_replace(text, std::regex("for [0-9]+ more seconds"), "for N more seconds");
}

// --json (after the command) the error object on standard output.
void expect_failure(const std::vector<std::string>& args, int exit, const std::string& message,
                    const std::vector<std::string>& env = {}) {
    const std::string what = joined(args);
    const Run plain = vxcli(args, env);
    EXPECT_EQ(plain.status, exit) << what;
    EXPECT_EQ(plain.out, "") << what;
    EXPECT_TRUE(plain.err.starts_with("vxcli: " + message)) << what << ": " << plain.err;
    EXPECT_EQ(std::count(plain.err.begin(), plain.err.end(), '\n'), 1) << what << ": " << plain.err;

    std::vector<std::string> with_json = args;
    with_json.push_back("--json");
    const Run j = vxcli(with_json, env);
    EXPECT_EQ(j.status, exit) << what;
    EXPECT_EQ(steady(j.err), steady(plain.err)) << what;
    ASSERT_TRUE(j.doc.is_object()) << what << ": " << j.out;
    const std::string line = plain.err.substr(7, plain.err.size() - 8);
    const json expected = json::parse(R"({"schema": 1, "error": {"exit": )" + std::to_string(exit) +
                                      R"(, "message": )" + json(line).dump() + R"(, "messages": [)" +
                                      json(line).dump() + "]}}");
    EXPECT_EQ(steady(j.doc.dump()), steady(expected.dump())) << what;
}

json without(json doc, std::initializer_list<const char*> keys) {
    for (const char* k : keys)
        doc.erase(k);
    return doc;
}

bool have_vxcli() { return access(st::vxcli_binary().c_str(), X_OK) == 0; }

}  // namespace

SIM_TEST(Vxcli, HelpVersionAndErrors, "default.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli is not built";
    const Run version = vxcli({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_TRUE(version.out.starts_with("vxcli ") && version.out.ends_with(" (libvxsdm " SDM_VERSION_TEXT ")\n"))
        << version.out;

    const Run help = vxcli({"help"});
    EXPECT_EQ(help.status, 0);
    for (const char* command : {"list", "show", "targets", "luns", "report", "version", "help"})
        EXPECT_TRUE(std::regex_search(help.out, std::regex(std::string("\n  ") + command + " +[A-Z]")))
            << command << " is not listed:\n" << help.out;
    const Run targets_help = vxcli({"help", "targets"});
    EXPECT_EQ(targets_help.status, 0);
    EXPECT_TRUE(targets_help.out.starts_with("Usage: vxcli targets [OPTIONS] PORT\n")) << targets_help.out;
    EXPECT_NE(targets_help.out.find("Columns: index,target,wwnn,wwpn,port_id,type,state,luns"), std::string::npos);
    EXPECT_EQ(vxcli({"targets", "--help"}).out, targets_help.out);

    expect_failure({"frob"}, 1, "unknown command 'frob'");
    expect_failure({"help", "frob"}, 1, "unknown command 'frob'");
    expect_failure({}, 1, "no command given");
    expect_failure({"show"}, 1, "show: PORT is required");
    expect_failure({"show", "1", "2"}, 1, "show: ");
    expect_failure({"list", "--frobnicate"}, 1, "list: ");
    expect_failure({"show", "port1"}, 1, "bad port 'port1': give an instance");
    expect_failure({"list", "--columns", "wwpn,colour"}, 1, "list: no column 'colour'");
    expect_failure({"show", "4"}, 2, "no port 4 (4 found, numbered from 0)");
    expect_failure({"show", "host99"}, 2, "no FC host host99");
    expect_failure({"targets", "0x2100001d5a0251ff"}, 2, "no port with WWPN 21:00:00:1d:5a:02:51:ff");
    // Not root: the library does not load, whatever the command.
    for (const std::vector<std::string>& args : {std::vector<std::string>{"list"}, {"show", "0"}, {"report"}})
        expect_failure(args, 3, "cannot load the adapter library: Unknown error (0x20000075); vxcli must run as root",
                       {"VXSIM_EUID=1000"});
}

SIM_TEST(Vxcli, PortsByInstanceWwpnAndHost, "default.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli is not built";
    const json by_instance = doc_of({"show", "1"});
    EXPECT_EQ(by_instance["port"]["wwpn"], "21:00:00:1d:5a:02:51:42");
    for (const char* form : {"21:00:00:1d:5a:02:51:42", "21:00:00:1D:5A:02:51:42", "0x2100001d5a025142", "host2"})
        EXPECT_EQ(doc_of({"show", form}), by_instance) << form;
    // Host numbers are not in instance order: the NPIV port is host 8.
    EXPECT_EQ(doc_of({"targets", "host8"})["instance"], 2);

    // Several ports, in the order given, each once.
    const json list = doc_of({"list", "host8", "0", "1", "0x2100001d5a014017"});
    ASSERT_EQ(list["ports"].size(), 3u) << list;
    EXPECT_EQ(list["ports"][0]["instance"], 2);
    EXPECT_EQ(list["ports"][1]["instance"], 0);
    EXPECT_EQ(list["ports"][2]["instance"], 1);

    const Run columns = vxcli({"list", "--columns", "host,wwpn,speed", "host8"});
    EXPECT_EQ(columns.out, "HOST  WWPN                     SPEED\n"
                           "   8  21:01:00:1d:5a:02:51:42  4 Gbit\n");
}

// One report, read against list, show, targets and luns of each port: the
// same keys, the same values, the same tables.
SIM_TEST(Vxcli, ReportMatchesThePerPortCommands, "default.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli is not built";
    const json report = doc_of({"report"});
    const json list = doc_of({"list"});
    ASSERT_EQ(report["ports"].size(), 4u);
    ASSERT_EQ(list["ports"].size(), 4u);
    const Run report_text = vxcli({"report"});
    for (int i = 0; i < 4; ++i) {
        const std::string port = std::to_string(i);
        const json& r = report["ports"][i];
        EXPECT_EQ(without(r, {"remote_ports", "targets"}), without(doc_of({"show", port}), {"schema"})) << port;
        const json targets = doc_of({"targets", port});
        EXPECT_EQ(r["targets"], targets["targets"]) << port;
        const json luns = doc_of({"luns", port});
        ASSERT_EQ(luns["targets"].size(), r["targets"].size()) << port;
        for (size_t t = 0; t < r["targets"].size(); ++t) {
            EXPECT_EQ(luns["targets"][t]["wwpn"], r["targets"][t]["wwpn"]);
            EXPECT_EQ(json(luns["targets"][t]["luns"].size()), r["targets"][t]["lun_count"]);
        }
        // A list row takes its keys from the node and port sections.
        for (const auto& [key, value] : list["ports"][i].items()) {
            const json& from = r["node"].contains(key) ? r["node"][key] : r["port"].contains(key) ? r["port"][key] : r[key];
            EXPECT_EQ(value, from) << port << " " << key;
        }
        // The report's target table is the targets command's, indented.
        std::istringstream lines(vxcli({"targets", port}).out);
        for (std::string line; std::getline(lines, line);)
            EXPECT_NE(report_text.out.find("    " + line + "\n"), std::string::npos) << line;
    }
    EXPECT_EQ(doc_of({"report", "host2"})["ports"], json::array({report["ports"][1]}));

    // The Swift's first port: remote ports of every role and state, LUNs
    // of the two online targets (flat-addressed ones decoded).
    const json& swift = report["ports"][1];
    EXPECT_EQ(swift["remote_ports"].size(), 4u);
    EXPECT_EQ(swift["remote_ports"][2]["target"], nullptr) << "the initiator has no target id";
    EXPECT_EQ(swift["remote_ports"][3]["state"], "offline");
    EXPECT_EQ(doc_of({"luns", "1"})["targets"], json::parse(R"([
        {"index": 0, "target": 0, "wwpn": "50:06:01:60:08:60:1a:00", "luns": [0, 1, 2, 256, 1025]},
        {"index": 1, "target": 1, "wwpn": "50:06:01:68:08:60:1a:01", "luns": [0, 5]}])"));
}

// Typed values: numbers as numbers, addresses as strings, speeds in Gbit/s
// and as the driver's code.
SIM_TEST(Vxcli, JsonValuesAreTyped, "default.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli is not built";
    const std::regex wwn("([0-9a-f]{2}:){7}[0-9a-f]{2}"), port_id("0x[0-9a-f]{6}");
    const json list = doc_of({"list"});
    for (const json& p : list["ports"]) {
        EXPECT_TRUE(p["instance"].is_number_unsigned() && p["handle"].is_number() && p["host"].is_number()) << p;
        EXPECT_TRUE(std::regex_match(p["wwnn"].get<std::string>(), wwn)) << p;
        EXPECT_TRUE(std::regex_match(p["wwpn"].get<std::string>(), wwn)) << p;
        EXPECT_TRUE(std::regex_match(p["port_id"].get<std::string>(), port_id)) << p;
        EXPECT_EQ(p["speed_gbps"], 4);
        EXPECT_EQ(p["speed_code"], 4);
    }
    EXPECT_EQ(list["ports"][0]["host"], 7);

    const json show = doc_of({"show", "3"});
    EXPECT_EQ(show["node"]["serial"], "VXS10510042");
    EXPECT_EQ(show["node"]["port_count"], 1);
    EXPECT_EQ(show["node"]["type"], "physical");
    EXPECT_EQ(show["port"]["discovered_target_count"], 1);
    EXPECT_TRUE(show["port"]["link_state_words"].is_array() && show["port"]["link_state_words"][0].is_number());
    EXPECT_EQ(show["chip"]["vendor_id"], 0x1d5a);
    EXPECT_EQ(show["chip"]["device_id"], 0x1051);
    EXPECT_EQ(show["chip"]["pci_location"], "0000:05:00.1");
    EXPECT_EQ(show["chip"]["pcie_link_gts"], 2.5);
    EXPECT_EQ(show["chip"]["pcie_link_width"], 4);
    EXPECT_TRUE(show["chip"]["memory_address"].is_string() && show["chip"]["memory_length"].is_number());
    EXPECT_EQ(show["chip"]["port_number"], 2);
    EXPECT_EQ(show["driver"]["max_transfer"], 0xffffffffu);
    EXPECT_EQ(show["firmware"]["version"], "8.05.63");
    EXPECT_FALSE(show.contains("cna")) << "not a converged board";

    const json targets = doc_of({"targets", "1"});
    ASSERT_EQ(targets["targets"].size(), 2u) << targets;
    EXPECT_EQ(targets["targets"][0]["state"], "online");
    EXPECT_EQ(targets["targets"][0]["lun_count"], 5);
    EXPECT_EQ(targets["targets"][1]["lun_count"], 2);
    const json version = doc_of({"version"});
    EXPECT_EQ(version["library"], SDM_VERSION_TEXT);
    EXPECT_EQ(version["library_number"], SDM_VERSION_NUMBER);
}

SIM_TEST(Vxcli, BashCompletion, "default.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli is not built";
    const std::string script = VXCLI_COMPLETION;
    const struct {
        const char* line;
        const char* reply;
    } cases[] = {
        {"vxcli sh", "show"},
        {"vxcli --json t", "targets"},
        {"vxcli help re", "report readcap reportluns"},
        {"vxcli show ho", "host2 host3 host7 host8"},
        // bash completes only after the last ':' of a WWPN.
        {"vxcli targets 21:00:00:1d:5a:02:5", "51:42 51:43"},
        {"vxcli list --columns instance,w", "instance,wwnn instance,wwpn"},
        {"vxcli luns 1 --c", "--columns"},
        {"vxcli frob ", ""},
    };
    for (const auto& c : cases) {
        const st::Output out = st::run(
            {"bash", "-c",
             "source \"$1\"; COMP_LINE=$3; COMP_POINT=${#COMP_LINE}; COMP_WORDS=(\"$2\"); _vxcli; echo \"${COMPREPLY[*]}\"",
             "bash", script, st::vxcli_binary(), c.line});
        EXPECT_EQ(out.text, std::string(c.reply) + "\n") << c.line;
    }
}

// Queries that fail part-way: what could be read is shown, the failure is a
// "vxcli:" line and an error object, and the exit status is 4.
SIM_TEST(Vxcli, PartialFailuresExitWithFour, "ioctl.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli is not built";
    const struct {
        const char* match;   // ioctl request / sub-code
        const char* action;  // status:2 is "busy"; 9 would read as the end of a walk
        std::vector<std::string> args;
        const char* message;  // the first failure
        size_t failures;
    } cases[] = {
        {"0xc0747906/106", "status:1", {"targets", "1"}, "port 1: port database query failed: Unknown error (0x20000075)", 1},
        {"0xc0747906/10", "status:2", {"targets", "1"}, "port 1: LUN list query of target 0 failed: Device is busy", 3},
        {"0xc0747906/10", "status:2", {"luns", "1"}, "port 1: LUN list query of target 0 failed: Device is busy", 3},
        {"0xc0747900/3", "status:2", {"targets", "1"}, "port 1: discovered ports query failed: Device is busy", 1},
        {"0xc0747900/6", "status:2", {"show", "1"}, "port 1: driver query failed: Device is busy", 1},
        {"0xc0747900/6", "status:2", {"report"}, "port 0: driver query failed: Device is busy", 4},
    };
    for (const auto& c : cases) {
        const std::string what = std::string(c.match) + joined(c.args);
        st::arm_fault("ioctl", c.match, c.action, -1);
        const Run plain = vxcli(c.args);
        std::vector<std::string> args = c.args;
        args.insert(args.begin(), "--json");
        const Run j = vxcli(args);
        EXPECT_EQ(st::run_vxsim({"fault", "clear"}).status, 0);

        EXPECT_EQ(plain.status, 4) << what;
        EXPECT_EQ(j.status, 4) << what;
        EXPECT_TRUE(plain.err.starts_with("vxcli: " + std::string(c.message))) << what << ":\n" << plain.err;
        EXPECT_EQ(std::count(plain.err.begin(), plain.err.end(), '\n'), static_cast<long>(c.failures)) << what;
        EXPECT_NE(plain.out, "") << what << ": what could be read is shown";
        ASSERT_TRUE(j.doc.is_object()) << what;
        EXPECT_EQ(j.doc["error"]["exit"], 4) << what;
        EXPECT_TRUE(j.doc["error"]["message"].get<std::string>().starts_with(c.message)) << what;
        EXPECT_EQ(j.doc["error"]["messages"].size(), c.failures) << what;

        // Where the failure shows in the document.
        const json& d = j.doc;
        if (c.args[0] == "targets" && std::string(c.match).ends_with("/106")) {
            for (const json& t : d["targets"])
                EXPECT_EQ(t["state"], nullptr) << "not a guess: " << t;
            EXPECT_NE(plain.out.find("target     -"), std::string::npos) << plain.out;
        } else if (std::string(c.match).ends_with("/10")) {
            const json& first = d["targets"][0];
            EXPECT_EQ(first[c.args[0] == "luns" ? "luns" : "lun_count"], nullptr) << first;
            EXPECT_EQ(first["error"]["status"], SDM_STATUS_DEVICE_BUSY) << first;
            EXPECT_FALSE(d["targets"][2].contains("error")) << "the initiator has no LUNs to ask for";
        } else if (std::string(c.match).ends_with("/3")) {
            EXPECT_EQ(d["targets"], json::array());
        } else if (c.args[0] == "show") {
            EXPECT_EQ(d["driver"]["error"]["status"], SDM_STATUS_DEVICE_BUSY) << d;
            EXPECT_EQ(d["firmware"]["version"], "8.05.63") << "the other sections are shown";
        } else {
            ASSERT_EQ(d["ports"].size(), 4u);
            EXPECT_TRUE(d["ports"][3]["driver"].contains("error"));
            EXPECT_EQ(d["ports"][3]["targets"].size(), 1u);
        }
    }
}

namespace {

using Bytes = std::vector<uint8_t>;

void write_file(const std::string& path, const Bytes& bytes) {
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr) << path;
    EXPECT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
    std::fclose(f);
}

// The boot code of a flash with new settings of its own in its x86 image
// (the first image), checksum made good: what a vendor tool would hand over.
Bytes boot_with_other_settings(const Bytes& flash, size_t len) {
    Bytes b(flash.begin(), flash.begin() + long(len));
    const size_t image_len = size_t(b[2]) * 512;
    const auto marker = std::search(b.begin(), b.begin() + long(image_len), "MEISP ", "MEISP " + 6);
    EXPECT_NE(marker, b.begin() + long(image_len));
    std::fill_n(marker + 6, 64, uint8_t(0x5A));
    uint8_t sum = 0;
    for (size_t i = 0; i < image_len - 1; ++i)
        if (i != image_len - 2)
            sum = uint8_t(sum + b[i]);
    b[image_len - 1] = uint8_t(-sum);
    return b;
}

}  // namespace

SIM_TEST(Vxcli, FlashLayoutReadAndWriteRoundTrip, "families.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli not built";
    const json finch = doc_of({"flash", "layout", "0"});
    EXPECT_EQ(finch["flash_size"], 0x20000);
    EXPECT_EQ(finch["regions"], json::parse(R"([{"region": 255, "size": 131072}, {"region": 2, "size": 131072}])"));
    EXPECT_TRUE(doc_of({"flash", "layout", "9"})["flash_size"].is_null()) << "a layout table has no flash size";

    // Kite (instance 9): the boot-code region into a file, byte for byte.
    const Bytes before = st::flash_image("kite0");
    const json read = doc_of({"flash", "read", "9", "--region", "0x07", "-o", "/tmp/boot.bin"});
    EXPECT_EQ(read["size"], 0x40000);
    EXPECT_EQ(st::read_bytes("/tmp/boot.bin"), Bytes(before.begin(), before.begin() + 0x40000));
    const json range = doc_of({"flash", "read", "9", "--offset", "0x100", "--size", "16", "-o", "/tmp/range.bin"});
    EXPECT_EQ(st::read_bytes("/tmp/range.bin"), Bytes(before.begin() + 0x100, before.begin() + 0x110));

    // A new image with settings of its own: written, the adapter's settings
    // kept, and the read-back accepts exactly those differences.
    write_file("/tmp/new.bin", boot_with_other_settings(before, 0x40000));
    const json wrote = doc_of({"flash", "write", "9", "--region", "0x07", "--yes", "/tmp/new.bin"});
    EXPECT_EQ(wrote["verified"], true);
    EXPECT_EQ(wrote["adapter_settings_kept"], true);
    EXPECT_EQ(st::flash_image("kite0"), before) << "the settings were the adapter's: nothing else changed";

    // Without a terminal and without --yes nothing is written.
    const Run asked = vxcli({"flash", "write", "9", "--region", "0x07", "/tmp/new.bin"});
    EXPECT_EQ(asked.status, 1) << asked.err;
    EXPECT_NE(asked.err.find("--yes"), std::string::npos) << asked.err;
}

SIM_TEST(Vxcli, FlashWriteRefusalsWriteNothing, "families.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli not built";
    std::vector<Bytes> before;
    for (const vxsim::Adapter& a : st::scenario().adapters)
        before.push_back(st::flash_image(a.id));
    write_file("/tmp/zeros.bin", Bytes(0x40000, 0));
    write_file("/tmp/big.bin", Bytes(0x8000, 0x11));
    const Bytes wren = st::flash_image("wren0");
    write_file("/tmp/wren.bin", Bytes(wren.begin(), wren.begin() + 0x80000));
    const Bytes lark = st::flash_image("lark0");
    write_file("/tmp/lark-ro.bin", Bytes(0x100, 0x22));

    expect_failure({"flash", "write", "9", "--region", "0x07", "--yes", "/tmp/zeros.bin"}, 1,
                   "image refused: no 0x55 0xAA image signature at offset 0x0");
    expect_failure({"flash", "write", "9", "--region", "0x2A", "--yes", "/tmp/big.bin"}, 1,
                   "image refused: 32768 bytes do not fit the 16384 bytes of the region");
    expect_failure({"flash", "write", "9", "--region", "0x99", "--yes", "/tmp/big.bin"}, 1, "port 9 has no region 0x99");
    // What only the library can tell: a read-only region, a board without whole-image updates.
    for (const auto& args : {std::vector<std::string>{"flash", "write", "11", "--region", "0x29", "--yes", "/tmp/lark-ro.bin"},
                             std::vector<std::string>{"flash", "write", "13", "--yes", "/tmp/wren.bin"}}) {
        const Run r = vxcli(args);
        EXPECT_EQ(r.status, 4) << joined(args);
        EXPECT_NE(r.err.find("flash write failed: the adapter refuses this update"), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find("Verifying"), std::string::npos) << "nothing to verify: " << r.err;
    }
    size_t i = 0;
    for (const vxsim::Adapter& a : st::scenario().adapters)
        EXPECT_EQ(st::flash_image(a.id), before[i++]) << a.id;
}

SIM_TEST(Vxcli, FlashWriteRefusesVirtualPorts, "default.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli not built";
    write_file("/tmp/boot.bin", Bytes(0x100, 0x33));
    expect_failure({"flash", "write", "2", "--region", "0x07", "--yes", "/tmp/boot.bin"}, 1,
                   "port 2 is a virtual port: write the flash through its physical port");
    expect_failure({"flash", "read", "0", "--region", "0x07", "--offset", "0", "-o", "/tmp/x"}, 1,
                   "flash read: give --region R");
    // The document and the flash bytes cannot share standard output.
    const Run mixed = vxcli({"--json", "flash", "read", "0", "--region", "0x07", "-o", "-"});
    EXPECT_EQ(mixed.status, 1);
    EXPECT_EQ(mixed.doc["error"]["message"], "flash read: --json prints its document on standard output; give -o FILE");
    expect_failure({"flash"}, 1, "flash: name what to do: layout, read, write");
}

// NVRAM settings: the list, one variable, and a change written once,
// confirmed and read back; refusals change nothing.
SIM_TEST(Vxcli, NvramListGetAndSet, "default.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli is not built";
    const json list = doc_of({"nvram", "0"});
    ASSERT_FALSE(list["variables"].empty()) << list;
    json throttle;
    for (const json& v : list["variables"]) {
        EXPECT_TRUE(v["visible"].get<bool>()) << v;
        if (v["number"] == 21)
            throttle = v;
    }
    ASSERT_TRUE(throttle.is_object()) << "execution throttle is listed";
    EXPECT_EQ(throttle["description"], "Execution Throttle");
    EXPECT_EQ(doc_of({"nvram", "0", "get", "21"})["variable"], throttle);
    EXPECT_EQ(doc_of({"nvram", "0", "get", "0x15"})["variable"], throttle);
    const uint32_t old_value = throttle["value"].get<uint32_t>();
    const uint32_t new_value = old_value + 5;
    const json other_port = doc_of({"nvram", "1", "get", "21"})["variable"];
    const std::string new_text = std::to_string(new_value);

    // Refused without --yes (no terminal): nothing written.
    expect_failure({"nvram", "0", "set", "21", new_text}, 1, "nvram: give --yes to confirm");
    EXPECT_EQ(doc_of({"nvram", "0", "get", "21"})["variable"]["value"], old_value);

    const json set = doc_of({"nvram", "0", "set", "21", new_text, "--yes"});
    EXPECT_EQ(set["changed"], true);
    EXPECT_EQ(set["previous"], old_value);
    EXPECT_EQ(set["variable"]["value"], new_value);
    EXPECT_EQ(doc_of({"nvram", "0", "get", "21"})["variable"]["value"], new_value);
    // Setting the value it has writes nothing, so it needs no confirmation.
    const json same = doc_of({"nvram", "0", "set", "21", new_text});
    EXPECT_EQ(same["changed"], false);
    EXPECT_EQ(vxcli({"nvram", "0", "set", "21", new_text}).out,
              "variable 21 (Execution Throttle) already is " + new_text + ": nothing written\n");
    EXPECT_EQ(doc_of({"nvram", "1", "get", "21"})["variable"], other_port) << "another port's settings are its own";

    const struct {
        std::vector<std::string> args;
        const char* message;
    } refused[] = {
        {{"nvram", "0", "set", "1", "3", "--yes"}, "variable 1 (Adapter Version) is read-only on this adapter"},
        {{"nvram", "0", "set", "21", "70000", "--yes"}, "variable 21 (Execution Throttle) cannot hold 70000 (it would read 4464)"},
        {{"nvram", "0", "set", "21", "-1", "--yes"}, "nvram: bad value '-1'"},
        {{"nvram", "0", "set", "21", "12abc", "--yes"}, "nvram: bad value '12abc'"},
        {{"nvram", "0", "get", "133"}, "nvram: no variable '133': give a number from 0 to 132"},
        {{"nvram", "0", "get", "0xFFFFFFFF"}, "nvram: no variable '0xFFFFFFFF'"},
        {{"nvram", "0", "get", "21", "5"}, "nvram: get takes a variable number only"},
        {{"nvram", "0", "set", "21"}, "nvram: set takes a variable number and a value"},
        {{"nvram", "0", "get"}, "nvram: get takes a variable number"},
        {{"nvram", "0", "frob", "21"}, "nvram: "},
    };
    for (const auto& r : refused)
        expect_failure(r.args, 1, r.message);
    json expected = list["variables"];
    for (json& v : expected)
        if (v["number"] == 21)
            v["value"] = new_value;
    EXPECT_EQ(doc_of({"nvram", "0"})["variables"], expected) << "the refusals changed nothing";

    // A write the driver fails: exit 4, the setting as it was.
    st::arm_fault("nvram", "write", "eio", -1);
    const Run failed = vxcli({"nvram", "0", "set", "21", "9", "--yes"});
    EXPECT_EQ(st::run_vxsim({"fault", "clear"}).status, 0);
    EXPECT_EQ(failed.status, 4);
    EXPECT_TRUE(failed.err.starts_with("vxcli: port 0: NVRAM update failed: ")) << failed.err;
    EXPECT_EQ(doc_of({"nvram", "0", "get", "21"})["variable"]["value"], new_value);
}

namespace {

// Whether a keyword item `key` holding `value` (as shown) is in the raw VPD.
bool vpd_holds(const std::vector<uint8_t>& vpd, const std::string& key, const std::string& value) {
    for (size_t at = 0; at + 3 + value.size() <= vpd.size(); ++at)
        if (std::memcmp(vpd.data() + at, key.data(), 2) == 0 &&
            std::memcmp(vpd.data() + at + 3, value.data(), value.size()) == 0)
            return true;
    return false;
}

}  // namespace

// Every board's VPD, decoded and as item lines, against the bytes the library
// reads: valid, bad checksum (Heron), cut short (Egret), the one-byte
// identifier length of the HP board.
SIM_TEST(Vxcli, VpdOfEveryFamily, "families.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli is not built";
    const uint32_t ports = SDGetNumberOfAdapters();
    ASSERT_EQ(ports, 23u);
    for (uint32_t i = 0; i < ports; ++i) {
        const std::string port = std::to_string(i);
        const json d = doc_of({"vpd", port});
        int h = 0;
        ASSERT_EQ(SDOpenDevice(i, &h), 0u);
        std::vector<uint8_t> vpd(1024);
        uint32_t size = 1024;
        ASSERT_EQ(SDGetVpd(h, 0, vpd.data(), &size), 0u);
        vpd.resize(size);
        EXPECT_EQ(d["size"], size);
        const std::string identifier = d["identifier"].get<std::string>();
        EXPECT_TRUE(identifier.starts_with("Varnex VX")) << port << ": " << identifier;
        const bool heron = identifier.starts_with("Varnex VXH"), egret = identifier.starts_with("Varnex VXE");
        EXPECT_EQ(d["checksum_valid"], !heron && !egret) << port;
        EXPECT_EQ(d["complete"], !egret) << port;

        const Run raw = vxcli({"vpd", port, "--raw"});
        EXPECT_EQ(raw.status, 0);
        EXPECT_TRUE(raw.out.starts_with(" 0x82  \"" + identifier + "\"\n 0x90\n")) << port << ":\n" << raw.out;
        EXPECT_EQ(raw.out.ends_with(" 0x78\n"), !egret) << port << ":\n" << raw.out;
        EXPECT_EQ(doc_of({"vpd", port, "--raw"})["text"], raw.out);
        bool serial = false;
        for (const json& f : d["fields"]) {
            const std::string key = f["keyword"], value = f["value"];
            serial = serial || key == "SN";
            if (key == "RV" || key == "RW") {
                EXPECT_NE(raw.out.find(" \"" + key + "\"  " + value + "\n"), std::string::npos) << port << key;
                continue;
            }
            EXPECT_TRUE(vpd_holds(vpd, key, value)) << port << ": " << key << " " << value;
            EXPECT_NE(raw.out.find(" \"" + key + "\"  \"" + value + "\"\n"), std::string::npos) << port << key;
        }
        EXPECT_TRUE(serial) << port;
    }
}

// SCSI and name-server pass-through on the default host: a target named by
// id or by WWPN, the probe shown for the target that refuses REPORT LUNS, a
// check condition's sense in the error, the fabric's ports.
SIM_TEST(Vxcli, PassThroughCommands, "default.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli is not built";
    const json inquiry = doc_of({"inquiry", "1", "50:06:01:60:08:60:1a:00", "1"})["inquiry"];
    EXPECT_EQ(without(inquiry, {"target"}), without(doc_of({"inquiry", "host2", "0", "1"})["inquiry"], {"target"}));
    EXPECT_EQ(without(inquiry, {"target", "qualifier", "version", "device_type"}),
              json::parse(R"({"lun": 1, "type": "disk", "vendor": "VARNEX", "product": "SIMDISK", "revision": "0001"})"));
    const json cap = doc_of({"readcap", "1", "0", "2"})["capacity"];
    EXPECT_EQ(cap["blocks"], 41943040);
    EXPECT_EQ(cap["bytes"], 41943040ull * 512);

    const json luns = doc_of({"reportluns", "1", "0"})["report_luns"];
    EXPECT_EQ(luns["probed"], false);
    std::vector<json> numbers;
    for (const json& l : luns["luns"])
        numbers.push_back(l["lun"]);
    EXPECT_EQ(json(numbers), json::parse("[0, 1, 2, 256, 1025]"));
    EXPECT_EQ(luns["luns"][3]["address"], "4100000000000000");
    EXPECT_EQ(luns["luns"][3]["method"], "flat");
    // Host 3's target refuses REPORT LUNS: its LUNs come from READ CAPACITY.
    const Run probed = vxcli({"reportluns", "host3", "0"});
    EXPECT_EQ(probed.status, 0);
    EXPECT_EQ(probed.out, "The target refused REPORT LUNS: these LUNs answered READ CAPACITY (LUNs 0-255 were asked).\n"
                          "LUN  ADDRESS           METHOD\n"
                          "  0  0000000000000000  peripheral\n"
                          "  1  0001000000000000  peripheral\n");
    EXPECT_EQ(doc_of({"reportluns", "host3", "0"})["report_luns"]["probed"], true);
    EXPECT_EQ(vxcli({"reportluns", "host3", "0", "--raw"}).out,
              "00000000  00 00 00 10 00 00 00 00  00 00 00 00 00 00 00 00  |................|\n"
              "00000010  00 01 00 00 00 00 00 00                           |........|\n"
              "00000018\n");

    // READ CAPACITY of a tape: the check condition and its sense.
    const Run tape = vxcli({"--json", "readcap", "1", "1"});
    EXPECT_EQ(tape.status, 4);
    EXPECT_EQ(tape.doc["capacity"]["error"]["sense"], json::parse(R"({"key": 5, "asc": 32, "ascq": 0})"));
    EXPECT_EQ(tape.doc["capacity"]["error"]["status"], SDM_STATUS_SCSI_CHECK_CONDITION);
    expect_failure({"inquiry", "1", "frob"}, 1, "TARGET must be a SCSI target id (0-65535) or a WWPN: frob");

    // The name server of host 2's fabric: both its ports and their remote ports.
    const json ns = doc_of({"nameserver", "1"});
    EXPECT_EQ(ns["port_count"], 6);
    EXPECT_EQ(ns["ports"][2], json::parse(R"({"port_id": "0x010400", "wwpn": "50:06:01:60:08:60:1a:00",
                                              "wwnn": "50:06:01:60:88:60:1a:00"})"));
    EXPECT_EQ(doc_of({"nameserver", "host3", "--type", "8"})["port_count"], 2);
}

// ---- stats, metrics and events ----

namespace {

// The metrics file as the Prometheus client's own parser reads it: one
// line per sample, "name host value", after one "family type help" line per
// family.
const char* const PARSE_METRICS = R"(
import sys
from prometheus_client.parser import text_string_to_metric_families
for f in text_string_to_metric_families(open(sys.argv[1]).read()):
    print("family", f.name, f.type, bool(f.documentation))
    for s in f.samples:
        print("sample", s.name, s.labels["host"], s.labels["wwpn"], s.labels["model"], int(s.value))
)";

std::string metric_of(const std::string& counter_key) {
    return "vxsdm_port_" + counter_key.substr(0, counter_key.size() - 6) + "_total";
}

}  // namespace

// A link event moves the port's counters, --reset clears them, and the
// metrics file, read by the Prometheus parser, says what stats says.
SIM_TEST(Vxcli, StatsAndMetricsAgree, "default.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli is not built";
    const uint64_t failures = doc_of({"stats", "1"})["counters"]["link_failure_count"];
    ASSERT_EQ(st::run_vxsim({"event", "--type", "linkdown", "--host", "2"}).status, 0);
    json stats = doc_of({"stats", "host2"});
    EXPECT_EQ(stats["host"], 2);
    EXPECT_EQ(stats["counters"]["link_failure_count"], failures + 1);
    EXPECT_EQ(stats["counters"].size(), 11u);

    char dir[] = "/tmp/vxcli-metrics-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string file = std::string(dir) + "/vxsdm.prom";
    EXPECT_EQ(vxcli({"metrics", "-o", file}).status, 0);
    const st::Output parsed = st::run({"/usr/bin/python3", "-c", PARSE_METRICS, file});
    ASSERT_EQ(parsed.status, 0) << parsed.text;
    std::istringstream lines(parsed.text);
    std::map<std::string, std::map<std::string, uint64_t>> samples;  // metric -> host -> value
    size_t families = 0;
    for (std::string kind, name; lines >> kind >> name;) {
        if (kind == "family") {
            std::string type, documented;
            lines >> type >> documented;
            EXPECT_EQ(documented, "True") << name;
            EXPECT_EQ(type, name.starts_with("vxsdm_port_") && !name.ends_with("up") && !name.ends_with("gbps") &&
                                    !name.ends_with("ports")
                                ? "counter"
                                : "gauge")
                << name;
            ++families;
            continue;
        }
        std::string host, wwpn, model;
        uint64_t value = 0;
        lines >> host >> wwpn >> model >> value;
        samples[name][host] = value;
        EXPECT_FALSE(wwpn.empty() || model.empty()) << name;
    }
    EXPECT_EQ(families, 14u);
    EXPECT_EQ(samples["vxsdm_port_up"].size(), 4u);
    EXPECT_EQ(samples["vxsdm_port_speed_gbps"]["2"], 4u);
    EXPECT_EQ(samples["vxsdm_port_discovered_ports"]["2"], 3u);
    for (const auto& [key, value] : stats["counters"].items())
        EXPECT_EQ(samples[metric_of(key)]["2"], value.get<uint64_t>()) << key;

    // Cleared, and shown cleared; a failed write leaves the old file whole.
    const json cleared = doc_of({"stats", "--reset", "1"});
    EXPECT_EQ(cleared["reset"], true);
    for (const auto& [key, value] : cleared["counters"].items())
        EXPECT_EQ(value, 0) << key;
    const Run bad = vxcli({"metrics", "-o", std::string(dir) + "/missing/vxsdm.prom"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_TRUE(bad.err.starts_with("vxcli: cannot write the metrics: ")) << bad.err;
    EXPECT_EQ(st::run({"rm", "-r", dir}).status, 0);
}

// Events injected while `events --follow` runs come out one JSON object per
// line; the transport's events reach the process only once it listens, so
// the event is injected again until the first line arrives.
SIM_TEST(Vxcli, EventsFollowPrintsInjectedEvents, "default.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli is not built";
    int pipe_fds[2];
    ASSERT_EQ(pipe2(pipe_fds, O_CLOEXEC), 0);
    const std::string binary = st::vxcli_binary();
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(pipe_fds[1], 1);
        execl(binary.c_str(), binary.c_str(), "events", "--follow", "--json", "host2", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(pipe_fds[1]);
    std::string out;
    for (int i = 0; i < 300 && out.find('\n') == std::string::npos; ++i) {
        ASSERT_EQ(st::run_vxsim({"event", "--type", "linkdown", "--host", "2"}).status, 0);
        pollfd p{pipe_fds[0], POLLIN, 0};
        if (poll(&p, 1, 100) == 1) {
            char buf[4096];
            const ssize_t n = read(pipe_fds[0], buf, sizeof buf);
            if (n <= 0)
                break;
            out.append(buf, static_cast<size_t>(n));
        }
    }
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    close(pipe_fds[0]);
    ASSERT_NE(out.find('\n'), std::string::npos) << "no event arrived: " << out;
    const json line = json::parse(out.substr(0, out.find('\n')));
    EXPECT_EQ(line["schema"], 1);
    EXPECT_EQ(line["host"], 2);
    EXPECT_EQ(line["event"], "link down");
    EXPECT_EQ(line["code"], SDM_AEN_LINK_DOWN);
    EXPECT_TRUE(line["time"].get<std::string>().ends_with("Z")) << line;
}

SIM_TEST(Vxcli, OnlineFlashUpdateWithActivation, "crane.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli not built";
    Bytes fw(0x2000, 0x4D);
    std::memcpy(fw.data(), "VXFW", 4);
    write_file("/tmp/fw.bin", fw);
    const json done =
        doc_of({"flash", "write", "0", "--region", "0x01", "--online", "--activate", "--yes", "/tmp/fw.bin"});
    EXPECT_EQ(done["online"], true);
    EXPECT_EQ(done["verified"], true);
    EXPECT_EQ(done["activated"], true);
    const Bytes flash = st::flash_image("crane0");
    EXPECT_TRUE(std::equal(fw.begin(), fw.end(), flash.begin() + 0x80000));
    std::vector<std::string> resets;
    for (const json& e : st::journal())
        if (e.contains("reset_code"))
            resets.push_back(e["reset_code"].get<std::string>());
    EXPECT_EQ(resets, (std::vector<std::string>{"0x0101", "0x0101"})) << "the online start only, on both ports";

    // The token was given back: a second update runs too, without activation.
    const Run again = vxcli({"flash", "write", "1", "--region", "0x01", "--online", "--yes", "/tmp/fw.bin"});
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_NE(again.out.find("starts at the next reset"), std::string::npos) << again.out;

    expect_failure({"flash", "write", "0", "--online", "--yes", "/tmp/fw.bin"}, 1,
                   "flash write: --online writes one region at a time: give --region");
    expect_failure({"flash", "write", "0", "--region", "0x01", "--activate", "--yes", "/tmp/fw.bin"}, 1,
                   "flash write: --activate goes with --online");
}

SIM_TEST(Vxcli, OnlineFlashUpdateNamesTheTokensHolder, "crane.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli not built";
    write_file("/tmp/fw.bin", Bytes(0x1000, 0x21));
    const Bytes before = st::flash_image("crane0");
    const pid_t holder = st::start_token_holder(1);
    ASSERT_GT(holder, 0);
    expect_failure({"flash", "write", "0", "--region", "0x01", "--online", "--yes", "/tmp/fw.bin"}, 4,
                   "port 0: another flash update is running: process " + std::to_string(holder) + " holds it for ");
    const Run r = vxcli({"flash", "write", "0", "--region", "0x01", "--online", "--yes", "/tmp/fw.bin"});
    std::smatch left;
    ASSERT_TRUE(std::regex_search(r.err, left, std::regex("holds it for ([0-9]+) more seconds"))) << r.err;
    EXPECT_GT(std::stoi(left[1]), 800);
    EXPECT_LE(std::stoi(left[1]), 900);
    EXPECT_EQ(st::flash_image("crane0"), before) << "nothing written";
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    // A killed holder's token lives on until it expires.
    expect_failure({"flash", "write", "0", "--region", "0x01", "--online", "--yes", "/tmp/fw.bin"}, 4,
                   "port 0: another flash update is running: process " + std::to_string(holder));
}

SIM_TEST(Vxcli, DriverParameters, "crane.json") {
    if (!have_vxcli())
        GTEST_SKIP() << "vxcli not built";
    const json all = doc_of({"params"});
    std::map<std::string, json> values;
    for (const json& p : all["parameters"])
        values[p["name"].get<std::string>()] = p["value"];
    EXPECT_EQ(values.at("vxfcqdepth"), 32) << "the scenario's value";
    EXPECT_EQ(values.at("vxfcsmartsan"), 0);
    EXPECT_EQ(values.count("vxfcnpiv"), 0u) << "removed by the scenario";
    const Run table = vxcli({"params", "--columns", "name"});
    EXPECT_EQ(table.status, 0);
    EXPECT_NE(table.out.find("vxfclogintmo"), std::string::npos) << table.out;
    EXPECT_EQ(table.out.find("VALUE"), std::string::npos) << table.out;

    EXPECT_EQ(doc_of({"params", "get", "vxfcqdepth"})["value"], 32);
    const json set = doc_of({"params", "set", "vxfcsmartsan", "1", "--persist", "--yes"});
    EXPECT_EQ(set["previous"], 0);
    EXPECT_EQ(set["value"], 1);
    EXPECT_EQ(set["persisted"], true);
    EXPECT_EQ(st::read_text("/etc/modprobe.d/vxfcdrv.conf"), std::string("options vxfcdrv vxfcsmartsan=1\n", 32));
    const Run plain = vxcli({"params", "set", "vxfclogintmo", "40", "--yes"});
    EXPECT_EQ(plain.status, 0) << plain.err;
    EXPECT_EQ(doc_of({"params", "get", "vxfclogintmo"})["value"], 40);
    EXPECT_EQ(st::read_text("/etc/modprobe.d/vxfcdrv.conf"), std::string("options vxfcdrv vxfcsmartsan=1\n", 32))
        << "without --persist the options stay";

    expect_failure({"params", "get", "vxfcnpiv"}, 1, "parameter vxfcnpiv: the driver has no such parameter");
    expect_failure({"params", "get", "../vxfcdrv/version"}, 1, "parameter ../vxfcdrv/version: not a parameter name");
    expect_failure({"params", "set", "vxfcsmartsan", "yes", "--yes"}, 1,
                   "params set: the value must be a number from 0 to 4294967295, not 'yes'");
    expect_failure({"params", "set", "vxfcsmartsan", "0"}, 1, "");  // no terminal, no --yes
    expect_failure({"params", "get", "vxfcqdepth", "--persist"}, 1, "params: --persist goes with set");
    expect_failure({"params", "frob"}, 1, "params: say nothing (list), get NAME, or set NAME VALUE");
    EXPECT_EQ(doc_of({"params", "get", "vxfcsmartsan"})["value"], 1) << "refusals changed nothing";
}
