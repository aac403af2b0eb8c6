// The counting semaphore, on one futex word.
//
// One 64-bit word holds the count (low half, also the futex word) and the number of sleeping
// waiters (high half). signal() is a single atomic add, plus a wake-up only when someone
// sleeps; after the add it touches nothing of the semaphore but the futex address, so the
// waiter may destroy the semaphore as soon as it returns. A waiter that finds the count at
// zero looks again a few times before it sleeps: a hand-over between two running threads is
// often over by then, and costs no sleep and no wake-up.
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <climits>
#include <cstdint>
#include <optional>

#include "foundation/dispatch/time.hpp"

namespace sorvan::dispatch {

namespace {

using detail::SteadyClock;
using detail::TimePoint;

constexpr std::uint64_t kCountMask = 0xffffffffull;
constexpr std::uint64_t kOneWaiter = 1ull << 32;
// Looks before sleeping: this many with a pause of the processor, then a few giving way to
// other threads.
constexpr int kPauses = 12;
constexpr int kYields = 4;

std::uint64_t countOf(std::uint64_t word) {
    return word & kCountMask;
}

void pause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

}  // namespace

struct Semaphore::Impl {
    std::atomic<std::uint64_t> word{0};

    std::uint32_t* futexWord() {
        static_assert(sizeof(std::atomic<std::uint64_t>) == sizeof(std::uint64_t));
        auto* halves = reinterpret_cast<std::uint32_t*>(&word);
        return std::endian::native == std::endian::little ? halves : halves + 1;
    }

    // Sleeps while the count is zero, at most until the timeout (when given).
    void sleep(const timespec* timeout) {
        ::syscall(SYS_futex, futexWord(), FUTEX_WAIT_PRIVATE, 0, timeout, nullptr, 0);
    }

    bool tryTake(std::uint64_t& seen, std::uint64_t alsoRemove) {
        while (countOf(seen) > 0) {
            if (word.compare_exchange_weak(seen, seen - 1 - alsoRemove)) {
                return true;
            }
        }
        return false;
    }

    // Looks for a count a few times without sleeping.
    bool spin() {
        for (int i = 0; i < kPauses + kYields; ++i) {
            if (i < kPauses) {
                pause();
            } else {
                sched_yield();
            }
            std::uint64_t seen = word.load(std::memory_order_relaxed);
            if (countOf(seen) > 0 && tryTake(seen, 0)) {
                return true;
            }
        }
        return false;
    }

    // Takes one from the count, waiting until the deadline (none: for ever).
    bool take(std::optional<TimePoint> deadline) {
        std::uint64_t seen = word.load();
        if (tryTake(seen, 0)) {
            return true;
        }
        if (spin()) {
            return true;
        }
        seen = word.fetch_add(kOneWaiter) + kOneWaiter;
        for (;;) {
            if (tryTake(seen, kOneWaiter)) {
                return true;
            }
            if (!deadline) {
                sleep(nullptr);
            } else {
                auto left = *deadline - SteadyClock::now();
                if (left <= SteadyClock::duration::zero()) {
                    // Leaves without taking only while the count is zero, so that no signal's
                    // wake-up is spent on a waiter that gives up.
                    seen = word.load();
                    for (;;) {
                        if (tryTake(seen, kOneWaiter)) {
                            return true;
                        }
                        if (word.compare_exchange_weak(seen, seen - kOneWaiter)) {
                            return false;
                        }
                    }
                }
                auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
                timespec ts{static_cast<time_t>(ns / 1'000'000'000),
                            static_cast<long>(ns % 1'000'000'000)};
                sleep(&ts);
            }
            seen = word.load();
        }
    }
};

Semaphore::Semaphore(long value) : impl_(std::make_unique<Impl>()) {
    impl_->word = static_cast<std::uint64_t>(std::clamp<long>(value, 0, INT_MAX));
}

Semaphore::~Semaphore() = default;

void Semaphore::signal() {
    Impl& impl = *impl_;
    std::uint32_t* address = impl.futexWord();
    if (impl.word.fetch_add(1) >= kOneWaiter) {
        ::syscall(SYS_futex, address, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
}

void Semaphore::wait() {
    impl_->take(std::nullopt);
}

bool Semaphore::waitFor(Duration timeout) {
    auto d = detail::toSteady(timeout);
    if (d == SteadyClock::duration::zero()) {
        std::uint64_t seen = impl_->word.load();
        return impl_->tryTake(seen, 0);
    }
    return impl_->take(SteadyClock::now() + d);
}

}  // namespace sorvan::dispatch
