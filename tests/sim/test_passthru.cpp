// SCSI and CT pass-through through the exported interface, on the sysfs
// channel and both extended-ioctl generations, by target id and by port
// name: the canned commands against every kind of simulated target, the
// REPORT LUNS probe, sense reaching the caller, and the fabric's name
// server. Requests are checked in the journal.
#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "libtest.h"
#include "vsdmgt.h"

namespace {

namespace st = vxsim::test;
using Bytes = std::vector<uint8_t>;

constexpr uint64_t HOST2 = 0x2100001d5a025142;    // the Swift's first port
constexpr uint64_t HOST3 = 0x2100001d5a025143;    // its second: a loop, or a target refusing REPORT LUNS
constexpr uint64_t DISKS = 0x5006016008601a00;    // target 0 behind host 2
constexpr uint64_t TAPE = 0x5006016808601a01;     // target 1 behind host 2: LUN 0 is a tape
constexpr uint64_t BLOCKED = 0x5006016008601b00;  // target 2 behind host 2, "Blocked"
constexpr uint64_t REFUSER = 0x5006016008601c00;  // target 0 behind host 3

using st::be;

using st::hex;

int port_handle(uint64_t wwpn) {
    for (SD_UINT32 i = 0, n = SDGetNumberOfAdapters(); i < n; ++i) {
        int h = 0;
        DEVICEPORTPROPERTY p{};
        if (SDOpenDevice(i, &h) == 0 && SDGetHbaDevicePortProperty(h, 0, &p) == 0 && be(p.WWN, 8) == wwpn)
            return h;
    }
    ADD_FAILURE() << "no port " << std::hex << wwpn;
    return 0;
}

TARGETINFORMATION target(uint16_t tid, uint16_t lun) {
    TARGETINFORMATION t{};
    t.BusNumber = 7;  // not used: the bus is always 0
    t.TargetID = tid;
    t.LUN = lun;
    return t;
}

DESTINATIONADDRESS dest(uint64_t wwpn, uint16_t lun) {
    DESTINATIONADDRESS d{};
    d.AddressType = SDM_ADDRESS_WWPN;
    for (int i = 7; i >= 0; --i, wwpn >>= 8)
        d.AddressUsing.WWPN[i] = static_cast<uint8_t>(wwpn);
    d.LunNumber = lun;
    return d;
}

enum Op { INQUIRY, READ_CAPACITY, REPORT_LUNS };
constexpr SD_UINT32 (*BY_TARGET[])(int, TARGETINFORMATION*, void*, SD_UINT32, SD_UINT8*, SD_UINT32) = {
    SDSendScsiInquiryCmd, SDSendScsiReadCapacityCmd, SDSendScsiReportLunsCmd};
constexpr SD_UINT32 (*BY_NAME[])(int, DESTINATIONADDRESS*, void*, SD_UINT32, SD_UINT8*, SD_UINT32) = {
    SDSendScsiInquiryCmdFC, SDSendScsiReadCapacityCmdFC, SDSendScsiReportLunsCmdFC};

// A canned command to LUN `lun` of the target with id `tid` and port name
// `wwpn`, by port name when `fc`; `lun` comes back as the call left it.
SD_UINT32 canned(int h, bool fc, Op op, uint16_t tid, uint64_t wwpn, uint16_t& lun, void* buf, uint32_t size,
                 uint8_t* sense = nullptr, uint32_t sense_size = 0) {
    TARGETINFORMATION t = target(tid, lun);
    DESTINATIONADDRESS d = dest(wwpn, lun);
    const SD_UINT32 st = fc ? BY_NAME[op](h, &d, buf, size, sense, sense_size)
                            : BY_TARGET[op](h, &t, buf, size, sense, sense_size);
    lun = fc ? d.LunNumber : t.LUN;
    return st;
}

bool on_sysfs() { return st::scenario().adapters.front().channel == vxsim::Channel::Sysfs; }

// The SCSI requests the driver saw, "<cdb>@<lun>": pass-through records on an
// ioctl node, SG_IO on the LUNs' nodes (midlayer LUN numbers).
std::vector<std::string> scsi_requests() {
    std::vector<std::string> out;
    for (const nlohmann::json& j : st::journal(on_sysfs() ? "sg" : "ioctl"))
        if (on_sysfs() || j.value("command", "") == "EXT_CC_SEND_SCSI_PASSTHRU")
            out.push_back(j.value("cdb", "") + "@" + std::to_string(j.value("lun", -1)));
    return out;
}

#define ON_EVERY_CHANNEL(Name, Body)                            \
    SIM_TEST(Passthru, Name##Sysfs, "default.json") { Body(); } \
    SIM_TEST(Passthru, Name##Ioctl, "ioctl.json") { Body(); }   \
    SIM_TEST(Passthru, Name##Legacy, "legacy.json") { Body(); }

void canned_commands() {
    const int h = port_handle(HOST2);
    for (const bool fc : {false, true}) {
        uint16_t lun = 0;
        Bytes inq(1024, 0xEE);
        EXPECT_EQ(canned(h, fc, INQUIRY, 0, DISKS, lun, inq.data(), 1024), 0u);
        EXPECT_EQ(std::string(inq.begin() + 8, inq.begin() + 36), "VARNEX  SIMDISK         0001");
        EXPECT_EQ(inq[96], 0xEE) << "the target sent 96 bytes";
        // LUN 2 has 41943040 blocks, flat-space LUN 256 4194304.
        for (auto [l, last] : {std::pair<uint16_t, uint32_t>{2, 41943039}, {256, 4194303}}) {
            uint8_t cap[8];
            EXPECT_EQ(canned(h, fc, READ_CAPACITY, 0, DISKS, l, cap, 8), 0u);
            EXPECT_EQ(be(cap, 8), uint64_t(last) << 32 | 512) << fc << " " << l;
        }
        uint8_t luns[64];
        EXPECT_EQ(canned(h, fc, REPORT_LUNS, 0, DISKS, lun, luns, 64), 0u);
        EXPECT_EQ(hex(luns, 48), "000000280000000000000000000000000001000000000000000200000000000041000000000000004401"
                                 "000000000000");
    }
    // Each once per form; the large LUN by the number each channel knows it by.
    const std::vector<std::string> once = {"12000000ff00@0", "25000000000000000000@2",
                                           on_sysfs() ? "25000000000000000000@16640" : "25000000000000000000@256",
                                           "a00000000000000000400000@0"};
    std::vector<std::string> both = once;
    both.insert(both.end(), once.begin(), once.end());
    EXPECT_EQ(scsi_requests(), both);
}

ON_EVERY_CHANNEL(CannedCommands, canned_commands)

void report_luns_probe() {
    const int h = port_handle(HOST3);
    for (const bool fc : {false, true}) {
        uint16_t lun = 0;
        Bytes list(1024 + 16, 0xEE);  // 16 guard bytes
        uint8_t sense[20];
        EXPECT_EQ(canned(h, fc, REPORT_LUNS, 0, REFUSER, lun, list.data(), 1024, sense, 20),
                  SDM_STATUS_NOT_FROM_DEVICE);
        EXPECT_EQ(hex(list.data(), 24), "00000010eeeeeeee00000000000000000001000000000000");
        EXPECT_TRUE(std::all_of(list.begin() + 24, list.begin() + 136, [](uint8_t b) { return b == 0; }));
        EXPECT_TRUE(std::all_of(list.begin() + 136, list.end(), [](uint8_t b) { return b == 0xEE; }));
        EXPECT_EQ(hex(sense, 18), "700005000000000a00000000200000000000") << "the refusal's sense";
        EXPECT_EQ(lun, 255);
    }
    // REPORT LUNS, then READ CAPACITY to LUNs 0-255; over sysfs only to
    // the LUNs that have a node.
    const std::vector<std::string> seen = scsi_requests();
    const size_t probes = on_sysfs() ? 2 : 256;
    ASSERT_EQ(seen.size(), 2 * (1 + probes));
    EXPECT_EQ(seen[0], "a00000000000000004000000@0");
    EXPECT_EQ(seen[1], "25000000000000000000@0");
    EXPECT_EQ(seen[probes], "25000000000000000000@" + std::to_string(probes - 1));
}

ON_EVERY_CHANNEL(ReportLunsProbe, report_luns_probe)

void check_conditions() {
    const int h = port_handle(HOST2);
    for (const bool fc : {false, true}) {
        // READ CAPACITY of a tape: ILLEGAL REQUEST, INVALID COMMAND OPERATION CODE.
        TARGETINFORMATION t = target(1, 0);
        DESTINATIONADDRESS d = dest(TAPE, 0);
        uint8_t cdb[10] = {0x25}, cap[8];
        Bytes sense(300 + 8, 0xEE);  // 8 guard bytes
        EXPECT_EQ(fc ? SDSendScsiPassThruFC(h, &d, cdb, 10, nullptr, 0, cap, 8, sense.data(), 300)
                     : SDSendScsiPassThru(h, &t, cdb, 10, nullptr, 0, cap, 8, sense.data(), 300),
                  SDM_STATUS_SCSI_CHECK_CONDITION);
        EXPECT_EQ(hex(sense.data(), 18), "700005000000000a00000000200000000000");
        // Cleared after the sense: all the buffer, or the FC form's 256 bytes of room.
        const size_t cleared = fc ? 256 : 300;
        EXPECT_TRUE(std::all_of(sense.begin() + 18, sense.begin() + cleared, [](uint8_t b) { return b == 0; }));
        EXPECT_TRUE(std::all_of(sense.begin() + cleared, sense.end(), [](uint8_t b) { return b == 0xEE; }));

        // A blocked target, a port name nobody has; a response buffer shorter
        // than READ CAPACITY's 8 bytes gets what fits.
        Bytes buf(8 + 8, 0xEE);
        uint16_t lun = 0;
        EXPECT_EQ(canned(h, fc, INQUIRY, 2, BLOCKED, lun, buf.data(), 8), SDM_STATUS_DEVICE_NOT_FOUND);
        EXPECT_EQ(canned(h, true, INQUIRY, 0, 0x5006016000000000, lun, buf.data(), 8), SDM_STATUS_DEVICE_NOT_FOUND);
        EXPECT_EQ(buf, Bytes(16, 0xEE));
        lun = 2;
        EXPECT_EQ(canned(h, fc, READ_CAPACITY, 0, DISKS, lun, buf.data(), 7), SDM_STATUS_DATA_OVERRUN);
        EXPECT_EQ(hex(buf.data(), 16), "027fffff000002eeeeeeeeeeeeeeeeee");
    }
}

ON_EVERY_CHANNEL(CheckConditions, check_conditions)

// A busy target and a reserved one behind host 2; host 3 on a private loop.
std::string kinds_host(const std::string& channel) {
    const std::string driver = channel == "legacy" ? R"(, "driver_name": "vxfcdra")" : "";
    return R"({"name": "kinds", "adapters": [{"id": "swift0", "device_id": "0x1051", "channel": ")" + channel +
           "\"" + driver + R"(, "functions": [
        {"pci_address": "0000:05:00.0", "port": {"host_no": 2, "wwpn": "21:00:00:1d:5a:02:51:42",
         "port_id": "0x010200", "fabric_name": "10:00:00:05:1e:34:00:b0", "remote_ports": [
           {"number": 0, "wwpn": "50:06:01:60:08:60:2a:00", "port_id": "0x010400", "scsi_target_id": 0,
            "target_kind": "busy", "luns": [{"lun": 0}]},
           {"number": 1, "wwpn": "50:06:01:60:08:60:2b:00", "port_id": "0x010500", "scsi_target_id": 1,
            "target_kind": "reservation_conflict", "luns": [{"lun": 0}, {"lun": 1}]}]}},
        {"pci_address": "0000:05:00.1", "port": {"host_no": 3, "wwpn": "21:00:00:1d:5a:02:51:43",
         "port_id": "0x0000e8", "link_state": "Link Up - Loop"}}]}]})";
}

void target_kinds() {
    const int h = port_handle(HOST2);
    const uint64_t busy = 0x5006016008602a00, reserved = 0x5006016008602b00;
    for (const bool fc : {false, true}) {
        Bytes buf(64, 0xEE);
        for (const Op op : {INQUIRY, READ_CAPACITY, REPORT_LUNS}) {
            uint16_t lun = 0;
            EXPECT_EQ(canned(h, fc, op, 0, busy, lun, buf.data(), 64), SDM_STATUS_SCSI_BUSY) << op;
            EXPECT_EQ(lun, 0) << "busy is no reason to probe";
        }
        EXPECT_EQ(buf, Bytes(64, 0xEE));
        uint16_t lun = 1;
        EXPECT_EQ(canned(h, fc, INQUIRY, 1, reserved, lun, buf.data(), 64), 0u);
        EXPECT_EQ(canned(h, fc, READ_CAPACITY, 1, reserved, lun, buf.data(), 8), SDM_STATUS_SCSI_RESERVATION_CONFLICT);
        EXPECT_EQ(canned(h, fc, REPORT_LUNS, 1, reserved, lun, buf.data(), 64), 0u);
        EXPECT_EQ(be(buf.data(), 4), 16u);
    }
    EXPECT_EQ(scsi_requests().size(), 12u);

    // A loop port has no name server: refused before the driver.
    uint8_t ct[20] = {1, 0, 0, 0, 0xFC, 0x02, 0, 0, 0x01, 0x71, 0, 0, 0, 0, 0, 0, 0, 0, 0, 8};
    Bytes resp(64, 0xEE);
    const int loop = port_handle(HOST3);
    const size_t before = st::journal(on_sysfs() ? "bsg" : "ioctl").size();
    EXPECT_EQ(SDSendCTPassThru(loop, ct, sizeof ct, resp.data(), 64), SDM_STATUS_UNKNOWN_ERROR);
    EXPECT_EQ(st::journal(on_sysfs() ? "bsg" : "ioctl").size(), before);
    EXPECT_EQ(resp, Bytes(64, 0xEE));
}

SIM_TEST(Passthru, TargetKindsSysfs, kinds_host("sysfs").c_str()) { target_kinds(); }
SIM_TEST(Passthru, TargetKindsIoctl, kinds_host("ioctl").c_str()) { target_kinds(); }
SIM_TEST(Passthru, TargetKindsLegacy, kinds_host("legacy").c_str()) { target_kinds(); }

Bytes ct_request(uint16_t command, uint32_t word) {
    Bytes r = {1, 0, 0, 0, 0xFC, 0x02, 0, 0, static_cast<uint8_t>(command >> 8), static_cast<uint8_t>(command)};
    r.resize(16);
    for (int i = 3; i >= 0; --i)
        r.push_back(static_cast<uint8_t>(word >> (8 * i)));
    return r;
}

// Port id -> port and node name of everything registered with the fabric of
// host port `wwpn` that takes FCP: the host ports on that fabric and their
// remote ports that are present.
std::map<uint32_t, std::pair<uint64_t, uint64_t>> fcp_ports(uint64_t wwpn) {
    std::vector<const vxsim::HostPort*> hosts;
    for (const vxsim::Adapter& a : st::scenario().adapters)
        for (const vxsim::PciFunction& f : a.functions) {
            hosts.push_back(&f.port);
            for (const vxsim::HostPort& v : f.vports)
                hosts.push_back(&v);
        }
    uint64_t fabric = 0;
    for (const vxsim::HostPort* p : hosts)
        fabric = p->wwpn == wwpn ? p->fabric_name : fabric;
    std::map<uint32_t, std::pair<uint64_t, uint64_t>> ports;
    for (const vxsim::HostPort* p : hosts) {
        if (p->fabric_name != fabric || p->link_state.find("F_Port") == std::string::npos)
            continue;
        ports.emplace(p->port_id, std::pair{p->wwpn, p->wwnn});
        for (const vxsim::RemotePort& r : p->remote_ports)
            if (r.state != "Not Present" && r.roles.find("FCP") != std::string::npos)
                ports.emplace(r.port_id, std::pair{r.wwpn, r.wwnn});
    }
    return ports;
}

void name_server() {
    const int h = port_handle(HOST2);
    Bytes resp(1024);
    Bytes gid_ft = ct_request(0x0171, 8);  // FC-4 type FCP, the whole fabric
    ASSERT_EQ(SDSendCTPassThru(h, gid_ft.data(), 20, resp.data(), 1024), 0u);
    ASSERT_EQ(be(resp.data() + 8, 2), 0x8002u) << "accept";
    auto name_of = [&](uint16_t command, uint32_t id) {  // GPN_ID, GNN_ID
        Bytes req = ct_request(command, id), reply(24);
        EXPECT_EQ(SDSendCTPassThru(h, req.data(), 20, reply.data(), 24), 0u);
        return be(&reply[16], 8);
    };
    std::map<uint32_t, std::pair<uint64_t, uint64_t>> listed;
    for (size_t at = 16; at + 4 <= resp.size(); at += 4) {
        const auto id = static_cast<uint32_t>(be(&resp[at + 1], 3));
        listed[id] = {name_of(0x0112, id), name_of(0x0113, id)};
        if (resp[at] & 0x80)  // the last entry
            break;
    }
    EXPECT_EQ(listed, fcp_ports(HOST2));

    // A reply longer than the caller's buffer: what fits, and an overrun.
    Bytes cut(20 + 8, 0xEE);
    EXPECT_EQ(SDSendCTPassThru(h, gid_ft.data(), 20, cut.data(), 20), SDM_STATUS_DATA_OVERRUN);
    EXPECT_EQ(Bytes(cut.begin(), cut.begin() + 20), Bytes(resp.begin(), resp.begin() + 20));
    EXPECT_EQ(Bytes(cut.begin() + 20, cut.end()), Bytes(8, 0xEE));

    // Every request went to the name server as a CT request.
    size_t sent = 0;
    for (const nlohmann::json& j : st::journal(on_sysfs() ? "bsg" : "ioctl"))
        if (j.value("msgcode", "") == "0x80000004" || j.value("command", "") == "EXT_CC_SEND_CT_PASSTHRU") {
            EXPECT_EQ(j["gs_type"], 0xFC);
            EXPECT_EQ(j["node"], on_sysfs() ? "bsg_host" : j["node"]);
            ++sent;
        }
    EXPECT_EQ(sent, 2 * listed.size() + 2);
}

ON_EVERY_CHANNEL(NameServer, name_server)

}  // namespace
