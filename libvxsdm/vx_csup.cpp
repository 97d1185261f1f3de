// Common HBA API support: the driver's node, port and discovered-port
// records copied field by field into the standard's adapter and port
// attributes, and the names the operating system gives ports and targets.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "vx_adapters.h"
#include "vx_capi.h"
#include "vx_sddbg.h"
#include "vx_sysfs.h"

namespace {

constexpr uint32_t TRC = VXDBG_TRACE | VXDBG_HBAAPI;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_HBAAPI;

constexpr size_t HW_VERSION_LEN = 256;
constexpr size_t VPD_FIELD_LEN = 255;           // the longest text a VPD field gives an attribute
constexpr uint32_t NVRAM_HW_VERSION_OFFSET = 112;  // older families keep the board revision here
constexpr uint32_t NVRAM_HW_VERSION_LEN = 16;

// Driver speed code to the standard's bits: what the port supports (the
// slower speeds of its generation included) and what it runs at.
struct speed_row {
    uint8_t code;
    HBA_PORTSPEED supported;
    HBA_PORTSPEED current;
};
constexpr speed_row speeds[] = {
    {VX_SPEED_1G, 0x01, 0x01},  {VX_SPEED_2G, 0x03, 0x02},  {VX_SPEED_4G, 0x0B, 0x08},
    {VX_SPEED_8G, 0x1B, 0x10},  {VX_SPEED_10G, 0x04, 0x04}, {VX_SPEED_16G, 0x38, 0x20},
    {VX_SPEED_32G, 0x70, 0x40},
};

const speed_row* find_speed(uint8_t code) {
    for (const speed_row& row : speeds)
        if (row.code == code)
            return &row;
    return nullptr;
}

// "%s" of a driver text that need not be terminated, into `size` bytes.
void format_text(char* dst, size_t size, const char* prefix, const uint8_t* src, size_t src_size,
                 const char* suffix = "") {
    snprintf(dst, size, "%s%.*s%s", prefix,
             static_cast<int>(strnlen(reinterpret_cast<const char*>(src), src_size)),
             reinterpret_cast<const char*>(src), suffix);
}

uint16_t device_id_of(const vxapi_priv_database* inst) { return inst->phy_info ? inst->phy_info->device_id : 0; }

// FC-4 type bits of the driver's byte in the standard's 32-byte map.
void copy_fc4_types(uint8_t driver_bits, HBA_FC4TYPES* types) {
    memset(types->bits, 0, sizeof types->bits);
    if (driver_bits & 0x1)
        types->bits[1] = 0x01;
    if (driver_bits & 0x2)
        types->bits[0] = 0x02;
}

// Hardware version (and, on the newest families, the model description)
// from what the board keeps about itself.
void copy_board_texts(vxapi_priv_database* inst, HBA_ADAPTERATTRIBUTES* attrs) {
    memset(attrs->HardwareVersion, 0, HW_VERSION_LEN);
    const uint16_t device_id = device_id_of(inst);
    uint32_t stat = 0;
    if (!vx_adapter_has(device_id, VX_MARK_NEWER)) {
        uint8_t nvram[VX_NVRAM_SIZE] = {};
        if (vxapi_get_nvram(inst->oshandle, inst, nvram, sizeof nvram, &stat) == 0 && stat == 0)
            memcpy(attrs->HardwareVersion, nvram + NVRAM_HW_VERSION_OFFSET, NVRAM_HW_VERSION_LEN);
        else
            vxdbg_num(ERR, "vxcapi_copy_hbanode_attributes: get nvram failed. stat=", stat, VXDBG_DEC, 1);
        return;
    }
    uint8_t vpd[VX_VPD_SIZE_LARGE] = {};
    if (vxapi_get_vpd(inst->oshandle, inst, vpd, vxcapi_node_vpd_size(device_id), &stat) != 0 || stat != 0) {
        vxdbg_num(ERR, "vxcapi_copy_hbanode_attributes: get vpd failed. stat=", stat, VXDBG_DEC, 1);
        return;
    }
    vxapi_get_field_from_vpd(vpd, "MN", 2, reinterpret_cast<uint8_t*>(attrs->HardwareVersion), VPD_FIELD_LEN);
    if (!vxcapi_vpd_names_model(device_id))
        return;
    // Only a description the VPD really has replaces the one made from the model.
    uint8_t ident[VPD_FIELD_LEN + 1] = {};
    if (vxapi_get_field_from_vpd(vpd, "", 1, ident, VPD_FIELD_LEN) == 0)
        memcpy(attrs->ModelDescription, ident, sizeof ident);
}

}  // namespace

HBA_PORTSPEED vxcapi_supported_speed(uint8_t code) {
    const speed_row* row = find_speed(code);
    return row ? row->supported : 0;
}

HBA_PORTSPEED vxcapi_port_speed(uint8_t code) {
    const speed_row* row = find_speed(code);
    return row ? row->current : 0;
}

bool vxcapi_vpd_names_model(uint16_t device_id) { return vx_adapter_has(device_id, VX_MARK_VPD_MODEL); }

uint32_t vxcapi_node_vpd_size(uint16_t device_id) {
    return vx_adapter_has(device_id, VX_MARK_CNA) ? VX_VPD_SIZE_LARGE : vxapi_get_vpd_size(device_id);
}

HBA_UINT32 vxcapi_fcid(const uint8_t id[4]) {
    return static_cast<HBA_UINT32>(id[1]) << 16 | static_cast<HBA_UINT32>(id[2]) << 8 | id[3];
}

void vxcapi_copy_hbanode_attributes(vxapi_priv_database* inst, const EXT_HBA_NODE* node,
                                    HBA_ADAPTERATTRIBUTES* attrs) {
    vxdbg_line(TRC, "vxcapi_copy_hbanode_attributes: entered.");
    const vxapi_phy_info* phy = inst->phy_info;
    memcpy(attrs->Manufacturer, node->Manufacturer, sizeof attrs->Manufacturer);
    if (phy)
        format_text(attrs->SerialNumber, 32, "", phy->serial_num, sizeof phy->serial_num);
    memcpy(attrs->Model, node->Model, sizeof node->Model);
    format_text(attrs->ModelDescription, sizeof attrs->ModelDescription, "Varnex ", node->Model, sizeof node->Model);
    memcpy(attrs->NodeWWN.wwn, inst->wwnn, sizeof attrs->NodeWWN.wwn);
    format_text(attrs->NodeSymbolicName, sizeof attrs->NodeSymbolicName, "", node->Model, sizeof node->Model,
                " HBA Driver");
    copy_board_texts(inst, attrs);
    format_text(attrs->DriverVersion, sizeof attrs->DriverVersion, "v.", node->DriverVersion,
                sizeof node->DriverVersion);
    format_text(attrs->OptionROMVersion, sizeof attrs->OptionROMVersion, "v.", node->OptRomVersion,
                sizeof node->OptRomVersion);
    format_text(attrs->FirmwareVersion, sizeof attrs->FirmwareVersion, "v.", node->FWVersion, sizeof node->FWVersion);
    attrs->VendorSpecificID = 0;
    // Every port is an adapter of its own to this interface.
    attrs->NumberOfPorts = 1;
    if (phy)
        format_text(attrs->DriverName, 16, "", phy->model, sizeof phy->model);
    vxdbg_line(TRC, "vxcapi_copy_hbanode_attributes: exiting.");
}

void vxcapi_copy_hbaport_attributes(vxapi_priv_database* inst, const EXT_HBA_PORT* port,
                                    HBA_PORTATTRIBUTES* attrs) {
    vxdbg_line(TRC, "vxcapi_copy_hbaport_attributes: entered.");
    const bool sysfs = (inst->features & VX_FEAT_SYSFS) != 0;
    memcpy(attrs->NodeWWN.wwn, inst->wwnn, sizeof attrs->NodeWWN.wwn);
    memcpy(attrs->PortWWN.wwn, port->WWPN, sizeof attrs->PortWWN.wwn);
    attrs->PortFcId = vxcapi_fcid(port->Id);
    attrs->PortType = port->Mode == 1 ? HBA_PORTTYPE_NPORT : HBA_PORTTYPE_NLPORT;
    switch (port->State) {
    case 0: attrs->PortState = HBA_PORTSTATE_ONLINE; break;
    case 1: attrs->PortState = HBA_PORTSTATE_OFFLINE; break;
    case 2: attrs->PortState = HBA_PORTSTATE_LINKDOWN; break;
    default: attrs->PortState = HBA_PORTSTATE_UNKNOWN; break;
    }
    attrs->PortSupportedClassofService = 0;
    copy_fc4_types(port->PortSupportedFC4Types, &attrs->PortSupportedFc4Types);
    copy_fc4_types(port->PortActiveFC4Types, &attrs->PortActiveFc4Types);
    attrs->PortSymbolicName[0] = '\0';

    char* os_name = attrs->OSDeviceName;
    if (sysfs) {
        vxsysfs_path_t path;
        vxsysfs_get_scsi_host_path(path, static_cast<uint16_t>(inst->host_no));
        if (char* slash = strrchr(path, '/'))
            *slash = '\0';
        snprintf(os_name, sizeof attrs->OSDeviceName, "%s", path);
    } else if (OS_Type == VX_OS_ESX) {
        if (port->OSDeviceName != 0)
            snprintf(os_name, sizeof attrs->OSDeviceName, "vmhba%d", static_cast<int>(port->OSDeviceName));
    } else {
        const uint8_t* model = inst->phy_info ? inst->phy_info->model : reinterpret_cast<const uint8_t*>("");
        const size_t model_len = inst->phy_info ? sizeof inst->phy_info->model : 1;
        char host[16];
        snprintf(host, sizeof host, "/%u", inst->host_no);
        format_text(os_name, sizeof attrs->OSDeviceName, "/proc/scsi/", model, model_len, host);
    }

    attrs->PortSupportedSpeed = vxcapi_supported_speed(port->PortSupportedSpeed);
    attrs->PortSpeed = vxcapi_port_speed(port->PortSpeed);
    attrs->PortMaxFrameSize = 2048;
    if (sysfs)
        memcpy(attrs->FabricName.wwn, port->FabricName, sizeof attrs->FabricName.wwn);
    else
        memset(attrs->FabricName.wwn, 0, sizeof attrs->FabricName.wwn);
    attrs->NumberofDiscoveredPorts = port->DiscPortCount;
    vxdbg_line(TRC, "vxcapi_copy_hbaport_attributes: exiting.");
}

void vxcapi_copy_discport_attributes(vxapi_priv_database* inst, const EXT_DISC_PORT* disc,
                                     HBA_PORTATTRIBUTES* attrs) {
    vxdbg_line(TRC, "vxcapi_copy_discport_attributes: entered.");
    memcpy(attrs->NodeWWN.wwn, disc->WWNN, sizeof attrs->NodeWWN.wwn);
    memcpy(attrs->PortWWN.wwn, disc->WWPN, sizeof attrs->PortWWN.wwn);
    attrs->PortFcId = vxcapi_fcid(disc->Id);
    // The driver's type and state codes are not the standard's: a remote
    // port is reported as of unknown type and state.
    attrs->PortType = HBA_PORTTYPE_UNKNOWN;
    attrs->PortState = HBA_PORTSTATE_UNKNOWN;
    attrs->PortSupportedClassofService = 0;
    memset(attrs->PortSupportedFc4Types.bits, 0, sizeof attrs->PortSupportedFc4Types.bits);
    memset(attrs->PortActiveFc4Types.bits, 0, sizeof attrs->PortActiveFc4Types.bits);
    attrs->PortSymbolicName[0] = '\0';
    vxapi_get_tgt_osdevname(inst, disc->TargetId, attrs->OSDeviceName, sizeof attrs->OSDeviceName);
    attrs->PortSupportedSpeed = 0;
    attrs->PortSpeed = HBA_PORTSPEED_1GBIT;
    attrs->PortMaxFrameSize = 2048;
    // Only the first byte: clients have always seen the rest of their own record there.
    attrs->FabricName.wwn[0] = 0;
    attrs->NumberofDiscoveredPorts = 0;
    vxdbg_line(TRC, "vxcapi_copy_discport_attributes: exiting.");
}

int vxapi_get_tgt_osdevname(const vxapi_priv_database* inst, uint16_t target_id, char* name, size_t len) {
    if (!name || len == 0)
        return 1;
    name[0] = '\0';
    if (!inst)
        return 1;
    char root[VXSYSFS_PATH_LEN];
    vxsysfs_root(root, sizeof root);
    char target[48];
    snprintf(target, sizeof target, "target%u:0:%u", inst->host_no, static_cast<unsigned>(target_id));
    char path[VXSYSFS_PATH_LEN + sizeof target + 32];
    snprintf(path, sizeof path, "%s/bus/scsi/devices/%s", root, target);
    struct stat st {};
    if (stat(path, &st) != 0 || !S_ISDIR(st.st_mode)) {
        vxdbg_num(TRC, "vxapi_get_tgt_osdevname: no scsi target for tid=", target_id, VXDBG_DEC, 1);
        return 1;
    }
    snprintf(name, len, "%s", target);
    return 0;
}
