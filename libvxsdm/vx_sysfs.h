// sysfs transport: mount path, path builders, attribute readers, raw file
// and byte helpers, adapter discovery, and the vxsysfs_ twins of the leaf
// operations.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sysfs/libsysfs.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "exioct.h"
#include "exioctln.h"
#include "vx_adapters.h"
#include "vx_core.h"
#include "vx_fc_bsg.h"

inline constexpr size_t VXSYSFS_PATH_LEN = 256;
inline constexpr size_t VXSYSFS_ATTR_LEN = 128;

// Every path buffer of this layer; the builders take it by reference so that
// a buffer of any other size does not compile.
using vxsysfs_path_t = char[VXSYSFS_PATH_LEN];

// sysfs mount point (normally "/sys"), filled once by vxsysfs_init().
extern char sysfs_mnt_path[VXSYSFS_PATH_LEN];

// The sysfs root for paths made before vxsysfs_init() has run (the ioctl
// discovery, the module probe): the mount path when known, else libsysfs's
// answer (which honours SYSFS_PATH), else "/sys".
void vxsysfs_root(char* out, size_t out_len);

// ---- Path builders ----
// Each writes at most VXSYSFS_PATH_LEN bytes and returns a pointer to the
// terminating NUL, where the caller appends the attribute name with
// vxsysfs_path_append(). Host numbers are printed modulo 65536.
char* vxsysfs_get_scsi_host_path(vxsysfs_path_t& path, uint16_t host_no);
char* vxsysfs_get_fc_host(vxsysfs_path_t& path);
char* vxsysfs_get_fc_host_path(vxsysfs_path_t& path, uint16_t host_no);
char* vxsysfs_get_fc_rport_path(vxsysfs_path_t& path, const char* rport);
char* vxsysfs_get_fc_vports_path(vxsysfs_path_t& path);
char* vxsysfs_get_scsi_dev_path(vxsysfs_path_t& path, const char* name);
char* vxsysfs_get_device_path(vxsysfs_path_t& path, const vxapi_priv_database* inst);
char* vxsysfs_get_bsg_device_path(vxsysfs_path_t& path, const vxapi_priv_database* inst);
// Null (and an empty path) when the instance's host has no remote port with this WWPN.
char* vxsysfs_get_bsg_rport_path(vxsysfs_path_t& path, const vxapi_priv_database* inst, const uint8_t* wwpn);

// Formats into a path buffer, cut at its end when too long; returns the
// terminating NUL.
template <typename... Args>
char* vxsysfs_path_format(vxsysfs_path_t& path, const char* format, Args... args) {
    const int n = snprintf(path, VXSYSFS_PATH_LEN, format, args...);
    if (n < 0) {
        path[0] = '\0';
        return path;
    }
    return path + (static_cast<size_t>(n) < VXSYSFS_PATH_LEN ? static_cast<size_t>(n) : VXSYSFS_PATH_LEN - 1);
}

// Appends `name` at `end` (a pointer returned by a builder), never past the
// path buffer; returns the new terminating NUL.
char* vxsysfs_path_append(vxsysfs_path_t& path, char* end, const char* name);

// Entries of a sysfs directory: its subdirectories and its links (the class
// directories hold links, and may hold a real directory too). Null when neither.
dlist* vxsysfs_open_entry_list(const char* path);

// A SCSI host entry: "host" and a decimal number that fits 32 bits, nothing
// else ("hostABC", "host-5", "host4294967298" are not hosts). False, with a
// trace line, for any other name.
bool vxsysfs_parse_host_name(const char* name, uint32_t* host_no);

// Closes a libsysfs name list on every way out.
class vxsysfs_list_hold {
public:
    explicit vxsysfs_list_hold(dlist* list) : list_(list) {}
    ~vxsysfs_list_hold() {
        if (list_)
            sysfs_close_list(list_);
    }
    vxsysfs_list_hold(const vxsysfs_list_hold&) = delete;
    vxsysfs_list_hold& operator=(const vxsysfs_list_hold&) = delete;
    dlist* get() const { return list_; }

private:
    dlist* list_;
};

// ---- One host's subtree, read directly (vx_sysfs_walk) ----
inline constexpr size_t VXSYSFS_RPORT_NAME_LEN = 48;  // "rport-H:C-R" with three 32-bit numbers fits
// Snapshots of the indexed walk older than this are taken again.
inline constexpr uint64_t VXSYSFS_WALK_MAX_AGE_NS = 1'000'000'000;

// The device directory of SCSI host N ({mnt}/class/scsi_host/host{N}/device,
// physical and virtual ports alike), open while the object lives.
class vxsysfs_host_dir {
public:
    explicit vxsysfs_host_dir(uint32_t host_no);
    ~vxsysfs_host_dir();
    vxsysfs_host_dir(const vxsysfs_host_dir&) = delete;
    vxsysfs_host_dir& operator=(const vxsysfs_host_dir&) = delete;
    bool ok() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    uint32_t host_no() const { return host_no_; }

private:
    uint32_t host_no_;
    int fd_ = -1;
};

// One openat and one read of attribute `rel` below `dirfd`: the text, cut to
// `size` - 1 bytes, NUL-terminated, trailing newlines removed. False (and
// an empty text) when it cannot be read.
bool vxsysfs_read_at(int dirfd, const char* rel, char* out, size_t size);
// Calls fn(entry) for every entry of directory `rel` below `dirfd` ("."
// for the directory itself) until it returns false. False when the
// directory cannot be listed.
template <typename F>
bool vxsysfs_each_entry(int dirfd, const char* rel, F&& fn) {
    const int fd = dirfd >= 0 ? openat(dirfd, rel, O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
    DIR* dir = fd >= 0 ? fdopendir(fd) : nullptr;
    if (!dir) {
        if (fd >= 0)
            close(fd);
        return false;
    }
    while (const dirent* e = readdir(dir))
        if (!fn(e))
            break;
    closedir(dir);
    return true;
}
// Host, channel and number of a remote port's name "rport-H:C-R"; false
// when the name is not one.
bool vxsysfs_parse_rport_name(const char* name, uint32_t* host, uint32_t* channel, uint32_t* number);
// Attribute `attr` of the host's remote port `name` (rport-N:C-R).
bool vxsysfs_rport_text(int host_fd, const char* name, const char* attr, char* out, size_t size);
// "Online" and roles exactly "FCP Target": the ports the indexed walk lists.
bool vxsysfs_rport_listed(int host_fd, const char* name);

// Names of remote ports, in name order (the order the class lists have).
class vxsysfs_rport_names {
public:
    vxsysfs_rport_names() = default;
    ~vxsysfs_rport_names();
    vxsysfs_rport_names(const vxsysfs_rport_names&) = delete;
    vxsysfs_rport_names& operator=(const vxsysfs_rport_names&) = delete;

    // The entries rport-{N}: of the host's directory. False, and no names,
    // when the directory cannot be read or memory runs out.
    bool list(int host_fd, uint32_t host_no);
    // False when memory runs out.
    bool push(const char* name);
    void clear();
    void swap(vxsysfs_rport_names& other);
    size_t size() const { return count_; }
    const char* operator[](size_t i) const { return names_[i]; }

private:
    using name_t = char[VXSYSFS_RPORT_NAME_LEN];
    name_t* names_ = nullptr;
    size_t count_ = 0;
    size_t capacity_ = 0;
};

// Target N:C:T's directory through the SCSI bus's entry for it (it lies
// under its own remote port's device). A descriptor, or -1 when there is none.
int vxsysfs_open_target(uint32_t host_no, uint32_t channel, uint32_t tid);
// The LUN devices (H:C:T:L entries) of an open target directory; with a
// map, each LUN below `max_lun` is marked present in it (decoded by its
// address method).
uint32_t vxsysfs_count_target_luns(int target_fd, uint8_t* lun_map, uint32_t max_lun);
// The remote port that holds target N:C:T, by the target's place in the
// tree. False when there is no such target under a remote port of host N.
bool vxsysfs_target_rport(uint32_t host_no, uint32_t channel, uint32_t tid, char* name, size_t name_len);
// The SCSI channels to look for the host's targets on: bit C for channel C
// (below 64). Channel 0 always, and those of the host's remote ports as they
// were last listed (listed now the first time).
uint64_t vxsysfs_host_channels(const vxsysfs_host_dir& host);

// The indexed walk: the name of the index-th qualifying remote port of the
// host. Index 0 takes a snapshot of them (names in walk order) that later
// indexes reuse; it is taken again when older than a second, or when the
// indexed port no longer qualifies on a fresh read. False past the end.
bool vxsysfs_walk_port(const vxsysfs_host_dir& host, uint16_t index, char* name, size_t name_len);
// Forgets every host's snapshot (library unload).
void vxsysfs_walk_reset();
// The snapshots' clock in nanoseconds (monotonic); tests may replace it.
using vxsysfs_clock_fn = uint64_t (*)();
extern std::atomic<vxsysfs_clock_fn> vxsysfs_walk_clock;

// ---- Attribute readers (full path of one attribute file) ----
// Text without trailing newlines, always NUL-terminated within `size`;
// val[0] is 0 on any failure. Returns 0 when the attribute was read.
int vxsysfs_get_str_attr(const char* path, char* val, size_t size);
// `size` bytes from the hexadecimal text; all zero on failure. 0 when read.
int vxsysfs_get_hex_attr(const char* path, uint8_t* val, size_t size);
// Decimal text; 0 on failure.
unsigned long vxsysfs_get_int_attr(const char* path);
// Hexadecimal text; all ones on failure.
uint64_t vxsysfs_get_long_attr(const char* path);

// ---- Remote ports ----
// `rpath` ends in "/". Both answer 1 only on an exact match of the text.
int vxsysfs_is_rport_a_target(const char* rpath);
int vxsysfs_is_rport_online(const char* rpath);
// 1 and the port's path (with a trailing "/") in `rpath` on a match, else 0
// and an empty `rpath`.
int vxsysfs_find_rport_by_wwpn(vxsysfs_path_t& rpath, uint32_t host_no, const uint8_t* wwpn);
int vxsysfs_find_rport_by_tid(vxsysfs_path_t& rpath, uint32_t host_no, uint32_t tid);
// 0 when the host's bsg directory exists (bsg usable), 1 when not.
int vxsysfs_is_bsg_supported(uint32_t host_no);

// ---- SCSI addresses (host:channel:target:lun) ----
uint16_t vxsysfs_get_target_id(const char* name);  // 65535 when not parsed
uint16_t vxsysfs_get_lun_no(const char* name);     // 65535 when not parsed

// ---- Raw files ----
// The _file helpers return what is missing (0 = complete; `size` when the
// open fails), the _data helpers what was moved (one transfer of at most a page).
uint32_t vxsysfs_read_file(const char* path, uint8_t* buf, uint32_t size);
uint32_t vxsysfs_write_file(const char* path, const uint8_t* buf, uint32_t size);
int vxsysfs_read_data(const char* path, uint8_t* buf, uint32_t size);
int vxsysfs_write_data(const char* path, const uint8_t* buf, uint32_t size);

// ---- Byte and buffer helpers ----
uint8_t vxsysfs_memsum(const uint8_t* buf, uint32_t size);
const uint8_t* vxsysfs_memstr(const uint8_t* buf, const char* str, uint32_t size);
uint8_t* vxsysfs_memstr(uint8_t* buf, const char* str, uint32_t size);
void vxsysfs_revcpy(uint8_t* dst, const uint8_t* src, uint32_t size);
uint64_t vxsysfs_lendian(const uint8_t* src, uint32_t size);
uint64_t vxsysfs_bendian(const uint8_t* src, uint32_t size);
void vxsysfs_lendian_buf(uint8_t* dst, uint64_t value, uint32_t size);
void vxsysfs_bendian_buf(uint8_t* dst, uint64_t value, uint32_t size);
void vxsysfs_remove_end_newline(char* str);
void vxsysfs_to_array_hex(uint8_t* val, const char* str, uint32_t size);

// ---- bsg nodes and SCSI generic devices ----
// Makes a private character node in /tmp for the bsg endpoint named by the
// last component of `path` (one trailing "/" is removed in place). On
// success `new_path` holds the node's name and the result is 0; otherwise
// `new_path` is empty and the result 1. The caller unlinks the node.
int vxsysfs_open_bsg_dev(char* path, char* new_path, uint32_t new_path_len);
// Opens a node made by vxsysfs_open_bsg_dev() without following links and
// refuses anything but a character device owned by root. -1 on refusal.
int vxsysfs_open_bsg_node(const char* node, int flags);
// Opens /dev/{name} for SCSI generic pass-through: read-only commands open
// without write access. Negative on failure.
int vxsysfs_open(const char* name, uint8_t op_code);

// ---- bsg framing (vx_sysfs_bsg) ----
inline constexpr uint32_t VXSYSFS_BSG_REQ_LEN = 20;  // every vendor, CT and ELS request
inline constexpr uint32_t VXSYSFS_BSG_RSP_LEN = 20;  // the reply buffer
// Vendor id of the vendor requests: the PCI vendor-id type tag in the top
// byte, the maker's PCI vendor id in the low 16 bits.
inline constexpr uint64_t VXSYSFS_BSG_VENDOR_ID = 0x0100000000000000ull | VX_PCI_VENDOR_ID;
// What the header builders return when an argument is missing (nonzero in the upper word).
inline constexpr uint32_t VXSYSFS_BSG_HDR_FAILED = 0x00010000;
inline constexpr uint32_t VXSYSFS_ELS_HEAD_LEN = 32;  // the library's head of an ELS buffer, not sent
inline constexpr uint32_t VXSYSFS_BSG_OPTROM_SENDS = 3;  // one send and two busy retries
inline constexpr unsigned VXSYSFS_BSG_BUSY_SLEEP = 20;   // seconds between them

// Vendor command codes (vendor_cmd[0]).
enum : uint32_t {
    VXSYSFS_BSG_LOOPBACK = 1,
    VXSYSFS_BSG_SORREL_RESET = 2,
    VXSYSFS_BSG_SORREL_UPDATEFW = 3,
    VXSYSFS_BSG_SORREL_MGMT = 4,
    VXSYSFS_BSG_PORT_PARAM = 5,
    VXSYSFS_BSG_QOS = 6,
    VXSYSFS_BSG_READ_OPTROM = 7,
    VXSYSFS_BSG_UPDATE_OPTROM = 8,
    VXSYSFS_BSG_DIAG_MODE = 9,
    VXSYSFS_BSG_MAX_IO = 10,
    VXSYSFS_BSG_UPDATE_FRU_VERSIONS = 11,
    VXSYSFS_BSG_READ_FRU_STATUS = 12,
    VXSYSFS_BSG_WRITE_FRU_STATUS = 13,
    VXSYSFS_BSG_NPIV_QOS = 14,
    VXSYSFS_BSG_NPIV_QOS_LIST = 15,
    VXSYSFS_BSG_SET_I2C = 16,
    VXSYSFS_BSG_GET_I2C = 17,
    VXSYSFS_BSG_ACTIVATE_REGION = 18,  // vendor_cmd[1] = the reset code, no data
    VXSYSFS_BSG_SERDES_REG = 19,
    VXSYSFS_BSG_SERDES_REG_EX = 20,
    VXSYSFS_BSG_GET_FLASH_CAPS = 21,
    VXSYSFS_BSG_SET_FLASH_CAPS = 22,
    VXSYSFS_BSG_BBCR_DATA = 23,
    VXSYSFS_BSG_PRIV_STATS = 24,
    VXSYSFS_BSG_DPORT = 25,
    VXSYSFS_BSG_PRIV_STATS_EX = 26,
};

// A vendor request: the header (zeroed first) and the first 12 bytes of
// `request` (message code and vendor id); the caller stores the command
// words afterwards. Without `dout`, a `din` buffer also goes out.
uint32_t vxsysfs_create_bsg_header(sg_io_v4* hdr, uint8_t* request, uint32_t request_len, uint8_t* response,
                                   uint32_t response_len, uint8_t* dout, uint32_t dout_len, uint8_t* din,
                                   uint32_t din_len);
// Flash read (code 7, both directions on `buf`) and update (code 8, data
// out only), vendor_cmd[1] = offset. VXSYSFS_BSG_HDR_FAILED when any
// argument is null or zero.
uint32_t vxsysfs_create_bsg_read_optrom_header(sg_io_v4* hdr, uint8_t* buf, uint32_t size, uint32_t offset,
                                               uint8_t* request, uint32_t request_len);
uint32_t vxsysfs_create_bsg_update_optrom_header(sg_io_v4* hdr, uint8_t* buf, uint32_t size, uint32_t offset,
                                                 uint8_t* request, uint32_t request_len);
// CT pass-through: the request is made from the CT header at the start of
// `payload` (at least 12 bytes), which goes out whole; `resp` is cleared.
uint32_t vxsysfs_create_bsg_ct_header(sg_io_v4* hdr, uint8_t* request, uint32_t request_len, uint8_t* reply,
                                      uint32_t reply_len, const uint8_t* payload, uint32_t payload_len,
                                      uint8_t* resp, uint32_t resp_len);
// ELS pass-through to a remote port: `buf` starts with the library's
// 32-byte head; the ELS command byte follows it and the rest goes out.
uint32_t vxsysfs_create_bsg_els_header(sg_io_v4* hdr, uint8_t* request, uint32_t request_len, uint8_t* reply,
                                       uint32_t reply_len, const uint8_t* buf, uint32_t size, uint8_t* resp,
                                       uint32_t resp_len);

// The private node of one bsg request: made from a bsg path (host or
// remote port) and opened write-only on construction; closed and always
// unlinked when it goes out of scope, whatever happened in between.
class vxsysfs_bsg_node {
public:
    // `path` may lose one trailing "/" (vxsysfs_open_bsg_dev).
    explicit vxsysfs_bsg_node(char* path);
    ~vxsysfs_bsg_node();
    vxsysfs_bsg_node(const vxsysfs_bsg_node&) = delete;
    vxsysfs_bsg_node& operator=(const vxsysfs_bsg_node&) = delete;
    bool made() const { return name_[0] != '\0'; }  // the node exists (extended status 1 from here)
    bool opened() const { return fd_ >= 0; }
    // SG_IO with `hdr`: 0, or -1 with errno.
    int sg_io(sg_io_v4* hdr) const;

private:
    char name_[VXSYSFS_PATH_LEN] = {};
    int fd_ = -1;
};

// Extended status of a vendor request once SG_IO returned `rc` (errno
// `err`): the driver's vendor_rsp[0] on success, 20 when the driver lacks
// bsg vendor commands, else 1. (Before: 9 on entry, 17 when a buffer
// cannot be allocated, 1 once the node is made.)
uint32_t vxsysfs_bsg_vendor_status(int rc, int err, const uint8_t* reply, uint32_t reply_len);
// The option-ROM send loop: after send number `sends` (from 1), whether to
// stop, or wait VXSYSFS_BSG_BUSY_SLEEP seconds and send again (busy, 2).
enum class vxsysfs_bsg_next { done, retry, stop };
vxsysfs_bsg_next vxsysfs_bsg_optrom_next(int rc, int err, uint32_t sends, uint32_t* pext_stat);

// ---- Discovery ----
extern const char* const driver_names[6];
extern Dlist* host_no_list;

int vxsysfs_init();
int vxsysfs_supported_driver_exist(uint32_t* start_inst);
int vxsysfs_get_driver_devices(sysfs_driver* driver, uint32_t* api_inst, uint32_t* drv_inst);
int vxsysfs_collect_hostno_list_from_devices_path(sysfs_device* device);
uint32_t vxsysfs_add_hostno_in_host_no_list(const char* name);
int vxsysfs_is_new_node_smaller(void* new_node, void* current_node);
void vxsysfs_is_chunking_supported(sysfs_device* device, vxapi_priv_database* instance);

// Virtual-port ids 1..512 in vxapi_phy_info::vp_map.
uint32_t vxsysfs_get_set_vport_id(vxapi_phy_info* phy_info);
void vxsysfs_clear_vport_id(vxapi_phy_info* phy_info, uint32_t vport_id);
uint32_t vxsysfs_get_vport_id(vxapi_phy_info* phy_info, uint32_t vhost_no);
uint32_t vxsysfs_get_vport_host_no(const uint8_t* wwpn);
int vxsysfs_is_vhost_no_wwpn_match(uint32_t vhost_no, const uint8_t* wwpn);

// ---- Queries ----
int vxsysfs_get_driver_specifics(int handle, vxapi_priv_database* inst, _EXT_LN_DRIVER_DATA* pdata,
                                 uint32_t* pext_stat);
int vxsysfs_query_driver(int handle, vxapi_priv_database* inst, _EXT_DRIVER* drv, uint32_t* pext_stat);
// Reads the port's "vpd" attribute and extracts one field (mode 1: the
// identifier string, mode 2: the keyword `key`). 0 when something was copied.
int vxsysfs_get_field_from_vpd(vxapi_priv_database* instance, const char* key, int mode, uint8_t* dst,
                               uint32_t dst_len);

// Node, port, chip, firmware and converged-port records from the host's
// attributes. Extended status 9 on entry, 0 once the record is filled.
int vxsysfs_query_hbanode(int handle, vxapi_priv_database* inst, EXT_HBA_NODE* node, uint32_t* pext_stat);
int vxsysfs_query_hbaport(int handle, vxapi_priv_database* inst, EXT_HBA_PORT* port, uint32_t* pext_stat);
int vxsysfs_query_chip(int handle, vxapi_priv_database* inst, EXT_CHIP* chip, uint32_t* pext_stat);
int vxsysfs_query_fw(int handle, vxapi_priv_database* inst, _EXT_FW* fw, uint32_t* pext_stat);
int vxsysfs_query_cnaport(int handle, vxapi_priv_database* inst, EXT_CNA_PORT* cna, uint32_t* pext_stat);
// Remote ports of the host whose roles are exactly "FCP Target", online or not.
uint16_t vxsysfs_count_port(const vxapi_priv_database* instance);
// Distinct SCSI target ids among the host's scsi_device entries.
uint16_t vxsysfs_count_target(const vxapi_priv_database* instance);
// The index-th online FCP target port of the host.
int vxsysfs_query_discport(int handle, vxapi_priv_database* inst, uint16_t index, EXT_DISC_PORT* port,
                           uint32_t* pext_stat);
// The target with SCSI target id `tid` (not a list index).
int vxsysfs_query_disctgt(int handle, vxapi_priv_database* inst, uint16_t tid, EXT_DISC_TARGET* tgt,
                          uint32_t* pext_stat);
int vxsysfs_get_tgt_lun_data_list(int handle, vxapi_priv_database* inst, _TGT_LUN_DATA_LIST* list,
                                  uint32_t list_len, uint32_t* pext_stat);
// Marks the LUNs of target `entry->TargetId` (channel 0) below `max_lun` in
// the entry's map and counts them.
void vxsysfs_count_luns(uint32_t host_no, TGT_LUN_DATA_ENTRY* entry, uint32_t max_lun);
// Remote ports selected by the type mask (VX_PORTSUM_ bits) into `size` bytes of `data`.
int vxsysfs_get_port_summary(int handle, vxapi_priv_database* inst, uint32_t* type_mask,
                             EXT_DEVICEDATA* data, uint32_t size, uint32_t* pext_stat, uint32_t* pext_dstat);
// SCSI address of the host's remote port with this WWPN; status 9 when none.
int vxsysfs_wwpn_to_scsiaddr(int handle, vxapi_priv_database* inst, const uint8_t* wwpn,
                             uint32_t wwpn_len, EXT_SCSI_ADDR* addr, uint32_t* pext_stat);
// Name of the block device ("sdc") of LUN H:C:T:L, or of its SCSI generic
// node ("sg3") when it has none. 0 when found.
int vxsysfs_get_devname(uint32_t host_no, uint32_t channel, uint32_t target, uint32_t lun, char* name,
                        size_t name_len);
// The fixed-table layout of the adapter into `buffer` (a 4088-byte layout
// buffer), published as the current layout. Extended status 16 when
// `buffer_size` is below what the table needs (nothing is written then).
int vxsysfs_get_optrom_layout(uint32_t handle, vxapi_priv_database* instance, uint8_t* buffer, uint32_t buffer_size,
                              uint32_t* pext_status);
// Start and size of a region code in the current layout; region 255 falls
// back to the whole flash of the adapter. Both 0 and result 1 when unknown.
int vxsysfs_map_region(const vxapi_priv_database* instance, uint32_t region, uint32_t* offset, uint32_t* size);
// The binary attributes "vpd" and "nvram" of the port's host: reads take
// `buf_sz` bytes at most (a shorter image is kept as far as it goes), writes
// must be taken whole, under the flash semaphore (the driver programs the
// flash part behind them). Extended status 9 when the attribute cannot be
// opened, 1 when the driver refuses the transfer.
int vxsysfs_get_vpd(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t buf_sz, uint32_t* pext_stat);
int vxsysfs_set_vpd(int handle, vxapi_priv_database* inst, const uint8_t* buf, uint32_t buf_sz, uint32_t* pext_stat);
int vxsysfs_get_nvram(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t buf_sz, uint32_t* pext_stat);
int vxsysfs_set_nvram(int handle, vxapi_priv_database* inst, const uint8_t* buf, uint32_t buf_sz,
                      uint32_t* pext_stat);
// DCBX parameters of a converged port: the host's "dcbx" attribute
// (EXT_DCBX_PARAM and the peer's TLVs), `size` bytes at most. Extended
// status 20 when the driver has no such attribute.
int vxsysfs_get_dcbx_param(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t size, uint32_t* pext_stat);
// ---- Flash (vx_sysfs_optrom) ----
// Option-ROM transfers through bsg vendor codes 7 and 8: one request under
// the flash semaphore with the two busy retries. 0 on success.
int32_t vxsysfs_bsg_read_optrom(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t size, uint32_t region,
                                uint32_t offset, uint32_t* pext_stat);
int32_t vxsysfs_bsg_update_optrom(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t size,
                                  uint32_t region, uint32_t offset, uint32_t* pext_stat);
// The sysfs twins of the option-ROM leaves: bsg first when the port has it,
// else (or when it fails) the "optrom_ctl"/"optrom" pair. Region 0 is the
// whole flash. A driver without partial commands moves the whole flash.
int32_t vxsysfs_read_optrom(int handle, vxapi_priv_database* inst, uint8_t* poptrom, uint32_t optrom_size,
                            uint32_t region, uint32_t offset, uint32_t* pext_stat);
int32_t vxsysfs_update_optrom(int handle, vxapi_priv_database* inst, uint8_t* poptrom, uint32_t optrom_size,
                              uint32_t region, uint32_t offset, uint32_t* pext_stat);
// Reset code through bsg vendor code 18; status 20 on a port without bsg.
int32_t vxsysfs_activate_region(int handle, vxapi_priv_database* inst, uint32_t reset_code, uint32_t* pext_stat);
// The host's "flash_block_size" attribute.
uint32_t vxsysfs_get_flash_sector_size(int handle, vxapi_priv_database* inst, uint32_t* psize);
// bsg vendor codes 21 (read) and 22 (set): `caps` goes out and comes back.
int32_t vxsysfs_flash_update_capabilities(int handle, vxapi_priv_database* inst, uint8_t* caps, uint32_t caps_len,
                                          uint8_t set, uint32_t* pext_stat);
// Running processor versions: the host's "mpi_version" and "edc_version"
// ("pep_version" on the boards with a PEP processor).
int32_t vxsysfs_query_adapter_versions(int handle, vxapi_priv_database* inst, EXT_ADAPTER_VERSIONS* ver,
                                       uint32_t* pext_stat);
// The host's "active_image" attribute (0 primary, 1 secondary image set).
int32_t vxsysfs_get_active_image_set(int handle, vxapi_priv_database* inst, uint32_t* image, uint32_t* pext_stat);
// ---- Pass-through (vx_sysfs_passthru) ----
// SCSI commands go to the LUN's own node (its disk, else its SCSI generic
// node) with SG_IO; CT goes to the host's bsg node, ELS to the remote
// port's. Statuses as the driver's: 9 on entry, 1 once the node is
// reached, 15 with the SCSI status as detail, 7 for data cut at the
// caller's buffer, 20 when the port has no bsg.
int32_t vxsysfs_send_scsipt(int handle, vxapi_priv_database* inst, const EXT_SCSI_ADDR* addr, const uint8_t* cdb,
                            uint32_t cdb_len, void* req, uint32_t req_size, void* resp, uint32_t* resp_size,
                            uint8_t* sense, uint32_t* sense_size, uint32_t* pext_stat, uint8_t* scsi_status);
// The executor behind vxsysfs_send_scsipt (vxapi_scsipt_exec).
int32_t vxsysfs_scsipt_sg(int handle, vxapi_priv_database* inst, EXT_SCSI_PASSTHRU* pt, void* req,
                          uint32_t req_size, void* resp, uint32_t resp_size, uint32_t* pext_stat,
                          uint32_t* pext_dstat);
// By port name only (DestType 2); other address forms get status 6.
int32_t vxsysfs_send_fc_scsipt(int handle, vxapi_priv_database* inst, EXT_FC_SCSI_PASSTHRU* pt, void* req,
                               uint32_t req_size, void* resp, uint32_t resp_size, uint32_t* pext_stat,
                               uint32_t* pext_dstat);
int32_t vxsysfs_send_ct_passthru(int handle, vxapi_priv_database* inst, const void* req, uint32_t req_size,
                                 void* resp, uint32_t resp_size, uint32_t* pext_stat);
// The destination is the head's WWPN; the port must be online.
int32_t vxsysfs_send_els_passthru(int handle, vxapi_priv_database* inst, const void* req, uint32_t req_size,
                                  void* resp, uint32_t resp_size, uint32_t* pext_stat);
// The midlayer's numbers for a LUN number as callers give it: the number
// itself, then its flat-space form (0x4000 | lun) for LUNs above 255. 1 or
// 2 numbers written to `out`; the count is returned.
uint32_t vxsysfs_midlayer_luns(uint32_t lun, uint32_t out[2]);

// Boot-image versions from flash, for the families whose virtual ports lack
// the boot-code attributes.
int vxsysfs_read_flash_versions(int handle, vxapi_priv_database* inst, EXT_HBA_NODE* node,
                                uint32_t* pext_stat);

// Text helpers of the queries (pure).
// PCIe speed code of a link speed text ("8.0 GT/s PCIe" -> 3); 0 when unknown.
uint32_t vxsysfs_pcie_speed_code(const char* text);
// SerialNum bytes of a serial-number text: one letter 'A'..'Z' and exactly
// five digits; zeros for any other text.
void vxsysfs_serial_to_bytes(const char* text, uint8_t serial[4]);
