#include "ContentFilters.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/ContainerLayout.h"
#include "platform/Platform.h"
#include "platform/linux/FileUserDefaults.h"
#include "platform/linux/WebKitContentBlockerManager.h"

namespace stonewall::browser {

namespace fs = std::filesystem;
using platform::gnulinux::WebKitContentBlockerManager;

namespace {

Error ourError(int64_t code, std::string message) {
    return Error{WebKitContentBlockerManager::kErrorDomain, code, std::move(message)};
}

struct Request {
    std::shared_ptr<ContentFilters> self;
    std::function<void(WebKitUserContentFilter*, GError*)> finish;
};

}  // namespace

ContentFilters::ContentFilters(std::string containerPath, std::string defaultsPath)
    : containerPath_(std::move(containerPath)), defaultsPath_(std::move(defaultsPath)) {}

ContentFilters::~ContentFilters() {
    if (filter_) webkit_user_content_filter_unref(filter_);
    if (store_) g_object_unref(store_);
}

bool ContentFilters::blockingOff() const {
    platform::gnulinux::FileUserDefaults defaults(defaultsPath_);
    return defaults.integerForKey("blockingStatus") == 2;
}

void ContentFilters::addContentManager(WebKitUserContentManager* manager) {
    managers_.push_back(manager);
    if (filter_) webkit_user_content_manager_add_filter(manager, filter_);
}

void ContentFilters::removeContentManager(WebKitUserContentManager* manager) {
    managers_.erase(std::remove(managers_.begin(), managers_.end(), manager), managers_.end());
}

void ContentFilters::setFilter(WebKitUserContentFilter* filter) {
    if (filter_) webkit_user_content_filter_unref(filter_);
    filter_ = filter ? webkit_user_content_filter_ref(filter) : nullptr;
    for (WebKitUserContentManager* manager : managers_) {
        webkit_user_content_manager_remove_all_filters(manager);
        if (filter_) webkit_user_content_manager_add_filter(manager, filter_);
    }
    if (filterChanged_) filterChanged_(filter_ != nullptr);
}

void ContentFilters::applyStoredList(std::function<void(bool)> done) {
    if (!store_) {
        store_ = webkit_user_content_filter_store_new(
            WebKitContentBlockerManager::storePathForContainer(containerPath_).c_str());
    }
    if (blockingOff()) {
        setFilter(nullptr);
        if (done) done(true);
        return;
    }
    auto* request =
        new Request{shared_from_this(), [this, done](WebKitUserContentFilter* filter, GError*) {
                        // No stored list yet: nothing to apply.
                        setFilter(filter);
                        if (done) done(filter != nullptr);
                    }};
    webkit_user_content_filter_store_load(
        store_, WebKitContentBlockerManager::kContentBlockerIdentifier, nullptr,
        +[](GObject* store, GAsyncResult* result, gpointer data) {
            std::unique_ptr<Request> request(static_cast<Request*>(data));
            GError* error = nullptr;
            WebKitUserContentFilter* filter = webkit_user_content_filter_store_load_finish(
                WEBKIT_USER_CONTENT_FILTER_STORE(store), result, &error);
            request->finish(filter, error);
            if (filter) webkit_user_content_filter_unref(filter);
            if (error) g_error_free(error);
        },
        request);
}

void ContentFilters::reloadContentBlockerWithIdentifier(const std::string& identifier,
                                                        CompletionHandler completionHandler) {
    platform::dispatch().mainQueue().async([self = shared_from_this(), identifier,
                                            handler = std::move(completionHandler)]() mutable {
        const auto complete = [&handler](std::optional<Error> error) {
            if (handler) handler(std::move(error));
        };
        if (identifier != WebKitContentBlockerManager::kContentBlockerIdentifier) {
            complete(ourError(WebKitContentBlockerManager::kUnknownIdentifier,
                              "No content blocker has the identifier \"" + identifier + "\"."));
            return;
        }
        if (!self->store_) {
            self->store_ = webkit_user_content_filter_store_new(
                WebKitContentBlockerManager::storePathForContainer(self->containerPath_).c_str());
        }
        // Blocking off: the views get no filter at all, which is what the
        // empty list would give them, without compiling anything.
        if (self->blockingOff()) {
            self->setFilter(nullptr);
            complete(std::nullopt);
            return;
        }
        platform::gnulinux::FileUserDefaults defaults(self->defaultsPath_);
        const auto profile = defaults.stringForKey("activeProfileID");
        if (!profile || profile->empty() || !ContainerLayout::isSafeProfileIdentifier(*profile)) {
            complete(ourError(WebKitContentBlockerManager::kNoActiveProfile,
                              "No usable active profile is set in the shared defaults."));
            return;
        }
        const fs::path file = fs::path(self->containerPath_) / ".Profiles" /
                              ("profile_" + *profile + "_unarchive.json");
        std::ifstream stream(file, std::ios::binary);
        if (!stream) {
            complete(ourError(WebKitContentBlockerManager::kRuleListMissing,
                              "The rule list " + file.string() + " cannot be opened."));
            return;
        }
        std::ostringstream text;
        text << stream.rdbuf();
        const std::string json = std::move(text).str();
        GBytes* source = g_bytes_new(json.data(), json.size());
        auto* request = new Request{
            self,
            [self, handler = std::move(handler)](WebKitUserContentFilter* filter, GError* error) {
                if (filter) self->setFilter(filter);
                if (handler) {
                    handler(error ? std::optional<Error>(Error{g_quark_to_string(error->domain),
                                                               error->code, error->message})
                                  : std::nullopt);
                }
            }};
        webkit_user_content_filter_store_save(
            self->store_, WebKitContentBlockerManager::kContentBlockerIdentifier, source, nullptr,
            +[](GObject* store, GAsyncResult* result, gpointer data) {
                std::unique_ptr<Request> request(static_cast<Request*>(data));
                GError* error = nullptr;
                WebKitUserContentFilter* filter = webkit_user_content_filter_store_save_finish(
                    WEBKIT_USER_CONTENT_FILTER_STORE(store), result, &error);
                request->finish(filter, error);
                if (filter) webkit_user_content_filter_unref(filter);
                if (error) g_error_free(error);
            },
            request);
        g_bytes_unref(source);
    });
}

}  // namespace stonewall::browser
