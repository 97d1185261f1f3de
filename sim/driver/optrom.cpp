#include "optrom.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <charconv>
#include <vector>

#include "sys.h"

namespace vxsim::drv {

namespace {

// Transfers through the staging file go in pieces of this size at most.
constexpr size_t COPY_CHUNK = 1 << 20;

std::optional<uint64_t> parse_hex(std::string_view s) {
    if (s.starts_with("0x") || s.starts_with("0X"))
        s.remove_prefix(2);
    uint64_t v = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v, 16);
    if (s.empty() || ec != std::errc() || end != s.data() + s.size())
        return std::nullopt;
    return v;
}

std::optional<OptromStatus> load_status(int fd) {
    std::string text;
    if (!sys::read_all(fd, text))
        return std::nullopt;
    OptromStatus st;
    if (text.empty())
        return st;
    nlohmann::json j = nlohmann::json::parse(text, nullptr, false);
    if (!j.is_object() || !j.contains("state") || !j["state"].is_string())
        return std::nullopt;
    std::string name = j["state"].get<std::string>();
    if (name == "idle")
        return st;
    if (name == "read")
        st.state = OptromState::Read;
    else if (name == "write")
        st.state = OptromState::Write;
    else
        return std::nullopt;
    if (!j.contains("offset") || !j["offset"].is_number_unsigned() || !j.contains("size") ||
        !j["size"].is_number_unsigned())
        return std::nullopt;
    st.offset = j["offset"].get<uint64_t>();
    st.size = j["size"].get<uint64_t>();
    return st;
}

bool store_status(int fd, const OptromStatus& st) {
    nlohmann::ordered_json j;
    j["state"] = optrom_state_name(st.state);
    if (st.state != OptromState::Idle) {
        j["offset"] = st.offset;
        j["size"] = st.size;
    }
    std::string text = j.dump() + "\n";
    return sys::replace_content(fd, text.data(), text.size());
}

// Copies `size` bytes between two descriptors in bounded pieces.
bool copy_range(int from, uint64_t from_off, int to, uint64_t to_off, uint64_t size) {
    std::vector<uint8_t> buf(static_cast<size_t>(size < COPY_CHUNK ? size : COPY_CHUNK));
    while (size > 0) {
        size_t n = static_cast<size_t>(size < buf.size() ? size : buf.size());
        if (!sys::pread_full(from, buf.data(), n, from_off) || !sys::pwrite_full(to, buf.data(), n, to_off))
            return false;
        from_off += n;
        to_off += n;
        size -= n;
    }
    return true;
}

int neg_errno() { return errno ? -errno : -EIO; }

}  // namespace

std::string_view optrom_command_text(std::string_view raw) {
    while (!raw.empty() && (raw.back() == '\0' || raw.back() == '\n' || raw.back() == '\r'))
        raw.remove_suffix(1);
    return raw;
}

std::optional<OptromCommand> parse_optrom_command(std::string_view text) {
    text = optrom_command_text(text);
    if (text.empty() || text[0] < '0' || text[0] > '4')
        return std::nullopt;
    OptromCommand cmd;
    cmd.op = static_cast<OptromCommand::Op>(text[0] - '0');
    text.remove_prefix(1);
    if (text.empty())
        return cmd;
    // Only reads and writes take a range.
    if (text[0] != ':' || (cmd.op != OptromCommand::Read && cmd.op != OptromCommand::Write))
        return std::nullopt;
    text.remove_prefix(1);
    size_t colon = text.find(':');
    if (colon == std::string_view::npos)
        return std::nullopt;
    auto offset = parse_hex(text.substr(0, colon));
    auto size = parse_hex(text.substr(colon + 1));
    if (!offset || !size)
        return std::nullopt;
    cmd.ranged = true;
    cmd.offset = *offset;
    cmd.size = *size;
    return cmd;
}

const char* optrom_state_name(OptromState s) {
    switch (s) {
    case OptromState::Read: return "read";
    case OptromState::Write: return "write";
    case OptromState::Idle: break;
    }
    return "idle";
}

OptromDevice::OptromDevice(std::string state_dir, std::string adapter_id, std::string flash_path,
                           bool partial_flash)
    : state_dir_(std::move(state_dir)),
      flash_path_(std::move(flash_path)),
      state_path_(state_dir_ + "/" + adapter_id + ".state"),
      stage_path_(state_dir_ + "/" + adapter_id + ".stage"),
      partial_flash_(partial_flash) {}

std::optional<OptromStatus> OptromDevice::status() const {
    sys::Fd fd(sys::open(state_path_.c_str(), O_RDONLY));
    if (!fd.ok())
        return errno == ENOENT ? std::optional<OptromStatus>(OptromStatus{}) : std::nullopt;
    if (::flock(fd.get(), LOCK_SH) != 0)
        return std::nullopt;
    return load_status(fd.get());
}

int OptromDevice::control(std::string_view text, bool partial) {
    std::optional<OptromCommand> cmd = parse_optrom_command(text);
    if (!cmd)
        return -EINVAL;
    if (!sys::make_dirs(state_dir_))
        return neg_errno();
    sys::Locked lock(state_path_, O_RDWR | O_CREAT);
    if (!lock.ok())
        return neg_errno();
    return apply(lock.fd(), *cmd, partial);
}

int OptromDevice::apply(int state_fd, const OptromCommand& cmd, bool partial) {
    std::optional<OptromStatus> cur = load_status(state_fd);
    if (!cur)
        return -EIO;

    if (cmd.op == OptromCommand::Probe)
        return partial_flash_ ? -EINVAL : 0;

    if (cmd.op == OptromCommand::Close) {
        sys::Fd stage(sys::open(stage_path_.c_str(), O_RDWR | O_CREAT, 0644));
        if (!stage.ok() || sys::ftruncate(stage.get(), 0) != 0)
            return neg_errno();
        return store_status(state_fd, OptromStatus{}) ? 0 : neg_errno();
    }

    // Everything else needs the flash, locked against nvram/vpd writers.
    sys::Locked flash(flash_path_, O_RDWR);
    if (!flash.ok())
        return -EIO;
    int64_t flash_size = sys::file_size(flash.fd());
    if (flash_size <= 0)
        return -EIO;
    auto fsize = static_cast<uint64_t>(flash_size);

    if (cmd.op == OptromCommand::Commit) {
        if (cur->state != OptromState::Write)
            return -EINVAL;
        if (cur->offset + cur->size > fsize)
            return -EIO;  // the flash shrank under a pending write: refuse to grow it
        sys::Fd stage(sys::open(stage_path_.c_str(), O_RDONLY));
        if (!stage.ok() || sys::file_size(stage.get()) != static_cast<int64_t>(cur->size))
            return -EIO;
        if (partial)  // the part dies halfway through the programming
            return copy_range(stage.get(), 0, flash.fd(), cur->offset, cur->size / 2) ? -EIO : neg_errno();
        return copy_range(stage.get(), 0, flash.fd(), cur->offset, cur->size) ? 0 : neg_errno();
    }

    // Read or write preparation.
    if (cur->state == OptromState::Write)
        return -EBUSY;
    OptromStatus next;
    next.offset = cmd.ranged ? cmd.offset : 0;
    next.size = cmd.ranged ? cmd.size : fsize;
    if (cmd.ranged) {
        if (next.size == 0 || next.offset > fsize || next.size > fsize - next.offset)
            return -EINVAL;
        if (!partial_flash_ && (next.offset != 0 || next.size != fsize))
            return -EINVAL;
    }
    sys::Fd stage(sys::open(stage_path_.c_str(), O_RDWR | O_CREAT, 0644));
    if (!stage.ok() || sys::ftruncate(stage.get(), 0) != 0)
        return neg_errno();
    if (cmd.op == OptromCommand::Read) {
        if (!copy_range(flash.fd(), next.offset, stage.get(), 0, next.size))
            return neg_errno();
        next.state = OptromState::Read;
    } else {
        // A fresh buffer reads as zeros, so a short fill shows in the flash.
        if (sys::ftruncate(stage.get(), static_cast<off_t>(next.size)) != 0)
            return neg_errno();
        next.state = OptromState::Write;
    }
    return store_status(state_fd, next) ? 0 : neg_errno();
}

ssize_t OptromDevice::read(uint64_t pos, void* buf, size_t n) {
    sys::Fd fd(sys::open(state_path_.c_str(), O_RDONLY));
    if (!fd.ok())
        return errno == ENOENT ? 0 : neg_errno();
    if (::flock(fd.get(), LOCK_SH) != 0)
        return neg_errno();
    std::optional<OptromStatus> st = load_status(fd.get());
    if (!st)
        return -EIO;
    if (st->state != OptromState::Read || pos >= st->size || n == 0)
        return 0;
    size_t count = static_cast<size_t>(n < st->size - pos ? n : st->size - pos);
    sys::Fd stage(sys::open(stage_path_.c_str(), O_RDONLY));
    if (!stage.ok() || !sys::pread_full(stage.get(), buf, count, pos))
        return -EIO;
    return static_cast<ssize_t>(count);
}

ssize_t OptromDevice::write(uint64_t pos, const void* buf, size_t n) {
    sys::Fd fd(sys::open(state_path_.c_str(), O_RDONLY));
    if (!fd.ok())
        return errno == ENOENT ? -EINVAL : neg_errno();
    // Exclusive: a commit must not see a half-filled piece.
    if (::flock(fd.get(), LOCK_EX) != 0)
        return neg_errno();
    std::optional<OptromStatus> st = load_status(fd.get());
    if (!st)
        return -EIO;
    if (st->state != OptromState::Write)
        return -EINVAL;
    if (pos >= st->size)
        return -EFBIG;
    if (n == 0)
        return 0;
    size_t count = static_cast<size_t>(n < st->size - pos ? n : st->size - pos);
    sys::Fd stage(sys::open(stage_path_.c_str(), O_WRONLY));
    if (!stage.ok() || !sys::pwrite_full(stage.get(), buf, count, pos))
        return -EIO;
    return static_cast<ssize_t>(count);
}

namespace {

// Resolves the window against the file: its real length and the clipped count.
ssize_t clip(const ImageWindow& w, int fd, uint64_t pos, size_t n, bool writing, size_t& count) {
    int64_t fsize = sys::file_size(fd);
    if (fsize < 0)
        return neg_errno();
    uint64_t file_size = static_cast<uint64_t>(fsize);
    uint64_t size = w.size ? w.size : (file_size > w.offset ? file_size - w.offset : 0);
    if (w.offset + size > file_size)
        return -EIO;  // the image does not fit its file: a broken sim root
    if (pos >= size)
        return writing ? -EFBIG : 0;
    count = static_cast<size_t>(n < size - pos ? n : size - pos);
    return 1;
}

}  // namespace

ssize_t image_read(const ImageWindow& w, uint64_t pos, void* buf, size_t n) {
    sys::Locked lock(w.path, O_RDONLY);
    if (!lock.ok())
        return neg_errno();
    size_t count = 0;
    ssize_t r = clip(w, lock.fd(), pos, n, false, count);
    if (r <= 0)
        return r;
    if (count && !sys::pread_full(lock.fd(), buf, count, w.offset + pos))
        return neg_errno();
    return static_cast<ssize_t>(count);
}

ssize_t image_write(const ImageWindow& w, uint64_t pos, const void* buf, size_t n) {
    sys::Locked lock(w.path, O_RDWR);
    if (!lock.ok())
        return neg_errno();
    size_t count = 0;
    ssize_t r = clip(w, lock.fd(), pos, n, true, count);
    if (r <= 0)
        return r;
    if (count && !sys::pwrite_full(lock.fd(), buf, count, w.offset + pos))
        return neg_errno();
    return static_cast<ssize_t>(count);
}

}  // namespace vxsim::drv
