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
//   validate            run toolbar validation now
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

#include <nlohmann/json.hpp>

#include "BrowserProtocol.h"
#include "BrowserWindow.h"
#include "extension/SafariExtensionHandler.h"
#include "platform/Platform.h"

namespace stonewall::browser {

namespace {

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
                        self->popupFromToolbar();
                    else if (command == "popdown")
                        gtk_popover_popdown(GTK_POPOVER(self->popover_));
                    else if (command == "press")
                        ok = self->popoverView_ && self->popoverView_->press(argument);
                    else if (command == "select-profile" && self->popoverView_)
                        self->popoverView_->selectProfile(
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
                        Tab* tab = self->currentTab();
                        if (!tab) {
                            self->event("error snapshot-window");
                        } else {
                            struct Request {
                                BrowserWindow* self;
                                std::string path;
                            };
                            webkit_web_view_get_snapshot(
                                tab->view, WEBKIT_SNAPSHOT_REGION_VISIBLE,
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
                    } else if (command == "validate")
                        self->validateToolbarItem();
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
    if (popoverView_) gtk_widget_queue_draw(popoverView_->root());
}

void BrowserWindow::popupFromToolbar() {
    popupStarted_ = g_get_monotonic_time();
    gtk_menu_button_popup(GTK_MENU_BUTTON(toolbarButton_));
}

void BrowserWindow::showViewForTesting(int code) {
    SafariExtensionHandler().popoverViewController().showExtensionView(
        code, SafariExtensionViewController::Animated::No);
}

void BrowserWindow::setDarkForTesting(bool dark) {
    adw_style_manager_set_color_scheme(
        adw_style_manager_get_default(),
        dark ? ADW_COLOR_SCHEME_FORCE_DARK : ADW_COLOR_SCHEME_FORCE_LIGHT);
}

void BrowserWindow::evaluateInPage(const std::string& script, const char* world) {
    Tab* tab = currentTab();
    if (!tab) {
        event("js null");
        return;
    }
    webkit_web_view_evaluate_javascript(
        tab->view, script.c_str(), static_cast<gssize>(script.size()), world, nullptr, nullptr,
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
    if (!popoverView_ || !gtk_widget_get_mapped(popoverView_->root())) return false;
    GtkWidget* root = popoverView_->root();
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
    GtkWidget* root = popoverView_ ? popoverView_->root() : nullptr;
    if (root && gtk_widget_get_mapped(root)) {
        graphene_rect_t button;
        if (gtk_widget_compute_bounds(toolbarButton_, window_, &button)) {
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

std::string BrowserWindow::stateLine() {
    SafariExtensionViewController& controller = SafariExtensionHandler().popoverViewController();
    auto page = activePage();
    const GtkPopoverView* views = popoverView_.get();
    const auto title = [views](const char* outlet) {
        return views ? views->rowTitle(outlet) : std::string();
    };
    nlohmann::json state = {
        {"image", toolbarItem_->imageName()},
        {"badge", toolbarItem_->badgeText() ? nlohmann::json(*toolbarItem_->badgeText())
                                            : nlohmann::json(nullptr)},
        {"view", views ? views->shownView() : 0},
        {"popover", gtk_widget_get_visible(popover_) ? true : false},
        {"reloading", controller.reloading()},
        {"blocked", page ? controller.blockingStatController().URLsCountForPage(page) : 0},
        {"tabs", tabs_.size()},
        {"crashed", currentTab() && currentTab()->crashed},
        {"messagesDropped", currentTab() ? currentTab()->messagesDropped : 0},
        {"website", title("blockButton")},
        {"blockEnabled", views && views->rowEnabled("blockButton")},
        {"profile", title("profileButton")},
        {"status", title("statusButton")},
        {"counter", title("counterButton")},
    };
    return state.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace stonewall::browser
