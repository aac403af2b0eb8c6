#include "service_cli.hpp"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>

#include "command.hpp"

namespace sorvan::cli {

std::optional<std::string> optionValue(const std::vector<std::string>& args, std::size_t& i,
                                       const std::string& name) {
    const std::string& arg = args[i];
    if (arg == name) {
        if (i + 1 >= args.size()) {
            return std::nullopt;
        }
        return args[++i];
    }
    return arg.substr(name.size() + 1);  // --name=VALUE
}

std::optional<std::int64_t> parseInteger(const std::string& text) {
    std::int64_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

namespace {

bool isOption(const std::string& arg, const std::string& name) {
    return arg == name || arg.rfind(name + "=", 0) == 0;
}

}  // namespace

int takeServiceOption(const std::string& command, const std::vector<std::string>& args,
                      std::size_t i, ServiceOptions& options) {
    const std::string& arg = args[i];
    std::size_t at = i;
    if (arg == "--json") {
        options.json = true;
        return 1;
    }
    if (isOption(arg, "--lang")) {
        auto value = optionValue(args, at, "--lang");
        if (!value || (*value != "en" && *value != "th")) {
            usageError(command, "--lang takes en or th");
            return -1;
        }
        options.language = *value == "en" ? 2 : 1;
        return at == i ? 1 : 2;
    }
    if (isOption(arg, "--key")) {
        auto value = optionValue(args, at, "--key");
        if (!value) {
            usageError(command, "--key needs a value");
            return -1;
        }
        options.key = *value;
        return at == i ? 1 : 2;
    }
    return 0;
}

std::shared_ptr<SorvanMapView> serviceView(const ServiceOptions& options) {
    std::string key = options.key;
    if (key.empty()) {
        if (const char* env = std::getenv("SORVAN_KEY")) {
            key = env;
        }
    }
    auto view = SorvanMapView::create({0, 0, 800, 600});
    view->setKey(key);
    view->setLanguage(options.language);
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
