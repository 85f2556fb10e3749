// Timestamps and RFC 3339 dates.

#include "utilities/Custom.h"

#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>

#include "utilities/Unicode.h"

namespace stonewall::Custom {

namespace {

std::mutex& clockMutex() {
    static std::mutex mutex;
    return mutex;
}

std::function<Timestamp()>& testClock() {
    static std::function<Timestamp()> clock;
    return clock;
}

// The one internet date formatter of the process. Parsing reconfigures its
// pattern, so every parse holds its lock for the whole sequence of attempts.
struct InternetDateFormatter {
    std::mutex lock;
    std::unique_ptr<icu::SimpleDateFormat> formatter;
};

InternetDateFormatter& getInternetDateFormatter() {
    static InternetDateFormatter* shared = [] {
        auto* created = new InternetDateFormatter;
        UErrorCode status = U_ZERO_ERROR;
        created->formatter = std::make_unique<icu::SimpleDateFormat>(
            icu::UnicodeString("yyyy'-'MM'-'dd'T'HH':'mm':'ssZZZ"), icu::Locale("en_US_POSIX"),
            status);
        if (U_FAILURE(status)) {
            created->formatter.reset();
        } else {
            created->formatter->adoptTimeZone(icu::TimeZone::createTimeZone("GMT"));
            created->formatter->setLenient(false);
        }
        return created;
    }();
    return *shared;
}

}  // namespace

Timestamp currentTimestamp() {
    {
        std::lock_guard<std::mutex> guard(clockMutex());
        if (testClock()) return testClock()();
    }
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

void setClockForTesting(std::function<Timestamp()> clock) {
    std::lock_guard<std::mutex> guard(clockMutex());
    testClock() = std::move(clock);
}

bool checkTimestampPassed(Timestamp timestamp, double offset) {
    return currentTimestamp() - offset > timestamp;
}

namespace {

// ICU's date parser divides by zero on a number field of some 40 digits or
// more; no field of an RFC 3339 date comes near 16.
bool hasOverlongDigitRun(const std::string& text) {
    size_t run = 0;
    for (char c : text) {
        run = (c >= '0' && c <= '9') ? run + 1 : 0;
        if (run > 16) return true;
    }
    return false;
}

}  // namespace

std::optional<Timestamp> dateFromRFC3339String(const NullableString& text) {
    if (!text || !unicode::isValidUTF8(*text) || hasOverlongDigitRun(*text)) return std::nullopt;
    icu::UnicodeString value = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text->data(), static_cast<int32_t>(text->size())));
    value.toUpper(icu::Locale("en_US_POSIX"));
    // Both rewrites build a new string: replacing in place moves the tail
    // each time, and a text of a million "Z"s would take minutes.
    icu::UnicodeString zoned;
    for (int32_t i = 0; i < value.length(); ++i) {
        if (value[i] == u'Z') {
            zoned.append(u"-0000", 5);
        } else {
            zoned.append(value[i]);
        }
    }
    // From position 20 on, colons go: "+01:00" becomes "+0100" while the
    // colons of the time stay.
    icu::UnicodeString cleaned(zoned, 0, std::min<int32_t>(20, zoned.length()));
    if (zoned.length() >= 21) {
        for (int32_t i = 20; i < zoned.length(); ++i) {
            if (zoned[i] != u':') cleaned.append(zoned[i]);
        }
    }
    value = cleaned;

    InternetDateFormatter& shared = getInternetDateFormatter();
    std::lock_guard<std::mutex> guard(shared.lock);
    if (!shared.formatter) return std::nullopt;
    static const char* const kPatterns[] = {
        "yyyy'-'MM'-'dd'T'HH':'mm':'ssZZZ",
        "yyyy'-'MM'-'dd'T'HH':'mm':'ss.SSSZZZ",
        "yyyy'-'MM'-'dd'T'HH':'mm':'ss",
    };
    for (const char* pattern : kPatterns) {
        shared.formatter->applyPattern(icu::UnicodeString(pattern));
        icu::ParsePosition position(0);
        const UDate date = shared.formatter->parse(value, position);
        // A date counts only when the pattern took the whole text.
        if (position.getErrorIndex() < 0 && position.getIndex() == value.length()) {
            return date / 1000.0;
        }
    }
    return std::nullopt;
}

}  // namespace stonewall::Custom
