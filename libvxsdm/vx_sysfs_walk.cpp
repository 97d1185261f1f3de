// Direct reads of one SCSI host's own subtree. A host's remote ports,
// targets and LUNs live under its device directory; listing the whole
// fc_remote_ports or scsi_device class for one host's few entries (and
// statting and sorting every entry of it, as libsysfs does) made each query
// cost milliseconds on a large host. Here the host directory is opened once
// per call and everything below it is reached with openat and one read per
// attribute.
//
// The indexed discovered-port walk keeps a snapshot per host: the names of
// the qualifying remote ports in walk order, taken at index 0 and reused by
// the later indexes of the walk, so a walk costs n reads and not n squared.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>

#include "vx_sddbg.h"
#include "vx_sysfs.h"

namespace {

constexpr uint32_t TRC = VXDBG_TRACE | VXDBG_SYSFS;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_SYSFS;

uint64_t monotonic_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(ts.tv_nsec);
}

bool starts_with(const char* text, const char* prefix) { return strncmp(text, prefix, strlen(prefix)) == 0; }

// What the library remembers of one host between calls: the walk's
// snapshot and the SCSI channels its remote ports used when last listed.
struct host_memory {
    uint32_t host_no = 0;
    uint64_t taken = 0;  // when the snapshot was taken (walk clock)
    bool has_snapshot = false;
    bool listed = false;    // the remote ports were listed once
    uint64_t channels = 0;  // bit C: some remote port on channel C (below 64)
    vxsysfs_rport_names snapshot;
    host_memory* next = nullptr;
};

std::mutex memory_mutex;
host_memory* memory_list = nullptr;  // guarded by memory_mutex

// The host's record, made when missing; null when memory runs out.
host_memory* host_record(uint32_t host_no) {
    for (host_memory* m = memory_list; m; m = m->next)
        if (m->host_no == host_no)
            return m;
    auto* m = new (std::nothrow) host_memory;
    if (!m)
        return nullptr;
    m->host_no = host_no;
    m->next = memory_list;
    memory_list = m;
    return m;
}

void remember_channels(uint32_t host_no, const vxsysfs_rport_names& names) {
    uint64_t mask = 0;
    for (size_t i = 0; i < names.size(); ++i) {
        uint32_t host = 0, channel = 0, number = 0;
        if (vxsysfs_parse_rport_name(names[i], &host, &channel, &number) && channel < 64)
            mask |= uint64_t{1} << channel;
    }
    const std::lock_guard<std::mutex> hold(memory_mutex);
    if (host_memory* m = host_record(host_no)) {
        m->channels = mask;
        m->listed = true;
    }
}

}  // namespace

std::atomic<vxsysfs_clock_fn> vxsysfs_walk_clock{monotonic_ns};

// ---- The host directory and its attributes ----

bool vxsysfs_parse_rport_name(const char* name, uint32_t* host, uint32_t* channel, uint32_t* number) {
    unsigned h = 0, c = 0, n = 0;
    char tail = 0;
    if (!name || sscanf(name, "rport-%u:%u-%u%c", &h, &c, &n, &tail) != 3)
        return false;
    *host = h;
    *channel = c;
    *number = n;
    return true;
}

vxsysfs_host_dir::vxsysfs_host_dir(uint32_t host_no) : host_no_(host_no) {
    vxsysfs_path_t path;
    vxsysfs_path_append(path, vxsysfs_get_scsi_host_path(path, static_cast<uint16_t>(host_no)), "device");
    fd_ = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd_ < 0)
        vxdbg_num(ERR, "vxsysfs_host_dir: no device directory for host ", host_no, VXDBG_DEC, 1);
}

vxsysfs_host_dir::~vxsysfs_host_dir() {
    if (fd_ >= 0)
        close(fd_);
}

bool vxsysfs_read_at(int dirfd, const char* rel, char* out, size_t size) {
    if (!out || size == 0)
        return false;
    out[0] = '\0';
    if (dirfd < 0 || !rel)
        return false;
    const int fd = openat(dirfd, rel, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    // An attribute's text comes whole in the first read.
    const ssize_t n = read(fd, out, size - 1);
    close(fd);
    if (n < 0) {
        out[0] = '\0';
        return false;
    }
    out[n] = '\0';
    vxsysfs_remove_end_newline(out);
    return true;
}

bool vxsysfs_rport_text(int host_fd, const char* name, const char* attr, char* out, size_t size) {
    char rel[VXSYSFS_PATH_LEN];
    const int n = snprintf(rel, sizeof rel, "%s/fc_remote_ports/%s/%s", name, name, attr);
    if (n < 0 || static_cast<size_t>(n) >= sizeof rel) {
        if (out && size)
            out[0] = '\0';
        return false;
    }
    return vxsysfs_read_at(host_fd, rel, out, size);
}

bool vxsysfs_rport_listed(int host_fd, const char* name) {
    char text[VXSYSFS_ATTR_LEN];
    return vxsysfs_rport_text(host_fd, name, "port_state", text, sizeof text) && strcmp(text, "Online") == 0 &&
           vxsysfs_rport_text(host_fd, name, "roles", text, sizeof text) && strcmp(text, "FCP Target") == 0;
}

// ---- Names of remote ports ----

vxsysfs_rport_names::~vxsysfs_rport_names() { free(names_); }

void vxsysfs_rport_names::swap(vxsysfs_rport_names& other) {
    std::swap(names_, other.names_);
    std::swap(count_, other.count_);
    std::swap(capacity_, other.capacity_);
}

void vxsysfs_rport_names::clear() { count_ = 0; }

bool vxsysfs_rport_names::push(const char* name) {
    if (strlen(name) >= VXSYSFS_RPORT_NAME_LEN)
        return true;  // no kernel name is that long: not a remote port
    if (count_ == capacity_) {
        const size_t grown = capacity_ ? capacity_ * 2 : 64;
        auto* more = static_cast<name_t*>(realloc(names_, grown * sizeof(name_t)));
        if (!more)
            return false;
        names_ = more;
        capacity_ = grown;
    }
    memcpy(names_[count_], name, strlen(name) + 1);
    ++count_;
    return true;
}

bool vxsysfs_rport_names::list(int host_fd, uint32_t host_no) {
    clear();
    if (host_fd < 0)
        return false;
    char prefix[32];
    snprintf(prefix, sizeof prefix, "rport-%u:", host_no);
    bool ok = true;
    // A descriptor of its own for the listing: the host's stays usable for openat.
    const bool listed = vxsysfs_each_entry(host_fd, ".", [&](const dirent* e) {
        if (!starts_with(e->d_name, prefix) || (e->d_type != DT_DIR && e->d_type != DT_UNKNOWN))
            return true;
        ok = push(e->d_name);
        if (!ok)
            vxdbg_line(ERR, "vxsysfs_rport_names::list: out of memory.");
        return ok;
    });
    if (!listed)
        vxdbg_num(ERR, "vxsysfs_rport_names::list: cannot list host ", host_no, VXDBG_DEC, 1);
    if (!listed || !ok) {
        clear();
        return false;
    }
    // Name order: the order the class lists have always had.
    if (count_ > 1)
        qsort(names_, count_, sizeof(name_t), [](const void* a, const void* b) {
            return strcmp(static_cast<const char*>(a), static_cast<const char*>(b));
        });
    remember_channels(host_no, *this);
    return true;
}

// ---- Targets ----

int vxsysfs_open_target(uint32_t host_no, uint32_t channel, uint32_t tid) {
    vxsysfs_path_t path;
    vxsysfs_path_format(path, "%s/bus/scsi/devices/target%u:%u:%u", sysfs_mnt_path, host_no, channel, tid);
    return open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

uint32_t vxsysfs_count_target_luns(int target_fd, uint8_t* lun_map, uint32_t max_lun) {
    uint32_t count = 0;
    vxsysfs_each_entry(target_fd, ".", [&](const dirent* e) {
        unsigned h = 0, c = 0, t = 0, l = 0;
        char tail = 0;
        // LUN devices are named H:C:T:L; anything else is an attribute or a link.
        if (sscanf(e->d_name, "%u:%u:%u:%u%c", &h, &c, &t, &l, &tail) != 4)
            return true;
        const uint16_t lun = static_cast<uint16_t>(l);
        if (lun_map) {
            uint32_t number = 0;
            switch (lun >> 14) {
            case 1: number = lun & 0x3FFF; break;  // flat space: 14 bits
            case 2: number = lun & 0x1F; break;    // logical unit addressing
            default: number = lun & 0xFF; break;   // peripheral
            }
            // A LUN past the map is counted but not marked, never folded onto a
            // smaller one: the count tells the reader that the map is incomplete.
            if (number < max_lun)
                lun_map[number] |= EXT_DEF_LUN_PRESENT;
            else
                vxdbg_num(TRC, "vxsysfs_count_target_luns: lun beyond the map=", number, VXDBG_DEC, 1);
        }
        ++count;
        return true;
    });
    return count;
}

namespace {

bool known_channels(uint32_t host_no, uint64_t* channels) {
    const std::lock_guard<std::mutex> hold(memory_mutex);
    for (host_memory* m = memory_list; m; m = m->next)
        if (m->host_no == host_no && m->listed) {
            *channels = m->channels;
            return true;
        }
    return false;
}

}  // namespace

uint64_t vxsysfs_host_channels(const vxsysfs_host_dir& host) {
    // Channel 0 always: FC remote ports are on it, and a host whose ports
    // all came after its last listing must not be taken for one without.
    uint64_t channels = 0;
    if (!known_channels(host.host_no(), &channels)) {
        vxsysfs_rport_names names;
        names.list(host.fd(), host.host_no());
        known_channels(host.host_no(), &channels);
    }
    return channels | 1;
}

bool vxsysfs_target_rport(uint32_t host_no, uint32_t channel, uint32_t tid, char* name, size_t name_len) {
    if (!name || name_len == 0)
        return false;
    name[0] = '\0';
    vxsysfs_path_t path;
    vxsysfs_path_format(path, "%s/bus/scsi/devices/target%u:%u:%u", sysfs_mnt_path, host_no, channel, tid);
    char link[VXSYSFS_PATH_LEN * 2];
    const ssize_t n = readlink(path, link, sizeof link - 1);
    if (n <= 0)
        return false;
    link[n] = '\0';
    // ".../host{N}/rport-N:C-R/target{N}:{C}:{T}": the component before the last.
    char* last = strrchr(link, '/');
    if (!last)
        return false;
    *last = '\0';
    const char* parent = strrchr(link, '/');
    parent = parent ? parent + 1 : link;
    char prefix[32];
    snprintf(prefix, sizeof prefix, "rport-%u:", host_no);
    if (!starts_with(parent, prefix) || strlen(parent) >= name_len)
        return false;
    memcpy(name, parent, strlen(parent) + 1);
    return true;
}

// ---- The indexed walk ----

namespace {

// The snapshot's name at `index` when it is young enough: 1 and the name,
// 0 past its end, -1 when there is no usable snapshot.
int snapshot_name(uint32_t host_no, uint16_t index, uint64_t now, char* name, size_t name_len) {
    const std::lock_guard<std::mutex> hold(memory_mutex);
    for (host_memory* m = memory_list; m; m = m->next) {
        if (m->host_no != host_no)
            continue;
        if (!m->has_snapshot || now - m->taken >= VXSYSFS_WALK_MAX_AGE_NS)
            return -1;
        if (index >= m->snapshot.size())
            return 0;
        snprintf(name, name_len, "%s", m->snapshot[index]);
        return 1;
    }
    return -1;
}

}  // namespace

bool vxsysfs_walk_port(const vxsysfs_host_dir& host, uint16_t index, char* name, size_t name_len) {
    if (!name || name_len == 0 || !host.ok())
        return false;
    name[0] = '\0';
    const vxsysfs_clock_fn clock = vxsysfs_walk_clock.load();
    if (index != 0) {
        const int cached = snapshot_name(host.host_no(), index, clock(), name, name_len);
        // Past the end of a young snapshot: the walk is over as it began.
        if (cached == 0)
            return false;
        if (cached == 1 && vxsysfs_rport_listed(host.fd(), name))
            return true;
        vxdbg_num(TRC, "vxsysfs_walk_port: new snapshot for index ", index, VXDBG_DEC, 1);
    }
    // A new snapshot: the qualifying ports, in name order, read now.
    vxsysfs_rport_names names;
    if (!names.list(host.fd(), host.host_no()))
        return false;
    vxsysfs_rport_names listed;
    for (size_t i = 0; i < names.size(); ++i)
        if (vxsysfs_rport_listed(host.fd(), names[i]) && !listed.push(names[i]))
            return false;
    const bool found = index < listed.size();
    if (found)
        snprintf(name, name_len, "%s", listed[index]);
    else
        name[0] = '\0';
    const std::lock_guard<std::mutex> hold(memory_mutex);
    if (host_memory* m = host_record(host.host_no())) {
        m->snapshot.swap(listed);
        m->taken = clock();
        m->has_snapshot = true;
    }
    return found;
}

void vxsysfs_walk_reset() {
    const std::lock_guard<std::mutex> hold(memory_mutex);
    while (host_memory* m = memory_list) {
        memory_list = m->next;
        delete m;
    }
}
