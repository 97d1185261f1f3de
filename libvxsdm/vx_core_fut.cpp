// Flash-update tokens: while one management process updates an adapter's
// flash online, no other may. The token table lives in the shared file; on
// the service console, where the mapping is private to each process, one
// small file per adapter under /tmp takes its place.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "vx_core.h"
#include "vx_sddbg.h"

char vx_fut_file_prefix[32] = "/tmp/vxfu_";

namespace {

constexpr uint32_t TRC = VXDBG_TRACE;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_TRACE;

uint32_t get_be32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

void put_be32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

bool same_id(const vxapi_flash_update_token& slot, const char* id) {
    return strncmp(slot.serial_num, id, VX_FUT_ID_LEN) == 0;
}

int64_t now() { return static_cast<int64_t>(time(nullptr)); }

// "<fn><text><number>" as one trace line.
void trace(uint32_t guard, const char* fn, const char* text, uint64_t number = 0, uint8_t radix = VXDBG_NONE) {
    if (!vxdbg_on(guard))
        return;
    vxdbg_print(fn, 0, VXDBG_NONE, 0);
    vxdbg_print(text, number, radix, 1);
}

int32_t traced_exit(const char* fn, int32_t rc) {
    trace(rc == 0 ? TRC : ERR, fn, ": exiting. ret=", static_cast<uint64_t>(rc), VXDBG_DEC);
    return rc;
}

// The table of the open shared file, flushed, under the database lock for
// one scope. Empty when the database is not open or its lock cannot be had.
class table_hold {
public:
    explicit table_hold(const char* fn) {
        if (!api_shared_data) {
            trace(ERR, fn, ": shared database not open.");
            return;
        }
        hold_.emplace(api_dbupdate_sem_id, VX_SEM_KEY_DBUPDATE);
        if (!hold_->held()) {
            trace(ERR, fn, ": database lock not held. errno=", static_cast<uint64_t>(errno), VXDBG_DEC);
            return;
        }
        msync(api_shared_data, VX_SHARED_FILE_SIZE, MS_SYNC);
        fut_ = api_shared_data->fut;
    }
    ~table_hold() {
        if (fut_ && written_)
            msync(api_shared_data, VX_SHARED_FILE_SIZE, MS_SYNC);
    }
    table_hold(const table_hold&) = delete;
    table_hold& operator=(const table_hold&) = delete;

    vxapi_flash_update_token* fut() const { return fut_; }
    void written() { written_ = true; }

private:
    std::optional<vxapi_sem_hold> hold_;
    vxapi_flash_update_token* fut_ = nullptr;
    bool written_ = false;
};

// ---- The file store ----

struct fut_file {
    bool present = false;
    uint64_t expiry = 0;
    int32_t owner = 0;
};

bool fut_path(const vxapi_priv_database* inst, char* path, size_t len) {
    char id[VX_FUT_ID_LEN];
    if (vxapi_fut_identity(inst, id, sizeof id) != 0 || strchr(id, '/')) {
        vxdbg_line(ERR, "vxapi_fut: no usable adapter identity for a token file.");
        return false;
    }
    const int n = snprintf(path, len, "%s%s", vx_fut_file_prefix, id);
    return n > 0 && static_cast<size_t>(n) < len;
}

// A token file lies in a world-writable directory: only a plain file of
// ours with one name is believed or changed.
bool trusted_file(int fd, const char* path) {
    struct stat st {};
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == geteuid() && st.st_nlink == 1)
        return true;
    if (vxdbg_on(ERR)) {
        vxdbg_print("vxapi_fut: refusing token file ", 0, VXDBG_NONE, 0);
        vxdbg_print(path, 0, VXDBG_NONE, 0);
        vxdbg_print(": not a plain file of this user. Remove it if no update runs.", 0, VXDBG_NONE, 1);
    }
    return false;
}

int open_fut_file(const char* path, int flags) {
    const int fd = open(path, flags | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0644);
    if (fd < 0) {
        const int err = errno;
        if (err == ELOOP)
            trusted_file(-1, path);  // a symbolic link: traced as refused
        errno = err;
        return -1;
    }
    if (!trusted_file(fd, path)) {
        close(fd);
        errno = EACCES;
        return -1;
    }
    return fd;
}

// Line 1 the expiry ("%llu"), line 2 the owner ("%d"). A file that cannot
// be read reads as absent; a foreign one as refused (false).
bool read_fut_file(const char* path, fut_file* out) {
    *out = fut_file{};
    const int fd = open_fut_file(path, O_RDONLY);
    if (fd < 0)
        return errno == ENOENT;
    char text[64] = {};
    const ssize_t n = read(fd, text, sizeof text - 1);
    close(fd);
    if (n <= 0)
        return true;
    unsigned long long expiry = 0;
    int owner = 0;
    const int got = sscanf(text, "%llu\n%d", &expiry, &owner);
    out->present = got >= 1;
    out->expiry = expiry;
    out->owner = got == 2 ? owner : 0;
    return true;
}

}  // namespace

// ---- Identity and slot records ----

int vxapi_fut_identity(const vxapi_priv_database* inst, char* out, size_t len) {
    if (!out || len == 0)
        return 1;
    out[0] = '\0';
    const vxapi_phy_info* phy = inst ? inst->phy_info : nullptr;
    if (!phy)
        return 1;
    const size_t serial_len = strnlen(reinterpret_cast<const char*>(phy->serial_num), sizeof phy->serial_num);
    int n;
    if (serial_len != 0)
        n = snprintf(out, len, "%.*s", static_cast<int>(serial_len), reinterpret_cast<const char*>(phy->serial_num));
    else
        n = snprintf(out, len, "pci:%04x:%02x:%02x", phy->pci_domain, phy->pci_bus, phy->pci_dev_func >> 3);
    return n > 0 ? 0 : 1;
}

int64_t vxapi_fut_expiry(const vxapi_flash_update_token& slot) {
    uint8_t raw[8];
    memcpy(raw, reinterpret_cast<const uint8_t*>(&slot) + offsetof(vxapi_flash_update_token, valid_time), 8);
    const uint64_t v = static_cast<uint64_t>(get_be32(raw)) << 32 | get_be32(raw + 4);
    return static_cast<int64_t>(v);
}

void vxapi_fut_set_expiry(vxapi_flash_update_token& slot, int64_t seconds) {
    // The high half carries the time's own high bits: before 2038 that is
    // the sign extension of the low half, and after it a token still
    // expires when it should instead of reading as long expired.
    const auto v = static_cast<uint64_t>(seconds);
    uint8_t raw[8];
    put_be32(raw, static_cast<uint32_t>(v >> 32));
    put_be32(raw + 4, static_cast<uint32_t>(v));
    memcpy(reinterpret_cast<uint8_t*>(&slot) + offsetof(vxapi_flash_update_token, valid_time), raw, 8);
}

// ---- The table rules ----

int vxapi_fut_table_live(const vxapi_flash_update_token* fut, const char* id, int64_t t) {
    for (uint32_t i = 0; i < VX_FLASH_TOKENS; ++i)
        if (same_id(fut[i], id) && vxapi_fut_expiry(fut[i]) > t)
            return static_cast<int>(i);
    return -1;
}

int vxapi_fut_table_expired(const vxapi_flash_update_token* fut, const char* id, int64_t t) {
    for (uint32_t i = 0; i < VX_FLASH_TOKENS; ++i)
        if (same_id(fut[i], id) && vxapi_fut_expiry(fut[i]) < t)
            return static_cast<int>(i);
    return -1;
}

bool vxapi_fut_any_live(const vxapi_flash_update_token* fut, int64_t t) {
    for (uint32_t i = 0; i < VX_FLASH_TOKENS; ++i)
        if (fut[i].token != 0 && vxapi_fut_expiry(fut[i]) > t)
            return true;
    return false;
}

int vxapi_fut_table_take(vxapi_flash_update_token* fut, const char* id, int32_t pid, int64_t t) {
    // The adapter's own slot wins over an earlier free one: a second slot
    // with its identity would leave a stale expired entry that refuses the
    // end of the live update.
    int slot = -1;
    for (uint32_t i = 0; i < VX_FLASH_TOKENS; ++i) {
        if (fut[i].token != 0 && same_id(fut[i], id)) {
            slot = static_cast<int>(i);
            break;
        }
        if (fut[i].token == 0 && slot < 0)
            slot = static_cast<int>(i);
    }
    if (slot < 0)
        return -1;
    vxapi_flash_update_token& s = fut[slot];
    s.token = pid;
    memset(s.serial_num, 0, sizeof s.serial_num);
    strncpy(s.serial_num, id, sizeof s.serial_num - 1);
    vxapi_fut_set_expiry(s, t + VX_FUT_LIFETIME);
    return slot;
}

int vxapi_fut_table_clear(vxapi_flash_update_token* fut, const char* id, int32_t token) {
    for (uint32_t i = 0; i < VX_FLASH_TOKENS; ++i) {
        if (fut[i].token != 0 && fut[i].token == token && same_id(fut[i], id)) {
            memset(&fut[i], 0, sizeof fut[i]);
            return static_cast<int>(i);
        }
    }
    return -1;
}

// ---- The token calls ----

namespace {

// The identity and the open table; false (traced) when either is missing.
bool table_call(const char* fn, const vxapi_priv_database* inst, char (&id)[VX_FUT_ID_LEN]) {
    trace(TRC, fn, ": entered.");
    if (vxapi_fut_identity(inst, id, sizeof id) != 0) {
        trace(ERR, fn, ": no adapter record.");
        return false;
    }
    return true;
}

}  // namespace

namespace {

// Runs `op(table, id)` on the open table under the database lock, with the
// adapter's identity; 1 when either cannot be had.
template <typename Op>
int32_t on_table(const char* fn, const vxapi_priv_database* inst, Op op) {
    char id[VX_FUT_ID_LEN];
    if (!table_call(fn, inst, id))
        return 1;
    table_hold table(fn);
    if (!table.fut())
        return 1;
    return traced_exit(fn, op(table, id));
}

}  // namespace

int32_t vxapi_is_fut_exist(vxapi_priv_database* api_priv_data_inst) {
    if (OS_Type == VX_OS_ESX)
        return vxapi_is_fut_exist_esxi(api_priv_data_inst);
    return on_table("vxapi_is_fut_exist", api_priv_data_inst, [](table_hold& t, const char* id) {
        return vxapi_fut_table_live(t.fut(), id, now()) >= 0 ? 0 : 1;
    });
}

int32_t vxapi_get_fut(vxapi_priv_database* api_priv_data_inst, int32_t* ptoken) {
    if (OS_Type == VX_OS_ESX)
        return vxapi_get_fut_esxi(api_priv_data_inst, ptoken);
    if (!ptoken)
        return 1;
    return on_table("vxapi_get_fut", api_priv_data_inst, [ptoken](table_hold& t, const char* id) {
        const int32_t pid = static_cast<int32_t>(getpid());
        if (vxapi_fut_table_take(t.fut(), id, pid, now()) < 0) {
            trace(ERR, "vxapi_get_fut", ": no free token slot.");
            return 1;
        }
        t.written();
        *ptoken = pid;
        return 0;
    });
}

int32_t vxapi_is_fut_expired(vxapi_priv_database* api_priv_data_inst, int32_t token) {
    // Any token of the adapter counts, whoever holds it: `token` is not compared.
    if (OS_Type == VX_OS_ESX)
        return vxapi_is_fut_expired_esxi(api_priv_data_inst, token);
    return on_table("vxapi_is_fut_expired", api_priv_data_inst, [](table_hold& t, const char* id) {
        return vxapi_fut_table_expired(t.fut(), id, now()) >= 0 ? 0 : 1;
    });
}

int32_t vxapi_clear_fut(vxapi_priv_database* api_priv_data_inst, int32_t token) {
    if (OS_Type == VX_OS_ESX)
        return vxapi_clear_fut_esxi(api_priv_data_inst, token);
    return on_table("vxapi_clear_fut", api_priv_data_inst, [token](table_hold& t, const char* id) {
        if (vxapi_fut_table_clear(t.fut(), id, token) < 0)
            return 1;
        t.written();
        return 0;
    });
}

vxapi_fut_take_result vxapi_take_fut(vxapi_priv_database* inst, int32_t* ptoken) {
    static constexpr const char* fn = "vxapi_take_fut";
    char id[VX_FUT_ID_LEN];
    if (!ptoken || !table_call(fn, inst, id))
        return vxapi_fut_take_result::failed;
    if (OS_Type == VX_OS_ESX) {
        // The file store has no table to walk: the database lock alone
        // makes its check and take one step.
        vxapi_sem_hold hold(api_dbupdate_sem_id, VX_SEM_KEY_DBUPDATE);
        if (!hold.held())
            return vxapi_fut_take_result::failed;
        if (vxapi_is_fut_exist_esxi(inst) == 0)
            return vxapi_fut_take_result::held;
        return vxapi_get_fut_esxi(inst, ptoken) == 0 ? vxapi_fut_take_result::taken : vxapi_fut_take_result::failed;
    }
    table_hold table(fn);
    if (!table.fut())
        return vxapi_fut_take_result::failed;
    const int64_t t = now();
    if (vxapi_fut_table_live(table.fut(), id, t) >= 0) {
        trace(TRC, fn, ": the adapter's token is held.");
        return vxapi_fut_take_result::held;
    }
    const int32_t pid = static_cast<int32_t>(getpid());
    if (vxapi_fut_table_take(table.fut(), id, pid, t) < 0) {
        trace(ERR, fn, ": no free token slot.");
        return vxapi_fut_take_result::failed;
    }
    table.written();
    *ptoken = pid;
    trace(TRC, fn, ": token=", static_cast<uint64_t>(pid), VXDBG_DEC);
    return vxapi_fut_take_result::taken;
}

int32_t vxapi_fut_holder(vxapi_priv_database* inst, int32_t* pholder, int64_t* pseconds_left) {
    static constexpr const char* fn = "vxapi_fut_holder";
    char id[VX_FUT_ID_LEN];
    if (!pholder || !pseconds_left || !table_call(fn, inst, id))
        return 1;
    const int64_t t = now();
    if (OS_Type == VX_OS_ESX) {
        char path[VX_FUT_PATH_LEN];
        fut_file f;
        if (!fut_path(inst, path, sizeof path) || !read_fut_file(path, &f) || !f.present ||
            f.expiry <= static_cast<uint64_t>(t))
            return 1;
        *pholder = f.owner;
        *pseconds_left = static_cast<int64_t>(f.expiry - static_cast<uint64_t>(t));
        return 0;
    }
    table_hold table(fn);
    if (!table.fut())
        return 1;
    const int slot = vxapi_fut_table_live(table.fut(), id, t);
    if (slot < 0)
        return 1;
    *pholder = table.fut()[slot].token;
    *pseconds_left = vxapi_fut_expiry(table.fut()[slot]) - t;
    return 0;
}

// ---- The file store (the service console) ----

int32_t vxapi_is_fut_exist_esxi(vxapi_priv_database* api_priv_data_inst) {
    static constexpr const char* fn = "vxapi_is_fut_exist_esxi";
    trace(TRC, fn, ": entered.");
    char path[VX_FUT_PATH_LEN];
    fut_file f;
    if (!fut_path(api_priv_data_inst, path, sizeof path) || !read_fut_file(path, &f))
        return traced_exit(fn, 1);
    return traced_exit(fn, f.present && f.expiry > static_cast<uint64_t>(now()) ? 0 : 1);
}

int32_t vxapi_get_fut_esxi(vxapi_priv_database* api_priv_data_inst, int32_t* ptoken) {
    static constexpr const char* fn = "vxapi_get_fut_esxi";
    trace(TRC, fn, ": entered.");
    char path[VX_FUT_PATH_LEN];
    if (!ptoken || !fut_path(api_priv_data_inst, path, sizeof path))
        return traced_exit(fn, 1);
    // Truncated only once it is known to be ours: O_TRUNC would empty a
    // foreign file before the check.
    const int fd = open_fut_file(path, O_WRONLY | O_CREAT);
    if (fd < 0) {
        trace(ERR, fn, ": cannot open the token file. errno=", static_cast<uint64_t>(errno), VXDBG_DEC);
        return traced_exit(fn, 1);
    }
    const int32_t pid = static_cast<int32_t>(getpid());
    char text[64];
    const int len = snprintf(text, sizeof text, "%llu\n%d\n",
                             static_cast<unsigned long long>(now() + VX_FUT_LIFETIME), static_cast<int>(pid));
    const bool ok = ftruncate(fd, 0) == 0 && write(fd, text, static_cast<size_t>(len)) == len;
    if (close(fd) != 0 || !ok) {
        trace(ERR, fn, ": cannot write the token file. errno=", static_cast<uint64_t>(errno), VXDBG_DEC);
        return traced_exit(fn, 1);
    }
    *ptoken = pid;
    return traced_exit(fn, 0);
}

int32_t vxapi_is_fut_expired_esxi(vxapi_priv_database* api_priv_data_inst, int32_t token) {
    static constexpr const char* fn = "vxapi_is_fut_expired_esxi";
    (void)token;  // as the table: whoever holds it
    trace(TRC, fn, ": entered.");
    char path[VX_FUT_PATH_LEN];
    fut_file f;
    if (!fut_path(api_priv_data_inst, path, sizeof path) || !read_fut_file(path, &f))
        return traced_exit(fn, 1);
    return traced_exit(fn, f.present && f.expiry < static_cast<uint64_t>(now()) ? 0 : 1);
}

int32_t vxapi_clear_fut_esxi(vxapi_priv_database* api_priv_data_inst, int32_t token) {
    static constexpr const char* fn = "vxapi_clear_fut_esxi";
    trace(TRC, fn, ": entered.");
    char path[VX_FUT_PATH_LEN];
    if (!fut_path(api_priv_data_inst, path, sizeof path))
        return traced_exit(fn, 1);
    const int fd = open_fut_file(path, O_RDONLY);
    if (fd < 0)
        return traced_exit(fn, 1);
    char text[64] = {};
    const ssize_t n = read(fd, text, sizeof text - 1);
    unsigned long long expiry = 0;
    int owner = 0;
    bool removed = false;
    if (n > 0 && sscanf(text, "%llu\n%d", &expiry, &owner) == 2 && owner == token && token != 0) {
        // Only the file still named by the path: one put in its place stays.
        struct stat mine {}, named {};
        removed = fstat(fd, &mine) == 0 && lstat(path, &named) == 0 && mine.st_dev == named.st_dev &&
                  mine.st_ino == named.st_ino && unlink(path) == 0;
    }
    close(fd);
    return traced_exit(fn, removed ? 0 : 1);
}
