#include "sorvan/platform/media/audio_session.hpp"

#include <sys/stat.h>

#include <cstdlib>
#include <mutex>

#include "sorvan/platform/foundation/bundle.hpp"

namespace sorvan::media {

namespace {

constexpr unsigned kKnownOptions = kAudioSessionMixWithOthers | kAudioSessionDuckOthers |
                                   kAudioSessionAllowBluetooth | kAudioSessionDefaultToSpeaker;

bool isSocket(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

// PulseAudio and PipeWire's Pulse service both listen on this socket; an explicit server
// address counts too.
bool soundServerPresent() {
    const char* server = std::getenv("PULSE_SERVER");
    if (server && *server)
        return true;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    return runtime && *runtime && isSocket(std::string(runtime) + "/pulse/native");
}

// The sound server's roles drive its policies: "phone" streams cork or duck "music" and
// "video" ones, "event" streams are short sounds, "production" is left alone.
const char* roleFor(AudioSessionCategory category, AudioSessionMode mode) {
    switch (mode) {
        case AudioSessionMode::VoiceChat:
        case AudioSessionMode::VideoChat:
        case AudioSessionMode::VoicePrompt:
            return "phone";
        case AudioSessionMode::GameChat:
            return "game";
        case AudioSessionMode::MoviePlayback:
            return "video";
        case AudioSessionMode::Measurement:
        case AudioSessionMode::VideoRecording:
            return "production";
        case AudioSessionMode::SpokenAudio:
        case AudioSessionMode::Default:
            break;
    }
    switch (category) {
        case AudioSessionCategory::Ambient:
            return "event";
        case AudioSessionCategory::SoloAmbient:
            return "game";
        case AudioSessionCategory::Playback:
            return "music";
        case AudioSessionCategory::PlayAndRecord:
            return "phone";
        case AudioSessionCategory::Record:
        case AudioSessionCategory::MultiRoute:
            return "production";
    }
    return "music";
}

}  // namespace

struct AudioSession::Impl {
    mutable std::mutex mutex;
    AudioSessionCategory category = AudioSessionCategory::SoloAmbient;
    AudioSessionMode mode = AudioSessionMode::Default;
    unsigned options = 0;
};

AudioSession::AudioSession() : impl_(std::make_unique<Impl>()) {}
AudioSession::~AudioSession() = default;

AudioSession& AudioSession::shared() {
    static AudioSession session;
    return session;
}

std::optional<AudioSessionError> AudioSession::setCategory(AudioSessionCategory category,
                                                           AudioSessionMode mode,
                                                           unsigned options) {
    auto c = static_cast<int>(category), m = static_cast<int>(mode);
    if (c < 0 || c > static_cast<int>(AudioSessionCategory::MultiRoute))
        return AudioSessionError{"Unknown audio session category " + std::to_string(c)};
    if (m < 0 || m > static_cast<int>(AudioSessionMode::VoicePrompt))
        return AudioSessionError{"Unknown audio session mode " + std::to_string(m)};
    if (options & ~kKnownOptions)
        return AudioSessionError{"Unknown audio session options " + std::to_string(options)};
    std::lock_guard lock(impl_->mutex);
    impl_->category = category;
    impl_->mode = mode;
    impl_->options = options;
    return std::nullopt;
}

AudioSessionCategory AudioSession::category() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->category;
}

AudioSessionMode AudioSession::mode() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->mode;
}

unsigned AudioSession::categoryOptions() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->options;
}

bool AudioSession::hasSoundServer() const {
    return soundServerPresent();
}

std::map<std::string, std::string> AudioSession::streamProperties() const {
    if (!soundServerPresent())
        return {};
    std::lock_guard lock(impl_->mutex);
    // Mixing with others needs nothing said: streams of ordinary roles mix unless a policy
    // module corks them, and only "phone" streams ask for that.
    return {{"media.role", roleFor(impl_->category, impl_->mode)},
            {"application.id", Bundle::main().identifier()}};
}

}  // namespace sorvan::media
