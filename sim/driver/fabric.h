// The fabric behind a host port: its name server (FC-GS directory service,
// answering CT requests) and the extended link services the remote ports
// answer (ECHO, RNID, RLS, RPS; LS_RJT for the rest). Pure functions of the scenario,
// shared by the extended-ioctl and bsg paths.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "model.h"

namespace vxsim::drv {

// The scenario's SCSI host with that number (physical or virtual), or null.
const HostPort* find_host_port(const Scenario& s, uint32_t host_no);
// The host's remote port "rport-H:B-R", or null.
const RemotePort* find_rport(const HostPort& h, const std::string& name);

// A port logged in to the fabric on an F_Port or FL_Port has a name server;
// one on a private loop, point to point, or without a link has none.
bool on_fabric(const HostPort& h);

// One name-server registration.
struct NsEntry {
    uint8_t port_type = 0x01;  // N_Port
    uint32_t port_id = 0;
    uint64_t wwpn = 0, wwnn = 0;
    std::string symbolic_port_name;
    std::vector<uint8_t> fc4_types;
    uint64_t fabric_port_name = 0;
};

// What the name server seen from `h` holds, in port-id order: every port of
// the scenario's hosts that are on h's fabric (same fabric name, on a
// fabric), and their remote ports, each once; not the fabric's well-known
// addresses (0xFFF000 and above).
std::vector<NsEntry> name_server_entries(const Scenario& s, const HostPort& h);

// FC-GS codes.
enum : uint8_t {
    GS_TYPE_DIRECTORY = 0xFC,
    GS_SUBTYPE_NAME_SERVER = 0x02,
};
enum : uint16_t {
    CT_GA_NXT = 0x0100,
    CT_GPN_ID = 0x0112,
    CT_GNN_ID = 0x0113,
    CT_GFT_ID = 0x0117,
    CT_GID_PN = 0x0121,
    CT_GID_FT = 0x0171,
    CT_REJECT = 0x8001,
    CT_ACCEPT = 0x8002,
};
enum : uint8_t {
    CT_REASON_INVALID_COMMAND = 0x01,
    CT_REASON_INVALID_VERSION = 0x02,
    CT_REASON_INVALID_IU_SIZE = 0x04,
    CT_REASON_UNABLE_TO_PERFORM = 0x09,
    CT_REASON_NOT_SUPPORTED = 0x0B,
    CT_EXPL_NONE = 0x00,
    CT_EXPL_PORT_ID_NOT_REGISTERED = 0x01,
    CT_EXPL_PORT_NAME_NOT_REGISTERED = 0x02,
    CT_EXPL_FC4_TYPES_NOT_REGISTERED = 0x07,
};
inline constexpr size_t CT_HEADER_SIZE = 16;
inline constexpr size_t GA_NXT_SIZE = 620;  // the accept's payload

struct CtAnswer {
    std::vector<uint8_t> bytes;  // the whole response CT_IU
    uint16_t command = 0;        // as requested
    uint16_t code = CT_REJECT;   // CT_ACCEPT or CT_REJECT
    uint8_t reason = 0, explanation = 0;
    uint16_t residual = 0;       // words the requester's maximum size cut off
};

// Answers a CT_IU of at least CT_HEADER_SIZE bytes as the name server
// holding `db`. Requests for other services are rejected as not supported.
CtAnswer name_server(const std::vector<NsEntry>& db, const uint8_t* req, size_t len);

// CT to an N_Port that offers no FC-GS service: rejected as not supported.
CtAnswer ct_not_supported(const uint8_t* req, size_t len);

// ELS codes.
enum : uint8_t {
    ELS_LS_RJT = 0x01,
    ELS_LS_ACC = 0x02,
    ELS_RLS = 0x0F,
    ELS_ECHO = 0x10,
    ELS_RPS = 0x56,
    ELS_RNID = 0x78,
    LS_RJT_LOGICAL_ERROR = 0x03,
    LS_RJT_UNABLE_TO_PERFORM = 0x09,
    LS_RJT_NOT_SUPPORTED = 0x0B,
    RNID_FORMAT_TOPOLOGY = 0xDF,
    RPS_BY_PORT_NUMBER = 0x01,  // RPS flag: the port selection is a port number
    RPS_BY_PORT_NAME = 0x02,    // ... a port name
};
inline constexpr size_t RLS_ACC_SIZE = 4 + 24;          // LS_ACC word, link error status block
inline constexpr size_t RPS_ACC_SIZE = 4 + 4 + 4 + 24;  // LS_ACC word, flags, port status, the block
// RPS port status bits.
enum : uint16_t {
    PORT_STATUS_FABRIC = 0x0004,  // a fabric is present
    PORT_STATUS_LOOP = 0x0008,    // operating on a loop
    PORT_STATUS_N_PORT = 0x0010,  // operating point to point or on a fabric
};

struct ElsAnswer {
    std::vector<uint8_t> bytes;  // LS_ACC or LS_RJT payload
    uint8_t command = 0;
    bool accepted = false;
    uint8_t reason = 0, explanation = 0;
};

// The answer of remote port `to`, seen from host `via`, to an ELS whose
// payload starts with its command word.
ElsAnswer els_answer(const HostPort& via, const RemotePort& to, const uint8_t* payload, size_t len);

}  // namespace vxsim::drv
