/* NVRAM variables: the boot-time settings of a port, read and changed one by
 * one in a copy of the port's NVRAM image.
 *
 * Two image layouts exist: a 256-byte image of 16-bit little-endian words
 * (the older families) and the 512-byte nvram_swift record (the Swift family
 * and every family with a flash layout table). A variable is a bit field at a
 * fixed place of either layout, chosen by its number (EnumNVRAMVar).
 *
 * Plain C, like vsdmgt.h, which it includes.
 */
#ifndef VSDNVRAM_H
#define VSDNVRAM_H

#include <stddef.h>
#include <stdint.h>

#include "vsdmgt.h"

#define NVRAM_IMAGE_SIZE 256u       /* the older word-addressed layout */
#define NVRAM_SWIFT_IMAGE_SIZE 512u /* nvram_swift */

typedef enum {
    NVRAMVarId = 0,
    NVRAMVarVersion = 1,
    NVRAMVarRiscVersion = 2,
    NVRAMVarRiscEnableHardLoopID = 3,
    NVRAMVarEnableFairness = 4,
    NVRAMVarEnableFullDuplex = 5,
    NVRAMVarEnableFastPosting = 6,
    NVRAMVarEnableTargetMode = 7,
    NVRAMVarDisableInitiatorMode = 8,
    NVRAMVarEnableADISC = 9,
    NVRAMVarTargetInquiryData = 10,
    NVRAMVarEnablePDBCNotify = 11,
    NVRAMVarNonParticipatingLIP = 12,
    NVRAMVarDescendingSearchLoopID = 13,
    NVRAMVarAcquireLoopIDInLIPA = 14,
    NVRAMVarStopPortQOnFullStatus = 15,
    NVRAMVarFullLoginAfterLIP = 16,
    NVRAMVarNodeNameOption = 17,
    NVRAMVarExtIFWCBEnableBit = 18,
    NVRAMVarFramePayloadSize = 19,
    NVRAMVarMaxIocbAllocation = 20,
    NVRAMVarExecutionThrottle = 21,
    NVRAMVarRetryCount = 22,
    NVRAMVarRetryDelay = 23,
    NVRAMVarPortName0 = 24,
    NVRAMVarPortName1 = 25,
    NVRAMVarPortName2 = 26,
    NVRAMVarPortName3 = 27,
    NVRAMVarPortName4 = 28,
    NVRAMVarPortName5 = 29,
    NVRAMVarPortName6 = 30,
    NVRAMVarPortName7 = 31,
    NVRAMVarAdapterHardLoopID = 32,
    NVRAMVarInquiryData = 33,
    NVRAMVarLoginTimeout = 34,
    NVRAMVarNodeName0 = 35,
    NVRAMVarNodeName1 = 36,
    NVRAMVarNodeName2 = 37,
    NVRAMVarNodeName3 = 38,
    NVRAMVarNodeName4 = 39,
    NVRAMVarNodeName5 = 40,
    NVRAMVarNodeName6 = 41,
    NVRAMVarNodeName7 = 42,
    NVRAMVarTimerOperationMode = 43,
    NVRAMVarInitConfigMode = 44,
    NVRAMVarEnableNonPartOnLIHAFailure = 45,
    NVRAMVarEnableClass2 = 46,
    NVRAMVarEnableAck0 = 47,
    NVRAMVarEnableFCTape = 48,
    NVRAMVarEnableFCConfirm = 49,
    NVRAMVarEnableCRN = 50,
    NVRAMVarNoLogoOnLinkDown = 51,
    NVRAMVarResponseAccumulationTimer = 52,
    NVRAMVarInterruptDelayTimer = 53,
    NVRAMVarEnableReadXfrRdy = 54,
    NVRAMVarFcpRspPayload = 55,
    NVRAMVarRecvOutOfOrderDataBit = 56,
    NVRAMVarDataRate = 57,
    NVRAMVarDisableBIOS = 58,
    NVRAMVarDisableLUNs = 59,
    NVRAMVarEnableSelectableBoot = 60,
    NVRAMVarDisableRISCCodeLoad = 61,
    NVRAMVarSetCacheLineSize1 = 62,
    NVRAMVarPCIParityDisable = 63,
    NVRAMVarEnableExtendedLogging = 64,
    NVRAMVarEnable64BitsAddressing = 65,
    NVRAMVarEnableLIPReset = 66,
    NVRAMVarEnableLIPFullLogin = 67,
    NVRAMVarEnableTargetReset = 68,
    NVRAMVarEnableDatabaseStorage = 69,
    NVRAMVarEnableCacheFlushRead = 70,
    NVRAMVarEnableDatabaseLoad = 71,
    NVRAMVarBootNodeName0 = 72,
    NVRAMVarBootNodeName1 = 73,
    NVRAMVarBootNodeName2 = 74,
    NVRAMVarBootNodeName3 = 75,
    NVRAMVarBootNodeName4 = 76,
    NVRAMVarBootNodeName5 = 77,
    NVRAMVarBootNodeName6 = 78,
    NVRAMVarBootNodeName7 = 79,
    NVRAMVarBootLUNNumber = 80,
    NVRAMVarResetDelay = 81,
    NVRAMVarPortDownRetryCount = 82,
    NVRAMVarMaximumLUNsPerTarget = 83,
    NVRAMVarFcodeBootPortName0 = 84,
    NVRAMVarFcodeBootPortName1 = 85,
    NVRAMVarFcodeBootPortName2 = 86,
    NVRAMVarFcodeBootPortName3 = 87,
    NVRAMVarFcodeBootPortName4 = 88,
    NVRAMVarFcodeBootPortName5 = 89,
    NVRAMVarFcodeBootPortName6 = 90,
    NVRAMVarFcodeBootPortName7 = 91,
    NVRAMVarSelectiveLogin = 92,
    NVRAMVarEnableAltBootDevice = 93,
    NVRAMVarEnableBootOrderList = 94,
    NVRAMVarEnableSelectiveLUN = 95,
    NVRAMVarForceWorldLogin = 96,
    NVRAMVarLinkDownTimeout = 97,
    NVRAMVarAlt1BootPortName0 = 98,
    NVRAMVarAlt1BootPortName1 = 99,
    NVRAMVarAlt1BootPortName2 = 100,
    NVRAMVarAlt1BootPortName3 = 101,
    NVRAMVarAlt1BootPortName4 = 102,
    NVRAMVarAlt1BootPortName5 = 103,
    NVRAMVarAlt1BootPortName6 = 104,
    NVRAMVarAlt1BootPortName7 = 105,
    NVRAMVarAlt1BootLUNNumber = 106,
    NVRAMVarAlt2BootPortName0 = 107,
    NVRAMVarAlt2BootPortName1 = 108,
    NVRAMVarAlt2BootPortName2 = 109,
    NVRAMVarAlt2BootPortName3 = 110,
    NVRAMVarAlt2BootPortName4 = 111,
    NVRAMVarAlt2BootPortName5 = 112,
    NVRAMVarAlt2BootPortName6 = 113,
    NVRAMVarAlt2BootPortName7 = 114,
    NVRAMVarAlt2BootLUNNumber = 115,
    NVRAMVarAlt3BootPortName0 = 116,
    NVRAMVarAlt3BootPortName1 = 117,
    NVRAMVarAlt3BootPortName2 = 118,
    NVRAMVarAlt3BootPortName3 = 119,
    NVRAMVarAlt3BootPortName4 = 120,
    NVRAMVarAlt3BootPortName5 = 121,
    NVRAMVarAlt3BootPortName6 = 122,
    NVRAMVarAlt3BootPortName7 = 123,
    NVRAMVarAlt3BootLUNNumber = 124,
    NVRAMVarSubSystemVendorID0 = 125,
    NVRAMVarSubSystemDeviceID0 = 126,
    NVRAMVarSubSystemVendorID1 = 127,
    NVRAMVarSubSystemDeviceID1 = 128,
    NVRAMVarCheckSum = 129,
    NVRAMVarEnableFabricAssigWWPN = 130,
    NVRAMVarEnableFabricAssgBootLun = 131,
    NVRAMVarEnableDPort = 132,
    NVRAMVarEnd = 133 /* the number of variables */
} EnumNVRAMVar;

/* The 512-byte layout. Every multi-byte field is little-endian in the image. */
typedef struct {
    SD_UINT8 id[4];
    SD_UINT16 nvram_version;
    SD_UINT16 reserved_0;
    SD_UINT16 version;
    SD_UINT16 reserved_1;
    SD_UINT16 frame_payload_size;
    SD_UINT16 execution_throttle;
    SD_UINT16 exchange_count;
    SD_UINT16 hard_address;
    SD_UINT8 port_name[8];
    SD_UINT8 node_name[8];
    SD_UINT16 login_retry_count;
    SD_UINT16 link_down_on_nos;
    SD_UINT16 interrupt_delay_timer;
    SD_UINT16 login_timeout;
    SD_UINT32 firmware_options_1;
    SD_UINT32 firmware_options_2;
    SD_UINT32 firmware_options_3;
    SD_UINT16 reserved_2[20];
    SD_UINT16 reserved_3[16];
    SD_UINT16 reserved_4[16];
    SD_UINT16 reserved_5[16];
    SD_UINT16 reserved_6[16];
    SD_UINT16 reserved_7[16];
    SD_UINT32 host_p;
    SD_UINT8 alternate_port_name[8];
    SD_UINT8 alternate_node_name[8];
    SD_UINT8 boot_port_name[8];
    SD_UINT16 boot_lun_number;
    SD_UINT16 reserved_8;
    SD_UINT8 alt1_boot_port_name[8];
    SD_UINT16 alt1_boot_lun_number;
    SD_UINT16 reserved_9;
    SD_UINT8 alt2_boot_port_name[8];
    SD_UINT16 alt2_boot_lun_number;
    SD_UINT16 reserved_10;
    SD_UINT8 alt3_boot_port_name[8];
    SD_UINT16 alt3_boot_lun_number;
    SD_UINT16 reserved_11;
    SD_UINT8 efi_parameters;
    SD_UINT8 efi_parameters1;
    SD_UINT8 efi_parameters2;
    SD_UINT8 efi_parameters3;
    SD_UINT8 reset_delay;
    SD_UINT8 reserved_15;
    SD_UINT16 reserved_16;
    SD_UINT16 boot_id_number;
    SD_UINT16 reserved_17;
    SD_UINT16 max_luns_per_target;
    SD_UINT16 reserved_18;
    SD_UINT16 port_down_retry_count;
    SD_UINT16 link_down_timeout;
    SD_UINT16 reserved_19[4];
    SD_UINT8 prev_drv_ver_major;
    SD_UINT8 prev_drv_ver_submajob; /* spelled so */
    SD_UINT8 prev_drv_ver_minor;
    SD_UINT8 prev_drv_ver_subminor;
    SD_UINT16 prev_bios_ver_major;
    SD_UINT16 prev_bios_ver_minor;
    SD_UINT16 prev_efi_ver_major;
    SD_UINT16 prev_efi_ver_minor;
    SD_UINT16 prev_fw_ver_major;
    SD_UINT8 prev_fw_ver_minor;
    SD_UINT8 prev_fw_ver_subminor;
    SD_UINT16 reserved_20[8];
    SD_UINT16 reserved_21[11];
    SD_UINT16 enhanced_features;
    SD_UINT16 reserved_22;
    SD_UINT16 reserved_23;
    SD_UINT16 enable_fabric_assg_boot_lun;
    SD_UINT16 reserved_24;
    SD_UINT16 reserved_25[16];
    SD_UINT16 reserved_26[16];
    SD_UINT8 model_name[16];
    SD_UINT16 reserved_27[2];
    SD_UINT16 pcie_table_sig;
    SD_UINT16 pcie_table_offset;
    SD_UINT16 subsystem_vendor_id;
    SD_UINT16 subsystem_device_id;
    SD_UINT32 checksum;
} nvram_swift;

VXSD_STATIC_ASSERT(sizeof(nvram_swift) == NVRAM_SWIFT_IMAGE_SIZE, "nvram_swift size");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, nvram_version) == 4, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, version) == 8, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, frame_payload_size) == 12, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, execution_throttle) == 14, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, exchange_count) == 16, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, hard_address) == 18, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, port_name) == 20, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, node_name) == 28, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, login_retry_count) == 36, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, link_down_on_nos) == 38, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, interrupt_delay_timer) == 40, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, login_timeout) == 42, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, firmware_options_1) == 44, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, firmware_options_2) == 48, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, firmware_options_3) == 52, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_2) == 56, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_3) == 96, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_7) == 224, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, host_p) == 256, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, alternate_port_name) == 260, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, alternate_node_name) == 268, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, boot_port_name) == 276, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, boot_lun_number) == 284, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_8) == 286, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, alt1_boot_port_name) == 288, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, alt1_boot_lun_number) == 296, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_9) == 298, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, alt2_boot_port_name) == 300, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, alt2_boot_lun_number) == 308, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_10) == 310, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, alt3_boot_port_name) == 312, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, alt3_boot_lun_number) == 320, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_11) == 322, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, efi_parameters) == 324, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, efi_parameters3) == 327, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reset_delay) == 328, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_15) == 329, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_16) == 330, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, boot_id_number) == 332, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_17) == 334, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, max_luns_per_target) == 336, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_18) == 338, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, port_down_retry_count) == 340, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, link_down_timeout) == 342, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_19) == 344, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, prev_drv_ver_major) == 352, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, prev_drv_ver_subminor) == 355, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, prev_bios_ver_major) == 356, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, prev_fw_ver_major) == 364, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, prev_fw_ver_minor) == 366, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, prev_fw_ver_subminor) == 367, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_20) == 368, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_21) == 384, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, enhanced_features) == 406, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_22) == 408, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, enable_fabric_assg_boot_lun) == 412, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_24) == 414, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_25) == 416, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_26) == 448, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, model_name) == 480, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, reserved_27) == 496, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, pcie_table_sig) == 500, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, pcie_table_offset) == 502, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, subsystem_vendor_id) == 504, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, subsystem_device_id) == 506, "nvram_swift layout");
VXSD_STATIC_ASSERT(offsetof(nvram_swift, checksum) == 508, "nvram_swift layout");

#ifdef __cplusplus
extern "C" {
#endif

/* Variables of a 256-byte image. The getter returns the value (0 for a
 * number of NVRAMVarEnd or more, or a null image); the setter returns 0, or
 * SDM_STATUS_INVALID_PARAMETER for such a number or a null image. Values
 * wider than the field are cut to its width. NVRAMVarId reads the first four
 * bytes as a little-endian word but is written most significant byte first,
 * as a string (up to and including its first zero byte). */
VXSD_API SD_UINT32 VXSDNVR_GetVariableValue(const SD_UINT8* pNVRamStruct, SD_UINT32 parmNumber);
VXSD_API SD_UINT32 VXSDNVR_SetVariableValue(SD_UINT8* pNVRamStruct, SD_UINT32 parmNumber, SD_UINT32 dwSetValue);

/* The same on a 512-byte nvram_swift image. Variables the layout does not
 * have read 0 and ignore writes. */
VXSD_API SD_UINT32 VXSDNVR_GetVariableValue_swift(const nvram_swift* nvram, SD_UINT32 nvar);
VXSD_API SD_UINT32 VXSDNVR_SetVariableValue_swift(nvram_swift* nvram, SD_UINT32 nvar, SD_UINT32 setto);

/* Display text of a variable, or NULL past the end of the text table (from
 * 129 on). The texts stand one place early from 94 on (93 holds two run
 * together), and stay so: saved settings refer to them by number. The image
 * is not read. */
VXSD_API const char* VXSDNVR_GetVariableDescription(const SD_UINT8* pNVRamStruct, SD_UINT32 parmNumber);

/* 0 when the variable is read-only (visible) for the adapter class the image
 * names (NVRAMVarSubSystemDeviceID1 of the 256-byte view, even for a 512-byte
 * image), SDM_STATUS_UNKNOWN_ERROR when not, SDM_STATUS_INVALID_PARAMETER for
 * a bad number or a null image. Advisory: the setters do not refuse. */
VXSD_API SD_UINT32 VXSDNVR_IsVariableReadOnly(const SD_UINT8* pNVRamStruct, SD_UINT32 parmNumber);
VXSD_API SD_UINT32 VXSDNVR_IsVariableVisible(const SD_UINT8* pNVRamStruct, SD_UINT32 parmNumber);

/* A variable of a port's image (from SDGetNVRam), in the layout of the
 * port's family. SDGetVariableValue returns the value itself, or
 * SDM_STATUS_INVALID_HANDLE for a bad handle (a value of 0x20000065 reads
 * the same) or SDM_STATUS_INVALID_PARAMETER for a null image. */
VXSD_API SD_UINT32 SDGetVariableValue(int Device, const SD_UINT8* pNVRam, SD_UINT32 parmNumber);
VXSD_API SD_UINT32 SDSetVariableValue(int Device, SD_UINT8* pNVRam, SD_UINT32 parmNumber, SD_UINT32 dwSetValue);

#ifdef __cplusplus
}
#endif

#endif /* VSDNVRAM_H */
