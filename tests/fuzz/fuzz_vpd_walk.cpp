// The VPD checksum walks and the text rendering over whatever a port's VPD
// holds: no read outside the buffer, no write past the caller's text, and a
// recomputed checksum always verifies.
#include <cstdint>
#include <cstring>
#include <vector>

#include "vx_adapters.h"
#include "vx_core.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    const bool hp = data[0] & 1;
    ++data;
    --size;

    std::vector<uint8_t> vpd(data, data + size);  // exactly the bytes given: ASan sees any overrun
    const uint32_t len = static_cast<uint32_t>(vpd.size());
    vxapi_verify_vpd_checksum(vpd.data(), len);
    vxapi_verify_hp_vpd_checksum(vpd.data(), len);
    if (vxapi_vpd_set_checksum(vpd.data(), len) == 0 && vxapi_verify_vpd_checksum(vpd.data(), len) != 0)
        __builtin_trap();

    // The rendering walks 512 bytes of a VPD buffer at least that large.
    std::vector<uint8_t> buf(VX_VPD_SIZE, 0);
    memcpy(buf.data(), data, size < buf.size() ? size : buf.size());
    vxapi_phy_info phy{};
    vxapi_priv_database inst{};
    inst.phy_info = &phy;
    if (hp) {
        phy.ssvendor_id = VX_HP_PCI_VENDOR_ID;
        phy.ssdevice_id = vx_hp_subsystem_ids[0];
    }
    std::vector<char> text(VX_VPD_TEXT_SIZE, '\0');
    PrintVpd(buf.data(), text.data(), &inst);
    if (text.back() != '\0')
        __builtin_trap();
    return 0;
}
