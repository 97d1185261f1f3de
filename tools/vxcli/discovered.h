// What a port has discovered, as JSON rows: its FCP targets (with LUN
// counts), their LUNs, and every remote port of its port database. Failed
// queries are recorded in the context (exit code 4) and leave nulls.
#pragma once

#include <nlohmann/json.hpp>

#include <vector>

#include "table.h"
#include "vsdmgt.h"

namespace vxcli {

class Context;
struct SelectedPort;

// The port database (every remote port the port knows, all roles and
// states); empty with a failure recorded when the query failed.
struct PortDatabase {
    bool ok = false;
    std::vector<DEVICEINFOENTRY> entries;
};
PortDatabase read_port_database(Context& ctx, const SelectedPort& port);

// {"index", "target", "wwnn", "wwpn", "port_id", "type", "state", "lun_count"}
std::vector<nlohmann::ordered_json> target_rows(Context& ctx, const SelectedPort& port, const PortDatabase& db);
const std::vector<TableColumn>& target_columns();

// {"index", "target", "wwpn", "luns": [...]}
std::vector<nlohmann::ordered_json> lun_rows(Context& ctx, const SelectedPort& port);
const std::vector<TableColumn>& lun_columns();

// {"wwnn", "wwpn", "port_id", "target", "state"}
std::vector<nlohmann::ordered_json> remote_port_rows(const PortDatabase& db);
const std::vector<TableColumn>& remote_port_columns();

}  // namespace vxcli
