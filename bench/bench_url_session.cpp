// Costs of the threading and URL-loading layer: queue hops, URL parsing and encoding, and
// transfers against the embedded service on loopback (one at a time over a kept-alive
// connection, many in flight, and answers taken from the URL cache).
#include <benchmark/benchmark.h>

#include <curl/curl.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "paired.hpp"
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

// A blocking fetch through the session (on the calling thread) against plain libcurl on one
// kept-alive connection, paired: each round fetches the tile both ways, the order alternating;
// each way is summed up by its median fetch.
// With arg 1 the request asks the cache first (as the tile loader does) and every round asks
// for a new address, so each fetch misses the cache and stores its answer (the cache is
// emptied between batches, outside the timing).
void BM_BlockingFetchPaired(benchmark::State& state) {
    bool cacheFirst = state.range(0) != 0;
    CURL* curl = curl_easy_init();
    std::string body;
    curl_easy_setopt(
        curl, CURLOPT_WRITEFUNCTION, +[](char* p, size_t size, size_t n, void* out) {
            static_cast<std::string*>(out)->append(p, size * n);
            return size * n;
        });
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    bench::PairedTimer timer(2);
    std::size_t round = 0;
    for (auto _ : state) {
        std::string address = service().origin() + "/tile";
        if (cacheFirst) {
            static std::atomic<long> fresh{0};
            address += "?n=" + std::to_string(fresh++);
        }
        net::URLRequest request(*net::URL::fromString(address));
        if (cacheFirst) {
            request.setCachePolicy(net::CachePolicy::ReturnCacheDataElseLoad);
        }
        for (std::size_t k = 0; k < 2; ++k) {
            std::size_t way = (round + k) % 2;
            bool ok = timer.time(way, [&] {
                if (way == 0) {
                    body.clear();
                    curl_easy_setopt(curl, CURLOPT_URL, address.c_str());
                    return curl_easy_perform(curl) == CURLE_OK && !body.empty();
                }
                auto result = net::URLSession::shared().sendSynchronousRequest(request);
                return result.data && !result.data->empty();
            });
            if (!ok) {
                state.SkipWithError("no answer");
                curl_easy_cleanup(curl);
                return;
            }
        }
        ++round;
        if (cacheFirst && round % 128 == 0) {
            // Emptied now and then, so that the cache's disk writes stay out of the timing.
            state.PauseTiming();
            net::URLCache::shared().removeAllCachedResponses();
            state.ResumeTiming();
        }
    }
    curl_easy_cleanup(curl);
    double curlUs = timer.medianMicros(0), sessionUs = timer.medianMicros(1);
    state.counters["curl_us"] = curlUs;
    state.counters["session_us"] = sessionUs;
    state.counters["session/curl"] = curlUs / sessionUs;
}
BENCHMARK(BM_BlockingFetchPaired)->Arg(0)->Arg(1)->UseRealTime();

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
