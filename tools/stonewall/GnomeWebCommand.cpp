// gnome-web: GNOME Web's content filters follow the active profile.

#include "CommandSupport.h"
#include "Commands.h"
#include "Failure.h"
#include "platform/Platform.h"
#include "platform/linux/FileUserDefaults.h"
#include "platform/linux/GnomeWebFilters.h"
#include "platform/linux/LinuxServices.h"

namespace stonewall::tool {
namespace {

using platform::gnulinux::GnomeWebFilters;

std::string defaultsPath() {
    auto* defaults =
        dynamic_cast<platform::gnulinux::FileUserDefaultsService*>(&platform::defaults());
    return defaults ? defaults->pathForSuite(platform::gnulinux::kApplicationGroup) : std::string();
}

[[noreturn]] void fail(const GnomeWebFilters::Outcome& outcome) {
    throw CommandFailure(outcome.failure == GnomeWebFilters::Failure::Unavailable
                             ? ExitCode::Unavailable
                             : ExitCode::Storage,
                         "gnome-web", outcome.message);  // the platform's words, in English
}

void describeStatus(const GnomeWebFilters& filters, Report& report) {
    std::string failure;
    const auto status = filters.status(failure);
    if (!status) throw CommandFailure(ExitCode::Unavailable, "gnome-web", failure);
    report.add("gnomeWeb", status->on ? "on" : "off", "GNOME Web",
               status->on ? tr("on (uses the active profile)") : tr("off"));
    report.add("list", status->published ? Json(*status->published) : Json(nullptr), tr("list"),
               status->published ? *status->published
                                 : (status->on ? tr("none (blocking is off)") : tr("none")));
    const size_t others = status->filters.size() - (status->published ? 1 : 0);
    report.add("otherFilters", Json(others), tr("other lists"),
               format(trn(NN_("{0} list", "{0} lists"), static_cast<int64_t>(others)),
                      {std::to_string(others)}));
    report.add("adblock", Json(status->blockingEnabled), tr("GNOME Web blocks"),
               yesNo(status->blockingEnabled));
}

}  // namespace

void runGnomeWeb(const CommonOptions& common, const std::optional<std::string>& state,
                 Report& report) {
    report.json["command"] = "gnome-web";
    Session session(common);
    if (auto reason = GnomeWebFilters::unavailableReason()) {
        throw CommandFailure(ExitCode::Unavailable, "gnome-web", *reason);
    }
    GnomeWebFilters filters(session.containerPath(), defaultsPath());
    if (!state) {
        describeStatus(filters, report);
        return;
    }

    if (*state == "off") {
        const bool wasOn = filters.isOn();
        const GnomeWebFilters::Outcome outcome = filters.turnOff();
        if (outcome.failure) fail(outcome);
        if (!wasOn) {
            report.json["changed"] = false;
            report.notes.push_back(
                tr("GNOME Web does not use Stonewall's rules; nothing changed."));
            return;
        }
        report.json["changed"] = true;
        describeStatus(filters, report);
        return;
    }

    // on: remember the user's settings, then compile and reload the active
    // profile; the reload hands the new list to GNOME Web.
    const bool wasOn = filters.isOn();
    auto engine = session.openEngine();
    const std::string active = requireActiveProfile(*engine->sharedData());
    if (GnomeWebFilters::Outcome outcome = filters.turnOn(); outcome.failure && !filters.isOn()) {
        fail(outcome);
    }
    CompileReport compile;
    const ReloadRun run = ReloadRequest(session, &compile).run(active, engine->activeDatabase());
    checkOutcome(run, &compile);
    // Published by the reload already; this says whether it got there.
    const GnomeWebFilters::Outcome published = filters.publish();
    if (published.failure) fail(published);
    report.json["changed"] = !wasOn || published.changed;
    describeStatus(filters, report);
    describeRuleFile(run, compile, report);
    describeReload(run, report);
    if (wasOn) report.notes.push_back(tr("GNOME Web was using Stonewall's rules already."));
}

}  // namespace stonewall::tool
