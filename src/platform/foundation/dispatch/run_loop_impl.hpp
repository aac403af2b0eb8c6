// What the run loop and its timers share. Internal to the dispatch module.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "foundation/dispatch/scheduler.hpp"

namespace sorvan::dispatch {

struct RunLoop::Impl {
    detail::Scheduler scheduler;

    // Who drives the loop, and the timers it keeps alive.
    mutable std::mutex mutex;
    std::thread::id driver;                     // guarded by mutex
    int driveDepth = 0;                         // guarded by mutex
    std::optional<std::thread::id> lastDriver;  // guarded by mutex
    std::set<std::shared_ptr<Timer>> timers;    // guarded by mutex

    bool acquire();
    void release();
    bool hasTimer(const std::shared_ptr<Timer>& timer) const;

    // Holds the driver role for the length of one driving call, however it ends.
    class DriveGuard {
      public:
        explicit DriveGuard(Impl* impl) : impl_(impl), owns_(impl->acquire()) {}
        ~DriveGuard() {
            if (owns_) {
                impl_->release();
            }
        }
        bool owns() const { return owns_; }
        DriveGuard(const DriveGuard&) = delete;
        DriveGuard& operator=(const DriveGuard&) = delete;

      private:
        Impl* impl_;
        bool owns_;
    };
};

}  // namespace sorvan::dispatch
