// Reading the tab-separated data files of the embedded service. Pure; thread-safe.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "foundation/number_text.hpp"

namespace sorvan::server {

/// The fields of every line that is neither empty nor a '#' comment.
inline std::vector<std::vector<std::string_view>> tsvRows(std::string_view text) {
    std::vector<std::vector<std::string_view>> rows;
    while (!text.empty()) {
        auto end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
        }
        if (line.empty() || line.front() == '#') {
            continue;
        }
        std::vector<std::string_view> fields;
        while (true) {
            auto tab = line.find('\t');
            fields.push_back(line.substr(0, tab));
            if (tab == std::string_view::npos) {
                break;
            }
            line.remove_prefix(tab + 1);
        }
        rows.push_back(std::move(fields));
    }
    return rows;
}

inline std::optional<double> tsvDouble(std::string_view field) {
    return text::parseDouble(field);
}

}  // namespace sorvan::server
