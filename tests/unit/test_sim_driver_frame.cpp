// The emulation's frame: faults, journal, sleep shortening, which opens are
// the driver's. The devices map, the host look-up and the caller's memory are
// exercised by the endpoints' end-to-end tests.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <set>
#include <tuple>
#include <sstream>
#include <string>
#include <vector>

#include "classify.h"
#include "faults.h"
#include "journal.h"
#include "sleep.h"
#include "test_sim_driver_support.h"

using namespace vxsim::drv;

namespace {

// Runs fn(i) in n forked children at once; their exit statuses in order.
std::vector<int> in_children(int n, const std::function<int(int)>& fn) {
    std::vector<pid_t> pids;
    for (int c = 0; c < n; ++c) {
        pid_t pid = ::fork();
        if (pid == 0)
            ::_exit(fn(c));
        pids.push_back(pid);
    }
    std::vector<int> out;
    for (pid_t pid : pids) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        out.push_back(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    }
    return out;
}

TEST(FaultAction, ParsesEveryActionAndRejectsTheRest) {
    struct Case {
        const char* text;
        bool ok;
        FaultKind kind;
        int error;
        uint32_t status;
    };
    const Case cases[] = {
        {"ebusy", true, FaultKind::Errno, EBUSY, 0},   {"refuse", true, FaultKind::Errno, EINVAL, 0},
        {"short", true, FaultKind::Short, 0, 0},       {"status:0x1c", true, FaultKind::Status, 0, 0x1C},
        {"status:4294967295", true, FaultKind::Status, 0, 0xFFFFFFFF},
        {"status:", false, {}, 0, 0},                  {"status:4294967296", false, {}, 0, 0},
        {"status:7x", false, {}, 0, 0},                {"EBUSY", false, {}, 0, 0},
        {"delay:2500", true, FaultKind::Delay, 0, 2500}, {"delay:", false, {}, 0, 0},
        {"foreign", true, FaultKind::Foreign, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        std::optional<FaultAction> a = parse_fault_action(c.text);
        ASSERT_EQ(a.has_value(), c.ok);
        if (a) {
            EXPECT_EQ(a->kind, c.kind);
            EXPECT_EQ(a->error, c.error);
            EXPECT_EQ(a->status, c.status);
            EXPECT_EQ(a->text, c.text);
        }
    }
}

TEST(FaultMatch, EmptyMatchesAllStarMatchesPrefixElseExactOrQualified) {
    struct Case {
        const char* pattern;
        const char* text;
        bool want;
    };
    const Case cases[] = {
        {"", "1:0:20000", true},  {"1*", "1:0:20000", true}, {"1*", "1", true}, {"1*", "2:0:1", false},
        {"3", "3", true},         {"3", "30", false},        {"0xc0747900", "0xc0747906", false},
        {"0xc0747900", "0xc0747900/1", true}, {"0xc0747900/1", "0xc0747900/10", false},
        {"0xc074790", "0xc0747900/1", false},
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

TEST_F(Faults, FirstMatchIsConsumedAndSpentEntriesRemoved) {
    write_text(path("faults.json"), R"([
        {"endpoint": "optrom_ctl", "match": "3", "action": "eio"},
        {"endpoint": "optrom_ctl", "match": "1*", "action": "ebusy", "count": 2},
        {"endpoint": "optrom", "match": "", "action": "short", "count": -1},
        {"endpoint": "ioctl", "match": "", "action": "no-such-action", "count": 5}
    ])");
    EXPECT_EQ(take("optrom_ctl", "2"), "-");
    EXPECT_EQ(take("optrom_ctl", "1:0:20000"), "ebusy");  // the first entry waits for its match
    EXPECT_EQ(take("optrom_ctl", "1"), "ebusy");
    EXPECT_EQ(take("optrom_ctl", "1"), "-");
    EXPECT_EQ(take("optrom_ctl", "3"), "eio");  // count absent: once
    EXPECT_EQ(take("optrom_ctl", "3"), "-");
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(take("optrom", "read"), "short");  // -1: for ever
    EXPECT_EQ(take("ioctl", "0xc0747900"), "-");  // unknown actions never fire

    EXPECT_EQ(nlohmann::json::parse(read_text(path("faults.json"))), nlohmann::json::parse(R"([
        {"endpoint": "optrom", "match": "", "action": "short", "count": -1},
        {"endpoint": "ioctl", "match": "", "action": "no-such-action", "count": 5}])"));
}

TEST_F(Faults, ConcurrentProcessesConsumeEachFaultOnce) {
    write_text(path("faults.json"), R"([{"endpoint": "ioctl", "action": "ebusy", "count": 40}])");
    std::vector<int> got = in_children(4, [&](int) {
        int n = 0;
        for (int i = 0; i < 20; ++i)
            n += fault_take_from(path("faults.json"), "ioctl", "").has_value();
        return n;
    });
    EXPECT_EQ(got[0] + got[1] + got[2] + got[3], 40);
}

TEST(JournalLine, StartsWithSeqPidEpKeepsFieldOrderAndStaysOneLine) {
    JournalFields f = JournalFields::object();
    f["host"] = 5;
    f["cmd"] = std::string("1\xff\xfe\n", 4);  // bad bytes do not break the line
    f["seq"] = 99;                               // reserved names cannot be overridden
    f["errno"] = "EBUSY";
    std::string line = journal_line(7, 1234, "optrom_ctl", f);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    nlohmann::ordered_json j = nlohmann::ordered_json::parse(line);
    std::vector<std::string> keys;
    for (const auto& [k, v] : j.items())
        keys.push_back(k);
    EXPECT_EQ(keys, (std::vector<std::string>{"seq", "pid", "ep", "host", "cmd", "errno"}));
    EXPECT_EQ(std::vector<nlohmann::ordered_json>({j["seq"], j["pid"], j["ep"]}),
              std::vector<nlohmann::ordered_json>({7, 1234, "optrom_ctl"}));
}

class Journal : public vxsim_test::TempDir {};

TEST_F(Journal, ProcessesAppendWholeLinesWithDistinctAscendingSeq) {
    constexpr int children = 4, lines = 25;
    std::vector<int> st = in_children(children, [&](int c) {
        for (int i = 0; i < lines; ++i) {
            JournalFields f = {{"child", c}, {"i", i}, {"pad", std::string(300, 'x')}};  // long enough to tear
            if (journal_append(path("journal.jsonl"), path("journal.seq"), "test", f) == 0)
                return 1;
        }
        return 0;
    });
    EXPECT_EQ(st, std::vector<int>(children, 0));
    std::istringstream in(read_text(path("journal.jsonl")));
    uint64_t last = 0;
    std::set<std::pair<int, int>> seen;
    for (std::string line; std::getline(in, line);) {
        nlohmann::json j = nlohmann::json::parse(line);  // throws (fails) on a torn line
        EXPECT_EQ(j["seq"], ++last);
        seen.insert({j["child"].get<int>(), j["i"].get<int>()});
    }
    EXPECT_EQ(last, uint64_t{children * lines});
    EXPECT_EQ(seen.size(), size_t{children * lines});
}

// Only positive finite scales; durations to the nanosecond, invalid ones left
// for the real call to refuse.
TEST(SleepScale, ParsesScalesAndReportsTheRequestedTimeLeft) {
    const std::pair<const char*, double> scales[] = {{nullptr, 1}, {"", 1},   {"0.01", 0.01}, {"1e-3", 0.001},
                                                     {"0", 1},     {"-0.5", 1}, {"0.01x", 1},   {"inf", 1},
                                                     {"nan", 1}};
    for (auto [text, want] : scales)
        EXPECT_DOUBLE_EQ(parse_sleep_scale(text), want) << (text ? text : "(null)");
    const std::tuple<timespec, double, timespec> cases[] = {
        {{20, 0}, 0.01, {0, 200000000}},      {{1, 500000000}, 0.5, {0, 750000000}},
        {{2, 1}, 2.0, {4, 2}},                {{0, 999999999}, 0.001, {0, 1000000}},
        {{-1, 0}, 0.01, {-1, 0}},             {{0, 1000000000}, 0.01, {0, 1000000000}},
    };
    for (const auto& [req, scale, want] : cases) {
        timespec got = scale_duration(req, scale);
        EXPECT_EQ(std::make_pair(got.tv_sec, got.tv_nsec), std::make_pair(want.tv_sec, want.tv_nsec))
            << req.tv_sec << "." << req.tv_nsec << " * " << scale;
    }
    // 20 s at 0.01 is 200 ms; 100 ms left is half the request, 10 s. Never
    // more than was asked, whatever the clock said.
    timespec rem = unscale_remaining({0, 100000000}, 0.01, {20, 0});
    EXPECT_EQ(std::make_pair(rem.tv_sec, rem.tv_nsec), std::make_pair(time_t{10}, 0L));
    rem = unscale_remaining({1, 0}, 0.01, {20, 0});
    EXPECT_EQ(std::make_pair(rem.tv_sec, rem.tv_nsec), std::make_pair(time_t{20}, 0L));
}

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
        {"/sys/devices/pci0000:00/0000:03:00.0/host5x/optrom", false, {}, 0},
        {"/sim/root/sysx/host5/optrom", false, {}, 0},
        {"/sys/devices/pci0000:00/0000:03:00.0/host5/fc_host/host5/statistics/tx_frames", true, AttrKind::Stat, 5},
        {"/sys/devices/pci0000:00/0000:03:00.0/host5/fc_host/host5/statistics/reset_statistics", true,
         AttrKind::Stat, 5},
        {"/sys/devices/pci0000:00/0000:03:00.0/host5/fc_host/host5/tx_frames", false, {}, 0},
        {"/sys/devices/pci0000:00/0000:03:00.0/host5/statistics/optrom", false, {}, 0},
        {"/sys/devices/pci0000:00/0000:03:00.0/net/eth0/statistics/tx_frames", false, {}, 0},
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
    EXPECT_FALSE(legacy_node_driver("/proc/scsi/vxfcdrv/HbaApiNode"));  // the newer driver has a /dev node
    EXPECT_FALSE(legacy_node_driver("/proc/scsi//HbaApiNode"));
}

}  // namespace
