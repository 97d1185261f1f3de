// vxcli readcap: the capacity of a LUN (READ CAPACITY).
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "scsi_cmd.h"
#include "scsi_decode.h"

namespace vxcli {

namespace {

ScsiArgs args;

std::string size_cell(const json& row) {
    const double bytes = row.value("bytes", 0.0);
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
    double v = bytes;
    size_t u = 0;
    while (v >= 1024 && u + 1 < std::size(units)) {
        v /= 1024;
        ++u;
    }
    return fmt::format("{:.1f} {}", v, units[u]);
}

const std::vector<TableColumn>& columns() {
    static const std::vector<TableColumn> c = {
        {"TARGET", "target"},          {"LUN", "lun", true},   {"BLOCKS", "blocks", true},
        {"BLOCK SIZE", "block_size", true}, {"SIZE", "bytes", true, size_cell},
    };
    return c;
}

void run(Context& ctx) {
    ScsiTarget t;
    if (!parse_target(ctx, args, t))
        return;
    const SelectedPort& port = ctx.ports().front();
    uint8_t data[8] = {}, sense[SDM_MAX_SENSE_LEN] = {};
    const uint32_t status = send_canned(port.handle, Canned::ReadCapacity, t, data, sizeof data, sense, sizeof sense);
    ctx.doc().update(port_identity(port));
    const auto cap = status == SDM_STATUS_SUCCESS ? scsi::decode_read_capacity(data, sizeof data) : std::nullopt;
    json row = target_json(t);
    if (!cap) {
        row["error"] = scsi_failure(ctx, port, "READ CAPACITY of " + target_text(t), status, sense, sizeof sense);
        ctx.doc()["capacity"] = row;
        return;
    }
    row["blocks"] = cap->blocks;
    row["block_size"] = cap->block_size;
    row["bytes"] = cap->blocks * cap->block_size;
    ctx.doc()["capacity"] = row;
    ctx.print_table(columns(), {row});
}

}  // namespace

Command readcap_command() {
    return {"readcap", "PORT TARGET [LUN]", "Show the capacity of a LUN behind a port",
            "Sends SCSI READ CAPACITY(10) to a LUN (0 by default) of a target the port reaches, named by its SCSI "
            "target id or its WWPN, and shows its blocks, block size and size.",
            PortArg::One, &columns(), false, [](CLI::App& app) { add_target_args(app, args, true); }, run};
}

}  // namespace vxcli
