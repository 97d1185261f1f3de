// Extended-ioctl channel: the driver's character nodes and how they are
// made, opening a port on them, and adapter discovery through both record
// generations; also the control node that sysfs hosts keep open.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "exioctln.h"
#include "vx_adapters.h"
#include "vx_channel.h"
#include "vx_core.h"
#include "vx_sddbg.h"
#include "vx_sysfs.h"

int api_apidev_fd = -1;

namespace {

constexpr uint32_t TRC = VXDBG_TRACE;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_TRACE;
constexpr const char* APIDEV_NAME = "vxfcapidev";
constexpr const char* APIDEV_PATH = "/dev/vxfcapidev";
constexpr const char* PROC_DEVICES = "/proc/devices";
constexpr const char* ESX_NODE_DIR = "/dev/char/vmkdriver/";
constexpr const char* ESX_OLD_NODE = "/dev/char/vmkdriver/HbaApiDev";

constexpr size_t PROC_DEVICES_LINE = 100;
constexpr uint32_t CAPS_LEN = 32;
constexpr size_t HP_SERIAL_LEN = sizeof(EXT_HBA_NODE::Reserved);  // the text fills the last 8 bytes

void trace_path(uint32_t guard, const char* text, const char* path) {
    if (vxdbg_on(guard)) {
        vxdbg_print(text, 0, VXDBG_NONE, 0);
        vxdbg_print(path, 0, VXDBG_NONE, 1);
    }
}

// "<fn>(<inst>)<text>", optionally followed by one number.
void trace_inst(uint32_t guard, const char* fn, uint32_t inst, const char* text) {
    if (vxdbg_on(guard)) {
        vxdbg_print(fn, 0, VXDBG_NONE, 0);
        vxdbg_print("(", inst, VXDBG_DEC, 0);
        vxdbg_print(text, 0, VXDBG_NONE, 1);
    }
}

void trace_inst_num(uint32_t guard, const char* fn, uint32_t inst, const char* text, uint64_t number) {
    if (vxdbg_on(guard)) {
        vxdbg_print(fn, 0, VXDBG_NONE, 0);
        vxdbg_print("(", inst, VXDBG_DEC, 0);
        vxdbg_print(text, number, VXDBG_DEC, 1);
    }
}

// "<fn>(<inst>)<text><stat> errno=<errno>": a failed request of discovery.
void trace_request_failed(const char* fn, uint32_t inst, const char* text, uint32_t stat, int err) {
    if (vxdbg_on(ERR)) {
        vxdbg_print(fn, 0, VXDBG_NONE, 0);
        vxdbg_print("(", inst, VXDBG_DEC, 0);
        vxdbg_print(text, stat, VXDBG_DEC, 0);
        vxdbg_print(" errno=", static_cast<uint64_t>(err), VXDBG_DEC, 1);
    }
}

bool node_matches(int fd, uint32_t major_no, uint32_t minor_no) {
    struct stat st {};
    return fstat(fd, &st) == 0 && S_ISCHR(st.st_mode) && major(st.st_rdev) == major_no &&
           minor(st.st_rdev) == minor_no;
}

// Opens the node read-write without following a link (a link is replaced
// by a node of our own, never opened through).
int open_node(const char* path) { return open(path, O_RDWR | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW); }

// ---- Requests without buffers: count and instance selection ----

struct control_answer {
    uint32_t status = 0;
    uint16_t instance = 0;    // EXT_CC_GET_HBA_CNT: the adapter count
    uint16_t hba_select = 0;  // EXT_CC_SET_INSTANCE: the host number
};

// One request without buffers; its answer comes back in the record itself.
int control_request(int fd, const vxapi_priv_database* record, uint8_t command, uint16_t instance,
                    control_answer* out) {
    vxapi_ext_answer answer{};
    const int rc =
        vxapi_send_ext_ioctl(fd, record, command, 0, instance, nullptr, 0, nullptr, 0, &out->status, nullptr, &answer);
    out->instance = answer.instance;
    out->hba_select = answer.hba_select;
    return rc;
}

int open_device(const char* fn, bool older, const char* path, uint32_t drvr_inst, uint32_t inst, uint32_t* hba_cnt,
                vxapi_priv_database* record) {
    if (!path || !hba_cnt || !record)
        return 1;
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        const int saved = errno;
        if (older)
            trace_inst_num(ERR, fn, inst, "): HbaApiNode open error. errno=", static_cast<uint64_t>(saved));
        else
            trace_inst(ERR, fn, inst, "): HbaApiNode open error.");
        errno = saved;
        return 1;
    }
    auto fail = [fd]() {
        const int saved = errno;
        close(fd);
        errno = saved;
        return 1;
    };
    control_answer answer;
    if (control_request(fd, record, EXT_CC_GET_HBA_CNT, 0, &answer) != 0) {
        trace_inst_num(ERR, fn, inst, "): CC_GET_HBA_CNT ioctl failed. errno=", static_cast<uint64_t>(errno));
        return fail();
    }
    if (answer.status != 0) {
        trace_inst(ERR, fn, inst, "): EXT_CC_GET_HBA_CNT ERROR.");
        return fail();
    }
    *hba_cnt = answer.instance;
    trace_inst_num(TRC, fn, inst, "): CC_GET_HBA_CNT ioctl returned hba cnt=", answer.instance);
    if (inst >= answer.instance) {
        trace_inst_num(ERR, fn, inst, "): invalid instance. Total inst = ", answer.instance);
        return fail();
    }
    uint32_t host_no = 0, stat = 0;
    if (vxapi_set_instance(fd, drvr_inst, record, &host_no, &stat) != 0 || stat != 0)
        return fail();
    record->oshandle = fd;
    record->host_no = host_no;
    if (vxdbg_on(TRC)) {
        vxdbg_print(fn, 0, VXDBG_NONE, 0);
        vxdbg_print(": inst ", inst, VXDBG_DEC, 0);
        vxdbg_print(" setinstance success.", 0, VXDBG_NONE, 1);
    }
    return 0;
}

void close_node(vxapi_priv_database* record) {
    if (record->oshandle >= 0)
        close(record->oshandle);
    record->oshandle = -1;
}

// ---- Discovery of one port on an open node ----

// What the two generations do differently; the texts are each one's own.
struct generation {
    const char* fn;
    bool older;
    const char* node_failed;  // the node query's failure text
};

constexpr generation NEWER{"vxapi_find_all_instances_n", false, "): query ioctl failed. stat="};
constexpr generation OLDER{"vxapi_find_all_instances_o", true, "): ioctl failed. stat="};

// The newer driver is asked for its ports by index and may list boards that
// this library does not drive; the older driver lists only its own ports,
// every one of which is kept.
bool served(const generation& g, uint16_t device_id) { return g.older || vx_adapter_lookup(device_id) != nullptr; }

enum class port_result { accepted, dropped, unsupported, out_of_memory };

// The adapter record's location from the chip record: domain, bus and
// (slot << 3 | function), the form sysfs discovery stores.
vxapi_phy_info pci_location(const EXT_CHIP& chip) {
    vxapi_phy_info pci{};
    pci.pci_domain = chip.DomainNr;
    pci.pci_bus = chip.PciBusNumber;
    pci.pci_dev_func = static_cast<uint16_t>(((chip.PciSlotNumber << 3) & 0xF8) | (chip.PciDevFunc & 0x07));
    return pci;
}

void set_serial(vxapi_phy_info* phy, const char* text) {
    memset(phy->serial_num, 0, sizeof phy->serial_num);
    snprintf(reinterpret_cast<char*>(phy->serial_num), sizeof phy->serial_num, "%s", text);
}

// Adapter-wide facts, read once per adapter function through its physical port.
void adapter_facts(const generation& g, vxapi_priv_database* rec, const EXT_HBA_NODE& node, uint32_t inst) {
    vxapi_phy_info* phy = rec->phy_info;
    const uint16_t id = phy->device_id;
    // The older generation sets a layout for every adapter, the newer only
    // for the families that keep a layout table in flash.
    if ((g.older || vx_adapter_has(id, VX_MARK_FLT)) && vxapi_set_option_rom_layout(0, rec) != 0) {
        if (vxdbg_on(ERR)) {
            vxdbg_print(g.fn, 0, VXDBG_NONE, 0);
            vxdbg_print(": set option rom layout failed.", 0, VXDBG_NONE, 1);
        }
    }

    char serial[32];
    if (vx_adapter_has(id, VX_MARK_NEWER)) {
        if (vxapi_get_vpd_serialnum(rec->oshandle, rec) != 0) {
            trace_inst(ERR, g.fn, inst, "): get_vpd_serialnum failed; calculating serialnum.");
            vxapi_calc_serialnum(node.SerialNum, 0x3F, serial, sizeof serial);
            set_serial(phy, serial);
        }
    } else {
        if (g.older)
            vxapi_calc_serialnum(node.SerialNum, 0x1F, serial, sizeof serial);
        else
            vxapi_node_serialnum(&node, phy->ssvendor_id, phy->ssdevice_id, serial, sizeof serial);
        set_serial(phy, serial);
    }
    vxapi_fill_phy_port_number(rec);

    uint32_t stat = 0;
    if (vx_adapter_has(id, VX_MARK_ADAPTER_VERSIONS))
        vxapi_query_adapter_versions(0, rec, &stat);
    if (vx_adapter_has(id, VX_MARK_MPI_EDC)) {
        vxapi_get_flash_mpi_edc_versions(0, rec, &stat);
        vxapi_get_nic_bootcode_version(0, rec, &stat);
    }
    if (g.older)
        return;
    if (vx_adapter_has(id, VX_MARK_ACTIVE_IMAGE))
        vxapi_get_active_image_set(0, rec, &stat);
    uint8_t caps[CAPS_LEN] = {};
    stat = 0;
    if (vxapi_flash_update_capabilities(0, rec, caps, sizeof caps, 0, &stat) != 0 || stat != 0)
        trace_request_failed(g.fn, inst, "): get caps ioctl failed. stat=", stat, errno);
    else
        memcpy(&phy->running_fw_attributes, caps, sizeof phy->running_fw_attributes);
}

// A new adapter record for the physical port `rec`.
port_result make_adapter(const generation& g, vxapi_priv_database* rec, const EXT_HBA_NODE& node,
                         const EXT_CHIP& chip, const vxapi_phy_info& pci, uint32_t inst) {
    uint32_t err = 0;
    if (vxapi_alloc_api_phy_info_mem(&err) != 0) {
        if (vxdbg_on(ERR)) {
            vxdbg_print(g.fn, 0, VXDBG_NONE, 0);
            vxdbg_print(": phy port mem alloc failed, exiting", 0, VXDBG_NONE, 1);
        }
        return port_result::out_of_memory;
    }
    vxapi_phy_info* phy = current_phy_info_inst;
    rec->phy_info = phy;
    // The model text fills the record's 16 bytes; readers bound it.
    memcpy(phy->model, node.Model, sizeof phy->model);
    phy->vendor_id = chip.VendorId;
    phy->device_id = chip.DeviceId;
    phy->ssvendor_id = chip.SubVendorId;
    phy->ssdevice_id = chip.SubSystemId;
    phy->pci_domain = pci.pci_domain;
    phy->pci_bus = pci.pci_bus;
    phy->pci_dev_func = pci.pci_dev_func;
    if (!served(g, phy->device_id)) {
        trace_inst_num(ERR, g.fn, inst, "): device id not supported. device_id=", phy->device_id);
        return port_result::unsupported;
    }
    adapter_facts(g, rec, node, inst);
    return port_result::accepted;
}

port_result discover_port(const generation& g, vxapi_priv_database* rec, uint32_t inst) {
    const int fd = rec->oshandle;
    EXT_LN_DRIVER_DATA drv{};
    uint32_t stat = 0;
    const int drc = vxapi_get_driver_specifics(fd, rec, &drv, &stat);
    if (drc != 0 || stat != 0) {
        if (vxdbg_on(ERR)) {
            vxdbg_print(g.fn, 0, VXDBG_NONE, 0);
            vxdbg_print(": inst ", inst, VXDBG_DEC, 0);
            vxdbg_print(" specifics ioctl failed. stat=", stat, VXDBG_DEC, 0);
            vxdbg_print(" ret_ioctl=", static_cast<uint32_t>(drc), VXDBG_INT, 1);
        }
        // Nothing known about the driver: its capability bits are not taken.
        memset(&drv, 0, sizeof drv);
    } else if (vxdbg_on(TRC)) {
        vxdbg_print(g.fn, 0, VXDBG_NONE, 0);
        vxdbg_print(": inst ", inst, VXDBG_DEC, 0);
        vxdbg_print(" got driver version=", drv.DrvVer.Major, VXDBG_DEC, 0);
        vxdbg_print(".", drv.DrvVer.Minor, VXDBG_DEC, 0);
        vxdbg_print(".", drv.DrvVer.Patch, VXDBG_DEC, 1);
    }

    EXT_HBA_NODE node{};
    stat = 0;
    if (vxapi_query_hbanode(fd, rec, &node, &stat) != 0 || stat != 0) {
        trace_request_failed(g.fn, inst, g.node_failed, stat, errno);
        return port_result::dropped;
    }
    EXT_HBA_PORT port{};
    stat = 0;
    if (vxapi_query_hbaport(fd, rec, &port, &stat) != 0 || stat != 0) {
        trace_request_failed(g.fn, inst, "): hbaport ioctl failed. stat=", stat, errno);
        return port_result::dropped;
    }
    EXT_CHIP chip{};
    stat = 0;
    if (vxapi_query_chip(fd, rec, &chip, &stat) != 0 || stat != 0) {
        trace_request_failed(g.fn, inst, "): chip ioctl failed. stat=", stat, errno);
        return port_result::dropped;
    }

    memcpy(rec->wwnn, node.WWNN, sizeof rec->wwnn);
    memcpy(rec->wwpn, port.WWPN, sizeof rec->wwpn);
    memcpy(rec->port_id, port.Id, sizeof rec->port_id);
    rec->drvr_attr = node.DriverAttr;
    rec->topology = port.Topology;
    rec->state = port.State;
    rec->interface_type = node.InterfaceType == VX_IFTYPE_VIRTUAL ? VX_IFTYPE_VIRTUAL : VX_IFTYPE_PHYSICAL;

    const vxapi_phy_info pci = pci_location(chip);
    if (rec->interface_type == VX_IFTYPE_VIRTUAL) {
        vxapi_phy_info* phy = vxapi_get_api_phy_info_inst(&pci);
        if (!phy) {
            if (vxdbg_on(ERR)) {
                vxdbg_print(g.fn, 0, VXDBG_NONE, 0);
                vxdbg_print(": get phy info failed for vport", 0, VXDBG_NONE, 1);
            }
            return port_result::dropped;
        }
        rec->phy_info = phy;
        vxapi_priv_database* parent = vxapi_get_phy_port_from_vport(rec);
        if (!parent) {
            if (vxdbg_on(ERR)) {
                vxdbg_print(g.fn, 0, VXDBG_NONE, 0);
                vxdbg_print(": get phy port failed for vport", 0, VXDBG_NONE, 1);
            }
            return port_result::dropped;
        }
        rec->parent = parent;
        // Adapter-wide facts belong to the physical port: a virtual port
        // would renumber and overwrite the record it shares.
    } else if (vxapi_phy_info* known = g.older && api_phy_info ? vxapi_get_api_phy_info_inst(&pci) : nullptr) {
        // The older driver may list a function twice; its record is shared.
        rec->phy_info = known;
    } else {
        const port_result made = make_adapter(g, rec, node, chip, pci, inst);
        if (made != port_result::accepted)
            return made;
    }

    rec->features |= VX_FEAT_PROPS_READ;
    // Only the newer generation's driver data carries capability flags.
    if (!g.older)
        vxapi_apply_driver_caps(rec, &drv);
    return port_result::accepted;
}

// One line per accepted port, with what discovery decided about it.
void trace_port(const generation& g, const vxapi_priv_database* rec, uint32_t inst) {
    if (!vxdbg_on(TRC))
        return;
    vxdbg_print(g.fn, 0, VXDBG_NONE, 0);
    vxdbg_print(": added host_no=", rec->host_no, VXDBG_DEC, 0);
    vxdbg_print(" instance=", inst, VXDBG_DEC, 0);
    vxdbg_print(" drvr_inst=", rec->drvr_inst, VXDBG_DEC, 0);
    vxdbg_print(" interface_type=", rec->interface_type, VXDBG_DEC, 0);
    vxdbg_print(" features=", rec->features, VXDBG_HEX, 1);
    if (rec->interface_type == VX_IFTYPE_PHYSICAL && rec->phy_info) {
        char serial[sizeof rec->phy_info->serial_num + 1] = {};
        memcpy(serial, rec->phy_info->serial_num, sizeof rec->phy_info->serial_num);
        vxdbg_print(g.fn, 0, VXDBG_NONE, 0);
        vxdbg_print(": adapter device_id=", rec->phy_info->device_id, VXDBG_HEX, 0);
        vxdbg_print(" port_number=", rec->phy_info->port_number, VXDBG_DEC, 0);
        vxdbg_print(" serial_num=", 0, VXDBG_NONE, 0);
        vxdbg_print(serial, 0, VXDBG_NONE, 1);
    }
}

void free_all() {
    vxapi_free_api_priv_data_mem();
    vxapi_free_api_phy_info_mem();
}

// Drops a port that was not accepted; unsupported ports take their new
// adapter record with them.
void drop_port(vxapi_priv_database* rec, port_result result) {
    vxapi_phy_info* phy = rec->phy_info;
    vxapi_free_api_priv_data_element(rec);
    if (result == port_result::unsupported)
        vxapi_free_api_phy_info_element(phy);
}

void trace_found(const char* fn, uint32_t count, int ret) {
    if (vxdbg_on(TRC)) {
        vxdbg_print(fn, 0, VXDBG_NONE, 0);
        vxdbg_print(": found ", count, VXDBG_DEC, 0);
        vxdbg_print(" instances. exiting. ret = ", static_cast<uint64_t>(ret), VXDBG_DEC, 1);
    }
}

bool alloc_port(const char* fn, uint32_t features) {
    uint32_t err = 0;
    if (vxapi_alloc_api_priv_data_mem(&err) == 0) {
        current_priv_inst->features = features;
        vxapi_set_channel(current_priv_inst);
        return true;
    }
    if (vxdbg_on(ERR)) {
        vxdbg_print(fn, 0, VXDBG_NONE, 0);
        vxdbg_print(": mem alloc failed, exiting", 0, VXDBG_NONE, 1);
    }
    free_all();
    return false;
}

// One transient driver error would silently cost the port: its queries are
// asked once more, and a port that fails twice is traced as lost.
port_result discover_port_retried(const generation& g, vxapi_priv_database* rec, uint32_t inst, uint32_t index) {
    port_result result = discover_port(g, rec, inst);
    if (result != port_result::dropped)
        return result;
    result = discover_port(g, rec, inst);
    if (result == port_result::dropped && vxdbg_on(ERR)) {
        vxdbg_print(g.fn, 0, VXDBG_NONE, 0);
        vxdbg_print(": inst ", inst, VXDBG_DEC, 0);
        vxdbg_print(" index ", index, VXDBG_DEC, 0);
        vxdbg_print(": port lost, its queries failed twice.", 0, VXDBG_NONE, 1);
    }
    return result;
}

}  // namespace

// ---- Pure steps ----

void vxapi_calc_serialnum(const uint8_t* serial3, uint8_t mask, char* out, size_t out_len) {
    if (!out || out_len == 0)
        return;
    if (!serial3) {
        out[0] = '\0';
        return;
    }
    const uint32_t n = static_cast<uint32_t>(serial3[0] & mask) * 65536 + static_cast<uint32_t>(serial3[2]) * 256 +
                       serial3[1];
    snprintf(out, out_len, "%c%05u", static_cast<char>('A' + n / 100000), n % 100000);
}

void vxapi_node_serialnum(const EXT_HBA_NODE* node, uint16_t ssvendor_id, uint16_t ssdevice_id, char* out,
                          size_t out_len) {
    if (!out || out_len == 0)
        return;
    if (!node) {
        out[0] = '\0';
        return;
    }
    if (vx_is_hp_subsystem(ssvendor_id, ssdevice_id)) {
        // The text may fill all 8 bytes without a terminator.
        char text[HP_SERIAL_LEN + 1] = {};
        memcpy(text, node->Reserved, HP_SERIAL_LEN);
        snprintf(out, out_len, "%s", text);
        return;
    }
    vxapi_calc_serialnum(node->SerialNum, 0x1F, out, out_len);
}

bool vxapi_driver_caps_usable(uint8_t major_no, uint8_t minor_no, uint8_t patch) {
    if (major_no < 7)
        return false;
    if (major_no == 7)
        return !(minor_no < 7 || (minor_no == 7 && patch < 6));
    if (major_no == 8)
        return !(minor_no == 0 || (minor_no == 1 && patch < 7));
    return true;
}

void vxapi_apply_driver_caps(vxapi_priv_database* record, const EXT_LN_DRIVER_DATA* data) {
    if (!record || !data || is_vioctlmod_loaded ||
        !vxapi_driver_caps_usable(data->DrvVer.Major, data->DrvVer.Minor, data->DrvVer.Patch))
        return;
    auto mirror = [record](uint32_t feature, bool on) {
        if (on)
            record->features |= feature;
        else
            record->features &= ~feature;
    };
    mirror(VX_FEAT_DRV_CAP4, data->Flags & EXT_DRIVER_FLAG_CAP4);
    mirror(VX_FEAT_DRV_CAP8, data->Flags & EXT_DRIVER_FLAG_CAP8);
}

// ---- The character node ----

int vxapi_charnode_numbers(const char* dev_attr, const char* proc_devices, const char* driver, uint32_t* major_no,
                           uint32_t* minor_no) {
    if (!dev_attr || !proc_devices || !driver || !major_no || !minor_no)
        return 1;
    if (FILE* fp = fopen(dev_attr, "re")) {
        char text[32] = {};
        const bool read_ok = fgets(text, sizeof text, fp) != nullptr;
        fclose(fp);
        int maj = -1, min = -1;
        if (!read_ok || sscanf(text, "%d:%d", &maj, &min) != 2 || maj < 0 || min < 0)
            return 1;
        *major_no = static_cast<uint32_t>(maj);
        *minor_no = static_cast<uint32_t>(min);
        return 0;
    }
    FILE* fp = fopen(proc_devices, "re");
    if (!fp)
        return 2;
    bool found = false;
    char line[PROC_DEVICES_LINE + 1];
    while (fgets(line, sizeof line, fp)) {
        if (strstr(line, driver)) {
            *major_no = static_cast<uint32_t>(strtoul(line, nullptr, 10));
            found = true;
        }
    }
    fclose(fp);
    *minor_no = 0;
    return found ? 0 : 1;
}

int vxapi_charnode_make(const char* path, uint32_t major_no, uint32_t minor_no) {
    if (!path)
        return 1;
    int fd = open_node(path);
    if (fd >= 0) {
        const bool matches = node_matches(fd, major_no, minor_no);
        close(fd);
        if (matches) {
            trace_path(TRC, "vxapi_charnode_exist: char file exists and matches for ", path);
            return 0;
        }
    }
    // Missing or stale (left from another driver or numbering): make it
    // anew. unlink removes a link itself, never what it points to.
    unlink(path);
    if (major_no == 0 && minor_no == 0) {
        trace_path(ERR, "vxapi_charnode_exist: makedev failed for ", path);
        return 1;
    }
    // The driver's numbers in the old encoding, as its nodes were always made.
    const dev_t number = static_cast<dev_t>(major_no) * 256 + minor_no;
    if (mknod(path, S_IFCHR | 0600, number) != 0) {
        trace_path(ERR, "vxapi_charnode_exist: mknod failed for ", path);
        return 1;
    }
    fd = open_node(path);
    if (fd < 0) {
        trace_path(ERR, "vxapi_charnode_exist: cannot open created node ", path);
        return 1;
    }
    close(fd);
    trace_path(TRC, "vxapi_charnode_exist: char file created for ", path);
    return 0;
}

int vxapi_charnode_exist(char* path, size_t path_size, const char* driver) {
    if (!path || !driver || path_size == 0)
        return 1;
    char root[VXSYSFS_PATH_LEN];
    vxsysfs_root(root, sizeof root);
    char dev_attr[VXSYSFS_PATH_LEN + 64];
    snprintf(dev_attr, sizeof dev_attr, "%s/class/%s/%s/dev", root, driver, driver);
    uint32_t major_no = 0, minor_no = 0;
    const int found = vxapi_charnode_numbers(dev_attr, PROC_DEVICES, driver, &major_no, &minor_no);
    if (found == 2) {
        // No /proc/devices: the service console names its driver nodes here.
        char esx_path[96];
        snprintf(esx_path, sizeof esx_path, "%s%s", ESX_NODE_DIR, driver);
        const int fd = open(esx_path, O_RDWR | O_CLOEXEC);
        if (fd < 0)
            return 1;
        close(fd);
        if (OS_Type != VX_OS_ESX)
            return 1;
        snprintf(path, path_size, "%s", esx_path);
        return 0;
    }
    if (found != 0)
        return 1;
    return vxapi_charnode_make(path, major_no, minor_no);
}

// ---- Opening a port on a node ----

int vxapi_set_instance(int fd, uint32_t drvr_inst, const vxapi_priv_database* record, uint32_t* host_no,
                       uint32_t* pext_stat) {
    uint32_t local_stat = 0;
    uint32_t& ext_stat = pext_stat ? *pext_stat : local_stat;
    if (!record || !host_no) {
        ext_stat = EXT_STATUS_DEV_NOT_FOUND;
        return 1;
    }
    control_answer answer;
    const int rc = control_request(fd, record, EXT_CC_SET_INSTANCE, static_cast<uint16_t>(drvr_inst), &answer);
    ext_stat = answer.status;
    if (rc != 0 || answer.status != 0) {
        const int saved = errno;
        if (vxdbg_on(ERR)) {
            vxdbg_print("vxapi_set_instance: failed. inst=", drvr_inst, VXDBG_DEC, 0);
            vxdbg_print(" stat=", answer.status, VXDBG_DEC, 0);
            vxdbg_print(" errno=", rc != 0 ? static_cast<uint64_t>(saved) : 0, VXDBG_DEC, 1);
        }
        errno = saved;
        return rc;
    }
    *host_no = answer.hba_select;
    vxdbg_num(TRC, "vxapi_set_instance: host_no=", *host_no, VXDBG_DEC, 1);
    return 0;
}

int vxapi_open_device_n(const char* path, uint32_t drvr_inst, uint32_t inst, uint32_t* hba_cnt,
                        vxapi_priv_database* record) {
    return open_device("vxapi_open_device_n", false, path, drvr_inst, inst, hba_cnt, record);
}

int vxapi_open_device_o(const char* path, uint32_t drvr_inst, uint32_t inst, uint32_t* hba_cnt,
                        vxapi_priv_database* record) {
    return open_device("vxapi_open_device_o", true, path, drvr_inst, inst, hba_cnt, record);
}

int32_t vxapi_ioctl_get_driver_specifics(int handle, vxapi_priv_database* inst, EXT_LN_DRIVER_DATA* data,
                                         uint32_t* pext_stat) {
    return vxapi_send_ext_ioctl(handle, inst, EXT_CC_DRIVER_SPECIFICS, 0, 0, nullptr, 0, data, sizeof *data, pext_stat,
                                nullptr);
}

int vxapi_get_driver_specifics(int handle, vxapi_priv_database* inst, EXT_LN_DRIVER_DATA* data, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_get_driver_specifics", inst, data, pext_stat))
        return 1;
    return inst->channel->get_driver_specifics(handle, inst, data, pext_stat);
}

// ---- Discovery ----

int vxapi_find_all_instances_n(const char* driver, uint32_t* count) {
    const generation& g = NEWER;
    if (!driver || !count)
        return 1;
    trace_path(TRC, "vxapi_find_all_instances_n: entered. driver=", driver);
    char path[sizeof(vxapi_priv_database::phys_path)];
    snprintf(path, sizeof path, "/dev/%s", driver);
    if (vxapi_charnode_exist(path, sizeof path, driver) != 0) {
        trace_path(TRC, "vxapi_find_all_instances_n: not found: ", path);
        return 1;
    }

    // `inst` counts the ports kept, `index` walks the driver's adapter
    // indexes; an index the driver cannot select is skipped, not fatal.
    uint32_t inst = 0, index = 0, adapter_cnt = VX_IOCTL_MAX_INDEX;
    while (inst < adapter_cnt && index < VX_IOCTL_MAX_INDEX) {
        if (!alloc_port(g.fn, VX_FEAT_IOCTL_NODE | VX_FEAT_NEW_IOCTL))
            return 1;
        vxapi_priv_database* rec = current_priv_inst;
        rec->drvr_inst = index;
        uint32_t hba_cnt = adapter_cnt;
        const int opened = vxapi_open_device_n(path, index, inst, &hba_cnt, rec);
        if (inst == 0)
            adapter_cnt = hba_cnt;
        if (opened != 0 || rec->oshandle < 0) {
            vxapi_free_api_priv_data_element(rec);
            ++index;
            continue;
        }
        snprintf(reinterpret_cast<char*>(rec->phys_path), sizeof rec->phys_path, "%s", path);

        const port_result result = discover_port_retried(g, rec, inst, index);
        // Discovery keeps no node open: vxapi_open_adapter reopens it.
        close_node(rec);
        switch (result) {
        case port_result::accepted:
            trace_port(g, rec, inst);
            ++inst;
            break;
        case port_result::unsupported:
            --adapter_cnt;  // the driver counted it, we never keep it
            drop_port(rec, result);
            break;
        case port_result::dropped:
            drop_port(rec, result);
            break;
        case port_result::out_of_memory:
            free_all();
            return 1;
        }
        ++index;
    }
    *count = inst;
    trace_found(g.fn, inst, 0);
    return 0;
}

int vxapi_find_all_instances_o(const char* driver, uint32_t* count) {
    const generation& g = OLDER;
    if (!driver || !count)
        return 1;
    trace_path(TRC, "vxapi_find_all_instances_o: entered. driver=", driver);
    char path[sizeof(vxapi_priv_database::phys_path)];
    if (OS_Type == VX_OS_ESX)
        snprintf(path, sizeof path, "%s", ESX_OLD_NODE);
    else
        snprintf(path, sizeof path, "/proc/scsi/%s/HbaApiNode", driver);

    uint32_t kept = 0, inst = 0, hba_cnt = 0;
    do {
        if (!alloc_port(g.fn, VX_FEAT_IOCTL_NODE))
            return 1;
        vxapi_priv_database* rec = current_priv_inst;
        rec->drvr_inst = inst;
        if (vxapi_open_device_o(path, inst, inst, &hba_cnt, rec) != 0) {
            if (vxdbg_on(TRC | ERR)) {
                vxdbg_print(g.fn, 0, VXDBG_NONE, 0);
                vxdbg_print(": device open failed, errno=", static_cast<uint64_t>(errno), VXDBG_DEC, 1);
            }
            free_all();
            return 1;
        }
        snprintf(reinterpret_cast<char*>(rec->phys_path), sizeof rec->phys_path, "%s", path);

        const port_result result = discover_port_retried(g, rec, kept, inst);
        close_node(rec);
        if (result == port_result::out_of_memory) {
            free_all();
            return 1;
        }
        if (result == port_result::accepted) {
            trace_port(g, rec, kept);
            ++kept;
        } else {
            drop_port(rec, result);
        }
        ++inst;
    } while (inst < hba_cnt);
    *count = kept;
    trace_found(g.fn, kept, 0);
    return 0;
}

// ---- The control node ----

// The control node "/dev/vxfcapidev" is a character node the driver
// registers as class "vxfcapidev"; its numbers come from
// /sys/class/vxfcapidev/vxfcapidev/dev and it is made and checked like the
// ioctl node. Hosts reached through sysfs keep it open while loaded.
int vxapi_open_apidev() {
    vxdbg_line(TRC, "vxapi_open_apidev: entered.");
    if (api_apidev_fd >= 0)
        return 0;
    char path[64];
    snprintf(path, sizeof path, "%s", APIDEV_PATH);
    if (vxapi_charnode_exist(path, sizeof path, APIDEV_NAME) != 0) {
        trace_path(ERR, "vxapi_open_apidev: not found: ", path);
        return 1;
    }
    const int fd = open(path, O_RDWR | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        vxdbg_num(ERR, "vxapi_open_apidev: open failed. errno=", static_cast<uint64_t>(errno), VXDBG_DEC, 1);
        return 1;
    }
    api_apidev_fd = fd;
    vxdbg_num(TRC, "vxapi_open_apidev: exiting. fd=", static_cast<uint64_t>(fd), VXDBG_DEC, 1);
    return 0;
}

void vxapi_close_apidev() {
    if (api_apidev_fd >= 0) {
        close(api_apidev_fd);
        api_apidev_fd = -1;
    }
}
