// Shared database: file creation and growth, slot claims, close and removal,
// refusal of untrusted files, the database lock across processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "unit_support.h"
#include "vx_core.h"
#include "vx_event.h"
#include "vx_sddbg.h"

namespace {

using Flags = std::array<uint32_t, VX_LIBINST_SLOTS>;

constexpr size_t QUEUE_OFFSET = offsetof(vxapi_shared_t, hbaptevq);
constexpr size_t QUEUE_SIZE = sizeof(vxapi_hbaptevq_t);

bool sem_exists(int key) { return semget(key, 1, 0) != -1; }

int sem_value(int key) {
    const int id = semget(key, 1, 0);
    return id == -1 ? -1 : semctl(id, 0, GETVAL);
}

void remove_sem(int key) {
    if (int id = semget(key, 1, 0); id != -1)
        semctl(id, 0, IPC_RMID);
}

class SharedDb : public testing::Test {
protected:
    void SetUp() override {
        VX_REQUIRE_PRIVATE_IPC();
        dir_ = make_temp_dir();
        ASSERT_FALSE(dir_.empty());
        path_ = dir_ + "/vx_shared.dat";
        ASSERT_LT(path_.size(), sizeof vx_db_fname);
        memcpy(saved_name_, vx_db_fname, sizeof saved_name_);
        snprintf(vx_db_fname, sizeof vx_db_fname, "%s", path_.c_str());
        snprintf(vxdbglog_path, sizeof vxdbglog_path, "%s/trace.log", dir_.c_str());
    }

    void TearDown() override {
        if (api_shm_fildes >= 0 || api_shared_data)
            vxapi_close_database(api_shm_fildes);
        vxapi_free_api_priv_data_mem();
        for (int key : {VX_SEM_KEY_DBUPDATE, VX_SEM_KEY_FLASH})
            remove_sem(key);
        api_dbupdate_sem_id = -1;
        api_flash_sem_id = -1;
        memcpy(vx_db_fname, saved_name_, sizeof saved_name_);
        vxdbglog_path[0] = '\0';
        if (!dir_.empty())
            remove_tree(dir_);
    }

    // Writes the file as another process would have left it.
    void write_db(const std::vector<uint8_t>& bytes, const std::string& path = {}) const {
        const std::string p = path.empty() ? path_ : path;
        const int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        close(fd);
    }

    static std::vector<uint8_t> image_with(const Flags& flags, size_t size = VX_SHARED_FILE_SIZE) {
        std::vector<uint8_t> bytes(size, 0);
        memcpy(bytes.data(), flags.data(), sizeof flags);
        return bytes;
    }

    std::vector<uint8_t> file_bytes() const {
        const std::string s = read_file(path_);
        return {s.begin(), s.end()};
    }

    Flags file_flags() const {
        Flags flags{};
        const std::string s = read_file(path_);
        memcpy(flags.data(), s.data(), std::min(s.size(), sizeof flags));
        return flags;
    }

    bool file_exists() const { return access(path_.c_str(), F_OK) == 0; }

    static int open_db() {
        int fd = -1;
        return vxapi_open_database(&fd);
    }

    std::string dir_;
    std::string path_;
    char saved_name_[VX_DB_FNAME_LEN] = {};
};

TEST_F(SharedDb, CreatesTheFileClaimsSlotZeroAndTheLastCloseRemovesEverything) {
    const mode_t old_mask = umask(077);  // the file is readable by every process whatever the caller's umask
    ASSERT_EQ(open_db(), 0);
    umask(old_mask);

    struct stat st {};
    ASSERT_EQ(stat(path_.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, static_cast<off_t>(VX_SHARED_FILE_SIZE));
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    EXPECT_EQ(api_library_instance, 0u);
    ASSERT_NE(api_shared_data, nullptr);
    EXPECT_EQ(api_shared_data->libinst_flags[0], 0x05u);
    EXPECT_EQ(file_flags(), (Flags{0x05, 0, 0, 0, 0, 0, 0, 0}));  // the mapping is the file
    EXPECT_EQ(sem_value(VX_SEM_KEY_DBUPDATE), 1);                  // released after the open

    api_flash_sem_id = vxapi_sem_get(VX_SEM_KEY_FLASH);
    ASSERT_NE(api_flash_sem_id, -1);
    EXPECT_EQ(vxapi_close_database(api_shm_fildes), 0);
    EXPECT_FALSE(file_exists());
    EXPECT_FALSE(sem_exists(VX_SEM_KEY_DBUPDATE));
    EXPECT_FALSE(sem_exists(VX_SEM_KEY_FLASH));
    EXPECT_EQ(api_shm_fildes, -1);
    EXPECT_EQ(api_shared_data, nullptr);
    EXPECT_EQ(api_dbupdate_sem_id, -1);
    EXPECT_EQ(api_flash_sem_id, -1);
}

TEST_F(SharedDb, SmallerFileGrowsKeepingItsBytes) {
    // An older library's file: slot 0 held, queues of slots 2-7 with content.
    constexpr size_t OLD_SIZE = 131264;
    std::vector<uint8_t> old = image_with({0x05, 0, 0, 0, 0, 0, 0, 0}, OLD_SIZE);
    const size_t kept_from = QUEUE_OFFSET + 2 * QUEUE_SIZE;
    for (size_t i = kept_from; i < OLD_SIZE; ++i)
        old[i] = static_cast<uint8_t>(i * 7 + 3);
    write_db(old);

    ASSERT_EQ(open_db(), 0);
    EXPECT_EQ(api_library_instance, 1u);
    std::vector<uint8_t> now = file_bytes();
    ASSERT_EQ(now.size(), VX_SHARED_FILE_SIZE);
    EXPECT_EQ(file_flags(), (Flags{0x05, 0x05, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(std::equal(old.begin() + kept_from, old.end(), now.begin() + kept_from));
    EXPECT_TRUE(std::all_of(now.begin() + OLD_SIZE, now.end(), [](uint8_t b) { return b == 0; }));

    // Slot 0 still belongs to someone: the file and the lock stay.
    EXPECT_EQ(vxapi_close_database(api_shm_fildes), 0);
    EXPECT_TRUE(file_exists());
    EXPECT_TRUE(sem_exists(VX_SEM_KEY_DBUPDATE));
    EXPECT_EQ(file_flags(), (Flags{0x05, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(SharedDb, SlotClaim) {
    struct Case {
        const char* name;
        Flags before;
        uint32_t slot;
        Flags after;
    } cases[] = {
        {"empty file", {0, 0, 0, 0, 0, 0, 0, 0}, 0, {5, 0, 0, 0, 0, 0, 0, 0}},
        {"first two taken", {5, 5, 0, 0, 0, 0, 0, 0}, 2, {5, 5, 5, 0, 0, 0, 0, 0}},
        {"hole in the middle", {5, 5, 0, 5, 0, 0, 0, 0}, 2, {5, 5, 5, 5, 0, 0, 0, 0}},
        {"held without claim", {1, 5, 0, 0, 0, 0, 0, 0}, 0, {5, 5, 0, 0, 0, 0, 0, 0}},
        {"reserved bit is kept", {8, 0, 0, 0, 0, 0, 0, 0}, 0, {0xD, 0, 0, 0, 0, 0, 0, 0}},
        {"last slot free", {5, 5, 5, 5, 5, 5, 5, 0}, 7, {5, 5, 5, 5, 5, 5, 5, 5}},
        {"all eight claimed", {5, 5, 5, 5, 5, 5, 5, 5}, 0, {5, 1, 1, 1, 1, 1, 1, 1}},
        {"all claimed, other bits kept", {4, 0xC, 4, 4, 4, 4, 4, 0xD}, 0, {5, 8, 0, 0, 0, 0, 0, 9}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        // Every queue carries one event and a tail; only the claimed slot's is emptied.
        std::vector<uint8_t> bytes = image_with(c.before);
        for (uint32_t s = 0; s < VX_LIBINST_SLOTS; ++s) {
            auto* q = reinterpret_cast<vxapi_hbaptevq_t*>(bytes.data() + QUEUE_OFFSET + s * QUEUE_SIZE);
            q->eventbuf[0].AsyncEventCode = 0x8011;
            q->q_tail = 1;
        }
        write_db(bytes);

        ASSERT_EQ(open_db(), 0);
        EXPECT_EQ(api_library_instance, c.slot);
        EXPECT_EQ(file_flags(), c.after);
        for (uint32_t s = 0; s < VX_LIBINST_SLOTS; ++s) {
            const vxapi_hbaptevq_t& q = api_shared_data->hbaptevq[s];
            const bool emptied = q.eventbuf[0].AsyncEventCode == 0 && q.q_tail == 0;
            EXPECT_EQ(emptied, s == c.slot) << "slot " << s;
        }
        vxapi_close_database(api_shm_fildes);
        unlink(path_.c_str());
    }
}

TEST_F(SharedDb, CloseKeepsTheFileWhileAnotherSlotIsInUse) {
    for (uint32_t other : {0x01u, 0x04u, 0x08u, 0x05u}) {
        SCOPED_TRACE(other);
        ASSERT_EQ(open_db(), 0);
        ASSERT_EQ(api_library_instance, 0u);
        api_shared_data->libinst_flags[3] = other;  // another process
        api_shared_data->hbaptevq[0].q_tail = 9;
        EXPECT_EQ(vxapi_close_database(api_shm_fildes), 0);
        EXPECT_TRUE(file_exists());
        EXPECT_TRUE(sem_exists(VX_SEM_KEY_DBUPDATE));
        EXPECT_EQ(file_flags(), (Flags{0, 0, 0, other, 0, 0, 0, 0}));
        std::vector<uint8_t> bytes = file_bytes();
        const auto* q = reinterpret_cast<const vxapi_hbaptevq_t*>(bytes.data() + QUEUE_OFFSET);
        EXPECT_EQ(q->q_tail, 0u);  // our queue is emptied on the way out
        unlink(path_.c_str());
    }
}

TEST_F(SharedDb, UntrustedFilesAreRefusedUntouched) {
    const std::string target = dir_ + "/target";
    const std::vector<uint8_t> content(1000, 0x5A);
    struct Case {
        const char* name;
        std::function<void()> plant;
        bool target_exists;  // the planted thing points at `target`
    } cases[] = {
        {"symlink to a file",
         [&] {
             write_db(content, target);
             ASSERT_EQ(symlink(target.c_str(), path_.c_str()), 0);
         },
         true},
        {"dangling symlink", [&] { ASSERT_EQ(symlink(target.c_str(), path_.c_str()), 0); }, false},
        {"directory", [&] { mkdir(path_.c_str(), 0755); }, false},
        {"fifo", [&] { mkfifo(path_.c_str(), 0644); }, false},
        {"file of another user",
         [&] {
             write_db(content);
             ASSERT_EQ(chown(path_.c_str(), 65534, 65534), 0);
         },
         false},
        {"file with a second name",
         [&] {
             write_db(content, target);
             ASSERT_EQ(link(target.c_str(), path_.c_str()), 0);
         },
         true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        c.plant();
        struct stat before {};
        ASSERT_EQ(lstat(path_.c_str(), &before), 0);

        int fd = -1;
        EXPECT_NE(vxapi_open_database(&fd), 0);
        EXPECT_EQ(api_shm_fildes, -1);
        EXPECT_EQ(api_shared_data, nullptr);
        EXPECT_EQ(sem_value(VX_SEM_KEY_DBUPDATE), 1);  // the lock is not left held

        struct stat after {};
        ASSERT_EQ(lstat(path_.c_str(), &after), 0);
        EXPECT_EQ(after.st_ino, before.st_ino);
        EXPECT_EQ(after.st_mode, before.st_mode);
        EXPECT_EQ(after.st_uid, before.st_uid);
        EXPECT_EQ(after.st_size, before.st_size);
        if (c.target_exists) {
            EXPECT_EQ(read_file(target), std::string(content.begin(), content.end()));
        } else {
            EXPECT_NE(access(target.c_str(), F_OK), 0);  // nothing was created through the name
        }

        remove_tree(path_);
        unlink(target.c_str());
    }
}

TEST_F(SharedDb, LockOfAKilledHolderIsGivenBack) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const int id = vxapi_sem_get(VX_SEM_KEY_DBUPDATE);
        vxapi_sem_wait(id);
        const char c = 'x';
        (void)!write(ready[1], &c, 1);
        for (;;)
            pause();
    }
    close(ready[1]);
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    close(ready[0]);
    EXPECT_EQ(sem_value(VX_SEM_KEY_DBUPDATE), 0);
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(sem_value(VX_SEM_KEY_DBUPDATE), 1);
    EXPECT_EQ(open_db(), 0);  // would wait forever on a lost lock
}

TEST_F(SharedDb, EventThreadRunsWhileOpenAndStopsAtClose) {
    uint32_t err = 0;
    ASSERT_EQ(vxapi_alloc_api_priv_data_mem(&err), 0);  // the thread runs only while there are ports
    ASSERT_EQ(open_db(), 0);
    EXPECT_NE(vxapi_ev_thread_id, pthread_t{});
    EXPECT_EQ(pthread_kill(vxapi_ev_thread_id, 0), 0);
    EXPECT_EQ(vxapi_close_database(api_shm_fildes), 0);
    EXPECT_EQ(vxapi_ev_thread_id, pthread_t{});
}

}  // namespace
