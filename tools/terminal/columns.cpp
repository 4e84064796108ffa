#include "tools/terminal/columns.h"

#include <algorithm>

#include "tools/terminal/text.h"

std::string velmctl_columns(std::span<const std::vector<std::string>> rows, std::size_t indent)
{
    std::vector<std::size_t> widths;
    for (const std::vector<std::string> &row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], velmctl_columns_of(row[i]));
        }
    }
    std::string out;
    for (const std::vector<std::string> &row : rows) {
        out.append(indent, ' ');
        for (std::size_t i = 0; i < row.size(); ++i) {
            const bool is_last = i + 1 == row.size();
            out += row[i];
            out.append(is_last ? 0 : widths[i] - velmctl_columns_of(row[i]) + 2, ' ');
        }
        out += '\n';
    }
    return out;
}
