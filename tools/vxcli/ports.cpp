// Port selection, the open ports of a command, and SCSI host numbers.
#include "ports.h"

#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "cli.h"
#include "format.h"
#include "leftovers.h"

namespace vxcli {

namespace {

bool all_of(const std::string& s, size_t from, int (*pred)(int)) {
    return from < s.size() && std::all_of(s.begin() + static_cast<std::ptrdiff_t>(from), s.end(),
                                          [pred](char c) { return pred(static_cast<unsigned char>(c)) != 0; });
}

std::optional<uint64_t> hex_value(const std::string& digits) {
    if (digits.empty() || digits.size() > 16 || !all_of(digits, 0, isxdigit))
        return std::nullopt;
    return std::strtoull(digits.c_str(), nullptr, 16);
}

// Advice for a library that did not load: what the user can do about it.
std::string load_hint(uint32_t /*status*/) {
    if (geteuid() != 0)
        return "; vxcli must run as root";
    if (const std::string remove = foreign_leftovers(); !remove.empty())
        return "; another user's objects are in the way, remove them if no adapter tool runs: " + remove;
    return "";
}

// The WWPN of every instance, read once when a WWPN or host selects a port.
struct WwpnTable {
    std::vector<std::optional<uint64_t>> wwpn;
    size_t unreadable = 0;

    WwpnTable(PortSession& session, uint32_t count) : wwpn(count) {
        for (uint32_t i = 0; i < count; ++i) {
            int handle = 0;
            DEVICEPORTPROPERTY port{};
            if (session.open(i, &handle) == SDM_STATUS_SUCCESS &&
                SDGetHbaDevicePortProperty(handle, 0, &port) == SDM_STATUS_SUCCESS)
                wwpn[i] = wwn_value(port.WWN);
            else
                ++unreadable;
        }
    }
    std::optional<uint32_t> find(uint64_t value) const {
        for (uint32_t i = 0; i < wwpn.size(); ++i)
            if (wwpn[i] == value)
                return i;
        return std::nullopt;
    }
};

}  // namespace

std::optional<PortSelector> parse_port(const std::string& text) {
    if (all_of(text, 0, isdigit)) {
        if (text.size() > 10)
            return std::nullopt;
        const uint64_t v = std::strtoull(text.c_str(), nullptr, 10);
        if (v > UINT32_MAX)
            return std::nullopt;
        return PortSelector{PortSelector::Instance, v};
    }
    if (text.starts_with("host") && text.size() <= 14 && all_of(text, 4, isdigit)) {
        const uint64_t v = std::strtoull(text.c_str() + 4, nullptr, 10);
        if (v > UINT32_MAX)
            return std::nullopt;
        return PortSelector{PortSelector::Host, v};
    }
    if ((text.starts_with("0x") || text.starts_with("0X")) && text.size() == 18) {
        if (auto v = hex_value(text.substr(2)))
            return PortSelector{PortSelector::Wwpn, *v};
        return std::nullopt;
    }
    // 21:00:00:1d:5a:01:40:17
    if (text.size() != 23)
        return std::nullopt;
    std::string digits;
    for (size_t i = 0; i < text.size(); ++i) {
        if (i % 3 == 2) {
            if (text[i] != ':')
                return std::nullopt;
        } else {
            digits += text[i];
        }
    }
    if (auto v = hex_value(digits))
        return PortSelector{PortSelector::Wwpn, *v};
    return std::nullopt;
}

PortSession::~PortSession() {
    for (int handle : handles_)
        SDCloseDevice(handle);
}

uint32_t PortSession::open(uint32_t instance, int* handle) {
    const SD_UINT32 status = SDOpenDevice(instance, handle);
    if (status == SDM_STATUS_SUCCESS)
        handles_.push_back(*handle);
    return status;
}

void explain_no_ports(Context& ctx) {
    int handle = 0;
    const SD_UINT32 status = SDOpenDevice(0, &handle);
    if (status == SDM_STATUS_SUCCESS) {
        SDCloseDevice(handle);
        ctx.fail(EXIT_LIBRARY, "the adapters changed while listing them; try again");
    } else if (status == SDM_STATUS_DEVICE_NOT_FOUND) {
        ctx.fail(EXIT_NO_ADAPTERS, "no adapters found", status);
    } else {
        ctx.fail(EXIT_LIBRARY, "cannot load the adapter library: " + status_text(status) + load_hint(status), status);
    }
}

void select_ports(Context& ctx) {
    std::vector<PortSelector> selectors;
    for (const std::string& text : ctx.options().ports) {
        const auto s = parse_port(text);
        if (!s) {
            ctx.fail(EXIT_USAGE, fmt::format("bad port '{}': give {}", text, PORT_FORMS));
            return;
        }
        selectors.push_back(*s);
    }
    const SD_UINT32 count = SDGetNumberOfAdapters();
    if (count == 0) {
        explain_no_ports(ctx);
        return;
    }

    std::vector<uint32_t> chosen;
    if (selectors.empty() && ctx.command().ports == PortArg::Any)
        for (uint32_t i = 0; i < count; ++i)
            chosen.push_back(i);
    std::optional<WwpnTable> wwpns;
    for (size_t n = 0; n < selectors.size(); ++n) {
        const PortSelector& s = selectors[n];
        const std::string& text = ctx.options().ports[n];
        if (s.kind == PortSelector::Instance) {
            if (s.value >= count) {
                ctx.fail(EXIT_NO_ADAPTERS, fmt::format("no port {} ({} found, numbered from 0)", s.value, count));
                return;
            }
            chosen.push_back(static_cast<uint32_t>(s.value));
            continue;
        }
        uint64_t wwpn = s.value;
        if (s.kind == PortSelector::Host) {
            const auto& hosts = fc_hosts();
            const auto it = std::find_if(hosts.begin(), hosts.end(), [&](const FcHost& h) { return h.host == s.value; });
            if (it == hosts.end()) {
                ctx.fail(EXIT_NO_ADAPTERS, fmt::format("no FC host {}", text));
                return;
            }
            wwpn = it->wwpn;
        }
        if (!wwpns)
            wwpns.emplace(ctx.session(), count);
        const auto instance = wwpns->find(wwpn);
        if (!instance) {
            std::string message = fmt::format("no port with WWPN {}", wwn_text(wwpn));
            if (s.kind == PortSelector::Host)
                message = fmt::format("{} ({}) is not a port of the library", text, wwn_text(wwpn));
            if (wwpns->unreadable)
                message += fmt::format(" ({} of {} ports could not be read)", wwpns->unreadable, count);
            ctx.fail(EXIT_NO_ADAPTERS, message);
            return;
        }
        chosen.push_back(*instance);
    }

    for (uint32_t instance : chosen) {
        const auto& ports = ctx.ports();
        if (std::any_of(ports.begin(), ports.end(), [&](const SelectedPort& p) { return p.instance == instance; }))
            continue;
        SelectedPort port;
        port.instance = instance;
        const uint32_t status = ctx.session().open(instance, &port.handle);
        if (status != SDM_STATUS_SUCCESS) {
            ctx.fail(EXIT_PARTIAL, fmt::format("port {}: open failed: {}", instance, status_text(status)), status);
            continue;
        }
        DEVICEPORTPROPERTY prop{};
        if (SDGetHbaDevicePortProperty(port.handle, 0, &prop) == SDM_STATUS_SUCCESS)
            port.host = host_of(wwn_value(prop.WWN));
        ctx.ports().push_back(port);
    }
}

const std::vector<FcHost>& fc_hosts() {
    static const std::vector<FcHost> hosts = [] {
        std::vector<FcHost> found;
        std::error_code ec;
        for (const auto& entry : std::filesystem::directory_iterator("/sys/class/fc_host", ec)) {
            const std::string name = entry.path().filename().string();
            if (!name.starts_with("host") || !all_of(name, 4, isdigit))
                continue;
            std::ifstream in(entry.path() / "port_name");
            std::string text;
            if (!(in >> text) || !text.starts_with("0x"))
                continue;
            if (const auto wwpn = hex_value(text.substr(2)))
                found.push_back({static_cast<unsigned>(std::strtoul(name.c_str() + 4, nullptr, 10)), *wwpn});
        }
        std::sort(found.begin(), found.end(), [](const FcHost& a, const FcHost& b) { return a.host < b.host; });
        return found;
    }();
    return hosts;
}

std::optional<unsigned> host_of(uint64_t wwpn) {
    for (const FcHost& h : fc_hosts())
        if (h.wwpn == wwpn)
            return h.host;
    return std::nullopt;
}

uint64_t wwn_value(const uint8_t* wwn) {
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i)
        v = v << 8 | wwn[i];
    return v;
}

std::string status_text(uint32_t status) {
    const char* text = SDGetErrorString(status);
    return fmt::format("{} (0x{:08X})", text ? text : "unknown", status);
}

}  // namespace vxcli
