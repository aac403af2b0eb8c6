// The view that shows one camera: a web picture for stills and moving pictures, a live video
// with the sponsor's banner under it for streams. Built on the main queue; the banner and the
// delayed fitting of the video arrive there too.
#include <memory>

#include "SorvanMapSDK/SMCameraAnnotation.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "mapview/live_requests.hpp"
#include "sorvan/platform/foundation/format.hpp"
#include "sorvan/platform/media/audio_session.hpp"
#include "sorvan/platform/media/player_layer.hpp"
#include "sorvan/platform/ui/controls.hpp"
#include "sorvan/platform/ui/layout_constraint.hpp"
#include "sorvan/platform/ui/web_view.hpp"

namespace sorvan {
namespace {

using ui::LayoutAttribute;
using ui::LayoutConstraint;
using ui::LayoutRelation;

// The alt text reads "the traffic picture cannot be shown"; the picture spans the page's width.
constexpr const char* kPictureTemplate =
    "<img src=\"%s\" width=\"100%%\" alt=\"ไม่สามารถแสดงภาพจราจรได้\" />";
// The video is fitted to the view this long after the banner came, once the host has had time
// to lay the view out.
constexpr dispatch::Duration kRefitDelay{1.0};

std::shared_ptr<LayoutConstraint> pin(const std::shared_ptr<ui::View>& view,
                                      const std::shared_ptr<ui::View>& container,
                                      LayoutAttribute attribute) {
    return LayoutConstraint::create(view, attribute, LayoutRelation::Equal, container, attribute);
}

// The banner's height at the image view's present width, keeping the banner's shape. A banner
// that did not arrive (or is no picture) has no shape: its height is zero.
double bannerHeight(const ui::ImageView& banner) {
    auto image = banner.image();
    if (!image) {
        return 0;
    }
    gfx::Size size = image->size();
    if (!(size.width > 0) || !(size.height > 0)) {
        return 0;
    }
    return banner.frame().size.width / size.width * size.height;
}

std::shared_ptr<LayoutConstraint> heightOf(const std::shared_ptr<ui::ImageView>& banner) {
    return LayoutConstraint::create(banner, LayoutAttribute::Height, LayoutRelation::Equal, nullptr,
                                    LayoutAttribute::NotAnAttribute, 1.0, bannerHeight(*banner));
}

std::shared_ptr<ui::View> pictureView(const SMCameraAnnotation& camera) {
    auto container = std::make_shared<ui::View>();
    auto web = std::make_shared<ui::WebView>();
    web->setScrollEnabled(false);
    std::string source = camera.url() ? camera.url()->absoluteString() : "(null)";
    web->loadHTMLString(strformat(kPictureTemplate, source.c_str()));
    container->addSubview(web);
    web->setTranslatesAutoresizingMaskIntoConstraints(false);
    LayoutConstraint::activate({pin(web, container, LayoutAttribute::Leading),
                                pin(web, container, LayoutAttribute::Trailing),
                                pin(web, container, LayoutAttribute::Top),
                                pin(web, container, LayoutAttribute::Bottom)});
    return container;
}

// Runs on the main queue once the banner's download ended, well or not.
void showBanner(const std::weak_ptr<ui::View>& weakContainer,
                const std::weak_ptr<media::PlayerLayer>& weakLayer,
                const std::optional<net::Data>& data) {
    auto container = weakContainer.lock();
    if (!container) {
        return;  // the host dropped the view before its banner came
    }
    auto banner = std::make_shared<ui::ImageView>(data ? gfx::Image::fromData(*data) : nullptr);
    banner->setContentMode(ui::ContentMode::ScaleAspectFit);
    container->addSubview(banner);
    container->setTranslatesAutoresizingMaskIntoConstraints(false);
    banner->setTranslatesAutoresizingMaskIntoConstraints(false);
    LayoutConstraint::activate({pin(banner, container, LayoutAttribute::Leading),
                                pin(banner, container, LayoutAttribute::Trailing),
                                pin(banner, container, LayoutAttribute::Bottom), heightOf(banner)});

    std::weak_ptr<ui::ImageView> weakBanner = banner;
    dispatch::after(kRefitDelay, dispatch::RunLoop::main(), [weakContainer, weakLayer, weakBanner] {
        auto shownIn = weakContainer.lock();
        auto video = weakLayer.lock();
        auto sponsor = weakBanner.lock();
        if (!shownIn || !video || !sponsor) {
            return;
        }
        video->setFrame(shownIn->bounds());
        // A second has passed, in which a window would have laid the banner out at the
        // container's width; a host that lays out only when it draws has not, so the width is
        // settled here first. The first height stays; this later one, from the laid-out width,
        // is the one layout honours.
        shownIn->layoutIfNeeded();
        LayoutConstraint::activate({heightOf(sponsor)});
    });
}

std::shared_ptr<ui::View> liveView(const SMCameraAnnotation& camera) {
    auto container = std::make_shared<ui::View>();
    auto player =
        media::Player::create(camera.url() ? camera.url()->absoluteString() : std::string());
    auto layer = media::PlayerLayer::create(player);
    // Camera streams carry no sound worth interrupting the host's; a failure changes nothing
    // about the picture.
    (void)media::AudioSession::shared().setCategory(media::AudioSessionCategory::Playback,
                                                    media::AudioSessionMode::Default,
                                                    media::kAudioSessionMixWithOthers);
    layer->setFrame(container->bounds());
    layer->setNeedsDisplayOnBoundsChange(true);
    layer->setVideoGravity(media::VideoGravity::ResizeAspectFill);
    container->addSubview(layer);
    player->play();

    std::weak_ptr<ui::View> weakContainer = container;
    std::weak_ptr<media::PlayerLayer> weakLayer = layer;
    auto arrived = [weakContainer, weakLayer,
                    token = mapview::beginLiveRequest()](std::optional<net::Data> data) {
        dispatch::RunLoop::main().async([weakContainer, weakLayer, token, bytes = std::move(data)] {
            showBanner(weakContainer, weakLayer, bytes);
        });
    };
    if (!camera.sponsorImageURL()) {
        arrived(std::nullopt);
        return container;
    }
    net::URLSession::shared().dataTask(
        *camera.sponsorImageURL(),
        [arrived](const std::optional<net::Data>& data, const std::optional<net::HTTPURLResponse>&,
                  const std::optional<net::Error>&) { arrived(data); });
    return container;
}

}  // namespace

std::shared_ptr<ui::View> SorvanMapView::getVDOViewFromCameraData(
    const std::shared_ptr<SMCameraAnnotation>& camera) {
    if (!camera) {
        return std::make_shared<ui::View>();
    }
    if (camera->format() != SMCameraFormatLive) {
        return pictureView(*camera);
    }
    return liveView(*camera);
}

}  // namespace sorvan
