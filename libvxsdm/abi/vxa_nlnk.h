// Netlink records: the driver's vendor channel (protocol 20: requests, their
// replies and the driver's event log) and the kernel's FC transport events
// (protocol 18, group 4). All fields in host byte order. Debian's kernel
// headers leave out scsi/scsi_netlink*.h, so the SCSI transport records are
// written out here with the kernel's names.
#pragma once

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>

inline constexpr int VX_NL_PROTO_VENDOR = 20;  // the driver's vendor channel
inline constexpr int VX_NL_PROTO_SCSI = 18;    // NETLINK_SCSITRANSPORT
inline constexpr uint32_t VX_NL_FC_EVENTS_GROUP = 4;

// ---- SCSI transport header (after the nlmsghdr) ----

inline constexpr uint16_t SCSI_TRANSPORT_MSG = NLMSG_MIN_TYPE + 1;  // nlmsg_type 17
inline constexpr uint8_t SCSI_NL_VERSION = 1;
inline constexpr uint16_t SCSI_NL_MAGIC = 0xA1B2;
inline constexpr uint8_t SCSI_NL_TRANSPORT_FC = 1;
inline constexpr uint16_t SCSI_NL_MSGTYPE_VENDOR = 0x8000;  // host vendor message
inline constexpr uint16_t FC_NL_ASYNC_EVENT = 0x0100;

struct scsi_nl_hdr {
    uint8_t version;
    uint8_t transport;
    uint16_t magic;
    uint16_t msgtype;
    uint16_t msglen;
};
static_assert(sizeof(scsi_nl_hdr) == 8);
static_assert(offsetof(scsi_nl_hdr, magic) == 2);
static_assert(offsetof(scsi_nl_hdr, msgtype) == 4);
static_assert(offsetof(scsi_nl_hdr, msglen) == 6);

// ---- FC transport event (multicast to group 4) ----

// FC host event codes of the transport.
enum : uint32_t {
    FCH_EVT_LIP = 1,
    FCH_EVT_LINKUP = 2,
    FCH_EVT_LINKDOWN = 3,
    FCH_EVT_LIPRESET = 4,
    FCH_EVT_RSCN = 5,
};

struct fc_nl_event {
    scsi_nl_hdr snlh;
    uint64_t seconds;
    uint64_t vendor_id;
    uint16_t host_no;
    uint16_t event_datalen;
    uint32_t event_num;  // counts every event of the kernel, whatever the host
    uint32_t event_code;
    uint32_t event_data;  // RSCN: format in bits 24-31, port id in bits 0-23
};
static_assert(sizeof(fc_nl_event) == 40);
static_assert(offsetof(fc_nl_event, seconds) == 8);
static_assert(offsetof(fc_nl_event, vendor_id) == 16);
static_assert(offsetof(fc_nl_event, host_no) == 24);
static_assert(offsetof(fc_nl_event, event_datalen) == 26);
static_assert(offsetof(fc_nl_event, event_num) == 28);
static_assert(offsetof(fc_nl_event, event_code) == 32);
static_assert(offsetof(fc_nl_event, event_data) == 36);

// A whole event message: the event lies 16 bytes into it.
inline constexpr size_t VX_NL_FC_EVENT_MSG_LEN = NLMSG_HDRLEN + sizeof(fc_nl_event);
static_assert(VX_NL_FC_EVENT_MSG_LEN == 56);

// ---- Vendor channel ----

// Upper 32 bits: the maker's PCI vendor id over 0x84DD; lower: 0xFCAB1FC1.
inline constexpr uint64_t VXA_FC_MSG_MAGIC = 0x1D5A84DDFCAB1FC1ull;

// Command codes (the same numbers as the bsg vendor codes of the same
// operations).
enum : uint32_t {
    VXA_SRLX_RESET = 1,
    VXA_SRLX_UPDATEFW = 2,
    VXA_SRLX_MGMT = 3,
    VXA_GET_AEN = 4,
    VXA_LOOPBACK = 5,
    VXA_ECHO = 6,
    VXA_PORT_PARAM = 7,
    VXA_QOS = 8,
    VXA_DIAG_MODE = 9,
    VXA_UPDATE_FRU_VERSIONS = 11,
    VXA_READ_FRU_STATUS = 12,
    VXA_WRITE_FRU_STATUS = 13,
    VXA_SET_I2C = 16,
    VXA_GET_I2C = 17,
    VXA_SERDES_REG = 19,
    VXA_SERDES_REG_EX = 20,
};

inline constexpr size_t VXA_MSG_PAYLOAD = 2052;

struct msg_reset {
    uint32_t diag_fw;  // 1: reset into the diagnostic firmware
};
static_assert(sizeof(msg_reset) == 4);

// One piece of a companion-chip firmware image; fw_bytes run on for `len`
// bytes, past the end of the fixed record when the piece is larger.
struct msg_update_fw {
    uint32_t diag_fw;
    uint32_t offset;
    uint32_t len;     // bytes in this message
    uint32_t fw_len;  // the whole image
    uint8_t fw_bytes[VXA_MSG_PAYLOAD - 16];
};
static_assert(offsetof(msg_update_fw, fw_bytes) == 16);

struct vxa_srlx_msg_mgmt {
    uint16_t cmd;
    uint16_t rsrvd;
    union {
        uint32_t words[3];
        uint8_t bytes[12];
    } mgmtp;
    uint32_t len;  // bytes of payload
    uint8_t payload[VXA_MSG_PAYLOAD - 20];
};
static_assert(offsetof(vxa_srlx_msg_mgmt, mgmtp) == 4);
static_assert(offsetof(vxa_srlx_msg_mgmt, len) == 16);
static_assert(offsetof(vxa_srlx_msg_mgmt, payload) == 20);

#pragma pack(push, 1)
struct msg_loopback {
    uint16_t options;
    uint32_t tx_cnt;
    uint32_t iter_cnt;
    uint64_t tx_buf_address;
    uint32_t tx_buf_len;
    uint16_t reserved1[9];
    uint64_t rx_buf_address;
    uint32_t rx_buf_len;
    uint16_t comp_stat;
    uint16_t crc_err_cnt;
    uint16_t disparity_err_cnt;
    uint16_t frame_len_err_cnt;
    uint32_t iter_cnt_last_err;
    uint8_t cmd_sent;
    uint8_t reserved;
    uint16_t reserved2[7];
    uint32_t offset;
    uint32_t len;
    uint32_t total_len;
    uint8_t bytes[VXA_MSG_PAYLOAD - 92];
};
#pragma pack(pop)
static_assert(offsetof(msg_loopback, tx_cnt) == 2);
static_assert(offsetof(msg_loopback, iter_cnt) == 6);
static_assert(offsetof(msg_loopback, tx_buf_address) == 10);
static_assert(offsetof(msg_loopback, tx_buf_len) == 18);
static_assert(offsetof(msg_loopback, reserved1) == 22);
static_assert(offsetof(msg_loopback, rx_buf_address) == 40);
static_assert(offsetof(msg_loopback, rx_buf_len) == 48);
static_assert(offsetof(msg_loopback, comp_stat) == 52);
static_assert(offsetof(msg_loopback, crc_err_cnt) == 54);
static_assert(offsetof(msg_loopback, disparity_err_cnt) == 56);
static_assert(offsetof(msg_loopback, frame_len_err_cnt) == 58);
static_assert(offsetof(msg_loopback, iter_cnt_last_err) == 60);
static_assert(offsetof(msg_loopback, cmd_sent) == 64);
static_assert(offsetof(msg_loopback, reserved) == 65);
static_assert(offsetof(msg_loopback, reserved2) == 66);
static_assert(offsetof(msg_loopback, offset) == 80);
static_assert(offsetof(msg_loopback, len) == 84);
static_assert(offsetof(msg_loopback, total_len) == 88);
static_assert(offsetof(msg_loopback, bytes) == 92);

struct vxa_port_param {
    struct {
        union {
            uint8_t wwnn[8];
            uint8_t wwpn[8];
            uint8_t id[4];
        } dest_addr;
        uint16_t dest_type;
        uint16_t lun;
        uint16_t padding[2];
    } fc_scsi_addr;
    uint16_t mode;
    uint16_t speed;
};
static_assert(sizeof(vxa_port_param) == 20);
static_assert(offsetof(vxa_port_param, mode) == 16);
static_assert(offsetof(vxa_port_param, speed) == 18);

// QoS of a port: sub-command VXA_QOS_ENABLE (enable 0/1), _GET, _SET.
enum : uint16_t { VXA_QOS_ENABLE = 1, VXA_QOS_GET = 2, VXA_QOS_SET = 3 };
struct vxa_qos_msg {
    uint16_t sub_cmd;
    uint16_t enable;
    uint32_t priority;   // 0 low, 1 medium, 2 high
    uint32_t bandwidth;  // percent of the link
    uint32_t reserved;
};
static_assert(sizeof(vxa_qos_msg) == 16);

struct vxa_diag_mode {
    uint32_t mode;  // 1 set, 0 reset
    uint32_t reserved;
};
static_assert(sizeof(vxa_diag_mode) == 8);

// A piece of a FRU version image, as msg_update_fw.
struct vxa_fru_image {
    uint32_t offset;
    uint32_t len;
    uint32_t total_len;
    uint32_t reserved;
    uint8_t bytes[VXA_MSG_PAYLOAD - 16];
};
static_assert(offsetof(vxa_fru_image, bytes) == 16);

struct vxa_fru_status {
    uint32_t operation;
    uint32_t status;
    uint32_t reserved[2];
};
static_assert(sizeof(vxa_fru_status) == 16);

inline constexpr size_t VXA_I2C_MAX = 64;
struct vxa_i2c_access {
    uint16_t device;
    uint16_t offset;
    uint16_t option;
    uint16_t length;  // bytes of buffer in use
    uint8_t buffer[VXA_I2C_MAX];
};
static_assert(sizeof(vxa_i2c_access) == 72);

struct vxa_serdes_reg {
    uint16_t cmd;  // 1 read, 2 write
    uint16_t addr;
    uint16_t val;
    uint16_t reserved;
};
static_assert(sizeof(vxa_serdes_reg) == 8);

struct vxa_serdes_reg_ex {
    uint16_t cmd;
    uint16_t reserved;
    uint32_t addr;
    uint32_t val;
};
static_assert(sizeof(vxa_serdes_reg_ex) == 12);

// The driver's event log. payload[0] and payload[1] carry the event's data
// word (payload[0] the high half), formed as the FC transport's RSCN data.
struct vxfc_aen_entry {
    uint16_t event_code;
    uint16_t payload[3];
};
static_assert(sizeof(vxfc_aen_entry) == 8);

inline constexpr uint32_t VXFC_AEN_LOG_ENTRIES = 256;
struct vxfc_aen_log {
    uint32_t num_events;
    vxfc_aen_entry events[VXFC_AEN_LOG_ENTRIES];
};
static_assert(sizeof(vxfc_aen_log) == VXA_MSG_PAYLOAD);
static_assert(offsetof(vxfc_aen_log, events) == 4);

// The vendor record after the SCSI transport header.
struct vxa_fc_msg {
    uint64_t magic;
    uint16_t host_no;
    uint16_t vmsg_datalen;  // payload bytes where the command has a variable payload
    uint32_t cmd;
    uint32_t error;         // the driver's reply: 0 success, else its status
    union {
        msg_reset reset;
        msg_update_fw update_fw;
        vxa_srlx_msg_mgmt srlx_mgmt;
        msg_loopback loopback;
        vxa_port_param port_param;
        vxa_qos_msg qos;
        vxa_diag_mode diag_mode;
        vxa_fru_image fru_image;
        vxa_fru_status fru_status;
        vxa_i2c_access i2c;
        vxa_serdes_reg serdes;
        vxa_serdes_reg_ex serdes_ex;
        vxfc_aen_log aen_log;
        uint8_t bytes[VXA_MSG_PAYLOAD];
    } u;
};
static_assert(sizeof(vxa_fc_msg) == 2072);
static_assert(offsetof(vxa_fc_msg, host_no) == 8);
static_assert(offsetof(vxa_fc_msg, vmsg_datalen) == 10);
static_assert(offsetof(vxa_fc_msg, cmd) == 12);
static_assert(offsetof(vxa_fc_msg, error) == 16);
static_assert(offsetof(vxa_fc_msg, u) == 20);

// The request as one buffer: nlmsghdr, SCSI transport header, vendor record.
inline constexpr size_t VX_NL_SCSI_HDR_OFF = NLMSG_HDRLEN;
inline constexpr size_t VX_NL_FC_MSG_OFF = NLMSG_HDRLEN + sizeof(scsi_nl_hdr);
inline constexpr size_t VX_NL_PAYLOAD_OFF = VX_NL_FC_MSG_OFF + offsetof(vxa_fc_msg, u);
inline constexpr size_t VX_NL_MSG_LEN = VX_NL_FC_MSG_OFF + sizeof(vxa_fc_msg);
static_assert(sizeof(nlmsghdr) == 16 && NLMSG_HDRLEN == 16);
static_assert(VX_NL_FC_MSG_OFF == 24);
static_assert(VX_NL_MSG_LEN == 2096);

// Buffers: requests send up to 16 KiB of data after the fixed message and
// take replies of up to 64 KiB; the event log buffers are larger still.
inline constexpr size_t VX_NL_SEND_BUF_SIZE = 18480;
inline constexpr size_t VX_NL_RECV_BUF_SIZE = 67632;
inline constexpr size_t VX_NL_AEN_BUF_SIZE = 133168;
inline constexpr size_t VX_NL_SCSI_AEN_BUF_SIZE = 64;
static_assert(VX_NL_SEND_BUF_SIZE == VX_NL_MSG_LEN + 16384);
static_assert(VX_NL_RECV_BUF_SIZE == VX_NL_MSG_LEN + 65536);
