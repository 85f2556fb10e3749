#pragma once

// One page element that the user picked, as the page script reports it in a
// "VisualData" message: an array of exactly nine strings
//   0 location, 1 tag, 2 selector, 3 source, 4 currentSource,
//   5 parent tag, 6 parent selector, 7 parent source, 8 parent currentSource.
// The location is the sending page's host; the front overwrites position 0
// with the host of the page that sent the message.

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "utilities/Nullable.h"

namespace stonewall {

struct DataElement {
    NullableString location;
    NullableString tag;
    NullableString selector;
    NullableString source;
    NullableString currentSource;
    // Only its tag, selector, source and currentSource are filled. Present
    // whenever the element was read from a nine-entry array.
    std::shared_ptr<DataElement> parentElement;
    // Declared for the page protocol; never filled.
    std::shared_ptr<DataElement> childElement;

    // Reads the nine positions; any other count gives an empty record.
    static DataElement initWithElement(const std::vector<NullableString>& element);
    static DataElement initWithElement(const std::vector<std::string>& element);

    // The elements of a message's "data" value: an array with one entry per
    // element. An entry that is not an array of nine gives an empty record
    // (and then a hide rule without selector, as the page sent it); a member
    // that is not a string reads as absent. Absent when the value is not an
    // array at all. Never throws.
    static std::optional<std::vector<DataElement>> elementsFromMessageData(
        const nlohmann::json& data);
    // The same from JSON text; absent also when the text is not JSON.
    static std::optional<std::vector<DataElement>> elementsFromMessageData(
        std::string_view jsonText);

    // "location: %@, tag: %@, selector: %@, source: %@, currentSource: %@"
    std::string description() const;
};

}  // namespace stonewall
