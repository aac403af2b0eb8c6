// The tile cache appends one name and drops the oldest after every download; the cost of that
// pair must not grow with the list's length.
#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <filesystem>

#include "sorvan/platform/foundation/defaults.hpp"

namespace {

void AppendAndDropOldest(benchmark::State& state) {
    char dir[] = "/tmp/sorvan-bench-XXXXXX";
    if (!mkdtemp(dir)) {
        state.SkipWithError("no temporary directory");
        return;
    }
    auto store = sorvan::Defaults::open(std::string(dir) + "/bench.sqlite");
    std::vector<std::string> initial;
    for (int i = 0; i < state.range(0); ++i) {
        initial.push_back("ABCDEF0123456789ABCDEF0123456789AB            " + std::to_string(i));
    }
    store->setStringArray(initial, "tileList");
    long i = 0;
    for (auto _ : state) {
        store->appendToStringArray("name" + std::to_string(i++), "tileList");
        store->removeFirstOfStringArray(1, "tileList");
    }
    store.reset();
    std::filesystem::remove_all(dir);
}
BENCHMARK(AppendAndDropOldest)->Arg(10)->Arg(10001)->Arg(100000);

}  // namespace

BENCHMARK_MAIN();
