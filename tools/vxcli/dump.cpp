#include "dump.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace vxcli {

namespace {

std::string dump_line(const uint8_t* bytes, size_t n, uint64_t at) {
    std::string hex, text;
    for (size_t i = 0; i < 16; ++i) {
        hex += i < n ? fmt::format("{:02x} ", bytes[i]) : "   ";
        if (i == 7)
            hex += ' ';
        if (i < n)
            text += bytes[i] >= 0x20 && bytes[i] < 0x7f ? static_cast<char>(bytes[i]) : '.';
    }
    return fmt::format("{:08x}  {} |{}|\n", at, hex, text);
}

bool write_all(int fd, const uint8_t* p, size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

std::string hex_dump(const uint8_t* data, size_t size, uint64_t offset) {
    std::string out;
    bool starred = false;
    for (size_t i = 0; i < size; i += 16) {
        const size_t n = std::min<size_t>(16, size - i);
        // As hexdump -C: a full line equal to the one before is folded into "*".
        if (i != 0 && n == 16 && std::memcmp(data + i, data + i - 16, 16) == 0) {
            if (!starred)
                out += "*\n";
            starred = true;
            continue;
        }
        starred = false;
        out += dump_line(data + i, n, offset + i);
    }
    if (size != 0)
        out += fmt::format("{:08x}\n", offset + size);
    return out;
}

std::string write_output(const std::string& path, const void* data, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    if (path == "-")
        return write_all(STDOUT_FILENO, bytes, size) ? "" : fmt::format("standard output: {}", std::strerror(errno));
    std::string temp = path + ".XXXXXX";
    const int fd = ::mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0)
        return fmt::format("{}: {}", path, std::strerror(errno));
    const mode_t mask = ::umask(0);  // a new file gets the usual 0666 & ~umask, not mkstemp's 0600
    ::umask(mask);
    bool ok = ::fchmod(fd, 0666 & ~mask) == 0 && write_all(fd, bytes, size) && ::fsync(fd) == 0;
    const int err = errno;
    ok = ::close(fd) == 0 && ok;
    if (ok && ::rename(temp.c_str(), path.c_str()) == 0)
        return "";
    const int reason = ok ? errno : err;
    ::unlink(temp.c_str());
    return fmt::format("{}: {}", path, std::strerror(reason));
}

}  // namespace vxcli
