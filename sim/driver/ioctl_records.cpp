// Records of the extended-ioctl commands, built from the model. Wherever the
// sysfs channel derives the same field from an attribute the tree renders,
// the value here is derived the same way from the same model data, so one
// scenario answers alike on both channels.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>

#include "ioctl.h"
#include "pci.h"
#include "vx_adapters.h"

namespace vxsim::drv {

namespace {

constexpr char MANUFACTURER[] = "Varnex Corporation";
constexpr uint16_t NO_TARGET = 0xFFFF;

// Discovered-port status bits (the driver's): a port logged in, or one the
// driver still lists but lost.
constexpr uint16_t DISC_ONLINE = 0x2;
constexpr uint16_t DISC_GONE = 0x1;

// Port-summary entry flags.
constexpr uint8_t CF_TARGET = 0x01;
constexpr uint8_t CF_INITIATOR = 0x02;
constexpr uint8_t CF_FABRIC_ADDRESS = 0x08;
constexpr uint32_t DF_ONLINE = 0x01;

constexpr uint32_t FABRIC_PORT_ID_FIRST = 0xFFF000;

template <size_t N>
void put_text(uint8_t (&dst)[N], std::string_view text) {
    size_t n = std::min(text.size(), N - 1);
    std::memcpy(dst, text.data(), n);
}

void put_wwn(uint8_t (&dst)[8], uint64_t wwn) {
    for (int i = 0; i < 8; ++i)
        dst[i] = static_cast<uint8_t>(wwn >> (56 - 8 * i));
}

// Byte 0 unused, bytes 1-3 the FC address, most significant first.
void put_port_id(uint8_t* dst, uint32_t port_id) {
    dst[0] = static_cast<uint8_t>(port_id >> 16);
    dst[1] = static_cast<uint8_t>(port_id >> 8);
    dst[2] = static_cast<uint8_t>(port_id);
}

void put_id(uint8_t (&dst)[4], uint32_t port_id) {
    dst[0] = 0;
    put_port_id(dst + 1, port_id);
}

// The model name the tree renders in "model_name".
std::string model_name(const Adapter& a) {
    if (!a.model_name.empty())
        return a.model_name;
    const vx_adapter_type* t = vx_adapter_lookup(a.device_id);
    return t ? t->model : "";
}

// Up to four decimal numbers, as the sysfs twin converts the boot-image
// version attributes ("4.02" -> 4 2 0 0).
void put_version(uint8_t (&dst)[4], const std::string& text) {
    unsigned char parts[4] = {};
    std::sscanf(text.c_str(), "%hhu.%hhu.%hhu.%hhu", &parts[0], &parts[1], &parts[2], &parts[3]);
    std::memcpy(dst, parts, sizeof parts);
}

// Running MPI/PEP versions: three numbers, nothing when the text is empty.
void put_running_version(uint8_t (&dst)[4], const std::string& text) {
    unsigned char parts[3] = {};
    std::sscanf(text.c_str(), "%hhu.%hhu.%hhu", &parts[0], &parts[1], &parts[2]);
    std::memcpy(dst, parts, sizeof parts);
}

struct LinkRow {
    std::string_view text;
    uint16_t state, mode, topology;
};

// The link-state table of the sysfs channel, tested in the same order; a
// topology of 0 is the "unchanged" of a zeroed record.
constexpr LinkRow LINK_STATES[] = {
    {"Link Down", 2, 0, 0},
    {"Unknown Link State", 1, 0, 0},
    {"Link Up - Loop", 0, 2, 1},
    {"Link Up - FL_Port", 0, 2, 4},
    {"Link Up - N_Port to N_Port", 0, 1, 2},
    {"Link Up - F_Port", 0, 1, 8},
};
constexpr LinkRow LINK_OTHER{"", 2, 0, 0};

const LinkRow& link_row(const std::string& text) {
    for (const LinkRow& r : LINK_STATES)
        if (text == r.text)
            return r;
    return LINK_OTHER;
}

uint8_t speed_code(const std::string& text) {
    static constexpr std::pair<std::string_view, uint8_t> SPEEDS[] = {
        {"1 Gbit", VX_SPEED_1G},   {"2 Gbit", VX_SPEED_2G},   {"4 Gbit", VX_SPEED_4G},  {"8 Gbit", VX_SPEED_8G},
        {"10 Gbit", VX_SPEED_10G}, {"16 Gbit", VX_SPEED_16G}, {"32 Gbit", VX_SPEED_32G},
    };
    for (const auto& [t, code] : SPEEDS)
        if (text == t)
            return code;
    return 0;
}

bool online(const RemotePort& r) { return r.state == "Online"; }
bool has_role(const RemotePort& r, std::string_view role) { return r.roles.find(role) != std::string::npos; }
// The sysfs channel's target test: the roles text is exactly this.
bool only_target(const RemotePort& r) { return r.roles == "FCP Target"; }

uint16_t target_id(const RemotePort& r) {
    return r.scsi_target_id >= 0 ? static_cast<uint16_t>(r.scsi_target_id) : NO_TARGET;
}

struct PciLocation {
    unsigned domain = 0, bus = 0, dev = 0, fn = 0;
};

PciLocation pci_location(const std::string& address) {
    PciLocation p;
    std::sscanf(address.c_str(), "%4x:%2x:%2x.%1x", &p.domain, &p.bus, &p.dev, &p.fn);
    return p;
}

// The tree numbers interrupts 32, 33, ... over every PCI function in
// scenario order.
uint16_t interrupt_of(const Scenario& s, const PciFunction& target) {
    unsigned n = 0;
    for (const Adapter& a : s.adapters)
        for (const PciFunction& f : a.functions) {
            if (f.pci_address == target.pci_address)
                return static_cast<uint16_t>(32 + n);
            ++n;
        }
    return 0;
}

constexpr uint64_t IORESOURCE_IO = 0x100;
constexpr uint64_t IORESOURCE_MEM = 0x200;

// The PCIe link registers' speed encoding of the kernel's link-speed text.
uint32_t pcie_speed_code(std::string_view text) {
    static constexpr std::pair<std::string_view, uint32_t> CODES[] = {
        {"2.5 GT/s", 1}, {"5.0 GT/s", 2}, {"8.0 GT/s", 3}, {"16.0 GT/s", 4}, {"32.0 GT/s", 5},
    };
    for (const auto& [prefix, code] : CODES)
        if (text.starts_with(prefix))
            return code;
    return 0;
}

// The older generation's driver data carries no capability flags, so its
// maps keep the small size whatever the flags say.
size_t lun_map_size(const Adapter& a) {
    return (a.driver_flags & EXT_DRIVER_FLAG_CAP4) && a.channel != Channel::Legacy ? TGT_LUN_MAP_LARGE
                                                                                   : TGT_LUN_MAP_SMALL;
}

// LUN numbers as the sysfs channel decodes the midlayer's names: by the top
// two bits of the 16-bit number.
uint16_t decode_lun(uint16_t lun) {
    switch (lun >> 14) {
    case 1: return lun & 0x3FFF;
    case 2: return lun & 0x001F;
    default: return lun & 0x00FF;
    }
}

// Marks in `map` the LUNs of every channel-0 SCSI device of the host with
// this target id (the sysfs channel's count); returns how many the target
// has, also those past the map, which stay unmarked.
uint16_t fill_lun_map(const HostPort& h, int32_t tid, uint8_t* map, size_t map_size) {
    uint16_t count = 0;
    for (const RemotePort& r : h.remote_ports) {
        if (tid < 0 || r.channel != 0 || r.scsi_target_id != tid)
            continue;
        for (const Lun& l : r.luns) {
            uint16_t n = decode_lun(l.lun);
            if (n < map_size)
                map[n] |= EXT_DEF_LUN_PRESENT;
            ++count;
        }
    }
    return count;
}

// The ports that the LUN lists report: online, roles exactly "FCP Target",
// with a target id that the entry's byte can name.
std::vector<const RemotePort*> listed_targets(const HostPort& h) {
    std::vector<const RemotePort*> out;
    for (const RemotePort& r : h.remote_ports)
        if (online(r) && only_target(r) && r.scsi_target_id >= 0 &&
            static_cast<uint32_t>(r.scsi_target_id) <= VX_TGT_LUN_MAX_TARGET)
            out.push_back(&r);
    return out;
}

template <class T>
void store(std::vector<uint8_t>& out, size_t offset, const T& value) {
    std::memcpy(out.data() + offset, &value, sizeof value);
}

// The shared frame of the two LUN lists: a 32-byte head, then entries of a
// 32-byte head and the LUN map, while they fit (never past `room`). `fill`
// writes one entry, already zeroed, at `out[at]`.
template <class Fill>
ListAnswer lun_list(const IoctlPort& p, uint32_t room, Fill&& fill) {
    ListAnswer ans;
    const size_t map = lun_map_size(*p.adapter);
    const size_t entry = TGT_LUN_DATA_ENTRY_HEADER + map;
    if (room < TGT_LUN_DATA_LIST_HEADER) {
        ans.status = EXT_STATUS_INVALID_PARAM;
        return ans;
    }
    ans.bytes.assign(TGT_LUN_DATA_LIST_HEADER, 0);
    if (room - TGT_LUN_DATA_LIST_HEADER < entry) {
        ans.status = EXT_STATUS_INVALID_PARAM;  // not even one entry fits
        return ans;
    }
    uint16_t count = 0;
    for (const RemotePort* r : listed_targets(*p.host)) {
        size_t at = ans.bytes.size();
        if (room - at < entry)
            break;
        ans.bytes.resize(at + entry, 0);
        fill(ans.bytes, at, *r, count, map);
        ++count;
    }
    store(ans.bytes, offsetof(TGT_LUN_DATA_LIST, EntryCount), count);
    ans.status = count ? EXT_STATUS_OK : EXT_STATUS_DEV_NOT_FOUND;
    return ans;
}

}  // namespace

std::vector<IoctlPort> ioctl_ports(const Scenario& s, NodeKind kind, std::string_view driver) {
    std::vector<IoctlPort> out;
    for (const Adapter& a : s.adapters) {
        bool served = kind == NodeKind::Ioctl    ? a.channel == Channel::Ioctl
                      : kind == NodeKind::Legacy ? a.channel == Channel::Legacy && a.driver_name == driver
                                                 : false;
        if (!served)
            continue;
        for (size_t fn = 0; fn < a.functions.size(); ++fn) {
            const PciFunction& f = a.functions[fn];
            out.push_back({&a, fn, &f.port, true, f.ioctl_missing});
            for (const HostPort& v : f.vports)
                out.push_back({&a, fn, &v, false, false});
        }
    }
    return out;
}

std::optional<std::array<uint8_t, 3>> serial_bytes(std::string_view text) {
    if (text.size() != 6 || text[0] < 'A' || text[0] > 'Z')
        return std::nullopt;
    uint32_t number = 0;
    for (char c : text.substr(1)) {
        if (c < '0' || c > '9')
            return std::nullopt;
        number = number * 10 + static_cast<uint32_t>(c - '0');
    }
    uint32_t n = static_cast<uint32_t>(text[0] - 'A') * 100000 + number;
    return std::array<uint8_t, 3>{static_cast<uint8_t>(n >> 16), static_cast<uint8_t>(n & 0xFF),
                                  static_cast<uint8_t>((n >> 8) & 0xFF)};
}

EXT_HBA_NODE ioctl_node(const IoctlPort& p) {
    const Adapter& a = *p.adapter;
    EXT_HBA_NODE n{};
    put_wwn(n.WWNN, p.host->wwnn);
    put_text(n.Manufacturer, MANUFACTURER);
    put_text(n.Model, model_name(a));
    if (vx_is_hp_subsystem(a.subsystem_vendor_id, a.subsystem_device_id)) {
        // HP boards carry the serial text in the record's last 8 bytes (not terminated when 8 long).
        std::memcpy(n.Reserved, a.serial_number.data(), std::min(a.serial_number.size(), sizeof n.Reserved));
    } else if (std::optional<std::array<uint8_t, 3>> s = serial_bytes(a.serial_number)) {
        std::memcpy(n.SerialNum, s->data(), s->size());
    }
    put_text(n.DriverVersion, a.driver_version);
    put_text(n.FWVersion, a.fw_version);
    put_text(n.OptRomVersion, a.flash.bios);
    n.PortCount = static_cast<uint16_t>(a.functions.size());
    n.InterfaceType = p.physical ? 1 : 3;
    put_version(n.BIFwVersion, a.flash.firmware);
    put_version(n.BIEfiVersion, a.flash.efi);
    put_version(n.BIFCodeVersion, a.flash.fcode);
    put_running_version(n.BIMpiFwVersion, a.mpi_version);
    put_running_version(n.BIPepFwVersion, a.pep_version);
    return n;
}

EXT_HBA_PORT ioctl_port(const IoctlPort& p) {
    const HostPort& h = *p.host;
    EXT_HBA_PORT r{};
    put_wwn(r.WWPN, h.wwpn);
    put_id(r.Id, h.port_id);
    r.Type = EXT_DEF_INITIATOR_DEV;
    const LinkRow& link = link_row(h.link_state);
    r.State = link.state;
    r.Mode = link.mode;
    r.Topology = link.topology;
    // fw_state words 1, 2, 3 and 6, as the sysfs channel parses them.
    if (h.fw_state.size() == 6) {
        r.LinkState1 = h.fw_state[0];
        r.LinkState2 = h.fw_state[1];
        r.LinkState3 = h.fw_state[2];
        r.LinkState6 = h.fw_state[5];
    }
    r.PortSpeed = speed_code(h.speed);
    const vx_adapter_type* t = vx_adapter_lookup(p.adapter->device_id);
    r.PortSupportedSpeed = t ? t->supported_speeds : 0;
    put_wwn(r.FabricName, h.fabric_name);
    // Target ports whatever their state; targets are the distinct SCSI
    // target ids of the host's LUNs.
    std::set<int32_t> targets;
    for (const RemotePort& rp : h.remote_ports) {
        if (only_target(rp))
            ++r.DiscPortCount;
        if (rp.scsi_target_id >= 0 && !rp.luns.empty())
            targets.insert(rp.scsi_target_id);
    }
    r.DiscTargetCount = static_cast<uint16_t>(targets.size());
    r.DiscPortNameType = 2;
    r.PortSupportedFC4Types = 3;
    r.PortActiveFC4Types = 3;
    return r;
}

EXT_CHIP ioctl_chip(const Scenario& s, const IoctlPort& p) {
    const Adapter& a = *p.adapter;
    const PciFunction& f = a.functions[p.fn];
    PciLocation loc = pci_location(f.pci_address);
    EXT_CHIP c{};
    c.VendorId = a.vendor_id;
    c.DeviceId = a.device_id;
    c.SubVendorId = a.subsystem_vendor_id;
    c.SubSystemId = a.subsystem_device_id;
    c.PciBusNumber = static_cast<uint16_t>(loc.bus);
    c.PciSlotNumber = static_cast<uint16_t>(loc.dev);
    // The first I/O and the first memory BAR, 32 bits wide, as "resource" shows them.
    bool io = false, mem = false;
    for (const PciBar& bar : pci_bars(f.pci_address)) {
        if (bar.start == 0 || bar.end < bar.start)
            continue;
        const auto len = static_cast<uint32_t>(bar.end - bar.start + 1);
        if (!io && (bar.flags & IORESOURCE_IO)) {
            c.IoAddr = static_cast<uint32_t>(bar.start);
            c.IoAddrLen = len;
            io = true;
        } else if (!mem && (bar.flags & IORESOURCE_MEM)) {
            c.MemAddr = static_cast<uint32_t>(bar.start);
            c.MemAddrLen = len;
            mem = true;
        }
    }
    c.ChipType = a.device_id;
    c.InterruptLevel = interrupt_of(s, f);
    c.PciDevFunc = static_cast<uint16_t>((loc.dev << 3) | loc.fn);
    c.DomainNr = static_cast<uint16_t>(loc.domain);
    // The link trains to its maximum: capability and status alike.
    const PcieLink link = pcie_link(a.device_id);
    c.PcieLinkCap = (pcie_speed_code(link.speed) & 0xF) | ((link.width & 0x3F) << 4);
    c.PcieLinkStat = static_cast<uint16_t>(c.PcieLinkCap);
    c.FlashBlockSize = FLASH_BLOCK_SIZE;
    return c;
}

EXT_DRIVER ioctl_driver(const IoctlPort& p) {
    const Adapter& a = *p.adapter;
    EXT_DRIVER d{};
    put_text(d.Version, a.driver_version);
    d.NumOfBus = 1;
    d.TargetsPerBus = 512;
    d.LunsPerTarget = (a.driver_flags & EXT_DRIVER_FLAG_CAP4) ? 4096 : 256;
    d.MaxTransferLen = 0xFFFFFFFF;
    d.MaxDataSegments = a.functions[p.fn].sg_tablesize;
    return d;
}

EXT_FW ioctl_fw(const IoctlPort& p) {
    // Major, minor and sub-minor of the running firmware, in binary.
    EXT_FW fw{};
    signed char v[3] = {};
    std::sscanf(p.adapter->fw_version.c_str(), "%hhd.%02hhd.%02hhd", &v[0], &v[1], &v[2]);
    std::memcpy(fw.Version, v, sizeof v);
    return fw;
}

EXT_CNA_PORT ioctl_cna(const IoctlPort& p) {
    EXT_CNA_PORT c{};
    c.VLanId = p.host->vlan_id;
    std::memcpy(c.VNPortMACAddress, p.host->vn_port_mac, sizeof c.VNPortMACAddress);
    c.FabricParam = p.host->fabric_param;
    return c;
}

EXT_LN_DRIVER_DATA ioctl_driver_data(const IoctlPort& p) {
    EXT_LN_DRIVER_DATA d{};
    // The version text read as the sysfs channel reads it: "10.02.00.103-k" is 10 2 0, beta after a "b".
    signed char v[4] = {};
    std::sscanf(p.adapter->driver_version.c_str(), "%2hhd . %2hhd . %2hhd b %2hhd", &v[0], &v[1], &v[2], &v[3]);
    d.DrvVer.Major = static_cast<uint8_t>(v[0]);
    d.DrvVer.Minor = static_cast<uint8_t>(v[1]);
    d.DrvVer.Patch = static_cast<uint8_t>(v[2]);
    d.DrvVer.Beta = static_cast<uint8_t>(v[3]);
    d.Flags = p.adapter->driver_flags;
    return d;
}

std::optional<EXT_DISC_PORT> ioctl_disc_port(const IoctlPort& p, uint16_t index) {
    if (index >= p.host->remote_ports.size())
        return std::nullopt;
    const RemotePort& r = p.host->remote_ports[index];
    EXT_DISC_PORT d{};
    put_wwn(d.WWNN, r.wwnn);
    put_wwn(d.WWPN, r.wwpn);
    put_id(d.Id, r.port_id);
    d.Type = has_role(r, "FCP Target") ? 2 : has_role(r, "FCP Initiator") ? 1 : 0;
    d.Status = online(r) ? DISC_ONLINE : DISC_GONE;
    d.Bus = static_cast<uint16_t>(r.channel);
    d.TargetId = target_id(r);
    d.LoopID = r.loop_id;
    return d;
}

std::optional<EXT_DISC_TARGET> ioctl_disc_target(const IoctlPort& p, uint16_t index) {
    std::vector<const RemotePort*> targets;
    for (const RemotePort& r : p.host->remote_ports)
        if (r.scsi_target_id >= 0)
            targets.push_back(&r);
    std::stable_sort(targets.begin(), targets.end(), [](const RemotePort* x, const RemotePort* y) {
        return x->scsi_target_id < y->scsi_target_id;
    });
    if (index >= targets.size())
        return std::nullopt;
    const RemotePort& r = *targets[index];
    EXT_DISC_TARGET t{};
    put_wwn(t.WWNN, r.wwnn);
    put_wwn(t.WWPN, r.wwpn);
    put_id(t.Id, r.port_id);
    t.Type = EXT_DEF_TARGET_DEV;
    t.Status = online(r) ? DISC_ONLINE : DISC_GONE;
    t.Bus = static_cast<uint16_t>(r.channel);
    t.TargetId = target_id(r);
    t.LunCount = static_cast<uint16_t>(r.luns.size());
    t.LoopID = r.loop_id;
    return t;
}

std::optional<EXT_SCSI_ADDR> ioctl_wwpn_to_scsiaddr(const IoctlPort& p, const uint8_t (&wwpn)[8]) {
    for (const RemotePort& r : p.host->remote_ports) {
        uint8_t name[8];
        put_wwn(name, r.wwpn);
        if (r.scsi_target_id < 0 || std::memcmp(name, wwpn, sizeof name) != 0)
            continue;
        EXT_SCSI_ADDR addr{};
        addr.Bus = static_cast<uint16_t>(r.channel);
        addr.Target = target_id(r);
        return addr;
    }
    return std::nullopt;
}

ListAnswer ioctl_port_summary(const IoctlPort& p, uint32_t mask, uint32_t room) {
    ListAnswer ans;
    if (room < EXT_DEVICEDATA_HEADER) {
        ans.status = EXT_STATUS_INVALID_PARAM;
        return ans;
    }
    ans.bytes.assign(EXT_DEVICEDATA_HEADER, 0);
    uint32_t total = 0, returned = 0;
    for (const RemotePort& r : p.host->remote_ports) {
        // Targets (whatever else they are), initiators that are not targets,
        // fabric ports by their well-known address, and the ports none of these.
        const bool target = has_role(r, "FCP Target");
        const bool initiator = has_role(r, "FCP Initiator");
        const bool fabric = r.port_id >= FABRIC_PORT_ID_FIRST;
        const bool selected =
            (mask & SUMMARY_ALL) ||
            ((online(r) || (mask & SUMMARY_NOT_ONLINE)) &&
             (((mask & SUMMARY_TARGETS) && target) || ((mask & SUMMARY_INITIATORS) && initiator && !target) ||
              ((mask & SUMMARY_FABRIC) && fabric) || ((mask & SUMMARY_OTHERS) && !target && !initiator && !fabric)));
        if (!selected)
            continue;
        ++total;
        size_t at = ans.bytes.size();
        if (room - at < sizeof(EXT_DEVICEDATAENTRY))
            continue;  // counted, not listed
        EXT_DEVICEDATAENTRY e{};
        put_wwn(e.NodeWWN, r.wwnn);
        put_wwn(e.PortWWN, r.wwpn);
        put_port_id(e.PortID, r.port_id);
        e.ControlFlags = static_cast<uint8_t>((target ? CF_TARGET : 0) | (initiator ? CF_INITIATOR : 0) |
                                              ((r.port_id >> 16) & 0xFF ? CF_FABRIC_ADDRESS : 0));
        e.TargetAddress.Bus = static_cast<uint16_t>(r.channel);
        e.TargetAddress.Target = target_id(r);
        e.DeviceFlags = online(r) ? DF_ONLINE : 0;
        e.LoopID = r.loop_id;
        ans.bytes.resize(at + sizeof e);
        std::memcpy(ans.bytes.data() + at, &e, sizeof e);
        ++returned;
    }
    store(ans.bytes, offsetof(EXT_DEVICEDATA, TotalDevices), total);
    store(ans.bytes, offsetof(EXT_DEVICEDATA, ReturnListEntryCount), returned);
    return ans;
}

ListAnswer ioctl_tgt_lun_list(const IoctlPort& p, uint32_t room) {
    return lun_list(p, room, [&](std::vector<uint8_t>& out, size_t at, const RemotePort& r, uint16_t, size_t map) {
        TGT_LUN_DATA_ENTRY e{};
        put_wwn(e.NodeName, r.wwnn);
        put_wwn(e.PortName, r.wwpn);
        e.TargetId = static_cast<uint8_t>(r.scsi_target_id);
        e.DevType = EXT_DEF_TARGET_DEV;
        put_id(e.PortId, r.port_id);
        e.LunCount = fill_lun_map(*p.host, r.scsi_target_id, out.data() + at + TGT_LUN_DATA_ENTRY_HEADER, map);
        std::memcpy(out.data() + at, &e, TGT_LUN_DATA_ENTRY_HEADER);
    });
}

ListAnswer ioctl_fo_lun_list(const IoctlPort& p, uint32_t room) {
    return lun_list(p, room,
                    [&](std::vector<uint8_t>& out, size_t at, const RemotePort& r, uint16_t number, size_t map) {
                        FO_EXTERNAL_LUN_DATA_ENTRY e{};
                        put_wwn(e.NodeName, r.wwnn);
                        put_wwn(e.PortName, r.wwpn);
                        e.TargetId = static_cast<uint8_t>(r.scsi_target_id);
                        e.Dev_No = static_cast<uint8_t>(number);
                        e.LunCount = fill_lun_map(*p.host, r.scsi_target_id,
                                                  out.data() + at + FO_EXTERNAL_LUN_DATA_ENTRY_HEADER, map);
                        std::memcpy(out.data() + at, &e, FO_EXTERNAL_LUN_DATA_ENTRY_HEADER);
                    });
}

}  // namespace vxsim::drv
