#include "sorvan/platform/foundation/defaults.hpp"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <system_error>

#include "foundation/c_handle.hpp"
#include "sorvan/platform/foundation/bundle.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/foundation/paths.hpp"

namespace sorvan {
namespace {

using Database = CHandle<sqlite3, sqlite3_close_v2>;
using Statement = CHandle<sqlite3_stmt, sqlite3_finalize>;

// A key holds a string (kind 0, in entries.value) or an array (kind 1, one items row per
// element). Elements are numbered by an ever-growing seq so that appending at the end and
// removing from the front each touch only the rows concerned, never the whole array.
constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS entries(key TEXT PRIMARY KEY, kind INTEGER NOT NULL, "
    "value TEXT);"
    "CREATE TABLE IF NOT EXISTS items(key TEXT NOT NULL, seq INTEGER NOT NULL, "
    "value TEXT NOT NULL, PRIMARY KEY(key, seq)) WITHOUT ROWID;";

constexpr int kString = 0;
constexpr int kArray = 1;

enum Query {
    kSelectEntry,
    kSelectItems,
    kPutEntry,
    kDeleteEntry,
    kDeleteItems,
    kAppendItem,
    kDeleteFirstItems,
    kQueryCount
};

constexpr const char* kQueries[kQueryCount] = {
    "SELECT kind, value FROM entries WHERE key = ?1",
    "SELECT value FROM items WHERE key = ?1 ORDER BY seq",
    "INSERT OR REPLACE INTO entries(key, kind, value) VALUES(?1, ?2, ?3)",
    "DELETE FROM entries WHERE key = ?1",
    "DELETE FROM items WHERE key = ?1",
    "INSERT INTO items(key, seq, value) VALUES(?1, "
    "(SELECT IFNULL(MAX(seq), -1) + 1 FROM items WHERE key = ?1), ?2)",
    "DELETE FROM items WHERE key = ?1 AND seq IN "
    "(SELECT seq FROM items WHERE key = ?1 ORDER BY seq LIMIT ?2)",
};

// Raised inside the store only, to unwind a failed transaction; never leaves this file.
struct SqlError {
    int code;
    std::string message;
};

bool isDamaged(int code) {
    const int primary = code & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

// One use of a prepared statement; resets it when done so that it holds no read lock.
class Use {
  public:
    Use(sqlite3* db, sqlite3_stmt* statement) : db_(db), statement_(statement) {}
    ~Use() {
        sqlite3_reset(statement_);
        sqlite3_clear_bindings(statement_);
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    Use& text(int index, const std::string& value) {
        check(sqlite3_bind_text(statement_, index, value.data(), static_cast<int>(value.size()),
                                SQLITE_TRANSIENT));
        return *this;
    }
    Use& integer(int index, sqlite3_int64 value) {
        check(sqlite3_bind_int64(statement_, index, value));
        return *this;
    }
    Use& null(int index) {
        check(sqlite3_bind_null(statement_, index));
        return *this;
    }
    /// True while there is a row to read.
    bool step() {
        const int rc = sqlite3_step(statement_);
        if (rc == SQLITE_ROW) {
            return true;
        }
        if (rc != SQLITE_DONE) {
            check(rc);
        }
        return false;
    }
    int columnInt(int column) { return sqlite3_column_int(statement_, column); }
    std::string columnText(int column) {
        const auto* text = sqlite3_column_text(statement_, column);
        const int size = sqlite3_column_bytes(statement_, column);
        return text ? std::string(reinterpret_cast<const char*>(text), static_cast<size_t>(size))
                    : std::string();
    }

  private:
    void check(int rc) {
        if (rc != SQLITE_OK) {
            throw SqlError{rc, sqlite3_errmsg(db_)};
        }
    }
    sqlite3* db_;
    sqlite3_stmt* statement_;
};

}  // namespace

struct Defaults::Impl {
    const std::string path;
    std::mutex mutex;
    // Guarded by mutex. Statements are declared after the database so they finalize first.
    Database db;
    Statement statements[kQueryCount];

    explicit Impl(std::string filePath) : path(std::move(filePath)) { start(); }

    // Opens the file; a file that is not a usable store is moved aside and replaced by an
    // empty one, and a place where no file can be made gives a store in memory: the
    // application keeps running either way.
    void start() {
        std::string problem;
        if (connect(path, problem)) {
            return;
        }
        if (isDamagedProblem_) {
            moveAside(problem);
            if (connect(path, problem)) {
                return;
            }
        }
        log::warning("Defaults: cannot open %s (%s); keeping values in memory for this run",
                     path.c_str(), problem.c_str());
        connect(":memory:", problem);
    }

    bool connect(const std::string& file, std::string& problem) {
        for (auto& statement : statements) {
            statement.reset();
        }
        db.reset();
        isDamagedProblem_ = false;
        if (file != ":memory:") {
            // Private to the user; SQLite gives its journal files the database's mode.
            paths::makePrivateDirectory(std::filesystem::path(file).parent_path().string());
            int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
            if (fd >= 0) {
                ::close(fd);
            }
        }
        sqlite3* raw = nullptr;
        const int rc = sqlite3_open_v2(
            file.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
            nullptr);
        db.reset(raw);
        if (rc != SQLITE_OK) {
            problem = raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc);
            db.reset();
            return false;
        }
        try {
            sqlite3_busy_timeout(db.get(), 10000);
            // WAL lets readers in other processes go on while one writes; NORMAL syncs at
            // checkpoints rather than at every commit (synchronize() forces one).
            exec("PRAGMA journal_mode=WAL");
            exec("PRAGMA synchronous=NORMAL");
            exec("BEGIN IMMEDIATE");
            exec(kSchema);
            exec("COMMIT");
            std::string verdict;
            exec("PRAGMA quick_check", &verdict);
            if (verdict != "ok") {
                throw SqlError{SQLITE_CORRUPT, verdict};
            }
            for (int q = 0; q < kQueryCount; ++q) {
                sqlite3_stmt* statement = nullptr;
                const int prc = sqlite3_prepare_v3(db.get(), kQueries[q], -1,
                                                   SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
                statements[q].reset(statement);
                if (prc != SQLITE_OK) {
                    // A database of some other shape under our name: as good as damaged.
                    throw SqlError{SQLITE_CORRUPT, sqlite3_errmsg(db.get())};
                }
            }
        } catch (const SqlError& e) {
            problem = e.message;
            isDamagedProblem_ = isDamaged(e.code);
            for (auto& statement : statements) {
                statement.reset();
            }
            db.reset();
            return false;
        }
        return true;
    }

    void moveAside(const std::string& problem) {
        const std::string aside = path + ".corrupt";
        std::error_code ignored;
        std::filesystem::rename(path, aside, ignored);
        // A log or index left by the damaged file must not be replayed into the new one.
        std::filesystem::remove(path + "-wal", ignored);
        std::filesystem::remove(path + "-shm", ignored);
        log::warning("Defaults: %s is damaged (%s); moved it to %s and started empty", path.c_str(),
                     problem.c_str(), aside.c_str());
    }

    void exec(const char* sql, std::string* firstValue = nullptr) {
        char* message = nullptr;
        auto keepFirst = [](void* out, int columns, char** values, char**) -> int {
            auto* text = static_cast<std::string*>(out);
            if (text && text->empty() && columns > 0 && values[0]) {
                *text = values[0];
            }
            return 0;
        };
        const int rc = sqlite3_exec(db.get(), sql, keepFirst, firstValue, &message);
        if (rc != SQLITE_OK) {
            std::string text = message ? message : sqlite3_errstr(rc);
            sqlite3_free(message);
            throw SqlError{rc, text};
        }
    }

    Use use(Query q) { return Use(db.get(), statements[q].get()); }

    // Runs body as one write transaction, under the mutex. A store found damaged on the way
    // is replaced by an empty one and the write made there.
    void write(const char* what, const std::function<void()>& body) {
        std::lock_guard lock(mutex);
        if (!db) {
            return;  // even an in-memory store could not be made; start() logged it
        }
        for (int attempt = 0; attempt < 2; ++attempt) {
            try {
                exec("BEGIN IMMEDIATE");
                try {
                    body();
                    exec("COMMIT");
                } catch (...) {
                    sqlite3_exec(db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
                    throw;
                }
                return;
            } catch (const SqlError& e) {
                if (attempt == 0 && isDamaged(e.code)) {
                    recover(e.message);
                    continue;
                }
                log::writef("Defaults: %s failed in %s: %s", what, path.c_str(), e.message.c_str());
                return;
            }
        }
    }

    template <typename T>
    std::optional<T> read(const char* what, const std::function<std::optional<T>()>& body) {
        std::lock_guard lock(mutex);
        if (!db) {
            return std::nullopt;
        }
        try {
            return body();
        } catch (const SqlError& e) {
            log::writef("Defaults: %s failed in %s: %s", what, path.c_str(), e.message.c_str());
            if (isDamaged(e.code)) {
                recover(e.message);
            }
            return std::nullopt;
        }
    }

    void recover(const std::string& problem) {
        for (auto& statement : statements) {
            statement.reset();
        }
        db.reset();
        moveAside(problem);
        std::string again;
        if (!connect(path, again)) {
            log::warning("Defaults: cannot open %s (%s); keeping values in memory for this run",
                         path.c_str(), again.c_str());
            connect(":memory:", again);
        }
    }

    // REQUIRES: inside a write transaction.
    int kindOf(const std::string& key) {
        auto q = use(kSelectEntry);
        q.text(1, key);
        return q.step() ? q.columnInt(0) : -1;
    }
    void putEntry(const std::string& key, int kind, const std::string* value) {
        auto q = use(kPutEntry);
        q.text(1, key).integer(2, kind);
        if (value) {
            q.text(3, *value);
        } else {
            q.null(3);
        }
        q.step();
    }
    void deleteItems(const std::string& key) {
        auto q = use(kDeleteItems);
        q.text(1, key);
        q.step();
    }
    void appendItem(const std::string& key, const std::string& value) {
        auto q = use(kAppendItem);
        q.text(1, key).text(2, value);
        q.step();
    }

  private:
    bool isDamagedProblem_ = false;
};

Defaults::Defaults(const std::string& path) : impl_(std::make_unique<Impl>(path)) {}

Defaults::~Defaults() = default;

Defaults& Defaults::standard() {
    // Never destroyed: threads still running at exit may write to it.
    static Defaults* const instance = new Defaults(standardPath());
    return *instance;
}

std::string Defaults::standardPath() {
    return paths::preferences() + "/" + Bundle::main().identifier() + ".defaults.sqlite";
}

std::unique_ptr<Defaults> Defaults::open(const std::string& path) {
    return std::unique_ptr<Defaults>(new Defaults(path));
}

std::optional<std::string> Defaults::stringForKey(const std::string& key) const {
    return impl_->read<std::string>("reading a string", [&]() -> std::optional<std::string> {
        auto q = impl_->use(kSelectEntry);
        q.text(1, key);
        if (q.step() && q.columnInt(0) == kString) {
            return q.columnText(1);
        }
        return std::nullopt;
    });
}

std::optional<std::vector<std::string>> Defaults::stringArrayForKey(const std::string& key) const {
    return impl_->read<std::vector<std::string>>(
        "reading an array", [&]() -> std::optional<std::vector<std::string>> {
            // Both reads in one transaction, so another writer cannot slip in between.
            impl_->exec("BEGIN");
            struct End {
                Impl* impl;
                ~End() { sqlite3_exec(impl->db.get(), "COMMIT", nullptr, nullptr, nullptr); }
            } end{impl_.get()};
            {
                auto q = impl_->use(kSelectEntry);
                q.text(1, key);
                if (!q.step() || q.columnInt(0) != kArray) {
                    return std::nullopt;
                }
            }
            std::vector<std::string> values;
            auto q = impl_->use(kSelectItems);
            q.text(1, key);
            while (q.step()) {
                values.push_back(q.columnText(0));
            }
            return values;
        });
}

void Defaults::setString(const std::string& value, const std::string& key) {
    impl_->write("setting a string", [&] {
        impl_->deleteItems(key);
        impl_->putEntry(key, kString, &value);
    });
}

void Defaults::setStringArray(const std::vector<std::string>& value, const std::string& key) {
    impl_->write("setting an array", [&] {
        impl_->deleteItems(key);
        impl_->putEntry(key, kArray, nullptr);
        for (const auto& element : value) {
            impl_->appendItem(key, element);
        }
    });
}

void Defaults::appendToStringArray(const std::string& value, const std::string& key) {
    impl_->write("appending to an array", [&] {
        if (impl_->kindOf(key) != kArray) {
            impl_->deleteItems(key);
            impl_->putEntry(key, kArray, nullptr);
        }
        impl_->appendItem(key, value);
    });
}

void Defaults::removeFirstOfStringArray(std::size_t count, const std::string& key) {
    if (count == 0) {
        return;
    }
    impl_->write("removing from an array", [&] {
        auto q = impl_->use(kDeleteFirstItems);
        q.text(1, key).integer(2, static_cast<sqlite3_int64>(std::min<std::size_t>(
                                      count, static_cast<std::size_t>(INT64_MAX))));
        q.step();
    });
}

void Defaults::removeObjectForKey(const std::string& key) {
    impl_->write("removing a key", [&] {
        impl_->deleteItems(key);
        auto q = impl_->use(kDeleteEntry);
        q.text(1, key);
        q.step();
    });
}

bool Defaults::synchronize() {
    std::lock_guard lock(impl_->mutex);
    if (!impl_->db) {
        return false;
    }
    int logFrames = 0, checkpointed = 0;
    const int rc = sqlite3_wal_checkpoint_v2(impl_->db.get(), nullptr, SQLITE_CHECKPOINT_PASSIVE,
                                             &logFrames, &checkpointed);
    // An in-memory store (or one whose file system refused WAL) has no log to checkpoint.
    if (rc != SQLITE_OK && rc != SQLITE_BUSY) {
        log::writef("Defaults: synchronizing %s failed: %s", impl_->path.c_str(),
                    sqlite3_errmsg(impl_->db.get()));
        return false;
    }
    return true;
}

}  // namespace sorvan
