// The system log. Lines go to stderr unless the host sets a sink; tests capture them.
// Thread-safe.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sorvan/platform/export.hpp"

namespace sorvan::log {

using Sink = std::function<void(std::string_view line)>;

/// Writes one line (no trailing newline needed).
SORVAN_EXPORT void write(std::string_view line);
/// printf-style: log::writef("TILE ERROR: %s", description.c_str()).
SORVAN_EXPORT void writef(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// Replaces the sink; nullptr restores stderr. Returns the previous sink.
SORVAN_EXPORT Sink setSink(Sink sink);

/// Captures every line written while it lives (and still forwards nothing to stderr).
class SORVAN_EXPORT Capture {
  public:
    Capture();
    ~Capture();
    std::vector<std::string> lines() const;
    void clear();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

  private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace sorvan::log
