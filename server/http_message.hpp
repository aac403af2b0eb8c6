// HTTP/1.1 message handling of the embedded service: parsing a request head out of the bytes
// read so far, and serialising a response head. Pure functions; thread-safe.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "sorvan/server/embedded_service.hpp"

namespace sorvan::server::http {

/// Longest request head accepted; a longer one is answered 431 and the connection closed.
inline constexpr std::size_t kMaxHeadBytes = 64 * 1024;

struct ParsedRequest {
    Request request;
    bool keepAlive = true;
    std::size_t headBytes = 0;  // bytes of the head, terminator included
    std::size_t bodyBytes = 0;  // Content-Length of the request body (read and ignored)
};

struct ParseOutcome {
    enum class Kind { Incomplete, Complete, Invalid };
    Kind kind = Kind::Incomplete;
    ParsedRequest parsed;  // when Complete
    int status = 0;        // when Invalid: the status to answer before closing
    std::string reason;    // when Invalid
};

/// Parses the request head at the start of buffer. Accepts CRLF or bare LF line ends and
/// origin-form or absolute-form targets ("http://host/path?q" keeps "/path?q").
ParseOutcome parseRequestHead(std::string_view buffer);

/// "OK", "Not Found", ...; "Unknown" for a status without a standard phrase.
const char* reasonPhrase(int status);

/// The status line and headers, ending with the blank line. Content-Length is always the
/// length of response.body, even when a caller sends less of it.
std::string responseHead(const Response& response, bool keepAlive);

}  // namespace sorvan::server::http
