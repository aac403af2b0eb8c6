#include "sorvan/platform/foundation/paths.hpp"

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

namespace sorvan::paths {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kTemporarySuffix = ".tmp";

// The writer of a temporary file, from its name; nullopt when the name has no process id.
std::optional<pid_t> writerOf(std::string_view name) {
    // "<target>.<pid>.<n>.tmp"
    name.remove_suffix(kTemporarySuffix.size());
    std::size_t counterDot = name.rfind('.');
    if (counterDot == std::string_view::npos) {
        return std::nullopt;
    }
    name = name.substr(0, counterDot);
    std::size_t pidDot = name.rfind('.');
    if (pidDot == std::string_view::npos || pidDot + 1 == name.size()) {
        return std::nullopt;
    }
    long pid = 0;
    for (char c : name.substr(pidDot + 1)) {
        if (c < '0' || c > '9' || pid > 4194304) {
            return std::nullopt;
        }
        pid = pid * 10 + (c - '0');
    }
    return pid > 0 ? std::optional<pid_t>(static_cast<pid_t>(pid)) : std::nullopt;
}

// The environment is read on every call: tests (and hosts) change it while running.
std::string env(const char* name) {
    const char* value = std::getenv(name);
    return value ? std::string(value) : std::string();
}

std::string join(std::string base, const std::string& tail) {
    while (base.size() > 1 && base.back() == '/') {
        base.pop_back();
    }
    if (base.empty() || base.back() != '/') {
        base.push_back('/');
    }
    return base + tail;
}

std::string home() {
    if (auto h = env("HOME"); !h.empty()) {
        return h;
    }
    struct passwd entry {};
    struct passwd* found = nullptr;
    std::vector<char> buffer(16384);
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
        found->pw_dir) {
        return found->pw_dir;
    }
    return "/";
}

// XDG base directories must be absolute; a relative value is ignored as if unset.
std::string xdg(const char* name, const char* fallbackUnderHome) {
    if (auto dir = env(name); !dir.empty() && dir.front() == '/') {
        return dir;
    }
    return join(home(), fallbackUnderHome);
}

std::string sorvanHome() {
    return env("SORVAN_HOME");
}

}  // namespace

std::string caches() {
    if (auto root = sorvanHome(); !root.empty()) {
        return join(root, "caches");
    }
    return join(xdg("XDG_CACHE_HOME", ".cache"), "sorvan");
}

std::string documents() {
    if (auto root = sorvanHome(); !root.empty()) {
        return join(root, "documents");
    }
    return join(xdg("XDG_DATA_HOME", ".local/share"), "sorvan/documents");
}

std::string preferences() {
    if (auto root = sorvanHome(); !root.empty()) {
        return join(root, "preferences");
    }
    return join(xdg("XDG_CONFIG_HOME", ".config"), "sorvan");
}

std::string forSearchPathDirectory(long directory) {
    switch (directory) {
        case 13:
            return caches();
        case 9:
            return documents();
        default:
            return "";
    }
}

bool makePrivateDirectory(const std::string& dir) {
    if (dir.empty()) {
        return false;
    }
    // Parents first, each created 0700 when missing; an existing one is never touched.
    for (std::size_t at = dir.find('/', 1); at != std::string::npos; at = dir.find('/', at + 1)) {
        std::string parent = dir.substr(0, at);
        if (::mkdir(parent.c_str(), 0700) != 0 && errno != EEXIST) {
            return false;
        }
    }
    if (::mkdir(dir.c_str(), 0700) == 0) {
        return true;
    }
    struct stat info {};
    if (errno != EEXIST || ::stat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        return false;
    }
    // Made by an earlier release, or by hand, open to other users: what it holds is private.
    if (info.st_uid == ::geteuid() && (info.st_mode & 077) != 0) {
        ::chmod(dir.c_str(), info.st_mode & 07700);
    }
    return true;
}

int createPrivateFile(const std::string& path) {
    return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
}

std::string temporaryPathFor(const std::string& target) {
    static std::atomic<unsigned long> counter{0};
    return target + "." + std::to_string(::getpid()) + "." + std::to_string(counter.fetch_add(1)) +
           std::string(kTemporarySuffix);
}

void removeAbandonedTemporaries(const std::string& dir) {
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(dir, ec)) {
        std::string name = entry.path().filename().string();
        if (!name.ends_with(kTemporarySuffix)) {
            continue;
        }
        std::optional<pid_t> writer = writerOf(name);
        // Guarded: only a positive process id is ever asked about.
        bool alive = writer && *writer > 0 &&
                     (*writer == ::getpid() || ::kill(*writer, 0) == 0 || errno == EPERM);
        if (!alive) {
            std::error_code ignored;
            fs::remove(entry.path(), ignored);
        }
    }
}

}  // namespace sorvan::paths
