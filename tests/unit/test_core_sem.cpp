// System V semaphore helpers: creation, lock and unlock, give-back on death.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include "unit_support.h"
#include "vx_core.h"

namespace {

int value_of(int id) { return semctl(id, 0, GETVAL); }

class Semaphores : public testing::Test {
protected:
    void TearDown() override {
        for (int key : {4242, 4243})
            if (int id = semget(key, 1, 0); id != -1)
                semctl(id, 0, IPC_RMID);
    }
};

TEST_F(Semaphores, CreatedUnlockedAndSharedByKey) {
    VX_REQUIRE_PRIVATE_IPC();
    const int id = vxapi_sem_get(4242);
    ASSERT_NE(id, -1);
    EXPECT_EQ(value_of(id), 1);
    EXPECT_EQ(vxapi_sem_get(4242), id);  // the second caller opens the same set

    vxapi_sem_wait(id);
    EXPECT_EQ(value_of(id), 0);
    // A later "get" must not reset a held lock.
    EXPECT_EQ(vxapi_sem_get(4242), id);
    EXPECT_EQ(value_of(id), 0);
    vxapi_sem_signal(id);
    EXPECT_EQ(value_of(id), 1);

    EXPECT_EQ(vxapi_sem_del(id), 0);
    EXPECT_EQ(semget(4242, 1, 0), -1);
}

TEST_F(Semaphores, HoldIsReleasedAtScopeEnd) {
    VX_REQUIRE_PRIVATE_IPC();
    const int id = vxapi_sem_get(4243);
    ASSERT_NE(id, -1);
    {
        vxapi_sem_hold hold(id);
        EXPECT_EQ(value_of(id), 0);
    }
    EXPECT_EQ(value_of(id), 1);
    { vxapi_sem_hold none(-1); }  // no semaphore: nothing happens
    EXPECT_EQ(value_of(id), 1);
}

TEST_F(Semaphores, LockOfADeadProcessIsGivenBack) {
    VX_REQUIRE_PRIVATE_IPC();
    const int id = vxapi_sem_get(4242);
    ASSERT_NE(id, -1);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        vxapi_sem_wait(id);
        _exit(value_of(id) == 0 ? 0 : 1);  // dies holding the lock
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(value_of(id), 1);
    vxapi_sem_wait(id);  // would block forever without the undo
    vxapi_sem_signal(id);
}

}  // namespace
