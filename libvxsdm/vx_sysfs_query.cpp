// sysfs twins of the leaf queries: driver records and VPD fields built from
// the host's attributes.
#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vx_adapters.h"
#include "vx_sddbg.h"
#include "vx_sysfs.h"

namespace {

constexpr uint32_t TRC = VXDBG_TRACE | VXDBG_SYSFS;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_SYSFS;

// A host-class attribute of host N: "{mnt}/class/<class>/host{N}/<name>".
void host_attr(vxsysfs_path_t& path, bool fc, uint32_t host_no, const char* name) {
    char* end = fc ? vxsysfs_get_fc_host_path(path, static_cast<uint16_t>(host_no))
                   : vxsysfs_get_scsi_host_path(path, static_cast<uint16_t>(host_no));
    vxsysfs_path_append(path, end, name);
}

void scsi_host_text(uint32_t host_no, const char* name, char* val, size_t size) {
    vxsysfs_path_t path;
    host_attr(path, false, host_no, name);
    vxsysfs_get_str_attr(path, val, size);
}

unsigned long scsi_host_int(uint32_t host_no, const char* name) {
    vxsysfs_path_t path;
    host_attr(path, false, host_no, name);
    return vxsysfs_get_int_attr(path);
}

// A boot-image version as up to four decimal numbers ("4.02" -> 4 2 0 0).
void version_numbers(const char* text, uint8_t out[4]) {
    unsigned char parts[4] = {};
    sscanf(text, "%hhu.%hhu.%hhu.%hhu", &parts[0], &parts[1], &parts[2], &parts[3]);
    memcpy(out, parts, sizeof parts);
}

// A boot-image version: its attribute, or when that is empty the VPD
// keyword of the same image, parsed with `vpd_format` (two or three numbers).
void boot_version(vxapi_priv_database* inst, vxapi_priv_database* vpd_port, const char* attr, const char* keyword,
                  const char* vpd_format, uint8_t out[4]) {
    char text[VXSYSFS_ATTR_LEN];
    scsi_host_text(inst->host_no, attr, text, sizeof text);
    if (text[0] != '\0') {
        version_numbers(text, out);
        return;
    }
    uint8_t field[VXSYSFS_ATTR_LEN] = {};
    if (vxsysfs_get_field_from_vpd(vpd_port, keyword, 2, field, sizeof field - 1) != 0)
        return;
    unsigned char parts[3] = {out[0], out[1], out[2]};
    sscanf(reinterpret_cast<const char*>(field), vpd_format, &parts[0], &parts[1], &parts[2]);
    memcpy(out, parts, sizeof parts);
}

struct link_state_row {
    const char* text;
    uint16_t state;
    uint16_t mode;
    int topology;  // -1: unchanged
};

// Tested in this order; any other text reads as a link that is down.
constexpr link_state_row link_states[] = {
    {"Link Down", 2, 0, -1},
    {"Unknown Link State", 1, 0, -1},
    {"Link Up - Loop", 0, 2, 1},
    {"Link Up - FL_Port", 0, 2, 4},
    {"Link Up - N_Port to N_Port", 0, 1, 2},
    {"Link Up - F_Port", 0, 1, 8},
};
constexpr link_state_row link_state_other = {"", 2, 0, -1};

struct speed_row {
    const char* text;
    uint8_t code;
};

constexpr speed_row speeds[] = {
    {"1 Gbit", VX_SPEED_1G}, {"2 Gbit", VX_SPEED_2G},   {"4 Gbit", VX_SPEED_4G},   {"8 Gbit", VX_SPEED_8G},
    {"10 Gbit", VX_SPEED_10G}, {"16 Gbit", VX_SPEED_16G}, {"32 Gbit", VX_SPEED_32G},
};

bool starts_with(const char* text, const char* prefix) { return strncmp(text, prefix, strlen(prefix)) == 0; }

// The host's remote ports ("rport-{N}:..." under its device directory), in
// name order; `fn` gets each name and returns false to stop.
template <typename F>
void each_rport(const vxsysfs_host_dir& host, F&& fn) {
    vxsysfs_rport_names names;
    names.list(host.fd(), host.host_no());
    for (size_t i = 0; i < names.size(); ++i)
        if (!fn(names[i]))
            return;
}

// Names, address and target id of a remote port.
struct rport_info {
    uint8_t wwnn[8];
    uint8_t wwpn[8];
    uint8_t port_id[3];
    uint16_t target_id;
    bool has_target_id;  // a target id is set ("-1" or nothing: none)
};

void vxsysfs_get_rport_attributes(int host_fd, const char* name, rport_info* info) {
    char text[VXSYSFS_ATTR_LEN];
    vxsysfs_rport_text(host_fd, name, "node_name", text, sizeof text);
    vxsysfs_to_array_hex(info->wwnn, text, sizeof info->wwnn);
    vxsysfs_rport_text(host_fd, name, "port_name", text, sizeof text);
    vxsysfs_to_array_hex(info->wwpn, text, sizeof info->wwpn);
    // "0x010400" as three bytes: the text has no more than six digits.
    vxsysfs_rport_text(host_fd, name, "port_id", text, sizeof text);
    vxsysfs_to_array_hex(info->port_id, text, sizeof info->port_id);
    vxsysfs_rport_text(host_fd, name, "scsi_target_id", text, sizeof text);
    info->target_id = static_cast<uint16_t>(strtoul(text, nullptr, 10));
    info->has_target_id = text[0] != '\0' && text[0] != '-';
}

// B of "rport-H:B-R"; 0 when the name does not parse.
uint16_t rport_channel(const char* name) {
    uint32_t host = 0, channel = 0, number = 0;
    return vxsysfs_parse_rport_name(name, &host, &channel, &number) ? static_cast<uint16_t>(channel) : 0;
}

uint32_t& status_word(uint32_t* pext_stat, uint32_t& local) { return pext_stat ? *pext_stat : local; }

// Physical ports of the board: the PCI functions of one device (domain,
// bus, device). Serial numbers would merge boards whose number is empty.
uint16_t board_ports(const vxapi_phy_info* phy) {
    uint16_t ports = 0;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&](vxapi_priv_database* record) {
        const vxapi_phy_info* other = record->phy_info;
        if (record->interface_type == VX_IFTYPE_PHYSICAL && other && other->pci_domain == phy->pci_domain &&
            other->pci_bus == phy->pci_bus && (other->pci_dev_func >> 3) == (phy->pci_dev_func >> 3))
            ++ports;
        return true;
    });
    return ports;
}

bool refused(const char* name, const void* a, const void* b) {
    if (a && b)
        return false;
    if (vxdbg_on(ERR)) {
        vxdbg_print(name, 0, VXDBG_NONE, 0);
        vxdbg_print(": invalid parameter.", 0, VXDBG_NONE, 1);
    }
    return true;
}

}  // namespace

int vxsysfs_query_driver(int handle, vxapi_priv_database* inst, _EXT_DRIVER* drv, uint32_t* pext_stat) {
    (void)handle;
    uint32_t local_stat = 0;
    uint32_t& ext_stat = pext_stat ? *pext_stat : local_stat;
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (!inst || !drv) {
        vxdbg_line(ERR, "vxsysfs_query_driver: invalid parameter.");
        return 1;
    }
    vxdbg_num(TRC, "vxsysfs_query_driver: entered. host_no=", inst->host_no, VXDBG_DEC, 1);
    vxsysfs_path_t path;
    char* end = vxsysfs_get_scsi_host_path(path, static_cast<uint16_t>(inst->host_no));
    vxsysfs_path_append(path, end, "driver_version");
    vxsysfs_get_str_attr(path, reinterpret_cast<char*>(drv->Version), sizeof drv->Version);
    vxsysfs_path_append(path, end, "sg_tablesize");
    drv->MaxDataSegments = static_cast<uint32_t>(vxsysfs_get_int_attr(path));
    drv->LunsPerTarget = (inst->features & VX_FEAT_DRV_CAP4) ? 4096 : 256;
    drv->NumOfBus = 1;
    drv->TargetsPerBus = 512;
    drv->MaxTransferLen = 0xFFFFFFFF;
    ext_stat = 0;
    vxdbg_line(TRC, "vxsysfs_query_driver: exiting.");
    return 0;
}

int vxsysfs_get_driver_specifics(int handle, vxapi_priv_database* inst, _EXT_LN_DRIVER_DATA* pdata,
                                 uint32_t* pext_stat) {
    uint32_t local_stat = 0;
    uint32_t& ext_stat = pext_stat ? *pext_stat : local_stat;
    if (!pdata) {
        ext_stat = EXT_STATUS_DEV_NOT_FOUND;
        vxdbg_line(ERR, "vxsysfs_get_driver_specifics: invalid parameter.");
        return 1;
    }
    vxdbg_line(TRC, "vxsysfs_get_driver_specifics: entered.");
    memset(pdata, 0, sizeof *pdata);
    _EXT_DRIVER drv{};
    vxsysfs_query_driver(handle, inst, &drv, &ext_stat);
    if (ext_stat != 0) {
        vxdbg_num(ERR, "vxsysfs_get_driver_specifics: query driver failed. stat=", ext_stat, VXDBG_DEC, 1);
        return 0;
    }
    // Up to two digits each: "10.02.09.200-k" gives 10, 2, 9; a "b" after
    // the patch number carries the beta number.
    signed char major = 0, minor = 0, patch = 0, beta = 0;
    sscanf(reinterpret_cast<const char*>(drv.Version), "%2hhd . %2hhd . %2hhd b %2hhd", &major, &minor, &patch,
           &beta);
    pdata->DrvVer.Major = static_cast<uint8_t>(major);
    pdata->DrvVer.Minor = static_cast<uint8_t>(minor);
    pdata->DrvVer.Patch = static_cast<uint8_t>(patch);
    pdata->DrvVer.Beta = static_cast<uint8_t>(beta);
    pdata->Flags |= EXT_DRIVER_FLAG_CAP4;
    vxdbg_line(TRC, "vxsysfs_get_driver_specifics: exiting.");
    return 0;
}

int vxsysfs_get_field_from_vpd(vxapi_priv_database* inst, const char* key, int mode, uint8_t* dst,
                               uint32_t dst_len) {
    if (!dst)
        return 1;
    memset(dst, 0, dst_len);
    if (!inst || !key) {
        vxdbg_line(ERR, "vxsysfs_get_field_from_vpd: invalid parameter.");
        return 1;
    }
    vxdbg_text(TRC, "vxsysfs_get_field_from_vpd: entered. key=");
    vxdbg_line(TRC, key);
    const uint32_t size = vxapi_get_vpd_size(inst->phy_info ? inst->phy_info->device_id : 0);
    uint8_t vpd[VX_VPD_SIZE_LARGE] = {};
    vxsysfs_path_t path;
    vxsysfs_path_append(path, vxsysfs_get_device_path(path, inst), "vpd");
    // A short answer is walked as far as it goes (the rest reads as zeros).
    if (vxsysfs_read_file(path, vpd, size) == size) {
        vxdbg_line(ERR, "vxsysfs_get_field_from_vpd: vpd read failed.");
        return 1;
    }
    const int result = vxapi_get_field_from_vpd(vpd, key, mode, dst, dst_len);
    vxdbg_num(TRC, "vxsysfs_get_field_from_vpd: exiting. ret=", static_cast<uint64_t>(result), VXDBG_DEC, 1);
    return result;
}

// ---- Text helpers ----

void vxsysfs_serial_to_bytes(const char* text, uint8_t serial[4]) {
    memset(serial, 0, 4);
    if (!text || text[0] < 'A' || text[0] > 'Z' || strlen(text) != 6)
        return;
    uint32_t number = 0;
    for (int i = 1; i < 6; ++i) {
        if (text[i] < '0' || text[i] > '9')
            return;
        number = number * 10 + static_cast<uint32_t>(text[i] - '0');
    }
    // The inverse of the computed serial text "%c%05d": byte 0 the high
    // part, then the low and the middle byte, as the driver lays them out.
    const uint32_t n = static_cast<uint32_t>(text[0] - 'A') * 100000 + number;
    serial[0] = static_cast<uint8_t>(n >> 16);
    serial[1] = static_cast<uint8_t>(n & 0xFF);
    serial[2] = static_cast<uint8_t>((n >> 8) & 0xFF);
}

uint32_t vxsysfs_pcie_speed_code(const char* text) {
    struct row {
        const char* prefix;
        uint32_t code;
    };
    // The PCIe link registers' speed encoding.
    static constexpr row rows[] = {
        {"2.5 GT/s", 1}, {"5.0 GT/s", 2}, {"5 GT/s", 2}, {"8.0 GT/s", 3},
        {"8 GT/s", 3},   {"16.0 GT/s", 4}, {"16 GT/s", 4}, {"32.0 GT/s", 5}, {"32 GT/s", 5},
    };
    if (!text)
        return 0;
    for (const row& r : rows)
        if (starts_with(text, r.prefix))
            return r.code;
    return 0;
}

// ---- Node and port ----

int vxsysfs_query_hbanode(int handle, vxapi_priv_database* inst, EXT_HBA_NODE* node, uint32_t* pext_stat) {
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (refused("vxsysfs_query_hbanode", inst, node))
        return 1;
    const uint32_t n = inst->host_no;
    vxdbg_num(TRC, "vxsysfs_query_hbanode: entered. host_no=", n, VXDBG_DEC, 1);

    memcpy(node->WWNN, inst->wwnn, sizeof node->WWNN);
    snprintf(reinterpret_cast<char*>(node->Manufacturer), sizeof node->Manufacturer, "%s", "Varnex Corporation");
    scsi_host_text(n, "model_name", reinterpret_cast<char*>(node->Model), sizeof node->Model);
    scsi_host_text(n, "driver_version", reinterpret_cast<char*>(node->DriverVersion), sizeof node->DriverVersion);
    scsi_host_text(n, "fw_version", reinterpret_cast<char*>(node->FWVersion), sizeof node->FWVersion);

    char text[16];
    unsigned char v[3] = {};
    scsi_host_text(n, "mpi_version", text, sizeof text);
    if (sscanf(text, "%hhu.%hhu.%hhu", &v[0], &v[1], &v[2]) > 0)
        memcpy(node->BIMpiFwVersion, v, sizeof v);
    memset(v, 0, sizeof v);
    scsi_host_text(n, "pep_version", text, sizeof text);
    if (sscanf(text, "%hhu.%hhu.%hhu", &v[0], &v[1], &v[2]) > 0)
        memcpy(node->BIPepFwVersion, v, sizeof v);

    // The VPD is the adapter's: a virtual port reads its physical port's.
    vxapi_priv_database* vpd_port =
        inst->interface_type == VX_IFTYPE_VIRTUAL && inst->parent ? inst->parent : inst;
    scsi_host_text(n, "optrom_bios_version", reinterpret_cast<char*>(node->OptRomVersion), sizeof node->OptRomVersion);
    if (node->OptRomVersion[0] == '\0')
        vxsysfs_get_field_from_vpd(vpd_port, "V4", 2, node->OptRomVersion, sizeof node->OptRomVersion - 1);
    boot_version(inst, vpd_port, "optrom_fcode_version", "V5", "%hhu.%hhu", node->BIFCodeVersion);
    boot_version(inst, vpd_port, "optrom_efi_version", "V1", "%hhu.%hhu", node->BIEfiVersion);
    boot_version(inst, vpd_port, "optrom_fw_version", "V3", "%hhu.%hhu.%hhu", node->BIFwVersion);
    node->InterfaceType = static_cast<uint16_t>(inst->interface_type);

    const vxapi_phy_info* phy = inst->phy_info;
    if (phy) {
        // The board's ports are its physical ports: the functions of its PCI device.
        node->PortCount = board_ports(phy);
        char serial[sizeof phy->serial_num + 1] = {};
        memcpy(serial, phy->serial_num, sizeof phy->serial_num);
        vxsysfs_serial_to_bytes(serial, node->SerialNum);
    }
    ext_stat = 0;

    // The virtual ports of these boards carry no boot-code attributes: the
    // versions come from the adapter's flash.
    if (phy && vx_adapter_has(phy->device_id, VX_MARK_FLASH_BI_REFRESH) &&
        inst->interface_type == VX_IFTYPE_VIRTUAL) {
        char device[PATH_MAX];
        char phys[sizeof inst->phys_path + 1] = {};
        memcpy(phys, inst->phys_path, sizeof inst->phys_path);
        if (!realpath(phys, device)) {
            vxdbg_line(ERR, "vxsysfs_query_hbanode: Fail: Unable to getabsolute path");
            return 0;
        }
        vxapi_priv_database* flash_port = inst->parent ? inst->parent : inst;
        uint32_t flash_stat = 0;
        vxsysfs_read_flash_versions(handle, flash_port, node, &flash_stat);
    }
    vxdbg_line(TRC, "vxsysfs_query_hbanode: exiting.");
    return 0;
}

uint16_t vxsysfs_count_port(const vxapi_priv_database* inst) {
    if (!inst)
        return 0;
    const vxsysfs_host_dir host(inst->host_no);
    uint16_t count = 0;
    each_rport(host, [&](const char* name) {
        char roles[VXSYSFS_ATTR_LEN];
        vxsysfs_rport_text(host.fd(), name, "roles", roles, sizeof roles);
        if (strcmp(roles, "FCP Target") == 0)
            ++count;
        return true;
    });
    return count;
}

uint16_t vxsysfs_count_target(const vxapi_priv_database* inst) {
    if (!inst)
        return 0;
    const vxsysfs_host_dir host(inst->host_no);
    // One bit per possible target id.
    uint8_t seen[65536 / 8] = {};
    uint16_t count = 0;
    // A target with a LUN lies under its remote port's device, named
    // target{N}:{C}:{T}; the host's LUNs are found nowhere else.
    each_rport(host, [&](const char* name) {
        vxsysfs_each_entry(host.fd(), name, [&](const dirent* e) {
            unsigned h = 0, c = 0, t = 0;
            if (strncmp(e->d_name, "target", 6) != 0 || sscanf(e->d_name + 6, "%u:%u:%u", &h, &c, &t) != 3 ||
                h != host.host_no())
                return true;
            vxsysfs_path_t rel;
            vxsysfs_path_format(rel, "%s/%s", name, e->d_name);
            const int target = openat(host.fd(), rel, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            const bool has_lun = target >= 0 && vxsysfs_count_target_luns(target, nullptr, 0) > 0;
            if (target >= 0)
                close(target);
            const uint16_t tid = static_cast<uint16_t>(t);
            const uint8_t bit = static_cast<uint8_t>(1u << (tid % 8));
            if (has_lun && !(seen[tid / 8] & bit)) {
                seen[tid / 8] |= bit;
                ++count;
            }
            return true;
        });
        return true;
    });
    return count;
}

int vxsysfs_query_hbaport(int handle, vxapi_priv_database* inst, EXT_HBA_PORT* port, uint32_t* pext_stat) {
    (void)handle;
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (refused("vxsysfs_query_hbaport", inst, port))
        return 1;
    const uint32_t n = inst->host_no;
    vxdbg_num(TRC, "vxsysfs_query_hbaport: entered. host_no=", n, VXDBG_DEC, 1);

    // The name as discovery read it; the address is live, like state and
    // speed: a port that comes up after load gets its address then.
    memcpy(port->WWPN, inst->wwpn, sizeof port->WWPN);
    vxsysfs_path_t id_path;
    host_attr(id_path, true, n, "port_id");
    uint8_t id[3];
    if (vxsysfs_get_hex_attr(id_path, id, sizeof id) == 0) {
        port->Id[0] = 0;
        memcpy(port->Id + 1, id, sizeof id);
    }
    port->Type = EXT_DEF_INITIATOR_DEV;
    port->DiscPortNameType = 2;
    port->PortSupportedFC4Types = 3;
    port->PortActiveFC4Types = 3;

    char text[VXSYSFS_ATTR_LEN];
    scsi_host_text(n, "link_state", text, sizeof text);
    if (text[0] == '\0')
        scsi_host_text(n, "state", text, sizeof text);
    const link_state_row* link = &link_state_other;
    for (const link_state_row& row : link_states) {
        if (strcmp(text, row.text) == 0) {
            link = &row;
            break;
        }
    }
    port->State = link->state;
    port->Mode = link->mode;
    if (link->topology >= 0)
        port->Topology = static_cast<uint16_t>(link->topology);

    unsigned short words[4] = {port->LinkState1, port->LinkState2, port->LinkState3, port->LinkState6};
    scsi_host_text(n, "fw_state", text, sizeof text);
    sscanf(text, "0x%hx 0x%hx 0x%hx 0x%*x 0x%*x 0x%hx", &words[0], &words[1], &words[2], &words[3]);
    port->LinkState1 = words[0];
    port->LinkState2 = words[1];
    port->LinkState3 = words[2];
    port->LinkState6 = words[3];

    vxsysfs_path_t path;
    host_attr(path, true, n, "speed");
    vxsysfs_get_str_attr(path, text, sizeof text);
    port->PortSpeed = 0;
    for (const speed_row& row : speeds)
        if (strcmp(text, row.text) == 0)
            port->PortSpeed = row.code;
    if (inst->phy_info)
        if (const vx_adapter_type* row = vx_adapter_lookup(inst->phy_info->device_id))
            port->PortSupportedSpeed = row->supported_speeds;
    host_attr(path, true, n, "fabric_name");
    vxsysfs_get_hex_attr(path, port->FabricName, sizeof port->FabricName);
    port->DiscPortCount = vxsysfs_count_port(inst);
    port->DiscTargetCount = vxsysfs_count_target(inst);
    ext_stat = 0;
    vxdbg_line(TRC, "vxsysfs_query_hbaport: exiting.");
    return 0;
}

// ---- Chip, firmware, converged port ----

namespace {

// The first I/O and the first memory BAR of a PCI function's "resource"
// lines ("0x%016llx 0x%016llx 0x%016llx": start, end, flags).
void read_bars(const char* device, EXT_CHIP* chip) {
    constexpr unsigned long long IORESOURCE_IO = 0x100;
    constexpr unsigned long long IORESOURCE_MEM = 0x200;
    constexpr int BARS = 6;
    char path[VXSYSFS_PATH_LEN];
    if (snprintf(path, sizeof path, "%s/resource", device) >= static_cast<int>(sizeof path))
        return;
    FILE* fp = fopen(path, "re");
    if (!fp)
        return;
    bool io = false, mem = false;
    char line[128];
    for (int bar = 0; bar < BARS && fgets(line, sizeof line, fp); ++bar) {
        unsigned long long start = 0, end = 0, flags = 0;
        if (sscanf(line, "%llx %llx %llx", &start, &end, &flags) != 3 || start == 0 || end < start)
            continue;
        // The record's fields are 32 bits wide: a BAR above 4 GiB keeps its low half.
        const auto len = static_cast<uint32_t>(end - start + 1);
        if (!io && (flags & IORESOURCE_IO)) {
            chip->IoAddr = static_cast<uint32_t>(start);
            chip->IoAddrLen = len;
            io = true;
        } else if (!mem && (flags & IORESOURCE_MEM)) {
            chip->MemAddr = static_cast<uint32_t>(start);
            chip->MemAddrLen = len;
            mem = true;
        }
    }
    fclose(fp);
}

// Speed in bits 3:0 and width in bits 9:4, as the PCIe link registers hold them.
uint32_t pcie_link(const char* device, const char* speed_attr, const char* width_attr) {
    vxsysfs_path_t path;
    char text[VXSYSFS_ATTR_LEN];
    vxsysfs_path_format(path, "%s/%s", device, speed_attr);
    vxsysfs_get_str_attr(path, text, sizeof text);
    const uint32_t speed = vxsysfs_pcie_speed_code(text);
    vxsysfs_path_format(path, "%s/%s", device, width_attr);
    const auto width = static_cast<uint32_t>(vxsysfs_get_int_attr(path));
    return (speed & 0xF) | ((width & 0x3F) << 4);
}

uint16_t pci_hex_attr(const char* device, const char* name) {
    vxsysfs_path_t path;
    vxsysfs_path_format(path, "%s/%s", device, name);
    char text[VXSYSFS_ATTR_LEN];
    vxsysfs_get_str_attr(path, text, sizeof text);
    return static_cast<uint16_t>(strtoul(text, nullptr, 16));
}

}  // namespace

int vxsysfs_query_chip(int handle, vxapi_priv_database* inst, EXT_CHIP* chip, uint32_t* pext_stat) {
    (void)handle;
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (refused("vxsysfs_query_chip", inst, chip))
        return 1;
    vxdbg_num(TRC, "vxsysfs_query_chip: entered. host_no=", inst->host_no, VXDBG_DEC, 1);
    // The PCI function's own directory: phys_path names it through the driver.
    char device[sizeof inst->phys_path + 1] = {};
    memcpy(device, inst->phys_path, sizeof inst->phys_path);
    if (device[0] == '\0') {
        vxdbg_line(ERR, "vxsysfs_query_chip: no device path.");
        return 0;
    }
    chip->VendorId = pci_hex_attr(device, "vendor");
    chip->DeviceId = pci_hex_attr(device, "device");
    chip->SubVendorId = pci_hex_attr(device, "subsystem_vendor");
    chip->SubSystemId = pci_hex_attr(device, "subsystem_device");
    chip->ChipType = chip->DeviceId;
    if (const vxapi_phy_info* phy = inst->phy_info) {
        chip->PciBusNumber = phy->pci_bus;
        chip->PciSlotNumber = static_cast<uint16_t>(phy->pci_dev_func >> 3);
        chip->PciDevFunc = phy->pci_dev_func;
        chip->DomainNr = phy->pci_domain;
    }
    read_bars(device, chip);
    vxsysfs_path_t path;
    vxsysfs_path_format(path, "%s/%s", device, "irq");
    chip->InterruptLevel = static_cast<uint16_t>(vxsysfs_get_int_attr(path));
    chip->PcieLinkCap = pcie_link(device, "max_link_speed", "max_link_width");
    chip->PcieLinkStat = static_cast<uint16_t>(pcie_link(device, "current_link_speed", "current_link_width"));
    // Our attribute: the flash's erase block size; absent on drivers without it.
    chip->FlashBlockSize = static_cast<uint32_t>(scsi_host_int(inst->host_no, "flash_block_size"));
    memset(chip->OutMbx, 0, sizeof chip->OutMbx);
    ext_stat = 0;
    vxdbg_line(TRC, "vxsysfs_query_chip: exiting.");
    return 0;
}

int vxsysfs_query_fw(int handle, vxapi_priv_database* inst, _EXT_FW* fw, uint32_t* pext_stat) {
    (void)handle;
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (refused("vxsysfs_query_fw", inst, fw))
        return 1;
    vxdbg_num(TRC, "vxsysfs_query_fw: entered. host_no=", inst->host_no, VXDBG_DEC, 1);
    char text[80];
    scsi_host_text(inst->host_no, "fw_version", text, sizeof text);
    // Binary numbers in the text field, as the driver's record has them.
    signed char v[3] = {static_cast<signed char>(fw->Version[0]), static_cast<signed char>(fw->Version[1]),
                        static_cast<signed char>(fw->Version[2])};
    sscanf(text, "%hhd.%02hhd.%02hhd", &v[0], &v[1], &v[2]);
    memcpy(fw->Version, v, sizeof v);
    ext_stat = 0;
    vxdbg_line(TRC, "vxsysfs_query_fw: exiting.");
    return 0;
}

int vxsysfs_query_cnaport(int handle, vxapi_priv_database* inst, EXT_CNA_PORT* cna, uint32_t* pext_stat) {
    (void)handle;
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (refused("vxsysfs_query_cnaport", inst, cna))
        return 1;
    const uint32_t n = inst->host_no;
    vxdbg_num(TRC, "vxsysfs_query_cnaport: entered. host_no=", n, VXDBG_DEC, 1);
    cna->VLanId = static_cast<uint16_t>(scsi_host_int(n, "vlan_id"));
    char text[VXSYSFS_ATTR_LEN];
    scsi_host_text(n, "vn_port_mac_address", text, sizeof text);
    unsigned char mac[6];
    memcpy(mac, cna->VNPortMACAddress, sizeof mac);
    sscanf(text, "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &mac[0], &mac[1], &mac[2], &mac[3], &mac[4], &mac[5]);
    memcpy(cna->VNPortMACAddress, mac, sizeof mac);
    cna->FabricParam = static_cast<uint16_t>(scsi_host_int(n, "fabric_param"));
    ext_stat = 0;
    vxdbg_line(TRC, "vxsysfs_query_cnaport: exiting.");
    return 0;
}

int vxsysfs_get_dcbx_param(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t size, uint32_t* pext_stat) {
    (void)handle;
    uint32_t local = 0;
    pext_stat = pext_stat ? pext_stat : &local;
    *pext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (refused("vxsysfs_get_dcbx_param", inst, buf))
        return 1;
    vxsysfs_path_t path;
    vxsysfs_path_append(path, vxsysfs_get_device_path(path, inst), "dcbx");
    vxdbg_num(TRC, "vxsysfs_get_dcbx_param: entered. host_no=", inst->host_no, VXDBG_DEC, 1);
    // A driver without the attribute lacks the request; the record may be
    // shorter than the caller's buffer (the peer's TLVs vary).
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *pext_stat = EXT_STATUS_INVALID_REQUEST;
        vxdbg_line(ERR, "vxsysfs_get_dcbx_param: no dcbx attribute.");
        return 0;
    }
    close(fd);
    const uint32_t residual = vxsysfs_read_file(path, buf, size);
    if (size - residual < sizeof(EXT_DCBX_PARAM) && residual != 0) {
        vxdbg_num(ERR, "vxsysfs_get_dcbx_param: short record. n=", size - residual, VXDBG_DEC, 1);
        *pext_stat = EXT_STATUS_DATA_UNDERRUN;
        return 0;
    }
    *pext_stat = EXT_STATUS_OK;
    vxdbg_line(TRC, "vxsysfs_get_dcbx_param: exiting.");
    return 0;
}

// ---- Discovered ports, targets and LUNs ----

int vxsysfs_query_discport(int handle, vxapi_priv_database* inst, uint16_t index, EXT_DISC_PORT* port,
                           uint32_t* pext_stat) {
    (void)handle;
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (refused("vxsysfs_query_discport", inst, port))
        return 1;
    memset(port, 0, sizeof *port);
    if (inst->phys_path[0] == '\0')
        return 0;
    vxdbg_num(TRC, "vxsysfs_query_discport: entered. index=", index, VXDBG_DEC, 1);
    // Only online FCP target ports are listed (and counted for the index);
    // the walk's snapshot names the port, its record is read now.
    const vxsysfs_host_dir host(inst->host_no);
    char name[VXSYSFS_RPORT_NAME_LEN];
    if (vxsysfs_walk_port(host, index, name, sizeof name)) {
        rport_info info{};
        vxsysfs_get_rport_attributes(host.fd(), name, &info);
        memcpy(port->WWNN, info.wwnn, sizeof port->WWNN);
        memcpy(port->WWPN, info.wwpn, sizeof port->WWPN);
        memcpy(port->Id + 1, info.port_id, sizeof info.port_id);
        port->TargetId = info.target_id;
        port->Type = EXT_DEF_TARGET_DEV;
        port->Bus = 0;
        port->LoopID = 0xFFFF;
        ext_stat = 0;
    }
    vxdbg_num(TRC, "vxsysfs_query_discport: exiting. stat=", ext_stat, VXDBG_DEC, 1);
    return 0;
}

int vxsysfs_query_disctgt(int handle, vxapi_priv_database* inst, uint16_t tid, EXT_DISC_TARGET* tgt,
                          uint32_t* pext_stat) {
    (void)handle;
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (refused("vxsysfs_query_disctgt", inst, tgt))
        return 1;
    memset(tgt, 0, sizeof *tgt);
    if (inst->phys_path[0] == '\0')
        return 0;
    vxdbg_num(TRC, "vxsysfs_query_disctgt: entered. tid=", tid, VXDBG_DEC, 1);
    // The host's LUNs with this target id, on every channel its remote ports
    // use: each target is looked up by name, not found by listing them all.
    const vxsysfs_host_dir host(inst->host_no);
    const uint64_t channels = vxsysfs_host_channels(host);
    char holder[VXSYSFS_RPORT_NAME_LEN] = "";
    for (uint32_t c = 0; c < 64; ++c) {
        if (!(channels & (uint64_t{1} << c)))
            continue;
        const int fd = vxsysfs_open_target(inst->host_no, c, tid);
        if (fd < 0)
            continue;
        tgt->LunCount = static_cast<uint16_t>(tgt->LunCount + vxsysfs_count_target_luns(fd, nullptr, 0));
        close(fd);
        if (holder[0] == '\0')
            vxsysfs_target_rport(inst->host_no, c, tid, holder, sizeof holder);
    }
    if (tgt->LunCount == 0)
        return 0;
    // The port with this target id: the one that holds the target, as its own
    // attribute confirms; else the first such port of the host.
    rport_info info{};
    bool found = false;
    if (holder[0] != '\0') {
        vxsysfs_get_rport_attributes(host.fd(), holder, &info);
        found = info.target_id == tid;
    }
    if (!found)
        each_rport(host, [&](const char* name) {
            char text[VXSYSFS_ATTR_LEN];
            vxsysfs_rport_text(host.fd(), name, "scsi_target_id", text, sizeof text);
            if (strtoul(text, nullptr, 10) != tid)
                return true;
            vxsysfs_get_rport_attributes(host.fd(), name, &info);
            found = true;
            return false;
        });
    if (!found)
        return 0;
    memcpy(tgt->WWNN, info.wwnn, sizeof tgt->WWNN);
    memcpy(tgt->WWPN, info.wwpn, sizeof tgt->WWPN);
    memcpy(tgt->Id + 1, info.port_id, sizeof info.port_id);
    tgt->TargetId = info.target_id;
    tgt->Type = EXT_DEF_TARGET_DEV;
    ext_stat = 0;
    vxdbg_num(TRC, "vxsysfs_query_disctgt: exiting. luns=", tgt->LunCount, VXDBG_DEC, 1);
    return 0;
}

void vxsysfs_count_luns(uint32_t host_no, TGT_LUN_DATA_ENTRY* entry, uint32_t max_lun) {
    if (!entry)
        return;
    entry->LunCount = 0;
    // Channel 0 only, as the driver's list has it.
    const int fd = vxsysfs_open_target(host_no, 0, entry->TargetId);
    if (fd < 0)
        return;
    entry->LunCount = static_cast<uint16_t>(
        vxsysfs_count_target_luns(fd, reinterpret_cast<uint8_t*>(entry) + TGT_LUN_DATA_ENTRY_HEADER, max_lun));
    close(fd);
}

int vxsysfs_get_tgt_lun_data_list(int handle, vxapi_priv_database* inst, _TGT_LUN_DATA_LIST* list,
                                  uint32_t list_len, uint32_t* pext_stat) {
    (void)handle;
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    ext_stat = EXT_STATUS_INVALID_PARAM;
    if (refused("vxsysfs_get_tgt_lun_data_list", inst, list))
        return 1;
    // A buffer without room for the list head is left unwritten.
    if (list_len < TGT_LUN_DATA_LIST_HEADER)
        return 1;
    const uint32_t map = (inst->features & VX_FEAT_DRV_CAP4) ? TGT_LUN_MAP_LARGE : TGT_LUN_MAP_SMALL;
    const uint32_t entry_size = map + TGT_LUN_DATA_ENTRY_HEADER;
    list->EntryCount = 0;
    uint32_t room = list_len - static_cast<uint32_t>(TGT_LUN_DATA_LIST_HEADER);
    if (room < entry_size)
        return 1;
    vxdbg_num(TRC, "vxsysfs_get_tgt_lun_data_list: entered. len=", list_len, VXDBG_DEC, 1);
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    auto* next = reinterpret_cast<uint8_t*>(list) + TGT_LUN_DATA_LIST_HEADER;
    const vxsysfs_host_dir host(inst->host_no);
    each_rport(host, [&](const char* name) {
        if (room < entry_size)
            return false;
        if (!vxsysfs_rport_listed(host.fd(), name))
            return true;
        rport_info info{};
        vxsysfs_get_rport_attributes(host.fd(), name, &info);
        // The entry names its target in one byte: a larger id is left out
        // rather than reported as another target's.
        if (info.target_id > VX_TGT_LUN_MAX_TARGET) {
            vxdbg_num(TRC, "vxsysfs_get_tgt_lun_data_list: target id beyond the list=", info.target_id, VXDBG_DEC,
                      1);
            return true;
        }
        auto* entry = reinterpret_cast<TGT_LUN_DATA_ENTRY*>(next);
        memset(entry, 0, entry_size);
        memcpy(entry->NodeName, info.wwnn, sizeof entry->NodeName);
        memcpy(entry->PortName, info.wwpn, sizeof entry->PortName);
        memcpy(entry->PortId + 1, info.port_id, sizeof info.port_id);
        entry->TargetId = static_cast<uint8_t>(info.target_id);
        entry->BusNumber = 0;
        entry->DevType = EXT_DEF_TARGET_DEV;
        vxsysfs_count_luns(inst->host_no, entry, map);
        ++list->EntryCount;
        next += entry_size;
        room -= entry_size;
        return true;
    });
    if (list->EntryCount == 0)
        return 1;
    ext_stat = 0;
    vxdbg_num(TRC, "vxsysfs_get_tgt_lun_data_list: exiting. entries=", list->EntryCount, VXDBG_DEC, 1);
    return 0;
}

namespace {

// Which remote ports a port-summary type mask selects.
bool summary_selects(uint32_t mask, bool online, bool target, bool initiator, uint32_t port_id) {
    if (mask & VX_PORTSUM_ALL)
        return true;
    if (!online && !(mask & VX_PORTSUM_OFFLINE))
        return false;
    const bool is_initiator = initiator && !target;
    const bool fabric = port_id >= 0xFFF000;
    const bool other = !target && !is_initiator && !fabric;
    return ((mask & VX_PORTSUM_TARGET) && target) || ((mask & VX_PORTSUM_INITIATOR) && is_initiator) ||
           ((mask & VX_PORTSUM_FABRIC) && fabric) || ((mask & VX_PORTSUM_OTHER) && other);
}

}  // namespace

int vxsysfs_get_port_summary(int handle, vxapi_priv_database* inst, uint32_t* type_mask,
                             EXT_DEVICEDATA* data, uint32_t size, uint32_t* pext_stat, uint32_t* pext_dstat) {
    (void)handle;
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (pext_dstat)
        *pext_dstat = 0;
    if (refused("vxsysfs_get_port_summary", inst, data) || !type_mask)
        return 1;
    if (size < EXT_DEVICEDATA_HEADER) {
        ext_stat = EXT_STATUS_INVALID_PARAM;
        return 1;
    }
    const uint32_t mask = *type_mask;
    vxdbg_num(TRC, "vxsysfs_get_port_summary: entered. type mask=", mask, VXDBG_HEX, 1);
    data->TotalDevices = 0;
    data->ReturnListEntryCount = 0;
    const uint32_t room = static_cast<uint32_t>((size - EXT_DEVICEDATA_HEADER) / sizeof(EXT_DEVICEDATAENTRY));
    auto* entries = reinterpret_cast<uint8_t*>(data) + EXT_DEVICEDATA_HEADER;
    const vxsysfs_host_dir host(inst->host_no);
    each_rport(host, [&](const char* name) {
        char text[VXSYSFS_ATTR_LEN];
        vxsysfs_rport_text(host.fd(), name, "port_state", text, sizeof text);
        const bool online = strcmp(text, "Online") == 0;
        vxsysfs_rport_text(host.fd(), name, "roles", text, sizeof text);
        const bool target = strstr(text, "FCP Target") != nullptr;
        const bool initiator = strstr(text, "FCP Initiator") != nullptr;
        rport_info info{};
        vxsysfs_get_rport_attributes(host.fd(), name, &info);
        const uint32_t port_id = static_cast<uint32_t>(info.port_id[0]) << 16 |
                                 static_cast<uint32_t>(info.port_id[1]) << 8 | info.port_id[2];
        if (!summary_selects(mask, online, target, initiator, port_id))
            return true;
        ++data->TotalDevices;
        if (data->ReturnListEntryCount >= room)
            return true;
        EXT_DEVICEDATAENTRY entry{};
        memcpy(entry.NodeWWN, info.wwnn, sizeof entry.NodeWWN);
        memcpy(entry.PortWWN, info.wwpn, sizeof entry.PortWWN);
        memcpy(entry.PortID, info.port_id, sizeof entry.PortID);
        entry.ControlFlags = static_cast<uint8_t>((target ? VX_DEVCTL_TARGET : 0) |
                                                  (initiator ? VX_DEVCTL_INITIATOR : 0) |
                                                  (info.port_id[0] != 0 ? VX_DEVCTL_FABRIC : 0));
        entry.TargetAddress.Bus = rport_channel(name);
        entry.TargetAddress.Target = info.has_target_id ? info.target_id : 0xFFFF;
        entry.TargetAddress.Lun = 0;
        entry.DeviceFlags = online ? VX_DEVFLAG_ONLINE : 0;
        entry.LoopID = 0xFFFF;  // sysfs knows no loop ids
        entry.BaseLunNumber = 0;
        memcpy(entries + data->ReturnListEntryCount * sizeof entry, &entry, sizeof entry);
        ++data->ReturnListEntryCount;
        return true;
    });
    ext_stat = 0;
    vxdbg_num(TRC, "vxsysfs_get_port_summary: exiting. devices=", data->TotalDevices, VXDBG_DEC, 1);
    return 0;
}

int vxsysfs_wwpn_to_scsiaddr(int handle, vxapi_priv_database* inst, const uint8_t* wwpn,
                             uint32_t wwpn_len, EXT_SCSI_ADDR* addr, uint32_t* pext_stat) {
    (void)handle;
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (refused("vxsysfs_wwpn_to_scsiaddr", inst, wwpn) || !addr)
        return 1;
    if (wwpn_len < 8) {
        ext_stat = EXT_STATUS_INVALID_PARAM;
        return 1;
    }
    const vxsysfs_host_dir host(inst->host_no);
    bool found = false;
    each_rport(host, [&](const char* name) {
        char text[VXSYSFS_ATTR_LEN];
        uint8_t port_name[8];
        vxsysfs_rport_text(host.fd(), name, "port_name", text, sizeof text);
        vxsysfs_to_array_hex(port_name, text, sizeof port_name);
        if (memcmp(port_name, wwpn, sizeof port_name) != 0)
            return true;
        vxsysfs_rport_text(host.fd(), name, "scsi_target_id", text, sizeof text);
        addr->Bus = rport_channel(name);
        addr->Target = static_cast<uint16_t>(strtoul(text, nullptr, 10));
        found = true;
        return false;
    });
    if (!found)
        return 0;
    addr->Lun = 0;
    ext_stat = 0;
    return 0;
}

int vxsysfs_get_devname(uint32_t host_no, uint32_t channel, uint32_t target, uint32_t lun, char* name,
                        size_t name_len) {
    if (!name || name_len == 0)
        return 1;
    name[0] = '\0';
    // A disk names its block device; every LUN has a SCSI generic node.
    for (const char* kind : {"block", "scsi_generic"}) {
        vxsysfs_path_t dir;
        vxsysfs_path_format(dir, "%s/%s/%s/%d:%d:%d:%d/%s", sysfs_mnt_path, "bus/scsi", "devices",
                            static_cast<int>(host_no), static_cast<int>(channel), static_cast<int>(target),
                            static_cast<int>(lun), kind);
        vxsysfs_list_hold list(sysfs_open_directory_list(dir));
        bool found = false;
        vx_dlist_each<char>(list.get(), [&](char* entry) {
            if (strlen(entry) >= name_len)
                return true;
            memcpy(name, entry, strlen(entry) + 1);
            found = true;
            return false;
        });
        if (found)
            return 0;
    }
    return 1;
}
