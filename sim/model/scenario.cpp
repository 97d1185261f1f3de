// Scenario files: JSON in, model out, and back. The reader is strict: every
// object lists the keys it knows and anything else is an error, because a
// misspelt key in a scenario would otherwise silently fall back to a default
// and make a test pass for the wrong reason. Errors are one line that starts
// with the JSON path of the offending value ("$.adapters[1].functions[0]...").
#include "model.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "flash.h"
#include "vx_adapters.h"

namespace vxsim {

namespace {

using json = nlohmann::json;
using ojson = nlohmann::ordered_json;  // output keeps the reading order

bool parse_u64_text(const std::string& s, uint64_t& out) { return parse_number(s, out); }

// "0x2100001b32000001", "21:00:00:1b:32:00:00:01" or a plain number.
bool parse_wwn(const json& v, uint64_t& out) {
    if (v.is_number_unsigned()) {
        out = v.get<uint64_t>();
        return true;
    }
    if (!v.is_string())
        return false;
    const std::string s = v.get<std::string>();
    if (s.find(':') == std::string::npos)
        return s.size() > 2 && s.size() <= 18 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X') &&
               parse_u64_text(s, out);
    if (s.size() != 23)
        return false;
    uint64_t w = 0;
    for (size_t g = 0; g < 8; ++g) {
        if (g > 0 && s[g * 3 - 1] != ':')
            return false;
        uint64_t byte;
        if (!parse_u64_text("0x" + s.substr(g * 3, 2), byte))
            return false;
        w = (w << 8) | byte;
    }
    out = w;
    return true;
}

bool valid_pci_address(const std::string& s) {
    // dddd:bb:dd.f, hexadecimal, function 0-7.
    if (s.size() != 12 || s[4] != ':' || s[7] != ':' || s[10] != '.')
        return false;
    for (size_t i : {0, 1, 2, 3, 5, 6, 8, 9})
        if (!std::isxdigit(static_cast<unsigned char>(s[i])))
            return false;
    return s[11] >= '0' && s[11] <= '7';
}

bool valid_file_name(const std::string& s) {
    if (s.empty() || s[0] == '.' || s.size() > 64)
        return false;
    for (char c : s)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-' && c != '.')
            return false;
    return true;
}

// One JSON object being read: remembers which keys were asked for, so that
// done() can reject the rest. Every reader returns false after recording the
// first error; callers chain them with &&.
class Obj {
public:
    Obj(const json& j, std::string path, std::string& err) : j_(j), path_(std::move(path)), err_(err) {
        if (!j_.is_object())
            fail(path_, "expected an object");
    }

    bool ok() const { return err_.empty(); }
    const std::string& path() const { return path_; }
    std::string child(const char* key) const { return path_ + "." + key; }

    bool fail(const std::string& path, const std::string& what) {
        if (err_.empty())
            err_ = path + ": " + what;
        return false;
    }

    // Calls f(value, path) when the key is present.
    template <class F>
    bool opt(const char* key, F&& f) {
        known_.insert(key);
        if (!ok())
            return false;
        auto it = j_.find(key);
        if (it == j_.end())
            return true;
        return f(*it, child(key));
    }

    template <class F>
    bool req(const char* key, F&& f) {
        known_.insert(key);
        if (!ok())
            return false;
        auto it = j_.find(key);
        if (it == j_.end())
            return fail(path_, std::string("missing key \"") + key + "\"");
        return f(*it, child(key));
    }

    bool str(const char* key, std::string& out, bool required = false) {
        auto f = [&](const json& v, const std::string& p) {
            if (!v.is_string())
                return fail(p, "expected a string");
            out = v.get<std::string>();
            return true;
        };
        return required ? req(key, f) : opt(key, f);
    }

    bool boolean(const char* key, bool& out) {
        return opt(key, [&](const json& v, const std::string& p) {
            if (!v.is_boolean())
                return fail(p, "expected true or false");
            out = v.get<bool>();
            return true;
        });
    }

    template <class T>
    bool uint(const char* key, T& out, bool required = false,
              uint64_t max = std::numeric_limits<T>::max()) {
        auto f = [&](const json& v, const std::string& p) {
            uint64_t x;
            if (!read_uint(v, p, x, max))
                return false;
            out = static_cast<T>(x);
            return true;
        };
        return required ? req(key, f) : opt(key, f);
    }

    bool sint(const char* key, int32_t& out, int64_t min, int64_t max) {
        return opt(key, [&](const json& v, const std::string& p) {
            if (!v.is_number_integer() || (v.is_number_unsigned() && v.get<uint64_t>() > uint64_t(max)) ||
                v.get<int64_t>() < min || v.get<int64_t>() > max)
                return fail(p, "expected an integer from " + std::to_string(min) + " to " +
                                   std::to_string(max));
            out = static_cast<int32_t>(v.get<int64_t>());
            return true;
        });
    }

    bool wwn(const char* key, uint64_t& out) {
        return opt(key, [&](const json& v, const std::string& p) {
            if (!parse_wwn(v, out))
                return fail(p, "expected a WWN (\"0x2100001b32000001\" or \"21:00:00:1b:32:00:00:01\")");
            return true;
        });
    }

    bool read_uint(const json& v, const std::string& p, uint64_t& x, uint64_t max) {
        bool good = false;
        if (v.is_number_unsigned()) {
            x = v.get<uint64_t>();
            good = true;
        } else if (v.is_number_integer()) {
            good = false;  // negative
        } else if (v.is_string()) {
            good = parse_u64_text(v.get<std::string>(), x);
        }
        if (!good || x > max) {
            char buf[32];
            std::snprintf(buf, sizeof buf, "%#llx", static_cast<unsigned long long>(max));
            return fail(p, std::string("expected an unsigned number (or \"0x...\" string) up to ") + buf);
        }
        return true;
    }

    // Rejects every key that no reader asked for.
    bool done() {
        if (!ok())
            return false;
        for (auto it = j_.begin(); it != j_.end(); ++it)
            if (!known_.count(it.key()))
                return fail(path_, "unknown key \"" + it.key() + "\"");
        return true;
    }

    const json& raw() const { return j_; }

private:
    const json& j_;
    std::string path_;
    std::string& err_;
    std::set<std::string> known_;
};

// Runs f(element, path) for each element of an array value.
template <class F>
bool each(Obj& o, const json& v, const std::string& p, F&& f) {
    if (!v.is_array())
        return o.fail(p, "expected an array");
    for (size_t i = 0; i < v.size(); ++i)
        if (!f(v[i], p + "[" + std::to_string(i) + "]"))
            return false;
    return true;
}

bool read_lun(const json& j, const std::string& path, std::string& err, Lun& l) {
    Obj o(j, path, err);
    return o.uint("lun", l.lun, true) && o.str("vendor", l.vendor) && o.str("product", l.product) &&
           o.str("revision", l.revision) && o.uint("blocks", l.blocks) &&
           o.uint("block_size", l.block_size) && o.uint("peripheral_type", l.peripheral_type, false, 0x1F) &&
           o.str("serial", l.serial) && o.done();
}

bool read_target_kind(Obj& o, TargetKind& out) {
    return o.opt("target_kind", [&](const json& v, const std::string& p) {
        for (TargetKind k : {TargetKind::Normal, TargetKind::RejectsReportLuns, TargetKind::Busy,
                             TargetKind::ReservationConflict})
            if (v.is_string() && v.get<std::string>() == target_kind_name(k)) {
                out = k;
                return true;
            }
        return o.fail(p, "expected \"normal\", \"rejects_report_luns\", \"busy\" or \"reservation_conflict\"");
    });
}

bool read_fc4_types(Obj& o, std::optional<std::vector<uint8_t>>& out) {
    return o.opt("fc4_types", [&](const json& v, const std::string& p) {
        if (!v.is_array())
            return o.fail(p, "expected an array of FC-4 type codes");
        out.emplace();
        for (size_t i = 0; i < v.size(); ++i) {
            uint64_t x;
            if (!o.read_uint(v[i], p + "[" + std::to_string(i) + "]", x, 0xFF))
                return false;
            out->push_back(static_cast<uint8_t>(x));
        }
        return true;
    });
}

bool read_rport(const json& j, const std::string& path, std::string& err, RemotePort& r) {
    Obj o(j, path, err);
    return o.uint("number", r.number) && o.uint("channel", r.channel) && o.wwn("wwnn", r.wwnn) &&
           o.wwn("wwpn", r.wwpn) && o.uint("port_id", r.port_id, false, 0xFFFFFF) &&
           o.str("roles", r.roles) && o.str("state", r.state) &&
           o.sint("scsi_target_id", r.scsi_target_id, -1, std::numeric_limits<int32_t>::max()) &&
           o.uint("loop_id", r.loop_id) && read_target_kind(o, r.target_kind) && read_fc4_types(o, r.fc4_types) &&
           o.str("symbolic_name", r.symbolic_name) && o.wwn("fabric_port_name", r.fabric_port_name) &&
           o.opt("luns", [&](const json& v, const std::string& p) {
               return each(o, v, p, [&](const json& e, const std::string& ep) {
                   r.luns.emplace_back();
                   return read_lun(e, ep, err, r.luns.back());
               });
           }) && o.done();
}

bool parse_mac(const std::string& s, uint8_t (&mac)[6]) {
    if (s.size() != 17)
        return false;
    for (size_t g = 0; g < 6; ++g) {
        if (g > 0 && s[g * 3 - 1] != ':')
            return false;
        uint64_t byte;
        if (!parse_u64_text("0x" + s.substr(g * 3, 2), byte))
            return false;
        mac[g] = static_cast<uint8_t>(byte);
    }
    return true;
}

bool read_host(const json& j, const std::string& path, std::string& err, HostPort& h) {
    Obj o(j, path, err);
    return o.uint("host_no", h.host_no, true, 0xFFFF) && o.wwn("wwnn", h.wwnn) && o.wwn("wwpn", h.wwpn) &&
           o.uint("port_id", h.port_id, false, 0xFFFFFF) && o.str("link_state", h.link_state) &&
           o.boolean("has_link_state", h.has_link_state) && o.str("speed", h.speed) &&
           o.wwn("fabric_name", h.fabric_name) &&
           o.opt("fw_state", [&](const json& v, const std::string& p) {
               if (!v.is_array() || v.size() != 6)
                   return o.fail(p, "expected an array of six numbers");
               h.fw_state.clear();
               for (size_t i = 0; i < v.size(); ++i) {
                   uint64_t x;
                   if (!o.read_uint(v[i], p + "[" + std::to_string(i) + "]", x, 0xFFFF))
                       return false;
                   h.fw_state.push_back(static_cast<uint16_t>(x));
               }
               return true;
           }) &&
           o.uint("max_npiv_vports", h.max_npiv_vports) &&
           o.sint("vport_id", h.vport_id, -1, std::numeric_limits<int32_t>::max()) &&
           o.str("port_type", h.port_type) && o.str("port_state", h.port_state) &&
           o.str("symbolic_name", h.symbolic_name) && o.uint("vlan_id", h.vlan_id, false, 0xFFF) &&
           o.opt("vn_port_mac", [&](const json& v, const std::string& p) {
               if (!v.is_string() || !parse_mac(v.get<std::string>(), h.vn_port_mac))
                   return o.fail(p, "expected a MAC address \"0e:fc:00:01:02:03\"");
               return true;
           }) &&
           o.uint("fabric_param", h.fabric_param) &&
           o.opt("remote_ports", [&](const json& v, const std::string& p) {
               return each(o, v, p, [&](const json& e, const std::string& ep) {
                   h.remote_ports.emplace_back();
                   return read_rport(e, ep, err, h.remote_ports.back());
               });
           }) &&
           o.opt("stats", [&](const json& v, const std::string& p) {
               if (!v.is_object())
                   return o.fail(p, "expected an object of counter name -> value");
               for (auto it = v.begin(); it != v.end(); ++it) {
                   uint64_t x;
                   if (!o.read_uint(it.value(), p + "." + it.key(), x, std::numeric_limits<uint64_t>::max()))
                       return false;
                   h.stats.values[it.key()] = x;
               }
               return true;
           }) &&
           o.done();
}

bool read_function(const json& j, const std::string& path, std::string& err, PciFunction& f) {
    Obj o(j, path, err);
    return o.str("pci_address", f.pci_address, true) &&
           (valid_pci_address(f.pci_address) ||
            o.fail(o.child("pci_address"), "expected \"dddd:bb:dd.f\" (hexadecimal, function 0-7)")) &&
           o.uint("sg_tablesize", f.sg_tablesize) && o.boolean("bsg", f.bsg) &&
           o.boolean("ioctl_missing", f.ioctl_missing) &&
           o.req("port", [&](const json& v, const std::string& p) { return read_host(v, p, err, f.port); }) &&
           o.opt("vports", [&](const json& v, const std::string& p) {
               return each(o, v, p, [&](const json& e, const std::string& ep) {
                   f.vports.emplace_back();
                   return read_host(e, ep, err, f.vports.back());
               });
           }) &&
           o.done();
}

bool read_channel(Obj& o, const json& v, const std::string& p, Channel& c) {
    const std::string s = v.is_string() ? v.get<std::string>() : "";
    if (s == "sysfs")
        c = Channel::Sysfs;
    else if (s == "ioctl")
        c = Channel::Ioctl;
    else if (s == "legacy")
        c = Channel::Legacy;
    else
        return o.fail(p, "expected \"sysfs\", \"ioctl\" or \"legacy\"");
    return true;
}

bool read_vpd_content(Obj& o, const json& v, const std::string& p, VpdContent& c) {
    const std::string s = v.is_string() ? v.get<std::string>() : "";
    if (s == "valid")
        c = VpdContent::Valid;
    else if (s == "bad_checksum")
        c = VpdContent::BadChecksum;
    else if (s == "truncated")
        c = VpdContent::Truncated;
    else
        return o.fail(p, "expected \"valid\", \"bad_checksum\" or \"truncated\"");
    return true;
}

const char* vpd_content_name(VpdContent c) {
    switch (c) {
    case VpdContent::Valid: return "valid";
    case VpdContent::BadChecksum: return "bad_checksum";
    case VpdContent::Truncated: return "truncated";
    }
    return "valid";
}

const char* channel_name(Channel c) {
    switch (c) {
    case Channel::Sysfs: return "sysfs";
    case Channel::Ioctl: return "ioctl";
    case Channel::Legacy: return "legacy";
    }
    return "sysfs";
}

bool read_flash(const json& j, const std::string& path, std::string& err, FlashVersions& fv) {
    Obj o(j, path, err);
    // Boot-image versions become a PCI CodeRevision (one byte each part), the
    // others a three-number image header.
    auto version = [&](const char* key, std::string& out, size_t parts) {
        return o.str(key, out) && (parse_version(out, parts, nullptr) ||
                                   o.fail(o.child(key), parts == 2 ? "expected \"major.minor\" (0-255 each)"
                                                                   : "expected \"major.minor.sub\""));
    };
    return version("bios", fv.bios, 2) && version("fcode", fv.fcode, 2) && version("efi", fv.efi, 2) &&
           version("firmware", fv.firmware, 3) && version("mpi", fv.mpi, 3) && version("pep", fv.pep, 3) &&
           version("edc", fv.edc, 3) && version("nic", fv.nic, 3) && o.done();
}

bool read_adapter(const json& j, const std::string& path, std::string& err, Adapter& a) {
    Obj o(j, path, err);
    return o.str("id", a.id, true) &&
           (valid_file_name(a.id) ||
            o.fail(o.child("id"), "expected a file-name-safe name (letters, digits, '_', '-', '.')")) &&
           o.uint("vendor_id", a.vendor_id) && o.uint("device_id", a.device_id, true) &&
           o.uint("subsystem_vendor_id", a.subsystem_vendor_id) &&
           o.uint("subsystem_device_id", a.subsystem_device_id) && o.str("serial_number", a.serial_number) &&
           o.boolean("serial_in_sysfs", a.serial_in_sysfs) && o.str("model_name", a.model_name) &&
           o.str("model_description", a.model_description) && o.str("driver_name", a.driver_name) &&
           o.str("driver_version", a.driver_version) && o.str("fw_version", a.fw_version) &&
           o.str("mpi_version", a.mpi_version) && o.str("pep_version", a.pep_version) &&
           o.boolean("optrom_attrs", a.optrom_attrs) && o.boolean("partial_flash", a.partial_flash) &&
           o.uint("driver_flags", a.driver_flags) && o.uint("active_image", a.active_image) &&
           o.opt("channel", [&](const json& v, const std::string& p) { return read_channel(o, v, p, a.channel); }) &&
           o.opt("vpd", [&](const json& v, const std::string& p) { return read_vpd_content(o, v, p, a.vpd); }) &&
           o.opt("flash", [&](const json& v, const std::string& p) { return read_flash(v, p, err, a.flash); }) &&
           o.req("functions", [&](const json& v, const std::string& p) {
               if (v.is_array() && v.empty())
                   return o.fail(p, "an adapter needs at least one PCI function");
               return each(o, v, p, [&](const json& e, const std::string& ep) {
                   a.functions.emplace_back();
                   return read_function(e, ep, err, a.functions.back());
               });
           }) &&
           o.done();
}

bool read_options(const json& j, const std::string& path, std::string& err, HostOptions& h) {
    Obj o(j, path, err);
    return o.boolean("pci_bus", h.pci_bus) && o.boolean("vioctlmod", h.vioctlmod) &&
           o.boolean("control_node", h.control_node) &&
           o.opt("euid", [&](const json& v, const std::string& p) {
               uint64_t x;
               if (!o.read_uint(v, p, x, 0xFFFFFFFF))
                   return false;
               h.euid = static_cast<uint32_t>(x);
               return true;
           }) &&
           o.boolean("esx", h.esx) &&
           o.opt("module_parameters", [&](const json& v, const std::string& p) {
               if (!v.is_object())
                   return o.fail(p, "expected an object of parameter names");
               for (const auto& [name, value] : v.items()) {
                   if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..")
                       return o.fail(p, "bad parameter name \"" + name + "\"");
                   if (value.is_null())
                       h.module_parameters[name] = std::nullopt;
                   else if (value.is_number_integer())
                       h.module_parameters[name] = value.dump();
                   else if (value.is_string())
                       h.module_parameters[name] = value.get<std::string>();
                   else
                       return o.fail(p + "." + name, "expected a number, a string or null");
               }
               return true;
           }) &&
           o.done();
}

bool read_fault(const json& j, const std::string& path, std::string& err, Fault& f) {
    Obj o(j, path, err);
    if (!o.str("endpoint", f.endpoint, true))
        return false;
    if (!is_fault_endpoint(f.endpoint))
        return o.fail(path + ".endpoint", "unknown fault endpoint \"" + f.endpoint + "\" (" + fault_endpoint_list() + ")");
    return o.str("match", f.match) && o.str("action", f.action, true) &&
           o.sint("count", f.count, -1, std::numeric_limits<int32_t>::max()) && o.done();
}

bool read_event(const json& j, const std::string& path, std::string& err, Event& e) {
    Obj o(j, path, err);
    return o.uint("host_no", e.host_no, true) && o.uint("code", e.code, true) && o.uint("data", e.data) &&
           o.done();
}

// The compact form of a big host: N adapters of one device id, each function
// with the same number of remote ports, LUNs on every k-th of them.
struct Generate {
    uint32_t adapters = 0;
    uint16_t device_id = 0;
    uint32_t ports_per_adapter = 0;  // 0: the adapter table's port count
    uint32_t remote_ports_per_port = 64;
    uint32_t luns_per_target = 4;
    uint32_t lun_target_every = 8;
    std::optional<uint32_t> first_host;
    uint32_t first_pci_bus = 0x40;
    std::string speed = "16 Gbit";
    std::string symbolic_name;  // the port's index over the host is appended
    Channel channel = Channel::Sysfs;
};

bool read_generate(const json& j, const std::string& path, std::string& err, Generate& g) {
    Obj o(j, path, err);
    return o.uint("adapters", g.adapters, true, 255) && o.uint("device_id", g.device_id, true) &&
           o.uint("ports_per_adapter", g.ports_per_adapter, false, 8) &&
           o.uint("remote_ports_per_port", g.remote_ports_per_port, false, 256) &&
           o.uint("luns_per_target", g.luns_per_target, false, 256) &&
           o.uint("lun_target_every", g.lun_target_every, false, 0xFFFF) &&
           o.opt("first_host", [&](const json& v, const std::string& p) {
               uint64_t x;
               if (!o.read_uint(v, p, x, 0xFFFF))
                   return false;
               g.first_host = static_cast<uint32_t>(x);
               return true;
           }) &&
           o.uint("first_pci_bus", g.first_pci_bus, false, 0xFF) && o.str("speed", g.speed) &&
           o.str("symbolic_name", g.symbolic_name) &&
           o.opt("channel", [&](const json& v, const std::string& p) { return read_channel(o, v, p, g.channel); }) &&
           o.done();
}

bool expand(const Generate& g, const std::string& path, std::string& err, Scenario& s) {
    const vx_adapter_type* row = vx_adapter_lookup(g.device_id);
    const uint32_t ports = g.ports_per_adapter ? g.ports_per_adapter : (row ? row->ports : 1);
    if (g.adapters * ports > 256) {
        err = path + ": at most 256 generated ports (port ids are numbered per port)";
        return false;
    }
    if (g.first_pci_bus + g.adapters > 0x100) {
        err = path + ": generated adapters run past PCI bus 0xff";
        return false;
    }
    uint32_t host = 0;
    if (g.first_host) {
        host = *g.first_host;
    } else {
        for (const Adapter& a : s.adapters)
            for (const PciFunction& f : a.functions) {
                host = std::max(host, f.port.host_no + 1);
                for (const HostPort& v : f.vports)
                    host = std::max(host, v.host_no + 1);
            }
    }
    for (uint32_t i = 0; i < g.adapters; ++i) {
        Adapter a;
        char buf[32];
        std::snprintf(buf, sizeof buf, "gen%u", i);
        a.id = buf;
        a.device_id = g.device_id;
        a.subsystem_device_id = g.device_id;
        std::snprintf(buf, sizeof buf, "VXG%05u", i);
        a.serial_number = buf;
        a.channel = g.channel;
        for (uint32_t f = 0; f < ports; ++f) {
            const uint64_t p = uint64_t(i) * ports + f;  // port index over the whole host
            PciFunction fn;
            std::snprintf(buf, sizeof buf, "0000:%02x:00.%u", g.first_pci_bus + i, f);
            fn.pci_address = buf;
            HostPort& h = fn.port;
            h.host_no = host++;
            h.wwpn = 0x2100001d5a100000ull + p;
            h.wwnn = 0x2000001d5a100000ull + p;
            h.port_id = 0x010000u | uint32_t(p << 8);
            h.fabric_name = 0x100000051e000001ull;
            h.speed = g.speed;
            if (!g.symbolic_name.empty())
                h.symbolic_name = g.symbolic_name + std::to_string(p);
            for (uint32_t r = 0; r < g.remote_ports_per_port; ++r) {
                RemotePort rp;
                rp.number = r;
                rp.wwpn = 0x5000001d5a000000ull + (p << 12) + r;
                rp.wwnn = 0x5000001d5b000000ull + (p << 12) + r;
                rp.port_id = 0x100000u | uint32_t(p << 8) | r;
                rp.scsi_target_id = int32_t(r);
                if (g.lun_target_every && r % g.lun_target_every == 0)
                    for (uint32_t l = 0; l < g.luns_per_target; ++l) {
                        Lun lun;
                        lun.lun = static_cast<uint16_t>(l);
                        rp.luns.push_back(lun);
                    }
                h.remote_ports.push_back(std::move(rp));
            }
            a.functions.push_back(std::move(fn));
        }
        s.adapters.push_back(std::move(a));
    }
    return true;
}

// Cross-object rules: names that must be unique in one host.
bool check_unique(const Scenario& s, std::string& err) {
    std::set<std::string> ids, pci;
    std::set<uint32_t> hosts;
    auto host = [&](const HostPort& h, const std::string& p) {
        if (!hosts.insert(h.host_no).second) {
            err = p + ".host_no: host " + std::to_string(h.host_no) + " is used twice";
            return false;
        }
        return true;
    };
    for (size_t i = 0; i < s.adapters.size(); ++i) {
        const Adapter& a = s.adapters[i];
        const std::string ap = "$.adapters[" + std::to_string(i) + "]";
        if (!ids.insert(a.id).second) {
            err = ap + ".id: adapter id \"" + a.id + "\" is used twice";
            return false;
        }
        for (size_t k = 0; k < a.functions.size(); ++k) {
            const PciFunction& f = a.functions[k];
            const std::string fp = ap + ".functions[" + std::to_string(k) + "]";
            if (!pci.insert(f.pci_address).second) {
                err = fp + ".pci_address: " + f.pci_address + " is used twice";
                return false;
            }
            if (!host(f.port, fp + ".port"))
                return false;
            for (size_t v = 0; v < f.vports.size(); ++v)
                if (!host(f.vports[v], fp + ".vports[" + std::to_string(v) + "]"))
                    return false;
        }
    }
    return true;
}

ojson host_json(const HostPort& h) {
    ojson j;
    j["host_no"] = h.host_no;
    j["wwnn"] = wwn_hex(h.wwnn);
    j["wwpn"] = wwn_hex(h.wwpn);
    j["port_id"] = port_id_hex(h.port_id);
    j["link_state"] = h.link_state;
    j["has_link_state"] = h.has_link_state;
    j["speed"] = h.speed;
    j["fabric_name"] = wwn_hex(h.fabric_name);
    j["fw_state"] = h.fw_state;
    j["max_npiv_vports"] = h.max_npiv_vports;
    j["vport_id"] = h.vport_id;
    j["port_type"] = h.port_type;
    j["port_state"] = h.port_state;
    j["symbolic_name"] = h.symbolic_name;
    j["vlan_id"] = h.vlan_id;
    char mac[18];
    std::snprintf(mac, sizeof mac, "%02x:%02x:%02x:%02x:%02x:%02x", h.vn_port_mac[0], h.vn_port_mac[1],
                  h.vn_port_mac[2], h.vn_port_mac[3], h.vn_port_mac[4], h.vn_port_mac[5]);
    j["vn_port_mac"] = mac;
    j["fabric_param"] = h.fabric_param;
    ojson rps = ojson::array();
    for (const RemotePort& r : h.remote_ports) {
        ojson rj;
        rj["number"] = r.number;
        rj["channel"] = r.channel;
        rj["wwnn"] = wwn_hex(r.wwnn);
        rj["wwpn"] = wwn_hex(r.wwpn);
        rj["port_id"] = port_id_hex(r.port_id);
        rj["roles"] = r.roles;
        rj["state"] = r.state;
        rj["scsi_target_id"] = r.scsi_target_id;
        rj["loop_id"] = r.loop_id;
        rj["target_kind"] = target_kind_name(r.target_kind);
        if (r.fc4_types)
            rj["fc4_types"] = *r.fc4_types;
        rj["symbolic_name"] = r.symbolic_name;
        rj["fabric_port_name"] = wwn_hex(r.fabric_port_name);
        ojson luns = ojson::array();
        for (const Lun& l : r.luns)
            luns.push_back({{"lun", l.lun},
                            {"vendor", l.vendor},
                            {"product", l.product},
                            {"revision", l.revision},
                            {"blocks", l.blocks},
                            {"block_size", l.block_size},
                            {"peripheral_type", l.peripheral_type},
                            {"serial", l.serial}});
        rj["luns"] = std::move(luns);
        rps.push_back(std::move(rj));
    }
    j["remote_ports"] = std::move(rps);
    j["stats"] = h.stats.values;
    return j;
}

}  // namespace

const char* target_kind_name(TargetKind k) {
    switch (k) {
    case TargetKind::Normal: return "normal";
    case TargetKind::RejectsReportLuns: return "rejects_report_luns";
    case TargetKind::Busy: return "busy";
    case TargetKind::ReservationConflict: return "reservation_conflict";
    }
    return "normal";
}

std::vector<ScsiDevice> scsi_devices(const Scenario& s) {
    std::vector<ScsiDevice> out;
    uint32_t disks = 0;
    auto host = [&](const HostPort& h) {
        for (const RemotePort& r : h.remote_ports)
            for (const Lun& l : r.luns) {
                ScsiDevice d{&h, &r, &l, static_cast<uint32_t>(out.size()), -1};
                if (l.peripheral_type == 0)
                    d.disk = static_cast<int32_t>(disks++);
                out.push_back(d);
            }
    };
    for (const Adapter& a : s.adapters)
        for (const PciFunction& f : a.functions) {
            host(f.port);
            for (const HostPort& v : f.vports)
                host(v);
        }
    return out;
}

std::string disk_name(uint32_t index) {
    std::string letters;
    for (uint64_t n = uint64_t(index) + 1; n > 0; n = (n - 1) / 26)
        letters.insert(letters.begin(), static_cast<char>('a' + (n - 1) % 26));
    return "sd" + letters;
}

namespace {

std::string hex16(uint16_t v) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%04x", v);
    return buf;
}

}  // namespace

bool parse_scenario(const std::string& json_text, Scenario& out, std::string& error) {
    error.clear();
    json root = json::parse(json_text, nullptr, /*allow_exceptions=*/false);
    if (root.is_discarded()) {
        // Parse again through the SAX interface only to learn where it broke.
        struct Where : nlohmann::json_sax<json> {
            std::string msg;
            bool null() override { return true; }
            bool boolean(bool) override { return true; }
            bool number_integer(number_integer_t) override { return true; }
            bool number_unsigned(number_unsigned_t) override { return true; }
            bool number_float(number_float_t, const string_t&) override { return true; }
            bool string(string_t&) override { return true; }
            bool binary(binary_t&) override { return true; }
            bool start_object(std::size_t) override { return true; }
            bool key(string_t&) override { return true; }
            bool end_object() override { return true; }
            bool start_array(std::size_t) override { return true; }
            bool end_array() override { return true; }
            bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& ex) override {
                msg = ex.what();
                const size_t cut = msg.find("] ");
                if (cut != std::string::npos)
                    msg.erase(0, cut + 2);
                return false;
            }
        } where;
        json::sax_parse(json_text, &where);
        error = "invalid JSON: " + (where.msg.empty() ? std::string("syntax error") : where.msg);
        return false;
    }

    Scenario s;
    Generate gen;
    bool has_gen = false;
    Obj o(root, "$", error);
    const bool ok =
        o.str("name", s.name) && o.str("description", s.description) &&
        o.opt("options", [&](const json& v, const std::string& p) { return read_options(v, p, error, s.options); }) &&
        o.opt("adapters", [&](const json& v, const std::string& p) {
            return each(o, v, p, [&](const json& e, const std::string& ep) {
                s.adapters.emplace_back();
                return read_adapter(e, ep, error, s.adapters.back());
            });
        }) &&
        o.opt("generate", [&](const json& v, const std::string& p) {
            has_gen = true;
            return read_generate(v, p, error, gen);
        }) &&
        o.opt("faults", [&](const json& v, const std::string& p) {
            return each(o, v, p, [&](const json& e, const std::string& ep) {
                s.faults.emplace_back();
                return read_fault(e, ep, error, s.faults.back());
            });
        }) &&
        o.opt("events", [&](const json& v, const std::string& p) {
            return each(o, v, p, [&](const json& e, const std::string& ep) {
                s.events.emplace_back();
                return read_event(e, ep, error, s.events.back());
            });
        }) &&
        o.done() && (!has_gen || expand(gen, "$.generate", error, s)) && check_unique(s, error);
    if (!ok)
        return false;
    out = std::move(s);
    return true;
}

bool load_scenario(const std::string& path, Scenario& out, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = path + ": cannot open: " + std::strerror(errno);
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        error = path + ": cannot read";
        return false;
    }
    if (!parse_scenario(text.str(), out, error)) {
        error = path + ": " + error;
        return false;
    }
    if (out.name.empty()) {
        // The file's stem names an unnamed scenario.
        const size_t slash = path.find_last_of('/');
        std::string stem = path.substr(slash == std::string::npos ? 0 : slash + 1);
        const size_t dot = stem.rfind('.');
        if (dot != std::string::npos && dot > 0)
            stem.erase(dot);
        out.name = stem;
    }
    return true;
}

std::string scenario_to_json(const Scenario& s) {
    ojson j;
    j["name"] = s.name;
    j["description"] = s.description;
    ojson opt;
    opt["pci_bus"] = s.options.pci_bus;
    opt["vioctlmod"] = s.options.vioctlmod;
    opt["control_node"] = s.options.control_node;
    if (s.options.euid)
        opt["euid"] = *s.options.euid;
    opt["esx"] = s.options.esx;
    if (!s.options.module_parameters.empty()) {
        json params = json::object();
        for (const auto& [name, value] : s.options.module_parameters)
            params[name] = value ? json(*value) : json(nullptr);
        opt["module_parameters"] = std::move(params);
    }
    j["options"] = std::move(opt);
    ojson adapters = ojson::array();
    for (const Adapter& a : s.adapters) {
        ojson aj;
        aj["id"] = a.id;
        aj["vendor_id"] = hex16(a.vendor_id);
        aj["device_id"] = hex16(a.device_id);
        aj["subsystem_vendor_id"] = hex16(a.subsystem_vendor_id);
        aj["subsystem_device_id"] = hex16(a.subsystem_device_id);
        aj["serial_number"] = a.serial_number;
        aj["serial_in_sysfs"] = a.serial_in_sysfs;
        aj["model_name"] = a.model_name;
        aj["model_description"] = a.model_description;
        aj["driver_name"] = a.driver_name;
        aj["driver_version"] = a.driver_version;
        aj["fw_version"] = a.fw_version;
        aj["mpi_version"] = a.mpi_version;
        aj["pep_version"] = a.pep_version;
        aj["optrom_attrs"] = a.optrom_attrs;
        aj["partial_flash"] = a.partial_flash;
        aj["driver_flags"] = a.driver_flags;
        aj["active_image"] = a.active_image;
        aj["channel"] = channel_name(a.channel);
        aj["vpd"] = vpd_content_name(a.vpd);
        aj["flash"] = {{"bios", a.flash.bios},         {"fcode", a.flash.fcode}, {"efi", a.flash.efi},
                       {"firmware", a.flash.firmware}, {"mpi", a.flash.mpi},     {"pep", a.flash.pep},
                       {"edc", a.flash.edc},           {"nic", a.flash.nic}};
        ojson fns = ojson::array();
        for (const PciFunction& f : a.functions) {
            ojson fj;
            fj["pci_address"] = f.pci_address;
            fj["sg_tablesize"] = f.sg_tablesize;
            fj["bsg"] = f.bsg;
            fj["ioctl_missing"] = f.ioctl_missing;
            fj["port"] = host_json(f.port);
            ojson vps = ojson::array();
            for (const HostPort& v : f.vports)
                vps.push_back(host_json(v));
            fj["vports"] = std::move(vps);
            fns.push_back(std::move(fj));
        }
        aj["functions"] = std::move(fns);
        adapters.push_back(std::move(aj));
    }
    j["adapters"] = std::move(adapters);
    ojson faults = ojson::array();
    for (const Fault& f : s.faults)
        faults.push_back({{"endpoint", f.endpoint}, {"match", f.match}, {"action", f.action}, {"count", f.count}});
    j["faults"] = std::move(faults);
    ojson events = ojson::array();
    for (const Event& e : s.events)
        events.push_back({{"host_no", e.host_no}, {"code", e.code}, {"data", e.data}});
    j["events"] = std::move(events);
    // Models built in code may hold any bytes; never throw on bad UTF-8.
    return j.dump(2, ' ', false, ojson::error_handler_t::replace) + "\n";
}

std::string wwn_hex(uint64_t wwn) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%016llx", static_cast<unsigned long long>(wwn));
    return buf;
}

std::string port_id_hex(uint32_t port_id) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%06x", port_id & 0xFFFFFFu);
    return buf;
}

uint8_t pci_function_number(const std::string& pci_address) {
    const size_t dot = pci_address.rfind('.');
    if (dot == std::string::npos || dot + 1 >= pci_address.size())
        return 0;
    unsigned v = 0;
    for (size_t i = dot + 1; i < pci_address.size(); ++i) {
        const char c = pci_address[i];
        if (c < '0' || c > '9' || v > 25)
            return 0;
        v = v * 10 + unsigned(c - '0');
    }
    return v > 255 ? 0 : static_cast<uint8_t>(v);
}

bool parse_number(const std::string& s, uint64_t& out) {
    if (s.empty())
        return false;
    int base = 10;
    size_t i = 0;
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        base = 16;
        i = 2;
    }
    uint64_t v = 0;
    for (; i < s.size(); ++i) {
        const char c = s[i];
        unsigned d;
        if (c >= '0' && c <= '9')
            d = unsigned(c - '0');
        else if (base == 16 && c >= 'a' && c <= 'f')
            d = unsigned(c - 'a' + 10);
        else if (base == 16 && c >= 'A' && c <= 'F')
            d = unsigned(c - 'A' + 10);
        else
            return false;
        if (v > (std::numeric_limits<uint64_t>::max() - d) / unsigned(base))
            return false;
        v = v * unsigned(base) + d;
    }
    out = v;
    return true;
}

bool is_fault_endpoint(const std::string& name) {
    for (const char* e : FAULT_ENDPOINTS)
        if (name == e)
            return true;
    return false;
}

std::string fault_endpoint_list() {
    std::string list;
    for (const char* e : FAULT_ENDPOINTS)
        list += (list.empty() ? "" : ", ") + std::string(e);
    return list;
}

}  // namespace vxsim
