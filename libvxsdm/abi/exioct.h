// Extended-ioctl records: the requests and answers that cross the kernel
// boundary to the driver. Native byte order, natural alignment unless noted;
// every size and offset is pinned below, since the driver reads them raw.
#pragma once

#include <cstddef>
#include <cstdint>

// ---- Request records (two generations) ----

inline constexpr char EXT_SIGNATURE[8] = {'V', 'A', 'R', 'N', 'E', 'X', '\0', '\0'};
inline constexpr uint16_t EXT_ADDR_MODE = 1;
inline constexpr uint16_t EXT_VERSION = 7;
inline constexpr uint16_t EXT_VERSION_O = 5;
inline constexpr uint64_t EXT_VENDOR_SPECIFIC_DATA = 2;

// Newer generation: 64-bit addresses at 4-byte offsets, no padding.
#pragma pack(push, 4)
struct EXT_IOCTL {
    uint64_t Signature;  // 8 bytes of text: EXT_SIGNATURE
    uint16_t AddrMode;
    uint16_t Version;
    uint16_t SubCode;
    uint16_t Instance;   // on return of EXT_CC_GET_HBA_CNT: the number of adapters
    uint32_t Status;
    uint32_t DetailStatus;
    uint32_t Reserved1;
    uint32_t RequestLen;
    uint32_t ResponseLen;
    uint64_t RequestAdr;
    uint64_t ResponseAdr;
    uint16_t HbaSelect;  // on return of EXT_CC_SET_INSTANCE: the SCSI host number
    uint16_t VendorSpecificStatus[11];
    uint64_t VendorSpecificData;
    uint16_t Reserved2[16];
};
#pragma pack(pop)
static_assert(sizeof(EXT_IOCTL) == 116);
static_assert(offsetof(EXT_IOCTL, AddrMode) == 8);
static_assert(offsetof(EXT_IOCTL, Version) == 10);
static_assert(offsetof(EXT_IOCTL, SubCode) == 12);
static_assert(offsetof(EXT_IOCTL, Instance) == 14);
static_assert(offsetof(EXT_IOCTL, Status) == 16);
static_assert(offsetof(EXT_IOCTL, DetailStatus) == 20);
static_assert(offsetof(EXT_IOCTL, Reserved1) == 24);
static_assert(offsetof(EXT_IOCTL, RequestLen) == 28);
static_assert(offsetof(EXT_IOCTL, ResponseLen) == 32);
static_assert(offsetof(EXT_IOCTL, RequestAdr) == 36);
static_assert(offsetof(EXT_IOCTL, ResponseAdr) == 44);
static_assert(offsetof(EXT_IOCTL, HbaSelect) == 52);
static_assert(offsetof(EXT_IOCTL, VendorSpecificStatus) == 54);
static_assert(offsetof(EXT_IOCTL, VendorSpecificData) == 76);
static_assert(offsetof(EXT_IOCTL, Reserved2) == 84);

// Older generation: 32-bit addresses.
struct EXT_IOCTL_O {
    char Signature[4];   // "VARN", not terminated
    uint16_t AddrMode;
    uint16_t Version;
    uint16_t SubCode;
    uint16_t Instance;
    uint32_t Status;
    uint32_t DetailStatus;
    uint32_t Reserved1;
    uint32_t RequestLen;
    uint32_t ResponseLen;
    uint32_t RequestAdr;
    uint32_t ResponseAdr;
    uint16_t HbaSelect;
    uint16_t VendorSpecificStatus[11];
    uint32_t VendorSpecificData;
};
static_assert(sizeof(EXT_IOCTL_O) == 68);
static_assert(offsetof(EXT_IOCTL_O, AddrMode) == 4);
static_assert(offsetof(EXT_IOCTL_O, Version) == 6);
static_assert(offsetof(EXT_IOCTL_O, SubCode) == 8);
static_assert(offsetof(EXT_IOCTL_O, Instance) == 10);
static_assert(offsetof(EXT_IOCTL_O, Status) == 12);
static_assert(offsetof(EXT_IOCTL_O, DetailStatus) == 16);
static_assert(offsetof(EXT_IOCTL_O, Reserved1) == 20);
static_assert(offsetof(EXT_IOCTL_O, RequestLen) == 24);
static_assert(offsetof(EXT_IOCTL_O, ResponseLen) == 28);
static_assert(offsetof(EXT_IOCTL_O, RequestAdr) == 32);
static_assert(offsetof(EXT_IOCTL_O, ResponseAdr) == 36);
static_assert(offsetof(EXT_IOCTL_O, HbaSelect) == 40);
static_assert(offsetof(EXT_IOCTL_O, VendorSpecificStatus) == 42);
static_assert(offsetof(EXT_IOCTL_O, VendorSpecificData) == 64);

// ---- Command numbers ----
// Read-write ioctls of type 0x79 whose size field is sizeof(EXT_IOCTL);
// older drivers register the same numbers with a 4-byte size field.
inline constexpr uint32_t EXT_IOCTL_TYPE = 0x79;
inline constexpr uint32_t EXT_IOCTL_BASE = 0xC0000000u | (sizeof(EXT_IOCTL) << 16) | (EXT_IOCTL_TYPE << 8);
inline constexpr uint32_t EXT_IOCTL_BASE_O = 0xC0040000u | (EXT_IOCTL_TYPE << 8);
static_assert(EXT_IOCTL_BASE == 0xC0747900u);
static_assert(EXT_IOCTL_BASE_O == 0xC0047900u);

constexpr uint32_t ext_ioctl_number(uint8_t command) { return EXT_IOCTL_BASE | command; }

enum : uint8_t {
    EXT_CC_QUERY = 0x00,
    EXT_CC_SEND_CT_PASSTHRU = 0x01,
    EXT_CC_REG_AEN = 0x02,
    EXT_CC_GET_AEN = 0x03,
    EXT_CC_SEND_RNID = 0x04,
    EXT_CC_SEND_SCSI_PASSTHRU = 0x05,
    EXT_CC_GET_DATA = 0x06,
    EXT_CC_SET_DATA = 0x07,
    EXT_CC_LOOPBACK = 0x09,
    EXT_CC_UPDATE_OPTROM = 0x0A,
    EXT_CC_GET_NVRAM = 0x0C,
    EXT_CC_SET_NVRAM = 0x0D,
    EXT_CC_READ_OPTROM = 0x0F,
    EXT_CC_GET_OPTROM_LAYOUT = 0x10,
    EXT_CC_GET_VPD = 0x11,
    EXT_CC_SET_VPD = 0x12,
    EXT_CC_GET_SFP_DATA = 0x13,
    EXT_CC_GET_FW_DUMP = 0x14,
    EXT_CC_PORT_PARAM = 0x15,
    EXT_CC_VPORT_CMD = 0x16,
    EXT_CC_SORREL_MANAGE = 0x17,
    EXT_CC_ACTIVATE_REGION = 0x18,
    EXT_CC_QOS_CMD = 0x19,
    EXT_CC_DIAG_MODE = 0x1A,
    EXT_CC_GET_BOARD_TEMP = 0x1B,
    EXT_CC_FRU_CMD = 0x1C,
    EXT_CC_READ_SERDES = 0x1D,
    EXT_CC_NPIV_QOS_CMD = 0x1E,
    EXT_CC_NPIV_QOS_LIST = 0x1F,
    EXT_CC_I2C_CMD = 0x20,
    EXT_CC_GET_FCE_BUFFER = 0x22,
    EXT_CC_SERDES_REG = 0x23,
    EXT_CC_SERDES_REG_EX = 0x24,
    EXT_CC_GET_QOS = 0x25,
    EXT_CC_FLASH_UPDATE_CAPS = 0x26,
    EXT_CC_SEND_ELS_PASSTHRU = 0x30,
    EXT_CC_GET_LUN_DATA = 0xCE,
    EXT_CC_DRIVER_SPECIFICS = 0xFC,
    EXT_CC_WWPN_TO_SCSIADDR = 0xFD,
    EXT_CC_SET_INSTANCE = 0xFE,
    EXT_CC_GET_HBA_CNT = 0xFF,
};

// Sub-codes of EXT_CC_QUERY.
enum : uint16_t {
    EXT_SC_QUERY_HBA_NODE = 1,
    EXT_SC_QUERY_HBA_PORT = 2,
    EXT_SC_QUERY_DISC_PORT = 3,
    EXT_SC_QUERY_DISC_TGT = 4,
    EXT_SC_QUERY_DRIVER = 6,
    EXT_SC_QUERY_FW = 7,
    EXT_SC_QUERY_CHIP = 8,
    EXT_SC_QUERY_CNA_PORT = 9,
    EXT_SC_QUERY_ADAPTER_VERSIONS = 10,  // EXT_ADAPTER_VERSIONS: running processor firmware
};

// Sub-codes of EXT_CC_SEND_SCSI_PASSTHRU: the record names the LUN by
// bus/target/LUN (EXT_SCSI_PASSTHRU) or by an FC address (EXT_FC_SCSI_PASSTHRU).
enum : uint16_t {
    EXT_SC_SEND_SCSI_PASSTHRU = 0,
    EXT_SC_SEND_FC_SCSI_PASSTHRU = 1,
};

// EXT_CC_SEND_CT_PASSTHRU and EXT_CC_SEND_ELS_PASSTHRU have one form each.
inline constexpr uint16_t EXT_SC_SEND_CT_PASSTHRU = 0;
inline constexpr uint16_t EXT_SC_SEND_ELS_PASSTHRU = 0;

// Sub-codes of EXT_CC_GET_DATA used so far.
enum : uint16_t {
    EXT_SC_GET_STATISTICS = 3,        // the port's own counters
    EXT_SC_GET_TGT_LUN_DATA_LIST = 10,
    EXT_SC_GET_PORT_SUMMARY = 106,
    EXT_SC_GET_DCBX_PARAM = 109,
    EXT_SC_GET_ACTIVE_IMAGE = 110,  // uint32_t: the image set the adapter runs (0 primary, 1 secondary)
    EXT_SC_GET_FC_STATISTICS = 112,   // a remote port's counters, named by EXT_DEST_ADDR
};

// ---- Flash requests ----
// EXT_CC_READ_OPTROM / EXT_CC_UPDATE_OPTROM: the sub-code is the region
// (EXT_SC_OPTROM_RAW: a raw byte range), Reserved1 the flash offset, the
// response (read) or request (update) buffer the bytes. Region 0 is the
// whole flash on every family.
inline constexpr uint16_t EXT_SC_OPTROM_RAW = 0xFFFF;
// EXT_CC_ACTIVATE_REGION: the sub-code is the reset code, no buffers.
// EXT_CC_FLASH_UPDATE_CAPS: sub-code 0 reads, 1 sets; the 32-byte record
// goes out in the request and comes back in the response buffer.
enum : uint16_t {
    EXT_SC_FLASH_CAPS_GET = 0,
    EXT_SC_FLASH_CAPS_SET = 1,
};
inline constexpr uint32_t EXT_FLASH_CAPS_LEN = 32;
// The capabilities record. A read answers the running firmware's
// attributes and the port's outage during an online activation; a set
// hands the driver the attributes of the firmware written to flash and is
// answered with status 0 when that firmware can be started online, or a
// nonzero status (6, invalid parameter) when it cannot.
struct EXT_FLASH_UPDATE_CAPS {
    uint64_t Capabilities;    // firmware attributes (EXT_FW_ATTR_ bits)
    uint32_t OutageDuration;  // seconds the port is offline while new firmware starts
    uint8_t Reserved[20];
};
static_assert(sizeof(EXT_FLASH_UPDATE_CAPS) == EXT_FLASH_CAPS_LEN);
static_assert(offsetof(EXT_FLASH_UPDATE_CAPS, OutageDuration) == 8);
static_assert(offsetof(EXT_FLASH_UPDATE_CAPS, Reserved) == 12);
// Firmware attribute bits: the firmware starts online (without a reset of
// the board), it takes flash writes while the port runs; the high word is
// the firmware's interface generation, which an online start must keep.
inline constexpr uint64_t EXT_FW_ATTR_ONLINE_ACTIVATE = 0x1;
inline constexpr uint64_t EXT_FW_ATTR_ONLINE_UPDATE = 0x2;
inline constexpr uint64_t EXT_FW_ATTR_GENERATION_MASK = 0xFFFFFFFF00000000ull;

// Sub-codes of EXT_CC_SET_DATA used so far: the statistics sub-code of
// get-data clears the counters it reads.
enum : uint16_t {
    EXT_SC_RESET_STATISTICS = 3,
};

// EXT_CC_REG_AEN and EXT_CC_GET_AEN have one form each.
inline constexpr uint16_t EXT_SC_REG_AEN = 0;
inline constexpr uint16_t EXT_SC_GET_AEN = 0;

// ---- Driver status codes (the Status field; translated by SDXlateSDMErr) ----
enum : uint32_t {
    EXT_STATUS_OK = 0,
    EXT_STATUS_ERR = 1,
    EXT_STATUS_BUSY = 2,
    EXT_STATUS_PENDING = 3,
    EXT_STATUS_SUSPENDED = 4,
    EXT_STATUS_RETRY_PENDING = 5,
    EXT_STATUS_INVALID_PARAM = 6,
    EXT_STATUS_DATA_OVERRUN = 7,
    EXT_STATUS_DATA_UNDERRUN = 8,
    EXT_STATUS_DEV_NOT_FOUND = 9,
    EXT_STATUS_COPY_ERR = 10,
    EXT_STATUS_MAILBOX = 11,
    EXT_STATUS_UNSUPPORTED_SUBCODE = 12,
    EXT_STATUS_UNSUPPORTED_VERSION = 13,
    EXT_STATUS_MS_NO_RESPONSE = 14,
    EXT_STATUS_SCSI_STATUS = 15,
    EXT_STATUS_BUFFER_TOO_SMALL = 16,
    EXT_STATUS_NO_MEMORY = 17,
    EXT_STATUS_UNKNOWN = 18,
    EXT_STATUS_UNKNOWN_DSTATUS = 19,
    EXT_STATUS_INVALID_REQUEST = 20,
};

// ---- Query answers ----

struct EXT_HBA_NODE {
    uint8_t WWNN[8];
    uint8_t Manufacturer[128];
    uint8_t Model[128];
    uint8_t SerialNum[4];
    uint8_t DriverVersion[128];
    uint8_t FWVersion[128];
    uint8_t OptRomVersion[128];
    uint16_t PortCount;
    uint16_t InterfaceType;
    uint32_t DriverAttr;
    uint32_t FWAttr;
    uint32_t BIValid;
    uint8_t BIFwVersion[4];
    uint8_t BIEfiVersion[4];
    uint8_t BIFCodeVersion[4];
    uint8_t BIMpiFwVersion[4];
    uint8_t BIPepFwVersion[4];
    uint32_t Reserved[2];
};
static_assert(sizeof(EXT_HBA_NODE) == 696);
static_assert(offsetof(EXT_HBA_NODE, Manufacturer) == 8);
static_assert(offsetof(EXT_HBA_NODE, Model) == 136);
static_assert(offsetof(EXT_HBA_NODE, SerialNum) == 264);
static_assert(offsetof(EXT_HBA_NODE, DriverVersion) == 268);
static_assert(offsetof(EXT_HBA_NODE, FWVersion) == 396);
static_assert(offsetof(EXT_HBA_NODE, OptRomVersion) == 524);
static_assert(offsetof(EXT_HBA_NODE, PortCount) == 652);
static_assert(offsetof(EXT_HBA_NODE, InterfaceType) == 654);
static_assert(offsetof(EXT_HBA_NODE, DriverAttr) == 656);
static_assert(offsetof(EXT_HBA_NODE, FWAttr) == 660);
static_assert(offsetof(EXT_HBA_NODE, BIValid) == 664);
static_assert(offsetof(EXT_HBA_NODE, BIFwVersion) == 668);
static_assert(offsetof(EXT_HBA_NODE, BIEfiVersion) == 672);
static_assert(offsetof(EXT_HBA_NODE, BIFCodeVersion) == 676);
static_assert(offsetof(EXT_HBA_NODE, BIMpiFwVersion) == 680);
static_assert(offsetof(EXT_HBA_NODE, BIPepFwVersion) == 684);
static_assert(offsetof(EXT_HBA_NODE, Reserved) == 688);

struct EXT_HBA_PORT {
    uint8_t WWPN[8];
    uint8_t Id[4];  // byte 0 unused, bytes 1-3 the FC address, most significant first
    uint16_t Type;
    uint16_t State;
    uint16_t Mode;
    uint16_t DiscPortCount;
    uint16_t DiscPortNameType;
    uint16_t DiscTargetCount;
    uint16_t Bus;
    uint16_t Target;
    uint16_t Lun;
    uint8_t PortSupportedFC4Types;
    uint8_t PortActiveFC4Types;
    uint8_t FabricName[8];
    uint8_t PortSupportedSpeed;
    uint8_t PortSpeed;
    uint16_t LinkState2;
    uint16_t LinkState3;
    uint16_t Topology;
    uint32_t OSDeviceName;
    uint16_t LinkState1;
    uint16_t LinkState6;
};
static_assert(sizeof(EXT_HBA_PORT) == 56);
static_assert(offsetof(EXT_HBA_PORT, Id) == 8);
static_assert(offsetof(EXT_HBA_PORT, Type) == 12);
static_assert(offsetof(EXT_HBA_PORT, State) == 14);
static_assert(offsetof(EXT_HBA_PORT, Mode) == 16);
static_assert(offsetof(EXT_HBA_PORT, DiscPortCount) == 18);
static_assert(offsetof(EXT_HBA_PORT, DiscPortNameType) == 20);
static_assert(offsetof(EXT_HBA_PORT, DiscTargetCount) == 22);
static_assert(offsetof(EXT_HBA_PORT, Bus) == 24);
static_assert(offsetof(EXT_HBA_PORT, Target) == 26);
static_assert(offsetof(EXT_HBA_PORT, Lun) == 28);
static_assert(offsetof(EXT_HBA_PORT, PortSupportedFC4Types) == 30);
static_assert(offsetof(EXT_HBA_PORT, PortActiveFC4Types) == 31);
static_assert(offsetof(EXT_HBA_PORT, FabricName) == 32);
static_assert(offsetof(EXT_HBA_PORT, PortSupportedSpeed) == 40);
static_assert(offsetof(EXT_HBA_PORT, PortSpeed) == 41);
static_assert(offsetof(EXT_HBA_PORT, LinkState2) == 42);
static_assert(offsetof(EXT_HBA_PORT, LinkState3) == 44);
static_assert(offsetof(EXT_HBA_PORT, Topology) == 46);
static_assert(offsetof(EXT_HBA_PORT, OSDeviceName) == 48);
static_assert(offsetof(EXT_HBA_PORT, LinkState1) == 52);
static_assert(offsetof(EXT_HBA_PORT, LinkState6) == 54);

struct EXT_CHIP {
    uint16_t VendorId;
    uint16_t DeviceId;
    uint16_t SubVendorId;
    uint16_t SubSystemId;
    uint16_t PciBusNumber;
    uint16_t PciSlotNumber;
    uint32_t IoAddr;
    uint32_t IoAddrLen;
    uint32_t MemAddr;
    uint32_t MemAddrLen;
    uint16_t ChipType;
    uint16_t InterruptLevel;
    uint16_t OutMbx[8];
    uint16_t PciDevFunc;
    uint16_t DomainNr;
    uint32_t PcieLinkCap;
    uint16_t PcieLinkStat;
    uint32_t FlashBlockSize;
    uint16_t Reserved[9];
};
static_assert(sizeof(EXT_CHIP) == 84);
static_assert(offsetof(EXT_CHIP, PciSlotNumber) == 10);
static_assert(offsetof(EXT_CHIP, IoAddr) == 12);
static_assert(offsetof(EXT_CHIP, MemAddrLen) == 24);
static_assert(offsetof(EXT_CHIP, ChipType) == 28);
static_assert(offsetof(EXT_CHIP, InterruptLevel) == 30);
static_assert(offsetof(EXT_CHIP, OutMbx) == 32);
static_assert(offsetof(EXT_CHIP, PciDevFunc) == 48);
static_assert(offsetof(EXT_CHIP, DomainNr) == 50);
static_assert(offsetof(EXT_CHIP, PcieLinkCap) == 52);
static_assert(offsetof(EXT_CHIP, PcieLinkStat) == 56);
static_assert(offsetof(EXT_CHIP, FlashBlockSize) == 60);
static_assert(offsetof(EXT_CHIP, Reserved) == 64);

struct EXT_DRIVER {
    uint8_t Version[128];
    uint16_t NumOfBus;
    uint16_t TargetsPerBus;
    uint16_t LunsPerTarget;
    uint32_t MaxTransferLen;
    uint32_t MaxDataSegments;
    uint16_t DmaBitAddresses;
    uint16_t IoMapType;
    uint32_t Attrib;
    uint32_t InternalFlags[4];
    uint32_t Reserved[8];
};
using _EXT_DRIVER = EXT_DRIVER;
static_assert(sizeof(EXT_DRIVER) == 200);
static_assert(offsetof(EXT_DRIVER, NumOfBus) == 128);
static_assert(offsetof(EXT_DRIVER, LunsPerTarget) == 132);
static_assert(offsetof(EXT_DRIVER, MaxTransferLen) == 136);
static_assert(offsetof(EXT_DRIVER, MaxDataSegments) == 140);
static_assert(offsetof(EXT_DRIVER, DmaBitAddresses) == 144);
static_assert(offsetof(EXT_DRIVER, IoMapType) == 146);
static_assert(offsetof(EXT_DRIVER, Attrib) == 148);
static_assert(offsetof(EXT_DRIVER, InternalFlags) == 152);
static_assert(offsetof(EXT_DRIVER, Reserved) == 168);

struct EXT_FW {
    uint8_t Version[128];  // bytes 0-2: running firmware major, minor, subminor in binary
    uint32_t Attrib;
    uint16_t Reserved[33];
};
using _EXT_FW = EXT_FW;
static_assert(sizeof(EXT_FW) == 200);
static_assert(offsetof(EXT_FW, Attrib) == 128);
static_assert(offsetof(EXT_FW, Reserved) == 132);

struct EXT_CNA_PORT {
    uint16_t VLanId;
    uint8_t VNPortMACAddress[6];
    uint16_t FabricParam;
    uint16_t Reserved0;
    uint32_t Reserved[29];
};
static_assert(sizeof(EXT_CNA_PORT) == 128);
static_assert(offsetof(EXT_CNA_PORT, VNPortMACAddress) == 2);
static_assert(offsetof(EXT_CNA_PORT, FabricParam) == 8);
static_assert(offsetof(EXT_CNA_PORT, Reserved) == 12);

// Answer of get-data sub-code EXT_SC_GET_DCBX_PARAM (converged ports): the
// DCBX state of the port's Ethernet link, followed by the peer's TLVs as
// received (TlvLength bytes), cut at the end of the response buffer.
struct EXT_DCBX_PARAM {
    uint16_t Version;           // EXT_DCBX_VERSION
    uint16_t TlvLength;         // bytes of peer TLVs after this record
    uint8_t OperState;          // 1: negotiated with the peer
    uint8_t Willing;            // 1: the port takes the peer's configuration
    uint8_t FcoePriority;       // 802.1p priority of FCoE frames
    uint8_t PfcEnable;          // priorities with flow control, bit n = priority n
    uint8_t PriorityGroup[8];   // group of each priority
    uint8_t GroupBandwidth[8];  // percent of the link per group
    uint8_t PeerMac[6];
    uint16_t Reserved0;
    uint32_t Reserved[8];
};
inline constexpr uint16_t EXT_DCBX_VERSION = 1;
static_assert(sizeof(EXT_DCBX_PARAM) == 64);
static_assert(offsetof(EXT_DCBX_PARAM, OperState) == 4);
static_assert(offsetof(EXT_DCBX_PARAM, PriorityGroup) == 8);
static_assert(offsetof(EXT_DCBX_PARAM, GroupBandwidth) == 16);
static_assert(offsetof(EXT_DCBX_PARAM, PeerMac) == 24);
static_assert(offsetof(EXT_DCBX_PARAM, Reserved) == 32);

// Answer of query sub-code EXT_SC_QUERY_ADAPTER_VERSIONS: the firmware the
// adapter's own processors run, major/minor/subminor each (zeros: none).
// The EDC slot carries the PEP processor on the boards that have one.
struct EXT_ADAPTER_VERSIONS {
    uint8_t MpiVersion[4];
    uint8_t EdcVersion[4];
    uint32_t Reserved[6];
};
static_assert(sizeof(EXT_ADAPTER_VERSIONS) == 32);
static_assert(offsetof(EXT_ADAPTER_VERSIONS, EdcVersion) == 4);

// ---- Discovered ports, targets, LUNs ----

// Port types of EXT_HBA_PORT, EXT_DISC_PORT and the LUN list's DevType.
enum : uint16_t {
    EXT_DEF_INITIATOR_DEV = 1,  // the adapter's own port
    EXT_DEF_TARGET_DEV = 2,     // a remote port
};

// Bit of a LUN map byte (target/LUN lists): the LUN is present.
inline constexpr uint8_t EXT_DEF_LUN_PRESENT = 0x80;

struct EXT_DISC_PORT {
    uint8_t WWNN[8];
    uint8_t WWPN[8];
    uint8_t Id[4];
    uint16_t Type;
    uint16_t Status;
    uint16_t Bus;
    uint16_t TargetId;
    uint8_t Local;
    uint8_t ReservedByte[1];
    uint16_t LoopID;
    uint32_t Reserved[7];
};
static_assert(sizeof(EXT_DISC_PORT) == 60);
static_assert(offsetof(EXT_DISC_PORT, Id) == 16);
static_assert(offsetof(EXT_DISC_PORT, Type) == 20);
static_assert(offsetof(EXT_DISC_PORT, Status) == 22);
static_assert(offsetof(EXT_DISC_PORT, Bus) == 24);
static_assert(offsetof(EXT_DISC_PORT, TargetId) == 26);
static_assert(offsetof(EXT_DISC_PORT, Local) == 28);
static_assert(offsetof(EXT_DISC_PORT, LoopID) == 30);
static_assert(offsetof(EXT_DISC_PORT, Reserved) == 32);

struct EXT_DISC_TARGET {
    uint8_t WWNN[8];
    uint8_t WWPN[8];
    uint8_t Id[4];
    uint16_t Type;
    uint16_t Status;
    uint16_t Bus;
    uint16_t TargetId;
    uint16_t LunCount;
    uint8_t Local;
    uint8_t ReservedByte[1];
    uint16_t LoopID;
    uint16_t Reserved[13];
};
static_assert(sizeof(EXT_DISC_TARGET) == 60);
static_assert(offsetof(EXT_DISC_TARGET, TargetId) == 26);
static_assert(offsetof(EXT_DISC_TARGET, LunCount) == 28);
static_assert(offsetof(EXT_DISC_TARGET, Local) == 30);
static_assert(offsetof(EXT_DISC_TARGET, LoopID) == 32);
static_assert(offsetof(EXT_DISC_TARGET, Reserved) == 34);

struct EXT_DISC_LUN {
    uint16_t Id;
    uint16_t State;
    uint16_t IoCount;
    uint16_t Reserved[15];
};
static_assert(sizeof(EXT_DISC_LUN) == 36);

struct EXT_SCSI_ADDR {
    uint16_t Bus;
    uint16_t Target;
    uint16_t Lun;
    uint16_t Padding[5];
};
static_assert(sizeof(EXT_SCSI_ADDR) == 16);
static_assert(offsetof(EXT_SCSI_ADDR, Lun) == 4);

struct EXT_DEVICEDATAENTRY {
    uint8_t NodeWWN[8];
    uint8_t PortWWN[8];
    uint8_t PortID[3];
    uint8_t ControlFlags;
    EXT_SCSI_ADDR TargetAddress;
    uint32_t DeviceFlags;
    uint16_t LoopID;
    uint16_t BaseLunNumber;
    uint32_t Reserved[32];
};
static_assert(sizeof(EXT_DEVICEDATAENTRY) == 172);
static_assert(offsetof(EXT_DEVICEDATAENTRY, PortID) == 16);
static_assert(offsetof(EXT_DEVICEDATAENTRY, ControlFlags) == 19);
static_assert(offsetof(EXT_DEVICEDATAENTRY, TargetAddress) == 20);
static_assert(offsetof(EXT_DEVICEDATAENTRY, DeviceFlags) == 36);
static_assert(offsetof(EXT_DEVICEDATAENTRY, LoopID) == 40);
static_assert(offsetof(EXT_DEVICEDATAENTRY, BaseLunNumber) == 42);
static_assert(offsetof(EXT_DEVICEDATAENTRY, Reserved) == 44);

// Header of the port summary; EntryList runs on for ReturnListEntryCount entries.
struct EXT_DEVICEDATA {
    uint32_t TotalDevices;
    uint32_t ReturnListEntryCount;
    EXT_DEVICEDATAENTRY EntryList[1];
};
inline constexpr size_t EXT_DEVICEDATA_HEADER = offsetof(EXT_DEVICEDATA, EntryList);
static_assert(EXT_DEVICEDATA_HEADER == 8);

// ---- Pass-through ----

inline constexpr size_t EXT_MAX_CDB_LEN = 16;
inline constexpr size_t EXT_MAX_SENSE_LEN = 256;

// Direction of a SCSI pass-through's data, seen from the host.
enum : uint8_t {
    EXT_DEF_SCSI_DIR_NONE = 0,
    EXT_DEF_SCSI_DIR_IN = 1,   // device to host: the response buffer receives the data
    EXT_DEF_SCSI_DIR_OUT = 2,  // host to device: the response buffer holds the data
};

// SCSI status bytes; a pass-through that ends in one other than GOOD comes
// back with driver status EXT_STATUS_SCSI_STATUS and the byte in the low
// byte of DetailStatus.
enum : uint8_t {
    EXT_SCSI_STATUS_GOOD = 0x00,
    EXT_SCSI_STATUS_CHECK_CONDITION = 0x02,
    EXT_SCSI_STATUS_CONDITION_MET = 0x04,
    EXT_SCSI_STATUS_BUSY = 0x08,
    EXT_SCSI_STATUS_INTERMEDIATE = 0x10,
    EXT_SCSI_STATUS_INTERMEDIATE_COND_MET = 0x14,
    EXT_SCSI_STATUS_RESERVATION_CONFLICT = 0x18,
    EXT_SCSI_STATUS_COMMAND_TERMINATED = 0x22,
    EXT_SCSI_STATUS_TASK_SET_FULL = 0x28,
};

// SCSI pass-through by bus/target/LUN. The driver writes SenseLength and
// SenseData back into the caller's record.
struct EXT_SCSI_PASSTHRU {
    EXT_SCSI_ADDR TargetAddr;
    uint8_t Direction;   // EXT_DEF_SCSI_DIR_
    uint8_t CdbLength;   // 1-16
    uint8_t Cdb[EXT_MAX_CDB_LEN];
    uint32_t Timeout;    // seconds; 0: the driver's default
    uint32_t Reserved[13];
    uint16_t Reserved2;
    uint16_t SenseLength;  // in: room in SenseData; out: sense bytes returned
    uint8_t SenseData[EXT_MAX_SENSE_LEN];
};
static_assert(sizeof(EXT_SCSI_PASSTHRU) == 352);
static_assert(offsetof(EXT_SCSI_PASSTHRU, Direction) == 16);
static_assert(offsetof(EXT_SCSI_PASSTHRU, CdbLength) == 17);
static_assert(offsetof(EXT_SCSI_PASSTHRU, Cdb) == 18);
static_assert(offsetof(EXT_SCSI_PASSTHRU, Timeout) == 36);
static_assert(offsetof(EXT_SCSI_PASSTHRU, Reserved) == 40);
static_assert(offsetof(EXT_SCSI_PASSTHRU, Reserved2) == 92);
static_assert(offsetof(EXT_SCSI_PASSTHRU, SenseLength) == 94);
static_assert(offsetof(EXT_SCSI_PASSTHRU, SenseData) == 96);

// What DestAddr holds, by DestType.
enum : uint16_t {
    EXT_DEF_DESTTYPE_WWNN = 1,
    EXT_DEF_DESTTYPE_WWPN = 2,
    EXT_DEF_DESTTYPE_PORTID = 3,  // Id: byte 0 unused, bytes 1-3 the FC address
};

struct EXT_DEST_ADDR {
    union {
        uint8_t WWNN[8];
        uint8_t WWPN[8];
        uint8_t Id[4];
    } DestAddr;
    uint16_t DestType;  // EXT_DEF_DESTTYPE_
    uint16_t Lun;
    uint16_t Padding[2];
};
static_assert(sizeof(EXT_DEST_ADDR) == 16);
static_assert(offsetof(EXT_DEST_ADDR, DestType) == 8);
static_assert(offsetof(EXT_DEST_ADDR, Lun) == 10);
static_assert(offsetof(EXT_DEST_ADDR, Padding) == 12);

// The same by FC address; identical from offset 16 on.
struct EXT_FC_SCSI_PASSTHRU {
    EXT_DEST_ADDR FCScsiAddr;
    uint8_t Direction;   // EXT_DEF_SCSI_DIR_
    uint8_t CdbLength;   // 1-16
    uint8_t Cdb[EXT_MAX_CDB_LEN];
    uint32_t Timeout;    // seconds; 0: the driver's default
    uint32_t Reserved[13];
    uint16_t Reserved2;
    uint16_t SenseLength;  // in: room in SenseData; out: sense bytes returned
    uint8_t SenseData[EXT_MAX_SENSE_LEN];
};
static_assert(sizeof(EXT_FC_SCSI_PASSTHRU) == 352);
static_assert(offsetof(EXT_FC_SCSI_PASSTHRU, Direction) == 16);
static_assert(offsetof(EXT_FC_SCSI_PASSTHRU, CdbLength) == 17);
static_assert(offsetof(EXT_FC_SCSI_PASSTHRU, Cdb) == 18);
static_assert(offsetof(EXT_FC_SCSI_PASSTHRU, Timeout) == 36);
static_assert(offsetof(EXT_FC_SCSI_PASSTHRU, Reserved) == 40);
static_assert(offsetof(EXT_FC_SCSI_PASSTHRU, Reserved2) == 92);
static_assert(offsetof(EXT_FC_SCSI_PASSTHRU, SenseLength) == 94);
static_assert(offsetof(EXT_FC_SCSI_PASSTHRU, SenseData) == 96);

// The 32-byte head of an ELS pass-through request: the destination port.
// The ELS frame's payload follows it, starting with the command byte; the
// extended-ioctl channel hands the driver head and payload together, the
// bsg channel sends the payload alone to the remote port's node.
struct EXT_ELS_PT_REQ {
    uint8_t WWNN[8];
    uint8_t WWPN[8];    // the destination
    uint8_t Id[4];      // its FC address: byte 0 unused, bytes 1-3
    uint16_t ValidMask; // EXT_DEF_ELS_VALID_: which of the three names it
    uint16_t Lid;       // loop id; not used
    uint16_t Rxid;
    uint16_t Flags;
    uint32_t Reserved;
};
static_assert(sizeof(EXT_ELS_PT_REQ) == 32);
static_assert(offsetof(EXT_ELS_PT_REQ, WWPN) == 8);
static_assert(offsetof(EXT_ELS_PT_REQ, Id) == 16);
static_assert(offsetof(EXT_ELS_PT_REQ, ValidMask) == 20);
static_assert(offsetof(EXT_ELS_PT_REQ, Lid) == 22);
static_assert(offsetof(EXT_ELS_PT_REQ, Rxid) == 24);
static_assert(offsetof(EXT_ELS_PT_REQ, Flags) == 26);
static_assert(offsetof(EXT_ELS_PT_REQ, Reserved) == 28);

enum : uint16_t {
    EXT_DEF_ELS_VALID_WWNN = 0x1,
    EXT_DEF_ELS_VALID_WWPN = 0x2,
    EXT_DEF_ELS_VALID_PORTID = 0x4,
};

// ---- Statistics ----

struct EXT_HBA_PORT_STAT {
    uint32_t ControllerErrorCount;
    uint32_t DeviceErrorCount;
    uint32_t TotalIoCount;
    uint32_t TotalMBytes;
    uint32_t TotalLipResets;
    uint32_t Reserved2;
    uint32_t TotalLinkFailures;
    uint32_t TotalLossOfSync;
    uint32_t TotalLossOfSignals;
    uint32_t PrimitiveSeqProtocolErrorCount;
    uint32_t InvalidTransmissionWordCount;
    uint32_t InvalidCRCCount;
    uint64_t InputRequestCount;
    uint64_t OutputRequestCount;
    uint64_t ControlRequestCount;
    uint64_t InputMBytes;
    uint64_t OutputMBytes;
    uint32_t TxFrames;
    uint32_t RxFrames;
    uint32_t NosCount;
    uint32_t DumpedFrames;
    uint32_t Reserved[2];
};
static_assert(sizeof(EXT_HBA_PORT_STAT) == 112);
static_assert(offsetof(EXT_HBA_PORT_STAT, DeviceErrorCount) == 4);
static_assert(offsetof(EXT_HBA_PORT_STAT, TotalIoCount) == 8);
static_assert(offsetof(EXT_HBA_PORT_STAT, TotalMBytes) == 12);
static_assert(offsetof(EXT_HBA_PORT_STAT, TotalLipResets) == 16);
static_assert(offsetof(EXT_HBA_PORT_STAT, Reserved2) == 20);
static_assert(offsetof(EXT_HBA_PORT_STAT, TotalLinkFailures) == 24);
static_assert(offsetof(EXT_HBA_PORT_STAT, TotalLossOfSync) == 28);
static_assert(offsetof(EXT_HBA_PORT_STAT, TotalLossOfSignals) == 32);
static_assert(offsetof(EXT_HBA_PORT_STAT, PrimitiveSeqProtocolErrorCount) == 36);
static_assert(offsetof(EXT_HBA_PORT_STAT, InvalidTransmissionWordCount) == 40);
static_assert(offsetof(EXT_HBA_PORT_STAT, InvalidCRCCount) == 44);
static_assert(offsetof(EXT_HBA_PORT_STAT, InputRequestCount) == 48);
static_assert(offsetof(EXT_HBA_PORT_STAT, OutputRequestCount) == 56);
static_assert(offsetof(EXT_HBA_PORT_STAT, ControlRequestCount) == 64);
static_assert(offsetof(EXT_HBA_PORT_STAT, InputMBytes) == 72);
static_assert(offsetof(EXT_HBA_PORT_STAT, OutputMBytes) == 80);
static_assert(offsetof(EXT_HBA_PORT_STAT, TxFrames) == 88);
static_assert(offsetof(EXT_HBA_PORT_STAT, RxFrames) == 92);
static_assert(offsetof(EXT_HBA_PORT_STAT, NosCount) == 96);
static_assert(offsetof(EXT_HBA_PORT_STAT, DumpedFrames) == 100);
static_assert(offsetof(EXT_HBA_PORT_STAT, Reserved) == 104);

// ---- Asynchronous events ----

// Request of EXT_CC_REG_AEN: sent zeroed apart from Enable.
struct EXT_REG_AEN {
    uint32_t Enable;  // 1 on, 0 off
    uint16_t BufLength;
    uint16_t Reserved;
};
static_assert(sizeof(EXT_REG_AEN) == 8);
static_assert(offsetof(EXT_REG_AEN, BufLength) == 4);
static_assert(offsetof(EXT_REG_AEN, Reserved) == 6);

// Firmware event codes as the driver queues them. Their meaning is the
// firmware's; the names say what the interfaces make of them.
enum : uint32_t {
    EXT_AEN_LIP = 0x8010,
    EXT_AEN_LINK_UP = 0x8011,
    EXT_AEN_LINK_DOWN = 0x8012,
    EXT_AEN_LIP_RESET = 0x8013,
    EXT_AEN_PORT_DB_CHANGE = 0x8014,
    EXT_AEN_RSCN = 0x8015,          // bytes 4-6 of the entry: the affected port id, byte 7 its format
    EXT_AEN_STATE_CHANGE = 0x8060,
    EXT_AEN_FABRIC_CHANGE = 0x8080,
    EXT_AEN_NEW_TARGETS = 0xA000,
};

// One asynchronous event entry (driver queue, shared event queues).
struct EXT_ASYNC_EVENT {
    uint32_t AsyncEventCode;  // 0: empty entry
    union {
        uint8_t Bytes[12];
        uint32_t Words[3];  // Words[1] (entry offset 8): host number of port events
    } Payload;
};
using _EXT_ASYNC_EVENT = EXT_ASYNC_EVENT;
static_assert(sizeof(EXT_ASYNC_EVENT) == 16);
static_assert(offsetof(EXT_ASYNC_EVENT, Payload) == 4);

// One fetch of the driver's queue returns at most this many entries.
inline constexpr uint32_t EXT_AEN_FETCH_MAX = 64;
inline constexpr uint32_t EXT_AEN_BUF_LEN = EXT_AEN_FETCH_MAX * sizeof(EXT_ASYNC_EVENT);
static_assert(EXT_AEN_BUF_LEN == 1024);
