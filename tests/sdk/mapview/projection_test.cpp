#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "SorvanMapSDK/SorvanMapView.hpp"

using sorvan::SorvanMapView;

TEST(SorvanMapView, LongitudeToPixelSpaceCoversTheWorldExactly) {
    EXPECT_EQ(SorvanMapView::longitudeToPixelSpaceX(0), 268435456.0);
    EXPECT_EQ(SorvanMapView::longitudeToPixelSpaceX(180), 536870912.0);
    EXPECT_EQ(SorvanMapView::longitudeToPixelSpaceX(-180), 0.0);
    EXPECT_EQ(SorvanMapView::longitudeToPixelSpaceX(90), 402653184.0);
    // Results are whole numbers: 100.5018 degrees east lands on one rounded unit.
    double x = SorvanMapView::longitudeToPixelSpaceX(100.5018);
    EXPECT_EQ(x, std::round(x));
    EXPECT_EQ(x, 418314603.0);
}

TEST(SorvanMapView, PixelSpaceInversesRoundTheirInputFirst) {
    EXPECT_EQ(SorvanMapView::pixelSpaceXToLongitude(268435456.4), 0.0);
    EXPECT_EQ(SorvanMapView::pixelSpaceXToLongitude(268435455.6), 0.0);
    // Halves go away from zero (not to even, not up): 268435456.5 is one unit east, and -0.5
    // lies one unit beyond the western edge.
    double oneUnit = 180.0 / 268435456.0;
    EXPECT_NEAR(SorvanMapView::pixelSpaceXToLongitude(268435456.5), oneUnit, 1e-15);
    EXPECT_EQ(SorvanMapView::pixelSpaceXToLongitude(268435455.5), 0.0);
    EXPECT_NEAR(SorvanMapView::pixelSpaceXToLongitude(-0.5), -180.0 - oneUnit, 1e-12);
    EXPECT_DOUBLE_EQ(SorvanMapView::pixelSpaceXToLongitude(536870912), 180.0);
    EXPECT_DOUBLE_EQ(SorvanMapView::pixelSpaceXToLongitude(0), -180.0);
    EXPECT_EQ(SorvanMapView::pixelSpaceYToLatitude(268435456.4), 0.0);
    EXPECT_EQ(SorvanMapView::pixelSpaceYToLatitude(268435455.6), 0.0);
}

TEST(SorvanMapView, LatitudeToPixelSpaceUsesSinglePrecisionSteps) {
    EXPECT_EQ(SorvanMapView::latitudeToPixelSpaceY(0), 268435456.0);
    // North is up: positive latitudes give smaller values.
    EXPECT_LT(SorvanMapView::latitudeToPixelSpaceY(10), 268435456.0);
    EXPECT_GT(SorvanMapView::latitudeToPixelSpaceY(-10), 268435456.0);
    // Each of these differs from an all-double evaluation (247720591, 155907120, 879349,
    // 322228122): the sine and logarithm are single precision on purpose.
    EXPECT_EQ(SorvanMapView::latitudeToPixelSpaceY(13.7563), 247720586.0);
    EXPECT_EQ(SorvanMapView::latitudeToPixelSpaceY(60), 155907105.0);
    EXPECT_EQ(SorvanMapView::latitudeToPixelSpaceY(85), 879098.0);
    EXPECT_EQ(SorvanMapView::latitudeToPixelSpaceY(-33.9), 322228121.0);
    // The poles overflow the single-precision quotient and pass infinity on.
    EXPECT_EQ(SorvanMapView::latitudeToPixelSpaceY(90), -std::numeric_limits<double>::infinity());
    EXPECT_EQ(SorvanMapView::latitudeToPixelSpaceY(-90), std::numeric_limits<double>::infinity());
}

TEST(SorvanMapView, LatitudeRoundTripCarriesTheSinglePrecisionError) {
    // An all-double round trip of 60 degrees comes back within 1e-7; this one is off by
    // about 5e-6 degrees, the error of the single-precision forward step.
    double back = SorvanMapView::pixelSpaceYToLatitude(SorvanMapView::latitudeToPixelSpaceY(60));
    EXPECT_NEAR(back, 60.000005040290709, 1e-12);
    EXPECT_GT(std::abs(back - 60.0), 1e-6);
    back = SorvanMapView::pixelSpaceYToLatitude(SorvanMapView::latitudeToPixelSpaceY(13.7563));
    EXPECT_NEAR(back, 13.756303033264704, 1e-12);
    // Longitude round trips lose only the rounding to whole units.
    EXPECT_NEAR(
        SorvanMapView::pixelSpaceXToLongitude(SorvanMapView::longitudeToPixelSpaceX(100.5018)),
        100.5018, 180.0 / 268435456.0);
}
