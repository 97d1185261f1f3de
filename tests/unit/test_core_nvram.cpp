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

// Where a variable lives: lowest bit of the image and width. Width 0: absent.
struct place {
    size_t first_bit, bits;
    bool operator==(const place&) const = default;
};

image_t random_image(size_t size, uint32_t seed) {
    std::mt19937 rng(seed);
    image_t img(size);
    for (auto& b : img)
        b = static_cast<uint8_t>(rng());
    return img;
}

struct layout {
    const char* name;
    size_t size;
    uint32_t (*get)(const uint8_t*, uint32_t);
    uint32_t (*set)(uint8_t*, uint32_t, uint32_t);
};
const layout layouts[] = {
    {"256-byte", NVRAM_IMAGE_SIZE, VXSDNVR_GetVariableValue, VXSDNVR_SetVariableValue},
    {"swift", NVRAM_SWIFT_IMAGE_SIZE,
     [](const uint8_t* i, uint32_t n) {
         return VXSDNVR_GetVariableValue_swift(static_cast<const nvram_swift*>(static_cast<const void*>(i)), n);
     },
     [](uint8_t* i, uint32_t n, uint32_t v) {
         return VXSDNVR_SetVariableValue_swift(static_cast<nvram_swift*>(static_cast<void*>(i)), n, v);
     }},
};

// Sets every bit of variable `n` to its opposite (with the bits above any
// width set too): the bits that changed must be one unbroken run, the field;
// the getter must read them back, and setting the old value must restore the
// image exactly.
place flip_field(const layout& l, uint32_t n) {
    image_t img = random_image(l.size, n);
    const image_t before = img;
    const uint32_t old = l.get(img.data(), n);
    EXPECT_EQ(l.set(img.data(), n, ~old), SDM_STATUS_SUCCESS);
    std::vector<size_t> changed;
    for (size_t bit = 0; bit < img.size() * 8; ++bit)
        if (((img[bit / 8] ^ before[bit / 8]) >> (bit % 8)) & 1)
            changed.push_back(bit);
    if (changed.empty()) {
        EXPECT_EQ(old, 0u) << "an absent variable reads 0";
        return {0, 0};
    }
    const place p{changed.front(), changed.size()};
    EXPECT_EQ(changed.back() - changed.front() + 1, changed.size()) << "a field with a hole";
    const uint32_t mask = p.bits >= 32 ? 0xFFFFFFFFu : (1u << p.bits) - 1;
    EXPECT_EQ(old & ~mask, 0u);
    EXPECT_EQ(l.get(img.data(), n), ~old & mask);
    EXPECT_EQ(l.set(img.data(), n, old), SDM_STATUS_SUCCESS);
    EXPECT_EQ(img, before);
    return p;
}

TEST(NvramVariables, EveryVariableOfBothLayoutsSetsOnlyItsOwnBits) {
    for (const layout& l : layouts)
        for (uint32_t n = 1; n < NVRAMVarEnd; ++n) {  // NVRAMVarId is a string: below
            SCOPED_TRACE(std::string(l.name) + " variable " + std::to_string(n));
            flip_field(l, n);
        }
    // Places a management tool relies on: byte * 8 + bit, and width, of the
    // 256-byte and of the Swift layout.
    const struct {
        uint32_t n;
        place word, swift;
    } spots[] = {
        {NVRAMVarRiscVersion, {6 * 8, 8}, {0, 0}},
        {NVRAMVarExecutionThrottle, {14 * 8, 16}, {14 * 8, 16}},
        {NVRAMVarPortName0, {18 * 8, 8}, {20 * 8, 8}},
        {NVRAMVarPortName7, {24 * 8 + 8, 8}, {27 * 8, 8}},
        {NVRAMVarNodeName0, {30 * 8, 8}, {28 * 8, 8}},
        {NVRAMVarDataRate, {42 * 8 + 14, 2}, {52 * 8 + 13, 3}},
        {NVRAMVarSubSystemDeviceID1, {252 * 8, 16}, {506 * 8, 16}},
        {NVRAMVarCheckSum, {255 * 8, 8}, {508 * 8, 32}},
        {NVRAMVarEnableDPort, {0, 0}, {44 * 8 + 7, 1}},
    };
    for (const auto& s : spots) {
        EXPECT_EQ(flip_field(layouts[0], s.n), s.word) << "256-byte variable " << s.n;
        EXPECT_EQ(flip_field(layouts[1], s.n), s.swift) << "swift variable " << s.n;
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

// Values wider than their field and absent Swift fields are covered by the
// walk above; here what lies outside the table.
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
