// Costs of the threading and URL-loading layer: queue hops, URL parsing and encoding, and
// transfers against the embedded service on loopback (one at a time over a kept-alive
// connection, many in flight, and answers taken from the URL cache).
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/url.hpp"
#include "sorvan/platform/foundation/url_session.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace {

using namespace sorvan;

server::EmbeddedService& service() {
    static server::EmbeddedService* s = [] {
        auto home = std::filesystem::temp_directory_path() / "sorvan-bench-url-session";
        std::filesystem::create_directories(home);
        ::setenv("SORVAN_HOME", home.c_str(), 1);
        auto* svc = new server::EmbeddedService();
        std::string tile(20 * 1024, 'x');  // about the size of a map tile
        svc->route("/tile", [tile](const server::Request&) { return server::Response::png(tile); });
        svc->route("/small", [](const server::Request&) { return server::Response::json("{}"); });
        return svc;
    }();
    return *s;
}

net::URL url(const std::string& path) {
    return *net::URL::fromString(service().origin() + path);
}

void waitAll(net::URLSession& session, const net::URLRequest& request, int count) {
    std::atomic<int> left{count};
    dispatch::Semaphore done;
    for (int i = 0; i < count; ++i) {
        session.dataTask(request, [&](const auto& data, const auto&, const auto& error) {
            if (error || !data) {
                std::abort();
            }
            if (--left == 0) {
                done.signal();
            }
        });
    }
    done.wait();
}

void BM_RunLoopAsyncAndDrain(benchmark::State& state) {
    auto& loop = dispatch::RunLoop::main();
    int sum = 0;
    for (auto _ : state) {
        for (int i = 0; i < 100; ++i) {
            loop.async([&sum] { ++sum; });
        }
        loop.drain();
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * 100);
}
BENCHMARK(BM_RunLoopAsyncAndDrain);

void BM_SerialQueueSyncRoundTrip(benchmark::State& state) {
    dispatch::SerialQueue queue("bench.sync");
    for (auto _ : state) {
        queue.sync([] {});
    }
}
BENCHMARK(BM_SerialQueueSyncRoundTrip);

void BM_URLFromString(benchmark::State& state) {
    const std::string text =
        "https://ms.example/mmmap/img.php?zoom=15&x=25534&y=15069&mode=normal&key=0123456789";
    for (auto _ : state) {
        benchmark::DoNotOptimize(net::URL::fromString(text));
    }
}
BENCHMARK(BM_URLFromString);

void BM_PercentEncodeThaiQuery(benchmark::State& state) {
    const std::string query = "keyword=ร้านกาแฟ สยามสแควร์&lat=13.745000&lon=100.534000&locale=th";
    for (auto _ : state) {
        benchmark::DoNotOptimize(net::percentEncodeQuery(query));
    }
}
BENCHMARK(BM_PercentEncodeThaiQuery);

// One request at a time: the latency of a blocking tile fetch over a kept-alive connection.
void BM_SessionSequentialTile(benchmark::State& state) {
    net::URLRequest request(url("/tile"));
    for (auto _ : state) {
        waitAll(net::URLSession::shared(), request, 1);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SessionSequentialTile)->UseRealTime();

// Many requests in flight at once on the one network thread.
void BM_SessionConcurrentTiles(benchmark::State& state) {
    net::URLRequest request(url("/tile"));
    auto n = static_cast<int>(state.range(0));
    for (auto _ : state) {
        waitAll(net::URLSession::shared(), request, n);
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_SessionConcurrentTiles)->Arg(16)->Arg(64)->UseRealTime();

// Answers from the URL cache: no network, only the hop to the delegate queue.
void BM_SessionCacheHit(benchmark::State& state) {
    net::URLRequest request(url("/small"));
    waitAll(net::URLSession::shared(), request, 1);  // stores it
    request.setCachePolicy(net::CachePolicy::ReturnCacheDataElseLoad);
    for (auto _ : state) {
        waitAll(net::URLSession::shared(), request, 1);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SessionCacheHit)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
