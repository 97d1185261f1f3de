// SD management interface: device properties (node, port, chip, driver,
// firmware, converged port) and what the port has discovered (remote ports,
// targets, the port database, a target's LUNs). Each call resolves its
// handle, runs one leaf operation into a local driver record and converts
// that record field by field into the caller's, which it never clears.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "exioctln.h"
#include "vsdmgt.h"
#include "vx_adapters.h"
#include "vx_core.h"
#include "vx_sdapi.h"
#include "vx_sddbg.h"

namespace vxsd {

void trace_call(uint32_t guard, const char* name, int handle, const char* text, uint64_t number, uint8_t radix) {
    if (!vxdbg_on(guard))
        return;
    vxdbg_print(name, 0, VXDBG_NONE, 0);
    vxdbg_print("(", static_cast<uint32_t>(handle), VXDBG_DEC, 0);
    vxdbg_print(text, number, radix, 1);
}

void trace_entry(const char* name, int handle) { trace_call(SD_TRACE, name, handle, "): entered."); }

void trace_exit(const char* name, int handle, uint32_t ret) {
    trace_call(SD_TRACE, name, handle, "): exiting. ret=", ret, VXDBG_HEX);
}

vxapi_priv_database* resolve(const char* name, int handle) {
    vxapi_priv_database* inst = check_handle(static_cast<uint32_t>(handle));
    if (!inst && vxdbg_on(SD_ERROR)) {
        vxdbg_print(name, 0, VXDBG_NONE, 0);
        vxdbg_print(": check_handle failed. handle=", static_cast<uint32_t>(handle), VXDBG_DEC, 1);
    }
    return inst;
}

uint32_t null_record(const char* name, int handle) {
    trace_call(SD_ERROR, name, handle, "): invalid parameter.");
    return SDM_STATUS_INVALID_PARAMETER;
}

uint32_t errno_status() { return errno != 0 ? static_cast<uint32_t>(errno) : SDM_STATUS_UNKNOWN_ERROR; }

uint32_t failure_status(int32_t rc, uint32_t ext_stat) {
    if (ext_stat != EXT_STATUS_OK)
        return SDXlateSDMErr(ext_stat, 0);
    if (rc < 0)
        return errno_status();
    return SDM_STATUS_UNKNOWN_ERROR;
}

vxapi_priv_database* flash_port(vxapi_priv_database* inst) {
    return inst->interface_type == VX_IFTYPE_VIRTUAL && inst->parent ? inst->parent : inst;
}

bool tolerated(uint32_t ext_stat) {
    return ext_stat == EXT_STATUS_OK || ext_stat == EXT_STATUS_DATA_OVERRUN || ext_stat == EXT_STATUS_DATA_UNDERRUN;
}

uint32_t record_status(const char* name, int handle, int32_t rc, uint32_t ext_stat, bool* convert) {
    *convert = false;
    if (!tolerated(ext_stat)) {
        trace_call(SD_ERROR, name, handle, "): bad stat ", ext_stat, VXDBG_DEC);
        return SDXlateSDMErr(ext_stat, 0);
    }
    if (rc < 0) {
        const uint32_t status = errno_status();
        trace_call(SD_ERROR, name, handle, "): ioctl failed ", status, VXDBG_DEC);
        return status;
    }
    if (rc == 0) {
        *convert = true;
        return SDXlateSDMErr(ext_stat, 0);
    }
    return SDM_STATUS_UNKNOWN_ERROR;
}

}  // namespace vxsd

using namespace vxsd;

namespace {

// Status rule of the chip, driver and firmware calls: only a clean answer
// converts. `failure` is the call's own trace text.
uint32_t strict_status(const char* failure, int32_t rc, uint32_t ext_stat) {
    if (rc == 0 && ext_stat == EXT_STATUS_OK)
        return SDM_STATUS_SUCCESS;
    const int err = errno;
    if (vxdbg_on(SD_ERROR)) {
        vxdbg_print(failure, ext_stat, VXDBG_DEC, 0);
        vxdbg_print(" errno=", static_cast<uint64_t>(err), VXDBG_DEC, 1);
    }
    if (ext_stat != EXT_STATUS_OK)
        return SDXlateSDMErr(ext_stat, 0);
    if (rc < 0)
        return err != 0 ? static_cast<uint32_t>(err) : SDM_STATUS_UNKNOWN_ERROR;
    return SDM_STATUS_UNKNOWN_ERROR;
}

void copy_port_id(uint8_t dst[3], const uint8_t id[4]) { memcpy(dst, id + 1, 3); }

// "%s" into a bounded field from a text that need not be terminated.
void format_text(char* dst, size_t dst_size, const uint8_t* src, size_t src_size) {
    snprintf(dst, dst_size, "%.*s", static_cast<int>(strnlen(reinterpret_cast<const char*>(src), src_size)),
             reinterpret_cast<const char*>(src));
}

uint32_t node_conversion(int handle, vxapi_priv_database* inst, EXT_HBA_NODE& node, DEVICENODEPROPERTY* prop) {
    const vxapi_phy_info* phy = inst->phy_info;
    const uint16_t device_id = phy ? phy->device_id : 0;
    vxapi_refresh_node_boot_versions(inst, &node);
    memcpy(prop->WWN, node.WWNN, sizeof prop->WWN);
    memcpy(prop->Manufacturer, node.Manufacturer, sizeof prop->Manufacturer);
    // At most 15 characters, although the field holds 32: callers size their
    // displays for it.
    format_text(prop->Model, 16, node.Model, sizeof node.Model);
    if (phy)
        format_text(reinterpret_cast<char*>(prop->SerialNumber), sizeof prop->SerialNumber, phy->serial_num,
                    sizeof phy->serial_num);
    memcpy(prop->DriverVersion, node.DriverVersion, sizeof prop->DriverVersion);
    memcpy(prop->FirmwareVersion, node.FWVersion, sizeof prop->FirmwareVersion);
    memcpy(prop->OptionRomVersion, node.OptRomVersion, sizeof prop->OptionRomVersion);
    prop->NumberOfPorts = node.InterfaceType == VX_IFTYPE_PHYSICAL ? 1 : node.PortCount;
    prop->InterfaceType = node.InterfaceType;
    prop->DriverAttributes = node.DriverAttr;
    prop->FirmwareAttributes = node.FWAttr;
    memcpy(prop->BIFwVersion, node.BIFwVersion, sizeof prop->BIFwVersion);
    prop->BIValid |= SDM_BI_FW_VALID;
    memcpy(prop->BIEfiVersion, node.BIEfiVersion, sizeof prop->BIEfiVersion);
    prop->BIValid |= SDM_BI_EFI_VALID;
    memcpy(prop->BIFCodeVersion, node.BIFCodeVersion, sizeof prop->BIFCodeVersion);
    prop->BIValid |= SDM_BI_FCODE_VALID;

    if (vx_adapter_has(device_id, VX_MARK_MPI_PEP)) {
        // The running versions go to MpiFwVersion/PepFwVersion; the BI fields
        // carry the copies in flash.
        memcpy(prop->MpiFwVersion, node.BIMpiFwVersion, sizeof prop->MpiFwVersion);
        memcpy(prop->PepFwVersion, node.BIPepFwVersion, sizeof prop->PepFwVersion);
        const uint32_t layout = SDGetOptionRomLayout(handle, 0, nullptr);
        if (layout != SDM_STATUS_SUCCESS) {
            vxdbg_num(SD_ERROR, "SDGetHbaDeviceNodeProperty: GetOptionRomLayout failed. handle=",
                      static_cast<uint32_t>(handle), VXDBG_HEX, 1);
            return layout;
        }
        if (vxapi_get_flash_mpi_pep_versions(static_cast<uint32_t>(handle), inst, prop->BIMpiFwVersion,
                                             prop->BIPepFwVersion) == 0)
            prop->BIValid |= SDM_BI_MPI_VALID | SDM_BI_PEP_VALID;
    }
    return SDM_STATUS_SUCCESS;
}

}  // namespace

// ---- Device properties ----

extern "C" VXSD_API SD_UINT32 SDGetHbaDeviceNodeProperty(int Device, DEVICENODEPROPERTY* pNodeProperty) {
    static constexpr const char* name = "SDGetHbaDeviceNodeProperty";
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!pNodeProperty)
        return null_record(name, Device);
    EXT_HBA_NODE node{};
    uint32_t ext_stat = 0;
    const int32_t rc = vxapi_query_hbanode(inst->oshandle, inst, &node, &ext_stat);
    bool convert = false;
    uint32_t status = record_status(name, Device, rc, ext_stat, &convert);
    if (convert) {
        const uint32_t flash = node_conversion(Device, inst, node, pNodeProperty);
        if (flash != SDM_STATUS_SUCCESS)
            status = flash;
    }
    trace_exit(name, Device, status);
    return status;
}

extern "C" VXSD_API SD_UINT32 SDGetHbaDevicePortProperty(int Device, SD_UINT16 HbaDevPortNum,
                                                         DEVICEPORTPROPERTY* pPortProperty) {
    static constexpr const char* name = "SDGetHbaDevicePortProperty";
    (void)HbaDevPortNum;  // one port per handle
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!pPortProperty)
        return null_record(name, Device);
    EXT_HBA_PORT port{};
    uint32_t ext_stat = 0;
    const int32_t rc = vxapi_query_hbaport(inst->oshandle, inst, &port, &ext_stat);
    bool convert = false;
    const uint32_t status = record_status(name, Device, rc, ext_stat, &convert);
    if (convert) {
        DEVICEPORTPROPERTY* p = pPortProperty;
        memcpy(p->WWN, port.WWPN, sizeof p->WWN);
        copy_port_id(p->PortID, port.Id);
        if (port.Type == EXT_DEF_INITIATOR_DEV || port.Type == EXT_DEF_TARGET_DEV)
            p->PortType = static_cast<SD_UINT8>(port.Type);
        p->PortState = port.State == 0 ? 1 : port.State == 2 ? 3 : 2;
        if (port.Mode == 1 || port.Mode == 2)
            p->ConnectionMode = static_cast<SD_UINT8>(port.Mode);
        p->DiscPortCount = port.DiscPortCount;
        p->DiscTargetCount = port.DiscTargetCount;
        p->PortSpeed = port.PortSpeed;  // the driver's speed code, unconverted
        p->LinkState1 = port.LinkState1;
        p->LinkState2 = port.LinkState2;
        p->LinkState3 = port.LinkState3;
        p->LinkState6 = port.LinkState6;
    }
    trace_exit(name, Device, status);
    return status;
}

extern "C" VXSD_API SD_UINT32 SDGetHbaDeviceChipProperty(int Device, CHIPPROPERTY* pChipProperty) {
    static constexpr const char* name = "SDGetHbaDeviceChipProperty";
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!pChipProperty)
        return null_record(name, Device);
    EXT_CHIP chip{};
    uint32_t ext_stat = 0;
    const int32_t rc = vxapi_query_chip(inst->oshandle, inst, &chip, &ext_stat);
    const uint32_t status = strict_status("SDGetHbaDeviceChipProperty: ioctl failed. ext status=", rc, ext_stat);
    if (status == SDM_STATUS_SUCCESS) {
        CHIPPROPERTY* p = pChipProperty;
        p->VendorID = chip.VendorId;
        p->DeviceID = chip.DeviceId;
        p->SubVendorID = chip.SubVendorId;
        p->SubSystemID = chip.SubSystemId;
        p->PciBusNumber = chip.PciBusNumber;
        p->PciSlotNumber = chip.PciDevFunc;  // device and function, as callers have always read it
        p->IoAddress = chip.IoAddr;
        p->IoAddressLength = chip.IoAddrLen;
        p->MemoryAddress = chip.MemAddr;
        p->MemoryAddressLength = chip.MemAddrLen;
        p->ChipType = chip.ChipType;
        p->InterruptLevel = chip.InterruptLevel;
        memcpy(p->OutMbx, chip.OutMbx, sizeof p->OutMbx);
        p->DomainNr = chip.DomainNr;
        p->PcieLinkCap = static_cast<SD_UINT16>(chip.PcieLinkCap);
        p->PcieLinkStat = chip.PcieLinkStat;
        if (inst->phy_info)
            p->PortNumber = inst->phy_info->port_number;
    }
    vxdbg_num(SD_TRACE, "SDGetHbaChipProperty exiting. ret=", status, VXDBG_HEX, 1);
    return status;
}

extern "C" VXSD_API SD_UINT32 SDGetHbaDeviceDriverProperty(int Device, DRIVERPROPERTY* pDriverProperty) {
    static constexpr const char* name = "SDGetHbaDeviceDriverProperty";
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!pDriverProperty)
        return null_record(name, Device);
    EXT_DRIVER drv{};
    uint32_t ext_stat = 0;
    const int32_t rc = vxapi_query_driver(inst->oshandle, inst, &drv, &ext_stat);
    const uint32_t status = strict_status("SDGetHbaDeviceDriverProperty: ioctl failed.ext status=", rc, ext_stat);
    if (status == SDM_STATUS_SUCCESS) {
        DRIVERPROPERTY* p = pDriverProperty;
        memcpy(p->Version, drv.Version, sizeof p->Version);
        p->NumberOfBus = drv.NumOfBus;
        p->TargetsPerBus = drv.TargetsPerBus;
        p->LunsPerTarget = drv.LunsPerTarget;
        p->MaximumTransferLen = drv.MaxTransferLen;
        p->MaximumDataSegments = drv.MaxDataSegments;
        p->DmaBitAddresses = drv.DmaBitAddresses;
        p->IoMapType = drv.IoMapType;
        p->Attributes = drv.Attrib;
        memcpy(p->InternalFlags, drv.InternalFlags, sizeof p->InternalFlags);
    }
    vxdbg_num(SD_TRACE, "SDGetHbaDeviceDriverProperty exiting. ret=", status, VXDBG_HEX, 1);
    return status;
}

extern "C" VXSD_API SD_UINT32 SDGetHbaDeviceFirmwareProperty(int Device, FIRMWAREPROPERTY* pFirmwareProperty) {
    static constexpr const char* name = "SDGetHbaDeviceFirmwareProperty";
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!pFirmwareProperty)
        return null_record(name, Device);
    EXT_FW fw{};
    uint32_t ext_stat = 0;
    const int32_t rc = vxapi_query_fw(inst->oshandle, inst, &fw, &ext_stat);
    const uint32_t status = strict_status("SDGetHbaFirmwareProperty: ioctl failed. ext status=", rc, ext_stat);
    if (status == SDM_STATUS_SUCCESS) {
        // Binary major, minor and subminor; the rest of the text field is not ours.
        memcpy(pFirmwareProperty->Version, fw.Version, 3);
        if (vxdbg_on(SD_TRACE)) {
            vxdbg_print("SDGetHbaFirmwareProperty: fw version=", fw.Version[0], VXDBG_HEX, 0);
            vxdbg_print(" ", fw.Version[1], VXDBG_HEX, 0);
            vxdbg_print(" ", fw.Version[2], VXDBG_HEX, 1);
        }
        const uint64_t attrs = inst->phy_info ? inst->phy_info->running_fw_attributes : 0;
        pFirmwareProperty->Attributes = static_cast<SD_UINT32>(attrs);
        pFirmwareProperty->AttributesExtended = static_cast<SD_UINT32>(attrs >> 32);
    }
    vxdbg_num(SD_TRACE, "SDGetHbaFirmwareProperty exiting. ret=", status, VXDBG_HEX, 1);
    return status;
}

namespace {

uint32_t cna_port_data(int handle, vxapi_priv_database* inst, SD_UINT8* data, SD_UINT32* size) {
    static constexpr const char* name = "SDGetCnaPortData";
    if (*size != sizeof(CNAPORTPROPERTY)) {
        trace_call(SD_ERROR, name, handle, "): invalid size ", *size, VXDBG_DEC);
        return SDM_STATUS_INVALID_PARAMETER;
    }
    EXT_CNA_PORT cna{};
    uint32_t ext_stat = 0;
    const int32_t rc = vxapi_query_cnaport(inst->oshandle, inst, &cna, &ext_stat);
    bool convert = false;
    const uint32_t status = record_status(name, handle, rc, ext_stat, &convert);
    if (convert) {
        // The caller's bytes need not be aligned for the record.
        memcpy(data + offsetof(CNAPORTPROPERTY, VLanId), &cna.VLanId, sizeof cna.VLanId);
        memcpy(data + offsetof(CNAPORTPROPERTY, VNPortMACAddress), cna.VNPortMACAddress,
               sizeof cna.VNPortMACAddress);
        // Only the "not available" mark is passed on; the parameter itself stays the caller's.
        if (!(cna.FabricParam & 0x200)) {
            const SD_UINT16 unavailable = 0x8000;
            memcpy(data + offsetof(CNAPORTPROPERTY, FabricParam), &unavailable, sizeof unavailable);
        }
    }
    return status;
}

uint32_t cna_dcbx(int handle, vxapi_priv_database* inst, SD_UINT8* data, SD_UINT32* size) {
    static constexpr uint32_t MIN_SIZE = 64;
    static constexpr uint32_t WORK_SIZE = 4096;
    if (*size < MIN_SIZE) {
        *size = MIN_SIZE;
        return SDM_STATUS_BUFFER_TOO_SMALL;
    }
    std::unique_ptr<uint8_t[]> work(new (std::nothrow) uint8_t[WORK_SIZE]());
    if (!work)
        return SDM_STATUS_OUT_OF_MEMORY;
    uint32_t ext_stat = 0;
    const int32_t rc = vxapi_get_dcbx_param(inst->oshandle, inst, work.get(), WORK_SIZE, &ext_stat);
    bool convert = false;
    const uint32_t status = record_status("SDGetCnaPortData", handle, rc, ext_stat, &convert);
    if (convert) {
        const uint32_t n = *size < WORK_SIZE ? *size : WORK_SIZE;
        memcpy(data, work.get(), n);
        *size = n;
    }
    return status;
}

uint32_t cna_fcoe_versions(vxapi_priv_database* inst, SD_UINT8* data, SD_UINT32* size) {
    const uint32_t bits = inst->phy_info ? vxapi_get_number_of_bits_set(inst->phy_info->fcoe_valid) : 0;
    const uint32_t needed = bits * sizeof(REGIONVERSION) + offsetof(ADAPTERREGIONVERSION, RegionVersion);
    if (*size < needed) {
        *size = needed;
        return SDM_STATUS_BUFFER_TOO_SMALL;
    }
    std::unique_ptr<uint8_t[]> work(new (std::nothrow) uint8_t[*size]());
    if (!work)
        return SDM_STATUS_OUT_OF_MEMORY;
    if (vxapi_copy_fcoe_versions(inst, work.get(), *size) != 0)
        return SDM_STATUS_UNKNOWN_ERROR;
    memcpy(data, work.get(), *size);
    return SDM_STATUS_SUCCESS;
}

}  // namespace

extern "C" VXSD_API SD_UINT32 SDGetCnaPortData(int Device, SD_UINT16 CnaDevPortNum, SD_UINT32 Operation,
                                               SD_UINT8* pCnaPortData, SD_UINT32* pCnaPortDataSize) {
    static constexpr const char* name = "SDGetCnaPortData";
    (void)CnaDevPortNum;  // one port per handle
    trace_entry(name, Device);
    // The one call whose buffer is refused before its handle is looked at.
    if (!pCnaPortData || !pCnaPortDataSize)
        return null_record(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!inst->phy_info || !vx_adapter_has(inst->phy_info->device_id, VX_MARK_CNA)) {
        trace_call(SD_ERROR, name, Device, "): not a converged adapter.");
        return SDM_STATUS_NOT_SUPPORTED;
    }
    uint32_t status = SDM_STATUS_INVALID_PARAMETER;
    switch (Operation) {
    case SDM_CNA_PORT_DATA: status = cna_port_data(Device, inst, pCnaPortData, pCnaPortDataSize); break;
    case SDM_CNA_DCBX_PARAMS: status = cna_dcbx(Device, inst, pCnaPortData, pCnaPortDataSize); break;
    case SDM_CNA_FCOE_VERSIONS: status = cna_fcoe_versions(inst, pCnaPortData, pCnaPortDataSize); break;
    default: trace_call(SD_ERROR, name, Device, "): invalid operation ", Operation, VXDBG_DEC); break;
    }
    trace_exit(name, Device, status);
    return status;
}

// ---- Discovered ports, targets and the port database ----

extern "C" VXSD_API SD_UINT32 SDGetDiscPortProperty(int Device, SD_UINT16 HbaDevPortNum, SD_UINT32 DiscPortNum,
                                                    SD_UINT32 GetType, DISCPORTPROPERTY* pDiscPortProperty) {
    static constexpr const char* name = "SDGetDiscPortProperty";
    (void)HbaDevPortNum;
    (void)GetType;
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!pDiscPortProperty)
        return null_record(name, Device);
    EXT_DISC_PORT port{};
    uint32_t ext_stat = 0;
    const int32_t rc =
        vxapi_query_discport(inst->oshandle, inst, static_cast<uint16_t>(DiscPortNum), &port, &ext_stat);
    bool convert = false;
    const uint32_t status = record_status(name, Device, rc, ext_stat, &convert);
    if (convert) {
        DISCPORTPROPERTY* p = pDiscPortProperty;
        memcpy(p->NodeWWN, port.WWNN, sizeof p->NodeWWN);
        memcpy(p->PortWWN, port.WWPN, sizeof p->PortWWN);
        copy_port_id(p->PortID, port.Id);
        if (port.Type == EXT_DEF_INITIATOR_DEV || port.Type == EXT_DEF_TARGET_DEV)
            p->PortType = static_cast<SD_UINT8>(port.Type);
        p->BusNumber = port.Bus;
        p->TargetID = port.TargetId;
        p->PortState = static_cast<SD_UINT8>(port.Status);
        p->LoopID = port.LoopID;
    }
    trace_exit(name, Device, status);
    return status;
}

extern "C" VXSD_API SD_UINT32 SDGetDiscTargetProperty(int Device, SD_UINT16 HbaDevPortNum, SD_UINT32 DiscTargetNum,
                                                      SD_UINT32 GetType, DISCTARGETPROPERTY* pDiscTargetProperty) {
    static constexpr const char* name = "SDGetDiscTargetProperty";
    (void)HbaDevPortNum;
    (void)GetType;
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!pDiscTargetProperty)
        return null_record(name, Device);
    EXT_DISC_TARGET tgt{};
    uint32_t ext_stat = 0;
    const int32_t rc =
        vxapi_query_disctgt(inst->oshandle, inst, static_cast<uint16_t>(DiscTargetNum), &tgt, &ext_stat);
    bool convert = false;
    uint32_t status = record_status(name, Device, rc, ext_stat, &convert);
    if (convert && (tgt.Status & 0x1) && !(tgt.Status & 0x2)) {
        // The driver marks the target as gone.
        trace_call(SD_ERROR, name, Device, "): target gone. status=", tgt.Status, VXDBG_HEX);
        convert = false;
        status = SDM_STATUS_DEVICE_NOT_FOUND;
    }
    if (convert) {
        DISCTARGETPROPERTY* p = pDiscTargetProperty;
        memcpy(p->NodeWWN, tgt.WWNN, sizeof p->NodeWWN);
        memcpy(p->PortWWN, tgt.WWPN, sizeof p->PortWWN);
        copy_port_id(p->PortID, tgt.Id);
        p->BusNumber = tgt.Bus;
        p->TargetID = tgt.TargetId;
        p->PortType = static_cast<SD_UINT8>(tgt.Type);  // raw, unlike the port call
        p->PortState = static_cast<SD_UINT8>(tgt.Status);
        p->LoopID = tgt.LoopID;
    }
    trace_exit(name, Device, status);
    return status;
}

namespace {

constexpr uint32_t PORTDB_ENTRIES = 255;
constexpr uint32_t PORTDB_WORK_SIZE =
    static_cast<uint32_t>(EXT_DEVICEDATA_HEADER + PORTDB_ENTRIES * sizeof(EXT_DEVICEDATAENTRY));
static_assert(PORTDB_WORK_SIZE == 43868);
constexpr uint32_t DEVICEINFO_HEADER = offsetof(DEVICEINFO, EntryList);

DEVICEINFOENTRY* device_info_entry(DEVICEINFO* info, uint32_t i) {
    return reinterpret_cast<DEVICEINFOENTRY*>(reinterpret_cast<uint8_t*>(info) + DEVICEINFO_HEADER +
                                              static_cast<size_t>(i) * sizeof(DEVICEINFOENTRY));
}

void copy_device_entry(const EXT_DEVICEDATAENTRY& d, DEVICEINFOENTRY* e) {
    e->DeviceFlags = d.DeviceFlags;
    memcpy(e->NodeWWN, d.NodeWWN, sizeof e->NodeWWN);
    memcpy(e->PortWWN, d.PortWWN, sizeof e->PortWWN);
    memcpy(e->PortID, d.PortID, sizeof e->PortID);
    e->LoopID = d.LoopID;
    e->BaseLunNumber = d.BaseLunNumber;
    e->ControlFlags = d.ControlFlags;
    // A loop device without a fabric address is known by its AL_PA.
    if (!(d.ControlFlags & VX_DEVCTL_FABRIC) && d.LoopID < 127 && d.PortID[0] == 0 && d.PortID[1] == 0 &&
        d.PortID[2] == 0)
        e->PortID[2] = alpa_table[d.LoopID];
    e->TargetAddress.BusNumber = d.TargetAddress.Bus;
    e->TargetAddress.TargetID = d.TargetAddress.Target;
    e->TargetAddress.LUN = d.TargetAddress.Lun;
}

}  // namespace

extern "C" VXSD_API SD_UINT32 SDGetPortDatabase(int Device, SD_UINT16 TypeMode, DEVICEINFO* pDeviceInfo,
                                                SD_UINT32 DeviceInfoSize) {
    static constexpr const char* name = "SDGetPortDatabase";
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!pDeviceInfo)
        return null_record(name, Device);
    // Not even the header fits: nothing is written.
    if (DeviceInfoSize < DEVICEINFO_HEADER) {
        trace_call(SD_ERROR, name, Device, "): buffer size ", DeviceInfoSize, VXDBG_DEC);
        return SDM_STATUS_INVALID_PARAMETER;
    }
    std::unique_ptr<uint8_t[]> work(new (std::nothrow) uint8_t[PORTDB_WORK_SIZE]());
    if (!work)
        return SDM_STATUS_OUT_OF_MEMORY;
    auto* data = reinterpret_cast<EXT_DEVICEDATA*>(work.get());
    uint32_t mask = TypeMode & SDM_PORTDB_TYPE_MASK;
    uint32_t ext_stat = 0, ext_dstat = 0;
    const int32_t rc =
        vxapi_get_port_summary(inst->oshandle, inst, &mask, data, PORTDB_WORK_SIZE, &ext_stat, &ext_dstat);
    uint32_t status = SDM_STATUS_SUCCESS;
    if (rc == 0 && ext_stat == EXT_STATUS_OK) {
        // Below 300 bytes the unsigned capacity formula would promise entries
        // the buffer cannot hold: such a buffer gets the header alone.
        const uint32_t capacity = DeviceInfoSize >= sizeof(DEVICEINFO)
                                      ? (DeviceInfoSize - static_cast<uint32_t>(sizeof(DEVICEINFO))) /
                                                static_cast<uint32_t>(sizeof(DEVICEINFOENTRY)) +
                                            1
                                      : 0;
        // Entries beyond what the driver wrote into the work buffer are not there to copy.
        uint32_t present = data->TotalDevices < data->ReturnListEntryCount ? data->TotalDevices
                                                                          : data->ReturnListEntryCount;
        if (present > PORTDB_ENTRIES)
            present = PORTDB_ENTRIES;
        const auto* entries = reinterpret_cast<const EXT_DEVICEDATAENTRY*>(work.get() + EXT_DEVICEDATA_HEADER);
        uint32_t count = 0;
        for (uint32_t i = 0; i < present; ++i) {
            if (count >= capacity)
                continue;
            copy_device_entry(entries[i], device_info_entry(pDeviceInfo, count));
            ++count;
        }
        pDeviceInfo->TotalDevices = data->TotalDevices;
        pDeviceInfo->ReturnListEntryCount = count;
        status = data->TotalDevices > count ? SDM_STATUS_BUFFER_TOO_SMALL : SDM_STATUS_SUCCESS;
    } else {
        const int err = errno;
        if (vxdbg_on(SD_ERROR)) {
            vxdbg_print("SDGetPortDatabase: ioctl failed. ext status=", ext_stat, VXDBG_DEC, 0);
            vxdbg_print(" errno=", static_cast<uint64_t>(err), VXDBG_DEC, 1);
        }
        if (ext_stat != EXT_STATUS_OK)
            status = SDXlateSDMErr(ext_stat, ext_dstat);
        else if (rc < 0)
            status = err != 0 ? static_cast<uint32_t>(err) : SDM_STATUS_UNKNOWN_ERROR;
        else
            status = SDM_STATUS_UNKNOWN_ERROR;
    }
    trace_exit(name, Device, status);
    return status;
}

// ---- LUNs of a target ----

namespace {

// Targets a first target/LUN list has room for; a full list is asked again
// with twice the room, up to the most a port may have.
constexpr uint32_t TGT_LIST_FIRST = 64;
constexpr uint32_t TGT_LIST_MOST = 4096;

}  // namespace

extern "C" VXSD_API SD_UINT32 SDGetTargetLunList(int Device, SD_UINT16 TargetId, SD_UINT16* pLuns,
                                                 SD_UINT32* pLunCount) {
    static constexpr const char* name = "SDGetTargetLunList";
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!pLunCount || (!pLuns && *pLunCount != 0))
        return null_record(name, Device);
    // The list names a target in one byte: a larger id cannot be asked for.
    if (TargetId > VX_TGT_LUN_MAX_TARGET) {
        trace_call(SD_ERROR, name, Device, "): target id beyond the list. tid=", TargetId, VXDBG_DEC);
        return SDM_STATUS_NOT_SUPPORTED;
    }
    const uint32_t map = (inst->features & VX_FEAT_DRV_CAP4) ? TGT_LUN_MAP_LARGE : TGT_LUN_MAP_SMALL;
    const size_t entry_size = map + TGT_LUN_DATA_ENTRY_HEADER;
    uint32_t status = SDM_STATUS_DEVICE_NOT_FOUND;
    for (uint32_t room = TGT_LIST_FIRST; room <= TGT_LIST_MOST; room *= 2) {
        const size_t len = TGT_LUN_DATA_LIST_HEADER + room * entry_size;
        std::unique_ptr<uint8_t[]> work(new (std::nothrow) uint8_t[len]());
        if (!work) {
            status = SDM_STATUS_OUT_OF_MEMORY;
            break;
        }
        auto* list = reinterpret_cast<TGT_LUN_DATA_LIST*>(work.get());
        uint32_t ext_stat = 0;
        const int32_t rc =
            vxapi_get_tgt_lun_data_list(inst->oshandle, inst, list, static_cast<uint32_t>(len), &ext_stat);
        if (rc != 0 || ext_stat != EXT_STATUS_OK) {
            // A port without any target answers "not found" as well.
            status = ext_stat != EXT_STATUS_OK ? SDXlateSDMErr(ext_stat, 0)
                     : rc < 0                  ? errno_status()
                                               : SDM_STATUS_UNKNOWN_ERROR;
            trace_call(SD_ERROR, name, Device, "): list failed. stat=", ext_stat, VXDBG_DEC);
            break;
        }
        const uint32_t entries = list->EntryCount < room ? list->EntryCount : room;
        const TGT_LUN_DATA_ENTRY* found = nullptr;
        for (uint32_t i = 0; i < entries && !found; ++i) {
            const auto* entry = reinterpret_cast<const TGT_LUN_DATA_ENTRY*>(work.get() + TGT_LUN_DATA_LIST_HEADER +
                                                                            i * entry_size);
            if (entry->TargetId == TargetId)
                found = entry;
        }
        if (!found) {
            if (entries == room && room < TGT_LIST_MOST)
                continue;
            trace_call(SD_ERROR, name, Device, "): target not found. tid=", TargetId, VXDBG_DEC);
            break;
        }
        const uint8_t* lun_map = reinterpret_cast<const uint8_t*>(found) + TGT_LUN_DATA_ENTRY_HEADER;
        const uint32_t capacity = *pLunCount;
        uint32_t count = 0;
        for (uint32_t lun = 0; lun < map; ++lun) {
            if (!(lun_map[lun] & EXT_DEF_LUN_PRESENT))
                continue;
            if (count < capacity)
                pLuns[count] = static_cast<SD_UINT16>(lun);
            ++count;
        }
        *pLunCount = count;
        // LUNs whose numbers lie past the map are counted but cannot be
        // named: the list is complete only when the two agree.
        status = count > capacity          ? SDM_STATUS_BUFFER_TOO_SMALL
                 : found->LunCount > count ? SDM_STATUS_DATA_OVERRUN
                                           : SDM_STATUS_SUCCESS;
        if (found->LunCount > count)
            trace_call(SD_ERROR, name, Device, "): luns beyond the map=", found->LunCount - count, VXDBG_DEC);
        break;
    }
    trace_exit(name, Device, status);
    return status;
}
