// What another user left under the library's fixed names, which the library
// refuses to use: the commands that remove it, for vxcli's error line.
#pragma once

#include <string>

namespace vxcli {

// "" when nothing is in the way; else e.g. "ipcrm -S 0x0000033d; rm /tmp/vx_shared.dat".
std::string foreign_leftovers();

}  // namespace vxcli
