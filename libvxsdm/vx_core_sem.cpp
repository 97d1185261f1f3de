// System V semaphores with fixed keys, each a set of one semaphore used as a
// lock. SEM_UNDO makes the kernel give back the lock of a process that dies
// holding it.
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "vx_core.h"
#include "vx_ipc_trust.h"
#include "vx_sddbg.h"

namespace {

constexpr uint32_t SEM_ERROR = VXDBG_ERROR | VXDBG_TRACE;

// A set can be removed and made again under one key many times while we
// wait; past this many look-ups something is wrong and the lock fails.
constexpr int MAX_LOOKUPS = 1000;

// The kernel leaves this union to the caller.
union semun_arg {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

// Locks of this process held or waited for (see vxapi_sem_holds). Counted
// before the wait, so that a termination signal arriving while the lock is
// being taken is deferred until it is given back.
std::atomic<int> holds;

int sem_op(int id, short delta, short flags) {
    struct sembuf op {};
    op.sem_num = 0;
    op.sem_op = delta;
    op.sem_flg = static_cast<short>(SEM_UNDO | flags);
    return semop(id, &op, 1);
}

void trace_semop_error(const char* name, int id, int err) {
    if (vxdbg_on(SEM_ERROR)) {
        vxdbg_print(name, static_cast<uint64_t>(id), VXDBG_DEC, 0);
        vxdbg_print(" semop failed. errno=", static_cast<uint64_t>(err), VXDBG_DEC, 1);
    }
}

// One semop, retried on EINTR; failures traced and returned.
int sem_op_traced(int id, short delta, const char* name) {
    int rc;
    do {
        rc = sem_op(id, delta, 0);
    } while (rc == -1 && errno == EINTR);
    if (rc == -1) {
        const int err = errno;
        trace_semop_error(name, id, err);
        errno = err;
    }
    return rc;
}

// Refuses a set that someone else made: waiting on it could hang forever
// and a lock others may change excludes nobody.
bool trusted(int id, int key) {
    struct semid_ds ds {};
    semun_arg arg{};
    arg.buf = &ds;
    if (semctl(id, 0, IPC_STAT, arg) == -1)
        return false;
    if (vx_sem_set_trusted(ds, geteuid()))
        return true;
    if (vxdbg_on(VXDBG_CRITICAL | SEM_ERROR)) {
        char line[200];
        snprintf(line, sizeof line,
                 "vxapi_sem_get: refusing semaphore set key 0x%08x (id %d): created by uid %u, owned by uid %u, "
                 "mode %04o. Remove it with: ipcrm -S 0x%08x",
                 static_cast<unsigned>(key), id, static_cast<unsigned>(ds.sem_perm.cuid),
                 static_cast<unsigned>(ds.sem_perm.uid), static_cast<unsigned>(ds.sem_perm.mode & 0777),
                 static_cast<unsigned>(key));
        vxdbg_print(line, 0, VXDBG_NONE, 1);
    }
    errno = EACCES;
    return false;
}

void end_hold() {
    if (holds.fetch_sub(1) == 1)
        vxapi_finish_pending_termination();
}

// The locks this thread holds, by id variable, with how often it took each:
// a thread that takes a lock it holds goes on (an event callback that calls
// back into the library runs inside the event thread's hold of the
// database lock); only its outermost release gives the lock back.
struct thread_hold {
    const std::atomic<int>* var;
    int depth;
};
thread_local thread_hold thread_holds[4];

thread_hold* held_here(const std::atomic<int>& id_var) {
    for (thread_hold& h : thread_holds)
        if (h.var == &id_var && h.depth > 0)
            return &h;
    return nullptr;
}

void note_held(const std::atomic<int>& id_var) {
    for (thread_hold& h : thread_holds) {
        if (h.depth == 0) {
            h.var = &id_var;
            h.depth = 1;
            return;
        }
    }
}

}  // namespace

int vxapi_sem_get(int key) {
    // A set removed between finding and checking it is looked up again.
    for (int attempt = 0; attempt < MAX_LOOKUPS; ++attempt) {
        // The exclusive bit without the create bit only opens an existing set.
        int id = semget(key, 1, 02644);
        if (id == -1) {
            // Create exclusively: a set that another process made in the
            // meantime is opened, never reset (its lock may be held).
            id = semget(key, 1, 03644);
            if (id != -1) {
                semun_arg arg{};
                arg.val = 1;
                if (semctl(id, 0, SETVAL, arg) == -1) {
                    const int saved = errno;
                    semctl(id, 0, IPC_RMID);
                    errno = saved;
                    return -1;
                }
                return id;
            }
            if (errno != EEXIST)
                return -1;
            id = semget(key, 1, 0644);
            if (id == -1) {
                if (errno == ENOENT)
                    continue;
                return -1;
            }
        }
        if (trusted(id, key))
            return id;
        if (errno != EINVAL && errno != EIDRM)
            return -1;
    }
    errno = EIDRM;
    return -1;
}

int vxapi_sem_wait(int id) { return sem_op_traced(id, -1, "vxapi_sem_wait: id="); }

int vxapi_sem_signal(int id) { return sem_op_traced(id, 1, "vxapi_sem_signal: id="); }

int vxapi_sem_del(int id) { return semctl(id, 0, IPC_RMID); }

int vxapi_sem_holds() { return holds.load(); }

int vxapi_sem_lock(std::atomic<int>& id_var, int key) {
    holds.fetch_add(1);
    if (thread_hold* h = held_here(id_var)) {
        ++h->depth;
        return 0;
    }
    int err = 0;
    for (int lookups = 0; lookups < MAX_LOOKUPS;) {
        int id = id_var.load();
        if (id == -1) {
            ++lookups;
            id = vxapi_sem_get(key);
            if (id == -1) {
                err = errno;
                break;
            }
            id_var.store(id);
        }
        if (sem_op(id, -1, 0) == 0) {
            note_held(id_var);
            return 0;
        }
        err = errno;
        if (err == EINTR) {
            // A termination signal must not wait behind another process.
            if (vxapi_termination_pending())
                break;
            continue;
        }
        if (err != EINVAL && err != EIDRM) {
            trace_semop_error("vxapi_sem_lock: id=", id, err);
            break;
        }
        // Removed by its last user: the key names a new set (or none yet).
        vxdbg_num(VXDBG_TRACE, "vxapi_sem_lock: set removed, looking up key ", static_cast<uint64_t>(key), VXDBG_DEC,
                  1);
        id_var.compare_exchange_strong(id, -1);
        err = EIDRM;
    }
    end_hold();
    errno = err;
    return -1;
}

void vxapi_sem_unlock(std::atomic<int>& id_var) {
    if (thread_hold* h = held_here(id_var); h && --h->depth > 0) {
        end_hold();
        return;
    }
    const int id = id_var.load();
    if (id != -1 && sem_op(id, 1, 0) == -1)
        trace_semop_error("vxapi_sem_unlock: id=", id, errno);
    end_hold();
}

void vxapi_sem_unlock_delete(std::atomic<int>& id_var) {
    // An inner hold leaves the set to the outermost one.
    if (thread_hold* h = held_here(id_var); h && --h->depth > 0) {
        end_hold();
        return;
    }
    const int id = id_var.exchange(-1);
    if (id != -1 && vxapi_sem_del(id) == -1)
        vxdbg_num(SEM_ERROR, "vxapi_sem_unlock_delete: IPC_RMID failed. errno=", static_cast<uint64_t>(errno),
                  VXDBG_DEC, 1);
    end_hold();
}
