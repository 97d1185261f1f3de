// vxcli luns: the LUNs of each target a port has discovered.
#include "commands.h"
#include "discovered.h"

namespace vxcli {

namespace {

void run(Context& ctx) {
    for (const SelectedPort& port : ctx.ports()) {
        const std::vector<json> rows = lun_rows(ctx, port);
        ctx.doc().update(port_identity(port));
        ctx.doc()["targets"] = rows;
        ctx.print_table(lun_columns(), rows);
    }
}

}  // namespace

Command luns_command() {
    return {"luns", "PORT", "List the LUNs of each target a port has discovered",
            "Lists the LUN numbers of each target the port has discovered, in ascending order; flat-addressed "
            "LUNs are decoded (LUN 256 and above).",
            PortArg::One, &lun_columns(), false, nullptr, run};
}

}  // namespace vxcli
