#include "sections.h"

#include <fmt/format.h>

#include "cli.h"
#include "format.h"
#include "table.h"
#include "vsdmgt.h"

namespace vxcli {

namespace {

using json = nlohmann::ordered_json;

// A field whose text is its value's.
Field value(const char* label, const char* key, json v) {
    std::string text = cell_text(v);
    return {label, std::move(text), json{{key, std::move(v)}}};
}

// A number shown in hexadecimal.
Field hex(const char* label, const char* key, uint64_t v, int digits) { return {label, hex_text(v, digits), json{{key, v}}}; }

json optional(const auto& v) { return v ? json(*v) : json(); }

Field pcie_link(const char* label, const char* prefix, uint16_t link) {
    return {label, pcie_link_text(link),
            json{{fmt::format("{}_gts", prefix), optional(pcie_link_gts(link))},
                 {fmt::format("{}_width", prefix), pcie_link_width(link)}}};
}

Field window(const char* label, const char* prefix, uint32_t address, uint32_t length) {
    return {label, fmt::format("{} ({} bytes)", hex_text(address), length),
            json{{fmt::format("{}_address", prefix), hex_text(address)}, {fmt::format("{}_length", prefix), length}}};
}

Section chip_section(int handle) {
    Section s{"Chip", "chip", 0, {}};
    CHIPPROPERTY c{};
    s.status = SDGetHbaDeviceChipProperty(handle, &c);
    if (s.status != SDM_STATUS_SUCCESS)
        return s;
    // PciSlotNumber carries device and function (slot << 3 | function).
    const std::string location = fmt::format("{:04x}:{:02x}:{:02x}.{:x}", c.DomainNr, c.PciBusNumber,
                                             c.PciSlotNumber >> 3, c.PciSlotNumber & 7);
    s.fields = {
        hex("Vendor id", "vendor_id", c.VendorID, 4),
        hex("Device id", "device_id", c.DeviceID, 4),
        hex("Subsystem vendor", "subsystem_vendor_id", c.SubVendorID, 4),
        hex("Subsystem id", "subsystem_id", c.SubSystemID, 4),
        value("PCI location", "pci_location", location),
        window("I/O ports", "io", c.IoAddress, c.IoAddressLength),
        window("Memory", "memory", c.MemoryAddress, c.MemoryAddressLength),
        value("Interrupt", "interrupt", c.InterruptLevel),
        pcie_link("PCIe link", "pcie_link", c.PcieLinkStat),
        pcie_link("PCIe link capability", "pcie_link_capability", c.PcieLinkCap),
        value("Port number", "port_number", c.PortNumber),
    };
    return s;
}

Section driver_section(int handle) {
    Section s{"Driver", "driver", 0, {}};
    DRIVERPROPERTY d{};
    s.status = SDGetHbaDeviceDriverProperty(handle, &d);
    if (s.status != SDM_STATUS_SUCCESS)
        return s;
    s.fields = {
        value("Version", "version", field_text(d.Version, sizeof d.Version)),
        value("Buses", "bus_count", d.NumberOfBus),
        value("Targets per bus", "targets_per_bus", d.TargetsPerBus),
        value("LUNs per target", "luns_per_target", d.LunsPerTarget),
        hex("Maximum transfer", "max_transfer", d.MaximumTransferLen, 0),
        value("Maximum segments", "max_segments", d.MaximumDataSegments),
    };
    return s;
}

Section firmware_section(int handle) {
    Section s{"Firmware", "firmware", 0, {}};
    FIRMWAREPROPERTY f{};
    s.status = SDGetHbaDeviceFirmwareProperty(handle, &f);
    if (s.status != SDM_STATUS_SUCCESS)
        return s;
    s.fields = {
        value("Version", "version", version_text(f.Version, 3)),
        hex("Attributes", "attributes", f.Attributes, 8),
        hex("Extended attributes", "attributes_extended", f.AttributesExtended, 8),
    };
    return s;
}

// Converged boards only: other boards answer "not supported" and have no
// such section.
bool cna_section(int handle, Section& s) {
    s = Section{"Converged port", "cna", 0, {}};
    CNAPORTPROPERTY c{};
    SD_UINT32 size = sizeof c;
    s.status = SDGetCnaPortData(handle, 0, SDM_CNA_PORT_DATA, reinterpret_cast<SD_UINT8*>(&c), &size);
    if (s.status == SDM_STATUS_NOT_SUPPORTED)
        return false;
    if (s.status == SDM_STATUS_SUCCESS) {
        // The library sets 0x8000 when no FCF is available and leaves the field alone otherwise.
        const bool fcf = (c.FabricParam & 0x8000) == 0;
        s.fields = {
            value("VLAN", "vlan", c.VLanId),
            value("VN_Port MAC", "vn_port_mac", mac_text(c.VNPortMACAddress)),
            {"FCF available", fcf ? "yes" : "no", json{{"fcf_available", fcf}}},
        };
    }
    return true;
}

}  // namespace

json Section::to_json() const {
    json out = json::object();
    for (const Field& f : fields)
        out.update(f.values);
    return out;
}

std::string Section::to_text() const {
    std::string text = fmt::format("{}\n", title);
    for (const Field& f : fields)
        text += fmt::format("  {:<22}{}\n", f.label, f.text);
    return text;
}

Section node_section(int handle) {
    Section s{"Node", "node", 0, {}};
    DEVICENODEPROPERTY n{};
    s.status = SDGetHbaDeviceNodeProperty(handle, &n);
    if (s.status != SDM_STATUS_SUCCESS)
        return s;
    json boot = json::object();
    if (n.BIValid & SDM_BI_FW_VALID)
        boot["firmware"] = version_text(n.BIFwVersion, 3);
    if (n.BIValid & SDM_BI_EFI_VALID)
        boot["efi"] = version_text(n.BIEfiVersion, 2);
    if (n.BIValid & SDM_BI_FCODE_VALID)
        boot["fcode"] = version_text(n.BIFCodeVersion, 2);
    if (n.BIValid & SDM_BI_MPI_VALID)
        boot["mpi"] = version_text(n.BIMpiFwVersion, 3);
    if (n.BIValid & SDM_BI_PEP_VALID)
        boot["pep"] = version_text(n.BIPepFwVersion, 3);
    std::string boot_text;
    for (const auto& [name, version] : boot.items())
        boot_text += (boot_text.empty() ? "" : ", ") + name + " " + version.get<std::string>();
    s.fields = {
        value("WWNN", "wwnn", wwn_text(n.WWN)),
        value("Manufacturer", "manufacturer", field_text(n.Manufacturer, sizeof n.Manufacturer)),
        value("Model", "model", field_text(n.Model, sizeof n.Model)),
        value("Serial number", "serial", field_text(n.SerialNumber, sizeof n.SerialNumber)),
        value("Driver version", "driver_version", field_text(n.DriverVersion, sizeof n.DriverVersion)),
        value("Firmware version", "firmware_version", field_text(n.FirmwareVersion, sizeof n.FirmwareVersion)),
        value("Option ROM version", "option_rom_version", field_text(n.OptionRomVersion, sizeof n.OptionRomVersion)),
        value("Ports", "port_count", n.NumberOfPorts),
        value("Type", "type", interface_text(n.InterfaceType)),
        {"Boot image versions", boot_text.empty() ? "-" : boot_text, json{{"boot_images", boot}}},
    };
    return s;
}

Section port_section(int handle) {
    Section s{"Port", "port", 0, {}};
    DEVICEPORTPROPERTY p{};
    s.status = SDGetHbaDevicePortProperty(handle, 0, &p);
    if (s.status != SDM_STATUS_SUCCESS)
        return s;
    s.fields = {
        value("WWPN", "wwpn", wwn_text(p.WWN)),
        value("Port ID", "port_id", port_id_text(p.PortID)),
        value("State", "state", port_state_text(p.PortState)),
        value("Connection", "connection", connection_text(p.ConnectionMode)),
        {"Speed", speed_text(p.PortSpeed), json{{"speed_gbps", optional(speed_gbps(p.PortSpeed))}, {"speed_code", p.PortSpeed}}},
        value("Discovered ports", "discovered_port_count", p.DiscPortCount),
        value("Discovered targets", "discovered_target_count", p.DiscTargetCount),
        {"Link state words",
         fmt::format("{} {} {} {}", hex_text(p.LinkState1, 4), hex_text(p.LinkState2, 4), hex_text(p.LinkState3, 4),
                     hex_text(p.LinkState6, 4)),
         json{{"link_state_words", json::array({p.LinkState1, p.LinkState2, p.LinkState3, p.LinkState6})}}},
    };
    return s;
}

std::vector<Section> port_sections(int handle) {
    std::vector<Section> sections = {node_section(handle), port_section(handle), chip_section(handle),
                                     driver_section(handle), firmware_section(handle)};
    Section cna;
    if (cna_section(handle, cna))
        sections.push_back(std::move(cna));
    return sections;
}

void port_properties(Context& ctx, const SelectedPort& port, json& out, std::string& text) {
    out.update(port_identity(port));
    for (const Section& s : port_sections(port.handle)) {
        if (s.status != SDM_STATUS_SUCCESS) {
            out[s.key] = json{{"error", ctx.partial(fmt::format("port {}: {} query", port.instance, s.key), s.status)}};
            continue;
        }
        out[s.key] = s.to_json();
        text += s.to_text();
    }
}

}  // namespace vxcli
