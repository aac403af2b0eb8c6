#include "sorvan/platform/ui/layout_constraint.hpp"

#include <algorithm>
#include <map>
#include <optional>

#include "sorvan/platform/ui/view.hpp"
#include "ui/layout_solver.hpp"

namespace sorvan::ui {

namespace {

bool isAncestor(const View* ancestor, const View* v) {
    for (auto p = v ? v->superview() : nullptr; p; p = p->superview())
        if (p.get() == ancestor)
            return true;
    return false;
}

// Where a constraint lives: the nearest common ancestor of its items (or the item itself for a
// constant size), so that laying out that ancestor's subviews finds it.
std::shared_ptr<View> installationView(const LayoutConstraint& c) {
    auto a = c.firstItem(), b = c.secondItem();
    if (!a)
        return nullptr;
    if (!b)
        return a;
    if (a == b)
        return a;
    if (isAncestor(b.get(), a.get()))
        return b;
    if (isAncestor(a.get(), b.get()))
        return a;
    for (auto p = a->superview(); p; p = p->superview())
        if (isAncestor(p.get(), b.get()))
            return p;
    return a;
}

}  // namespace

std::shared_ptr<LayoutConstraint> LayoutConstraint::create(
    const std::shared_ptr<View>& item1, LayoutAttribute attr1, LayoutRelation relation,
    const std::shared_ptr<View>& item2, LayoutAttribute attr2, double multiplier, double constant) {
    std::shared_ptr<LayoutConstraint> c(new LayoutConstraint());
    c->item1_ = item1;
    c->item2_ = item2;
    c->attr1_ = attr1;
    c->attr2_ = item2 ? attr2 : LayoutAttribute::NotAnAttribute;
    c->relation_ = relation;
    c->multiplier_ = multiplier;
    c->constant_ = constant;
    return c;
}

void LayoutConstraint::activate(
    std::initializer_list<std::shared_ptr<LayoutConstraint>> constraints) {
    for (auto& c : constraints)
        if (c)
            c->setActive(true);
}

void LayoutConstraint::activate(const std::vector<std::shared_ptr<LayoutConstraint>>& constraints) {
    for (auto& c : constraints)
        if (c)
            c->setActive(true);
}

void LayoutConstraint::setActive(bool active) {
    if (active == active_)
        return;
    // The installation view keeps the constraint alive while it is active.
    auto self = shared_from_this();
    active_ = active;
    auto host = installationView(*this);
    if (!host)
        return;
    if (active)
        host->addConstraint(self);
    else
        host->removeConstraint(self);
}

void LayoutConstraint::setConstant(double c) {
    constant_ = c;
    if (auto v = firstItem()) {
        if (auto p = v->superview())
            p->setNeedsLayout();
        else
            v->setNeedsLayout();
    }
}

namespace detail {

namespace {

enum Axis { kX = 0, kY = 1 };

struct AxisKnown {
    std::optional<double> min, max, mid, size;
};

struct Known {
    AxisKnown axis[2];
};

Axis axisOf(LayoutAttribute a) {
    switch (a) {
        case LayoutAttribute::Top:
        case LayoutAttribute::Bottom:
        case LayoutAttribute::Height:
        case LayoutAttribute::CenterY:
            return kY;
        default:
            return kX;
    }
}

// Leading and trailing are left and right: text runs left to right here.
std::optional<double>* slot(Known& k, LayoutAttribute a) {
    AxisKnown& ax = k.axis[axisOf(a)];
    switch (a) {
        case LayoutAttribute::Left:
        case LayoutAttribute::Leading:
        case LayoutAttribute::Top:
            return &ax.min;
        case LayoutAttribute::Right:
        case LayoutAttribute::Trailing:
        case LayoutAttribute::Bottom:
            return &ax.max;
        case LayoutAttribute::CenterX:
        case LayoutAttribute::CenterY:
            return &ax.mid;
        case LayoutAttribute::Width:
        case LayoutAttribute::Height:
            return &ax.size;
        default:
            return nullptr;
    }
}

double valueOf(gfx::Rect r, LayoutAttribute a) {
    switch (a) {
        case LayoutAttribute::Left:
        case LayoutAttribute::Leading:
            return r.minX();
        case LayoutAttribute::Right:
        case LayoutAttribute::Trailing:
            return r.maxX();
        case LayoutAttribute::Top:
            return r.minY();
        case LayoutAttribute::Bottom:
            return r.maxY();
        case LayoutAttribute::Width:
            return r.size.width;
        case LayoutAttribute::Height:
            return r.size.height;
        case LayoutAttribute::CenterX:
            return r.midX();
        case LayoutAttribute::CenterY:
            return r.midY();
        default:
            return 0;
    }
}

gfx::Rect resolve(const Known& k, gfx::Rect current) {
    double origin[2] = {current.origin.x, current.origin.y};
    double size[2] = {current.size.width, current.size.height};
    for (int i = 0; i < 2; ++i) {
        const AxisKnown& a = k.axis[i];
        double s = size[i];
        if (a.size)
            s = *a.size;
        else if (a.min && a.max)
            s = *a.max - *a.min;
        else if (a.min && a.mid)
            s = 2 * (*a.mid - *a.min);
        else if (a.max && a.mid)
            s = 2 * (*a.max - *a.mid);
        double o = origin[i];
        if (a.min)
            o = *a.min;
        else if (a.max)
            o = *a.max - s;
        else if (a.mid)
            o = *a.mid - s / 2;
        origin[i] = o;
        size[i] = std::max(0.0, s);
    }
    return {origin[0], origin[1], size[0], size[1]};
}

// Where the constraints leave a size free, or bound it only by inequalities, a view that opted
// out of autoresizing translation starts from its content's size; the inequalities then move
// it only when that size breaks them.
gfx::Rect startingFrame(const View& item) {
    gfx::Rect frame = item.frame();
    if (item.translatesAutoresizingMaskIntoConstraints()) {
        return frame;
    }
    if (auto intrinsic = item.intrinsicContentSize()) {
        frame.size = *intrinsic;
    }
    return frame;
}

}  // namespace

void solveConstraints(View& container) {
    std::vector<std::shared_ptr<LayoutConstraint>> all = container.constraints();
    for (auto& sub : container.subviews())
        for (auto& c : sub->constraints())
            if (!c->secondItem() || c->secondItem() == sub)
                all.push_back(c);

    std::vector<std::shared_ptr<LayoutConstraint>> relevant;
    for (auto& c : all) {
        auto item = c->firstItem();
        if (!c->isActive() || !item || item->superview().get() != &container)
            continue;
        if (c->firstAttribute() == LayoutAttribute::NotAnAttribute)
            continue;
        relevant.push_back(c);
    }
    if (relevant.empty())
        return;

    auto reference = [&](const LayoutConstraint& c) -> double {
        auto other = c.secondItem();
        if (!other)
            return 0;
        gfx::Rect r = other.get() == &container ? container.bounds() : other->frame();
        return valueOf(r, c.secondAttribute());
    };

    // Constraints may refer to siblings placed by other constraints: a few rounds settle any
    // acyclic arrangement of the small furniture views this tree holds.
    for (int round = 0; round < 3; ++round) {
        std::map<View*, Known> known;
        std::map<View*, std::vector<const LayoutConstraint*>> inequalities;
        for (auto& c : relevant) {
            View* item = c->firstItem().get();
            if (c->relation() != LayoutRelation::Equal) {
                inequalities[item].push_back(c.get());
                known[item];
                continue;
            }
            double target = c->multiplier() * reference(*c) + c->constant();
            if (!c->secondItem())
                target = c->constant();
            *slot(known[item], c->firstAttribute()) = target;
        }
        for (auto& [item, k] : known) {
            gfx::Rect start = startingFrame(*item);
            gfx::Rect f = resolve(k, start);
            for (const LayoutConstraint* c : inequalities[item]) {
                double target = c->secondItem() ? c->multiplier() * reference(*c) + c->constant()
                                                : c->constant();
                double value = valueOf(f, c->firstAttribute());
                bool violated = c->relation() == LayoutRelation::GreaterThanOrEqual
                                    ? value < target
                                    : value > target;
                if (violated) {
                    *slot(k, c->firstAttribute()) = target;
                    f = resolve(k, start);
                }
            }
            if (!(f == item->frame()))
                item->setFrame(f);
        }
    }
}

}  // namespace detail

}  // namespace sorvan::ui
