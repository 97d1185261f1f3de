// vxcli inquiry: the standard INQUIRY data of a LUN.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "scsi_cmd.h"
#include "scsi_decode.h"

namespace vxcli {

namespace {

ScsiArgs args;

const std::vector<TableColumn>& columns() {
    static const std::vector<TableColumn> c = {
        {"TARGET", "target"}, {"LUN", "lun", true},   {"TYPE", "type"},        {"VENDOR", "vendor"},
        {"PRODUCT", "product"}, {"REVISION", "revision"}, {"QUALIFIER", "qualifier", true},
    };
    return c;
}

void run(Context& ctx) {
    ScsiTarget t;
    if (!parse_target(ctx, args, t))
        return;
    const SelectedPort& port = ctx.ports().front();
    uint8_t data[255] = {}, sense[SDM_MAX_SENSE_LEN] = {};
    const uint32_t status = send_canned(port.handle, Canned::Inquiry, t, data, sizeof data, sense, sizeof sense);
    ctx.doc().update(port_identity(port));
    json row = target_json(t);
    const auto q = status == SDM_STATUS_SUCCESS ? scsi::decode_inquiry(data, sizeof data) : std::nullopt;
    if (!q) {
        row["error"] = scsi_failure(ctx, port, "INQUIRY of " + target_text(t), status, sense, sizeof sense);
        ctx.doc()["inquiry"] = row;
        return;
    }
    row["device_type"] = q->device_type;
    row["type"] = scsi::device_type_name(q->device_type);
    row["qualifier"] = q->qualifier;
    row["vendor"] = q->vendor;
    row["product"] = q->product;
    row["revision"] = q->revision;
    row["version"] = q->version;
    ctx.doc()["inquiry"] = row;
    ctx.print_table(columns(), {row});
}

}  // namespace

Command inquiry_command() {
    return {"inquiry", "PORT TARGET [LUN]", "Show the INQUIRY data of a LUN behind a port",
            "Sends SCSI INQUIRY to a LUN (0 by default) of a target the port reaches, named by its SCSI target id or "
            "its WWPN, and shows the device type, vendor, product and revision. A qualifier of 3 means the target "
            "has no such LUN.",
            PortArg::One, &columns(), false, [](CLI::App& app) { add_target_args(app, args, true); }, run};
}

}  // namespace vxcli
