// SMTagOptions: how showTags binds tags — the zoom levels at which clusters are requested and
// an icon drawn for every tag instead of the one the service names. Plain data, not
// synchronised: set it up before handing it to the view (main queue).
#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "SorvanMapSDK/SMIcon.hpp"
#include "sorvan/platform/export.hpp"

namespace sorvan {

/// A run of zoom levels: location through location + length, both ends included.
struct SMRange {
    std::uint64_t location = 0;
    std::uint64_t length = 0;
    bool operator==(const SMRange&) const = default;
};

class SORVAN_EXPORT SMTagOptions {
  public:
    /// visibleRange (1, 22) and no icon.
    SMTagOptions() = default;
    static std::shared_ptr<SMTagOptions> create() { return std::make_shared<SMTagOptions>(); }

    /// The zoom levels whose tiles ask for clusters. The tag layer's own range becomes
    /// location .. location + length.
    SMRange visibleRange() const { return visibleRange_; }
    void setVisibleRange(SMRange range) { visibleRange_ = range; }
    /// Drawn for every tag, with its alpha and offset, instead of the service's icon.
    const std::shared_ptr<SMIcon>& icon() const { return icon_; }
    void setIcon(std::shared_ptr<SMIcon> icon) { icon_ = std::move(icon); }

  private:
    SMRange visibleRange_{1, 22};
    std::shared_ptr<SMIcon> icon_;
};

}  // namespace sorvan
