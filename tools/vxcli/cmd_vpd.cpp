// vxcli vpd: a port's vital product data (identifier, serial and part
// numbers, boot image versions), decoded, or as the item lines with --raw.
// CLI11's headers trip GCC 12's null-dereference check (see cli.cpp).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop
#include <fmt/format.h>

#include "abi/vx_adapters.h"
#include "commands.h"
#include "vpd.h"
#include "vsdmgt.h"

namespace vxcli {

namespace {

bool raw = false;

const std::vector<TableColumn>& columns() {
    static const std::vector<TableColumn> c = {
        {"KEYWORD", "keyword"},
        {"NAME", "name"},
        {"VALUE", "value"},
    };
    return c;
}

std::string value_text(const std::string& data) { return data.substr(0, data.find('\0')); }

// Boards with the HP subsystem ids store the identifier with a one-byte length.
bool short_identifier(int handle) {
    CHIPPROPERTY chip{};
    return SDGetHbaDeviceChipProperty(handle, &chip) == SDM_STATUS_SUCCESS &&
           vx_is_hp_variant(chip.SubVendorID, chip.SubSystemID);
}

void run(Context& ctx) {
    const SelectedPort& port = ctx.ports().front();
    ctx.doc().update(port_identity(port));
    std::vector<uint8_t> vpd(1024);
    SD_UINT32 size = static_cast<SD_UINT32>(vpd.size());
    const SD_UINT32 st = SDGetVpd(port.handle, 0, vpd.data(), &size);
    if (st != SDM_STATUS_SUCCESS) {
        ctx.doc()["vpd"] = ctx.partial(fmt::format("port {}: VPD", port.instance), st);
        return;
    }
    const VpdWalk walk = walk_vpd(vpd.data(), size, short_identifier(port.handle));

    json identifier;  // null when the VPD has none
    std::vector<json> fields;
    for (const VpdItem& item : walk.items) {
        if (item.tag == 0x82)
            identifier = value_text(item.data);
        else if (item.keyword == "RV" || item.keyword == "RW")
            fields.push_back({{"keyword", item.keyword},
                              {"name", vpd_keyword_name(item.keyword)},
                              {"value", fmt::format("{:02X}", item.data.empty() ? 0u : unsigned(uint8_t(item.data[0])))}});
        else if (!item.keyword.empty())
            fields.push_back({{"keyword", item.keyword}, {"name", vpd_keyword_name(item.keyword)},
                              {"value", value_text(item.data)}});
    }
    json& out = ctx.doc();
    out["size"] = size;
    out["identifier"] = identifier;
    out["fields"] = fields;
    out["complete"] = walk.complete;
    out["checksum_valid"] = walk.has_checksum && walk.checksum_valid;
    if (raw) {
        out["text"] = vpd_text(walk);
        ctx.print(vpd_text(walk));
        return;
    }
    ctx.print(fmt::format("Identifier  {}\n", identifier.is_null() ? "-" : identifier.get<std::string>()));
    ctx.print_table(columns(), fields);
    if (!walk.has_checksum)
        ctx.print("The VPD has no checksum field.\n");
    else if (!walk.checksum_valid)
        ctx.print("The VPD checksum does not hold.\n");
    if (!walk.complete)
        ctx.print("The VPD has no end tag: it is cut short.\n");
}

void options(CLI::App& app) {
    app.add_flag("--raw", raw, "Show the VPD items one per line, as the adapter stores them");
}

}  // namespace

Command vpd_command() {
    return {"vpd", "PORT", "Show a port's vital product data (serial and part numbers, versions)",
            "Shows the vital product data of a port's board: the identifier and every keyword field with what it "
            "means (serial number, part number, boot image versions), and whether its checksum holds and it ends "
            "properly. --raw shows the items one per line as stored: the identifier and section tags in "
            "hexadecimal, keywords and their values in quotes, checksums as a hexadecimal byte.",
            PortArg::One, &columns(), false, options, run};
}

}  // namespace vxcli
