// Helpers shared by the library's end-to-end tests (inside a simulated host).
#pragma once

#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "simtest.h"
#include "vsdmgt.h"

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

// A process of this host that takes the flash-update token through port
// `instance`, then waits to be killed. Its pid (which is the token), or -1.
inline pid_t start_token_holder(SD_UINT32 instance) {
    int pipefd[2];
    if (pipe(pipefd) != 0)
        return -1;
    const pid_t holder = fork();
    if (holder == 0) {
        int h = 0;
        SD_UINT32 token = 0;
        const char ok = SDGetNumberOfAdapters() > instance && SDOpenDevice(instance, &h) == 0 &&
                                SDStartFlashUpdate(h, 0, &token) == 0
                            ? 'y'
                            : 'n';
        (void)!write(pipefd[1], &ok, 1);
        pause();
        _exit(0);
    }
    char ok = 'n';
    const bool started = holder > 0 && read(pipefd[0], &ok, 1) == 1 && ok == 'y';
    close(pipefd[0]);
    close(pipefd[1]);
    return started ? holder : -1;
}

}  // namespace vxsim::test
