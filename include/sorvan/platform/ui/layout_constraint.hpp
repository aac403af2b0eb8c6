// Linear layout constraints: item1.attr1 (= or >=) multiplier * item2.attr2 + constant.
// Main queue only.
#pragma once

#include <initializer_list>
#include <memory>
#include <vector>

#include "sorvan/platform/export.hpp"

namespace sorvan::ui {

class View;

enum class LayoutAttribute {
    NotAnAttribute,
    Left,
    Right,
    Top,
    Bottom,
    Leading,
    Trailing,
    Width,
    Height,
    CenterX,
    CenterY
};
enum class LayoutRelation { LessThanOrEqual = -1, Equal = 0, GreaterThanOrEqual = 1 };

class SORVAN_EXPORT LayoutConstraint : public std::enable_shared_from_this<LayoutConstraint> {
  public:
    /// item2 may be null for a constant (width, height) constraint.
    static std::shared_ptr<LayoutConstraint> create(const std::shared_ptr<View>& item1,
                                                    LayoutAttribute attr1, LayoutRelation relation,
                                                    const std::shared_ptr<View>& item2,
                                                    LayoutAttribute attr2, double multiplier = 1.0,
                                                    double constant = 0.0);
    /// Activating installs the constraint on the items' nearest common ancestor (or on the
    /// item itself for a constant width or height), which keeps it while it is active.
    static void activate(std::initializer_list<std::shared_ptr<LayoutConstraint>> constraints);
    static void activate(const std::vector<std::shared_ptr<LayoutConstraint>>& constraints);

    bool isActive() const { return active_; }
    void setActive(bool active);
    double constant() const { return constant_; }
    void setConstant(double c);
    double multiplier() const { return multiplier_; }
    LayoutAttribute firstAttribute() const { return attr1_; }
    LayoutAttribute secondAttribute() const { return attr2_; }
    LayoutRelation relation() const { return relation_; }
    std::shared_ptr<View> firstItem() const { return item1_.lock(); }
    std::shared_ptr<View> secondItem() const { return item2_.lock(); }

  private:
    LayoutConstraint() = default;
    std::weak_ptr<View> item1_, item2_;
    LayoutAttribute attr1_ = LayoutAttribute::NotAnAttribute;
    LayoutAttribute attr2_ = LayoutAttribute::NotAnAttribute;
    LayoutRelation relation_ = LayoutRelation::Equal;
    double multiplier_ = 1.0, constant_ = 0.0;
    bool active_ = false;
};

}  // namespace sorvan::ui
