// `vxsim run`: a simulated host of its own for one command.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "model.h"

namespace vxsim {

struct RunOptions {
    std::string root;                  // the sim root, an absolute real path
    std::vector<std::string> command;  // argv of the command
    std::string preload;               // the driver emulation library
    bool real_sleep = false;
    // Not root: the host also gets a user namespace in which the caller is
    // root (no device nodes can be made there).
    bool user_namespace = false;
    std::optional<uint32_t> euid;      // VXSIM_EUID for the command
    // When set, the root is an empty directory: the host gets a tmpfs there
    // and this scenario is built into it inside the namespace.
    const Scenario* build = nullptr;
};

// The line printed (after "vxsim: ") when the host cannot give us mount
// namespaces; the test harness recognises it to skip.
inline constexpr const char* NEEDS_ROOT = "needs root and mount namespaces";

// Checks what can be checked before touching anything: root or user
// namespaces, mount and IPC namespaces. false with the reason.
bool can_run(std::string& reason);

// Runs the command in private mount and IPC namespaces over the sim root and
// returns its exit status (128 + signal when killed). Setup failures print
// one line and return 2; a command that cannot be executed returns 127.
int run_in_sim(const RunOptions& o);

// The environment the command gets, from the current one.
std::vector<std::string> sim_environment(const RunOptions& o, char** env);

}  // namespace vxsim
