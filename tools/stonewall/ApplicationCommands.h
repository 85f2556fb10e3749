#pragma once

// The main application's side: taking websites off the lists, tidying the
// lists, managing profiles, importing filter lists and the screens of the
// internal URLs. Same conventions as Commands.h.

#include <string>

#include "Commands.h"

namespace stonewall::tool {

// unblock, unsecure, unallow.
void runRemoveWebsite(const CommonOptions& common, WebsiteList list, const std::string& url,
                      Report& report);
void runListsTidy(const CommonOptions& common, Report& report);
void runProfileCreate(const CommonOptions& common, const std::string& name, Report& report);
void runProfileRename(const CommonOptions& common, const std::string& profileID,
                      const std::string& name, Report& report);
void runProfileRemove(const CommonOptions& common, const std::string& profileID, Report& report);
void runProfileImport(const CommonOptions& common, const std::string& profileID,
                      const std::string& file, Report& report);
void runOpenURL(const CommonOptions& common, const std::string& url, Report& report);

// The tidy that follows every change of a website list: the engine's new
// rule merged into the list's one rule. Adds its outcome to the report;
// throws CommandFailure when the store did not take it.
void tidyWebsiteLists(CompanionController& engine, Report& report);

}  // namespace stonewall::tool
