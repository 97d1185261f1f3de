// sysfs transport: mount path, path builders, attribute readers, raw file
// and byte helpers, adapter discovery, and the vxsysfs_ twins of the leaf
// operations.
#pragma once

#include <sysfs/libsysfs.h>

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
// The "vpd" attribute of the port's host, `buf_sz` bytes at most.
int vxsysfs_get_vpd(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t buf_sz, uint32_t* pext_stat);
// DCBX parameters of a converged port: the host's "dcbx" attribute
// (EXT_DCBX_PARAM and the peer's TLVs), `size` bytes at most. Extended
// status 20 when the driver has no such attribute.
int vxsysfs_get_dcbx_param(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t size, uint32_t* pext_stat);
// Boot-image versions from flash, for the families whose virtual ports lack
// the boot-code attributes.
int vxsysfs_read_flash_versions(int handle, vxapi_priv_database* inst, EXT_HBA_NODE* node,
                                uint32_t* pext_stat);

// ---- Statistics and events (vx_sysfs_stats) ----
// The FC host's counters, fc_host/host<N>/statistics/<name>, in the order
// the record is filled from them.
struct vxsysfs_fc_counters {
    uint64_t error_frames;
    uint64_t fcp_input_requests;
    uint64_t fcp_output_requests;
    uint64_t fcp_control_requests;
    uint64_t fcp_input_megabytes;
    uint64_t fcp_output_megabytes;
    uint64_t lip_count;
    uint64_t link_failure_count;
    uint64_t loss_of_sync_count;
    uint64_t loss_of_signal_count;
    uint64_t prim_seq_protocol_err_count;
    uint64_t invalid_tx_word_count;
    uint64_t invalid_crc_count;
    uint64_t tx_frames;
    uint64_t rx_frames;
    uint64_t nos_count;
    uint64_t dumped_frames;
};
enum class vxsysfs_counter { kept, not_kept, bad };
// One counter's text ("0x1f\n"): its value, or not_kept (value 0) for the
// all-ones the transport shows for counters the driver does not keep.
vxsysfs_counter vxsysfs_parse_counter(const char* text, uint64_t* value);
// The record from the counters: 32-bit fields take the low word; the I/O
// and megabyte totals are the sums of input, output (and control).
void vxsysfs_fill_port_stat(const vxsysfs_fc_counters& counters, EXT_HBA_PORT_STAT* stat);
// The port's counters; status 9 and result 1 when no counter can be read.
int vxsysfs_get_statistics(int handle, vxapi_priv_database* inst, EXT_HBA_PORT_STAT* stat, uint32_t* pext_stat,
                           uint32_t* pext_dstat);
// The transport keeps no counters per remote port: status 9 when the host
// has no remote port with the destination's WWPN, else 20.
int vxsysfs_get_port_statistics(int handle, vxapi_priv_database* inst, const EXT_DEST_ADDR* dest,
                                EXT_HBA_PORT_STAT* stat, uint32_t* pext_stat, uint32_t* pext_dstat);
// Writes "1" to statistics/reset_statistics; status 20 without it.
int vxsysfs_reset_stats(int handle, vxapi_priv_database* inst, uint32_t* pext_stat);
// Status 0 when the port's events come by netlink (nothing is sent), else 20.
int vxsysfs_async_event_reg(int handle, vxapi_priv_database* inst, uint32_t enable, void* reserved,
                            uint32_t* pext_stat);
// The host's entries of the driver's event log (vendor socket), then the FC
// transport events of every known host not yet queued by another process,
// as far as *plen bytes hold (whole entries). Called by the event thread's
// pass, under the database lock.
int vxsysfs_async_event_get(int handle, vxapi_priv_database* inst, EXT_ASYNC_EVENT* buf, uint32_t* plen,
                            uint32_t* pext_stat);

// Text helpers of the queries (pure).
// PCIe speed code of a link speed text ("8.0 GT/s PCIe" -> 3); 0 when unknown.
uint32_t vxsysfs_pcie_speed_code(const char* text);
// SerialNum bytes of a serial-number text: one letter 'A'..'Z' and exactly
// five digits; zeros for any other text.
void vxsysfs_serial_to_bytes(const char* text, uint8_t serial[4]);
