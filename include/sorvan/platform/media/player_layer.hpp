// A view that shows a player's latest picture, scaled into its bounds by a video gravity. It
// is drawn with the rest of the view tree (drawHierarchy, a map view's render()), redraws when
// a new picture arrives or its bounds change, and shows nothing (only its background) before
// the first picture; a player that fails later leaves its last picture standing.
//
// Ownership: the layer holds its player (shared), so the stream plays as long as the layer
// lives; the player does not hold the layer.
//
// Main queue only.
//
//   auto layer = sorvan::media::PlayerLayer::create(player);
//   layer->setVideoGravity(sorvan::media::VideoGravity::ResizeAspectFill);
//   container->addSubview(layer);
#pragma once

#include <memory>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/media/player.hpp"
#include "sorvan/platform/ui/view.hpp"

namespace sorvan::media {

/// How the picture fills the layer's bounds.
enum class VideoGravity {
    ResizeAspect,      // whole picture, aspect kept, bars where the shapes differ (default)
    ResizeAspectFill,  // fills the bounds, aspect kept, the overflow cut off
    Resize,            // stretched to the bounds
};

class SORVAN_EXPORT PlayerLayer : public ui::View {
  public:
    /// A layer with a zero frame showing player (which may be nullptr: shows nothing).
    static std::shared_ptr<PlayerLayer> create(std::shared_ptr<Player> player);
    ~PlayerLayer() override;

    std::shared_ptr<Player> player() const { return player_; }
    void setPlayer(std::shared_ptr<Player> player);

    VideoGravity videoGravity() const { return gravity_; }
    void setVideoGravity(VideoGravity gravity);

    /// Whether a change of bounds redraws the picture at once (true by default here; the
    /// picture is always scaled to the bounds it is drawn in).
    bool needsDisplayOnBoundsChange() const { return redrawOnBoundsChange_; }
    void setNeedsDisplayOnBoundsChange(bool v) { redrawOnBoundsChange_ = v; }

    /// True once the player has a picture to show.
    bool isReadyForDisplay() const;
    /// Where the picture lands in the layer's bounds under the gravity; empty without a picture.
    gfx::Rect videoRect() const;

    void setFrame(gfx::Rect frame) override;
    void draw(cairo_t* context, gfx::Rect bounds) override;

  private:
    PlayerLayer() = default;
    void attach();
    std::shared_ptr<Player> player_;
    VideoGravity gravity_ = VideoGravity::ResizeAspect;
    bool redrawOnBoundsChange_ = true;
};

}  // namespace sorvan::media
