#include "platform/linux/WebKitContentBlockerManager.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "platform/Platform.h"
#include "platform/RuleListBisect.h"
#include "platform/RuleListSplit.h"
#include "platform/linux/CompiledRuleListCache.h"
#include "platform/linux/FileUserDefaults.h"
#include "platform/linux/GLibThread.h"
#include "platform/linux/WebKitModule.h"

namespace stonewall::platform::gnulinux {

namespace fs = std::filesystem;

namespace {

Error ourError(int64_t code, std::string message) {
    return Error{WebKitContentBlockerManager::kErrorDomain, code, std::move(message)};
}

std::optional<Error> checkIdentifier(const std::string& identifier) {
    if (identifier.empty() || identifier.find('\0') != std::string::npos) {
        return ourError(WebKitContentBlockerManager::kUnknownIdentifier,
                        "A rule list needs a non-empty identifier.");
    }
    return std::nullopt;
}

struct ModuleLoad {
    const StonewallWebKitModule* module = nullptr;
    std::string failure;
};

// Loaded once and never unloaded: WebKit's threads outlive any caller.
const ModuleLoad& webKitModule() {
    static const ModuleLoad load = [] {
        ModuleLoad result;
        result.module = openWebKitModule(result.failure);
        return result;
    }();
    return load;
}

void collectError(void* context, const char* domain, int64_t code, const char* message) {
    *static_cast<std::optional<Error>*>(context) = Error{domain, code, message};
}

std::optional<Error> compileWithModule(const std::string& storePath, const std::string& identifier,
                                       std::string_view json) {
    const ModuleLoad& load = webKitModule();
    if (!load.module) {
        return ourError(WebKitContentBlockerManager::kWebKitUnavailable, load.failure);
    }
    std::optional<Error> error;
    load.module->compile(storePath.c_str(), identifier.c_str(), json.data(), json.size(),
                         &collectError, &error);
    return error;
}

// The rule list, mapped rather than read: a 50000-rule list is several MB,
// and a reload of a list compiled before only hashes it; copying it into
// fresh memory cost most of such a reload. Rule files are only ever replaced
// by a rename, never rewritten in place, so the mapping stays whole.
class MappedFile {
  public:
    // Empty `failure` on success.
    MappedFile(const fs::path& path, std::string& failure) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            failure = "cannot be opened";
            return;
        }
        struct stat info {};
        if (::fstat(fd, &info) != 0) {
            failure = "cannot be read";
        } else if (info.st_size > 0) {
            size_ = static_cast<size_t>(info.st_size);
            data_ = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
            if (data_ == MAP_FAILED) {
                data_ = nullptr;
                size_ = 0;
                failure = "cannot be read";
            }
        }
        ::close(fd);
    }
    ~MappedFile() {
        if (data_) ::munmap(data_, size_);
    }
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    std::string_view text() const {
        return data_ ? std::string_view(static_cast<const char*>(data_), size_)
                     : std::string_view();
    }

  private:
    void* data_ = nullptr;
    size_t size_ = 0;
};

// A profile identifier read from the shared defaults becomes part of a file
// name; an empty one names no profile.
bool isSafeFileNamePart(const std::string& text) {
    return !text.empty() && ContainerLayout::isSafeProfileIdentifier(text);
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
                                              const RuleListPart& part, const Error& error) {
    const nlohmann::json list = nlohmann::json::parse(part.json, nullptr, false);
    // Reports name a rule by its place in the whole list.
    auto wholeListIndex = [&](size_t index) {
        return index < part.indexes.size() ? part.indexes[index] : index;
    };
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
    const auto emptyVerdict =
        WebKitContentBlockerManager::compileRuleList(scratch, identifier, "[]");
    const RuleListRepair repair = dropRejectedRules(
        list.size(), error, emptyVerdict,
        [&](const std::vector<size_t>& indexes) { return compileRules(indexes, scratch); },
        kMaximumDroppedRules);
    fs::remove_all(scratch, ignored);
    if (repair.error) return error;
    // A part whose every rule was rejected still has to replace what it held.
    std::optional<Error> outcome = repair.kept.empty()
                                       ? WebKitContentBlockerManager::compileRuleList(
                                             storePath, identifier, std::string(kEmptyRuleListPart))
                                       : compileRules(repair.kept, storePath);
    if (outcome) return error;
    std::lock_guard lock(droppedMutex());
    for (const DroppedRule& dropped : repair.dropped) {
        std::string rule =
            list[dropped.index].dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        // Both phases of a reload load the same list: one report per rule.
        const size_t index = wholeListIndex(dropped.index);
        const bool known =
            std::any_of(droppedRules().begin(), droppedRules().end(),
                        [&](const auto& seen) { return seen.index == index && seen.rule == rule; });
        if (known) continue;
        platform::log(LogLevel::Error, "content blocker " + identifier + ": left out rule " +
                                           std::to_string(index) + " " + rule.substr(0, 200) +
                                           ": " + dropped.error.message);
        droppedRules().push_back(
            WebKitContentBlockerManager::DroppedRule{index, std::move(rule), dropped.error});
    }
    return std::nullopt;
}

}  // namespace

// The reload service's own thread: reloads are handled one at a time, in
// the order asked, as the browser does; the cache lives on it.
struct WebKitContentBlockerManager::Worker {
    GLibThread thread{"stonewall-cb"};
    CompiledRuleListCache cache;

    // Each part of the list keeps its own recent entries.
    explicit Worker(const std::string& storePath)
        : cache(
              storePath, &compileWithModule, [] { return webKitLibraryPath(); },
              CompiledRuleListCache::Limits{6 * kRuleListParts, uintmax_t{512} << 20}) {}
};

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

WebKitContentBlockerManager::ActiveList WebKitContentBlockerManager::activeRuleList(
    const std::string& containerPath, const std::string& defaultsPath) {
    // Something other than a file where the defaults belong (a folder that
    // could not be moved aside) is a storage fault, not a missing profile.
    if (std::error_code error; fs::exists(fs::symlink_status(defaultsPath, error)) &&
                               !fs::is_regular_file(defaultsPath, error)) {
        return {ourError(kStoreUnusable,
                         "The shared defaults file " + defaultsPath + " is not a file."),
                std::nullopt};
    }
    // The browser sees what was synchronised, not this process's memory.
    FileUserDefaults defaults(defaultsPath);
    if (defaults.integerForKey(std::string(ContainerLayout::kBlockingStatusKey)) ==
        ContainerLayout::kBlockingStatusOff) {
        return {};
    }
    const auto profile = defaults.stringForKey(std::string(ContainerLayout::kActiveProfileIDKey));
    if (!profile || !isSafeFileNamePart(*profile)) {
        return {ourError(kNoActiveProfile,
                         profile ? "The active profile identifier \"" + *profile +
                                       "\" cannot name a rule list."
                                 : "No active profile is set in the shared defaults."),
                std::nullopt};
    }
    return {std::nullopt, (fs::path(containerPath) / ContainerLayout::kProfilesFolder /
                           ContainerLayout::ruleListFileName(*profile))
                              .string()};
}

void WebKitContentBlockerManager::reloadContentBlockerWithIdentifier(
    const std::string& identifier, CompletionHandler completionHandler) {
    reload(identifier, [handler = std::move(completionHandler)](ReloadReport report) {
        if (handler) handler(std::move(report.error));
    });
}

void WebKitContentBlockerManager::reload(const std::string& identifier,
                                         std::function<void(ReloadReport)> done,
                                         ListObserver observer) {
    auto complete = [done = std::move(done), log = log_, identifier](ReloadReport report) {
        if (log) {
            const std::optional<Error>& error = report.error;
            log->write(LogLevel::Debug,
                       "content blocker " + identifier + " reloaded" +
                           (report.compiled ? "" : " (compiled before)") +
                           (error ? ": " + error->domain + " " + std::to_string(error->code) + " " +
                                        error->message
                                  : std::string()));
        }
        if (done) done(std::move(report));
    };
    auto fail = [](Error error) {
        ReloadReport report;
        report.error = std::move(error);
        return report;
    };
    // The thread starts with the first reload; a service that never
    // reloads costs nothing.
    std::shared_ptr<Worker> current;
    {
        std::lock_guard lock(workerMutex_);
        if (!worker_) worker_ = std::make_shared<Worker>(storePath_);
        current = worker_;
    }
    current->thread.invoke([worker = std::weak_ptr<Worker>(current), container = containerPath_,
                            storePath = storePath_, defaultsPath = defaultsPath_, identifier,
                            complete = std::move(complete), observer = std::move(observer),
                            fail]() mutable {
        if (identifier != kContentBlockerIdentifier) {
            complete(fail(ourError(kUnknownIdentifier, "No content blocker has the identifier \"" +
                                                           identifier + "\".")));
            return;
        }
        ActiveList active = activeRuleList(container, defaultsPath);
        if (active.error) {
            complete(fail(std::move(*active.error)));
            return;
        }
        std::optional<MappedFile> mapped;
        std::string_view ruleList = kAllowEverythingRuleList;
        if (active.path) {
            std::error_code error;
            if (!fs::exists(*active.path, error)) {
                complete(fail(ourError(kRuleListMissing,
                                       "The rule list " + *active.path + " does not exist.")));
                return;
            }
            std::string failure;
            mapped.emplace(*active.path, failure);
            if (!failure.empty()) {
                complete(fail(ourError(kRuleListUnreadable,
                                       "The rule list " + *active.path + " " + failure + ".")));
                return;
            }
            ruleList = mapped->text();
        }
        const auto owner = worker.lock();
        if (!owner) return;  // the service is gone
        if (observer) observer(ruleList);
        // The list goes to WebKit in parts, and only the parts whose rules
        // changed are compiled (RuleListSplit.h). Text that is no rule list
        // goes whole, for WebKit's own verdict.
        std::vector<RuleListPart> parts;
        if (auto split = splitRuleList(ruleList)) {
            parts = std::move(*split);
        } else {
            parts.assign(kRuleListParts, RuleListPart{std::string(kEmptyRuleListPart), {}});
            parts[0] = RuleListPart{std::string(ruleList), {}};
        }
        ReloadReport report;
        report.blockingOff = !active.path;
        for (size_t index = 0; index < parts.size(); ++index) {
            const std::string part = ruleListPartIdentifier(identifier, index);
            auto outcome = owner->cache.install(part, parts[index].json);
            if (outcome.error && outcome.error->domain == kWebKitFilterErrorDomain) {
                outcome.error =
                    loadWithoutRejectedRules(storePath, part, parts[index], *outcome.error);
            }
            report.compiled |= outcome.compiled;
            if (outcome.error && !report.error) report.error = std::move(outcome.error);
            report.partKeys.push_back(outcome.error ? std::string() : std::move(outcome.key));
        }
        if (report.error) report.partKeys.clear();
        complete(std::move(report));
    });
}

void WebKitContentBlockerManager::useMainThreadWebKit() {
    if (const ModuleLoad& load = webKitModule(); load.module) {
        load.module->setWebKitThread(kWebKitOnMainContext);
    }
}

void WebKitContentBlockerManager::mainLoopEnded() {
    if (const ModuleLoad& load = webKitModule(); load.module) {
        load.module->setWebKitThread(kWebKitMainContextEnded);
    }
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
    return compileWithModule(storePath, identifier, json);
}

std::optional<Error> WebKitContentBlockerManager::lookUpRuleList(const std::string& storePath,
                                                                 const std::string& identifier,
                                                                 std::string* loadedIdentifier) {
    if (auto invalid = checkIdentifier(identifier)) return invalid;
    const ModuleLoad& load = webKitModule();
    if (!load.module) return ourError(kWebKitUnavailable, load.failure);
    struct Answer {
        std::optional<Error> error;
        std::string loaded;
    } answer;
    load.module->lookUp(
        storePath.c_str(), identifier.c_str(),
        [](void* context, const char* text) { static_cast<Answer*>(context)->loaded = text; },
        [](void* context, const char* domain, int64_t code, const char* message) {
            static_cast<Answer*>(context)->error = Error{domain, code, message};
        },
        &answer);
    if (!answer.error && loadedIdentifier) *loadedIdentifier = std::move(answer.loaded);
    return answer.error;
}

std::string WebKitContentBlockerManager::webKitLibraryPath() {
    const ModuleLoad& load = webKitModule();
    return load.module ? load.module->libraryPath() : std::string();
}

}  // namespace stonewall::platform::gnulinux
