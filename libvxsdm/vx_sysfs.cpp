// sysfs transport basics: where sysfs is, how its paths are spelled, how
// attribute texts become values, raw binary attributes, byte-order helpers,
// and the private device nodes of bsg and SCSI generic pass-through.
#include "vx_sysfs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "vx_sddbg.h"

char sysfs_mnt_path[VXSYSFS_PATH_LEN];

namespace {

constexpr uint32_t TRC = VXDBG_TRACE | VXDBG_SYSFS;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_SYSFS;

constexpr const char* CLASS = "class";
constexpr const char* SCSI_HOST = "scsi_host";
constexpr const char* FC_HOST = "fc_host";
constexpr const char* FC_RPORTS = "fc_remote_ports";
constexpr const char* FC_VPORTS = "fc_vports";
constexpr const char* SCSI_DEVICE = "scsi_device";
constexpr const char* BSG = "bsg";

// Closes a libsysfs attribute on every way out.
class attr_handle {
public:
    explicit attr_handle(const char* path) : attr_(path ? sysfs_open_attribute(path) : nullptr) {}
    ~attr_handle() {
        if (attr_)
            sysfs_close_attribute(attr_);
    }
    attr_handle(const attr_handle&) = delete;
    attr_handle& operator=(const attr_handle&) = delete;

    // Reads the attribute; its text (possibly empty) is valid until destruction.
    const char* read(size_t* len) {
        if (!attr_ || sysfs_read_attribute(attr_) != 0)
            return nullptr;
        if (!attr_->value) {
            *len = 0;
            return "";
        }
        *len = strnlen(attr_->value, attr_->len);
        return attr_->value;
    }

private:
    sysfs_attribute* attr_;
};

// Reads an attribute's text into `out` (NUL-terminated, cut to fit) and
// strips trailing newlines. False when the attribute cannot be read.
bool read_text(const char* path, char* out, size_t size) {
    attr_handle attr(path);
    size_t len = 0;
    const char* text = attr.read(&len);
    if (!text)
        return false;
    const size_t n = std::min(len, size - 1);
    memcpy(out, text, n);
    memset(out + n, 0, size - n);  // padded as strncpy pads
    vxsysfs_remove_end_newline(out);
    return true;
}

// Closes a descriptor on every way out.
class fd_handle {
public:
    explicit fd_handle(int fd) : fd_(fd) {}
    ~fd_handle() {
        if (fd_ >= 0)
            close(fd_);
    }
    fd_handle(const fd_handle&) = delete;
    fd_handle& operator=(const fd_handle&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

uint32_t page_size() {
    const long size = sysconf(_SC_PAGESIZE);
    return size >= 4096 ? static_cast<uint32_t>(size) : 4096;
}

// Walks the host's own remote ports (under its device directory, in name
// order) until `match` accepts one; `rpath` then holds its class path with
// a trailing "/".
template <typename F>
int find_rport(vxsysfs_path_t& rpath, uint32_t host_no, F&& match) {
    rpath[0] = '\0';
    const vxsysfs_host_dir host(host_no);
    vxsysfs_rport_names names;
    if (!host.ok() || !names.list(host.fd(), host_no))
        return 0;
    for (size_t i = 0; i < names.size(); ++i)
        if (match(host.fd(), names[i])) {
            vxsysfs_get_fc_rport_path(rpath, names[i]);
            return 1;
        }
    return 0;
}

}  // namespace

dlist* vxsysfs_open_entry_list(const char* path) {
    dlist* dirs = sysfs_open_directory_list(path);
    dlist* links = sysfs_open_link_list(path);
    if (!dirs || !links)
        return dirs ? dirs : links;
    // A class directory holds links: a real directory among them must not
    // hide them, so both kinds go into one list.
    vx_dlist_each<char>(links, [&](char* name) {
        auto* copy = static_cast<char*>(calloc(1, SYSFS_NAME_LEN));
        if (!copy)
            return false;
        snprintf(copy, SYSFS_NAME_LEN, "%s", name);
        dlist_push(dirs, copy);
        return true;
    });
    sysfs_close_list(links);
    return dirs;
}

bool vxsysfs_parse_host_name(const char* name, uint32_t* host_no) {
    constexpr size_t MAX_DIGITS = 10;  // 4294967295
    const size_t len = name ? strlen(name) : 0;
    bool ok = len > 4 && len <= 4 + MAX_DIGITS && strncmp(name, "host", 4) == 0;
    uint64_t value = 0;
    for (size_t i = 4; ok && i < len; ++i) {
        ok = name[i] >= '0' && name[i] <= '9';
        value = value * 10 + static_cast<uint64_t>(name[i] - '0');
    }
    ok = ok && value <= UINT32_MAX;
    if (!ok) {
        if (vxdbg_on(TRC)) {
            vxdbg_print("vxsysfs_parse_host_name: > skipped entry ", 0, VXDBG_NONE, 0);
            vxdbg_print(name ? name : "(null)", 0, VXDBG_NONE, 1);
        }
        return false;
    }
    if (host_no)
        *host_no = static_cast<uint32_t>(value);
    return true;
}

// ---- Path builders ----

char* vxsysfs_path_append(vxsysfs_path_t& path, char* end, const char* name) {
    if (!end || end < path || end >= path + VXSYSFS_PATH_LEN)
        end = path + strnlen(path, VXSYSFS_PATH_LEN - 1);
    if (!name)
        return end;
    const size_t room = static_cast<size_t>(path + VXSYSFS_PATH_LEN - 1 - end);
    const size_t n = std::min(strlen(name), room);
    memcpy(end, name, n);
    end[n] = '\0';
    return end + n;
}

char* vxsysfs_get_scsi_host_path(vxsysfs_path_t& path, uint16_t host_no) {
    return vxsysfs_path_format(path, "%s/%s/%s/host%d/", sysfs_mnt_path, CLASS, SCSI_HOST, static_cast<int>(host_no));
}

char* vxsysfs_get_fc_host(vxsysfs_path_t& path) { return vxsysfs_path_format(path, "%s/%s/%s/", sysfs_mnt_path, CLASS, FC_HOST); }

char* vxsysfs_get_fc_host_path(vxsysfs_path_t& path, uint16_t host_no) {
    return vxsysfs_path_format(path, "%s/%s/%s/host%d/", sysfs_mnt_path, CLASS, FC_HOST, static_cast<int>(host_no));
}

char* vxsysfs_get_fc_rport_path(vxsysfs_path_t& path, const char* rport) {
    if (rport)
        return vxsysfs_path_format(path, "%s/%s/%s/%s/", sysfs_mnt_path, CLASS, FC_RPORTS, rport);
    return vxsysfs_path_format(path, "%s/%s/%s/", sysfs_mnt_path, CLASS, FC_RPORTS);
}

char* vxsysfs_get_fc_vports_path(vxsysfs_path_t& path) {
    return vxsysfs_path_format(path, "%s/%s/%s/", sysfs_mnt_path, CLASS, FC_VPORTS);
}

char* vxsysfs_get_scsi_dev_path(vxsysfs_path_t& path, const char* name) {
    return vxsysfs_path_format(path, "%s/%s/%s/%s", sysfs_mnt_path, CLASS, SCSI_DEVICE, name ? name : "");
}

char* vxsysfs_get_device_path(vxsysfs_path_t& path, const vxapi_priv_database* inst) {
    if (!inst) {
        path[0] = '\0';
        return path;
    }
    // phys_path need not be terminated: print at most its size.
    return vxsysfs_path_format(path, "%.*s/host%d/", static_cast<int>(sizeof inst->phys_path),
                 reinterpret_cast<const char*>(inst->phys_path), static_cast<int>(static_cast<uint16_t>(inst->host_no)));
}

char* vxsysfs_get_bsg_device_path(vxsysfs_path_t& path, const vxapi_priv_database* inst) {
    if (!inst) {
        path[0] = '\0';
        return path;
    }
    return vxsysfs_path_format(path, "%s/%s/%s/fc_host%d/", sysfs_mnt_path, CLASS, BSG,
                 static_cast<int>(static_cast<uint16_t>(inst->host_no)));
}

char* vxsysfs_get_bsg_rport_path(vxsysfs_path_t& path, const vxapi_priv_database* inst, const uint8_t* wwpn) {
    path[0] = '\0';
    if (!inst || !wwpn)
        return nullptr;
    vxsysfs_path_t rpath;
    if (!vxsysfs_find_rport_by_wwpn(rpath, inst->host_no, wwpn)) {
        vxdbg_num(ERR, "vxsysfs_get_bsg_rport_path: no remote port on host ", inst->host_no, VXDBG_DEC, 1);
        return nullptr;
    }
    // The port's name is the last component of ".../fc_remote_ports/rport-H:B-R/".
    rpath[strlen(rpath) - 1] = '\0';
    const char* name = strrchr(rpath, '/');
    return vxsysfs_path_format(path, "%s/%s/%s/%s", sysfs_mnt_path, CLASS, BSG, name ? name + 1 : rpath);
}

// ---- Attribute readers ----

int vxsysfs_get_str_attr(const char* path, char* val, size_t size) {
    if (!val || size == 0)
        return 1;
    val[0] = '\0';
    if (!read_text(path, val, size)) {
        val[0] = '\0';
        return 1;
    }
    return 0;
}

int vxsysfs_get_hex_attr(const char* path, uint8_t* val, size_t size) {
    if (!val)
        return 1;
    memset(val, 0, size);
    char text[VXSYSFS_ATTR_LEN];
    if (!read_text(path, text, sizeof text))
        return 1;
    vxsysfs_to_array_hex(val, text, static_cast<uint32_t>(size));
    return 0;
}

unsigned long vxsysfs_get_int_attr(const char* path) {
    char text[VXSYSFS_ATTR_LEN];
    if (!read_text(path, text, sizeof text))
        return 0;
    return strtoul(text, nullptr, 10);
}

uint64_t vxsysfs_get_long_attr(const char* path) {
    char text[VXSYSFS_ATTR_LEN];
    if (!read_text(path, text, sizeof text))
        return UINT64_MAX;
    return strtoull(text, nullptr, 16);
}

// ---- Remote ports ----

namespace {

bool rport_attr_equals(const char* rpath, const char* attr, const char* expected) {
    if (!rpath)
        return false;
    vxsysfs_path_t path;
    snprintf(path, sizeof path, "%s", rpath);
    vxsysfs_path_append(path, nullptr, attr);
    char text[VXSYSFS_ATTR_LEN];
    vxsysfs_get_str_attr(path, text, sizeof text);
    return strcmp(text, expected) == 0;
}

}  // namespace

int vxsysfs_is_rport_a_target(const char* rpath) { return rport_attr_equals(rpath, "roles", "FCP Target") ? 1 : 0; }

int vxsysfs_is_rport_online(const char* rpath) { return rport_attr_equals(rpath, "port_state", "Online") ? 1 : 0; }

int vxsysfs_find_rport_by_wwpn(vxsysfs_path_t& rpath, uint32_t host_no, const uint8_t* wwpn) {
    if (!wwpn) {
        rpath[0] = '\0';
        return 0;
    }
    return find_rport(rpath, host_no, [&](int host_fd, const char* name) {
        char text[VXSYSFS_ATTR_LEN];
        uint8_t port_name[8];
        vxsysfs_rport_text(host_fd, name, "port_name", text, sizeof text);
        vxsysfs_to_array_hex(port_name, text, sizeof port_name);
        return memcmp(port_name, wwpn, sizeof port_name) == 0;
    });
}

int vxsysfs_find_rport_by_tid(vxsysfs_path_t& rpath, uint32_t host_no, uint32_t tid) {
    return find_rport(rpath, host_no, [&](int host_fd, const char* name) {
        char text[VXSYSFS_ATTR_LEN];
        vxsysfs_rport_text(host_fd, name, "scsi_target_id", text, sizeof text);
        return strtoul(text, nullptr, 10) == tid;
    });
}

int vxsysfs_is_bsg_supported(uint32_t host_no) {
    vxsysfs_path_t path;
    vxsysfs_path_format(path, "%s/%s/%s/fc_host%d/", sysfs_mnt_path, CLASS, BSG, static_cast<int>(static_cast<uint16_t>(host_no)));
    // libsysfs's sense: 0 when it is a directory.
    return sysfs_path_is_dir(path) == 0 ? 0 : 1;
}

// ---- SCSI addresses ----

uint16_t vxsysfs_get_target_id(const char* name) {
    short target = 0;
    if (!name || sscanf(name, "%*d : %*d : %hd : %*d", &target) != 1)
        return 65535;
    return static_cast<uint16_t>(target);
}

uint16_t vxsysfs_get_lun_no(const char* name) {
    short lun = 0;
    if (!name || sscanf(name, "%*d : %*d : %*d : %hd", &lun) != 1)
        return 65535;
    return static_cast<uint16_t>(lun);
}

// ---- Raw files ----

namespace {

constexpr uint32_t RAW = VXDBG_SYSFS;

void raw_text(const char* fn, const char* text, const char* value) {
    if (vxdbg_on(RAW)) {
        vxdbg_print(fn, 0, VXDBG_NONE, 0);
        vxdbg_print(text, 0, VXDBG_NONE, 0);
        vxdbg_print(value, 0, VXDBG_NONE, 1);
    }
}

void raw_num(const char* fn, const char* text, uint32_t value, uint8_t radix) {
    if (vxdbg_on(RAW)) {
        vxdbg_print(fn, 0, VXDBG_NONE, 0);
        vxdbg_print(text, value, radix, 1);
    }
}

// Opens a raw attribute with the helpers' entry lines; the open failure is
// traced here too.
int raw_open(const char* fn, const char* path, int flags, uint32_t size) {
    raw_num(fn, " > size==", size, VXDBG_DEC);
    raw_text(fn, " > path==", path);
    const int fd = open(path, flags | O_CLOEXEC);
    if (fd < 0)
        raw_text(fn, " > Failed open", "");  // the trace keeps errno
    return fd;
}

// A transfer that stopped short: the failing call's result (-1 prints as
// -1) and what is missing.
void raw_short(const char* fn, const char* what, ssize_t n, uint32_t residual) {
    if (n < 0)
        raw_text(fn, what, "");
    raw_num(fn, " > n==", static_cast<uint32_t>(n), VXDBG_INT);
    raw_num(fn, " > residual==", residual, VXDBG_DEC);
}

// The _file helpers: page-sized pieces until done or the call stops.
template <typename Io, typename Buf>
uint32_t raw_file(const char* fn, const char* failed, const char* path, Buf buf, uint32_t size, int flags, Io io) {
    if (!path || !buf)
        return size;
    fd_handle fd(raw_open(fn, path, flags, size));
    if (fd.get() < 0)
        return size;
    const uint32_t page = page_size();
    uint32_t done = 0;
    ssize_t n = 0;
    while (done < size) {
        n = io(fd.get(), buf + done, std::min(size - done, page));
        if (n <= 0)
            break;
        done += static_cast<uint32_t>(n);
    }
    if (done < size)
        raw_short(fn, failed, n, size - done);
    return size - done;
}

// The _data helpers: one transfer of at most a page.
template <typename Io, typename Buf>
int raw_data(const char* fn, const char* failed, const char* path, Buf buf, uint32_t size, int flags, Io io) {
    if (!path || !buf)
        return 0;
    fd_handle fd(raw_open(fn, path, flags, size));
    if (fd.get() < 0)
        return 0;
    const ssize_t n = io(fd.get(), buf, std::min(size, page_size()));
    if (n <= 0)
        raw_short(fn, failed, n, size);
    return static_cast<int>(n);
}

}  // namespace

uint32_t vxsysfs_read_file(const char* path, uint8_t* buf, uint32_t size) {
    return raw_file("vxsysfs_read_file:", " > Failed read", path, buf, size, O_RDONLY, ::read);
}

uint32_t vxsysfs_write_file(const char* path, const uint8_t* buf, uint32_t size) {
    return raw_file("vxsysfs_write_file:", " > Failed write", path, buf, size, O_WRONLY, ::write);
}

int vxsysfs_read_data(const char* path, uint8_t* buf, uint32_t size) {
    return raw_data("vxsysfs_read_data:", " > Failed read", path, buf, size, O_RDONLY, ::read);
}

int vxsysfs_write_data(const char* path, const uint8_t* buf, uint32_t size) {
    return raw_data("vxsysfs_write_data:", " > Failed write", path, buf, size, O_WRONLY, ::write);
}

// ---- Byte and buffer helpers ----

uint8_t vxsysfs_memsum(const uint8_t* buf, uint32_t size) {
    uint8_t sum = 0;
    for (uint32_t i = 0; buf && i < size; ++i)
        sum = static_cast<uint8_t>(sum + buf[i]);
    return sum;
}

const uint8_t* vxsysfs_memstr(const uint8_t* buf, const char* str, uint32_t size) {
    if (!buf || !str)
        return nullptr;
    const size_t len = strlen(str);
    if (len > size)
        return nullptr;
    for (size_t i = 0; i <= size - len; ++i)
        if (memcmp(buf + i, str, len) == 0)
            return buf + i;
    return nullptr;
}

uint8_t* vxsysfs_memstr(uint8_t* buf, const char* str, uint32_t size) {
    return const_cast<uint8_t*>(vxsysfs_memstr(static_cast<const uint8_t*>(buf), str, size));
}

void vxsysfs_revcpy(uint8_t* dst, const uint8_t* src, uint32_t size) {
    if (!dst || !src || size == 0)
        return;
    // Correct for overlapping buffers too (an in-place reversal included).
    memmove(dst, src, size);
    std::reverse(dst, dst + size);
}

uint64_t vxsysfs_lendian(const uint8_t* src, uint32_t size) {
    uint64_t value = 0;
    for (uint32_t i = size; src && i > 0; --i)
        value = (value << 8) | src[i - 1];
    return value;
}

uint64_t vxsysfs_bendian(const uint8_t* src, uint32_t size) {
    uint64_t value = 0;
    for (uint32_t i = 0; src && i < size; ++i)
        value = (value << 8) | src[i];
    return value;
}

void vxsysfs_lendian_buf(uint8_t* dst, uint64_t value, uint32_t size) {
    for (uint32_t i = 0; dst && i < size; ++i) {
        dst[i] = static_cast<uint8_t>(value);
        value >>= 8;
    }
}

void vxsysfs_bendian_buf(uint8_t* dst, uint64_t value, uint32_t size) {
    for (uint32_t i = size; dst && i > 0; --i) {
        dst[i - 1] = static_cast<uint8_t>(value);
        value >>= 8;
    }
}

void vxsysfs_remove_end_newline(char* str) {
    if (!str)
        return;
    for (size_t len = strlen(str); len > 0 && str[len - 1] == '\n'; --len)
        str[len - 1] = '\0';
}

void vxsysfs_to_array_hex(uint8_t* val, const char* str, uint32_t size) {
    if (!val)
        return;
    memset(val, 0, size);
    if (!str)
        return;
    if (str[0] == '0' && (str[1] == 'x' || str[1] == 'X'))
        str += 2;
    const size_t pairs = std::min(static_cast<size_t>(size), strlen(str) / 2);
    for (size_t i = 0; i < pairs; ++i) {
        const char pair[3] = {str[2 * i], str[2 * i + 1], '\0'};
        val[i] = static_cast<uint8_t>(strtoul(pair, nullptr, 16));
    }
}

// ---- bsg nodes and SCSI generic devices ----

int vxsysfs_open_bsg_dev(char* path, char* new_path, uint32_t new_path_len) {
    if (!path || !new_path || new_path_len == 0)
        return 1;
    new_path[0] = '\0';
    vxdbg_text(TRC, "vxsysfs_open_bsg_dev: entered. path=");
    vxdbg_line(TRC, path);

    size_t len = strlen(path);
    if (len > 0 && path[len - 1] == '/')
        path[--len] = '\0';
    const char* slash = strrchr(path, '/');
    if (!slash) {
        vxdbg_line(ERR, "vxsysfs_open_bsg_dev: no bsg name in path.");
        return 1;
    }
    const char* component = slash + 1;

    // Under the same root as every other path: numbers read elsewhere would
    // name another host's device.
    char root[VXSYSFS_PATH_LEN];
    vxsysfs_root(root, sizeof root);
    char dev_path[2 * VXSYSFS_PATH_LEN];
    if (snprintf(dev_path, sizeof dev_path, "%s/class/bsg/%s/dev", root, component) >= static_cast<int>(sizeof dev_path))
        return 1;
    int major_no = -1, minor_no = -1;
    if (FILE* fp = fopen(dev_path, "re")) {
        char line[64];
        if (!fgets(line, sizeof line, fp) || sscanf(line, "%d:%d", &major_no, &minor_no) != 2)
            major_no = -1;
        fclose(fp);
    }
    if (major_no < 0 || minor_no < 0) {
        vxdbg_text(ERR, "vxsysfs_open_bsg_dev: cannot read device number of ");
        vxdbg_line(ERR, component);
        return 1;
    }

    timeval now{};
    if (gettimeofday(&now, nullptr) != 0) {
        vxdbg_line(ERR, "vxsysfs_open_bsg_dev: gettimeofday failed.");
        return 1;
    }
    // The first six characters are skipped for host and port nodes alike.
    const char* tail = strlen(component) > 6 ? component + 6 : "";
    char node[VXSYSFS_PATH_LEN];
    const int n = snprintf(node, sizeof node, "/tmp/%s%lx%lx", tail, static_cast<unsigned long>(now.tv_sec),
                           static_cast<unsigned long>(now.tv_usec));
    // Checked before the node is made, so a name that cannot be handed back
    // leaves nothing behind in /tmp.
    if (n < 0 || static_cast<size_t>(n) >= sizeof node || static_cast<uint32_t>(n) >= new_path_len) {
        vxdbg_line(ERR, "vxsysfs_open_bsg_dev: node name does not fit.");
        return 1;
    }
    // Old 8-bit-minor encoding of the device number.
    const dev_t dev = static_cast<dev_t>((static_cast<unsigned>(major_no) << 8) | static_cast<unsigned>(minor_no));
    // mknod never reuses a path: a name that someone else made first is refused.
    if (mknod(node, S_IFCHR | 0644, dev) != 0) {
        vxdbg_num(ERR, "vxsysfs_open_bsg_dev: mknod failed. errno=", static_cast<uint64_t>(errno), VXDBG_DEC, 1);
        return 1;
    }
    memcpy(new_path, node, static_cast<size_t>(n) + 1);
    vxdbg_text(TRC, "vxsysfs_open_bsg_dev: exiting. node=");
    vxdbg_line(TRC, new_path);
    return 0;
}

int vxsysfs_open_bsg_node(const char* node, int flags) {
    if (!node)
        return -1;
    const int fd = open(node, (flags & ~O_CREAT) | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        vxdbg_num(ERR, "vxsysfs_open_bsg_node: open failed. errno=", static_cast<uint64_t>(errno), VXDBG_DEC, 1);
        return -1;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISCHR(st.st_mode) || st.st_uid != 0) {
        vxdbg_text(ERR, "vxsysfs_open_bsg_node: refused, not a root-owned character device: ");
        vxdbg_line(ERR, node);
        close(fd);
        errno = EPERM;
        return -1;
    }
    return fd;
}

int vxsysfs_open(const char* name, uint8_t op_code) {
    // SCSI commands that only read: the node is opened without write access.
    static constexpr uint8_t read_only_ops[] = {0x00, 0x03, 0x05, 0x08, 0x0F, 0x12, 0x17, 0x1A, 0x1C, 0x25, 0x28,
                                                0x34, 0x37, 0x3C, 0x3E, 0x43, 0x4D, 0x57, 0x5A, 0xA0, 0xA8, 0xB8};
    if (!name)
        return -1;
    char path[VXSYSFS_PATH_LEN];
    if (snprintf(path, sizeof path, "/dev/%s", name) >= static_cast<int>(sizeof path))
        return -1;
    const bool read_only = std::find(std::begin(read_only_ops), std::end(read_only_ops), op_code) != std::end(read_only_ops);
    const int fd = open(path, (read_only ? O_NONBLOCK : O_NONBLOCK | O_RDWR) | O_CLOEXEC);
    if (fd < 0)
        vxdbg_line(ERR, "vxsysfs_open: Open generic failed");
    return fd;
}
