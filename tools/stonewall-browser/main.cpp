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

#include "BrowserServices.h"
#include "BrowserWindow.h"
#include "ContentFilters.h"
#include "GtkMainDispatch.h"
#include "GtkToolkit.h"
#include "engine/CompanionController.h"
#include "extension/platform/FrontServices.h"
#include "platform/linux/DBusNotificationCenter.h"
#include "platform/linux/FileUserDefaults.h"
#include "platform/linux/LinuxServices.h"

namespace {

using namespace stonewall;

struct Program {
    browser::BrowserOptions options;
    std::string url = "about:blank";
    std::shared_ptr<browser::ContentFilters> filters;
    std::shared_ptr<browser::BrowserApplication> application;
    std::unique_ptr<browser::BrowserWindow> window;
};

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
    if (std::filesystem::exists(STONEWALL_BROWSER_BUILD_EXTENSIONS))
        return STONEWALL_BROWSER_BUILD_EXTENSIONS;
    return STONEWALL_BROWSER_INSTALL_EXTENSIONS;
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
            std::printf("usage: stonewall-browser [--control] [URL]\n");
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
    program.filters = std::make_shared<browser::ContentFilters>(
        container, defaults ? defaults->pathForSuite(platform::gnulinux::kApplicationGroup) : "");
    services.contentBlocker = program.filters;
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
    program.window.reset();
    g_object_unref(application);
    return status;
}
