// Costs of the dispatch layer: dispatch::Semaphore (one futex word, a short look before it
// sleeps) against std::counting_semaphore and against the same futex word without the look,
// and a hand-over to a serial queue's thread and back.
//
//   build-release/bench/bench_dispatch --benchmark_repetitions=5
//       --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <bit>
#include <chrono>
#include <cstdint>
#include <semaphore>
#include <thread>

#include "sorvan/platform/foundation/dispatch.hpp"

namespace {

using namespace sorvan;

// A counting semaphore on one 64-bit word: the count in the low half (also the futex word),
// the number of sleepers in the high half. A signal is one atomic add, and a wake-up only when
// someone sleeps; a waiter that finds nothing sleeps at once.
class FutexSemaphore {
  public:
    void signal() {
        std::uint32_t* address = futexWord();
        if (word_.fetch_add(1) >= kOneWaiter) {
            ::syscall(SYS_futex, address, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
        }
    }
    void wait() {
        std::uint64_t seen = word_.load();
        if (tryTake(seen, 0)) {
            return;
        }
        seen = word_.fetch_add(kOneWaiter) + kOneWaiter;
        for (;;) {
            if (tryTake(seen, kOneWaiter)) {
                return;
            }
            ::syscall(SYS_futex, futexWord(), FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
            seen = word_.load();
        }
    }
    bool tryWait() {
        std::uint64_t seen = word_.load();
        return tryTake(seen, 0);
    }

  private:
    static constexpr std::uint64_t kOneWaiter = 1ull << 32;
    std::uint32_t* futexWord() {
        auto* halves = reinterpret_cast<std::uint32_t*>(&word_);
        return std::endian::native == std::endian::little ? halves : halves + 1;
    }
    bool tryTake(std::uint64_t& seen, std::uint64_t alsoRemove) {
        while ((seen & 0xffffffffull) > 0) {
            if (word_.compare_exchange_weak(seen, seen - 1 - alsoRemove)) {
                return true;
            }
        }
        return false;
    }
    std::atomic<std::uint64_t> word_{0};
};

// The calls each kind offers, under one name.
struct Std {
    std::counting_semaphore<> s{0};
    void signal() { s.release(); }
    void wait() { s.acquire(); }
    bool tryWait() { return s.try_acquire(); }
};
struct Futex {
    FutexSemaphore s;
    void signal() { s.signal(); }
    void wait() { s.wait(); }
    bool tryWait() { return s.tryWait(); }
};
struct Dispatch {
    dispatch::Semaphore s;
    void signal() { s.signal(); }
    void wait() { s.wait(); }
    bool tryWait() { return s.waitFor(dispatch::Duration(0)); }
};

// A signal and a wait on one thread: the cost when nobody sleeps.
template <typename S>
void SignalThenWait(benchmark::State& state) {
    S s;
    for (auto _ : state) {
        s.signal();
        s.wait();
    }
}

// A wait that finds nothing.
template <typename S>
void TryWaitEmpty(benchmark::State& state) {
    S s;
    for (auto _ : state) {
        benchmark::DoNotOptimize(s.tryWait());
    }
}

// Two threads hand a token back and forth: each round trip is two hand-overs.
template <typename S>
void PingPong(benchmark::State& state) {
    S ping, pong;
    std::atomic<bool> stop{false};
    std::thread partner([&] {
        for (;;) {
            ping.wait();
            if (stop.load(std::memory_order_relaxed)) {
                return;
            }
            pong.signal();
        }
    });
    for (auto _ : state) {
        ping.signal();
        pong.wait();
    }
    stop = true;
    ping.signal();
    partner.join();
}

BENCHMARK(SignalThenWait<Std>)->Name("SignalThenWait/std");
BENCHMARK(SignalThenWait<Futex>)->Name("SignalThenWait/futex");
BENCHMARK(SignalThenWait<Dispatch>)->Name("SignalThenWait/dispatch");
BENCHMARK(TryWaitEmpty<Std>)->Name("TryWaitEmpty/std");
BENCHMARK(TryWaitEmpty<Futex>)->Name("TryWaitEmpty/futex");
BENCHMARK(TryWaitEmpty<Dispatch>)->Name("TryWaitEmpty/dispatch");
BENCHMARK(PingPong<Std>)->Name("PingPong/std")->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(PingPong<Futex>)->Name("PingPong/futex")->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(PingPong<Dispatch>)
    ->Name("PingPong/dispatch")
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

// A task handed to a serial queue's thread and its answer waited for.
void SerialQueueSync(benchmark::State& state) {
    dispatch::SerialQueue queue("bench.sync");
    for (auto _ : state) {
        queue.sync([] {});
    }
}
BENCHMARK(SerialQueueSync)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
