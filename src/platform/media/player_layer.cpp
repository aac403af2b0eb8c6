#include "sorvan/platform/media/player_layer.hpp"

#include <cairo.h>

#include <algorithm>

#include "ui/cairo_util.hpp"

namespace sorvan::media {

namespace {

gfx::Rect placed(gfx::Size picture, gfx::Rect bounds, VideoGravity gravity) {
    if (picture.width <= 0 || picture.height <= 0 || bounds.size.width <= 0 ||
        bounds.size.height <= 0)
        return {};
    if (gravity == VideoGravity::Resize)
        return bounds;
    double sx = bounds.size.width / picture.width, sy = bounds.size.height / picture.height;
    double s = gravity == VideoGravity::ResizeAspect ? std::min(sx, sy) : std::max(sx, sy);
    double w = picture.width * s, h = picture.height * s;
    return {bounds.minX() + (bounds.size.width - w) / 2,
            bounds.minY() + (bounds.size.height - h) / 2, w, h};
}

}  // namespace

std::shared_ptr<PlayerLayer> PlayerLayer::create(std::shared_ptr<Player> player) {
    std::shared_ptr<PlayerLayer> layer(new PlayerLayer());
    layer->player_ = std::move(player);
    layer->attach();
    return layer;
}

PlayerLayer::~PlayerLayer() = default;

// The player tells its layers of new pictures; it holds them weakly, so a dropped layer simply
// falls out of its list.
void PlayerLayer::attach() {
    if (player_)
        player_->addLayer(std::static_pointer_cast<PlayerLayer>(shared_from_this()));
}

void PlayerLayer::setPlayer(std::shared_ptr<Player> player) {
    if (player == player_)
        return;
    if (player_)
        player_->removeLayer(this);
    player_ = std::move(player);
    attach();
    setNeedsDisplay();
}

void PlayerLayer::setVideoGravity(VideoGravity gravity) {
    gravity_ = gravity;
    setNeedsDisplay();
}

bool PlayerLayer::isReadyForDisplay() const {
    return player_ && player_->currentFrame() != nullptr;
}

gfx::Rect PlayerLayer::videoRect() const {
    auto picture = player_ ? player_->currentFrame() : nullptr;
    if (!picture)
        return {};
    return placed(picture->size(), bounds(), gravity_);
}

void PlayerLayer::setFrame(gfx::Rect frame) {
    bool resized = !(frame.size == this->frame().size);
    View::setFrame(frame);
    if (resized && redrawOnBoundsChange_)
        setNeedsDisplay();
}

void PlayerLayer::draw(cairo_t* context, gfx::Rect bounds) {
    View::draw(context, bounds);
    auto picture = player_ ? player_->currentFrame() : nullptr;
    if (!picture)
        return;
    gfx::Rect r = placed(picture->size(), bounds, gravity_);
    if (r.size.width <= 0 || r.size.height <= 0)
        return;
    // Aspect fill overflows the bounds; a layer shows only its own area.
    cairo_save(context);
    cairo_rectangle(context, bounds.minX(), bounds.minY(), bounds.size.width, bounds.size.height);
    cairo_clip(context);
    ui::detail::paintImage(context, *picture, r.minX(), r.minY(), r.size.width, r.size.height);
    cairo_restore(context);
}

}  // namespace sorvan::media
