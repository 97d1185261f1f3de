// The decoders of what targets and the name server answer (vxcli shows
// them): whatever list lengths and last-entry marks the bytes claim, nothing
// outside the reply is read.
#include <cstdint>
#include <vector>

#include "scsi_decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    // Exactly the reply's bytes, so that ASan sees any read past them.
    const std::vector<uint8_t> reply(data + 1, data + size);
    const uint8_t* p = reply.empty() ? nullptr : reply.data();
    using namespace vxcli::scsi;
    switch (data[0] % 5) {
    case 0:
        if (auto q = decode_inquiry(p, reply.size()))
            device_type_name(q->device_type);
        break;
    case 1: decode_read_capacity(p, reply.size()); break;
    case 2: decode_report_luns(p, reply.size()); break;
    case 3:
        if (auto s = decode_sense(p, reply.size()))
            sense_key_name(s->key);
        break;
    default:
        if (auto ct = decode_ct(p, reply.size())) {
            decode_port_ids(*ct);
            decode_name(*ct);
        }
        break;
    }
    return 0;
}
