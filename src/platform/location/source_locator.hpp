// The text that names a location source: "gpsd://HOST:PORT" or "replay:FILE[?speed=N][&loop=1]".
// Pure; thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace sorvan::location {

struct SourceLocator {
    enum class Kind { Gpsd, Replay };
    Kind kind = Kind::Gpsd;
    std::string host = "localhost";  // gpsd
    std::string port = "2947";       // gpsd
    std::string path;                // replay
    double speed = 1;                // replay; 0 = no pauses
    bool loops = false;              // replay
};

/// nullopt, with a reason in `reason`, when the text names no source.
std::optional<SourceLocator> parseSourceLocator(std::string_view text, std::string& reason);

}  // namespace sorvan::location
