// vxcli reportluns: the LUNs a target reports (REPORT LUNS), or those the
// library found by probing when the target refuses the command.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "dump.h"
#include "scsi_cmd.h"
#include "scsi_decode.h"

namespace vxcli {

namespace {

ScsiArgs args;
bool raw = false;

constexpr uint32_t FIRST_ROOM = 8 + 512 * 8;  // the head and 512 LUNs
constexpr uint32_t MOST_ROOM = 8 + 16384 * 8;

std::string bytes_hex(const uint8_t* p, size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i)
        s += fmt::format("{:02x}", p[i]);
    return s;
}

const char* method_name(uint8_t byte0) {
    static const char* const names[] = {"peripheral", "flat", "logical unit", "extended"};
    return names[byte0 >> 6];
}

const std::vector<TableColumn>& columns() {
    static const std::vector<TableColumn> c = {{"LUN", "lun", true}, {"ADDRESS", "address"}, {"METHOD", "method"}};
    return c;
}

void run(Context& ctx) {
    ScsiTarget t;
    if (!parse_target(ctx, args, t))
        return;
    const SelectedPort& port = ctx.ports().front();
    uint8_t sense[SDM_MAX_SENSE_LEN] = {};
    std::vector<uint8_t> data(FIRST_ROOM);
    uint32_t status = send_canned(port.handle, Canned::ReportLuns, t, data.data(), FIRST_ROOM, sense, sizeof sense);
    // A list longer than the room: asked again with room for all of it.
    const auto first = scsi::decode_report_luns(data.data(), data.size());
    if (status == SDM_STATUS_SUCCESS && first && first->length > FIRST_ROOM - 8) {
        data.assign(std::min<size_t>(MOST_ROOM, size_t(first->length) + 8), 0);
        t.lun = static_cast<uint16_t>(args.lun);
        status = send_canned(port.handle, Canned::ReportLuns, t, data.data(), static_cast<uint32_t>(data.size()),
                             sense, sizeof sense);
    }
    ctx.doc().update(port_identity(port));
    const bool probed = status == SDM_STATUS_NOT_FROM_DEVICE;
    const auto list = status == SDM_STATUS_SUCCESS || probed ? scsi::decode_report_luns(data.data(), data.size())
                                                              : std::nullopt;
    json& out = ctx.doc()["report_luns"];
    out = {{"target", target_json(t)["target"]}};
    if (!list) {
        out["error"] = scsi_failure(ctx, port, "REPORT LUNS of " + target_text(t), status, sense, sizeof sense);
        return;
    }
    std::vector<json> rows;
    for (const scsi::Lun& l : list->luns)
        rows.push_back({{"lun", l.number == UINT32_MAX ? json(nullptr) : json(l.number)},
                        {"address", bytes_hex(l.bytes, sizeof l.bytes)},
                        {"method", method_name(l.bytes[0])}});
    out["probed"] = probed;
    out["lun_count"] = rows.size();
    out["luns"] = rows;
    const size_t shown = std::min<size_t>(data.size(), 8 + size_t(list->length));
    if (raw) {
        out["raw"] = bytes_hex(data.data(), shown);
        ctx.print(hex_dump(data.data(), shown));
        return;
    }
    if (probed)
        ctx.print("The target refused REPORT LUNS: these LUNs answered READ CAPACITY (LUNs 0-255 were asked).\n");
    ctx.print_table(columns(), rows);
}

}  // namespace

Command reportluns_command() {
    return {"reportluns", "PORT TARGET", "List the LUNs a target reports (SCSI REPORT LUNS)",
            "Sends SCSI REPORT LUNS to LUN 0 of a target the port reaches, named by its SCSI target id or its WWPN, "
            "and lists the LUNs with their 8-byte addresses decoded. A target that refuses REPORT LUNS (ILLEGAL "
            "REQUEST) is asked READ CAPACITY for each of LUNs 0-255 instead; the list then holds those that "
            "answered, and says so (\"probed\": true). --raw shows the list's bytes.",
            PortArg::One, &columns(), false,
            [](CLI::App& app) {
                add_target_args(app, args, false);
                app.add_flag("--raw", raw, "Show the LUN list's bytes as a hex dump");
            },
            run};
}

}  // namespace vxcli
