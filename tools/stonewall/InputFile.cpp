#include "InputFile.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <new>
#include <sstream>

#include "Failure.h"
#include "Text.h"

namespace stonewall::tool {
namespace {

constexpr size_t kElementFieldCount = 9;

Message typeName(const nlohmann::json& value) {
    switch (value.type()) {
        case nlohmann::json::value_t::object:
            return message(N_("an object"));
        case nlohmann::json::value_t::array:
            return message(N_("an array"));
        case nlohmann::json::value_t::string:
            return message(N_("a string"));
        case nlohmann::json::value_t::boolean:
            return message(N_("a boolean"));
        case nlohmann::json::value_t::number_integer:
        case nlohmann::json::value_t::number_unsigned:
        case nlohmann::json::value_t::number_float:
            return message(N_("a number"));
        case nlohmann::json::value_t::binary:
            return message(N_("a binary"));
        case nlohmann::json::value_t::discarded:
            return message(N_("a discarded"));
        case nlohmann::json::value_t::null:
            break;
    }
    return message(N_("null"));
}

// nlohmann prefixes its messages with "[json.exception.parse_error.101] ";
// people need only the position and the reason (in English, as the parser
// words it).
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

nlohmann::json parseBounded(std::string_view text, const Message& name) {
    try {
        return nlohmann::json::parse(
            text, [&](int depth, nlohmann::json::parse_event_t, nlohmann::json&) {
                if (depth > kMaximumNesting) {
                    throw CommandFailure(ExitCode::BadInput, name,
                                         message(N_("nested deeper than {0} levels"),
                                                 {std::to_string(kMaximumNesting)}));
                }
                return true;
            });
    } catch (const nlohmann::json::exception& error) {
        throw CommandFailure(ExitCode::BadInput, name,
                             message(N_("not JSON: {0}"), {parserMessage(error)}));
    } catch (const std::bad_alloc&) {
        throw CommandFailure(ExitCode::BadInput, name,
                             message(N_("too large to read (out of memory)")));
    }
}

}  // namespace

Message inputName(const std::string& path) {
    return path == "-" ? message(N_("standard input")) : Message(path);
}

std::string readInputFile(const std::string& path) {
    if (path == "-") {
        std::ostringstream contents;
        contents << std::cin.rdbuf();
        if (std::cin.bad()) {
            throw CommandFailure(ExitCode::BadInput, inputName(path),
                                 message(N_("cannot be read")));
        }
        return contents.str();
    }
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) {
        throw CommandFailure(ExitCode::BadInput, path,
                             message(N_("cannot be read: it is a directory")));
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw CommandFailure(ExitCode::BadInput, path,
                             message(N_("cannot be read: {0}"), {systemMessage(errno)}));
    }
    std::string contents((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (file.bad()) {
        throw CommandFailure(
            ExitCode::BadInput, path,
            message(N_("cannot be read: {0}"), {systemMessage(errno ? errno : EIO)}));
    }
    return contents;
}

nlohmann::json parseJSONArray(std::string_view text, const Message& name) {
    nlohmann::json value = parseBounded(text, name);
    if (!value.is_array()) {
        throw CommandFailure(ExitCode::BadInput, name,
                             message(N_("not a JSON array (it is {0})"), {typeName(value)}));
    }
    return value;
}

std::vector<DataElement> elementsFromMessageData(std::string_view text, const Message& name) {
    nlohmann::json value = parseBounded(text, name);
    if (value.is_object()) {
        const auto data = value.find("data");
        if (data == value.end()) {
            throw CommandFailure(ExitCode::BadInput, name,
                                 message(N_("an object without \"data\" (expected the element "
                                            "arrays of a \"VisualData\" message)")));
        }
        value = *data;
    }
    if (!value.is_array()) {
        throw CommandFailure(
            ExitCode::BadInput, name,
            message(N_("not a JSON array of elements (it is {0})"), {typeName(value)}));
    }
    if (value.empty()) {
        throw CommandFailure(ExitCode::BadInput, name, message(N_("holds no elements")));
    }

    std::vector<std::vector<std::string>> fields;
    fields.reserve(value.size());
    for (size_t index = 0; index < value.size(); ++index) {
        const auto& entry = value[index];
        const std::string at = std::to_string(index);
        if (!entry.is_array()) {
            throw CommandFailure(
                ExitCode::BadInput, name,
                message(N_("element {0}: expected an array of 9 strings, found {1}"),
                        {at, typeName(entry)}));
        }
        if (entry.size() != kElementFieldCount) {
            throw CommandFailure(ExitCode::BadInput, name,
                                 message(N_("element {0}: expected 9 strings, found {1}"),
                                         {at, std::to_string(entry.size())}));
        }
        std::vector<std::string> strings;
        strings.reserve(kElementFieldCount);
        for (size_t field = 0; field < entry.size(); ++field) {
            if (!entry[field].is_string()) {
                throw CommandFailure(
                    ExitCode::BadInput, name,
                    message(N_("element {0}, field {1}: expected a string, found {2}"),
                            {at, std::to_string(field), typeName(entry[field])}));
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
