#pragma once

// The GTK side of the front's two custom controls. The control logic
// (colours, flash timing, knob geometry, animation curve) is the front's
// ExtensionButton and CustomSwitch; these widgets only feed them the
// pointer and key events and draw what they decide.
//
// Main thread only.

#include <gtk/gtk.h>

#include <functional>
#include <memory>

#include "extension/CustomSwitch.h"
#include "extension/ExtensionButton.h"

namespace stonewall::browser {

// Makes `row` (a layer button, the button's view) a focusable row that
// forwards hover, clicks and activation (Space, Return, assistive
// technologies) to `button`, calling `onPressed` first. The widget holds the
// button weakly: the popover's view tree owns it.
void attachExtensionButton(GtkWidget* row, const std::shared_ptr<ExtensionButton>& button,
                           std::function<void()> onPressed = {});

// What a click released in the middle of the row does.
void clickExtensionButton(ExtensionButton& button);

// A switch widget drawn with GtkSnapshot from the layers of its
// CustomSwitch, which the widget owns.
GtkWidget* customSwitchNew();
CustomSwitch& customSwitchOf(GtkWidget* widget);

}  // namespace stonewall::browser
