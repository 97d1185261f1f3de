// Common HBA API vendor library: registration with the SNIA wrapper, load,
// count, name, open and close, the attribute handlers, and the status
// mapping every handler that talks to the driver shares.
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "vx_adapters.h"
#include "vx_capi.h"
#include "vx_channel.h"
#include "vx_event.h"
#include "vx_sddbg.h"

// ---- Helpers of the handler files ----

void vxcapi_trace(uint32_t guard, const char* name, HBA_HANDLE handle, const char* text, uint64_t number,
                  uint8_t radix) {
    if (!vxdbg_on(guard))
        return;
    vxdbg_print(name, 0, VXDBG_NONE, 0);
    vxdbg_print("(", handle, VXDBG_DEC, 0);
    vxdbg_print(text, number, radix, 1);
}

vxapi_priv_database* vxcapi_resolve(const char* name, HBA_HANDLE handle) {
    vxapi_priv_database* inst = check_handle(handle);
    if (!inst && vxdbg_on(VXDBG_ERROR | VXDBG_HBAAPI)) {
        vxdbg_print(name, 0, VXDBG_NONE, 0);
        vxdbg_print(": check_handle failed. handle=", handle, VXDBG_DEC, 1);
    }
    return inst;
}

bool vxcapi_same_wwn(const HBA_WWN& wwn, const uint8_t* name) { return memcmp(wwn.wwn, name, sizeof wwn.wwn) == 0; }

namespace {

constexpr uint32_t TRC = VXDBG_TRACE | VXDBG_HBAAPI;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_HBAAPI;

constexpr size_t ADAPTER_NAME_LEN = 256;  // the wrapper's name buffers
constexpr uint32_t MAX_DISC_INDEX = 0x10000;  // the driver numbers discovered ports in 16 bits


void trace_entry(const char* name, uint32_t handle) { vxcapi_trace(TRC, name, handle, "): entered."); }

HBA_STATUS trace_exit(const char* name, uint32_t handle, HBA_STATUS status) {
    vxcapi_trace(TRC, name, handle, "): exiting. ret=", status, VXDBG_DEC);
    return status;
}

HBA_STATUS null_record(const char* name, HBA_HANDLE handle) {
    vxcapi_trace(ERR, name, handle, "): null record.");
    return HBA_STATUS_ERROR_ARG;
}

bool tolerated(uint32_t ext_stat) {
    return ext_stat == EXT_STATUS_OK || ext_stat == EXT_STATUS_DATA_OVERRUN || ext_stat == EXT_STATUS_DATA_UNDERRUN;
}

// Status of a query whose record is then copied: an untolerated driver
// status is translated, a query that failed without one is an error.
HBA_STATUS query_status(const char* name, HBA_HANDLE handle, int32_t rc, uint32_t ext_stat, uint32_t ext_dstat = 0) {
    if (!tolerated(ext_stat)) {
        vxcapi_trace(ERR, name, handle, "): bad stat ", ext_stat, VXDBG_DEC);
        return vxapi_translate_to_capi_status(ext_stat, ext_dstat);
    }
    if (rc != 0) {
        vxcapi_trace(ERR, name, handle, "): query failed ", static_cast<uint64_t>(static_cast<uint32_t>(rc)), VXDBG_DEC);
        return HBA_STATUS_ERROR;
    }
    return HBA_STATUS_OK;
}

// Each handle is one port: the only port index is 0.
HBA_STATUS port_index(const char* name, HBA_HANDLE handle, HBA_UINT32 port) {
    if (port == 0)
        return HBA_STATUS_OK;
    vxcapi_trace(ERR, name, handle, "): bad port index ", port, VXDBG_DEC);
    return HBA_STATUS_ERROR_ILLEGAL_INDEX;
}

HBA_STATUS not_supported(const char* name) {
    vxdbg_line(TRC, name);
    return HBA_STATUS_ERROR_NOT_SUPPORTED;
}


// The slots both table versions share, in slot order.
template <typename Table>
void fill_common(Table* t) {
    t->GetVersionHandler = vxhba_GetVersion;
    t->LoadLibraryHandler = vxhba_LoadLibrary;
    t->FreeLibraryHandler = vxhba_FreeLibrary;
    t->GetNumberOfAdaptersHandler = vxhba_GetNumberOfAdapters;
    t->GetAdapterNameHandler = vxhba_GetAdapterName;
    t->OpenAdapterHandler = vxhba_OpenAdapter;
    t->CloseAdapterHandler = vxhba_CloseAdapter;
    t->GetAdapterAttributesHandler = vxhba_GetAdapterAttributes;
    t->GetAdapterPortAttributesHandler = vxhba_GetAdapterPortAttributes;
    t->GetPortStatisticsHandler = vxhba_GetPortStatistics;
    t->GetDiscoveredPortAttributesHandler = vxhba_GetDiscoveredPortAttributes;
    t->GetPortAttributesByWWNHandler = vxhba_GetPortAttributesByWWN;
    t->SendCTPassThruHandler = vxhba_SendCTPassThru;
    t->RefreshInformationHandler = vxhba_RefreshInformation;
    t->ResetStatisticsHandler = vxhba_ResetStatistics;
    t->GetFcpTargetMappingHandler = vxhba_GetFcpTargetMapping;
    t->GetFcpPersistentBindingHandler = vxhba_GetFcpPersistentBinding;
    t->GetEventBufferHandler = vxhba_GetEventBuffer;
    t->SetRNIDMgmtInfoHandler = vxhba_SetRNIDMgmtInfo;
    t->GetRNIDMgmtInfoHandler = vxhba_GetRNIDMgmtInfo;
    t->SendRNIDHandler = vxhba_SendRNID;
    t->ScsiInquiryHandler = vxhba_SendScsiInquiry;
    t->ReportLUNsHandler = vxhba_SendReportLUNs;
    t->ReadCapacityHandler = vxhba_SendReadCapacity;
}

}  // namespace

// ---- Registration ----

// The wrapper always passes its own table; a null one is refused rather
// than written through.
extern "C" __attribute__((visibility("default"))) HBA_STATUS HBA_RegisterLibrary(HBA_ENTRYPOINTS* functionTable) {
    vxdbg_line(TRC, "HBA_RegisterLibrary: entered.");
    if (!functionTable)
        return HBA_STATUS_ERROR_ARG;
    fill_common(functionTable);
    return HBA_STATUS_OK;
}

extern "C" __attribute__((visibility("default"))) HBA_STATUS HBA_RegisterLibraryV2(HBA_ENTRYPOINTSV2* functionTable) {
    vxdbg_line(TRC, "HBA_RegisterLibraryV2: entered.");
    if (!functionTable)
        return HBA_STATUS_ERROR_ARG;
    HBA_ENTRYPOINTSV2* t = functionTable;
    fill_common(t);
    t->OpenAdapterByWWNHandler = vxhba_OpenAdapterByWWN;
    t->GetFcpTargetMappingV2Handler = vxhba_FcpTargetMappingV2;
    t->SendCTPassThruV2Handler = vxhba_SendCTPassThruV2;
    t->RefreshAdapterConfigurationHandler = vxhba_RefreshAdapterConfiguration;
    t->GetBindingCapabilityHandler = vxhba_GetBindingCapability;
    t->GetBindingSupportHandler = vxhba_GetBindingSupport;
    t->SetBindingSupportHandler = vxhba_SetBindingSupport;
    t->SetPersistentBindingV2Handler = vxhba_SetPersistentBindingV2;
    t->GetPersistentBindingV2Handler = vxhba_GetPersistentBindingV2;
    t->RemovePersistentBindingHandler = vxhba_RemovePersistentBinding;
    t->RemoveAllPersistentBindingsHandler = vxhba_RemoveAllPersistentBindings;
    t->SendRNIDV2Handler = vxhba_SendRNIDV2;
    t->ScsiInquiryV2Handler = vxhba_ScsiInquiryV2;
    t->ScsiReportLUNsV2Handler = vxhba_ScsiReportLUNsV2;
    t->ScsiReadCapacityV2Handler = vxhba_ScsiReadCapacityV2;
    t->GetVendorLibraryAttributesHandler = vxhba_GetVendorLibraryAttributes;
    t->RemoveCallbackHandler = vxhba_RemoveCallback;
    t->RegisterForAdapterAddEventsHandler = vxhba_RegisterForAdapterAddEvents;
    t->RegisterForAdapterEventsHandler = vxhba_RegisterForAdapterEvents;
    t->RegisterForAdapterPortEventsHandler = vxhba_RegisterForAdapterPortEvents;
    t->RegisterForAdapterPortStatEventsHandler = vxhba_RegisterForAdapterPortStatEvents;
    t->RegisterForTargetEventsHandler = vxhba_RegisterForTargetEvents;
    t->RegisterForLinkEventsHandler = vxhba_RegisterForLinkEvents;
    t->SendRPLHandler = vxhba_SendRPL;
    t->SendRPSHandler = vxhba_SendRPS;
    t->SendSRLHandler = vxhba_SendSRL;
    t->SendLIRRHandler = vxhba_SendLIRR;
    t->GetFC4StatisticsHandler = vxhba_GetFC4Statistics;
    t->GetFCPStatisticsHandler = vxhba_GetFCPStatistics;
    t->SendRLSHandler = vxhba_SendRLS;
    return HBA_STATUS_OK;
}

// ---- Status ----

HBA_STATUS vxapi_translate_to_capi_status(uint32_t ext_stat, uint32_t ext_dstat) {
    switch (ext_stat) {
    case 0: case 3: case 5: case 7: case 8:
        return HBA_STATUS_OK;
    case 2: case 4: case 23:
        return HBA_STATUS_ERROR_BUSY;
    case 6:
        return HBA_STATUS_ERROR_ARG;
    case 9:
        return HBA_STATUS_ERROR_ILLEGAL_INDEX;
    case 12: case 20:
        return HBA_STATUS_ERROR_NOT_SUPPORTED;
    case EXT_STATUS_SCSI_STATUS:
        switch (ext_dstat & 0xFF) {
        case 0x00: return HBA_STATUS_OK;
        case 0x02: return HBA_STATUS_SCSI_CHECK_CONDITION;
        case 0x08: case 0x18: return HBA_STATUS_ERROR_BUSY;
        default: return HBA_STATUS_ERROR;
        }
    case 16:
        return HBA_STATUS_ERROR_MORE_DATA;
    case 21:
        return HBA_STATUS_ERROR_TARGET_BUSY;
    case 22:
        return HBA_STATUS_ERROR_UNAVAILABLE;
    default:
        return HBA_STATUS_ERROR;
    }
}

// ---- Library ----

HBA_UINT32 vxhba_GetVersion() {
    vxdbg_line(TRC, "vxhba_GetVersion: entered.");
    return HBA_LIBVERSION;
}

HBA_STATUS vxhba_LoadLibrary() {
    vxapi_set_debug_level();
    vxdbg_line(TRC, "vxhba_LoadLibrary: entered.");
    if (vxapi_lib_valid())
        return HBA_STATUS_OK;
    const int rc = vxapi_load_lib();
    HBA_STATUS status = HBA_STATUS_ERROR;
    if (rc == 2)
        status = HBA_STATUS_ERROR_NOT_SUPPORTED;
    else if (rc == 0 && vxapi_lib_valid())
        status = HBA_STATUS_OK;
    vxdbg_num(TRC, "vxhba_LoadLibrary: exiting. ret=", status, VXDBG_DEC, 1);
    return status;
}

HBA_STATUS vxhba_FreeLibrary() {
    vxdbg_line(TRC, "vxhba_FreeLibrary: entered.");
    const HBA_STATUS status = vxapi_unload_lib() == 0 ? HBA_STATUS_OK : HBA_STATUS_ERROR;
    vxdbg_num(TRC, "vxhba_FreeLibrary: exiting. ret=", status, VXDBG_DEC, 1);
    return status;
}

HBA_UINT32 vxhba_GetNumberOfAdapters() {
    vxdbg_line(TRC, "vxhba_GetNumberOfAdapters: entered.");
    if (!vxapi_lib_valid()) {
        vxdbg_line(ERR, "vxhba_GetNumberOfAdapters: library not loaded.");
        return 0;
    }
    HBA_UINT32 count = 0;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&count](vxapi_priv_database*) {
        ++count;
        return true;
    });
    vxdbg_num(TRC, "vxhba_GetNumberOfAdapters: exiting. count=", count, VXDBG_DEC, 1);
    return count;
}

HBA_STATUS vxhba_GetAdapterName(HBA_UINT32 index, char* name) {
    static constexpr const char* fn = "vxhba_GetAdapterName";
    trace_entry(fn, index);
    if (!vxapi_lib_valid()) {
        vxcapi_trace(ERR, fn, index, "): library not loaded.");
        return HBA_STATUS_ERROR;
    }
    const vxapi_priv_database* inst = vxapi_get_api_priv_inst_from_user_instance(index);
    if (!inst) {
        vxcapi_trace(ERR, fn, index, "): no such adapter.");
        return HBA_STATUS_ERROR;
    }
    if (!name)
        return null_record(fn, index);
    vxapi_adapter_name(inst, index, name, ADAPTER_NAME_LEN);
    return trace_exit(fn, index, HBA_STATUS_OK);
}

HBA_HANDLE vxhba_OpenAdapter(char* name) {
    vxapi_set_debug_level();
    const char* shown = name ? name : "(null)";
    const auto trace = [shown](uint32_t guard, const char* text, uint64_t number = 0, uint8_t radix = VXDBG_NONE) {
        if (!vxdbg_on(guard))
            return;
        vxdbg_print("vxhba_OpenAdapter(", 0, VXDBG_NONE, 0);
        vxdbg_print(shown, 0, VXDBG_NONE, 0);
        vxdbg_print(text, number, radix, 1);
    };
    trace(TRC, "): entered.");
    if (!vxapi_lib_valid() || !name) {
        trace(ERR, "): library not loaded or no name.");
        return HBA_HANDLE_INVALID;
    }
    vxapi_priv_database* inst = vxapi_get_api_priv_inst_from_adaptername(name);
    if (!inst) {
        trace(ERR, "): no such adapter.");
        return HBA_HANDLE_INVALID;
    }
    uint32_t handle = 0;
    uint32_t status = 0;
    if (vxapi_open_adapter(inst, &handle, &status) != 0) {
        trace(ERR, "): open error=", status, VXDBG_DEC);
        return HBA_HANDLE_INVALID;
    }
    if (handle == 0) {
        trace(ERR, "): open adapter error.");
        return HBA_HANDLE_INVALID;
    }
    // Events flow from the open on, so that a callback registered later
    // misses nothing the driver queued meanwhile; the last close undoes it.
    uint32_t ev_stat = 0;
    if (vxapi_async_event_reg(inst->oshandle, inst, 1, nullptr, &ev_stat) != 0 || ev_stat != EXT_STATUS_OK)
        trace(ERR, "): event registration failed. stat=", ev_stat, VXDBG_DEC);
    trace(TRC, "): exiting. handle=", handle, VXDBG_DEC);
    return handle;
}

void vxhba_CloseAdapter(HBA_HANDLE handle) {
    static constexpr const char* fn = "vxhba_CloseAdapter";
    trace_entry(fn, handle);
    vxapi_priv_database* inst = vxcapi_resolve(fn, handle);
    if (!inst)
        return;
    if (inst->open_cnt == 1) {
        // The last close: the client's callbacks and the driver's event
        // delivery go with the port's channel.
        vxapi_unreg_all_events(inst);
        uint32_t ev_stat = 0;
        if (vxapi_async_event_reg(inst->oshandle, inst, 0, nullptr, &ev_stat) != 0 || ev_stat != EXT_STATUS_OK)
            vxcapi_trace(ERR, fn, handle, "): event deregistration failed. stat=", ev_stat, VXDBG_DEC);
    }
    uint32_t status = 0;
    if (vxapi_close_adapter(inst, &status) != 0)
        vxcapi_trace(ERR, fn, handle, "): close error=", status, VXDBG_DEC);
    vxcapi_trace(TRC, fn, handle, "): exiting.");
}

// ---- Attributes ----

HBA_STATUS vxhba_GetAdapterAttributes(HBA_HANDLE handle, HBA_ADAPTERATTRIBUTES* attrs) {
    static constexpr const char* fn = "vxhba_GetAdapterAttributes";
    trace_entry(fn, handle);
    vxapi_priv_database* inst = vxcapi_resolve(fn, handle);
    if (!inst)
        return HBA_STATUS_ERROR_INVALID_HANDLE;
    if (!attrs)
        return null_record(fn, handle);
    EXT_HBA_NODE node{};
    uint32_t ext_stat = 0;
    const int32_t rc = vxapi_query_hbanode(inst->oshandle, inst, &node, &ext_stat);
    const HBA_STATUS status = query_status(fn, handle, rc, ext_stat);
    if (status != HBA_STATUS_OK)
        return trace_exit(fn, handle, status);
    vxapi_refresh_node_boot_versions(inst, &node);
    vxcapi_copy_hbanode_attributes(inst, &node, attrs);
    return trace_exit(fn, handle, HBA_STATUS_OK);
}

HBA_STATUS vxhba_GetAdapterPortAttributes(HBA_HANDLE handle, HBA_UINT32 port, HBA_PORTATTRIBUTES* attrs) {
    static constexpr const char* fn = "vxhba_GetAdapterPortAttributes";
    trace_entry(fn, handle);
    vxapi_priv_database* inst = vxcapi_resolve(fn, handle);
    if (!inst)
        return HBA_STATUS_ERROR_INVALID_HANDLE;
    if (!attrs)
        return null_record(fn, handle);
    HBA_STATUS status = port_index(fn, handle, port);
    if (status != HBA_STATUS_OK)
        return status;
    EXT_HBA_PORT record{};
    uint32_t ext_stat = 0;
    const int32_t rc = vxapi_query_hbaport(inst->oshandle, inst, &record, &ext_stat);
    status = query_status(fn, handle, rc, ext_stat);
    if (status == HBA_STATUS_OK)
        vxcapi_copy_hbaport_attributes(inst, &record, attrs);
    return trace_exit(fn, handle, status);
}

HBA_STATUS vxhba_GetDiscoveredPortAttributes(HBA_HANDLE handle, HBA_UINT32 port, HBA_UINT32 disc,
                                             HBA_PORTATTRIBUTES* attrs) {
    static constexpr const char* fn = "vxhba_GetDiscoveredPortAttributes";
    trace_entry(fn, handle);
    vxapi_priv_database* inst = vxcapi_resolve(fn, handle);
    if (!inst)
        return HBA_STATUS_ERROR_INVALID_HANDLE;
    if (!attrs)
        return null_record(fn, handle);
    HBA_STATUS status = port_index(fn, handle, port);
    if (status != HBA_STATUS_OK)
        return status;
    EXT_DISC_PORT record{};
    uint32_t ext_stat = 0;
    // The driver numbers discovered ports in 16 bits; the index is taken so.
    const int32_t rc = vxapi_query_discport(inst->oshandle, inst, static_cast<uint16_t>(disc), &record, &ext_stat);
    status = query_status(fn, handle, rc, ext_stat);
    if (status == HBA_STATUS_OK)
        vxcapi_copy_discport_attributes(inst, &record, attrs);
    return trace_exit(fn, handle, status);
}

HBA_STATUS vxhba_GetPortAttributesByWWN(HBA_HANDLE handle, HBA_WWN wwn, HBA_PORTATTRIBUTES* attrs) {
    static constexpr const char* fn = "vxhba_GetPortAttributesByWWN";
    trace_entry(fn, handle);
    vxapi_priv_database* inst = vxcapi_resolve(fn, handle);
    if (!inst)
        return HBA_STATUS_ERROR_INVALID_HANDLE;
    if (!attrs)
        return null_record(fn, handle);
    if (!vxcapi_same_wwn(wwn, inst->wwpn))
        return trace_exit(fn, handle, vxhba_GetDiscPortAttrByWWN(handle, wwn, attrs));
    return trace_exit(fn, handle, vxhba_GetAdapterPortAttributes(handle, 0, attrs));
}

HBA_STATUS vxhba_GetDiscPortAttrByWWN(HBA_HANDLE handle, HBA_WWN wwn, HBA_PORTATTRIBUTES* attrs) {
    static constexpr const char* fn = "vxhba_GetDiscPortAttrByWWN";
    trace_entry(fn, handle);
    vxapi_priv_database* inst = vxcapi_resolve(fn, handle);
    if (!inst)
        return HBA_STATUS_ERROR_INVALID_HANDLE;
    if (!attrs)
        return null_record(fn, handle);
    EXT_DISC_PORT record{};
    const HBA_STATUS status = vxcapi_find_discport(fn, handle, inst, wwn, PORT_WWN, &record);
    if (status == HBA_STATUS_OK)
        vxcapi_copy_discport_attributes(inst, &record, attrs);
    return trace_exit(fn, handle, status);
}

HBA_STATUS vxcapi_find_discport(const char* name, HBA_HANDLE handle, vxapi_priv_database* inst, const HBA_WWN& wwn,
                                HBA_WWNTYPE type, EXT_DISC_PORT* found) {
    for (uint32_t index = 0; index < MAX_DISC_INDEX; ++index) {
        EXT_DISC_PORT record{};
        uint32_t ext_stat = 0;
        const int32_t rc =
            vxapi_query_discport(inst->oshandle, inst, static_cast<uint16_t>(index), &record, &ext_stat);
        // The end of the list: no port of that name.
        if (ext_stat == EXT_STATUS_DEV_NOT_FOUND)
            break;
        const HBA_STATUS status = query_status(name, handle, rc, ext_stat);
        if (status != HBA_STATUS_OK)
            return status;
        if (vxcapi_same_wwn(wwn, type == NODE_WWN ? record.WWNN : record.WWPN)) {
            *found = record;
            return HBA_STATUS_OK;
        }
    }
    vxcapi_trace(ERR, name, handle, "): no discovered port of that name.");
    return HBA_STATUS_ERROR_ILLEGAL_WWN;
}

namespace {

// The driver's port counters, the status of the request.
HBA_STATUS read_port_stat(const char* name, HBA_HANDLE handle, vxapi_priv_database* inst, EXT_HBA_PORT_STAT* stat) {
    uint32_t ext_stat = 0, ext_dstat = 0;
    const int32_t rc = vxapi_get_statistics(inst->oshandle, inst, stat, &ext_stat, &ext_dstat);
    return query_status(name, handle, rc, ext_stat, ext_dstat);
}

}  // namespace

void vxcapi_copy_port_statistics(const vxapi_priv_database* inst, const EXT_HBA_PORT_STAT* s,
                                 HBA_PORTSTATISTICS* out) {
    // A counter the adapter does not keep reads as -1.
    memset(out, 0xFF, sizeof *out);
    const uint16_t device_id = inst->phy_info ? inst->phy_info->device_id : 0;
    if (vx_adapter_has(device_id, VX_MARK_NEWER) || vx_adapter_has(device_id, VX_MARK_CNA)) {
        out->TxFrames = s->TxFrames;
        out->RxFrames = s->RxFrames;
        out->NOSCount = s->NosCount;
        out->DumpedFrames = s->DumpedFrames;
    }
    out->LIPCount = s->TotalLipResets;
    out->ErrorFrames = s->TotalLinkFailures;  // the link-failure counter again, deliberately
    out->LinkFailureCount = s->TotalLinkFailures;
    out->LossOfSyncCount = s->TotalLossOfSync;
    out->LossOfSignalCount = s->TotalLossOfSignals;
    out->PrimitiveSeqProtocolErrCount = s->PrimitiveSeqProtocolErrorCount;
    out->InvalidTxWordCount = s->InvalidTransmissionWordCount;
    out->InvalidCRCCount = s->InvalidCRCCount;
}

// The port index does not choose a port: the handle is one port.
HBA_STATUS vxhba_GetPortStatistics(HBA_HANDLE handle, HBA_UINT32, HBA_PORTSTATISTICS* stats) {
    static constexpr const char* fn = "vxhba_GetPortStatistics";
    trace_entry(fn, handle);
    vxapi_priv_database* inst = vxcapi_resolve(fn, handle);
    if (!inst)
        return HBA_STATUS_ERROR_INVALID_HANDLE;
    if (!stats)
        return null_record(fn, handle);
    EXT_HBA_PORT_STAT stat{};
    const HBA_STATUS status = read_port_stat(fn, handle, inst, &stat);
    if (status == HBA_STATUS_OK)
        vxcapi_copy_port_statistics(inst, &stat, stats);
    return trace_exit(fn, handle, status);
}

// The adapter counts FCP traffic only, and only for its own port.
HBA_STATUS vxhba_GetFC4Statistics(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_UINT8 fc4_type,
                                  HBA_FC4STATISTICS* stats) {
    static constexpr const char* fn = "vxhba_GetFC4Statistics";
    trace_entry(fn, handle);
    vxapi_priv_database* inst = vxcapi_resolve(fn, handle);
    if (!inst)
        return HBA_STATUS_ERROR_INVALID_HANDLE;
    if (!stats)
        return null_record(fn, handle);
    if (!vxcapi_same_wwn(port_wwn, inst->wwpn)) {
        vxcapi_trace(ERR, fn, handle, "): not this adapter's port.");
        return HBA_STATUS_ERROR_ILLEGAL_WWN;
    }
    if (fc4_type != VX_FC4_TYPE_FCP) {
        vxcapi_trace(ERR, fn, handle, "): FC-4 type not counted ", fc4_type, VXDBG_HEX);
        return HBA_STATUS_ERROR_UNSUPPORTED_FC4;
    }
    EXT_HBA_PORT_STAT stat{};
    const HBA_STATUS status = read_port_stat(fn, handle, inst, &stat);
    if (status == HBA_STATUS_OK) {
        stats->InputRequests = stat.InputRequestCount;
        stats->OutputRequests = stat.OutputRequestCount;
        stats->ControlRequests = stat.ControlRequestCount;
        stats->InputMegabytes = stat.InputMBytes;
        stats->OutputMegabytes = stat.OutputMBytes;
    }
    return trace_exit(fn, handle, status);
}

// ---- RNID management data ----

namespace {

// RNID unit type of a host.
constexpr HBA_UINT32 RNID_UNIT_HOST = 0x0A;

// The driver offers nowhere to publish the data, so this process keeps what
// its clients set, per port name, until it ends; other processes do not
// see it. A list of nodes, so that running out of memory is an answer.
struct mgmt_entry {
    uint8_t wwpn[8];
    HBA_MGMTINFO info;
    std::unique_ptr<mgmt_entry> next;
};

std::mutex mgmt_lock;
std::unique_ptr<mgmt_entry> mgmt_list;

mgmt_entry* find_mgmt(const uint8_t* wwpn) {
    for (mgmt_entry* e = mgmt_list.get(); e; e = e->next.get())
        if (memcmp(e->wwpn, wwpn, sizeof e->wwpn) == 0)
            return e;
    return nullptr;
}

void copy_mgmt(const HBA_MGMTINFO& from, HBA_MGMTINFO* to) {
    to->wwn = from.wwn;
    to->unittype = from.unittype;
    to->PortId = from.PortId;
    to->NumberOfAttachedNodes = from.NumberOfAttachedNodes;
    to->IPVersion = from.IPVersion;
    to->UDPPort = from.UDPPort;
    memcpy(to->IPAddress, from.IPAddress, sizeof to->IPAddress);
    to->reserved = from.reserved;
    to->TopologyDiscoveryFlags = from.TopologyDiscoveryFlags;
}

}  // namespace

HBA_STATUS vxhba_SetRNIDMgmtInfo(HBA_HANDLE handle, HBA_MGMTINFO* info) {
    static constexpr const char* fn = "vxhba_SetRNIDMgmtInfo";
    trace_entry(fn, handle);
    const vxapi_priv_database* inst = vxcapi_resolve(fn, handle);
    if (!inst)
        return HBA_STATUS_ERROR_INVALID_HANDLE;
    if (!info)
        return null_record(fn, handle);
    std::lock_guard<std::mutex> hold(mgmt_lock);
    mgmt_entry* e = find_mgmt(inst->wwpn);
    if (!e) {
        std::unique_ptr<mgmt_entry> made(new (std::nothrow) mgmt_entry{});
        if (!made) {
            vxcapi_trace(ERR, fn, handle, "): out of memory.");
            return trace_exit(fn, handle, HBA_STATUS_ERROR);
        }
        memcpy(made->wwpn, inst->wwpn, sizeof made->wwpn);
        made->next = std::move(mgmt_list);
        mgmt_list = std::move(made);
        e = mgmt_list.get();
    }
    copy_mgmt(*info, &e->info);
    return trace_exit(fn, handle, HBA_STATUS_OK);
}

// Before any Set: what the port tells of itself, the rest zero.
HBA_STATUS vxhba_GetRNIDMgmtInfo(HBA_HANDLE handle, HBA_MGMTINFO* info) {
    static constexpr const char* fn = "vxhba_GetRNIDMgmtInfo";
    trace_entry(fn, handle);
    vxapi_priv_database* inst = vxcapi_resolve(fn, handle);
    if (!inst)
        return HBA_STATUS_ERROR_INVALID_HANDLE;
    if (!info)
        return null_record(fn, handle);
    {
        std::lock_guard<std::mutex> hold(mgmt_lock);
        if (const mgmt_entry* e = find_mgmt(inst->wwpn)) {
            copy_mgmt(e->info, info);
            return trace_exit(fn, handle, HBA_STATUS_OK);
        }
    }
    EXT_HBA_PORT port{};
    uint32_t ext_stat = 0;
    const int32_t rc = vxapi_query_hbaport(inst->oshandle, inst, &port, &ext_stat);
    const HBA_STATUS status = query_status(fn, handle, rc, ext_stat);
    if (status != HBA_STATUS_OK)
        return trace_exit(fn, handle, status);
    HBA_MGMTINFO derived;
    memset(&derived, 0, sizeof derived);
    memcpy(derived.wwn.wwn, inst->wwnn, sizeof derived.wwn.wwn);
    derived.unittype = RNID_UNIT_HOST;
    derived.PortId = vxcapi_fcid(port.Id);
    derived.NumberOfAttachedNodes = port.DiscPortCount;
    copy_mgmt(derived, info);
    return trace_exit(fn, handle, HBA_STATUS_OK);
}

// ---- Handlers that do nothing ----

void vxhba_RefreshInformation(HBA_HANDLE handle) { trace_entry("vxhba_RefreshInformation", handle); }

void vxhba_ResetStatistics(HBA_HANDLE handle, HBA_UINT32) { trace_entry("vxhba_ResetStatistics", handle); }

void vxhba_RefreshAdapterConfiguration() { vxdbg_line(TRC, "vxhba_RefreshAdapterConfiguration: entered."); }

// ---- Events ----

// The port's events waiting in this process's queue, for a client that
// polls instead of registering a callback. Only as many are taken as the
// caller has room for; the rest stay queued.
HBA_STATUS vxhba_GetEventBuffer(HBA_HANDLE handle, HBA_EVENTINFO* info, HBA_UINT32* count) {
    static constexpr const char* fn = "vxhba_GetEventBuffer";
    trace_entry(fn, handle);
    vxapi_priv_database* inst = vxcapi_resolve(fn, handle);
    if (!inst)
        return HBA_STATUS_ERROR_INVALID_HANDLE;
    if (!count || (!info && *count != 0))
        return null_record(fn, handle);
    const uint32_t room = *count < VX_EVQ_TAKE_MAX ? *count : VX_EVQ_TAKE_MAX;
    EXT_ASYNC_EVENT events[VX_EVQ_TAKE_MAX];
    uint32_t taken = 0;
    {
        vxapi_event_hold hold;
        if (hold.database_held())
            vxapi_empty_sh_portevq(api_library_instance, inst, events, &taken, room);
    }
    for (uint32_t i = 0; i < taken; ++i) {
        uint32_t fabric_port_id = 0;
        HBA_EVENTINFO& e = info[i];
        e.EventCode = vxapi_snia_port_event_type(events[i], &fabric_port_id);
        // Fabric changes carry the affected address; the others none.
        if (e.EventCode == VX_SNIA_PORT_FABRIC) {
            e.Event.RSCN_EventInfo.PortFcId = fabric_port_id;
            e.Event.RSCN_EventInfo.NPortPage = 0;
        } else {
            e.Event.Link_EventInfo.PortFcId = 0;
        }
    }
    *count = taken;
    vxcapi_trace(TRC, fn, handle, "): exiting. events=", taken, VXDBG_DEC);
    return HBA_STATUS_OK;
}

// The callback handle is the registration's own, so a handle from an
// earlier registration of the port no longer names anything.
HBA_STATUS vxhba_RemoveCallback(HBA_CALLBACKHANDLE cbh) {
    vxdbg_line(TRC, "vxhba_RemoveCallback: entered.");
    const HBA_STATUS status = vxapi_remove_event_cb(cbh) == 0 ? HBA_STATUS_OK : HBA_STATUS_ERROR_INVALID_HANDLE;
    vxdbg_num(TRC, "vxhba_RemoveCallback: exiting. ret=", status, VXDBG_DEC, 1);
    return status;
}

// One callback per port: a new registration replaces the one before.
HBA_STATUS vxhba_RegisterForAdapterPortEvents(void (*cb)(void*, HBA_WWN, HBA_UINT32, HBA_UINT32), void* data,
                                              HBA_HANDLE handle, HBA_WWN port_wwn, HBA_CALLBACKHANDLE* cbh) {
    static constexpr const char* fn = "vxhba_RegisterForAdapterPortEvents";
    trace_entry(fn, handle);
    vxapi_priv_database* inst = vxcapi_resolve(fn, handle);
    if (!inst)
        return HBA_STATUS_ERROR_INVALID_HANDLE;
    if (!cb || !cbh)
        return null_record(fn, handle);
    if (!vxcapi_same_wwn(port_wwn, inst->wwpn)) {
        vxcapi_trace(ERR, fn, handle, "): not this adapter's port.");
        return HBA_STATUS_ERROR_ILLEGAL_WWN;
    }
    void* reg = nullptr;
    if (vxapi_reg_port_event_cb(inst, cb, data, &reg) != 0)
        return trace_exit(fn, handle, HBA_STATUS_ERROR);
    *cbh = reg;
    return trace_exit(fn, handle, HBA_STATUS_OK);
}

// ---- Not supported by this library ----

HBA_STATUS vxhba_GetFcpPersistentBinding(HBA_HANDLE, HBA_FCPBINDING*) {
    return not_supported("vxhba_GetFcpPersistentBinding: not supported.");
}

HBA_STATUS vxhba_OpenAdapterByWWN(HBA_HANDLE*, HBA_WWN) {
    return not_supported("vxhba_OpenAdapterByWWN: not supported.");
}

HBA_STATUS vxhba_GetBindingCapability(HBA_HANDLE, HBA_WWN, HBA_BIND_CAPABILITY*) {
    return not_supported("vxhba_GetBindingCapability: not supported.");
}

HBA_STATUS vxhba_GetBindingSupport(HBA_HANDLE, HBA_WWN, HBA_BIND_CAPABILITY*) {
    return not_supported("vxhba_GetBindingSupport: not supported.");
}

HBA_STATUS vxhba_SetBindingSupport(HBA_HANDLE, HBA_WWN, HBA_BIND_CAPABILITY) {
    return not_supported("vxhba_SetBindingSupport: not supported.");
}

HBA_STATUS vxhba_SetPersistentBindingV2(HBA_HANDLE, HBA_WWN, const HBA_FCPBINDING2*) {
    return not_supported("vxhba_SetPersistentBindingV2: not supported.");
}

HBA_STATUS vxhba_GetPersistentBindingV2(HBA_HANDLE, HBA_WWN, HBA_FCPBINDING2*) {
    return not_supported("vxhba_GetPersistentBindingV2: not supported.");
}

HBA_STATUS vxhba_RemovePersistentBinding(HBA_HANDLE, HBA_WWN, const HBA_FCPBINDING2*) {
    return not_supported("vxhba_RemovePersistentBinding: not supported.");
}

HBA_STATUS vxhba_RemoveAllPersistentBindings(HBA_HANDLE, HBA_WWN) {
    return not_supported("vxhba_RemoveAllPersistentBindings: not supported.");
}

HBA_STATUS vxhba_SendRNIDV2(HBA_HANDLE, HBA_WWN, HBA_WWN, HBA_UINT32, HBA_UINT32, void*, HBA_UINT32*) {
    return not_supported("vxhba_SendRNIDV2: not supported.");
}

// Answers 2 as its number and leaves the caller's record as it was.
HBA_UINT32 vxhba_GetVendorLibraryAttributes(HBA_LIBRARYATTRIBUTES*) {
    vxdbg_line(TRC, "vxhba_GetVendorLibraryAttributes: not supported.");
    return HBA_STATUS_ERROR_NOT_SUPPORTED;
}

HBA_STATUS vxhba_RegisterForAdapterAddEvents(void (*)(void*, HBA_WWN, HBA_UINT32), void*, HBA_CALLBACKHANDLE*) {
    return not_supported("vxhba_RegisterForAdapterAddEvents: not supported.");
}

HBA_STATUS vxhba_RegisterForAdapterEvents(void (*)(void*, HBA_WWN, HBA_UINT32), void*, HBA_HANDLE,
                                          HBA_CALLBACKHANDLE*) {
    return not_supported("vxhba_RegisterForAdapterEvents: not supported.");
}

HBA_STATUS vxhba_RegisterForAdapterPortStatEvents(void (*)(void*, HBA_WWN, HBA_UINT32), void*, HBA_HANDLE, HBA_WWN,
                                                  HBA_PORTSTATISTICS, HBA_UINT32, HBA_CALLBACKHANDLE*) {
    return not_supported("vxhba_RegisterForAdapterPortStatEvents: not supported.");
}

HBA_STATUS vxhba_RegisterForTargetEvents(void (*)(void*, HBA_WWN, HBA_WWN, HBA_UINT32), void*, HBA_HANDLE, HBA_WWN,
                                         HBA_WWN, HBA_CALLBACKHANDLE*, HBA_UINT32) {
    return not_supported("vxhba_RegisterForTargetEvents: not supported.");
}

HBA_STATUS vxhba_RegisterForLinkEvents(void (*)(void*, HBA_WWN, HBA_UINT32, void*, HBA_UINT32), void*, void*,
                                       HBA_UINT32, HBA_HANDLE, HBA_CALLBACKHANDLE*) {
    return not_supported("vxhba_RegisterForLinkEvents: not supported.");
}

HBA_STATUS vxhba_SendRPL(HBA_HANDLE, HBA_WWN, HBA_WWN, HBA_UINT32, HBA_UINT32, void*, HBA_UINT32*) {
    return not_supported("vxhba_SendRPL: not supported.");
}

HBA_STATUS vxhba_SendSRL(HBA_HANDLE, HBA_WWN, HBA_WWN, HBA_UINT32, void*, HBA_UINT32*) {
    return not_supported("vxhba_SendSRL: not supported.");
}

HBA_STATUS vxhba_SendLIRR(HBA_HANDLE, HBA_WWN, HBA_WWN, HBA_UINT8, HBA_UINT8, void*, HBA_UINT32*) {
    return not_supported("vxhba_SendLIRR: not supported.");
}

HBA_STATUS vxhba_GetFCPStatistics(HBA_HANDLE, const HBA_SCSIID*, HBA_FC4STATISTICS*) {
    return not_supported("vxhba_GetFCPStatistics: not supported.");
}
