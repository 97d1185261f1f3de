// Extended-ioctl framing: record bytes of both generations, number
// conversion, and what the common send path hands to ioctl().
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <vector>

#include "exioct.h"
#include "vx_core.h"

// A seam for these tests: while `fake_driver` is set, ioctl() calls of this
// process go to it; otherwise to the C library.
namespace {
std::function<int(unsigned long, void*)> fake_driver;
}

extern "C" int ioctl(int fd, unsigned long request, ...) {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (fake_driver)
        return fake_driver(request, arg);
    using real_ioctl_t = int (*)(int, unsigned long, ...);
    static auto real = reinterpret_cast<real_ioctl_t>(dlsym(RTLD_NEXT, "ioctl"));
    return real(fd, request, arg);
}

namespace {

class ExtIoctl : public testing::Test {
protected:
    void TearDown() override { fake_driver = nullptr; }
};

TEST_F(ExtIoctl, NewerRecordBytes) {
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

TEST_F(ExtIoctl, OlderRecordBytes) {
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

TEST_F(ExtIoctl, CommandNumbers) {
    EXPECT_EQ(ext_ioctl_number(EXT_CC_QUERY), 0xC0747900u);
    EXPECT_EQ(ext_ioctl_number(EXT_CC_GET_DATA), 0xC0747906u);
    EXPECT_EQ(ext_ioctl_number(EXT_CC_GET_LUN_DATA), 0xC07479CEu);
    EXPECT_EQ(ext_ioctl_number(EXT_CC_WWPN_TO_SCSIADDR), 0xC07479FDu);
    EXPECT_EQ(ext_ioctl_number(EXT_CC_GET_DATA), static_cast<uint32_t>(_IOWR(0x79, 6, EXT_IOCTL)));
    const std::pair<uint32_t, uint32_t> conversions[] = {
        {0xC0747906, 0xC0047906}, {0xC07479FF, 0xC00479FF}, {0xC0747900, 0xC0047900}, {0x12345678, 0xC0045678},
    };
    for (const auto& [in, out] : conversions)
        EXPECT_EQ(convert_ioctl(in), out) << std::hex << in;
}

TEST_F(ExtIoctl, PointerConversionsRoundTrip) {
    int x = 0;
    EXPECT_EQ(vxapi_64bit_to_ptr(vxapi_ptr_to_64bit(&x)), &x);
    EXPECT_EQ(vxapi_ptr_to_64bit(nullptr), 0u);
    EXPECT_EQ(vxapi_ptr_to_64bit(reinterpret_cast<void*>(uintptr_t{0xFFFFFFFF})), 0xFFFFFFFFull);
}

TEST_F(ExtIoctl, SendPathUsesThePortsGeneration) {
    std::vector<unsigned long> numbers;
    std::vector<uint16_t> versions;
    fake_driver = [&](unsigned long number, void* arg) {
        numbers.push_back(number);
        uint16_t version;
        // The version field sits at offset 10 (newer) or 6 (older).
        memcpy(&version, static_cast<uint8_t*>(arg) + ((number >> 16 & 0x3FFF) == sizeof(EXT_IOCTL) ? 10 : 6),
               sizeof version);
        versions.push_back(version);
        return 0;
    };
    vxapi_priv_database newer{};
    newer.features = VX_FEAT_IOCTL_NODE | VX_FEAT_NEW_IOCTL;
    vxapi_priv_database older{};
    older.features = VX_FEAT_IOCTL_NODE;
    uint8_t resp[16];
    uint32_t stat = 99;
    EXPECT_EQ(vxapi_send_ext_ioctl(3, &newer, EXT_CC_GET_DATA, 10, 0, nullptr, 0, resp, sizeof resp, &stat, nullptr), 0);
    EXPECT_EQ(vxapi_send_ext_ioctl(3, &older, EXT_CC_GET_DATA, 10, 0, nullptr, 0, resp, sizeof resp, &stat, nullptr), 0);
    ASSERT_EQ(numbers.size(), 2u);
    EXPECT_EQ(numbers[0], 0xC0747906u);
    EXPECT_EQ(numbers[1], 0xC0047906u);
    EXPECT_EQ(versions[0], 7);
    EXPECT_EQ(versions[1], 5);
}

TEST_F(ExtIoctl, StatusAndErrnoComeBack) {
    fake_driver = [](unsigned long, void* arg) {
        auto* ext = static_cast<EXT_IOCTL*>(arg);
        ext->Status = 15;
        ext->DetailStatus = 0x02;
        return 0;
    };
    vxapi_priv_database port{};
    port.features = VX_FEAT_IOCTL_NODE | VX_FEAT_NEW_IOCTL;
    uint32_t stat = 0, dstat = 0;
    EXPECT_EQ(vxapi_send_ext_ioctl(3, &port, EXT_CC_QUERY, 1, 0, nullptr, 0, nullptr, 0, &stat, &dstat), 0);
    EXPECT_EQ(stat, 15u);
    EXPECT_EQ(dstat, 2u);

    fake_driver = [](unsigned long, void*) {
        errno = EIO;
        return -1;
    };
    errno = 0;
    EXPECT_EQ(vxapi_send_ext_ioctl(3, &port, EXT_CC_QUERY, 1, 0, nullptr, 0, nullptr, 0, &stat, nullptr), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(vxapi_send_ext_ioctl(3, nullptr, EXT_CC_QUERY, 1, 0, nullptr, 0, nullptr, 0, &stat, nullptr), 1);
}

TEST_F(ExtIoctl, OlderGenerationStagesHighBuffersBelow4GiB) {
    // The answer written through the 32-bit address must reach the caller's buffer.
    std::vector<uint8_t> resp(696, 0);
    std::vector<uint8_t> req = {1, 2, 3, 4};
    uint32_t seen_req = 0;
    fake_driver = [&](unsigned long, void* arg) {
        auto* ext = static_cast<EXT_IOCTL_O*>(arg);
        auto* out = static_cast<uint8_t*>(vxapi_64bit_to_ptr(ext->ResponseAdr));
        const auto* in = static_cast<const uint8_t*>(vxapi_64bit_to_ptr(ext->RequestAdr));
        seen_req = static_cast<uint32_t>(in[0] | in[1] << 8 | in[2] << 16 | in[3] << 24);
        for (uint32_t i = 0; i < ext->ResponseLen; ++i)
            out[i] = static_cast<uint8_t>(i);
        return 0;
    };
    vxapi_priv_database port{};
    port.features = VX_FEAT_IOCTL_NODE;
    uint32_t stat = 1;
    ASSERT_EQ(vxapi_send_ext_ioctl(3, &port, EXT_CC_QUERY, 1, 0, req.data(), 4, resp.data(),
                                   static_cast<uint32_t>(resp.size()), &stat, nullptr),
              0);
    EXPECT_EQ(seen_req, 0x04030201u);
    for (size_t i = 0; i < resp.size(); ++i)
        ASSERT_EQ(resp[i], static_cast<uint8_t>(i)) << i;
    EXPECT_EQ(stat, 0u);
}

}  // namespace
