#pragma once

// The popover's layout in GTK: the six views as pages of a GtkStack, with
// every outlet of extension/PopoverOutlets.h. Built once, when the popover
// controller is made; the controller sets every text, colour and state.
//
// Main thread for building and the control-channel helpers; the outlets
// follow GtkViews.h.

#include <gtk/gtk.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "extension/ExtensionButton.h"
#include "extension/OutletPopoverView.h"
#include "front/GtkViews.h"

namespace stonewall::browser {

class GtkPopoverView : public OutletPopoverView {
  public:
    // `localized` gives the texts the layout itself fixes (cancel titles).
    explicit GtkPopoverView(const std::function<std::string(const std::string&)>& localized);
    ~GtkPopoverView() override;

    // The popover's content; the window puts it into its GtkPopover.
    GtkWidget* root() const { return root_; }
    void setPopover(GtkWidget* popover) { popover_ = popover; }

    void setPreferredContentSize(Size size) override;
    bool respondsToDismissPopover() const override { return true; }
    void dismissPopover() override;

    // Draws every view again in the current appearance.
    void refreshAppearance();

    // --- For the control channel ------------------------------------------------
    // Presses a row (a click released in its middle: flash, then act) or a
    // push button; false for an unknown outlet.
    bool press(const std::string& outlet);
    void selectProfile(unsigned index);
    // Called with the view code each time a view is shown.
    void setOnViewShown(std::function<void(int64_t)> onViewShown) {
        onViewShown_ = std::move(onViewShown);
    }
    int64_t shownView() const { return shownView_; }
    std::string rowTitle(std::string_view outlet) const;
    bool rowEnabled(std::string_view outlet) const;

  private:
    GtkWidget* label(std::string_view outlet, const char* cssClass);
    GtkWidget* row(std::string_view outlet, std::string_view imageOutlet = {},
                   GtkAccessibleRole role = GTK_ACCESSIBLE_ROLE_BUTTON);
    GtkWidget* separator(std::string_view outlet, std::string_view leading,
                         std::string_view trailing);
    GtkWidget* pushButton(std::string_view outlet, const std::string& title, bool suggested);
    // A page of title and message (views "<name>TitleLabel", ...), an
    // optional control, and Cancel beside the default button.
    void confirmationPage(const std::string& name, GtkWidget* control,
                          const std::string& cancelTitle, const std::string& doneTitle,
                          int64_t code);
    void addPage(std::string_view outlet, GtkWidget* box, int64_t code);
    // Names the dialog `page` by the text of "<name>TitleLabel" and
    // describes it by that of "<name>MessageLabel", as they change.
    void describeDialog(GtkWidget* page, const std::string& name);
    // The button that leaves view `code` (its Cancel; OK of the error view).
    GtkWidget* leavingButton(int64_t code) const;
    void focusShownView(int64_t previous, int64_t code);

    GtkWidget* root_ = nullptr;
    GtkWidget* stack_ = nullptr;
    GtkWidget* popover_ = nullptr;
    std::shared_ptr<GtkPopUpButton> popup_;
    std::shared_ptr<GtkProgressIndicator> progress_;
    std::vector<std::shared_ptr<AppearanceDependent>> drawn_;
    std::function<void(int64_t)> onViewShown_;
    int64_t shownView_ = 0;
    std::vector<GtkWidget*> pages_;   // the views' boxes, in the stack
    GtkWidget* returnRow_ = nullptr;  // the row pressed last; the main view's
};

}  // namespace stonewall::browser
