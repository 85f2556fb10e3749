// block, secure, allow and check: the popover's website view.

#include <algorithm>
#include <array>
#include <iterator>
#include <vector>

#include "ApplicationCommands.h"
#include "CommandSupport.h"
#include "Commands.h"
#include "Failure.h"

namespace stonewall::tool {

void runWebsite(const CommonOptions& common, WebsiteList list, const std::string& url,
                Report& report) {
    const WebsiteListNames& info = websiteListNames(list);
    report.json["command"] = info.name;
    // Before the engine: it would store a rule with an absent domain.
    const PageURL page = requirePageURL(url);
    const std::string& host = page.host;

    Session session(common);
    auto engine = session.openEngine();
    const std::string profileID = requireActiveProfile(*engine->sharedData());
    report.json["host"] = host;
    report.json["profile"] = profileID;

    // The popover offers the button only while the host is not on the list.
    if (engine->checkWebsiteExists(host, info.action)) {
        report.json["changed"] = false;
        report.notes.push_back(
            format(tr("{0} is already on the {1} of profile {2}; nothing changed."),
                   {host, tr(info.list), profileID}));
        return;
    }

    const int64_t failuresBefore = session.storageFailures();
    CompileReport compile;
    const ReloadRun run =
        ReloadRequest(session, &compile)
            .run(
                [&](CompletionHandler reload) {
                    // The application tidies the lists after every change.
                    CompletionHandler then = [&, reload](std::optional<Error> error) {
                        tidyWebsiteLists(*engine, report);
                        reload(std::move(error));
                    };
                    switch (list) {
                        case WebsiteList::Block:
                            engine->createBlockWebsiteCustomRule(page.url, then);
                            break;
                        case WebsiteList::Secure:
                            engine->createSecureWebsiteCustomRule(page.url, then);
                            break;
                        case WebsiteList::Allow:
                            engine->createWhitelistWebsiteCustomRule(page.url, then);
                            break;
                    }
                },
                activeProfileOf(*engine));

    // The engine cannot tell a dropped write from a stored one; a fresh
    // connection reads what another program would now see.
    requireStored(
        session, failuresBefore,
        [&] {
            if (engine->getWebsitesStatusShared(info.action) == 0) return true;  // shared only
            // Every rule of the list: without a list status each website gets a
            // rule of its own.
            const auto database = ProfileDatabase::initWithBlockerProfileID(profileID);
            for (const ProfileRule& rule : database->getProfileRulesByAction(info.action)) {
                const auto stored = splitList(rule.domains);
                if (std::find(stored.begin(), stored.end(), host) != stored.end()) return true;
            }
            return false;
        },
        message(N_("{0} could not be stored in the {1} of profile {2}"),
                {host, message(info.list), profileID}));

    report.json["changed"] = true;
    report.table.add(tr(info.done), host);
    report.table.add(tr("profile"), profileID);
    reportReload(run, compile, report);
}

void runCheck(const CommonOptions& common, const std::string& url, Report& report) {
    report.json["command"] = "check";
    const std::string host = requirePageURL(url).host;

    Session session(common);
    auto engine = session.openEngine();
    const NullableString& active = engine->sharedData()->activeProfileID;
    report.add("host", tr("host"), host);
    report.add("profile", active ? Json(*active) : Json(nullptr), tr("profile"),
               textOrNull(active));
    std::array<int64_t, std::size(kWebsiteLists)> actions{};
    for (size_t i = 0; i < actions.size(); ++i) actions[i] = kWebsiteLists[i].action;
    const std::vector<bool> listed = engine->checkWebsiteExists(host, actions);
    for (size_t i = 0; i < actions.size(); ++i) {
        report.add(kWebsiteLists[i].name, static_cast<bool>(listed[i]), tr(kWebsiteLists[i].name),
                   yesNo(listed[i]));
    }
}

}  // namespace stonewall::tool
