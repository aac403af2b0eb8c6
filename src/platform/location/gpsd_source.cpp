#include "sorvan/platform/location/gpsd_source.hpp"

#include <fcntl.h>
#include <gps.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <thread>

#include "location/heading_composer.hpp"
#include "location/track_readers.hpp"
#include "sorvan/platform/foundation/log.hpp"

namespace sorvan::location {
namespace {

using Seconds = std::chrono::duration<double>;
using SteadyClock = std::chrono::steady_clock;

int milliseconds(Seconds s) {
    double ms = std::ceil(s.count() * 1000);
    return ms <= 0 ? 0 : ms > 1e9 ? 1000000000 : static_cast<int>(ms);
}

struct Fd {
    int fd = -1;
    Fd() = default;
    explicit Fd(int f) : fd(f) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
};

struct AddrInfoDeleter {
    void operator()(addrinfo* a) const { freeaddrinfo(a); }
};

// The client library's session, closed on every path out.
struct Session {
    gps_data_t data{};
    bool open = false;
    ~Session() {
        if (open) {
            gps_close(&data);
        }
    }
};

Timestamp fromTimespec(const timespec& t) {
    if (t.tv_sec == 0 && t.tv_nsec == 0) {
        return std::chrono::time_point_cast<Timestamp::duration>(std::chrono::system_clock::now());
    }
    return Timestamp(std::chrono::duration_cast<Timestamp::duration>(
        std::chrono::seconds(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec)));
}

// A line fit for a log: printable characters only, cut short.
std::string printable(const char* text) {
    std::string out;
    for (const char* p = text; *p && out.size() < 60; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (c == '\r' || c == '\n') {
            continue;
        }
        out += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?';
    }
    return out;
}

bool isPowerOfTen(std::size_t n) {
    while (n >= 10 && n % 10 == 0) {
        n /= 10;
    }
    return n == 1;
}

}  // namespace

struct GpsdSource::Impl {
    GpsdSource* self = nullptr;
    Options options;
    std::string name;  // "gpsd at HOST:PORT"
    std::thread thread;
    std::atomic<bool> stop{false};
    int wakeRead = -1, wakeWrite = -1;

    // Reporting state of the feed thread.
    bool outageReported = false;
    HeadingComposer composer;
    std::optional<Timestamp> lastReportTime;
    std::size_t junkLines = 0;

    // Waits for fd to be ready for `events` (or only for the wake-up when fd < 0). Returns 1
    // when ready, 0 on timeout, -1 when woken to stop.
    int waitFor(int fd, short events, Seconds timeout) {
        pollfd fds[2] = {{wakeRead, POLLIN, 0}, {fd, events, 0}};
        auto deadline =
            SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(timeout);
        for (;;) {
            if (stop) {
                return -1;
            }
            int left = milliseconds(deadline - SteadyClock::now());
            int n = ::poll(fds, fd >= 0 ? 2 : 1, left);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (stop || (n > 0 && fds[0].revents)) {
                return -1;
            }
            if (n > 0) {
                return 1;
            }
            if (left == 0 || n == 0) {
                return 0;
            }
        }
    }

    // A connection attempt that a stop interrupts: the client library's own connect waits as
    // long as the network makes it wait.
    bool reachable(std::string& why) {
        addrinfo hints{};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* found = nullptr;
        int rc = getaddrinfo(options.host.c_str(), options.port.c_str(), &hints, &found);
        if (rc != 0) {
            why = gai_strerror(rc);
            return false;
        }
        std::unique_ptr<addrinfo, AddrInfoDeleter> list(found);
        why = "no address";
        for (addrinfo* a = list.get(); a; a = a->ai_next) {
            Fd s(::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                          a->ai_protocol));
            if (s.fd < 0) {
                why = std::strerror(errno);
                continue;
            }
            if (::connect(s.fd, a->ai_addr, a->ai_addrlen) == 0) {
                return true;
            }
            if (errno != EINPROGRESS) {
                why = std::strerror(errno);
                continue;
            }
            int ready = waitFor(s.fd, POLLOUT, options.connectTimeout);
            if (ready < 0) {
                why = "stopped";
                return false;
            }
            if (ready == 0) {
                why = "no answer within " + std::to_string(milliseconds(options.connectTimeout)) +
                      " ms";
                continue;
            }
            int error = 0;
            socklen_t size = sizeof error;
            ::getsockopt(s.fd, SOL_SOCKET, SO_ERROR, &error, &size);
            if (error == 0) {
                return true;
            }
            why = std::strerror(error);
        }
        return false;
    }

    void handle(const gps_data_t& data) {
        Impl& m = *this;
        const gps_fix_t& fix = data.fix;
        if (std::isfinite(fix.magnetic_var)) {
            m.composer.setDeclination(fix.magnetic_var);
        }
        if ((data.set & TIME_SET) && fix.time.tv_sec != 0) {
            m.lastReportTime = fromTimespec(fix.time);
        }
        if ((data.set & LATLON_SET) && fix.mode >= MODE_2D && std::isfinite(fix.latitude) &&
            std::isfinite(fix.longitude) && std::abs(fix.latitude) <= 90 &&
            std::abs(fix.longitude) <= 180) {
            Timestamp at = fromTimespec(fix.time);
            Location l;
            l.coordinate = {fix.latitude, fix.longitude};
            if (std::isfinite(fix.eph)) {
                l.horizontalAccuracy = fix.eph;
            } else if (std::isfinite(fix.epx) && std::isfinite(fix.epy)) {
                l.horizontalAccuracy = std::max(fix.epx, fix.epy);
            } else if (std::isfinite(data.dop.hdop)) {
                l.horizontalAccuracy = std::max(1.0, data.dop.hdop * 5);
            } else {
                l.horizontalAccuracy = kNominalPositionAccuracy;
            }
            double altitude = std::isfinite(fix.altMSL) ? fix.altMSL
                              : std::isfinite(fix.altHAE) && std::isfinite(fix.geoid_sep)
                                  ? fix.altHAE - fix.geoid_sep
                                  : NAN;
            if (fix.mode >= MODE_3D && std::isfinite(altitude)) {
                l.altitude = altitude;
                l.verticalAccuracy = std::isfinite(fix.epv) ? fix.epv : l.horizontalAccuracy * 1.5;
            }
            if (std::isfinite(fix.speed) && fix.speed >= 0) {
                l.speed = fix.speed;
            }
            if (std::isfinite(fix.track)) {
                l.course = normalizedDegrees(fix.track);
            }
            l.timestamp = at;
            self->publishLocation(l);
            if (auto h = m.composer.course(fix.track, fix.speed, fix.epd, at)) {
                self->publishHeading(*h);
            }
        }
        if ((data.set & ATTITUDE_SET) && std::isfinite(data.attitude.heading)) {
            // Attitude reports of compass sentences carry no time of their own: they belong to
            // the fix report they follow.
            Timestamp at = data.attitude.mtime.tv_sec != 0 ? fromTimespec(data.attitude.mtime)
                           : m.lastReportTime              ? *m.lastReportTime
                                                           : fromTimespec({0, 0});
            self->publishHeading(m.composer.compassTrue(data.attitude.heading, at));
        }
    }
};

std::shared_ptr<GpsdSource> GpsdSource::create(Options options) {
    return std::shared_ptr<GpsdSource>(new GpsdSource(std::move(options)));
}

GpsdSource::GpsdSource(Options options) : impl_(std::make_unique<Impl>()) {
    impl_->self = this;
    impl_->options = std::move(options);
    bool v6 = impl_->options.host.find(':') != std::string::npos;
    impl_->name = "gpsd at " + (v6 ? "[" + impl_->options.host + "]" : impl_->options.host) + ":" +
                  impl_->options.port;
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
        impl_->wakeRead = fds[0];
        impl_->wakeWrite = fds[1];
    }
}

GpsdSource::~GpsdSource() {
    stopFeed();
    if (impl_->wakeRead >= 0) {
        ::close(impl_->wakeRead);
        ::close(impl_->wakeWrite);
    }
}

std::string GpsdSource::description() const {
    return impl_->name;
}

void GpsdSource::stopFeed() {
    impl_->stop = true;
    if (impl_->wakeWrite >= 0) {
        char c = 1;
        [[maybe_unused]] ssize_t n = ::write(impl_->wakeWrite, &c, 1);
    }
    if (impl_->thread.joinable()) {
        impl_->thread.join();
    }
}

void GpsdSource::startFeed() {
    Impl& m = *impl_;
    char drain[64];
    while (m.wakeRead >= 0 && ::read(m.wakeRead, drain, sizeof drain) > 0) {
    }
    m.stop = false;
    m.thread = std::thread([this, &m] {
        pthread_setname_np(pthread_self(), "sorvan-gpsd");
        Seconds pause = m.options.retryFirst;
        auto fail = [&](ErrorCode code, const std::string& text) {
            // Once per outage: a receiver that stays away is not news every few seconds.
            if (!m.outageReported) {
                m.outageReported = true;
                publishFailure({code, text});
            }
        };
        auto rest = [&] {
            m.waitFor(-1, 0, pause);
            pause = std::min(pause * 2, m.options.retryMax);
        };
        while (!m.stop) {
            std::string why;
            if (!m.reachable(why)) {
                if (m.stop) {
                    break;
                }
                fail(ErrorCode::SourceUnavailable, "cannot reach " + m.name + ": " + why);
                rest();
                continue;
            }
            Session session;
            errno = 0;
            if (gps_open(m.options.host.c_str(), m.options.port.c_str(), &session.data) != 0) {
                fail(ErrorCode::SourceUnavailable,
                     "cannot reach " + m.name + ": " + gps_errstr(errno));
                rest();
                continue;
            }
            session.open = true;
            gps_stream(&session.data, WATCH_ENABLE | WATCH_JSON, nullptr);
            m.junkLines = 0;
            auto lastHeard = SteadyClock::now();
            bool silenceReported = false;
            std::string lost;
            while (!m.stop && lost.empty()) {
                Seconds wait = Seconds(1);
                if (!silenceReported) {
                    wait = m.options.silenceLimit - (SteadyClock::now() - lastHeard);
                }
                int ready = m.waitFor(session.data.gps_fd, POLLIN, wait);
                if (ready < 0) {
                    break;
                }
                if (ready == 0) {
                    if (!silenceReported &&
                        SteadyClock::now() - lastHeard >= m.options.silenceLimit) {
                        silenceReported = true;
                        char seconds[32];
                        std::snprintf(seconds, sizeof seconds, "%g",
                                      m.options.silenceLimit.count());
                        fail(ErrorCode::LocationUnknown,
                             m.name + " has sent nothing for " + seconds + " s");
                    }
                    continue;
                }
                do {
                    char message[256] = {};
                    session.data.set = 0;
                    errno = 0;
                    int n = gps_read(&session.data, message, sizeof message - 1);
                    if (n < 0) {
                        lost = errno ? std::strerror(errno) : "the connection closed";
                        break;
                    }
                    if (n == 0) {
                        break;  // half a line so far
                    }
                    if ((session.data.set & ~PACKET_SET) == 0) {
                        if (isPowerOfTen(++m.junkLines)) {
                            log::writef(
                                "Location: %s sent a line that is no report (%zu so "
                                "far): %s",
                                m.name.c_str(), m.junkLines, printable(message).c_str());
                        }
                        continue;
                    }
                    lastHeard = SteadyClock::now();
                    silenceReported = false;
                    pause = m.options.retryFirst;
                    if (m.outageReported) {
                        m.outageReported = false;
                        log::writef("Location: %s is back", m.name.c_str());
                    }
                    m.handle(session.data);
                } while (!m.stop && gps_waiting(&session.data, 0));
            }
            if (m.stop) {
                break;
            }
            fail(ErrorCode::SourceUnavailable, "lost " + m.name + ": " + lost);
            rest();
        }
    });
}

}  // namespace sorvan::location
