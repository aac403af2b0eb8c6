// The process's audio session: how its sound should be treated next to other programs'. With a
// sound server (PulseAudio, or PipeWire speaking its protocol) the category and mode become the
// stream properties every player gives its audio streams ("media.role", "application.id"), so
// the server's policies (ducking, corking, routing by role) apply; without one, setting them is
// recorded and changes nothing.
//
// Thread-safe. Players made after a change use the new properties.
//
//   auto error = sorvan::media::AudioSession::shared().setCategory(
//       sorvan::media::AudioSessionCategory::Playback, sorvan::media::AudioSessionMode::Default,
//       sorvan::media::kAudioSessionMixWithOthers);
//   // error may be ignored: playback works either way
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "sorvan/platform/export.hpp"

namespace sorvan::media {

enum class AudioSessionCategory {
    Ambient = 0,
    SoloAmbient = 1,
    Playback = 2,
    Record = 3,
    PlayAndRecord = 4,
    MultiRoute = 5,
};

enum class AudioSessionMode {
    Default = 0,
    VoiceChat = 1,
    GameChat = 2,
    VideoRecording = 3,
    Measurement = 4,
    MoviePlayback = 5,
    VideoChat = 6,
    SpokenAudio = 7,
    VoicePrompt = 8,
};

/// Category options, combined as bits.
enum AudioSessionCategoryOptions : unsigned {
    kAudioSessionMixWithOthers = 1,
    kAudioSessionDuckOthers = 2,
    kAudioSessionAllowBluetooth = 4,
    kAudioSessionDefaultToSpeaker = 8,
};

struct AudioSessionError {
    std::string description;
};

class SORVAN_EXPORT AudioSession {
  public:
    static AudioSession& shared();

    /// Sets all three at once. A category or mode value outside the enumerations gives an
    /// error and changes nothing; so does an option bit that is not one of the above.
    std::optional<AudioSessionError> setCategory(AudioSessionCategory category,
                                                 AudioSessionMode mode, unsigned options);
    AudioSessionCategory category() const;
    AudioSessionMode mode() const;
    unsigned categoryOptions() const;

    /// True when a sound server's socket is there to talk to (looked up on each call).
    bool hasSoundServer() const;
    /// The properties players give their audio streams; empty without a sound server.
    std::map<std::string, std::string> streamProperties() const;

    AudioSession(const AudioSession&) = delete;
    AudioSession& operator=(const AudioSession&) = delete;

  private:
    AudioSession();
    ~AudioSession();
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace sorvan::media
