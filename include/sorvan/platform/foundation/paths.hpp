// Well-known directories. XDG base directories by default; SORVAN_HOME, when set, puts all of
// them under that directory (caches, documents, preferences). Directories are not created.
#pragma once

#include <string>

#include "sorvan/platform/export.hpp"

namespace sorvan::paths {

/// The user caches directory (XDG_CACHE_HOME/sorvan or ~/.cache/sorvan; $SORVAN_HOME/caches).
SORVAN_EXPORT std::string caches();
/// The documents directory (XDG_DATA_HOME/sorvan/documents; $SORVAN_HOME/documents).
SORVAN_EXPORT std::string documents();
/// Where the defaults store lives (XDG_CONFIG_HOME/sorvan; $SORVAN_HOME/preferences).
SORVAN_EXPORT std::string preferences();
/// Search-path directory numbers as hosts pass them: 13 = caches, 9 = documents.
/// Other values give "".
SORVAN_EXPORT std::string forSearchPathDirectory(long directory);

}  // namespace sorvan::paths
