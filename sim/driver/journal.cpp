#include "journal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "sys.h"

namespace vxsim::drv {

std::string journal_line(uint64_t seq, long pid, std::string_view ep, const JournalFields& fields) {
    JournalFields line = JournalFields::object();
    line["seq"] = seq;
    line["pid"] = pid;
    line["ep"] = std::string(ep);
    if (fields.is_object())
        for (const auto& [key, value] : fields.items())
            if (key != "seq" && key != "pid" && key != "ep")
                line[key] = value;
    // Requests carry raw command text; never let a bad byte stop the line.
    return line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

uint64_t journal_append(const std::string& journal_path, const std::string& seq_path, std::string_view ep,
                        const JournalFields& fields) {
    sys::Locked counter(seq_path, O_RDWR | O_CREAT);
    if (!counter.ok())
        return 0;
    std::string text;
    uint64_t seq = 0;
    if (sys::read_all(counter.fd(), text))
        seq = std::strtoull(text.c_str(), nullptr, 10);
    ++seq;
    std::string line = journal_line(seq, static_cast<long>(::getpid()), ep, fields) + "\n";

    sys::Fd fd(sys::open(journal_path.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644));
    if (!fd.ok())
        return 0;
    if (sys::write(fd.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        return 0;
    std::string next = std::to_string(seq) + "\n";
    sys::replace_content(counter.fd(), next.data(), next.size());
    return seq;
}

std::string errno_name(int err) {
    switch (err) {
    case EPERM: return "EPERM";
    case ENOENT: return "ENOENT";
    case EINTR: return "EINTR";
    case EIO: return "EIO";
    case ENXIO: return "ENXIO";
    case EBADF: return "EBADF";
    case EAGAIN: return "EAGAIN";
    case ENOMEM: return "ENOMEM";
    case EACCES: return "EACCES";
    case EFAULT: return "EFAULT";
    case EBUSY: return "EBUSY";
    case ENODEV: return "ENODEV";
    case EINVAL: return "EINVAL";
    case ENOTTY: return "ENOTTY";
    case EFBIG: return "EFBIG";
    case ENOSPC: return "ENOSPC";
    case ENOSYS: return "ENOSYS";
    case EOPNOTSUPP: return "EOPNOTSUPP";
    case ETIMEDOUT: return "ETIMEDOUT";
    case EMSGSIZE: return "EMSGSIZE";
    case ENOMSG: return "ENOMSG";
    case EBADR: return "EBADR";
    default: return std::to_string(err);
    }
}

void journal_result(JournalFields& fields, long result) {
    if (result >= 0)
        fields["result"] = result;
    else
        fields["errno"] = errno_name(static_cast<int>(-result));
}

std::string hex32(uint32_t v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%08x", v);
    return buf;
}

std::string hex_digits(uint64_t v, int digits) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%0*llx", digits, static_cast<unsigned long long>(v));
    return buf;
}

std::string hex_bytes(const uint8_t* p, size_t n) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string s;
    s.reserve(n * 2);
    for (size_t i = 0; i < n; ++i) {
        s += DIGITS[p[i] >> 4];
        s += DIGITS[p[i] & 0xF];
    }
    return s;
}

}  // namespace vxsim::drv
