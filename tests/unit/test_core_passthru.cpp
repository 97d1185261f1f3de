// Pass-through in the SD layer, over the in-process channel: refusals that
// send nothing, the status rules of both address forms, the REPORT LUNS
// probe kept inside every size of response buffer, and the CT fabric rule.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "mock_channel.h"
#include "vsdmgt.h"

namespace {

using vxmock::slot;
using Bytes = std::vector<uint8_t>;

constexpr size_t GUARD = 16;  // bytes after each caller buffer that must stay 0xC5

// A caller buffer of `size` bytes of `fill`, followed by guard bytes.
Bytes guarded(size_t size, uint8_t fill) {
    Bytes b(size + GUARD, 0xC5);
    std::fill_n(b.begin(), size, fill);
    return b;
}
bool same(const Bytes& b, size_t from, size_t to, uint8_t v) {
    return from >= to || std::all_of(b.begin() + from, b.begin() + to, [v](uint8_t x) { return x == v; });
}
bool guard_intact(const Bytes& b) { return same(b, b.size() - GUARD, b.size(), 0xC5); }

Bytes illegal_request(uint8_t asc) { return {0x70, 0, 0x05, 0, 0, 0, 0, 10, 0, 0, 0, 0, asc, 0, 0, 0, 0, 0}; }

class Passthru : public testing::Test {
protected:
    vxmock::registry reg;
    vxmock::channel mock;
    vxapi_priv_database* port = nullptr;
    int h = 0;
    TARGETINFORMATION target{};
    DESTINATIONADDRESS dest{};

    void SetUp() override {
        port = reg.port(VX_FEAT_IOCTL_NODE | VX_FEAT_NEW_IOCTL, 0x1051);
        ASSERT_NE(port, nullptr);
        mock.install(port);
        h = vxmock::registry::handle(port);
        port->topology = VX_TOPOLOGY_F_PORT;
        target.TargetID = 1;
        dest.AddressType = SDM_ADDRESS_WWPN;
    }

    uint32_t send(bool fc, int handle, uint32_t cdb_len, void* req, void* resp, Bytes& sense) {
        uint8_t cdb[17] = {0x12, 0, 0, 0, 16};
        const uint32_t n = static_cast<uint32_t>(sense.size() - GUARD);
        return fc ? SDSendScsiPassThruFC(handle, &dest, cdb, cdb_len, req, 16, resp, 16, sense.data(), n)
                  : SDSendScsiPassThru(handle, &target, cdb, cdb_len, req, 16, resp, 16, sense.data(), n);
    }
};

// Refused before any request (the mock fails on one it does not expect);
// no buffer is written past its end.
TEST_F(Passthru, BadInputIsRefusedWithoutARequest) {
    Bytes req = guarded(16, 0xEE), resp = guarded(16, 0xEE), sense = guarded(300, 0xEE);
    const struct {
        bool fc;
        int handle;
        uint32_t cdb_len;
        bool with_req, with_resp;
        uint16_t address_type;
        uint32_t status;
    } rows[] = {
        {false, 0, 17, false, true, 2, SDM_STATUS_INVALID_PARAMETER},
        {false, 0, 0, false, true, 2, SDM_STATUS_INVALID_PARAMETER},
        {false, 0, 6, true, true, 2, SDM_STATUS_INVALID_PARAMETER},   // both buffers
        {false, 0, 6, false, false, 2, SDM_STATUS_INVALID_PARAMETER}, // neither
        {false, 77, 6, false, true, 2, SDM_STATUS_INVALID_HANDLE},
        {true, 0, 17, false, true, 2, SDM_STATUS_INVALID_PARAMETER},
        {true, 0, 0, false, true, 2, SDM_STATUS_INVALID_PARAMETER},
        {true, 0, 6, true, true, 2, SDM_STATUS_INVALID_PARAMETER},
        {true, 0, 6, false, true, SDM_ADDRESS_WWNN, SDM_STATUS_INVALID_PARAMETER},
        {true, 0, 6, false, true, SDM_ADDRESS_PORTID, SDM_STATUS_INVALID_PARAMETER},
        {true, 0, 6, false, true, 9, SDM_STATUS_INVALID_PARAMETER},
        {true, -1, 6, false, true, 2, SDM_STATUS_INVALID_HANDLE},
    };
    for (const auto& r : rows) {
        dest.AddressType = r.address_type;
        EXPECT_EQ(send(r.fc, r.handle ? r.handle : h, r.cdb_len, r.with_req ? req.data() : nullptr,
                       r.with_resp ? resp.data() : nullptr, sense),
                  r.status)
            << r.fc << " " << r.cdb_len << " " << r.address_type;
        EXPECT_TRUE(same(resp, 0, 16, 0xEE) && same(req, 0, 16, 0xEE) && guard_intact(sense));
    }
    EXPECT_EQ(SDSendScsiPassThru(h, nullptr, req.data(), 6, nullptr, 0, resp.data(), 16, nullptr, 0),
              SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SDSendScsiInquiryCmdFC(h, nullptr, resp.data(), 16, nullptr, 0), SDM_STATUS_INVALID_PARAMETER);
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
        {EXT_STATUS_SCSI_STATUS, 0x02, 0, 0, SDM_STATUS_SCSI_CHECK_CONDITION},
        {EXT_STATUS_SCSI_STATUS, 0x0118, 0, 0, SDM_STATUS_SCSI_RESERVATION_CONFLICT},  // the low byte counts
        {EXT_STATUS_SCSI_STATUS, 0x01, 0, 0, SDM_STATUS_SCSI_UNKNOWN_STATUS},
        {EXT_STATUS_DEV_NOT_FOUND, 0, 1, 0, SDM_STATUS_DEVICE_NOT_FOUND},
        {EXT_STATUS_OK, 0, -1, EIO, EIO},
        {EXT_STATUS_OK, 0, -1, 0, SDM_STATUS_UNKNOWN_ERROR},  // failed without errno
        {EXT_STATUS_OK, 0, 1, 0, SDM_STATUS_UNKNOWN_ERROR},
    };
    Bytes sense = guarded(0, 0);
    uint8_t resp[16];
    for (const auto& r : rows)
        for (const bool fc : {false, true}) {
            mock.expect(fc ? slot::send_fc_scsipt : slot::send_scsipt).status(r.ext_stat, r.detail).fails(r.rc, r.err);
            EXPECT_EQ(send(fc, h, 6, nullptr, resp, sense), r.status) << fc << " " << r.ext_stat << "/" << r.detail;
        }
}

// REPORT LUNS refused: LUNs 0-255 are asked READ CAPACITY and 0 and 3
// answer. The list, and the clearing of eight times its length after the
// head, stop at the response buffer's end, whatever its size.
TEST_F(Passthru, ReportLunsProbeStaysInsideTheBuffer) {
    const Bytes expected = {0, 0, 0, 16, 0xEE, 0xEE, 0xEE, 0xEE, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0};
    for (const size_t size : {1024u, 16u, 12u, 7u, 1u, 0u})
        for (const bool fc : {false, true}) {
            const slot s = fc ? slot::send_fc_scsipt : slot::send_scsipt;
            mock.expect(s).status(EXT_STATUS_SCSI_STATUS, 2).with_sense(illegal_request(0x20));
            for (uint32_t lun = 0; lun < 256; ++lun) {
                auto& e = mock.expect(s).with_arg(lun).with_size(8);
                if (lun != 0 && lun != 3)
                    e.status(EXT_STATUS_SCSI_STATUS, 2).with_sense(illegal_request(0x25));
            }
            Bytes resp = guarded(size, 0xEE);
            const auto n = static_cast<uint32_t>(size);
            EXPECT_EQ(fc ? SDSendScsiReportLunsCmdFC(h, &dest, resp.data(), n, nullptr, 0)
                         : SDSendScsiReportLunsCmd(h, &target, resp.data(), n, nullptr, 0),
                      SDM_STATUS_NOT_FROM_DEVICE);
            const size_t listed = std::min<size_t>(size, expected.size());
            EXPECT_EQ(Bytes(resp.begin(), resp.begin() + listed), Bytes(expected.begin(), expected.begin() + listed))
                << size;
            EXPECT_TRUE(same(resp, 24, std::min<size_t>(size, 8 + 16 * 8), 0)) << size;
            EXPECT_TRUE(same(resp, 8 + 16 * 8, size, 0xEE) && guard_intact(resp)) << size;
            EXPECT_EQ(fc ? dest.LunNumber : target.LUN, 255) << "left at the last LUN probed";
        }
    // Another check condition is returned as it is, without probing.
    mock.expect(slot::send_scsipt).status(EXT_STATUS_SCSI_STATUS, 2).with_sense({0x70, 0, 0x06});
    uint8_t list[16];
    EXPECT_EQ(SDSendScsiReportLunsCmd(h, &target, list, 16, nullptr, 0), SDM_STATUS_SCSI_CHECK_CONDITION);
}

// CT goes only from a port logged in to a fabric (F_Port or FL_Port).
TEST_F(Passthru, CtNeedsAFabric) {
    uint8_t ct[16] = {1, 0, 0, 0, 0xFC, 0x02, 0, 0, 0x01, 0x71};
    uint8_t resp[8];
    const struct {
        uint16_t topology, state;
        bool sent;
    } rows[] = {
        {VX_TOPOLOGY_F_PORT, 0, true}, {VX_TOPOLOGY_FL_PORT, 0, true}, {1, 0, false},  // loop
        {2, 0, false},                                                                   // point to point
        {VX_TOPOLOGY_F_PORT, 2, false},                                                  // link down
    };
    for (const auto& r : rows) {
        port->topology = r.topology;
        port->state = r.state;
        if (r.sent)
            mock.expect(slot::send_ct_passthru).with_size(8);
        EXPECT_EQ(SDSendCTPassThru(h, ct, sizeof ct, resp, sizeof resp),
                  r.sent ? SDM_STATUS_SUCCESS : SDM_STATUS_UNKNOWN_ERROR)
            << r.topology << "/" << r.state;
    }
    EXPECT_EQ(SDSendCTPassThru(h, ct, 15, resp, 8), SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SDSendElsRnid(h, nullptr, 0xDF, resp, 8), SDM_STATUS_NOT_SUPPORTED);
}

}  // namespace
