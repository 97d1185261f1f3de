// Plain text tables: a header row and aligned columns.
#pragma once

#include <string>
#include <vector>

namespace vxcli {

struct TableColumn {
    std::string header;
    bool right_aligned = false;
};

// Every row has one cell per column. Columns are separated by two blanks;
// trailing blanks are trimmed.
std::string render_table(const std::vector<TableColumn>& columns, const std::vector<std::vector<std::string>>& rows);

}  // namespace vxcli
