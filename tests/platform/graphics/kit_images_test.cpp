#include "graphics/kit_images.hpp"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace sorvan::gfx {
namespace {

TEST(KitImages, EveryPictureHasItsSizeAtScaleTwoAndIsNotBlank) {
    struct Expected {
        const char* name;
        Size size;
    };
    for (const Expected& e : {Expected{"crosshair", {40, 40}}, Expected{"reddot", {24, 34}},
                              Expected{"information", {32, 32}}, Expected{"marker", {70, 70}},
                              Expected{"heading", {70, 70}}}) {
        auto img = kitImage(e.name);
        ASSERT_NE(img, nullptr) << e.name;
        EXPECT_EQ(img->scale(), 2.0) << e.name;
        EXPECT_EQ(img->size(), e.size) << e.name;
        std::size_t clear = 0, solid = 0;
        for (auto p : img->pixels()) {
            clear += (p >> 24) == 0;
            solid += (p >> 24) >= 0xe0;
        }
        // Drawn shapes on a transparent canvas: both kinds of pixel are there.
        EXPECT_GT(clear, img->pixels().size() / 10) << e.name;
        EXPECT_GT(solid, 40u) << e.name;
    }
    // The marker and the heading share their centre; the heading points up from it.
    auto heading = kitImage("heading");
    EXPECT_GT(heading->rgbaAt(70, 30)[3], 100);
    EXPECT_EQ(heading->rgbaAt(70, 110)[3], 0);
    EXPECT_GT(kitImage("marker")->rgbaAt(70, 70)[2], 200);  // blue in the middle
    EXPECT_GT(kitImage("reddot")->rgbaAt(24, 6)[0], 150);   // red at the top
}

TEST(KitImages, UnknownNamesGiveNullAndPicturesAreMadeOnce) {
    EXPECT_EQ(kitImage(""), nullptr);
    EXPECT_EQ(kitImage("Crosshair"), nullptr);
    EXPECT_EQ(kitImage("reddot.png"), nullptr);

    std::vector<std::shared_ptr<Image>> seen(8);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&seen, i] { seen[i] = kitImage("marker"); });
    }
    for (auto& t : threads) {
        t.join();
    }
    for (const auto& s : seen) {
        EXPECT_EQ(s.get(), kitImage("marker").get());
    }
}

}  // namespace
}  // namespace sorvan::gfx
