// Test helpers for the location service: a scripted stand-in for gpsd (for the faults a real
// one will not make on demand), a real gpsd fed by gpsfake from a log, a delegate that records
// what a manager tells it, and the process's thread count.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sorvan/platform/location/location_manager.hpp"

namespace sorvan::test {

/// The path of tests/fixtures/location/NAME.
std::string locationFixture(const std::string& name);

/// A free TCP port on the loopback interface (free when asked; nothing holds it).
int freeLoopbackPort();

/// Threads of this process now that location sources run ("sorvan-gpsd", "sorvan-replay").
std::size_t locationThreads();

/// A TCP server on 127.0.0.1 that plays a script to each connection, one connection at a
/// time, on a thread of its own. Thread-safe.
class FakeGpsd {
  public:
    struct Step {
        std::string send;  // sent as it is (add the line ends yourself)
        double pause = 0;  // seconds to wait after sending
    };
    enum class Then { Close, Hold };

    /// Listens on port (0: an ephemeral one).
    explicit FakeGpsd(int port = 0);
    ~FakeGpsd();
    FakeGpsd(const FakeGpsd&) = delete;
    FakeGpsd& operator=(const FakeGpsd&) = delete;

    int port() const { return port_; }
    /// What every later connection gets: the steps, then a close or silence until the client
    /// leaves.
    void setScript(std::vector<Step> steps, Then then);
    std::size_t connections() const;

    /// A gpsd greeting followed by a fix report at a position, as gpsd writes them.
    static std::string version();
    static std::string fix(double latitude, double longitude, const std::string& time);

  private:
    void serve();
    int port_ = 0;
    int listener_ = -1;
    int wakeRead_ = -1, wakeWrite_ = -1;
    mutable std::mutex mutex_;
    std::vector<Step> steps_;
    Then then_ = Then::Hold;
    std::size_t connections_ = 0;
    std::thread thread_;
};

/// gpsfake replaying a log into a gpsd of its own on a free port, over and over, a few
/// milliseconds between sentences. Stopped (gpsd with it) on destruction.
class GpsFake {
  public:
    explicit GpsFake(const std::string& log, double cycleSeconds = 0.005);
    ~GpsFake();
    GpsFake(const GpsFake&) = delete;
    GpsFake& operator=(const GpsFake&) = delete;
    int port() const { return port_; }
    /// Whether the process could be started.
    bool started() const { return pid_ > 0; }
    /// What gpsfake and gpsd printed so far.
    std::string output() const;

  private:
    int port_ = 0;
    pid_t pid_ = -1;
    std::string outputPath_;
};

/// Records what a manager reports, on the main queue.
class RecordingLocationDelegate : public location::LocationManagerDelegate {
  public:
    void didUpdateLocations(location::LocationManager&,
                            const std::vector<location::Location>& l) override;
    void didUpdateHeading(location::LocationManager&, const location::Heading& h) override;
    void didFailWithError(location::LocationManager&, const location::LocationError& e) override;
    void didChangeAuthorizationStatus(location::LocationManager&,
                                      location::AuthorizationStatus s) override;
    void didFinish(location::LocationManager&) override;

    std::vector<location::Location> locations;
    std::vector<std::size_t> batchSizes;
    std::vector<location::Heading> headings;
    std::vector<location::LocationError> errors;
    std::vector<location::AuthorizationStatus> statuses;
    bool finished = false;
    /// Calls that came on a thread other than the main queue's.
    std::size_t offMainCalls = 0;

  private:
    void check();
};

/// Pumps the main queue until pred() or the timeout.
bool pumpUntil(const std::function<bool()>& pred,
               std::chrono::duration<double> timeout = std::chrono::seconds(10));

}  // namespace sorvan::test
