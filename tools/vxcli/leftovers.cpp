#include "leftovers.h"

#include <fmt/format.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vx_ipc_trust.h"

namespace vxcli {

namespace {

// The library's semaphore keys (load, flash, database, trace) and its file.
constexpr int LOCK_KEYS[] = {1054, 980, 829, 819};
constexpr const char* SHARED_FILE = "/tmp/vx_shared.dat";

union semun_arg {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

}  // namespace

std::string foreign_leftovers() {
    std::string commands;
    const auto add = [&commands](const std::string& command) {
        commands += (commands.empty() ? "" : "; ") + command;
    };
    for (int key : LOCK_KEYS) {
        const int id = semget(key, 1, 0);
        struct semid_ds ds {};
        semun_arg arg{};
        arg.buf = &ds;
        if (id != -1 && semctl(id, 0, IPC_STAT, arg) == 0 && !vx_sem_set_trusted(ds, geteuid()))
            add(fmt::format("ipcrm -S 0x{:08x}", key));
    }
    struct stat st {};
    if (lstat(SHARED_FILE, &st) == 0 && !vx_shared_file_trusted(st))
        add(fmt::format("rm {}", SHARED_FILE));
    return commands;
}

}  // namespace vxcli
