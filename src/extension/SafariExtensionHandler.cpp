#include "extension/SafariExtensionHandler.h"

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

#include "engine/PageProtocol.h"
#include "extension/platform/FrontServices.h"
#include "platform/Platform.h"
#include "utilities/PunycodeAdditions.h"

namespace stonewall {

namespace {

using Json = nlohmann::json;

std::optional<std::string> badgeText(int64_t count) {
    if (count == 0) return std::nullopt;
    return std::to_string(count);
}

// The leading integer of a text, read leniently as integerValue reads it:
// white space, an optional sign, digits; saturating; 0 when there are none.
int64_t leadingInteger(const std::string& text) {
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' ||
                               text[i] == '\r' || text[i] == '\f' || text[i] == '\v')) {
        ++i;
    }
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    constexpr uint64_t kLimit = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    uint64_t value = 0;
    bool overflow = false;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        if (value > (kLimit + 1 - static_cast<uint64_t>(text[i] - '0')) / 10) overflow = true;
        if (!overflow) value = value * 10 + static_cast<uint64_t>(text[i] - '0');
    }
    if (negative) {
        if (overflow || value > kLimit) return std::numeric_limits<int64_t>::min();
        return -static_cast<int64_t>(value);
    }
    if (overflow || value > kLimit) return std::numeric_limits<int64_t>::max();
    return static_cast<int64_t>(value);
}

int64_t integerValue(const Json& value) {
    switch (value.type()) {
        case Json::value_t::number_integer:
            return value.get<int64_t>();
        case Json::value_t::number_unsigned:
            // A large unsigned number wraps, as a 64-bit conversion does.
            return static_cast<int64_t>(value.get<uint64_t>());
        case Json::value_t::number_float: {
            const double number = value.get<double>();
            if (std::isnan(number)) return 0;
            // Out-of-range doubles would be undefined to convert; saturate.
            if (number >= 9.2233720368547758e18) return std::numeric_limits<int64_t>::max();
            if (number <= -9.2233720368547758e18) return std::numeric_limits<int64_t>::min();
            return static_cast<int64_t>(number);
        }
        case Json::value_t::boolean:
            return value.get<bool>() ? 1 : 0;
        case Json::value_t::string:
            return leadingInteger(value.get_ref<const std::string&>());
        default:
            return 0;
    }
}

// Every message is logged, known or not.
void logMessage(const std::string& messageName, const NullableString& url, const Json& userInfo) {
    const std::string info = userInfo.is_null()
                                 ? std::string(kNullText)
                                 : userInfo.dump(-1, ' ', false, Json::error_handler_t::replace);
    platform::log(platform::LogLevel::Info, "The extension received a message (" + messageName +
                                                ") from a script injected into (" +
                                                textOrNull(url) + ") with userInfo (" + info + ")");
}

}  // namespace

SafariExtensionViewController& SafariExtensionHandler::useSharedController() {
    safariExtensionViewController_ = &SafariExtensionViewController::sharedInstance();
    return *safariExtensionViewController_;
}

int8_t SafariExtensionHandler::visualStatusFromUserInfo(const Json& userInfo) {
    if (!userInfo.is_object()) return 0;
    const auto status = userInfo.find(page_protocol::kStatusKey);
    if (status == userInfo.end()) return 0;
    // The page's flag is a boolean carried in a number; only its low byte
    // counts, so 257 reads as 1.
    return static_cast<int8_t>(
        static_cast<uint8_t>(static_cast<uint64_t>(integerValue(*status)) & 0xFF));
}

std::vector<DataElement> SafariExtensionHandler::visualElementsFromUserInfo(
    const Json& userInfo, const NullableString& host) {
    if (!userInfo.is_object()) return {};
    const auto data = userInfo.find(page_protocol::kDataKey);
    if (data == userInfo.end()) return {};
    auto elements = DataElement::elementsFromMessageData(*data);
    if (!elements) return {};
    // The page's own location is never trusted: a script could claim any
    // site and make rules for it.
    for (DataElement& element : *elements) element.location = host;
    return std::move(*elements);
}

void SafariExtensionHandler::messageReceivedWithName(const std::string& messageName,
                                                     const std::shared_ptr<SFSafariPage>& page,
                                                     const Json& userInfo) {
    if (!page) return;
    // Weak: the page holds this completion until it answers.
    std::weak_ptr<SFSafariPage> weakPage = page;
    page->getPagePropertiesWithCompletionHandler(
        [messageName, weakPage, userInfo](std::optional<SFSafariPageProperties> properties) {
            if (!properties) {
                logMessage(messageName, std::nullopt, userInfo);
                return;
            }
            // This handler may be gone by now; the browser makes them at will.
            SafariExtensionHandler().messageReceivedWithName(
                messageName, PageEvent{weakPage.lock(), *properties, nullptr}, userInfo);
        });
}

void SafariExtensionHandler::messageReceivedWithName(const std::string& messageName,
                                                     const PageEvent& event, const Json& userInfo) {
    const NullableString& url = event.properties.url;
    logMessage(messageName, url, userInfo);
    SafariExtensionViewController& controller = useSharedController();

    if (messageName == page_protocol::kVisualStatus) {
        const int8_t status = visualStatusFromUserInfo(userInfo);
        platform::dispatch().mainQueue().async(
            [&controller, status] { controller.popoverWillShowInWindow(status); });
        return;
    }
    if (messageName != page_protocol::kVisualData) return;

    const NullableString host = url ? PunycodeAdditions::hostFromURL(*url) : std::nullopt;
    std::vector<DataElement> elements = visualElementsFromUserInfo(userInfo, host);
    if (elements.empty()) return;
    controller.changeToolbarImage(ToolbarImage::Reloading);
    // A fresh engine for this message, on a worker: the popover's own may be
    // busy on the main thread, and storing waits for as long as another
    // program holds the profile's database.
    platform::dispatch()
        .globalQueue(platform::QueuePriority::High)
        .async([&controller, elements = std::move(elements)] {
            const auto turn = SafariExtensionViewController::takeContainerTurn();
            auto engine = std::make_shared<CompanionController>();
            const auto& database = engine->activeDatabase();
            if (!database ||
                !database->waitForWriteAccess(SafariExtensionViewController::storageWaitLimit())) {
                platform::dispatch().mainQueue().async(
                    [&controller] { controller.websiteChoiceNotStored(); });
                return;
            }
            engine->createVisualCustomRules(elements, [engine, &controller](std::optional<Error>) {
                const auto& data = engine->sharedData();
                CompanionController::reloadBlockerRules(
                    data ? data->activeProfileID : std::nullopt, engine->activeDatabase(),
                    [&controller](std::optional<Error> error) {
                        controller.completeReload(error, InternalURL::kVisual);
                    });
            });
        });
}

void SafariExtensionHandler::validateToolbarItemInWindow(const std::shared_ptr<SFSafariWindow>&,
                                                         ValidationHandler validationHandler) {
    SafariExtensionViewController& controller = useSharedController();
    CompanionController& engine = controller.companionController();
    ExtensionState* state = controller.extensionState();

    engine.setSharedData(engine.sharedDatabase().getSharedData());
    if (!engine.sharedData()) {
        engine.sharedDatabase().reconnectDatabase();
        engine.syncShared();
    }

    if (engine.sharedData() && engine.sharedData()->reload == 1) {
        SharedData record = *engine.sharedData();
        record.reload = 0;
        engine.setSharedData(record);
        engine.sharedDatabase().updateSharedDataDetails(record);
        if (record.status != 1) {
            // While blocking is off, one reload per off period is enough.
            if (!state || !state->statusUpdated()) {
                if (state) {
                    state->setStatusUpdated(true);
                    state->saveData();
                }
                reloadPage();
            }
        } else {
            reloadPage();
        }
    }

    const bool on = engine.sharedData() && engine.sharedData()->status == 1;
    controller.changeToolbarImage(on ? ToolbarImage::Normal : ToolbarImage::Off);

    if (ExtensionState::isSafariVersionAvailable(kServicesLevel13)) {
        const bool counter = state && state->blockingCounter();
        controller.blockingStatController().cleanupPages(counter);
        if (counter) {
            platform::safariApplication().getActiveWindowWithCompletionHandler(
                [&controller, validationHandler](const std::shared_ptr<SFSafariWindow>& active) {
                    if (!active) return;
                    active->getActiveTabWithCompletionHandler(
                        [&controller, validationHandler](const std::shared_ptr<SFSafariTab>& tab) {
                            if (!tab) return;
                            tab->getActivePageWithCompletionHandler(
                                [&controller,
                                 validationHandler](const std::shared_ptr<SFSafariPage>& page) {
                                    if (!page) return;
                                    const int64_t count =
                                        controller.blockingStatController().URLsCountForPage(page);
                                    if (validationHandler)
                                        validationHandler(true, badgeText(count));
                                });
                        });
                });
            return;
        }
    }
    if (validationHandler) validationHandler(true, std::nullopt);
}

void SafariExtensionHandler::popoverWillShowInWindow(const std::shared_ptr<SFSafariWindow>&) {
    SafariExtensionViewController& controller = useSharedController();
    controller.popoverWillShowInWindow(0);
    // The page script answers whether picking is still on there.
    controller.getActivePage([](const std::shared_ptr<SFSafariPage>& page) {
        page->dispatchMessageToScriptWithName(page_protocol::kVisualStatus, nullptr);
    });
}

void SafariExtensionHandler::popoverDidCloseInWindow(const std::shared_ptr<SFSafariWindow>&) {
    useSharedController().popoverWillCloseInWindow();
}

SafariExtensionViewController& SafariExtensionHandler::popoverViewController() {
    return useSharedController();
}

void SafariExtensionHandler::contentBlockerWithIdentifier(
    const std::string&, const std::vector<std::string>& urls,
    const std::shared_ptr<SFSafariPage>& page) {
    useSharedController().blockingStatController().addURLsForPage(urls, page);
    updateBlockingCounter();
}

void SafariExtensionHandler::contentBlockerWithIdentifier(const std::string&,
                                                          const std::vector<std::string>& urls,
                                                          const PageEvent& onPage) {
    if (!onPage.page) return;
    useSharedController().blockingStatController().addURLsForPage(urls, onPage.page);
    updateBlockingCounter(onPage);
}

void SafariExtensionHandler::page(const std::shared_ptr<SFSafariPage>& page,
                                  const NullableString& willNavigateToURL) {
    if (!page) return;
    const bool hasNewURL = willNavigateToURL.has_value();
    // Weak: the page holds this completion until it answers.
    std::weak_ptr<SFSafariPage> weakPage = page;
    page->getPagePropertiesWithCompletionHandler(
        [weakPage, hasNewURL](std::optional<SFSafariPageProperties> properties) {
            if (!properties || !properties->url || !hasNewURL) return;
            auto navigated = weakPage.lock();
            if (!navigated) return;
            SafariExtensionHandler handler;
            handler.useSharedController().blockingStatController().removeURLsForPage(navigated);
        });
}

void SafariExtensionHandler::page(const PageEvent& page, const NullableString& willNavigateToURL) {
    if (!page.page || !page.properties.url || !willNavigateToURL) return;
    useSharedController().blockingStatController().removeURLsForPage(page.page);
}

void SafariExtensionHandler::reloadPage() { useSharedController().reloadPage(); }

void SafariExtensionHandler::updateBlockingCounter() {
    SafariExtensionViewController& controller = useSharedController();
    ExtensionState* state = controller.extensionState();
    if (!state || !state->blockingCounter()) return;
    platform::safariApplication().getActiveWindowWithCompletionHandler(
        [](const std::shared_ptr<SFSafariWindow>& window) {
            if (!window) return;
            window->getActiveTabWithCompletionHandler([window](
                                                          const std::shared_ptr<SFSafariTab>& tab) {
                if (!tab) return;
                tab->getActivePageWithCompletionHandler(
                    [window](const std::shared_ptr<SFSafariPage>& page) {
                        if (!page) return;
                        window->getToolbarItemWithCompletionHandler(
                            [page](const std::shared_ptr<SFSafariToolbarItem>& item) {
                                if (!item) return;
                                page->getPagePropertiesWithCompletionHandler(
                                    [page, item](std::optional<SFSafariPageProperties> properties) {
                                        if (!properties) return;
                                        SafariExtensionHandler().updateBlockingCounter(
                                            PageEvent{page, *properties, item});
                                    });
                            });
                    });
            });
        });
}

void SafariExtensionHandler::updateBlockingCounter(const PageEvent& event) {
    SafariExtensionViewController& controller = useSharedController();
    ExtensionState* state = controller.extensionState();
    if (!state || !state->blockingCounter()) return;
    if (!event.page || !event.toolbarItem || !event.properties.url || !event.properties.isActive)
        return;
    platform::dispatch().mainQueue().async([&controller, page = event.page,
                                            item = event.toolbarItem] {
        item->setBadgeText(badgeText(controller.blockingStatController().URLsCountForPage(page)));
    });
}

}  // namespace stonewall
