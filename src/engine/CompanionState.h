#pragma once

// The state that one engine instance shares between its parts: the shared
// database and the last-read shared record, the active profile's database and
// the file handler of the ".Profiles" folder. It also keeps that state: it
// reads the record, opens the active profile's database, switches blocking
// and the active profile, and tells the main application of every change.
//
// Threads: used by one thread at a time, as the CompanionController that
// owns it. Every operation runs synchronously and calls its completion
// handler before returning.
//
// Process services: needs the platform services installed (defaults,
// notifications, host).

#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "model/SharedData.h"
#include "platform/ContainerLayout.h"
#include "platform/Error.h"
#include "storage/FileHandler.h"
#include "storage/ProfileDatabase.h"
#include "storage/SharedDatabase.h"
#include "utilities/Nullable.h"

namespace stonewall {

// The shared defaults key of the blocking status, read by the content-blocker
// extension on its load.
inline constexpr std::string_view kBlockingStatusKey = ContainerLayout::kBlockingStatusKey;
// The notification that tells the main application to re-read shared state.
inline constexpr std::string_view kExtensionUpdateNotification = "extensionUpdate";
inline constexpr std::string_view kExtensionUpdateObject = "StonewallExtension";

class CompanionState {
  public:
    // Opens the ".Profiles" folder, the shared database, reads the shared
    // record and opens the active profile's database.
    CompanionState();
    CompanionState(const CompanionState&) = delete;
    CompanionState& operator=(const CompanionState&) = delete;

    // True once a sync has seen a host that can reload content blockers.
    bool blockerEnabled() const { return blockerEnabled_; }
    void setBlockerEnabled(bool enabled) { blockerEnabled_ = enabled; }
    // Null only when set so by a caller.
    const std::shared_ptr<ProfileDatabase>& activeDatabase() const { return activeDatabase_; }
    void setActiveDatabase(std::shared_ptr<ProfileDatabase> database) {
        activeDatabase_ = std::move(database);
    }
    const FileHandler& fileHandler() const { return fileHandler_; }
    SharedDatabase& sharedDatabase() const { return *sharedDatabase_; }
    // The last-read shared record; absent when the shared database gave none.
    const std::optional<SharedData>& sharedData() const { return sharedData_; }
    std::optional<SharedData>& sharedData() { return sharedData_; }
    void setSharedData(std::optional<SharedData> data) { sharedData_ = std::move(data); }
    // The shared record's active profile; absent without a record.
    NullableString activeProfileID() const;

    void syncShared();
    void connectProfileDatabase();
    void updateExtensionStatus() { blockerEnabled_ = true; }
    // Toggles blocking (status 0 <-> 1, any other value -> 0), stores it,
    // notifies and sets "blockingStatus". Without a shared record nothing is
    // stored. The handler gets no error before the call returns.
    void changeStatus(CompletionHandler completionHandler);
    // Makes the profile the active one in the shared record and notifies;
    // neither reopens the database nor reloads.
    void activateProfile(const NullableString& profileID, CompletionHandler completionHandler);
    static void sendUpdateNotification();

  private:
    bool blockerEnabled_ = false;
    std::shared_ptr<ProfileDatabase> activeDatabase_;
    FileHandler fileHandler_;
    SharedDatabase* sharedDatabase_ = nullptr;
    std::optional<SharedData> sharedData_;
};

}  // namespace stonewall
