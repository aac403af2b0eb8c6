// The PNG settings of the tile pipeline, chosen once for the whole kit.
#pragma once

#include <cstddef>

#include "sorvan/platform/graphics/image.hpp"

namespace sorvan::tiles {

// A composed tile is handed straight to the map engine, which decodes it again at once: it
// never touches a disk or a wire, so only encoding time matters and the fastest zlib level
// wins (encoding dominates a composed tile; level 1 costs about half of level 6). The
// "Sub" filter is nearly as cheap as no filter and keeps flat map areas small.
inline constexpr gfx::PNGOptions kComposedTilePNG{1, gfx::PNGOptions::Filter::Sub};

// Cache files are written once per download and decoded on every warm load; the same fast
// level keeps a cold load with the cache on close to one without it, and the files stay a
// fraction of a raw bitmap.
inline constexpr gfx::PNGOptions kCacheFilePNG{1, gfx::PNGOptions::Filter::Sub};

// Every layer is drawn into 256 x 256, so a layer's picture larger than eight times that on a
// side can only be a mistake or an attack: a few bytes of header claiming 32768 x 8192 pixels
// would otherwise take a gigabyte per tile thread before a single row is read.
inline constexpr gfx::ImageLimits kLayerImageLimits{2048, 2048u * 2048u};

// The largest answer a tile request reads, pictures and data layers alike: more than any
// picture within the limits above needs.
inline constexpr std::size_t kMaxTileAnswerBytes = 16 * 1024 * 1024;

}  // namespace sorvan::tiles
