// Netlink channel: the vendor socket (requests to the driver, its event log)
// and the FC transport event socket, with their process-wide buffers.
#pragma once

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>

inline constexpr int VX_NL_PROTO_VENDOR = 20;     // the driver's vendor channel
inline constexpr int VX_NL_PROTO_SCSI = 18;       // NETLINK_SCSITRANSPORT
inline constexpr uint32_t VX_NL_FC_EVENTS_GROUP = 4;
inline constexpr size_t VX_NL_AEN_BUF_SIZE = 133168;
inline constexpr size_t VX_NL_SCSI_AEN_BUF_SIZE = 64;

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
