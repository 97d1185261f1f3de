// Extended-ioctl framing: record bytes of both generations, command numbers. (The
// send path is checked end to end against the simulated driver of each generation.)
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <cstring>

#include "exioct.h"
#include "vx_core.h"

namespace {

TEST(ExtIoctl, NewerRecordBytes) {
    vxapi_priv_database port{};
    port.drvr_inst = 0x12345;  // only the low 16 bits select the port
    uint8_t req[4] = {}, resp[8] = {};
    EXT_IOCTL ext;
    memset(&ext, 0xA5, sizeof ext);
    ASSERT_EQ(vxapi_init_ext_ioctl_n(9, 3, req, sizeof req, resp, sizeof resp, &port, &ext), 0);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&ext);
    const uint8_t signature[8] = {'V', 'A', 'R', 'N', 'E', 'X', 0, 0};
    EXPECT_EQ(memcmp(bytes, signature, 8), 0);
    EXPECT_EQ(ext.AddrMode, 1);
    EXPECT_EQ(ext.Version, 7);
    EXPECT_EQ(ext.SubCode, 9);
    EXPECT_EQ(ext.Instance, 3);
    EXPECT_EQ(ext.Status, 0u);
    EXPECT_EQ(uint64_t{ext.RequestAdr}, reinterpret_cast<uintptr_t>(req));  // copies: the fields are packed
    EXPECT_EQ(ext.RequestLen, 4u);
    EXPECT_EQ(uint64_t{ext.ResponseAdr}, reinterpret_cast<uintptr_t>(resp));
    EXPECT_EQ(ext.ResponseLen, 8u);
    EXPECT_EQ(ext.HbaSelect, 0x2345);
    EXPECT_EQ(uint64_t{ext.VendorSpecificData}, 2u);
    for (size_t i = offsetof(EXT_IOCTL, Reserved2); i < sizeof ext; ++i)
        EXPECT_EQ(bytes[i], 0) << i;
    for (size_t i = offsetof(EXT_IOCTL, VendorSpecificStatus); i < offsetof(EXT_IOCTL, VendorSpecificData); ++i)
        EXPECT_EQ(bytes[i], 0) << i;

    ASSERT_EQ(vxapi_init_ext_ioctl_n(1, 0, nullptr, 0, nullptr, 0, nullptr, &ext), 0);
    EXPECT_EQ(ext.HbaSelect, 0);  // no port record: no selector
    EXPECT_EQ(uint64_t{ext.RequestAdr}, 0u);
    EXPECT_NE(vxapi_init_ext_ioctl_n(1, 0, nullptr, 0, nullptr, 0, nullptr, nullptr), 0);
}

TEST(ExtIoctl, OlderRecordBytes) {
    vxapi_priv_database port{};
    port.drvr_inst = 2;
    EXT_IOCTL_O ext;
    memset(&ext, 0xA5, sizeof ext);
    const auto low = reinterpret_cast<void*>(uintptr_t{0x10000});
    ASSERT_EQ(vxapi_init_ext_ioctl_o(4, 7, low, 16, low, 60, &port, &ext), 0);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&ext);
    EXPECT_EQ(memcmp(bytes, "VARN", 4), 0);
    EXPECT_EQ(bytes[4], 1);  // no terminator: AddrMode follows at once
    EXPECT_EQ(ext.Version, 5);
    EXPECT_EQ(ext.SubCode, 4);
    EXPECT_EQ(ext.Instance, 7);
    EXPECT_EQ(ext.RequestAdr, 0x10000u);
    EXPECT_EQ(ext.ResponseLen, 60u);
    EXPECT_EQ(ext.HbaSelect, 2);
    EXPECT_EQ(ext.VendorSpecificData, 2u);

    // An address the 32-bit field cannot carry is refused, not truncated.
    const auto high = reinterpret_cast<void*>(uintptr_t{0x100000000ull});
    EXPECT_NE(vxapi_init_ext_ioctl_o(4, 7, high, 16, nullptr, 0, &port, &ext), 0);
    EXPECT_NE(vxapi_init_ext_ioctl_o(4, 7, nullptr, 0, nullptr, 0, &port, nullptr), 0);
}

TEST(ExtIoctl, CommandNumbers) {
    EXPECT_EQ(ext_ioctl_number(EXT_CC_QUERY), 0xC0747900u);
    EXPECT_EQ(ext_ioctl_number(EXT_CC_GET_DATA), 0xC0747906u);
    EXPECT_EQ(ext_ioctl_number(EXT_CC_GET_LUN_DATA), 0xC07479CEu);
    EXPECT_EQ(ext_ioctl_number(EXT_CC_WWPN_TO_SCSIADDR), 0xC07479FDu);
    const std::pair<uint32_t, uint32_t> conversions[] = {
        {0xC0747906, 0xC0047906}, {0xC07479FF, 0xC00479FF}, {0xC0747900, 0xC0047900}, {0x12345678, 0xC0045678},
    };
    for (const auto& [in, out] : conversions)
        EXPECT_EQ(convert_ioctl(in), out) << std::hex << in;
}

}  // namespace
