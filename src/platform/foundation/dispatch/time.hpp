// Time as the queues of this module see it: the steady clock's tick, the real clock as a Clock,
// and seconds turned into ticks. Internal to the dispatch module.
#pragma once

#include <chrono>
#include <memory>

#include "sorvan/platform/foundation/dispatch.hpp"

namespace sorvan::dispatch::detail {

using SteadyClock = std::chrono::steady_clock;
using TimePoint = SteadyClock::time_point;

/// Seconds as steady-clock ticks: NaN and negatives are zero, and anything beyond a century is
/// a century, so that "never" cannot overflow a time point.
SteadyClock::duration toSteady(Duration d);

/// The process's one real clock.
const std::shared_ptr<Clock>& realClock();

}  // namespace sorvan::dispatch::detail
