// `sorvan utm`: coordinates to UTM text and back, for arguments or for standard input.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "SorvanMapSDK/SMGeodesy.hpp"
#include "command.hpp"
#include "geodesy_input.hpp"
#include "options.hpp"

namespace sorvan::cli {

namespace {

constexpr const char* kName = "utm";

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

// How answers are written: one per line as text, or as the elements of one JSON array, each
// {"latitude": .., "longitude": .., "utm": ".."} whichever way the input went (null for a
// blank line), so a script reads both directions alike.
struct Writer {
    bool json = false;
    std::size_t written = 0;  // answers so far

    void begin(std::string& out) const {
        if (json) {
            out += "[\n";
        }
    }
    void end(std::string& out) const {
        if (json) {
            out += written == 0 ? "]\n" : "\n]\n";
        }
    }
    void blank(std::string& out) {
        if (json) {
            separate(out);
            out += "  null";
        } else {
            out.push_back('\n');
        }
    }
    // latitude and longitude as JSON numbers, utm as it is written.
    void answer(std::string& out, std::string_view latitude, std::string_view longitude,
                std::string_view utm, bool utmIsAnswer) {
        if (!json) {
            if (utmIsAnswer) {
                out.append(utm);
            } else {
                out.append(latitude);
                out.push_back(',');
                out.append(longitude);
            }
            out.push_back('\n');
            return;
        }
        separate(out);
        out += "  {\"latitude\": ";
        out.append(latitude);
        out += ", \"longitude\": ";
        out.append(longitude);
        out += ", \"utm\": \"";
        out.append(utm);  // digits, letters, commas and spaces only: nothing to escape
        out += "\"}";
    }

  private:
    void separate(std::string& out) {
        if (written++ > 0) {
            out += ",\n";
        }
    }
};

// Converts one input and appends the answer to out; false with error set for a malformed
// input.
struct Scratch {
    std::string compact;  // reused for every line, so steady state allocates nothing
    std::string error;
};

bool convert(std::string_view input, bool withZone, Writer& writer, std::string& out,
             Scratch& scratch) {
    std::string& error = scratch.error;
    switch (directionOf(input)) {
        case Direction::blank:
            writer.blank(out);
            return true;
        case Direction::toUTM: {
            const auto coordinate = parseCoordinate(input, error);
            if (!coordinate) {
                return false;
            }
            char utm[geodesy::kMaxUTMTextLength];
            const std::size_t length =
                geodesy::formatUTM(geodesy::utmPositionFrom(*coordinate, withZone), utm);
            char latitude[32], longitude[32];
            char* latitudeEnd =
                std::to_chars(latitude, latitude + sizeof latitude, coordinate->latitude).ptr;
            char* longitudeEnd =
                std::to_chars(longitude, longitude + sizeof longitude, coordinate->longitude).ptr;
            writer.answer(out, {latitude, latitudeEnd}, {longitude, longitudeEnd}, {utm, length},
                          true);
            return true;
        }
        case Direction::toCoordinate: {
            if (!checkUTM(input, scratch.compact, error)) {
                return false;
            }
            const map::Coordinate c = geodesy::coordinateFromUTM(scratch.compact);
            // Eastings and northings far outside a zone read as a text, but give no position.
            if (!std::isfinite(c.latitude) || !std::isfinite(c.longitude) ||
                std::abs(c.latitude) > 90) {
                error = "'" + std::string(input) +
                        "' is no position on the globe: easting or northing out of range";
                return false;
            }
            char latitude[64], longitude[64];
            char* latitudeEnd = std::to_chars(latitude, latitude + sizeof latitude, c.latitude,
                                              std::chars_format::fixed, 6)
                                    .ptr;
            char* longitudeEnd = std::to_chars(longitude, longitude + sizeof longitude, c.longitude,
                                               std::chars_format::fixed, 6)
                                     .ptr;
            writer.answer(out, {latitude, latitudeEnd}, {longitude, longitudeEnd}, scratch.compact,
                          false);
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
int convertStandardInput(bool withZone, Writer& writer) {
    constexpr std::size_t kBlock = 1 << 20;
    std::vector<char> buffer(kBlock);
    std::size_t kept = 0;  // bytes of an unfinished line carried over from the last block
    std::string out;
    out.reserve(kBlock + 256);
    writer.begin(out);
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
            if (!convert(std::string_view(buffer.data() + start, stop - start), withZone, writer,
                         out, scratch)) {
                // What was converted stays a whole answer (a closed JSON array too).
                writer.end(out);
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
    writer.end(out);
    if (std::ferror(stdin)) {
        flush(out);
        return failure(kName, "cannot read standard input");
    }
    if (!flush(out) || std::fflush(stdout) != 0) {
        return failure(kName, "cannot write the output");
    }
    return kSuccess;
}

struct UtmOptions {
    std::vector<std::string> inputs;
    bool hemisphere = false;
    bool json = false;
};

Runner setupUtm(CLI::App& app) {
    app.description(
        "Converts each INPUT, in either direction:\n"
        "  LAT,LON                       gives  ZONE+BAND, EASTING, NORTHING\n"
        "                                       (47P, 662367, 1521281)\n"
        "  ZONE+BAND, EASTING, NORTHING  gives  LAT,LON with six decimals\n"
        "With no INPUT, converts standard input line by line (each line in its own direction)\n"
        "and stops at the first malformed line. Blank lines stay blank.\n\n"
        "Bands A and C to M are read as southern, every other letter as northern: a text\n"
        "written with --hemisphere for a southern point (\"S\") reads back in the north. The\n"
        "latitude read back is cut down to six decimals; no special zones apply.");
    auto o = std::make_shared<UtmOptions>();
    app.add_option("INPUT", o->inputs,
                   "LAT,LON or \"ZONE+BAND, EASTING, NORTHING\" (split by the shell is joined "
                   "back)")
        ->type_name("TEXT");
    app.add_flag("--hemisphere", o->hemisphere,
                 "write the hemisphere letter N or S instead of the latitude band");
    addJsonFlag(app, o->json,
                "print a JSON array with one {\"latitude\", \"longitude\", \"utm\"} per input "
                "(null for a blank line)");
    return [o](const Context&) -> int {
        const bool withZone = !o->hemisphere;
        Writer writer{o->json};
        if (o->inputs.empty()) {
            return convertStandardInput(withZone, writer);
        }
        std::string out;
        writer.begin(out);
        Scratch scratch;
        for (const std::string& input : joinCommaSplitArguments(o->inputs)) {
            if (!convert(input, withZone, writer, out, scratch)) {
                writer.end(out);
                flush(out);
                return usageError(kName, scratch.error);
            }
        }
        writer.end(out);
        return flush(out) ? kSuccess : failure(kName, "cannot write the output");
    };
}

const Command::Registration registration{
    {kName, "convert LAT,LON to UTM text and back (arguments or standard input)",
     "a malformed line on standard input (the lines before it are converted), or the "
     "input could not be read or the output written",
     setupUtm}};

}  // namespace

}  // namespace sorvan::cli
