// The SD layer's shared frame: traces, handle resolution and the status of
// a failed request. Internal: nothing here is exported.
#pragma once

#include <cstdint>

#include "inioct.h"
#include "vx_core.h"
#include "vx_sddbg.h"

namespace vxsd {

inline constexpr uint32_t SD_TRACE = VXDBG_TRACE | VXDBG_SDAPI;
inline constexpr uint32_t SD_ERROR = VXDBG_ERROR | VXDBG_SDAPI;

// "<name>(<handle>)<text>" with an optional number.
void trace_call(uint32_t guard, const char* name, int handle, const char* text, uint64_t number = 0,
                uint8_t radix = VXDBG_NONE);
void trace_entry(const char* name, int handle);
void trace_exit(const char* name, int handle, uint32_t ret);
// check_handle with the failure trace every call shares.
vxapi_priv_database* resolve(const char* name, int handle);
// A null record or buffer: traced, 0x20000064.
uint32_t null_record(const char* name, int handle);
// An ioctl that failed without errno still must not read as success.
uint32_t errno_status();
// The region of the current layout with this code (first 255 regions), or null.
const INT_OPT_ROM_REGION* current_region(uint32_t code);
// Driver statuses with which a record still arrives: success, overrun, underrun.
bool tolerated(uint32_t ext_stat);
// Status rule of the node, port, discovered-port and converged-port calls:
// a data overrun or underrun still delivers the record. `convert` tells
// whether the record is to be converted; the status is returned.
uint32_t record_status(const char* name, int handle, int32_t rc, uint32_t ext_stat, bool* convert);
// The status of a failed flash, NVRAM or VPD request: the driver's status
// when it gave one, else errno for a failed ioctl, else "unknown error".
uint32_t failure_status(int32_t rc, uint32_t ext_stat);
// The port whose flash a request reaches: a virtual port shares its
// physical port's.
vxapi_priv_database* flash_port(vxapi_priv_database* inst);

}  // namespace vxsd

// The two write paths behind the option ROM updates (vx_sdapi_flash): with
// the preservation of the adapter's settings, SVID and VPD, and as the
// image stands. SD statuses.
uint32_t SDUpdateOptionRomCommon(int Device, uint8_t* pBuffer, uint32_t BufferSize, uint32_t region,
                                 uint32_t region_index, vxapi_priv_database* inst);
uint32_t SDUpdateOptionRomCommonEx2(int Device, uint8_t* pBuffer, uint32_t BufferSize, uint32_t region,
                                    uint32_t region_index, vxapi_priv_database* inst);
