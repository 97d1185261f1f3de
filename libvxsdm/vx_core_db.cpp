// Shared database: the mapped file that every process of the library shares,
// and the semaphores that guard it.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "vx_core.h"
#include "vx_event.h"
#include "vx_ipc_trust.h"
#include "vx_sddbg.h"

char vx_db_fname[VX_DB_FNAME_LEN] = "/tmp/vx_shared.dat";

uint32_t api_library_instance = VX_LIBINST_SLOTS;  // none yet
uint8_t api_use_database = 1;
int api_shm_fildes = -1;
vxapi_shared_t* api_shared_data;
std::atomic<int> api_dbupdate_sem_id{-1};
std::atomic<int> api_thread_sem_id{-1};
std::atomic<int> api_flash_sem_id{-1};
std::atomic<int> api_dbg_sem_id{-1};

namespace {

constexpr uint32_t DB_TRACE = VXDBG_TRACE | VXDBG_EVENT;
constexpr uint32_t DB_ERROR = VXDBG_ERROR | VXDBG_EVENT;
constexpr mode_t DB_MODE = 0644;

// Traces `text` with the errno value and hands the value back unchanged
// (tracing may itself touch errno).
int trace_errno(const char* text, int err) {
    vxdbg_num(DB_ERROR, "vxapi_open_database: ", 0, VXDBG_NONE, 0);
    vxdbg_num(DB_ERROR, text, static_cast<uint64_t>(err), VXDBG_DEC, 1);
    return err;
}

void trace_refusal(const char* why) {
    if (vxdbg_on(DB_ERROR | VXDBG_CRITICAL)) {
        vxdbg_print("vxapi_open_database: refusing ", 0, VXDBG_NONE, 0);
        vxdbg_print(vx_db_fname, 0, VXDBG_NONE, 0);
        vxdbg_print(why, 0, VXDBG_NONE, 1);
    }
}

class unique_fd {
public:
    explicit unique_fd(int fd = -1) : fd_(fd) {}
    ~unique_fd() {
        if (fd_ >= 0)
            close(fd_);
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    int get() const { return fd_; }
    void reset(int fd) {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

struct free_deleter {
    void operator()(void* p) const { free(p); }
};
using zeroed_image = std::unique_ptr<uint8_t[], free_deleter>;

bool write_all(int fd, const uint8_t* buf, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = write(fd, buf + done, size - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (n == 0)
                errno = EIO;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool read_all(int fd, uint8_t* buf, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = read(fd, buf + done, size - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (n == 0)
                errno = EIO;  // the file shrank under us
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// The file lives in a world-writable directory, so only a plain file of
// root's with no other name is trusted. Anything else is left untouched.
bool trusted(int fd) {
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        trace_refusal(": cannot stat it.");
        return false;
    }
    if (vx_shared_file_trusted(st))
        return true;
    if (!S_ISREG(st.st_mode))
        trace_refusal(": not a regular file. Remove it if no library client runs.");
    else if (st.st_uid != 0)
        trace_refusal(": not owned by root. Remove it if no library client runs.");
    else
        trace_refusal(": it has other hard links. Remove it if no library client runs.");
    return false;
}

// Opens the existing file or creates it exclusively. Never follows a
// symbolic link. Returns the descriptor or -1 with errno.
int open_shared_file(bool* created) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        // O_NONBLOCK and O_NOCTTY keep a planted fifo or device from
        // blocking us or becoming our terminal before it is refused.
        int fd = open(vx_db_fname, O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
        if (fd >= 0) {
            if (!trusted(fd)) {
                close(fd);
                errno = EACCES;
                return -1;
            }
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
            *created = false;
            return fd;
        }
        if (errno != ENOENT) {
            const int err = errno;
            if (err == ELOOP)
                trace_refusal(": it is a symbolic link. Remove it if no library client runs.");
            else if (err == EISDIR)
                trace_refusal(": it is a directory. Remove it if no library client runs.");
            else
                trace_errno("Unable to open shared data file. errno=", err);
            errno = err;
            return -1;
        }
        fd = open(vx_db_fname, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, DB_MODE);
        if (fd >= 0) {
            fchmod(fd, DB_MODE);  // whatever the caller's umask
            *created = true;
            return fd;
        }
        if (errno != EEXIST) {
            errno = trace_errno("Unable to create shared data file. errno=", errno);
            return -1;
        }
        // Someone made it between our two opens: use theirs.
    }
    errno = EEXIST;
    return -1;
}

// Grows a file written by an older library to the full size, keeping its
// bytes at the start.
bool upgrade(int fd, size_t old_size) {
    zeroed_image image(static_cast<uint8_t*>(calloc(1, VX_SHARED_FILE_SIZE)));
    if (!image) {
        errno = trace_errno("Unable to alloc new shared data buf. errno=", errno);
        return false;
    }
    if (!read_all(fd, image.get(), old_size)) {
        errno = trace_errno("Unable to read shared data file. errno=", errno);
        return false;
    }
    if (lseek(fd, 0, SEEK_SET) != 0) {
        errno = trace_errno("Unable to seek to beginning of shared data file. errno=", errno);
        return false;
    }
    if (!write_all(fd, image.get(), VX_SHARED_FILE_SIZE)) {
        errno = trace_errno("Unable to upgrade shared data file. errno=", errno);
        return false;
    }
    if (fsync(fd) != 0) {
        errno = trace_errno("fsync failed for existing file. errno=", errno);
        return false;
    }
    vxdbg_line(DB_TRACE, "vxapi_open_database: done upgrading shared data file.");
    return true;
}

// Fills a new file with zeros; on failure the half-made file is removed.
bool initialise(int fd) {
    zeroed_image image(static_cast<uint8_t*>(calloc(1, VX_SHARED_FILE_SIZE)));
    int err = 0;
    if (!image)
        err = trace_errno("Unable to alloc new shared data buf. errno=", errno);
    else if (!write_all(fd, image.get(), VX_SHARED_FILE_SIZE))
        err = trace_errno("Unable to write completely to shared data file. errno=", errno);
    else if (fsync(fd) != 0)
        err = trace_errno("fsync failed. errno=", errno);
    if (err == 0)
        return true;
    if (unlink(vx_db_fname) != 0)
        trace_errno("Unable to remove shared data file. errno=", errno);
    errno = err;
    return false;
}

constexpr uint32_t SLOT_IN_USE = VX_LIBINST_HELD | VX_LIBINST_CLAIMED | VX_LIBINST_RESERVED;

bool same_owner(const vxapi_libinst_owner& a, const vxapi_libinst_owner& b) {
    return a.pid == b.pid && a.start_time == b.start_time;
}

bool has_live_owner(const vxapi_shared_t* shared, uint32_t slot, vxapi_owner_alive_fn alive) {
    for (const vxapi_libinst_owner& o : shared->libinst_owner)
        if (o.pid != 0 && o.slot == slot && alive(o))
            return true;
    return false;
}

void forget(vxapi_libinst_owner& o) {
    o.pid = 0;
    o.slot = 0;
    o.start_time = 0;
}

void free_slot(vxapi_shared_t* shared, uint32_t slot) {
    shared->libinst_flags[slot] &= ~(VX_LIBINST_HELD | VX_LIBINST_CLAIMED);
    memset(&shared->hbaptevq[slot], 0, sizeof shared->hbaptevq[slot]);
}

// Decimal digits of `value` at `out`; returns the end. Signal-safe.
char* put_decimal(char* out, uint32_t value) {
    char digits[10];
    int n = 0;
    do {
        digits[n++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (n > 0)
        *out++ = digits[--n];
    return out;
}

// State and start time of a process from /proc. 0, or ENOENT when it does
// not exist, or another errno when /proc cannot tell. Signal-safe.
int proc_stat(uint32_t pid, char* state, uint64_t* start_time) {
    char path[32] = "/proc/";
    char* end = put_decimal(path + 6, pid);
    memcpy(end, "/stat", 6);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT || errno == ESRCH ? ENOENT : errno;
    char text[1024];
    ssize_t n;
    do {
        n = read(fd, text, sizeof text);
    } while (n < 0 && errno == EINTR);
    const int err = n < 0 ? errno : 0;
    close(fd);
    if (n < 0)
        return err == ESRCH ? ENOENT : err;  // gone between open and read
    return vxapi_parse_proc_stat(text, static_cast<size_t>(n), state, start_time) == 0 ? 0 : EIO;
}

}  // namespace

int vxapi_parse_proc_stat(const char* text, size_t len, char* state, uint64_t* start_time) {
    // The command name (field 2) is in parentheses and may hold blanks and
    // parentheses itself: the fields after it start after the last ')'.
    size_t at = len;
    for (size_t i = len; i > 0; --i) {
        if (text[i - 1] == ')') {
            at = i;
            break;
        }
    }
    if (at == len)
        return 1;
    // Fields 3 to 22, each after one blank.
    uint64_t value = 0;
    int field = 2;
    bool digits = false;
    for (size_t i = at; i < len; ++i) {
        const char c = text[i];
        if (c == ' ' || c == '\n') {
            if (field == 22)
                break;
            ++field;
            value = 0;
            digits = false;
            continue;
        }
        if (field == 3 && i > 0 && text[i - 1] == ' ')
            *state = c;
        if (field == 22) {
            if (c < '0' || c > '9' || value > (UINT64_MAX - 9) / 10)
                return 1;
            value = value * 10 + static_cast<uint64_t>(c - '0');
            digits = true;
        }
    }
    if (field != 22 || !digits)
        return 1;
    *start_time = value;
    return 0;
}

bool vxapi_owner_alive(const vxapi_libinst_owner& owner) {
    char state = '?';
    uint64_t start = 0;
    const int err = proc_stat(owner.pid, &state, &start);
    if (err == ENOENT)
        return false;
    if (err != 0)
        return true;  // /proc cannot tell: never take a slot from a client that may live
    // A zombie has ended; a different start time is another process with a reused pid.
    return state != 'Z' && state != 'X' && (owner.start_time == 0 || start == owner.start_time);
}

vxapi_libinst_owner vxapi_self_owner() {
    vxapi_libinst_owner self{};
    self.pid = static_cast<uint32_t>(getpid());
    char state = '?';
    uint64_t start = 0;
    if (proc_stat(self.pid, &state, &start) == 0)
        self.start_time = start;
    return self;
}

uint32_t vxapi_reclaim_dead_slots(vxapi_shared_t* shared, vxapi_owner_alive_fn alive) {
    bool recorded[VX_LIBINST_SLOTS] = {};
    bool live[VX_LIBINST_SLOTS] = {};
    for (vxapi_libinst_owner& o : shared->libinst_owner) {
        if (o.pid == 0)
            continue;
        if (o.slot >= VX_LIBINST_SLOTS) {  // not a record this library writes
            forget(o);
            continue;
        }
        recorded[o.slot] = true;
        if (alive(o))
            live[o.slot] = true;
        else
            forget(o);
    }
    uint32_t freed = 0;
    for (uint32_t s = 0; s < VX_LIBINST_SLOTS; ++s) {
        if (recorded[s] && !live[s] && (shared->libinst_flags[s] & (VX_LIBINST_HELD | VX_LIBINST_CLAIMED))) {
            free_slot(shared, s);
            ++freed;
        }
    }
    return freed;
}

// Takes the first slot not claimed, preferring one that no live process
// shares; when all eight are claimed, slot 0 is handed out again and the
// others lose their claim, so that a slot whose owner cannot be told dead
// (an older library's) never locks new clients out.
uint32_t vxapi_claim_slot(vxapi_shared_t* shared, const vxapi_libinst_owner& self, vxapi_owner_alive_fn alive) {
    const uint32_t freed = vxapi_reclaim_dead_slots(shared, alive);
    if (freed != 0)
        vxdbg_num(DB_TRACE, "vxapi_open_database: slots of ended processes reclaimed=", freed, VXDBG_DEC, 1);
    for (vxapi_libinst_owner& o : shared->libinst_owner)
        if (o.pid != 0 && same_owner(o, self))
            forget(o);

    uint32_t slot = VX_LIBINST_SLOTS, shared_slot = VX_LIBINST_SLOTS;
    for (uint32_t s = 0; s < VX_LIBINST_SLOTS && slot == VX_LIBINST_SLOTS; ++s) {
        if (shared->libinst_flags[s] & VX_LIBINST_CLAIMED)
            continue;
        if (!has_live_owner(shared, s, alive))
            slot = s;
        else if (shared_slot == VX_LIBINST_SLOTS)
            shared_slot = s;  // lost its claim to a ninth process, but its owner lives
    }
    if (slot == VX_LIBINST_SLOTS)
        slot = shared_slot;
    if (slot == VX_LIBINST_SLOTS) {
        for (uint32_t s = 1; s < VX_LIBINST_SLOTS; ++s)
            shared->libinst_flags[s] &= ~VX_LIBINST_CLAIMED;
        slot = 0;
        vxdbg_line(VXDBG_CRITICAL | DB_TRACE, "libvxsdm: INFO - Assigning lib instance number to 0.");
    }
    // The owner first: a process killed between the two steps leaves a
    // record that the next client reclaims, never a claim without owner.
    bool recorded = false;
    for (vxapi_libinst_owner& o : shared->libinst_owner) {
        if (o.pid == 0) {
            o.slot = slot;
            o.start_time = self.start_time;
            o.pid = self.pid;
            recorded = true;
            break;
        }
    }
    if (!recorded)
        vxdbg_line(DB_ERROR, "vxapi_open_database: owner table full; slot owner not recorded.");
    shared->libinst_flags[slot] |= VX_LIBINST_HELD | VX_LIBINST_CLAIMED;
    memset(&shared->hbaptevq[slot], 0, sizeof shared->hbaptevq[slot]);
    return slot;
}

void vxapi_release_slot(vxapi_shared_t* shared, uint32_t slot, const vxapi_libinst_owner& self,
                        vxapi_owner_alive_fn alive) {
    if (slot >= VX_LIBINST_SLOTS)
        return;
    // The claim first, the owner record last (see vxapi_claim_slot).
    bool shared_with_live = false;
    for (const vxapi_libinst_owner& o : shared->libinst_owner)
        if (o.pid != 0 && o.slot == slot && !same_owner(o, self) && alive(o))
            shared_with_live = true;
    if (!shared_with_live)
        free_slot(shared, slot);
    for (vxapi_libinst_owner& o : shared->libinst_owner)
        if (o.pid != 0 && same_owner(o, self))
            forget(o);
}

uint32_t vxapi_count_other_clients(const vxapi_shared_t* shared, const vxapi_libinst_owner& self,
                                   vxapi_owner_alive_fn alive) {
    uint32_t count = 0;
    bool recorded[VX_LIBINST_SLOTS] = {};
    for (const vxapi_libinst_owner& o : shared->libinst_owner) {
        if (o.pid == 0 || o.slot >= VX_LIBINST_SLOTS)
            continue;
        recorded[o.slot] = true;
        if (!same_owner(o, self) && alive(o))
            ++count;
    }
    for (uint32_t s = 0; s < VX_LIBINST_SLOTS; ++s)
        if (!recorded[s] && (shared->libinst_flags[s] & SLOT_IN_USE))
            ++count;
    return count;
}

namespace {

// True when the file name still names the file open on `fd`, so that a
// file put in its place is never removed.
bool names_our_file(int fd) {
    struct stat mine {}, named {};
    return fstat(fd, &mine) == 0 && lstat(vx_db_fname, &named) == 0 && mine.st_dev == named.st_dev &&
           mine.st_ino == named.st_ino;
}

// This process in the owner table while its slot is valid.
vxapi_libinst_owner self_owner;

// Removes the flash lock, if it is one we would use. Signal-safe.
void remove_flash_set() {
    api_flash_sem_id = -1;
    const int id = semget(VX_SEM_KEY_FLASH, 1, 0);
    struct semid_ds ds {};
    union {
        int val;
        struct semid_ds* buf;
    } arg{};
    arg.buf = &ds;
    if (id != -1 && semctl(id, 0, IPC_STAT, arg) == 0 && vx_sem_set_trusted(ds, geteuid()))
        semctl(id, 0, IPC_RMID);
}

// Gives the slot back under the held database lock; when no other client is
// left and nobody waits for the lock, removes the file and the flash lock
// and returns true: the caller then removes the database lock it holds.
// Signal-safe. `unlink_err` receives the errno of a failed removal.
bool leave_database(vxapi_shared_t* shared, uint32_t slot, int fd, int lock_id, uint32_t* others, int* unlink_err) {
    vxapi_release_slot(shared, slot, self_owner, vxapi_owner_alive);
    vxapi_reclaim_dead_slots(shared, vxapi_owner_alive);
    *others = vxapi_count_other_clients(shared, self_owner, vxapi_owner_alive);
    *unlink_err = 0;
    // A process already waiting for the lock is about to use the file: the
    // semaphores stay for it.
    if (*others != 0 || semctl(lock_id, 0, GETNCNT) != 0)
        return false;
    // Removed while the lock is held, so that whoever takes the lock next
    // makes a new file instead of joining this one. A live flash-update
    // token is a lock too (its holder may have died mid-update): the file
    // that holds it stays until it expires.
    if (fd >= 0 && names_our_file(fd) && !vxapi_fut_any_live(shared->fut, time(nullptr)) &&
        unlink(vx_db_fname) != 0)
        *unlink_err = errno;
    remove_flash_set();
    return true;
}

}  // namespace

void vxapi_clear_evqs(uint32_t slot) {
    if (api_shared_data && slot < VX_LIBINST_SLOTS)
        memset(&api_shared_data->hbaptevq[slot], 0, sizeof api_shared_data->hbaptevq[slot]);
}

int vxapi_open_database(int* fd_out) {
    vxdbg_line(DB_TRACE, "vxapi_open_database: entered.");
    if (api_dbupdate_sem_id != -1 && api_shm_fildes >= 0 && api_shared_data) {
        if (fd_out)
            *fd_out = api_shm_fildes;
        vxapi_ev_terminate = 0;
        vxdbg_line(DB_TRACE, "vxapi_open_database: already opened. vxapi_ev_terminate FALSE.");
        return 0;
    }

    vxapi_shared_t* shared = nullptr;
    unique_fd file;
    {
        vxapi_sem_hold hold(api_dbupdate_sem_id, VX_SEM_KEY_DBUPDATE);
        if (!hold.held()) {
            const int err = errno;
            if (err == EACCES)  // the refused set was named by vxapi_sem_get
                vxdbg_line(VXDBG_CRITICAL | DB_ERROR, "vxapi_open_database: database lock refused.");
            else
                vxdbg_num(VXDBG_CRITICAL | DB_ERROR,
                          "libvxsdm: WARNING - semget function not supported.\n"
                          "  Each adapter instance should be opened at most one time. errno=",
                          static_cast<uint64_t>(err), VXDBG_DEC, 1);
            errno = err;
            return 1;
        }
        bool created = false;
        file.reset(open_shared_file(&created));
        if (file.get() < 0)
            return 1;
        if (created) {
            if (!initialise(file.get()))
                return 1;
        } else {
            struct stat st {};
            if (fstat(file.get(), &st) != 0)
                return 1;
            if (st.st_size < static_cast<off_t>(VX_SHARED_FILE_SIZE) &&
                !upgrade(file.get(), static_cast<size_t>(st.st_size)))
                return 1;
        }
        // The service console cannot share file mappings between processes;
        // each process keeps its own copy there.
        const int sharing = OS_Type == VX_OS_ESX ? MAP_PRIVATE : MAP_SHARED;
        void* map = mmap(nullptr, VX_SHARED_FILE_SIZE, PROT_READ | PROT_WRITE, sharing, file.get(), 0);
        if (map == MAP_FAILED) {
            const int err = errno;
            vxdbg_num(DB_ERROR, "vxapi_open_database: mmap on existing vxsdm.dat failed=",
                      static_cast<uint64_t>(err), VXDBG_DEC, 1);
            errno = err;
            return 1;
        }
        shared = static_cast<vxapi_shared_t*>(map);
        self_owner = vxapi_self_owner();
        api_library_instance = vxapi_claim_slot(shared, self_owner, vxapi_owner_alive);
        msync(shared, VX_SHARED_FILE_SIZE, MS_SYNC);
    }
    vxapi_ev_terminate = 0;
    api_shared_data = shared;
    api_shm_fildes = file.release();
    if (fd_out)
        *fd_out = api_shm_fildes;
    vxdbg_num(DB_TRACE, "vxapi_open_database: library instance=", api_library_instance, VXDBG_DEC, 1);

    if (vxapi_start_event_thread() != 0) {
        vxdbg_line(DB_ERROR, "vxapi_open_database, start_event_thread failed.");
        vxapi_close_database(api_shm_fildes);
        errno = EAGAIN;
        return 1;
    }
    return 0;
}

int vxapi_close_database(int fd) {
    vxdbg_line(DB_TRACE, "vxapi_close_database: entered.");
    if (fd < 0)
        fd = api_shm_fildes;
    vxapi_stop_event_thread();

    const uint32_t slot = api_library_instance;
    int result = 0;
    if (slot < VX_LIBINST_SLOTS && api_shared_data) {
        vxapi_sem_hold hold(api_dbupdate_sem_id, VX_SEM_KEY_DBUPDATE);
        if (hold.held()) {
            uint32_t others = 0;
            int unlink_err = 0;
            const bool last = leave_database(api_shared_data, slot, fd, api_dbupdate_sem_id, &others, &unlink_err);
            if (others != 0)
                vxdbg_num(DB_TRACE, "vxapi_close_database, this is not last instance. load_inst=", slot, VXDBG_DEC,
                          1);
            msync(api_shared_data, VX_SHARED_FILE_SIZE, MS_SYNC);
            if (unlink_err != 0) {
                vxdbg_num(DB_ERROR, "vxapi_close_database: Unable to remove shared data file. errno=",
                          static_cast<uint64_t>(unlink_err), VXDBG_DEC, 1);
                result = 1;
            }
            if (last)
                hold.remove();
        } else {
            // Without the lock the slot is left as it is: its owner record
            // lets the next client reclaim it once this process has ended.
            vxdbg_num(DB_ERROR, "vxapi_close_database: database lock not held; slot left to reclaim. errno=",
                      static_cast<uint64_t>(errno), VXDBG_DEC, 1);
        }
    }

    if (api_shared_data) {
        munmap(api_shared_data, VX_SHARED_FILE_SIZE);
        api_shared_data = nullptr;
    }
    if (fd >= 0 && close(fd) != 0)
        result = 1;
    api_shm_fildes = -1;
    api_library_instance = VX_LIBINST_SLOTS;
    vxdbg_num(DB_TRACE, "vxapi_close_database: exiting. ret=", static_cast<uint64_t>(result), VXDBG_DEC, 1);
    return result;
}

void vxapi_abandon_database() {
    vxapi_shared_t* shared = api_shared_data;
    const uint32_t slot = api_library_instance;
    if (!shared || slot >= VX_LIBINST_SLOTS)
        return;
    // Bounded: a process on its way out must not hang on another one. On a
    // time-out the slot stays recorded and the next client reclaims it.
    const auto lock = [](int id) {
        struct sembuf op {};
        op.sem_num = 0;
        op.sem_op = -1;
        op.sem_flg = SEM_UNDO;
        struct timespec limit {};
        limit.tv_nsec = 500 * 1000 * 1000;
        return id != -1 && semtimedop(id, &op, 1, &limit) == 0;
    };
    int id = api_dbupdate_sem_id;
    if (!lock(id)) {
        if (errno != EINVAL && errno != EIDRM)
            return;
        id = semget(VX_SEM_KEY_DBUPDATE, 1, 0);
        if (!lock(id))
            return;
    }
    uint32_t others = 0;
    int unlink_err = 0;
    if (leave_database(shared, slot, api_shm_fildes, id, &others, &unlink_err)) {
        semctl(id, 0, IPC_RMID);
    } else {
        struct sembuf op {};
        op.sem_num = 0;
        op.sem_op = 1;
        op.sem_flg = SEM_UNDO;
        semop(id, &op, 1);
    }
    api_library_instance = VX_LIBINST_SLOTS;
}
