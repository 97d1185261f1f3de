// End-to-end tests in simulated hosts.
//
//   SIM_TEST(Suite, Name, "default.json") { ...body... }
//
// declares a GoogleTest test whose body runs inside a fresh simulated host
// built from the scenario (a file of sim/scenarios, or inline JSON text when
// the string starts with '{'). Outside a simulated host the test runs its own
// binary again through `vxsim run ... -- <this binary> --gtest_filter=<test>`
// and passes when that run exits 0, printing the run's output otherwise.
// Hosts that cannot run the simulator (no root, no mount namespaces) skip the
// test, unless VXSIM_REQUIRE=1 is set: then it fails.
//
// Set VXSIM_KEEP=1 to keep each test's sim root (its path is printed).
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "model.h"

namespace vxsim::test {

// Called first in a SIM_TEST: true outside (the test was run in a simulated
// host and its result recorded), false inside (run the body).
bool run_outside(const char* scenario);

// Inside a simulated host.
bool inside();
const std::string& sim_root();            // VXSIM_ROOT
const Scenario& scenario();           // the host's resolved scenario

// Whole files; a missing file fails the current test and yields "".
std::string read_text(const std::string& path);
std::vector<uint8_t> read_bytes(const std::string& path);
// State files by what they hold.
std::vector<uint8_t> flash_image(const std::string& adapter_id);
std::vector<uint8_t> nvram_image(uint32_t host_no);  // ports whose NVRAM lives outside the flash
std::vector<uint8_t> vpd_image(uint32_t host_no);

// The request journal's entries, optionally of one endpoint ("ep").
std::vector<nlohmann::json> journal(const std::string& endpoint = "");
// Arms a fault: the next `count` requests of `endpoint` matching `match`
// fail with `action` (count -1: every one).
void arm_fault(const std::string& endpoint, const std::string& match, const std::string& action, int count = 1);

struct Output {
    int status = -1;   // exit status, 128 + signal when killed
    std::string text;  // stdout and stderr, interleaved
};
// Runs a program (searched in PATH) and collects its output.
Output run(const std::vector<std::string>& argv);
// Runs vxsim with these arguments.
Output run_vxsim(const std::vector<std::string>& args);

// Starts n processes in this simulated host (forked: same namespaces, same
// preload, same root); child i runs fn(i) and exits with its result. Returns
// the exit statuses in order. GoogleTest assertions do not cross the fork:
// children report through their result.
std::vector<int> run_children(int n, const std::function<int(int)>& fn);

// Bytes as lower-case hex digits, and as one big-endian number.
std::string hex(const void* p, size_t n);
uint64_t be(const uint8_t* p, size_t n);

// Where things are, as built.
std::string vxsim_binary();
std::string scenario_dir();

}  // namespace vxsim::test

#define VXSIM_TEST_BODY_(Suite, Name) Suite##_##Name##_SimBody

#define SIM_TEST(Suite, Name, Scenario)                         \
    static void VXSIM_TEST_BODY_(Suite, Name)();                \
    TEST(Suite, Name) {                                         \
        if (::vxsim::test::run_outside(Scenario))               \
            return;                                             \
        VXSIM_TEST_BODY_(Suite, Name)();                        \
    }                                                           \
    static void VXSIM_TEST_BODY_(Suite, Name)()
