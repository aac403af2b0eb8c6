#include "sorvan/platform/location/source.hpp"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "location/source_locator.hpp"
#include "sorvan/platform/location/gpsd_source.hpp"
#include "sorvan/platform/location/replay_source.hpp"

namespace sorvan::location {

// One subscriber. Its call mutex is held while the source calls into the sink, so that
// unsubscribing can wait for that call alone: a sink that waits for its consumer (a paced
// source) must not hold up another subscriber leaving.
struct Source::Subscription::Entry {
    Sink sink;
    std::mutex callMutex;
    bool live = true;  // guarded by callMutex
};

struct Source::State {
    // Orders starting and stopping the feed; never taken while publishing.
    std::mutex lifeMutex;
    bool running = false;  // guarded by lifeMutex

    // Guards the subscriber list and the remembered reports.
    mutable std::mutex mutex;
    std::vector<std::shared_ptr<Subscription::Entry>> entries;
    std::optional<Location> lastLocation;
    std::optional<Heading> lastHeading;
    std::optional<LocationError> lastFailure;
    bool finished = false;

    std::atomic<bool> stopping{false};
};

namespace {

// Sources whose feed runs, so that the process never exits with their threads still going.
struct Running {
    std::mutex mutex;
    std::vector<std::weak_ptr<Source>> sources;
};

Running& running() {
    // Never destroyed: the exit hook reads it after static destructors may have begun.
    static Running* const r = new Running();
    return *r;
}

std::once_flag gExitHookOnce;

// A source that describes a mistake: its only report is the failure, then the end.
class UnusableSource : public Source {
  public:
    static std::shared_ptr<UnusableSource> create(std::string description, std::string reason) {
        return std::shared_ptr<UnusableSource>(
            new UnusableSource(std::move(description), std::move(reason)));
    }
    std::string description() const override { return description_; }

  protected:
    void startFeed() override {
        publishFailure({ErrorCode::SourceUnavailable, reason_});
        publishFinished();
    }
    void stopFeed() override {}

  private:
    UnusableSource(std::string description, std::string reason)
        : description_(std::move(description)), reason_(std::move(reason)) {}
    std::string description_, reason_;
};

struct Shared {
    std::mutex mutex;
    std::shared_ptr<Source> chosen;  // by the host
    std::shared_ptr<Source> made;    // from defaultLocator(), on first use
};

Shared& sharedSlot() {
    static Shared* const s = new Shared();
    return *s;
}

}  // namespace

void stopAllFeedsAtExit() {
    std::vector<std::weak_ptr<Source>> sources;
    {
        std::lock_guard lock(running().mutex);
        sources = running().sources;
    }
    for (auto& weak : sources) {
        if (auto source = weak.lock()) {
            source->stopForExit();
        }
    }
}

Source::Source() : state_(std::make_unique<State>()) {}

Source::~Source() = default;

Source::Subscription::Subscription(std::shared_ptr<Source> source, std::shared_ptr<Entry> entry)
    : source_(std::move(source)), entry_(std::move(entry)) {}

Source::Subscription::~Subscription() {
    source_->unsubscribe(entry_);
}

std::unique_ptr<Source::Subscription> Source::subscribe(Sink sink) {
    auto entry = std::make_shared<Subscription::Entry>();
    entry->sink = std::move(sink);
    std::lock_guard life(state_->lifeMutex);
    bool first = false;
    {
        std::unique_lock lock(state_->mutex);
        first = state_->entries.empty() && !state_->running;
        if (first) {
            state_->finished = false;
            state_->lastFailure.reset();
        }
        state_->entries.push_back(entry);
        // What a new listener would have heard had it been there: the last position and
        // heading, and how a finished source ended. The call lock is taken before the list is
        // let go, so a report published meanwhile reaches this sink only after these.
        std::lock_guard call(entry->callMutex);
        std::optional<Location> location = state_->lastLocation;
        std::optional<Heading> heading = state_->lastHeading;
        std::optional<LocationError> failure;
        bool finished = state_->finished;
        if (finished) {
            failure = state_->lastFailure;
        }
        lock.unlock();
        const Sink& s = entry->sink;
        if (location && s.location) {
            s.location(*location);
        }
        if (heading && s.heading) {
            s.heading(*heading);
        }
        if (failure && s.failure) {
            s.failure(*failure);
        }
        if (finished && s.finished) {
            s.finished();
        }
    }
    if (first) {
        state_->stopping = false;
        state_->running = true;
        std::call_once(gExitHookOnce, [] { std::atexit(stopAllFeedsAtExit); });
        {
            std::lock_guard lock(running().mutex);
            running().sources.push_back(weak_from_this());
        }
        startFeed();
    }
    return std::unique_ptr<Subscription>(new Subscription(shared_from_this(), std::move(entry)));
}

void Source::unsubscribe(const std::shared_ptr<Subscription::Entry>& entry) {
    std::lock_guard life(state_->lifeMutex);
    bool last = false;
    {
        std::lock_guard lock(state_->mutex);
        std::erase(state_->entries, entry);
        last = state_->entries.empty();
    }
    {
        // Waits for a call into this sink that is running now; none starts after.
        std::lock_guard call(entry->callMutex);
        entry->live = false;
    }
    if (last && state_->running) {
        state_->stopping = true;
        stopFeed();
        state_->running = false;
        std::lock_guard lock(running().mutex);
        std::erase_if(running().sources, [this](const std::weak_ptr<Source>& w) {
            auto s = w.lock();
            return !s || s.get() == this;
        });
    }
}

void Source::stopForExit() {
    std::lock_guard life(state_->lifeMutex);
    if (state_->running) {
        state_->stopping = true;
        stopFeed();
        state_->running = false;
    }
}

bool Source::stopping() const {
    return state_->stopping;
}

std::optional<Location> Source::lastLocation() const {
    std::lock_guard lock(state_->mutex);
    return state_->lastLocation;
}

std::optional<Heading> Source::lastHeading() const {
    std::lock_guard lock(state_->mutex);
    return state_->lastHeading;
}

std::size_t Source::subscriberCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->entries.size();
}

void Source::callSinks(std::vector<std::shared_ptr<Subscription::Entry>> entries,
                       const std::function<void(const Sink&)>& call) {
    for (const auto& entry : entries) {
        std::lock_guard lock(entry->callMutex);
        if (entry->live) {
            call(entry->sink);
        }
    }
}

void Source::publishLocation(const Location& location) {
    std::vector<std::shared_ptr<Subscription::Entry>> entries;
    {
        std::lock_guard lock(state_->mutex);
        state_->lastLocation = location;
        state_->lastFailure.reset();
        entries = state_->entries;
    }
    callSinks(std::move(entries), [&](const Sink& s) {
        if (s.location) {
            s.location(location);
        }
    });
}

void Source::publishHeading(const Heading& heading) {
    std::vector<std::shared_ptr<Subscription::Entry>> entries;
    {
        std::lock_guard lock(state_->mutex);
        state_->lastHeading = heading;
        entries = state_->entries;
    }
    callSinks(std::move(entries), [&](const Sink& s) {
        if (s.heading) {
            s.heading(heading);
        }
    });
}

void Source::publishFailure(const LocationError& error) {
    std::vector<std::shared_ptr<Subscription::Entry>> entries;
    {
        std::lock_guard lock(state_->mutex);
        state_->lastFailure = error;
        entries = state_->entries;
    }
    callSinks(std::move(entries), [&](const Sink& s) {
        if (s.failure) {
            s.failure(error);
        }
    });
}

void Source::publishFinished() {
    std::vector<std::shared_ptr<Subscription::Entry>> entries;
    {
        std::lock_guard lock(state_->mutex);
        state_->finished = true;
        entries = state_->entries;
    }
    callSinks(std::move(entries), [&](const Sink& s) {
        if (s.finished) {
            s.finished();
        }
    });
}

// Locators ---------------------------------------------------------------------------------------

std::shared_ptr<Source> Source::fromLocator(std::string_view text, std::string* error) {
    std::string reason;
    std::optional<SourceLocator> locator = parseSourceLocator(text, reason);
    if (!locator) {
        if (error) {
            *error = reason;
        }
        return nullptr;
    }
    if (locator->kind == SourceLocator::Kind::Gpsd) {
        GpsdSource::Options options;
        options.host = locator->host;
        options.port = locator->port;
        return GpsdSource::create(options);
    }
    ReplaySource::Options options;
    options.path = locator->path;
    options.speed = locator->speed;
    options.loops = locator->loops;
    return ReplaySource::create(options);
}

std::string Source::defaultLocator() {
    const char* env = std::getenv("SORVAN_LOCATION");
    if (env && *env) {
        return env;
    }
    return "gpsd://localhost:2947";
}

std::shared_ptr<Source> Source::shared() {
    Shared& slot = sharedSlot();
    std::lock_guard lock(slot.mutex);
    if (slot.chosen) {
        return slot.chosen;
    }
    if (!slot.made) {
        std::string locator = defaultLocator(), reason;
        slot.made = fromLocator(locator, &reason);
        if (!slot.made) {
            slot.made = UnusableSource::create(
                "location source '" + locator + "'",
                "SORVAN_LOCATION '" + locator + "' names no location source: " + reason);
        }
    }
    return slot.made;
}

void Source::setShared(std::shared_ptr<Source> source) {
    Shared& slot = sharedSlot();
    std::lock_guard lock(slot.mutex);
    slot.chosen = std::move(source);
    // The next shared() without a choice reads SORVAN_LOCATION afresh.
    slot.made.reset();
}

std::shared_ptr<ManualSource> ManualSource::create(std::string description) {
    return std::shared_ptr<ManualSource>(new ManualSource(std::move(description)));
}

}  // namespace sorvan::location
