// Port selection and the ports a command has open. Ports are named on the
// command line by instance (as `list` numbers them), by WWPN or by SCSI host.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vsdmgt.h"

namespace vxcli {

class Context;

// One PORT argument, parsed: "3", "21:00:00:1d:5a:01:40:17",
// "0x2100001d5a014017" or "host7".
struct PortSelector {
    enum Kind { Instance, Wwpn, Host } kind = Instance;
    uint64_t value = 0;
};
std::optional<PortSelector> parse_port(const std::string& text);
// The words a bad PORT argument is answered with.
inline constexpr const char* PORT_FORMS =
    "an instance (0, 1, ...), a WWPN (21:00:00:1d:5a:01:40:17 or 0x2100001d5a014017) or a SCSI host (host7)";

// A port the command works on, opened.
struct SelectedPort {
    uint32_t instance = 0;
    int handle = 0;
    std::optional<unsigned> host;  // the SCSI host, when sysfs names it
};

// Keeps the ports open while a command runs; closing the last one unloads
// the library, so they are closed together at the end.
class PortSession {
public:
    PortSession() = default;
    ~PortSession();
    PortSession(const PortSession&) = delete;
    PortSession& operator=(const PortSession&) = delete;

    // Opens one instance; 0 or the SD status of the failure.
    uint32_t open(uint32_t instance, int* handle);

private:
    std::vector<int> handles_;
};

// Resolves the command's PORT arguments (every port when a command that
// takes any number got none) into ctx.ports(), opened. Failures go to the
// context: a bad argument is a usage error, a port that matches nothing
// EXIT_NO_ADAPTERS, a library that did not load EXIT_LIBRARY, a port that
// did not open EXIT_PARTIAL (and is left out).
void select_ports(Context& ctx);

// Why the library found no port: none there, or it did not load.
void explain_no_ports(Context& ctx);

// SCSI host numbers of the FC ports, from /sys/class/fc_host: the library's
// records do not carry them.
struct FcHost {
    unsigned host = 0;
    uint64_t wwpn = 0;
};
const std::vector<FcHost>& fc_hosts();
std::optional<unsigned> host_of(uint64_t wwpn);

uint64_t wwn_value(const uint8_t* wwn);

// Text of an SD status, e.g. "Invalid handle (0x20000065)".
std::string status_text(uint32_t status);

}  // namespace vxcli
