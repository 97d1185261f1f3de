// The driver side of the "optrom_ctl"/"optrom" attribute pair, and the
// "nvram"/"vpd" attributes: byte windows over the adapter's state files.
//
// optrom_ctl commands (text, a trailing NUL or newline ignored; offsets and
// sizes in hexadecimal):
//   "0"        close: drop the staging buffer, back to idle
//   "1"        stage the whole flash for reading
//   "1:o:s"    stage flash bytes [o, o+s) for reading
//   "2"        prepare to write the whole flash (staging buffer of zeros)
//   "2:o:s"    prepare to write flash bytes [o, o+s)
//   "3"        commit: the staging buffer goes into the flash at o
//   "4"        probe: drivers that take partial commands reject it
//
// State table (per adapter; rows are states, columns commands):
//            | "0"  | "1[:o:s]"  | "2[:o:s]"  | "3"                | "4"
//   idle     | idle | read o,s   | write o,s  | EINVAL             | answer
//   read o,s | idle | read o',s' | write o',s'| EINVAL             | answer
//   write o,s| idle | EBUSY      | EBUSY      | flash updated,     | answer
//            |      |            |            | stays write o,s    |
// "answer" is EINVAL when the adapter takes partial commands, else success;
// it never changes the state. Ranges must be non-empty and lie inside the
// flash (EINVAL otherwise). An adapter without partial commands takes a
// range only when it is the whole flash (0:size), which is what a whole-flash
// region read or write sends. Unknown texts fail with EINVAL.
//
// optrom reads return staged bytes from the descriptor's position in the read
// state, 0 (end of file) in the others. optrom writes fill the staging buffer
// in the write state (clipped to its size; at or past its end EFBIG) and fail
// with EINVAL in the others. Nothing reaches the flash before "3".
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vxsim::drv {

struct OptromCommand {
    enum Op { Close = 0, Read = 1, Write = 2, Commit = 3, Probe = 4 } op = Close;
    bool ranged = false;
    uint64_t offset = 0;
    uint64_t size = 0;
};

// Parses an optrom_ctl text; nullopt for anything the driver does not know.
std::optional<OptromCommand> parse_optrom_command(std::string_view text);

// The command text as the journal shows it: trailing NULs and line ends dropped.
std::string_view optrom_command_text(std::string_view raw);

enum class OptromState { Idle, Read, Write };

struct OptromStatus {
    OptromState state = OptromState::Idle;
    uint64_t offset = 0;
    uint64_t size = 0;
};

const char* optrom_state_name(OptromState s);

// One adapter's optrom state machine. The state and the staging buffer live
// in files (`<state_dir>/<adapter>.state`, `.stage`) guarded by flock, so
// every process of one simulated host sees the same machine. Results follow
// the kernel's convention: >= 0 success, -errno failure.
class OptromDevice {
public:
    OptromDevice(std::string state_dir, std::string adapter_id, std::string flash_path, bool partial_flash);

    // `partial`: a commit stops after half the staged bytes and fails (EIO).
    int control(std::string_view text, bool partial = false);
    ssize_t read(uint64_t pos, void* buf, size_t n);
    ssize_t write(uint64_t pos, const void* buf, size_t n);

    // The current state (idle when nothing was ever staged); nullopt when the
    // state file cannot be read.
    std::optional<OptromStatus> status() const;

    const std::string& state_path() const { return state_path_; }
    const std::string& stage_path() const { return stage_path_; }

private:
    int apply(int state_fd, const OptromCommand& cmd, bool partial);

    std::string state_dir_;
    std::string flash_path_;
    std::string state_path_;
    std::string stage_path_;
    bool partial_flash_;
};

// A byte window of a state file as a binary attribute shows it: `size` bytes
// from `offset` (size 0: the whole file). Reads at or past the end return 0,
// writes there fail with EFBIG, transfers crossing the end are clipped. The
// file is flock'ed during each transfer (the flash file is shared with the
// optrom commits).
struct ImageWindow {
    std::string path;
    uint64_t offset = 0;
    uint64_t size = 0;
};

ssize_t image_read(const ImageWindow& w, uint64_t pos, void* buf, size_t n);
// The whole flash of an adapter as a window.
inline ImageWindow flash_window(const std::string& flash_path) { return ImageWindow{flash_path, 0, 0}; }
ssize_t image_write(const ImageWindow& w, uint64_t pos, const void* buf, size_t n);

}  // namespace vxsim::drv
