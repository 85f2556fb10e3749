#pragma once

// The command's texts for people, in their language: help, reports, notes,
// errors and progress lines go through the bundle's gettext catalogue, keyed
// by their English text. Placeholders are "{0}", "{1}", ... so that a
// translation can put the values in the order its language needs.
//
// Marking, as the translation template is made from these names:
//   tr("text")                     translated where it is called
//   N_("text")                     only marked; tr() or message() translates it later
//   NN_("singular", "plural")      a text with a count; trn() or message() picks the form
//
// What scripts read stays English whatever the locale: --json output, the
// subscriptions file. A Message carries both forms for texts that go to
// people and to scripts (the error of a command).

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace stonewall::tool {

constexpr const char* N_(const char* text) { return text; }

struct PluralText {
    const char* singular;
    const char* plural;
};
constexpr PluralText NN_(const char* singular, const char* plural) { return {singular, plural}; }

// The text in the user's language (the text itself without a translation).
[[nodiscard]] const char* tr(const char* text);
// The form for `count` in the user's language.
[[nodiscard]] const char* trn(PluralText text, int64_t count);

// The pattern with each "{N}" replaced by arguments[N]; other braces stay.
[[nodiscard]] std::string format(std::string_view pattern,
                                 std::initializer_list<std::string_view> arguments);

// A text in the user's language and in English. Made from a string it is
// data (a path, a host, a message of the engine) and reads the same in both.
struct Message {
    std::string english;
    std::string local;

    Message() = default;
    Message(std::string text) : english(text), local(std::move(text)) {}  // NOLINT: data
    Message(const char* text) : Message(std::string(text)) {}             // NOLINT: data
    Message(std::string englishText, std::string localText)
        : english(std::move(englishText)), local(std::move(localText)) {}
};

// The system's reason for an errno value: the C library's own translation
// for people, its English text for scripts.
[[nodiscard]] Message systemMessage(int error);

// A marked text (N_) formatted in both languages; each argument's English
// form goes into the English text and its local form into the local one.
[[nodiscard]] Message message(const char* text, std::initializer_list<Message> arguments = {});
// A marked text with a count (NN_).
[[nodiscard]] Message message(PluralText text, int64_t count,
                              std::initializer_list<Message> arguments = {});

}  // namespace stonewall::tool
