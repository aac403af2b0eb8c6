// Test helpers for code that reads the environment or writes files: a scoped environment
// variable and a scratch directory removed at the end of the test. Not thread-safe: set the
// environment before starting threads.
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace sorvan::test {

/// Sets (or, with nullopt, unsets) one environment variable and restores it on destruction.
class ScopedEnv {
  public:
    ScopedEnv(std::string name, const std::optional<std::string>& value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    std::string name_;
    std::optional<std::string> previous_;
};

/// The moment a wall clock in this process's time zone shows the given minute.
std::time_t localTime(int year, int month, int day, int hour, int minute);

/// A fresh directory under the system's temporary directory, removed with its contents.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    const std::string& path() const { return path_; }
    /// path() + "/" + name.
    std::string file(const std::string& name) const;
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

  private:
    std::string path_;
};

}  // namespace sorvan::test
