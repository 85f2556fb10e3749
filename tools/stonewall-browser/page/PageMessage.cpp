#include "page/PageMessage.h"

#include "engine/PageProtocol.h"

namespace stonewall::browser {

namespace {

bool hasExpectedShape(const std::string& name, const nlohmann::json& userInfo) {
    if (name == page_protocol::kVisualStatus) {
        const auto status = userInfo.find(page_protocol::kStatusKey);
        return status != userInfo.end() && status->is_number();
    }
    if (name == page_protocol::kVisualData) {
        // Entries are not judged here: the engine reads each one by the
        // protocol's element rule, so one bad entry costs only itself.
        const auto data = userInfo.find(page_protocol::kDataKey);
        return data != userInfo.end() && page_protocol::isElementList(*data) &&
               data->size() <= kMaximumPickedElements;
    }
    return true;
}

}  // namespace

std::optional<PageMessage> checkPageMessage(std::string_view jsonText) {
    if (jsonText.size() > kMaximumMessageBytes) return std::nullopt;
    // Deep nesting is refused by depth before the parser recurses into it.
    size_t depth = 0;
    bool inString = false;
    bool escaped = false;
    for (char c : jsonText) {
        if (inString) {
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > 8) return std::nullopt;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    nlohmann::json message = nlohmann::json::parse(jsonText, nullptr, /*allow_exceptions=*/false);
    if (!message.is_object()) return std::nullopt;
    const auto name = message.find("name");
    if (name == message.end() || !name->is_string()) return std::nullopt;
    PageMessage result{name->get<std::string>(), nlohmann::json::object()};
    if (result.name.empty() || result.name.size() > kMaximumNameBytes) return std::nullopt;
    if (const auto userInfo = message.find("userInfo"); userInfo != message.end()) {
        if (userInfo->is_object()) {
            result.userInfo = *userInfo;
        } else if (!userInfo->is_null()) {
            return std::nullopt;
        }
    }
    if (!hasExpectedShape(result.name, result.userInfo)) return std::nullopt;
    return result;
}

std::string pageScriptCall(std::string_view name, const nlohmann::json& userInfo) {
    // dump() with replacement never throws on the invalid UTF-8 a name could
    // carry, and its output is a valid JavaScript literal.
    const auto literal = [](const nlohmann::json& value) {
        return value.dump(-1, ' ', /*ensure_ascii=*/true, nlohmann::json::error_handler_t::replace);
    };
    return "window.__stonewallPicker && window.__stonewallPicker.receive(" +
           literal(std::string(name)) + ", " + literal(userInfo) + ");";
}

}  // namespace stonewall::browser
