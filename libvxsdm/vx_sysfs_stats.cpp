// sysfs twins of the statistics and event leaves: the FC host's counters
// under fc_host/host<N>/statistics, their reset, and events over netlink.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "vx_netlink.h"
#include "vx_sddbg.h"
#include "vx_sysfs.h"

namespace {

constexpr uint32_t TRC = VXDBG_TRACE | VXDBG_SYSFS;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_SYSFS;

uint32_t& status_word(uint32_t* pext_stat, uint32_t& local) { return pext_stat ? *pext_stat : local; }

uint32_t low32(uint64_t v) { return static_cast<uint32_t>(v); }

// The counters the record is made of, by attribute name.
constexpr const char* COUNTER_NAMES[] = {
    "error_frames",        "fcp_input_requests",   "fcp_output_requests",         "fcp_control_requests",
    "fcp_input_megabytes", "fcp_output_megabytes", "lip_count",                   "link_failure_count",
    "loss_of_sync_count",  "loss_of_signal_count", "prim_seq_protocol_err_count", "invalid_tx_word_count",
    "invalid_crc_count",   "tx_frames",            "rx_frames",                   "nos_count",
    "dumped_frames",
};
static_assert(sizeof COUNTER_NAMES / sizeof *COUNTER_NAMES == sizeof(vxsysfs_fc_counters) / sizeof(uint64_t));

}  // namespace

vxsysfs_counter vxsysfs_parse_counter(const char* text, uint64_t* value) {
    *value = 0;
    if (!text)
        return vxsysfs_counter::bad;
    while (*text == ' ' || *text == '\t')
        ++text;
    if (text[0] != '0' || (text[1] != 'x' && text[1] != 'X'))
        return vxsysfs_counter::bad;
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = strtoull(text + 2, &end, 16);
    if (end == text + 2 || errno != 0 || (*end != '\0' && *end != '\n'))
        return vxsysfs_counter::bad;
    // The transport shows a counter the driver does not keep as all ones.
    if (v == ~0ull)
        return vxsysfs_counter::not_kept;
    *value = v;
    return vxsysfs_counter::kept;
}

void vxsysfs_fill_port_stat(const vxsysfs_fc_counters& c, EXT_HBA_PORT_STAT* stat) {
    stat->ControllerErrorCount = low32(c.error_frames);
    stat->TotalIoCount = low32(c.fcp_input_requests + c.fcp_output_requests + c.fcp_control_requests);
    stat->TotalMBytes = low32(c.fcp_input_megabytes + c.fcp_output_megabytes);
    stat->TotalLipResets = low32(c.lip_count);
    stat->TotalLinkFailures = low32(c.link_failure_count);
    stat->TotalLossOfSync = low32(c.loss_of_sync_count);
    stat->TotalLossOfSignals = low32(c.loss_of_signal_count);
    stat->PrimitiveSeqProtocolErrorCount = low32(c.prim_seq_protocol_err_count);
    stat->InvalidTransmissionWordCount = low32(c.invalid_tx_word_count);
    stat->InvalidCRCCount = low32(c.invalid_crc_count);
    stat->InputRequestCount = c.fcp_input_requests;
    stat->OutputRequestCount = c.fcp_output_requests;
    stat->ControlRequestCount = c.fcp_control_requests;
    stat->InputMBytes = c.fcp_input_megabytes;
    stat->OutputMBytes = c.fcp_output_megabytes;
    stat->TxFrames = low32(c.tx_frames);
    stat->RxFrames = low32(c.rx_frames);
    stat->NosCount = low32(c.nos_count);
    stat->DumpedFrames = low32(c.dumped_frames);
}

int vxsysfs_get_statistics(int handle, vxapi_priv_database* inst, EXT_HBA_PORT_STAT* stat, uint32_t* pext_stat,
                           uint32_t* pext_dstat) {
    (void)handle;
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (pext_dstat)
        *pext_dstat = 0;
    if (!inst || !stat)
        return 1;
    vxdbg_num(TRC, "vxsysfs_get_statistics: entered. host_no=", inst->host_no, VXDBG_DEC, 1);
    vxsysfs_path_t path;
    char* dir = vxsysfs_path_append(path, vxsysfs_get_fc_host_path(path, static_cast<uint16_t>(inst->host_no)),
                                    "statistics/");
    vxsysfs_fc_counters counters{};
    auto* fields = reinterpret_cast<uint64_t*>(&counters);
    uint32_t read = 0;
    for (size_t i = 0; i < sizeof COUNTER_NAMES / sizeof *COUNTER_NAMES; ++i) {
        vxsysfs_path_append(path, dir, COUNTER_NAMES[i]);
        char text[VXSYSFS_ATTR_LEN];
        if (vxsysfs_get_str_attr(path, text, sizeof text) != 0)
            continue;
        uint64_t value = 0;
        if (vxsysfs_parse_counter(text, &value) != vxsysfs_counter::bad)
            ++read;
        fields[i] = value;
    }
    if (read == 0) {
        vxdbg_line(ERR, "vxsysfs_get_statistics: no statistics attributes.");
        return 1;
    }
    vxsysfs_fill_port_stat(counters, stat);
    ext_stat = EXT_STATUS_OK;
    vxdbg_num(TRC, "vxsysfs_get_statistics: exiting. counters=", read, VXDBG_DEC, 1);
    return 0;
}

int vxsysfs_get_port_statistics(int handle, vxapi_priv_database* inst, const EXT_DEST_ADDR* dest,
                                EXT_HBA_PORT_STAT* stat, uint32_t* pext_stat, uint32_t* pext_dstat) {
    (void)handle;
    (void)stat;
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (pext_dstat)
        *pext_dstat = 0;
    if (!inst || !dest)
        return 1;
    vxsysfs_path_t rpath;
    if (!vxsysfs_find_rport_by_wwpn(rpath, inst->host_no, dest->DestAddr.WWPN)) {
        vxdbg_line(ERR, "vxsysfs_get_port_statistics: no such remote port.");
        return 0;
    }
    // The transport keeps no counters per remote port.
    ext_stat = EXT_STATUS_INVALID_REQUEST;
    vxdbg_line(TRC, "vxsysfs_get_port_statistics: remote port counters not kept by the transport.");
    return 0;
}

int vxsysfs_reset_stats(int handle, vxapi_priv_database* inst, uint32_t* pext_stat) {
    (void)handle;
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (!inst)
        return 1;
    vxsysfs_path_t path;
    vxsysfs_path_append(path, vxsysfs_get_fc_host_path(path, static_cast<uint16_t>(inst->host_no)),
                        "statistics/reset_statistics");
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        vxdbg_num(ERR, "vxsysfs_reset_stats: no reset attribute. errno=", static_cast<uint64_t>(err), VXDBG_DEC, 1);
        ext_stat = EXT_STATUS_INVALID_REQUEST;
        return 0;
    }
    ext_stat = EXT_STATUS_ERR;
    ssize_t n;
    do {
        n = write(fd, "1", 1);
    } while (n < 0 && errno == EINTR);
    const int err = errno;
    close(fd);
    if (n != 1) {
        vxdbg_num(ERR, "vxsysfs_reset_stats: write failed. errno=", static_cast<uint64_t>(err), VXDBG_DEC, 1);
        errno = n < 0 ? err : EIO;
        return -1;
    }
    ext_stat = EXT_STATUS_OK;
    vxdbg_num(TRC, "vxsysfs_reset_stats: exiting. host_no=", inst->host_no, VXDBG_DEC, 1);
    return 0;
}

int vxsysfs_async_event_reg(int handle, vxapi_priv_database* inst, uint32_t enable, void* reserved,
                            uint32_t* pext_stat) {
    (void)handle;
    (void)enable;
    (void)reserved;
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    if (!inst)
        return 1;
    // Events reach sysfs ports by netlink, which needs no registration.
    ext_stat = vxapi_features(inst) & (VX_FEAT_NL_VENDOR | VX_FEAT_NL_SCSI) ? EXT_STATUS_OK
                                                                          : EXT_STATUS_INVALID_REQUEST;
    return 0;
}

int vxsysfs_async_event_get(int handle, vxapi_priv_database* inst, EXT_ASYNC_EVENT* buf, uint32_t* plen,
                            uint32_t* pext_stat) {
    (void)handle;
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (!inst || !buf || !plen)
        return 1;
    const uint32_t room = *plen / sizeof(EXT_ASYNC_EVENT) * sizeof(EXT_ASYNC_EVENT);
    *plen = 0;
    const uint32_t features = vxapi_features(inst);
    uint32_t used = 0;
    bool fetched = false;
    if ((features & VX_FEAT_NL_VENDOR) && vxapi_nl_fd >= 0) {
        uint32_t bytes = room;
        uint32_t nl_stat = 0;
        if (vxapi_nl_get_aen(vxapi_nl_fd, inst->host_no, buf, &bytes, &nl_stat) == 0 && nl_stat == EXT_STATUS_OK) {
            used = bytes;
            fetched = true;
        }
    }
    if ((features & VX_FEAT_NL_SCSI) && vxapi_scsi_nl_fd >= 0 && used < room) {
        uint32_t bytes = room - used;
        // The same transport event reaches every process's socket: the shared
        // file tells which ones another process has queued already.
        vxapi_fc_event_seen* seen = api_shared_data ? &api_shared_data->fc_event_seen : nullptr;
        if (vxapi_nl_scsi_fc_get_aen(vxapi_scsi_nl_fd, buf + used / sizeof(EXT_ASYNC_EVENT), &bytes, seen) == 0) {
            used += bytes;
            fetched = true;
        }
    }
    *plen = used;
    if (fetched)
        ext_stat = EXT_STATUS_OK;
    else if (!(features & (VX_FEAT_NL_VENDOR | VX_FEAT_NL_SCSI)))
        ext_stat = EXT_STATUS_INVALID_REQUEST;
    else
        ext_stat = EXT_STATUS_ERR;
    vxdbg_num(TRC, "vxsysfs_async_event_get: bytes=", used, VXDBG_DEC, 1);
    return 0;
}
