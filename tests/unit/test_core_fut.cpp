// Flash-update tokens: the table rules, the slot bytes, the SD calls over an
// open database and the mock channel, and the file store's refusals.
// (Processes racing for one token are tested end to end.)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mock_channel.h"
#include "unit_support.h"
#include "vsdmgt.h"
#include "vx_core.h"
#include "vx_core_flash.h"
#include "vx_sddbg.h"

namespace {

using vxmock::slot;

constexpr uint16_t CRANE = 0x2070, LARK = 0x2020;
constexpr uint32_t SYSFS_PORT = VX_FEAT_SYSFS | VX_FEAT_BSG;
constexpr int64_t T0 = 1'780'000'000;  // a time in 2026

struct Table {
    vxapi_flash_update_token fut[VX_FLASH_TOKENS] = {};
    void hold(uint32_t i, const char* id, int32_t pid, int64_t expiry) {
        fut[i].token = pid;
        snprintf(fut[i].serial_num, sizeof fut[i].serial_num, "%s", id);
        vxapi_fut_set_expiry(fut[i], expiry);
    }
};

TEST(FutTable, ExpiryIsTwoBigEndianHalves) {
    vxapi_flash_update_token slot{};
    vxapi_fut_set_expiry(slot, 0x6A1B2C3D);
    const auto* raw = reinterpret_cast<const uint8_t*>(&slot) + 132;
    const uint8_t want[8] = {0, 0, 0, 0, 0x6A, 0x1B, 0x2C, 0x3D};
    EXPECT_EQ(memcmp(raw, want, 8), 0);
    EXPECT_EQ(vxapi_fut_expiry(slot), 0x6A1B2C3D);
    // Past 2038 the low half alone would read as negative: the high half
    // keeps the time's own bits, so such a token is not taken as expired.
    vxapi_fut_set_expiry(slot, 0x80000010LL);
    const uint8_t late[8] = {0, 0, 0, 0, 0x80, 0, 0, 0x10};
    EXPECT_EQ(memcmp(raw, late, 8), 0);
    EXPECT_EQ(vxapi_fut_expiry(slot), 0x80000010LL);
}

TEST(FutTable, TakeFindsTheAdaptersSlotOrTheFirstFree) {
    struct Case {
        const char* what;
        std::vector<std::tuple<uint32_t, const char*, int64_t>> held;  // slot, identity, expiry
        int want;
    } cases[] = {
        {"empty table: slot 0", {}, 0},
        {"first free after others", {{0, "B", T0 + 10}, {1, "C", T0 + 10}}, 2},
        {"own expired slot reused", {{0, "B", T0 + 10}, {1, "A", T0 - 1}}, 1},
        {"own slot wins over an earlier free one", {{0, "B", T0 + 10}, {3, "A", T0 - 5}}, 3},
        {"own live slot taken over (the caller checked first)", {{4, "A", T0 + 100}}, 4},
    };
    for (const Case& c : cases) {
        Table t;
        for (const auto& [i, id, exp] : c.held)
            t.hold(i, id, 4242, exp);
        ASSERT_EQ(vxapi_fut_table_take(t.fut, "A", 77, T0), c.want) << c.what;
        EXPECT_EQ(t.fut[c.want].token, 77) << c.what;
        EXPECT_STREQ(t.fut[c.want].serial_num, "A") << c.what;
        EXPECT_EQ(vxapi_fut_expiry(t.fut[c.want]), T0 + VX_FUT_LIFETIME) << c.what;
    }
    Table full;
    for (uint32_t i = 0; i < VX_FLASH_TOKENS; ++i)
        full.hold(i, ("other" + std::to_string(i)).c_str(), 100 + static_cast<int32_t>(i), T0 + 100);
    EXPECT_EQ(vxapi_fut_table_take(full.fut, "A", 77, T0), -1) << "all 32 slots held by other adapters";
}

TEST(FutTable, LiveExpiredAndClear) {
    Table t;
    t.hold(2, "A", 500, T0 + 1);
    t.hold(5, "B", 600, T0 - 1);
    EXPECT_EQ(vxapi_fut_table_live(t.fut, "A", T0), 2);
    EXPECT_EQ(vxapi_fut_table_live(t.fut, "A", T0 + 1), -1) << "expiry now is not later than now";
    EXPECT_EQ(vxapi_fut_table_live(t.fut, "B", T0), -1);
    EXPECT_EQ(vxapi_fut_table_expired(t.fut, "B", T0), 5);
    EXPECT_EQ(vxapi_fut_table_expired(t.fut, "A", T0), -1);
    EXPECT_EQ(vxapi_fut_table_expired(t.fut, "C", T0), -1) << "no token is not an expired one";

    EXPECT_EQ(vxapi_fut_table_clear(t.fut, "A", 600), -1) << "another process's token";
    EXPECT_EQ(vxapi_fut_table_clear(t.fut, "B", 500), -1) << "another adapter's";
    EXPECT_EQ(t.fut[2].token, 500);
    memset(t.fut[2].reserved, 0xAB, sizeof t.fut[2].reserved);
    EXPECT_EQ(vxapi_fut_table_clear(t.fut, "A", 500), 2);
    const vxapi_flash_update_token zero{};
    EXPECT_EQ(memcmp(&t.fut[2], &zero, sizeof zero), 0) << "all 256 bytes";
}

// ---- The SD calls over a database of this process ----

class FutCalls : public testing::Test {
protected:
    vxmock::registry reg;
    vxmock::channel mock;

    void SetUp() override {
        VX_REQUIRE_PRIVATE_IPC();
        dir_ = make_temp_dir();
        memcpy(saved_db_, vx_db_fname, sizeof saved_db_);
        memcpy(saved_prefix_, vx_fut_file_prefix, sizeof saved_prefix_);
        snprintf(vx_db_fname, sizeof vx_db_fname, "%s/db", dir_.c_str());
        snprintf(vx_fut_file_prefix, sizeof vx_fut_file_prefix, "%s/fu_", dir_.c_str());
        ASSERT_LT(dir_.size() + 4, sizeof vx_fut_file_prefix);
        ASSERT_EQ(vxapi_open_database(nullptr), 0);
        ofu_enabled = 0;
    }
    void TearDown() override {
        OS_Type = VX_OS_LINUX;
        ofu_enabled = 0;
        if (api_shared_data)
            vxapi_close_database(api_shm_fildes);
        for (int key : {VX_SEM_KEY_DBUPDATE, VX_SEM_KEY_FLASH})
            if (int id = semget(key, 1, 0); id != -1)
                semctl(id, 0, IPC_RMID);
        api_dbupdate_sem_id = api_flash_sem_id = -1;
        memcpy(vx_db_fname, saved_db_, sizeof saved_db_);
        memcpy(vx_fut_file_prefix, saved_prefix_, sizeof saved_prefix_);
        if (!dir_.empty())
            remove_tree(dir_);
    }

    vxapi_priv_database* port(uint16_t device_id, const char* serial, uint16_t function = 0) {
        vxapi_priv_database* p = reg.port(SYSFS_PORT, device_id, 4, function);
        mock.install(p);
        if (!p || !p->phy_info) {
            ADD_FAILURE() << "no port record";
            return p;
        }
        snprintf(reinterpret_cast<char*>(p->phy_info->serial_num), sizeof p->phy_info->serial_num, "%s", serial);
        return p;
    }
    // The reads an update's end makes: the layout (none kept here) and the image set.
    void expect_end_refresh() { mock.expect(slot::get_active_image_set); }
    vxapi_flash_update_token& slot_of(int i) { return api_shared_data->fut[i]; }

    std::string dir_;
    char saved_db_[sizeof vx_db_fname];
    char saved_prefix_[sizeof vx_fut_file_prefix];
};

TEST_F(FutCalls, RefusedBeforeAnyToken) {
    vxapi_priv_database* crane = port(CRANE, "VXC1");
    const int h = vxmock::registry::handle(crane);
    const int lark = vxmock::registry::handle(port(LARK, "VXL1"));
    const int vport = vxmock::registry::handle(reg.vport(crane));
    SD_UINT32 token = 0, holder = 0, left = 0;
    const struct {
        const char* what;
        SD_UINT32 got;
        SD_UINT32 want;
    } rows[] = {
        {"bad handle", SDStartFlashUpdate(999, 0, &token), SDM_STATUS_INVALID_HANDLE},
        {"other family", SDStartFlashUpdate(lark, 0, &token), SDM_STATUS_NOT_SUPPORTED},
        {"virtual port", SDStartFlashUpdate(vport, 0, &token), SDM_STATUS_NOT_SUPPORTED},
        {"null token", SDStartFlashUpdate(h, 0, nullptr), SDM_STATUS_INVALID_PARAMETER},
        {"end, other family", SDEndFlashUpdate(lark, 0, 1), SDM_STATUS_NOT_SUPPORTED},
        {"end, virtual port", SDEndFlashUpdate(vport, 0, 1), SDM_STATUS_NOT_SUPPORTED},
        {"holder, none", SDGetFlashUpdateTokenHolder(h, 0, &holder, &left), SDM_STATUS_DEVICE_NOT_FOUND},
        {"activate, other family", SDOnlineActivateFlashUpdate(lark, 0), SDM_STATUS_NOT_SUPPORTED},
        {"activate, virtual port", SDOnlineActivateFlashUpdate(vport, 0), SDM_STATUS_NOT_SUPPORTED},
        {"attributes, virtual port", SDSendFlashUpdateFWAttributes(vport, 0, nullptr), SDM_STATUS_NOT_SUPPORTED},
        {"attributes, null", SDSendFlashUpdateFWAttributes(h, 0, nullptr), SDM_STATUS_INVALID_PARAMETER},
        {"capabilities, null", SDGetFlashUpdateCapabilities(h, 0, nullptr), SDM_STATUS_INVALID_PARAMETER},
    };
    for (const auto& r : rows)
        EXPECT_EQ(r.got, r.want) << r.what;
    const vxapi_flash_update_token zero{};
    for (uint32_t i = 0; i < VX_FLASH_TOKENS; ++i)
        EXPECT_EQ(memcmp(&slot_of(static_cast<int>(i)), &zero, sizeof zero), 0) << "slot " << i;
    EXPECT_EQ(ofu_enabled, 0);
}

TEST_F(FutCalls, StartHoldEnd) {
    vxapi_priv_database* crane = port(CRANE, "VXC1");
    const int h = vxmock::registry::handle(crane);
    // The board's other port shares the serial number, so the token.
    const int sibling = vxmock::registry::handle(port(CRANE, "VXC1", 1));
    SD_UINT32 token = 0, again = 0;
    ASSERT_EQ(SDStartFlashUpdate(h, 0, &token), SDM_STATUS_SUCCESS);
    EXPECT_EQ(token, static_cast<SD_UINT32>(getpid()));
    EXPECT_EQ(ofu_enabled, 1);
    EXPECT_EQ(slot_of(0).token, getpid());
    EXPECT_STREQ(slot_of(0).serial_num, "VXC1");
    const int64_t expiry = vxapi_fut_expiry(slot_of(0));
    EXPECT_GE(expiry, time(nullptr) + VX_FUT_LIFETIME - 2);
    EXPECT_LE(expiry, time(nullptr) + VX_FUT_LIFETIME);

    EXPECT_EQ(SDStartFlashUpdate(h, 0, &again), SDM_STATUS_FLASH_TOKEN_HELD);
    EXPECT_EQ(SDStartFlashUpdate(sibling, 0, &again), SDM_STATUS_FLASH_TOKEN_HELD);
    SD_UINT32 holder = 0, left = 0;
    ASSERT_EQ(SDGetFlashUpdateTokenHolder(sibling, 0, &holder, &left), SDM_STATUS_SUCCESS);
    EXPECT_EQ(holder, token);
    EXPECT_GT(left, 890u);
    EXPECT_LE(left, 900u);

    // A wrong token leaves the slot as it was; the update mode ends all the same.
    expect_end_refresh();
    EXPECT_EQ(SDEndFlashUpdate(h, 0, token + 1), SDM_STATUS_UNKNOWN_ERROR);
    EXPECT_EQ(slot_of(0).token, getpid());
    EXPECT_EQ(ofu_enabled, 0);
    expect_end_refresh();
    EXPECT_EQ(SDEndFlashUpdate(h, 0, token), SDM_STATUS_SUCCESS);
    EXPECT_EQ(slot_of(0).token, 0);
    EXPECT_EQ(SDGetFlashUpdateTokenHolder(h, 0, &holder, &left), SDM_STATUS_DEVICE_NOT_FOUND);
}

TEST_F(FutCalls, ExpiredTokens) {
    const int h = vxmock::registry::handle(port(CRANE, "VXC1"));
    api_shared_data->fut[0].token = 1;  // another adapter first
    snprintf(api_shared_data->fut[0].serial_num, 128, "VXC9");
    vxapi_fut_set_expiry(api_shared_data->fut[0], time(nullptr) + 500);
    SD_UINT32 token = 0;
    ASSERT_EQ(SDStartFlashUpdate(h, 0, &token), SDM_STATUS_SUCCESS);
    ASSERT_EQ(slot_of(1).token, getpid());

    // Expired: ending is refused and the slot stays; another process's
    // token of the adapter counts the same, whatever token is given.
    vxapi_fut_set_expiry(slot_of(1), time(nullptr) - 1);
    slot_of(1).token = 31337;
    EXPECT_EQ(SDEndFlashUpdate(h, 0, token), SDM_STATUS_FLASH_TOKEN_EXPIRED);
    EXPECT_EQ(slot_of(1).token, 31337);
    // A new start reuses the adapter's slot, even with slot 0 free again.
    memset(&slot_of(0), 0, sizeof slot_of(0));
    ASSERT_EQ(SDStartFlashUpdate(h, 0, &token), SDM_STATUS_SUCCESS);
    EXPECT_EQ(slot_of(1).token, getpid());
    EXPECT_EQ(slot_of(0).token, 0);
    expect_end_refresh();
    EXPECT_EQ(SDEndFlashUpdate(h, 0, token), SDM_STATUS_SUCCESS);
}

TEST_F(FutCalls, AllSlotsHeldByOtherAdapters) {
    const int h = vxmock::registry::handle(port(CRANE, "VXC1"));
    for (uint32_t i = 0; i < VX_FLASH_TOKENS; ++i) {
        slot_of(static_cast<int>(i)).token = 1000 + static_cast<int32_t>(i);
        snprintf(slot_of(static_cast<int>(i)).serial_num, 128, "other%u", i);
        vxapi_fut_set_expiry(slot_of(static_cast<int>(i)), time(nullptr) + 100);
    }
    SD_UINT32 token = 0;
    EXPECT_EQ(SDStartFlashUpdate(h, 0, &token), SDM_STATUS_UNKNOWN_ERROR);
    EXPECT_EQ(ofu_enabled, 0);
}

TEST_F(FutCalls, OnlineModeWritesNeedTheToken) {
    vxapi_priv_database* crane = port(CRANE, "VXC1");
    const int h = vxmock::registry::handle(crane);
    auto* flt = static_cast<INT_OPT_ROM_LAYOUT*>(calloc(1, sizeof(INT_OPT_ROM_LAYOUT)));
    const INT_OPT_ROM_REGION rows[] = {{0x01 | (1u << 17), 0x10000, 0x100000, 0x10FFFF},
                                       {0x13, 0x10000, 0x200000, 0x20FFFF}};
    flt->NoOfRegions = 2;
    memcpy(flt->Region, rows, sizeof rows);
    crane->phy_info->pflt_layout = flt;
    std::vector<uint8_t> image(0x100, 0x5A);

    ofu_enabled = 1;  // left set by a start whose token has since gone
    EXPECT_EQ(SDUpdateOptionRomEx2(h, 0, image.data(), 0x100, 0x01), SDM_STATUS_FLASH_TOKEN_NOT_SET);
    // A region outside the token's list is written without one.
    mock.expect(slot::update_optrom).with_arg(0x13);
    EXPECT_EQ(SDUpdateOptionRomEx2(h, 0, image.data(), 0x100, 0x13), SDM_STATUS_SUCCESS);

    SD_UINT32 token = 0;
    ASSERT_EQ(SDStartFlashUpdate(h, 0, &token), SDM_STATUS_SUCCESS);
    // In online mode the firmware is not reset after its write.
    mock.expect(slot::update_optrom).with_arg(0x01);
    EXPECT_EQ(SDUpdateOptionRomEx2(h, 0, image.data(), 0x100, 0x01), SDM_STATUS_SUCCESS);
    expect_end_refresh();
    ASSERT_EQ(SDEndFlashUpdate(h, 0, token), SDM_STATUS_SUCCESS);

    // The online start: the driver checks the attributes, then the
    // firmware's reset code goes to the port.
    crane->phy_info->running_fw_attributes = 0x100000003ull;
    mock.expect(slot::flash_update_caps).with_arg(1).status(EXT_STATUS_INVALID_PARAM);
    EXPECT_EQ(SDOnlineActivateFlashUpdate(h, 0), SDM_STATUS_REGION_RESET_FAILED);
    mock.expect(slot::flash_update_caps).with_arg(1);
    mock.expect(slot::activate_region).with_arg(0x0101);
    EXPECT_EQ(SDOnlineActivateFlashUpdate(h, 0), SDM_STATUS_SUCCESS);

    // Without a firmware region there is nothing to start.
    flt->Region[0].Region = 0x07;
    mock.expect(slot::flash_update_caps).with_arg(1);
    EXPECT_EQ(SDOnlineActivateFlashUpdate(h, 0), SDM_STATUS_REGION_RESET_FAILED);
}

TEST_F(FutCalls, AttributesReachTheDriver) {
    vxapi_priv_database* crane = port(CRANE, "VXC1");
    const int h = vxmock::registry::handle(crane);
    EXT_FLASH_UPDATE_CAPS answer{};
    answer.Capabilities = 0x100000003ull;
    answer.OutageDuration = 3;
    mock.expect(slot::flash_update_caps).with_arg(0).with_size(32).answer(answer);
    SDM_FLASH_UPDATE_CAPS caps;
    memset(&caps, 0xEE, sizeof caps);
    ASSERT_EQ(SDGetFlashUpdateCapabilities(h, 0, &caps), SDM_STATUS_SUCCESS);
    EXPECT_EQ(caps.Capabilities, 0x100000003ull);
    EXPECT_EQ(caps.OutageDuration, 3u);
    EXPECT_EQ(caps.Reserved[0], 0xEE) << "fields written one by one";

    SDM_FLASH_UPDATE_CAPS next{};
    next.Capabilities = 0x200000001ull;
    mock.expect(slot::flash_update_caps).with_arg(1).status(EXT_STATUS_INVALID_PARAM);
    EXPECT_EQ(SDSendFlashUpdateFWAttributes(h, 0, &next), SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(crane->phy_info->new_fw_attributes, 0u) << "refused attributes are not kept";
    next.Capabilities = 0x100000001ull;
    mock.expect(slot::flash_update_caps).with_arg(1);
    EXPECT_EQ(SDSendFlashUpdateFWAttributes(h, 0, &next), SDM_STATUS_SUCCESS);
    EXPECT_EQ(crane->phy_info->new_fw_attributes, 0x100000001ull);
}

TEST_F(FutCalls, LastClientKeepsTheFileWhileATokenLives) {
    const int h = vxmock::registry::handle(port(CRANE, "VXC1"));
    SD_UINT32 token = 0;
    ASSERT_EQ(SDStartFlashUpdate(h, 0, &token), SDM_STATUS_SUCCESS);
    const std::string db = vx_db_fname;
    ASSERT_EQ(vxapi_close_database(api_shm_fildes), 0);
    ASSERT_EQ(access(db.c_str(), F_OK), 0) << "the holder may have died mid-update";
    ASSERT_EQ(vxapi_open_database(nullptr), 0);
    EXPECT_EQ(slot_of(0).token, getpid());
    vxapi_fut_set_expiry(slot_of(0), time(nullptr) - 1);
    ASSERT_EQ(vxapi_close_database(api_shm_fildes), 0);
    EXPECT_NE(access(db.c_str(), F_OK), 0) << "expired: nothing to keep";
}

// ---- The file store of the service console ----

TEST_F(FutCalls, FileStore) {
    OS_Type = VX_OS_ESX;
    const int h = vxmock::registry::handle(port(CRANE, "VXC1"));
    const std::string path = std::string(vx_fut_file_prefix) + "VXC1";
    SD_UINT32 token = 0, again = 0;
    ASSERT_EQ(SDStartFlashUpdate(h, 0, &token), SDM_STATUS_SUCCESS);
    unsigned long long expiry = 0;
    int owner = 0;
    ASSERT_EQ(sscanf(read_file(path).c_str(), "%llu\n%d\n", &expiry, &owner), 2) << read_file(path);
    EXPECT_EQ(owner, getpid());
    EXPECT_NEAR(static_cast<double>(expiry), static_cast<double>(time(nullptr) + VX_FUT_LIFETIME), 2);
    EXPECT_EQ(SDStartFlashUpdate(h, 0, &again), SDM_STATUS_FLASH_TOKEN_HELD);
    expect_end_refresh();
    EXPECT_EQ(SDEndFlashUpdate(h, 0, token + 1), SDM_STATUS_UNKNOWN_ERROR);
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
    expect_end_refresh();
    EXPECT_EQ(SDEndFlashUpdate(h, 0, token), SDM_STATUS_SUCCESS);
    EXPECT_NE(access(path.c_str(), F_OK), 0);

    // An expired file: refused at the end, replaced at the next start.
    FILE* f = fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fprintf(f, "%llu\n%d\n", static_cast<unsigned long long>(time(nullptr) - 1), 4242);
    fclose(f);
    EXPECT_EQ(SDEndFlashUpdate(h, 0, 4242), SDM_STATUS_FLASH_TOKEN_EXPIRED);
    ASSERT_EQ(SDStartFlashUpdate(h, 0, &token), SDM_STATUS_SUCCESS);
    unlink(path.c_str());

    // Files that are not plain files of this user are neither believed nor
    // written: a symbolic link (its target stays as it was) and a file of
    // another user.
    const std::string target = dir_ + "/target";
    f = fopen(target.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fputs("precious\n", f);
    fclose(f);
    ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
    EXPECT_EQ(SDStartFlashUpdate(h, 0, &token), SDM_STATUS_UNKNOWN_ERROR);
    EXPECT_EQ(read_file(target), "precious\n");
    unlink(path.c_str());
    f = fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fprintf(f, "%llu\n%d\n", static_cast<unsigned long long>(time(nullptr) + 800), 4242);
    fclose(f);
    ASSERT_EQ(chown(path.c_str(), 1234, 1234), 0);
    EXPECT_EQ(SDStartFlashUpdate(h, 0, &token), SDM_STATUS_UNKNOWN_ERROR) << "a foreign file is not taken over";
    expect_end_refresh();
    EXPECT_EQ(SDEndFlashUpdate(h, 0, 4242), SDM_STATUS_UNKNOWN_ERROR);
    EXPECT_EQ(access(path.c_str(), F_OK), 0) << "nor removed";
}

}  // namespace
