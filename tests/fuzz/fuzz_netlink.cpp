// The messages the two netlink sockets receive: a vendor reply (judged
// against the request, then its event log read) and an FC transport event.
// The first input byte picks the parser, the rest is the message, in a
// buffer of exactly its size.
#include <cstdint>
#include <cstring>
#include <vector>

#include "vx_netlink.h"

namespace {

constexpr uint32_t HOST = 5;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    const uint8_t selector = data[0];
    const std::vector<uint8_t> msg(data + 1, data + size);
    EXT_ASYNC_EVENT out[64];
    if (selector & 1) {
        EXT_ASYNC_EVENT entry{};
        uint32_t host = 0, num = 0;
        vxapi_nl_fc_event_entry(msg.data(), msg.size(), &entry, &host, &num);
        return 0;
    }
    if (vxapi_nl_check_reply(msg.data(), msg.size(), HOST, VXA_GET_AEN) == vxapi_nl_reply::ours) {
        const size_t payload = msg.size() - VX_NL_PAYLOAD_OFF;
        // The reply's copy of the log, as the request path hands it over.
        std::vector<uint8_t> log(msg.begin() + VX_NL_PAYLOAD_OFF, msg.end());
        vxapi_nl_aen_log_entries(log.data(), payload, HOST, out, 64);
    } else {
        vxapi_nl_aen_log_entries(msg.data(), msg.size(), HOST, out, (selector >> 1) % 65);
    }
    return 0;
}
