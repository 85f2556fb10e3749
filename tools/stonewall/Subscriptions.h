#pragma once

// The filter lists a profile is subscribed to: where each comes from, when it
// was fetched, when it is due again and why the last fetch failed. Kept in
// one JSON file in the container (".Shared/subscriptions.json"), replaced in
// one rename; a damaged file is moved aside (said once on stderr) and read
// as empty.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Text.h"

namespace stonewall::tool {

struct Subscription {
    std::string profile;
    std::string url;
    std::string etag;          // of the last 200 answer; empty when none
    std::string lastModified;  // likewise
    int64_t lastUpdate = 0;    // seconds since 1970 of the last fetch that brought or kept the list
    int64_t nextDue = 0;       // seconds since 1970
    int64_t interval = 0;      // seconds between fetches, from the list's "Expires"
    std::string digest;        // SHA-256 of the list last imported: the same body is not modified
    std::string lastError;     // empty after a fetch that worked

    // The list's rows in the profile carry ruleIDs "<tag>-<random>": "s" and
    // the first 8 hex digits of the SHA-1 of the URL.
    std::string tag() const;
};

// The offered lists, by the names the command takes for them.
struct OfferedList {
    const char* name;
    const char* url;
};
extern const OfferedList kOfferedLists[2];

// The URL a subscription command means: an offered list's name, or an http,
// https or file URL. Why not otherwise.
[[nodiscard]] std::optional<std::string> subscriptionURL(const std::string& text, Message& why);

class SubscriptionStore {
  public:
    // In the container of the installed services (after Session).
    SubscriptionStore();

    // The subscriptions; a damaged file is moved aside first.
    std::vector<Subscription> load() const;
    // False when the file could not be replaced; the old one then stays.
    [[nodiscard]] bool save(const std::vector<Subscription>& subscriptions) const;
    std::string path() const;
};

// "2026-11-25 06:30 UTC", or "never" (in the user's language) for 0.
std::string timeText(int64_t seconds);
int64_t secondsNow();

}  // namespace stonewall::tool
