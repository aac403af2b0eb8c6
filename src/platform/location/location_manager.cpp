#include "sorvan/platform/location/location_manager.hpp"

#include <cmath>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <variant>

#include "location/track_readers.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"

namespace sorvan::location {

void LocationManagerDelegate::didUpdateLocations(LocationManager&, const std::vector<Location>&) {}
void LocationManagerDelegate::didUpdateHeading(LocationManager&, const Heading&) {}
void LocationManagerDelegate::didFailWithError(LocationManager&, const LocationError&) {}
void LocationManagerDelegate::didChangeAuthorizationStatus(LocationManager&, AuthorizationStatus) {}
void LocationManagerDelegate::didFinish(LocationManager&) {}

namespace {

// Reports waiting for the main queue, per manager. Beyond this many, a live source's oldest
// are dropped and a replay waits.
constexpr std::size_t kMaxPending = 4096;

struct Finished {};
using Report = std::variant<Location, Heading, LocationError, Finished>;

// What one subscription has heard and the main queue has not yet delivered. Shared between
// the source's thread (which adds), the main queue (which takes) and the manager (which
// closes it when it stops listening).
struct Pending {
    std::mutex mutex;
    std::condition_variable room;
    std::deque<Report> reports;  // guarded by mutex
    bool posted = false;         // guarded by mutex: a drain task is on the main queue
    bool closed = false;         // guarded by mutex

    bool isClosed() {
        std::lock_guard lock(mutex);
        return closed;
    }
    void close() {
        {
            std::lock_guard lock(mutex);
            closed = true;
            reports.clear();
        }
        room.notify_all();
    }
};

// Rides with a drain task. A task dropped without running (a run loop emptied between tests)
// lets the next report post a new one instead of leaving the manager waiting for it forever.
struct DrainTicket {
    explicit DrainTicket(std::shared_ptr<Pending> p) : pending(std::move(p)) {}
    ~DrainTicket() {
        if (!ran) {
            std::lock_guard lock(pending->mutex);
            pending->posted = false;
        }
    }
    std::shared_ptr<Pending> pending;
    bool ran = false;
};

bool reliable(const Heading& h) {
    return h.headingAccuracy > 0;
}

double turn(double from, double to) {
    double d = std::abs(normalizedDegrees(to) - normalizedDegrees(from));
    return std::min(d, 360.0 - d);
}

}  // namespace

struct LocationManager::Impl {
    std::shared_ptr<Source> source;
    std::weak_ptr<LocationManager> self;

    mutable std::mutex mutex;
    std::weak_ptr<LocationManagerDelegate> delegate;
    double desiredAccuracy = kLocationAccuracyBest;
    double distanceFilter = kDistanceFilterNone;
    double headingFilter = 1.0;
    bool wantsLocation = false, wantsHeading = false;
    std::unique_ptr<Source::Subscription> subscription;
    std::shared_ptr<Pending> pending;
    std::optional<Location> location;  // last delivered
    std::optional<Heading> heading;    // last delivered

    // Subscribes or unsubscribes as wanted and allowed. REQUIRES: mutex held.
    void update(AuthorizationStatus status) {
        bool allowed = status == AuthorizationStatus::AuthorizedWhenInUse ||
                       status == AuthorizationStatus::AuthorizedAlways;
        bool listen = allowed && (wantsLocation || wantsHeading);
        if (listen && !subscription) {
            auto p = std::make_shared<Pending>();
            pending = p;
            std::weak_ptr<LocationManager> weak = self;
            Source* s = source.get();
            bool paced = source->paced();
            auto add = [p, weak, s, paced](Report report) {
                std::unique_lock lock(p->mutex);
                if (paced) {
                    // A replay waits for the main queue rather than lose reports, but not past
                    // a stop.
                    while (p->reports.size() >= kMaxPending && !p->closed && !s->stopping()) {
                        p->room.wait_for(lock, std::chrono::milliseconds(20));
                    }
                } else if (p->reports.size() >= kMaxPending) {
                    p->reports.pop_front();
                }
                if (p->closed) {
                    return;
                }
                p->reports.push_back(std::move(report));
                if (!p->posted) {
                    p->posted = true;
                    lock.unlock();
                    auto ticket = std::make_shared<DrainTicket>(p);
                    dispatch::RunLoop::main().async([weak, ticket] {
                        ticket->ran = true;
                        drain(weak, ticket->pending);
                    });
                }
            };
            Source::Sink sink;
            sink.location = [add](const Location& l) { add(l); };
            sink.heading = [add](const Heading& h) { add(h); };
            sink.failure = [add](const LocationError& e) { add(e); };
            sink.finished = [add] { add(Finished{}); };
            subscription = source->subscribe(std::move(sink));
        } else if (!listen && subscription) {
            // Closed first: a paced source waiting for room in it gives up, so the
            // unsubscription does not wait for the main queue.
            pending->close();
            subscription.reset();
            pending.reset();
        }
    }

    static void drain(const std::weak_ptr<LocationManager>& weak,
                      const std::shared_ptr<Pending>& p) {
        std::deque<Report> reports;
        {
            std::lock_guard lock(p->mutex);
            reports.swap(p->reports);
            p->posted = false;
        }
        p->room.notify_all();
        if (auto manager = weak.lock()) {
            manager->impl_->deliver(*manager, reports, p);
        }
    }

    // What deliver() reads of the manager, taken under the lock once and again after each
    // delegate call (which may change it), rather than once per report.
    struct Settings {
        bool closed = false, wantsLocation = false, wantsHeading = false;
        double distanceFilter = kDistanceFilterNone;
        std::shared_ptr<LocationManagerDelegate> delegate;
    };
    Settings settings(const std::shared_ptr<Pending>& p) {
        Settings s;
        s.closed = p->isClosed();
        std::lock_guard lock(mutex);
        s.wantsLocation = wantsLocation;
        s.wantsHeading = wantsHeading;
        s.distanceFilter = distanceFilter;
        s.delegate = delegate.lock();
        return s;
    }

    // On the main queue. The delegate may stop updates from inside a call: what remains of
    // the batch is then dropped.
    void deliver(LocationManager& owner, std::deque<Report>& reports,
                 const std::shared_ptr<Pending>& p) {
        Settings s = settings(p);
        std::vector<Location> batch;
        std::optional<Location> base;
        {
            std::lock_guard lock(mutex);
            base = location;
        }
        auto flush = [&] {
            if (batch.empty() || s.closed) {
                batch.clear();
                return;
            }
            std::vector<Location> delivered;
            delivered.swap(batch);
            if (!s.wantsLocation) {
                return;
            }
            {
                std::lock_guard lock(mutex);
                location = delivered.back();
            }
            if (s.delegate) {
                s.delegate->didUpdateLocations(owner, delivered);
                s = settings(p);
            }
        };
        for (Report& r : reports) {
            if (s.closed) {
                return;
            }
            if (auto* l = std::get_if<Location>(&r)) {
                if (l->horizontalAccuracy < 0 ||
                    (s.distanceFilter > 0 && base &&
                     distanceMeters(base->coordinate, l->coordinate) < s.distanceFilter)) {
                    continue;
                }
                base = *l;
                batch.push_back(*l);
                continue;
            }
            flush();
            if (s.closed) {
                return;
            }
            if (auto* h = std::get_if<Heading>(&r)) {
                {
                    std::lock_guard lock(mutex);
                    if (!s.wantsHeading || !passesHeadingFilter(*h)) {
                        continue;
                    }
                    heading = *h;
                }
                if (s.delegate) {
                    s.delegate->didUpdateHeading(owner, *h);
                }
            } else if (auto* e = std::get_if<LocationError>(&r)) {
                if (s.delegate) {
                    s.delegate->didFailWithError(owner, *e);
                }
            } else if (s.delegate) {
                s.delegate->didFinish(owner);
            }
            s = settings(p);
        }
        flush();
    }

    // REQUIRES: mutex held.
    bool passesHeadingFilter(const Heading& h) const {
        if (!heading || headingFilter <= 0 || reliable(*heading) != reliable(h)) {
            return true;
        }
        return turn(heading->magneticHeading, h.magneticHeading) >= headingFilter ||
               ((heading->trueHeading >= 0) != (h.trueHeading >= 0)) ||
               (h.trueHeading >= 0 && turn(heading->trueHeading, h.trueHeading) >= headingFilter);
    }
};

// Authorisation ------------------------------------------------------------------------------

namespace {

struct Authorization {
    std::mutex mutex;
    AuthorizationStatus status = AuthorizationStatus::NotDetermined;
    LocationManager::AuthorizationHandler handler;
    bool asking = false;
    std::uint64_t round = 0;  // a reset makes earlier answers void
    std::vector<std::weak_ptr<LocationManager>> managers;
};

Authorization& authorization() {
    static Authorization* const a = new Authorization();
    return *a;
}

}  // namespace

AuthorizationStatus LocationManager::authorizationStatus() {
    std::lock_guard lock(authorization().mutex);
    return authorization().status;
}

void LocationManager::setAuthorizationHandler(AuthorizationHandler handler) {
    std::lock_guard lock(authorization().mutex);
    authorization().handler = std::move(handler);
}

void LocationManager::resetAuthorizationForTesting() {
    std::lock_guard lock(authorization().mutex);
    Authorization& a = authorization();
    a.status = AuthorizationStatus::NotDetermined;
    a.handler = nullptr;
    a.asking = false;
    ++a.round;
}

void LocationManager::requestWhenInUseAuthorization() {
    Authorization& a = authorization();
    std::unique_lock lock(a.mutex);
    if (a.status != AuthorizationStatus::NotDetermined || a.asking) {
        return;
    }
    if (!a.handler) {
        a.status = AuthorizationStatus::AuthorizedWhenInUse;
        lock.unlock();
        authorizationChanged(AuthorizationStatus::AuthorizedWhenInUse);
        return;
    }
    a.asking = true;
    auto handler = a.handler;
    std::uint64_t round = a.round;
    lock.unlock();
    dispatch::RunLoop::main().async([handler, round] {
        auto answered = std::make_shared<std::once_flag>();
        handler([answered, round](bool granted) {
            std::call_once(*answered, [granted, round] {
                Authorization& auth = authorization();
                AuthorizationStatus status = granted ? AuthorizationStatus::AuthorizedWhenInUse
                                                     : AuthorizationStatus::Denied;
                {
                    std::lock_guard guard(auth.mutex);
                    if (auth.round != round) {
                        return;
                    }
                    auth.asking = false;
                    auth.status = status;
                }
                authorizationChanged(status);
            });
        });
    });
}

void LocationManager::authorizationChanged(AuthorizationStatus status) {
    std::vector<std::shared_ptr<LocationManager>> managers;
    {
        Authorization& a = authorization();
        std::lock_guard lock(a.mutex);
        std::erase_if(a.managers, [](const auto& w) { return w.expired(); });
        for (const auto& w : a.managers) {
            if (auto m = w.lock()) {
                managers.push_back(std::move(m));
            }
        }
    }
    for (const auto& m : managers) {
        bool denied = false;
        {
            std::lock_guard lock(m->impl_->mutex);
            denied = status == AuthorizationStatus::Denied &&
                     (m->impl_->wantsLocation || m->impl_->wantsHeading);
        }
        // Posted before the subscription changes, so the delegate hears of the new status
        // before the first report it brings.
        std::weak_ptr<LocationManager> weak = m;
        dispatch::RunLoop::main().async([weak, status, denied] {
            auto manager = weak.lock();
            if (!manager) {
                return;
            }
            if (auto d = manager->delegate()) {
                d->didChangeAuthorizationStatus(*manager, status);
            }
            if (auto d = manager->delegate(); d && denied) {
                d->didFailWithError(
                    *manager, {ErrorCode::Denied, "the application may not use the location"});
            }
        });
        std::lock_guard lock(m->impl_->mutex);
        m->impl_->update(status);
    }
}

// Manager ------------------------------------------------------------------------------------

std::shared_ptr<LocationManager> LocationManager::create(std::shared_ptr<Source> source) {
    std::shared_ptr<LocationManager> m(
        new LocationManager(source ? std::move(source) : Source::shared()));
    m->impl_->self = m;
    std::lock_guard lock(authorization().mutex);
    authorization().managers.push_back(m);
    return m;
}

LocationManager::LocationManager(std::shared_ptr<Source> source) : impl_(std::make_shared<Impl>()) {
    impl_->source = std::move(source);
}

LocationManager::~LocationManager() {
    std::lock_guard lock(impl_->mutex);
    impl_->wantsLocation = impl_->wantsHeading = false;
    impl_->update(AuthorizationStatus::NotDetermined);
}

std::shared_ptr<LocationManagerDelegate> LocationManager::delegate() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->delegate.lock();
}

void LocationManager::setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) {
    std::lock_guard lock(impl_->mutex);
    impl_->delegate = std::move(delegate);
}

const std::shared_ptr<Source>& LocationManager::source() const {
    return impl_->source;
}

double LocationManager::desiredAccuracy() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->desiredAccuracy;
}

void LocationManager::setDesiredAccuracy(double metres) {
    std::lock_guard lock(impl_->mutex);
    impl_->desiredAccuracy = metres;
}

double LocationManager::distanceFilter() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->distanceFilter;
}

void LocationManager::setDistanceFilter(double metres) {
    std::lock_guard lock(impl_->mutex);
    impl_->distanceFilter = metres;
}

double LocationManager::headingFilter() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->headingFilter;
}

void LocationManager::setHeadingFilter(double degrees) {
    std::lock_guard lock(impl_->mutex);
    impl_->headingFilter = degrees;
}

namespace {

// Without a handler to decide, asking is granting: a manager that starts without asking
// first is granted then.
void grantUnlessAHandlerDecides(LocationManager& manager) {
    bool ask = false;
    {
        std::lock_guard lock(authorization().mutex);
        ask = authorization().status == AuthorizationStatus::NotDetermined &&
              !authorization().handler;
    }
    if (ask) {
        manager.requestWhenInUseAuthorization();
    }
}

void postDenied(const std::weak_ptr<LocationManager>& weak) {
    dispatch::RunLoop::main().async([weak] {
        auto manager = weak.lock();
        if (!manager) {
            return;
        }
        if (auto d = manager->delegate()) {
            d->didFailWithError(*manager,
                                {ErrorCode::Denied, "the application may not use the location"});
        }
    });
}

}  // namespace

void LocationManager::startUpdatingLocation() {
    grantUnlessAHandlerDecides(*this);
    // The status is read under the manager's lock: a change of it that lands meanwhile then
    // finds this manager's wish already set.
    std::lock_guard lock(impl_->mutex);
    AuthorizationStatus status = authorizationStatus();
    impl_->wantsLocation = true;
    impl_->update(status);
    if (status == AuthorizationStatus::Denied || status == AuthorizationStatus::Restricted) {
        postDenied(impl_->self);
    }
}

void LocationManager::stopUpdatingLocation() {
    // The status is read under the manager's lock: a change of it that lands meanwhile then
    // finds this manager's wish already set.
    std::lock_guard lock(impl_->mutex);
    AuthorizationStatus status = authorizationStatus();
    impl_->wantsLocation = false;
    impl_->update(status);
}

void LocationManager::startUpdatingHeading() {
    grantUnlessAHandlerDecides(*this);
    // The status is read under the manager's lock: a change of it that lands meanwhile then
    // finds this manager's wish already set.
    std::lock_guard lock(impl_->mutex);
    AuthorizationStatus status = authorizationStatus();
    impl_->wantsHeading = true;
    impl_->update(status);
    if (status == AuthorizationStatus::Denied || status == AuthorizationStatus::Restricted) {
        postDenied(impl_->self);
    }
}

void LocationManager::stopUpdatingHeading() {
    // The status is read under the manager's lock: a change of it that lands meanwhile then
    // finds this manager's wish already set.
    std::lock_guard lock(impl_->mutex);
    AuthorizationStatus status = authorizationStatus();
    impl_->wantsHeading = false;
    impl_->update(status);
}

std::optional<Location> LocationManager::location() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->location;
}

std::optional<Heading> LocationManager::heading() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->heading;
}

}  // namespace sorvan::location
