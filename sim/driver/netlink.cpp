// Netlink sockets of protocol 20 (the driver's vendor channel) and 18 (SCSI
// transport, FC events). The caller holds one end of a datagram socket pair;
// whatever the emulation has to say is written to the other end, so poll and
// blocking reads behave. For now requests are journaled and nothing answers:
// receives find the pair empty and return EAGAIN.
#include <linux/netlink.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "endpoints.h"

namespace vxsim::drv {

namespace {

JournalFields fields(const Desc& d, const char* op) {
    JournalFields f = JournalFields::object();
    f["op"] = op;
    f["protocol"] = d.protocol;
    return f;
}

}  // namespace

int endpoint_netlink_bind(const Sim&, Desc& d, const sockaddr* addr, socklen_t len) {
    sockaddr_nl nl{};
    if (len < sizeof nl || copy_from_user(&nl, addr, sizeof nl) < 0 || nl.nl_family != AF_NETLINK)
        return -EINVAL;
    JournalFields f = fields(d, "bind");
    f["nl_pid"] = nl.nl_pid;
    f["groups"] = nl.nl_groups;
    f["result"] = 0;
    journal("netlink", f);
    return 0;
}

int endpoint_netlink_setsockopt(const Sim&, Desc& d, int level, int name, const void* value, socklen_t len) {
    JournalFields f = fields(d, "setsockopt");
    f["level"] = level;
    f["name"] = name;
    int v = 0;
    if (len >= sizeof v && copy_from_user(&v, value, sizeof v) == 0)
        f["value"] = v;
    f["result"] = 0;
    journal("netlink", f);
    return 0;
}

ssize_t endpoint_netlink_send(const Sim&, Desc& d, const msghdr* msg, int) {
    msghdr m{};
    if (copy_from_user(&m, msg, sizeof m) < 0)
        return -EFAULT;
    size_t total = 0;
    JournalFields f = fields(d, "send");
    for (size_t i = 0; i < m.msg_iovlen; ++i) {
        iovec v{};
        if (copy_from_user(&v, m.msg_iov + i, sizeof v) < 0)
            return -EFAULT;
        if (i == 0) {
            nlmsghdr h{};
            if (v.iov_len >= sizeof h && copy_from_user(&h, v.iov_base, sizeof h) == 0) {
                f["nlmsg_type"] = h.nlmsg_type;
                f["nlmsg_len"] = h.nlmsg_len;
            }
        }
        total += v.iov_len;
    }
    f["length"] = total;
    long r = static_cast<long>(total);
    if (std::optional<FaultAction> fault = fault_take("netlink", "send")) {
        f["fault"] = fault->text;
        if (fault->kind == FaultKind::Errno)
            r = -fault->error;
    }
    journal_result(f, r);
    journal("netlink", f);
    return r;
}

ssize_t endpoint_netlink_recv(const Sim&, Desc& d, int fd, msghdr* msg, int flags) {
    msghdr m{};
    if (copy_from_user(&m, msg, sizeof m) < 0)
        return -EFAULT;
    void* name = m.msg_name;
    socklen_t namelen = m.msg_namelen;
    m.msg_name = nullptr;
    m.msg_namelen = 0;
    // Nothing is queued by the emulation yet: never block on an empty pair.
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
