// What `sorvan search`, `suggest` and `route` share: a map view with the settings the kit reads
// (key, language), waiting for a completion on the session queue, and tables whose columns line
// up for Thai text too.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "SorvanMapSDK/SorvanMapView.hpp"
#include "options.hpp"
#include "services/service_client.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/foundation/url_session.hpp"

namespace sorvan::cli {

/// A map view set up as the options say (key, language), centred on kToolMapCenter. The
/// tool only calls its completion-style services, whose blocks run on the session queue, so
/// no main loop has to run.
std::shared_ptr<SorvanMapView> serviceView(const ServiceSettings& settings);

/// The centre of the map the tool pretends to show, for searches without a position.
inline constexpr map::Coordinate kToolMapCenter{13.7563, 100.5018};

/// Long enough for the session's request timeout twice over (a route is two requests).
inline constexpr std::chrono::seconds kCallTimeout{150};

/// What a completion-style call delivered to its result block.
template <typename Value>
struct Answer {
    Value value{};
    std::optional<net::Error> error;
};

/// Starts a completion-style call, start(block), and waits for the block, which runs on the
/// session queue. nullopt when no answer came within kCallTimeout. The block owns its state, so
/// an answer arriving after the wait gave up touches nothing of the caller's.
template <typename Value, typename Start>
std::optional<Answer<Value>> awaitAnswer(Start&& start) {
    struct State {
        std::mutex mutex;
        Answer<Value> answer;
        dispatch::Semaphore done;
    };
    auto state = std::make_shared<State>();
    start([state](const auto& value, const std::optional<net::Error>& error) {
        {
            std::lock_guard lock(state->mutex);
            state->answer.value = value;
            state->answer.error = error;
        }
        state->done.signal();
    });
    if (!state->done.waitFor(kCallTimeout)) {
        return std::nullopt;
    }
    // The kit writes its failure line after the block returns, on the same session task: let
    // that task end, so the line is out before the command prints its own and exits.
    net::URLSession::shared().delegateQueue().sync([] {});
    std::lock_guard lock(state->mutex);
    return state->answer;
}

/// The one rule by which search, suggest and route fail (their --help says it): no answer in
/// time, a transport error, an HTTP status other than 200, an answer that is no JSON, or one the
/// kit could not read through (it writes its failure line and delivers what it gathered, or
/// nothing). On failure nothing goes to standard output.
inline constexpr const char* kServiceFailures =
    "no answer, a transport error, an HTTP status other than 200 (named in the message), or "
    "an answer that is no JSON or that the kit could not read (its log line says why; what it "
    "read before the fault is not printed)";

/// Watches a service call from the side while it lives: the status of each answer and the
/// kit's failure lines that start with one of failurePrefixes ("searchWithKeyword Error"). The
/// kit's log lines still reach stderr as the chosen level says. One at a time per process.
class CallWatch {
  public:
    explicit CallWatch(std::vector<std::string> failurePrefixes);
    ~CallWatch();
    CallWatch(const CallWatch&) = delete;
    CallWatch& operator=(const CallWatch&) = delete;

    /// nullopt when the call went well; else the message for "sorvan NAME: ...". service names
    /// it ("search"); error and delivered are what the result block got.
    std::optional<std::string> problem(const std::string& service,
                                       const std::optional<net::Error>& error,
                                       bool delivered) const;

  private:
    struct State;
    std::shared_ptr<State> state_;
    log::Sink previous_;
};

/// Columns padded by display width (Thai vowel and tone marks take no column).
class Table {
  public:
    explicit Table(std::vector<std::string> headings);
    /// Right-aligns the columns whose index is in numeric.
    void setNumeric(std::vector<std::size_t> columns) { numeric_ = std::move(columns); }
    void add(std::vector<std::string> row);
    void print() const;

  private:
    std::vector<std::vector<std::string>> rows_;
    std::vector<std::size_t> numeric_;
};

std::size_t displayWidth(const std::string& text);

}  // namespace sorvan::cli
