// NVRAM and VPD through the exported interface in simulated hosts: every
// port of every family writes a changed setting and reads back an image
// with a valid checksum, on the sysfs channel and both extended-ioctl
// generations; the written bytes are where the driver keeps them (the
// flash, or its own store); VPD reads give the board's VPD whatever it
// holds, and a saved VPD reaches both ports of a pair.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "flash.h"
#include "libtest.h"
#include "vsdmgt.h"
#include "vsdnvram.h"

namespace {

namespace st = vxsim::test;
using Bytes = std::vector<uint8_t>;
using vxsim::Adapter;

struct Port {
    const Adapter* adapter;
    size_t function;  // PCI function number
    bool physical;
    uint32_t host_no;
    uint32_t store_host;  // the physical port's host: its images are the virtual ports' too
    int h;
};

// Every port of the host, opened, in instance order (each function's
// physical port, then its virtual ports).
std::vector<Port> open_ports() {
    std::vector<Port> out;
    uint32_t instance = 0;
    for (const Adapter& a : st::scenario().adapters) {
        for (const vxsim::PciFunction& f : a.functions) {
            const size_t fn = vxsim::pci_function_number(f.pci_address);
            out.push_back({&a, fn, true, f.port.host_no, f.port.host_no, 0});
            for (const vxsim::HostPort& v : f.vports)
                out.push_back({&a, fn, false, v.host_no, f.port.host_no, 0});
        }
    }
    EXPECT_EQ(SDGetNumberOfAdapters(), out.size());
    for (Port& p : out)
        EXPECT_EQ(SDOpenDevice(instance++, &p.h), 0u) << p.adapter->id;
    return out;
}

// The settings image the driver keeps for a physical port: its flash
// region on the layout-table families, the driver's own store otherwise.
Bytes stored_nvram(const Port& p, size_t size) {
    if (const auto r = vxsim::nvram_in_flash(*p.adapter, p.function)) {
        const Bytes flash = st::flash_image(p.adapter->id);
        return Bytes(flash.begin() + r->offset, flash.begin() + r->offset + std::min<size_t>(size, r->size));
    }
    return st::nvram_image(p.store_host);
}

Bytes stored_vpd(const Port& p, size_t size) {
    if (const auto r = vxsim::vpd_in_flash(*p.adapter, p.function)) {
        const Bytes flash = st::flash_image(p.adapter->id);
        return Bytes(flash.begin() + r->offset, flash.begin() + r->offset + std::min<size_t>(size, r->size));
    }
    return st::vpd_image(p.store_host);
}

// The firmware's rule: 128 little-endian words, or 256 bytes, summing to 0.
bool checksum_holds(const Bytes& image) {
    uint32_t sum = 0;
    if (image.size() == 512) {
        for (size_t i = 0; i < 512; i += 4)
            sum += uint32_t(image[i]) | uint32_t(image[i + 1]) << 8 | uint32_t(image[i + 2]) << 16 |
                   uint32_t(image[i + 3]) << 24;
        return sum == 0;
    }
    for (uint8_t b : image)
        sum += b;
    return image.size() == 256 && (sum & 0xFF) == 0;
}

// Reads a port's image into a larger buffer: the image and no more arrives.
Bytes read_nvram(int h, size_t size) {
    Bytes buf(1024 + 16, 0xA5);
    EXPECT_EQ(SDGetNVRam(h, 0, 0, buf.data(), 1024), 0u);
    EXPECT_TRUE(std::all_of(buf.begin() + long(size), buf.end(), [](uint8_t v) { return v == 0xA5; }))
        << "written past the image";
    buf.resize(size);
    return buf;
}

// Every port changes its execution throttle (and, on ports with two, a
// second setting); the other ports of the board keep theirs.
void every_port_round_trips() {
    const std::vector<Port> ports = open_ports();
    for (const Port& p : ports) {
        SCOPED_TRACE(p.adapter->id + " function " + std::to_string(p.function) + (p.physical ? "" : " vport"));
        const size_t size = vxsim::build_nvram(*p.adapter, p.function).size();
        Bytes image = read_nvram(p.h, size);
        EXPECT_EQ(image, stored_nvram(p, size)) << "the read is the driver's image";
        if (!p.physical) {
            EXPECT_EQ(SDUpdateNVRam(p.h, 0, 0, image.data(), uint32_t(size)), SDM_STATUS_NOT_SUPPORTED);
            continue;
        }
        const uint32_t throttle = 0x40 + uint32_t(p.host_no);
        ASSERT_EQ(SDSetVariableValue(p.h, image.data(), NVRAMVarExecutionThrottle, throttle), 0u);
        ASSERT_EQ(SDSetVariableValue(p.h, image.data(), NVRAMVarPortDownRetryCount, 7), 0u);

        std::vector<std::pair<const Port*, Bytes>> others;
        for (const Port& o : ports)
            if (o.adapter == p.adapter && o.physical && o.host_no != p.host_no)
                others.emplace_back(&o, stored_nvram(o, size));

        const auto region = vxsim::nvram_in_flash(*p.adapter, p.function);
        const Bytes flash_before = region ? st::flash_image(p.adapter->id) : Bytes();
        ASSERT_EQ(SDUpdateNVRam(p.h, 0, 0, image.data(), uint32_t(size)), 0u);
        const Bytes back = read_nvram(p.h, size);
        if (region) {
            const Bytes flash = st::flash_image(p.adapter->id);
            ASSERT_EQ(flash.size(), flash_before.size());
            const auto at = long(region->offset), end = long(region->offset + size);
            EXPECT_TRUE(std::equal(flash.begin(), flash.begin() + at, flash_before.begin()) &&
                        std::equal(flash.begin() + end, flash.end(), flash_before.begin() + end))
                << "flash outside the port's NVRAM changed";
        }
        EXPECT_TRUE(checksum_holds(back));
        EXPECT_EQ(SDGetVariableValue(p.h, back.data(), NVRAMVarExecutionThrottle), throttle);
        EXPECT_EQ(SDGetVariableValue(p.h, back.data(), NVRAMVarPortDownRetryCount), 7u);
        EXPECT_EQ(stored_nvram(p, size), back) << "the driver keeps what was read back";
        for (const auto& [o, before] : others)
            EXPECT_EQ(stored_nvram(*o, size), before) << "port at function " << o->function << " changed";
    }
}

SIM_TEST(Nvram, EveryPortOfEveryFamilyRoundTripsOnSysfs, "families.json") { every_port_round_trips(); }

// The families scenario with every board on the newer extended-ioctl node.
const char* families_on_ioctl() {
    static const std::string text = [] {
        nlohmann::json j = nlohmann::json::parse(st::read_text(st::scenario_dir() + "/families.json"));
        for (nlohmann::json& a : j["adapters"])
            a["channel"] = "ioctl";
        return j.dump();
    }();
    return text.c_str();
}

SIM_TEST(Nvram, EveryPortOfEveryFamilyRoundTripsOnIoctl, families_on_ioctl()) { every_port_round_trips(); }

SIM_TEST(Nvram, OlderIoctlGenerationRoundTrips, "legacy.json") { every_port_round_trips(); }

// ---- VPD ----

SIM_TEST(Vpd, EveryPortReadsItsBoardsVpdWhateverItHolds, "families.json") {
    for (const Port& p : open_ports()) {
        SCOPED_TRACE(p.adapter->id + " function " + std::to_string(p.function));
        const Bytes expected = vxsim::build_vpd(*p.adapter, p.function);
        Bytes buf(expected.size() + 16, 0xA5);
        uint32_t size = uint32_t(buf.size());
        ASSERT_EQ(SDGetVpd(p.h, 0, buf.data(), &size), 0u);
        EXPECT_EQ(size, expected.size());
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), buf.begin()));
        EXPECT_TRUE(std::all_of(buf.begin() + long(size), buf.end(), [](uint8_t v) { return v == 0xA5; }));
    }
}

// A changed asset tag ("YA") in a VPD of the board.
Bytes tagged(Bytes vpd, const char* tag) {
    const auto it = std::search(vpd.begin(), vpd.end(), "YA", "YA" + 2);
    EXPECT_NE(it, vpd.end());
    if (it != vpd.end())
        std::memcpy(&*(it + 3), tag, std::strlen(tag));
    return vpd;
}

Bytes read_vpd(int h, size_t size) {
    Bytes buf(size);
    uint32_t len = uint32_t(size);
    EXPECT_EQ(SDGetVpd(h, 0, buf.data(), &len), 0u);
    return buf;
}

void saved_vpd_reaches_both_ports(const char* board) {
    std::vector<Port> pair;
    for (const Port& p : open_ports())
        if (p.adapter->id == board && p.physical)
            pair.push_back(p);
    ASSERT_EQ(pair.size(), 2u);
    const size_t size = vxsim::build_vpd(*pair[0].adapter, 0).size();
    Bytes vpd = tagged(read_vpd(pair[1].h, size), "ASSET-0001");
    // Saved from the second port: both change.
    ASSERT_EQ(SDSwiftSaveVpd(pair[1].h, vpd.data(), uint32_t(size)), 0u);
    for (const Port& p : pair) {
        EXPECT_EQ(read_vpd(p.h, size), vpd) << "function " << p.function;
        EXPECT_EQ(stored_vpd(p, size), vpd) << "function " << p.function;
    }
}

SIM_TEST(Vpd, SavedVpdReachesBothPortsOfADualSwift, "families.json") {
    saved_vpd_reaches_both_ports("swift0");
    // One port alone: the other keeps its VPD.
    const std::vector<Port> ports = open_ports();
    const auto swift = std::find_if(ports.begin(), ports.end(), [](const Port& p) { return p.adapter->id == "swift0"; });
    ASSERT_NE(swift, ports.end());
    const Bytes other = read_vpd((swift + 1)->h, 512);
    Bytes vpd = tagged(other, "ASSET-0002");
    uint32_t size = 512;
    ASSERT_EQ(SDUpdateVpd(swift->h, 0, vpd.data(), &size), 0u);
    EXPECT_EQ(read_vpd(swift->h, 512), vpd);
    EXPECT_EQ(read_vpd((swift + 1)->h, 512), other);
}

SIM_TEST(Vpd, SavedVpdReachesBothPortsOfADualSwiftOnIoctl, families_on_ioctl()) {
    saved_vpd_reaches_both_ports("swift0");
}

SIM_TEST(Vpd, LayoutTableBoardsKeepTheirVpdInFlashRegions, "families.json") {
    saved_vpd_reaches_both_ports("lark0");
    saved_vpd_reaches_both_ports("tern0");  // 1024 bytes
    // Only the flash path writes their VPD.
    const std::vector<Port> ports = open_ports();
    for (const Port& p : ports) {
        if (p.adapter->id != "plover0")
            continue;
        Bytes vpd = read_vpd(p.h, 512);
        uint32_t size = 512;
        EXPECT_EQ(SDUpdateVpd(p.h, 0, vpd.data(), &size), SDM_STATUS_NOT_SUPPORTED);
    }
}

}  // namespace
