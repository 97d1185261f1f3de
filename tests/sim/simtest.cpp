#include "simtest.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "fsutil.h"
#include "root.h"
#include "state.h"

#ifndef VXSIM_BIN
#error "VXSIM_BIN must name the vxsim executable"
#endif
#ifndef VXSIM_SCENARIO_DIR
#error "VXSIM_SCENARIO_DIR must name sim/scenarios"
#endif

namespace vxsim::test {
namespace {

bool env_is(const char* name, const char* value) {
    const char* v = std::getenv(name);
    return v && std::strcmp(v, value) == 0;
}

int status_of(int wait_status) {
    if (WIFEXITED(wait_status))
        return WEXITSTATUS(wait_status);
    if (WIFSIGNALED(wait_status))
        return 128 + WTERMSIG(wait_status);
    return -1;
}

void skip(const std::string& why) { GTEST_SKIP() << why; }

// An inline scenario travels as an anonymous file that vxsim inherits.
class InlineScenario {
public:
    explicit InlineScenario(const std::string& json) : fd_(::memfd_create("vxsim-scenario", 0)) {
        if (fd_.ok() && ::write(fd_.get(), json.data(), json.size()) == static_cast<ssize_t>(json.size()))
            path_ = "/proc/self/fd/" + std::to_string(fd_.get());
    }
    const std::string& path() const { return path_; }

private:
    fs::Fd fd_;
    std::string path_;
};

}  // namespace

std::string vxsim_binary() { return VXSIM_BIN; }
std::string scenario_dir() { return VXSIM_SCENARIO_DIR; }

bool inside() {
    const char* r = std::getenv(root::ENV_ROOT);
    return r && *r;
}

bool run_outside(const char* scenario) {
    if (inside())
        return false;
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string test = std::string(info->test_suite_name()) + "." + info->name();

    std::string source = scenario;
    std::optional<InlineScenario> inline_json;
    std::string file;
    if (source.starts_with("{")) {
        inline_json.emplace(source);
        file = inline_json->path();
        if (file.empty()) {
            ADD_FAILURE() << "cannot hand the inline scenario to vxsim: " << std::strerror(errno);
            return true;
        }
    } else {
        file = source.starts_with("/") ? source : scenario_dir() + "/" + source;
        if (!file.ends_with(".json"))
            file += ".json";
    }

    std::string self = fs::real_path("/proc/self/exe");
    std::vector<std::string> argv{vxsim_binary(), "run", "--scenario", file};
    bool keep = env_is("VXSIM_KEEP", "1");
    if (keep)
        argv.push_back("--keep");
    argv.insert(argv.end(), {"--", self, "--gtest_filter=" + test, "--gtest_color=no"});
    Output out = run(argv);

    if (out.status == 2 && out.text.find(std::string("vxsim: needs root and mount namespaces")) != std::string::npos) {
        if (env_is("VXSIM_REQUIRE", "1"))
            ADD_FAILURE() << "VXSIM_REQUIRE=1 but the simulator cannot run here:\n" << out.text;
        else
            skip("the simulator cannot run here: " + out.text);
        return true;
    }
    if (out.status != 0)
        ADD_FAILURE() << test << " in a simulated host (" << source.substr(0, 60)
                      << ") exited with status " << out.status << ":\n"
                      << out.text;
    else if (keep)
        std::printf("%s", out.text.c_str());
    return true;
}

const std::string& sim_root() {
    static const std::string r = inside() ? std::getenv(root::ENV_ROOT) : "";
    return r;
}

const Scenario& scenario() {
    static const Scenario s = [] {
        Scenario loaded;
        std::string error;
        if (!load_scenario(root::scenario(sim_root()), loaded, error))
            ADD_FAILURE() << "cannot load the host's scenario: " << error;
        return loaded;
    }();
    return s;
}

std::string read_text(const std::string& path) {
    std::string text, error;
    if (!fs::read_file(path, text, error))
        ADD_FAILURE() << error;
    return text;
}

std::vector<uint8_t> read_bytes(const std::string& path) {
    std::string text = read_text(path);
    return std::vector<uint8_t>(text.begin(), text.end());
}

std::vector<uint8_t> flash_image(const std::string& adapter_id) { return read_bytes(root::flash(sim_root(), adapter_id)); }
std::vector<uint8_t> nvram_image(uint32_t host_no) { return read_bytes(root::nvram(sim_root(), host_no)); }
std::vector<uint8_t> vpd_image(uint32_t host_no) { return read_bytes(root::vpd(sim_root(), host_no)); }

std::vector<nlohmann::json> journal(const std::string& endpoint) {
    std::vector<state::JournalLine> all;
    std::vector<nlohmann::json> out;
    std::string error;
    if (!state::read_journal(sim_root(), all, error))
        ADD_FAILURE() << error;
    for (state::JournalLine& l : all)
        if (endpoint.empty() || (l.record.is_object() && l.record.value("ep", "") == endpoint))
            out.push_back(std::move(l.record));
    return out;
}

void arm_fault(const std::string& endpoint, const std::string& match, const std::string& action, int count) {
    Fault f;
    f.endpoint = endpoint;
    f.match = match;
    f.action = action;
    f.count = count;
    std::string error;
    if (!state::add_fault(sim_root(), f, error))
        ADD_FAILURE() << error;
}

Output run(const std::vector<std::string>& argv) {
    Output out;
    int pipefd[2];
    if (argv.empty() || ::pipe2(pipefd, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "cannot run a program: " << std::strerror(errno);
        return out;
    }
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(pipefd[1], 1);
        ::dup2(pipefd[1], 2);
        std::vector<char*> args;
        for (const std::string& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        ::execvp(args[0], args.data());
        std::fprintf(stderr, "cannot run %s: %s\n", args[0], std::strerror(errno));
        ::_exit(127);
    }
    ::close(pipefd[1]);
    char buf[4096];
    for (;;) {
        ssize_t n = ::read(pipefd[0], buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        out.text.append(buf, static_cast<size_t>(n));
    }
    ::close(pipefd[0]);
    int ws = 0;
    if (pid > 0 && ::waitpid(pid, &ws, 0) == pid)
        out.status = status_of(ws);
    else
        ADD_FAILURE() << "cannot start " << argv[0] << ": " << std::strerror(errno);
    return out;
}

Output run_vxsim(const std::vector<std::string>& args) {
    std::vector<std::string> argv{vxsim_binary()};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv);
}

std::vector<int> run_children(int n, const std::function<int(int)>& fn) {
    std::vector<pid_t> pids;
    std::fflush(nullptr);
    for (int i = 0; i < n; ++i) {
        pid_t pid = ::fork();
        if (pid == 0) {
            int rc = fn(i);
            std::fflush(nullptr);
            ::_exit(rc);
        }
        if (pid < 0)
            ADD_FAILURE() << "fork: " << std::strerror(errno);
        pids.push_back(pid);
    }
    std::vector<int> statuses;
    for (pid_t pid : pids) {
        int ws = 0;
        statuses.push_back(pid > 0 && ::waitpid(pid, &ws, 0) == pid ? status_of(ws) : -1);
    }
    return statuses;
}

std::string hex(const void* p, size_t n) {
    std::string out;
    char two[3];
    for (size_t i = 0; i < n; ++i) {
        snprintf(two, sizeof two, "%02x", static_cast<const uint8_t*>(p)[i]);
        out += two;
    }
    return out;
}

uint64_t be(const uint8_t* p, size_t n) {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i)
        v = v << 8 | p[i];
    return v;
}

}  // namespace vxsim::test
