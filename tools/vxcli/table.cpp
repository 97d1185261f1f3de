#include "table.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

namespace vxcli {

using json = nlohmann::ordered_json;

std::string column_name(const TableColumn& column) {
    std::string name = column.header;
    for (char& c : name)
        c = c == ' ' ? '_' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return name;
}

std::optional<std::vector<size_t>> select_columns(const std::vector<TableColumn>& columns,
                                                  const std::vector<std::string>& names, std::string& unknown) {
    std::vector<size_t> shown;
    if (names.empty()) {
        for (size_t c = 0; c < columns.size(); ++c)
            shown.push_back(c);
        return shown;
    }
    for (const std::string& name : names) {
        const auto it = std::find_if(columns.begin(), columns.end(),
                                     [&](const TableColumn& c) { return column_name(c) == name; });
        if (it == columns.end()) {
            unknown = name;
            return std::nullopt;
        }
        shown.push_back(static_cast<size_t>(it - columns.begin()));
    }
    return shown;
}

std::string cell_text(const json& value) {
    if (value.is_null())
        return "-";
    if (value.is_string())
        return value.get<std::string>();
    if (value.is_array()) {
        std::string out;
        for (const json& v : value)
            out += (out.empty() ? "" : ",") + cell_text(v);
        return out.empty() ? "-" : out;
    }
    return value.dump();
}

std::string render_table(const std::vector<TableColumn>& columns, const std::vector<size_t>& shown,
                         const std::vector<json>& rows) {
    std::vector<std::vector<std::string>> cells;
    for (const json& row : rows) {
        std::vector<std::string> line;
        for (size_t c : shown) {
            const TableColumn& col = columns[c];
            const bool has = row.is_object() && row.contains(col.key) && !row[col.key].is_null();
            line.push_back(!has ? "-" : col.cell ? col.cell(row) : cell_text(row[col.key]));
        }
        cells.push_back(std::move(line));
    }
    std::vector<size_t> width;
    for (size_t i = 0; i < shown.size(); ++i) {
        size_t w = columns[shown[i]].header.size();
        for (const auto& line : cells)
            w = std::max(w, line[i].size());
        width.push_back(w);
    }
    std::string out;
    auto emit = [&](auto text_of) {
        std::string line;
        for (size_t i = 0; i < shown.size(); ++i) {
            if (i != 0)
                line += "  ";
            const std::string& text = text_of(i);
            line += columns[shown[i]].right_aligned ? fmt::format("{:>{}}", text, width[i])
                                                    : fmt::format("{:<{}}", text, width[i]);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out += line;
        out += '\n';
    };
    emit([&](size_t i) -> const std::string& { return columns[shown[i]].header; });
    for (const auto& line : cells)
        emit([&](size_t i) -> const std::string& { return line[i]; });
    return out;
}

}  // namespace vxcli
