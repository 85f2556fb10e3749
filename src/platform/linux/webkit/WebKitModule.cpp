// libstonewall-webkit.so: the only code of the program that calls WebKitGTK.

#include "platform/linux/WebKitModule.h"

#include <dlfcn.h>
#include <webkit/webkit.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/Error.h"
#include "platform/linux/GLibThread.h"
#include "platform/linux/WebKitContentBlockerManager.h"

namespace stonewall::platform::gnulinux {
namespace {

namespace fs = std::filesystem;

using Manager = WebKitContentBlockerManager;
using Finish = std::function<void(std::optional<Error>)>;

// A 50000-rule list compiles in seconds; this only guards against a WebKit
// that never answers.
constexpr auto kSynchronousTimeout = std::chrono::minutes(5);

// WebKit binds its run loop to the thread (and the thread-default context)
// of its first use, for the rest of the process: so one thread, made once
// and never ended.
GLibThread& webKitThread() {
    static GLibThread* thread = new GLibThread("stonewall-wk");
    return *thread;
}

Error ourError(int64_t code, std::string message) {
    return Error{Manager::kErrorDomain, code, std::move(message)};
}

Error fromGError(const GError* error) {
    return Error{g_quark_to_string(error->domain), error->code, error->message};
}

struct SaveRequest {
    WebKitUserContentFilterStore* store;
    Finish finish;
};

using SharedBytes = std::shared_ptr<GBytes>;

// WebKit thread only.
void startCompile(const std::string& storePath, const std::string& identifier,
                  const SharedBytes& source, Finish finish) {
    std::error_code error;
    fs::create_directories(storePath, error);
    if (error) {
        finish(ourError(Manager::kStoreUnusable, "The rule-list store " + storePath +
                                                     " cannot be made: " + error.message()));
        return;
    }
    auto* request =
        new SaveRequest{webkit_user_content_filter_store_new(storePath.c_str()), std::move(finish)};
    webkit_user_content_filter_store_save(
        request->store, identifier.c_str(), source.get(), nullptr,
        [](GObject* store, GAsyncResult* result, gpointer data) {
            std::unique_ptr<SaveRequest> request(static_cast<SaveRequest*>(data));
            GError* error = nullptr;
            WebKitUserContentFilter* filter = webkit_user_content_filter_store_save_finish(
                WEBKIT_USER_CONTENT_FILTER_STORE(store), result, &error);
            std::optional<Error> outcome;
            if (filter) {
                webkit_user_content_filter_unref(filter);
            } else {
                outcome = fromGError(error);
                g_error_free(error);
            }
            g_object_unref(request->store);
            request->finish(std::move(outcome));
        },
        request);
}

struct LoadRequest {
    WebKitUserContentFilterStore* store;
    std::function<void(std::optional<Error>, std::string)> finish;
};

void startLookUp(const std::string& storePath, const std::string& identifier,
                 std::function<void(std::optional<Error>, std::string)> finish) {
    auto* request =
        new LoadRequest{webkit_user_content_filter_store_new(storePath.c_str()), std::move(finish)};
    webkit_user_content_filter_store_load(
        request->store, identifier.c_str(), nullptr,
        [](GObject* store, GAsyncResult* result, gpointer data) {
            std::unique_ptr<LoadRequest> request(static_cast<LoadRequest*>(data));
            GError* error = nullptr;
            WebKitUserContentFilter* filter = webkit_user_content_filter_store_load_finish(
                WEBKIT_USER_CONTENT_FILTER_STORE(store), result, &error);
            std::optional<Error> outcome;
            std::string loaded;
            if (filter) {
                loaded = webkit_user_content_filter_get_identifier(filter);
                webkit_user_content_filter_unref(filter);
            } else {
                outcome = fromGError(error);
                g_error_free(error);
            }
            g_object_unref(request->store);
            request->finish(std::move(outcome), std::move(loaded));
        },
        request);
}

std::atomic<int> webKitThreadChoice{kWebKitOnOwnThread};

// Runs `start` on the WebKit thread and waits for the result it reports.
// On the WebKit thread itself (a completion calling back in) it iterates
// that thread's context until done instead of waiting for itself.
template <typename Result>
Result runAndWait(std::function<void(std::function<void(Result)>)> start, Result timedOut,
                  Result mainLoopEnded) {
    const int where = webKitThreadChoice.load();
    if (where == kWebKitMainContextEnded) return mainLoopEnded;
    const bool onMainContext = where == kWebKitOnMainContext;
    GMainContext* context = onMainContext ? g_main_context_default() : webKitThread().context();
    const bool current =
        onMainContext ? g_main_context_is_owner(context) : webKitThread().isCurrent();
    if (current) {
        auto result = std::make_shared<std::optional<Result>>();
        start([result](Result value) { *result = std::move(value); });
        while (!*result) g_main_context_iteration(context, TRUE);
        return std::move(**result);
    }
    auto promise = std::make_shared<std::promise<Result>>();
    auto future = promise->get_future();
    std::function<void()> work = [start = std::move(start), promise] {
        start([promise](Result value) { promise->set_value(std::move(value)); });
    };
    if (!onMainContext) {
        webKitThread().invoke(std::move(work));
        if (future.wait_for(kSynchronousTimeout) != std::future_status::ready) return timedOut;
        return future.get();
    }
    g_main_context_invoke_full(
        context, G_PRIORITY_DEFAULT,
        [](gpointer data) {
            (*static_cast<std::function<void()>*>(data))();
            return G_SOURCE_REMOVE;
        },
        new std::function<void()>(std::move(work)),
        [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
    // The main loop may end meanwhile (the browser closing): then nothing
    // answers, and the caller is not kept waiting for it.
    const auto deadline = std::chrono::steady_clock::now() + kSynchronousTimeout;
    while (future.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
        if (webKitThreadChoice.load() == kWebKitMainContextEnded) return mainLoopEnded;
        if (std::chrono::steady_clock::now() >= deadline) return timedOut;
    }
    return future.get();
}

int report(const std::optional<Error>& error, StonewallWebKitErrorSink sink, void* context) {
    if (!error) return 0;
    if (sink) sink(context, error->domain.c_str(), error->code, error->message.c_str());
    return 1;
}

int compile(const char* storePath, const char* identifier, const char* source, size_t length,
            StonewallWebKitErrorSink sink, void* context) {
    // Owned by the work item, not by this frame: after a timeout WebKit may
    // still read it.
    SharedBytes bytes(g_bytes_new(source, length), &g_bytes_unref);
    std::optional<Error> error = runAndWait<std::optional<Error>>(
        [store = std::string(storePath), id = std::string(identifier),
         bytes](std::function<void(std::optional<Error>)> finish) {
            startCompile(store, id, bytes, std::move(finish));
        },
        ourError(Manager::kTimedOut, "WebKit did not finish compiling the rule list."),
        ourError(Manager::kWebKitUnavailable, "The program is closing; nothing was compiled."));
    return report(error, sink, context);
}

int lookUp(const char* storePath, const char* identifier, StonewallWebKitTextSink loaded,
           StonewallWebKitErrorSink sink, void* context) {
    using Outcome = std::pair<std::optional<Error>, std::string>;
    Outcome outcome = runAndWait<Outcome>(
        [store = std::string(storePath),
         id = std::string(identifier)](std::function<void(Outcome)> finish) {
            startLookUp(store, id,
                        [finish = std::move(finish)](std::optional<Error> error, std::string text) {
                            finish({std::move(error), std::move(text)});
                        });
        },
        {ourError(Manager::kTimedOut, "WebKit did not finish loading the rule list."),
         std::string()},
        {ourError(Manager::kWebKitUnavailable, "The program is closing; nothing was loaded."),
         std::string()});
    if (!outcome.first && loaded) loaded(context, outcome.second.c_str());
    return report(outcome.first, sink, context);
}

const char* libraryPath() {
    static const std::string path = [] {
        Dl_info info{};
        if (::dladdr(reinterpret_cast<void*>(&webkit_user_content_filter_store_new), &info) &&
            info.dli_fname) {
            return std::string(info.dli_fname);
        }
        return std::string();
    }();
    return path.c_str();
}

void setWebKitThread(int where) { webKitThreadChoice.store(where); }

const StonewallWebKitModule kModule = {
    kWebKitModuleInterfaceVersion, &compile, &lookUp, &libraryPath, &setWebKitThread,
};

}  // namespace
}  // namespace stonewall::platform::gnulinux

extern "C" __attribute__((visibility("default"))) const StonewallWebKitModule*
stonewall_webkit_module(void) {
    return &stonewall::platform::gnulinux::kModule;
}
