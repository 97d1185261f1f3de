// The extended-ioctl NVRAM and VPD commands: the same images the port's
// "nvram" and "vpd" attributes show. Reads hand over what fits the response
// buffer; writes start at the image's first byte and must fit the image.
#include <algorithm>
#include <cerrno>

#include "endpoints.h"
#include "ioctl.h"

namespace vxsim::drv {

namespace {

constexpr size_t IMAGE_LIMIT = 64 * 1024;  // far above any NVRAM or VPD image

std::vector<uint8_t> image_bytes(const ImageWindow& w) {
    std::vector<uint8_t> out;
    uint8_t chunk[1024];
    while (out.size() < IMAGE_LIMIT) {
        const ssize_t r = image_read(w, out.size(), chunk, sizeof chunk);
        if (r <= 0)
            break;
        out.insert(out.end(), chunk, chunk + r);
    }
    return out;
}

}  // namespace

void ioctl_image(const Sim& sim, IoctlAnswer& ans, const IoctlPort& p, const IoctlRequest& req) {
    const bool nvram = req.command == EXT_CC_GET_NVRAM || req.command == EXT_CC_SET_NVRAM;
    const bool write = req.command == EXT_CC_SET_NVRAM || req.command == EXT_CC_SET_VPD;
    const ImageWindow w = image_window(sim, HostRef{p.adapter, p.fn, p.physical}, nvram ? AttrKind::Nvram : AttrKind::Vpd);
    std::vector<uint8_t> image = image_bytes(w);
    ans.journal["image_bytes"] = image.size();
    if (image.empty()) {
        ans.status = EXT_STATUS_ERR;
        return;
    }
    if (!write) {
        // VPD readers size their buffer for the whole VPD: a short one is an overrun.
        if (image.size() > req.response_len) {
            image.resize(req.response_len);
            if (!nvram)
                ans.status = EXT_STATUS_DATA_OVERRUN;
        }
        ans.response = std::move(image);
        return;
    }
    if (req.request.empty() || req.request.size() > image.size()) {
        ans.status = EXT_STATUS_INVALID_PARAM;
        return;
    }
    const ssize_t r = nvram ? nvram_write(w, 0, req.request.data(), req.request.size())
                            : image_write(w, 0, req.request.data(), req.request.size());
    if (r != static_cast<ssize_t>(req.request.size()))
        ans.status = EXT_STATUS_ERR;
}

}  // namespace vxsim::drv
