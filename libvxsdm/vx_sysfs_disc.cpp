// sysfs adapter discovery: the PCI functions bound to the drivers we serve,
// the SCSI hosts each carries (its physical port and the hosts of its NPIV
// virtual ports), one instance record per host, and the virtual-port ids.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vx_adapters.h"
#include "vx_channel.h"
#include "vx_sddbg.h"
#include "vx_sysfs.h"

const char* const driver_names[6] = {"vxfcdrb", "vxfcdrc", "vxfcdrd", "vxfcdre", "vxfcdrf", "vxfcdrv"};
Dlist* host_no_list;

namespace {

constexpr uint32_t TRC = VXDBG_TRACE | VXDBG_SYSFS;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_SYSFS;

constexpr uint32_t VPORT_IDS = 512;
constexpr uint32_t CAPS_LEN = 32;

void trace_named(uint32_t guard, const char* text, const char* name) {
    if (!vxdbg_on(guard))
        return;
    vxdbg_print(text, 0, VXDBG_NONE, 0);
    vxdbg_print(name, 0, VXDBG_NONE, 1);
}

void destroy_host_list() {
    if (host_no_list) {
        dlist_destroy(host_no_list);
        host_no_list = nullptr;
    }
}

bool starts_with(const char* text, const char* prefix) { return strncmp(text, prefix, strlen(prefix)) == 0; }

// A host-class attribute of host N: "{mnt}/class/<class>/host{N}/<name>".
void host_attr(vxsysfs_path_t& path, bool fc, uint32_t host_no, const char* name) {
    char* end = fc ? vxsysfs_get_fc_host_path(path, static_cast<uint16_t>(host_no))
                   : vxsysfs_get_scsi_host_path(path, static_cast<uint16_t>(host_no));
    vxsysfs_path_append(path, end, name);
}

struct link_state_row {
    const char* text;
    uint16_t topology;
};

constexpr link_state_row link_states[] = {
    {"Link Up - F_Port", 8},
    {"Link Up - FL_Port", 4},
    {"Link Up - Loop", 1},
    {"Link Up - N_Port to N_Port", 2},
};

// Topology and state from the link text; any other text leaves both alone.
void set_link_state(vxapi_priv_database* inst) {
    vxsysfs_path_t path;
    char text[VXSYSFS_ATTR_LEN];
    host_attr(path, false, inst->host_no, "link_state");
    vxsysfs_get_str_attr(path, text, sizeof text);
    if (text[0] == '\0') {
        // Drivers without "link_state" report the link in "state".
        host_attr(path, false, inst->host_no, "state");
        vxsysfs_get_str_attr(path, text, sizeof text);
    }
    for (const link_state_row& row : link_states) {
        if (strcmp(text, row.text) == 0) {
            inst->topology = row.topology;
            inst->state = 0;
            return;
        }
    }
}

// Domain, bus and (device << 3 | function) from a bus id such as
// "0000:03:00.1"; all zero unless the whole id parses.
vxapi_phy_info parse_pci_location(const char* bus_id) {
    vxapi_phy_info pci{};
    unsigned short domain = 0, bus = 0, dev = 0;
    short func = 0;
    if (sscanf(bus_id, "%4hx : %2hx : %2hx . %hd", &domain, &bus, &dev, &func) == 4) {
        pci.pci_domain = domain;
        pci.pci_bus = bus;
        pci.pci_dev_func = static_cast<uint16_t>(((dev << 3) & 0xF8) | (func % 8));
    }
    return pci;
}

uint16_t pci_id_attr(sysfs_device* device, const char* name) {
    sysfs_attribute* attr = sysfs_get_device_attr(device, name);
    if (!attr || !attr->value)
        return 0;
    return static_cast<uint16_t>(strtoul(attr->value, nullptr, 16));
}

enum class host_result { accepted, skipped, stop_device, out_of_memory };

// Adapter record and adapter-wide facts for the physical port `inst`.
host_result make_adapter(sysfs_driver* driver, sysfs_device* device, vxapi_priv_database* inst,
                         const vxapi_phy_info& pci) {
    uint32_t err = 0;
    if (vxapi_alloc_api_phy_info_mem(&err) != 0) {
        vxdbg_line(ERR, "vxsysfs_get_driver_devices: >> mem alloc failed, exiting");
        return host_result::out_of_memory;
    }
    vxapi_phy_info* phy = current_phy_info_inst;
    inst->phy_info = phy;
    memcpy(phy->model, driver->name, strnlen(driver->name, sizeof phy->model));
    phy->device_id = pci_id_attr(device, "device");
    phy->vendor_id = pci_id_attr(device, "vendor");
    phy->ssdevice_id = pci_id_attr(device, "subsystem_device");
    phy->ssvendor_id = pci_id_attr(device, "subsystem_vendor");
    phy->pci_domain = pci.pci_domain;
    phy->pci_bus = pci.pci_bus;
    phy->pci_dev_func = pci.pci_dev_func;

    const uint16_t id = phy->device_id;
    if (!vx_adapter_lookup(id)) {
        vxdbg_num(ERR, "vxsysfs_get_driver_devices: >> device id not supported. device_id=", id, VXDBG_HEX, 1);
        vxapi_free_api_priv_data_element(inst);
        vxapi_free_api_phy_info_element(phy);
        return host_result::stop_device;
    }
    if (vx_adapter_has(id, VX_MARK_FLT) && vxapi_set_option_rom_layout(0, inst) != 0)
        vxdbg_line(ERR, "vxsysfs_get_driver_devices: >> set option rom layout failed.");

    vxsysfs_path_t path;
    host_attr(path, true, inst->host_no, "max_npiv_vports");
    phy->max_vports = static_cast<uint16_t>(vxsysfs_get_int_attr(path));
    host_attr(path, false, inst->host_no, "serial_num");
    vxsysfs_get_str_attr(path, reinterpret_cast<char*>(phy->serial_num), sizeof phy->serial_num);
    if (phy->serial_num[0] == '\0')
        vxsysfs_get_field_from_vpd(inst, "SN", 2, phy->serial_num, sizeof phy->serial_num);
    vxapi_fill_phy_port_number(inst);
    if (phy->max_vports == 0) {
        // Second source, deliberately in the scsi_host class.
        host_attr(path, false, inst->host_no, "max_npiv_vports");
        phy->max_vports = static_cast<uint16_t>(vxsysfs_get_int_attr(path));
    }

    uint32_t ext_stat = 0;
    if (vx_adapter_has(id, VX_MARK_ADAPTER_VERSIONS))
        vxapi_query_adapter_versions(0, inst, &ext_stat);
    if (vx_adapter_has(id, VX_MARK_MPI_EDC)) {
        vxapi_get_flash_mpi_edc_versions(0, inst, &ext_stat);
        vxapi_get_nic_bootcode_version(0, inst, &ext_stat);
    }
    if (vx_adapter_has(id, VX_MARK_ACTIVE_IMAGE))
        vxapi_get_active_image_set(0, inst, &ext_stat);

    uint8_t caps[CAPS_LEN] = {};
    ext_stat = 0;
    if (vxapi_flash_update_capabilities(0, inst, caps, sizeof caps, 0, &ext_stat) != 0 || ext_stat != 0) {
        const int saved = errno;
        if (vxdbg_on(ERR)) {
            vxdbg_print("vxsysfs_get_driver_devices: >> get caps failed. stat=", ext_stat, VXDBG_DEC, 0);
            vxdbg_print(" errno=", static_cast<uint64_t>(saved), VXDBG_DEC, 1);
        }
    } else {
        memcpy(&phy->running_fw_attributes, caps, sizeof phy->running_fw_attributes);
    }
    return host_result::accepted;
}

// One instance record for host N of a PCI function; `k` is the number of
// this function's hosts already accepted (the first is the physical port).
host_result make_instance(sysfs_driver* driver, sysfs_device* device, uint32_t host_no, uint32_t k,
                          uint32_t drv_inst) {
    uint32_t err = 0;
    if (vxapi_alloc_api_priv_data_mem(&err) != 0) {
        vxdbg_line(ERR, "vxsysfs_get_driver_devices: >> mem alloc failed, exiting");
        return host_result::out_of_memory;
    }
    vxapi_priv_database* inst = current_priv_inst;
    inst->features = VX_FEAT_SYSFS;
    vxapi_set_channel(inst);
    inst->drvr_inst = drv_inst;
    inst->host_no = host_no;
    if (vxsysfs_is_bsg_supported(host_no) == 0)
        inst->features |= VX_FEAT_BSG;
    inst->interface_type = k == 0 ? VX_IFTYPE_PHYSICAL : VX_IFTYPE_VIRTUAL;
    if (snprintf(reinterpret_cast<char*>(inst->phys_path), sizeof inst->phys_path, "%s/%s", driver->path,
                 device->bus_id) >= static_cast<int>(sizeof inst->phys_path))
        vxdbg_line(ERR, "vxsysfs_get_driver_devices: >> device path cut to fit.");

    vxsysfs_is_chunking_supported(device, inst);
    vxsysfs_path_t path;
    host_attr(path, true, host_no, "node_name");
    vxsysfs_get_hex_attr(path, inst->wwnn, sizeof inst->wwnn);
    host_attr(path, true, host_no, "port_name");
    vxsysfs_get_hex_attr(path, inst->wwpn, sizeof inst->wwpn);
    host_attr(path, true, host_no, "port_id");
    vxsysfs_get_hex_attr(path, inst->port_id + 1, 3);

    const vxapi_phy_info pci = parse_pci_location(device->bus_id);
    set_link_state(inst);

    if (inst->interface_type == VX_IFTYPE_VIRTUAL) {
        vxapi_phy_info* phy = vxapi_get_api_phy_info_inst(&pci);
        if (!phy) {
            vxdbg_line(ERR, "vxsysfs_get_driver_devices: >> get phy info failed for vport.");
            vxapi_free_api_priv_data_element(inst);
            return host_result::skipped;
        }
        inst->phy_info = phy;
        vxapi_priv_database* parent = vxapi_get_phy_port_from_vport(inst);
        if (!parent) {
            vxdbg_line(ERR, "vxsysfs_get_driver_devices: >> get phy port failed for vport.");
            vxapi_free_api_priv_data_element(inst);
            return host_result::skipped;
        }
        inst->parent = parent;
        inst->vp_idx = vxsysfs_get_vport_id(phy, host_no);
        // The adapter-wide facts belong to the physical port alone: a virtual
        // port would renumber and overwrite its adapter's shared record.
        return host_result::accepted;
    }
    return make_adapter(driver, device, inst, pci);
}

// One line per accepted port, with what discovery decided about it.
void trace_instance(const vxapi_priv_database* inst, uint32_t instance) {
    if (!inst || !vxdbg_on(TRC))
        return;
    vxdbg_print("vxsysfs_get_driver_devices: >> added host_no=", inst->host_no, VXDBG_DEC, 0);
    vxdbg_print(" instance=", instance, VXDBG_DEC, 0);
    vxdbg_print(" interface_type=", inst->interface_type, VXDBG_DEC, 0);
    vxdbg_print(" features=", inst->features, VXDBG_HEX, 0);
    vxdbg_print(" topology=", inst->topology, VXDBG_DEC, 0);
    vxdbg_print(" vp_idx=", inst->vp_idx, VXDBG_DEC, 1);
    if (inst->interface_type == VX_IFTYPE_PHYSICAL && inst->phy_info) {
        char serial[sizeof inst->phy_info->serial_num + 1] = {};
        memcpy(serial, inst->phy_info->serial_num, sizeof inst->phy_info->serial_num);
        vxdbg_print("vxsysfs_get_driver_devices: >> adapter device_id=", inst->phy_info->device_id, VXDBG_HEX, 0);
        vxdbg_print(" serial_num=", 0, VXDBG_NONE, 0);
        vxdbg_print(serial, 0, VXDBG_NONE, 1);
    }
}

// All instances of one PCI function. 1 when memory ran out.
int discover_device(sysfs_driver* driver, sysfs_device* device, uint32_t* api_inst, uint32_t* drv_inst) {
    vxsysfs_collect_hostno_list_from_devices_path(device);
    int result = 0;
    uint32_t k = 0;
    for (DL_node* node = host_no_list ? host_no_list->head->next : nullptr; node && node != host_no_list->head;
         node = node->next) {
        const uint32_t host_no = *static_cast<uint32_t*>(node->data);
        const host_result outcome = make_instance(driver, device, host_no, k, *drv_inst);
        if (outcome == host_result::accepted) {
            ++*api_inst;
            ++*drv_inst;
            ++k;
            trace_instance(current_priv_inst, *api_inst - 1);
        } else if (outcome == host_result::stop_device) {
            break;
        } else if (outcome == host_result::out_of_memory) {
            vxapi_free_api_priv_data_mem();
            vxapi_free_api_phy_info_mem();
            // Every record is gone, the ones of earlier discovery included:
            // the counts start again from nothing.
            *api_inst = 0;
            *drv_inst = 0;
            result = 1;
            break;
        }
    }
    destroy_host_list();
    return result;
}

}  // namespace

void vxsysfs_root(char* out, size_t out_len) {
    if (!out || out_len == 0)
        return;
    if (sysfs_mnt_path[0]) {
        snprintf(out, out_len, "%s", sysfs_mnt_path);
        return;
    }
    char mnt[VXSYSFS_PATH_LEN] = {};
    if (sysfs_get_mnt_path(mnt, sizeof mnt) != 0 || !mnt[0])
        snprintf(mnt, sizeof mnt, "/sys");
    snprintf(out, out_len, "%s", mnt);
}

int vxsysfs_init() {
    memset(sysfs_mnt_path, 0, sizeof sysfs_mnt_path);
    const int rc = sysfs_get_mnt_path(sysfs_mnt_path, sizeof sysfs_mnt_path);
    if (rc != 0)
        vxdbg_line(VXDBG_ERROR, "vxsysfs_init: > sysfs not mounted");
    return rc;
}

int vxsysfs_supported_driver_exist(uint32_t* start_inst) {
    vxdbg_line(TRC, "vxsysfs_supported_driver_exist: entered.");
    sysfs_bus* bus = sysfs_open_bus("pci");
    if (!bus) {
        vxdbg_line(VXDBG_ERROR, "vxsysfs_supported_driver_exist: > no pci bus");
        return 0;
    }
    uint32_t api_inst = start_inst ? *start_inst : 0;
    uint32_t drv_inst = 0;
    for (const char* name : driver_names) {
        sysfs_driver* driver = sysfs_get_bus_driver(bus, name);
        if (driver && vxsysfs_get_driver_devices(driver, &api_inst, &drv_inst) != 0)
            trace_named(ERR, "vxsysfs_supported_driver_exist: > discovery failed for ", name);
    }
    if (start_inst)
        *start_inst = api_inst;
    sysfs_close_bus(bus);
    vxdbg_num(TRC, "vxsysfs_supported_driver_exist: exiting. instances=", api_inst, VXDBG_DEC, 1);
    return 0;
}

int vxsysfs_get_driver_devices(sysfs_driver* driver, uint32_t* api_inst, uint32_t* drv_inst) {
    if (!driver || !api_inst || !drv_inst)
        return 1;
    trace_named(TRC, "vxsysfs_get_driver_devices: entered. driver=", driver->name);
    dlist* devices = sysfs_get_driver_devices(driver);
    if (!devices) {
        if (vxdbg_on(TRC)) {
            vxdbg_print("vxsysfs_get_driver_devices: ", 0, VXDBG_NONE, 0);
            vxdbg_print(driver->name, 0, VXDBG_NONE, 0);
            vxdbg_print(" is not used", 0, VXDBG_NONE, 1);
        }
        return 0;
    }
    int result = 0;
    vx_dlist_each<sysfs_device>(devices, [&](sysfs_device* device) {
        result = discover_device(driver, device, api_inst, drv_inst);
        return result == 0;
    });
    vxdbg_num(TRC, "vxsysfs_get_driver_devices: exiting. ret=", static_cast<uint64_t>(result), VXDBG_DEC, 1);
    return result;
}

// ---- Host list ----

int vxsysfs_is_new_node_smaller(void* new_node, void* current_node) {
    return *static_cast<uint32_t*>(new_node) < *static_cast<uint32_t*>(current_node) ? 1 : 0;
}

uint32_t vxsysfs_add_hostno_in_host_no_list(const char* name) {
    uint32_t number = 0;
    if (!vxsysfs_parse_host_name(name, &number))
        return 0;
    auto* host_array = static_cast<uint32_t*>(malloc(sizeof(uint32_t)));
    if (!host_array) {
        vxdbg_line(ERR, "vxsysfs_add_hostno_in_host_no_list: > Unable to allocate memory -- host_array");
        return 0;
    }
    if (!host_no_list) {
        host_no_list = dlist_new(sizeof(uint32_t));
        if (!host_no_list) {
            free(host_array);
            vxdbg_line(ERR, "vxsysfs_add_hostno_in_host_no_list: > Unable to allocate memory -- host_no_list");
            return 0;
        }
    }
    *host_array = number;
    if (!dlist_insert_sorted(host_no_list, host_array, vxsysfs_is_new_node_smaller)) {
        vxdbg_line(ERR, "vxsysfs_add_hostno_in_host_no_list: > Unable to insert node in host_no_list");
        free(host_array);
        destroy_host_list();
        return 0;
    }
    vxdbg_num(TRC, "vxsysfs_add_hostno_in_host_no_list: > Added host in host_no_list, host_no=", *host_array,
              VXDBG_DEC, 1);
    return *host_array;
}

int vxsysfs_collect_hostno_list_from_devices_path(sysfs_device* device) {
    if (!device)
        return 1;
    vxsysfs_list_hold top(sysfs_open_directory_list(device->path));
    if (!top.get()) {
        trace_named(ERR, "vxsysfs_collect_hostno_list_from_devices_path: cannot list ", device->path);
        return 1;
    }
    bool stopped = false;
    auto add_hosts = [](dlist* list) {
        vx_dlist_each<char>(list, [](char* entry) {
            if (starts_with(entry, "host") && vxsysfs_parse_host_name(entry, nullptr))
                vxsysfs_add_hostno_in_host_no_list(entry);
            return true;
        });
    };
    vx_dlist_each<char>(top.get(), [&](char* name) {
        uint32_t host = 0;
        if (!starts_with(name, "host") || !vxsysfs_parse_host_name(name, &host))
            return true;
        vxsysfs_add_hostno_in_host_no_list(name);
        vxsysfs_path_t path;
        vxsysfs_path_format(path, "%s/%s%u/", device->path, "host", host);
        vxsysfs_list_hold sub(sysfs_open_directory_list(path));
        if (!sub.get()) {
            stopped = true;
            return false;
        }
        // Virtual ports nest their hosts one level deeper: host{H}/vport-{H}:.../host{V}.
        char prefix[32];
        snprintf(prefix, sizeof prefix, "%s-%u:", "vport", host);
        vx_dlist_each<char>(sub.get(), [&](char* entry) {
            if (!starts_with(entry, prefix))
                return true;
            vxsysfs_path_t vpath;
            vxsysfs_path_format(vpath, "%s/%s%u/%s/", device->path, "host", host, entry);
            vxsysfs_list_hold vdir(sysfs_open_directory_list(vpath));
            if (!vdir.get()) {
                stopped = true;
                return false;
            }
            add_hosts(vdir.get());
            return true;
        });
        if (stopped)
            return false;
        add_hosts(sub.get());
        return true;
    });
    return stopped ? 1 : 0;
}

// ---- Chunking probe ----

void vxsysfs_is_chunking_supported(sysfs_device* device, vxapi_priv_database* instance) {
    if (!device || !instance)
        return;
    vxsysfs_path_t path;
    vxsysfs_path_format(path, "%s/host%d/%s", device->path, static_cast<int>(instance->host_no), "optrom_ctl");
    sysfs_attribute* attr = sysfs_open_attribute(path);
    if (!attr) {
        vxdbg_line(TRC, "vxsysfs_is_chunking_supported: > Failed get control");
        return;
    }
    // A driver that rejects control code 4 moves flash images in pieces.
    static constexpr char code[2] = {'4', '\0'};
    if (sysfs_write_attribute(attr, code, sizeof code) != 0)
        instance->features |= VX_FEAT_PARTIAL_FLASH;
    sysfs_close_attribute(attr);
}

// ---- Virtual-port ids ----

uint32_t vxsysfs_get_set_vport_id(vxapi_phy_info* phy_info) {
    if (!phy_info)
        return 0;
    for (uint32_t i = 0; i < sizeof phy_info->vp_map; ++i) {
        for (uint32_t b = 0; b < 8; ++b) {
            const uint8_t mask = static_cast<uint8_t>(1u << b);
            if (!(phy_info->vp_map[i] & mask)) {
                phy_info->vp_map[i] |= mask;
                return 8 * i + b + 1;
            }
        }
    }
    return 0;
}

void vxsysfs_clear_vport_id(vxapi_phy_info* phy_info, uint32_t vport_id) {
    if (!phy_info || vport_id == 0 || vport_id > VPORT_IDS)
        return;
    const uint32_t bit = vport_id - 1;
    phy_info->vp_map[bit / 8] &= static_cast<uint8_t>(~(1u << (bit % 8)));
}

uint32_t vxsysfs_get_vport_id(vxapi_phy_info* phy_info, uint32_t vhost_no) {
    vxsysfs_path_t path;
    host_attr(path, false, vhost_no, "vport_id");
    if (sysfs_path_is_file(path) == 0) {
        char text[16];
        vxsysfs_get_str_attr(path, text, sizeof text);
        return static_cast<uint32_t>(strtoul(text, nullptr, 16));
    }
    return vxsysfs_get_set_vport_id(phy_info);
}

int vxsysfs_is_vhost_no_wwpn_match(uint32_t vhost_no, const uint8_t* wwpn) {
    if (!wwpn)
        return 1;
    vxsysfs_path_t path;
    host_attr(path, true, vhost_no, "port_name");
    uint8_t name[8];
    vxsysfs_get_hex_attr(path, name, sizeof name);
    return memcmp(name, wwpn, sizeof name);
}

uint32_t vxsysfs_get_vport_host_no(const uint8_t* wwpn) {
    vxsysfs_path_t dir;
    vxsysfs_get_fc_host(dir);
    vxsysfs_list_hold list(vxsysfs_open_entry_list(dir));
    uint32_t host = 0;
    // Without a match the last host examined is returned: callers check the
    // WWPN again.
    vx_dlist_each<char>(list.get(), [&](char* name) {
        if (!starts_with(name, "host") || !vxsysfs_parse_host_name(name, &host))
            return true;
        return vxsysfs_is_vhost_no_wwpn_match(host, wwpn) != 0;
    });
    return host;
}
