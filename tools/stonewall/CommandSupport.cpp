#include "CommandSupport.h"

#include <unicode/locid.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "Failure.h"
#include "Progress.h"
#include "Text.h"
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
    {ActionCode::kBlockWebsite, N_("block"), N_("block list"), N_("blocked"), "unblock"},
    {ActionCode::kSecureWebsite, N_("secure"), N_("secure list"), N_("secured"), "unsecure"},
    {ActionCode::kAllowWebsite, N_("allow"), N_("allow list"), N_("allowed"), "unallow"},
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
    const Message subject = message(N_("URL \"{0}\""), {printable(text)});
    const Message noHost =
        message(N_("has no host (give a full URL such as https://example.com/)"));
    if (!unicode::isValidUTF8(text)) {
        throw CommandFailure(ExitCode::BadInput, subject, message(N_("is not valid UTF-8")));
    }
    // "https://" alone would otherwise be read as the host "https".
    if (const size_t separator = text.find("://"); separator != std::string::npos) {
        const size_t start = separator + 3;
        if (start == text.size() || text.find_first_of("/?#", start) == start) {
            throw CommandFailure(ExitCode::BadInput, subject, noHost);
        }
    }
    if (text.size() > kMaximumURLLength) {
        throw CommandFailure(
            ExitCode::BadInput, message(N_("URL \"{0}...\""), {printable(text).substr(0, 75)}),
            message(N_("is longer than {0} bytes"), {std::to_string(kMaximumURLLength)}));
    }
    // People type URLs with Unicode hosts and blanks; the browser gives the
    // extension their encoded form, and the engine's host helper expects it
    // (it would mangle a Unicode host inside a whole URL).
    const auto absolute = PunycodeAdditions::URLWithUnicodeString(withLowerCaseHost(text));
    const NullableString host = absolute ? PunycodeAdditions::hostFromURL(*absolute) : std::nullopt;
    if (!host || host->empty()) {
        throw CommandFailure(ExitCode::BadInput, subject, noHost);
    }
    if (!isHostName(*host)) {
        throw CommandFailure(ExitCode::BadInput, subject,
                             message(N_("has no valid host name (letters, digits, \"-\" and "
                                        "\".\"; international names are encoded): \"{0}\""),
                                     {printable(*host)}));
    }
    return PageURL{*absolute, *host};
}

void requireKnownProfile(const SharedData& sharedData, const std::string& profileID) {
    const auto known = splitList(sharedData.profileIDs);
    if (std::find(known.begin(), known.end(), profileID) != known.end()) return;
    std::string list;
    for (const auto& id : known) list += (list.empty() ? "" : ", ") + id;
    throw CommandFailure(ExitCode::BadInput, message(N_("profile \"{0}\""), {profileID}),
                         message(N_("unknown profile identifier (known: {0})"),
                                 {list.empty() ? message(N_("none")) : Message(list)}));
}

std::string requireActiveProfile(const SharedData& sharedData) {
    if (!sharedData.activeProfileID || sharedData.activeProfileID->empty()) {
        throw CommandFailure(ExitCode::Storage, message(N_("shared database")),
                             message(N_("names no active profile")));
    }
    return *sharedData.activeProfileID;
}

ReloadRun ReloadRequest::run(const std::function<void(CompletionHandler then)>& first,
                             const Target& target) {
    ReloadRun result;
    result.hostSkipsReload = !CompanionController::hostReloadsContentBlockers();
    CompileReport* report = report_;
    const auto start = Clock::now();
    progress::stage(tr("compiling and reloading the content blocker"));
    result.error = session_.await(message(N_("reload")), [&](CompletionHandler done) {
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

const char* actionName(int64_t action) {
    switch (action) {
        case ActionCode::kBlockWebsite:
            return N_("block website");
        case ActionCode::kBlock:
            return N_("block");
        case ActionCode::kBlockCookies:
            return N_("block cookies");
        case ActionCode::kHide:
            return N_("hide");
        case ActionCode::kAllowWebsite:
            return N_("allow website");
        case ActionCode::kException:
            return N_("exception");
        case ActionCode::kSecureWebsite:
            return N_("secure website");
        case ActionCode::kUpgradeHTTPS:
            return N_("upgrade to HTTPS");
        default:
            return N_("unknown");
    }
}

void describeCompile(const CompileReport& compile, Report& report) {
    report.add("profile", compile.profileID ? Json(*compile.profileID) : Json(nullptr),
               tr("profile"), textOrNull(compile.profileID));

    Json byAction = Json::object();
    report.add("rulesRead", compile.rulesRead(), tr("rules read"),
               std::to_string(compile.rulesRead()));
    for (int64_t action : kCompileOrder) {
        const int64_t read = compile.rulesReadByAction[static_cast<size_t>(action)];
        byAction[std::to_string(action)] = read;
        report.table.add("  " + std::to_string(action) + " " + actionLabel(action),
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
    report.table.add(tr("duplicates dropped"), std::to_string(compile.duplicatesDropped));
    report.table.add(tr("dropped by cap"), std::to_string(compile.rulesDroppedByCap));
    const std::string written = std::to_string(compile.rulesWritten);
    report.table.add(tr("rules written"),
                     compile.placeholderUsed
                         ? format(tr("{0} (the placeholder: the profile has no rules)"), {written})
                         : written);
    report.table.add(tr("bytes written"), std::to_string(compile.bytesWritten));
    report.table.add(tr("rule file"), compile.outputPath);
}

void describeReload(const ReloadRun& run, Report& report) {
    if (run.compiled) report.json["writeMilliseconds"] = run.writeMilliseconds;
    report.json["totalMilliseconds"] = run.totalMilliseconds;
    if (run.hostSkipsReload) {
        report.add("reload", "skipped", tr("reload"),
                   tr("skipped: the host's toolkit is older than 1504, nothing done"));
        return;
    }
    const std::string total = formatDuration(run.totalMilliseconds);
    report.table.add(tr("time"), run.compiled
                                     ? format(tr("{0} to write, {1} until reloaded"),
                                              {formatDuration(run.writeMilliseconds), total})
                                     : format(tr("{0} until reloaded"), {total}));
    // A rule WebKit could not compile was left out so that the rest loaded;
    // the user must hear of it, or the rule would seem to work.
    const auto dropped = platform::gnulinux::WebKitContentBlockerManager::takeDroppedRules();
    if (!dropped.empty()) {
        Json list = Json::array();
        for (const auto& rule : dropped) {
            list.push_back(Json{{"index", rule.index},
                                {"rule", Json::parse(rule.rule, nullptr, false)},
                                {"webkitError", errorJSON(rule.error)}});
            report.table.add(
                tr("left out"),
                format(tr("rule {0} {1}: {2}"),
                       {std::to_string(rule.index), rule.rule.substr(0, 200), rule.error.message}));
        }
        report.json["rulesLeftOut"] = std::move(list);
        // "rule(s)": the English line is kept as scripts have always seen it.
        report.notes.push_back(format(tr("{0} rule(s) rejected by WebKit were left out of the "
                                         "reload; remove or fix them."),
                                      {std::to_string(dropped.size())}));
    }
    if (!run.error) {
        report.add("reload", "done", tr("reload"), tr("done"));
        return;
    }
    report.json["reload"] = "failed";
    report.add("reloadError", errorJSON(*run.error), tr("reload"), tr("failed"));
}

void checkOutcome(const ReloadRun& run, const CompileReport* compile) {
    if (run.hostSkipsReload) return;
    if (compile && compile->failure != CompileReport::Failure::None) {
        const Message subject = message(N_("profile {0}"), {textOrNull(compile->profileID)});
        switch (compile->failure) {
            case CompileReport::Failure::DatabaseBusy:
                throw CommandFailure(
                    ExitCode::Storage, subject,
                    message(N_("the profile database is busy (another program holds its lock); "
                               "the rule list was left as it was, nothing reloaded")));
            case CompileReport::Failure::OutOfMemory:
                throw CommandFailure(
                    ExitCode::Storage, subject,
                    message(N_("out of memory while compiling the rule list; the rule list was "
                               "left as it was, nothing reloaded")));
            default:
                throw CommandFailure(
                    ExitCode::Storage, subject,
                    message(N_("the profile database could not be read completely (it may be "
                               "damaged); the rule list was left as it was, nothing reloaded")));
        }
    }
    if (compile && !compile->fileWritten) {
        throw CommandFailure(ExitCode::Storage, message(N_("rule file {0}"), {compile->outputPath}),
                             message(N_("could not be written")));
    }
    if (run.error) {
        // A store or defaults file that cannot be used is the container's
        // fault, as with the databases.
        const bool storage =
            run.error->domain == platform::gnulinux::WebKitContentBlockerManager::kErrorDomain &&
            run.error->code == platform::gnulinux::WebKitContentBlockerManager::kStoreUnusable;
        // WebKit's message is shown as it came.
        throw CommandFailure(storage ? ExitCode::Storage : ExitCode::Reload, message(N_("reload")),
                             run.error->message + " (" + run.error->domain + " " +
                                 std::to_string(run.error->code) + ")");
    }
}

void requireStored(const Session& session, int64_t failuresBefore,
                   const std::function<bool()>& isStored, const Message& what) {
    const bool failed = session.storageFailures() > failuresBefore;
    if (!failed && isStored()) return;
    throw CommandFailure(ExitCode::Storage, what,
                         failed ? message(N_("storage failed: {0}"), {session.lastStorageFailure()})
                                : message(N_("the change is not in the database")));
}

void describeRuleFile(const ReloadRun& run, const CompileReport& compile, Report& report) {
    if (run.hostSkipsReload) return;
    report.json["rulesWritten"] = compile.rulesWritten;
    report.json["bytesWritten"] = compile.bytesWritten;
    report.add("ruleFile", compile.outputPath, tr("rules"), compileSummary(compile));
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

std::string notActiveNote(const std::string& profileID) {
    return format(tr("Profile {0} is not the active one; its rules take effect once it is "
                     "activated (stonewall profile activate {0})."),
                  {profileID});
}

std::string compileSummary(const CompileReport& compile) {
    return format(tr("{0} written, {1} bytes"),
                  {std::to_string(compile.rulesWritten), std::to_string(compile.bytesWritten)});
}

}  // namespace stonewall::tool
