// System V semaphores with fixed keys, each a set of one semaphore used as a
// lock. SEM_UNDO makes the kernel give back the lock of a process that dies
// holding it.
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>

#include "vx_core.h"
#include "vx_sddbg.h"

namespace {

// The kernel leaves this union to the caller.
union semun_arg {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

void sem_op(int id, short delta, const char* name) {
    struct sembuf op {};
    op.sem_num = 0;
    op.sem_op = delta;
    op.sem_flg = SEM_UNDO;
    int rc;
    do {
        rc = semop(id, &op, 1);
    } while (rc == -1 && errno == EINTR);
    if (rc == -1 && vxdbg_on(VXDBG_ERROR)) {
        vxdbg_print(name, static_cast<uint64_t>(id), VXDBG_DEC, 0);
        vxdbg_print(" semop failed. errno=", static_cast<uint64_t>(errno), VXDBG_DEC, 1);
    }
}

}  // namespace

int vxapi_sem_get(int key) {
    // The exclusive bit without the create bit only opens an existing set.
    int id = semget(key, 1, 02644);
    if (id != -1)
        return id;
    // Create exclusively: a set that another process made in the meantime is
    // opened, never reset (its lock may be held).
    id = semget(key, 1, 03644);
    if (id == -1)
        return errno == EEXIST ? semget(key, 1, 0644) : -1;
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

void vxapi_sem_wait(int id) { sem_op(id, -1, "vxapi_sem_wait: id="); }

void vxapi_sem_signal(int id) { sem_op(id, 1, "vxapi_sem_signal: id="); }

int vxapi_sem_del(int id) { return semctl(id, 0, IPC_RMID); }
