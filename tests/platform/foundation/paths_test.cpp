#include "sorvan/platform/foundation/paths.hpp"

#include <gtest/gtest.h>

#include "support/foundation_support.hpp"

namespace sorvan::paths {
namespace {

using test::ScopedEnv;

TEST(Paths, FollowXdgDirectoriesWithHomeFallbacks) {
    ScopedEnv sorvanHome("SORVAN_HOME", std::nullopt);
    ScopedEnv home("HOME", "/home/ann");
    {
        ScopedEnv cache("XDG_CACHE_HOME", std::nullopt);
        ScopedEnv data("XDG_DATA_HOME", std::nullopt);
        ScopedEnv config("XDG_CONFIG_HOME", "relative/ignored");
        EXPECT_EQ(caches(), "/home/ann/.cache/sorvan");
        EXPECT_EQ(documents(), "/home/ann/.local/share/sorvan/documents");
        EXPECT_EQ(preferences(), "/home/ann/.config/sorvan");
    }
    ScopedEnv cache("XDG_CACHE_HOME", "/x/cache/");
    ScopedEnv data("XDG_DATA_HOME", "/x/data");
    ScopedEnv config("XDG_CONFIG_HOME", "/x/config");
    EXPECT_EQ(caches(), "/x/cache/sorvan");
    EXPECT_EQ(documents(), "/x/data/sorvan/documents");
    EXPECT_EQ(preferences(), "/x/config/sorvan");
    EXPECT_EQ(forSearchPathDirectory(13), "/x/cache/sorvan");
    EXPECT_EQ(forSearchPathDirectory(9), "/x/data/sorvan/documents");
}

TEST(Paths, SorvanHomeOverridesEverythingAndIsReadAtEachCall) {
    ScopedEnv cache("XDG_CACHE_HOME", "/x/cache");
    {
        ScopedEnv sorvanHome("SORVAN_HOME", "/tmp/run1");
        EXPECT_EQ(caches(), "/tmp/run1/caches");
        EXPECT_EQ(documents(), "/tmp/run1/documents");
        EXPECT_EQ(preferences(), "/tmp/run1/preferences");
    }
    ScopedEnv sorvanHome("SORVAN_HOME", "/tmp/run2/");
    EXPECT_EQ(forSearchPathDirectory(13), "/tmp/run2/caches");
    EXPECT_EQ(forSearchPathDirectory(9), "/tmp/run2/documents");
    for (long other : {0L, 1L, 5L, 14L, -1L, 99L}) {
        EXPECT_EQ(forSearchPathDirectory(other), "") << other;
    }
}

}  // namespace
}  // namespace sorvan::paths
