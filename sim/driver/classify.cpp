#include "classify.h"

#include <array>
#include <charconv>

#include "root.h"

namespace vxsim::drv {

bool is_reserved_major(unsigned major) {
    return major == root::MAJOR_IOCTL || major == root::MAJOR_CONTROL || major == root::MAJOR_SG ||
           root::is_bsg_major(major);
}

bool is_reserved_block_major(unsigned major) { return major == root::MAJOR_DISK; }

std::optional<AttrKind> attr_kind(std::string_view name) {
    if (name == "optrom_ctl")
        return AttrKind::OptromCtl;
    if (name == "optrom")
        return AttrKind::Optrom;
    if (name == "nvram")
        return AttrKind::Nvram;
    if (name == "vpd")
        return AttrKind::Vpd;
    return std::nullopt;
}

namespace {

bool under(std::string_view path, std::string_view dir) {
    return !dir.empty() && path.size() > dir.size() && path.starts_with(dir) && path[dir.size()] == '/';
}

}  // namespace

std::optional<AttrPath> parse_attr_path(std::string_view resolved, std::string_view sim_sys) {
    if (!under(resolved, "/sys") && !under(resolved, sim_sys))
        return std::nullopt;
    size_t slash = resolved.rfind('/');
    std::optional<AttrKind> kind = attr_kind(resolved.substr(slash + 1));
    if (!kind)
        return std::nullopt;
    std::string_view dir = resolved.substr(0, slash);
    std::string_view parent = dir.substr(dir.rfind('/') + 1);
    if (!parent.starts_with("host") || parent.size() == 4)
        return std::nullopt;
    std::string_view digits = parent.substr(4);
    uint32_t host = 0;
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), host, 10);
    if (ec != std::errc() || end != digits.data() + digits.size())
        return std::nullopt;
    return AttrPath{*kind, host};
}

std::optional<std::string> legacy_node_driver(std::string_view path) {
    static constexpr std::array<std::string_view, 3> drivers{"vxfcdra", "vxfcdrb", "vxfcdrc"};
    constexpr std::string_view prefix = "/proc/scsi/", suffix = "/HbaApiNode";
    if (!path.starts_with(prefix) || !path.ends_with(suffix) || path.size() <= prefix.size() + suffix.size())
        return std::nullopt;
    std::string_view name = path.substr(prefix.size(), path.size() - prefix.size() - suffix.size());
    for (std::string_view d : drivers)
        if (name == d)
            return std::string(name);
    return std::nullopt;
}

}  // namespace vxsim::drv
