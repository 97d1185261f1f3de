// Netlink channel: the two event sockets and their buffers, the vendor
// requests with their replies, and the FC transport events.
#include "vx_netlink.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

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

// A reply is awaited this long (the event log's read is on the event
// thread's pass, which holds the database lock); messages that are not ours
// are passed over, this many at most.
constexpr int REPLY_WAIT_MS = 30000;
constexpr int AEN_REPLY_WAIT_MS = 2000;
constexpr int REPLY_DISCARDS = 16;
// The largest piece of data one request carries after its fixed record.
constexpr uint32_t SEND_DATA_MAX = VX_NL_SEND_BUF_SIZE - VX_NL_PAYLOAD_OFF;
// At most this many receives per collection of FC transport events.
constexpr uint32_t FC_RECEIVES = 64;

// Requests and their replies share the vendor socket: one exchange at a time
// per process, so that no thread takes another's reply.
std::mutex vendor_mutex;

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
        vxapi_features_set(record, bit);
        return true;
    });
}

struct free_deleter {
    void operator()(uint8_t* p) const { free(p); }
};
using nl_buffer = std::unique_ptr<uint8_t, free_deleter>;

template <typename T>
T read_at(const uint8_t* p) {
    T v;
    memcpy(&v, p, sizeof v);
    return v;
}

uint32_t& status_word(uint32_t* pext_stat, uint32_t& local) { return pext_stat ? *pext_stat : local; }

void trace_request(const char* name, uint32_t host_no, const char* text, uint64_t number) {
    if (vxdbg_on(NL_TRACE)) {
        vxdbg_print(name, 0, VXDBG_NONE, 0);
        vxdbg_print(": host=", host_no, VXDBG_DEC, 0);
        vxdbg_print(text, number, VXDBG_DEC, 1);
    }
}

// One request: the vendor record for `cmd` with `len` payload bytes
// (`payload` may run past the fixed record, up to the send buffer), the
// reply's first `reply_len` payload bytes back into `reply`. `bufs` are the
// send and receive buffers to use (null: allocated for this request).
struct exchange {
    const char* name;
    int fd;
    uint32_t host_no;
    uint32_t cmd;
    const void* payload = nullptr;
    uint32_t len = 0;
    uint16_t vmsg_datalen = 0;
    void* reply = nullptr;
    uint32_t reply_len = 0;
    uint32_t* reply_got = nullptr;  // payload bytes the reply held
    uint8_t* send_buf = nullptr;    // sized VX_NL_SEND_BUF_SIZE or more
    uint8_t* recv_buf = nullptr;    // sized VX_NL_RECV_BUF_SIZE or more
    size_t recv_size = VX_NL_RECV_BUF_SIZE;
    int wait_ms = REPLY_WAIT_MS;
};

// Waits for our reply in `buf`; its length, or -1 with errno.
ssize_t await_reply(const exchange& x, uint8_t* buf, size_t size) {
    for (int discarded = 0; discarded <= REPLY_DISCARDS;) {
        struct pollfd p {};
        p.fd = x.fd;
        p.events = POLLIN;
        const int ready = poll(&p, 1, x.wait_ms);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0) {
            if (ready == 0)
                errno = ETIMEDOUT;
            return -1;
        }
        sockaddr_nl from{};
        const ssize_t n = vxapi_rcv_msg(x.fd, size, &from, buf, MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            return -1;
        }
        const vxapi_nl_reply kind = vxapi_nl_check_reply(buf, static_cast<size_t>(n), x.host_no, x.cmd);
        if (kind == vxapi_nl_reply::ours)
            return n;
        trace_request(x.name, x.host_no,
                      kind == vxapi_nl_reply::foreign ? ": reply not ours, passed over. len="
                                                      : ": garbled reply, passed over. len=",
                      static_cast<uint64_t>(n));
        ++discarded;
    }
    errno = ETIMEDOUT;
    return -1;
}

int run(const exchange& x, uint32_t* pext_stat) {
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    if (x.len > SEND_DATA_MAX || (x.len != 0 && !x.payload)) {
        trace_request(x.name, x.host_no, ": request too large. len=", x.len);
        return 1;
    }
    nl_buffer own_send, own_recv;
    uint8_t* send_buf = x.send_buf;
    uint8_t* recv_buf = x.recv_buf;
    if (!send_buf) {
        own_send.reset(static_cast<uint8_t*>(calloc(1, VX_NL_SEND_BUF_SIZE)));
        send_buf = own_send.get();
    }
    if (!recv_buf) {
        own_recv.reset(static_cast<uint8_t*>(calloc(1, VX_NL_RECV_BUF_SIZE)));
        recv_buf = own_recv.get();
    }
    if (!send_buf || !recv_buf) {
        trace_request(x.name, x.host_no, ": buffer alloc failed. errno=", static_cast<uint64_t>(errno));
        return 1;
    }
    ext_stat = EXT_STATUS_ERR;

    memset(send_buf, 0, VX_NL_MSG_LEN);
    vxapi_cmn_nl_hdr(send_buf);
    const size_t total = VX_NL_PAYLOAD_OFF + x.len > VX_NL_MSG_LEN ? VX_NL_PAYLOAD_OFF + x.len : VX_NL_MSG_LEN;
    const auto nlmsg_len = static_cast<uint32_t>(total);
    memcpy(send_buf + offsetof(nlmsghdr, nlmsg_len), &nlmsg_len, sizeof nlmsg_len);
    vxa_fc_msg head{};
    head.magic = VXA_FC_MSG_MAGIC;
    head.host_no = static_cast<uint16_t>(x.host_no);
    head.vmsg_datalen = x.vmsg_datalen;
    head.cmd = x.cmd;
    memcpy(send_buf + VX_NL_FC_MSG_OFF, &head, offsetof(vxa_fc_msg, u));
    if (x.len != 0)
        memcpy(send_buf + VX_NL_PAYLOAD_OFF, x.payload, x.len);

    std::lock_guard<std::mutex> lock(vendor_mutex);
    sockaddr_nl dest = nl_address(0, 0);
    struct iovec iov {
        send_buf, total
    };
    struct msghdr msg {};
    msg.msg_name = &dest;
    msg.msg_namelen = sizeof dest;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    ssize_t sent;
    do {
        sent = sendmsg(x.fd, &msg, 0);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        const int err = errno;
        trace_request(x.name, x.host_no, ": sendmsg failed. errno=", static_cast<uint64_t>(err));
        errno = err;
        return -1;
    }
    const ssize_t got = await_reply(x, recv_buf, x.recv_size);
    if (got < 0) {
        const int err = errno;
        trace_request(x.name, x.host_no, ": no reply. errno=", static_cast<uint64_t>(err));
        errno = err;
        return -1;
    }
    const auto error = read_at<uint32_t>(recv_buf + VX_NL_FC_MSG_OFF + offsetof(vxa_fc_msg, error));
    const size_t payload = static_cast<size_t>(got) - VX_NL_PAYLOAD_OFF;
    if (x.reply && x.reply_len != 0) {
        const size_t n = payload < x.reply_len ? payload : x.reply_len;
        memcpy(x.reply, recv_buf + VX_NL_PAYLOAD_OFF, n);
    }
    if (x.reply_got)
        *x.reply_got = static_cast<uint32_t>(payload);
    ext_stat = error;
    trace_request(x.name, x.host_no, ": exiting. error=", error);
    return error == 0 ? 0 : 1;
}

// Requests whose payload is one fixed record, sent and read back in place.
template <typename Record>
int record_request(const char* name, int fd, uint32_t host_no, uint32_t cmd, Record* rec, bool read_back,
                   uint32_t* pext_stat) {
    if (!rec)
        return 1;
    exchange x{name, fd, host_no, cmd};
    x.payload = rec;
    x.len = sizeof *rec;
    if (read_back) {
        x.reply = rec;
        x.reply_len = sizeof *rec;
    }
    return run(x, pext_stat);
}

// A payload image sent in pieces: each message is a 16-byte head (built by
// `head`) followed by the piece's bytes.
template <typename Head>
int send_pieces(const char* name, int fd, uint32_t host_no, uint32_t cmd, const uint8_t* image, uint32_t len,
                Head&& head, uint32_t* pext_stat) {
    if (!image || len == 0)
        return 1;
    constexpr uint32_t HEAD = 16;
    constexpr uint32_t PIECE = SEND_DATA_MAX - HEAD;
    std::unique_ptr<uint8_t[]> msg(new (std::nothrow) uint8_t[HEAD + PIECE]);
    if (!msg)
        return 1;
    for (uint32_t offset = 0; offset < len;) {
        const uint32_t n = len - offset < PIECE ? len - offset : PIECE;
        head(msg.get(), offset, n);
        memcpy(msg.get() + HEAD, image + offset, n);
        exchange x{name, fd, host_no, cmd};
        x.payload = msg.get();
        x.len = HEAD + n;
        x.vmsg_datalen = static_cast<uint16_t>(n);
        const int rc = run(x, pext_stat);
        if (rc != 0)
            return rc;
        offset += n;
    }
    return 0;
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

// ---- Framing ----

void vxapi_cmn_nl_hdr(uint8_t* buf) {
    if (!buf)
        return;
    nlmsghdr nlh{};
    memcpy(&nlh, buf, sizeof nlh);
    nlh.nlmsg_pid = static_cast<uint32_t>(getpid());
    nlh.nlmsg_flags = 0;
    nlh.nlmsg_type = SCSI_TRANSPORT_MSG;
    memcpy(buf, &nlh, sizeof nlh);
    scsi_nl_hdr snlh{};
    memcpy(&snlh, buf + VX_NL_SCSI_HDR_OFF, sizeof snlh);
    snlh.version = SCSI_NL_VERSION;
    snlh.magic = SCSI_NL_MAGIC;
    snlh.msgtype = SCSI_NL_MSGTYPE_VENDOR;
    memcpy(buf + VX_NL_SCSI_HDR_OFF, &snlh, sizeof snlh);
}

ssize_t vxapi_rcv_msg(int fd, size_t len, sockaddr_nl* addr, uint8_t* buf, int flags) {
    if (!buf) {
        errno = EINVAL;
        return -1;
    }
    struct iovec iov {
        buf, len
    };
    struct msghdr msg {};
    msg.msg_name = addr;
    msg.msg_namelen = addr ? sizeof *addr : 0;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    const ssize_t n = recvmsg(fd, &msg, flags);
    // A message cut at `len` is reported as what was kept.
    return n > static_cast<ssize_t>(len) ? static_cast<ssize_t>(len) : n;
}

vxapi_nl_reply vxapi_nl_check_reply(const uint8_t* msg, size_t len, uint32_t host_no, uint32_t cmd) {
    if (!msg || len < VX_NL_PAYLOAD_OFF)
        return vxapi_nl_reply::garbled;
    const auto nlh = read_at<nlmsghdr>(msg);
    const auto snlh = read_at<scsi_nl_hdr>(msg + VX_NL_SCSI_HDR_OFF);
    if (nlh.nlmsg_len < VX_NL_PAYLOAD_OFF || nlh.nlmsg_len > len || nlh.nlmsg_type != SCSI_TRANSPORT_MSG)
        return vxapi_nl_reply::garbled;
    if (snlh.magic != SCSI_NL_MAGIC || snlh.msgtype != SCSI_NL_MSGTYPE_VENDOR)
        return vxapi_nl_reply::foreign;
    const auto magic = read_at<uint64_t>(msg + VX_NL_FC_MSG_OFF + offsetof(vxa_fc_msg, magic));
    const auto host = read_at<uint16_t>(msg + VX_NL_FC_MSG_OFF + offsetof(vxa_fc_msg, host_no));
    const auto command = read_at<uint32_t>(msg + VX_NL_FC_MSG_OFF + offsetof(vxa_fc_msg, cmd));
    if (magic != VXA_FC_MSG_MAGIC || host != static_cast<uint16_t>(host_no) || command != cmd)
        return vxapi_nl_reply::foreign;
    return vxapi_nl_reply::ours;
}

void vxapi_nl_event_data_bytes(uint32_t data, EXT_ASYNC_EVENT* entry) {
    entry->Payload.Bytes[0] = static_cast<uint8_t>(data >> 16);
    entry->Payload.Bytes[1] = static_cast<uint8_t>(data >> 8);
    entry->Payload.Bytes[2] = static_cast<uint8_t>(data);
    entry->Payload.Bytes[3] = static_cast<uint8_t>(data >> 24);
}

bool vxapi_nl_fc_event_entry(const uint8_t* msg, size_t len, EXT_ASYNC_EVENT* entry, uint32_t* host_no,
                             uint32_t* event_num) {
    if (!msg || !entry || len < VX_NL_FC_EVENT_MSG_LEN)
        return false;
    const auto nlh = read_at<nlmsghdr>(msg);
    if (nlh.nlmsg_len < VX_NL_FC_EVENT_MSG_LEN || nlh.nlmsg_len > len || nlh.nlmsg_type != SCSI_TRANSPORT_MSG)
        return false;
    const auto ev = read_at<fc_nl_event>(msg + NLMSG_HDRLEN);
    if (ev.snlh.magic != SCSI_NL_MAGIC || ev.snlh.transport != SCSI_NL_TRANSPORT_FC ||
        ev.snlh.msgtype != FC_NL_ASYNC_EVENT)
        return false;
    static constexpr uint32_t CODES[] = {0, EXT_AEN_LIP, EXT_AEN_LINK_UP, EXT_AEN_LINK_DOWN, EXT_AEN_LIP_RESET,
                                         EXT_AEN_RSCN};
    if (ev.event_code == 0 || ev.event_code > FCH_EVT_RSCN)
        return false;
    EXT_ASYNC_EVENT e{};
    e.AsyncEventCode = CODES[ev.event_code];
    if (ev.event_code == FCH_EVT_RSCN)
        vxapi_nl_event_data_bytes(ev.event_data, &e);
    e.Payload.Words[1] = ev.host_no;
    *entry = e;
    if (host_no)
        *host_no = ev.host_no;
    if (event_num)
        *event_num = ev.event_num;
    return true;
}

uint32_t vxapi_nl_aen_log_entries(const uint8_t* payload, size_t len, uint32_t host_no, EXT_ASYNC_EVENT* out,
                                  uint32_t max) {
    if (!payload || !out || len < offsetof(vxfc_aen_log, events))
        return 0;
    uint32_t num = read_at<uint32_t>(payload);
    const size_t present = (len - offsetof(vxfc_aen_log, events)) / sizeof(vxfc_aen_entry);
    if (num > VXFC_AEN_LOG_ENTRIES)
        num = VXFC_AEN_LOG_ENTRIES;
    if (num > present)
        num = static_cast<uint32_t>(present);
    uint32_t count = 0;
    for (uint32_t i = 0; i < num && count < max; ++i) {
        const auto entry =
            read_at<vxfc_aen_entry>(payload + offsetof(vxfc_aen_log, events) + i * sizeof(vxfc_aen_entry));
        if (entry.event_code == 0)
            continue;  // an empty entry would read as a hole in the queues
        EXT_ASYNC_EVENT e{};
        e.AsyncEventCode = entry.event_code;
        vxapi_nl_event_data_bytes(static_cast<uint32_t>(entry.payload[0]) << 16 | entry.payload[1], &e);
        e.Payload.Words[1] = host_no;
        out[count++] = e;
    }
    return count;
}

// ---- Requests ----

int vxapi_nl_srlx_reset(int fd, uint32_t host_no, uint32_t diag_fw, uint32_t* pext_stat) {
    msg_reset rec{};
    rec.diag_fw = diag_fw;
    return record_request("vxapi_nl_srlx_reset", fd, host_no, VXA_SRLX_RESET, &rec, false, pext_stat);
}

int vxapi_nl_srlx_updatefw(int fd, uint32_t host_no, uint32_t diag_fw, const uint8_t* image, uint32_t len,
                           uint32_t* pext_stat) {
    return send_pieces("vxapi_nl_srlx_updatefw", fd, host_no, VXA_SRLX_UPDATEFW, image, len,
                       [diag_fw, len](uint8_t* head, uint32_t offset, uint32_t n) {
                           const uint32_t words[4] = {diag_fw, offset, n, len};
                           memcpy(head, words, sizeof words);
                       },
                       pext_stat);
}

namespace {

// A fixed record of `head` bytes followed by `len` data bytes goes out; the
// record comes back into `rec` and the data into `rx`, as far as the reply
// holds them. Loopback results are wanted even when the driver reports a
// failure; other commands' only on success.
int record_and_data(const char* name, int fd, uint32_t host_no, uint32_t cmd, void* rec, uint32_t head,
                    const uint8_t* tx, uint8_t* rx, uint32_t len, bool back_on_error, uint32_t* pext_stat) {
    std::unique_ptr<uint8_t[]> msg(new (std::nothrow) uint8_t[head + len]);
    std::unique_ptr<uint8_t[]> back(new (std::nothrow) uint8_t[head + len]);
    if (!msg || !back)
        return 1;
    memcpy(msg.get(), rec, head);
    if (len != 0)
        memcpy(msg.get() + head, tx, len);
    exchange x{name, fd, host_no, cmd};
    x.payload = msg.get();
    x.len = head + len;
    x.vmsg_datalen = static_cast<uint16_t>(len);
    x.reply = back.get();
    x.reply_len = head + len;
    uint32_t got = 0;
    x.reply_got = &got;
    const int rc = run(x, pext_stat);
    if ((rc == 0 || back_on_error) && got >= head) {
        memcpy(rec, back.get(), head);
        const uint32_t n = got - head < len ? got - head : len;
        if (n != 0)
            memcpy(rx, back.get() + head, n);
    }
    return rc;
}

}  // namespace

int vxapi_nl_srlx_mgmt(int fd, uint32_t host_no, vxa_srlx_msg_mgmt* mgmt, uint8_t* data, uint32_t len,
                       uint32_t* pext_stat) {
    constexpr uint32_t HEAD = offsetof(vxa_srlx_msg_mgmt, payload);
    if (!mgmt || (len != 0 && !data) || len > SEND_DATA_MAX - HEAD)
        return 1;
    mgmt->len = len;
    return record_and_data("vxapi_nl_srlx_mgmt", fd, host_no, VXA_SRLX_MGMT, mgmt, HEAD, data, data, len, false,
                           pext_stat);
}

int vxapi_nl_get_aen(int fd, uint32_t host_no, EXT_ASYNC_EVENT* entries, uint32_t* pbytes, uint32_t* pext_stat) {
    if (!entries || !pbytes)
        return 1;
    const uint32_t room = *pbytes / sizeof(EXT_ASYNC_EVENT);
    *pbytes = 0;
    if (!vxapi_nlm_aen_sendbuf || !vxapi_nlm_aen_recvbuf)
        return 1;
    exchange x{"vxapi_nl_get_aen", fd, host_no, VXA_GET_AEN};
    x.send_buf = vxapi_nlm_aen_sendbuf;
    x.recv_buf = vxapi_nlm_aen_recvbuf;
    x.recv_size = VX_NL_AEN_BUF_SIZE;
    x.wait_ms = AEN_REPLY_WAIT_MS;
    uint32_t got = 0;
    x.reply_got = &got;
    const int rc = run(x, pext_stat);
    if (rc == 0) {
        const uint32_t n =
            vxapi_nl_aen_log_entries(vxapi_nlm_aen_recvbuf + VX_NL_PAYLOAD_OFF, got, host_no, entries, room);
        *pbytes = n * static_cast<uint32_t>(sizeof(EXT_ASYNC_EVENT));
    }
    return rc;
}

int vxapi_nl_loopback_test(int fd, uint32_t host_no, uint32_t cmd, msg_loopback* lb, const uint8_t* tx, uint8_t* rx,
                           uint32_t len, uint32_t* pext_stat) {
    constexpr uint32_t HEAD = offsetof(msg_loopback, bytes);
    if (!lb || (cmd != VXA_LOOPBACK && cmd != VXA_ECHO) || (len != 0 && (!tx || !rx)) ||
        len > SEND_DATA_MAX - HEAD)
        return 1;
    lb->len = len;
    lb->total_len = len;
    return record_and_data("vxapi_nl_loopback_test", fd, host_no, cmd, lb, HEAD, tx, rx, len, true, pext_stat);
}

int vxapi_nl_port_param(int fd, uint32_t host_no, vxa_port_param* param, uint32_t* pext_stat) {
    return record_request("vxapi_nl_port_param", fd, host_no, VXA_PORT_PARAM, param, true, pext_stat);
}

int vxapi_nl_enable_disable_qos(int fd, uint32_t host_no, uint16_t enable, uint32_t* pext_stat) {
    vxa_qos_msg rec{};
    rec.sub_cmd = VXA_QOS_ENABLE;
    rec.enable = enable;
    return record_request("vxapi_nl_enable_disable_qos", fd, host_no, VXA_QOS, &rec, false, pext_stat);
}

int vxapi_nl_get_qos_config(int fd, uint32_t host_no, vxa_qos_msg* cfg, uint32_t* pext_stat) {
    if (!cfg)
        return 1;
    cfg->sub_cmd = VXA_QOS_GET;
    return record_request("vxapi_nl_get_qos_config", fd, host_no, VXA_QOS, cfg, true, pext_stat);
}

int vxapi_nl_set_qos_config(int fd, uint32_t host_no, const vxa_qos_msg* cfg, uint32_t* pext_stat) {
    if (!cfg)
        return 1;
    vxa_qos_msg rec = *cfg;
    rec.sub_cmd = VXA_QOS_SET;
    return record_request("vxapi_nl_set_qos_config", fd, host_no, VXA_QOS, &rec, false, pext_stat);
}

int vxapi_nl_set_reset_diag_mode(int fd, uint32_t host_no, uint32_t mode, uint32_t* pext_stat) {
    vxa_diag_mode rec{};
    rec.mode = mode;
    return record_request("vxapi_nl_set_reset_diag_mode", fd, host_no, VXA_DIAG_MODE, &rec, false, pext_stat);
}

int vxapi_nl_update_fru_versions(int fd, uint32_t host_no, const uint8_t* image, uint32_t len, uint32_t* pext_stat) {
    return send_pieces("vxapi_nl_update_fru_versions", fd, host_no, VXA_UPDATE_FRU_VERSIONS, image, len,
                       [len](uint8_t* head, uint32_t offset, uint32_t n) {
                           const uint32_t words[4] = {offset, n, len, 0};
                           memcpy(head, words, sizeof words);
                       },
                       pext_stat);
}

int vxapi_nl_fru_status(int fd, uint32_t host_no, vxa_fru_status* status, int write, uint32_t* pext_stat) {
    return record_request("vxapi_nl_fru_status", fd, host_no, write ? VXA_WRITE_FRU_STATUS : VXA_READ_FRU_STATUS,
                          status, !write, pext_stat);
}

int vxapi_nl_set_i2c(int fd, uint32_t host_no, const vxa_i2c_access* i2c, uint32_t* pext_stat) {
    if (!i2c || i2c->length > VXA_I2C_MAX)
        return 1;
    vxa_i2c_access rec = *i2c;
    return record_request("vxapi_nl_set_i2c", fd, host_no, VXA_SET_I2C, &rec, false, pext_stat);
}

int vxapi_nl_get_i2c(int fd, uint32_t host_no, vxa_i2c_access* i2c, uint32_t* pext_stat) {
    if (!i2c || i2c->length > VXA_I2C_MAX)
        return 1;
    return record_request("vxapi_nl_get_i2c", fd, host_no, VXA_GET_I2C, i2c, true, pext_stat);
}

int vxapi_nl_serdes_reg_ops(int fd, uint32_t host_no, vxa_serdes_reg* reg, uint32_t* pext_stat) {
    return record_request("vxapi_nl_serdes_reg_ops", fd, host_no, VXA_SERDES_REG, reg, true, pext_stat);
}

int vxapi_nl_serdes_reg_ops_ex(int fd, uint32_t host_no, vxa_serdes_reg_ex* reg, uint32_t* pext_stat) {
    return record_request("vxapi_nl_serdes_reg_ops_ex", fd, host_no, VXA_SERDES_REG_EX, reg, true, pext_stat);
}

// ---- FC transport events ----

bool vxapi_fc_event_is_new(vxapi_fc_event_seen* seen, uint32_t num) {
    if (!seen)
        return true;
    if (seen->valid == VX_FC_EVENT_SEEN_VALID && static_cast<int32_t>(num - seen->last_num) <= 0)
        return false;
    seen->valid = VX_FC_EVENT_SEEN_VALID;
    seen->last_num = num;
    return true;
}

int vxapi_nl_scsi_fc_get_aen(int fd, EXT_ASYNC_EVENT* entries, uint32_t* pbytes, vxapi_fc_event_seen* seen) {
    if (!entries || !pbytes || !vxapi_scsi_nlm_aen_recvbuf)
        return 1;
    uint32_t room = *pbytes / sizeof(EXT_ASYNC_EVENT);
    if (room > EXT_AEN_FETCH_MAX)
        room = EXT_AEN_FETCH_MAX;
    *pbytes = 0;
    uint32_t count = 0;
    int last_err = 0;
    for (uint32_t i = 0; i < FC_RECEIVES && count < room; ++i) {
        memset(vxapi_scsi_nlm_aen_recvbuf, 0, VX_NL_SCSI_AEN_BUF_SIZE);
        sockaddr_nl from{};
        const ssize_t n = vxapi_rcv_msg(fd, VX_NL_SCSI_AEN_BUF_SIZE, &from, vxapi_scsi_nlm_aen_recvbuf, MSG_DONTWAIT);
        if (n < 1) {
            last_err = n < 0 ? errno : 0;
            break;
        }
        EXT_ASYNC_EVENT e{};
        uint32_t host = 0, num = 0;
        if (!vxapi_nl_fc_event_entry(vxapi_scsi_nlm_aen_recvbuf, static_cast<size_t>(n), &e, &host, &num)) {
            vxdbg_num(NL_TRACE, "vxapi_nl_scsi_fc_get_aen: message skipped. len=", static_cast<uint64_t>(n),
                      VXDBG_DEC, 1);
            continue;
        }
        if (vxapi_is_host_no_present(host) != 0 || !vxapi_fc_event_is_new(seen, num))
            continue;
        entries[count++] = e;
    }
    *pbytes = count * static_cast<uint32_t>(sizeof(EXT_ASYNC_EVENT));
    vxdbg_num(NL_TRACE, "vxapi_nl_scsi_fc_get_aen: events=", count, VXDBG_DEC, 1);
    return count != 0 || last_err == EAGAIN || last_err == EWOULDBLOCK ? 0 : 1;
}
