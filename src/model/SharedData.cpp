#include "model/SharedData.h"

#include "model/RuleText.h"
#include "utilities/Version.h"

namespace stonewall {

namespace {

bool bothEmptyOrEqual(const NullableString& a, const NullableString& b) {
    const bool aEmpty = !a || a->empty();
    const bool bEmpty = !b || b->empty();
    if (aEmpty && bEmpty) return true;
    return a && b && *a == *b;
}

}  // namespace

bool SharedData::isEqual(const SharedData& other) const {
    if (!activeProfileID || !other.activeProfileID || *activeProfileID != *other.activeProfileID)
        return false;
    return bothEmptyOrEqual(timestamps, other.timestamps) &&
           bothEmptyOrEqual(profiles, other.profiles) &&
           bothEmptyOrEqual(profileIDs, other.profileIDs) && status == other.status;
}

SharedData SharedData::copy() const {
    // domainStatus and reload are deliberately not copied: the copy keeps
    // "-1,-1,-1" and 0, as the product's other programs expect of a copy.
    SharedData result;
    result.activeProfileID = activeProfileID;
    result.timestamps = timestamps;
    result.profiles = profiles;
    result.profileIDs = profileIDs;
    result.profileUpdates = profileUpdates;
    result.status = status;
    result.addDate = addDate;
    result.appVersion = appVersion;
    result.extVersion = extVersion;
    return result;
}

std::string SharedData::description() const {
    std::string text;
    text.reserve(200);
    text += "activeProfileID: ";
    text += textOrNull(activeProfileID);
    text += " - timestamps: ";
    text += textOrNull(timestamps);
    text += " - profiles: ";
    text += textOrNull(profiles);
    text += " - profileIDs: ";
    text += textOrNull(profileIDs);
    text += " - profileUpdates: ";
    text += textOrNull(profileUpdates);
    text += " - status: ";
    RuleText::appendInteger(text, status);
    text += " - domainStatus: ";
    text += textOrNull(domainStatus);
    text += ", reload: ";
    RuleText::appendInteger(text, reload);
    text += ", appVersion: ";
    text += textOrNull(appVersion);
    text += ", extVersion: ";
    text += textOrNull(extVersion);
    return text;
}

std::string SharedData::bundleShortVersionString() { return std::string(kShortVersionString); }

}  // namespace stonewall
