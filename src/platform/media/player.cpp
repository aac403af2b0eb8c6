#include "sorvan/platform/media/player.hpp"

#include <gst/app/gstappsink.h>
#include <gst/video/video.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <vector>

#include "media/gst_support.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/media/audio_session.hpp"
#include "sorvan/platform/media/player_layer.hpp"

namespace sorvan::media {

namespace {

using Clock = std::chrono::steady_clock;
using detail::CapsPtr;
using detail::ElementPtr;
using detail::StringPtr;

// playbin's flags: video and audio with software volume; no subtitles, no visualisation, no
// deinterlacing or colour balance, which camera streams never need.
constexpr int kPlayFlags = (1 << 0) | (1 << 1) | (1 << 4);

PlayerError::Code codeFor(const GError* error) {
    if (error->domain == GST_RESOURCE_ERROR) {
        switch (error->code) {
            case GST_RESOURCE_ERROR_NOT_FOUND:
                return PlayerError::Code::NotFound;
            case GST_RESOURCE_ERROR_OPEN_READ:
            case GST_RESOURCE_ERROR_READ:
            case GST_RESOURCE_ERROR_OPEN_READ_WRITE:
            case GST_RESOURCE_ERROR_NOT_AUTHORIZED:
            case GST_RESOURCE_ERROR_BUSY:
                return PlayerError::Code::Network;
            default:
                return PlayerError::Code::Other;
        }
    }
    if (error->domain == GST_STREAM_ERROR) {
        switch (error->code) {
            case GST_STREAM_ERROR_TYPE_NOT_FOUND:
            case GST_STREAM_ERROR_WRONG_TYPE:
            case GST_STREAM_ERROR_DEMUX:
            case GST_STREAM_ERROR_FORMAT:
                return PlayerError::Code::UnsupportedContent;
            case GST_STREAM_ERROR_DECODE:
                return PlayerError::Code::Decode;
            case GST_STREAM_ERROR_CODEC_NOT_FOUND:
                return PlayerError::Code::MissingPart;
            default:
                return PlayerError::Code::Other;
        }
    }
    if (error->domain == GST_CORE_ERROR && error->code == GST_CORE_ERROR_MISSING_PLUGIN)
        return PlayerError::Code::MissingPart;
    return PlayerError::Code::Other;
}

bool startsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

bool isURISource(GstObject* object) {
    return object && GST_IS_URI_HANDLER(object) &&
           gst_uri_handler_get_uri_type(GST_URI_HANDLER(object)) == GST_URI_SRC;
}

// What a missing decoder means for a player of pictures. The decoding bins only say they lack
// a decoder for what they found; for anything but sound nothing will ever be shown: a web page
// or garbage is no stream at all, and video without its decoder cannot be drawn.
std::optional<PlayerError> missingDecoder(const std::string& type) {
    if (startsWith(type, "audio/"))
        return std::nullopt;  // the pictures may still play
    if (startsWith(type, "video/") || startsWith(type, "application/x-hls") ||
        startsWith(type, "application/dash"))
        return PlayerError{PlayerError::Code::MissingPart, "No decoder for " + type};
    return PlayerError{PlayerError::Code::UnsupportedContent, "Not a stream (" + type + ")"};
}

// The player's error for an error message. Where the framework's text says little ("Internal
// data stream error", "missing a plug-in"), what happened is told instead.
PlayerError describe(GstMessage* message) {
    GError* raw = nullptr;
    gchar* rawDebug = nullptr;
    gst_message_parse_error(message, &raw, &rawDebug);
    detail::ErrorPtr error(raw);
    StringPtr debugText(rawDebug);
    if (!error)
        return {PlayerError::Code::Other, "Playback failed"};
    // Trimmed: an HTTP source may pass the status line's reason on with its line end.
    std::string text = error->message ? error->message : "Playback failed";
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
        text.pop_back();
    PlayerError result{codeFor(error.get()), text};
    // The HTTP source puts the status in its debug text: "Not Found (404), URL: ...".
    std::string debug = rawDebug ? rawDebug : "";
    std::string head = result.description + " (";
    auto at = debug.find(head);
    if (at != std::string::npos && debug.size() >= at + head.size() + 4 &&
        debug[at + head.size() + 3] == ')')
        result.description = debug.substr(at, head.size() + 4);
    // A source that cannot reach its server posts only the generic streaming failure.
    if (error->domain == GST_STREAM_ERROR && error->code == GST_STREAM_ERROR_FAILED &&
        isURISource(GST_MESSAGE_SRC(message)))
        return {PlayerError::Code::Network, "Could not connect to the server or read from it"};
    return result;
}

// An opaque copy of a BGRx picture in the image's native-endian ARGB layout. The padding
// byte becomes full alpha: decoders leave it undefined.
std::shared_ptr<gfx::Image> imageFromSample(GstSample* sample) {
    GstCaps* caps = gst_sample_get_caps(sample);
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    GstVideoInfo info;
    if (!caps || !buffer || !gst_video_info_from_caps(&info, caps))
        return nullptr;
    int w = GST_VIDEO_INFO_WIDTH(&info), h = GST_VIDEO_INFO_HEIGHT(&info);
    if (w <= 0 || h <= 0 || GST_VIDEO_INFO_FORMAT(&info) != GST_VIDEO_FORMAT_BGRx)
        return nullptr;
    GstVideoFrame frame;
    if (!gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ))
        return nullptr;
    std::vector<std::uint32_t> pixels(static_cast<std::size_t>(w) * static_cast<std::size_t>(h));
    auto* base = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
    auto stride = static_cast<std::size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0));
    for (int y = 0; y < h; ++y) {
        auto* row =
            reinterpret_cast<const std::uint32_t*>(base + stride * static_cast<std::size_t>(y));
        std::uint32_t* out =
            pixels.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(w);
        for (int x = 0; x < w; ++x)
            out[x] = row[x] | 0xff000000u;
    }
    gst_video_frame_unmap(&frame);
    return gfx::Image::fromPixels(w, h, std::move(pixels), 1.0);
}

}  // namespace

struct Player::Impl : std::enable_shared_from_this<Impl> {
    // Constant after create().
    std::string url;
    PlayerOptions options;

    // The pipeline and every state change of it, under one lock: the owner's stop, the
    // control queue's stop after an error and rate changes never interleave. Streaming
    // threads never take it (a state change to NULL waits for them).
    std::mutex pipelineMutex;
    GstElement* pipeline = nullptr;  // owned; nullptr after stop()

    mutable std::mutex mutex;  // the rest
    PlayerStatus status = PlayerStatus::Unknown;
    std::optional<PlayerError> error;
    std::shared_ptr<gfx::Image> frame;
    std::uint64_t frames = 0;
    float rate = 0;
    Clock::time_point lastProgress = Clock::now();
    std::vector<std::weak_ptr<PlayerLayer>> layers;  // main queue reads them
    std::condition_variable changed;                 // a picture arrived or the player failed

    std::atomic<bool> redrawPosted{false};
    std::atomic<bool> stopped{false};

    ~Impl() { stop(); }

    bool start();
    void stop() noexcept;
    void fail(PlayerError e);
    void deliver(GstSample* sample);
    void applyRate(float rate);
    void watchForStall();
    void postRedraw();

    static GstBusSyncReply onBusMessage(GstBus* bus, GstMessage* message, gpointer data);
    static GstFlowReturn onPreroll(GstAppSink* sink, gpointer data);
    static GstFlowReturn onSample(GstAppSink* sink, gpointer data);
};

bool Player::Impl::start() {
    std::string reason;
    if (!detail::initialize(&reason)) {
        fail({PlayerError::Code::MissingPart, "The media framework did not start: " + reason});
        return false;
    }
    if (!gst_uri_is_valid(url.c_str())) {
        fail({PlayerError::Code::UnsupportedContent, "Not a stream address: " + url});
        return false;
    }
    ElementPtr playbin(gst_element_factory_make("playbin", nullptr));
    ElementPtr sink(gst_element_factory_make("appsink", nullptr));
    if (!playbin || !sink) {
        fail({PlayerError::Code::MissingPart,
              "The media framework lacks playbin or appsink (GStreamer base plugins)"});
        return false;
    }
    // Both floating until playbin takes the sink; sink ownership passes to playbin below.
    gst_object_ref_sink(playbin.get());
    CapsPtr caps(gst_caps_from_string("video/x-raw,format=BGRx"));
    // One picture waits at most; a slow consumer never holds decoded pictures back, and
    // pictures are shown on the pipeline's clock, not as fast as they decode.
    g_object_set(sink.get(), "caps", caps.get(), "max-buffers", 1u, "drop", TRUE, "sync", TRUE,
                 "enable-last-sample", FALSE, nullptr);
    GstAppSinkCallbacks callbacks{};
    callbacks.new_preroll = &Impl::onPreroll;
    callbacks.new_sample = &Impl::onSample;
    gst_app_sink_set_callbacks(GST_APP_SINK(sink.get()), &callbacks, this, nullptr);
    g_object_set(playbin.get(), "uri", url.c_str(), "flags", kPlayFlags, "video-sink",
                 sink.release(), nullptr);

    auto properties = AudioSession::shared().streamProperties();
    if (!properties.empty()) {
        if (GstElement* pulse = gst_element_factory_make("pulsesink", nullptr)) {
            detail::StructurePtr props(gst_structure_new_empty("props"));
            for (const auto& [key, value] : properties)
                gst_structure_set(props.get(), key.c_str(), G_TYPE_STRING, value.c_str(), nullptr);
            g_object_set(pulse, "stream-properties", props.get(), nullptr);
            g_object_set(playbin.get(), "audio-sink", pulse, nullptr);
        }
    }

    detail::BusPtr bus(gst_element_get_bus(playbin.get()));
    gst_bus_set_sync_handler(bus.get(), &Impl::onBusMessage, this, nullptr);

    std::lock_guard lock(pipelineMutex);
    pipeline = playbin.release();
    detail::pipelineCreated();
    // Opening to PAUSED fetches the stream and decodes its first picture without advancing;
    // play() moves on from there.
    // The bus has usually told why already; fail() keeps that first reason and its one line.
    // (fail() only queues its stop, so holding pipelineMutex here is safe.)
    if (gst_element_set_state(pipeline, GST_STATE_PAUSED) == GST_STATE_CHANGE_FAILURE &&
        !stopped.load())
        fail({PlayerError::Code::Other, "The stream could not be opened"});
    return true;
}

void Player::Impl::stop() noexcept {
    std::lock_guard lock(pipelineMutex);
    stopped.store(true);
    if (!pipeline)
        return;
    // Joins every streaming thread; afterwards no callback can reach this object.
    gst_element_set_state(pipeline, GST_STATE_NULL);
    detail::BusPtr bus(gst_element_get_bus(pipeline));
    gst_bus_set_sync_handler(bus.get(), nullptr, nullptr, nullptr);
    gst_object_unref(pipeline);
    pipeline = nullptr;
    detail::pipelineDestroyed();
}

void Player::Impl::fail(PlayerError e) {
    {
        std::lock_guard lock(mutex);
        if (error)
            return;
        error = e;
        status = PlayerStatus::Failed;
    }
    changed.notify_all();
    log::error("Player error (%s): %s", url.c_str(), e.description.c_str());
    // Stopping waits for the streaming threads, and this may be one of them.
    std::weak_ptr<Impl> weak = weak_from_this();
    detail::controlQueue().async([weak] {
        if (auto self = weak.lock()) {
            std::lock_guard lock(self->pipelineMutex);
            if (self->pipeline)
                gst_element_set_state(self->pipeline, GST_STATE_NULL);
        }
    });
    postRedraw();
}

void Player::Impl::deliver(GstSample* sample) {
    auto image = imageFromSample(sample);
    if (!image)
        return;
    {
        std::lock_guard lock(mutex);
        if (status == PlayerStatus::Failed)
            return;
        frame = std::move(image);
        ++frames;
        status = PlayerStatus::ReadyToPlay;
        lastProgress = Clock::now();
    }
    changed.notify_all();
    postRedraw();
}

// One redraw task at a time: pictures arriving faster than the main queue draws fold into one.
void Player::Impl::postRedraw() {
    if (redrawPosted.exchange(true))
        return;
    std::weak_ptr<Impl> weak = weak_from_this();
    dispatch::RunLoop::main().async([weak] {
        auto self = weak.lock();
        if (!self)
            return;
        self->redrawPosted.store(false);
        std::vector<std::weak_ptr<PlayerLayer>> shown;
        {
            std::lock_guard lock(self->mutex);
            std::erase_if(self->layers, [](const auto& w) { return w.expired(); });
            shown = self->layers;
        }
        for (auto& weakLayer : shown)
            if (auto layer = weakLayer.lock())
                layer->setNeedsDisplay();
    });
}

void Player::Impl::applyRate(float r) {
    std::lock_guard lock(pipelineMutex);
    if (!pipeline)
        return;
    {
        // Streaming threads write the status under the other lock.
        std::lock_guard stateLock(mutex);
        if (status == PlayerStatus::Failed)
            return;
    }
    if (r == 0) {
        gst_element_set_state(pipeline, GST_STATE_PAUSED);
        return;
    }
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    if (r == 1)
        return;
    gint64 position = 0;
    if (!gst_element_query_position(pipeline, GST_FORMAT_TIME, &position))
        return;
    // Live streams refuse; they keep playing at their own pace.
    gst_element_seek(pipeline, r, GST_FORMAT_TIME,
                     static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_KEY_UNIT),
                     GST_SEEK_TYPE_SET, r > 0 ? position : 0, GST_SEEK_TYPE_NONE,
                     GST_CLOCK_TIME_NONE);
}

// Checks on the control queue, a few times per timeout, whether pictures stopped coming while
// they should come: before the first one, and while playing.
void Player::Impl::watchForStall() {
    if (options.stallTimeoutSeconds <= 0)
        return;
    auto timeout = std::chrono::duration<double>(options.stallTimeoutSeconds);
    auto step = std::min(std::chrono::duration<double>(1.0), timeout / 4);
    std::weak_ptr<Impl> weak = weak_from_this();
    detail::controlQueue().asyncAfter(step, [weak, timeout] {
        auto self = weak.lock();
        if (!self || self->stopped.load())
            return;
        bool stalled = false;
        {
            std::lock_guard lock(self->mutex);
            if (self->status == PlayerStatus::Failed)
                return;
            bool expecting = self->frames == 0 || self->rate != 0;
            stalled = expecting && Clock::now() - self->lastProgress > timeout;
        }
        if (stalled) {
            char text[96];
            std::snprintf(text, sizeof text, "No picture arrived for %g s",
                          self->options.stallTimeoutSeconds);
            self->fail({PlayerError::Code::Stalled, text});
            return;
        }
        self->watchForStall();
    });
}

GstBusSyncReply Player::Impl::onBusMessage(GstBus*, GstMessage* message, gpointer data) {
    auto* self = static_cast<Impl*>(data);
    switch (GST_MESSAGE_TYPE(message)) {
        case GST_MESSAGE_ERROR:
            self->fail(describe(message));
            break;
        case GST_MESSAGE_ELEMENT: {
            const GstStructure* s = gst_message_get_structure(message);
            const GValue* detail = s && gst_structure_has_name(s, "missing-plugin")
                                       ? gst_structure_get_value(s, "detail")
                                       : nullptr;
            if (detail && GST_VALUE_HOLDS_CAPS(detail)) {
                const GstCaps* caps = gst_value_get_caps(detail);
                if (caps && gst_caps_get_size(caps) > 0) {
                    if (auto e =
                            missingDecoder(gst_structure_get_name(gst_caps_get_structure(caps, 0))))
                        self->fail(*e);
                }
            }
            break;
        }
        case GST_MESSAGE_EOS: {
            // A finished stream shows its last picture; nothing more will come.
            std::lock_guard lock(self->mutex);
            self->rate = 0;
            break;
        }
        default:
            break;
    }
    // Nothing waits on this bus: every message is handled here, and a dropped one is ours to
    // release (each holds its source element, and through it the pipeline).
    gst_message_unref(message);
    return GST_BUS_DROP;
}

GstFlowReturn Player::Impl::onPreroll(GstAppSink* sink, gpointer data) {
    if (GstSample* sample = gst_app_sink_pull_preroll(sink)) {
        static_cast<Impl*>(data)->deliver(sample);
        gst_sample_unref(sample);
    }
    return GST_FLOW_OK;
}

GstFlowReturn Player::Impl::onSample(GstAppSink* sink, gpointer data) {
    if (GstSample* sample = gst_app_sink_pull_sample(sink)) {
        static_cast<Impl*>(data)->deliver(sample);
        gst_sample_unref(sample);
    }
    return GST_FLOW_OK;
}

// Player ------------------------------------------------------------------------------------

Player::Player() : impl_(std::make_shared<Impl>()) {}

Player::~Player() {
    impl_->stop();
}

std::shared_ptr<Player> Player::create(const std::string& url, PlayerOptions options) {
    std::shared_ptr<Player> player(new Player());
    player->impl_->url = url;
    player->impl_->options = options;
    if (player->impl_->start())
        player->impl_->watchForStall();
    return player;
}

const std::string& Player::url() const {
    return impl_->url;
}

void Player::play() {
    setRate(1);
}

void Player::pause() {
    setRate(0);
}

float Player::rate() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->rate;
}

void Player::setRate(float rate) {
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->status == PlayerStatus::Failed)
            return;
        // Playing again starts the stall window afresh: a paused player waits for nothing.
        if (impl_->rate == 0 && rate != 0)
            impl_->lastProgress = Clock::now();
        impl_->rate = rate;
    }
    impl_->applyRate(rate);
}

PlayerStatus Player::status() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->status;
}

std::optional<PlayerError> Player::error() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->error;
}

std::shared_ptr<gfx::Image> Player::currentFrame() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->frame;
}

std::uint64_t Player::decodedFrameCount() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->frames;
}

bool Player::waitForFirstFrame(std::chrono::duration<double> timeout) {
    auto& loop = dispatch::RunLoop::main();
    if (loop.isCurrent()) {
        loop.runUntil(
            [this] {
                std::lock_guard lock(impl_->mutex);
                return impl_->frames > 0 || impl_->status == PlayerStatus::Failed;
            },
            timeout);
        return decodedFrameCount() > 0;
    }
    std::unique_lock lock(impl_->mutex);
    impl_->changed.wait_for(lock, timeout, [this] {
        return impl_->frames > 0 || impl_->status == PlayerStatus::Failed;
    });
    return impl_->frames > 0;
}

void Player::addLayer(std::weak_ptr<PlayerLayer> layer) {
    std::lock_guard lock(impl_->mutex);
    impl_->layers.push_back(std::move(layer));
}

void Player::removeLayer(const PlayerLayer* layer) {
    std::lock_guard lock(impl_->mutex);
    std::erase_if(impl_->layers, [layer](const auto& w) {
        auto shown = w.lock();
        return !shown || shown.get() == layer;
    });
}

std::size_t Player::livePipelineCount() {
    return detail::livePipelines();
}

}  // namespace sorvan::media
