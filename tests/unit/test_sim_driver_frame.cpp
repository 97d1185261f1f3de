// The emulation's frame: faults, journal, sleep shortening, which opens are
// the driver's, the devices map and the host look-up.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "classify.h"
#include "endpoints.h"
#include "faults.h"
#include "journal.h"
#include "sim.h"
#include "sleep.h"
#include "test_sim_driver_support.h"

using namespace vxsim::drv;

namespace {

// ---- faults ------------------------------------------------------------------

TEST(FaultAction, ParsesEveryActionAndRejectsTheRest) {
    struct Case {
        const char* text;
        bool ok;
        FaultKind kind;
        int error;
        uint32_t status;
    };
    const Case cases[] = {
        {"ebusy", true, FaultKind::Errno, EBUSY, 0},
        {"enosys", true, FaultKind::Errno, ENOSYS, 0},
        {"eio", true, FaultKind::Errno, EIO, 0},
        {"refuse", true, FaultKind::Errno, EINVAL, 0},
        {"short", true, FaultKind::Short, 0, 0},
        {"status:7", true, FaultKind::Status, 0, 7},
        {"status:0x1c", true, FaultKind::Status, 0, 0x1C},
        {"status:4294967295", true, FaultKind::Status, 0, 0xFFFFFFFF},
        {"status:", false, {}, 0, 0},
        {"status:4294967296", false, {}, 0, 0},
        {"status:7x", false, {}, 0, 0},
        {"status:-1", false, {}, 0, 0},
        {"EBUSY", false, {}, 0, 0},
        {"", false, {}, 0, 0},
        {"busy", false, {}, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        std::optional<FaultAction> a = parse_fault_action(c.text);
        ASSERT_EQ(a.has_value(), c.ok);
        if (!a)
            continue;
        EXPECT_EQ(a->kind, c.kind);
        EXPECT_EQ(a->error, c.error);
        EXPECT_EQ(a->status, c.status);
        EXPECT_EQ(a->text, c.text);
    }
}

TEST(FaultMatch, EmptyMatchesAllStarMatchesPrefixElseExactOrQualified) {
    struct Case {
        const char* pattern;
        const char* text;
        bool want;
    };
    const Case cases[] = {
        {"", "1:0:20000", true},  {"", "", true},
        {"1*", "1:0:20000", true}, {"1*", "1", true}, {"1*", "2:0:1", false},
        {"*", "anything", true},   {"3", "3", true},  {"3", "30", false},
        {"0xc0747900", "0xc0747900", true}, {"0xc0747900", "0xc0747906", false},
        {"0xc0747900", "0xc0747900/1", true}, {"0xc0747900/1", "0xc0747900/1", true},
        {"0xc0747900/1", "0xc0747900/10", false}, {"0xc074790", "0xc0747900/1", false},
    };
    for (const Case& c : cases)
        EXPECT_EQ(fault_matches(c.pattern, c.text), c.want) << c.pattern << " vs " << c.text;
}

class Faults : public vxsim_test::TempDir {
protected:
    std::string take(const char* ep, const char* match) {
        std::optional<FaultAction> a = fault_take_from(path("faults.json"), ep, match);
        return a ? a->text : "-";
    }
};

TEST_F(Faults, CountsAreConsumedAndSpentEntriesRemoved) {
    write_text(path("faults.json"), R"([
        {"endpoint": "optrom_ctl", "match": "1*", "action": "ebusy", "count": 2},
        {"endpoint": "optrom", "match": "", "action": "short", "count": -1},
        {"endpoint": "optrom_ctl", "match": "3", "action": "eio"},
        {"endpoint": "ioctl", "match": "", "action": "no-such-action", "count": 5}
    ])");
    EXPECT_EQ(take("optrom_ctl", "2"), "-");
    EXPECT_EQ(take("optrom_ctl", "1:0:20000"), "ebusy");
    EXPECT_EQ(take("optrom_ctl", "1"), "ebusy");
    EXPECT_EQ(take("optrom_ctl", "1"), "-");
    EXPECT_EQ(take("optrom_ctl", "3"), "eio");  // count absent: once
    EXPECT_EQ(take("optrom_ctl", "3"), "-");
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(take("optrom", "read"), "short");  // -1: for ever
    EXPECT_EQ(take("ioctl", "0xc0747900"), "-");  // unknown actions never fire

    nlohmann::json left = nlohmann::json::parse(read_text(path("faults.json")));
    ASSERT_EQ(left.size(), 2u);
    EXPECT_EQ(left[0]["endpoint"], "optrom");
    EXPECT_EQ(left[0]["count"], -1);
    EXPECT_EQ(left[1]["action"], "no-such-action");
    EXPECT_EQ(left[1]["count"], 5);
}

TEST_F(Faults, FirstMatchingEntryWinsAndOthersWait) {
    write_text(path("faults.json"), R"([
        {"endpoint": "optrom_ctl", "match": "3", "action": "eio", "count": 1},
        {"endpoint": "optrom_ctl", "match": "", "action": "ebusy", "count": 1}
    ])");
    EXPECT_EQ(take("optrom_ctl", "1"), "ebusy");
    EXPECT_EQ(take("optrom_ctl", "3"), "eio");
    EXPECT_EQ(read_text(path("faults.json")).find("endpoint"), std::string::npos);
}

TEST_F(Faults, MissingOrBrokenFilesMeanNoFault) {
    EXPECT_EQ(take("optrom_ctl", "1"), "-");
    for (const char* text : {"", "{", "{\"endpoint\":\"optrom_ctl\"}", "[1, \"x\", null]",
                             R"([{"endpoint":"optrom_ctl","action":"ebusy","count":"2"}])",
                             R"([{"endpoint":"optrom_ctl","action":"ebusy","count":0}])"}) {
        SCOPED_TRACE(text);
        write_text(path("faults.json"), text);
        EXPECT_EQ(take("optrom_ctl", "1"), "-");
    }
}

TEST_F(Faults, ConcurrentProcessesConsumeEachFaultOnce) {
    write_text(path("faults.json"), R"([{"endpoint": "ioctl", "action": "ebusy", "count": 40}])");
    constexpr int children = 4, tries = 20;
    int pipefd[2];
    ASSERT_EQ(::pipe(pipefd), 0);
    for (int c = 0; c < children; ++c) {
        pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            char got = 0;
            for (int i = 0; i < tries; ++i)
                got = static_cast<char>(got + (fault_take_from(path("faults.json"), "ioctl", "") ? 1 : 0));
            (void)!::write(pipefd[1], &got, 1);
            ::_exit(0);
        }
    }
    ::close(pipefd[1]);
    int total = 0;
    for (int c = 0; c < children; ++c) {
        char got = 0;
        ASSERT_EQ(::read(pipefd[0], &got, 1), 1);
        total += got;
        int status = 0;
        ::wait(&status);
    }
    ::close(pipefd[0]);
    EXPECT_EQ(total, 40);
}

// ---- journal -----------------------------------------------------------------

TEST(JournalLine, StartsWithSeqPidEpAndKeepsFieldOrder) {
    JournalFields f = JournalFields::object();
    f["host"] = 5;
    f["cmd"] = "1:0:20000";
    f["seq"] = 99;  // reserved names cannot be overridden by an endpoint
    f["errno"] = "EBUSY";
    std::string line = journal_line(7, 1234, "optrom_ctl", f);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    nlohmann::ordered_json j = nlohmann::ordered_json::parse(line);
    std::vector<std::string> keys;
    for (const auto& [k, v] : j.items())
        keys.push_back(k);
    EXPECT_EQ(keys, (std::vector<std::string>{"seq", "pid", "ep", "host", "cmd", "errno"}));
    EXPECT_EQ(j["seq"], 7);
    EXPECT_EQ(j["pid"], 1234);
    EXPECT_EQ(j["ep"], "optrom_ctl");
    EXPECT_EQ(j["cmd"], "1:0:20000");
}

TEST(JournalLine, BadBytesInCommandTextDoNotBreakTheLine) {
    JournalFields f = JournalFields::object();
    f["cmd"] = std::string("1\xff\xfe\n", 4);
    std::string line = journal_line(1, 1, "optrom_ctl", f);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    EXPECT_TRUE(nlohmann::json::accept(line));
}

class Journal : public vxsim_test::TempDir {};

TEST_F(Journal, ProcessesAppendWholeLinesWithDistinctAscendingSeq) {
    constexpr int children = 4, lines = 25;
    for (int c = 0; c < children; ++c) {
        pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (int i = 0; i < lines; ++i) {
                JournalFields f = JournalFields::object();
                f["child"] = c;
                f["i"] = i;
                f["pad"] = std::string(300, 'x');  // long enough to tear if writes were split
                if (journal_append(path("journal.jsonl"), path("journal.seq"), "test", f) == 0)
                    ::_exit(1);
            }
            ::_exit(0);
        }
    }
    for (int c = 0; c < children; ++c) {
        int status = 0;
        ::wait(&status);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    std::istringstream in(read_text(path("journal.jsonl")));
    std::string line;
    uint64_t last = 0;
    std::set<std::pair<int, int>> seen;
    while (std::getline(in, line)) {
        nlohmann::json j = nlohmann::json::parse(line);  // throws (fails) on a torn line
        uint64_t seq = j["seq"];
        EXPECT_EQ(seq, last + 1);
        last = seq;
        EXPECT_EQ(j["ep"], "test");
        seen.insert({j["child"].get<int>(), j["i"].get<int>()});
    }
    EXPECT_EQ(last, static_cast<uint64_t>(children * lines));
    EXPECT_EQ(seen.size(), static_cast<size_t>(children * lines));
}

// ---- sleeps ------------------------------------------------------------------

TEST(SleepScale, OnlyPositiveFiniteNumbersScale) {
    struct Case {
        const char* text;
        double want;
    };
    const Case cases[] = {{nullptr, 1}, {"", 1},    {"0.01", 0.01}, {"1e-3", 0.001}, {"2", 2},
                          {"0", 1},     {"-0.5", 1}, {"abc", 1},    {"0.01x", 1},    {"inf", 1},
                          {"nan", 1}};
    for (const Case& c : cases)
        EXPECT_DOUBLE_EQ(parse_sleep_scale(c.text), c.want) << (c.text ? c.text : "(null)");
}

TEST(SleepScale, DurationsScaleToTheNanosecond) {
    struct Case {
        timespec req;
        double scale;
        timespec want;
    };
    const Case cases[] = {
        {{20, 0}, 0.01, {0, 200000000}},
        {{1, 0}, 0.01, {0, 10000000}},
        {{1, 500000000}, 0.5, {0, 750000000}},
        {{3, 0}, 1.0, {3, 0}},
        {{2, 1}, 2.0, {4, 2}},
        {{0, 999999999}, 0.001, {0, 1000000}},
        {{-1, 0}, 0.01, {-1, 0}},                 // invalid: left for the real call to refuse
        {{0, 1000000000}, 0.01, {0, 1000000000}},
    };
    for (const Case& c : cases) {
        timespec got = scale_duration(c.req, c.scale);
        EXPECT_EQ(got.tv_sec, c.want.tv_sec) << c.req.tv_sec << "." << c.req.tv_nsec << " * " << c.scale;
        EXPECT_EQ(got.tv_nsec, c.want.tv_nsec) << c.req.tv_sec << "." << c.req.tv_nsec << " * " << c.scale;
    }
}

TEST(SleepScale, InterruptedSleepsReportTheUnsleptRequestedTime) {
    // 20 s at 0.01 is 200 ms; 100 ms left means half the request, 10 s.
    timespec rem = unscale_remaining({0, 100000000}, 0.01, {20, 0});
    EXPECT_EQ(rem.tv_sec, 10);
    EXPECT_EQ(rem.tv_nsec, 0);
    // Never more than was asked, whatever the clock said.
    rem = unscale_remaining({1, 0}, 0.01, {20, 0});
    EXPECT_EQ(rem.tv_sec, 20);
    EXPECT_EQ(rem.tv_nsec, 0);
}

// ---- which opens are the driver's --------------------------------------------

TEST(Classify, AttributePathsNeedAHostDirectoryUnderSysfs) {
    struct Case {
        const char* path;
        bool ok;
        AttrKind attr;
        uint32_t host;
    };
    const Case cases[] = {
        {"/sys/devices/pci0000:00/0000:00:03.0/0000:03:00.0/host5/optrom_ctl", true, AttrKind::OptromCtl, 5},
        {"/sys/devices/pci0000:00/0000:03:00.1/host12/optrom", true, AttrKind::Optrom, 12},
        {"/sys/devices/pci0000:00/0000:03:00.0/host5/vport-5:0-0/host7/nvram", true, AttrKind::Nvram, 7},
        {"/sim/root/sys/devices/pci0000:00/0000:03:00.0/host0/vpd", true, AttrKind::Vpd, 0},
        {"/sys/devices/pci0000:00/0000:03:00.0/vpd", false, {}, 0},  // the PCI function's own VPD
        {"/sys/devices/pci0000:00/0000:03:00.0/host5/optrom_ctl2", false, {}, 0},
        {"/sys/devices/pci0000:00/0000:03:00.0/host/optrom", false, {}, 0},
        {"/sys/devices/pci0000:00/0000:03:00.0/hostx/optrom", false, {}, 0},
        {"/sys/devices/pci0000:00/0000:03:00.0/host5x/optrom", false, {}, 0},
        {"/home/x/host5/optrom", false, {}, 0},  // not sysfs
        {"/system/host5/optrom", false, {}, 0},
        {"/sim/root/sysx/host5/optrom", false, {}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        std::optional<AttrPath> a = parse_attr_path(c.path, "/sim/root/sys");
        ASSERT_EQ(a.has_value(), c.ok);
        if (a) {
            EXPECT_EQ(a->attr, c.attr);
            EXPECT_EQ(a->host, c.host);
        }
    }
}

TEST(Classify, OlderGenerationNodesByPath) {
    EXPECT_EQ(legacy_node_driver("/proc/scsi/vxfcdra/HbaApiNode"), "vxfcdra");
    EXPECT_EQ(legacy_node_driver("/proc/scsi/vxfcdrc/HbaApiNode"), "vxfcdrc");
    EXPECT_FALSE(legacy_node_driver("/proc/scsi/vxfcdrv/HbaApiNode"));  // the newer driver has a /dev node
    EXPECT_FALSE(legacy_node_driver("/proc/scsi/vxfcdrb/HbaApiNode2"));
    EXPECT_FALSE(legacy_node_driver("/proc/scsi//HbaApiNode"));
    EXPECT_FALSE(legacy_node_driver("/proc/scsi/HbaApiNode"));
}

// ---- the caller's memory ----------------------------------------------------

TEST(UserMemory, CopiesGoodAddressesAndRefusesBadOnes) {
    const char src[8] = "VARNEX";
    char dst[8] = {};
    ASSERT_EQ(copy_from_user(dst, src, sizeof src), 0);
    EXPECT_STREQ(dst, "VARNEX");
    char out[4] = {};
    ASSERT_EQ(copy_to_user(out, "abc", 4), 0);
    EXPECT_STREQ(out, "abc");
    // A bad pointer from the caller fails the request; it never crashes the process.
    const void* bad = reinterpret_cast<const void*>(uintptr_t{16});
    EXPECT_EQ(copy_from_user(dst, bad, 4), -EFAULT);
    EXPECT_EQ(copy_to_user(const_cast<void*>(bad), src, 4), -EFAULT);
    EXPECT_EQ(copy_from_user(dst, src, 0), 0);
}

// ---- devices map and hosts ---------------------------------------------------

TEST(Devices, ParsesTheMapAndRejectsMalformedEntries) {
    std::map<std::pair<unsigned, unsigned>, DeviceEntry> m;
    std::string err;
    ASSERT_TRUE(parse_devices(R"({"60:0": {"kind": "ioctl"}, "61:0": {"kind": "control"},
        "120:5": {"kind": "bsg_host", "host": 5},
        "120:17": {"kind": "bsg_rport", "host": 5, "rport": "rport-5:0-2"}})",
                              m, err))
        << err;
    ASSERT_EQ(m.size(), 4u);
    EXPECT_EQ(m.at({60, 0}).kind, "ioctl");
    EXPECT_EQ(m.at({120, 5}).host, 5u);
    EXPECT_EQ(m.at({120, 17}).rport, "rport-5:0-2");
    for (const char* bad : {"[]", "{\"60\": {\"kind\": \"ioctl\"}}", "{\"60:0x\": {\"kind\": \"ioctl\"}}",
                            "{\"60:0\": {}}", "{\"60:0\": {\"kind\": 1}}", "not json"}) {
        err.clear();
        EXPECT_FALSE(parse_devices(bad, m, err)) << bad;
        EXPECT_FALSE(err.empty()) << bad;
    }
}

TEST(SimHosts, VirtualPortsBelongToTheirPhysicalFunction) {
    vxsim::Scenario s;
    vxsim::Adapter a;
    a.id = "a1";
    a.functions.resize(2);
    a.functions[0].port.host_no = 5;
    a.functions[0].vports.resize(1);
    a.functions[0].vports[0].host_no = 9;
    a.functions[1].port.host_no = 6;
    a.driver_name = "vxfcdrb";
    a.channel = vxsim::Channel::Legacy;
    s.adapters.push_back(a);
    Sim sim("/r", s, {});

    struct Case {
        uint32_t host;
        bool found;
        size_t fn;
        bool physical;
    };
    for (const Case& c : {Case{5, true, 0, true}, Case{9, true, 0, false}, Case{6, true, 1, true},
                          Case{7, false, 0, false}}) {
        std::optional<HostRef> h = sim.host(c.host);
        ASSERT_EQ(h.has_value(), c.found) << c.host;
        if (h) {
            EXPECT_EQ(h->fn, c.fn) << c.host;
            EXPECT_EQ(h->physical, c.physical) << c.host;
            EXPECT_EQ(h->adapter->id, "a1");
        }
    }
    EXPECT_TRUE(sim.legacy_driver("vxfcdrb"));
    EXPECT_FALSE(sim.legacy_driver("vxfcdrc"));
}

}  // namespace
