// The driver emulation through the preload: plain libc calls inside a
// simulated host, as the library makes them.
#include <fcntl.h>
#include <linux/bsg.h>
#include <linux/netlink.h>
#include <poll.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "flash.h"
#include "root.h"
#include "simtest.h"

using namespace vxsim;
using namespace vxsim::test;

namespace {

// Two small adapters: one whose driver takes partial flash commands and one
// whose driver moves only whole images; a control node; a non-root user.
const char* const TWO_ADAPTERS = R"({
  "name": "two",
  "options": {"euid": 1000},
  "adapters": [
    {"id": "whole", "device_id": "0x1010", "serial_number": "VXF10100001", "partial_flash": false,
     "functions": [{"pci_address": "0000:05:00.0", "port": {"host_no": 3}}]},
    {"id": "parts", "device_id": "0x1030", "serial_number": "VXH10300001", "partial_flash": true,
     "functions": [{"pci_address": "0000:06:00.0", "port": {"host_no": 4}}]}
  ]
})";

// An adapter on the older ioctl channel.
const char* const OLDER = R"({
  "name": "older",
  "adapters": [
    {"id": "old", "device_id": "0x1010", "serial_number": "VXF10100002", "channel": "legacy",
     "driver_name": "vxfcdrb",
     "functions": [{"pci_address": "0000:07:00.0", "port": {"host_no": 2}}]}
  ]
})";

const Adapter& adapter(const std::string& id) {
    for (const Adapter& a : scenario().adapters)
        if (a.id == id)
            return a;
    ADD_FAILURE() << "no adapter " << id;
    return scenario().adapters.at(0);
}

// The host directory the library uses: through the PCI driver's directory.
std::string host_dir(const Adapter& a, size_t fn = 0) {
    const PciFunction& f = a.functions.at(fn);
    return "/sys/bus/pci/drivers/" + a.driver_name + "/" + f.pci_address + "/host" + std::to_string(f.port.host_no);
}

// Writes one command with its NUL; 0 or the errno.
int ctl(const std::string& dir, const std::string& cmd) {
    int fd = ::open((dir + "/optrom_ctl").c_str(), O_WRONLY);
    if (fd < 0)
        return errno;
    std::string text = cmd + '\0';
    ssize_t n = ::write(fd, text.data(), text.size());
    int e = n < 0 ? errno : (n == static_cast<ssize_t>(text.size()) ? 0 : EIO);
    ::close(fd);
    return e;
}

// Reads an attribute page by page until the driver says end of file.
std::vector<uint8_t> read_attr(const std::string& path) {
    std::vector<uint8_t> out;
    int fd = ::open(path.c_str(), O_RDONLY);
    EXPECT_GE(fd, 0) << path << ": " << std::strerror(errno);
    if (fd < 0)
        return out;
    std::vector<uint8_t> page(4096);
    ssize_t n;
    while ((n = ::read(fd, page.data(), page.size())) > 0)
        out.insert(out.end(), page.begin(), page.begin() + n);
    EXPECT_EQ(n, 0) << path << ": " << std::strerror(errno);
    ::close(fd);
    return out;
}

void write_attr(const std::string& path, const std::vector<uint8_t>& data) {
    int fd = ::open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0) << path << ": " << std::strerror(errno);
    for (size_t pos = 0; pos < data.size();) {
        ssize_t n = ::write(fd, data.data() + pos, std::min<size_t>(4096, data.size() - pos));
        ASSERT_GT(n, 0) << path << ": " << std::strerror(errno);
        pos += static_cast<size_t>(n);
    }
    ::close(fd);
}

std::vector<uint8_t> pattern(size_t n, uint8_t seed) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = static_cast<uint8_t>(i * 13 + seed);
    return v;
}

std::vector<uint8_t> slice(const std::vector<uint8_t>& v, size_t off, size_t n) {
    return std::vector<uint8_t>(v.begin() + static_cast<long>(off), v.begin() + static_cast<long>(off + n));
}

std::vector<std::string> commands() {
    std::vector<std::string> out;
    for (const nlohmann::json& j : journal("optrom_ctl"))
        out.push_back(j["cmd"]);
    return out;
}

}  // namespace

SIM_TEST(SimDriver, WholeAndPartialReadsThroughTheAttributeFiles, "single.json") {
    const Adapter& a = scenario().adapters.at(0);
    std::string dir = host_dir(a);
    std::vector<uint8_t> flash = flash_image(a.id);
    ASSERT_FALSE(flash.empty());

    ASSERT_EQ(ctl(dir, "1"), 0);
    EXPECT_EQ(read_attr(dir + "/optrom"), flash);
    ASSERT_EQ(ctl(dir, "0"), 0);

    char cmd[64];
    std::snprintf(cmd, sizeof cmd, "1:%x:%x", 0x10000, 0x2345);
    ASSERT_EQ(ctl(dir, cmd), 0);
    EXPECT_EQ(read_attr(dir + "/optrom"), slice(flash, 0x10000, 0x2345));
    ASSERT_EQ(ctl(dir, "0"), 0);

    std::snprintf(cmd, sizeof cmd, "1:%zx:%x", flash.size() - 0x10, 0x20);  // runs off the end
    EXPECT_EQ(ctl(dir, cmd), EINVAL);
}

SIM_TEST(SimDriver, EachDescriptorKeepsItsOwnPosition, "single.json") {
    const Adapter& a = scenario().adapters.at(0);
    std::string dir = host_dir(a);
    std::vector<uint8_t> flash = flash_image(a.id);
    ASSERT_EQ(ctl(dir, "1:0:1000"), 0);
    int f1 = ::open((dir + "/optrom").c_str(), O_RDONLY);
    int f2 = ::open((dir + "/optrom").c_str(), O_RDONLY);
    ASSERT_GE(f1, 0);
    ASSERT_GE(f2, 0);
    uint8_t b1[0x10], b2[0x10];
    ASSERT_EQ(::read(f1, b1, sizeof b1), 0x10);
    ASSERT_EQ(::read(f1, b1, sizeof b1), 0x10);  // f1 now at 0x20
    ASSERT_EQ(::read(f2, b2, sizeof b2), 0x10);  // f2 still starts at 0
    EXPECT_EQ(std::vector<uint8_t>(b1, b1 + 0x10), slice(flash, 0x10, 0x10));
    EXPECT_EQ(std::vector<uint8_t>(b2, b2 + 0x10), slice(flash, 0, 0x10));
    ASSERT_EQ(::lseek(f2, 0x800, SEEK_SET), 0x800);
    ASSERT_EQ(::read(f2, b2, sizeof b2), 0x10);
    EXPECT_EQ(std::vector<uint8_t>(b2, b2 + 0x10), slice(flash, 0x800, 0x10));
    ASSERT_EQ(::pread(f1, b1, sizeof b1, 0xFF8), 8);  // pread leaves the position alone
    ASSERT_EQ(::read(f1, b1, sizeof b1), 0x10);
    EXPECT_EQ(std::vector<uint8_t>(b1, b1 + 0x10), slice(flash, 0x20, 0x10));
    ::close(f1);
    ::close(f2);
    ASSERT_EQ(ctl(dir, "0"), 0);
}

SIM_TEST(SimDriver, DuplicatedDescriptorsShareTheDriverAndThePosition, "single.json") {
    const Adapter& a = scenario().adapters.at(0);
    std::string dir = host_dir(a);
    std::vector<uint8_t> flash = flash_image(a.id);

    // As dd reopens its output: open, move onto a fixed number, close the original.
    int c = ::open((dir + "/optrom_ctl").c_str(), O_WRONLY);
    ASSERT_GE(c, 0);
    ASSERT_EQ(::dup2(c, 60), 60);
    ::close(c);
    EXPECT_EQ(::write(60, "1:0:100", 8), 8);
    ::close(60);

    int f = ::open((dir + "/optrom").c_str(), O_RDONLY);
    ASSERT_GE(f, 0);
    int g = ::fcntl(f, F_DUPFD_CLOEXEC, 70);
    ASSERT_GE(g, 70);
    uint8_t b[0x10];
    ASSERT_EQ(::read(f, b, sizeof b), 0x10);
    ASSERT_EQ(::read(g, b, sizeof b), 0x10);  // one open file description: one position
    EXPECT_EQ(std::vector<uint8_t>(b, b + 0x10), slice(flash, 0x10, 0x10));
    ::close(f);
    ASSERT_EQ(::read(g, b, sizeof b), 0x10);  // still the driver's after the original is closed
    EXPECT_EQ(std::vector<uint8_t>(b, b + 0x10), slice(flash, 0x20, 0x10));
    ::close(g);
    EXPECT_EQ(ctl(dir, "0"), 0);
    EXPECT_EQ(commands(), (std::vector<std::string>{"1:0:100", "0"}));
}

SIM_TEST(SimDriver, WritesApplyOnlyOnCommit, "single.json") {
    const Adapter& a = scenario().adapters.at(0);
    std::string dir = host_dir(a);
    std::vector<uint8_t> before = flash_image(a.id);
    std::vector<uint8_t> data = pattern(0x3000, 7);

    ASSERT_EQ(ctl(dir, "2:20000:3000"), 0);
    write_attr(dir + "/optrom", data);
    EXPECT_EQ(flash_image(a.id), before) << "the flash changed before the commit";
    EXPECT_EQ(ctl(dir, "1"), EBUSY);  // a write is pending
    ASSERT_EQ(ctl(dir, "3"), 0);
    std::vector<uint8_t> want = before;
    std::copy(data.begin(), data.end(), want.begin() + 0x20000);
    EXPECT_EQ(flash_image(a.id), want);
    ASSERT_EQ(ctl(dir, "0"), 0);
}

SIM_TEST(SimDriver, ProbeAndPartialCommandsFollowTheAdapter, TWO_ADAPTERS) {
    std::string whole = host_dir(adapter("whole")), parts = host_dir(adapter("parts"));
    // A driver that takes partial commands rejects the probe, as the library
    // expects; the other one accepts it.
    EXPECT_EQ(ctl(parts, "4"), EINVAL);
    EXPECT_EQ(ctl(whole, "4"), 0);
    EXPECT_EQ(ctl(parts, "1:100:100"), 0);
    EXPECT_EQ(ctl(whole, "1:100:100"), EINVAL);
    // A whole-flash range is what a whole-region transfer sends: both take it.
    size_t size = flash_image("whole").size();
    char cmd[64];
    std::snprintf(cmd, sizeof cmd, "1:0:%zx", size);
    ASSERT_EQ(ctl(whole, cmd), 0);
    EXPECT_EQ(read_attr(whole + "/optrom"), flash_image("whole"));
    EXPECT_EQ(ctl(whole, "0"), 0);
    EXPECT_EQ(ctl(parts, "0"), 0);
}

SIM_TEST(SimDriver, TwoProcessesInOneRootSeeOneFlash, "single.json") {
    const Adapter& a = scenario().adapters.at(0);
    std::string dir = host_dir(a);
    std::vector<uint8_t> flash = flash_image(a.id);
    std::vector<uint8_t> data = pattern(0x200, 3);

    // This process prepares and fills a write; another one commits it.
    ASSERT_EQ(ctl(dir, "2:1000:200"), 0);
    write_attr(dir + "/optrom", data);
    std::vector<int> st = run_children(1, [&](int) { return ctl(dir, "3") || ctl(dir, "0"); });
    ASSERT_EQ(st, std::vector<int>{0});
    std::copy(data.begin(), data.end(), flash.begin() + 0x1000);
    EXPECT_EQ(flash_image(a.id), flash);

    // Another process stages a read; this one reads the staged bytes.
    st = run_children(1, [&](int) { return ctl(dir, "1:1000:200"); });
    ASSERT_EQ(st, std::vector<int>{0});
    EXPECT_EQ(read_attr(dir + "/optrom"), data);
    ASSERT_EQ(ctl(dir, "0"), 0);
}

SIM_TEST(SimDriver, BusyFaultTwiceThenSuccess, "single.json") {
    std::string dir = host_dir(scenario().adapters.at(0));
    arm_fault("optrom_ctl", "1*", "ebusy", 2);
    // The library's busy back-off: two retries after 20-second sleeps.
    int tries = 0, e;
    while ((e = ctl(dir, "1:0:100")) == EBUSY && tries < 2) {
        ::sleep(20);
        ++tries;
    }
    EXPECT_EQ(e, 0);
    EXPECT_EQ(tries, 2);

    std::vector<nlohmann::json> ctl_entries = journal("optrom_ctl");
    ASSERT_EQ(ctl_entries.size(), 3u);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(ctl_entries[i]["errno"], "EBUSY");
        EXPECT_EQ(ctl_entries[i]["fault"], "ebusy");
        EXPECT_EQ(ctl_entries[i]["state"], "idle");  // nothing happened
    }
    EXPECT_FALSE(ctl_entries[2].contains("fault"));
    EXPECT_EQ(ctl_entries[2]["state"], "read");
    std::vector<nlohmann::json> sleeps = journal("sleep");
    ASSERT_EQ(sleeps.size(), 2u);
    for (const nlohmann::json& s : sleeps)
        EXPECT_EQ(s["seconds"], 20);  // journaled as asked, slept shortened
    EXPECT_EQ(ctl(dir, "0"), 0);
}

SIM_TEST(SimDriver, JournalShowsTheCommandsAndTransfers, "single.json") {
    std::string dir = host_dir(scenario().adapters.at(0));
    ASSERT_EQ(ctl(dir, "1:40:100"), 0);
    int fd = ::open((dir + "/optrom").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    uint8_t buf[0xC0];
    EXPECT_EQ(::read(fd, buf, sizeof buf), 0xC0);
    EXPECT_EQ(::read(fd, buf, sizeof buf), 0x40);
    EXPECT_EQ(::read(fd, buf, sizeof buf), 0);
    ::close(fd);
    ASSERT_EQ(ctl(dir, "0"), 0);
    // Short sleeps (the event thread's ticks) stay out of the journal.
    ::sleep(1);

    std::vector<nlohmann::json> all = journal();
    ASSERT_EQ(all.size(), 5u);
    for (size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(all[i]["seq"], i + 1);
        EXPECT_EQ(all[i]["pid"], ::getpid());
        EXPECT_EQ(all[i]["host"], 1);
        EXPECT_EQ(all[i]["adapter"], "plover0");
    }
    EXPECT_EQ(all[0]["ep"], "optrom_ctl");
    EXPECT_EQ(all[0]["cmd"], "1:40:100");
    EXPECT_EQ(all[0]["offset"], 0x40);
    EXPECT_EQ(all[0]["size"], 0x100);
    EXPECT_EQ(all[0]["result"], 9);  // the bytes written, NUL included
    struct Read {
        int offset, result;
    };
    const Read reads[] = {{0, 0xC0}, {0xC0, 0x40}, {0x100, 0}};
    for (size_t i = 0; i < 3; ++i) {
        const nlohmann::json& r = all[1 + i];
        EXPECT_EQ(r["ep"], "optrom");
        EXPECT_EQ(r["op"], "read");
        EXPECT_EQ(r["offset"], reads[i].offset);
        EXPECT_EQ(r["length"], 0xC0);
        EXPECT_EQ(r["result"], reads[i].result);
    }
    EXPECT_EQ(all[4]["cmd"], "0");
    EXPECT_EQ(commands(), (std::vector<std::string>{"1:40:100", "0"}));
}

SIM_TEST(SimDriver, ControlAttributeIsWriteOnly, "single.json") {
    std::string dir = host_dir(scenario().adapters.at(0));
    errno = 0;
    EXPECT_LT(::open((dir + "/optrom_ctl").c_str(), O_RDONLY), 0);
    EXPECT_EQ(errno, EACCES);
    EXPECT_LT(::open((dir + "/optrom_ctl").c_str(), O_RDWR), 0);
    EXPECT_TRUE(journal().empty());
}

SIM_TEST(SimDriver, NvramAndVpdInsideTheFlash, "single.json") {
    const Adapter& a = scenario().adapters.at(0);
    std::string dir = host_dir(a);
    std::optional<FlashRange> nv = nvram_in_flash(a, 0), vpd = vpd_in_flash(a, 0);
    ASSERT_TRUE(nv && vpd);
    std::vector<uint8_t> flash = flash_image(a.id);
    size_t nv_size = build_nvram(a, 0).size(), vpd_size = build_vpd(a, 0).size();
    EXPECT_EQ(read_attr(dir + "/nvram"), slice(flash, nv->offset, nv_size));
    EXPECT_EQ(read_attr(dir + "/vpd"), slice(flash, vpd->offset, vpd_size));

    int fd = ::open((dir + "/nvram").c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    const uint8_t bytes[4] = {0xDE, 0xAD, 0xBE, 0xEF};
    EXPECT_EQ(::pwrite(fd, bytes, sizeof bytes, 20), 4);
    EXPECT_EQ(::pwrite(fd, bytes, sizeof bytes, static_cast<off_t>(nv_size) - 2), 2);  // clipped
    errno = 0;
    EXPECT_EQ(::pwrite(fd, bytes, sizeof bytes, static_cast<off_t>(nv_size)), -1);
    EXPECT_EQ(errno, EFBIG);
    ::close(fd);
    std::copy(bytes, bytes + 4, flash.begin() + nv->offset + 20);
    std::copy(bytes, bytes + 2, flash.begin() + nv->offset + nv_size - 2);
    EXPECT_EQ(flash_image(a.id), flash);
}

SIM_TEST(SimDriver, NvramOutsideTheFlashLivesInItsStateFile, TWO_ADAPTERS) {
    const Adapter& a = adapter("parts");
    ASSERT_FALSE(nvram_in_flash(a, 0));
    std::string dir = host_dir(a);
    std::vector<uint8_t> image = nvram_image(4);
    ASSERT_FALSE(image.empty());
    EXPECT_EQ(read_attr(dir + "/nvram"), image);
    std::vector<uint8_t> data = pattern(image.size(), 5);
    write_attr(dir + "/nvram", data);
    EXPECT_EQ(nvram_image(4), data);
    EXPECT_EQ(read_attr(dir + "/vpd"), vpd_image(4));
}

SIM_TEST(SimDriver, DeviceNodesAnswerByTheirNumber, "single.json") {
    // The library makes its nodes itself, with the old 8-bit-minor encoding.
    ASSERT_EQ(::mknod("/dev/vxtest_ctl", S_IFCHR | 0600, root::MAJOR_CONTROL * 256 + 0), 0);
    ASSERT_EQ(::mknod("/dev/vxtest_none", S_IFCHR | 0600, root::MAJOR_CONTROL * 256 + 5), 0);
    ASSERT_EQ(::mknod("/tmp/t1", S_IFCHR | 0644, root::MAJOR_BSG_FIRST * 256 + 0), 0);

    int fd = ::open("/dev/vxtest_ctl", O_RDWR);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    struct stat st {};
    ASSERT_EQ(::fstat(fd, &st), 0);  // the caller sees the node it made
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(st.st_rdev & 0xFFFF, root::MAJOR_CONTROL * 256u);
    uint8_t record[116] = {};
    std::memcpy(record, "VARNEX\0\0", 8);
    record[10] = 7;    // version
    record[12] = 0x3;  // sub-code
    record[14] = 0x1;  // instance
    errno = 0;
    EXPECT_EQ(::ioctl(fd, 0xC07479FFul, record), -1);
    EXPECT_EQ(errno, ENOTTY);
    ::close(fd);

    errno = 0;
    EXPECT_LT(::open("/dev/vxtest_none", O_RDWR), 0);  // no driver behind that number
    EXPECT_EQ(errno, ENXIO);

    int bsg = ::open("/tmp/t1", O_WRONLY | O_NOFOLLOW);
    ASSERT_GE(bsg, 0) << std::strerror(errno);
    uint32_t request[5] = {0x800000FF, 0x1D5A, 0x01000000, 7, 0x1000};
    sg_io_v4 h{};
    h.guard = 'Q';
    h.subprotocol = BSG_SUB_PROTOCOL_SCSI_TRANSPORT;
    h.request_len = sizeof request;
    h.request = reinterpret_cast<uintptr_t>(request);
    errno = 0;
    EXPECT_EQ(::ioctl(bsg, SG_IO, &h), -1);
    EXPECT_EQ(errno, ENOSYS);  // no bsg vendor support yet
    ::close(bsg);

    std::vector<nlohmann::json> io = journal("ioctl");
    ASSERT_EQ(io.size(), 1u);
    EXPECT_EQ(io[0]["node"], "control");
    EXPECT_EQ(io[0]["request"], "0xc07479ff");
    EXPECT_EQ(io[0]["record"], "EXT_IOCTL");
    EXPECT_EQ(io[0]["subcode"], 3);
    EXPECT_EQ(io[0]["instance"], 1);
    EXPECT_EQ(io[0]["errno"], "ENOTTY");
    std::vector<nlohmann::json> b = journal("bsg");
    ASSERT_EQ(b.size(), 1u);
    EXPECT_EQ(b[0]["node"], "bsg_host");
    EXPECT_EQ(b[0]["host"], 1);
    EXPECT_EQ(b[0]["msgcode"], "0x800000ff");
    EXPECT_EQ(b[0]["vendor_cmd"], 7);
    EXPECT_EQ(b[0]["errno"], "ENOSYS");
    ::unlink("/tmp/t1");
}

SIM_TEST(SimDriver, OlderGenerationNodeByPath, OLDER) {
    int fd = ::open("/proc/scsi/vxfcdrb/HbaApiNode", O_RDWR);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    uint8_t record[68] = {};
    std::memcpy(record, "VARN", 4);
    record[6] = 5;  // version
    EXPECT_EQ(::ioctl(fd, 0xC00479FFul, record), 0) << std::strerror(errno);
    EXPECT_EQ(record[10], 1);  // one adapter on that driver
    ::close(fd);
    EXPECT_LT(::open("/proc/scsi/vxfcdrc/HbaApiNode", O_RDWR), 0);  // no adapter on that driver
    std::vector<nlohmann::json> io = journal("ioctl");
    ASSERT_EQ(io.size(), 1u);
    EXPECT_EQ(io[0]["node"], "legacy");
    EXPECT_EQ(io[0]["driver"], "vxfcdrb");
    EXPECT_EQ(io[0]["record"], "EXT_IOCTL_O");
    EXPECT_EQ(io[0]["request"], "0xc00479ff");
}

SIM_TEST(SimDriver, NetlinkSocketsAreEmulated, "single.json") {
    int fd = ::socket(AF_NETLINK, SOCK_RAW, 18);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    sockaddr_nl addr{};
    addr.nl_family = AF_NETLINK;
    addr.nl_groups = 0;
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    int group = 4;
    ASSERT_EQ(::setsockopt(fd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group), 0);
    pollfd p{fd, POLLIN, 0};
    EXPECT_EQ(::poll(&p, 1, 0), 0);  // nothing queued
    uint8_t buf[256];
    errno = 0;
    EXPECT_EQ(::recv(fd, buf, sizeof buf, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    nlmsghdr h{};
    h.nlmsg_len = sizeof h;
    h.nlmsg_type = 0x10;
    EXPECT_EQ(::send(fd, &h, sizeof h, 0), static_cast<ssize_t>(sizeof h));
    ::close(fd);

    std::vector<nlohmann::json> nl = journal("netlink");
    ASSERT_EQ(nl.size(), 3u);
    EXPECT_EQ(nl[0]["op"], "bind");
    EXPECT_EQ(nl[0]["protocol"], 18);
    EXPECT_EQ(nl[1]["op"], "setsockopt");
    EXPECT_EQ(nl[1]["value"], 4);
    EXPECT_EQ(nl[2]["op"], "send");
    EXPECT_EQ(nl[2]["nlmsg_type"], 0x10);
    EXPECT_EQ(nl[2]["length"], sizeof h);
}

SIM_TEST(SimDriver, LongSleepsAreJournaledAsAsked, "single.json") {
    ::usleep(2500000);
    timespec ts{3, 0};
    ASSERT_EQ(::nanosleep(&ts, nullptr), 0);
    ::sleep(1);
    std::vector<nlohmann::json> s = journal("sleep");
    ASSERT_EQ(s.size(), 2u);
    EXPECT_EQ(s[0]["call"], "usleep");
    EXPECT_EQ(s[0]["seconds"], 2.5);
    EXPECT_EQ(s[1]["call"], "nanosleep");
    EXPECT_EQ(s[1]["seconds"], 3);
}

SIM_TEST(SimDriver, EffectiveUserFromTheScenario, TWO_ADAPTERS) {
    EXPECT_EQ(::geteuid(), 1000u);
}
