// The shared URL response cache: a bounded memory layer over one file per response.
//
// A store lands in memory at once and goes to disk on a writer thread of its own, so that the
// delegate queue never waits for the file system. Until its file is written a response stays
// findable in a table of pending writes, whatever the memory layer's bound.
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "sorvan/platform/foundation/dispatch.hpp"
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
// At exit the writes still pending get this long to reach the disk.
constexpr auto kExitFlushLimit = std::chrono::seconds(2);

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
// and the body bytes. URLs and header lines never hold line breaks. This is the part before
// the body.
std::string serialisedHead(const std::string& key, const HTTPURLResponse& response,
                           std::size_t bodySize) {
    std::string out;
    out.reserve(128 + key.size());
    out.append(kFileMagic).append(1, '\n');
    out.append(key).append(1, '\n');
    out.append(std::to_string(response.statusCode)).append(1, '\n');
    out.append(std::to_string(response.headers.size())).append(1, '\n');
    for (const auto& [name, value] : response.headers) {
        out.append(name).append(1, '\n').append(value).append(1, '\n');
    }
    out.append(std::to_string(bodySize)).append(1, '\n');
    return out;
}

bool writeAll(int fd, const std::string& head, const Data& body) {
    iovec parts[2] = {
        {const_cast<char*>(head.data()), head.size()},
        {const_cast<std::uint8_t*>(body.data()), body.size()},
    };
    std::size_t part = 0;
    while (part < 2) {
        ssize_t n = ::writev(fd, parts + part, static_cast<int>(2 - part));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        auto left = static_cast<std::size_t>(n);
        while (part < 2 && left >= parts[part].iov_len) {
            left -= parts[part].iov_len;
            ++part;
        }
        if (part < 2) {
            parts[part].iov_base = static_cast<char*>(parts[part].iov_base) + left;
            parts[part].iov_len -= left;
        }
    }
    return true;
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
    using Shared = std::shared_ptr<const CachedResponse>;
    using Entry = std::pair<std::string, Shared>;

    // A response on its way to disk, with the directory it was stored for.
    struct PendingWrite {
        fs::path file;
        Shared response;
    };

    mutable std::mutex mutex;
    // Most recently used first. Entries are shared with pending writes, never changed.
    mutable std::list<Entry> lru;
    mutable std::unordered_map<std::string, std::list<Entry>::iterator> index;
    mutable std::size_t memoryBytes = 0;
    std::size_t memoryCapacity = kDefaultMemoryCapacity;
    // The latest response stored for each key whose file is not written yet.
    std::unordered_map<std::string, PendingWrite> pending;
    // Bumped by removeAllCachedResponses(), so that a disk read begun before it cannot bring
    // an answer back into memory after it.
    std::uint64_t generation = 0;

    // Held while a file is written or the directory emptied: a removal waits for the write in
    // progress, and no write starts until the removal is over. Taken before `mutex`.
    std::timed_mutex diskMutex;
    int writesSinceCheck = 0;  // guarded by diskMutex
    dispatch::SerialQueue writer{"net.urlcache"};

    static std::size_t sizeOf(const CachedResponse& r) { return r.data.size() + 256; }

    // REQUIRES: mutex held.
    void remember(const std::string& key, Shared response) const {
        if (auto it = index.find(key); it != index.end()) {
            memoryBytes -= sizeOf(*it->second->second);
            lru.erase(it->second);
            index.erase(it);
        }
        if (sizeOf(*response) > memoryCapacity / 20) {
            return;
        }
        memoryBytes += sizeOf(*response);
        lru.emplace_front(key, std::move(response));
        index[key] = lru.begin();
        evictToCapacity();
    }

    // REQUIRES: mutex held.
    void evictToCapacity() const {
        while (memoryBytes > memoryCapacity && !lru.empty()) {
            memoryBytes -= sizeOf(*lru.back().second);
            index.erase(lru.back().first);
            lru.pop_back();
        }
    }

    // Writes the pending response of key, if there still is one. Disk errors only cost the
    // disk copy. REQUIRES: diskMutex held.
    void writePending(const std::string& key) {
        PendingWrite job;
        {
            std::lock_guard lock(mutex);
            auto it = pending.find(key);
            if (it == pending.end()) {
                return;
            }
            job = it->second;
        }
        writeFile(key, job);
        {
            // A newer store of the same key waits for its own turn.
            std::lock_guard lock(mutex);
            auto it = pending.find(key);
            if (it != pending.end() && it->second.response == job.response) {
                pending.erase(it);
            }
        }
        if (++writesSinceCheck >= kWritesPerDiskCheck) {
            writesSinceCheck = 0;
            trimDisk(job.file.parent_path());
        }
    }

    // Written aside and renamed, so that a reader never sees half a file.
    static void writeFile(const std::string& key, const PendingWrite& job) {
        fs::path temp = job.file;
        temp += ".tmp";
        int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0 && errno == ENOENT) {
            std::error_code ec;
            fs::create_directories(job.file.parent_path(), ec);
            fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        }
        if (fd < 0) {
            return;
        }
        const CachedResponse& r = *job.response;
        bool written = writeAll(fd, serialisedHead(key, r.response, r.data.size()), r.data);
        bool closed = ::close(fd) == 0;
        if (!written || !closed || ::rename(temp.c_str(), job.file.c_str()) != 0) {
            ::unlink(temp.c_str());
        }
    }

    // Removes the least recently written files until the directory is well under its bound.
    // REQUIRES: diskMutex held.
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

    // Writes every pending response on the calling thread. Gives up when the disk stays
    // busy past the deadline.
    void flush(std::chrono::steady_clock::time_point deadline) {
        std::unique_lock disk(diskMutex, deadline);
        if (!disk.owns_lock()) {
            return;
        }
        for (;;) {
            std::string key;
            {
                std::lock_guard lock(mutex);
                if (pending.empty()) {
                    return;
                }
                key = pending.begin()->first;
            }
            writePending(key);
        }
    }
};

URLCache::URLCache() : impl_(std::make_unique<Impl>()) {
    // Responses stored just before the process ends still reach the disk.
    std::atexit([] { shared().impl_->flush(std::chrono::steady_clock::now() + kExitFlushLimit); });
}

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
    std::uint64_t generation = 0;
    {
        std::lock_guard lock(impl_->mutex);
        if (auto it = impl_->index.find(key); it != impl_->index.end()) {
            impl_->lru.splice(impl_->lru.begin(), impl_->lru, it->second);
            return *it->second->second;
        }
        if (auto it = impl_->pending.find(key); it != impl_->pending.end()) {
            return *it->second.response;
        }
        generation = impl_->generation;
    }
    // Read without the lock: files are replaced whole, never changed in place.
    fs::path file = fs::path(diskPath()) / fileNameFor(key);
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    auto cached = deserialise(key, in);
    if (!cached) {
        return std::nullopt;  // another URL with the same file name, or a damaged file
    }
    std::lock_guard lock(impl_->mutex);
    if (impl_->generation == generation && impl_->index.count(key) == 0) {
        impl_->remember(key, std::make_shared<const CachedResponse>(*cached));
    }
    return cached;
}

void URLCache::store(const URL& url, const HTTPURLResponse& response, const Data& data) {
    if (response.statusCode != 200) {
        return;
    }
    const std::string& key = url.absoluteString();
    auto entry = std::make_shared<CachedResponse>(CachedResponse{response, data});
    entry->response.url = url;
    bool toDisk = data.size() <= kMaxDiskEntry;
    fs::path file = toDisk ? fs::path(diskPath()) / fileNameFor(key) : fs::path();
    {
        std::lock_guard lock(impl_->mutex);
        impl_->remember(key, entry);
        if (!toDisk) {
            return;
        }
        impl_->pending[key] = Impl::PendingWrite{std::move(file), std::move(entry)};
    }
    impl_->writer.async([impl = impl_.get(), key] {
        std::lock_guard disk(impl->diskMutex);
        impl->writePending(key);
    });
}

void URLCache::flush() {
    impl_->flush(std::chrono::steady_clock::time_point::max());
}

void URLCache::setMemoryCapacity(std::size_t bytes) {
    std::lock_guard lock(impl_->mutex);
    impl_->memoryCapacity = bytes;
    impl_->evictToCapacity();
}

void URLCache::removeAllCachedResponses() {
    std::lock_guard disk(impl_->diskMutex);
    std::lock_guard lock(impl_->mutex);
    impl_->lru.clear();
    impl_->index.clear();
    impl_->memoryBytes = 0;
    impl_->pending.clear();
    ++impl_->generation;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(diskPath(), ec)) {
        std::error_code e2;
        fs::remove_all(entry.path(), e2);
    }
}

}  // namespace sorvan::net
