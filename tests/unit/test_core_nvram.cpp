// NVRAM variables of both image layouts, their texts and class flags, the SD
// calls that choose the layout by family, and the image checksums.
#include "vsdnvram.h"  // first: the public header stands alone

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <random>
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

// The 256-byte layout as word index / start bit / width, per variable.
constexpr uint8_t word_places[NVRAMVarEnd][3] = {
    {0, 0, 32}, {2, 0, 8}, {3, 0, 8}, {4, 0, 1}, {4, 1, 1}, {4, 2, 1}, {4, 3, 1}, {4, 4, 1}, {4, 5, 1},
    {4, 6, 1}, {4, 7, 1}, {4, 8, 1}, {4, 9, 1}, {4, 10, 1}, {4, 11, 1}, {4, 12, 1}, {4, 13, 1}, {4, 14, 1},
    {4, 15, 1}, {5, 0, 16}, {6, 0, 16}, {7, 0, 16}, {8, 0, 8}, {8, 8, 8}, {9, 0, 8}, {9, 8, 8}, {10, 0, 8},
    {10, 8, 8}, {11, 0, 8}, {11, 8, 8}, {12, 0, 8}, {12, 8, 8}, {13, 0, 16}, {14, 0, 8}, {14, 8, 8},
    {15, 0, 8}, {15, 8, 8}, {16, 0, 8}, {16, 8, 8}, {17, 0, 8}, {17, 8, 8}, {18, 0, 8}, {18, 8, 8},
    {19, 0, 4}, {19, 4, 3}, {19, 7, 1}, {19, 8, 1}, {19, 9, 1}, {19, 12, 1}, {19, 13, 1}, {19, 14, 1},
    {19, 15, 1}, {20, 0, 8}, {20, 8, 8}, {21, 0, 1}, {21, 4, 2}, {21, 6, 1}, {21, 14, 2}, {35, 1, 1},
    {35, 2, 1}, {35, 3, 1}, {35, 4, 1}, {35, 5, 1}, {35, 6, 1}, {35, 7, 1}, {35, 8, 1}, {35, 9, 1},
    {35, 10, 1}, {35, 11, 1}, {35, 12, 1}, {35, 13, 1}, {35, 14, 1}, {36, 0, 8}, {36, 8, 8}, {37, 0, 8},
    {37, 8, 8}, {38, 0, 8}, {38, 8, 8}, {39, 0, 8}, {39, 8, 8}, {40, 0, 8}, {40, 8, 8}, {41, 0, 8},
    {42, 0, 16}, {43, 0, 8}, {43, 8, 8}, {44, 0, 8}, {44, 8, 8}, {45, 0, 8}, {45, 8, 8}, {46, 0, 8},
    {46, 8, 8}, {55, 0, 1}, {55, 1, 1}, {55, 3, 1}, {55, 5, 1}, {55, 7, 1}, {55, 8, 8}, {64, 0, 8},
    {64, 8, 8}, {65, 0, 8}, {65, 8, 8}, {66, 0, 8}, {66, 8, 8}, {67, 0, 8}, {67, 8, 8}, {68, 0, 16},
    {69, 0, 8}, {69, 8, 8}, {70, 0, 8}, {70, 8, 8}, {71, 0, 8}, {71, 8, 8}, {72, 0, 8}, {72, 8, 8},
    {73, 0, 16}, {74, 0, 8}, {74, 8, 8}, {75, 0, 8}, {75, 8, 8}, {76, 0, 8}, {76, 8, 8}, {77, 0, 8},
    {77, 8, 8}, {78, 0, 16}, {122, 0, 16}, {124, 0, 16}, {125, 0, 16}, {126, 0, 16}, {127, 8, 8},
    {0, 0, 0}, {0, 0, 0}, {0, 0, 0},
};

// nvram_swift places by field, so that the variable table is checked against the record.
#define F(field) static_cast<uint16_t>(offsetof(nvram_swift, field))
place swift_place(uint32_t n) {
    constexpr uint16_t fw1 = F(firmware_options_1), fw2 = F(firmware_options_2), fw3 = F(firmware_options_3);
    constexpr uint16_t host = F(host_p), efi = F(efi_parameters);
    if (n >= 3 && n <= 18)
        return {fw1, static_cast<uint8_t>(n - 3), 1};
    struct range {
        uint32_t first, last;
        uint16_t offset;
    };
    // Runs of one byte each: the names.
    for (const range& r : {range{24, 31, F(port_name)}, range{35, 42, F(node_name)}, range{72, 79, F(boot_port_name)},
                           range{98, 105, F(alt1_boot_port_name)}, range{107, 114, F(alt2_boot_port_name)},
                           range{116, 123, F(alt3_boot_port_name)}})
        if (n >= r.first && n <= r.last)
            return {static_cast<uint16_t>(r.offset + n - r.first), 0, 8};
    switch (n) {
    case 0: return {F(id), 0, 32};
    case 1: return {F(nvram_version), 0, 16};
    case 19: return {F(frame_payload_size), 0, 16};
    case 20: return {F(exchange_count), 0, 16};
    case 21: return {F(execution_throttle), 0, 16};
    case 22: return {F(login_retry_count), 0, 8};
    case 32: return {F(hard_address), 0, 16};
    case 34: return {F(login_timeout), 0, 16};
    case 43: return {fw2, 0, 4};
    case 44: return {fw2, 4, 3};
    case 45: return {fw2, 7, 1};
    case 46: return {fw2, 8, 1};
    case 47: return {fw2, 9, 1};
    case 48: return {fw2, 12, 1};
    case 53: return {F(interrupt_delay_timer), 0, 16};
    case 54: return {fw3, 0, 1};
    case 55: return {fw3, 4, 2};
    case 56: return {fw3, 6, 1};
    case 57: return {fw3, 13, 3};
    case 58: return {host, 1, 1};
    case 60: return {host, 3, 1};
    case 61: return {host, 4, 1};
    case 67: return {host, 10, 1};
    case 68: return {host, 11, 1};
    case 80: return {F(boot_lun_number), 0, 16};
    case 81: return {F(reset_delay), 0, 8};
    case 82: return {F(port_down_retry_count), 0, 16};
    case 83: return {F(max_luns_per_target), 0, 16};
    case 92: return {efi, 0, 1};
    case 93: return {efi, 1, 1};
    case 94: return {efi, 3, 1};
    case 95: return {efi, 5, 1};
    case 96: return {efi, 7, 1};
    case 97: return {F(link_down_timeout), 0, 16};
    case 106: return {F(alt1_boot_lun_number), 0, 16};
    case 115: return {F(alt2_boot_lun_number), 0, 16};
    case 124: return {F(alt3_boot_lun_number), 0, 16};
    case 125: case 127: return {F(subsystem_vendor_id), 0, 16};
    case 126: case 128: return {F(subsystem_device_id), 0, 16};
    case 129: return {F(checksum), 0, 32};
    case 130: return {fw1, 6, 1};
    case 131: return {F(enable_fabric_assg_boot_lun), 0, 1};
    case 132: return {fw1, 7, 1};
    default: return {0, 0, 0};  // not in this layout
    }
}
#undef F

place word_place(uint32_t n) {
    return {static_cast<uint16_t>(word_places[n][0] * 2), word_places[n][1], word_places[n][2]};
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

TEST(NvramVariables, LayoutQuirksAndBadNumbers) {
    image_t word(NVRAM_IMAGE_SIZE, 0);
    EXPECT_EQ(VXSDNVR_SetVariableValue(word.data(), NVRAMVarEnableFairness, 3), SDM_STATUS_SUCCESS);
    EXPECT_EQ(word[8], 0x02);  // word 4, bit 1 only
    EXPECT_EQ(std::count(word.begin(), word.end(), 0), NVRAM_IMAGE_SIZE - 1);

    // Variables the 512-byte layout lacks read 0 and ignore writes.
    const uint32_t absent[] = {2, 23, 33, 49, 50, 51, 52, 59, 62, 63, 64, 65, 66, 69, 70, 71,
                               84, 85, 86, 87, 88, 89, 90, 91};
    image_t swift = random_image(NVRAM_SWIFT_IMAGE_SIZE, 7);
    const image_t swift_before = swift;
    for (uint32_t n = 0; n < NVRAMVarEnd; ++n) {
        const bool lacks = std::find(std::begin(absent), std::end(absent), n) != std::end(absent);
        EXPECT_EQ(swift_place(n).bits == 0, lacks) << n;
        if (lacks) {
            EXPECT_EQ(layouts[1].get(swift.data(), n), 0u) << n;
            EXPECT_EQ(layouts[1].set(swift.data(), n, 0xFFFFFFFF), SDM_STATUS_SUCCESS) << n;
        }
    }
    EXPECT_EQ(swift, swift_before);

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
        const char* text = VXSDNVR_GetVariableDescription(nullptr, c.n);
        if (c.text)
            EXPECT_STREQ(text, c.text) << c.n;
        else
            EXPECT_EQ(text, nullptr) << c.n;
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
        {9, NVRAMVarEnableCacheFlushRead, yes, no},
        {9, NVRAMVarEnableFairness, no, yes},    // 0x220
        {0xFFFF, NVRAMVarEnableFairness, no, yes},  // capped at class 9
        {1, NVRAMVarEnableFairness, no, no},
        {0, NVRAMVarId, no, no}, {3, NVRAMVarId, no, no}, {8, NVRAMVarId, no, no},
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
    EXPECT_EQ(VXSDNVR_GetVariableValue_swift(static_cast<const nvram_swift*>(static_cast<const void*>(swift.data())),
                                             NVRAMVarCheckSum),
              0xFFFFFFF0u);
    EXPECT_EQ(vxapi_nvram_verify_checksum(swift.data(), NVRAM_SWIFT_IMAGE_SIZE, true), 0);

    image_t word = random_image(NVRAM_IMAGE_SIZE, 11);
    ASSERT_EQ(vxapi_nvram_set_checksum(word.data(), NVRAM_IMAGE_SIZE, false), 0);
    EXPECT_EQ(vxapi_nvram_verify_checksum(word.data(), NVRAM_IMAGE_SIZE, false), 0);
    uint8_t sum = 0;
    for (uint8_t b : word)
        sum = static_cast<uint8_t>(sum + b);
    EXPECT_EQ(sum, 0);
    EXPECT_EQ(VXSDNVR_GetVariableValue(word.data(), NVRAMVarCheckSum), word[255]);  // the last byte

    for (auto* img : {&swift, &word}) {
        const bool is_swift = img == &swift;
        (*img)[100] ^= 0x01;
        EXPECT_EQ(vxapi_nvram_verify_checksum(img->data(), static_cast<uint32_t>(img->size()), is_swift), 1);
    }
    // A shorter image keeps its checksum in its own last word.
    image_t part(64, 0);
    part[0] = 1;
    ASSERT_EQ(vxapi_nvram_set_checksum(part.data(), 64, true), 0);
    EXPECT_EQ(image_t(part.end() - 4, part.end()), (image_t{0xFF, 0xFF, 0xFF, 0xFF}));

    uint8_t three[3] = {1, 2, 3};
    EXPECT_EQ(vxapi_nvram_set_checksum(three, 3, true), 1);  // no room for a word
    EXPECT_EQ(image_t(three, three + 3), (image_t{1, 2, 3}));
    EXPECT_EQ(vxapi_nvram_verify_checksum(nullptr, 512, true), 1);
    EXPECT_EQ(vxapi_nvram_set_checksum(three, 0, false), 1);
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
