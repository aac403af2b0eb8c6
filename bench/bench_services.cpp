// Search and routing through the kit's clients against plain libcurl fetching the very same
// answers from the embedded service, in one run. The difference is the client's own cost:
// request building, the session's thread hops, JSON decoding and building pins or a route.
//
//   build/bench/bench_services                    # all four, then the overhead summary
//   build/bench/bench_services --benchmark_min_time=2s
#include <curl/curl.h>

#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMRouteOptions.hpp"
#include "SorvanMapSDK/SMRouteResult.hpp"
#include "SorvanMapSDK/SMSearchOptions.hpp"
#include "services/answers.hpp"
#include "services/service_client.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace sorvan {
namespace {

constexpr map::Coordinate kNear{13.7462, 100.5347};
constexpr map::Coordinate kFrom{13.7462, 100.5347};
constexpr map::Coordinate kTo{13.6900, 100.7501};

server::EmbeddedService& service() {
    static server::EmbeddedService s;
    return s;
}

services::ServiceSettings settings() {
    services::ServiceSettings s;
    s.baseAddress = service().origin();
    s.locale = "en";
    s.key = "bench-key";
    s.bundleIdentifier = "org.sorvan.bench";
    return s;
}

const SMSearchOptions& searchOptions() {
    static const SMSearchOptions options = [] {
        SMSearchOptions o;
        o.setLocation(kNear);
        o.setSpan("5km");
        o.setLimit(20);
        return o;
    }();
    return options;
}

std::string urlOf(std::string_view path, const std::string& query) {
    return services::makeRequest(settings(), path, query)->url().absoluteString();
}

// One easy handle, kept alive across requests like the session's connections.
class Curl {
  public:
    Curl() : handle_(curl_easy_init()) {
        headers_ = curl_slist_append(nullptr, "Referer: sorvan://org.sorvan.bench");
        curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, headers_);
        curl_easy_setopt(handle_, CURLOPT_WRITEFUNCTION, &Curl::write);
        curl_easy_setopt(handle_, CURLOPT_WRITEDATA, &body_);
    }
    ~Curl() {
        curl_easy_cleanup(handle_);
        curl_slist_free_all(headers_);
    }
    Curl(const Curl&) = delete;
    Curl& operator=(const Curl&) = delete;

    const std::string& get(const std::string& url) {
        body_.clear();
        curl_easy_setopt(handle_, CURLOPT_URL, url.c_str());
        if (curl_easy_perform(handle_) != CURLE_OK) {
            body_.clear();
        }
        return body_;
    }

  private:
    static size_t write(char* data, size_t size, size_t count, void* user) {
        static_cast<std::string*>(user)->append(data, size * count);
        return size * count;
    }
    CURL* handle_;
    curl_slist* headers_;
    std::string body_;
};

// Waits for a completion that runs on the session queue.
class Waiter {
  public:
    void done() { semaphore_.signal(); }
    void wait() { semaphore_.wait(); }

  private:
    dispatch::Semaphore semaphore_;
};

void BM_SearchClient(benchmark::State& state) {
    services::SearchClient client(settings(), [] { return kNear; });
    Waiter waiter;
    std::size_t hits = 0;
    for (auto _ : state) {
        client.searchKeyword("siam", &searchOptions(), [&](const auto& pins, const auto&) {
            hits = pins ? pins->size() : 0;
            waiter.done();
        });
        waiter.wait();
    }
    if (hits == 0) {
        state.SkipWithError("no hits");
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_SearchCurl(benchmark::State& state) {
    services::SearchClient client(settings(), [] { return kNear; });
    std::string url =
        urlOf("/mapsearch/json/search", client.optionsSearchQuery("siam", &searchOptions(), kNear));
    Curl curl;
    std::size_t bytes = 0;
    for (auto _ : state) {
        bytes = curl.get(url).size();
    }
    if (bytes == 0) {
        state.SkipWithError("no answer");
    }
    state.SetItemsProcessed(state.iterations());
}

// The kit's URL session alone fetching the same answer: the transport's share of the time,
// so that client minus session is the client's own work.
void BM_SearchSession(benchmark::State& state) {
    services::SearchClient client(settings(), [] { return kNear; });
    auto request =
        services::makeRequest(settings(), "/mapsearch/json/search",
                              client.optionsSearchQuery("siam", &searchOptions(), kNear));
    Waiter waiter;
    for (auto _ : state) {
        net::URLSession::shared().dataTask(
            *request, [&](const auto&, const auto&, const auto&) { waiter.done(); });
        waiter.wait();
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_RouteClient(benchmark::State& state) {
    services::RouteClient client(settings());
    SMRouteOptions options;
    Waiter waiter;
    std::size_t steps = 0;
    for (auto _ : state) {
        client.routeFrom(kFrom, kTo, &options, [&](const auto& route, const auto&) {
            steps = route ? route->guide().size() : 0;
            waiter.done();
        });
        waiter.wait();
    }
    if (steps == 0) {
        state.SkipWithError("no route");
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["requests/s"] = benchmark::Counter(2.0 * static_cast<double>(state.iterations()),
                                                      benchmark::Counter::kIsRate);
}

void BM_RouteCurl(benchmark::State& state) {
    services::RouteClient client(settings());
    SMRouteOptions options;
    std::string guide = urlOf("/tvroute/json/route/guide", client.guideQuery(kFrom, kTo, &options));
    Curl curl;
    auto answer = nlohmann::json::parse(curl.get(guide), nullptr, false);
    if (answer.is_discarded() || !answer.contains("data") || answer["data"].empty()) {
        state.SkipWithError("no route");
        return;
    }
    std::string path = urlOf("/tvroute/json/route/path",
                             "id=" + std::to_string(answer["data"][0]["id"].get<long long>()));
    std::size_t bytes = 0;
    for (auto _ : state) {
        bytes = curl.get(guide).size();
        bytes += curl.get(path).size();
    }
    if (bytes == 0) {
        state.SkipWithError("no answer");
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["requests/s"] = benchmark::Counter(2.0 * static_cast<double>(state.iterations()),
                                                      benchmark::Counter::kIsRate);
}

void BM_RouteSession(benchmark::State& state) {
    services::RouteClient client(settings());
    SMRouteOptions options;
    auto guide = services::makeRequest(settings(), "/tvroute/json/route/guide",
                                       client.guideQuery(kFrom, kTo, &options));
    Curl curl;
    auto answer = nlohmann::json::parse(curl.get(guide->url().absoluteString()), nullptr, false);
    if (answer.is_discarded() || !answer.contains("data") || answer["data"].empty()) {
        state.SkipWithError("no route");
        return;
    }
    auto path =
        services::makeRequest(settings(), "/tvroute/json/route/path",
                              "id=" + std::to_string(answer["data"][0]["id"].get<long long>()));
    Waiter waiter;
    for (auto _ : state) {
        // The path request starts from the guide's completion, as the client's does.
        net::URLSession::shared().dataTask(*guide, [&](const auto&, const auto&, const auto&) {
            net::URLSession::shared().dataTask(
                *path, [&](const auto&, const auto&, const auto&) { waiter.done(); });
        });
        waiter.wait();
    }
    state.SetItemsProcessed(state.iterations());
}

// The client's own work on a search answer, without the network: decoding the body and
// building the pins, as its completion does on the session queue.
void BM_SearchDecode(benchmark::State& state) {
    services::SearchClient client(settings(), [] { return kNear; });
    Curl curl;
    std::string body = curl.get(urlOf("/mapsearch/json/search",
                                      client.optionsSearchQuery("siam", &searchOptions(), kNear)));
    std::size_t hits = 0;
    for (auto _ : state) {
        auto root = json::parse(body);
        hits = services::readPins(*root.value, "siam", kNear).size();
    }
    if (hits == 0) {
        state.SkipWithError("no hits");
    }
    state.counters["bytes"] = static_cast<double>(body.size());
}

// The same for a route: the guide's head, the path's polylines and the joined steps.
void BM_RouteDecode(benchmark::State& state) {
    services::RouteClient client(settings());
    SMRouteOptions options;
    Curl curl;
    std::string guide =
        curl.get(urlOf("/tvroute/json/route/guide", client.guideQuery(kFrom, kTo, &options)));
    auto id = nlohmann::json::parse(guide)["data"][0]["id"].get<long long>();
    std::string path = curl.get(urlOf("/tvroute/json/route/path", "id=" + std::to_string(id)));
    std::size_t steps = 0;
    for (auto _ : state) {
        auto head = services::readRouteHead(std::move(*json::parse(guide).value));
        auto lines = services::readPolylines(*json::parse(path).value, head.id);
        steps = services::joinGuide(head.routeJson, lines).size();
    }
    if (steps == 0) {
        state.SkipWithError("no steps");
    }
    state.counters["bytes"] = static_cast<double>(guide.size() + path.size());
}

// The kit's work happens on the session's threads, so wall-clock time is the measure.
BENCHMARK(BM_SearchCurl)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SearchSession)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SearchClient)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RouteCurl)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RouteSession)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RouteClient)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SearchDecode)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RouteDecode)->Unit(benchmark::kMicrosecond);

// Prints the usual table, then per call: the time of plain libcurl, of the kit's session and
// of the client, from the medians when the run repeats (--benchmark_repetitions) and from the
// single runs otherwise. Network calls are wall clock (their work is on other threads);
// decoding is the CPU time of the thread that does it, which a busy machine does not inflate.
class OverheadReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            if (run.error_occurred) {
                continue;
            }
            const auto& name = run.run_name.function_name;
            bool cpu = name.find("Decode") != std::string::npos;
            double us = cpu ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime();
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
                medians_[name] = us;
            } else if (run.run_type == Run::RT_Iteration) {
                singles_[name] = us;
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void printOverhead() const {
        const auto& times = medians_.empty() ? singles_ : medians_;
        std::printf("\nper call (%s):\n", medians_.empty() ? "one run" : "medians");
        for (const char* what : {"Search", "Route"}) {
            auto at = [&](const char* kind) {
                auto it = times.find(std::string("BM_") + what + kind);
                return it == times.end() ? 0.0 : it->second;
            };
            double curl = at("Curl"), session = at("Session"), client = at("Client");
            double decode = at("Decode");
            if (curl > 0 && session > 0 && client > 0) {
                std::printf("  %-6s curl %7.1f us, session %7.1f us, client %7.1f us (%.0f/s)\n",
                            what, curl, session, client, 1e6 / client);
                std::printf(
                    "         client over curl %+7.1f us (%+.1f%%), over the session %+7.1f us "
                    "(%+.1f%%)\n",
                    client - curl, 100.0 * (client - curl) / curl, client - session,
                    100.0 * (client - session) / session);
            }
            if (decode > 0) {
                std::printf(
                    "  %-6s the client's own decoding: %.1f us CPU%s\n", what, decode,
                    curl > 0
                        ? (" = " + std::to_string(static_cast<int>(100.0 * decode / curl + 0.5)) +
                           "% of a curl fetch")
                              .c_str()
                        : "");
            }
        }
    }

  private:
    std::map<std::string, double> medians_, singles_;
};

}  // namespace
}  // namespace sorvan

int main(int argc, char** argv) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    sorvan::OverheadReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printOverhead();
    benchmark::Shutdown();
    curl_global_cleanup();
    return 0;
}
