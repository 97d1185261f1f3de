// NVRAM variables: bit fields of a port's NVRAM image addressed by number,
// in the 256-byte word layout of the older families and the 512-byte
// nvram_swift layout of the Swift and FLT families, with their display texts
// and per-class flags; and the SD calls that pick the layout by family.
#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

#include "vsdnvram.h"
#include "vx_core.h"
#include "vx_sddbg.h"

namespace {

constexpr uint32_t SD_TRACE = VXDBG_TRACE | VXDBG_SDAPI;
constexpr uint32_t SD_ERROR = VXDBG_ERROR | VXDBG_SDAPI;

constexpr uint32_t NOT_IN_SWIFT = 0xDEADDEAD;

// A variable's place in both layouts and its per-class flags.
struct nvr_variable {
    uint8_t word;            // 256-byte layout: index of a 16-bit little-endian word
    uint8_t start_bit;
    uint8_t bits;
    uint16_t setting_bits;   // one hex digit per class: bit 0 read-only, bit 1 visible
    uint32_t swift_offset;   // nvram_swift: byte offset of a 32-bit little-endian word
    uint8_t swift_start_bit;
    uint8_t swift_bits;
};

// word / start bit / bits, settings, Swift byte offset / start bit / bits.
constexpr nvr_variable g_variables[] = {
    {0, 0, 32, 0x111, 0, 0, 32},  // 0 NVRAMVarId
    {2, 0, 8, 0x111, 4, 0, 16},  // 1 NVRAMVarVersion
    {3, 0, 8, 0x111, 0xDEADDEAD, 0, 0},  // 2 NVRAMVarRiscVersion
    {4, 0, 1, 0x222, 44, 0, 1},  // 3 NVRAMVarRiscEnableHardLoopID
    {4, 1, 1, 0x220, 44, 1, 1},  // 4 NVRAMVarEnableFairness
    {4, 2, 1, 0x220, 44, 2, 1},  // 5 NVRAMVarEnableFullDuplex
    {4, 3, 1, 0x220, 44, 3, 1},  // 6 NVRAMVarEnableFastPosting
    {4, 4, 1, 0x0, 44, 4, 1},  // 7 NVRAMVarEnableTargetMode
    {4, 5, 1, 0x0, 44, 5, 1},  // 8 NVRAMVarDisableInitiatorMode
    {4, 6, 1, 0x0, 44, 6, 1},  // 9 NVRAMVarEnableADISC
    {4, 7, 1, 0x1, 44, 7, 1},  // 10 NVRAMVarTargetInquiryData
    {4, 8, 1, 0x0, 44, 8, 1},  // 11 NVRAMVarEnablePDBCNotify
    {4, 9, 1, 0x0, 44, 9, 1},  // 12 NVRAMVarNonParticipatingLIP
    {4, 10, 1, 0x0, 44, 10, 1},  // 13 NVRAMVarDescendingSearchLoopID
    {4, 11, 1, 0x1, 44, 11, 1},  // 14 NVRAMVarAcquireLoopIDInLIPA
    {4, 12, 1, 0x1, 44, 12, 1},  // 15 NVRAMVarStopPortQOnFullStatus
    {4, 13, 1, 0x0, 44, 13, 1},  // 16 NVRAMVarFullLoginAfterLIP
    {4, 14, 1, 0x1, 44, 14, 1},  // 17 NVRAMVarNodeNameOption
    {4, 15, 1, 0x1, 44, 15, 1},  // 18 NVRAMVarExtIFWCBEnableBit
    {5, 0, 16, 0x220, 12, 0, 16},  // 19 NVRAMVarFramePayloadSize
    {6, 0, 16, 0x220, 16, 0, 16},  // 20 NVRAMVarMaxIocbAllocation
    {7, 0, 16, 0x220, 14, 0, 16},  // 21 NVRAMVarExecutionThrottle
    {8, 0, 8, 0x222, 36, 0, 8},  // 22 NVRAMVarRetryCount
    {8, 8, 8, 0x0, 0xDEADDEAD, 0, 0},  // 23 NVRAMVarRetryDelay
    {9, 0, 8, 0x111, 20, 0, 8},  // 24 NVRAMVarPortName0
    {9, 8, 8, 0x111, 21, 0, 8},  // 25 NVRAMVarPortName1
    {10, 0, 8, 0x111, 22, 0, 8},  // 26 NVRAMVarPortName2
    {10, 8, 8, 0x111, 23, 0, 8},  // 27 NVRAMVarPortName3
    {11, 0, 8, 0x111, 24, 0, 8},  // 28 NVRAMVarPortName4
    {11, 8, 8, 0x111, 25, 0, 8},  // 29 NVRAMVarPortName5
    {12, 0, 8, 0x111, 26, 0, 8},  // 30 NVRAMVarPortName6
    {12, 8, 8, 0x111, 27, 0, 8},  // 31 NVRAMVarPortName7
    {13, 0, 16, 0x222, 18, 0, 16},  // 32 NVRAMVarAdapterHardLoopID
    {14, 0, 8, 0x1, 0xDEADDEAD, 0, 0},  // 33 NVRAMVarInquiryData
    {14, 8, 8, 0x0, 42, 0, 16},  // 34 NVRAMVarLoginTimeout
    {15, 0, 8, 0x111, 28, 0, 8},  // 35 NVRAMVarNodeName0
    {15, 8, 8, 0x111, 29, 0, 8},  // 36 NVRAMVarNodeName1
    {16, 0, 8, 0x111, 30, 0, 8},  // 37 NVRAMVarNodeName2
    {16, 8, 8, 0x111, 31, 0, 8},  // 38 NVRAMVarNodeName3
    {17, 0, 8, 0x111, 32, 0, 8},  // 39 NVRAMVarNodeName4
    {17, 8, 8, 0x111, 33, 0, 8},  // 40 NVRAMVarNodeName5
    {18, 0, 8, 0x111, 34, 0, 8},  // 41 NVRAMVarNodeName6
    {18, 8, 8, 0x111, 35, 0, 8},  // 42 NVRAMVarNodeName7
    {19, 0, 4, 0x221, 48, 0, 4},  // 43 NVRAMVarTimerOperationMode
    {19, 4, 3, 0x223, 48, 4, 3},  // 44 NVRAMVarInitConfigMode
    {19, 7, 1, 0x1, 48, 7, 1},  // 45 NVRAMVarEnableNonPartOnLIHAFailure
    {19, 8, 1, 0x221, 48, 8, 1},  // 46 NVRAMVarEnableClass2
    {19, 9, 1, 0x221, 48, 9, 1},  // 47 NVRAMVarEnableAck0
    {19, 12, 1, 0x221, 48, 12, 1},  // 48 NVRAMVarEnableFCTape
    {19, 13, 1, 0x221, 0xDEADDEAD, 0, 0},  // 49 NVRAMVarEnableFCConfirm
    {19, 14, 1, 0x221, 0xDEADDEAD, 0, 0},  // 50 NVRAMVarEnableCRN
    {19, 15, 1, 0x221, 0xDEADDEAD, 0, 0},  // 51 NVRAMVarNoLogoOnLinkDown
    {20, 0, 8, 0x221, 0xDEADDEAD, 0, 0},  // 52 NVRAMVarResponseAccumulationTimer
    {20, 8, 8, 0x221, 40, 0, 16},  // 53 NVRAMVarInterruptDelayTimer
    {21, 0, 1, 0x1, 52, 0, 1},  // 54 NVRAMVarEnableReadXfrRdy
    {21, 4, 2, 0x211, 52, 4, 2},  // 55 NVRAMVarFcpRspPayload
    {21, 6, 1, 0x0, 52, 6, 1},  // 56 NVRAMVarRecvOutOfOrderDataBit
    {21, 14, 2, 0x211, 52, 13, 3},  // 57 NVRAMVarDataRate
    {35, 1, 1, 0x220, 256, 1, 1},  // 58 NVRAMVarDisableBIOS
    {35, 2, 1, 0x0, 0xDEADDEAD, 0, 0},  // 59 NVRAMVarDisableLUNs
    {35, 3, 1, 0x0, 256, 3, 1},  // 60 NVRAMVarEnableSelectableBoot
    {35, 4, 1, 0x0, 256, 4, 1},  // 61 NVRAMVarDisableRISCCodeLoad
    {35, 5, 1, 0x0, 0xDEADDEAD, 0, 0},  // 62 NVRAMVarSetCacheLineSize1
    {35, 6, 1, 0x0, 0xDEADDEAD, 0, 0},  // 63 NVRAMVarPCIParityDisable
    {35, 7, 1, 0x220, 0xDEADDEAD, 0, 0},  // 64 NVRAMVarEnableExtendedLogging
    {35, 8, 1, 0x0, 0xDEADDEAD, 0, 0},  // 65 NVRAMVarEnable64BitsAddressing
    {35, 9, 1, 0x220, 0xDEADDEAD, 0, 0},  // 66 NVRAMVarEnableLIPReset
    {35, 10, 1, 0x220, 256, 10, 1},  // 67 NVRAMVarEnableLIPFullLogin
    {35, 11, 1, 0x220, 256, 11, 1},  // 68 NVRAMVarEnableTargetReset
    {35, 12, 1, 0x0, 0xDEADDEAD, 0, 0},  // 69 NVRAMVarEnableDatabaseStorage
    {35, 13, 1, 0x110, 0xDEADDEAD, 0, 0},  // 70 NVRAMVarEnableCacheFlushRead
    {35, 14, 1, 0x110, 0xDEADDEAD, 0, 0},  // 71 NVRAMVarEnableDatabaseLoad
    {36, 0, 8, 0x111, 276, 0, 8},  // 72 NVRAMVarBootNodeName0
    {36, 8, 8, 0x111, 277, 0, 8},  // 73 NVRAMVarBootNodeName1
    {37, 0, 8, 0x111, 278, 0, 8},  // 74 NVRAMVarBootNodeName2
    {37, 8, 8, 0x111, 279, 0, 8},  // 75 NVRAMVarBootNodeName3
    {38, 0, 8, 0x111, 280, 0, 8},  // 76 NVRAMVarBootNodeName4
    {38, 8, 8, 0x111, 281, 0, 8},  // 77 NVRAMVarBootNodeName5
    {39, 0, 8, 0x111, 282, 0, 8},  // 78 NVRAMVarBootNodeName6
    {39, 8, 8, 0x111, 283, 0, 8},  // 79 NVRAMVarBootNodeName7
    {40, 0, 8, 0x0, 284, 0, 16},  // 80 NVRAMVarBootLUNNumber
    {40, 8, 8, 0x0, 328, 0, 8},  // 81 NVRAMVarResetDelay
    {41, 0, 8, 0x220, 340, 0, 16},  // 82 NVRAMVarPortDownRetryCount
    {42, 0, 16, 0x220, 336, 0, 16},  // 83 NVRAMVarMaximumLUNsPerTarget
    {43, 0, 8, 0x111, 0xDEADDEAD, 0, 0},  // 84 NVRAMVarFcodeBootPortName0
    {43, 8, 8, 0x111, 0xDEADDEAD, 0, 0},  // 85 NVRAMVarFcodeBootPortName1
    {44, 0, 8, 0x111, 0xDEADDEAD, 0, 0},  // 86 NVRAMVarFcodeBootPortName2
    {44, 8, 8, 0x111, 0xDEADDEAD, 0, 0},  // 87 NVRAMVarFcodeBootPortName3
    {45, 0, 8, 0x111, 0xDEADDEAD, 0, 0},  // 88 NVRAMVarFcodeBootPortName4
    {45, 8, 8, 0x111, 0xDEADDEAD, 0, 0},  // 89 NVRAMVarFcodeBootPortName5
    {46, 0, 8, 0x111, 0xDEADDEAD, 0, 0},  // 90 NVRAMVarFcodeBootPortName6
    {46, 8, 8, 0x111, 0xDEADDEAD, 0, 0},  // 91 NVRAMVarFcodeBootPortName7
    {55, 0, 1, 0x0, 324, 0, 1},  // 92 NVRAMVarSelectiveLogin
    {55, 1, 1, 0x0, 324, 1, 1},  // 93 NVRAMVarEnableAltBootDevice
    {55, 3, 1, 0x0, 324, 3, 1},  // 94 NVRAMVarEnableBootOrderList
    {55, 5, 1, 0x0, 324, 5, 1},  // 95 NVRAMVarEnableSelectiveLUN
    {55, 7, 1, 0x0, 324, 7, 1},  // 96 NVRAMVarForceWorldLogin
    {55, 8, 8, 0x220, 342, 0, 16},  // 97 NVRAMVarLinkDownTimeout
    {64, 0, 8, 0x111, 288, 0, 8},  // 98 NVRAMVarAlt1BootPortName0
    {64, 8, 8, 0x111, 289, 0, 8},  // 99 NVRAMVarAlt1BootPortName1
    {65, 0, 8, 0x111, 290, 0, 8},  // 100 NVRAMVarAlt1BootPortName2
    {65, 8, 8, 0x111, 291, 0, 8},  // 101 NVRAMVarAlt1BootPortName3
    {66, 0, 8, 0x111, 292, 0, 8},  // 102 NVRAMVarAlt1BootPortName4
    {66, 8, 8, 0x111, 293, 0, 8},  // 103 NVRAMVarAlt1BootPortName5
    {67, 0, 8, 0x111, 294, 0, 8},  // 104 NVRAMVarAlt1BootPortName6
    {67, 8, 8, 0x111, 295, 0, 8},  // 105 NVRAMVarAlt1BootPortName7
    {68, 0, 16, 0x0, 296, 0, 16},  // 106 NVRAMVarAlt1BootLUNNumber
    {69, 0, 8, 0x111, 300, 0, 8},  // 107 NVRAMVarAlt2BootPortName0
    {69, 8, 8, 0x111, 301, 0, 8},  // 108 NVRAMVarAlt2BootPortName1
    {70, 0, 8, 0x111, 302, 0, 8},  // 109 NVRAMVarAlt2BootPortName2
    {70, 8, 8, 0x111, 303, 0, 8},  // 110 NVRAMVarAlt2BootPortName3
    {71, 0, 8, 0x111, 304, 0, 8},  // 111 NVRAMVarAlt2BootPortName4
    {71, 8, 8, 0x111, 305, 0, 8},  // 112 NVRAMVarAlt2BootPortName5
    {72, 0, 8, 0x111, 306, 0, 8},  // 113 NVRAMVarAlt2BootPortName6
    {72, 8, 8, 0x111, 307, 0, 8},  // 114 NVRAMVarAlt2BootPortName7
    {73, 0, 16, 0x0, 308, 0, 16},  // 115 NVRAMVarAlt2BootLUNNumber
    {74, 0, 8, 0x111, 312, 0, 8},  // 116 NVRAMVarAlt3BootPortName0
    {74, 8, 8, 0x111, 313, 0, 8},  // 117 NVRAMVarAlt3BootPortName1
    {75, 0, 8, 0x111, 314, 0, 8},  // 118 NVRAMVarAlt3BootPortName2
    {75, 8, 8, 0x111, 315, 0, 8},  // 119 NVRAMVarAlt3BootPortName3
    {76, 0, 8, 0x111, 316, 0, 8},  // 120 NVRAMVarAlt3BootPortName4
    {76, 8, 8, 0x111, 317, 0, 8},  // 121 NVRAMVarAlt3BootPortName5
    {77, 0, 8, 0x111, 318, 0, 8},  // 122 NVRAMVarAlt3BootPortName6
    {77, 8, 8, 0x111, 319, 0, 8},  // 123 NVRAMVarAlt3BootPortName7
    {78, 0, 16, 0x0, 320, 0, 16},  // 124 NVRAMVarAlt3BootLUNNumber
    {122, 0, 16, 0x111, 504, 0, 16},  // 125 NVRAMVarSubSystemVendorID0
    {124, 0, 16, 0x111, 506, 0, 16},  // 126 NVRAMVarSubSystemDeviceID0
    {125, 0, 16, 0x111, 504, 0, 16},  // 127 NVRAMVarSubSystemVendorID1
    {126, 0, 16, 0x111, 506, 0, 16},  // 128 NVRAMVarSubSystemDeviceID1
    {127, 8, 8, 0x111, 508, 0, 32},  // 129 NVRAMVarCheckSum
    {0, 0, 0, 0x0, 44, 6, 1},  // 130 NVRAMVarEnableFabricAssigWWPN
    {0, 0, 0, 0x0, 412, 0, 1},  // 131 NVRAMVarEnableFabricAssgBootLun
    {0, 0, 0, 0x0, 44, 7, 1},  // 132 NVRAMVarEnableDPort
};
static_assert(std::size(g_variables) == NVRAMVarEnd);

constexpr bool places_fit() {
    for (size_t n = 0; n < std::size(g_variables); ++n) {
        const nvr_variable& v = g_variables[n];
        // NVRAMVarId is the only field wider than its word: it is read as the first 32 bits.
        if (v.word * 2u + 2u > NVRAM_IMAGE_SIZE || (n != NVRAMVarId && v.start_bit + v.bits > 16))
            return false;
        if (v.swift_offset != NOT_IN_SWIFT &&
            (v.swift_offset + 4u > NVRAM_SWIFT_IMAGE_SIZE || v.swift_start_bit + v.swift_bits > 32))
            return false;
    }
    return true;
}
static_assert(places_fit(), "every field lies inside its word and its image");

constexpr std::array<uint32_t, 33> make_bitmask() {
    std::array<uint32_t, 33> mask{};
    for (uint32_t n = 1; n < 33; ++n)
        mask[n] = mask[n - 1] << 1 | 1;
    return mask;
}
constexpr std::array<uint32_t, 33> g_bitmask = make_bitmask();
static_assert(g_bitmask[8] == 0xFF && g_bitmask[32] == 0xFFFFFFFF);

// One separator is missing after "Enable Alt Boot Device": from 94 on each
// number shows the next variable's text. Saved settings and tools refer to
// the texts by number, so the table stays as it always was.
constexpr const char* g_variableDescription[] = {
    "Adapter ID",
    "Adapter Version",
    "Firmare Version",
    "Enable Hard Loop ID",
    "Enable Fairness",
    "Enable Full Duplex",
    "Enable Fast Posting",
    "Enable Target Mode",
    "Disable Initiator Mode",
    "Enable ADISC",
    "Target Inquiry Data",
    "Enable PDBC Notify",
    "Non Participating LIP",
    "Descending Search Loop ID",
    "Acquire LoopID in LIPA",
    "Stop PortQ on Full Status",
    "Full Login After LIP",
    "Node Name Option",
    "Ext IFWCB Enable Bit",
    "Frame Payload Size",
    "Max IOCB Allocation",
    "Execution Throttle",
    "Retry Count",
    "Retry Delay",
    "Port Name 0",
    "Port Name 1",
    "Port Name 2",
    "Port Name 3",
    "Port Name 4",
    "Port Name 5",
    "Port Name 6",
    "Port Name 7",
    "Adapter Hard Loop ID",
    "Inquiry Data",
    "Login Timeout",
    "Node Name 0",
    "Node Name 1",
    "Node Name 2",
    "Node Name 3",
    "Node Name 4",
    "Node Name 5",
    "Node Name 6",
    "Node Name 7",
    "Timer Operation Mode",
    "Connection Mode",
    "Enable Non part on LIHA Failure",
    "Enable Class 2",
    "Enable Ack0",
    "Enable FC Tape",
    "Enable FC Confirm",
    "Enable Queueing",
    "No Logo On Link Down",
    "Response Accumulation Timer",
    "Interrupt Delay Timer",
    "Enable Read Xfr Rdy",
    "FCP Response Payload",
    "Receive Out of Order Data",
    "Data Rate",
    "Disable BIOS",
    "Disable LUNs",
    "Enable Selectable Boot",
    "Disable RISC Code Load",
    "Set Cache Line Size 1",
    "PCI Parity Disable",
    "Enable Extended Logging",
    "Enable 64bit Addressing",
    "Enable LIP reset",
    "Enable LIP full login",
    "Enable Target Reset",
    "Enable Database Storage",
    "Enable Cache Flush Read",
    "Enable Database Load",
    "Boot Node Name 0",
    "Boot Node Name 1",
    "Boot Node Name 2",
    "Boot Node Name 3",
    "Boot Node Name 4",
    "Boot Node Name 5",
    "Boot Node Name 6",
    "Boot Node Name 7",
    "Boot LUN Number",
    "Reset Delay",
    "Port Down Retry Count",
    "Maximum LUNs Per Target",
    "FCode Boot Port Name 0",
    "FCode Boot Port Name 1",
    "FCode Boot Port Name 2",
    "FCode Boot Port Name 3",
    "FCode Boot Port Name 4",
    "FCode Boot Port Name 5",
    "FCode Boot Port Name 6",
    "FCode Boot Port Name 7",
    "Selective Login",
    "Enable Alt Boot DeviceEnable Boot Order List",
    "Enable Selective Lun",
    "Enable Force World Wide Login",
    "Link Down Timeout",
    "Alternate1 Boot Port Name 0",
    "Alternate1 Boot Port Name 1",
    "Alternate1 Boot Port Name 2",
    "Alternate1 Boot Port Name 3",
    "Alternate1 Boot Port Name 4",
    "Alternate1 Boot Port Name 5",
    "Alternate1 Boot Port Name 6",
    "Alternate1 Boot Port Name 7",
    "Alternate1 Boot LUN Number",
    "Alternate2 Boot Port Name 0",
    "Alternate2 Boot Port Name 1",
    "Alternate2 Boot Port Name 2",
    "Alternate2 Boot Port Name 3",
    "Alternate2 Boot Port Name 4",
    "Alternate2 Boot Port Name 5",
    "Alternate2 Boot Port Name 6",
    "Alternate2 Boot Port Name 7",
    "Alternate2 Boot LUN Number",
    "Alternate3 Boot Port Name 0",
    "Alternate3 Boot Port Name 1",
    "Alternate3 Boot Port Name 2",
    "Alternate3 Boot Port Name 3",
    "Alternate3 Boot Port Name 4",
    "Alternate3 Boot Port Name 5",
    "Alternate3 Boot Port Name 6",
    "Alternate3 Boot Port Name 7",
    "Alternate3 Boot LUN Number",
    "Subsystem Vendor ID 0",
    "Subsystem Device ID 0",
    "Subsystem Vendor ID 1",
    "Subsystem Device ID 1",
    "Checksum",
};
static_assert(std::size(g_variableDescription) == 129);

// Adapter classes 0-9 (the value of NVRAMVarSubSystemDeviceID1, capped).
constexpr uint32_t g_deviceIDWithReadOnlyBitMask[10] = {0, 0x1, 0x10, 0, 0, 0, 0, 0, 0, 0x100};
constexpr uint32_t g_deviceIDWithVisibleBitMask[10] = {0, 0x2, 0x20, 0, 0, 0, 0, 0, 0, 0x200};
constexpr uint32_t MAX_CLASS = 9;

uint32_t le16(const uint8_t* p) { return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8; }
uint32_t le32(const uint8_t* p) { return le16(p) | le16(p + 2) << 16; }
void put_le16(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}
void put_le32(uint8_t* p, uint32_t v) {
    put_le16(p, v);
    put_le16(p + 2, v >> 16);
}

// The identifier is written most significant byte first and stops after its
// first zero byte, as a string copy would; it never goes past its 4 bytes.
void put_id(uint8_t* image, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        image[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
        if (image[i] == 0)
            break;
    }
}

void trace_value(const char* name, const char* text, uint64_t number) {
    if (vxdbg_on(SD_TRACE)) {
        vxdbg_print(name, 0, VXDBG_NONE, 0);
        vxdbg_print(text, number, VXDBG_HEX, 1);
    }
}

bool bad_args(const char* name, const void* image, uint32_t number) {
    if (image && number < NVRAMVarEnd)
        return false;
    if (vxdbg_on(SD_ERROR)) {
        vxdbg_print(name, 0, VXDBG_NONE, 0);
        vxdbg_print(image ? ": invalid variable number " : ": null image. variable=", number, VXDBG_DEC, 1);
    }
    return true;
}

uint32_t get_word_layout(const uint8_t* image, uint32_t number) {
    if (number == NVRAMVarId)
        return le32(image);
    const nvr_variable& v = g_variables[number];
    return le16(image + 2 * v.word) >> v.start_bit & g_bitmask[v.bits];
}

uint32_t get_swift_layout(const uint8_t* image, uint32_t number) {
    const nvr_variable& v = g_variables[number];
    if (v.swift_offset == NOT_IN_SWIFT)
        return 0;
    if (number == NVRAMVarId) {
        uint32_t raw;
        memcpy(&raw, image, sizeof raw);
        return raw;
    }
    return le32(image + v.swift_offset) >> v.swift_start_bit & g_bitmask[v.swift_bits];
}

void set_word_layout(uint8_t* image, uint32_t number, uint32_t value) {
    if (get_word_layout(image, number) == value)
        return;
    if (number == NVRAMVarId) {
        put_id(image, value);
        return;
    }
    const nvr_variable& v = g_variables[number];
    uint8_t* at = image + 2 * v.word;
    const uint32_t mask = (g_bitmask[v.bits] & 0xFFFF) << v.start_bit;
    const uint32_t word = (le16(at) & ~mask) | (value & g_bitmask[v.bits]) << v.start_bit;
    put_le16(at, word & 0xFFFF);
}

void set_swift_layout(uint8_t* image, uint32_t number, uint32_t value) {
    const nvr_variable& v = g_variables[number];
    if (v.swift_offset == NOT_IN_SWIFT || get_swift_layout(image, number) == value)
        return;
    if (number == NVRAMVarId) {
        put_id(image, value);
        return;
    }
    uint8_t* at = image + v.swift_offset;
    const uint32_t mask = g_bitmask[v.swift_bits] << v.swift_start_bit;
    put_le32(at, (le32(at) & ~mask) | ((value & g_bitmask[v.swift_bits]) << v.swift_start_bit & mask));
}

// Read-only and visible are read from the 256-byte view whatever the layout.
uint32_t class_flag(const char* name, const uint8_t* image, uint32_t number, const uint32_t (&masks)[10]) {
    if (bad_args(name, image, number))
        return SDM_STATUS_INVALID_PARAMETER;
    const uint32_t cls = std::min(get_word_layout(image, NVRAMVarSubSystemDeviceID1), MAX_CLASS);
    const uint32_t ret =
        (g_variables[number].setting_bits & masks[cls]) ? SDM_STATUS_SUCCESS : SDM_STATUS_UNKNOWN_ERROR;
    trace_value(name, ": exiting. ret=", ret);
    return ret;
}

bool swift_layout(const vxapi_priv_database* inst) {
    return inst->phy_info && vxapi_nvram_is_swift(inst->phy_info->device_id);
}

// Both SD calls trace a bad handle under the getter's name.
const vxapi_priv_database* resolve_nvram_handle(int Device) {
    const vxapi_priv_database* inst = check_handle(static_cast<uint32_t>(Device));
    if (!inst)
        vxdbg_num(SD_ERROR, "SDGetVariableValue: check_handle failed. handle=", static_cast<uint32_t>(Device),
                  VXDBG_DEC, 1);
    return inst;
}

}  // namespace

extern "C" VXSD_API SD_UINT32 VXSDNVR_GetVariableValue(const SD_UINT8* pNVRamStruct, SD_UINT32 parmNumber) {
    trace_value("VXSDNVR_GetVariableValue", ": entered. parm=", parmNumber);
    if (bad_args("VXSDNVR_GetVariableValue", pNVRamStruct, parmNumber))
        return 0;
    const uint32_t value = get_word_layout(pNVRamStruct, parmNumber);
    trace_value("VXSDNVR_GetVariableValue", ": exiting. value=", value);
    return value;
}

extern "C" VXSD_API SD_UINT32 VXSDNVR_SetVariableValue(SD_UINT8* pNVRamStruct, SD_UINT32 parmNumber,
                                                       SD_UINT32 dwSetValue) {
    trace_value("VXSDNVR_SetVariableValue", ": entered. parm=", parmNumber);
    if (bad_args("VXSDNVR_SetVariableValue", pNVRamStruct, parmNumber))
        return SDM_STATUS_INVALID_PARAMETER;
    set_word_layout(pNVRamStruct, parmNumber, dwSetValue);
    trace_value("VXSDNVR_SetVariableValue", ": exiting. value=", dwSetValue);
    return SDM_STATUS_SUCCESS;
}

extern "C" VXSD_API SD_UINT32 VXSDNVR_GetVariableValue_swift(const nvram_swift* nvram, SD_UINT32 nvar) {
    trace_value("VXSDNVR_GetVariableValue_swift", ": entered. parm=", nvar);
    if (bad_args("VXSDNVR_GetVariableValue_swift", nvram, nvar))
        return 0;
    const uint32_t value = get_swift_layout(reinterpret_cast<const uint8_t*>(nvram), nvar);
    trace_value("VXSDNVR_GetVariableValue_swift", ": exiting. value=", value);
    return value;
}

extern "C" VXSD_API SD_UINT32 VXSDNVR_SetVariableValue_swift(nvram_swift* nvram, SD_UINT32 nvar, SD_UINT32 setto) {
    trace_value("VXSDNVR_SetVariableValue_swift", ": entered. parm=", nvar);
    if (bad_args("VXSDNVR_SetVariableValue_swift", nvram, nvar))
        return SDM_STATUS_INVALID_PARAMETER;
    set_swift_layout(reinterpret_cast<uint8_t*>(nvram), nvar, setto);
    trace_value("VXSDNVR_SetVariableValue_swift", ": exiting. value=", setto);
    return SDM_STATUS_SUCCESS;
}

extern "C" VXSD_API const char* VXSDNVR_GetVariableDescription(const SD_UINT8* /*pNVRamStruct*/,
                                                               SD_UINT32 parmNumber) {
    trace_value("VXSDNVR_GetVariableDescription", ": entered. parm=", parmNumber);
    if (parmNumber >= std::size(g_variableDescription)) {
        vxdbg_num(SD_ERROR, "VXSDNVR_GetVariableDescription: no text for variable ", parmNumber, VXDBG_DEC, 1);
        return nullptr;
    }
    return g_variableDescription[parmNumber];
}

extern "C" VXSD_API SD_UINT32 VXSDNVR_IsVariableReadOnly(const SD_UINT8* pNVRamStruct, SD_UINT32 parmNumber) {
    trace_value("VXSDNVR_IsVariableReadOnly", ": entered. parm=", parmNumber);
    return class_flag("VXSDNVR_IsVariableReadOnly", pNVRamStruct, parmNumber, g_deviceIDWithReadOnlyBitMask);
}

extern "C" VXSD_API SD_UINT32 VXSDNVR_IsVariableVisible(const SD_UINT8* pNVRamStruct, SD_UINT32 parmNumber) {
    trace_value("VXSDNVR_IsVariableVisible", ": entered. parm=", parmNumber);
    return class_flag("VXSDNVR_IsVariableVisible", pNVRamStruct, parmNumber, g_deviceIDWithVisibleBitMask);
}

extern "C" VXSD_API SD_UINT32 SDGetVariableValue(int Device, const SD_UINT8* pNVRam, SD_UINT32 parmNumber) {
    trace_value("SDGetVariableValue", ": entered. parm=", parmNumber);
    const vxapi_priv_database* inst = resolve_nvram_handle(Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;  // indistinguishable from a value of 0x20000065, as callers know
    if (!pNVRam) {
        vxdbg_line(SD_ERROR, "SDGetVariableValue: null image.");
        return SDM_STATUS_INVALID_PARAMETER;
    }
    if (!swift_layout(inst))
        return VXSDNVR_GetVariableValue(pNVRam, parmNumber);
    const auto* swift = static_cast<const nvram_swift*>(static_cast<const void*>(pNVRam));
    return VXSDNVR_GetVariableValue_swift(swift, parmNumber);
}

extern "C" VXSD_API SD_UINT32 SDSetVariableValue(int Device, SD_UINT8* pNVRam, SD_UINT32 parmNumber,
                                                 SD_UINT32 dwSetValue) {
    trace_value("SDSetVariableValue", ": entered. parm=", parmNumber);
    const vxapi_priv_database* inst = resolve_nvram_handle(Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!pNVRam) {
        vxdbg_line(SD_ERROR, "SDSetVariableValue: null image.");
        return SDM_STATUS_INVALID_PARAMETER;
    }
    auto* swift = static_cast<nvram_swift*>(static_cast<void*>(pNVRam));
    const uint32_t ret = swift_layout(inst) ? VXSDNVR_SetVariableValue_swift(swift, parmNumber, dwSetValue)
                                            : VXSDNVR_SetVariableValue(pNVRam, parmNumber, dwSetValue);
    trace_value("SDSetVariableValue", ": exiting. ret=", ret);
    return ret;
}
