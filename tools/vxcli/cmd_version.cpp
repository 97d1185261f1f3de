// vxcli version: the versions of the tool and of the library it loaded.
#include <fmt/format.h>

#include "commands.h"
#include "vsdmgt.h"

namespace vxcli {

namespace {

void run(Context& ctx) {
    char text[32] = {};
    const SD_UINT32 number = SDGetVersion(text);
    ctx.doc()["vxcli"] = VXCLI_VERSION;
    ctx.doc()["library"] = text;
    ctx.doc()["library_number"] = number;
    ctx.print(fmt::format("vxcli {}\nlibvxsdm {} (0x{:08X})\n", VXCLI_VERSION, text, number));
}

}  // namespace

Command version_command() {
    return {"version", "", "Show the versions of vxcli and the library",
            "Shows the versions of vxcli and of the library it loaded (its version text and number). Needs no "
            "adapter and no root.",
            PortArg::None, nullptr, false, nullptr, run};
}

}  // namespace vxcli
