#include "Text.h"

#include <libintl.h>
#include <locale.h>

#include <cstring>
#include <vector>

#include "platform/linux/LinuxHost.h"

namespace stonewall::tool {
namespace {

constexpr const char* kDomain = platform::gnulinux::LinuxBundle::kTextDomain;

std::string formatAll(std::string_view pattern, const std::vector<std::string_view>& arguments) {
    std::string out;
    out.reserve(pattern.size());
    for (size_t at = 0; at < pattern.size();) {
        if (pattern[at] == '{') {
            size_t end = at + 1;
            size_t index = 0;
            while (end < pattern.size() && pattern[end] >= '0' && pattern[end] <= '9') {
                index = index * 10 + static_cast<size_t>(pattern[end] - '0');
                ++end;
            }
            if (end > at + 1 && end < pattern.size() && pattern[end] == '}' &&
                index < arguments.size()) {
                out += arguments[index];
                at = end + 1;
                continue;
            }
        }
        out.push_back(pattern[at]);
        ++at;
    }
    return out;
}

Message formatBoth(const char* english, const char* local,
                   std::initializer_list<Message> arguments) {
    std::vector<std::string_view> englishArguments, localArguments;
    for (const Message& argument : arguments) {
        englishArguments.push_back(argument.english);
        localArguments.push_back(argument.local);
    }
    return Message(formatAll(english, englishArguments), formatAll(local, localArguments));
}

}  // namespace

const char* tr(const char* text) { return text && *text ? ::dgettext(kDomain, text) : text; }

const char* trn(PluralText text, int64_t count) {
    // gettext takes an unsigned long; the form of a huge count is the plural.
    const unsigned long n = count < 0 ? 2UL : static_cast<unsigned long>(count);
    return ::dngettext(kDomain, text.singular, text.plural, n);
}

std::string format(std::string_view pattern, std::initializer_list<std::string_view> arguments) {
    return formatAll(pattern, std::vector<std::string_view>(arguments));
}

Message systemMessage(int error) {
    static const locale_t english = ::newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    return Message(english ? ::strerror_l(error, english) : std::strerror(error),
                   std::strerror(error));
}

Message message(const char* text, std::initializer_list<Message> arguments) {
    return formatBoth(text, tr(text), arguments);
}

Message message(PluralText text, int64_t count, std::initializer_list<Message> arguments) {
    const char* english = count == 1 ? text.singular : text.plural;
    return formatBoth(english, trn(text, count), arguments);
}

}  // namespace stonewall::tool
