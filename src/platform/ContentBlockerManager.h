#pragma once

#include <string>

#include "platform/Error.h"

namespace stonewall::platform {

// Asks the browser to load the content blocker with that identifier again
// (it then reads its rule list and the shared defaults anew). May be called
// from any thread; the completion comes on a thread of the service's choosing,
// once, with no error or with the browser's own error.
class ContentBlockerManager {
  public:
    virtual ~ContentBlockerManager() = default;
    virtual void reloadContentBlockerWithIdentifier(const std::string& identifier,
                                                    CompletionHandler completionHandler) = 0;
};

}  // namespace stonewall::platform
