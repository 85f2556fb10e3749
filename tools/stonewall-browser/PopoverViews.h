#pragma once

// The popover's widget tree: six views in a GtkStack (main, picking, profile
// choice, website confirmation, reloading, error) with the outlets the
// extension's controller sets. Building it sets the start-up texts, fonts
// and colours; nothing here acts on its own.
//
// Main thread only. The widgets belong to `root`.

#include <gtk/gtk.h>

#include <functional>
#include <map>
#include <string>

#include "Controls.h"

namespace stonewall::browser {

// View codes of the popover.
enum PopoverView : int {
    kMainView = 1,
    kPickingView = 2,
    kProfileView = 3,
    kWebsiteView = 4,
    kReloadingView = 5,
    kErrorView = 6,
};

struct PopoverViews {
    GtkWidget* root = nullptr;  // fixed size; holds the stack
    GtkWidget* stack = nullptr;

    // Main view.
    GtkWidget* statusImageView = nullptr;
    ExtensionButton* statusButton = nullptr;
    GtkWidget* counterImageView = nullptr;
    ExtensionButton* counterButton = nullptr;
    ExtensionButton* visualBlockButton = nullptr;
    ExtensionButton* blockButton = nullptr;
    ExtensionButton* secureButton = nullptr;
    ExtensionButton* whitelistButton = nullptr;
    ExtensionButton* profileButton = nullptr;
    ExtensionButton* appButton = nullptr;
    // Picking.
    GtkWidget* visualCancelButton = nullptr;
    GtkWidget* visualDoneButton = nullptr;
    // Profile choice.
    GtkWidget* profilePopupButton = nullptr;  // GtkDropDown over a GtkStringList
    GtkWidget* profileCancelButton = nullptr;
    GtkWidget* profileDoneButton = nullptr;
    // Website confirmation.
    GtkWidget* websiteTitleLabel = nullptr;
    GtkWidget* websiteMessageLabel = nullptr;
    GtkWidget* websiteCancelButton = nullptr;
    GtkWidget* websiteDoneButton = nullptr;
    // Reloading.
    GtkWidget* reloadProgressIndicator = nullptr;
    // Error.
    GtkWidget* errorTitleLabel = nullptr;
    GtkWidget* errorMessageLabel = nullptr;
    GtkWidget* errorDoneButton = nullptr;

    int shownView = kMainView;

    // Every pressable control by its outlet name, for the control channel:
    // ExtensionButtons go through their click (flash, then act), push
    // buttons are activated.
    std::map<std::string, std::function<void()>> pressables;
};

// `localized` looks a text up in the catalogue.
PopoverViews buildPopoverViews(const std::function<std::string(const std::string&)>& localized);

// Shows one view and hides the others (the stack's only visible child).
void showPopoverView(PopoverViews& views, int code, bool animated);

// The width and height of the popover's content.
inline constexpr int kPopoverWidth = 290;
inline constexpr int kPopoverHeight = 396;

}  // namespace stonewall::browser
