#pragma once

#include <string>

namespace stonewall::platform {

// The program's own bundle: its resource folder, version and the
// localisation catalogue, keyed by the English text.
class Bundle {
  public:
    virtual ~Bundle() = default;
    virtual std::string resourcePath() const = 0;
    virtual std::string shortVersionString() const = 0;
    // The translation of the English text, or the English text itself.
    virtual std::string localizedString(const std::string& key) const = 0;
};

}  // namespace stonewall::platform
