// System V semaphore helpers: creation, lock and unlock, give-back on death.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include "unit_support.h"
#include "vx_core.h"

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
    {
        vxapi_sem_hold hold(id_);
        EXPECT_EQ(value_of(id_), 0);
    }
    EXPECT_EQ(value_of(id_), 1);
    { vxapi_sem_hold none(-1); }  // no semaphore: nothing happens
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

}  // namespace
