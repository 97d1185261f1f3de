// The commands, one file each (cmd_<name>.cpp). A new command adds its
// function here and one line to the table in commands.cpp.
#pragma once

#include "cli.h"

namespace vxcli {

Command list_command();
Command show_command();
Command targets_command();
Command luns_command();
Command report_command();
Command flash_layout_command();
Command flash_read_command();
Command flash_write_command();
Command inquiry_command();
Command readcap_command();
Command reportluns_command();
Command nameserver_command();
Command stats_command();
Command events_command();
Command metrics_command();
Command params_command();
Command version_command();
Command nvram_command();
Command vpd_command();

}  // namespace vxcli
