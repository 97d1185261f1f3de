// SCSI and CT pass-through through the exported interface, on the sysfs
// channel and both extended-ioctl generations, by bus/target/LUN and by
// port name: the canned commands against every kind of simulated target,
// the REPORT LUNS probe, sense reaching the caller, and the fabric's name
// server. Every request is looked for in the journal.
#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "libtest.h"
#include "vsdmgt.h"

namespace {

namespace st = vxsim::test;
using Bytes = std::vector<uint8_t>;
using json = nlohmann::json;

constexpr uint64_t HOST2 = 0x2100001d5a025142;  // the Swift's first port
constexpr uint64_t HOST3 = 0x2100001d5a025143;  // its second, whose target refuses REPORT LUNS
constexpr uint64_t DISKS = 0x5006016008601a00;  // target 0 behind host 2
constexpr uint64_t TAPE = 0x5006016808601a01;   // target 1 behind host 2: LUN 0 is a tape
constexpr uint64_t BLOCKED = 0x5006016008601b00;  // target 2 behind host 2, "Blocked"
constexpr uint64_t REFUSER = 0x5006016008601c00;  // target 0 behind host 3

Bytes wwn(uint64_t v) {
    Bytes out(8);
    for (int i = 7; i >= 0; --i, v >>= 8)
        out[static_cast<size_t>(i)] = static_cast<uint8_t>(v);
    return out;
}

uint64_t be(const uint8_t* p, size_t n) {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i)
        v = v << 8 | p[i];
    return v;
}

std::string hex(const Bytes& b) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string s;
    for (uint8_t v : b) {
        s += DIGITS[v >> 4];
        s += DIGITS[v & 0xF];
    }
    return s;
}

// The open handle of the port with this WWPN; 0 when the host has none.
int port_handle(uint64_t wwpn) {
    const Bytes want = wwn(wwpn);
    const SD_UINT32 n = SDGetNumberOfAdapters();
    for (SD_UINT32 i = 0; i < n; ++i) {
        int h = 0;
        DEVICEPORTPROPERTY p{};
        if (SDOpenDevice(i, &h) == 0 && SDGetHbaDevicePortProperty(h, 0, &p) == 0 &&
            Bytes(p.WWN, p.WWN + 8) == want)
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
    memcpy(d.AddressUsing.WWPN, wwn(wwpn).data(), 8);
    d.LunNumber = lun;
    return d;
}

bool on_sysfs() { return st::scenario().adapters.front().channel == vxsim::Channel::Sysfs; }

// The SCSI requests the driver saw, as "<cdb>@<lun>": pass-through records on
// the ioctl nodes, SG_IO on the LUN nodes (midlayer LUN numbers).
std::vector<std::string> scsi_requests() {
    std::vector<std::string> out;
    for (const json& j : st::journal(on_sysfs() ? "sg" : "ioctl"))
        if (on_sysfs() || j.value("command", "") == "EXT_CC_SEND_SCSI_PASSTHRU")
            out.push_back(j.value("cdb", "") + "@" + std::to_string(j.value("lun", -1)));
    return out;
}

std::string request(const std::string& cdb, unsigned lun) { return cdb + "@" + std::to_string(lun); }

// ---- The canned commands on the disks of target 0 ----

void canned_commands() {
    const int h = port_handle(HOST2);
    const bool sysfs = on_sysfs();
    for (const bool fc : {false, true}) {
        SCOPED_TRACE(fc ? "by port name" : "by target id");
        TARGETINFORMATION t = target(0, 0);
        DESTINATIONADDRESS d = dest(DISKS, 0);
        Bytes inq(1024, 0xEE);
        EXPECT_EQ(fc ? SDSendScsiInquiryCmdFC(h, &d, inq.data(), 1024, nullptr, 0)
                     : SDSendScsiInquiryCmd(h, &t, inq.data(), 1024, nullptr, 0),
                  0u);
        EXPECT_EQ(inq[0], 0x00);  // a disk
        EXPECT_EQ(std::string(inq.begin() + 8, inq.begin() + 36), "VARNEX  SIMDISK         0001");
        EXPECT_EQ(inq[96], 0xEE) << "the target sends 96 bytes";

        // LUN 2 has 41943040 blocks; LUN 256 (flat space) 4194304.
        for (const auto& [lun, last] : {std::pair<uint16_t, uint32_t>{2, 41943039}, {256, 4194303}}) {
            t.LUN = lun;
            d.LunNumber = lun;
            Bytes cap(8, 0xEE);
            Bytes sense(32, 0xEE);
            EXPECT_EQ(fc ? SDSendScsiReadCapacityCmdFC(h, &d, cap.data(), 8, sense.data(), 32)
                         : SDSendScsiReadCapacityCmd(h, &t, cap.data(), 8, sense.data(), 32),
                      0u)
                << lun;
            EXPECT_EQ(be(cap.data(), 4), last) << lun;
            EXPECT_EQ(be(cap.data() + 4, 4), 512u);
            EXPECT_EQ(sense, Bytes(32, 0)) << "cleared, no check condition";
        }

        t.LUN = 0;
        d.LunNumber = 0;
        Bytes luns(64, 0xEE);
        EXPECT_EQ(fc ? SDSendScsiReportLunsCmdFC(h, &d, luns.data(), 64, nullptr, 0)
                     : SDSendScsiReportLunsCmd(h, &t, luns.data(), 64, nullptr, 0),
                  0u);
        EXPECT_EQ(hex(Bytes(luns.begin(), luns.begin() + 48)),
                  "00000028000000000000000000000000000100000000000000020000000000004100000000000000"
                  "4401000000000000");
    }
    // Each command reached the driver once per form, the large LUN by the
    // number each channel knows it by.
    const std::vector<std::string> once = {
        request("12000000ff00", 0), request("25000000000000000000", 2),
        request("25000000000000000000", sysfs ? 16640 : 256), request("a00000000000000000400000", 0)};
    std::vector<std::string> both = once;
    both.insert(both.end(), once.begin(), once.end());
    EXPECT_EQ(scsi_requests(), both);
    if (!sysfs) {
        std::vector<json> io;
        for (const json& j : st::journal("ioctl"))
            if (j.value("command", "") == "EXT_CC_SEND_SCSI_PASSTHRU")
                io.push_back(j);
        // Bus 0 whatever the caller said; the port name in the FC form.
        EXPECT_EQ(io[0]["subcode"], 0);
        EXPECT_EQ(io[0]["bus"], 0);
        EXPECT_EQ(io[0]["target"], 0);
        EXPECT_EQ(io[4]["subcode"], 1);
        EXPECT_EQ(io[4]["dest_type"], 2);
        EXPECT_EQ(io[4]["dest"], hex(wwn(DISKS)));
        EXPECT_EQ(io[0]["request_len"], 352);
        EXPECT_EQ(io[1]["sense_room"], 256);
    }
}

#define ON_EVERY_CHANNEL(Name, Body)                     \
    SIM_TEST(Passthru, Name##Sysfs, "default.json") { Body(); } \
    SIM_TEST(Passthru, Name##Ioctl, "ioctl.json") { Body(); }   \
    SIM_TEST(Passthru, Name##Legacy, "legacy.json") { Body(); }

ON_EVERY_CHANNEL(CannedCommands, canned_commands)

// ---- REPORT LUNS refused: the LUNs found by READ CAPACITY ----

void report_luns_probe() {
    const int h = port_handle(HOST3);
    for (const bool fc : {false, true}) {
        SCOPED_TRACE(fc ? "by port name" : "by target id");
        TARGETINFORMATION t = target(0, 0);
        DESTINATIONADDRESS d = dest(REFUSER, 0);
        Bytes list(1024 + 16, 0xEE);  // the last 16 bytes are guards
        Bytes sense(20, 0xEE);
        const uint32_t status = fc ? SDSendScsiReportLunsCmdFC(h, &d, list.data(), 1024, sense.data(), 20)
                                   : SDSendScsiReportLunsCmd(h, &t, list.data(), 1024, sense.data(), 20);
        EXPECT_EQ(status, SDM_STATUS_NOT_FROM_DEVICE);
        EXPECT_EQ(hex(Bytes(list.begin(), list.begin() + 24)), "00000010eeeeeeee00000000000000000001000000000000");
        EXPECT_TRUE(std::all_of(list.begin() + 24, list.begin() + 136, [](uint8_t b) { return b == 0; }));
        EXPECT_TRUE(std::all_of(list.begin() + 136, list.end(), [](uint8_t b) { return b == 0xEE; }));
        EXPECT_EQ(sense[0], 0x70);
        EXPECT_EQ(sense[2], 0x05);
        EXPECT_EQ(sense[12], 0x20);  // INVALID COMMAND OPERATION CODE
        EXPECT_EQ(fc ? d.LunNumber : t.LUN, 255);
    }
    // One REPORT LUNS, then READ CAPACITY of LUNs 0-255: over sysfs only the
    // LUNs that have a node are asked.
    const std::vector<std::string> seen = scsi_requests();
    const size_t probes = on_sysfs() ? 2 : 256;
    ASSERT_EQ(seen.size(), 2 * (1 + probes));
    EXPECT_EQ(seen[0], request("a00000000000000004000000", 0));
    EXPECT_EQ(seen[1], request("25000000000000000000", 0));
    EXPECT_EQ(seen[probes], request("25000000000000000000", on_sysfs() ? 1 : 255));
}

ON_EVERY_CHANNEL(ReportLunsProbe, report_luns_probe)

// ---- Check conditions, unreachable and unknown targets ----

void check_conditions() {
    const int h = port_handle(HOST2);
    // READ CAPACITY of a tape: ILLEGAL REQUEST, INVALID COMMAND OPERATION CODE.
    TARGETINFORMATION t = target(1, 0);
    DESTINATIONADDRESS d = dest(TAPE, 0);
    uint8_t cdb[10] = {0x25};
    Bytes cap(8, 0xEE);
    Bytes sense(300 + 8, 0xEE);  // 300 bytes and guards
    EXPECT_EQ(SDSendScsiPassThru(h, &t, cdb, 10, nullptr, 0, cap.data(), 8, sense.data(), 300),
              SDM_STATUS_SCSI_CHECK_CONDITION);
    EXPECT_EQ(hex(Bytes(sense.begin(), sense.begin() + 18)), "700005000000000a000000002000000000" "00");
    EXPECT_TRUE(std::all_of(sense.begin() + 18, sense.begin() + 300, [](uint8_t b) { return b == 0; }));
    EXPECT_EQ(Bytes(sense.begin() + 300, sense.end()), Bytes(8, 0xEE));
    std::fill(sense.begin(), sense.end(), 0xEE);
    EXPECT_EQ(SDSendScsiPassThruFC(h, &d, cdb, 10, nullptr, 0, cap.data(), 8, sense.data(), 300),
              SDM_STATUS_SCSI_CHECK_CONDITION);
    EXPECT_EQ(hex(Bytes(sense.begin(), sense.begin() + 18)), "700005000000000a000000002000000000" "00");
    EXPECT_EQ(Bytes(sense.begin() + 256, sense.end()), Bytes(52, 0xEE)) << "the FC form writes 256 at most";
    // Without room for sense the status still tells.
    EXPECT_EQ(SDSendScsiPassThruFC(h, &d, cdb, 10, nullptr, 0, cap.data(), 8, nullptr, 0),
              SDM_STATUS_SCSI_CHECK_CONDITION);

    // A target whose port is blocked, a port name nobody has.
    TARGETINFORMATION blocked = target(2, 0);
    DESTINATIONADDRESS nobody = dest(0x5006016000000000, 0);
    DESTINATIONADDRESS blocked_fc = dest(BLOCKED, 0);
    Bytes inq(96, 0xEE);
    EXPECT_EQ(SDSendScsiInquiryCmd(h, &blocked, inq.data(), 96, nullptr, 0), SDM_STATUS_DEVICE_NOT_FOUND);
    EXPECT_EQ(SDSendScsiInquiryCmdFC(h, &blocked_fc, inq.data(), 96, nullptr, 0), SDM_STATUS_DEVICE_NOT_FOUND);
    EXPECT_EQ(SDSendScsiInquiryCmdFC(h, &nobody, inq.data(), 96, nullptr, 0), SDM_STATUS_DEVICE_NOT_FOUND);
    EXPECT_EQ(inq, Bytes(96, 0xEE));

    // A response buffer shorter than READ CAPACITY's data: the part that fits.
    t = target(0, 2);
    for (const uint32_t size : {7u, 1u}) {
        Bytes small(size + 8, 0xEE);
        EXPECT_EQ(SDSendScsiReadCapacityCmd(h, &t, small.data(), size, nullptr, 0), SDM_STATUS_DATA_OVERRUN);
        EXPECT_EQ(small[0], 0x02);
        EXPECT_EQ(Bytes(small.begin() + size, small.end()), Bytes(8, 0xEE));
    }
}

ON_EVERY_CHANNEL(CheckConditions, check_conditions)

// ---- Targets that misbehave ----

std::string kinds_host(const char* channel) {
    const bool legacy = std::string(channel) == "legacy";
    return std::string(R"({"name": "kinds", "adapters": [{"id": "swift0", "device_id": "0x1051", "channel": ")") +
           (legacy ? "legacy\", \"driver_name\": \"vxfcdra" : channel) + R"(",
      "functions": [
        {"pci_address": "0000:05:00.0", "port": {"host_no": 2, "wwnn": "20:00:00:1d:5a:02:51:42",
         "wwpn": "21:00:00:1d:5a:02:51:42", "port_id": "0x010200", "fabric_name": "10:00:00:05:1e:34:00:b0",
         "remote_ports": [
           {"number": 0, "wwpn": "50:06:01:60:08:60:2a:00", "port_id": "0x010400", "scsi_target_id": 0,
            "target_kind": "busy", "luns": [{"lun": 0}]},
           {"number": 1, "wwpn": "50:06:01:60:08:60:2b:00", "port_id": "0x010500", "scsi_target_id": 1,
            "target_kind": "reservation_conflict", "luns": [{"lun": 0}, {"lun": 1}]}]}},
        {"pci_address": "0000:05:00.1", "port": {"host_no": 3, "wwnn": "20:00:00:1d:5a:02:51:43",
         "wwpn": "21:00:00:1d:5a:02:51:43", "port_id": "0x0000e8", "link_state": "Link Up - Loop"}}]}]})";
}

void target_kinds() {
    const int h = port_handle(HOST2);
    const uint64_t busy = 0x5006016008602a00, reserved = 0x5006016008602b00;
    for (const bool fc : {false, true}) {
        SCOPED_TRACE(fc ? "by port name" : "by target id");
        TARGETINFORMATION tb = target(0, 0), tr = target(1, 1);
        DESTINATIONADDRESS db = dest(busy, 0), dr = dest(reserved, 1);
        Bytes buf(64, 0xEE);
        auto inquiry = [&](bool reservation) {
            return fc ? SDSendScsiInquiryCmdFC(h, reservation ? &dr : &db, buf.data(), 64, nullptr, 0)
                      : SDSendScsiInquiryCmd(h, reservation ? &tr : &tb, buf.data(), 64, nullptr, 0);
        };
        auto capacity = [&](bool reservation) {
            return fc ? SDSendScsiReadCapacityCmdFC(h, reservation ? &dr : &db, buf.data(), 8, nullptr, 0)
                      : SDSendScsiReadCapacityCmd(h, reservation ? &tr : &tb, buf.data(), 8, nullptr, 0);
        };
        auto report = [&](bool reservation) {
            return fc ? SDSendScsiReportLunsCmdFC(h, reservation ? &dr : &db, buf.data(), 64, nullptr, 0)
                      : SDSendScsiReportLunsCmd(h, reservation ? &tr : &tb, buf.data(), 64, nullptr, 0);
        };
        EXPECT_EQ(inquiry(false), SDM_STATUS_SCSI_BUSY);
        EXPECT_EQ(capacity(false), SDM_STATUS_SCSI_BUSY);
        EXPECT_EQ(report(false), SDM_STATUS_SCSI_BUSY) << "busy is no reason to probe";
        EXPECT_EQ(buf, Bytes(64, 0xEE));
        EXPECT_EQ(inquiry(true), 0u);
        EXPECT_EQ(std::string(buf.begin() + 16, buf.begin() + 23), "SIMDISK");
        EXPECT_EQ(capacity(true), SDM_STATUS_SCSI_RESERVATION_CONFLICT);
        EXPECT_EQ(report(true), 0u);
        EXPECT_EQ(be(buf.data(), 4), 16u);
    }
    EXPECT_EQ(scsi_requests().size(), 12u) << "no probing";

    // A loop port has no name server to ask: refused before the driver.
    const int loop = port_handle(HOST3);
    uint8_t ct[20] = {1, 0, 0, 0, 0xFC, 0x02, 0, 0, 0x01, 0x71, 0, 0, 0, 0, 0, 0, 0, 0, 0, 8};
    Bytes resp(64, 0xEE);
    const size_t before = st::journal(on_sysfs() ? "bsg" : "ioctl").size();
    EXPECT_EQ(SDSendCTPassThru(loop, ct, sizeof ct, resp.data(), 64), SDM_STATUS_UNKNOWN_ERROR);
    EXPECT_EQ(st::journal(on_sysfs() ? "bsg" : "ioctl").size(), before);
    EXPECT_EQ(resp, Bytes(64, 0xEE));
}

SIM_TEST(Passthru, TargetKindsSysfs, kinds_host("sysfs").c_str()) { target_kinds(); }
SIM_TEST(Passthru, TargetKindsIoctl, kinds_host("ioctl").c_str()) { target_kinds(); }
SIM_TEST(Passthru, TargetKindsLegacy, kinds_host("legacy").c_str()) { target_kinds(); }

// ---- The fabric's name server ----

Bytes ct_request(uint16_t command, uint32_t word, uint16_t max_words = 0) {
    Bytes r = {1, 0, 0, 0, 0xFC, 0x02, 0, 0, static_cast<uint8_t>(command >> 8), static_cast<uint8_t>(command),
               static_cast<uint8_t>(max_words >> 8), static_cast<uint8_t>(max_words), 0, 0, 0, 0};
    for (int i = 3; i >= 0; --i)
        r.push_back(static_cast<uint8_t>(word >> (8 * i)));
    return r;
}

// The port ids registered with the fabric of `host` that take FCP: host
// ports of the same fabric and their remote ports that are present.
std::vector<uint32_t> fcp_ports(uint64_t wwpn) {
    const vxsim::HostPort* self = nullptr;
    std::vector<const vxsim::HostPort*> hosts;
    for (const vxsim::Adapter& a : st::scenario().adapters)
        for (const vxsim::PciFunction& f : a.functions) {
            hosts.push_back(&f.port);
            for (const vxsim::HostPort& v : f.vports)
                hosts.push_back(&v);
        }
    for (const vxsim::HostPort* p : hosts)
        if (p->wwpn == wwpn)
            self = p;
    std::set<uint32_t> ids;
    for (const vxsim::HostPort* p : hosts) {
        const bool fabric = p->link_state == "Link Up - F_Port" || p->link_state == "Link Up - FL_Port";
        if (!self || p->fabric_name != self->fabric_name || !fabric)
            continue;
        ids.insert(p->port_id);
        for (const vxsim::RemotePort& r : p->remote_ports)
            if (r.state != "Not Present" && r.roles.find("FCP") != std::string::npos)
                ids.insert(r.port_id);
    }
    return {ids.begin(), ids.end()};
}

void name_server() {
    const int h = port_handle(HOST2);
    Bytes resp(1024, 0);
    Bytes gid_ft = ct_request(0x0171, 0x00000008);  // FC-4 type FCP, whole fabric
    ASSERT_EQ(SDSendCTPassThru(h, gid_ft.data(), static_cast<uint32_t>(gid_ft.size()), resp.data(), 1024), 0u);
    ASSERT_EQ(be(resp.data() + 8, 2), 0x8002u) << "accept";
    std::vector<uint32_t> listed;
    for (size_t at = 16; at + 4 <= resp.size(); at += 4) {
        listed.push_back(static_cast<uint32_t>(be(resp.data() + at + 1, 3)));
        if (resp[at] & 0x80)
            break;
    }
    EXPECT_EQ(listed, fcp_ports(HOST2));

    // Each listed port's names, as the scenario has them.
    for (const uint32_t id : listed) {
        for (const uint16_t command : {0x0112, 0x0113}) {
            Bytes req = ct_request(command, id);
            Bytes names(24, 0);
            ASSERT_EQ(SDSendCTPassThru(h, req.data(), static_cast<uint32_t>(req.size()), names.data(), 24), 0u);
            EXPECT_EQ(be(names.data() + 8, 2), 0x8002u) << std::hex << id;
            bool known = false;
            for (const vxsim::Adapter& a : st::scenario().adapters)
                for (const vxsim::PciFunction& f : a.functions) {
                    std::vector<const vxsim::HostPort*> hosts = {&f.port};
                    for (const vxsim::HostPort& v : f.vports)
                        hosts.push_back(&v);
                    for (const vxsim::HostPort* p : hosts) {
                        if (p->port_id == id)
                            known |= be(names.data() + 16, 8) == (command == 0x0112 ? p->wwpn : p->wwnn);
                        for (const vxsim::RemotePort& r : p->remote_ports)
                            if (r.port_id == id)
                                known |= be(names.data() + 16, 8) == (command == 0x0112 ? r.wwpn : r.wwnn);
                    }
                }
            EXPECT_TRUE(known) << std::hex << id << " command " << command;
        }
    }
    // An unregistered id is rejected in the reply itself.
    Bytes req = ct_request(0x0112, 0x0a0200);
    Bytes rej(16, 0);
    EXPECT_EQ(SDSendCTPassThru(h, req.data(), static_cast<uint32_t>(req.size()), rej.data(), 16), 0u);
    EXPECT_EQ(be(rej.data() + 8, 2), 0x8001u);
    EXPECT_EQ(rej[13], 0x09);

    // A reply longer than the caller's buffer: what fits, and the overrun.
    Bytes cut(20 + 8, 0xEE);
    EXPECT_EQ(SDSendCTPassThru(h, gid_ft.data(), static_cast<uint32_t>(gid_ft.size()), cut.data(), 20),
              SDM_STATUS_DATA_OVERRUN);
    EXPECT_EQ(Bytes(cut.begin(), cut.begin() + 20), Bytes(resp.begin(), resp.begin() + 20));
    EXPECT_EQ(Bytes(cut.begin() + 20, cut.end()), Bytes(8, 0xEE));

    // Every request went out as a CT request of the name server's type.
    size_t sent = 0;
    for (const json& j : st::journal(on_sysfs() ? "bsg" : "ioctl")) {
        if (j.value(on_sysfs() ? "msgcode" : "command", "") !=
            (on_sysfs() ? "0x80000004" : "EXT_CC_SEND_CT_PASSTHRU"))
            continue;
        if (on_sysfs()) {
            EXPECT_EQ(j["node"], "bsg_host");
            EXPECT_EQ(j["host"], 2);
        }
        EXPECT_EQ(j["gs_type"], 0xFC);
        EXPECT_EQ(j["gs_subtype"], 0x02);
        ++sent;
    }
    EXPECT_EQ(sent, 2 * listed.size() + 3);
}

ON_EVERY_CHANNEL(NameServer, name_server)

}  // namespace
