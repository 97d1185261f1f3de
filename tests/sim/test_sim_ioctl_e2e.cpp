// The extended-ioctl endpoint through the preload, framed as the library
// frames them. Instance selection is tested in-process and the records'
// contents against the sysfs channel through the library; here what only a
// raw caller sees: 32-bit records, the journal's bytes, faults and bad
// requests.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "exioct.h"
#include "simtest.h"

using namespace vxsim;
using namespace vxsim::test;

namespace {

uint64_t wwn_of(const uint8_t* b) {
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i)
        v = (v << 8) | b[i];
    return v;
}

// The newer node, made the way the library makes it.
int open_newer_node() {
    unsigned major = 0, minor = 0;
    std::sscanf(read_text("/sys/class/vxfcdrv/vxfcdrv/dev").c_str(), "%u:%u", &major, &minor);
    EXPECT_EQ(::mknod("/dev/vxfcdrv", S_IFCHR | 0600, major * 256 + minor), 0) << std::strerror(errno);
    return ::open("/dev/vxfcdrv", O_RDWR);
}

struct Result {
    int rc, err;
    EXT_IOCTL rec;
};

Result call(int fd, uint8_t command, uint16_t subcode, uint16_t instance, uint16_t hba_select, void* resp = nullptr,
            uint32_t resp_len = 0, const void* req = nullptr, uint32_t req_len = 0) {
    Result r{};
    std::memcpy(&r.rec.Signature, EXT_SIGNATURE, 8);
    r.rec.AddrMode = 1;
    r.rec.Version = EXT_VERSION;
    r.rec.SubCode = subcode;
    r.rec.Instance = instance;
    r.rec.HbaSelect = hba_select;
    r.rec.RequestLen = req_len;
    r.rec.RequestAdr = reinterpret_cast<uintptr_t>(req);
    r.rec.ResponseLen = resp_len;
    r.rec.ResponseAdr = reinterpret_cast<uintptr_t>(resp);
    r.rec.VendorSpecificData = EXT_VENDOR_SPECIFIC_DATA;
    errno = 0;
    r.rc = ::ioctl(fd, ext_ioctl_number(command), &r.rec);
    r.err = errno;
    return r;
}

template <class T>
uint32_t query(int fd, uint16_t subcode, T& out, uint16_t hba_select = 0xFFFF) {
    return call(fd, EXT_CC_QUERY, subcode, 0, hba_select, &out, sizeof out).rec.Status;
}

}  // namespace

SIM_TEST(SimIoctl, OlderNodeAnswersRecordsWithThirtyTwoBitAddresses, "legacy") {
    // Records and buffers below 4 GiB, where 32-bit addresses reach.
    void* low = ::mmap(nullptr, 1 << 16, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0);
    ASSERT_NE(low, MAP_FAILED);
    auto* rec = static_cast<EXT_IOCTL_O*>(low);
    auto* node = reinterpret_cast<EXT_HBA_NODE*>(static_cast<uint8_t*>(low) + 1024);
    int fd = ::open("/proc/scsi/vxfcdra/HbaApiNode", O_RDWR);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    auto send = [&](uint8_t command, uint16_t subcode, uint16_t instance, void* resp, uint32_t len) {
        *rec = EXT_IOCTL_O{};
        std::memcpy(rec->Signature, EXT_SIGNATURE, 4);
        rec->AddrMode = 1;
        rec->Version = EXT_VERSION_O;
        rec->SubCode = subcode;
        rec->Instance = instance;
        rec->ResponseLen = len;
        rec->ResponseAdr = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(resp));
        rec->VendorSpecificData = 2;
        return ::ioctl(fd, EXT_IOCTL_BASE_O | command, rec);
    };
    const HostPort& first = scenario().adapters.at(0).functions.at(0).port;
    ASSERT_EQ(send(EXT_CC_SET_INSTANCE, 0, 0, nullptr, 0), 0) << std::strerror(errno);
    ASSERT_EQ(send(EXT_CC_QUERY, EXT_SC_QUERY_HBA_NODE, 0, node, sizeof *node), 0);
    EXPECT_EQ(rec->Status, 0u);
    EXPECT_EQ(wwn_of(node->WWNN), first.wwnn);
    const std::string sent = hex(rec, sizeof *rec);
    errno = 0;
    EXPECT_EQ(::ioctl(fd, ext_ioctl_number(EXT_CC_QUERY), rec), -1);  // the newer number
    EXPECT_EQ(errno, ENOTTY);
    rec->Version = EXT_VERSION;
    ASSERT_EQ(::ioctl(fd, EXT_IOCTL_BASE_O | EXT_CC_QUERY, rec), 0);
    EXPECT_EQ(rec->Status, 13u);  // unsupported version
    EXPECT_LT(::open("/proc/scsi/vxfcdrc/HbaApiNode", O_RDWR), 0);  // no adapter on that driver

    std::vector<nlohmann::json> io = journal("ioctl");
    ASSERT_GE(io.size(), 3u);
    const nlohmann::json& q = io[io.size() - 3];
    EXPECT_EQ(std::vector<nlohmann::json>({q["generation"], q["request"], q["host"], q["bytes"]}),
              std::vector<nlohmann::json>({"old", "0xc0047900", first.host_no, sent}));
    EXPECT_EQ(io.back()["status"], 13);
    ::close(fd);
    ::munmap(low, 1 << 16);
}

SIM_TEST(SimIoctl, FaultsStatusesAndBadRequests, "ioctl") {
    int fd = open_newer_node();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(call(fd, EXT_CC_SET_INSTANCE, 0, 0, 0).rec.Status, 0u);
    const uint64_t wwnn = scenario().adapters[0].functions[0].port.wwnn;
    EXT_HBA_NODE node{};
    EXT_HBA_PORT port{};

    // Overrun: the record is still filled. The fault names the node query only.
    arm_fault("ioctl", "0xc0747900/1", "status:7");
    EXPECT_EQ(query(fd, EXT_SC_QUERY_HBA_PORT, port), 0u);
    EXPECT_EQ(query(fd, EXT_SC_QUERY_HBA_NODE, node), 7u);
    EXPECT_EQ(wwn_of(node.WWNN), wwnn);
    // Any other status leaves the response buffer alone.
    arm_fault("ioctl", "0xc0747900", "status:9");
    std::memset(&node, 0xAB, sizeof node);
    EXPECT_EQ(query(fd, EXT_SC_QUERY_HBA_NODE, node), 9u);
    EXPECT_EQ(node.WWNN[0], 0xAB);
    // A failing call changes nothing: the descriptor keeps instance 0.
    arm_fault("ioctl", "0xc07479fe", "eio");
    Result r = call(fd, EXT_CC_SET_INSTANCE, 0, 1, 0);
    EXPECT_EQ((std::vector<int>{r.rc, r.err}), (std::vector<int>{-1, EIO}));
    EXPECT_EQ(query(fd, EXT_SC_QUERY_HBA_NODE, node, 3), 0u);
    EXPECT_EQ(wwn_of(node.WWNN), wwnn);

    r = call(fd, EXT_CC_QUERY, EXT_SC_QUERY_HBA_NODE, 0, 0, &node, sizeof node);
    r.rec.ResponseAdr = 8;  // unmapped
    EXPECT_EQ(::ioctl(fd, ext_ioctl_number(EXT_CC_QUERY), &r.rec), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(::ioctl(fd, ext_ioctl_number(EXT_CC_QUERY), reinterpret_cast<void*>(8)), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(::ioctl(fd, EXT_IOCTL_BASE_O | EXT_CC_QUERY, &r.rec), -1);  // the older number
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(call(fd, EXT_CC_LOOPBACK, 0, 0, 0).rec.Status, 20u);

    // The journal holds the record byte for byte as it was sent, before the
    // driver wrote the host number into it.
    r = call(fd, EXT_CC_SET_INSTANCE, 0, 0, 0x1234);
    EXT_IOCTL sent = r.rec;
    sent.HbaSelect = 0x1234;
    nlohmann::json last = journal("ioctl").back();
    EXPECT_EQ(last["bytes"], hex(&sent, sizeof sent));
    EXPECT_EQ(last["bytes"].get<std::string>().substr(76 * 2, 16), "0200000000000000");  // VendorSpecificData
    EXPECT_EQ(std::vector<nlohmann::json>({last["generation"], last["host"], last["status"]}),
              std::vector<nlohmann::json>({"new", r.rec.HbaSelect, 0}));
    ::close(fd);
}
