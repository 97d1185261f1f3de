// The libc entry points through which management software reaches the
// kernel driver. Preloaded into every program of a simulated host: calls on
// the driver's nodes, attributes and netlink sockets go to the endpoints,
// everything else goes on to libc untouched. Outside a simulated host
// (VXSIM_ROOT unset) every call passes straight through.
#undef _FORTIFY_SOURCE  // we define the very functions fortify wraps

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <pthread.h>
#include <scsi/sg.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>

#include "classify.h"
#include "desc.h"
#include "endpoints.h"
#include "root.h"
#include "sim.h"
#include "sleep.h"

#define VX_EXPORT extern "C" __attribute__((visibility("default")))

extern "C" {
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat_2(int dirfd, const char* path, int flags);
int __openat64_2(int dirfd, const char* path, int flags);
ssize_t __read_chk(int fd, void* buf, size_t n, size_t buflen);
ssize_t __pread_chk(int fd, void* buf, size_t n, off_t off, size_t buflen);
ssize_t __pread64_chk(int fd, void* buf, size_t n, off64_t off, size_t buflen);
ssize_t __recv_chk(int fd, void* buf, size_t n, size_t buflen, int flags);
ssize_t __recvfrom_chk(int fd, void* buf, size_t n, size_t buflen, int flags, sockaddr* from,
                       socklen_t* fromlen);
[[noreturn]] void __chk_fail(void);
}

namespace vxsim::drv {
namespace {

// ---- real functions -------------------------------------------------------

// Set while this thread is inside the emulation, so that anything the
// emulation itself calls goes straight to libc.
__attribute__((tls_model("initial-exec"))) thread_local int t_depth = 0;
__attribute__((tls_model("initial-exec"))) thread_local bool t_resolving = false;

struct Inside {
    Inside() { ++t_depth; }
    ~Inside() { --t_depth; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
};

// dlsym may allocate and, in some libcs, open files: a lookup reached again
// from inside itself answers null and the caller falls back to the system call.
void* resolve(const char* name, std::atomic<void*>& slot) {
    void* p = slot.load(std::memory_order_acquire);
    if (p || t_resolving)
        return p;
    t_resolving = true;
    p = ::dlsym(RTLD_NEXT, name);
    t_resolving = false;
    slot.store(p, std::memory_order_release);
    return p;
}

#define REAL_DECL(name, type)                                            \
    type real_##name() {                                                 \
        static std::atomic<void*> slot{nullptr};                         \
        return reinterpret_cast<type>(resolve(#name, slot));             \
    }

using open_fn = int (*)(const char*, int, ...);
using openat_fn = int (*)(int, const char*, int, ...);
using open2_fn = int (*)(const char*, int);
using openat2_fn = int (*)(int, const char*, int);
using close_fn = int (*)(int);
using dup_fn = int (*)(int);
using dup2_fn = int (*)(int, int);
using dup3_fn = int (*)(int, int, int);
using fcntl_fn = int (*)(int, int, ...);
using read_fn = ssize_t (*)(int, void*, size_t);
using write_fn = ssize_t (*)(int, const void*, size_t);
using pread_fn = ssize_t (*)(int, void*, size_t, off_t);
using pwrite_fn = ssize_t (*)(int, const void*, size_t, off_t);
using pread64_fn = ssize_t (*)(int, void*, size_t, off64_t);
using pwrite64_fn = ssize_t (*)(int, const void*, size_t, off64_t);
using lseek_fn = off_t (*)(int, off_t, int);
using lseek64_fn = off64_t (*)(int, off64_t, int);
using ioctl_fn = int (*)(int, unsigned long, ...);
using socket_fn = int (*)(int, int, int);
using bind_fn = int (*)(int, const sockaddr*, socklen_t);
using setsockopt_fn = int (*)(int, int, int, const void*, socklen_t);
using sendmsg_fn = ssize_t (*)(int, const msghdr*, int);
using recvmsg_fn = ssize_t (*)(int, msghdr*, int);
using send_fn = ssize_t (*)(int, const void*, size_t, int);
using recv_fn = ssize_t (*)(int, void*, size_t, int);
using sendto_fn = ssize_t (*)(int, const void*, size_t, int, const sockaddr*, socklen_t);
using recvfrom_fn = ssize_t (*)(int, void*, size_t, int, sockaddr*, socklen_t*);
using geteuid_fn = uid_t (*)();
using sleep_fn = unsigned (*)(unsigned);
using usleep_fn = int (*)(useconds_t);
using nanosleep_fn = int (*)(const timespec*, timespec*);
using clock_nanosleep_fn = int (*)(clockid_t, int, const timespec*, timespec*);

REAL_DECL(open, open_fn)
REAL_DECL(open64, open_fn)
REAL_DECL(openat, openat_fn)
REAL_DECL(openat64, openat_fn)
REAL_DECL(__open_2, open2_fn)
REAL_DECL(__open64_2, open2_fn)
REAL_DECL(__openat_2, openat2_fn)
REAL_DECL(__openat64_2, openat2_fn)
REAL_DECL(close, close_fn)
REAL_DECL(dup, dup_fn)
REAL_DECL(dup2, dup2_fn)
REAL_DECL(dup3, dup3_fn)
REAL_DECL(fcntl, fcntl_fn)
REAL_DECL(fcntl64, fcntl_fn)
REAL_DECL(read, read_fn)
REAL_DECL(write, write_fn)
REAL_DECL(pread, pread_fn)
REAL_DECL(pwrite, pwrite_fn)
REAL_DECL(pread64, pread64_fn)
REAL_DECL(pwrite64, pwrite64_fn)
REAL_DECL(lseek, lseek_fn)
REAL_DECL(lseek64, lseek64_fn)
REAL_DECL(ioctl, ioctl_fn)
REAL_DECL(socket, socket_fn)
REAL_DECL(bind, bind_fn)
REAL_DECL(setsockopt, setsockopt_fn)
REAL_DECL(sendmsg, sendmsg_fn)
REAL_DECL(recvmsg, recvmsg_fn)
REAL_DECL(send, send_fn)
REAL_DECL(recv, recv_fn)
REAL_DECL(sendto, sendto_fn)
REAL_DECL(recvfrom, recvfrom_fn)
REAL_DECL(geteuid, geteuid_fn)
REAL_DECL(sleep, sleep_fn)
REAL_DECL(usleep, usleep_fn)
REAL_DECL(nanosleep, nanosleep_fn)
REAL_DECL(clock_nanosleep, clock_nanosleep_fn)

// Results in the kernel's convention become libc's: -1 with errno.
long to_libc(long r) {
    if (r < 0) {
        errno = static_cast<int>(-r);
        return -1;
    }
    return r;
}

long sys_ret(long r) { return r < 0 ? -errno : r; }

bool in_sim() { return !Sim::root_path().empty(); }

// ---- descriptor table -----------------------------------------------------

class FdTable {
public:
    std::shared_ptr<Desc> find(int fd) {
        if (fd < 0 || count_.load(std::memory_order_acquire) == 0)
            return nullptr;
        std::shared_ptr<Desc> d;
        {
            std::lock_guard<std::mutex> lock(mu_);
            auto it = map_.find(fd);
            if (it == map_.end())
                return nullptr;
            d = it->second;
        }
        // The number may have been closed and reused by a path we do not see.
        struct stat st {};
        if (::fstat(fd, &st) != 0 || st.st_dev != d->dev || st.st_ino != d->ino) {
            std::lock_guard<std::mutex> lock(mu_);
            auto it = map_.find(fd);
            if (it != map_.end() && it->second == d) {
                map_.erase(it);
                count_.fetch_sub(1, std::memory_order_release);
            }
            return nullptr;
        }
        return d;
    }

    // Several numbers may stand for one Desc: dup'ed descriptors share the
    // open file description, and so its position.
    void insert(int fd, std::shared_ptr<Desc> d) {
        std::lock_guard<std::mutex> lock(mu_);
        if (map_.insert_or_assign(fd, std::move(d)).second)
            count_.fetch_add(1, std::memory_order_release);
    }

    std::shared_ptr<Desc> take(int fd) {
        if (fd < 0 || count_.load(std::memory_order_acquire) == 0)
            return nullptr;
        std::lock_guard<std::mutex> lock(mu_);
        auto it = map_.find(fd);
        if (it == map_.end())
            return nullptr;
        std::shared_ptr<Desc> d = std::move(it->second);
        map_.erase(it);
        count_.fetch_sub(1, std::memory_order_release);
        return d;
    }

    // Around fork: the child gets a table no other thread is holding.
    void lock() { mu_.lock(); }
    void unlock() { mu_.unlock(); }

private:
    std::mutex mu_;
    std::unordered_map<int, std::shared_ptr<Desc>> map_;
    std::atomic<int> count_{0};
};

// Made on the first emulated descriptor, so programs that never touch the
// driver (and every program outside a simulated host) never pay for it.
std::atomic<FdTable*> g_table{nullptr};
std::mutex g_table_mu;

FdTable* table_if_any() { return g_table.load(std::memory_order_acquire); }

FdTable& table() {
    if (FdTable* t = table_if_any())
        return *t;
    std::lock_guard<std::mutex> lock(g_table_mu);
    if (FdTable* t = table_if_any())
        return *t;
    // Leaked on purpose: descriptors are closed after static destructors too.
    auto* t = new FdTable;
    g_table.store(t, std::memory_order_release);
    ::pthread_atfork([] { table_if_any()->lock(); }, [] { table_if_any()->unlock(); },
                     [] { table_if_any()->unlock(); });
    return *t;
}

// Registers the real descriptor `fd` as standing for `d`; returns fd or -errno.
int adopt(std::shared_ptr<Desc> d, int fd) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        int e = errno;
        ::syscall(SYS_close, fd);
        return -e;
    }
    d->fd = fd;
    d->dev = st.st_dev;
    d->ino = st.st_ino;
    table().insert(fd, std::move(d));
    return fd;
}

// ---- open -----------------------------------------------------------------

// Decides whether an open is the driver's and, when it is, makes the emulated
// descriptor. nullopt: not ours, pass through. Otherwise fd or -errno.
std::optional<int> emulated_open(int dirfd, const char* path, int flags) {
    if ((flags & (O_PATH | O_DIRECTORY)) || (flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL))
        return std::nullopt;

    if (std::optional<std::string> drv = legacy_node_driver(path)) {
        const Sim* sim = Sim::get();
        if (!sim || !sim->ok() || !sim->legacy_driver(*drv))
            return std::nullopt;
        auto d = std::make_shared<Desc>();
        d->kind = NodeKind::Legacy;
        d->driver = *drv;
        d->open_flags = flags;
        // The node has no file behind it in the simulated host.
        long fd = sys_ret(::syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDWR | O_CLOEXEC));
        return fd < 0 ? static_cast<int>(fd) : adopt(std::move(d), static_cast<int>(fd));
    }

    const char* base = std::strrchr(path, '/');
    if (attr_kind(base ? base + 1 : path)) {
        std::string full = path;
        if (path[0] != '/' && dirfd != AT_FDCWD)
            full = "/proc/self/fd/" + std::to_string(dirfd) + "/" + path;
        char resolved[PATH_MAX];
        if (!::realpath(full.c_str(), resolved))
            return std::nullopt;
        const std::string& root = Sim::root_path();
        std::optional<AttrPath> ap = parse_attr_path(resolved, root + "/sys");
        if (!ap)
            return std::nullopt;
        const Sim* sim = Sim::get();
        if (!sim)
            return std::nullopt;
        auto d = std::make_shared<Desc>();
        d->kind = NodeKind::Attr;
        d->attr = ap->attr;
        d->host = ap->host;
        d->path = resolved;
        d->open_flags = flags;
        if (int e = endpoint_attr_open(*sim, *d); e < 0)
            return e;
        long fd = sys_ret(::syscall(SYS_openat, AT_FDCWD, resolved, O_PATH | O_CLOEXEC));
        return fd < 0 ? static_cast<int>(fd) : adopt(std::move(d), static_cast<int>(fd));
    }

    struct stat st {};
    if (::fstatat(dirfd, path, &st, (flags & O_NOFOLLOW) ? AT_SYMLINK_NOFOLLOW : 0) != 0)
        return std::nullopt;
    const bool block = S_ISBLK(st.st_mode) && is_reserved_block_major(major(st.st_rdev));
    if (!block && !(S_ISCHR(st.st_mode) && is_reserved_major(major(st.st_rdev))))
        return std::nullopt;
    const Sim* sim = Sim::get();
    if (!sim)
        return std::nullopt;
    if (!sim->ok())
        return -EIO;
    if (block || major(st.st_rdev) == root::MAJOR_SG) {
        // A LUN's disk or SCSI generic node.
        const ScsiDevice* sd = block ? sim->disk_device(minor(st.st_rdev)) : sim->sg_device(minor(st.st_rdev));
        if (!sd)
            return -ENXIO;
        auto d = std::make_shared<Desc>();
        d->kind = block ? NodeKind::Disk : NodeKind::Sg;
        d->major = major(st.st_rdev);
        d->minor = minor(st.st_rdev);
        d->host = sd->host->host_no;
        d->scsi = sd->sg;
        d->open_flags = flags;
        long fd = sys_ret(::syscall(SYS_openat, dirfd, path, O_PATH | O_CLOEXEC | (flags & O_NOFOLLOW)));
        return fd < 0 ? static_cast<int>(fd) : adopt(std::move(d), static_cast<int>(fd));
    }
    std::optional<DeviceEntry> dev = sim->device(major(st.st_rdev), minor(st.st_rdev));
    if (!dev)
        return -ENXIO;  // no driver behind this number, as the kernel says
    auto d = std::make_shared<Desc>();
    if (dev->kind == "ioctl")
        d->kind = NodeKind::Ioctl;
    else if (dev->kind == "control")
        d->kind = NodeKind::Control;
    else if (dev->kind == "bsg_host")
        d->kind = NodeKind::BsgHost;
    else if (dev->kind == "bsg_rport")
        d->kind = NodeKind::BsgRport;
    else
        return -ENXIO;
    d->major = major(st.st_rdev);
    d->minor = minor(st.st_rdev);
    d->host = dev->host;
    d->rport = dev->rport;
    d->open_flags = flags;
    // An O_PATH handle of the node itself: fstat shows the caller the node it made.
    long fd = sys_ret(::syscall(SYS_openat, dirfd, path, O_PATH | O_CLOEXEC | (flags & O_NOFOLLOW)));
    return fd < 0 ? static_cast<int>(fd) : adopt(std::move(d), static_cast<int>(fd));
}

template <class Real>
int do_open(int dirfd, const char* path, int flags, Real&& real) {
    if (!path || t_depth > 0 || !in_sim())
        return real();
    std::optional<int> r;
    {
        Inside in;
        try {
            r = emulated_open(dirfd, path, flags);
        } catch (...) {
            r = -ENOMEM;  // nothing here throws but allocation
        }
    }
    if (!r)
        return real();
    return static_cast<int>(to_libc(*r));
}

mode_t open_mode(int flags, va_list ap) {
    return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? static_cast<mode_t>(va_arg(ap, int)) : 0;
}

// After a successful dup of `oldfd` to `newfd`: the new number stands for
// what the old one does (tools such as dd reopen their output onto a fixed
// number), and whatever `newfd` stood for before is gone.
void follow_dup(int oldfd, int newfd) {
    FdTable* t = t_depth > 0 ? nullptr : table_if_any();
    if (!t || oldfd == newfd)
        return;
    t->take(newfd);
    if (std::shared_ptr<Desc> d = t->find(oldfd))
        t->insert(newfd, std::move(d));
}

// ---- transfers ------------------------------------------------------------

// One emulated descriptor in use: the table entry and the simulated host.
struct Use {
    std::shared_ptr<Desc> d;
    const Sim* sim = nullptr;
    int fd = -1;  // the number the caller used
    explicit operator bool() const { return d && sim; }
};

Use lookup(int fd) {
    if (t_depth > 0)
        return {};
    FdTable* t = table_if_any();
    std::shared_ptr<Desc> d = t ? t->find(fd) : nullptr;
    if (!d)
        return {};
    return Use{std::move(d), Sim::get(), fd};
}

ssize_t netlink_recv(Use& u, void* buf, size_t n, int flags, sockaddr* from, socklen_t* fromlen) {
    iovec iov{buf, n};
    msghdr m{};
    m.msg_iov = &iov;
    m.msg_iovlen = 1;
    if (from && fromlen) {
        m.msg_name = from;
        m.msg_namelen = *fromlen;
    }
    ssize_t r = endpoint_netlink_recv(*u.sim, *u.d, u.fd, &m, flags);
    if (r >= 0 && from && fromlen)
        *fromlen = m.msg_namelen;
    return r;
}

ssize_t netlink_send(Use& u, const void* buf, size_t n, int flags) {
    iovec iov{const_cast<void*>(buf), n};
    msghdr m{};
    m.msg_iov = &iov;
    m.msg_iovlen = 1;
    return endpoint_netlink_send(*u.sim, *u.d, &m, flags);
}

ssize_t emu_read(Use& u, void* buf, size_t n, std::optional<uint64_t> at) {
    Desc& d = *u.d;
    switch (d.kind) {
    case NodeKind::Attr: {
        if (at)
            return endpoint_attr_read(*u.sim, d, buf, n, *at);
        std::lock_guard<std::mutex> lock(d.mu);
        ssize_t r = endpoint_attr_read(*u.sim, d, buf, n, d.pos);
        if (r > 0)
            d.pos += static_cast<uint64_t>(r);
        return r;
    }
    case NodeKind::Netlink: return at ? -ESPIPE : netlink_recv(u, buf, n, 0, nullptr, nullptr);
    default: return -EINVAL;  // the driver's nodes have no read method
    }
}

ssize_t emu_write(Use& u, const void* buf, size_t n, std::optional<uint64_t> at) {
    Desc& d = *u.d;
    switch (d.kind) {
    case NodeKind::Attr: {
        if (at)
            return endpoint_attr_write(*u.sim, d, buf, n, *at);
        std::lock_guard<std::mutex> lock(d.mu);
        ssize_t r = endpoint_attr_write(*u.sim, d, buf, n, d.pos);
        if (r > 0)
            d.pos += static_cast<uint64_t>(r);
        return r;
    }
    case NodeKind::Netlink: return at ? -ESPIPE : netlink_send(u, buf, n, 0);
    default: return -EINVAL;
    }
}

off64_t emu_lseek(Use& u, off64_t off, int whence) {
    Desc& d = *u.d;
    if (d.kind != NodeKind::Attr)
        return -ESPIPE;
    std::lock_guard<std::mutex> lock(d.mu);
    off64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? static_cast<off64_t>(d.pos) : -1;
    if (base < 0 || (off < 0 && -off > base))
        return -EINVAL;
    d.pos = static_cast<uint64_t>(base + off);
    return static_cast<off64_t>(d.pos);
}

// Runs an endpoint call with the emulation marked busy; no exception ever
// reaches the C caller.
template <class F>
long guarded(F&& f) {
    Inside in;
    try {
        return static_cast<long>(f());
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    } catch (...) {
        return -EIO;
    }
}

// ---- sleeps ---------------------------------------------------------------

double sleep_scale() {
    static const double scale = parse_sleep_scale(std::getenv("VXSIM_SLEEP_SCALE"));
    return scale;
}

void journal_sleep(const char* call, const timespec& req) {
    if (!sleep_is_journaled(req) || t_depth > 0)
        return;
    Inside in;
    try {
        JournalFields f = JournalFields::object();
        f["call"] = call;
        if (req.tv_nsec == 0)
            f["seconds"] = static_cast<int64_t>(req.tv_sec);
        else
            f["seconds"] = to_seconds(req);
        journal("sleep", f);
    } catch (...) {
    }
}

// A relative sleep of `req`, shortened; returns 0 or an error number, with
// the unslept part of `req` in *rem after an interruption.
int scaled_sleep(const char* call, clockid_t clock, const timespec& req, timespec* rem) {
    journal_sleep(call, req);
    double scale = sleep_scale();
    timespec scaled = scale_duration(req, scale);
    timespec left{};
    clock_nanosleep_fn real = real_clock_nanosleep();
    int r = real ? real(clock, 0, &scaled, &left)
                 : (::syscall(SYS_clock_nanosleep, clock, 0, &scaled, &left) == 0 ? 0 : errno);
    if (r == EINTR && rem)
        *rem = unscale_remaining(left, scale, req);
    return r;
}

// The host's clock offset, read afresh on every call so that a `vxsim
// clock advance` from another process takes effect at once. Raw system
// calls: the interposed open and read must not see this file.
long long clock_offset() {
    static const std::string path = root::clock(Sim::root_path());
    const int fd = static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd < 0)
        return 0;
    char text[32];
    const long n = ::syscall(SYS_read, fd, text, sizeof text);
    ::syscall(SYS_close, fd);
    return n > 0 ? parse_clock_offset(text, static_cast<size_t>(n)) : 0;
}

std::optional<uid_t> sim_euid() {
    static const std::optional<uid_t> euid = []() -> std::optional<uid_t> {
        const char* text = std::getenv("VXSIM_EUID");
        if (!text || !*text)
            return std::nullopt;
        char* end = nullptr;
        unsigned long v = std::strtoul(text, &end, 10);
        if (*end != '\0' || v > UINT_MAX)
            return std::nullopt;
        return static_cast<uid_t>(v);
    }();
    return euid;
}

}  // namespace
}  // namespace vxsim::drv

using namespace vxsim::drv;

// ---- exported interposers -------------------------------------------------

VX_EXPORT int open(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = open_mode(flags, ap);
    va_end(ap);
    return do_open(AT_FDCWD, path, flags, [&] {
        open_fn real = real_open();
        return real ? real(path, flags, mode) : static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
    });
}

VX_EXPORT int open64(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = open_mode(flags, ap);
    va_end(ap);
    return do_open(AT_FDCWD, path, flags, [&] {
        open_fn real = real_open64();
        return real ? real(path, flags, mode) : static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
    });
}

VX_EXPORT int openat(int dirfd, const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = open_mode(flags, ap);
    va_end(ap);
    return do_open(dirfd, path, flags, [&] {
        openat_fn real = real_openat();
        return real ? real(dirfd, path, flags, mode) : static_cast<int>(::syscall(SYS_openat, dirfd, path, flags, mode));
    });
}

VX_EXPORT int openat64(int dirfd, const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = open_mode(flags, ap);
    va_end(ap);
    return do_open(dirfd, path, flags, [&] {
        openat_fn real = real_openat64();
        return real ? real(dirfd, path, flags, mode) : static_cast<int>(::syscall(SYS_openat, dirfd, path, flags, mode));
    });
}

VX_EXPORT int __open_2(const char* path, int flags) {
    return do_open(AT_FDCWD, path, flags, [&] {
        open2_fn real = real___open_2();
        return real ? real(path, flags) : static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags));
    });
}

VX_EXPORT int __open64_2(const char* path, int flags) {
    return do_open(AT_FDCWD, path, flags, [&] {
        open2_fn real = real___open64_2();
        return real ? real(path, flags) : static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags));
    });
}

VX_EXPORT int __openat_2(int dirfd, const char* path, int flags) {
    return do_open(dirfd, path, flags, [&] {
        openat2_fn real = real___openat_2();
        return real ? real(dirfd, path, flags) : static_cast<int>(::syscall(SYS_openat, dirfd, path, flags));
    });
}

VX_EXPORT int __openat64_2(int dirfd, const char* path, int flags) {
    return do_open(dirfd, path, flags, [&] {
        openat2_fn real = real___openat64_2();
        return real ? real(dirfd, path, flags) : static_cast<int>(::syscall(SYS_openat, dirfd, path, flags));
    });
}

VX_EXPORT int close(int fd) {
    // The netlink pair's other end goes with the last descriptor (~Desc).
    if (FdTable* t = t_depth > 0 ? nullptr : table_if_any())
        t->take(fd);
    close_fn real = real_close();
    return real ? real(fd) : static_cast<int>(::syscall(SYS_close, fd));
}

VX_EXPORT int dup(int fd) noexcept {
    dup_fn real = real_dup();
    int r = real ? real(fd) : static_cast<int>(::syscall(SYS_dup, fd));
    if (r >= 0)
        follow_dup(fd, r);
    return r;
}

VX_EXPORT int dup2(int oldfd, int newfd) noexcept {
    dup2_fn real = real_dup2();
    int r = real ? real(oldfd, newfd) : static_cast<int>(::syscall(SYS_dup3, oldfd, newfd, 0));
    if (r >= 0)
        follow_dup(oldfd, newfd);
    return r;
}

VX_EXPORT int dup3(int oldfd, int newfd, int flags) noexcept {
    dup3_fn real = real_dup3();
    int r = real ? real(oldfd, newfd, flags) : static_cast<int>(::syscall(SYS_dup3, oldfd, newfd, flags));
    if (r >= 0)
        follow_dup(oldfd, newfd);
    return r;
}

// Every fcntl argument is an int or a pointer; passing it on as a pointer is
// what the C library itself does.
VX_EXPORT int fcntl(int fd, int cmd, ...) {
    va_list ap;
    va_start(ap, cmd);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    fcntl_fn real = real_fcntl();
    int r = real ? real(fd, cmd, arg) : static_cast<int>(::syscall(SYS_fcntl, fd, cmd, arg));
    if (r >= 0 && (cmd == F_DUPFD || cmd == F_DUPFD_CLOEXEC))
        follow_dup(fd, r);
    return r;
}

VX_EXPORT int fcntl64(int fd, int cmd, ...) {
    va_list ap;
    va_start(ap, cmd);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    fcntl_fn real = real_fcntl64();
    int r = real ? real(fd, cmd, arg) : static_cast<int>(::syscall(SYS_fcntl, fd, cmd, arg));
    if (r >= 0 && (cmd == F_DUPFD || cmd == F_DUPFD_CLOEXEC))
        follow_dup(fd, r);
    return r;
}

VX_EXPORT ssize_t read(int fd, void* buf, size_t n) {
    if (Use u = lookup(fd))
        return to_libc(guarded([&] { return emu_read(u, buf, n, std::nullopt); }));
    read_fn real = real_read();
    return real ? real(fd, buf, n) : ::syscall(SYS_read, fd, buf, n);
}

VX_EXPORT ssize_t __read_chk(int fd, void* buf, size_t n, size_t buflen) {
    if (n > buflen)
        __chk_fail();
    return read(fd, buf, n);
}

VX_EXPORT ssize_t write(int fd, const void* buf, size_t n) {
    if (Use u = lookup(fd))
        return to_libc(guarded([&] { return emu_write(u, buf, n, std::nullopt); }));
    write_fn real = real_write();
    return real ? real(fd, buf, n) : ::syscall(SYS_write, fd, buf, n);
}

VX_EXPORT ssize_t pread(int fd, void* buf, size_t n, off_t off) {
    if (Use u = lookup(fd)) {
        if (off < 0)
            return to_libc(-EINVAL);
        return to_libc(guarded([&] { return emu_read(u, buf, n, static_cast<uint64_t>(off)); }));
    }
    pread_fn real = real_pread();
    return real ? real(fd, buf, n, off) : ::syscall(SYS_pread64, fd, buf, n, off);
}

VX_EXPORT ssize_t pread64(int fd, void* buf, size_t n, off64_t off) {
    if (Use u = lookup(fd)) {
        if (off < 0)
            return to_libc(-EINVAL);
        return to_libc(guarded([&] { return emu_read(u, buf, n, static_cast<uint64_t>(off)); }));
    }
    pread64_fn real = real_pread64();
    return real ? real(fd, buf, n, off) : ::syscall(SYS_pread64, fd, buf, n, off);
}

VX_EXPORT ssize_t __pread_chk(int fd, void* buf, size_t n, off_t off, size_t buflen) {
    if (n > buflen)
        __chk_fail();
    return pread(fd, buf, n, off);
}

VX_EXPORT ssize_t __pread64_chk(int fd, void* buf, size_t n, off64_t off, size_t buflen) {
    if (n > buflen)
        __chk_fail();
    return pread64(fd, buf, n, off);
}

VX_EXPORT ssize_t pwrite(int fd, const void* buf, size_t n, off_t off) {
    if (Use u = lookup(fd)) {
        if (off < 0)
            return to_libc(-EINVAL);
        return to_libc(guarded([&] { return emu_write(u, buf, n, static_cast<uint64_t>(off)); }));
    }
    pwrite_fn real = real_pwrite();
    return real ? real(fd, buf, n, off) : ::syscall(SYS_pwrite64, fd, buf, n, off);
}

VX_EXPORT ssize_t pwrite64(int fd, const void* buf, size_t n, off64_t off) {
    if (Use u = lookup(fd)) {
        if (off < 0)
            return to_libc(-EINVAL);
        return to_libc(guarded([&] { return emu_write(u, buf, n, static_cast<uint64_t>(off)); }));
    }
    pwrite64_fn real = real_pwrite64();
    return real ? real(fd, buf, n, off) : ::syscall(SYS_pwrite64, fd, buf, n, off);
}

VX_EXPORT off_t lseek(int fd, off_t off, int whence) noexcept {
    if (Use u = lookup(fd))
        return static_cast<off_t>(to_libc(guarded([&] { return emu_lseek(u, off, whence); })));
    lseek_fn real = real_lseek();
    return real ? real(fd, off, whence) : static_cast<off_t>(::syscall(SYS_lseek, fd, off, whence));
}

VX_EXPORT off64_t lseek64(int fd, off64_t off, int whence) noexcept {
    if (Use u = lookup(fd))
        return static_cast<off64_t>(to_libc(guarded([&] { return emu_lseek(u, off, whence); })));
    lseek64_fn real = real_lseek64();
    return real ? real(fd, off, whence) : static_cast<off64_t>(::syscall(SYS_lseek, fd, off, whence));
}

VX_EXPORT int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (Use u = lookup(fd)) {
        if (u.d->kind != NodeKind::Netlink)
            return static_cast<int>(to_libc(guarded([&]() -> long {
                switch (u.d->kind) {
                case NodeKind::Ioctl:
                case NodeKind::Control:
                case NodeKind::Legacy: return endpoint_ioctl(*u.sim, *u.d, request, arg);
                case NodeKind::BsgHost:
                case NodeKind::BsgRport:
                    return request == SG_IO ? endpoint_bsg(*u.sim, *u.d, arg) : -ENOTTY;
                case NodeKind::Sg:
                case NodeKind::Disk: return endpoint_sg(*u.sim, *u.d, request, arg);
                default: return -ENOTTY;
                }
            })));
    }
    ioctl_fn real = real_ioctl();
    return real ? real(fd, request, arg) : static_cast<int>(::syscall(SYS_ioctl, fd, request, arg));
}

VX_EXPORT int socket(int domain, int type, int protocol) noexcept {
    if (domain == AF_NETLINK && (protocol == 20 || protocol == 18) && t_depth == 0 && in_sim()) {
        return static_cast<int>(to_libc(guarded([&]() -> long {
            int sv[2];
            if (::syscall(SYS_socketpair, AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | (type & SOCK_NONBLOCK), 0, sv) != 0)
                return -errno;
            auto d = std::make_shared<Desc>();
            d->kind = NodeKind::Netlink;
            d->protocol = protocol;
            d->peer = sv[1];
            d->open_flags = O_RDWR;
            return adopt(std::move(d), sv[0]);  // a failure closes both ends
        })));
    }
    socket_fn real = real_socket();
    return real ? real(domain, type, protocol) : static_cast<int>(::syscall(SYS_socket, domain, type, protocol));
}

VX_EXPORT int bind(int fd, const sockaddr* addr, socklen_t len) noexcept {
    if (Use u = lookup(fd))
        return static_cast<int>(to_libc(guarded([&]() -> long {
            return u.d->kind == NodeKind::Netlink ? endpoint_netlink_bind(*u.sim, *u.d, addr, len) : -ENOTSOCK;
        })));
    bind_fn real = real_bind();
    return real ? real(fd, addr, len) : static_cast<int>(::syscall(SYS_bind, fd, addr, len));
}

VX_EXPORT int setsockopt(int fd, int level, int name, const void* value, socklen_t len) noexcept {
    if (Use u = lookup(fd))
        return static_cast<int>(to_libc(guarded([&]() -> long {
            return u.d->kind == NodeKind::Netlink ? endpoint_netlink_setsockopt(*u.sim, *u.d, level, name, value, len)
                                                  : -ENOTSOCK;
        })));
    setsockopt_fn real = real_setsockopt();
    return real ? real(fd, level, name, value, len)
                : static_cast<int>(::syscall(SYS_setsockopt, fd, level, name, value, len));
}

VX_EXPORT ssize_t sendmsg(int fd, const msghdr* msg, int flags) {
    if (Use u = lookup(fd))
        return to_libc(guarded([&]() -> long {
            return u.d->kind == NodeKind::Netlink ? endpoint_netlink_send(*u.sim, *u.d, msg, flags) : -ENOTSOCK;
        }));
    sendmsg_fn real = real_sendmsg();
    return real ? real(fd, msg, flags) : ::syscall(SYS_sendmsg, fd, msg, flags);
}

VX_EXPORT ssize_t recvmsg(int fd, msghdr* msg, int flags) {
    if (Use u = lookup(fd))
        return to_libc(guarded([&]() -> long {
            return u.d->kind == NodeKind::Netlink ? endpoint_netlink_recv(*u.sim, *u.d, u.fd, msg, flags)
                                                  : -ENOTSOCK;
        }));
    recvmsg_fn real = real_recvmsg();
    return real ? real(fd, msg, flags) : ::syscall(SYS_recvmsg, fd, msg, flags);
}

VX_EXPORT ssize_t send(int fd, const void* buf, size_t n, int flags) {
    if (Use u = lookup(fd))
        return to_libc(guarded([&]() -> long {
            return u.d->kind == NodeKind::Netlink ? netlink_send(u, buf, n, flags) : -ENOTSOCK;
        }));
    send_fn real = real_send();
    return real ? real(fd, buf, n, flags) : ::syscall(SYS_sendto, fd, buf, n, flags, nullptr, 0);
}

VX_EXPORT ssize_t sendto(int fd, const void* buf, size_t n, int flags, const sockaddr* to, socklen_t tolen) {
    if (Use u = lookup(fd))
        return to_libc(guarded([&]() -> long {
            return u.d->kind == NodeKind::Netlink ? netlink_send(u, buf, n, flags) : -ENOTSOCK;
        }));
    sendto_fn real = real_sendto();
    return real ? real(fd, buf, n, flags, to, tolen) : ::syscall(SYS_sendto, fd, buf, n, flags, to, tolen);
}

VX_EXPORT ssize_t recv(int fd, void* buf, size_t n, int flags) {
    if (Use u = lookup(fd))
        return to_libc(guarded([&]() -> long {
            return u.d->kind == NodeKind::Netlink ? netlink_recv(u, buf, n, flags, nullptr, nullptr) : -ENOTSOCK;
        }));
    recv_fn real = real_recv();
    return real ? real(fd, buf, n, flags) : ::syscall(SYS_recvfrom, fd, buf, n, flags, nullptr, nullptr);
}

VX_EXPORT ssize_t recvfrom(int fd, void* buf, size_t n, int flags, sockaddr* from, socklen_t* fromlen) {
    if (Use u = lookup(fd))
        return to_libc(guarded([&]() -> long {
            return u.d->kind == NodeKind::Netlink ? netlink_recv(u, buf, n, flags, from, fromlen) : -ENOTSOCK;
        }));
    recvfrom_fn real = real_recvfrom();
    return real ? real(fd, buf, n, flags, from, fromlen) : ::syscall(SYS_recvfrom, fd, buf, n, flags, from, fromlen);
}

VX_EXPORT ssize_t __recv_chk(int fd, void* buf, size_t n, size_t buflen, int flags) {
    if (n > buflen)
        __chk_fail();
    return recv(fd, buf, n, flags);
}

VX_EXPORT ssize_t __recvfrom_chk(int fd, void* buf, size_t n, size_t buflen, int flags, sockaddr* from,
                                 socklen_t* fromlen) {
    if (n > buflen)
        __chk_fail();
    return recvfrom(fd, buf, n, flags, from, fromlen);
}

VX_EXPORT uid_t geteuid() noexcept {
    if (in_sim())
        if (std::optional<uid_t> e = sim_euid())
            return *e;
    geteuid_fn real = real_geteuid();
    return real ? real() : static_cast<uid_t>(::syscall(SYS_geteuid));
}

VX_EXPORT time_t time(time_t* out) noexcept {
    timespec ts{};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    time_t now = ts.tv_sec;
    if (in_sim())
        now += static_cast<time_t>(clock_offset());
    if (out)
        *out = now;
    return now;
}

VX_EXPORT unsigned sleep(unsigned seconds) {
    if (!in_sim()) {
        sleep_fn real = real_sleep();
        if (real)
            return real(seconds);
    }
    timespec req{static_cast<time_t>(seconds), 0}, rem{};
    if (scaled_sleep("sleep", CLOCK_REALTIME, req, &rem) == EINTR)
        return static_cast<unsigned>(rem.tv_sec + (rem.tv_nsec != 0));
    return 0;
}

VX_EXPORT int usleep(useconds_t usec) {
    if (!in_sim()) {
        usleep_fn real = real_usleep();
        if (real)
            return real(usec);
    }
    timespec req{static_cast<time_t>(usec / 1000000), static_cast<long>(usec % 1000000) * 1000};
    int r = scaled_sleep("usleep", CLOCK_REALTIME, req, nullptr);
    return static_cast<int>(to_libc(-r));
}

VX_EXPORT int nanosleep(const timespec* req, timespec* rem) {
    nanosleep_fn real = real_nanosleep();
    if (!in_sim() || !req) {
        if (real)
            return real(req, rem);
        return static_cast<int>(::syscall(SYS_nanosleep, req, rem));
    }
    if (req->tv_nsec < 0 || req->tv_nsec >= 1000000000 || req->tv_sec < 0)
        return static_cast<int>(to_libc(-EINVAL));
    int r = scaled_sleep("nanosleep", CLOCK_REALTIME, *req, rem);
    return static_cast<int>(to_libc(-r));
}

VX_EXPORT int clock_nanosleep(clockid_t clock, int flags, const timespec* req, timespec* rem) {
    clock_nanosleep_fn real = real_clock_nanosleep();
    auto pass = [&] {
        return real ? real(clock, flags, req, rem)
                    : (::syscall(SYS_clock_nanosleep, clock, flags, req, rem) == 0 ? 0 : errno);
    };
    if (!in_sim() || !req || req->tv_nsec < 0 || req->tv_nsec >= 1000000000 || req->tv_sec < 0)
        return pass();
    timespec rel = *req;
    if (flags & TIMER_ABSTIME) {
        timespec now{};
        if (::clock_gettime(clock, &now) != 0)
            return pass();
        if (now.tv_sec > req->tv_sec || (now.tv_sec == req->tv_sec && now.tv_nsec >= req->tv_nsec))
            return 0;  // already past the deadline
        rel.tv_sec = req->tv_sec - now.tv_sec;
        rel.tv_nsec = req->tv_nsec - now.tv_nsec;
        if (rel.tv_nsec < 0) {
            rel.tv_nsec += 1000000000;
            --rel.tv_sec;
        }
        return scaled_sleep("clock_nanosleep", clock, rel, nullptr);
    }
    return scaled_sleep("clock_nanosleep", clock, rel, rem);
}

// The library's event thread waits out its one-second ticks with ppoll on a
// wake-up descriptor: the timeout is shortened like a sleep. poll keeps real
// time, so that programs keep one way to wait by the clock.
VX_EXPORT int ppoll(pollfd* fds, nfds_t nfds, const timespec* timeout, const sigset_t* sigmask) {
    // The kernel writes the time left into its argument: a copy goes in.
    timespec left{};
    if (timeout) {
        left = *timeout;
        if (in_sim() && left.tv_sec >= 0 && left.tv_nsec >= 0 && left.tv_nsec < 1000000000)
            left = scale_duration(left, sleep_scale());
    }
    // The kernel takes the signal set's size alongside it.
    return static_cast<int>(
        ::syscall(SYS_ppoll, fds, nfds, timeout ? &left : nullptr, sigmask, sigmask ? _NSIG / 8 : 0));
}
