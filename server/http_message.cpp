#include "http_message.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "sorvan/platform/foundation/url.hpp"

namespace sorvan::server {

// ---------------------------------------------------------------------------------------------
// Request and Response helpers declared in the public header

std::multimap<std::string, std::string> Request::queryItems() const {
    std::multimap<std::string, std::string> items;
    std::string_view rest = query;
    while (!rest.empty()) {
        auto amp = rest.find('&');
        std::string_view piece = rest.substr(0, amp);
        rest = amp == std::string_view::npos ? std::string_view() : rest.substr(amp + 1);
        if (piece.empty()) {
            continue;
        }
        auto eq = piece.find('=');
        std::string_view name = piece.substr(0, eq);
        std::string_view value =
            eq == std::string_view::npos ? std::string_view() : piece.substr(eq + 1);
        items.emplace(net::percentDecode(name), net::percentDecode(value));
    }
    return items;
}

std::optional<std::string> Request::queryItem(const std::string& name) const {
    auto items = queryItems();
    auto it = items.find(name);
    if (it == items.end()) {
        return std::nullopt;
    }
    return it->second;
}

Response Response::png(std::string bytes) {
    return Response{200, "image/png", std::move(bytes), {}};
}

Response Response::json(std::string text) {
    return Response{200, "application/json; charset=utf-8", std::move(text), {}};
}

Response Response::html(std::string text) {
    return Response{200, "text/html; charset=utf-8", std::move(text), {}};
}

Response Response::text(int status, std::string text) {
    return Response{status, "text/plain; charset=utf-8", std::move(text), {}};
}

namespace http {

namespace {

std::string lowerCased(std::string_view s) {
    std::string out(s);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) {
        s.remove_prefix(1);
    }
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) {
        s.remove_suffix(1);
    }
    return s;
}

ParseOutcome invalid(int status, std::string reason) {
    ParseOutcome out;
    out.kind = ParseOutcome::Kind::Invalid;
    out.status = status;
    out.reason = std::move(reason);
    return out;
}

bool isToken(std::string_view s) {
    return !s.empty() && std::all_of(s.begin(), s.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 ||
               std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
    });
}

// Control characters (a tab apart) have no place in a target or a header value; a bare CR
// among them would let a client end a line where a later reader does not.
bool hasControl(std::string_view s, bool allowTab) {
    return std::any_of(s.begin(), s.end(), [allowTab](unsigned char c) {
        return (c < 0x20 && !(allowTab && c == '\t')) || c == 0x7f;
    });
}

}  // namespace

std::size_t findHeadEnd(std::string_view buffer, std::size_t from) {
    // The head ends at the first empty line; clients may end lines with a bare LF. An end may
    // straddle `from` by two bytes ("\n\r" seen, "\n" new).
    std::size_t start = from >= 2 ? from - 2 : 0;
    for (std::size_t i = buffer.find('\n', start); i != std::string_view::npos;
         i = buffer.find('\n', i + 1)) {
        if (i + 1 < buffer.size() && buffer[i + 1] == '\n') {
            return i + 2;
        }
        if (i + 2 < buffer.size() && buffer[i + 1] == '\r' && buffer[i + 2] == '\n') {
            return i + 3;
        }
    }
    return std::string_view::npos;
}

Request requestLineOf(std::string_view buffer) {
    Request r;
    r.method = "-";
    r.target = "-";
    while (buffer.starts_with("\r\n") || buffer.starts_with("\n")) {
        buffer.remove_prefix(buffer[0] == '\r' ? 2 : 1);
    }
    auto lineEnd = buffer.find('\n');
    if (lineEnd == std::string_view::npos) {
        return r;
    }
    std::string_view line = trimmed(buffer.substr(0, lineEnd));
    auto sp1 = line.find(' ');
    if (sp1 == std::string_view::npos) {
        return r;
    }
    auto sp2 = line.find(' ', sp1 + 1);
    r.method = std::string(line.substr(0, sp1));
    r.target =
        std::string(line.substr(sp1 + 1, sp2 == std::string_view::npos ? sp2 : sp2 - sp1 - 1));
    return r;
}

ParseOutcome parseRequestHead(std::string_view buffer) {
    std::size_t headBytes = findHeadEnd(buffer);
    if (headBytes == std::string_view::npos) {
        if (buffer.size() > kMaxHeadBytes) {
            return invalid(431, "request head too large");
        }
        return {};
    }
    // Up to and including the newline of the last line before the empty one.
    std::size_t end = headBytes - (buffer[headBytes - 2] == '\r' ? 2 : 1);
    if (end > kMaxHeadBytes) {
        return invalid(431, "request head too large");
    }

    ParseOutcome out;
    out.kind = ParseOutcome::Kind::Complete;
    ParsedRequest& p = out.parsed;
    p.headBytes = headBytes;
    std::string_view head = buffer.substr(0, end);

    // Leading empty lines before the request line are allowed and skipped.
    while (head.starts_with("\r\n") || head.starts_with("\n")) {
        head.remove_prefix(head[0] == '\r' ? 2 : 1);
    }
    auto lineEnd = head.find('\n');
    std::string_view requestLine = trimmed(head.substr(0, lineEnd));
    head = lineEnd == std::string_view::npos ? std::string_view() : head.substr(lineEnd + 1);

    auto sp1 = requestLine.find(' ');
    auto sp2 = sp1 == std::string_view::npos ? sp1 : requestLine.find(' ', sp1 + 1);
    if (sp2 == std::string_view::npos || requestLine.find(' ', sp2 + 1) != std::string_view::npos) {
        return invalid(400, "malformed request line");
    }
    std::string_view method = requestLine.substr(0, sp1);
    std::string_view target = requestLine.substr(sp1 + 1, sp2 - sp1 - 1);
    std::string_view version = requestLine.substr(sp2 + 1);
    // What arrived, for the access log of a request refused from here on.
    auto refused = [&](int status, std::string reason) {
        ParseOutcome bad = invalid(status, std::move(reason));
        bad.parsed.request.method = std::string(method);
        bad.parsed.request.target = std::string(target);
        return bad;
    };
    if (!isToken(method) || target.empty()) {
        return refused(400, "malformed request line");
    }
    if (hasControl(target, false)) {
        return refused(400, "malformed request target");
    }
    if (version != "HTTP/1.1" && version != "HTTP/1.0") {
        return refused(505, "unsupported HTTP version");
    }

    Request& r = p.request;
    r.method = std::string(method);
    if (target.starts_with("http://") || target.starts_with("https://")) {
        auto slash = target.find('/', target.find("//") + 2);
        target = slash == std::string_view::npos ? std::string_view("/") : target.substr(slash);
    }
    if (auto hash = target.find('#'); hash != std::string_view::npos) {
        target = target.substr(0, hash);
    }
    r.target = std::string(target);
    auto q = target.find('?');
    r.path = net::percentDecode(target.substr(0, q));
    r.query = q == std::string_view::npos ? "" : std::string(target.substr(q + 1));

    while (!head.empty()) {
        auto nl = head.find('\n');
        std::string_view line = head.substr(0, nl);
        head = nl == std::string_view::npos ? std::string_view() : head.substr(nl + 1);
        if (line.ends_with('\r')) {
            line.remove_suffix(1);
        }
        if (line.empty()) {
            continue;
        }
        auto colon = line.find(':');
        if (colon == std::string_view::npos || !isToken(line.substr(0, colon))) {
            return refused(400, "malformed header line");
        }
        std::string_view rawValue = trimmed(line.substr(colon + 1));
        if (hasControl(rawValue, true)) {
            return refused(400, "malformed header line");
        }
        std::string name = lowerCased(line.substr(0, colon));
        std::string value(rawValue);
        auto [it, added] = r.headers.emplace(name, value);
        if (!added) {
            it->second += ", " + value;
        }
    }

    std::string connection;
    if (auto it = r.headers.find("connection"); it != r.headers.end()) {
        connection = lowerCased(it->second);
    }
    p.keepAlive = version == "HTTP/1.1" ? connection.find("close") == std::string::npos
                                        : connection.find("keep-alive") != std::string::npos;
    if (r.headers.count("transfer-encoding") != 0) {
        return refused(501, "request bodies in chunks are not supported");
    }
    if (auto it = r.headers.find("content-length"); it != r.headers.end()) {
        const std::string& v = it->second;
        auto [ptr, ec] = std::from_chars(v.data(), v.data() + v.size(), p.bodyBytes);
        if (ec != std::errc() || ptr != v.data() + v.size()) {
            return refused(400, "malformed Content-Length");
        }
        if (p.bodyBytes > kMaxBodyBytes) {
            return refused(413, "request body too large");
        }
    }
    return out;
}

const char* reasonPhrase(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 201:
            return "Created";
        case 204:
            return "No Content";
        case 206:
            return "Partial Content";
        case 301:
            return "Moved Permanently";
        case 302:
            return "Found";
        case 304:
            return "Not Modified";
        case 400:
            return "Bad Request";
        case 401:
            return "Unauthorized";
        case 403:
            return "Forbidden";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 408:
            return "Request Timeout";
        case 413:
            return "Content Too Large";
        case 429:
            return "Too Many Requests";
        case 431:
            return "Request Header Fields Too Large";
        case 500:
            return "Internal Server Error";
        case 501:
            return "Not Implemented";
        case 502:
            return "Bad Gateway";
        case 503:
            return "Service Unavailable";
        case 504:
            return "Gateway Timeout";
        case 505:
            return "HTTP Version Not Supported";
        default:
            return "Unknown";
    }
}

std::string responseHead(const Response& response, bool keepAlive) {
    std::string head = "HTTP/1.1 " + std::to_string(response.status) + " " +
                       reasonPhrase(response.status) + "\r\n";
    head += "Content-Type: " + response.contentType + "\r\n";
    head += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
    head += keepAlive ? "Connection: keep-alive\r\n" : "Connection: close\r\n";
    for (const auto& [name, value] : response.headers) {
        head += name + ": " + value + "\r\n";
    }
    head += "\r\n";
    return head;
}

}  // namespace http
}  // namespace sorvan::server
