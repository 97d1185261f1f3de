// The driver emulation through the preload: plain libc calls inside a
// simulated host, as the library makes them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "flash.h"
#include "fsutil.h"
#include "root.h"
#include "simtest.h"

using namespace vxsim;
using namespace vxsim::test;

namespace {

using Bytes = std::vector<uint8_t>;

// The host directory the library uses: through the PCI driver's directory.
std::string host_dir(const Adapter& a = scenario().adapters.at(0)) {
    const PciFunction& f = a.functions.at(0);
    return "/sys/bus/pci/drivers/" + a.driver_name + "/" + f.pci_address + "/host" + std::to_string(f.port.host_no);
}

// Writes one command with its NUL; 0 or the errno.
int ctl(const std::string& cmd, const std::string& dir = host_dir()) {
    int fd = ::open((dir + "/optrom_ctl").c_str(), O_WRONLY);
    if (fd < 0)
        return errno;
    ssize_t n = ::write(fd, cmd.c_str(), cmd.size() + 1);
    int e = n < 0 ? errno : (n == static_cast<ssize_t>(cmd.size() + 1) ? 0 : EIO);
    ::close(fd);
    return e;
}

// Whole attributes: read until the driver says end of file; written in one go.
Bytes read_attr(const std::string& name) { return read_bytes(host_dir() + "/" + name); }

void write_attr(const std::string& name, const Bytes& data) {
    std::string error;
    EXPECT_TRUE(fs::write_file(host_dir() + "/" + name, std::string(data.begin(), data.end()), 0644, error)) << error;
}

Bytes pattern(size_t n, uint8_t seed) {
    Bytes v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = static_cast<uint8_t>(i * 13 + seed);
    return v;
}

Bytes slice(const Bytes& v, size_t off, size_t n) {
    return Bytes(v.begin() + static_cast<long>(off), v.begin() + static_cast<long>(off + n));
}

Bytes flash() { return flash_image(scenario().adapters.at(0).id); }

}  // namespace

// Each open file description keeps its position; duplicates share it, and
// stay the driver's after the original is closed (as dd reopens its output).
SIM_TEST(SimDriver, PositionsBelongToOpenFileDescriptions, "single.json") {
    const Bytes f = flash();
    errno = 0;
    EXPECT_LT(::open((host_dir() + "/optrom_ctl").c_str(), O_RDONLY), 0);  // write-only
    EXPECT_EQ(errno, EACCES);
    int c = ::open((host_dir() + "/optrom_ctl").c_str(), O_WRONLY);
    ASSERT_GE(c, 0);
    ASSERT_EQ(::dup2(c, 60), 60);
    ::close(c);
    EXPECT_EQ(::write(60, "1:0:1000", 9), 9);
    ::close(60);

    const std::string optrom = host_dir() + "/optrom";
    int f1 = ::open(optrom.c_str(), O_RDONLY), f2 = ::open(optrom.c_str(), O_RDONLY);
    ASSERT_TRUE(f1 >= 0 && f2 >= 0);
    int g = ::fcntl(f1, F_DUPFD_CLOEXEC, 70);
    ASSERT_GE(g, 70);
    uint8_t b[0x10];
    auto next = [&](int fd) {
        EXPECT_EQ(::read(fd, b, sizeof b), 0x10);
        return Bytes(b, b + 0x10);
    };
    next(f1);
    EXPECT_EQ(next(g), slice(f, 0x10, 0x10));  // one description: one position
    EXPECT_EQ(next(f2), slice(f, 0, 0x10));    // another starts at 0
    ASSERT_EQ(::lseek(f2, 0x800, SEEK_SET), 0x800);
    EXPECT_EQ(next(f2), slice(f, 0x800, 0x10));
    ASSERT_EQ(::pread(f1, b, sizeof b, 0xFF8), 8);  // pread leaves the position alone
    ::close(f1);
    EXPECT_EQ(next(g), slice(f, 0x20, 0x10));
    ::close(g);
    ::close(f2);
    EXPECT_EQ(ctl("0"), 0);
    EXPECT_EQ(journal("optrom_ctl").at(0)["cmd"], "1:0:1000");
}

// One process prepares and fills a write, which reaches the flash only when
// another one commits it; another process stages a read for this one.
SIM_TEST(SimDriver, WritesApplyOnlyOnCommitAndTwoProcessesSeeOneFlash, "single.json") {
    Bytes want = flash();
    const Bytes data = pattern(0x3000, 7);
    ASSERT_EQ(ctl("2:20000:3000"), 0);
    write_attr("optrom", data);
    EXPECT_EQ(flash(), want) << "the flash changed before the commit";
    EXPECT_EQ(ctl("1"), EBUSY);  // a write is pending
    ASSERT_EQ(run_children(1, [&](int) { return ctl("3") || ctl("0"); }), std::vector<int>{0});
    std::copy(data.begin(), data.end(), want.begin() + 0x20000);
    EXPECT_EQ(flash(), want);
    ASSERT_EQ(run_children(1, [&](int) { return ctl("1:20000:200"); }), std::vector<int>{0});
    EXPECT_EQ(read_attr("optrom"), slice(data, 0, 0x200));
    ASSERT_EQ(ctl("0"), 0);
}

// Journaled as asked, slept shortened; short sleeps (the event thread's
// ticks) stay out of the journal.
SIM_TEST(SimDriver, BusyFaultTwiceThenSuccessAndLongSleepsJournaled, "single.json") {
    arm_fault("optrom_ctl", "1*", "ebusy", 2);
    int tries = 0, e;  // the library's busy back-off: two retries after 20-second sleeps
    while ((e = ctl("1:0:100")) == EBUSY && tries < 2) {
        ::sleep(20);
        ++tries;
    }
    EXPECT_EQ(e, 0);
    EXPECT_EQ(tries, 2);
    std::vector<std::string> c;  // error, fault and the state after each command
    for (const nlohmann::json& j : journal("optrom_ctl"))
        c.push_back(j.value("errno", "-") + " " + j.value("fault", "-") + " " + j.value("state", "?"));
    EXPECT_EQ(c, (std::vector<std::string>{"EBUSY ebusy idle", "EBUSY ebusy idle", "- - read"}));
    EXPECT_EQ(ctl("0"), 0);

    ::usleep(2500000);
    timespec ts{3, 0};
    ASSERT_EQ(::nanosleep(&ts, nullptr), 0);
    ::sleep(1);
    std::vector<std::string> sleeps;
    for (const nlohmann::json& s : journal("sleep"))
        sleeps.push_back(s["call"].get<std::string>() + " " + s["seconds"].dump());
    EXPECT_EQ(sleeps, (std::vector<std::string>{"sleep 20", "sleep 20", "usleep 2.5", "nanosleep 3"}));
}

SIM_TEST(SimDriver, JournalShowsTheCommandsAndTransfers, "single.json") {
    ASSERT_EQ(ctl("1:40:100"), 0);
    int fd = ::open((host_dir() + "/optrom").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    uint8_t buf[0xC0];
    EXPECT_EQ(::read(fd, buf, sizeof buf), 0xC0);
    EXPECT_EQ(::read(fd, buf, sizeof buf), 0x40);
    EXPECT_EQ(::read(fd, buf, sizeof buf), 0);
    ::close(fd);
    ASSERT_EQ(ctl("0"), 0);

    std::vector<nlohmann::json> all = journal();
    ASSERT_EQ(all.size(), 5u);
    const std::vector<nlohmann::json> want[] = {  // ep, command or op, offset, size or length, result
        {"optrom_ctl", "1:40:100", 0x40, 0x100, 9},  // the bytes written, NUL included
        {"optrom", "read", 0, 0xC0, 0xC0},
        {"optrom", "read", 0xC0, 0xC0, 0x40},
        {"optrom", "read", 0x100, 0xC0, 0},
        {"optrom_ctl", "0", -1, -1, 2}};
    for (size_t i = 0; i < all.size(); ++i) {
        const nlohmann::json& e = all[i];
        EXPECT_EQ(std::vector<nlohmann::json>({e["seq"], e["pid"], e["host"], e["adapter"]}),
                  std::vector<nlohmann::json>({i + 1, ::getpid(), 1, "plover0"}));
        const nlohmann::json got = {e["ep"], e.value("cmd", e.value("op", std::string())), e.value("offset", -1),
                                    e.value("size", e.value("length", -1)), e["result"]};
        EXPECT_EQ(got, nlohmann::json(want[i])) << e;
    }
}

// `vxsim journal --json` gives each record as the emulation wrote it, keys
// in its order, for scripts that diff runs.
SIM_TEST(SimDriver, JournalJsonIsTheRecordsAsJournaled, "single.json") {
    ctl("4");
    ctl("nonsense");
    Output o = run_vxsim({"journal", "--json"});
    ASSERT_EQ(o.status, 0) << o.text;
    EXPECT_EQ(std::count(o.text.begin(), o.text.end(), '\n'), 2) << o.text;
    EXPECT_EQ(o.text, read_text(root::journal(sim_root())));
}

SIM_TEST(SimDriver, NvramAndVpdInsideTheFlash, "single.json") {
    const Adapter& a = scenario().adapters.at(0);
    std::optional<FlashRange> nv = nvram_in_flash(a, 0), vpd = vpd_in_flash(a, 0);
    ASSERT_TRUE(nv && vpd);
    Bytes f = flash();
    const size_t nv_size = build_nvram(a, 0).size();
    EXPECT_EQ(read_attr("nvram"), slice(f, nv->offset, nv_size));
    EXPECT_EQ(read_attr("vpd"), slice(f, vpd->offset, build_vpd(a, 0).size()));

    int fd = ::open((host_dir() + "/nvram").c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    const uint8_t bytes[4] = {0xDE, 0xAD, 0xBE, 0xEF};
    EXPECT_EQ(::pwrite(fd, bytes, sizeof bytes, 20), 4);
    EXPECT_EQ(::pwrite(fd, bytes, sizeof bytes, static_cast<off_t>(nv_size) - 2), 2);  // clipped
    errno = 0;
    EXPECT_EQ(::pwrite(fd, bytes, sizeof bytes, static_cast<off_t>(nv_size)), -1);
    EXPECT_EQ(errno, EFBIG);
    ::close(fd);
    std::copy(bytes, bytes + 4, f.begin() + nv->offset + 20);
    std::copy(bytes, bytes + 2, f.begin() + nv->offset + nv_size - 2);
    set_nvram_checksum(f.data() + nv->offset, nv_size);  // the driver checksums every write
    EXPECT_EQ(flash(), f);
}

// The library makes its nodes itself, with the old 8-bit-minor encoding;
// the emulation answers by the number, wherever the node is. (The bsg and
// netlink endpoints are stubs so far; their opens are tested with the load.)
SIM_TEST(SimDriver, DeviceNodesAnswerByTheirNumber, "single.json") {
    ASSERT_EQ(::mknod("/tmp/vxtest_ctl", S_IFCHR | 0600, root::MAJOR_CONTROL * 256 + 0), 0);
    ASSERT_EQ(::mknod("/dev/vxtest_none", S_IFCHR | 0600, root::MAJOR_CONTROL * 256 + 5), 0);
    int fd = ::open("/tmp/vxtest_ctl", O_RDWR);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    struct stat st {};
    ASSERT_EQ(::fstat(fd, &st), 0);  // the caller sees the node it made
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(st.st_rdev & 0xFFFF, root::MAJOR_CONTROL * 256u);
    ::close(fd);
    errno = 0;
    EXPECT_LT(::open("/dev/vxtest_none", O_RDWR), 0);  // no driver behind that number
    EXPECT_EQ(errno, ENXIO);
}
