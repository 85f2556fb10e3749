// stonewall-browser: a small GTK 4 + WebKitGTK browser that hosts the
// Stonewall extension: its toolbar button and popover, the page picker and
// the blocked-request counter, with the content blocker applied to every
// page.
//
//   stonewall-browser [--control] [URL]

#include <adwaita.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "engine/CompanionController.h"
#include "extension/platform/FrontServices.h"
#include "filters/ContentFilters.h"
#include "front/BrowserServices.h"
#include "front/GtkMainDispatch.h"
#include "front/GtkToolkit.h"
#include "platform/linux/DBusNotificationCenter.h"
#include "platform/linux/FileUserDefaults.h"
#include "platform/linux/GnomeWebFilters.h"
#include "platform/linux/LinuxHost.h"
#include "platform/linux/LinuxServices.h"
#include "window/BrowserWindow.h"

namespace {

using namespace stonewall;

struct Program {
    browser::BrowserOptions options;
    std::string url = "about:blank";
    std::shared_ptr<browser::ContentFilters> filters;
    std::shared_ptr<browser::BrowserApplication> application;
    std::unique_ptr<browser::BrowserWindow> window;
};

// In the layout of the stonewall command's help, from which the manual page
// is made at build time.
constexpr const char* kHelp =
    "A small web browser with the Stonewall content blocker: every page loads with the active\n"
    "profile's compiled rule list; the toolbar button counts the loads it stopped and opens the\n"
    "extension's popover (block, secure or allow the website, pick page elements to hide,\n"
    "switch the profile, blocking and the counter).\n"
    "Usage: stonewall-browser [OPTIONS] [URL]\n"
    "\n"
    "Positionals:\n"
    "  URL                         The page to open (default about:blank)\n"
    "\n"
    "Options:\n"
    "  -h,--help                   Print this help message and exit\n"
    "  --version                   Display program version information and exit\n"
    "  --control                   Read commands on standard input and report events on "
    "standard output, one line each (for tests and scripts)\n"
    "\n"
    "The browser uses the same container as the stonewall command, so what it blocks is what\n"
    "that command manages; stonewall:// links open stonewall open-url.\n"
    "\n"
    "Environment: STONEWALL_CONTAINER (the container), STONEWALL_RESOURCES (the bundle's\n"
    "resources), STONEWALL_BROWSER_EXTENSIONS (the web-process extension's folder).\n";

// Control-channel events: one line each on stdout.
void writeEvent(const std::string& line) {
    std::string clean = line;
    for (char& c : clean) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    std::fprintf(stdout, "%s\n", clean.c_str());
    std::fflush(stdout);
}

std::string extensionsFolder() {
    if (const char* folder = std::getenv("STONEWALL_BROWSER_EXTENSIONS"); folder && *folder)
        return folder;
    // Installed: next to the program's own prefix; else the build tree's.
    if (std::string installed =
            platform::gnulinux::installedPath(STONEWALL_BROWSER_EXTENSIONS_FROM_BINDIR);
        !installed.empty()) {
        return installed;
    }
    return STONEWALL_BROWSER_BUILD_EXTENSIONS;
}

void activate(GtkApplication* application, Program* program) {
    if (program->window) {
        gtk_window_present(GTK_WINDOW(program->window->window()));
        return;
    }
    // The toolkit follows libadwaita's style manager, which needs the
    // display GTK opens at start-up.
    platform::FrontServices front = platform::installedFront();
    front.toolkit = std::make_shared<browser::GtkToolkit>(program->options.resources);
    platform::installFront(std::move(front));
    program->window = std::make_unique<browser::BrowserWindow>(
        application, program->options, program->filters, program->application);
    program->filters->setAllowApplied(
        [window = program->window.get()] { window->event("filter allow"); });
    program->filters->setFilterChanged([window = program->window.get()](bool filtering) {
        window->event(filtering ? "filter on" : "filter off");
    });
    // The first page loads once the stored filter is in place, so that no
    // load escapes it; a container that has never been compiled is compiled
    // now, as the content blocker would be when first enabled.
    program->filters->applyStoredList([program](bool found) {
        if (!found) {
            CompanionController engine;
            CompanionController::reloadBlockerRules(
                engine.sharedData() ? engine.sharedData()->activeProfileID : std::nullopt,
                engine.activeDatabase(), {});
        }
        program->window->openTab(program->url);
        gtk_window_present(GTK_WINDOW(program->window->window()));
        // What the command or another browser changes applies here too.
        program->filters->followChanges();
    });
}

}  // namespace

int main(int argc, char** argv) {
    Program program;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--control") {
            program.options.control = true;
        } else if (argument == "--help" || argument == "-h") {
            std::fputs(kHelp, stdout);
            return 0;
        } else if (argument == "--version") {
            std::printf("stonewall-browser %s\n", STONEWALL_VERSION);
            return 0;
        } else if (!argument.empty() && argument[0] == '-') {
            std::fprintf(stderr, "stonewall-browser: unknown option %s\n", argument.c_str());
            return 2;
        } else {
            program.url = argument;
        }
    }

    platform::Services services = platform::gnulinux::makeLinuxServices();
    auto dispatch = std::make_shared<browser::GtkMainDispatch>(services.dispatch);
    services.dispatch = dispatch;
    services.notifications =
        std::make_shared<platform::gnulinux::DBusNotificationCenter>(dispatch, services.log);
    const std::string container =
        services.host->containerPathForApplicationGroup(platform::gnulinux::kApplicationGroup)
            .value_or("");
    auto defaults =
        std::dynamic_pointer_cast<platform::gnulinux::FileUserDefaultsService>(services.defaults);
    // WebKit runs on this thread: the reload service compiles there too.
    platform::gnulinux::WebKitContentBlockerManager::useMainThreadWebKit();
    program.filters = std::make_shared<browser::ContentFilters>(
        container, defaults ? defaults->pathForSuite(platform::gnulinux::kApplicationGroup) : "",
        services.log);
    // The browser's reloads reach GNOME Web too when the user turned that on.
    services.contentBlocker =
        std::make_shared<platform::gnulinux::GnomeWebPublishingContentBlocker>(
            program.filters, container,
            defaults ? defaults->pathForSuite(platform::gnulinux::kApplicationGroup) : "",
            services.log);
    program.options.resources = services.bundle->resourcePath() + "/browser";
    program.options.extensionsFolder = extensionsFolder();
    program.options.events = program.options.control
                                 ? browser::EventSink(writeEvent)
                                 : browser::EventSink([](const std::string&) {});
    platform::install(services);
    program.application = std::make_shared<browser::BrowserApplication>();
    platform::installFront({program.application,
                            std::make_shared<browser::GioWorkspace>(program.options.events),
                            nullptr});

    if (!std::filesystem::exists(program.options.resources + "/picker.js")) {
        std::fprintf(stderr, "stonewall-browser: the browser resources are missing from %s\n",
                     program.options.resources.c_str());
        return 1;
    }

    AdwApplication* application =
        adw_application_new("com.mapleharbor.Stonewall.Browser", G_APPLICATION_NON_UNIQUE);
    g_signal_connect(application, "activate", G_CALLBACK(activate), &program);
    char* noArguments[] = {argv[0], nullptr};
    const int status = g_application_run(G_APPLICATION(application), 1, noArguments);
    platform::gnulinux::WebKitContentBlockerManager::mainLoopEnded();
    program.window.reset();
    g_object_unref(application);
    return status;
}
