// Common HBA API vendor library: the handlers the SNIA wrapper calls through
// the entry-point tables, and the copies of driver records into the
// standard's records. Internal: only the two registration functions are
// exported.
#pragma once

#include <time.h>  // the SNIA header uses struct tm without including it

#include <hbaapi.h>
#include <vendorhbaapi.h>

#include <cstddef>
#include <cstdint>

#include "exioct.h"
#include "vx_core.h"
#include "vx_sddbg.h"

// Slots of the two tables as the wrapper's header lays them out.
inline constexpr size_t VXHBA_SLOTS_V1 = sizeof(HBA_ENTRYPOINTS) / sizeof(void*);
inline constexpr size_t VXHBA_SLOTS_V2 = sizeof(HBA_ENTRYPOINTSV2) / sizeof(void*);
static_assert(VXHBA_SLOTS_V1 == 24);
static_assert(VXHBA_SLOTS_V2 == 54);

// Driver status (and, for status 15, the SCSI status in the low byte of the
// detail status) to HBA_STATUS. The only status mapping of the interface.
HBA_STATUS vxapi_translate_to_capi_status(uint32_t ext_stat, uint32_t ext_dstat);

// FC-4 type of FCP: the only traffic the adapter counts by type.
inline constexpr HBA_UINT8 VX_FC4_TYPE_FCP = 0x08;

// ---- Record copies ----
// The port's counters: all ones first (a counter the adapter does not keep
// reads as -1), then the driver's; frame and NOS counters only on the
// families from Swift on and the converged ones.
void vxcapi_copy_port_statistics(const vxapi_priv_database* inst, const EXT_HBA_PORT_STAT* stat,
                                 HBA_PORTSTATISTICS* out);
// The standard's speed bits of a driver speed code; 0 for codes it lacks.
HBA_PORTSPEED vxcapi_supported_speed(uint8_t code);
HBA_PORTSPEED vxcapi_port_speed(uint8_t code);
// True for the families whose VPD identifier string is the model description.
bool vxcapi_vpd_names_model(uint16_t device_id);
// VPD buffer of the node copy: the family's VPD size, and 1024 bytes on the
// converged families.
uint32_t vxcapi_node_vpd_size(uint16_t device_id);

void vxcapi_copy_hbanode_attributes(vxapi_priv_database* inst, const EXT_HBA_NODE* node,
                                    HBA_ADAPTERATTRIBUTES* attrs);
void vxcapi_copy_hbaport_attributes(vxapi_priv_database* inst, const EXT_HBA_PORT* port,
                                    HBA_PORTATTRIBUTES* attrs);
void vxcapi_copy_discport_attributes(vxapi_priv_database* inst, const EXT_DISC_PORT* disc,
                                     HBA_PORTATTRIBUTES* attrs);
// The FC address of an Id (byte 0 unused, bytes 1-3 most significant first)
// as one number: 01 02 00 gives 0x010200.
HBA_UINT32 vxcapi_fcid(const uint8_t id[4]);

// The discovered port of the handle's port whose node name (NODE_WWN) or
// port name (PORT_WWN) is `wwn`, found by walking the driver's list (the
// first one of that name). HBA_STATUS_ERROR_ILLEGAL_WWN when none; a failed
// query gives its status, traced under `name`.
HBA_STATUS vxcapi_find_discport(const char* name, HBA_HANDLE handle, vxapi_priv_database* inst, const HBA_WWN& wwn,
                                HBA_WWNTYPE type, EXT_DISC_PORT* found);

// ---- Helpers of the handler files ----
// "<name>(<handle>)<text>" with an optional number, under the trace mask
// `guard`.
void vxcapi_trace(uint32_t guard, const char* name, HBA_HANDLE handle, const char* text, uint64_t number = 0,
                  uint8_t radix = VXDBG_NONE);
// The open port a handle names, or null (traced under `name`).
vxapi_priv_database* vxcapi_resolve(const char* name, HBA_HANDLE handle);
// Whether `wwn` is the 8-byte name `name`.
bool vxcapi_same_wwn(const HBA_WWN& wwn, const uint8_t* name);

// The operating system's name of the SCSI target `target_id` behind the port
// ("targetH:0:T", the kernel's device of a target), `len` bytes at most.
// Empty, with result 1, when the host has no such target.
int vxapi_get_tgt_osdevname(const vxapi_priv_database* inst, uint16_t target_id, char* name, size_t len);

// ---- Handlers (slot order of HBA_ENTRYPOINTSV2) ----
HBA_UINT32 vxhba_GetVersion();
HBA_STATUS vxhba_LoadLibrary();
HBA_STATUS vxhba_FreeLibrary();
HBA_UINT32 vxhba_GetNumberOfAdapters();
HBA_STATUS vxhba_GetAdapterName(HBA_UINT32 index, char* name);
HBA_HANDLE vxhba_OpenAdapter(char* name);
void vxhba_CloseAdapter(HBA_HANDLE handle);
HBA_STATUS vxhba_GetAdapterAttributes(HBA_HANDLE handle, HBA_ADAPTERATTRIBUTES* attrs);
HBA_STATUS vxhba_GetAdapterPortAttributes(HBA_HANDLE handle, HBA_UINT32 port, HBA_PORTATTRIBUTES* attrs);
HBA_STATUS vxhba_GetPortStatistics(HBA_HANDLE handle, HBA_UINT32 port, HBA_PORTSTATISTICS* stats);
HBA_STATUS vxhba_GetDiscoveredPortAttributes(HBA_HANDLE handle, HBA_UINT32 port, HBA_UINT32 disc,
                                             HBA_PORTATTRIBUTES* attrs);
HBA_STATUS vxhba_GetPortAttributesByWWN(HBA_HANDLE handle, HBA_WWN wwn, HBA_PORTATTRIBUTES* attrs);
// The discovered port of this WWPN, found by walking the port's list.
HBA_STATUS vxhba_GetDiscPortAttrByWWN(HBA_HANDLE handle, HBA_WWN wwn, HBA_PORTATTRIBUTES* attrs);
HBA_STATUS vxhba_SendCTPassThru(HBA_HANDLE handle, void* req, HBA_UINT32 req_size, void* rsp, HBA_UINT32 rsp_size);
void vxhba_RefreshInformation(HBA_HANDLE handle);
void vxhba_ResetStatistics(HBA_HANDLE handle, HBA_UINT32 port);
HBA_STATUS vxhba_GetFcpTargetMapping(HBA_HANDLE handle, HBA_FCPTARGETMAPPING* mapping);
HBA_STATUS vxhba_GetFcpPersistentBinding(HBA_HANDLE handle, HBA_FCPBINDING* binding);
HBA_STATUS vxhba_GetEventBuffer(HBA_HANDLE handle, HBA_EVENTINFO* info, HBA_UINT32* count);
HBA_STATUS vxhba_SetRNIDMgmtInfo(HBA_HANDLE handle, HBA_MGMTINFO* info);
HBA_STATUS vxhba_GetRNIDMgmtInfo(HBA_HANDLE handle, HBA_MGMTINFO* info);
HBA_STATUS vxhba_SendRNID(HBA_HANDLE handle, HBA_WWN wwn, HBA_WWNTYPE type, void* rsp, HBA_UINT32* rsp_size);
HBA_STATUS vxhba_SendScsiInquiry(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_UINT64 lun, HBA_UINT8 evpd,
                                 HBA_UINT32 page, void* rsp, HBA_UINT32 rsp_size, void* sense,
                                 HBA_UINT32 sense_size);
HBA_STATUS vxhba_SendReportLUNs(HBA_HANDLE handle, HBA_WWN port_wwn, void* rsp, HBA_UINT32 rsp_size, void* sense,
                                HBA_UINT32 sense_size);
HBA_STATUS vxhba_SendReadCapacity(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_UINT64 lun, void* rsp,
                                  HBA_UINT32 rsp_size, void* sense, HBA_UINT32 sense_size);
HBA_STATUS vxhba_OpenAdapterByWWN(HBA_HANDLE* handle, HBA_WWN wwn);
HBA_STATUS vxhba_FcpTargetMappingV2(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_FCPTARGETMAPPINGV2* mapping);
HBA_STATUS vxhba_SendCTPassThruV2(HBA_HANDLE handle, HBA_WWN port_wwn, void* req, HBA_UINT32 req_size, void* rsp,
                                  HBA_UINT32* rsp_size);
void vxhba_RefreshAdapterConfiguration();
HBA_STATUS vxhba_GetBindingCapability(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_BIND_CAPABILITY* caps);
HBA_STATUS vxhba_GetBindingSupport(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_BIND_CAPABILITY* caps);
HBA_STATUS vxhba_SetBindingSupport(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_BIND_CAPABILITY caps);
HBA_STATUS vxhba_SetPersistentBindingV2(HBA_HANDLE handle, HBA_WWN port_wwn, const HBA_FCPBINDING2* binding);
HBA_STATUS vxhba_GetPersistentBindingV2(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_FCPBINDING2* binding);
HBA_STATUS vxhba_RemovePersistentBinding(HBA_HANDLE handle, HBA_WWN port_wwn, const HBA_FCPBINDING2* binding);
HBA_STATUS vxhba_RemoveAllPersistentBindings(HBA_HANDLE handle, HBA_WWN port_wwn);
HBA_STATUS vxhba_SendRNIDV2(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_WWN dest_wwn, HBA_UINT32 dest_fcid,
                            HBA_UINT32 node_id_format, void* rsp, HBA_UINT32* rsp_size);
HBA_STATUS vxhba_ScsiInquiryV2(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_WWN target_wwn, HBA_UINT64 lun,
                               HBA_UINT8 cdb1, HBA_UINT8 cdb2, void* rsp, HBA_UINT32* rsp_size,
                               HBA_UINT8* scsi_status, void* sense, HBA_UINT32* sense_size);
HBA_STATUS vxhba_ScsiReportLUNsV2(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_WWN target_wwn, void* rsp,
                                  HBA_UINT32* rsp_size, HBA_UINT8* scsi_status, void* sense,
                                  HBA_UINT32* sense_size);
HBA_STATUS vxhba_ScsiReadCapacityV2(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_WWN target_wwn, HBA_UINT64 lun,
                                    void* rsp, HBA_UINT32* rsp_size, HBA_UINT8* scsi_status, void* sense,
                                    HBA_UINT32* sense_size);
HBA_UINT32 vxhba_GetVendorLibraryAttributes(HBA_LIBRARYATTRIBUTES* attrs);
HBA_STATUS vxhba_RemoveCallback(HBA_CALLBACKHANDLE cb);
HBA_STATUS vxhba_RegisterForAdapterAddEvents(void (*cb)(void*, HBA_WWN, HBA_UINT32), void* data,
                                             HBA_CALLBACKHANDLE* cbh);
HBA_STATUS vxhba_RegisterForAdapterEvents(void (*cb)(void*, HBA_WWN, HBA_UINT32), void* data, HBA_HANDLE handle,
                                          HBA_CALLBACKHANDLE* cbh);
HBA_STATUS vxhba_RegisterForAdapterPortEvents(void (*cb)(void*, HBA_WWN, HBA_UINT32, HBA_UINT32), void* data,
                                              HBA_HANDLE handle, HBA_WWN port_wwn, HBA_CALLBACKHANDLE* cbh);
HBA_STATUS vxhba_RegisterForAdapterPortStatEvents(void (*cb)(void*, HBA_WWN, HBA_UINT32), void* data,
                                                  HBA_HANDLE handle, HBA_WWN port_wwn, HBA_PORTSTATISTICS stats,
                                                  HBA_UINT32 type, HBA_CALLBACKHANDLE* cbh);
HBA_STATUS vxhba_RegisterForTargetEvents(void (*cb)(void*, HBA_WWN, HBA_WWN, HBA_UINT32), void* data,
                                         HBA_HANDLE handle, HBA_WWN port_wwn, HBA_WWN target_wwn,
                                         HBA_CALLBACKHANDLE* cbh, HBA_UINT32 all_targets);
HBA_STATUS vxhba_RegisterForLinkEvents(void (*cb)(void*, HBA_WWN, HBA_UINT32, void*, HBA_UINT32), void* data,
                                       void* rlir_buffer, HBA_UINT32 rlir_size, HBA_HANDLE handle,
                                       HBA_CALLBACKHANDLE* cbh);
HBA_STATUS vxhba_SendRPL(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_WWN agent_wwn, HBA_UINT32 agent_domain,
                         HBA_UINT32 port_index, void* rsp, HBA_UINT32* rsp_size);
HBA_STATUS vxhba_SendRPS(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_WWN agent_wwn, HBA_UINT32 agent_domain,
                         HBA_WWN object_wwn, HBA_UINT32 object_port, void* rsp, HBA_UINT32* rsp_size);
HBA_STATUS vxhba_SendSRL(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_WWN wwn, HBA_UINT32 domain, void* rsp,
                         HBA_UINT32* rsp_size);
HBA_STATUS vxhba_SendLIRR(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_WWN dest_wwn, HBA_UINT8 function,
                          HBA_UINT8 type, void* rsp, HBA_UINT32* rsp_size);
HBA_STATUS vxhba_GetFC4Statistics(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_UINT8 fc4_type,
                                  HBA_FC4STATISTICS* stats);
HBA_STATUS vxhba_GetFCPStatistics(HBA_HANDLE handle, const HBA_SCSIID* lunit, HBA_FC4STATISTICS* stats);
HBA_STATUS vxhba_SendRLS(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_WWN dest_wwn, void* rsp, HBA_UINT32* rsp_size);
