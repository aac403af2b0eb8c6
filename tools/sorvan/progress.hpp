// A progress line on stderr for work that takes a while: redrawn in place while the main run
// loop runs (a headless render pumps it), cleared when the work is done. Shown only when
// stderr is a terminal and the command is not quiet, and only once the work has taken longer
// than a moment, so quick runs and scripts reading stderr see nothing of it. Main queue only.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "command.hpp"

namespace sorvan::dispatch {
class Timer;
}

namespace sorvan::cli {

class ProgressLine {
  public:
    /// status() gives the text after "sorvan NAME: " each time the line is redrawn (it is
    /// told the seconds since the work began).
    ProgressLine(const Context& context, std::function<std::string(double seconds)> status);
    /// Clears the line when it was shown.
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    /// Stops redrawing and clears the line, before the command prints what follows.
    void finish();

  private:
    void draw();

    std::string prefix_;
    std::function<std::string(double)> status_;
    std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    std::shared_ptr<dispatch::Timer> timer_;
    bool shown_ = false;
};

}  // namespace sorvan::cli
