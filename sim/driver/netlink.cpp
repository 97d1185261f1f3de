// Netlink sockets of protocol 20 (the driver's vendor channel) and 18 (SCSI
// transport, FC events). The caller holds one end of a datagram socket pair;
// whatever the emulation has to say is written to the other end, so poll and
// blocking reads behave. A vendor request is answered at once, as the driver
// answers it; FC transport events due to a socket are put in its pair when
// the socket reads.
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "endpoints.h"
#include "events.h"
#include "netlink.h"
#include "stats.h"
#include "vx_adapters.h"

namespace vxsim::drv {

namespace {

JournalFields fields(const Desc& d, const char* op) {
    JournalFields f = JournalFields::object();
    f["op"] = op;
    f["protocol"] = d.protocol;
    return f;
}

template <typename T>
T read_at(const uint8_t* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// The reply message: the request's headers turned round, the vendor record
// with the driver's error, `payload` in the record's union (and past it).
std::vector<uint8_t> reply_message(const uint8_t* req, uint32_t error, const std::vector<uint8_t>& payload) {
    const size_t len = std::max(VX_NL_MSG_LEN, VX_NL_PAYLOAD_OFF + payload.size());
    std::vector<uint8_t> msg(len);
    nlmsghdr nlh = read_at<nlmsghdr>(req);
    nlh.nlmsg_len = static_cast<uint32_t>(len);
    nlh.nlmsg_pid = 0;  // from the kernel
    std::memcpy(msg.data(), &nlh, sizeof nlh);
    std::memcpy(msg.data() + VX_NL_SCSI_HDR_OFF, req + VX_NL_SCSI_HDR_OFF, sizeof(scsi_nl_hdr));
    std::memcpy(msg.data() + VX_NL_FC_MSG_OFF, req + VX_NL_FC_MSG_OFF, offsetof(vxa_fc_msg, u));
    std::memcpy(msg.data() + VX_NL_FC_MSG_OFF + offsetof(vxa_fc_msg, error), &error, sizeof error);
    if (!payload.empty())
        std::memcpy(msg.data() + VX_NL_PAYLOAD_OFF, payload.data(), payload.size());
    return msg;
}

template <typename Record>
std::vector<uint8_t> bytes_of(const Record& r) {
    const auto* p = reinterpret_cast<const uint8_t*>(&r);
    return std::vector<uint8_t>(p, p + sizeof r);
}

// The request's payload: the fixed union and whatever follows it.
std::vector<uint8_t> request_payload(const uint8_t* msg, size_t len) {
    return std::vector<uint8_t>(msg + VX_NL_PAYLOAD_OFF, msg + len);
}

template <typename Record>
Record payload_record(const std::vector<uint8_t>& p) {
    Record r{};
    std::memcpy(&r, p.data(), std::min(sizeof r, p.size()));
    return r;
}

// The speed code of an fc_host speed text ("8 Gbit" -> 8); 0 when unknown.
uint16_t speed_code(const std::string& text) { return static_cast<uint16_t>(std::strtoul(text.c_str(), nullptr, 10)); }

// An SFP's identification page as a transceiver's EEPROM (device 0xA0)
// presents it: identifier, connector, the vendor name and part.
uint8_t sfp_byte(uint16_t device, uint32_t offset) {
    static constexpr char VENDOR[] = "VARNEX          ";  // 16 bytes at 20
    static constexpr char PART[] = "VX-SFP-32G      ";    // 16 bytes at 40
    if (device != 0xA0)
        return 0;
    if (offset == 0)
        return 0x03;  // SFP
    if (offset == 2)
        return 0x07;  // LC connector
    if (offset >= 20 && offset < 36)
        return static_cast<uint8_t>(VENDOR[offset - 20]);
    if (offset >= 40 && offset < 56)
        return static_cast<uint8_t>(PART[offset - 40]);
    return 0;
}

void send_to_peer(const Desc& d, const std::vector<uint8_t>& msg) {
    ::syscall(SYS_sendto, d.peer, msg.data(), msg.size(), MSG_DONTWAIT, nullptr, 0);
}

}  // namespace

VendorAnswer vendor_answer(const Sim& sim, const uint8_t* msg, size_t len) {
    VendorAnswer a;
    if (len < VX_NL_PAYLOAD_OFF || read_at<nlmsghdr>(msg).nlmsg_type != SCSI_TRANSPORT_MSG ||
        read_at<scsi_nl_hdr>(msg + VX_NL_SCSI_HDR_OFF).magic != SCSI_NL_MAGIC ||
        read_at<uint64_t>(msg + VX_NL_FC_MSG_OFF) != VXA_FC_MSG_MAGIC) {
        a.journal["reply"] = "none";  // not the driver's message: nobody answers
        return a;
    }
    const auto head = read_at<vxa_fc_msg>(msg + VX_NL_FC_MSG_OFF);
    a.cmd = head.cmd;
    a.host = head.host_no;
    a.journal["cmd"] = head.cmd;
    a.journal["host"] = head.host_no;
    a.journal["vmsg_datalen"] = head.vmsg_datalen;
    const std::vector<uint8_t> in = request_payload(msg, len);
    std::optional<HostRef> h = sim.host(head.host_no);
    uint32_t error = EXT_STATUS_OK;
    std::vector<uint8_t> out;
    if (!h) {
        error = EXT_STATUS_DEV_NOT_FOUND;
    } else {
        const bool converged = vx_adapter_has(h->adapter->device_id, VX_MARK_CNA);
        switch (head.cmd) {
        case VXA_GET_AEN: {
            vxfc_aen_log log{};
            for (const SpoolEntry& e : spool_take_driver_events(sim.root(), head.host_no, VXFC_AEN_LOG_ENTRIES)) {
                vxfc_aen_entry& x = log.events[log.num_events++];
                x.event_code = static_cast<uint16_t>(e.code);
                x.payload[0] = static_cast<uint16_t>(e.data >> 16);
                x.payload[1] = static_cast<uint16_t>(e.data);
            }
            a.journal["events"] = log.num_events;
            out = bytes_of(log);
            break;
        }
        case VXA_SRLX_RESET:
        case VXA_SRLX_UPDATEFW:
            // The companion chip sits on the converged boards only.
            error = converged ? EXT_STATUS_OK : EXT_STATUS_INVALID_REQUEST;
            if (converged && head.cmd == VXA_SRLX_UPDATEFW) {
                const auto piece = payload_record<msg_update_fw>(in);
                a.journal["offset"] = piece.offset;
                a.journal["len"] = piece.len;
                if (static_cast<uint64_t>(piece.offset) + piece.len > piece.fw_len ||
                    offsetof(msg_update_fw, fw_bytes) + piece.len > in.size())
                    error = EXT_STATUS_INVALID_PARAM;
            }
            break;
        case VXA_SRLX_MGMT:
            if (converged)
                out = in;  // the management firmware answers in the same record
            else
                error = EXT_STATUS_INVALID_REQUEST;
            break;
        case VXA_LOOPBACK:
        case VXA_ECHO: {
            out = in;
            auto lb = payload_record<msg_loopback>(in);
            lb.comp_stat = 0;
            lb.cmd_sent = 1;
            std::memcpy(out.data(), &lb, std::min(out.size(), offsetof(msg_loopback, bytes)));
            break;
        }
        case VXA_PORT_PARAM: {
            auto p = payload_record<vxa_port_param>(in);
            const HostPort* port = find_host_port(sim.scenario(), head.host_no, nullptr);
            if (p.speed == 0 && port)
                p.speed = speed_code(port->speed);
            out = bytes_of(p);
            break;
        }
        case VXA_QOS: {
            auto q = payload_record<vxa_qos_msg>(in);
            if (q.sub_cmd == VXA_QOS_GET) {
                q.enable = 1;
                q.priority = 1;
                q.bandwidth = 50;
                out = bytes_of(q);
            } else if (q.sub_cmd != VXA_QOS_ENABLE && q.sub_cmd != VXA_QOS_SET) {
                error = EXT_STATUS_INVALID_PARAM;
            }
            break;
        }
        case VXA_DIAG_MODE:
        case VXA_UPDATE_FRU_VERSIONS:
        case VXA_WRITE_FRU_STATUS:
        case VXA_SET_I2C: break;
        case VXA_READ_FRU_STATUS: {
            auto st = payload_record<vxa_fru_status>(in);
            st.status = 0;
            out = bytes_of(st);
            break;
        }
        case VXA_GET_I2C: {
            auto i2c = payload_record<vxa_i2c_access>(in);
            if (i2c.length > VXA_I2C_MAX) {
                error = EXT_STATUS_INVALID_PARAM;
                break;
            }
            for (uint16_t i = 0; i < i2c.length; ++i)
                i2c.buffer[i] = sfp_byte(i2c.device, static_cast<uint32_t>(i2c.offset) + i);
            out = bytes_of(i2c);
            break;
        }
        case VXA_SERDES_REG: {
            auto r = payload_record<vxa_serdes_reg>(in);
            if (r.cmd == 1)
                r.val = static_cast<uint16_t>(0x5A00 ^ r.addr);
            out = bytes_of(r);
            break;
        }
        case VXA_SERDES_REG_EX: {
            auto r = payload_record<vxa_serdes_reg_ex>(in);
            if (r.cmd == 1)
                r.val = 0x5A5A0000u ^ r.addr;
            out = bytes_of(r);
            break;
        }
        default: error = EXT_STATUS_INVALID_REQUEST; break;
        }
    }
    a.journal["error"] = error;
    a.reply = reply_message(msg, error, out);
    return a;
}

int endpoint_netlink_bind(const Sim& sim, Desc& d, const sockaddr* addr, socklen_t len) {
    sockaddr_nl nl{};
    if (len < sizeof nl || copy_from_user(&nl, addr, sizeof nl) < 0 || nl.nl_family != AF_NETLINK)
        return -EINVAL;
    JournalFields f = fields(d, "bind");
    f["nl_pid"] = nl.nl_pid;
    f["groups"] = nl.nl_groups;
    if (d.protocol == VX_NL_PROTO_SCSI && nl.nl_groups != 0) {
        std::lock_guard<std::mutex> lock(d.mu);
        fc_join(d.fc, sim.root());
    }
    f["result"] = 0;
    journal("netlink", f);
    return 0;
}

int endpoint_netlink_setsockopt(const Sim& sim, Desc& d, int level, int name, const void* value, socklen_t len) {
    JournalFields f = fields(d, "setsockopt");
    f["level"] = level;
    f["name"] = name;
    int v = 0;
    if (len >= sizeof v && copy_from_user(&v, value, sizeof v) == 0)
        f["value"] = v;
    if (d.protocol == VX_NL_PROTO_SCSI && level == SOL_NETLINK && name == NETLINK_ADD_MEMBERSHIP &&
        v == static_cast<int>(VX_NL_FC_EVENTS_GROUP)) {
        std::lock_guard<std::mutex> lock(d.mu);
        fc_join(d.fc, sim.root());
    }
    f["result"] = 0;
    journal("netlink", f);
    return 0;
}

ssize_t endpoint_netlink_send(const Sim& sim, Desc& d, const msghdr* msg, int) {
    msghdr m{};
    if (copy_from_user(&m, msg, sizeof m) < 0)
        return -EFAULT;
    // The message gathered from its pieces, as the kernel sees it.
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < m.msg_iovlen; ++i) {
        iovec v{};
        if (copy_from_user(&v, m.msg_iov + i, sizeof v) < 0)
            return -EFAULT;
        if (v.iov_len > VX_NL_RECV_BUF_SIZE * 2)
            return -EMSGSIZE;
        const size_t at = bytes.size();
        bytes.resize(at + v.iov_len);
        if (copy_from_user(bytes.data() + at, v.iov_base, v.iov_len) < 0)
            return -EFAULT;
    }
    JournalFields f = fields(d, "send");
    if (bytes.size() >= sizeof(nlmsghdr)) {
        const auto h = read_at<nlmsghdr>(bytes.data());
        f["nlmsg_type"] = h.nlmsg_type;
        f["nlmsg_len"] = h.nlmsg_len;
    }
    f["length"] = bytes.size();
    std::optional<VendorAnswer> answer;
    if (d.protocol == VX_NL_PROTO_VENDOR) {
        answer = vendor_answer(sim, bytes.data(), bytes.size());
        for (const auto& [key, value] : answer->journal.items())
            f[key] = value;
    }
    long r = static_cast<long>(bytes.size());
    const std::string match = answer && answer->cmd ? "send/" + std::to_string(*answer->cmd) : "send";
    if (std::optional<FaultAction> fault = fault_take("netlink", match)) {
        f["fault"] = fault->text;
        if (fault->kind == FaultKind::Errno) {
            r = -fault->error;
            answer.reset();
        } else if (answer && !answer->reply.empty()) {
            std::vector<uint8_t>& reply = answer->reply;
            if (fault->kind == FaultKind::Status) {
                const uint32_t st = fault->status;
                std::memcpy(reply.data() + VX_NL_FC_MSG_OFF + offsetof(vxa_fc_msg, error), &st, sizeof st);
            } else if (fault->kind == FaultKind::Short) {
                reply.resize((reply.size() + 1) / 2);
            } else if (fault->kind == FaultKind::Foreign) {
                // Another magic, then another host, before the caller's own.
                std::vector<uint8_t> other = reply;
                const uint64_t magic = ~VXA_FC_MSG_MAGIC;
                std::memcpy(other.data() + VX_NL_FC_MSG_OFF, &magic, sizeof magic);
                send_to_peer(d, other);
                other = reply;
                const uint16_t host = static_cast<uint16_t>(*answer->host + 1);
                std::memcpy(other.data() + VX_NL_FC_MSG_OFF + offsetof(vxa_fc_msg, host_no), &host, sizeof host);
                send_to_peer(d, other);
            }
        }
    }
    if (answer && !answer->reply.empty())
        send_to_peer(d, answer->reply);
    journal_result(f, r);
    journal("netlink", f);
    return r;
}

ssize_t endpoint_netlink_recv(const Sim& sim, Desc& d, int fd, msghdr* msg, int flags) {
    msghdr m{};
    if (copy_from_user(&m, msg, sizeof m) < 0)
        return -EFAULT;
    if (d.protocol == VX_NL_PROTO_SCSI) {
        std::vector<SpoolEntry> due;
        {
            std::lock_guard<std::mutex> lock(d.mu);
            due = fc_due(d.fc, sim.root());
        }
        for (const SpoolEntry& e : due) {
            std::vector<uint8_t> event = fc_event_message(e);
            JournalFields f = fields(d, "event");
            f["host"] = e.host_no;
            f["code"] = e.code;
            f["event_num"] = e.seq;
            if (std::optional<FaultAction> fault = fault_take("netlink", "event")) {
                f["fault"] = fault->text;
                if (fault->kind == FaultKind::Short)
                    event.resize(event.size() / 2);
                else if (fault->kind == FaultKind::Errno)
                    event.clear();  // lost on the way
            }
            if (!event.empty())
                send_to_peer(d, event);
            journal("netlink", f);
        }
    }
    void* name = m.msg_name;
    socklen_t namelen = m.msg_namelen;
    m.msg_name = nullptr;
    m.msg_namelen = 0;
    // Everything queued is in the pair already: never block on an empty one.
    long r = ::syscall(SYS_recvmsg, fd, &m, flags | MSG_DONTWAIT);
    if (r < 0)
        return -errno;
    // Everything comes from the kernel's side: port id 0.
    if (name && namelen > 0) {
        sockaddr_nl from{};
        from.nl_family = AF_NETLINK;
        size_t n = namelen < sizeof from ? namelen : sizeof from;
        if (copy_to_user(name, &from, n) < 0)
            return -EFAULT;
        m.msg_namelen = sizeof from;
    }
    m.msg_name = name;
    if (copy_to_user(msg, &m, sizeof m) < 0)
        return -EFAULT;
    JournalFields f = fields(d, "recv");
    f["length"] = r;
    journal("netlink", f);
    return r;
}

}  // namespace vxsim::drv
