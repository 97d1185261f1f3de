// Shared fixtures of the flash unit tests: an in-memory flash behind the
// library's flash reader, port records of any family, and flash images
// built by the simulator's model.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "flash.h"
#include "model.h"
#include "vx_core_flash.h"

using Bytes = std::vector<uint8_t>;

// What the library's flash reader answers in these tests.
struct FakeFlash {
    Bytes bytes;
    uint32_t status = 0;     // extended status of every read (0: good)
    uint32_t sector = 0;     // the driver's sector size; 0: the query fails
    std::vector<std::pair<uint32_t, uint32_t>> reads;  // offset, length
};
extern FakeFlash g_flash;

// A physical port of the given board; the layout buffer is freed with it.
struct Port {
    vxapi_phy_info phy{};
    vxapi_priv_database inst{};
    explicit Port(uint16_t device_id, uint16_t ssvid = 0x1D5A, uint16_t ssdid = 0x0101, uint32_t features = 0);
    ~Port();
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;
};

// A scenario adapter of the given board with fixed versions (BIOS 3.18,
// FCode 4.02, EFI 6.01, firmware 8.05.63).
vxsim::Adapter sim_adapter(uint16_t device_id, uint16_t ssvid = 0x1D5A, uint16_t ssdid = 0x0101);

uint16_t le16_at(const Bytes& b, size_t at);
uint32_t le32_at(const Bytes& b, size_t at);
void put16_at(Bytes& b, size_t at, uint16_t v);
void put32_at(Bytes& b, size_t at, uint32_t v);

// Forgets the process-wide layout between tests.
void reset_current_layout();
