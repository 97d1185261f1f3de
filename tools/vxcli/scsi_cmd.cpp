// Shared parts of the SCSI pass-through commands; see scsi_cmd.h.
#include "scsi_cmd.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "format.h"
#include "ports.h"
#include "scsi_decode.h"

namespace vxcli {

void add_target_args(CLI::App& app, ScsiArgs& args, bool with_lun) {
    app.add_option("TARGET", args.target, "SCSI target id, or the target's WWPN")->required();
    if (with_lun)
        app.add_option("LUN", args.lun, "LUN number (default 0)");
}

bool parse_target(Context& ctx, const ScsiArgs& args, ScsiTarget& out) {
    out = {};
    if (args.lun > 0xFFFF) {
        ctx.fail(EXIT_USAGE, fmt::format("LUN {} is above 65535", args.lun));
        return false;
    }
    out.lun = static_cast<uint16_t>(args.lun);
    // A WWPN is written as a port's is; anything else is a target id.
    if (const auto sel = parse_port(args.target); sel && sel->kind == PortSelector::Wwpn) {
        out.by_name = true;
        out.wwpn = sel->value;
        return true;
    }
    char* end = nullptr;
    const unsigned long id = strtoul(args.target.c_str(), &end, 10);
    if (args.target.empty() || *end != '\0' || id > 0xFFFF) {
        ctx.fail(EXIT_USAGE, "TARGET must be a SCSI target id (0-65535) or a WWPN: " + args.target);
        return false;
    }
    out.id = static_cast<uint16_t>(id);
    return true;
}

json target_json(const ScsiTarget& t) {
    return {{"target", t.by_name ? json(wwn_text(t.wwpn)) : json(t.id)}, {"lun", t.lun}};
}

std::string target_text(const ScsiTarget& t) {
    return fmt::format("target {} LUN {}", t.by_name ? wwn_text(t.wwpn) : std::to_string(t.id), t.lun);
}

uint32_t send_canned(int handle, Canned op, ScsiTarget& t, void* buf, uint32_t size, uint8_t* sense,
                     uint32_t sense_size) {
    if (t.by_name) {
        DESTINATIONADDRESS d{};
        d.AddressType = SDM_ADDRESS_WWPN;
        for (int i = 0; i < 8; ++i)
            d.AddressUsing.WWPN[i] = static_cast<uint8_t>(t.wwpn >> (8 * (7 - i)));
        d.LunNumber = t.lun;
        const uint32_t st = op == Canned::Inquiry        ? SDSendScsiInquiryCmdFC(handle, &d, buf, size, sense, sense_size)
                            : op == Canned::ReadCapacity ? SDSendScsiReadCapacityCmdFC(handle, &d, buf, size, sense, sense_size)
                                                         : SDSendScsiReportLunsCmdFC(handle, &d, buf, size, sense, sense_size);
        t.lun = d.LunNumber;
        return st;
    }
    TARGETINFORMATION ti{};
    ti.TargetID = t.id;
    ti.LUN = t.lun;
    const uint32_t st = op == Canned::Inquiry        ? SDSendScsiInquiryCmd(handle, &ti, buf, size, sense, sense_size)
                        : op == Canned::ReadCapacity ? SDSendScsiReadCapacityCmd(handle, &ti, buf, size, sense, sense_size)
                                                     : SDSendScsiReportLunsCmd(handle, &ti, buf, size, sense, sense_size);
    t.lun = ti.LUN;
    return st;
}

json scsi_failure(Context& ctx, const SelectedPort& port, const std::string& what, uint32_t status,
                  const uint8_t* sense, uint32_t sense_size) {
    scsi::Sense s{};
    bool with_sense = false;
    if (status == SDM_STATUS_SCSI_CHECK_CONDITION)
        if (const auto decoded = scsi::decode_sense(sense, sense_size)) {
            s = *decoded;
            with_sense = true;
        }
    const std::string detail = with_sense ? fmt::format(" (sense key {:x}h {}, ASC {:02x}h ASCQ {:02x}h)", s.key,
                                                        scsi::sense_key_name(s.key), s.asc, s.ascq)
                                          : "";
    json error = ctx.partial(fmt::format("port {}: {}{}", port.instance, what, detail), status);
    if (with_sense)
        error["sense"] = {{"key", s.key}, {"asc", s.asc}, {"ascq", s.ascq}};
    return error;
}

}  // namespace vxcli
