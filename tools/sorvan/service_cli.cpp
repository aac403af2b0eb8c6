#include "service_cli.hpp"

#include <algorithm>
#include <cstdio>

namespace sorvan::cli {

std::shared_ptr<SorvanMapView> serviceView(const ServiceSettings& settings) {
    auto view = SorvanMapView::create({0, 0, 800, 600});
    view->setKey(settings.effectiveKey());
    view->setLanguage(settings.language());
    view->setCenterCoordinate(kToolMapCenter);
    return view;
}

std::size_t displayWidth(const std::string& text) {
    std::size_t width = 0;
    for (std::size_t i = 0; i < text.size();) {
        auto c = static_cast<unsigned char>(text[i]);
        std::size_t length = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
        char32_t cp = c;
        if (length == 3 && i + 2 < text.size()) {
            cp = ((c & 0x0F) << 12) | ((text[i + 1] & 0x3F) << 6) | (text[i + 2] & 0x3F);
        }
        // Thai above and below vowels and tone marks sit on the letter before them.
        bool combining =
            cp == 0x0E31 || (cp >= 0x0E34 && cp <= 0x0E3A) || (cp >= 0x0E47 && cp <= 0x0E4E);
        if (!combining) {
            ++width;
        }
        i += length;
    }
    return width;
}

Table::Table(std::vector<std::string> headings) {
    rows_.push_back(std::move(headings));
}

void Table::add(std::vector<std::string> row) {
    rows_.push_back(std::move(row));
}

void Table::print() const {
    std::vector<std::size_t> widths;
    for (const auto& row : rows_) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t c = 0; c < row.size(); ++c) {
            widths[c] = std::max(widths[c], displayWidth(row[c]));
        }
    }
    for (const auto& row : rows_) {
        std::string line;
        for (std::size_t c = 0; c < row.size(); ++c) {
            std::string pad(widths[c] - displayWidth(row[c]), ' ');
            bool right = std::find(numeric_.begin(), numeric_.end(), c) != numeric_.end();
            if (c + 1 == row.size() && !right) {
                pad.clear();  // no trailing blanks
            }
            line += right ? pad + row[c] : row[c] + pad;
            if (c + 1 < row.size()) {
                line += "  ";
            }
        }
        std::printf("%s\n", line.c_str());
    }
}

}  // namespace sorvan::cli
