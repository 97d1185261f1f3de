// bsg framing: the header and request bytes of vendor, option-ROM, CT and
// ELS requests, and how a completed request is judged.
#include <cerrno>
#include <cstring>
#include <tuple>

#include <gtest/gtest.h>

#include "vx_sysfs.h"

namespace {

using Req = std::array<uint8_t, VXSYSFS_BSG_REQ_LEN>;

uint64_t addr(const void* p) { return reinterpret_cast<uintptr_t>(p); }

template <typename T>
T at(const Req& r, size_t off) {
    T v;
    std::memcpy(&v, r.data() + off, sizeof v);
    return v;
}

TEST(BsgFrame, VendorAndOptionRomRequests) {
    sg_io_v4 hdr;
    std::memset(&hdr, 0xEE, sizeof hdr);
    Req req;
    req.fill(0xCC);
    uint8_t rsp[VXSYSFS_BSG_RSP_LEN], din[32];
    ASSERT_EQ(vxsysfs_create_bsg_header(&hdr, req.data(), 20, rsp, 20, nullptr, 0, din, sizeof din), 0u);
    EXPECT_EQ(std::make_tuple(hdr.guard, hdr.protocol, hdr.subprotocol, hdr.request_len, hdr.max_response_len),
              std::make_tuple(int('Q'), 0u, 2u, 20u, 20u));
    EXPECT_EQ(std::make_tuple(hdr.request, hdr.response), std::make_tuple(addr(req.data()), addr(rsp)));
    // No data out: the data-in buffer goes out too.
    EXPECT_EQ(std::make_tuple(hdr.dout_xferp, hdr.dout_xfer_len, hdr.din_xferp), std::make_tuple(addr(din), 32u, addr(din)));
    EXPECT_EQ(hdr.timeout | hdr.flags | hdr.request_tag | hdr.usr_ptr, 0u) << "zeroed first";
    const uint8_t head[12] = {0xFF, 0, 0, 0x80, 0x5A, 0x1D, 0, 0, 0, 0, 0, 0x01};
    EXPECT_EQ(std::memcmp(req.data(), head, 12), 0);
    EXPECT_EQ(req[12], 0xCC) << "the command words are the caller's";

    uint8_t buf[0x1000];
    ASSERT_EQ(vxsysfs_create_bsg_read_optrom_header(&hdr, buf, sizeof buf, 0x3F1000, req.data(), 20), 0u);
    EXPECT_EQ(std::memcmp(req.data(), head, 12), 0);
    EXPECT_EQ(std::make_tuple(at<uint32_t>(req, 12), at<uint32_t>(req, 16)), std::make_tuple(7u, 0x3F1000u));
    EXPECT_EQ(std::make_tuple(hdr.din_xferp, hdr.din_xfer_len, hdr.dout_xferp, hdr.dout_xfer_len, hdr.max_response_len),
              std::make_tuple(addr(buf), 0x1000u, addr(buf), 0x1000u, 0u));
    ASSERT_EQ(vxsysfs_create_bsg_update_optrom_header(&hdr, buf, 0x200, 0x10000, req.data(), 20), 0u);
    EXPECT_EQ(std::make_tuple(at<uint32_t>(req, 12), at<uint32_t>(req, 16), hdr.dout_xfer_len, hdr.din_xfer_len),
              std::make_tuple(8u, 0x10000u, 0x200u, 0u));

    // A missing piece is refused with a nonzero upper word.
    EXPECT_NE(vxsysfs_create_bsg_read_optrom_header(&hdr, buf, 0, 0, req.data(), 20) >> 16, 0u);
    EXPECT_NE(vxsysfs_create_bsg_update_optrom_header(&hdr, buf, 1, 0, req.data(), 19) >> 16, 0u);
    EXPECT_NE(vxsysfs_create_bsg_header(&hdr, req.data(), 11, nullptr, 0, nullptr, 0, nullptr, 0), 0u);
}

TEST(BsgFrame, CtRequestFromItsHeader) {
    // CT header: GS type 0xFC, subtype 0x02, command 0x0112, size 0x0010.
    const uint8_t payload[16] = {0x01, 0, 0, 0, 0xFC, 0x02, 0, 0, 0x01, 0x12, 0x00, 0x10, 9, 9, 9, 9};
    uint8_t resp[64], reply[VXSYSFS_BSG_RSP_LEN];
    std::memset(resp, 0x77, sizeof resp);
    sg_io_v4 hdr;
    Req req;
    ASSERT_EQ(vxsysfs_create_bsg_ct_header(&hdr, req.data(), 20, reply, 20, payload, 16, resp, 64), 0u);
    EXPECT_EQ(at<uint32_t>(req, 0), 0x80000004u);
    EXPECT_EQ(at<uint32_t>(req, 4), 0xFFFFFC00u) << "0, GS type, 0xFF, 0xFF";
    EXPECT_EQ(at<uint32_t>(req, 8), 0x01000000u);
    EXPECT_EQ(at<uint32_t>(req, 12), 0xFC020000u);
    uint16_t cmd, size;
    std::memcpy(&cmd, payload + 8, 2);
    std::memcpy(&size, payload + 10, 2);
    EXPECT_EQ(at<uint32_t>(req, 16), uint32_t(cmd) << 16 | size);
    EXPECT_EQ(std::make_tuple(hdr.dout_xferp, hdr.dout_xfer_len, hdr.din_xferp), std::make_tuple(addr(payload), 16u, addr(resp)));
    EXPECT_EQ(resp[0] | resp[63], 0) << "the response is cleared";
    EXPECT_EQ(vxsysfs_create_bsg_ct_header(&hdr, req.data(), 20, reply, 20, payload, 11, resp, 64), VXSYSFS_BSG_HDR_FAILED);
}

TEST(BsgFrame, ElsSkipsTheLibraryHead) {
    uint8_t buf[40], resp[16], reply[20];
    for (int i = 0; i < 40; ++i)
        buf[i] = uint8_t(i);
    sg_io_v4 hdr;
    Req req;
    req.fill(0xCC);
    ASSERT_EQ(vxsysfs_create_bsg_els_header(&hdr, req.data(), 20, reply, 20, buf, 40, resp, 16), 0u);
    EXPECT_EQ(std::make_tuple(at<uint32_t>(req, 0), req[4], req[19]), std::make_tuple(0x40000001u, uint8_t(32), uint8_t(0)));
    EXPECT_EQ(std::make_tuple(hdr.dout_xferp, hdr.dout_xfer_len, hdr.din_xfer_len), std::make_tuple(addr(buf + 32), 8u, 16u));
    ASSERT_EQ(vxsysfs_create_bsg_els_header(&hdr, req.data(), 20, reply, 20, buf, 32, resp, 16), 0u);
    EXPECT_EQ(hdr.dout_xfer_len, 0u) << "a bare head sends an empty payload";
    EXPECT_EQ(vxsysfs_create_bsg_els_header(&hdr, req.data(), 20, reply, 20, buf, 31, resp, 16), VXSYSFS_BSG_HDR_FAILED);
}

TEST(BsgJudge, VendorStatusAndBusyRetries) {
    uint8_t reply[20] = {};
    reply[8] = 16;  // vendor_rsp[0]
    EXPECT_EQ(vxsysfs_bsg_vendor_status(0, 0, reply, 20), 16u);
    EXPECT_EQ(vxsysfs_bsg_vendor_status(-1, ENOSYS, reply, 20), 20u);
    EXPECT_EQ(vxsysfs_bsg_vendor_status(-1, EIO, reply, 20), 1u);
    EXPECT_EQ(vxsysfs_bsg_vendor_status(0, 0, reply, 11), 1u) << "no vendor word in the reply";

    using N = vxsysfs_bsg_next;
    const std::tuple<int, int, uint32_t, N, uint32_t> rows[] = {
        {0, 0, 3, N::done, 0},      {-1, EBUSY, 1, N::retry, 2}, {-1, EBUSY, 2, N::retry, 2},
        {-1, EBUSY, 3, N::stop, 2}, {-1, EIO, 1, N::stop, 1},    {-1, ENOSYS, 1, N::stop, 20},
    };
    for (const auto& [rc, err, sends, next, status] : rows) {
        uint32_t got = 99;
        EXPECT_EQ(vxsysfs_bsg_optrom_next(rc, err, sends, &got), next) << err << " " << sends;
        EXPECT_EQ(got, status);
    }
}

}  // namespace
