// The shared URL response cache: a bounded memory layer over one file per response.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <mutex>
#include <sstream>
#include <unordered_map>
#include <vector>

#include "sorvan/platform/foundation/paths.hpp"
#include "sorvan/platform/foundation/url_session.hpp"

namespace sorvan::net {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kDefaultMemoryCapacity = 4 * 1024 * 1024;
constexpr std::uintmax_t kDiskCapacity = 64 * 1024 * 1024;
// A single response bigger than a twentieth of a layer stays out of it, so that one large
// answer cannot flush everything else.
constexpr std::uintmax_t kMaxDiskEntry = kDiskCapacity / 20;
// The disk layer is measured (and trimmed) after this many writes, not on every one.
constexpr int kWritesPerDiskCheck = 64;
constexpr std::string_view kFileMagic = "SORVAN-URLCACHE-1";

// FNV-1a: file names only need to spread well; each file also records its URL.
std::string fileNameFor(const std::string& key) {
    std::uint64_t h = 14695981039346656037ull;
    for (unsigned char c : key) {
        h = (h ^ c) * 1099511628211ull;
    }
    char name[32];
    std::snprintf(name, sizeof name, "%016llx.response", static_cast<unsigned long long>(h));
    return name;
}

// File layout: magic, URL, status, header count, then name and value lines, the body length
// and the body bytes. URLs and header lines never hold line breaks.
std::string serialise(const std::string& key, const HTTPURLResponse& response, const Data& data) {
    std::ostringstream out;
    out << kFileMagic << '\n'
        << key << '\n'
        << response.statusCode << '\n'
        << response.headers.size() << '\n';
    for (const auto& [name, value] : response.headers) {
        out << name << '\n' << value << '\n';
    }
    out << data.size() << '\n';
    out.write(reinterpret_cast<const char*>(data.data()),
              static_cast<std::streamsize>(data.size()));
    return out.str();
}

std::optional<URLCache::CachedResponse> deserialise(const std::string& key, std::istream& in) {
    std::string line;
    if (!std::getline(in, line) || line != kFileMagic || !std::getline(in, line) || line != key) {
        return std::nullopt;
    }
    auto url = URL::fromString(key);
    if (!url) {
        return std::nullopt;
    }
    URLCache::CachedResponse cached{HTTPURLResponse{*url, 0, {}}, {}};
    std::size_t headerCount = 0;
    std::size_t bodySize = 0;
    if (!(in >> cached.response.statusCode >> headerCount) || in.get() != '\n' ||
        headerCount > 10000) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < headerCount; ++i) {
        std::string name, value;
        if (!std::getline(in, name) || !std::getline(in, value)) {
            return std::nullopt;
        }
        cached.response.headers.emplace(std::move(name), std::move(value));
    }
    if (!(in >> bodySize) || in.get() != '\n' || bodySize > kMaxDiskEntry) {
        return std::nullopt;
    }
    cached.data.resize(bodySize);
    if (!in.read(reinterpret_cast<char*>(cached.data.data()),
                 static_cast<std::streamsize>(bodySize))) {
        return std::nullopt;
    }
    return cached;
}

}  // namespace

struct URLCache::Impl {
    using Entry = std::pair<std::string, CachedResponse>;

    mutable std::mutex mutex;
    // Most recently used first.
    mutable std::list<Entry> lru;
    mutable std::unordered_map<std::string, std::list<Entry>::iterator> index;
    mutable std::size_t memoryBytes = 0;
    std::size_t memoryCapacity = kDefaultMemoryCapacity;
    int writesSinceCheck = 0;

    static std::size_t sizeOf(const CachedResponse& r) { return r.data.size() + 256; }

    // REQUIRES: mutex held.
    void remember(const std::string& key, CachedResponse response) const {
        if (auto it = index.find(key); it != index.end()) {
            memoryBytes -= sizeOf(it->second->second);
            lru.erase(it->second);
            index.erase(it);
        }
        if (sizeOf(response) > memoryCapacity / 20) {
            return;
        }
        memoryBytes += sizeOf(response);
        lru.emplace_front(key, std::move(response));
        index[key] = lru.begin();
        evictToCapacity();
    }

    // REQUIRES: mutex held.
    void evictToCapacity() const {
        while (memoryBytes > memoryCapacity && !lru.empty()) {
            memoryBytes -= sizeOf(lru.back().second);
            index.erase(lru.back().first);
            lru.pop_back();
        }
    }

    // Removes the least recently written files until the directory is well under its bound.
    // REQUIRES: mutex held.
    static void trimDisk(const fs::path& dir) {
        std::error_code ec;
        std::vector<std::pair<fs::file_time_type, fs::path>> files;
        std::uintmax_t total = 0;
        for (const auto& entry : fs::directory_iterator(dir, ec)) {
            std::error_code e2;
            auto size = entry.file_size(e2);
            if (e2) {
                continue;
            }
            total += size;
            files.emplace_back(entry.last_write_time(e2), entry.path());
        }
        if (total <= kDiskCapacity) {
            return;
        }
        std::sort(files.begin(), files.end());
        for (const auto& [time, path] : files) {
            if (total <= kDiskCapacity * 3 / 4) {
                break;
            }
            std::error_code e3;
            auto size = fs::file_size(path, e3);
            if (fs::remove(path, e3)) {
                total -= size;
            }
        }
    }
};

URLCache::URLCache() : impl_(std::make_unique<Impl>()) {}

URLCache::~URLCache() = default;

URLCache& URLCache::shared() {
    // Never destroyed: the network thread may store a response while the process exits.
    static URLCache* const cache = new URLCache();
    return *cache;
}

std::string URLCache::diskPath() const {
    return paths::caches() + "/URLCache";
}

std::optional<Data> URLCache::cachedData(const URL& url) const {
    auto cached = cachedResponse(url);
    if (!cached) {
        return std::nullopt;
    }
    return std::move(cached->data);
}

std::optional<URLCache::CachedResponse> URLCache::cachedResponse(const URL& url) const {
    const std::string& key = url.absoluteString();
    std::lock_guard lock(impl_->mutex);
    if (auto it = impl_->index.find(key); it != impl_->index.end()) {
        impl_->lru.splice(impl_->lru.begin(), impl_->lru, it->second);
        return it->second->second;
    }
    fs::path file = fs::path(diskPath()) / fileNameFor(key);
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    auto cached = deserialise(key, in);
    if (!cached) {
        return std::nullopt;  // another URL with the same file name, or a damaged file
    }
    impl_->remember(key, *cached);
    return cached;
}

void URLCache::store(const URL& url, const HTTPURLResponse& response, const Data& data) {
    if (response.statusCode != 200) {
        return;
    }
    const std::string& key = url.absoluteString();
    CachedResponse entry{response, data};
    entry.response.url = url;
    std::lock_guard lock(impl_->mutex);
    impl_->remember(key, entry);
    if (data.size() > kMaxDiskEntry) {
        return;
    }
    // Written aside and renamed, so a reader never sees half a file. Disk errors only cost
    // the disk copy.
    std::error_code ec;
    fs::path dir = diskPath();
    fs::create_directories(dir, ec);
    fs::path file = dir / fileNameFor(key);
    fs::path temp = file;
    temp += ".tmp";
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        if (!out) {
            return;
        }
        std::string bytes = serialise(key, entry.response, data);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out) {
            out.close();
            fs::remove(temp, ec);
            return;
        }
    }
    fs::rename(temp, file, ec);
    if (ec) {
        fs::remove(temp, ec);
        return;
    }
    if (++impl_->writesSinceCheck >= kWritesPerDiskCheck) {
        impl_->writesSinceCheck = 0;
        Impl::trimDisk(dir);
    }
}

void URLCache::setMemoryCapacity(std::size_t bytes) {
    std::lock_guard lock(impl_->mutex);
    impl_->memoryCapacity = bytes;
    impl_->evictToCapacity();
}

void URLCache::removeAllCachedResponses() {
    std::lock_guard lock(impl_->mutex);
    impl_->lru.clear();
    impl_->index.clear();
    impl_->memoryBytes = 0;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(diskPath(), ec)) {
        std::error_code e2;
        fs::remove_all(entry.path(), e2);
    }
}

}  // namespace sorvan::net
