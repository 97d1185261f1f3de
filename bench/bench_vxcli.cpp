// What an operator waits for: one whole `vxcli list` process (load,
// discovery, shared database, listing, unload) in the default simulated
// host, with real sleeps, so that a wait in the unload shows as it would on
// a real host.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "bench_sim.h"

namespace {

using vxbench::in_host;

void BM_VxcliList(benchmark::State& state) {
    if (!in_host(state))
        return;
#ifndef VXCLI_BIN
    state.SkipWithError("built without vxcli");
#else
    if (getenv("VXSIM_SLEEP_SCALE")) {
        state.SkipWithError("needs real sleeps (vxsim run --real-sleep)");
        return;
    }
    for (auto _ : state) {
        const pid_t pid = fork();
        if (pid == 0) {
            const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
            execl(VXCLI_BIN, "vxcli", "list", static_cast<char*>(nullptr));
            _exit(127);
        }
        int status = 0;
        if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("vxcli list failed");
            return;
        }
    }
#endif
}
BENCHMARK(BM_VxcliList)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    return vxbench::main(argc, argv, VX_SCENARIOS "/default.json", {"--real-sleep"});
}
