// show, targets and luns: one port's properties and what it has discovered.
#include "commands.h"

#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <map>
#include <string>
#include <vector>

#include "format.h"
#include "leftovers.h"
#include "ports.h"
#include "table.h"
#include "vsdmgt.h"

namespace vxcli {

namespace {

using json = nlohmann::ordered_json;

// One labelled value of a `show` section.
struct Field {
    const char* label;
    const char* key;
    json value;
};

struct Section {
    Section() = default;
    Section(const char* t, const char* k) : title(t), key(k) {}
    const char* title = "";
    const char* key = "";
    uint32_t status = SDM_STATUS_SUCCESS;  // the query's; the fields are empty when it failed
    std::vector<Field> fields;
};

std::string cell(const json& value) {
    if (value.is_null())
        return "-";
    if (value.is_string())
        return value.get<std::string>();
    if (value.is_array()) {
        std::string out;
        for (const json& v : value)
            out += (out.empty() ? "" : ",") + cell(v);
        return out.empty() ? "-" : out;
    }
    return value.dump();
}

// A table of rows whose cells are the JSON values of `keys`, or the rows
// themselves as JSON under `list_key`.
void print_rows(bool as_json, uint32_t instance, const char* list_key, const std::vector<TableColumn>& columns,
                const std::vector<const char*>& keys, const std::vector<json>& rows) {
    if (as_json) {
        json out{{"instance", instance}, {list_key, rows}};
        fmt::print("{}\n", out.dump(2));
        return;
    }
    std::vector<std::vector<std::string>> cells;
    for (const json& row : rows) {
        std::vector<std::string> line;
        for (const char* key : keys)
            line.push_back(cell(row.contains(key) ? row[key] : json()));
        cells.push_back(std::move(line));
    }
    fmt::print("{}", render_table(columns, cells));
}

// Resolves the instance to an open handle, or gives the exit code.
struct OpenPort {
    PortSession session;
    uint32_t handle = 0;
    int exit = EXIT_OK;
};

void open_port(uint32_t instance, OpenPort& port) {
    const SD_UINT32 count = SDGetNumberOfAdapters();
    if (count == 0) {
        port.exit = explain_no_ports();
        return;
    }
    if (instance >= count) {
        error_line(fmt::format("no port {} ({} found, numbered from 0)", instance, count).c_str());
        port.exit = EXIT_NO_ADAPTERS;
        return;
    }
    const uint32_t status = port.session.open(instance, &port.handle);
    if (status != SDM_STATUS_SUCCESS) {
        error_line(fmt::format("port {}: open failed: {}", instance, status_text(status)).c_str());
        port.exit = EXIT_PARTIAL;
    }
}

// ---- show ----

Section node_section(int device) {
    Section s{"Node", "node"};
    DEVICENODEPROPERTY n{};
    s.status = SDGetHbaDeviceNodeProperty(device, &n);
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
    s.fields = {
        {"WWNN", "wwnn", wwn_text(n.WWN)},
        {"Manufacturer", "manufacturer", field_text(n.Manufacturer, sizeof n.Manufacturer)},
        {"Model", "model", field_text(n.Model, sizeof n.Model)},
        {"Serial number", "serial", field_text(n.SerialNumber, sizeof n.SerialNumber)},
        {"Driver version", "driver_version", field_text(n.DriverVersion, sizeof n.DriverVersion)},
        {"Firmware version", "firmware_version", field_text(n.FirmwareVersion, sizeof n.FirmwareVersion)},
        {"Option ROM version", "option_rom_version", field_text(n.OptionRomVersion, sizeof n.OptionRomVersion)},
        {"Ports", "ports", n.NumberOfPorts},
        {"Interface", "interface", interface_text(n.InterfaceType)},
        {"Boot image versions", "boot_images", boot},
    };
    return s;
}

Section port_section(int device) {
    Section s{"Port", "port"};
    DEVICEPORTPROPERTY p{};
    s.status = SDGetHbaDevicePortProperty(device, 0, &p);
    if (s.status != SDM_STATUS_SUCCESS)
        return s;
    s.fields = {
        {"WWPN", "wwpn", wwn_text(p.WWN)},
        {"Port ID", "port_id", port_id_text(p.PortID)},
        {"State", "state", port_state_text(p.PortState)},
        {"Connection", "connection", connection_text(p.ConnectionMode)},
        {"Speed", "speed", speed_text(p.PortSpeed)},
        {"Discovered ports", "discovered_ports", p.DiscPortCount},
        {"Discovered targets", "discovered_targets", p.DiscTargetCount},
        {"Link state words", "link_state",
         json::array({hex_text(p.LinkState1), hex_text(p.LinkState2), hex_text(p.LinkState3), hex_text(p.LinkState6)})},
    };
    return s;
}

Section chip_section(int device) {
    Section s{"Chip", "chip"};
    CHIPPROPERTY c{};
    s.status = SDGetHbaDeviceChipProperty(device, &c);
    if (s.status != SDM_STATUS_SUCCESS)
        return s;
    // PciSlotNumber carries device and function (slot << 3 | function).
    const std::string location = fmt::format("{:04x}:{:02x}:{:02x}.{:x}", c.DomainNr, c.PciBusNumber,
                                             c.PciSlotNumber >> 3, c.PciSlotNumber & 7);
    s.fields = {
        {"Vendor id", "vendor_id", hex_text(c.VendorID, 4)},
        {"Device id", "device_id", hex_text(c.DeviceID, 4)},
        {"Subsystem vendor", "subsystem_vendor_id", hex_text(c.SubVendorID, 4)},
        {"Subsystem id", "subsystem_id", hex_text(c.SubSystemID, 4)},
        {"PCI location", "pci_location", location},
        {"I/O ports", "io", fmt::format("{} ({} bytes)", hex_text(c.IoAddress), c.IoAddressLength)},
        {"Memory", "memory", fmt::format("{} ({} bytes)", hex_text(c.MemoryAddress), c.MemoryAddressLength)},
        {"Interrupt", "interrupt", c.InterruptLevel},
        {"PCIe link", "pcie_link", pcie_link_text(c.PcieLinkStat)},
        {"PCIe link capability", "pcie_link_capability", pcie_link_text(c.PcieLinkCap)},
        {"Port number", "port_number", c.PortNumber},
    };
    return s;
}

Section driver_section(int device) {
    Section s{"Driver", "driver"};
    DRIVERPROPERTY d{};
    s.status = SDGetHbaDeviceDriverProperty(device, &d);
    if (s.status != SDM_STATUS_SUCCESS)
        return s;
    s.fields = {
        {"Version", "version", field_text(d.Version, sizeof d.Version)},
        {"Buses", "buses", d.NumberOfBus},
        {"Targets per bus", "targets_per_bus", d.TargetsPerBus},
        {"LUNs per target", "luns_per_target", d.LunsPerTarget},
        {"Maximum transfer", "max_transfer", hex_text(d.MaximumTransferLen)},
        {"Maximum segments", "max_segments", d.MaximumDataSegments},
    };
    return s;
}

Section firmware_section(int device) {
    Section s{"Firmware", "firmware"};
    FIRMWAREPROPERTY f{};
    s.status = SDGetHbaDeviceFirmwareProperty(device, &f);
    if (s.status != SDM_STATUS_SUCCESS)
        return s;
    s.fields = {
        {"Version", "version", version_text(f.Version, 3)},
        {"Attributes", "attributes", hex_text(f.Attributes, 8)},
        {"Extended attributes", "attributes_extended", hex_text(f.AttributesExtended, 8)},
    };
    return s;
}

// Converged boards only: other boards answer "not supported" and show no section.
bool cna_section(int device, Section& s) {
    s = Section{"Converged port", "cna"};
    CNAPORTPROPERTY c{};
    SD_UINT32 size = sizeof c;
    s.status = SDGetCnaPortData(device, 0, SDM_CNA_PORT_DATA, reinterpret_cast<SD_UINT8*>(&c), &size);
    if (s.status == SDM_STATUS_NOT_SUPPORTED)
        return false;
    if (s.status == SDM_STATUS_SUCCESS)
        s.fields = {
            {"VLAN", "vlan", c.VLanId},
            {"VN_Port MAC", "vn_port_mac",
             fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", c.VNPortMACAddress[0], c.VNPortMACAddress[1],
                         c.VNPortMACAddress[2], c.VNPortMACAddress[3], c.VNPortMACAddress[4], c.VNPortMACAddress[5])},
            {"FCF available", "fcf_available", (c.FabricParam & 0x8000) == 0},
        };
    return true;
}

// ---- targets and luns ----

struct Target {
    uint32_t index = 0;
    DISCPORTPROPERTY prop{};
};

// The discovered FCP targets in index order; 0 or the first failure.
uint32_t discovered_targets(int device, std::vector<Target>& targets) {
    for (uint32_t index = 0; index <= 0xFFFF; ++index) {
        Target t;
        t.index = index;
        const uint32_t status = SDGetDiscPortProperty(device, 0, index, 0, &t.prop);
        if (status == SDM_STATUS_DEVICE_NOT_FOUND)
            return SDM_STATUS_SUCCESS;
        if (status != SDM_STATUS_SUCCESS)
            return status;
        targets.push_back(t);
    }
    return SDM_STATUS_SUCCESS;
}

// Online state of every remote port by WWPN, from the port database.
std::map<std::string, bool> online_by_wwpn(int device) {
    constexpr uint32_t ENTRIES = 255;
    std::vector<uint8_t> buf(sizeof(DEVICEINFO) + (ENTRIES - 1) * sizeof(DEVICEINFOENTRY));
    auto* info = reinterpret_cast<DEVICEINFO*>(buf.data());
    std::map<std::string, bool> online;
    const uint32_t status = SDGetPortDatabase(device, 0x1000, info, static_cast<SD_UINT32>(buf.size()));
    if (status != SDM_STATUS_SUCCESS && status != SDM_STATUS_BUFFER_TOO_SMALL)
        return online;
    for (uint32_t i = 0; i < info->ReturnListEntryCount && i < ENTRIES; ++i) {
        const auto* e = reinterpret_cast<const DEVICEINFOENTRY*>(buf.data() + offsetof(DEVICEINFO, EntryList) +
                                                                 i * sizeof(DEVICEINFOENTRY));
        online[wwn_text(e->PortWWN)] = (e->DeviceFlags & 0x01) != 0;
    }
    return online;
}

// The target's LUNs; the status of the list call.
uint32_t target_luns(int device, uint16_t target, std::vector<uint16_t>& luns) {
    SD_UINT32 count = 0;
    uint32_t status = SDGetTargetLunList(device, target, nullptr, &count);
    if (status == SDM_STATUS_BUFFER_TOO_SMALL) {
        luns.resize(count);
        status = SDGetTargetLunList(device, target, luns.data(), &count);
        luns.resize(status == SDM_STATUS_SUCCESS ? count : 0);
    }
    return status;
}

std::string port_type_text(uint8_t type) {
    switch (type) {
    case 1: return "initiator";
    case 2: return "target";
    default: return std::to_string(type);
    }
}

}  // namespace

void error_line(const char* text) { fmt::print(stderr, "vxcli: {}\n", text); }

int explain_no_ports() {
    int handle = 0;
    const SD_UINT32 status = SDOpenDevice(0, &handle);
    if (status == SDM_STATUS_SUCCESS) {
        SDCloseDevice(handle);
        error_line("the adapters changed while listing them; try again");
        return EXIT_LIBRARY;
    }
    if (status == SDM_STATUS_DEVICE_NOT_FOUND) {
        error_line("no adapters found");
        return EXIT_NO_ADAPTERS;
    }
    std::string text = "cannot load the adapter library: " + status_text(status);
    if (geteuid() != 0)
        text += "; vxcli must run as root";
    else if (const std::string remove = foreign_leftovers(); !remove.empty())
        text += "; another user's objects are in the way, remove them if no adapter tool runs: " + remove;
    error_line(text.c_str());
    return EXIT_LIBRARY;
}

int run_show(uint32_t instance, bool as_json) {
    OpenPort port;
    open_port(instance, port);
    if (port.exit != EXIT_OK)
        return port.exit;
    const int device = static_cast<int>(port.handle);
    std::vector<Section> sections = {node_section(device), port_section(device), chip_section(device),
                                     driver_section(device), firmware_section(device)};
    Section cna;
    if (cna_section(device, cna))
        sections.push_back(std::move(cna));

    int result = EXIT_OK;
    json out{{"instance", instance}};
    std::string text;
    for (const Section& s : sections) {
        if (s.status != SDM_STATUS_SUCCESS) {
            error_line(fmt::format("port {}: {} query failed: {}", instance, s.key, status_text(s.status)).c_str());
            result = EXIT_PARTIAL;
            out[s.key] = json{{"error", status_text(s.status)}};
            continue;
        }
        json section = json::object();
        text += fmt::format("{}\n", s.title);
        for (const Field& f : s.fields) {
            section[f.key] = f.value;
            std::string value = cell(f.value);
            if (f.value.is_object()) {
                value.clear();
                for (const auto& [k, v] : f.value.items())
                    value += (value.empty() ? "" : ", ") + k + " " + cell(v);
                if (value.empty())
                    value = "-";
            }
            text += fmt::format("  {:<22}{}\n", f.label, value);
        }
        out[s.key] = std::move(section);
    }
    if (as_json)
        fmt::print("{}\n", out.dump(2));
    else
        fmt::print("{}", text);
    return result;
}

// The discovered targets of an opened port; a failed query makes the
// command's result partial.
int port_targets(uint32_t instance, int device, std::vector<Target>& targets) {
    const uint32_t status = discovered_targets(device, targets);
    if (status == SDM_STATUS_SUCCESS)
        return EXIT_OK;
    error_line(fmt::format("port {}: discovered ports query failed: {}", instance, status_text(status)).c_str());
    return EXIT_PARTIAL;
}

int run_targets(uint32_t instance, bool as_json) {
    OpenPort port;
    open_port(instance, port);
    if (port.exit != EXIT_OK)
        return port.exit;
    const int device = static_cast<int>(port.handle);
    std::vector<Target> targets;
    const int result = port_targets(instance, device, targets);
    const std::map<std::string, bool> online = online_by_wwpn(device);
    std::vector<json> rows;
    for (const Target& t : targets) {
        const std::string wwpn = wwn_text(t.prop.PortWWN);
        std::vector<uint16_t> luns;
        const uint32_t lun_status = target_luns(device, t.prop.TargetID, luns);
        json row{{"index", t.index},
                 {"target", t.prop.TargetID},
                 {"wwnn", wwn_text(t.prop.NodeWWN)},
                 {"wwpn", wwpn},
                 {"port_id", port_id_text(t.prop.PortID)},
                 {"type", port_type_text(t.prop.PortType)}};
        auto it = online.find(wwpn);
        row["state"] = it == online.end() ? json() : json(it->second ? "online" : "offline");
        row["luns"] = lun_status == SDM_STATUS_SUCCESS || lun_status == SDM_STATUS_DEVICE_NOT_FOUND
                          ? json(luns.size())
                          : json();
        rows.push_back(std::move(row));
    }
    print_rows(as_json, instance, "targets",
               {{"INDEX", true}, {"TARGET", true}, {"WWNN", false}, {"WWPN", false}, {"PORT ID", false},
                {"TYPE", false}, {"STATE", false}, {"LUNS", true}},
               {"index", "target", "wwnn", "wwpn", "port_id", "type", "state", "luns"}, rows);
    return result;
}

int run_luns(uint32_t instance, bool as_json) {
    OpenPort port;
    open_port(instance, port);
    if (port.exit != EXIT_OK)
        return port.exit;
    const int device = static_cast<int>(port.handle);
    std::vector<Target> targets;
    int result = port_targets(instance, device, targets);
    std::vector<json> rows;
    for (const Target& t : targets) {
        std::vector<uint16_t> luns;
        const uint32_t lun_status = target_luns(device, t.prop.TargetID, luns);
        json row{{"target", t.prop.TargetID}, {"wwpn", wwn_text(t.prop.PortWWN)}, {"luns", luns}};
        if (lun_status != SDM_STATUS_SUCCESS && lun_status != SDM_STATUS_DEVICE_NOT_FOUND) {
            error_line(fmt::format("port {}: LUNs of target {}: {}", instance, t.prop.TargetID,
                                   status_text(lun_status)).c_str());
            row["luns"] = json();
            result = EXIT_PARTIAL;
        }
        rows.push_back(std::move(row));
    }
    print_rows(as_json, instance, "targets", {{"TARGET", true}, {"WWPN", false}, {"LUNS", false}},
               {"target", "wwpn", "luns"}, rows);
    return result;
}

}  // namespace vxcli
