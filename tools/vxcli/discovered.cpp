#include "discovered.h"

#include <fmt/format.h>

#include <cstddef>
#include <cstring>

#include "cli.h"
#include "format.h"

namespace vxcli {

namespace {

using json = nlohmann::ordered_json;

// The target id of a remote port without one (an initiator).
constexpr uint16_t NO_TARGET = 0xFFFF;

json target_id(uint16_t id) { return id == NO_TARGET ? json() : json(id); }

struct Target {
    uint32_t index = 0;
    DISCPORTPROPERTY prop{};
};

// The discovered ports in index order; the walk stops at the first index
// the library does not know.
uint32_t walk_targets(int handle, std::vector<Target>& targets) {
    for (uint32_t index = 0; index <= 0xFFFF; ++index) {
        Target t;
        t.index = index;
        const uint32_t status = SDGetDiscPortProperty(handle, 0, index, 0, &t.prop);
        if (status == SDM_STATUS_DEVICE_NOT_FOUND)
            return SDM_STATUS_SUCCESS;
        if (status != SDM_STATUS_SUCCESS)
            return status;
        targets.push_back(t);
    }
    return SDM_STATUS_SUCCESS;
}

std::vector<Target> targets_of(Context& ctx, const SelectedPort& port) {
    std::vector<Target> targets;
    const uint32_t status = walk_targets(port.handle, targets);
    if (status != SDM_STATUS_SUCCESS)
        ctx.partial(fmt::format("port {}: discovered ports query", port.instance), status);
    return targets;
}

// A target's LUNs. "Device not found" is a remote port without LUNs (a
// target that is not online); a port without a SCSI target id has none.
uint32_t target_luns(int handle, uint16_t target, std::vector<uint16_t>& luns) {
    if (target == NO_TARGET)
        return SDM_STATUS_SUCCESS;
    // Each call reads the port's whole list, so room for most targets is
    // given at once; a larger target is asked again with its own count.
    constexpr SD_UINT32 FIRST_ROOM = 256;
    luns.resize(FIRST_ROOM);
    SD_UINT32 count = FIRST_ROOM;
    uint32_t status = SDGetTargetLunList(handle, target, luns.data(), &count);
    if (status == SDM_STATUS_BUFFER_TOO_SMALL) {
        luns.resize(count);
        status = SDGetTargetLunList(handle, target, luns.data(), &count);
    }
    luns.resize(status == SDM_STATUS_SUCCESS ? std::min<size_t>(count, luns.size()) : 0);
    return status == SDM_STATUS_DEVICE_NOT_FOUND ? SDM_STATUS_SUCCESS : status;
}


// A target's LUNs, or none and the failure's JSON form.
struct Luns {
    std::optional<std::vector<uint16_t>> list;
    json error;
};

Luns luns_of(Context& ctx, const SelectedPort& port, const Target& t) {
    Luns out;
    std::vector<uint16_t> luns;
    const uint32_t status = target_luns(port.handle, t.prop.TargetID, luns);
    if (status == SDM_STATUS_SUCCESS)
        out.list = std::move(luns);
    else
        out.error = ctx.partial(fmt::format("port {}: LUN list query of target {}", port.instance, t.prop.TargetID), status);
    return out;
}

std::string port_type_text(uint8_t type) {
    switch (type) {
    case 1: return "initiator";
    case 2: return "target";
    default: return std::to_string(type);
    }
}

}  // namespace

PortDatabase read_port_database(Context& ctx, const SelectedPort& port) {
    // The library returns at most 255 entries, whatever the buffer.
    constexpr uint32_t ENTRIES = 255;
    std::vector<std::byte> buf(sizeof(DEVICEINFO) + (ENTRIES - 1) * sizeof(DEVICEINFOENTRY));
    auto* info = reinterpret_cast<DEVICEINFO*>(buf.data());
    PortDatabase db;
    const uint32_t status = SDGetPortDatabase(port.handle, 0x1000, info, static_cast<SD_UINT32>(buf.size()));
    if (status != SDM_STATUS_SUCCESS && status != SDM_STATUS_BUFFER_TOO_SMALL) {
        ctx.partial(fmt::format("port {}: port database query", port.instance), status);
        return db;
    }
    db.ok = true;
    for (uint32_t i = 0; i < info->ReturnListEntryCount && i < ENTRIES; ++i) {
        DEVICEINFOENTRY e;
        std::memcpy(&e, buf.data() + offsetof(DEVICEINFO, EntryList) + i * sizeof(DEVICEINFOENTRY), sizeof e);
        db.entries.push_back(e);
    }
    return db;
}

std::vector<json> target_rows(Context& ctx, const SelectedPort& port, const PortDatabase& db) {
    std::vector<json> rows;
    for (const Target& t : targets_of(ctx, port)) {
        json state;
        for (const DEVICEINFOENTRY& e : db.entries)
            if (std::memcmp(e.PortWWN, t.prop.PortWWN, sizeof e.PortWWN) == 0)
                state = e.DeviceFlags & 0x01 ? "online" : "offline";
        json row{{"index", t.index},
                 {"target", target_id(t.prop.TargetID)},
                 {"wwnn", wwn_text(t.prop.NodeWWN)},
                 {"wwpn", wwn_text(t.prop.PortWWN)},
                 {"port_id", port_id_text(t.prop.PortID)},
                 {"type", port_type_text(t.prop.PortType)},
                 {"state", state}};
        const Luns luns = luns_of(ctx, port, t);
        row["lun_count"] = luns.list ? json(luns.list->size()) : json();
        if (!luns.error.is_null())
            row["error"] = luns.error;
        rows.push_back(std::move(row));
    }
    return rows;
}

const std::vector<TableColumn>& target_columns() {
    static const std::vector<TableColumn> columns = {
        {"INDEX", "index", true},     {"TARGET", "target", true}, {"WWNN", "wwnn"},  {"WWPN", "wwpn"},
        {"PORT ID", "port_id"},       {"TYPE", "type"},           {"STATE", "state"},
        {"LUNS", "lun_count", true},
    };
    return columns;
}

std::vector<json> lun_rows(Context& ctx, const SelectedPort& port) {
    std::vector<json> rows;
    for (const Target& t : targets_of(ctx, port)) {
        json row{{"index", t.index}, {"target", target_id(t.prop.TargetID)}, {"wwpn", wwn_text(t.prop.PortWWN)}};
        const Luns luns = luns_of(ctx, port, t);
        row["luns"] = luns.list ? json(*luns.list) : json();
        if (!luns.error.is_null())
            row["error"] = luns.error;
        rows.push_back(std::move(row));
    }
    return rows;
}

const std::vector<TableColumn>& lun_columns() {
    static const std::vector<TableColumn> columns = {
        {"INDEX", "index", true}, {"TARGET", "target", true}, {"WWPN", "wwpn"}, {"LUNS", "luns"}};
    return columns;
}

std::vector<json> remote_port_rows(const PortDatabase& db) {
    std::vector<json> rows;
    for (const DEVICEINFOENTRY& e : db.entries)
        rows.push_back(json{{"wwnn", wwn_text(e.NodeWWN)},
                            {"wwpn", wwn_text(e.PortWWN)},
                            {"port_id", port_id_text(e.PortID)},
                            {"target", target_id(e.TargetAddress.TargetID)},
                            {"state", e.DeviceFlags & 0x01 ? "online" : "offline"}});
    return rows;
}

const std::vector<TableColumn>& remote_port_columns() {
    static const std::vector<TableColumn> columns = {
        {"WWNN", "wwnn"}, {"WWPN", "wwpn"}, {"PORT ID", "port_id"}, {"TARGET", "target", true}, {"STATE", "state"}};
    return columns;
}

}  // namespace vxcli
