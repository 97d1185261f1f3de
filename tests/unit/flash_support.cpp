#include "flash_support.h"

#include "vx_channel.h"

#include <cstring>
#include <string>

FakeFlash g_flash;

namespace {

// A channel whose flash is g_flash: raw reads and the sector-size query.
int32_t fake_read(int, vxapi_priv_database*, uint8_t* buf, uint32_t len, uint32_t region, uint32_t offset,
                  uint32_t* pext_stat) {
    EXPECT_EQ(region, VX_REGION_RAW);
    g_flash.reads.emplace_back(offset, len);
    if (uint64_t(offset) + len > g_flash.bytes.size()) {
        *pext_stat = 6;
        return 1;
    }
    std::memcpy(buf, g_flash.bytes.data() + offset, len);
    *pext_stat = g_flash.status;
    return 0;
}

uint32_t fake_sector(int, vxapi_priv_database*, uint32_t* pflash_sector_size) {
    *pflash_sector_size = g_flash.sector;
    return g_flash.sector == 0;
}

const vxapi_channel_ops fake_channel = [] {
    vxapi_channel_ops ops{};
    ops.name = "fake flash";
    ops.read_optrom = fake_read;
    ops.get_flash_sector_size = fake_sector;
    return ops;
}();

}  // namespace

Port::Port(uint16_t device_id, uint16_t ssvid, uint16_t ssdid) {
    phy.device_id = device_id;
    phy.ssvendor_id = ssvid;
    phy.ssdevice_id = ssdid;
    inst.phy_info = &phy;
    inst.oshandle = -1;
    inst.channel = &fake_channel;
}

vxsim::Adapter sim_adapter(uint16_t device_id, uint16_t ssvid, uint16_t ssdid) {
    vxsim::Adapter a;
    a.id = "a";
    a.device_id = device_id;
    a.subsystem_vendor_id = ssvid;
    a.subsystem_device_id = ssdid;
    a.serial_number = "VXT0001";
    a.flash = {"3.18", "4.02", "6.01", "8.05.63", "2.1.4", "1.0.9", "1.2.7", "3.1.2"};
    const vx_adapter_type* type = vx_adapter_lookup(device_id);
    for (unsigned f = 0; type && f < type->ports; ++f)
        a.functions.emplace_back().pci_address = "0000:05:00." + std::to_string(f);
    return a;
}

uint16_t le16_at(const Bytes& b, size_t at) { return uint16_t(b.at(at) | b.at(at + 1) << 8); }
void put16_at(Bytes& b, size_t at, uint16_t v) {
    b.at(at) = uint8_t(v);
    b.at(at + 1) = uint8_t(v >> 8);
}
void put32_at(Bytes& b, size_t at, uint32_t v) {
    put16_at(b, at, uint16_t(v));
    put16_at(b, at + 2, uint16_t(v >> 16));
}

void reset_current_layout() {
    pGlobalOptRomLayout = nullptr;
    std::memset(&gOptRomLayout, 0, sizeof gOptRomLayout);
}
