// The attribute texts a port's sysfs queries parse, as the kernel and the
// driver may hand them over: versions, fw_state, the MAC address, the PCI
// resource table, PCIe link texts, host names, and a remote port's
// attributes for the port database and the target and LUN lists. The input
// is split at 0xFF bytes, one piece per attribute of a fake sysfs tree.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "vx_core.h"
#include "vx_sysfs.h"

namespace {

namespace fs = std::filesystem;

std::string root;
vxapi_priv_database* port;

const char* const DEVICE = "devices/pci0000:00/0000:04:00.0";
const std::vector<std::string> ATTRIBUTES = {
    "class/scsi_host/host1/model_name",         "class/scsi_host/host1/driver_version",
    "class/scsi_host/host1/fw_version",         "class/scsi_host/host1/mpi_version",
    "class/scsi_host/host1/pep_version",        "class/scsi_host/host1/optrom_bios_version",
    "class/scsi_host/host1/optrom_fcode_version", "class/scsi_host/host1/optrom_efi_version",
    "class/scsi_host/host1/optrom_fw_version",  "class/scsi_host/host1/fw_state",
    "class/scsi_host/host1/link_state",         "class/scsi_host/host1/state",
    "class/scsi_host/host1/vn_port_mac_address", "class/scsi_host/host1/serial_num",
    "class/fc_host/host1/port_name",            "class/fc_host/host1/node_name",
    "class/fc_host/host1/port_id",              "class/fc_host/host1/speed",
    "class/fc_host/host1/supported_speeds",     "class/fc_host/host1/fabric_name",
    "class/fc_host/host1/symbolic_name",        "class/fc_host/host1/port_state",
    "class/fc_host/host1/port_type",            "class/fc_host/host1/max_npiv_vports",
    "devices/pci0000:00/0000:04:00.0/resource", "devices/pci0000:00/0000:04:00.0/max_link_speed",
    "devices/pci0000:00/0000:04:00.0/max_link_width", "devices/pci0000:00/0000:04:00.0/current_link_speed",
    "devices/pci0000:00/0000:04:00.0/current_link_width", "devices/pci0000:00/0000:04:00.0/device",
    "class/fc_remote_ports/rport-1:0-0/port_name", "class/fc_remote_ports/rport-1:0-0/node_name",
    "class/fc_remote_ports/rport-1:0-0/port_id", "class/fc_remote_ports/rport-1:0-0/roles",
    "class/fc_remote_ports/rport-1:0-0/port_state", "class/fc_remote_ports/rport-1:0-0/scsi_target_id",
};

void write_text(const std::string& rel, const uint8_t* data, size_t size) {
    std::ofstream(root + "/" + rel, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(data),
                                                                               static_cast<std::streamsize>(size));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char tmpl[] = "/tmp/vxsdm-fuzz-sysfs-XXXXXX";
    if (!mkdtemp(tmpl))
        abort();
    root = tmpl;
    for (const std::string& attr : ATTRIBUTES)
        fs::create_directories(fs::path(root + "/" + attr).parent_path());
    fs::create_directories(root + "/" + DEVICE + "/host1");
    snprintf(sysfs_mnt_path, sizeof sysfs_mnt_path, "%s", root.c_str());
    atexit([] {
        std::error_code ec;
        fs::remove_all(root, ec);
    });

    uint32_t err = 0;
    if (vxapi_alloc_api_priv_data_mem(&err) != 0 || vxapi_alloc_api_phy_info_mem(&err) != 0)
        abort();
    port = current_priv_inst;
    port->features = VX_FEAT_SYSFS;  // no bsg: nothing here may reach a device node
    port->interface_type = VX_IFTYPE_PHYSICAL;
    port->host_no = 1;
    port->phy_info = current_phy_info_inst;
    port->phy_info->device_id = 0x2031;
    snprintf(reinterpret_cast<char*>(port->phys_path), sizeof port->phys_path, "%s/%s", root.c_str(), DEVICE);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    size_t start = 0;
    for (const std::string& attr : ATTRIBUTES) {
        size_t end = start;
        while (end < size && data[end] != 0xFF)
            ++end;
        write_text(attr, data + start, end - start);
        start = end < size ? end + 1 : end;
    }

    uint32_t stat = 0;
    EXT_HBA_NODE node{};
    vxsysfs_query_hbanode(0, port, &node, &stat);
    EXT_HBA_PORT hba_port{};
    vxsysfs_query_hbaport(0, port, &hba_port, &stat);
    EXT_CHIP chip{};
    vxsysfs_query_chip(0, port, &chip, &stat);
    EXT_FW fw{};
    vxsysfs_query_fw(0, port, &fw, &stat);
    EXT_CNA_PORT cna{};
    vxsysfs_query_cnaport(0, port, &cna, &stat);
    EXT_DRIVER drv{};
    vxsysfs_query_driver(0, port, &drv, &stat);
    EXT_LN_DRIVER_DATA specifics{};
    vxsysfs_get_driver_specifics(0, port, &specifics, &stat);

    vxsysfs_count_port(port);
    vxsysfs_count_target(port);
    EXT_DISC_PORT disc{};
    vxsysfs_query_discport(0, port, 0, &disc, &stat);
    EXT_DISC_TARGET tgt{};
    vxsysfs_query_disctgt(0, port, 0, &tgt, &stat);
    // The port database into a buffer of a size the input chooses: nothing past it.
    const uint32_t db_size = size ? 8 + data[0] % 4 * static_cast<uint32_t>(sizeof(EXT_DEVICEDATAENTRY)) : 8;
    std::vector<uint8_t> db(db_size);
    uint32_t mask = VX_PORTSUM_ALL, dstat = 0;
    vxsysfs_get_port_summary(0, port, &mask, reinterpret_cast<EXT_DEVICEDATA*>(db.data()), db_size, &stat, &dstat);
    return 0;
}
