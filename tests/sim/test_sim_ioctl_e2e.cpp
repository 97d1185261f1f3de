// The extended-ioctl endpoint through the preload: both node generations,
// framed as the library frames them, answers checked against the sysfs
// attributes the same host renders.
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
#include "exioctln.h"
#include "simtest.h"

using namespace vxsim;
using namespace vxsim::test;

namespace {

std::string attr(const std::string& path) {
    std::string s = read_text(path);
    while (!s.empty() && s.back() == '\n')
        s.pop_back();
    return s;
}

uint64_t wwn_of(const uint8_t* b) {
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i)
        v = (v << 8) | b[i];
    return v;
}

std::string text_of(const uint8_t* b) { return reinterpret_cast<const char*>(b); }

std::string hex(const void* p, size_t n) {
    std::string s;
    char buf[3];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(buf, sizeof buf, "%02x", static_cast<const uint8_t*>(p)[i]);
        s += buf;
    }
    return s;
}

// The newer node, made the way the library makes it.
int open_newer_node() {
    unsigned major = 0, minor = 0;
    EXPECT_EQ(std::sscanf(attr("/sys/class/vxfcdrv/vxfcdrv/dev").c_str(), "%u:%u", &major, &minor), 2);
    EXPECT_EQ(::mknod("/dev/vxfcdrv", S_IFCHR | 0600, major * 256 + minor), 0) << std::strerror(errno);
    int fd = ::open("/dev/vxfcdrv", O_RDWR);
    EXPECT_GE(fd, 0) << std::strerror(errno);
    return fd;
}

struct Result {
    int rc;
    int err;
    EXT_IOCTL rec;
};

Result call(int fd, uint8_t command, uint16_t subcode, uint16_t instance, uint16_t hba_select, const void* req,
            uint32_t req_len, void* resp, uint32_t resp_len) {
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
Result query(int fd, uint16_t subcode, uint16_t hba_select, T& out, uint16_t instance = 0) {
    return call(fd, EXT_CC_QUERY, subcode, instance, hba_select, nullptr, 0, &out, sizeof out);
}

struct HostInfo {
    const Adapter* adapter;
    const PciFunction* function;
    const HostPort* host;
};

// The driver's instances of the scenario, in order.
std::vector<HostInfo> instances() {
    std::vector<HostInfo> out;
    for (const Adapter& a : scenario().adapters)
        for (const PciFunction& f : a.functions) {
            out.push_back({&a, &f, &f.port});
            for (const HostPort& v : f.vports)
                out.push_back({&a, &f, &v});
        }
    return out;
}

std::vector<uint8_t> read_file(const std::string& path) {
    std::vector<uint8_t> out;
    int fd = ::open(path.c_str(), O_RDONLY);
    EXPECT_GE(fd, 0) << path;
    uint8_t buf[4096];
    ssize_t n;
    while (fd >= 0 && (n = ::read(fd, buf, sizeof buf)) > 0)
        out.insert(out.end(), buf, buf + n);
    if (fd >= 0)
        ::close(fd);
    return out;
}

}  // namespace

SIM_TEST(SimIoctl, NewerNodeAnswersEveryQueryAsSysfsShowsTheHost, "ioctl") {
    int fd = open_newer_node();
    ASSERT_GE(fd, 0);
    std::vector<HostInfo> hosts = instances();
    Result count = call(fd, EXT_CC_GET_HBA_CNT, 0, 0, 0, nullptr, 0, nullptr, 0);
    ASSERT_EQ(count.rc, 0);
    ASSERT_EQ(count.rec.Instance, hosts.size());

    for (uint16_t i = 0; i < hosts.size(); ++i) {
        const HostInfo& h = hosts[i];
        const std::string n = std::to_string(h.host->host_no);
        SCOPED_TRACE("host" + n);
        const std::string sh = "/sys/class/scsi_host/host" + n + "/", fc = "/sys/class/fc_host/host" + n + "/";
        const std::string pci = "/sys/bus/pci/devices/" + h.function->pci_address + "/";
        Result sel = call(fd, EXT_CC_SET_INSTANCE, 0, i, 0, nullptr, 0, nullptr, 0);
        ASSERT_EQ(sel.rc, 0);
        EXPECT_EQ(sel.rec.Status, 0u);
        EXPECT_EQ(sel.rec.HbaSelect, h.host->host_no);

        // HbaSelect 0xffff: the instance chosen on the descriptor answers.
        EXT_HBA_NODE node{};
        ASSERT_EQ(query(fd, EXT_SC_QUERY_HBA_NODE, 0xFFFF, node).rec.Status, 0u);
        EXPECT_EQ(wwn_of(node.WWNN), std::stoull(attr(fc + "node_name"), nullptr, 16));
        EXPECT_EQ(text_of(node.Model), attr(sh + "model_name"));
        EXPECT_EQ(text_of(node.DriverVersion), attr(sh + "driver_version"));
        EXPECT_EQ(text_of(node.FWVersion), attr(sh + "fw_version"));
        EXPECT_EQ(node.PortCount, h.adapter->functions.size());

        EXT_HBA_PORT port{};
        ASSERT_EQ(query(fd, EXT_SC_QUERY_HBA_PORT, 0xFFFF, port).rec.Status, 0u);
        EXPECT_EQ(wwn_of(port.WWPN), std::stoull(attr(fc + "port_name"), nullptr, 16));
        EXPECT_EQ(wwn_of(port.FabricName), std::stoull(attr(fc + "fabric_name"), nullptr, 16));
        unsigned id = (port.Id[1] << 16) | (port.Id[2] << 8) | port.Id[3];
        EXPECT_EQ(id, std::stoul(attr(fc + "port_id"), nullptr, 16));
        unsigned words[6] = {};
        std::sscanf(attr(sh + "fw_state").c_str(), "0x%x 0x%x 0x%x 0x%x 0x%x 0x%x", &words[0], &words[1], &words[2],
                    &words[3], &words[4], &words[5]);
        EXPECT_EQ((std::vector<unsigned>{port.LinkState1, port.LinkState2, port.LinkState3, port.LinkState6}),
                  (std::vector<unsigned>{words[0], words[1], words[2], words[5]}));
        uint16_t targets = 0;
        for (const RemotePort& r : h.host->remote_ports) {
            std::string roles = attr("/sys/class/fc_remote_ports/rport-" + n + ":" + std::to_string(r.channel) + "-" +
                                     std::to_string(r.number) + "/roles");
            targets += roles == "FCP Target";
        }
        EXPECT_EQ(port.DiscPortCount, targets);

        EXT_CHIP chip{};
        ASSERT_EQ(query(fd, EXT_SC_QUERY_CHIP, 0xFFFF, chip).rec.Status, 0u);
        EXPECT_EQ((std::vector<unsigned long>{chip.VendorId, chip.DeviceId, chip.SubVendorId, chip.SubSystemId,
                                              chip.InterruptLevel}),
                  (std::vector<unsigned long>{std::stoul(attr(pci + "vendor"), nullptr, 16),
                                              std::stoul(attr(pci + "device"), nullptr, 16),
                                              std::stoul(attr(pci + "subsystem_vendor"), nullptr, 16),
                                              std::stoul(attr(pci + "subsystem_device"), nullptr, 16),
                                              std::stoul(attr(pci + "irq"))}));
        unsigned long long io = 0, io_end = 0, mem = 0, mem_end = 0;
        std::sscanf(attr(pci + "resource").c_str(), "%llx %llx %*x %llx %llx", &io, &io_end, &mem, &mem_end);
        EXPECT_EQ((std::vector<unsigned long long>{chip.IoAddr, chip.IoAddrLen, chip.MemAddr, chip.MemAddrLen}),
                  (std::vector<unsigned long long>{io, io_end - io + 1, mem, mem_end - mem + 1}));
        EXPECT_EQ(chip.PcieLinkCap >> 4, std::stoul(attr(pci + "max_link_width")));
        EXPECT_EQ(chip.FlashBlockSize, std::stoul(attr(sh + "flash_block_size")));

        EXT_DRIVER drv{};
        ASSERT_EQ(query(fd, EXT_SC_QUERY_DRIVER, 0xFFFF, drv).rec.Status, 0u);
        EXPECT_EQ(text_of(drv.Version), attr(sh + "driver_version"));
        EXPECT_EQ(drv.MaxDataSegments, std::stoul(attr(sh + "sg_tablesize")));

        EXT_FW fw{};
        ASSERT_EQ(query(fd, EXT_SC_QUERY_FW, 0xFFFF, fw).rec.Status, 0u);
        unsigned v[3] = {};
        std::sscanf(attr(sh + "fw_version").c_str(), "%u.%u.%u", &v[0], &v[1], &v[2]);
        EXPECT_EQ((std::vector<unsigned>{fw.Version[0], fw.Version[1], fw.Version[2]}),
                  (std::vector<unsigned>{v[0], v[1], v[2]}));

        // The VPD is the physical port's "vpd" attribute, byte for byte.
        std::vector<uint8_t> vpd(4096, 0xEE);
        Result r = call(fd, EXT_CC_GET_VPD, 0, 0, 0xFFFF, nullptr, 0, vpd.data(), static_cast<uint32_t>(vpd.size()));
        ASSERT_EQ(r.rc, 0);
        EXPECT_EQ(r.rec.Status, 0u);
        std::vector<uint8_t> want = read_file(pci + "host" + std::to_string(h.function->port.host_no) + "/vpd");
        ASSERT_FALSE(want.empty());
        vpd.resize(want.size());
        EXPECT_EQ(vpd, want);
    }

    // A descriptor without a chosen instance answers for HbaSelect; the port
    // summary reads its type mask from the request buffer.
    int other = ::open("/dev/vxfcdrv", O_RDWR);
    ASSERT_GE(other, 0);
    uint32_t mask = 0x1000;
    std::vector<uint8_t> summary(4096);
    Result r = call(other, EXT_CC_GET_DATA, EXT_SC_GET_PORT_SUMMARY, 0, 1, &mask, sizeof mask, summary.data(),
                    static_cast<uint32_t>(summary.size()));
    ASSERT_EQ(r.rc, 0);
    uint32_t total = 0;
    std::memcpy(&total, summary.data(), 4);
    EXPECT_EQ(total, hosts[1].host->remote_ports.size());
    ::close(other);
    ::close(fd);
}

SIM_TEST(SimIoctl, OlderNodeAnswersRecordsWithThirtyTwoBitAddresses, "legacy") {
    // Records and buffers below 4 GiB, where 32-bit addresses reach.
    void* low = ::mmap(nullptr, 1 << 16, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0);
    ASSERT_NE(low, MAP_FAILED);
    auto* rec = static_cast<EXT_IOCTL_O*>(low);
    auto* node = reinterpret_cast<EXT_HBA_NODE*>(static_cast<uint8_t*>(low) + 1024);
    auto frame = [&](uint16_t subcode, uint16_t instance, void* resp, uint32_t len) {
        std::memset(rec, 0, sizeof *rec);
        std::memcpy(rec->Signature, EXT_SIGNATURE, 4);
        rec->AddrMode = 1;
        rec->Version = EXT_VERSION_O;
        rec->SubCode = subcode;
        rec->Instance = instance;
        rec->ResponseLen = len;
        rec->ResponseAdr = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(resp));
        rec->VendorSpecificData = 2;
    };
    int fd = ::open("/proc/scsi/vxfcdra/HbaApiNode", O_RDWR);
    ASSERT_GE(fd, 0) << std::strerror(errno);

    frame(0, 0, nullptr, 0);
    ASSERT_EQ(::ioctl(fd, EXT_IOCTL_BASE_O | EXT_CC_GET_HBA_CNT, rec), 0) << std::strerror(errno);
    EXPECT_EQ(rec->Instance, 4);
    std::vector<HostInfo> hosts = instances();
    for (uint16_t i : {0, 1}) {
        const HostInfo& h = hosts[i];
        frame(0, i, nullptr, 0);
        ASSERT_EQ(::ioctl(fd, EXT_IOCTL_BASE_O | EXT_CC_SET_INSTANCE, rec), 0);
        EXPECT_EQ(rec->HbaSelect, h.host->host_no);
        frame(EXT_SC_QUERY_HBA_NODE, 0, node, sizeof *node);
        ASSERT_EQ(::ioctl(fd, EXT_IOCTL_BASE_O | EXT_CC_QUERY, rec), 0);
        EXPECT_EQ(rec->Status, 0u);
        EXPECT_EQ(wwn_of(node->WWNN), h.host->wwnn);
    }
    // The Egret's serial number, computed from the node bytes as the library does.
    frame(0, 0, nullptr, 0);
    ASSERT_EQ(::ioctl(fd, EXT_IOCTL_BASE_O | EXT_CC_SET_INSTANCE, rec), 0);
    frame(EXT_SC_QUERY_HBA_NODE, 0, node, sizeof *node);
    ASSERT_EQ(::ioctl(fd, EXT_IOCTL_BASE_O | EXT_CC_QUERY, rec), 0);
    const uint8_t* s = node->SerialNum;
    unsigned n = (s[0] & 0x1Fu) * 65536 + s[2] * 256u + s[1];
    char serial[16];
    std::snprintf(serial, sizeof serial, "%c%05u", 'A' + n / 100000, n % 100000);
    EXPECT_EQ(serial, hosts[0].adapter->serial_number);
    const std::string sent = hex(rec, sizeof *rec);

    errno = 0;
    EXPECT_EQ(::ioctl(fd, ext_ioctl_number(EXT_CC_QUERY), rec), -1);  // the newer number
    EXPECT_EQ(errno, ENOTTY);
    rec->Version = EXT_VERSION;
    ASSERT_EQ(::ioctl(fd, EXT_IOCTL_BASE_O | EXT_CC_QUERY, rec), 0);
    EXPECT_EQ(rec->Status, 13u);  // unsupported version

    std::vector<nlohmann::json> io = journal("ioctl");
    ASSERT_GE(io.size(), 4u);
    const nlohmann::json& last_query = io[io.size() - 3];
    EXPECT_EQ(last_query["generation"], "old");
    EXPECT_EQ(last_query["record"], "EXT_IOCTL_O");
    EXPECT_EQ(last_query["request"], "0xc0047900");
    EXPECT_EQ(last_query["host"], hosts[0].host->host_no);
    EXPECT_EQ(last_query["bytes"], sent);
    EXPECT_EQ(io.back()["status"], 13);
    ::close(fd);
    ::munmap(low, 1 << 16);
}

SIM_TEST(SimIoctl, FaultsStatusesAndBadRequests, "ioctl") {
    int fd = open_newer_node();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(call(fd, EXT_CC_SET_INSTANCE, 0, 0, 0, nullptr, 0, nullptr, 0).rec.Status, 0u);
    const uint64_t wwnn = scenario().adapters[0].functions[0].port.wwnn;

    // Overrun: the record is still filled. The fault names the node query only.
    arm_fault("ioctl", "0xc0747900/1", "status:7");
    EXT_HBA_PORT port{};
    EXPECT_EQ(query(fd, EXT_SC_QUERY_HBA_PORT, 0, port).rec.Status, 0u);
    EXT_HBA_NODE node{};
    Result r = query(fd, EXT_SC_QUERY_HBA_NODE, 0, node);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.rec.Status, 7u);
    EXPECT_EQ(wwn_of(node.WWNN), wwnn);

    // Any other status leaves the response buffer alone.
    arm_fault("ioctl", "0xc0747900", "status:9");
    std::memset(&node, 0xAB, sizeof node);
    EXPECT_EQ(query(fd, EXT_SC_QUERY_HBA_NODE, 0, node).rec.Status, 9u);
    EXPECT_EQ(node.WWNN[0], 0xAB);

    // A failing call changes nothing: the descriptor keeps instance 0.
    arm_fault("ioctl", "0xc07479fe", "eio");
    r = call(fd, EXT_CC_SET_INSTANCE, 0, 1, 0, nullptr, 0, nullptr, 0);
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.err, EIO);
    EXPECT_EQ(query(fd, EXT_SC_QUERY_HBA_NODE, 3, node).rec.Status, 0u);
    EXPECT_EQ(wwn_of(node.WWNN), wwnn);

    r = query(fd, EXT_SC_QUERY_HBA_NODE, 0, node);
    r.rec.ResponseAdr = 8;  // unmapped
    EXPECT_EQ(::ioctl(fd, ext_ioctl_number(EXT_CC_QUERY), &r.rec), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(::ioctl(fd, ext_ioctl_number(EXT_CC_QUERY), reinterpret_cast<void*>(8)), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(::ioctl(fd, EXT_IOCTL_BASE_O | EXT_CC_QUERY, &r.rec), -1);  // the older number
    EXPECT_EQ(errno, ENOTTY);
    r.rec.Signature ^= 1;
    ASSERT_EQ(::ioctl(fd, ext_ioctl_number(EXT_CC_QUERY), &r.rec), 0);
    EXPECT_EQ(r.rec.Status, 13u);
    EXPECT_EQ(call(fd, EXT_CC_SEND_SCSI_PASSTHRU, 0, 0, 0, nullptr, 0, nullptr, 0).rec.Status, 20u);

    // The journal holds each record byte for byte as it was sent, before the
    // driver wrote the host number into it.
    r = call(fd, EXT_CC_SET_INSTANCE, 0, 0, 0x1234, nullptr, 0, nullptr, 0);
    ASSERT_EQ(r.rec.HbaSelect, scenario().adapters[0].functions[0].port.host_no);
    EXT_IOCTL sent = r.rec;
    sent.HbaSelect = 0x1234;
    nlohmann::json last = journal("ioctl").back();
    EXPECT_EQ(last["bytes"], hex(&sent, sizeof sent));
    EXPECT_EQ(last["bytes"].get<std::string>().substr(0, 16), "5641524e45580000");        // "VARNEX\0\0"
    EXPECT_EQ(last["bytes"].get<std::string>().substr(76 * 2, 16), "0200000000000000");  // VendorSpecificData
    EXPECT_EQ(last["generation"], "new");
    EXPECT_EQ(last["command"], "EXT_CC_SET_INSTANCE");
    EXPECT_EQ(last["hba_select"], 0x1234);
    EXPECT_EQ(last["host"], r.rec.HbaSelect);
    EXPECT_EQ(last["status"], 0);
    ::close(fd);
}
