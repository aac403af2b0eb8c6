// SMTileOverlayRenderer: the renderer the map view makes for every SMTileOverlay. It draws the
// overlay's tiles with the overlay's alpha and, when the view has bound it to tags
// (showTags), asks the clustering service for the tags of every tile it draws and hands them
// to its tag delegate. At most one renderer at a time is bound (the process-wide tagOverlay).
//
// Ownership: the map keeps the renderer while its overlay is on the map; the tag binding keeps
// it too. The tag delegate is held weakly.
//
// Threads: drawMapRect() runs on the engine's draw threads, several at once; it only reads the
// properties and starts a request. The properties are guarded and may be set from any thread
// (the view sets them on the main queue). reloadData() is main queue only. Answers are read on
// the main queue, which is also where the delegate is called.
//
// Process-wide effects: creating a renderer and reloadData() empty the registry of delivered
// tags (pathOnMap), so tags already on the map may be delivered again.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "SorvanMapSDK/SMIcon.hpp"
#include "SorvanMapSDK/SMTagOptions.hpp"
#include "sorvan/platform/export.hpp"
#include "sorvan/platform/foundation/url.hpp"
#include "sorvan/platform/foundation/url_session.hpp"
#include "sorvan/platform/map/overlay_renderer.hpp"

namespace sorvan {

class SMTagDelegate;
class SMTileOverlay;

class SORVAN_EXPORT SMTileOverlayRenderer : public map::TileOverlayRenderer {
  public:
    /// A renderer for overlay (nullptr is allowed: it then draws and asks for nothing). Empties
    /// the registry of delivered tags.
    explicit SMTileOverlayRenderer(std::shared_ptr<SMTileOverlay> overlay);
    static std::shared_ptr<SMTileOverlayRenderer> create(std::shared_ptr<SMTileOverlay> overlay);

    /// Empties the registry of delivered tags, then forgets the loaded tiles so that every
    /// visible tile is loaded, drawn and asked for its tags again. Main queue only.
    void reloadData() override;
    /// Draws the tile; then, when bound, starts the tile's cluster request (see tagRequest).
    void drawMapRect(const map::MapRect& mapRect, double zoomScale, cairo_t* context) override;

    /// The cluster request a draw of mapRect at zoomScale sends, or nullopt when it sends none:
    /// unbound (no tag list and no delegate), a zoom outside visibleRange, or a base address
    /// that forms no URL. The zoom is trunc(log2(zoomScale) + 19), the tile's column and row
    /// are the rect's origin times zoomScale over the tile width, and the index is column +
    /// 2^zoom * row (0 * row at zoom 0). Thread-safe.
    std::optional<net::URLRequest> tagRequest(const map::MapRect& mapRect, double zoomScale) const;

    // Properties (thread-safe) ---------------------------------------------------------------
    std::shared_ptr<SMTagDelegate> tagDelegate() const;
    void setTagDelegate(std::weak_ptr<SMTagDelegate> delegate);
    /// The tag names asked for, in order; nullopt while unbound. Names are sent as they are.
    std::optional<std::vector<std::string>> tag() const;
    void setTag(std::optional<std::vector<std::string>> tags);
    /// "en" or "th", the last piece of the request path.
    std::string language() const;
    void setLanguage(std::string language);
    /// Replaces the clustering service's scheme, host and port when set.
    std::optional<net::URL> boxDomain() const;
    void setBoxDomain(std::optional<net::URL> domain);
    /// Given to every tag annotation this renderer makes.
    std::shared_ptr<SMIcon> tagIcon() const;
    void setTagIcon(std::shared_ptr<SMIcon> icon);
    /// The zoom levels whose tiles ask for tags: location through location + length.
    SMRange visibleRange() const;
    void setVisibleRange(SMRange range);
    /// The stamp of the showTags call that bound the renderer.
    std::int64_t setId() const;
    void setSetId(std::int64_t setId);
    /// The service key, sent as "key".
    std::string apikey() const;
    void setApikey(std::string key);

  private:
    struct TagCall;
    bool prepareTagCall(const map::MapRect& mapRect, double zoomScale, TagCall& call) const;
    void requestTags(const map::MapRect& mapRect, double zoomScale);

    mutable std::mutex mutex_;
    std::weak_ptr<SMTagDelegate> tagDelegate_;
    std::optional<std::vector<std::string>> tag_;
    std::string language_;
    std::optional<net::URL> boxDomain_;
    std::shared_ptr<SMIcon> tagIcon_;
    SMRange visibleRange_;
    std::int64_t setId_ = 0;
    std::string apikey_;
};

}  // namespace sorvan
