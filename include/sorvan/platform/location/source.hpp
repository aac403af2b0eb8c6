// A source of location reports behind the location manager: a gpsd receiver, a recorded track
// replayed, or reports a host pushes itself. Several managers (the map's user location, the
// kit's heading display, a host's own) may listen to one source at once: the first subscriber
// starts it, the last one leaving stops it, and a new subscriber gets the last known position
// and heading at once.
//
// Ownership: sources are shared objects (made by their create() functions or fromLocator()); a
// subscription keeps its source alive. Threads: every method is thread-safe. Sinks are called
// on the source's own thread (or, for pushed reports, on the pushing thread), one report at a
// time and in order; they must return quickly or, for paced sources, wait no longer than
// until stopping() turns true. A running source's thread is stopped and joined when the last
// subscription ends, and at the latest when the process exits.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/location/location.hpp"

namespace sorvan::location {

class SORVAN_EXPORT Source : public std::enable_shared_from_this<Source> {
  public:
    /// Where reports go. Empty functions are skipped.
    struct Sink {
        std::function<void(const Location&)> location;
        std::function<void(const Heading&)> heading;
        std::function<void(const LocationError&)> failure;
        /// The source has nothing more to report (a replay reached the end of its track).
        std::function<void()> finished;
    };

    /// Keeps one sink subscribed. Destroying it unsubscribes and returns only once no call
    /// into that sink is running. REQUIRES: not destroyed from inside a call into a sink.
    class SORVAN_EXPORT Subscription {
      public:
        ~Subscription();
        Subscription(const Subscription&) = delete;
        Subscription& operator=(const Subscription&) = delete;

      private:
        friend class Source;
        struct Entry;
        Subscription(std::shared_ptr<Source> source, std::shared_ptr<Entry> entry);
        std::shared_ptr<Source> source_;
        std::shared_ptr<Entry> entry_;
    };

    /// "gpsd://HOST:PORT" (HOST and PORT optional: localhost, 2947) or
    /// "replay:FILE[?speed=N][&loop=1]" (N times the recorded pace, or "max" for no pauses).
    /// nullptr, with the reason in *error, for anything else.
    static std::shared_ptr<Source> fromLocator(std::string_view locator,
                                               std::string* error = nullptr);
    /// The description of the source managers use when the host names none: SORVAN_LOCATION
    /// when it is set, else "gpsd://localhost:2947".
    static std::string defaultLocator();
    /// The process's shared source: the one the host set with setShared(), else the one
    /// defaultLocator() describes, made on first use. A SORVAN_LOCATION that describes no source
    /// gives a source whose only report is a failure saying so.
    static std::shared_ptr<Source> shared();
    /// The host's choice of shared source (nullptr: back to defaultLocator(), read again on the
    /// next shared()). Managers made before keep the source they have.
    static void setShared(std::shared_ptr<Source> source);

    virtual ~Source();
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    /// Subscribes sink; the last known position and heading (and the end of a finished
    /// replay) reach it before this returns. The first subscriber starts the source.
    std::unique_ptr<Subscription> subscribe(Sink sink);

    /// For log lines and errors, e.g. "gpsd at localhost:2947", "replay of track.nmea".
    virtual std::string description() const = 0;
    /// True when reports are to be held back rather than dropped while a subscriber falls
    /// behind (a replay can wait; a live receiver cannot).
    virtual bool paced() const { return false; }
    /// True while the source is being stopped: paced sinks stop waiting.
    bool stopping() const;
    std::optional<Location> lastLocation() const;
    std::optional<Heading> lastHeading() const;
    std::size_t subscriberCount() const;

  protected:
    Source();
    /// Starts producing reports (typically on a thread of the source's own). Called when the
    /// first subscriber arrives, never twice without a stopFeed() between.
    virtual void startFeed() = 0;
    /// Stops producing and returns once no publish call can happen any more (the thread is
    /// joined). Called when the last subscriber leaves, or at process exit.
    virtual void stopFeed() = 0;

    void publishLocation(const Location& location);
    void publishHeading(const Heading& heading);
    void publishFailure(const LocationError& error);
    void publishFinished();

  private:
    struct State;
    void unsubscribe(const std::shared_ptr<Subscription::Entry>& entry);
    static void callSinks(std::vector<std::shared_ptr<Subscription::Entry>> entries,
                          const std::function<void(const Sink&)>& call);
    void stopForExit();
    friend void stopAllFeedsAtExit();
    std::unique_ptr<State> state_;
};

/// A source that reports what the host pushes, on the pushing thread: for hosts with a sensor
/// of their own, demos and tests. Reports pushed before anyone subscribes are kept as the last
/// known ones.
class SORVAN_EXPORT ManualSource : public Source {
  public:
    static std::shared_ptr<ManualSource> create(std::string description = "manual source");
    std::string description() const override { return description_; }
    void pushLocation(const Location& location) { publishLocation(location); }
    void pushHeading(const Heading& heading) { publishHeading(heading); }
    void pushFailure(const LocationError& error) { publishFailure(error); }
    void pushFinished() { publishFinished(); }

  protected:
    explicit ManualSource(std::string description) : description_(std::move(description)) {}
    void startFeed() override {}
    void stopFeed() override {}

  private:
    std::string description_;
};

}  // namespace sorvan::location
