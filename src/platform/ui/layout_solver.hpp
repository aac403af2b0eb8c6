// Applies the active constraints that position a view's subviews. Main queue only.
#pragma once

namespace sorvan::ui {
class View;
}

namespace sorvan::ui::detail {

/// Sets the frames of container's subviews from the active constraints installed on the
/// container and on the subviews themselves. Subviews no constraint mentions keep their frame.
void solveConstraints(View& container);

}  // namespace sorvan::ui::detail
