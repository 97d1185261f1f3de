// Option ROM images from the adapter's flash or from a file a user chose:
// the image walk, the structure check, settings preservation and the VPD
// version refresh must stay inside their buffers whatever the headers say.
// Input: one selector byte, then two equal halves: the current flash
// content (its start doubles as a VPD) and the new image.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "vx_core_flash.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3 || size > 0x100000)
        return 0;
    const uint32_t settings = (data[0] & 1) ? VX_SETTINGS_LEN_SWIFT : VX_SETTINGS_LEN;
    const uint32_t region = (data[0] & 2) ? 0x07 : 0xFF;
    const auto half = static_cast<uint32_t>((size - 1) / 2);
    // Exact-size copies: ASan sees any look past either.
    std::vector<uint8_t> current(data + 1, data + 1 + half);
    std::vector<uint8_t> image(data + 1 + half, data + 1 + 2 * half);

    uint32_t count = 0;
    if (vxapi_check_rom_images(image.data(), half, &count) == vxapi_rom_status::ok && count == 0)
        abort();
    for (uint8_t type : {VX_CODE_TYPE_X86, VX_CODE_TYPE_FCODE, VX_CODE_TYPE_EFI}) {
        vxapi_rom_image img;
        if (vxapi_find_rom_image(image.data(), half, type, &img) == 0 && (img.pcir + 24 > half || img.offset > half))
            abort();
    }
    vxapi_preserve_settings(current.data(), half, image.data(), half, settings);

    std::vector<uint8_t> vpd(current.begin(), current.begin() + (half < VX_VPD_SIZE ? half : VX_VPD_SIZE));
    vxapi_update_nv_vpd_version(image.data(), half, vpd.data(), static_cast<uint32_t>(vpd.size()), region);
    if (vxapi_find_vpd_image(current.data(), half))
        vxapi_add_vpd_image(image.data(), half, vxapi_find_vpd_image(current.data(), half));
    return 0;
}
