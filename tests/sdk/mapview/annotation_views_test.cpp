// The map view's annotation views: icon addresses by scale and kind, fallbacks, views per
// annotation class and the selection rule, against the embedded icon services.
#include <set>

#include "SorvanMapSDK/SMCameraAnnotation.hpp"
#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMTagOptions.hpp"
#include "live_fixture.hpp"
#include "sorvan/platform/foundation/bundle.hpp"
#include "support/service_harness.hpp"

namespace sorvan::test {
namespace {

constexpr const char* kMapIcons = "/tvmap/images/";
constexpr const char* kTrafficIcons = "/sites/all/modules/traffic/images/";

class AnnotationViews : public LiveTest {
  protected:
    // The picture an icon fetch delivers, waited for on the main queue.
    struct Delivery {
        bool arrived = false;
        std::shared_ptr<gfx::Image> image;
    };
    Delivery fetchIcon(const std::optional<std::string>& type, std::int64_t kind) {
        auto d = std::make_shared<Delivery>();
        view_->getImageFromType(type, kind, [d](const auto& image) {
            EXPECT_TRUE(dispatch::RunLoop::main().isCurrent());
            d->arrived = true;
            d->image = image;
        });
        pumpUntil([d] { return d->arrived; });
        return *d;
    }
    std::string lastPath(const std::string& prefix) {
        auto r = service_.requests(prefix);
        return r.empty() ? "" : r.back().path;
    }
    static bool samePicture(const gfx::Image& a, const gfx::Image& b) {
        return a.pixelWidth() == b.pixelWidth() && a.pixelHeight() == b.pixelHeight() &&
               a.scale() == b.scale() && a.pixels() == b.pixels();
    }
};

TEST_F(AnnotationViews, IconAddressesFollowTheScaleAndTheKind) {
    for (double scale : {1.0, 2.0, 3.0}) {
        view_->setScreenScale(scale);
        Delivery d = fetchIcon(std::nullopt, 0);
        ASSERT_TRUE(d.image);
        EXPECT_EQ(d.image->scale(), scale);
        EXPECT_EQ(d.image->size().width, 24);
        const char* dir = scale == 1 ? "icons" : scale == 2 ? "icons_2x" : "icons_3x";
        EXPECT_EQ(lastPath(kMapIcons), std::string(kMapIcons) + dir + "/reddot.png");
    }
    Delivery sign = fetchIcon(std::nullopt, 1);
    ASSERT_TRUE(sign.image);
    EXPECT_EQ(sign.image->scale(), 2.0);
    EXPECT_EQ(lastPath(kTrafficIcons), std::string(kTrafficIcons) + "icon_information-l.png");
    fetchIcon("accident", 1);
    EXPECT_EQ(lastPath(kTrafficIcons), std::string(kTrafficIcons) + "icon_accident-l.png");
    // An empty type is used as it is.
    fetchIcon("", 0);
    EXPECT_EQ(lastPath(kMapIcons), std::string(kMapIcons) + "icons_3x/.png");

    // Answers are kept: the same icon is not asked for again.
    std::size_t asked = service_.requests(kMapIcons).size();
    EXPECT_TRUE(fetchIcon(std::nullopt, 0).image);
    EXPECT_EQ(service_.requests(kMapIcons).size(), asked);

    // Other kinds fetch nothing and never answer.
    bool called = false;
    view_->getImageFromType("temple", 5, [&](const auto&) { called = true; });
    pumpFor(0.2);
    EXPECT_FALSE(called);
    EXPECT_EQ(service_.requests().size(), asked + 2);  // and the two traffic icons
}

TEST_F(AnnotationViews, FailedRequestsGiveTheKitsPicturesAndNonPicturesGiveNone) {
    ServiceConfig config = ServiceConfig::current();
    std::string closed = "http://127.0.0.1:" + std::to_string(sorvan::testing::closedPort());
    config.iconService = closed;
    config.trafficIconService = closed;
    ServiceConfig::setCurrent(config);
    Delivery pin = fetchIcon("temple", 0);
    ASSERT_TRUE(pin.image);
    EXPECT_TRUE(samePicture(*pin.image, *Bundle::kit().image("reddot")));
    Delivery sign = fetchIcon("accident", 1);
    ASSERT_TRUE(sign.image);
    EXPECT_TRUE(samePicture(*sign.image, *Bundle::kit().image("information")));
    EXPECT_TRUE(capture_.lines().empty());

    // Reached, but answered with something that is no picture (a 404 page, a broken body).
    ServiceConfig::setCurrent(ServiceConfig{}.pointedAt(service_.origin()));
    Delivery missing = fetchIcon("nosuch", 0);
    EXPECT_TRUE(missing.arrived);
    EXPECT_FALSE(missing.image);
    server::Fault garbage;
    garbage.malformedBody = true;
    service_.injectFault(kTrafficIcons, garbage);
    EXPECT_FALSE(fetchIcon("flood", 1).image);
}

TEST_F(AnnotationViews, EachClassGetsItsOwnView) {
    view_->setScreenScale(2);
    view_->showTags({"temple"});  // binds: tags of this binding are current
    auto bound = globals::tagOverlay();
    ASSERT_FALSE(bound) << "no tile overlay, no binding";
    view_->addSMOverlay(SMLayerModeNormal);
    // The service's own clusters get an icon of the host's, so only the icons asked for
    // below are fetched.
    auto options = SMTagOptions::create();
    options->setIcon(SMIcon::withImage(Bundle::kit().image("crosshair")));
    view_->showTags(std::vector<std::string>{"temple"}, options);
    bound = globals::tagOverlay();
    ASSERT_TRUE(bound);
    showAt(kBangkok, 14);

    auto pin = std::make_shared<SMPinAnnotation>();
    pin->setCoordinate({13.75, 100.50});
    pin->setType("hospital");
    auto tag = std::make_shared<SMTagAnnotation>();
    tag->setSetId(bound->setId());
    tag->setType("temple_5");
    tag->setCoordinate({13.76, 100.49});
    auto custom = std::make_shared<SMTagAnnotation>();
    custom->setSetId(bound->setId());
    custom->setCoordinate({13.76, 100.51});
    auto icon = SMIcon::withImage(Bundle::kit().image("marker"));
    icon->setAlpha(0.3);
    icon->setOffset({0, -10});
    custom->setCustomIcon(icon);
    auto below = std::make_shared<SMEventAnnotation>();  // shown from zoom 14
    below->setShowlevel(14);
    below->setIconName("flood");
    below->setCoordinate({13.755, 100.50});
    auto above = std::make_shared<SMEventAnnotation>();  // shown from zoom 15
    above->setShowlevel(15);
    above->setCoordinate({13.757, 100.50});
    auto other = std::make_shared<map::PointAnnotation>(map::Coordinate{13.752, 100.505});
    service_.clearRequests();
    view_->addAnnotations({pin, tag, custom, below, above, other});
    renderSettled();

    auto pinView = view_->viewForAnnotation(pin);
    ASSERT_TRUE(pinView && pinView->image());
    EXPECT_DOUBLE_EQ(pinView->alpha(), 750.0 - 13.75);
    EXPECT_EQ(pinView->image()->scale(), 2.0);
    auto tagView = view_->viewForAnnotation(tag);
    ASSERT_TRUE(tagView && tagView->image());
    EXPECT_EQ(tagView->alpha(), 0.5);
    EXPECT_EQ(tagView->image()->size().width, 38);
    auto customView = view_->viewForAnnotation(custom);
    ASSERT_TRUE(customView);
    EXPECT_EQ(customView->image(), icon->image());
    EXPECT_EQ(customView->alpha(), 0.3);
    EXPECT_EQ(customView->centerOffset().y, -10);
    ASSERT_TRUE(view_->viewForAnnotation(below)->image());
    EXPECT_FALSE(view_->viewForAnnotation(below)->isHidden());
    EXPECT_TRUE(view_->viewForAnnotation(above)->isHidden());
    auto otherView =
        std::dynamic_pointer_cast<map::PinAnnotationView>(view_->viewForAnnotation(other));
    ASSERT_TRUE(otherView);
    EXPECT_EQ(otherView->pinTintColor(), gfx::Color::red());
    EXPECT_TRUE(otherView->animatesDrop());
    EXPECT_TRUE(otherView->canShowCallout());
    EXPECT_EQ(otherView->zPosition(), 999.0);

    std::set<std::string> iconPaths;
    for (const auto& r : service_.requests()) {
        if (!r.path.starts_with("/map/") && !r.path.starts_with("/ClusterService/")) {
            iconPaths.insert(r.path);
        }
    }
    EXPECT_EQ(iconPaths,
              (std::set<std::string>{"/tvmap/images/icons_2x/hospital.png",
                                     "/tvmap/images/icons_2x/temple_5.png",
                                     "/sites/all/modules/traffic/images/icon_flood-l.png",
                                     "/sites/all/modules/traffic/images/icon_information-l.png"}));

    // The user's position gets no view from the kit: the engine draws its default dot.
    auto user = std::make_shared<map::UserLocation>();
    EXPECT_EQ(view_->viewForAnnotation(*view_, user), nullptr);
}

TEST_F(AnnotationViews, TagsEventsAndCamerasNeverStaySelected) {
    view_->addSMOverlay(SMLayerModeNormal);
    view_->showTags({"temple"});
    auto tag = std::make_shared<SMTagAnnotation>();
    tag->setSetId(globals::tagOverlay()->setId());
    tag->setCoordinate(kBangkok);
    auto event = std::make_shared<SMEventAnnotation>();
    event->setCoordinate(kBangkok);
    auto camera = std::make_shared<SMCameraAnnotation>();
    camera->setCoordinate(kBangkok);
    auto pin = std::make_shared<SMPinAnnotation>();
    pin->setCoordinate(kBangkok);
    auto other = std::make_shared<map::PointAnnotation>(kBangkok);
    view_->addAnnotations({tag, event, camera, pin, other});
    for (const auto& a : std::vector<std::shared_ptr<map::Annotation>>{tag, event, camera}) {
        view_->selectAnnotation(a, true);
        EXPECT_TRUE(view_->selectedAnnotations().empty());
        ASSERT_TRUE(view_->viewForAnnotation(a));
        EXPECT_FALSE(view_->viewForAnnotation(a)->isSelected());
    }
    for (const auto& a : std::vector<std::shared_ptr<map::Annotation>>{pin, other}) {
        view_->selectAnnotation(a, true);
        EXPECT_EQ(view_->selectedAnnotations(), std::vector<std::shared_ptr<map::Annotation>>{a});
    }
}

}  // namespace
}  // namespace sorvan::test
