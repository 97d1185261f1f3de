// Shared helpers of the core unit tests.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

// True when main() moved the process into a private IPC namespace, so that
// tests may create and remove the library's fixed-key semaphores.
extern bool vx_test_ipc_private;

// Tests that would touch the host's System V IPC run only in a private
// namespace; under `make test` (VXSIM_REQUIRE=1) not running is a failure.
#define VX_REQUIRE_PRIVATE_IPC()                                                   \
    do {                                                                           \
        if (!vx_test_ipc_private) {                                                \
            if (getenv("VXSIM_REQUIRE"))                                           \
                FAIL() << "needs a private IPC namespace (run as root)";          \
            GTEST_SKIP() << "needs a private IPC namespace (run as root)";         \
        }                                                                          \
    } while (0)

// Runs fn with standard error redirected and returns what it wrote.
std::string capture_stderr(const std::function<void()>& fn);

// A fresh empty directory under the build's temporary area, removed by the caller's TearDown.
std::string make_temp_dir();
void remove_tree(const std::string& dir);
std::string read_file(const std::string& path);
