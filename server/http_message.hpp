// HTTP/1.1 message handling of the embedded service: parsing a request head out of the bytes
// read so far, and serialising a response head. Pure functions of their arguments (no state,
// no I/O), so that any bytes at all can be thrown at them; thread-safe.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "sorvan/server/embedded_service.hpp"

namespace sorvan::server::http {

/// Longest request head accepted; a longer one is answered 431 and the connection closed.
inline constexpr std::size_t kMaxHeadBytes = 64 * 1024;
/// Longest request body accepted (bodies are read and dropped); a longer one is answered 413.
inline constexpr std::size_t kMaxBodyBytes = 16 * 1024 * 1024;

struct ParsedRequest {
    Request request;
    bool keepAlive = true;
    std::size_t headBytes = 0;  // bytes of the head, terminator included
    std::size_t bodyBytes = 0;  // Content-Length of the request body (read and ignored)
};

struct ParseOutcome {
    enum class Kind { Incomplete, Complete, Invalid };
    Kind kind = Kind::Incomplete;
    ParsedRequest parsed;  // when Complete; when Invalid, the method and target if they arrived
    int status = 0;        // when Invalid: the status to answer before closing
    std::string reason;    // when Invalid
};

/// Parses the request head at the start of buffer. Accepts CRLF or bare LF line ends and
/// origin-form or absolute-form targets ("http://host/path?q" keeps "/path?q"). Refuses control
/// characters in the target and in header values (a tab apart), bodies in chunks, and heads or
/// bodies beyond the limits above.
ParseOutcome parseRequestHead(std::string_view buffer);

/// Where the head at the start of buffer ends (the offset just past its empty line), or npos
/// while it has not ended. Bytes before `from` are known to hold no end, so a caller that reads
/// a head piece by piece can look at each byte about once: pass the previous size.
std::size_t findHeadEnd(std::string_view buffer, std::size_t from = 0);

/// The method and target of a request line that arrived whole but whose request did not
/// ("-" for what is missing), for logging a request that was given up on.
Request requestLineOf(std::string_view buffer);

/// "OK", "Not Found", ...; "Unknown" for a status without a standard phrase.
const char* reasonPhrase(int status);

/// The status line and headers, ending with the blank line. Content-Length is always the
/// length of response.body, even when a caller sends less of it.
std::string responseHead(const Response& response, bool keepAlive);

}  // namespace sorvan::server::http
