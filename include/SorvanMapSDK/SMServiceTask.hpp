// SMServiceTask: a handle on one service call of SorvanMapView (search, suggest, route, path),
// through which the host may cancel the call.
//
// Ownership: each call returns its task shared; the call holds a reference of its own until it
// is over, so dropping the handle does not cancel anything (the calls stay fire-and-forget).
// Thread-safe.
//
//   auto task = view->searchKeyword("wat", nullptr, [](const auto& pins, const auto& error) {
//       // on the URL session's queue, unless the task was cancelled first
//   });
//   ...
//   task->cancel();  // from here on the block does not run
#pragma once

#include <memory>

#include "sorvan/platform/export.hpp"

namespace sorvan {

namespace services {
struct ServiceTaskAccess;
}

class SORVAN_EXPORT SMServiceTask {
  public:
    /// Ends the call. Once cancel() has returned, the call's result block or delegate callback
    /// does not run, even when the answer has already arrived and waits on the session's queue
    /// or the hop to the main queue is already posted, and the call writes no log line: a
    /// cancellation is not a failure, so nothing reports it. Requests of the call still in
    /// flight are ended (for a route, the path request that follows the guide too).
    ///
    /// A block or callback of the call that is running on another thread when cancel() is
    /// called is waited for, so cancel() must not be called while holding a lock that block
    /// waits for. From inside the call's own block or callback, cancel() returns at once.
    /// Cancelling again, or after the call is over, does nothing.
    void cancel();
    /// True once cancel() has been called.
    bool isCancelled() const;

    ~SMServiceTask();
    SMServiceTask(const SMServiceTask&) = delete;
    SMServiceTask& operator=(const SMServiceTask&) = delete;

  private:
    friend struct services::ServiceTaskAccess;
    SMServiceTask();
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace sorvan
