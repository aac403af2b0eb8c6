// The user-defaults store: string and string-array values under keys, kept in an SQLite file
// under paths::preferences(). Survives the process; safe from several threads and processes
// (every write is a transaction, every read sees the last committed value).
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sorvan/platform/export.hpp"

namespace sorvan {

class SORVAN_EXPORT Defaults {
  public:
    /// The store of this application (file named after Bundle::main().identifier()), opened
    /// at standardPath() on first use and kept for the rest of the process.
    static Defaults& standard();
    /// paths::preferences() + "/<main bundle identifier>.defaults.sqlite", from the current
    /// environment. A file that cannot be read as a store is moved aside to "<path>.corrupt"
    /// (with a log line) and the store starts empty; where no file can be made at all, the
    /// values live in memory for the run.
    static std::string standardPath();
    /// A store in a file of its own (tests).
    static std::unique_ptr<Defaults> open(const std::string& path);

    std::optional<std::string> stringForKey(const std::string& key) const;
    std::optional<std::vector<std::string>> stringArrayForKey(const std::string& key) const;
    void setString(const std::string& value, const std::string& key);
    void setStringArray(const std::vector<std::string>& value, const std::string& key);
    /// Appends one element to the array under key: one small write, whatever its length.
    void appendToStringArray(const std::string& value, const std::string& key);
    /// Removes the first count elements of the array under key: one small write.
    void removeFirstOfStringArray(std::size_t count, const std::string& key);
    void removeObjectForKey(const std::string& key);
    /// Makes sure every write is on disk. Returns false on an I/O error.
    bool synchronize();

    ~Defaults();
    Defaults(const Defaults&) = delete;
    Defaults& operator=(const Defaults&) = delete;

  private:
    explicit Defaults(const std::string& path);
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace sorvan
