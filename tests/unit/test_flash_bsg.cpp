// bsg framing: the header and request bytes of vendor, option-ROM, CT and
// ELS requests, and how a completed request is judged.
#include <cerrno>
#include <cstring>

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

TEST(BsgFrame, VendorRequestBytes) {
    sg_io_v4 hdr;
    std::memset(&hdr, 0xEE, sizeof hdr);
    Req req;
    req.fill(0xCC);
    uint8_t rsp[VXSYSFS_BSG_RSP_LEN];
    uint8_t din[32];
    ASSERT_EQ(vxsysfs_create_bsg_header(&hdr, req.data(), 20, rsp, 20, nullptr, 0, din, sizeof din), 0u);
    EXPECT_EQ(hdr.guard, 'Q');
    EXPECT_EQ(hdr.protocol, 0u);
    EXPECT_EQ(hdr.subprotocol, 2u);
    EXPECT_EQ(hdr.request_len, 20u);
    EXPECT_EQ(hdr.request, addr(req.data()));
    EXPECT_EQ(hdr.max_response_len, 20u);
    EXPECT_EQ(hdr.response, addr(rsp));
    // No data out: the data-in buffer goes out too.
    EXPECT_EQ(hdr.dout_xferp, addr(din));
    EXPECT_EQ(hdr.dout_xfer_len, 32u);
    EXPECT_EQ(hdr.din_xferp, addr(din));
    EXPECT_EQ(hdr.timeout, 0u);
    EXPECT_EQ(hdr.flags | hdr.request_tag | hdr.usr_ptr, 0u) << "zeroed first";
    const uint8_t head[12] = {0xFF, 0, 0, 0x80, 0x5A, 0x1D, 0, 0, 0, 0, 0, 0x01};
    EXPECT_EQ(std::memcmp(req.data(), head, 12), 0);
    EXPECT_EQ(req[12], 0xCC) << "the command words are the caller's";

    uint8_t dout[8];
    ASSERT_EQ(vxsysfs_create_bsg_header(&hdr, req.data(), 20, nullptr, 0, dout, 8, din, 16), 0u);
    EXPECT_EQ(hdr.dout_xferp, addr(dout));
    EXPECT_EQ(hdr.dout_xfer_len, 8u);
    EXPECT_EQ(hdr.din_xfer_len, 16u);
    EXPECT_EQ(hdr.max_response_len | hdr.response, 0u);
    EXPECT_EQ(vxsysfs_create_bsg_header(&hdr, req.data(), 11, nullptr, 0, nullptr, 0, nullptr, 0), VXSYSFS_BSG_HDR_FAILED);
}

TEST(BsgFrame, OptionRomReadAndUpdate) {
    uint8_t buf[0x1000];
    sg_io_v4 hdr;
    Req req;
    ASSERT_EQ(vxsysfs_create_bsg_read_optrom_header(&hdr, buf, sizeof buf, 0x3F1000, req.data(), 20), 0u);
    EXPECT_EQ(at<uint32_t>(req, 0), 0x800000FFu);
    EXPECT_EQ(at<uint64_t>(req, 4), 0x0100000000001D5Aull);
    EXPECT_EQ(at<uint32_t>(req, 12), 7u);
    EXPECT_EQ(at<uint32_t>(req, 16), 0x3F1000u);
    EXPECT_EQ(hdr.din_xferp, addr(buf));
    EXPECT_EQ(hdr.dout_xferp, addr(buf));
    EXPECT_EQ(hdr.din_xfer_len, 0x1000u);
    EXPECT_EQ(hdr.dout_xfer_len, 0x1000u);
    EXPECT_EQ(hdr.max_response_len, 0u);

    ASSERT_EQ(vxsysfs_create_bsg_update_optrom_header(&hdr, buf, 0x200, 0x10000, req.data(), 20), 0u);
    EXPECT_EQ(at<uint32_t>(req, 12), 8u);
    EXPECT_EQ(at<uint32_t>(req, 16), 0x10000u);
    EXPECT_EQ(hdr.dout_xfer_len, 0x200u);
    EXPECT_EQ(hdr.din_xfer_len | hdr.din_xferp, 0u);

    // Each missing piece is refused, with a nonzero upper word.
    struct Row {
        sg_io_v4* h;
        uint8_t* b;
        uint32_t size;
        uint8_t* r;
        uint32_t rlen;
    };
    for (const Row& r : {Row{nullptr, buf, 1, req.data(), 20}, Row{&hdr, nullptr, 1, req.data(), 20},
                         Row{&hdr, buf, 0, req.data(), 20}, Row{&hdr, buf, 1, nullptr, 20}, Row{&hdr, buf, 1, req.data(), 0},
                         Row{&hdr, buf, 1, req.data(), 19}}) {
        EXPECT_NE(vxsysfs_create_bsg_read_optrom_header(r.h, r.b, r.size, 0, r.r, r.rlen) >> 16, 0u);
        EXPECT_NE(vxsysfs_create_bsg_update_optrom_header(r.h, r.b, r.size, 0, r.r, r.rlen) >> 16, 0u);
    }
}

TEST(BsgFrame, CtRequestFromItsHeader) {
    // CT header: revision, in_id, GS type 0xFC, subtype 0x02, options, reserved, command 0x0112, size 0x0010.
    const uint8_t payload[16] = {0x01, 0, 0, 0, 0xFC, 0x02, 0, 0, 0x01, 0x12, 0x00, 0x10, 9, 9, 9, 9};
    uint8_t resp[64];
    std::memset(resp, 0x77, sizeof resp);
    uint8_t reply[VXSYSFS_BSG_RSP_LEN];
    sg_io_v4 hdr;
    Req req;
    ASSERT_EQ(vxsysfs_create_bsg_ct_header(&hdr, req.data(), 20, reply, 20, payload, 16, resp, 64), 0u);
    EXPECT_EQ(at<uint32_t>(req, 0), 0x80000004u);
    EXPECT_EQ(req[4], 0);
    EXPECT_EQ(req[5], 0xFC);
    EXPECT_EQ(req[6], 0xFF);
    EXPECT_EQ(req[7], 0xFF);
    EXPECT_EQ(at<uint32_t>(req, 8), 0x01000000u);
    EXPECT_EQ(at<uint32_t>(req, 12), 0xFC020000u);
    uint16_t cmd, size;
    std::memcpy(&cmd, payload + 8, 2);
    std::memcpy(&size, payload + 10, 2);
    EXPECT_EQ(at<uint32_t>(req, 16), uint32_t(cmd) << 16 | size);
    EXPECT_EQ(hdr.dout_xferp, addr(payload));
    EXPECT_EQ(hdr.dout_xfer_len, 16u);
    EXPECT_EQ(hdr.din_xferp, addr(resp));
    EXPECT_EQ(resp[0] | resp[63], 0) << "the response is cleared";
    EXPECT_EQ(vxsysfs_create_bsg_ct_header(&hdr, req.data(), 20, reply, 20, payload, 11, resp, 64), VXSYSFS_BSG_HDR_FAILED);
}

TEST(BsgFrame, ElsSkipsTheLibraryHead) {
    uint8_t buf[40];
    for (int i = 0; i < 40; ++i)
        buf[i] = uint8_t(i);
    uint8_t resp[16], reply[20];
    sg_io_v4 hdr;
    Req req;
    req.fill(0xCC);
    ASSERT_EQ(vxsysfs_create_bsg_els_header(&hdr, req.data(), 20, reply, 20, buf, 40, resp, 16), 0u);
    EXPECT_EQ(at<uint32_t>(req, 0), 0x40000001u);
    EXPECT_EQ(req[4], 32) << "the command byte follows the head";
    EXPECT_EQ(req[19], 0);
    EXPECT_EQ(hdr.dout_xferp, addr(buf + 32));
    EXPECT_EQ(hdr.dout_xfer_len, 8u);
    EXPECT_EQ(hdr.din_xfer_len, 16u);

    ASSERT_EQ(vxsysfs_create_bsg_els_header(&hdr, req.data(), 20, reply, 20, buf, 32, resp, 16), 0u);
    EXPECT_EQ(hdr.dout_xfer_len, 0u) << "a bare head sends an empty payload";
    EXPECT_EQ(req[4], 0);
    EXPECT_EQ(vxsysfs_create_bsg_els_header(&hdr, req.data(), 20, reply, 20, buf, 31, resp, 16), VXSYSFS_BSG_HDR_FAILED);
}

TEST(BsgJudge, VendorStatus) {
    uint8_t reply[20] = {};
    const uint32_t driver_status = 16;
    std::memcpy(reply + 8, &driver_status, 4);
    EXPECT_EQ(vxsysfs_bsg_vendor_status(0, 0, reply, 20), 16u);
    EXPECT_EQ(vxsysfs_bsg_vendor_status(-1, ENOSYS, reply, 20), 20u);
    EXPECT_EQ(vxsysfs_bsg_vendor_status(-1, EIO, reply, 20), 1u);
    EXPECT_EQ(vxsysfs_bsg_vendor_status(0, 0, reply, 11), 1u) << "no vendor word in the reply";
}

TEST(BsgJudge, OptionRomRetriesBusyTwice) {
    struct Row {
        int rc, err;
        uint32_t sends;
        vxsysfs_bsg_next next;
        uint32_t status;
    };
    const Row rows[] = {
        {0, 0, 1, vxsysfs_bsg_next::done, 0},          {-1, EBUSY, 1, vxsysfs_bsg_next::retry, 2},
        {-1, EBUSY, 2, vxsysfs_bsg_next::retry, 2},    {-1, EBUSY, 3, vxsysfs_bsg_next::stop, 2},
        {0, 0, 3, vxsysfs_bsg_next::done, 0},          {-1, EIO, 1, vxsysfs_bsg_next::stop, 1},
        {-1, ENOSYS, 1, vxsysfs_bsg_next::stop, 20},
    };
    for (const Row& r : rows) {
        uint32_t status = 99;
        EXPECT_EQ(vxsysfs_bsg_optrom_next(r.rc, r.err, r.sends, &status), r.next) << r.err << " " << r.sends;
        EXPECT_EQ(status, r.status);
    }
}

}  // namespace
