#include "progress.hpp"

#include <unistd.h>

#include <cstdio>

#include "sorvan/platform/foundation/dispatch.hpp"

namespace sorvan::cli {
namespace {

// Work done within this shows no line at all; after it, the line is redrawn this often.
constexpr auto kFirstDraw = std::chrono::milliseconds(700);
constexpr auto kRedraw = std::chrono::milliseconds(250);

}  // namespace

ProgressLine::ProgressLine(const Context& context,
                           std::function<std::string(double seconds)> status)
    : prefix_("sorvan " + context.name + ": "), status_(std::move(status)) {
    if (context.quiet || ::isatty(STDERR_FILENO) != 1) {
        return;
    }
    timer_ = dispatch::Timer::scheduled(kRedraw, true, [this](dispatch::Timer&) { draw(); });
}

ProgressLine::~ProgressLine() {
    finish();
}

void ProgressLine::draw() {
    auto elapsed = std::chrono::steady_clock::now() - started_;
    if (elapsed < kFirstDraw) {
        return;
    }
    std::string line = "\r" + prefix_ + status_(std::chrono::duration<double>(elapsed).count()) +
                       "\033[K";  // erases what a longer line left behind
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
    shown_ = true;
}

void ProgressLine::finish() {
    if (timer_) {
        timer_->invalidate();
        timer_.reset();
    }
    if (shown_) {
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
        shown_ = false;
    }
}

}  // namespace sorvan::cli
