// Gathering the port rows and the column table of `vxcli list`.
#include "ports.h"

#include <fmt/format.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include "format.h"

namespace vxcli {

namespace {

using json = nlohmann::ordered_json;

json instance_of(const PortRow& r) { return r.instance; }

json handle_of(const PortRow& r) { return r.handle ? json(*r.handle) : json(); }

// The SCSI host number the kernel gave each port, by port name. The SD
// records do not carry it; the FC transport class names it in sysfs.
const std::map<uint64_t, unsigned>& hosts_by_wwpn() {
    static const std::map<uint64_t, unsigned> hosts = [] {
        std::map<uint64_t, unsigned> found;
        std::error_code ec;
        for (const auto& entry : std::filesystem::directory_iterator("/sys/class/fc_host", ec)) {
            const std::string name = entry.path().filename().string();
            if (name.rfind("host", 0) != 0)
                continue;
            std::ifstream in(entry.path() / "port_name");
            std::string text;
            if (in >> text)
                found[std::strtoull(text.c_str(), nullptr, 16)] =
                    static_cast<unsigned>(std::strtoul(name.c_str() + 4, nullptr, 10));
        }
        return found;
    }();
    return hosts;
}

json host_of(const PortRow& r) {
    if (!r.port)
        return json();
    uint64_t wwpn = 0;
    for (uint8_t b : r.port->WWN)
        wwpn = wwpn << 8 | b;
    const auto& hosts = hosts_by_wwpn();
    const auto it = hosts.find(wwpn);
    return it == hosts.end() ? json() : json(it->second);
}

json wwnn_of(const PortRow& r) { return r.node ? json(wwn_text(r.node->WWN)) : json(); }

json wwpn_of(const PortRow& r) { return r.port ? json(wwn_text(r.port->WWN)) : json(); }

json port_id_of(const PortRow& r) { return r.port ? json(port_id_text(r.port->PortID)) : json(); }

json type_of(const PortRow& r) { return r.node ? json(interface_text(r.node->InterfaceType)) : json(); }

json state_of(const PortRow& r) { return r.port ? json(port_state_text(r.port->PortState)) : json(); }

json speed_of(const PortRow& r) { return r.port ? json(speed_text(r.port->PortSpeed)) : json(); }

json model_of(const PortRow& r) { return r.node ? json(field_text(r.node->Model, sizeof r.node->Model)) : json(); }

json serial_of(const PortRow& r) {
    return r.node ? json(field_text(r.node->SerialNumber, sizeof r.node->SerialNumber)) : json();
}

}  // namespace

// New properties become new rows here; the table and JSON follow by themselves.
const std::vector<Column>& port_columns() {
    static const std::vector<Column> columns = {
        {"INSTANCE", "instance", true, instance_of}, {"HANDLE", "handle", true, handle_of},
        {"HOST", "host", true, host_of},             {"WWNN", "wwnn", false, wwnn_of},
        {"WWPN", "wwpn", false, wwpn_of},
        {"PORT ID", "port_id", false, port_id_of},   {"TYPE", "type", false, type_of},
        {"STATE", "state", false, state_of},         {"SPEED", "speed", false, speed_of},
        {"MODEL", "model", false, model_of},         {"SERIAL", "serial", false, serial_of},
    };
    return columns;
}

PortSession::~PortSession() {
    for (uint32_t handle : handles_)
        SDCloseDevice(handle);
}

uint32_t PortSession::open(uint32_t instance, uint32_t* handle) {
    int h = 0;
    const SD_UINT32 status = SDOpenDevice(instance, &h);
    if (status == SDM_STATUS_SUCCESS) {
        handles_.push_back(h);
        *handle = h;
    }
    return status;
}

std::vector<PortRow> PortSession::open_all(uint32_t count) {
    std::vector<PortRow> rows;
    rows.reserve(count);
    for (uint32_t instance = 0; instance < count; ++instance) {
        PortRow row;
        row.instance = instance;
        uint32_t handle = 0;
        row.open_status = open(instance, &handle);
        if (row.open_status == SDM_STATUS_SUCCESS) {
            row.handle = handle;
            const int device = static_cast<int>(handle);
            DEVICENODEPROPERTY node{};
            const uint32_t node_status = SDGetHbaDeviceNodeProperty(device, &node);
            if (node_status == SDM_STATUS_SUCCESS)
                row.node = node;
            DEVICEPORTPROPERTY port{};
            const uint32_t port_status = SDGetHbaDevicePortProperty(device, 0, &port);
            if (port_status == SDM_STATUS_SUCCESS)
                row.port = port;
            row.query_status = node_status != SDM_STATUS_SUCCESS ? node_status : port_status;
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
