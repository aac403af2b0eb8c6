// Well-known directories. XDG base directories by default; SORVAN_HOME, when set, puts all of
// them under that directory (caches, documents, preferences). Directories are not created
// here; what the kit stores in them (cached answers carry the service key in their addresses,
// preferences carry the user's state) is created private to the user with the helpers below.
// Thread-safe.
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

/// Creates dir and its missing parents with mode 0700. When dir exists already, belongs to
/// this user and is open to others, it is closed to them (its parents are left alone: they
/// may be the user's own home or a shared folder). Returns false when dir is not a directory
/// afterwards.
SORVAN_EXPORT bool makePrivateDirectory(const std::string& dir);
/// open(2) for writing, created with mode 0600 and truncated: a descriptor, or -1 with errno.
SORVAN_EXPORT int createPrivateFile(const std::string& path);

/// A name for a file written aside and then renamed to target: "<target>.<pid>.<n>.tmp",
/// unique within the process, and telling a later start which process wrote it.
SORVAN_EXPORT std::string temporaryPathFor(const std::string& target);
/// Removes the files ending in ".tmp" in dir whose writer is gone (killed between writing
/// and renaming), or whose name tells no writer. Another process sharing the directory may
/// be writing one right now: its file stays, and so do this process's own.
SORVAN_EXPORT void removeAbandonedTemporaries(const std::string& dir);

}  // namespace sorvan::paths
