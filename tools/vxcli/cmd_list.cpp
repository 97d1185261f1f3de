// vxcli list: one row per port, physical and virtual.
#include <fmt/format.h>

#include "commands.h"
#include "format.h"
#include "sections.h"

namespace vxcli {

namespace {

std::string speed_cell(const json& row) {
    return speed_text(row.value("speed_code", 0u));
}

const std::vector<TableColumn>& columns() {
    static const std::vector<TableColumn> table = {
        {"INSTANCE", "instance", true}, {"HANDLE", "handle", true}, {"HOST", "host", true},
        {"WWNN", "wwnn"},               {"WWPN", "wwpn"},           {"PORT ID", "port_id"},
        {"TYPE", "type"},               {"STATE", "state"},         {"SPEED", "speed_code", false, speed_cell},
        {"MODEL", "model"},             {"SERIAL", "serial"},
    };
    return table;
}

// The keys a row takes from the node and port sections.
constexpr const char* NODE_KEYS[] = {"wwnn", "type", "model", "serial"};
constexpr const char* PORT_KEYS[] = {"wwpn", "port_id", "state", "speed_gbps", "speed_code"};

void run(Context& ctx) {
    std::vector<json> rows;
    for (const SelectedPort& port : ctx.ports()) {
        json row = port_identity(port);
        const Section node = node_section(port.handle);
        const Section prop = port_section(port.handle);
        const json node_json = node.to_json(), port_json = prop.to_json();
        for (const char* key : NODE_KEYS)
            row[key] = node_json.contains(key) ? node_json[key] : json();
        for (const char* key : PORT_KEYS)
            row[key] = port_json.contains(key) ? port_json[key] : json();
        for (const Section* s : {&node, &prop})
            if (s->status != SDM_STATUS_SUCCESS && !row.contains("error"))
                row["error"] = ctx.partial(fmt::format("port {}: {} query", port.instance, s->key), s->status);
        rows.push_back(std::move(row));
    }
    ctx.doc()["ports"] = rows;
    ctx.print_table(columns(), rows);
}

}  // namespace

Command list_command() {
    return {"list", "[PORT...]", "List the adapter ports the library finds",
            "Lists the adapter ports the library finds, physical and virtual (NPIV), one row each: instance, "
            "handle, SCSI host, names, port id, type, state, speed, model and serial number. PORT arguments "
            "list only those ports.",
            PortArg::Any, &columns(), false, nullptr, run};
}

}  // namespace vxcli
