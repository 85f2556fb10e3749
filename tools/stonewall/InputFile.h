#pragma once

// Reading the files the command is given: a content-blocker list to validate
// and the picked elements of a "VisualData" message. Bad input is refused
// as a whole with a CommandFailure (ExitCode::BadInput) that says where and
// why, before anything is stored.

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "Text.h"
#include "engine/DataElement.h"

namespace stonewall::tool {

// How messages name the file: the path, or "standard input" for "-".
Message inputName(const std::string& path);

// The whole file, or standard input for "-".
[[nodiscard]] std::string readInputFile(const std::string& path);

// The text as a JSON array; a parse error names the parser's position.
[[nodiscard]] nlohmann::json parseJSONArray(std::string_view text, const Message& name);

// The elements of a "VisualData" message's "data": an array holding one array
// of exactly nine strings per element (the message's whole user info, an
// object with that array under "data", is taken too). Every entry is checked
// before any is used; there must be at least one.
[[nodiscard]] std::vector<DataElement> elementsFromMessageData(std::string_view text,
                                                               const Message& name);

}  // namespace stonewall::tool
