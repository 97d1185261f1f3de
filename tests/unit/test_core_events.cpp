// Statistics and events in-process: the SD calls over the mock channel, the
// queues of the shared file on an in-memory layout, the pass's fetch and
// callbacks, the SNIA event types, the netlink message parsers and the
// counter texts of sysfs.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "mock_channel.h"
#include "unit_support.h"
#include "vsdmgt.h"
#include "vx_capi.h"
#include "vx_event.h"
#include "vx_netlink.h"
#include "vx_sysfs.h"

namespace {

using vxmock::slot;

constexpr uint32_t IOCTL_PORT = VX_FEAT_IOCTL_NODE | VX_FEAT_NEW_IOCTL;
constexpr uint32_t SYSFS_PORT = VX_FEAT_SYSFS | VX_FEAT_BSG;
constexpr uint16_t SWIFT = 0x1051;
constexpr uint16_t FINCH = 0x1010;
constexpr uint32_t HOST = 5;

EXT_ASYNC_EVENT entry(uint32_t code, uint32_t host, uint32_t data = 0) {
    EXT_ASYNC_EVENT e{};
    e.AsyncEventCode = code;
    vxapi_nl_event_data_bytes(data, &e);
    e.Payload.Words[1] = host;
    return e;
}

std::vector<uint8_t> entries_bytes(const std::vector<EXT_ASYNC_EVENT>& v) {
    const auto* p = reinterpret_cast<const uint8_t*>(v.data());
    return std::vector<uint8_t>(p, p + v.size() * sizeof(EXT_ASYNC_EVENT));
}

struct free_deleter {
    void operator()(void* p) const { free(p); }
};
using shared_image = std::unique_ptr<vxapi_shared_t, free_deleter>;

shared_image new_shared() { return shared_image(static_cast<vxapi_shared_t*>(calloc(1, sizeof(vxapi_shared_t)))); }

// ---- The queues of the shared file ----

// Every slot in use gets the event; a full queue is compacted, or restarts
// at 0 when it has no hole; a tail past the end never writes past it.
TEST(EventQueues, AddCompactsOrRestartsAFullQueue) {
    const struct {
        const char* name;
        uint16_t tail;
        std::vector<uint32_t> holes;  // indexes left empty in a queue filled up to `tail`
        uint16_t written_at;          // where the new event lands
        uint16_t tail_after;
    } rows[] = {
        {"empty", 0, {}, 0, 1},
        {"part filled", 10, {}, 10, 11},
        {"full with holes", 1024, {3, 700}, 1022, 1023},
        {"full without holes", 1024, {}, 0, 1},
        {"tail past the end", 60000, {}, 0, 1},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        shared_image shared = new_shared();
        shared->libinst_flags[1] = VX_LIBINST_HELD | VX_LIBINST_CLAIMED;
        shared->libinst_flags[2] = VX_LIBINST_CLAIMED;  // claimed but not held: no queue writes
        vxapi_hbaptevq_t& q = shared->hbaptevq[1];
        for (uint32_t i = 0; i < std::min<uint32_t>(r.tail, VX_EVQ_ENTRIES); ++i)
            q.eventbuf[i] = entry(0x8000 + (i & 0xFF), HOST, i);
        for (uint32_t i : r.holes)
            q.eventbuf[i] = EXT_ASYNC_EVENT{};
        q.q_tail = r.tail;
        vxapi_add_portev(shared.get(), entry(EXT_AEN_RSCN, HOST, 0x010400));
        EXPECT_EQ(q.q_tail, r.tail_after);
        EXPECT_EQ(q.eventbuf[r.written_at].AsyncEventCode, EXT_AEN_RSCN);
        if (!r.holes.empty()) {
            // Compaction keeps the order: entry 3 now holds what stood at 4.
            EXPECT_EQ(q.eventbuf[3].Payload.Bytes[2], 4);
            EXPECT_EQ(q.eventbuf[1023].AsyncEventCode, 0u);
        }
        EXPECT_EQ(shared->hbaptevq[0].q_tail, 0u);
        EXPECT_EQ(shared->hbaptevq[2].q_tail, 0u);
    }
}

TEST(EventQueues, RemovingHolesKeepsOrderAndLeavesAFullQueueAlone) {
    shared_image shared = new_shared();
    vxapi_hbaptevq_t& q = shared->hbaptevq[0];
    for (uint32_t i = 0; i < VX_EVQ_ENTRIES; ++i)
        q.eventbuf[i] = entry(EXT_AEN_LIP, HOST, i);
    q.q_tail = 1024;
    vxapi_remove_aen_holes(&q);
    EXPECT_EQ(q.q_tail, 1024u);
    EXPECT_EQ(q.eventbuf[1023].Payload.Bytes[1], 1023 >> 8);

    q = vxapi_hbaptevq_t{};
    for (uint32_t i : {2u, 5u, 9u})
        q.eventbuf[i] = entry(EXT_AEN_LINK_UP, HOST, i);
    q.q_tail = 10;
    vxapi_remove_aen_holes(&q);
    EXPECT_EQ(q.q_tail, 3u);
    const uint8_t kept[] = {2, 5, 9};
    for (uint32_t i = 0; i < 3; ++i)
        EXPECT_EQ(q.eventbuf[i].Payload.Bytes[2], kept[i]);
    for (uint32_t i = 3; i < 10; ++i)
        EXPECT_EQ(q.eventbuf[i].AsyncEventCode, 0u) << i;
}

// The own port's events only, from the head on, 64 at most; each leaves a
// hole (code and host word) and the head returns to 0.
TEST(EventQueues, EmptyTakesTheOwnHostsEventsFromTheHead) {
    shared_image shared = new_shared();
    vxapi_hbaptevq_t& q = shared->hbaptevq[0];
    for (uint32_t i = 0; i < 100; ++i)
        q.eventbuf[i] = entry(EXT_AEN_LINK_DOWN, i % 2 ? HOST : HOST + 1, i);
    q.eventbuf[200] = entry(EXT_AEN_LIP, HOST, 200);  // past the tail, still read
    q.q_tail = 100;
    q.q_head = 11;
    EXT_ASYNC_EVENT buf[VX_EVQ_TAKE_MAX];
    EXPECT_EQ(vxapi_empty_portevq(&q, HOST, buf), 46u);  // odd indexes 11..99, then 200
    EXPECT_EQ(buf[0].Payload.Bytes[2], 11);
    EXPECT_EQ(buf[45].AsyncEventCode, EXT_AEN_LIP);
    EXPECT_EQ(q.q_head, 0u);
    EXPECT_EQ(q.eventbuf[11].AsyncEventCode, 0u);
    EXPECT_EQ(q.eventbuf[11].Payload.Words[1], 0u);
    EXPECT_EQ(q.eventbuf[11].Payload.Bytes[2], 11);  // the payload stays
    EXPECT_EQ(q.eventbuf[9].AsyncEventCode, EXT_AEN_LINK_DOWN);  // before the head
    EXPECT_EQ(q.eventbuf[12].Payload.Words[1], HOST + 1);        // another port's

    for (uint32_t i = 0; i < 100; ++i)
        q.eventbuf[i] = entry(EXT_AEN_LINK_UP, HOST, i);
    q.q_head = 60000;  // past the end: nothing is read
    EXPECT_EQ(vxapi_empty_portevq(&q, HOST, buf), 0u);
    EXPECT_EQ(vxapi_empty_portevq(&q, HOST, buf), VX_EVQ_TAKE_MAX);
    EXPECT_EQ(vxapi_empty_portevq(&q, HOST, buf), 100u - VX_EVQ_TAKE_MAX);
}

// ---- SNIA port event types ----

TEST(EventCallbacks, SniaTypesAndFabricPortId) {
    const struct {
        EXT_ASYNC_EVENT event;
        uint32_t type;
        uint32_t fabric;
    } rows[] = {
        // Crossed on purpose: link down reads online, link up offline.
        {entry(EXT_AEN_LINK_DOWN, HOST), VX_SNIA_PORT_ONLINE, 0},
        {entry(EXT_AEN_LINK_UP, HOST), VX_SNIA_PORT_OFFLINE, 0},
        {entry(EXT_AEN_NEW_TARGETS, HOST), VX_SNIA_PORT_NEW_TARGETS, 0},
        {entry(EXT_AEN_RSCN, HOST, 0x02010400), VX_SNIA_PORT_FABRIC, 0x02010400},
        {entry(EXT_AEN_LIP, HOST, 0x010400), VX_SNIA_PORT_UNKNOWN, 0},
        {entry(0x8FFF, HOST), VX_SNIA_PORT_UNKNOWN, 0},
    };
    for (const auto& r : rows) {
        uint32_t fabric = 0xDEAD;
        EXPECT_EQ(vxapi_snia_port_event_type(r.event, &fabric), r.type) << std::hex << r.event.AsyncEventCode;
        EXPECT_EQ(fabric, r.fabric) << std::hex << r.event.AsyncEventCode;
    }
    // Entry bytes 4-7 as the transport's RSCN lays them: port id, then format.
    const EXT_ASYNC_EVENT e = entry(EXT_AEN_RSCN, HOST, 0x02010400);
    EXPECT_EQ((std::vector<uint8_t>(e.Payload.Bytes, e.Payload.Bytes + 4)), (std::vector<uint8_t>{1, 4, 0, 2}));
}

// ---- The SD calls ----

class SdEvents : public testing::Test {
protected:
    vxmock::registry reg;
    vxmock::channel mock;
    vxapi_priv_database* port = nullptr;
    int h = 0;
    shared_image shared = new_shared();

    void SetUp() override {
        VX_REQUIRE_PRIVATE_IPC();
        port = reg.port(IOCTL_PORT, SWIFT);
        ASSERT_NE(port, nullptr);
        port->host_no = HOST;
        mock.install(port);
        h = vxmock::registry::handle(port);
        shared->libinst_flags[0] = VX_LIBINST_HELD | VX_LIBINST_CLAIMED;
        api_shared_data = shared.get();
        api_library_instance = 0;
    }
    void TearDown() override {
        api_shared_data = nullptr;
        api_library_instance = VX_LIBINST_SLOTS;
        if (int id = semget(VX_SEM_KEY_DBUPDATE, 1, 0); id != -1)
            semctl(id, 0, IPC_RMID);
        api_dbupdate_sem_id = -1;
    }
    void queue(uint32_t n, uint32_t first_code = EXT_AEN_LIP) {
        for (uint32_t i = 0; i < n; ++i)
            vxapi_add_portev(shared.get(), entry(first_code + i, HOST, i));
    }
};

TEST_F(SdEvents, StatisticsCopyTheCountersAndLeaveTheRest) {
    EXT_HBA_PORT_STAT st{};
    st.ControllerErrorCount = 1;
    st.DeviceErrorCount = 2;
    st.TotalIoCount = 3;
    st.TotalMBytes = 4;
    st.TotalLipResets = 5;
    st.Reserved2 = 0x77;
    st.TotalLinkFailures = 7;
    st.TotalLossOfSync = 8;
    st.TotalLossOfSignals = 9;
    st.PrimitiveSeqProtocolErrorCount = 10;
    st.InvalidTransmissionWordCount = 11;
    st.InvalidCRCCount = 12;
    mock.expect(slot::get_statistics).answer(st);
    STATISTICS s;
    memset(&s, 0xEE, sizeof s);
    ASSERT_EQ(SDGetStatistics(h, 0, &s), 0u);
    const SD_UINT32 expected[] = {1, 2, 3, 4, 5, 0xEEEEEEEE, 7, 8, 9, 10, 11, 12};
    EXPECT_EQ(memcmp(&s, expected, sizeof expected), 0);
    EXPECT_EQ(s.Reserved[31], 0xEEEEEEEEu);

    // A remote port's counters land at the same offsets of a byte buffer of any alignment.
    mock.expect(slot::get_port_statistics).with_arg(EXT_DEF_DESTTYPE_WWPN).answer(st);
    std::vector<uint8_t> raw(sizeof(STATISTICS) + 1, 0xEE);
    DESTINATIONADDRESS dest{};
    dest.AddressType = SDM_ADDRESS_WWPN;
    ASSERT_EQ(SDGetStatisticsFC(h, 0, &dest, raw.data() + 1), 0u);
    EXPECT_EQ(memcmp(raw.data() + 1, expected, sizeof expected), 0);
    // Only port names are served; the longer port number is cut to 16 bits.
    dest.AddressType = SDM_ADDRESS_PORTID;
    EXPECT_EQ(SDGetPortStatisticsFC(h, 0x10000, &dest, raw.data()), SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SDGetStatisticsFC(h, 0, nullptr, raw.data()), SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SDGetStatistics(h, 0, nullptr), SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SDGetStatistics(h + 7, 0, &s), SDM_STATUS_INVALID_HANDLE);
}

TEST_F(SdEvents, StatisticsStatusRule) {
    const struct {
        uint32_t ext_stat, detail;
        int32_t rc;
        int err;
        uint32_t status;
    } rows[] = {
        {EXT_STATUS_SCSI_STATUS, 0x0102, 0, 0, SDM_STATUS_SCSI_CHECK_CONDITION},  // the detail counts
        {EXT_STATUS_BUSY, 0, -1, EIO, SDM_STATUS_DEVICE_BUSY},                     // driver status first
        {EXT_STATUS_OK, 0, -1, EIO, EIO},
        {EXT_STATUS_OK, 0, 1, 0, SDM_STATUS_UNKNOWN_ERROR},
    };
    for (const auto& r : rows) {
        mock.expect(slot::get_statistics).status(r.ext_stat, r.detail).fails(r.rc, r.err);
        STATISTICS s;
        memset(&s, 0xEE, sizeof s);
        EXPECT_EQ(SDGetStatistics(h, 0, &s), r.status) << r.ext_stat << "/" << r.rc;
        EXPECT_EQ(s.ControllerErrorCount, 0xEEEEEEEEu);
    }
}

// Served over sysfs and not for the oldest families; elsewhere not supported.
TEST_F(SdEvents, ResetOnlyOnSysfsPortsOfNewerFamilies) {
    vxapi_priv_database* sysfs = reg.port(SYSFS_PORT, SWIFT, 2);
    vxapi_priv_database* finch = reg.port(SYSFS_PORT, FINCH, 3);
    mock.install(sysfs);
    mock.install(finch);
    EXPECT_EQ(SDResetStatistics(h, 0), SDM_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(SDResetStatistics(vxmock::registry::handle(finch), 0), SDM_STATUS_NOT_SUPPORTED);
    mock.expect(slot::reset_stats);
    EXPECT_EQ(SDResetStatistics(vxmock::registry::handle(sysfs), 0), 0u);
    mock.expect(slot::reset_stats).status(EXT_STATUS_INVALID_REQUEST);
    EXPECT_EQ(SDResetStatistics(vxmock::registry::handle(sysfs), 0), SDM_STATUS_NOT_SUPPORTED);
}

// The enabled flag records the caller's wish whatever the driver said.
TEST_F(SdEvents, EnableAndDisableSetTheFlagWhateverTheDriverSays) {
    mock.expect(slot::async_event_reg).with_arg(1).status(EXT_STATUS_BUSY);
    EXPECT_EQ(SDEnableAen(h), SDM_STATUS_DEVICE_BUSY);
    EXPECT_TRUE(port->features & VX_FEAT_EVENTS);
    mock.expect(slot::async_event_reg).with_arg(0).fails(-1, EIO);
    EXPECT_EQ(SDDisableAen(h), static_cast<uint32_t>(EIO));
    EXPECT_FALSE(port->features & VX_FEAT_EVENTS);
    ASYNCEVENT ev[4];
    SD_UINT32 count = 99;
    EXPECT_EQ(SDGetAen(h, ev, sizeof ev, &count), SDM_STATUS_INVALID_REQUEST);
    EXPECT_EQ(count, 99u);
    EXPECT_EQ(SDEnableAen(0), SDM_STATUS_INVALID_HANDLE);
}

TEST_F(SdEvents, GetAenReturnsTheNewestAndDropsTheRest) {
    port->features |= VX_FEAT_EVENTS;
    // Ten queued (0x8010..0x8019), an array of four: the four newest.
    queue(10);
    ASYNCEVENT ev[5];
    memset(ev, 0xEE, sizeof ev);
    SD_UINT32 count = 0;
    ASSERT_EQ(SDGetAen(h, ev, 64, &count), 0u);
    EXPECT_EQ(count, 4u);
    // 0x8016..0x8019 are codes the interface does not name: counted, unwritten.
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(ev[i].EventCode, 0xEEEEEEEEu) << i;
    EXPECT_EQ(SDGetAen(h, ev, sizeof ev, &count), 0u);
    EXPECT_EQ(count, 0u);  // the six older ones were dropped

    // The interface's numbering, the crossed pair included.
    queue(6);
    ASSERT_EQ(SDGetAen(h, ev, sizeof ev, &count), 0u);
    ASSERT_EQ(count, 5u);
    const SD_UINT32 codes[] = {SDM_AEN_LINK_UP, SDM_AEN_LINK_DOWN, SDM_AEN_LIP_RESET, 6, 5};
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(ev[i].EventCode, codes[i]) << i;
    EXPECT_EQ(ev[0].Reserved[0], 0xEEEEEEEEu);

    // Under 16 bytes: nothing returned, the queue emptied all the same.
    queue(3);
    EXPECT_EQ(SDGetAen(h, nullptr, 15, &count), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(SDGetAen(h, ev, sizeof ev, &count), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(SDGetAen(h, ev, sizeof ev, nullptr), SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SDGetAen(h, nullptr, 16, &count), SDM_STATUS_INVALID_PARAMETER);
}

// ---- The pass ----

// The fetch queues whole entries of the driver's answer, 64 at most, and
// passes over empty ones.
TEST_F(SdEvents, PollQueuesWholeEntriesOnly) {
    const struct {
        const char* name;
        std::vector<uint8_t> bytes;
        uint32_t ext_stat;
        uint16_t queued;
    } rows[] = {
        {"three", entries_bytes({entry(EXT_AEN_LIP, HOST), entry(EXT_AEN_LINK_UP, HOST), entry(0x8FFF, HOST)}),
         EXT_STATUS_OK, 3},
        {"a partial entry", [] {
             std::vector<uint8_t> b = entries_bytes({entry(EXT_AEN_LIP, HOST), entry(EXT_AEN_LINK_UP, HOST)});
             b.resize(24);
             return b;
         }(),
         EXT_STATUS_OK, 1},
        {"an empty entry", entries_bytes({EXT_ASYNC_EVENT{}, entry(EXT_AEN_RSCN, HOST)}), EXT_STATUS_OK, 1},
        {"a failed fetch", entries_bytes({entry(EXT_AEN_LIP, HOST)}), EXT_STATUS_ERR, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        shared->hbaptevq[0] = vxapi_hbaptevq_t{};
        mock.expect(slot::async_event_get).with_size(EXT_AEN_BUF_LEN).answer_bytes(r.bytes).status(r.ext_stat);
        vxapi_poll_for_events(port);
        EXPECT_EQ(shared->hbaptevq[0].q_tail, r.queued);
    }
    EXPECT_TRUE(port->features & VX_FEAT_AEN_FETCHED);
}

struct callback_log {
    std::vector<std::pair<uint32_t, uint32_t>> calls;  // type, fabric port id
    int handle = 0;
    bool remove_self = false;
    void* registration = nullptr;
    SD_UINT32 aen_status = 0xFFFFFFFF;
};

void record_event(void* data, HBA_WWN wwn, HBA_UINT32 type, HBA_UINT32 fabric) {
    auto* log = static_cast<callback_log*>(data);
    EXPECT_EQ(wwn.wwn[0], 0x21);
    log->calls.emplace_back(type, fabric);
    // The library from inside the callback: the queue lock is this thread's already.
    ASYNCEVENT ev[1];
    SD_UINT32 count = 0;
    log->aen_status = SDGetAen(log->handle, ev, sizeof ev, &count);
    if (log->remove_self)
        vxapi_remove_event_cb(log->registration);
}

TEST_F(SdEvents, CallbacksGetTheOwnQueueAndMayCallBack) {
    port->features |= VX_FEAT_EVENTS;
    port->wwpn[0] = 0x21;
    callback_log log;
    log.handle = h;
    // No callback: the events stay in the queue.
    queue(2, EXT_AEN_LINK_UP);
    {
        vxapi_event_hold hold;
        vxapi_make_event_callbacks(port);
    }
    EXPECT_EQ(shared->hbaptevq[0].eventbuf[0].AsyncEventCode, EXT_AEN_LINK_UP);

    ASSERT_EQ(vxapi_reg_port_event_cb(port, record_event, &log, &log.registration), 0);
    EXPECT_NE(log.registration, nullptr);
    vxapi_add_portev(shared.get(), entry(EXT_AEN_RSCN, HOST, 0x010400));
    vxapi_add_portev(shared.get(), entry(EXT_AEN_NEW_TARGETS, HOST + 1));  // another port's
    {
        vxapi_event_hold hold;  // as the pass holds it
        vxapi_make_event_callbacks(port);
    }
    const std::vector<std::pair<uint32_t, uint32_t>> expected{
        {VX_SNIA_PORT_OFFLINE, 0}, {VX_SNIA_PORT_ONLINE, 0}, {VX_SNIA_PORT_FABRIC, 0x010400}};
    EXPECT_EQ(log.calls, expected);
    EXPECT_EQ(log.aen_status, 0u);

    // A callback that removes itself gets no further event of the batch.
    log.calls.clear();
    log.remove_self = true;
    queue(3, EXT_AEN_LINK_UP);
    {
        vxapi_event_hold hold;
        vxapi_make_event_callbacks(port);
    }
    EXPECT_EQ(log.calls.size(), 1u);
    EXPECT_FALSE(port->port_flags & VX_PORT_FLAG_HBAPT_CB);
    EXPECT_EQ(vxapi_remove_event_cb(log.registration), 1);  // gone already
    EXPECT_EQ(vxapi_reg_port_event_cb(port, nullptr, &log, nullptr), 1);
}

// A thread takes a lock it holds again at once; only its outermost release
// gives it back to the others.
TEST_F(SdEvents, LocksAreReentrantOnTheirThread) {
    ASSERT_EQ(vxapi_sem_lock(api_dbupdate_sem_id, VX_SEM_KEY_DBUPDATE), 0);
    ASSERT_EQ(vxapi_sem_lock(api_dbupdate_sem_id, VX_SEM_KEY_DBUPDATE), 0);
    const int id = api_dbupdate_sem_id;
    vxapi_sem_unlock(api_dbupdate_sem_id);
    EXPECT_EQ(semctl(id, 0, GETVAL), 0);
    vxapi_sem_unlock(api_dbupdate_sem_id);
    EXPECT_EQ(semctl(id, 0, GETVAL), 1);
    EXPECT_EQ(vxapi_sem_holds(), 0);
}

// ---- Netlink messages ----

// A vendor reply; `len` stands in nlmsg_len (0: the message's own length).
std::vector<uint8_t> vendor_reply(uint32_t host, uint32_t cmd, uint64_t magic = VXA_FC_MSG_MAGIC, uint32_t len = 0) {
    std::vector<uint8_t> msg(VX_NL_MSG_LEN, 0);
    vxapi_cmn_nl_hdr(msg.data());
    if (len == 0)
        len = static_cast<uint32_t>(msg.size());
    memcpy(msg.data(), &len, sizeof len);
    vxa_fc_msg head{};
    head.magic = magic;
    head.host_no = static_cast<uint16_t>(host);
    head.cmd = cmd;
    memcpy(msg.data() + VX_NL_FC_MSG_OFF, &head, offsetof(vxa_fc_msg, u));
    return msg;
}

TEST(Netlink, RequestHeadersAndReplyJudgement) {
    const std::vector<uint8_t> msg = vendor_reply(HOST, VXA_GET_AEN);
    nlmsghdr nlh;
    memcpy(&nlh, msg.data(), sizeof nlh);
    EXPECT_EQ(nlh.nlmsg_type, 17u);
    EXPECT_EQ(nlh.nlmsg_flags, 0u);
    EXPECT_EQ(nlh.nlmsg_pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ((std::vector<uint8_t>(msg.begin() + 16, msg.begin() + 22)),
              (std::vector<uint8_t>{1, 0, 0xB2, 0xA1, 0x00, 0x80}));
    EXPECT_EQ((std::vector<uint8_t>(msg.begin() + 24, msg.begin() + 32)),
              (std::vector<uint8_t>{0xC1, 0x1F, 0xAB, 0xFC, 0xDD, 0x84, 0x5A, 0x1D}));

    const struct {
        const char* name;
        std::vector<uint8_t> msg;
        size_t len;
        vxapi_nl_reply kind;
    } rows[] = {
        {"ours", msg, msg.size(), vxapi_nl_reply::ours},
        {"another magic", vendor_reply(HOST, VXA_GET_AEN, ~VXA_FC_MSG_MAGIC), msg.size(), vxapi_nl_reply::foreign},
        {"another host", vendor_reply(HOST + 1, VXA_GET_AEN), msg.size(), vxapi_nl_reply::foreign},
        {"another command", vendor_reply(HOST, VXA_PORT_PARAM), msg.size(), vxapi_nl_reply::foreign},
        {"short", msg, VX_NL_PAYLOAD_OFF - 1, vxapi_nl_reply::garbled},
        {"length past the message", vendor_reply(HOST, VXA_GET_AEN, VXA_FC_MSG_MAGIC, 5000), msg.size(), vxapi_nl_reply::garbled},
        {"length below the headers", vendor_reply(HOST, VXA_GET_AEN, VXA_FC_MSG_MAGIC, 20), msg.size(), vxapi_nl_reply::garbled},
    };
    for (const auto& r : rows)
        EXPECT_EQ(vxapi_nl_check_reply(r.msg.data(), r.len, HOST, VXA_GET_AEN), r.kind) << r.name;
}

std::vector<uint8_t> fc_message(uint32_t code, uint32_t data, uint16_t host = HOST, uint16_t magic = SCSI_NL_MAGIC) {
    std::vector<uint8_t> msg(VX_NL_FC_EVENT_MSG_LEN, 0);
    nlmsghdr nlh{};
    nlh.nlmsg_len = static_cast<uint32_t>(msg.size());
    nlh.nlmsg_type = SCSI_TRANSPORT_MSG;
    fc_nl_event ev{};
    ev.snlh.version = 1;
    ev.snlh.transport = SCSI_NL_TRANSPORT_FC;
    ev.snlh.magic = magic;
    ev.snlh.msgtype = FC_NL_ASYNC_EVENT;
    ev.host_no = host;
    ev.event_num = 77;
    ev.event_code = code;
    ev.event_data = data;
    memcpy(msg.data(), &nlh, sizeof nlh);
    memcpy(msg.data() + 16, &ev, sizeof ev);
    return msg;
}

TEST(Netlink, FcTransportEventsBecomeEntries) {
    const struct {
        uint32_t code;
        uint32_t expected;  // 0: skipped
    } rows[] = {{1, 0x8010}, {2, 0x8011}, {3, 0x8012}, {4, 0x8013}, {5, 0x8015}, {0, 0}, {6, 0}, {0x10000, 0}};
    for (const auto& r : rows) {
        const std::vector<uint8_t> msg = fc_message(r.code, 0x020A0B0C);
        EXT_ASYNC_EVENT e{};
        uint32_t host = 0, num = 0;
        EXPECT_EQ(vxapi_nl_fc_event_entry(msg.data(), msg.size(), &e, &host, &num), r.expected != 0) << r.code;
        if (!r.expected)
            continue;
        EXPECT_EQ(e.AsyncEventCode, r.expected);
        EXPECT_EQ(e.Payload.Words[1], HOST);
        EXPECT_EQ(num, 77u);
        // Only an RSCN carries its data: port id bytes, then the format.
        const std::vector<uint8_t> data(e.Payload.Bytes, e.Payload.Bytes + 4);
        EXPECT_EQ(data, r.code == 5 ? (std::vector<uint8_t>{0x0A, 0x0B, 0x0C, 0x02}) : std::vector<uint8_t>(4, 0));
        EXPECT_EQ(e.Payload.Words[2], 0u);
    }
    std::vector<uint8_t> msg = fc_message(3, 0);
    EXT_ASYNC_EVENT e{};
    EXPECT_FALSE(vxapi_nl_fc_event_entry(msg.data(), msg.size() - 1, &e, nullptr, nullptr));  // short
    msg = fc_message(3, 0, HOST, 0x1234);
    EXPECT_FALSE(vxapi_nl_fc_event_entry(msg.data(), msg.size(), &e, nullptr, nullptr));  // another magic
    msg = fc_message(3, 0);
    msg[21] = 0;  // msgtype 0x0100 becomes 0
    EXPECT_FALSE(vxapi_nl_fc_event_entry(msg.data(), msg.size(), &e, nullptr, nullptr));
}

// The same transport event reaches every process: one queues it, the
// others pass over it; the kernel's counter may wrap.
TEST(Netlink, TransportEventNumbersAreQueuedOnce) {
    vxapi_fc_event_seen seen{};
    EXPECT_TRUE(vxapi_fc_event_is_new(&seen, 5));
    EXPECT_FALSE(vxapi_fc_event_is_new(&seen, 5));
    EXPECT_FALSE(vxapi_fc_event_is_new(&seen, 3));
    EXPECT_TRUE(vxapi_fc_event_is_new(&seen, 6));
    seen.last_num = 0xFFFFFFFE;
    EXPECT_TRUE(vxapi_fc_event_is_new(&seen, 1));
    EXPECT_FALSE(vxapi_fc_event_is_new(&seen, 0xFFFFFFFF));
    EXPECT_TRUE(vxapi_fc_event_is_new(nullptr, 1));
}

TEST(Netlink, EventLogEntries) {
    vxfc_aen_log log{};
    log.num_events = 4;
    log.events[0] = {EXT_AEN_LINK_DOWN, {0, 0, 0}};
    log.events[1] = {0, {1, 2, 3}};  // empty: not an event
    log.events[2] = {EXT_AEN_RSCN, {0x0201, 0x0400, 0}};
    log.events[3] = {EXT_AEN_NEW_TARGETS, {0, 0, 0}};
    const auto* p = reinterpret_cast<const uint8_t*>(&log);
    EXT_ASYNC_EVENT out[8];
    ASSERT_EQ(vxapi_nl_aen_log_entries(p, sizeof log, HOST, out, 8), 3u);
    EXPECT_EQ(out[1].AsyncEventCode, EXT_AEN_RSCN);
    EXPECT_EQ((std::vector<uint8_t>(out[1].Payload.Bytes, out[1].Payload.Bytes + 4)),
              (std::vector<uint8_t>{0x01, 0x04, 0x00, 0x02}));
    EXPECT_EQ(out[1].Payload.Words[1], HOST);
    EXPECT_EQ(vxapi_nl_aen_log_entries(p, sizeof log, HOST, out, 2), 2u);
    // The count never reaches past what arrived, nor past the log.
    EXPECT_EQ(vxapi_nl_aen_log_entries(p, 4 + 2 * sizeof(vxfc_aen_entry), HOST, out, 8), 1u);
    log.num_events = 100000;
    EXPECT_EQ(vxapi_nl_aen_log_entries(p, sizeof log, HOST, out, 8), 3u);
    EXPECT_EQ(vxapi_nl_aen_log_entries(p, 3, HOST, out, 8), 0u);
}

// ---- sysfs counters ----

TEST(SysfsStatistics, CounterTextsAndTheRecord) {
    const struct {
        const char* text;
        vxsysfs_counter kind;
        uint64_t value;
    } rows[] = {
        {"0x1f\n", vxsysfs_counter::kept, 0x1f},
        {"0x0", vxsysfs_counter::kept, 0},
        {"0xffffffffffffffff\n", vxsysfs_counter::not_kept, 0},
        {"0x1ffffffff", vxsysfs_counter::kept, 0x1ffffffffull},
        {"31", vxsysfs_counter::bad, 0},
        {"0x", vxsysfs_counter::bad, 0},
        {"0xzz", vxsysfs_counter::bad, 0},
        {"0x10000000000000000", vxsysfs_counter::bad, 0},
        {"", vxsysfs_counter::bad, 0},
    };
    for (const auto& r : rows) {
        uint64_t v = 99;
        EXPECT_EQ(vxsysfs_parse_counter(r.text, &v), r.kind) << r.text;
        EXPECT_EQ(v, r.value) << r.text;
    }
    vxsysfs_fc_counters c{};
    c.fcp_input_requests = 0x100000001ull;
    c.fcp_output_requests = 2;
    c.fcp_control_requests = 3;
    c.fcp_input_megabytes = 10;
    c.fcp_output_megabytes = 5;
    c.error_frames = 4;
    c.link_failure_count = 6;
    EXT_HBA_PORT_STAT st{};
    vxsysfs_fill_port_stat(c, &st);
    EXPECT_EQ(st.TotalIoCount, 6u);  // the low word of the sum
    EXPECT_EQ(st.InputRequestCount, 0x100000001ull);
    EXPECT_EQ(st.TotalMBytes, 15u);
    EXPECT_EQ(st.ControllerErrorCount, 4u);
    EXPECT_EQ(st.TotalLinkFailures, 6u);
}

// The Common HBA API's registration, removal and polling over the same
// queue: a removed callback gets nothing more, and a poll takes no more
// than the caller has room for.
TEST_F(SdEvents, HbaPortEventsRegisterRemoveAndPoll) {
    port->features |= VX_FEAT_EVENTS;
    port->wwpn[0] = 0x21;
    HBA_WWN own;
    memcpy(own.wwn, port->wwpn, 8);
    HBA_WWN other = own;
    other.wwn[7] ^= 1;
    const auto hh = static_cast<HBA_HANDLE>(h);
    callback_log log;
    log.handle = h;
    HBA_CALLBACKHANDLE cbh = nullptr;
    EXPECT_EQ(vxhba_RegisterForAdapterPortEvents(record_event, &log, hh + 1, own, &cbh),
              HBA_STATUS_ERROR_INVALID_HANDLE);
    EXPECT_EQ(vxhba_RegisterForAdapterPortEvents(nullptr, &log, hh, own, &cbh), HBA_STATUS_ERROR_ARG);
    EXPECT_EQ(vxhba_RegisterForAdapterPortEvents(record_event, &log, hh, own, nullptr), HBA_STATUS_ERROR_ARG);
    EXPECT_EQ(vxhba_RegisterForAdapterPortEvents(record_event, &log, hh, other, &cbh), HBA_STATUS_ERROR_ILLEGAL_WWN);
    EXPECT_FALSE(port->port_flags & VX_PORT_FLAG_HBAPT_CB);

    ASSERT_EQ(vxhba_RegisterForAdapterPortEvents(record_event, &log, hh, own, &cbh), HBA_STATUS_OK);
    ASSERT_NE(cbh, nullptr);
    queue(2, EXT_AEN_LINK_UP);
    {
        vxapi_event_hold hold;
        vxapi_make_event_callbacks(port);
    }
    EXPECT_EQ(log.calls.size(), 2u);

    EXPECT_EQ(vxhba_RemoveCallback(cbh), HBA_STATUS_OK);
    EXPECT_EQ(vxhba_RemoveCallback(cbh), HBA_STATUS_ERROR_INVALID_HANDLE);
    EXPECT_EQ(vxhba_RemoveCallback(nullptr), HBA_STATUS_ERROR_INVALID_HANDLE);
    log.calls.clear();
    vxapi_add_portev(shared.get(), entry(EXT_AEN_LINK_DOWN, HOST));
    vxapi_add_portev(shared.get(), entry(EXT_AEN_NEW_TARGETS, HOST + 1));  // another port's
    vxapi_add_portev(shared.get(), entry(EXT_AEN_RSCN, HOST, 0x010400));
    {
        vxapi_event_hold hold;
        vxapi_make_event_callbacks(port);
    }
    EXPECT_TRUE(log.calls.empty());

    // Polled instead: one at a time when there is room for one.
    HBA_EVENTINFO info[4];
    memset(info, 0xEE, sizeof info);
    HBA_UINT32 count = 1;
    ASSERT_EQ(vxhba_GetEventBuffer(hh, info, &count), HBA_STATUS_OK);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(info[0].EventCode, static_cast<HBA_UINT32>(HBA_EVENT_PORT_OFFLINE));  // link down
    EXPECT_EQ(info[1].EventCode, 0xEEEEEEEEu);
    count = 4;
    ASSERT_EQ(vxhba_GetEventBuffer(hh, info, &count), HBA_STATUS_OK);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(info[0].EventCode, static_cast<HBA_UINT32>(HBA_EVENT_PORT_FABRIC));
    EXPECT_EQ(info[0].Event.RSCN_EventInfo.PortFcId, 0x010400u);
    count = 4;
    ASSERT_EQ(vxhba_GetEventBuffer(hh, info, &count), HBA_STATUS_OK);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(shared->hbaptevq[0].eventbuf[3].AsyncEventCode, EXT_AEN_NEW_TARGETS);  // left for its port

    count = 4;
    EXPECT_EQ(vxhba_GetEventBuffer(hh, nullptr, &count), HBA_STATUS_ERROR_ARG);
    EXPECT_EQ(vxhba_GetEventBuffer(hh, info, nullptr), HBA_STATUS_ERROR_ARG);
    EXPECT_EQ(vxhba_GetEventBuffer(hh + 1, info, &count), HBA_STATUS_ERROR_INVALID_HANDLE);
    count = 0;
    EXPECT_EQ(vxhba_GetEventBuffer(hh, nullptr, &count), HBA_STATUS_OK);
}

}  // namespace
