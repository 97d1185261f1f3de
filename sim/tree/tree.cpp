// The sysfs tree of a simulated host. Paths, link targets and attribute texts
// follow the kernel: PCI functions under their root bus (and a bridge for any
// bus but 0), SCSI hosts under their function (NPIV hosts under their vport),
// remote ports, targets and LUNs under their host, transport-class and bsg
// directories inside the devices they belong to, and class/ and bus/
// directories made of relative links into devices/.
//
// Attributes whose names or formats are the driver's own (not the SCSI or FC
// transport's) are documented in docs/adapters.md; the choices are marked
// "our format" below.
#include "tree.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <set>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "stats.h"
#include "dcbx.h"
#include "fsutil.h"
#include "pci.h"
#include "root.h"
#include "vx_adapters.h"

namespace vxsim {
namespace {

std::string fmt(const char* f, auto... args) {
    char buf[256];
    int n = std::snprintf(buf, sizeof buf, f, args...);
    return n < 0 ? std::string() : std::string(buf, std::min<size_t>(static_cast<size_t>(n), sizeof buf - 1));
}

struct PciAddress {
    unsigned domain = 0, bus = 0, dev = 0, fn = 0;
};

// Accepts exactly the kernel's spelling "dddd:bb:ss.f" in lower case.
bool parse_pci(const std::string& text, PciAddress& out) {
    unsigned d = 0, b = 0, s = 0, f = 0;
    char tail = 0;
    if (std::sscanf(text.c_str(), "%4x:%2x:%2x.%1x%c", &d, &b, &s, &f, &tail) != 4 || s > 31 || f > 7)
        return false;
    if (fmt("%04x:%02x:%02x.%x", d, b, s, f) != text)
        return false;
    out = {d, b, s, f};
    return true;
}

// The kernel prints world-wide names with "0x%llx" (no zero padding).
std::string wwn_text(uint64_t wwn) { return fmt("0x%" PRIx64 "\n", wwn); }
std::string line(std::string_view s) { return std::string(s) + "\n"; }
std::string num(int64_t v) { return fmt("%" PRId64 "\n", v); }

std::string rport_name(uint32_t host, const RemotePort& r) {
    return fmt("rport-%u:%u-%u", host, r.channel, r.number);
}

// Speeds each family's ports can run at, in the fc_host "supported_speeds"
// wording (our table; the library does not read it, tools show it).
const char* supported_speeds_text(uint16_t device_id) {
    switch (vx_adapter_family(device_id)) {
    case vx_family::Finch:
    case vx_family::Hp:
    case vx_family::Robin:
    case vx_family::Heron: return "1 Gbit, 2 Gbit";
    case vx_family::Egret:
    case vx_family::Swift: return "1 Gbit, 2 Gbit, 4 Gbit";
    case vx_family::Kite:
    case vx_family::Lark: return "10 Gbit";
    case vx_family::Wren:
    case vx_family::Ibis: return "2 Gbit, 4 Gbit, 8 Gbit";
    case vx_family::Plover: return "4 Gbit, 8 Gbit, 16 Gbit";
    case vx_family::Tern: return "8 Gbit, 16 Gbit, 32 Gbit";
    case vx_family::Crane: return "10 Gbit, 16 Gbit, 32 Gbit";
    case vx_family::Unknown: break;
    }
    return "unknown";
}

std::string model_name(const Adapter& a) {
    if (!a.model_name.empty())
        return a.model_name;
    const vx_adapter_type* t = vx_adapter_lookup(a.device_id);
    return t ? t->model : "";
}

std::string model_description(const Adapter& a) {
    if (!a.model_description.empty())
        return a.model_description;
    bool cna = vx_adapter_has(a.device_id, VX_MARK_CNA);
    return "Varnex " + model_name(a) + (cna ? " Converged Network Adapter" : " Fibre Channel Adapter");
}

// Run-time parameters of the current driver module (our set; the library
// reads and writes them by name, values are decimal like any int parameter).
constexpr std::pair<std::string_view, std::string_view> DRIVER_PARAMETERS[] = {
    {"vxfcsmartsan", "0"}, {"vxfctrace", "0"},   {"vxfclogintmo", "20"}, {"vxfcqdepth", "64"},
    {"vxfcmsix", "1"},     {"vxfcnpiv", "1"},    {"vxfcfdmi", "1"},      {"vxfclinkdowntmo", "30"},
};

// Writes below <root>/sys with paths relative to it; the first failure sticks.
class Writer {
public:
    Writer(std::string sys, TreeStats& stats) : sys_(std::move(sys)), stats_(stats) {}

    bool ok() const { return error_.empty(); }
    const std::string& error() const { return error_; }

    void dir(const std::string& rel) {
        if (!ok() || rel.empty() || made_.count(rel))
            return;
        size_t slash = rel.find_last_of('/');
        if (slash != std::string::npos)
            dir(rel.substr(0, slash));
        if (!ok())
            return;
        std::string path = sys_ + "/" + rel;
        if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
            error_ = fs::errno_text("mkdir", path);
            return;
        }
        made_.insert(rel);
        ++stats_.dirs;
    }

    void file(const std::string& rel, std::string_view text, mode_t mode = 0644) {
        parent(rel);
        if (!ok())
            return;
        std::string err;
        if (!fs::write_file(sys_ + "/" + rel, text, mode, err))
            error_ = err;
        ++stats_.files;
    }

    // A relative link as the kernel makes them: "../" up to the sysfs root,
    // then the target's path from there.
    void link(const std::string& rel, const std::string& target) {
        parent(rel);
        if (!ok())
            return;
        std::string up;
        for (char c : rel)
            if (c == '/')
                up += "../";
        std::string path = sys_ + "/" + rel;
        if (::symlink((up + target).c_str(), path.c_str()) != 0) {
            error_ = fs::errno_text("symlink", path);
            return;
        }
        ++stats_.links;
    }

private:
    void parent(const std::string& rel) {
        size_t slash = rel.find_last_of('/');
        if (slash != std::string::npos)
            dir(rel.substr(0, slash));
    }

    std::string sys_;
    TreeStats& stats_;
    std::string error_;
    std::unordered_set<std::string> made_;
};

class TreeBuilder {
public:
    TreeBuilder(const Scenario& s, Writer& w, TreeStats& stats) : s_(s), w_(w), stats_(stats) {
        for (const DeviceNode& n : plan_device_nodes(s))
            nodes_[n.name] = n;
        for (const ScsiDevice& d : scsi_devices(s))
            scsi_[d.lun] = d;
    }

    void build() {
        for (const char* d : {"block", "dev/block", "dev/char", "firmware", "fs", "kernel", "power"})
            w_.dir(d);
        for (const char* c :
             {"scsi_host", "fc_host", "fc_remote_ports", "fc_vports", "fc_transport", "scsi_device", "scsi_disk", "bsg",
              "scsi_generic", "block"})
            w_.dir(std::string("class/") + c);
        w_.dir("bus/scsi/devices");
        w_.dir("bus/scsi/drivers");
        if (s_.options.pci_bus)
            w_.dir("bus/pci/devices");

        for (const Adapter& a : s_.adapters)
            for (const PciFunction& f : a.functions)
                function(a, f);
        modules();
        char_node("ioctl", "vxfcdrv");
        char_node("control", "vxfcapidev");
    }

private:
    // devices/pciDDDD:00[/DDDD:00:SS.F bridge]/<bdf>
    std::string function_dir(const PciFunction& f) {
        PciAddress p;
        parse_pci(f.pci_address, p);
        std::string root = fmt("devices/pci%04x:00", p.domain);
        if (!made_roots_.count(root)) {
            made_roots_.insert(root);
            w_.file(root + "/uevent", "");
        }
        if (p.bus == 0)
            return root + "/" + f.pci_address;
        // One bridge per secondary bus, numbered in order of appearance.
        auto key = std::make_pair(p.domain, p.bus);
        auto it = bridges_.find(key);
        if (it == bridges_.end()) {
            unsigned index = static_cast<unsigned>(bridge_count_[p.domain]++);
            std::string bridge = root + "/" + fmt("%04x:00:%02x.%x", p.domain, 1 + index / 8, index % 8);
            w_.file(bridge + "/class", "0x060400\n");
            w_.file(bridge + "/uevent", fmt("PCI_CLASS=60400\nPCI_SLOT_NAME=%s\n", bridge.substr(root.size() + 1).c_str()));
            it = bridges_.emplace(key, bridge).first;
        }
        return it->second + "/" + f.pci_address;
    }

    void function(const Adapter& a, const PciFunction& f) {
        std::string dir = function_dir(f);
        std::string modalias = fmt("pci:v%08Xd%08Xsv%08Xsd%08Xbc0Csc04i00", a.vendor_id, a.device_id,
                                   a.subsystem_vendor_id, a.subsystem_device_id);
        w_.file(dir + "/vendor", fmt("0x%04x\n", a.vendor_id));
        w_.file(dir + "/device", fmt("0x%04x\n", a.device_id));
        w_.file(dir + "/subsystem_vendor", fmt("0x%04x\n", a.subsystem_vendor_id));
        w_.file(dir + "/subsystem_device", fmt("0x%04x\n", a.subsystem_device_id));
        w_.file(dir + "/class", "0x0c0400\n");  // serial bus controller, Fibre Channel
        w_.file(dir + "/revision", "0x02\n");
        w_.file(dir + "/irq", num(32 + static_cast<int64_t>(irq_++)));
        std::string resource;
        for (const PciBar& bar : pci_bars(f.pci_address))
            resource += fmt("0x%016" PRIx64 " 0x%016" PRIx64 " 0x%016" PRIx64 "\n", bar.start, bar.end, bar.flags);
        w_.file(dir + "/resource", resource);
        const PcieLink link = pcie_link(a.device_id);
        for (const char* which : {"max", "current"}) {
            w_.file(dir + fmt("/%s_link_speed", which), line(link.speed));
            w_.file(dir + fmt("/%s_link_width", which), num(link.width));
        }
        w_.file(dir + "/numa_node", "-1\n");
        w_.file(dir + "/enable", "1\n");
        w_.file(dir + "/modalias", line(modalias));
        w_.file(dir + "/uevent",
                fmt("DRIVER=%s\nPCI_CLASS=C0400\nPCI_ID=%04X:%04X\nPCI_SUBSYS_ID=%04X:%04X\n", a.driver_name.c_str(),
                    a.vendor_id, a.device_id, a.subsystem_vendor_id, a.subsystem_device_id) +
                    "PCI_SLOT_NAME=" + f.pci_address + "\nMODALIAS=" + modalias + "\n");
        if (s_.options.pci_bus) {
            std::string drv = "bus/pci/drivers/" + a.driver_name;
            w_.link(dir + "/driver", drv);
            w_.link(dir + "/subsystem", "bus/pci");
            w_.link("bus/pci/devices/" + f.pci_address, dir);
            w_.link(drv + "/" + f.pci_address, dir);
            if (drivers_.insert(a.driver_name).second) {
                for (const char* ctl : {"bind", "unbind", "new_id", "remove_id", "uevent"})
                    w_.file(drv + "/" + ctl, "", 0200);
                w_.link(drv + "/module", "module/" + a.driver_name);
            }
        }
        driver_versions_.emplace(a.driver_name, a.driver_version);

        std::string host_dir = dir + fmt("/host%u", f.port.host_no);
        host(a, f, f.port, host_dir, false);
        for (size_t i = 0; i < f.vports.size(); ++i) {
            const HostPort& v = f.vports[i];
            std::string vname = fmt("vport-%u:0-%zu", f.port.host_no, i);
            std::string vdir = host_dir + "/" + vname;
            std::string cls = vdir + "/fc_vports/" + vname;
            w_.file(vdir + "/uevent", "");
            w_.link(cls + "/device", vdir);
            w_.link(cls + "/subsystem", "class/fc_vports");
            w_.file(cls + "/uevent", "");
            w_.file(cls + "/node_name", wwn_text(v.wwnn));
            w_.file(cls + "/port_name", wwn_text(v.wwpn));
            w_.file(cls + "/roles", "FCP Initiator\n");
            w_.file(cls + "/vport_state", "Active\n");
            w_.file(cls + "/vport_last_state", "Active\n");
            w_.file(cls + "/vport_type", "NPIV\n");
            w_.file(cls + "/symbolic_name", line(v.symbolic_name));
            w_.file(cls + "/vport_delete", "", 0200);
            w_.file(cls + "/vport_disable", "", 0200);
            w_.link("class/fc_vports/" + vname, cls);
            host(a, f, v, vdir + fmt("/host%u", v.host_no), true);
        }
    }

    void host(const Adapter& a, const PciFunction& f, const HostPort& p, const std::string& dir, bool vport) {
        const std::string n = fmt("host%u", p.host_no);
        w_.file(dir + "/uevent", "DEVTYPE=scsi_host\n");
        w_.link(dir + "/subsystem", "bus/scsi");
        w_.link("bus/scsi/devices/" + n, dir);
        if (!vport) {
            // The driver's binary attributes live on the physical host only;
            // the emulation answers reads and writes by path.
            w_.file(dir + "/optrom", "", 0600);
            w_.file(dir + "/optrom_ctl", "", 0200);
            w_.file(dir + "/nvram", "", 0600);
            w_.file(dir + "/vpd", "", 0600);
            // Converged ports: the DCBX record of the Ethernet link (our attribute, binary).
            if (vx_adapter_has(a.device_id, VX_MARK_CNA)) {
                const std::vector<uint8_t> d = dcbx_record(p);
                w_.file(dir + "/dcbx", std::string(d.begin(), d.end()), 0400);
            }
        }
        scsi_host(a, f, p, dir, n, vport);
        fc_host(a, f, p, dir, n, vport);
        if (f.bsg)
            bsg(dir, "fc_" + n);
        for (const RemotePort& r : p.remote_ports)
            rport(p, r, dir, f.bsg);
    }

    void scsi_host(const Adapter& a, const PciFunction& f, const HostPort& p, const std::string& dir,
                   const std::string& n, bool vport) {
        const std::string c = dir + "/scsi_host/" + n;
        w_.link(c + "/device", dir);
        w_.link(c + "/subsystem", "class/scsi_host");
        w_.link("class/scsi_host/" + n, c);
        w_.file(c + "/uevent", "");
        // The midlayer's own attributes.
        w_.file(c + "/unique_id", num(++unique_id_));
        w_.file(c + "/host_busy", "0\n");
        w_.file(c + "/cmd_per_lun", "3\n");
        w_.file(c + "/can_queue", "2048\n");
        w_.file(c + "/sg_tablesize", num(f.sg_tablesize));
        w_.file(c + "/sg_prot_tablesize", "0\n");
        w_.file(c + "/proc_name", line(a.driver_name));
        w_.file(c + "/supported_mode", "Initiator\n");
        w_.file(c + "/active_mode", "Initiator\n");
        w_.file(c + "/prot_capabilities", "0\n");
        w_.file(c + "/prot_guard_type", "0\n");
        w_.file(c + "/eh_deadline", "off\n");
        w_.file(c + "/use_blk_mq", "1\n");
        w_.file(c + "/nr_hw_queues", "1\n");
        w_.file(c + "/scan", "", 0200);
        w_.file(c + "/host_reset", "", 0200);
        // A driver without "link_state" reports the link in "state", which
        // otherwise is the midlayer's host state.
        w_.file(c + "/state", p.has_link_state ? "running\n" : line(p.link_state));

        // The driver's attributes.
        if (p.has_link_state)
            w_.file(c + "/link_state", line(p.link_state));
        w_.file(c + "/driver_version", line(a.driver_version));
        w_.file(c + "/fw_version", line(a.fw_version));
        w_.file(c + "/serial_num", line(a.serial_in_sysfs ? a.serial_number : ""));
        w_.file(c + "/model_name", line(model_name(a)));
        w_.file(c + "/model_desc", line(model_description(a)));
        std::string words;
        for (uint16_t word : p.fw_state)
            words += fmt(words.empty() ? "0x%x" : " 0x%x", word);
        w_.file(c + "/fw_state", line(words));
        // Families that refresh boot versions from flash give their virtual
        // ports no boot-code attributes.
        bool boot_attrs = a.optrom_attrs && !(vport && vx_adapter_has(a.device_id, VX_MARK_FLASH_BI_REFRESH));
        if (boot_attrs) {
            w_.file(c + "/optrom_bios_version", line(a.flash.bios));
            w_.file(c + "/optrom_fcode_version", line(a.flash.fcode));
            w_.file(c + "/optrom_efi_version", line(a.flash.efi));
            w_.file(c + "/optrom_fw_version", line(a.flash.firmware));
        }
        if (!a.mpi_version.empty())
            w_.file(c + "/mpi_version", line(a.mpi_version));
        if (!a.pep_version.empty())
            w_.file(c + "/pep_version", line(a.pep_version));
        // Our attributes: the running EDC firmware (the image in flash runs),
        // and which image set runs on boards with two.
        if (vx_adapter_has(a.device_id, VX_MARK_MPI_EDC))
            w_.file(c + "/edc_version", line(a.flash.edc));
        if (reports_image_set(a.device_id))
            w_.file(c + "/active_image", num(a.active_image));
        w_.file(c + "/max_npiv_vports", num(p.max_npiv_vports));
        w_.file(c + "/flash_block_size", num(FLASH_BLOCK_SIZE));  // our attribute, decimal
        if (p.vport_id >= 0)
            w_.file(c + "/vport_id", fmt("0x%x\n", static_cast<unsigned>(p.vport_id)));  // hexadecimal: read as base 16
        if (vx_adapter_has(a.device_id, VX_MARK_CNA)) {
            // Converged ports (our formats): VLAN and FCF parameter in decimal,
            // the VN_Port MAC as six colon-separated hex bytes.
            const uint8_t* m = p.vn_port_mac;
            w_.file(c + "/vlan_id", num(p.vlan_id));
            w_.file(c + "/vn_port_mac_address",
                    fmt("%02x:%02x:%02x:%02x:%02x:%02x\n", m[0], m[1], m[2], m[3], m[4], m[5]));
            w_.file(c + "/fabric_param", num(p.fabric_param));
        }
    }

    void fc_host(const Adapter& a, const PciFunction& f, const HostPort& p, const std::string& dir,
                 const std::string& n, bool vport) {
        const std::string c = dir + "/fc_host/" + n;
        w_.link(c + "/device", dir);
        w_.link(c + "/subsystem", "class/fc_host");
        w_.link("class/fc_host/" + n, c);
        w_.file(c + "/uevent", "");
        w_.file(c + "/node_name", wwn_text(p.wwnn));
        w_.file(c + "/port_name", wwn_text(p.wwpn));
        w_.file(c + "/port_id", fmt("0x%06x\n", p.port_id & 0xFFFFFF));
        w_.file(c + "/port_type", line(p.port_type));
        w_.file(c + "/port_state", line(p.port_state));
        w_.file(c + "/speed", line(p.speed));
        w_.file(c + "/supported_speeds", line(supported_speeds_text(a.device_id)));
        w_.file(c + "/supported_classes", "Class 3\n");
        std::string fc4;  // FCP (type 8) is bit 0 of byte 2
        for (int i = 0; i < 32; ++i)
            fc4 += i == 2 ? "0x01 " : "0x00 ";
        w_.file(c + "/supported_fc4s", line(fc4));
        w_.file(c + "/active_fc4s", line(fc4));
        w_.file(c + "/maxframe_size", "2048 bytes\n");
        w_.file(c + "/max_npiv_vports", num(p.max_npiv_vports));
        w_.file(c + "/npiv_vports_inuse", num(vport ? 0 : static_cast<int64_t>(f.vports.size())));
        w_.file(c + "/fabric_name", wwn_text(p.fabric_name));
        w_.file(c + "/symbolic_name", line(p.symbolic_name));
        w_.file(c + "/system_hostname", "\n");
        w_.file(c + "/tgtid_bind_type", "wwpn (World Wide Port Name)\n");
        w_.file(c + "/dev_loss_tmo", "30\n");
        w_.file(c + "/issue_lip", "", 0200);
        w_.file(c + "/vport_create", "", 0200);
        w_.file(c + "/vport_delete", "", 0200);

        for (const auto& [name, value] : initial_counters(p, !vport))
            w_.file(c + "/statistics/" + name, fmt("0x%" PRIx64 "\n", value));
        w_.file(c + "/statistics/reset_statistics", "", 0200);
    }

    void rport(const HostPort& p, const RemotePort& r, const std::string& host_dir, bool with_bsg) {
        const std::string n = rport_name(p.host_no, r);
        const std::string dir = host_dir + "/" + n;
        const std::string c = dir + "/fc_remote_ports/" + n;
        w_.file(dir + "/uevent", "");
        w_.link(c + "/device", dir);
        w_.link(c + "/subsystem", "class/fc_remote_ports");
        w_.link("class/fc_remote_ports/" + n, c);
        w_.file(c + "/uevent", "");
        w_.file(c + "/node_name", wwn_text(r.wwnn));
        w_.file(c + "/port_name", wwn_text(r.wwpn));
        w_.file(c + "/port_id", fmt("0x%06x\n", r.port_id & 0xFFFFFF));
        w_.file(c + "/roles", line(r.roles));
        w_.file(c + "/port_state", line(r.state));
        w_.file(c + "/scsi_target_id", num(r.scsi_target_id));
        w_.file(c + "/supported_classes", "Class 3\n");
        w_.file(c + "/maxframe_size", "2048 bytes\n");
        w_.file(c + "/dev_loss_tmo", "30\n");
        w_.file(c + "/fast_io_fail_tmo", "5\n");
        if (nodes_.count(n))
            bsg(dir, n);
        else if (with_bsg)
            ++stats_.rports_without_bsg;

        if (r.luns.empty())
            return;
        const std::string tname = fmt("target%u:%u:%d", p.host_no, r.channel, r.scsi_target_id);
        const std::string tdir = dir + "/" + tname;
        w_.file(tdir + "/uevent", "DEVTYPE=scsi_target\n");
        w_.link(tdir + "/subsystem", "bus/scsi");
        w_.link("bus/scsi/devices/" + tname, tdir);
        // The FC transport's view of the target, where lsscsi -t finds its names.
        const std::string t = tdir + "/fc_transport/" + tname;
        w_.file(t + "/uevent", "");
        w_.link(t + "/device", tdir);
        w_.link(t + "/subsystem", "class/fc_transport");
        w_.link("class/fc_transport/" + tname, t);
        w_.file(t + "/node_name", wwn_text(r.wwnn));
        w_.file(t + "/port_name", wwn_text(r.wwpn));
        w_.file(t + "/port_id", fmt("0x%06x\n", r.port_id & 0xFFFFFF));
        for (const Lun& l : r.luns)
            lun(p, r, l, tdir);
    }

    void lun(const HostPort& p, const RemotePort& r, const Lun& l, const std::string& tdir) {
        const std::string n = fmt("%u:%u:%d:%u", p.host_no, r.channel, r.scsi_target_id, l.lun);
        const std::string dir = tdir + "/" + n;
        const std::string modalias = fmt("scsi:t-0x%02x", l.peripheral_type);
        w_.file(dir + "/uevent", "DEVTYPE=scsi_device\nMODALIAS=" + modalias + "\n");
        w_.link(dir + "/subsystem", "bus/scsi");
        w_.link("bus/scsi/devices/" + n, dir);
        // INQUIRY fields as the midlayer shows them: fixed width, blank padded.
        w_.file(dir + "/vendor", fmt("%-8.8s\n", l.vendor.c_str()));
        w_.file(dir + "/model", fmt("%-16.16s\n", l.product.c_str()));
        w_.file(dir + "/rev", fmt("%-4.4s\n", l.revision.c_str()));
        w_.file(dir + "/type", num(l.peripheral_type));
        w_.file(dir + "/scsi_level", "7\n");
        w_.file(dir + "/state", "running\n");
        w_.file(dir + "/device_blocked", "0\n");
        w_.file(dir + "/queue_depth", "32\n");
        w_.file(dir + "/queue_type", "simple\n");
        w_.file(dir + "/timeout", "30\n");
        w_.file(dir + "/eh_timeout", "10\n");
        w_.file(dir + "/iocounterbits", "32\n");
        for (const char* cnt : {"iorequest_cnt", "iodone_cnt", "ioerr_cnt"})
            w_.file(dir + "/" + cnt, "0x0\n");
        w_.file(dir + "/modalias", line(modalias));
        w_.file(dir + "/rescan", "", 0200);
        w_.file(dir + "/delete", "", 0200);
        const std::string c = dir + "/scsi_device/" + n;
        w_.link(c + "/device", dir);
        w_.link(c + "/subsystem", "class/scsi_device");
        w_.file(c + "/uevent", "");
        w_.link("class/scsi_device/" + n, c);
        // Upper-level drivers: disks get an sd name, every LUN a SCSI generic
        // node, numbered as the runner makes their /dev nodes.
        auto it = scsi_.find(&l);
        if (it == scsi_.end())
            return;
        const ScsiDevice& d = it->second;
        if (d.disk >= 0) {
            const std::string sd = disk_name(static_cast<uint32_t>(d.disk));
            const std::string b = dir + "/block/" + sd;
            w_.file(b + "/dev", fmt("%u:%d\n", root::MAJOR_DISK, d.disk));
            w_.file(b + "/uevent", fmt("MAJOR=%u\nMINOR=%d\nDEVNAME=%s\nDEVTYPE=disk\n", root::MAJOR_DISK, d.disk, sd.c_str()));
            w_.file(b + "/size", num(static_cast<int64_t>(l.blocks * (l.block_size / 512))));
            w_.file(b + "/ro", "0\n");
            w_.file(b + "/removable", "0\n");
            w_.file(b + "/queue/logical_block_size", num(l.block_size));
            w_.file(b + "/queue/physical_block_size", num(l.block_size));
            w_.link(b + "/device", dir);
            w_.link(b + "/subsystem", "class/block");
            w_.link("class/block/" + sd, b);
            w_.link("block/" + sd, b);
            w_.link(fmt("dev/block/%u:%d", root::MAJOR_DISK, d.disk), b);
            // The disk driver's own class entry, as sd makes it.
            const std::string k = dir + "/scsi_disk/" + n;
            w_.file(k + "/uevent", "");
            w_.link(k + "/device", dir);
            w_.link(k + "/subsystem", "class/scsi_disk");
            w_.link("class/scsi_disk/" + n, k);
            w_.file(k + "/cache_type", "write back\n");
            w_.file(k + "/FUA", "1\n");
            w_.file(k + "/allow_restart", "1\n");
            w_.file(k + "/manage_start_stop", "0\n");
            w_.file(k + "/protection_type", "0\n");
            w_.file(k + "/provisioning_mode", "full\n");
            w_.file(k + "/thin_provisioning", "0\n");
        }
        const std::string sg = fmt("sg%u", d.sg);
        const std::string g = dir + "/scsi_generic/" + sg;
        w_.file(g + "/dev", fmt("%u:%u\n", root::MAJOR_SG, d.sg));
        w_.file(g + "/uevent", fmt("MAJOR=%u\nMINOR=%u\nDEVNAME=%s\n", root::MAJOR_SG, d.sg, sg.c_str()));
        w_.link(g + "/device", dir);
        w_.link(g + "/subsystem", "class/scsi_generic");
        w_.link("class/scsi_generic/" + sg, g);
        w_.link(dir + "/generic", g);
        w_.link(fmt("dev/char/%u:%u", root::MAJOR_SG, d.sg), g);
    }

    // <parent>/bsg/<name>/ with its character device number.
    void bsg(const std::string& parent, const std::string& name) {
        auto it = nodes_.find(name);
        if (it == nodes_.end())
            return;
        const DeviceNode& node = it->second;
        const std::string c = parent + "/bsg/" + name;
        w_.file(c + "/dev", fmt("%u:%u\n", node.major, node.minor));
        w_.file(c + "/uevent", fmt("MAJOR=%u\nMINOR=%u\nDEVNAME=bsg/%s\n", node.major, node.minor, name.c_str()));
        w_.link(c + "/device", parent);
        w_.link(c + "/subsystem", "class/bsg");
        w_.link("class/bsg/" + name, c);
        w_.link(fmt("dev/char/%u:%u", node.major, node.minor), c);
    }

    // The driver's own character devices: class devices without a parent,
    // which the kernel keeps under devices/virtual/.
    void char_node(const char* kind, const char* name) {
        for (const auto& [key, node] : nodes_) {
            if (node.kind != kind)
                continue;
            const std::string c = fmt("devices/virtual/%s/%s", name, name);
            w_.file(c + "/dev", fmt("%u:%u\n", node.major, node.minor));
            w_.file(c + "/uevent", fmt("MAJOR=%u\nMINOR=%u\nDEVNAME=%s\n", node.major, node.minor, name));
            w_.link(c + "/subsystem", fmt("class/%s", name));
            w_.link(fmt("class/%s/%s", name, name), c);
            w_.link(fmt("dev/char/%u:%u", node.major, node.minor), c);
        }
    }

    void modules() {
        for (const auto& [name, version] : driver_versions_) {
            const std::string m = "module/" + name;
            w_.file(m + "/initstate", "live\n");
            w_.file(m + "/refcnt", "0\n");
            w_.file(m + "/version", line(version));
            w_.dir(m + "/holders");
            if (s_.options.pci_bus)
                w_.link(m + "/drivers/pci:" + name, "bus/pci/drivers/" + name);
        }
        // The current driver's parameters exist whenever the module is loaded.
        if (driver_versions_.count("vxfcdrv")) {
            const auto& changed = s_.options.module_parameters;
            for (const auto& [param, value] : DRIVER_PARAMETERS)
                if (!changed.count(std::string(param)))
                    w_.file("module/vxfcdrv/parameters/" + std::string(param), line(value));
            for (const auto& [param, value] : changed)
                if (value)
                    w_.file("module/vxfcdrv/parameters/" + param, line(*value));
        }
        if (s_.options.vioctlmod) {
            w_.file("module/vioctlmod/initstate", "live\n");
            w_.file("module/vioctlmod/refcnt", "1\n");
            w_.dir("module/vioctlmod/holders");
        }
    }

    const Scenario& s_;
    Writer& w_;
    TreeStats& stats_;
    std::map<std::string, DeviceNode> nodes_;
    std::set<std::string> made_roots_;
    std::map<std::pair<unsigned, unsigned>, std::string> bridges_;
    std::map<unsigned, size_t> bridge_count_;
    std::set<std::string> drivers_;
    std::map<std::string, std::string> driver_versions_;  // first adapter's version per driver
    int64_t unique_id_ = 0;
    unsigned irq_ = 0;
    std::unordered_map<const Lun*, ScsiDevice> scsi_;
};

template <typename F>
void for_each_host(const Scenario& s, F&& fn) {
    for (const Adapter& a : s.adapters)
        for (const PciFunction& f : a.functions) {
            fn(a, f, f.port);
            for (const HostPort& v : f.vports)
                fn(a, f, v);
        }
}

}  // namespace

bool check_scenario(const Scenario& s, std::string& error) {
    std::set<std::string> ids, addresses;
    std::set<uint32_t> hosts;
    for (const Adapter& a : s.adapters) {
        if (a.id.empty() || a.id.find('/') != std::string::npos || a.id[0] == '.') {
            error = "adapter id \"" + a.id + "\" cannot name a state file";
            return false;
        }
        if (!ids.insert(a.id).second) {
            error = "adapter id \"" + a.id + "\" is used twice";
            return false;
        }
        if (a.driver_name.empty() || a.driver_name.find('/') != std::string::npos) {
            error = "adapter " + a.id + ": bad driver name \"" + a.driver_name + "\"";
            return false;
        }
        if (a.functions.empty()) {
            error = "adapter " + a.id + " has no PCI function";
            return false;
        }
        for (const PciFunction& f : a.functions) {
            PciAddress p;
            if (!parse_pci(f.pci_address, p)) {
                error = "adapter " + a.id + ": PCI address \"" + f.pci_address +
                        "\" is not written as the kernel does (dddd:bb:ss.f, lower-case hexadecimal)";
                return false;
            }
            if (!addresses.insert(f.pci_address).second) {
                error = "PCI address " + f.pci_address + " is used twice";
                return false;
            }
        }
    }
    bool ok = true;
    for_each_host(s, [&](const Adapter& a, const PciFunction&, const HostPort& p) {
        if (!ok)
            return;
        if (!hosts.insert(p.host_no).second) {
            error = fmt("adapter %s: host number %u is used twice", a.id.c_str(), p.host_no);
            ok = false;
            return;
        }
        std::set<std::pair<uint32_t, uint32_t>> names, targets;
        for (const RemotePort& r : p.remote_ports) {
            std::string rn = rport_name(p.host_no, r);
            if (!names.insert({r.channel, r.number}).second) {
                error = rn + " is used twice";
                ok = false;
                return;
            }
            if (r.scsi_target_id >= 0 &&
                !targets.insert({r.channel, static_cast<uint32_t>(r.scsi_target_id)}).second) {
                error = fmt("%s: SCSI target id %d is used twice on host %u", rn.c_str(), r.scsi_target_id, p.host_no);
                ok = false;
                return;
            }
            if (!r.luns.empty() && r.scsi_target_id < 0) {
                error = rn + " has LUNs but no SCSI target id";
                ok = false;
                return;
            }
            std::set<uint16_t> luns;
            for (const Lun& l : r.luns)
                if (!luns.insert(l.lun).second) {
                    error = fmt("%s: LUN %u is listed twice", rn.c_str(), l.lun);
                    ok = false;
                    return;
                }
        }
    });
    return ok;
}

std::vector<DeviceNode> plan_device_nodes(const Scenario& s) {
    std::vector<DeviceNode> nodes;
    bool ioctl = false;
    for (const Adapter& a : s.adapters)
        ioctl = ioctl || a.channel == Channel::Ioctl;
    if (ioctl)
        nodes.push_back({root::MAJOR_IOCTL, 0, "ioctl", 0, "", "vxfcdrv"});
    if (s.options.control_node)
        nodes.push_back({root::MAJOR_CONTROL, 0, "control", 0, "", "vxfcapidev"});

    // Old 8-bit minors: 256 per major, hosts first so that they never run out.
    unsigned next = 0;
    auto take = [&](DeviceNode n) {
        if (next >= root::BSG_NODES)
            return;
        n.major = root::bsg_major(next);
        n.minor = next % 256;
        ++next;
        nodes.push_back(std::move(n));
    };
    for_each_host(s, [&](const Adapter&, const PciFunction& f, const HostPort& p) {
        if (f.bsg)
            take({0, 0, "bsg_host", p.host_no, "", fmt("fc_host%u", p.host_no)});
    });
    for_each_host(s, [&](const Adapter&, const PciFunction& f, const HostPort& p) {
        if (f.bsg)
            for (const RemotePort& r : p.remote_ports) {
                std::string n = rport_name(p.host_no, r);
                take({0, 0, "bsg_rport", p.host_no, n, n});
            }
    });
    return nodes;
}

bool write_sys_tree(const Scenario& s, const std::string& root, TreeStats& stats, std::string& error) {
    if (!check_scenario(s, error))
        return false;
    const std::string sys = root::sys(root);
    if (!fs::is_empty_dir(sys)) {
        error = sys + " exists and is not empty";
        return false;
    }
    if (!fs::make_dirs(sys, error))
        return false;
    Writer w(sys, stats);
    TreeBuilder b(s, w, stats);
    b.build();
    if (!w.ok()) {
        error = w.error();
        return false;
    }
    return true;
}

}  // namespace vxsim
