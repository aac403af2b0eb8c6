#include "sorvan/platform/location/replay_source.hpp"

#include <pthread.h>

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include "location/track_readers.hpp"
#include "sorvan/platform/foundation/log.hpp"

namespace sorvan::location {
namespace {

// Bad lines logged one by one in each pass; the rest are counted.
constexpr std::size_t kLoggedProblems = 10;
// NMEA sentences are at most 82 characters; anything far longer is no sentence.
constexpr std::size_t kMaxLine = 4096;

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Reads lines of at most kMaxLine characters; a longer one is given out cut short, flagged.
class LineReader {
  public:
    explicit LineReader(std::FILE* file) : file_(file) {}

    bool next(std::string& line, bool& tooLong) {
        line.clear();
        tooLong = false;
        for (;;) {
            if (at_ == size_) {
                size_ = std::fread(buffer_, 1, sizeof buffer_, file_);
                at_ = 0;
                if (size_ == 0) {
                    return !line.empty() || tooLong;
                }
            }
            const char* start = buffer_ + at_;
            const void* nl = std::memchr(start, '\n', size_ - at_);
            std::size_t n = nl ? static_cast<const char*>(nl) - start : size_ - at_;
            if (!tooLong) {
                std::size_t room = kMaxLine - line.size();
                if (n > room) {
                    tooLong = true;
                    line.append(start, room);
                } else {
                    line.append(start, n);
                }
            }
            at_ += n;
            if (nl) {
                ++at_;
                return true;
            }
        }
    }

  private:
    std::FILE* file_;
    char buffer_[1 << 16];
    std::size_t at_ = 0, size_ = 0;
};

std::string lineProblem(std::size_t number, const std::string& path, const std::string& reason) {
    return "line " + std::to_string(number) + " of " + path + " skipped: " + reason;
}

}  // namespace

struct ReplaySource::Impl {
    Options options;
    std::thread thread;
    std::mutex mutex;
    std::condition_variable wake;
    bool stop = false;  // guarded by mutex

    // Pacing: the recorded moment and the steady moment the pass was anchored at.
    std::optional<Timestamp> anchorRecorded;
    std::chrono::steady_clock::time_point anchorSteady;
    std::optional<Timestamp> lastRecorded;

    std::size_t problemsThisPass = 0;

    bool stopped() {
        std::lock_guard lock(mutex);
        return stop;
    }

    // Waits until the report recorded at `recorded` is due; false when stopped meanwhile.
    bool waitFor(const std::optional<Timestamp>& recorded) {
        if (!recorded || options.speed <= 0) {
            return !stopped();
        }
        if (!anchorRecorded || (lastRecorded && *recorded < *lastRecorded)) {
            // The first timed report, or a log that starts again earlier: pace from here.
            anchorRecorded = recorded;
            anchorSteady = std::chrono::steady_clock::now();
        }
        lastRecorded = recorded;
        auto offset = std::chrono::duration<double>(*recorded - *anchorRecorded) / options.speed;
        auto due =
            anchorSteady + std::chrono::duration_cast<std::chrono::steady_clock::duration>(offset);
        std::unique_lock lock(mutex);
        wake.wait_until(lock, due, [&] { return stop; });
        return !stop;
    }

    void problem(const std::string& text) {
        if (++problemsThisPass <= kLoggedProblems) {
            log::writef("Location replay: %s", text.c_str());
        }
    }

    void problemSummary() {
        if (problemsThisPass > kLoggedProblems) {
            log::writef("Location replay: %zu more lines or points of %s skipped",
                        problemsThisPass - kLoggedProblems, options.path.c_str());
        }
    }
};

std::shared_ptr<ReplaySource> ReplaySource::create(Options options) {
    return std::shared_ptr<ReplaySource>(new ReplaySource(std::move(options)));
}

ReplaySource::ReplaySource(Options options) : impl_(std::make_unique<Impl>()) {
    impl_->options = std::move(options);
}

ReplaySource::~ReplaySource() {
    stopFeed();
}

std::string ReplaySource::description() const {
    return "replay of " + impl_->options.path;
}

void ReplaySource::startFeed() {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->stop = false;
    }
    impl_->thread = std::thread([this] {
        pthread_setname_np(pthread_self(), "sorvan-replay");
        Impl& m = *impl_;
        auto play = [&](const TrackEvent& e) {
            if (!m.waitFor(e.recorded)) {
                return false;
            }
            if (const Location* l = std::get_if<Location>(&e.report)) {
                Location copy = *l;
                if (!e.recorded) {
                    copy.timestamp = std::chrono::system_clock::now();
                }
                publishLocation(copy);
            } else {
                Heading h = std::get<Heading>(e.report);
                if (!e.recorded) {
                    h.timestamp = std::chrono::system_clock::now();
                }
                publishHeading(h);
            }
            return true;
        };
        const std::string& path = m.options.path;
        bool again = true;
        while (again) {
            again = false;
            m.anchorRecorded.reset();
            m.lastRecorded.reset();
            m.problemsThisPass = 0;
            File file(std::fopen(path.c_str(), "rb"));
            if (!file) {
                std::string reason = "cannot read " + path + ": " + std::strerror(errno);
                log::writef("Location replay: %s", reason.c_str());
                publishFailure({ErrorCode::SourceUnreadable, reason});
                break;
            }
            int first = ' ';
            while (first == ' ' || first == '\t' || first == '\r' || first == '\n' ||
                   first == 0xEF || first == 0xBB || first == 0xBF) {  // blanks, a UTF-8 mark
                first = std::fgetc(file.get());
            }
            std::rewind(file.get());
            auto start =
                std::chrono::time_point_cast<Timestamp::duration>(std::chrono::system_clock::now());
            std::size_t positions = 0;
            std::string failure;
            bool stopped = false;
            if (first == '<') {
                std::string document;
                char chunk[1 << 16];
                while (std::size_t n = std::fread(chunk, 1, sizeof chunk, file.get())) {
                    document.append(chunk, n);
                }
                std::string error;
                std::vector<std::string> problems;
                std::vector<TrackEvent> events = readGPX(document, start, error, problems);
                for (const auto& p : problems) {
                    m.problem(path + ": " + p + ", skipped");
                }
                if (!error.empty()) {
                    failure = "GPX file " + path + (error.rfind("no ", 0) == 0 ? " has " : " is ") +
                              error;
                }
                for (const auto& e : events) {
                    if (!play(e)) {
                        stopped = true;
                        break;
                    }
                    positions += std::holds_alternative<Location>(e.report) ? 1 : 0;
                }
            } else {
                NmeaReader reader(std::chrono::floor<std::chrono::days>(start));
                LineReader lines(file.get());
                std::string line;
                bool tooLong = false;
                std::vector<TrackEvent> events;
                std::size_t number = 0;
                while (!stopped && lines.next(line, tooLong)) {
                    ++number;
                    if (tooLong) {
                        m.problem(lineProblem(number, path, "line too long"));
                        continue;
                    }
                    if (auto reason = reader.feed(line, events)) {
                        m.problem(lineProblem(number, path, *reason));
                    }
                    for (const auto& e : events) {
                        if (!play(e)) {
                            stopped = true;
                            break;
                        }
                    }
                    events.clear();
                }
                if (!stopped) {
                    reader.finish(events);
                    for (const auto& e : events) {
                        if (!play(e)) {
                            stopped = true;
                            break;
                        }
                    }
                }
                positions = reader.positions();
                if (!stopped && positions == 0) {
                    failure = "no position in NMEA file " + path;
                }
            }
            m.problemSummary();
            if (stopped) {
                return;
            }
            if (!failure.empty()) {
                log::writef("Location replay: %s", failure.c_str());
                publishFailure({ErrorCode::SourceUnreadable, failure});
                break;
            }
            again = m.options.loops && positions > 0 && !m.stopped();
        }
        if (!m.stopped()) {
            publishFinished();
        }
    });
}

void ReplaySource::stopFeed() {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->stop = true;
    }
    impl_->wake.notify_all();
    if (impl_->thread.joinable()) {
        impl_->thread.join();
    }
}

}  // namespace sorvan::location
