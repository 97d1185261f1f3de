#include "scsi_target.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "bigendian.h"
#include "exioct.h"

namespace vxsim::drv {

namespace {

enum : uint8_t {
    OP_TEST_UNIT_READY = 0x00,
    OP_REQUEST_SENSE = 0x03,
    OP_INQUIRY = 0x12,
    OP_READ_CAPACITY_10 = 0x25,
    OP_SERVICE_ACTION_IN_16 = 0x9E,
    OP_REPORT_LUNS = 0xA0,
};
constexpr uint8_t SA_READ_CAPACITY_16 = 0x10;

constexpr uint8_t PERIPHERAL_DISK = 0x00;
constexpr uint8_t NO_LUN = 0x7F;  // qualifier 011b, type 1Fh: no logical unit here
constexpr uint32_t VX_OUI = 0x001D5A;

uint32_t be(const uint8_t* p, size_t n) { return static_cast<uint32_t>(get_be(p, n)); }

// Blank-padded ASCII field, as INQUIRY carries texts.
void put_text(uint8_t* p, const std::string& s, size_t n) {
    std::memset(p, ' ', n);
    std::memcpy(p, s.data(), std::min(s.size(), n));
}

ScsiOutcome good(std::vector<uint8_t> data, uint32_t allocation) {
    if (data.size() > allocation)
        data.resize(allocation);
    return {EXT_SCSI_STATUS_GOOD, std::move(data), {}};
}

ScsiOutcome check(SenseCode code) { return {EXT_SCSI_STATUS_CHECK_CONDITION, {}, fixed_sense(code)}; }

// Standard INQUIRY data, 96 bytes. A LUN the target lacks answers with
// peripheral qualifier 3 and the target's identification, as SPC asks.
std::vector<uint8_t> standard_inquiry(const RemotePort& t, const Lun* lun) {
    const Lun& id = lun ? *lun : t.luns.empty() ? Lun{} : t.luns.front();
    std::vector<uint8_t> d(96, 0);
    d[0] = lun ? static_cast<uint8_t>(lun->peripheral_type & 0x1F) : NO_LUN;
    d[2] = 0x06;         // SPC-4
    d[3] = 0x12;         // HISUP, response data format 2
    d[4] = static_cast<uint8_t>(d.size() - 5);
    d[7] = 0x02;         // CMDQUE
    put_text(&d[8], id.vendor, 8);
    put_text(&d[16], id.product, 16);
    put_text(&d[32], id.revision, 4);
    if (lun)
        put_text(&d[36], lun_serial(t, *lun), 20);
    // Version descriptors: SAM-5, SPC-4, FCP-4, and SBC-3 for disks.
    const uint16_t versions[] = {0x00A0, 0x0460, 0x0A40, 0x04C0};
    for (size_t i = 0; i < 4 && (i < 3 || d[0] == PERIPHERAL_DISK); ++i)
        put_be(&d[58 + 2 * i], versions[i], 2);
    return d;
}

std::vector<uint8_t> vpd_page(const RemotePort& t, const Lun& lun, uint8_t page) {
    std::vector<uint8_t> d{static_cast<uint8_t>(lun.peripheral_type & 0x1F), page, 0, 0};
    switch (page) {
    case 0x00:
        d.insert(d.end(), {0x00, 0x80, 0x83});
        break;
    case 0x80: {
        const std::string s = lun_serial(t, lun);
        d.insert(d.end(), s.begin(), s.end());
        break;
    }
    case 0x83: {
        // The logical unit: NAA 6 of our OUI, the node name's low 36 bits and
        // the LUN. The target port: its port name, as FCP reports it.
        uint8_t naa[16];
        const uint64_t high = (uint64_t(6) << 60) | (uint64_t(VX_OUI) << 36) | (t.wwnn & 0xFFFFFFFFFull);
        put_be(naa, high, 8);
        put_be(naa + 8, lun.lun, 8);
        d.insert(d.end(), {0x01, 0x03, 0x00, 16});
        d.insert(d.end(), naa, naa + 16);
        uint8_t wwpn[8];
        put_be(wwpn, t.wwpn, 8);
        d.insert(d.end(), {0x01, 0x93, 0x00, 8});  // FCP, PIV, target port, NAA
        d.insert(d.end(), wwpn, wwpn + 8);
        break;
    }
    default: return {};
    }
    put_be(&d[2], d.size() - 4, 2);
    return d;
}

ScsiOutcome inquiry(const RemotePort& t, const Lun* lun, const uint8_t* cdb) {
    const bool evpd = cdb[1] & 0x01;
    const uint8_t page = cdb[2];
    const uint32_t allocation = be(cdb + 3, 2);
    if (!evpd)
        return page ? check(INVALID_FIELD_IN_CDB) : good(standard_inquiry(t, lun), allocation);
    if (!lun)
        return check(LOGICAL_UNIT_NOT_SUPPORTED);
    std::vector<uint8_t> d = vpd_page(t, *lun, page);
    return d.empty() ? check(INVALID_FIELD_IN_CDB) : good(std::move(d), allocation);
}

ScsiOutcome read_capacity(const Lun* lun, bool sixteen, const uint8_t* cdb) {
    if (!lun)
        return check(LOGICAL_UNIT_NOT_SUPPORTED);
    if (lun->peripheral_type != PERIPHERAL_DISK)
        return check(INVALID_COMMAND_OPERATION_CODE);
    if (lun->blocks == 0)
        return check(MEDIUM_NOT_PRESENT);
    const uint64_t last = lun->blocks - 1;
    if (!sixteen) {
        std::vector<uint8_t> d(8);
        put_be(&d[0], std::min<uint64_t>(last, 0xFFFFFFFF), 4);  // all ones: ask READ CAPACITY(16)
        put_be(&d[4], lun->block_size, 4);
        return good(std::move(d), 8);
    }
    std::vector<uint8_t> d(32, 0);
    put_be(&d[0], last, 8);
    put_be(&d[8], lun->block_size, 4);
    return good(std::move(d), be(cdb + 10, 4));
}

ScsiOutcome report_luns(const RemotePort& t, const uint8_t* cdb) {
    const uint8_t select = cdb[2];
    if (select > 2)
        return check(INVALID_FIELD_IN_CDB);
    std::vector<uint16_t> luns;
    if (select != 1)  // 1: well-known LUNs only, of which there are none
        for (const Lun& l : t.luns)
            luns.push_back(l.lun);
    std::sort(luns.begin(), luns.end());
    std::vector<uint8_t> d(8, 0);
    put_be(&d[0], luns.size() * 8, 4);
    for (uint16_t l : luns) {
        const std::array<uint8_t, 8> b = scsi_lun_bytes(l);
        d.insert(d.end(), b.begin(), b.end());
    }
    // A list longer than the allocation length is cut; its length says how long it is.
    return good(std::move(d), be(cdb + 6, 4));
}

}  // namespace

std::vector<uint8_t> fixed_sense(SenseCode code) {
    std::vector<uint8_t> s(18, 0);
    s[0] = 0x70;  // current error, fixed format
    s[2] = code.key;
    s[7] = 10;    // additional sense length
    s[12] = code.asc;
    s[13] = code.ascq;
    return s;
}

const Lun* find_lun(const RemotePort& target, uint32_t lun) {
    for (const Lun& l : target.luns)
        if (l.lun == lun)
            return &l;
    // The number a LUN decodes to: flat (01b) the low 14 bits, peripheral the low byte.
    for (const Lun& l : target.luns) {
        const uint32_t method = l.lun >> 14;
        const uint32_t decoded = method == 1 ? (l.lun & 0x3FFF) : method == 0 ? (l.lun & 0xFF) : 0xFFFFFFFF;
        if (decoded == lun)
            return &l;
    }
    return nullptr;
}

std::array<uint8_t, 8> scsi_lun_bytes(uint16_t lun) {
    return {static_cast<uint8_t>(lun >> 8), static_cast<uint8_t>(lun), 0, 0, 0, 0, 0, 0};
}

std::string lun_serial(const RemotePort& target, const Lun& lun) {
    if (!lun.serial.empty())
        return lun.serial;
    char buf[32];
    std::snprintf(buf, sizeof buf, "VX%012llX%04X", static_cast<unsigned long long>(target.wwpn & 0xFFFFFFFFFFFFull),
                  lun.lun);
    return buf;
}

ScsiOutcome scsi_execute(const RemotePort& target, const Lun* lun, const uint8_t* cdb_in, size_t cdb_len) {
    uint8_t cdb[16] = {};
    if (cdb_len)
        std::memcpy(cdb, cdb_in, std::min(cdb_len, sizeof cdb));
    const uint8_t op = cdb[0];

    switch (target.target_kind) {
    case TargetKind::Busy: return {EXT_SCSI_STATUS_BUSY, {}, {}};
    case TargetKind::ReservationConflict:
        // Commands that SPC lets through a reservation.
        if (op != OP_INQUIRY && op != OP_REPORT_LUNS && op != OP_REQUEST_SENSE)
            return {EXT_SCSI_STATUS_RESERVATION_CONFLICT, {}, {}};
        break;
    case TargetKind::RejectsReportLuns:
        if (op == OP_REPORT_LUNS)
            return check(INVALID_COMMAND_OPERATION_CODE);
        break;
    case TargetKind::Normal: break;
    }

    switch (op) {
    case OP_INQUIRY: return inquiry(target, lun, cdb);
    case OP_REPORT_LUNS: return report_luns(target, cdb);  // the target answers, whichever LUN was named
    case OP_REQUEST_SENSE: {
        // Nothing is pending: sense data describe the LUN itself, with GOOD status.
        SenseCode code = lun ? SenseCode{SENSE_NO_SENSE, 0, 0} : LOGICAL_UNIT_NOT_SUPPORTED;
        return good(fixed_sense(code), cdb[4]);
    }
    default: break;
    }
    if (!lun)
        return check(LOGICAL_UNIT_NOT_SUPPORTED);
    switch (op) {
    case OP_TEST_UNIT_READY: return good({}, 0);
    case OP_READ_CAPACITY_10: return read_capacity(lun, false, cdb);
    case OP_SERVICE_ACTION_IN_16:
        if ((cdb[1] & 0x1F) == SA_READ_CAPACITY_16)
            return read_capacity(lun, true, cdb);
        return check(INVALID_FIELD_IN_CDB);
    default: return check(INVALID_COMMAND_OPERATION_CODE);
    }
}

}  // namespace vxsim::drv
