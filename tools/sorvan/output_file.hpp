// How a command writes the file named by -o, whatever is at that name:
//   - nothing: a new file, mode 0666 less the umask, written aside and renamed into place;
//   - a regular file: replaced the same way, so a reader never sees half of it, keeping its
//     mode (a 0600 file stays 0600);
//   - a symbolic link: followed; what it points to is written as above (or created);
//   - a character device or a pipe (/dev/stdout, a FIFO, /dev/null): written through, in
//     place, never replaced;
//   - a block device or a directory: refused.
// Thread-compatible: one call at a time per path.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace sorvan::cli {

/// Writes bytes to path as above. nullopt on success, else why not ("No space left on
/// device", "is a block device: refusing to write over it", ...).
std::optional<std::string> writeOutputFile(const std::string& path,
                                           std::span<const std::uint8_t> bytes);

/// Standard output flushed and checked: nullopt when everything written so far reached it,
/// else why not. Every command's output passes through this before the command exits.
std::optional<std::string> finishStandardOutput();

}  // namespace sorvan::cli
