// Live camera video: time to the first decoded picture, CPU per second of playback at 640 x 360
// and memory held by camera views, each against gst-launch-1.0 playing the same stream where a
// peer makes sense.
//
// The stream comes from `sorvan serve` in a child process, so that its encoder's CPU and memory
// are not counted here. Both sides read the same stream, already running (one warm player
// starts it before any measurement).
//
//   FirstFrame/PlayerLayer   Player::create + PlayerLayer::create to the first decoded picture
//   FirstFrame/GstLaunch     gst-launch-1.0 started to its sink's first buffer (process start
//                            and plugin loading included: a cost a process pays once)
//   FirstFrame/GstLaunchIdle gst-launch-1.0 with nothing to play, to its exit: subtract it
//                            from GstLaunch to compare the playing part alone
//   FirstFrame/PlayerColdProcess  this program started again to play the stream once: process
//                            start, GStreamer's start and the first HTTP request included, as
//                            for gst-launch-1.0
//   FirstFrame/CameraView    the SDK's camera view, as getVDOViewFromCameraData builds it
//   PlaybackCPU/...          CPU seconds per second of playback, ours in-process, the peer's
//                            from its rusage; both convert to BGRx as ours does
//   Memory/...               resident memory held by one view, and growth after 100 and
//                            after 200 views were made and dropped
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "sorvan/platform/media/player.hpp"
#include "sorvan/platform/media/player_layer.hpp"
#include "sorvan/platform/ui/view.hpp"

#include "camera_view.hpp"

extern char** environ;

namespace {

using namespace sorvan;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// A child process whose standard output we read line by line.
class Child {
  public:
    explicit Child(const std::vector<std::string>& argv) {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0)
            std::abort();
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        std::vector<char*> args;
        for (const auto& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        if (::posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        ::close(fds[1]);
        out_ = fds[0];
    }
    ~Child() { stop(); }

    /// The next line, or nullopt at end of output or after the timeout.
    std::optional<std::string> readLine(std::chrono::duration<double> timeout) {
        auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(timeout);
        for (;;) {
            if (auto nl = buffer_.find('\n'); nl != std::string::npos) {
                std::string line = buffer_.substr(0, nl);
                buffer_.erase(0, nl + 1);
                return line;
            }
            auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0)
                return std::nullopt;
            pollfd p{out_, POLLIN, 0};
            if (::poll(&p, 1, static_cast<int>(left.count())) <= 0)
                continue;
            char chunk[4096];
            ssize_t n = ::read(out_, chunk, sizeof chunk);
            if (n <= 0)
                return std::nullopt;
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
    }

    /// Ends the child and returns the CPU seconds it used.
    double stop() {
        if (pid_ <= 0)
            return cpu_;
        ::kill(pid_, SIGTERM);
        int status = 0;
        rusage usage{};
        auto deadline = Clock::now() + 5s;
        while (::wait4(pid_, &status, WNOHANG, &usage) == 0) {
            if (Clock::now() > deadline) {
                ::kill(pid_, SIGKILL);
                ::wait4(pid_, &status, 0, &usage);
                break;
            }
            std::this_thread::sleep_for(5ms);
        }
        cpu_ = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
        pid_ = -1;
        ::close(out_);
        return cpu_;
    }

    /// Waits for the child to exit by itself.
    void wait() {
        if (pid_ <= 0)
            return;
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        ::close(out_);
    }

  private:
    pid_t pid_ = -1;
    int out_ = -1;
    std::string buffer_;
    double cpu_ = 0;
};

// The embedded service in a child process, for the life of the benchmark program.
const std::string& streamURL() {
    static Child* service = nullptr;
    static std::string url = [] {
        auto tool = std::filesystem::canonical("/proc/self/exe").parent_path().parent_path() /
                    "tools" / "sorvan" / "sorvan";
        service = new Child({tool.string(), "serve", "--port", "0"});
        auto origin = service->readLine(20s);
        if (!origin || origin->rfind("http://", 0) != 0) {
            std::fprintf(stderr, "bench_media: the embedded service did not start\n");
            std::exit(1);
        }
        std::atexit([] { delete service; });
        return *origin + "/hls/bench-cam/index.m3u8";
    }();
    return url;
}

// The stream is started by one player before anything is measured.
void warm() {
    static bool done = [] {
        auto player = media::Player::create(streamURL());
        player->play();
        if (!player->waitForFirstFrame(30s)) {
            std::fprintf(stderr, "bench_media: no picture from %s\n", streamURL().c_str());
            std::exit(1);
        }
        return true;
    }();
    (void)done;
}

double processCPU() {
    timespec t{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// Resident memory now, after returning what the allocator can give back.
double residentKiB() {
    ::malloc_trim(0);
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1024.0;
}

std::vector<std::string> gstLaunch(const std::string& sink) {
    return {"gst-launch-1.0",
            "-v",
            "playbin",
            "uri=" + streamURL(),
            "flags=video+audio+soft-volume",
            "video-sink=videoconvert ! video/x-raw,format=BGRx ! " + sink};
}

// A camera view as the platform builds it: a container, a player and a layer filling it.
struct PlatformView {
    std::shared_ptr<ui::View> container;
    std::shared_ptr<media::Player> player;
};

PlatformView makePlatformView() {
    PlatformView v;
    v.container = std::make_shared<ui::View>(gfx::Rect{0, 0, 640, 360});
    v.player = media::Player::create(streamURL());
    auto layer = media::PlayerLayer::create(v.player);
    layer->setVideoGravity(media::VideoGravity::ResizeAspectFill);
    layer->setFrame(v.container->bounds());
    v.container->addSubview(layer);
    v.player->play();
    return v;
}

std::shared_ptr<media::Player> findPlayer(const std::shared_ptr<ui::View>& view) {
    if (auto layer = std::dynamic_pointer_cast<media::PlayerLayer>(view))
        return layer->player();
    for (const auto& sub : view->subviews())
        if (auto player = findPlayer(sub))
            return player;
    return nullptr;
}

void BM_FirstFrame_PlayerLayer(benchmark::State& state) {
    warm();
    for (auto _ : state) {
        auto start = Clock::now();
        auto view = makePlatformView();
        if (!view.player->waitForFirstFrame(30s)) {
            state.SkipWithError("no picture");
            return;
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
}

void BM_FirstFrame_GstLaunch(benchmark::State& state) {
    warm();
    for (auto _ : state) {
        auto start = Clock::now();
        Child peer(gstLaunch("fakesink silent=false"));
        bool seen = false;
        while (auto line = peer.readLine(30s)) {
            // fakesink announces each buffer it takes, prerolled or played.
            if (line->find("last-message = preroll") != std::string::npos ||
                line->find("last-message = chain") != std::string::npos) {
                seen = true;
                break;
            }
        }
        auto elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        peer.stop();
        if (!seen) {
            state.SkipWithError("gst-launch-1.0 showed no picture");
            return;
        }
        state.SetIterationTime(elapsed);
    }
}

void BM_FirstFrame_GstLaunchIdle(benchmark::State& state) {
    for (auto _ : state) {
        auto start = Clock::now();
        Child peer({"gst-launch-1.0", "fakesrc", "num-buffers=1", "!", "fakesink"});
        peer.wait();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
}

// The child side of PlayerColdProcess: plays url once and says when its first picture came.
int firstFrameChild(const std::string& url) {
    auto container = std::make_shared<ui::View>(gfx::Rect{0, 0, 640, 360});
    auto player = media::Player::create(url);
    auto layer = media::PlayerLayer::create(player);
    container->addSubview(layer);
    player->play();
    bool ok = player->waitForFirstFrame(30s);
    std::printf("%s\n", ok ? "FRAME" : "NONE");
    std::fflush(stdout);
    return ok ? 0 : 1;
}

void BM_FirstFrame_PlayerColdProcess(benchmark::State& state) {
    warm();
    auto self = std::filesystem::canonical("/proc/self/exe").string();
    for (auto _ : state) {
        auto start = Clock::now();
        Child child({self, "--first-frame-child", streamURL()});
        auto line = child.readLine(30s);
        auto elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        child.stop();
        if (!line || *line != "FRAME") {
            state.SkipWithError("the child showed no picture");
            return;
        }
        state.SetIterationTime(elapsed);
    }
}

constexpr auto kPlayback = 6s;

void BM_PlaybackCPU_Player(benchmark::State& state) {
    warm();
    for (auto _ : state) {
        auto view = makePlatformView();
        view.player->waitForFirstFrame(30s);
        double cpu = processCPU();
        auto start = Clock::now();
        std::this_thread::sleep_for(kPlayback);
        double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        state.counters["cpu_per_s"] = (processCPU() - cpu) / seconds;
        state.counters["frames_per_s"] =
            static_cast<double>(view.player->decodedFrameCount()) / seconds;
        state.SetIterationTime(seconds);
    }
}

void BM_PlaybackCPU_GstLaunch(benchmark::State& state) {
    warm();
    for (auto _ : state) {
        Child peer(gstLaunch("fakesink sync=true"));
        auto start = Clock::now();
        std::this_thread::sleep_for(kPlayback);
        double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        // Its start-up is counted too: a little more than ours.
        state.counters["cpu_per_s"] = peer.stop() / seconds;
        state.SetIterationTime(seconds);
    }
}

void measureMemory(benchmark::State& state,
                   const std::function<std::shared_ptr<ui::View>()>& make) {
    warm();
    for (auto _ : state) {
        double before = residentKiB();
        {
            auto view = make();
            findPlayer(view)->waitForFirstFrame(30s);
            std::this_thread::sleep_for(1s);  // playing, with its buffers filled
            state.counters["one_view_KiB"] = residentKiB() - before;
        }
        // Two rounds of 100: the first may fill caches of the libraries beneath (types,
        // plugin features, connection pools); the second shows whether anything grows per view.
        double afterOne = residentKiB();
        for (int round = 1; round <= 2; ++round) {
            for (int i = 0; i < 100; ++i) {
                auto view = make();
                findPlayer(view)->waitForFirstFrame(30s);
            }
            state.counters[round == 1 ? "after_100_KiB" : "after_200_KiB"] =
                residentKiB() - afterOne;
        }
        state.counters["live_pipelines"] = static_cast<double>(media::Player::livePipelineCount());
    }
}

void BM_Memory_PlayerLayer(benchmark::State& state) {
    measureMemory(state, [] { return makePlatformView().container; });
}

BENCHMARK(BM_FirstFrame_PlayerLayer)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5)
    ->Repetitions(5);
BENCHMARK(BM_FirstFrame_GstLaunch)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5)
    ->Repetitions(5);
BENCHMARK(BM_FirstFrame_PlayerColdProcess)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5)
    ->Repetitions(5);
BENCHMARK(BM_FirstFrame_GstLaunchIdle)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5)
    ->Repetitions(5);
BENCHMARK(BM_PlaybackCPU_Player)
    ->UseManualTime()
    ->Unit(benchmark::kSecond)
    ->Iterations(1)
    ->Repetitions(5);
BENCHMARK(BM_PlaybackCPU_GstLaunch)
    ->UseManualTime()
    ->Unit(benchmark::kSecond)
    ->Iterations(1)
    ->Repetitions(5);
BENCHMARK(BM_Memory_PlayerLayer)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1);

void BM_FirstFrame_CameraView(benchmark::State& state) {
    warm();
    for (auto _ : state) {
        auto start = Clock::now();
        auto view = makeCameraView(streamURL());
        auto player = findPlayer(view);
        if (!player || !player->waitForFirstFrame(30s)) {
            state.SkipWithError("no picture");
            return;
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
}
void BM_Memory_CameraView(benchmark::State& state) {
    measureMemory(state, [] { return makeCameraView(streamURL()); });
}
BENCHMARK(BM_FirstFrame_CameraView)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5)
    ->Repetitions(5);
BENCHMARK(BM_Memory_CameraView)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1);

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--first-frame-child")
        return firstFrameChild(argv[2]);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
