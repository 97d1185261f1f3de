#include "state.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "exioct.h"
#include "fsutil.h"
#include "root.h"

namespace vxsim::state {
namespace {

using nlohmann::json;

// The file opened and exclusively locked; the driver emulation locks the
// same file (not a side file) when it consumes a fault.
class LockedFile {
public:
    LockedFile(const std::string& path, std::string& error)
        : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644)) {
        if (!fd_.ok())
            error = fs::errno_text("open", path);
        else if (::flock(fd_.get(), LOCK_EX) != 0) {
            error = fs::errno_text("lock", path);
            fd_.reset();
        }
    }
    bool ok() const { return fd_.ok(); }

    bool read(std::string& out, std::string& error, const std::string& path) {
        out.clear();
        char buf[8192];
        off_t off = 0;
        for (;;) {
            ssize_t n = ::pread(fd_.get(), buf, sizeof buf, off);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0) {
                error = fs::errno_text("read", path);
                return false;
            }
            if (n == 0)
                return true;
            out.append(buf, static_cast<size_t>(n));
            off += n;
        }
    }

    bool replace(const std::string& text, std::string& error, const std::string& path) {
        if (::ftruncate(fd_.get(), 0) != 0) {
            error = fs::errno_text("truncate", path);
            return false;
        }
        size_t done = 0;
        while (done < text.size()) {
            ssize_t n = ::pwrite(fd_.get(), text.data() + done, text.size() - done, static_cast<off_t>(done));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                error = fs::errno_text("write", path);
                return false;
            }
            done += static_cast<size_t>(n);
        }
        return true;
    }

private:
    fs::Fd fd_;
};

bool valid_action(const std::string& a) {
    if (a == "ebusy" || a == "enosys" || a == "eio" || a == "short" || a == "refuse" || a == "partial" ||
        a == "foreign")
        return true;
    uint64_t number = 0;
    const size_t prefix = a.rfind("status:", 0) == 0 ? 7 : a.rfind("delay:", 0) == 0 ? 6 : 0;
    return prefix != 0 && parse_number(a.substr(prefix), number) && number <= 0xFFFFFFFFu;
}

bool parse_faults(const std::string& text, std::vector<Fault>& out, std::string& error, const std::string& path) {
    out.clear();
    if (text.find_first_not_of(" \t\r\n") == std::string::npos)
        return true;
    json list = json::parse(text, nullptr, false);
    if (!list.is_array()) {
        error = path + ": not a JSON array";
        return false;
    }
    for (const json& j : list) {
        if (!j.is_object())
            continue;
        Fault f;
        f.endpoint = j.value("endpoint", "");
        f.match = j.value("match", "");
        f.action = j.value("action", "");
        f.count = j.value("count", 1);
        out.push_back(std::move(f));
    }
    return true;
}

std::string faults_text(const std::vector<Fault>& faults) {
    json list = json::array();
    for (const Fault& f : faults)
        list.push_back(fault_to_json(f));
    return list.dump(2) + "\n";
}

}  // namespace

nlohmann::json fault_to_json(const Fault& f) {
    return {{"endpoint", f.endpoint}, {"match", f.match}, {"action", f.action}, {"count", f.count}};
}

bool read_faults(const std::string& root, std::vector<Fault>& out, std::string& error) {
    const std::string path = root::faults(root);
    if (!fs::exists(path)) {
        out.clear();
        return true;
    }
    LockedFile f(path, error);
    std::string text;
    return f.ok() && f.read(text, error, path) && parse_faults(text, out, error, path);
}

bool add_fault(const std::string& root, const Fault& fault, std::string& error) {
    if (!is_fault_endpoint(fault.endpoint)) {
        error = "unknown fault endpoint \"" + fault.endpoint + "\" (" + fault_endpoint_list() + ")";
        return false;
    }
    if (!valid_action(fault.action)) {
        error = "unknown fault action \"" + fault.action +
                "\" (ebusy, enosys, eio, short, refuse, status:<n>, delay:<ms>, foreign)";
        return false;
    }
    if (fault.count == 0 || fault.count < -1) {
        error = "a fault's count is -1 (always) or at least 1";
        return false;
    }
    const std::string path = root::faults(root);
    LockedFile f(path, error);
    std::string text;
    std::vector<Fault> faults;
    if (!f.ok() || !f.read(text, error, path) || !parse_faults(text, faults, error, path))
        return false;
    faults.push_back(fault);
    return f.replace(faults_text(faults), error, path);
}

bool clear_faults(const std::string& root, std::string& error) { return write_faults(root, {}, error); }

bool write_faults(const std::string& root, const std::vector<Fault>& faults, std::string& error) {
    const std::string path = root::faults(root);
    LockedFile f(path, error);
    return f.ok() && f.replace(faults_text(faults), error, path);
}

bool read_clock_offset(const std::string& root, int64_t& out, std::string& error) {
    out = 0;
    const std::string path = root::clock(root);
    if (!fs::exists(path))
        return true;
    std::string text;
    if (!fs::read_file(path, text, error))
        return false;
    out = std::strtoll(text.c_str(), nullptr, 10);
    return true;
}

bool advance_clock(const std::string& root, int64_t seconds, int64_t* now_offset, std::string& error) {
    const std::string path = root::clock(root);
    LockedFile lock(path + ".lock", error);
    int64_t offset = 0;
    if (!lock.ok() || !read_clock_offset(root, offset, error))
        return false;
    offset += seconds;
    const std::string tmp = path + ".new";
    if (!fs::write_file(tmp, std::to_string(offset) + "\n", 0644, error))
        return false;
    if (::rename(tmp.c_str(), path.c_str()) != 0) {
        error = fs::errno_text("rename", path);
        return false;
    }
    if (now_offset)
        *now_offset = offset;
    return true;
}

bool append_event(const std::string& root, const SpoolEvent& e, std::string* name, std::string& error) {
    if (e.kind != "fc" && e.kind != "aen") {
        error = "event kind must be fc or aen";
        return false;
    }
    const std::string dir = root::events(root);
    if (!fs::make_dirs(dir, error))
        return false;
    // The sequence lives in its own locked counter file so that numbers keep
    // growing even after consumers removed the events they took.
    const std::string seq_path = dir + "/.seq";
    LockedFile seq(seq_path, error);
    std::string text;
    if (!seq.ok() || !seq.read(text, error, seq_path))
        return false;
    unsigned long next = std::strtoul(text.c_str(), nullptr, 10) + 1;

    char file[16];
    std::snprintf(file, sizeof file, "%010lu", next);
    const json j = {{"host_no", e.host_no}, {"code", e.code}, {"data", e.data}, {"kind", e.kind}};
    const std::string tmp = dir + "/.new-" + file;
    if (!fs::write_file(tmp, j.dump() + "\n", 0644, error))
        return false;
    if (::rename(tmp.c_str(), (dir + "/" + file).c_str()) != 0) {
        error = fs::errno_text("rename", tmp);
        ::unlink(tmp.c_str());
        return false;
    }
    if (!seq.replace(std::to_string(next) + "\n", error, seq_path))
        return false;
    if (name)
        *name = file;
    return true;
}

bool list_events(const std::string& root, std::vector<std::pair<std::string, SpoolEvent>>& out,
                 std::string& error) {
    out.clear();
    const std::string dir = root::events(root);
    DIR* d = ::opendir(dir.c_str());
    if (!d) {
        if (errno == ENOENT)
            return true;
        error = fs::errno_text("open", dir);
        return false;
    }
    std::vector<std::string> names;
    while (dirent* e = ::readdir(d))
        if (e->d_name[0] != '.')
            names.emplace_back(e->d_name);
    ::closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string& n : names) {
        std::string text;
        if (!fs::read_file(dir + "/" + n, text, error))
            return false;
        json j = json::parse(text, nullptr, false);
        if (!j.is_object()) {
            error = dir + "/" + n + ": not a JSON object";
            return false;
        }
        SpoolEvent ev;
        ev.host_no = j.value("host_no", 0u);
        ev.code = j.value("code", 0u);
        ev.data = j.value("data", 0u);
        ev.kind = j.value("kind", "fc");
        out.emplace_back(n, ev);
    }
    return true;
}

const std::vector<std::string>& event_types() {
    static const std::vector<std::string> types{"lip", "linkup", "linkdown", "lipreset", "rscn", "newtargets",
                                                "unknown"};
    return types;
}

bool event_of_type(const Scenario& s, uint32_t host_no, const std::string& type, uint32_t port_id, SpoolEvent& out,
                   std::string& error) {
    // Type, FC transport code (0: none), firmware code.
    static constexpr struct {
        const char* type;
        uint32_t fc;
        uint32_t firmware;
    } TABLE[] = {
        {"lip", 1, EXT_AEN_LIP},
        {"linkup", 2, EXT_AEN_LINK_UP},
        {"linkdown", 3, EXT_AEN_LINK_DOWN},
        {"lipreset", 4, EXT_AEN_LIP_RESET},
        {"rscn", 5, EXT_AEN_RSCN},
        {"newtargets", 0, EXT_AEN_NEW_TARGETS},
        {"unknown", 0, 0x8FFF},  // a code no interface names
    };
    const Adapter* adapter = nullptr;
    for (const Adapter& a : s.adapters)
        for (const PciFunction& f : a.functions) {
            if (f.port.host_no == host_no)
                adapter = &a;
            for (const HostPort& v : f.vports)
                if (v.host_no == host_no)
                    adapter = &a;
        }
    if (!adapter) {
        error = "no host " + std::to_string(host_no) + " in the scenario";
        return false;
    }
    for (const auto& row : TABLE) {
        if (type != row.type)
            continue;
        out = SpoolEvent{};
        out.host_no = host_no;
        const bool transport = adapter->channel == Channel::Sysfs && row.fc != 0;
        out.kind = transport ? "fc" : "aen";
        out.code = transport ? row.fc : row.firmware;
        out.data = type == "rscn" ? port_id & 0xFFFFFF : 0;
        return true;
    }
    error = "unknown event type \"" + type + "\"";
    return false;
}

bool read_journal(const std::string& root, std::vector<JournalLine>& out, std::string& error) {
    out.clear();
    const std::string path = root::journal(root);
    if (!fs::exists(path))
        return true;
    std::string text;
    if (!fs::read_file(path, text, error))
        return false;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(pos, end - pos);
        pos = end + 1;
        if (line.empty())
            continue;
        json j = json::parse(line, nullptr, false);
        out.push_back({j.is_discarded() ? json(line) : std::move(j), std::move(line)});
    }
    return true;
}

}  // namespace vxsim::state
