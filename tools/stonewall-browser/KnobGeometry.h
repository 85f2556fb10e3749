#pragma once

// Where the switch draws its knob. GTK-free so that it can be tested alone.

namespace stonewall::browser {

struct KnobRect {
    double x = 0, y = 0, width = 0, height = 0;
};
enum class LayoutDirection { LeftToRight, RightToLeft };

// The knob inside a background of width x height: 2 points from the edges,
// golden-ratio wide at rest and wider while pressed (`active`), at the start
// when off and at the end when on (mirrored right to left).
KnobRect rectForKnob(double width, double height, bool checked, bool active,
                     LayoutDirection direction);

}  // namespace stonewall::browser
