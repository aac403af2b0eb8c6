// Compares a rendered frame with a reference picture in tests/render/<case>/expected.png.
//
// A pixel differs when any RGBA channel differs by more than `channelTolerance`; the case
// fails when more than `maxDifferentFraction` of the pixels differ (or the sizes differ). On
// failure actual.png and diff.png (differing pixels in red over a faded copy of the
// reference) are written next to expected.png. With SORVAN_UPDATE_EXPECTED=1 in the
// environment, expected.png is (re)written from the frame and the case passes.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "sorvan/platform/graphics/image.hpp"

namespace sorvan::test {

struct RenderTolerance {
    int channelTolerance = 8;
    double maxDifferentFraction = 0.002;
};

/// The directory of a render case (created when missing).
std::string renderCaseDirectory(const std::string& caseName);

testing::AssertionResult matchesReference(const gfx::Image& actual, const std::string& caseName,
                                          RenderTolerance tolerance = {});

}  // namespace sorvan::test
