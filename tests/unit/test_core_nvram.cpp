// NVRAM variables of both image layouts, their texts and class flags, the SD
// calls that choose the layout by family, and the image checksums.
#include "vsdnvram.h"  // first: the public header stands alone

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <utility>
#include <string>
#include <vector>

#include "unit_support.h"
#include "vx_core.h"
#include "vx_sddbg.h"

namespace {

using image_t = std::vector<uint8_t>;

// Where a variable lives: byte offset of its little-endian word (16-bit in the
// 256-byte layout, 32-bit in nvram_swift), lowest bit, width. Width 0: absent.
struct place {
    uint16_t offset;
    uint8_t start, bits;
};

// Per variable: 256-byte word index / start bit / width, then nvram_swift
// byte offset / start bit / width (all 0 where that layout lacks it).
constexpr uint16_t places[NVRAMVarEnd][6] = {
    {0, 0, 32, 0, 0, 32}, {2, 0, 8, 4, 0, 16}, {3, 0, 8, 0, 0, 0}, {4, 0, 1, 44, 0, 1}, {4, 1, 1, 44, 1, 1},
    {4, 2, 1, 44, 2, 1}, {4, 3, 1, 44, 3, 1}, {4, 4, 1, 44, 4, 1}, {4, 5, 1, 44, 5, 1}, {4, 6, 1, 44, 6, 1},
    {4, 7, 1, 44, 7, 1}, {4, 8, 1, 44, 8, 1}, {4, 9, 1, 44, 9, 1}, {4, 10, 1, 44, 10, 1}, {4, 11, 1, 44, 11, 1},
    {4, 12, 1, 44, 12, 1}, {4, 13, 1, 44, 13, 1}, {4, 14, 1, 44, 14, 1}, {4, 15, 1, 44, 15, 1},
    {5, 0, 16, 12, 0, 16}, {6, 0, 16, 16, 0, 16}, {7, 0, 16, 14, 0, 16}, {8, 0, 8, 36, 0, 8},
    {8, 8, 8, 0, 0, 0}, {9, 0, 8, 20, 0, 8}, {9, 8, 8, 21, 0, 8}, {10, 0, 8, 22, 0, 8}, {10, 8, 8, 23, 0, 8},
    {11, 0, 8, 24, 0, 8}, {11, 8, 8, 25, 0, 8}, {12, 0, 8, 26, 0, 8}, {12, 8, 8, 27, 0, 8},
    {13, 0, 16, 18, 0, 16}, {14, 0, 8, 0, 0, 0}, {14, 8, 8, 42, 0, 16}, {15, 0, 8, 28, 0, 8},
    {15, 8, 8, 29, 0, 8}, {16, 0, 8, 30, 0, 8}, {16, 8, 8, 31, 0, 8}, {17, 0, 8, 32, 0, 8},
    {17, 8, 8, 33, 0, 8}, {18, 0, 8, 34, 0, 8}, {18, 8, 8, 35, 0, 8}, {19, 0, 4, 48, 0, 4},
    {19, 4, 3, 48, 4, 3}, {19, 7, 1, 48, 7, 1}, {19, 8, 1, 48, 8, 1}, {19, 9, 1, 48, 9, 1},
    {19, 12, 1, 48, 12, 1}, {19, 13, 1, 0, 0, 0}, {19, 14, 1, 0, 0, 0}, {19, 15, 1, 0, 0, 0},
    {20, 0, 8, 0, 0, 0}, {20, 8, 8, 40, 0, 16}, {21, 0, 1, 52, 0, 1}, {21, 4, 2, 52, 4, 2},
    {21, 6, 1, 52, 6, 1}, {21, 14, 2, 52, 13, 3}, {35, 1, 1, 256, 1, 1}, {35, 2, 1, 0, 0, 0},
    {35, 3, 1, 256, 3, 1}, {35, 4, 1, 256, 4, 1}, {35, 5, 1, 0, 0, 0}, {35, 6, 1, 0, 0, 0}, {35, 7, 1, 0, 0, 0},
    {35, 8, 1, 0, 0, 0}, {35, 9, 1, 0, 0, 0}, {35, 10, 1, 256, 10, 1}, {35, 11, 1, 256, 11, 1},
    {35, 12, 1, 0, 0, 0}, {35, 13, 1, 0, 0, 0}, {35, 14, 1, 0, 0, 0}, {36, 0, 8, 276, 0, 8},
    {36, 8, 8, 277, 0, 8}, {37, 0, 8, 278, 0, 8}, {37, 8, 8, 279, 0, 8}, {38, 0, 8, 280, 0, 8},
    {38, 8, 8, 281, 0, 8}, {39, 0, 8, 282, 0, 8}, {39, 8, 8, 283, 0, 8}, {40, 0, 8, 284, 0, 16},
    {40, 8, 8, 328, 0, 8}, {41, 0, 8, 340, 0, 16}, {42, 0, 16, 336, 0, 16}, {43, 0, 8, 0, 0, 0},
    {43, 8, 8, 0, 0, 0}, {44, 0, 8, 0, 0, 0}, {44, 8, 8, 0, 0, 0}, {45, 0, 8, 0, 0, 0}, {45, 8, 8, 0, 0, 0},
    {46, 0, 8, 0, 0, 0}, {46, 8, 8, 0, 0, 0}, {55, 0, 1, 324, 0, 1}, {55, 1, 1, 324, 1, 1},
    {55, 3, 1, 324, 3, 1}, {55, 5, 1, 324, 5, 1}, {55, 7, 1, 324, 7, 1}, {55, 8, 8, 342, 0, 16},
    {64, 0, 8, 288, 0, 8}, {64, 8, 8, 289, 0, 8}, {65, 0, 8, 290, 0, 8}, {65, 8, 8, 291, 0, 8},
    {66, 0, 8, 292, 0, 8}, {66, 8, 8, 293, 0, 8}, {67, 0, 8, 294, 0, 8}, {67, 8, 8, 295, 0, 8},
    {68, 0, 16, 296, 0, 16}, {69, 0, 8, 300, 0, 8}, {69, 8, 8, 301, 0, 8}, {70, 0, 8, 302, 0, 8},
    {70, 8, 8, 303, 0, 8}, {71, 0, 8, 304, 0, 8}, {71, 8, 8, 305, 0, 8}, {72, 0, 8, 306, 0, 8},
    {72, 8, 8, 307, 0, 8}, {73, 0, 16, 308, 0, 16}, {74, 0, 8, 312, 0, 8}, {74, 8, 8, 313, 0, 8},
    {75, 0, 8, 314, 0, 8}, {75, 8, 8, 315, 0, 8}, {76, 0, 8, 316, 0, 8}, {76, 8, 8, 317, 0, 8},
    {77, 0, 8, 318, 0, 8}, {77, 8, 8, 319, 0, 8}, {78, 0, 16, 320, 0, 16}, {122, 0, 16, 504, 0, 16},
    {124, 0, 16, 506, 0, 16}, {125, 0, 16, 504, 0, 16}, {126, 0, 16, 506, 0, 16}, {127, 8, 8, 508, 0, 32},
    {0, 0, 0, 44, 6, 1}, {0, 0, 0, 412, 0, 1}, {0, 0, 0, 44, 7, 1},
};

place word_place(uint32_t n) {
    return {static_cast<uint16_t>(places[n][0] * 2), static_cast<uint8_t>(places[n][1]),
            static_cast<uint8_t>(places[n][2])};
}
place swift_place(uint32_t n) {
    return {places[n][3], static_cast<uint8_t>(places[n][4]), static_cast<uint8_t>(places[n][5])};
}

uint32_t width_mask(uint32_t bits) { return bits >= 32 ? 0xFFFFFFFFu : (1u << bits) - 1; }

image_t random_image(size_t size, uint32_t seed) {
    std::mt19937 rng(seed);
    image_t img(size);
    for (auto& b : img)
        b = static_cast<uint8_t>(rng());
    return img;
}

// The field's bits read straight from the image, little-endian.
uint32_t field_bits(const image_t& img, place p) {
    uint64_t word = 0;
    for (uint32_t i = 0; i < 4 && p.offset + i < img.size(); ++i)
        word |= static_cast<uint64_t>(img[p.offset + i]) << (8 * i);
    return static_cast<uint32_t>(word >> p.start) & width_mask(p.bits);
}

struct layout {
    const char* name;
    size_t size;
    place (*where)(uint32_t);
    uint32_t (*get)(const uint8_t*, uint32_t);
    uint32_t (*set)(uint8_t*, uint32_t, uint32_t);
};
const layout layouts[] = {
    {"256-byte", NVRAM_IMAGE_SIZE, word_place, VXSDNVR_GetVariableValue, VXSDNVR_SetVariableValue},
    {"swift", NVRAM_SWIFT_IMAGE_SIZE, swift_place,
     [](const uint8_t* i, uint32_t n) {
         return VXSDNVR_GetVariableValue_swift(static_cast<const nvram_swift*>(static_cast<const void*>(i)), n);
     },
     [](uint8_t* i, uint32_t n, uint32_t v) {
         return VXSDNVR_SetVariableValue_swift(static_cast<nvram_swift*>(static_cast<void*>(i)), n, v);
     }},
};

TEST(NvramVariables, EveryVariableOfBothLayoutsSetsOnlyItsOwnBits) {
    for (const layout& l : layouts) {
        for (uint32_t n = 1; n < NVRAMVarEnd; ++n) {  // NVRAMVarId is a string: below
            SCOPED_TRACE(std::string(l.name) + " variable " + std::to_string(n));
            const place p = l.where(n);
            image_t img = random_image(l.size, n);
            const image_t before = img;
            EXPECT_EQ(l.get(img.data(), n), field_bits(img, p));
            // A value of the field's width, unlike the current one, with bits above the width set.
            const uint32_t mask = width_mask(p.bits);
            const uint32_t value = ~field_bits(img, p) & mask;
            EXPECT_EQ(l.set(img.data(), n, value | ~mask), SDM_STATUS_SUCCESS);
            EXPECT_EQ(l.get(img.data(), n), value);
            EXPECT_EQ(field_bits(img, p), value);
            for (size_t bit = 0; bit < img.size() * 8; ++bit) {
                const bool changed = ((img[bit / 8] ^ before[bit / 8]) >> (bit % 8)) & 1;
                const bool in_field = bit >= p.offset * 8u + p.start && bit < p.offset * 8u + p.start + p.bits;
                ASSERT_TRUE(!changed || in_field) << "bit " << bit << " outside the field";
            }
            EXPECT_EQ(l.set(img.data(), n, ~value & mask), SDM_STATUS_SUCCESS);
            EXPECT_EQ(img, before);
        }
    }
}

TEST(NvramVariables, IdentifierIsReadLittleEndianAndWrittenAsAString) {
    for (const layout& l : layouts) {
        SCOPED_TRACE(l.name);
        image_t img(l.size, 0xEE);
        EXPECT_EQ(l.set(img.data(), NVRAMVarId, 0x41424344), SDM_STATUS_SUCCESS);
        EXPECT_EQ(std::string(img.begin(), img.begin() + 4), "ABCD");
        EXPECT_EQ(l.get(img.data(), NVRAMVarId), 0x44434241u);  // so a set of what was read reverses it...
        const image_t same = img;
        EXPECT_EQ(l.set(img.data(), NVRAMVarId, 0x44434241), SDM_STATUS_SUCCESS);
        EXPECT_EQ(img, same);  // ...unless the value is unchanged: then nothing is written
        EXPECT_EQ(l.set(img.data(), NVRAMVarId, 0x51005253), SDM_STATUS_SUCCESS);
        EXPECT_EQ(image_t(img.begin(), img.begin() + 5), (image_t{'Q', 0, 'C', 'D', 0xEE}));  // stops after the zero
    }
}

// Fields wider than their width, absent Swift fields and every place are
// covered by the walk above; here what lies outside the table.
TEST(NvramVariables, BadNumbersAndNullImagesTouchNothing) {
    for (const layout& l : layouts) {
        image_t img = random_image(l.size, 3);
        const image_t before = img;
        for (uint32_t n : {uint32_t{NVRAMVarEnd}, 134u, 0xFFFFFFFFu}) {
            EXPECT_EQ(l.get(img.data(), n), 0u) << l.name << n;
            EXPECT_EQ(l.set(img.data(), n, 1), SDM_STATUS_INVALID_PARAMETER) << l.name << n;
        }
        EXPECT_EQ(img, before);
        EXPECT_EQ(l.get(nullptr, 1), 0u);
        EXPECT_EQ(l.set(nullptr, 1, 1), SDM_STATUS_INVALID_PARAMETER);
    }
}

TEST(NvramVariables, DescriptionsStayShiftedFrom93On) {
    const struct {
        uint32_t n;
        const char* text;  // null: no text
    } cases[] = {
        {0, "Adapter ID"}, {2, "Firmare Version"}, {92, "Selective Login"},
        {93, "Enable Alt Boot DeviceEnable Boot Order List"}, {94, "Enable Selective Lun"},
        {97, "Alternate1 Boot Port Name 0"}, {128, "Checksum"}, {129, nullptr}, {132, nullptr},
        {133, nullptr}, {0xFFFFFFFF, nullptr},
    };
    for (const auto& c : cases) {
        EXPECT_STREQ(VXSDNVR_GetVariableDescription(nullptr, c.n), c.text) << c.n;
    }
}

TEST(NvramVariables, ReadOnlyAndVisibleFollowTheClassInTheWordView) {
    constexpr uint32_t yes = SDM_STATUS_SUCCESS, no = SDM_STATUS_UNKNOWN_ERROR, bad = SDM_STATUS_INVALID_PARAMETER;
    const struct {
        uint16_t cls;  // NVRAMVarSubSystemDeviceID1
        uint32_t n;
        uint32_t read_only, visible;
    } cases[] = {
        {1, NVRAMVarId, yes, no},               // settings 0x111
        {1, NVRAMVarRiscEnableHardLoopID, no, yes},  // 0x222
        {1, NVRAMVarInitConfigMode, yes, yes},  // 0x223
        {2, NVRAMVarInitConfigMode, no, yes},
        {2, NVRAMVarTargetInquiryData, no, no},  // 0x1: class 1 only
        {1, NVRAMVarTargetInquiryData, yes, no},
        {2, NVRAMVarEnableCacheFlushRead, yes, no},  // 0x110
        {9, NVRAMVarEnableFairness, no, yes},    // 0x220
        {0xFFFF, NVRAMVarEnableFairness, no, yes},  // capped at class 9
        {1, NVRAMVarEnableFairness, no, no},
        {0, NVRAMVarId, no, no}, {3, NVRAMVarId, no, no},
        {1, NVRAMVarEnd, bad, bad}, {1, 0xFFFFFFFF, bad, bad},
    };
    for (size_t size : {NVRAM_IMAGE_SIZE, NVRAM_SWIFT_IMAGE_SIZE}) {
        for (const auto& c : cases) {
            image_t img(size, 0);
            img[252] = static_cast<uint8_t>(c.cls);  // word 126, also on a 512-byte image
            img[253] = static_cast<uint8_t>(c.cls >> 8);
            EXPECT_EQ(VXSDNVR_IsVariableReadOnly(img.data(), c.n), c.read_only) << size << " " << c.cls << " " << c.n;
            EXPECT_EQ(VXSDNVR_IsVariableVisible(img.data(), c.n), c.visible) << size << " " << c.cls << " " << c.n;
        }
    }
    EXPECT_EQ(VXSDNVR_IsVariableReadOnly(nullptr, 1), bad);
    EXPECT_EQ(VXSDNVR_IsVariableVisible(nullptr, 1), bad);
}

TEST(NvramChecksum, BothLayoutsRoundTrip) {
    // The first 127 words sum to 0x10: the checksum word is its complement.
    image_t swift(NVRAM_SWIFT_IMAGE_SIZE, 0);
    swift[0] = 0x0F;
    swift[504] = 0x01;
    ASSERT_EQ(vxapi_nvram_set_checksum(swift.data(), NVRAM_SWIFT_IMAGE_SIZE, true), 0);
    EXPECT_EQ(layouts[1].get(swift.data(), NVRAMVarCheckSum), 0xFFFFFFF0u);
    // The 256-byte image's checksum is its last byte, NVRAMVarCheckSum.
    image_t word = random_image(NVRAM_IMAGE_SIZE, 11);
    ASSERT_EQ(vxapi_nvram_set_checksum(word.data(), NVRAM_IMAGE_SIZE, false), 0);
    uint8_t sum = 0;
    for (size_t i = 0; i + 1 < word.size(); ++i)
        sum = static_cast<uint8_t>(sum + word[i]);
    EXPECT_EQ(VXSDNVR_GetVariableValue(word.data(), NVRAMVarCheckSum), static_cast<uint8_t>(0u - sum));

    for (auto [img, is_swift] : {std::pair{&swift, true}, std::pair{&word, false}}) {
        const auto size = static_cast<uint32_t>(img->size());
        EXPECT_EQ(vxapi_nvram_verify_checksum(img->data(), size, is_swift), 0);
        (*img)[100] ^= 0x01;
        EXPECT_EQ(vxapi_nvram_verify_checksum(img->data(), size, is_swift), 1);
    }
    // A shorter image keeps its checksum in its own last word; no room for one word fails.
    image_t part(64, 0);
    part[0] = 1;
    ASSERT_EQ(vxapi_nvram_set_checksum(part.data(), 64, true), 0);
    EXPECT_EQ(image_t(part.end() - 4, part.end()), (image_t{0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(vxapi_nvram_set_checksum(part.data(), 3, true), 1);
    EXPECT_EQ(vxapi_nvram_set_checksum(part.data(), 0, false), 1);
    EXPECT_EQ(vxapi_nvram_verify_checksum(nullptr, 512, true), 1);
}

class NvramSdCalls : public testing::Test {
protected:
    void TearDown() override {
        vx_debug = VXDBG_DEFAULT;
        vxapi_free_api_priv_data_mem();
        vxapi_free_api_phy_info_mem();
    }
    // An open port of an adapter with this device id; returns its handle.
    int add_port(uint16_t device_id) {
        uint32_t err = 0;
        EXPECT_EQ(vxapi_alloc_api_priv_data_mem(&err), 0);
        EXPECT_EQ(vxapi_alloc_api_phy_info_mem(&err), 0);
        vxapi_priv_database* port = current_priv_inst;
        port->phy_info = current_phy_info_inst;
        port->phy_info->device_id = device_id;
        port->features = VX_FEAT_SYSFS;
        port->apihandle = ++handles_;
        return static_cast<int>(port->apihandle);
    }
    uint32_t handles_ = 0;
};

TEST_F(NvramSdCalls, LayoutFollowsTheFamily) {
    const struct {
        uint16_t device_id;
        size_t payload_at;  // NVRAMVarFramePayloadSize
    } cases[] = {{0x1010, 10}, {0x1040, 10}, {0x1052, 12}, {0x2031, 12}, {0x2072, 12}};
    for (const auto& c : cases) {
        const int handle = add_port(c.device_id);
        image_t img(NVRAM_SWIFT_IMAGE_SIZE, 0);
        EXPECT_EQ(SDSetVariableValue(handle, img.data(), NVRAMVarFramePayloadSize, 0x0800), SDM_STATUS_SUCCESS);
        EXPECT_EQ(img[c.payload_at + 1], 0x08) << std::hex << c.device_id;
        EXPECT_EQ(SDGetVariableValue(handle, img.data(), NVRAMVarFramePayloadSize), 0x0800u);
        EXPECT_EQ(SDGetVariableValue(handle, nullptr, 1), SDM_STATUS_INVALID_PARAMETER);
        EXPECT_EQ(SDSetVariableValue(handle, nullptr, 1, 1), SDM_STATUS_INVALID_PARAMETER);
    }
}

TEST_F(NvramSdCalls, BadHandleQuirksAreKept) {
    const int handle = add_port(0x1052);
    image_t img(NVRAM_SWIFT_IMAGE_SIZE, 0);
    ASSERT_EQ(SDSetVariableValue(handle, img.data(), NVRAMVarCheckSum, SDM_STATUS_INVALID_HANDLE), SDM_STATUS_SUCCESS);
    // A stored value equal to the bad-handle status reads the same as a bad handle.
    EXPECT_EQ(SDGetVariableValue(handle, img.data(), NVRAMVarCheckSum), SDM_STATUS_INVALID_HANDLE);
    EXPECT_EQ(SDGetVariableValue(handle + 1, img.data(), NVRAMVarCheckSum), SDM_STATUS_INVALID_HANDLE);

    vx_debug = VXDBG_ERROR | VXDBG_SDAPI;  // errors echoed to standard error
    uint32_t ret = 0;
    const std::string err = capture_stderr([&] { ret = SDSetVariableValue(handle + 1, img.data(), 1, 1); });
    EXPECT_EQ(ret, SDM_STATUS_INVALID_HANDLE);
    // The setter traces under the getter's name.
    EXPECT_NE(err.find("SDGetVariableValue: check_handle failed. handle=" + std::to_string(handle + 1)),
              std::string::npos)
        << err;
    EXPECT_EQ(err.find("SDSetVariableValue: check_handle"), std::string::npos);
}

}  // namespace
