// Library frame: instance registry and handles, load and discovery, shared
// database and semaphores, extended-ioctl channel, and the leaf vxapi_
// operations. Internal: nothing here is exported.
#pragma once

#include <sys/types.h>
#include <sysfs/dlist.h>

#include "exioct.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

// Port record feature bits (vxapi_priv_database::features).
inline constexpr uint32_t VX_FEAT_IOCTL_NODE = 0x0001;   // own extended-ioctl node
inline constexpr uint32_t VX_FEAT_NEW_IOCTL = 0x0002;    // newer EXT_IOCTL generation
inline constexpr uint32_t VX_FEAT_PROPS_READ = 0x0004;   // properties read at discovery
inline constexpr uint32_t VX_FEAT_EVENTS = 0x0010;       // events enabled on the port
inline constexpr uint32_t VX_FEAT_SYSFS = 0x0020;        // sysfs + bsg + netlink channel
inline constexpr uint32_t VX_FEAT_DRV_CAP4 = 0x0040;     // driver capability bit 0x04
inline constexpr uint32_t VX_FEAT_PARTIAL_FLASH = 0x0080;  // driver accepts partial flash commands
inline constexpr uint32_t VX_FEAT_DRV_CAP8 = 0x0100;     // driver capability bit 0x08
inline constexpr uint32_t VX_FEAT_NL_VENDOR = 0x0200;    // vendor netlink socket open
inline constexpr uint32_t VX_FEAT_NL_SCSI = 0x0400;      // FC transport netlink socket open
inline constexpr uint32_t VX_FEAT_AEN_FETCHED = 0x0800;  // event fetch operation ran
inline constexpr uint32_t VX_FEAT_BSG = 0x1000;          // bsg requests usable

inline constexpr uint32_t VX_IFTYPE_PHYSICAL = 1;
inline constexpr uint32_t VX_IFTYPE_VIRTUAL = 3;

struct INT_OPT_ROM_LAYOUT;
struct vxapi_channel_ops;

// Per-port event-callback table (vx_event.h), allocated zeroed with each
// port record.
struct vxapi_aen_callback_table;

// One physical adapter function, shared by its physical port and its virtual
// ports. Its size depends on the pointer width (320 bytes on 32-bit hosts).
struct vxapi_phy_info {
    uint8_t model[16];
    uint16_t vendor_id;
    uint16_t device_id;
    uint16_t ssvendor_id;
    uint16_t ssdevice_id;
    uint8_t serial_num[128];
    uint16_t pci_domain;
    uint16_t pci_bus;
    uint16_t pci_dev_func;
    uint16_t max_vports;
    INT_OPT_ROM_LAYOUT* pflt_layout;
    uint32_t fcoe_valid;
    uint8_t mpi_running_ver[8];
    uint8_t edc_running_ver[8];
    uint8_t mpi_flash_ver[8];
    uint8_t edc_flash_ver[8];
    uint8_t nic_bios_ver[8];
    uint8_t nic_fcode_ver[8];
    uint8_t nic_efi_ver[8];
    uint8_t vp_map[64];
    uint32_t vp_inuse;
    uint8_t port_number;
    uint8_t active_image;
    uint64_t new_fw_attributes;
    uint64_t running_fw_attributes;
    uint32_t outage;
    uint8_t reserved[2];
};
static_assert(offsetof(vxapi_phy_info, serial_num) == 24);
static_assert(offsetof(vxapi_phy_info, pci_domain) == 152);
static_assert(offsetof(vxapi_phy_info, pflt_layout) == 160);
static_assert(sizeof(void*) != 8 || sizeof(vxapi_phy_info) == 328);
static_assert(sizeof(void*) != 4 || sizeof(vxapi_phy_info) == 320);

// One port instance (physical or virtual). List position is the user
// instance; the handle is position + 1.
struct vxapi_priv_database {
    uint8_t phys_path[256];
    int32_t oshandle;
    uint32_t apihandle;
    uint32_t open_cnt;
    uint32_t drvr_inst;
    uint32_t host_no;
    uint32_t drvr_attr;
    uint8_t wwnn[8];
    uint8_t wwpn[8];
    uint8_t port_id[4];
    uint32_t interface_type;
    uint32_t vp_idx;
    uint32_t features;
    uint32_t port_flags;
    uint16_t topology;
    uint16_t state;
    vxapi_phy_info* phy_info;
    vxapi_priv_database* parent;
    vxapi_aen_callback_table* api_event_cbs;
    // The port's channel table (vx_channel.h), taken out of the reserved
    // bytes so that the record keeps its size and offsets.
    const vxapi_channel_ops* channel;
    uint8_t reserved[168 - sizeof(void*)];
};
static_assert(offsetof(vxapi_priv_database, oshandle) == 256);
static_assert(offsetof(vxapi_priv_database, wwnn) == 280);
static_assert(offsetof(vxapi_priv_database, port_id) == 296);
static_assert(offsetof(vxapi_priv_database, features) == 308);
static_assert(offsetof(vxapi_priv_database, topology) == 316);
static_assert(offsetof(vxapi_priv_database, phy_info) == 320);
static_assert(sizeof(vxapi_priv_database) == 320 + 3 * sizeof(void*) + 168);  // 500 on 32-bit

// Feature bits that change while the event thread runs (events enabled, the
// netlink sockets, the event fetch) are set, cleared and read through these.
inline uint32_t vxapi_features(const vxapi_priv_database* record) {
    return std::atomic_ref<uint32_t>(const_cast<uint32_t&>(record->features)).load(std::memory_order_relaxed);
}
inline void vxapi_features_set(vxapi_priv_database* record, uint32_t bits) {
    std::atomic_ref<uint32_t>(record->features).fetch_or(bits, std::memory_order_relaxed);
}
inline void vxapi_features_clear(vxapi_priv_database* record, uint32_t bits) {
    std::atomic_ref<uint32_t>(record->features).fetch_and(~bits, std::memory_order_relaxed);
}

// Row of the older fixed instance table.
struct vxapi_priv_db_t {
    char phys_path[80];
    char model[16];
    int oshandle;
    uint32_t apihandle;
    uint32_t open_cnt;
    uint16_t drvr_inst;
    uint16_t host_no;
    uint32_t drvr_attr;
    uint8_t wwnn[8];
    uint8_t wwpn[8];
    uint8_t port_id[4];
    uint32_t port_cnt;
    uint32_t features;
    uint16_t vendor_id;
    uint16_t device_id;
    uint16_t ssvendor_id;
    uint16_t ssdevice_id;
    char serial_num[32];
};
static_assert(sizeof(vxapi_priv_db_t) == 184);
static_assert(offsetof(vxapi_priv_db_t, apihandle) == 100);
static_assert(offsetof(vxapi_priv_db_t, serial_num) == 152);

inline constexpr int VX_MAX_LEGACY_INSTANCES = 32;

// ---- Shared database layout (the mapped file shared by every process) ----
inline constexpr uint32_t VX_SHARED_FILE_SIZE = 262144;
inline constexpr uint32_t VX_LIBINST_SLOTS = 8;
inline constexpr uint32_t VX_EVQ_ENTRIES = 1024;
inline constexpr uint32_t VX_FLASH_TOKENS = 32;

// Slot flag bits of libinst_flags.
inline constexpr uint32_t VX_LIBINST_HELD = 0x01;
inline constexpr uint32_t VX_LIBINST_CLAIMED = 0x04;
inline constexpr uint32_t VX_LIBINST_RESERVED = 0x08;

struct vxapi_hbaptevq_t {
    EXT_ASYNC_EVENT eventbuf[VX_EVQ_ENTRIES];
    uint16_t q_head;
    uint16_t q_tail;
    uint8_t rsvd[16];
};
static_assert(sizeof(vxapi_hbaptevq_t) == 16404);
static_assert(offsetof(vxapi_hbaptevq_t, q_head) == 16384);
static_assert(offsetof(vxapi_hbaptevq_t, q_tail) == 16386);
static_assert(offsetof(vxapi_hbaptevq_t, rsvd) == 16388);

#pragma pack(push, 1)
struct vxapi_flash_update_token {
    int32_t token;
    char serial_num[128];
    uint64_t valid_time;  // unaligned on purpose: the record is packed
    uint8_t reserved[116];
};
#pragma pack(pop)
static_assert(sizeof(vxapi_flash_update_token) == 256);
static_assert(offsetof(vxapi_flash_update_token, valid_time) == 132);
static_assert(offsetof(vxapi_flash_update_token, reserved) == 140);

// Who holds a slot: the process id and its start time (clock ticks after
// boot, field 22 of /proc/<pid>/stat), so that a reused pid is not taken
// for the owner. pid 0 marks an empty entry. Slot 0 may have several owners
// after the ninth-process rule, hence a table rather than one per slot.
struct vxapi_libinst_owner {
    uint32_t pid;
    uint32_t slot;
    uint64_t start_time;
};
static_assert(sizeof(vxapi_libinst_owner) == 16);
inline constexpr uint32_t VX_LIBINST_OWNERS = 1024;

// The FC transport multicasts each event to every process's socket: the
// newest kernel event number that some process has queued, so that the
// others pass over their copies. Zero (not valid) in files of libraries
// that do not record it.
struct vxapi_fc_event_seen {
    uint32_t valid;     // VX_FC_EVENT_SEEN_VALID once a number is recorded
    uint32_t last_num;  // the newest event number queued
};
inline constexpr uint32_t VX_FC_EVENT_SEEN_VALID = 0x5EE4E7A1;

struct vxapi_shared_t {
    uint32_t libinst_flags[VX_LIBINST_SLOTS];
    vxapi_hbaptevq_t hbaptevq[VX_LIBINST_SLOTS];
    vxapi_flash_update_token fut[VX_FLASH_TOKENS];
    // The first 16 KiB of the reserved area: zero in files of libraries that
    // do not record owners, which reads as "no owner recorded".
    vxapi_libinst_owner libinst_owner[VX_LIBINST_OWNERS];
    vxapi_fc_event_seen fc_event_seen;
    uint8_t reserved[122688 - VX_LIBINST_OWNERS * sizeof(vxapi_libinst_owner) - sizeof(vxapi_fc_event_seen)];
};
static_assert(offsetof(vxapi_shared_t, hbaptevq) == 32);
static_assert(offsetof(vxapi_shared_t, fut) == 131264);
static_assert(offsetof(vxapi_shared_t, libinst_owner) == 139456);  // where the reserved area starts
static_assert(offsetof(vxapi_shared_t, fc_event_seen) == 139456 + 16384);
static_assert(offsetof(vxapi_shared_t, reserved) == 139456 + 16384 + 8);
static_assert(sizeof(vxapi_shared_t) == VX_SHARED_FILE_SIZE);

// ---- Registry globals ----
extern Dlist* api_priv_database;
extern Dlist* api_phy_info;
extern vxapi_priv_db_t api_priv_data[VX_MAX_LEGACY_INSTANCES];
extern vxapi_priv_database* current_priv_inst;
extern vxapi_phy_info* current_phy_info_inst;

// ---- Shared database globals (the database itself lives in vx_core_db) ----
extern uint32_t api_library_instance;  // this process's slot 0-7; 8 or more: none
extern uint8_t api_use_database;       // 1 until the host proves to have no System V IPC
extern int api_shm_fildes;             // -1 when closed
extern vxapi_shared_t* api_shared_data;  // the mapping, null when none
// Set ids, -1 when none. Atomic: a thread that finds a set removed looks it
// up again and stores the new id while other threads read it.
extern std::atomic<int> api_dbupdate_sem_id;  // key 829
extern std::atomic<int> api_thread_sem_id;    // key 1054
extern std::atomic<int> api_flash_sem_id;     // key 980
extern std::atomic<int> api_dbg_sem_id;       // key 819

inline constexpr int VX_SEM_KEY_DBUPDATE = 829;
inline constexpr int VX_SEM_KEY_THREAD = 1054;
inline constexpr int VX_SEM_KEY_FLASH = 980;
inline constexpr int VX_SEM_KEY_DEBUG = 819;

// ---- Handles ----
uint32_t vxapi_create_apihandle(uint32_t instance);
vxapi_priv_database* check_handle(uint32_t handle);
int vxapi_get_api_inst_by_handle(uint32_t handle, int* index);

// ---- Look-ups ----
vxapi_priv_database* vxapi_get_api_priv_inst_from_user_instance(uint32_t instance);
int vxapi_get_instance_from_api_priv_inst(const vxapi_priv_database* record, uint32_t* instance);
vxapi_priv_database* vxapi_get_api_priv_inst_from_adaptername(const char* name);
// The adapter name of a port record at list position `position`:
// "varnex-<model>-<position>", at most `len` bytes.
void vxapi_adapter_name(const vxapi_priv_database* record, uint32_t position, char* out, size_t len);
int vxapi_get_host_no_by_handle(uint32_t handle, uint32_t* host_no);
uint32_t vxapi_get_open_adapter_count();
int vxapi_is_host_no_present(uint32_t host_no);
vxapi_priv_database* vxapi_get_phy_port_from_vport(const vxapi_priv_database* vport);
vxapi_priv_database* vxapi_get_vport_from_wwn(const vxapi_priv_database* parent, const uint8_t* wwnn,
                                              const uint8_t* wwpn);
vxapi_priv_database* vxapi_get_vport_from_vport_id(const vxapi_priv_database* parent, uint32_t vp_idx);
// PCI location: domain, bus and (device << 3 | function) of the given record.
vxapi_phy_info* vxapi_get_api_phy_info_inst(const vxapi_phy_info* pci);

// ---- Bookkeeping ----
void vxapi_fill_phy_port_number(vxapi_priv_database* record);
uint32_t vxapi_get_total_libinst_count();
uint32_t vxapi_get_number_of_bits_set(uint32_t value);

// ---- Making and freeing records ----
int vxapi_alloc_api_priv_data_mem(uint32_t* err);
int vxapi_alloc_api_phy_info_mem(uint32_t* err);
void vxapi_free_api_priv_data_element(vxapi_priv_database* record);
void vxapi_free_api_phy_info_element(vxapi_phy_info* record);
void vxapi_free_api_priv_data_mem();
void vxapi_free_api_phy_info_mem();

// ---- Open and close ----
int vxapi_open_adapter(vxapi_priv_database* record, uint32_t* handle, uint32_t* status);
int vxapi_close_adapter(vxapi_priv_database* record, uint32_t* status);

// Another physical port of `inst`'s board (same PCI domain, bus and device)
// by PCI function number; null when the board has none there.
vxapi_priv_database* vxapi_get_board_port(const vxapi_priv_database* inst, uint32_t function);

// A port used for one request on the caller's behalf (a board's other
// port): its ioctl node is opened when nobody has it open, and closed again
// at the end of the scope. Sysfs ports need no node.
class vxapi_port_use {
public:
    explicit vxapi_port_use(vxapi_priv_database* rec) : rec_(rec) {
        if (rec_ && !(rec_->features & VX_FEAT_SYSFS) && rec_->open_cnt == 0) {
            uint32_t handle = 0, status = 0;
            opened_ = vxapi_open_adapter(rec_, &handle, &status) == 0;
            ok_ = opened_;
        } else {
            ok_ = rec_ != nullptr;
        }
    }
    ~vxapi_port_use() {
        if (opened_) {
            uint32_t status = 0;
            vxapi_close_adapter(rec_, &status);
        }
    }
    vxapi_port_use(const vxapi_port_use&) = delete;
    vxapi_port_use& operator=(const vxapi_port_use&) = delete;
    bool ok() const { return ok_; }

private:
    vxapi_priv_database* rec_;
    bool opened_ = false;
    bool ok_ = false;
};

// ---- System V semaphores (each a set of one semaphore used as a lock) ----
// Opens the set of `key` or creates it unlocked. A set that root (or this
// user) did not create, or that others may change, is refused: -1 with
// errno EACCES and a trace line naming the command that removes it.
int vxapi_sem_get(int key);
// One semop on the id as it stands; 0, or -1 with errno (traced).
int vxapi_sem_wait(int id);
int vxapi_sem_signal(int id);
int vxapi_sem_del(int id);

// Locks by key: `id` is looked up (or made) when -1, and looked up again when
// the set it names was removed (EINVAL, EIDRM), so a removed set never passes
// for a lock. 0 when held; -1 with errno when the set cannot be had (EACCES
// for a foreign set, ENOSYS without System V IPC) or a termination signal
// came while waiting (EINTR). A thread that holds the lock already takes it
// again at once; its outermost unlock gives it back.
int vxapi_sem_lock(std::atomic<int>& id, int key);
void vxapi_sem_unlock(std::atomic<int>& id);
// Removes the set while holding it, so that nobody holds it between a
// release and the removal; waiters wake with EIDRM and look it up again.
void vxapi_sem_unlock_delete(std::atomic<int>& id);
// Locks of this process held or being waited for, by any of its threads.
int vxapi_sem_holds();

// Holds the lock of `key` for one scope (see vxapi_sem_lock).
class vxapi_sem_hold {
public:
    vxapi_sem_hold(std::atomic<int>& id, int key) : id_(id), held_(vxapi_sem_lock(id, key) == 0) {}
    ~vxapi_sem_hold() {
        if (held_)
            vxapi_sem_unlock(id_);
    }
    vxapi_sem_hold(const vxapi_sem_hold&) = delete;
    vxapi_sem_hold& operator=(const vxapi_sem_hold&) = delete;
    bool held() const { return held_; }
    // Ends the hold by removing the set (see vxapi_sem_unlock_delete).
    void remove() {
        if (held_)
            vxapi_sem_unlock_delete(id_);
        held_ = false;
    }

private:
    std::atomic<int>& id_;
    bool held_;
};

// Walks a dlist without its shared marker, so that several threads may walk
// the same list at once (the event thread walks the port list too).
template <typename T, typename F>
void vx_dlist_each(Dlist* list, F&& fn) {
    if (!list)
        return;
    for (DL_node* node = list->head->next; node != list->head; node = node->next)
        if (!fn(static_cast<T*>(node->data)))
            return;
}

// ---- Load, unload and platform (vx_core_load) ----
inline constexpr int VX_OS_LINUX = 0;
inline constexpr int VX_OS_ESX = 1;  // VMware ESX service console

extern int OS_Type;
extern uint8_t is_vioctlmod_loaded;    // the ioctl helper module is in use
extern uint8_t is_udevadm_supported;   // udevadm can be run for LUN device names
extern volatile uint8_t api_signal_handler_in_process;

// True once a load has published its ports and shared database; callers test
// it before they read the lists without a lock.
bool vxapi_lib_loaded();
// Loaded, with its port list, and with the shared database set up when it
// is in use: the state in which the counting and naming calls answer.
bool vxapi_lib_valid();
// The termination signal that waits for this process's locks to be given
// back, 0 when none.
int vxapi_termination_pending();
// Called where the last lock of the process is given back: ends the process
// by the pending termination signal, if there is one.
void vxapi_finish_pending_termination();

int vxapi_load_lib();
int vxapi_unload_lib();
void vxapi_cleanup_hbas();
int vxapi_check_esx();
int vxapi_load_vioctlmod();
int vxapi_is_udevadm_supported();
void vxapi_terminate(int sig);

// ---- Shared database (vx_core_db) ----
inline constexpr size_t VX_DB_FNAME_LEN = 40;
extern char vx_db_fname[VX_DB_FNAME_LEN];  // writable: tests and tools may move the file

// Both return 0 on success; a failure returns 1 with errno describing it.
int vxapi_open_database(int* fd);
int vxapi_close_database(int fd);
void vxapi_clear_evqs(uint32_t slot);
// Gives up this process's slot on the way out of a signal: async-signal-safe,
// never waits long for the database lock, removes the shared file and the
// locks when no live client is left.
void vxapi_abandon_database();

// Slot owners. Liveness of an owner: its pid exists, is not a zombie, and
// started at the recorded time. Pure over the given mapping and oracle.
using vxapi_owner_alive_fn = bool (*)(const vxapi_libinst_owner& owner);
bool vxapi_owner_alive(const vxapi_libinst_owner& owner);  // asks /proc
// This process as an owner; start_time 0 when /proc cannot tell.
vxapi_libinst_owner vxapi_self_owner();
// State (field 3) and start time (field 22) of a /proc/<pid>/stat text of
// `len` bytes. 0 when both were found. Async-signal-safe.
int vxapi_parse_proc_stat(const char* text, size_t len, char* state, uint64_t* start_time);
// Forgets dead and malformed owner entries and frees the slots whose every
// recorded owner is dead. Returns the number of slots freed.
uint32_t vxapi_reclaim_dead_slots(vxapi_shared_t* shared, vxapi_owner_alive_fn alive);
// Claims a slot for `self` (reclaiming dead ones first; the ninth-process
// rule only when every slot is claimed by a live or unknown owner).
uint32_t vxapi_claim_slot(vxapi_shared_t* shared, const vxapi_libinst_owner& self, vxapi_owner_alive_fn alive);
// Gives `self`'s slot back; the slot's flags and queue stay while another
// live owner shares it.
void vxapi_release_slot(vxapi_shared_t* shared, uint32_t slot, const vxapi_libinst_owner& self,
                        vxapi_owner_alive_fn alive);
// Clients other than `self`: live owners, plus slots in use without any
// recorded owner (a library that does not record them).
uint32_t vxapi_count_other_clients(const vxapi_shared_t* shared, const vxapi_libinst_owner& self,
                                   vxapi_owner_alive_fn alive);

// ---- Extended-ioctl discovery and the control node (vx_core_ioctl) ----
extern int api_apidev_fd;  // "/dev/vxfcapidev", -1 when closed

struct EXT_LN_DRIVER_DATA;

inline constexpr uint32_t VX_IOCTL_MAX_INDEX = 2048;  // adapter indexes a driver may use

int vxapi_find_all_instances_n(const char* driver, uint32_t* count);
int vxapi_find_all_instances_o(const char* driver, uint32_t* count);
// Makes sure `path` is a character node with the numbers the kernel gives
// `driver`; may rewrite `path` (ESX). 0 when it is.
int vxapi_charnode_exist(char* path, size_t path_size, const char* driver);
// The numbers wanted for `driver`'s node: the "major:minor" text of
// `dev_attr`, else the last line of `proc_devices` naming the driver (minor
// 0). 0 when found, 1 when not, 2 when `proc_devices` cannot be read either.
int vxapi_charnode_numbers(const char* dev_attr, const char* proc_devices, const char* driver, uint32_t* major_no,
                           uint32_t* minor_no);
// The node step alone: `path` kept when it is a character node of these
// numbers, else made anew (0600, old encoding major * 256 + minor). 0 when
// the node opens in the end.
int vxapi_charnode_make(const char* path, uint32_t major_no, uint32_t minor_no);
int vxapi_open_apidev();
void vxapi_close_apidev();

// Opens the node `path` into record->oshandle, asks the driver for its
// adapter count (`hba_cnt`, set whenever the driver answers) and, when
// `inst` is below it, selects the driver's adapter `drvr_inst` on that
// descriptor (record->host_no comes back). 0 on success; on failure the
// descriptor is closed again. The record's features choose the generation.
int vxapi_open_device_n(const char* path, uint32_t drvr_inst, uint32_t inst, uint32_t* hba_cnt,
                        vxapi_priv_database* record);
int vxapi_open_device_o(const char* path, uint32_t drvr_inst, uint32_t inst, uint32_t* hba_cnt,
                        vxapi_priv_database* record);
// EXT_CC_SET_INSTANCE on `fd`: the host number comes back in `host_no`.
int vxapi_set_instance(int fd, uint32_t drvr_inst, const vxapi_priv_database* record, uint32_t* host_no,
                       uint32_t* pext_stat);
// Driver version and capability flags (64 bytes); the leaf convention.
int vxapi_get_driver_specifics(int handle, vxapi_priv_database* inst, EXT_LN_DRIVER_DATA* data, uint32_t* pext_stat);

// Pure steps of the ioctl discovery.
// "%c%05d" from the node record's serial-number bytes s0 s1 s2:
// n = (s0 & mask) * 65536 + s2 * 256 + s1, letter 'A' + n / 100000.
void vxapi_calc_serialnum(const uint8_t* serial3, uint8_t mask, char* out, size_t out_len);
// Serial number of an older-family adapter: the HP boards' text in the node
// record's reserved bytes, else the computed form with mask 0x1F.
void vxapi_node_serialnum(const EXT_HBA_NODE* node, uint16_t ssvendor_id, uint16_t ssdevice_id, char* out,
                          size_t out_len);
// True when a driver of this version reports capability flags that can be trusted.
bool vxapi_driver_caps_usable(uint8_t major_no, uint8_t minor_no, uint8_t patch);
// Features 0x40 and 0x100 from the driver data's flags when the version is
// new enough and the helper module is not in use; otherwise left alone.
void vxapi_apply_driver_caps(vxapi_priv_database* record, const EXT_LN_DRIVER_DATA* data);

// ---- Extended-ioctl channel: framing and the common send path ----
struct EXT_IOCTL;
struct EXT_IOCTL_O;
uint64_t vxapi_ptr_to_64bit(const void* ptr);
void* vxapi_64bit_to_ptr(uint64_t value);
// Fill a request record (zeroed first); non-zero only when pext is null (or,
// older generation, when a buffer lies above 4 GiB).
int vxapi_init_ext_ioctl_n(uint16_t subcmd, uint16_t inst, const void* req_ptr, uint32_t req_len, void* resp_ptr,
                           uint32_t resp_len, const vxapi_priv_database* record, EXT_IOCTL* pext);
int vxapi_init_ext_ioctl_o(uint16_t subcmd, uint16_t inst, const void* req_ptr, uint32_t req_len, void* resp_ptr,
                           uint32_t resp_len, const vxapi_priv_database* record, EXT_IOCTL_O* pext);
uint32_t convert_ioctl(uint32_t code);
// ioctl(fd, req, pext), the number converted for ports without VX_FEAT_NEW_IOCTL.
int sdm_ioctl(int fd, uint32_t req, void* pext, const vxapi_priv_database* record);
// What the count and instance-selection commands hand back in the request
// record itself.
struct vxapi_ext_answer {
    uint16_t instance;      // EXT_CC_GET_HBA_CNT: the adapter count
    uint16_t hba_select;    // EXT_CC_SET_INSTANCE: the host number
    uint32_t response_len;  // EXT_CC_GET_AEN: the bytes of events returned
};
// The one send path of the ioctl channel: one request on an ioctl port, in
// the port's record generation. Returns the ioctl result (0, or -1 with
// errno) or 1 when the request could not be framed; the driver's Status and
// DetailStatus go to the out-pointers, the record's answer fields to `answer`.
// `reserved1` fills the record's Reserved1 word (the flash offset of the
// option-ROM commands; 0 for every other command).
int vxapi_send_ext_ioctl(int handle, const vxapi_priv_database* record, uint8_t command, uint16_t subcode,
                         uint16_t instance, const void* req, uint32_t req_len, void* resp, uint32_t resp_len,
                         uint32_t* pext_stat, uint32_t* pext_dstat, vxapi_ext_answer* answer = nullptr,
                         uint32_t reserved1 = 0);
// vxapi_send_ext_ioctl traced under the leaf's `name`: a request that cannot
// be framed, and the result with the driver status on the way out. A null
// `pext_stat` drops the driver status.
int32_t vxapi_send_ext_traced(const char* name, int handle, vxapi_priv_database* inst, uint8_t command,
                              uint16_t subcode, uint16_t instance, const void* req, uint32_t req_len, void* resp,
                              uint32_t resp_len, uint32_t* pext_stat, uint32_t* pext_dstat,
                              vxapi_ext_answer* answer = nullptr);
// The same for a request record that the driver writes back into (the
// pass-through records, whose sense comes back in them); instance 0.
int vxapi_send_ext_ioctl_inout(int handle, const vxapi_priv_database* record, uint8_t command, uint16_t subcode,
                               void* req, uint32_t req_len, void* resp, uint32_t resp_len, uint32_t* pext_stat,
                               uint32_t* pext_dstat);

// ---- Discovery call-outs: flash layout, image versions, VPD fields ----
// (vx_core_flash, vx_core_vpd). `handle` is 0 when called during discovery.
int vxapi_set_option_rom_layout(uint32_t handle, vxapi_priv_database* inst);
int vxapi_query_adapter_versions(uint32_t handle, vxapi_priv_database* inst, uint32_t* pext_stat);
int vxapi_get_flash_mpi_edc_versions(uint32_t handle, vxapi_priv_database* inst, uint32_t* pext_stat);
int vxapi_get_nic_bootcode_version(uint32_t handle, vxapi_priv_database* inst, uint32_t* pext_stat);
int vxapi_get_active_image_set(uint32_t handle, vxapi_priv_database* inst, uint32_t* pext_stat);
// Flash-update capabilities: `caps` (caps_len bytes, 32 in use) goes out and
// comes back; `set` 1 sends them (activation), 0 reads them.
int vxapi_flash_update_capabilities(uint32_t handle, vxapi_priv_database* inst, uint8_t* caps, uint32_t caps_len,
                                    uint8_t set, uint32_t* pext_stat);

inline constexpr uint32_t VX_VPD_SIZE = 512;
inline constexpr uint32_t VX_VPD_SIZE_LARGE = 1024;  // Wren, Tern and Ibis
inline constexpr uint32_t VX_VPD_WALK_LIMIT = 512;   // field walks never look further

// VPD buffer size of the adapter's family.
uint32_t vxapi_get_vpd_size(uint16_t device_id);
// Mode 1: the identifier string; mode 2: the first keyword item equal to
// `key`. `vpd` holds at least VX_VPD_WALK_LIMIT bytes. 0 when copied.
int vxapi_get_field_from_vpd(const uint8_t* vpd, const char* key, int mode, uint8_t* dst, uint32_t dst_len);
// Checksum keyword "RV": its first data byte makes the 8-bit sum of every
// byte from the buffer start through it 0. The item walk never reads at or
// past `size`. 0 when valid; 1 when the sum is not 0 or no "RV" comes before
// the end tag or the end of the buffer.
int vxapi_verify_vpd_checksum(const uint8_t* vpd, uint32_t size);
// HP boards: a plain byte scan up to the characters "RV" (a 0x78 byte before
// them reads as the end tag). 0 when valid, else 1.
int vxapi_verify_hp_vpd_checksum(const uint8_t* vpd, uint32_t size);
// Recomputes the "RV" byte after the VPD items were edited. 0 when set; 1
// when the walk finds no "RV" with a data byte inside `size`.
int vxapi_vpd_set_checksum(uint8_t* vpd, uint32_t size);

// PrintVpd appends to a caller's text buffer of this many bytes.
inline constexpr uint32_t VX_VPD_TEXT_SIZE = 4096;
// One line for the item whose first byte (tag, or first keyword character)
// is at `opcode`, appended to `resultText` (VX_VPD_TEXT_SIZE bytes, cut at its
// end). "RV" and "RW" print value[0]: `value` holds max(len_value, 1) bytes.
void PrintField(const uint8_t* opcode, const uint8_t* value, uint32_t len_value, char* resultText);
// The items of the first VX_VPD_WALK_LIMIT bytes of `vpd`, one line each, up to
// and including the end tag, appended to `resultText` (VX_VPD_TEXT_SIZE
// bytes). HP boards (by the port's subsystem ids) have a one-byte identifier
// length. 0 when the end tag was reached, else 1.
int PrintVpd(const uint8_t* vpd, char* resultText, const vxapi_priv_database* api_priv_data_inst);
// The port's VPD (`buf_sz` bytes): EXT_CC_GET_VPD on ioctl ports, the "vpd"
// attribute on sysfs ports. The leaf convention.
int vxapi_get_vpd(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t buf_sz, uint32_t* pext_stat);
// Writes `buf_sz` bytes of VPD: EXT_CC_SET_VPD, or the "vpd" attribute.
int vxapi_set_vpd(int handle, vxapi_priv_database* inst, const uint8_t* buf, uint32_t buf_sz, uint32_t* pext_stat);
// The VPD "SN" field (at most 32 characters) into the adapter record's
// serial_num, on the families that keep it there. 0 when found.
int vxapi_get_vpd_serialnum(int handle, vxapi_priv_database* inst);

// ---- NVRAM images (vx_core_nvram) ----
inline constexpr uint32_t VX_NVRAM_SIZE = 256;        // older families: 16-bit word layout
inline constexpr uint32_t VX_NVRAM_SWIFT_SIZE = 512;  // Swift and FLT families: nvram_swift

// True for the families that keep the 512-byte layout.
bool vxapi_nvram_is_swift(uint16_t device_id);
uint32_t vxapi_nvram_size(uint16_t device_id);
// The flash region that holds the NVRAM of the port at PCI function
// `pci_function` on the FLT families; 0 on the others (the driver keeps it).
uint32_t vxapi_nvram_region(uint16_t device_id, uint32_t pci_function);
// The flash regions of the first and second port's VPD on the FLT families.
inline constexpr uint32_t VX_REGION_VPD_PORT0 = 0x14;
inline constexpr uint32_t VX_REGION_VPD_PORT1 = 0x16;
// The checksum of an image of `size` bytes. 512-byte layout (`swift`): the
// image as little-endian 32-bit words sums to 0, the last word being the
// checksum. 256-byte layout: the bytes sum to 0 modulo 256, the last byte
// (NVRAMVarCheckSum) being the checksum. Both return 0, or 1 when the image
// is null or too small for one checksum unit.
int vxapi_nvram_set_checksum(uint8_t* nvram, uint32_t size, bool swift);
int vxapi_nvram_verify_checksum(const uint8_t* nvram, uint32_t size, bool swift);
// The port's NVRAM image as the driver keeps it (`nvr_buf_size` bytes at
// most): EXT_CC_GET_NVRAM / EXT_CC_SET_NVRAM on ioctl ports, the "nvram"
// attribute on sysfs ports. The leaf convention.
int vxapi_get_nvram(int handle, vxapi_priv_database* inst, uint8_t* pnvr_buf, uint32_t nvr_buf_size,
                    uint32_t* pext_stat);
int vxapi_set_nvram(int handle, vxapi_priv_database* inst, const uint8_t* pnvr_buf, uint32_t nvr_buf_size,
                    uint32_t* pext_stat);

// ---- Leaf operations of the management interface (vx_core_query) ----
// Each takes the port's OS handle (its oshandle) and record, and hands the
// driver's extended status back through pext_stat. Each dispatches through
// the port's channel table (vx_channel.h): the vxsysfs_ twin of the same
// name, or one extended-ioctl request. Result: 0, the ioctl's -1 with errno,
// or 1 when the request could not be made.
struct TGT_LUN_DATA_LIST;
struct FO_LUN_DATA_LIST;
int32_t vxapi_query_hbanode(int handle, vxapi_priv_database* inst, EXT_HBA_NODE* node, uint32_t* pext_stat);
int32_t vxapi_query_hbaport(int handle, vxapi_priv_database* inst, EXT_HBA_PORT* port, uint32_t* pext_stat);
int32_t vxapi_query_chip(int handle, vxapi_priv_database* inst, EXT_CHIP* chip, uint32_t* pext_stat);
int32_t vxapi_query_driver(int handle, vxapi_priv_database* inst, EXT_DRIVER* drv, uint32_t* pext_stat);
int32_t vxapi_query_fw(int handle, vxapi_priv_database* inst, EXT_FW* fw, uint32_t* pext_stat);
int32_t vxapi_query_cnaport(int handle, vxapi_priv_database* inst, EXT_CNA_PORT* cna, uint32_t* pext_stat);
// `index`: the driver's list position (ioctl); over sysfs the n-th online
// FCP target port, and for targets the SCSI target id.
int32_t vxapi_query_discport(int handle, vxapi_priv_database* inst, uint16_t index, EXT_DISC_PORT* port,
                             uint32_t* pext_stat);
int32_t vxapi_query_disctgt(int handle, vxapi_priv_database* inst, uint16_t index, EXT_DISC_TARGET* tgt,
                            uint32_t* pext_stat);
// `size` bytes of `data` (header and entries); the type mask selects which
// remote ports count (VX_PORTSUM_ bits).
int32_t vxapi_get_port_summary(int handle, vxapi_priv_database* inst, uint32_t* type_mask, EXT_DEVICEDATA* data,
                               uint32_t size, uint32_t* pext_stat, uint32_t* pext_dstat);
int32_t vxapi_get_tgt_lun_data_list(int handle, vxapi_priv_database* inst, TGT_LUN_DATA_LIST* list,
                                    uint32_t list_len, uint32_t* pext_stat);
// Extended-ioctl channel only.
int32_t vxapi_get_lun_data_list(int handle, vxapi_priv_database* inst, FO_LUN_DATA_LIST* list, uint32_t list_len,
                                uint32_t* pext_stat);
int32_t vxapi_wwpn_to_scsiaddr(int handle, vxapi_priv_database* inst, const uint8_t* wwpn, uint32_t wwpn_len,
                               EXT_SCSI_ADDR* addr, uint32_t* pext_stat);
// ---- Pass-through leaves (vx_core_passthru) ----
// A SCSI command to bus/target/LUN `addr`: `cdb_len` 1-16; at most one of
// `req` (data out) and `resp` (data in, *resp_size bytes); `sense` (room
// *sense_size bytes, cleared first) receives the sense of a check
// condition and *sense_size its length. *scsi_status is the target's
// status byte. Result 1 also for a driver status other than 0, 7, 8, 15.
int32_t vxapi_send_scsipt(int handle, vxapi_priv_database* inst, const EXT_SCSI_ADDR* addr, const uint8_t* cdb,
                          uint32_t cdb_len, void* req, uint32_t req_size, void* resp, uint32_t* resp_size,
                          uint8_t* sense, uint32_t* sense_size, uint32_t* pext_stat, uint8_t* scsi_status);
// The same by FC address, the record built by the caller; sense comes back
// in the record. The driver's status and detail status.
int32_t vxapi_send_fc_scsipt(int handle, vxapi_priv_database* inst, EXT_FC_SCSI_PASSTHRU* pt, void* req,
                             uint32_t req_size, void* resp, uint32_t resp_size, uint32_t* pext_stat,
                             uint32_t* pext_dstat);
// A CT request (CT_IU) to the fabric's services; refused (status 1, result
// 1) unless the port is up on a fabric (topology 4 or 8).
int32_t vxapi_send_ct_passthru(int handle, vxapi_priv_database* inst, const void* req, uint32_t req_size,
                               void* resp, uint32_t resp_size, uint32_t* pext_stat);
// An ELS request: the 32-byte EXT_ELS_PT_REQ naming the port, then the ELS
// payload; `resp` receives the LS_ACC or LS_RJT.
int32_t vxapi_send_els_passthru(int handle, vxapi_priv_database* inst, const void* req, uint32_t req_size,
                                void* resp, uint32_t resp_size, uint32_t* pext_stat);
// Port topologies on which the fabric's services answer.
inline constexpr uint16_t VX_TOPOLOGY_FL_PORT = 4;
inline constexpr uint16_t VX_TOPOLOGY_F_PORT = 8;
// Statistics (vx_core_stats): the port's counters, a remote port's counters
// (named by the destination address), clearing the port's counters. The
// driver's status and detail come back through pext_stat and pext_dstat.
int32_t vxapi_get_statistics(int handle, vxapi_priv_database* inst, EXT_HBA_PORT_STAT* stat, uint32_t* pext_stat,
                             uint32_t* pext_dstat);
int32_t vxapi_get_port_statistics(int handle, vxapi_priv_database* inst, const EXT_DEST_ADDR* dest,
                                  EXT_HBA_PORT_STAT* stat, uint32_t* pext_stat, uint32_t* pext_dstat);
int32_t vxapi_reset_stats(int handle, vxapi_priv_database* inst, uint32_t* pext_stat);
// Switches the driver's event delivery for the port on (enable 1) or off;
// sets or clears feature 0x10 whatever the driver answered. Ports whose
// events arrive by netlink send nothing (status 0). `reserved` is unused.
int32_t vxapi_async_event_reg(int handle, vxapi_priv_database* inst, uint32_t enable, void* reserved,
                              uint32_t* pext_stat);
// The port's pending events: *plen is the room of `buf` in bytes on entry
// and the bytes of events returned on exit. Sets feature 0x800.
int32_t vxapi_async_event_get(int handle, vxapi_priv_database* inst, EXT_ASYNC_EVENT* buf, uint32_t* plen,
                              uint32_t* pext_stat);

// LUN number from the first two bytes of an 8-byte SCSI LUN; 0xFFFFFFFF for
// the extended addressing method.
uint32_t vxapi_get_lun_addr(const uint8_t* lun);
// FC-AL loop id (0..126) to AL_PA.
extern const uint8_t alpa_table[127];

// Port summary type mask: which remote ports a port-database request selects.
inline constexpr uint32_t VX_PORTSUM_TARGET = 0x0001;     // roles contain "FCP Target"
inline constexpr uint32_t VX_PORTSUM_INITIATOR = 0x0002;  // "FCP Initiator" and not a target
inline constexpr uint32_t VX_PORTSUM_FABRIC = 0x0004;     // port id 0xFFF000 and above
inline constexpr uint32_t VX_PORTSUM_OTHER = 0x0008;      // every other port
inline constexpr uint32_t VX_PORTSUM_OFFLINE = 0x0010;    // include ports that are not online
inline constexpr uint32_t VX_PORTSUM_ALL = 0x1000;        // every port whatever its role and state
inline constexpr uint32_t VX_PORTSUM_MASK = 0x101F;

// Port database entry flags.
inline constexpr uint8_t VX_DEVCTL_TARGET = 0x01;
inline constexpr uint8_t VX_DEVCTL_INITIATOR = 0x02;
inline constexpr uint8_t VX_DEVCTL_FABRIC = 0x08;  // the port has a fabric address
inline constexpr uint32_t VX_DEVFLAG_ONLINE = 0x01;

// ---- Option ROM leaves (vx_core_optrom) ----
// `region` is a region code (0: the whole flash) or VX_REGION_RAW, for
// which `offset` and `optrom_size` are flash byte addresses. A read never
// moves more than `optrom_size` bytes into `poptrom`. The leaf convention:
// 0 on success, the driver's extended status in *pext_stat (2: busy after
// the retries).
int32_t vxapi_read_optrom(int handle, vxapi_priv_database* inst, uint8_t* poptrom, uint32_t optrom_size,
                          uint32_t region, uint32_t offset, uint32_t* pext_stat);
int32_t vxapi_update_optrom(int handle, vxapi_priv_database* inst, uint8_t* poptrom, uint32_t optrom_size,
                            uint32_t region, uint32_t offset, uint32_t* pext_stat);
// The alternative read of the boards with the maker's special subsystem id:
// the port's NVRAM image as the driver shows it.
int32_t vxapi_read_nvram_exp_edc(int handle, vxapi_priv_database* inst, uint8_t* poptrom, uint32_t optrom_size,
                                 uint32_t region, uint32_t offset, uint32_t* pext_stat);
// Sends a reset code (docs/adapters.md) to the port.
int32_t vxapi_activate_region(int handle, vxapi_priv_database* inst, uint32_t reset_code, uint32_t* pext_stat);
// Makes a written region live: its family's reset code on this port and on
// the board's other ports. An SD status (0x20000100 when an activation fails).
uint32_t vxapi_reset_region(uint32_t Device, vxapi_priv_database* inst, uint32_t Region);
// `len` bytes of raw flash at `offset` on the port whose descriptor is `handle`.
int vxapi_flash_read_at(int handle, vxapi_priv_database* inst, uint32_t offset, uint8_t* buf, uint32_t len,
                        uint32_t* pext_stat);
// The flash's erase sector in bytes as the driver reports it. 0 on success.
uint32_t vxapi_get_flash_sector_size(int handle, vxapi_priv_database* inst, uint32_t* pflash_sector_size);
// Sends and busy retries of one option-ROM request, and the wait between.
inline constexpr uint32_t VX_OPTROM_SENDS = 3;
inline constexpr unsigned VX_OPTROM_BUSY_SLEEP = 20;

// Where an option-ROM request lands in the flash.
struct vxapi_optrom_span {
    uint32_t offset;
    uint32_t size;
};
// Resolves `region` against the current layout (region 255 also against
// the adapter table): a read takes the region's start and at most
// `size` bytes of it, an update the region's start and all `size` bytes.
// VX_REGION_RAW keeps `offset` and `size`. 1 (traced under `fn`) for an
// unknown region, an empty span, or one that passes the end of the flash.
int vxapi_resolve_optrom_span(const char* fn, const vxapi_priv_database* inst, uint32_t region, uint32_t offset,
                              uint32_t size, bool update, vxapi_optrom_span* span);

// Online flash update mode (set while a flash update token is held).
extern uint8_t ofu_enabled;

// ---- Flash-update tokens (vx_core_fut) ----
// One token per adapter, kept in the shared file's token table (or, when
// OS_Type is VX_OS_ESX, in one file per adapter under /tmp). The token is
// the holder's process id; it lives VX_FUT_LIFETIME seconds.
inline constexpr int64_t VX_FUT_LIFETIME = 900;
inline constexpr size_t VX_FUT_ID_LEN = sizeof(vxapi_flash_update_token::serial_num);
inline constexpr size_t VX_FUT_PATH_LEN = 160;
extern char vx_fut_file_prefix[32];  // "/tmp/vxfu_"; writable so tests may move the files

// The adapter's identity in the token table: its serial number, which
// every port of the board shares; a board without one is named by its PCI
// location ("pci:DDDD:BB:DD"). Empty (and 1) when the record has no adapter.
int vxapi_fut_identity(const vxapi_priv_database* inst, char* out, size_t len);
// The expiry of a slot: two big-endian 32-bit halves, high half first.
int64_t vxapi_fut_expiry(const vxapi_flash_update_token& slot);
void vxapi_fut_set_expiry(vxapi_flash_update_token& slot, int64_t seconds);

// The table rules over one table at time `now`, without locking (pure).
// Each returns the slot index it acted on, or -1.
int vxapi_fut_table_live(const vxapi_flash_update_token* fut, const char* id, int64_t now);
int vxapi_fut_table_expired(const vxapi_flash_update_token* fut, const char* id, int64_t now);
int vxapi_fut_table_take(vxapi_flash_update_token* fut, const char* id, int32_t pid, int64_t now);
int vxapi_fut_table_clear(vxapi_flash_update_token* fut, const char* id, int32_t token);
// True when any slot holds a token that has not expired. Signal-safe.
bool vxapi_fut_any_live(const vxapi_flash_update_token* fut, int64_t now);

// The token calls: under the database lock, the mapping flushed before
// reading and after writing. Store chosen by OS_Type.
int32_t vxapi_is_fut_exist(vxapi_priv_database* api_priv_data_inst);            // 0: a live token exists
int32_t vxapi_get_fut(vxapi_priv_database* api_priv_data_inst, int32_t* ptoken);  // 0: taken
int32_t vxapi_is_fut_expired(vxapi_priv_database* api_priv_data_inst, int32_t token);  // 0: expired
int32_t vxapi_clear_fut(vxapi_priv_database* api_priv_data_inst, int32_t token);       // 0: freed
int32_t vxapi_is_fut_exist_esxi(vxapi_priv_database* api_priv_data_inst);
int32_t vxapi_get_fut_esxi(vxapi_priv_database* api_priv_data_inst, int32_t* ptoken);
int32_t vxapi_is_fut_expired_esxi(vxapi_priv_database* api_priv_data_inst, int32_t token);
int32_t vxapi_clear_fut_esxi(vxapi_priv_database* api_priv_data_inst, int32_t token);

// The check for a live token and the take in one hold of the database
// lock, so that of two processes starting an update only one gets it.
enum class vxapi_fut_take_result { taken, held, failed };
vxapi_fut_take_result vxapi_take_fut(vxapi_priv_database* inst, int32_t* ptoken);
// The live token of the adapter: its holder and the seconds it has left.
// 0 when one exists, else 1.
int32_t vxapi_fut_holder(vxapi_priv_database* inst, int32_t* pholder, int64_t* pseconds_left);

// ---- Driver module parameters (vx_core_modparam) ----
// Writable so that tests may move them.
extern char vx_modparam_dir[64];    // "/sys/module/vxfcdrv/parameters/"
extern char vx_modprobe_conf[64];   // "/etc/modprobe.d/vxfcdrv.conf"
inline constexpr size_t VX_MODPARAM_CONF_LINE = 256;
// True for a name that stays inside the parameter directory: not empty, at
// most VX_MODPARAM_NAME_MAX characters, no "/" and no "..".
bool vxapi_module_param_name_ok(const char* param);
// *pext_stat: 0 done, 1 a read or write failed, 6 a bad name, 20 no such
// parameter. 0 on success, else 1.
int32_t vxapi_get_driver_module_param(const char* param, uint32_t* pvalue, uint32_t* pext_stat);
int32_t vxapi_set_driver_module_param(const char* param, uint32_t value, uint32_t* pext_stat);
int32_t vxapi_set_driver_module_param_conf(const char* param, uint32_t value, uint32_t* pext_stat);
inline constexpr size_t VX_MODPARAM_NAME_MAX = 64;
// Room for a first line, a blank, a name and "=<value>\n".
inline constexpr size_t VX_MODPARAM_LINE_CAP = VX_MODPARAM_CONF_LINE + VX_MODPARAM_NAME_MAX + 16;
// Rewrites the configuration file's first line (a zero-terminated text in
// `line`, VX_MODPARAM_LINE_CAP bytes) for `param` = `value` by the
// one-digit flag rule; pure. Returns the new length.
size_t vxapi_module_param_conf_line(char* line, const char* param, uint32_t value);

// ---- Flash steps of the property calls (vx_core_flash) ----
// Refreshes the boot-image versions of a node record from the adapter's flash.
int vxapi_read_flash_versions(int handle, vxapi_priv_database* inst, EXT_HBA_NODE* node, uint32_t* pext_stat);
// The node record's boot-image versions, refreshed from flash on the boards
// whose ioctl driver does not keep them current (a virtual port reads its
// physical port's flash). Nothing on the sysfs channel or other boards.
void vxapi_refresh_node_boot_versions(vxapi_priv_database* inst, EXT_HBA_NODE* node);
// The MPI and PEP firmware versions kept in flash (3 bytes each).
int vxapi_get_flash_mpi_pep_versions(uint32_t handle, vxapi_priv_database* inst, uint8_t* mpi_ver, uint8_t* pep_ver);
// DCBX parameters of a converged port into `size` bytes of `buf`
// (EXT_DCBX_PARAM, then the peer's TLVs). The leaf convention.
int32_t vxapi_get_dcbx_param(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t size,
                             uint32_t* pext_stat);
// The FCoE component versions as an ADAPTERREGIONVERSION of `size` bytes.
int vxapi_copy_fcoe_versions(vxapi_priv_database* inst, uint8_t* buf, uint32_t size);
