// The VPD item walk over whatever a port's "vpd" attribute or the driver
// returns: it must never look outside the VPD buffer nor write past the
// caller's field buffer, whatever the item lengths say.
#include <cstdint>
#include <cstring>
#include <vector>

#include "vx_core.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4)
        return 0;
    // First bytes: the walk's mode, the keyword and the caller's field size.
    const int mode = data[0] % 3;
    const char key[3] = {static_cast<char>(data[1]), static_cast<char>(data[2]), '\0'};
    const uint32_t dst_len = data[3];
    data += 4;
    size -= 4;
    // The buffer the library reads VPD into: 512 bytes, zero beyond what came.
    std::vector<uint8_t> vpd(VX_VPD_SIZE, 0);
    memcpy(vpd.data(), data, size < vpd.size() ? size : vpd.size());
    std::vector<uint8_t> dst(dst_len);  // exactly the size given: ASan sees any overrun
    vxapi_get_field_from_vpd(vpd.data(), key, mode, dst.empty() ? nullptr : dst.data(), dst_len);
    return 0;
}
