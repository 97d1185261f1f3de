// Shared database: file creation and growth, slot claims, close, refusal of
// untrusted files. (Several processes on one file are tested end to end.)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "unit_support.h"
#include "vx_core.h"
#include "vx_event.h"
#include "vx_sddbg.h"

namespace {

using Flags = std::array<uint32_t, VX_LIBINST_SLOTS>;

constexpr size_t QUEUE_OFFSET = offsetof(vxapi_shared_t, hbaptevq);
constexpr size_t QUEUE_SIZE = sizeof(vxapi_hbaptevq_t);

int sem_value(int key) {
    const int id = semget(key, 1, 0);
    return id == -1 ? -1 : semctl(id, 0, GETVAL);
}

class SharedDb : public testing::Test {
protected:
    void SetUp() override {
        VX_REQUIRE_PRIVATE_IPC();
        dir_ = make_temp_dir();
        path_ = dir_ + "/vx_shared.dat";
        ASSERT_LT(path_.size(), sizeof vx_db_fname);
        memcpy(saved_name_, vx_db_fname, sizeof saved_name_);
        snprintf(vx_db_fname, sizeof vx_db_fname, "%s", path_.c_str());
        snprintf(vxdbglog_path, sizeof vxdbglog_path, "%s/trace.log", dir_.c_str());
    }

    void TearDown() override {
        if (api_shm_fildes >= 0 || api_shared_data)
            vxapi_close_database(api_shm_fildes);
        for (int key : {VX_SEM_KEY_DBUPDATE, VX_SEM_KEY_FLASH})
            if (int id = semget(key, 1, 0); id != -1)
                semctl(id, 0, IPC_RMID);
        api_dbupdate_sem_id = api_flash_sem_id = -1;
        memcpy(vx_db_fname, saved_name_, sizeof saved_name_);
        vxdbglog_path[0] = '\0';
        if (!dir_.empty())
            remove_tree(dir_);
    }

    // Writes the file as another process would have left it.
    void write_db(const std::string& path, const std::vector<uint8_t>& bytes) const {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        close(fd);
    }
    static std::vector<uint8_t> image_with(const Flags& flags, size_t size = VX_SHARED_FILE_SIZE) {
        std::vector<uint8_t> bytes(size, 0);
        memcpy(bytes.data(), flags.data(), sizeof flags);
        return bytes;
    }
    Flags file_flags() const {
        Flags flags{};
        const std::string s = read_file(path_);
        memcpy(flags.data(), s.data(), std::min(s.size(), sizeof flags));
        return flags;
    }
    static int open_db() {
        int fd = -1;
        return vxapi_open_database(&fd);
    }

    std::string dir_, path_;
    char saved_name_[VX_DB_FNAME_LEN] = {};
};

// Another slot in use keeps the file at close, with our own queue emptied.
// (The removal with the locks at the last close is tested end to end.)
TEST_F(SharedDb, CreatedReadableByAllAndKeptAtCloseWhileAnotherSlotIsInUse) {
    const mode_t old_mask = umask(077);
    ASSERT_EQ(open_db(), 0);
    umask(old_mask);
    struct stat st {};
    ASSERT_EQ(stat(path_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    EXPECT_EQ(file_flags(), (Flags{0x05, 0, 0, 0, 0, 0, 0, 0}));  // the mapping is the file
    EXPECT_EQ(sem_value(VX_SEM_KEY_DBUPDATE), 1);

    api_shared_data->libinst_flags[3] = 0x08;  // another process
    api_shared_data->hbaptevq[0].q_tail = 9;
    EXPECT_EQ(vxapi_close_database(api_shm_fildes), 0);
    EXPECT_EQ(api_shared_data, nullptr);
    EXPECT_EQ(file_flags(), (Flags{0, 0, 0, 0x08, 0, 0, 0, 0}));
    EXPECT_EQ(sem_value(VX_SEM_KEY_DBUPDATE), 1);
    const std::string bytes = read_file(path_);
    EXPECT_EQ(reinterpret_cast<const vxapi_hbaptevq_t*>(bytes.data() + QUEUE_OFFSET)->q_tail, 0u);
}

TEST_F(SharedDb, SmallerFileGrowsKeepingItsBytes) {
    // An older library's file: slot 0 held, queues of slots 2-7 with content.
    constexpr size_t OLD_SIZE = 131264;
    std::vector<uint8_t> old = image_with({0x05, 0, 0, 0, 0, 0, 0, 0}, OLD_SIZE);
    const size_t kept_from = QUEUE_OFFSET + 2 * QUEUE_SIZE;
    for (size_t i = kept_from; i < OLD_SIZE; ++i)
        old[i] = static_cast<uint8_t>(i * 7 + 3);
    write_db(path_, old);

    ASSERT_EQ(open_db(), 0);
    EXPECT_EQ(api_library_instance, 1u);
    const std::string now = read_file(path_);
    ASSERT_EQ(now.size(), VX_SHARED_FILE_SIZE);
    EXPECT_EQ(file_flags(), (Flags{0x05, 0x05, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(std::equal(old.begin() + kept_from, old.end(), reinterpret_cast<const uint8_t*>(now.data()) + kept_from));
    EXPECT_TRUE(std::all_of(now.begin() + OLD_SIZE, now.end(), [](char b) { return b == 0; }));
}

// (Claims in turn and the reclaim of slot 0 are tested end to end.)
TEST_F(SharedDb, SlotClaim) {
    const struct {
        const char* name;
        Flags before;
        uint32_t slot;
        Flags after;
    } cases[] = {
        {"hole in the middle", {5, 5, 0, 5, 0, 0, 0, 0}, 2, {5, 5, 5, 5, 0, 0, 0, 0}},
        {"held without claim", {1, 5, 0, 0, 0, 0, 0, 0}, 0, {5, 5, 0, 0, 0, 0, 0, 0}},
        {"reserved bit is kept", {8, 0, 0, 0, 0, 0, 0, 0}, 0, {0xD, 0, 0, 0, 0, 0, 0, 0}},
        {"all claimed, other bits kept", {4, 0xC, 4, 4, 4, 4, 4, 0xD}, 0, {5, 8, 0, 0, 0, 0, 0, 9}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // Every queue carries one event and a tail; only the claimed slot's is emptied.
        std::vector<uint8_t> bytes = image_with(c.before);
        for (uint32_t s = 0; s < VX_LIBINST_SLOTS; ++s) {
            auto* q = reinterpret_cast<vxapi_hbaptevq_t*>(bytes.data() + QUEUE_OFFSET + s * QUEUE_SIZE);
            q->eventbuf[0].AsyncEventCode = 0x8011;
            q->q_tail = 1;
        }
        write_db(path_, bytes);
        ASSERT_EQ(open_db(), 0);
        EXPECT_EQ(api_library_instance, c.slot);
        EXPECT_EQ(file_flags(), c.after);
        for (uint32_t s = 0; s < VX_LIBINST_SLOTS; ++s) {
            const vxapi_hbaptevq_t& q = api_shared_data->hbaptevq[s];
            EXPECT_EQ(q.eventbuf[0].AsyncEventCode == 0 && q.q_tail == 0, s == c.slot) << "slot " << s;
        }
        vxapi_close_database(api_shm_fildes);
        unlink(path_.c_str());
    }
}

TEST_F(SharedDb, UntrustedFilesAreRefusedUntouched) {
    const std::string target = dir_ + "/target";
    const std::vector<uint8_t> content(1000, 0x5A);
    const struct {
        const char* name;
        std::function<void()> plant;
        bool target_exists;  // the planted thing points at `target`
    } cases[] = {
        {"symlink to a file", [&] { write_db(target, content); ASSERT_EQ(symlink(target.c_str(), path_.c_str()), 0); },
         true},
        {"dangling symlink", [&] { ASSERT_EQ(symlink(target.c_str(), path_.c_str()), 0); }, false},
        {"directory", [&] { ASSERT_EQ(mkdir(path_.c_str(), 0755), 0); }, false},
        {"fifo", [&] { ASSERT_EQ(mkfifo(path_.c_str(), 0644), 0); }, false},
        {"file of another user", [&] { write_db(path_, content); ASSERT_EQ(chown(path_.c_str(), 65534, 65534), 0); },
         false},
        {"file with a second name", [&] { write_db(target, content); ASSERT_EQ(link(target.c_str(), path_.c_str()), 0); },
         true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        c.plant();
        struct stat before {}, after {};
        ASSERT_EQ(lstat(path_.c_str(), &before), 0);
        int fd = -1;
        EXPECT_NE(vxapi_open_database(&fd), 0);
        EXPECT_EQ(api_shm_fildes, -1);
        EXPECT_EQ(api_shared_data, nullptr);
        EXPECT_EQ(sem_value(VX_SEM_KEY_DBUPDATE), 1);  // the lock is not left held
        ASSERT_EQ(lstat(path_.c_str(), &after), 0);
        EXPECT_EQ(std::tie(after.st_ino, after.st_mode, after.st_uid, after.st_size),
                  std::tie(before.st_ino, before.st_mode, before.st_uid, before.st_size));
        // The target keeps its content; nothing was created through a name that pointed nowhere.
        EXPECT_EQ(read_file(target), c.target_exists ? std::string(content.begin(), content.end()) : "");
        EXPECT_EQ(access(target.c_str(), F_OK) == 0, c.target_exists);
        remove_tree(path_);
        unlink(target.c_str());
    }
}

}  // namespace
