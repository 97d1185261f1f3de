// Library load and unload, adapter discovery, and the SD entry points that
// need no adapter record: version, count, open, close.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "vsdmgt.h"
#include "vx_core.h"
#include "vx_event.h"
#include "vx_sddbg.h"
#include "vx_sysfs.h"
#include "vxa_nlnk.h"

int OS_Type = VX_OS_LINUX;
uint8_t is_vioctlmod_loaded;
uint8_t is_udevadm_supported;
volatile uint8_t api_signal_handler_in_process;

namespace {

// Threads of this process load and unload one at a time; the thread
// semaphore then orders the processes. Never taken in a signal handler.
std::mutex load_mutex;
// Set once a load has made the ports and the shared database, cleared when
// the unload starts: callers read the lists only after seeing it set.
std::atomic<bool> lib_loaded;
// The termination signal deferred to the end of this process's last hold.
std::atomic<int> pending_signal;
// Set by whichever path ends the process, so that only one does.
std::atomic<bool> termination_started;

constexpr uint32_t LOAD_TRACE = VXDBG_TRACE;
constexpr uint32_t LOAD_ERROR = VXDBG_ERROR | VXDBG_TRACE;
constexpr uint32_t SD_TRACE = VXDBG_TRACE | VXDBG_SDAPI;
constexpr uint32_t SD_ERROR = VXDBG_ERROR | VXDBG_SDAPI;
constexpr uint32_t COUNT_TRACE = VXDBG_TRACE | VXDBG_HBAAPI;
constexpr uint32_t COUNT_ERROR = VXDBG_ERROR | VXDBG_HBAAPI;

// Signals after which the process should not leave adapters behind half
// used. 9 and 19 cannot be caught; they are asked for anyway, as always.
constexpr int TERMINATION_SIGNALS[] = {SIGHUP, SIGINT, SIGQUIT, SIGKILL, SIGTERM, SIGSTOP};

bool first_port_is_sysfs() {
    const vxapi_priv_database* first = vxapi_get_api_priv_inst_from_user_instance(0);
    return first && (first->features & VX_FEAT_SYSFS);
}

uint32_t port_count() {
    uint32_t count = 0;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&count](vxapi_priv_database*) {
        ++count;
        return true;
    });
    return count;
}

bool database_ready() { return api_dbupdate_sem_id != -1 && api_shm_fildes >= 0 && api_shared_data; }

// A host without System V IPC answers ENOSYS; the library then runs without
// the semaphores and the shared database. Any other error is a failure.
bool sem_missing_is_fatal(int err) { return err != ENOSYS; }

// Discovery, first success wins: the newer ioctl generation, the older
// ones, then sysfs when those failed or found nothing.
int discover(uint32_t* count) {
    int found = vxapi_find_all_instances_n("vxfcdrv", count);
    if (found != 0) {
        found = vxapi_find_all_instances_o("vxfcdra", count);
        if (found != 0 && OS_Type != VX_OS_ESX) {
            found = vxapi_find_all_instances_o("vxfcdrb", count);
            if (found != 0)
                found = vxapi_find_all_instances_o("vxfcdrc", count);
        }
    }
    vxsysfs_init();
    if (found != 0 || *count == 0) {
        if (found != 0)
            *count = 0;
        found = vxsysfs_supported_driver_exist(count);
    }
    return found;
}

void set_signal_actions(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    // While one of them is handled the others wait, so that the unload is
    // not entered twice on one thread.
    sigemptyset(&action.sa_mask);
    for (int sig : TERMINATION_SIGNALS)
        sigaddset(&action.sa_mask, sig);
    for (int sig : TERMINATION_SIGNALS)
        sigaction(sig, &action, nullptr);
}

// A trace line written with plain system calls, for the signal path where
// the trace's stream and lock may be in use by the interrupted code. Same
// gating as the trace; no time stamp (formatting local time is not safe).
void trace_signal_safe(const char* text, int number, const char* tail) {
    const uint32_t mask = vx_debug;
    if (!(mask & LOAD_TRACE))
        return;
    char line[160];
    size_t n = 0;
    const auto put = [&line, &n](const char* part) {
        while (*part && n < sizeof line - 1)
            line[n++] = *part++;
    };
    put(text);
    char digits[12];
    int d = 0;
    unsigned value = static_cast<unsigned>(number);
    do {
        digits[d++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0 && d < 11);
    while (d > 0 && n < sizeof line - 1)
        line[n++] = digits[--d];
    put(tail);
    line[n++] = '\n';
    if (mask != VXDBG_DEFAULT && write(STDERR_FILENO, line, n) < 0) {
        // a closed standard error is not ours to report
    }
    if (mask & VXDBG_LOGFILE) {
        const int fd = open(vxdbglog_path[0] ? vxdbglog_path : VXDBG_DEFAULT_LOG,
                            O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
        if (fd >= 0) {
            if (write(fd, line, n) < 0) {
                // the log is best effort
            }
            close(fd);
        }
    }
}

// Ends the process by `sig` as if the library were absent, after giving
// back what other clients would otherwise wait for: the slot (and, for the
// last client, the file and locks) and the thread lock if it is free. Only
// system calls: safe in the handler. Outside it (where the last hold of the
// process ended) the thread may block the signal, so it is unblocked.
void terminate_process(int sig, bool in_handler) {
    vxapi_abandon_database();
    // Every unload removes the thread lock; here only when nobody holds it.
    const int thread_id = api_thread_sem_id.exchange(-1);
    struct sembuf op {};
    op.sem_num = 0;
    op.sem_op = -1;
    op.sem_flg = SEM_UNDO | IPC_NOWAIT;
    if (thread_id != -1 && semop(thread_id, &op, 1) == 0)
        semctl(thread_id, 0, IPC_RMID);
    set_signal_actions(SIG_DFL);
    if (!in_handler) {
        sigset_t only;
        sigemptyset(&only);
        sigaddset(&only, sig);
        pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
    }
    // The default action now ends the process as if the library were absent.
    raise(sig);
}

}  // namespace

bool vxapi_lib_loaded() { return lib_loaded.load(std::memory_order_acquire); }

bool vxapi_lib_valid() { return vxapi_lib_loaded() && api_priv_database && (!api_use_database || database_ready()); }

int vxapi_termination_pending() { return pending_signal.load(); }

void vxapi_finish_pending_termination() {
    const int sig = pending_signal.load();
    if (sig != 0 && !termination_started.exchange(true))
        terminate_process(sig, false);
}

// ---- Platform probes ----

int vxapi_check_esx() {
    // The service console exposes the hypervisor under /proc/vmware and
    // names its release in /etc.
    OS_Type = access("/proc/vmware/version", F_OK) == 0 || access("/etc/vmware-release", F_OK) == 0 ? VX_OS_ESX
                                                                                                    : VX_OS_LINUX;
    vxdbg_num(LOAD_TRACE, "vxapi_check_esx: OS_Type=", static_cast<uint64_t>(OS_Type), VXDBG_DEC, 1);
    return OS_Type;
}

// The helper module comes with the driver package and is loaded with it; a
// management library does not load kernel modules behind its caller's back,
// so this only finds out whether it is there.
int vxapi_load_vioctlmod() {
    char root[VXSYSFS_PATH_LEN];
    vxsysfs_root(root, sizeof root);
    char module[VXSYSFS_PATH_LEN + 32];
    snprintf(module, sizeof module, "%s/module/vioctlmod", root);
    is_vioctlmod_loaded = access(module, F_OK) == 0 ? 1 : 0;
    vxdbg_num(LOAD_TRACE, "vxapi_load_vioctlmod: is_vioctlmod_loaded=", is_vioctlmod_loaded, VXDBG_DEC, 1);
    return is_vioctlmod_loaded ? 0 : 1;
}

int vxapi_is_udevadm_supported() {
    static constexpr const char* candidates[] = {"/sbin/udevadm", "/usr/sbin/udevadm", "/bin/udevadm",
                                                 "/usr/bin/udevadm"};
    is_udevadm_supported = 0;
    for (const char* path : candidates) {
        if (access(path, X_OK) == 0) {
            is_udevadm_supported = 1;
            break;
        }
    }
    vxdbg_num(LOAD_TRACE, "vxapi_is_udevadm_supported: ", is_udevadm_supported, VXDBG_DEC, 1);
    return is_udevadm_supported;
}

// ---- Load and unload ----

int vxapi_load_lib() {
    vxdbg_line(LOAD_TRACE, "vxapi_load_lib: entered.");
    if (geteuid() != 0) {
        vxdbg_line(VXDBG_CRITICAL | LOAD_ERROR, "libvxsdm: ERROR - libvxsdm must be loaded with root privileges.");
        return 1;
    }
    std::lock_guard<std::mutex> process_lock(load_mutex);
    vxdbg_line(LOAD_TRACE, "vxapi_load_lib: libvxsdm version " SDM_VERSION_TEXT);
    vxapi_check_esx();
    if (OS_Type != VX_OS_ESX) {
        vxapi_load_vioctlmod();
        vxapi_is_udevadm_supported();
    }

    // Everything below runs under the thread semaphore, unless the host has
    // no System V IPC at all.
    const bool locked = vxapi_sem_lock(api_thread_sem_id, VX_SEM_KEY_THREAD) == 0;
    if (!locked) {
        const int err = errno;
        vxdbg_num(VXDBG_CRITICAL | LOAD_ERROR,
                  "libvxsdm: WARNING - semget function not supported.\n"
                  " Failed creation of thread semaphore. errno=",
                  static_cast<uint64_t>(err), VXDBG_DEC, 1);
        if (sem_missing_is_fatal(err))
            return 1;
    }

    int result = 0;
    bool keep_thread_sem = true;
    if (!api_priv_database) {
        if (api_flash_sem_id == -1) {
            api_flash_sem_id = vxapi_sem_get(VX_SEM_KEY_FLASH);
            if (api_flash_sem_id == -1) {
                const int err = errno;
                vxdbg_num(VXDBG_CRITICAL | LOAD_ERROR,
                          "libvxsdm: WARNING - semget function not supported.\n"
                          " Failed creation of flash semaphore. errno=",
                          static_cast<uint64_t>(err), VXDBG_DEC, 1);
                if (sem_missing_is_fatal(err)) {
                    if (locked)
                        vxapi_sem_unlock_delete(api_thread_sem_id);
                    return 1;
                }
            }
        }

        uint32_t count = 0;
        result = discover(&count);
        if (result == 0 && api_priv_database && count != 0) {
            int fd = -1;
            if (vxapi_open_database(&fd) != 0) {
                if (errno == ENOSYS) {
                    api_use_database = 0;
                    vxdbg_line(LOAD_ERROR, "vxapi_load_lib: function not supported.");
                } else {
                    vxdbg_line(LOAD_ERROR, "vxapi_load_lib: ERROR opening database.");
                    result = 1;
                }
            }
            // Netlink serves events and requests of sysfs ports only. A host
            // without it still serves every request that needs no netlink.
            if (result == 0 && first_port_is_sysfs())
                vxapi_open_netlink_socket();
        } else if (result != 0) {
            vxdbg_line(LOAD_ERROR, "vxapi_load_lib: ERROR finding adapters.");
        }

        if (result == 0 && count != 0 && api_priv_database) {
            // The control node is the driver's, not ours to require: a host
            // without it loads all the same.
            if (first_port_is_sysfs())
                vxapi_open_apidev();
            // Published last: other threads read the lists once they see it.
            lib_loaded.store(true, std::memory_order_release);
        } else {
            vxapi_free_api_priv_data_mem();
            vxapi_free_api_phy_info_mem();
            keep_thread_sem = false;
        }
        vxdbg_num(LOAD_TRACE, "vxapi_load_lib: ports found=", count, VXDBG_DEC, 1);
    }

    if (locked) {
        if (keep_thread_sem)
            vxapi_sem_unlock(api_thread_sem_id);
        else
            vxapi_sem_unlock_delete(api_thread_sem_id);
    }
    vxdbg_num(LOAD_TRACE, "vxapi_load_lib: exiting. ret=", static_cast<uint64_t>(result), VXDBG_DEC, 1);
    return result;
}

void vxapi_cleanup_hbas() {
    if (!api_priv_database) {
        vxdbg_line(LOAD_ERROR, "vxapi_cleanup_hbas: api_priv_datanot found, exiting");
        return;
    }
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [](vxapi_priv_database* record) {
        if (api_use_database) {
            record->open_cnt = 0;
            record->features &= ~VX_FEAT_EVENTS;
            vxapi_unreg_all_events(record);
        } else {
            // Nothing can switch a port's driver events on yet, so there is
            // no delivery to switch off; the flag is cleared all the same.
            record->features &= ~VX_FEAT_EVENTS;
        }
        if (record->oshandle >= 0)
            close(record->oshandle);
        record->oshandle = -1;
        record->apihandle = 0;
        memset(record->phys_path, 0, 4);  // tells the event thread the record is gone
        return true;
    });
}

int vxapi_unload_lib() {
    vxdbg_line(LOAD_TRACE, "vxapi_unload_lib: entered.");
    std::lock_guard<std::mutex> process_lock(load_mutex);
    lib_loaded.store(false, std::memory_order_release);
    const bool locked = vxapi_sem_lock(api_thread_sem_id, VX_SEM_KEY_THREAD) == 0;
    vxapi_cleanup_hbas();
    vxapi_nl_close();
    vxapi_nl_scsi_fc_close();
    int result = 0;
    if (database_ready())
        result = vxapi_close_database(api_shm_fildes);
    // Closed whatever the database state, so that reloading a host without
    // System V IPC does not pile up descriptors.
    vxapi_close_apidev();
    vxapi_free_api_priv_data_mem();
    vxapi_free_api_phy_info_mem();
    if (locked)
        vxapi_sem_unlock_delete(api_thread_sem_id);
    vxsysfs_walk_reset();  // a reload may number its hosts anew
    vxdbg_num(LOAD_TRACE, "vxapi_unload_lib: exiting. ret=", static_cast<uint64_t>(result), VXDBG_DEC, 1);
    return result;
}

// ---- Signals ----

// The handler runs only what is safe in a handler. When a thread of this
// process holds (or waits for) one of the library's locks, the interrupted
// code may be half way through the shared state and the locks are not
// re-entrant: the end is then left to the place where the last hold ends
// (vxapi_finish_pending_termination). A second signal meanwhile ends the
// process at once; the kernel gives its locks back and the next client
// reclaims its slot.
void vxapi_terminate(int sig) {
    if (api_signal_handler_in_process) {
        set_signal_actions(SIG_DFL);
        raise(sig);
        return;
    }
    api_signal_handler_in_process = 1;
    trace_signal_safe("vxapi_terminate: got signal=", sig, ", giving back the library's shared state.");
    pending_signal.store(sig);
    if (vxapi_sem_holds() > 0)
        return;
    if (!termination_started.exchange(true))
        terminate_process(sig, true);
}

extern "C" VXSD_API void vxapi_setup_signal_handlers(void) {
    vxdbg_line(LOAD_TRACE, "vxapi_setup_signal_handlers: entered.");
    set_signal_actions(vxapi_terminate);
}

// ---- SD entry points ----

extern "C" VXSD_API SD_UINT32 SDGetVersion(char* buf) {
    if (buf)
        memcpy(buf, SDM_VERSION_TEXT, sizeof SDM_VERSION_TEXT);
    return SDM_VERSION_NUMBER;
}

extern "C" VXSD_API SD_UINT32 SDGetNumberOfAdapters(void) {
    vxapi_set_debug_level();
    vxdbg_line(COUNT_TRACE, "SDGetNumberOfAdapters: entered.");
    if (!vxapi_lib_loaded()) {
        const int stat = vxapi_load_lib();
        if (stat != 0 || !api_priv_database) {
            vxdbg_num(COUNT_ERROR, "SDGetNumberOfAdapters: load lib failed. stat=", static_cast<uint64_t>(stat),
                      VXDBG_DEC, 1);
            return 0;
        }
    }
    if (api_use_database && !database_ready()) {
        vxdbg_line(COUNT_ERROR, "SDGetNumberOfAdapters: error in shared database setup. Exiting.");
        return 0;
    }
    const uint32_t count = port_count();
    vxdbg_num(COUNT_TRACE, "SDGetNumberOfAdapters: exiting. count=", count, VXDBG_DEC, 1);
    return count;
}

extern "C" VXSD_API SD_UINT32 SDOpenDevice(SD_UINT32 UserAdapterNumber, int* pDevice) {
    vxapi_set_debug_level();
    const uint32_t instance = UserAdapterNumber;
    auto trace_inst = [instance](uint32_t guard, const char* text) {
        if (vxdbg_on(guard)) {
            vxdbg_print("SDOpenDevice(", instance, VXDBG_DEC, 0);
            vxdbg_print(text, 0, VXDBG_NONE, 1);
        }
    };
    trace_inst(SD_TRACE, "): entered.");
    if (!pDevice) {
        trace_inst(SD_ERROR, "): invalid parameter.");
        return SDM_STATUS_INVALID_PARAMETER;
    }
    if (!vxapi_lib_loaded()) {
        const int stat = vxapi_load_lib();
        if (stat != 0) {
            if (vxdbg_on(SD_ERROR)) {
                vxdbg_print("SDOpenDevice(", instance, VXDBG_DEC, 0);
                vxdbg_print("): load failed. stat=", static_cast<uint64_t>(stat), VXDBG_DEC, 1);
            }
            return SDM_STATUS_UNKNOWN_ERROR;
        }
        if (!api_priv_database) {
            trace_inst(SD_ERROR, "): no adapters found.");
            return SDM_STATUS_DEVICE_NOT_FOUND;
        }
    }
    if (!api_use_database) {
        vxdbg_line(SD_ERROR, "SDOpenDevice: shm not used.");
        return SDM_STATUS_NOT_SUPPORTED;
    }
    if (!database_ready()) {
        vxdbg_line(SD_ERROR, "SDOpenDevice: Shared mem setup error.");
        return SDM_STATUS_OUT_OF_MEMORY;
    }
    vxapi_priv_database* record = vxapi_get_api_priv_inst_from_user_instance(instance);
    if (!record) {
        trace_inst(SD_ERROR, "): api_priv_data_inst not found, exiting");
        return SDM_STATUS_DEVICE_NOT_FOUND;
    }
    uint32_t handle = 0, status = 0;
    if (vxapi_open_adapter(record, &handle, &status) != 0) {
        trace_inst(SD_ERROR, ") : open failed.");
        return status != 0 ? status : SDM_STATUS_UNKNOWN_ERROR;
    }
    *pDevice = static_cast<int>(handle);
    if (vxdbg_on(SD_TRACE)) {
        vxdbg_print("SDOpenDevice inst ", instance, VXDBG_DEC, 0);
        vxdbg_print(": exiting. Return Handle =", handle, VXDBG_DEC, 1);
    }
    return SDM_STATUS_SUCCESS;
}

extern "C" VXSD_API SD_UINT32 SDCloseDevice(int Device) {
    vxapi_set_debug_level();
    const uint32_t handle = static_cast<uint32_t>(Device);
    vxdbg_num(SD_TRACE, "SDCloseDevice: entered. handle=", handle, VXDBG_DEC, 1);
    if (!api_use_database) {
        vxdbg_line(SD_ERROR, "SDCloseDevice: shm not used.");
        return SDM_STATUS_NOT_SUPPORTED;
    }
    if (!vxapi_lib_loaded() || vxapi_get_open_adapter_count() == 0)
        return SDM_STATUS_SUCCESS;
    int fd = -1;
    vxapi_priv_database* record = nullptr;
    if (vxapi_open_database(&fd) == 0 && database_ready())
        record = check_handle(handle);
    if (!record) {
        vxdbg_num(SD_ERROR, "SDCloseDevice: check_handle failed. handle=", handle, VXDBG_DEC, 1);
        return SDM_STATUS_INVALID_HANDLE;
    }
    uint32_t status = 0;
    if (vxapi_close_adapter(record, &status) != 0) {
        vxdbg_num(SD_ERROR, "SDCloseDevice: close failed. status=", status, VXDBG_DEC, 1);
        return status != 0 ? status : SDM_STATUS_UNKNOWN_ERROR;
    }
    // The last close unloads, so that the next open discovers afresh.
    if (vxapi_get_open_adapter_count() == 0)
        vxapi_unload_lib();
    vxdbg_line(SD_TRACE, "SDCloseDevice: exiting.");
    return SDM_STATUS_SUCCESS;
}
