// vxsim model: what a simulated host holds. Loaded from a scenario (JSON);
// rendered as a sysfs tree (sim/tree) and answered by the driver emulation
// (sim/driver). Mutable state (flash, NVRAM, VPD, counters, events, journal)
// lives in files under the sim root, never in this structure.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vxsim {

// How the host's driver offers an adapter to management software.
enum class Channel {
    Sysfs,   // sysfs attributes + FC bsg + netlink (no ioctl node)
    Ioctl,   // newer extended-ioctl node /dev/vxfcdrv (EXT_IOCTL, 116 bytes)
    Legacy,  // older node /proc/scsi/<driver>/HbaApiNode (EXT_IOCTL_O, 68 bytes)
};

struct Lun {
    uint16_t lun = 0;              // LUN number as the SCSI midlayer names it
    std::string vendor = "VARNEX";
    std::string product = "SIMDISK";
    std::string revision = "0001";
    uint64_t blocks = 2097152;     // capacity in blocks
    uint32_t block_size = 512;
    uint8_t peripheral_type = 0;   // 0 = disk
    std::string serial;            // unit serial number (VPD page 0x80); empty: derived from the port and LUN
};

// How a SCSI target answers, beyond its LUNs' data.
enum class TargetKind {
    Normal,
    RejectsReportLuns,    // REPORT LUNS: CHECK CONDITION, ILLEGAL REQUEST / INVALID COMMAND OPERATION CODE
    Busy,                 // every command: BUSY status
    ReservationConflict,  // every command but INQUIRY, REPORT LUNS, REQUEST SENSE: RESERVATION CONFLICT
};

struct RemotePort {
    uint32_t number = 0;           // R of rport-H:B-R
    uint32_t channel = 0;          // B of rport-H:B-R
    uint64_t wwnn = 0;
    uint64_t wwpn = 0;
    uint32_t port_id = 0;          // 24-bit FC address
    std::string roles = "FCP Target";  // kernel text: "FCP Target", "FCP Initiator", "FCP Target, FCP Initiator", ...
    std::string state = "Online";      // kernel text: "Online", "Blocked", "Not Present", ...
    int32_t scsi_target_id = -1;   // -1: no SCSI target (initiator-only ports)
    uint16_t loop_id = 0xFFFF;     // arbitrated-loop id, 0xFFFF when not on a loop
    TargetKind target_kind = TargetKind::Normal;
    std::vector<Lun> luns;
    // Name-server registration.
    std::optional<std::vector<uint8_t>> fc4_types;  // FC-4 type codes; absent: 8 (FCP) for a port with an FCP role
    std::string symbolic_name;
    uint64_t fabric_port_name = 0; // the switch port it logs in through; 0: derived from the fabric name and address
};

struct Counters {
    std::map<std::string, uint64_t> values;  // fc_host/statistics attribute name -> value
};

// One SCSI host: a physical port or an NPIV virtual port.
struct HostPort {
    uint32_t host_no = 0;
    uint64_t wwnn = 0;
    uint64_t wwpn = 0;
    uint32_t port_id = 0;
    std::string link_state = "Link Up - F_Port";  // scsi_host link_state text
    bool has_link_state = true;    // false: attribute missing, "state" carries the text
    std::string speed = "8 Gbit";  // fc_host speed text
    uint64_t fabric_name = 0;
    std::vector<uint16_t> fw_state{0x3, 0x0, 0x0, 0x0, 0x0, 0x0};  // six fw_state words
    uint32_t max_npiv_vports = 0;
    int32_t vport_id = -1;         // virtual ports: the driver's vport id attribute (-1 none)
    std::string port_type = "NPort (fabric via point-to-point)";
    std::string port_state = "Online";
    std::string symbolic_name;
    uint16_t vlan_id = 0;          // converged ports
    uint8_t vn_port_mac[6]{};      // converged ports
    uint16_t fabric_param = 0;     // converged ports
    std::vector<RemotePort> remote_ports;
    Counters stats;
};

// One PCI function of an adapter: its physical port and the virtual ports on it.
struct PciFunction {
    std::string pci_address;       // "0000:03:00.0"
    HostPort port;                 // the physical port (lowest host number)
    std::vector<HostPort> vports;  // NPIV ports, each with its own host number
    uint32_t sg_tablesize = 128;
    bool bsg = true;               // class/bsg/fc_hostN present
    bool ioctl_missing = false;    // ioctl channels: the driver counts the physical port's index but cannot select it
};

// Versions kept in the adapter's flash images.
struct FlashVersions {
    std::string bios = "3.18";     // x86 BIOS image code revision (major.minor)
    std::string fcode = "4.02";
    std::string efi = "6.01";
    std::string firmware = "8.05.63";  // firmware image version (major.minor.sub)
    std::string mpi = "2.1.4";     // multi-processor families
    std::string pep = "1.0.9";
    std::string edc = "1.2.7";     // families with a separate management processor
    std::string nic = "3.1.2";     // NIC boot code on the same families
};

// What the adapter's VPD holds (every port's alike). HP boards write their
// identifier length in one byte whatever the content.
enum class VpdContent {
    Valid,        // identifier, read-only keywords closed by a correct "RV", read-write section, end tag
    BadChecksum,  // the same with the "RV" byte one off
    Truncated,    // cut after the serial number: no "RV", no end tag, the rest erased (0xFF)
};

// One adapter board: one flash, one serial number, one or more PCI functions.
struct Adapter {
    std::string id;                // scenario-local name, also names the state files
    uint16_t vendor_id = 0x1D5A;
    uint16_t device_id = 0;
    uint16_t subsystem_vendor_id = 0x1D5A;
    uint16_t subsystem_device_id = 0;
    std::string serial_number;     // VPD "SN" and scsi_host serial_num
    bool serial_in_sysfs = true;   // false: serial_num attribute empty, library falls back to VPD
    std::string model_name;        // scsi_host model_name; empty: the adapter table's model
    std::string model_description;
    std::string driver_name = "vxfcdrv";  // PCI driver directory the functions are bound to
    std::string driver_version = "10.02.00.103-k";
    std::string fw_version = "8.05.63 (d0d5)";
    std::string mpi_version;       // running MPI firmware ("" = attribute absent)
    std::string pep_version;       // running PEP firmware ("" = attribute absent)
    bool optrom_attrs = true;      // optrom_*_version attributes present in sysfs
    bool partial_flash = true;     // driver accepts "1:%x:%x"/"2:%x:%x" (rejects control code 4)
    uint32_t active_image = 0;     // boards with two image sets: 0 primary, 1 secondary running
    uint32_t driver_flags = 0x04;  // ioctl channels: capability bits of the driver data (0x04: large LUN maps)
    Channel channel = Channel::Sysfs;
    VpdContent vpd = VpdContent::Valid;
    FlashVersions flash;
    std::vector<PciFunction> functions;
};

// A fault armed on an endpoint: the next `count` matching requests fail.
// The endpoints that take faults:
inline constexpr const char* FAULT_ENDPOINTS[] = {"optrom_ctl", "optrom", "nvram", "vpd",
                                                  "ioctl",      "bsg",    "sg",    "netlink"};
bool is_fault_endpoint(const std::string& name);
// "optrom_ctl, optrom, ...", for messages.
std::string fault_endpoint_list();

struct Fault {
    std::string endpoint;          // "optrom_ctl", "optrom", "ioctl", "bsg", "netlink", ...
    std::string match;             // endpoint-specific selector ("" = any), e.g. a command or "0xc0747900"
    std::string action;            // "ebusy", "enosys", "eio", "status:<n>", "short", "refuse", "partial"
    int32_t count = 1;             // -1 = always
};

struct Event {
    uint32_t host_no = 0;
    uint32_t code = 0;             // FC transport event code (1 LIP .. 5 RSCN) or driver AEN code
    uint32_t data = 0;
};

struct HostOptions {
    bool pci_bus = true;           // false: no bus/pci in the tree
    bool vioctlmod = false;        // /sys/module/vioctlmod present
    bool control_node = true;      // class/vxfcapidev/vxfcapidev/dev present
    std::optional<uint32_t> euid;  // geteuid() answer inside the host (tests of the root check)
    bool esx = false;              // VMware service console markers
    // Driver module parameters that differ from the driver's own set: a
    // value (decimal text) adds or changes one, none removes it.
    std::map<std::string, std::optional<std::string>> module_parameters;
};

struct Scenario {
    std::string name;
    std::string description;
    HostOptions options;
    std::vector<Adapter> adapters;
    std::vector<Fault> faults;
    std::vector<Event> events;
};

// Every LUN of the scenario as the SCSI midlayer numbers its upper-level
// devices: in scenario order (functions, their physical then virtual ports,
// remote ports, LUNs), each gets the next SCSI generic number and, when it
// is a disk, the next disk number. Tree, runner and driver share this order.
struct ScsiDevice {
    const HostPort* host = nullptr;
    const RemotePort* rport = nullptr;
    const Lun* lun = nullptr;
    uint32_t sg = 0;     // sg<N>
    int32_t disk = -1;   // index of its sd name (0: sda), -1 for other device types
};
std::vector<ScsiDevice> scsi_devices(const Scenario& s);
// The kernel's disk names: sda .. sdz, sdaa .. sdzz, sdaaa ...
std::string disk_name(uint32_t index);

const char* target_kind_name(TargetKind k);

// Loads a scenario file. On failure returns false and sets `error` to one line.
bool load_scenario(const std::string& path, Scenario& out, std::string& error);
bool parse_scenario(const std::string& json_text, Scenario& out, std::string& error);
std::string scenario_to_json(const Scenario& s);

// A number as people write it for the simulator: decimal, or hexadecimal
// after "0x" (so "010" is ten, never octal). No sign, no blanks.
bool parse_number(const std::string& text, uint64_t& out);

// Helpers shared by tree and driver.
std::string wwn_hex(uint64_t wwn);           // "0x2100001b32000001"
std::string port_id_hex(uint32_t port_id);   // "0x010200"
uint8_t pci_function_number(const std::string& pci_address);

}  // namespace vxsim
