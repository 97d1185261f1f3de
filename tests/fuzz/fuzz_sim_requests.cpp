// The simulator's answers to whatever a management tool sends: CDBs to a
// target, CT requests to the name server, ELS payloads to a remote port.
// They must never read past the request nor answer more than the command
// allows.
#include <cstdint>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fabric.h"
#include "scsi_target.h"

using namespace vxsim;
using namespace vxsim::drv;

namespace {

RemotePort make_target(uint8_t kind) {
    RemotePort t;
    t.wwpn = 0x500601600860FA00;
    t.scsi_target_id = 0;
    t.target_kind = static_cast<TargetKind>(kind % 4);
    for (uint16_t lun : {0, 3, 16640}) {
        Lun l;
        l.lun = lun;
        l.blocks = lun == 3 ? 0 : uint64_t(1) << (lun % 40);
        t.luns.push_back(l);
    }
    t.luns.back().peripheral_type = 1;
    return t;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3)
        return 0;
    const uint8_t which = data[0], arg = data[1];
    // The request in a buffer of exactly its size: ASan sees any read past it.
    std::vector<uint8_t> req(data + 2, data + size);
    static const RemotePort targets[4] = {make_target(0), make_target(1), make_target(2), make_target(3)};
    const RemotePort& t = targets[arg % 4];
    switch (which % 3) {
    case 0: {
        ScsiOutcome o = scsi_execute(t, find_lun(t, arg), req.data(), req.size());
        // Never more data than the CDB's allocation length (bytes past the
        // CDB read as zero), never sense without a check condition.
        uint8_t cdb[16] = {};
        std::memcpy(cdb, req.data(), std::min(req.size(), sizeof cdb));
        auto be = [&](size_t at, size_t n) {
            size_t v = 0;
            for (size_t i = 0; i < n; ++i)
                v = (v << 8) | cdb[at + i];
            return v;
        };
        const size_t allocation = cdb[0] == 0x12 ? be(3, 2) : cdb[0] == 0x03 ? cdb[4] : cdb[0] == 0x9E ? be(10, 4)
                                  : cdb[0] == 0xA0 ? be(6, 4) : cdb[0] == 0x25 ? 8 : 0;
        if (o.data.size() > allocation)
            std::abort();
        if (!o.sense.empty() && (o.status != 0x02 || o.sense.size() != 18))
            std::abort();
        break;
    }
    case 1: {
        if (req.size() < CT_HEADER_SIZE)
            return 0;
        std::vector<NsEntry> db;
        for (uint32_t i = 0; i < arg % 8; ++i)
            db.push_back({0x01, 0x010000u + i * 0x100, 0x5000000000000000ull + i, 0x5100000000000000ull + i, "p",
                          {static_cast<uint8_t>(i % 3 ? 8 : 5)}, 0});
        CtAnswer a = name_server(db, req.data(), req.size());
        if (a.bytes.size() < CT_HEADER_SIZE || a.bytes.size() > CT_HEADER_SIZE + GA_NXT_SIZE + 4 * db.size())
            std::abort();
        break;
    }
    default: {
        ElsAnswer a = els_answer(t, req.data(), req.size());
        if (a.accepted ? a.bytes.size() > std::max<size_t>(req.size(), 76) : a.bytes.size() != 8)
            std::abort();
        break;
    }
    }
    return 0;
}
