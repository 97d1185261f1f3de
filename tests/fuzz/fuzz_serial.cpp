// Serial-number forms: the three bytes of the node record (computed
// "%c%05d" form), the HP boards' text in its reserved bytes, and the
// inverse of the computed form read back from sysfs.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "vx_core.h"
#include "vx_sysfs.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 8)
        return 0;
    const uint8_t mask = data[0];
    const size_t out_len = data[1] % 16;  // short buffers too: nothing may be written past them
    const uint16_t ssvendor = static_cast<uint16_t>(data[2] << 8 | data[3]);
    const uint16_t ssdevice = static_cast<uint16_t>(data[4] << 8 | data[5]);
    data += 6;
    size -= 6;

    std::vector<char> out(out_len);
    char* dst = out.empty() ? nullptr : out.data();
    if (size >= 3)
        vxapi_calc_serialnum(data, mask, dst, out.size());

    EXT_HBA_NODE node{};
    memcpy(&node, data, size < sizeof node ? size : sizeof node);
    vxapi_node_serialnum(&node, ssvendor, ssdevice, dst, out.size());

    const std::string text(reinterpret_cast<const char*>(data), size);
    uint8_t serial[4];
    vxsysfs_serial_to_bytes(text.c_str(), serial);
    return 0;
}
