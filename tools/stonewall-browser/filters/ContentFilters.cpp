#include "filters/ContentFilters.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "platform/ContainerLayout.h"
#include "platform/Platform.h"
#include "platform/RuleListSplit.h"
#include "platform/linux/CompiledRuleListCache.h"
#include "platform/linux/WebKitContentBlockerManager.h"

namespace stonewall::browser {

namespace fs = std::filesystem;
using platform::kRuleListParts;
using platform::gnulinux::WebKitContentBlockerManager;

namespace {

Error ourError(int64_t code, std::string message) {
    return Error{WebKitContentBlockerManager::kErrorDomain, code, std::move(message)};
}

std::string partIdentifier(size_t index) {
    return platform::ruleListPartIdentifier(WebKitContentBlockerManager::kContentBlockerIdentifier,
                                            index);
}

}  // namespace

// The store calls of one reload or start, finished when the last one answers.
struct ContentFilters::Batch {
    std::shared_ptr<ContentFilters> self;
    std::vector<WebKitUserContentFilter*> filters;  // the new set, one reference each
    std::vector<std::string> keys;
    size_t pending = 0;
    uint64_t generation = 0;
    std::optional<Error> error;
    std::function<void(Batch&)> finish;
    std::set<std::string> allows;  // the allow patterns of the list it applies
    std::vector<bool> loaded;      // by part: loaded from the store, not kept

    ~Batch() {
        for (WebKitUserContentFilter* filter : filters) {
            if (filter) webkit_user_content_filter_unref(filter);
        }
    }

    // Called on the main thread by each answer of the store.
    static void answered(Batch* batch, size_t index, WebKitUserContentFilter* filter,
                         GError* error) {
        if (filter) {
            if (batch->filters[index]) webkit_user_content_filter_unref(batch->filters[index]);
            batch->filters[index] = filter;
        } else if (!batch->error) {
            batch->error =
                error ? Error{g_quark_to_string(error->domain), error->code, error->message}
                      : ourError(WebKitContentBlockerManager::kStoreUnusable,
                                 "The content-filter store gave no rule list.");
        }
        if (error) g_error_free(error);
        if (--batch->pending == 0) {
            std::unique_ptr<Batch> owned(batch);
            owned->finish(*owned);
        }
    }
};

namespace {

// One store call's answer, for part `index` of a batch.
struct StoreCall {
    void* batch;
    size_t index;
};

}  // namespace

void ContentFilters::loadParts(Batch* batch) {
    batch->pending =
        static_cast<size_t>(std::count(batch->loaded.begin(), batch->loaded.end(), true));
    if (batch->pending == 0) {
        std::unique_ptr<Batch> owned(batch);
        owned->finish(*owned);
        return;
    }
    for (size_t index = 0; index < kRuleListParts; ++index) {
        if (!batch->loaded[index]) continue;
        webkit_user_content_filter_store_load(
            store(), partIdentifier(index).c_str(), nullptr,
            +[](GObject* store, GAsyncResult* result, gpointer data) {
                std::unique_ptr<StoreCall> call(static_cast<StoreCall*>(data));
                GError* error = nullptr;
                WebKitUserContentFilter* filter = webkit_user_content_filter_store_load_finish(
                    WEBKIT_USER_CONTENT_FILTER_STORE(store), result, &error);
                Batch::answered(static_cast<Batch*>(call->batch), call->index, filter, error);
            },
            new StoreCall{batch, index});
    }
}

ContentFilters::ContentFilters(std::string containerPath, std::string defaultsPath,
                               std::shared_ptr<platform::Log> log)
    : containerPath_(std::move(containerPath)),
      defaultsPath_(std::move(defaultsPath)),
      service_(std::make_shared<WebKitContentBlockerManager>(containerPath_, defaultsPath_,
                                                             std::move(log))),
      filters_(kRuleListParts, nullptr),
      keys_(kRuleListParts) {}

ContentFilters::~ContentFilters() {
    if (followSource_) g_source_remove(followSource_);
    for (GFileMonitor* monitor : monitors_) {
        g_file_monitor_cancel(monitor);
        g_signal_handlers_disconnect_by_data(monitor, this);
        g_object_unref(monitor);
    }
    for (WebKitUserContentFilter* filter : filters_) {
        if (filter) webkit_user_content_filter_unref(filter);
    }
    if (store_) g_object_unref(store_);
}

WebKitUserContentFilterStore* ContentFilters::store() {
    if (!store_) {
        store_ = webkit_user_content_filter_store_new(
            WebKitContentBlockerManager::storePathForContainer(containerPath_).c_str());
    }
    return store_;
}

bool ContentFilters::blockingOff() const {
    const auto active = WebKitContentBlockerManager::activeRuleList(containerPath_, defaultsPath_);
    return !active.error && !active.path;
}

void ContentFilters::addContentManager(WebKitUserContentManager* manager) {
    managers_.push_back(manager);
    for (WebKitUserContentFilter* filter : filters_) {
        if (filter) webkit_user_content_manager_add_filter(manager, filter);
    }
}

void ContentFilters::removeContentManager(WebKitUserContentManager* manager) {
    managers_.erase(std::remove(managers_.begin(), managers_.end(), manager), managers_.end());
    views_.erase(manager);
}

void ContentFilters::setFilters(std::vector<WebKitUserContentFilter*> filters) {
    filters.resize(kRuleListParts, nullptr);
    if (filters == filters_) {
        // The same filters (a reload that found nothing new): the views keep them.
        for (WebKitUserContentFilter* filter : filters) {
            if (filter) webkit_user_content_filter_unref(filter);
        }
        return;
    }
    for (WebKitUserContentFilter* filter : filters_) {
        if (filter) webkit_user_content_filter_unref(filter);
    }
    filters_ = std::move(filters);
    const bool filtering =
        std::any_of(filters_.begin(), filters_.end(), [](auto* filter) { return filter; });
    for (WebKitUserContentManager* manager : managers_) {
        webkit_user_content_manager_remove_all_filters(manager);
        for (WebKitUserContentFilter* filter : filters_) {
            if (filter) webkit_user_content_manager_add_filter(manager, filter);
        }
    }
    if (filterChanged_) filterChanged_(filtering);
}

std::optional<std::string> ContentFilters::storedRuleList() const {
    const auto active = WebKitContentBlockerManager::activeRuleList(containerPath_, defaultsPath_);
    if (!active.path) return std::nullopt;
    std::ifstream stream(*active.path, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    if (!stream) return std::nullopt;
    return std::move(text).str();
}

std::vector<std::string> ContentFilters::storedPartKeys(
    const std::optional<std::string>& list) const {
    // The reload service keeps each stored part as a link to its entry in
    // the cache, named by the content key of its source; a part that is
    // that link for the current rule list's part was made from it. Any
    // other part is compiled again by the first reload.
    std::vector<std::string> keys(kRuleListParts);
    const auto parts = list ? platform::splitRuleList(*list) : std::nullopt;
    if (!parts) return keys;
    const platform::gnulinux::CompiledRuleListCache cache(
        WebKitContentBlockerManager::storePathForContainer(containerPath_), nullptr, nullptr);
    for (size_t index = 0; index < kRuleListParts; ++index) {
        std::string key =
            platform::gnulinux::CompiledRuleListCache::contentKey((*parts)[index].json);
        if (cache.isCurrent(partIdentifier(index), key)) keys[index] = std::move(key);
    }
    return keys;
}

std::set<std::string> ContentFilters::allowedPagePatterns(std::string_view ruleList) {
    // The compiler writes an allowed website's rule in this one form; a
    // scan for it costs a fraction of parsing a list of 50,000 rules.
    static constexpr std::string_view kAllowRule =
        R"({"action":{"type":"ignore-previous-rules"},"trigger":{"url-filter":".*","if-top-url":)";
    std::set<std::string> patterns;
    for (size_t at = ruleList.find(kAllowRule); at != std::string_view::npos;
         at = ruleList.find(kAllowRule, at + 1)) {
        // The array of JSON strings that follows, up to its "]" (the
        // patterns hold brackets of their own).
        size_t end = at + kAllowRule.size();
        if (end >= ruleList.size() || ruleList[end] != '[') continue;
        bool inString = false;
        for (++end; end < ruleList.size(); ++end) {
            const char c = ruleList[end];
            if (inString && c == '\\') {
                ++end;
            } else if (c == '"') {
                inString = !inString;
            } else if (!inString && c == ']') {
                break;
            }
        }
        if (end >= ruleList.size()) break;
        const size_t start = at + kAllowRule.size();
        const nlohmann::json array = nlohmann::json::parse(ruleList.substr(start, end + 1 - start),
                                                           nullptr, /*allow_exceptions=*/false);
        if (!array.is_array()) continue;
        for (const auto& pattern : array) {
            if (pattern.is_string()) patterns.insert(pattern.get<std::string>());
        }
    }
    return patterns;
}

void ContentFilters::setView(WebKitUserContentManager* manager, WebKitWebView* view) {
    views_[manager] = view;
}

void ContentFilters::letAllowedPagesThrough(const std::set<std::string>& allows) {
    std::vector<std::regex> added;
    for (const std::string& pattern : allows) {
        if (appliedAllows_.contains(pattern)) continue;
        try {
            // WebKit matches if-top-url without regard to case.
            added.emplace_back(pattern, std::regex::ECMAScript | std::regex::icase |
                                            std::regex::nosubs | std::regex::optimize);
        } catch (const std::regex_error&) {
            // Not a pattern of ours: the compiled list alone decides.
        }
    }
    if (added.empty()) return;
    bool letThrough = false;
    for (WebKitUserContentManager* manager : managers_) {
        const auto view = views_.find(manager);
        const char* uri = view != views_.end() ? webkit_web_view_get_uri(view->second) : nullptr;
        if (!uri) continue;
        const bool allowed = std::any_of(added.begin(), added.end(), [uri](const std::regex& page) {
            return std::regex_search(uri, page);
        });
        if (!allowed) continue;
        webkit_user_content_manager_remove_all_filters(manager);
        letThrough = true;
    }
    if (letThrough && allowApplied_) allowApplied_();
}

void ContentFilters::applyStoredList(std::function<void(bool)> done) {
    if (blockingOff()) {
        setFilters({});
        if (done) done(true);
        return;
    }
    auto* batch = new Batch{shared_from_this(),
                            std::vector<WebKitUserContentFilter*>(kRuleListParts, nullptr),
                            std::vector<std::string>(kRuleListParts),
                            0,
                            0,
                            std::nullopt,
                            nullptr,
                            {},
                            std::vector<bool>(kRuleListParts, true)};
    batch->finish = [this, done](Batch& finished) {
        // A store without every part has not been compiled yet: nothing to apply.
        const bool found = !finished.error;
        if (found) {
            const auto list = storedRuleList();
            keys_ = storedPartKeys(list);
            if (list) appliedAllows_ = allowedPagePatterns(*list);
            setFilters(std::exchange(finished.filters, {}));
        }
        if (done) done(found);
    };
    loadParts(batch);
}

void ContentFilters::reloadContentBlockerWithIdentifier(const std::string& identifier,
                                                        CompletionHandler completionHandler) {
    const uint64_t generation = ++started_;
    // The observer and the completion run one after the other on the
    // service's thread.
    auto allows = std::make_shared<std::set<std::string>>();
    service_->reload(
        identifier,
        [self = shared_from_this(), generation, allows,
         handler = std::move(completionHandler)](ReloadReport report) mutable {
            platform::dispatch().mainQueue().async([self, generation, allows,
                                                    report = std::move(report),
                                                    handler = std::move(handler)]() mutable {
                self->apply(std::move(report), generation, std::move(*allows), std::move(handler));
            });
        },
        [self = weak_from_this(), allows](std::string_view ruleList) {
            *allows = allowedPagePatterns(ruleList);
            if (allows->empty()) return;
            platform::dispatch().mainQueue().async([self, patterns = *allows] {
                if (const auto filters = self.lock()) filters->letAllowedPagesThrough(patterns);
            });
        });
}

void ContentFilters::apply(ReloadReport report, uint64_t generation, std::set<std::string> allows,
                           CompletionHandler handler) {
    // A failed reload leaves the filters as they were.
    if (report.error) {
        if (handler) handler(std::move(report.error));
        return;
    }
    // Blocking off: the views get no filter at all, which is what the
    // service's allow-everything list would give them.
    if (report.blockingOff) {
        if (generation > applied_) {
            applied_ = generation;
            keys_.assign(kRuleListParts, std::string());
            appliedAllows_.clear();
            setFilters({});
        }
        if (handler) handler(std::nullopt);
        return;
    }
    // The parts whose source is what an applied filter was made from stay;
    // the others are loaded from the store.
    report.partKeys.resize(kRuleListParts);
    auto* batch = new Batch{shared_from_this(),
                            std::vector<WebKitUserContentFilter*>(kRuleListParts),
                            std::move(report.partKeys),
                            0,
                            generation,
                            std::nullopt,
                            nullptr,
                            std::move(allows),
                            {}};
    batch->loaded.assign(kRuleListParts, true);
    for (size_t index = 0; index < kRuleListParts; ++index) {
        if (filters_[index] && !batch->keys[index].empty() && batch->keys[index] == keys_[index]) {
            batch->filters[index] = webkit_user_content_filter_ref(filters_[index]);
            batch->loaded[index] = false;
        }
    }
    batch->finish = [handler = std::move(handler)](Batch& finished) {
        ContentFilters& filters = *finished.self;
        // Another program may have installed a newer list meanwhile: a
        // loaded part is known by its key only while the store's current
        // part is still that key's entry.
        const platform::gnulinux::CompiledRuleListCache cache(filters.service_->storePath(),
                                                              nullptr, nullptr);
        for (size_t index = 0; index < kRuleListParts; ++index) {
            if (finished.loaded[index] &&
                !cache.isCurrent(partIdentifier(index), finished.keys[index])) {
                finished.keys[index].clear();
            }
        }
        // A part that could not be loaded leaves the whole set as it was; a
        // reload started before the one applied last is out of date.
        if (!finished.error && finished.generation > filters.applied_) {
            filters.applied_ = finished.generation;
            filters.keys_ = std::move(finished.keys);
            filters.appliedAllows_ = std::move(finished.allows);
            filters.setFilters(std::exchange(finished.filters, {}));
        }
        if (handler) handler(finished.error);
    };
    loadParts(batch);
}

void ContentFilters::followChanges() {
    if (!monitors_.empty()) return;
    const auto watch = [this](const std::string& folder) {
        GFile* file = g_file_new_for_path(folder.c_str());
        GFileMonitor* monitor =
            g_file_monitor_directory(file, G_FILE_MONITOR_WATCH_MOVES, nullptr, nullptr);
        g_object_unref(file);
        if (!monitor) return;
        g_signal_connect(
            monitor, "changed",
            G_CALLBACK(+[](GFileMonitor*, GFile* file, GFile* other, GFileMonitorEvent,
                           ContentFilters* self) {
                // The rule files and the defaults are replaced by a rename:
                // the new name is the one that counts.
                char* name = g_file_get_basename(other ? other : file);
                const std::string changed = name ? name : "";
                g_free(name);
                const bool ruleFile = changed.ends_with("_unarchive.json");
                const bool defaults = changed == fs::path(self->defaultsPath_).filename().string();
                if (!ruleFile && !defaults) return;
                // One reload for a burst of changes (a write is several events).
                if (self->followSource_) g_source_remove(self->followSource_);
                self->followSource_ = g_timeout_add_once(
                    150,
                    +[](gpointer data) {
                        auto* self = static_cast<ContentFilters*>(data);
                        self->followSource_ = 0;
                        self->reloadContentBlockerWithIdentifier(
                            WebKitContentBlockerManager::kContentBlockerIdentifier, {});
                    },
                    self);
            }),
            this);
        monitors_.push_back(monitor);
    };
    watch((fs::path(containerPath_) / ContainerLayout::kProfilesFolder).string());
    if (!defaultsPath_.empty()) watch(fs::path(defaultsPath_).parent_path().string());
}

}  // namespace stonewall::browser
