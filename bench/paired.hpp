// Paired timing for the benchmarks that compare ways of doing the same work in one run: each
// call is timed on its own, the ways take turns call by call, and each way is summed up by the
// median of its calls. On a machine shared with other work, a call that loses the processor
// then counts as one slow call instead of dragging a mean.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <utility>
#include <vector>

namespace sorvan::bench {

class PairedTimer {
  public:
    explicit PairedTimer(std::size_t ways) : samples_(ways) {}

    /// Times one call of way; returns what the call returned.
    template <typename Call>
    bool time(std::size_t way, Call&& call) {
        auto start = Clock::now();
        bool ok = std::forward<Call>(call)();
        samples_[way].push_back(std::chrono::duration<double>(Clock::now() - start).count());
        return ok;
    }

    /// The median call of way, in microseconds (0 without calls).
    double medianMicros(std::size_t way) {
        auto& s = samples_[way];
        if (s.empty()) {
            return 0;
        }
        auto middle = s.begin() + static_cast<std::ptrdiff_t>(s.size() / 2);
        std::nth_element(s.begin(), middle, s.end());
        return *middle * 1e6;
    }

  private:
    using Clock = std::chrono::steady_clock;
    std::vector<std::vector<double>> samples_;
};

}  // namespace sorvan::bench
