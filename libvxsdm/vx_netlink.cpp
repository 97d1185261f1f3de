// Netlink channel: the two event sockets and their buffers.
#include "vxa_nlnk.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "vx_core.h"
#include "vx_sddbg.h"

int vxapi_nl_fd = -1;
int vxapi_scsi_nl_fd = -1;
uint8_t* vxapi_nlm_aen_sendbuf;
uint8_t* vxapi_nlm_aen_recvbuf;
uint8_t* vxapi_scsi_nlm_aen_recvbuf;
sockaddr_nl vxapi_nl_src_addr;
sockaddr_nl vxapi_nl_dest_addr;
sockaddr_nl vxapi_scsi_nl_src_addr;

namespace {

constexpr uint32_t NL_TRACE = VXDBG_TRACE;
constexpr uint32_t NL_ERROR = VXDBG_ERROR;

void trace_failure(const char* text) {
    const int err = errno;
    vxdbg_num(NL_ERROR, text, static_cast<uint64_t>(err), VXDBG_DEC, 1);
    errno = err;
}

void free_buf(uint8_t** buf) {
    free(*buf);
    *buf = nullptr;
}

sockaddr_nl nl_address(uint32_t pid, uint32_t groups) {
    sockaddr_nl addr{};
    addr.nl_family = AF_NETLINK;
    addr.nl_pid = pid;
    addr.nl_groups = groups;
    return addr;
}

void set_feature_everywhere(uint32_t bit) {
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [bit](vxapi_priv_database* record) {
        record->features |= bit;
        return true;
    });
}

}  // namespace

int vxapi_nlm_buf_alloc(size_t size, uint8_t** buf) {
    if (!buf)
        return 1;
    *buf = static_cast<uint8_t*>(calloc(1, size));
    return *buf ? 0 : 1;
}

int vxapi_nlm_aen_sendbuf_alloc(size_t size) { return vxapi_nlm_buf_alloc(size, &vxapi_nlm_aen_sendbuf); }

int vxapi_nlm_aen_recvbuf_alloc(size_t size) { return vxapi_nlm_buf_alloc(size, &vxapi_nlm_aen_recvbuf); }

int vxapi_scsi_nlm_aen_recvbuf_alloc(size_t size) {
    return vxapi_nlm_buf_alloc(size, &vxapi_scsi_nlm_aen_recvbuf);
}

int vxapi_nl_open() {
    vxdbg_line(NL_TRACE, "vxapi_nl_open: entered.");
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, VX_NL_PROTO_VENDOR);
    if (fd < 0) {
        trace_failure("vxapi_nl_open: socket failed. errno=");
        return -1;
    }
    auto fail = [fd](const char* text) {
        trace_failure(text);
        const int err = errno;
        close(fd);
        free_buf(&vxapi_nlm_aen_sendbuf);
        free_buf(&vxapi_nlm_aen_recvbuf);
        errno = err;
        return -1;
    };
    if (vxapi_nlm_aen_sendbuf_alloc(VX_NL_AEN_BUF_SIZE) != 0 || vxapi_nlm_aen_recvbuf_alloc(VX_NL_AEN_BUF_SIZE) != 0)
        return fail("vxapi_nl_open: buffer alloc failed. errno=");
    vxapi_nl_src_addr = nl_address(static_cast<uint32_t>(getpid()), 0);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&vxapi_nl_src_addr), sizeof vxapi_nl_src_addr) != 0)
        return fail("vxapi_nl_open: bind failed. errno=");
    vxapi_nl_dest_addr = nl_address(0, 0);
    vxdbg_num(NL_TRACE, "vxapi_nl_open: exiting. fd=", static_cast<uint64_t>(fd), VXDBG_DEC, 1);
    return fd;
}

int vxapi_nl_scsi_fc_open() {
    vxdbg_line(NL_TRACE, "vxapi_nl_scsi_fc_open: entered.");
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, VX_NL_PROTO_SCSI);
    if (fd < 0) {
        trace_failure("vxapi_nl_scsi_fc_open: socket failed. errno=");
        return -1;
    }
    auto fail = [fd](const char* text) {
        trace_failure(text);
        const int err = errno;
        close(fd);
        free_buf(&vxapi_scsi_nlm_aen_recvbuf);
        errno = err;
        return -1;
    };
    if (vxapi_scsi_nlm_aen_recvbuf_alloc(VX_NL_SCSI_AEN_BUF_SIZE) != 0)
        return fail("vxapi_nl_scsi_fc_open: buffer alloc failed. errno=");
    vxapi_scsi_nl_src_addr = nl_address(static_cast<uint32_t>(getpid()), VX_NL_FC_EVENTS_GROUP);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&vxapi_scsi_nl_src_addr), sizeof vxapi_scsi_nl_src_addr) != 0)
        return fail("vxapi_nl_scsi_fc_open: bind failed. errno=");
    const int group = static_cast<int>(VX_NL_FC_EVENTS_GROUP);
    if (setsockopt(fd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0)
        return fail("vxapi_nl_scsi_fc_open: add membership failed. errno=");
    vxdbg_num(NL_TRACE, "vxapi_nl_scsi_fc_open: exiting. fd=", static_cast<uint64_t>(fd), VXDBG_DEC, 1);
    return fd;
}

void vxapi_nl_close() {
    if (vxapi_nl_fd < 0)
        return;
    free_buf(&vxapi_nlm_aen_sendbuf);
    free_buf(&vxapi_nlm_aen_recvbuf);
    close(vxapi_nl_fd);
    vxapi_nl_fd = -1;
}

void vxapi_nl_scsi_fc_close() {
    if (vxapi_scsi_nl_fd < 0)
        return;
    free_buf(&vxapi_scsi_nlm_aen_recvbuf);
    close(vxapi_scsi_nl_fd);
    vxapi_scsi_nl_fd = -1;
}

int vxapi_open_netlink_socket() {
    vxdbg_line(NL_TRACE, "vxapi_open_netlink_socket: entered.");
    // A socket left from an earlier load belongs to the same process: reuse
    // of its address would fail the bind.
    vxapi_nl_close();
    vxapi_nl_scsi_fc_close();
    int result = 0;
    vxapi_nl_fd = vxapi_nl_open();
    if (vxapi_nl_fd >= 0)
        set_feature_everywhere(VX_FEAT_NL_VENDOR);
    else
        result = 1;
    vxapi_scsi_nl_fd = vxapi_nl_scsi_fc_open();
    if (vxapi_scsi_nl_fd >= 0)
        set_feature_everywhere(VX_FEAT_NL_SCSI);
    else
        result = 1;
    vxdbg_num(NL_TRACE, "vxapi_open_netlink_socket: exiting. ret=", static_cast<uint64_t>(result), VXDBG_DEC, 1);
    return result;
}
