// Driver module parameters: settings the driver keeps rather than the
// flash. Read and changed at run time through the module's parameter
// files; made to last by the options line of the modprobe configuration.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vx_core.h"
#include "vx_sddbg.h"

char vx_modparam_dir[64] = "/sys/module/vxfcdrv/parameters/";
char vx_modprobe_conf[64] = "/etc/modprobe.d/vxfcdrv.conf";

namespace {

constexpr uint32_t TRC = VXDBG_TRACE;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_TRACE;
constexpr size_t PATH_CAP = sizeof vx_modparam_dir + VX_MODPARAM_NAME_MAX + 1;
constexpr size_t READ_LEN = 32;

void set_stat(uint32_t* pext_stat, uint32_t v) {
    if (pext_stat)
        *pext_stat = v;
}

// The run-time file of `param`, open for reading and writing; -1 (traced
// with `fn`, status 6 or 20) when the name is refused or there is no file.
int open_param(const char* fn, const char* param, uint32_t* pext_stat) {
    if (!vxapi_module_param_name_ok(param)) {
        set_stat(pext_stat, EXT_STATUS_INVALID_PARAM);
        if (vxdbg_on(ERR)) {
            vxdbg_print(fn, 0, VXDBG_NONE, 0);
            vxdbg_print(": invalid parameter name.", 0, VXDBG_NONE, 1);
        }
        return -1;
    }
    char path[PATH_CAP];
    snprintf(path, sizeof path, "%s%s", vx_modparam_dir, param);
    const int fd = open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        set_stat(pext_stat, EXT_STATUS_INVALID_REQUEST);
        if (vxdbg_on(ERR)) {
            vxdbg_print(fn, 0, VXDBG_NONE, 0);
            vxdbg_print(": No driver support.", 0, VXDBG_NONE, 1);
        }
    }
    return fd;
}

bool write_all(int fd, const char* buf, size_t len) {
    while (len > 0) {
        const ssize_t n = write(fd, buf, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// `len` bytes into a new file beside `target`, made durable, then renamed
// over it: a reader sees the old file or the new one, never a part.
bool replace_file(const char* target, const char* data, size_t len, mode_t mode) {
    char tmp[sizeof vx_modprobe_conf + 16];
    snprintf(tmp, sizeof tmp, "%s.XXXXXX", target);
    const int fd = mkostemp(tmp, O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool ok = fchmod(fd, mode) == 0 && write_all(fd, data, len) && fsync(fd) == 0;
    if (close(fd) != 0 || !ok || rename(tmp, target) != 0) {
        unlink(tmp);
        return false;
    }
    return true;
}

}  // namespace

bool vxapi_module_param_name_ok(const char* param) {
    if (!param || !*param)
        return false;
    const size_t len = strnlen(param, VX_MODPARAM_NAME_MAX + 1);
    return len <= VX_MODPARAM_NAME_MAX && !strchr(param, '/') && !strstr(param, "..");
}

int32_t vxapi_get_driver_module_param(const char* param, uint32_t* pvalue, uint32_t* pext_stat) {
    vxdbg_line(TRC, "vxapi_get_driver_module_param: entered.");
    if (!pvalue) {
        set_stat(pext_stat, EXT_STATUS_INVALID_PARAM);
        return 1;
    }
    const int fd = open_param("vxapi_get_driver_module_param", param, pext_stat);
    if (fd < 0)
        return 1;
    char text[READ_LEN + 1] = {};
    ssize_t n;
    do {
        n = read(fd, text, READ_LEN);
    } while (n < 0 && errno == EINTR);
    close(fd);
    if (n <= 0) {
        set_stat(pext_stat, EXT_STATUS_ERR);
        vxdbg_line(ERR, "vxapi_get_driver_module_param: failed to get driver run-time parameter.");
        return 1;
    }
    *pvalue = static_cast<uint32_t>(strtol(text, nullptr, 10));
    set_stat(pext_stat, EXT_STATUS_OK);
    vxdbg_num(TRC, "vxapi_get_driver_module_param: exiting. value=", *pvalue, VXDBG_DEC, 1);
    return 0;
}

int32_t vxapi_set_driver_module_param(const char* param, uint32_t value, uint32_t* pext_stat) {
    vxdbg_num(TRC, "vxapi_set_driver_module_param: entered. value=", value, VXDBG_DEC, 1);
    const int fd = open_param("vxapi_set_driver_module_param", param, pext_stat);
    if (fd < 0)
        return 1;
    // Exactly four bytes from the start of the text: shorter numbers carry
    // their terminating zero and zero filler, longer ones are cut.
    char text[16] = {};
    snprintf(text, sizeof text, "%d", static_cast<int>(value));
    ssize_t n;
    do {
        n = write(fd, text, 4);
    } while (n < 0 && errno == EINTR);
    close(fd);
    if (n <= 0) {
        set_stat(pext_stat, EXT_STATUS_ERR);
        vxdbg_line(ERR, "vxapi_set_driver_module_param: failed to set driver run-time parameter.");
        return 1;
    }
    set_stat(pext_stat, EXT_STATUS_OK);
    vxdbg_line(TRC, "vxapi_set_driver_module_param: exiting.");
    return 0;
}

size_t vxapi_module_param_conf_line(char* line, const char* param, uint32_t value) {
    size_t len = strnlen(line, VX_MODPARAM_CONF_LINE - 1);
    line[len] = '\0';
    const size_t plen = strnlen(param, VX_MODPARAM_NAME_MAX);
    if (const char* at = strstr(line, param)) {
        // The parameter is a one-digit flag: the character after its name
        // and the separator becomes the digit. Only inside the line: a name
        // at its very end has no digit to change.
        const size_t digit = static_cast<size_t>(at - line) + plen + 1;
        if (digit < len && value <= 1)
            line[digit] = value == 0 ? '0' : '1';
        return len;
    }
    if (len > 0 && line[len - 1] == '\n')
        line[len - 1] = ' ';
    const int n = snprintf(line + len, VX_MODPARAM_LINE_CAP - len, "%.*s=%d\n", static_cast<int>(plen), param,
                           static_cast<int>(value));
    return len + (n > 0 ? static_cast<size_t>(n) : 0);
}

int32_t vxapi_set_driver_module_param_conf(const char* param, uint32_t value, uint32_t* pext_stat) {
    vxdbg_num(TRC, "vxapi_set_driver_module_param_conf: entered. value=", value, VXDBG_DEC, 1);
    if (!vxapi_module_param_name_ok(param)) {
        set_stat(pext_stat, EXT_STATUS_INVALID_PARAM);
        vxdbg_line(ERR, "vxapi_set_driver_module_param_conf: invalid parameter name.");
        return 1;
    }
    char line[VX_MODPARAM_LINE_CAP] = {};
    size_t len = 0;
    mode_t mode = 0644;
    FILE* old = fopen(vx_modprobe_conf, "re");
    if (!old) {
        const int n = snprintf(line, sizeof line, "options vxfcdrv %s=%d\n", param, static_cast<int>(value));
        len = n > 0 ? static_cast<size_t>(n) : 0;
    } else {
        struct stat st {};
        if (fstat(fileno(old), &st) == 0)
            mode = st.st_mode & 07777;
        if (!fgets(line, VX_MODPARAM_CONF_LINE, old)) {
            fclose(old);
            set_stat(pext_stat, EXT_STATUS_ERR);
            vxdbg_line(ERR, "vxapi_set_driver_module_param_conf: failed to read conf file data.");
            return 1;
        }
        // The old file, whole, stays beside the new one: the rewrite keeps
        // only the first line.
        char backup[sizeof vx_modprobe_conf + 8];
        snprintf(backup, sizeof backup, "%s.bak", vx_modprobe_conf);
        bool saved = false;
        if (fseek(old, 0, SEEK_END) == 0) {
            const long size = ftell(old);
            char* whole = size >= 0 ? static_cast<char*>(malloc(static_cast<size_t>(size) + 1)) : nullptr;
            if (whole && fseek(old, 0, SEEK_SET) == 0 &&
                fread(whole, 1, static_cast<size_t>(size), old) == static_cast<size_t>(size))
                saved = replace_file(backup, whole, static_cast<size_t>(size), mode);
            free(whole);
        }
        fclose(old);
        if (!saved) {
            set_stat(pext_stat, EXT_STATUS_ERR);
            vxdbg_line(ERR, "vxapi_set_driver_module_param_conf: cannot keep the old file; nothing changed.");
            return 1;
        }
        len = vxapi_module_param_conf_line(line, param, value);
    }
    // The line and its terminating zero byte, as the file was always written.
    if (!replace_file(vx_modprobe_conf, line, len + 1, mode)) {
        set_stat(pext_stat, EXT_STATUS_ERR);
        vxdbg_num(ERR, "vxapi_set_driver_module_param_conf: failed to set conf file parameter. errno=",
                  static_cast<uint64_t>(errno), VXDBG_DEC, 1);
        return 1;
    }
    set_stat(pext_stat, EXT_STATUS_OK);
    vxdbg_line(TRC, "vxapi_set_driver_module_param_conf: exiting.");
    return 0;
}
