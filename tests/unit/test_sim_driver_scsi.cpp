// The simulated SCSI targets, the name server and ELS answers, and how the
// extended-ioctl pass-through frames them, in-process.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <linux/bsg.h>
#include <scsi/sg.h>

#include "endpoints.h"
#include "fabric.h"
#include "vx_fc_bsg.h"
#include "ioctl.h"
#include "scsi_target.h"

using namespace vxsim;
using namespace vxsim::drv;

namespace {

using Bytes = std::vector<uint8_t>;

// Host 1 on a fabric with one target of each kind, an initiator, a blocked
// target and the name server's own address; host 2 (a vport) on the same
// fabric sees one of them again; host 3 is on a private loop.
const char* const MODEL = R"({"adapters": [
  {"id": "a", "device_id": "0x2050", "channel": "ioctl", "functions": [{"pci_address": "0000:03:00.0",
   "port": {"host_no": 1, "wwpn": "0x2100001d5a000001", "wwnn": "0x2000001d5a000001", "port_id": "0x010100",
     "fabric_name": "0x100000051e000001", "symbolic_name": "host one", "remote_ports": [
     {"number": 0, "wwpn": "0x500601600000000a", "wwnn": "0x500601680000000a", "port_id": "0x010400",
      "scsi_target_id": 0, "luns": [{"lun": 3, "vendor": "ACME", "product": "DISK3", "blocks": "0x200000000"},
        {"lun": 0, "blocks": 2048, "block_size": 4096}, {"lun": 16640}, {"lun": 5, "peripheral_type": 1, "blocks": 0}]},
     {"number": 1, "wwpn": "0x500601600000000b", "port_id": "0x010500", "scsi_target_id": 1,
      "target_kind": "rejects_report_luns", "luns": [{"lun": 0}, {"lun": 3}]},
     {"number": 2, "wwpn": "0x500601600000000c", "port_id": "0x010600", "scsi_target_id": 2,
      "target_kind": "busy", "luns": [{"lun": 0}]},
     {"number": 3, "wwpn": "0x500601600000000d", "port_id": "0x010700", "scsi_target_id": 3,
      "target_kind": "reservation_conflict", "luns": [{"lun": 0}]},
     {"number": 4, "wwpn": "0x210000e08b000001", "port_id": "0x010800", "roles": "FCP Initiator"},
     {"number": 5, "wwpn": "0x500601600000000e", "port_id": "0x010900", "state": "Blocked", "scsi_target_id": 5,
      "luns": [{"lun": 0}]},
     {"number": 6, "wwpn": "0x21fc000000000000", "port_id": "0xfffffc", "roles": "unknown"},
     {"number": 7, "wwpn": "0x500601600000000f", "port_id": "0x020100", "fc4_types": [8, 5]}]},
   "vports": [{"host_no": 2, "wwpn": "0x2101001d5a000001", "port_id": "0x010101",
     "fabric_name": "0x100000051e000001", "remote_ports": [
     {"number": 0, "wwpn": "0x500601600000000a", "port_id": "0x010400", "scsi_target_id": 0, "luns": [{"lun": 0}]}]}]}]},
  {"id": "b", "device_id": "0x2050", "channel": "ioctl", "functions": [{"pci_address": "0000:04:00.0",
   "port": {"host_no": 3, "link_state": "Link Up - Loop", "fabric_name": "0x100000051e000001",
     "remote_ports": [{"number": 0, "wwpn": "0x5006016000000011", "port_id": "0x0000e8", "scsi_target_id": 0,
       "luns": [{"lun": 0}]}]}}]}
]})";

class Scsi : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(parse_scenario(MODEL, scenario_, error)) << error;
        sim_ = std::make_unique<Sim>("/nonexistent", scenario_, std::map<std::pair<unsigned, unsigned>, DeviceEntry>{});
        ports_ = ioctl_ports(sim_->scenario(), NodeKind::Ioctl, "");
        ASSERT_EQ(ports_.size(), 3u);
    }
    const HostPort& host(uint32_t n) const { return *find_host_port(sim_->scenario(), n); }
    const RemotePort& target(size_t i) const { return host(1).remote_ports.at(i); }

    Scenario scenario_;
    std::unique_ptr<Sim> sim_;
    std::vector<IoctlPort> ports_;
};

Bytes sense_of(SenseCode c) { return fixed_sense(c); }

TEST_F(Scsi, TargetsAnswerByKindLunAndCommand) {
    struct Case {
        const char* what;
        size_t target;
        uint32_t lun;
        Bytes cdb;
        uint8_t status;
        Bytes sense;  // empty: none
        size_t data;
    };
    const Bytes inquiry{0x12, 0, 0, 0, 255, 0}, readcap{0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0},
        luns{0xA0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0}, tur{0, 0, 0, 0, 0, 0};
    const Case cases[] = {
        {"standard inquiry", 0, 3, inquiry, 0x00, {}, 96},
        {"inquiry of a LUN the target lacks", 0, 9, inquiry, 0x00, {}, 96},
        {"page code without EVPD", 0, 0, {0x12, 0, 0x80, 0, 255, 0}, 0x02, sense_of(INVALID_FIELD_IN_CDB), 0},
        {"unknown VPD page", 0, 0, {0x12, 1, 0x55, 0, 255, 0}, 0x02, sense_of(INVALID_FIELD_IN_CDB), 0},
        {"read capacity", 0, 0, readcap, 0x00, {}, 8},
        {"read capacity, no such LUN", 0, 9, readcap, 0x02, sense_of(LOGICAL_UNIT_NOT_SUPPORTED), 0},
        {"read capacity of a tape", 0, 5, readcap, 0x02, sense_of(INVALID_COMMAND_OPERATION_CODE), 0},
        {"report luns to any LUN", 0, 9, luns, 0x00, {}, 40},
        {"unknown opcode", 0, 0, {0xC1, 0, 0, 0, 0, 0}, 0x02, sense_of(INVALID_COMMAND_OPERATION_CODE), 0},
        {"test unit ready", 0, 0, tur, 0x00, {}, 0},
        {"request sense", 0, 0, {0x03, 0, 0, 0, 18, 0}, 0x00, {}, 18},
        {"rejecting target: report luns", 1, 0, luns, 0x02, sense_of(INVALID_COMMAND_OPERATION_CODE), 0},
        {"rejecting target: read capacity", 1, 3, readcap, 0x00, {}, 8},
        {"busy target", 2, 0, inquiry, 0x08, {}, 0},
        {"reservation: inquiry passes", 3, 0, inquiry, 0x00, {}, 96},
        {"reservation: test unit ready", 3, 0, tur, 0x18, {}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const RemotePort& t = target(c.target);
        ScsiOutcome o = scsi_execute(t, find_lun(t, c.lun), c.cdb.data(), c.cdb.size());
        EXPECT_EQ(o.status, c.status);
        EXPECT_EQ(o.sense, c.sense);
        EXPECT_EQ(o.data.size(), c.data);
    }
}

TEST_F(Scsi, AnswerBytes) {
    const RemotePort& t = target(0);
    auto run = [&](uint32_t lun, Bytes cdb) { return scsi_execute(t, find_lun(t, lun), cdb.data(), cdb.size()).data; };
    Bytes inq = run(3, {0x12, 0, 0, 0, 96, 0});
    EXPECT_EQ(inq[0], 0x00);
    EXPECT_EQ(std::string(inq.begin() + 8, inq.begin() + 36), "ACME    DISK3           0001");
    EXPECT_EQ(run(5, {0x12, 0, 0, 0, 1, 0}), Bytes{0x01});  // tape
    EXPECT_EQ(run(9, {0x12, 0, 0, 0, 1, 0}), Bytes{0x7F});  // no LUN here
    // Capacities: 4096-byte blocks; a LUN past 2^32 blocks says so in (10), exactly in (16).
    EXPECT_EQ(run(0, {0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}), (Bytes{0, 0, 0x07, 0xFF, 0, 0, 0x10, 0}));
    EXPECT_EQ(run(3, {0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}), (Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 2, 0}));
    Bytes rc16 = run(3, {0x9E, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 12, 0, 0});
    EXPECT_EQ(rc16, (Bytes{0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 2, 0}));
    // REPORT LUNS: sorted, peripheral and flat addressing; a short allocation keeps the full length.
    Bytes list = run(0, {0xA0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0});
    Bytes want{0, 0, 0, 32, 0, 0, 0, 0};
    for (Bytes lun : {Bytes{0, 0}, Bytes{0, 3}, Bytes{0, 5}, Bytes{0x41, 0x00}}) {
        lun.resize(8);
        want.insert(want.end(), lun.begin(), lun.end());
    }
    EXPECT_EQ(list, want);
    EXPECT_EQ(run(0, {0xA0, 0, 0, 0, 0, 0, 0, 0, 0, 16, 0, 0}), Bytes(want.begin(), want.begin() + 16));
    // Flat LUN 256 is found by its midlayer number and by its own number.
    EXPECT_EQ(find_lun(t, 16640), find_lun(t, 256));
    EXPECT_NE(find_lun(t, 256), nullptr);
    EXPECT_EQ(find_lun(t, 4), nullptr);
    // VPD: the page list, the serial number, two designators.
    EXPECT_EQ(run(0, {0x12, 1, 0x00, 0, 255, 0}), (Bytes{0, 0, 0, 3, 0x00, 0x80, 0x83}));
    Bytes serial = run(0, {0x12, 1, 0x80, 0, 255, 0});
    EXPECT_EQ(std::string(serial.begin() + 4, serial.end()), "VX01600000000A0000");
    Bytes ids = run(0, {0x12, 1, 0x83, 0, 255, 0});
    ASSERT_EQ(ids.size(), 4u + 20 + 12);
    EXPECT_EQ(ids[4 + 20 + 1], 0x93);  // the target port's name
    EXPECT_EQ(Bytes(ids.end() - 8, ids.end()), (Bytes{0x50, 0x06, 0x01, 0x60, 0, 0, 0, 0x0A}));
}

TEST_F(Scsi, NameServerHoldsTheFabricsPortsOnce) {
    std::vector<NsEntry> db = name_server_entries(sim_->scenario(), host(1));
    std::vector<uint32_t> ids;
    for (const NsEntry& e : db)
        ids.push_back(e.port_id);
    // Host 1, its vport, their remote ports (the shared one once), not 0xfffffc.
    EXPECT_EQ(ids, (std::vector<uint32_t>{0x010100, 0x010101, 0x010400, 0x010500, 0x010600, 0x010700, 0x010800,
                                          0x010900, 0x020100}));
    EXPECT_EQ(db[0].symbolic_port_name, "host one");
    EXPECT_EQ(db[0].fabric_port_name, 0x200100051E000001ull);  // from the switch's name and the area
    EXPECT_EQ(name_server_entries(sim_->scenario(), host(2)).size(), db.size());
    EXPECT_TRUE(name_server_entries(sim_->scenario(), host(3)).empty());  // a loop has none
}

Bytes ct(uint16_t command, Bytes args, uint16_t max_words = 0) {
    Bytes r{0x01, 0, 0, 0, GS_TYPE_DIRECTORY, GS_SUBTYPE_NAME_SERVER, 0, 0, static_cast<uint8_t>(command >> 8),
            static_cast<uint8_t>(command), static_cast<uint8_t>(max_words >> 8), static_cast<uint8_t>(max_words),
            0, 0, 0, 0};
    r.insert(r.end(), args.begin(), args.end());
    return r;
}

TEST_F(Scsi, NameServerAcceptsAndRejects) {
    const std::vector<NsEntry> db = name_server_entries(sim_->scenario(), host(1));
    struct Case {
        const char* what;
        Bytes req;
        uint16_t code;
        uint8_t reason, explanation;
        Bytes payload;  // accepts: the payload's first bytes; its size when `whole`
        bool whole;
    };
    const Bytes fcp_all{0, 1, 1, 0, 0, 1, 1, 1, 0, 1, 4, 0, 0, 1, 5, 0, 0, 1, 6, 0, 0, 1, 7, 0, 0, 1, 8, 0, 0, 1, 9,
                        0, 0x80, 2, 1, 0};
    const Case cases[] = {
        {"GID_FT of FCP", ct(CT_GID_FT, {0, 0, 0, 8}), CT_ACCEPT, 0, 0, fcp_all, true},
        {"GID_FT cut at two words", ct(CT_GID_FT, {0, 0, 0, 8}, 2), CT_ACCEPT, 0, 0, {0, 1, 1, 0, 0, 1, 1, 1}, true},
        {"GID_FT of FC-4 type 5", ct(CT_GID_FT, {0, 0, 0, 5}), CT_ACCEPT, 0, 0, {0x80, 0x02, 0x01, 0x00}, true},
        {"GID_FT in area 1.5", ct(CT_GID_FT, {0, 1, 5, 8}), CT_ACCEPT, 0, 0, {0x80, 0x01, 0x05, 0x00}, true},
        {"GID_FT of an unused type", ct(CT_GID_FT, {0, 0, 0, 0x20}), CT_REJECT, 0x09, 0x07, {}, true},
        {"GPN_ID", ct(CT_GPN_ID, {0, 0x01, 0x05, 0x00}), CT_ACCEPT, 0, 0, {0x50, 0x06, 0x01, 0x60, 0, 0, 0, 0x0B}, true},
        {"GNN_ID", ct(CT_GNN_ID, {0, 0x01, 0x04, 0x00}), CT_ACCEPT, 0, 0, {0x50, 0x06, 0x01, 0x68, 0, 0, 0, 0x0A}, true},
        {"GPN_ID of nobody", ct(CT_GPN_ID, {0, 0x0A, 0x0B, 0x0C}), CT_REJECT, 0x09, 0x01, {}, true},
        {"GID_PN", ct(CT_GID_PN, {0x50, 0x06, 0x01, 0x60, 0, 0, 0, 0x0D}), CT_ACCEPT, 0, 0, {0, 1, 7, 0}, true},
        {"GID_PN of a name nobody has", ct(CT_GID_PN, Bytes(8, 0x77)), CT_REJECT, 0x09, 0x02, {}, true},
        {"GFT_ID", ct(CT_GFT_ID, {0, 0x02, 0x01, 0x00}), CT_ACCEPT, 0, 0, {0, 0, 1, 0x20, 0, 0, 0, 0}, false},
        {"GA_NXT: the next port up", ct(CT_GA_NXT, {0, 0x01, 0x04, 0x00}), CT_ACCEPT, 0, 0,
         {0x01, 0x01, 0x05, 0x00, 0x50, 0x06, 0x01, 0x60, 0, 0, 0, 0x0B}, false},
        {"GA_NXT: round to the first", ct(CT_GA_NXT, {0, 0x02, 0x01, 0x00}), CT_ACCEPT, 0, 0,
         {0x01, 0x01, 0x01, 0x00, 0x21, 0, 0, 0x1d, 0x5a, 0, 0, 1, 8, 'h', 'o', 's', 't'}, false},
        {"GPN_ID without its argument", ct(CT_GPN_ID, {0, 1}), CT_REJECT, 0x04, 0, {}, true},
        {"unknown command", ct(0x0199, {0, 0, 0, 0}), CT_REJECT, 0x01, 0, {}, true},
        {"another service", [] { Bytes r = ct(CT_GID_FT, {0, 0, 0, 8}); r[4] = 0xFA; return r; }(), CT_REJECT, 0x0B,
         0, {}, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        CtAnswer a = name_server(db, c.req.data(), c.req.size());
        ASSERT_GE(a.bytes.size(), CT_HEADER_SIZE);
        EXPECT_EQ((a.bytes[8] << 8) | a.bytes[9], c.code);
        EXPECT_EQ(a.bytes[13], c.reason);
        EXPECT_EQ(a.bytes[14], c.explanation);
        EXPECT_EQ(Bytes(a.bytes.begin(), a.bytes.begin() + 8), Bytes(c.req.begin(), c.req.begin() + 8));
        Bytes payload(a.bytes.begin() + CT_HEADER_SIZE, a.bytes.end());
        if (!c.whole)
            payload.resize(std::min(payload.size(), c.payload.size()));
        EXPECT_EQ(payload, c.payload);
    }
    const Bytes cut = name_server(db, cases[1].req.data(), cases[1].req.size()).bytes;
    EXPECT_EQ((cut[10] << 8) | cut[11], 7) << "the words left out";
    EXPECT_EQ(name_server(db, cases[11].req.data(), 20).bytes.size(), CT_HEADER_SIZE + GA_NXT_SIZE);
    EXPECT_EQ(name_server({}, cases[11].req.data(), 20).code, CT_REJECT) << "GA_NXT of an empty fabric";
}

TEST_F(Scsi, ElsAnswers) {
    const RemotePort& t = target(0);
    const Bytes echo{ELS_ECHO, 0, 0, 0, 'p', 'i', 'n', 'g'};
    ElsAnswer a = els_answer(host(1), t, echo.data(), echo.size());
    EXPECT_TRUE(a.accepted);
    EXPECT_EQ(a.bytes, (Bytes{ELS_LS_ACC, 0, 0, 0, 'p', 'i', 'n', 'g'}));
    for (uint8_t format : {uint8_t(0x00), uint8_t(0x10), uint8_t(RNID_FORMAT_TOPOLOGY)}) {
        const Bytes rnid{ELS_RNID, 0, 0, 0, format, 0, 0, 0};
        a = els_answer(host(1), t, rnid.data(), rnid.size());
        const bool topology = format == RNID_FORMAT_TOPOLOGY;
        ASSERT_EQ(a.bytes.size(), topology ? 76u : 24u) << int(format);
        EXPECT_EQ(Bytes(a.bytes.begin(), a.bytes.begin() + 8), (Bytes{ELS_LS_ACC, 0, 0, 0, topology ? format : uint8_t(0), 16, 0,
                                                                        uint8_t(topology ? 52 : 0)}));
        EXPECT_EQ(Bytes(a.bytes.begin() + 8, a.bytes.begin() + 16), (Bytes{0x50, 0x06, 0x01, 0x60, 0, 0, 0, 0x0A}));
    }
    const Bytes plogi{0x03, 0, 0, 0};
    a = els_answer(host(1), t, plogi.data(), plogi.size());
    EXPECT_FALSE(a.accepted);
    EXPECT_EQ(a.bytes, (Bytes{ELS_LS_RJT, 0, 0, 0, 0, LS_RJT_NOT_SUPPORTED, 0, 0}));
    EXPECT_EQ(els_answer(host(1), t, plogi.data(), 2).reason, LS_RJT_LOGICAL_ERROR);
}

// RLS and RPS answer only for the port they name, and only well-formed
// requests (the accepted answers are compared end to end); RPS reports a
// loop port as such.
TEST_F(Scsi, LinkStatusRefusalsAndLoopStatus) {
    const RemotePort& t = target(0);
    auto request = [](uint8_t code, uint8_t flag, uint64_t selection) {
        Bytes r{code, 0, 0, 0, 0, 0, 0, flag};
        for (int i = 7; i >= 0; --i)
            r.push_back(uint8_t(selection >> (8 * i)));
        return r;
    };
    const uint32_t other_id = t.port_id ^ 1;
    const struct {
        Bytes req;
        size_t len;
        uint8_t reason;
    } cases[] = {
        {{ELS_RLS, 0, 0, 0, 0, uint8_t(other_id >> 16), uint8_t(other_id >> 8), uint8_t(other_id)}, 8,
         LS_RJT_UNABLE_TO_PERFORM},
        {{ELS_RLS, 0, 0, 0}, 4, LS_RJT_LOGICAL_ERROR},
        {request(ELS_RPS, RPS_BY_PORT_NAME, t.wwpn ^ 1), 16, LS_RJT_UNABLE_TO_PERFORM},
        {request(ELS_RPS, 3, t.wwpn), 16, LS_RJT_LOGICAL_ERROR},
        {request(ELS_RPS, 0, 0), 12, LS_RJT_LOGICAL_ERROR},
    };
    for (const auto& c : cases) {
        const ElsAnswer a = els_answer(host(1), t, c.req.data(), c.len);
        EXPECT_EQ(a.bytes, (Bytes{ELS_LS_RJT, 0, 0, 0, 0, c.reason, 0, 0})) << int(c.req[0]) << "/" << c.len;
    }
    const Bytes itself = request(ELS_RPS, 0, 0);
    const ElsAnswer looped = els_answer(host(3), host(3).remote_ports.at(0), itself.data(), itself.size());
    ASSERT_EQ(looped.bytes.size(), RPS_ACC_SIZE);
    EXPECT_EQ(looped.bytes[11], 0x08) << "on a loop, no fabric";
}

// ---- extended-ioctl framing ----

template <class Rec>
IoctlRequest passthru(const Rec& rec, uint16_t subcode, uint32_t response_len) {
    IoctlRequest r{EXT_CC_SEND_SCSI_PASSTHRU, subcode, 0, 0, {}, response_len};
    r.request.assign(reinterpret_cast<const uint8_t*>(&rec), reinterpret_cast<const uint8_t*>(&rec) + sizeof rec);
    return r;
}

template <class Rec>
void command(Rec& rec, Bytes cdb, uint8_t direction, uint16_t sense_room) {
    rec.Direction = direction;
    rec.CdbLength = static_cast<uint8_t>(cdb.size());
    if (!cdb.empty())
        std::memcpy(rec.Cdb, cdb.data(), std::min<size_t>(cdb.size(), sizeof rec.Cdb));
    rec.SenseLength = sense_room;
}

TEST_F(Scsi, IoctlScsiPassThroughFramesStatusDataAndSense) {
    struct Case {
        const char* what;
        uint16_t target, lun;
        Bytes cdb;
        uint8_t direction;
        uint16_t sense_room;
        uint32_t response_len;
        uint32_t status, detail;
        size_t response, sense;
    };
    const Bytes inquiry{0x12, 0, 0, 0, 255, 0}, readcap{0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    const Case cases[] = {
        {"inquiry", 0, 3, inquiry, 1, 256, 1024, 0, 0, 96, 0},
        {"more data than the buffer", 0, 3, inquiry, 1, 256, 7, 7, 0, 7, 0},
        {"no data direction", 0, 3, inquiry, 0, 256, 1024, 7, 0, 0, 0},
        {"check condition", 0, 9, readcap, 1, 256, 8, 15, 0x02, 0, 18},
        {"sense cut to the room", 0, 9, readcap, 1, 8, 8, 15, 0x02, 0, 8},
        {"busy", 2, 0, inquiry, 1, 256, 1024, 15, 0x08, 0, 0},
        {"reservation conflict", 3, 0, readcap, 1, 256, 8, 15, 0x18, 0, 0},
        {"no CDB", 0, 0, {}, 1, 256, 8, 6, 0, 0, 0},
        {"bad direction", 0, 0, readcap, 3, 256, 8, 6, 0, 0, 0},
        {"no such target", 9, 0, readcap, 1, 256, 8, 9, 0, 0, 0},
        {"blocked target", 5, 0, readcap, 1, 256, 8, 9, 0, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXT_SCSI_PASSTHRU rec{};
        rec.TargetAddr.Target = c.target;
        rec.TargetAddr.Lun = c.lun;
        command(rec, c.cdb, c.direction, c.sense_room);
        IoctlAnswer a = ioctl_dispatch(*sim_, ports_, 0, passthru(rec, 0, c.response_len));
        EXPECT_EQ(a.status, c.status);
        EXPECT_EQ(a.detail, c.detail);
        EXPECT_EQ(a.response.size(), c.response);
        if (c.status == 0 || c.status == 7 || c.status == 15) {
            ASSERT_EQ(a.request_back.size(), sizeof rec);
            EXT_SCSI_PASSTHRU back;
            std::memcpy(&back, a.request_back.data(), sizeof back);
            EXPECT_EQ(back.SenseLength, c.sense);
            const Bytes sense = sense_of(LOGICAL_UNIT_NOT_SUPPORTED);
            EXPECT_EQ(Bytes(back.SenseData, back.SenseData + c.sense), Bytes(sense.begin(), sense.begin() + c.sense));
            EXPECT_EQ(std::memcmp(&back, &rec, offsetof(EXT_SCSI_PASSTHRU, SenseLength)), 0);
        } else {
            EXPECT_TRUE(a.request_back.empty());
        }
    }
    // A CDB of 17 bytes cannot be framed; one cut short is not read.
    EXT_SCSI_PASSTHRU rec{};
    command(rec, inquiry, 1, 0);
    rec.CdbLength = 17;
    EXPECT_EQ(ioctl_dispatch(*sim_, ports_, 0, passthru(rec, 0, 8)).status, 6u);
    IoctlRequest shorter = passthru(rec, 0, 8);
    shorter.request.resize(351);
    EXPECT_EQ(ioctl_dispatch(*sim_, ports_, 0, shorter).status, 6u);
}

TEST_F(Scsi, IoctlFcPassThroughFindsThePortByEachName) {
    struct Case {
        const char* what;
        uint16_t type;
        Bytes dest;
        uint32_t status;
    };
    const Case cases[] = {
        {"WWPN", EXT_DEF_DESTTYPE_WWPN, {0x50, 0x06, 0x01, 0x60, 0, 0, 0, 0x0B}, 0},
        {"port id", EXT_DEF_DESTTYPE_PORTID, {0, 0x01, 0x05, 0x00}, 0},
        {"an initiator", EXT_DEF_DESTTYPE_WWPN, {0x21, 0, 0, 0xe0, 0x8b, 0, 0, 1}, 9},
        {"unknown address type", 4, {0x50, 0x06, 0x01, 0x60, 0, 0, 0, 0x0B}, 6},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXT_FC_SCSI_PASSTHRU rec{};
        rec.FCScsiAddr.DestType = c.type;
        rec.FCScsiAddr.Lun = 3;
        std::memcpy(rec.FCScsiAddr.DestAddr.WWPN, c.dest.data(), c.dest.size());
        command(rec, {0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 1, 256);
        IoctlAnswer a = ioctl_dispatch(*sim_, ports_, 0, passthru(rec, 1, 8));
        EXPECT_EQ(a.status, c.status);
        EXPECT_EQ(a.response.size(), c.status ? 0u : 8u);
    }
    EXT_FC_SCSI_PASSTHRU rec{};
    EXPECT_EQ(ioctl_dispatch(*sim_, ports_, 0, passthru(rec, 2, 8)).status, 12u);
}

TEST_F(Scsi, IoctlCtAndElsStatuses) {
    auto status = [&](int32_t port, uint8_t command, Bytes bytes, uint32_t response_len) {
        return ioctl_dispatch(*sim_, ports_, port, {command, 0, 0, 0, std::move(bytes), response_len}).status;
    };
    const Bytes gid_ft = ct(CT_GID_FT, {0, 0, 0, 8});
    EXPECT_EQ(status(0, EXT_CC_SEND_CT_PASSTHRU, gid_ft, 20), 7u) << "the caller's buffer cuts the accept";
    EXPECT_EQ(status(2, EXT_CC_SEND_CT_PASSTHRU, gid_ft, 1024), 14u) << "a loop port reaches no name server";
    EXPECT_EQ(status(0, EXT_CC_SEND_CT_PASSTHRU, Bytes(15, 1), 1024), 6u);
    // ELS: the head names the port by WWPN unless the mask says otherwise.
    EXT_ELS_PT_REQ head{};
    head.ValidMask = EXT_DEF_ELS_VALID_PORTID;
    head.Id[1] = 0x01;
    head.Id[2] = 0x07;
    Bytes els(reinterpret_cast<uint8_t*>(&head), reinterpret_cast<uint8_t*>(&head) + sizeof head);
    EXPECT_EQ(status(0, EXT_CC_SEND_ELS_PASSTHRU, els, 64), 6u) << "an empty payload";
    els.insert(els.end(), {ELS_ECHO, 0, 0, 0, 1, 2});
    IoctlAnswer a = ioctl_dispatch(*sim_, ports_, 0, {EXT_CC_SEND_ELS_PASSTHRU, 0, 0, 0, els, 64});
    EXPECT_EQ(a.response, (Bytes{ELS_LS_ACC, 0, 0, 0, 1, 2}));
    EXPECT_EQ(a.journal["dest"], "0x010700");
    els[20] = 0;  // by WWPN: nobody has 0
    EXPECT_EQ(status(0, EXT_CC_SEND_ELS_PASSTHRU, els, 64), 9u);
}

// ---- bsg and SCSI generic nodes ----

Bytes msg(uint32_t code, Bytes rest) {
    Bytes r(4);
    std::memcpy(r.data(), &code, 4);
    r.insert(r.end(), rest.begin(), rest.end());
    return r;
}

struct BsgCall {
    long result;
    sg_io_v4 h;
    fc_bsg_reply reply;
    Bytes in;
};

BsgCall bsg(const Sim& sim, NodeKind kind, const char* rport, uint32_t host, Bytes req, Bytes out,
            uint32_t max_response = sizeof(fc_bsg_reply)) {
    Desc d;
    d.kind = kind;
    d.host = host;
    d.rport = rport;
    BsgCall c{};
    c.reply.result = 12345;
    c.in.assign(64, 0xEE);
    c.h.guard = 'Q';
    c.h.subprotocol = BSG_SUB_PROTOCOL_SCSI_TRANSPORT;
    c.h.request_len = static_cast<uint32_t>(req.size());
    c.h.request = reinterpret_cast<uintptr_t>(req.data());
    c.h.max_response_len = max_response;
    c.h.response = reinterpret_cast<uintptr_t>(&c.reply);
    c.h.dout_xfer_len = static_cast<uint32_t>(out.size());
    c.h.dout_xferp = reinterpret_cast<uintptr_t>(out.data());
    c.h.din_xfer_len = static_cast<uint32_t>(c.in.size());
    c.h.din_xferp = reinterpret_cast<uintptr_t>(c.in.data());
    c.result = endpoint_bsg(sim, d, &c.h);
    return c;
}

TEST_F(Scsi, BsgCarriesCtAndElsAsTheTransportDoes) {
    Bytes gid_ft = ct(CT_GID_FT, {0, 0, 0, 5});
    // The library's CT header: the GS type one byte late, then 0xff 0xff.
    const Bytes lib_ct = msg(FC_BSG_HST_CT, {0, 0xFC, 0xFF, 0xFF, 0, 0, 0, 1, 0, 0, 2, 0xFC, 0, 0, 1, 0x71});
    const Bytes echo{ELS_ECHO, 0, 0, 0, 9, 8};
    const Bytes rpt_els = msg(FC_BSG_RPT_ELS, {ELS_ECHO});
    const NodeKind H = NodeKind::BsgHost, R = NodeKind::BsgRport;
    struct Case {
        const char* what;
        NodeKind kind;
        const char* rport;
        uint32_t host;
        Bytes request, payload;
        long result;
        uint32_t ctels_status;
        Bytes reply;  // first bytes of the reply payload
    };
    const Case cases[] = {
        {"name server through the host", H, "", 1, lib_ct, gid_ft, 0, 0, {0x01, 0, 0, 0, 0xFC, 0x02}},
        {"a loop port has no name server", H, "", 3, lib_ct, gid_ft, -ENXIO, 0, {}},
        {"CT to the name server's port", R, "rport-1:0-6", 1, msg(FC_BSG_RPT_CT, Bytes(12, 0)), gid_ft, 0, 0,
         {0x01, 0, 0, 0, 0xFC, 0x02, 0, 0, 0x80, 0x02}},
        {"CT to a target", R, "rport-1:0-0", 1, msg(FC_BSG_RPT_CT, Bytes(12, 0)), gid_ft, 0, 0,
         {0x01, 0, 0, 0, 0xFC, 0x02, 0, 0, 0x80, 0x01, 0, 0, 0, 0x0B}},
        {"ECHO to a remote port", R, "rport-1:0-0", 1, rpt_els, echo, 0, 0, {ELS_LS_ACC, 0, 0, 0, 9, 8}},
        {"an ELS it rejects", R, "rport-1:0-0", 1, msg(FC_BSG_RPT_ELS, {0x03}), {0x03, 0, 0, 0}, 0,
         FC_CTELS_STATUS_REJECT, {ELS_LS_RJT, 0, 0, 0, 0, LS_RJT_NOT_SUPPORTED}},
        {"a blocked port", R, "rport-1:0-5", 1, rpt_els, echo, -EIO, 0, {}},
        {"ELS by port id", H, "", 1, msg(FC_BSG_HST_ELS_NOLOGIN, {ELS_ECHO, 0x01, 0x04, 0x00}), echo, 0, 0,
         {ELS_LS_ACC}},
        {"ELS to an address nobody has", H, "", 1, msg(FC_BSG_HST_ELS_NOLOGIN, {ELS_ECHO, 9, 9, 9}), echo, -ENXIO,
         0, {}},
        {"empty ELS payload", R, "rport-1:0-0", 1, rpt_els, {}, -EINVAL, 0, {}},
        {"request too short", R, "rport-1:0-0", 1, msg(FC_BSG_RPT_ELS, {}), echo, -ENOMSG, 0, {}},
        {"rport message on a host", H, "", 1, rpt_els, echo, -EBADR, 0, {}},
        {"host message on an rport", R, "rport-1:0-0", 1, lib_ct, gid_ft, -EBADR, 0, {}},
        {"vendor command", H, "", 1, msg(FC_BSG_HST_VENDOR, Bytes(16, 0)), {}, -ENOSYS, 0, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        BsgCall r = bsg(*sim_, c.kind, c.rport, c.host, c.request, c.payload);
        EXPECT_EQ(r.result, c.result);
        if (c.result < 0) {
            // A failed job reports its result word only (transport refusals not
            // even that); the header is not updated.
            const bool job = c.result == -ENXIO || c.result == -EIO || c.result == -ENOSYS;
            EXPECT_EQ(r.reply.result, job ? c.result : 12345);
            EXPECT_EQ(r.h.response_len, 0u);
            continue;
        }
        EXPECT_EQ(r.reply.result, 0);
        EXPECT_EQ(r.reply.reply_data.ctels_reply.status, c.ctels_status);
        EXPECT_EQ(r.h.response_len, sizeof r.reply);
        EXPECT_EQ(r.h.din_resid, static_cast<int>(r.in.size() - r.reply.reply_payload_rcv_len));
        EXPECT_EQ(Bytes(r.in.begin(), r.in.begin() + static_cast<long>(c.reply.size())), c.reply);
    }
    // SCSI commands are not for the FC nodes; replies stop at the caller's buffers.
    Desc host1;
    host1.kind = H;
    host1.host = 1;
    sg_io_v4 v4{};
    v4.guard = 'Q';
    EXPECT_EQ(endpoint_bsg(*sim_, host1, &v4), -EINVAL);
    const Bytes plain = msg(FC_BSG_HST_CT, Bytes(16, 0));
    BsgCall cut = bsg(*sim_, H, "", 1, plain, ct(CT_GA_NXT, {0, 0, 0, 0}), 12);
    EXPECT_EQ(cut.reply.reply_payload_rcv_len, 64u);  // of a 636-byte accept
    EXPECT_EQ(cut.h.din_resid, 0);
    EXPECT_EQ(cut.h.response_len, 12u);
}

TEST_F(Scsi, ScsiGenericAndDiskNodes) {
    // sg numbers in scenario order: host 1's target 0 holds sg0-sg3 (LUNs 3, 0, 16640, 5), the blocked one sg8.
    ASSERT_EQ(sim_->scsi().size(), 11u);
    EXPECT_EQ(sim_->sg_device(3)->lun->lun, 5);
    EXPECT_EQ(sim_->disk_device(3)->sg, 4u);  // the tape is no disk
    EXPECT_EQ(sim_->sg_device(11), nullptr);
    struct Case {
        const char* what;
        NodeKind kind;
        uint32_t sg;
        int interface_id;
        Bytes cdb;
        int direction;
        uint8_t mx_sb_len;
        long result;
        uint8_t status;
        uint16_t host_status, driver_status;
        uint8_t sb_len_wr;
        int resid;
    };
    const Bytes inquiry{0x12, 0, 0, 0, 255, 0}, readcap{0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    const Case cases[] = {
        {"inquiry", NodeKind::Sg, 0, 'S', inquiry, SG_DXFER_FROM_DEV, 32, 0, 0, 0, 0, 0, 255 - 96},
        {"check condition", NodeKind::Sg, 3, 'S', readcap, SG_DXFER_FROM_DEV, 32, 0, 2, 0, 0x08, 18, 255},
        {"no room for sense", NodeKind::Sg, 3, 'S', readcap, SG_DXFER_FROM_DEV, 0, 0, 2, 0, 0, 0, 255},
        {"busy", NodeKind::Sg, 6, 'S', inquiry, SG_DXFER_FROM_DEV, 32, 0, 0x08, 0, 0, 0, 255},
        {"blocked port", NodeKind::Sg, 8, 'S', inquiry, SG_DXFER_FROM_DEV, 32, 0, 0, 1, 0, 0, 255},
        {"no data wanted", NodeKind::Sg, 0, 'S', inquiry, SG_DXFER_NONE, 32, 0, 0, 0, 0, 0, 0},
        {"short CDB on sg", NodeKind::Sg, 0, 'S', {0, 0, 0, 0, 0}, SG_DXFER_NONE, 32, -EMSGSIZE, 0, 0, 0, 0, 0},
        {"short CDB on a disk", NodeKind::Disk, 0, 'S', {0, 0, 0, 0, 0}, SG_DXFER_NONE, 32, 0, 0, 0, 0, 0, 0},
        {"17-byte CDB", NodeKind::Disk, 0, 'S', Bytes(17, 0), SG_DXFER_NONE, 32, -EINVAL, 0, 0, 0, 0, 0},
        {"v4 header on sg", NodeKind::Sg, 0, 'Q', inquiry, SG_DXFER_FROM_DEV, 32, -ENOSYS, 0, 0, 0, 0, 0},
        {"v4 header on a disk", NodeKind::Disk, 0, 'Q', inquiry, SG_DXFER_FROM_DEV, 32, -EINVAL, 0, 0, 0, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Desc d;
        d.kind = c.kind;
        d.scsi = c.kind == NodeKind::Disk ? sim_->disk_device(c.sg)->sg : c.sg;
        Bytes data(255, 0xEE), sense(40, 0xEE), cdb = c.cdb;
        sg_io_hdr_t h{};
        h.interface_id = c.interface_id;
        h.dxfer_direction = c.direction;
        h.cmd_len = static_cast<uint8_t>(cdb.size());
        h.cmdp = cdb.data();
        h.dxfer_len = static_cast<unsigned>(data.size());
        h.dxferp = data.data();
        h.mx_sb_len = c.mx_sb_len;
        h.sbp = sense.data();
        EXPECT_EQ(endpoint_sg(*sim_, d, SG_IO, &h), c.result);
        if (c.result)
            continue;
        EXPECT_EQ(h.status, c.status);
        EXPECT_EQ(h.masked_status, c.status >> 1);
        EXPECT_EQ(h.host_status, c.host_status);
        EXPECT_EQ(h.driver_status, c.driver_status);
        EXPECT_EQ(h.sb_len_wr, c.sb_len_wr);
        EXPECT_EQ(h.resid, c.resid);
        EXPECT_EQ(h.info & SG_INFO_CHECK, (c.status || c.host_status || c.driver_status) ? 1u : 0u);
        EXPECT_EQ(sense[c.sb_len_wr], 0xEE) << "nothing past the sense written";
        EXPECT_EQ(sense[0], c.sb_len_wr ? 0x70 : 0xEE);
    }
    Desc d;
    d.kind = NodeKind::Sg;
    int version = 0;
    EXPECT_EQ(endpoint_sg(*sim_, d, SG_GET_VERSION_NUM, &version), 0);
    EXPECT_EQ(version, 30536);
}

}  // namespace
