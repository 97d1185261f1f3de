// Shared database: the mapped file that every process of the library shares,
// and the semaphores that guard it.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "vx_core.h"
#include "vx_event.h"
#include "vx_sddbg.h"

char vx_db_fname[VX_DB_FNAME_LEN] = "/tmp/vx_shared.dat";

uint32_t api_library_instance = VX_LIBINST_SLOTS;  // none yet
uint8_t api_use_database = 1;
int api_shm_fildes = -1;
vxapi_shared_t* api_shared_data;
int api_dbupdate_sem_id = -1;
int api_thread_sem_id = -1;
int api_flash_sem_id = -1;
int api_dbg_sem_id = -1;

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
    if (!S_ISREG(st.st_mode)) {
        trace_refusal(": not a regular file.");
        return false;
    }
    if (st.st_uid != 0) {
        trace_refusal(": not owned by root.");
        return false;
    }
    if (st.st_nlink != 1) {
        trace_refusal(": it has other hard links.");
        return false;
    }
    return true;
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
                errno = EPERM;
                return -1;
            }
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
            *created = false;
            return fd;
        }
        if (errno != ENOENT) {
            const int err = errno;
            if (err == ELOOP)
                trace_refusal(": it is a symbolic link.");
            else if (err == EISDIR)
                trace_refusal(": it is a directory.");
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

// Takes the first slot not claimed; when all eight are, slot 0 is handed out
// again and the others lose their claim, so that slots of crashed processes
// never lock new ones out.
uint32_t claim_slot(vxapi_shared_t* shared) {
    uint32_t slot = VX_LIBINST_SLOTS;
    for (uint32_t s = 0; s < VX_LIBINST_SLOTS; ++s) {
        if (!(shared->libinst_flags[s] & VX_LIBINST_CLAIMED)) {
            slot = s;
            break;
        }
    }
    if (slot == VX_LIBINST_SLOTS) {
        for (uint32_t s = 1; s < VX_LIBINST_SLOTS; ++s)
            shared->libinst_flags[s] &= ~VX_LIBINST_CLAIMED;
        slot = 0;
        vxdbg_line(VXDBG_CRITICAL | DB_TRACE, "libvxsdm: INFO - Assigning lib instance number to 0.");
    }
    shared->libinst_flags[slot] |= VX_LIBINST_HELD | VX_LIBINST_CLAIMED;
    memset(&shared->hbaptevq[slot], 0, sizeof shared->hbaptevq[slot]);
    return slot;
}

// True when the file name still names the file open on `fd`, so that a
// file put in its place is never removed.
bool names_our_file(int fd) {
    struct stat mine {}, named {};
    return fstat(fd, &mine) == 0 && lstat(vx_db_fname, &named) == 0 && mine.st_dev == named.st_dev &&
           mine.st_ino == named.st_ino;
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

    if (api_dbupdate_sem_id == -1) {
        api_dbupdate_sem_id = vxapi_sem_get(VX_SEM_KEY_DBUPDATE);
        if (api_dbupdate_sem_id == -1) {
            const int err = errno;
            vxdbg_num(VXDBG_CRITICAL | DB_ERROR,
                      "libvxsdm: WARNING - semget function not supported.\n"
                      "  Each adapter instance should be opened at most one time. errno=",
                      static_cast<uint64_t>(err), VXDBG_DEC, 1);
            errno = err;
            return 1;
        }
    }

    vxapi_shared_t* shared = nullptr;
    unique_fd file;
    {
        vxapi_sem_hold hold(api_dbupdate_sem_id);
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
        api_library_instance = claim_slot(shared);
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
    const bool slot_valid = slot < VX_LIBINST_SLOTS;
    uint32_t count = 0;
    bool sems_deleted = false;
    if (api_dbupdate_sem_id != -1 && slot_valid && api_shared_data) {
        vxapi_sem_wait(api_dbupdate_sem_id);
        count = vxapi_get_total_libinst_count();
        if (count > 1)
            vxdbg_num(DB_TRACE, "vxapi_close_database, this is not last instance. load_inst=", slot, VXDBG_DEC, 1);
        api_shared_data->libinst_flags[slot] &= ~(VX_LIBINST_HELD | VX_LIBINST_CLAIMED);
        vxapi_clear_evqs(slot);
        msync(api_shared_data, VX_SHARED_FILE_SIZE, MS_SYNC);
        // A process already waiting for the lock is about to use the file:
        // the semaphores stay for it.
        if (count <= 1 && semctl(api_dbupdate_sem_id, 0, GETNCNT) == 0) {
            vxapi_sem_signal(api_dbupdate_sem_id);
            vxapi_sem_del(api_dbupdate_sem_id);
            api_dbupdate_sem_id = -1;
            if (api_flash_sem_id != -1) {
                vxapi_sem_del(api_flash_sem_id);
                api_flash_sem_id = -1;
            }
            sems_deleted = true;
        } else {
            vxapi_sem_signal(api_dbupdate_sem_id);
        }
    }

    const bool remove_file = slot_valid && count == 1 && sems_deleted && fd >= 0 && names_our_file(fd);
    int result = 0;
    if (api_shared_data) {
        munmap(api_shared_data, VX_SHARED_FILE_SIZE);
        api_shared_data = nullptr;
    }
    if (fd >= 0 && close(fd) != 0)
        result = 1;
    api_shm_fildes = -1;
    api_library_instance = VX_LIBINST_SLOTS;
    if (remove_file && unlink(vx_db_fname) != 0) {
        vxdbg_num(DB_ERROR, "vxapi_close_database: Unable to remove shared data file. errno=",
                  static_cast<uint64_t>(errno), VXDBG_DEC, 1);
        result = 1;
    }
    vxdbg_num(DB_TRACE, "vxapi_close_database: exiting. ret=", static_cast<uint64_t>(result), VXDBG_DEC, 1);
    return result;
}
