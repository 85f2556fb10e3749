// The browser's control channel: with --control it reads one command per
// line on stdin and answers with event lines on stdout. Tests and the timing
// runs drive the real program through it, the same code paths as a user:
//
//   load URL            navigate the current tab
//   tab URL             open a new tab
//   select-tab N        show tab N (from 0)
//   reload-crashed      press Reload on the current tab's crashed-page notice
//   ping TOKEN          answers "pong TOKEN" at once: how long the main loop
//                       takes to answer (the read is a main-loop source)
//   popup               click the toolbar button (reports "timing popover-shown MS")
//   popdown             close the popover
//   press OUTLET        press a popover control by its outlet name
//   select-profile N    choose entry N of the profile pop-up
//   js SCRIPT           run SCRIPT in the page's own world; answers "js RESULT-JSON"
//   js-picker SCRIPT    the same in the picker's world (what a page could do
//                       there if it ever got in)
//   show-view N         switch the open popover to view N (screenshots)
//   dark 0|1            force the light or dark colour scheme
//   snapshot-popover P  render the popover's view to the PNG file P
//   snapshot-window P   render the window with the open popover to P
//   clipped-labels      answers "clipped-labels [texts]": the shown popover
//                       labels whose text does not fit (after the next frame)
//   validate            run toolbar validation now
//   clipped             answers "clipped N [TEXT|...]": the open popover's
//                       labels and the badge shown shorter than their text
//                       (ellipsized, or cut by their allocation)
//   text-scale F        scale the desktop's text by F (as its text-size
//                       setting does)
//   palette             answers "palette [{text,sensitive,color,background},...]":
//                       each text of the open popover drawn in a palette colour,
//                       the colour laid over the popover's background under it
//                       (both "#rrggbb", read from the popover's rendering)
//   state               answers "state {json}" once the main queue is idle
//   quit
//
// Events: ready, loaded URL, image NAME, badge TEXT|none, view N, message
// NAME, message-rejected, blocked URL, page-reload, open-url URL,
// popover-closed, filter on|off, web-process-terminated crashed|memory|ended,
// timing NAME MS (popover-shown: click to the
// popover's first frame; badge-shown: blocked-load report to the badge's
// frame; page-load: start to finish of a main-frame load), reload-error TEXT,
// done COMMAND, error COMMAND.

#include <gio/gunixinputstream.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>

#include "extension/SafariExtensionHandler.h"
#include "page/BrowserProtocol.h"
#include "platform/Platform.h"
#include "window/BrowserWindow.h"

namespace stonewall::browser {

namespace {

// The shown labels under `widget` that are cut: ellipsized, narrower or
// lower than their text needs, or reaching past the popover's edge.
void collectClippedLabels(GtkWidget* widget, GtkWidget* root, nlohmann::json& texts) {
    if (!gtk_widget_get_mapped(widget)) return;
    if (GTK_IS_LABEL(widget)) {
        GtkLabel* label = GTK_LABEL(widget);
        const std::string text = gtk_label_get_text(label);
        const int width = gtk_widget_get_width(widget);
        const int height = gtk_widget_get_height(widget);
        // The layout the label draws: its text at the label's width when it
        // wraps, else on one line, whatever the allocation.
        PangoLayout* layout = gtk_label_get_layout(label);
        int textWidth = 0, textHeight = 0;
        pango_layout_get_pixel_size(layout, &textWidth, &textHeight);
        bool clipped =
            pango_layout_is_ellipsized(layout) || textWidth > width || textHeight > height;
        graphene_rect_t bounds;
        if (gtk_widget_compute_bounds(widget, root, &bounds)) {
            clipped |= bounds.origin.x < -0.5f ||
                       bounds.origin.x + bounds.size.width > gtk_widget_get_width(root) + 0.5f;
        }
        if (clipped && !text.empty()) texts.push_back(text);
    }
    for (GtkWidget* child = gtk_widget_get_first_child(widget); child;
         child = gtk_widget_get_next_sibling(child)) {
        collectClippedLabels(child, root, texts);
    }
}

struct ReadLine {
    BrowserWindow* self;
};

std::pair<std::string, std::string> splitCommand(const std::string& line) {
    const size_t space = line.find(' ');
    if (space == std::string::npos) return {line, ""};
    return {line.substr(0, space), line.substr(space + 1)};
}

// Renders `widget` (which must be mapped) into a PNG of `width` x `height`.
bool renderToPNG(GtkWidget* widget, GskRenderNode* node, int width, int height,
                 const std::string& path) {
    if (!node) return false;
    GskRenderer* renderer = gtk_native_get_renderer(gtk_widget_get_native(widget));
    if (!renderer) {
        gsk_render_node_unref(node);
        return false;
    }
    graphene_rect_t bounds =
        GRAPHENE_RECT_INIT(0, 0, static_cast<float>(width), static_cast<float>(height));
    GdkTexture* texture = gsk_renderer_render_texture(renderer, node, &bounds);
    const bool saved = texture && gdk_texture_save_to_png(texture, path.c_str());
    if (texture) g_object_unref(texture);
    gsk_render_node_unref(node);
    return saved;
}

GskRenderNode* snapshotOf(GtkWidget* widget, int width, int height) {
    GdkPaintable* paintable = gtk_widget_paintable_new(widget);
    GtkSnapshot* snapshot = gtk_snapshot_new();
    gdk_paintable_snapshot(paintable, GDK_SNAPSHOT(snapshot), width, height);
    g_object_unref(paintable);
    return gtk_snapshot_free_to_node(snapshot);
}

}  // namespace

void BrowserWindow::startControlChannel() {
    GInputStream* input = g_unix_input_stream_new(0, FALSE);
    control_ = g_data_input_stream_new(input);
    g_object_unref(input);
    struct Reader {
        static void next(BrowserWindow* self) {
            g_data_input_stream_read_line_async(
                self->control_, G_PRIORITY_DEFAULT, nullptr,
                +[](GObject* source, GAsyncResult* result, gpointer data) {
                    auto* self = static_cast<BrowserWindow*>(data);
                    gsize length = 0;
                    char* line = g_data_input_stream_read_line_finish(G_DATA_INPUT_STREAM(source),
                                                                      result, &length, nullptr);
                    if (!line) {  // end of input: the driver is gone
                        g_application_quit(g_application_get_default());
                        return;
                    }
                    // Named copies: lambdas below capture them.
                    const auto parts = splitCommand(line);
                    const std::string command = parts.first;
                    const std::string argument = parts.second;
                    g_free(line);
                    bool ok = true;
                    if (command == "ping") {
                        self->event("pong " + argument);
                        next(self);
                        return;
                    }
                    if (command == "load")
                        self->load(argument);
                    else if (command == "select-tab")
                        ok = self->selectTab(std::atoi(argument.c_str()));
                    else if (command == "reload-crashed")
                        ok = self->reloadCrashedCurrentTab();
                    else if (command == "tab")
                        self->openTab(argument);
                    else if (command == "popup")
                        self->toolbarButton_->popup();
                    else if (command == "popdown")
                        self->toolbarButton_->popdown();
                    else if (command == "press")
                        ok = self->toolbarButton_->popoverView() &&
                             self->toolbarButton_->popoverView()->press(argument);
                    else if (command == "select-profile" && self->toolbarButton_->popoverView())
                        self->toolbarButton_->popoverView()->selectProfile(
                            static_cast<unsigned>(std::strtoul(argument.c_str(), nullptr, 10)));
                    else if (command == "js")
                        self->evaluateInPage(argument);
                    else if (command == "js-picker")
                        self->evaluateInPage(argument, kScriptWorldName);
                    else if (command == "show-view")
                        self->showViewForTesting(std::atoi(argument.c_str()));
                    else if (command == "dark")
                        self->setDarkForTesting(argument == "1");
                    else if (command == "snapshot-window") {
                        // The page is drawn by the web process: ask it for
                        // its picture first, then compose the window.
                        BrowserTab* tab = self->currentTab();
                        if (!tab) {
                            self->event("error snapshot-window");
                        } else {
                            struct Request {
                                BrowserWindow* self;
                                std::string path;
                            };
                            webkit_web_view_get_snapshot(
                                tab->view(), WEBKIT_SNAPSHOT_REGION_VISIBLE,
                                WEBKIT_SNAPSHOT_OPTIONS_NONE, nullptr,
                                +[](GObject* view, GAsyncResult* result, gpointer data) {
                                    std::unique_ptr<Request> request(static_cast<Request*>(data));
                                    GdkTexture* page = webkit_web_view_get_snapshot_finish(
                                        WEBKIT_WEB_VIEW(view), result, nullptr);
                                    BrowserWindow* self = request->self;
                                    std::string path = request->path;
                                    self->afterNextFrame([self, path, page, view] {
                                        const bool saved =
                                            self->snapshotWindow(path, GTK_WIDGET(view), page);
                                        if (page) g_object_unref(page);
                                        self->event(saved ? "done snapshot-window"
                                                          : "error snapshot-window");
                                    });
                                },
                                new Request{self, argument});
                        }
                        next(self);
                        return;
                    } else if (command == "snapshot-popover" || command == "snapshot-window") {
                        // Rendered after the next frame, when layout and
                        // style are settled and the queued work of the
                        // view switch is done; a popover still opening gets
                        // a few more frames.
                        struct Snapshot {
                            static void attempt(BrowserWindow* self, std::string command,
                                                std::string path, int framesLeft) {
                                self->afterNextFrame([self, command, path, framesLeft] {
                                    platform::dispatch().mainQueue().async([=] {
                                        if (self->snapshotPopover(path)) {
                                            self->event("done " + command);
                                        } else if (framesLeft > 0) {
                                            attempt(self, command, path, framesLeft - 1);
                                        } else {
                                            self->event("error " + command);
                                        }
                                    });
                                });
                            }
                        };
                        Snapshot::attempt(self, command, argument, /*framesLeft=*/10);
                        next(self);
                        return;
                    } else if (command == "clipped-labels") {
                        self->afterNextFrame([self] {
                            nlohmann::json texts = nlohmann::json::array();
                            if (GtkPopoverView* views = self->toolbarButton_->popoverView()) {
                                GtkWidget* root = views->root();
                                collectClippedLabels(root, root, texts);
                            }
                            self->event("clipped-labels " + texts.dump());
                        });
                        next(self);
                        return;
                    } else if (command == "validate")
                        self->validateToolbarItem();
                    else if (command == "clipped" || command == "palette") {
                        // Once the last view switch is laid out and drawn.
                        self->afterNextFrame([self, command] {
                            self->event(command + " " +
                                        (command == "clipped" ? self->clippedLabels()
                                                              : self->paletteLine()));
                        });
                        next(self);
                        return;
                    } else if (command == "text-scale")
                        g_object_set(gtk_settings_get_default(), "gtk-xft-dpi",
                                     static_cast<int>(96 * 1024 * std::atof(argument.c_str())),
                                     nullptr);
                    else if (command == "state") {
                        // After the work the last command started on the
                        // main queue, held or not (the queue runs at idle
                        // priority, above this).
                        platform::dispatch().mainQueue().async([self] {
                            g_idle_add_full(
                                G_PRIORITY_LOW,
                                +[](gpointer data) -> gboolean {
                                    auto* self = static_cast<BrowserWindow*>(data);
                                    self->event("state " + self->stateLine());
                                    self->event("done state");
                                    return G_SOURCE_REMOVE;
                                },
                                self, nullptr);
                        });
                        next(self);
                        return;
                    } else if (command == "quit") {
                        g_application_quit(g_application_get_default());
                        return;
                    } else
                        ok = false;
                    self->event(ok ? "done " + command : "error " + command + " " + argument);
                    next(self);
                },
                self);
        }
    };
    Reader::next(this);
    event("ready");
}

void BrowserWindow::afterNextFrame(std::function<void()> work) {
    GdkFrameClock* clock = gtk_widget_get_frame_clock(window_);
    if (!clock) {
        work();
        return;
    }
    struct Pending {
        std::function<void()> work;
        GdkFrameClock* clock;
        gulong handler;
    };
    auto* pending = new Pending{std::move(work), clock, 0};
    pending->handler = g_signal_connect(
        clock, "after-paint", G_CALLBACK(+[](GdkFrameClock* clock, Pending* pending) {
            g_signal_handler_disconnect(clock, pending->handler);
            // Outside the paint cycle: rendering may lay widgets out.
            g_idle_add_once(
                +[](gpointer data) {
                    std::unique_ptr<Pending> pending(static_cast<Pending*>(data));
                    pending->work();
                },
                pending);
        }),
        pending);
    gtk_widget_queue_draw(window_);
    if (GtkPopoverView* views = toolbarButton_->popoverView()) gtk_widget_queue_draw(views->root());
}

void BrowserWindow::showViewForTesting(int code) {
    SafariExtensionHandler().popoverViewController().showExtensionView(
        static_cast<ExtensionView>(code), SafariExtensionViewController::Animated::No);
}

void BrowserWindow::setDarkForTesting(bool dark) {
    adw_style_manager_set_color_scheme(
        adw_style_manager_get_default(),
        dark ? ADW_COLOR_SCHEME_FORCE_DARK : ADW_COLOR_SCHEME_FORCE_LIGHT);
}

void BrowserWindow::evaluateInPage(const std::string& script, const char* world) {
    BrowserTab* tab = currentTab();
    if (!tab) {
        event("js null");
        return;
    }
    webkit_web_view_evaluate_javascript(
        tab->view(), script.c_str(), static_cast<gssize>(script.size()), world, nullptr, nullptr,
        +[](GObject* view, GAsyncResult* result, gpointer data) {
            auto* self = static_cast<BrowserWindow*>(data);
            GError* error = nullptr;
            JSCValue* value =
                webkit_web_view_evaluate_javascript_finish(WEBKIT_WEB_VIEW(view), result, &error);
            if (!value) {
                self->event(std::string("js-error ") + error->message);
                g_error_free(error);
                return;
            }
            char* json = jsc_value_to_json(value, 0);
            self->event(std::string("js ") + (json ? json : "null"));
            g_free(json);
            g_object_unref(value);
        },
        this);
}

bool BrowserWindow::snapshotPopover(const std::string& path) {
    GtkPopoverView* views = toolbarButton_->popoverView();
    if (!views || !gtk_widget_get_mapped(views->root())) return false;
    GtkWidget* root = views->root();
    const int width = gtk_widget_get_width(root);
    const int height = gtk_widget_get_height(root);
    return renderToPNG(root, snapshotOf(root, width, height), width, height, path);
}

bool BrowserWindow::snapshotWindow(const std::string& path, GtkWidget* pageView, GdkTexture* page) {
    const int width = gtk_widget_get_width(window_);
    const int height = gtk_widget_get_height(window_);
    GtkSnapshot* snapshot = gtk_snapshot_new();
    GskRenderNode* windowNode = snapshotOf(window_, width, height);
    if (windowNode) {
        gtk_snapshot_append_node(snapshot, windowNode);
        gsk_render_node_unref(windowNode);
    }
    graphene_rect_t pageBounds;
    if (page && pageView && gtk_widget_compute_bounds(pageView, window_, &pageBounds)) {
        gtk_snapshot_append_texture(snapshot, page, &pageBounds);
    }
    // The popover is a surface of its own; draw it where it hangs, under the
    // toolbar button.
    GtkPopoverView* views = toolbarButton_->popoverView();
    GtkWidget* root = views ? views->root() : nullptr;
    if (root && gtk_widget_get_mapped(root)) {
        graphene_rect_t button;
        if (gtk_widget_compute_bounds(toolbarButton_->widget(), window_, &button)) {
            const int popoverWidth = gtk_widget_get_width(root);
            const int popoverHeight = gtk_widget_get_height(root);
            float x = button.origin.x + button.size.width / 2 - popoverWidth / 2.0f;
            if (x + popoverWidth > width - 4) x = static_cast<float>(width - 4 - popoverWidth);
            const float y = button.origin.y + button.size.height + 6;
            GskRoundedRect frame;
            const graphene_rect_t bounds = GRAPHENE_RECT_INIT(
                x, y, static_cast<float>(popoverWidth), static_cast<float>(popoverHeight));
            gsk_rounded_rect_init_from_rect(&frame, &bounds, 10);
            const GdkRGBA shadow{0, 0, 0, 0.35f};
            gtk_snapshot_append_outset_shadow(snapshot, &frame, &shadow, 0, 3, 0, 12);
            gtk_snapshot_push_rounded_clip(snapshot, &frame);
            gtk_snapshot_save(snapshot);
            graphene_point_t at = GRAPHENE_POINT_INIT(x, y);
            gtk_snapshot_translate(snapshot, &at);
            GskRenderNode* popoverNode = snapshotOf(root, popoverWidth, popoverHeight);
            if (popoverNode) {
                gtk_snapshot_append_node(snapshot, popoverNode);
                gsk_render_node_unref(popoverNode);
            }
            gtk_snapshot_restore(snapshot);
            gtk_snapshot_pop(snapshot);
        }
    }
    return renderToPNG(window_, gtk_snapshot_free_to_node(snapshot), width, height, path);
}

// Labels of the open popover (and the badge) that show less than their
// text: ellipsized, larger than their allocation, or outside their parent.
std::string BrowserWindow::clippedLabels() {
    std::vector<std::string> clipped;
    struct Walk {
        static void visit(GtkWidget* widget, std::vector<std::string>& clipped) {
            if (!gtk_widget_get_mapped(widget) || GTK_IS_POPOVER(widget)) return;
            if (GTK_IS_LABEL(widget) && *gtk_label_get_text(GTK_LABEL(widget))) {
                PangoLayout* layout = gtk_label_get_layout(GTK_LABEL(widget));
                int width = 0, height = 0;
                pango_layout_get_pixel_size(layout, &width, &height);
                graphene_rect_t bounds;
                GtkWidget* parent = gtk_widget_get_parent(widget);
                const bool inside =
                    !parent ||
                    (gtk_widget_compute_bounds(widget, parent, &bounds) && bounds.origin.x >= 0 &&
                     bounds.origin.y >= 0 &&
                     bounds.origin.x + bounds.size.width <= gtk_widget_get_width(parent) + 0.5f &&
                     bounds.origin.y + bounds.size.height <= gtk_widget_get_height(parent) + 0.5f);
                if (pango_layout_is_ellipsized(layout) || width > gtk_widget_get_width(widget) ||
                    height > gtk_widget_get_height(widget) || !inside) {
                    clipped.push_back(gtk_label_get_text(GTK_LABEL(widget)));
                }
            }
            for (GtkWidget* child = gtk_widget_get_first_child(widget); child;
                 child = gtk_widget_get_next_sibling(child)) {
                visit(child, clipped);
            }
        }
    };
    if (GtkPopoverView* views = toolbarButton_->popoverView()) Walk::visit(views->root(), clipped);
    Walk::visit(toolbarButton_->widget(), clipped);
    std::string line = std::to_string(clipped.size());
    for (size_t i = 0; i < clipped.size(); ++i) line += (i ? "|" : " ") + clipped[i];
    return line;
}

namespace {

std::string hexColor(double red, double green, double blue) {
    char text[8];
    const auto byte = [](double value) {
        return static_cast<unsigned>(std::lround(std::clamp(value, 0.0, 1.0) * 255));
    };
    std::snprintf(text, sizeof text, "#%02x%02x%02x", byte(red), byte(green), byte(blue));
    return text;
}

// The popover's background, read from its rendering: a pixel near its top
// left corner, inside its padding, where no control is drawn.
std::optional<std::array<double, 3>> popoverBackground(GtkWidget* root) {
    const int width = gtk_widget_get_width(root), height = gtk_widget_get_height(root);
    if (width < 4 || height < 4) return std::nullopt;
    GdkPaintable* paintable = gtk_widget_paintable_new(root);
    GtkSnapshot* snapshot = gtk_snapshot_new();
    gdk_paintable_snapshot(paintable, GDK_SNAPSHOT(snapshot), width, height);
    g_object_unref(paintable);
    GskRenderNode* node = gtk_snapshot_free_to_node(snapshot);
    GskRenderer* renderer = gtk_native_get_renderer(gtk_widget_get_native(root));
    if (!node || !renderer) {
        if (node) gsk_render_node_unref(node);
        return std::nullopt;
    }
    graphene_rect_t bounds = GRAPHENE_RECT_INIT(0, 0, 4, 4);
    GdkTexture* texture = gsk_renderer_render_texture(renderer, node, &bounds);
    gsk_render_node_unref(node);
    if (!texture) return std::nullopt;
    guchar pixels[4 * 4 * 4];
    gdk_texture_download(texture, pixels, 4 * 4);
    g_object_unref(texture);
    // Cairo's order: B, G, R, A (premultiplied; the background is opaque).
    const guchar* pixel = pixels + (2 * 4 + 2) * 4;
    return std::array<double, 3>{pixel[2] / 255.0, pixel[1] / 255.0, pixel[0] / 255.0};
}

}  // namespace

std::string BrowserWindow::paletteLine() {
    nlohmann::json texts = nlohmann::json::array();
    GtkPopoverView* views = toolbarButton_->popoverView();
    if (!views) return texts.dump();
    const auto background = popoverBackground(views->root());
    if (!background) return texts.dump();
    struct Walk {
        static void visit(GtkWidget* widget, const std::array<double, 3>& under,
                          nlohmann::json& texts) {
            if (!gtk_widget_get_mapped(widget)) return;
            // The texts drawn in the palette's colours (the push buttons'
            // are the theme's, on the buttons' own backgrounds).
            PangoAttrList* attributes =
                GTK_IS_LABEL(widget) ? gtk_label_get_attributes(GTK_LABEL(widget)) : nullptr;
            PangoAttrIterator* at = attributes ? pango_attr_list_get_iterator(attributes) : nullptr;
            auto* fg = at ? reinterpret_cast<PangoAttrColor*>(
                                pango_attr_iterator_get(at, PANGO_ATTR_FOREGROUND))
                          : nullptr;
            if (fg && *gtk_label_get_text(GTK_LABEL(widget))) {
                GdkRGBA color{fg->color.red / 65535.0f, fg->color.green / 65535.0f,
                              fg->color.blue / 65535.0f, 1};
                if (auto* alpha = reinterpret_cast<PangoAttrInt*>(
                        pango_attr_iterator_get(at, PANGO_ATTR_FOREGROUND_ALPHA))) {
                    color.alpha = alpha->value / 65535.0f;
                }
                // The widget's opacity dims it too.
                color.alpha *= static_cast<float>(gtk_widget_get_opacity(widget));
                const auto over = [&](double ink, double paper) {
                    return ink * color.alpha + paper * (1 - color.alpha);
                };
                texts.push_back(
                    {{"text", gtk_label_get_text(GTK_LABEL(widget))},
                     {"sensitive", gtk_widget_is_sensitive(widget) ? true : false},
                     {"color", hexColor(over(color.red, under[0]), over(color.green, under[1]),
                                        over(color.blue, under[2]))},
                     {"background", hexColor(under[0], under[1], under[2])}});
            }
            if (at) pango_attr_iterator_destroy(at);
            for (GtkWidget* child = gtk_widget_get_first_child(widget); child;
                 child = gtk_widget_get_next_sibling(child)) {
                visit(child, under, texts);
            }
        }
    };
    Walk::visit(views->root(), *background, texts);
    return texts.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string BrowserWindow::stateLine() {
    SafariExtensionViewController& controller = SafariExtensionHandler().popoverViewController();
    auto page = activePage();
    const GtkPopoverView* views = toolbarButton_->popoverView();
    const auto title = [views](const char* outlet) {
        return views ? views->rowTitle(outlet) : std::string();
    };
    nlohmann::json state = {
        {"image", toolbarItem()->imageName()},
        {"badge", toolbarItem()->badgeText() ? nlohmann::json(*toolbarItem()->badgeText())
                                             : nlohmann::json(nullptr)},
        {"view", views ? views->shownView() : 0},
        {"popover", toolbarButton_->isOpen()},
        {"reloading", controller.reloading()},
        {"blocked", page ? controller.blockingStatController().URLsCountForPage(page) : 0},
        {"tabs", tabCount()},
        {"crashed", currentTab() && currentTab()->crashed()},
        {"messagesDropped", currentTab() ? currentTab()->messagesDropped() : 0},
        {"website", title("blockButton")},
        {"blockEnabled", views && views->rowEnabled("blockButton")},
        {"profile", title("profileButton")},
        {"status", title("statusButton")},
        {"counter", title("counterButton")},
    };
    return state.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace stonewall::browser
