#include "sorvan/platform/foundation/url.hpp"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <string>

#include "foundation/number_text.hpp"

namespace sorvan::net {

namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

bool isAsciiAlnum(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool isHex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c - 'A' + 10;
}

bool contains(std::string_view set, unsigned char c) {
    return c != 0 && set.find(static_cast<char>(c)) != std::string_view::npos;
}

// Characters a URL may hold literally ('%' and '#' have rules of their own).
constexpr std::string_view kURLPunctuation = "!$&'()*+,-./:;=?@_~[]";
// Characters a query keeps unencoded.
constexpr std::string_view kQueryPunctuation = "!$&'()*+,-./:;=?@_~";
// Characters a path keeps unencoded.
constexpr std::string_view kPathPunctuation = "!$&'()*+,-./:;=@_~";

std::string percentEncode(std::string_view text, std::string_view keep) {
    std::string out;
    out.reserve(text.size());
    for (char ch : text) {
        auto c = static_cast<unsigned char>(ch);
        if (isAsciiAlnum(c) || contains(keep, c)) {
            out += ch;
        } else {
            out += '%';
            out += kHexDigits[c >> 4];
            out += kHexDigits[c & 0xF];
        }
    }
    return out;
}

bool isValidURLText(std::string_view text) {
    if (text.empty()) {
        return false;
    }
    bool seenHash = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        auto c = static_cast<unsigned char>(text[i]);
        if (isAsciiAlnum(c) || contains(kURLPunctuation, c)) {
            continue;
        }
        if (c == '%') {
            if (i + 2 < text.size() && isHex(text[i + 1]) && isHex(text[i + 2])) {
                i += 2;
                continue;
            }
            return false;
        }
        if (c == '#' && !seenHash) {
            seenHash = true;
            continue;
        }
        return false;
    }
    return true;
}

// The pieces of a URL text, as views into it. Only called on valid URL text.
struct Parts {
    std::string_view scheme;
    bool hasAuthority = false;
    std::string_view userInfo;
    bool hasUserInfo = false;
    std::string_view host;  // with the brackets of an IPv6 literal
    std::string_view port;  // digits as written (may be empty or malformed)
    bool hasPort = false;
    std::size_t pathBegin = 0, pathEnd = 0;
    std::string_view path;
    std::optional<std::string_view> query;
    std::optional<std::string_view> fragment;
};

Parts split(std::string_view text) {
    Parts p;
    std::string_view rest = text;
    std::size_t offset = 0;

    if (auto hash = rest.find('#'); hash != std::string_view::npos) {
        p.fragment = rest.substr(hash + 1);
        rest = rest.substr(0, hash);
    }
    if (auto q = rest.find('?'); q != std::string_view::npos) {
        p.query = rest.substr(q + 1);
        rest = rest.substr(0, q);
    }
    // A scheme is a letter, then letters, digits, '+', '-' or '.', then ':'.
    if (!rest.empty() && std::isalpha(static_cast<unsigned char>(rest[0])) != 0) {
        std::size_t i = 1;
        while (i < rest.size() &&
               (isAsciiAlnum(static_cast<unsigned char>(rest[i])) || contains("+-.", rest[i]))) {
            ++i;
        }
        if (i < rest.size() && rest[i] == ':') {
            p.scheme = rest.substr(0, i);
            rest = rest.substr(i + 1);
            offset += i + 1;
        }
    }
    if (rest.substr(0, 2) == "//") {
        p.hasAuthority = true;
        rest = rest.substr(2);
        offset += 2;
        std::size_t end = std::min(rest.find('/'), rest.size());
        std::string_view authority = rest.substr(0, end);
        rest = rest.substr(end);
        offset += end;
        if (auto at = authority.rfind('@'); at != std::string_view::npos) {
            p.userInfo = authority.substr(0, at);
            p.hasUserInfo = true;
            authority = authority.substr(at + 1);
        }
        std::size_t hostEnd = authority.size();
        if (!authority.empty() && authority[0] == '[') {
            auto close = authority.find(']');
            hostEnd = close == std::string_view::npos ? authority.size() : close + 1;
        } else {
            hostEnd = std::min(authority.find(':'), authority.size());
        }
        p.host = authority.substr(0, hostEnd);
        std::string_view afterHost = authority.substr(hostEnd);
        if (!afterHost.empty() && afterHost[0] == ':') {
            p.hasPort = true;
            p.port = afterHost.substr(1);
        } else if (!afterHost.empty()) {
            p.hasPort = true;
            p.port = afterHost;  // garbage after an IPv6 literal: reported as a bad port
        }
    }
    p.path = rest;
    p.pathBegin = offset;
    p.pathEnd = offset + rest.size();
    return p;
}

std::string unbracketed(std::string_view host) {
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    return std::string(host);
}

// nullopt for an empty port; -1 for one that is no number from 0 to 65535.
std::optional<int> parsePort(std::string_view text) {
    if (text.empty()) {
        return std::nullopt;
    }
    // Digits only (no sign), at most five of them, as URL parsers take a port.
    if (text.size() > 5 ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return -1;
    }
    return static_cast<int>(text::parseInteger(text, 0, 65535).value_or(-1));
}

}  // namespace

std::string percentEncodeQuery(std::string_view text) {
    return percentEncode(text, kQueryPunctuation);
}

std::string percentEncodePath(std::string_view text) {
    return percentEncode(text, kPathPunctuation);
}

std::string percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && isHex(text[i + 1]) && isHex(text[i + 2])) {
            out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

// ---------------------------------------------------------------------------------------------
// URL

std::optional<URL> URL::fromString(std::string_view text) {
    if (!isValidURLText(text)) {
        return std::nullopt;
    }
    return URL(std::string(text));
}

std::string URL::scheme() const {
    return std::string(split(text_).scheme);
}

std::string URL::host() const {
    return unbracketed(split(text_).host);
}

std::optional<int> URL::port() const {
    auto port = parsePort(split(text_).port);
    if (port && *port < 0) {
        return std::nullopt;
    }
    return port;
}

std::string URL::path() const {
    return std::string(split(text_).path);
}

std::string URL::query() const {
    return std::string(split(text_).query.value_or(""));
}

URL URL::appendingPathComponent(std::string_view component) const {
    Parts p = split(text_);
    std::string path(p.path);
    // '/' may separate several components at once; everything else a path cannot hold is
    // encoded so that the result is still a URL.
    std::string encoded = percentEncodePath(component);
    if (path.empty()) {
        path = p.hasAuthority ? "/" + encoded : encoded;
    } else if (path.back() == '/') {
        path += encoded.starts_with('/') ? encoded.substr(1) : encoded;
    } else {
        path += encoded.starts_with('/') ? encoded : "/" + encoded;
    }
    std::string text = text_.substr(0, p.pathBegin) + path + text_.substr(p.pathEnd);
    return URL(std::move(text));
}

// ---------------------------------------------------------------------------------------------
// URLComponents

std::optional<URLComponents> URLComponents::fromString(std::string_view text) {
    if (!isValidURLText(text)) {
        return std::nullopt;
    }
    Parts p = split(text);
    auto port = parsePort(p.port);
    if (port && *port < 0) {
        return std::nullopt;
    }
    URLComponents c;
    c.scheme_ = std::string(p.scheme);
    c.hasAuthority_ = p.hasAuthority;
    c.userInfo_ = p.hasUserInfo ? std::string(p.userInfo) + "@" : "";
    c.host_ = unbracketed(p.host);
    c.port_ = port;
    c.path_ = std::string(p.path);
    if (p.query) {
        c.query_ = std::string(*p.query);
    }
    if (p.fragment) {
        c.fragment_ = std::string(*p.fragment);
    }
    return c;
}

void URLComponents::setPath(std::string_view path) {
    path_ = percentEncodePath(path);
}

void URLComponents::setHost(std::string host) {
    host_ = std::move(host);
    hasAuthority_ = true;
}

void URLComponents::setQuery(std::optional<std::string_view> query) {
    if (query) {
        query_ = percentEncodeQuery(*query);
    } else {
        query_.reset();
    }
}

std::string URLComponents::string() const {
    std::string s;
    if (!scheme_.empty()) {
        s += scheme_;
        s += ':';
    }
    if (hasAuthority_) {
        s += "//";
        s += userInfo_;
        if (host_.find(':') != std::string::npos) {
            s += '[' + host_ + ']';
        } else {
            s += host_;
        }
        if (port_) {
            s += ':' + std::to_string(*port_);
        }
        if (!path_.empty() && path_[0] != '/') {
            s += '/';  // a path after an authority must start with a slash
        }
    }
    s += path_;
    if (query_) {
        s += '?' + *query_;
    }
    if (fragment_) {
        s += '#' + *fragment_;
    }
    return s;
}

std::optional<URL> URLComponents::url() const {
    return URL::fromString(string());
}

}  // namespace sorvan::net
