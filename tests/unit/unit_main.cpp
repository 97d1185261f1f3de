// Entry of the core unit tests: isolates System V IPC before any test runs.
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "unit_support.h"

bool vx_test_ipc_private = false;

std::string capture_stderr(const std::function<void()>& fn) {
    fflush(stderr);
    char path[] = "/tmp/vxsdm-stderr-XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0)
        return "<mkstemp failed>";
    unlink(path);
    const int saved = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    fn();
    fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string out;
    lseek(fd, 0, SEEK_SET);
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(n));
    close(fd);
    return out;
}

std::string make_temp_dir() {
    char path[] = "/tmp/vxsdm-unit-XXXXXX";
    return mkdtemp(path) ? std::string(path) : std::string();
}

void remove_tree(const std::string& dir) {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    // The library's semaphores have fixed keys: give the tests their own.
    vx_test_ipc_private = unshare(CLONE_NEWIPC) == 0;
    return RUN_ALL_TESTS();
}
