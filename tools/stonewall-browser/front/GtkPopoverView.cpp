#include "front/GtkPopoverView.h"

#include "front/Controls.h"

namespace stonewall::browser {

namespace {

GtkWidget* buttonRow(GtkWidget* cancel, GtkWidget* done) {
    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 8);
    gtk_box_set_homogeneous(GTK_BOX(box), TRUE);
    if (cancel) gtk_box_append(GTK_BOX(box), cancel);
    gtk_box_append(GTK_BOX(box), done);
    return box;
}

// A title and message centred above an optional control and a row of
// buttons: the picking, profile, website, reloading and error views. Told
// as a dialog, named by its title and described by its message.
GtkWidget* dialogView(GtkWidget* messages, GtkWidget* middle, GtkWidget* buttons) {
    GtkWidget* box =
        GTK_WIDGET(g_object_new(GTK_TYPE_BOX, "orientation", GTK_ORIENTATION_VERTICAL, "spacing", 8,
                                "accessible-role", GTK_ACCESSIBLE_ROLE_DIALOG, nullptr));
    gtk_widget_add_css_class(box, "dialog-view");
    GtkWidget* top = gtk_box_new(GTK_ORIENTATION_VERTICAL, 8);
    gtk_widget_set_vexpand(top, TRUE);
    gtk_widget_set_valign(top, GTK_ALIGN_CENTER);
    gtk_box_append(GTK_BOX(top), messages);
    if (middle) gtk_box_append(GTK_BOX(top), middle);
    gtk_box_append(GTK_BOX(box), top);
    if (buttons) gtk_box_append(GTK_BOX(box), buttons);
    return box;
}

}  // namespace

GtkPopoverView::GtkPopoverView(const std::function<std::string(const std::string&)>& localized) {
    const auto& L = localized;
    root_ = GTK_WIDGET(g_object_ref_sink(gtk_box_new(GTK_ORIENTATION_VERTICAL, 0)));
    gtk_widget_add_css_class(root_, "stonewall-popover");
    stack_ = gtk_stack_new();
    gtk_stack_set_transition_type(GTK_STACK(stack_), GTK_STACK_TRANSITION_TYPE_CROSSFADE);
    // The popover has a fixed size: measuring the five hidden views (their
    // wrapped labels are the costliest part of a layout) on every show
    // would only delay the first frame.
    gtk_stack_set_hhomogeneous(GTK_STACK(stack_), FALSE);
    gtk_stack_set_vhomogeneous(GTK_STACK(stack_), FALSE);
    gtk_widget_set_vexpand(stack_, TRUE);
    gtk_box_append(GTK_BOX(root_), stack_);

    // 1: main.
    GtkWidget* main = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
    gtk_widget_add_css_class(main, "main-view");
    constraints_.emplace(
        "mainStackViewLeadingConstraint",
        std::make_shared<GtkMarginConstraint>(main, GtkMarginConstraint::Edge::Start, 0));
    constraints_.emplace(
        "mainStackViewTrailingConstraint",
        std::make_shared<GtkMarginConstraint>(main, GtkMarginConstraint::Edge::End, 0));
    const auto append = [main](GtkWidget* child) { gtk_box_append(GTK_BOX(main), child); };
    // The two switches are told as such (a check box, where the toolkit
    // has no switch), checked when on.
    append(label("statusHeaderLabel", "extension-header"));
    append(row("statusButton", "statusImageView", GTK_ACCESSIBLE_ROLE_SWITCH));
    append(row("counterButton", "counterImageView", GTK_ACCESSIBLE_ROLE_SWITCH));
    append(
        separator("statusLineView", "statusLineLeadingConstraint", "statusLineTrailingConstraint"));
    append(label("visualHeaderLabel", "extension-header"));
    append(row("visualBlockButton"));
    append(separator("visualLineView", "webpageLineLeadingConstraint",
                     "webpageLineTrailingConstraint"));
    append(label("customRulesHeaderLabel", "extension-header"));
    append(row("blockButton"));
    append(row("secureButton"));
    append(row("whitelistButton"));
    append(separator("customRulesLineView", "websiteLineLeadingConstraint",
                     "websiteLineTrailingConstraint"));
    append(label("activeProfileHeaderLabel", "extension-header"));
    append(row("profileButton"));
    append(separator("profileLineView", "profileLineLeadingConstraint",
                     "profileLineTrailingConstraint"));
    append(label("appHeaderLabel", "extension-header"));
    append(row("appButton"));
    addPage("mainStackView", main, 1);

    // 2: picking, 3: profile choice, 4: website confirmation.
    confirmationPage("visual", nullptr, L("Cancel"), L("Done"), 2);
    popup_ = std::make_shared<GtkPopUpButton>();
    profilePopUp_ = popup_;
    gtk_accessible_update_property(GTK_ACCESSIBLE(popup_->widget()), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                   L("Profiles").c_str(), -1);
    confirmationPage("profile", popup_->widget(), L("Cancel"), L("Activate"), 3);
    confirmationPage("website", nullptr, L("Cancel"), L("Block"), 4);

    // 5: reloading.
    progress_ = std::make_shared<GtkProgressIndicator>();
    reloadProgress_ = progress_;
    GtkWidget* reloading = gtk_box_new(GTK_ORIENTATION_VERTICAL, 8);
    gtk_box_append(GTK_BOX(reloading), label("reloadTitleLabel", "extension-title"));
    // The title says it: the spinner is no more than a picture.
    gtk_accessible_update_state(GTK_ACCESSIBLE(progress_->widget()), GTK_ACCESSIBLE_STATE_HIDDEN,
                                TRUE, -1);
    GtkWidget* reloadPage = dialogView(reloading, progress_->widget(), nullptr);
    describeDialog(reloadPage, "reload");
    addPage("reloadStackView", reloadPage, 5);

    // 6: error.
    GtkWidget* error = gtk_box_new(GTK_ORIENTATION_VERTICAL, 8);
    gtk_box_append(GTK_BOX(error), label("errorTitleLabel", "extension-title"));
    gtk_box_append(GTK_BOX(error), label("errorMessageLabel", "extension-message"));
    GtkWidget* errorPage = dialogView(
        error, nullptr, buttonRow(nullptr, pushButton("errorDoneButton", L("OK"), true)));
    describeDialog(errorPage, "error");
    addPage("errorMessageStackView", errorPage, 6);

    // Escape leaves a confirmation the way its Cancel does (the error view:
    // its OK); on the main view it closes the popover, as GTK does.
    GtkEventController* keys = gtk_event_controller_key_new();
    gtk_event_controller_set_propagation_phase(keys, GTK_PHASE_CAPTURE);
    g_signal_connect(keys, "key-pressed",
                     G_CALLBACK(+[](GtkEventControllerKey*, guint keyval, guint, GdkModifierType,
                                    GtkPopoverView* self) -> gboolean {
                         if (keyval != GDK_KEY_Escape) return FALSE;
                         GtkWidget* leave = self->leavingButton(self->shownView_);
                         if (!leave) return FALSE;
                         gtk_widget_activate(leave);
                         return TRUE;
                     }),
                     this);
    gtk_widget_add_controller(root_, keys);
}

GtkWidget* GtkPopoverView::leavingButton(int64_t code) const {
    const char* outlet = code == 2   ? "visualCancelButton"
                         : code == 3 ? "profileCancelButton"
                         : code == 4 ? "websiteCancelButton"
                         : code == 6 ? "errorDoneButton"
                                     : nullptr;
    if (!outlet) return nullptr;
    auto button = find<GtkPushButton>(buttons_, outlet);
    return button ? button->widget() : nullptr;
}

void GtkPopoverView::describeDialog(GtkWidget* page, const std::string& name) {
    const auto tell = [page](GtkAccessibleProperty property) {
        return [page, property](const std::string& text) {
            gtk_accessible_update_property(GTK_ACCESSIBLE(page), property, text.c_str(), -1);
        };
    };
    if (auto title = find<GtkTextField>(textFields_, name + "TitleLabel"))
        title->setOnTextShown(tell(GTK_ACCESSIBLE_PROPERTY_LABEL));
    if (auto message = find<GtkTextField>(textFields_, name + "MessageLabel"))
        message->setOnTextShown(tell(GTK_ACCESSIBLE_PROPERTY_DESCRIPTION));
}

// The focus when a view shows: a confirmation starts on its Cancel (the
// error view on its OK), so that Return never confirms by accident; the main
// view, back from a confirmation, on the row that opened it. Later, outside
// the view switch: the popover may not be mapped yet.
void GtkPopoverView::focusShownView(int64_t previous, int64_t code) {
    GtkWidget* target =
        code == 1 ? (leavingButton(previous) ? returnRow_ : nullptr) : leavingButton(code);
    if (!target) return;
    g_object_ref(target);
    g_idle_add_once(
        +[](gpointer data) {
            auto* widget = static_cast<GtkWidget*>(data);
            if (gtk_widget_get_mapped(widget)) gtk_widget_grab_focus(widget);
            g_object_unref(widget);
        },
        target);
}

GtkPopoverView::~GtkPopoverView() { g_object_unref(root_); }

GtkWidget* GtkPopoverView::label(std::string_view outlet, const char* cssClass) {
    // Headers of the main view's groups and titles of the other views are
    // headings.
    const bool heading = std::string_view(cssClass) != "extension-message";
    GtkWidget* widget = GTK_WIDGET(
        g_object_new(GTK_TYPE_LABEL, "accessible-role",
                     heading ? GTK_ACCESSIBLE_ROLE_HEADING : GTK_ACCESSIBLE_ROLE_LABEL, nullptr));
    if (heading) {
        gtk_accessible_update_property(GTK_ACCESSIBLE(widget), GTK_ACCESSIBLE_PROPERTY_LEVEL,
                                       std::string_view(cssClass) == "extension-title" ? 1 : 2, -1);
    }
    gtk_widget_add_css_class(widget, cssClass);
    gtk_label_set_xalign(GTK_LABEL(widget), 0);
    gtk_label_set_wrap(GTK_LABEL(widget), TRUE);
    gtk_label_set_max_width_chars(GTK_LABEL(widget), 34);
    auto field = std::make_shared<GtkTextField>(widget);
    textFields_.emplace(std::string(outlet), field);
    drawn_.push_back(field);
    return widget;
}

GtkWidget* GtkPopoverView::row(std::string_view outlet, std::string_view imageOutlet,
                               GtkAccessibleRole role) {
    GtkWidget* widget = layerButtonNew(role);
    gtk_widget_add_css_class(widget, "extension-button");
    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 8);
    gtk_button_set_child(GTK_BUTTON(widget), box);
    auto view = std::make_shared<GtkRowView>(widget);
    std::shared_ptr<GtkImageView> icon;
    if (!imageOutlet.empty()) {
        GtkWidget* image = gtk_image_new();
        gtk_image_set_pixel_size(GTK_IMAGE(image), 16);
        // The switch's state says what the picture shows.
        gtk_accessible_update_state(GTK_ACCESSIBLE(image), GTK_ACCESSIBLE_STATE_HIDDEN, TRUE, -1);
        gtk_box_append(GTK_BOX(box), image);
        icon = std::make_shared<GtkImageView>(image);
        imageViews_.emplace(std::string(imageOutlet), icon);
    }
    GtkWidget* title = gtk_label_new("");
    gtk_label_set_xalign(GTK_LABEL(title), 0);
    gtk_label_set_ellipsize(GTK_LABEL(title), PANGO_ELLIPSIZE_END);
    gtk_widget_set_hexpand(title, TRUE);
    gtk_box_append(GTK_BOX(box), title);
    auto name = std::make_shared<GtkTextField>(title);
    name->setOnTextShown([weak = std::weak_ptr<GtkRowView>(view)](const std::string& text) {
        if (auto row = weak.lock()) row->setVisibleTitle(text);
    });
    auto button = ExtensionButton::initWithView(view, name, icon);
    // The row a confirmation goes back to.
    attachExtensionButton(widget, button, [this, widget] { returnRow_ = widget; });
    extensionButtons_.emplace(std::string(outlet), button);
    drawn_.push_back(view);
    drawn_.push_back(name);
    return widget;
}

GtkWidget* GtkPopoverView::separator(std::string_view outlet, std::string_view leading,
                                     std::string_view trailing) {
    GtkWidget* line = layerBoxNew(GTK_ORIENTATION_HORIZONTAL, 0);
    gtk_widget_set_size_request(line, -1, 1);
    gtk_widget_add_css_class(line, "extension-separator");
    auto view = std::make_shared<GtkView>(line);
    views_.emplace(std::string(outlet), view);
    drawn_.push_back(view);
    constexpr double kResourceInset = 10;
    constraints_.emplace(std::string(leading),
                         std::make_shared<GtkMarginConstraint>(
                             line, GtkMarginConstraint::Edge::Start, kResourceInset));
    constraints_.emplace(std::string(trailing),
                         std::make_shared<GtkMarginConstraint>(line, GtkMarginConstraint::Edge::End,
                                                               kResourceInset));
    return line;
}

GtkWidget* GtkPopoverView::pushButton(std::string_view outlet, const std::string& title,
                                      bool suggested) {
    GtkWidget* widget = gtk_button_new_with_label(title.c_str());
    if (suggested) gtk_widget_add_css_class(widget, "suggested-action");
    gtk_widget_set_hexpand(widget, TRUE);
    buttons_.emplace(std::string(outlet), std::make_shared<GtkPushButton>(widget));
    return widget;
}

void GtkPopoverView::confirmationPage(const std::string& name, GtkWidget* control,
                                      const std::string& cancelTitle, const std::string& doneTitle,
                                      int64_t code) {
    GtkWidget* messages = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
    gtk_box_append(GTK_BOX(messages), label(name + "TitleLabel", "extension-title"));
    gtk_box_append(GTK_BOX(messages), label(name + "MessageLabel", "extension-message"));
    stackViews_.emplace(name + "MessageStackView", std::make_shared<GtkStackView>(messages));
    constraints_.emplace(name + "CenterY", std::make_shared<GtkMarginConstraint>(
                                               messages, GtkMarginConstraint::Edge::Top, 0));
    GtkWidget* page = dialogView(messages, control,
                                 buttonRow(pushButton(name + "CancelButton", cancelTitle, false),
                                           pushButton(name + "DoneButton", doneTitle, true)));
    describeDialog(page, name);
    addPage(name + "StackView", page, code);
}

void GtkPopoverView::addPage(std::string_view outlet, GtkWidget* box, int64_t code) {
    gtk_stack_add_child(GTK_STACK(stack_), box);
    pages_.push_back(box);
    auto page = std::make_shared<GtkStackView>(box, stack_);
    page->setOnShown([this, code, box] {
        const int64_t previous = shownView_;
        shownView_ = code;
        // The stack keeps every view visible; assistive technologies are
        // told which one is not hidden.
        for (GtkWidget* other : pages_) {
            gtk_accessible_update_state(GTK_ACCESSIBLE(other), GTK_ACCESSIBLE_STATE_HIDDEN,
                                        other != box, -1);
        }
        focusShownView(previous, code);
        if (onViewShown_) onViewShown_(code);
    });
    stackViews_.emplace(std::string(outlet), std::move(page));
}

void GtkPopoverView::setPreferredContentSize(Size size) {
    onMainThread([root = root_, size] {
        gtk_widget_set_size_request(root, static_cast<int>(size.width),
                                    static_cast<int>(size.height));
    });
}

void GtkPopoverView::dismissPopover() {
    onMainThread([this] {
        if (popover_) gtk_popover_popdown(GTK_POPOVER(popover_));
    });
}

void GtkPopoverView::refreshAppearance() {
    for (const auto& view : drawn_) view->refreshAppearance();
}

bool GtkPopoverView::press(const std::string& outlet) {
    if (auto row = find<ExtensionButton>(extensionButtons_, outlet)) {
        // A press right after the popover opened may come before its first
        // layout, when the row has no size for the click to land in: click
        // on the first frame that has one.
        GtkWidget* widget = std::static_pointer_cast<GtkView>(row->view())->widget();
        gtk_widget_add_tick_callback(
            widget,
            +[](GtkWidget* widget, GdkFrameClock*, gpointer data) -> gboolean {
                if (gtk_widget_get_width(widget) == 0) return G_SOURCE_CONTINUE;
                if (auto button = static_cast<std::weak_ptr<ExtensionButton>*>(data)->lock()) {
                    clickExtensionButton(*button);
                }
                return G_SOURCE_REMOVE;
            },
            new std::weak_ptr<ExtensionButton>(row),
            +[](gpointer data) { delete static_cast<std::weak_ptr<ExtensionButton>*>(data); });
        return true;
    }
    if (auto button = find<GtkPushButton>(buttons_, outlet)) {
        gtk_widget_activate(button->widget());
        return true;
    }
    return false;
}

void GtkPopoverView::selectProfile(unsigned index) { popup_->selectItemAtIndex(index); }

std::string GtkPopoverView::rowTitle(std::string_view outlet) const {
    auto row = find<ExtensionButton>(extensionButtons_, outlet);
    return row && row->nameTextField() ? row->nameTextField()->stringValue() : std::string();
}

bool GtkPopoverView::rowEnabled(std::string_view outlet) const {
    auto row = find<ExtensionButton>(extensionButtons_, outlet);
    return row && row->isEnabled();
}

}  // namespace stonewall::browser
