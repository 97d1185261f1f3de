// Device numbers of the driver's node: the "major:minor" text of its class
// `dev` attribute, else the /proc/devices lines that name the driver. Both
// files hold whatever the input says.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "vx_core.h"

namespace {

std::string dir;

void write_file(const std::string& path, const uint8_t* data, size_t size) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        abort();
    if (size && write(fd, data, size) != static_cast<ssize_t>(size))
        abort();
    close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char tmpl[] = "/tmp/vxsdm-fuzz-devnum-XXXXXX";
    if (!mkdtemp(tmpl))
        abort();
    dir = tmpl;
    atexit([] {
        unlink((dir + "/dev").c_str());
        unlink((dir + "/devices").c_str());
        rmdir(dir.c_str());
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // First byte: how the input splits between the two files, and whether
    // the attribute exists at all (absent: /proc/devices is read).
    if (size < 1)
        return 0;
    const size_t split = size > 1 ? data[0] % size : 0;
    const bool attr_exists = data[0] & 0x80;
    const std::string attr = dir + "/dev", devices = dir + "/devices";
    if (attr_exists)
        write_file(attr, data + 1, split > 0 ? split - 1 : 0);
    else
        unlink(attr.c_str());
    write_file(devices, data + split, size - split);
    uint32_t major_no = 0, minor_no = 0;
    vxapi_charnode_numbers(attr.c_str(), devices.c_str(), "vxfcdrv", &major_no, &minor_no);
    return 0;
}
