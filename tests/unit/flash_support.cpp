#include "flash_support.h"

#include <cstdlib>
#include <cstring>

FakeFlash g_flash;

int vxapi_flash_read_at(int handle, vxapi_priv_database* inst, uint32_t offset, uint8_t* buf, uint32_t len,
                        uint32_t* pext_stat) {
    (void)handle;
    (void)inst;
    g_flash.reads.emplace_back(offset, len);
    if (uint64_t(offset) + len > g_flash.bytes.size()) {
        *pext_stat = 6;
        return 1;
    }
    std::memcpy(buf, g_flash.bytes.data() + offset, len);
    *pext_stat = g_flash.status;
    return 0;
}

uint32_t vxapi_get_flash_sector_size(int handle, vxapi_priv_database* inst, uint32_t* pflash_sector_size) {
    (void)handle;
    (void)inst;
    if (g_flash.sector == 0)
        return 1;
    *pflash_sector_size = g_flash.sector;
    return 0;
}

Port::Port(uint16_t device_id, uint16_t ssvid, uint16_t ssdid, uint32_t features) {
    phy.vendor_id = 0x1D5A;
    phy.device_id = device_id;
    phy.ssvendor_id = ssvid;
    phy.ssdevice_id = ssdid;
    inst.phy_info = &phy;
    inst.oshandle = -1;
    inst.features = features;
    inst.interface_type = VX_IFTYPE_PHYSICAL;
}

Port::~Port() { free(phy.pflt_layout); }

vxsim::Adapter sim_adapter(uint16_t device_id, uint16_t ssvid, uint16_t ssdid) {
    vxsim::Adapter a;
    a.id = "a";
    a.device_id = device_id;
    a.subsystem_vendor_id = ssvid;
    a.subsystem_device_id = ssdid;
    a.serial_number = "VXT0001";
    a.flash = {"3.18", "4.02", "6.01", "8.05.63", "2.1.4", "1.0.9", "1.2.7", "3.1.2"};
    const vx_adapter_type* t = vx_adapter_lookup(device_id);
    for (unsigned f = 0; t && f < t->ports; ++f) {
        vxsim::PciFunction& fn = a.functions.emplace_back();
        fn.pci_address = "0000:05:00." + std::to_string(f);
        fn.port.host_no = f;
    }
    return a;
}

uint16_t le16_at(const Bytes& b, size_t at) { return uint16_t(b.at(at) | b.at(at + 1) << 8); }
uint32_t le32_at(const Bytes& b, size_t at) { return le16_at(b, at) | uint32_t(le16_at(b, at + 2)) << 16; }
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
