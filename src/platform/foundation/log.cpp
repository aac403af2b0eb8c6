#include "sorvan/platform/foundation/log.hpp"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::log {

namespace {

struct Buffer {
    mutable std::mutex mutex;
    std::vector<Capture::Line> lines;
};

constexpr int kUndecided = -1;

struct State {
    std::mutex mutex;
    Sink sink;
    // Innermost last. Kept apart from the sink so that a host or a command swapping sinks
    // while a test captures cannot take lines away from the capture.
    std::vector<Buffer*> captures;
};

State& state() {
    static State s;
    return s;
}

std::atomic<int> threshold{kUndecided};
// Lets write() skip the lock for a line below the threshold when nothing captures.
std::atomic<int> captureCount{0};

constexpr const char* kNames[] = {"off", "error", "warning", "info", "debug"};

void decideFromEnvironment(bool replace) {
    const char* value = std::getenv("SORVAN_LOG");
    Level chosen = Level::info;
    bool unknown = false;
    if (value != nullptr && *value != '\0') {
        if (auto named = levelNamed(value)) {
            chosen = *named;
        } else {
            unknown = true;
        }
    }
    if (replace) {
        threshold.store(static_cast<int>(chosen));
    } else {
        // A host that chose a level in the meantime keeps its choice.
        int expected = kUndecided;
        if (!threshold.compare_exchange_strong(expected, static_cast<int>(chosen))) {
            return;
        }
    }
    if (unknown) {
        write(Level::warning,
              strformat("SORVAN_LOG: unknown level '%s' (error, warning, info, debug or off); "
                        "writing info and above",
                        value));
    }
}

void vwrite(Level level, const char* format, va_list args) {
    if (!enabled(level) && captureCount.load(std::memory_order_acquire) == 0) {
        return;  // spares the formatting of a line nobody sees
    }
    write(level, vstrformat(format, args));
}

}  // namespace

const char* nameOf(Level level) {
    return kNames[static_cast<int>(level)];
}

std::optional<Level> levelNamed(std::string_view name) {
    for (int i = 0; i < static_cast<int>(std::size(kNames)); ++i) {
        std::string_view known = kNames[i];
        if (name.size() == known.size() &&
            std::equal(name.begin(), name.end(), known.begin(), [](char a, char b) {
                return (a >= 'A' && a <= 'Z' ? a - 'A' + 'a' : a) == b;
            })) {
            return static_cast<Level>(i);
        }
    }
    return std::nullopt;
}

Level level() {
    int t = threshold.load(std::memory_order_acquire);
    if (t == kUndecided) {
        decideFromEnvironment(false);
        t = threshold.load(std::memory_order_acquire);
    }
    return static_cast<Level>(t);
}

void setLevel(Level level) {
    threshold.store(static_cast<int>(level), std::memory_order_release);
}

void setLevelFromEnvironment() {
    decideFromEnvironment(true);
}

bool enabled(Level l) {
    return l != Level::off && static_cast<int>(l) <= static_cast<int>(level());
}

void write(Level level, std::string_view text) {
    assert(level != Level::off);
    if (!enabled(level) && captureCount.load(std::memory_order_acquire) == 0) {
        return;
    }
    // Lines quote request addresses, and a service key must not outlive the request in a
    // terminal, a host's log file or a test's capture.
    const std::string kept = redacted(text);
    const std::string_view line = kept;
    Sink sink;
    {
        std::lock_guard lock(state().mutex);
        if (!state().captures.empty()) {
            Buffer* capture = state().captures.back();
            std::lock_guard captured(capture->mutex);
            capture->lines.push_back({level, std::string(line)});
            return;
        }
        if (!enabled(level)) {
            return;
        }
        sink = state().sink;
    }
    if (sink) {
        sink(level, line);
        return;
    }
    // One fwrite per line keeps lines from several threads whole.
    std::string out(line);
    out.push_back('\n');
    std::fwrite(out.data(), 1, out.size(), stderr);
}

std::string redacted(std::string_view text) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    // A value ends where an address or a quoted text would go on.
    auto endsValue = [&](char c) {
        return isSpace(c) || c == '&' || c == '#' || c == '"' || c == '\'' || c == '<' ||
               c == '>' || c == ';';
    };
    std::string out;
    std::size_t copied = 0;
    for (std::size_t i = 0; i + 4 <= text.size(); ++i) {
        if (lower(text[i]) != 'k' || lower(text[i + 1]) != 'e' || lower(text[i + 2]) != 'y' ||
            text[i + 3] != '=') {
            continue;
        }
        if (i > 0 && text[i - 1] != '?' && text[i - 1] != '&' && !isSpace(text[i - 1])) {
            continue;  // "monkey=", "turnkey=": another parameter
        }
        std::size_t start = i + 4, end = start;
        while (end < text.size() && !endsValue(text[end])) {
            ++end;
        }
        if (end > start) {
            out.append(text.substr(copied, start - copied));
            out.append("***");
            copied = end;
        }
        i = end == start ? i : end - 1;
    }
    out.append(text.substr(copied));
    return out;
}

void error(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vwrite(Level::error, format, args);
    va_end(args);
}

void warning(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vwrite(Level::warning, format, args);
    va_end(args);
}

void info(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vwrite(Level::info, format, args);
    va_end(args);
}

void debug(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vwrite(Level::debug, format, args);
    va_end(args);
}

void write(std::string_view line) {
    write(Level::error, line);
}

void writef(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vwrite(Level::error, format, args);
    va_end(args);
}

struct Capture::Impl {
    Buffer buffer;
};

Sink setSink(Sink sink) {
    std::lock_guard lock(state().mutex);
    Sink previous = std::move(state().sink);
    state().sink = std::move(sink);
    return previous;
}

Capture::Capture() : impl_(std::make_shared<Impl>()) {
    std::lock_guard lock(state().mutex);
    state().captures.push_back(&impl_->buffer);
    captureCount.fetch_add(1, std::memory_order_release);
}

Capture::~Capture() {
    std::lock_guard lock(state().mutex);
    auto& captures = state().captures;
    captures.erase(std::find(captures.begin(), captures.end(), &impl_->buffer));
    captureCount.fetch_sub(1, std::memory_order_release);
}

std::vector<std::string> Capture::lines() const {
    std::lock_guard lock(impl_->buffer.mutex);
    std::vector<std::string> texts;
    texts.reserve(impl_->buffer.lines.size());
    for (const auto& line : impl_->buffer.lines) {
        texts.push_back(line.text);
    }
    return texts;
}

std::vector<Capture::Line> Capture::entries() const {
    std::lock_guard lock(impl_->buffer.mutex);
    return impl_->buffer.lines;
}

void Capture::clear() {
    std::lock_guard lock(impl_->buffer.mutex);
    impl_->buffer.lines.clear();
}

}  // namespace sorvan::log
