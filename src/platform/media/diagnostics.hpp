// What leak checks need to see of the media layer, without its framework's headers. Internal
// to the platform layer and its tests. Thread-safe.
#pragma once

#include <string>

namespace sorvan::media::detail {

/// Asks the idle threads GLib keeps pooled for later streaming tasks to end (they do so
/// shortly after; busy ones are untouched). For leak checks that count threads.
void releasePooledThreads();

/// Whether the media framework has loaded the named plugin into this process.
bool pluginLoaded(const std::string& name);

}  // namespace sorvan::media::detail
