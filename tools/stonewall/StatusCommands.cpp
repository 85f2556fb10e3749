// status and profile: the popover's status switch and profile view.

#include "CommandSupport.h"
#include "Commands.h"
#include "Failure.h"
#include "platform/Platform.h"
#include "storage/ExtensionState.h"

namespace stonewall::tool {
namespace {

std::string statusText(int64_t status) {
    if (status == kStatusOn || status == kStatusOff) return blockingLabel(status);
    // Anything else is off as far as the browser side goes (the toolbar shows
    // the off image), but worth showing as it is.
    return format(tr("off (status {0})"), {std::to_string(status)});
}

}  // namespace

void runStatus(const CommonOptions& common, const std::optional<std::string>& state,
               Report& report) {
    report.json["command"] = "status";
    Session session(common);
    auto engine = session.openEngine();
    const int64_t before = engine->sharedData()->status;

    if (!state) {
        report.json["blocking"] = blockingText(before);
        report.add("status", before, tr("blocking"), statusText(before));
        return;
    }

    const bool wantOn = *state == "on";
    if ((before == kStatusOn) == wantOn) {
        report.json["blocking"] = *state;
        report.json["status"] = before;
        report.json["changed"] = false;
        report.notes.push_back(wantOn ? tr("Blocking is already on; nothing changed.")
                                      : tr("Blocking is already off; nothing changed."));
        return;
    }

    // The popover reloads without a profile: the content blocker keeps the
    // list of the profile named in the shared defaults and reads the new
    // status. A container whose list was never compiled names none, and that
    // reload could only fail; then the active profile is compiled as well.
    const bool neverCompiled = !platform::defaults()
                                    .suiteNamed(std::string(kApplicationGroup))
                                    ->stringForKey(std::string(kActiveProfileIDKey));
    const NullableString reloadProfile =
        neverCompiled ? NullableString(requireActiveProfile(*engine->sharedData()))
                      : NullableString();

    CompileReport compile;
    ReloadRequest request(session, &compile);
    const ReloadRun run = request.run(
        [&](CompletionHandler then) {
            // changeStatus toggles; a status that is neither 0 nor 1 becomes 0
            // first, so turning it on takes a second toggle.
            if (wantOn && before != kStatusOff) engine->changeStatus({});
            engine->changeStatus([&, then](std::optional<Error> error) {
                if (engine->sharedData() && engine->sharedData()->status == kStatusOff) {
                    // As the popover does: the next reload request from the
                    // main application reloads the page once while blocking is off.
                    if (ExtensionState* extensionState = ExtensionState::sharedInstance()) {
                        extensionState->setStatusUpdated(false);
                        extensionState->saveData();
                    }
                }
                then(std::move(error));
            });
        },
        [&] { return std::make_pair(reloadProfile, engine->activeDatabase()); });

    const int64_t after = engine->sharedData() ? engine->sharedData()->status : before;
    report.json["blocking"] = blockingText(after);
    report.add("status", after, tr("blocking"),
               format(tr("{0} (was {1})"), {statusText(after), statusText(before)}));
    report.json["changed"] = true;
    if (run.compiled && !run.hostSkipsReload) {
        report.json["rulesWritten"] = compile.rulesWritten;
        report.add("ruleFile", compile.outputPath, tr("rules"),
                   format(tr("{0} (first compile of profile {1})"),
                          {compileSummary(compile), textOrNull(reloadProfile)}));
    }
    finishReload(run, run.compiled ? &compile : nullptr, report);
}

void runProfileList(const CommonOptions& common, Report& report) {
    report.json["command"] = "profile list";
    Session session(common);
    auto engine = session.openEngine(Session::ActiveProfile::Optional);
    const SharedData& shared = *engine->sharedData();

    const auto ids = splitList(shared.profileIDs);
    const auto names = splitList(shared.profiles);
    Json profiles = Json::array();
    for (size_t index = 0; index < ids.size(); ++index) {
        if (!isUsableProfileID(ids[index])) {
            report.notes.push_back(
                format(tr("Ignored the unusable profile identifier \"{0}\" of the shared record."),
                       {ids[index]}));
            continue;
        }
        const std::string name = index < names.size() ? names[index] : std::string();
        const bool active = shared.activeProfileID && *shared.activeProfileID == ids[index];
        profiles.push_back(Json{{"id", ids[index]}, {"name", name}, {"active", active}});
        report.table.add((active ? "* " : "  ") + ids[index], name);
    }
    report.json["activeProfileID"] =
        shared.activeProfileID ? Json(*shared.activeProfileID) : Json(nullptr);
    report.json["profiles"] = std::move(profiles);
    if (ids.empty()) report.notes.push_back(tr("The shared record lists no profiles."));
}

void runProfileActivate(const CommonOptions& common, const std::string& profileID, Report& report) {
    report.json["command"] = "profile activate";
    if (!isUsableProfileID(profileID)) {
        throw CommandFailure(ExitCode::BadInput,
                             message(N_("profile \"{0}\""), {withoutControls(profileID)}),
                             message(N_("not a usable profile identifier")));
    }
    Session session(common);
    auto engine = session.openEngine(Session::ActiveProfile::Optional);
    requireKnownProfile(*engine->sharedData(), profileID);

    report.json["profile"] = profileID;
    if (engine->sharedData()->activeProfileID == profileID) {
        report.json["changed"] = false;
        report.notes.push_back(
            format(tr("Profile {0} is already active; nothing changed."), {profileID}));
        return;
    }

    const std::string previous = textOrNull(engine->sharedData()->activeProfileID);
    CompileReport compile;
    const ReloadRun run =
        ReloadRequest(session, &compile)
            .run(
                [&](CompletionHandler then) {
                    engine->activateProfile(profileID, [&, then](std::optional<Error> error) {
                        engine->connectProfileDatabase();
                        then(std::move(error));
                    });
                },
                [&] {
                    return std::make_pair(NullableString(profileID), engine->activeDatabase());
                });

    report.json["changed"] = true;
    report.add("previousProfile", previous, tr("active profile"),
               format(tr("{0} (was {1})"), {profileID, previous}));
    reportReload(run, compile, report);
}

}  // namespace stonewall::tool
