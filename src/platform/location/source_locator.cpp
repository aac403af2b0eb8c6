#include "location/source_locator.hpp"

#include "foundation/number_text.hpp"

namespace sorvan::location {
namespace {

constexpr std::string_view kForms = " (want gpsd://HOST:PORT or replay:FILE[?speed=N])";

bool parseGpsd(std::string_view rest, SourceLocator& locator, std::string& reason) {
    locator.kind = SourceLocator::Kind::Gpsd;
    while (!rest.empty() && rest.back() == '/') {
        rest.remove_suffix(1);
    }
    if (rest.find_first_of("/?#@") != std::string_view::npos) {
        reason = "a gpsd address is HOST:PORT and nothing more";
        return false;
    }
    std::string_view host = rest, port;
    if (rest.starts_with('[')) {
        // A bracketed IPv6 address, whose colons are not the port's.
        auto close = rest.find(']');
        if (close == std::string_view::npos) {
            reason = "unclosed '[' in the gpsd address";
            return false;
        }
        host = rest.substr(1, close - 1);
        std::string_view after = rest.substr(close + 1);
        if (!after.empty()) {
            if (after[0] != ':') {
                reason = "text after the gpsd host's ']'";
                return false;
            }
            port = after.substr(1);
        }
    } else if (auto colon = rest.rfind(':'); colon != std::string_view::npos) {
        host = rest.substr(0, colon);
        port = rest.substr(colon + 1);
        if (host.find(':') != std::string_view::npos) {
            reason = "an IPv6 gpsd host goes in brackets, e.g. gpsd://[::1]:2947";
            return false;
        }
    }
    if (!host.empty()) {
        locator.host = std::string(host);
    }
    if (!port.empty()) {
        if (!text::parseInteger(port, 1, 65535) || port.starts_with('+') || port.starts_with('-')) {
            reason = "the gpsd port '" + std::string(port) + "' is not a number from 1 to 65535";
            return false;
        }
        locator.port = std::string(port);
    }
    return true;
}

bool parseReplay(std::string_view rest, SourceLocator& locator, std::string& reason) {
    locator.kind = SourceLocator::Kind::Replay;
    std::string_view query;
    if (auto mark = rest.find('?'); mark != std::string_view::npos) {
        query = rest.substr(mark + 1);
        rest = rest.substr(0, mark);
    }
    if (rest.empty()) {
        reason = "replay: needs a file";
        return false;
    }
    locator.path = std::string(rest);
    while (!query.empty()) {
        auto amp = query.find('&');
        std::string_view pair = query.substr(0, amp);
        query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
        auto eq = pair.find('=');
        std::string_view key = pair.substr(0, eq);
        std::string_view value = eq == std::string_view::npos ? "" : pair.substr(eq + 1);
        if (key == "speed") {
            if (value == "max") {
                locator.speed = 0;
                continue;
            }
            auto speed = text::parseDouble(value);
            if (!speed || *speed <= 0) {
                reason = "speed wants a number above 0 or max, got '" + std::string(value) + "'";
                return false;
            }
            locator.speed = *speed;
        } else if (key == "loop") {
            if (value != "0" && value != "1") {
                reason = "loop wants 0 or 1, got '" + std::string(value) + "'";
                return false;
            }
            locator.loops = value == "1";
        } else {
            reason = "unknown replay option '" + std::string(key) + "' (speed, loop)";
            return false;
        }
    }
    return true;
}

}  // namespace

std::optional<SourceLocator> parseSourceLocator(std::string_view text, std::string& reason) {
    SourceLocator locator;
    bool ok = false;
    if (text.starts_with("gpsd://")) {
        ok = parseGpsd(text.substr(7), locator, reason);
    } else if (text.starts_with("replay:")) {
        ok = parseReplay(text.substr(7), locator, reason);
    } else {
        reason = "unknown location source '" + std::string(text) + "'" + std::string(kForms);
    }
    if (!ok) {
        return std::nullopt;
    }
    return locator;
}

}  // namespace sorvan::location
