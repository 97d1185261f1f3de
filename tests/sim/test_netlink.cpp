// The vendor netlink requests at the leaf, against the simulated driver:
// what each sends and gets back, the driver's errors, replies of another
// magic or host passed over, and the driver's event log. Linked with the
// library's core to reach the leaves, which no SD call uses yet.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "libtest.h"
#include "vx_netlink.h"

namespace {

namespace st = vxsim::test;

constexpr uint32_t FC_HOST = 2;  // a Swift port of the default scenario

// The vendor socket, open for one test.
struct VendorSocket {
    VendorSocket() { vxapi_nl_fd = vxapi_nl_open(); }
    ~VendorSocket() { vxapi_nl_close(); }
};

SIM_TEST(NetlinkLeaf, RequestsAndTheDriversAnswers, "default.json") {
    const VendorSocket socket;
    const int fd = vxapi_nl_fd;
    ASSERT_GE(fd, 0);
    // Loopback: the data comes back as sent, past the fixed record.
    std::vector<uint8_t> tx(3000), rx(3000, 0);
    for (size_t i = 0; i < tx.size(); ++i)
        tx[i] = static_cast<uint8_t>(i * 7);
    msg_loopback lb{};
    uint32_t status = 99;
    EXPECT_EQ(vxapi_nl_loopback_test(fd, FC_HOST, VXA_LOOPBACK, &lb, tx.data(), rx.data(), 3000, &status), 0);
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(rx, tx);
    EXPECT_EQ(vxapi_nl_loopback_test(fd, FC_HOST, 99, &lb, tx.data(), rx.data(), 3000, &status), 1);

    vxa_port_param param{};
    EXPECT_EQ(vxapi_nl_port_param(fd, FC_HOST, &param, &status), 0);
    EXPECT_EQ(param.speed, 4u);
    vxa_i2c_access i2c{};
    i2c.device = 0xA0;
    i2c.length = 32;
    EXPECT_EQ(vxapi_nl_get_i2c(fd, FC_HOST, &i2c, &status), 0);
    EXPECT_EQ(i2c.buffer[0], 0x03);

    // The driver's refusals come back as its status, result 1.
    const struct {
        uint32_t host;
        int (*request)(int, uint32_t, uint32_t*);
        uint32_t status;
    } refusals[] = {
        {FC_HOST, [](int f, uint32_t h, uint32_t* s) { return vxapi_nl_srlx_reset(f, h, 0, s); },
         EXT_STATUS_INVALID_REQUEST},  // no companion chip on an FC board
        {77, [](int f, uint32_t h, uint32_t* s) { return vxapi_nl_enable_disable_qos(f, h, 1, s); },
         EXT_STATUS_DEV_NOT_FOUND},
    };
    for (const auto& r : refusals) {
        status = 99;
        EXPECT_EQ(r.request(fd, r.host, &status), 1) << r.host;
        EXPECT_EQ(status, r.status) << r.host;
    }
}

// Replies of another magic and another host arrive first; the request
// passes over them and takes its own, with the driver's event log.
SIM_TEST(NetlinkLeaf, EventLogPastForeignReplies, "default.json") {
    const VendorSocket socket;
    const int fd = vxapi_nl_fd;
    ASSERT_GE(fd, 0);
    ASSERT_EQ(st::run_vxsim({"event", "--type", "newtargets", "--host", "2"}).status, 0);
    ASSERT_EQ(st::run_vxsim({"event", "--type", "newtargets", "--host", "3"}).status, 0);
    ASSERT_EQ(st::run_vxsim({"fault", "add", "--endpoint", "netlink", "--match", "send/" + std::to_string(VXA_GET_AEN),
                             "--action", "foreign"})
                  .status,
              0);
    EXT_ASYNC_EVENT entries[8];
    uint32_t bytes = sizeof entries, status = 99;
    ASSERT_EQ(vxapi_nl_get_aen(fd, FC_HOST, entries, &bytes, &status), 0);
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(bytes, sizeof(EXT_ASYNC_EVENT));  // host 3's stays with the driver
    EXPECT_EQ(entries[0].AsyncEventCode, EXT_AEN_NEW_TARGETS);
    EXPECT_EQ(entries[0].Payload.Words[1], FC_HOST);
    EXPECT_EQ(st::run_vxsim({"fault", "list", "--json"}).text.find("foreign"), std::string::npos) << "fault not used";
    bytes = sizeof entries;
    ASSERT_EQ(vxapi_nl_get_aen(fd, 3, entries, &bytes, &status), 0);
    EXPECT_EQ(bytes, sizeof(EXT_ASYNC_EVENT));
}

}  // namespace
