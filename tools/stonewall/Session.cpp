#include "Session.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iostream>
#include <system_error>

#include "Failure.h"
#include "Report.h"
#include "platform/ContainerLayout.h"
#include "platform/Platform.h"
#include "platform/Process.h"
#include "platform/StorageEvents.h"
#include "platform/linux/LinuxServices.h"
#include "storage/FileHandler.h"

namespace stonewall::tool {
namespace fs = std::filesystem;

std::atomic<bool> Session::workAbandoned_{false};

namespace {

// The templates the storage layer copies into a new container.
constexpr const char* kTemplateNames[] = {"shared_data", "profiles"};
// Held by every command that opens the engine, for the whole command.

std::string absolutePath(const std::string& path) {
    std::error_code error;
    auto absolute = fs::absolute(path, error);
    if (error) return path;
    return absolute.lexically_normal().string();
}

std::string trimmedSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace

Session::Session(const CommonOptions& options, Signals signals)
    : options_(options), signals_(signals) {
    platform::gnulinux::LinuxOptions linuxOptions;
    if (!options_.container.empty()) linuxOptions.containerPath = absolutePath(options_.container);
    if (options_.verbose) linuxOptions.verbose = true;
    platform::install(platform::gnulinux::makeLinuxServices(linuxOptions));

    const auto container =
        platform::host().containerPathForApplicationGroup(std::string(kApplicationGroup));
    if (!container || container->empty()) {
        throw CommandFailure(ExitCode::Storage, message(N_("container")),
                             message(N_("no container is configured for the application group "
                                        "(set --container or STONEWALL_CONTAINER)")));
    }
    containerPath_ = trimmedSlash(absolutePath(*container));

    // Storage stays silent to the engine; the command tells people of files
    // moved aside at once, and counts failures so that it never reports
    // success over a write that did not happen.
    StorageEvents::setObserver([this](StorageEvents::Kind kind, std::string_view message) {
        std::lock_guard lock(storageMutex_);
        if (kind == StorageEvents::Kind::MovedAside) {
            // The storage layer's words, in English.
            std::string line = "stonewall: ";
            line.append(message).append("\n");
            std::fputs(line.c_str(), stderr);
            return;
        }
        ++storageFailures_;
        lastStorageFailure_ = std::string(message);
    });

    if (signals_ == Signals::StopMainLoop) watchStopRequests();
}

int64_t Session::storageFailures() const {
    std::lock_guard lock(storageMutex_);
    return storageFailures_;
}

std::string Session::lastStorageFailure() const {
    std::lock_guard lock(storageMutex_);
    return lastStorageFailure_;
}

Session::~Session() {
    StorageEvents::setObserver({});
    stopWatch_.reset();
    containerLock_.reset();
    // The services stay installed: engine singletons (the shared database and
    // its queue) live until the process ends and must find them there.
}

std::string Session::resourcePath() const { return platform::bundle().resourcePath(); }

void Session::prepareContainer() const {
    // The templates first: a container that cannot be filled is not made.
    std::error_code error;
    const std::string resources = resourcePath();
    for (const char* name : kTemplateNames) {
        const fs::path path = fs::path(resources) / name;
        if (!fs::is_regular_file(path, error)) {
            throw CommandFailure(ExitCode::Storage, message(N_("resources {0}"), {resources}),
                                 message(N_("the template database \"{0}\" is missing (set "
                                            "STONEWALL_RESOURCES to the folder that holds the "
                                            "templates)"),
                                         {name}));
        }
    }

    const Message subject = message(N_("container {0}"), {containerPath_});
    const auto status = fs::status(containerPath_, error);
    if (status.type() == fs::file_type::not_found) {
        error.clear();
        fs::create_directories(containerPath_, error);
        if (error)
            throw CommandFailure(
                ExitCode::Storage, subject,
                message(N_("cannot be created: {0}"), {systemMessage(error.value())}));
    } else if (error) {
        throw CommandFailure(ExitCode::Storage, subject, systemMessage(error.value()));
    } else if (status.type() != fs::file_type::directory) {
        throw CommandFailure(ExitCode::Storage, subject, message(N_("not a directory")));
    }
    if (std::string why; !platform::canWriteInto(containerPath_, why)) {
        throw CommandFailure(ExitCode::Storage, subject, message(N_("not writable: {0}"), {why}));
    }
}

void Session::lockContainer() const {
    if (containerLock_) return;
    // Blocks while another stonewall command works on this container.
    std::string why;
    containerLock_ = platform::lockFile(
        containerPath_ + "/" + std::string(ContainerLayout::kContainerLockFile), why);
    if (!containerLock_) {
        throw CommandFailure(ExitCode::Storage, message(N_("container {0}"), {containerPath_}),
                             message(N_("cannot be locked: {0}"), {why}));
    }
}

bool isUsableProfileID(std::string_view identifier) {
    // Control characters are refused on top of the container's rule: they
    // would garble the command's own output.
    if (identifier.empty() || !ContainerLayout::isSafeProfileIdentifier(identifier)) return false;
    return std::none_of(identifier.begin(), identifier.end(),
                        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

std::unique_ptr<CompanionController> Session::openEngine(ActiveProfile use) const {
    prepareContainer();
    // The engine reads a website list, merges a host into it and writes it
    // back; two commands doing that at once would each drop the other's
    // host. Making the databases from their templates is covered as well.
    lockContainer();
    auto engine = std::make_unique<CompanionController>();
    if (!engine->sharedData()) {
        engine->sharedDatabase().reconnectDatabase();
        engine->syncShared();
        engine->connectProfileDatabase();
    }
    if (!engine->sharedData()) {
        throw CommandFailure(
            ExitCode::Storage,
            message(N_("shared database {0}"), {engine->sharedDatabase().dataPath()}),
            message(N_("cannot be read")));
    }
    const auto& database = engine->activeDatabase();
    std::error_code error;
    const NullableString& active = engine->sharedData()->activeProfileID;
    if (active && !isUsableProfileID(*active)) {
        const Message subject = message(N_("shared database"));
        const Message why =
            message(N_("the active profile identifier \"{0}\" cannot name a file; choose "
                       "another with \"stonewall profile activate <id>\""),
                    {withoutControls(*active)});
        if (use == ActiveProfile::Required) throw CommandFailure(ExitCode::Storage, subject, why);
        std::cerr << "stonewall: " << format(tr("warning: {0}: {1}"), {subject.local, why.local})
                  << std::endl;
        return engine;
    }
    if (use == ActiveProfile::Optional &&
        (!database || !fs::is_regular_file(database->profilesDataPath(), error))) {
        return engine;
    }
    if (!database || !fs::is_regular_file(database->profilesDataPath(), error)) {
        const Message subject =
            message(N_("profile {0}"), {textOrNull(engine->sharedData()->activeProfileID)});
        throw CommandFailure(ExitCode::Storage, subject,
                             database ? message(N_("its database cannot be opened ({0})"),
                                                {database->profilesDataPath()})
                                      : message(N_("its database cannot be opened")));
    }
    return engine;
}

std::optional<Error> Session::await(const Message& what,
                                    const std::function<void(CompletionHandler)>& start) {
    struct State {
        std::atomic<bool> finished{false};
        std::atomic<bool> timedOut{false};
        std::optional<Error> error;
        std::exception_ptr exception;
    };
    auto state = std::make_shared<State>();
    auto& dispatch = platform::dispatch();

    // Started from the main queue, as the front's actions are: a completion
    // that arrives "at once" then still finds the loop running.
    dispatch.mainQueue().async([state, start, &dispatch] {
        try {
            start([state, &dispatch](std::optional<Error> error) {
                if (state->finished.exchange(true)) return;
                state->error = std::move(error);
                dispatch.stopMain();
            });
        } catch (...) {
            state->exception = std::current_exception();
            state->finished = true;
            dispatch.stopMain();
        }
    });
    const auto timeout = std::chrono::duration_cast<platform::Nanoseconds>(
        std::chrono::duration<double>(options_.timeoutSeconds));
    dispatch.mainQueue().asyncAfter(timeout, [state, &dispatch] {
        if (state->finished) return;
        state->timedOut = true;
        dispatch.stopMain();
    });

    while (!state->finished && !state->timedOut) dispatch.runMain();

    if (!state->finished) {
        workAbandoned_ = true;
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%g", options_.timeoutSeconds);
        throw CommandFailure(ExitCode::Reload, what,
                             message(N_("no answer within {0} s (the content blocker did not "
                                        "complete; see --timeout)"),
                                     {seconds}));
    }
    if (state->exception) std::rethrow_exception(state->exception);
    return state->error;
}

void Session::runUntilStopped() {
    auto& dispatch = platform::dispatch();
    while (!stopRequested_) dispatch.runMain();
}

void Session::stop() {
    stopRequested_ = true;
    platform::dispatch().stopMain();
}

void Session::watchStopRequests() {
    // Through the main queue, so that a request that comes before the loop
    // runs is not lost: the item waits for the loop and stops it.
    std::string why;
    stopWatch_ = platform::watchStopRequests(
        [this] { platform::dispatch().mainQueue().async([this] { stop(); }); }, why);
    if (!stopWatch_) {
        throw CommandFailure(ExitCode::Unavailable, message(N_("signals")),
                             message(N_("cannot be watched: {0}"), {why}));
    }
}

}  // namespace stonewall::tool
