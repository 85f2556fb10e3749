#include "front/BrowserPage.h"

#include "front/BrowserServices.h"
#include "front/GtkViews.h"
#include "page/BrowserProtocol.h"
#include "page/PageMessage.h"
#include "platform/Platform.h"

namespace stonewall::browser {

BrowserPage::BrowserPage(WebKitWebView* view, std::function<bool(const BrowserPage&)> isActive)
    : view_(WEBKIT_WEB_VIEW(g_object_ref(view))), isActive_(std::move(isActive)) {}

BrowserPage::~BrowserPage() { detach(); }

void BrowserPage::detach() {
    if (view_) g_object_unref(view_);
    view_ = nullptr;
}

std::optional<std::string> BrowserPage::url() const {
    if (!view_) return std::nullopt;
    const char* uri = webkit_web_view_get_uri(view_);
    if (!uri || !*uri) return std::nullopt;
    return std::string(uri);
}

bool BrowserPage::isActive() const { return view_ && isActive_ && isActive_(*this); }

void BrowserPage::getPagePropertiesWithCompletionHandler(PropertiesHandler completionHandler) {
    if (!completionHandler) return;
    answerSoon([self = shared_from_this(), handler = std::move(completionHandler)] {
        if (!self->view_) {
            handler(std::nullopt);
            return;
        }
        handler(SFSafariPageProperties{self->url(), self->isActive()});
    });
}

void BrowserPage::getContainingTabWithCompletionHandler(TabHandler completionHandler) {
    if (!completionHandler) return;
    answerSoon([self = shared_from_this(), handler = std::move(completionHandler)] {
        handler(self->view_ ? std::make_shared<BrowserTabHandle>(self) : nullptr);
    });
}

void BrowserPage::reload() {
    onMainThread([self = shared_from_this()] {
        if (!self->view_) return;
        webkit_web_view_reload(self->view_);
        if (self->onReload_) self->onReload_();
    });
}

void BrowserPage::dispatchMessageToScriptWithName(const std::string& name,
                                                  const nlohmann::json& userInfo) {
    onMainThread([self = shared_from_this(), call = pageScriptCall(name, userInfo)] {
        if (!self->view_) return;
        webkit_web_view_evaluate_javascript(self->view_, call.c_str(),
                                            static_cast<gssize>(call.size()), kScriptWorldName,
                                            nullptr, nullptr, nullptr, nullptr);
    });
}

}  // namespace stonewall::browser
