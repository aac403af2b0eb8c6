// Access log lines: what a client sent is printed where an operator reads it, often a
// terminal, so nothing in it may act on the terminal or hide what follows, and the service
// key that the SDK sends with every request must not be written down.
#include <cstdint>
#include <string>
#include <string_view>

#include "sorvan/platform/foundation/url.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace sorvan::server {

namespace {

void appendEscaped(std::string& out, std::string_view bytes) {
    static constexpr char kHex[] = "0123456789abcdef";
    for (unsigned char c : bytes) {
        out += "\\x";
        out += kHex[c >> 4];
        out += kHex[c & 0xf];
    }
}

// Characters that reorder, hide or break text on the way to a reader: C1 controls, the
// direction marks, embeddings, overrides and isolates, and the line and paragraph separators.
bool isDeceptive(std::uint32_t cp) {
    return (cp >= 0x80 && cp <= 0x9f) || cp == 0x61c || cp == 0x200e || cp == 0x200f ||
           (cp >= 0x2028 && cp <= 0x202e) || (cp >= 0x2066 && cp <= 0x2069);
}

// The length of the well-formed UTF-8 sequence at the start of s and its code point, or 0.
std::size_t utf8Sequence(std::string_view s, std::uint32_t& cp) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    unsigned char lead = byte(0);
    std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : lead >= 0xc0 ? 2 : 0;
    if (length == 0 || lead > 0xf4 || s.size() < length) {
        return 0;
    }
    cp = lead & (0x7f >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) {
            return 0;
        }
        cp = (cp << 6) | (byte(i) & 0x3f);
    }
    static constexpr std::uint32_t kShortest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kShortest[length] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) {
        return 0;
    }
    return length;
}

std::string escapedForLog(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        auto c = static_cast<unsigned char>(text[0]);
        if (c == '\\') {
            out += "\\\\";
            text.remove_prefix(1);
            continue;
        }
        if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
            text.remove_prefix(1);
            continue;
        }
        std::uint32_t cp = 0;
        std::size_t length = c >= 0x80 ? utf8Sequence(text, cp) : 0;
        if (length == 0) {
            appendEscaped(out, text.substr(0, 1));
            text.remove_prefix(1);
            continue;
        }
        if (isDeceptive(cp)) {
            appendEscaped(out, text.substr(0, length));
        } else {
            out.append(text.substr(0, length));
        }
        text.remove_prefix(length);
    }
    return out;
}

bool namesTheKey(std::string_view name) {
    std::string decoded = net::percentDecode(name);
    return decoded.size() == 3 && (decoded[0] | 0x20) == 'k' && (decoded[1] | 0x20) == 'e' &&
           (decoded[2] | 0x20) == 'y';
}

// The target with the value of every "key" query item replaced; an empty value stays empty,
// since that a request carried no key is worth seeing.
std::string redacted(std::string_view target) {
    auto q = target.find('?');
    if (q == std::string_view::npos) {
        return std::string(target);
    }
    std::string out(target.substr(0, q + 1));
    std::string_view rest = target.substr(q + 1);
    for (;;) {
        auto amp = rest.find('&');
        std::string_view piece = rest.substr(0, amp);
        auto eq = piece.find('=');
        if (eq != std::string_view::npos && eq + 1 < piece.size() &&
            namesTheKey(piece.substr(0, eq))) {
            out.append(piece.substr(0, eq + 1));
            out += "***";
        } else {
            out.append(piece);
        }
        if (amp == std::string_view::npos) {
            break;
        }
        out += '&';
        rest.remove_prefix(amp + 1);
    }
    return out;
}

}  // namespace

std::string accessLogLine(const Request& request, int status) {
    std::string method = request.method.empty() ? "-" : request.method;
    std::string target = request.target.empty() ? "-" : request.target;
    return escapedForLog(method) + " " + escapedForLog(redacted(target)) + " " +
           std::to_string(status);
}

}  // namespace sorvan::server
