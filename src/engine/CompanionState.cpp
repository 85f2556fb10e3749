// Construction, the shared record, blocking on/off, profile activation and
// the change notification to the main application.

#include <string>

#include "engine/CompanionController.h"
#include "platform/Platform.h"

namespace stonewall {

namespace {

// "blockingStatus" values read by the content-blocker extension.
constexpr int64_t kBlockingStatusOn = 1;
constexpr int64_t kBlockingStatusOff = 2;

}  // namespace

CompanionController::CompanionController()
    : fileHandler_(FileHandler::initWithNameAndGroup(std::string(ContainerLayout::kProfilesFolder),
                                                     std::string(kApplicationGroup))),
      sharedDatabase_(&SharedDatabase::sharedInstance()) {
    syncShared();
    connectProfileDatabase();
}

void CompanionController::syncShared() {
    sharedData_ = sharedDatabase_->getSharedData();
    if (hostReloadsContentBlockers()) {
        updateExtensionStatus();
    }
}

void CompanionController::connectProfileDatabase() {
    activeDatabase_ = ProfileDatabase::initWithBlockerProfileID(activeProfileID());
}

void CompanionController::changeStatus(CompletionHandler completionHandler) {
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

void CompanionController::activateProfile(const NullableString& profileID,
                                          CompletionHandler completionHandler) {
    if (sharedData_) {
        sharedData_->activeProfileID = profileID;
        sharedDatabase_->updateSharedDataDetails(*sharedData_);
        sendUpdateNotification();
    }
    if (completionHandler) completionHandler(std::nullopt);
}

void CompanionController::sendUpdateNotification() {
    platform::notifications().postNotificationName(std::string(kExtensionUpdateNotification),
                                                   std::string(kExtensionUpdateObject));
}

}  // namespace stonewall
