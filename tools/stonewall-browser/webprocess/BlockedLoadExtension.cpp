// Loaded into every web process of the browser. WebKit reports a load that
// its content blocker stopped only as a console message of the page; this
// extension picks those out and forwards the blocked URL to the UI process,
// which counts it for the toolbar badge.

#include <webkit/webkit-web-process-extension.h>

#include "page/BlockedLoad.h"
#include "page/BrowserProtocol.h"

namespace {

using stonewall::browser::ConsoleLevel;
using stonewall::browser::ConsoleSource;

ConsoleSource sourceOf(WebKitConsoleMessageSource source) {
    switch (source) {
        case WEBKIT_CONSOLE_MESSAGE_SOURCE_JAVASCRIPT:
            return ConsoleSource::JavaScript;
        case WEBKIT_CONSOLE_MESSAGE_SOURCE_NETWORK:
            return ConsoleSource::Network;
        case WEBKIT_CONSOLE_MESSAGE_SOURCE_CONSOLE_API:
            return ConsoleSource::ConsoleAPI;
        case WEBKIT_CONSOLE_MESSAGE_SOURCE_SECURITY:
            return ConsoleSource::Security;
        case WEBKIT_CONSOLE_MESSAGE_SOURCE_OTHER:
            return ConsoleSource::Other;
    }
    return ConsoleSource::JavaScript;
}

ConsoleLevel levelOf(WebKitConsoleMessageLevel level) {
    switch (level) {
        case WEBKIT_CONSOLE_MESSAGE_LEVEL_INFO:
            return ConsoleLevel::Info;
        case WEBKIT_CONSOLE_MESSAGE_LEVEL_LOG:
            return ConsoleLevel::Log;
        case WEBKIT_CONSOLE_MESSAGE_LEVEL_WARNING:
            return ConsoleLevel::Warning;
        case WEBKIT_CONSOLE_MESSAGE_LEVEL_ERROR:
            return ConsoleLevel::Error;
        case WEBKIT_CONSOLE_MESSAGE_LEVEL_DEBUG:
            return ConsoleLevel::Debug;
    }
    return ConsoleLevel::Log;
}

void consoleMessageSent(WebKitWebPage* page, WebKitConsoleMessage* message, gpointer) {
    const char* text = webkit_console_message_get_text(message);
    if (!text) return;
    auto url = stonewall::browser::blockedURLFromConsoleMessage(
        sourceOf(webkit_console_message_get_source(message)),
        levelOf(webkit_console_message_get_level(message)), text);
    if (!url) return;
    WebKitUserMessage* report = webkit_user_message_new(stonewall::browser::kBlockedLoadMessage,
                                                        g_variant_new_string(url->c_str()));
    // No reply is wanted; the UI process answers none.
    webkit_web_page_send_message_to_view(page, report, nullptr, nullptr, nullptr);
}

void pageCreated(WebKitWebProcessExtension*, WebKitWebPage* page, gpointer) {
    g_signal_connect(page, "console-message-sent", G_CALLBACK(consoleMessageSent), nullptr);
}

}  // namespace

extern "C" G_MODULE_EXPORT void webkit_web_process_extension_initialize(
    WebKitWebProcessExtension* extension) {
    g_signal_connect(extension, "page-created", G_CALLBACK(pageCreated), nullptr);
}
