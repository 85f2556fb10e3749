#include "CommandSupport.h"

#include <unicode/locid.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "Failure.h"
#include "Progress.h"
#include "model/RuleCodes.h"
#include "platform/linux/WebKitContentBlockerManager.h"
#include "utilities/URLParts.h"
#include "utilities/Unicode.h"

namespace stonewall::tool {
namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

}  // namespace

const WebsiteListNames kWebsiteLists[3] = {
    {ActionCode::kBlockWebsite, "block", "blocked", "unblock"},
    {ActionCode::kSecureWebsite, "secure", "secured", "unsecure"},
    {ActionCode::kAllowWebsite, "allow", "allowed", "unallow"},
};

const WebsiteListNames& websiteListNames(WebsiteList list) {
    switch (list) {
        case WebsiteList::Secure:
            return kWebsiteLists[1];
        case WebsiteList::Allow:
            return kWebsiteLists[2];
        case WebsiteList::Block:
            break;
    }
    return kWebsiteLists[0];
}

std::vector<std::string> splitList(const NullableString& text) {
    std::vector<std::string> pieces;
    if (!text || text->empty()) return pieces;
    size_t start = 0;
    while (true) {
        const size_t comma = text->find(',', start);
        pieces.push_back(text->substr(start, comma - start));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return pieces;
}

namespace {

// Host names are case-insensitive and browsers write them in lower case
// (before IDNA encoding, so that "BÜCHER" and "bücher" get one "xn--" form);
// the website lists compare hosts exactly.
std::string withLowerCaseHost(const std::string& text) {
    const auto parts = PunycodeAdditions::URLParts(text);
    if (parts.host.empty()) return text;
    size_t start = parts.scheme.size() + parts.delim.size();
    if (parts.username) {
        const size_t at = text.find('@', start);
        if (at != std::string::npos) start = at + 1;
    }
    const size_t position = text.find(parts.host, start);
    if (position == std::string::npos) return text;

    UErrorCode status = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF8(nullptr, 0, &length, parts.host.data(), static_cast<int32_t>(parts.host.size()),
                  &status);
    if (status == U_INVALID_CHAR_FOUND) return text;  // refused later as a URL without host
    std::string lower;
    icu::UnicodeString::fromUTF8(parts.host).toLower(icu::Locale::getRoot()).toUTF8String(lower);
    std::string result = text;
    result.replace(position, parts.host.size(), lower);
    return result;
}

}  // namespace

namespace {

// What may stand in a host of a website list after IDNA encoding: the
// lists are joined with "," and compiled into regular expressions, so
// anything else would split an entry or break every later compile.
bool isHostName(std::string_view host) {
    if (host.empty() || host.size() > 253 || host.front() == '.' || host.front() == '-') {
        return false;
    }
    char previous = 0;
    for (const char c : host) {
        const bool letterOrDigit = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
        if (!letterOrDigit && c != '-' && c != '.') return false;
        if (c == '.' && previous == '.') return false;
        previous = c;
    }
    return true;
}

// Long enough for any page a browser shows; the host is all we keep.
constexpr size_t kMaximumURLLength = 65536;

// Text in a message, with bytes that are not printable ASCII escaped.
std::string printable(std::string_view text) {
    const bool keepUnicode = unicode::isValidUTF8(text);
    std::string out;
    for (const unsigned char c : text) {
        if ((c >= 0x20 && c < 0x7f && c != '\\') || (c >= 0x80 && keepUnicode)) {
            out.push_back(static_cast<char>(c));
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
            out.append(escaped);
        }
    }
    return out;
}

}  // namespace

PageURL requirePageURL(const std::string& text) {
    const std::string subject = "URL \"" + printable(text) + "\"";
    if (!unicode::isValidUTF8(text)) {
        throw CommandFailure(ExitCode::BadInput, subject, "is not valid UTF-8");
    }
    // "https://" alone would otherwise be read as the host "https".
    if (const size_t separator = text.find("://"); separator != std::string::npos) {
        const size_t start = separator + 3;
        if (start == text.size() || text.find_first_of("/?#", start) == start) {
            throw CommandFailure(ExitCode::BadInput, subject,
                                 "has no host (give a full URL such as https://example.com/)");
        }
    }
    if (text.size() > kMaximumURLLength) {
        throw CommandFailure(ExitCode::BadInput, subject.substr(0, 80) + "...\"",
                             "is longer than " + std::to_string(kMaximumURLLength) + " bytes");
    }
    // People type URLs with Unicode hosts and blanks; the browser gives the
    // extension their encoded form, and the engine's host helper expects it
    // (it would mangle a Unicode host inside a whole URL).
    const auto absolute = PunycodeAdditions::URLWithUnicodeString(withLowerCaseHost(text));
    const NullableString host = absolute ? PunycodeAdditions::hostFromURL(*absolute) : std::nullopt;
    if (!host || host->empty()) {
        throw CommandFailure(ExitCode::BadInput, subject,
                             "has no host (give a full URL such as https://example.com/)");
    }
    if (!isHostName(*host)) {
        throw CommandFailure(ExitCode::BadInput, subject,
                             "has no valid host name (letters, digits, \"-\" and \".\"; "
                             "international names are encoded): \"" +
                                 printable(*host) + "\"");
    }
    return PageURL{*absolute, *host};
}

void requireKnownProfile(const SharedData& sharedData, const std::string& profileID) {
    const auto known = splitList(sharedData.profileIDs);
    if (std::find(known.begin(), known.end(), profileID) != known.end()) return;
    std::string list;
    for (const auto& id : known) list += (list.empty() ? "" : ", ") + id;
    throw CommandFailure(
        ExitCode::BadInput, "profile \"" + profileID + "\"",
        "unknown profile identifier (known: " + (list.empty() ? std::string("none") : list) + ")");
}

std::string requireActiveProfile(const SharedData& sharedData) {
    if (!sharedData.activeProfileID || sharedData.activeProfileID->empty()) {
        throw CommandFailure(ExitCode::Storage, "shared database", "names no active profile");
    }
    return *sharedData.activeProfileID;
}

ReloadRun ReloadRequest::run(const std::function<void(CompletionHandler then)>& first,
                             const Target& target) {
    ReloadRun result;
    result.hostSkipsReload = !CompanionController::hostReloadsContentBlockers();
    CompileReport* report = report_;
    const auto start = Clock::now();
    progress::stage("compiling and reloading the content blocker");
    result.error = session_.await("reload", [&](CompletionHandler done) {
        first([&, done](std::optional<Error>) {
            auto [profileID, database] = target();
            result.compiled = profileID.has_value();
            const auto reloadStart = Clock::now();
            CompanionController::reloadBlockerRules(profileID, std::move(database), done, report);
            result.writeMilliseconds = millisecondsSince(reloadStart);
        });
    });
    result.totalMilliseconds = millisecondsSince(start);
    return result;
}

ReloadRun ReloadRequest::run(const NullableString& profileID,
                             std::shared_ptr<ProfileDatabase> database) {
    return run([](CompletionHandler then) { then(std::nullopt); },
               [&] { return std::make_pair(profileID, database); });
}

ReloadRequest::Target activeProfileOf(CompanionController& engine) {
    return [&engine] {
        return std::make_pair(
            engine.sharedData() ? engine.sharedData()->activeProfileID : NullableString(),
            engine.activeDatabase());
    };
}

std::string_view actionName(int64_t action) {
    switch (action) {
        case ActionCode::kBlockWebsite:
            return "block website";
        case ActionCode::kBlock:
            return "block";
        case ActionCode::kBlockCookies:
            return "block cookies";
        case ActionCode::kHide:
            return "hide";
        case ActionCode::kAllowWebsite:
            return "allow website";
        case ActionCode::kException:
            return "exception";
        case ActionCode::kSecureWebsite:
            return "secure website";
        case ActionCode::kUpgradeHTTPS:
            return "upgrade to HTTPS";
        default:
            return "unknown";
    }
}

void describeCompile(const CompileReport& compile, Report& report) {
    report.add("profile", compile.profileID ? Json(*compile.profileID) : Json(nullptr), "profile",
               textOrNull(compile.profileID));

    Json byAction = Json::object();
    report.add("rulesRead", compile.rulesRead(), "rules read", std::to_string(compile.rulesRead()));
    for (int64_t action : kCompileOrder) {
        const int64_t read = compile.rulesReadByAction[static_cast<size_t>(action)];
        byAction[std::to_string(action)] = read;
        report.table.add("  " + std::to_string(action) + " " + std::string(actionName(action)),
                         std::to_string(read));
    }
    report.json["rulesReadByAction"] = std::move(byAction);

    report.json["duplicatesDropped"] = compile.duplicatesDropped;
    report.json["rulesDroppedByCap"] = compile.rulesDroppedByCap;
    report.json["rulesWritten"] = compile.rulesWritten;
    report.json["placeholderUsed"] = compile.placeholderUsed;
    report.json["bytesWritten"] = compile.bytesWritten;
    report.json["fileWritten"] = compile.fileWritten;
    report.json["ruleFile"] = compile.outputPath;
    report.table.add("duplicates dropped", std::to_string(compile.duplicatesDropped));
    report.table.add("dropped by cap", std::to_string(compile.rulesDroppedByCap));
    report.table.add(
        "rules written",
        std::to_string(compile.rulesWritten) +
            (compile.placeholderUsed ? " (the placeholder: the profile has no rules)" : ""));
    report.table.add("bytes written", std::to_string(compile.bytesWritten));
    report.table.add("rule file", compile.outputPath);
}

void describeReload(const ReloadRun& run, Report& report) {
    if (run.compiled) report.json["writeMilliseconds"] = run.writeMilliseconds;
    report.json["totalMilliseconds"] = run.totalMilliseconds;
    if (run.hostSkipsReload) {
        report.add("reload", "skipped", "reload",
                   "skipped: the host's toolkit is older than 1504, nothing done");
        return;
    }
    report.table.add("time", (run.compiled ? formatDuration(run.writeMilliseconds) + " to write, "
                                           : std::string()) +
                                 formatDuration(run.totalMilliseconds) + " until reloaded");
    // A rule WebKit could not compile was left out so that the rest loaded;
    // the user must hear of it, or the rule would seem to work.
    const auto dropped = platform::gnulinux::WebKitContentBlockerManager::takeDroppedRules();
    if (!dropped.empty()) {
        Json list = Json::array();
        for (const auto& rule : dropped) {
            list.push_back(Json{{"index", rule.index},
                                {"rule", Json::parse(rule.rule, nullptr, false)},
                                {"webkitError", errorJSON(rule.error)}});
            report.table.add("left out", "rule " + std::to_string(rule.index) + " " +
                                             rule.rule.substr(0, 200) + ": " + rule.error.message);
        }
        report.json["rulesLeftOut"] = std::move(list);
        report.notes.push_back(std::to_string(dropped.size()) +
                               " rule(s) rejected by WebKit were left out of the reload; "
                               "remove or fix them.");
    }
    if (!run.error) {
        report.add("reload", "reload", "done");
        return;
    }
    report.json["reload"] = "failed";
    report.add("reloadError", errorJSON(*run.error), "reload", "failed");
}

void checkOutcome(const ReloadRun& run, const CompileReport* compile) {
    if (run.hostSkipsReload) return;
    if (compile && compile->failure != CompileReport::Failure::None) {
        const std::string subject = "profile " + textOrNull(compile->profileID);
        switch (compile->failure) {
            case CompileReport::Failure::DatabaseBusy:
                throw CommandFailure(ExitCode::Storage, subject,
                                     "the profile database is busy (another program holds its "
                                     "lock); the rule list was left as it was, nothing reloaded");
            case CompileReport::Failure::OutOfMemory:
                throw CommandFailure(ExitCode::Storage, subject,
                                     "out of memory while compiling the rule list; the rule list "
                                     "was left as it was, nothing reloaded");
            default:
                throw CommandFailure(ExitCode::Storage, subject,
                                     "the profile database could not be read completely (it may "
                                     "be damaged); the rule list was left as it was, nothing "
                                     "reloaded");
        }
    }
    if (compile && !compile->fileWritten) {
        throw CommandFailure(ExitCode::Storage, "rule file " + compile->outputPath,
                             "could not be written");
    }
    if (run.error) {
        // A store or defaults file that cannot be used is the container's
        // fault, as with the databases.
        const bool storage =
            run.error->domain == platform::gnulinux::WebKitContentBlockerManager::kErrorDomain &&
            run.error->code == platform::gnulinux::WebKitContentBlockerManager::kStoreUnusable;
        throw CommandFailure(storage ? ExitCode::Storage : ExitCode::Reload, "reload",
                             run.error->message + " (" + run.error->domain + " " +
                                 std::to_string(run.error->code) + ")");
    }
}

void requireStored(const Session& session, int64_t failuresBefore,
                   const std::function<bool()>& isStored, const std::string& what) {
    const bool failed = session.storageFailures() > failuresBefore;
    if (!failed && isStored()) return;
    const std::string why = failed ? "storage failed: " + session.lastStorageFailure()
                                   : std::string("the change is not in the database");
    throw CommandFailure(ExitCode::Storage, what, why);
}

void describeRuleFile(const ReloadRun& run, const CompileReport& compile, Report& report) {
    if (run.hostSkipsReload) return;
    report.json["rulesWritten"] = compile.rulesWritten;
    report.json["bytesWritten"] = compile.bytesWritten;
    report.add("ruleFile", compile.outputPath, "rules", compileSummary(compile));
}

void finishReload(const ReloadRun& run, const CompileReport* compile, Report& report) {
    describeReload(run, report);
    checkOutcome(run, compile);
}

void reportReload(const ReloadRun& run, const CompileReport& compile, Report& report) {
    describeRuleFile(run, compile, report);
    finishReload(run, &compile, report);
}

void reloadActiveProfile(Session& session, CompanionController& engine, Report& report) {
    CompileReport compile;
    const ReloadRun run = ReloadRequest(session, &compile)
                              .run(engine.sharedData()->activeProfileID, engine.activeDatabase());
    reportReload(run, compile, report);
}

ExitCode exitCodeOf(const ApplicationError& error) {
    return error.kind == ApplicationError::Kind::BadInput ? ExitCode::BadInput : ExitCode::Storage;
}

void throwIfFailed(const ApplicationOutcome& outcome) {
    if (outcome) throw CommandFailure(exitCodeOf(*outcome), outcome->subject, outcome->reason);
}

std::string plural(int64_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string compileSummary(const CompileReport& compile) {
    return std::to_string(compile.rulesWritten) + " written, " +
           std::to_string(compile.bytesWritten) + " bytes";
}

}  // namespace stonewall::tool
