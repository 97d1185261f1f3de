/* Varnex storage device management interface (the SD functions).
 *
 * Every SD function returns an SD_UINT32 status: 0 is success, values with
 * bit 29 set are the library's own codes (SDM_STATUS_...), and a small
 * non-zero value is an operating-system error number passed through.
 * SDGetErrorString() gives the text of any status.
 *
 * The header is plain C so that C and C++ management applications can use it.
 */
#ifndef VSDMGT_H
#define VSDMGT_H

#include <stdint.h>

typedef uint8_t SD_UINT8;
typedef int8_t SD_INT8;
typedef uint16_t SD_UINT16;
typedef uint32_t SD_UINT32;
typedef uint64_t SD_UINT64;

#if defined(__GNUC__)
#define VXSD_API __attribute__((visibility("default")))
#else
#define VXSD_API
#endif

/* Library build version, as SDGetVersion() reports it. */
#define SDM_VERSION_TEXT "v6.04 build12"
#define SDM_VERSION_NUMBER 0x06040C00u

/* Status codes (texts: SDGetErrorString). */
#define SDM_STATUS_SUCCESS 0x00000000u
#define SDM_STATUS_SCSI_CHECK_CONDITION 0x20000040u
#define SDM_STATUS_SCSI_CONDITION_MET 0x20000041u
#define SDM_STATUS_SCSI_BUSY 0x20000042u
#define SDM_STATUS_SCSI_INTERMEDIATE 0x20000043u
#define SDM_STATUS_SCSI_INTERMEDIATE_CONDITION_MET 0x20000044u
#define SDM_STATUS_SCSI_RESERVATION_CONFLICT 0x20000045u
#define SDM_STATUS_SCSI_COMMAND_TERMINATED 0x20000046u
#define SDM_STATUS_SCSI_QUEUE_FULL 0x20000047u
#define SDM_STATUS_SCSI_UNKNOWN_STATUS 0x20000049u
#define SDM_STATUS_INVALID_PARAMETER 0x20000064u
#define SDM_STATUS_INVALID_HANDLE 0x20000065u
#define SDM_STATUS_NOT_SUPPORTED 0x20000066u
#define SDM_STATUS_DEVICE_BUSY 0x20000067u
#define SDM_STATUS_REQUEST_PENDING 0x20000068u
#define SDM_STATUS_REQUEST_SUSPENDED 0x20000069u
#define SDM_STATUS_REQUEST_RETRY_PENDING 0x2000006Au
#define SDM_STATUS_DATA_OVERRUN 0x2000006Bu
#define SDM_STATUS_DATA_UNDERRUN 0x2000006Cu
#define SDM_STATUS_DEVICE_NOT_FOUND 0x2000006Du
#define SDM_STATUS_COPY_MEMORY_FAILED 0x2000006Eu
#define SDM_STATUS_MAILBOX_FAILED 0x2000006Fu
#define SDM_STATUS_INVALID_SUBCODE 0x20000070u
#define SDM_STATUS_UNSUPPORTED_VERSION 0x20000071u
#define SDM_STATUS_BUFFER_TOO_SMALL 0x20000072u
#define SDM_STATUS_INVALID_REQUEST 0x20000073u
#define SDM_STATUS_OUT_OF_MEMORY 0x20000074u
#define SDM_STATUS_UNKNOWN_ERROR 0x20000075u
#define SDM_STATUS_INVALID_CONFIG 0x20000076u
#define SDM_STATUS_NOT_FROM_DEVICE 0x20000077u
#define SDM_STATUS_NVRAM_CHECKSUM 0x2000007Du
#define SDM_STATUS_FIRMWARE_STATE 0x2000007Eu
/* Flash updates (no text of their own: they print as unknown). */
#define SDM_STATUS_IMAGE_EXCEEDS_REGION 0x20000084u
#define SDM_STATUS_FLASH_TOKEN_HELD 0x200000C0u
#define SDM_STATUS_FLASH_TOKEN_EXPIRED 0x200000C1u
#define SDM_STATUS_FLASH_TOKEN_NOT_SET 0x200000C2u
#define SDM_STATUS_REGION_RESET_FAILED 0x20000100u
#define SDM_STATUS_VPD_VERSION_FAILED 0x20000106u
#define SDM_STATUS_INVALID_REGION 0x20000109u

#ifdef __cplusplus
extern "C" {
#endif

/* Status texts and driver-status translation. */
VXSD_API char* SDGetErrorString(SD_UINT32 ErrorCode);
VXSD_API uint32_t SDXlateSDMErr(uint32_t ext_stat, uint32_t ext_dstat);

/* Library version: writes SDM_VERSION_TEXT into buf when buf is not NULL
 * (the caller provides at least 14 bytes) and returns SDM_VERSION_NUMBER. */
VXSD_API SD_UINT32 SDGetVersion(char* buf);

/* Number of adapter ports (physical and virtual) the library found. The
 * first call loads the library and discovers the adapters; 0 when the load
 * failed (for example when not running as root) or found nothing. */
VXSD_API SD_UINT32 SDGetNumberOfAdapters(void);

/* Opens the port with the given instance number (0 .. count - 1) and stores
 * its handle in *pDevice. Opening a port again returns the same handle. */
VXSD_API SD_UINT32 SDOpenDevice(SD_UINT32 UserAdapterNumber, int* pDevice);

/* Closes one open of the port. When no port of the process stays open, the
 * library unloads; the next SDOpenDevice discovers the adapters afresh. */
VXSD_API SD_UINT32 SDCloseDevice(int Device);

/* Installs handlers for SIGHUP, SIGINT, SIGQUIT and SIGTERM that unload the
 * library and then end the process as the signal would have. */
VXSD_API void vxapi_setup_signal_handlers(void);

#ifdef __cplusplus
}
#endif

#include "vsdmgtln.h"

#endif /* VSDMGT_H */
