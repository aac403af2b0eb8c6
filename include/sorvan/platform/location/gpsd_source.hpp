// A source that listens to gpsd, the GPS daemon, through its client library: positions from
// its fix (TPV) reports; headings from its attitude (ATT) reports when a compass speaks, else
// from the course of its fix reports.
//
// Failures never block anyone and are retried: a gpsd that cannot be reached, goes away or
// falls silent is reported once per outage as a failure (ErrorCode::SourceUnavailable, or
// LocationUnknown for silence), and the source reconnects after a pause that doubles up to
// retryMax. A gpsd that comes back is logged ("Location: gpsd at HOST:PORT is back"); lines
// that are no reports are logged (the 1st, 10th, 100th...) and skipped. The last good
// position stands throughout.
//
// Thread-safe. Reports come from a thread of the source's own, started by the first
// subscriber and joined when the last one leaves (or at exit).
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/location/source.hpp"

namespace sorvan::location {

class SORVAN_EXPORT GpsdSource : public Source {
  public:
    struct Options {
        std::string host = "localhost";
        std::string port = "2947";
        /// Pause before the first reconnection; it doubles up to retryMax.
        std::chrono::duration<double> retryFirst = std::chrono::seconds(1);
        std::chrono::duration<double> retryMax = std::chrono::seconds(30);
        /// How long gpsd may stay silent before that is reported.
        std::chrono::duration<double> silenceLimit = std::chrono::seconds(10);
        /// How long a connection may take to be set up.
        std::chrono::duration<double> connectTimeout = std::chrono::seconds(5);
    };
    static std::shared_ptr<GpsdSource> create(Options options);
    ~GpsdSource() override;

    /// "gpsd at HOST:PORT".
    std::string description() const override;

  protected:
    void startFeed() override;
    void stopFeed() override;

  private:
    explicit GpsdSource(Options options);
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace sorvan::location
