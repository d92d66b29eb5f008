#pragma once

#include <string>

namespace SDK {

/// Identifiers and codes. Stateless and thread-safe.
class CryptoCodeUtils {
  public:
    /// A fresh random UUID in its 36-character lower-case form.
    static std::string GenerateUUID();
};

}  // namespace SDK
