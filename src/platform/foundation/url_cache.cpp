// The shared URL response cache: a bounded memory layer over one file per response.
//
// A store lands in memory at once and goes to disk on a writer thread of its own, so that the
// delegate queue never waits for the file system, once answers stop coming for a moment.
// Until its file is written a response stays findable in a table of pending writes, whatever
// the memory layer's bound. The names of the files on disk are read once per directory and
// kept up to date by this process's own writes and removals, so that a miss costs no look at
// the file system (a file another process writes later is not seen: a miss, never a wrong
// answer). Every file carries a checksum of its content: a damaged file is a miss, and is
// removed.
//
// Only what HTTP allows is stored: a 200 answer without "Cache-Control: no-store" or
// "Vary: *". Whether a stored answer may be used without asking the server again is the
// session's business (by the request's cache policy); this file says what the answer's own
// headers allow.
#include <curl/curl.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cctype>
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
#include <unordered_set>
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
constexpr std::uintmax_t kDefaultDiskCapacity = 64 * 1024 * 1024;
// A single response bigger than a twentieth of a layer stays out of it, so that one large
// answer cannot flush everything else.
constexpr std::uintmax_t kEntryShare = 20;
// Files of the first layout carried no checksum: they are never read.
constexpr std::string_view kFileMagic = "SORVAN-URLCACHE-2";
// The disk layer is measured (and trimmed) after this many writes, not on every one.
constexpr int kWritesPerDiskCheck = 64;
// At exit the writes still pending get this long to reach the disk.
constexpr auto kExitFlushLimit = std::chrono::seconds(2);
// Files are written once answers have stopped coming for this long: a burst of loads (a map
// being panned) is not slowed by the disk, which catches up after it.
constexpr auto kQuietBeforeWriting = std::chrono::milliseconds(50);
// ... unless this much waits for the disk: then the writer works through the backlog (down to
// half of it) even while answers keep coming.
constexpr std::size_t kEagerPendingBytes = 8 * 1024 * 1024;
// Past this many bytes waiting for the disk, a store writes its own file rather than let the
// backlog grow. The writer runs at a low priority and falls behind for as long as the machine
// is busy, so this bounds what the cache holds in memory beyond its memory capacity: a backlog
// as large as the disk layer kept a long map session tens of megabytes above its caches.
constexpr std::size_t kMaxPendingBytes = 2 * kEagerPendingBytes;
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

std::int64_t millisecondsOf(std::chrono::system_clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
}

std::uint32_t checksum(std::string_view head, const Data& body) {
    uLong crc = crc32(0L, Z_NULL, 0);
    crc = crc32_z(crc, reinterpret_cast<const Bytef*>(head.data()), head.size());
    crc = crc32_z(crc, body.data(), body.size());
    return static_cast<std::uint32_t>(crc);
}

// File layout: magic, URL, status, time stored (ms since the epoch), header count, then name
// and value lines, the body length, a CRC-32 (eight hex digits) of everything before it and of
// the body, and the body bytes. URLs and header lines never hold line breaks. These are the fields
// the checksum follows.
std::string headFields(const std::string& key, const CacheEntry& entry) {
    const HTTPURLResponse& response = *entry.response;
    std::string out;
    out.reserve(160 + key.size());
    out.append(kFileMagic).append(1, '\n');
    out.append(key).append(1, '\n');
    out.append(std::to_string(response.statusCode)).append(1, '\n');
    out.append(std::to_string(millisecondsOf(entry.storedAt))).append(1, '\n');
    out.append(std::to_string(response.headers.size())).append(1, '\n');
    for (const auto& [name, value] : response.headers) {
        out.append(name).append(1, '\n').append(value).append(1, '\n');
    }
    out.append(std::to_string(entry.data->size())).append(1, '\n');
    return out;
}

// Everything before the body.
std::string serialisedHead(const std::string& key, const CacheEntry& entry) {
    std::string out = headFields(key, entry);
    // Fixed width, so that the same answer stored again makes a file of the same size.
    char sum[16];
    std::snprintf(sum, sizeof sum, "%08x\n", static_cast<unsigned>(checksum(out, *entry.data)));
    out.append(sum);
    return out;
}

// "Cache-Control" directives, lower-cased, without their values.
bool hasDirective(const HTTPURLResponse& response, std::string_view directive) {
    auto it = response.headers.find("cache-control");
    if (it == response.headers.end()) {
        return false;
    }
    std::string_view rest = it->second;
    while (!rest.empty()) {
        auto comma = rest.find(',');
        std::string_view item = rest.substr(0, comma);
        rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
        while (!item.empty() && (item.front() == ' ' || item.front() == '\t')) {
            item.remove_prefix(1);
        }
        item = item.substr(0, item.find_first_of("= \t"));
        if (item.size() == directive.size() &&
            std::equal(item.begin(), item.end(), directive.begin(), [](char a, char b) {
                return std::tolower(static_cast<unsigned char>(a)) == b;
            })) {
            return true;
        }
    }
    return false;
}

// The value of "max-age=N" in Cache-Control, if well formed.
std::optional<std::int64_t> maxAge(const HTTPURLResponse& response) {
    auto it = response.headers.find("cache-control");
    if (it == response.headers.end()) {
        return std::nullopt;
    }
    std::string lower = it->second;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    std::size_t at = 0;
    while ((at = lower.find("max-age", at)) != std::string::npos) {
        // Not "s-maxage", which is for shared caches only.
        bool starts =
            at == 0 || lower[at - 1] == ',' || lower[at - 1] == ' ' || lower[at - 1] == '\t';
        std::size_t i = at + 7;
        at = i;
        if (!starts) {
            continue;
        }
        while (i < lower.size() && lower[i] == ' ') {
            ++i;
        }
        if (i >= lower.size() || lower[i] != '=') {
            continue;
        }
        ++i;
        if (i < lower.size() && lower[i] == '"') {
            ++i;
        }
        std::int64_t value = 0;
        bool digits = false;
        for (; i < lower.size() && std::isdigit(static_cast<unsigned char>(lower[i])); ++i) {
            digits = true;
            value = std::min<std::int64_t>(value * 10 + (lower[i] - '0'), 1LL << 40);
        }
        if (digits) {
            return value;
        }
    }
    return std::nullopt;
}

std::optional<std::string> header(const HTTPURLResponse& response, const std::string& name) {
    auto it = response.headers.find(name);
    if (it == response.headers.end()) {
        return std::nullopt;
    }
    return it->second;
}

// An HTTP date in any of its three forms; nullopt when it is none.
std::optional<std::chrono::system_clock::time_point> httpDate(const std::string& text) {
    time_t t = curl_getdate(text.c_str(), nullptr);
    if (t == -1) {
        return std::nullopt;
    }
    return std::chrono::system_clock::from_time_t(t);
}

// Whether HTTP lets a private cache keep this answer.
bool storable(const HTTPURLResponse& response) {
    if (response.statusCode != 200 || hasDirective(response, "no-store")) {
        return false;
    }
    auto vary = header(response, "vary");
    return !(vary && vary->find('*') != std::string::npos);
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

// What reading a file came to.
struct ReadBack {
    std::shared_ptr<CacheEntry> entry;
    bool damaged = false;  // the file is this URL's, but not whole or not as written
};

ReadBack deserialise(const std::string& key, std::istream& in, std::uintmax_t maxEntry) {
    std::string line;
    if (!std::getline(in, line) || line != kFileMagic) {
        return {nullptr, true};  // cut before its first line, or of an older layout
    }
    if (!std::getline(in, line) || line != key) {
        return {};  // another URL with the same file name
    }
    auto url = URL::fromString(key);
    if (!url) {
        return {};
    }
    auto entry = std::make_shared<CacheEntry>();
    HTTPURLResponse& response = entry->response.emplace(HTTPURLResponse{*url, 0, {}});
    std::size_t headerCount = 0;
    std::size_t bodySize = 0;
    std::int64_t storedMs = 0;
    std::uint32_t sum = 0;
    if (!(in >> response.statusCode >> storedMs >> headerCount) || in.get() != '\n' ||
        headerCount > 10000) {
        return {nullptr, true};
    }
    entry->storedAt = std::chrono::system_clock::time_point(std::chrono::milliseconds(storedMs));
    for (std::size_t i = 0; i < headerCount; ++i) {
        std::string name, value;
        if (!std::getline(in, name) || !std::getline(in, value)) {
            return {nullptr, true};
        }
        response.headers.emplace(std::move(name), std::move(value));
    }
    if (!(in >> bodySize) || in.get() != '\n' || bodySize > maxEntry ||
        !(in >> std::hex >> sum >> std::dec) || in.get() != '\n') {
        return {nullptr, true};
    }
    Data& data = entry->data.emplace(bodySize);
    if (!in.read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(bodySize)) ||
        in.peek() != std::char_traits<char>::eof()) {
        return {nullptr, true};
    }
    // A flipped bit in the body or in any field read above no longer adds up.
    if (checksum(headFields(key, *entry), data) != sum) {
        return {nullptr, true};
    }
    return {std::move(entry), false};
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
    // 0: the disk layer is neither read nor written. Guarded by mutex.
    std::uintmax_t diskCapacity = kDefaultDiskCapacity;
    // The latest response stored for each key whose file is not written yet.
    std::unordered_map<std::string, PendingWrite> pending;
    std::size_t pendingBytes = 0;
    std::chrono::steady_clock::time_point lastStore{};
    bool drainScheduled = false;  // a drain() is queued on the writer
    bool eager = false;           // working through a large backlog
    // Bumped by removeAllCachedResponses(), so that a disk read begun before it cannot bring
    // an answer back into memory after it.
    std::uint64_t generation = 0;
    // The files in each disk directory looked at so far, and how many files this process has
    // written (a listing read while one was written is not kept). Guarded by mutex.
    mutable std::unordered_map<std::string, std::unordered_set<std::string>> onDisk;
    mutable std::uint64_t filesWritten = 0;
    // The directories whose leftover temporary files were looked for. Guarded by mutex.
    mutable std::unordered_set<std::string> swept;

    // Held while a file is written or the directory emptied: a removal waits for the write in
    // progress, and no write starts until the removal is over. Taken before `mutex`.
    mutable std::mutex diskMutex;
    int writesSinceCheck = 0;  // guarded by diskMutex
    // The files this process wrote, with a hash of the content once it was written twice, so
    // that an answer stored again unchanged is not written again. Guarded by diskMutex.
    mutable std::unordered_map<std::string, std::optional<std::size_t>> written;
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
        std::uintmax_t capacity = 0;
        {
            std::lock_guard lock(mutex);
            if (const Shared* hit = memory.find(key)) {
                return *hit;
            }
            if (auto it = pending.find(key); it != pending.end()) {
                return it->second.entry;
            }
            seen = generation;
            capacity = diskCapacity;
        }
        std::string name = fileNameFor(key);
        if (capacity == 0) {
            return nullptr;
        }
        sweepOnce(dir);
        if (!mayBeOnDisk(dir, name, seen)) {
            return nullptr;
        }
        // Read without the lock: files are replaced whole, never changed in place.
        std::ifstream in(dir + "/" + name, std::ios::binary);
        if (!in) {
            return nullptr;
        }
        ReadBack read = deserialise(key, in, capacity / kEntryShare);
        if (read.damaged) {
            // Cut short or changed on disk since it was written: gone, so that the next
            // answer is written afresh rather than skipped as unchanged.
            in.close();
            std::lock_guard disk(diskMutex);
            removeFile(key, dir);
            return nullptr;
        }
        Shared entry = std::move(read.entry);
        if (!entry) {
            return nullptr;
        }
        std::lock_guard lock(mutex);
        if (generation == seen && !memory.contains(key)) {
            remember(key, entry);
        }
        return entry;
    }

    // The first use of a directory removes the temporary files of writers killed between
    // writing and renaming: nothing else would ever remove them, and they count against the
    // disk bound.
    void sweepOnce(const std::string& dir) const {
        {
            std::lock_guard lock(mutex);
            if (!swept.insert(dir).second) {
                return;
            }
        }
        paths::removeAbandonedTemporaries(dir);
    }

    // Whether dir holds a file of this name, as far as this process knows. The first question
    // about a directory reads its names, outside the lock.
    bool mayBeOnDisk(const std::string& dir, const std::string& name,
                     std::uint64_t seenGeneration) const {
        std::uint64_t seenWrites = 0;
        {
            std::lock_guard lock(mutex);
            if (auto it = onDisk.find(dir); it != onDisk.end()) {
                return it->second.count(name) != 0;
            }
            seenWrites = filesWritten;
        }
        std::unordered_set<std::string> names;
        std::error_code ec;
        for (const auto& entry : fs::directory_iterator(dir, ec)) {
            names.insert(entry.path().filename().string());
        }
        bool found = names.count(name) != 0;
        std::lock_guard lock(mutex);
        // A removal or a write meanwhile makes the listing stale; it is read again next time.
        if (generation == seenGeneration && filesWritten == seenWrites) {
            onDisk.try_emplace(dir, std::move(names));
        }
        return found;
    }

    // Notes a file this process wrote. REQUIRES: mutex held.
    void noteWritten(const std::string& file) const {
        ++filesWritten;
        fs::path path(file);
        if (auto it = onDisk.find(path.parent_path().string()); it != onDisk.end()) {
            it->second.insert(path.filename().string());
        }
    }

    void store(const std::string& key, const std::string& dir, Shared entry) {
        bool backlogged = false;
        {
            std::lock_guard lock(mutex);
            bool toDisk = diskCapacity != 0 && entry->data->size() <= diskCapacity / kEntryShare;
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

    // Forgets key everywhere: memory, the pending writes and its file.
    void remove(const std::string& key, const std::string& dir) {
        std::lock_guard disk(diskMutex);
        {
            std::lock_guard lock(mutex);
            memory.erase(key);
            if (auto it = pending.find(key); it != pending.end()) {
                dropPending(it);
            }
            // A disk read begun before this must not bring the answer back into memory.
            ++generation;
        }
        removeFile(key, dir);
    }

    // Removes the file of key (which may hold another URL of the same name: it is only a
    // cache). REQUIRES: diskMutex held.
    void removeFile(const std::string& key, const std::string& dir) const {
        std::string name = fileNameFor(key);
        std::string file = dir + "/" + name;
        written.erase(file);
        ::unlink(file.c_str());
        std::lock_guard lock(mutex);
        if (auto it = onDisk.find(dir); it != onDisk.end()) {
            it->second.erase(name);
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
        std::string head = serialisedHead(key, e);
        // Hashed only for a file written before: most answers are stored once.
        auto known = written.find(job.file);
        std::optional<std::size_t> hash;
        bool unchanged = false;
        if (known != written.end()) {
            std::string_view body(reinterpret_cast<const char*>(e.data->data()), e.data->size());
            // The time stored (fourth line) and the checksum over it (last line) are left out:
            // an answer stored again unchanged keeps its file, whose older time only makes it
            // revalidate sooner.
            std::string_view fields(head);
            std::size_t timeAt = fields.find('\n', fields.find('\n', fields.find('\n') + 1) + 1);
            std::size_t timeEnd = fields.find('\n', timeAt + 1);
            std::size_t sumAt = fields.rfind('\n', fields.size() - 2);
            std::hash<std::string_view> h;
            hash = (h(fields.substr(0, timeAt)) * 31 + h(fields.substr(timeEnd, sumAt - timeEnd))) *
                       31 +
                   h(body);
            // Still there, whole: the file may have been removed or cut short by someone else.
            struct stat st {};
            unchanged = known->second == hash && ::stat(job.file.c_str(), &st) == 0 &&
                        static_cast<std::size_t>(st.st_size) == head.size() + body.size();
        }
        bool wrote = false;
        if (!unchanged) {
            sweepOnce(fs::path(job.file).parent_path().string());
            if (known != written.end()) {
                written.erase(known);
            }
            wrote = writeFile(job.file, head, *e.data);
            if (wrote) {
                if (written.size() >= kRememberedFiles) {
                    written.clear();
                }
                written.emplace(job.file, hash);
            }
        }
        {
            // A newer store of the same key waits for its own turn.
            std::lock_guard lock(mutex);
            if (wrote) {
                noteWritten(job.file);
            }
            auto it = pending.find(key);
            if (it != pending.end() && it->second.entry == job.entry) {
                dropPending(it);
            }
        }
        if (!unchanged && ++writesSinceCheck >= kWritesPerDiskCheck) {
            writesSinceCheck = 0;
            fs::path dir = fs::path(job.file).parent_path();
            std::uintmax_t capacity = 0;
            {
                std::lock_guard lock(mutex);
                capacity = diskCapacity;
            }
            if (trimDisk(dir, capacity)) {
                written.clear();
                std::lock_guard lock(mutex);
                onDisk.erase(dir.string());
            }
        }
    }

    // Written aside under a name of its own and renamed, so that a reader never sees half a
    // file and two processes writing the same answer never mix their bytes.
    static bool writeFile(const std::string& file, const std::string& head, const Data& body) {
        std::string temp = paths::temporaryPathFor(file);
        // Private: a stored address carries the service key.
        int fd = paths::createPrivateFile(temp);
        if (fd < 0 && errno == ENOENT) {
            paths::makePrivateDirectory(fs::path(file).parent_path().string());
            fd = paths::createPrivateFile(temp);
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
    static bool trimDisk(const fs::path& dir, std::uintmax_t capacity) {
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
        if (total <= capacity) {
            return false;
        }
        std::sort(files.begin(), files.end());
        for (const auto& [time, path] : files) {
            if (total <= capacity * 3 / 4) {
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
    if (!storable(response)) {
        return;
    }
    auto entry =
        std::make_shared<CacheEntry>(CacheEntry{response, data, std::chrono::system_clock::now()});
    entry->response->url = url;
    impl_->store(url.absoluteString(), diskPath(), std::move(entry));
}

std::shared_ptr<const CacheEntry> URLCacheAccess::store(URLCache& cache, HTTPURLResponse response,
                                                        Data data) {
    auto entry = std::make_shared<CacheEntry>(
        CacheEntry{std::move(response), std::move(data), std::chrono::system_clock::now()});
    if (storable(*entry->response)) {
        cache.impl_->store(entry->response->url.absoluteString(), cache.diskPath(), entry);
    }
    return entry;
}

Reuse URLCacheAccess::reuse(const CacheEntry& entry, std::chrono::system_clock::time_point now) {
    const HTTPURLResponse& response = *entry.response;
    Reuse r;
    r.etag = header(response, "etag").value_or("");
    r.lastModified = header(response, "last-modified").value_or("");
    if (hasDirective(response, "no-cache")) {
        return r;
    }
    // Age: what the server said it was when it came, plus the time since.
    std::int64_t age = 0;
    if (auto given = header(response, "age")) {
        age = std::atoll(given->c_str());
        age = std::clamp<std::int64_t>(age, 0, 1LL << 40);
    }
    auto held = std::chrono::duration_cast<std::chrono::seconds>(now - entry.storedAt).count();
    age += std::max<std::int64_t>(0, held);
    std::optional<std::int64_t> lifetime = maxAge(response);
    if (!lifetime) {
        if (auto expires = header(response, "expires")) {
            // An Expires that is no date ("0", "-1") means already expired.
            auto until = httpDate(*expires);
            auto date = header(response, "date");
            auto sent = date ? httpDate(*date) : std::nullopt;
            if (until) {
                auto from = sent.value_or(entry.storedAt);
                lifetime = std::chrono::duration_cast<std::chrono::seconds>(*until - from).count();
            } else {
                lifetime = 0;
            }
        }
    }
    r.fresh = lifetime && *lifetime > age;
    return r;
}

std::shared_ptr<const CacheEntry> URLCacheAccess::revalidated(URLCache& cache,
                                                              const CacheEntry& stored,
                                                              const HTTPURLResponse& notModified) {
    auto entry = std::make_shared<CacheEntry>(
        CacheEntry{stored.response, stored.data, std::chrono::system_clock::now()});
    // A 304 updates what it carries; the body's own description stays.
    for (const auto& [name, value] : notModified.headers) {
        if (name != "content-length" && name != "content-type" && name != "content-encoding" &&
            name != "transfer-encoding") {
            entry->response->headers[name] = value;
        }
    }
    if (storable(*entry->response)) {
        cache.impl_->store(entry->response->url.absoluteString(), cache.diskPath(), entry);
    } else {
        cache.removeCachedResponse(entry->response->url);
    }
    return entry;
}

std::shared_ptr<const CacheEntry> URLCacheAccess::lookup(const URLCache& cache, const URL& url) {
    return cache.impl_->lookup(url.absoluteString(), cache.diskPath());
}

std::size_t URLCacheAccess::pendingBytes(const URLCache& cache) {
    std::lock_guard lock(cache.impl_->mutex);
    return cache.impl_->pendingBytes;
}

std::size_t URLCacheAccess::maxPendingBytes() {
    return kMaxPendingBytes;
}

void URLCacheAccess::onWriter(URLCache& cache, std::function<void()> task) {
    cache.impl_->writer.async(std::move(task));
}

void URLCache::removeCachedResponse(const URL& url) {
    impl_->remove(url.absoluteString(), diskPath());
}

void URLCache::flush() {
    impl_->flush(std::chrono::steady_clock::time_point::max());
}

void URLCache::setDiskCapacity(std::size_t bytes) {
    std::lock_guard lock(impl_->mutex);
    impl_->diskCapacity = bytes;
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
    impl_->onDisk.clear();
    ++impl_->generation;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(diskPath(), ec)) {
        std::error_code e2;
        fs::remove_all(entry.path(), e2);
    }
}

}  // namespace sorvan::net
