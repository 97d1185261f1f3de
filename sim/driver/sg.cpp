// SG_IO with an sg_io_hdr (interface 'S') on a LUN's SCSI generic node or
// disk node: the CDB goes to the SCSI target engine; data-in, sense and the
// status fields come back as the SCSI midlayer reports them.
#include <scsi/sg.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "counters.h"
#include "endpoints.h"
#include "scsi_target.h"

namespace vxsim::drv {

namespace {

constexpr uint16_t DID_NO_CONNECT = 0x01;  // host status: the port cannot be reached
constexpr uint16_t DRIVER_SENSE = 0x08;    // driver status: sense data are valid
constexpr uint32_t MAX_TRANSFER = 16u << 20;
constexpr int SG_VERSION = 30536;          // what the sg driver of current kernels reports

void* user_ptr(const void* p) { return const_cast<void*>(p); }

long sg_io(const Sim& sim, Desc& d, void* arg, JournalFields& f) {
    const ScsiDevice& dev = sim.scsi()[d.scsi];
    const bool disk = d.kind == NodeKind::Disk;
    sg_io_hdr_t h;
    if (copy_from_user(&h, arg, sizeof h) < 0)
        return -EFAULT;
    f["interface_id"] = std::string(1, static_cast<char>(h.interface_id));
    f["dxfer_direction"] = h.dxfer_direction;
    f["cmd_len"] = h.cmd_len;
    f["dxfer_len"] = h.dxfer_len;
    f["mx_sb_len"] = h.mx_sb_len;
    if (h.interface_id != 'S')
        return disk ? -EINVAL : -ENOSYS;  // what the block layer and sg say to another interface
    // The sg driver wants a whole CDB group; the block layer only a bound.
    if (h.cmd_len > 16 || h.cmd_len == 0 || (!disk && h.cmd_len < 6))
        return disk ? -EINVAL : -EMSGSIZE;
    if (h.iovec_count != 0 || h.dxfer_len > MAX_TRANSFER)
        return -EINVAL;  // no scatter lists here
    const bool data_in = h.dxfer_direction == SG_DXFER_FROM_DEV || h.dxfer_direction == SG_DXFER_TO_FROM_DEV;
    if (!data_in && h.dxfer_direction != SG_DXFER_NONE && h.dxfer_direction != SG_DXFER_TO_DEV)
        return -EINVAL;
    uint8_t cdb[16];
    if (copy_from_user(cdb, h.cmdp, h.cmd_len) < 0)
        return -EFAULT;
    f["cdb"] = hex_bytes(cdb, h.cmd_len);

    std::optional<FaultAction> fault = fault_take("sg", hex_digits(cdb[0], 2));
    if (fault) {
        f["fault"] = fault->text;
        if (fault->kind == FaultKind::Errno)
            return -fault->error;
    }

    ScsiOutcome out;
    uint16_t host_status = 0;
    if (fault && fault->kind == FaultKind::Status)
        host_status = static_cast<uint16_t>(fault->status);  // the transport failed the command
    else if (dev.rport->state != "Online")
        host_status = DID_NO_CONNECT;
    else {
        out = scsi_execute(*dev.rport, dev.lun, cdb, h.cmd_len);
        Traffic t;
        t.kind = data_in && !out.data.empty() ? Traffic::Read : Traffic::Control;
        t.bytes_in = data_in ? std::min<size_t>(out.data.size(), h.dxfer_len) : 0;
        counters_add(sim.root(), sim.scenario(), dev.host->host_no, traffic_deltas(t), dev.rport->wwpn);
    }
    if (fault && fault->kind == FaultKind::Short)
        out.data.resize((out.data.size() + 1) / 2);

    const size_t n = data_in ? std::min<size_t>(out.data.size(), h.dxfer_len) : 0;
    if (n && copy_to_user(h.dxferp, out.data.data(), n) < 0)
        return -EFAULT;
    const size_t sense = std::min<size_t>(out.sense.size(), h.mx_sb_len);
    if (sense && copy_to_user(user_ptr(h.sbp), out.sense.data(), sense) < 0)
        return -EFAULT;
    h.status = out.status;
    h.masked_status = static_cast<uint8_t>((out.status >> 1) & 0x7F);
    h.msg_status = 0;
    h.sb_len_wr = static_cast<uint8_t>(sense);
    h.host_status = host_status;
    h.driver_status = sense ? DRIVER_SENSE : 0;
    h.resid = static_cast<int>(data_in ? h.dxfer_len - n : 0);
    h.duration = 1;
    h.info = (h.status || h.host_status || h.driver_status) ? SG_INFO_CHECK : SG_INFO_OK;
    if (copy_to_user(arg, &h, sizeof h) < 0)
        return -EFAULT;
    f["status"] = h.status;
    f["host_status"] = h.host_status;
    f["driver_status"] = h.driver_status;
    f["data_len"] = out.data.size();
    f["resid"] = h.resid;
    if (sense)
        f["sense"] = hex_bytes(out.sense.data(), sense);
    return 0;
}

}  // namespace

long endpoint_sg(const Sim& sim, Desc& d, unsigned long request, void* arg) {
    if (!sim.ok() || d.scsi >= sim.scsi().size())
        return -EIO;
    if (request == SG_GET_VERSION_NUM) {
        const int v = SG_VERSION;
        return copy_to_user(arg, &v, sizeof v) < 0 ? -EFAULT : 0;
    }
    if (request != SG_IO)
        return -ENOTTY;
    const ScsiDevice& dev = sim.scsi()[d.scsi];
    JournalFields f = JournalFields::object();
    f["node"] = node_kind_name(d.kind);
    f["name"] = d.kind == NodeKind::Disk ? disk_name(static_cast<uint32_t>(dev.disk)) : "sg" + std::to_string(dev.sg);
    f["host"] = dev.host->host_no;
    f["channel"] = dev.rport->channel;
    f["target"] = dev.rport->scsi_target_id;
    f["lun"] = dev.lun->lun;
    const long r = sg_io(sim, d, arg, f);
    journal_result(f, r);
    journal("sg", f);
    return r;
}

}  // namespace vxsim::drv
