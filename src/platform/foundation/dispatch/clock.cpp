// The real clock, the manual clock tests advance by hand, and the conversion of seconds.
#include <algorithm>
#include <mutex>

#include "foundation/dispatch/time.hpp"

namespace sorvan::dispatch {

namespace detail {

SteadyClock::duration toSteady(Duration d) {
    double s = d.count();
    if (!(s > 0)) {
        return SteadyClock::duration::zero();
    }
    s = std::min(s, 100.0 * 365 * 24 * 3600);
    return std::chrono::duration_cast<SteadyClock::duration>(Duration(s));
}

namespace {

class RealClock final : public Clock {
  public:
    TimePoint now() const override { return SteadyClock::now(); }
};

}  // namespace

const std::shared_ptr<Clock>& realClock() {
    static const std::shared_ptr<Clock> clock = std::make_shared<RealClock>();
    return clock;
}

}  // namespace detail

struct ManualClock::Impl {
    mutable std::mutex mutex;
    detail::TimePoint now = detail::SteadyClock::now();
};

ManualClock::ManualClock() : impl_(std::make_shared<Impl>()) {}

detail::TimePoint ManualClock::now() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->now;
}

void ManualClock::advance(Duration by) {
    std::lock_guard lock(impl_->mutex);
    impl_->now += detail::toSteady(by);
}

}  // namespace sorvan::dispatch
