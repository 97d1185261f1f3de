// Netlink channel: the vendor socket (requests to the driver, their replies,
// the driver's event log) and the FC transport event socket, with their
// process-wide buffers. Internal.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "exioct.h"
#include "vx_core.h"
#include "vxa_nlnk.h"

extern int vxapi_nl_fd;         // vendor socket, -1 when closed
extern int vxapi_scsi_nl_fd;    // FC transport event socket, -1 when closed
extern uint8_t* vxapi_nlm_aen_sendbuf;
extern uint8_t* vxapi_nlm_aen_recvbuf;
extern uint8_t* vxapi_scsi_nlm_aen_recvbuf;
extern sockaddr_nl vxapi_nl_src_addr;     // our end of the vendor socket
extern sockaddr_nl vxapi_nl_dest_addr;    // the kernel
extern sockaddr_nl vxapi_scsi_nl_src_addr;

int vxapi_nlm_buf_alloc(size_t size, uint8_t** buf);
int vxapi_nlm_aen_sendbuf_alloc(size_t size);
int vxapi_nlm_aen_recvbuf_alloc(size_t size);
int vxapi_scsi_nlm_aen_recvbuf_alloc(size_t size);

// Each returns the socket, or -1 after undoing everything it made.
int vxapi_nl_open();
int vxapi_nl_scsi_fc_open();
// Close a socket and free its buffers; nothing happens when it is closed.
void vxapi_nl_close();
void vxapi_nl_scsi_fc_close();

// Opens both sockets and marks every port record with the socket that
// opened (features 0x200 and 0x400). 0 when both opened.
int vxapi_open_netlink_socket();

// ---- Framing ----

// The nlmsghdr and SCSI transport header of a vendor request at the start
// of `buf` (at least VX_NL_FC_MSG_OFF bytes): our pid, flags 0, type 17,
// version 1, magic 0xA1B2, msgtype 0x8000. nlmsg_len and the vendor record
// are the caller's.
void vxapi_cmn_nl_hdr(uint8_t* buf);
// One recvmsg of up to `len` bytes from the kernel's address into `buf`;
// the byte count, or -1 with errno.
ssize_t vxapi_rcv_msg(int fd, size_t len, sockaddr_nl* addr, uint8_t* buf, int flags = 0);

// How a received vendor message relates to the request for (host_no, cmd).
enum class vxapi_nl_reply { ours, foreign, garbled };
// `msg` holds `len` received bytes: a reply is ours when it is a whole
// vendor message (headers, magic 0xA1B2, the 64-bit magic) for our host and
// command; a message of another magic, host or command is foreign; anything
// shorter or inconsistent is garbled.
vxapi_nl_reply vxapi_nl_check_reply(const uint8_t* msg, size_t len, uint32_t host_no, uint32_t cmd);
// One received FC transport message as a library event entry: true when it
// is a well-formed event of a known code (LIP, link up/down, LIP reset,
// RSCN). The host and the kernel's event number come back for the filters.
bool vxapi_nl_fc_event_entry(const uint8_t* msg, size_t len, EXT_ASYNC_EVENT* entry, uint32_t* host_no,
                             uint32_t* event_num);
// The event log of a reply payload (`len` bytes of vxfc_aen_log) as library
// event entries of host `host_no`, at most `max`; empty entries are
// skipped and num_events never counts past the received bytes.
uint32_t vxapi_nl_aen_log_entries(const uint8_t* payload, size_t len, uint32_t host_no, EXT_ASYNC_EVENT* out,
                                  uint32_t max);
// The 32-bit event data as the entry's bytes 4-7: bits 16-23, 8-15, 0-7,
// then 24-31 (an RSCN's port id, then its address format).
void vxapi_nl_event_data_bytes(uint32_t data, EXT_ASYNC_EVENT* entry);

// ---- Requests on the vendor socket ----
// Each: (fd, host_no, ..., pext_stat). Extended status 1 once the buffers
// are there; a reply with error 0 gives status 0 and result 0; the driver's
// error otherwise (result 1). A send or receive failure leaves status 1 and
// returns -1 with errno (ETIMEDOUT when no reply of ours came); buffers that
// cannot be had return 1 with the status untouched.
int vxapi_nl_srlx_reset(int fd, uint32_t host_no, uint32_t diag_fw, uint32_t* pext_stat);
// The companion chip's firmware image, sent in pieces of up to 16 KiB.
int vxapi_nl_srlx_updatefw(int fd, uint32_t host_no, uint32_t diag_fw, const uint8_t* image, uint32_t len,
                           uint32_t* pext_stat);
// A management command: `mgmt` (header) goes out with `len` bytes of `data`
// and comes back as the driver answered, with up to `len` reply bytes in `data`.
int vxapi_nl_srlx_mgmt(int fd, uint32_t host_no, vxa_srlx_msg_mgmt* mgmt, uint8_t* data, uint32_t len,
                       uint32_t* pext_stat);
// The driver's event log of the host as library event entries: *pbytes is
// the room of `entries` on entry and the bytes produced on return.
int vxapi_nl_get_aen(int fd, uint32_t host_no, EXT_ASYNC_EVENT* entries, uint32_t* pbytes, uint32_t* pext_stat);
// Loopback (cmd 5) or echo (6): `lb` goes out and comes back; `tx` (len
// bytes, at most 16 KiB) is the data sent, `rx` receives what came back.
int vxapi_nl_loopback_test(int fd, uint32_t host_no, uint32_t cmd, msg_loopback* lb, const uint8_t* tx, uint8_t* rx,
                           uint32_t len, uint32_t* pext_stat);
int vxapi_nl_port_param(int fd, uint32_t host_no, vxa_port_param* param, uint32_t* pext_stat);
int vxapi_nl_enable_disable_qos(int fd, uint32_t host_no, uint16_t enable, uint32_t* pext_stat);
int vxapi_nl_get_qos_config(int fd, uint32_t host_no, vxa_qos_msg* cfg, uint32_t* pext_stat);
int vxapi_nl_set_qos_config(int fd, uint32_t host_no, const vxa_qos_msg* cfg, uint32_t* pext_stat);
int vxapi_nl_set_reset_diag_mode(int fd, uint32_t host_no, uint32_t mode, uint32_t* pext_stat);
int vxapi_nl_update_fru_versions(int fd, uint32_t host_no, const uint8_t* image, uint32_t len, uint32_t* pext_stat);
// Reads (write 0, command 12) or writes (1, command 13) the FRU status.
int vxapi_nl_fru_status(int fd, uint32_t host_no, vxa_fru_status* status, int write, uint32_t* pext_stat);
int vxapi_nl_set_i2c(int fd, uint32_t host_no, const vxa_i2c_access* i2c, uint32_t* pext_stat);
int vxapi_nl_get_i2c(int fd, uint32_t host_no, vxa_i2c_access* i2c, uint32_t* pext_stat);
int vxapi_nl_serdes_reg_ops(int fd, uint32_t host_no, vxa_serdes_reg* reg, uint32_t* pext_stat);
int vxapi_nl_serdes_reg_ops_ex(int fd, uint32_t host_no, vxa_serdes_reg_ex* reg, uint32_t* pext_stat);

// ---- FC transport events ----

// True (and the mark moved on) when `num` is newer than the mark, in serial
// arithmetic so that the kernel's counter may wrap.
bool vxapi_fc_event_is_new(vxapi_fc_event_seen* seen, uint32_t num);

// Collects pending FC transport events without waiting: up to 64 receives,
// stopping at the first that finds nothing. Events of hosts the library
// does not know, of unknown codes, malformed ones and (with `seen`) those
// another process has queued already are skipped. *pbytes: the room of
// `entries` on entry (at most 64 entries are used), the bytes produced
// on return. 0 when an entry was produced or nothing was pending; else 1.
int vxapi_nl_scsi_fc_get_aen(int fd, EXT_ASYNC_EVENT* entries, uint32_t* pbytes, vxapi_fc_event_seen* seen);
