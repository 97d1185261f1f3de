// FC transport bsg records as the kernel publishes them (scsi/scsi_bsg_fc.h).
// Debian's kernel headers package leaves the scsi/ headers out, so the
// records are written out here with the kernel's names and layout, once,
// for the library and the simulator's driver alike. The request is packed:
// its union starts at byte 4.
#pragma once

#include <linux/bsg.h>

#include <cstddef>
#include <cstdint>

inline constexpr uint32_t FC_BSG_HST_MASK = 0x80000000u;
inline constexpr uint32_t FC_BSG_RPT_MASK = 0x40000000u;
inline constexpr uint32_t FC_BSG_HST_ADD_RPORT = FC_BSG_HST_MASK | 0x00000001u;
inline constexpr uint32_t FC_BSG_HST_DEL_RPORT = FC_BSG_HST_MASK | 0x00000002u;
inline constexpr uint32_t FC_BSG_HST_ELS_NOLOGIN = FC_BSG_HST_MASK | 0x00000003u;
inline constexpr uint32_t FC_BSG_HST_CT = FC_BSG_HST_MASK | 0x00000004u;
inline constexpr uint32_t FC_BSG_HST_VENDOR = FC_BSG_HST_MASK | 0x000000FFu;
inline constexpr uint32_t FC_BSG_RPT_ELS = FC_BSG_RPT_MASK | 0x00000001u;
inline constexpr uint32_t FC_BSG_RPT_CT = FC_BSG_RPT_MASK | 0x00000002u;

// fc_bsg_ctels_reply.status
inline constexpr uint32_t FC_CTELS_STATUS_OK = 0;
inline constexpr uint32_t FC_CTELS_STATUS_REJECT = 1;

#pragma pack(push, 1)
struct fc_bsg_host_add_rport {
    uint8_t reserved;
    uint8_t port_id[3];
};

struct fc_bsg_host_els {
    uint8_t command_code;
    uint8_t port_id[3];
};

struct fc_bsg_host_ct {
    uint8_t reserved;
    uint8_t port_id[3];
    uint32_t preamble_word0;
    uint32_t preamble_word1;
    uint32_t preamble_word2;
};

// The kernel's vendor form ends in an open array of command words; every
// vendor command of this driver uses two.
struct fc_bsg_host_vendor {
    uint64_t vendor_id;
    uint32_t vendor_cmd[2];
};

struct fc_bsg_rport_els {
    uint8_t els_code;
};

struct fc_bsg_rport_ct {
    uint32_t preamble_word0;
    uint32_t preamble_word1;
    uint32_t preamble_word2;
};

struct fc_bsg_request {
    uint32_t msgcode;
    union {
        fc_bsg_host_add_rport h_addrport;
        fc_bsg_host_els h_els;
        fc_bsg_host_ct h_ct;
        fc_bsg_host_vendor h_vendor;
        fc_bsg_rport_els r_els;
        fc_bsg_rport_ct r_ct;
    } rqst_data;
};
#pragma pack(pop)
static_assert(sizeof(fc_bsg_request) == 20);
static_assert(offsetof(fc_bsg_request, rqst_data) == 4);
static_assert(offsetof(fc_bsg_request, rqst_data.h_els.port_id) == 5);
static_assert(offsetof(fc_bsg_request, rqst_data.h_ct.port_id) == 5);
static_assert(offsetof(fc_bsg_request, rqst_data.h_ct.preamble_word0) == 8);
static_assert(offsetof(fc_bsg_request, rqst_data.h_ct.preamble_word2) == 16);
static_assert(offsetof(fc_bsg_request, rqst_data.h_vendor.vendor_id) == 4);
static_assert(offsetof(fc_bsg_request, rqst_data.h_vendor.vendor_cmd) == 12);
static_assert(offsetof(fc_bsg_request, rqst_data.r_ct.preamble_word2) == 12);

// Bytes of the request the transport wants for each message before it
// hands the job to the driver.
inline constexpr size_t FC_BSG_LEN_HOST_ELS = 4 + sizeof(fc_bsg_host_els);
inline constexpr size_t FC_BSG_LEN_HOST_CT = 4 + sizeof(fc_bsg_host_ct);
inline constexpr size_t FC_BSG_LEN_HOST_VENDOR = 4 + sizeof(uint64_t);
inline constexpr size_t FC_BSG_LEN_RPORT_ELS = 4 + sizeof(fc_bsg_rport_els);
inline constexpr size_t FC_BSG_LEN_RPORT_CT = 4 + sizeof(fc_bsg_rport_ct);
static_assert(FC_BSG_LEN_HOST_CT == 20 && FC_BSG_LEN_HOST_VENDOR == 12 && FC_BSG_LEN_RPORT_CT == 16);

struct fc_bsg_ctels_reply {
    uint32_t status;
    struct {
        uint8_t action;
        uint8_t reason_code;
        uint8_t reason_explanation;
        uint8_t vendor_unique;
    } rjt_data;
};

struct fc_bsg_reply {
    int32_t result;
    uint32_t reply_payload_rcv_len;
    union {
        uint32_t vendor_rsp[1];
        fc_bsg_ctels_reply ctels_reply;
    } reply_data;
};
static_assert(offsetof(fc_bsg_reply, reply_data) == 8);
static_assert(offsetof(fc_bsg_reply, reply_data.ctels_reply.rjt_data.reason_code) == 13);
static_assert(sizeof(fc_bsg_reply) == 16);
static_assert(sizeof(sg_io_v4) == 160);
static_assert(offsetof(sg_io_v4, request_len) == 12);
static_assert(offsetof(sg_io_v4, max_response_len) == 44);
static_assert(offsetof(sg_io_v4, dout_xfer_len) == 60);
static_assert(offsetof(sg_io_v4, din_xfer_len) == 68);
static_assert(offsetof(sg_io_v4, dout_xferp) == 72);
static_assert(offsetof(sg_io_v4, din_xferp) == 80);
static_assert(offsetof(sg_io_v4, timeout) == 88);
