// The FC transport's bsg messages (the kernel's scsi/scsi_bsg_fc.h), laid
// out here because not every distribution ships that header.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vxsim::drv {

enum : uint32_t {
    FC_BSG_HST_ADD_RPORT = 0x80000001,
    FC_BSG_HST_DEL_RPORT = 0x80000002,
    FC_BSG_HST_ELS_NOLOGIN = 0x80000003,
    FC_BSG_HST_CT = 0x80000004,
    FC_BSG_HST_VENDOR = 0x800000FF,
    FC_BSG_RPT_ELS = 0x40000001,
    FC_BSG_RPT_CT = 0x40000002,
    FC_BSG_HST_MASK = 0x80000000,
    FC_BSG_RPT_MASK = 0x40000000,
};

// fc_bsg_ctels_reply.status
enum : uint32_t {
    FC_CTELS_STATUS_OK = 0,
    FC_CTELS_STATUS_REJECT = 1,
};

#pragma pack(push, 1)
struct FcBsgRequest {
    uint32_t msgcode;
    union {
        struct {
            uint8_t reserved;
            uint8_t port_id[3];
        } h_addrport;
        struct {
            uint8_t command_code;
            uint8_t port_id[3];
        } h_els;
        struct {
            uint8_t reserved;
            uint8_t port_id[3];
            uint32_t preamble_word0, preamble_word1, preamble_word2;
        } h_ct;
        struct {
            uint64_t vendor_id;
            uint32_t vendor_cmd[2];
        } h_vendor;
        struct {
            uint8_t els_code;
        } r_els;
        struct {
            uint32_t preamble_word0, preamble_word1, preamble_word2;
        } r_ct;
    } rqst_data;
};
#pragma pack(pop)
static_assert(sizeof(FcBsgRequest) == 20);
static_assert(offsetof(FcBsgRequest, rqst_data) == 4);

// Bytes of the request the transport wants for each message, before it
// hands the job to the driver.
inline constexpr size_t FC_BSG_LEN_HOST_ELS = 4 + 4;
inline constexpr size_t FC_BSG_LEN_HOST_CT = 4 + 16;
inline constexpr size_t FC_BSG_LEN_HOST_VENDOR = 4 + 8;
inline constexpr size_t FC_BSG_LEN_RPORT_ELS = 4 + 1;
inline constexpr size_t FC_BSG_LEN_RPORT_CT = 4 + 12;

struct FcBsgReply {
    int32_t result;
    uint32_t reply_payload_rcv_len;
    union {
        uint32_t vendor_rsp[1];
        struct {
            uint32_t status;
            uint8_t action, reason_code, reason_explanation, vendor_unique;
        } ctels_reply;
    } reply_data;
};
static_assert(sizeof(FcBsgReply) == 16);
static_assert(offsetof(FcBsgReply, reply_data) == 8);

}  // namespace vxsim::drv
