#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "services/service_task_access.hpp"

namespace sorvan {

struct SMServiceTask::Impl {
    mutable std::mutex mutex;
    std::condition_variable stepEnded;
    bool cancelled = false;                // guarded by mutex
    std::vector<std::thread::id> running;  // threads inside a step; guarded by mutex
    // The call's requests (a route has two); guarded by mutex.
    std::vector<std::shared_ptr<net::DataTask>> transfers;
};

SMServiceTask::SMServiceTask() : impl_(std::make_unique<Impl>()) {}

SMServiceTask::~SMServiceTask() = default;

void SMServiceTask::cancel() {
    std::vector<std::shared_ptr<net::DataTask>> transfers;
    {
        std::unique_lock lock(impl_->mutex);
        if (!impl_->cancelled) {
            impl_->cancelled = true;
            transfers.swap(impl_->transfers);
        }
        // A step on another thread may be about to call the block: it is let finish. A step
        // of this very thread is the caller itself, cancelling from inside its block.
        auto self = std::this_thread::get_id();
        impl_->stepEnded.wait(lock, [&] {
            return std::all_of(impl_->running.begin(), impl_->running.end(),
                               [&](std::thread::id id) { return id == self; });
        });
    }
    // Ended outside the lock: the session may complete them at once. Those already over
    // ignore it.
    for (const auto& transfer : transfers) {
        transfer->cancel();
    }
}

bool SMServiceTask::isCancelled() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->cancelled;
}

namespace services {

std::shared_ptr<SMServiceTask> ServiceTaskAccess::create() {
    return std::shared_ptr<SMServiceTask>(new SMServiceTask());
}

void ServiceTaskAccess::attach(SMServiceTask& task, std::shared_ptr<net::DataTask> transfer) {
    if (!transfer) {
        return;
    }
    {
        std::lock_guard lock(task.impl_->mutex);
        if (!task.impl_->cancelled) {
            task.impl_->transfers.push_back(std::move(transfer));
            return;
        }
    }
    transfer->cancel();
}

bool ServiceTaskAccess::begin(SMServiceTask& task) {
    std::lock_guard lock(task.impl_->mutex);
    if (task.impl_->cancelled) {
        return false;
    }
    task.impl_->running.push_back(std::this_thread::get_id());
    return true;
}

void ServiceTaskAccess::end(SMServiceTask& task) {
    {
        std::lock_guard lock(task.impl_->mutex);
        auto& running = task.impl_->running;
        auto it = std::find(running.begin(), running.end(), std::this_thread::get_id());
        if (it != running.end()) {
            running.erase(it);
        }
    }
    task.impl_->stepEnded.notify_all();
}

}  // namespace services
}  // namespace sorvan
