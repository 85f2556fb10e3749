#include "InputFile.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <new>
#include <sstream>

#include "Failure.h"

namespace stonewall::tool {
namespace {

constexpr size_t kElementFieldCount = 9;

std::string typeName(const nlohmann::json& value) {
    const std::string name = value.type_name();
    // "an object", "an array", "a string", "a number", "a boolean", "null"
    if (name == "null") return name;
    const bool vowel = name.find_first_of("aeiou") == 0;
    return std::string(vowel ? "an " : "a ") + name;
}

// nlohmann prefixes its messages with "[json.exception.parse_error.101] ";
// people need only the position and the reason.
std::string parserMessage(const nlohmann::json::exception& error) {
    std::string message = error.what();
    if (!message.empty() && message.front() == '[') {
        const auto end = message.find("] ");
        if (end != std::string::npos) message.erase(0, end + 2);
    }
    return message;
}

// Rule lists and element messages nest four or five levels deep. Deeper
// input is refused while it is parsed: writing or freeing a value nested a
// hundred thousand levels recurses once per level and overflows the stack.
constexpr int kMaximumNesting = 100;

nlohmann::json parseBounded(std::string_view text, const std::string& name) {
    try {
        return nlohmann::json::parse(
            text, [&](int depth, nlohmann::json::parse_event_t, nlohmann::json&) {
                if (depth > kMaximumNesting) {
                    throw CommandFailure(
                        ExitCode::BadInput, name,
                        "nested deeper than " + std::to_string(kMaximumNesting) + " levels");
                }
                return true;
            });
    } catch (const nlohmann::json::exception& error) {
        throw CommandFailure(ExitCode::BadInput, name, "not JSON: " + parserMessage(error));
    } catch (const std::bad_alloc&) {
        throw CommandFailure(ExitCode::BadInput, name, "too large to read (out of memory)");
    }
}

}  // namespace

std::string inputName(const std::string& path) { return path == "-" ? "standard input" : path; }

std::string readInputFile(const std::string& path) {
    if (path == "-") {
        std::ostringstream contents;
        contents << std::cin.rdbuf();
        if (std::cin.bad()) {
            throw CommandFailure(ExitCode::BadInput, inputName(path), "cannot be read");
        }
        return contents.str();
    }
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) {
        throw CommandFailure(ExitCode::BadInput, path, "cannot be read: it is a directory");
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw CommandFailure(ExitCode::BadInput, path,
                             std::string("cannot be read: ") + std::strerror(errno));
    }
    std::string contents((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (file.bad()) {
        throw CommandFailure(ExitCode::BadInput, path,
                             std::string("cannot be read: ") + std::strerror(errno ? errno : EIO));
    }
    return contents;
}

nlohmann::json parseJSONArray(std::string_view text, const std::string& name) {
    nlohmann::json value = parseBounded(text, name);
    if (!value.is_array()) {
        throw CommandFailure(ExitCode::BadInput, name,
                             "not a JSON array (it is " + typeName(value) + ")");
    }
    return value;
}

std::vector<DataElement> elementsFromMessageData(std::string_view text, const std::string& name) {
    nlohmann::json value = parseBounded(text, name);
    if (value.is_object()) {
        const auto data = value.find("data");
        if (data == value.end()) {
            throw CommandFailure(ExitCode::BadInput, name,
                                 "an object without \"data\" (expected the element arrays of a "
                                 "\"VisualData\" message)");
        }
        value = *data;
    }
    if (!value.is_array()) {
        throw CommandFailure(ExitCode::BadInput, name,
                             "not a JSON array of elements (it is " + typeName(value) + ")");
    }
    if (value.empty()) throw CommandFailure(ExitCode::BadInput, name, "holds no elements");

    std::vector<std::vector<std::string>> fields;
    fields.reserve(value.size());
    for (size_t index = 0; index < value.size(); ++index) {
        const auto& entry = value[index];
        const std::string where = "element " + std::to_string(index);
        if (!entry.is_array()) {
            throw CommandFailure(
                ExitCode::BadInput, name,
                where + ": expected an array of 9 strings, found " + typeName(entry));
        }
        if (entry.size() != kElementFieldCount) {
            throw CommandFailure(
                ExitCode::BadInput, name,
                where + ": expected 9 strings, found " + std::to_string(entry.size()));
        }
        std::vector<std::string> strings;
        strings.reserve(kElementFieldCount);
        for (size_t field = 0; field < entry.size(); ++field) {
            if (!entry[field].is_string()) {
                throw CommandFailure(ExitCode::BadInput, name,
                                     where + ", field " + std::to_string(field) +
                                         ": expected a string, found " + typeName(entry[field]));
            }
            strings.push_back(entry[field].get<std::string>());
        }
        fields.push_back(std::move(strings));
    }

    std::vector<DataElement> elements;
    elements.reserve(fields.size());
    for (const auto& element : fields) elements.push_back(DataElement::initWithElement(element));
    return elements;
}

}  // namespace stonewall::tool
