#include "storage/ExtensionState.h"

#include <memory>
#include <mutex>

#include "platform/Platform.h"

namespace stonewall {

namespace {

constexpr char kDataFolder[] = ".Data";
constexpr char kDataFileName[] = "state";
constexpr char kStatusUpdatedKey[] = "statusUpdated";
constexpr char kBlockingCounterKey[] = "blockingCounter";

// Safari 13.0's extension-services level: the counter badge works from here.
constexpr int64_t kBlockingCounterServicesVersion = 5;

std::mutex gInstanceMutex;
bool gInstanceMade = false;
std::unique_ptr<ExtensionState> gInstance;

}  // namespace

ExtensionState* ExtensionState::sharedInstance() {
    std::lock_guard lock(gInstanceMutex);
    if (!gInstanceMade) {
        gInstanceMade = true;
        const FileHandler handler =
            FileHandler::initWithName(kDataFolder, FileLocation::kApplicationSupport);
        if (handler.fileExists(kDataFileName)) {
            // An undecodable file leaves the instance null for good.
            if (auto archive = handler.unarchiveData(kDataFileName)) {
                gInstance = std::make_unique<ExtensionState>(initWithCoder(*archive));
            }
        } else {
            gInstance = std::make_unique<ExtensionState>();
            gInstance->createData();
        }
    }
    return gInstance.get();
}

void ExtensionState::resetSharedInstanceForTesting() {
    std::lock_guard lock(gInstanceMutex);
    gInstance.reset();
    gInstanceMade = false;
}

ExtensionState::ExtensionState()
    : dataFileName_(kDataFileName),
      dataFileHandler_(FileHandler::initWithName(kDataFolder, FileLocation::kApplicationSupport)),
      statusUpdated_(false),
      blockingCounter_(isSafariVersionAvailable(kBlockingCounterServicesVersion)) {}

ExtensionState::ExtensionState(const ExtensionState& other)
    : dataFileName_(other.dataFileName_),
      dataFileHandler_(other.dataFileHandler_),
      statusUpdated_(other.statusUpdated()),
      blockingCounter_(other.blockingCounter()) {}

ExtensionState& ExtensionState::operator=(const ExtensionState& other) {
    if (this != &other) {
        dataFileName_ = other.dataFileName_;
        dataFileHandler_ = other.dataFileHandler_;
        setStatusUpdated(other.statusUpdated());
        setBlockingCounter(other.blockingCounter());
    }
    return *this;
}

ExtensionState ExtensionState::initWithCoder(const Archive& coder) {
    ExtensionState state;
    const auto flag = [&coder](const char* key) {
        const auto found = coder.find(key);
        return found != coder.end() && found->second;
    };
    state.setStatusUpdated(flag(kStatusUpdatedKey));
    state.setBlockingCounter(flag(kBlockingCounterKey));
    return state;
}

Archive ExtensionState::encodeWithCoder() const {
    return Archive{{kStatusUpdatedKey, statusUpdated()}, {kBlockingCounterKey, blockingCounter()}};
}

bool ExtensionState::checkDataExists() const { return dataFileHandler_.fileExists(dataFileName_); }

void ExtensionState::createData() {
    dataFileHandler_.createFile(dataFileName_);
    saveData();
    // An empty file that the save could not fill would make every later start
    // find an undecodable state; without it the next start begins afresh.
    if (!dataFileHandler_.unarchiveData(dataFileName_)) removeData();
}

void ExtensionState::removeData() { dataFileHandler_.removeFile(dataFileName_); }

void ExtensionState::saveData() const {
    dataFileHandler_.archiveData(dataFileName_, encodeWithCoder());
}

std::optional<ExtensionState> ExtensionState::loadData() const {
    const auto archive = dataFileHandler_.unarchiveData(dataFileName_);
    if (!archive) return std::nullopt;
    return initWithCoder(*archive);
}

std::string ExtensionState::description() const {
    return "statusUpdated: " + std::to_string(statusUpdated() ? 1 : 0) +
           ", blockingCounter: " + std::to_string(blockingCounter() ? 1 : 0);
}

bool ExtensionState::isSafariVersionAvailable(int64_t version) {
    const auto& host = platform::host();
    if (version == 0) return host.safariServicesAvailable();
    const auto available = host.safariServicesVersion();
    return available && *available >= version;
}

}  // namespace stonewall
