// The parsers of attribute text and names that the kernel or driver hands
// over: hexadecimal names into byte arrays, SCSI addresses, LUN numbers,
// SCSI host and remote-port entry names.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "vx_core.h"
#include "vx_sysfs.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    const uint32_t array_size = data[0] % 17;  // 0..16 bytes, as names and ids are read
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    const char* str = text.c_str();  // stops at the first NUL, as attribute text does

    std::vector<uint8_t> bytes(array_size);  // exactly the size given: ASan sees any overrun
    vxsysfs_to_array_hex(bytes.empty() ? nullptr : bytes.data(), str, array_size);
    vxsysfs_get_target_id(str);
    vxsysfs_get_lun_no(str);
    uint32_t host = 0, channel = 0, number = 0;
    vxsysfs_parse_host_name(str, &host);
    vxsysfs_parse_rport_name(str, &host, &channel, &number);

    std::vector<char> line(text.begin(), text.end());
    line.push_back('\0');
    vxsysfs_remove_end_newline(line.data());

    // The text as a buffer searched for a string, and its first bytes as a LUN.
    const std::vector<uint8_t> raw(data + 1, data + size);
    const std::string needle = text.substr(0, text.size() / 4);
    vxsysfs_memstr(raw.data(), needle.c_str(), static_cast<uint32_t>(raw.size()));
    if (raw.size() >= 2)
        vxapi_get_lun_addr(raw.data());
    return 0;
}
