// Small file-system helpers shared by the tree writer, the runner and the
// test harness. All report failure as false with a one-line reason.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace vxsim::fs {

// An owned descriptor.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd(Fd&& o) noexcept : fd_(o.release()) {}
    Fd& operator=(Fd&& o) noexcept;
    ~Fd() { reset(); }
    int get() const { return fd_; }
    bool ok() const { return fd_ >= 0; }
    int release() {
        int f = fd_;
        fd_ = -1;
        return f;
    }
    void reset();

private:
    int fd_ = -1;
};

// "<what>: <path>: <strerror(errno)>"
std::string errno_text(std::string_view what, std::string_view path);

// Creates `dir` and its missing parents with mode 0755.
bool make_dirs(const std::string& dir, std::string& error);
// Creates or replaces `path` with `data`; a new file gets `mode` exactly
// (whatever the umask), an existing one keeps its mode.
bool write_file(const std::string& path, std::string_view data, mode_t mode, std::string& error);
bool read_file(const std::string& path, std::string& out, std::string& error);
// Removes a directory tree without following symlinks. A missing path is fine.
bool remove_tree(const std::string& path, std::string& error);
bool is_dir(const std::string& path);
bool exists(const std::string& path);  // lstat: dangling links exist too
// True when `dir` is missing or an empty directory.
bool is_empty_dir(const std::string& dir);
// realpath(3) as a string; empty on failure.
std::string real_path(const std::string& path);

}  // namespace vxsim::fs
