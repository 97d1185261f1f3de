// Helpers shared by the library's end-to-end tests (inside a simulated host).
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "simtest.h"

namespace vxsim::test {

inline constexpr const char* TRACE_LOG = "/usr/lib/libvxsdm.log";

// The trace lines containing `marker`, without their time stamps: from the
// marker on, or from its end when `strip` is set.
inline std::vector<std::string> trace_lines(const std::string& marker, bool strip = true) {
    std::vector<std::string> lines;
    std::istringstream log(read_text(TRACE_LOG));
    for (std::string line; std::getline(log, line);)
        if (const size_t at = line.find(marker); at != std::string::npos)
            lines.push_back(line.substr(strip ? at + marker.size() : at));
    return lines;
}

// vxcli as built next to vxsim.
inline std::string vxcli_binary() {
    std::string path = vxsim_binary();
    return path.replace(path.rfind("/sim/vxsim"), std::string("/sim/vxsim").size(), "/tools/vxcli/vxcli");
}

}  // namespace vxsim::test
