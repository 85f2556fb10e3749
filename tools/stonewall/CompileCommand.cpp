#include <chrono>

#include "CommandSupport.h"
#include "Commands.h"
#include "Failure.h"

namespace stonewall::tool {

void runCompile(const CommonOptions& common, const CompileOptions& options, Report& report) {
    report.json["command"] = "compile";
    Session session(common);
    auto engine = session.openEngine();
    const SharedData& shared = *engine->sharedData();

    const std::string active = requireActiveProfile(shared);
    std::string profileID = active;
    if (options.profile) {
        requireKnownProfile(shared, *options.profile);
        profileID = *options.profile;
    }
    // The active profile's database is the one the engine holds open, as the
    // front passes it; another profile's is opened by identifier (a null
    // database would compile the placeholder list).
    std::shared_ptr<ProfileDatabase> database =
        profileID == active ? engine->activeDatabase()
                            : ProfileDatabase::initWithBlockerProfileID(profileID);

    CompileReport compile;
    if (options.noReload) {
        const auto start = std::chrono::steady_clock::now();
        CompanionController::writeProfileRules(profileID, database, &compile);
        const double milliseconds =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count();
        describeCompile(compile, report);
        report.json["writeMilliseconds"] = milliseconds;
        report.json["reload"] = "skipped";
        report.table.add(tr("time"), format(tr("{0} to write"), {formatDuration(milliseconds)}));
        report.table.add(tr("reload"), tr("skipped (--no-reload)"));
        checkOutcome(ReloadRun{}, &compile);
        return;
    }

    const ReloadRun run = ReloadRequest(session, &compile).run(profileID, database);
    if (!run.hostSkipsReload) describeCompile(compile, report);
    finishReload(run, &compile, report);
}

}  // namespace stonewall::tool
