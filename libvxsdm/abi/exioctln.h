// Extended-ioctl records of the Linux driver: driver data, target/LUN lists.
#pragma once

#include <cstddef>
#include <cstdint>

#include "exioct.h"

// Answer of EXT_CC_DRIVER_SPECIFICS.
struct EXT_LN_DRIVER_DATA {
    struct {
        uint8_t Major;
        uint8_t Minor;
        uint8_t Patch;
        uint8_t Beta;
        uint8_t Reserved[4];
    } DrvVer;
    uint32_t Flags;  // capability bits; 0x04 and 0x08 become port features 0x40 and 0x100
    uint32_t Reserved[13];
};
using _EXT_LN_DRIVER_DATA = EXT_LN_DRIVER_DATA;
static_assert(sizeof(EXT_LN_DRIVER_DATA) == 64);
static_assert(offsetof(EXT_LN_DRIVER_DATA, Flags) == 8);
static_assert(offsetof(EXT_LN_DRIVER_DATA, Reserved) == 12);

inline constexpr uint32_t EXT_DRIVER_FLAG_CAP4 = 0x04;
inline constexpr uint32_t EXT_DRIVER_FLAG_CAP8 = 0x08;

// Target/LUN list (get-data sub-code 10): a 32-byte head, then entries of a
// 32-byte head followed by a LUN byte map of 2048 or 4096 bytes.
struct TGT_LUN_DATA_ENTRY {
    uint8_t NodeName[8];
    uint8_t PortName[8];
    uint16_t LunCount;
    uint8_t BusNumber;
    uint8_t TargetId;
    uint8_t DevType;
    uint8_t LoopId;
    uint16_t Reserved3;
    uint8_t PortId[4];
    uint32_t Reserved5;
    uint8_t Data[1];  // first byte of the LUN map
};
inline constexpr size_t TGT_LUN_DATA_ENTRY_HEADER = offsetof(TGT_LUN_DATA_ENTRY, Data);
static_assert(TGT_LUN_DATA_ENTRY_HEADER == 32);
static_assert(offsetof(TGT_LUN_DATA_ENTRY, LunCount) == 16);
static_assert(offsetof(TGT_LUN_DATA_ENTRY, TargetId) == 19);
static_assert(offsetof(TGT_LUN_DATA_ENTRY, PortId) == 24);

// The largest target id an entry can name. Larger targets are left out of
// the list; LunCount counts every LUN of the target, also those whose
// number lies past the map and so cannot be marked.
inline constexpr uint32_t VX_TGT_LUN_MAX_TARGET = 0xFF;

inline constexpr size_t TGT_LUN_MAP_SMALL = 2048;
inline constexpr size_t TGT_LUN_MAP_LARGE = 4096;  // drivers with capability bit 0x04

struct TGT_LUN_DATA_LIST {
    uint16_t Version;
    uint16_t EntryCount;
    uint32_t Reserved1;
    uint32_t Reserved2;
    uint32_t Reserved3;
    uint32_t Reserved4;
    uint32_t Reserved5;
    uint32_t Reserved6;
    uint32_t Reserved7;
    TGT_LUN_DATA_ENTRY DataEntry[1];
};
using _TGT_LUN_DATA_LIST = TGT_LUN_DATA_LIST;
inline constexpr size_t TGT_LUN_DATA_LIST_HEADER = offsetof(TGT_LUN_DATA_LIST, DataEntry);
static_assert(TGT_LUN_DATA_LIST_HEADER == 32);
static_assert(offsetof(TGT_LUN_DATA_LIST, EntryCount) == 2);

// LUN-data command (EXT_CC_GET_LUN_DATA).
struct FO_EXTERNAL_LUN_DATA_ENTRY {
    uint8_t NodeName[8];
    uint8_t PortName[8];
    uint16_t LunCount;
    uint8_t TargetId;
    uint8_t Dev_No;
    uint32_t Reserved3;
    uint32_t Reserved4;
    uint32_t Reserved5;
    uint8_t Data[1];
};
inline constexpr size_t FO_EXTERNAL_LUN_DATA_ENTRY_HEADER = offsetof(FO_EXTERNAL_LUN_DATA_ENTRY, Data);
static_assert(FO_EXTERNAL_LUN_DATA_ENTRY_HEADER == 32);
static_assert(offsetof(FO_EXTERNAL_LUN_DATA_ENTRY, TargetId) == 18);
static_assert(offsetof(FO_EXTERNAL_LUN_DATA_ENTRY, Reserved3) == 20);

struct FO_LUN_DATA_LIST {
    uint16_t Version;
    uint16_t EntryCount;
    uint32_t Reserved1;
    uint32_t Reserved2;
    uint32_t Reserved3;
    uint32_t Reserved4;
    uint32_t Reserved5;
    uint32_t Reserved6;
    uint32_t Reserved7;
    FO_EXTERNAL_LUN_DATA_ENTRY DataEntry[1];
};
static_assert(offsetof(FO_LUN_DATA_LIST, DataEntry) == 32);

struct FO_LUN_DATA_INPUT {
    uint8_t HbaInstance;
    uint8_t Reserved1[3];
    uint32_t Reserved2[7];
};
static_assert(sizeof(FO_LUN_DATA_INPUT) == 32);
