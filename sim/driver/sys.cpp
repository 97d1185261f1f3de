#include "sys.h"

namespace vxsim::drv::sys {

int64_t file_size(int fd) {
    struct stat st {};
    if (::fstat(fd, &st) != 0)
        return -1;
    return st.st_size;
}

bool pread_full(int fd, void* buf, size_t n, uint64_t off) {
    auto* p = static_cast<uint8_t*>(buf);
    while (n > 0) {
        ssize_t r = sys::pread(fd, p, n, static_cast<off_t>(off));
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0) {
            if (r == 0)
                errno = EIO;  // the file is shorter than its owner says
            return false;
        }
        p += r;
        n -= static_cast<size_t>(r);
        off += static_cast<uint64_t>(r);
    }
    return true;
}

bool pwrite_full(int fd, const void* buf, size_t n, uint64_t off) {
    const auto* p = static_cast<const uint8_t*>(buf);
    while (n > 0) {
        ssize_t r = sys::pwrite(fd, p, n, static_cast<off_t>(off));
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0) {
            if (r == 0)
                errno = EIO;
            return false;
        }
        p += r;
        n -= static_cast<size_t>(r);
        off += static_cast<uint64_t>(r);
    }
    return true;
}

bool read_all(int fd, std::vector<uint8_t>& out) {
    int64_t size = file_size(fd);
    if (size < 0)
        return false;
    out.resize(static_cast<size_t>(size));
    return pread_full(fd, out.data(), out.size(), 0);
}

bool read_all(int fd, std::string& out) {
    int64_t size = file_size(fd);
    if (size < 0)
        return false;
    out.resize(static_cast<size_t>(size));
    return pread_full(fd, out.data(), out.size(), 0);
}

bool replace_content(int fd, const void* buf, size_t n) {
    if (sys::ftruncate(fd, 0) != 0)
        return false;
    return pwrite_full(fd, buf, n, 0);
}

bool make_dirs(const std::string& dir) {
    for (size_t i = 1; i <= dir.size(); ++i) {
        if (i < dir.size() && dir[i] != '/')
            continue;
        std::string part = dir.substr(0, i);
        if (::syscall(SYS_mkdirat, AT_FDCWD, part.c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    }
    struct stat st {};
    return ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace vxsim::drv::sys
