// Shared fixtures of the flash unit tests: an in-memory flash behind the
// library's flash reader, port records of any board, and simulator-built flash.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "flash.h"
#include "vx_core_flash.h"

using Bytes = std::vector<uint8_t>;

// What the library's flash reader answers.
struct FakeFlash {
    Bytes bytes;
    uint32_t status = 0;  // extended status of every read
    uint32_t sector = 0;  // the driver's sector size; 0: the query fails
    std::vector<std::pair<uint32_t, uint32_t>> reads;  // offset, length
};
extern FakeFlash g_flash;

// A physical port of the given board; its layout buffer is freed with it.
struct Port {
    vxapi_phy_info phy{};
    vxapi_priv_database inst{};
    explicit Port(uint16_t device_id, uint16_t ssvid = 0x1D5A, uint16_t ssdid = 0x0101);
    ~Port() { free(phy.pflt_layout); }
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;
};

// A scenario board with BIOS 3.18, FCode 4.02, EFI 6.01, firmware 8.05.63.
vxsim::Adapter sim_adapter(uint16_t device_id, uint16_t ssvid = 0x1D5A, uint16_t ssdid = 0x0101);

uint16_t le16_at(const Bytes& b, size_t at);
void put16_at(Bytes& b, size_t at, uint16_t v);
void put32_at(Bytes& b, size_t at, uint32_t v);
void reset_current_layout();  // forgets the process-wide layout
