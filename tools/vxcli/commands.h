// The per-port commands: show, targets, luns. Each returns the exit code.
#pragma once

#include <cstdint>

namespace vxcli {

enum Exit : int {
    EXIT_OK = 0,
    EXIT_USAGE = 1,
    EXIT_NO_ADAPTERS = 2,  // none found, or no port with that instance number
    EXIT_LIBRARY = 3,
    EXIT_PARTIAL = 4,      // a port did not open or a query failed; what was read is shown
};

int run_show(uint32_t instance, bool json);
int run_targets(uint32_t instance, bool json);
int run_luns(uint32_t instance, bool json);

// Prints "vxcli: <text>" on standard error.
void error_line(const char* text);

// Tells why no port was found (none, or the library did not load).
int explain_no_ports();

}  // namespace vxcli
