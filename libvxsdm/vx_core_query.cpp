// Leaf operations behind the property, discovered-port and LUN calls: the
// dispatchers, and the extended-ioctl side of each (one request each).
#include <cstring>

#include "exioct.h"
#include "exioctln.h"
#include "vx_adapters.h"
#include "vx_channel.h"
#include "vx_core.h"
#include "vx_sddbg.h"

// Loop id 0..126 to its arbitrated-loop physical address, as FC-AL numbers them.
const uint8_t alpa_table[127] = {
    0xEF, 0xE8, 0xE4, 0xE2, 0xE1, 0xE0, 0xDC, 0xDA, 0xD9, 0xD6, 0xD5, 0xD4, 0xD3, 0xD2, 0xD1, 0xCE,
    0xCD, 0xCC, 0xCB, 0xCA, 0xC9, 0xC7, 0xC6, 0xC5, 0xC3, 0xBC, 0xBA, 0xB9, 0xB6, 0xB5, 0xB4, 0xB3,
    0xB2, 0xB1, 0xAE, 0xAD, 0xAC, 0xAB, 0xAA, 0xA9, 0xA7, 0xA6, 0xA5, 0xA3, 0x9F, 0x9E, 0x9D, 0x9B,
    0x98, 0x97, 0x90, 0x8F, 0x88, 0x84, 0x82, 0x81, 0x80, 0x7C, 0x7A, 0x79, 0x76, 0x75, 0x74, 0x73,
    0x72, 0x71, 0x6E, 0x6D, 0x6C, 0x6B, 0x6A, 0x69, 0x67, 0x66, 0x65, 0x63, 0x5C, 0x5A, 0x59, 0x56,
    0x55, 0x54, 0x53, 0x52, 0x51, 0x4E, 0x4D, 0x4C, 0x4B, 0x4A, 0x49, 0x47, 0x46, 0x45, 0x43, 0x3C,
    0x3A, 0x39, 0x36, 0x35, 0x34, 0x33, 0x32, 0x31, 0x2E, 0x2D, 0x2C, 0x2B, 0x2A, 0x29, 0x27, 0x26,
    0x25, 0x23, 0x1F, 0x1E, 0x1D, 0x1B, 0x18, 0x17, 0x10, 0x0F, 0x08, 0x04, 0x02, 0x01, 0x00,
};

namespace {

constexpr uint32_t TRC = VXDBG_TRACE;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_TRACE;

// The driver status lands in the caller's word, or nowhere when it gave none.
uint32_t& status_word(uint32_t* pext_stat, uint32_t& local) { return pext_stat ? *pext_stat : local; }

int32_t query(const char* name, int handle, vxapi_priv_database* inst, uint16_t subcode, uint16_t index, void* rec,
              uint32_t len, uint32_t* pext_stat) {
    if (vxdbg_on(TRC)) {
        vxdbg_print(name, 0, VXDBG_NONE, 0);
        vxdbg_print(": entered. subcode=", subcode, VXDBG_DEC, 1);
    }
    return vxapi_send_ext_traced(name, handle, inst, EXT_CC_QUERY, subcode, index, nullptr, 0, rec, len, pext_stat,
                                 nullptr);
}

bool contains(const uint8_t* text, size_t size, const char* word) {
    const size_t n = strlen(word);
    const size_t len = strnlen(reinterpret_cast<const char*>(text), size);
    for (size_t i = 0; i + n <= len; ++i)
        if (memcmp(text + i, word, n) == 0)
            return true;
    return false;
}

}  // namespace

int32_t vxapi_send_ext_traced(const char* name, int handle, vxapi_priv_database* inst, uint8_t command,
                              uint16_t subcode, uint16_t instance, const void* req, uint32_t req_len, void* resp,
                              uint32_t resp_len, uint32_t* pext_stat, uint32_t* pext_dstat, vxapi_ext_answer* answer) {
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    const int rc = vxapi_send_ext_ioctl(handle, inst, command, subcode, instance, req, req_len, resp, resp_len,
                                        &ext_stat, pext_dstat, answer);
    if (rc == 1 && vxdbg_on(ERR)) {
        vxdbg_print(name, 0, VXDBG_NONE, 0);
        vxdbg_print(": init_ext_ioctl error ", 0, VXDBG_NONE, 1);
    }
    if (vxdbg_on(TRC)) {
        vxdbg_print(name, 0, VXDBG_NONE, 0);
        vxdbg_print(": exiting. ret=", static_cast<uint32_t>(rc), VXDBG_INT, 0);
        vxdbg_print(" stat=", ext_stat, VXDBG_DEC, 1);
    }
    return rc;
}

bool vxapi_leaf_ready(const char* name, const vxapi_priv_database* inst, bool args_ok, uint32_t* pext_stat) {
    if (inst && inst->channel && args_ok)
        return true;
    if (pext_stat)
        *pext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (vxdbg_on(ERR)) {
        vxdbg_print(name, 0, VXDBG_NONE, 0);
        vxdbg_print(": invalid parameter.", 0, VXDBG_NONE, 1);
    }
    return false;
}

// ---- Extended-ioctl side ----

int32_t vxapi_ioctl_query_hbanode(int handle, vxapi_priv_database* inst, EXT_HBA_NODE* node, uint32_t* pext_stat) {
    const int32_t rc =
        query("vxapi_query_hbanode", handle, inst, EXT_SC_QUERY_HBA_NODE, 0, node, sizeof *node, pext_stat);
    // A VMware driver reports the ports of the whole board; each physical
    // port counts as one there.
    if (rc == 0 && contains(node->DriverVersion, sizeof node->DriverVersion, "vm") &&
        node->InterfaceType != VX_IFTYPE_VIRTUAL)
        node->PortCount = 1;
    return rc;
}

int32_t vxapi_ioctl_query_hbaport(int handle, vxapi_priv_database* inst, EXT_HBA_PORT* port, uint32_t* pext_stat) {
    return query("vxapi_query_hbaport", handle, inst, EXT_SC_QUERY_HBA_PORT, 0, port, sizeof *port, pext_stat);
}

int32_t vxapi_ioctl_query_chip(int handle, vxapi_priv_database* inst, EXT_CHIP* chip, uint32_t* pext_stat) {
    return query("vxapi_query_chip", handle, inst, EXT_SC_QUERY_CHIP, 0, chip, sizeof *chip, pext_stat);
}

int32_t vxapi_ioctl_query_driver(int handle, vxapi_priv_database* inst, EXT_DRIVER* drv, uint32_t* pext_stat) {
    return query("vxapi_query_driver", handle, inst, EXT_SC_QUERY_DRIVER, 0, drv, sizeof *drv, pext_stat);
}

int32_t vxapi_ioctl_query_fw(int handle, vxapi_priv_database* inst, EXT_FW* fw, uint32_t* pext_stat) {
    return query("vxapi_query_fw", handle, inst, EXT_SC_QUERY_FW, 0, fw, sizeof *fw, pext_stat);
}

int32_t vxapi_ioctl_query_cnaport(int handle, vxapi_priv_database* inst, EXT_CNA_PORT* cna, uint32_t* pext_stat) {
    return query("vxapi_query_cnaport", handle, inst, EXT_SC_QUERY_CNA_PORT, 0, cna, sizeof *cna, pext_stat);
}

int32_t vxapi_ioctl_query_discport(int handle, vxapi_priv_database* inst, uint16_t index, EXT_DISC_PORT* port,
                                   uint32_t* pext_stat) {
    return query("vxapi_query_discport", handle, inst, EXT_SC_QUERY_DISC_PORT, index, port, sizeof *port, pext_stat);
}

int32_t vxapi_ioctl_query_disctgt(int handle, vxapi_priv_database* inst, uint16_t index, EXT_DISC_TARGET* tgt,
                                  uint32_t* pext_stat) {
    return query("vxapi_query_disctgt", handle, inst, EXT_SC_QUERY_DISC_TGT, index, tgt, sizeof *tgt, pext_stat);
}

int32_t vxapi_ioctl_get_port_summary(int handle, vxapi_priv_database* inst, uint32_t* type_mask,
                                     EXT_DEVICEDATA* data, uint32_t size, uint32_t* pext_stat,
                                     uint32_t* pext_dstat) {
    vxdbg_num(TRC, "vxapi_get_port_summary: entered. type mask=", *type_mask, VXDBG_HEX, 1);
    return vxapi_send_ext_traced("vxapi_get_port_summary", handle, inst, EXT_CC_GET_DATA, EXT_SC_GET_PORT_SUMMARY, 0,
                                 type_mask, sizeof *type_mask, data, size, pext_stat, pext_dstat);
}

int32_t vxapi_ioctl_get_tgt_lun_data_list(int handle, vxapi_priv_database* inst, TGT_LUN_DATA_LIST* list,
                                          uint32_t list_len, uint32_t* pext_stat) {
    vxdbg_num(TRC, "vxapi_get_tgt_lun_data_list: entered. len=", list_len, VXDBG_DEC, 1);
    return vxapi_send_ext_traced("vxapi_get_tgt_lun_data_list", handle, inst, EXT_CC_GET_DATA,
                                 EXT_SC_GET_TGT_LUN_DATA_LIST, 0, nullptr, 0, list, list_len, pext_stat, nullptr);
}

int32_t vxapi_ioctl_wwpn_to_scsiaddr(int handle, vxapi_priv_database* inst, const uint8_t* wwpn, uint32_t wwpn_len,
                                     EXT_SCSI_ADDR* addr, uint32_t* pext_stat) {
    vxdbg_line(TRC, "vxapi_wwpn_to_scsiaddr: entered.");
    memset(addr, 0, sizeof *addr);
    return vxapi_send_ext_traced("vxapi_wwpn_to_scsiaddr", handle, inst, EXT_CC_WWPN_TO_SCSIADDR, 0, 0, wwpn, wwpn_len,
                                 addr, sizeof *addr, pext_stat, nullptr);
}

int32_t vxapi_ioctl_get_dcbx_param(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t size,
                                   uint32_t* pext_stat) {
    vxdbg_num(TRC, "vxapi_get_dcbx_param: entered. size=", size, VXDBG_DEC, 1);
    return vxapi_send_ext_traced("vxapi_get_dcbx_param", handle, inst, EXT_CC_GET_DATA, EXT_SC_GET_DCBX_PARAM, 0,
                                 nullptr, 0, buf, size, pext_stat, nullptr);
}

// ---- Leaves: the common checks, then the port's channel ----

int32_t vxapi_query_hbanode(int handle, vxapi_priv_database* inst, EXT_HBA_NODE* node, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_query_hbanode", inst, node, pext_stat))
        return 1;
    return inst->channel->query_hbanode(handle, inst, node, pext_stat);
}

int32_t vxapi_query_hbaport(int handle, vxapi_priv_database* inst, EXT_HBA_PORT* port, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_query_hbaport", inst, port, pext_stat))
        return 1;
    return inst->channel->query_hbaport(handle, inst, port, pext_stat);
}

int32_t vxapi_query_chip(int handle, vxapi_priv_database* inst, EXT_CHIP* chip, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_query_chip", inst, chip, pext_stat))
        return 1;
    return inst->channel->query_chip(handle, inst, chip, pext_stat);
}

int32_t vxapi_query_driver(int handle, vxapi_priv_database* inst, EXT_DRIVER* drv, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_query_driver", inst, drv, pext_stat))
        return 1;
    return inst->channel->query_driver(handle, inst, drv, pext_stat);
}

int32_t vxapi_query_fw(int handle, vxapi_priv_database* inst, EXT_FW* fw, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_query_fw", inst, fw, pext_stat))
        return 1;
    return inst->channel->query_fw(handle, inst, fw, pext_stat);
}

int32_t vxapi_query_cnaport(int handle, vxapi_priv_database* inst, EXT_CNA_PORT* cna, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_query_cnaport", inst, cna, pext_stat))
        return 1;
    return inst->channel->query_cnaport(handle, inst, cna, pext_stat);
}

int32_t vxapi_query_discport(int handle, vxapi_priv_database* inst, uint16_t index, EXT_DISC_PORT* port,
                             uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_query_discport", inst, port, pext_stat))
        return 1;
    return inst->channel->query_discport(handle, inst, index, port, pext_stat);
}

int32_t vxapi_query_disctgt(int handle, vxapi_priv_database* inst, uint16_t index, EXT_DISC_TARGET* tgt,
                            uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_query_disctgt", inst, tgt, pext_stat))
        return 1;
    return inst->channel->query_disctgt(handle, inst, index, tgt, pext_stat);
}

int32_t vxapi_get_port_summary(int handle, vxapi_priv_database* inst, uint32_t* type_mask, EXT_DEVICEDATA* data,
                               uint32_t size, uint32_t* pext_stat, uint32_t* pext_dstat) {
    if (pext_dstat)
        *pext_dstat = 0;
    if (!vxapi_leaf_ready("vxapi_get_port_summary", inst, type_mask && data, pext_stat))
        return 1;
    return inst->channel->get_port_summary(handle, inst, type_mask, data, size, pext_stat, pext_dstat);
}

int32_t vxapi_get_tgt_lun_data_list(int handle, vxapi_priv_database* inst, TGT_LUN_DATA_LIST* list,
                                    uint32_t list_len, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_get_tgt_lun_data_list", inst, list, pext_stat))
        return 1;
    return inst->channel->get_tgt_lun_data_list(handle, inst, list, list_len, pext_stat);
}

int32_t vxapi_wwpn_to_scsiaddr(int handle, vxapi_priv_database* inst, const uint8_t* wwpn, uint32_t wwpn_len,
                               EXT_SCSI_ADDR* addr, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_wwpn_to_scsiaddr", inst, wwpn && addr, pext_stat))
        return 1;
    return inst->channel->wwpn_to_scsiaddr(handle, inst, wwpn, wwpn_len, addr, pext_stat);
}

int32_t vxapi_get_dcbx_param(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t size,
                             uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_get_dcbx_param", inst, buf, pext_stat))
        return 1;
    return inst->channel->get_dcbx_param(handle, inst, buf, size, pext_stat);
}

// No sysfs twin: the driver node answers on every port.
int32_t vxapi_get_lun_data_list(int handle, vxapi_priv_database* inst, FO_LUN_DATA_LIST* list, uint32_t list_len,
                                uint32_t* pext_stat) {
    if (!inst || !list) {
        if (pext_stat)
            *pext_stat = EXT_STATUS_DEV_NOT_FOUND;
        vxdbg_line(ERR, "vxapi_get_lun_data_list: invalid parameter.");
        return 1;
    }
    vxdbg_num(TRC, "vxapi_get_lun_data_list: entered. len=", list_len, VXDBG_DEC, 1);
    FO_LUN_DATA_INPUT input{};
    return vxapi_send_ext_traced("vxapi_get_lun_data_list", handle, inst, EXT_CC_GET_LUN_DATA, 0, 0, &input,
                                 sizeof input, list, list_len, pext_stat, nullptr);
}

uint32_t vxapi_get_lun_addr(const uint8_t* lun) {
    if (!lun)
        return 0xFFFFFFFF;
    switch (lun[0] >> 6) {
    case 0:  // peripheral device addressing
        return lun[1];
    case 1:  // flat space
        return static_cast<uint32_t>(lun[0] & 0x3F) * 256 + lun[1];
    case 2:  // logical unit addressing
        return lun[1] & 0x1F;
    default:  // extended addressing: not a plain number
        return 0xFFFFFFFF;
    }
}

void vxapi_refresh_node_boot_versions(vxapi_priv_database* inst, EXT_HBA_NODE* node) {
    const uint16_t device_id = inst && inst->phy_info ? inst->phy_info->device_id : 0;
    // Boards whose boot-image versions the ioctl driver does not keep current.
    if (!vx_adapter_has(device_id, VX_MARK_FLASH_BI_REFRESH) || (inst->features & VX_FEAT_SYSFS))
        return;
    vxapi_priv_database* flash_port = inst->interface_type == VX_IFTYPE_VIRTUAL && inst->parent ? inst->parent : inst;
    uint32_t flash_stat = 0;
    vxapi_read_flash_versions(flash_port->oshandle, flash_port, node, &flash_stat);
}
