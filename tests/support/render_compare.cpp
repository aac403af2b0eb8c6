#include "support/render_compare.hpp"

#include <cstdlib>
#include <filesystem>

namespace sorvan::test {

namespace {

bool updating() {
    const char* v = std::getenv("SORVAN_UPDATE_EXPECTED");
    return v && std::string(v) == "1";
}

std::uint32_t pack(std::array<std::uint8_t, 4> rgba) {
    // Straight colour to premultiplied ARGB32.
    auto pm = [&](std::uint8_t c) { return static_cast<std::uint32_t>((c * rgba[3] + 127) / 255); };
    return (static_cast<std::uint32_t>(rgba[3]) << 24) | (pm(rgba[0]) << 16) | (pm(rgba[1]) << 8) |
           pm(rgba[2]);
}

}  // namespace

std::string renderCaseDirectory(const std::string& caseName) {
    std::filesystem::path dir = std::filesystem::path(SORVAN_TEST_DATA_DIR) / "render" / caseName;
    std::filesystem::create_directories(dir);
    return dir.string();
}

testing::AssertionResult matchesReference(const gfx::Image& actual, const std::string& caseName,
                                          RenderTolerance tolerance) {
    std::filesystem::path dir = renderCaseDirectory(caseName);
    std::filesystem::path expectedPath = dir / "expected.png";
    std::filesystem::remove(dir / "actual.png");
    std::filesystem::remove(dir / "diff.png");
    if (updating()) {
        if (!actual.writePNG(expectedPath.string()))
            return testing::AssertionFailure() << "cannot write " << expectedPath;
        return testing::AssertionSuccess() << "rebaselined " << expectedPath;
    }
    auto expected = gfx::Image::fromFile(expectedPath.string(), actual.scale());
    auto fail = [&](const std::string& why) {
        actual.writePNG((dir / "actual.png").string());
        return testing::AssertionFailure()
               << caseName << ": " << why << " (actual.png written to " << dir.string()
               << "; SORVAN_UPDATE_EXPECTED=1 rebaselines)";
    };
    if (!expected)
        return fail("no readable expected.png");
    int w = actual.pixelWidth(), h = actual.pixelHeight();
    if (expected->pixelWidth() != w || expected->pixelHeight() != h)
        return fail("size " + std::to_string(w) + "x" + std::to_string(h) + " differs from " +
                    std::to_string(expected->pixelWidth()) + "x" +
                    std::to_string(expected->pixelHeight()));
    std::vector<std::uint32_t> diff(static_cast<std::size_t>(w) * h);
    std::size_t different = 0;
    int worst = 0;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            auto a = actual.rgbaAt(x, y), e = expected->rgbaAt(x, y);
            int d = 0;
            for (int c = 0; c < 4; ++c)
                d = std::max(d, std::abs(int(a[c]) - int(e[c])));
            worst = std::max(worst, d);
            std::size_t i = static_cast<std::size_t>(y) * w + x;
            if (d > tolerance.channelTolerance) {
                ++different;
                diff[i] = pack({255, 0, 0, 255});
            } else {
                auto f = [](std::uint8_t c) { return static_cast<std::uint8_t>(192 + c / 4); };
                diff[i] = pack({f(e[0]), f(e[1]), f(e[2]), 255});
            }
        }
    }
    double fraction = static_cast<double>(different) / static_cast<double>(diff.size());
    if (fraction > tolerance.maxDifferentFraction) {
        if (auto d = gfx::Image::fromPixels(w, h, std::move(diff), 1.0))
            d->writePNG((dir / "diff.png").string());
        return fail(std::to_string(different) + " pixels differ (worst channel difference " +
                    std::to_string(worst) + ")");
    }
    return testing::AssertionSuccess();
}

}  // namespace sorvan::test
