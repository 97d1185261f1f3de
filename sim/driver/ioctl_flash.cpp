// The extended-ioctl flash commands: option-ROM read and update (the
// sub-code names the region, 0xFFFF a raw range at Reserved1), the layout
// the driver knows, region activation and the flash-update capabilities.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "flash_ops.h"
#include "ioctl.h"

namespace vxsim::drv {

namespace {

constexpr uint16_t RAW = 0xFFFF;

uint32_t status_of(long r) { return r == -EINVAL ? EXT_STATUS_INVALID_PARAM : EXT_STATUS_ERR; }

// Where the request lands: a raw range, or the region's start (reads take
// at most the region).
std::optional<FlashRange> target(const Adapter& a, const IoctlRequest& req, uint64_t fsize, uint32_t len, bool read) {
    if (req.subcode == RAW)
        return FlashRange{req.reserved1, len};
    std::optional<FlashRange> r = driver_region(a, req.subcode, fsize);
    if (!r)
        return std::nullopt;
    return FlashRange{r->offset, read ? std::min(len, r->size) : len};
}

void layout(IoctlAnswer& ans, const Adapter& a, uint64_t fsize, uint32_t room) {
    const std::vector<Region> regions = flash_regions(a);
    std::vector<uint8_t> out(8 + 16 * regions.size());
    auto put32 = [&](size_t at, uint32_t v) { std::memcpy(out.data() + at, &v, 4); };
    put32(0, static_cast<uint32_t>(fsize));
    put32(4, static_cast<uint32_t>(regions.size()));
    for (size_t i = 0; i < regions.size(); ++i) {
        put32(8 + 16 * i, regions[i].word);
        put32(12 + 16 * i, regions[i].size);
        put32(16 + 16 * i, regions[i].beg);
        put32(20 + 16 * i, regions[i].end);
    }
    if (out.size() > room) {
        ans.status = EXT_STATUS_BUFFER_TOO_SMALL;
        return;
    }
    ans.response = std::move(out);
}

}  // namespace

void ioctl_flash(const Sim& sim, IoctlAnswer& ans, const IoctlPort& p, const IoctlRequest& req) {
    const Adapter& a = *p.adapter;
    const uint64_t fsize = flash_bytes(sim, a);
    JournalFields& f = ans.journal;
    switch (req.command) {
    case EXT_CC_READ_OPTROM:
    case EXT_CC_UPDATE_OPTROM: {
        const bool read = req.command == EXT_CC_READ_OPTROM;
        const uint32_t len = read ? req.response_len : static_cast<uint32_t>(req.request.size());
        const std::optional<FlashRange> at = target(a, req, fsize, len, read);
        f["region"] = hex_digits(req.subcode, 4);
        if (!at) {
            ans.status = EXT_STATUS_INVALID_PARAM;
            return;
        }
        f["offset"] = at->offset;
        f["length"] = at->size;
        std::vector<uint8_t> bytes;
        const long r = read ? flash_read(sim, a, at->offset, at->size, bytes)
                            : flash_write(sim, a, at->offset, req.request.data(), at->size, req.partial);
        if (r < 0)
            ans.status = status_of(r);
        else if (read)
            ans.response = std::move(bytes);
        return;
    }
    case EXT_CC_GET_OPTROM_LAYOUT: layout(ans, a, fsize, req.response_len); return;
    case EXT_CC_ACTIVATE_REGION: f["reset_code"] = hex_digits(req.subcode, 4); return;
    case EXT_CC_FLASH_UPDATE_CAPS: {
        const auto caps = flash_caps(a);
        ans.response.assign(caps.begin(), caps.begin() + std::min<size_t>(caps.size(), req.response_len));
        if (req.subcode == EXT_SC_FLASH_CAPS_SET) {
            ans.status = check_new_attributes(a, req.request.data(), req.request.size());
            f["status"] = ans.status;
        }
        return;
    }
    default: ans.status = EXT_STATUS_INVALID_REQUEST; return;
    }
}

}  // namespace vxsim::drv
