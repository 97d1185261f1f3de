#include "table.h"

#include <fmt/format.h>

#include <algorithm>

namespace vxcli {

std::string render_table(const std::vector<TableColumn>& columns, const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> width(columns.size());
    for (size_t c = 0; c < columns.size(); ++c) {
        width[c] = columns[c].header.size();
        for (const auto& row : rows)
            if (c < row.size())
                width[c] = std::max(width[c], row[c].size());
    }
    std::string out;
    auto emit = [&](auto cell_of) {
        std::string line;
        for (size_t c = 0; c < columns.size(); ++c) {
            if (c != 0)
                line += "  ";
            const std::string& cell = cell_of(c);
            line += columns[c].right_aligned ? fmt::format("{:>{}}", cell, width[c]) : fmt::format("{:<{}}", cell, width[c]);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out += line;
        out += '\n';
    };
    emit([&](size_t c) -> const std::string& { return columns[c].header; });
    static const std::string empty;
    for (const auto& row : rows)
        emit([&](size_t c) -> const std::string& { return c < row.size() ? row[c] : empty; });
    return out;
}

}  // namespace vxcli
