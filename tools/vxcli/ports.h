// The ports `vxcli list` shows: gathered through the exported SD interface,
// described by one column table shared by the text and the JSON output.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vsdmgt.h"

namespace vxcli {

struct PortRow {
    uint32_t instance = 0;
    std::optional<uint32_t> handle;  // empty when the port did not open
    uint32_t open_status = 0;        // SD status of the open, 0 when it opened
    std::optional<DEVICENODEPROPERTY> node;  // empty when the query failed
    std::optional<DEVICEPORTPROPERTY> port;
    uint32_t query_status = 0;       // first failing property query, 0 when both answered
};

// One column of the port listing. `value` gives the JSON value of a row;
// the table prints the same value (null as "-").
struct Column {
    const char* header;
    const char* key;
    bool right_aligned;
    nlohmann::ordered_json (*value)(const PortRow&);
};

const std::vector<Column>& port_columns();

// Keeps the ports open while a listing is built; closing the last one
// unloads the library.
class PortSession {
public:
    PortSession() = default;
    ~PortSession();
    PortSession(const PortSession&) = delete;
    PortSession& operator=(const PortSession&) = delete;

    // Opens instances 0 .. count - 1 and returns a row for each, with the
    // node and port properties of the ports that opened.
    std::vector<PortRow> open_all(uint32_t count);
    // Opens one instance; 0 or the SD status of the failure.
    uint32_t open(uint32_t instance, uint32_t* handle);

private:
    std::vector<uint32_t> handles_;
};

// Text of an SD status, e.g. "Invalid handle (0x20000065)".
std::string status_text(uint32_t status);

}  // namespace vxcli
