#include "platform/linux/WebKitContentBlockerManager.h"

#include <stdlib.h>
#include <webkit/webkit.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

#include "platform/Platform.h"
#include "platform/RuleListBisect.h"
#include "platform/linux/FileUserDefaults.h"
#include "platform/linux/GLibThread.h"

namespace stonewall::platform::linux {

namespace fs = std::filesystem;

namespace {

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
    return Error{WebKitContentBlockerManager::kErrorDomain, code, std::move(message)};
}

Error fromGError(const GError* error) {
    return Error{g_quark_to_string(error->domain), error->code, error->message};
}

std::optional<Error> checkIdentifier(const std::string& identifier) {
    if (identifier.empty() || identifier.find('\0') != std::string::npos) {
        return ourError(WebKitContentBlockerManager::kUnknownIdentifier,
                        "A rule list needs a non-empty identifier.");
    }
    return std::nullopt;
}

struct SaveRequest {
    WebKitUserContentFilterStore* store;
    Finish finish;
};

// WebKit thread only.
void startCompile(const std::string& storePath, const std::string& identifier,
                  const std::string& json, Finish finish) {
    std::error_code error;
    fs::create_directories(storePath, error);
    if (error) {
        finish(
            ourError(WebKitContentBlockerManager::kStoreUnusable,
                     "The rule-list store " + storePath + " cannot be made: " + error.message()));
        return;
    }
    auto* request =
        new SaveRequest{webkit_user_content_filter_store_new(storePath.c_str()), std::move(finish)};
    GBytes* source = g_bytes_new(json.data(), json.size());
    webkit_user_content_filter_store_save(
        request->store, identifier.c_str(), source, nullptr,
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
    g_bytes_unref(source);
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

// Runs `start` on the WebKit thread and waits for the result it reports.
// On the WebKit thread itself (a completion calling back in) it iterates
// that thread's context until done instead of waiting for itself.
template <typename Result>
Result runAndWait(std::function<void(std::function<void(Result)>)> start, Result timedOut) {
    GLibThread& thread = webKitThread();
    if (thread.isCurrent()) {
        auto result = std::make_shared<std::optional<Result>>();
        start([result](Result value) { *result = std::move(value); });
        while (!*result) g_main_context_iteration(thread.context(), TRUE);
        return std::move(**result);
    }
    auto promise = std::make_shared<std::promise<Result>>();
    auto future = promise->get_future();
    thread.invoke([start = std::move(start), promise] {
        start([promise](Result value) { promise->set_value(std::move(value)); });
    });
    if (future.wait_for(kSynchronousTimeout) != std::future_status::ready) return timedOut;
    return future.get();
}

std::optional<std::string> readWholeFile(const fs::path& path, std::string& failure) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        failure = "cannot be opened";
        return std::nullopt;
    }
    std::ostringstream text;
    text << stream.rdbuf();
    if (stream.bad()) {
        failure = "cannot be read";
        return std::nullopt;
    }
    return std::move(text).str();
}

// A profile identifier read from the shared defaults becomes part of a file
// name: nothing that could leave the .Profiles folder.
bool isSafeFileNamePart(const std::string& text) {
    return !text.empty() && text.find('/') == std::string::npos &&
           text.find('\0') == std::string::npos && text != "." && text != "..";
}

constexpr const char* kWebKitFilterErrorDomain = "WebKitUserContentFilterError";
// Past this many bad rules the list is not one bad value but a bad list.
constexpr size_t kMaximumDroppedRules = 64;

std::mutex& droppedMutex() {
    static auto* mutex = new std::mutex();
    return *mutex;
}
std::vector<WebKitContentBlockerManager::DroppedRule>& droppedRules() {
    static auto* rules = new std::vector<WebKitContentBlockerManager::DroppedRule>();
    return *rules;
}

// WebKit refuses a whole list for one rule it cannot compile, and every
// later reload would fail the same way. Instead the rules it rejects are
// found (in a scratch store, so the loaded list stays until the end), left
// out, and the rest is loaded. Returns the outcome of that load, or the
// original error when no such list exists.
std::optional<Error> loadWithoutRejectedRules(const std::string& storePath,
                                              const std::string& identifier,
                                              const std::string& ruleList, const Error& error) {
    const nlohmann::json list = nlohmann::json::parse(ruleList, nullptr, false);
    if (!list.is_array() || list.empty()) return error;
    std::error_code ignored;
    std::string scratch = (fs::path(storePath).parent_path() / ".repair-XXXXXX").string();
    if (!::mkdtemp(scratch.data())) return error;
    auto compileRules = [&](const std::vector<size_t>& indexes, const std::string& store) {
        std::string json = "[";
        for (size_t i = 0; i < indexes.size(); ++i) {
            if (i) json.push_back(',');
            json += list[indexes[i]].dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        }
        json.push_back(']');
        return WebKitContentBlockerManager::compileRuleList(store, identifier, json);
    };
    const auto emptyVerdict = WebKitContentBlockerManager::compileRuleList(scratch, identifier, "[]");
    const RuleListRepair repair = dropRejectedRules(
        list.size(), error, emptyVerdict,
        [&](const std::vector<size_t>& indexes) { return compileRules(indexes, scratch); },
        kMaximumDroppedRules);
    fs::remove_all(scratch, ignored);
    if (repair.error) return error;
    std::optional<Error> outcome = compileRules(repair.kept, storePath);
    if (outcome) return error;
    std::lock_guard lock(droppedMutex());
    for (const DroppedRule& dropped : repair.dropped) {
        std::string rule =
            list[dropped.index].dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        // Both phases of a reload load the same list: one report per rule.
        const bool known = std::any_of(droppedRules().begin(), droppedRules().end(),
                                       [&](const auto& seen) {
                                           return seen.index == dropped.index && seen.rule == rule;
                                       });
        if (known) continue;
        platform::log(LogLevel::Error, "content blocker " + identifier + ": left out rule " +
                                           std::to_string(dropped.index) + " " +
                                           rule.substr(0, 200) + ": " + dropped.error.message);
        droppedRules().push_back(WebKitContentBlockerManager::DroppedRule{
            dropped.index, std::move(rule), dropped.error});
    }
    return std::nullopt;
}

}  // namespace

WebKitContentBlockerManager::WebKitContentBlockerManager(std::string containerPath,
                                                         std::string defaultsPath,
                                                         std::shared_ptr<Log> log)
    : containerPath_(std::move(containerPath)),
      defaultsPath_(std::move(defaultsPath)),
      storePath_(storePathForContainer(containerPath_)),
      log_(std::move(log)) {}

std::string WebKitContentBlockerManager::storePathForContainer(const std::string& containerPath) {
    return (fs::path(containerPath) / "Library" / "ContentBlockers").string();
}

void WebKitContentBlockerManager::reloadContentBlockerWithIdentifier(
    const std::string& identifier, CompletionHandler completionHandler) {
    auto complete = [handler = std::move(completionHandler), log = log_,
                     identifier](std::optional<Error> error) {
        if (log) {
            log->write(LogLevel::Debug,
                       "content blocker " + identifier + " reloaded" +
                           (error ? ": " + error->domain + " " + std::to_string(error->code) + " " +
                                        error->message
                                  : std::string()));
        }
        if (handler) handler(std::move(error));
    };
    webKitThread().invoke([container = containerPath_, defaultsPath = defaultsPath_,
                           storePath = storePath_, identifier,
                           complete = std::move(complete)]() mutable {
        if (identifier != kContentBlockerIdentifier) {
            complete(ourError(kUnknownIdentifier,
                              "No content blocker has the identifier \"" + identifier + "\"."));
            return;
        }
        // The browser sees what was synchronised, not this process's memory.
        FileUserDefaults defaults(defaultsPath);
        std::string ruleList;
        if (defaults.integerForKey("blockingStatus") == 2) {
            ruleList = kAllowEverythingRuleList;
        } else {
            const auto profile = defaults.stringForKey("activeProfileID");
            if (!profile || !isSafeFileNamePart(*profile)) {
                complete(ourError(kNoActiveProfile,
                                  profile ? "The active profile identifier \"" + *profile +
                                                "\" cannot name a rule list."
                                          : "No active profile is set in the shared defaults."));
                return;
            }
            const fs::path file =
                fs::path(container) / ".Profiles" / ("profile_" + *profile + "_unarchive.json");
            std::error_code error;
            if (!fs::exists(file, error)) {
                complete(ourError(kRuleListMissing,
                                  "The rule list " + file.string() + " does not exist."));
                return;
            }
            std::string failure;
            auto text = readWholeFile(file, failure);
            if (!text) {
                complete(ourError(kRuleListUnreadable,
                                  "The rule list " + file.string() + " " + failure + "."));
                return;
            }
            ruleList = std::move(*text);
        }
        startCompile(storePath, identifier, ruleList,
                     [storePath, identifier, ruleList,
                      complete = std::move(complete)](std::optional<Error> error) mutable {
                         if (error && error->domain == kWebKitFilterErrorDomain) {
                             error = loadWithoutRejectedRules(storePath, identifier, ruleList,
                                                              *error);
                         }
                         complete(std::move(error));
                     });
    });
}

std::vector<WebKitContentBlockerManager::DroppedRule>
WebKitContentBlockerManager::takeDroppedRules() {
    std::lock_guard lock(droppedMutex());
    return std::exchange(droppedRules(), {});
}

std::optional<Error> WebKitContentBlockerManager::compileRuleList(const std::string& storePath,
                                                                  const std::string& identifier,
                                                                  const std::string& json) {
    if (auto invalid = checkIdentifier(identifier)) return invalid;
    return runAndWait<std::optional<Error>>(
        [storePath, identifier, json](std::function<void(std::optional<Error>)> finish) {
            startCompile(storePath, identifier, json, std::move(finish));
        },
        ourError(kTimedOut, "WebKit did not finish compiling the rule list."));
}

std::optional<Error> WebKitContentBlockerManager::lookUpRuleList(const std::string& storePath,
                                                                 const std::string& identifier,
                                                                 std::string* loadedIdentifier) {
    if (auto invalid = checkIdentifier(identifier)) return invalid;
    using Outcome = std::pair<std::optional<Error>, std::string>;
    Outcome outcome = runAndWait<Outcome>(
        [storePath, identifier](std::function<void(Outcome)> finish) {
            startLookUp(
                storePath, identifier,
                [finish = std::move(finish)](std::optional<Error> error, std::string loaded) {
                    finish({std::move(error), std::move(loaded)});
                });
        },
        {ourError(kTimedOut, "WebKit did not finish loading the rule list."), std::string()});
    if (!outcome.first && loadedIdentifier) *loadedIdentifier = std::move(outcome.second);
    return outcome.first;
}

}  // namespace stonewall::platform::linux
