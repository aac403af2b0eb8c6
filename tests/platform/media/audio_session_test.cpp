// The audio session's mapping onto a sound server's stream properties, with a stand-in server
// socket, and without one.
#include "sorvan/platform/media/audio_session.hpp"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "sorvan/platform/foundation/bundle.hpp"
#include "support/foundation_support.hpp"

namespace sorvan::media {
namespace {

// A listening unix socket where the sound server's would be, for the life of the object.
class FakeSoundServer {
  public:
    explicit FakeSoundServer(const std::string& runtimeDir) {
        std::filesystem::create_directories(runtimeDir + "/pulse");
        std::string path = runtimeDir + "/pulse/native";
        fd_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        ::listen(fd_, 1);
    }
    ~FakeSoundServer() { ::close(fd_); }

  private:
    int fd_ = -1;
};

class AudioSessionTest : public ::testing::Test {
  protected:
    void TearDown() override {
        AudioSession::shared().setCategory(AudioSessionCategory::SoloAmbient,
                                           AudioSessionMode::Default, 0);
    }
};

TEST_F(AudioSessionTest, MapsCategoryAndModeToTheSoundServersRoles) {
    test::TempDir runtime;
    test::ScopedEnv noServer("PULSE_SERVER", std::nullopt);
    test::ScopedEnv dir("XDG_RUNTIME_DIR", runtime.path());
    auto& session = AudioSession::shared();

    // No server: the settings are kept, and players are told nothing.
    EXPECT_FALSE(session.setCategory(AudioSessionCategory::Playback, AudioSessionMode::Default,
                                     kAudioSessionMixWithOthers));
    EXPECT_FALSE(session.hasSoundServer());
    EXPECT_TRUE(session.streamProperties().empty());
    EXPECT_EQ(session.category(), AudioSessionCategory::Playback);
    EXPECT_EQ(session.categoryOptions(), 1u);

    FakeSoundServer server(runtime.path());
    ASSERT_TRUE(session.hasSoundServer());
    struct Case {
        AudioSessionCategory category;
        AudioSessionMode mode;
        std::string role;
    };
    for (const Case& c : std::vector<Case>{
             {AudioSessionCategory::Playback, AudioSessionMode::Default, "music"},
             {AudioSessionCategory::Playback, AudioSessionMode::MoviePlayback, "video"},
             {AudioSessionCategory::Playback, AudioSessionMode::SpokenAudio, "music"},
             {AudioSessionCategory::PlayAndRecord, AudioSessionMode::VoiceChat, "phone"},
             {AudioSessionCategory::Ambient, AudioSessionMode::Default, "event"},
             {AudioSessionCategory::SoloAmbient, AudioSessionMode::GameChat, "game"},
             {AudioSessionCategory::Record, AudioSessionMode::Measurement, "production"},
         }) {
        ASSERT_FALSE(session.setCategory(c.category, c.mode, kAudioSessionMixWithOthers));
        auto properties = session.streamProperties();
        EXPECT_EQ(properties["media.role"], c.role);
        EXPECT_EQ(properties["application.id"], Bundle::main().identifier());
    }
}

TEST_F(AudioSessionTest, UnknownValuesAreErrorsThatChangeNothing) {
    auto& session = AudioSession::shared();
    ASSERT_FALSE(session.setCategory(AudioSessionCategory::Playback, AudioSessionMode::Default,
                                     kAudioSessionMixWithOthers));
    auto category =
        session.setCategory(static_cast<AudioSessionCategory>(9), AudioSessionMode::Default, 0);
    ASSERT_TRUE(category);
    EXPECT_EQ(category->description, "Unknown audio session category 9");
    auto mode =
        session.setCategory(AudioSessionCategory::Ambient, static_cast<AudioSessionMode>(-1), 0);
    ASSERT_TRUE(mode);
    EXPECT_EQ(mode->description, "Unknown audio session mode -1");
    auto options =
        session.setCategory(AudioSessionCategory::Ambient, AudioSessionMode::Default, 1u << 7);
    ASSERT_TRUE(options);
    EXPECT_EQ(options->description, "Unknown audio session options 128");
    EXPECT_EQ(session.category(), AudioSessionCategory::Playback);
    EXPECT_EQ(session.mode(), AudioSessionMode::Default);
    EXPECT_EQ(session.categoryOptions(), 1u);
}

}  // namespace
}  // namespace sorvan::media
