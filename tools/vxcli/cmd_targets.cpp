// vxcli targets: the targets a port has discovered, with their LUN counts.
#include "commands.h"
#include "discovered.h"

namespace vxcli {

namespace {

void run(Context& ctx) {
    for (const SelectedPort& port : ctx.ports()) {
        const PortDatabase db = read_port_database(ctx, port);
        const std::vector<json> rows = target_rows(ctx, port, db);
        ctx.doc().update(port_identity(port));
        ctx.doc()["targets"] = rows;
        ctx.print_table(target_columns(), rows);
    }
}

}  // namespace

Command targets_command() {
    return {"targets", "PORT", "List the FCP targets a port has discovered",
            "Lists the remote ports a port has discovered, in the library's index order: SCSI target id, names, "
            "port id, type, state (from the port database) and LUN count. Ports reached through sysfs list their "
            "online FCP targets; ports reached through the extended-ioctl driver every remote port it knows.",
            PortArg::One, &target_columns(), false, nullptr, run};
}

}  // namespace vxcli
