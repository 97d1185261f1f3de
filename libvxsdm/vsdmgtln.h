/* Records of the SD management interface and the calls that fill them.
 * Included by vsdmgt.h. Every record is the caller's, of fixed size; the
 * library writes only the fields a call fills and never clears the rest.
 */
#ifndef VSDMGTLN_H
#define VSDMGTLN_H

#include <stddef.h>
#include <stdint.h>

/* The SD types and the export mark; vsdmgt.h includes this header again at
 * its end, which the guard above turns into nothing. */
#include "vsdmgt.h"

#ifdef __cplusplus
#define VXSD_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define VXSD_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* BIValid bits of DEVICENODEPROPERTY. */
#define SDM_BI_FW_VALID 0x01u
#define SDM_BI_EFI_VALID 0x02u
#define SDM_BI_FCODE_VALID 0x04u
#define SDM_BI_MPI_VALID 0x20u
#define SDM_BI_PEP_VALID 0x40u

typedef struct {
    SD_UINT8 WWN[8];
    char Manufacturer[80];
    char Model[32];
    SD_UINT8 SerialNumber[32];
    char DriverVersion[32];
    char FirmwareVersion[32];
    char OptionRomVersion[32];
    SD_UINT16 NumberOfPorts;
    SD_UINT16 InterfaceType;
    SD_UINT32 DriverAttributes;
    SD_UINT32 FirmwareAttributes;
    SD_UINT32 BIValid;
    SD_UINT8 BIFwVersion[4];
    SD_UINT8 BIEfiVersion[4];
    SD_UINT8 BIFCodeVersion[4];
    SD_UINT8 MpiFwVersion[4];
    SD_UINT8 PepFwVersion[4];
    SD_UINT8 BIMpiFwVersion[4];
    SD_UINT8 BIPepFwVersion[4];
    SD_UINT32 Reserved[24];
} DEVICENODEPROPERTY;
VXSD_STATIC_ASSERT(sizeof(DEVICENODEPROPERTY) == 388, "DEVICENODEPROPERTY size");
VXSD_STATIC_ASSERT(offsetof(DEVICENODEPROPERTY, Model) == 88, "DEVICENODEPROPERTY.Model");
VXSD_STATIC_ASSERT(offsetof(DEVICENODEPROPERTY, SerialNumber) == 120, "DEVICENODEPROPERTY.SerialNumber");
VXSD_STATIC_ASSERT(offsetof(DEVICENODEPROPERTY, NumberOfPorts) == 248, "DEVICENODEPROPERTY.NumberOfPorts");
VXSD_STATIC_ASSERT(offsetof(DEVICENODEPROPERTY, BIValid) == 260, "DEVICENODEPROPERTY.BIValid");
VXSD_STATIC_ASSERT(offsetof(DEVICENODEPROPERTY, BIPepFwVersion) == 288, "DEVICENODEPROPERTY.BIPepFwVersion");
VXSD_STATIC_ASSERT(offsetof(DEVICENODEPROPERTY, Reserved) == 292, "DEVICENODEPROPERTY.Reserved");

typedef struct {
    SD_UINT8 WWN[8];
    SD_UINT8 PortID[3];
    SD_UINT8 PortType;
    SD_UINT8 PortState;
    SD_UINT8 ConnectionMode;
    SD_UINT16 DiscPortCount;
    SD_UINT16 DiscTargetCount;
    char DeviceName[32];
    SD_UINT32 PortSpeed;
    SD_UINT16 LinkState1;
    SD_UINT16 LinkState2;
    SD_UINT16 LinkState3;
    SD_UINT16 LinkState6;
    SD_UINT32 Reserved[21];
} DEVICEPORTPROPERTY;
VXSD_STATIC_ASSERT(sizeof(DEVICEPORTPROPERTY) == 148, "DEVICEPORTPROPERTY size");
VXSD_STATIC_ASSERT(offsetof(DEVICEPORTPROPERTY, PortType) == 11, "DEVICEPORTPROPERTY.PortType");
VXSD_STATIC_ASSERT(offsetof(DEVICEPORTPROPERTY, DiscPortCount) == 14, "DEVICEPORTPROPERTY.DiscPortCount");
VXSD_STATIC_ASSERT(offsetof(DEVICEPORTPROPERTY, DeviceName) == 18, "DEVICEPORTPROPERTY.DeviceName");
VXSD_STATIC_ASSERT(offsetof(DEVICEPORTPROPERTY, PortSpeed) == 52, "DEVICEPORTPROPERTY.PortSpeed");
VXSD_STATIC_ASSERT(offsetof(DEVICEPORTPROPERTY, LinkState6) == 62, "DEVICEPORTPROPERTY.LinkState6");

typedef struct {
    SD_UINT16 VendorID;
    SD_UINT16 DeviceID;
    SD_UINT16 SubVendorID;
    SD_UINT16 SubSystemID;
    SD_UINT16 PciBusNumber;
    SD_UINT16 PciSlotNumber;
    SD_UINT32 IoAddress;
    SD_UINT32 IoAddressLength;
    SD_UINT32 MemoryAddress;
    SD_UINT32 MemoryAddressLength;
    SD_UINT16 ChipType;
    SD_UINT16 InterruptLevel;
    SD_UINT16 OutMbx[8];
    SD_UINT16 DomainNr;
    SD_UINT16 PcieLinkCap;
    SD_UINT16 PcieLinkStat;
    SD_UINT8 PortNumber;
    SD_UINT8 Reserved1;
    SD_UINT32 Reserved[6];
} CHIPPROPERTY;
VXSD_STATIC_ASSERT(sizeof(CHIPPROPERTY) == 80, "CHIPPROPERTY size");
VXSD_STATIC_ASSERT(offsetof(CHIPPROPERTY, IoAddress) == 12, "CHIPPROPERTY.IoAddress");
VXSD_STATIC_ASSERT(offsetof(CHIPPROPERTY, ChipType) == 28, "CHIPPROPERTY.ChipType");
VXSD_STATIC_ASSERT(offsetof(CHIPPROPERTY, DomainNr) == 48, "CHIPPROPERTY.DomainNr");
VXSD_STATIC_ASSERT(offsetof(CHIPPROPERTY, PortNumber) == 54, "CHIPPROPERTY.PortNumber");
VXSD_STATIC_ASSERT(offsetof(CHIPPROPERTY, Reserved) == 56, "CHIPPROPERTY.Reserved");

typedef struct {
    SD_UINT8 Version[32];
    SD_UINT16 NumberOfBus;
    SD_UINT16 TargetsPerBus;
    SD_UINT16 LunsPerTarget;
    SD_UINT32 MaximumTransferLen;
    SD_UINT32 MaximumDataSegments;
    SD_UINT16 DmaBitAddresses;
    SD_UINT16 IoMapType;
    SD_UINT32 Attributes;
    SD_UINT32 InternalFlags[4];
    SD_UINT32 Reserved[8];
} DRIVERPROPERTY;
VXSD_STATIC_ASSERT(sizeof(DRIVERPROPERTY) == 104, "DRIVERPROPERTY size");
VXSD_STATIC_ASSERT(offsetof(DRIVERPROPERTY, MaximumTransferLen) == 40, "DRIVERPROPERTY.MaximumTransferLen");
VXSD_STATIC_ASSERT(offsetof(DRIVERPROPERTY, DmaBitAddresses) == 48, "DRIVERPROPERTY.DmaBitAddresses");
VXSD_STATIC_ASSERT(offsetof(DRIVERPROPERTY, InternalFlags) == 56, "DRIVERPROPERTY.InternalFlags");

typedef struct {
    SD_UINT8 Version[32];
    SD_UINT32 Attributes;
    SD_UINT32 AttributesExtended;
    SD_UINT16 Reserved[31];
} FIRMWAREPROPERTY;
VXSD_STATIC_ASSERT(sizeof(FIRMWAREPROPERTY) == 104, "FIRMWAREPROPERTY size");
VXSD_STATIC_ASSERT(offsetof(FIRMWAREPROPERTY, AttributesExtended) == 36, "FIRMWAREPROPERTY.AttributesExtended");

typedef struct {
    SD_UINT16 VLanId;
    SD_UINT8 VNPortMACAddress[6];
    SD_UINT16 FabricParam;
    SD_UINT16 Reserved0;
    SD_UINT32 Reserved[29];
} CNAPORTPROPERTY;
VXSD_STATIC_ASSERT(sizeof(CNAPORTPROPERTY) == 128, "CNAPORTPROPERTY size");
VXSD_STATIC_ASSERT(offsetof(CNAPORTPROPERTY, FabricParam) == 8, "CNAPORTPROPERTY.FabricParam");

/* SDGetCnaPortData operations. */
#define SDM_CNA_PORT_DATA 1u
#define SDM_CNA_DCBX_PARAMS 2u
#define SDM_CNA_FCOE_VERSIONS 3u

typedef struct {
    SD_UINT16 Region;
    SD_UINT16 SubRegion;
    SD_UINT16 Location;
    SD_UINT16 VersionLength;
    SD_UINT8 Version[8];
    SD_UINT8 Reserved[8];
} REGIONVERSION;
VXSD_STATIC_ASSERT(sizeof(REGIONVERSION) == 24, "REGIONVERSION size");

typedef struct {
    SD_UINT32 Length;
    SD_UINT32 Reserved;
    REGIONVERSION RegionVersion[1];
} ADAPTERREGIONVERSION;
VXSD_STATIC_ASSERT(offsetof(ADAPTERREGIONVERSION, RegionVersion) == 8, "ADAPTERREGIONVERSION header");

/* Option ROM (flash) layout: the region codes of the adapter's flash and
 * their sizes. On input NoOfRegions is the capacity of Region[] (the caller
 * allocates room for that many entries), on output the count. */
typedef struct {
    SD_UINT32 Region; /* region code (0xFF: the whole flash) */
    SD_UINT32 Size;
} SDM_OPT_ROM_REGION;
VXSD_STATIC_ASSERT(sizeof(SDM_OPT_ROM_REGION) == 8, "SDM_OPT_ROM_REGION size");

typedef struct {
    SD_UINT32 Size; /* bytes of flash; 0 when the layout comes from the flash's own table */
    SD_UINT32 NoOfRegions;
    SDM_OPT_ROM_REGION Region[1];
} SDM_OPT_ROM_LAYOUT;
VXSD_STATIC_ASSERT(offsetof(SDM_OPT_ROM_LAYOUT, Region) == 8, "SDM_OPT_ROM_LAYOUT header");

/* PCI expansion-ROM image header and data structure, little-endian as the
 * images carry them. */
#pragma pack(push, 1)
typedef struct {
    SD_UINT16 Signature; /* bytes 0x55 0xAA */
    SD_UINT8 Reserved[22];
    SD_UINT16 PcirOffset;
} SDM_PCI_ROM_HEADER;

typedef struct {
    SD_UINT8 Signature[4]; /* "PCIR" */
    SD_UINT16 VendorId;
    SD_UINT16 DeviceId;
    SD_UINT16 Reserved0;
    SD_UINT16 Length;
    SD_UINT8 Revision;
    SD_UINT8 ClassCode[3];
    SD_UINT16 ImageLength; /* 512-byte units */
    SD_UINT16 CodeRevision;
    SD_UINT8 CodeType; /* 0 x86 BIOS, 1 FCode, 3 EFI */
    SD_UINT8 Indicator; /* bit 7: last image */
    SD_UINT16 Reserved1;
} SDM_PCI_DATA_STRUCT;
#pragma pack(pop)
VXSD_STATIC_ASSERT(sizeof(SDM_PCI_ROM_HEADER) == 26, "SDM_PCI_ROM_HEADER size");
VXSD_STATIC_ASSERT(sizeof(SDM_PCI_DATA_STRUCT) == 24, "SDM_PCI_DATA_STRUCT size");

/* Discovered ports and targets share one layout. */
typedef struct {
    SD_UINT8 NodeWWN[8];
    SD_UINT8 PortWWN[8];
    SD_UINT8 PortID[3];
    SD_UINT8 Pad0;
    SD_UINT16 BusNumber;
    SD_UINT16 TargetID;
    SD_UINT8 PortType;
    SD_UINT8 PortState;
    SD_UINT8 Local;
    SD_UINT8 ReservedByte[1];
    SD_UINT16 LoopID;
    SD_UINT16 Pad1;
    SD_UINT32 Reserved[31];
} DISCPORTPROPERTY;
typedef DISCPORTPROPERTY DISCTARGETPROPERTY;
VXSD_STATIC_ASSERT(sizeof(DISCPORTPROPERTY) == 156, "DISCPORTPROPERTY size");
VXSD_STATIC_ASSERT(offsetof(DISCPORTPROPERTY, BusNumber) == 20, "DISCPORTPROPERTY.BusNumber");
VXSD_STATIC_ASSERT(offsetof(DISCPORTPROPERTY, PortType) == 24, "DISCPORTPROPERTY.PortType");
VXSD_STATIC_ASSERT(offsetof(DISCPORTPROPERTY, LoopID) == 28, "DISCPORTPROPERTY.LoopID");
VXSD_STATIC_ASSERT(offsetof(DISCPORTPROPERTY, Reserved) == 32, "DISCPORTPROPERTY.Reserved");

typedef struct {
    SD_UINT16 BusNumber;
    SD_UINT16 TargetID;
    SD_UINT16 LUN;
    SD_UINT16 Pad;
    SD_UINT32 Reserved[32];
} TARGETINFORMATION;
VXSD_STATIC_ASSERT(sizeof(TARGETINFORMATION) == 136, "TARGETINFORMATION size");

typedef struct {
    SD_UINT8 NodeWWN[8];
    SD_UINT8 PortWWN[8];
    SD_UINT8 PortID[3];
    SD_UINT8 ControlFlags;
    TARGETINFORMATION TargetAddress;
    SD_UINT32 DeviceFlags;
    SD_UINT16 LoopID;
    SD_UINT16 BaseLunNumber;
    SD_UINT32 Reserved[32];
} DEVICEINFOENTRY;
VXSD_STATIC_ASSERT(sizeof(DEVICEINFOENTRY) == 292, "DEVICEINFOENTRY size");
VXSD_STATIC_ASSERT(offsetof(DEVICEINFOENTRY, TargetAddress) == 20, "DEVICEINFOENTRY.TargetAddress");
VXSD_STATIC_ASSERT(offsetof(DEVICEINFOENTRY, DeviceFlags) == 156, "DEVICEINFOENTRY.DeviceFlags");
VXSD_STATIC_ASSERT(offsetof(DEVICEINFOENTRY, LoopID) == 160, "DEVICEINFOENTRY.LoopID");
VXSD_STATIC_ASSERT(offsetof(DEVICEINFOENTRY, Reserved) == 164, "DEVICEINFOENTRY.Reserved");

/* A port database: the header, then ReturnListEntryCount entries. A buffer
 * of 300 bytes holds one entry; each further entry needs 292 bytes. */
typedef struct {
    SD_UINT32 TotalDevices;
    SD_UINT32 ReturnListEntryCount;
    DEVICEINFOENTRY EntryList[1];
} DEVICEINFO;
VXSD_STATIC_ASSERT(sizeof(DEVICEINFO) == 300, "DEVICEINFO with one entry");

/* TypeMode bits of SDGetPortDatabase that reach the driver. */
#define SDM_PORTDB_TYPE_MASK 0x101Fu

/* AddressType of DESTINATIONADDRESS and FABRICADDRESS. */
#define SDM_ADDRESS_WWNN 1u
#define SDM_ADDRESS_WWPN 2u
#define SDM_ADDRESS_PORTID 3u

/* A LUN behind a remote port named by one of its FC addresses. A port id
 * is AddressUsing[1..3], most significant byte first. */
typedef struct {
    SD_UINT16 AddressType;
    union {
        SD_UINT8 WWNN[8];
        SD_UINT8 WWPN[8];
        SD_UINT8 PortID[4];
    } AddressUsing;
    SD_UINT16 LunNumber;
} DESTINATIONADDRESS;
VXSD_STATIC_ASSERT(sizeof(DESTINATIONADDRESS) == 12, "DESTINATIONADDRESS size");
VXSD_STATIC_ASSERT(offsetof(DESTINATIONADDRESS, AddressUsing) == 2, "DESTINATIONADDRESS.AddressUsing");
VXSD_STATIC_ASSERT(offsetof(DESTINATIONADDRESS, LunNumber) == 10, "DESTINATIONADDRESS.LunNumber");

/* A fabric port named by one of its FC addresses. */
typedef struct {
    SD_UINT16 AddressType;
    union {
        SD_UINT8 WWNN[8];
        SD_UINT8 WWPN[8];
        SD_UINT8 PortID[4];
    } AddressUsing;
    SD_UINT16 Reserved;
} FABRICADDRESS;
VXSD_STATIC_ASSERT(sizeof(FABRICADDRESS) == 12, "FABRICADDRESS size");

/* Largest CDB and sense data a SCSI pass-through carries. */
#define SDM_MAX_CDB_LEN 16u
#define SDM_MAX_SENSE_LEN 256u
/* Flash-update capabilities: the running firmware's attributes (from
 * SDGetFlashUpdateCapabilities), or those of the firmware just written
 * (handed to SDSendFlashUpdateFWAttributes). */
#define SDM_FW_ATTR_ONLINE_ACTIVATE 0x1ull        /* starts without a reset of the board */
#define SDM_FW_ATTR_ONLINE_UPDATE 0x2ull          /* takes flash writes while the port runs */
#define SDM_FW_ATTR_GENERATION_MASK 0xFFFFFFFF00000000ull /* must match for an online start */
typedef struct {
    SD_UINT64 Capabilities;   /* SDM_FW_ATTR_ bits */
    SD_UINT32 OutageDuration; /* seconds the port is offline while new firmware starts */
    SD_UINT8 Reserved[20];
} SDM_FLASH_UPDATE_CAPS;
VXSD_STATIC_ASSERT(sizeof(SDM_FLASH_UPDATE_CAPS) == 32, "SDM_FLASH_UPDATE_CAPS");
VXSD_STATIC_ASSERT(offsetof(SDM_FLASH_UPDATE_CAPS, OutageDuration) == 8, "SDM_FLASH_UPDATE_CAPS.OutageDuration");

/* Link and traffic counters of a port (SDGetStatistics) or of a remote port
 * (SDGetStatisticsFC). InterruptCount and Reserved are never written. */
typedef struct {
    SD_UINT32 ControllerErrorCount;
    SD_UINT32 DeviceErrorCount;
    SD_UINT32 IOCount;
    SD_UINT32 MegabyteCount;
    SD_UINT32 LipResetCount;
    SD_UINT32 InterruptCount;
    SD_UINT32 LinkFailureCount;
    SD_UINT32 LossOfSyncCount;
    SD_UINT32 LossOfSignalCount;
    SD_UINT32 PrimitiveSeqProtocolErrorCount;
    SD_UINT32 InvalidTransmissionWordCount;
    SD_UINT32 InvalidCRCCount;
    SD_UINT32 Reserved[32];
} STATISTICS;
VXSD_STATIC_ASSERT(sizeof(STATISTICS) == 176, "STATISTICS size");
VXSD_STATIC_ASSERT(offsetof(STATISTICS, InterruptCount) == 20, "STATISTICS.InterruptCount");
VXSD_STATIC_ASSERT(offsetof(STATISTICS, InvalidCRCCount) == 44, "STATISTICS.InvalidCRCCount");
VXSD_STATIC_ASSERT(offsetof(STATISTICS, Reserved) == 48, "STATISTICS.Reserved");

/* One asynchronous event (SDGetAen). */
typedef struct {
    SD_UINT32 EventCode; /* SDM_AEN_ */
    SD_UINT32 Reserved[3];
} ASYNCEVENT;
VXSD_STATIC_ASSERT(sizeof(ASYNCEVENT) == 16, "ASYNCEVENT size");

/* EventCode values. Port database changes read 6 and fabric changes (RSCN)
 * 5: the numbering is the interface's. */
#define SDM_AEN_LIP 1u
#define SDM_AEN_LINK_UP 2u
#define SDM_AEN_LINK_DOWN 3u
#define SDM_AEN_LIP_RESET 4u
#define SDM_AEN_RSCN 5u
#define SDM_AEN_PORT_DB_CHANGE 6u
#define SDM_AEN_STATE_CHANGE 7u
#define SDM_AEN_FABRIC_CHANGE 8u

#ifdef __cplusplus
extern "C" {
#endif

VXSD_API SD_UINT32 SDGetHbaDeviceNodeProperty(int Device, DEVICENODEPROPERTY* pNodeProperty);
VXSD_API SD_UINT32 SDGetHbaDevicePortProperty(int Device, SD_UINT16 HbaDevPortNum,
                                              DEVICEPORTPROPERTY* pPortProperty);
VXSD_API SD_UINT32 SDGetHbaDeviceChipProperty(int Device, CHIPPROPERTY* pChipProperty);
VXSD_API SD_UINT32 SDGetHbaDeviceDriverProperty(int Device, DRIVERPROPERTY* pDriverProperty);
VXSD_API SD_UINT32 SDGetHbaDeviceFirmwareProperty(int Device, FIRMWAREPROPERTY* pFirmwareProperty);
VXSD_API SD_UINT32 SDGetCnaPortData(int Device, SD_UINT16 CnaDevPortNum, SD_UINT32 Operation,
                                    SD_UINT8* pCnaPortData, SD_UINT32* pCnaPortDataSize);

VXSD_API SD_UINT32 SDGetDiscPortProperty(int Device, SD_UINT16 HbaDevPortNum, SD_UINT32 DiscPortNum,
                                         SD_UINT32 GetType, DISCPORTPROPERTY* pDiscPortProperty);
VXSD_API SD_UINT32 SDGetDiscTargetProperty(int Device, SD_UINT16 HbaDevPortNum, SD_UINT32 DiscTargetNum,
                                           SD_UINT32 GetType, DISCTARGETPROPERTY* pDiscTargetProperty);
VXSD_API SD_UINT32 SDGetPortDatabase(int Device, SD_UINT16 TypeMode, DEVICEINFO* pDeviceInfo,
                                     SD_UINT32 DeviceInfoSize);

/* The LUNs of one discovered target, in ascending order. On entry
 * *pLunCount is the capacity of pLuns (pLuns may be NULL when it is 0); on
 * return it is the number of LUNs returned. Returns
 * SDM_STATUS_BUFFER_TOO_SMALL with the count (and the first LUNs written)
 * when pLuns is too small, SDM_STATUS_DEVICE_NOT_FOUND when the port has no
 * target with that id. The driver's list names targets in one byte and LUNs
 * by their place in a map of 2048 or 4096: target ids above 255 are refused
 * with SDM_STATUS_NOT_SUPPORTED, and a target with LUNs past the map gives
 * SDM_STATUS_DATA_OVERRUN with the LUNs that the map holds. */
VXSD_API SD_UINT32 SDGetTargetLunList(int Device, SD_UINT16 TargetId, SD_UINT16* pLuns, SD_UINT32* pLunCount);

/* Flash. Region 0 is the whole image; SDGetOptionRom and SDUpdateOptionRom
 * need at least 0x20000 bytes. Reads never write past BufferSize. Updates
 * of boot-code regions are refused (SDM_STATUS_INVALID_PARAMETER, nothing
 * written) when the image's PCI expansion-ROM chain is broken. */
VXSD_API SD_UINT32 SDGetOptionRomLayout(int Device, SD_UINT16 HbaDevPortNum, SDM_OPT_ROM_LAYOUT* pLayout);
VXSD_API SD_UINT32 SDGetOptionRom(int Device, SD_UINT16 HbaDevPortNum, SD_UINT8* pBuffer, SD_UINT32 BufferSize);
VXSD_API SD_UINT32 SDGetOptionRomEx(int Device, SD_UINT16 HbaDevPortNum, SD_UINT8* pBuffer, SD_UINT32 BufferSize,
                                    SD_UINT32 Region);
VXSD_API SD_UINT32 SDGetOptionRomOffset(int Device, SD_UINT16 HbaDevPortNum, SD_UINT8* pBuffer,
                                        SD_UINT32 BufferSize, SD_UINT32 Offset);
VXSD_API SD_UINT32 SDUpdateOptionRom(int Device, SD_UINT16 HbaDevPortNum, SD_UINT8* pBuffer, SD_UINT32 BufferSize);
VXSD_API SD_UINT32 SDUpdateOptionRomEx(int Device, SD_UINT32 DisableReset, SD_UINT8* pBuffer, SD_UINT32 BufferSize,
                                       SD_UINT32 Region);
VXSD_API SD_UINT32 SDUpdateOptionRomEx2(int Device, SD_UINT32 DisableReset, SD_UINT8* pBuffer,
                                        SD_UINT32 BufferSize, SD_UINT32 Region);
VXSD_API SD_UINT32 SDUpdateOptionRomOffset(int Device, SD_UINT16 HbaDevPortNum, SD_UINT8* pBuffer,
                                           SD_UINT32 BufferSize, SD_UINT32 Offset);

/* NVRAM: the port's whole settings image, 256 bytes on the older families
 * and 512 (nvram_swift, vsdnvram.h) on the Swift family and every family
 * with a flash layout table. A larger BufferSize moves the image and no
 * more; a read into a smaller buffer fills it with the image's start. An
 * update must carry the whole image (SDM_STATUS_INVALID_PARAMETER
 * otherwise); on the families with a flash layout table the library stores
 * the image's checksum into pBuffer before writing, and the ports reload
 * their settings unless DisableReset is nonzero. Mode is reserved: it is
 * traced and ignored. Virtual ports read their physical port's image and
 * cannot update it (SDM_STATUS_NOT_SUPPORTED). */
VXSD_API SD_UINT32 SDGetNVRam(int Device, SD_UINT16 HbaDevPortNum, SD_UINT32 Mode, SD_UINT8* pBuffer,
                              SD_UINT32 BufferSize);
VXSD_API SD_UINT32 SDUpdateNVRam(int Device, SD_UINT32 DisableReset, SD_UINT32 Mode, SD_UINT8* pBuffer,
                                 SD_UINT32 BufferSize);

/* VPD: 512 bytes, 1024 on the Wren, Tern and Ibis families. SDGetVpd needs
 * a buffer of that size (SDM_STATUS_BUFFER_TOO_SMALL with the size stored in
 * *pBufferSize otherwise) and stores the size read in *pBufferSize; a failed
 * read leaves the buffer as it was. SDUpdateVpd writes *pBufferSize bytes
 * (at most the VPD size); the families with a flash layout table and
 * virtual ports are refused (SDM_STATUS_NOT_SUPPORTED). SDSwiftSaveVpd
 * writes the VPD of the port and of the other port of its pair (PCI
 * functions 0 and 1, 2 and 3), the flash regions 0x14 and 0x16 on the
 * families with a flash layout table; 0x20000100 when the other port cannot
 * be opened. */
VXSD_API SD_UINT32 SDGetVpd(int Device, SD_UINT16 HbaDevPortNum, SD_UINT8* pBuffer, SD_UINT32* pBufferSize);
VXSD_API SD_UINT32 SDUpdateVpd(int Device, SD_UINT16 HbaDevPortNum, SD_UINT8* pBuffer, SD_UINT32* pBufferSize);
VXSD_API SD_UINT32 SDSwiftSaveVpd(int Device, SD_UINT8* pvpd, SD_UINT32 buf_size);

/* SCSI pass-through to LUN pTargetInfo->LUN of target pTargetInfo->TargetID
 * (BusNumber is not used). At most one data buffer: pReqBuf for data to the
 * device, pRespBuf for data from it; both null sends no data. pSenseBuf
 * (SenseBufSize bytes, cleared) receives the sense of a check condition.
 * A SCSI status other than GOOD comes back as SDM_STATUS_SCSI_... */
VXSD_API SD_UINT32 SDSendScsiPassThru(int Device, TARGETINFORMATION* pTargetInfo, SD_UINT8* pCdbBuf,
                                      SD_UINT32 ValidCdbLen, void* pReqBuf, SD_UINT32 ReqBufSize, void* pRespBuf,
                                      SD_UINT32 RespBufSize, SD_UINT8* pSenseBuf, SD_UINT32 SenseBufSize);
/* The same by the remote port's name (AddressType SDM_ADDRESS_WWPN only);
 * a check condition returns SDM_STATUS_SCSI_CHECK_CONDITION with the sense. */
VXSD_API SD_UINT32 SDSendScsiPassThruFC(int Device, DESTINATIONADDRESS* pDestAddr, SD_UINT8* pCdbBuf,
                                        SD_UINT32 ValidCdbLen, void* pReqBuf, SD_UINT32 ReqBufSize, void* pRespBuf,
                                        SD_UINT32 RespBufSize, SD_UINT8* pSenseBuf, SD_UINT32 SenseBufSize);

/* INQUIRY (standard data, at most 255 bytes), READ CAPACITY(10) and REPORT
 * LUNS. A target that refuses REPORT LUNS gets its LUNs 0-255 probed with
 * READ CAPACITY instead: the list is built in the response buffer (as far
 * as it fits) and the call returns SDM_STATUS_NOT_FROM_DEVICE, leaving the
 * caller's LUN field at 255. */
VXSD_API SD_UINT32 SDSendScsiInquiryCmd(int Device, TARGETINFORMATION* pTargetInfo, void* pRespBuf,
                                        SD_UINT32 RespBufSize, SD_UINT8* pSenseBuf, SD_UINT32 SenseBufSize);
VXSD_API SD_UINT32 SDSendScsiReadCapacityCmd(int Device, TARGETINFORMATION* pTargetInfo, void* pRespBuf,
                                             SD_UINT32 RespBufSize, SD_UINT8* pSenseBuf, SD_UINT32 SenseBufSize);
VXSD_API SD_UINT32 SDSendScsiReportLunsCmd(int Device, TARGETINFORMATION* pTargetInfo, void* pRespBuf,
                                           SD_UINT32 RespBufSize, SD_UINT8* pSenseBuf, SD_UINT32 SenseBufSize);
VXSD_API SD_UINT32 SDSendScsiInquiryCmdFC(int Device, DESTINATIONADDRESS* pDestAddr, void* pRespBuf,
                                          SD_UINT32 RespBufSize, SD_UINT8* pSenseBuf, SD_UINT32 SenseBufSize);
VXSD_API SD_UINT32 SDSendScsiReadCapacityCmdFC(int Device, DESTINATIONADDRESS* pDestAddr, void* pRespBuf,
                                               SD_UINT32 RespBufSize, SD_UINT8* pSenseBuf, SD_UINT32 SenseBufSize);
VXSD_API SD_UINT32 SDSendScsiReportLunsCmdFC(int Device, DESTINATIONADDRESS* pDestAddr, void* pRespBuf,
                                             SD_UINT32 RespBufSize, SD_UINT8* pSenseBuf, SD_UINT32 SenseBufSize);

/* A CT request (a CT_IU, its 16-byte header first) to the fabric's
 * services; the reply (accept or reject) fills pRespBuffer, cut at its size
 * (SDM_STATUS_DATA_OVERRUN). Only a port logged in to a fabric may send. */
VXSD_API SD_UINT32 SDSendCTPassThru(int Device, void* pReqBuffer, SD_UINT32 ReqBufferSize, void* pRespBuffer,
                                    SD_UINT32 RespBufferSize);
/* Not supported: always SDM_STATUS_NOT_SUPPORTED. */
VXSD_API SD_UINT32 SDSendElsRnid(int Device, FABRICADDRESS* pFabricAddr, SD_UINT16 NIDFormat, void* pRespBuffer,
                                 SD_UINT32 RespBufferSize);
/* Online flash update (the Crane family; physical ports only). Take the
 * adapter's token, write regions with SDUpdateOptionRomEx2, end the update
 * with the same token, then optionally start the new firmware without a
 * reboot. A token lives 900 seconds; the token is the holder's process id.
 * SDStartFlashUpdate: SDM_STATUS_FLASH_TOKEN_HELD while another live token
 * exists. SDEndFlashUpdate: SDM_STATUS_FLASH_TOKEN_EXPIRED once it expired,
 * SDM_STATUS_UNKNOWN_ERROR for a token that is not the adapter's. */
VXSD_API SD_UINT32 SDStartFlashUpdate(int Device, SD_UINT16 HbaDevPortNum, SD_UINT32* pToken);
VXSD_API SD_UINT32 SDEndFlashUpdate(int Device, SD_UINT16 HbaDevPortNum, SD_UINT32 Token);
VXSD_API SD_UINT32 SDOnlineActivateFlashUpdate(int Device, SD_UINT16 HbaDevPortNum);
/* Who holds the adapter's live token and for how many more seconds;
 * SDM_STATUS_DEVICE_NOT_FOUND when nobody does. */
VXSD_API SD_UINT32 SDGetFlashUpdateTokenHolder(int Device, SD_UINT16 HbaDevPortNum, SD_UINT32* pHolder,
                                               SD_UINT32* pSecondsLeft);
/* The running firmware's capabilities, and the attributes of the firmware
 * written to flash, checked by the driver for an online start. */
VXSD_API SD_UINT32 SDGetFlashUpdateCapabilities(int Device, SD_UINT16 HbaDevPortNum, SDM_FLASH_UPDATE_CAPS* pCaps);
VXSD_API SD_UINT32 SDSendFlashUpdateFWAttributes(int Device, SD_UINT16 HbaDevPortNum,
                                                 const SDM_FLASH_UPDATE_CAPS* pCaps);

/* Driver module parameters (no adapter needed). Names are those of the
 * driver's parameter files; a name with "/" or ".." is refused with
 * SDM_STATUS_INVALID_PARAMETER, one the driver lacks with
 * SDM_STATUS_NOT_SUPPORTED. Persist != 0 also records the value in the
 * first line of the modprobe configuration, keeping the previous file as
 * vxfcdrv.conf.bak. */
VXSD_API SD_UINT32 SDGetDriverModuleParam(const char* pName, SD_UINT32* pValue);
VXSD_API SD_UINT32 SDSetDriverModuleParam(const char* pName, SD_UINT32 Value, SD_UINT32 Persist);

/* The port's counters. HbaDevPortNum is not used: one port per handle. */
VXSD_API SD_UINT32 SDGetStatistics(int Device, SD_UINT16 HbaDevPortNum, STATISTICS* pStatistics);
/* A remote port's counters, named by port name (AddressType 2), as a
 * STATISTICS record into pStatistics (at least 176 bytes). Over sysfs the
 * transport keeps no counters per remote port: SDM_STATUS_NOT_SUPPORTED. */
VXSD_API SD_UINT32 SDGetStatisticsFC(int Device, SD_UINT16 HbaDevPortNum, DESTINATIONADDRESS* pDestAddr,
                                     SD_UINT8* pStatistics);
VXSD_API SD_UINT32 SDGetPortStatisticsFC(int Device, SD_UINT32 HbaDevPortNum, DESTINATIONADDRESS* pDestAddr,
                                         SD_UINT8* pStatistics);
/* Clears the port's counters: sysfs ports of the families from Heron on;
 * SDM_STATUS_NOT_SUPPORTED elsewhere. */
VXSD_API SD_UINT32 SDResetStatistics(int Device, SD_UINT16 HbaDevPortNum);

/* Asynchronous events: switched on and off per port (the driver queues
 * them; the library's event thread collects them every 15 seconds into a
 * queue of each process that has the library loaded). SDGetAen empties this
 * process's queue for the port: the newest min(queued, AenBufSize / 16)
 * events go to pAenBuf, the rest are dropped; *pAenCount is their number. */
VXSD_API SD_UINT32 SDEnableAen(int Device);
VXSD_API SD_UINT32 SDDisableAen(int Device);
VXSD_API SD_UINT32 SDGetAen(int Device, ASYNCEVENT* pAenBuf, SD_UINT32 AenBufSize, SD_UINT32* pAenCount);

#ifdef __cplusplus
}
#endif

#endif /* VSDMGTLN_H */
