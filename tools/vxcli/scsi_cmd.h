// What the SCSI pass-through commands share: the TARGET and LUN arguments,
// sending a canned command in the address form the target was named in, and
// the failure a SCSI status makes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli.h"

namespace CLI {
class App;
}

namespace vxcli {

// TARGET and [LUN] as the command line gave them.
struct ScsiArgs {
    std::string target;
    unsigned lun = 0;
};
// Adds TARGET and [LUN] (after PORT) to a command.
void add_target_args(CLI::App& app, ScsiArgs& args, bool with_lun);

// A target named by SCSI target id or by port name, and the LUN.
struct ScsiTarget {
    bool by_name = false;
    uint16_t id = 0;
    uint64_t wwpn = 0;
    uint16_t lun = 0;
};
// False (with a usage failure recorded) when TARGET is neither a target id
// (0-65535) nor a WWPN, or the LUN is above 65535.
bool parse_target(Context& ctx, const ScsiArgs& args, ScsiTarget& out);
// {"target": id or "wwpn", "lun": n}
json target_json(const ScsiTarget& t);
// "target 0 LUN 2", "target 50:06:01:60:08:60:1a:00 LUN 2"
std::string target_text(const ScsiTarget& t);

enum class Canned { Inquiry, ReadCapacity, ReportLuns };
// The SD call of `op` in the target's form; `t.lun` comes back as the call left it.
uint32_t send_canned(int handle, Canned op, ScsiTarget& t, void* buf, uint32_t size, uint8_t* sense,
                     uint32_t sense_size);
// A command that did not complete: the partial failure, with the sense a
// check condition brought ("sense": {"key", "asc", "ascq"}) in the JSON form.
json scsi_failure(Context& ctx, const SelectedPort& port, const std::string& what, uint32_t status,
                  const uint8_t* sense, uint32_t sense_size);

}  // namespace vxcli
