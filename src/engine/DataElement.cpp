#include "engine/DataElement.h"

#include <nlohmann/json.hpp>

#include "engine/PageProtocol.h"

namespace stonewall {

namespace {
using page_protocol::kElementFieldCount;
}

DataElement DataElement::initWithElement(const std::vector<NullableString>& element) {
    DataElement result;
    if (element.size() != kElementFieldCount) return result;
    result.location = element[0];
    result.tag = element[1];
    result.selector = element[2];
    result.source = element[3];
    result.currentSource = element[4];
    auto parent = std::make_shared<DataElement>();
    parent->tag = element[5];
    parent->selector = element[6];
    parent->source = element[7];
    parent->currentSource = element[8];
    result.parentElement = std::move(parent);
    return result;
}

DataElement DataElement::initWithElement(const std::vector<std::string>& element) {
    return initWithElement(std::vector<NullableString>(element.begin(), element.end()));
}

std::optional<std::vector<DataElement>> DataElement::elementsFromMessageData(
    const nlohmann::json& data) {
    if (!page_protocol::isElementList(data)) return std::nullopt;
    std::vector<DataElement> elements;
    elements.reserve(data.size());
    for (const auto& entry : data) {
        if (!page_protocol::isElementEntry(entry)) {
            elements.emplace_back();
            continue;
        }
        std::vector<NullableString> fields;
        fields.reserve(kElementFieldCount);
        for (const auto& field : entry) {
            if (field.is_string()) {
                fields.emplace_back(field.get<std::string>());
            } else {
                fields.emplace_back(std::nullopt);
            }
        }
        elements.push_back(initWithElement(fields));
    }
    return elements;
}

std::optional<std::vector<DataElement>> DataElement::elementsFromMessageData(
    std::string_view jsonText) {
    // Page scripts are outside input: bad JSON, invalid UTF-8 and absurd
    // nesting end here as "no elements", never as an exception.
    nlohmann::json data = nlohmann::json::parse(jsonText, nullptr, /*allow_exceptions=*/false);
    if (data.is_discarded()) return std::nullopt;
    return elementsFromMessageData(data);
}

std::string DataElement::description() const {
    std::string text;
    text.append("location: ").append(textOrNull(location));
    text.append(", tag: ").append(textOrNull(tag));
    text.append(", selector: ").append(textOrNull(selector));
    text.append(", source: ").append(textOrNull(source));
    text.append(", currentSource: ").append(textOrNull(currentSource));
    return text;
}

}  // namespace stonewall
