// A whole sim root: the tree plus the state files the emulation starts from.
#include <nlohmann/json.hpp>

#include <cstdio>

#include "flash.h"
#include "fsutil.h"
#include "root.h"
#include "state.h"
#include "tree.h"

namespace vxsim {
namespace {

bool write_bytes(const std::string& path, const std::vector<uint8_t>& bytes, std::string& error) {
    return fs::write_file(path, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()), 0644,
                          error);
}

}  // namespace

bool write_state(const Scenario& s, const std::string& root, std::string& error) {
    for (const std::string& d :
         {root::state(root) + "/flash", root::state(root) + "/nvram", root::state(root) + "/vpd",
          root::events(root), root::etc_upper(root), root::usrlib_upper(root), root::overlay_work(root) + "/etc",
          root::overlay_work(root) + "/usr-lib"})
        if (!fs::make_dirs(d, error))
            return false;

    for (const Adapter& a : s.adapters) {
        // A device id the adapter table does not know has no flash layout:
        // such boards exist only to be ignored by discovery.
        std::vector<uint8_t> flash = build_flash(a);
        if (!flash.empty() && !write_bytes(root::flash(root, a.id), flash, error))
            return false;
        for (const PciFunction& f : a.functions) {
            size_t fn = pci_function_number(f.pci_address);
            if (!nvram_in_flash(a, fn)) {
                std::vector<uint8_t> image = build_nvram(a, fn);
                if (!image.empty() && !write_bytes(root::nvram(root, f.port.host_no), image, error))
                    return false;
            }
            if (!vpd_in_flash(a, fn)) {
                std::vector<uint8_t> image = build_vpd(a, fn);
                if (!image.empty() && !write_bytes(root::vpd(root, f.port.host_no), image, error))
                    return false;
            }
        }
    }

    nlohmann::json devices = nlohmann::json::object();
    for (const DeviceNode& n : plan_device_nodes(s)) {
        nlohmann::json d = {{"kind", n.kind}};
        if (n.kind == "bsg_host" || n.kind == "bsg_rport")
            d["host"] = n.host;
        if (n.kind == "bsg_rport")
            d["rport"] = n.rport;
        devices[std::to_string(n.major) + ":" + std::to_string(n.minor)] = std::move(d);
    }
    if (!fs::write_file(root::devices(root), devices.dump(2) + "\n", 0644, error) ||
        !fs::write_file(root::journal(root), "", 0644, error) || !state::write_faults(root, s.faults, error))
        return false;
    for (const Event& e : s.events) {
        state::SpoolEvent ev;
        ev.host_no = e.host_no;
        ev.code = e.code;
        ev.data = e.data;
        if (!state::append_event(root, ev, nullptr, error))
            return false;
    }
    // The scenario's events reach every listener; later ones only those
    // that were listening when they came.
    if (!fs::write_file(root::events(root) + "/.boot", std::to_string(s.events.size()) + "\n", 0644, error))
        return false;
    return fs::write_file(root::scenario(root), scenario_to_json(s), 0644, error);
}

bool build_root(const Scenario& s, const std::string& root, TreeStats& stats, std::string& error) {
    if (!fs::is_empty_dir(root)) {
        error = root + " exists and is not an empty directory";
        return false;
    }
    return fs::make_dirs(root, error) && write_sys_tree(s, root, stats, error) && write_state(s, root, error);
}

}  // namespace vxsim
