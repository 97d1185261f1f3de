// Pass-through in process: the SD layer's refusals and status rules, sense
// in both address forms, the canned commands' CDBs and the REPORT LUNS
// fallback (guard bytes around every caller buffer), the CT fabric rule,
// and the steps every channel shares around its SCSI executor.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "mock_channel.h"
#include "vsdmgt.h"

namespace {

using vxmock::slot;
using Bytes = std::vector<uint8_t>;

constexpr uint8_t GUARD = 0xC5;
constexpr uint32_t IOCTL_PORT = VX_FEAT_IOCTL_NODE | VX_FEAT_NEW_IOCTL;

// A caller buffer of `size` bytes between guard bytes, prefilled with `fill`.
class Guarded {
public:
    explicit Guarded(size_t size, uint8_t fill = GUARD) : bytes_(size + 2 * PAD, GUARD) {
        std::fill(bytes_.begin() + PAD, bytes_.end() - PAD, fill);
    }
    uint8_t* data() { return bytes_.data() + PAD; }
    uint32_t size() const { return static_cast<uint32_t>(bytes_.size() - 2 * PAD); }
    uint8_t operator[](size_t i) const { return bytes_[PAD + i]; }
    Bytes head(size_t n) const { return Bytes(bytes_.begin() + PAD, bytes_.begin() + PAD + n); }
    bool guards_intact() const {
        return std::all_of(bytes_.begin(), bytes_.begin() + PAD, [](uint8_t b) { return b == GUARD; }) &&
               std::all_of(bytes_.end() - PAD, bytes_.end(), [](uint8_t b) { return b == GUARD; });
    }
    // Bytes [from, to) all equal `v`; an empty or reversed range holds.
    bool all(size_t from, size_t to, uint8_t v) const {
        return from >= to || std::all_of(bytes_.begin() + PAD + from, bytes_.begin() + PAD + to, [v](uint8_t b) { return b == v; });
    }

private:
    static constexpr size_t PAD = 16;
    Bytes bytes_;
};

Bytes fixed_sense(uint8_t key, uint8_t asc) {
    Bytes s(18, 0);
    s[0] = 0x70;
    s[2] = key;
    s[7] = 10;
    s[12] = asc;
    return s;
}

class Passthru : public testing::Test {
protected:
    vxmock::registry reg;
    vxmock::channel mock;
    vxapi_priv_database* port = nullptr;
    int h = 0;
    TARGETINFORMATION target{};
    DESTINATIONADDRESS dest{};

    void SetUp() override {
        port = reg.port(IOCTL_PORT, 0x1051);
        ASSERT_NE(port, nullptr);
        mock.install(port);
        h = vxmock::registry::handle(port);
        port->topology = VX_TOPOLOGY_F_PORT;
        target.TargetID = 1;
        target.LUN = 2;
        dest.AddressType = SDM_ADDRESS_WWPN;
        memcpy(dest.AddressUsing.WWPN, "\x50\x06\x01\x60\x08\x60\x1a\x00", 8);
        dest.LunNumber = 2;
    }

    // One request on either form with a 64-byte response and the sense buffer given.
    uint32_t send(bool fc, uint8_t* sense, uint32_t sense_size, void* resp = nullptr, uint32_t resp_size = 0) {
        uint8_t cdb[6] = {0x12, 0, 0, 0, 64, 0};
        uint8_t buf[64];
        if (!resp) {
            resp = buf;
            resp_size = sizeof buf;
        }
        return fc ? SDSendScsiPassThruFC(h, &dest, cdb, 6, nullptr, 0, resp, resp_size, sense, sense_size)
                  : SDSendScsiPassThru(h, &target, cdb, 6, nullptr, 0, resp, resp_size, sense, sense_size);
    }
};

// Refused before any request: nothing reaches the (strict) mock, and the
// guard bytes of every buffer stay.
TEST_F(Passthru, BadInputIsRefusedWithoutARequest) {
    uint8_t cdb[17] = {0x12};
    Guarded resp(16), req(16), sense(32);
    const struct {
        const char* what;
        int handle;
        bool fc;
        uint32_t cdb_len;
        bool with_req, with_resp;
        uint16_t address_type;
        uint32_t status;
    } rows[] = {
        {"17-byte CDB", 0, false, 17, false, true, 2, SDM_STATUS_INVALID_PARAMETER},
        {"empty CDB", 0, false, 0, false, true, 2, SDM_STATUS_INVALID_PARAMETER},
        {"both buffers", 0, false, 6, true, true, 2, SDM_STATUS_INVALID_PARAMETER},
        {"no buffer", 0, false, 6, false, false, 2, SDM_STATUS_INVALID_PARAMETER},
        {"bad handle", 77, false, 6, false, true, 2, SDM_STATUS_INVALID_HANDLE},
        {"FC 17-byte CDB", 0, true, 17, false, true, 2, SDM_STATUS_INVALID_PARAMETER},
        {"FC empty CDB", 0, true, 0, false, true, 2, SDM_STATUS_INVALID_PARAMETER},
        {"FC both buffers", 0, true, 6, true, true, 2, SDM_STATUS_INVALID_PARAMETER},
        {"FC by node name", 0, true, 6, false, true, SDM_ADDRESS_WWNN, SDM_STATUS_INVALID_PARAMETER},
        {"FC by port id", 0, true, 6, false, true, SDM_ADDRESS_PORTID, SDM_STATUS_INVALID_PARAMETER},
        {"FC unknown type", 0, true, 6, false, true, 9, SDM_STATUS_INVALID_PARAMETER},
        {"FC bad handle", -1, true, 6, false, true, 2, SDM_STATUS_INVALID_HANDLE},
    };
    for (const auto& r : rows) {
        dest.AddressType = r.address_type;
        const int handle = r.handle ? r.handle : h;
        void* rq = r.with_req ? req.data() : nullptr;
        void* rs = r.with_resp ? resp.data() : nullptr;
        const uint32_t status =
            r.fc ? SDSendScsiPassThruFC(handle, &dest, cdb, r.cdb_len, rq, req.size(), rs, resp.size(), sense.data(),
                                        sense.size())
                 : SDSendScsiPassThru(handle, &target, cdb, r.cdb_len, rq, req.size(), rs, resp.size(), sense.data(),
                                      sense.size());
        EXPECT_EQ(status, r.status) << r.what;
        EXPECT_TRUE(resp.guards_intact() && req.guards_intact() && sense.guards_intact()) << r.what;
        EXPECT_TRUE(resp.all(0, resp.size(), GUARD)) << r.what;
    }
    EXPECT_EQ(SDSendScsiPassThru(h, nullptr, cdb, 6, nullptr, 0, resp.data(), 16, nullptr, 0),
              SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SDSendScsiPassThruFC(h, nullptr, cdb, 6, nullptr, 0, resp.data(), 16, nullptr, 0),
              SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SDSendScsiInquiryCmd(h, &target, nullptr, 0, nullptr, 0), SDM_STATUS_INVALID_PARAMETER);
}

// What the driver answers and the status each form makes of it.
TEST_F(Passthru, StatusRulesOfBothForms) {
    const struct {
        uint32_t ext_stat, detail;
        int32_t rc;
        int err;
        uint32_t status;
    } rows[] = {
        {EXT_STATUS_OK, 0, 0, 0, SDM_STATUS_SUCCESS},
        {EXT_STATUS_DATA_OVERRUN, 0, 0, 0, SDM_STATUS_DATA_OVERRUN},
        {EXT_STATUS_DATA_UNDERRUN, 0, 0, 0, SDM_STATUS_DATA_UNDERRUN},
        {EXT_STATUS_SCSI_STATUS, EXT_SCSI_STATUS_BUSY, 0, 0, SDM_STATUS_SCSI_BUSY},
        {EXT_STATUS_SCSI_STATUS, EXT_SCSI_STATUS_RESERVATION_CONFLICT, 0, 0, SDM_STATUS_SCSI_RESERVATION_CONFLICT},
        {EXT_STATUS_SCSI_STATUS, 0x0118, 0, 0, SDM_STATUS_SCSI_RESERVATION_CONFLICT},  // low byte only
        {EXT_STATUS_SCSI_STATUS, 0x01, 0, 0, SDM_STATUS_SCSI_UNKNOWN_STATUS},
        {EXT_STATUS_BUSY, 0, 1, 0, SDM_STATUS_DEVICE_BUSY},
        {EXT_STATUS_DEV_NOT_FOUND, 0, 1, 0, SDM_STATUS_DEVICE_NOT_FOUND},
        {EXT_STATUS_INVALID_PARAM, 0, 1, 0, SDM_STATUS_INVALID_PARAMETER},
        {EXT_STATUS_OK, 0, -1, EIO, EIO},
        {EXT_STATUS_OK, 0, -1, 0, SDM_STATUS_UNKNOWN_ERROR},
        {EXT_STATUS_OK, 0, 1, 0, SDM_STATUS_UNKNOWN_ERROR},
    };
    for (const auto& r : rows) {
        for (const bool fc : {false, true}) {
            mock.expect(fc ? slot::send_fc_scsipt : slot::send_scsipt)
                .status(r.ext_stat, r.detail)
                .fails(r.rc, r.err);
            EXPECT_EQ(send(fc, nullptr, 0), r.status) << (fc ? "FC " : "") << r.ext_stat << "/" << r.detail;
        }
    }
}

// A check condition's sense reaches the caller in both forms; the
// bus/target form clears all the caller's sense buffer, the FC form writes
// the sense room (at most 256 bytes); nothing past either buffer.
TEST_F(Passthru, CheckConditionSenseReachesTheCaller) {
    const Bytes sense = fixed_sense(0x05, 0x20);
    for (const uint32_t size : {0u, 8u, 18u, 300u}) {
        for (const bool fc : {false, true}) {
            Guarded buf(size, 0xEE);
            mock.expect(fc ? slot::send_fc_scsipt : slot::send_scsipt)
                .status(EXT_STATUS_SCSI_STATUS, EXT_SCSI_STATUS_CHECK_CONDITION)
                .with_sense(sense);
            EXPECT_EQ(send(fc, buf.data(), size), SDM_STATUS_SCSI_CHECK_CONDITION) << size;
            const size_t n = std::min<size_t>(size, sense.size());
            EXPECT_EQ(buf.head(n), Bytes(sense.begin(), sense.begin() + n)) << size;
            const size_t written = fc ? std::min<size_t>(size, SDM_MAX_SENSE_LEN) : size;
            EXPECT_TRUE(buf.all(n, written, 0)) << size;
            EXPECT_TRUE(buf.all(written, size, 0xEE)) << size;
            EXPECT_TRUE(buf.guards_intact()) << size;
        }
    }
}

// The canned commands' CDBs: INQUIRY asks for at most 255 bytes, REPORT
// LUNS for the whole buffer; none sends data out.
TEST_F(Passthru, CannedCommandBlocks) {
    Guarded resp(1024);
    mock.expect(slot::send_scsipt).with_cdb({0x12, 0, 0, 0, 0xFF, 0}).with_size(1024);
    EXPECT_EQ(SDSendScsiInquiryCmd(h, &target, resp.data(), 1024, nullptr, 0), 0u);
    mock.expect(slot::send_fc_scsipt).with_cdb({0x12, 0, 0, 0, 7, 0}).with_size(7);
    EXPECT_EQ(SDSendScsiInquiryCmdFC(h, &dest, resp.data(), 7, nullptr, 0), 0u);
    mock.expect(slot::send_scsipt).with_cdb({0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}).with_arg(2);
    EXPECT_EQ(SDSendScsiReadCapacityCmd(h, &target, resp.data(), 8, nullptr, 0), 0u);
    mock.expect(slot::send_fc_scsipt).with_cdb({0xA0, 0, 0, 0, 0, 0, 0, 0, 0x04, 0x00, 0, 0}).with_arg(2);
    EXPECT_EQ(SDSendScsiReportLunsCmdFC(h, &dest, resp.data(), 1024, nullptr, 0), 0u);
    EXPECT_TRUE(resp.guards_intact());
}

// READ CAPACITY and REPORT LUNS collect sense locally and give the caller
// as much as its buffer holds (at most 256 bytes), the rest cleared.
TEST_F(Passthru, CannedCommandsCopySenseOut) {
    const Bytes sense = fixed_sense(0x02, 0x3A);  // not ready: no LUN probe
    for (const uint32_t size : {4u, 300u}) {
        Guarded s(size, 0xEE);
        uint8_t cap[8];
        mock.expect(slot::send_scsipt).status(EXT_STATUS_SCSI_STATUS, 2).with_sense(sense);
        EXPECT_EQ(SDSendScsiReadCapacityCmd(h, &target, cap, 8, s.data(), size), SDM_STATUS_SCSI_CHECK_CONDITION);
        const size_t n = std::min<size_t>(size, sense.size());
        EXPECT_EQ(s.head(n), Bytes(sense.begin(), sense.begin() + n));
        EXPECT_TRUE(s.all(n, size, 0) && s.guards_intact()) << size;

        Guarded list(64, 0xEE);
        mock.expect(slot::send_fc_scsipt).status(EXT_STATUS_SCSI_STATUS, 2).with_sense(sense);
        EXPECT_EQ(SDSendScsiReportLunsCmdFC(h, &dest, list.data(), 64, s.data(), size),
                  SDM_STATUS_SCSI_CHECK_CONDITION);
        EXPECT_EQ(s.head(n), Bytes(sense.begin(), sense.begin() + n));
        EXPECT_TRUE(list.all(0, 64, 0xEE) && s.guards_intact());
    }
}

// A target that refuses REPORT LUNS: LUNs 0-255 are probed with READ
// CAPACITY; LUNs 0 and 3 answer. The list is written and cleared (eight
// times its length) only as far as the response buffer goes.
TEST_F(Passthru, ReportLunsFallbackStaysInsideTheBuffer) {
    const Bytes refused = fixed_sense(0x05, 0x20);
    for (const uint32_t size : {1024u, 16u, 12u, 7u, 1u, 0u}) {
        for (const bool fc : {false, true}) {
            Guarded resp(size, 0xEE);
            const slot s = fc ? slot::send_fc_scsipt : slot::send_scsipt;
            mock.expect(s).status(EXT_STATUS_SCSI_STATUS, 2).with_sense(refused);
            for (uint32_t lun = 0; lun < 256; ++lun) {
                auto& e = mock.expect(s).with_arg(lun).with_cdb({0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}).with_size(8);
                if (lun != 0 && lun != 3)
                    e.status(EXT_STATUS_SCSI_STATUS, 2).with_sense(fixed_sense(0x05, 0x25));
            }
            const uint32_t status = fc ? SDSendScsiReportLunsCmdFC(h, &dest, resp.data(), size, nullptr, 0)
                                       : SDSendScsiReportLunsCmd(h, &target, resp.data(), size, nullptr, 0);
            EXPECT_EQ(status, SDM_STATUS_NOT_FROM_DEVICE) << size;
            const Bytes expected = {0, 0, 0, 16, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0};
            const size_t head = std::min<size_t>(size, 4);
            EXPECT_EQ(resp.head(head), Bytes(expected.begin(), expected.begin() + head)) << size;
            for (size_t i = 8; i < std::min<size_t>(size, 24); ++i)
                EXPECT_EQ(resp[i], expected[i]) << size << " byte " << i;
            // Bytes 4-7 are not written; the clearing ends at 8 + 16 * 8.
            EXPECT_TRUE(resp.all(4, std::min<size_t>(size, 8), 0xEE)) << size;
            EXPECT_TRUE(resp.all(24, std::min<size_t>(size, 136), 0)) << size;
            EXPECT_TRUE(resp.all(std::min<size_t>(size, 136), size, 0xEE)) << size;
            EXPECT_TRUE(resp.guards_intact()) << size;
            EXPECT_EQ(fc ? dest.LunNumber : target.LUN, 255) << "the last LUN probed";
        }
    }
}

// Only fixed-format sense with ILLEGAL REQUEST starts the probe.
TEST_F(Passthru, OtherRefusalsOfReportLunsAreReturned) {
    Bytes descriptor = fixed_sense(0x05, 0x20);
    descriptor[0] = 0x72;
    const struct {
        Bytes sense;
        uint32_t detail;
        uint32_t status;
    } rows[] = {
        {fixed_sense(0x06, 0x29), 2, SDM_STATUS_SCSI_CHECK_CONDITION},  // unit attention
        {descriptor, 2, SDM_STATUS_SCSI_CHECK_CONDITION},
        {{}, EXT_SCSI_STATUS_BUSY, SDM_STATUS_SCSI_BUSY},
    };
    for (const auto& r : rows) {
        uint8_t list[64];
        mock.expect(slot::send_scsipt).status(EXT_STATUS_SCSI_STATUS, r.detail).with_sense(r.sense);
        EXPECT_EQ(SDSendScsiReportLunsCmd(h, &target, list, sizeof list, nullptr, 0), r.status);
    }
}

// CT goes only from a port logged in to a fabric; the reply keeps to the
// caller's buffer and a cut one is an overrun.
TEST_F(Passthru, CtPassThruRules) {
    uint8_t ct[16] = {1, 0, 0, 0, 0xFC, 0x02, 0, 0, 0x01, 0x71, 0, 0};
    Guarded resp(8);
    const struct {
        uint16_t topology, state;
        bool sent;
        uint32_t ext_stat;
        uint32_t status;
    } rows[] = {
        {VX_TOPOLOGY_F_PORT, 0, true, EXT_STATUS_OK, SDM_STATUS_SUCCESS},
        {VX_TOPOLOGY_FL_PORT, 0, true, EXT_STATUS_DATA_OVERRUN, SDM_STATUS_DATA_OVERRUN},
        {VX_TOPOLOGY_F_PORT, 0, true, EXT_STATUS_MS_NO_RESPONSE, 0x20000037},
        {1, 0, false, 0, SDM_STATUS_UNKNOWN_ERROR},  // loop
        {2, 0, false, 0, SDM_STATUS_UNKNOWN_ERROR},  // point to point
        {VX_TOPOLOGY_F_PORT, 2, false, 0, SDM_STATUS_UNKNOWN_ERROR},  // link down
    };
    for (const auto& r : rows) {
        port->topology = r.topology;
        port->state = r.state;
        if (r.sent)
            mock.expect(slot::send_ct_passthru).with_size(8).answer_bytes({0x01, 0, 0, 0, 0xFC, 0x02, 0, 0}).status(
                r.ext_stat);
        EXPECT_EQ(SDSendCTPassThru(h, ct, sizeof ct, resp.data(), resp.size()), r.status) << r.topology;
        EXPECT_TRUE(resp.guards_intact());
    }
    EXPECT_EQ(SDSendCTPassThru(h, ct, 15, resp.data(), 8), SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SDSendCTPassThru(h, nullptr, 16, resp.data(), 8), SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SDSendCTPassThru(h + 5, ct, 16, resp.data(), 8), SDM_STATUS_INVALID_HANDLE);
    FABRICADDRESS fa{};
    EXPECT_EQ(SDSendElsRnid(h, &fa, 0xDF, resp.data(), 8), SDM_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(SDSendElsRnid(-3, nullptr, 0, nullptr, 0), SDM_STATUS_NOT_SUPPORTED);
}

// ---- The steps around a channel's executor ----

struct ExecScript {
    uint32_t ext_stat = EXT_STATUS_OK, detail = 0;
    int32_t rc = 0;
    Bytes sense;       // what the "driver" writes into the record
    int calls = 0;
    EXT_SCSI_PASSTHRU seen{};
};
ExecScript script;

int32_t scripted_exec(int, vxapi_priv_database*, EXT_SCSI_PASSTHRU* pt, void* req, uint32_t req_size, void* resp,
                      uint32_t resp_size, uint32_t* pext_stat, uint32_t* pext_dstat) {
    ++script.calls;
    void* data = nullptr;
    uint32_t len = 0;
    if (!vxapi_scsipt_data(req, req_size, resp, resp_size, &pt->Direction, &data, &len))
        return 1;
    script.seen = *pt;
    const size_t n = std::min<size_t>(script.sense.size(), pt->SenseLength);
    memcpy(pt->SenseData, script.sense.data(), n);
    pt->SenseLength = static_cast<uint16_t>(n);
    *pext_stat = script.ext_stat;
    *pext_dstat = script.detail;
    return script.rc;
}

TEST(ScsiptRun, RecordSenseAndResult) {
    const EXT_SCSI_ADDR addr{0, 4, 9, {}};
    const uint8_t cdb[10] = {0x25};
    const Bytes sense = fixed_sense(0x05, 0x25);
    const struct {
        uint32_t ext_stat, detail;
        int32_t rc;
        int32_t result;
        uint8_t scsi;
        bool sense_back;
    } rows[] = {
        {EXT_STATUS_OK, 0, 0, 0, 0, false},
        {EXT_STATUS_DATA_OVERRUN, 0, 0, 0, 0, false},
        {EXT_STATUS_SCSI_STATUS, 0x02, 0, 0, 0x02, true},
        {EXT_STATUS_SCSI_STATUS, 0x18, 0, 0, 0x18, false},
        {EXT_STATUS_DEV_NOT_FOUND, 0, 0, 1, 0, false},
        {EXT_STATUS_OK, 0, -1, 1, 0, false},
    };
    for (const auto& r : rows) {
        for (const uint32_t room : {0u, 10u, 300u}) {
            script = ExecScript{r.ext_stat, r.detail, r.rc, sense};
            Guarded s(room, 0xEE);
            uint8_t data[8];
            uint32_t data_size = sizeof data, sense_size = room, ext = 99;
            uint8_t scsi = 0xFF;
            EXPECT_EQ(vxapi_scsipt_run("t", scripted_exec, -1, nullptr, &addr, cdb, sizeof cdb, nullptr, 0, data,
                                       &data_size, s.data(), &sense_size, &ext, &scsi),
                      r.result);
            EXPECT_EQ(ext, r.ext_stat);
            EXPECT_EQ(scsi, r.scsi);
            EXPECT_EQ(script.seen.TargetAddr.Target, 4);
            EXPECT_EQ(script.seen.TargetAddr.Lun, 9);
            EXPECT_EQ(script.seen.Direction, EXT_DEF_SCSI_DIR_IN);
            EXPECT_EQ(script.seen.CdbLength, 10);
            EXPECT_EQ(script.seen.Timeout, 0u);
            EXPECT_EQ(script.seen.SenseLength, std::min(room, 256u));
            const size_t n = r.sense_back ? std::min<size_t>(room, sense.size()) : 0;
            EXPECT_EQ(sense_size, r.sense_back ? n : room);
            EXPECT_EQ(s.head(n), Bytes(sense.begin(), sense.begin() + n));
            EXPECT_TRUE(s.all(n, room, 0) && s.guards_intact()) << room;
        }
    }
    // No executor call for a CDB it cannot carry; data both ways is refused.
    script = ExecScript{};
    uint32_t ext = 0;
    const uint8_t long_cdb[17] = {};
    EXPECT_EQ(vxapi_scsipt_run("t", scripted_exec, -1, nullptr, &addr, long_cdb, 17, nullptr, 0, nullptr, nullptr,
                               nullptr, nullptr, &ext, nullptr),
              1);
    EXPECT_EQ(vxapi_scsipt_run("t", scripted_exec, -1, nullptr, &addr, long_cdb, 0, nullptr, 0, nullptr, nullptr,
                               nullptr, nullptr, &ext, nullptr),
              1);
    EXPECT_EQ(script.calls, 0);
    uint8_t a[4], b[4];
    uint32_t bsize = 4;
    EXPECT_EQ(vxapi_scsipt_run("t", scripted_exec, -1, nullptr, &addr, cdb, 6, a, 4, b, &bsize, nullptr, nullptr,
                               &ext, nullptr),
              1);
}

TEST(ScsiptRun, DataDirection) {
    uint8_t req[4], resp[8];
    const struct {
        void* req;
        void* resp;
        bool ok;
        uint8_t dir;
        void* data;
        uint32_t len;
    } rows[] = {
        {nullptr, nullptr, true, EXT_DEF_SCSI_DIR_NONE, nullptr, 0},
        {nullptr, resp, true, EXT_DEF_SCSI_DIR_IN, resp, 8},
        {req, nullptr, true, EXT_DEF_SCSI_DIR_OUT, req, 4},
        {req, resp, false, 0xFF, nullptr, 0},
    };
    for (const auto& r : rows) {
        uint8_t dir = 0xFF;
        void* data = nullptr;
        uint32_t len = 0;
        EXPECT_EQ(vxapi_scsipt_data(r.req, 4, r.resp, 8, &dir, &data, &len), r.ok);
        EXPECT_EQ(dir, r.dir);
        EXPECT_EQ(data, r.data);
        EXPECT_EQ(len, r.len);
    }
}

}  // namespace
