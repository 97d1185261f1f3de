// vxsim: builds simulated hosts and runs programs in them.
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "counters.h"
#include "fsutil.h"
#include "model.h"
#include "root.h"
#include "runner.h"
#include "state.h"
#include "tree.h"

// Where the shared scenarios lie, relative to the directory of the vxsim
// executable once installed (<libexec>/vxsim -> <datadir>/vxsim/scenarios).
#ifndef VXSIM_INSTALLED_SCENARIOS
#define VXSIM_INSTALLED_SCENARIOS "../../share/vxsim/scenarios"
#endif

namespace {

using namespace vxsim;

int complain(const std::string& line) {
    std::fprintf(stderr, "vxsim: %s\n", line.c_str());
    return 2;
}

// A scenario given as a path, or by name from the scenario directory
// ("single", "single.json").
std::string find_scenario(const std::string& name) {
    if (fs::exists(name) || name.find('/') != std::string::npos)
        return name;
    // The variable, then beside this vxsim: `scenarios` in a build tree (a
    // link to the sources), the shared data once installed. Nothing is
    // compiled in, so an installed vxsim never looks into a build tree.
    std::vector<std::string> dirs;
    if (const char* env = std::getenv("VXSIM_SCENARIOS"); env && *env)
        dirs.push_back(env);
    const std::string self = fs::real_path("/proc/self/exe");
    if (!self.empty()) {
        const std::string here = self.substr(0, self.find_last_of('/'));
        dirs.push_back(here + "/scenarios");
        dirs.push_back(here + "/" VXSIM_INSTALLED_SCENARIOS);
    }
    for (const std::string& dir : dirs)
        for (const std::string& candidate : {dir + "/" + name, dir + "/" + name + ".json"})
            if (!dir.empty() && fs::exists(candidate))
                return candidate;
    return name;
}

bool parse_u32(const std::string& text, uint32_t& out) {
    uint64_t v = 0;
    if (!parse_number(text, v) || v > 0xFFFFFFFFull)
        return false;
    out = static_cast<uint32_t>(v);
    return true;
}

// A count: -1, or a number from 1 up.
bool parse_count(const std::string& text, int32_t& out) {
    uint64_t v = 0;
    if (text == "-1") {
        out = -1;
        return true;
    }
    if (!parse_number(text, v) || v == 0 || v > 0x7FFFFFFFull)
        return false;
    out = static_cast<int32_t>(v);
    return true;
}

// --root for the subcommands that act on a running root: inside `vxsim run`
// the root is known from the environment.
bool resolve_root(std::string& root, std::string& error) {
    if (root.empty()) {
        const char* env = std::getenv(root::ENV_ROOT);
        if (!env || !*env) {
            error = "--root is required outside a simulated host";
            return false;
        }
        root = env;
    }
    if (!fs::exists(root::scenario(root))) {
        error = root + " is not a sim root (no scenario.json)";
        return false;
    }
    return true;
}

// Every SCSI host of the scenario, physical ports and NPIV ports alike.
std::vector<uint32_t> host_numbers(const Scenario& s) {
    std::vector<uint32_t> hosts;
    for (const Adapter& a : s.adapters)
        for (const PciFunction& f : a.functions) {
            hosts.push_back(f.port.host_no);
            for (const HostPort& v : f.vports)
                hosts.push_back(v.host_no);
        }
    return hosts;
}

bool has_host(const Scenario& s, uint32_t host_no) {
    for (uint32_t h : host_numbers(s))
        if (h == host_no)
            return true;
    return false;
}

std::string host_list(const Scenario& s) {
    std::string list;
    for (uint32_t h : host_numbers(s))
        list += (list.empty() ? "" : ", ") + std::to_string(h);
    return list.empty() ? "none" : list;
}

size_t count_hosts(const Scenario& s, size_t& rports) {
    size_t hosts = 0;
    rports = 0;
    for (const Adapter& a : s.adapters)
        for (const PciFunction& f : a.functions) {
            hosts += 1 + f.vports.size();
            rports += f.port.remote_ports.size();
            for (const HostPort& v : f.vports)
                rports += v.remote_ports.size();
        }
    return hosts;
}

void report_stats(const Scenario& s, const std::string& root, const TreeStats& stats, bool quiet) {
    if (!quiet) {
        size_t rports = 0;
        size_t hosts = count_hosts(s, rports);
        std::printf("vxsim: built %s: %zu adapters, %zu hosts, %zu remote ports; %zu dirs, %zu files, %zu links\n",
                    root.c_str(), s.adapters.size(), hosts, rports, stats.dirs, stats.files, stats.links);
    }
    if (stats.rports_without_bsg)
        std::fprintf(stderr, "vxsim: %zu remote ports got no bsg node (the bsg device numbers ran out)\n",
                     stats.rports_without_bsg);
}

int build(const std::string& scenario_file, const std::string& root) {
    Scenario s;
    std::string error;
    if (!load_scenario(find_scenario(scenario_file), s, error))
        return complain(error);
    TreeStats stats;
    if (!build_root(s, root, stats, error))
        return complain(error);
    report_stats(s, root, stats, false);
    return 0;
}

struct RunArgs {
    std::string scenario;
    std::string root;
    bool keep = false;
    bool real_sleep = false;
    std::string euid;  // "" = not given
    std::vector<std::string> command;
};

int run(const RunArgs& a) {
    std::string reason;
    if (!can_run(reason))
        return complain(std::string(NEEDS_ROOT) + ": " + reason);

    std::string self = fs::real_path("/proc/self/exe");
    RunOptions o;
    const char* driver = std::getenv("VXSIM_DRIVER");
    o.preload = driver && *driver ? std::string(driver) : self.substr(0, self.find_last_of('/')) + "/libvxsim_driver.so";
    if (!fs::exists(o.preload))
        return complain("driver emulation not found: " + o.preload + " (build the vxsim_driver target)");
    o.preload = fs::real_path(o.preload);
    o.command = a.command;
    o.real_sleep = a.real_sleep;
    o.user_namespace = ::geteuid() != 0;

    // A root given with --root is built there, or reused as it is when it
    // holds one already and no scenario is named.
    bool temporary = a.root.empty();
    bool reuse = !temporary && a.scenario.empty() && fs::exists(root::scenario(a.root));
    Scenario s;
    std::string error;
    if (!load_scenario(reuse ? root::scenario(a.root) : find_scenario(a.scenario.empty() ? "default" : a.scenario), s,
                       error) ||
        !check_scenario(s, error))
        return complain(error);
    if (!a.euid.empty()) {
        uint32_t euid = 0;
        if (!parse_u32(a.euid, euid) || euid > 0x7FFFFFFF)
            return complain("--euid takes a user id (decimal or 0x hexadecimal)");
        o.euid = euid;
    } else if (s.options.euid)
        o.euid = *s.options.euid;

    std::string root = a.root;
    if (temporary) {
        const char* tmpdir = std::getenv("TMPDIR");
        std::string tmpl = std::string(tmpdir && *tmpdir ? tmpdir : "/tmp") + "/vxsim.XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back(0);
        if (!::mkdtemp(buf.data()))
            return complain(fs::errno_text("mkdtemp", tmpl));
        root = buf.data();
    } else if (!fs::make_dirs(root, error)) {
        return complain(error);
    }
    auto cleanup = [&] {
        if (temporary && !a.keep && !fs::remove_tree(root, error))
            complain(error);
    };
    o.root = fs::real_path(root);
    if (temporary && !a.keep) {
        // Nobody outside will look at it: the child builds it on a tmpfs of
        // its own namespace, which is much faster than a disk for the many
        // small files of a tree, and vanishes with the host.
        o.build = &s;
    } else if (!reuse) {
        TreeStats stats;
        if (!build_root(s, o.root, stats, error)) {
            cleanup();
            return complain(error);
        }
        report_stats(s, o.root, stats, true);
    }

    if (a.keep && temporary)
        std::fprintf(stderr, "vxsim: sim root kept at %s\n", o.root.c_str());
    int rc = run_in_sim(o);
    cleanup();
    return rc;
}

struct EventArgs {
    std::string root, host, code, data, kind = "fc", type, port_id;
};

// Link events move the host's error counters as a real link's would.
void count_link_event(const std::string& root, const Scenario& s, const std::string& type, uint32_t host) {
    drv::CounterMap d;
    if (type == "linkdown")
        d = {{"link_failure_count", 1}, {"loss_of_sync_count", 1}, {"loss_of_signal_count", 1}};
    else if (type == "lip" || type == "lipreset")
        d = {{"lip_count", 1}};
    if (!d.empty() && !drv::counters_add(root, s, host, d))
        complain("the counters of host " + std::to_string(host) + " were not updated");
}

int event(EventArgs a) {
    std::string error;
    if (!resolve_root(a.root, error))
        return complain(error);
    state::SpoolEvent e;
    uint32_t host = 0;
    if (!parse_u32(a.host, host))
        return complain("--host takes a number (decimal or 0x hexadecimal)");
    // An event for a host the scenario lacks would wait in the spool forever.
    Scenario s;
    if (!load_scenario(root::scenario(a.root), s, error))
        return complain(error);
    if (!has_host(s, host))
        return complain("the sim root has no SCSI host " + std::to_string(host) + " (hosts: " + host_list(s) + ")");
    if (!a.type.empty()) {
        uint32_t port_id = 0;
        if (!a.port_id.empty() && !parse_u32(a.port_id, port_id))
            return complain("--port-id takes a number (decimal or 0x hexadecimal)");
        if (!state::event_of_type(s, host, a.type, port_id, e, error))
            return complain(error);
    } else {
        e.kind = a.kind;
        e.host_no = host;
        if (a.code.empty() || !parse_u32(a.code, e.code) || (!a.data.empty() && !parse_u32(a.data, e.data)))
            return complain("--code (or --type) is required; --code and --data take numbers (decimal or 0x hexadecimal)");
    }
    std::string name;
    if (!state::append_event(a.root, e, &name, error))
        return complain(error);
    if (!a.type.empty())
        count_link_event(a.root, s, a.type, host);
    std::printf("%s\n", name.c_str());
    return 0;
}

int fault_list(std::string root, bool json) {
    std::string error;
    std::vector<Fault> faults;
    if (!resolve_root(root, error) || !state::read_faults(root, faults, error))
        return complain(error);
    if (json) {
        nlohmann::json list = nlohmann::json::array();
        for (const Fault& f : faults)
            list.push_back(state::fault_to_json(f));
        std::printf("%s\n", list.dump(2).c_str());
        return 0;
    }
    std::printf("%-14s %-24s %-12s %s\n", "ENDPOINT", "MATCH", "ACTION", "COUNT");
    for (const Fault& f : faults)
        std::printf("%-14s %-24s %-12s %s\n", f.endpoint.c_str(), f.match.empty() ? "*" : f.match.c_str(),
                    f.action.c_str(), f.count < 0 ? "always" : std::to_string(f.count).c_str());
    return 0;
}

int journal(std::string root, const std::string& endpoint, bool json) {
    std::string error;
    std::vector<state::JournalLine> lines;
    if (!resolve_root(root, error) || !state::read_journal(root, lines, error))
        return complain(error);
    if (!json)
        std::printf("%-6s %-8s %-12s %s\n", "SEQ", "PID", "ENDPOINT", "DETAILS");
    for (const state::JournalLine& line : lines) {
        const nlohmann::json& j = line.record;
        std::string ep = j.is_object() ? j.value("ep", "") : "";
        if (!endpoint.empty() && ep != endpoint)
            continue;
        if (json) {
            // The line as the emulation wrote it: its key order is the record's.
            std::printf("%s\n", line.text.c_str());
            continue;
        }
        if (!j.is_object()) {
            std::printf("%-6s %-8s %-12s %s\n", "?", "?", "?", line.text.c_str());
            continue;
        }
        std::string details;
        for (const auto& [key, value] : j.items()) {
            if (key == "seq" || key == "pid" || key == "ep")
                continue;
            details += (details.empty() ? "" : " ") + key + "=" + value.dump();
        }
        auto field = [&](const char* key) { return j.contains(key) ? j[key].dump() : std::string("-"); };
        std::printf("%-6s %-8s %-12s %s\n", field("seq").c_str(), field("pid").c_str(), ep.c_str(), details.c_str());
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"vxsim: simulated hosts with Varnex Fibre Channel adapters"};
    app.require_subcommand(1);

    RunArgs ra;
    CLI::App* run_cmd = app.add_subcommand("run", "Run a command in a fresh simulated host");
    run_cmd->add_option("--scenario", ra.scenario, "Scenario file or name (default: default.json)");
    run_cmd->add_option("--root", ra.root, "Sim root to build or reuse (kept afterwards)");
    run_cmd->add_flag("--keep", ra.keep, "Keep the temporary sim root");
    run_cmd->add_option("--euid", ra.euid, "Effective user id the programs see");
    run_cmd->add_flag("--real-sleep", ra.real_sleep, "Do not shorten sleeps");
    run_cmd->add_option("command", ra.command, "Command and arguments, after --")->required();

    std::string tree_scenario, tree_root;
    CLI::App* tree_cmd = app.add_subcommand("tree", "Only build a sim root, for inspection");
    tree_cmd->add_option("--scenario", tree_scenario, "Scenario file or name")->required();
    tree_cmd->add_option("--root", tree_root, "Directory to build it in (missing or empty)")->required();

    EventArgs ev;
    CLI::App* event_cmd = app.add_subcommand("event", "Queue an event for the event endpoints");
    event_cmd->add_option("--root", ev.root, "Sim root (default: $VXSIM_ROOT)");
    event_cmd->add_option("--host", ev.host, "SCSI host number")->required();
    CLI::Option* type_opt =
        event_cmd->add_option("--type", ev.type, "lip, linkup, linkdown, lipreset, rscn, newtargets, unknown")
            ->check(CLI::IsMember(state::event_types()));
    event_cmd->add_option("--port-id", ev.port_id, "rscn: the affected port id")->needs(type_opt);
    CLI::Option* code_opt = event_cmd->add_option("--code", ev.code, "Raw event code")->excludes(type_opt);
    event_cmd->add_option("--data", ev.data, "Raw event data")->needs(code_opt);
    event_cmd->add_option("--kind", ev.kind, "With --code: fc (transport event) or aen (driver event)")
        ->check(CLI::IsMember({"fc", "aen"}))
        ->needs(code_opt);

    std::string fault_root;
    Fault fault;
    bool fault_json = false;
    CLI::App* fault_cmd = app.add_subcommand("fault", "Arm, list or clear injected faults");
    fault_cmd->add_option("--root", fault_root, "Sim root (default: $VXSIM_ROOT)");
    fault_cmd->require_subcommand(1);
    CLI::App* fault_add = fault_cmd->add_subcommand("add", "Arm a fault");
    fault_add->add_option("--endpoint", fault.endpoint, fault_endpoint_list())
        ->required();
    fault_add->add_option("--match", fault.match, "Request selector (\"\" = any; \"abc*\" = prefix)");
    fault_add->add_option("--action", fault.action, "ebusy, enosys, eio, short, refuse, partial, status:<n>")->required();
    std::string fault_count;
    fault_add->add_option("--count", fault_count, "Matching requests to fail (-1 = always)");
    CLI::App* fault_list_cmd = fault_cmd->add_subcommand("list", "List armed faults");
    fault_list_cmd->add_flag("--json", fault_json, "Print the JSON list");
    CLI::App* fault_clear = fault_cmd->add_subcommand("clear", "Remove every fault");

    std::string j_root, j_endpoint;
    bool j_json = false;
    CLI::App* journal_cmd = app.add_subcommand("journal", "Print the request journal");
    journal_cmd->add_option("--root", j_root, "Sim root (default: $VXSIM_ROOT)");
    journal_cmd->add_option("--endpoint", j_endpoint, "Only this endpoint");
    journal_cmd->add_flag("--json", j_json, "Raw JSON lines");

    std::string clock_root;
    int64_t clock_seconds = 0;
    CLI::App* clock_cmd = app.add_subcommand("clock", "Show or move the host's wall clock (time())");
    clock_cmd->add_option("--root", clock_root, "Sim root (default: $VXSIM_ROOT)");
    CLI::App* clock_advance = clock_cmd->add_subcommand("advance", "Move the clock by SECONDS (negative: back)");
    clock_advance->add_option("seconds", clock_seconds, "Seconds")->required();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int rc = app.exit(e);
        return rc == 0 ? 0 : 2;
    }

    if (run_cmd->parsed())
        return run(ra);
    if (tree_cmd->parsed())
        return build(tree_scenario, tree_root);
    if (event_cmd->parsed())
        return event(ev);
    if (fault_add->parsed()) {
        std::string error;
        if (!fault_count.empty() && !parse_count(fault_count, fault.count))
            return complain("--count takes -1 (always) or a number from 1 (decimal or 0x hexadecimal)");
        if (!resolve_root(fault_root, error) || !state::add_fault(fault_root, fault, error))
            return complain(error);
        return 0;
    }
    if (fault_list_cmd->parsed())
        return fault_list(fault_root, fault_json);
    if (fault_clear->parsed()) {
        std::string error;
        if (!resolve_root(fault_root, error) || !state::clear_faults(fault_root, error))
            return complain(error);
        return 0;
    }
    if (journal_cmd->parsed())
        return journal(j_root, j_endpoint, j_json);
    if (clock_cmd->parsed()) {
        std::string error;
        int64_t offset = 0;
        if (!resolve_root(clock_root, error))
            return complain(error);
        const bool ok = clock_advance->parsed() ? state::advance_clock(clock_root, clock_seconds, &offset, error)
                                                : state::read_clock_offset(clock_root, offset, error);
        if (!ok)
            return complain(error);
        std::printf("clock offset %lld s\n", static_cast<long long>(offset));
        return 0;
    }
    return 2;
}
