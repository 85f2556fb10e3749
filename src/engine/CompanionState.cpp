// Construction, the shared record, blocking on/off, profile activation and
// the change notification to the main application.

#include "engine/CompanionState.h"

#include <string>

#include "engine/RuleCompiler.h"
#include "platform/ContainerLayout.h"
#include "platform/Platform.h"

namespace stonewall {

namespace {

// "blockingStatus" values read by the content-blocker extension.
using ContainerLayout::kBlockingStatusOff;
using ContainerLayout::kBlockingStatusOn;

}  // namespace

CompanionState::CompanionState()
    : fileHandler_(FileHandler::initWithNameAndGroup(std::string(ContainerLayout::kProfilesFolder),
                                                     std::string(kApplicationGroup))),
      sharedDatabase_(&SharedDatabase::sharedInstance()) {
    syncShared();
    connectProfileDatabase();
}

NullableString CompanionState::activeProfileID() const {
    return sharedData_ ? sharedData_->activeProfileID : std::nullopt;
}

void CompanionState::syncShared() {
    sharedData_ = sharedDatabase_->getSharedData();
    if (RuleCompiler::hostReloadsContentBlockers()) {
        updateExtensionStatus();
    }
}

void CompanionState::connectProfileDatabase() {
    activeDatabase_ = ProfileDatabase::initWithBlockerProfileID(activeProfileID());
}

void CompanionState::changeStatus(CompletionHandler completionHandler) {
    // Without a shared record there is no status to toggle, and writing a
    // made-up one would overwrite the application's state.
    if (sharedData_) {
        sharedData_->status = sharedData_->status != 0 ? 0 : 1;
        sharedDatabase_->updateSharedDataDetails(*sharedData_);
        sendUpdateNotification();

        std::shared_ptr<platform::UserDefaults> defaults =
            platform::defaults().suiteNamed(std::string(kApplicationGroup));
        if (sharedData_->status == 1) {
            defaults->setInteger(kBlockingStatusOn, std::string(kBlockingStatusKey));
        } else if (sharedData_->status == 0) {
            defaults->setInteger(kBlockingStatusOff, std::string(kBlockingStatusKey));
        }
        defaults->synchronize();
    }
    if (completionHandler) completionHandler(std::nullopt);
}

void CompanionState::activateProfile(const NullableString& profileID,
                                     CompletionHandler completionHandler) {
    if (sharedData_) {
        sharedData_->activeProfileID = profileID;
        sharedDatabase_->updateSharedDataDetails(*sharedData_);
        sendUpdateNotification();
    }
    if (completionHandler) completionHandler(std::nullopt);
}

void CompanionState::sendUpdateNotification() {
    platform::notifications().postNotificationName(std::string(kExtensionUpdateNotification),
                                                   std::string(kExtensionUpdateObject));
}

}  // namespace stonewall
