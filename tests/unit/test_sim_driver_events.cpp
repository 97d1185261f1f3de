// The emulation's events and counters in-process: the vendor netlink
// answers, which FC transport events each socket is given, the driver's
// event queue, and the counters that traffic and resets move.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "counters.h"
#include "events.h"
#include "netlink.h"
#include "root.h"
#include "stats.h"
#include "test_sim_driver_support.h"

using namespace vxsim;
using namespace vxsim::drv;

namespace {

// A Swift port with an NPIV port (hosts 2 and 8) and a converged port (4).
const char* const MODEL = R"({"adapters": [
  {"id": "swift", "device_id": "0x1051", "functions": [{"pci_address": "0000:05:00.0",
     "port": {"host_no": 2, "speed": "8 Gbit", "stats": {"tx_frames": 100, "link_failure_count": 3}},
     "vports": [{"host_no": 8}]}]},
  {"id": "crane", "device_id": "0x2070", "functions": [{"pci_address": "0000:06:00.0", "port": {"host_no": 4}}]}
]})";

class Events : public vxsim_test::TempDir {
protected:
    void SetUp() override {
        TempDir::SetUp();
        std::string error;
        ASSERT_TRUE(parse_scenario(MODEL, scenario_, error)) << error;
        sim_ = std::make_unique<Sim>(dir_, scenario_, std::map<std::pair<unsigned, unsigned>, DeviceEntry>{});
        std::filesystem::create_directories(root::events(dir_));
    }
    // Spools an event as `vxsim event` does.
    void spool(uint64_t seq, uint32_t host, uint32_t code, uint32_t data, const char* kind) {
        char name[16];
        snprintf(name, sizeof name, "%010llu", static_cast<unsigned long long>(seq));
        write_text(root::events(dir_) + "/" + name, R"({"host_no":)" + std::to_string(host) + R"(,"code":)" +
                                                       std::to_string(code) + R"(,"data":)" + std::to_string(data) +
                                                       R"(,"kind":")" + kind + "\"}\n");
        write_text(root::events(dir_) + "/.seq", std::to_string(seq) + "\n");
    }
    std::vector<uint8_t> request(uint32_t host, uint32_t cmd, const std::vector<uint8_t>& payload = {},
                                 uint64_t magic = VXA_FC_MSG_MAGIC) const {
        std::vector<uint8_t> msg(std::max(VX_NL_MSG_LEN, VX_NL_PAYLOAD_OFF + payload.size()), 0);
        nlmsghdr nlh{};
        nlh.nlmsg_len = static_cast<uint32_t>(msg.size());
        nlh.nlmsg_type = SCSI_TRANSPORT_MSG;
        scsi_nl_hdr snlh{};
        snlh.version = 1;
        snlh.magic = SCSI_NL_MAGIC;
        snlh.msgtype = SCSI_NL_MSGTYPE_VENDOR;
        vxa_fc_msg head{};
        head.magic = magic;
        head.host_no = static_cast<uint16_t>(host);
        head.cmd = cmd;
        std::memcpy(msg.data(), &nlh, sizeof nlh);
        std::memcpy(msg.data() + VX_NL_SCSI_HDR_OFF, &snlh, sizeof snlh);
        std::memcpy(msg.data() + VX_NL_FC_MSG_OFF, &head, offsetof(vxa_fc_msg, u));
        if (!payload.empty())
            std::memcpy(msg.data() + VX_NL_PAYLOAD_OFF, payload.data(), payload.size());
        return msg;
    }
    static uint32_t error_of(const VendorAnswer& a) {
        uint32_t e = 0;
        std::memcpy(&e, a.reply.data() + VX_NL_FC_MSG_OFF + offsetof(vxa_fc_msg, error), sizeof e);
        return e;
    }
    template <typename T>
    static T payload_of(const VendorAnswer& a) {
        T v{};
        std::memcpy(&v, a.reply.data() + VX_NL_PAYLOAD_OFF, sizeof v);
        return v;
    }

    Scenario scenario_;
    std::unique_ptr<Sim> sim_;
};

// Each driver event goes to exactly one reader: the event log takes the
// host's, in order, and leaves other hosts' and the transport's.
TEST_F(Events, EventLogTakesTheHostsDriverEvents) {
    spool(1, 2, EXT_AEN_LINK_DOWN, 0, "aen");
    spool(2, 4, EXT_AEN_LINK_UP, 0, "aen");
    spool(3, 2, 3, 0, "fc");
    spool(4, 2, EXT_AEN_RSCN, 0x00010400, "aen");
    const std::vector<uint8_t> req = request(2, VXA_GET_AEN);
    VendorAnswer a = vendor_answer(*sim_, req.data(), req.size());
    ASSERT_EQ(a.reply.size(), VX_NL_MSG_LEN);
    EXPECT_EQ(error_of(a), 0u);
    const auto log = payload_of<vxfc_aen_log>(a);
    ASSERT_EQ(log.num_events, 2u);
    EXPECT_EQ(log.events[0].event_code, EXT_AEN_LINK_DOWN);
    EXPECT_EQ(log.events[1].event_code, EXT_AEN_RSCN);
    EXPECT_EQ(log.events[1].payload[0], 0x0001);
    EXPECT_EQ(log.events[1].payload[1], 0x0400);
    std::vector<uint64_t> left;
    for (const SpoolEntry& e : spool_list(dir_))
        left.push_back(e.seq);
    EXPECT_EQ(left, (std::vector<uint64_t>{2, 3}));
    a = vendor_answer(*sim_, req.data(), req.size());
    EXPECT_EQ(payload_of<vxfc_aen_log>(a).num_events, 0u);

    // The ioctl queue's entries: code, data bytes 4-7, host at offset 8.
    const EXT_ASYNC_EVENT e = aen_entry(spool_take_driver_events(dir_, 4, 64).at(0));
    EXPECT_EQ(e.AsyncEventCode, EXT_AEN_LINK_UP);
    EXPECT_EQ(e.Payload.Words[1], 4u);
}

// What the leaf tests cannot reach on the default host: a converged board's
// companion chip, and messages that are not the driver's.
TEST_F(Events, CompanionChipResetAndForeignMessages) {
    const std::vector<uint8_t> reset = request(4, VXA_SRLX_RESET);
    const VendorAnswer a = vendor_answer(*sim_, reset.data(), reset.size());
    ASSERT_GE(a.reply.size(), VX_NL_MSG_LEN);
    EXPECT_EQ(error_of(a), EXT_STATUS_OK);
    const std::vector<uint8_t> foreign = request(2, VXA_GET_AEN, {}, 0x1234);
    EXPECT_TRUE(vendor_answer(*sim_, foreign.data(), foreign.size()).reply.empty());
    EXPECT_TRUE(vendor_answer(*sim_, foreign.data(), 10).reply.empty());
}

// A socket gets the scenario's events and those queued after it joined,
// each once; what came before it joined is not its to read.
TEST_F(Events, TransportEventsReachEverySocketThatListened) {
    spool(1, 2, 2, 0, "fc");  // the scenario's
    write_text(root::events(dir_) + "/.boot", "1\n");
    spool(2, 2, 3, 0, "fc");  // before anyone listened
    FcCursor first, unjoined;
    fc_join(first, dir_);
    spool(3, 2, 5, 0x010400, "fc");
    spool(4, 2, EXT_AEN_LIP, 0, "aen");  // the driver's queue, not the transport's
    FcCursor second;
    fc_join(second, dir_);
    spool(5, 4, 1, 0, "fc");
    auto seqs = [](const std::vector<SpoolEntry>& v) {
        std::vector<uint64_t> out;
        for (const SpoolEntry& e : v)
            out.push_back(e.seq);
        return out;
    };
    EXPECT_EQ(seqs(fc_due(first, dir_)), (std::vector<uint64_t>{1, 3, 5}));
    EXPECT_EQ(seqs(fc_due(first, dir_)), std::vector<uint64_t>{});
    EXPECT_EQ(seqs(fc_due(second, dir_)), (std::vector<uint64_t>{1, 5}));
    EXPECT_EQ(seqs(fc_due(unjoined, dir_)), std::vector<uint64_t>{});

    SpoolEntry rscn;
    rscn.seq = 3;
    rscn.host_no = 2;
    rscn.code = 5;
    rscn.data = 0x010400;
    const std::vector<uint8_t> msg = fc_event_message(rscn);
    ASSERT_EQ(msg.size(), VX_NL_FC_EVENT_MSG_LEN);
    fc_nl_event ev{};
    std::memcpy(&ev, msg.data() + NLMSG_HDRLEN, sizeof ev);
    EXPECT_EQ(ev.snlh.magic, SCSI_NL_MAGIC);
    EXPECT_EQ(ev.event_num, 3u);
    EXPECT_EQ(ev.event_data, 0x010400u);
}

TEST_F(Events, CountersMoveWithTrafficAndReset) {
    // A port starts from the scenario; a virtual port keeps no link counters.
    std::optional<CounterMap> c = counters_read(dir_, scenario_, 2);
    ASSERT_TRUE(c);
    EXPECT_EQ((*c)["tx_frames"], 100u);
    EXPECT_EQ((*c)["link_failure_count"], 3u);
    std::optional<CounterMap> v = counters_read(dir_, scenario_, 8);
    ASSERT_TRUE(v);
    EXPECT_EQ((*v)["link_failure_count"], COUNTER_NOT_KEPT);
    EXPECT_EQ((*v)["tx_frames"], 0u);
    EXPECT_FALSE(counters_read(dir_, scenario_, 77));

    // 600 KiB read twice: two input requests, and one whole megabyte.
    const uint64_t rport = 0x5006016008601a00ull;
    Traffic t{Traffic::Read, 600 * 1024, 0};
    ASSERT_TRUE(counters_add(dir_, scenario_, 2, traffic_deltas(t), rport));
    ASSERT_TRUE(counters_add(dir_, scenario_, 2, traffic_deltas(t), rport));
    c = counters_read(dir_, scenario_, 2);
    EXPECT_EQ((*c)["fcp_input_requests"], 2u);
    EXPECT_EQ((*c)["fcp_input_megabytes"], 1u);
    EXPECT_EQ((*c)["tx_frames"], 102u);
    EXPECT_EQ((*c)["rx_frames"], 2u + 2 * 300);
    EXPECT_EQ(c->count("_in_bytes"), 0u);  // the remainder is not shown
    EXPECT_EQ((*counters_read(dir_, scenario_, 2, rport))["fcp_input_requests"], 2u);
    ASSERT_TRUE(counters_add(dir_, scenario_, 8, {{"link_failure_count", 1}, {"tx_frames", 1}}));
    v = counters_read(dir_, scenario_, 8);
    EXPECT_EQ((*v)["link_failure_count"], COUNTER_NOT_KEPT);
    EXPECT_EQ((*v)["tx_frames"], 1u);

    ASSERT_TRUE(counters_reset(dir_, scenario_, 2));
    c = counters_read(dir_, scenario_, 2);
    EXPECT_EQ((*c)["tx_frames"], 0u);
    EXPECT_EQ((*c)["link_failure_count"], 0u);
    EXPECT_EQ((*counters_read(dir_, scenario_, 2, rport))["fcp_input_requests"], 0u);
    ASSERT_TRUE(counters_reset(dir_, scenario_, 8));
    EXPECT_EQ((*counters_read(dir_, scenario_, 8))["loss_of_sync_count"], COUNTER_NOT_KEPT);

    // The driver's record: counters not kept read 0, totals are sums.
    const EXT_HBA_PORT_STAT st = port_stat_record({{"fcp_input_requests", 5},
                                                   {"fcp_output_requests", 2},
                                                   {"fcp_control_requests", 1},
                                                   {"loss_of_sync_count", COUNTER_NOT_KEPT}});
    EXPECT_EQ(st.TotalIoCount, 8u);
    EXPECT_EQ(st.TotalLossOfSync, 0u);
}

}  // namespace
