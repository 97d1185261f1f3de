// Raw system calls for the emulation's own file work. Inside the preload the
// libc names open/read/write/... are our own interposers, so the emulation
// reaches its state files through syscall() and never re-enters itself.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vxsim::drv::sys {

inline int open(const char* path, int flags, mode_t mode = 0) {
    return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags | O_CLOEXEC, mode));
}
inline int close(int fd) { return static_cast<int>(::syscall(SYS_close, fd)); }
inline ssize_t pread(int fd, void* buf, size_t n, off_t off) {
    return ::syscall(SYS_pread64, fd, buf, n, off);
}
inline ssize_t pwrite(int fd, const void* buf, size_t n, off_t off) {
    return ::syscall(SYS_pwrite64, fd, buf, n, off);
}
inline ssize_t write(int fd, const void* buf, size_t n) { return ::syscall(SYS_write, fd, buf, n); }
inline int ftruncate(int fd, off_t len) { return static_cast<int>(::syscall(SYS_ftruncate, fd, len)); }

// An owned descriptor.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd(Fd&& o) noexcept : fd_(o.release()) {}
    Fd& operator=(Fd&& o) noexcept {
        if (this != &o) {
            reset();
            fd_ = o.release();
        }
        return *this;
    }
    ~Fd() { reset(); }
    int get() const { return fd_; }
    bool ok() const { return fd_ >= 0; }
    int release() {
        int f = fd_;
        fd_ = -1;
        return f;
    }
    void reset() {
        if (fd_ >= 0)
            sys::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

// An exclusive flock held for the life of the object (released on close).
class Locked {
public:
    // Opens (creating when asked) and locks `path`; ok() is false on failure with errno set.
    Locked(const std::string& path, int flags) : fd_(sys::open(path.c_str(), flags, 0644)) {
        if (fd_.ok() && ::flock(fd_.get(), LOCK_EX) != 0)
            fd_.reset();
    }
    bool ok() const { return fd_.ok(); }
    int fd() const { return fd_.get(); }

private:
    Fd fd_;
};

// Whole-file helpers over an open descriptor; false with errno set on failure.
bool read_all(int fd, std::vector<uint8_t>& out);
bool read_all(int fd, std::string& out);
bool pread_full(int fd, void* buf, size_t n, uint64_t off);
bool pwrite_full(int fd, const void* buf, size_t n, uint64_t off);
// Replaces the file's content (truncate, then write from offset 0).
bool replace_content(int fd, const void* buf, size_t n);
// Creates `dir` and its parents (mode 0755); true when it exists afterwards.
bool make_dirs(const std::string& dir);
// Size of the file behind `fd`, or -1.
int64_t file_size(int fd);

}  // namespace vxsim::drv::sys
