// vxcli: the command-line tool over libvxsdm. It uses only the exported SD
// interface, as any management application would.
//
// Exit codes: 0 success; 1 bad command line; 2 no adapters found; 3 the
// library could not be loaded; 4 some ports could not be opened (the
// listing shows what could be read).
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>
#include <vector>

#include "ports.h"
#include "table.h"
#include "vsdmgt.h"

#ifndef VXCLI_VERSION
#define VXCLI_VERSION "unknown"
#endif

namespace {

enum Exit : int {
    EXIT_OK = 0,
    EXIT_NO_ADAPTERS = 2,
    EXIT_LIBRARY = 3,
    EXIT_PARTIAL = 4,
};

void error_line(const std::string& text) { fmt::print(stderr, "vxcli: {}\n", text); }

// The count is 0 both when nothing was found and when the load failed; an
// open of instance 0 tells the two apart.
int explain_no_ports() {
    SD_UINT32 handle = 0;
    const SD_UINT32 status = SDOpenDevice(0, &handle);
    if (status == SDM_STATUS_SUCCESS) {
        SDCloseDevice(handle);
        error_line("the adapters changed while listing them; try again");
        return EXIT_LIBRARY;
    }
    if (status == SDM_STATUS_DEVICE_NOT_FOUND) {
        error_line("no adapters found");
        return EXIT_NO_ADAPTERS;
    }
    std::string text = "cannot load the adapter library: " + vxcli::status_text(status);
    if (geteuid() != 0)
        text += "; vxcli must run as root";
    error_line(text);
    return EXIT_LIBRARY;
}

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

    vxcli::PortSession session;
    const std::vector<vxcli::PortRow> rows = session.open_all(count);
    const auto& columns = vxcli::port_columns();

    int result = EXIT_OK;
    for (const auto& row : rows) {
        if (row.open_status != SDM_STATUS_SUCCESS) {
            error_line(fmt::format("port {}: open failed: {}", row.instance, vxcli::status_text(row.open_status)));
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
                port["error"] = vxcli::status_text(row.open_status);
            ports.push_back(std::move(port));
        }
        nlohmann::ordered_json out{{"count", count}, {"ports", std::move(ports)}};
        fmt::print("{}\n", out.dump(2));
        return result;
    }

    std::vector<vxcli::TableColumn> header;
    for (const auto& column : columns)
        header.push_back({column.header, column.right_aligned});
    std::vector<std::vector<std::string>> cells;
    for (const auto& row : rows) {
        std::vector<std::string> line;
        for (const auto& column : columns)
            line.push_back(cell_text(column.value(row)));
        cells.push_back(std::move(line));
    }
    fmt::print("{}", vxcli::render_table(header, cells));
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
    CLI::App* version = app.add_subcommand("version", "Print the versions of vxcli and the library");
    version->fallthrough();
    app.footer(
        "Exit codes: 0 success, 1 bad command line, 2 no adapters found, 3 library not loaded, "
        "4 some ports could not be opened.");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? EXIT_OK : 1;
    }
    if (list->parsed())
        return run_list(json);
    return run_version(json);
}
