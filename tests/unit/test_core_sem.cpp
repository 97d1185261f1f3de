// System V semaphore helpers: creation, lock and unlock, give-back on death,
// sets removed under a waiter, sets made by someone else.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "unit_support.h"
#include "vx_core.h"
#include "vx_sddbg.h"

namespace {

constexpr int KEY = 4242;

int value_of(int id) { return semctl(id, 0, GETVAL); }

class Semaphores : public testing::Test {
protected:
    void SetUp() override {
        VX_REQUIRE_PRIVATE_IPC();
        id_ = vxapi_sem_get(KEY);
        ASSERT_NE(id_, -1);
    }
    void TearDown() override {
        if (int id = semget(KEY, 1, 0); id != -1)
            semctl(id, 0, IPC_RMID);
    }
    int id_ = -1;
};

TEST_F(Semaphores, CreatedUnlockedSharedByKeyAndNotResetByALaterGet) {
    EXPECT_EQ(value_of(id_), 1);
    vxapi_sem_wait(id_);
    EXPECT_EQ(vxapi_sem_get(KEY), id_);
    EXPECT_EQ(value_of(id_), 0);
    vxapi_sem_signal(id_);
    EXPECT_EQ(value_of(id_), 1);
    std::atomic<int> var{id_};
    {
        vxapi_sem_hold hold(var, KEY);
        EXPECT_TRUE(hold.held());
        EXPECT_EQ(value_of(id_), 0);
        EXPECT_EQ(vxapi_sem_holds(), 1);
    }
    EXPECT_EQ(value_of(id_), 1);
    EXPECT_EQ(vxapi_sem_holds(), 0);
    EXPECT_EQ(vxapi_sem_del(id_), 0);
    EXPECT_EQ(semget(KEY, 1, 0), -1);
}

TEST_F(Semaphores, LockOfADeadProcessIsGivenBack) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        vxapi_sem_wait(id_);
        _exit(value_of(id_) == 0 ? 0 : 1);  // dies holding the lock
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(value_of(id_), 1);  // a later wait would block forever without the undo
}

// A stale id never passes for a lock: the key is looked up again.
TEST_F(Semaphores, RemovedSetIsLookedUpAgain) {
    const struct {
        const char* name;
        bool remake;  // another process made the key anew after the removal
    } cases[] = {{"key made anew", true}, {"key gone", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int stale = vxapi_sem_get(KEY);
        ASSERT_EQ(vxapi_sem_del(stale), 0);
        const int fresh = c.remake ? vxapi_sem_get(KEY) : -1;
        std::atomic<int> var{stale};
        ASSERT_EQ(vxapi_sem_lock(var, KEY), 0);
        EXPECT_NE(var.load(), stale);
        if (c.remake) {
            EXPECT_EQ(var.load(), fresh);
        }
        EXPECT_EQ(var.load(), semget(KEY, 1, 0));
        EXPECT_EQ(value_of(var), 0);  // held: the live set, not the removed one
        vxapi_sem_unlock(var);
        EXPECT_EQ(value_of(var), 1);
    }
}

// The holder removes the set while holding it; the waiter wakes with EIDRM
// and holds the key's new set, never the removed one.
TEST_F(Semaphores, WaiterOfASetRemovedByItsHolderTakesTheNewSet) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::atomic<int> var{-1};
        if (vxapi_sem_lock(var, KEY) != 0)
            _exit(1);
        char c = 'x';
        if (write(ready[1], &c, 1) != 1)
            _exit(2);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        vxapi_sem_unlock_delete(var);
        _exit(var == -1 ? 0 : 3);
    }
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    std::atomic<int> var{id_};
    EXPECT_EQ(vxapi_sem_lock(var, KEY), 0);  // blocks until the removal
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_NE(var.load(), id_);
    EXPECT_EQ(var.load(), semget(KEY, 1, 0));
    EXPECT_EQ(value_of(var), 0);
    vxapi_sem_unlock(var);
    close(ready[0]);
    close(ready[1]);
}

// A set made by another user, or one that others may change, is refused at
// once, never waited on, and the trace names the command that removes it.
TEST(ForeignSemaphores, AreRefusedWithoutWaiting) {
    VX_REQUIRE_PRIVATE_IPC();
    const struct {
        const char* name;
        uid_t uid;
        int mode;
    } cases[] = {{"another user's", 1000, 0600}, {"root's, writable by all", 0, 0666}};
    const std::string dir = make_temp_dir();
    snprintf(vxdbglog_path, sizeof vxdbglog_path, "%s/trace.log", dir.c_str());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            if (c.uid != 0 && setresuid(c.uid, c.uid, c.uid) != 0)
                _exit(1);
            const int id = semget(KEY, 1, IPC_CREAT | IPC_EXCL | c.mode);
            _exit(id != -1 && semctl(id, 0, SETVAL, 0) == 0 ? 0 : 2);  // value 0: a waiter would hang
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        const int foreign = semget(KEY, 1, 0);
        ASSERT_NE(foreign, -1);

        errno = 0;
        EXPECT_EQ(vxapi_sem_get(KEY), -1);
        EXPECT_EQ(errno, EACCES);
        std::atomic<int> var{-1};
        EXPECT_EQ(vxapi_sem_lock(var, KEY), -1);
        EXPECT_EQ(errno, EACCES);
        EXPECT_EQ(vxapi_sem_holds(), 0);
        EXPECT_EQ(semget(KEY, 1, 0), foreign);  // left as it was
        EXPECT_NE(read_file(vxdbglog_path).find("Remove it with: ipcrm -S 0x00001092"), std::string::npos);
        semctl(foreign, 0, IPC_RMID);
    }
    vxdbglog_path[0] = '\0';
    remove_tree(dir);
}

}  // namespace
