#pragma once

#include <cstdint>
#include <string>

#include "utilities/Nullable.h"

namespace stonewall {

// The one row of shared state of the product's programs.
struct SharedData {
    NullableString activeProfileID = "defaultProfile";
    NullableString timestamps = "0,0";
    NullableString profiles = "Default Profile";
    NullableString profileIDs = "defaultProfile";
    NullableString profileUpdates = "0";
    int64_t status = 1;
    double addDate = 0;
    NullableString appVersion = bundleShortVersionString();
    NullableString extVersion = bundleShortVersionString();
    NullableString domainStatus = "-1,-1,-1";
    int64_t reload = 0;

    // Narrow equality: activeProfileID, timestamps, profiles, profileIDs and
    // status only (empty and null count as equal for the three lists).
    bool isEqual(const SharedData& other) const;
    // A copy that leaves domainStatus and reload at their defaults.
    SharedData copy() const;
    std::string description() const;

    // The program's short version string (the project version).
    static std::string bundleShortVersionString();
};

}  // namespace stonewall
