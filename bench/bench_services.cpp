// Search and routing through the kit's clients against plain libcurl fetching the very same
// answers from the embedded service, in one run.
//
// Each round of a *Paired benchmark fetches the answer three ways, in rotating order so that
// neither warm connections nor a busy machine favour one: libcurl on the calling thread (the
// floor), the kit's URL session alone (the transport: its network thread, the hop back to the
// waiting caller), and the client (the same plus request building, JSON decoding and building
// pins or a route). Each way is summed up by its median call. The *Decode benchmarks time the
// client's own decoding alone, in CPU time.
//
//   build/bench/bench_services
//   build/bench/bench_services --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <curl/curl.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMRouteOptions.hpp"
#include "SorvanMapSDK/SMRouteResult.hpp"
#include "SorvanMapSDK/SMSearchOptions.hpp"
#include "paired.hpp"
#include "services/answers.hpp"
#include "services/service_client.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace sorvan {
namespace {

constexpr map::Coordinate kNear{13.7462, 100.5347};
constexpr map::Coordinate kFrom{13.7462, 100.5347};
constexpr map::Coordinate kTo{13.6900, 100.7501};
constexpr const char* kSearchPath = "/mapsearch/json/search";
constexpr const char* kGuidePath = "/tvroute/json/route/guide";
constexpr const char* kPathPath = "/tvroute/json/route/path";

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

net::URLRequest requestFor(std::string_view path, const std::string& query) {
    return *services::makeRequest(settings(), path, query);
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

    const std::string& get(const net::URLRequest& request) {
        body_.clear();
        curl_easy_setopt(handle_, CURLOPT_URL, request.url().absoluteString().c_str());
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

// Runs the three ways of getting one answer in rotating order and reports each one's median
// wall-clock time per call, and the client's overhead over libcurl.
void runPaired(benchmark::State& state, const std::array<std::function<bool()>, 3>& ways) {
    bench::PairedTimer timer(3);
    std::size_t round = 0;
    for (auto _ : state) {
        for (std::size_t k = 0; k < 3; ++k) {
            std::size_t way = (round + k) % 3;
            if (!timer.time(way, ways[way])) {
                state.SkipWithError("no answer");
                return;
            }
        }
        ++round;
    }
    double curl = timer.medianMicros(0), session = timer.medianMicros(1),
           client = timer.medianMicros(2);
    state.counters["curl_us"] = curl;
    state.counters["session_us"] = session;
    state.counters["client_us"] = client;
    state.counters["client/s"] = 1e6 / client;
    state.counters["over_curl_%"] = 100.0 * (client - curl) / curl;
    state.counters["over_session_%"] = 100.0 * (client - session) / session;
}

// Waits for a completion that runs on the session queue.
bool fetchWithSession(const net::URLRequest& request) {
    dispatch::Semaphore done;
    bool ok = false;
    net::URLSession::shared().dataTask(request, [&](const auto& data, const auto&, const auto&) {
        ok = data && !data->empty();
        done.signal();
    });
    done.wait();
    return ok;
}

void BM_SearchPaired(benchmark::State& state) {
    services::SearchClient client(settings(), [] { return kNear; });
    auto request =
        requestFor(kSearchPath, client.optionsSearchQuery("siam", &searchOptions(), kNear));
    Curl curl;
    runPaired(
        state,
        {[&] { return !curl.get(request).empty(); }, [&] { return fetchWithSession(request); },
         [&] {
             dispatch::Semaphore done;
             std::size_t hits = 0;
             client.searchKeyword("siam", &searchOptions(), [&](const auto& pins, const auto&) {
                 hits = pins ? pins->size() : 0;
                 done.signal();
             });
             done.wait();
             return hits > 0;
         }});
}

void BM_RoutePaired(benchmark::State& state) {
    services::RouteClient client(settings());
    SMRouteOptions options;
    auto guide = requestFor(kGuidePath, client.guideQuery(kFrom, kTo, &options));
    Curl curl;
    auto answer = nlohmann::json::parse(curl.get(guide), nullptr, false);
    if (answer.is_discarded() || !answer.contains("data") || answer["data"].empty()) {
        state.SkipWithError("no route");
        return;
    }
    auto path =
        requestFor(kPathPath, "id=" + std::to_string(answer["data"][0]["id"].get<long long>()));
    runPaired(state, {[&] { return !curl.get(guide).empty() && !curl.get(path).empty(); },
                      [&] { return fetchWithSession(guide) && fetchWithSession(path); },
                      [&] {
                          dispatch::Semaphore done;
                          std::size_t steps = 0;
                          client.routeFrom(kFrom, kTo, &options,
                                           [&](const auto& route, const auto&) {
                                               steps = route ? route->guide().size() : 0;
                                               done.signal();
                                           });
                          done.wait();
                          return steps > 0;
                      }});
}

// The client's own work on a search answer: decoding the body and building the pins, as its
// completion does on the session queue.
void BM_SearchDecode(benchmark::State& state) {
    services::SearchClient client(settings(), [] { return kNear; });
    Curl curl;
    std::string body = curl.get(
        requestFor(kSearchPath, client.optionsSearchQuery("siam", &searchOptions(), kNear)));
    std::size_t hits = 0;
    for (auto _ : state) {
        hits =
            services::readPins(json::Document::parse(body, nullptr)->root(), "siam", kNear).size();
    }
    if (hits == 0) {
        state.SkipWithError("no hits");
    }
    state.counters["bytes"] = static_cast<double>(body.size());
}

// The guide and path answers of the benchmarks' route, as the service sends them.
std::pair<std::string, std::string> routeAnswers() {
    services::RouteClient client(settings());
    SMRouteOptions options;
    Curl curl;
    std::string guide = curl.get(requestFor(kGuidePath, client.guideQuery(kFrom, kTo, &options)));
    auto id = nlohmann::json::parse(guide)["data"][0]["id"].get<long long>();
    std::string path = curl.get(requestFor(kPathPath, "id=" + std::to_string(id)));
    return {guide, path};
}

// The same for a route: the guide's head, the path's polylines and the joined steps.
void BM_RouteDecode(benchmark::State& state) {
    const auto [guide, path] = routeAnswers();
    std::size_t steps = 0;
    for (auto _ : state) {
        auto head = services::readRouteHead(json::Document::parse(guide, nullptr));
        auto lines = services::readPolylines(json::Document::parse(path, nullptr)->root(), head.id);
        steps = services::joinGuide(head.routeJson, lines).size();
    }
    if (steps == 0) {
        state.SkipWithError("no steps");
    }
    state.counters["bytes"] = static_cast<double>(guide.size() + path.size());
}

// Parsing alone, the same route answers: into a tree of nlohmann values as the tags and events
// feeds are read, and into the flat document the search and route clients read.
void BM_ParseRouteAnswers(benchmark::State& state) {
    const auto [guide, path] = routeAnswers();
    const bool tree = state.range(0) == 0;
    for (auto _ : state) {
        if (tree) {
            benchmark::DoNotOptimize(json::parse(guide));
            benchmark::DoNotOptimize(json::parse(path));
        } else {
            benchmark::DoNotOptimize(json::Document::parse(guide, nullptr));
            benchmark::DoNotOptimize(json::Document::parse(path, nullptr));
        }
    }
    state.SetLabel(tree ? "tree" : "document");
    state.SetBytesProcessed(
        static_cast<std::int64_t>(state.iterations() * (guide.size() + path.size())));
}

BENCHMARK(BM_SearchPaired)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_RoutePaired)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_SearchDecode)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RouteDecode)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ParseRouteAnswers)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

// Prints the usual table, then a summary per call from the medians when the run repeats
// (--benchmark_repetitions) and from the single runs otherwise.
class SummaryReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.error_occurred || (!median && run.run_type != Run::RT_Iteration)) {
                continue;
            }
            auto& into = median ? medians_ : singles_;
            auto& values = into[run.run_name.function_name];
            for (const auto& [name, counter] : run.counters) {
                values[name] = counter.value;
            }
            values["cpu_us"] = run.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void print() const {
        const auto& all = medians_.empty() ? singles_ : medians_;
        std::printf("\nper call (%s):\n", medians_.empty() ? "one run" : "medians");
        for (const char* what : {"Search", "Route"}) {
            auto paired = all.find(std::string("BM_") + what + "Paired");
            auto decode = all.find(std::string("BM_") + what + "Decode");
            if (paired != all.end()) {
                const auto& v = paired->second;
                std::printf(
                    "  %-6s libcurl %7.1f us | session %7.1f us | client %7.1f us = %.0f per "
                    "second\n         client over libcurl %+.1f%%, over the bare session %+.1f%%\n",
                    what, v.at("curl_us"), v.at("session_us"), v.at("client_us"), v.at("client/s"),
                    v.at("over_curl_%"), v.at("over_session_%"));
            }
            if (decode != all.end()) {
                std::printf("         the client's own decoding: %.1f us of CPU per call\n",
                            decode->second.at("cpu_us"));
            }
        }
    }

  private:
    using Values = std::map<std::string, double>;
    std::map<std::string, Values> medians_, singles_;
};

}  // namespace
}  // namespace sorvan

int main(int argc, char** argv) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    sorvan::SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print();
    benchmark::Shutdown();
    curl_global_cleanup();
    return 0;
}
