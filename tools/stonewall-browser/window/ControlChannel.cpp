#include "window/ControlChannel.h"

#include <adwaita.h>
#include <gio/gunixinputstream.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "extension/SafariExtensionHandler.h"
#include "page/BrowserProtocol.h"
#include "platform/Platform.h"
#include "window/BrowserWindow.h"

namespace stonewall::browser {

namespace {

// What a command takes after its name and a space.
enum class Argument {
    None,    // nothing
    Text,    // some text, to the end of the line
    Any,     // any text, or none
    Index,   // a count from 0
    Number,  // a positive decimal number
    Switch,  // 0 or 1
};

bool accepts(Argument kind, const std::string& text) {
    switch (kind) {
        case Argument::None:
            return text.empty();
        case Argument::Text:
            return !text.empty();
        case Argument::Any:
            return true;
        case Argument::Index:
            return !text.empty() && text.size() <= 9 &&
                   std::all_of(text.begin(), text.end(),
                               [](char c) { return c >= '0' && c <= '9'; });
        case Argument::Number: {
            // In any locale, as the driver writes it.
            char* end = nullptr;
            const double value = g_ascii_strtod(text.c_str(), &end);
            return !text.empty() && *end == '\0' && std::isfinite(value) && value > 0;
        }
        case Argument::Switch:
            return text == "0" || text == "1";
    }
    return false;
}

// What a command did: its work (answered "done COMMAND"), nothing it could
// (answered "error COMMAND ARGUMENT"), or answered on its own, now or later.
enum class Outcome { Done, Failed, Answered };

std::pair<std::string, std::string> splitCommand(const std::string& line) {
    const size_t space = line.find(' ');
    if (space == std::string::npos) return {line, ""};
    return {line.substr(0, space), line.substr(space + 1)};
}

}  // namespace

// One command: its name, its argument, and what it does and answers (logged
// at debug level when the argument is refused).
struct ControlChannel::Command {
    const char* name;
    Argument argument;
    const char* usage;
    Outcome (*run)(ControlChannel& channel, const std::string& argument);
};

std::span<const ControlChannel::Command> ControlChannel::commands() {
    using enum Argument;
    static const Command table[] = {
        {"load", Text, "load URL: navigate the current tab",
         [](ControlChannel& channel, const std::string& url) {
             channel.window_.load(url);
             return Outcome::Done;
         }},
        {"tab", Text, "tab URL: open a new tab",
         [](ControlChannel& channel, const std::string& url) {
             channel.window_.openTab(url);
             return Outcome::Done;
         }},
        {"select-tab", Index, "select-tab N: show tab N (from 0)",
         [](ControlChannel& channel, const std::string& index) {
             return channel.window_.selectTab(std::atoi(index.c_str())) ? Outcome::Done
                                                                        : Outcome::Failed;
         }},
        {"reload-crashed", None, "reload-crashed: press Reload on the current tab's crash notice",
         [](ControlChannel& channel, const std::string&) {
             BrowserTab* tab = channel.window_.currentTab();
             if (!tab || !tab->crashed()) return Outcome::Failed;
             tab->reload();
             return Outcome::Done;
         }},
        {"ping", Any,
         "ping TOKEN: answers \"pong TOKEN\" at once, no more: how long the main loop takes to "
         "answer (the read is a main-loop source)",
         [](ControlChannel& channel, const std::string& token) {
             channel.window_.event("pong " + token);
             return Outcome::Answered;
         }},
        {"popup", None, "popup: click the toolbar button (reports \"timing popover-shown MS\")",
         [](ControlChannel& channel, const std::string&) {
             channel.window_.toolbarButton().popup();
             return Outcome::Done;
         }},
        {"popdown", None, "popdown: close the popover",
         [](ControlChannel& channel, const std::string&) {
             channel.window_.toolbarButton().popdown();
             return Outcome::Done;
         }},
        {"press", Text, "press OUTLET: press a popover control by its outlet name",
         [](ControlChannel& channel, const std::string& outlet) {
             GtkPopoverView* views = channel.window_.toolbarButton().popoverView();
             return views && views->press(outlet) ? Outcome::Done : Outcome::Failed;
         }},
        {"select-profile", Index, "select-profile N: choose entry N of the profile pop-up",
         [](ControlChannel& channel, const std::string& index) {
             GtkPopoverView* views = channel.window_.toolbarButton().popoverView();
             if (!views) return Outcome::Failed;
             views->selectProfile(static_cast<unsigned>(std::strtoul(index.c_str(), nullptr, 10)));
             return Outcome::Done;
         }},
        {"js", Text,
         "js SCRIPT: run SCRIPT in the page's own world; answers \"js RESULT-JSON\" (or "
         "\"js-error MESSAGE\") when it has run",
         [](ControlChannel& channel, const std::string& script) {
             channel.evaluateInPage(script, nullptr);
             return Outcome::Done;
         }},
        {"js-picker", Text,
         "js-picker SCRIPT: the same in the picker's world (what a page could do there if it "
         "ever got in)",
         [](ControlChannel& channel, const std::string& script) {
             channel.evaluateInPage(script, kScriptWorldName);
             return Outcome::Done;
         }},
        {"show-view", Index, "show-view N: switch the open popover to view N (screenshots)",
         [](ControlChannel&, const std::string& view) {
             SafariExtensionHandler().popoverViewController().showExtensionView(
                 static_cast<ExtensionView>(std::atoi(view.c_str())),
                 SafariExtensionViewController::Animated::No);
             return Outcome::Done;
         }},
        {"dark", Switch, "dark 0|1: force the light or dark colour scheme",
         [](ControlChannel&, const std::string& dark) {
             adw_style_manager_set_color_scheme(
                 adw_style_manager_get_default(),
                 dark == "1" ? ADW_COLOR_SCHEME_FORCE_DARK : ADW_COLOR_SCHEME_FORCE_LIGHT);
             return Outcome::Done;
         }},
        {"text-scale", Number,
         "text-scale F: scale the desktop's text by F (as its text-size setting does)",
         [](ControlChannel&, const std::string& factor) {
             g_object_set(gtk_settings_get_default(), "gtk-xft-dpi",
                          static_cast<int>(96 * 1024 * g_ascii_strtod(factor.c_str(), nullptr)),
                          nullptr);
             return Outcome::Done;
         }},
        {"snapshot-popover", Text,
         "snapshot-popover PATH: render the popover's view to the PNG file PATH; answers when "
         "it is written",
         [](ControlChannel& channel, const std::string& path) {
             // A popover still opening gets a few more frames.
             channel.snapshotPopover(path, /*framesLeft=*/10);
             return Outcome::Answered;
         }},
        {"snapshot-window", Text,
         "snapshot-window PATH: render the window with the open popover to PATH; answers when "
         "it is written",
         [](ControlChannel& channel, const std::string& path) {
             channel.snapshotWindow(path);
             return Outcome::Answered;
         }},
        {"clipped", None,
         "clipped: answers \"clipped N [TEXT|...]\": the labels of the open popover and the "
         "badge that show less than their text, once the last change is drawn",
         [](ControlChannel& channel, const std::string&) {
             channel.afterNextFrame(
                 [&channel] { channel.window_.event("clipped " + channel.clippedLine()); });
             return Outcome::Answered;
         }},
        {"palette", None,
         "palette: answers \"palette [{text,sensitive,color,background},...]\": each text of "
         "the open popover drawn in a palette colour, the colour laid over the popover's "
         "background under it (both \"#rrggbb\", read from the popover's rendering)",
         [](ControlChannel& channel, const std::string&) {
             channel.afterNextFrame(
                 [&channel] { channel.window_.event("palette " + channel.paletteLine()); });
             return Outcome::Answered;
         }},
        {"validate", None, "validate: run toolbar validation now",
         [](ControlChannel& channel, const std::string&) {
             channel.window_.validateToolbarItem();
             return Outcome::Done;
         }},
        {"state", None,
         "state: answers \"state {json}\" and \"done state\" once the main queue is idle",
         [](ControlChannel& channel, const std::string&) {
             // After the work the last command started on the main queue,
             // held or not (the queue runs at idle priority, above this).
             platform::dispatch().mainQueue().async([&channel] {
                 g_idle_add_full(
                     G_PRIORITY_LOW,
                     +[](gpointer data) -> gboolean {
                         auto& channel = *static_cast<ControlChannel*>(data);
                         channel.window_.event("state " + channel.stateLine());
                         channel.window_.event("done state");
                         return G_SOURCE_REMOVE;
                     },
                     &channel, nullptr);
             });
             return Outcome::Answered;
         }},
        {"quit", None, "quit: end the program",
         [](ControlChannel&, const std::string&) {
             g_application_quit(g_application_get_default());
             return Outcome::Answered;
         }},
    };
    return table;
}

ControlChannel::ControlChannel(BrowserWindow& window) : window_(window) {
    GInputStream* input = g_unix_input_stream_new(0, FALSE);
    input_ = g_data_input_stream_new(input);
    g_object_unref(input);
    cancellable_ = g_cancellable_new();
    readNextLine();
    window_.event("ready");
}

ControlChannel::~ControlChannel() {
    g_cancellable_cancel(cancellable_);
    g_object_unref(cancellable_);
    g_object_unref(input_);
}

void ControlChannel::readNextLine() {
    g_data_input_stream_read_line_async(
        input_, G_PRIORITY_DEFAULT, cancellable_,
        +[](GObject* source, GAsyncResult* result, gpointer data) {
            GError* error = nullptr;
            char* line = g_data_input_stream_read_line_finish(G_DATA_INPUT_STREAM(source), result,
                                                              nullptr, &error);
            // Cancelled: the channel is gone.
            if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
                g_error_free(error);
                return;
            }
            if (error) g_error_free(error);
            auto& channel = *static_cast<ControlChannel*>(data);
            if (!line) {  // end of input: the driver is gone
                g_application_quit(g_application_get_default());
                return;
            }
            const std::string text = line;
            g_free(line);
            channel.run(text);
            channel.readNextLine();
        },
        this);
}

void ControlChannel::run(const std::string& line) {
    const auto parts = splitCommand(line);
    const std::string& name = parts.first;
    const std::string& argument = parts.second;
    const auto table = commands();
    const auto command = std::find_if(table.begin(), table.end(),
                                      [&](const Command& row) { return name == row.name; });
    Outcome outcome = Outcome::Failed;
    if (command != table.end() && accepts(command->argument, argument)) {
        outcome = command->run(*this, argument);
    } else if (command != table.end()) {
        platform::log(platform::LogLevel::Debug,
                      std::string("Control channel: the command is ") + command->usage);
    }
    if (outcome == Outcome::Done) window_.event("done " + name);
    if (outcome == Outcome::Failed) window_.event("error " + name + " " + argument);
}

void ControlChannel::afterNextFrame(std::function<void()> work) {
    GtkWidget* window = window_.window();
    GdkFrameClock* clock = gtk_widget_get_frame_clock(window);
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
    gtk_widget_queue_draw(window);
    if (GtkPopoverView* views = window_.toolbarButton().popoverView())
        gtk_widget_queue_draw(views->root());
}

void ControlChannel::evaluateInPage(const std::string& script, const char* world) {
    BrowserTab* tab = window_.currentTab();
    if (!tab) {
        window_.event("js null");
        return;
    }
    webkit_web_view_evaluate_javascript(
        tab->view(), script.c_str(), static_cast<gssize>(script.size()), world, nullptr, nullptr,
        +[](GObject* view, GAsyncResult* result, gpointer data) {
            auto& window = *static_cast<BrowserWindow*>(data);
            GError* error = nullptr;
            JSCValue* value =
                webkit_web_view_evaluate_javascript_finish(WEBKIT_WEB_VIEW(view), result, &error);
            if (!value) {
                window.event(std::string("js-error ") + error->message);
                g_error_free(error);
                return;
            }
            char* json = jsc_value_to_json(value, 0);
            window.event(std::string("js ") + (json ? json : "null"));
            g_free(json);
            g_object_unref(value);
        },
        &window_);
}

namespace {

// Renders `node` (of `widget`, which must be mapped) into a PNG of `width` x
// `height`; takes the node.
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

// The page is drawn by the web process: its picture is asked for first,
// then the window is composed.
void ControlChannel::snapshotWindow(const std::string& path) {
    BrowserTab* tab = window_.currentTab();
    if (!tab) {
        window_.event("error snapshot-window");
        return;
    }
    struct Request {
        ControlChannel* channel;
        std::string path;
    };
    webkit_web_view_get_snapshot(
        tab->view(), WEBKIT_SNAPSHOT_REGION_VISIBLE, WEBKIT_SNAPSHOT_OPTIONS_NONE, nullptr,
        +[](GObject* view, GAsyncResult* result, gpointer data) {
            std::unique_ptr<Request> request(static_cast<Request*>(data));
            GdkTexture* page =
                webkit_web_view_get_snapshot_finish(WEBKIT_WEB_VIEW(view), result, nullptr);
            ControlChannel* channel = request->channel;
            channel->afterNextFrame([channel, path = request->path, page, view] {
                const bool saved = channel->saveWindow(path, GTK_WIDGET(view), page);
                if (page) g_object_unref(page);
                channel->window_.event(saved ? "done snapshot-window" : "error snapshot-window");
            });
        },
        new Request{this, path});
}

// Rendered after the next frame, when layout and style are settled and the
// queued work of the view switch is done.
void ControlChannel::snapshotPopover(const std::string& path, int framesLeft) {
    afterNextFrame([this, path, framesLeft] {
        platform::dispatch().mainQueue().async([=, this] {
            if (savePopover(path)) {
                window_.event("done snapshot-popover");
            } else if (framesLeft > 0) {
                snapshotPopover(path, framesLeft - 1);
            } else {
                window_.event("error snapshot-popover");
            }
        });
    });
}

bool ControlChannel::savePopover(const std::string& path) {
    GtkPopoverView* views = window_.toolbarButton().popoverView();
    if (!views || !gtk_widget_get_mapped(views->root())) return false;
    GtkWidget* root = views->root();
    const int width = gtk_widget_get_width(root);
    const int height = gtk_widget_get_height(root);
    return renderToPNG(root, snapshotOf(root, width, height), width, height, path);
}

// `page`, when given, is the picture of `pageView`'s page.
bool ControlChannel::saveWindow(const std::string& path, GtkWidget* pageView, GdkTexture* page) {
    GtkWidget* window = window_.window();
    const int width = gtk_widget_get_width(window);
    const int height = gtk_widget_get_height(window);
    GtkSnapshot* snapshot = gtk_snapshot_new();
    GskRenderNode* windowNode = snapshotOf(window, width, height);
    if (windowNode) {
        gtk_snapshot_append_node(snapshot, windowNode);
        gsk_render_node_unref(windowNode);
    }
    graphene_rect_t pageBounds;
    if (page && pageView && gtk_widget_compute_bounds(pageView, window, &pageBounds)) {
        gtk_snapshot_append_texture(snapshot, page, &pageBounds);
    }
    // The popover is a surface of its own; draw it where it hangs, under the
    // toolbar button.
    GtkPopoverView* views = window_.toolbarButton().popoverView();
    GtkWidget* root = views ? views->root() : nullptr;
    if (root && gtk_widget_get_mapped(root)) {
        graphene_rect_t button;
        if (gtk_widget_compute_bounds(window_.toolbarButton().widget(), window, &button)) {
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
    return renderToPNG(window, gtk_snapshot_free_to_node(snapshot), width, height, path);
}

namespace {

// The shown labels under `widget` that show less than their text:
// ellipsized, narrower or lower than their text needs, outside their parent,
// or reaching past a side of `root`. Popovers under it are surfaces of their
// own, left out.
void collectClipped(GtkWidget* widget, GtkWidget* root, std::vector<std::string>& clipped) {
    if (!gtk_widget_get_mapped(widget) || GTK_IS_POPOVER(widget)) return;
    if (GTK_IS_LABEL(widget) && *gtk_label_get_text(GTK_LABEL(widget))) {
        // The layout the label draws: its text at the label's width when it
        // wraps, else on one line, whatever the allocation.
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
        const bool withinRoot = !gtk_widget_compute_bounds(widget, root, &bounds) ||
                                (bounds.origin.x >= -0.5f && bounds.origin.x + bounds.size.width <=
                                                                 gtk_widget_get_width(root) + 0.5f);
        if (pango_layout_is_ellipsized(layout) || width > gtk_widget_get_width(widget) ||
            height > gtk_widget_get_height(widget) || !inside || !withinRoot) {
            clipped.push_back(gtk_label_get_text(GTK_LABEL(widget)));
        }
    }
    for (GtkWidget* child = gtk_widget_get_first_child(widget); child;
         child = gtk_widget_get_next_sibling(child)) {
        collectClipped(child, root, clipped);
    }
}

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
    GskRenderNode* node = snapshotOf(root, width, height);
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

// The texts under `widget` drawn in the palette's colours (the push
// buttons' are the theme's, on the buttons' own backgrounds), each laid
// over `under`.
void collectPaletteTexts(GtkWidget* widget, const std::array<double, 3>& under,
                         nlohmann::json& texts) {
    if (!gtk_widget_get_mapped(widget)) return;
    PangoAttrList* attributes =
        GTK_IS_LABEL(widget) ? gtk_label_get_attributes(GTK_LABEL(widget)) : nullptr;
    PangoAttrIterator* at = attributes ? pango_attr_list_get_iterator(attributes) : nullptr;
    auto* fg =
        at ? reinterpret_cast<PangoAttrColor*>(pango_attr_iterator_get(at, PANGO_ATTR_FOREGROUND))
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
        texts.push_back({{"text", gtk_label_get_text(GTK_LABEL(widget))},
                         {"sensitive", gtk_widget_is_sensitive(widget) ? true : false},
                         {"color", hexColor(over(color.red, under[0]), over(color.green, under[1]),
                                            over(color.blue, under[2]))},
                         {"background", hexColor(under[0], under[1], under[2])}});
    }
    if (at) pango_attr_iterator_destroy(at);
    for (GtkWidget* child = gtk_widget_get_first_child(widget); child;
         child = gtk_widget_get_next_sibling(child)) {
        collectPaletteTexts(child, under, texts);
    }
}

}  // namespace

std::string ControlChannel::clippedLine() {
    std::vector<std::string> clipped;
    if (GtkPopoverView* views = window_.toolbarButton().popoverView()) {
        collectClipped(views->root(), views->root(), clipped);
    }
    GtkWidget* button = window_.toolbarButton().widget();
    collectClipped(button, button, clipped);
    std::string line = std::to_string(clipped.size());
    for (size_t i = 0; i < clipped.size(); ++i) line += (i ? "|" : " ") + clipped[i];
    return line;
}

std::string ControlChannel::paletteLine() {
    nlohmann::json texts = nlohmann::json::array();
    GtkPopoverView* views = window_.toolbarButton().popoverView();
    if (!views) return texts.dump();
    const auto background = popoverBackground(views->root());
    if (!background) return texts.dump();
    collectPaletteTexts(views->root(), *background, texts);
    return texts.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string ControlChannel::stateLine() {
    SafariExtensionViewController& controller = SafariExtensionHandler().popoverViewController();
    const auto page = window_.activePage();
    const ExtensionToolbarButton& button = window_.toolbarButton();
    const GtkPopoverView* views = button.popoverView();
    const auto title = [views](const char* outlet) {
        return views ? views->rowTitle(outlet) : std::string();
    };
    const BrowserTab* tab = window_.currentTab();
    const auto& item = *button.item();
    nlohmann::json state = {
        {"image", item.imageName()},
        {"badge", item.badgeText() ? nlohmann::json(*item.badgeText()) : nlohmann::json(nullptr)},
        {"view", views ? views->shownView() : 0},
        {"popover", button.isOpen()},
        {"reloading", controller.reloading()},
        {"blocked", page ? controller.blockingStatController().URLsCountForPage(page) : 0},
        {"tabs", window_.tabCount()},
        {"crashed", tab && tab->crashed()},
        {"messagesDropped", tab ? tab->messagesDropped() : 0},
        {"website", title("blockButton")},
        {"blockEnabled", views && views->rowEnabled("blockButton")},
        {"profile", title("profileButton")},
        {"status", title("statusButton")},
        {"counter", title("counterButton")},
    };
    return state.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace stonewall::browser
