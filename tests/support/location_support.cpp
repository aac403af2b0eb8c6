#include "support/location_support.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "sorvan/platform/foundation/dispatch.hpp"

extern char** environ;

namespace sorvan::test {

std::string locationFixture(const std::string& name) {
    return std::string(SORVAN_TEST_DATA_DIR) + "/fixtures/location/" + name;
}

int freeLoopbackPort() {
    int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t size = sizeof a;
    ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &size);
    ::close(s);
    return ntohs(a.sin_port);
}

std::size_t locationThreads() {
    std::size_t n = 0;
    for (const auto& e : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream in(e.path() / "comm");
        std::string name;
        std::getline(in, name);
        n += name == "sorvan-gpsd" || name == "sorvan-replay" ? 1 : 0;
    }
    return n;
}

bool pumpUntil(const std::function<bool()>& pred, std::chrono::duration<double> timeout) {
    return dispatch::RunLoop::main().runUntil(pred, timeout);
}

// FakeGpsd -------------------------------------------------------------------------------------

FakeGpsd::FakeGpsd(int port) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int yes = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<std::uint16_t>(port));
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::listen(listener_, 8) != 0) {
        std::fprintf(stderr, "FakeGpsd: cannot listen on %d: %s\n", port, std::strerror(errno));
        std::abort();
    }
    socklen_t size = sizeof a;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&a), &size);
    port_ = ntohs(a.sin_port);
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        std::abort();
    }
    wakeRead_ = fds[0];
    wakeWrite_ = fds[1];
    thread_ = std::thread([this] { serve(); });
}

FakeGpsd::~FakeGpsd() {
    char c = 1;
    [[maybe_unused]] ssize_t n = ::write(wakeWrite_, &c, 1);
    thread_.join();
    ::close(listener_);
    ::close(wakeRead_);
    ::close(wakeWrite_);
}

void FakeGpsd::setScript(std::vector<Step> steps, Then then) {
    std::lock_guard lock(mutex_);
    steps_ = std::move(steps);
    then_ = then;
}

std::size_t FakeGpsd::connections() const {
    std::lock_guard lock(mutex_);
    return connections_;
}

std::string FakeGpsd::version() {
    return "{\"class\":\"VERSION\",\"release\":\"3.22\",\"rev\":\"3.22\",\"proto_major\":3,"
           "\"proto_minor\":14}\r\n";
}

std::string FakeGpsd::fix(double latitude, double longitude, const std::string& time) {
    char text[256];
    std::snprintf(text, sizeof text,
                  "{\"class\":\"TPV\",\"device\":\"/dev/fake\",\"mode\":3,\"time\":\"%s\","
                  "\"lat\":%.9f,\"lon\":%.9f,\"altMSL\":5.0,\"track\":90.0,\"speed\":3.0,"
                  "\"eph\":8.0}\r\n",
                  time.c_str(), latitude, longitude);
    return text;
}

void FakeGpsd::serve() {
    for (;;) {
        pollfd fds[2] = {{wakeRead_, POLLIN, 0}, {listener_, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 || fds[0].revents) {
            return;
        }
        int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            continue;
        }
        std::vector<Step> steps;
        Then then;
        {
            std::lock_guard lock(mutex_);
            ++connections_;
            steps = steps_;
            then = then_;
        }
        bool stop = false;
        // Waits, reading and dropping what the client says, until the pause is over, the
        // client leaves or the server stops.
        auto wait = [&](double seconds) {
            auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
            for (;;) {
                auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    end - std::chrono::steady_clock::now());
                if (seconds >= 0 && left.count() <= 0) {
                    return true;
                }
                pollfd w[2] = {{wakeRead_, POLLIN, 0}, {client, POLLIN, 0}};
                int n = ::poll(w, 2, seconds >= 0 ? static_cast<int>(left.count()) : -1);
                if (n > 0 && w[0].revents) {
                    stop = true;
                    return false;
                }
                if (n > 0 && w[1].revents) {
                    char buffer[512];
                    if (::recv(client, buffer, sizeof buffer, 0) <= 0) {
                        return false;
                    }
                }
            }
        };
        bool open = true;
        for (const Step& step : steps) {
            if (!step.send.empty() &&
                ::send(client, step.send.data(), step.send.size(), MSG_NOSIGNAL) < 0) {
                open = false;
                break;
            }
            if (step.pause > 0 && !wait(step.pause)) {
                open = false;
                break;
            }
        }
        if (open && then == Then::Hold) {
            wait(-1);
        }
        ::close(client);
        if (stop) {
            return;
        }
    }
}

// GpsFake --------------------------------------------------------------------------------------

GpsFake::GpsFake(const std::string& log, double cycleSeconds) {
    port_ = freeLoopbackPort();
    char name[] = "/tmp/sorvan-gpsfake-XXXXXX";
    int fd = ::mkstemp(name);
    outputPath_ = name;
    std::string port = std::to_string(port_);
    char cycle[32];
    std::snprintf(cycle, sizeof cycle, "%g", cycleSeconds);
    std::vector<std::string> args = {"gpsfake", "-q", "-P", port, "-c", cycle, log};
    std::vector<char*> argv;
    for (auto& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    // gpsd lives in /usr/sbin, which an ordinary user's PATH may lack.
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        if (std::strncmp(*e, "PATH=", 5) != 0) {
            env.emplace_back(*e);
        }
    }
    const char* path = std::getenv("PATH");
    env.push_back(std::string("PATH=") + (path ? path : "/usr/bin:/bin") + ":/usr/sbin:/sbin");
    std::vector<char*> envp;
    for (auto& e : env) {
        envp.push_back(e.data());
    }
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fd, STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // Its own process group, so that gpsd, its child, goes with it.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    pid_t pid = -1;
    if (posix_spawnp(&pid, "gpsfake", &actions, &attributes, argv.data(), envp.data()) == 0) {
        pid_ = pid;
    }
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(fd);
}

GpsFake::~GpsFake() {
    if (pid_ > 0) {
        ::kill(-pid_, SIGTERM);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        // gpsd may outlive its parent for a moment; the group is gone when this finds none.
        for (int i = 0; i < 100 && ::kill(-pid_, 0) == 0; ++i) {
            ::kill(-pid_, SIGKILL);
            ::usleep(10000);
        }
    }
    std::filesystem::remove(outputPath_);
}

std::string GpsFake::output() const {
    std::ifstream in(outputPath_);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// RecordingLocationDelegate --------------------------------------------------------------------

void RecordingLocationDelegate::check() {
    if (!dispatch::RunLoop::main().isCurrent()) {
        ++offMainCalls;
    }
}

void RecordingLocationDelegate::didUpdateLocations(location::LocationManager&,
                                                   const std::vector<location::Location>& l) {
    check();
    locations.insert(locations.end(), l.begin(), l.end());
    batchSizes.push_back(l.size());
}

void RecordingLocationDelegate::didUpdateHeading(location::LocationManager&,
                                                 const location::Heading& h) {
    check();
    headings.push_back(h);
}

void RecordingLocationDelegate::didFailWithError(location::LocationManager&,
                                                 const location::LocationError& e) {
    check();
    errors.push_back(e);
}

void RecordingLocationDelegate::didChangeAuthorizationStatus(location::LocationManager&,
                                                             location::AuthorizationStatus s) {
    check();
    statuses.push_back(s);
}

void RecordingLocationDelegate::didFinish(location::LocationManager&) {
    check();
    finished = true;
}

}  // namespace sorvan::test
