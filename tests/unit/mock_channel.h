// In-process stand-ins for the driver: a channel table that answers from a
// sequence of expected requests, and port records made without discovery.
// With them the SD layer is tested without root or the simulator.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <optional>
#include <vector>

#include "vx_channel.h"
#include "vx_core.h"

namespace vxmock {

enum class slot {
    query_hbanode,
    query_hbaport,
    query_chip,
    query_driver,
    query_fw,
    query_cnaport,
    query_discport,
    query_disctgt,
    get_port_summary,
    get_tgt_lun_data_list,
    wwpn_to_scsiaddr,
    get_driver_specifics,
    get_vpd,
    get_dcbx_param,
    read_optrom,
    update_optrom,
    activate_region,
    get_flash_sector_size,
    flash_update_caps,
    query_adapter_versions,
    get_active_image_set,
    get_nvram,
    set_nvram,
    set_vpd,
    send_scsipt,
    send_fc_scsipt,
    send_ct_passthru,
    send_els_passthru,
    get_statistics,
    get_port_statistics,
    reset_stats,
    async_event_reg,
    async_event_get,
};

// One expected request and what the driver hands back for it.
struct expectation {
    slot which;
    std::optional<uint32_t> arg;   // the index (discovered port/target), the type mask (port summary),
                                   // the region (option ROM), the reset code (activation), enable (events)
    std::optional<uint32_t> offset;  // the flash offset (option ROM)
    std::vector<uint8_t> sent;     // what an update handed over (filled as it is served)
    std::optional<uint32_t> size;  // the buffer size the leaf passes (sized requests)
    std::vector<uint8_t> bytes;    // written to the start of the record (pass-through: the data in)
    std::vector<uint8_t> sense;    // pass-through: the sense a check condition brings back
    uint32_t ext_stat = EXT_STATUS_OK;
    uint32_t ext_dstat = 0;
    int32_t result = 0;
    int err = 0;  // errno left behind with a negative result

    expectation& with_arg(uint32_t v) { arg = v; return *this; }
    expectation& with_size(uint32_t v) { size = v; return *this; }
    expectation& with_offset(uint32_t v) { offset = v; return *this; }
    template <typename Record>
    expectation& answer(const Record& rec) {
        const auto* p = reinterpret_cast<const uint8_t*>(&rec);
        bytes.assign(p, p + sizeof rec);
        return *this;
    }
    expectation& answer_bytes(std::vector<uint8_t> b) { bytes = std::move(b); return *this; }
    expectation& with_sense(std::vector<uint8_t> s) { sense = std::move(s); return *this; }
    expectation& status(uint32_t s, uint32_t detail = 0) { ext_stat = s; ext_dstat = detail; return *this; }
    expectation& fails(int32_t rc, int e = 0) { result = rc; err = e; return *this; }
};

// The table of the current mock; one mock at a time, on the test's thread.
class channel {
public:
    channel() { current() = this; }
    ~channel() {
        EXPECT_TRUE(queue_.empty()) << queue_.size() << " expected request(s) never made";
        current() = nullptr;
    }
    channel(const channel&) = delete;
    channel& operator=(const channel&) = delete;

    expectation& expect(slot s) {
        expectation e{};
        e.which = s;
        queue_.push_back(e);
        return queue_.back();
    }
    void install(vxapi_priv_database* rec) const {
        if (rec)
            rec->channel = &table;
    }

    static const vxapi_channel_ops table;

    // The pass-through slots: `arg` is the LUN, `size` the data buffer's
    // (either way); the answer's data land in the response buffer and its
    // sense where the leaf would put them.
    static int32_t serve_scsi(slot s, uint16_t lun, void* data, uint32_t data_size, uint8_t* sense,
                              uint32_t sense_room, uint32_t* sense_len, uint32_t* pext_stat, uint32_t* pext_dstat) {
        channel* self = current();
        const std::vector<uint8_t> answer = self && !self->queue_.empty() ? self->queue_.front().sense
                                                                          : std::vector<uint8_t>{};
        const int32_t rc = serve(s, data, data ? data_size : 0, pext_stat, pext_dstat, lun, data_size);
        const uint32_t n = answer.size() < sense_room ? static_cast<uint32_t>(answer.size()) : sense_room;
        if (n)
            memcpy(sense, answer.data(), n);
        if (sense_len && n)
            *sense_len = n;
        return rc;
    }

    // The body of every slot: the next expectation must be for this slot.
    static int32_t serve(slot s, void* rec, size_t rec_size, uint32_t* pext_stat, uint32_t* pext_dstat,
                         std::optional<uint32_t> arg, std::optional<uint32_t> size,
                         std::optional<uint32_t> offset = std::nullopt, const uint8_t* sent = nullptr,
                         uint32_t* copied = nullptr) {
        channel* self = current();
        if (!self || self->queue_.empty()) {
            ADD_FAILURE() << "unexpected request on slot " << static_cast<int>(s);
            return 1;
        }
        const expectation e = self->queue_.front();
        self->queue_.pop_front();
        EXPECT_EQ(static_cast<int>(e.which), static_cast<int>(s)) << "requests out of order";
        if (e.arg) {
            EXPECT_EQ(arg, e.arg) << "slot " << static_cast<int>(s);
        }
        if (e.size) {
            EXPECT_EQ(size, e.size) << "slot " << static_cast<int>(s);
        }
        if (e.offset) {
            EXPECT_EQ(offset, e.offset) << "slot " << static_cast<int>(s);
        }
        if (sent && size)
            self->written_.assign(sent, sent + *size);
        const size_t n = e.bytes.size() < rec_size ? e.bytes.size() : rec_size;
        if (rec && n != 0)
            memcpy(rec, e.bytes.data(), n);
        if (copied)
            *copied = static_cast<uint32_t>(n);
        if (pext_stat)
            *pext_stat = e.ext_stat;
        if (pext_dstat)
            *pext_dstat = e.ext_dstat;
        errno = e.err;
        return e.result;
    }

    // The bytes of the last update served, or of the last request kept.
    const std::vector<uint8_t>& written() const { return written_; }
    static void keep(const void* data, uint32_t len) {
        channel* self = current();
        if (self && data)
            self->written_.assign(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + len);
    }

private:
    std::vector<uint8_t> written_;
    static channel*& current() {
        static channel* c = nullptr;
        return c;
    }
    std::deque<expectation> queue_;
};

template <typename R>
int32_t record_slot(slot s, R* rec, uint32_t* st) {
    return channel::serve(s, rec, sizeof *rec, st, nullptr, std::nullopt, std::nullopt);
}

inline const vxapi_channel_ops channel::table = {
    "mock",
    [](int, vxapi_priv_database*, EXT_HBA_NODE* r, uint32_t* st) { return record_slot(slot::query_hbanode, r, st); },
    [](int, vxapi_priv_database*, EXT_HBA_PORT* r, uint32_t* st) { return record_slot(slot::query_hbaport, r, st); },
    [](int, vxapi_priv_database*, EXT_CHIP* r, uint32_t* st) { return record_slot(slot::query_chip, r, st); },
    [](int, vxapi_priv_database*, EXT_DRIVER* r, uint32_t* st) { return record_slot(slot::query_driver, r, st); },
    [](int, vxapi_priv_database*, EXT_FW* r, uint32_t* st) { return record_slot(slot::query_fw, r, st); },
    [](int, vxapi_priv_database*, EXT_CNA_PORT* r, uint32_t* st) { return record_slot(slot::query_cnaport, r, st); },
    [](int, vxapi_priv_database*, uint16_t i, EXT_DISC_PORT* r, uint32_t* st) {
        return channel::serve(slot::query_discport, r, sizeof *r, st, nullptr, i, std::nullopt);
    },
    [](int, vxapi_priv_database*, uint16_t i, EXT_DISC_TARGET* r, uint32_t* st) {
        return channel::serve(slot::query_disctgt, r, sizeof *r, st, nullptr, i, std::nullopt);
    },
    [](int, vxapi_priv_database*, uint32_t* mask, EXT_DEVICEDATA* d, uint32_t size, uint32_t* st, uint32_t* dst) {
        return channel::serve(slot::get_port_summary, d, size, st, dst, *mask, size);
    },
    [](int, vxapi_priv_database*, TGT_LUN_DATA_LIST* l, uint32_t len, uint32_t* st) {
        return channel::serve(slot::get_tgt_lun_data_list, l, len, st, nullptr, std::nullopt, len);
    },
    [](int, vxapi_priv_database*, const uint8_t*, uint32_t len, EXT_SCSI_ADDR* a, uint32_t* st) {
        return channel::serve(slot::wwpn_to_scsiaddr, a, sizeof *a, st, nullptr, std::nullopt, len);
    },
    [](int, vxapi_priv_database*, EXT_LN_DRIVER_DATA* d, uint32_t* st) {
        return record_slot(slot::get_driver_specifics, d, st);
    },
    [](int, vxapi_priv_database*, uint8_t* b, uint32_t size, uint32_t* st) {
        return channel::serve(slot::get_vpd, b, size, st, nullptr, std::nullopt, size);
    },
    [](int, vxapi_priv_database*, uint8_t* b, uint32_t size, uint32_t* st) {
        return channel::serve(slot::get_dcbx_param, b, size, st, nullptr, std::nullopt, size);
    },
    [](int, vxapi_priv_database*, uint8_t* b, uint32_t size, uint32_t region, uint32_t offset, uint32_t* st) {
        return channel::serve(slot::read_optrom, b, size, st, nullptr, region, size, offset);
    },
    [](int, vxapi_priv_database*, uint8_t* b, uint32_t size, uint32_t region, uint32_t offset, uint32_t* st) {
        return channel::serve(slot::update_optrom, nullptr, 0, st, nullptr, region, size, offset, b);
    },
    [](int, vxapi_priv_database*, uint32_t code, uint32_t* st) {
        return channel::serve(slot::activate_region, nullptr, 0, st, nullptr, code, std::nullopt);
    },
    [](int, vxapi_priv_database*, uint32_t* size) {
        return static_cast<uint32_t>(
            channel::serve(slot::get_flash_sector_size, size, sizeof *size, nullptr, nullptr, std::nullopt, std::nullopt));
    },
    [](int, vxapi_priv_database*, uint8_t* caps, uint32_t len, uint8_t set, uint32_t* st) {
        return channel::serve(slot::flash_update_caps, caps, len, st, nullptr, set, len);
    },
    [](int, vxapi_priv_database*, EXT_ADAPTER_VERSIONS* v, uint32_t* st) {
        return record_slot(slot::query_adapter_versions, v, st);
    },
    [](int, vxapi_priv_database*, uint32_t* image, uint32_t* st) {
        return record_slot(slot::get_active_image_set, image, st);
    },
    [](int, vxapi_priv_database*, uint8_t* b, uint32_t size, uint32_t* st) {
        return channel::serve(slot::get_nvram, b, size, st, nullptr, std::nullopt, size);
    },
    [](int, vxapi_priv_database*, const uint8_t* b, uint32_t size, uint32_t* st) {
        return channel::serve(slot::set_nvram, nullptr, 0, st, nullptr, std::nullopt, size, std::nullopt, b);
    },
    [](int, vxapi_priv_database*, const uint8_t* b, uint32_t size, uint32_t* st) {
        return channel::serve(slot::set_vpd, nullptr, 0, st, nullptr, std::nullopt, size, std::nullopt, b);
    },
    [](int, vxapi_priv_database*, const EXT_SCSI_ADDR* a, const uint8_t*, uint32_t, void*,
       uint32_t req_size, void* resp, uint32_t* resp_size, uint8_t* sense, uint32_t* sense_size, uint32_t* st,
       uint8_t* scsi) {
        uint32_t detail = 0;
        const uint32_t room = sense && sense_size ? *sense_size : 0;
        const int32_t rc = channel::serve_scsi(slot::send_scsipt, a->Lun, resp,
                                               resp ? *resp_size : req_size, sense, room, sense_size, st, &detail);
        *scsi = static_cast<uint8_t>(detail);
        return rc;
    },
    [](int, vxapi_priv_database*, EXT_FC_SCSI_PASSTHRU* pt, void*, uint32_t req_size, void* resp,
       uint32_t resp_size, uint32_t* st, uint32_t* dst) {
        uint32_t len = 0;
        const int32_t rc = channel::serve_scsi(slot::send_fc_scsipt, pt->FCScsiAddr.Lun, resp,
                                               resp ? resp_size : req_size, pt->SenseData,
                                               pt->SenseLength, &len, st, dst);
        pt->SenseLength = static_cast<uint16_t>(len);
        return rc;
    },
    [](int, vxapi_priv_database*, const void*, uint32_t, void* resp, uint32_t size, uint32_t* st) {
        return channel::serve(slot::send_ct_passthru, resp, size, st, nullptr, std::nullopt, size);
    },
    [](int, vxapi_priv_database*, const void* req, uint32_t req_size, void* resp, uint32_t size, uint32_t* st) {
        channel::keep(req, req_size);
        return channel::serve(slot::send_els_passthru, resp, size, st, nullptr, std::nullopt, size);
    },
    [](int, vxapi_priv_database*, EXT_HBA_PORT_STAT* r, uint32_t* st, uint32_t* dst) {
        return channel::serve(slot::get_statistics, r, sizeof *r, st, dst, std::nullopt, std::nullopt);
    },
    // The argument checked is the destination's DestType.
    [](int, vxapi_priv_database*, const EXT_DEST_ADDR* d, EXT_HBA_PORT_STAT* r, uint32_t* st, uint32_t* dst) {
        return channel::serve(slot::get_port_statistics, r, sizeof *r, st, dst, d->DestType, std::nullopt);
    },
    [](int, vxapi_priv_database*, uint32_t* st) {
        return channel::serve(slot::reset_stats, nullptr, 0, st, nullptr, std::nullopt, std::nullopt);
    },
    [](int, vxapi_priv_database*, uint32_t enable, void*, uint32_t* st) {
        return channel::serve(slot::async_event_reg, nullptr, 0, st, nullptr, enable, std::nullopt);
    },
    // The answer's bytes are the events; their length comes back in *plen.
    [](int, vxapi_priv_database*, EXT_ASYNC_EVENT* b, uint32_t* plen, uint32_t* st) {
        const uint32_t room = *plen;
        *plen = 0;
        return channel::serve(slot::async_event_get, b, room, st, nullptr, std::nullopt, room, std::nullopt, nullptr, plen);
    },
};

// Port records made in-process, as discovery would leave them, each open
// under its handle (position + 1). The lists are freed with the registry.
class registry {
public:
    registry() = default;
    ~registry() {
        vxapi_free_api_priv_data_mem();
        vxapi_free_api_phy_info_mem();
    }
    registry(const registry&) = delete;
    registry& operator=(const registry&) = delete;

    // A physical port on a new adapter function of PCI device `device_id`.
    vxapi_priv_database* port(uint32_t features, uint16_t device_id, uint16_t pci_bus = 1,
                              uint16_t pci_dev_func = 0) {
        uint32_t err = 0;
        if (vxapi_alloc_api_phy_info_mem(&err) != 0)
            return nullptr;
        vxapi_phy_info* phy = current_phy_info_inst;
        phy->device_id = device_id;
        phy->pci_bus = pci_bus;
        phy->pci_dev_func = pci_dev_func;
        return add(features, phy, VX_IFTYPE_PHYSICAL, nullptr);
    }
    // A virtual port on the adapter of `parent`.
    vxapi_priv_database* vport(vxapi_priv_database* parent) {
        return add(parent->features, parent->phy_info, VX_IFTYPE_VIRTUAL, parent);
    }
    static int handle(const vxapi_priv_database* rec) { return rec ? static_cast<int>(rec->apihandle) : 0; }

private:
    vxapi_priv_database* add(uint32_t features, vxapi_phy_info* phy, uint32_t type, vxapi_priv_database* parent) {
        uint32_t err = 0;
        if (vxapi_alloc_api_priv_data_mem(&err) != 0)
            return nullptr;
        vxapi_priv_database* rec = current_priv_inst;
        rec->features = features;
        vxapi_set_channel(rec);
        rec->phy_info = phy;
        rec->interface_type = type;
        rec->parent = parent;
        uint32_t position = 0;
        vxapi_get_instance_from_api_priv_inst(rec, &position);
        rec->apihandle = vxapi_create_apihandle(position);
        rec->open_cnt = 1;
        return rec;
    }
};

}  // namespace vxmock
