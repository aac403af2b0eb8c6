#include "service_cli.hpp"

#include <algorithm>
#include <cstdio>

#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::cli {

std::shared_ptr<SorvanMapView> serviceView(const ServiceSettings& settings) {
    auto view = SorvanMapView::create({0, 0, 800, 600});
    view->setKey(settings.effectiveKey());
    view->setLanguage(settings.language());
    view->setCenterCoordinate(kToolMapCenter);
    return view;
}

struct CallWatch::State {
    std::mutex mutex;
    std::vector<std::string> prefixes;
    log::Level shown = log::Level::warning;
    std::vector<int> statuses;
    std::vector<std::string> failures;
};

CallWatch::CallWatch(std::vector<std::string> failurePrefixes) : state_(std::make_shared<State>()) {
    state_->prefixes = std::move(failurePrefixes);
    state_->shown = log::level();
    // The failure line must reach the watch whatever the user chose to see.
    if (static_cast<int>(log::level()) < static_cast<int>(log::Level::error)) {
        log::setLevel(log::Level::error);
    }
    previous_ = log::setSink([state = state_](log::Level level, std::string_view line) {
        {
            std::lock_guard lock(state->mutex);
            for (const auto& prefix : state->prefixes) {
                if (line.starts_with(prefix)) {
                    state->failures.emplace_back(line);
                    break;
                }
            }
        }
        if (static_cast<int>(level) <= static_cast<int>(state->shown)) {
            std::string out(line);
            out.push_back('\n');
            std::fwrite(out.data(), 1, out.size(), stderr);
        }
    });
    services::setAnswerObserver([state = state_](const services::AnswerNote& note) {
        std::lock_guard lock(state->mutex);
        state->statuses.push_back(note.status);
    });
}

CallWatch::~CallWatch() {
    services::setAnswerObserver(nullptr);
    log::setSink(std::move(previous_));
    log::setLevel(state_->shown);
}

std::optional<std::string> CallWatch::problem(const std::string& service,
                                              const std::optional<net::Error>& error,
                                              bool delivered) const {
    std::lock_guard lock(state_->mutex);
    int badStatus = 0;
    for (int status : state_->statuses) {
        if (status != 200) {
            badStatus = status;
            break;
        }
    }
    const std::string status = badStatus ? strformat("HTTP status %d", badStatus) : "";
    if (error) {
        return error->localizedDescription + (status.empty() ? "" : " (" + status + ")");
    }
    if (!status.empty()) {
        return "the " + service + " service answered with " + status;
    }
    if (!state_->failures.empty()) {
        const std::string& line = state_->failures.front();
        std::size_t reason = line.find("): ");
        return "the " + service + " service's answer could not be read" +
               (reason == std::string::npos ? std::string() : ": " + line.substr(reason + 3));
    }
    if (!delivered) {
        return "the " + service + " service gave no usable answer";
    }
    return std::nullopt;
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
