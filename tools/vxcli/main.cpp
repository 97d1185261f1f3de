// vxcli: the command-line tool over libvxsdm. It uses only the exported SD
// interface, as any management application would.
//
// Exit codes: 0 success; 1 bad command line; 2 no adapters found (or no
// port with the instance asked for); 3 the library could not be loaded; 4
// some ports could not be opened or queried (what could be read is shown).
#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "ports.h"
#include "table.h"
#include "vsdmgt.h"

#ifndef VXCLI_VERSION
#define VXCLI_VERSION "unknown"
#endif

namespace {

using namespace vxcli;

std::string cell_text(const nlohmann::ordered_json& value) {
    if (value.is_null())
        return "-";
    if (value.is_string())
        return value.get<std::string>();
    return value.dump();
}

int run_list(bool json) {
    const SD_UINT32 count = SDGetNumberOfAdapters();
    if (count == 0)
        return explain_no_ports();

    PortSession session;
    const std::vector<PortRow> rows = session.open_all(count);
    const auto& columns = port_columns();

    int result = EXIT_OK;
    for (const auto& row : rows) {
        if (row.open_status != SDM_STATUS_SUCCESS) {
            error_line(fmt::format("port {}: open failed: {}", row.instance, status_text(row.open_status)).c_str());
            result = EXIT_PARTIAL;
        } else if (row.query_status != SDM_STATUS_SUCCESS) {
            error_line(fmt::format("port {}: property query failed: {}", row.instance, status_text(row.query_status))
                           .c_str());
            result = EXIT_PARTIAL;
        }
    }

    if (json) {
        nlohmann::ordered_json ports = nlohmann::ordered_json::array();
        for (const auto& row : rows) {
            nlohmann::ordered_json port;
            for (const auto& column : columns)
                port[column.key] = column.value(row);
            if (row.open_status != SDM_STATUS_SUCCESS)
                port["error"] = status_text(row.open_status);
            else if (row.query_status != SDM_STATUS_SUCCESS)
                port["error"] = status_text(row.query_status);
            ports.push_back(std::move(port));
        }
        nlohmann::ordered_json out{{"count", count}, {"ports", std::move(ports)}};
        fmt::print("{}\n", out.dump(2));
        return result;
    }

    std::vector<TableColumn> header;
    for (const auto& column : columns)
        header.push_back({column.header, column.right_aligned});
    std::vector<std::vector<std::string>> cells;
    for (const auto& row : rows) {
        std::vector<std::string> line;
        for (const auto& column : columns)
            line.push_back(cell_text(column.value(row)));
        cells.push_back(std::move(line));
    }
    fmt::print("{}", render_table(header, cells));
    return result;
}

int run_version(bool json) {
    char text[32] = {};
    const SD_UINT32 number = SDGetVersion(text);
    if (json) {
        nlohmann::ordered_json out{{"vxcli", VXCLI_VERSION},
                           {"library", text},
                           {"library_version", fmt::format("0x{:08X}", number)}};
        fmt::print("{}\n", out.dump(2));
    } else {
        fmt::print("vxcli {}\nlibvxsdm {} (0x{:08X})\n", VXCLI_VERSION, text, number);
    }
    return EXIT_OK;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"vxcli: list and manage Varnex Fibre Channel and FCoE adapters (run as root)"};
    app.require_subcommand(1);
    bool json = false;
    app.add_flag("--json", json, "Print JSON instead of a table (for scripts)");

    CLI::App* list = app.add_subcommand("list", "List the adapter ports the library finds");
    list->fallthrough();
    uint32_t instance = 0;
    CLI::App* show = app.add_subcommand("show", "Show one port's node, port, chip, driver and firmware properties");
    show->add_option("instance", instance, "Port instance, as `list` numbers it")->required();
    show->fallthrough();
    CLI::App* targets = app.add_subcommand("targets", "List the FCP targets a port has discovered");
    targets->add_option("instance", instance, "Port instance, as `list` numbers it")->required();
    targets->fallthrough();
    CLI::App* luns = app.add_subcommand("luns", "List the LUNs of each target a port has discovered");
    luns->add_option("instance", instance, "Port instance, as `list` numbers it")->required();
    luns->fallthrough();
    CLI::App* version = app.add_subcommand("version", "Print the versions of vxcli and the library");
    version->fallthrough();
    app.footer(
        "Exit codes: 0 success, 1 bad command line, 2 no adapters found (or no port with that instance), "
        "3 library not loaded, 4 some ports could not be opened or queried (what could be read is shown).");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? EXIT_OK : EXIT_USAGE;
    }
    if (list->parsed())
        return run_list(json);
    if (show->parsed())
        return run_show(instance, json);
    if (targets->parsed())
        return run_targets(instance, json);
    if (luns->parsed())
        return run_luns(instance, json);
    return run_version(json);
}
