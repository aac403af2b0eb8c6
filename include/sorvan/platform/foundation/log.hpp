// The system log. Every line has a level; lines at or above the chosen level go to stderr, or
// to the host's sink when it set one. Tests capture lines whatever the level. Thread-safe.
//
// Which level a line gets:
//   error    an operation failed and gave up: the kit's fixed failure lines ("TILE ERROR: %s",
//            "searchWithKeyword Error (%s,%f,%f): %s", "route Error (...)", "showTags Error
//            (...)", ...), and platform failures that lose work (a surface that cannot be
//            made, a helper program that cannot start, a settings write that failed).
//   warning  the kit carries on, changed: damaged or unreadable settings kept in memory or
//            started afresh, a SORVAN_LOG value it does not know.
//   info     what a host may want to see once: the version banner.
//   debug    detail for finding a fault (per request, per tile); off unless asked for.
// The text of a line never carries its level: lines keep their exact text at every level.
//
// The level written: info, unless SORVAN_LOG names another ("error", "warning", "info",
// "debug" or "off"), read the first time a line is written or the level is asked. A host that
// calls setLevel() decides instead of SORVAN_LOG, from then on.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sorvan/platform/export.hpp"

namespace sorvan::log {

/// Ordered from the fewest lines to the most. `off` is a threshold only: no line is written at
/// it.
enum class Level { off, error, warning, info, debug };

/// "off", "error", "warning", "info", "debug".
SORVAN_EXPORT const char* nameOf(Level level);
/// The level of one of those names; nullopt for anything else (case matters).
SORVAN_EXPORT std::optional<Level> levelNamed(std::string_view name);

/// The most detailed level written now.
SORVAN_EXPORT Level level();
/// The host's choice; replaces what SORVAN_LOG said.
SORVAN_EXPORT void setLevel(Level level);
/// Reads SORVAN_LOG again, as at start-up: its level, or info when it is unset or empty. An
/// unknown value keeps info and writes a warning that names the value.
SORVAN_EXPORT void setLevelFromEnvironment();
/// True when a line at this level would be written (a sink or stderr would see it).
SORVAN_EXPORT bool enabled(Level level);

/// Receives each line that passes the level (no trailing newline), on the writing thread.
using Sink = std::function<void(Level level, std::string_view line)>;

/// Writes one line at a level. REQUIRES: level is not off.
SORVAN_EXPORT void write(Level level, std::string_view line);
/// printf-style lines at each level: log::error("TILE ERROR: %s", description.c_str()).
SORVAN_EXPORT void error(const char* format, ...) __attribute__((format(printf, 1, 2)));
SORVAN_EXPORT void warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
SORVAN_EXPORT void info(const char* format, ...) __attribute__((format(printf, 1, 2)));
SORVAN_EXPORT void debug(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// A line at error level, the level of most lines the kit writes (its failure lines). New code
/// names the level with the functions above.
SORVAN_EXPORT void write(std::string_view line);
SORVAN_EXPORT void writef(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// The text with the value of every `key` query parameter (`?key=`, `&key=`, or `key=` after
/// white space; the name in any case) replaced by "***". Service keys travel as that parameter,
/// so a line that quotes an address must not show it: every line written goes through this
/// before it reaches a capture, the sink or stderr. An empty value stays empty, which tells a
/// missing key apart from a hidden one.
SORVAN_EXPORT std::string redacted(std::string_view text);

/// Replaces the sink; nullptr restores stderr. Returns the previous sink.
SORVAN_EXPORT Sink setSink(Sink sink);

/// Captures every line written while it lives, at every level whatever level() is, and
/// forwards nothing to stderr or the sink. The innermost of nested captures gets the lines.
class SORVAN_EXPORT Capture {
  public:
    struct Line {
        Level level;
        std::string text;
    };

    Capture();
    ~Capture();
    /// The texts, in the order written.
    std::vector<std::string> lines() const;
    /// The texts with their levels.
    std::vector<Line> entries() const;
    void clear();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

  private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace sorvan::log
