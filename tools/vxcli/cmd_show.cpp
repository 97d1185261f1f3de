// vxcli show: one port's properties, in sections.
#include "commands.h"
#include "sections.h"

namespace vxcli {

namespace {

void run(Context& ctx) {
    for (const SelectedPort& port : ctx.ports()) {
        std::string text;
        port_properties(ctx, port, ctx.doc(), text);
        ctx.print(text);
    }
}

}  // namespace

Command show_command() {
    return {"show", "PORT", "Show one port's node, port, chip, driver and firmware properties",
            "Shows one port's properties in sections: node (names, model, serial number, versions), port (WWPN, "
            "port id, state, speed, discovered counts), chip (PCI ids and location, PCIe link), driver and "
            "firmware, and on converged adapters the converged port data (VLAN, VN_Port MAC).",
            PortArg::One, nullptr, false, nullptr, run};
}

}  // namespace vxcli
