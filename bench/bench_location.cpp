// The location service's costs.
//   ReadNMEA              the reader alone over a 1,000,000-sentence log (250,000 epochs of RMC,
//                         GGA, HDT and HDG): the floor for a replay
//   ReplayThroughManager  the same log replayed without pauses through a location manager to
//                         its delegate on the main queue; sentences_per_s end to end, and
//                         main_us_per_fix, the main thread's CPU time per position delivered
//   HeadingUpdate         one compass heading taken by a map view that draws the user (the
//                         heading rule, the walk to the user's drawing and the arrow's 0.1 s
//                         animation set up), on a view holding 0 or 500 annotations
// Run: build-release/bench/bench_location --benchmark_repetitions=5
#include <benchmark/benchmark.h>
#include <time.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "SorvanMapSDK/SMUserAnnotation.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "location/track_readers.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/location/location_manager.hpp"
#include "sorvan/platform/location/replay_source.hpp"

namespace {

using namespace sorvan;

constexpr int kEpochs = 250000;  // four sentences each

std::string sentence(const std::string& body) {
    unsigned sum = 0;
    for (char c : body) {
        sum ^= static_cast<unsigned char>(c);
    }
    char tail[8];
    std::snprintf(tail, sizeof tail, "*%02X\r\n", sum);
    return "$" + body + tail;
}

// Written once per run into the temporary directory.
const std::string& bigLog() {
    static const std::string path = [] {
        std::string p =
            (std::filesystem::temp_directory_path() / "sorvan_bench_drive.nmea").string();
        std::ofstream out(p, std::ios::binary);
        for (int i = 0; i < kEpochs; ++i) {
            int day = 1 + i / 86400, second = i % 86400;
            char time[16], date[8], body[128];
            std::snprintf(time, sizeof time, "%02d%02d%02d.00", second / 3600, second / 60 % 60,
                          second % 60);
            std::snprintf(date, sizeof date, "%02d0524", day);
            double minutes = 45.0 + (i % 6000) * 0.0001;
            double heading = (i % 3600) * 0.1;
            std::snprintf(body, sizeof body,
                          "GPRMC,%s,A,13%07.4f,N,10030.1080,E,23.3,%.1f,%s,0.8,W", time, minutes,
                          heading, date);
            out << sentence(body);
            std::snprintf(body, sizeof body,
                          "GPGGA,%s,13%07.4f,N,10030.1080,E,1,09,0.9,5.0,M,-27.0,M,,", time,
                          minutes);
            out << sentence(body);
            std::snprintf(body, sizeof body, "HCHDT,%.1f,T", heading);
            out << sentence(body);
            std::snprintf(body, sizeof body, "HCHDG,%.1f,0.5,E,0.8,W", heading);
            out << sentence(body);
        }
        return p;
    }();
    return path;
}

double processCpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

double threadCpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

void ReadNMEA(benchmark::State& state) {
    const std::string& path = bigLog();
    std::size_t positions = 0;
    double cpu = 0;
    for (auto _ : state) {
        double before = processCpuSeconds();
        std::ifstream in(path, std::ios::binary);
        location::NmeaReader reader(std::chrono::sys_days{});
        std::vector<location::TrackEvent> events;
        std::string line;
        while (std::getline(in, line)) {
            reader.feed(line, events);
            events.clear();
        }
        reader.finish(events);
        positions = reader.positions();
        benchmark::DoNotOptimize(positions);
        cpu += processCpuSeconds() - before;
    }
    state.counters["cpu_s_per_M_sentences"] =
        cpu / static_cast<double>(state.iterations()) / (4.0 * kEpochs) * 1e6;
    state.counters["sentences_per_s"] =
        benchmark::Counter(4.0 * kEpochs, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["fixes"] = static_cast<double>(positions);
}
BENCHMARK(ReadNMEA)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

class Counter : public location::LocationManagerDelegate {
  public:
    void didUpdateLocations(location::LocationManager&,
                            const std::vector<location::Location>& l) override {
        fixes += l.size();
        last = l.back().coordinate.latitude;
    }
    void didUpdateHeading(location::LocationManager&, const location::Heading& h) override {
        ++headings;
        lastHeading = h.trueHeading;
    }
    void didFinish(location::LocationManager&) override { finished = true; }
    std::size_t fixes = 0, headings = 0;
    double last = 0, lastHeading = 0;
    bool finished = false;
};

void ReplayThroughManager(benchmark::State& state) {
    const std::string& path = bigLog();
    auto& loop = dispatch::RunLoop::main();
    double mainCpu = 0, allCpu = 0;
    std::size_t fixes = 0;
    for (auto _ : state) {
        auto counter = std::make_shared<Counter>();
        auto manager =
            location::LocationManager::create(location::ReplaySource::create({path, 0, false}));
        manager->setDelegate(counter);
        manager->setHeadingFilter(location::kHeadingFilterNone);
        double before = threadCpuSeconds(), allBefore = processCpuSeconds();
        manager->startUpdatingLocation();
        manager->startUpdatingHeading();
        loop.runUntil([&] { return counter->finished; }, std::chrono::minutes(5));
        mainCpu += threadCpuSeconds() - before;
        allCpu += processCpuSeconds() - allBefore;
        fixes = counter->fixes;
        if (!counter->finished || fixes != static_cast<std::size_t>(kEpochs)) {
            state.SkipWithError("the replay did not deliver every position");
        }
        manager.reset();
    }
    state.counters["sentences_per_s"] =
        benchmark::Counter(4.0 * kEpochs, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["main_us_per_fix"] =
        mainCpu * 1e6 / static_cast<double>(fixes) / static_cast<double>(state.iterations());
    state.counters["fixes"] = static_cast<double>(fixes);
    // Both threads: the replay's reading and handing over, and the main queue's delivery.
    state.counters["cpu_s_per_M_sentences"] =
        allCpu / static_cast<double>(state.iterations()) / (4.0 * kEpochs) * 1e6;
}
BENCHMARK(ReplayThroughManager)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

// A view that draws the user, with `annotations` pins around it, its drawing made.
struct HeadingScene {
    std::shared_ptr<SorvanMapView> view;
    std::shared_ptr<location::ManualSource> source;

    explicit HeadingScene(int annotations) {
        // The shared source, so that neither the map nor the kit's controller looks for a
        // receiver on this machine.
        source = location::ManualSource::create();
        location::Source::setShared(source);
        view = SorvanMapView::create({0, 0, 1280, 720});
        view->setScreenScale(2);
        map::Coordinate here{13.7563, 100.5018};
        map::MapPoint p = map::mapPointForCoordinate(here);
        double w = 1280 * std::exp2(20.0 - 15), h = 720 * std::exp2(20.0 - 15);
        view->setVisibleMapRect({{p.x - w / 2, p.y - h / 2}, {w, h}});
        for (int i = 0; i < annotations; ++i) {
            view->addAnnotation(std::make_shared<map::PointAnnotation>(map::Coordinate{
                here.latitude + (i % 25 - 12) * 0.001, here.longitude + (i / 25 - 10) * 0.001}));
        }
        view->setUserAnnotationType(1);
        location::Location l;
        l.coordinate = here;
        l.horizontalAccuracy = 5;
        source->pushLocation(l);
        view->setShowsUserLocation(true);
        dispatch::RunLoop::main().runUntil(
            [&] { return view->viewForAnnotation(view->userLocation()) != nullptr; },
            std::chrono::seconds(10));
        view->render(std::chrono::seconds(10));  // every annotation view made
    }
};

void HeadingUpdate(benchmark::State& state) {
    log::Capture quiet;
    HeadingScene scene(static_cast<int>(state.range(0)));
    auto userView = scene.view->viewForAnnotation(scene.view->userLocation());
    bool drawn = false;
    for (const auto& sub : userView ? userView->subviews() : decltype(userView->subviews()){}) {
        drawn = drawn || std::dynamic_pointer_cast<SMUserAnnotation>(sub) != nullptr;
    }
    if (!drawn) {
        state.SkipWithError("the map view does not draw the user itself");
        return;
    }
    location::Heading h;
    h.magneticHeading = 10;
    h.headingAccuracy = 5;
    double degrees = 10;
    for (auto _ : state) {
        degrees = degrees >= 350 ? 10 : degrees + 7;
        h.trueHeading = degrees;
        scene.view->locationControllerDidUpdateHeading(h);
    }
    state.counters["annotations"] = static_cast<double>(scene.view->annotations().size());
}
BENCHMARK(HeadingUpdate)->Arg(0)->Arg(500)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
