#pragma once

// The subcommands. Each fills the report that run() prints, and leaves with
// a CommandFailure on bad input or when storage or the browser fails; bad
// input is always refused before the engine is asked to change anything.

#include <cstdint>
#include <optional>
#include <string>

#include "CommandSupport.h"
#include "Report.h"
#include "Session.h"

namespace stonewall::tool {

struct CompileOptions {
    std::optional<std::string> profile;  // absent: the active profile
    bool noReload = false;               // write the rule file only
};

void runCompile(const CommonOptions& common, const CompileOptions& options, Report& report);
// Without a state: shows the status.
void runStatus(const CommonOptions& common, const std::optional<std::string>& state,
               Report& report);
void runProfileList(const CommonOptions& common, Report& report);
void runProfileActivate(const CommonOptions& common, const std::string& profileID, Report& report);
void runWebsite(const CommonOptions& common, WebsiteList list, const std::string& url,
                Report& report);
void runCheck(const CommonOptions& common, const std::string& url, Report& report);
void runPick(const CommonOptions& common, const std::string& pageURL, const std::string& file,
             Report& report);
void runValidate(const CommonOptions& common, const std::string& file, Report& report);
// Prints each notification as it comes; ends after `count` of them when given.
void runWatch(const CommonOptions& common, std::optional<int64_t> count, Report& report);
void runInfo(const CommonOptions& common, Report& report);
// Without a state: shows whether GNOME Web uses the active profile's list.
void runGnomeWeb(const CommonOptions& common, const std::optional<std::string>& state,
                 Report& report);

}  // namespace stonewall::tool
