#include "sorvan/platform/foundation/paths.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace sorvan::paths {
namespace {

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

}  // namespace sorvan::paths
