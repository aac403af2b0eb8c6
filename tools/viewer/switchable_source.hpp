// The viewer's location source: it passes on the reports of whichever source the user chose
// last (gpsd at some host, or a replay file). The viewer makes it the process's shared source
// at start-up, so that the kit's LocationController and the map's own location source both
// listen to it; they are made once and keep their source, and switching here is what lets the
// user change receivers without restarting.
//
// Thread-safe. Reports reach the subscribers on the chosen source's thread. Not paced: a
// subscriber that falls behind loses old reports rather than holding up a switch.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "sorvan/platform/location/source.hpp"

namespace sorvan::viewer {

class SwitchableSource final : public location::Source {
  public:
    /// A relay that starts with chosen (nullptr: the default locator's source).
    static std::shared_ptr<SwitchableSource> create(std::shared_ptr<location::Source> chosen) {
        if (!chosen) {
            chosen = location::Source::fromLocator(location::Source::defaultLocator());
        }
        return std::shared_ptr<SwitchableSource>(new SwitchableSource(std::move(chosen)));
    }

    /// Listens to chosen from now on; a running relay drops the old source first (joining its
    /// thread when nobody else listens to it).
    void choose(std::shared_ptr<location::Source> chosen) {
        std::lock_guard lock(mutex_);
        // Released before the new subscription: a last report of the old source must not
        // land after the first of the new one.
        subscription_.reset();
        chosen_ = std::move(chosen);
        if (running_ && listening_) {
            listen();
        }
    }

    /// Whether to listen to the chosen source while someone listens here (true at first).
    /// The kit's location controller never stops listening; this lets the viewer close the
    /// receiver or stop the replay while nobody looks at the position.
    void setListening(bool listening) {
        std::lock_guard lock(mutex_);
        listening_ = listening;
        if (!listening) {
            subscription_.reset();
        } else if (running_ && !subscription_) {
            listen();
        }
    }

    std::string description() const override {
        std::lock_guard lock(mutex_);
        return chosen_ ? chosen_->description() : std::string("no source");
    }

  protected:
    void startFeed() override {
        std::lock_guard lock(mutex_);
        running_ = true;
        if (listening_) {
            listen();
        }
    }
    void stopFeed() override {
        std::lock_guard lock(mutex_);
        running_ = false;
        subscription_.reset();
    }

  private:
    explicit SwitchableSource(std::shared_ptr<location::Source> chosen)
        : chosen_(std::move(chosen)) {}

    // REQUIRES: mutex_ held. The sinks never take mutex_, so dropping a subscription under it
    // (which waits for a call into a sink) cannot deadlock.
    void listen() {
        if (!chosen_) {
            return;
        }
        // The relay outlives its subscription (it owns it), so the sinks may hold it plainly.
        Sink sink;
        sink.location = [this](const location::Location& l) { publishLocation(l); };
        sink.heading = [this](const location::Heading& h) { publishHeading(h); };
        sink.failure = [this](const location::LocationError& e) { publishFailure(e); };
        // A replay that ends leaves the user where the track ended; the relay itself never
        // finishes, since another source may be chosen.
        subscription_ = chosen_->subscribe(std::move(sink));
    }

    mutable std::mutex mutex_;
    std::shared_ptr<location::Source> chosen_;                      // guarded by mutex_
    std::unique_ptr<location::Source::Subscription> subscription_;  // guarded by mutex_
    bool running_ = false;                                          // guarded by mutex_
    bool listening_ = true;                                         // guarded by mutex_
};

}  // namespace sorvan::viewer
