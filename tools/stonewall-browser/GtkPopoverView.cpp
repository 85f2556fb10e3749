#include "GtkPopoverView.h"

#include "Controls.h"

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
// buttons: the picking, profile, website, reloading and error views.
GtkWidget* dialogView(GtkWidget* messages, GtkWidget* middle, GtkWidget* buttons) {
    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 8);
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
    append(label("statusHeaderLabel", "extension-header"));
    append(row("statusButton", "statusImageView"));
    append(row("counterButton", "counterImageView"));
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
    confirmationPage("profile", popup_->widget(), L("Cancel"), L("Activate"), 3);
    confirmationPage("website", nullptr, L("Cancel"), L("Block"), 4);

    // 5: reloading.
    progress_ = std::make_shared<GtkProgressIndicator>();
    reloadProgress_ = progress_;
    GtkWidget* reloading = gtk_box_new(GTK_ORIENTATION_VERTICAL, 8);
    gtk_box_append(GTK_BOX(reloading), label("reloadTitleLabel", "extension-title"));
    addPage("reloadStackView", dialogView(reloading, progress_->widget(), nullptr), 5);

    // 6: error.
    GtkWidget* error = gtk_box_new(GTK_ORIENTATION_VERTICAL, 8);
    gtk_box_append(GTK_BOX(error), label("errorTitleLabel", "extension-title"));
    gtk_box_append(GTK_BOX(error), label("errorMessageLabel", "extension-message"));
    addPage("errorMessageStackView",
            dialogView(error, nullptr,
                       buttonRow(nullptr, pushButton("errorDoneButton", L("OK"), true))),
            6);
}

GtkPopoverView::~GtkPopoverView() { g_object_unref(root_); }

GtkWidget* GtkPopoverView::label(std::string_view outlet, const char* cssClass) {
    GtkWidget* widget = gtk_label_new("");
    gtk_widget_add_css_class(widget, cssClass);
    gtk_label_set_xalign(GTK_LABEL(widget), 0);
    gtk_label_set_wrap(GTK_LABEL(widget), TRUE);
    gtk_label_set_max_width_chars(GTK_LABEL(widget), 34);
    auto field = std::make_shared<GtkTextField>(widget);
    textFields_.emplace(std::string(outlet), field);
    drawn_.push_back(field);
    return widget;
}

GtkWidget* GtkPopoverView::row(std::string_view outlet, std::string_view imageOutlet) {
    GtkWidget* box = layerBoxNew(GTK_ORIENTATION_HORIZONTAL, 8);
    gtk_widget_add_css_class(box, "extension-button");
    auto view = std::make_shared<GtkView>(box);
    std::shared_ptr<GtkImageView> icon;
    if (!imageOutlet.empty()) {
        GtkWidget* image = gtk_image_new();
        gtk_image_set_pixel_size(GTK_IMAGE(image), 16);
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
    auto button = ExtensionButton::initWithView(view, name, icon);
    attachExtensionButton(box, button);
    extensionButtons_.emplace(std::string(outlet), button);
    drawn_.push_back(view);
    drawn_.push_back(name);
    return box;
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
    addPage(name + "StackView",
            dialogView(messages, control,
                       buttonRow(pushButton(name + "CancelButton", cancelTitle, false),
                                 pushButton(name + "DoneButton", doneTitle, true))),
            code);
}

void GtkPopoverView::addPage(std::string_view outlet, GtkWidget* box, int64_t code) {
    gtk_stack_add_child(GTK_STACK(stack_), box);
    auto page = std::make_shared<GtkStackView>(box, stack_);
    page->setOnShown([this, code] {
        shownView_ = code;
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
