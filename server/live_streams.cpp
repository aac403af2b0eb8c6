#include "sorvan/server/live_streams.hpp"

#include <cairo.h>
#include <gio/gio.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "event_feed.hpp"
#include "road_scene.hpp"
#include "sorvan/platform/foundation/log.hpp"

namespace sorvan::server {

namespace {

using Clock = std::chrono::steady_clock;

// The first answer for a new stream waits at most this long for its first segments.
constexpr auto kFirstSegmentsWait = std::chrono::seconds(5);
// A stream asked for within this many segment durations counts as watched and keeps its
// encoder when the cap is reached.
constexpr int kWatchedSegments = 2;
// Segments a new stream's first playlist waits for, so that a player can start at once. They
// are encoded ahead as fast as the encoder goes, with one more: the splitter closes a segment
// only once the next one is complete.
constexpr int kFirstSegments = 3;

bool validName(const std::string& name) {
    if (name.empty() || name.size() > 64 || name == "." || name == "..")
        return false;
    return std::all_of(name.begin(), name.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '-' || c == '_' || c == '.';
    });
}

bool initializeGStreamer() {
    static std::once_flag once;
    static bool ok = false;
    std::call_once(once, [] { ok = gst_init_check(nullptr, nullptr, nullptr); });
    return ok;
}

Response unavailable(const std::string& why) {
    Response r = Response::text(503, why);
    r.headers.emplace_back("Retry-After", "1");
    return r;
}

struct Segment {
    std::uint64_t sequence = 0;
    double seconds = 0;
    std::string bytes;
};

}  // namespace

// One stream: its window of segments and, while it runs, its encoder thread.
struct Stream {
    std::string name;
    // Guarded by LiveStreams::Impl::mutex.
    std::deque<Segment> segments;
    std::uint64_t nextSequence = 0;
    Clock::time_point lastAsked = Clock::now();
    bool running = false;        // the encoder thread has not finished yet
    bool stopRequested = false;  // evicted or shutting down
    int waiting = 0;             // playlist requests waiting for the first segments
    std::thread thread;          // joined by whoever starts it again or by the destructor
    std::deque<GOutputStream*> openFragments;  // owned refs, oldest first
    GstClockTime lastClose = 0;
};

struct LiveStreams::Impl {
    LiveStreamOptions options;
    mutable std::mutex mutex;
    std::condition_variable changed;  // a segment was added, or a stream stopped
    std::map<std::string, std::unique_ptr<Stream>> streams;
    bool shuttingDown = false;

    // What the bus handler and the sink's signals need: the registry and the stream.
    struct EncoderContext {
        Impl* impl;
        Stream* stream;
    };

    // Under mutex: makes sure the stream runs, evicting a quiet one at the cap. False when
    // every encoder is busy with a watched stream.
    bool ensureRunning(Stream& stream, std::unique_lock<std::mutex>& lock);
    void encode(Stream& stream);
    void addFragment(Stream& stream, GstClockTime runningTime);
    std::string playlistText(const Stream& stream) const;

    static GOutputStream* onFragmentStream(GstElement*, const gchar*, gpointer data);
    static GOutputStream* onPlaylistStream(GstElement*, const gchar*, gpointer);
    static gboolean onDeleteFragment(GstElement*, const gchar*, gpointer);
    static GstBusSyncReply onBusMessage(GstBus*, GstMessage* message, gpointer data);
};

bool LiveStreams::Impl::ensureRunning(Stream& stream, std::unique_lock<std::mutex>& lock) {
    stream.lastAsked = Clock::now();
    if (stream.running)
        return true;
    auto now = Clock::now();
    auto watched = std::chrono::duration<double>(options.segmentSeconds * kWatchedSegments);
    std::size_t running = 0;
    Stream* quietest = nullptr;
    for (auto& [name, other] : streams) {
        if (!other->running || other->stopRequested)
            continue;
        ++running;
        if (!quietest || other->lastAsked < quietest->lastAsked)
            quietest = other.get();
    }
    if (running >= static_cast<std::size_t>(std::max(1, options.maxEncoders))) {
        if (!quietest || now - quietest->lastAsked < watched)
            return false;
        quietest->stopRequested = true;
        changed.notify_all();
    }
    if (stream.thread.joinable()) {
        // A finished encoder of this stream: its thread has returned or is about to.
        std::thread old = std::move(stream.thread);
        lock.unlock();
        old.join();
        lock.lock();
        if (stream.running)
            return true;  // another request started it meanwhile
    }
    stream.running = true;
    stream.stopRequested = false;
    stream.segments.clear();
    stream.lastClose = 0;
    Stream* s = &stream;
    stream.thread = std::thread([this, s] { encode(*s); });
    return true;
}

void LiveStreams::Impl::encode(Stream& stream) {
    const int w = options.width, h = options.height, fps = std::max(1, options.framesPerSecond);
    const int segmentFrames = fps * std::max(1, options.segmentSeconds);
    auto finish = [&] {
        std::lock_guard lock(mutex);
        for (GOutputStream* o : stream.openFragments)
            g_object_unref(o);
        stream.openFragments.clear();
        stream.segments.clear();
        stream.running = false;
        changed.notify_all();
    };
    if (!initializeGStreamer()) {
        log::write(log::Level::error, "Live stream " + stream.name + ": GStreamer did not start");
        finish();
        return;
    }
    char description[512];
    std::snprintf(description, sizeof description,
                  "appsrc name=frames format=time is-live=false block=true max-bytes=%d "
                  "caps=video/x-raw,format=BGRx,width=%d,height=%d,framerate=%d/1 "
                  "! videoconvert ! video/x-raw,format=I420 "
                  "! openh264enc complexity=low multi-thread=1 bitrate=400000 gop-size=%d "
                  "scene-change-detection=false "
                  "! h264parse ! hlssink2 name=hls target-duration=%d max-files=0 "
                  "playlist-length=%d",
                  w * h * 4 * 2, w, h, fps, segmentFrames, std::max(1, options.segmentSeconds),
                  std::max(1, options.playlistLength));
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(description, &error);
    if (!pipeline || error) {
        log::write(log::Level::error,
                   "Live stream " + stream.name +
                       ": cannot build the encoder: " + (error ? error->message : "unknown"));
        if (error)
            g_error_free(error);
        if (pipeline)
            gst_object_unref(pipeline);
        finish();
        return;
    }
    EncoderContext context{this, &stream};
    GstElement* hls = gst_bin_get_by_name(GST_BIN(pipeline), "hls");
    GstElement* source = gst_bin_get_by_name(GST_BIN(pipeline), "frames");
    g_signal_connect(hls, "get-fragment-stream", G_CALLBACK(&Impl::onFragmentStream), &context);
    g_signal_connect(hls, "get-playlist-stream", G_CALLBACK(&Impl::onPlaylistStream), nullptr);
    g_signal_connect(hls, "delete-fragment", G_CALLBACK(&Impl::onDeleteFragment), nullptr);
    GstBus* bus = gst_element_get_bus(pipeline);
    gst_bus_set_sync_handler(bus, &Impl::onBusMessage, &context, nullptr);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);

    const std::size_t stride = static_cast<std::size_t>(w) * 4;
    const auto frameTime = std::chrono::duration<double>(1.0 / fps);
    const int burst =
        segmentFrames * (std::min(kFirstSegments, std::max(1, options.playlistLength)) + 1);
    const auto startSteady = Clock::now();
    using WallDuration = std::chrono::system_clock::duration;
    // Frame k shows origin + k frames; a stream that starts now shows its burst as the
    // seconds just past, and from then on frames are made when their moment comes.
    const auto origin = options.sceneStart.value_or(
        std::chrono::system_clock::now() -
        std::chrono::duration_cast<WallDuration>(frameTime * static_cast<double>(burst)));
    auto idle = std::chrono::duration<double>(options.idleSeconds);
    for (std::int64_t k = 0;; ++k) {
        {
            std::unique_lock lock(mutex);
            if (k > burst) {
                auto due = startSteady + std::chrono::duration_cast<Clock::duration>(
                                             frameTime * static_cast<double>(k - burst));
                changed.wait_until(lock, due, [&] { return stream.stopRequested || shuttingDown; });
            }
            // A reader waiting for the first segments is watching.
            bool idleNow = stream.waiting == 0 && Clock::now() - stream.lastAsked > idle;
            if (stream.stopRequested || shuttingDown || idleNow)
                break;
        }
        GstBuffer* buffer =
            gst_buffer_new_allocate(nullptr, stride * static_cast<std::size_t>(h), nullptr);
        GstMapInfo map;
        if (!buffer || !gst_buffer_map(buffer, &map, GST_MAP_WRITE)) {
            if (buffer)
                gst_buffer_unref(buffer);
            break;
        }
        cairo_surface_t* surface = cairo_image_surface_create_for_data(
            map.data, CAIRO_FORMAT_RGB24, w, h, static_cast<int>(stride));
        cairo_t* cr = cairo_create(surface);
        auto wall =
            origin + std::chrono::duration_cast<WallDuration>(frameTime * static_cast<double>(k));
        paintRoadScene(cr, w, h, stream.name,
                       std::chrono::duration<double>(wall.time_since_epoch()).count(),
                       bangkokTimeText(wall));
        cairo_destroy(cr);
        cairo_surface_flush(surface);
        cairo_surface_destroy(surface);
        gst_buffer_unmap(buffer, &map);
        GST_BUFFER_PTS(buffer) = gst_util_uint64_scale(static_cast<guint64>(k), GST_SECOND, fps);
        GST_BUFFER_DURATION(buffer) = gst_util_uint64_scale(1, GST_SECOND, fps);
        if (gst_app_src_push_buffer(GST_APP_SRC(source), buffer) != GST_FLOW_OK)
            break;
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
    gst_object_unref(bus);
    gst_object_unref(source);
    gst_object_unref(hls);
    gst_object_unref(pipeline);
    finish();
}

// A fragment is complete when the splitter says it closed it; fragments close in the order
// they were opened.
void LiveStreams::Impl::addFragment(Stream& stream, GstClockTime runningTime) {
    std::lock_guard lock(mutex);
    if (stream.openFragments.empty())
        return;
    GOutputStream* out = stream.openFragments.front();
    stream.openFragments.pop_front();
    auto* memory = G_MEMORY_OUTPUT_STREAM(out);
    Segment segment;
    segment.sequence = stream.nextSequence++;
    segment.bytes.assign(static_cast<const char*>(g_memory_output_stream_get_data(memory)),
                         g_memory_output_stream_get_data_size(memory));
    GstClockTime span = runningTime > stream.lastClose ? runningTime - stream.lastClose : 0;
    segment.seconds = static_cast<double>(span) / GST_SECOND;
    if (segment.seconds <= 0)
        segment.seconds = options.segmentSeconds;
    stream.lastClose = runningTime;
    g_object_unref(out);
    stream.segments.push_back(std::move(segment));
    auto kept = static_cast<std::size_t>(std::max(options.keptSegments, options.playlistLength));
    while (stream.segments.size() > kept)
        stream.segments.pop_front();
    changed.notify_all();
}

std::string LiveStreams::Impl::playlistText(const Stream& stream) const {
    auto listed = static_cast<std::size_t>(std::max(1, options.playlistLength));
    std::size_t first = stream.segments.size() > listed ? stream.segments.size() - listed : 0;
    double longest = options.segmentSeconds;
    for (std::size_t i = first; i < stream.segments.size(); ++i)
        longest = std::max(longest, stream.segments[i].seconds);
    char line[96];
    std::string text = "#EXTM3U\n#EXT-X-VERSION:3\n";
    std::snprintf(line, sizeof line, "#EXT-X-TARGETDURATION:%d\n",
                  static_cast<int>(std::ceil(longest - 1e-6)));
    text += line;
    std::snprintf(line, sizeof line, "#EXT-X-MEDIA-SEQUENCE:%llu\n",
                  static_cast<unsigned long long>(stream.segments[first].sequence));
    text += line;
    for (std::size_t i = first; i < stream.segments.size(); ++i) {
        std::snprintf(line, sizeof line, "#EXTINF:%.3f,\n%llu.ts\n", stream.segments[i].seconds,
                      static_cast<unsigned long long>(stream.segments[i].sequence));
        text += line;
    }
    return text;
}

GOutputStream* LiveStreams::Impl::onFragmentStream(GstElement*, const gchar*, gpointer data) {
    auto* context = static_cast<EncoderContext*>(data);
    GOutputStream* out = g_memory_output_stream_new_resizable();
    std::lock_guard lock(context->impl->mutex);
    context->stream->openFragments.push_back(G_OUTPUT_STREAM(g_object_ref(out)));
    return out;  // the sink takes this reference
}

// The sink's own playlist is not served (the registry writes its own); it gets a scratch
// stream so that it never writes a file.
GOutputStream* LiveStreams::Impl::onPlaylistStream(GstElement*, const gchar*, gpointer) {
    return g_memory_output_stream_new_resizable();
}

gboolean LiveStreams::Impl::onDeleteFragment(GstElement*, const gchar*, gpointer) {
    return TRUE;  // fragments live in memory; the registry drops them itself
}

GstBusSyncReply LiveStreams::Impl::onBusMessage(GstBus*, GstMessage* message, gpointer data) {
    auto* context = static_cast<EncoderContext*>(data);
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ELEMENT) {
        const GstStructure* s = gst_message_get_structure(message);
        GstClockTime at = 0;
        if (s && gst_structure_has_name(s, "splitmuxsink-fragment-closed") &&
            gst_structure_get_clock_time(s, "running-time", &at))
            context->impl->addFragment(*context->stream, at);
    } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        GError* error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        log::write(log::Level::error, "Live stream " + context->stream->name + ": " +
                                          (error ? error->message : "encoder error"));
        if (error)
            g_error_free(error);
        std::lock_guard lock(context->impl->mutex);
        context->stream->stopRequested = true;
        context->impl->changed.notify_all();
    }
    gst_message_unref(message);  // dropped messages are the handler's to release
    return GST_BUS_DROP;
}

LiveStreams::LiveStreams(LiveStreamOptions options) : impl_(std::make_unique<Impl>()) {
    options.keptSegments = std::max(options.keptSegments, options.playlistLength);
    impl_->options = options;
}

LiveStreams::~LiveStreams() {
    std::vector<std::thread> threads;
    {
        std::lock_guard lock(impl_->mutex);
        impl_->shuttingDown = true;
        for (auto& [name, stream] : impl_->streams)
            if (stream->thread.joinable())
                threads.push_back(std::move(stream->thread));
        impl_->changed.notify_all();
    }
    for (auto& t : threads)
        t.join();
}

Response LiveStreams::playlist(const std::string& name) {
    if (!validName(name))
        return Response::text(404, "no such stream");
    std::unique_lock lock(impl_->mutex);
    if (impl_->shuttingDown)
        return unavailable("shutting down");
    auto& slot = impl_->streams[name];
    if (!slot) {
        slot = std::make_unique<Stream>();
        slot->name = name;
    }
    Stream& stream = *slot;
    if (!impl_->ensureRunning(stream, lock))
        return unavailable("every live encoder is busy");
    auto wanted = static_cast<std::size_t>(
        std::min(kFirstSegments, std::max(1, impl_->options.playlistLength)));
    ++stream.waiting;
    impl_->changed.wait_for(lock, kFirstSegmentsWait, [&] {
        return stream.segments.size() >= wanted || !stream.running || impl_->shuttingDown;
    });
    --stream.waiting;
    if (stream.segments.empty())
        return unavailable("the stream is starting");
    stream.lastAsked = Clock::now();
    Response r;
    r.contentType = "application/vnd.apple.mpegurl";
    r.body = impl_->playlistText(stream);
    r.headers.emplace_back("Cache-Control", "no-cache");
    return r;
}

Response LiveStreams::segment(const std::string& name, std::uint64_t sequence) {
    if (!validName(name))
        return Response::text(404, "no such stream");
    std::lock_guard lock(impl_->mutex);
    auto it = impl_->streams.find(name);
    if (it == impl_->streams.end())
        return Response::text(404, "no such stream");
    Stream& stream = *it->second;
    // Fetching segments is watching: it keeps the encoder from going idle.
    stream.lastAsked = Clock::now();
    for (const Segment& s : stream.segments) {
        if (s.sequence == sequence) {
            Response r;
            r.contentType = "video/mp2t";
            r.body = s.bytes;
            return r;
        }
    }
    return Response::text(404, "no such segment");
}

std::vector<std::string> LiveStreams::runningStreams() const {
    std::lock_guard lock(impl_->mutex);
    std::vector<std::string> names;
    for (auto& [name, stream] : impl_->streams)
        if (stream->running && !stream->stopRequested)
            names.push_back(name);
    return names;
}

const LiveStreamOptions& LiveStreams::options() const {
    return impl_->options;
}

std::shared_ptr<LiveStreams> installLiveRoutes(EmbeddedService& service,
                                               LiveStreamOptions options) {
    auto streams = std::make_shared<LiveStreams>(options);
    service.route("/hls/", [streams](const Request& request) {
        // "/hls/{name}/index.m3u8" or "/hls/{name}/{n}.ts"
        std::string rest = request.path.substr(5);
        auto slash = rest.find('/');
        if (slash == std::string::npos)
            return Response::text(404, "no such stream");
        std::string name = rest.substr(0, slash), file = rest.substr(slash + 1);
        if (file == "index.m3u8")
            return streams->playlist(name);
        if (file.size() > 3 && file.size() <= 22 && file.ends_with(".ts")) {
            std::string digits = file.substr(0, file.size() - 3);
            if (std::all_of(digits.begin(), digits.end(),
                            [](unsigned char c) { return std::isdigit(c); }))
                return streams->segment(name, std::stoull(digits));
        }
        return Response::text(404, "no such file");
    });
    return streams;
}

}  // namespace sorvan::server
