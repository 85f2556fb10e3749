#pragma once

// Subscribed filter lists: subscribe, unsubscribe, list them, and update
// the ones that are due. Same conventions as Commands.h.

#include <string>

#include "Commands.h"

namespace stonewall::tool {

void runProfileSubscribe(const CommonOptions& common, const std::string& profileID,
                         const std::string& url, Report& report);
void runProfileUnsubscribe(const CommonOptions& common, const std::string& profileID,
                           const std::string& url, Report& report);
void runProfileSubscriptions(const CommonOptions& common, Report& report);
// Without `force` only the lists whose time has come.
void runUpdate(const CommonOptions& common, bool force, Report& report);

}  // namespace stonewall::tool
