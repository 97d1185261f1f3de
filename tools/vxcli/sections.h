// A port's properties as sections (node, port, chip, driver, firmware,
// converged port): each field has its table label and text, and its JSON
// keys with typed values. show, report and list all read them from here, so
// a key means the same in every command.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace vxcli {

class Context;
struct SelectedPort;

struct Field {
    const char* label;              // in the table
    std::string text;               // what the table shows
    nlohmann::ordered_json values;  // JSON object: the field's keys
};

struct Section {
    const char* title = "";
    const char* key = "";
    uint32_t status = 0;  // the query's; no fields when it failed
    std::vector<Field> fields;

    nlohmann::ordered_json to_json() const;
    // "Title" and one indented "label  text" line per field.
    std::string to_text() const;
};

Section node_section(int handle);
Section port_section(int handle);
// Every section the port has: node, port, chip, driver, firmware, and the
// converged port data on converged boards.
std::vector<Section> port_sections(int handle);

// The port's identity and every section, as `show` gives them: keys of
// `out` and lines of `text`. A failed query leaves {"error": ...} as the
// section and makes the result partial.
void port_properties(Context& ctx, const SelectedPort& port, nlohmann::ordered_json& out, std::string& text);

}  // namespace vxcli
