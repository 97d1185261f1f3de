// The binary attributes optrom_ctl, optrom, nvram and vpd of a SCSI host.
#include <fcntl.h>

#include <cerrno>
#include <string>

#include "endpoints.h"
#include "flash.h"
#include "optrom.h"
#include "root.h"

namespace vxsim::drv {

// Where a port's NVRAM or VPD lives: inside the flash when the family keeps
// it there (the attribute then shows the image, not the whole region), else
// in the physical port's own state file.
ImageWindow image_window(const Sim& sim, const HostRef& h, AttrKind kind) {
    const Adapter& a = *h.adapter;
    const PciFunction& f = a.functions[h.fn];
    size_t fn = pci_function_number(f.pci_address);
    bool nvram = kind == AttrKind::Nvram;
    if (std::optional<FlashRange> range = nvram ? nvram_in_flash(a, fn) : vpd_in_flash(a, fn)) {
        uint64_t image = (nvram ? build_nvram(a, fn) : build_vpd(a, fn)).size();
        uint64_t size = image && image < range->size ? image : range->size;
        return ImageWindow{root::flash(sim.root(), a.id), range->offset, size};
    }
    return ImageWindow{nvram ? root::nvram(sim.root(), f.port.host_no) : root::vpd(sim.root(), f.port.host_no), 0,
                       0};
}

ssize_t nvram_write(const ImageWindow& w, uint64_t pos, const void* buf, size_t n) {
    const ssize_t r = image_write(w, pos, buf, n);
    if (r <= 0)
        return r;
    // The driver checksums what it programs, as the firmware reads nothing else.
    uint8_t image[512];
    const ssize_t len = image_read(w, 0, image, sizeof image);
    if (len > 0) {
        set_nvram_checksum(image, static_cast<size_t>(len));
        if (ssize_t e = image_write(w, 0, image, static_cast<size_t>(len)); e < 0)
            return e;
    }
    return r;
}

namespace {

constexpr size_t STORE_MAX = 4096;

OptromDevice optrom_device(const Sim& sim, const Adapter& a) {
    return OptromDevice(sim.optrom_state_dir(), a.id, root::flash(sim.root(), a.id), a.partial_flash);
}

JournalFields base_fields(const Desc& d, const HostRef& h) {
    JournalFields f = JournalFields::object();
    f["host"] = d.host;
    f["adapter"] = h.adapter->id;
    return f;
}

// Applies a fault taken for a transfer of n bytes: an error to return, or
// the (possibly shortened) count to move.
std::optional<ssize_t> fault_effect(const std::optional<FaultAction>& fault, size_t& n) {
    if (!fault)
        return std::nullopt;
    switch (fault->kind) {
    case FaultKind::Errno: return -fault->error;
    case FaultKind::Short: n = (n + 1) / 2; return std::nullopt;
    case FaultKind::Status: return -EIO;  // attributes carry no driver status
    case FaultKind::Partial: n = (n + 1) / 2; return std::nullopt;
    }
    return std::nullopt;
}

ssize_t transfer(const Sim& sim, Desc& d, bool writing, void* rbuf, const void* wbuf, size_t n, uint64_t pos) {
    std::optional<HostRef> h = sim.host(d.host);
    if (!h)
        return -ENODEV;
    JournalFields f = base_fields(d, *h);
    f["op"] = writing ? "write" : "read";
    f["offset"] = pos;
    f["length"] = n;
    std::optional<FaultAction> fault = fault_take(attr_name(d.attr), writing ? "write" : "read");
    if (fault)
        f["fault"] = fault->text;
    ssize_t r;
    if (std::optional<ssize_t> e = fault_effect(fault, n))
        r = *e;
    else if (d.attr == AttrKind::Optrom) {
        OptromDevice dev = optrom_device(sim, *h->adapter);
        r = writing ? dev.write(pos, wbuf, n) : dev.read(pos, rbuf, n);
    } else if (d.attr == AttrKind::Nvram || d.attr == AttrKind::Vpd) {
        ImageWindow w = image_window(sim, *h, d.attr);
        if (!writing)
            r = image_read(w, pos, rbuf, n);
        else
            r = d.attr == AttrKind::Nvram ? nvram_write(w, pos, wbuf, n) : image_write(w, pos, wbuf, n);
    } else
        r = -EIO;  // optrom_ctl is write-only; its open refuses readers
    journal_result(f, r);
    journal(attr_name(d.attr), f);
    return r;
}

ssize_t control(const Sim& sim, Desc& d, const void* buf, size_t n) {
    std::optional<HostRef> h = sim.host(d.host);
    if (!h)
        return -ENODEV;
    if (n == 0)
        return 0;  // the store is never called for an empty write
    // One store takes at most a page, as sysfs hands it over.
    n = n < STORE_MAX ? n : STORE_MAX;
    std::string raw(n, '\0');
    if (int e = copy_from_user(raw.data(), buf, n); e < 0)
        return e;
    std::string_view text = optrom_command_text(raw);
    JournalFields f = base_fields(d, *h);
    f["cmd"] = std::string(text);
    if (std::optional<OptromCommand> cmd = parse_optrom_command(text); cmd && cmd->ranged) {
        f["offset"] = cmd->offset;
        f["size"] = cmd->size;
    }
    OptromDevice dev = optrom_device(sim, *h->adapter);
    std::optional<FaultAction> fault = fault_take("optrom_ctl", text);
    ssize_t r;
    if (!fault) {
        int c = dev.control(text);
        r = c < 0 ? c : static_cast<ssize_t>(n);
    } else {
        f["fault"] = fault->text;
        if (fault->kind == FaultKind::Errno)
            r = -fault->error;
        else if (fault->kind == FaultKind::Status)
            r = -EIO;  // attributes carry no driver status
        else if (fault->kind == FaultKind::Partial)
            r = dev.control(text, true);
        else {
            // Short: the command goes through but the store reports one byte fewer.
            int c = dev.control(text);
            r = c < 0 ? c : static_cast<ssize_t>(n > 0 ? n - 1 : 0);
        }
    }
    if (std::optional<OptromStatus> st = dev.status())
        f["state"] = optrom_state_name(st->state);
    journal_result(f, r);
    journal("optrom_ctl", f);
    return r;
}

}  // namespace

int endpoint_attr_open(const Sim& sim, const Desc& d) {
    if (!sim.ok())
        return -EIO;
    if (!sim.host(d.host))
        return -ENODEV;
    // The driver gives optrom_ctl a store method only: readers are refused at open.
    if (d.attr == AttrKind::OptromCtl && (d.open_flags & O_ACCMODE) != O_WRONLY)
        return -EACCES;
    return 0;
}

ssize_t endpoint_attr_read(const Sim& sim, Desc& d, void* buf, size_t n, uint64_t pos) {
    if (!sim.ok())
        return -EIO;
    if ((d.open_flags & O_ACCMODE) == O_WRONLY)
        return -EBADF;
    return transfer(sim, d, false, buf, nullptr, n, pos);
}

ssize_t endpoint_attr_write(const Sim& sim, Desc& d, const void* buf, size_t n, uint64_t pos) {
    if (!sim.ok())
        return -EIO;
    if ((d.open_flags & O_ACCMODE) == O_RDONLY)
        return -EBADF;
    if (d.attr == AttrKind::OptromCtl)
        return control(sim, d, buf, n);
    return transfer(sim, d, true, nullptr, buf, n, pos);
}

}  // namespace vxsim::drv
