// Which fixed-key semaphore sets and shared files the library trusts. Header
// only, so that vxcli names the same objects the library refuses.
#pragma once

#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/types.h>

// A set is trusted when root (or `euid`) created and owns it, nobody else may
// change it, and it is one semaphore, as the library makes them.
inline bool vx_sem_set_trusted(const struct semid_ds& ds, uid_t euid) {
    const auto ours = [euid](uid_t uid) { return uid == 0 || uid == euid; };
    return ours(ds.sem_perm.uid) && ours(ds.sem_perm.cuid) && (ds.sem_perm.mode & 0022) == 0 && ds.sem_nsems == 1;
}

// The shared file sits in a world-writable directory: only a plain file of
// root's with no other name is trusted.
inline bool vx_shared_file_trusted(const struct stat& st) {
    return S_ISREG(st.st_mode) && st.st_uid == 0 && st.st_nlink == 1;
}
