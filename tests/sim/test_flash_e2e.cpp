// Flash through the exported interface in simulated hosts: boot-code
// updates on every family with the adapter's settings kept, the same write
// over bsg, the attribute pair (with and without partial commands) and the
// ioctl channel, faults in the middle of a transfer, two processes at once,
// and bad input that must leave the flash alone.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "libtest.h"
#include "vsdmgt.h"

namespace {

namespace st = vxsim::test;
using Bytes = std::vector<uint8_t>;

uint16_t le16(const Bytes& b, size_t at) { return uint16_t(b.at(at) | b.at(at + 1) << 8); }

struct Image {
    size_t at;    // image start in the buffer
    size_t pcir;  // its PCI data structure
    size_t len;   // header byte 2 * 512
};

// The x86 image of a boot-code buffer (an image directory in front skipped).
Image x86_image(const Bytes& b) {
    size_t pos = std::memcmp(b.data(), "QFIM", 4) == 0 ? le16(b, 6) : 0;
    for (int i = 0; i < 8 && pos + 26 < b.size() && b[pos] == 0x55 && b[pos + 1] == 0xAA; ++i) {
        const size_t pcir = pos + le16(b, pos + 24);
        if (b.at(pcir + 20) == 0)
            return {pos, pcir, size_t(b[pos + 2]) * 512};
        pos += size_t(le16(b, pcir + 16)) * 512;
    }
    ADD_FAILURE() << "no x86 image";
    return {0, 0, 0};
}

size_t settings_at(const Bytes& b, const Image& img) {
    const auto it = std::search(b.begin() + long(img.at), b.begin() + long(img.at + img.len), "MEISP ", "MEISP " + 6);
    EXPECT_NE(it, b.begin() + long(img.at + img.len));
    return size_t(it - b.begin()) + 2;
}

// The 8-bit sum of the image without its byte at len-2 is 0.
bool checksum_holds(const Bytes& b, const Image& img) {
    uint8_t sum = 0;
    for (size_t i = 0; i < img.len; ++i)
        if (i != img.len - 2)
            sum = uint8_t(sum + b[img.at + i]);
    return sum == 0;
}

// A new boot image from the current one: another BIOS revision, its own
// settings and subsystem vendor (which the update must replace by the
// adapter's), a valid checksum.
Bytes new_boot_image(Bytes b, size_t settings_len) {
    const Image img = x86_image(b);
    b[img.pcir + 18] = 0x20;
    b[img.pcir + 19] = 0x04;  // CodeRevision 4.32
    // The block starts inside its marker ("MEISP " + 2): the marker stays.
    std::fill_n(b.begin() + long(settings_at(b, img)) + 4, settings_len - 4, uint8_t(0x5A));
    b[img.at + 32] = 0xEF;
    b[img.at + 33] = 0xBE;
    uint8_t sum = 0;
    for (size_t i = 0; i < img.len - 1; ++i)
        if (i != img.len - 2)
            sum = uint8_t(sum + b[img.at + i]);
    b[img.at + img.len - 1] = uint8_t(-sum);
    return b;
}

// The VPD's items as the library walks them (a 16-bit identifier length):
// the data of keyword `kw` ("" when absent), and whether "RV" makes the sum
// of the bytes up to it 0.
struct VpdWalk {
    std::string value;
    bool checksum = false;
};
VpdWalk walk_vpd(const Bytes& v, const char* kw) {
    VpdWalk out;
    uint8_t sum = 0;
    for (size_t pos = 0; pos + 3 < v.size() && v[pos] != 0x78;) {
        const uint8_t tag = v[pos];
        const bool section = tag == 0x90 || tag == 0x91;
        const size_t len = section ? 0 : tag == 0x82 ? le16(v, pos + 1) : v[pos + 2];
        if (pos + 3 + len > v.size())
            break;
        if (tag != 0x82 && !section && v[pos] == kw[0] && v[pos + 1] == kw[1])
            out.value.assign(reinterpret_cast<const char*>(&v[pos + 3]), strnlen(reinterpret_cast<const char*>(&v[pos + 3]), len));
        if (tag != 0x82 && !section && v[pos] == 'R' && v[pos + 1] == 'V') {
            out.checksum = uint8_t(sum + 'R' + 'V' + v[pos + 2] + v[pos + 3]) == 0;
            break;
        }
        for (size_t i = 0; i < 3 + len; ++i)
            sum = uint8_t(sum + v[pos + i]);
        pos += 3 + len;
    }
    return out;
}

Bytes vpd_of(int h) {
    Bytes v(1024);
    uint32_t size = 1024;
    EXPECT_EQ(SDGetVpd(h, 0, v.data(), &size), 0u);
    v.resize(size);
    return v;
}

struct Region {
    uint32_t code;
    uint32_t size;
};

std::vector<Region> layout_of(int h) {
    std::vector<uint8_t> raw(8 + 8 * 255);
    auto* layout = reinterpret_cast<SDM_OPT_ROM_LAYOUT*>(raw.data());
    layout->NoOfRegions = 255;
    EXPECT_EQ(SDGetOptionRomLayout(h, 0, layout), 0u);
    std::vector<Region> out;
    for (uint32_t i = 0; i < layout->NoOfRegions; ++i) {
        SDM_OPT_ROM_REGION r;
        std::memcpy(&r, raw.data() + 8 + 8 * i, sizeof r);
        out.push_back({r.Region, r.Size});
    }
    return out;
}

// Offsets in the flash of the boot-code region (from the scenario's tables).
struct BootRegion {
    uint32_t code;
    uint32_t beg;
    uint32_t size;
};
BootRegion boot_region(const std::vector<Region>& layout, uint32_t flash) {
    for (const Region& r : layout)
        if (r.code == 0x07)
            return {0x07, 0, r.size};
    // The older families: one region, the whole 128 KiB boot image at 0.
    return {0, 0, std::min<uint32_t>(flash, 0x20000)};
}

std::vector<int> open_all() {
    const uint32_t n = SDGetNumberOfAdapters();
    std::vector<int> h(n);
    for (uint32_t i = 0; i < n; ++i)
        EXPECT_EQ(SDOpenDevice(i, &h[i]), 0u) << i;
    return h;
}

// The handle of each adapter's first port, in scenario order.
std::vector<std::pair<const vxsim::Adapter*, int>> first_ports() {
    const std::vector<int> h = open_all();
    std::vector<std::pair<const vxsim::Adapter*, int>> out;
    size_t instance = 0;
    for (const vxsim::Adapter& a : st::scenario().adapters) {
        out.emplace_back(&a, h.at(instance));
        for (const vxsim::PciFunction& f : a.functions)
            instance += 1 + f.vports.size();
    }
    return out;
}

bool equal_outside(const Bytes& a, const Bytes& b, size_t beg, size_t len) {
    return a.size() == b.size() && std::equal(a.begin(), a.begin() + long(beg), b.begin()) &&
           std::equal(a.begin() + long(beg + len), a.end(), b.begin() + long(beg + len));
}

SIM_TEST(Flash, EveryFamilyKeepsItsSettingsAcrossABootUpdate, "families.json") {
    for (const auto& [adapter, h] : first_ports()) {
        SCOPED_TRACE(adapter->id);
        const Bytes before = st::flash_image(adapter->id);
        const std::vector<Region> layout = layout_of(h);
        const BootRegion boot = boot_region(layout, uint32_t(before.size()));
        const bool swift = adapter->device_id >= 0x1050 && adapter->device_id <= 0x1054;
        const size_t settings_len = swift ? 512 : 256;

        // The whole image reads back as the flash holds it, never past the buffer.
        Bytes whole(before.size() + 16, 0xA5);
        ASSERT_EQ(SDGetOptionRom(h, 0, whole.data(), uint32_t(before.size())), 0u);
        EXPECT_TRUE(std::equal(before.begin(), before.end(), whole.begin()));
        EXPECT_TRUE(std::all_of(whole.end() - 16, whole.end(), [](uint8_t v) { return v == 0xA5; }));

        Bytes current(before.begin() + boot.beg, before.begin() + boot.beg + boot.size);
        Bytes image = new_boot_image(current, settings_len);
        std::vector<Bytes> vpd_before;
        for (size_t fn = 0; fn < adapter->functions.size(); ++fn)
            vpd_before.push_back(vpd_of(h + int(fn)));
        const bool wren_like = adapter->id == "wren0" || adapter->id == "ibis0";
        uint32_t status;
        if (wren_like) {
            // Both region front ends refuse these boards; a raw write keeps nothing.
            EXPECT_EQ(SDUpdateOptionRomEx(h, 1, image.data(), uint32_t(image.size()), 0x07), 0x20000066u);
            EXPECT_EQ(SDUpdateOptionRomEx2(h, 1, image.data(), uint32_t(image.size()), 0x07), 0x20000066u);
            status = SDUpdateOptionRomOffset(h, 0, image.data(), uint32_t(image.size()), boot.beg);
        } else if (boot.code == 0x07) {
            status = SDUpdateOptionRomEx(h, 1, image.data(), uint32_t(image.size()), 0x07);
        } else {
            status = SDUpdateOptionRom(h, 0, image.data(), uint32_t(image.size()));
        }
        ASSERT_EQ(status, 0u);

        const Bytes after = st::flash_image(adapter->id);
        const bool kite = adapter->id == "kite0";
        const size_t written = kite ? 0x80000 : boot.size;
        EXPECT_TRUE(equal_outside(before, after, boot.beg, written)) << "bytes outside the region moved";
        const Bytes region(after.begin() + boot.beg, after.begin() + boot.beg + boot.size);
        const Image img = x86_image(region);
        EXPECT_EQ(le16(region, img.pcir + 18), 0x0420) << "the new image is in the flash";
        EXPECT_TRUE(checksum_holds(region, img));
        const Image old = x86_image(current);
        const size_t at = settings_at(region, img), was = settings_at(current, old);
        const bool kept = std::equal(region.begin() + long(at), region.begin() + long(at + settings_len),
                                     current.begin() + long(was));
        EXPECT_EQ(kept, !wren_like) << "settings block";
        EXPECT_EQ(le16(region, img.at + 32) == le16(current, old.at + 32), !wren_like) << "SVID";
        if (kite) {
            EXPECT_TRUE(std::equal(after.begin(), after.begin() + 0x40000, after.begin() + 0x40000))
                << "the boot code stands twice";
        }
        if (adapter->device_id == 0x1010 || adapter->device_id == 0x1011 || adapter->device_id == 0x1021) {
            EXPECT_EQ(after[0x1FE00], 0x82) << "the VPD inside the boot image is kept";
        }
        // The VPD names the new BIOS where the update refreshes it (the boards
        // that keep it in the boot image, and both ports of a Swift board);
        // the HP board's one-byte identifier length stops the refresh walk.
        const bool refreshed = (adapter->id == "finch0" || adapter->id == "robin0" || swift);
        for (size_t fn = 0; fn < vpd_before.size(); ++fn) {
            SCOPED_TRACE("function " + std::to_string(fn));
            const Bytes vpd = vpd_of(h + int(fn));
            if (!refreshed) {
                EXPECT_EQ(vpd, vpd_before[fn]);
                continue;
            }
            const VpdWalk now = walk_vpd(vpd, "V4");
            EXPECT_EQ(now.value, " 4.32");
            EXPECT_TRUE(now.checksum);
            EXPECT_EQ(walk_vpd(vpd, "SN").value, walk_vpd(vpd_before[fn], "SN").value);
            EXPECT_EQ(walk_vpd(vpd, "V5").value, walk_vpd(vpd_before[fn], "V5").value);
        }
    }
}

// One Plover board on each way to the flash.
const char* const CHANNELS = R"json({"name": "channels", "adapters": [
  {"id": "bsg", "device_id": "0x2050", "serial_number": "VXP00000001",
   "functions": [{"pci_address": "0000:20:00.0", "port": {"host_no": 1, "wwnn": "20:00:00:1d:5a:20:50:01",
     "wwpn": "21:00:00:1d:5a:20:50:01", "port_id": "0x010100"}}]},
  {"id": "attrs", "device_id": "0x2050", "serial_number": "VXP00000002",
   "functions": [{"pci_address": "0000:21:00.0", "port": {"host_no": 2, "wwnn": "20:00:00:1d:5a:20:50:02",
     "wwpn": "21:00:00:1d:5a:20:50:02", "port_id": "0x010200"}, "bsg": false}]},
  {"id": "whole", "device_id": "0x2050", "serial_number": "VXP00000003", "partial_flash": false,
   "functions": [{"pci_address": "0000:22:00.0", "port": {"host_no": 3, "wwnn": "20:00:00:1d:5a:20:50:03",
     "wwpn": "21:00:00:1d:5a:20:50:03", "port_id": "0x010300"}, "bsg": false}]}]})json";

// The same board on the extended-ioctl node (a host discovers through one
// driver interface, so the ioctl board has a host of its own).
const char* const IOCTL = R"json({"name": "ioctl-flash", "adapters": [
  {"id": "ioctl", "device_id": "0x2050", "serial_number": "VXP00000004", "channel": "ioctl",
   "functions": [{"pci_address": "0000:23:00.0", "port": {"host_no": 4, "wwnn": "20:00:00:1d:5a:20:50:04",
     "wwpn": "21:00:00:1d:5a:20:50:04", "port_id": "0x010400"}}]}]})json";

struct Channels {
    int bsg, attrs, whole;
};
Channels channels() {
    const std::vector<int> h = open_all();
    EXPECT_EQ(h.size(), 3u);
    return {h.at(0), h.at(1), h.at(2)};
}

// 32 bytes inside one sector, off its start: bsg and ioctl widen the write
// to the whole sector around it.
Bytes patch() {
    Bytes p(0x20);
    for (size_t i = 0; i < p.size(); ++i)
        p[i] = uint8_t(0xC0 + i);
    return p;
}
constexpr uint32_t PATCH_AT = 0x10010;

Bytes patched(Bytes flash) {
    const Bytes p = patch();
    std::copy(p.begin(), p.end(), flash.begin() + PATCH_AT);
    return flash;
}

std::vector<nlohmann::json> entries_of(const std::string& ep, const std::string& key, const nlohmann::json& value) {
    std::vector<nlohmann::json> out;
    for (const nlohmann::json& e : st::journal(ep))
        if (e.contains(key) && e[key] == value)
            out.push_back(e);
    return out;
}

SIM_TEST(Flash, TheSameUpdateGivesTheSameFlashOnEveryChannel, CHANNELS) {
    const Channels c = channels();
    Bytes p = patch();
    for (const auto& [id, h] : {std::pair{"bsg", c.bsg}, std::pair{"attrs", c.attrs}, std::pair{"whole", c.whole}}) {
        const Bytes before = st::flash_image(id);
        ASSERT_EQ(SDUpdateOptionRomOffset(h, 0, p.data(), uint32_t(p.size()), PATCH_AT), 0u) << id;
        EXPECT_EQ(st::flash_image(id), patched(before)) << id;
    }
    const auto vendor = entries_of("bsg", "vendor_cmd", 8);
    ASSERT_EQ(vendor.size(), 1u);
    EXPECT_EQ(vendor[0]["offset"], 0x10000);
    EXPECT_EQ(vendor[0]["length"], 0x10000);
    EXPECT_EQ(entries_of("optrom_ctl", "cmd", "2:10010:20").size(), 1u) << "partial commands on the attribute pair";
    // Without partial commands the whole 4 MiB flash goes back for 32 bytes.
    EXPECT_EQ(entries_of("optrom_ctl", "cmd", "2").size(), 1u);
    size_t written = 0;
    for (const nlohmann::json& e : st::journal("optrom"))
        if (e["op"] == "write" && e["host"] == 3)
            written += e.value("result", 0);
    EXPECT_EQ(written, 0x400000u);
}

SIM_TEST(Flash, TheIoctlChannelWritesTheSameFlash, IOCTL) {
    const std::vector<int> h = open_all();
    ASSERT_EQ(h.size(), 1u);
    Bytes p = patch();
    const Bytes before = st::flash_image("ioctl");
    ASSERT_EQ(SDUpdateOptionRomOffset(h[0], 0, p.data(), uint32_t(p.size()), PATCH_AT), 0u);
    EXPECT_EQ(st::flash_image("ioctl"), patched(before));
    const auto ioctl = entries_of("ioctl", "command", "EXT_CC_UPDATE_OPTROM");
    ASSERT_EQ(ioctl.size(), 1u);
    EXPECT_EQ(ioctl[0]["offset"], 0x10000);
    EXPECT_EQ(ioctl[0]["length"], 0x10000);

    // The part dies halfway: half the bytes are in, and the driver's status says it failed.
    Bytes data(0x10000, 0x3C);
    st::arm_fault("ioctl", "0xc074790a", "partial");  // the update, not the reads around it
    EXPECT_EQ(SDUpdateOptionRomOffset(h[0], 0, data.data(), uint32_t(data.size()), 0x20000), 0x20000075u);
    const Bytes after = st::flash_image("ioctl");
    EXPECT_EQ(after[0x27FFF], 0x3C);
    EXPECT_NE(after[0x28000], 0x3C);
}

SIM_TEST(Flash, FaultsInTheMiddleReportFailureNeverSuccess, CHANNELS) {
    const Channels c = channels();
    Bytes data(0x10000, 0x3C);
    const Bytes before = st::flash_image("attrs");

    // The part dies halfway through the commit: half the bytes are in, and the call fails.
    st::arm_fault("optrom_ctl", "3", "partial");
    EXPECT_NE(SDUpdateOptionRomOffset(c.attrs, 0, data.data(), uint32_t(data.size()), 0x20000), 0u);
    const Bytes after = st::flash_image("attrs");
    EXPECT_TRUE(std::all_of(after.begin() + 0x20000, after.begin() + 0x28000, [](uint8_t v) { return v == 0x3C; }));
    EXPECT_TRUE(std::equal(after.begin() + 0x28000, after.begin() + 0x30000, before.begin() + 0x28000));

    // A short transfer to the staging buffer is resumed; a failed one is never committed.
    const Bytes whole_before = st::flash_image("whole");
    st::arm_fault("optrom", "write", "eio");
    EXPECT_NE(SDUpdateOptionRomOffset(c.whole, 0, data.data(), uint32_t(data.size()), 0x20000), 0u);
    EXPECT_EQ(st::flash_image("whole"), whole_before);
    st::arm_fault("optrom", "write", "short");
    EXPECT_EQ(SDUpdateOptionRomOffset(c.whole, 0, data.data(), uint32_t(data.size()), 0x20000), 0u);
    EXPECT_EQ(st::flash_image("whole")[0x2FFFF], 0x3C);

    // Busy twice is waited out (20 seconds each, scaled); a third time is a failure.
    st::arm_fault("bsg", "0x800000ff/8", "ebusy", 2);
    EXPECT_EQ(SDUpdateOptionRomOffset(c.bsg, 0, data.data(), uint32_t(data.size()), 0x30000), 0u);
    size_t sleeps = 0;
    for (const nlohmann::json& e : st::journal("sleep"))
        sleeps += e.value("seconds", 0.0) == 20.0;
    EXPECT_EQ(sleeps, 2u);

    // A driver without bsg vendor commands: the read falls back to the attributes.
    st::arm_fault("bsg", "0x800000ff/7", "enosys");
    Bytes back(0x100);
    EXPECT_EQ(SDGetOptionRomOffset(c.bsg, 0, back.data(), uint32_t(back.size()), 0x30000), 0u);
    EXPECT_TRUE(std::all_of(back.begin(), back.end(), [](uint8_t v) { return v == 0x3C; }));
    EXPECT_EQ(entries_of("optrom_ctl", "cmd", "1:30000:100").size(), 1u);
}

SIM_TEST(Flash, TwoProcessesUpdatingAreSerialised, CHANNELS) {
    channels();
    const std::vector<int> rc = st::run_children(2, [](int i) {
        const Channels c = channels();
        Bytes data(0x1000, uint8_t(0x10 + i));
        for (int n = 0; n < 3; ++n)
            if (SDUpdateOptionRomOffset(c.whole, 0, data.data(), uint32_t(data.size()), 0x40000 + 0x1000u * i) != 0)
                return 1;
        return 0;
    });
    EXPECT_EQ(rc, (std::vector<int>{0, 0}));
    // From a command that opens a transfer to the "0" that closes it, no
    // other process touches the attribute pair.
    long owner = 0;
    for (const nlohmann::json& e : st::journal()) {
        if (e["ep"] != "optrom_ctl" && e["ep"] != "optrom")
            continue;
        const long pid = e["pid"];
        if (owner) {
            EXPECT_EQ(pid, owner) << e.dump();
        }
        if (e["ep"] == "optrom_ctl")
            owner = e["cmd"] == "0" ? 0 : pid;
    }
    const Bytes after = st::flash_image("whole");
    EXPECT_EQ(after[0x40000], 0x10);
    EXPECT_EQ(after[0x41000], 0x11);
}

SIM_TEST(Flash, BadInputLeavesTheFlashAlone, "families.json") {
    std::vector<Bytes> before;
    for (const vxsim::Adapter& a : st::scenario().adapters)
        before.push_back(st::flash_image(a.id));
    const auto ports = first_ports();
    auto port = [&](const std::string& id) {
        for (const auto& [a, h] : ports)
            if (a->id == id)
                return h;
        return 0;
    };
    const int lark = port("lark0"), kite = port("kite0"), finch = port("finch0"), wren = port("wren0");
    Bytes buf(0x80000, 0);
    const Bytes lark_flash = st::flash_image("lark0");
    ASSERT_GE(lark_flash.size(), 0x80000u);
    Bytes broken(lark_flash.begin(), lark_flash.begin() + 0x80000);
    Bytes looping = broken;
    broken.at(0x200 + 1) = 0x00;  // the first image after the directory loses its 0x55 0xAA
    looping.at(0x200 + 0x40 + 16) = 0;  // an image of length 0 never ends the chain
    looping.at(0x200 + 0x40 + 17) = 0;

    const struct {
        const char* what;
        uint32_t got;
        uint32_t want;
    } cases[] = {
        {"null read", SDGetOptionRom(finch, 0, nullptr, 0x20000), 0x20000064},
        {"read one byte short", SDGetOptionRom(finch, 0, buf.data(), 0x1FFFF), 0x20000064},
        {"null update", SDUpdateOptionRomEx(lark, 0, nullptr, 0x100, 0x07), 0x20000064},
        {"update one byte short", SDUpdateOptionRom(finch, 0, buf.data(), 0x1FFFF), 0x20000064},
        {"bad handle", SDGetOptionRomEx(9999, 0, buf.data(), 0x100, 0x07), 0x20000065},
        {"unknown region", SDUpdateOptionRomEx(lark, 0, buf.data(), 0x100, 0x99), 0x20000064},
        {"read-only region", SDUpdateOptionRomEx(lark, 0, buf.data(), 0x100, 0x29), 0x20000066},
        {"larger than the region", SDUpdateOptionRomEx(lark, 0, buf.data(), 0x4001, 0x2A), 0x20000084},
        {"a slice Ex does not write", SDUpdateOptionRomEx(kite, 0, buf.data(), 0x100, 0x08), 0x20000064},
        {"region 0 on Ex2", SDUpdateOptionRomEx2(lark, 0, buf.data(), 0x100, 0), 0x20000109},
        {"region ~0 on Ex2", SDUpdateOptionRomEx2(lark, 0, buf.data(), 0x100, 0xFFFFFFFF), 0x20000109},
        {"whole image on Wren", SDUpdateOptionRom(wren, 0, buf.data(), 0x20000), 0x20000066},
        {"broken signature", SDUpdateOptionRomEx(lark, 0, broken.data(), uint32_t(broken.size()), 0x07), 0x20000064},
        {"chain that never ends", SDUpdateOptionRomEx(lark, 0, looping.data(), uint32_t(looping.size()), 0x07),
         0x20000064},
        {"raw range past the flash", SDUpdateOptionRomOffset(lark, 0, buf.data(), 0x100, 0x3FFF80), 0x20000075},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.got, c.want) << c.what;
    size_t i = 0;
    for (const vxsim::Adapter& a : st::scenario().adapters)
        EXPECT_EQ(st::flash_image(a.id), before[i++]) << a.id;
}

}  // namespace
