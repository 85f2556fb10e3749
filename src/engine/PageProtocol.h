#pragma once

// The messages between the extension and its page script, shared by the
// browser's check of what a page sends (tools/stonewall-browser), the
// extension's handler and the engine's reading of picked elements.
// Header-only and free of everything but JSON, so the browser's GTK-free
// core uses it without linking the engine.
//
// One rule for picked elements: each entry of a "VisualData" message's
// "data" array is judged on its own. An array of exactly
// kElementFieldCount members is an element (a member that is not a string
// reads as absent); any other entry is an empty element. No entry makes
// the whole message void, so one bad entry never costs the user the other
// elements of the same pick.

#include <cstddef>
#include <nlohmann/json.hpp>

namespace stonewall::page_protocol {

// Page script to extension: {"status": number}; the picker is active when 1.
inline constexpr const char* kVisualStatus = "VisualStatus";
inline constexpr const char* kStatusKey = "status";
// Page script to extension: {"data": [element, ...]}, the picked elements.
inline constexpr const char* kVisualData = "VisualData";
inline constexpr const char* kDataKey = "data";

// Extension to page script.
inline constexpr const char* kBlockVisually = "BlockVisually";
inline constexpr const char* kVisualCancel = "VisualCancel";
inline constexpr const char* kVisualDone = "VisualDone";

// The positions of one element: location, tag, selector, source,
// currentSource, then the parent's tag, selector, source, currentSource.
inline constexpr size_t kElementFieldCount = 9;

// Whether a "data" entry is read as an element by position; any other entry
// is an empty element.
inline bool isElementEntry(const nlohmann::json& entry) {
    return entry.is_array() && entry.size() == kElementFieldCount;
}

// Whether a "data" value carries elements at all: an array, whatever its
// entries are.
inline bool isElementList(const nlohmann::json& data) { return data.is_array(); }

}  // namespace stonewall::page_protocol
