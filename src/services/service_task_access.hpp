// What the service clients need of SMServiceTask beyond its public face: making one, running a
// call's steps only while it is not cancelled, and handing it the request in flight. Internal.
#pragma once

#include <memory>

#include "SorvanMapSDK/SMServiceTask.hpp"
#include "sorvan/platform/foundation/url_session.hpp"

namespace sorvan::services {

struct ServiceTaskAccess {
    static std::shared_ptr<SMServiceTask> create();
    /// Keeps the call's request in flight, for cancel() to end; ends it at once when the call
    /// is already cancelled. A null transfer is ignored.
    static void attach(SMServiceTask& task, std::shared_ptr<net::DataTask> transfer);
    /// Marks the calling thread as running a step of the call, unless the call is cancelled.
    /// Returns false for a cancelled call. A step begun must be ended with end().
    static bool begin(SMServiceTask& task);
    static void end(SMServiceTask& task);
};

/// One step of a call that delivers something (reads an answer, logs, calls a block): while
/// it lives, cancel() waits for it; it does not begin at all once the call is cancelled.
///
///   Step step(*task);
///   if (!step) return;  // cancelled: nothing is read, logged or called
class Step {
  public:
    explicit Step(SMServiceTask& task) : task_(task), begun_(ServiceTaskAccess::begin(task)) {}
    ~Step() {
        if (begun_) {
            ServiceTaskAccess::end(task_);
        }
    }
    explicit operator bool() const { return begun_; }
    Step(const Step&) = delete;
    Step& operator=(const Step&) = delete;

  private:
    SMServiceTask& task_;
    bool begun_;
};

}  // namespace sorvan::services
