// UTM conversions per second, the kit side by side with PROJ (exact and approximate transverse
// Mercator) and GeographicLib (UTMUPS) on the same million points over Thailand, then the
// largest differences from GeographicLib in metres.
//
//   build/bench/bench_geodesy                      all benchmarks, then ratios and accuracy
//   build/bench/bench_geodesy --benchmark_filter=Sorvan
//
// The peers are optional: without them only the kit's rows are measured.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "SorvanMapSDK/SMGeodesy.hpp"
#include "geodesy/utm_series.hpp"

#if SORVAN_BENCH_PROJ
#include <proj.h>
#endif
#if SORVAN_BENCH_GEOGRAPHICLIB
#include <GeographicLib/UTMUPS.hpp>
#endif

namespace {

namespace geodesy = sorvan::geodesy;
using sorvan::map::Coordinate;

constexpr std::size_t kPoints = 1'000'000;
constexpr double kPi = 3.141592653589793;

// Thailand's extent, which spans zones 47 and 48.
constexpr double kSouth = 5.6, kNorth = 20.5, kWest = 97.3, kEast = 105.7;

struct Data {
    std::vector<Coordinate> coordinates;
    std::vector<std::string> texts;  // the kit's own UTM text of each point
    std::vector<geodesy::series::Projected> projected;
};

const Data& data() {
    static const Data d = [] {
        Data out;
        std::mt19937_64 random(47);
        std::uniform_real_distribution<double> latitude(kSouth, kNorth), longitude(kWest, kEast);
        out.coordinates.reserve(kPoints);
        out.texts.reserve(kPoints);
        for (std::size_t i = 0; i < kPoints; ++i) {
            const Coordinate c{latitude(random), longitude(random)};
            out.coordinates.push_back(c);
            out.texts.push_back(geodesy::UTMFrom(c, true));
            out.projected.push_back(geodesy::series::forward(c.latitude, c.longitude));
        }
        return out;
    }();
    return d;
}

// Every benchmark walks the same points in the same order, one conversion per iteration.
constexpr benchmark::IterationCount kIterations = 3 * kPoints;

void SorvanUTMFrom(benchmark::State& state) {
    const auto& points = data().coordinates;
    std::size_t i = 0;
    for (auto _ : state) {
        std::string text = geodesy::UTMFrom(points[i], true);
        benchmark::DoNotOptimize(text.data());
        i = i + 1 == kPoints ? 0 : i + 1;
    }
}
BENCHMARK(SorvanUTMFrom)->Iterations(kIterations);

void SorvanUTMFromIntoBuffer(benchmark::State& state) {
    const auto& points = data().coordinates;
    char buffer[geodesy::kMaxUTMTextLength];
    std::size_t i = 0;
    for (auto _ : state) {
        const std::size_t n = geodesy::formatUTM(geodesy::utmPositionFrom(points[i], true), buffer);
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
        i = i + 1 == kPoints ? 0 : i + 1;
    }
}
BENCHMARK(SorvanUTMFromIntoBuffer)->Iterations(kIterations);

void SorvanSeriesForward(benchmark::State& state) {
    const auto& points = data().coordinates;
    std::size_t i = 0;
    for (auto _ : state) {
        auto p = geodesy::series::forward(points[i].latitude, points[i].longitude);
        benchmark::DoNotOptimize(p);
        i = i + 1 == kPoints ? 0 : i + 1;
    }
}
BENCHMARK(SorvanSeriesForward)->Iterations(kIterations);

void SorvanCoordinateFromUTM(benchmark::State& state) {
    const auto& texts = data().texts;
    std::size_t i = 0;
    for (auto _ : state) {
        Coordinate c = geodesy::coordinateFromUTM(texts[i]);
        benchmark::DoNotOptimize(c);
        i = i + 1 == kPoints ? 0 : i + 1;
    }
}
BENCHMARK(SorvanCoordinateFromUTM)->Iterations(kIterations);

void SorvanSeriesInverse(benchmark::State& state) {
    const auto& projected = data().projected;
    std::size_t i = 0;
    for (auto _ : state) {
        const auto& p = projected[i];
        auto g = geodesy::series::inverse(p.zone, false, p.easting, p.northing);
        benchmark::DoNotOptimize(g);
        i = i + 1 == kPoints ? 0 : i + 1;
    }
}
BENCHMARK(SorvanSeriesInverse)->Iterations(kIterations);

#if SORVAN_BENCH_PROJ

struct Proj {
    PJ* exact = proj_create(PJ_DEFAULT_CTX, "+proj=utm +zone=47 +datum=WGS84");
    PJ* approx = proj_create(PJ_DEFAULT_CTX, "+proj=utm +zone=47 +datum=WGS84 +approx");
    std::vector<PJ_COORD> exactProjected, approxProjected;
    Proj() {
        for (const Coordinate& c : data().coordinates) {
            const PJ_COORD in = proj_coord(proj_torad(c.longitude), proj_torad(c.latitude), 0, 0);
            exactProjected.push_back(proj_trans(exact, PJ_FWD, in));
            approxProjected.push_back(proj_trans(approx, PJ_FWD, in));
        }
    }
};

Proj& proj() {
    static Proj p;
    return p;
}

void projForward(benchmark::State& state, bool exact) {
    PJ* pj = exact ? proj().exact : proj().approx;
    const auto& points = data().coordinates;
    std::size_t i = 0;
    for (auto _ : state) {
        const PJ_COORD in =
            proj_coord(proj_torad(points[i].longitude), proj_torad(points[i].latitude), 0, 0);
        PJ_COORD out = proj_trans(pj, PJ_FWD, in);
        benchmark::DoNotOptimize(out);
        i = i + 1 == kPoints ? 0 : i + 1;
    }
}

void projInverse(benchmark::State& state, bool exact) {
    PJ* pj = exact ? proj().exact : proj().approx;
    const auto& projected = exact ? proj().exactProjected : proj().approxProjected;
    std::size_t i = 0;
    for (auto _ : state) {
        PJ_COORD out = proj_trans(pj, PJ_INV, projected[i]);
        benchmark::DoNotOptimize(out);
        i = i + 1 == kPoints ? 0 : i + 1;
    }
}

void ProjExactForward(benchmark::State& state) {
    projForward(state, true);
}
void ProjApproxForward(benchmark::State& state) {
    projForward(state, false);
}
void ProjExactInverse(benchmark::State& state) {
    projInverse(state, true);
}
void ProjApproxInverse(benchmark::State& state) {
    projInverse(state, false);
}
BENCHMARK(ProjExactForward)->Iterations(kIterations);
BENCHMARK(ProjApproxForward)->Iterations(kIterations);
BENCHMARK(ProjExactInverse)->Iterations(kIterations);
BENCHMARK(ProjApproxInverse)->Iterations(kIterations);

#endif

#if SORVAN_BENCH_GEOGRAPHICLIB

struct GeoProjected {
    int zone;
    bool northp;
    double x, y;
};

const std::vector<GeoProjected>& geographicLibProjected() {
    static const std::vector<GeoProjected> out = [] {
        std::vector<GeoProjected> v;
        v.reserve(kPoints);
        for (const Coordinate& c : data().coordinates) {
            GeoProjected p{};
            GeographicLib::UTMUPS::Forward(c.latitude, c.longitude, p.zone, p.northp, p.x, p.y);
            v.push_back(p);
        }
        return v;
    }();
    return out;
}

void GeographicLibForward(benchmark::State& state) {
    const auto& points = data().coordinates;
    std::size_t i = 0;
    for (auto _ : state) {
        GeoProjected p{};
        GeographicLib::UTMUPS::Forward(points[i].latitude, points[i].longitude, p.zone, p.northp,
                                       p.x, p.y);
        benchmark::DoNotOptimize(p);
        i = i + 1 == kPoints ? 0 : i + 1;
    }
}
BENCHMARK(GeographicLibForward)->Iterations(kIterations);

void GeographicLibReverse(benchmark::State& state) {
    const auto& projected = geographicLibProjected();
    std::size_t i = 0;
    for (auto _ : state) {
        const auto& p = projected[i];
        double latitude = 0, longitude = 0;
        GeographicLib::UTMUPS::Reverse(p.zone, p.northp, p.x, p.y, latitude, longitude);
        benchmark::DoNotOptimize(latitude);
        benchmark::DoNotOptimize(longitude);
        i = i + 1 == kPoints ? 0 : i + 1;
    }
}
BENCHMARK(GeographicLibReverse)->Iterations(kIterations);

// Metres per degree of latitude and of longitude on the WGS 84 ellipsoid.
struct MetresPerDegree {
    double latitude, longitude;
};

MetresPerDegree metresPerDegree(double latitudeDegrees) {
    const double a = 6378137.0, e2 = 0.0066943799901413165;
    const double phi = latitudeDegrees * kPi / 180;
    const double w = 1 - e2 * std::sin(phi) * std::sin(phi);
    const double meridional = a * (1 - e2) / (w * std::sqrt(w));
    const double normal = a / std::sqrt(w);
    return {meridional * kPi / 180, normal * std::cos(phi) * kPi / 180};
}

void reportAccuracy() {
    const auto& d = data();
    const auto& reference = geographicLibProjected();
    double seriesE = 0, seriesN = 0, textE = 0, textN = 0;
    double inverseLat = 0, inverseLon = 0, textLat = 0, textLon = 0, roundTrip = 0;
    std::size_t zoneMismatches = 0;
    char text[96];
    for (std::size_t i = 0; i < kPoints; ++i) {
        const Coordinate c = d.coordinates[i];
        const auto& ref = reference[i];
        const auto& ours = d.projected[i];
        if (ours.zone != ref.zone || !ref.northp) {
            ++zoneMismatches;
            continue;
        }
        seriesE = std::max(seriesE, std::abs(ours.easting - ref.x));
        seriesN = std::max(seriesN, std::abs(ours.northing - ref.y));
        const auto position = geodesy::utmPositionFrom(c, true);
        textE = std::max(textE, std::abs(position.easting - ref.x));
        textN = std::max(textN, std::abs(position.northing - ref.y));

        // The inverse, fed GeographicLib's exact projection of the point.
        const MetresPerDegree m = metresPerDegree(c.latitude);
        const auto g = geodesy::series::inverse(ref.zone, false, ref.x, ref.y);
        inverseLat =
            std::max(inverseLat, std::abs(g.latitudeRadians * 180 / kPi - c.latitude) * m.latitude);
        inverseLon = std::max(inverseLon, std::abs(g.longitudeDegrees - c.longitude) * m.longitude);
        std::snprintf(text, sizeof text, "%dN, %.4f, %.4f", ref.zone, ref.x, ref.y);
        const Coordinate back = geodesy::coordinateFromUTM(text);
        textLat = std::max(textLat, std::abs(back.latitude - c.latitude) * m.latitude);
        textLon = std::max(textLon, std::abs(back.longitude - c.longitude) * m.longitude);

        const Coordinate trip = geodesy::coordinateFromUTM(d.texts[i]);
        roundTrip = std::max(roundTrip, std::hypot((trip.latitude - c.latitude) * m.latitude,
                                                   (trip.longitude - c.longitude) * m.longitude));
    }
    std::printf(
        "\nLargest difference from GeographicLib UTMUPS over Thailand (lat %.1f..%.1f, lon "
        "%.1f..%.1f, %zu points, %zu zone mismatches):\n",
        kSouth, kNorth, kWest, kEast, kPoints, zoneMismatches);
    std::printf("  forward, series before rounding:  easting %.6f m, northing %.6f m\n", seriesE,
                seriesN);
    std::printf("  forward, UTMFrom (whole metres):  easting %.6f m, northing %.6f m\n", textE,
                textN);
    std::printf("  reverse, series before the cut:   latitude %.6f m, longitude %.6f m\n",
                inverseLat, inverseLon);
    std::printf("  reverse, coordinateFromUTM:       latitude %.6f m, longitude %.6f m\n", textLat,
                textLon);
    std::printf("  round trip UTMFrom -> coordinateFromUTM: %.6f m\n", roundTrip);
}

#endif

// Keeps each run's CPU time per conversion for the ratios printed at the end: on a shared
// machine the CPU time is steadier than the wall time.
class RecordingReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                nanoseconds[run.benchmark_name()] =
                    run.GetAdjustedCPUTime() *
                    benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
                    benchmark::GetTimeUnitMultiplier(run.time_unit);
            }
        }
    }
    std::map<std::string, double> nanoseconds;
};

void printRatio(const std::map<std::string, double>& ns, const std::string& ours,
                const std::string& theirs) {
    const auto a = ns.find(ours + "/iterations:3000000");
    const auto b = ns.find(theirs + "/iterations:3000000");
    if (a != ns.end() && b != ns.end()) {
        std::printf("  %-24s %7.1f ns  vs %-22s %7.1f ns: %5.2fx the speed\n", ours.c_str(),
                    a->second, theirs.c_str(), b->second, b->second / a->second);
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    data();  // build the points before any timing
    RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    std::printf("\nSpeed (CPU time per point; above 1x means the kit is faster):\n");
    const auto& ns = reporter.nanoseconds;
    for (const char* peer : {"ProjExactForward", "ProjApproxForward", "GeographicLibForward"}) {
        printRatio(ns, "SorvanUTMFrom", peer);
    }
    for (const char* peer : {"ProjExactInverse", "ProjApproxInverse", "GeographicLibReverse"}) {
        printRatio(ns, "SorvanCoordinateFromUTM", peer);
    }
#if SORVAN_BENCH_GEOGRAPHICLIB
    reportAccuracy();
#else
    std::printf("\n(GeographicLib not installed: no accuracy report; run scripts/setup --bench)\n");
#endif
    return 0;
}
