#include "flash_ops.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "optrom.h"
#include "root.h"
#include "sys.h"
#include "vx_adapters.h"

namespace vxsim::drv {

uint64_t flash_bytes(const Sim& sim, const Adapter& a) {
    sys::Fd fd(sys::open(root::flash(sim.root(), a.id).c_str(), O_RDONLY));
    if (!fd.ok())
        return 0;
    const int64_t size = sys::file_size(fd.get());
    return size > 0 ? static_cast<uint64_t>(size) : 0;
}

long flash_read(const Sim& sim, const Adapter& a, uint64_t offset, size_t len, std::vector<uint8_t>& out) {
    const uint64_t size = flash_bytes(sim, a);
    if (len == 0 || offset > size || len > size - offset)
        return -EINVAL;
    out.resize(len);
    const ssize_t n = image_read(flash_window(root::flash(sim.root(), a.id)), offset, out.data(), len);
    if (n < 0)
        return n;
    return static_cast<size_t>(n) == len ? 0 : -EIO;
}

long flash_write(const Sim& sim, const Adapter& a, uint64_t offset, const uint8_t* data, size_t len, bool partial) {
    const uint64_t size = flash_bytes(sim, a);
    if (len == 0 || offset > size || len > size - offset)
        return -EINVAL;
    const size_t n = partial ? len / 2 : len;
    const ssize_t w = n ? image_write(flash_window(root::flash(sim.root(), a.id)), offset, data, n) : 0;
    if (w < 0)
        return w;
    return partial || static_cast<size_t>(w) != len ? -EIO : 0;
}

std::optional<FlashRange> driver_region(const Adapter& a, uint32_t code, uint64_t flash_size) {
    if (code == 0 || code == 0xFF)
        return FlashRange{0, static_cast<uint32_t>(flash_size)};
    for (const Region& r : flash_regions(a))
        if ((r.word & 0xFF) == code)
            return FlashRange{r.beg, r.size};
    return std::nullopt;
}

std::array<uint8_t, EXT_FLASH_CAPS_LEN> flash_caps(const Adapter& a) {
    std::array<uint8_t, EXT_FLASH_CAPS_LEN> caps{};
    if (vx_adapter_family(a.device_id) != vx_family::Crane)
        return caps;
    EXT_FLASH_UPDATE_CAPS rec{};
    rec.Capabilities = RUNNING_FW_ATTRIBUTES;
    rec.OutageDuration = ONLINE_OUTAGE_SECONDS;
    std::memcpy(caps.data(), &rec, sizeof rec);
    return caps;
}

uint32_t check_new_attributes(const Adapter& a, const uint8_t* caps, size_t len) {
    if (vx_adapter_family(a.device_id) != vx_family::Crane || !caps || len < sizeof(EXT_FLASH_UPDATE_CAPS))
        return EXT_STATUS_INVALID_PARAM;
    EXT_FLASH_UPDATE_CAPS rec{};
    std::memcpy(&rec, caps, sizeof rec);
    const bool online = (rec.Capabilities & EXT_FW_ATTR_ONLINE_ACTIVATE) != 0;
    const bool same_generation =
        (rec.Capabilities & EXT_FW_ATTR_GENERATION_MASK) == (RUNNING_FW_ATTRIBUTES & EXT_FW_ATTR_GENERATION_MASK);
    return online && same_generation ? EXT_STATUS_OK : EXT_STATUS_INVALID_PARAM;
}

std::string running_edc_version(const Adapter& a) {
    return vx_adapter_has(a.device_id, VX_MARK_MPI_EDC) ? a.flash.edc : "";
}

EXT_ADAPTER_VERSIONS adapter_versions(const Adapter& a) {
    EXT_ADAPTER_VERSIONS v{};
    auto put = [](uint8_t (&dst)[4], const std::string& text) {
        unsigned char p[3] = {};
        std::sscanf(text.c_str(), "%hhu.%hhu.%hhu", &p[0], &p[1], &p[2]);
        std::memcpy(dst, p, sizeof p);
    };
    put(v.MpiVersion, a.mpi_version);
    put(v.EdcVersion, vx_adapter_family(a.device_id) == vx_family::Crane ? a.pep_version : running_edc_version(a));
    return v;
}

}  // namespace vxsim::drv
