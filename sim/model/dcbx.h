// DCBX state of a converged port, as the driver reports it on both channels:
// the record of get-data sub-code EXT_SC_GET_DCBX_PARAM and the bytes of
// the physical host's "dcbx" attribute.
#pragma once

#include <cstring>
#include <vector>

#include "exioct.h"
#include "model.h"

namespace vxsim {

// Negotiated with a willing peer: FCoE on priority 3, the only priority
// with flow control, in a group of its own with half the link. The peer's
// MAC is the FCF's, taken to be the VN_Port MAC with the low bit of the
// first byte cleared (a plausible, distinct unicast address).
inline std::vector<uint8_t> dcbx_record(const HostPort& p) {
    EXT_DCBX_PARAM d{};
    d.Version = EXT_DCBX_VERSION;
    d.OperState = 1;
    d.Willing = 1;
    d.FcoePriority = 3;
    d.PfcEnable = 1u << 3;
    d.PriorityGroup[3] = 1;
    d.GroupBandwidth[0] = 50;
    d.GroupBandwidth[1] = 50;
    std::memcpy(d.PeerMac, p.vn_port_mac, sizeof d.PeerMac);
    d.PeerMac[0] &= 0xFE;
    d.PeerMac[5] ^= 0xFF;
    const auto* b = reinterpret_cast<const uint8_t*>(&d);
    return std::vector<uint8_t>(b, b + sizeof d);
}

}  // namespace vxsim
