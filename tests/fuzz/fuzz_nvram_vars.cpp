// NVRAM variable accessors over arbitrary images and numbers: nothing is read
// or written outside the image, writing back what was read changes nothing,
// and a recomputed checksum always verifies.
#include <cstdint>
#include <cstring>
#include <vector>

#include "vsdnvram.h"
#include "vx_core.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    const bool swift = data[0] & 1;
    ++data;
    --size;
    // An image of exactly its layout's size (ASan sees any overrun), from the first bytes.
    std::vector<uint8_t> img(swift ? NVRAM_SWIFT_IMAGE_SIZE : NVRAM_IMAGE_SIZE, 0);
    const size_t n = size < img.size() ? size : img.size();
    memcpy(img.data(), data, n);
    data += n;
    size -= n;
    auto* rec = static_cast<nvram_swift*>(static_cast<void*>(img.data()));

    // Then (number, value) pairs; numbers run past the table too.
    for (; size >= 8; data += 8, size -= 8) {
        uint32_t number, value;
        memcpy(&number, data, 4);
        memcpy(&value, data + 4, 4);
        const uint32_t read = swift ? VXSDNVR_GetVariableValue_swift(rec, number)
                                    : VXSDNVR_GetVariableValue(img.data(), number);
        const std::vector<uint8_t> before = img;
        const auto set = swift ? [](uint8_t* i, uint32_t n, uint32_t v) {
            return VXSDNVR_SetVariableValue_swift(static_cast<nvram_swift*>(static_cast<void*>(i)), n, v);
        } : VXSDNVR_SetVariableValue;
        set(img.data(), number, read);
        if (img != before)
            __builtin_trap();
        set(img.data(), number, value);
        VXSDNVR_GetVariableDescription(img.data(), number);
        VXSDNVR_IsVariableReadOnly(img.data(), number);
        VXSDNVR_IsVariableVisible(img.data(), number);
    }
    if (vxapi_nvram_set_checksum(img.data(), static_cast<uint32_t>(img.size()), swift) != 0 ||
        vxapi_nvram_verify_checksum(img.data(), static_cast<uint32_t>(img.size()), swift) != 0)
        __builtin_trap();
    return 0;
}
