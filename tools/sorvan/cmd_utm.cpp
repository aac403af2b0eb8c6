// `sorvan utm`: coordinates to UTM text and back, for arguments or for standard input.
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "SorvanMapSDK/SMGeodesy.hpp"
#include "command.hpp"
#include "geodesy_input.hpp"

namespace sorvan::cli {

namespace {

constexpr const char* kName = "utm";

void printUtmHelp() {
    std::printf(
        "usage: sorvan utm [--hemisphere] [INPUT...]\n\n"
        "Converts each INPUT, in either direction:\n"
        "  LAT,LON                      prints  ZONE+BAND, EASTING, NORTHING  (47P, 662367, "
        "1521281)\n"
        "  ZONE+BAND, EASTING, NORTHING prints  LAT,LON with six decimals\n"
        "With no INPUT, converts standard input line by line (each line in its own direction)\n"
        "and stops at the first malformed line. Blank lines stay blank.\n\n"
        "options:\n"
        "  --hemisphere  write the hemisphere letter N or S instead of the latitude band\n"
        "  -h, --help    show this help\n\n"
        "Bands A and C to M are read as southern, every other letter as northern: a text written\n"
        "with --hemisphere for a southern point (\"S\") reads back in the north. The latitude "
        "read\n"
        "back is cut down to six decimals; no special zones apply.\n");
}

enum class Direction { toUTM, toCoordinate, blank, unknown };

Direction directionOf(std::string_view line) {
    const auto commas = std::count(line.begin(), line.end(), ',');
    if (commas == 1) {
        return Direction::toUTM;
    }
    if (commas == 2) {
        return Direction::toCoordinate;
    }
    if (line.find_first_not_of(" \t\r") == std::string_view::npos) {
        return Direction::blank;
    }
    return Direction::unknown;
}

// Converts one input and appends the answer and a newline to out; false with error set for a
// malformed input.
struct Scratch {
    std::string compact;  // reused for every line, so steady state allocates nothing
    std::string error;
};

bool convert(std::string_view input, bool withZone, std::string& out, Scratch& scratch) {
    std::string& error = scratch.error;
    switch (directionOf(input)) {
        case Direction::blank:
            out.push_back('\n');
            return true;
        case Direction::toUTM: {
            const auto coordinate = parseCoordinate(input, error);
            if (!coordinate) {
                return false;
            }
            char buffer[geodesy::kMaxUTMTextLength];
            const std::size_t length =
                geodesy::formatUTM(geodesy::utmPositionFrom(*coordinate, withZone), buffer);
            out.append(buffer, length);
            out.push_back('\n');
            return true;
        }
        case Direction::toCoordinate: {
            if (!checkUTM(input, scratch.compact, error)) {
                return false;
            }
            const map::Coordinate c = geodesy::coordinateFromUTM(scratch.compact);
            char buffer[128];
            char* const end = buffer + sizeof buffer;
            char* p = std::to_chars(buffer, end, c.latitude, std::chars_format::fixed, 6).ptr;
            *p++ = ',';
            p = std::to_chars(p, end, c.longitude, std::chars_format::fixed, 6).ptr;
            *p++ = '\n';
            out.append(buffer, p);
            return true;
        }
        case Direction::unknown:
            break;
    }
    error = "expected LAT,LON or ZONE+BAND, EASTING, NORTHING, got '" + std::string(input) + "'";
    return false;
}

bool flush(std::string& out) {
    const bool ok = std::fwrite(out.data(), 1, out.size(), stdout) == out.size();
    out.clear();
    return ok;
}

// Reads standard input in large blocks and writes the answers in large blocks: a file of a
// million points is a few hundred small appends per block, with no allocation per line.
int convertStandardInput(bool withZone) {
    constexpr std::size_t kBlock = 1 << 20;
    std::vector<char> buffer(kBlock);
    std::size_t kept = 0;  // bytes of an unfinished line carried over from the last block
    std::string out;
    out.reserve(kBlock + 256);
    Scratch scratch;
    std::size_t lineNumber = 0;
    bool atEnd = false;
    while (!atEnd) {
        if (kept == buffer.size()) {
            buffer.resize(buffer.size() * 2);  // a line longer than a block
        }
        const std::size_t got = std::fread(buffer.data() + kept, 1, buffer.size() - kept, stdin);
        atEnd = got == 0;
        const std::size_t filled = kept + got;
        std::size_t start = 0;
        while (true) {
            const auto* newline =
                static_cast<const char*>(std::memchr(buffer.data() + start, '\n', filled - start));
            std::size_t stop = newline ? static_cast<std::size_t>(newline - buffer.data()) : filled;
            if (!newline && !(atEnd && stop > start)) {
                break;
            }
            ++lineNumber;
            if (!convert(std::string_view(buffer.data() + start, stop - start), withZone, out,
                         scratch)) {
                flush(out);
                std::fflush(stdout);
                return failure(kName, "line " + std::to_string(lineNumber) + ": " + scratch.error);
            }
            if (out.size() >= kBlock) {
                if (!flush(out)) {
                    return failure(kName, "cannot write the output");
                }
            }
            start = newline ? stop + 1 : filled;
        }
        kept = filled - start;
        std::memmove(buffer.data(), buffer.data() + start, kept);
    }
    if (std::ferror(stdin)) {
        flush(out);
        return failure(kName, "cannot read standard input");
    }
    if (!flush(out) || std::fflush(stdout) != 0) {
        return failure(kName, "cannot write the output");
    }
    return 0;
}

int runUtm(const std::vector<std::string>& args) {
    bool withZone = true;
    std::vector<std::string> positional;
    bool optionsEnded = false;
    for (const std::string& arg : args) {
        if (!optionsEnded && (arg == "-h" || arg == "--help")) {
            printUtmHelp();
            return 0;
        }
        if (!optionsEnded && arg == "--hemisphere") {
            withZone = false;
        } else if (!optionsEnded && arg == "--") {
            optionsEnded = true;
        } else if (!optionsEnded && looksLikeOption(arg)) {
            return usageError(kName, "unknown option '" + arg + "'");
        } else {
            positional.push_back(arg);
        }
    }
    if (positional.empty()) {
        return convertStandardInput(withZone);
    }
    std::string out;
    Scratch scratch;
    for (const std::string& input : joinCommaSplitArguments(positional)) {
        if (!convert(input, withZone, out, scratch)) {
            flush(out);
            return usageError(kName, scratch.error);
        }
    }
    return flush(out) ? 0 : failure(kName, "cannot write the output");
}

const Command::Registration registration{
    Command{kName, "convert LAT,LON to UTM text and back (arguments or standard input)", runUtm}};

}  // namespace

}  // namespace sorvan::cli
