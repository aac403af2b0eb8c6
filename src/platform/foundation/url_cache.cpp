// The shared URL response cache: a bounded memory layer over one file per response.
//
// A store lands in memory at once and goes to disk on a writer thread of its own, so that the
// delegate queue never waits for the file system, once answers stop coming for a moment.
// Until its file is written a response stays findable in a table of pending writes, whatever
// the memory layer's bound.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "foundation/byte_lru.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/paths.hpp"
#include "sorvan/platform/foundation/url_session.hpp"
#include "url_cache_access.hpp"

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
// Files are written once answers have stopped coming for this long: a burst of loads (a map
// being panned) is not slowed by the disk, which catches up after it.
constexpr auto kQuietBeforeWriting = std::chrono::milliseconds(50);
// ... unless this much waits for the disk: then the writer works through the backlog (down to
// half of it) even while answers keep coming.
constexpr std::size_t kEagerPendingBytes = 8 * 1024 * 1024;
// Past this many bytes waiting for the disk, a store writes its own file rather than let the
// backlog grow: more would not fit on disk anyway.
constexpr std::size_t kMaxPendingBytes = kDiskCapacity;
// The writer yields to the threads that wait for answers; it has all the idle time it needs.
constexpr int kWriterNice = 10;
// How many files the writer remembers the content of, to skip rewriting them unchanged.
constexpr std::size_t kRememberedFiles = 16384;

// FNV-1a: file names only need to spread well; each file also records its URL.
std::string fileNameFor(const std::string& key) {
    std::uint64_t h = 14695981039346656037ull;
    for (unsigned char c : key) {
        h = (h ^ c) * 1099511628211ull;
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string name(16, '0');
    for (int i = 15; i >= 0; --i, h >>= 4) {
        name[static_cast<std::size_t>(i)] = kHex[h & 0xf];
    }
    return name + ".response";
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
        if (n <= 0) {
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

std::shared_ptr<CacheEntry> deserialise(const std::string& key, std::istream& in) {
    std::string line;
    if (!std::getline(in, line) || line != kFileMagic || !std::getline(in, line) || line != key) {
        return nullptr;
    }
    auto url = URL::fromString(key);
    if (!url) {
        return nullptr;
    }
    auto entry = std::make_shared<CacheEntry>();
    HTTPURLResponse& response = entry->response.emplace(HTTPURLResponse{*url, 0, {}});
    std::size_t headerCount = 0;
    std::size_t bodySize = 0;
    if (!(in >> response.statusCode >> headerCount) || in.get() != '\n' || headerCount > 10000) {
        return nullptr;
    }
    for (std::size_t i = 0; i < headerCount; ++i) {
        std::string name, value;
        if (!std::getline(in, name) || !std::getline(in, value)) {
            return nullptr;
        }
        response.headers.emplace(std::move(name), std::move(value));
    }
    if (!(in >> bodySize) || in.get() != '\n' || bodySize > kMaxDiskEntry) {
        return nullptr;
    }
    Data& data = entry->data.emplace(bodySize);
    if (!in.read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(bodySize))) {
        return nullptr;
    }
    return entry;
}

}  // namespace

struct URLCache::Impl {
    using Shared = std::shared_ptr<const CacheEntry>;

    // A response on its way to disk, with the file it was stored for.
    struct PendingWrite {
        std::string file;
        Shared entry;
    };

    mutable std::mutex mutex;
    mutable ByteLru<std::string, Shared> memory{kDefaultMemoryCapacity};
    // The latest response stored for each key whose file is not written yet.
    std::unordered_map<std::string, PendingWrite> pending;
    std::size_t pendingBytes = 0;
    std::chrono::steady_clock::time_point lastStore{};
    bool drainScheduled = false;  // a drain() is queued on the writer
    bool eager = false;           // working through a large backlog
    // Bumped by removeAllCachedResponses(), so that a disk read begun before it cannot bring
    // an answer back into memory after it.
    std::uint64_t generation = 0;

    // Held while a file is written or the directory emptied: a removal waits for the write in
    // progress, and no write starts until the removal is over. Taken before `mutex`.
    std::mutex diskMutex;
    int writesSinceCheck = 0;  // guarded by diskMutex
    // The files this process wrote, with a hash of the content once it was written twice, so
    // that an answer stored again unchanged is not written again. Guarded by diskMutex.
    std::unordered_map<std::string, std::optional<std::size_t>> written;
    dispatch::SerialQueue writer{"net.urlcache"};

    Impl() {
        writer.async(
            [] { ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), kWriterNice); });
    }

    static std::size_t sizeOf(const CacheEntry& e) { return e.data->size() + 256; }

    // REQUIRES: mutex held.
    void remember(const std::string& key, Shared entry) const {
        // One large answer must not push out many small ones.
        std::size_t bytes = sizeOf(*entry);
        if (bytes > memory.limit() / 20) {
            memory.erase(key);
            return;
        }
        memory.put(key, std::move(entry), bytes);
    }

    Shared lookup(const std::string& key, const std::string& dir) const {
        std::uint64_t seen = 0;
        {
            std::lock_guard lock(mutex);
            if (const Shared* hit = memory.find(key)) {
                return *hit;
            }
            if (auto it = pending.find(key); it != pending.end()) {
                return it->second.entry;
            }
            seen = generation;
        }
        // Read without the lock: files are replaced whole, never changed in place.
        std::ifstream in(dir + "/" + fileNameFor(key), std::ios::binary);
        if (!in) {
            return nullptr;
        }
        Shared entry = deserialise(key, in);
        if (!entry) {
            return nullptr;  // another URL with the same file name, or a damaged file
        }
        std::lock_guard lock(mutex);
        if (generation == seen && !memory.contains(key)) {
            remember(key, entry);
        }
        return entry;
    }

    void store(const std::string& key, const std::string& dir, Shared entry) {
        bool toDisk = entry->data->size() <= kMaxDiskEntry;
        bool backlogged = false;
        {
            std::lock_guard lock(mutex);
            remember(key, entry);
            if (!toDisk) {
                return;
            }
            PendingWrite& slot = pending[key];
            if (slot.entry) {
                pendingBytes -= sizeOf(*slot.entry);
            }
            pendingBytes += sizeOf(*entry);
            slot = PendingWrite{dir + "/" + fileNameFor(key), std::move(entry)};
            backlogged = pendingBytes > kMaxPendingBytes;
            lastStore = std::chrono::steady_clock::now();
            if (!drainScheduled) {
                drainScheduled = true;
                writer.asyncAfter(kQuietBeforeWriting, [this] { drain(); });
            }
        }
        if (backlogged) {
            std::lock_guard disk(diskMutex);
            writePending(key);
        }
    }

    // Writes pending answers on the writer thread once answers stop coming (or the backlog is
    // large), and schedules itself again for the rest.
    void drain() {
        for (;;) {
            std::string key;
            {
                std::lock_guard lock(mutex);
                if (pending.empty()) {
                    drainScheduled = false;
                    eager = false;
                    return;
                }
                if (pendingBytes >= kEagerPendingBytes) {
                    eager = true;
                } else if (pendingBytes < kEagerPendingBytes / 2) {
                    eager = false;
                }
                auto quietFor = std::chrono::steady_clock::now() - lastStore;
                if (!eager && quietFor < kQuietBeforeWriting) {
                    writer.asyncAfter(kQuietBeforeWriting - quietFor, [this] { drain(); });
                    return;
                }
                key = pending.begin()->first;
            }
            std::lock_guard disk(diskMutex);
            writePending(key);
        }
    }

    // REQUIRES: mutex held.
    void dropPending(std::unordered_map<std::string, PendingWrite>::iterator it) {
        pendingBytes -= sizeOf(*it->second.entry);
        pending.erase(it);
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
        const CacheEntry& e = *job.entry;
        std::string head = serialisedHead(key, *e.response, e.data->size());
        // Hashed only for a file written before: most answers are stored once.
        auto known = written.find(job.file);
        std::optional<std::size_t> hash;
        bool unchanged = false;
        if (known != written.end()) {
            std::string_view body(reinterpret_cast<const char*>(e.data->data()), e.data->size());
            hash = std::hash<std::string_view>{}(head)*31 + std::hash<std::string_view>{}(body);
            // Still there, whole: the file may have been removed or cut short by someone else.
            struct stat st {};
            unchanged = known->second == hash && ::stat(job.file.c_str(), &st) == 0 &&
                        static_cast<std::size_t>(st.st_size) == head.size() + body.size();
        }
        if (!unchanged) {
            if (known != written.end()) {
                written.erase(known);
            }
            if (writeFile(job.file, head, *e.data)) {
                if (written.size() >= kRememberedFiles) {
                    written.clear();
                }
                written.emplace(job.file, hash);
            }
        }
        {
            // A newer store of the same key waits for its own turn.
            std::lock_guard lock(mutex);
            auto it = pending.find(key);
            if (it != pending.end() && it->second.entry == job.entry) {
                dropPending(it);
            }
        }
        if (!unchanged && ++writesSinceCheck >= kWritesPerDiskCheck) {
            writesSinceCheck = 0;
            if (trimDisk(fs::path(job.file).parent_path())) {
                written.clear();
            }
        }
    }

    // Written aside and renamed, so that a reader never sees half a file.
    static bool writeFile(const std::string& file, const std::string& head, const Data& body) {
        std::string temp = file + ".tmp";
        int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0 && errno == ENOENT) {
            std::error_code ec;
            fs::create_directories(fs::path(file).parent_path(), ec);
            fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        }
        if (fd < 0) {
            return false;
        }
        bool complete = writeAll(fd, head, body);
        bool closed = ::close(fd) == 0;
        if (!complete || !closed || ::rename(temp.c_str(), file.c_str()) != 0) {
            ::unlink(temp.c_str());
            return false;
        }
        return true;
    }

    // Removes the least recently written files until the directory is well under its bound.
    // Returns whether it removed any. REQUIRES: diskMutex held.
    static bool trimDisk(const fs::path& dir) {
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
            return false;
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
        return true;
    }

    // Writes every pending response on the calling thread. Gives up when the disk stays
    // busy past the deadline.
    void flush(std::chrono::steady_clock::time_point deadline) {
        // Polled rather than a timed lock, which the thread checker cannot follow.
        std::unique_lock disk(diskMutex, std::defer_lock);
        if (deadline == std::chrono::steady_clock::time_point::max()) {
            disk.lock();
        }
        while (!disk.owns_lock() && !disk.try_lock()) {
            if (std::chrono::steady_clock::now() >= deadline) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
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
    auto entry = impl_->lookup(url.absoluteString(), diskPath());
    if (!entry) {
        return std::nullopt;
    }
    return entry->data;
}

std::optional<URLCache::CachedResponse> URLCache::cachedResponse(const URL& url) const {
    auto entry = impl_->lookup(url.absoluteString(), diskPath());
    if (!entry) {
        return std::nullopt;
    }
    return CachedResponse{*entry->response, *entry->data};
}

void URLCache::store(const URL& url, const HTTPURLResponse& response, const Data& data) {
    if (response.statusCode != 200) {
        return;
    }
    auto entry = std::make_shared<CacheEntry>(CacheEntry{response, data});
    entry->response->url = url;
    impl_->store(url.absoluteString(), diskPath(), std::move(entry));
}

std::shared_ptr<const CacheEntry> URLCacheAccess::store(URLCache& cache, HTTPURLResponse response,
                                                        Data data) {
    auto entry = std::make_shared<CacheEntry>(CacheEntry{std::move(response), std::move(data)});
    if (entry->response->statusCode == 200) {
        cache.impl_->store(entry->response->url.absoluteString(), cache.diskPath(), entry);
    }
    return entry;
}

std::shared_ptr<const CacheEntry> URLCacheAccess::lookup(const URLCache& cache, const URL& url) {
    return cache.impl_->lookup(url.absoluteString(), cache.diskPath());
}

void URLCache::flush() {
    impl_->flush(std::chrono::steady_clock::time_point::max());
}

void URLCache::setMemoryCapacity(std::size_t bytes) {
    std::lock_guard lock(impl_->mutex);
    impl_->memory.setLimit(bytes);
}

void URLCache::removeAllCachedResponses() {
    std::lock_guard disk(impl_->diskMutex);
    std::lock_guard lock(impl_->mutex);
    impl_->memory.clear();
    impl_->pending.clear();
    impl_->pendingBytes = 0;
    impl_->written.clear();
    ++impl_->generation;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(diskPath(), ec)) {
        std::error_code e2;
        fs::remove_all(entry.path(), e2);
    }
}

}  // namespace sorvan::net
