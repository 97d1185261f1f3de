#include "fsutil.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace vxsim::fs {

Fd& Fd::operator=(Fd&& o) noexcept {
    if (this != &o) {
        reset();
        fd_ = o.release();
    }
    return *this;
}

void Fd::reset() {
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

std::string errno_text(std::string_view what, std::string_view path) {
    std::string s(what);
    s += ": ";
    s += path;
    s += ": ";
    s += std::strerror(errno);
    return s;
}

bool make_dirs(const std::string& dir, std::string& error) {
    if (dir.empty())
        return true;
    struct stat st {};
    if (::stat(dir.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode))
            return true;
        errno = ENOTDIR;
        error = errno_text("mkdir", dir);
        return false;
    }
    size_t slash = dir.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && !make_dirs(dir.substr(0, slash), error))
        return false;
    if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
        error = errno_text("mkdir", dir);
        return false;
    }
    return true;
}

namespace {
// The process umask, read without changing it (umask(2) cannot only read,
// and setting it back races with other threads).
mode_t current_umask() {
    static const mode_t mask = [] {
        std::string status, err;
        if (!read_file("/proc/self/status", status, err))
            return static_cast<mode_t>(0777);
        size_t at = status.find("Umask:");
        return at == std::string::npos ? static_cast<mode_t>(0777)
                                       : static_cast<mode_t>(std::strtoul(status.c_str() + at + 6, nullptr, 8));
    }();
    return mask;
}
}  // namespace

bool write_file(const std::string& path, std::string_view data, mode_t mode, std::string& error) {
    Fd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, mode));
    if (!fd.ok()) {
        error = errno_text("create", path);
        return false;
    }
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd.get(), data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            error = errno_text("write", path);
            return false;
        }
        done += static_cast<size_t>(n);
    }
    // Big trees are made of small files: skip the chmod where umask took nothing.
    if ((mode & current_umask()) != 0 && ::fchmod(fd.get(), mode) != 0) {
        error = errno_text("chmod", path);
        return false;
    }
    return true;
}

bool read_file(const std::string& path, std::string& out, std::string& error) {
    out.clear();
    Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.ok()) {
        error = errno_text("open", path);
        return false;
    }
    char buf[65536];
    for (;;) {
        ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            error = errno_text("read", path);
            return false;
        }
        if (n == 0)
            return true;
        out.append(buf, static_cast<size_t>(n));
    }
}

namespace {
int remove_one(const char* path, const struct stat*, int type, struct FTW*) {
    int rc = type == FTW_DP ? ::rmdir(path) : ::unlink(path);
    return rc == 0 || errno == ENOENT ? 0 : -1;
}
}  // namespace

bool remove_tree(const std::string& path, std::string& error) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0)
        return errno == ENOENT ? true : (error = errno_text("stat", path), false);
    // Overlay work directories are created mode 000; we run as root, but keep
    // the walk from depending on permission bits all the same.
    if (::nftw(path.c_str(), remove_one, 32, FTW_DEPTH | FTW_PHYS | FTW_MOUNT) != 0) {
        error = errno_text("remove", path);
        return false;
    }
    return true;
}

bool is_dir(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

bool is_empty_dir(const std::string& dir) {
    DIR* d = ::opendir(dir.c_str());
    if (!d)
        return errno == ENOENT;
    bool empty = true;
    while (dirent* e = ::readdir(d)) {
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) {
            empty = false;
            break;
        }
    }
    ::closedir(d);
    return empty;
}

std::string real_path(const std::string& path) {
    char buf[PATH_MAX];
    return ::realpath(path.c_str(), buf) ? std::string(buf) : std::string();
}

}  // namespace vxsim::fs
