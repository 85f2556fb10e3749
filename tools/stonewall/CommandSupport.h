#pragma once

// Steps that several subcommands share: checking input before the engine
// sees it, and running and describing a compile and reload as the front does.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Failure.h"
#include "Report.h"
#include "Session.h"
#include "application/ApplicationError.h"
#include "engine/CompanionController.h"

namespace stonewall::tool {

// The three website lists of the popover's website view.
enum class WebsiteList { Block, Secure, Allow };

// How a website list is named to people and on the command line.
struct WebsiteListNames {
    int64_t action;       // the action code of its rules
    const char* name;     // "block": the list, the command that adds to it, its JSON member
                          // (marked: check shows it translated)
    const char* list;     // "block list", for people (marked for translation)
    const char* done;     // "blocked": what adding a website did (marked for translation)
    const char* removal;  // "unblock": the command that takes a website off it
};
// Block, secure, allow: the order in which the lists are tidied and shown.
extern const WebsiteListNames kWebsiteLists[3];
[[nodiscard]] const WebsiteListNames& websiteListNames(WebsiteList list);

// The pieces of a list held in one text field, split at a bare ",".
std::vector<std::string> splitList(const NullableString& text);

// A page URL as the browser hands it to the extension: absolute, its host
// IDNA-encoded and in lower case, the rest percent-encoded.
struct PageURL {
    std::string url;
    std::string host;
};
// Refuses text that is not a URL with a host, since the engine would store
// a rule with an absent domain.
[[nodiscard]] PageURL requirePageURL(const std::string& text);

// Refuses an identifier that is not among the shared record's profileIDs.
void requireKnownProfile(const SharedData& sharedData, const std::string& profileID);

// The active profile of the shared record; refuses a record that names none.
[[nodiscard]] std::string requireActiveProfile(const SharedData& sharedData);

// Timing and outcome of one reload request.
struct ReloadRun {
    std::optional<Error> error;
    bool compiled = false;         // a profile was given: its rule file was written
    double writeMilliseconds = 0;  // the synchronous part: compile and write
    double totalMilliseconds = 0;  // until the completion arrived
    bool hostSkipsReload = false;  // toolkit older than 1504: nothing was done
};

// Starts `steps` from the main queue and waits for the completion they pass
// on; `steps` gets a function that starts the reload (reloadBlockerRules with
// the given profile and database) and the completion to hand it.
class ReloadRequest {
  public:
    ReloadRequest(Session& session, CompileReport* report) : session_(session), report_(report) {}

    // The whole chain: calls `first(then)` on the main queue, where `then` is
    // the completion that starts the reload with the profile and database
    // that `target()` gives at that moment (the front reads them in the
    // completion, after the first step changed them).
    using Target = std::function<std::pair<NullableString, std::shared_ptr<ProfileDatabase>>()>;
    [[nodiscard]] ReloadRun run(const std::function<void(CompletionHandler then)>& first,
                                const Target& target);
    // Only the reload.
    [[nodiscard]] ReloadRun run(const NullableString& profileID,
                                std::shared_ptr<ProfileDatabase> database);

  private:
    Session& session_;
    CompileReport* report_;
};

// The target of a change made through the engine: the profile and database
// it names active once the change is done.
[[nodiscard]] ReloadRequest::Target activeProfileOf(CompanionController& engine);

// Adds the compile figures (profile, rules read by action, dropped, written,
// bytes, file) to the report.
void describeCompile(const CompileReport& compile, Report& report);
// Adds timing and the reload outcome.
void describeReload(const ReloadRun& run, Report& report);
// Throws CommandFailure when the rule file could not be written
// (ExitCode::Storage) or the reload failed (ExitCode::Reload, with the
// browser's message). On a host that skips reloads nothing was asked.
void checkOutcome(const ReloadRun& run, const CompileReport* compile);

// The short compile line of a command that changed rules (rules and bytes
// written, the rule file); nothing on a host that skips reloads.
void describeRuleFile(const ReloadRun& run, const CompileReport& compile, Report& report);
// describeReload, then checkOutcome.
void finishReload(const ReloadRun& run, const CompileReport* compile, Report& report);
// What every command that changed rules ends with: describeRuleFile and
// finishReload.
void reportReload(const ReloadRun& run, const CompileReport& compile, Report& report);

// Compiles the active profile and reloads, as the front does after a change;
// reportReload tells how it went.
void reloadActiveProfile(Session& session, CompanionController& engine, Report& report);

// The exit code of an application refusal: BadInput or Storage.
ExitCode exitCodeOf(const ApplicationError& error);
// Throws the refusal as a CommandFailure; nothing when there is none.
void throwIfFailed(const ApplicationOutcome& outcome);

// Throws CommandFailure (ExitCode::Storage) with `what` when the session met
// more storage failures than `failuresBefore` (its count before the change)
// or `isStored` answers false.
void requireStored(const Session& session, int64_t failuresBefore,
                   const std::function<bool()>& isStored, const Message& what);

// The short compile line of the commands that change rules: "12 written, 1234 bytes".
std::string compileSummary(const CompileReport& compile);

// The note of a command that changed a profile other than the active one.
std::string notActiveNote(const std::string& profileID);

// The action's name in English ("block website"), as --json gives it.
const char* actionName(int64_t action);
// The same for people, in their language.
inline const char* actionLabel(int64_t action) { return tr(actionName(action)); }

// The shared record's blocking status; any other value is off to the browser.
constexpr int64_t kStatusOn = 1;
constexpr int64_t kStatusOff = 0;
// "on" or "off", as the browser sees the status (for --json).
inline const char* blockingText(int64_t status) { return status == kStatusOn ? "on" : "off"; }
// The same for people.
inline const char* blockingLabel(int64_t status) {
    return status == kStatusOn ? tr("on") : tr("off");
}

}  // namespace stonewall::tool
