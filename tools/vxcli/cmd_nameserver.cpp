// vxcli nameserver: the ports the fabric's name server knows, by FC-4 type.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "format.h"
#include "scsi_decode.h"

namespace vxcli {

namespace {

unsigned fc4_type = 8;  // FCP

constexpr uint32_t ID_ROOM = 16 + 4 * 4096;  // a CT header and 4096 port ids
constexpr uint32_t NAME_ROOM = 16 + 8;

const std::vector<TableColumn>& columns() {
    static const std::vector<TableColumn> c = {{"PORT ID", "port_id"}, {"WWPN", "wwpn"}, {"WWNN", "wwnn"}};
    return c;
}

// One name-server request; the accept's payload, or none with the failure recorded.
std::optional<scsi::CtReply> ask(Context& ctx, const SelectedPort& port, const std::string& what, uint16_t command,
                                 uint32_t argument, std::vector<uint8_t>& reply) {
    std::vector<uint8_t> req = scsi::ct_request(command, argument);
    const uint32_t status = SDSendCTPassThru(port.handle, req.data(), static_cast<uint32_t>(req.size()),
                                             reply.data(), static_cast<uint32_t>(reply.size()));
    if (status != SDM_STATUS_SUCCESS && status != SDM_STATUS_DATA_OVERRUN) {
        ctx.partial(fmt::format("port {}: {}", port.instance, what), status);
        return std::nullopt;
    }
    const auto ct = scsi::decode_ct(reply.data(), reply.size());
    if (ct && ct->code != scsi::CT_ACCEPT)
        ctx.fail(EXIT_PARTIAL, fmt::format("port {}: {} rejected: reason {:02x}h, explanation {:02x}h", port.instance,
                                           what, ct->reason, ct->explanation));
    return ct && ct->code == scsi::CT_ACCEPT ? ct : std::nullopt;
}

void run(Context& ctx) {
    const SelectedPort& port = ctx.ports().front();
    ctx.doc().update(port_identity(port));
    ctx.doc()["fc4_type"] = fc4_type;
    std::vector<uint8_t> ids(ID_ROOM);
    const auto list = ask(ctx, port, "GID_FT", scsi::CT_GID_FT, fc4_type & 0xFF, ids);
    if (!list)
        return;
    std::vector<json> rows;
    for (const uint32_t id : scsi::decode_port_ids(*list)) {
        json row = {{"port_id", hex_text(id, 6)}, {"wwpn", nullptr}, {"wwnn", nullptr}};
        static constexpr struct {
            uint16_t command;
            const char* name;
            const char* key;
        } names[] = {{scsi::CT_GPN_ID, "GPN_ID", "wwpn"}, {scsi::CT_GNN_ID, "GNN_ID", "wwnn"}};
        for (const auto& n : names) {
            std::vector<uint8_t> reply(NAME_ROOM);
            const auto ct = ask(ctx, port, fmt::format("{} of {}", n.name, hex_text(id, 6)), n.command, id, reply);
            if (const auto name = ct ? scsi::decode_name(*ct) : std::nullopt)
                row[n.key] = wwn_text(*name);
        }
        rows.push_back(row);
    }
    ctx.doc()["port_count"] = rows.size();
    ctx.doc()["ports"] = rows;
    ctx.print_table(columns(), rows);
}

}  // namespace

Command nameserver_command() {
    return {"nameserver", "PORT", "List the ports the fabric's name server knows",
            "Asks the name server of the port's fabric for every port of an FC-4 type (GID_FT; FCP by default) and "
            "for each one's port and node names (GPN_ID, GNN_ID). The port must be logged in to a fabric.",
            PortArg::One, &columns(), false,
            [](CLI::App& app) {
                app.add_option("--type", fc4_type, "FC-4 type to list (8: FCP)")->check(CLI::Range(0, 255));
            },
            run};
}

}  // namespace vxcli
