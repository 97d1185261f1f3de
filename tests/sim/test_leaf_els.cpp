// ELS pass-through, driven at its leaf (the echo diagnostic that will call
// it has no SD function yet) on the sysfs channel and both extended-ioctl
// generations: ECHO and RNID to a remote port, a rejected command, ports that
// cannot be reached, a reply cut at the caller's buffer, each request in the
// journal.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "exioct.h"
#include "simtest.h"
#include "vsdmgt.h"
#include "vx_core.h"

namespace {

namespace st = vxsim::test;
using Bytes = std::vector<uint8_t>;

constexpr uint64_t HOST2 = 0x2100001d5a025142;
constexpr uint64_t DISKS = 0x5006016008601a00;    // online, port id 010400
constexpr uint64_t BLOCKED = 0x5006016008601b00;  // "Blocked"

void put_wwn(uint8_t* at, uint64_t v) {
    for (int i = 7; i >= 0; --i, v >>= 8)
        at[i] = static_cast<uint8_t>(v);
}

vxapi_priv_database* port(uint64_t wwpn) {
    uint8_t want[8];
    put_wwn(want, wwpn);
    const SD_UINT32 n = SDGetNumberOfAdapters();
    for (SD_UINT32 i = 0; i < n; ++i) {
        int h = 0;
        vxapi_priv_database* rec = SDOpenDevice(i, &h) == 0 ? check_handle(static_cast<uint32_t>(h)) : nullptr;
        if (rec && memcmp(rec->wwpn, want, 8) == 0)
            return rec;
    }
    return nullptr;
}

// The library's 32-byte head naming the port by name, then the ELS payload.
Bytes els(uint64_t to, const Bytes& payload) {
    EXT_ELS_PT_REQ head{};
    put_wwn(head.WWPN, to);
    head.ValidMask = EXT_DEF_ELS_VALID_WWPN;
    Bytes req(sizeof head + payload.size());
    memcpy(req.data(), &head, sizeof head);
    std::copy(payload.begin(), payload.end(), req.begin() + sizeof head);
    return req;
}

struct Reply {
    int32_t rc;
    uint32_t ext_stat;
    Bytes bytes;
};

Reply send(vxapi_priv_database* p, const Bytes& req, uint32_t room) {
    Reply r{0, 99, Bytes(room + 8, 0xEE)};
    r.rc = vxapi_send_els_passthru(p->oshandle, p, req.data(), static_cast<uint32_t>(req.size()), r.bytes.data(), room,
                                   &r.ext_stat);
    return r;
}

void els_leaf() {
    vxapi_priv_database* p = port(HOST2);
    ASSERT_NE(p, nullptr);
    const bool sysfs = p->features & VX_FEAT_SYSFS;
    const Bytes rnid_df = {0x78, 0, 0, 0, 0xDF, 0, 0, 0};

    Reply echo = send(p, els(DISKS, {0x10, 0, 0, 0, 'p', 'i', 'n', 'g'}), 16);
    EXPECT_EQ(echo.ext_stat, EXT_STATUS_OK);
    EXPECT_EQ(echo.bytes, Bytes({2, 0, 0, 0, 'p', 'i', 'n', 'g', 0, 0, 0, 0, 0, 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
                                 0xEE, 0xEE, 0xEE}))
        << "LS_ACC with the payload, the rest cleared";
    Reply rnid = send(p, els(DISKS, rnid_df), 128);
    EXPECT_EQ(rnid.ext_stat, EXT_STATUS_OK);
    uint8_t name[8];
    put_wwn(name, DISKS);
    EXPECT_EQ(rnid.bytes[4], 0xDF);
    EXPECT_EQ(memcmp(rnid.bytes.data() + 8, name, 8), 0);
    EXPECT_EQ(std::string(rnid.bytes.begin() + 24, rnid.bytes.begin() + 30), "VARNEX");
    Reply rjt = send(p, els(DISKS, {0x05, 0, 0, 0}), 16);  // not taken: LS_RJT, command not supported
    EXPECT_EQ(rjt.ext_stat, EXT_STATUS_OK);
    EXPECT_EQ(rjt.bytes[0], 0x01);
    EXPECT_EQ(rjt.bytes[5], 0x0B);
    Reply cut = send(p, els(DISKS, rnid_df), 16);
    EXPECT_EQ(cut.ext_stat, EXT_STATUS_DATA_OVERRUN);
    EXPECT_EQ(Bytes(cut.bytes.begin(), cut.bytes.begin() + 16), Bytes(rnid.bytes.begin(), rnid.bytes.begin() + 16));
    EXPECT_EQ(Bytes(cut.bytes.begin() + 16, cut.bytes.end()), Bytes(8, 0xEE));

    // Ports that cannot be reached; the head alone carries no ELS.
    EXPECT_EQ(send(p, els(BLOCKED, {0x10, 0, 0, 0}), 16).ext_stat, EXT_STATUS_DEV_NOT_FOUND);
    EXPECT_EQ(send(p, els(0x5006016000000000, {0x10, 0, 0, 0}), 16).ext_stat, EXT_STATUS_DEV_NOT_FOUND);
    EXPECT_EQ(send(p, els(DISKS, {}), 16).ext_stat, sysfs ? EXT_STATUS_ERR : EXT_STATUS_INVALID_PARAM);

    // The driver saw the payload alone on the port's bsg node, or head and
    // payload on the ioctl node.
    std::vector<std::string> seen;
    for (const nlohmann::json& j : st::journal(sysfs ? "bsg" : "ioctl"))
        if (j.contains("els_response"))
            seen.push_back(std::to_string(j.value("els_code", -1)) + j.value("els_response", "") + "@" +
                           j.value("dest", "") + j.value("rport", ""));
    const std::string to = sysfs ? "@0x010400rport-2:0-0" : "@0x010400";
    EXPECT_EQ(seen, std::vector<std::string>({"16LS_ACC" + to, "120LS_ACC" + to, "5LS_RJT" + to, "120LS_ACC" + to}));
}

SIM_TEST(ElsLeaf, ReachesRemotePortsSysfs, "default.json") { els_leaf(); }
SIM_TEST(ElsLeaf, ReachesRemotePortsIoctl, "ioctl.json") { els_leaf(); }
SIM_TEST(ElsLeaf, ReachesRemotePortsLegacy, "legacy.json") { els_leaf(); }

}  // namespace
