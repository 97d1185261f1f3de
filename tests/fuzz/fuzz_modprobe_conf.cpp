// The first line of the driver's options file, rewritten for a parameter:
// whatever the file holds, the line stays inside its buffer and ends in
// its terminating zero.
#include <cstdint>
#include <cstring>

#include "vx_core.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 5)
        return 0;
    uint32_t value = 0;
    memcpy(&value, data, sizeof value);
    const size_t name_len = data[4] % (VX_MODPARAM_NAME_MAX + 1);
    data += 5;
    size -= 5;
    char name[VX_MODPARAM_NAME_MAX + 1] = {};
    const size_t take = name_len < size ? name_len : size;
    memcpy(name, data, take);
    data += take;
    size -= take;
    if (!vxapi_module_param_name_ok(name))
        return 0;
    char line[VX_MODPARAM_LINE_CAP] = {};
    memcpy(line, data, size < VX_MODPARAM_CONF_LINE - 1 ? size : VX_MODPARAM_CONF_LINE - 1);
    const size_t len = vxapi_module_param_conf_line(line, name, value);
    if (len >= VX_MODPARAM_LINE_CAP || line[len] != '\0')
        __builtin_trap();
    return 0;
}
