// The kit's version reaches applications three ways (the run-time symbols, the compile-time
// macros, the kit bundle the banner prints): they must never disagree.
#include <gtest/gtest.h>

#include "SorvanMapSDK/SorvanMapSDK.hpp"
#include "sorvan/platform/foundation/bundle.hpp"

namespace sorvan {
namespace {

static_assert(SORVAN_MAP_SDK_VERSION_NUMBER == SORVAN_MAP_SDK_VERSION_ENCODE(3, 13, 0));
static_assert(SORVAN_MAP_SDK_VERSION_ENCODE(3, 13, 0) > SORVAN_MAP_SDK_VERSION_ENCODE(3, 12, 999));
static_assert(SORVAN_MAP_SDK_VERSION_ENCODE(4, 0, 0) > SORVAN_MAP_SDK_VERSION_ENCODE(3, 999, 999));

TEST(Version, SymbolsMacrosAndBundleAgree) {
    EXPECT_STREQ(SorvanMapSDKVersionString, "3.13");
    EXPECT_STREQ(SorvanMapSDKVersionString, SORVAN_MAP_SDK_VERSION_STRING);
    EXPECT_EQ(SorvanMapSDKVersionNumber, 3.13);
    EXPECT_EQ(Bundle::kit().infoValue("CFBundleShortVersionString"), SorvanMapSDKVersionString);
}

}  // namespace
}  // namespace sorvan
