// Flash on the sysfs transport: option-ROM reads and updates through bsg
// vendor requests (codes 7 and 8) or the "optrom_ctl"/"optrom" attribute
// pair, region activation, the flash-update capabilities, and the image-set
// and processor-version reads. Every flash transfer runs under the flash
// semaphore, so that processes never interleave their requests.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "vx_adapters.h"
#include "vx_core_flash.h"
#include "vx_sddbg.h"
#include "vx_sysfs.h"

namespace {

constexpr uint32_t TRC = VXDBG_SYSFS;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_SYSFS;

struct free_deleter {
    void operator()(void* p) const { free(p); }
};
using malloc_ptr = std::unique_ptr<uint8_t, free_deleter>;

void trace_named(uint32_t guard, const char* fn, const char* text, uint64_t number = 0, uint8_t radix = VXDBG_NONE) {
    if (!vxdbg_on(guard))
        return;
    vxdbg_print(fn, 0, VXDBG_NONE, 0);
    vxdbg_print(text, number, radix, 1);
}

uint32_t flash_size_of(const vxapi_priv_database* inst) {
    uint32_t beg = 0, size = 0;
    vxsysfs_map_region(inst, VX_REGION_WHOLE_FLASH, &beg, &size);
    return size;
}

template <typename T>
void put(uint8_t* at, T value) {
    memcpy(at, &value, sizeof value);
}

// A zeroed bsg request or reply buffer; null, traced and ext_stat set when
// memory runs out.
std::unique_ptr<uint8_t[]> bsg_buffer(const char* fn, uint32_t len, const char* what, uint32_t* ext_stat) {
    std::unique_ptr<uint8_t[]> buf(new (std::nothrow) uint8_t[len]());
    if (!buf) {
        *ext_stat = EXT_STATUS_NO_MEMORY;
        trace_named(ERR, fn, what);
    }
    return buf;
}

constexpr uint32_t VENDOR_CMD_AT = offsetof(fc_bsg_request, rqst_data.h_vendor.vendor_cmd);

// ---- bsg ----

// One generic vendor request on the host's bsg node, judged by the vendor
// status rules. The result is 0 whenever the request was attempted.
int32_t vendor_request(const char* fn, vxapi_priv_database* inst, uint32_t code, uint32_t arg, uint8_t* dout,
                       uint32_t dout_len, uint8_t* din, uint32_t din_len, uint32_t* pext_stat) {
    uint32_t& ext_stat = *pext_stat;
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    const std::unique_ptr<uint8_t[]> request =
        bsg_buffer(fn, VXSYSFS_BSG_REQ_LEN, ": >> req buf malloc failed", pext_stat);
    if (!request)
        return 1;
    const std::unique_ptr<uint8_t[]> reply =
        bsg_buffer(fn, VXSYSFS_BSG_RSP_LEN, ": >> resp buf malloc failed", pext_stat);
    if (!reply)
        return 0;
    sg_io_v4 hdr;
    if (vxsysfs_create_bsg_header(&hdr, request.get(), VXSYSFS_BSG_REQ_LEN, reply.get(), VXSYSFS_BSG_RSP_LEN, dout,
                                  dout_len, din, din_len) != 0)
        return 1;
    put<uint32_t>(request.get() + VENDOR_CMD_AT, code);
    put<uint32_t>(request.get() + VENDOR_CMD_AT + 4, arg);
    vxsysfs_path_t path;
    vxsysfs_get_bsg_device_path(path, inst);
    if (vxdbg_on(TRC)) {
        vxdbg_print(fn, 0, VXDBG_NONE, 0);
        vxdbg_print(": > wpath==", 0, VXDBG_NONE, 0);
        vxdbg_print(path, 0, VXDBG_NONE, 1);
    }
    vxsysfs_bsg_node node(path);
    if (!node.made())
        return 1;
    ext_stat = EXT_STATUS_ERR;
    if (!node.opened())
        return 0;
    const int rc = node.sg_io(&hdr);
    ext_stat = vxsysfs_bsg_vendor_status(rc, errno, reply.get(), VXSYSFS_BSG_RSP_LEN);
    trace_named(ext_stat ? ERR : TRC, fn, ": vendor status=", ext_stat, VXDBG_DEC);
    return 0;
}

int32_t bsg_optrom(const char* fn, bool update, int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t size,
                   uint32_t region, uint32_t offset, uint32_t* pext_stat) {
    uint32_t& ext_stat = *pext_stat;
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    const std::unique_ptr<uint8_t[]> request =
        bsg_buffer(fn, VXSYSFS_BSG_REQ_LEN, ": >> req buf malloc failed", pext_stat);
    if (!request)
        return 1;
    vxapi_optrom_span span{};
    if (vxapi_resolve_optrom_span(fn, inst, region, offset, size, update, &span) != 0) {
        trace_named(ERR, fn, ": > Unknown region");
        return 1;
    }
    uint8_t* data = buf;
    malloc_ptr made;
    if (update && vx_adapter_has(inst->phy_info ? inst->phy_info->device_id : 0, VX_MARK_FLT)) {
        uint8_t* db = nullptr;
        const uint32_t aligned = vxapi_sector_align(handle, inst, &db, buf, &span.offset, &span.size);
        made.reset(db);
        if (aligned != 0) {
            ext_stat = aligned;
            return 1;
        }
        if (db)
            data = db;
    }
    sg_io_v4 hdr;
    const uint32_t built =
        update ? vxsysfs_create_bsg_update_optrom_header(&hdr, data, span.size, span.offset, request.get(),
                                                         VXSYSFS_BSG_REQ_LEN)
               : vxsysfs_create_bsg_read_optrom_header(&hdr, data, span.size, span.offset, request.get(),
                                                       VXSYSFS_BSG_REQ_LEN);
    if (built != 0)
        return 1;
    vxsysfs_path_t path;
    vxsysfs_get_bsg_device_path(path, inst);
    vxsysfs_bsg_node node(path);
    if (!node.made())
        return 1;
    ext_stat = EXT_STATUS_ERR;
    if (!node.opened())
        return 1;
    {
        vxapi_sem_hold flash(api_flash_sem_id, VX_SEM_KEY_FLASH);
        if (!flash.held()) {
            trace_named(ERR, fn, ": flash semaphore not held, nothing sent");
            return 1;
        }
        for (uint32_t sends = 1;; ++sends) {
            const int rc = node.sg_io(&hdr);
            const vxsysfs_bsg_next next = vxsysfs_bsg_optrom_next(rc, errno, sends, &ext_stat);
            if (next != vxsysfs_bsg_next::retry)
                break;
            sleep(VXSYSFS_BSG_BUSY_SLEEP);
        }
    }
    trace_named(ext_stat ? ERR : TRC, fn, ": exiting. ext status=", ext_stat, VXDBG_DEC);
    return ext_stat == EXT_STATUS_OK ? 0 : 1;
}

// ---- The attribute pair ----

class attr_pair {
public:
    explicit attr_pair(const vxapi_priv_database* inst) {
        vxsysfs_path_append(ctl_, vxsysfs_get_device_path(ctl_, inst), "optrom_ctl");
        vxsysfs_path_append(data_, vxsysfs_get_device_path(data_, inst), "optrom");
    }
    // Both must be files (libsysfs answers 0 for a file).
    bool ok() const { return sysfs_path_is_file(ctl_) == 0 && sysfs_path_is_file(data_) == 0; }

    // One command with its NUL, retried twice while the flash is busy
    // (status 2 meanwhile). True when the driver took it.
    bool control(const char* fn, const char* text, uint32_t* pext_stat) const {
        for (uint32_t sends = 1;; ++sends) {
            const int fd = open(ctl_, O_WRONLY | O_CLOEXEC);
            if (fd < 0) {
                trace_named(ERR, fn, ": > Failed get control errno=", static_cast<uint64_t>(errno), VXDBG_DEC);
                return false;
            }
            const size_t len = strlen(text) + 1;
            const ssize_t n = write(fd, text, len);
            const int err = errno;
            close(fd);
            if (n == static_cast<ssize_t>(len))
                return true;
            if (n >= 0 || err != EBUSY || sends >= VX_OPTROM_SENDS) {
                trace_named(ERR, fn, ": > control refused errno=", static_cast<uint64_t>(n < 0 ? err : 0),
                            VXDBG_DEC);
                return false;
            }
            *pext_stat = EXT_STATUS_BUSY;
            trace_named(ERR, fn, ": driver busy, retrying");
            sleep(VX_OPTROM_BUSY_SLEEP);
        }
    }
    const char* data() const { return data_; }

private:
    vxsysfs_path_t ctl_{};
    vxsysfs_path_t data_{};
};

// Ranged commands go to drivers that take them, and to any driver when the
// range is the whole flash; others move the whole flash.
bool ranged(const vxapi_priv_database* inst, const vxapi_optrom_span& span, uint32_t flash) {
    return (inst->features & VX_FEAT_PARTIAL_FLASH) || (span.offset == 0 && span.size == flash);
}

// A buffer of the whole flash for a driver that moves only the whole flash.
bool whole_flash(const char* fn, uint32_t flash, const vxapi_optrom_span& span, malloc_ptr& whole) {
    if (flash == 0 || span.offset > flash || span.size > flash - span.offset) {
        trace_named(ERR, fn, ": > flash size unknown");
        return false;
    }
    whole.reset(static_cast<uint8_t*>(malloc(flash)));
    if (!whole)
        trace_named(ERR, fn, ": > flash buffer malloc failed");
    return whole != nullptr;
}

// `span` of the flash into `buf`; the caller holds the flash semaphore.
bool attr_read(const char* fn, const attr_pair& pair, const vxapi_priv_database* inst, const vxapi_optrom_span& span,
               uint8_t* buf, uint32_t* pext_stat) {
    const uint32_t flash = flash_size_of(inst);
    uint8_t* into = buf;
    uint32_t len = span.size;
    malloc_ptr whole;
    char cmd[32];
    if (ranged(inst, span, flash)) {
        snprintf(cmd, sizeof cmd, "1:%x:%x", span.offset, span.size);
    } else {
        if (!whole_flash(fn, flash, span, whole))
            return false;
        snprintf(cmd, sizeof cmd, "1");
        into = whole.get();
        len = flash;
    }
    trace_named(TRC, fn, ": > read offset=", span.offset, VXDBG_HEX);
    trace_named(TRC, fn, ": > read size=", span.size, VXDBG_HEX);
    if (!pair.control(fn, cmd, pext_stat))
        return false;
    const bool complete = vxsysfs_read_file(pair.data(), into, len) == 0;
    const bool closed = pair.control(fn, "0", pext_stat);
    if (!complete || !closed)
        return false;
    if (whole)
        memcpy(buf, whole.get() + span.offset, span.size);
    return true;
}

// `span` of the flash from `buf`; the caller holds the flash semaphore.
bool attr_write(const char* fn, const attr_pair& pair, const vxapi_priv_database* inst, const vxapi_optrom_span& span,
                const uint8_t* buf, uint32_t* pext_stat) {
    const uint32_t flash = flash_size_of(inst);
    const uint8_t* from = buf;
    uint32_t len = span.size;
    malloc_ptr whole;
    char cmd[32];
    if (ranged(inst, span, flash)) {
        snprintf(cmd, sizeof cmd, "2:%x:%x", span.offset, span.size);
    } else {
        // Read-modify-write of the whole flash, all under the one semaphore
        // hold, so that no other process's update falls in between.
        const vxapi_optrom_span all{0, flash};
        if (!whole_flash(fn, flash, span, whole) || !attr_read(fn, pair, inst, all, whole.get(), pext_stat))
            return false;
        memcpy(whole.get() + span.offset, buf, span.size);
        snprintf(cmd, sizeof cmd, "2");
        from = whole.get();
        len = flash;
    }
    trace_named(TRC, fn, ": > write offset=", span.offset, VXDBG_HEX);
    trace_named(TRC, fn, ": > write size=", len, VXDBG_HEX);
    if (!pair.control(fn, cmd, pext_stat))
        return false;
    // Nothing reaches the flash before the commit: a short transfer is not committed.
    const bool complete = vxsysfs_write_file(pair.data(), from, len) == 0;
    const bool committed = complete && pair.control(fn, "3", pext_stat);
    const bool closed = pair.control(fn, "0", pext_stat);
    return committed && closed;
}

}  // namespace

int32_t vxsysfs_bsg_read_optrom(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t size, uint32_t region,
                                uint32_t offset, uint32_t* pext_stat) {
    return bsg_optrom("vxsysfs_bsg_read_optrom", false, handle, inst, buf, size, region, offset, pext_stat);
}

int32_t vxsysfs_bsg_update_optrom(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t size,
                                  uint32_t region, uint32_t offset, uint32_t* pext_stat) {
    return bsg_optrom("vxsysfs_bsg_update_optrom", true, handle, inst, buf, size, region, offset, pext_stat);
}

namespace {

// The sysfs twins share one shape: bsg first when the host has it, else
// the attribute pair under the flash semaphore.
int32_t sysfs_optrom(const char* fn, bool update, int handle, vxapi_priv_database* inst, uint8_t* poptrom,
                     uint32_t optrom_size, uint32_t region, uint32_t offset, uint32_t* pext_stat) {
    uint32_t& ext_stat = *pext_stat;
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (region == 0)
        region = VX_REGION_WHOLE_FLASH;
    if (!update)
        memset(poptrom, 0, optrom_size);
    if ((inst->features & VX_FEAT_BSG) &&
        bsg_optrom(update ? "vxsysfs_bsg_update_optrom" : "vxsysfs_bsg_read_optrom", update, handle, inst, poptrom,
                   optrom_size, region, offset, pext_stat) == 0)
        return 0;
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    const attr_pair pair(inst);
    if (!pair.ok()) {
        trace_named(ERR, fn, ": > optrom attributes missing");
        return 1;
    }
    ext_stat = EXT_STATUS_ERR;
    vxapi_optrom_span span{};
    if (vxapi_resolve_optrom_span(fn, inst, region, offset, optrom_size, update, &span) != 0)
        return 1;
    vxapi_sem_hold flash(api_flash_sem_id, VX_SEM_KEY_FLASH);
    if (!flash.held()) {
        trace_named(ERR, fn, ": flash semaphore not held, nothing sent");
        return 1;
    }
    const bool done = update ? attr_write(fn, pair, inst, span, poptrom, pext_stat)
                             : attr_read(fn, pair, inst, span, poptrom, pext_stat);
    if (!done) {
        if (ext_stat == EXT_STATUS_OK)
            ext_stat = EXT_STATUS_ERR;
        return 1;
    }
    ext_stat = EXT_STATUS_OK;
    return 0;
}

}  // namespace

int32_t vxsysfs_read_optrom(int handle, vxapi_priv_database* inst, uint8_t* poptrom, uint32_t optrom_size,
                            uint32_t region, uint32_t offset, uint32_t* pext_stat) {
    return sysfs_optrom("vxsysfs_read_optrom", false, handle, inst, poptrom, optrom_size, region, offset, pext_stat);
}

int32_t vxsysfs_update_optrom(int handle, vxapi_priv_database* inst, uint8_t* poptrom, uint32_t optrom_size,
                              uint32_t region, uint32_t offset, uint32_t* pext_stat) {
    return sysfs_optrom("vxsysfs_update_optrom", true, handle, inst, poptrom, optrom_size, region, offset, pext_stat);
}

int32_t vxsysfs_activate_region(int handle, vxapi_priv_database* inst, uint32_t reset_code, uint32_t* pext_stat) {
    (void)handle;
    if (!(inst->features & VX_FEAT_BSG)) {
        *pext_stat = EXT_STATUS_INVALID_REQUEST;
        vxdbg_line(ERR, "vxsysfs_activate_region: no bsg on this port.");
        return 1;
    }
    return vendor_request("vxsysfs_activate_region", inst, VXSYSFS_BSG_ACTIVATE_REGION, reset_code, nullptr, 0,
                          nullptr, 0, pext_stat);
}

uint32_t vxsysfs_get_flash_sector_size(int handle, vxapi_priv_database* inst, uint32_t* psize) {
    (void)handle;
    vxsysfs_path_t path;
    vxsysfs_path_append(path, vxsysfs_get_device_path(path, inst), "flash_block_size");
    const unsigned long size = vxsysfs_get_int_attr(path);
    if (size == 0 || size > UINT32_MAX) {
        vxdbg_line(ERR, "vxsysfs_get_flash_sector_size: no block size.");
        return 1;
    }
    *psize = static_cast<uint32_t>(size);
    return 0;
}

int32_t vxsysfs_flash_update_capabilities(int handle, vxapi_priv_database* inst, uint8_t* caps, uint32_t caps_len,
                                          uint8_t set, uint32_t* pext_stat) {
    (void)handle;
    if (!(inst->features & VX_FEAT_BSG)) {
        *pext_stat = EXT_STATUS_INVALID_REQUEST;
        vxdbg_line(ERR, "vxsysfs_flash_update_capabilities: no bsg on this port.");
        return 1;
    }
    return vendor_request("vxsysfs_flash_update_capabilities", inst,
                          set ? VXSYSFS_BSG_SET_FLASH_CAPS : VXSYSFS_BSG_GET_FLASH_CAPS, 0, caps, caps_len, caps,
                          caps_len, pext_stat);
}

int32_t vxsysfs_query_adapter_versions(int handle, vxapi_priv_database* inst, EXT_ADAPTER_VERSIONS* ver,
                                       uint32_t* pext_stat) {
    (void)handle;
    *pext_stat = EXT_STATUS_DEV_NOT_FOUND;
    // The running processor versions are scsi_host attributes; a board
    // without a processor lacks its attribute.
    const bool crane = inst->phy_info && vx_adapter_family(inst->phy_info->device_id) == vx_family::Crane;
    const struct {
        const char* attr;
        uint8_t* dst;
    } reads[] = {{"mpi_version", ver->MpiVersion}, {crane ? "pep_version" : "edc_version", ver->EdcVersion}};
    for (const auto& r : reads) {
        vxsysfs_path_t path;
        vxsysfs_path_append(path, vxsysfs_get_scsi_host_path(path, static_cast<uint16_t>(inst->host_no)), r.attr);
        char text[VXSYSFS_ATTR_LEN];
        if (vxsysfs_get_str_attr(path, text, sizeof text) == 0)
            sscanf(text, "%hhu.%hhu.%hhu", &r.dst[0], &r.dst[1], &r.dst[2]);
    }
    *pext_stat = EXT_STATUS_OK;
    return 0;
}

int32_t vxsysfs_get_active_image_set(int handle, vxapi_priv_database* inst, uint32_t* image, uint32_t* pext_stat) {
    (void)handle;
    vxsysfs_path_t path;
    vxsysfs_path_append(path, vxsysfs_get_scsi_host_path(path, static_cast<uint16_t>(inst->host_no)), "active_image");
    if (sysfs_path_is_file(path) != 0) {
        *pext_stat = EXT_STATUS_INVALID_REQUEST;
        vxdbg_line(ERR, "vxsysfs_get_active_image_set: no active_image attribute.");
        return 1;
    }
    *image = static_cast<uint32_t>(vxsysfs_get_int_attr(path));
    *pext_stat = EXT_STATUS_OK;
    return 0;
}
