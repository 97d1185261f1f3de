#include "commands.h"

namespace vxcli {

const std::vector<Command>& commands() {
    static const std::vector<Command> table = {
        list_command(),
        show_command(),
        targets_command(),
        luns_command(),
        nvram_command(),
        vpd_command(),
        report_command(),
        flash_layout_command(),
        flash_read_command(),
        flash_write_command(),
        inquiry_command(),
        readcap_command(),
        reportluns_command(),
        nameserver_command(),
        stats_command(),
        events_command(),
        metrics_command(),
        params_command(),
        version_command(),
    };
    return table;
}

}  // namespace vxcli
