// Clusters and incidents drawn over the base map at every screen scale, compared with
// reference pictures (tests/render/live_scale{1,2,3}/expected.png).
#include "SorvanMapSDK/SMTagOptions.hpp"
#include "live_fixture.hpp"
#include "support/render_compare.hpp"

namespace sorvan::test {
namespace {

TEST_F(LiveTest, ClustersAndIncidentsReadOverTheMapAtEveryScale) {
    // A fixed moment of the feed, so the same incidents are live every run.
    service_.setClock(
        [] { return std::chrono::system_clock::time_point(std::chrono::seconds(1'700'000'000)); });
    for (int scale : {1, 2, 3}) {
        SCOPED_TRACE(scale);
        view_ = SorvanMapView::create({0, 0, 360, 260});
        view_->setKey("render-test");
        view_->setScreenScale(scale);
        view_->setCache(2);
        showAt({13.745, 100.515}, 13);
        view_->addSMOverlay(SMLayerModeNormal);
        // Tags first, then events: views are drawn in the order their annotations arrived,
        // and the order of the tiles' answers is not fixed, so incidents come after.
        view_->showTags({"attraction", "food"});
        renderSettled();
        view_->setShowsEvents(true);
        auto frame = renderSettled();
        ASSERT_NE(frame, nullptr);
        ASSERT_FALSE(annotationsOf<SMTagAnnotation>().empty());
        ASSERT_FALSE(annotationsOf<SMEventAnnotation>().empty());
        EXPECT_TRUE(matchesReference(*frame, "live_scale" + std::to_string(scale)));
        view_->setShowsEvents(false);
    }
}

}  // namespace
}  // namespace sorvan::test
