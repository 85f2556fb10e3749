#include "PopoverViews.h"

namespace stonewall::browser {

namespace {

GtkWidget* label(const std::string& text, const char* cssClass) {
    GtkWidget* widget = gtk_label_new(text.c_str());
    gtk_widget_add_css_class(widget, cssClass);
    gtk_label_set_xalign(GTK_LABEL(widget), 0);
    gtk_label_set_wrap(GTK_LABEL(widget), TRUE);
    gtk_label_set_max_width_chars(GTK_LABEL(widget), 34);
    return widget;
}

GtkWidget* separator() {
    GtkWidget* line = gtk_separator_new(GTK_ORIENTATION_HORIZONTAL);
    gtk_widget_add_css_class(line, "extension-separator");
    return line;
}

GtkWidget* pushButton(const std::string& text, bool suggested) {
    GtkWidget* button = gtk_button_new_with_label(text.c_str());
    if (suggested) gtk_widget_add_css_class(button, "suggested-action");
    gtk_widget_set_hexpand(button, TRUE);
    return button;
}

// A title and message centred above a row of buttons: the layout of the
// picking, profile, website and error views.
GtkWidget* dialogView(GtkWidget* title, GtkWidget* message, GtkWidget* middle,
                      GtkWidget* buttons) {
    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 8);
    gtk_widget_add_css_class(box, "dialog-view");
    GtkWidget* top = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
    gtk_widget_set_vexpand(top, TRUE);
    gtk_widget_set_valign(top, GTK_ALIGN_CENTER);
    gtk_box_append(GTK_BOX(top), title);
    if (message) gtk_box_append(GTK_BOX(top), message);
    if (middle) gtk_box_append(GTK_BOX(top), middle);
    gtk_box_append(GTK_BOX(box), top);
    if (buttons) gtk_box_append(GTK_BOX(box), buttons);
    return box;
}

GtkWidget* buttonRow(GtkWidget* cancel, GtkWidget* done) {
    GtkWidget* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 8);
    gtk_box_set_homogeneous(GTK_BOX(row), TRUE);
    if (cancel) gtk_box_append(GTK_BOX(row), cancel);
    gtk_box_append(GTK_BOX(row), done);
    return row;
}

}  // namespace

PopoverViews buildPopoverViews(const std::function<std::string(const std::string&)>& localized) {
    const auto L = localized;
    PopoverViews v;
    v.root = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    gtk_widget_add_css_class(v.root, "stonewall-popover");
    gtk_widget_set_size_request(v.root, kPopoverWidth, kPopoverHeight);
    v.stack = gtk_stack_new();
    gtk_stack_set_transition_type(GTK_STACK(v.stack), GTK_STACK_TRANSITION_TYPE_CROSSFADE);
    gtk_widget_set_vexpand(v.stack, TRUE);
    gtk_box_append(GTK_BOX(v.root), v.stack);

    const auto row = [&](ExtensionButton*& outlet, const std::string& name,
                         const std::string& title) {
        outlet = ExtensionButton::create(title);
        outlet->setMouseUp(true);
        ExtensionButton* button = outlet;
        v.pressables[name] = [button] { button->releaseInside(); };
        return button->widget();
    };
    const auto header = [&](const std::string& text) { return label(L(text), "extension-header"); };

    // Main view.
    GtkWidget* main = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
    gtk_widget_add_css_class(main, "main-view");
    gtk_box_append(GTK_BOX(main), header("Status"));
    v.statusImageView = gtk_image_new();  // shown inside the row
    gtk_box_append(GTK_BOX(main), row(v.statusButton, "statusButton", ""));
    v.counterImageView = gtk_image_new();
    gtk_box_append(GTK_BOX(main), row(v.counterButton, "counterButton", ""));
    gtk_box_append(GTK_BOX(main), separator());
    gtk_box_append(GTK_BOX(main), header("Webpage"));
    gtk_box_append(GTK_BOX(main),
                   row(v.visualBlockButton, "visualBlockButton", L("Block and Hide Visually")));
    gtk_box_append(GTK_BOX(main), separator());
    gtk_box_append(GTK_BOX(main), header("Website"));
    gtk_box_append(GTK_BOX(main), row(v.blockButton, "blockButton", L("Block Website")));
    gtk_box_append(GTK_BOX(main), row(v.secureButton, "secureButton", L("Secure Website")));
    gtk_box_append(GTK_BOX(main), row(v.whitelistButton, "whitelistButton", L("Allow Website")));
    gtk_box_append(GTK_BOX(main), separator());
    gtk_box_append(GTK_BOX(main), header("Profile"));
    gtk_box_append(GTK_BOX(main), row(v.profileButton, "profileButton", L("Active Profile")));
    gtk_box_append(GTK_BOX(main), separator());
    gtk_box_append(GTK_BOX(main), header("App"));
    gtk_box_append(GTK_BOX(main), row(v.appButton, "appButton", L("Open Stonewall")));
    gtk_stack_add_named(GTK_STACK(v.stack), main, "1");

    const auto push = [&](GtkWidget*& outlet, const std::string& name, const std::string& text,
                          bool suggested) {
        outlet = pushButton(text, suggested);
        GtkWidget* button = outlet;
        v.pressables[name] = [button] { gtk_widget_activate(button); };
        return button;
    };

    // Picking.
    gtk_stack_add_named(
        GTK_STACK(v.stack),
        dialogView(label(L("Block and Hide Visually"), "extension-title"),
                   label(L("Select the webpage elements that you want to block or hide."),
                         "extension-message"),
                   nullptr,
                   buttonRow(push(v.visualCancelButton, "visualCancelButton", L("Cancel"), false),
                             push(v.visualDoneButton, "visualDoneButton", L("Done"), true))),
        "2");

    // Profile choice.
    v.profilePopupButton = gtk_drop_down_new(G_LIST_MODEL(gtk_string_list_new(nullptr)), nullptr);
    gtk_stack_add_named(
        GTK_STACK(v.stack),
        dialogView(label(L("Change Active Profile"), "extension-title"),
                   label(L("Select a profile other than the currently active profile."),
                         "extension-message"),
                   v.profilePopupButton,
                   buttonRow(push(v.profileCancelButton, "profileCancelButton", L("Cancel"), false),
                             push(v.profileDoneButton, "profileDoneButton", L("Activate"), true))),
        "3");

    // Website confirmation.
    v.websiteTitleLabel = label("", "extension-title");
    v.websiteMessageLabel = label("", "extension-message");
    gtk_stack_add_named(
        GTK_STACK(v.stack),
        dialogView(v.websiteTitleLabel, v.websiteMessageLabel, nullptr,
                   buttonRow(push(v.websiteCancelButton, "websiteCancelButton", L("Cancel"), false),
                             push(v.websiteDoneButton, "websiteDoneButton", L("Block"), true))),
        "4");

    // Reloading.
    v.reloadProgressIndicator = gtk_spinner_new();
    gtk_widget_set_size_request(v.reloadProgressIndicator, 24, 24);
    gtk_stack_add_named(GTK_STACK(v.stack),
                        dialogView(label(L("Reloading ..."), "extension-title"), nullptr,
                                   v.reloadProgressIndicator, nullptr),
                        "5");

    // Error. Its message is drawn in the title colour, unlike the others.
    v.errorTitleLabel = label(L("Blocker Not Enabled"), "extension-title");
    v.errorMessageLabel = label(L("The blocker extension is not enabled."), "extension-title-color");
    gtk_stack_add_named(GTK_STACK(v.stack),
                        dialogView(v.errorTitleLabel, v.errorMessageLabel, nullptr,
                                   buttonRow(nullptr, push(v.errorDoneButton, "errorDoneButton",
                                                           L("OK"), true))),
                        "6");
    return v;
}

void showPopoverView(PopoverViews& views, int code, bool animated) {
    if (code < kMainView || code > kErrorView) return;
    views.shownView = code;
    if (code == kReloadingView) {
        gtk_spinner_start(GTK_SPINNER(views.reloadProgressIndicator));
    } else {
        gtk_spinner_stop(GTK_SPINNER(views.reloadProgressIndicator));
    }
    gtk_stack_set_transition_duration(GTK_STACK(views.stack), animated ? 50 : 0);
    gtk_stack_set_visible_child_name(GTK_STACK(views.stack), std::to_string(code).c_str());
}

}  // namespace stonewall::browser
