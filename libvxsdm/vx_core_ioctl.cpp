// Extended-ioctl channel: discovery through the driver's character nodes,
// the making of those nodes, and the control node that sysfs hosts keep open.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "vx_core.h"
#include "vx_sddbg.h"

int api_apidev_fd = -1;

namespace {

constexpr uint32_t IOCTL_TRACE = VXDBG_TRACE;
constexpr uint32_t IOCTL_ERROR = VXDBG_ERROR | VXDBG_TRACE;
constexpr const char* APIDEV_NAME = "vxfcapidev";
constexpr const char* APIDEV_PATH = "/dev/vxfcapidev";

void trace_path(uint32_t guard, const char* text, const char* path) {
    if (vxdbg_on(guard)) {
        vxdbg_print(text, 0, VXDBG_NONE, 0);
        vxdbg_print(path, 0, VXDBG_NONE, 1);
    }
}

// The numbers the kernel gave the driver's node: "/sys/class/D/D/dev" as
// "major:minor", else the last "/proc/devices" line naming the driver
// (minor 0). 0 on success, 1 when nothing was found, 2 when "/proc/devices"
// itself could not be read.
int wanted_numbers(const char* driver, unsigned* major_no, unsigned* minor_no) {
    char path[128];
    snprintf(path, sizeof path, "/sys/class/%s/%s/dev", driver, driver);
    if (FILE* fp = fopen(path, "re")) {
        char text[32] = {};
        const bool read_ok = fgets(text, sizeof text, fp) != nullptr;
        fclose(fp);
        return read_ok && sscanf(text, "%u:%u", major_no, minor_no) == 2 ? 0 : 1;
    }
    FILE* fp = fopen("/proc/devices", "re");
    if (!fp)
        return 2;
    bool found = false;
    char line[100];
    while (fgets(line, sizeof line, fp)) {
        unsigned number = 0;
        if (strstr(line, driver) && sscanf(line, "%u", &number) == 1) {
            *major_no = number;
            found = true;
        }
    }
    fclose(fp);
    *minor_no = 0;
    return found ? 0 : 1;
}

bool node_matches(int fd, unsigned major_no, unsigned minor_no) {
    struct stat st {};
    return fstat(fd, &st) == 0 && S_ISCHR(st.st_mode) && major(st.st_rdev) == major_no &&
           minor(st.st_rdev) == minor_no;
}

}  // namespace

// The extended-ioctl generations are discovered with their own channel
// support; until then this channel finds nothing and the load goes on to sysfs.
int vxapi_find_all_instances_n(const char* driver, uint32_t* count) {
    char path[64];
    snprintf(path, sizeof path, "/dev/%s", driver ? driver : "");
    trace_path(IOCTL_TRACE, "vxapi_find_all_instances_n: not found: ", path);
    (void)count;
    return 1;
}

int vxapi_find_all_instances_o(const char* driver, uint32_t* count) {
    char path[64];
    snprintf(path, sizeof path, "/proc/scsi/%s/HbaApiNode", driver ? driver : "");
    trace_path(IOCTL_TRACE, "vxapi_find_all_instances_o: not found: ", path);
    (void)count;
    return 1;
}

int vxapi_charnode_exist(char* path, size_t path_size, const char* driver) {
    if (!path || !driver || path_size == 0)
        return 1;
    unsigned major_no = 0, minor_no = 0;
    const int found = wanted_numbers(driver, &major_no, &minor_no);
    if (found == 2) {
        // No /proc/devices: the service console names its driver nodes here.
        char esx_path[96];
        snprintf(esx_path, sizeof esx_path, "/dev/char/vmkdriver/%s", driver);
        const int fd = open(esx_path, O_RDWR | O_CLOEXEC);
        if (fd < 0 || OS_Type != VX_OS_ESX) {
            if (fd >= 0)
                close(fd);
            return 1;
        }
        close(fd);
        snprintf(path, path_size, "%s", esx_path);
        return 0;
    }
    if (found != 0)
        return 1;

    int fd = open(path, O_RDWR | O_CLOEXEC | O_NOCTTY);
    if (fd >= 0) {
        const bool matches = node_matches(fd, major_no, minor_no);
        close(fd);
        if (matches) {
            trace_path(IOCTL_TRACE, "vxapi_charnode_exist: char file exists and matches for ", path);
            return 0;
        }
    }
    // Missing or stale (left from another driver or numbering): make it anew.
    unlink(path);
    if (major_no == 0 && minor_no == 0) {
        trace_path(IOCTL_ERROR, "vxapi_charnode_exist: makedev failed for ", path);
        return 1;
    }
    if (mknod(path, S_IFCHR | 0600, makedev(major_no, minor_no)) != 0) {
        trace_path(IOCTL_ERROR, "vxapi_charnode_exist: mknod failed for ", path);
        return 1;
    }
    fd = open(path, O_RDWR | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        trace_path(IOCTL_ERROR, "vxapi_charnode_exist: cannot open created node ", path);
        return 1;
    }
    close(fd);
    trace_path(IOCTL_TRACE, "vxapi_charnode_exist: char file created for ", path);
    return 0;
}

// The control node "/dev/vxfcapidev" is a character node the driver
// registers as class "vxfcapidev"; its numbers come from
// /sys/class/vxfcapidev/vxfcapidev/dev and it is made and checked like the
// ioctl node. Hosts reached through sysfs keep it open while loaded.
int vxapi_open_apidev() {
    vxdbg_line(IOCTL_TRACE, "vxapi_open_apidev: entered.");
    if (api_apidev_fd >= 0)
        return 0;
    char path[64];
    snprintf(path, sizeof path, "%s", APIDEV_PATH);
    if (vxapi_charnode_exist(path, sizeof path, APIDEV_NAME) != 0) {
        trace_path(IOCTL_ERROR, "vxapi_open_apidev: not found: ", path);
        return 1;
    }
    const int fd = open(path, O_RDWR | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        vxdbg_num(IOCTL_ERROR, "vxapi_open_apidev: open failed. errno=", static_cast<uint64_t>(errno), VXDBG_DEC, 1);
        return 1;
    }
    api_apidev_fd = fd;
    vxdbg_num(IOCTL_TRACE, "vxapi_open_apidev: exiting. fd=", static_cast<uint64_t>(fd), VXDBG_DEC, 1);
    return 0;
}

void vxapi_close_apidev() {
    if (api_apidev_fd >= 0) {
        close(api_apidev_fd);
        api_apidev_fd = -1;
    }
}
