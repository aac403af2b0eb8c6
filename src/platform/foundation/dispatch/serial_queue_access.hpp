// What the URL session needs of a serial queue beyond its public face: running a task in the
// queue's place on a thread that happens to be at hand. Internal to the platform layer.
#pragma once

#include "sorvan/platform/foundation/dispatch.hpp"

namespace sorvan::dispatch {

struct SerialQueueAccess {
    /// Runs task on the calling thread as the queue's own, when the queue is idle (nothing
    /// queued, nothing running): isCurrent() is true inside it, and no other task of the
    /// queue starts until it returns. Returns false, with task untouched, when the queue is
    /// busy or being destroyed. The task may destroy the queue.
    static bool runIfIdle(SerialQueue& queue, Task& task);
};

}  // namespace sorvan::dispatch
