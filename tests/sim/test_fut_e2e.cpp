// Online flash update in simulated hosts: processes racing for one
// adapter's token, the token of a killed holder running out on the host's
// clock, and the whole update with its online start over ioctl. (The same
// over bsg, and the driver's module parameters, are tested through vxcli.)
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "libtest.h"
#include "vsdmgt.h"

namespace {

namespace st = vxsim::test;
enum Outcome { WON = 0, REFUSED = 1, BROKEN = 2 };

int open_first(int* h) {
    if (SDGetNumberOfAdapters() == 0)
        return 1;
    return SDOpenDevice(0, h) == SDM_STATUS_SUCCESS ? 0 : 1;
}

// Ends whatever token the adapter has, as its holder would (the token is the
// holder's process id). 0 when one was ended.
int end_held_token() {
    int h = 0;
    SD_UINT32 holder = 0, left = 0;
    if (open_first(&h) != 0 || SDGetFlashUpdateTokenHolder(h, 0, &holder, &left) != SDM_STATUS_SUCCESS)
        return 1;
    return SDEndFlashUpdate(h, 0, holder) == SDM_STATUS_SUCCESS ? 0 : 2;
}

SIM_TEST(FlashToken, TwoProcessesRacingOneWinsEveryRound, "crane.json") {
    constexpr int ROUNDS = 25;
    auto* ready = static_cast<std::atomic<int>*>(
        mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(ready, MAP_FAILED);
    for (int round = 0; round < ROUNDS; ++round) {
        ready->store(0);
        // Both load and open first, then start at the same moment; one
        // asks through the board's first port, the other through its second.
        const std::vector<int> got = st::run_children(2, [&](int i) {
            int h = 0;
            if (SDGetNumberOfAdapters() != 2 || SDOpenDevice(static_cast<SD_UINT32>(i), &h) != 0)
                return int(BROKEN);
            ready->fetch_add(1);
            while (ready->load() < 2) {
            }
            SD_UINT32 token = 0;
            const SD_UINT32 st = SDStartFlashUpdate(h, 0, &token);
            if (st == SDM_STATUS_SUCCESS)
                return token == static_cast<SD_UINT32>(getpid()) ? int(WON) : int(BROKEN);
            return st == SDM_STATUS_FLASH_TOKEN_HELD ? int(REFUSED) : int(BROKEN);
        });
        ASSERT_EQ(got.size(), 2u);
        EXPECT_TRUE((got[0] == WON && got[1] == REFUSED) || (got[0] == REFUSED && got[1] == WON))
            << "round " << round << ": " << got[0] << " " << got[1];
        // The winner has ended without ending its update: its token lives on
        // until somebody who knows it ends it.
        ASSERT_EQ(st::run_children(1, [](int) { return end_held_token(); }), std::vector<int>{0}) << round;
    }
    munmap(ready, sizeof *ready);
}

SIM_TEST(FlashToken, KilledHoldersTokenExpiresAfter900Seconds, "crane.json") {
    const pid_t holder = st::start_token_holder(0);
    ASSERT_GT(holder, 0);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);

    // Asks for the token; 0 taken, 1 refused with the dead holder named
    // and about `left` seconds to go, 2 anything else.
    const auto try_take = [holder](uint32_t left) {
        return st::run_children(1, [holder, left](int) {
            int h = 0;
            SD_UINT32 token = 0, who = 0, secs = 0;
            if (open_first(&h) != 0)
                return 2;
            const SD_UINT32 status = SDStartFlashUpdate(h, 0, &token);
            int result = 2;
            if (status == SDM_STATUS_SUCCESS)
                result = token == static_cast<SD_UINT32>(getpid()) && SDEndFlashUpdate(h, 0, token) == 0 ? 0 : 2;
            else if (status == SDM_STATUS_FLASH_TOKEN_HELD && SDGetFlashUpdateTokenHolder(h, 0, &who, &secs) == 0)
                result = who == static_cast<SD_UINT32>(holder) && secs <= left && secs + 5 >= left ? 1 : 2;
            // The only live client leaves: the shared file must keep the dead holder's token.
            return SDCloseDevice(h) == 0 ? result : 2;
        }).at(0);
    };
    EXPECT_EQ(try_take(900), 1);
    ASSERT_EQ(st::run_vxsim({"clock", "advance", "895"}).status, 0);
    EXPECT_EQ(try_take(5), 1) << "still the dead holder's, 5 seconds before its end";
    ASSERT_EQ(st::run_vxsim({"clock", "advance", "6"}).status, 0);
    EXPECT_EQ(try_take(0), 0) << "expired: the adapter's slot is taken again";
}

// One online update through the exported calls: token, firmware region,
// end, attributes, online start; checked in the driver's journal.
void online_update_runs() {
    int h = 0;
    ASSERT_EQ(open_first(&h), 0);
    SD_UINT32 token = 0;
    ASSERT_EQ(SDStartFlashUpdate(h, 0, &token), SDM_STATUS_SUCCESS);
    std::vector<uint8_t> fw(0x1000, 0x3C);
    std::memcpy(fw.data(), "VXFW", 4);
    ASSERT_EQ(SDUpdateOptionRomEx2(h, 0, fw.data(), static_cast<SD_UINT32>(fw.size()), 0x01), SDM_STATUS_SUCCESS);
    const std::vector<uint8_t> flash = st::flash_image("crane0");
    EXPECT_TRUE(std::equal(fw.begin(), fw.end(), flash.begin() + 0x80000)) << "written at the firmware region";
    ASSERT_EQ(SDEndFlashUpdate(h, 0, token), SDM_STATUS_SUCCESS);
    // With the update ended the firmware region needs no token again.
    SDM_FLASH_UPDATE_CAPS caps{};
    ASSERT_EQ(SDGetFlashUpdateCapabilities(h, 0, &caps), SDM_STATUS_SUCCESS);
    EXPECT_TRUE(caps.Capabilities & SDM_FW_ATTR_ONLINE_ACTIVATE);
    EXPECT_EQ(caps.OutageDuration, 2u);
    SDM_FLASH_UPDATE_CAPS other = caps;
    other.Capabilities += 1ull << 32;  // another firmware interface generation
    EXPECT_EQ(SDSendFlashUpdateFWAttributes(h, 0, &other), SDM_STATUS_INVALID_PARAMETER);
    ASSERT_EQ(SDSendFlashUpdateFWAttributes(h, 0, &caps), SDM_STATUS_SUCCESS);
    ASSERT_EQ(SDOnlineActivateFlashUpdate(h, 0), SDM_STATUS_SUCCESS);
    SDCloseDevice(h);
}

// The reset codes the driver received, in order.
std::vector<std::string> activations() {
    std::vector<std::string> codes;
    for (const auto& e : st::journal())
        if (e.contains("reset_code"))
            codes.push_back(e["reset_code"].get<std::string>());
    return codes;
}

// One port of a two-port board: the online start resets the firmware there only.
SIM_TEST(FlashToken, OnlineUpdateEndToEndOverIoctl,
         R"({"name": "crane-ioctl", "adapters": [{"id": "crane0", "device_id": "0x2070", "channel": "ioctl",
             "serial_number": "VXF00122070", "functions": [
               {"pci_address": "0000:1c:00.0", "port": {"host_no": 3, "wwnn": "20:00:00:1d:5a:f0:0c:00",
                "wwpn": "21:00:00:1d:5a:f0:0c:00", "port_id": "0x0d0100"}}]}]})") {
    online_update_runs();
    EXPECT_EQ(activations(), (std::vector<std::string>{"0x0101"}));
}

}  // namespace
