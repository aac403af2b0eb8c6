// Compares a viewer screenshot with its reference picture, for the Xvfb tests.
//   viewer_png_compare ACTUAL.png EXPECTED.png
//
// The screenshot is shrunk by 4 in each direction (each pixel the mean of a 4 x 4 block)
// before comparing, and references are stored at that size: they stay small, and the
// comparison forgives the sub-pixel shifts of text and lines between runs while a missing
// tile, pin or route still shows. A pixel differs when a channel is off by more than 24; the
// pictures match when at most 1% of the pixels differ. On a mismatch NAME.actual.png and
// NAME.diff.png (differing pixels red) are written beside the reference. With
// SORVAN_UPDATE_EXPECTED=1 the reference is (re)written from the screenshot.
// Exit status: 0 match (or rebaselined), 1 mismatch, 2 unreadable input.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "sorvan/platform/graphics/image.hpp"

namespace {

constexpr int kShrink = 4;
constexpr int kChannelTolerance = 24;
constexpr double kMaxDifferentFraction = 0.01;

std::uint32_t packOpaque(int r, int g, int b) {
    return 0xFF000000u | (static_cast<std::uint32_t>(r) << 16) |
           (static_cast<std::uint32_t>(g) << 8) | static_cast<std::uint32_t>(b);
}

// Screenshots are opaque (the map is drawn over white), so straight and premultiplied agree.
std::shared_ptr<sorvan::gfx::Image> shrink(const sorvan::gfx::Image& image) {
    int w = image.pixelWidth() / kShrink, h = image.pixelHeight() / kShrink;
    std::vector<std::uint32_t> pixels(static_cast<std::size_t>(w) * h);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            int sum[3] = {0, 0, 0};
            for (int dy = 0; dy < kShrink; ++dy) {
                for (int dx = 0; dx < kShrink; ++dx) {
                    auto p = image.rgbaAt(x * kShrink + dx, y * kShrink + dy);
                    for (int c = 0; c < 3; ++c) {
                        sum[c] += p[c];
                    }
                }
            }
            constexpr int n = kShrink * kShrink;
            pixels[static_cast<std::size_t>(y) * w + x] =
                packOpaque((sum[0] + n / 2) / n, (sum[1] + n / 2) / n, (sum[2] + n / 2) / n);
        }
    }
    return sorvan::gfx::Image::fromPixels(w, h, std::move(pixels), 1.0);
}

std::string besideReference(const std::string& expected, const char* what) {
    std::string stem = expected;
    if (stem.size() > 4 && stem.ends_with(".png")) {
        stem.resize(stem.size() - 4);
    }
    return stem + "." + what + ".png";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s ACTUAL.png EXPECTED.png\n", argv[0]);
        return 2;
    }
    std::string actualPath = argv[1], expectedPath = argv[2];
    auto full = sorvan::gfx::Image::fromFile(actualPath);
    if (!full || full->pixelWidth() < kShrink || full->pixelHeight() < kShrink) {
        std::fprintf(stderr, "cannot read the screenshot %s\n", actualPath.c_str());
        return 2;
    }
    auto actual = shrink(*full);
    const char* update = std::getenv("SORVAN_UPDATE_EXPECTED");
    if (update != nullptr && std::string(update) == "1") {
        if (!actual || !actual->writePNG(expectedPath)) {
            std::fprintf(stderr, "cannot write %s\n", expectedPath.c_str());
            return 2;
        }
        std::printf("rebaselined %s\n", expectedPath.c_str());
        return 0;
    }
    std::remove(besideReference(expectedPath, "actual").c_str());
    std::remove(besideReference(expectedPath, "diff").c_str());
    auto expected = sorvan::gfx::Image::fromFile(expectedPath);
    auto mismatch = [&](const std::string& why) {
        actual->writePNG(besideReference(expectedPath, "actual"));
        std::fprintf(stderr, "%s: %s (%s written; SORVAN_UPDATE_EXPECTED=1 rebaselines)\n",
                     expectedPath.c_str(), why.c_str(),
                     besideReference(expectedPath, "actual").c_str());
        return 1;
    };
    if (!expected) {
        return mismatch("no readable reference");
    }
    int w = actual->pixelWidth(), h = actual->pixelHeight();
    if (expected->pixelWidth() != w || expected->pixelHeight() != h) {
        return mismatch("size " + std::to_string(w) + "x" + std::to_string(h) +
                        " differs from the reference's " + std::to_string(expected->pixelWidth()) +
                        "x" + std::to_string(expected->pixelHeight()));
    }
    std::vector<std::uint32_t> diff(static_cast<std::size_t>(w) * h);
    std::size_t different = 0;
    int worst = 0;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            auto a = actual->rgbaAt(x, y), e = expected->rgbaAt(x, y);
            int d = 0;
            for (int c = 0; c < 3; ++c) {
                d = std::max(d, std::abs(int(a[c]) - int(e[c])));
            }
            worst = std::max(worst, d);
            std::size_t i = static_cast<std::size_t>(y) * w + x;
            if (d > kChannelTolerance) {
                ++different;
                diff[i] = packOpaque(255, 0, 0);
            } else {
                diff[i] = packOpaque(192 + e[0] / 4, 192 + e[1] / 4, 192 + e[2] / 4);
            }
        }
    }
    double fraction = static_cast<double>(different) / static_cast<double>(diff.size());
    if (fraction > kMaxDifferentFraction) {
        if (auto picture = sorvan::gfx::Image::fromPixels(w, h, std::move(diff), 1.0)) {
            picture->writePNG(besideReference(expectedPath, "diff"));
        }
        return mismatch(std::to_string(different) + " of " + std::to_string(w * h) +
                        " pixels differ (worst channel difference " + std::to_string(worst) + ")");
    }
    std::printf("matches %s (%zu pixels differ, worst %d)\n", expectedPath.c_str(), different,
                worst);
    return 0;
}
