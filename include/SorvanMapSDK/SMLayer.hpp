// SMLayer: the descriptor of one tile layer that a host hands the map view (addSMLayer,
// addSMLayers), with the catalogue of layer modes and tile formats.
//
// A plain value-like object: the host fills it in, the view reads it once when it builds an
// overlay. Not synchronised: fill it in on one thread before handing it over.
//
//   auto layer = std::make_shared<sorvan::SMLayer>(sorvan::SMLayerModeCustom);
//   layer->setSourceLayer("http://tiles.example.org/{z}/{x}/{y}.png");
//   layer->setTileFormat(sorvan::SMTileFormatXYZ);
//   view->addSMLayer(layer);
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "sorvan/platform/export.hpp"

namespace sorvan {

/// Which layer a tile comes from. Plain integers: values are never validated, and unknown
/// values are fetched from the map server with an empty mode name.
using SMLayerMode = std::int64_t;
inline constexpr SMLayerMode SMLayerModeBase = 0;
inline constexpr SMLayerMode SMLayerModeGistdaSpot5 = 1;
inline constexpr SMLayerMode SMLayerModeGray = 2;
inline constexpr SMLayerMode SMLayerModeHydro = 3;
inline constexpr SMLayerMode SMLayerModeMapquestOsm = 4;
inline constexpr SMLayerMode SMLayerModeNormal = 5;
inline constexpr SMLayerMode SMLayerModeNormalR = 6;
inline constexpr SMLayerMode SMLayerModeOsmOpencycle = 7;
inline constexpr SMLayerMode SMLayerModeOsm = 8;
inline constexpr SMLayerMode SMLayerModeIcons = 9;
inline constexpr SMLayerMode SMLayerModePoliticalWhite = 10;
inline constexpr SMLayerMode SMLayerModePoliticalWhiteNoLabel = 11;
inline constexpr SMLayerMode SMLayerModeBluemarbleTerrain = 12;
inline constexpr SMLayerMode SMLayerModeThaichote = 13;
/// Same mode name as Thaichote, asked of the partner map server.
inline constexpr SMLayerMode SMLayerModeThaichotePartner = 14;
inline constexpr SMLayerMode SMLayerModeIconsTransp = 15;
/// Traffic tiles from the traffic service; no picture at all while none is configured.
inline constexpr SMLayerMode SMLayerModeTraffic = 16;
/// Pictures from the documents folder ("grayproxy/..."), never the network.
inline constexpr SMLayerMode SMLayerModeOfflineGray = 17;
/// Opaque white under everything drawn so far.
inline constexpr SMLayerMode SMLayerModeWhiteBackground = 18;
/// Draws nothing; a stack whose top layer is None yields no picture.
inline constexpr SMLayerMode SMLayerModeNone = 19;
/// A map-server layer whose mode name is the layer's sourceLayer.
inline constexpr SMLayerMode SMLayerModeServerLayer = 20;
/// A host-given URL template (sourceLayer) in one of the SMTileFormat forms.
inline constexpr SMLayerMode SMLayerModeCustom = 21;

/// How a custom (mode 21) template is filled. Any other value behaves as Default.
using SMTileFormat = std::int64_t;
inline constexpr SMTileFormat SMTileFormatDefault = 0;  ///< {x}/{y}/{z}
inline constexpr SMTileFormat SMTileFormatXYZ = 1;      ///< the same as Default
inline constexpr SMTileFormat SMTileFormatTMS = 2;      ///< {y} counted from the south
/// {u}/{v}/{z}/{w}/{ux}; the answer goes to the data delegate and draws nothing. Without a
/// data delegate the layer is handled as Default.
inline constexpr SMTileFormat SMTileFormatData = 3;
inline constexpr SMTileFormat SMTileFormatWMS4326 = 4;  ///< WMS 1.1.1 GetMap, degrees
inline constexpr SMTileFormat SMTileFormatWMS3857 = 5;  ///< WMS 1.1.1 GetMap, metres

class SORVAN_EXPORT SMLayer {
  public:
    /// A layer of the given mode with tileFormat 0, empty sourceLayer and referer, alpha 1.0
    /// and zoom range 1 to 20. The mode is not validated.
    explicit SMLayer(SMLayerMode mode) : mode_(mode) {}
    static std::shared_ptr<SMLayer> create(SMLayerMode mode) {
        return std::make_shared<SMLayer>(mode);
    }

    SMLayerMode mode() const { return mode_; }
    void setMode(SMLayerMode mode) { mode_ = mode; }
    /// Used by mode 21 only.
    SMTileFormat tileFormat() const { return tileFormat_; }
    void setTileFormat(SMTileFormat format) { tileFormat_ = format; }
    /// The URL template (mode 21) or the server's mode name (mode 20).
    const std::string& sourceLayer() const { return sourceLayer_; }
    void setSourceLayer(std::string source) { sourceLayer_ = std::move(source); }
    /// The Referer header of mode 21 requests.
    const std::string& referer() const { return referer_; }
    void setReferer(std::string referer) { referer_ = std::move(referer); }
    /// Opacity of the overlay the layer lands in.
    double alpha() const { return alpha_; }
    void setAlpha(double alpha) { alpha_ = alpha; }
    std::int64_t minZoom() const { return minZoom_; }
    void setMinZoom(std::int64_t zoom) { minZoom_ = zoom; }
    std::int64_t maxZoom() const { return maxZoom_; }
    void setMaxZoom(std::int64_t zoom) { maxZoom_ = zoom; }

  private:
    SMLayerMode mode_;
    SMTileFormat tileFormat_ = SMTileFormatDefault;
    std::string sourceLayer_;
    std::string referer_;
    double alpha_ = 1.0;
    std::int64_t minZoom_ = 1;
    std::int64_t maxZoom_ = 20;
};

}  // namespace sorvan
