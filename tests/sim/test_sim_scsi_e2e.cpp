// SCSI, CT and ELS requests through the preload, sent raw on each channel's
// node as a management tool would: SG_IO on the LUNs' nodes, pass-through
// records on both extended-ioctl generations, bsg on the FC nodes.
#include <dirent.h>
#include <fcntl.h>
#include <linux/bsg.h>
#include <scsi/sg.h>
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

using Bytes = std::vector<uint8_t>;

// The one entry of a sysfs directory such as .../2:0:0:1/block.
std::string only_entry(const std::string& dir) {
    std::string name;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d))
            if (e->d_name[0] != '.')
                name = e->d_name;
        ::closedir(d);
    }
    return name;
}

struct SgResult {
    int rc;
    sg_io_hdr_t h;
    Bytes data, sense;
};

SgResult sg_io(int fd, Bytes cdb, size_t len) {
    SgResult r{};
    r.data.assign(len, 0);
    r.sense.assign(32, 0);
    r.h.interface_id = 'S';
    r.h.dxfer_direction = SG_DXFER_FROM_DEV;
    r.h.cmd_len = static_cast<uint8_t>(cdb.size());
    r.h.cmdp = cdb.data();
    r.h.dxfer_len = static_cast<unsigned>(len);
    r.h.dxferp = r.data.data();
    r.h.mx_sb_len = static_cast<uint8_t>(r.sense.size());
    r.h.sbp = r.sense.data();
    errno = 0;
    r.rc = ::ioctl(fd, SG_IO, &r.h);
    r.data.resize(len - static_cast<size_t>(r.h.resid));
    r.sense.resize(r.h.sb_len_wr);
    return r;
}

// A node made from a sysfs dev file, the way the library makes its bsg nodes.
int open_node(const std::string& dev_file, const std::string& path) {
    unsigned major = 0, minor = 0;
    std::sscanf(read_text(dev_file).c_str(), "%u:%u", &major, &minor);
    EXPECT_EQ(::mknod(path.c_str(), S_IFCHR | 0600, major * 256 + minor), 0) << std::strerror(errno);
    return ::open(path.c_str(), O_RDWR);
}

const Bytes INQUIRY{0x12, 0, 0, 0, 96, 0};
const Bytes REPORT_LUNS{0xA0, 0, 0, 0, 0, 0, 0, 0, 0, 64, 0, 0};

Bytes fixed_sense(uint8_t key, uint8_t asc) {
    Bytes s(18, 0);
    s[0] = 0x70;
    s[2] = key;
    s[7] = 10;
    s[12] = asc;
    return s;
}

}  // namespace

// The library opens a LUN's disk, else its SCSI generic node, by the names
// under bus/scsi/devices, read-only for commands that only read.
SIM_TEST(SimScsi, LunNodesAnswerSgIo, "default.json") {
    const std::string disk = only_entry("/sys/bus/scsi/devices/2:0:0:16640/block");
    int d = ::open(("/dev/" + disk).c_str(), O_NONBLOCK);
    ASSERT_GE(d, 0) << disk << ": " << std::strerror(errno);
    SgResult r = sg_io(d, INQUIRY, 96);
    ASSERT_EQ(r.rc, 0) << std::strerror(errno);
    EXPECT_EQ(std::string(r.data.begin() + 8, r.data.begin() + 24), "VARNEX  SIMDISK ");
    // The second port's target rejects REPORT LUNS.
    int g = ::open(("/dev/" + only_entry("/sys/bus/scsi/devices/3:0:0:1/scsi_generic")).c_str(), O_NONBLOCK);
    ASSERT_GE(g, 0);
    EXPECT_EQ(sg_io(g, REPORT_LUNS, 64).sense, fixed_sense(0x05, 0x20));
    arm_fault("sg", "0x12", "ebusy");
    EXPECT_EQ(sg_io(g, INQUIRY, 96).rc, -1);
    EXPECT_EQ(errno, EBUSY);

    std::vector<nlohmann::json> sg = journal("sg");
    ASSERT_EQ(sg.size(), 3u);
    EXPECT_EQ(std::vector<nlohmann::json>({sg[0]["node"], sg[0]["name"], sg[0]["host"], sg[0]["lun"], sg[0]["cdb"],
                                           sg[0]["status"], sg[0]["data_len"]}),
              std::vector<nlohmann::json>({"disk", disk, 2, 16640, "120000006000", 0, 96}));
    EXPECT_EQ(sg[1]["sense"], "700005000000000a000000002000000000" "00");
    EXPECT_EQ(sg[2]["errno"], "EBUSY");
}

// The newer node: a check condition's sense comes back in the record.
SIM_TEST(SimScsi, IoctlPassThroughNewerNode, "ioctl") {
    unsigned major = 0, minor = 0;
    std::sscanf(read_text("/sys/class/vxfcdrv/vxfcdrv/dev").c_str(), "%u:%u", &major, &minor);
    ASSERT_EQ(::mknod("/dev/vxfcdrv", S_IFCHR | 0600, major * 256 + minor), 0);
    int fd = ::open("/dev/vxfcdrv", O_RDWR);
    ASSERT_GE(fd, 0);
    EXT_SCSI_PASSTHRU pt{};
    pt.Direction = EXT_DEF_SCSI_DIR_IN;
    pt.CdbLength = 12;
    std::memcpy(pt.Cdb, REPORT_LUNS.data(), 12);
    pt.SenseLength = 256;
    Bytes data(64, 0xEE);
    EXT_IOCTL io{};
    std::memcpy(&io.Signature, EXT_SIGNATURE, 8);
    io.AddrMode = 1;
    io.Version = EXT_VERSION;
    io.HbaSelect = 3;  // the second Swift port: instances are hosts 7, 2, 8, 3
    io.RequestLen = sizeof pt;
    io.RequestAdr = reinterpret_cast<uintptr_t>(&pt);
    io.ResponseLen = 64;
    io.ResponseAdr = reinterpret_cast<uintptr_t>(data.data());
    io.VendorSpecificData = EXT_VENDOR_SPECIFIC_DATA;
    ASSERT_EQ(::ioctl(fd, ext_ioctl_number(EXT_CC_SEND_SCSI_PASSTHRU), &io), 0) << std::strerror(errno);
    EXPECT_EQ(io.Status, EXT_STATUS_SCSI_STATUS);
    EXPECT_EQ(io.DetailStatus, EXT_SCSI_STATUS_CHECK_CONDITION);
    EXPECT_EQ(pt.SenseLength, 18);
    EXPECT_EQ(Bytes(pt.SenseData, pt.SenseData + 18), fixed_sense(0x05, 0x20));
    EXPECT_EQ(data[0], 0xEE);
    const nlohmann::json j = journal("ioctl").back();
    EXPECT_EQ(std::vector<nlohmann::json>({j["command"], j["host"], j["cdb"], j["detail_status"]}),
              std::vector<nlohmann::json>({"EXT_CC_SEND_SCSI_PASSTHRU", 3, "a00000000000000000400000", 2}));
}

// The older node: 32-bit addresses, a CT request to the name server.
SIM_TEST(SimScsi, IoctlCtOlderNode, "legacy") {
    int fd = ::open("/proc/scsi/vxfcdra/HbaApiNode", O_RDWR);
    ASSERT_GE(fd, 0);
    auto* low = static_cast<uint8_t*>(::mmap(nullptr, 1 << 16, PROT_READ | PROT_WRITE,
                                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0));
    ASSERT_NE(low, MAP_FAILED);
    auto* rec = reinterpret_cast<EXT_IOCTL_O*>(low);
    uint8_t *req = low + 256, *resp = low + 4096;
    // GID_FT for FCP: host 2 and its vport, and their remote ports, once each.
    const Bytes gid_ft{1, 0, 0, 0, 0xFC, 0x02, 0, 0, 0x01, 0x71, 0, 0, 0, 0, 0, 0, 0, 0, 0, 8};
    std::memcpy(req, gid_ft.data(), gid_ft.size());
    std::memcpy(rec->Signature, EXT_SIGNATURE, 4);
    rec->AddrMode = 1;
    rec->Version = EXT_VERSION_O;
    rec->HbaSelect = 1;  // host 2
    rec->RequestLen = static_cast<uint32_t>(gid_ft.size());
    rec->RequestAdr = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(req));
    rec->ResponseLen = 1024;
    rec->ResponseAdr = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(resp));
    rec->VendorSpecificData = 2;
    ASSERT_EQ(::ioctl(fd, EXT_IOCTL_BASE_O | EXT_CC_SEND_CT_PASSTHRU, rec), 0) << std::strerror(errno);
    ASSERT_EQ(rec->Status, 0u);
    EXPECT_EQ(Bytes(resp + 8, resp + 10), (Bytes{0x80, 0x02}));
    const Bytes ids{0, 1, 2, 0, 0, 1, 2, 1, 0, 1, 4, 0, 0, 1, 5, 0, 0, 1, 6, 0, 0x80, 1, 7, 0};
    EXPECT_EQ(Bytes(resp + 16, resp + 16 + ids.size()), ids);
    EXPECT_EQ(journal("ioctl").back()["ct_response"], "0x8002");
    ::munmap(low, 1 << 16);
}

// bsg: the name server through the host's node with the library's CT
// header, ELS through a remote port's node.
SIM_TEST(SimScsi, BsgCtAndEls, "default.json") {
    int host = open_node("/sys/class/bsg/fc_host2/dev", "/tmp/t2");
    int rport = open_node("/sys/class/bsg/rport-2:0-0/dev", "/tmp/2:0-0");
    ASSERT_TRUE(host >= 0 && rport >= 0) << std::strerror(errno);
    auto send = [](int fd, Bytes request, Bytes out, Bytes& in, uint8_t (&reply)[16]) {
        sg_io_v4 h{};
        h.guard = 'Q';
        h.subprotocol = BSG_SUB_PROTOCOL_SCSI_TRANSPORT;
        h.request_len = static_cast<uint32_t>(request.size());
        h.request = reinterpret_cast<uintptr_t>(request.data());
        h.max_response_len = sizeof reply;
        h.response = reinterpret_cast<uintptr_t>(reply);
        h.dout_xfer_len = static_cast<uint32_t>(out.size());
        h.dout_xferp = reinterpret_cast<uintptr_t>(out.data());
        h.din_xfer_len = static_cast<uint32_t>(in.size());
        h.din_xferp = reinterpret_cast<uintptr_t>(in.data());
        return ::ioctl(fd, SG_IO, &h);
    };
    uint8_t reply[16];
    Bytes in(64);
    // GPN_ID of the blocked target; the request framed as the library frames it.
    const Bytes ct{1, 0, 0, 0, 0xFC, 0x02, 0, 0, 0x01, 0x12, 0, 0, 0, 0, 0, 0, 0, 0x01, 0x07, 0x00};
    const Bytes ct_req{0x04, 0, 0, 0x80, 0, 0xFC, 0xFF, 0xFF, 0, 0, 0, 1, 0, 0, 2, 0xFC, 0, 0, 1, 0x12};
    ASSERT_EQ(send(host, ct_req, ct, in, reply), 0) << std::strerror(errno);
    EXPECT_EQ(Bytes(in.begin() + 8, in.begin() + 10), (Bytes{0x80, 0x02}));
    EXPECT_EQ(Bytes(in.begin() + 16, in.begin() + 24), (Bytes{0x50, 0x06, 0x01, 0x60, 0x08, 0x60, 0x1b, 0x00}));
    // RNID to the first target.
    const Bytes els_req{0x01, 0, 0, 0x40, 0x78};
    ASSERT_EQ(send(rport, els_req, {0x78, 0, 0, 0, 0, 0, 0, 0}, in, reply), 0) << std::strerror(errno);
    EXPECT_EQ(Bytes(in.begin(), in.begin() + 16),
              (Bytes{0x02, 0, 0, 0, 0, 16, 0, 0, 0x50, 0x06, 0x01, 0x60, 0x08, 0x60, 0x1a, 0x00}));
    std::vector<nlohmann::json> bsg = journal("bsg");
    ASSERT_EQ(bsg.size(), 2u);
    EXPECT_EQ(bsg[0]["port_id"], "0xfcffff");
    EXPECT_EQ(bsg[0]["ct_command"], "0x0112");
    EXPECT_EQ(bsg[0]["ct_response"], "0x8002");
    EXPECT_EQ(bsg[1]["els_code"], 0x78);
    EXPECT_EQ(bsg[1]["els_response"], "LS_ACC");
}
