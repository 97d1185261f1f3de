// vxcli report: the whole host in one process: every port with its
// properties, its remote ports and its targets with their LUN counts.
#include <fmt/format.h>

#include <tuple>

#include "commands.h"
#include "discovered.h"
#include "sections.h"

namespace vxcli {

namespace {

std::string indented(const std::string& text) {
    std::string out;
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = text.find('\n', start);
        out += "  " + text.substr(start, end - start + 1);
        start = end == std::string::npos ? text.size() : end + 1;
    }
    return out;
}

void run(Context& ctx) {
    json ports = json::array();
    for (const SelectedPort& port : ctx.ports()) {
        json out = json::object();
        std::string text;
        port_properties(ctx, port, out, text);
        const PortDatabase db = read_port_database(ctx, port);
        out["remote_ports"] = remote_port_rows(db);
        out["targets"] = target_rows(ctx, port, db);

        std::string title = fmt::format("Port {}", port.instance);
        if (port.host)
            title += fmt::format("  host{}", *port.host);
        if (out["port"].contains("wwpn"))
            title += "  " + out["port"]["wwpn"].get<std::string>();
        ctx.print(fmt::format("{}{}\n{}", ports.empty() ? "" : "\n", title, indented(text)));
        for (const auto& [heading, key, columns] : {std::tuple{"Remote ports", "remote_ports", &remote_port_columns()},
                                                  std::tuple{"Targets", "targets", &target_columns()}})
            ctx.print(indented(fmt::format("{}\n{}", heading,
                                           indented(ctx.table_text(*columns, out[key].get<std::vector<json>>())))));
        ports.push_back(std::move(out));
    }
    ctx.doc()["ports"] = std::move(ports);
}

}  // namespace

Command report_command() {
    return {"report", "[PORT...]", "Report every port, its remote ports, targets and LUN counts",
            "Reports the whole host in one run: every port (or the PORTs given) with the properties `show` gives, "
            "the remote ports of its port database, and the targets `targets` lists with their LUN counts. "
            "Scripts read it with --json instead of starting one vxcli per port.",
            PortArg::Any, nullptr, false, nullptr, run};
}

}  // namespace vxcli
