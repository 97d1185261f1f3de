// Plain text tables over JSON rows: the table shows what --json prints, one
// row object per line, so the two outputs cannot drift apart.
#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

namespace vxcli {

struct TableColumn {
    std::string header;
    std::string key;  // the row's JSON key this column shows
    bool right_aligned = false;
    // The cell text when it is not the value's own (a speed code shown as
    // "16 Gbit"); null rows and missing keys show "-" either way.
    std::string (*cell)(const nlohmann::ordered_json& row) = nullptr;
};

// The name --columns knows a column by: its header in lower case with '_'
// for blanks ("PORT ID" is port_id).
std::string column_name(const TableColumn& column);

// The positions of the columns named (in the order named; every column when
// `names` is empty), or empty with the first unknown name in `unknown`.
std::optional<std::vector<size_t>> select_columns(const std::vector<TableColumn>& columns,
                                                  const std::vector<std::string>& names, std::string& unknown);

// A JSON value as a cell: strings as they are, null as "-", arrays joined
// with ',', numbers and booleans as JSON writes them.
std::string cell_text(const nlohmann::ordered_json& value);

// A header row and one line per row, columns separated by two blanks,
// trailing blanks trimmed.
std::string render_table(const std::vector<TableColumn>& columns, const std::vector<size_t>& shown,
                         const std::vector<nlohmann::ordered_json>& rows);

}  // namespace vxcli
