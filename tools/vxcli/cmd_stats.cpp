// vxcli stats: a port's link and traffic counters, optionally cleared first.
#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "counters.h"

namespace vxcli {

namespace {

bool reset = false;

const std::vector<TableColumn>& columns() {
    static const std::vector<TableColumn> table = {{"COUNTER", "counter"}, {"VALUE", "value", true}};
    return table;
}

void options(CLI::App& app) {
    app.add_flag("--reset", reset, "Clear the port's counters first, then show them");
}

void run(Context& ctx) {
    const SelectedPort& port = ctx.ports().front();
    ctx.doc().update(port_identity(port));
    if (reset) {
        if (const uint32_t status = SDResetStatistics(port.handle, 0); status != SDM_STATUS_SUCCESS) {
            ctx.doc()["counters"] = ctx.partial(fmt::format("port {}: counter reset", port.instance), status);
            return;
        }
    }
    STATISTICS st{};
    if (const uint32_t status = SDGetStatistics(port.handle, 0, &st); status != SDM_STATUS_SUCCESS) {
        ctx.doc()["counters"] = ctx.partial(fmt::format("port {}: statistics query", port.instance), status);
        return;
    }
    json counters = json::object();
    std::vector<json> rows;
    for (const Counter& c : counters_of(st)) {
        counters[c.key] = c.value;
        rows.push_back(json{{"counter", c.key}, {"value", c.value}});
    }
    ctx.doc()["reset"] = reset;
    ctx.doc()["counters"] = std::move(counters);
    ctx.print_table(columns(), rows);
}

}  // namespace

Command stats_command() {
    return {"stats", "PORT", "Show a port's link and traffic counters",
            "Shows the port's counters: errors, commands and megabytes, loop initialisations, link failures, "
            "losses of sync and signal, protocol, transmission-word and CRC errors. --reset clears them first "
            "(ports that cannot clear them fail with \"not supported\" and show nothing).",
            PortArg::One, &columns(), false, options, run};
}

}  // namespace vxcli
