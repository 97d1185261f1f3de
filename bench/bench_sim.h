// Benchmarks that measure inside a simulated host start one themselves:
// run outside, the program re-runs itself as `vxsim run --scenario S -- self
// args...` when the build knows where vxsim is.
#pragma once

#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "vx_core.h"

namespace vxbench {

inline bool inside_simulated_host() { return getenv("VXSIM_ROOT") != nullptr; }

// Skips the benchmark (with a reason) when it runs outside a simulated host.
inline bool in_host(benchmark::State& state) {
    if (inside_simulated_host())
        return true;
    state.SkipWithError("needs a simulated host (vxsim run --scenario ... -- <this program>)");
    return false;
}

inline uint32_t port_count() {
    uint32_t count = 0;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&count](vxapi_priv_database*) {
        ++count;
        return true;
    });
    return count;
}

// The whole load (semaphores, discovery, shared file, event thread, netlink,
// control node) and the unload that undoes it, per iteration.
inline void load_unload(benchmark::State& state) {
    if (!in_host(state))
        return;
    uint32_t ports = 0;
    for (auto _ : state) {
        if (vxapi_load_lib() != 0 || !api_priv_database) {
            state.SkipWithError("load failed");
            return;
        }
        ports = port_count();
        vxapi_unload_lib();
    }
    state.counters["ports"] = ports;
}

// A scenario file, or scenario text handed over through an anonymous file.
inline std::string scenario_path(const std::string& file_or_text) {
    if (!file_or_text.starts_with("{"))
        return file_or_text;
    const int fd = memfd_create("bench-scenario", 0);
    if (fd < 0 || write(fd, file_or_text.data(), file_or_text.size()) != static_cast<ssize_t>(file_or_text.size()))
        return {};
    return "/proc/self/fd/" + std::to_string(fd);
}

// Returns only when the program should run its benchmarks here and now.
// `run_flags` go to `vxsim run` (for example --real-sleep).
inline int main(int argc, char** argv, const std::string& scenario, const std::vector<std::string>& run_flags = {}) {
#ifdef VXSIM_BIN
    if (!inside_simulated_host() && access(VXSIM_BIN, X_OK) == 0) {
        char self[4096];
        const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
        std::string file = scenario_path(scenario);
        if (n > 0 && !file.empty()) {
            self[n] = '\0';
            std::vector<char*> args = {const_cast<char*>(VXSIM_BIN), const_cast<char*>("run")};
            for (const std::string& flag : run_flags)
                args.push_back(const_cast<char*>(flag.c_str()));
            for (char* arg : {const_cast<char*>("--scenario"), file.data(), const_cast<char*>("--"), self})
                args.push_back(arg);
            for (int i = 1; i < argc; ++i)
                args.push_back(argv[i]);
            args.push_back(nullptr);
            execv(VXSIM_BIN, args.data());
            perror("cannot run vxsim");
            return 1;
        }
    }
#endif
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace vxbench
