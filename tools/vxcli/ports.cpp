// Gathering the port rows and the column table of `vxcli list`.
#include "ports.h"

#include <fmt/format.h>

#include "vsdmgt.h"

namespace vxcli {

namespace {

nlohmann::ordered_json instance_of(const PortRow& r) { return r.instance; }

nlohmann::ordered_json handle_of(const PortRow& r) { return r.handle ? nlohmann::ordered_json(*r.handle) : nlohmann::ordered_json(); }

}  // namespace

// New properties become new rows here; the table and JSON follow by themselves.
const std::vector<Column>& port_columns() {
    static const std::vector<Column> columns = {
        {"INSTANCE", "instance", true, instance_of},
        {"HANDLE", "handle", true, handle_of},
    };
    return columns;
}

PortSession::~PortSession() {
    for (uint32_t handle : handles_)
        SDCloseDevice(handle);
}

std::vector<PortRow> PortSession::open_all(uint32_t count) {
    std::vector<PortRow> rows;
    rows.reserve(count);
    for (uint32_t instance = 0; instance < count; ++instance) {
        PortRow row;
        row.instance = instance;
        SD_UINT32 handle = 0;
        row.open_status = SDOpenDevice(instance, &handle);
        if (row.open_status == SDM_STATUS_SUCCESS) {
            row.handle = handle;
            handles_.push_back(handle);
        }
        rows.push_back(row);
    }
    return rows;
}

std::string status_text(uint32_t status) {
    const char* text = SDGetErrorString(status);
    return fmt::format("{} (0x{:08X})", text ? text : "unknown", status);
}

}  // namespace vxcli
