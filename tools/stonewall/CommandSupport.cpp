#include "CommandSupport.h"

#include <unicode/locid.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <chrono>

#include "Failure.h"
#include "model/RuleCodes.h"
#include "utilities/PunycodeAdditions.h"

namespace stonewall::tool {
namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// The order in which the compiler reads the actions, which is the order of
// the rule list; the report lists them the same way.
constexpr int64_t kCompileOrder[] = {
    ActionCode::kBlockWebsite,  ActionCode::kBlock,        ActionCode::kBlockCookies,
    ActionCode::kHide,          ActionCode::kAllowWebsite, ActionCode::kException,
    ActionCode::kSecureWebsite, ActionCode::kUpgradeHTTPS,
};

}  // namespace

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

PageURL requirePageURL(const std::string& text) {
    const std::string subject = "URL \"" + text + "\"";
    // People type URLs with Unicode hosts and blanks; the browser gives the
    // extension their encoded form, and the engine's host helper expects it
    // (it would mangle a Unicode host inside a whole URL).
    const auto absolute = PunycodeAdditions::URLWithUnicodeString(withLowerCaseHost(text));
    const NullableString host = absolute ? PunycodeAdditions::hostFromURL(*absolute) : std::nullopt;
    if (!host || host->empty()) {
        throw CommandFailure(ExitCode::BadInput, subject,
                             "has no host (give a full URL such as https://example.com/)");
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
    result.hostSkipsReload = !hostReloadsContentBlockers();
    CompileReport* report = report_;
    const auto start = Clock::now();
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
    report.json["profile"] = compile.profileID ? Json(*compile.profileID) : Json(nullptr);
    report.table.add("profile", textOrNull(compile.profileID));

    Json byAction = Json::object();
    report.json["rulesRead"] = compile.rulesRead();
    report.table.add("rules read", std::to_string(compile.rulesRead()));
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
        report.json["reload"] = "skipped";
        report.table.add("reload", "skipped: the host's toolkit is older than 1504, nothing done");
        return;
    }
    report.table.add("time", (run.compiled ? formatDuration(run.writeMilliseconds) + " to write, "
                                           : std::string()) +
                                 formatDuration(run.totalMilliseconds) + " until reloaded");
    if (!run.error) {
        report.json["reload"] = "done";
        report.table.add("reload", "done");
        return;
    }
    report.json["reload"] = "failed";
    report.json["reloadError"] = errorJSON(*run.error);
    report.table.add("reload", "failed");
}

void checkOutcome(const ReloadRun& run, const CompileReport* compile) {
    if (run.hostSkipsReload) return;
    if (compile && !compile->fileWritten) {
        throw CommandFailure(ExitCode::Storage, "rule file " + compile->outputPath,
                             "could not be written");
    }
    if (run.error) {
        throw CommandFailure(ExitCode::Reload, "reload",
                             run.error->message + " (" + run.error->domain + " " +
                                 std::to_string(run.error->code) + ")");
    }
}

std::string compileSummary(const CompileReport& compile) {
    return std::to_string(compile.rulesWritten) + " written, " +
           std::to_string(compile.bytesWritten) + " bytes";
}

}  // namespace stonewall::tool
