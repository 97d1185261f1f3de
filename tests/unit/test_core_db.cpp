// Shared database: file creation and growth, slot claims, close, refusal of
// untrusted files. (Several processes on one file are tested end to end.)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
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
    // Zeros after the old end, but for our own owner record.
    const auto* grown = reinterpret_cast<const vxapi_shared_t*>(now.data());
    EXPECT_EQ(grown->libinst_owner[0].pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(grown->libinst_owner[0].slot, 1u);
    const size_t owners_end = offsetof(vxapi_shared_t, reserved);
    EXPECT_TRUE(std::all_of(now.begin() + OLD_SIZE, now.begin() + offsetof(vxapi_shared_t, libinst_owner),
                            [](char b) { return b == 0; }));
    EXPECT_TRUE(std::all_of(now.begin() + owners_end, now.end(), [](char b) { return b == 0; }));
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

// (Clients of other processes, live and killed, are tested end to end.)

// ---- Slot owners, on an in-memory copy of the layout ----

std::set<uint32_t> live_pids;
bool fake_alive(const vxapi_libinst_owner& o) { return live_pids.count(o.pid) != 0; }

constexpr uint32_t SELF = 1;

struct Image {
    Image() : shared(static_cast<vxapi_shared_t*>(calloc(1, sizeof(vxapi_shared_t)))) {}
    ~Image() { free(shared); }
    Flags flags() const {
        Flags f{};
        memcpy(f.data(), shared->libinst_flags, sizeof f);
        return f;
    }
    std::vector<std::pair<uint32_t, uint32_t>> owners() const {  // (pid, slot)
        std::vector<std::pair<uint32_t, uint32_t>> r;
        for (const vxapi_libinst_owner& o : shared->libinst_owner)
            if (o.pid != 0)
                r.emplace_back(o.pid, o.slot);
        return r;
    }
    vxapi_shared_t* shared;
};

TEST(SlotOwners, ClaimReclaimsDeadOwnersBeforeTheNinthProcessRule) {
    using Owners = std::vector<std::pair<uint32_t, uint32_t>>;
    const Owners one_per_slot = {{100, 0}, {101, 1}, {102, 2}, {103, 3}, {104, 4}, {105, 5}, {106, 6}, {107, 7}};
    const std::set<uint32_t> all_live = {100, 101, 102, 103, 104, 105, 106, 107};
    const struct {
        const char* name;
        Flags before;
        Owners owners;
        std::set<uint32_t> live;
        uint32_t slot;
        Flags after;
    } cases[] = {
        {"a dead owner's slot is reclaimed", {5, 5, 5, 5, 5, 5, 5, 5}, one_per_slot,
         {100, 101, 102, 104, 105, 106, 107}, 3, {5, 5, 5, 5, 5, 5, 5, 5}},
        {"every owner alive: slot 0 again", {5, 5, 5, 5, 5, 5, 5, 5}, one_per_slot, all_live, 0,
         {5, 1, 1, 1, 1, 1, 1, 1}},
        {"a claim lost to a ninth client is not shared while a slot is free", {5, 1, 1, 0, 0, 0, 0, 0},
         {{100, 0}, {101, 1}, {102, 2}}, {100, 101, 102}, 3, {5, 1, 1, 5, 0, 0, 0, 0}},
        {"no free slot: shares a slot whose claim was lost", {5, 1, 5, 5, 5, 5, 5, 5}, one_per_slot, all_live, 1,
         {5, 5, 5, 5, 5, 5, 5, 5}},
        {"owners not recorded: the first slot without a claim", {1, 5, 0, 0, 0, 0, 0, 0}, {}, {}, 0,
         {5, 5, 0, 0, 0, 0, 0, 0}},
        {"a dead owner's reserved bit stays", {0xD, 5, 0, 0, 0, 0, 0, 0}, {{100, 0}, {101, 1}}, {101}, 0,
         {0xD, 5, 0, 0, 0, 0, 0, 0}},
        {"malformed entries are forgotten", {0, 0, 0, 0, 0, 0, 0, 0}, {{100, 9}, {101, 0xFFFFFFFF}}, {100, 101}, 0,
         {5, 0, 0, 0, 0, 0, 0, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Image img;
        memcpy(img.shared->libinst_flags, c.before.data(), sizeof c.before);
        for (size_t i = 0; i < c.owners.size(); ++i)
            img.shared->libinst_owner[i] = {c.owners[i].first, c.owners[i].second, 77};
        for (auto& q : img.shared->hbaptevq)
            q.q_tail = 3;
        live_pids = c.live;
        live_pids.insert(SELF);
        EXPECT_EQ(vxapi_claim_slot(img.shared, {SELF, 0, 5}, fake_alive), c.slot);
        EXPECT_EQ(img.flags(), c.after);
        // Dead and malformed owners are gone, we are recorded; queues of freed and claimed slots emptied.
        Owners want;
        for (const auto& o : c.owners)
            if (c.live.count(o.first) && o.second < VX_LIBINST_SLOTS)
                want.push_back(o);
        want.emplace_back(SELF, c.slot);
        Owners got = img.owners();
        std::sort(got.begin(), got.end());
        std::sort(want.begin(), want.end());
        EXPECT_EQ(got, want);
        EXPECT_EQ(img.shared->hbaptevq[c.slot].q_tail, 0u);
    }
}

TEST(SlotOwners, ReleaseAndLastClientFollowLiveOwners) {
    Image img;
    live_pids = {SELF, 200};
    img.shared->libinst_owner[0] = {SELF, 0, 5};
    img.shared->libinst_owner[1] = {200, 0, 9};  // shares slot 0 after a ninth client
    img.shared->libinst_flags[0] = 5;
    vxapi_release_slot(img.shared, 0, {SELF, 0, 5}, fake_alive);
    EXPECT_EQ(img.flags(), (Flags{5, 0, 0, 0, 0, 0, 0, 0}));  // still held by 200
    EXPECT_EQ(vxapi_count_other_clients(img.shared, {SELF, 0, 5}, fake_alive), 1u);

    live_pids.erase(200);  // killed
    EXPECT_EQ(vxapi_count_other_clients(img.shared, {SELF, 0, 5}, fake_alive), 0u);
    img.shared->libinst_flags[3] = VX_LIBINST_RESERVED;  // someone without an owner record
    EXPECT_EQ(vxapi_count_other_clients(img.shared, {SELF, 0, 5}, fake_alive), 1u);
    EXPECT_EQ(vxapi_reclaim_dead_slots(img.shared, fake_alive), 1u);
    EXPECT_EQ(img.flags(), (Flags{0, 0, 0, VX_LIBINST_RESERVED, 0, 0, 0, 0}));
}

TEST(SlotOwners, ProcStatFields) {
    auto stat_text = [](const std::string& comm, const std::string& start) {
        std::string t = "4321 (" + comm + ") S 1";
        for (int field = 5; field < 22; ++field)
            t += " " + std::to_string(field);
        return t + " " + start + " 23 24\n";
    };
    const struct {
        const char* name;
        std::string text;
        int result;
        uint64_t start;
    } cases[] = {
        {"plain", stat_text("cat", "987654"), 0, 987654},
        {"name with blanks and parentheses", stat_text("a) (b c) S 9", "42"), 0, 42},
        {"start time last", stat_text("x", "42").substr(0, stat_text("x", "42").size() - 7), 0, 42},
        {"cut before the start time", stat_text("x", "42").substr(0, 30), 1, 0},
        {"no name", "4321 S 1 2 3", 1, 0},
        {"start time not a number", stat_text("x", "12a"), 1, 0},
        {"start time too large", stat_text("x", "99999999999999999999999"), 1, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        char state = '?';
        uint64_t start = 0;
        EXPECT_EQ(vxapi_parse_proc_stat(c.text.data(), c.text.size(), &state, &start), c.result);
        if (c.result == 0) {
            EXPECT_EQ(start, c.start);
            EXPECT_EQ(state, 'S');
        }
    }
}

TEST(SlotOwners, LivenessFromProc) {
    const vxapi_libinst_owner self = vxapi_self_owner();
    ASSERT_NE(self.start_time, 0u);
    EXPECT_TRUE(vxapi_owner_alive(self));
    EXPECT_FALSE(vxapi_owner_alive({self.pid, 0, self.start_time + 1}));  // same pid, another process

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0)
        _exit(0);
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);  // ended, a zombie until reaped
    EXPECT_FALSE(vxapi_owner_alive({static_cast<uint32_t>(child), 0, 0}));
    waitpid(child, nullptr, 0);
    EXPECT_FALSE(vxapi_owner_alive({static_cast<uint32_t>(child), 0, 0}));
}

}  // namespace
