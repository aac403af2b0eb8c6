#include "sorvan/platform/foundation/log.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::log {
namespace {

std::mutex& sinkMutex() {
    static std::mutex m;
    return m;
}
Sink& currentSink() {
    static Sink sink;
    return sink;
}

}  // namespace

void write(std::string_view line) {
    Sink sink;
    {
        std::lock_guard lock(sinkMutex());
        sink = currentSink();
    }
    if (sink) {
        sink(line);
        return;
    }
    // One fwrite per line keeps lines from several threads whole.
    std::string out(line);
    out.push_back('\n');
    std::fwrite(out.data(), 1, out.size(), stderr);
}

void writef(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string line = vstrformat(format, args);
    va_end(args);
    write(line);
}

Sink setSink(Sink sink) {
    std::lock_guard lock(sinkMutex());
    Sink previous = std::move(currentSink());
    currentSink() = std::move(sink);
    return previous;
}

struct Capture::Impl {
    mutable std::mutex mutex;
    std::vector<std::string> lines;
    Sink previous;
};

Capture::Capture() : impl_(std::make_shared<Impl>()) {
    std::weak_ptr<Impl> weak = impl_;
    impl_->previous = setSink([weak](std::string_view line) {
        if (auto impl = weak.lock()) {
            std::lock_guard lock(impl->mutex);
            impl->lines.emplace_back(line);
        }
    });
}

Capture::~Capture() {
    setSink(std::move(impl_->previous));
}

std::vector<std::string> Capture::lines() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->lines;
}

void Capture::clear() {
    std::lock_guard lock(impl_->mutex);
    impl_->lines.clear();
}

}  // namespace sorvan::log
